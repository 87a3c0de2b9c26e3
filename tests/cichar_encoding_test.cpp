// The encodings: tables of cases for what is written down, and for the converters random text against a plain second
// implementation, in buffers that end at a page nobody may touch.
#include "zebcs/encoding.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "zebcs/frame.h"

namespace {

using sandbox::GuardedBuffer;
using Units = std::vector<ustring>;
using CodePoints = std::vector<u32>;

constexpr s32 kTooSmall = SM_STATUS_BUFFER_TOO_SMALL;
constexpr s32 kBadData = SM_STATUS_BAD_DATA;
constexpr char kFill = '\x5A';
constexpr ustring kUnitFill = 0x5A5A;

// What a converter must do in a certain room: the status, and how many units it has written by then, without the
// terminator.
struct Expected {
  s32 status;
  size_t written;
};

// The result of the plain second implementation, which knows no room: the units of all characters up to the end of
// the text or to a malformed one, and where among them each character ends.
template <class Unit>
struct Plain {
  std::vector<Unit> units;
  std::vector<size_t> ends;
  s32 status = SM_STATUS_SUCCESS;

  void Add(const std::vector<Unit> &character) {
    units.insert(units.end(), character.begin(), character.end());
    ends.push_back(units.size());
  }
  size_t Needed() const { return units.size() + 1; }
  Expected In(size_t room) const {
    size_t fitting = 0;
    for (const size_t end : ends) {
      if (end > room) return {kTooSmall, fitting};
      fitting = end;
    }
    if (status != SM_STATUS_SUCCESS) return {status, fitting};
    return {fitting == room ? kTooSmall : SM_STATUS_SUCCESS, fitting};  // the terminator is part of the need
  }
};

std::vector<char> PlainUTF8(u32 c) {
  if (c < 0x80) return {static_cast<char>(c)};
  const int length = c < 0x800 ? 2 : c < 0x10000 ? 3 : c < 0x200000 ? 4 : c < 0x4000000 ? 5 : 6;
  std::vector<char> bytes(static_cast<size_t>(length));
  for (int i = length - 1; i > 0; --i, c >>= 6) bytes[static_cast<size_t>(i)] = static_cast<char>(0x80 | (c & 0x3F));
  constexpr int kMarks[] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
  bytes[0] = static_cast<char>(kMarks[length] | static_cast<int>(c));
  return bytes;
}

Plain<char> PlainUTF16ToUTF8(const Units &text) {
  Plain<char> plain;
  for (size_t i = 0; text[i] != 0; ++i) {
    u32 c = text[i];
    if (c >= 0xD800 && c <= 0xDFFF) {
      const u32 first = text[0];
      const bool isSurrogate = first >= 0xD800 && first <= 0xDFFF;
      const bool isPair = first >= 0xD800 && first <= 0xDBFF && text[1] >= 0xDC00 && text[1] <= 0xDFFF;
      if (isSurrogate && !isPair) {
        plain.status = kBadData;
        return plain;
      }
      c = isPair ? ((first - 0xD800) << 10) + (text[1] - 0xDC00u) + 0x10000 : first;
    }
    plain.Add(PlainUTF8(c));
  }
  return plain;
}

Plain<char> PlainUCS4ToUTF8(const CodePoints &text) {
  Plain<char> plain;
  for (size_t i = 0; text[i] != 0; ++i) {
    if (text[i] > 0x7FFFFFFF) {
      plain.status = kBadData;
      return plain;
    }
    plain.Add(PlainUTF8(text[i]));
  }
  return plain;
}

// Length and code point of the sequence at `i`; length 0 for a malformed one.
size_t PlainDecode(const std::string &text, size_t i, u32 &c) {
  const u8 lead = static_cast<u8>(text[i]);
  constexpr struct {
    u8 first, last;
    size_t length;
    u8 mask;
  } kLeads[] = {{0x01, 0x7F, 1, 0x7F}, {0xC0, 0xDF, 2, 0x1F}, {0xE0, 0xEF, 3, 0x0F},
                {0xF0, 0xF7, 4, 0x07}, {0xF8, 0xFB, 5, 0x03}, {0xFC, 0xFD, 6, 0x01}};
  for (const auto &row : kLeads) {
    if (lead < row.first || lead > row.last) continue;
    c = lead & row.mask;
    for (size_t k = 1; k < row.length; ++k) {
      if (i + k >= text.size()) return 0;
      c = c << 6 | (static_cast<u8>(text[i + k]) & 0x3F);
    }
    return row.length;
  }
  return 0;
}

Plain<ustring> PlainUTF8ToUTF16(const std::string &text) {
  Plain<ustring> plain;
  for (size_t i = 0; i < text.size();) {
    u32 c = 0;
    const size_t length = PlainDecode(text, i, c);
    if (length == 0 || c > 0x10FFFF) {
      plain.status = kBadData;
      return plain;
    }
    if (c <= 0xFFFF) {
      plain.Add({static_cast<ustring>(c)});
    } else {
      plain.Add({static_cast<ustring>(0xD800 + (c >> 10 & 0x3FF)), static_cast<ustring>(0xDC00 + (c & 0x3FF))});
    }
    i += length;
  }
  return plain;
}

std::string PlainXMLPiece(char c) {
  switch (c) {
    case '"': return "&quot;";
    case '&': return "&amp;";
    case '\'': return "&apos;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    default: return std::string(1, c);
  }
}

Plain<char> PlainXML(const std::string &text) {
  Plain<char> plain;
  for (const char c : text) {
    const std::string piece = PlainXMLPiece(c);
    plain.Add({piece.begin(), piece.end()});
  }
  return plain;
}

std::string PlainEscape(const Units &text) {
  std::string escaped;
  for (size_t i = 0; text[i] != 0; ++i) {
    const unsigned unit = text[i];
    char piece[8];
    std::snprintf(piece, sizeof piece, unit >= 0x20 && unit <= 0x7F ? "%c" : "\\u%04x", unit);
    escaped += unit == '\t' ? "\\t" : unit == '\n' ? "\\n" : unit == '\r' ? "\\r" : unit == '\\' ? "\\\\" : piece;
  }
  return escaped;
}

// Where a conversion takes place. The tails are units between the end of the text or of the room and the page that
// nobody may touch, which gives every alignment.
struct Place {
  size_t room;
  size_t destTail = 0;
  size_t sourceTail = 0;
};

// The end of memory that lasts for the whole program and is followed by a page nobody may touch.
template <class T, int kUse>
T *GuardedEnd() {
  constexpr size_t kSize = 1 << 18;
  static const GuardedBuffer memory(kSize);
  return memory.data<T>() + kSize / sizeof(T);
}

// Puts text before the guard page. What is behind it in its tail is not text, but may look like some.
template <class Source>
const Source *PutSource(const std::vector<Source> &text, size_t tail) {
  Source *const end = GuardedEnd<Source, 0>();
  for (size_t i = 1; i <= tail; ++i) *(end - i) = static_cast<Source>("<\xE3z\xF0&\xC3"[i % 6]);
  std::copy(text.begin(), text.end(), end - tail - text.size());
  return end - tail - text.size();
}

// The calls of a converter with the text already put in.
template <class Unit>
using Call = std::function<s32(Unit *pDest, u32 *pDestSize)>;

template <class Unit>
::testing::AssertionResult Sizes(const Call<Unit> &call, const Plain<Unit> &plain) {
  constexpr u32 kUntouched = 12345;
  u32 size = kUntouched;
  const s32 status = call(nullptr, &size);
  if (status != plain.status) return ::testing::AssertionFailure() << "sizing gives status " << status;
  const size_t expected = status == 0 ? plain.Needed() * sizeof(Unit) : kUntouched;
  if (size != expected) return ::testing::AssertionFailure() << "sizing gives " << size << ", not " << expected;
  return ::testing::AssertionSuccess();
}

// Stores in a room of so many units, and checks the status, the size and all memory around what is written.
template <class Unit>
::testing::AssertionResult Stores(const Call<Unit> &call, const Plain<Unit> &plain, const Place &place) {
  constexpr size_t kBefore = 40;
  const Expected expected = plain.In(place.room);
  Unit *const end = GuardedEnd<Unit, 1>();
  Unit *const dest = end - place.destTail - place.room;
  static std::vector<Unit> memory;
  memory.assign(static_cast<size_t>(end - dest) + kBefore, static_cast<Unit>(kUnitFill));
  std::copy(memory.begin(), memory.end(), dest - kBefore);
  std::copy_n(plain.units.begin(), expected.written, memory.begin() + kBefore);
  if (expected.status == 0) memory[kBefore + expected.written] = 0;
  u32 size = static_cast<u32>(place.room);
  const s32 status = call(dest, &size);
  const size_t expectedSize = expected.status == 0 ? plain.Needed() * sizeof(Unit) : place.room;
  const auto failure = [&place] {
    return ::testing::AssertionFailure() << "room " << place.room << ", tails " << place.destTail << " and "
                                         << place.sourceTail << ": ";
  };
  if (status != expected.status) return failure() << "status " << status << ", not " << expected.status;
  if (size != expectedSize) return failure() << "size " << size << ", not " << expectedSize;
  const auto [found, wanted] = std::mismatch(dest - kBefore, end, memory.begin());
  if (found != end) {
    return failure() << "unit " << found - dest << " of the buffer is " << static_cast<u32>(*found) << ", not "
                     << static_cast<u32>(*wanted);
  }
  return ::testing::AssertionSuccess();
}

// The caller may have less memory than the size says, as long as the text and its terminator fit it: a room that ends
// at the guard page just where the text ends, and a size that is larger.
template <class Unit>
::testing::AssertionResult StoresNothingPastTheText(const Call<Unit> &call, const Plain<Unit> &plain, u32 toldSize) {
  const bool succeeds = plain.status == 0;
  Unit *const dest = GuardedEnd<Unit, 1>() - (plain.units.size() + (succeeds ? 1 : 0));
  u32 size = toldSize;
  const s32 status = call(dest, &size);
  if (status != plain.status) return ::testing::AssertionFailure() << "status " << status << " for told " << toldSize;
  if (!std::equal(plain.units.begin(), plain.units.end(), dest)) {
    return ::testing::AssertionFailure() << "other text for told " << toldSize;
  }
  if (succeeds && dest[plain.units.size()] != 0) return ::testing::AssertionFailure() << "no terminator";
  return ::testing::AssertionSuccess();
}

template <class Unit>
::testing::AssertionResult Converts(const Call<Unit> &call, const Plain<Unit> &plain, const Place &place) {
  const auto sizes = Sizes(call, plain);
  return sizes ? Stores(call, plain, place) : sizes;
}

std::vector<char> WithTerminator(const std::string &text) { return {text.c_str(), text.c_str() + text.size() + 1}; }

Call<ustring> UTF8ToUTF16(const std::string &text, size_t tail = 0) {
  const char *const source = PutSource(WithTerminator(text), tail);
  return [source](ustring *pDest, u32 *pDestSize) { return KCSUTF8StrToUCS2Str(pDest, pDestSize, source); };
}

Call<char> UTF16ToUTF8(const Units &text, size_t tail = 0) {
  const ustring *const source = PutSource(text, tail);
  return [source](char *pDest, u32 *pDestSize) { return KCSUCS2StrToUTF8Str(pDest, pDestSize, source); };
}

Call<char> UCS4ToUTF8(const CodePoints &text, size_t tail = 0) {
  const u32 *const source = PutSource(text, tail);
  return [source](char *pDest, u32 *pDestSize) { return KCSUCS4StrToUTF8Str(pDest, pDestSize, source); };
}

// Checks the flag, too: whether an entity was put, or was the piece that did not fit.
Call<char> XML(const std::string &text, size_t tail = 0) {
  const char *const source = PutSource(WithTerminator(text), tail);
  return [source, text](char *pDest, u32 *pDestSize) {
    const size_t room = pDest == nullptr ? SIZE_MAX : *pDestSize;
    size_t used = 0;
    booln expectedFlag = 0;
    for (size_t i = 0; i < text.size() && used <= room; ++i) {
      const size_t length = PlainXMLPiece(text[i]).size();
      if (length > 1) expectedFlag = 1;
      used += length;
    }
    booln flag = 7;
    const s32 status = KCSUTF8StrToXMLUTF8Str(pDest, pDestSize, &flag, source);
    EXPECT_EQ(flag, expectedFlag) << text;
    return status;
  };
}

// Random text. A kind of text draws its pieces from some of the sorts below, common ones more often.
constexpr unsigned kUTF8Kinds = 9;

std::string RandomUTF8(std::mt19937 &random, size_t length, unsigned kind) {
  const auto below = [&random](unsigned limit) { return static_cast<unsigned>(random() % limit); };
  std::string text;
  const auto put = [&text](unsigned byte) { text += static_cast<char>(byte == 0 ? 1 : byte); };
  const auto tail = [&] { put(0x80 | below(64)); };
  unsigned runSort = 0;
  unsigned runLeft = 0;
  while (text.size() < length) {
    unsigned sort = kind == 0   ? 0
                    : kind == 1 ? below(2)
                    : kind == 2 ? 1
                    : kind == 3 ? 2
                    : kind == 4 ? below(3)
                                : below(9);
    if (kind == 5 && below(20) != 0) sort = below(3);
    if (kind >= 7) {
      // Runs of one sort, so that fast ways are entered and left; now and then something that is not valid.
      if (runLeft-- == 0) runSort = below(3), runLeft = below(30);
      sort = kind == 8 && below(60) == 0 ? below(9) : runSort;
    }
    switch (sort) {
      case 0: put(below(0x80)); break;
      case 1: put(0xC0 | below(32)), tail(); break;
      case 2: put(0xE0 | below(16)), tail(), tail(); break;
      case 3: put(0xF0 | below(5)), tail(), tail(), tail(); break;
      case 4: put(static_cast<unsigned>("<>&\"'"[below(5)])); break;
      case 5: put(below(256)); break;
      case 6: put(0xC0 | below(64)), put(below(0x80)); break;
      case 7: put(0xC0), put(0x80); break;
      default: put(0xF8 | below(8)), tail(), tail(), tail(), tail(), tail(); break;
    }
  }
  if (below(2) == 0) text.resize(length);
  return text;
}

constexpr unsigned kUTF16Kinds = 9;

Units RandomUTF16(std::mt19937 &random, size_t length, unsigned kind) {
  const auto below = [&random](unsigned limit) { return static_cast<unsigned>(random() % limit); };
  Units text;
  unsigned runSort = 0;
  unsigned runLeft = 0;
  while (text.size() < length) {
    unsigned sort = kind == 0 ? 0 : kind == 1 ? below(2) : kind == 2 ? 1 : kind == 3 ? 2 : below(3);
    if (kind >= 7) {
      if (runLeft-- == 0) runSort = below(3), runLeft = below(30);
      sort = runSort;
    }
    if ((kind == 5 || kind == 6) && below(12) == 0) sort = 3;
    if (kind == 8 && below(60) == 0) sort = 3;
    switch (sort) {
      case 0: text.push_back(static_cast<ustring>(1 + below(0x7F))); break;
      case 1: text.push_back(static_cast<ustring>(0x80 + below(0x780))); break;
      case 2:
        text.push_back(static_cast<ustring>(below(8) == 0 ? 0xE000 + below(0x2000) : 0x800 + below(0xD000)));
        break;
      default: text.push_back(static_cast<ustring>(0xD800 + below(0x800))); break;
    }
  }
  // Text that begins with a pair may hold surrogates and still be converted.
  if (kind == 6 && length >= 2) {
    text[0] = static_cast<ustring>(0xD800 + below(0x400));
    text[1] = static_cast<ustring>(0xDC00 + below(0x400));
  }
  text.push_back(0);
  return text;
}

CodePoints RandomUCS4(std::mt19937 &random, size_t length, bool withBad) {
  CodePoints text;
  while (text.size() < length) {
    const u32 c = static_cast<u32>(random()) >> random() % 32;  // as many of each length
    text.push_back(std::max(1u, withBad ? c : c & 0x7FFFFFFF));
  }
  text.push_back(0);
  return text;
}

// One in `spacing` bytes is special.
std::string RandomMarkup(std::mt19937 &random, size_t length, unsigned spacing) {
  std::string text(length, 'x');
  for (char &c : text) c = random() % spacing == 0 ? "<>&\"'"[random() % 5] : static_cast<char>(1 + random() % 255);
  return text;
}

constexpr unsigned kSpacings[] = {1000000, 40, 6, 2, 1};

// Lengths around the sizes that the converters treat in one piece.
std::vector<size_t> Lengths() {
  std::vector<size_t> lengths;
  for (size_t i = 0; i <= 70; ++i) lengths.push_back(i);
  for (const size_t i : {127u, 128u, 129u, 511u, 512u, 513u, 530u, 1023u, 1025u}) lengths.push_back(i);
  for (size_t i = 4090; i <= 4100; ++i) lengths.push_back(i);
  return lengths;
}

std::string Bytes(const astring *text, size_t size) { return {text, size}; }

// The C locale of the whole program, for as long as this lives.
class LocaleGuard {
 public:
  [[nodiscard]] explicit LocaleGuard(const char *name) : m_before(std::setlocale(LC_ALL, nullptr)) {
    EXPECT_NE(std::setlocale(LC_ALL, name), nullptr) << name;
  }
  LocaleGuard(const LocaleGuard &) = delete;
  LocaleGuard &operator=(const LocaleGuard &) = delete;
  ~LocaleGuard() { std::setlocale(LC_ALL, m_before.c_str()); }

 private:
  std::string m_before;
};

// One megabyte of a repeated pattern, mapped again and again behind itself, and then a zero page: text that is longer
// than any memory.
template <class Unit>
class HugeText {
 public:
  HugeText(Unit unit, size_t length) {
    constexpr size_t kPiece = size_t{1} << 20;
    const size_t pieces = length * sizeof(Unit) / kPiece + 1;
    m_size = pieces * kPiece + 4096;
    const int fd = memfd_create("text", 0);
    EXPECT_NE(fd, -1);
    EXPECT_EQ(ftruncate(fd, kPiece), 0);
    void *const piece = mmap(nullptr, kPiece, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    EXPECT_NE(piece, MAP_FAILED);
    std::fill_n(static_cast<Unit *>(piece), kPiece / sizeof(Unit), unit);
    munmap(piece, kPiece);
    m_memory =
        static_cast<char *>(mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    for (size_t i = 0; i < pieces; ++i) {
      EXPECT_NE(mmap(m_memory + i * kPiece, kPiece, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0), MAP_FAILED);
    }
    close(fd);
    m_end = static_cast<const Unit *>(static_cast<void *>(m_memory + pieces * kPiece));
  }
  HugeText(const HugeText &) = delete;
  HugeText &operator=(const HugeText &) = delete;
  ~HugeText() { munmap(m_memory, m_size); }

  // The text of that many units; at most as many as were asked for.
  const Unit *OfLength(size_t length) const { return m_end - length; }

 private:
  size_t m_size = 0;
  char *m_memory = nullptr;
  const Unit *m_end = nullptr;
};

}  // namespace

TEST(UCS4CharToUTF8Chars, LengthsAndBytes) {
  const struct {
    u32 c;
    std::string bytes;
  } cases[] = {
      {0, std::string(1, '\0')},
      {0x7F, "\x7F"},
      {0x80, "\xC2\x80"},
      {0x7FF, "\xDF\xBF"},
      {0x800, "\xE0\xA0\x80"},
      {0xD800, "\xED\xA0\x80"},
      {0xDFFF, "\xED\xBF\xBF"},
      {0xFFFF, "\xEF\xBF\xBF"},
      {0x10000, "\xF0\x90\x80\x80"},
      {0x10FFFF, "\xF4\x8F\xBF\xBF"},
      {0x1FFFFF, "\xF7\xBF\xBF\xBF"},
      {0x200000, "\xF8\x88\x80\x80\x80"},
      {0x3FFFFFF, "\xFB\xBF\xBF\xBF\xBF"},
      {0x4000000, "\xFC\x84\x80\x80\x80\x80"},
      {0x7FFFFFFF, "\xFD\xBF\xBF\xBF\xBF\xBF"},
  };
  for (const auto &c : cases) {
    u32 size = 99;
    EXPECT_EQ(UCS4CharToUTF8Chars(nullptr, &size, c.c), 0);
    EXPECT_EQ(size, c.bytes.size()) << c.c;
    for (u32 room = 0; room <= 8; ++room) {
      std::string buffer(8, kFill);
      size = room;
      const bool fits = room >= c.bytes.size();
      EXPECT_EQ(UCS4CharToUTF8Chars(buffer.data(), &size, c.c), fits ? 0 : kTooSmall) << c.c << ' ' << room;
      EXPECT_EQ(size, fits ? c.bytes.size() : room);
      EXPECT_EQ(buffer, fits ? c.bytes + std::string(8 - c.bytes.size(), kFill) : std::string(8, kFill));
    }
  }
  u32 size = 8;
  astring buffer[8];
  for (const u32 c : {0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(UCS4CharToUTF8Chars(buffer, &size, c), kBadData);
    EXPECT_EQ(UCS4CharToUTF8Chars(nullptr, &size, c), kBadData);
    EXPECT_EQ(size, 8u);
  }
  EXPECT_EQ(UCS4CharToUTF8Chars(buffer, nullptr, 'a'), SM_STATUS_INVALID_INPUT);
}

TEST(UCS4CharToUTF8Chars, EveryCodePointIsReadBack) {
  std::mt19937 random(11);
  char *const end = GuardedEnd<char, 0>();
  for (u32 i = 0; i < 0x180000; ++i) {
    const u32 c = i < 0x120000 ? i : static_cast<u32>(random()) >> (1 + random() % 12);
    const std::vector<char> expected = PlainUTF8(c);
    u32 size = 0;
    ASSERT_EQ(UCS4CharToUTF8Chars(nullptr, &size, c), 0);
    ASSERT_EQ(size, expected.size()) << c;
    char *const dest = end - size;
    ASSERT_EQ(UCS4CharToUTF8Chars(dest, &size, c), 0);
    ASSERT_TRUE(std::equal(expected.begin(), expected.end(), dest)) << c;
    u32 decoded = ~c;
    u32 length = 0;
    ASSERT_EQ(UTF8CharsToUCS4Char(&decoded, dest, &length), 0);
    ASSERT_EQ(decoded, c);
    ASSERT_EQ(length, size);
  }
}

TEST(UTF8CharsToUCS4Char, Table) {
  const struct {
    const char *what;
    const char *text;
    s32 status;
    u32 c;
    u32 length;
  } cases[] = {
      {"terminator", "", 0, 0, 1},
      {"ASCII", "\x7Fz", 0, 0x7F, 1},
      {"two bytes", "\xC2\x80z", 0, 0x80, 2},
      {"three bytes", "\xEF\xBF\xBF", 0, 0xFFFF, 3},
      {"four bytes", "\xF4\x8F\xBF\xBF", 0, 0x10FFFF, 4},
      {"five bytes", "\xFB\xBF\xBF\xBF\xBF", 0, 0x3FFFFFF, 5},
      {"six bytes", "\xFD\xBF\xBF\xBF\xBF\xBF", 0, 0x7FFFFFFF, 6},
      {"longer form than needed", "\xC1\xA1", 0, 'a', 2},
      {"long form of zero", "\xC0\x80", 0, 0, 2},
      {"continuation of another form",
       "\xC3"
       "A",
       0, 0xC1, 2},
      {"cut after the lead", "\xC3", kBadData, 0, 77},
      {"cut in the middle", "\xE3\x81", kBadData, 0, 77},
      {"six cut before the last", "\xFD\xBF\xBF\xBF\xBF", kBadData, 0, 77},
      {"continuation first", "\x80zzzzzz", kBadData, 0, 77},
      {"last continuation first", "\xBFzzzzzz", kBadData, 0, 77},
      {"0xFE", "\xFEzzzzzz", kBadData, 0, 77},
      {"0xFF", "\xFFzzzzzz", kBadData, 0, 77},
  };
  for (const auto &c : cases) {
    u32 decoded = 5;
    u32 length = 77;
    EXPECT_EQ(UTF8CharsToUCS4Char(&decoded, c.text, &length), c.status) << c.what;
    EXPECT_EQ(decoded, c.c) << c.what;
    EXPECT_EQ(length, c.length) << c.what;
  }
  u32 decoded = 5;
  u32 length = 0;
  EXPECT_EQ(UTF8CharsToUCS4Char(nullptr, "a", &length), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(UTF8CharsToUCS4Char(&decoded, nullptr, &length), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(decoded, 0u) << "0 after any failure";
  EXPECT_EQ(UTF8CharsToUCS4Char(&decoded, "a", nullptr), SM_STATUS_INVALID_INPUT);
}

TEST(UTF8CharsToUCS4Char, AnyTwoBytesAndRandomOnesAfterThem) {
  std::mt19937 random(12);
  for (unsigned i = 0; i < 4 * 65536; ++i) {
    std::string text{static_cast<char>(i >> 8 & 0xFF), static_cast<char>(i & 0xFF)};
    while (text.size() < 6) text += static_cast<char>(random() % 6 == 0 ? 0 : random() % 256);
    text.resize(text.find('\0') == std::string::npos ? 6 : text.find('\0'));
    u32 expected = 0;
    const size_t expectedLength = text.empty() ? 1 : PlainDecode(text, 0, expected);
    if (expectedLength == 0) expected = 0;
    const char *const source = PutSource(WithTerminator(text), 0);  // nothing past the terminator may be looked at
    u32 decoded = 5;
    u32 length = 77;
    ASSERT_EQ(UTF8CharsToUCS4Char(&decoded, source, &length), expectedLength == 0 ? kBadData : 0) << i;
    ASSERT_EQ(decoded, expected) << i;
    ASSERT_EQ(length, expectedLength == 0 ? 77 : expectedLength) << i;
  }
}

TEST(UTF8CharsToUCS4Char, ZeroInsideASequenceIsBadWhereverItStands) {
  for (unsigned lead = 0x80; lead <= 0xFF; ++lead) {
    for (size_t zeroAt = 1; zeroAt <= 6; ++zeroAt) {
      const std::string text = std::string(1, static_cast<char>(lead)) + std::string(zeroAt - 1, '\xBF');
      u32 expected = 0;
      const bool isGood = PlainDecode(text, 0, expected) != 0;
      u32 decoded = 5;
      u32 length = 77;
      EXPECT_EQ(UTF8CharsToUCS4Char(&decoded, PutSource(WithTerminator(text), 0), &length), isGood ? 0 : kBadData);
      EXPECT_EQ(decoded, isGood ? expected : 0) << lead << ' ' << zeroAt;
    }
  }
}

TEST(UTF8CharsToUCS4Char, LooksAtNoByteBehindTheSequence) {
  for (const char *text : {"\x01", "\x7F", "\xC2\x80", "\xE0\xA0\x80", "\xF0\x90\x80\x80", "\xF8\x88\x80\x80\x80",
                           "\xFC\x84\x80\x80\x80\x80"}) {
    const size_t expectedLength = std::strlen(text);
    const char *const source = PutSource(std::vector<char>(text, text + expectedLength), 0);
    u32 decoded = 0;
    u32 length = 0;
    EXPECT_EQ(UTF8CharsToUCS4Char(&decoded, source, &length), 0);
    EXPECT_EQ(length, expectedLength);
  }
}

TEST(UCS4CharToUTF16Chars, KeptTheOffsetIsNotTakenOff) {
  const struct {
    u32 c;
    Units units;
  } cases[] = {
      {0, {0}},
      {0xD800, {0xD800}},
      {0xFFFF, {0xFFFF}},
      {0x10000, {0xD840, 0xDC00}},
      {0x10FFFF, {0xD83F, 0xDFFF}},
      {0x1F600, {0xD87D, 0xDE00}},
  };
  for (const auto &c : cases) {
    u32 size = 99;
    EXPECT_EQ(UCS4CharToUTF16Chars(nullptr, &size, c.c), 0);
    EXPECT_EQ(size, c.units.size());
    for (u32 room = 0; room <= 3; ++room) {
      Units buffer(3, kUnitFill);
      size = room;
      const bool fits = room >= c.units.size();
      EXPECT_EQ(UCS4CharToUTF16Chars(buffer.data(), &size, c.c), fits ? 0 : kTooSmall) << c.c << ' ' << room;
      EXPECT_EQ(size, fits ? c.units.size() : room);
      Units expected = fits ? c.units : Units();
      expected.resize(3, kUnitFill);
      EXPECT_EQ(buffer, expected);
    }
  }
  u32 size = 2;
  EXPECT_EQ(UCS4CharToUTF16Chars(nullptr, &size, 0x110000), kBadData);
  EXPECT_EQ(size, 2u);
  EXPECT_EQ(UCS4CharToUTF16Chars(nullptr, nullptr, 'a'), SM_STATUS_INVALID_INPUT);
}

TEST(UCS4CharToUTF16Chars, EveryCodePoint) {
  ustring *const end = GuardedEnd<ustring, 1>();
  for (u32 c = 0; c <= 0x10FFFF; ++c) {
    const u32 length = c <= 0xFFFF ? 1 : 2;
    ustring *const dest = end - length;
    u32 size = length;
    ASSERT_EQ(UCS4CharToUTF16Chars(dest, &size, c), 0) << c;
    ASSERT_EQ(size, length) << c;
    ASSERT_EQ(dest[0], length == 1 ? c : 0xD800 + c / 1024 % 1024) << c;
    if (length == 2) {
      ASSERT_EQ(dest[1], 0xDC00 + c % 1024) << c;
    }
  }
  for (const u32 c : {0x110000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    Units buffer(3, kUnitFill);
    u32 size = 3;
    EXPECT_EQ(UCS4CharToUTF16Chars(buffer.data(), &size, c), kBadData);
    EXPECT_EQ(size, 3u);
    size = 0;
    EXPECT_EQ(UCS4CharToUTF16Chars(buffer.data(), &size, c), kBadData) << "bad in any room";
    EXPECT_EQ(buffer, Units(3, kUnitFill));
  }
}

TEST(UTF16CharsToUCS4Char, Table) {
  const struct {
    Units units;
    s32 status;
    u32 c;
  } cases[] = {
      {{0}, 0, 0},
      {{'a'}, 0, 'a'},
      {{0xD7FF}, 0, 0xD7FF},
      {{0xE000}, 0, 0xE000},
      {{0xFFFF}, 0, 0xFFFF},
      {{0xD83D, 0xDE00}, 0, 0x1F600},
      {{0xD800, 0xDC00}, 0, 0x10000},
      {{0xDBFF, 0xDFFF}, 0, 0x10FFFF},
      {{0xDE00, 'a'}, kBadData, 0xDE00},
      {{0xDFFF, 0xDC00}, kBadData, 0xDFFF},
      {{0xD83D, 0}, kBadData, 0xD83D},
      {{0xD83D, 0xD83D}, kBadData, 0xD83D},
      {{0xDBFF, 0xE000}, kBadData, 0xDBFF},
  };
  for (const auto &c : cases) {
    GuardedBuffer source(c.units.size() * sizeof(ustring));  // nothing past a unit that is no lead is looked at
    std::copy(c.units.begin(), c.units.end(), source.data<ustring>());
    u32 decoded = 5;
    EXPECT_EQ(UTF16CharsToUCS4Char(&decoded, source.data<ustring>()), c.status) << c.units[0];
    EXPECT_EQ(decoded, c.c) << c.units[0];
  }
  const ustring unit = 'a';
  u32 decoded = 0;
  EXPECT_EQ(UTF16CharsToUCS4Char(nullptr, &unit), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(UTF16CharsToUCS4Char(&decoded, nullptr), SM_STATUS_INVALID_INPUT);
}

TEST(UTF16CharsToUCS4Char, EveryFirstUnit) {
  const ustring seconds[] = {0, 'a', 0xD7FF, 0xD800, 0xDBFF, 0xDC00, 0xDD55, 0xDFFF, 0xE000, 0xFFFF};
  for (unsigned first = 0; first <= 0xFFFF; ++first) {
    for (const ustring second : seconds) {
      const ustring text[] = {static_cast<ustring>(first), second};
      const bool isSurrogate = first >= 0xD800 && first <= 0xDFFF;
      const bool isPair = isSurrogate && first <= 0xDBFF && second >= 0xDC00 && second <= 0xDFFF;
      u32 decoded = 5;
      ASSERT_EQ(UTF16CharsToUCS4Char(&decoded, text), isSurrogate && !isPair ? kBadData : 0) << first << ' ' << second;
      ASSERT_EQ(decoded, isPair ? 0x10000 + (first - 0xD800) * 1024 + (second - 0xDC00u) : first);
    }
  }
}

TEST(UTF16CharsToUCS4Char, KeptPairsOfTheEncoderAreReadAsOtherCodePoints) {
  for (const u32 c : {0x10000u, 0x1F600u, 0xFFFFFu, 0x10FFFFu}) {
    ustring pair[2];
    u32 size = 2;
    ASSERT_EQ(UCS4CharToUTF16Chars(pair, &size, c), 0);
    u32 decoded = 0;
    ASSERT_EQ(UTF16CharsToUCS4Char(&decoded, pair), 0);
    EXPECT_EQ(decoded, (c & 0xFFFFF) + 0x10000);
    EXPECT_NE(decoded, c);
  }
}

TEST(UCS4CharToXMLUTF8Chars, KeptTheLastByteOfTheRoomIsClobbered) {
  const struct {
    u32 c;
    std::string entity;
  } cases[] = {{'"', "&quot;"}, {'&', "&amp;"}, {'\'', "&apos;"}, {'<', "&lt;"}, {'>', "&gt;"}};
  for (const auto &c : cases) {
    const size_t length = c.entity.size();
    u32 size = 0;
    booln flag = 9;
    EXPECT_EQ(UCS4CharToXMLUTF8Chars(nullptr, &size, &flag, c.c), 0);
    EXPECT_EQ(size, length);
    EXPECT_EQ(flag, 1);
    for (u32 room = 0; room <= 10; ++room) {
      std::string buffer(12, kFill);
      std::string expected = buffer;
      size = room;
      flag = 9;
      EXPECT_EQ(UCS4CharToXMLUTF8Chars(buffer.data(), &size, &flag, c.c), room < length ? kTooSmall : 0);
      EXPECT_EQ(size, room < length ? room : length);
      EXPECT_EQ(flag, 1);
      if (room >= length) {
        expected = c.entity + std::string(room - length, '\0') + std::string(12 - room, kFill);
        expected[room - 1] = '\0';
      }
      EXPECT_EQ(buffer, expected) << c.entity << ' ' << room;
    }
  }
}

TEST(UCS4CharToXMLUTF8Chars, OtherCharactersAreUTF8) {
  astring buffer[8] = {};
  u32 size = sizeof buffer;
  booln flag = 9;
  EXPECT_EQ(UCS4CharToXMLUTF8Chars(buffer, &size, &flag, 0xE9), 0);
  EXPECT_EQ(Bytes(buffer, size), "\xC3\xA9");
  EXPECT_EQ(flag, 0);
  EXPECT_EQ(UCS4CharToXMLUTF8Chars(buffer, &size, nullptr, 'a'), 0);
  EXPECT_EQ(UCS4CharToXMLUTF8Chars(buffer, &size, nullptr, '<'), kTooSmall);
  EXPECT_EQ(UCS4CharToXMLUTF8Chars(buffer, &size, &flag, 0x80000000), kBadData);
  EXPECT_EQ(UCS4CharToXMLUTF8Chars(buffer, nullptr, &flag, '<'), SM_STATUS_INVALID_INPUT);
}

TEST(UCS4CharToXMLUTF8Chars, EveryOtherCharacterInEveryRoom) {
  const std::string reserved = "\"&'<>";
  for (const u32 c : {0u,      1u,       9u,        0x21u,      0x23u,       0x25u,       0x28u,       0x3Bu,
                      0x3Du,   0x3Fu,    0x7Fu,     0x80u,      0x122u,      0x7FFu,      0x800u,      0xD800u,
                      0xFFFFu, 0x10000u, 0x200000u, 0x4000000u, 0x7FFFFFFFu, 0x80000000u, 0x80000022u, 0xFFFFFF3Cu}) {
    ASSERT_TRUE(c > 0x7F || c == 0 || reserved.find(static_cast<char>(c)) == std::string::npos);
    const std::vector<char> bytes = c > 0x7FFFFFFF ? std::vector<char>() : PlainUTF8(c);
    const s32 good = c > 0x7FFFFFFF ? kBadData : 0;
    u32 size = 99;
    booln flag = 9;
    EXPECT_EQ(UCS4CharToXMLUTF8Chars(nullptr, &size, &flag, c), good) << c;
    EXPECT_EQ(size, good == 0 ? bytes.size() : 99) << c;
    EXPECT_EQ(flag, 0) << c;
    for (u32 room = 0; room <= 8; ++room) {
      std::string buffer(9, kFill);
      size = room;
      flag = 9;
      const s32 expected = good != 0 ? good : room < bytes.size() ? kTooSmall : 0;
      EXPECT_EQ(UCS4CharToXMLUTF8Chars(buffer.data(), &size, &flag, c), expected) << c << ' ' << room;
      EXPECT_EQ(size, expected == 0 ? bytes.size() : room) << c << ' ' << room;
      EXPECT_EQ(flag, 0) << c;
      const std::string written = expected == 0 ? std::string(bytes.begin(), bytes.end()) : "";
      EXPECT_EQ(buffer, written + std::string(9 - written.size(), kFill)) << c << ' ' << room;
    }
  }
}

TEST(Converters, NullArguments) {
  u32 size = 4;
  astring narrow[4];
  ustring wide[4];
  const ustring wideText[] = {'a', 0};
  const u32 longText[] = {'a', 0};
  booln flag = 9;
  for (const auto convert :
       {KCSUTF8StrToUCS2Str, KCSLocalToUnicode, KCSASCIIToUnicode, LocalToUnicode, ASCIIToUnicode}) {
    EXPECT_EQ(convert(wide, nullptr, "a"), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(convert(wide, &size, nullptr), SM_STATUS_INVALID_INPUT);
  }
  for (const auto convert :
       {KCSUCS2StrToUTF8Str, KCSUnicodeToLocal, KCSUnicodeToASCII, UnicodeToLocal, UnicodeToASCII}) {
    EXPECT_EQ(convert(narrow, nullptr, wideText), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(convert(narrow, &size, nullptr), SM_STATUS_INVALID_INPUT);
  }
  EXPECT_EQ(KCSUCS4StrToUTF8Str(narrow, nullptr, longText), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUCS4StrToUTF8Str(narrow, &size, nullptr), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(narrow, nullptr, &flag, "a"), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(narrow, &size, &flag, nullptr), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUnicodeToEscape(narrow, nullptr, wideText), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSUnicodeToEscape(narrow, &size, nullptr), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(size, 4u);
}

TEST(Converters, NullArgumentsChangeNothing) {
  std::string narrow(4, kFill);
  Units wide(4, kUnitFill);
  u32 size = 4;
  booln flag = 9;
  EXPECT_EQ(KCSUTF8StrToUCS2Str(wide.data(), &size, nullptr), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUTF8StrToUCS2Str(nullptr, &size, nullptr), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUTF8StrToUCS2Str(nullptr, nullptr, "a"), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUCS2StrToUTF8Str(narrow.data(), &size, nullptr), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUCS2StrToUTF8Str(nullptr, nullptr, wide.data()), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUCS4StrToUTF8Str(narrow.data(), &size, nullptr), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(narrow.data(), &size, nullptr, nullptr), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(narrow.data(), nullptr, nullptr, "<"), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(nullptr, nullptr, &flag, "<"), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUnicodeToEscape(narrow.data(), &size, nullptr), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSUnicodeToEscape(nullptr, nullptr, nullptr), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(narrow, std::string(4, kFill));
  EXPECT_EQ(wide, Units(4, kUnitFill));
}

TEST(UTF8StrToUCS2Str, EmptyText) {
  for (const size_t room : {0u, 1u, 2u}) EXPECT_TRUE(Converts(UTF8ToUTF16(""), PlainUTF8ToUTF16(""), {room}));
  u32 size = 0;
  EXPECT_EQ(KCSUTF8StrToUCS2Str(nullptr, &size, ""), 0);
  EXPECT_EQ(size, 2u);
}

TEST(UTF8StrToUCS2Str, KeptTheRoomCountsUnitsAndTheAnswerBytes) {
  Units buffer(8, kUnitFill);
  u32 size = 4;
  EXPECT_EQ(KCSUTF8StrToUCS2Str(buffer.data(), &size, "abc"), 0) << "four units fit a room of four";
  EXPECT_EQ(size, 8u);
  EXPECT_EQ(buffer, (Units{'a', 'b', 'c', 0, kUnitFill, kUnitFill, kUnitFill, kUnitFill}));
}

TEST(UTF8StrToUCS2Str, KeptLongFormOfZeroIsAUnitLikeAnyOther) {
  Units buffer(8, kUnitFill);
  u32 size = 8;
  EXPECT_EQ(KCSUTF8StrToUCS2Str(buffer.data(), &size,
                                "a\xC0\x80"
                                "b"),
            0);
  EXPECT_EQ(size, 8u);
  EXPECT_EQ(buffer, (Units{'a', 0, 'b', 0, kUnitFill, kUnitFill, kUnitFill, kUnitFill}));
}

TEST(UTF8StrToUCS2Str, Table) {
  const struct {
    const char *what;
    std::string text;
    s32 status;
    Units units;
  } cases[] = {
      {"last of one byte", "\x7F", 0, {0x7F}},
      {"first and last of two", "\xC2\x80\xDF\xBF", 0, {0x80, 0x7FF}},
      {"first and last of three", "\xE0\xA0\x80\xEF\xBF\xBF", 0, {0x800, 0xFFFF}},
      {"surrogates as code points", "\xED\xA0\x80\xED\xBF\xBF", 0, {0xD800, 0xDFFF}},
      {"Kept: pairs without the offset", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", 0, {0xD840, 0xDC00, 0xD83F, 0xDFFF}},
      {"one above the last code point", "a\xF4\x90\x80\x80", kBadData, {'a'}},
      {"the largest of four", "a\xF7\xBF\xBF\xBF", kBadData, {'a'}},
      {"the smallest of five", "a\xF8\x88\x80\x80\x80", kBadData, {'a'}},
      {"the largest of six", "a\xFD\xBF\xBF\xBF\xBF\xBF", kBadData, {'a'}},
      {"five bytes for a small code point", "\xF8\x80\x80\x81\xA1", 0, {'a'}},
      {"six bytes for a small code point", "\xFC\x80\x80\x80\x81\xA1", 0, {'a'}},
      {"six bytes for a pair", "\xFC\x80\x80\x90\x80\x80", 0, {0xD840, 0xDC00}},
      {"zero in four bytes", "a\xF0\x80\x80\x80z", 0, {'a', 0, 'z'}},
      {"leads that go for continuations", "\xC3\xC3\xE1\xE1\xE1", 0, {0xC3, 0x1861}},
      {"ASCII that goes for continuations", "\xE1zz!", 0, {0x1EBA, '!'}},
      {"0xFE that goes for a continuation", "\xC3\xFE", 0, {0xFE}},
      {"cut after a lead of two", "ab\xC3", kBadData, {'a', 'b'}},
      {"cut inside three", "ab\xE3\x81", kBadData, {'a', 'b'}},
      {"cut inside six", "ab\xFC\x84\x80\x80\x80", kBadData, {'a', 'b'}},
      {"continuation first", "ab\x80", kBadData, {'a', 'b'}},
      {"0xFE", "ab\xFE", kBadData, {'a', 'b'}},
      {"0xFF", "ab\xFF", kBadData, {'a', 'b'}},
  };
  for (const auto &c : cases) {
    // The same far into a text, where the blocks are.
    for (const size_t before : {0u, 5u, 13u, 14u, 15u, 16u, 31u, 45u}) {
      const std::string front(before, 'x');
      Plain<ustring> expected;
      for (size_t i = 0; i < before; ++i) expected.Add({'x'});
      expected.units.insert(expected.units.end(), c.units.begin(), c.units.end());
      expected.status = c.status;
      const size_t room = expected.Needed() + 5;
      expected.ends.push_back(expected.units.size());
      EXPECT_TRUE(Converts(UTF8ToUTF16(front + c.text, before), expected, {room})) << c.what << ' ' << before;
    }
  }
}

TEST(UTF8StrToUCS2Str, AgreesWithAPlainImplementation) {
  std::mt19937 random(1);
  for (const size_t length : Lengths()) {
    for (unsigned round = 0; round < (length < 100 ? 540u : 45u); ++round) {
      const std::string text = RandomUTF8(random, length, round % kUTF8Kinds);
      const Plain<ustring> plain = PlainUTF8ToUTF16(text);
      const size_t tail = random() % 34;
      const Call<ustring> call = UTF8ToUTF16(text, tail);
      const size_t needed = plain.Needed();
      for (const size_t room : {needed - 1, needed, needed + 1, 2 * text.size() + 2, random() % (needed + 1)}) {
        ASSERT_TRUE(Converts(call, plain, {room, random() % 18, tail})) << length << ' ' << round;
      }
      for (const size_t told : {needed, 2 * text.size() + 2, size_t{0xFFFFFFFF}}) {
        ASSERT_TRUE(StoresNothingPastTheText(call, plain, static_cast<u32>(told))) << length << ' ' << round;
      }
    }
  }
}

TEST(UTF8StrToUCS2Str, EveryRoomUpToTheNeed) {
  std::mt19937 random(2);
  for (unsigned kind = 0; kind < kUTF8Kinds; ++kind) {
    for (size_t length = 0; length <= 150; length += length < 70 ? 1 : 20) {
      const std::string text = RandomUTF8(random, length, kind);
      const Plain<ustring> plain = PlainUTF8ToUTF16(text);
      const size_t tail = random() % 34;
      const Call<ustring> call = UTF8ToUTF16(text, tail);
      for (size_t room = 0; room <= plain.Needed() + 2; ++room) {
        ASSERT_TRUE(Stores(call, plain, {room, 0, tail})) << kind << ' ' << length;
      }
    }
  }
}

TEST(UTF8StrToUCS2Str, EveryAlignment) {
  std::mt19937 random(3);
  for (unsigned kind = 0; kind < kUTF8Kinds; ++kind) {
    const std::string text = RandomUTF8(random, 100, kind);
    const Plain<ustring> plain = PlainUTF8ToUTF16(text);
    for (size_t sourceTail = 0; sourceTail < 32; ++sourceTail) {
      const Call<ustring> call = UTF8ToUTF16(text, sourceTail);
      for (size_t destTail = 0; destTail < 16; ++destTail) {
        ASSERT_TRUE(Converts(call, plain, {plain.Needed(), destTail, sourceTail})) << kind;
      }
    }
  }
}

TEST(UTF8StrToUCS2Str, AnyOddByteAtEveryPlaceOfGoodText) {
  constexpr unsigned kOdd[] = {0x00, 0x01, 0x41, 0x7F, 0x80, 0xBF, 0xC0, 0xC1, 0xDF, 0xE0, 0xED,
                               0xEF, 0xF0, 0xF4, 0xF5, 0xF7, 0xF8, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF};
  const char *const characters[] = {"k", "\xC3\xA9", "\xE3\x81\x82", "\xF0\x9F\x98\x80", "k\xC3\xA9\xE3\x81\x82"};
  for (const std::string character : characters) {
    std::string good;
    while (good.size() < 52) good += character;
    for (size_t i = 0; i < good.size(); ++i) {
      for (const unsigned odd : kOdd) {
        std::string text = good;
        text[i] = static_cast<char>(odd);
        if (odd == 0) text.resize(i);
        const Plain<ustring> plain = PlainUTF8ToUTF16(text);
        for (const size_t tail : {0u, 3u, 8u, 21u}) {
          const Call<ustring> call = UTF8ToUTF16(text, tail);
          ASSERT_TRUE(Converts(call, plain, {plain.Needed() + i % 3, 0, tail})) << character << i << ' ' << odd;
          ASSERT_TRUE(StoresNothingPastTheText(call, plain, 110)) << character << i << ' ' << odd;
        }
      }
    }
  }
}

TEST(UCS2StrToUTF8Str, EmptyText) {
  for (const size_t room : {0u, 1u, 2u}) EXPECT_TRUE(Converts(UTF16ToUTF8({0}), PlainUTF16ToUTF8({0}), {room}));
  const ustring empty = 0;
  u32 size = 0;
  EXPECT_EQ(KCSUCS2StrToUTF8Str(nullptr, &size, &empty), 0);
  EXPECT_EQ(size, 1u);
}

TEST(UCS2StrToUTF8Str, KeptSurrogatesStandForTheFirstCharacter) {
  const struct {
    const char *what;
    Units text;
    s32 status;
    std::string bytes;
  } cases[] = {
      {"after an ordinary character", {'a', 0xD83D, 0xDE00, 'b', 0}, 0, "aaab"},
      {"after a long character", {0x3042, 0xDFFF, 0}, 0, "\xE3\x81\x82\xE3\x81\x82"},
      {"a pair first, twice over", {0xD83D, 0xDE00, 0}, 0, "\xF0\x9F\x98\x80\xF0\x9F\x98\x80"},
      {"a pair first and a half later",
       {0xD83D, 0xDE00, 'b', 0xD800, 0},
       0,
       "\xF0\x9F\x98\x80\xF0\x9F\x98\x80"
       "b\xF0\x9F\x98\x80"},
      {"low half first", {0xDE00, 'a', 0}, kBadData, ""},
      {"high half alone", {0xD83D, 0}, kBadData, ""},
      {"high half before a character", {0xD83D, 'a', 0}, kBadData, ""},
  };
  for (const auto &c : cases) {
    std::string buffer(24, kFill);
    u32 size = 24;
    EXPECT_EQ(KCSUCS2StrToUTF8Str(buffer.data(), &size, c.text.data()), c.status) << c.what;
    std::string expected = c.bytes;
    if (c.status == 0) expected += '\0';
    EXPECT_EQ(size, c.status == 0 ? expected.size() : 24) << c.what;
    EXPECT_EQ(buffer, expected + std::string(24 - expected.size(), kFill)) << c.what;
  }
}

TEST(UCS2StrToUTF8Str, KeptSurrogatesFarIntoATextStandForItsFirstCharacter) {
  const Units starts[] = {{'a'}, {0x7F}, {0xE9}, {0x7FF}, {0x3042}, {0xFFFF}, {0xD800, 0xDC00}, {0xDBFF, 0xDFFF}};
  for (const Units &start : starts) {
    for (size_t length = 0; length < 40; ++length) {
      for (const ustring half : {ustring{0xD800}, ustring{0xDBFF}, ustring{0xDC00}, ustring{0xDFFF}}) {
        Units text = start;
        for (size_t i = 0; i < length; ++i) text.push_back(static_cast<ustring>("k\x80z"[i % 3] & 0xFF));
        text.push_back(half);
        text.push_back('z');
        text.push_back(0);
        const Plain<char> plain = PlainUTF16ToUTF8(text);
        ASSERT_EQ(plain.status, 0);
        const Call<char> call = UTF16ToUTF8(text, length % 9);
        for (size_t less = 0; less < 4; ++less) {
          ASSERT_TRUE(Converts(call, plain, {plain.Needed() - less, length % 5, length % 9}))
              << start[0] << ' ' << half;
        }
        ASSERT_TRUE(StoresNothingPastTheText(call, plain, 100000));
      }
    }
  }
}

TEST(UCS2StrToUTF8Str, EveryUnitAlone) {
  for (unsigned unit = 1; unit <= 0xFFFF; ++unit) {
    const Units text{static_cast<ustring>(unit), 0};
    const Plain<char> plain = PlainUTF16ToUTF8(text);
    ASSERT_EQ(plain.status, unit >= 0xD800 && unit <= 0xDFFF ? kBadData : 0) << unit;
    ASSERT_TRUE(Converts(UTF16ToUTF8(text), plain, {4})) << unit;
  }
}

TEST(UCS2StrToUTF8Str, EveryUnitInsideABlock) {
  for (unsigned first = 1; first <= 0xFFFF - 15; first += 16) {
    Units text{'A', 'b', 'c'};
    for (unsigned i = 0; i < 16; ++i) text.push_back(static_cast<ustring>(first + i));
    text.insert(text.end(), {'x', 'y', 'z', 0});
    const Plain<char> plain = PlainUTF16ToUTF8(text);
    ASSERT_TRUE(Converts(UTF16ToUTF8(text, first % 7), plain, {plain.Needed()})) << first;
  }
}

TEST(UCS2StrToUTF8Str, AgreesWithAPlainImplementation) {
  std::mt19937 random(4);
  for (const size_t length : Lengths()) {
    for (unsigned round = 0; round < (length < 100 ? 540u : 45u); ++round) {
      const Units text = RandomUTF16(random, length, round % kUTF16Kinds);
      const Plain<char> plain = PlainUTF16ToUTF8(text);
      const size_t tail = random() % 18;
      const Call<char> call = UTF16ToUTF8(text, tail);
      const size_t needed = plain.Needed();
      for (const size_t room : {needed - 1, needed, needed + 1, needed + 300, random() % (needed + 1)}) {
        ASSERT_TRUE(Converts(call, plain, {room, random() % 34, tail})) << length << ' ' << round;
      }
      for (const size_t told : {needed, needed + 50, size_t{0xFFFFFFFF}}) {
        ASSERT_TRUE(StoresNothingPastTheText(call, plain, static_cast<u32>(told))) << length << ' ' << round;
      }
    }
  }
}

TEST(UCS2StrToUTF8Str, EveryRoomUpToTheNeed) {
  std::mt19937 random(5);
  for (unsigned kind = 0; kind < kUTF16Kinds; ++kind) {
    for (size_t length = 0; length <= 70; ++length) {
      const Units text = RandomUTF16(random, length, kind);
      const Plain<char> plain = PlainUTF16ToUTF8(text);
      const size_t tail = random() % 18;
      const Call<char> call = UTF16ToUTF8(text, tail);
      for (size_t room = 0; room <= plain.Needed() + 2; ++room) {
        ASSERT_TRUE(Stores(call, plain, {room, 0, tail})) << kind << ' ' << length;
      }
    }
  }
}

TEST(UCS2StrToUTF8Str, EveryAlignment) {
  std::mt19937 random(13);
  for (unsigned kind = 0; kind < kUTF16Kinds; ++kind) {
    const Units text = RandomUTF16(random, 60, kind);
    const Plain<char> plain = PlainUTF16ToUTF8(text);
    for (size_t sourceTail = 0; sourceTail < 16; ++sourceTail) {
      const Call<char> call = UTF16ToUTF8(text, sourceTail);
      for (size_t destTail = 0; destTail < 32; ++destTail) {
        ASSERT_TRUE(Converts(call, plain, {plain.Needed(), destTail, sourceTail})) << kind;
      }
    }
  }
}

TEST(UCS4StrToUTF8Str, ConvertsEveryLength) {
  const u32 text[] = {'a', 0x80, 0x800, 0xD800, 0x10000, 0x200000, 0x4000000, 0x7FFFFFFF, 0};
  std::string expected =
      "a\xC2\x80\xE0\xA0\x80\xED\xA0\x80\xF0\x90\x80\x80\xF8\x88\x80\x80\x80\xFC\x84\x80\x80\x80\x80";
  expected += "\xFD\xBF\xBF\xBF\xBF\xBF";
  u32 size = 0;
  EXPECT_EQ(KCSUCS4StrToUTF8Str(nullptr, &size, text), 0);
  EXPECT_EQ(size, expected.size() + 1);
  for (u32 room = 0; room <= expected.size() + 2; ++room) {
    std::string buffer(40, kFill);
    size = room;
    const bool fits = room > expected.size();
    EXPECT_EQ(KCSUCS4StrToUTF8Str(buffer.data(), &size, text), fits ? 0 : kTooSmall) << room;
    EXPECT_EQ(size, fits ? expected.size() + 1 : room);
    if (fits) {
      EXPECT_EQ(buffer, expected + '\0' + std::string(39 - expected.size(), kFill));
    } else {
      EXPECT_EQ(buffer.substr(room), std::string(40 - room, kFill));
    }
  }
  const u32 bad[] = {'a', 0x80000000, 0};
  std::string buffer(8, kFill);
  size = 8;
  EXPECT_EQ(KCSUCS4StrToUTF8Str(buffer.data(), &size, bad), kBadData);
  EXPECT_EQ(size, 8u);
  EXPECT_EQ(buffer, "a" + std::string(7, kFill)) << "what was written before stays, unterminated";
}

TEST(UTF8StrToXMLUTF8Str, Examples) {
  const struct {
    const char *text;
    std::string escaped;
    booln flag;
  } cases[] = {
      {"a<b", "a&lt;b", 1},
      {"", "", 0},
      {"plain \x01 \xC3\xA9 \xFF", "plain \x01 \xC3\xA9 \xFF", 0},
      {"\"&'<>", "&quot;&amp;&apos;&lt;&gt;", 1},
      {"&amp;", "&amp;amp;", 1},
  };
  for (const auto &c : cases) {
    booln flag = 9;
    u32 size = 0;
    EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(nullptr, &size, &flag, c.text), 0);
    EXPECT_EQ(size, c.escaped.size() + 1);
    EXPECT_EQ(flag, c.flag);
    std::string buffer(size, kFill);
    EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(buffer.data(), &size, nullptr, c.text), 0);
    EXPECT_EQ(buffer, c.escaped + '\0');
  }
}

TEST(UCS4StrToUTF8Str, AgreesWithAPlainImplementation) {
  std::mt19937 random(14);
  for (size_t length = 0; length <= 70; ++length) {
    for (const bool withBad : {false, true}) {
      const CodePoints text = RandomUCS4(random, length, withBad);
      const Plain<char> plain = PlainUCS4ToUTF8(text);
      const Call<char> call = UCS4ToUTF8(text);
      ASSERT_TRUE(Sizes(call, plain)) << length;
      for (size_t room = 0; room <= plain.Needed() + 2; ++room) ASSERT_TRUE(Stores(call, plain, {room})) << length;
      ASSERT_TRUE(StoresNothingPastTheText(call, plain, 0xFFFFFFFF)) << length;
    }
  }
  EXPECT_EQ(PlainUCS4ToUTF8({0}).Needed(), 1u);
}

TEST(UCS4StrToUTF8Str, EverySurrogateIsWrittenLikeAnyOther) {
  for (u32 c = 0xD7FF; c <= 0xE000; ++c) {
    ASSERT_TRUE(Converts(UCS4ToUTF8({c, 'a', 0}), PlainUCS4ToUTF8({c, 'a', 0}), {5})) << c;
  }
}

TEST(UTF8StrToXMLUTF8Str, EmptyText) {
  for (const size_t room : {0u, 1u, 2u}) EXPECT_TRUE(Converts(XML(""), PlainXML(""), {room}));
}

TEST(UTF8StrToXMLUTF8Str, EveryByteAtEveryPlace) {
  for (unsigned byte = 1; byte <= 255; ++byte) {
    for (size_t before = 0; before < 40; before += byte == '&' || byte == '<' ? 1 : 7) {
      std::string text(before, 'x');
      text += static_cast<char>(byte);
      text.append(40 - before, 'y');
      const Plain<char> plain = PlainXML(text);
      ASSERT_TRUE(Converts(XML(text, byte % 17), plain, {plain.Needed(), before % 3})) << byte << ' ' << before;
    }
  }
}

TEST(UTF8StrToXMLUTF8Str, FlagIsOptionalAndToldWithoutABufferToo) {
  for (const bool hasReserved : {false, true}) {
    const char *const text = hasReserved ? "a long text, long enough for a few blocks, with a < in it" : "nothing";
    booln flag = 9;
    u32 size = 0;
    EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(nullptr, &size, &flag, text), 0);
    EXPECT_EQ(flag, hasReserved ? 1 : 0);
    std::string buffer(size, kFill);
    flag = 9;
    EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(buffer.data(), &size, &flag, text), 0);
    EXPECT_EQ(flag, hasReserved ? 1 : 0);
    std::string other(size, kFill);
    EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(other.data(), &size, nullptr, text), 0);
    EXPECT_EQ(buffer, other);
  }
}

TEST(UTF8StrToXMLUTF8Str, AgreesWithAPlainImplementation) {
  std::mt19937 random(6);
  for (const size_t length : Lengths()) {
    for (unsigned round = 0; round < (length < 100 ? 250u : 20u); ++round) {
      const std::string text = RandomMarkup(random, length, kSpacings[round % 5]);
      const Plain<char> plain = PlainXML(text);
      const size_t tail = random() % 34;
      const Call<char> call = XML(text, tail);
      const size_t needed = plain.Needed();
      for (const size_t room : {needed - 1, needed, needed + 1, needed + 300, random() % (needed + 1)}) {
        ASSERT_TRUE(Converts(call, plain, {room, random() % 34, tail})) << length << ' ' << round;
      }
      for (const size_t told : {needed, needed + 50, size_t{0xFFFFFFFF}}) {
        ASSERT_TRUE(StoresNothingPastTheText(call, plain, static_cast<u32>(told))) << length << ' ' << round;
      }
    }
  }
}

TEST(UTF8StrToXMLUTF8Str, EveryRoomUpToTheNeed) {
  std::mt19937 random(15);
  for (const unsigned spacing : kSpacings) {
    for (size_t length = 0; length <= 70; ++length) {
      const std::string text = RandomMarkup(random, length, spacing);
      const Plain<char> plain = PlainXML(text);
      const size_t tail = random() % 34;
      const Call<char> call = XML(text, tail);
      for (size_t room = 0; room <= plain.Needed() + 2; ++room) {
        ASSERT_TRUE(Stores(call, plain, {room, 0, tail})) << spacing << ' ' << length;
      }
    }
  }
}

TEST(UTF8StrToXMLUTF8Str, EveryAlignment) {
  std::mt19937 random(16);
  for (const unsigned spacing : kSpacings) {
    const std::string text = RandomMarkup(random, 100, spacing);
    const Plain<char> plain = PlainXML(text);
    for (size_t sourceTail = 0; sourceTail < 32; ++sourceTail) {
      const Call<char> call = XML(text, sourceTail);
      for (size_t destTail = 0; destTail < 32; ++destTail) {
        ASSERT_TRUE(Stores(call, plain, {plain.Needed(), destTail, sourceTail})) << spacing;
      }
    }
  }
}

// Text and buffers on the heap of exactly their sizes: what looks at memory byte by byte, a sanitizer or memcheck, sees
// the reads and writes that a page cannot catch.
TEST(Converters, TextOfEveryLengthOnTheHeap) {
  std::mt19937 random(21);
  for (size_t length = 0; length <= 70; ++length) {
    for (unsigned kind = 0; kind < kUTF8Kinds; ++kind) {
      const std::string text = RandomUTF8(random, length, kind);
      const auto narrow = std::make_unique<char[]>(text.size() + 1);
      std::copy_n(text.c_str(), text.size() + 1, narrow.get());
      const Plain<ustring> plain = PlainUTF8ToUTF16(text);
      const auto units = std::make_unique<ustring[]>(plain.Needed());
      u32 size = 0;
      ASSERT_EQ(KCSUTF8StrToUCS2Str(nullptr, &size, narrow.get()), plain.status);
      size = static_cast<u32>(plain.Needed() - 1);
      ASSERT_NE(KCSUTF8StrToUCS2Str(units.get(), &size, narrow.get()), 0);
      size = static_cast<u32>(plain.Needed());
      ASSERT_EQ(KCSUTF8StrToUCS2Str(units.get(), &size, narrow.get()), plain.status);
      ASSERT_TRUE(std::equal(plain.units.begin(), plain.units.end(), units.get())) << length << ' ' << kind;

      const Plain<char> plainXML = PlainXML(text);
      const auto escaped = std::make_unique<char[]>(plainXML.Needed());
      size = 0;
      ASSERT_EQ(KCSUTF8StrToXMLUTF8Str(nullptr, &size, nullptr, narrow.get()), 0);
      size = static_cast<u32>(plainXML.Needed() - 1);
      ASSERT_NE(KCSUTF8StrToXMLUTF8Str(escaped.get(), &size, nullptr, narrow.get()), 0);
      size = static_cast<u32>(plainXML.Needed());
      ASSERT_EQ(KCSUTF8StrToXMLUTF8Str(escaped.get(), &size, nullptr, narrow.get()), 0);
      ASSERT_TRUE(std::equal(plainXML.units.begin(), plainXML.units.end(), escaped.get())) << length << ' ' << kind;

      const Units wideText = RandomUTF16(random, length, kind);
      const auto wide = std::make_unique<ustring[]>(wideText.size());
      std::copy(wideText.begin(), wideText.end(), wide.get());
      const Plain<char> plainUTF8 = PlainUTF16ToUTF8(wideText);
      const auto bytes = std::make_unique<char[]>(plainUTF8.Needed());
      size = 0;
      ASSERT_EQ(KCSUCS2StrToUTF8Str(nullptr, &size, wide.get()), plainUTF8.status);
      size = static_cast<u32>(plainUTF8.Needed() - 1);
      ASSERT_NE(KCSUCS2StrToUTF8Str(bytes.get(), &size, wide.get()), 0);
      size = static_cast<u32>(plainUTF8.Needed());
      ASSERT_EQ(KCSUCS2StrToUTF8Str(bytes.get(), &size, wide.get()), plainUTF8.status);
      ASSERT_TRUE(std::equal(plainUTF8.units.begin(), plainUTF8.units.end(), bytes.get())) << length << ' ' << kind;
    }
  }
}

// Sizes at the limit of a u32, asked for without a buffer.
TEST(HugeText, UTF8StrToUCS2StrSizes) {
  constexpr size_t kLast = 0xFFFFFFFF / 2 - 1;  // units with which the terminator still fits
  const HugeText<char> text('a', kLast + 1);
  u32 size = 7;
  EXPECT_EQ(KCSUTF8StrToUCS2Str(nullptr, &size, text.OfLength(kLast + 1)), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(size, 7u) << "the size is left alone";
  EXPECT_EQ(KCSUTF8StrToUCS2Str(nullptr, &size, text.OfLength(kLast)), 0);
  EXPECT_EQ(size, 0xFFFFFFFE);
}

TEST(HugeText, UTF8StrToXMLUTF8StrSizes) {
  constexpr size_t kLast = 0xFFFFFFFF - 1;
  const HugeText<char> text('a', kLast + 1);
  u32 size = 7;
  booln flag = 9;
  EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(nullptr, &size, &flag, text.OfLength(kLast + 1)), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(size, 7u) << "the size is left alone";
  EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(nullptr, &size, &flag, text.OfLength(kLast)), 0);
  EXPECT_EQ(size, 0xFFFFFFFF);
  EXPECT_EQ(flag, 0);
}

TEST(HugeText, TextOfMoreThanFourGigabytesDoesNotFitAnyRoom) {
  const HugeText<char> text('<', size_t{1} << 32);
  std::string buffer(100, kFill);
  u32 size = 90;
  EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(buffer.data(), &size, nullptr, text.OfLength(size_t{1} << 32)), kTooSmall);
  EXPECT_EQ(size, 90u);
  EXPECT_EQ(buffer.substr(80), "&lt;&lt;" + std::string(12, kFill)) << "whole entities only";
}

TEST(HugeText, UCS2StrToUTF8StrSizes) {
  constexpr size_t kLast = (0xFFFFFFFF - 1) / 3;
  const HugeText<ustring> text(0x808, kLast + 1);
  u32 size = 7;
  EXPECT_EQ(KCSUCS2StrToUTF8Str(nullptr, &size, text.OfLength(kLast + 1)), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(size, 7u) << "the size is left alone";
  EXPECT_EQ(KCSUCS2StrToUTF8Str(nullptr, &size, text.OfLength(kLast)), 0);
  EXPECT_EQ(size, 3 * kLast + 1);
}

TEST(KCSForwarders, LocalAndASCIIAreUTF8) {
  const ustring wide[] = {0xE9, 0};
  for (const auto convert : {KCSLocalToUnicode, KCSASCIIToUnicode}) {
    Units buffer(4, kUnitFill);
    u32 size = 4;
    EXPECT_EQ(convert(buffer.data(), &size, "\xC3\xA9"), 0);
    EXPECT_EQ(buffer, (Units{0xE9, 0, kUnitFill, kUnitFill}));
  }
  for (const auto convert : {KCSUnicodeToLocal, KCSUnicodeToASCII}) {
    std::string buffer(4, kFill);
    u32 size = 4;
    EXPECT_EQ(convert(buffer.data(), &size, wide), 0);
    EXPECT_EQ(buffer, std::string("\xC3\xA9\0", 3) + kFill);
  }
}

TEST(UnicodeToEscape, EveryUnit) {
  for (unsigned unit = 1; unit <= 0xFFFF; ++unit) {
    const ustring text[] = {static_cast<ustring>(unit), 0};
    char expected[16];
    switch (unit) {
      case '\t': std::strcpy(expected, "\\t"); break;
      case '\n': std::strcpy(expected, "\\n"); break;
      case '\r': std::strcpy(expected, "\\r"); break;
      case '\\': std::strcpy(expected, "\\\\"); break;
      default: std::snprintf(expected, sizeof expected, unit >= 0x20 && unit <= 0x7F ? "%c" : "\\u%04x", unit);
    }
    char buffer[16];
    u32 size = sizeof buffer;
    ASSERT_EQ(KCSUnicodeToEscape(buffer, &size, text), 0);
    ASSERT_STREQ(buffer, expected);
    ASSERT_EQ(size, std::strlen(expected) + 1);
  }
}

TEST(UnicodeToEscape, KeptTheRoomEndsInTheDigitZero) {
  const ustring text[] = {'a', 0xE9, 0};
  const std::string escaped = "a\\u00e9";
  for (u32 room = 0; room <= 12; ++room) {
    std::string buffer(14, kFill);
    std::string expected = buffer;
    u32 size = room;
    const bool fits = room > escaped.size();
    EXPECT_EQ(KCSUnicodeToEscape(buffer.data(), &size, text), fits ? 0 : kTooSmall) << room;
    EXPECT_EQ(size, escaped.size() + 1) << "told on both";
    if (fits) {
      expected = escaped + std::string(room - escaped.size(), '\0') + std::string(14 - room, kFill);
      expected[room - 1] = '0';
    }
    EXPECT_EQ(buffer, expected) << room;
  }
  u32 size = 0;
  EXPECT_EQ(KCSUnicodeToEscape(nullptr, &size, text), 0) << "no buffer asks for the size";
  EXPECT_EQ(size, escaped.size() + 1);
}

TEST(UnicodeToEscape, LongText) {
  Units text(7000, 0x100);
  text.push_back(0);
  std::string buffer(50000, kFill);
  u32 size = 50000;
  EXPECT_EQ(KCSUnicodeToEscape(buffer.data(), &size, text.data()), 0);
  EXPECT_EQ(size, 42001u);
  EXPECT_EQ(buffer.substr(41994, 7), std::string("\\u0100\0", 7));
}

namespace {

std::string Dump(const std::string &bytes, u32 address) {
  KCSSSUStr dump{};
  EXPECT_NE(KCSSSUStrAlloc(&dump, 2), nullptr);
  EXPECT_EQ(KCSBufToUStr(&dump, bytes.data(), static_cast<u32>(bytes.size()), address, nullptr), 0);
  const std::string text(dump.pStr, dump.pStr + dump.strCurLen);
  KCSSSUStrFree(&dump);
  return text;
}

}  // namespace

TEST(BufToUStr, LinesOfSixteenBytes) {
  EXPECT_EQ(Dump("", 0), "");
  EXPECT_EQ(Dump("0123456789abcdef", 0),
            "0x00000000: 30 31 32 33:34 35 36 37:38 39 61 62:63 64 65 66    0123456789abcdef \r\n");
  EXPECT_EQ(Dump("A", 0xFFFFFFF0),
            "0xFFFFFFF0: 41                                                 A                \r\n");
  EXPECT_EQ(Dump("abcd", 1), "0x00000001: 61 62 63 64                                        abcd             \r\n");
  EXPECT_EQ(Dump("abcde", 1), "0x00000001: 61 62 63 64:65                                     abcde            \r\n");
  EXPECT_EQ(Dump(std::string(17, '\xFF'), 0xFFFFFFF8).size(), 2 * 82u);
  EXPECT_EQ(Dump(std::string(17, '\xFF'), 0xFFFFFFF8).substr(82, 15), "0x00000008: FF ") << "the address wraps";
}

TEST(BufToUStr, KeptThePrintableRangeEndsAtZ) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string line = Dump(std::string(1, static_cast<char>(byte)), 0);
    ASSERT_EQ(line.size(), 82u);
    const char *const digits = "0123456789ABCDEF";
    EXPECT_EQ(line.substr(12, 3), (std::string{digits[byte >> 4], digits[byte & 15], ' '}));
    EXPECT_EQ(line[63], byte >= 0x20 && byte <= 0x7A ? static_cast<char>(byte) : '.') << byte;
  }
}

TEST(BufToUStr, AppendsAndReportsFailure) {
  KCSSSUStr dump{};
  ASSERT_NE(KCSSSUStrAlloc(&dump, 64), nullptr);
  KCSSSUStrCatAStr(&dump, "x");
  EXPECT_EQ(KCSBufToUStr(&dump, nullptr, 5, 0, nullptr), 0);
  EXPECT_EQ(KCSBufToUStr(&dump, "a", 0, 0, nullptr), 0);
  EXPECT_EQ(dump.strCurLen, 1u);
  EXPECT_EQ(KCSBufToUStr(&dump, "a", 1, 0, nullptr), 0);
  EXPECT_EQ(dump.strCurLen, 83u);
  KCSSSUStrFree(&dump);
  EXPECT_EQ(KCSBufToUStr(&dump, "a", 1, 0, nullptr), -1) << "a string without a buffer takes no text";
  EXPECT_EQ(KCSBufToUStr(nullptr, "a", 1, 0, nullptr), -1);
}

TEST(UnicodeToEscape, EveryRoomOfRandomText) {
  std::mt19937 random(17);
  constexpr ustring kPieces[] = {'\t', '\n', '\r', '\\', 'a', 0x1F, 0x20, 0x7E, 0x7F, 0x80, 0xE9, 0xD83D, 0xFFFF, 1};
  char *const end = GuardedEnd<char, 1>();
  for (size_t length = 0; length <= 40; ++length) {
    Units text;
    for (size_t i = 0; i < length; ++i) text.push_back(kPieces[random() % std::size(kPieces)]);
    text.push_back(0);
    const ustring *const source = PutSource(text, random() % 8);
    const std::string escaped = PlainEscape(text);
    for (u32 room = 0; room <= escaped.size() + 20; ++room) {
      char *const dest = end - room;
      std::fill(dest - 8, end, kFill);
      std::string expected(room, kFill);
      if (room > escaped.size()) {
        expected = escaped + std::string(room - escaped.size(), '\0');
        expected.back() = '0';
      }
      u32 size = room;
      ASSERT_EQ(KCSUnicodeToEscape(dest, &size, source), room > escaped.size() ? 0 : kTooSmall) << length;
      ASSERT_EQ(size, escaped.size() + 1) << length << ' ' << room;
      ASSERT_EQ(Bytes(dest - 8, room + 8u), std::string(8, kFill) + expected) << length << ' ' << room;
    }
  }
}

TEST(UnicodeToEscape, EmptyTextIsOneCharacterZero) {
  const ustring empty = 0;
  char buffer[2] = {kFill, kFill};
  u32 size = 1;
  EXPECT_EQ(KCSUnicodeToEscape(buffer, &size, &empty), 0);
  EXPECT_EQ(Bytes(buffer, 2), (std::string{'0', kFill}));
  EXPECT_EQ(size, 1u);
}

namespace {

std::string PlainDump(const std::string &bytes, u32 address) {
  std::string dump;
  for (size_t start = 0; start < bytes.size(); start += 16, address += 16) {
    const std::string piece = bytes.substr(start, 16);
    char number[16];
    std::snprintf(number, sizeof number, "0x%08X: ", address);
    std::string digits;
    std::string text;
    for (size_t i = 0; i < piece.size(); ++i) {
      char digit[4];
      std::snprintf(digit, sizeof digit, "%02X", static_cast<unsigned>(static_cast<u8>(piece[i])));
      const bool isGroupEnd = (i == 3 || i == 7 || i == 11) && i + 1 < piece.size();
      digits += digit + std::string(isGroupEnd ? ":" : " ");
      text += piece[i] >= 0x20 && piece[i] <= 0x7A ? piece[i] : '.';
    }
    digits.resize(48, ' ');
    text.resize(16, ' ');
    dump += number + digits + "   " + text + " \r\n";
  }
  return dump;
}

}  // namespace

TEST(BufToUStr, AgreesWithAPlainImplementation) {
  std::mt19937 random(18);
  for (const size_t length : Lengths()) {
    std::string bytes;
    for (size_t i = 0; i < length; ++i) bytes += static_cast<char>(random() % 256);
    const u32 address = static_cast<u32>(random());
    const char *const source = PutSource(std::vector<char>(bytes.begin(), bytes.end()), 0);
    KCSSSUStr dump{};
    ASSERT_NE(KCSSSUStrAlloc(&dump, static_cast<u32>(2 + length % 3)), nullptr);
    KCSSSUStrCatAStr(&dump, "before");
    const s32 lid = 1033;
    ASSERT_EQ(KCSBufToUStr(&dump, source, static_cast<u32>(length), address, &lid), 0);
    ASSERT_EQ(std::string(dump.pStr, dump.pStr + dump.strCurLen), "before" + PlainDump(bytes, address)) << length;
    ASSERT_EQ(dump.pStr[dump.strCurLen], 0);
    KCSSSUStrFree(&dump);
  }
}

TEST(GetLocalLanguageID, KeptIsTheSameForEveryLanguage) {
  for (const char *language : {"de_DE.UTF-8", "", "C"}) {
    setenv("LANG", language, 1);
    EXPECT_EQ(KCSGetLocalLanguageID(), 1033);
  }
  unsetenv("LANG");
  EXPECT_EQ(KCSGetLocalLanguageID(), 1033);
}

TEST(LocalToUnicode, AgreesWithTheCLibrary) {
  const std::string texts[] = {"",
                               "a",
                               "abc",
                               "\xC3\xA9"
                               "a",
                               "\xE3\x81\x82",
                               "\xF0\x9F\x98\x80x",
                               "a\xFF",
                               "\xC3",
                               "ab\xE3\x81"};
  for (const char *locale : {"C", "C.UTF-8"}) {
    const LocaleGuard guard(locale);
    for (const auto convert : {LocalToUnicode, ASCIIToUnicode}) {
      for (const std::string &text : texts) {
        for (u32 room = 0; room <= 12; ++room) {
          const bool counts = room == 0;
          wchar_t wide[16] = {};
          const size_t count = std::mbstowcs(counts ? nullptr : wide, text.c_str(), counts ? 0 : room / 2);
          Units buffer(8, kUnitFill);
          u32 size = room;
          const s32 status = convert(buffer.data(), &size, text.c_str());
          if (count == static_cast<size_t>(-1)) {
            EXPECT_EQ(status, -1) << locale << ' ' << text << ' ' << room;
            EXPECT_EQ(size, room);
            continue;
          }
          EXPECT_EQ(status, 0) << locale << ' ' << text << ' ' << room;
          EXPECT_EQ(size, 2 * count + 2);
          Units expected;
          for (size_t i = 0; !counts && i < count; ++i) expected.push_back(static_cast<ustring>(wide[i]));
          if (!counts && count < room / 2) expected.push_back(0);
          expected.resize(8, kUnitFill);
          EXPECT_EQ(buffer, expected) << locale << ' ' << text << ' ' << room;
        }
        u32 size = 99;
        EXPECT_EQ(convert(nullptr, &size, text.c_str()),
                  std::mbstowcs(nullptr, text.c_str(), 0) == static_cast<size_t>(-1) ? -1 : 0);
      }
    }
  }
}

TEST(UnicodeToLocal, AgreesWithTheCLibrary) {
  const Units texts[] = {{0}, {'a', 0}, {'a', 'b', 'c', 0}, {0xE9, 'a', 0}, {'a', 0x3042, 0}, {0xD83D, 0xDE00, 0}};
  for (const char *locale : {"C", "C.UTF-8"}) {
    const LocaleGuard guard(locale);
    for (const auto convert : {UnicodeToLocal, UnicodeToASCII}) {
      for (const Units &text : texts) {
        const std::wstring wide(text.begin(), text.end() - 1);
        for (u32 room = 0; room <= 6; ++room) {
          std::string expected(8, kFill);
          std::string narrow(16, '\0');
          const size_t count = std::wcstombs(room == 0 ? nullptr : narrow.data(), wide.c_str(), room);
          std::string buffer(8, kFill);
          u32 size = room;
          const s32 status = convert(buffer.data(), &size, text.data());
          if (count == static_cast<size_t>(-1) || (count == 0 && !wide.empty())) {
            EXPECT_EQ(status, -1) << locale << ' ' << room;
            EXPECT_EQ(size, room);
            continue;
          }
          EXPECT_EQ(status, 0) << locale << ' ' << room;
          EXPECT_EQ(size, count + 1);
          if (room != 0) expected.replace(0, count, narrow, 0, count);
          if (room > count) expected[count] = '\0';
          EXPECT_EQ(buffer, expected) << locale << ' ' << room;
        }
      }
    }
  }
}

namespace {

// Text of a locale's own characters, some of it not valid there, in random order.
std::string RandomMultibyte(std::mt19937 &random, size_t pieces, bool isUTF8) {
  std::string text;
  for (size_t i = 0; i < pieces; ++i) {
    switch (random() % 24) {
      case 0: text += static_cast<char>(1 + random() % 255); break;
      case 1: text += isUTF8 ? "\xED\xA0\x80" : "\xE9"; break;
      case 2:
      case 3: text += isUTF8 ? "\xF0\x9F\x98\x80" : "q"; break;
      case 4:
      case 5:
      case 6: text += isUTF8 ? "\xC3\xA9" : "r"; break;
      case 7:
      case 8: text += isUTF8 ? "\xE3\x81\x82" : "s"; break;
      default: text += static_cast<char>(1 + random() % 127); break;
    }
  }
  return text;
}

}  // namespace

TEST(LocalToUnicode, RandomTextInEveryRoomAgreesWithTheCLibrary) {
  std::mt19937 random(19);
  for (const bool isUTF8 : {false, true}) {
    const LocaleGuard locale(isUTF8 ? "C.UTF-8" : "C");
    for (size_t pieces = 0; pieces <= 60; ++pieces) {
      const std::string text = RandomMultibyte(random, pieces, isUTF8);
      const char *const source = PutSource(WithTerminator(text), 0);
      u32 size = 12345;
      const size_t total = std::mbstowcs(nullptr, text.c_str(), 0);
      const bool isGood = total != static_cast<size_t>(-1);
      ASSERT_EQ(LocalToUnicode(nullptr, &size, source), isGood ? 0 : -1) << text;
      ASSERT_EQ(size, isGood ? 2 * total + 2 : 12345) << text;
      for (u32 room = 1; room <= 2 * text.size() + 5; ++room) {
        const size_t roomUnits = room / 2;  // an odd byte of the room stays alone
        std::vector<wchar_t> wide(text.size() + 4, L'\0');
        const size_t count = std::mbstowcs(wide.data(), text.c_str(), roomUnits);
        ustring *const end = GuardedEnd<ustring, 1>();
        ustring *const dest = end - roomUnits;
        std::fill(dest - 4, end, kUnitFill);
        size = room;
        const s32 status = LocalToUnicode(dest, &size, source);
        ASSERT_EQ(Units(dest - 4, dest), Units(4, kUnitFill));
        if (count == static_cast<size_t>(-1)) {
          ASSERT_EQ(status, -1) << text << ' ' << room;
          ASSERT_EQ(size, room);
          continue;
        }
        ASSERT_EQ(status, 0) << text << ' ' << room;
        ASSERT_EQ(size, 2 * count + 2) << text << ' ' << room;
        Units expected;
        for (size_t i = 0; i < count; ++i) expected.push_back(static_cast<ustring>(wide[i] & 0xFFFF));
        if (count < roomUnits) expected.push_back(0);
        expected.resize(roomUnits, kUnitFill);
        ASSERT_EQ(Units(dest, end), expected) << text << ' ' << room;
      }
    }
  }
}

TEST(LocalToUnicode, KeptCharactersAboveSixteenBitsAreCut) {
  const LocaleGuard locale("C.UTF-8");
  Units buffer(4, kUnitFill);
  u32 size = 8;
  EXPECT_EQ(LocalToUnicode(buffer.data(), &size, "\xF0\x9F\x98\x80"), 0);
  EXPECT_EQ(buffer, (Units{0xF600, 0, kUnitFill, kUnitFill}));
  EXPECT_EQ(size, 4u);
}

TEST(LocalToUnicode, EmptyText) {
  for (const auto convert : {LocalToUnicode, ASCIIToUnicode}) {
    Units buffer(2, kUnitFill);
    u32 size = 4;
    EXPECT_EQ(convert(buffer.data(), &size, ""), 0);
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(buffer, (Units{0, kUnitFill}));
    EXPECT_EQ(convert(nullptr, &size, ""), 0);
    EXPECT_EQ(size, 2u);
  }
}

TEST(UnicodeToLocal, RandomTextInEveryRoomAgreesWithTheCLibrary) {
  std::mt19937 random(20);
  for (const char *name : {"C", "C.UTF-8"}) {
    const LocaleGuard locale(name);
    for (size_t length = 1; length <= 60; ++length) {
      Units text;
      for (size_t i = 0; i < length; ++i) {
        const unsigned sort = static_cast<unsigned>(random() % 40);
        text.push_back(static_cast<ustring>(sort == 0                  ? 0xD800 + random() % 0x800
                                            : sort < 20 && *(name + 1) ? 1 + random() % 0xD000
                                            : sort == 1                ? 0x80 + random() % 0x80
                                                                       : 1 + random() % 0x7F));
      }
      text.push_back(0);
      const ustring *const source = PutSource(text, random() % 8);
      const std::wstring wide(text.begin(), text.end() - 1);
      const size_t total = std::wcstombs(nullptr, wide.c_str(), 0);
      const bool isGood = total != static_cast<size_t>(-1);
      u32 size = 12345;
      ASSERT_EQ(UnicodeToLocal(nullptr, &size, source), isGood ? 0 : -1) << name << length;
      ASSERT_EQ(size, isGood ? total + 1 : 12345) << name << length;
      for (u32 room = 1; room <= 3 * length + 3; ++room) {
        std::string narrow(room, '\0');
        const size_t count = std::wcstombs(narrow.data(), wide.c_str(), room);
        char *const end = GuardedEnd<char, 1>();
        char *const dest = end - room;
        std::fill(dest - 8, end, kFill);
        size = room;
        const s32 status = UnicodeToLocal(dest, &size, source);
        ASSERT_EQ(Bytes(dest - 8, 8), std::string(8, kFill));
        if (count == static_cast<size_t>(-1) || count == 0) {
          ASSERT_EQ(status, -1) << name << ' ' << length << ' ' << room;
          ASSERT_EQ(size, room);
          continue;
        }
        ASSERT_EQ(status, 0) << name << ' ' << length << ' ' << room;
        ASSERT_EQ(size, count + 1) << name << ' ' << length << ' ' << room;
        std::string expected = narrow.substr(0, count);
        if (count < room) expected += '\0';
        expected.resize(room, kFill);
        ASSERT_EQ(Bytes(dest, room), expected) << name << ' ' << length << ' ' << room;
      }
    }
  }
}

TEST(UnicodeToLocal, RoomWithoutOneWholeCharacterIsAFailure) {
  const LocaleGuard locale("C.UTF-8");
  const ustring text[] = {0x3042, 'a', 0};
  for (const u32 room : {1u, 2u}) {
    std::string buffer(4, kFill);
    u32 size = room;
    EXPECT_EQ(UnicodeToLocal(buffer.data(), &size, text), -1);
    EXPECT_EQ(size, room);
    EXPECT_EQ(buffer.substr(room), std::string(4 - room, kFill));
  }
}

TEST(UnicodeToLocal, EmptyText) {
  const ustring empty = 0;
  for (const auto convert : {UnicodeToLocal, UnicodeToASCII}) {
    std::string buffer(2, kFill);
    u32 size = 2;
    EXPECT_EQ(convert(buffer.data(), &size, &empty), 0);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(buffer, (std::string{'\0', kFill}));
    EXPECT_EQ(convert(nullptr, &size, &empty), 0);
    EXPECT_EQ(size, 1u);
  }
}

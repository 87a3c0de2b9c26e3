// The encodings: tables of cases for what is written down, and for the converters random text against a plain second
// implementation, in buffers that end at a page nobody may touch.
#include "zebcs/encoding.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "zebcs/frame.h"

namespace {

using sandbox::GuardedBuffer;
using Units = std::vector<ustring>;

constexpr s32 kTooSmall = SM_STATUS_BUFFER_TOO_SMALL;
constexpr s32 kBadData = SM_STATUS_BAD_DATA;
constexpr size_t kNoLimit = SIZE_MAX;
constexpr char kFill = '\x5A';
constexpr ustring kUnitFill = 0x5A5A;

// The plain second implementation: what has been written so far, and the status.
template <class Unit>
struct Expected {
  s32 status = SM_STATUS_SUCCESS;
  std::vector<Unit> written;

  bool Add(const std::vector<Unit> &piece, size_t room) {
    if (piece.size() > room - written.size()) {
      status = kTooSmall;
      return false;
    }
    written.insert(written.end(), piece.begin(), piece.end());
    return true;
  }
  Expected &Finish(size_t room) {
    if (status == SM_STATUS_SUCCESS && written.size() == room) status = kTooSmall;
    return *this;
  }
  Expected &Fail() {
    status = kBadData;
    return *this;
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

Expected<char> PlainUTF16ToUTF8(const Units &text, size_t room) {
  Expected<char> expected;
  for (size_t i = 0; text[i] != 0; ++i) {
    u32 c = text[i];
    if (c >= 0xD800 && c <= 0xDFFF) {
      const u32 first = text[0];
      const bool isSurrogate = first >= 0xD800 && first <= 0xDFFF;
      const bool isPair = first >= 0xD800 && first <= 0xDBFF && text[1] >= 0xDC00 && text[1] <= 0xDFFF;
      if (isSurrogate && !isPair) return expected.Fail();
      c = isPair ? ((first - 0xD800) << 10) + (text[1] - 0xDC00u) + 0x10000 : first;
    }
    if (!expected.Add(PlainUTF8(c), room)) return expected;
  }
  return expected.Finish(room);
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

Expected<ustring> PlainUTF8ToUTF16(const std::string &text, size_t room) {
  Expected<ustring> expected;
  for (size_t i = 0; i < text.size();) {
    u32 c = 0;
    const size_t length = PlainDecode(text, i, c);
    if (length == 0 || c > 0x10FFFF) return expected.Fail();
    const Units units = c <= 0xFFFF ? Units{static_cast<ustring>(c)}
                                    : Units{static_cast<ustring>(0xD800 + (c >> 10 & 0x3FF)),
                                            static_cast<ustring>(0xDC00 + (c & 0x3FF))};
    if (!expected.Add(units, room)) return expected;
    i += length;
  }
  return expected.Finish(room);
}

Expected<char> PlainEscape(const std::string &text, size_t room, bool &wasConverted) {
  Expected<char> expected;
  wasConverted = false;
  for (const char c : text) {
    std::string piece(1, c);
    if (c == '"') piece = "&quot;";
    if (c == '&') piece = "&amp;";
    if (c == '\'') piece = "&apos;";
    if (c == '<') piece = "&lt;";
    if (c == '>') piece = "&gt;";
    if (piece.size() > 1) wasConverted = true;
    if (!expected.Add({piece.begin(), piece.end()}, room)) return expected;
  }
  return expected.Finish(room);
}

// Runs a converter on text that ends at the guard page and checks sizing, storing in `room` units, and the bytes
// before and behind what is written.
template <class Unit, class Source>
void CheckConversion(const std::function<s32(Unit *, u32 *, const Source *)> &convert, const std::vector<Source> &text,
                     const std::function<Expected<Unit>(size_t)> &expect, size_t room, size_t destOffset,
                     const std::string &what) {
  GuardedBuffer source(text.size() * sizeof(Source));
  std::copy(text.begin(), text.end(), source.data<Source>());

  const Expected<Unit> whole = expect(kNoLimit);
  u32 size = 12345;
  ASSERT_EQ(convert(nullptr, &size, source.data<Source>()), whole.status) << what;
  const size_t neededBytes = (whole.written.size() + 1) * sizeof(Unit);
  ASSERT_EQ(size, whole.status == 0 ? neededBytes : 12345) << what;

  const Expected<Unit> expected = expect(room);
  GuardedBuffer dest((room + destOffset) * sizeof(Unit));
  Unit *const begin = dest.data<Unit>() + destOffset;
  std::vector<Unit> buffer(dest.data<Unit>(), begin + room);
  std::copy(expected.written.begin(), expected.written.end(), buffer.begin() + static_cast<ptrdiff_t>(destOffset));
  if (expected.status == 0) buffer[destOffset + expected.written.size()] = 0;
  size = static_cast<u32>(room);
  ASSERT_EQ(convert(begin, &size, source.data<Source>()), expected.status) << what << " room " << room;
  ASSERT_EQ(size, expected.status == 0 ? neededBytes : room) << what << " room " << room;
  ASSERT_EQ(std::vector<Unit>(dest.data<Unit>(), begin + room), buffer) << what << " room " << room;
}

std::vector<char> WithTerminator(const std::string &text) { return {text.c_str(), text.c_str() + text.size() + 1}; }

void CheckUTF8ToUTF16(const std::string &text, size_t room, size_t offset, const std::string &what) {
  CheckConversion<ustring, char>(
      KCSUTF8StrToUCS2Str, WithTerminator(text), [&text](size_t limit) { return PlainUTF8ToUTF16(text, limit); }, room,
      offset, what);
}

void CheckUTF16ToUTF8(const Units &text, size_t room, size_t offset, const std::string &what) {
  CheckConversion<char, ustring>(
      KCSUCS2StrToUTF8Str, text, [&text](size_t limit) { return PlainUTF16ToUTF8(text, limit); }, room, offset, what);
}

void CheckEscape(const std::string &text, size_t room, size_t offset, const std::string &what) {
  bool expectedFlag = false;
  CheckConversion<char, char>(
      [&](char *pDest, u32 *pDestSize, const char *pSrc) {
        booln flag = 7;
        const s32 status = KCSUTF8StrToXMLUTF8Str(pDest, pDestSize, &flag, pSrc);
        EXPECT_EQ(flag, expectedFlag ? 1 : 0) << what;
        return status;
      },
      WithTerminator(text), [&](size_t limit) { return PlainEscape(text, limit, expectedFlag); }, room, offset, what);
}

// Random text. A kind of text draws its pieces from some of the sorts below, common ones more often.
std::string RandomUTF8(std::mt19937 &random, size_t length, unsigned kind) {
  const auto below = [&random](unsigned limit) { return static_cast<unsigned>(random() % limit); };
  std::string text;
  const auto put = [&text](unsigned byte) { text += static_cast<char>(byte == 0 ? 1 : byte); };
  const auto tail = [&] { put(0x80 | below(64)); };
  while (text.size() < length) {
    unsigned sort = kind == 0   ? 0
                    : kind == 1 ? below(2)
                    : kind == 2 ? 1
                    : kind == 3 ? 2
                    : kind == 4 ? below(3)
                                : below(9);
    if (kind == 5 && below(20) != 0) sort = below(3);
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

Units RandomUTF16(std::mt19937 &random, size_t length, unsigned kind) {
  const auto below = [&random](unsigned limit) { return static_cast<unsigned>(random() % limit); };
  Units text;
  while (text.size() < length) {
    unsigned sort = kind == 0 ? 0 : kind == 1 ? below(2) : kind == 2 ? 1 : kind == 3 ? 2 : below(3);
    if (kind >= 5 && below(12) == 0) sort = 3;
    switch (sort) {
      case 0: text.push_back(static_cast<ustring>(1 + below(0x7F))); break;
      case 1: text.push_back(static_cast<ustring>(0x80 + below(0x780))); break;
      case 2:
        text.push_back(static_cast<ustring>(below(8) == 0 ? 0xE000 + below(0x2000) : 0x800 + below(0xD000)));
        break;
      default: text.push_back(static_cast<ustring>(0xD800 + below(0x800))); break;
    }
  }
  text.push_back(0);
  return text;
}

// Lengths around the sizes that the converters treat in one piece.
std::vector<size_t> Lengths() {
  std::vector<size_t> lengths;
  for (size_t i = 0; i <= 70; ++i) lengths.push_back(i);
  for (const size_t i : {127u, 128u, 129u, 511u, 512u, 513u, 530u, 1023u, 1025u, 4095u, 4097u}) lengths.push_back(i);
  return lengths;
}

std::string Bytes(const astring *text, size_t size) { return {text, size}; }

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

TEST(UTF8StrToUCS2Str, EmptyText) {
  for (const size_t room : {0u, 1u, 2u}) CheckUTF8ToUTF16("", room, 0, "empty");
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

TEST(UTF8StrToUCS2Str, AgreesWithAPlainImplementation) {
  std::mt19937 random(1);
  for (const size_t length : Lengths()) {
    for (unsigned round = 0; round < (length < 100 ? 60u : 6u); ++round) {
      const std::string text = RandomUTF8(random, length, round % 7);
      const size_t needed = PlainUTF8ToUTF16(text, kNoLimit).written.size() + 1;
      const std::string what = "length " + std::to_string(length) + " round " + std::to_string(round);
      for (const size_t room : {needed - 1, needed, needed + 1, 2 * text.size() + 2, random() % (needed + 1)}) {
        ASSERT_NO_FATAL_FAILURE(CheckUTF8ToUTF16(text, room, random() % 9, what));
      }
    }
  }
}

TEST(UTF8StrToUCS2Str, EveryRoomUpToTheNeed) {
  std::mt19937 random(2);
  for (unsigned kind = 0; kind < 7; ++kind) {
    const std::string text = RandomUTF8(random, 150, kind);
    for (size_t room = 0; room <= 153; ++room) {
      ASSERT_NO_FATAL_FAILURE(CheckUTF8ToUTF16(text, room, 0, "kind " + std::to_string(kind)));
    }
  }
}

TEST(UTF8StrToUCS2Str, EveryAlignment) {
  std::mt19937 random(3);
  for (unsigned kind = 0; kind < 6; ++kind) {
    const std::string text = RandomUTF8(random, 100, kind);
    const Expected<ustring> expected = PlainUTF8ToUTF16(text, kNoLimit);
    for (size_t offset = 0; offset < 32; ++offset) {
      alignas(32) char source[160];
      std::memset(source, 'x', sizeof source);
      std::memcpy(source + offset, text.c_str(), text.size() + 1);
      Units buffer(expected.written.size() + 40, kUnitFill);
      u32 size = static_cast<u32>(buffer.size());
      ASSERT_EQ(KCSUTF8StrToUCS2Str(buffer.data(), &size, source + offset), expected.status);
      ASSERT_EQ(Units(buffer.begin(), buffer.begin() + static_cast<ptrdiff_t>(expected.written.size())),
                expected.written);
    }
  }
}

TEST(UCS2StrToUTF8Str, EmptyText) {
  for (const size_t room : {0u, 1u, 2u}) CheckUTF16ToUTF8({0}, room, 0, "empty");
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

TEST(UCS2StrToUTF8Str, AgreesWithAPlainImplementation) {
  std::mt19937 random(4);
  for (const size_t length : Lengths()) {
    for (unsigned round = 0; round < (length < 100 ? 60u : 6u); ++round) {
      const Units text = RandomUTF16(random, length, round % 7);
      const size_t needed = PlainUTF16ToUTF8(text, kNoLimit).written.size() + 1;
      const std::string what = "length " + std::to_string(length) + " round " + std::to_string(round);
      for (const size_t room : {needed - 1, needed, needed + 1, needed + 300, random() % (needed + 1)}) {
        ASSERT_NO_FATAL_FAILURE(CheckUTF16ToUTF8(text, room, random() % 17, what));
      }
    }
  }
}

TEST(UCS2StrToUTF8Str, EveryRoomUpToTheNeed) {
  std::mt19937 random(5);
  for (unsigned kind = 0; kind < 7; ++kind) {
    const Units text = RandomUTF16(random, 70, kind);
    const size_t needed = PlainUTF16ToUTF8(text, kNoLimit).written.size() + 1;
    for (size_t room = 0; room <= needed + 2; ++room) {
      ASSERT_NO_FATAL_FAILURE(CheckUTF16ToUTF8(text, room, 0, "kind " + std::to_string(kind)));
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

TEST(UTF8StrToXMLUTF8Str, EmptyText) {
  for (const size_t room : {0u, 1u, 2u}) CheckEscape("", room, 0, "empty");
}

TEST(UTF8StrToXMLUTF8Str, AgreesWithAPlainImplementation) {
  std::mt19937 random(6);
  for (const size_t length : Lengths()) {
    for (unsigned round = 0; round < (length < 100 ? 40u : 6u); ++round) {
      // One in `spacing` bytes is special.
      const unsigned spacing = round % 4 == 0 ? 1000000 : round % 4 == 1 ? 40 : round % 4 == 2 ? 6 : 2;
      std::string text(length, 'x');
      for (char &c : text) c = random() % spacing == 0 ? "<>&\"'"[random() % 5] : static_cast<char>(1 + random() % 255);
      bool flag = false;
      const size_t needed = PlainEscape(text, kNoLimit, flag).written.size() + 1;
      const std::string what = "length " + std::to_string(length) + " round " + std::to_string(round);
      for (const size_t room : {needed - 1, needed, needed + 1, needed + 300, random() % (needed + 1)}) {
        ASSERT_NO_FATAL_FAILURE(CheckEscape(text, room, random() % 17, what));
      }
    }
  }
}

TEST(Converters, TextWhoseSizeIsBeyondTheSizeArgumentIsRefused) {
  // One megabyte of "a", mapped again and again behind itself: more than four gigabytes of text.
  constexpr size_t kPiece = size_t{1} << 20;
  constexpr size_t kPieces = 4097;
  const int fd = memfd_create("text", 0);
  ASSERT_NE(fd, -1);
  ASSERT_EQ(ftruncate(fd, kPiece), 0);
  char *const piece = static_cast<char *>(mmap(nullptr, kPiece, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  ASSERT_NE(piece, MAP_FAILED);
  std::memset(piece, 'a', kPiece);
  const size_t total = kPiece * kPieces;
  char *const text = static_cast<char *>(mmap(nullptr, total + 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(text, MAP_FAILED);
  for (size_t i = 0; i < kPieces; ++i) {
    ASSERT_NE(mmap(text + i * kPiece, kPiece, PROT_READ, MAP_SHARED | MAP_FIXED, fd, 0), MAP_FAILED);
  }
  u32 size = 7;
  EXPECT_EQ(KCSUTF8StrToUCS2Str(nullptr, &size, text), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUTF8StrToXMLUTF8Str(nullptr, &size, nullptr, text), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSUTF8StrToUCS2Str(nullptr, &size, text + total / 2 - 1), SM_STATUS_INVALID_INPUT) << "too many bytes";
  EXPECT_EQ(size, 7u) << "the size is left alone";
  munmap(text, total + 4096);
  munmap(piece, kPiece);
  close(fd);
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
    ASSERT_NE(std::setlocale(LC_ALL, locale), nullptr);
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
    ASSERT_NE(std::setlocale(LC_ALL, locale), nullptr);
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

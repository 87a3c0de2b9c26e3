// String resource files, the lines that they are made of, and the delivery of texts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "guarded_buffer.h"
#include "resource_reference.h"
#include "sandbox.h"
#include "zebcs/product.h"
#include "zebcs/unistr.h"

namespace {

using namespace std::string_view_literals;
using resource_reference::Delivered;
using resource_reference::kCR;
using resource_reference::Key;
using resource_reference::kLF;
using resource_reference::kLongestLine;
using resource_reference::Line;
using resource_reference::NoLine;
using resource_reference::PlainAsk;
using resource_reference::PlainRead;
using resource_reference::Terminated;
using resource_reference::U;
using resource_reference::Units;
using sandbox::GuardedBuffer;
using sandbox::TemporaryDirectory;
using std::string;
using std::string_view;

constexpr decltype(&KCSGetUnicodeStringFromIDPathFile) kGetters[] = {KCSGetUnicodeStringFromIDPathFile,
                                                                     GetUnicodeStringFromIDPathFile};
constexpr ustring kFillUnit = 0x0101 * GuardedBuffer::kFill;
constexpr u32 kTextId = 0x1F4;
constexpr u32 kNoLanguage = 0xFFFFFFFE;  // what stands there when nothing was written

constexpr const char *kNoPath = "Invalid Path File Name";
constexpr const char *kNotFound = "String resource not found";
constexpr const char *kInvalid = "Invalid string resource found";

// The bytes of units in a file.
string Bytes(const Units &units) {
  string bytes;
  for (const ustring unit : units) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  return bytes;
}

string Resource(const Units &units) { return "\xFF\xFE" + Bytes(units); }
string Resource(string_view text) { return Resource(U(text)); }

size_t SizeInBytes(size_t length) { return (length + 1) * sizeof(ustring); }

void Append(Units &units, const Units &more) { units.insert(units.end(), more.begin(), more.end()); }

Delivered Text(string_view text) { return U(text); }

// Asks with a large room and looks at every byte of it.
Delivered AskOne(decltype(&KCSGetUnicodeStringFromIDPathFile) get, const char *path, u32 textId, u32 *pLanguageId) {
  const GuardedBuffer memory(4096);
  const ustring *const units = memory.data<ustring>();
  const size_t room = memory.size() / sizeof(ustring);
  u32 size = static_cast<u32>(memory.size());
  const u32 result = get(textId, pLanguageId, path, memory.data<ustring>(), &size);
  EXPECT_EQ(size, result);
  const size_t used = result / sizeof(ustring);
  EXPECT_EQ(std::count(units + used, units + room, kFillUnit), static_cast<ptrdiff_t>(room - used))
      << "behind the text";
  if (result == 0) return std::nullopt;
  EXPECT_EQ(result % sizeof(ustring), 0u);
  EXPECT_EQ(std::find(units, units + used, 0), units + used - 1) << "the size is that of the text";
  return Units(units, units + used - 1);
}

// Under both names. `languageId` is the language asked for, and the one told.
Delivered Ask(const char *path, u32 textId, u32 &languageId) {
  u32 other = languageId;
  const Delivered delivered = AskOne(KCSGetUnicodeStringFromIDPathFile, path, textId, &languageId);
  EXPECT_EQ(AskOne(GetUnicodeStringFromIDPathFile, path, textId, &other), delivered);
  EXPECT_EQ(other, languageId);
  return delivered;
}

// A resource file.
class File {
 public:
  explicit File(const string &bytes) : m_path(m_directory.Path("text.res")) { Write(bytes); }

  void Write(const string &bytes) { EXPECT_TRUE(sandbox::WriteFile(m_path, bytes)); }
  Delivered Ask(u32 textId = kTextId, u32 languageId = 0) const { return ::Ask(path(), textId, languageId); }
  const char *path() const { return m_path.c_str(); }

 private:
  TemporaryDirectory m_directory;
  string m_path;
};

}  // namespace

// --- Delivery -------------------------------------------------------------------------------------------------------

TEST(SetUnicodeStringToDestination, WithADestinationAndASize) {
  const struct {
    const char *text;  // null for none
    u32 room;
    u32 size;
    u32 result;
  } cases[] = {
      {"abc", 8, 8, 8},   {"abc", 9, 8, 8},   {"abc", 100, 8, 8},   {"abc", 0xFFFFFFFF, 8, 8},
      {"abc", 7, 8, 0},   {"abc", 6, 8, 0},   {"abc", 1, 8, 0},     {"abc", 0, 8, 0},
      {"", 2, 2, 2},      {"", 3, 2, 2},      {"", 1, 2, 0},        {"", 0, 2, 0},
      {nullptr, 0, 0, 0}, {nullptr, 1, 0, 0}, {nullptr, 100, 0, 0},
  };
  for (const auto &c : cases) {
    const Units text = c.text != nullptr ? Terminated(U(c.text)) : Units();
    const GuardedBuffer memory(std::min(c.room, 100u) / sizeof(ustring) * sizeof(ustring));
    string expected(memory.size(), static_cast<char>(GuardedBuffer::kFill));
    if (c.result != 0) std::memcpy(expected.data(), text.data(), c.result);
    u32 size = c.room;
    const ustring *const source = c.text != nullptr ? text.data() : nullptr;
    EXPECT_EQ(SetUnicodeStringToDestination(source, memory.data<ustring>(), &size), c.result) << c.room;
    EXPECT_EQ(size, c.size) << c.room;
    EXPECT_EQ(string(memory.data<char>(), memory.size()), expected) << c.room;
  }
}

TEST(SetUnicodeStringToDestination, WithoutThem) {
  const Units abc = Terminated(U("abc"));
  const Units empty = Terminated(U(""));
  const struct {
    const ustring *source;
    u32 size;
  } cases[] = {{abc.data(), 8}, {empty.data(), 2}, {nullptr, 0}};
  for (const auto &c : cases) {
    const GuardedBuffer memory(16);
    EXPECT_EQ(SetUnicodeStringToDestination(c.source, memory.data<ustring>(), nullptr), 0u) << "no size";
    EXPECT_EQ(*memory.data<ustring>(), kFillUnit);
    for (const u32 room : {0u, 2u, 8u, 100u}) {
      u32 size = room;
      EXPECT_EQ(SetUnicodeStringToDestination(c.source, nullptr, &size), 0u) << "no destination";
      EXPECT_EQ(size, c.size);
    }
    EXPECT_EQ(SetUnicodeStringToDestination(c.source, nullptr, nullptr), c.size) << "neither";
  }
}

TEST(SetUnicodeStringToDestination, EveryUnitIsTakenAsItIs) {
  Units text;
  for (u32 unit = 1; unit <= 0xFFFF; ++unit) text.push_back(static_cast<ustring>(unit));
  text.push_back(0);
  const GuardedBuffer memory(text.size() * sizeof(ustring));
  u32 size = static_cast<u32>(memory.size());
  EXPECT_EQ(SetUnicodeStringToDestination(text.data(), memory.data<ustring>(), &size), memory.size());
  EXPECT_EQ(size, memory.size());
  EXPECT_EQ(Units(memory.data<ustring>(), memory.data<ustring>() + text.size()), text);
}

// --- Lines ----------------------------------------------------------------------------------------------------------

namespace resource_reference {

// For messages.
static void PrintTo(const Line &line, std::ostream *out) {
  *out << (line.isNull ? "NULL" : "") << testing::PrintToString(line.text) << " at " << line.position;
}

}  // namespace resource_reference

namespace {

struct FileCloser {
  void operator()(FILE *file) const { fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// Calls dc_fgetws and makes sure that nothing behind the room is touched. The units up to the terminator are compared
// by the caller, who knows how many they are: a line may have zeros.
Line Read(FILE *file, s32 room, size_t expectedLength) {
  const GuardedBuffer memory(static_cast<size_t>(room) * sizeof(ustring));
  ustring *const units = memory.data<ustring>();
  Line line;
  const ustring *const result = dc_fgetws(units, room, file);
  line.isNull = result == nullptr;
  line.position = ftell(file);
  if (line.isNull) return line;
  EXPECT_EQ(result, units);
  if (expectedLength >= static_cast<size_t>(room)) {
    ADD_FAILURE() << "NULL is expected";
    return line;
  }
  line.text.assign(units, units + expectedLength);
  EXPECT_EQ(units[expectedLength], 0) << "the terminator";
  return line;
}

// A file that is read from the start.
FilePtr OpenBytes(const string &path, const string &bytes) {
  EXPECT_TRUE(sandbox::WriteFile(path, bytes));
  return FilePtr(std::fopen(path.c_str(), "rb"));
}

// Reads all lines of a file beside the second implementation.
void ExpectLines(FILE *file, const Units &units, size_t room, bool hasHalfAUnit) {
  size_t start = 0;
  for (size_t calls = 0; calls <= units.size() + 1; ++calls) {
    const Line expected = PlainRead(units, start, room);
    Line line = Read(file, static_cast<s32>(room), expected.isNull ? room : expected.text.size());
    const bool isPassedOver = expected.isNull && start < units.size();
    // Behind a single unit, half a one may be passed over with it.
    if (isPassedOver && hasHalfAUnit && line.position == expected.position + 1) line.position = expected.position;
    ASSERT_EQ(line, expected) << testing::PrintToString(units) << ' ' << room << ' ' << start;
    start = static_cast<size_t>(expected.position) / sizeof(ustring);
    if (expected.isNull) return;
  }
  ADD_FAILURE() << "the file has no end: " << testing::PrintToString(units) << ' ' << room;
}

}  // namespace

TEST(dc_fgetws, LinesAndPositions) {
  const struct {
    string_view file;
    s32 room;
    std::vector<string_view> lines;  // all that come before NULL
    long end;                        // the position then, in units
  } cases[] = {
      {"", 1, {}, 0},
      {"", 10, {}, 0},
      {"a", 1, {}, 1},
      {"a", 10, {}, 1},
      {"ab", 1, {}, 1},
      {"ab", 2, {"a"}, 2},
      {"ab", 3, {"a"}, 2},
      {"abc", 2, {"a", "b"}, 3},
      {"abc", 3, {"ab"}, 3},
      {"abcdef", 3, {"ab", "cd", "e"}, 6},
      {"abcdef", 4, {"abc", "de"}, 6},
      {"\r\n", 1, {}, 1},
      {"\r\n", 2, {"\r"}, 2},
      {"\r\n", 3, {"\r\n"}, 2},
      {"\r\n\r\n", 3, {"\r\n", "\r\n"}, 4},
      {"\r\n\r\n", 2, {"\r", "\n", "\r"}, 4},
      {"a\r\nb\r\n", 3, {"a\r", "\nb", "\r\n"}, 6},
      {"a\r\nb\r\n", 4, {"a\r\n", "b\r\n"}, 6},
      {"a\r\nb\r\n", 100, {"a\r\n", "b\r\n"}, 6},
      {"ab\r\ncd", 4, {"ab\r", "\nc"}, 6},
      {"ab\r\ncd", 5, {"ab\r\n", "c"}, 6},
      {"ab\r\n", 3, {"ab", "\r\n"}, 4},
      {"ab\r\nc", 3, {"ab", "\r\n"}, 5},
      {"a\nb\rc\n\r\r\n", 100, {"a\nb\rc\n\r\r\n"}, 9},
      {"\n\r\n\r\n", 100, {"\n\r\n", "\r\n"}, 5},
      {"a\0b\r\nc\0\r\n"sv, 100, {"a\0b\r\n"sv, "c\0\r\n"sv}, 9},
      {"a\nb", 100, {"a\n"}, 3},
      {"a\rb", 100, {"a\r"}, 3},
      {"ab\r", 100, {"ab"}, 3},
      {"ab\n", 100, {"ab"}, 3},
  };
  const TemporaryDirectory directory;
  for (const auto &c : cases) {
    for (const char *half : {"", "x"}) {
      const FilePtr file = OpenBytes(directory.Path("f"), Bytes(U(c.file)) + half);
      ASSERT_NE(file, nullptr);
      long position = 0;
      for (const string_view text : c.lines) {
        position += static_cast<long>(text.size() * sizeof(ustring));
        const Line expected{.text = U(text), .position = position};
        ASSERT_EQ(Read(file.get(), c.room, text.size()), expected) << c.file << ' ' << c.room;
      }
      const Line end = Read(file.get(), c.room, static_cast<size_t>(c.room));
      EXPECT_TRUE(end.isNull) << c.file << ' ' << c.room;
      if (*half != 0 && c.end * 2 != position) continue;  // half a unit is passed over, or not
      EXPECT_EQ(end.position, c.end * 2) << c.file << ' ' << c.room;
    }
  }
}

TEST(dc_fgetws, KeptLastUnitWithoutALineEndIsLost) {
  const TemporaryDirectory directory;
  const FilePtr file = OpenBytes(directory.Path("f"), Bytes(U("one\r\nlast")));
  EXPECT_EQ(Read(file.get(), 100, 5), (Line{.text = U("one\r\n"), .position = 10}));
  EXPECT_EQ(Read(file.get(), 100, 3), (Line{.text = U("las"), .position = 16}));
  EXPECT_EQ(Read(file.get(), 100, 100), NoLine(18)) << "a single unit is no line";
  EXPECT_EQ(Read(file.get(), 100, 100), NoLine(18));
}

TEST(dc_fgetws, KeptLineFeedThatDoesNotFitBeginsTheNextLine) {
  const TemporaryDirectory directory;
  const FilePtr file = OpenBytes(directory.Path("f"), Bytes(U("abc\r\nd\r\n")));
  EXPECT_EQ(Read(file.get(), 5, 4), (Line{.text = U("abc\r"), .position = 8}));
  EXPECT_EQ(Read(file.get(), 5, 4), (Line{.text = U("\nd\r\n"), .position = 16}));
}

TEST(dc_fgetws, UnitsAreNotBytes) {
  // The bytes of CR LF between units, and units with the half of one.
  const Units units = {0x0D00, 0x0A00, 0x6100, 'a',    0x0D0A, 0x0A0D, 0x000D,
                       0x0A00, 0x0D00, 0x000A, 0x0D0D, 0x0A0A, kCR,    kLF};
  const TemporaryDirectory directory;
  const FilePtr file = OpenBytes(directory.Path("f"), Bytes(units));
  EXPECT_EQ(Read(file.get(), 100, units.size()), (Line{.text = units, .position = 28}));
}

TEST(dc_fgetws, AgreesWithAPlainImplementationForEverySmallFile) {
  constexpr ustring kAlphabet[] = {kCR, kLF, 'a', 0};
  constexpr size_t kLongestFile = 5;
  for (size_t length = 0; length <= kLongestFile; ++length) {
    for (u32 number = 0; number < 1u << 2 * length; ++number) {
      Units units;
      for (size_t i = 0; i < length; ++i) units.push_back(kAlphabet[number >> 2 * i & 3]);
      for (const bool hasHalfAUnit : {false, true}) {
        string bytes = Bytes(units) + (hasHalfAUnit ? "\r" : "");
        if (bytes.empty()) continue;
        for (size_t room = 1; room <= kLongestFile + 2; ++room) {
          const FilePtr file(fmemopen(bytes.data(), bytes.size(), "rb"));
          ASSERT_NE(file, nullptr);
          ASSERT_NO_FATAL_FAILURE(ExpectLines(file.get(), units, room, hasHalfAUnit));
        }
      }
    }
  }
}

TEST(dc_fgetws, AgreesWithAPlainImplementationForLongLines) {
  std::mt19937 random(1);
  const TemporaryDirectory directory;
  for (const bool hasHalfAUnit : {false, true}) {
    Units units;
    while (units.size() < 30000) {
      units.resize(units.size() + random() % 2000, 'x');
      units.insert(units.end(), {kCR, kLF});
    }
    for (const size_t room : {100u, 1022u, 1023u, 1024u, 1025u, 20000u, 40000u}) {
      const FilePtr file = OpenBytes(directory.Path("f"), Bytes(units) + (hasHalfAUnit ? "x" : ""));
      ASSERT_NE(file, nullptr);
      ASSERT_NO_FATAL_FAILURE(ExpectLines(file.get(), units, room, hasHalfAUnit));
    }
  }
}

TEST(dc_fgetws, ReadsFromWhereTheFileIs) {
  const TemporaryDirectory directory;
  const FilePtr file = OpenBytes(directory.Path("f"), "x" + Bytes(U("a\r\nb\r\n")));
  ASSERT_EQ(std::fgetc(file.get()), 'x');
  EXPECT_EQ(Read(file.get(), 9, 3), (Line{.text = U("a\r\n"), .position = 7})) << "at an odd byte as well";
  EXPECT_EQ(Read(file.get(), 9, 3), (Line{.text = U("b\r\n"), .position = 13}));
  EXPECT_EQ(Read(file.get(), 9, 9), NoLine(13));
  ASSERT_EQ(std::fseek(file.get(), 7, SEEK_SET), 0);
  EXPECT_EQ(Read(file.get(), 9, 3), (Line{.text = U("b\r\n"), .position = 13}));
}

TEST(dc_fgetws, IsNullWithoutAnArgumentOrRoom) {
  const TemporaryDirectory directory;
  const FilePtr file = OpenBytes(directory.Path("f"), Bytes(U("a\r\n")));
  ustring units[4] = {1, 2, 3, 4};
  EXPECT_EQ(dc_fgetws(nullptr, 4, file.get()), nullptr);
  EXPECT_EQ(dc_fgetws(units, 4, nullptr), nullptr);
  for (const s32 room : {0, -1, -2147483647 - 1}) EXPECT_EQ(dc_fgetws(units, room, file.get()), nullptr) << room;
  EXPECT_EQ(ftell(file.get()), 0);
  EXPECT_EQ(Units(units, units + 4), (Units{1, 2, 3, 4}));
  EXPECT_EQ(dc_fgetws(units, 4, file.get()), units);
}

TEST(dc_fgetws, IsNullForAStreamWithoutAPosition) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const string bytes = Bytes(U("a\r\nb\r\n"));
  ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  ASSERT_EQ(close(ends[1]), 0);
  const FilePtr file(fdopen(ends[0], "rb"));
  ASSERT_NE(file, nullptr);
  ustring units[100];
  EXPECT_EQ(dc_fgetws(units, 100, file.get()), nullptr);
  EXPECT_EQ(dc_fgetws(units, 3, file.get()), nullptr);
}

// --- Lookup: what a text is -----------------------------------------------------------------------------------------

TEST(GetUnicodeStringFromIDPathFile, LinesAndTheirTexts) {
  const struct {
    string_view file;
    const char *expected;  // null for none
  } cases[] = {
      {"0:1F4=v\r\n", "v"},
      {"0:1F4=Good morning, :all:\t!\r\n", "Good morning, :all:\t!"},
      {"0:1F4= v \r\n", " v "},
      {"0:1F4=\r\n", ""},
      {"0:1F4=a=b\r\n", "b"},  // the last "=" splits
      {"0:1F4=a=b=\r\n", ""},
      {"0:1F4==\r\n", ""},
      {"x0:1F4=v\r\n", "v"},
      {"some text 0:1F4=v\r\n", "v"},
      {"0:1=see 0:1F4=v\r\n", "v"},
      {"00:1F4=v\r\n", "v"},
      {"100:1F4=v\r\n", "v"},
      {"a=b 0:1F4=v\r\n", "v"},
      {"0:01F4=v\r\n", nullptr},
      {"0:1F4 =v\r\n", nullptr},
      {"0:1f4=v\r\n", nullptr},
      {"0:1F4:v\r\n", nullptr},
      {"0:1F40=v\r\n", nullptr},
      {"0:500=v\r\n", nullptr},
      {"1:1F4=v\r\n", nullptr},
      {":1F4=v\r\n", nullptr},
      {"", nullptr},
      {"\r\n", nullptr},
      {"\r\n\r\n0:1F4=v\r\n", "v"},
      {"0:1F3=u\r\n0:1F4=v\r\n0:1F5=w\r\n", "v"},
      {"0:1F4=first\r\n0:1F4=second\r\n", "first"},
      {"0:1F4=\r\n0:1F4=second\r\n", ""},
      {"no key=0:1F4=x\r\n0:1F4=v\r\n", "x"},
      // A bare LF does not end a line, but a text.
      {"0:1F4=v\nmore\r\n", "v"},
      {"0:1F4=v\n0:1F4=w\r\n", "v"},
      {"0:1F4=\nmore=v\r\n", ""},
      {"0:1F4=v\n\r\nmore\r\n", "v"},
      {"a=b\n0:1F4=v\r\n", "b"},
      {"text\n0:1F4=v\r\n0:1F4=w\r\n", nullptr},
      {"\n0:1F4=v\r\n0:1F4=w\r\n", nullptr},
      // Nor does a bare CR.
      {"0:1F4=v\rmore\r\n", "v"},
      {"0:1F4=v\r\r\n", "v"},
      {"a=b\r0:1F4=v\r\n", "b"},
      {"text\r0:1F4=v\r\n0:1F4=w\r\n", nullptr},
      {"\r0:1F4=v\r\n0:1F4=w\r\n", nullptr},
      {"\r\r\n0:1F4=v\r\n", "v"},
      {"0:1\r\nF4=v\r\n", nullptr},
      // A zero ends a line for the search, not for the reading.
      {"0:1F4=ab\0cd\r\n"sv, "ab"},
      {"0:1F4=ab\0=cd\r\n"sv, "ab"},
      {"0:1F4=\0cd\r\n"sv, ""},
      {"\0000:1F4=v\r\n0:1F4=w\r\n"sv, "w"},
      {"text\0000:1F4=v\r\n0:1F4=w\r\n"sv, "w"},
      {"0:1\0F4=v\r\n"sv, nullptr},
      {"\0\r\n0:1F4=v\r\n"sv, "v"},
  };
  File file("");
  for (const auto &c : cases) {
    file.Write(Resource(c.file));
    EXPECT_EQ(file.Ask(), c.expected != nullptr ? Text(c.expected) : std::nullopt) << c.file;
  }
}

TEST(GetUnicodeStringFromIDPathFile, KeptKeyIsFoundInALongerOne) {
  const File file(Resource("10:F4=longer\r\n0:F4=exact\r\n0:1F4=other\r\n"));
  EXPECT_EQ(file.Ask(0xF4), Text("longer"));
  EXPECT_EQ(file.Ask(0xF4, 0x10), Text("longer"));
  EXPECT_EQ(file.Ask(0x1F4), Text("other"));
  EXPECT_EQ(file.Ask(0x4), std::nullopt) << "a colon is part of the key";
}

TEST(GetUnicodeStringFromIDPathFile, KeptLastUnitWithoutALineEndIsLost) {
  const struct {
    string_view file;
    const char *expected;
  } cases[] = {
      {"0:1F4=value", "valu"}, {"0:1F4=v", ""},          {"0:1F4=", nullptr},      {"0:1F4=v\r", "v"},
      {"0:1F4=v\n", "v"},      {"0:1=x\r\n0:1F4=v", ""}, {"0:1F4=v\r\nlast", "v"}, {"0:1F4=v\r\n0", "v"},
      {"0", nullptr},          {"0:1=x\r\n0", nullptr},  {"0:1F4=v\r\r", "v"},
  };
  File file("");
  for (const auto &c : cases) {
    for (const char *half : {"", "x", "\r"}) {  // half a unit behind makes no difference
      file.Write(Resource(c.file) + half);
      EXPECT_EQ(file.Ask(), c.expected != nullptr ? Text(c.expected) : std::nullopt) << c.file;
    }
  }
}

TEST(GetUnicodeStringFromIDPathFile, KeysAreUpperCaseHexadecimal) {
  const struct {
    u32 languageId;
    u32 textId;
    const char *key;
  } cases[] = {
      {0, 0, "0:0="},
      {0, 9, "0:9="},
      {0, 10, "0:A="},
      {0, 15, "0:F="},
      {0, 16, "0:10="},
      {0, 500, "0:1F4="},
      {0, 0xABCDEF, "0:ABCDEF="},
      {0, 0x7FFFFFFF, "0:7FFFFFFF="},
      {0, 0x80000000, "0:80000000="},
      {0, 0xFFFFFFFF, "0:FFFFFFFF="},
      {1, 437, "1:1B5="},
      {1031, 1033, "407:409="},
      {0x407, 500, "407:1F4="},
      {0xABCD, 0xEF, "ABCD:EF="},
      {0x80000001, 0x80000000, "80000001:80000000="},
      {0xFFFFFFFF, 0xFFFFFFFF, "FFFFFFFF:FFFFFFFF="},
  };
  File file("");
  for (const auto &c : cases) {
    file.Write(Resource(c.key + string("v\r\n")));
    u32 languageId = c.languageId;
    EXPECT_EQ(Ask(file.path(), c.textId, languageId), Text("v")) << c.key;
    EXPECT_EQ(languageId, c.languageId) << c.key;
    EXPECT_EQ(file.Ask(c.textId ^ 1, c.languageId), std::nullopt) << c.key;
    EXPECT_EQ(file.Ask(c.textId, c.languageId != 0 ? 0 : 1033), c.languageId != 0 ? std::nullopt : Text("v")) << c.key;
  }
}

TEST(GetUnicodeStringFromIDPathFile, UnitsAreDeliveredAsTheyAre) {
  Units text;
  for (u32 unit = 1; unit <= 0xFFFF; ++unit) {
    if (unit != kCR && unit != kLF && unit != '=') text.push_back(static_cast<ustring>(unit));
  }
  constexpr size_t kPiece = 1000;
  Units lines;
  u32 pieces = 0;
  for (size_t start = 0; start < text.size(); start += kPiece) {
    Append(lines, U(Key(0, pieces++)));
    const auto from = text.begin() + static_cast<ptrdiff_t>(start);
    lines.insert(lines.end(), from, from + static_cast<ptrdiff_t>(std::min(kPiece, text.size() - start)));
    Append(lines, U("\r\n"));
  }
  const File file(Resource(lines));
  Units delivered;
  for (u32 i = 0; i < pieces; ++i) Append(delivered, file.Ask(i).value_or(Units()));
  EXPECT_EQ(delivered, text);
}

TEST(GetUnicodeStringFromIDPathFile, KeysAreUnitsAndNotBytes) {
  Units units = {'x'};
  for (const char c : "0:1F4=x"sv) units.push_back(static_cast<ustring>(c << 8));  // the bytes of the key between units
  Append(units, U("\r\n0:1F4=v\r\n"));
  const File file(Resource(units));
  EXPECT_EQ(file.Ask(), Text("v"));
}

// --- Lookup: long lines and long files ------------------------------------------------------------------------------

TEST(GetUnicodeStringFromIDPathFile, KeptLongLinesAreSeveral) {
  const string key = "0:1F4=";
  const struct {
    size_t lineLength;  // with the line end
    size_t lost;        // units of the text that belong to the next line
    bool isNextFound;   // what stands at the start of the line behind
  } cases[] = {
      {1022, 0, true}, {1023, 0, true}, {1024, 0, false},  // whose line feed begins the line behind
      {1025, 0, true},                                     // whose line end is a line
      {1026, 1, true}, {1027, 2, true}, {2000, 975, true}, {2046, 1021, true}, {2047, 1022, false}, {2048, 1023, true},
  };
  File file("");
  for (const auto &c : cases) {
    const string text(c.lineLength - key.size() - 2, 'v');
    file.Write(Resource(key + text + "\r\n0:1=next\r\n0:2=after\r\n"));
    EXPECT_EQ(file.Ask(), Text(text.substr(0, text.size() - c.lost))) << c.lineLength;
    EXPECT_EQ(file.Ask(1), c.isNextFound ? Text("next") : std::nullopt) << c.lineLength;
    EXPECT_EQ(file.Ask(2), Text("after")) << c.lineLength;
  }
}

TEST(GetUnicodeStringFromIDPathFile, KeptKeyAcrossTheEndOfALongLineIsNotFound) {
  File file("");
  const string entry = "0:1F4=value\r\n";
  for (size_t before = 1000; before <= 1030; ++before) {
    file.Write(Resource(string(before, 'x') + entry));
    const size_t last = kLongestLine - 1;  // the first unit of the next line
    const size_t equals = before + entry.find('=');
    Delivered expected = Text("value");
    if (before < last && equals >= last) expected = std::nullopt;
    if (equals < last && before + entry.find('\r') > last) expected = Text("value"sv.substr(0, last - equals - 1));
    EXPECT_EQ(file.Ask(), expected) << before;
  }
}

TEST(GetUnicodeStringFromIDPathFile, EntryMayStandAnywhereInALongFile) {
  const struct {
    size_t textLength;
    size_t step;
  } cases[] = {{5, 1}, {1015, 15}};
  File file("");
  for (const auto &c : cases) {
    const string text(c.textLength, 'v');
    const string entries = "0:1F4=" + text + "\r\n0:1=behind\r\n";
    for (const size_t border : {2048u, 4096u, 8192u, 16384u, 32768u, 65536u}) {
      for (size_t start = border - text.size() - 10; start <= border + 1; start += c.step) {
        string before;
        while (before.size() + 200 < start) before += string(98, 'x') + "\r\n";
        before += string(start - before.size() - 2, 'y') + "\r\n";
        file.Write(Resource(before + entries));
        ASSERT_EQ(AskOne(GetUnicodeStringFromIDPathFile, file.path(), kTextId, nullptr), Text(text)) << start;
        ASSERT_EQ(AskOne(GetUnicodeStringFromIDPathFile, file.path(), 1, nullptr), Text("behind")) << start;
      }
    }
  }
}

// The lines of the slow second implementation come from dc_fgetws.
namespace {

// All lines behind the byte-order mark, terminated.
std::vector<Units> PlainLines(FILE *file) {
  std::vector<Units> lines;
  ustring line[kLongestLine];
  EXPECT_EQ(std::fseek(file, 2, SEEK_SET), 0);
  while (dc_fgetws(line, kLongestLine, file) != nullptr) lines.emplace_back(line, line + UniStrlen(line) + 1);
  return lines;
}

}  // namespace

TEST(GetUnicodeStringFromIDPathFile, AgreesWithAPlainImplementation) {
  constexpr int kFiles = 3000;
  constexpr ustring kAlphabet[] = {kCR, kLF, kCR, '=', '=', ':', ':', '0', '0', '1', '1', 'x', 0};
  const Units pieces[] = {{kCR, kLF}, U("0:1="), U("0:0="), U("1:1="), U("1:0=")};
  std::mt19937 random(1);
  const TemporaryDirectory directory;
  const string path = directory.Path("f");
  std::array<int, 3> counts{};  // nothing, an empty text, a text
  for (int i = 0; i < kFiles; ++i) {
    Units units;
    const size_t count = random() % 60;
    // In some files, a line that is nearly as long as one may be.
    const size_t longAt = random() % 8 == 0 ? random() % (count + 1) : count + 1;
    for (size_t j = 0; j <= count; ++j) {
      if (j == longAt) units.resize(units.size() + 990 + random() % 40, 'y');
      if (random() % 4 == 0) {
        Append(units, pieces[random() % std::size(pieces)]);
      } else {
        units.push_back(kAlphabet[random() % std::size(kAlphabet)]);
      }
    }
    const FilePtr file = OpenBytes(path, Resource(units) + (random() % 8 == 0 ? "\r" : ""));
    ASSERT_NE(file, nullptr);
    const std::vector<Units> lines = PlainLines(file.get());
    for (const u32 language : {0u, 1u, 0x10u, 1033u}) {
      const u32 textId = random() % 8 == 0 ? 0x11 : static_cast<u32>(random() % 2);
      u32 languageId = language;
      u32 expectedLanguageId = language;
      const Delivered expected = PlainAsk(lines, textId, expectedLanguageId);
      const Delivered delivered = AskOne(GetUnicodeStringFromIDPathFile, path.c_str(), textId, &languageId);
      ASSERT_EQ(delivered, expected) << testing::PrintToString(units) << ' ' << language << ' ' << textId;
      ASSERT_EQ(languageId, expectedLanguageId) << testing::PrintToString(units) << ' ' << language << ' ' << textId;
      ++counts[!expected ? 0 : expected->empty() ? 1 : 2];
    }
  }
  for (const int count : counts) EXPECT_GT(count, kFiles / 10) << "every kind of answer was compared";
}

TEST(GetUnicodeStringFromIDPathFile, AgreesWithAPlainImplementationForALongFile) {
  std::mt19937 random(2);
  Units units;
  u32 entries = 0;
  while (units.size() < 200000) {
    // Most lines are of usual length, some around the longest, and some are several.
    const size_t length = random() % 8 != 0   ? random() % 120
                          : random() % 4 != 0 ? 1000 + random() % 50
                                              : random() % 4000;
    Append(units, U(Key(static_cast<u32>(random() % 3), entries++)));
    for (size_t i = 0; i < length; ++i) units.push_back(static_cast<ustring>(0x100 + random() % 0x5000));
    if (random() % 30 != 0) units.push_back(kCR);
    units.push_back(kLF);
  }
  const TemporaryDirectory directory;
  const string path = directory.Path("f");
  const FilePtr file = OpenBytes(path, Resource(units));
  ASSERT_NE(file, nullptr);
  const std::vector<Units> lines = PlainLines(file.get());
  size_t found = 0;
  for (u32 id = 0; id < entries; id += 1 + static_cast<u32>(random() % 40)) {
    for (const u32 language : {0u, 1u}) {
      u32 languageId = language;
      u32 expectedLanguageId = language;
      const Delivered expected = PlainAsk(lines, id, expectedLanguageId);
      ASSERT_EQ(AskOne(GetUnicodeStringFromIDPathFile, path.c_str(), id, &languageId), expected) << id;
      ASSERT_EQ(languageId, expectedLanguageId) << id;
      if (expected) ++found;
    }
  }
  EXPECT_GT(found, 20u);
}

// --- Lookup: languages ----------------------------------------------------------------------------------------------

TEST(GetUnicodeStringFromIDPathFile, LanguageAndTheNeutralOne) {
  const struct {
    const char *file;
    u32 language;
    const char *expected;
    u32 told;
  } cases[] = {
      {"0:1F4=n\r\n407:1F4=d\r\n", 0x407, "d", 0x407},
      {"407:1F4=d\r\n0:1F4=n\r\n", 0x407, "d", 0x407},
      {"407:1F4=d\r\n0:1F4=n\r\n", 0, "n", 0},
      {"407:1F4=d\r\n", 0, nullptr, 0},
      {"0:1F4=n\r\n", 0x407, "n", 0},
      {"0:1F4=n\r\n0:1F4=m\r\n407:1F5=d\r\n", 0x407, "n", 0},
      {"0:1F4=n\r\n", 407, "n", 0},
      {"0:1F5=n\r\n407:1F5=d\r\n", 0x407, nullptr, 0},
      {"", 0x407, nullptr, 0},
      {"", 0, nullptr, 0},
      {"407:1F4=\r\n0:1F4=n\r\n", 0x407, "", 0x407},
      {"\n407:1F4=d\r\n0:1F4=n\r\n", 0x407, nullptr, 0x407},  // found, without a text
      {"text\r407:1F4=d\r\n0:1F4=n\r\n", 0x407, nullptr, 0x407},
      {"\n0:1F4=d\r\n0:1F4=n\r\n", 0x407, nullptr, 0},
      {"0:1F4=n 407:1F4=d\r\n", 0x407, "d", 0x407},
      // Two identifiers of English stand for the neutral language.
      {"0:1F4=n\r\n409:1F4=e\r\n1B5:1F4=f\r\n", 1033, "n", 0},
      {"0:1F4=n\r\n409:1F4=e\r\n1B5:1F4=f\r\n", 437, "n", 0},
      {"409:1F4=e\r\n1B5:1F4=f\r\n", 1033, nullptr, 0},
      {"409:1F4=e\r\n1B5:1F4=f\r\n", 437, nullptr, 0},
      {"409:1F4=e\r\n437:1F4=f\r\n0:1F4=n\r\n", 0x437, "f", 0x437},
      {"409:1F4=e\r\n1033:1F4=f\r\n0:1F4=n\r\n", 0x1033, "f", 0x1033},
      {"0:1F4=n\r\n40A:1F4=x\r\n", 1034, "x", 1034},
  };
  File file("");
  for (const auto &c : cases) {
    file.Write(Resource(c.file));
    u32 language = c.language;
    EXPECT_EQ(Ask(file.path(), kTextId, language), c.expected != nullptr ? Text(c.expected) : std::nullopt) << c.file;
    EXPECT_EQ(language, c.told) << c.file;
  }
}

TEST(GetUnicodeStringFromIDPathFile, NoLanguageIsTheNeutralOne) {
  const File file(Resource("407:1F4=d\r\n0:1F4=n\r\n"));
  for (const auto get : kGetters) {
    EXPECT_EQ(AskOne(get, file.path(), kTextId, nullptr), Text("n"));
    EXPECT_EQ(AskOne(get, file.path(), 1, nullptr), std::nullopt);
  }
}

// --- Lookup: what cannot be used ------------------------------------------------------------------------------------

namespace {

void ExpectMessage(const char *path, const char *message) {
  for (const u32 language : {0u, 437u, 1033u, 0x407u, kNoLanguage}) {
    u32 languageId = language;
    EXPECT_EQ(Ask(path, kTextId, languageId), Text(message));
    EXPECT_EQ(languageId, language) << "stays as it is";
  }
  for (const auto get : kGetters) EXPECT_EQ(AskOne(get, path, kTextId, nullptr), Text(message));
}

}  // namespace

TEST(GetUnicodeStringFromIDPathFile, MessageForAPathThatCannotBeOpened) {
  ExpectMessage(nullptr, kNoPath);
  ExpectMessage("", kNotFound);
  const TemporaryDirectory directory;
  ExpectMessage(directory.Path("missing").c_str(), kNotFound);
  ExpectMessage(directory.Path("missing/missing").c_str(), kNotFound);
  ASSERT_TRUE(sandbox::WriteFile(directory.Path("file"), Resource("0:1F4=v\r\n")));
  ExpectMessage(directory.Path("file/below").c_str(), kNotFound);
  ExpectMessage(directory.Path("file/").c_str(), kNotFound);
  ASSERT_EQ(symlink("nowhere", directory.Path("link").c_str()), 0);
  ExpectMessage(directory.Path("link").c_str(), kNotFound);
  ExpectMessage(string(100000, 'x').c_str(), kNotFound);
}

TEST(GetUnicodeStringFromIDPathFile, MessageForAFileWithoutTheByteOrderMark) {
  File file("");
  const string entry = Bytes(U("0:1F4=v\r\n"));
  string bigEndian = "\xFE\xFF";
  for (const char c : "0:1F4=v\r\n"sv) bigEndian += {'\0', c};
  for (const string &bytes :
       {string(), string("\xFF"), string("\xFE"), string("\xFE\xFF"), string("\xFF\xFF"), string("\xFE\xFE"),
        string("\xFF\0", 2), string("\0\xFE", 2), string("x"), entry, "\xFE\xFF" + entry, "\xEF\xBB\xBF" + entry,
        bigEndian, string("0:1F4=v\r\n"), "x\xFF\xFE" + entry, "\xFF" + entry, string("\xFF\r\n\xFE") + entry}) {
    file.Write(bytes);
    ExpectMessage(file.path(), kInvalid);
  }
}

TEST(GetUnicodeStringFromIDPathFile, ByteOrderMarkAloneIsAFileWithoutTexts) {
  File file("\xFF\xFE");
  EXPECT_EQ(file.Ask(), std::nullopt);
  file.Write("\xFF\xFEx");
  EXPECT_EQ(file.Ask(), std::nullopt);
  file.Write("\xFF\xFE\xFF\xFE" + Bytes(U("0:1F4=v\r\n")));
  EXPECT_EQ(file.Ask(), Text("v")) << "a second one is text";
}

TEST(GetUnicodeStringFromIDPathFile, MessageForAFolder) {
  const TemporaryDirectory directory;
  ExpectMessage(directory.path().c_str(), kInvalid);
  ExpectMessage("/", kInvalid);
  ExpectMessage("/dev/null", kInvalid);
}

TEST(GetUnicodeStringFromIDPathFile, PipeIsNotWaitedFor) {
  const TemporaryDirectory directory;
  const string path = directory.Path("pipe");
  ASSERT_EQ(mkfifo(path.c_str(), 0666), 0);
  // A reader that waited would do so for ever.
  sandbox::Process reader(std::chrono::seconds(20));
  ASSERT_TRUE(reader.Start([&path](sandbox::Channel &) {
    ExpectMessage(path.c_str(), kInvalid);
    const int writer = open(path.c_str(), O_RDWR);
    EXPECT_NE(writer, -1);
    ExpectMessage(path.c_str(), kInvalid);  // nor for what somebody may still write
    close(writer);
    return 0;
  }));
  EXPECT_EQ(reader.Wait(), 0);
}

// --- Lookup: the room for the text ----------------------------------------------------------------------------------

namespace {

// Asks for a text, or a message, with every kind of destination.
void ExpectKeptSizes(const char *path, const string &text) {
  const u32 needed = static_cast<u32>(SizeInBytes(text.size()));
  const Units units = Terminated(U(text));
  for (const auto get : kGetters) {
    for (u32 room = 0; room <= needed + 6; ++room) {
      const GuardedBuffer memory(room / 2 * 2);
      u32 size = room;
      const bool fits = room >= needed;
      string expected(memory.size(), static_cast<char>(GuardedBuffer::kFill));
      if (fits) std::memcpy(expected.data(), units.data(), needed);
      EXPECT_EQ(get(kTextId, nullptr, path, memory.data<ustring>(), &size), fits ? needed : 0) << room;
      EXPECT_EQ(size, fits ? needed : 0) << room;
      EXPECT_EQ(string(memory.data<char>(), memory.size()), expected) << room;
    }
    for (const u32 room : {0u, 1u, needed, 0xFFFFFFFFu}) {
      u32 size = room;
      EXPECT_EQ(get(kTextId, nullptr, path, nullptr, &size), 0u) << "no destination";
      EXPECT_EQ(size, 0u) << "not the size needed";
    }
    const GuardedBuffer memory(needed);
    const string before(memory.data<char>(), memory.size());
    EXPECT_EQ(get(kTextId, nullptr, path, memory.data<ustring>(), nullptr), 0u) << "no size";
    EXPECT_EQ(string(memory.data<char>(), memory.size()), before);
    EXPECT_EQ(get(kTextId, nullptr, path, nullptr, nullptr), needed) << "neither";
  }
}

}  // namespace

TEST(GetUnicodeStringFromIDPathFile, KeptTooLittleRoomDoesNotTellTheSizeNeeded) {
  for (const char *text : {"value", "v", ""}) {
    const File file(Resource(string("0:1=x\r\n0:1F4=") + text + "\r\n"));
    ExpectKeptSizes(file.path(), text);
  }
}

TEST(GetUnicodeStringFromIDPathFile, KeptMessagesHaveTheSameSizes) {
  ExpectKeptSizes(nullptr, kNoPath);
  ExpectKeptSizes("/missing", kNotFound);
  ExpectKeptSizes("/", kInvalid);
}

TEST(GetUnicodeStringFromIDPathFile, NothingIsDeliveredWithoutAText) {
  const File file(Resource("\n0:1F4=v\r\n"));  // found, without a text
  for (const auto get : kGetters) {
    for (const u32 textId : {kTextId, 1u}) {
      const GuardedBuffer memory(16);
      for (const u32 room : {0u, 2u, 16u}) {
        u32 size = room;
        EXPECT_EQ(get(textId, nullptr, file.path(), memory.data<ustring>(), &size), 0u);
        EXPECT_EQ(size, 0u);
        EXPECT_EQ(*memory.data<ustring>(), kFillUnit);
        size = room;
        EXPECT_EQ(get(textId, nullptr, file.path(), nullptr, &size), 0u);
        EXPECT_EQ(size, 0u);
      }
      EXPECT_EQ(get(textId, nullptr, file.path(), memory.data<ustring>(), nullptr), 0u);
      EXPECT_EQ(get(textId, nullptr, file.path(), nullptr, nullptr), 0u);
    }
  }
}

TEST(GetUnicodeStringFromIDPathFile, LanguageIsToldWhereTheTextDoesNotFit) {
  const File file(Resource("0:1F4=value\r\n408:1F4=other\r\n"));
  for (const auto get : kGetters) {
    u32 language = 0x407;
    EXPECT_EQ(get(kTextId, &language, file.path(), nullptr, nullptr), 12u);
    EXPECT_EQ(language, 0u);
    language = 0x408;
    u32 size = 4;
    ustring units[2] = {1, 2};
    EXPECT_EQ(get(kTextId, &language, file.path(), units, &size), 0u);
    EXPECT_EQ(language, 0x408u);
    EXPECT_EQ(Units(units, units + 2), (Units{1, 2}));
  }
}

// --- Lookup: its traces ---------------------------------------------------------------------------------------------

TEST(GetUnicodeStringFromIDPathFile, FileStaysAsItIsAndIsClosed) {
  const auto openFiles = [] {
    const std::filesystem::directory_iterator begin("/proc/self/fd");
    return std::distance(begin, std::filesystem::directory_iterator());
  };
  const string bytes = Resource("0:1F4=value\r\n");
  const File file(bytes);
  ASSERT_EQ(chmod(file.path(), 0444), 0);
  const auto before = openFiles();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(file.Ask(), Text("value"));
    EXPECT_EQ(file.Ask(1), std::nullopt);
    u32 language = 0;
    EXPECT_EQ(Ask("/", kTextId, language), Text(kInvalid));
  }
  EXPECT_EQ(openFiles(), before);
  EXPECT_EQ(sandbox::ReadFile(file.path()), bytes);
}

TEST(GetUnicodeStringFromIDPathFile, FileIsReadEachTime) {
  File file(Resource("0:1F4=old\r\n"));
  EXPECT_EQ(file.Ask(), Text("old"));
  file.Write(Resource("0:1F4=new\r\n"));
  EXPECT_EQ(file.Ask(), Text("new"));
}

TEST(GetUnicodeStringFromIDPathFile, SeveralThreadsMayAskAtOnce) {
  const File file(Resource("0:1F4=neutral\r\n407:1F4=other\r\n"));
  std::vector<std::thread> threads;
  for (u32 i = 0; i < 4; ++i) {
    threads.emplace_back([&file, i] {
      for (int round = 0; round < 100; ++round) {
        EXPECT_EQ(file.Ask(kTextId, i % 2 * 0x407), Text(i % 2 == 0 ? "neutral" : "other"));
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

// The conversions that the C library lacks: reversal, numbers in a radix, letter case.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "guarded_buffer.h"
#include "program.h"
#include "sandbox.h"
#include "zebcs/number.h"

namespace {

using sandbox::Guard;
using sandbox::GuardedBuffer;

#ifdef ZEBCS_SANITIZED
constexpr int kRounds = 20000;
#else
constexpr int kRounds = 300000;
#endif
constexpr char kFill = '\x5A';

using Room = std::array<char, 16>;

Room Filled() {
  Room room;
  room.fill(kFill);
  return room;
}

// What formatted output leaves in a room that was filled before.
Room Formatted(s32 value, s32 radix) {
  constexpr size_t kLimit = 8;
  Room room = Filled();
  const u32 bits = static_cast<u32>(value);
  if (radix == 8) {
    (void)std::snprintf(room.data(), kLimit, "%o", bits);
  } else if (radix == 16) {
    (void)std::snprintf(room.data(), kLimit, "%x", bits);
  } else {
    (void)std::snprintf(room.data(), kLimit, "%d", value);
  }
  return room;
}

std::string LongToString(s32 value, s32 radix) {
  const GuardedBuffer buffer(8);
  ltostr(buffer.data<char>(), value, radix);
  return buffer.data<char>();
}

// A text whose terminator is the last byte before a page that nobody may touch, or whose first byte is the first one
// behind such a page.
class GuardedText {
 public:
  explicit GuardedText(std::string_view text, Guard guard = Guard::kAfter) : m_buffer(text.size() + 1, guard) {
    text.copy(get(), text.size());
    get()[text.size()] = 0;
  }
  char *get() const { return m_buffer.data<char>(); }
  std::string text() const { return {get(), m_buffer.size() - 1}; }
  bool IsTerminated() const { return get()[m_buffer.size() - 1] == 0; }

 private:
  GuardedBuffer m_buffer;
};

std::string EveryByte() {
  std::string text;
  for (int byte = 1; byte <= UCHAR_MAX; ++byte) text += static_cast<char>(byte);
  return text;
}

template <class Mapping>
std::string Mapped(std::string text, Mapping mapping) {
  for (char &c : text) c = static_cast<char>(mapping(static_cast<unsigned char>(c)));
  return text;
}

// The changes of letter case against the locale's mapping of each byte.
void ExpectLocaleMapping() {
  const std::string everyByte = EveryByte();
  for (const std::string &text : {everyByte, everyByte + everyByte, everyByte.substr(96, 1)}) {
    const std::string upper = Mapped(text, [](int c) { return std::toupper(c); });
    const std::string lower = Mapped(text, [](int c) { return std::tolower(c); });
    const GuardedText counted(text);
    EXPECT_EQ(strToUpperCase(counted.get()), text.size());
    EXPECT_EQ(counted.text(), upper);
    EXPECT_TRUE(counted.IsTerminated());
    const GuardedText raised(text);
    EXPECT_EQ(strupr(raised.get()), raised.get());
    EXPECT_EQ(raised.text(), upper);
    EXPECT_TRUE(raised.IsTerminated());
    const GuardedText lowered(text);
    EXPECT_EQ(strlwr(lowered.get()), lowered.get());
    EXPECT_EQ(lowered.text(), lower);
    EXPECT_TRUE(lowered.IsTerminated());
  }
}

// Makes a locale of one byte a character with a pair of letters beyond ASCII, E9 and C9, and sets it.
bool SetSingleByteLocale(const std::string &directory) {
  std::ofstream charmap(directory + "/charmap");
  charmap << "<code_set_name> ONEBYTE\n<mb_cur_max> 1\n<escape_char> /\n<comment_char> %\nCHARMAP\n";
  for (unsigned byte = 0; byte <= UCHAR_MAX; ++byte) {
    char line[32];
    (void)std::snprintf(line, sizeof line, "<U%04X> /x%02x\n", byte, byte);
    charmap << line;
  }
  charmap << "END CHARMAP\n" << std::flush;
  std::ofstream source(directory + "/source");
  source << "LC_CTYPE\n"
            "upper <U0041>..<U005A>;<U00C9>\n"
            "lower <U0061>..<U007A>;<U00E9>\n"
            "toupper (<U0061>,<U0041>);(<U007A>,<U005A>);(<U00E9>,<U00C9>)\n"
            "tolower (<U0041>,<U0061>);(<U005A>,<U007A>);(<U00C9>,<U00E9>)\n"
            "END LC_CTYPE\n"
         << std::flush;
  // It exits with 1 for the categories that the source leaves out; what counts is whether the locale can be set.
  const ProgramResult result = RunProgram(
      {"/usr/bin/localedef", "-c", "-i", directory + "/source", "-f", directory + "/charmap", directory + "/onebyte"});
  setenv("LOCPATH", directory.c_str(), 1);
  const bool isSet = std::setlocale(LC_ALL, "onebyte") != nullptr;
  EXPECT_TRUE(isSet) << result.status << result.output << result.errors;
  return isSet;
}

}  // namespace

TEST(Strrev, ReversesInPlace) {
  const struct {
    std::string_view text;
    std::string_view expected;
  } cases[] = {{"", ""},
               {"a", "a"},
               {"ab", "ba"},
               {"abc", "cba"},
               {"abcd", "dcba"},
               {"aba", "aba"},
               {" a\t", "\ta "},
               {"\xC3\xA9", "\xA9\xC3"},
               {"\xFF\x01\x80", "\x80\x01\xFF"}};
  for (const auto &c : cases) {
    for (const Guard guard : {Guard::kAfter, Guard::kBefore}) {
      const GuardedText text(c.text, guard);
      EXPECT_EQ(strrev(text.get()), text.get());
      EXPECT_EQ(text.text(), c.expected);
      EXPECT_TRUE(text.IsTerminated()) << c.text;
    }
  }
}

TEST(Strrev, NullIsLeftAlone) { EXPECT_EQ(strrev(nullptr), nullptr); }

TEST(Strrev, NothingBehindTheTerminatorChanges) {
  char room[] = "abc\0def";
  strrev(room);
  EXPECT_EQ(std::string_view(room, sizeof room), std::string_view("cba\0def", sizeof room));
}

TEST(Strrev, EveryLengthAndLongTexts) {
  std::mt19937 random(1);
  std::vector<size_t> lengths = {1000, 4095, 4096, 4097, 100000, 3000000};
  for (size_t length = 0; length < 300; ++length) lengths.push_back(length);
  for (const size_t length : lengths) {
    std::string text(length, 0);
    for (char &c : text) c = static_cast<char>(1 + random() % UCHAR_MAX);
    const GuardedText reversed(text);
    strrev(reversed.get());
    std::reverse(text.begin(), text.end());
    ASSERT_TRUE(reversed.text() == text && reversed.IsTerminated()) << length;
  }
}

#ifndef ZEBCS_SANITIZED  // whose runtimes need memory of their own and end the process for want of it
TEST(Strrev, TextStaysWithoutMemoryForTheCopy) {
  std::string text(8 << 20, 0);
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 23);
  const std::string before = text;
  rlimit memory = {};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &memory), 0);
  const rlimit none = {0, memory.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
  void *const refused = std::malloc(text.size());
  const char *const result = strrev(text.data());
  ASSERT_EQ(setrlimit(RLIMIT_AS, &memory), 0);
  EXPECT_EQ(refused, nullptr);
  std::free(refused);
  EXPECT_EQ(result, text.data());
  EXPECT_TRUE(text == before);
  strrev(text.data());
  EXPECT_TRUE(std::equal(text.begin(), text.end(), before.rbegin())) << "with memory it is reversed";
}
#endif

TEST(Ltostr, NumbersInEachRadix) {
  const struct {
    s32 value;
    s32 radix;
    const char *expected;
  } cases[] = {
      {0, 10, "0"},
      {7, 10, "7"},
      {-7, 10, "-7"},
      {1234567, 10, "1234567"},
      {-123456, 10, "-123456"},
      {0, 8, "0"},
      {7, 8, "7"},
      {8, 8, "10"},
      {511, 8, "777"},
      {07777777, 8, "7777777"},
      {0, 16, "0"},
      {255, 16, "ff"},
      {0xABCDEF, 16, "abcdef"},
      {0xABCDEF1, 16, "abcdef1"},
      {255, 0, "255"},
      {255, 1, "255"},
      {255, 3, "255"},
      {255, 36, "255"},
      {-255, -16, "-255"},
      {-255, -2, "-255"},
      {255, INT_MAX, "255"},
      {255, INT_MIN, "255"},
      {255, 0x10008, "255"},
      {255, 0x10010, "255"},
      {255, 0x10002, "255"},
  };
  for (const auto &c : cases) EXPECT_EQ(LongToString(c.value, c.radix), c.expected) << c.value << ' ' << c.radix;
}

TEST(Ltostr, KeptLongerNumbersLoseTheirLastDigits) {
  const struct {
    s32 value;
    s32 radix;
    const char *expected;
  } cases[] = {
      {12345678, 10, "1234567"},   {123456789, 10, "1234567"},   {-1234567, 10, "-123456"}, {INT_MAX, 10, "2147483"},
      {INT_MIN, 10, "-214748"},    {010000000, 8, "1000000"},    {-1, 8, "3777777"},        {INT_MIN, 8, "2000000"},
      {0x12345678, 16, "1234567"}, {-1, 16, "fffffff"},          {INT_MIN, 16, "8000000"},  {INT_MAX, 16, "7ffffff"},
      {INT_MIN, 7, "-214748"},     {-0x12345678, 16, "edcba98"},
  };
  for (const auto &c : cases) EXPECT_EQ(LongToString(c.value, c.radix), c.expected) << c.value << ' ' << c.radix;
}

TEST(Ltostr, KeptRadixTwoGivesAnEmptyText) {
  for (const s32 value : {0, 1, 2, 5, 127, 128, 255, 256, INT_MAX, INT_MIN, -1}) {
    Room viaRadix = Filled();
    Room direct = Filled();
    ltostr(viaRadix.data(), value, 2);
    dec2bin(direct.data(), static_cast<u32>(value));
    EXPECT_STREQ(viaRadix.data(), "") << value;
    EXPECT_EQ(viaRadix, direct) << value;
    EXPECT_EQ(LongToString(value, 2), "") << "eight bytes are enough, " << value;
  }
}

TEST(Ltostr, AsFormattedOutputWithARoomOfEight) {
  std::mt19937 random(2);
  const s32 radixes[] = {8, 10, 16, 0, 3, 1, -8, 36, 64};
  for (int round = 0; round < kRounds; ++round) {
    // All lengths are equally likely.
    const u32 magnitude = static_cast<u32>(random()) >> random() % 32;
    const s32 value = static_cast<s32>(random() % 2 == 0 ? magnitude : 0 - magnitude);
    const s32 radix = radixes[random() % std::size(radixes)];
    Room room = Filled();
    ltostr(room.data(), value, radix);
    ASSERT_EQ(room, Formatted(value, radix)) << value << ' ' << radix;
  }
}

TEST(Dec2Bin, KeptTheTextIsEmptyWhateverTheValue) {
  // Each step puts a terminator into the next byte: as many as the value has digits, up to eight.
  const struct {
    u32 value;
    size_t terminators;
  } cases[] = {{0, 1},  {1, 1},   {2, 2},   {3, 2},   {4, 3},   {5, 3},     {8, 4},          {31, 5},        {32, 6},
               {64, 7}, {127, 7}, {128, 8}, {255, 8}, {256, 8}, {65536, 8}, {0x80000000, 8}, {0xFFFFFFFF, 8}};
  for (const auto &c : cases) {
    Room expected = Filled();
    std::fill_n(expected.begin(), c.terminators, '\0');
    Room room = Filled();
    dec2bin(room.data(), c.value);
    EXPECT_EQ(room, expected) << c.value;
    const GuardedBuffer tight(c.terminators);
    dec2bin(tight.data<char>(), c.value);
    EXPECT_STREQ(tight.data<char>(), "") << c.value;
  }
  std::mt19937 random(3);
  for (int round = 0; round < kRounds; ++round) {
    const u32 value = static_cast<u32>(random()) >> random() % 32;
    Room expected = Filled();
    std::fill_n(expected.begin(), std::clamp(static_cast<int>(std::bit_width(value)), 1, 8), '\0');
    Room room = Filled();
    dec2bin(room.data(), value);
    ASSERT_EQ(room, expected) << value;
  }
}

TEST(LetterCase, Texts) {
  const struct {
    std::string_view text;
    std::string_view upper;
    std::string_view lower;
  } cases[] = {
      {"", "", ""},
      {"a", "A", "a"},
      {"Z", "Z", "z"},
      {"Mixed Case 123", "MIXED CASE 123", "mixed case 123"},
      {"@[`{", "@[`{", "@[`{"},
      {"azAZ", "AZAZ", "azaz"},
      {"\t\n\x7F", "\t\n\x7F", "\t\n\x7F"},
      {"\xC3\xA9\xE9\xFF", "\xC3\xA9\xE9\xFF", "\xC3\xA9\xE9\xFF"},
  };
  for (const auto &c : cases) {
    const GuardedText counted(c.text);
    EXPECT_EQ(strToUpperCase(counted.get()), c.text.size());
    EXPECT_EQ(counted.text(), c.upper);
    const GuardedText raised(c.text);
    EXPECT_EQ(strupr(raised.get()), raised.get());
    EXPECT_EQ(raised.text(), c.upper);
    const GuardedText lowered(c.text);
    EXPECT_EQ(strlwr(lowered.get()), lowered.get());
    EXPECT_EQ(lowered.text(), c.lower);
  }
}

TEST(LetterCase, NullIsIgnored) {
  EXPECT_EQ(strToUpperCase(nullptr), 0u);
  EXPECT_EQ(strupr(nullptr), nullptr);
  EXPECT_EQ(strlwr(nullptr), nullptr);
}

TEST(LetterCase, NothingBehindTheTerminatorChanges) {
  const auto expect = [](const auto &change, const std::string_view expected) {
    char room[] = "aB\0cD";
    change(room);
    EXPECT_EQ(std::string_view(room, sizeof room), expected);
  };
  expect(strToUpperCase, std::string_view("AB\0cD", 6));
  expect(strupr, std::string_view("AB\0cD", 6));
  expect(strlwr, std::string_view("ab\0cD", 6));
}

TEST(LetterCase, LengthOfALongText) {
  std::string text(1000003, 'x');
  EXPECT_EQ(strToUpperCase(text.data()), 1000003u);
  EXPECT_TRUE(text == std::string(1000003, 'X'));
}

TEST(LetterCase, EveryByteInThePlainLocale) { ExpectLocaleMapping(); }

TEST(LetterCase, EveryByteInAMultibyteLocale) {
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  ExpectLocaleMapping();
  const GuardedText text("\xC3\xA9\xC3\x89");
  strupr(text.get());
  EXPECT_EQ(text.text(), "\xC3\xA9\xC3\x89") << "bytes, not characters";
}

TEST(LetterCase, MappingIsTheLocales) {
  const sandbox::TemporaryDirectory directory;
  ASSERT_TRUE(SetSingleByteLocale(directory.path()));
  const volatile int letter = 0xE9;  // else the compiler answers with the former locale
  ASSERT_EQ(std::toupper(letter), 0xC9);
  ExpectLocaleMapping();
  const GuardedText counted("z\xE9");
  EXPECT_EQ(strToUpperCase(counted.get()), 2u);
  EXPECT_EQ(counted.text(), "Z\xC9");
  const GuardedText raised("z\xE9\xC9");
  EXPECT_EQ(strupr(raised.get()), raised.get());
  EXPECT_EQ(raised.text(), "Z\xC9\xC9");
  const GuardedText lowered("Z\xC9\xE9");
  EXPECT_EQ(strlwr(lowered.get()), lowered.get());
  EXPECT_EQ(lowered.text(), "z\xE9\xE9");
}

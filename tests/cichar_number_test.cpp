// Numbers, booleans and times as text, and the validators: tables of cases, and random near-numbers against the C
// library's formatted input and output.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cfenv>
#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "guarded_buffer.h"
#include "program.h"
#include "sandbox.h"
#include "zebcs/number.h"

namespace {

using sandbox::GuardedBuffer;
using Units = std::vector<ustring>;

#ifdef ZEBCS_SANITIZED
constexpr int kRounds = 20000;
#else
constexpr int kRounds = 300000;
#endif
constexpr s32 kInvalid = SM_STATUS_INVALID_INPUT;
constexpr char kFill = '\x5A';
constexpr ustring kUnitFill = 0x5A5A;

std::string Repeated(std::string_view text, size_t count) {
  std::string result;
  for (size_t i = 0; i < count; ++i) result += text;
  return result;
}

// A text as it can be read in a failure.
std::string Shown(std::string_view text) {
  std::string shown = "\"";
  for (const char c : text) {
    char code[8];
    (void)std::snprintf(code, sizeof code, "\\x%02X", static_cast<unsigned char>(c));
    shown += c >= ' ' && c <= '~' ? std::string(1, c) : code;
  }
  return shown + '"';
}

Units Widened(std::string_view text) {
  Units units;
  for (const char c : text) units.push_back(static_cast<unsigned char>(c));
  units.push_back(0);
  return units;
}

u64 Bits(d64 value) { return std::bit_cast<u64>(value); }

// Places texts so that their terminator is the last byte before a page that nobody may touch.
class LastBytes {
 public:
  astring *Put(std::string_view text) {
    astring *const first = m_buffer.data<astring>() + (m_buffer.size() - text.size() - 1);
    text.copy(first, text.size());
    first[text.size()] = 0;
    return first;
  }
  const ustring *Put(const Units &units) {
    ustring *const first = m_buffer.data<ustring>() + (m_buffer.size() / sizeof(ustring) - units.size());
    std::copy(units.begin(), units.end(), first);
    return first;
  }

 private:
  GuardedBuffer m_buffer{size_t{1} << 16};
};

// Texts that are numbers or nearly so.
class NearNumbers {
 public:
  explicit NearNumbers(unsigned seed) : m_random(seed) {}

  std::mt19937_64 &random() { return m_random; }
  size_t Below(size_t limit) { return m_random() % limit; }

  std::string Characters(std::string_view alphabet, size_t longest) {
    std::string text(Below(longest + 1), 0);
    for (char &c : text) c = alphabet[Below(alphabet.size())];
    return text;
  }

  std::string Next() {
    switch (Below(8)) {
      case 0: return Characters(kAlphabet, 24);
      case 1: return Characters("0123456789", 40);
      case 2: return Sign() + Characters("0123456789", 22);
      case 3: return Characters("01234567", 26);
      case 4: return Prefix() + Characters("0123456789abcdef", 20);
      case 5: return Prefix() + Characters("0123456789ABCDEF", 20);
      case 6: return Blanks() + Sign() + Prefix() + Characters("0123456789", 25) + Piece();
      default: break;
    }
    std::string text = Blanks() + Sign();
    for (size_t count = Below(5); count > 0; --count) text += Piece();
    return text;
  }

  // Texts of floating-point numbers, a few of them damaged.
  std::string NextDouble() {
    if (Below(4) == 0) return Next();
    const d64 value = NextValue();
    char text[512];
    const int precision = static_cast<int>(Below(25));
    switch (Below(4)) {
      case 0: (void)std::snprintf(text, sizeof text, "%.*g", precision, value); break;
      case 1: (void)std::snprintf(text, sizeof text, "%.*e", precision, value); break;
      case 2: (void)std::snprintf(text, sizeof text, "%.*f", precision, value); break;
      default: (void)std::snprintf(text, sizeof text, "%.*a", precision, value); break;
    }
    std::string result = Blanks() + text;
    if (Below(4) == 0) result[Below(result.size())] = kAlphabet[Below(kAlphabet.size())];
    if (Below(4) == 0) result += Piece();
    if (Below(8) == 0) result.resize(Below(result.size() + 1));
    return result;
  }

  // Doubles of all kinds: any bits, everyday sizes, and halves of the eighth decimal.
  d64 NextValue() {
    constexpr d64 kSpecial[] = {0.0,
                                -0.0,
                                1.0,
                                0.5,
                                5e-9,
                                -5e-9,
                                15e-9,
                                1e-8,
                                4.9e-9,
                                0.999999995,
                                1e15,
                                DBL_MAX,
                                -DBL_MAX,
                                DBL_MIN,
                                DBL_TRUE_MIN,
                                1e22,
                                1e23,
                                9.5e-324,
                                9007199254740993.0,
                                INFINITY,
                                -INFINITY};
    switch (Below(6)) {
      case 0: return kSpecial[Below(std::size(kSpecial))];
      case 1: return (static_cast<d64>(m_random() % 2000001) - 1000000) / 200000000;
      case 2: return static_cast<d64>(static_cast<s64>(m_random())) / 1e9;
      case 3: return static_cast<d64>(static_cast<s64>(m_random() % 65537) - 32768) / 1024;
      default: return std::bit_cast<d64>(m_random());
    }
  }

 private:
  static constexpr std::string_view kAlphabet =
      " \t\n\r\v\f+-0123456789012345678901234567890xXabcdefABCDEFgGpP.,eE'_:\x01\x7F\x80\xA0\xE9\xFF";

  std::string Blanks() { return Below(3) == 0 ? Characters(" \t\n\r\v\f", 4) : std::string(); }
  std::string Sign() {
    constexpr const char *kSigns[] = {"", "", "", "+", "-", "-", "+-", "--", "- ", "+ "};
    return kSigns[Below(std::size(kSigns))];
  }
  std::string Prefix() {
    constexpr const char *kPrefixes[] = {"", "", "0x", "0x", "0X", "0", "00", "x", "0x0x", "0x-", "0x "};
    return kPrefixes[Below(std::size(kPrefixes))];
  }
  std::string Piece() {
    constexpr const char *kPieces[] = {
        "",
        " ",
        "\n",
        "+",
        "-",
        "0",
        "00",
        "1",
        "7",
        "8",
        "9",
        "f",
        "F",
        "g",
        ".",
        ",",
        "..",
        "e",
        "E5",
        "e-3",
        "e+400",
        "e-400",
        "e99999999",
        "p",
        "p3",
        "P-1080",
        "inf",
        "-INF",
        "Infinity",
        "infinit",
        "nan",
        "NaN(12)",
        "nan(",
        "-nan()",
        "0x",
        "0X1.8p1",
        "0x.8",
        "0x1.fffffffffffff8p0",
        "\x80",
        "\xFF",
        "\xC3\xA9",
        "true",
        "_",
        "2147483647",
        "2147483648",
        "2147483649",
        "4294967295",
        "4294967296",
        "4294967297",
        "9223372036854775807",
        "9223372036854775808",
        "9223372036854775809",
        "18446744073709551615",
        "18446744073709551616",
        "99999999999999999999999999999999",
        "000000000000000000000000001",
        "7fffffff",
        "80000000",
        "FFFFFFFF",
        "100000000",
        "7fffffffffffffff",
        "8000000000000000",
        "FFFFFFFFFFFFFFFF",
        "10000000000000000",
        "017777777777",
        "037777777777",
        "0777777777777777777777",
        "01777777777777777777777",
        "02000000000000000000000",
        "17976931348623158079372897140530341507993413271003782693617377898044496829276475094664901797758720709633028641"
        "66928879109465555478519404026306574886715058206819089020007083836762738548458177115317644757302700698555713669"
        "59622842914819860834936475292719074168444365510704342711559699508093042880",
        "0.000000000000000000000000000000000000000000001",
        "2.2250738585072011e-308",
        "9007199254740993"};
    return kPieces[Below(std::size(kPieces))];
  }

  std::mt19937_64 m_random;
};

// --- What formatted input reads; 0 where it reads nothing -----------------------------------------------------------

s32 ScannedD(const char *text) {
  int value = 0;
  return std::sscanf(text, "%d", &value) == 1 ? value : 0;
}
u32 ScannedU(const char *text) {
  unsigned value = 0;
  return std::sscanf(text, "%u", &value) == 1 ? value : 0;
}
s64 ScannedLD(const char *text) {
  long value = 0;
  return std::sscanf(text, "%ld", &value) == 1 ? value : 0;
}
u64 ScannedLU(const char *text) {
  unsigned long value = 0;
  return std::sscanf(text, "%lu", &value) == 1 ? value : 0;
}

// The decimal number in front of a text modulo 2^64, with the signs that are allowed.
u64 WrappedDecimal(std::string_view text, bool isMinusAllowed) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text[0])) != 0) text.remove_prefix(1);
  bool isNegative = false;
  if (text.starts_with('+') || (isMinusAllowed && text.starts_with('-'))) {
    isNegative = text[0] == '-';
    text.remove_prefix(1);
  }
  const std::string_view digits = text.substr(0, text.find_first_not_of("0123456789"));
  u64 value = 0;
  u64 weight = 1;
  for (size_t i = digits.size(); i-- > 0; weight *= 10) value += static_cast<u64>(digits[i] - '0') * weight;
  return isNegative ? 0 - value : value;
}

// --- The validators once more, as searches --------------------------------------------------------------------------

constexpr std::string_view kDigits = "0123456789";
constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr std::string_view kLettersAndDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

bool IsMadeOf(std::string_view text, std::string_view allowed) {
  return text.find_first_not_of(allowed) == std::string_view::npos;
}
s32 ModelIntNum(std::string_view text, bool isSignAllowed) {
  if (text.empty()) return kInvalid;
  if (isSignAllowed && (text[0] == '+' || text[0] == '-')) text.remove_prefix(1);
  return IsMadeOf(text, kDigits) ? 0 : kInvalid;
}
s32 ModelHexNum(std::string_view text, bool isLower) {
  if (text.empty()) return kInvalid;
  if (text.starts_with("0x")) text.remove_prefix(2);
  return IsMadeOf(text, isLower ? "0123456789abcdef" : "0123456789ABCDEF") ? 0 : kInvalid;
}
s32 ModelOf(std::string_view text, std::string_view allowed) {
  return !text.empty() && IsMadeOf(text, allowed) ? 0 : kInvalid;
}
s32 ModelHostName(std::string_view name) {
  const auto isAlphaNumeric = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
  if (name.empty()) return kInvalid;
  if (name.size() > 255) return -1;
  if (name.back() == '-' || name.back() == '.') return -1;
  if (!isAlphaNumeric(name.front())) return kInvalid;
  for (size_t i = 1; i + 1 < name.size(); ++i) {
    if (!isAlphaNumeric(name[i]) && name[i] != '-' && name[i] != '.') return -1;
  }
  return 0;
}
s32 ModelNumber(std::string_view text, s32 radix) {
  switch (radix) {
    case 10: return ModelIntNum(text, true);
    case 16: return ModelHexNum(text, true) == 0 ? 0 : ModelHexNum(text, false);
    case 8: return ModelOf(text, "01234567");
    default: return kInvalid;
  }
}

void ExpectValidators(const char *text) {
  const std::string_view view = text;
  ASSERT_EQ(IsASCIIIntNum(text, 0), ModelIntNum(view, false)) << Shown(view);
  ASSERT_EQ(IsASCIIIntNum(text, 1), ModelIntNum(view, true)) << Shown(view);
  ASSERT_EQ(IsASCIIHexNum(text, 0), ModelHexNum(view, false)) << Shown(view);
  ASSERT_EQ(IsASCIIHexNum(text, 1), ModelHexNum(view, true)) << Shown(view);
  ASSERT_EQ(IsASCIIOctalNum(text), ModelOf(view, "01234567")) << Shown(view);
  ASSERT_EQ(IsASCIIAlpha(text), ModelOf(view, kLetters)) << Shown(view);
  ASSERT_EQ(IsASCIIAlphaNumeric(text), ModelOf(view, kLettersAndDigits)) << Shown(view);
  ASSERT_EQ(IsASCIIAlphaNumericPlus(text, nullptr), ModelOf(view, kLettersAndDigits)) << Shown(view);
  ASSERT_EQ(IsASCIIAlphaNumericPlus(text, ""), ModelOf(view, kLettersAndDigits)) << Shown(view);
  ASSERT_EQ(IsASCIIAlphaNumericPlus(text, "-.\xE9"), ModelOf(view, std::string(kLettersAndDigits) + "-.\xE9"))
      << Shown(view);
  ASSERT_EQ(ValidateHostName(text), ModelHostName(view)) << Shown(view);
}

// --- Checked conversions --------------------------------------------------------------------------------------------

struct Checked {
  u32 value;
  s32 status;
  bool operator==(const Checked &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Checked &checked) {
  return out << checked.value << " with " << checked.status;
}

// What the checked 32-bit conversions must answer.
Checked ModelChecked(const char *text, s32 radix, bool isSigned) {
  if (ModelNumber(text, radix) != 0) return {!isSigned && radix != 10 && radix != 16 && radix != 8 ? UINT_MAX : 0, 271};
  int value = 0;
  unsigned unsignedValue = 0;
  int count = 0;
  switch (radix) {
    case 16: count = std::sscanf(text, "%i", &value); break;
    case 8: count = std::sscanf(text, "%o", &unsignedValue); break;
    default: count = isSigned ? std::sscanf(text, "%d", &value) : std::sscanf(text, "%u", &unsignedValue); break;
  }
  if (count != 1) return {0, kInvalid};
  return {static_cast<u32>(value) | unsignedValue, 0};  // one of them is 0
}

Checked Signed32VT(const char *text, s32 radix) {
  s32 status = 4711;
  const s32 value = ASCIIToSigned32VT(text, radix, &status);
  return {static_cast<u32>(value), status};
}
Checked UnSigned32VT(const char *text, s32 radix) {
  s32 status = 4711;
  const u32 value = ASCIIToUnSigned32VT(text, radix, &status);
  return {value, status};
}

// --- 16-bit results -------------------------------------------------------------------------------------------------

using ToStr = std::function<s32(ustring *, u32 *)>;

// A conversion of which the whole text is known, in every room that makes a difference.
void ExpectInEveryRoom(std::string_view text, const ToStr &convert) {
  const u32 length = static_cast<u32>(text.size());
  const u32 needed = 2 * length + 2;
  u32 size = 4711;
  ASSERT_EQ(convert(nullptr, &size), 0) << text;
  ASSERT_EQ(size, needed) << text;
  for (u32 room = 0; room <= needed + 4; ++room) {
    if (text.empty() && room < 2) continue;
    const GuardedBuffer buffer(room / 2 * 2);
    ustring *const units = buffer.data<ustring>();
    std::fill_n(units, room / 2, kUnitFill);
    Units expected(room / 2, kUnitFill);
    const u32 stored = std::min(length, room / 2);
    for (u32 i = 0; i < stored; ++i) expected[i] = static_cast<unsigned char>(text[i]);
    if (stored < room / 2) expected[stored] = 0;
    size = room;
    ASSERT_EQ(convert(units, &size), 0) << text << " in " << room;
    ASSERT_EQ(Units(units, units + room / 2), expected) << text << " in " << room;
    ASSERT_EQ(size, room == 0 ? needed : 2 * stored + 2) << text << " in " << room;
  }
}

std::string WithPrecision(d64 value, s32 precision) {
  char text[128];
  (void)std::snprintf(text, sizeof text, "%.*f", precision, value);
  return text;
}

// --- The surroundings -----------------------------------------------------------------------------------------------

// The time zone of the process, for as long as this lives.
class TimeZone {
 public:
  explicit TimeZone(const char *zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  TimeZone(const TimeZone &) = delete;
  TimeZone &operator=(const TimeZone &) = delete;
  ~TimeZone() {
    unsetenv("TZ");
    tzset();
  }
};

// The floating-point rounding of the thread, for as long as this lives.
class Rounding {
 public:
  explicit Rounding(int mode) { EXPECT_EQ(std::fesetround(mode), 0); }
  Rounding(const Rounding &) = delete;
  Rounding &operator=(const Rounding &) = delete;
  ~Rounding() { std::fesetround(FE_TONEAREST); }
};

// A locale of one byte a character, for as long as this lives: "," is the decimal point, "." parts thousands, E9 and
// C9 are letters, and A0 is a blank. The C library's own program makes it.
class OneByteLocale {
 public:
  OneByteLocale() {
    std::ofstream charmap(m_directory.Path("charmap"));
    charmap << "<code_set_name> ONEBYTE\n<mb_cur_max> 1\n<escape_char> /\n<comment_char> %\nCHARMAP\n";
    for (unsigned byte = 0; byte <= UCHAR_MAX; ++byte) {
      char line[32];
      (void)std::snprintf(line, sizeof line, "<U%04X> /x%02x\n", byte, byte);
      charmap << line;
    }
    charmap << "END CHARMAP\n" << std::flush;
    std::ofstream source(m_directory.Path("source"));
    source << "LC_CTYPE\n"
              "upper <U0041>..<U005A>;<U00C9>\n"
              "lower <U0061>..<U007A>;<U00E9>\n"
              "space <U0009>..<U000D>;<U0020>;<U00A0>\n"
              "END LC_CTYPE\n"
              "LC_NUMERIC\n"
              "decimal_point \",\"\n"
              "thousands_sep \".\"\n"
              "grouping 3;3\n"
              "END LC_NUMERIC\n"
           << std::flush;
    // It exits with 1 for the categories that the source leaves out; what counts is whether the locale can be set.
    const ProgramResult result = RunProgram({"/usr/bin/localedef", "-c", "-i", m_directory.Path("source"), "-f",
                                             m_directory.Path("charmap"), m_directory.Path("onebyte")});
    setenv("LOCPATH", m_directory.path().c_str(), 1);
    m_isSet = std::setlocale(LC_ALL, "onebyte") != nullptr;
    EXPECT_TRUE(m_isSet) << result.status << result.output << result.errors;
  }
  OneByteLocale(const OneByteLocale &) = delete;
  OneByteLocale &operator=(const OneByteLocale &) = delete;
  ~OneByteLocale() {
    std::setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
  }
  explicit operator bool() const { return m_isSet; }

 private:
  sandbox::TemporaryDirectory m_directory;
  bool m_isSet = false;
};

// --- Differential runs that several surroundings share --------------------------------------------------------------

void ExpectIntegersAsFormattedInput(unsigned seed, int rounds) {
  NearNumbers numbers(seed);
  LastBytes memory;
  for (int round = 0; round < rounds; ++round) {
    const std::string source = numbers.Next();
    const char *const text = memory.Put(source);
    ASSERT_EQ(ASCIIToSigned32(text), ScannedD(text)) << Shown(source);
    ASSERT_EQ(ASCIIToUnSigned32(text), ScannedU(text)) << Shown(source);
    ASSERT_EQ(static_cast<u64>(ASCIIToSigned64(text)), WrappedDecimal(source, true)) << Shown(source);
    ASSERT_EQ(ASCIIToUnSigned64(text), WrappedDecimal(source, false)) << Shown(source);
  }
}

void ExpectDoublesAsStrtod(unsigned seed, int rounds) {
  NearNumbers numbers(seed);
  LastBytes memory;
  for (int round = 0; round < rounds; ++round) {
    const std::string source = numbers.NextDouble();
    const char *const text = memory.Put(source);
    ASSERT_EQ(Bits(ASCIIToDouble(text)), Bits(std::strtod(text, nullptr))) << Shown(source);
  }
}

void ExpectDoubleTexts(unsigned seed, int rounds) {
  NearNumbers numbers(seed);
  std::array<char, 400> room;
  std::array<char, 400> expected;
  for (int round = 0; round < rounds; ++round) {
    const d64 value = numbers.NextValue();
    const size_t limit = numbers.Below(numbers.Below(8) == 0 ? 340 : 30);
    expected.fill(kFill);
    expected[limit] = 0;
    room = expected;
    (void)std::snprintf(expected.data(), limit, "%.8f", value);
    DoubleToASCII(room.data(), value);
    ASSERT_EQ(room, expected) << value << " in " << limit;
  }
}

void ExpectUniDoubleTexts(unsigned seed, int rounds) {
  NearNumbers numbers(seed);
  for (int round = 0; round < rounds; ++round) {
    const d64 value = numbers.NextValue();
    const s32 precision = static_cast<s32>(numbers.Below(numbers.Below(8) == 0 ? 200 : 12));
    std::array<ustring, 160> room;
    room.fill(kUnitFill);
    std::array<ustring, 160> expected = room;
    const Units text = Widened(WithPrecision(value, precision));
    std::copy(text.begin(), text.end(), expected.begin());
    u32 size = sizeof room;
    ASSERT_EQ(UniDoubleToStr(room.data(), &size, value, precision), 0);
    ASSERT_EQ(room, expected) << value << ' ' << precision;
    ASSERT_EQ(size, text.size() * sizeof(ustring)) << value << ' ' << precision;
  }
}

}  // namespace

// --- Text to number -------------------------------------------------------------------------------------------------

TEST(ASCIIToSigned32, Texts) {
  const struct {
    const char *text;
    s32 expected;
  } cases[] = {
      {"0", 0},
      {"1", 1},
      {"-1", -1},
      {"+1", 1},
      {" \t\n\v\f\r12", 12},
      {"007", 7},
      {"12abc", 12},
      {"12 34", 12},
      {"1.9", 1},
      {"1e3", 1},
      {"0x1f", 0},
      {"2147483647", INT_MAX},
      {"-2147483648", INT_MIN},
      {"2147483648", INT_MIN},
      {"4294967297", 1},
      {"9223372036854775807", -1},
      {"9223372036854775808", -1},
      {"-9223372036854775809", 0},
      {"99999999999999999999", -1},
      {"", 0},
      {" ", 0},
      {"-", 0},
      {"+", 0},
      {"+-1", 0},
      {"- 1", 0},
      {"x", 0},
      {".5", 0},
      {"\xE9", 0},
      {nullptr, 0},
  };
  for (const auto convert : {KCSASCIIToSigned32, ASCIIToSigned32}) {
    for (const auto &c : cases) EXPECT_EQ(convert(c.text), c.expected) << (c.text == nullptr ? "NULL" : c.text);
  }
}

TEST(ASCIIToUnSigned32, Texts) {
  const struct {
    const char *text;
    u32 expected;
  } cases[] = {
      {"0", 0},
      {"1", 1},
      {"+1", 1},
      {" \t\n\v\f\r12", 12},
      {"12abc", 12},
      {"0x1f", 0},
      {"-1", UINT_MAX},
      {"-2147483648", 2147483648},
      {"2147483648", 2147483648},
      {"4294967295", UINT_MAX},
      {"4294967296", 0},
      {"18446744073709551615", UINT_MAX},
      {"18446744073709551616", UINT_MAX},
      {"-18446744073709551615", 1},
      {"-18446744073709551616", UINT_MAX},
      {"", 0},
      {"-", 0},
      {"- 1", 0},
      {"x", 0},
      {nullptr, 0},
  };
  for (const auto convert : {KCSASCIIToUnSigned32, ASCIIToUnSigned32}) {
    for (const auto &c : cases) EXPECT_EQ(convert(c.text), c.expected) << (c.text == nullptr ? "NULL" : c.text);
  }
}

TEST(ASCIIToSigned64, Texts) {
  const struct {
    const char *text;
    s64 expected;
  } cases[] = {
      {"0", 0},
      {"-1", -1},
      {"+1", 1},
      {" \t\n\v\f\r-12", -12},
      {"12abc", 12},
      {"010", 10},
      {"0x1f", 0},
      {"9223372036854775807", LLONG_MAX},
      {"-9223372036854775808", LLONG_MIN},
      {"9223372036854775808", LLONG_MIN},
      {"18446744073709551615", -1},
      {"18446744073709551616", 0},
      {"-18446744073709551617", -1},
      {"99999999999999999999999", 200376420520689663},
      {"+-1", 0},
      {"-+1", 0},
      {"--1", 0},
      {"++1", 0},
      {"- 1", 0},
      {"", 0},
      {" ", 0},
      {"-", 0},
      {"x1", 0},
      {"\xA0"
       "1",
       0},
      {nullptr, 0},
  };
  for (const auto convert : {KCSASCIIToSigned64, ASCIIToSigned64}) {
    for (const auto &c : cases) EXPECT_EQ(convert(c.text), c.expected) << (c.text == nullptr ? "NULL" : c.text);
  }
}

TEST(ASCIIToUnSigned64, Texts) {
  const struct {
    const char *text;
    u64 expected;
  } cases[] = {
      {"0", 0},
      {"+1", 1},
      {" \t\n\v\f\r12", 12},
      {"12abc", 12},
      {"9223372036854775808", 9223372036854775808u},
      {"18446744073709551615", ULLONG_MAX},
      {"18446744073709551616", 0},
      {"18446744073709551617", 1},
      {"-1", 0},
      {" -1", 0},
      {"-0", 0},
      {"+-1", 0},
      {"++1", 0},
      {"+ 1", 0},
      {"", 0},
      {"+", 0},
      {nullptr, 0},
  };
  for (const auto convert : {KCSASCIIToUnSigned64, ASCIIToUnSigned64}) {
    for (const auto &c : cases) EXPECT_EQ(convert(c.text), c.expected) << (c.text == nullptr ? "NULL" : c.text);
  }
}

TEST(ASCIIToIntegers, NearNumbersAsFormattedInputReadsThem) { ExpectIntegersAsFormattedInput(1, kRounds); }

TEST(ASCIIToIntegers, LongDigitStrings) {
  NearNumbers numbers(2);
  LastBytes memory;
  for (int round = 0; round < 200; ++round) {
    const std::string source = (round % 2 == 0 ? "-" : "") + numbers.Characters("0123456789", 20000);
    const char *const text = memory.Put(source);
    ASSERT_EQ(ASCIIToSigned32(text), ScannedD(text)) << source;
    ASSERT_EQ(ASCIIToUnSigned32(text), ScannedU(text)) << source;
    ASSERT_EQ(static_cast<u64>(ASCIIToSigned64(text)), WrappedDecimal(source, true)) << source;
    ASSERT_EQ(ASCIIToUnSigned64(text), WrappedDecimal(source, false)) << source;
  }
}

TEST(ASCIIToIntegers, BlanksAreTheLocales) {
  const OneByteLocale locale;
  ASSERT_TRUE(locale);
  ASSERT_NE(std::isspace(0xA0), 0);
  EXPECT_EQ(ASCIIToSigned32("\xA0 -5"), -5);
  EXPECT_EQ(ASCIIToUnSigned32(" \xA0"
                              "5"),
            5u);
  EXPECT_EQ(ASCIIToSigned64("\xA0\xA0-5"), -5);
  EXPECT_EQ(ASCIIToUnSigned64("\xA0"
                              "5"),
            5u);
  EXPECT_EQ(ASCIIToDouble("\xA0"
                          "5,5"),
            5.5);
  ExpectIntegersAsFormattedInput(3, kRounds / 4);
}

TEST(ASCIIToBooln, TrueInAnyLetterCase) {
  for (const auto convert : {KCSASCIIToBooln, ASCIIToBooln}) {
    for (unsigned upper = 0; upper < 16; ++upper) {
      std::string text = "true";
      for (size_t i = 0; i < 4; ++i) {
        if ((upper >> i & 1) != 0) text[i] = static_cast<char>(text[i] - 'a' + 'A');
      }
      EXPECT_EQ(convert(text.c_str()), 1) << text;
    }
    for (const char *text : {"", " ", "false", "FALSE", "1", "0", "yes", "t", "tru", "truee", "true ", " true",
                             "true\n", "on", "-1", "\xF4rue"}) {
      EXPECT_EQ(convert(text), 0) << Shown(text);
    }
    EXPECT_EQ(convert(nullptr), 0);
  }
}

TEST(ASCIIToBooln, NoOtherByteWillDo) {
  LastBytes memory;
  for (size_t at = 0; at <= 4; ++at) {
    for (int byte = 1; byte <= UCHAR_MAX; ++byte) {
      std::string truth = "true ";
      std::string lie = "false";
      truth[at] = static_cast<char>(byte);
      lie[at] = static_cast<char>(byte);
      if (at < 4) truth.resize(4);
      const bool isTrue = at < 4 && std::tolower(byte) == "true"[at];
      const bool isFalse = std::tolower(byte) == "false"[at];
      s32 status = 4711;
      ASSERT_EQ(ASCIIToBooln(memory.Put(truth)), isTrue ? 1 : 0) << Shown(truth);
      ASSERT_EQ(ASCIIToBoolnV(memory.Put(truth), &status), isTrue ? 1 : 0) << Shown(truth);
      ASSERT_EQ(status, isTrue ? 0 : kInvalid) << Shown(truth);
      ASSERT_EQ(ASCIIToBoolnV(memory.Put(lie), &status), 0) << Shown(lie);
      ASSERT_EQ(status, isFalse ? 0 : kInvalid) << Shown(lie);
    }
  }
}

TEST(ASCIIToBoolnV, Texts) {
  const struct {
    const char *text;
    booln expected;
    s32 expectedStatus;
  } cases[] = {
      {"true", 1, 0},        {"TRUE", 1, 0},          {"tRuE", 1, 0},         {"false", 0, 0},
      {"FALSE", 0, 0},       {"FaLsE", 0, 0},         {"", 0, kInvalid},      {"1", 0, kInvalid},
      {"0", 0, kInvalid},    {"yes", 0, kInvalid},    {"true ", 0, kInvalid}, {" false", 0, kInvalid},
      {"fals", 0, kInvalid}, {"falsee", 0, kInvalid}, {nullptr, 0, kInvalid},
  };
  for (const auto convert : {KCSASCIIToBoolnV, ASCIIToBoolnV}) {
    for (const auto &c : cases) {
      s32 status = 4711;
      EXPECT_EQ(convert(c.text, &status), c.expected) << (c.text == nullptr ? "NULL" : c.text);
      EXPECT_EQ(status, c.expectedStatus) << (c.text == nullptr ? "NULL" : c.text);
      EXPECT_EQ(convert(c.text, nullptr), c.expected);
    }
  }
}

TEST(ASCIIToDouble, Texts) {
  const struct {
    const char *text;
    d64 expected;
  } cases[] = {
      {"0", 0},
      {"-0", -0.0},
      {"1.5", 1.5},
      {"+1.5", 1.5},
      {" \t\n\v\f\r-1.5", -1.5},
      {".5", 0.5},
      {"5.", 5},
      {"1e3", 1000},
      {"1E-3", 1e-3},
      {"1e", 1},
      {"1e+", 1},
      {"1e+x", 1},
      {"0x10", 16},
      {"0x1.8p1", 3},
      {"0x", 0},
      {"0x.8", 0.5},
      {"inf", INFINITY},
      {"-Infinity", -INFINITY},
      {"infinit", INFINITY},
      {"1e400", INFINITY},
      {"-1e400", -INFINITY},
      {"1e-400", 0},
      {"4.9e-324", DBL_TRUE_MIN},
      {"2e-324", 0},
      {"1,5", 1},
      {"1.5.5", 1.5},
      {"1.5abc", 1.5},
      {"", 0},
      {" ", 0},
      {"-", 0},
      {".", 0},
      {"-.", 0},
      {"e5", 0},
      {".e5", 0},
      {"+-1", 0},
      {"- 1", 0},
      {"abc", 0},
      {"\xE9", 0},
      {nullptr, 0},
  };
  for (const auto convert : {KCSASCIIToDouble, ASCIIToDouble}) {
    for (const auto &c : cases) {
      EXPECT_EQ(Bits(convert(c.text)), Bits(c.expected)) << (c.text == nullptr ? "NULL" : c.text);
    }
  }
  EXPECT_TRUE(std::isnan(ASCIIToDouble("nan")));
  EXPECT_TRUE(std::isnan(ASCIIToDouble("-NaN(1)")));
}

TEST(ASCIIToDouble, LongAndHardTextsAsStrtodReadsThem) {
  const std::string texts[] = {
      Repeated("9", 1000),
      "-" + Repeated("1234567890", 30),
      "0." + Repeated("0", 400) + "1",
      "0." + Repeated("0", 320) + "4",
      "0." + Repeated("0", 322) + "25",
      Repeated("0", 5000) + "1.5",
      "0." + Repeated("0", 5000) + "1e5001",
      Repeated("1", 5000) + "e-4999",
      "9007199254740993",
      "9007199254740993." + Repeated("0", 900) + "1",
      "9007199254740992.9" + Repeated("9", 900),
      "2.2250738585072011e-308",
      "2.2250738585072014e-308",
      "1.7976931348623157e308",
      "1.7976931348623159e308",
      "179769313486231580793" + Repeated("7", 288),
      "1e99999999999999999999999",
      "1e-99999999999999999999999",
      "0e99999999999999999999999",
      "0x1.fffffffffffff8p0",
      "0x1.fffffffffffff7p0",
      "0x" + Repeated("f", 400),
      "0x." + Repeated("0", 400) + "1p1600",
      "nan(" + Repeated("1", 100) + ")",
      "1" + Repeated("0", 22),
      "1" + Repeated("0", 23),
      "100000000000000008388608.0",
  };
  for (const int mode : {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    const Rounding rounding(mode);
    LastBytes memory;
    for (const std::string &source : texts) {
      const char *const text = memory.Put(source);
      EXPECT_EQ(Bits(ASCIIToDouble(text)), Bits(std::strtod(text, nullptr))) << source << " rounded as " << mode;
      const Units units = Widened(source);
      EXPECT_EQ(Bits(UniToDouble(units.data())), Bits(std::strtod(text, nullptr))) << source << " rounded as " << mode;
    }
  }
}

TEST(ASCIIToDouble, ExponentCountsBehindAnyNumberOfDigits) {
  EXPECT_EQ(ASCIIToDouble("4158285462367477760.0000000000000000000e-3"), 4158285462367477.760);
  EXPECT_EQ(ASCIIToDouble("-184467440737095516162.2250738585072011e-308"),
            -184467440737095516162.2250738585072011e-308);
  LastBytes memory;
  for (size_t length = 1; length < 300; ++length) {
    for (const char *exponent : {"", "e", "e+", "e-", "e5", "E5", "e-5", "E+5", "e-12", "e+012x", "e+x", "e-.", ".",
                                 ".e5", ".5", ".5e-5", "x", "e400", "e-700"}) {
      for (const char *first : {"", "-", "0.", "+1.", ".", " 0"}) {
        const std::string source = first + Repeated("1234567890", length / 10 + 1).substr(0, length) + exponent;
        const char *const text = memory.Put(source);
        const u64 expected = Bits(std::strtod(text, nullptr));
        ASSERT_EQ(Bits(ASCIIToDouble(text)), expected) << source;
        ASSERT_EQ(Bits(UniToDouble(Widened(source).data())), expected) << source;
      }
    }
  }
}

TEST(ASCIIToDouble, NearNumbersAsStrtodReadsThem) { ExpectDoublesAsStrtod(4, kRounds); }

TEST(ASCIIToDouble, OtherRoundingIsObeyed) {
  for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    const Rounding rounding(mode);
    ExpectDoublesAsStrtod(5, kRounds / 4);
  }
}

TEST(ASCIIToDouble, DecimalPointIsTheLocales) {
  const OneByteLocale locale;
  ASSERT_TRUE(locale);
  EXPECT_EQ(ASCIIToDouble("1,5"), 1.5);
  EXPECT_EQ(ASCIIToDouble("1.5"), 1);
  EXPECT_EQ(ASCIIToDouble(",5"), 0.5);
  EXPECT_EQ(ASCIIToDouble(".5"), 0);
  EXPECT_EQ(ASCIIToDouble("0x1,8p1"), 3);
  EXPECT_EQ(UniToDouble(Widened("-1,25").data()), -1.25);
  EXPECT_EQ(UniToDouble(Widened("-1.25").data()), -1);
  ExpectDoublesAsStrtod(6, kRounds / 4);
}

// --- Number to text -------------------------------------------------------------------------------------------------

TEST(IntegersToASCII, Texts) {
  const struct {
    s64 value;
    const char *text32;
    const char *unsignedText32;
    const char *text64;
    const char *unsignedText64;
  } cases[] = {
      {0, "0", "0", "0", "0"},
      {1, "1", "1", "1", "1"},
      {-1, "-1", "4294967295", "-1", "18446744073709551615"},
      {10, "10", "10", "10", "10"},
      {1234567890, "1234567890", "1234567890", "1234567890", "1234567890"},
      {INT_MAX, "2147483647", "2147483647", "2147483647", "2147483647"},
      {INT_MIN, "-2147483648", "2147483648", "-2147483648", "18446744071562067968"},
      {0x100000000, "0", "0", "4294967296", "4294967296"},
      {LLONG_MAX, "-1", "4294967295", "9223372036854775807", "9223372036854775807"},
      {LLONG_MIN, "0", "0", "-9223372036854775808", "9223372036854775808"},
      {-1000000000000000000, "1486618624", "1486618624", "-1000000000000000000", "17446744073709551616"},
  };
  const auto expect = [](const char *expected, size_t room, const auto &convert) {
    const GuardedBuffer buffer(room);
    std::string whole(room, static_cast<char>(GuardedBuffer::kFill));
    whole.replace(0, std::strlen(expected) + 1, expected, std::strlen(expected) + 1);
    convert(buffer.data<char>());
    EXPECT_EQ(std::string(buffer.data<char>(), room), whole) << expected;
  };
  for (const auto &c : cases) {
    for (const auto convert : {KCSSigned32ToASCII, Signed32ToASCII}) {
      expect(c.text32, 12, [&](char *dest) { convert(dest, static_cast<s32>(c.value)); });
    }
    for (const auto convert : {KCSUnSigned32ToASCII, UnSigned32ToASCII}) {
      expect(c.unsignedText32, 12, [&](char *dest) { convert(dest, static_cast<u32>(c.value)); });
    }
    for (const auto convert : {KCSSigned64ToASCII, Signed64ToASCII}) {
      expect(c.text64, 21, [&](char *dest) { convert(dest, c.value); });
    }
    for (const auto convert : {KCSUnSigned64ToASCII, UnSigned64ToASCII}) {
      expect(c.unsignedText64, 21, [&](char *dest) { convert(dest, static_cast<u64>(c.value)); });
    }
  }
}

TEST(IntegersToASCII, NullIsIgnored) {
  Signed32ToASCII(nullptr, 1);
  UnSigned32ToASCII(nullptr, 1);
  Signed64ToASCII(nullptr, 1);
  UnSigned64ToASCII(nullptr, 1);
  BoolnToASCII(nullptr, 1);
  DoubleToASCII(nullptr, 1);
}

TEST(IntegersToASCII, AsFormattedOutput) {
  using Room = std::array<char, 24>;
  std::mt19937_64 random(7);
  for (int round = 0; round < kRounds; ++round) {
    const u64 magnitude = random() >> random() % 64;  // all lengths are equally likely
    const u64 value = random() % 2 == 0 ? magnitude : 0 - magnitude;
    Room fill;
    fill.fill(kFill);
    Room expected = fill;
    Room room = fill;
    (void)std::snprintf(expected.data(), expected.size(), "%d", static_cast<s32>(value));
    Signed32ToASCII(room.data(), static_cast<s32>(value));
    ASSERT_EQ(room, expected) << value;
    room = expected = fill;
    (void)std::snprintf(expected.data(), expected.size(), "%u", static_cast<u32>(value));
    UnSigned32ToASCII(room.data(), static_cast<u32>(value));
    ASSERT_EQ(room, expected) << value;
    room = expected = fill;
    (void)std::snprintf(expected.data(), expected.size(), "%ld", static_cast<s64>(value));
    Signed64ToASCII(room.data(), static_cast<s64>(value));
    ASSERT_EQ(room, expected) << value;
    room = expected = fill;
    (void)std::snprintf(expected.data(), expected.size(), "%lu", value);
    UnSigned64ToASCII(room.data(), value);
    ASSERT_EQ(room, expected) << value;
  }
}

TEST(BoolnToASCII, TrueForExactlyOne) {
  for (const auto convert : {KCSBoolnToASCII, BoolnToASCII}) {
    for (int value = SHRT_MIN; value <= SHRT_MAX; ++value) {
      std::array<char, 8> room;
      room.fill(kFill);
      std::array<char, 8> expected = room;
      std::memcpy(expected.data(), value == 1 ? "true" : "false", value == 1 ? 5 : 6);
      convert(room.data(), static_cast<booln>(value));
      ASSERT_EQ(room, expected) << value;
    }
    const GuardedBuffer tight(6);
    convert(tight.data<char>(), 2);
    EXPECT_STREQ(tight.data<char>(), "false");
  }
}

TEST(DoubleToASCII, KeptTheTextInTheBufferIsTheLimit) {
  const struct {
    d64 value;
    std::string_view before;
    std::string_view expected;  // of the same size, terminators included
  } cases[] = {
      {1.5, {"", 1}, {"", 1}},
      {1.5, {"x", 2}, {"\0", 2}},
      {1.5, {"xx", 3}, {"1\0", 3}},
      {1.5, {"xxxxxxxxxx", 11}, {"1.5000000\0", 11}},
      {1.5, {"xxxxxxxxxxx", 12}, {"1.50000000\0", 12}},
      {1.5, {"xxxxxxxxxxxxx", 14}, {"1.50000000\0xx", 14}},
      {-1.5, {"xxxxxxxxxxxx", 13}, {"-1.50000000\0", 13}},
      {1.5, {"xxxx\0yyyyyyyyyyyy", 17}, {"1.5\0\0yyyyyyyyyyyy", 17}},
      {0, {"xxxxxxxxxxxx", 13}, {"0.00000000\0x", 13}},
      {-0.0, {"xxxxxxxxxxxx", 13}, {"-0.00000000\0", 13}},
      {1e-9, {"xxxxxxxxxxxx", 13}, {"0.00000000\0x", 13}},
      {0.123456789, {"xxxxxxxxxxxx", 13}, {"0.12345679\0x", 13}},
      {1234567890.5, {"xxxxxxxxxxxx", 13}, {"1234567890.\0", 13}},
      {INFINITY, {"xxxxxx", 7}, {"inf\0xx", 7}},
      {-INFINITY, {"xxxxxx", 7}, {"-inf\0x", 7}},
      {INFINITY, {"xxx", 4}, {"in\0", 4}},
  };
  for (const auto convert : {KCSDoubleToASCII, DoubleToASCII}) {
    for (const auto &c : cases) {
      ASSERT_EQ(c.before.size(), c.expected.size());
      const GuardedBuffer buffer(c.before.size());
      char *const room = buffer.data<char>();
      c.before.copy(room, c.before.size());
      convert(room, c.value);
      EXPECT_EQ(std::string_view(room, buffer.size()), c.expected) << c.value << " over " << Shown(c.before);
    }
  }
}

TEST(DoubleToASCII, LargestNumberInEveryRoom) {
  for (const d64 value : {DBL_MAX, -DBL_MAX, 123456.789, -std::numeric_limits<d64>::quiet_NaN()}) {
    for (size_t limit = 0; limit < 330; ++limit) {
      std::string expected(limit, 'x');
      std::string text = expected;
      const GuardedBuffer buffer(limit + 1);
      char *const room = buffer.data<char>();
      std::memset(room, 'x', limit);
      room[limit] = 0;
      (void)std::snprintf(expected.data(), limit, "%.8f", value);
      DoubleToASCII(room, value);
      ASSERT_EQ(std::string(room, limit + 1), expected + '\0') << value << " in " << limit;
    }
  }
}

TEST(DoubleToASCII, AsFormattedOutput) { ExpectDoubleTexts(8, kRounds); }

TEST(DoubleToASCII, OtherRoundingIsObeyed) {
  for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    const Rounding rounding(mode);
    ExpectDoubleTexts(9, kRounds / 4);
  }
}

TEST(DoubleToASCII, DecimalPointIsTheLocales) {
  const OneByteLocale locale;
  ASSERT_TRUE(locale);
  char room[] = "xxxxxxxxxxxxxxxx";
  DoubleToASCII(room, 1234.5);
  EXPECT_STREQ(room, "1234,50000000");
  ExpectDoubleTexts(10, kRounds / 4);
  ExpectUniDoubleTexts(11, kRounds / 8);
}

// --- Time -----------------------------------------------------------------------------------------------------------

TEST(DSTFix, AddsAnHourInDaylightSavingTime) {
  const struct {
    const char *zone;
    time_t timer;
    time_t added;
  } cases[] = {
      {"UTC0", 0, 0},
      {"UTC0", 1626000000, 0},
      {"JST-9", 1626000000, 0},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1609459200, 0},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1616893199, 0},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1616893200, 3600},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1626000000, 3600},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1635641999, 3600},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1635642000, 0},
      {"EST5EDT,M3.2.0,M11.1.0", 1609459200, 0},
      {"EST5EDT,M3.2.0,M11.1.0", 1626000000, 3600},
      {"AEST-10AEDT,M10.1.0,M4.1.0/3", 1609459200, 3600},
      {"AEST-10AEDT,M10.1.0,M4.1.0/3", 1626000000, 0},
      // The hour is one hour also where the zone moves its clocks by another amount, or back in winter.
      {"LHST-10:30LHDT-11,M10.1.0,M4.1.0", 1609459200, 3600},
      {"LHST-10:30LHDT-11,M10.1.0,M4.1.0", 1626000000, 0},
      {"IST-1GMT0,M10.5.0,M3.5.0/1", 1609459200, 3600},
      {"IST-1GMT0,M10.5.0,M3.5.0/1", 1626000000, 0},
      // No local time.
      {"CET-1CEST,M3.5.0,M10.5.0/3", LLONG_MAX, 0},
      {"CET-1CEST,M3.5.0,M10.5.0/3", LLONG_MIN, 0},
  };
  for (const auto fix : {KCSDSTFix, DSTFix}) {
    for (const auto &c : cases) {
      const TimeZone zone(c.zone);
      time_t timer = c.timer;
      fix(&timer);
      EXPECT_EQ(timer, c.timer + c.added) << c.zone << ' ' << c.timer;
    }
    fix(nullptr);
  }
}

TEST(DSTFix, EveryHourOfAYear) {
  for (const char *name : {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "AEST-10AEDT,M10.1.0,M4.1.0/3"}) {
    const TimeZone zone(name);
    for (time_t hour = 0; hour < 366 * 24; ++hour) {
      const time_t before = 1609459200 + hour * 3600;
      time_t after = before;
      DSTFix(&after);
      tm local = {};
      ASSERT_NE(localtime_r(&before, &local), nullptr);
      ASSERT_EQ(after - before, local.tm_isdst > 0 ? 3600 : 0) << name << ' ' << before;
    }
  }
}

TEST(TimeToAStr, Texts) {
  const struct {
    const char *zone;
    time_t timer;
    const char *expected;
  } cases[] = {
      {"UTC0", 0, "Thu Jan  1 00:00:00 1970"},
      {"UTC0", -1, "Wed Dec 31 23:59:59 1969"},
      {"UTC0", 1626000000, "Sun Jul 11 10:40:00 2021"},
      {"UTC0", 951782400, "Tue Feb 29 00:00:00 2000"},
      {"UTC0", 2147483648, "Tue Jan 19 03:14:08 2038"},
      {"UTC0", 253402300799, "Fri Dec 31 23:59:59 9999"},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 0, "Thu Jan  1 01:00:00 1970"},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1616893199, "Sun Mar 28 01:59:59 2021"},
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1616893200, "Sun Mar 28 03:00:00 2021"},
      {"EST5EDT,M3.2.0,M11.1.0", 1626000000, "Sun Jul 11 06:40:00 2021"},
  };
  for (const auto convert : {KCSTimeToAStr, TimeToAStr}) {
    for (const auto &c : cases) {
      const TimeZone zone(c.zone);
      const GuardedBuffer buffer(26);
      EXPECT_EQ(convert(buffer.data<char>(), &c.timer), 0) << c.expected;
      EXPECT_EQ(std::string(buffer.data<char>(), 25), std::string(c.expected) + '\0');
    }
  }
}

TEST(TimeToAStr, TheZoneIsThatOfTheMoment) {
  const TimeZone zone("UTC0");
  const time_t summer = 1720000000;
  astring text[26];
  EXPECT_EQ(TimeToAStr(text, &summer), 0);
  EXPECT_STREQ(text, "Wed Jul  3 09:46:40 2024");
  setenv("TZ", "EST5EDT,M3.2.0,M11.1.0", 1);  // and nobody tells the C library
  EXPECT_EQ(TimeToAStr(text, &summer), 0);
  EXPECT_STREQ(text, "Wed Jul  3 05:46:40 2024");
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  time_t timer = summer;
  DSTFix(&timer);
  EXPECT_EQ(timer, summer + 3600);
}

TEST(TimeToAStr, TimesWithoutATextAreRefused) {
  const TimeZone zone("UTC0");
  for (const auto convert : {KCSTimeToAStr, TimeToAStr}) {
    std::array<char, 32> room;
    room.fill(kFill);
    const std::array<char, 32> before = room;
    for (const time_t timer : {time_t{253402300800}, time_t{253402300800 * 2}, std::numeric_limits<time_t>::max(),
                               std::numeric_limits<time_t>::min()}) {
      EXPECT_EQ(convert(room.data(), &timer), -1) << timer;
      EXPECT_EQ(room, before) << timer;
    }
    constexpr time_t kTimer = 0;
    EXPECT_EQ(convert(room.data(), nullptr), -1);
    EXPECT_EQ(convert(nullptr, &kTimer), -1);
    EXPECT_EQ(room, before);
  }
}

TEST(TimeToAStr, AsTheCalendarTextOfTheCLibrary) {
  std::mt19937_64 random(12);
  for (const char *name : {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "NST3:30NDT2:30,M3.2.0,M11.1.0"}) {
    const TimeZone zone(name);
    for (int round = 0; round < kRounds / 6; ++round) {
      const time_t timer = static_cast<time_t>(random()) >> random() % 64;
      char text[64];
      char expected[64];
      std::memset(text, kFill, sizeof text);
      const bool hasText = ctime_r(&timer, expected) != nullptr;
      ASSERT_EQ(TimeToAStr(text, &timer), hasText ? 0 : -1) << name << ' ' << timer;
      if (hasText) {
        ASSERT_EQ(std::string(text) + '\n', expected) << name << ' ' << timer;
      }
      ASSERT_EQ(std::string(text + 26, sizeof text - 26), std::string(sizeof text - 26, kFill));
    }
  }
}

TEST(UniTimeToStr, Texts) {
  const TimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  constexpr time_t kTimer = 1616893200;
  constexpr std::string_view kText = "Sun Mar 28 03:00:00 2021";
  for (const auto convert : {KCSUniTimeToStr, UniTimeToStr}) {
    u32 size = 4711;
    EXPECT_EQ(convert(nullptr, &size, &kTimer), 0);
    EXPECT_EQ(size, 50u);
    // The room is a number of units.
    for (u32 room = 25; room <= 50; ++room) {
      const GuardedBuffer buffer(room * sizeof(ustring));
      ustring *const units = buffer.data<ustring>();
      std::fill_n(units, room, kUnitFill);
      Units expected = Widened(kText);
      expected.resize(room, kUnitFill);
      size = room;
      EXPECT_EQ(convert(units, &size, &kTimer), 0) << room;
      EXPECT_EQ(Units(units, units + room), expected) << room;
      EXPECT_EQ(size, 50u) << room;
    }
    for (u32 room = 0; room < 25; ++room) {
      const GuardedBuffer buffer(room * sizeof(ustring));
      size = room;
      EXPECT_EQ(convert(buffer.data<ustring>(), &size, &kTimer), -1) << room;
      EXPECT_EQ(size, room);
    }
  }
}

TEST(UniTimeToStr, FailuresLeaveTheBufferAlone) {
  const TimeZone zone("UTC0");
  constexpr time_t kNever = std::numeric_limits<time_t>::max();
  constexpr time_t kTimer = 0;
  for (const auto convert : {KCSUniTimeToStr, UniTimeToStr}) {
    std::array<ustring, 32> room;
    room.fill(kUnitFill);
    const std::array<ustring, 32> before = room;
    u32 size = 32;
    EXPECT_EQ(convert(room.data(), &size, &kNever), -1);
    EXPECT_EQ(convert(nullptr, &size, &kNever), -1);
    EXPECT_EQ(convert(room.data(), &size, nullptr), -1);
    EXPECT_EQ(convert(room.data(), nullptr, &kTimer), -1);
    EXPECT_EQ(size, 32u);
    EXPECT_EQ(room, before);
  }
}

// --- 16-bit text ----------------------------------------------------------------------------------------------------

TEST(UniToNumbers, Texts) {
  const struct {
    std::string_view text;
    s32 signed32;
    u32 unSigned32;
    s64 signed64;
    u64 unSigned64;
    d64 asDouble;
  } cases[] = {
      {"", 0, 0, 0, 0, 0},
      {"0", 0, 0, 0, 0, 0},
      {" \t\n\v\f\r+12", 12, 12, 12, 12, 12},
      {"-1", -1, UINT_MAX, -1, ULLONG_MAX, -1},
      {"12abc", 12, 12, 12, 12, 12},
      {"1.75", 1, 1, 1, 1, 1.75},
      {"0x1f", 0, 0, 0, 0, 31},
      {"abc", 0, 0, 0, 0, 0},
      {"-", 0, 0, 0, 0, 0},
      {"+-1", 0, 0, 0, 0, 0},
      {"2147483648", INT_MIN, 2147483648, 2147483648, 2147483648, 2147483648},
      {"4294967297", 1, 1, 4294967297, 4294967297, 4294967297},
      {"9223372036854775807", -1, UINT_MAX, LLONG_MAX, LLONG_MAX, 0x1p63},
      {"9223372036854775808", -1, 0, LLONG_MAX, 9223372036854775808u, 0x1p63},
      {"-9223372036854775809", 0, UINT_MAX, LLONG_MIN, 9223372036854775807u, -0x1p63},
      {"18446744073709551616", -1, UINT_MAX, LLONG_MAX, ULLONG_MAX, 0x1p64},
      {"99999999999999999999", -1, UINT_MAX, LLONG_MAX, ULLONG_MAX, 99999999999999999999.0},
      {"12\xE9", 0, 0, 0, 0, 0},  // cannot be written in the plain locale
      {"\x80", 0, 0, 0, 0, 0},
  };
  LastBytes memory;
  for (const auto &c : cases) {
    const ustring *const text = memory.Put(Widened(c.text));
    for (const auto convert : {KCSUniToSigned32, UniToSigned32}) EXPECT_EQ(convert(text), c.signed32) << c.text;
    for (const auto convert : {KCSUniToUnSigned32, UniToUnSigned32}) EXPECT_EQ(convert(text), c.unSigned32) << c.text;
    for (const auto convert : {KCSUniToSigned64, UniToSigned64}) EXPECT_EQ(convert(text), c.signed64) << c.text;
    for (const auto convert : {KCSUniToUnSigned64, UniToUnSigned64}) EXPECT_EQ(convert(text), c.unSigned64) << c.text;
    for (const auto convert : {KCSUniToDouble, UniToDouble}) EXPECT_EQ(convert(text), c.asDouble) << c.text;
  }
}

TEST(UniToNumbers, NullGivesZero) {
  EXPECT_EQ(UniToSigned32(nullptr), 0);
  EXPECT_EQ(UniToUnSigned32(nullptr), 0u);
  EXPECT_EQ(UniToSigned64(nullptr), 0);
  EXPECT_EQ(UniToUnSigned64(nullptr), 0u);
  EXPECT_EQ(Bits(UniToDouble(nullptr)), Bits(0.0));
}

TEST(UniToNumbers, NearNumbersAsFormattedInputReadsThem) {
  NearNumbers numbers(13);
  LastBytes memory;
  for (int round = 0; round < kRounds; ++round) {
    const std::string source = round % 4 == 0 ? numbers.NextDouble() : numbers.Next();
    // What is not ASCII cannot be converted, and then there is no number.
    const bool isPlain = std::all_of(source.begin(), source.end(), [](char c) { return c > 0; });
    const std::string narrow = isPlain ? source : "";
    const ustring *const text = memory.Put(Widened(source));
    const char *const plain = narrow.c_str();
    ASSERT_EQ(UniToSigned64(text), ScannedLD(plain)) << Shown(source);
    ASSERT_EQ(UniToSigned32(text), static_cast<s32>(ScannedLD(plain))) << Shown(source);
    ASSERT_EQ(UniToUnSigned64(text), ScannedLU(plain)) << Shown(source);
    ASSERT_EQ(UniToUnSigned32(text), static_cast<u32>(ScannedLU(plain))) << Shown(source);
    ASSERT_EQ(Bits(UniToDouble(text)), Bits(std::strtod(plain, nullptr))) << Shown(source);
  }
}

TEST(UniToNumbers, EveryLengthOfText) {
  for (size_t length = 1; length < 600; ++length) {
    const Units blanks = Widened(std::string(length, ' ') + "-7");
    const Units zeros = Widened(std::string(length, '0') + "7x");
    ASSERT_EQ(UniToSigned32(blanks.data()), -7) << length;
    ASSERT_EQ(UniToSigned64(zeros.data()), 7) << length;
    ASSERT_EQ(UniToUnSigned32(zeros.data()), 7u) << length;
    ASSERT_EQ(UniToUnSigned64(zeros.data()), 7u) << length;
    ASSERT_EQ(UniToDouble(blanks.data()), -7) << length;
  }
  const Units longText = Widened(std::string(1000000, ' ') + "5");
  EXPECT_EQ(UniToSigned32(longText.data()), 5);
}

TEST(UniToNumbers, AllSixteenBitsCount) {
  // A digit of another script, and a unit whose low byte is a digit, are no digits.
  for (const ustring unit : {ustring{0x0131}, ustring{0x3031}, ustring{0x0661}, ustring{0xFF11}, ustring{0xD800}}) {
    const Units text{'1', unit, '2', 0};
    EXPECT_EQ(UniToSigned32(text.data()), 0) << unit;
    EXPECT_EQ(UniToDouble(text.data()), 0) << unit;
  }
}

TEST(UniToNumbers, ConversionIsTheLocales) {
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  // Longer in bytes than in units: what does not fit is cut, and the number stands in front of it.
  for (const Units &tail : {Units{0xE9, 0}, Units{0x20AC, 0}, Units{0x20AC, 0x20AC, 0x20AC, 0x20AC, 0}}) {
    Units text{' ', '-', '1', '2', '.', '5'};
    text.insert(text.end(), tail.begin(), tail.end());
    EXPECT_EQ(UniToSigned32(text.data()), -12);
    EXPECT_EQ(UniToSigned64(text.data()), -12);
    EXPECT_EQ(UniToUnSigned32(text.data()), static_cast<u32>(-12));
    EXPECT_EQ(UniToUnSigned64(text.data()), static_cast<u64>(-12));
    EXPECT_EQ(UniToDouble(text.data()), -12.5);
  }
  EXPECT_EQ(UniToSigned32(Units{0xE9, '1', 0}.data()), 0) << "a number in front";
  EXPECT_EQ(UniToSigned32(Units{0x20AC, 0}.data()), 0) << "not one character fits";
  EXPECT_EQ(UniToSigned32(Units{'1', 0xD800, 0}.data()), 0) << "half a pair cannot be written";
}

TEST(UniIntegersToStr, TextsInEveryRoom) {
  const struct {
    s32 value;
    s32 radix;
    const char *expected;
  } cases[] = {
      {0, 10, "0"},
      {-1, 10, "-1"},
      {1234567, 10, "1234567"},
      {123456789, 10, "1234567"},
      {INT_MIN, 10, "-214748"},
      {8, 8, "10"},
      {-1, 8, "3777777"},
      {255, 16, "ff"},
      {-1, 16, "fffffff"},
      {255, 3, "255"},
      {-255, 0, "-255"},
      {5, 2, ""},
      {0, 2, ""},
      {-1, 2, ""},
  };
  for (const auto &c : cases) {
    for (const auto convert : {KCSUniSigned32ToStr, UniSigned32ToStr}) {
      ExpectInEveryRoom(c.expected, [&](ustring *dest, u32 *size) { return convert(dest, size, c.value, c.radix); });
    }
    // The unsigned form has no text of its own: decimal text from 2147483648 on has a "-".
    for (const auto convert : {KCSUniUnSigned32ToStr, UniUnSigned32ToStr}) {
      ExpectInEveryRoom(c.expected, [&](ustring *dest, u32 *size) {
        return convert(dest, size, static_cast<u32>(c.value), c.radix);
      });
    }
  }
}

TEST(UniUnSigned32ToStr, KeptLargeNumbersComeOutNegative) {
  const struct {
    u32 value;
    const char *expected;
  } cases[] = {{2147483647, "2147483"}, {2147483648, "-214748"}, {4294967295, "-1"}, {4294967286, "-10"}};
  for (const auto &c : cases) {
    ExpectInEveryRoom(c.expected,
                      [&](ustring *dest, u32 *size) { return UniUnSigned32ToStr(dest, size, c.value, 10); });
  }
}

TEST(UniIntegersToStr, AsLtostr) {
  std::mt19937 random(14);
  const s32 radixes[] = {2, 8, 10, 16, 0, 7};
  for (int round = 0; round < kRounds; ++round) {
    const u32 magnitude = static_cast<u32>(random()) >> random() % 32;
    const s32 value = static_cast<s32>(random() % 2 == 0 ? magnitude : 0 - magnitude);
    const s32 radix = radixes[random() % std::size(radixes)];
    char narrow[8];
    ltostr(narrow, value, radix);
    const Units expected = Widened(narrow);
    std::array<ustring, 8> room;
    u32 size = sizeof room;
    ASSERT_EQ(UniSigned32ToStr(room.data(), &size, value, radix), 0);
    ASSERT_EQ(Units(room.begin(), room.begin() + size / 2), expected) << value << ' ' << radix;
    size = sizeof room;
    ASSERT_EQ(UniUnSigned32ToStr(room.data(), &size, static_cast<u32>(value), radix), 0);
    ASSERT_EQ(Units(room.begin(), room.begin() + size / 2), expected) << value << ' ' << radix;
  }
}

TEST(UniNumbersToStr, NoSizeIsAFailure) {
  ustring room[16] = {kUnitFill};
  for (const auto convert : {KCSUniSigned32ToStr, UniSigned32ToStr}) EXPECT_EQ(convert(room, nullptr, 1, 10), -1);
  for (const auto convert : {KCSUniUnSigned32ToStr, UniUnSigned32ToStr}) EXPECT_EQ(convert(room, nullptr, 1, 10), -1);
  for (const auto convert : {KCSUniDoubleToStr, UniDoubleToStr}) EXPECT_EQ(convert(room, nullptr, 1, 2), -1);
  EXPECT_EQ(room[0], kUnitFill);
}

TEST(UniDoubleToStr, TextsInEveryRoom) {
  const struct {
    d64 value;
    s32 precision;
    const char *expected;
  } cases[] = {
      {1.5, 3, "1.500"},
      {1.5, 0, "2"},
      {2.5, 0, "2"},
      {-0.0, 1, "-0.0"},
      {1234.5678, 2, "1234.57"},
      {0.125, 2, "0.12"},
      {1e10, 1, "10000000000.0"},
      {INFINITY, 3, "inf"},
      {-INFINITY, 3, "-inf"},
      {1e-5, 3, "0.000"},
  };
  for (const auto &c : cases) {
    for (const auto convert : {KCSUniDoubleToStr, UniDoubleToStr}) {
      ExpectInEveryRoom(c.expected,
                        [&](ustring *dest, u32 *size) { return convert(dest, size, c.value, c.precision); });
    }
  }
}

TEST(UniDoubleToStr, LongTextsAreCutTo127Characters) {
  const struct {
    d64 value;
    s32 precision;
    std::string expected;
  } cases[] = {
      {1, 124, "1." + Repeated("0", 124)},
      {1, 125, "1." + Repeated("0", 125)},
      {1, 126, "1." + Repeated("0", 125)},
      {-1, 125, "-1." + Repeated("0", 124)},
      {1, 1000, "1." + Repeated("0", 125)},
      {1, 100000, "1." + Repeated("0", 125)},
      {0x1p1023, 3,
       "8988465674311579538646525953945123668089884894711532863671504057886633790275048156635423866120376801"
       "056005693993569667882939488"},
  };
  for (const auto &c : cases) {
    ASSERT_LE(c.expected.size(), 127u);
    ExpectInEveryRoom(c.expected.substr(0, 127),
                      [&](ustring *dest, u32 *size) { return UniDoubleToStr(dest, size, c.value, c.precision); });
  }
}

TEST(UniDoubleToStr, AnyPrecisionCostsNoMoreThanTheDigits) {
  for (const s32 precision : {1074, 1075, 100000000, INT_MAX - 7, INT_MAX}) {
    ustring text[128];
    u32 size = sizeof text;
    EXPECT_EQ(UniDoubleToStr(text, &size, 0.5, precision), 0);
    EXPECT_EQ(size, sizeof text);
    EXPECT_EQ(Widened("0.5" + Repeated("0", 124)), Units(text, text + 128)) << precision;
  }
}

TEST(UniDoubleToStr, AsFormattedOutput) { ExpectUniDoubleTexts(15, kRounds / 2); }

TEST(UniDoubleToStr, OtherRoundingIsObeyed) {
  for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    const Rounding rounding(mode);
    ExpectUniDoubleTexts(16, kRounds / 8);
  }
}

TEST(UniDoubleToStr, NegativePrecisionStaysInTheRoom) {
  for (const s32 precision : {-1, -3, -200, INT_MIN}) {
    const GuardedBuffer buffer(256);
    u32 size = 256;
    const s32 result = UniDoubleToStr(buffer.data<ustring>(), &size, 1.5, precision);
    EXPECT_TRUE(result == 0 || result == -1) << precision;
    EXPECT_LE(size, 256u) << precision;
  }
}

// --- Validators -----------------------------------------------------------------------------------------------------

TEST(Validators, Texts) {
  const struct {
    const char *text;
    s32 intNum;
    s32 signedIntNum;
    s32 upperHexNum;
    s32 lowerHexNum;
    s32 octalNum;
    s32 alpha;
    s32 alphaNumeric;
  } cases[] = {
      {nullptr, 271, 271, 271, 271, 271, 271, 271},
      {"", 271, 271, 271, 271, 271, 271, 271},
      {"0", 0, 0, 0, 0, 0, 271, 0},
      {"0123456789", 0, 0, 0, 0, 271, 271, 0},
      {"01234567", 0, 0, 0, 0, 0, 271, 0},
      {"8", 0, 0, 0, 0, 271, 271, 0},
      {"+", 271, 0, 271, 271, 271, 271, 271},
      {"-", 271, 0, 271, 271, 271, 271, 271},
      {"+1", 271, 0, 271, 271, 271, 271, 271},
      {"-1", 271, 0, 271, 271, 271, 271, 271},
      {"+-", 271, 271, 271, 271, 271, 271, 271},
      {"--1", 271, 271, 271, 271, 271, 271, 271},
      {"1-", 271, 271, 271, 271, 271, 271, 271},
      {" 1", 271, 271, 271, 271, 271, 271, 271},
      {"1 ", 271, 271, 271, 271, 271, 271, 271},
      {"1.5", 271, 271, 271, 271, 271, 271, 271},
      {"0x", 271, 271, 0, 0, 271, 271, 0},
      {"0X", 271, 271, 271, 271, 271, 271, 0},
      {"0x1f", 271, 271, 271, 0, 271, 271, 0},
      {"0x1F", 271, 271, 0, 271, 271, 271, 0},
      {"0X1F", 271, 271, 271, 271, 271, 271, 0},
      {"0x0x", 271, 271, 271, 271, 271, 271, 0},
      {"x1", 271, 271, 271, 271, 271, 271, 0},
      {"af", 271, 271, 271, 0, 271, 0, 0},
      {"AF", 271, 271, 0, 271, 271, 0, 0},
      {"aF", 271, 271, 271, 271, 271, 0, 0},
      {"0xaF", 271, 271, 271, 271, 271, 271, 0},
      {"g", 271, 271, 271, 271, 271, 0, 0},
      {"abcXYZ", 271, 271, 271, 271, 271, 0, 0},
      {"abc1", 271, 271, 271, 0, 271, 271, 0},
      {"abc_", 271, 271, 271, 271, 271, 271, 271},
      {"\xC3\xA9", 271, 271, 271, 271, 271, 271, 271},
  };
  for (const auto &c : cases) {
    const std::string what = c.text == nullptr ? "NULL" : Shown(c.text);
    for (const auto check : {KCSIsASCIIIntNum, IsASCIIIntNum}) {
      EXPECT_EQ(check(c.text, 0), c.intNum) << what;
      EXPECT_EQ(check(c.text, 1), c.signedIntNum) << what;
    }
    for (const auto check : {KCSIsASCIIHexNum, IsASCIIHexNum}) {
      EXPECT_EQ(check(c.text, 0), c.upperHexNum) << what;
      EXPECT_EQ(check(c.text, 1), c.lowerHexNum) << what;
    }
    for (const auto check : {KCSIsASCIIOctalNum, IsASCIIOctalNum}) EXPECT_EQ(check(c.text), c.octalNum) << what;
    for (const auto check : {KCSIsASCIIAlpha, IsASCIIAlpha}) EXPECT_EQ(check(c.text), c.alpha) << what;
    for (const auto check : {KCSIsASCIIAlphaNumeric, IsASCIIAlphaNumeric}) {
      EXPECT_EQ(check(c.text), c.alphaNumeric) << what;
    }
  }
}

TEST(IsASCIIIntNum, KeptASignAloneIsValid) {
  EXPECT_EQ(IsASCIIIntNum("+", 1), 0);
  EXPECT_EQ(IsASCIIIntNum("-", 1), 0);
  EXPECT_EQ(IsASCIIIntNum("+", 0), kInvalid);
  EXPECT_EQ(IsASCIIIntNum("-", 0), kInvalid);
}

TEST(IsASCIIHexNum, KeptAPrefixAloneIsValid) {
  EXPECT_EQ(IsASCIIHexNum("0x", 1), 0);
  EXPECT_EQ(IsASCIIHexNum("0x", 0), 0);
}

TEST(IsASCIIAlphaNumericPlus, FurtherCharacters) {
  const struct {
    const char *text;
    const char *extra;
    s32 expected;
  } cases[] = {
      {"ab1", nullptr, 0},     {"ab_", nullptr, 271}, {"ab1", "", 0},
      {"ab_", "", 271},        {"ab_", "_", 0},       {"_", "_", 0},
      {"_-_", "-_", 0},        {"a b", " ", 0},       {"a b", "_", 271},
      {"a-b.c", "-", 271},     {"a-b.c", ".-", 0},    {"", "", 271},
      {"", "_", 271},          {"", nullptr, 271},    {nullptr, "_", 271},
      {nullptr, nullptr, 271}, {"Z9", "_", 0},        {"\xC3\xA9", "\xC3\xA9", 0},
      {"\xC3", "\xA9", 271},   {"\xFF", "\xFF", 0},   {"a\n", "\n", 0},
  };
  for (const auto check : {KCSIsASCIIAlphaNumericPlus, IsASCIIAlphaNumericPlus}) {
    for (const auto &c : cases) {
      EXPECT_EQ(check(c.text, c.extra), c.expected)
          << (c.text == nullptr ? "NULL" : Shown(c.text)) << " and " << (c.extra == nullptr ? "NULL" : Shown(c.extra));
    }
  }
}

TEST(Validators, EveryTextOfTwoBytes) {
  LastBytes memory;
  for (int first = 1; first <= UCHAR_MAX; ++first) {
    ASSERT_NO_FATAL_FAILURE(ExpectValidators(memory.Put(std::string(1, static_cast<char>(first)))));
    for (int second = 1; second <= UCHAR_MAX; ++second) {
      const std::string text{static_cast<char>(first), static_cast<char>(second)};
      ASSERT_NO_FATAL_FAILURE(ExpectValidators(memory.Put(text)));
    }
  }
}

TEST(Validators, EveryShortTextOfTheTellingCharacters) {
  constexpr std::string_view kAlphabet = "0789afgxAFGX+-. \xE9";
  LastBytes memory;
#ifdef ZEBCS_SANITIZED
  constexpr size_t kLongest = 3;
#else
  constexpr size_t kLongest = 4;
#endif
  std::vector<std::string> texts = {""};
  for (size_t length = 1; length <= kLongest; ++length) {
    std::vector<std::string> longer;
    for (const std::string &text : texts) {
      for (const char c : kAlphabet) longer.push_back(text + c);
    }
    texts = longer;
    for (const std::string &text : texts) ASSERT_NO_FATAL_FAILURE(ExpectValidators(memory.Put(text)));
  }
}

TEST(Validators, NearNumbers) {
  NearNumbers numbers(17);
  LastBytes memory;
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_NO_FATAL_FAILURE(ExpectValidators(memory.Put(numbers.Next())));
  }
}

TEST(Validators, LettersAreThoseOfASCIIInEveryLocale) {
  const OneByteLocale locale;
  ASSERT_TRUE(locale);
  EXPECT_EQ(IsASCIIAlpha("\xE9"), kInvalid);
  EXPECT_EQ(IsASCIIAlphaNumeric("a\xE9"), kInvalid);
  EXPECT_EQ(IsASCIIAlphaNumericPlus("a\xE9", "_"), kInvalid);
  EXPECT_EQ(IsASCIIAlphaNumericPlus("a\xE9", "\xE9"), 0);
}

// --- Host names -----------------------------------------------------------------------------------------------------

TEST(ValidateHostName, Names) {
  const struct {
    std::string name;
    s32 expected;
  } cases[] = {
      {"", 271},
      {"a", 0},
      {"7", 0},
      {"Z9", 0},
      {"host.example-1.test", 0},
      {"1.2.3.4", 0},
      {"a..b", 0},
      {"a--b", 0},
      {"a.-b", 0},
      {"-", -1},
      {".", -1},
      {"a-", -1},
      {"a.", -1},
      {"abc-", -1},
      {"abc.", -1},
      {"-a", 271},
      {".a", 271},
      {"_a", 271},
      {" a", 271},
      {"_", 271},
      {"-a-", -1},
      {"-a_b", 271},
      {"a_b", -1},
      {"a b", -1},
      {"a\xC3\xA9"
       "b",
       -1},
      {"\xC3\xA9", 271},
      {std::string(254, 'a'), 0},
      {std::string(255, 'a'), 0},
      {std::string(256, 'a'), -1},
      {std::string(100000, 'a'), -1},
      {"-" + std::string(254, 'a'), 271},
      {"-" + std::string(255, 'a'), -1},
      {std::string(254, 'a') + "_", 0},
      {std::string(253, 'a') + "_a", -1},
      {std::string(254, 'a') + "-", -1},
      {std::string(255, '_'), 271},
      {std::string(256, '_'), -1},
  };
  for (const auto check : {KCSValidateHostName, ValidateHostName}) {
    for (const auto &c : cases) EXPECT_EQ(check(c.name.c_str()), c.expected) << Shown(c.name);
    EXPECT_EQ(check(nullptr), kInvalid);
  }
}

TEST(ValidateHostName, KeptTheLastCharacterIsHardlyChecked) {
  for (const char *name : {"a_", "a!", "a ", "a\xE9", "a\n", "ab_", "ab!", "ab/", "host.test\x7F", "ab\xFF"}) {
    EXPECT_EQ(ValidateHostName(name), 0) << Shown(name);
  }
}

TEST(ValidateHostName, EveryShortName) {
  constexpr std::string_view kAlphabet = "aZ09-._ \xE9";
  LastBytes memory;
#ifdef ZEBCS_SANITIZED
  constexpr size_t kLongest = 4;
#else
  constexpr size_t kLongest = 6;
#endif
  std::vector<std::string> names = {""};
  for (size_t length = 1; length <= kLongest; ++length) {
    std::vector<std::string> longer;
    for (const std::string &name : names) {
      for (const char c : kAlphabet) longer.push_back(name + c);
    }
    names = longer;
    for (const std::string &name : names) {
      ASSERT_EQ(ValidateHostName(memory.Put(name)), ModelHostName(name)) << Shown(name);
    }
  }
}

TEST(ValidateHostName, EveryByteInEveryPlace) {
  LastBytes memory;
  for (size_t at = 0; at < 5; ++at) {
    for (int byte = 1; byte <= UCHAR_MAX; ++byte) {
      std::string name = "abcde";
      name[at] = static_cast<char>(byte);
      ASSERT_EQ(ValidateHostName(memory.Put(name)), ModelHostName(name)) << Shown(name);
    }
  }
}

TEST(ValidateHostName, LettersAreTheLocales) {
  const OneByteLocale locale;
  ASSERT_TRUE(locale);
  EXPECT_EQ(ValidateHostName("a\xE9z"), 0);
  EXPECT_EQ(ValidateHostName("a\xC9-\xE9z"), 0);
  EXPECT_EQ(ValidateHostName("\xE9"), 0);
  EXPECT_EQ(ValidateHostName("a\xE8z"), -1);
  EXPECT_EQ(ValidateHostName("\xE8z"), kInvalid);
}

// --- Checked conversions --------------------------------------------------------------------------------------------

TEST(ASCIIToNumbers32VT, Texts) {
  constexpr Checked kRefused = {0, kInvalid};
  const struct {
    const char *text;
    s32 radix;
    Checked expectedSigned;
    Checked expectedUnSigned;
  } cases[] = {
      {"0", 10, {0, 0}, {0, 0}},
      {"12", 10, {12, 0}, {12, 0}},
      {"-12", 10, {static_cast<u32>(-12), 0}, {static_cast<u32>(-12), 0}},
      {"+12", 10, {12, 0}, {12, 0}},
      {"010", 10, {10, 0}, {10, 0}},
      {"2147483648", 10, {2147483648, 0}, {2147483648, 0}},
      {"4294967296", 10, {0, 0}, {0, 0}},
      {"9223372036854775808", 10, {UINT_MAX, 0}, {0, 0}},
      {"-9223372036854775809", 10, {0, 0}, {UINT_MAX, 0}},
      {"99999999999999999999", 10, {UINT_MAX, 0}, {UINT_MAX, 0}},
      {"+", 10, kRefused, kRefused},
      {"-", 10, kRefused, kRefused},
      {" 12", 10, kRefused, kRefused},
      {"12 ", 10, kRefused, kRefused},
      {"12a", 10, kRefused, kRefused},
      {"1.5", 10, kRefused, kRefused},
      {"0x1f", 10, kRefused, kRefused},
      {"--1", 10, kRefused, kRefused},
      {"", 10, kRefused, kRefused},
      {nullptr, 10, kRefused, kRefused},
      {"0x1f", 16, {31, 0}, {31, 0}},
      {"0x1F", 16, {31, 0}, {31, 0}},
      {"0xffffffff", 16, {UINT_MAX, 0}, {UINT_MAX, 0}},
      {"0x100000001", 16, {1, 0}, {1, 0}},
      {"0x7ffffffffffffffe", 16, {UINT_MAX - 1, 0}, {UINT_MAX - 1, 0}},
      {"0x8000000000000000", 16, {UINT_MAX, 0}, {UINT_MAX, 0}},
      {"0x0", 16, {0, 0}, {0, 0}},
      {"0X1F", 16, kRefused, kRefused},
      {"0x1g", 16, kRefused, kRefused},
      {"0x1fF", 16, kRefused, kRefused},
      {"+10", 16, kRefused, kRefused},
      {"-0x1f", 16, kRefused, kRefused},
      {" 0x1f", 16, kRefused, kRefused},
      {"", 16, kRefused, kRefused},
      {nullptr, 16, kRefused, kRefused},
      {"0", 8, {0, 0}, {0, 0}},
      {"17", 8, {15, 0}, {15, 0}},
      {"017", 8, {15, 0}, {15, 0}},
      {"37777777777", 8, {UINT_MAX, 0}, {UINT_MAX, 0}},
      {"40000000001", 8, {1, 0}, {1, 0}},
      {"1777777777777777777776", 8, {UINT_MAX - 1, 0}, {UINT_MAX - 1, 0}},
      {"2000000000000000000000", 8, {UINT_MAX, 0}, {UINT_MAX, 0}},
      {"8", 8, kRefused, kRefused},
      {"+7", 8, kRefused, kRefused},
      {"-7", 8, kRefused, kRefused},
      {"0x7", 8, kRefused, kRefused},
      {"", 8, kRefused, kRefused},
      {nullptr, 8, kRefused, kRefused},
  };
  for (const auto &c : cases) {
    const std::string what = (c.text == nullptr ? "NULL" : Shown(c.text)) + ' ' + std::to_string(c.radix);
    EXPECT_EQ(Signed32VT(c.text, c.radix), c.expectedSigned) << what;
    EXPECT_EQ(UnSigned32VT(c.text, c.radix), c.expectedUnSigned) << what;
    EXPECT_EQ(KCSASCIIToSigned32VT(c.text, c.radix, nullptr), static_cast<s32>(c.expectedSigned.value)) << what;
    EXPECT_EQ(KCSASCIIToUnSigned32VT(c.text, c.radix, nullptr), c.expectedUnSigned.value) << what;
  }
}

TEST(ASCIIToNumbers32VT, KeptRadixSixteenNeedsThePrefix) {
  const struct {
    const char *text;
    Checked expected;
  } cases[] = {
      {"10", {10, 0}},       {"99", {99, 0}},       {"010", {8, 0}},       {"0", {0, 0}},
      {"08", {0, 0}},        {"0778", {63, 0}},     {"1f", {1, 0}},        {"12AB", {12, 0}},
      {"0a", {0, 0}},        {"0b1", {0, 0}},       {"1e3", {1, 0}},       {"4294967295", {UINT_MAX, 0}},
      {"ff", {0, kInvalid}}, {"FF", {0, kInvalid}}, {"a1", {0, kInvalid}}, {"F0", {0, kInvalid}},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Signed32VT(c.text, 16), c.expected) << c.text;
    EXPECT_EQ(UnSigned32VT(c.text, 16), c.expected) << c.text;
  }
}

TEST(ASCIIToNumbers32VT, PrefixAloneIsAsFormattedInputReadsIt) {
  EXPECT_EQ(Signed32VT("0x", 16), ModelChecked("0x", 16, true));
  EXPECT_EQ(UnSigned32VT("0x", 16), ModelChecked("0x", 16, false));
}

TEST(ASCIIToNumbersVT, KeptOtherRadixesAreRefusedEachInItsWay) {
  for (const s32 radix :
       {0, 1, 2, 3, 7, 9, 11, 12, 15, 17, 36, -8, -10, -16, INT_MAX, INT_MIN, 0x1000A, 0x10A, 0x110}) {
    for (const char *text : {"12", "0x1f", "+", "", "7", static_cast<const char *>(nullptr)}) {
      EXPECT_EQ(Signed32VT(text, radix), (Checked{0, kInvalid})) << radix;
      EXPECT_EQ(UnSigned32VT(text, radix), (Checked{0xFFFFFFFF, kInvalid})) << radix;
      s32 status = 4711;
      EXPECT_EQ(ASCIIToSigned64VT(text, radix, &status), 0) << radix;
      EXPECT_EQ(status, kInvalid) << radix;
      status = 4711;
      EXPECT_EQ(ASCIIToUnSigned64VT(text, radix, &status), 0u) << radix;
      EXPECT_EQ(status, kInvalid) << radix;
      EXPECT_EQ(KCSASCIIToUnSigned32VT(text, radix, nullptr), 0xFFFFFFFF) << radix;
    }
  }
}

TEST(ASCIIToNumbers64VT, Texts) {
  const struct {
    const char *text;
    s32 radix;
    s64 expectedSigned;
    u64 expectedUnSigned;
    s32 expectedStatus;
  } cases[] = {
      {"12", 10, 12, 12, 0},
      {"+12", 10, 12, 12, 0},
      {"-12", 10, -12, 0, 0},
      {"010", 10, 10, 10, 0},
      {"9223372036854775808", 10, LLONG_MIN, 9223372036854775808u, 0},
      {"18446744073709551615", 10, -1, ULLONG_MAX, 0},
      {"18446744073709551617", 10, 1, 1, 0},
      {"+", 10, 0, 0, 0},
      {"-", 10, 0, 0, 0},
      {" 12", 10, 0, 0, kInvalid},
      {"12a", 10, 0, 0, kInvalid},
      {"0x10", 10, 0, 0, kInvalid},
      {"", 10, 0, 0, kInvalid},
      {nullptr, 10, 0, 0, kInvalid},
      {"g", 16, 0, 0, kInvalid},
      {"0x1fF", 16, 0, 0, kInvalid},
      {"-1", 16, 0, 0, kInvalid},
      {"", 16, 0, 0, kInvalid},
      {nullptr, 16, 0, 0, kInvalid},
      {"8", 8, 0, 0, kInvalid},
      {"-1", 8, 0, 0, kInvalid},
      {"", 8, 0, 0, kInvalid},
      {nullptr, 8, 0, 0, kInvalid},
  };
  for (const auto &c : cases) {
    const std::string what = (c.text == nullptr ? "NULL" : Shown(c.text)) + ' ' + std::to_string(c.radix);
    for (const auto convert : {KCSASCIIToSigned64VT, ASCIIToSigned64VT}) {
      s32 status = 4711;
      EXPECT_EQ(convert(c.text, c.radix, &status), c.expectedSigned) << what;
      EXPECT_EQ(status, c.expectedStatus) << what;
      EXPECT_EQ(convert(c.text, c.radix, nullptr), c.expectedSigned) << what;
    }
    for (const auto convert : {KCSASCIIToUnSigned64VT, ASCIIToUnSigned64VT}) {
      s32 status = 4711;
      EXPECT_EQ(convert(c.text, c.radix, &status), c.expectedUnSigned) << what;
      EXPECT_EQ(status, c.expectedStatus) << what;
      EXPECT_EQ(convert(c.text, c.radix, nullptr), c.expectedUnSigned) << what;
    }
  }
}

TEST(ASCIIToNumbers64VT, KeptOnlyDecimalTextIsConverted) {
  const struct {
    const char *text;
    s32 radix;
  } cases[] = {{"0x10", 16}, {"10", 16}, {"ff", 16}, {"FF", 16}, {"0x", 16}, {"17", 8}, {"7", 8}};
  for (const auto &c : cases) {
    s32 status = 4711;
    EXPECT_EQ(ASCIIToSigned64VT(c.text, c.radix, &status), 0) << c.text;
    EXPECT_EQ(status, 0) << c.text;
    status = 4711;
    EXPECT_EQ(ASCIIToUnSigned64VT(c.text, c.radix, &status), 0u) << c.text;
    EXPECT_EQ(status, 0) << c.text;
  }
}

TEST(ASCIIToNumbersVT, NearNumbersAsFormattedInputReadsThem) {
  NearNumbers numbers(18);
  LastBytes memory;
  for (int round = 0; round < kRounds; ++round) {
    const std::string source = numbers.Next();
    const char *const text = memory.Put(source);
    for (const s32 radix : {10, 16, 8}) {
      ASSERT_EQ(Signed32VT(text, radix), ModelChecked(text, radix, true)) << Shown(source) << ' ' << radix;
      ASSERT_EQ(UnSigned32VT(text, radix), ModelChecked(text, radix, false)) << Shown(source) << ' ' << radix;
      const s32 expectedStatus = ModelNumber(source, radix);
      const bool isConverted = radix == 10 && expectedStatus == 0;
      s32 status = 4711;
      ASSERT_EQ(static_cast<u64>(ASCIIToSigned64VT(text, radix, &status)),
                isConverted ? WrappedDecimal(source, true) : 0)
          << Shown(source) << ' ' << radix;
      ASSERT_EQ(status, expectedStatus) << Shown(source) << ' ' << radix;
      status = 4711;
      ASSERT_EQ(ASCIIToUnSigned64VT(text, radix, &status), isConverted ? WrappedDecimal(source, false) : 0)
          << Shown(source) << ' ' << radix;
      ASSERT_EQ(status, expectedStatus) << Shown(source) << ' ' << radix;
    }
  }
}

// --- Small conversions ----------------------------------------------------------------------------------------------

TEST(CharsLeftShift, RemovesTheFirstCharacter) {
  const struct {
    std::string_view before;
    std::string_view after;  // of the same size, the terminators included
  } cases[] = {
      {{"", 1}, {"", 1}},
      {{"a", 2}, {"\0", 2}},
      {{"ab", 3}, {"b\0", 3}},
      {{"abcdef", 7}, {"bcdef\0", 7}},
      {{"\xC3\xA9", 3}, {"\xA9\0", 3}},
      {{"\0xyz", 5}, {"\0xyz", 5}},
      {{"ab\0xyz", 7}, {"b\0\0xyz", 7}},
  };
  for (const auto &c : cases) {
    const GuardedBuffer buffer(c.before.size());
    char *const text = buffer.data<char>();
    c.before.copy(text, c.before.size());
    CharsLeftShift(text);
    EXPECT_EQ(std::string_view(text, buffer.size()), c.after) << Shown(c.before);
  }
  CharsLeftShift(nullptr);
}

TEST(CharsLeftShift, EveryLength) {
  NearNumbers numbers(19);
  LastBytes memory;
  for (int round = 0; round < 2000; ++round) {
    const std::string source = numbers.Characters("abcdefgh", 600) + "z";
    char *const text = memory.Put(source);
    CharsLeftShift(text);
    ASSERT_EQ(std::string(text, source.size() + 1), source.substr(1) + '\0' + '\0');
  }
}

namespace {

// The destination of ASCIIReplaceSubstr: `room` bytes that hold a text and then filling.
struct Destination {
  std::string bytes;
  u32 size;

  Destination(std::string_view text, size_t room) : bytes(room, kFill), size(static_cast<u32>(room)) {
    text.copy(bytes.data(), text.size());
    if (text.size() < room) bytes[text.size()] = 0;
  }
  bool operator==(const Destination &) const = default;
};

// What ASCIIReplaceSubstr must do to a destination.
s32 ModelReplace(const std::string &source, const std::string &find, const std::string &replacement,
                 Destination &dest) {
  if (source.empty() || find.empty() || find.size() > source.size()) return kInvalid;
  const size_t needed = replacement.size() + source.size() + 1 - find.size();
  if (dest.size < needed) {
    dest.size = static_cast<u32>(needed);
    return SM_STATUS_INSUFFICIENT_BUFFER;
  }
  size_t end = 0;
  for (const char c : find) {
    end = source.find(c, end);
    if (end == std::string::npos) {
      const size_t limit = std::strlen(dest.bytes.c_str());
      std::strncpy(dest.bytes.data(), source.c_str(), limit);
      return -1;
    }
    ++end;
  }
  std::string result = source;
  result.replace(end - find.size(), find.size(), replacement);
  dest.bytes.replace(0, needed, result.c_str(), needed);
  return 0;
}

}  // namespace

TEST(ASCIIReplaceSubstr, Texts) {
  const struct {
    const char *source;
    const char *find;
    const char *replacement;
    const char *expected;
  } cases[] = {
      {"abc", "b", "X", "aXc"},
      {"abc", "b", "", "ac"},
      {"abc", "b", "12345", "a12345c"},
      {"abc", "abc", "", ""},
      {"abc", "abc", "xy", "xy"},
      {"abcabc", "bc", "X", "aXabc"},
      {"abcabc", "c", "X", "abXabc"},
      {"aaa", "a", "b", "baa"},
      {"abc", "a", "X", "Xbc"},
      {"abc", "c", "X", "abX"},
      {"path/$NAME/x", "$NAME", "\xC3\xA9", "path/\xC3\xA9/x"},
      {"aab", "ab", "X", "aX"},
  };
  for (const auto replace : {KCSASCIIReplaceSubstr, ASCIIReplaceSubstr}) {
    for (const auto &c : cases) {
      const GuardedBuffer tight(std::strlen(c.expected) + 1);
      u32 size = static_cast<u32>(tight.size());
      EXPECT_EQ(replace(c.source, c.find, c.replacement, &size, tight.data<char>()), 0) << c.expected;
      EXPECT_STREQ(tight.data<char>(), c.expected);
      EXPECT_EQ(size, tight.size()) << c.expected;
      Destination dest("", 40);
      Destination expected("", 40);
      expected.bytes.replace(0, tight.size(), c.expected, tight.size());
      EXPECT_EQ(replace(c.source, c.find, c.replacement, &dest.size, dest.bytes.data()), 0) << c.expected;
      EXPECT_EQ(dest.bytes, expected.bytes);
      EXPECT_EQ(dest.size, 40u);
    }
  }
}

TEST(ASCIIReplaceSubstr, KeptTheMatchNeedNotBeContiguous) {
  const struct {
    const char *source;
    const char *find;
    const char *expected;
  } cases[] = {
      {"a-b-c", "abc", "a-[]"},                                // the three characters that end with the last match
      {"axxb", "ab", "ax[]"},   {"axbxabz", "ab", "a[]xabz"},  // before the contiguous one
      {"xaxbx", "ab", "xa[]x"}, {"a1b2c3", "abc", "a1[]3"},   {"aXXXXXXb!", "ab", "aXXXXX[]!"},
  };
  for (const auto &c : cases) {
    char dest[40];
    u32 size = sizeof dest;
    EXPECT_EQ(ASCIIReplaceSubstr(c.source, c.find, "[]", &size, dest), 0) << c.source;
    EXPECT_STREQ(dest, c.expected) << c.source;
  }
}

TEST(ASCIIReplaceSubstr, ArgumentsThatAreMissingOrEmpty) {
  Destination dest("abcdef", 40);
  const Destination before = dest;
  u32 *const size = &dest.size;
  char *const bytes = dest.bytes.data();
  for (const auto replace : {KCSASCIIReplaceSubstr, ASCIIReplaceSubstr}) {
    EXPECT_EQ(replace(nullptr, "b", "c", size, bytes), kInvalid);
    EXPECT_EQ(replace("a", nullptr, "c", size, bytes), kInvalid);
    EXPECT_EQ(replace("a", "b", nullptr, size, bytes), kInvalid);
    EXPECT_EQ(replace("a", "b", "c", nullptr, bytes), kInvalid);
    EXPECT_EQ(replace("a", "b", "c", nullptr, nullptr), kInvalid);
    EXPECT_EQ(replace("", "b", "c", size, bytes), kInvalid);
    EXPECT_EQ(replace("a", "", "c", size, bytes), kInvalid);
    EXPECT_EQ(replace("", "", "", size, bytes), kInvalid);
    EXPECT_EQ(replace("a", "ab", "c", size, bytes), kInvalid);
    EXPECT_EQ(replace("a", "ab", "c", size, nullptr), kInvalid) << "before the size";
    EXPECT_EQ(replace("", "b", "c", size, nullptr), kInvalid);
  }
  EXPECT_EQ(dest, before);
}

TEST(ASCIIReplaceSubstr, SizeThatIsNeeded) {
  const struct {
    const char *source;
    const char *find;
    const char *replacement;
    u32 needed;
  } cases[] = {
      {"abc", "b", "X", 4},     {"abc", "b", "", 3},      {"abc", "abc", "", 1},
      {"abc", "b", "12345", 8}, {"abc", "x", "12345", 8},  // also without a match
  };
  for (const auto replace : {KCSASCIIReplaceSubstr, ASCIIReplaceSubstr}) {
    for (const auto &c : cases) {
      for (const u32 room : {0u, 1u, 1000u, UINT_MAX}) {
        u32 size = room;
        EXPECT_EQ(replace(c.source, c.find, c.replacement, &size, nullptr), 15) << c.source;
        EXPECT_EQ(size, c.needed) << c.source;
      }
      for (u32 room = 0; room < c.needed; ++room) {
        Destination dest("xxxxxxxxxx", 20);
        const std::string before = dest.bytes;
        dest.size = room;
        EXPECT_EQ(replace(c.source, c.find, c.replacement, &dest.size, dest.bytes.data()), 15) << c.source;
        EXPECT_EQ(dest.size, c.needed) << c.source;
        EXPECT_EQ(dest.bytes, before) << c.source;
      }
    }
  }
}

TEST(ASCIIReplaceSubstr, KeptWithoutAMatchTheTextInTheBufferIsTheLimit) {
  const struct {
    std::string_view before;
    std::string_view expected;
  } cases[] = {
      {{"\0xxxxxxx", 8}, {"\0xxxxxxx", 8}},  {{"1\0xxxxxx", 8}, {"a\0xxxxxx", 8}},
      {{"12\0xxxxx", 8}, {"ab\0xxxxx", 8}},  {{"123\0xxxx", 8}, {"abc\0xxxx", 8}},
      {{"1234\0xxx", 8}, {"abc\0\0xxx", 8}}, {{"1234567\0", 8}, {"abc\0\0\0\0\0", 8}},
  };
  for (const auto replace : {KCSASCIIReplaceSubstr, ASCIIReplaceSubstr}) {
    for (const auto &c : cases) {
      const GuardedBuffer buffer(8);
      char *const dest = buffer.data<char>();
      c.before.copy(dest, 8);
      u32 size = 8;
      EXPECT_EQ(replace("abc", "ba", "X", &size, dest), -1) << Shown(c.before);
      EXPECT_EQ(std::string_view(dest, 8), c.expected) << Shown(c.before);
      EXPECT_EQ(size, 8u);
    }
  }
}

TEST(ASCIIReplaceSubstr, RandomTexts) {
  NearNumbers texts(20);
  LastBytes memory;
  LastBytes findMemory;
  LastBytes replacementMemory;
  for (int round = 0; round < kRounds / 3; ++round) {
    const std::string_view alphabet = std::string_view("ab-.\xE9").substr(0, 2 + texts.Below(4));
    const std::string source = texts.Characters(alphabet, 12);
    const std::string find = texts.Characters(alphabet, 4);
    const std::string replacement = texts.Characters("XYZ", 6);
    const size_t room = texts.Below(24);
    Destination expected(std::string(room == 0 ? 0 : texts.Below(room), '*'), room);
    const GuardedBuffer buffer(room);
    if (room > 0) std::memcpy(buffer.data<char>(), expected.bytes.data(), room);
    u32 size = static_cast<u32>(room);
    const s32 status = ModelReplace(source, find, replacement, expected);
    ASSERT_EQ(ASCIIReplaceSubstr(memory.Put(source), findMemory.Put(find), replacementMemory.Put(replacement), &size,
                                 buffer.data<char>()),
              status)
        << Shown(source) << ' ' << Shown(find) << ' ' << room;
    ASSERT_EQ(std::string(buffer.data<char>(), room), expected.bytes) << Shown(source) << ' ' << Shown(find);
    ASSERT_EQ(size, expected.size) << Shown(source) << ' ' << Shown(find);
  }
}

// Numbers, booleans and times as text beside the C library's formatted input and output, and the checks of text beside
// plain loops.
#include <strings.h>

#include <bit>
#include <cctype>
#include <cinttypes>
#include <clocale>
#include <cmath>
#include <cwchar>
#include <optional>
#include <vector>

#include "fuzzer.h"
#include "zebcs/number.h"

namespace {

constexpr char kFill = '\x5A';

// A buffer of so many bytes, with others behind it that must stay as they are.
class Room {
 public:
  explicit Room(size_t size) : m_size(size), m_bytes((size + kBehind + 1) / 2, kFillUnit) {}

  char *text() { return reinterpret_cast<char *>(m_bytes.data()); }
  ustring *units() { return m_bytes.data(); }
  std::string_view bytes() const { return {reinterpret_cast<const char *>(m_bytes.data()), m_size}; }
  bool IsIntactFrom(size_t offset) const {
    const std::string_view all(reinterpret_cast<const char *>(m_bytes.data()), m_bytes.size() * sizeof m_bytes[0]);
    return all.find_first_not_of(kFill, offset) == std::string_view::npos;
  }

 private:
  static constexpr size_t kBehind = 32;
  static constexpr ustring kFillUnit = 0x5A5A;

  size_t m_size;
  std::vector<ustring> m_bytes;
};

// Whether a room holds this text with its terminator, and nothing else was written.
bool Holds(Room &room, std::string_view expected) {
  return room.text() == expected && room.IsIntactFrom(expected.size() + 1);
}

bool IsSame(d64 a, d64 b) { return std::bit_cast<u64>(a) == std::bit_cast<u64>(b) || (std::isnan(a) && std::isnan(b)); }

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

template <class IsAllowed>
bool IsAll(std::string_view text, IsAllowed isAllowed) {
  bool isValid = !text.empty();
  for (const char c : text) isValid = isValid && isAllowed(c);
  return isValid;
}

s32 Status(bool isValid) { return isValid ? SM_STATUS_SUCCESS : SM_STATUS_INVALID_INPUT; }

bool IsInteger(const std::string &text, bool maySign) {
  if (maySign && (text == "+" || text == "-")) return true;
  const bool hasSign = maySign && !text.empty() && (text[0] == '+' || text[0] == '-');
  return IsAll(text.substr(hasSign ? 1 : 0), IsDigit);
}

bool IsHex(const std::string &text, bool isLower) {
  if (text == "0x") return true;
  const char first = isLower ? 'a' : 'A';
  return IsAll(text.substr(text.starts_with("0x") ? 2 : 0),
               [first](char c) { return IsDigit(c) || (c >= first && c <= first + 5); });
}

bool IsOctal(const std::string &text) {
  return IsAll(text, [](char c) { return c >= '0' && c <= '7'; });
}

s32 HostNameStatus(const std::string &name) {
  if (name.empty()) return SM_STATUS_INVALID_INPUT;
  if (name.size() > 255 || name.back() == '-' || name.back() == '.') return -1;
  if (!IsDigit(name[0]) && !IsLetter(name[0])) return SM_STATUS_INVALID_INPUT;
  for (size_t i = 1; i + 1 < name.size(); ++i) {
    if (!IsDigit(name[i]) && !IsLetter(name[i]) && name[i] != '-' && name[i] != '.') return -1;
  }
  return SM_STATUS_SUCCESS;
}

// Decimal digits behind white space and one of some signs, modulo 2^64.
u64 WrappedDecimal(const std::string &text, const char *signs) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])) != 0) ++i;
  bool isNegative = false;
  if (i < text.size() && std::strchr(signs, text[i]) != nullptr) {
    isNegative = text[i] == '-';
    ++i;
  }
  u64 value = 0;
  for (; i < text.size() && IsDigit(text[i]); ++i) value = value * 10 + static_cast<u64>(text[i] - '0');
  return isNegative ? 0 - value : value;
}

void CheckReading(const std::string &text) {
  s32 signed32 = 0;
  u32 unsigned32 = 0;
  if (std::sscanf(text.c_str(), "%d", &signed32) != 1) signed32 = 0;
  if (std::sscanf(text.c_str(), "%u", &unsigned32) != 1) unsigned32 = 0;
  FUZZ_CHECK(KCSASCIIToSigned32(text.c_str()) == signed32);
  FUZZ_CHECK(KCSASCIIToUnSigned32(text.c_str()) == unsigned32);
  FUZZ_CHECK(KCSASCIIToSigned64(text.c_str()) == static_cast<s64>(WrappedDecimal(text, "+-")));
  FUZZ_CHECK(KCSASCIIToUnSigned64(text.c_str()) == WrappedDecimal(text, "+"));
  FUZZ_CHECK(IsSame(KCSASCIIToDouble(text.c_str()), std::strtod(text.c_str(), nullptr)));

  const bool isTrue = strcasecmp(text.c_str(), "true") == 0;
  s32 status = 1;
  FUZZ_CHECK(KCSASCIIToBooln(text.c_str()) == (isTrue ? 1 : 0));
  FUZZ_CHECK(KCSASCIIToBoolnV(text.c_str(), &status) == (isTrue ? 1 : 0));
  FUZZ_CHECK(status == Status(isTrue || strcasecmp(text.c_str(), "false") == 0));
}

void CheckCheckedReading(const std::string &text, s32 radix) {
  bool isValid = false;
  if (radix == 10) isValid = IsInteger(text, true);
  if (radix == 16) isValid = IsHex(text, true) || IsHex(text, false);
  if (radix == 8) isValid = IsOctal(text);

  s32 status = 1;
  const s64 signed64 = KCSASCIIToSigned64VT(text.c_str(), radix, &status);
  FUZZ_CHECK(status == Status(isValid));
  FUZZ_CHECK(signed64 == (isValid && radix == 10 ? static_cast<s64>(WrappedDecimal(text, "+-")) : 0));
  const u64 unsigned64 = KCSASCIIToUnSigned64VT(text.c_str(), radix, &status);
  FUZZ_CHECK(status == Status(isValid));
  FUZZ_CHECK(unsigned64 == (isValid && radix == 10 ? WrappedDecimal(text, "+") : 0));

  s32 value = 0;
  bool isRead = false;
  if (isValid && radix == 10) isRead = std::sscanf(text.c_str(), "%d", &value) == 1;
  if (isValid && radix == 16) isRead = std::sscanf(text.c_str(), "%i", &value) == 1;
  u32 bits = 0;
  if (isValid && radix == 8) isRead = std::sscanf(text.c_str(), "%o", &bits) == 1;
  if (radix == 8) value = static_cast<s32>(bits);
  FUZZ_CHECK(KCSASCIIToSigned32VT(text.c_str(), radix, &status) == (isRead ? value : 0));
  FUZZ_CHECK(status == Status(isRead));

  if (radix != 8) bits = static_cast<u32>(value);
  if (isValid && radix == 10) isRead = std::sscanf(text.c_str(), "%u", &bits) == 1;
  if (!isRead) bits = radix == 10 || radix == 16 || radix == 8 ? 0 : 0xFFFFFFFF;
  FUZZ_CHECK(KCSASCIIToUnSigned32VT(text.c_str(), radix, &status) == bits);
  FUZZ_CHECK(status == Status(isRead));
}

void CheckValidators(const std::string &text, const std::string &extra) {
  const auto isAlphaNumeric = [](char c) { return IsDigit(c) || IsLetter(c); };
  FUZZ_CHECK(KCSIsASCIIIntNum(text.c_str(), 0) == Status(IsInteger(text, false)));
  FUZZ_CHECK(KCSIsASCIIIntNum(text.c_str(), 1) == Status(IsInteger(text, true)));
  FUZZ_CHECK(KCSIsASCIIHexNum(text.c_str(), 0) == Status(IsHex(text, false)));
  FUZZ_CHECK(KCSIsASCIIHexNum(text.c_str(), 1) == Status(IsHex(text, true)));
  FUZZ_CHECK(KCSIsASCIIOctalNum(text.c_str()) == Status(IsOctal(text)));
  FUZZ_CHECK(KCSIsASCIIAlpha(text.c_str()) == Status(IsAll(text, IsLetter)));
  FUZZ_CHECK(KCSIsASCIIAlphaNumeric(text.c_str()) == Status(IsAll(text, isAlphaNumeric)));
  FUZZ_CHECK(KCSIsASCIIAlphaNumericPlus(text.c_str(), nullptr) == Status(IsAll(text, isAlphaNumeric)));
  const auto isAllowed = [&](char c) { return isAlphaNumeric(c) || extra.find(c) != std::string::npos; };
  FUZZ_CHECK(KCSIsASCIIAlphaNumericPlus(text.c_str(), extra.c_str()) == Status(IsAll(text, isAllowed)));
  FUZZ_CHECK(KCSValidateHostName(text.c_str()) == HostNameStatus(text));
}

template <class Write, class... Arguments>
void CheckWritten(size_t size, const std::string &expected, Write write, Arguments... arguments) {
  Room room(size);
  write(room.text(), arguments...);
  FUZZ_CHECK(Holds(room, expected));
}

template <class... Arguments>
std::string Formatted(size_t limit, const char *format, Arguments... arguments) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  std::vector<char> text(limit);
  (void)std::snprintf(text.data(), text.size(), format, arguments...);
#pragma GCC diagnostic pop
  return text.data();
}

std::string LtostrText(s32 value, s32 radix) {
  if (radix == 2) return "";
  return Formatted(8, radix == 8 ? "%o" : radix == 16 ? "%x" : "%d", value);
}

void CheckWriting(s64 number, s32 radix, u32 length) {
  const auto value = static_cast<s32>(number);
  CheckWritten(12, std::to_string(value), KCSSigned32ToASCII, value);
  CheckWritten(12, std::to_string(static_cast<u32>(value)), KCSUnSigned32ToASCII, static_cast<u32>(value));
  CheckWritten(21, std::to_string(number), KCSSigned64ToASCII, number);
  CheckWritten(21, std::to_string(static_cast<u64>(number)), KCSUnSigned64ToASCII, static_cast<u64>(number));
  const auto flag = static_cast<booln>(number);
  CheckWritten(6, flag == 1 ? "true" : "false", KCSBoolnToASCII, flag);
  FUZZ_CHECK(KCSASCIIToSigned64(std::to_string(number).c_str()) == number);

  if (radix != 2) CheckWritten(8, LtostrText(value, radix), ltostr, value, radix);
  size_t zeros = 1;
  while (zeros < 8 && static_cast<u32>(value) >> zeros != 0) ++zeros;
  for (const bool isLtostr : {false, true}) {
    Room bits(zeros);
    isLtostr ? ltostr(bits.text(), value, 2) : dec2bin(bits.text(), static_cast<u32>(value));
    FUZZ_CHECK(bits.bytes() == std::string(zeros, '\0') && bits.IsIntactFrom(zeros));
  }

  // The text that is there limits the one that comes.
  const auto real = std::bit_cast<d64>(number);
  Room room(length + 1);
  std::memset(room.text(), 'x', length);
  room.text()[length] = 0;
  KCSDoubleToASCII(room.text(), real);
  if (length == 0) {
    FUZZ_CHECK(Holds(room, ""));
  } else {
    const std::string expected = Formatted(length, "%.8f", real);
    FUZZ_CHECK(room.text() == expected);
    const std::string rest(length - expected.size() - 1, 'x');
    FUZZ_CHECK(room.bytes().substr(expected.size() + 1, rest.size()) == rest);
    FUZZ_CHECK(room.text()[length] == 0 && room.IsIntactFrom(length + 1));
  }
}

// A call that converts plain text to units: the size alone, and a room of so many bytes, which cuts the text. The size
// that comes back is that of what was written; without any room it is the whole.
template <class Write>
void CheckWide(const std::string &expected, u32 roomSize, Write write) {
  const auto needed = static_cast<u32>(2 * expected.size() + 2);
  u32 size = 1;
  FUZZ_CHECK(write(nullptr, &size) == 0 && size == needed);

  if (expected.empty()) roomSize = std::max(roomSize, 2U);  // an empty text is always terminated
  Room room(roomSize);
  size = roomSize;
  FUZZ_CHECK(write(room.units(), &size) == 0);
  const size_t stored = std::min<size_t>(roomSize / 2, expected.size());
  for (size_t i = 0; i < stored; ++i) FUZZ_CHECK(room.units()[i] == static_cast<ustring>(expected[i]));
  FUZZ_CHECK(size == (roomSize == 0 ? needed : 2 * stored + 2));
  const bool isTerminated = stored < roomSize / 2;
  if (isTerminated) FUZZ_CHECK(room.units()[stored] == 0);
  FUZZ_CHECK(room.IsIntactFrom(2 * (stored + (isTerminated ? 1 : 0))));
}

void CheckWideWriting(s64 number, s32 radix, s32 precision, u32 roomSize) {
  const auto value = static_cast<s32>(number);
  const std::string text = LtostrText(value, radix);
  CheckWide(text, roomSize,
            [&](ustring *pDest, u32 *pSize) { return KCSUniSigned32ToStr(pDest, pSize, value, radix); });
  CheckWide(text, roomSize, [&](ustring *pDest, u32 *pSize) {
    return KCSUniUnSigned32ToStr(pDest, pSize, static_cast<u32>(value), radix);
  });
  const auto real = std::bit_cast<d64>(number);
  const std::string format = "%." + std::to_string(precision) + "f";
  CheckWide(Formatted(128, format.c_str(), real), roomSize,
            [&](ustring *pDest, u32 *pSize) { return KCSUniDoubleToStr(pDest, pSize, real, precision); });
}

void CheckTime(time_t when, u32 roomSize) {
  tm local{};
  time_t fixed = when;
  KCSDSTFix(&fixed);
  tzset();
  const bool isSummer = localtime_r(&when, &local) != nullptr && local.tm_isdst > 0;
  FUZZ_CHECK(fixed == when + (isSummer ? 3600 : 0));

  char standard[64];
  Room room(26);
  u32 size = roomSize;
  Room units(2 * size_t{roomSize});
  const s32 status = KCSTimeToAStr(room.text(), &when);
  const s32 wideStatus = KCSUniTimeToStr(units.units(), &size, &when);
  if (ctime_r(&when, standard) == nullptr) {
    FUZZ_CHECK(status == -1 && wideStatus == -1 && size == roomSize && room.IsIntactFrom(0) && units.IsIntactFrom(0));
    return;
  }
  const std::string expected(standard, std::strlen(standard) - 1);
  FUZZ_CHECK(status == 0 && room.text() == expected && room.IsIntactFrom(26));

  u32 needed = 0;
  FUZZ_CHECK(KCSUniTimeToStr(nullptr, &needed, &when) == 0 && needed == 2 * expected.size() + 2);
  FUZZ_CHECK(units.IsIntactFrom(2 * size_t{roomSize}));
  FUZZ_CHECK((wideStatus == 0) == (roomSize > expected.size()));
  FUZZ_CHECK(size == (wideStatus == 0 ? needed : roomSize));
  for (size_t i = 0; wideStatus == 0 && i <= expected.size(); ++i) {
    FUZZ_CHECK(units.units()[i] == static_cast<ustring>(expected.c_str()[i]));
  }
}

// 16-bit text is read as the locale writes it, into as many bytes as it has units.
void CheckWideReading(std::string_view bytes) {
  std::vector<ustring> units(bytes.size() / sizeof(ustring) + 1);
  std::memcpy(units.data(), bytes.data(), (units.size() - 1) * sizeof(ustring));
  std::wstring wide;
  for (size_t i = 0; units[i] != 0; ++i) wide += static_cast<wchar_t>(units[i]);

  std::vector<char> narrow(wide.size() + 2);
  if (std::wcstombs(narrow.data(), wide.c_str(), wide.size() + 1) == static_cast<size_t>(-1)) narrow[0] = 0;
  const char *const text = narrow.data();
  long number = 0;
  if (std::sscanf(text, "%ld", &number) != 1) number = 0;
  unsigned long natural = 0;
  if (std::sscanf(text, "%lu", &natural) != 1) natural = 0;
  FUZZ_CHECK(KCSUniToSigned64(units.data()) == number);
  FUZZ_CHECK(KCSUniToSigned32(units.data()) == static_cast<s32>(number));
  FUZZ_CHECK(KCSUniToUnSigned64(units.data()) == natural);
  FUZZ_CHECK(KCSUniToUnSigned32(units.data()) == static_cast<u32>(natural));
  FUZZ_CHECK(IsSame(KCSUniToDouble(units.data()), std::strtod(text, nullptr)));
}

// A text of the characters that numbers are made of, in which far more is one.
std::string NumberLike(const std::string &text) {
  constexpr std::string_view kCharacters = "0123456789abcdefABCDEF0x0X+- .e0123456789";
  std::string number = text.substr(0, 48);
  for (char &c : number) c = kCharacters[static_cast<unsigned char>(c) % kCharacters.size()];
  return number;
}

// The first place where the characters of `find` have all been met, in order: behind the last of them.
std::optional<size_t> EndOfMatch(const std::string &source, const std::string &find) {
  size_t matched = 0;
  for (size_t i = 0; i < source.size(); ++i) {
    if (source[i] == find[matched]) ++matched;
    if (matched == find.size()) return i + 1;
  }
  return std::nullopt;
}

void CheckReplacement(const std::string &source, const std::string &find, const std::string &replacement,
                      u32 roomSize) {
  Room room(roomSize + 1);
  std::memset(room.text(), 'x', roomSize);
  room.text()[roomSize] = 0;
  u32 size = roomSize;
  const auto replace = [&](astring *pDest) {
    return KCSASCIIReplaceSubstr(source.c_str(), find.c_str(), replacement.c_str(), &size, pDest);
  };
  const std::string before(room.text(), roomSize + 1);
  const s32 status = replace(room.text());
  FUZZ_CHECK(room.IsIntactFrom(roomSize + 1));
  if (source.empty() || find.empty() || find.size() > source.size()) {
    FUZZ_CHECK(status == SM_STATUS_INVALID_INPUT && size == roomSize && room.bytes() == before);
    return;
  }
  const size_t needed = replacement.size() + source.size() + 1 - find.size();
  if (roomSize < needed) {
    FUZZ_CHECK(status == SM_STATUS_INSUFFICIENT_BUFFER && size == needed && room.bytes() == before);
    return;
  }
  FUZZ_CHECK(size == roomSize);
  std::string expected = before;
  const std::optional<size_t> end = EndOfMatch(source, find);
  if (end) {
    const std::string result = source.substr(0, *end - find.size()) + replacement + source.substr(*end);
    expected.replace(0, needed, result.c_str(), needed);
  } else {
    expected.assign(source, 0, roomSize);
    expected.resize(roomSize);  // filled up with zeros, as a bounded copy does
    expected += '\0';
  }
  FUZZ_CHECK(status == (end ? 0 : -1) && room.bytes() == expected);
  FUZZ_CHECK(replace(nullptr) == SM_STATUS_INSUFFICIENT_BUFFER && size == needed);
}

void CheckInPlace(const std::string &text) {
  std::string upper = text;
  std::string lower = text;
  for (char &c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (char &c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const auto check = [&](const std::string &expected, auto change) {
    Room room(text.size() + 1);
    std::memcpy(room.text(), text.c_str(), text.size() + 1);
    change(room.text());
    FUZZ_CHECK(room.text() == expected && room.IsIntactFrom(text.size() + 1));
  };
  check(std::string(text.rbegin(), text.rend()), [](char *s) { FUZZ_CHECK(strrev(s) == s); });
  check(upper, [&](char *s) { FUZZ_CHECK(strToUpperCase(s) == text.size()); });
  check(upper, [](char *s) { FUZZ_CHECK(strupr(s) == s); });
  check(lower, [](char *s) { FUZZ_CHECK(strlwr(s) == s); });
  check(text.substr(text.empty() ? 0 : 1), [](char *s) { CharsLeftShift(s); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool l_isUtf8 = std::setlocale(LC_ALL, "C.UTF-8") != nullptr;
  FUZZ_CHECK(l_isUtf8);

  FuzzInput input(data, size);
  const auto number = input.Take<s64>();
  const auto choice = input.Take<u8>();
  const auto roomSize = input.Take<u16>() % 600U;
  const auto precision = input.Take<s16>() % 400;
  static constexpr s32 kRadixes[] = {10, 16, 8, 2, 0, 36, -10, 7};
  const s32 radix = kRadixes[choice % 8];
  // Set by putenv, which keeps no copy: these stay.
  static char l_zones[4][40] = {"TZ=UTC0", "TZ=CET-1CEST,M3.5.0,M10.5.0/3", "TZ=NZST-12NZDT,M9.5.0,M4.1.0/3",
                                "TZ=EST5"};
  putenv(l_zones[choice / 8 % 4]);
  const std::string text = input.TakeText();
  const std::string second = input.TakeText();
  const std::string third = input.TakeText();

  for (const std::string &each : {text, NumberLike(text)}) {
    CheckReading(each);
    for (const s32 numericType : kRadixes) CheckCheckedReading(each, numericType);
  }
  CheckValidators(text, second);
  CheckWriting(number, radix, roomSize);
  CheckWideWriting(number, radix, precision, roomSize / 4);
  CheckTime((choice & 0x80) != 0 ? number : number % 8'000'000'000, roomSize % 32);
  CheckReplacement(text, second, third, roomSize);
  CheckInPlace(text);
  CheckWideReading(input.TakeRest());
  return 0;
}

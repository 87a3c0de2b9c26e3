// Numbers, booleans and times as text, and the validators that the checked conversions rest on.
#include "cichar_number.h"

#include <langinfo.h>
#include <strings.h>
#include <xmmintrin.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <mutex>
#include <string_view>

#include "fork_guard.h"
#include "owners.h"
#include "zebcs/encoding.h"
#include "zebcs/number.h"
#include "zebcs/unistr.h"

namespace {

constexpr unsigned kNoDigit = 36;

constexpr bool IsDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool IsLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

constexpr unsigned DigitValue(char c) {
  if (IsDigit(c)) return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A' + 10);
  return kNoDigit;
}

// No locale takes what is seen of ASCII for space: numbers seldom need to ask.
bool IsSpace(char c) { return c <= ' ' && std::isspace(static_cast<u8>(c)) != 0; }

const astring *SkipSpace(const astring *p) {
  while (IsSpace(*p)) ++p;
  return p;
}

// What formatted input reads of an integer: its size, or the largest there is, and whether it has a "-".
struct Magnitude {
  u64 value = 0;
  bool isNegative = false;
  bool isTooLarge = false;
  bool isNumber = false;
};

// Reads digits that may be too many for 64 bits.
template <unsigned kBase>
[[gnu::noinline]] void ReadDigits(const astring *p, Magnitude &result) {
  constexpr u64 kLargest = std::numeric_limits<u64>::max();
  u64 value = 0;
  for (unsigned digit = 0; (digit = DigitValue(*p)) < kBase; ++p) {
    result.isNumber = true;
    if (value > kLargest / kBase || value * kBase > kLargest - digit) result.isTooLarge = true;
    value = value * kBase + digit;
  }
  result.value = result.isTooLarge ? kLargest : value;
}

// Reads decimal digits, of which any 19 fit into 64 bits. Returns the end of them.
const astring *ReadDecimalDigits(const astring *p, Magnitude &result) {
  const astring *const start = p;
  u64 value = 0;
  for (; IsDigit(*p); ++p) value = value * 10 + static_cast<u64>(*p - '0');
  if (p - start <= std::numeric_limits<u64>::digits10) {
    result.value = value;
    result.isNumber = p != start;
  } else {
    ReadDigits<10>(start, result);
  }
  return p;
}

// Signs are read and applied without a branch: numbers come with and without one, and nobody can predict which.
const astring *SkipSign(const astring *p, Magnitude &result) {
  result.isNegative = *p == '-';
  const bool isSign = (*p == '-') | (*p == '+');
  return p + (isSign ? 1 : 0);
}

[[gnu::always_inline]] inline Magnitude ReadDecimal(const astring *pStr) {
  Magnitude result;
  if (pStr != nullptr) ReadDecimalDigits(SkipSign(SkipSpace(pStr), result), result);
  return result;
}

// Reads a whole text that consists of decimal digits, which a sign may lead. Any other is no number.
[[gnu::always_inline]] inline Magnitude ReadWholeDecimal(const astring *pStr) {
  Magnitude result;
  if (pStr == nullptr || *ReadDecimalDigits(SkipSign(pStr, result), result) != 0) return {};
  return result;
}

Magnitude ReadMagnitude(const astring *pStr, u32 base) {
  if (pStr == nullptr || base == 10) return ReadDecimal(pStr);
  Magnitude result;
  const astring *p = SkipSign(SkipSpace(pStr), result);
  if (*p == '0' && base != 8) {
    result.isNumber = true;  // also where nothing follows the "0x"
    if (p[1] == 'x' || p[1] == 'X') {
      p += 2;
      base = 16;
    } else if (base == 0) {
      base = 8;
    }
  }
  switch (base) {
    case 8: ReadDigits<8>(p, result); break;
    case 16: ReadDigits<16>(p, result); break;
    default: ReadDecimalDigits(p, result); break;
  }
  return result;
}

// The values of what was read, where it was a number: with a sign, and without one modulo 2^64.
u64 Negated(u64 value, bool isNegative) {
  const u64 sign = isNegative ? 1 : 0;
  return (value ^ (0 - sign)) + sign;
}

s64 SignedValue(const Magnitude &number) {
  constexpr s64 kLargest = std::numeric_limits<s64>::max();
  if (number.value <= kLargest) [[likely]]
    return static_cast<s64>(Negated(number.value, number.isNegative));
  return number.isNegative ? std::numeric_limits<s64>::min() : kLargest;
}

u64 UnSignedValue(const Magnitude &number) {
  return number.isTooLarge ? std::numeric_limits<u64>::max() : Negated(number.value, number.isNegative);
}

// The plain decimal digits at `p`, modulo 2^64.
u64 WrappingDecimal(const astring *p) {
  u64 value = 0;
  for (; IsDigit(*p); ++p) value = value * 10 + static_cast<u64>(*p - '0');
  return value;
}

// Writes an integer and a terminator.
template <class Integer>
void PutDecimal(astring *pDest, Integer value) {
  constexpr std::ptrdiff_t kRoom = std::numeric_limits<Integer>::digits10 + 2;  // all digits and a sign
  if (pDest != nullptr) *std::to_chars(pDest, pDest + kRoom, value).ptr = 0;
}

// Whether floating-point text looks to the C library as it does to to_chars and from_chars. What tells the rounding
// mode of the C library is in another library, which is not worth the loading.
bool IsPlainFloatingPoint() {
  const char *const point = nl_langinfo(RADIXCHAR);
  return point[0] == '.' && point[1] == 0 && _MM_GET_ROUNDING_MODE() == _MM_ROUND_NEAREST;
}

std::mutex l_zoneMutex;
[[maybe_unused]] const bool l_isZoneKeptFree = KeepFreeInChildren(ForkOrder::kTimeZone, &l_zoneMutex);

// Looks the time zone up anew, for a conversion in its scope: localtime_r and ctime_r would stay with the one that the
// process began with. One thread at a time, as the C library has it in any case, but where neither the thread sanitizer
// nor a fork sees it.
class CurrentZone {
 public:
  CurrentZone() : m_lock(l_zoneMutex) { tzset(); }

 private:
  std::lock_guard<std::mutex> m_lock;
};

s32 Validity(bool isValid) { return isValid ? SM_STATUS_SUCCESS : SM_STATUS_INVALID_INPUT; }

// The answer of a validator whose text may hold the characters that `isAllowed` takes.
template <class IsAllowed>
s32 CheckAll(const astring *pStr, IsAllowed isAllowed) {
  if (pStr == nullptr || *pStr == 0) return SM_STATUS_INVALID_INPUT;
  while (*pStr != 0 && isAllowed(*pStr)) ++pStr;
  return Validity(*pStr == 0);
}

// Checks text of a radix; decimal text is read and checked in one go elsewhere.
s32 CheckNumber(const astring *pStr, s32 radix) {
  switch (radix) {
    case 10: return IsASCIIIntNum(pStr, 1);
    case 16: return Validity(IsASCIIHexNum(pStr, 1) == 0 || IsASCIIHexNum(pStr, 0) == 0);
    case 8: return IsASCIIOctalNum(pStr);
    default: return SM_STATUS_INVALID_INPUT;
  }
}

// Stores a status where the caller wants it, and passes it on.
s32 Report(s32 status, s32 *pStatus) {
  if (pStatus != nullptr) *pStatus = status;
  return status;
}

// Reads whole text of the radixes 16 and 8 for the checked conversions to 32 bits.
Magnitude ReadWhole(const astring *pStr, s32 radix) {
  if (CheckNumber(pStr, radix) != SM_STATUS_SUCCESS) return {};
  // Kept: radix 16 is read as "%i", so that digits without "0x" are decimal or, after a "0", octal.
  return ReadMagnitude(pStr, radix == 16 ? 0 : 8);
}

// Reports whether there was a number. Where there was none its value is 0.
const Magnitude &Checked(const Magnitude &number, s32 *pStatus) {
  Report(Validity(number.isNumber), pStatus);
  return number;
}

// 16-bit text in the locale's encoding, in one byte a unit; what does not fit is cut. Null where there is none.
class NarrowNumber {
 public:
  explicit NarrowNumber(const ustring *pStr) {
    if (pStr == nullptr) return;
    const u32 length = UniStrlen(pStr);
    u32 room = length + 1;
    if (room == 0) return;
    if (room > sizeof m_short) m_long = MallocArray<astring>(size_t{room} + 1);
    astring *const text = room > sizeof m_short ? m_long.get() : m_short;
    if (text == nullptr || UnicodeToASCII(text, &room, pStr) != SM_STATUS_SUCCESS) return;
    text[std::min(length, room - 1)] = 0;  // text that fills the room has no terminator
    m_text = text;
  }

  const astring *get() const { return m_text; }

 private:
  MallocPtr<astring> m_long;
  astring m_short[64];
  const astring *m_text = nullptr;
};

s32 PutWide(ustring *pDest, u32 *pDestSize, const astring *pText) {
  if (ASCIIToUnicode(pDest, pDestSize, pText) != SM_STATUS_SUCCESS) return -1;
  return *pDestSize < sizeof(ustring) ? -1 : 0;
}

// Formats with a format made at run time.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void FormatWithPrecision(astring *pDest, size_t room, d64 value, s32 precision) {
  char format[16];
  (void)std::snprintf(format, sizeof format, "%%.%df", precision);  // fits every precision
  (void)std::snprintf(pDest, room, format, value);                  // cut where the room ends
}
#pragma GCC diagnostic pop

}  // namespace

std::optional<s64> ScanSigned(const astring *pStr, u32 base) {
  const Magnitude number = ReadMagnitude(pStr, base);
  return number.isNumber ? std::optional(SignedValue(number)) : std::nullopt;
}

std::optional<u64> ScanUnSigned(const astring *pStr, u32 base) {
  const Magnitude number = ReadMagnitude(pStr, base);
  return number.isNumber ? std::optional(UnSignedValue(number)) : std::nullopt;
}

int FormatFixed(astring *pDest, size_t room, d64 value, int precision) {
  // Digits of the largest double before the point, the sign, the point and eight decimals.
  char text[std::numeric_limits<d64>::max_exponent10 + 1 + 2 + 8];
  if (IsPlainFloatingPoint()) {
    const auto [end, error] = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, precision);
    if (error == std::errc()) {
      const size_t length = static_cast<size_t>(end - text);
      if (room > 0) {
        const size_t stored = std::min(length, room - 1);
        std::memcpy(pDest, text, stored);
        pDest[stored] = 0;
      }
      return static_cast<int>(length);
    }
  }
  return std::snprintf(pDest, room, "%.*f", precision, value);
}

// What is no number has the value 0.
s32 ASCIIToSigned32(const astring *pStr) { return static_cast<s32>(SignedValue(ReadDecimal(pStr))); }

u32 ASCIIToUnSigned32(const astring *pStr) { return static_cast<u32>(UnSignedValue(ReadDecimal(pStr))); }

s64 ASCIIToSigned64(const astring *pStr) {
  if (pStr == nullptr) return 0;
  const astring *p = SkipSpace(pStr);
  const bool isNegative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  const u64 value = WrappingDecimal(p);
  return static_cast<s64>(isNegative ? 0 - value : value);
}

u64 ASCIIToUnSigned64(const astring *pStr) {
  if (pStr == nullptr) return 0;
  const astring *p = SkipSpace(pStr);
  if (*p == '+') ++p;
  return WrappingDecimal(p);
}

d64 ASCIIToDouble(const astring *pStr) {
  if (pStr == nullptr) return 0;
  const astring *p = SkipSpace(pStr);
  const bool isNegative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  // Plain decimal text is read here; hexadecimal, names, long text and what is out of range are the C library's.
  constexpr size_t kLongest = 40;
  const bool isDecimal = IsDigit(p[0]) ? p[0] != '0' || (p[1] | 0x20) != 'x' : p[0] == '.' && IsDigit(p[1]);
  if (isDecimal && IsPlainFloatingPoint()) {
    const size_t length = strnlen(p, kLongest);
    d64 value = 0;
    const auto [end, error] = std::from_chars(p, p + length, value);
    const bool isCut = end == p + kLongest || (*end | 0x20) == 'e';  // the cut can be in an exponent
    if (error == std::errc() && !isCut) return isNegative ? -value : value;
  }
  return std::strtod(pStr, nullptr);
}

booln ASCIIToBooln(const astring *pStr) { return pStr != nullptr && strcasecmp(pStr, "true") == 0 ? 1 : 0; }

void Signed32ToASCII(astring *pDest, s32 value) { PutDecimal(pDest, value); }
void UnSigned32ToASCII(astring *pDest, u32 value) { PutDecimal(pDest, value); }
void Signed64ToASCII(astring *pDest, s64 value) { PutDecimal(pDest, value); }
void UnSigned64ToASCII(astring *pDest, u64 value) { PutDecimal(pDest, value); }

void BoolnToASCII(astring *pDest, booln value) {
  if (pDest != nullptr) std::strcpy(pDest, value == 1 ? "true" : "false");
}

void DoubleToASCII(astring *pDest, d64 value) {
  // Kept: the text that the buffer holds limits the result; a size argument would be the usual way.
  if (pDest != nullptr) (void)FormatFixed(pDest, std::strlen(pDest), value, 8);
}

void DSTFix(time_t *pTimer) {
  constexpr time_t kHour = 3600;
  tm local{};
  const CurrentZone zone;
  if (pTimer != nullptr && localtime_r(pTimer, &local) != nullptr && local.tm_isdst > 0) *pTimer += kHour;
}

s32 TimeToAStr(astring *pDest, const time_t *pTimer) {
  char text[26];
  const CurrentZone zone;
  if (pDest == nullptr || pTimer == nullptr || ctime_r(pTimer, text) == nullptr) return -1;
  const size_t length = std::strlen(text) - 1;  // without the line feed
  std::memcpy(pDest, text, length);
  pDest[length] = 0;
  return 0;
}

s32 UniToSigned32(const ustring *pStr) { return static_cast<s32>(UniToSigned64(pStr)); }
u32 UniToUnSigned32(const ustring *pStr) { return static_cast<u32>(UniToUnSigned64(pStr)); }
s64 UniToSigned64(const ustring *pStr) { return ScanSigned(NarrowNumber(pStr).get(), 10).value_or(0); }
u64 UniToUnSigned64(const ustring *pStr) { return ScanUnSigned(NarrowNumber(pStr).get(), 10).value_or(0); }
d64 UniToDouble(const ustring *pStr) { return ASCIIToDouble(NarrowNumber(pStr).get()); }

s32 UniSigned32ToStr(ustring *pDest, u32 *pDestSize, s32 value, s32 radix) {
  astring text[8];
  ltostr(text, value, radix);
  return PutWide(pDest, pDestSize, text);
}

s32 UniUnSigned32ToStr(ustring *pDest, u32 *pDestSize, u32 value, s32 radix) {
  // Kept: ltostr takes a signed number, so that decimal text from 2147483648 on begins with a "-".
  return UniSigned32ToStr(pDest, pDestSize, static_cast<s32>(value), radix);
}

s32 UniDoubleToStr(ustring *pDest, u32 *pDestSize, d64 value, s32 precision) {
  astring text[128] = "";
  if (precision >= 0) {
    // No double has more decimals than its smallest; the C library would make room for all the zeros behind them.
    constexpr s32 kMostDecimals = 1074;
    (void)FormatFixed(text, sizeof text, value, std::min(precision, kMostDecimals));  // cut where the room ends
  } else {
    // Kept: there is no such format, and what the C library prints for one is the text.
    FormatWithPrecision(text, sizeof text, value, precision);
  }
  return PutWide(pDest, pDestSize, text);
}

s32 UniTimeToStr(ustring *pDest, u32 *pDestSize, const time_t *pTimer) {
  astring text[26];
  if (TimeToAStr(text, pTimer) != 0 || UTF8StrToUCS2Str(pDest, pDestSize, text) != SM_STATUS_SUCCESS) return -1;
  return *pDestSize < sizeof(ustring) ? -1 : 0;
}

s32 IsASCIIIntNum(const astring *pStr, booln checkSignP) {
  if (pStr != nullptr && checkSignP != 0 && (*pStr == '+' || *pStr == '-')) {
    ++pStr;
    // Kept: a sign alone is valid; whoever converts it finds no number.
    if (*pStr == 0) return SM_STATUS_SUCCESS;
  }
  return CheckAll(pStr, IsDigit);
}

s32 IsASCIIHexNum(const astring *pStr, booln inLowCapsP) {
  if (pStr != nullptr && pStr[0] == '0' && pStr[1] == 'x') {
    pStr += 2;
    // Kept: a prefix alone is valid.
    if (*pStr == 0) return SM_STATUS_SUCCESS;
  }
  const char first = inLowCapsP != 0 ? 'a' : 'A';
  return CheckAll(pStr, [first](char c) { return IsDigit(c) || (c >= first && c <= first + 5); });
}

s32 IsASCIIOctalNum(const astring *pStr) {
  return CheckAll(pStr, [](char c) { return c >= '0' && c <= '7'; });
}

s32 IsASCIIAlpha(const astring *pStr) { return CheckAll(pStr, IsLetter); }

s32 IsASCIIAlphaNumeric(const astring *pStr) {
  return CheckAll(pStr, [](char c) { return IsLetter(c) || IsDigit(c); });
}

s32 IsASCIIAlphaNumericPlus(const astring *pStr, const astring *pXtraValidChars) {
  if (pXtraValidChars == nullptr) return IsASCIIAlphaNumeric(pStr);
  return CheckAll(pStr,
                  [=](char c) { return IsLetter(c) || IsDigit(c) || std::strchr(pXtraValidChars, c) != nullptr; });
}

s32 ASCIIToSigned32VT(const astring *pStr, s32 radix, s32 *pStatus) {
  if (radix == 10) return static_cast<s32>(SignedValue(Checked(ReadWholeDecimal(pStr), pStatus)));
  const Magnitude number = Checked(ReadWhole(pStr, radix), pStatus);
  return static_cast<s32>(radix == 8 ? static_cast<s64>(UnSignedValue(number)) : SignedValue(number));
}

u32 ASCIIToUnSigned32VT(const astring *pStr, s32 radix, s32 *pStatus) {
  if (radix == 10) return static_cast<u32>(UnSignedValue(Checked(ReadWholeDecimal(pStr), pStatus)));
  // Kept: another radix is the one failure of the checked conversions that does not give 0.
  if (radix != 16 && radix != 8) {
    Report(SM_STATUS_INVALID_INPUT, pStatus);
    return 0xFFFFFFFF;
  }
  const Magnitude number = Checked(ReadWhole(pStr, radix), pStatus);
  return static_cast<u32>(radix == 8 ? UnSignedValue(number) : static_cast<u64>(SignedValue(number)));
}

s64 ASCIIToSigned64VT(const astring *pStr, s32 radix, s32 *pStatus) {
  // Kept: text of radix 16 or 8 is checked and not converted.
  return Report(CheckNumber(pStr, radix), pStatus) == SM_STATUS_SUCCESS && radix == 10 ? ASCIIToSigned64(pStr) : 0;
}

u64 ASCIIToUnSigned64VT(const astring *pStr, s32 radix, s32 *pStatus) {
  // Kept: text of radix 16 or 8 is checked and not converted.
  return Report(CheckNumber(pStr, radix), pStatus) == SM_STATUS_SUCCESS && radix == 10 ? ASCIIToUnSigned64(pStr) : 0;
}

booln ASCIIToBoolnV(const astring *pStr, s32 *pStatus) {
  const bool isTrue = ASCIIToBooln(pStr) == 1;
  Report(Validity(isTrue || (pStr != nullptr && strcasecmp(pStr, "false") == 0)), pStatus);
  return isTrue ? 1 : 0;
}

void CharsLeftShift(astring *pStr) {
  if (pStr != nullptr && *pStr != 0) std::memmove(pStr, pStr + 1, std::strlen(pStr));
}

s32 ASCIIReplaceSubstr(const astring *pSrc, const astring *pFind, const astring *pReplace, u32 *pDestSize,
                       astring *pDest) {
  if (pSrc == nullptr || pFind == nullptr || pReplace == nullptr || pDestSize == nullptr) {
    return SM_STATUS_INVALID_INPUT;
  }
  const std::string_view source = pSrc;
  const std::string_view find = pFind;
  const std::string_view replacement = pReplace;
  if (source.empty() || find.empty() || find.size() > source.size()) return SM_STATUS_INVALID_INPUT;
  const size_t needed = replacement.size() + source.size() + 1 - find.size();
  if (needed > UINT32_MAX) return SM_STATUS_INVALID_INPUT;
  if (pDest == nullptr || *pDestSize < needed) {
    *pDestSize = static_cast<u32>(needed);
    return SM_STATUS_INSUFFICIENT_BUFFER;
  }
  // Kept: a character that does not match does not start the search anew, so that what is found may have others in
  // between, and what is replaced is the stretch of the same length that ends with it.
  size_t matched = 0;
  size_t end = 0;
  for (; end < source.size() && matched < find.size(); ++end) {
    if (source[end] == find[matched]) ++matched;
  }
  if (matched < find.size()) {
    // Kept: the text in the destination, and not its size, limits the copy.
    if (const size_t limit = std::strlen(pDest); limit > 0) {
      const size_t copied = source.copy(pDest, limit);
      std::memset(pDest + copied, 0, limit - copied);
    }
    return -1;
  }
  astring *p = pDest + source.copy(pDest, end - find.size());
  p += replacement.copy(p, replacement.size());
  p += source.copy(p, source.size() - end, end);
  *p = 0;
  return SM_STATUS_SUCCESS;
}

s32 ValidateHostName(const astring *pStr) {
  constexpr size_t kLongest = 255;
  if (pStr == nullptr || *pStr == 0) return SM_STATUS_INVALID_INPUT;
  const std::string_view name(pStr, strnlen(pStr, kLongest + 1));
  if (name.size() > kLongest || name.back() == '-' || name.back() == '.') return -1;
  const auto isAlphaNumeric = [](char c) { return std::isalnum(static_cast<u8>(c)) != 0; };
  if (!isAlphaNumeric(name.front())) return SM_STATUS_INVALID_INPUT;
  if (name.size() <= 2) return SM_STATUS_SUCCESS;
  // Kept: of the last character nothing else is asked; "_" passes there and nowhere else.
  const std::string_view middle = name.substr(1, name.size() - 2);
  const auto isAllowed = [&](char c) { return isAlphaNumeric(c) || c == '-' || c == '.'; };
  return std::all_of(middle.begin(), middle.end(), isAllowed) ? SM_STATUS_SUCCESS : -1;
}

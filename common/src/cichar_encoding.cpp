// Single code points, UCS-4 text, backslash escapes, hex dumps and the encoding of the locale.
#include "cichar_encoding.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string_view>

#include "size_protocol.h"
#include "zebcs/encoding.h"

namespace {

template <class Output>
Conversion UCS4ToUTF8(const u32 *pSrc, Output output) {
  for (; *pSrc != 0; ++pSrc) {
    if (const s32 status = PutUCS4AsUTF8(*pSrc, output); status != SM_STATUS_SUCCESS) return {status, output.Used()};
  }
  return {SM_STATUS_SUCCESS, output.Used()};
}

}  // namespace

s32 UCS4CharToUTF8Chars(astring *pDest, u32 *pDestSize, u32 ucs4Char) {
  if (pDestSize == nullptr) return SM_STATUS_INVALID_INPUT;
  const size_t length = UTF8Length(ucs4Char);
  if (length == 0) return SM_STATUS_BAD_DATA;
  if (pDest != nullptr) {
    if (*pDestSize < length) return SM_STATUS_BUFFER_TOO_SMALL;
    SizedOutput<astring, true> output(pDest, length);
    PutUTF8(output, ucs4Char, length);
  }
  *pDestSize = static_cast<u32>(length);
  return SM_STATUS_SUCCESS;
}

s32 UTF8CharsToUCS4Char(u32 *pUCS4Char, const astring *pSrc, u32 *pNumDecoded) {
  if (pUCS4Char == nullptr) return SM_STATUS_INVALID_INPUT;
  *pUCS4Char = 0;
  if (pSrc == nullptr || pNumDecoded == nullptr) return SM_STATUS_INVALID_INPUT;
  const u8 *const bytes = reinterpret_cast<const u8 *>(pSrc);
  const Decoded decoded = bytes[0] < 0x80 ? Decoded{bytes[0], 1} : ReadUTF8Sequence(bytes);
  if (decoded.length == 0) return SM_STATUS_BAD_DATA;
  *pUCS4Char = decoded.codePoint;
  *pNumDecoded = static_cast<u32>(decoded.length);
  return SM_STATUS_SUCCESS;
}

s32 UCS4CharToUTF16Chars(ustring *pDest, u32 *pDestSize, u32 ucs4Char) {
  if (pDestSize == nullptr) return SM_STATUS_INVALID_INPUT;
  if (ucs4Char > kLastUTF16CodePoint) return SM_STATUS_BAD_DATA;
  const u32 length = ucs4Char > 0xFFFF ? 2 : 1;
  if (pDest != nullptr) {
    if (*pDestSize < length) return SM_STATUS_BUFFER_TOO_SMALL;
    if (length == 1) {
      pDest[0] = static_cast<ustring>(ucs4Char);
    } else {
      // Kept: 0x10000 is not taken off before the split, so UTF16CharsToUCS4Char reads back another code point.
      pDest[0] = static_cast<ustring>(0xD800 | (ucs4Char >> 10 & 0x3FF));
      pDest[1] = static_cast<ustring>(0xDC00 | (ucs4Char & 0x3FF));
    }
  }
  *pDestSize = length;
  return SM_STATUS_SUCCESS;
}

s32 UTF16CharsToUCS4Char(u32 *pUCS4Char, const ustring *pSrc) {
  if (pUCS4Char == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  *pUCS4Char = pSrc[0];
  if (!IsSurrogate(pSrc[0])) return SM_STATUS_SUCCESS;
  if (!IsHighSurrogate(pSrc[0]) || !IsLowSurrogate(pSrc[1])) return SM_STATUS_BAD_DATA;
  *pUCS4Char = ((pSrc[0] & 0x3FFu) << 10 | (pSrc[1] & 0x3FFu)) + 0x10000;
  return SM_STATUS_SUCCESS;
}

s32 UCS4StrToUTF8Str(astring *pDest, u32 *pDestSize, const u32 *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  return RunSized(pDest, pDestSize, [pSrc](auto output) { return UCS4ToUTF8(pSrc, output); });
}

namespace {

constexpr char kLowerHexDigits[] = "0123456789abcdef";
constexpr char kUpperHexDigits[] = "0123456789ABCDEF";

// The escape of one unit; the view is of `room` or of a constant.
std::string_view EscapeOf(ustring unit, char (&room)[6]) {
  switch (unit) {
    case '\t': return "\\t";
    case '\n': return "\\n";
    case '\r': return "\\r";
    case '\\': return "\\\\";
    default: break;
  }
  if (unit >= 0x20 && unit <= 0x7F) {
    room[0] = static_cast<char>(unit);
    return {room, 1};
  }
  room[0] = '\\';
  room[1] = 'u';
  for (int i = 0; i < 4; ++i) room[2 + i] = kLowerHexDigits[unit >> (12 - 4 * i) & 0xF];
  return {room, 6};
}

}  // namespace

s32 UnicodeToEscape(astring *pDest, u32 *pDestSize, const ustring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_BAD_PARAMETER;
  u64 needed = 1;
  char room[6];
  for (const ustring *p = pSrc; *p != 0; ++p) needed += EscapeOf(*p, room).size();
  if (needed > UINT32_MAX) return -1;  // more than the size can say
  if (pDest == nullptr || *pDestSize < needed) {
    *pDestSize = static_cast<u32>(needed);
    return pDest == nullptr ? SM_STATUS_SUCCESS : SM_STATUS_BUFFER_TOO_SMALL;
  }
  astring *end = pDest;
  for (const ustring *p = pSrc; *p != 0; ++p) {
    const std::string_view escape = EscapeOf(*p, room);
    end = std::copy(escape.begin(), escape.end(), end);
  }
  std::fill(end, pDest + *pDestSize, '\0');
  // Kept: the character "0", not a zero byte, closes the room, also where the terminator would have been.
  pDest[*pDestSize - 1] = '0';
  *pDestSize = static_cast<u32>(needed);
  return SM_STATUS_SUCCESS;
}

// A line of the dump: "0x%08X: ", two digits and a separator for each byte, three blanks, the bytes as text, " \r\n".
namespace {

constexpr u32 kDumpBytes = 16;
constexpr size_t kDumpDigitsColumn = 12;
constexpr size_t kDumpTextColumn = kDumpDigitsColumn + 3 * kDumpBytes + 3;
constexpr size_t kDumpLineLength = kDumpTextColumn + kDumpBytes + 3;

void FormatDumpLine(char (&line)[kDumpLineLength + 1], u32 address, const u8 *pBytes, u32 count) {
  std::memset(line, ' ', kDumpLineLength);
  line[0] = '0';
  line[1] = 'x';
  for (u32 i = 0; i < 8; ++i) line[2 + i] = kUpperHexDigits[address >> (28 - 4 * i) & 0xF];
  line[10] = ':';
  for (u32 i = 0; i < count; ++i) {
    char *const digits = line + kDumpDigitsColumn + size_t{3} * i;
    digits[0] = kUpperHexDigits[pBytes[i] >> 4];
    digits[1] = kUpperHexDigits[pBytes[i] & 0xF];
    if (i % 4 == 3 && i + 1 < count) digits[2] = ':';
    // Kept: the printable range ends at "z"; the last four printable characters show as "." too.
    line[kDumpTextColumn + i] = pBytes[i] >= 0x20 && pBytes[i] <= 0x7A ? static_cast<char>(pBytes[i]) : '.';
  }
  line[kDumpLineLength - 2] = '\r';
  line[kDumpLineLength - 1] = '\n';
  line[kDumpLineLength] = '\0';
}

}  // namespace

s32 BufToUStr(KCSSSUStr *pSSU, const void *pBuf, u32 bufSize, u32 printAddrStart, const s32 * /*pLid*/) {
  if (pBuf == nullptr || bufSize == 0) return 0;
  if (pSSU == nullptr) return -1;
  const u8 *const bytes = static_cast<const u8 *>(pBuf);
  char line[kDumpLineLength + 1];
  for (u32 offset = 0;;) {
    const u32 count = std::min(bufSize - offset, kDumpBytes);
    FormatDumpLine(line, printAddrStart + offset, bytes + offset, count);
    const u32 lengthBefore = pSSU->strCurLen;
    (void)SSUStrCatAStr(pSSU, line);  // tells of a failure only by a length that stays
    if (pSSU->strCurLen == lengthBefore) return -1;
    if (bufSize - offset <= kDumpBytes) return 0;
    offset += kDumpBytes;
  }
}

s32 GetLocalLanguageID(void) { return 1033; }  // Kept: the same for every language that the environment names.

// Conversion by the process's locale, character by character, as mbstowcs and wcstombs have it but without their
// temporary array.
s32 LocalToUnicode(ustring *pDest, u32 *pDestSize, const astring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  const bool stores = pDest != nullptr && *pDestSize != 0;
  const size_t room = stores ? *pDestSize / sizeof(ustring) : SIZE_MAX;
  std::mbstate_t state{};
  size_t count = 0;
  const astring *p = pSrc;
  for (size_t left = std::strlen(pSrc); left > 0 && count < room; ++count) {
    wchar_t character = 0;
    const size_t length = std::mbrtowc(&character, p, left, &state);
    if (length == 0 || length > left) return -1;  // malformed, or cut off at the end
    if (stores) pDest[count] = static_cast<ustring>(character);
    p += length;
    left -= length;
  }
  if (stores && count < room) pDest[count] = 0;
  const u64 size = sizeof(ustring) * (u64{count} + 1);
  if (size > UINT32_MAX) return SM_STATUS_INVALID_INPUT;
  *pDestSize = static_cast<u32>(size);
  return SM_STATUS_SUCCESS;
}

s32 ASCIIToUnicode(ustring *pDest, u32 *pDestSize, const astring *pSrc) {
  return LocalToUnicode(pDest, pDestSize, pSrc);
}

s32 UnicodeToLocal(astring *pDest, u32 *pDestSize, const ustring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  const bool stores = pDest != nullptr && *pDestSize != 0;
  const size_t room = stores ? *pDestSize : SIZE_MAX;
  std::mbstate_t state{};
  size_t used = 0;
  for (const ustring *p = pSrc; *p != 0 && used < room; ++p) {
    char bytes[MB_LEN_MAX];
    const size_t length = std::wcrtomb(bytes, static_cast<wchar_t>(*p), &state);
    if (length == static_cast<size_t>(-1)) return -1;
    if (length > room - used) break;
    if (stores) std::memcpy(pDest + used, bytes, length);
    used += length;
  }
  if (used == 0 && *pSrc != 0) return -1;
  if (used >= UINT32_MAX) return SM_STATUS_INVALID_INPUT;
  if (stores && used < room) pDest[used] = 0;
  *pDestSize = static_cast<u32>(used + 1);
  return SM_STATUS_SUCCESS;
}

s32 UnicodeToASCII(astring *pDest, u32 *pDestSize, const ustring *pSrc) {
  return UnicodeToLocal(pDest, pDestSize, pSrc);
}

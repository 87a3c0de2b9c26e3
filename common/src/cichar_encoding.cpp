// Conversion between UTF-8, UTF-16 and UCS-4, XML escaping, backslash escapes and hex dumps.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string_view>

#include "owners.h"
#include "size_protocol.h"
#include "zebcs/encoding.h"

namespace {

constexpr u32 kLastUTF16CodePoint = 0x10FFFF;
constexpr size_t kMaxUTF8LengthOfUnit = 4;  // 3 for the unit itself, 4 for the pair that it may stand for
constexpr size_t kMaxUTF16Length = 2;

bool IsSurrogate(u32 c) { return (c & 0xFFFFF800) == 0xD800; }
bool IsHighSurrogate(u32 c) { return (c & 0xFFFFFC00) == 0xD800; }
bool IsLowSurrogate(u32 c) { return (c & 0xFFFFFC00) == 0xDC00; }

// The length of a code point in UTF-8; 0 where it has none.
size_t UTF8Length(u32 c) {
  if (c < 0x80) return 1;
  if (c < 0x800) return 2;
  if (c < 0x10000) return 3;
  if (c < 0x200000) return 4;
  if (c < 0x4000000) return 5;
  return c < 0x80000000 ? 6 : 0;
}

// Writes the code point in `length` bytes, which is its UTF8Length.
template <class Output>
void PutUTF8(Output &output, u32 c, size_t length) {
  if (length == 1) return output.Put(static_cast<astring>(c));
  const u32 leadMark = 0xFFu << (8 - length) & 0xFF;
  output.Put(static_cast<astring>(leadMark | c >> 6 * (length - 1)));
  for (size_t left = length - 1; left-- > 0;) output.Put(static_cast<astring>(0x80 | (c >> 6 * left & 0x3F)));
}

// The length of the sequence that a lead byte of 0x80 or above starts; 0 where it starts none.
size_t UTF8SequenceLength(u8 lead) {
  if (lead < 0xC0) return 0;
  if (lead < 0xE0) return 2;
  if (lead < 0xF0) return 3;
  if (lead < 0xF8) return 4;
  if (lead < 0xFC) return 5;
  return lead < 0xFE ? 6 : 0;
}

struct Decoded {
  u32 codePoint;
  size_t length;  // 0 for a malformed sequence
};

// Reads a sequence whose lead byte is 0x80 or above. Looks at no byte past a zero.
// Kept: any byte but zero goes for a continuation byte, and forms longer than needed are read.
Decoded ReadUTF8Sequence(const u8 *pSrc) {
  const size_t length = UTF8SequenceLength(pSrc[0]);
  u32 codePoint = length == 0 ? 0 : pSrc[0] & (0x7Fu >> length);
  for (size_t i = 1; i < length; ++i) {
    if (pSrc[i] == 0) return {0, 0};
    codePoint = codePoint << 6 | (pSrc[i] & 0x3F);
  }
  return {codePoint, length};
}

// UTF-8 to UTF-16. Plain ASCII goes by blocks, the rest character by character, with the room asked for once for as
// many characters as are sure to fit.
template <class Output>
s32 UTF8ToUTF16(const u8 *pSrc, Output &output) {
  for (;;) {
    size_t sure = output.Left() / kMaxUTF16Length;
    if (sure == 0) {
      // Room for one unit at most: a character that needs two does not fit.
      if (*pSrc == 0) return SM_STATUS_SUCCESS;
      const Decoded decoded = *pSrc < 0x80 ? Decoded{*pSrc, 1} : ReadUTF8Sequence(pSrc);
      if (decoded.length == 0 || decoded.codePoint > kLastUTF16CodePoint) return SM_STATUS_BAD_DATA;
      if (output.Left() == 0 || decoded.codePoint > 0xFFFF) return SM_STATUS_BUFFER_TOO_SMALL;
      output.Put(static_cast<ustring>(decoded.codePoint));
      pSrc += decoded.length;
      continue;
    }
    while (sure > 0) {
      if (IsBlockAligned(pSrc)) {
        while (sure >= kBlockSize) {
          const __m128i zero = _mm_setzero_si128();
          const __m128i block = LoadBlock(pSrc);
          if ((BlockMask(block) | BlockMask(_mm_cmpeq_epi8(block, zero))) != 0) break;
          output.PutBlock(_mm_unpacklo_epi8(block, zero));
          output.PutBlock(_mm_unpackhi_epi8(block, zero));
          pSrc += kBlockSize;
          sure -= kBlockSize;
        }
        if (sure == 0) break;
      }
      const u8 *const stop = pSrc + std::min(sure, kBlockSize - reinterpret_cast<uintptr_t>(pSrc) % kBlockSize);
      do {
        const u32 b0 = pSrc[0];
        if (b0 < 0x80) {
          if (b0 == 0) return SM_STATUS_SUCCESS;
          output.Put(static_cast<ustring>(b0));
          pSrc += 1;
        } else if ((b0 & 0xE0) == 0xC0 && pSrc[1] != 0) {
          output.Put(static_cast<ustring>((b0 & 0x1F) << 6 | (pSrc[1] & 0x3Fu)));
          pSrc += 2;
        } else if ((b0 & 0xF0) == 0xE0 && pSrc[1] != 0 && pSrc[2] != 0) {
          output.Put(static_cast<ustring>((b0 & 0x0F) << 12 | (pSrc[1] & 0x3Fu) << 6 | (pSrc[2] & 0x3Fu)));
          pSrc += 3;
        } else {
          const Decoded decoded = ReadUTF8Sequence(pSrc);
          if (decoded.length == 0 || decoded.codePoint > kLastUTF16CodePoint) return SM_STATUS_BAD_DATA;
          if (decoded.codePoint > 0xFFFF) {
            // Kept: 0x10000 is not taken off before the split, so the pair reads back as another code point.
            output.Put(static_cast<ustring>(0xD800 | (decoded.codePoint >> 10 & 0x3FF)));
            output.Put(static_cast<ustring>(0xDC00 | (decoded.codePoint & 0x3FF)));
          } else {
            output.Put(static_cast<ustring>(decoded.codePoint));
          }
          pSrc += decoded.length;
        }
        --sure;
      } while (pSrc < stop);
    }
  }
}

// One character for which the room is not sure.
template <class Output>
s32 PutUTF8Checked(Output &output, u32 c) {
  const size_t length = UTF8Length(c);
  if (length == 0) return SM_STATUS_BAD_DATA;
  if (output.Left() < length) return SM_STATUS_BUFFER_TOO_SMALL;
  PutUTF8(output, c, length);
  return SM_STATUS_SUCCESS;
}

// UTF-16 to UTF-8.
// Kept: a surrogate unit, wherever it stands, is written as the first character of the whole text.
template <class Output>
s32 UTF16ToUTF8(const ustring *pSrc, Output &output) {
  constexpr size_t kBlockUnits = kBlockSize / sizeof(ustring);
  const ustring *const pText = pSrc;
  for (;;) {
    size_t sure = output.Left() / kMaxUTF8LengthOfUnit;
    if (sure == 0) {
      u32 c = *pSrc;
      if (c == 0) return SM_STATUS_SUCCESS;
      if (IsSurrogate(c) && UTF16CharsToUCS4Char(&c, pText) != SM_STATUS_SUCCESS) return SM_STATUS_BAD_DATA;
      if (const s32 status = PutUTF8Checked(output, c); status != SM_STATUS_SUCCESS) return status;
      ++pSrc;
      continue;
    }
    for (; sure > 0; --sure) {
      if (IsBlockAligned(pSrc)) {
        const __m128i zero = _mm_setzero_si128();
        const __m128i beyondASCII = _mm_set1_epi16(static_cast<short>(0xFF80));
        while (sure >= 2 * kBlockUnits) {
          const __m128i low = LoadBlock(pSrc);
          const __m128i isASCII = _mm_cmpeq_epi16(_mm_and_si128(low, beyondASCII), zero);
          if (BlockMask(_mm_andnot_si128(_mm_cmpeq_epi16(low, zero), isASCII)) != 0xFFFF) break;
          const __m128i high = LoadBlock(pSrc + kBlockUnits);
          const __m128i isHighASCII = _mm_cmpeq_epi16(_mm_and_si128(high, beyondASCII), zero);
          if (BlockMask(_mm_andnot_si128(_mm_cmpeq_epi16(high, zero), isHighASCII)) != 0xFFFF) break;
          output.PutBlock(_mm_packus_epi16(low, high));
          pSrc += 2 * kBlockUnits;
          sure -= 2 * kBlockUnits;
        }
        if (sure == 0) break;
      }
      u32 c = *pSrc;
      if (c < 0x80) {
        if (c == 0) return SM_STATUS_SUCCESS;
        output.Put(static_cast<astring>(c));
      } else if (c < 0x800) {
        output.Put(static_cast<astring>(0xC0 | c >> 6));
        output.Put(static_cast<astring>(0x80 | (c & 0x3F)));
      } else if (!IsSurrogate(c)) {
        output.Put(static_cast<astring>(0xE0 | c >> 12));
        output.Put(static_cast<astring>(0x80 | (c >> 6 & 0x3F)));
        output.Put(static_cast<astring>(0x80 | (c & 0x3F)));
      } else {
        if (UTF16CharsToUCS4Char(&c, pText) != SM_STATUS_SUCCESS) return SM_STATUS_BAD_DATA;
        PutUTF8(output, c, UTF8Length(c));
      }
      ++pSrc;
    }
  }
}

template <class Output>
s32 UCS4ToUTF8(const u32 *pSrc, Output &output) {
  for (; *pSrc != 0; ++pSrc) {
    if (const s32 status = PutUTF8Checked(output, *pSrc); status != SM_STATUS_SUCCESS) return status;
  }
  return SM_STATUS_SUCCESS;
}

// The entity for a character that XML reserves; empty for any other.
constexpr std::string_view XMLEntity(u32 c) {
  switch (c) {
    case '"': return "&quot;";
    case '&': return "&amp;";
    case '\'': return "&apos;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    default: return {};
  }
}

// One bit for each byte of the block that ends the text or that XML reserves.
unsigned XMLSpecials(__m128i block) {
  const auto equals = [block](char c) { return _mm_cmpeq_epi8(block, _mm_set1_epi8(c)); };
  // "&" and "'" differ in the lowest bit, "<" and ">" in the second lowest: one comparison serves two.
  const __m128i ampOrApos = _mm_cmpeq_epi8(_mm_or_si128(block, _mm_set1_epi8(1)), _mm_set1_epi8('\''));
  const __m128i angles = _mm_cmpeq_epi8(_mm_or_si128(block, _mm_set1_epi8(2)), _mm_set1_epi8('>'));
  return BlockMask(_mm_or_si128(_mm_or_si128(equals('\0'), equals('"')), _mm_or_si128(ampOrApos, angles)));
}

// Copies a run of bytes, of which as many are written as there is room for. False when that is not all.
template <class Output>
bool PutRun(Output &output, const astring *run, size_t length) {
  const size_t fits = std::min(length, output.Left());
  output.PutShort(run, fits);
  return fits == length;
}

template <class Output>
s32 EscapeXML(const astring *pSrc, Output &output, booln &wasConverted) {
  // Up to the first block boundary, and then block by block, from one special byte to the next.
  for (;;) {
    const size_t skipped = reinterpret_cast<uintptr_t>(pSrc) % kBlockSize;
    const __m128i block = LoadBlock(pSrc - skipped);
    unsigned specials = XMLSpecials(block) >> skipped;
    if (specials == 0) {
      if (skipped == 0 && output.Left() >= kBlockSize) {
        output.PutBlock(block);
      } else if (!PutRun(output, pSrc, kBlockSize - skipped)) {
        return SM_STATUS_BUFFER_TOO_SMALL;
      }
      pSrc += kBlockSize - skipped;
      continue;
    }
    const astring *const blockEnd = pSrc + (kBlockSize - skipped);
    const astring *const blockStart = pSrc;
    for (; specials != 0; specials &= specials - 1) {
      const astring *const special = blockStart + FirstIn(specials);
      if (!PutRun(output, pSrc, static_cast<size_t>(special - pSrc))) return SM_STATUS_BUFFER_TOO_SMALL;
      if (*special == 0) return SM_STATUS_SUCCESS;
      const std::string_view entity = XMLEntity(static_cast<u8>(*special));
      wasConverted = 1;
      if (output.Left() < entity.size()) return SM_STATUS_BUFFER_TOO_SMALL;
      output.PutShort(entity.data(), entity.size());
      pSrc = special + 1;
    }
    if (!PutRun(output, pSrc, static_cast<size_t>(blockEnd - pSrc))) return SM_STATUS_BUFFER_TOO_SMALL;
    pSrc = blockEnd;
  }
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

s32 UCS4CharToXMLUTF8Chars(astring *pDest, u32 *pDestSize, booln *pWasEscapeNeeded, u32 ucs4Char) {
  if (pDestSize == nullptr) return SM_STATUS_INVALID_INPUT;
  const std::string_view entity = XMLEntity(ucs4Char);
  if (pWasEscapeNeeded != nullptr) *pWasEscapeNeeded = entity.empty() ? 0 : 1;
  if (entity.empty()) return UCS4CharToUTF8Chars(pDest, pDestSize, ucs4Char);
  if (pDest != nullptr) {
    if (*pDestSize < entity.size()) return SM_STATUS_BUFFER_TOO_SMALL;
    std::memcpy(pDest, entity.data(), entity.size());
    std::memset(pDest + entity.size(), 0, *pDestSize - entity.size());
    // Kept: the last byte of the room is zero, even where that is the entity's own ";".
    pDest[*pDestSize - 1] = 0;
  }
  *pDestSize = static_cast<u32>(entity.size());
  return SM_STATUS_SUCCESS;
}

s32 UCS2StrToUTF8Str(astring *pDest, u32 *pDestSize, const ustring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  return RunSized(pDest, pDestSize, [pSrc](auto &output) { return UTF16ToUTF8(pSrc, output); });
}

s32 UCS4StrToUTF8Str(astring *pDest, u32 *pDestSize, const u32 *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  return RunSized(pDest, pDestSize, [pSrc](auto &output) { return UCS4ToUTF8(pSrc, output); });
}

s32 UTF8StrToUCS2Str(ustring *pDest, u32 *pDestSize, const astring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  // Kept: the caller's size counts as that many units, while the size stored is in bytes.
  return RunSized(pDest, pDestSize,
                  [pSrc](auto &output) { return UTF8ToUTF16(reinterpret_cast<const u8 *>(pSrc), output); });
}

s32 UTF8StrToXMLUTF8Str(astring *pDest, u32 *pDestSize, booln *pWasConverted, const astring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  booln wasConverted = 0;
  const s32 status =
      RunSized(pDest, pDestSize, [pSrc, &wasConverted](auto &output) { return EscapeXML(pSrc, output, wasConverted); });
  if (pWasConverted != nullptr) *pWasConverted = wasConverted;
  return status;
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
  for (const ustring *p = pSrc; *p != 0; ++p) {
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

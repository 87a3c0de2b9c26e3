// Code points in UTF-8 and UTF-16, for the units that convert and escape text.
#ifndef ZEBCS_SRC_CICHAR_ENCODING_H
#define ZEBCS_SRC_CICHAR_ENCODING_H

#include <cstddef>

#include "zebcs/types.h"

constexpr u32 kLastUTF16CodePoint = 0x10FFFF;

inline bool IsSurrogate(u32 c) { return (c & 0xFFFFF800) == 0xD800; }
inline bool IsHighSurrogate(u32 c) { return (c & 0xFFFFFC00) == 0xD800; }
inline bool IsLowSurrogate(u32 c) { return (c & 0xFFFFFC00) == 0xDC00; }

// The length of a code point in UTF-8; 0 where it has none.
inline size_t UTF8Length(u32 c) {
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
inline size_t UTF8SequenceLength(u8 lead) {
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
inline Decoded ReadUTF8Sequence(const u8 *pSrc) {
  const size_t length = UTF8SequenceLength(pSrc[0]);
  u32 codePoint = length == 0 ? 0 : pSrc[0] & (0x7Fu >> length);
  for (size_t i = 1; i < length; ++i) {
    if (pSrc[i] == 0) return {0, 0};
    codePoint = codePoint << 6 | (pSrc[i] & 0x3F);
  }
  return {codePoint, length};
}

// UCS-4 to UTF-8, one character with all checks.
template <class Output>
s32 PutUCS4AsUTF8(u32 c, Output &output) {
  const size_t length = UTF8Length(c);
  if (length == 0) return SM_STATUS_BAD_DATA;
  if (output.Left() < length) return SM_STATUS_BUFFER_TOO_SMALL;
  PutUTF8(output, c, length);
  return SM_STATUS_SUCCESS;
}

#endif

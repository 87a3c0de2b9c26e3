// The string functions of the C library for 16-bit units; the platform's own wide characters have 32 bits.
#include <cstdlib>
#include <cstring>

#include "blocks.h"
#include "owners.h"
#include "zebcs/unistr.h"

namespace {

// The result type has no const, as with the C library's functions: it depends on what the caller passed.
ustring *Mutable(const ustring *pStr) { return const_cast<ustring *>(pStr); }

// Kept: a comparison answers the difference modulo 65536, so it tells equality and not order.
s32 UnorderedDifference(ustring a, ustring b) { return static_cast<u16>(a - b); }

bool Contains(const ustring *pSet, ustring unit) {
  for (; *pSet != 0; ++pSet) {
    if (*pSet == unit) return true;
  }
  return false;
}

ustring ToUpperASCII(ustring unit) {
  return unit >= 'a' && unit <= 'z' ? static_cast<ustring>(unit - ('a' - 'A')) : unit;
}

ustring *tokenPosition = nullptr;  // of Uni_strtok, for the whole process

}  // namespace

size_t Uni_strlen(const ustring *pStr) {
  const ustring *p = pStr;
  // A string at an odd address never meets a block boundary and is counted unit by unit.
  for (; !IsBlockAligned(p); ++p) {
    if (*p == 0) return static_cast<size_t>(p - pStr);
  }
  for (;; p += kBlockSize / sizeof(ustring)) {
    const unsigned zeros = BlockMask(_mm_cmpeq_epi16(LoadBlock(p), _mm_setzero_si128()));
    if (zeros != 0) return static_cast<size_t>(p - pStr) + FirstIn(zeros) / sizeof(ustring);
  }
}

ustring *Uni_strcpy(ustring *pDest, const ustring *pSrc) {
  std::memcpy(pDest, pSrc, (Uni_strlen(pSrc) + 1) * sizeof(ustring));
  return pDest;
}

ustring *Uni_strcat(ustring *pDest, const ustring *pSrc) {
  Uni_strcpy(pDest + Uni_strlen(pDest), pSrc);
  return pDest;
}

ustring *Uni_strncpy(ustring *pDest, const ustring *pSrc, size_t count) {
  // Kept: the rest of pDest is not filled with zeros, which the C library's function would do.
  for (size_t i = 0; i < count; ++i) {
    pDest[i] = pSrc[i];
    if (pSrc[i] == 0) break;
  }
  return pDest;
}

ustring *Uni_strncat(ustring *pDest, const ustring *pSrc, size_t count) {
  if (count == 0) return pDest;
  ustring *const end = pDest + Uni_strlen(pDest);
  size_t i = 0;
  for (; i < count && pSrc[i] != 0; ++i) end[i] = pSrc[i];
  end[i] = 0;
  return pDest;
}

s32 Uni_strcmp(const ustring *pStr1, const ustring *pStr2) {
  for (; *pStr1 == *pStr2; ++pStr1, ++pStr2) {
    if (*pStr1 == 0) return 0;
  }
  return UnorderedDifference(*pStr1, *pStr2);
}

ustring *Uni_strchr(const ustring *pStr, ustring ch) {
  for (; *pStr != ch; ++pStr) {
    if (*pStr == 0) return nullptr;
  }
  return Mutable(pStr);
}

ustring *Uni_strstr(const ustring *pStr, const ustring *pFind) {
  const size_t length = Uni_strlen(pStr);
  const size_t findLength = Uni_strlen(pFind);
  if (findLength > length) return nullptr;
  for (const ustring *const last = pStr + (length - findLength); pStr <= last; ++pStr) {
    if (std::memcmp(pStr, pFind, findLength * sizeof(ustring)) == 0) return Mutable(pStr);
  }
  return nullptr;
}

size_t Uni_strspn(const ustring *pStr, const ustring *pSet) {
  size_t length = 0;
  while (pStr[length] != 0 && Contains(pSet, pStr[length])) ++length;
  return length;
}

size_t Uni_strcspn(const ustring *pStr, const ustring *pSet) {
  size_t length = 0;
  while (pStr[length] != 0 && !Contains(pSet, pStr[length])) ++length;
  return length;
}

ustring *Uni_strtok(ustring *pStr, const ustring *pDelims) {
  if (pStr == nullptr) pStr = tokenPosition;
  tokenPosition = nullptr;
  if (pStr == nullptr) return nullptr;
  ustring *const token = pStr + Uni_strspn(pStr, pDelims);
  if (*token == 0) return nullptr;
  ustring *const end = token + Uni_strcspn(token, pDelims);
  if (*end != 0) {
    *end = 0;
    tokenPosition = end + 1;
  }
  return token;
}

ustring *Uni_strset(ustring *pStr, ustring ch) {
  for (ustring *p = pStr; *p != 0; ++p) *p = ch;
  return pStr;
}

ustring *Uni_strnset(ustring *pStr, ustring ch, size_t count) {
  // Kept: the terminator is not looked for; the C library's kin would stop at it.
  for (size_t i = 0; i < count; ++i) pStr[i] = ch;
  return pStr;
}

ustring *Uni_strrev(ustring *pStr) {
  const size_t length = Uni_strlen(pStr);
  const MallocPtr<ustring> copy = MallocArray<ustring>(length + 1);
  if (!copy) return pStr;
  std::memcpy(copy.get(), pStr, (length + 1) * sizeof(ustring));
  for (size_t i = 0; i < length; ++i) pStr[i] = copy.get()[length - 1 - i];
  return pStr;
}

ustring *Uni_strpbrk(const ustring *pStr, const ustring *pSet) {
  pStr += Uni_strcspn(pStr, pSet);
  return *pStr == 0 ? nullptr : Mutable(pStr);
}

s32 Uni_memcmp(const ustring *pBuf1, const ustring *pBuf2, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    if (pBuf1[i] != pBuf2[i]) return UnorderedDifference(pBuf1[i], pBuf2[i]);
  }
  return 0;
}

s32 Uni_strncasecmp(const ustring *pStr1, const ustring *pStr2, s32 count) {
  // Kept: folds to upper case where AStrnicmp folds to lower; "_" sorts after the letters here, before them there.
  for (; count > 0; --count, ++pStr1, ++pStr2) {
    const s32 difference = ToUpperASCII(*pStr1) - ToUpperASCII(*pStr2);
    if (difference != 0 || *pStr1 == 0) return difference;
  }
  return 0;
}

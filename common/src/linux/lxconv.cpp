// Conversions that other platforms' C libraries have: reversal, numbers in a radix, letter case.
#include <algorithm>
#include <bit>
#include <cctype>
#include <charconv>
#include <cstring>

#include "owners.h"
#include "zebcs/number.h"

namespace {

constexpr size_t kRadixTextLimit = 7;  // characters that ltostr keeps
constexpr int kDec2BinSteps = 8;

template <int (*kMapping)(int)>
size_t MapInPlace(char *s) {
  size_t length = 0;
  for (; s[length] != 0; ++length) s[length] = static_cast<char>(kMapping(static_cast<u8>(s[length])));
  return length;
}

}  // namespace

char *strrev(char *s) {
  if (s == nullptr) return nullptr;
  const size_t length = std::strlen(s);
  const MallocPtr<char> copy = MallocArray<char>(length + 1);
  if (!copy) return s;
  std::memcpy(copy.get(), s, length);
  std::reverse_copy(copy.get(), copy.get() + length, s);
  return s;
}

void ltostr(astring *pDest, s32 value, s32 radix) {
  if (radix == 2) return dec2bin(pDest, static_cast<u32>(value));
  char text[12];
  char *end = nullptr;
  if (radix == 8 || radix == 16) {
    end = std::to_chars(text, text + sizeof text, static_cast<u32>(value), radix).ptr;
  } else {
    end = std::to_chars(text, text + sizeof text, value).ptr;
  }
  // Kept: a longer number loses its last digits; a tidy writer would refuse it or ask for more room.
  const size_t length = std::min(static_cast<size_t>(end - text), kRadixTextLimit);
  std::memcpy(pDest, text, length);
  pDest[length] = 0;
}

void dec2bin(astring *pDest, u32 value) {
  // Kept: each digit is written into a room of one byte, which holds the terminator alone, so the text is empty.
  std::memset(pDest, 0, static_cast<size_t>(std::clamp(static_cast<int>(std::bit_width(value)), 1, kDec2BinSteps)));
}

u32 strToUpperCase(char *s) { return s == nullptr ? 0 : static_cast<u32>(MapInPlace<std::toupper>(s)); }

char *strupr(char *s) {
  if (s != nullptr) MapInPlace<std::toupper>(s);
  return s;
}

char *strlwr(char *s) {
  if (s != nullptr) MapInPlace<std::tolower>(s);
  return s;
}

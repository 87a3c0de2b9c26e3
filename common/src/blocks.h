// Text in blocks of 16 bytes, with SSE2, which every x86-64 has.
//
// A block is loaded at an address that is a multiple of 16, so that it never crosses into another page: bytes past
// the end of a text may be loaded, but a load never faults where a byte of the text itself would not.
#ifndef ZEBCS_SRC_BLOCKS_H
#define ZEBCS_SRC_BLOCKS_H

#include <emmintrin.h>

#include <bit>
#include <cstddef>
#include <cstdint>

constexpr std::size_t kBlockSize = 16;

inline bool IsBlockAligned(const void *p) { return reinterpret_cast<std::uintptr_t>(p) % kBlockSize == 0; }

// The sanitizers know the exact end of every object and would object to the bytes past it.
__attribute__((no_sanitize_address, no_sanitize_thread)) inline __m128i LoadBlock(const void *p) {
  return _mm_load_si128(static_cast<const __m128i *>(p));
}

inline void StoreBlock(void *p, __m128i block) { _mm_storeu_si128(static_cast<__m128i *>(p), block); }

// One bit for each byte of a comparison's result.
inline unsigned BlockMask(__m128i comparison) { return static_cast<unsigned>(_mm_movemask_epi8(comparison)); }

// The block that holds a byte, and the byte's index in it.
struct BlockPosition {
  const void *base;
  unsigned index;
};

inline BlockPosition BlockOf(const void *p) {
  const auto index = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(p) % kBlockSize);
  return {static_cast<const char *>(p) - index, index};
}

// One bit for each of the indexes from `first` up to, not including, `end`.
constexpr unsigned BitRange(unsigned first, unsigned end) { return (1u << end) - (1u << first); }

// Index of the lowest bit set.
inline unsigned FirstIn(unsigned mask) { return static_cast<unsigned>(std::countr_zero(mask)); }

// Number of bits set.
inline unsigned CountIn(unsigned mask) { return static_cast<unsigned>(std::popcount(mask)); }

#endif

// UTF-8 to UTF-16 and back. What is common goes block by block, what is doubtful character by character with all
// checks, and both write and count alike.
#include <tmmintrin.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "cichar_encoding.h"
#include "size_protocol.h"
#include "zebcs/encoding.h"

namespace {

// Puts one character of UTF-8, which is not the terminator, as UTF-16, with all checks. `length` receives its length.
template <class Output>
Conversion PutCheckedSequence(const u8 *pSrc, size_t &length, Output output) {
  const Decoded decoded = *pSrc < 0x80 ? Decoded{*pSrc, 1} : ReadUTF8Sequence(pSrc);
  const bool isPair = decoded.codePoint > 0xFFFF;
  length = decoded.length;
  s32 status = SM_STATUS_SUCCESS;
  if (length == 0 || decoded.codePoint > kLastUTF16CodePoint) {
    status = SM_STATUS_BAD_DATA;
  } else if (output.Left() < (isPair ? 2 : 1)) {
    status = SM_STATUS_BUFFER_TOO_SMALL;
  } else if (isPair) {
    // Kept: 0x10000 is not taken off before the split, so the pair reads back as another code point.
    output.Put(static_cast<ustring>(0xD800 | (decoded.codePoint >> 10 & 0x3FF)));
    output.Put(static_cast<ustring>(0xDC00 | (decoded.codePoint & 0x3FF)));
  } else {
    output.Put(static_cast<ustring>(decoded.codePoint));
  }
  return {status, output.Used()};
}

// The end of a stretch of text: the first zero at or after p, or a block boundary a few blocks on. Nothing after p and
// before the end is zero, so a loop up to there need not look for the terminator.
constexpr int kStretchBlocks = 32;
constexpr ptrdiff_t kLongestInStretch = 3;  // bytes of a sequence

const u8 *StretchEnd(const u8 *p, int maxBlocks) {
  const BlockPosition position = BlockOf(p);
  const u8 *base = static_cast<const u8 *>(position.base);
  unsigned inText = BitRange(position.index, kBlockSize);
  for (int i = 0; i < maxBlocks; ++i, base += kBlockSize, inText = BitRange(0, kBlockSize)) {
    const unsigned zeros = BlockMask(_mm_cmpeq_epi8(LoadBlock(base), _mm_setzero_si128())) & inText;
    if (zeros != 0) return base + FirstIn(zeros);
  }
  return base;
}

template <class Word>
Word LoadWord(const void *p) {
  Word word;
  std::memcpy(&word, p, sizeof word);
  return word;
}

inline __m128i LoadHalfBlock(const void *p) { return _mm_loadl_epi64(static_cast<const __m128i *>(p)); }

// Stores the UTF-16 of a stretch of UTF-8. Stops at sequences of more than three bytes, at bytes that start none, and
// where the stretch may end inside a sequence. The room is that of one unit for each byte.
template <class Output>
[[gnu::always_inline]] inline const u8 *PutStretchAsUTF16(const u8 *p, const u8 *end, Output &output) {
  constexpr ptrdiff_t kWord = sizeof(u64);
  while (end - p >= kLongestInStretch) {
    const u32 b0 = p[0];
    if (b0 < 0x80) {
      if (end - p >= kWord) {
        const u64 word = LoadWord<u64>(p);
        const __m128i units = _mm_unpacklo_epi8(LoadHalfBlock(p), _mm_setzero_si128());
        if ((word & 0x8080808080808080) == 0) {
          output.PutBlock(units);
          p += kWord;
          continue;
        }
        if ((word & 0x80808080) == 0) {
          output.PutWord(_mm_cvtsi128_si64(units));
          p += kWord / 2;
          continue;
        }
      }
      output.Put(static_cast<ustring>(b0));
      p += 1;
    } else if ((b0 & 0xE0) == 0xC0) {
      if (end - p >= kWord && (LoadWord<u64>(p) & 0xC0E0C0E0C0E0C0E0) == 0x80C080C080C080C0) {
        // Four sequences of two bytes, each of which is one 16-bit lane with the lead in the low half.
        const __m128i lanes = LoadHalfBlock(p);
        const __m128i high = _mm_slli_epi16(_mm_and_si128(lanes, _mm_set1_epi16(0x1F)), 6);
        const __m128i low = _mm_and_si128(_mm_srli_epi16(lanes, 8), _mm_set1_epi16(0x3F));
        output.PutWord(_mm_cvtsi128_si64(_mm_or_si128(high, low)));
        p += kWord;
        continue;
      }
      output.Put(static_cast<ustring>((b0 & 0x1F) << 6 | (p[1] & 0x3Fu)));
      p += 2;
    } else if ((b0 & 0xF0) == 0xE0) {
      output.Put(static_cast<ustring>(b0 << 12 | (p[1] & 0x3Fu) << 6 | (p[2] & 0x3Fu)));
      p += 3;
    } else {
      break;
    }
  }
  return p;
}

// What a block of UTF-8 holds, a bit for each byte.
struct UTF8Block {
  __m128i bytes;
  unsigned continuations;  // 0x80 to 0xBF
  unsigned threes;         // leads of sequences of three bytes and more
  unsigned expected;       // where the sequences that start here have their continuation bytes, in the next block too
  bool isCommon;           // neither the end of the text nor a sequence of more than three bytes

  explicit UTF8Block(const u8 *p) : bytes(LoadBlock(p)) {
    continuations = BlockMask(IsContinuation());
    threes = BlockMask(IsAtLeast(0xE0));
    expected = (BlockMask(bytes) & ~continuations) << 1 | threes << 2;
    isCommon = BlockMask(_mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_setzero_si128()), IsAtLeast(0xF0))) == 0;
  }

  __m128i IsContinuation() const { return _mm_cmplt_epi8(bytes, _mm_set1_epi8(static_cast<char>(0xC0))); }
  unsigned Overhang() const { return expected >> kBlockSize; }
  unsigned Starts() const { return ~continuations & BitRange(0, kBlockSize); }

  // Whether the continuation bytes of this block are where its sequences, and one that reaches into it, want them.
  bool IsInPlace(unsigned carried) const { return ((expected | carried) & BitRange(0, kBlockSize)) == continuations; }

  // For a block in which the text ends: the length of what is left of it, where all of that is whole, in place and of
  // one to three bytes; 0 where it is not.
  unsigned WholeTail(unsigned carried) const {
    const unsigned zeros = BlockMask(_mm_cmpeq_epi8(bytes, _mm_setzero_si128()));
    const unsigned length = zeros == 0 ? 0 : FirstIn(zeros);
    const unsigned inText = BitRange(0, length);
    const unsigned leads = BlockMask(bytes) & ~continuations & inText;
    const unsigned wanted = carried | leads << 1 | (threes & inText) << 2;
    const bool isWhole = (BlockMask(IsAtLeast(0xF0)) & inText) == 0 && wanted == (continuations & inText);
    return isWhole ? length : 0;
  }

 private:
  __m128i IsAtLeast(unsigned limit) const {
    return _mm_cmpeq_epi8(_mm_max_epu8(bytes, _mm_set1_epi8(static_cast<char>(limit))), bytes);
  }
};

// Counts the UTF-16 units of whole blocks of UTF-8, and of the last one, in which every sequence has one to three bytes
// and its continuation bytes are in their places. `p` is at a block's start; returns the start of the first character
// that is not counted.
template <class Output>
[[gnu::always_inline]] inline const u8 *CountBlocksAsUTF16(const u8 *p, Output &output) {
  const __m128i zero = _mm_setzero_si128();
  const u8 *const start = p;
  __m128i continuationCount = zero;  // in two halves
  unsigned carried = 0;
  UTF8Block block(p);
  for (; block.isCommon && block.IsInPlace(carried); block = UTF8Block(p)) {
    carried = block.Overhang();
    const __m128i ones = _mm_sub_epi8(zero, block.IsContinuation());
    continuationCount = _mm_add_epi64(continuationCount, _mm_sad_epu8(ones, zero));
    p += kBlockSize;
  }
  const __m128i sum = _mm_add_epi64(continuationCount, _mm_unpackhi_epi64(continuationCount, continuationCount));
  output.Skip(static_cast<size_t>(p - start) - static_cast<size_t>(_mm_cvtsi128_si64(sum)));
  if (const unsigned tail = block.WholeTail(carried); tail != 0) {
    output.Skip(CountIn(block.Starts() & BitRange(0, tail)));
    return p + tail;
  }
  if (carried == 0) return p;
  // The last character reaches into the block at p: it is not counted after all.
  output.TakeBack(1);
  do --p;
  while ((*p & 0xC0) == 0x80);
  return p;
}

// Byte shuffles, of SSSE3, put a block's characters side by side. They store junk behind what they write, and so run
// only where the text to follow is sure to overwrite it; a block before anything doubtful goes through a temporary.
#define ZEBCS_USES_SHUFFLE [[gnu::target("ssse3")]]

bool HasShuffle() {
#ifdef ZEBCS_WITHOUT_SHUFFLE  // for a test of what older machines run
  return false;
#else
  return __builtin_cpu_supports("ssse3") != 0;
#endif
}

struct alignas(kBlockSize) Shuffle {
  std::array<u8, kBlockSize> bytes;
  u8 count;  // units or bytes that are kept
};

constexpr u8 kDropped = 0x80;

// For each set of eight 16-bit lanes, given a bit each: these lanes side by side.
constexpr auto kKeepLanes = [] {
  std::array<Shuffle, 256> shuffles{};
  for (unsigned mask = 0; mask < shuffles.size(); ++mask) {
    Shuffle &shuffle = shuffles[mask];
    shuffle.bytes.fill(kDropped);
    for (u8 lane = 0; lane < 8; ++lane) {
      if ((mask >> lane & 1) == 0) continue;
      shuffle.bytes[2u * shuffle.count] = static_cast<u8>(2 * lane);
      shuffle.bytes[2u * shuffle.count + 1] = static_cast<u8>(2 * lane + 1);
      ++shuffle.count;
    }
  }
  return shuffles;
}();

// For each set of eight 16-bit lanes, given a bit each: all bytes but the second ones of these lanes side by side.
constexpr auto kDropSecondBytes = [] {
  std::array<Shuffle, 256> shuffles{};
  for (unsigned mask = 0; mask < shuffles.size(); ++mask) {
    Shuffle &shuffle = shuffles[mask];
    shuffle.bytes.fill(kDropped);
    for (u8 lane = 0; lane < 8; ++lane) {
      shuffle.bytes[shuffle.count++] = static_cast<u8>(2 * lane);
      if ((mask >> lane & 1) == 0) shuffle.bytes[shuffle.count++] = static_cast<u8>(2 * lane + 1);
    }
  }
  return shuffles;
}();

ZEBCS_USES_SHUFFLE inline __m128i Shuffled(__m128i block, const Shuffle &shuffle) {
  return _mm_shuffle_epi8(block, LoadBlock(shuffle.bytes.data()));
}

// Decodes eight bytes as if each started a sequence of up to three, given with the byte and the two bytes after it.
inline __m128i DecodeLanes(__m128i b0, __m128i b1, __m128i b2) {
  const __m128i sixBits = _mm_set1_epi16(0x3F);
  b1 = _mm_and_si128(b1, sixBits);
  b2 = _mm_and_si128(b2, sixBits);
  const __m128i two = _mm_or_si128(_mm_slli_epi16(_mm_and_si128(b0, _mm_set1_epi16(0x1F)), 6), b1);
  const __m128i three = _mm_or_si128(_mm_or_si128(_mm_slli_epi16(b0, 12), _mm_slli_epi16(b1, 6)), b2);
  const __m128i isASCII = _mm_cmplt_epi16(b0, _mm_set1_epi16(0x80));
  const __m128i isThree = _mm_cmpgt_epi16(b0, _mm_set1_epi16(0xDF));
  const __m128i sequence = _mm_or_si128(_mm_and_si128(isThree, three), _mm_andnot_si128(isThree, two));
  return _mm_or_si128(_mm_and_si128(isASCII, b0), _mm_andnot_si128(isASCII, sequence));
}

// Stores the sequences of three bytes that start at the bits of `threes`.
template <class Output>
[[gnu::always_inline]] inline void PutThrees(const u8 *p, unsigned threes, Output &output) {
  for (; threes != 0; threes &= threes - 1) {
    const u8 *const lead = p + FirstIn(threes);
    output.Put(static_cast<ustring>(lead[0] << 12 | (lead[1] & 0x3F) << 6 | (lead[2] & 0x3F)));
  }
}

// Stores the characters of a block that start at the bits of `starts`, if there is room for them, and junk behind them
// where `sure` more units are to follow.
template <class Output>
[[gnu::always_inline]] ZEBCS_USES_SHUFFLE inline bool ShuffleBlockToUTF16(__m128i bytes, __m128i nextBytes,
                                                                          unsigned starts, unsigned sure,
                                                                          Output &output) {
  constexpr unsigned kHalf = kBlockSize / 2;
  const __m128i zero = _mm_setzero_si128();
  const Shuffle &keepLow = kKeepLanes[starts & 0xFF];
  const Shuffle &keepHigh = kKeepLanes[starts >> 8];
  const unsigned count = keepLow.count + keepHigh.count;
  if (output.Left() < kBlockSize) {
    if (output.Left() < count) return false;
    sure = 0;
  }
  const __m128i after1 = _mm_alignr_epi8(nextBytes, bytes, 1);
  const __m128i after2 = _mm_alignr_epi8(nextBytes, bytes, 2);
  const __m128i low = Shuffled(
      DecodeLanes(_mm_unpacklo_epi8(bytes, zero), _mm_unpacklo_epi8(after1, zero), _mm_unpacklo_epi8(after2, zero)),
      keepLow);
  const __m128i high = Shuffled(
      DecodeLanes(_mm_unpackhi_epi8(bytes, zero), _mm_unpackhi_epi8(after1, zero), _mm_unpackhi_epi8(after2, zero)),
      keepHigh);
  if (kHalf <= keepHigh.count + sure) {
    output.PutSome(low, keepLow.count);
    output.PutSome(high, keepHigh.count);
  } else if (keepHigh.count <= kHalf / 2 && kHalf <= count + sure && kHalf / 2 <= keepHigh.count + sure) {
    output.PutSome(low, keepLow.count);
    output.PutSome(_mm_cvtsi128_si64(high), keepHigh.count);
  } else if (count >= kHalf) {
    output.PutSome(low, keepLow.count);
    ustring units[kHalf];
    StoreBlock(units, high);
    output.PutShort(units, keepHigh.count);
  } else {
    ustring units[kBlockSize];
    StoreBlock(units, low);
    StoreBlock(units + keepLow.count, high);
    output.PutShort(units, count);
  }
  return true;
}

// Stores whole blocks of UTF-8, and the last one, in which every sequence has one to three bytes, in place. `p` is at a
// block's start and at a character's; returns the start of the first character that is not stored.
template <class Output>
ZEBCS_USES_SHUFFLE const u8 *ShuffleBlocksToUTF16(const u8 *p, Output &result) {
  Output output = result;
  UTF8Block block(p);
  unsigned carried = 0;
  const u8 *const start = p;
  while (block.isCommon) {
    const UTF8Block next(p + kBlockSize);  // which the text reaches: it does not end in this block
    // Two blocks of ASCII are for the loop that has nothing else; it has just refused the first block here.
    if (p != start && next.isCommon && (block.expected | next.expected | next.continuations | carried) == 0) break;
    if (!block.IsInPlace(carried) || (block.Overhang() & ~next.continuations) != 0) break;
    if (block.Starts() == block.threes && output.Left() >= kBlockSize) {
      PutThrees(p, block.threes, output);
    } else {
      // The next block, if it is like this one, gives a unit for each start in its first half at the least: sequences
      // that start there end in it.
      const bool isNextSure = next.isCommon && next.IsInPlace(block.Overhang());
      const unsigned sure = isNextSure ? kKeepLanes[next.Starts() & 0xFF].count : 0;
      if (!ShuffleBlockToUTF16(block.bytes, next.bytes, block.Starts(), sure, output)) break;
    }
    carried = block.Overhang();
    block = next;
    p += kBlockSize;
  }
  const u8 *end = p + (carried & 1) + (carried >> 1);
  if (const unsigned tail = block.WholeTail(carried); tail != 0) {
    const unsigned starts = block.Starts() & BitRange(0, tail);
    if (ShuffleBlockToUTF16(block.bytes, block.bytes, starts, 0, output)) end = p + tail;
  }
  result = output;
  return end;
}

// Stores the start of a text that does not begin with ASCII, up to what the loop over blocks is for: blocks do not pay
// off for a name. Stops at the terminator, at an uncommon sequence, and where the room ends.
template <class Output>
[[gnu::always_inline]] inline const u8 *PutShortTextAsUTF16(const u8 *p, Output &output) {
  constexpr ptrdiff_t kShortText = 64;
  for (const u8 *const end = p + kShortText; p < end && output.Left() != 0;) {
    const u32 b0 = p[0];
    if (b0 < 0x80) {
      if (b0 == 0) break;
      output.Put(static_cast<ustring>(b0));
      p += 1;
    } else if ((b0 & 0xE0) == 0xC0 && p[1] != 0) {
      output.Put(static_cast<ustring>((b0 & 0x1F) << 6 | (p[1] & 0x3Fu)));
      p += 2;
    } else if ((b0 & 0xF0) == 0xE0 && p[1] != 0 && p[2] != 0) {
      output.Put(static_cast<ustring>(b0 << 12 | (p[1] & 0x3Fu) << 6 | (p[2] & 0x3Fu)));
      p += 3;
    } else {
      break;
    }
  }
  return p;
}

// UTF-8 to UTF-16. Whole blocks of ASCII and stretches of common text go fast, anything else character by character.
template <class Output>
Conversion UTF8ToUTF16(const u8 *pSrc, Output output) {
  const __m128i zero = _mm_setzero_si128();
  const bool canShuffle = Output::kStores && HasShuffle();
  if (Output::kStores && *pSrc >= 0x80) {
    pSrc = PutShortTextAsUTF16(pSrc, output);
    if (*pSrc == 0) return {SM_STATUS_SUCCESS, output.Used()};
  }
  for (;;) {
    if (IsBlockAligned(pSrc)) {
      for (; output.Left() >= kBlockSize; pSrc += kBlockSize) {
        const __m128i block = LoadBlock(pSrc);
        if (BlockMask(_mm_cmpgt_epi8(block, zero)) != BitRange(0, kBlockSize)) break;  // not all of 0x01 to 0x7F
        output.PutBlock(_mm_unpacklo_epi8(block, zero));
        output.PutBlock(_mm_unpackhi_epi8(block, zero));
      }
      if constexpr (!Output::kStores) {
        pSrc = CountBlocksAsUTF16(pSrc, output);
      } else if (canShuffle) {
        const u8 *const start = pSrc;
        pSrc = ShuffleBlocksToUTF16(pSrc, output);
        if (pSrc != start && IsBlockAligned(pSrc)) continue;
      }
    }
    // A stretch goes only up to the next block where that may be one to take as a whole again.
    const u8 *end = StretchEnd(pSrc, Output::kStores && !canShuffle ? kStretchBlocks : 1);
    end = std::min(end, pSrc + std::min<size_t>(output.Left(), PTRDIFF_MAX));
    pSrc = PutStretchAsUTF16(pSrc, end, output);
    do {
      if (*pSrc == 0) return {SM_STATUS_SUCCESS, output.Used()};
      size_t length = 0;
      const Conversion result = PutCheckedSequence(pSrc, length, output);
      if (result.status != SM_STATUS_SUCCESS) return result;
      output.Skip(result.used - output.Used());
      pSrc += length;
    } while (pSrc < end && end - pSrc < kLongestInStretch);
  }
}

constexpr unsigned kBlockUnits = kBlockSize / sizeof(ustring);

// Puts one unit that is no surrogate.
template <class Output>
[[gnu::always_inline]] inline void PutUnit(u32 c, Output &output) {
  if (c < 0x80) {
    output.Put(static_cast<astring>(c));
  } else if (c < 0x800) {
    output.PutWord(static_cast<u16>(0x80C0 | c >> 6 | (c & 0x3F) << 8));
  } else {
    output.PutWord(static_cast<u16>(0x80E0 | c >> 12 | (c >> 6 & 0x3F) << 8));
    output.Put(static_cast<astring>(0x80 | (c & 0x3F)));
  }
}

// What a block of UTF-16 holds.
struct UTF16Block {
  __m128i units;
  __m128i isASCII;
  __m128i isShort;  // at most two bytes in UTF-8

  explicit UTF16Block(__m128i block) : units(block) {
    const __m128i zero = _mm_setzero_si128();
    isASCII = _mm_cmpeq_epi16(_mm_and_si128(block, _mm_set1_epi16(static_cast<short>(0xFF80))), zero);
    isShort = _mm_cmpeq_epi16(High(), zero);
  }

  bool HasZeroOrSurrogate() const {
    const __m128i isSurrogate = _mm_cmpeq_epi16(High(), _mm_set1_epi16(static_cast<short>(0xD800)));
    return BlockMask(_mm_or_si128(_mm_cmpeq_epi16(units, _mm_setzero_si128()), isSurrogate)) != 0;
  }

 private:
  __m128i High() const { return _mm_and_si128(units, _mm_set1_epi16(static_cast<short>(0xF800))); }
};

// Units of at most two bytes, encoded: each lane holds a unit's bytes, the first one lowest.
inline __m128i ShortUnitLanes(const UTF16Block &block) {
  const __m128i first = _mm_or_si128(_mm_srli_epi16(block.units, 6), _mm_set1_epi16(0xC0));
  const __m128i second = _mm_or_si128(_mm_and_si128(block.units, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80));
  const __m128i pair = _mm_or_si128(first, _mm_slli_epi16(second, 8));
  return _mm_or_si128(_mm_and_si128(block.isASCII, block.units), _mm_andnot_si128(block.isASCII, pair));
}

// Stores a block of units of at most two bytes. Both bytes of each are stored, and where the second is none the next
// unit takes its place.
template <class Output>
[[gnu::always_inline]] inline void PutShortUnits(const UTF16Block &block, Output &output) {
  const __m128i lanes = ShortUnitLanes(block);
  const unsigned isASCII = BlockMask(block.isASCII);  // two bits for each lane
  const auto put = [&output, isASCII](int lane, unsigned bytes) {
    output.PutSome(static_cast<u16>(bytes), 2 - (isASCII >> (2 * lane) & 1));
  };
  put(0, static_cast<unsigned>(_mm_extract_epi16(lanes, 0)));
  put(1, static_cast<unsigned>(_mm_extract_epi16(lanes, 1)));
  put(2, static_cast<unsigned>(_mm_extract_epi16(lanes, 2)));
  put(3, static_cast<unsigned>(_mm_extract_epi16(lanes, 3)));
  put(4, static_cast<unsigned>(_mm_extract_epi16(lanes, 4)));
  put(5, static_cast<unsigned>(_mm_extract_epi16(lanes, 5)));
  put(6, static_cast<unsigned>(_mm_extract_epi16(lanes, 6)));
  // The last unit has no next: its second byte goes first, and under the first one where there is no second.
  const auto last = static_cast<unsigned>(_mm_extract_epi16(lanes, 7));
  output.PutPair(static_cast<astring>(last), static_cast<astring>(last >> 8), 2 - (isASCII >> 14 & 1));
}

// Stores a block of units of three bytes each. Four bytes are stored, and the next unit takes the last one's place.
template <class Output>
[[gnu::always_inline]] inline void PutLongUnits(const UTF16Block &block, Output &output) {
  const __m128i sixBits = _mm_set1_epi16(0x3F);
  const __m128i first = _mm_or_si128(_mm_srli_epi16(block.units, 12), _mm_set1_epi16(0xE0));
  const __m128i second = _mm_or_si128(_mm_and_si128(_mm_srli_epi16(block.units, 6), sixBits), _mm_set1_epi16(0x80));
  const __m128i third = _mm_or_si128(_mm_and_si128(block.units, sixBits), _mm_set1_epi16(0x80));
  const __m128i pair = _mm_or_si128(first, _mm_slli_epi16(second, 8));
  u32 lanes[kBlockUnits];
  StoreBlock(lanes, _mm_unpacklo_epi16(pair, third));
  StoreBlock(lanes + 4, _mm_unpackhi_epi16(pair, third));
  static_assert(kBlockUnits == 8);
  output.PutSome(lanes[0], 3);
  output.PutSome(lanes[1], 3);
  output.PutSome(lanes[2], 3);
  output.PutSome(lanes[3], 3);
  output.PutSome(lanes[4], 3);
  output.PutSome(lanes[5], 3);
  output.PutSome(lanes[6], 3);
  const u32 last = lanes[kBlockUnits - 1];
  output.PutWord(static_cast<u16>(last));
  output.Put(static_cast<astring>(last >> 16));
}

// Counts the UTF-8 bytes of whole blocks of UTF-16 without surrogates. `p` is at a block's start; returns the start of
// the first block that is not counted.
template <class Output>
[[gnu::always_inline]] inline const ustring *CountBlocksAsUTF8(const ustring *p, Output &output) {
  const __m128i one = _mm_set1_epi16(1);
  const ustring *const start = p;
  __m128i savedCount = _mm_setzero_si128();  // bytes that units take less than three, in two halves
  for (;; p += kBlockUnits) {
    const UTF16Block block(LoadBlock(p));
    if (block.HasZeroOrSurrogate()) break;
    const __m128i saved = _mm_add_epi16(_mm_and_si128(block.isASCII, one), _mm_and_si128(block.isShort, one));
    savedCount = _mm_add_epi64(savedCount, _mm_sad_epu8(saved, _mm_setzero_si128()));
  }
  const __m128i sum = _mm_add_epi64(savedCount, _mm_unpackhi_epi64(savedCount, savedCount));
  output.Skip(3 * static_cast<size_t>(p - start) - static_cast<size_t>(_mm_cvtsi128_si64(sum)));
  return p;
}

// Stores whole blocks of UTF-16 up to the end of the text or a surrogate. `p` is at a block's start; returns the start
// of the first unit that is not stored.
template <class Output>
[[gnu::always_inline]] inline const ustring *PutBlocksAsUTF8(const ustring *p, Output &output) {
  constexpr unsigned kAll = BitRange(0, kBlockSize);
  for (; output.Left() >= 3 * kBlockUnits; p += kBlockUnits) {
    const UTF16Block block(LoadBlock(p));
    if (block.HasZeroOrSurrogate()) break;
    const unsigned isShort = BlockMask(block.isShort);
    if (isShort == 0) {
      PutLongUnits(block, output);
    } else if (isShort != kAll) {
      for (unsigned i = 0; i < kBlockUnits; ++i) PutUnit(p[i], output);
    } else if (BlockMask(block.isASCII) == kAll) {
      output.PutWord(_mm_cvtsi128_si64(_mm_packus_epi16(block.units, block.units)));
    } else {
      PutShortUnits(block, output);
    }
  }
  return p;
}

// Stores a block as PutShortUnits does, with junk behind it up to the size of a block. False where it does not fit.
template <class Output>
ZEBCS_USES_SHUFFLE inline bool ShuffleShortUnits(const UTF16Block &block, bool isJunkOverwritten, Output &output) {
  const unsigned isASCII = BlockMask(_mm_packs_epi16(block.isASCII, _mm_setzero_si128()));
  const Shuffle &drop = kDropSecondBytes[isASCII];
  const __m128i bytes = Shuffled(ShortUnitLanes(block), drop);
  if (isJunkOverwritten) {
    output.PutSome(bytes, drop.count);
  } else {
    if (output.Left() < drop.count) return false;
    output.PutWord(_mm_cvtsi128_si64(bytes));  // no unit takes less than a byte
    astring text[kBlockSize / 2];
    _mm_storel_epi64(reinterpret_cast<__m128i *>(text), _mm_unpackhi_epi64(bytes, bytes));
    output.PutShort(text, drop.count - sizeof text);
  }
  return true;
}

// Stores whole blocks as PutBlocksAsUTF8 does.
template <class Output>
ZEBCS_USES_SHUFFLE const ustring *ShuffleBlocksToUTF8(const ustring *p, Output &result) {
  constexpr unsigned kAll = BitRange(0, kBlockSize);
  Output output = result;
  UTF16Block block(LoadBlock(p));
  bool isCommon = !block.HasZeroOrSurrogate();
  const ustring *const start = p;
  while (isCommon) {
    const UTF16Block next(LoadBlock(p + kBlockUnits));  // which the text reaches: it does not end in this block
    const bool isNextCommon = !next.HasZeroOrSurrogate();
    // A pair of ASCII is for the loop that has nothing else; it has just refused the first pair here.
    const auto isPairASCII = [&] { return BlockMask(_mm_and_si128(block.isASCII, next.isASCII)) == kAll; };
    if (p != start && isNextCommon && isPairASCII()) break;
    const unsigned isShort = BlockMask(block.isShort);
    if (isShort == kAll) {
      // What does not fit of the next block leaves less than a character's bytes of the room.
      if (!ShuffleShortUnits(block, isNextCommon && output.Left() >= kBlockSize + 2, output)) break;
    } else if (output.Left() < 3 * kBlockUnits) {
      break;
    } else if (isShort == 0) {
      PutLongUnits(block, output);
    } else {
      for (unsigned i = 0; i < kBlockUnits; ++i) PutUnit(p[i], output);
    }
    block = next;
    isCommon = isNextCommon;
    p += kBlockUnits;
  }
  result = output;
  return p;
}

// Puts or counts ASCII units, two blocks at a time, up to a pair that has any other unit. `p` is at a block's start.
template <class Output>
[[gnu::always_inline]] inline const ustring *PutASCIIPairs(const ustring *p, Output &output) {
  const __m128i zero = _mm_setzero_si128();
  for (; output.Left() >= 2 * kBlockUnits; p += 2 * kBlockUnits) {
    const __m128i low = LoadBlock(p);
    if (BlockMask(_mm_cmpeq_epi16(low, zero)) != 0) break;  // the text may not reach the second block
    // Saturation keeps 0x01 to 0x7F and makes every other unit a byte that is not positive.
    const __m128i bytes = _mm_packus_epi16(low, LoadBlock(p + kBlockUnits));
    if (BlockMask(_mm_cmpgt_epi8(bytes, zero)) != BitRange(0, kBlockSize)) break;
    output.PutBlock(bytes);
  }
  return p;
}

// Stores the start of a text that begins with units of three bytes, up to the first that has fewer: blocks do not pay
// off for a name. Stops at a surrogate, too, and where a unit does not fit.
template <class Output>
[[gnu::always_inline]] inline const ustring *PutShortTextAsUTF8(const ustring *p, Output &output) {
  constexpr ptrdiff_t kShortText = 16;
  constexpr size_t kUnitSize = 3;
  for (const ustring *const end = p + kShortText; p < end && output.Left() >= kUnitSize; ++p) {
    if (*p < 0x800 || IsSurrogate(*p)) break;
    PutUnit(*p, output);
  }
  return p;
}

// Puts one unit with all checks; a surrogate as the first character of `pText`.
template <class Output>
Conversion PutCheckedUnit(u32 c, const ustring *pText, Output output) {
  s32 status = SM_STATUS_SUCCESS;
  if (IsSurrogate(c)) status = UTF16CharsToUCS4Char(&c, pText);
  if (status == SM_STATUS_SUCCESS) status = PutUCS4AsUTF8(c, output);
  return {status, output.Used()};
}

// UTF-16 to UTF-8. Whole blocks without surrogates go fast, anything else unit by unit.
// Kept: a surrogate unit, wherever it stands, is written as the first character of the whole text.
template <class Output>
Conversion UTF16ToUTF8(const ustring *pSrc, Output output) {
  const ustring *const pText = pSrc;
  const bool canShuffle = Output::kStores && HasShuffle();
  if constexpr (Output::kStores) pSrc = PutShortTextAsUTF8(pSrc, output);
  for (;;) {
    if (IsBlockAligned(pSrc)) {
      pSrc = PutASCIIPairs(pSrc, output);
      if constexpr (Output::kStores) {
        const ustring *const start = pSrc;
        pSrc = canShuffle ? ShuffleBlocksToUTF8(pSrc, output) : PutBlocksAsUTF8(pSrc, output);
        if (pSrc != start) continue;
      } else {
        pSrc = CountBlocksAsUTF8(pSrc, output);
      }
    }
    do {
      const u32 c = *pSrc;
      if (c == 0) return {SM_STATUS_SUCCESS, output.Used()};
      if (!IsSurrogate(c) && output.Left() >= UTF8Length(c)) {
        PutUnit(c, output);
      } else {
        const Conversion result = PutCheckedUnit(c, pText, output);
        if (result.status != SM_STATUS_SUCCESS) return result;
        output.Skip(result.used - output.Used());
      }
      ++pSrc;
    } while (!IsBlockAligned(pSrc));
  }
}

}  // namespace

s32 UCS2StrToUTF8Str(astring *pDest, u32 *pDestSize, const ustring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  return RunSized(pDest, pDestSize, [pSrc](auto output) { return UTF16ToUTF8(pSrc, output); });
}

s32 UTF8StrToUCS2Str(ustring *pDest, u32 *pDestSize, const astring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  // Kept: the caller's size counts as that many units, while the size stored is in bytes.
  return RunSized(pDest, pDestSize,
                  [pSrc](auto output) { return UTF8ToUTF16(reinterpret_cast<const u8 *>(pSrc), output); });
}

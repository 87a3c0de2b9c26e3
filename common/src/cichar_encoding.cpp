// Conversion between UTF-8, UTF-16 and UCS-4, XML escaping, backslash escapes and hex dumps.
#include <algorithm>
#include <array>
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

// Counts the UTF-16 units of whole blocks of UTF-8 in which every sequence has one to three bytes and its continuation
// bytes are in their places. `p` is at a block's start; returns the start of the first character that is not counted.
template <class Output>
[[gnu::always_inline]] inline const u8 *CountBlocksAsUTF16(const u8 *p, Output &output) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i three = _mm_set1_epi8(static_cast<char>(0xE0));
  const __m128i four = _mm_set1_epi8(static_cast<char>(0xF0));
  const u8 *const start = p;
  __m128i continuationCount = zero;  // in two halves
  unsigned expected = 0;             // where continuation bytes must be, a bit for each byte from p on
  for (;; p += kBlockSize) {
    const __m128i block = LoadBlock(p);
    const __m128i isEndOrLong =
        _mm_or_si128(_mm_cmpeq_epi8(block, zero), _mm_cmpeq_epi8(_mm_max_epu8(block, four), block));
    const __m128i isContinuation = _mm_cmplt_epi8(block, _mm_set1_epi8(static_cast<char>(0xC0)));
    const unsigned continuations = BlockMask(isContinuation);
    const unsigned leads = BlockMask(block) & ~continuations;
    const unsigned threes = BlockMask(_mm_cmpeq_epi8(_mm_max_epu8(block, three), block));
    const unsigned expectedHere = expected | leads << 1 | threes << 2;
    if (BlockMask(isEndOrLong) != 0 || (expectedHere & BitRange(0, kBlockSize)) != continuations) break;
    expected = expectedHere >> kBlockSize;
    continuationCount = _mm_add_epi64(continuationCount, _mm_sad_epu8(_mm_sub_epi8(zero, isContinuation), zero));
  }
  const __m128i sum = _mm_add_epi64(continuationCount, _mm_unpackhi_epi64(continuationCount, continuationCount));
  output.Skip(static_cast<size_t>(p - start) - static_cast<size_t>(_mm_cvtsi128_si64(sum)));
  if (expected == 0) return p;
  // The last character reaches into the block at p: it is not counted after all.
  output.TakeBack(1);
  do --p;
  while ((*p & 0xC0) == 0x80);
  return p;
}

// UTF-8 to UTF-16. Whole blocks of ASCII and stretches of common text go fast, anything else character by character.
template <class Output>
Conversion UTF8ToUTF16(const u8 *pSrc, Output output) {
  const __m128i zero = _mm_setzero_si128();
  for (;;) {
    if (IsBlockAligned(pSrc)) {
      for (; output.Left() >= kBlockSize; pSrc += kBlockSize) {
        const __m128i block = LoadBlock(pSrc);
        if (BlockMask(_mm_cmpgt_epi8(block, zero)) != BitRange(0, kBlockSize)) break;  // not all of 0x01 to 0x7F
        output.PutBlock(_mm_unpacklo_epi8(block, zero));
        output.PutBlock(_mm_unpackhi_epi8(block, zero));
      }
      if constexpr (!Output::kStores) pSrc = CountBlocksAsUTF16(pSrc, output);
    }
    // Counting goes by stretches only up to the next block, which may be one to count as a whole again.
    const u8 *end = StretchEnd(pSrc, Output::kStores ? kStretchBlocks : 1);
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

// UCS-4 to UTF-8, one character with all checks.
template <class Output>
s32 PutUCS4AsUTF8(u32 c, Output &output) {
  const size_t length = UTF8Length(c);
  if (length == 0) return SM_STATUS_BAD_DATA;
  if (output.Left() < length) return SM_STATUS_BUFFER_TOO_SMALL;
  PutUTF8(output, c, length);
  return SM_STATUS_SUCCESS;
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

// Stores a block of units of at most two bytes. Each lane holds a unit's bytes, the first one lowest; both are stored,
// and where the second is none the next unit takes its place.
template <class Output>
[[gnu::always_inline]] inline void PutShortUnits(const UTF16Block &block, Output &output) {
  const __m128i first = _mm_or_si128(_mm_srli_epi16(block.units, 6), _mm_set1_epi16(0xC0));
  const __m128i second = _mm_or_si128(_mm_and_si128(block.units, _mm_set1_epi16(0x3F)), _mm_set1_epi16(0x80));
  const __m128i pair = _mm_or_si128(first, _mm_slli_epi16(second, 8));
  const __m128i lanes = _mm_or_si128(_mm_and_si128(block.isASCII, block.units), _mm_andnot_si128(block.isASCII, pair));
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
  for (unsigned i = 0; i + 1 < kBlockUnits; ++i) output.PutSome(lanes[i], 3);
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

// Puts or counts ASCII units, two blocks at a time, up to a pair that has any other unit. `p` is at an even block's
// start: the two blocks of a pair lie in the same page, so that both may be loaded.
template <class Output>
[[gnu::always_inline]] inline const ustring *PutASCIIPairs(const ustring *p, Output &output) {
  for (; output.Left() >= 2 * kBlockUnits; p += 2 * kBlockUnits) {
    // Saturation keeps 0x01 to 0x7F and makes every other unit a byte that is not positive.
    const __m128i bytes = _mm_packus_epi16(LoadBlock(p), LoadBlock(p + kBlockUnits));
    if (BlockMask(_mm_cmpgt_epi8(bytes, _mm_setzero_si128())) != BitRange(0, kBlockSize)) break;
    output.PutBlock(bytes);
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
  for (;;) {
    if (IsPairAligned(pSrc)) pSrc = PutASCIIPairs(pSrc, output);
    if (IsBlockAligned(pSrc)) {
      if constexpr (Output::kStores) {
        pSrc = PutBlocksAsUTF8(pSrc, output);
      } else {
        pSrc = CountBlocksAsUTF8(pSrc, output);
      }
    }
    do {
      const u32 c = *pSrc;
      if (c == 0) return {SM_STATUS_SUCCESS, output.Used()};
      if (!IsSurrogate(c) && output.Left() >= 3) {
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

template <class Output>
Conversion UCS4ToUTF8(const u32 *pSrc, Output output) {
  for (; *pSrc != 0; ++pSrc) {
    if (const s32 status = PutUCS4AsUTF8(*pSrc, output); status != SM_STATUS_SUCCESS) return {status, output.Used()};
  }
  return {SM_STATUS_SUCCESS, output.Used()};
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

// What each byte becomes in escaped text: its entity or itself, filled up to a size that is stored at once.
struct XMLPiece {
  std::array<char, 8> text;
  size_t length;
};

constexpr auto kXMLPieces = [] {
  std::array<XMLPiece, 256> pieces{};
  for (u32 c = 0; c < pieces.size(); ++c) {
    const std::string_view entity = XMLEntity(c);
    if (entity.empty()) {
      pieces[c] = {{static_cast<char>(c)}, 1};
    } else {
      pieces[c].length = entity.size();
      std::copy(entity.begin(), entity.end(), pieces[c].text.begin());
    }
  }
  return pieces;
}();

constexpr size_t kMaxXMLPiece = 6;

// The bytes of a block that XML reserves.
inline __m128i IsXMLReserved(__m128i block) {
  // "&" and "'" differ in the lowest bit, "<" and ">" in the second lowest: one comparison serves two.
  const __m128i ampOrApos = _mm_cmpeq_epi8(_mm_or_si128(block, _mm_set1_epi8(1)), _mm_set1_epi8('\''));
  const __m128i angles = _mm_cmpeq_epi8(_mm_or_si128(block, _mm_set1_epi8(2)), _mm_set1_epi8('>'));
  return _mm_or_si128(_mm_or_si128(ampOrApos, angles), _mm_cmpeq_epi8(block, _mm_set1_epi8('"')));
}

// Escapes a block with nothing but text in it and in the next block, reserved characters at `reserved`. The room is
// that of both blocks at their longest. Runs and entities are stored in fixed sizes, and the junk behind them is
// overwritten by the text of this and the next block.
template <class Output>
[[gnu::always_inline]] inline void PutEscapedBlock(const astring *base, unsigned index, unsigned reserved,
                                                   Output &output) {
  for (; reserved != 0; reserved &= reserved - 1) {
    const unsigned special = FirstIn(reserved);
    output.PutSome(_mm_loadu_si128(reinterpret_cast<const __m128i *>(base + index)), special - index);
    const XMLPiece &piece = kXMLPieces[static_cast<u8>(base[special])];
    output.PutSome(piece.text, piece.length);
    index = special + 1;
  }
  output.PutSome(_mm_loadu_si128(reinterpret_cast<const __m128i *>(base + index)), kBlockSize - index);
}

// Copies blocks, two at a time, up to the first pair that ends the text or has a reserved character. `p` is at an even
// block's start; the two blocks of a pair lie in the same page, so that both may be loaded.
template <class Output>
[[gnu::always_inline]] inline const astring *PutPlainBlocks(const astring *p, Output &output) {
  const __m128i zero = _mm_setzero_si128();
  for (; output.Left() >= 2 * kBlockSize; p += 2 * kBlockSize) {
    const __m128i block1 = LoadBlock(p);
    const __m128i block2 = LoadBlock(p + kBlockSize);
    const __m128i hasZero = _mm_cmpeq_epi8(_mm_min_epu8(block1, block2), zero);
    const __m128i isReserved = _mm_or_si128(IsXMLReserved(block1), IsXMLReserved(block2));
    if (BlockMask(_mm_or_si128(hasZero, isReserved)) != 0) break;
    output.PutBlock(block1);
    output.PutBlock(block2);
  }
  return p;
}

template <class Output>
Conversion EscapeXML(const astring *pSrc, Output output, booln &wasConverted) {
  const __m128i zero = _mm_setzero_si128();
  for (;;) {
    if (IsPairAligned(pSrc)) pSrc = PutPlainBlocks(pSrc, output);
    const BlockPosition position = BlockOf(pSrc);
    const astring *const base = static_cast<const astring *>(position.base);
    const __m128i block = LoadBlock(base);
    const unsigned zeros = BlockMask(_mm_cmpeq_epi8(block, zero)) & BitRange(position.index, kBlockSize);
    const unsigned end = zeros == 0 ? kBlockSize : FirstIn(zeros);
    const unsigned reserved = BlockMask(IsXMLReserved(block)) & BitRange(position.index, end);
    if constexpr (!Output::kStores) {
      if (reserved != 0) wasConverted = 1;
      output.Skip(end - position.index);
      for (unsigned rest = reserved; rest != 0; rest &= rest - 1) {
        output.Skip(kXMLPieces[static_cast<u8>(base[FirstIn(rest)])].length - 1);
      }
    } else if (reserved == 0 && output.Left() >= kBlockSize) {
      if (end - position.index == kBlockSize) {
        output.PutBlock(block);
      } else {
        output.PutShort(pSrc, end - position.index);
      }
    } else if (zeros == 0 && output.Left() >= 2 * kBlockSize * kMaxXMLPiece &&
               BlockMask(_mm_cmpeq_epi8(LoadBlock(base + kBlockSize), zero)) == 0) {
      wasConverted = 1;
      PutEscapedBlock(base, position.index, reserved, output);
    } else {
      for (const astring *p = pSrc; p < base + end; ++p) {
        const XMLPiece &piece = kXMLPieces[static_cast<u8>(*p)];
        if (piece.length > 1) wasConverted = 1;
        if (output.Left() < piece.length) return {SM_STATUS_BUFFER_TOO_SMALL, output.Used()};
        output.PutShort(piece.text.data(), piece.length);
      }
    }
    if (zeros != 0) return {SM_STATUS_SUCCESS, output.Used()};
    pSrc = base + kBlockSize;
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
  return RunSized(pDest, pDestSize, [pSrc](auto output) { return UTF16ToUTF8(pSrc, output); });
}

s32 UCS4StrToUTF8Str(astring *pDest, u32 *pDestSize, const u32 *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  return RunSized(pDest, pDestSize, [pSrc](auto output) { return UCS4ToUTF8(pSrc, output); });
}

s32 UTF8StrToUCS2Str(ustring *pDest, u32 *pDestSize, const astring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  // Kept: the caller's size counts as that many units, while the size stored is in bytes.
  return RunSized(pDest, pDestSize,
                  [pSrc](auto output) { return UTF8ToUTF16(reinterpret_cast<const u8 *>(pSrc), output); });
}

s32 UTF8StrToXMLUTF8Str(astring *pDest, u32 *pDestSize, booln *pWasConverted, const astring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  booln wasConverted = 0;
  const s32 status =
      RunSized(pDest, pDestSize, [pSrc, &wasConverted](auto output) { return EscapeXML(pSrc, output, wasConverted); });
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

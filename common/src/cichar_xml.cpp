// Escaping for XML.
#include "cichar_xml.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "size_protocol.h"
#include "zebcs/encoding.h"

namespace {

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

// Escapes the bytes of a block from `index` up to `end`, reserved characters at `reserved`. Runs and entities are
// stored in fixed sizes: up to a block's size behind the block is read, and behind the output is written.
template <class Output>
[[gnu::always_inline]] inline void PutEscapedBlock(const astring *base, unsigned index, unsigned end, unsigned reserved,
                                                   Output &output) {
  for (; reserved != 0; reserved &= reserved - 1) {
    const unsigned special = FirstIn(reserved);
    output.PutSome(_mm_loadu_si128(reinterpret_cast<const __m128i *>(base + index)), special - index);
    const XMLPiece &piece = kXMLPieces[static_cast<u8>(base[special])];
    output.PutSome(piece.text, piece.length);
    index = special + 1;
  }
  output.PutSome(_mm_loadu_si128(reinterpret_cast<const __m128i *>(base + index)), end - index);
}

// Does the same beside the text and the output, and copies what comes of it. False where that does not fit.
template <class Output>
bool PutEscapedBlockExactly(__m128i block, unsigned index, unsigned end, unsigned reserved, Output &output) {
  astring text[2 * kBlockSize];
  StoreBlock(text, block);
  StoreBlock(text + kBlockSize, block);
  astring escaped[kBlockSize * kMaxXMLPiece + kBlockSize];
  SizedOutput<astring, true> aside(escaped, sizeof escaped);
  PutEscapedBlock(text, index, end, reserved, aside);
  if (output.Left() < aside.Used()) return false;
  output.PutRun(escaped, aside.Used());
  return true;
}

// Copies blocks, two at a time, up to the first pair that ends the text or has a reserved character. `p` is at a
// block's start.
template <class Output>
[[gnu::always_inline]] inline const astring *PutPlainBlocks(const astring *p, Output &output) {
  const __m128i zero = _mm_setzero_si128();
  for (; output.Left() >= 2 * kBlockSize; p += 2 * kBlockSize) {
    const __m128i block1 = LoadBlock(p);
    if (BlockMask(_mm_cmpeq_epi8(block1, zero)) != 0) break;  // the text may not reach the second block
    const __m128i block2 = LoadBlock(p + kBlockSize);
    const __m128i isReserved = _mm_or_si128(IsXMLReserved(block1), IsXMLReserved(block2));
    if (BlockMask(_mm_or_si128(_mm_cmpeq_epi8(block2, zero), isReserved)) != 0) break;
    output.PutBlock(block1);
    output.PutBlock(block2);
  }
  return p;
}

template <class Output>
Conversion EscapeXML(const astring *pSrc, Output output, booln &wasConverted) {
  const __m128i zero = _mm_setzero_si128();
  for (;;) {
    if (IsBlockAligned(pSrc)) pSrc = PutPlainBlocks(pSrc, output);
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
      // The junk behind the output gives way to the next block's text.
      wasConverted = 1;
      PutEscapedBlock(base, position.index, kBlockSize, reserved, output);
    } else if (reserved != 0 && PutEscapedBlockExactly(block, position.index, end, reserved, output)) {
      wasConverted = 1;
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

// Converts into new memory of the size that the conversion asks for.
template <class Convert>
MallocPtr<astring> NewText(s32 *pStatus, Convert convert) {
  u32 size = 0;
  s32 status = convert(nullptr, &size);
  MallocPtr<astring> text;
  if (status == SM_STATUS_SUCCESS) {
    text = MallocArray<astring>(size);
    status = text ? convert(text.get(), &size) : SM_STATUS_NO_MEMORY;
  }
  if (status != SM_STATUS_SUCCESS) text.reset();
  if (pStatus != nullptr) *pStatus = status;
  return text;
}

}  // namespace

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

s32 UTF8StrToXMLUTF8Str(astring *pDest, u32 *pDestSize, booln *pWasConverted, const astring *pSrc) {
  if (pDestSize == nullptr || pSrc == nullptr) return SM_STATUS_INVALID_INPUT;
  booln wasConverted = 0;
  const s32 status =
      RunSized(pDest, pDestSize, [pSrc, &wasConverted](auto output) { return EscapeXML(pSrc, output, wasConverted); });
  if (pWasConverted != nullptr) *pWasConverted = wasConverted;
  return status;
}

MallocPtr<astring> EscapedXML(const astring *pStr, u32 passes, s32 *pStatus) {
  MallocPtr<astring> text;
  const astring *source = pStr;
  for (u32 pass = 1;; ++pass) {
    booln wasConverted = 0;
    MallocPtr<astring> escaped = NewText(pStatus, [&wasConverted, source](astring *pDest, u32 *pDestSize) {
      return UTF8StrToXMLUTF8Str(pDest, pDestSize, &wasConverted, source);
    });
    text = std::move(escaped);
    if (!text || wasConverted == 0 || pass >= passes) return text;
    source = text.get();
  }
}

MallocPtr<astring> EscapedXML(const ustring *pStr, u32 passes, s32 *pStatus) {
  const MallocPtr<astring> narrow =
      NewText(pStatus, [pStr](astring *pDest, u32 *pDestSize) { return UCS2StrToUTF8Str(pDest, pDestSize, pStr); });
  return narrow ? EscapedXML(narrow.get(), passes, pStatus) : nullptr;
}

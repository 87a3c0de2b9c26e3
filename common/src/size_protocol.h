// The size protocol of the string converters, written once.
//
// A converter is one function template over an output: a counting one answers how much room is needed, a storing one
// fills the caller's buffer, so that asking and writing cannot disagree. RunSized picks the output, puts the
// terminator and stores the size.
#ifndef ZEBCS_SRC_SIZE_PROTOCOL_H
#define ZEBCS_SRC_SIZE_PROTOCOL_H

#include <cstddef>
#include <cstring>

#include "blocks.h"
#include "zebcs/types.h"

// Output of `Unit`s that counts and, if kStores, stores. The Put functions do not check the room: a converter asks
// Left() first.
template <class UnitType, bool kStoresUnits>
class SizedOutput {
 public:
  using Unit = UnitType;
  static constexpr bool kStores = kStoresUnits;

  SizedOutput(Unit *pDest, std::size_t roomUnits) : m_dest(pDest), m_room(roomUnits) {}

  std::size_t Left() const { return m_room - m_used; }
  std::size_t Used() const { return m_used; }

  void Put(Unit unit) {
    if constexpr (kStores) m_dest[m_used] = unit;
    ++m_used;
  }

  // A run of less than 16 units, which is too short to be worth a call of memcpy.
  void PutShort(const Unit *units, std::size_t count) {
    if constexpr (kStores) {
      Unit *dest = m_dest + m_used;
      PutPart<8>(dest, units, count);
      PutPart<4>(dest, units, count);
      PutPart<2>(dest, units, count);
      PutPart<1>(dest, units, count);
    }
    m_used += count;
  }

  void PutRun(const Unit *units, std::size_t count) {
    if constexpr (kStores) std::memcpy(m_dest + m_used, units, count * sizeof(Unit));
    m_used += count;
  }

  // Stores all of `units` but counts only the first `count`: the rest is junk that later output must overwrite.
  template <class Units>
  void PutSome(const Units &units, std::size_t count) {
    if constexpr (kStores) std::memcpy(m_dest + m_used, &units, sizeof units);
    m_used += count;
  }

  // Stores two units, or, for a count of 1, the first of them alone, without a branch.
  void PutPair(Unit first, Unit second, std::size_t count) {
    if constexpr (kStores) {
      m_dest[m_used + count - 1] = second;
      m_dest[m_used] = first;
    }
    m_used += count;
  }

  void PutBlock(__m128i block) {
    if constexpr (kStores) StoreBlock(m_dest + m_used, block);
    m_used += kBlockSize / sizeof(Unit);
  }

  // Stores the bytes of a number, lowest first.
  template <class Word>
  void PutWord(Word word) {
    if constexpr (kStores) std::memcpy(m_dest + m_used, &word, sizeof word);
    m_used += sizeof word / sizeof(Unit);
  }

  // Count units that were put elsewhere, and fewer of them.
  void Skip(std::size_t count) { m_used += count; }
  void TakeBack(std::size_t count) { m_used -= count; }

 private:
  // Copies as many units as the name says if the count has them among its powers of two.
  template <std::size_t kUnits>
  static void PutPart(Unit *&dest, const Unit *&units, std::size_t count) {
    if ((count & kUnits) == 0) return;
    std::memcpy(dest, units, kUnits * sizeof(Unit));
    dest += kUnits;
    units += kUnits;
  }

  Unit *m_dest;
  std::size_t m_room;
  std::size_t m_used = 0;
};

// What came of a conversion. A converter works on an output of its own, which the compiler keeps in registers.
struct Conversion {
  s32 status;
  std::size_t used;
};

// Runs `convert`, a callable from an output to a Conversion, under the size protocol.
template <class Unit, class Convert>
s32 RunSized(Unit *pDest, u32 *pDestSize, Convert convert) {
  std::size_t needed = 0;
  if (pDest == nullptr) {
    const Conversion result = convert(SizedOutput<Unit, false>(nullptr, SIZE_MAX));
    if (result.status != SM_STATUS_SUCCESS) return result.status;
    needed = result.used + 1;
  } else {
    const Conversion result = convert(SizedOutput<Unit, true>(pDest, *pDestSize));
    if (result.status != SM_STATUS_SUCCESS) return result.status;
    if (result.used == *pDestSize) return SM_STATUS_BUFFER_TOO_SMALL;
    pDest[result.used] = 0;
    needed = result.used + 1;
  }
  if (needed > UINT32_MAX / sizeof(Unit)) return SM_STATUS_INVALID_INPUT;
  *pDestSize = static_cast<u32>(needed * sizeof(Unit));
  return SM_STATUS_SUCCESS;
}

#endif

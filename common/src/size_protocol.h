// The size protocol of the string converters, written once.
//
// A converter is one loop over an output: a counting one answers how much room is needed, a storing one fills the
// caller's buffer, so that asking and writing cannot disagree. RunSized picks the output, puts the terminator and
// stores the size.
#ifndef ZEBCS_SRC_SIZE_PROTOCOL_H
#define ZEBCS_SRC_SIZE_PROTOCOL_H

#include <cstddef>
#include <cstring>

#include "blocks.h"
#include "zebcs/types.h"

// Output of `Unit`s that counts and, if kStores, stores. The Put functions do not check the room: a converter asks
// Left() first, once for as many characters as are sure to fit.
template <class Unit, bool kStores>
class SizedOutput {
 public:
  SizedOutput(Unit *pDest, std::size_t roomUnits) : m_dest(pDest), m_room(roomUnits) {}

  std::size_t Left() const { return m_room - m_used; }
  std::size_t Used() const { return m_used; }

  void Put(Unit unit) {
    if constexpr (kStores) m_dest[m_used] = unit;
    ++m_used;
  }

  void Put(const Unit *units, std::size_t count) {
    if constexpr (kStores) std::memcpy(m_dest + m_used, units, count * sizeof(Unit));
    m_used += count;
  }

  // A run too short to be worth a call of memcpy.
  void PutShort(const Unit *units, std::size_t count) {
    if constexpr (kStores) {
      for (std::size_t i = 0; i < count; ++i) m_dest[m_used + i] = units[i];
    }
    m_used += count;
  }

  void PutBlock(__m128i block) {
    if constexpr (kStores) StoreBlock(m_dest + m_used, block);
    m_used += kBlockSize / sizeof(Unit);
  }

 private:
  Unit *m_dest;
  std::size_t m_room;
  std::size_t m_used = 0;
};

// Runs `convert`, a status-returning callable that takes an output, under the size protocol.
template <class Unit, class Convert>
s32 RunSized(Unit *pDest, u32 *pDestSize, Convert convert) {
  std::size_t used = 0;
  if (pDest == nullptr) {
    SizedOutput<Unit, false> output(nullptr, SIZE_MAX);
    if (const s32 status = convert(output); status != SM_STATUS_SUCCESS) return status;
    used = output.Used() + 1;
  } else {
    SizedOutput<Unit, true> output(pDest, *pDestSize);
    if (const s32 status = convert(output); status != SM_STATUS_SUCCESS) return status;
    if (output.Left() == 0) return SM_STATUS_BUFFER_TOO_SMALL;
    output.Put(Unit{0});
    used = output.Used();
  }
  if (used > UINT32_MAX / sizeof(Unit)) return SM_STATUS_INVALID_INPUT;
  *pDestSize = static_cast<u32>(used * sizeof(Unit));
  return SM_STATUS_SUCCESS;
}

#endif

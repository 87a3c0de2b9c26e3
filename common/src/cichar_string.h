// Growth of self-sizing strings, for the units that write into one what they have not built elsewhere first.
#ifndef ZEBCS_SRC_CICHAR_STRING_H
#define ZEBCS_SRC_CICHAR_STRING_H

#include <algorithm>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "owners.h"
#include "zebcs/unistr.h"

// The size in bytes of the buffer that takes the place of one of `size` bytes, for text that needs `needed` of them.
inline u32 GrownSize(u32 size, u32 needed) {
  constexpr u32 kDoublingLimit = 0xFFFFF;  // buffers up to this size double, larger ones grow by a quarter
  // Kept: the product wraps at 32 bits, so that a buffer above 34 MB may grow by less; the need is always met.
  const u32 grown = size <= kDoublingLimit ? 2 * size : size * 125u / 100u;
  return std::max(grown, needed);
}

// The slow path of AppendWith: moves the text to a larger buffer. What `write` reads may be in the old one.
template <class String, class Write>
[[gnu::noinline]] bool RegrowWith(String &string, u32 newSize, Write &write) {
  using Unit = std::remove_pointer_t<decltype(string.pStr)>;
  MallocPtr<Unit> grown = MallocArray<Unit>(newSize / sizeof(Unit));
  if (!grown) return false;
  std::memcpy(grown.get(), string.pStr, string.strCurLen * sizeof(Unit));
  write(grown.get() + string.strCurLen);
  // The narrow form's new buffer ends in a zero, whatever the text's length.
  if constexpr (sizeof(Unit) == 1) grown.get()[newSize - 1] = 0;
  std::free(string.pStr);
  string.pStr = grown.release();
  string.strBufSize = newSize;
  return true;
}

// Appends the `length` units that `write` puts where it is told; it may put a terminator behind them. The string stays
// as it is when it has no buffer, when memory runs out, and when it would be longer than its record can count.
template <class String, class Write>
void AppendWith(String &string, size_t length, Write write) {
  if (string.pStr == nullptr) return;
  const u64 needed = (u64{string.strCurLen} + length + 1) * sizeof *string.pStr;
  if (needed <= string.strBufSize) {
    write(string.pStr + string.strCurLen);
  } else if (needed > UINT32_MAX ||
             !RegrowWith(string, GrownSize(string.strBufSize, static_cast<u32>(needed)), write)) {
    return;
  }
  string.strCurLen += static_cast<u32>(length);
  string.pStr[string.strCurLen] = 0;
}

// Text that is put together from pieces. NULL from get when there was no memory for all of it.
class BuiltText {
 public:
  explicit BuiltText(u32 room) : m_isWhole(SSAStrAlloc(&m_text, room) != nullptr) {}
  BuiltText(const BuiltText &) = delete;
  BuiltText &operator=(const BuiltText &) = delete;
  ~BuiltText() { SSAStrFree(&m_text); }

  void Add(std::string_view piece) {
    AddWith(piece.size(), [=](astring *p) { std::memcpy(p, piece.data(), piece.size()); });
  }

  // Adds the `length` bytes that `write` puts where it is told, as AppendWith.
  template <class Write>
  void AddWith(size_t length, Write write) {
    const size_t lengthBefore = m_text.strCurLen;
    AppendWith(m_text, length, write);
    if (m_text.strCurLen != lengthBefore + length) m_isWhole = false;
  }

  // Adds 16-bit text, of which there must be some, in UTF-8.
  void AddWide(const ustring *pText) {
    const size_t lengthBefore = m_text.strCurLen;
    (void)SSAStrCatUStr(&m_text, pText);  // tells of a failure only by a length that stays
    if (m_text.strCurLen == lengthBefore) m_isWhole = false;
  }

  const astring *get() const { return m_isWhole ? m_text.pStr : nullptr; }
  size_t size() const { return m_text.strCurLen; }

 private:
  KCSSSAStr m_text{};
  bool m_isWhole;
};

#endif

// 16-bit strings under their outside names, the narrow comparison, and self-sizing strings.
#include "cichar_string.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "owners.h"
#include "zebcs/encoding.h"
#include "zebcs/unistr.h"

u32 UniStrlen(const ustring *pStr) { return static_cast<u32>(Uni_strlen(pStr)); }
ustring *UniStrcpy(ustring *pDest, const ustring *pSrc) { return Uni_strcpy(pDest, pSrc); }
ustring *UniStrcat(ustring *pDest, const ustring *pSrc) { return Uni_strcat(pDest, pSrc); }
ustring *UniStrncpy(ustring *pDest, const ustring *pSrc, u32 count) { return Uni_strncpy(pDest, pSrc, count); }
ustring *UniStrncat(ustring *pDest, const ustring *pSrc, u32 count) { return Uni_strncat(pDest, pSrc, count); }
s32 UniStrcmp(const ustring *pStr1, const ustring *pStr2) { return Uni_strcmp(pStr1, pStr2); }
ustring *UniStrchr(const ustring *pStr, s32 ch) { return Uni_strchr(pStr, static_cast<ustring>(ch)); }
ustring *UniStrstr(const ustring *pStr, const ustring *pFind) { return Uni_strstr(pStr, pFind); }
u32 UniStrspn(const ustring *pStr, const ustring *pSet) { return static_cast<u32>(Uni_strspn(pStr, pSet)); }
u32 UniStrcspn(const ustring *pStr, const ustring *pSet) { return static_cast<u32>(Uni_strcspn(pStr, pSet)); }
ustring *UniStrtok(ustring *pStr, const ustring *pDelims) { return Uni_strtok(pStr, pDelims); }
ustring *UniStrset(ustring *pStr, s32 ch) { return Uni_strset(pStr, static_cast<ustring>(ch)); }
ustring *UniStrnset(ustring *pStr, s32 ch, u32 count) { return Uni_strnset(pStr, static_cast<ustring>(ch), count); }
ustring *UniStrrev(ustring *pStr) { return Uni_strrev(pStr); }

s32 AStrnicmp(const astring *pStr1, const astring *pStr2, u32 count) {
  // Kept: folds to lower case where Uni_strncasecmp folds to upper; "_" sorts before the letters here.
  const auto toLower = [](astring ch) -> s32 {
    const u8 byte = static_cast<u8>(ch);
    return byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte;
  };
  for (; count > 0; --count, ++pStr1, ++pStr2) {
    const s32 difference = toLower(*pStr1) - toLower(*pStr2);
    if (difference != 0 || *pStr1 == 0) return difference;
  }
  return 0;
}

// Self-sizing strings. The two forms are one piece of code over the record type and its unit.
namespace {

template <class String, class Unit>
Unit *Append(String *pString, const Unit *text, size_t length) {
  if (pString == nullptr) return nullptr;
  if (text == nullptr) return pString->pStr;
  AppendWith(*pString, length, [=](Unit *dest) { std::memcpy(dest, text, length * sizeof(Unit)); });
  return pString->pStr;
}

template <class Unit, class String>
Unit *Allocate(String *pString, u32 size) {
  if (pString == nullptr || size == 0) return nullptr;
  pString->pStr = static_cast<Unit *>(std::malloc(std::max<size_t>(size, sizeof(Unit))));
  if (pString->pStr == nullptr) return nullptr;
  pString->strBufSize = size;
  pString->pStr[0] = 0;
  pString->strCurLen = 0;
  return pString->pStr;
}

template <class String>
void Release(String *pString) {
  if (pString == nullptr) return;
  std::free(pString->pStr);
  *pString = {};
}

// A temporary for a conversion, on the stack while it is short. Null from Get means that memory ran out.
template <class Unit>
class Scratch {
 public:
  Unit *Get(size_t count) {
    if (count <= kStackUnits) return m_stack;
    m_heap = MallocArray<Unit>(count);
    return m_heap.get();
  }

 private:
  static constexpr size_t kStackUnits = 512;
  MallocPtr<Unit> m_heap;
  Unit m_stack[kStackUnits];
};

}  // namespace

ustring *SSUStrAlloc(KCSSSUStr *pSSU, u32 size) { return Allocate<ustring>(pSSU, size); }
astring *SSAStrAlloc(KCSSSAStr *pSSA, u32 size) { return Allocate<astring>(pSSA, size); }

ustring *SSUStrCatUStr(KCSSSUStr *pSSU, const ustring *pStr) {
  return Append(pSSU, pStr, pStr == nullptr ? 0 : Uni_strlen(pStr));
}

astring *SSAStrCatAStr(KCSSSAStr *pSSA, const astring *pStr) {
  return Append(pSSA, pStr, pStr == nullptr ? 0 : std::strlen(pStr));
}

ustring *SSUStrCatAStr(KCSSSUStr *pSSU, const astring *pStr) {
  if (pSSU == nullptr) return nullptr;
  if (pStr == nullptr || pSSU->pStr == nullptr) return pSSU->pStr;
  const size_t room = std::strlen(pStr) + 1;  // no UTF-8 text has more units than bytes
  Scratch<ustring> scratch;
  ustring *const converted = room <= UINT32_MAX / sizeof(ustring) ? scratch.Get(room) : nullptr;
  u32 size = static_cast<u32>(room);
  if (converted == nullptr || UTF8StrToUCS2Str(converted, &size, pStr) != SM_STATUS_SUCCESS) return pSSU->pStr;
  // A code point 0 in a long form ends the appended text, so its length is counted and not taken from the size.
  return SSUStrCatUStr(pSSU, converted);
}

astring *SSAStrCatUStr(KCSSSAStr *pSSA, const ustring *pStr) {
  if (pSSA == nullptr) return nullptr;
  if (pStr == nullptr || pSSA->pStr == nullptr) return pSSA->pStr;
  u32 size = 0;
  if (UCS2StrToUTF8Str(nullptr, &size, pStr) != SM_STATUS_SUCCESS) return pSSA->pStr;
  Scratch<astring> scratch;
  astring *const converted = scratch.Get(size);
  if (converted == nullptr || UCS2StrToUTF8Str(converted, &size, pStr) != SM_STATUS_SUCCESS) return pSSA->pStr;
  return Append(pSSA, converted, size - 1);
}

void SSUStrFree(KCSSSUStr *pSSU) { Release(pSSU); }
void SSAStrFree(KCSSSAStr *pSSA) { Release(pSSA); }

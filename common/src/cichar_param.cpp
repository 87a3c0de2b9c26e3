// Parameter lists: arrays of "name=value" texts.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <cwctype>

#include "owners.h"
#include "zebcs/param.h"
#include "zebcs/unistr.h"

namespace {

// What points into an entry has no const: it depends on what the caller passed.
template <class Unit>
Unit *Mutable(const Unit *p) {
  return const_cast<Unit *>(p);
}

template <class Unit>
u32 NameLength(const Unit *pEntry) {
  if (pEntry == nullptr) return 0;
  const Unit *p = pEntry;
  while (*p != '=' && *p != 0) ++p;
  return *p == '=' ? static_cast<u32>(p - pEntry) : 0;
}

template <class Unit>
Unit *CutOffName(Unit *pEntry) {
  const u32 length = NameLength(pEntry);
  if (length == 0) return nullptr;
  pEntry[length] = 0;
  return pEntry;
}

template <class Unit>
Unit *ValueOf(const Unit *pEntry) {
  const u32 length = NameLength(pEntry);
  return length == 0 ? nullptr : Mutable(pEntry) + length + 1;
}

// Whether an entry answers to a name, which may be followed by "=" and any text.
bool Matches(const astring *pEntry, const astring *pName, bool ignoreCase) {
  const auto fold = [ignoreCase](astring c) { return ignoreCase ? std::tolower(static_cast<u8>(c)) : c; };
  if (*pEntry == '=') return false;  // it has no name, not even an empty one
  for (;; ++pEntry, ++pName) {
    if (*pEntry == '=') return *pName == '=' || *pName == 0;
    if (*pEntry == 0 || fold(*pEntry) != fold(*pName)) return false;
  }
}

// The units at an even index and behind it as the one 32-bit character that a wide comparison takes them for.
wint_t UnitPair(ustring low, ustring high) { return static_cast<wint_t>(high) << 16 | low; }

// Compares a name with an entry whose name is as long. Kept: the comparison is the platform's for 32-bit characters,
// one for each unit of the name, which covers twice the name: where pName has its terminator the entry has its "=", so
// that they differ. Comparing units would be the obvious way. What lies behind the terminator counts as zero.
bool MatchesInPairs(const ustring *pEntry, const ustring *pName, u32 length, bool ignoreCase) {
  for (u32 i = 0; i < 2 * length; i += 2) {
    wint_t entryPair = UnitPair(pEntry[i], pEntry[i + 1]);
    wint_t namePair = UnitPair(pName[i], i < length ? pName[i + 1] : 0);
    if (ignoreCase) {
      entryPair = std::towlower(entryPair);
      namePair = std::towlower(namePair);
    }
    if (entryPair != namePair) return false;
    if (entryPair == 0) break;
  }
  return true;
}

template <class Unit, class IsMatch>
s32 IndexOf(s32 numNVPair, Unit *const *ppNVPair, IsMatch isMatch) {
  if (ppNVPair == nullptr) return -1;
  for (s32 i = 0; i < numNVPair; ++i) {
    if (ppNVPair[i] != nullptr && isMatch(ppNVPair[i])) return i;
  }
  return -1;
}

}  // namespace

u32 GetAStrParamNameLen(const astring *pEntry) { return NameLength(pEntry); }
u32 GetUStrParamNameLen(const ustring *pEntry) { return NameLength(pEntry); }

astring *GetAStrParamName(astring *pEntry) { return CutOffName(pEntry); }
ustring *GetUStrParamName(ustring *pEntry) { return CutOffName(pEntry); }

astring *GetAStrParamValue(const astring *pEntry) { return ValueOf(pEntry); }
ustring *GetUStrParamValue(const ustring *pEntry) { return ValueOf(pEntry); }

booln IsValidParam(const astring *pEntry) { return NameLength(pEntry) != 0 ? 1 : 0; }
booln IsValidUParam(const ustring *pEntry) { return NameLength(pEntry) != 0 ? 1 : 0; }

s32 GetParamIndexByAStrName(s32 numNVPair, astring *const *ppNVPair, const astring *pName, booln ignoreCase) {
  if (pName == nullptr) return -1;
  return IndexOf(numNVPair, ppNVPair, [=](const astring *pEntry) { return Matches(pEntry, pName, ignoreCase == 1); });
}

s32 GetParamIndexByUStrName(s32 numNVPair, ustring *const *ppNVPair, const ustring *pName, booln ignoreCase) {
  if (pName == nullptr) return -1;
  const u32 length = UniStrlen(pName);
  if (length == 0) return -1;
  return IndexOf(numNVPair, ppNVPair, [=](const ustring *pEntry) {
    return NameLength(pEntry) == length && MatchesInPairs(pEntry, pName, length, ignoreCase == 1);
  });
}

astring *GetAStrParamValueByAStrName(s32 numNVPair, astring *const *ppNVPair, const astring *pName, booln ignoreCase) {
  const s32 index = GetParamIndexByAStrName(numNVPair, ppNVPair, pName, ignoreCase);
  return index < 0 ? nullptr : ValueOf(ppNVPair[index]);
}

ustring *GetUStrParamValueByUStrName(s32 numNVPair, ustring *const *ppNVPair, const ustring *pName, booln ignoreCase) {
  const s32 index = GetParamIndexByUStrName(numNVPair, ppNVPair, pName, ignoreCase);
  return index < 0 ? nullptr : ValueOf(ppNVPair[index]);
}

void RemoveDQuotesInStrArr(s32 argc, astring **argv) {
  if (argv == nullptr) return;
  for (s32 i = 0; i < argc; ++i) {
    if (argv[i] == nullptr) continue;
    astring *const end = argv[i] + std::strlen(argv[i]);
    *std::remove(argv[i], end, '"') = 0;
  }
}

void AppendNode(const astring *pDAXML, const astring *pNewNode, astring **ppFinalDAXML) {
  if (pDAXML == nullptr || pNewNode == nullptr || ppFinalDAXML == nullptr) return;
  const size_t length = std::strlen(pDAXML);
  const size_t newLength = std::strlen(pNewNode);
  MallocPtr<astring> joined = MallocArray<astring>(length + newLength + 1);
  if (!joined) return;
  std::memcpy(joined.get(), pDAXML, length);
  std::memcpy(joined.get() + length, pNewNode, newLength + 1);
  *ppFinalDAXML = joined.release();
}

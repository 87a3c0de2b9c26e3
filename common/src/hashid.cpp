// Identifiers from a bitmap. Words are read as bytes in the order of this platform, whose low bytes hold the low bits,
// so that a table needs no alignment and two words can be looked at in one go.
#include "zebcs/hashid.h"

#include <algorithm>
#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little);

namespace {

constexpr u32 kBitsPerWord = 32;
constexpr u32 kBitsPerByte = 8;

// The words of a table whose identifiers have 32 bits; there can be more.
u32 WordCount(const void *pHashTable, u32 hashTableSize) {
  constexpr u32 kMost = 1u << 27;
  return pHashTable == nullptr ? 0 : std::min(hashTableSize / static_cast<u32>(sizeof(u32)), kMost);
}

template <class Word = u32>
Word LoadWord(const void *pHashTable, u32 index) {
  Word word;
  std::memcpy(&word, static_cast<const u8 *>(pHashTable) + size_t{index} * sizeof(u32), sizeof word);
  return word;
}

void StoreWord(void *pHashTable, u32 index, u32 word) {
  std::memcpy(static_cast<u8 *>(pHashTable) + size_t{index} * sizeof(u32), &word, sizeof word);
}

// The index of the first word from `index` on that has a free bit, or the number of words.
u32 FindFreeWord(const void *pHashTable, u32 index, u32 count) {
  while (count - index >= 2 && LoadWord<u64>(pHashTable, index) == ~u64{0}) index += 2;
  while (index < count && LoadWord(pHashTable, index) == ~u32{0}) ++index;
  return index;
}

// The byte that has an identifier's bit. Null for 0, which is none, and beyond the table, all bytes of which count here.
u8 *FindByte(void *pHashTable, u32 hashTableSize, u32 hashID) {
  if (pHashTable == nullptr || hashID == 0 || hashID / kBitsPerByte >= hashTableSize) return nullptr;
  return static_cast<u8 *>(pHashTable) + hashID / kBitsPerByte;
}

u8 BitInByte(u32 hashID) { return static_cast<u8>(1u << hashID % kBitsPerByte); }

}  // namespace

u32 HashTableBytesNeeded(u32 maxHashID) { return maxHashID / kBitsPerByte + (maxHashID % kBitsPerByte == 0 ? 0 : 1); }

s32 ClearHashTable(void *pHashTable, u32 hashTableSize) {
  if (pHashTable != nullptr) std::memset(pHashTable, 0, hashTableSize);
  return SM_STATUS_SUCCESS;
}

u32 AcquireHashID(void *pHashTable, u32 hashTableSize) {
  const u32 count = WordCount(pHashTable, hashTableSize);
  if (count == 0) return 0;
  constexpr u32 kNone = 1;  // the bit of 0, which counts as taken
  u32 index = 0;
  u32 taken = LoadWord(pHashTable, 0) | kNone;
  if (taken == ~u32{0}) {
    index = FindFreeWord(pHashTable, 1, count);
    if (index == count) return 0;
    taken = LoadWord(pHashTable, index);
  }
  const u32 bit = static_cast<u32>(std::countr_one(taken));
  StoreWord(pHashTable, index, LoadWord(pHashTable, index) | 1u << bit);
  return index * kBitsPerWord + bit;
}

s32 VerifyHashID(const void *pHashTable, u32 hashTableSize, u32 hashID) {
  const u8 *const byte = FindByte(const_cast<void *>(pHashTable), hashTableSize, hashID);  // only read here
  return byte != nullptr && (*byte & BitInByte(hashID)) != 0 ? 0 : -1;
}

s32 ReleaseHashID(void *pHashTable, u32 hashTableSize, u32 hashID) {
  u8 *const byte = FindByte(pHashTable, hashTableSize, hashID);
  if (byte == nullptr || (*byte & BitInByte(hashID)) == 0) return -1;
  *byte = static_cast<u8>(*byte & ~BitInByte(hashID));
  return 0;
}

u32 GetMaxInUseID(const void *pHashTable, u32 hashTableSize) {
  u32 count = WordCount(pHashTable, hashTableSize);
  while (count >= 2 && LoadWord<u64>(pHashTable, count - 2) == 0) count -= 2;
  while (count > 0 && LoadWord(pHashTable, count - 1) == 0) --count;
  return count == 0 ? 0
                    : count * kBitsPerWord - 1 - static_cast<u32>(std::countl_zero(LoadWord(pHashTable, count - 1)));
}

u32 FindFirstHashID(const void *pHashTable, u32 hashTableSize, u32 *pHashIndex, u32 *pBitIndex) {
  if (pHashIndex == nullptr || pBitIndex == nullptr) return 0;
  *pHashIndex = 0;
  *pBitIndex = 0;
  return FindNextHashID(pHashTable, hashTableSize, pHashIndex, pBitIndex);
}

u32 FindNextHashID(const void *pHashTable, u32 hashTableSize, u32 *pHashIndex, u32 *pBitIndex) {
  if (pHashIndex == nullptr || pBitIndex == nullptr || *pBitIndex >= kBitsPerWord) return 0;
  const u32 count = WordCount(pHashTable, hashTableSize);
  // Kept: the bits below that of the identifier before are left out in the words behind its own, too; all bits of these
  // would be expected.
  const u32 fromBit = ~u32{0} << *pBitIndex;
  u32 wanted = fromBit & ~(1u << *pBitIndex);  // the identifier before is not reported again
  for (u32 index = *pHashIndex; index < count; ++index, wanted = fromBit) {
    const u32 found = LoadWord(pHashTable, index) & wanted;
    if (found == 0) continue;
    *pHashIndex = index;
    *pBitIndex = static_cast<u32>(std::countr_zero(found));
    return index * kBitsPerWord + *pBitIndex;
  }
  return 0;
}

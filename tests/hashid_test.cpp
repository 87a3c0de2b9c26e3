// Identifiers from a bitmap: whole tables compared, and what lies behind them.
#include "zebcs/hashid.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <random>
#include <vector>

#include "guarded_buffer.h"

namespace {

using sandbox::GuardedBuffer;

// A table as words, with the identifiers in use.
std::vector<u32> TableWith(size_t words, const std::vector<u32> &ids) {
  std::vector<u32> table(words);
  for (const u32 id : ids) table[id / 32] |= 1u << id % 32;
  return table;
}

struct Position {
  u32 word;
  u32 bit;
  bool operator==(const Position &) const = default;
};

std::vector<u32> Enumerated(const void *table, u32 size) {
  std::vector<u32> ids;
  Position at{7, 7};
  for (u32 id = FindFirstHashID(table, size, &at.word, &at.bit); id != 0;
       id = KCSFindNextHashID(table, size, &at.word, &at.bit)) {
    ids.push_back(id);
    EXPECT_EQ(at, (Position{id / 32, id % 32}));
  }
  return ids;
}

}  // namespace

TEST(HashTableBytesNeeded, IsAnEighthRoundedUp) {
  EXPECT_EQ(KCSHashTableBytesNeeded(0), 0u);
  EXPECT_EQ(KCSHashTableBytesNeeded(1), 1u);
  EXPECT_EQ(KCSHashTableBytesNeeded(8), 1u);
  EXPECT_EQ(KCSHashTableBytesNeeded(9), 2u);
  EXPECT_EQ(KCSHashTableBytesNeeded(16), 2u);
  EXPECT_EQ(HashTableBytesNeeded(0xFFFFFFFF), 0x20000000u);
  EXPECT_EQ(HashTableBytesNeeded(0xFFFFFFF8), 0x1FFFFFFFu);
}

TEST(ClearHashTable, ClearsEveryByteAndNoneBehind) {
  for (const u32 size : {0u, 1u, 3u, 4u, 7u, 64u}) {
    std::vector<u8> memory(size + 8, 0xA5);
    EXPECT_EQ(KCSClearHashTable(memory.data(), size), 0);
    std::vector<u8> expected(size + 8, 0xA5);
    std::fill_n(expected.begin(), size, u8{0});
    EXPECT_EQ(memory, expected);
  }
}

TEST(AcquireHashID, HandsOutTheLowestFreeOne) {
  std::vector<u32> table(1);
  for (u32 id = 1; id <= 31; ++id) EXPECT_EQ(KCSAcquireHashID(table.data(), 4), id);
  EXPECT_EQ(KCSAcquireHashID(table.data(), 4), 0u);
  EXPECT_EQ(table[0], 0xFFFFFFFEu) << "0 is never handed out";
  EXPECT_EQ(KCSReleaseHashID(table.data(), 4, 17), 0);
  EXPECT_EQ(KCSReleaseHashID(table.data(), 4, 5), 0);
  EXPECT_EQ(AcquireHashID(table.data(), 4), 5u);
  EXPECT_EQ(AcquireHashID(table.data(), 4), 17u);
  EXPECT_EQ(AcquireHashID(table.data(), 4), 0u);
}

TEST(AcquireHashID, OnlyWholeWordsCount) {
  for (u32 size = 0; size <= 23; ++size) {
    const GuardedBuffer memory(size);
    std::memset(memory.data<u8>(), 0, size);
    u32 last = 0;
    u32 count = 0;
    for (u32 id = AcquireHashID(memory.data<u8>(), size); id != 0; id = AcquireHashID(memory.data<u8>(), size)) {
      EXPECT_EQ(id, last + 1);
      last = id;
      ++count;
    }
    EXPECT_EQ(count, size < 4 ? 0 : size / 4 * 32 - 1);
    for (u32 i = size / 4 * 4; i < size; ++i) EXPECT_EQ(memory.data<u8>()[i], 0) << "behind the last whole word";
  }
}

TEST(AcquireHashID, BitOfZeroIsPassedOver) {
  std::vector<u32> table{1, 0};
  EXPECT_EQ(AcquireHashID(table.data(), 8), 1u);
  EXPECT_EQ(table, (std::vector<u32>{3, 0}));
  table = {0xFFFFFFFE, 0};
  EXPECT_EQ(AcquireHashID(table.data(), 8), 32u);
  EXPECT_EQ(table, (std::vector<u32>{0xFFFFFFFE, 1}));
}

TEST(AcquireHashID, EndsWithTheIdentifiersOf32Bits) {
  constexpr u32 kFull = 1u << 29;  // bytes: all identifiers of 32 bits
  constexpr u32 kPiece = 1u << 20;
  constexpr u32 kSize = kFull + kPiece;
  // One piece of memory stands at every place of the table but the last.
  const int file = memfd_create("piece", MFD_CLOEXEC);
  ASSERT_EQ(ftruncate(file, kPiece), 0);
  void *const table = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(table, MAP_FAILED);
  u8 *const bytes = static_cast<u8 *>(table);
  for (u32 at = 0; at < kFull; at += kPiece) {
    ASSERT_NE(mmap(bytes + at, kPiece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file, 0), MAP_FAILED);
  }
  std::memset(bytes, 0xFF, kPiece);
  EXPECT_EQ(AcquireHashID(table, kSize), 0u) << "the bits behind them have no identifier";
  EXPECT_EQ(bytes[kFull], 0);
  EXPECT_EQ(GetMaxInUseID(table, kSize), 0xFFFFFFFFu);
  munmap(table, kSize);
  close(file);
}

TEST(VerifyHashID, TellsWhatIsInUse) {
  const std::vector<u32> table = TableWith(2, {1, 31, 32, 63});
  for (u32 id = 0; id < 70; ++id) {
    const bool isInUse = id == 1 || id == 31 || id == 32 || id == 63;
    EXPECT_EQ(KCSVerifyHashID(table.data(), 8, id), isInUse ? 0 : -1) << id;
  }
  EXPECT_EQ(VerifyHashID(table.data(), 8, 0xFFFFFFFF), -1);
  EXPECT_EQ(VerifyHashID(table.data(), 0, 1), -1);
}

TEST(VerifyHashID, ZeroIsNeverInUse) {
  std::vector<u32> table{0xFFFFFFFF};
  EXPECT_EQ(KCSVerifyHashID(table.data(), 4, 0), -1);
  EXPECT_EQ(KCSReleaseHashID(table.data(), 4, 0), -1);
  EXPECT_EQ(table, (std::vector<u32>{0xFFFFFFFF}));
}

TEST(VerifyHashID, KeptBoundCountsBytes) {
  const GuardedBuffer memory(7);
  std::memset(memory.data<u8>(), 0xFF, 7);
  EXPECT_EQ(VerifyHashID(memory.data<u8>(), 7, 55), 0) << "in a byte behind the last whole word";
  EXPECT_EQ(VerifyHashID(memory.data<u8>(), 7, 56), -1);
  EXPECT_EQ(ReleaseHashID(memory.data<u8>(), 7, 55), 0);
  EXPECT_EQ(VerifyHashID(memory.data<u8>(), 7, 55), -1);
  EXPECT_EQ(ReleaseHashID(memory.data<u8>(), 7, 55), -1);
  EXPECT_EQ(ReleaseHashID(memory.data<u8>(), 7, 56), -1);
  EXPECT_EQ(GetMaxInUseID(memory.data<u8>(), 7), 31u) << "where only whole words count";
}

TEST(GetMaxInUseID, IsTheHighest) {
  EXPECT_EQ(KCSGetMaxInUseID(TableWith(4, {}).data(), 16), 0u);
  EXPECT_EQ(KCSGetMaxInUseID(TableWith(4, {0}).data(), 16), 0u);
  EXPECT_EQ(KCSGetMaxInUseID(TableWith(4, {0, 1}).data(), 16), 1u);
  EXPECT_EQ(KCSGetMaxInUseID(TableWith(4, {3, 70, 66}).data(), 16), 70u);
  for (u32 id = 0; id < 128; ++id) EXPECT_EQ(GetMaxInUseID(TableWith(4, {0, id}).data(), 16), id);
}

TEST(FindNextHashID, KeptLowerBitsOfLaterWordsAreNotReported) {
  EXPECT_EQ(Enumerated(TableWith(2, {5, 33}).data(), 8), (std::vector<u32>{5}));
  EXPECT_EQ(Enumerated(TableWith(2, {5, 40}).data(), 8), (std::vector<u32>{5, 40}));
  EXPECT_EQ(Enumerated(TableWith(3, {5, 37, 69}).data(), 12), (std::vector<u32>{5, 37, 69}));
  EXPECT_EQ(Enumerated(TableWith(3, {31, 62, 95}).data(), 12), (std::vector<u32>{31, 95}));
}

TEST(FindNextHashID, PositionStaysWhenNothingIsFound) {
  const std::vector<u32> table = TableWith(2, {5, 33});
  for (const Position &start :
       {Position{0, 5}, Position{1, 1}, Position{2, 0}, Position{99, 3}, Position{0, 32}, Position{0, 0xFFFFFFFF}}) {
    Position at = start;
    EXPECT_EQ(KCSFindNextHashID(table.data(), 8, &at.word, &at.bit), 0u);
    EXPECT_EQ(at, start);
  }
  Position at{9, 9};
  EXPECT_EQ(KCSFindFirstHashID(TableWith(2, {0}).data(), 8, &at.word, &at.bit), 0u);
  EXPECT_EQ(at, (Position{0, 0})) << "the first search begins there";
}

TEST(HashID, NullIsATableWithoutWords) {
  u32 word = 0;
  u32 bit = 0;
  EXPECT_EQ(KCSClearHashTable(nullptr, 8), 0);
  EXPECT_EQ(KCSAcquireHashID(nullptr, 8), 0u);
  EXPECT_EQ(KCSVerifyHashID(nullptr, 8, 1), -1);
  EXPECT_EQ(KCSReleaseHashID(nullptr, 8, 1), -1);
  EXPECT_EQ(KCSGetMaxInUseID(nullptr, 8), 0u);
  EXPECT_EQ(KCSFindFirstHashID(nullptr, 8, &word, &bit), 0u);
  const std::vector<u32> table = TableWith(1, {5});
  EXPECT_EQ(KCSFindFirstHashID(table.data(), 4, nullptr, &bit), 0u);
  EXPECT_EQ(KCSFindFirstHashID(table.data(), 4, &word, nullptr), 0u);
  EXPECT_EQ(KCSFindNextHashID(table.data(), 4, nullptr, &bit), 0u);
  EXPECT_EQ(KCSFindNextHashID(table.data(), 4, &word, nullptr), 0u);
}

// Plain code for the same, bit by bit, on random tables and with random calls.
TEST(HashID, AgreesWithAPlainImplementation) {
  std::mt19937 random(3);
  for (int round = 0; round < 300; ++round) {
    const u32 size = static_cast<u32>(random() % 40);
    const u32 bits = size / 4 * 32;
    std::vector<u8> memory(size + 1, 0);
    std::vector<u8> expected = memory;
    // An odd address in half of the rounds: a table needs no alignment.
    const size_t shift = random() % 2;
    std::vector<u8> room(size + 2);
    for (int call = 0; call < 400; ++call) {
      std::memcpy(room.data() + shift, memory.data(), size);
      void *const table = room.data() + shift;
      const auto isSet = [&expected](u32 id) { return (expected[id / 8] >> id % 8 & 1) != 0; };
      const u32 id = static_cast<u32>(random() % (size * 8 + 9));
      switch (random() % 8) {
        case 0: {
          const bool isInUse = id < size * 8 && isSet(id);
          ASSERT_EQ(VerifyHashID(table, size, id), isInUse ? 0 : -1);
          ASSERT_EQ(ReleaseHashID(table, size, id), isInUse ? 0 : -1);
          if (isInUse) expected[id / 8] = static_cast<u8>(expected[id / 8] & ~(1u << id % 8));
          break;
        }
        case 1: {
          u32 highest = 0;
          for (u32 i = 1; i < bits; ++i) highest = isSet(i) ? i : highest;
          ASSERT_EQ(GetMaxInUseID(table, size), highest);
          break;
        }
        case 2: {
          std::vector<u32> ids;
          u32 bit = 0;
          for (u32 word = 0; word < bits / 32; ++word) {
            for (u32 i = bit; i < 32; ++i) {
              const u32 candidate = word * 32 + i;
              if (!isSet(candidate) || candidate == 0) continue;
              ids.push_back(candidate);
              bit = i;
            }
          }
          ASSERT_EQ(Enumerated(table, size), ids);
          break;
        }
        default: {
          u32 lowest = 0;
          for (u32 i = bits; i-- > 1;) lowest = isSet(i) ? lowest : i;
          ASSERT_EQ(AcquireHashID(table, size), lowest);
          if (lowest != 0) expected[lowest / 8] = static_cast<u8>(expected[lowest / 8] | 1u << lowest % 8);
          break;
        }
      }
      std::memcpy(memory.data(), table, size);
      ASSERT_EQ(memory, expected);
    }
  }
}

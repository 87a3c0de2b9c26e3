// Linked lists: both kinds, whole lists walked both ways after each call.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "zebcs/frame.h"
#include "zebcs/list.h"

namespace {

// The two kinds under one name each, through the exported names and, where they differ in nothing, the plain ones.
struct Single {
  using List = KCSSLList;
  using Entry = KCSSLListEntry;
  static constexpr auto Alloc = KCSSLListAlloc;
  static constexpr auto Free = KCSSLListFree;
  static constexpr auto EntryAlloc = KCSSLListEntryAlloc;
  static constexpr auto EntryFree = KCSSLListEntryFree;
  static constexpr auto InsertAtTail = KCSSLListInsertEntryAtTail;
  static constexpr auto InsertAtHead = KCSSLListInsertEntryAtHead;
  static constexpr auto InsertOrdered = KCSSLListInsertOrdered;
  static constexpr auto InsertKeyed = KCSSLListInsertKeyed;
  static constexpr auto Delete = KCSSLListDeleteEntry;
  static constexpr auto RemoveAtHead = KCSSLListRemoveEntryAtHead;
  static constexpr auto RemoveAtTail = KCSSLListRemoveEntryAtTail;
};

struct Double {
  using List = KCSDLList;
  using Entry = KCSDLListEntry;
  static constexpr auto Alloc = KCSDLListAlloc;
  static constexpr auto Free = KCSDLListFree;
  static constexpr auto EntryAlloc = KCSDLListEntryAlloc;
  static constexpr auto EntryFree = KCSDLListEntryFree;
  static constexpr auto InsertAtTail = KCSDLListInsertEntryAtTail;
  static constexpr auto InsertAtHead = KCSDLListInsertEntryAtHead;
  static constexpr auto InsertOrdered = KCSDLListInsertOrdered;
  static constexpr auto InsertKeyed = KCSDLListInsertKeyed;
  static constexpr auto Delete = KCSDLListDeleteEntry;
  static constexpr auto RemoveAtHead = KCSDLListRemoveEntryAtHead;
  static constexpr auto RemoveAtTail = KCSDLListRemoveEntryAtTail;
};

// What an entry carries: a key that orders it, and a mark that tells it from others with the key.
struct Payload {
  int key;
  int mark;
};

template <class Entry>
Payload &PayloadOf(Entry *entry) {
  return *static_cast<Payload *>(entry->pData);
}

template <class Entry>
s32 Compare(Entry *pNew, Entry *pListed) {
  return PayloadOf(pNew).key - PayloadOf(pListed).key;
}

template <class Kind>
class LinkedList : public testing::Test {
 protected:
  using Entry = typename Kind::Entry;

  LinkedList() : m_list(Kind::Alloc()) {}
  ~LinkedList() override {
    Kind::Free(m_list);
    for (Entry *entry : m_entries) Kind::EntryFree(entry);
  }

  void SetUp() override {
    ASSERT_NE(m_list, nullptr);
    ExpectList({});
  }

  Entry *New(int key, int mark = 0) {
    Entry *const entry = Kind::EntryAlloc(sizeof(Payload));
    if (entry == nullptr) throw std::bad_alloc();
    m_entries.push_back(entry);
    PayloadOf(entry) = {key, mark};
    return entry;
  }

  // Expects these entries in order, forth and back, and the depth to be their number.
  void ExpectList(const std::vector<Entry *> &entries) {
    EXPECT_EQ(m_list->curDepth, static_cast<s32>(entries.size()));
    EXPECT_EQ(m_list->pHead, entries.empty() ? nullptr : entries.front());
    EXPECT_EQ(m_list->pTail, entries.empty() ? nullptr : entries.back());
    for (size_t i = 0; i < entries.size(); ++i) {
      EXPECT_EQ(entries[i]->pNext, i + 1 < entries.size() ? entries[i + 1] : nullptr) << i;
      if constexpr (requires { entries[i]->pPrev; }) {
        EXPECT_EQ(entries[i]->pPrev, i > 0 ? entries[i - 1] : nullptr) << i;
      }
    }
  }

  typename Kind::List *m_list;
  std::vector<Entry *> m_entries;
};

using Kinds = testing::Types<Single, Double>;
TYPED_TEST_SUITE(LinkedList, Kinds);

}  // namespace

TYPED_TEST(LinkedList, PayloadFollowsTheEntryInItsBlock) {
  for (const u32 size : {0u, 1u, 100u, 1000000u}) {
    auto *const entry = TypeParam::EntryAlloc(size);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->pData, static_cast<void *>(entry + 1));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(entry->pData) % alignof(u64), 0u);
    std::memset(entry->pData, 'x', size);
    TypeParam::EntryFree(entry);
  }
}

TYPED_TEST(LinkedList, InsertsAtBothEnds) {
  auto *const a = this->New(1);
  auto *const b = this->New(2);
  auto *const c = this->New(3);
  TypeParam::InsertAtTail(this->m_list, a);
  this->ExpectList({a});
  TypeParam::InsertAtTail(this->m_list, b);
  this->ExpectList({a, b});
  TypeParam::InsertAtHead(this->m_list, c);
  this->ExpectList({c, a, b});
}

TYPED_TEST(LinkedList, FirstEntryAtTheHeadIsTheTailToo) {
  auto *const a = this->New(1);
  TypeParam::InsertAtHead(this->m_list, a);
  this->ExpectList({a});
}

TYPED_TEST(LinkedList, RemovesAtBothEnds) {
  EXPECT_EQ(TypeParam::RemoveAtHead(this->m_list), nullptr);
  EXPECT_EQ(TypeParam::RemoveAtTail(this->m_list), nullptr);
  this->ExpectList({});
  auto *const a = this->New(1);
  auto *const b = this->New(2);
  auto *const c = this->New(3);
  for (auto *entry : {a, b, c}) TypeParam::InsertAtTail(this->m_list, entry);
  EXPECT_EQ(TypeParam::RemoveAtTail(this->m_list), c);
  this->ExpectList({a, b});
  EXPECT_EQ(TypeParam::RemoveAtHead(this->m_list), a);
  this->ExpectList({b});
  EXPECT_EQ(TypeParam::RemoveAtHead(this->m_list), b);
  this->ExpectList({});
  TypeParam::InsertAtTail(this->m_list, a);
  EXPECT_EQ(TypeParam::RemoveAtTail(this->m_list), a);
  this->ExpectList({});
}

TYPED_TEST(LinkedList, DeletesAtEveryPlace) {
  for (size_t place = 0; place < 3; ++place) {
    std::vector entries{this->New(1), this->New(2), this->New(3)};
    for (auto *entry : entries) TypeParam::InsertAtTail(this->m_list, entry);
    TypeParam::Delete(this->m_list, nullptr);
    this->ExpectList(entries);
    TypeParam::Delete(this->m_list, entries[place]);
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(place));
    this->ExpectList(entries);
    while (TypeParam::RemoveAtHead(this->m_list) != nullptr) continue;
  }
}

TYPED_TEST(LinkedList, LinksOfADeletedEntryStay) {
  auto *const a = this->New(1);
  auto *const b = this->New(2);
  auto *const c = this->New(3);
  for (auto *entry : {a, b, c}) TypeParam::InsertAtTail(this->m_list, entry);
  TypeParam::Delete(this->m_list, b);
  EXPECT_EQ(b->pNext, c);
  if constexpr (requires { b->pPrev; }) {
    EXPECT_EQ(b->pPrev, a);
  }
}

TYPED_TEST(LinkedList, KeptEqualEntriesGoBeforeThoseThatAreThere) {
  auto *const a = this->New(5, 1);
  auto *const b = this->New(5, 2);
  EXPECT_EQ(TypeParam::InsertOrdered(this->m_list, a, Compare), 0);
  EXPECT_EQ(TypeParam::InsertOrdered(this->m_list, b, Compare), 0);
  this->ExpectList({b, a});
}

TYPED_TEST(LinkedList, KeyThatIsThereIsRefused) {
  auto *const a = this->New(5);
  auto *const b = this->New(5);
  auto *const c = this->New(3);
  auto *const d = this->New(7);
  EXPECT_EQ(TypeParam::InsertKeyed(this->m_list, a, Compare), 0);
  EXPECT_EQ(TypeParam::InsertKeyed(this->m_list, b, Compare), 2);
  this->ExpectList({a});
  EXPECT_EQ(TypeParam::InsertKeyed(this->m_list, d, Compare), 0);
  EXPECT_EQ(TypeParam::InsertKeyed(this->m_list, c, Compare), 0);
  this->ExpectList({c, a, d});
}

TYPED_TEST(LinkedList, NewEntryIsTheComparisonsFirstArgument) {
  static const void *l_new;
  l_new = nullptr;
  auto *const a = this->New(1);
  auto *const b = this->New(2);
  TypeParam::InsertAtTail(this->m_list, a);
  l_new = b;
  const auto compare = [](typename TypeParam::Entry *pNew, typename TypeParam::Entry *pListed) {
    EXPECT_EQ(pNew, l_new);
    EXPECT_NE(pListed, l_new);
    return Compare(pNew, pListed);
  };
  EXPECT_EQ(TypeParam::InsertOrdered(this->m_list, b, compare), 0);
  this->ExpectList({a, b});
}

TYPED_TEST(LinkedList, ComparisonThatThrowsLeavesTheListUnlocked) {
  auto *const a = this->New(1);
  TypeParam::InsertAtTail(this->m_list, a);
  const auto compare = [](typename TypeParam::Entry *, typename TypeParam::Entry *) -> s32 {
    throw std::runtime_error("no order");
  };
  EXPECT_THROW(TypeParam::InsertKeyed(this->m_list, this->New(2), compare), std::runtime_error);
  this->ExpectList({a});
  EXPECT_EQ(TypeParam::RemoveAtHead(this->m_list), a) << "which takes the lock";
}

TYPED_TEST(LinkedList, NullIsIgnored) {
  auto *const a = this->New(1);
  TypeParam::Free(nullptr);
  TypeParam::EntryFree(nullptr);
  TypeParam::InsertAtTail(nullptr, a);
  TypeParam::InsertAtTail(this->m_list, nullptr);
  TypeParam::InsertAtHead(nullptr, a);
  TypeParam::InsertAtHead(this->m_list, nullptr);
  EXPECT_EQ(TypeParam::InsertOrdered(nullptr, a, Compare), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(TypeParam::InsertOrdered(this->m_list, nullptr, Compare), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(TypeParam::InsertKeyed(this->m_list, a, nullptr), SM_STATUS_INVALID_INPUT);
  TypeParam::Delete(nullptr, a);
  EXPECT_EQ(TypeParam::RemoveAtHead(nullptr), nullptr);
  EXPECT_EQ(TypeParam::RemoveAtTail(nullptr), nullptr);
  this->ExpectList({});
}

TYPED_TEST(LinkedList, FreeLeavesTheEntriesThatAreInIt) {
  auto *const list = TypeParam::Alloc();
  auto *const a = this->New(1, 9);
  TypeParam::InsertAtTail(list, a);
  TypeParam::Free(list);
  EXPECT_EQ(PayloadOf(a).mark, 9);
}

TYPED_TEST(LinkedList, AgreesWithAVector) {
  std::mt19937 random(4);
  using Listed = typename TypeParam::Entry;
  std::vector<Listed *> expected;
  std::vector<Listed *> spare;
  for (int i = 0; i < 40; ++i) spare.push_back(this->New(0));
  for (int round = 0; round < 20000; ++round) {
    const unsigned action = random() % 8;
    if (action < 4 && !spare.empty()) {
      Listed *const entry = spare.back();
      PayloadOf(entry) = {static_cast<int>(random() % 10), round};
      const auto place = std::find_if(expected.begin(), expected.end(),
                                      [entry](Listed *listed) { return Compare(entry, listed) <= 0; });
      // Where the walk of a keyed insertion ends, which looks for an equal entry on its way.
      const bool isThere = place != expected.end() && PayloadOf(*place).key == PayloadOf(entry).key;
      if (action == 3 && isThere) {
        ASSERT_EQ(TypeParam::InsertKeyed(this->m_list, entry, Compare), 2);
      } else {
        spare.pop_back();
        if (action == 0) {
          TypeParam::InsertAtTail(this->m_list, entry);
          expected.push_back(entry);
        } else if (action == 1) {
          TypeParam::InsertAtHead(this->m_list, entry);
          expected.insert(expected.begin(), entry);
        } else {
          ASSERT_EQ((action == 2 ? TypeParam::InsertOrdered : TypeParam::InsertKeyed)(this->m_list, entry, Compare), 0);
          expected.insert(place, entry);
        }
      }
    } else if (!expected.empty()) {
      const size_t place = action == 6 ? 0 : action == 7 ? expected.size() - 1 : random() % expected.size();
      Listed *const entry = expected[place];
      if (action == 6) {
        ASSERT_EQ(TypeParam::RemoveAtHead(this->m_list), entry);
      } else if (action == 7) {
        ASSERT_EQ(TypeParam::RemoveAtTail(this->m_list), entry);
      } else {
        TypeParam::Delete(this->m_list, entry);
      }
      expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(place));
      spare.push_back(entry);
    }
    ASSERT_NO_FATAL_FAILURE(this->ExpectList(expected));
  }
}

TYPED_TEST(LinkedList, ThreadsHandEachEntryOverOnce) {
  constexpr int kThreads = 4;
  constexpr int kEntries = 500;
  std::atomic<int> taken = 0;
  std::atomic<long> sum = 0;
  for (int i = 0; i < kThreads * kEntries; ++i) this->New(i);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kEntries; ++i) {
        auto *const entry = this->m_entries[static_cast<size_t>(t * kEntries + i)];
        (i % 2 == 0 ? TypeParam::InsertAtTail : TypeParam::InsertAtHead)(this->m_list, entry);
      }
    });
    threads.emplace_back([this, &taken, &sum] {
      while (taken < kThreads * kEntries) {
        auto *const entry = TypeParam::RemoveAtHead(this->m_list);
        if (entry == nullptr) {
          std::this_thread::yield();
          continue;
        }
        sum += PayloadOf(entry).key;
        ++taken;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  this->ExpectList({});
  EXPECT_EQ(sum, long{kThreads} * kEntries * (kThreads * kEntries - 1) / 2);
}

TYPED_TEST(LinkedList, ThreadsInsertInOrderAndDeleteBesideEachOther) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, own = std::vector{this->New(t), this->New(t + kThreads)}] {
      for (int i = 0; i < kRounds; ++i) {
        EXPECT_EQ(TypeParam::InsertOrdered(this->m_list, own[0], Compare), 0);
        EXPECT_EQ(TypeParam::InsertKeyed(this->m_list, own[1], Compare), 0);
        TypeParam::Delete(this->m_list, own[static_cast<size_t>(i % 2)]);
        TypeParam::Delete(this->m_list, own[static_cast<size_t>(1 - i % 2)]);
      }
      TypeParam::InsertOrdered(this->m_list, own[0], Compare);
    });
  }
  for (std::thread &thread : threads) thread.join();
  this->ExpectList({this->m_entries[0], this->m_entries[2], this->m_entries[4], this->m_entries[6]});
}

TYPED_TEST(LinkedList, ThreadTakesFromTheTailWhatOthersPutInAtTheHead) {
  constexpr int kThreads = 3;
  constexpr int kEntries = 1000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    std::vector<typename TypeParam::Entry *> own;
    for (int i = 0; i < kEntries; ++i) own.push_back(this->New(i, t));
    threads.emplace_back([this, own] {
      for (auto *entry : own) TypeParam::InsertAtHead(this->m_list, entry);
    });
  }
  int next[kThreads] = {};
  for (int taken = 0; taken < kThreads * kEntries;) {
    auto *const entry = TypeParam::RemoveAtTail(this->m_list);
    if (entry == nullptr) {
      std::this_thread::yield();
      continue;
    }
    EXPECT_EQ(PayloadOf(entry).key, next[PayloadOf(entry).mark]++) << "in the order in which its thread put it in";
    ++taken;
  }
  for (std::thread &thread : threads) thread.join();
  this->ExpectList({});
}

TYPED_TEST(LinkedList, FreeWaitsForWhoIsAtWork) {
  auto *const list = TypeParam::Alloc();
  ASSERT_NE(list, nullptr);
  std::atomic<bool> isDone = false;
  LockContext(list->pLock);
  std::thread releasing([&] {
    TypeParam::Free(list);
    EXPECT_TRUE(isDone);
  });
  for (int i = 0; i < 100; ++i) std::this_thread::yield();
  isDone = true;
  UnLockContext(list->pLock);
  releasing.join();
}

TEST(SLListDeleteEntry, EntryOfAnotherListChangesNothing) {
  KCSSLList *const list = SLListAlloc();
  KCSSLList *const other = SLListAlloc();
  KCSSLListEntry *const a = SLListEntryAlloc(0);
  KCSSLListEntry *const b = SLListEntryAlloc(0);
  SLListInsertEntryAtTail(list, a);
  SLListInsertEntryAtTail(other, b);
  SLListDeleteEntry(list, b);
  EXPECT_EQ(list->pHead, a);
  EXPECT_EQ(list->pTail, a);
  EXPECT_EQ(list->curDepth, 1);
  EXPECT_EQ(other->curDepth, 1);
  for (KCSSLList *each : {list, other}) SLListFree(each);
  for (KCSSLListEntry *each : {a, b}) SLListEntryFree(each);
}

TEST(DLListDeleteEntry, KeptCallersWordIsTakenForTheEntry) {
  KCSDLList *const list = DLListAlloc();
  KCSDLListEntry *const a = DLListEntryAlloc(0);
  DLListInsertEntryAtTail(list, a);
  DLListDeleteEntry(list, a);
  EXPECT_EQ(list->curDepth, 0);
  DLListDeleteEntry(list, a);
  EXPECT_EQ(list->curDepth, -1) << "it is not there any more, and the depth falls all the same";
  EXPECT_EQ(list->pHead, nullptr);
  DLListFree(list);
  DLListEntryFree(a);
}

TEST(ListLock, IsAContextLockOfItsOwn) {
  KCSDLList *const list = DLListAlloc();
  std::atomic<bool> isInserted = false;
  KCSDLListEntry *const a = DLListEntryAlloc(0);
  LockContext(list->pLock);
  std::thread inserting([&] {
    DLListInsertEntryAtHead(list, a);
    isInserted = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(isInserted) << "it waits for the lock";
  UnLockContext(list->pLock);
  inserting.join();
  EXPECT_EQ(list->pHead, a);
  DLListFree(list);
  DLListEntryFree(a);
}

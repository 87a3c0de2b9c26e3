// Identifiers in an almost full table beside a bare scan for the first free bit, and entries through a list beside
// std::list with a mutex and GLib's queue for threads.
#include <benchmark/benchmark.h>
#include <glib.h>

#include <bit>
#include <cstdint>
#include <list>
#include <mutex>
#include <vector>

#include "compare.h"
#include "contenders.h"
#include "zebcs/hashid.h"
#include "zebcs/list.h"

namespace {

constexpr u32 kIdentifiers = 1000000;

// A table whose one free identifier is near its end.
std::vector<u32> AlmostFull() {
  std::vector<u32> table(kIdentifiers / 32, ~u32{0});
  table[table.size() - 2] &= ~(1u << 7);
  return table;
}

u32 AcquireBare(std::vector<u32> &table) {
  for (u32 i = 0; i < table.size(); ++i) {
    const u32 freeBits = ~table[i];
    if (freeBits == 0) continue;
    const u32 bit = static_cast<u32>(std::countr_zero(freeBits));
    table[i] |= 1u << bit;
    return i * 32 + bit;
  }
  return 0;
}

void AddIdentifiers() {
  static std::vector<u32> table = AlmostFull();
  const auto acquireAndRelease = [](auto acquire) {
    const u32 id = acquire();
    KCSReleaseHashID(table.data(), static_cast<u32>(table.size() * sizeof(u32)), id);
    return id;
  };
  const auto ours = [] { return KCSAcquireHashID(table.data(), static_cast<u32>(table.size() * sizeof(u32))); };
  const auto bare = [] { return AcquireBare(table); };
  Require(acquireAndRelease(ours) == acquireAndRelease(bare), "identifiers differ");
  AddContender("identifier_of_a_million/zebcs", 0, [=] { benchmark::DoNotOptimize(acquireAndRelease(ours)); });
  AddContender("identifier_of_a_million/bare", 0, [=] { benchmark::DoNotOptimize(acquireAndRelease(bare)); });
}

// Each contender keeps so many records in its list.
constexpr int kInTheList = 100;

struct Record {
  u64 number;
};

// One record goes in at the tail and one comes out at the head, in a list whose records stay allocated.
void AddLists() {
  static KCSSLList *const single = KCSSLListAlloc();
  static KCSDLList *const both = KCSDLListAlloc();
  static std::list<Record *> plain;
  static std::mutex mutex;
  static GAsyncQueue *const queue = g_async_queue_new();
  static Record record = {};
  static KCSSLListEntry *singleEntry = KCSSLListEntryAlloc(sizeof(Record));
  static KCSDLListEntry *bothEntry = KCSDLListEntryAlloc(sizeof(Record));
  Require(single != nullptr && both != nullptr, "no memory for lists");
  for (int i = 0; i < kInTheList; ++i) {
    KCSSLListInsertEntryAtTail(single, KCSSLListEntryAlloc(sizeof(Record)));
    KCSDLListInsertEntryAtTail(both, KCSDLListEntryAlloc(sizeof(Record)));
    plain.push_back(&record);
    g_async_queue_push(queue, &record);
  }
  AddContender("list_insert_remove/zebcs", 0, [] {
    KCSSLListInsertEntryAtTail(single, singleEntry);
    singleEntry = KCSSLListRemoveEntryAtHead(single);
  });
  AddContender("list_insert_remove/doubly_linked", 0, [] {
    KCSDLListInsertEntryAtTail(both, bothEntry);
    bothEntry = KCSDLListRemoveEntryAtHead(both);
  });
  AddContender("list_insert_remove/std_list", 0, [] {
    {
      const std::lock_guard lock(mutex);
      plain.push_back(&record);
    }
    const std::lock_guard lock(mutex);
    benchmark::DoNotOptimize(plain.front());
    plain.pop_front();
  });
  AddContender("list_insert_remove/glib_queue", 0, [] {
    g_async_queue_push(queue, &record);
    benchmark::DoNotOptimize(g_async_queue_pop(queue));
  });
}

// The same with a record that is made for it and released afterwards.
void AddListsWithAllocation() {
  static KCSSLList *const list = KCSSLListAlloc();
  static std::list<Record> plain;
  static std::mutex mutex;
  static GAsyncQueue *const queue = g_async_queue_new();
  Require(list != nullptr, "no memory for a list");
  for (int i = 0; i < kInTheList; ++i) {
    KCSSLListInsertEntryAtTail(list, KCSSLListEntryAlloc(sizeof(Record)));
    plain.push_back({});
    g_async_queue_push(queue, new Record{});
  }
  AddContender("list_new_record/zebcs", 0, [] {
    KCSSLListEntry *const entry = KCSSLListEntryAlloc(sizeof(Record));
    static_cast<Record *>(entry->pData)->number = 1;
    KCSSLListInsertEntryAtTail(list, entry);
    KCSSLListEntryFree(KCSSLListRemoveEntryAtHead(list));
  });
  AddContender("list_new_record/std_list", 0, [] {
    {
      const std::lock_guard lock(mutex);
      plain.push_back({1});
    }
    const std::lock_guard lock(mutex);
    benchmark::DoNotOptimize(plain.front().number);
    plain.pop_front();
  });
  AddContender("list_new_record/glib_queue", 0, [] {
    g_async_queue_push(queue, new Record{1});
    delete static_cast<Record *>(g_async_queue_pop(queue));
  });
}

}  // namespace

void AddListBenchmarks() {
  AddIdentifiers();
  AddLists();
  AddListsWithAllocation();
}

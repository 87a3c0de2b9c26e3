// Linked lists with a lock of their own. What the two kinds share is written once, over their types.
#include "lxipc.h"
#include "owners.h"
#include "zebcs/frame.h"
#include "zebcs/list.h"

namespace {

// Holds a list's lock, on every way out: a comparison may leave by an exception.
class ListLock {
 public:
  template <class List>
  [[nodiscard]] explicit ListLock(const List &list) : m_lock(list.pLock) {
    LockLocalMutex(m_lock);
  }
  ListLock(const ListLock &) = delete;
  ListLock &operator=(const ListLock &) = delete;
  ~ListLock() { UnlockLocalMutex(m_lock); }

 private:
  void *m_lock;
};

void SetPrevious(KCSSLListEntry & /*entry*/, KCSSLListEntry * /*pPrevious*/) {}
void SetPrevious(KCSDLListEntry &entry, KCSDLListEntry *pPrevious) { entry.pPrev = pPrevious; }

template <class List>
List *NewList() {
  MallocPtr<List> list = MallocArray<List>(1);
  if (!list) return nullptr;
  *list = {};
  list->pLock = AllocContextLock();
  return list->pLock == nullptr ? nullptr : list.release();
}

template <class List>
void FreeList(List *pList) {
  const MallocPtr<List> list(pList);
  if (!list) return;
  LockContext(list->pLock);  // whoever is at work in the list finishes first
  UnLockContext(list->pLock);
  FreeContextLock(list->pLock);
}

template <class Entry>
Entry *NewEntry(u32 dataSize) {
  Entry *const entry = static_cast<Entry *>(std::malloc(sizeof(Entry) + dataSize));
  if (entry != nullptr) entry->pData = entry + 1;
  return entry;
}

// Links an entry behind another, or at the head.
template <class List, class Entry>
void LinkBehind(List &list, Entry *pPrevious, Entry &entry) {
  Entry *const next = pPrevious == nullptr ? list.pHead : pPrevious->pNext;
  entry.pNext = next;
  SetPrevious(entry, pPrevious);
  if (pPrevious == nullptr) {
    list.pHead = &entry;
  } else {
    pPrevious->pNext = &entry;
  }
  if (next == nullptr) {
    list.pTail = &entry;
  } else {
    SetPrevious(*next, &entry);
  }
  ++list.curDepth;
}

template <class List, class Entry>
void InsertAtTail(List *pList, Entry *pEntry) {
  if (pList == nullptr || pEntry == nullptr) return;
  const ListLock lock(*pList);
  pEntry->pNext = nullptr;
  Entry *const tail = pList->pTail;
  SetPrevious(*pEntry, tail);
  pList->pTail = pEntry;
  if (tail == nullptr) {
    pList->pHead = pEntry;
  } else {
    tail->pNext = pEntry;
  }
  ++pList->curDepth;
}

template <class List, class Entry>
void InsertAtHead(List *pList, Entry *pEntry) {
  if (pList == nullptr || pEntry == nullptr) return;
  const ListLock lock(*pList);
  LinkBehind(*pList, static_cast<Entry *>(nullptr), *pEntry);
}

// Inserts an entry before the first that does not belong before it. With `isKeyed` an equal one refuses it.
template <class List, class Entry>
s32 InsertInOrder(List *pList, Entry *pEntry, s32 (*pfnCmp)(Entry *, Entry *), bool isKeyed) {
  constexpr s32 kKeyExists = SM_STATUS_BAD_PARAMETER;
  if (pList == nullptr || pEntry == nullptr || pfnCmp == nullptr) return SM_STATUS_INVALID_INPUT;
  const ListLock lock(*pList);
  Entry *previous = nullptr;
  for (Entry *listed = pList->pHead; listed != nullptr; listed = listed->pNext) {
    const s32 order = pfnCmp(pEntry, listed);
    if (order == 0 && isKeyed) return kKeyExists;
    // Kept: an equal entry goes before those that are there; behind them would be expected.
    if (order <= 0) break;
    previous = listed;
  }
  LinkBehind(*pList, previous, *pEntry);
  return SM_STATUS_SUCCESS;
}

template <class List>
auto RemoveAtHead(List *pList) -> decltype(pList->pHead) {
  if (pList == nullptr) return nullptr;
  const ListLock lock(*pList);
  const auto entry = pList->pHead;
  if (entry == nullptr) return nullptr;
  pList->pHead = entry->pNext;
  if (pList->pHead == nullptr) {
    pList->pTail = nullptr;
  } else {
    SetPrevious(*pList->pHead, nullptr);
  }
  --pList->curDepth;
  return entry;
}

}  // namespace

KCSSLList *SLListAlloc(void) { return NewList<KCSSLList>(); }
KCSDLList *DLListAlloc(void) { return NewList<KCSDLList>(); }
void SLListFree(KCSSLList *pList) { FreeList(pList); }
void DLListFree(KCSDLList *pList) { FreeList(pList); }
KCSSLListEntry *SLListEntryAlloc(u32 entryDataSize) { return NewEntry<KCSSLListEntry>(entryDataSize); }
KCSDLListEntry *DLListEntryAlloc(u32 entryDataSize) { return NewEntry<KCSDLListEntry>(entryDataSize); }
void SLListEntryFree(KCSSLListEntry *pEntry) { std::free(pEntry); }
void DLListEntryFree(KCSDLListEntry *pEntry) { std::free(pEntry); }
void SLListInsertEntryAtTail(KCSSLList *pList, KCSSLListEntry *pEntry) { InsertAtTail(pList, pEntry); }
void DLListInsertEntryAtTail(KCSDLList *pList, KCSDLListEntry *pEntry) { InsertAtTail(pList, pEntry); }
void SLListInsertEntryAtHead(KCSSLList *pList, KCSSLListEntry *pEntry) { InsertAtHead(pList, pEntry); }
void DLListInsertEntryAtHead(KCSDLList *pList, KCSDLListEntry *pEntry) { InsertAtHead(pList, pEntry); }

s32 SLListInsertOrdered(KCSSLList *pList, KCSSLListEntry *pEntry, PFNSLLISTCMP pfnCmp) {
  return InsertInOrder(pList, pEntry, pfnCmp, false);
}
s32 DLListInsertOrdered(KCSDLList *pList, KCSDLListEntry *pEntry, PFNDLLISTCMP pfnCmp) {
  return InsertInOrder(pList, pEntry, pfnCmp, false);
}
s32 SLListInsertKeyed(KCSSLList *pList, KCSSLListEntry *pEntry, PFNSLLISTCMP pfnCmp) {
  return InsertInOrder(pList, pEntry, pfnCmp, true);
}
s32 DLListInsertKeyed(KCSDLList *pList, KCSDLListEntry *pEntry, PFNDLLISTCMP pfnCmp) {
  return InsertInOrder(pList, pEntry, pfnCmp, true);
}

void SLListDeleteEntry(KCSSLList *pList, KCSSLListEntry *pEntry) {
  if (pList == nullptr || pEntry == nullptr) return;
  const ListLock lock(*pList);
  KCSSLListEntry *previous = nullptr;
  KCSSLListEntry *listed = pList->pHead;
  while (listed != nullptr && listed != pEntry) {
    previous = listed;
    listed = listed->pNext;
  }
  if (listed == nullptr) return;
  if (previous == nullptr) {
    pList->pHead = pEntry->pNext;
  } else {
    previous->pNext = pEntry->pNext;
  }
  if (pList->pTail == pEntry) pList->pTail = previous;
  --pList->curDepth;
}

void DLListDeleteEntry(KCSDLList *pList, KCSDLListEntry *pEntry) {
  if (pList == nullptr || pEntry == nullptr) return;
  const ListLock lock(*pList);
  KCSDLListEntry *const previous = pEntry->pPrev;
  KCSDLListEntry *const next = pEntry->pNext;
  if (previous != nullptr) previous->pNext = next;
  if (next != nullptr) next->pPrev = previous;
  if (pList->pHead == pEntry) pList->pHead = next;
  if (pList->pTail == pEntry) pList->pTail = previous;
  --pList->curDepth;  // Kept: also for an entry that is not there, which the list does not find out.
}

KCSSLListEntry *SLListRemoveEntryAtHead(KCSSLList *pList) { return RemoveAtHead(pList); }
KCSDLListEntry *DLListRemoveEntryAtHead(KCSDLList *pList) { return RemoveAtHead(pList); }

// Kept: two steps, between which another thread may change the list; one would be expected.
KCSSLListEntry *SLListRemoveEntryAtTail(KCSSLList *pList) {
  if (pList == nullptr) return nullptr;
  KCSSLListEntry *tail = nullptr;
  {
    const ListLock lock(*pList);
    tail = pList->pTail;
  }
  SLListDeleteEntry(pList, tail);
  return tail;
}

KCSDLListEntry *DLListRemoveEntryAtTail(KCSDLList *pList) {
  if (pList == nullptr) return nullptr;
  const ListLock lock(*pList);
  KCSDLListEntry *const tail = pList->pTail;
  if (tail == nullptr) return nullptr;
  pList->pTail = tail->pPrev;
  if (pList->pTail == nullptr) {
    pList->pHead = nullptr;
  } else {
    pList->pTail->pNext = tail->pNext;
  }
  --pList->curDepth;
  return tail;
}

/* Linked lists with a lock of their own, for records that threads hand to each other.
 *
 * A list holds entries that its caller allocates and releases; it links and unlinks them, and owns neither them nor
 * their payloads. An entry may be in one list at a time.
 *
 *   KCSSLList *pQueue = KCSSLListAlloc();
 *   KCSSLListEntry *pEntry = KCSSLListEntryAlloc(sizeof(Job));
 *   *(Job *)pEntry->pData = job;
 *   KCSSLListInsertEntryAtTail(pQueue, pEntry);
 *   pEntry = KCSSLListRemoveEntryAtHead(pQueue);   ... KCSSLListEntryFree(pEntry);
 *
 * A NULL list or entry is ignored.
 *
 * Threads: every function may run on any thread; those of one list exclude each other. Whoever reads a list's record
 * himself holds its pLock meanwhile. A payload belongs to whoever has the entry. A comparison must not use the list
 * that it is called for. */
#ifndef ZEBCS_LIST_H
#define ZEBCS_LIST_H

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* An entry and the payload behind it, in one block. */
typedef struct KCSSLListEntry {
  struct KCSSLListEntry *volatile pNext; /* the next entry, or NULL */
  void *volatile pData;                  /* the payload */
} KCSSLListEntry;

/* The same with a link in either direction. */
typedef struct KCSDLListEntry {
  struct KCSDLListEntry *volatile pNext; /* the next entry, or NULL */
  struct KCSDLListEntry *volatile pPrev; /* the one before, or NULL */
  void *volatile pData;                  /* the payload */
} KCSDLListEntry;

/* A singly linked list. */
typedef struct KCSSLList {
  void *pLock;           /* a context lock (frame.h) */
  KCSSLListEntry *pHead; /* the first entry, or NULL */
  KCSSLListEntry *pTail; /* the last entry, or NULL */
  s32 curDepth;          /* number of entries */
} KCSSLList;

/* A doubly linked list. */
typedef struct KCSDLList {
  void *pLock;           /* a context lock (frame.h) */
  KCSDLListEntry *pHead; /* the first entry, or NULL */
  KCSDLListEntry *pTail; /* the last entry, or NULL */
  s32 curDepth;          /* number of entries */
} KCSDLList;

/* Compares the entry that is to be inserted with one of the list: negative when it belongs before that, 0 when they are
 * equal, positive when it belongs behind. */
typedef s32 (*PFNSLLISTCMP)(KCSSLListEntry *pNew, KCSSLListEntry *pListed);
typedef s32 (*PFNDLLISTCMP)(KCSDLListEntry *pNew, KCSDLListEntry *pListed);

/* Allocate an empty list, released with the Free function. NULL when memory ran out. */
ZEBCS_API KCSSLList *KCSSLListAlloc(void);
ZEBCS_API KCSDLList *KCSDLListAlloc(void);

/* Release a list. Entries that are still in it are not touched. A thread that is at work in the list is waited for;
 * none may come to it any more. */
ZEBCS_API void KCSSLListFree(KCSSLList *pList);
ZEBCS_API void KCSDLListFree(KCSDLList *pList);

/* Allocate an entry with a payload of so many bytes, aligned for pointers and numbers of 64 bits, at pData. Nothing but
 * pData is initialised. Released with the Free function. NULL when memory ran out. */
ZEBCS_API KCSSLListEntry *KCSSLListEntryAlloc(u32 entryDataSize);
ZEBCS_API KCSDLListEntry *KCSDLListEntryAlloc(u32 entryDataSize);
ZEBCS_API void KCSSLListEntryFree(KCSSLListEntry *pEntry);
ZEBCS_API void KCSDLListEntryFree(KCSDLListEntry *pEntry);

/* Insert an entry at an end. */
ZEBCS_API void KCSSLListInsertEntryAtTail(KCSSLList *pList, KCSSLListEntry *pEntry);
ZEBCS_API void KCSDLListInsertEntryAtTail(KCSDLList *pList, KCSDLListEntry *pEntry);
ZEBCS_API void KCSSLListInsertEntryAtHead(KCSSLList *pList, KCSSLListEntry *pEntry);
ZEBCS_API void KCSDLListInsertEntryAtHead(KCSDLList *pList, KCSDLListEntry *pEntry);

/* Insert an entry in order, before the first one to which it compares equal or smaller, or at the tail.
 *
 * Returns  0; SM_STATUS_INVALID_INPUT when an argument is NULL. */
ZEBCS_API s32 KCSSLListInsertOrdered(KCSSLList *pList, KCSSLListEntry *pEntry, PFNSLLISTCMP pfnCmp);
ZEBCS_API s32 KCSDLListInsertOrdered(KCSDLList *pList, KCSDLListEntry *pEntry, PFNDLLISTCMP pfnCmp);

/* Insert an entry in order unless an equal one is there.
 *
 * Returns  0; 2 when there is an equal entry, and the list is as it was; SM_STATUS_INVALID_INPUT when an argument is
 *          NULL. */
ZEBCS_API s32 KCSSLListInsertKeyed(KCSSLList *pList, KCSSLListEntry *pEntry, PFNSLLISTCMP pfnCmp);
ZEBCS_API s32 KCSDLListInsertKeyed(KCSDLList *pList, KCSDLListEntry *pEntry, PFNDLLISTCMP pfnCmp);

/* Unlink an entry, which is not released. The singly linked list looks for it and is unchanged when it is not there;
 * the doubly linked one takes the caller's word, so never pass an entry of another list or of none. The links of the
 * entry itself stay as they are. */
ZEBCS_API void KCSSLListDeleteEntry(KCSSLList *pList, KCSSLListEntry *pEntry);
ZEBCS_API void KCSDLListDeleteEntry(KCSDLList *pList, KCSDLListEntry *pEntry);

/* Unlink and return the entry at an end; NULL from an empty list. KCSSLListRemoveEntryAtTail takes the lock twice, and
 * another thread may take the same entry in between: use the head where threads compete. */
ZEBCS_API KCSSLListEntry *KCSSLListRemoveEntryAtHead(KCSSLList *pList);
ZEBCS_API KCSDLListEntry *KCSDLListRemoveEntryAtHead(KCSDLList *pList);
ZEBCS_API KCSSLListEntry *KCSSLListRemoveEntryAtTail(KCSSLList *pList);
ZEBCS_API KCSDLListEntry *KCSDLListRemoveEntryAtTail(KCSDLList *pList);

/* The same functions under their plain names. */
ZEBCS_API KCSSLList *SLListAlloc(void);
ZEBCS_API KCSDLList *DLListAlloc(void);
ZEBCS_API void SLListFree(KCSSLList *pList);
ZEBCS_API void DLListFree(KCSDLList *pList);
ZEBCS_API KCSSLListEntry *SLListEntryAlloc(u32 entryDataSize);
ZEBCS_API KCSDLListEntry *DLListEntryAlloc(u32 entryDataSize);
ZEBCS_API void SLListEntryFree(KCSSLListEntry *pEntry);
ZEBCS_API void DLListEntryFree(KCSDLListEntry *pEntry);
ZEBCS_API void SLListInsertEntryAtTail(KCSSLList *pList, KCSSLListEntry *pEntry);
ZEBCS_API void DLListInsertEntryAtTail(KCSDLList *pList, KCSDLListEntry *pEntry);
ZEBCS_API void SLListInsertEntryAtHead(KCSSLList *pList, KCSSLListEntry *pEntry);
ZEBCS_API void DLListInsertEntryAtHead(KCSDLList *pList, KCSDLListEntry *pEntry);
ZEBCS_API s32 SLListInsertOrdered(KCSSLList *pList, KCSSLListEntry *pEntry, PFNSLLISTCMP pfnCmp);
ZEBCS_API s32 DLListInsertOrdered(KCSDLList *pList, KCSDLListEntry *pEntry, PFNDLLISTCMP pfnCmp);
ZEBCS_API s32 SLListInsertKeyed(KCSSLList *pList, KCSSLListEntry *pEntry, PFNSLLISTCMP pfnCmp);
ZEBCS_API s32 DLListInsertKeyed(KCSDLList *pList, KCSDLListEntry *pEntry, PFNDLLISTCMP pfnCmp);
ZEBCS_API void SLListDeleteEntry(KCSSLList *pList, KCSSLListEntry *pEntry);
ZEBCS_API void DLListDeleteEntry(KCSDLList *pList, KCSDLListEntry *pEntry);
ZEBCS_API KCSSLListEntry *SLListRemoveEntryAtHead(KCSSLList *pList);
ZEBCS_API KCSDLListEntry *DLListRemoveEntryAtHead(KCSDLList *pList);
ZEBCS_API KCSSLListEntry *SLListRemoveEntryAtTail(KCSSLList *pList);
ZEBCS_API KCSDLListEntry *DLListRemoveEntryAtTail(KCSDLList *pList);

#ifdef __cplusplus
}
#endif

#endif

/* Small integer identifiers, handed out from a bitmap in the caller's memory.
 *
 * A table is any memory of hashTableSize bytes; its whole 32-bit words count. An identifier is the index of a bit in
 * it: word id / 32, bit id % 32, set while it is in use. 0 is never handed out and stands for "none". Of a table above
 * 512 MiB the rest has no identifiers.
 *
 *   u32 table[32];
 *   KCSClearHashTable(table, sizeof table);           ... identifiers 1 to 1023
 *   u32 id = KCSAcquireHashID(table, sizeof table);   ... KCSReleaseHashID(table, sizeof table, id);
 *
 * A NULL table or index is answered like a table without words.
 *
 * Threads: nothing here locks; whoever shares a table guards it. */
#ifndef ZEBCS_HASHID_H
#define ZEBCS_HASHID_H

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns maxHashID / 8, rounded up: the bytes of the identifiers below maxHashID. Add a margin: only whole words of a
 * table count, and maxHashID itself may need one more byte. */
ZEBCS_API u32 KCSHashTableBytesNeeded(u32 maxHashID);

/* Sets all bytes of a table to 0. Returns 0. */
ZEBCS_API s32 KCSClearHashTable(void *pHashTable, u32 hashTableSize);

/* Returns the lowest free identifier, which is in use from then on; 0 when there is none. */
ZEBCS_API u32 KCSAcquireHashID(void *pHashTable, u32 hashTableSize);

/* Tells whether an identifier is in use. Those of the bytes behind the last whole word are looked at, too.
 *
 * Returns  0 when it is; -1 when it is free or beyond the table, and for 0. */
ZEBCS_API s32 KCSVerifyHashID(const void *pHashTable, u32 hashTableSize, u32 hashID);

/* Frees an identifier. Returns 0; -1 when it was not in use. */
ZEBCS_API s32 KCSReleaseHashID(void *pHashTable, u32 hashTableSize, u32 hashID);

/* Returns the highest identifier in use; 0 when there is none. */
ZEBCS_API u32 KCSGetMaxInUseID(const void *pHashTable, u32 hashTableSize);

/* Returns an identifier in use and stores its position; 0 when there is none left, and the position stays. Next goes on
 * from the position of the identifier before. In the words behind that it looks at the same bit and higher ones only:
 * not every identifier is reported.
 *
 * pHashIndex, pBitIndex  the position: word and bit. First sets both to 0 to begin with. */
ZEBCS_API u32 KCSFindFirstHashID(const void *pHashTable, u32 hashTableSize, u32 *pHashIndex, u32 *pBitIndex);
ZEBCS_API u32 KCSFindNextHashID(const void *pHashTable, u32 hashTableSize, u32 *pHashIndex, u32 *pBitIndex);

/* The same functions under their plain names. */
ZEBCS_API u32 HashTableBytesNeeded(u32 maxHashID);
ZEBCS_API s32 ClearHashTable(void *pHashTable, u32 hashTableSize);
ZEBCS_API u32 AcquireHashID(void *pHashTable, u32 hashTableSize);
ZEBCS_API s32 VerifyHashID(const void *pHashTable, u32 hashTableSize, u32 hashID);
ZEBCS_API s32 ReleaseHashID(void *pHashTable, u32 hashTableSize, u32 hashID);
ZEBCS_API u32 GetMaxInUseID(const void *pHashTable, u32 hashTableSize);
ZEBCS_API u32 FindFirstHashID(const void *pHashTable, u32 hashTableSize, u32 *pHashIndex, u32 *pBitIndex);
ZEBCS_API u32 FindNextHashID(const void *pHashTable, u32 hashTableSize, u32 *pHashIndex, u32 *pBitIndex);

#ifdef __cplusplus
}
#endif

#endif

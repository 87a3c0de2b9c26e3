/* Key=value files: flat settings such as the agent's properties.
 *
 * A file is read line by line, lines being ended by a line feed; more than 8449 bytes with it are several lines.
 * Only lines with a "=" count, and the first one splits. Before that a line is cleaned:
 *   1. Up to the value's first character, blanks (spaces, tabs, carriage returns, line feeds) outside double quotes go,
 *      those inside the key as well. A line with nothing but blanks after its "=" goes without this step.
 *   2. Blanks at the end go.
 *   3. Double quotes go.
 * A cleaned line that begins with "#" or ";" is a comment. A key may stand there several times: its instances are
 * counted from 0.
 *
 * Loading and editing hold the process-wide file lock (frame.h) for their pass over the file, and keep the threads of a
 * process apart. A table belongs to one thread at a time. */
#ifndef ZEBCS_KEYVALUE_H
#define ZEBCS_KEYVALUE_H

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A pair. */
typedef struct KCSKVEntry {
  astring *pKey;   /* what stands before the "=" */
  astring *pValue; /* what stands behind it */
} KCSKVEntry;

/* Loads all pairs of a file: of a path, of which 256 bytes count, or (Inst) of a name in the product's INI directory,
 * with which the path is cut at 255 bytes.
 *
 * pKVTSize  receives the number of pairs; 0 after a failure.
 * Returns   a new table, released with KCSCFGFreeKeyValueEntries; NULL when an argument is NULL, when the file cannot
 *           be read or has no pairs, when the lock is not to be had, and when memory ran out. */
ZEBCS_API KCSKVEntry *KCSCFGGetKeyValueEntries(const astring *pPathFileName, u32 *pKVTSize);
ZEBCS_API KCSKVEntry *KCSCFGInstGetKeyValueEntries(const astring *pFileName, u32 *pKVTSize);

/* Returns the value of the given instance of a key, compared byte by byte, inside the table; NULL if there is none. */
ZEBCS_API astring *KCSCFGGetKeyValue(const KCSKVEntry *pKVTable, u32 kvtSize, const astring *pKeyName, u32 instance);

/* Releases a table with its texts. NULL is ignored. */
ZEBCS_API void KCSCFGFreeKeyValueEntries(KCSKVEntry *pKVTable, u32 kvtSize);

/* Replaces one instance of a key, adds one or removes one. All other lines stay as they are, byte for byte. The file,
 * which must exist, is written anew as "kcscfg64.tmp" in its directory, or for a file directly under the root in the
 * working directory, and replaced as in ini.h, with mode 01664. A value with a line feed becomes several lines.
 *
 * pKVEnt    the pair; a NULL value removes the instance's line.
 * instance  0 or the number of instances there are adds the pair at the end of the file if it is not there.
 * Returns   0; SM_STATUS_INVALID_INPUT when an argument or the key is NULL, when the path ends in "/kcscfg64.tmp" or
 *           is that name, or when there are fewer instances;
 *           SM_STATUS_BAD_SIZE when key and value exceed 8448 bytes together; SM_STATUS_KEY_NOT_FOUND when there is
 *           nothing to remove; -1 when the directory cannot be made; SM_STATUS_LOCK_TIMEOUT;
 *           SM_STATUS_PATH_UNAVAILABLE when a file cannot be opened; SM_STATUS_WRITE_FAILED, also when the file cannot
 *           be read to its end; SM_STATUS_DELETE_FAILED. The file then has its old content, and the temporary one
 *           is deleted. After SM_STATUS_RENAME_FAILED the new content is in the temporary file only. */
ZEBCS_API s32 KCSCFGSetKeyValue(const astring *pPathFileName, const KCSKVEntry *pKVEnt, u32 instance);
ZEBCS_API s32 KCSCFGInstSetKeyValue(const astring *pFileName, const KCSKVEntry *pKVEnt, u32 instance);

/* The same functions under their plain names. bUseInstallPath: exactly 1 takes a name in the product's INI directory,
 * as the Inst functions do. */
ZEBCS_API KCSKVEntry *CFGGetKeyValueEntries(const astring *pPathFileName, booln bUseInstallPath, u32 *pKVTSize);
ZEBCS_API astring *CFGGetKeyValue(const KCSKVEntry *pKVTable, u32 kvtSize, const astring *pKeyName, u32 instance);
ZEBCS_API void CFGFreeKeyValueEntries(KCSKVEntry *pKVTable, u32 kvtSize);
ZEBCS_API s32 CFGSetKeyValue(const astring *pPathFileName, booln bUseInstallPath, const KCSKVEntry *pKVEnt,
                             u32 instance);

/* Fills a table with the pairs of a file, or counts them.
 *
 * pKVTable  room for *pSizeKVT pairs, whose texts are new; NULL counts.
 * pSizeKVT  in: the room, 0 with a NULL table; out: the number of pairs, when the result is -1 after reading.
 * Returns   0 when the table has all pairs; -1 when it was counted, when the room is too small, and when the file
 *           cannot be read; SM_STATUS_INVALID_INPUT; SM_STATUS_LOCK_TIMEOUT; SM_STATUS_NO_MEMORY. After a failure the
 *           entries that were filled are released and NULL. */
ZEBCS_API s32 PopulateKeyValueEntries(const astring *pPathFileName, KCSKVEntry *pKVTable, u32 *pSizeKVT);

/* CFGSetKeyValue on a path of at most 256 bytes; SM_STATUS_INVALID_INPUT for a longer one. */
ZEBCS_API s32 SetKeyValueEntry(const astring *pPathFileName, const KCSKVEntry *pKVEnt, u32 instance);

/* Cleans a line in place. One without a "=" stays as it is. */
ZEBCS_API void CFGEntryRemoveWhiteSpaceAndDQuotes(astring *pLine);

/* Return the index of the first "=" of a text, and of its first character that is neither space nor tab; -1 if there
 * is none. */
ZEBCS_API s32 CFGEqualPosition(const astring *pStr);
ZEBCS_API s32 CFGGetFirstNonWhiteSpacePos(const astring *pStr);

#ifdef __cplusplus
}
#endif

#endif

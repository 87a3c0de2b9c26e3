/* The INI store: typed settings in text files that several processes share, and helpers for files.
 *
 * A file is read line by line, lines being ended by a line feed; more than 8449 bytes with it are several lines.
 *   [section]   a header: blanks (spaces and tabs) may stand before "["; what follows the first "]" is ignored
 *   key=value   blanks before the key are skipped; nothing else is trimmed, and the first "=" splits
 *   ; or #      in the first column: a comment
 * A line whose first character after blanks is "[" and that has no "]" makes reads and writes that come across it on
 * the way to their section fail with SM_STATUS_PARSE_ERROR; behind that it ends the section. Other lines without "="
 * are ignored, but see writing. Names are compared byte by byte; of sections and keys that stand there twice the first
 * counts.
 *
 * Value types, with the text in the file. Sizes are in bytes.
 *   1 astring  the text                            6 s32   decimal
 *   2 ustring  as binary, terminator included      7 u64   decimal
 *   3 binary   "0x01,0xAB,...", 1 to 1638 bytes    8 s64   decimal
 *   4 booln    "TRUE" or "FALSE"                   9 d64   with eight decimals
 *   5 u32      decimal
 *
 * Reads and writes take the process-wide file lock (frame.h) for the whole of their work on the file, and keep the
 * threads of a process apart, so that nobody meets them in the middle of a rewrite. The helpers for files take no lock.
 * The store keeps nothing between calls. */
#ifndef ZEBCS_INI_H
#define ZEBCS_INI_H

#include <stdio.h>

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The value types above. */
#define ZEBCS_INI_ASTRING 1
#define ZEBCS_INI_USTRING 2
#define ZEBCS_INI_BINARY 3
#define ZEBCS_INI_BOOLN 4
#define ZEBCS_INI_U32 5
#define ZEBCS_INI_S32 6
#define ZEBCS_INI_U64 7
#define ZEBCS_INI_S64 8
#define ZEBCS_INI_D64 9

/* Reads one value or, as astring, a list of names.
 *
 * pSection       NULL lists the sections.
 * pKey           NULL lists the keys of the section.
 * pValue         room for the value or the list; never NULL.
 * pvSize         in: the room; at least the size of a number type, 1 for the others, 2 for a list.
 *                out: texts and lists: bytes stored, or needed with SM_STATUS_BUFFER_TOO_SMALL; binary: likewise;
 *                numbers: unchanged. When the default was stored: its size, of which a number has that of its type.
 *                When the call failed and there is no default: 0, but unchanged with refused arguments, for a list
 *                (except as above), and for a text whose file could not be locked or opened.
 * pDefault       stored when the call fails after its arguments were accepted, but not for a list, not with
 *                SM_STATUS_BUFFER_TOO_SMALL of a text or a binary value, and for a text only after its file was
 *                opened. May be NULL. The status of the failure is returned all the same.
 * dSize          its size: numbers: at least the size of the type, else there is no default; texts and binary: any,
 *                cut to the room, and a text ends with a terminator in any case; ustring: exactly its bytes with the
 *                terminator.
 * canBlock       1 waits for the file lock, up to 60000 ms; any other value tries once.
 * Lists          are names with their terminators and one more terminator. The size that comes back does not count
 *                that last one, and a list that fills the room exactly has it one byte behind the room: give a byte
 *                more than the size says. Every header and every key is listed, also twice.
 * Texts          are stored whole or, with SM_STATUS_BUFFER_TOO_SMALL, not at all.
 * Numbers        a text that is no number reads as the default, or as 0 without one, with status 0 and the size as
 *                it was. A booln is the first word, in any letter case; only spaces end words.
 * Returns        0; SM_STATUS_BAD_PARAMETER; SM_STATUS_LOCK_TIMEOUT; SM_STATUS_NOT_FOUND when the file cannot be
 *                opened; SM_STATUS_SECTION_NOT_FOUND; SM_STATUS_KEY_NOT_FOUND; SM_STATUS_PARSE_ERROR, also when the
 *                file cannot be read; SM_STATUS_BUFFER_TOO_SMALL; SM_STATUS_BAD_SIZE for a booln that is neither
 *                word and for a byte above 255. */
ZEBCS_API s32 KCSReadINIPathFileValue(const astring *pSection, const astring *pKey, u32 vType, void *pValue,
                                      u32 *pvSize, const void *pDefault, u32 dSize, const astring *pPathFileName,
                                      booln canBlock);

/* Writes one value, or removes a key.
 *
 * The first line of the key in the first section of that name is replaced; a key that is not there is added at the
 * section's end, before the next header, and a section that is not there with its key at the end of the file. A line
 * of the section that consists of the key alone, without "=", counts as the key. All other lines stay as they are,
 * byte for byte. The file is written anew as "kcsini64.tmp" in its directory, which is made if missing (one level),
 * and then takes the place of the old one with mode 01664. A file that does not exist is written directly, and a new
 * section is added to the file in place. The temporary file of a file directly under the root is in the working
 * directory. Where another account has left one that cannot be replaced, or something else than a plain file has its
 * name, nothing is written.
 *
 * pSection, pKey  at most 255 bytes.
 * pPathFileName   must not end in "/kcsini64.tmp", nor be that name.
 * pValue          NULL removes the key; vSize must then be 0. Removing a key that is not in the last section of the
 *                 file adds the line "key=(null)" to it.
 * vSize           astring: length + 1, at most 8193; ustring: bytes with the terminator, at most 1638; binary: 1 to
 *                 1638; numbers: at least the size of the type.
 * Returns         0; SM_STATUS_BAD_PARAMETER; SM_STATUS_BAD_SIZE, also when there is nothing to remove a key from and
 *                 for a double whose text exceeds 95 characters; SM_STATUS_LOCK_TIMEOUT; SM_STATUS_NOT_FOUND when a
 *                 file cannot be opened; SM_STATUS_PARSE_ERROR; SM_STATUS_WRITE_FAILED; -1 when the directory cannot
 *                 be made; SM_STATUS_DELETE_FAILED. The old content is then as it was, and a temporary file may stay.
 *                 After SM_STATUS_RENAME_FAILED the new content is in the temporary file only. */
ZEBCS_API s32 KCSWriteINIPathFileValue(const astring *pSection, const astring *pKey, u32 vType, const void *pValue,
                                       u32 vSize, const astring *pPathFileName, booln canBlock);

/* KCSReadINIPathFileValue and KCSWriteINIPathFileValue on a file of the product's INI directory.
 *
 * pFileName  its name there; the whole path is cut at 255 bytes.
 * Returns    SM_STATUS_BAD_PARAMETER also when pFileName is NULL; -1 when the install path is unknown. */
ZEBCS_API s32 KCSReadINIFileValue(const astring *pSection, const astring *pKey, u32 vType, void *pValue, u32 *pvSize,
                                  const void *pDefault, u32 dSize, const astring *pFileName, booln canBlock);
ZEBCS_API s32 KCSWriteINIFileValue(const astring *pSection, const astring *pKey, u32 vType, const void *pValue,
                                   u32 vSize, const astring *pFileName, booln canBlock);

/* Makes a directory with mode 0755, whatever the umask, but none above it.
 *
 * Returns  0, also when something accessible is there already; -1. */
ZEBCS_API s32 KCSMkDir(const astring *pPath);

/* Removes an empty directory.
 *
 * Returns  0; SM_STATUS_BAD_DATA when it is not empty; SM_STATUS_FAILED when it does not exist; -1. */
ZEBCS_API s32 KCSRmDir(const astring *pPath);

/* Makes a file name that is not in use, in the system's temporary directory; the file is not made. The working
 * directory of the process is pPath for a moment, so no other thread should use relative paths meanwhile.
 *
 * pSize    in: room in bytes, at least 20; out: bytes used, with the terminator. The rest of the room becomes zeros.
 * Returns  0; SM_STATUS_BUFFER_TOO_SMALL with a size of 20, or when the working directory has no name below 256
 *          bytes; SM_STATUS_FAILED when pPath cannot be entered; SM_STATUS_RENAME_FAILED when there is no name; 9 when
 *          the way back fails; SM_STATUS_BAD_PARAMETER when an argument is NULL. */
ZEBCS_API s32 KCSGetTmpFile(const astring *pPath, astring *pFileName, u32 *pSize);

/* Stores a file's size in bytes, modulo 2^32; 0 after a failure.
 *
 * Returns  0; -1 when the file cannot be opened or its size cannot be told; SM_STATUS_BAD_PARAMETER when an argument
 *          is NULL. */
ZEBCS_API s32 KCSGetSizeOfFile(const astring *pPathFileName, u32 *pSize);

/* Sets a file's mode to 01664 and deletes it. Returns 0; -1 when either fails. */
ZEBCS_API s32 KCSDeleteFile(const astring *pPathFileName);

/* The same functions under their plain names: the first two and, with other names, the helpers. */
ZEBCS_API s32 ReadINIPathFileValue(const astring *pSection, const astring *pKey, u32 vType, void *pValue, u32 *pvSize,
                                   const void *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 WriteINIPathFileValue(const astring *pSection, const astring *pKey, u32 vType, const void *pValue,
                                    u32 vSize, const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 SUPTIntfReadINIFileValue(const astring *pSection, const astring *pKey, u32 vType, void *pValue,
                                       u32 *pvSize, const void *pDefault, u32 dSize, const astring *pFileName,
                                       booln canBlock);
ZEBCS_API s32 SUPTIntfWriteINIFileValue(const astring *pSection, const astring *pKey, u32 vType, const void *pValue,
                                        u32 vSize, const astring *pFileName, booln canBlock);
ZEBCS_API s32 CreateDir(const astring *pPath);
ZEBCS_API s32 DelDir(const astring *pPath);
ZEBCS_API s32 GetTmpFile(const astring *pPath, astring *pFileName, u32 *pSize);
ZEBCS_API s32 GetSizeOfFile(const astring *pPathFileName, u32 *pSize);
ZEBCS_API s32 DelFile(const astring *pPathFileName);

/* One type each of the two above, with their arguments and results. */
ZEBCS_API s32 ReadINIFileValue_astring(const astring *pSection, const astring *pKey, astring *pValue, u32 *pvSize,
                                       const astring *pDefault, u32 dSize, const astring *pPathFileName,
                                       booln canBlock);
ZEBCS_API s32 ReadINIFileValue_ustring(const astring *pSection, const astring *pKey, ustring *pValue, u32 *pvSize,
                                       const ustring *pDefault, u32 dSize, const astring *pPathFileName,
                                       booln canBlock);
ZEBCS_API s32 ReadINIFileValue_binary(const astring *pSection, const astring *pKey, u8 *pValue, u32 *pvSize,
                                      const u8 *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 ReadINIFileValue_booln(const astring *pSection, const astring *pKey, booln *pValue, u32 *pvSize,
                                     const booln *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 ReadINIFileValue_u32(const astring *pSection, const astring *pKey, u32 *pValue, u32 *pvSize,
                                   const u32 *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 ReadINIFileValue_s32(const astring *pSection, const astring *pKey, s32 *pValue, u32 *pvSize,
                                   const s32 *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 ReadINIFileValue_u64(const astring *pSection, const astring *pKey, u64 *pValue, u32 *pvSize,
                                   const u64 *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 ReadINIFileValue_s64(const astring *pSection, const astring *pKey, s64 *pValue, u32 *pvSize,
                                   const s64 *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 ReadINIFileValue_d64(const astring *pSection, const astring *pKey, d64 *pValue, u32 *pvSize,
                                   const d64 *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 WriteINIFileValue_astring(const astring *pSection, const astring *pKey, const astring *pValue, u32 vSize,
                                        const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 WriteINIFileValue_ustring(const astring *pSection, const astring *pKey, const ustring *pValue, u32 vSize,
                                        const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 WriteINIFileValue_binary(const astring *pSection, const astring *pKey, const u8 *pValue, u32 vSize,
                                       const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 WriteINIFileValue_booln(const astring *pSection, const astring *pKey, const booln *pValue, u32 vSize,
                                      const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 WriteINIFileValue_u32(const astring *pSection, const astring *pKey, const u32 *pValue, u32 vSize,
                                    const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 WriteINIFileValue_s32(const astring *pSection, const astring *pKey, const s32 *pValue, u32 vSize,
                                    const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 WriteINIFileValue_u64(const astring *pSection, const astring *pKey, const u64 *pValue, u32 vSize,
                                    const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 WriteINIFileValue_s64(const astring *pSection, const astring *pKey, const s64 *pValue, u32 vSize,
                                    const astring *pPathFileName, booln canBlock);
ZEBCS_API s32 WriteINIFileValue_d64(const astring *pSection, const astring *pKey, const d64 *pValue, u32 vSize,
                                    const astring *pPathFileName, booln canBlock);

/* Puts one file in the place of another: deletes the first and renames the second to its name, with mode 01664.
 *
 * Returns  0; SM_STATUS_DELETE_FAILED, with both files there, the first with mode 01664; SM_STATUS_RENAME_FAILED, with
 *          the first gone; SM_STATUS_BAD_PARAMETER when an argument is NULL. */
ZEBCS_API s32 ReplaceFile(const astring *pPathFileNameToDelete, const astring *pPathFileNameReplaceWith);

/* Returns the size of an open file in bytes, the low 32 bits of it; -1 when it cannot be told. The stream's position
 * stays. */
ZEBCS_API s32 GetStreamFileSize(FILE *fp);

/* The words for a booln, read and written through these two: "TRUE" and "FALSE". */
ZEBCS_API extern const astring *pStrTRUE;
ZEBCS_API extern const astring *pStrFALSE;

#ifdef __cplusplus
}
#endif

#endif

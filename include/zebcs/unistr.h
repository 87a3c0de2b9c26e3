/* 16-bit strings and self-sizing strings.
 *
 * The string functions work on `ustring` text, counted in 16-bit units, as the C library's functions of like names
 * work on bytes: pointers must not be NULL, destinations must be large enough, and nothing is reported but the
 * result. The KCS functions reduce a character argument to its low 16 bits.
 *
 * A self-sizing string is a record of the caller's with a heap buffer of its own:
 *   KCSSSAStr s = {0};
 *   if (KCSSSAStrAlloc(&s, 64) != NULL) { KCSSSAStrCatAStr(&s, "text"); ... KCSSSAStrFree(&s); }
 * While pStr is not NULL the text is terminated and fits strBufSize. An append that needs room doubles a buffer of up
 * to 0xFFFFF bytes and grows a larger one by a quarter, or takes the need where that is more.
 *
 * Threads: nothing here locks. UniStrtok keeps one position for the whole process. A self-sizing string belongs to
 * one thread at a time. */
#ifndef ZEBCS_UNISTR_H
#define ZEBCS_UNISTR_H

#include <stddef.h>

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A self-sizing string of bytes. */
typedef struct KCSSSAStr {
  astring *pStr;  /* the text, or NULL while there is no buffer */
  u32 strBufSize; /* room, in bytes */
  u32 strCurLen;  /* length, in bytes, without the terminator */
} KCSSSAStr;

/* A self-sizing string of 16-bit units. */
typedef struct KCSSSUStr {
  ustring *pStr;  /* the text, or NULL while there is no buffer */
  u32 strBufSize; /* room, in bytes */
  u32 strCurLen;  /* length, in 16-bit units, without the terminator */
} KCSSSUStr;

/* Returns the number of units before the terminator. */
ZEBCS_API u32 KCSUniStrlen(const ustring *pStr);

/* Copies pSrc with its terminator. Returns pDest. */
ZEBCS_API ustring *KCSUniStrcpy(ustring *pDest, const ustring *pSrc);

/* Appends pSrc with its terminator at the end of pDest. Returns pDest. */
ZEBCS_API ustring *KCSUniStrcat(ustring *pDest, const ustring *pSrc);

/* Copies up to and including the terminator, but at most `count` units. The rest of pDest is not filled, and no
 * terminator is written when `count` is reached first. Returns pDest. */
ZEBCS_API ustring *KCSUniStrncpy(ustring *pDest, const ustring *pSrc, u32 count);

/* Appends at most `count` units of pSrc and then always a terminator; with a count of 0, nothing. Returns pDest. */
ZEBCS_API ustring *KCSUniStrncat(ustring *pDest, const ustring *pSrc, u32 count);

/* Compares for equality.
 *
 * Returns  0 when equal; otherwise the difference of the first differing units modulo 65536, which is never
 *          negative and says nothing about order. */
ZEBCS_API s32 KCSUniStrcmp(const ustring *pStr1, const ustring *pStr2);

/* Returns the first unit equal to `ch`, or NULL. A `ch` of 0 finds the terminator. */
ZEBCS_API ustring *KCSUniStrchr(const ustring *pStr, s32 ch);

/* Returns the first occurrence of pFind in pStr, or NULL. An empty pFind is found at the start. */
ZEBCS_API ustring *KCSUniStrstr(const ustring *pStr, const ustring *pFind);

/* Return the length of the leading run of pStr made of units that are in pSet (Strspn) or not in it (Strcspn). */
ZEBCS_API u32 KCSUniStrspn(const ustring *pStr, const ustring *pSet);
ZEBCS_API u32 KCSUniStrcspn(const ustring *pStr, const ustring *pSet);

/* Splits a text in place: pass the text first, then NULL for each further token.
 *
 * Returns  the next token, terminated by a zero written over its delimiter; NULL when nothing is left. */
ZEBCS_API ustring *KCSUniStrtok(ustring *pStr, const ustring *pDelims);

/* Sets every unit before the terminator to `ch`. Returns pStr. */
ZEBCS_API ustring *KCSUniStrset(ustring *pStr, s32 ch);

/* Sets the first `count` units to `ch` without looking for the terminator, past which it may write. Returns pStr. */
ZEBCS_API ustring *KCSUniStrnset(ustring *pStr, s32 ch, u32 count);

/* Reverses the text in place, through a copy on the heap; without memory for it the text stays as it is.
 * Returns pStr. */
ZEBCS_API ustring *KCSUniStrrev(ustring *pStr);

/* Compares at most `count` bytes after folding "A" to "Z" to lower case; nothing else is folded.
 *
 * Returns  the difference of the last pair compared; 0 when equal or when `count` is 0. */
ZEBCS_API s32 KCSAStrnicmp(const astring *pStr1, const astring *pStr2, u32 count);

/* Give a record an empty buffer of `size` bytes. A buffer that the record holds is not released.
 *
 * Returns  the buffer; NULL when memory ran out (pStr is then NULL) or when `size` is 0 (the record is untouched). */
ZEBCS_API ustring *KCSSSUStrAlloc(KCSSSUStr *pSSU, u32 size);
ZEBCS_API astring *KCSSSAStrAlloc(KCSSSAStr *pSSA, u32 size);

/* Append text, growing the buffer as needed; the text may be part of the string itself. The two that change the
 * encoding convert as KCSUTF8StrToUCS2Str and KCSUCS2StrToUTF8Str do.
 *
 * Returns  pStr, the possibly new buffer. Nothing is appended and the string stays as it is when the text is NULL,
 *          when pStr is NULL, when memory ran out, and when the text cannot be converted. */
ZEBCS_API ustring *KCSSSUStrCatUStr(KCSSSUStr *pSSU, const ustring *pStr);
ZEBCS_API ustring *KCSSSUStrCatAStr(KCSSSUStr *pSSU, const astring *pStr);
ZEBCS_API astring *KCSSSAStrCatAStr(KCSSSAStr *pSSA, const astring *pStr);
ZEBCS_API astring *KCSSSAStrCatUStr(KCSSSAStr *pSSA, const ustring *pStr);

/* Release the buffer and set all three fields to 0. A NULL record is ignored. */
ZEBCS_API void KCSSSUStrFree(KCSSSUStr *pSSU);
ZEBCS_API void KCSSSAStrFree(KCSSSAStr *pSSA);

/* The same functions under their plain names. */
ZEBCS_API u32 UniStrlen(const ustring *pStr);
ZEBCS_API ustring *UniStrcpy(ustring *pDest, const ustring *pSrc);
ZEBCS_API ustring *UniStrcat(ustring *pDest, const ustring *pSrc);
ZEBCS_API ustring *UniStrncpy(ustring *pDest, const ustring *pSrc, u32 count);
ZEBCS_API ustring *UniStrncat(ustring *pDest, const ustring *pSrc, u32 count);
ZEBCS_API s32 UniStrcmp(const ustring *pStr1, const ustring *pStr2);
ZEBCS_API ustring *UniStrchr(const ustring *pStr, s32 ch);
ZEBCS_API ustring *UniStrstr(const ustring *pStr, const ustring *pFind);
ZEBCS_API u32 UniStrspn(const ustring *pStr, const ustring *pSet);
ZEBCS_API u32 UniStrcspn(const ustring *pStr, const ustring *pSet);
ZEBCS_API ustring *UniStrtok(ustring *pStr, const ustring *pDelims);
ZEBCS_API ustring *UniStrset(ustring *pStr, s32 ch);
ZEBCS_API ustring *UniStrnset(ustring *pStr, s32 ch, u32 count);
ZEBCS_API ustring *UniStrrev(ustring *pStr);
ZEBCS_API s32 AStrnicmp(const astring *pStr1, const astring *pStr2, u32 count);
ZEBCS_API ustring *SSUStrAlloc(KCSSSUStr *pSSU, u32 size);
ZEBCS_API astring *SSAStrAlloc(KCSSSAStr *pSSA, u32 size);
ZEBCS_API ustring *SSUStrCatUStr(KCSSSUStr *pSSU, const ustring *pStr);
ZEBCS_API ustring *SSUStrCatAStr(KCSSSUStr *pSSU, const astring *pStr);
ZEBCS_API astring *SSAStrCatAStr(KCSSSAStr *pSSA, const astring *pStr);
ZEBCS_API astring *SSAStrCatUStr(KCSSSAStr *pSSA, const ustring *pStr);
ZEBCS_API void SSUStrFree(KCSSSUStr *pSSU);
ZEBCS_API void SSAStrFree(KCSSSAStr *pSSA);

/* The layer below: the same behaviour, with the character argument as one unit and lengths as size_t. */
ZEBCS_API size_t Uni_strlen(const ustring *pStr);
ZEBCS_API ustring *Uni_strcpy(ustring *pDest, const ustring *pSrc);
ZEBCS_API ustring *Uni_strcat(ustring *pDest, const ustring *pSrc);
ZEBCS_API ustring *Uni_strncpy(ustring *pDest, const ustring *pSrc, size_t count);
ZEBCS_API ustring *Uni_strncat(ustring *pDest, const ustring *pSrc, size_t count);
ZEBCS_API s32 Uni_strcmp(const ustring *pStr1, const ustring *pStr2);
ZEBCS_API ustring *Uni_strchr(const ustring *pStr, ustring ch);
ZEBCS_API ustring *Uni_strstr(const ustring *pStr, const ustring *pFind);
ZEBCS_API size_t Uni_strspn(const ustring *pStr, const ustring *pSet);
ZEBCS_API size_t Uni_strcspn(const ustring *pStr, const ustring *pSet);
ZEBCS_API ustring *Uni_strtok(ustring *pStr, const ustring *pDelims);
ZEBCS_API ustring *Uni_strset(ustring *pStr, ustring ch);
ZEBCS_API ustring *Uni_strnset(ustring *pStr, ustring ch, size_t count);
ZEBCS_API ustring *Uni_strrev(ustring *pStr);

/* Returns the first unit of pStr that is in pSet, or NULL. */
ZEBCS_API ustring *Uni_strpbrk(const ustring *pStr, const ustring *pSet);

/* Compares `count` units, zeros included. Returns as KCSUniStrcmp does. */
ZEBCS_API s32 Uni_memcmp(const ustring *pBuf1, const ustring *pBuf2, size_t count);

/* Compares at most `count` units after folding "a" to "z" to upper case; nothing else is folded. Stops at the first
 * difference and at a common terminator.
 *
 * Returns  the difference of the folded units, negative when pStr1 sorts first; 0 for a count below 1. */
ZEBCS_API s32 Uni_strncasecmp(const ustring *pStr1, const ustring *pStr2, s32 count);

#ifdef __cplusplus
}
#endif

#endif

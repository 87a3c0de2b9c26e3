/* Conversion between UTF-8, UTF-16 and UCS-4, XML escaping, backslash escapes and hex dumps.
 *
 * The size protocol. A converter takes pDest and pDestSize, which is required:
 *   - pDest NULL: nothing is written, *pDestSize receives the size needed, terminator included, and the result is 0.
 *   - pDest given: *pDestSize is the room. On success it receives the size used, terminator included. When the text
 *     does not fit, the result is SM_STATUS_BUFFER_TOO_SMALL; what was written so far stays, unterminated, and
 *     *pDestSize keeps the caller's value. No byte past the text and its terminator is touched.
 * Sizes are in bytes unless a function says otherwise. A text whose size does not fit a u32 is refused with
 * SM_STATUS_INVALID_INPUT.
 *
 * UTF-8 is written and read in its early form: sequences of 1 to 6 bytes, for code points up to 0x7FFFFFFF.
 * Sequences are not checked for the form of their continuation bytes nor for being the shortest, so that C0 80 reads
 * as code point 0: a caller that compares or cuts text does so after the conversion, not before.
 *
 * Threads: every function may run on any thread at any time; the locale-based ones read the process's C locale. */
#ifndef ZEBCS_ENCODING_H
#define ZEBCS_ENCODING_H

#include <zebcs/types.h>
#include <zebcs/unistr.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns 1033, whatever the environment says. */
ZEBCS_API s32 KCSGetLocalLanguageID(void);

/* Converts UTF-16 to UTF-8.
 *
 * Surrogate units are not paired where they stand: each stands for the first character of the whole text, decoded as
 * a pair if the text begins with one. Text with supplementary characters is therefore not to be passed through here.
 * Returns  0; SM_STATUS_BUFFER_TOO_SMALL; SM_STATUS_BAD_DATA where a text with surrogates begins with half a pair;
 *          SM_STATUS_INVALID_INPUT when pDestSize or pSrc is NULL. */
ZEBCS_API s32 KCSUCS2StrToUTF8Str(astring *pDest, u32 *pDestSize, const ustring *pSrc);

/* Converts zero-terminated UCS-4 to UTF-8.
 *
 * Returns  0; SM_STATUS_BUFFER_TOO_SMALL; SM_STATUS_BAD_DATA for a code point of 0x80000000 or above;
 *          SM_STATUS_INVALID_INPUT when pDestSize or pSrc is NULL. */
ZEBCS_API s32 KCSUCS4StrToUTF8Str(astring *pDest, u32 *pDestSize, const u32 *pSrc);

/* Converts UTF-8 to UTF-16.
 *
 * pDestSize  in: the room, compared as a number of 16-bit units; out: the size used or needed, in bytes. A caller
 *            that allocates 2 * strlen(pSrc) + 2 bytes, or what a sizing call answered, and passes that number is
 *            always safe.
 * Returns    0; SM_STATUS_BUFFER_TOO_SMALL; SM_STATUS_BAD_DATA for a malformed sequence or a code point above
 *            0x10FFFF; SM_STATUS_INVALID_INPUT when pDestSize or pSrc is NULL.
 *
 * Code points above 0xFFFF become the two units that UCS4CharToUTF16Chars describes. */
ZEBCS_API s32 KCSUTF8StrToUCS2Str(ustring *pDest, u32 *pDestSize, const astring *pSrc);

/* Escapes the five characters that XML reserves: &quot; &amp; &apos; &lt; &gt;. All other bytes are copied as they
 * are, control characters and malformed sequences included.
 *
 * pWasConverted  may be NULL; receives 1 when a character was replaced, else 0.
 * Returns        0; SM_STATUS_BUFFER_TOO_SMALL; SM_STATUS_INVALID_INPUT when pDestSize or pSrc is NULL. */
ZEBCS_API s32 KCSUTF8StrToXMLUTF8Str(astring *pDest, u32 *pDestSize, booln *pWasConverted, const astring *pSrc);

/* The "local" and "ASCII" narrow encodings of this interface are UTF-8: these are KCSUTF8StrToUCS2Str and
 * KCSUCS2StrToUTF8Str under further names. The plain names LocalToUnicode, ASCIIToUnicode, UnicodeToLocal and
 * UnicodeToASCII are other functions, described below. */
ZEBCS_API s32 KCSLocalToUnicode(ustring *pDest, u32 *pDestSize, const astring *pSrc);
ZEBCS_API s32 KCSASCIIToUnicode(ustring *pDest, u32 *pDestSize, const astring *pSrc);
ZEBCS_API s32 KCSUnicodeToLocal(astring *pDest, u32 *pDestSize, const ustring *pSrc);
ZEBCS_API s32 KCSUnicodeToASCII(astring *pDest, u32 *pDestSize, const ustring *pSrc);

/* Renders 16-bit text in 7 bits: \t, \n, \r and \\ for those four, 0x20 to 0x7F as they are, \uXXXX with four
 * lower-case digits for every other unit.
 *
 * pDestSize  on success and on SM_STATUS_BUFFER_TOO_SMALL receives the size needed: text length + 1.
 * pDest      on success the text, then zeros up to the end of the room, whose last byte is then set to the character
 *            "0" (0x30). In a room of exactly the size needed the result therefore ends in "0" and is not
 *            terminated; pass at least one byte more to get terminated text.
 * Returns    0; SM_STATUS_BUFFER_TOO_SMALL; SM_STATUS_BAD_PARAMETER when pDestSize or pSrc is NULL; -1 for a text
 *            whose size does not fit a u32. */
ZEBCS_API s32 KCSUnicodeToEscape(astring *pDest, u32 *pDestSize, const ustring *pSrc);

/* Appends a hex dump to a self-sizing string, 16 bytes a line, each line ending in a blank, CR and LF.
 *
 * printAddrStart  the address printed for the first byte; it wraps at 32 bits.
 * pLid            not used.
 * Returns         0, also for a NULL or empty buffer, which appends nothing; -1 when an append failed, and the lines
 *                 before it then stay. */
ZEBCS_API s32 KCSBufToUStr(KCSSSUStr *pSSU, const void *pBuf, u32 bufSize, u32 printAddrStart, const s32 *pLid);

/* Escape text for XML, several times over where asked: each further pass escapes what the pass before it made, until
 * a pass replaces nothing or `passes` of them have run (0 counts as 1).
 *
 * Returns  new UTF-8 text that the caller releases with KCSFreeMem; NULL when the text is NULL, cannot be converted,
 *          or memory ran out. */
ZEBCS_API astring *KCSGetXMLUTF8StrFromAStr(const astring *pStr, u32 passes);
ZEBCS_API astring *KCSGetXMLUTF8StrFromUStr(const ustring *pStr, u32 passes);

/* The same functions under their plain names. */
ZEBCS_API s32 GetLocalLanguageID(void);
ZEBCS_API s32 UCS2StrToUTF8Str(astring *pDest, u32 *pDestSize, const ustring *pSrc);
ZEBCS_API s32 UCS4StrToUTF8Str(astring *pDest, u32 *pDestSize, const u32 *pSrc);
ZEBCS_API s32 UTF8StrToUCS2Str(ustring *pDest, u32 *pDestSize, const astring *pSrc);
ZEBCS_API s32 UTF8StrToXMLUTF8Str(astring *pDest, u32 *pDestSize, booln *pWasConverted, const astring *pSrc);
ZEBCS_API s32 UnicodeToEscape(astring *pDest, u32 *pDestSize, const ustring *pSrc);
ZEBCS_API s32 BufToUStr(KCSSSUStr *pSSU, const void *pBuf, u32 bufSize, u32 printAddrStart, const s32 *pLid);
ZEBCS_API astring *SUPTIntfGetXMLUTF8StrFromAStr(const astring *pStr, u32 passes);
ZEBCS_API astring *SUPTIntfGetXMLUTF8StrFromUStr(const ustring *pStr, u32 passes);

/* Writes one code point as UTF-8, without a terminator.
 *
 * pDest    NULL asks for the length.
 * Returns  0; SM_STATUS_BUFFER_TOO_SMALL, with nothing written; SM_STATUS_BAD_DATA for 0x80000000 and above;
 *          SM_STATUS_INVALID_INPUT when pDestSize is NULL. Surrogate code points are written like any other. */
ZEBCS_API s32 UCS4CharToUTF8Chars(astring *pDest, u32 *pDestSize, u32 ucs4Char);

/* Reads one UTF-8 sequence.
 *
 * pUCS4Char    receives the code point; 0 after any failure.
 * pNumDecoded  receives the length of the sequence, 1 for the terminator; untouched after a failure.
 * Returns      0; SM_STATUS_BAD_DATA when the lead byte starts no sequence or the text ends inside it;
 *              SM_STATUS_INVALID_INPUT when an argument is NULL. */
ZEBCS_API s32 UTF8CharsToUCS4Char(u32 *pUCS4Char, const astring *pSrc, u32 *pNumDecoded);

/* Writes one code point as UTF-16, without a terminator. pDestSize counts 16-bit units.
 *
 * A code point above 0xFFFF becomes 0xD800 | bits 10 to 19 and 0xDC00 | bits 0 to 9 of the code point itself: unlike
 * in standard UTF-16, 0x10000 is not taken off first, so UTF16CharsToUCS4Char does not read it back.
 * Returns  0; SM_STATUS_BUFFER_TOO_SMALL, with nothing written; SM_STATUS_BAD_DATA above 0x10FFFF;
 *          SM_STATUS_INVALID_INPUT when pDestSize is NULL. */
ZEBCS_API s32 UCS4CharToUTF16Chars(ustring *pDest, u32 *pDestSize, u32 ucs4Char);

/* Reads one code point of UTF-16, as the standard has it. pSrc may be the terminator.
 *
 * Returns  0; SM_STATUS_BAD_DATA for half a pair, and *pUCS4Char is then that unit; SM_STATUS_INVALID_INPUT when an
 *          argument is NULL. */
ZEBCS_API s32 UTF16CharsToUCS4Char(u32 *pUCS4Char, const ustring *pSrc);

/* Writes one code point as UTF-8, or as an entity if XML reserves it, without a terminator.
 *
 * pWasEscapeNeeded  may be NULL; receives 1 for an entity, else 0.
 * pDest             an entity is followed by zeros up to the end of the room. In a room of exactly the entity's
 *                   size the last of them takes the place of its ";".
 * Returns           as UCS4CharToUTF8Chars. */
ZEBCS_API s32 UCS4CharToXMLUTF8Chars(astring *pDest, u32 *pDestSize, booln *pWasEscapeNeeded, u32 ucs4Char);

/* Convert from the multibyte encoding of the process's C locale. Each character keeps its low 16 bits only.
 *
 * pDestSize  in: room in bytes, where 0 asks for the size needed as a NULL pDest does; out: 2 * characters + 2.
 * pDest      receives at most room / 2 characters and a terminator where there is room left for it; text that fills
 *            the room is cut without a failure, which shows as a size above the room.
 * Returns    0; -1 when the text is not valid in the locale; SM_STATUS_INVALID_INPUT when pDestSize or pSrc is NULL. */
ZEBCS_API s32 LocalToUnicode(ustring *pDest, u32 *pDestSize, const astring *pSrc);
ZEBCS_API s32 ASCIIToUnicode(ustring *pDest, u32 *pDestSize, const astring *pSrc);

/* Convert to the multibyte encoding of the process's C locale, each unit as a character of its own.
 *
 * pDestSize  in: room in bytes, where 0 asks for the size needed as a NULL pDest does; out: bytes + 1.
 * pDest      receives whole characters and a terminator where there is room left for it; text that fills the room is
 *            cut without a failure, which shows as a size above the room.
 * Returns    0; -1 when the text cannot be written in the locale or not one character fits;
 *            SM_STATUS_INVALID_INPUT when pDestSize or pSrc is NULL. */
ZEBCS_API s32 UnicodeToLocal(astring *pDest, u32 *pDestSize, const ustring *pSrc);
ZEBCS_API s32 UnicodeToASCII(astring *pDest, u32 *pDestSize, const ustring *pSrc);

#ifdef __cplusplus
}
#endif

#endif

/* Numbers, booleans and times as text, and the checks of text that the conversions rest on.
 *
 * Narrow text is UTF-8, and a text to be read that is NULL reads as an empty text. White space, letter case and the
 * decimal point of floating-point text are those of the process's C locale. Nothing is allocated for the caller.
 *
 * Buffers: a destination without a size argument must have the room that its function names. With a size argument a
 * NULL destination asks for the size, which comes back in bytes.
 *
 * Threads: nothing here keeps state. The functions that use local time read the process's time zone. */
#ifndef ZEBCS_NUMBER_H
#define ZEBCS_NUMBER_H

#include <time.h>

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Text to number, without a status.
 *
 * ASCIIToSigned32 and ASCIIToUnSigned32 read as "%d" and "%u" of the C library's formatted input do: leading white
 * space, a sign, decimal digits; the value is read in 64 bits, where it saturates, and its low 32 bits are kept.
 * ASCIIToSigned64 takes one sign, ASCIIToUnSigned64 only a "+" (a "-" gives 0); both wrap modulo 2^64.
 * ASCIIToDouble reads as strtod does.
 * Returns  the number in front; 0 when there is none. */
ZEBCS_API s32 KCSASCIIToSigned32(const astring *pStr);
ZEBCS_API u32 KCSASCIIToUnSigned32(const astring *pStr);
ZEBCS_API s64 KCSASCIIToSigned64(const astring *pStr);
ZEBCS_API u64 KCSASCIIToUnSigned64(const astring *pStr);
ZEBCS_API d64 KCSASCIIToDouble(const astring *pStr);

/* Returns 1 when the text is "true" in any letter case, else 0. */
ZEBCS_API booln KCSASCIIToBooln(const astring *pStr);

/* Write a number in decimal. pDest must have room for 12 bytes (32 bits) or 21 bytes (64 bits). NULL is ignored. */
ZEBCS_API void KCSSigned32ToASCII(astring *pDest, s32 value);
ZEBCS_API void KCSUnSigned32ToASCII(astring *pDest, u32 value);
ZEBCS_API void KCSSigned64ToASCII(astring *pDest, s64 value);
ZEBCS_API void KCSUnSigned64ToASCII(astring *pDest, u64 value);

/* Writes "true" for exactly 1, else "false". pDest must have room for 6 bytes. NULL is ignored. */
ZEBCS_API void KCSBoolnToASCII(astring *pDest, booln value);

/* Writes a number with eight decimals over the text that pDest holds.
 *
 * pDest  must hold a text: its length is the size limit, terminator included. Fill it with as many characters as the
 *        result may have, and one more. A text of length 0 stays empty. NULL is ignored. */
ZEBCS_API void KCSDoubleToASCII(astring *pDest, d64 value);

/* Adds an hour to *pTimer when its local time is in daylight saving time. NULL is ignored. */
ZEBCS_API void KCSDSTFix(time_t *pTimer);

/* Writes the local time as 24 characters, as in "Thu Nov 24 18:22:48 1986". pDest must have room for 26 bytes.
 *
 * Returns  0; -1 when an argument is NULL or the time has no such text, and pDest is then untouched. */
ZEBCS_API s32 KCSTimeToAStr(astring *pDest, const time_t *pTimer);

/* 16-bit text to number. The text is converted as KCSUnicodeToASCII's inner namesake does, by the locale, into as many
 * bytes as it has units, and read as "%ld", "%lu" or strtod reads; the 32-bit forms keep the low 32 bits.
 *
 * Returns  the number in front; 0 when there is none, and after any failure. */
ZEBCS_API s32 KCSUniToSigned32(const ustring *pStr);
ZEBCS_API u32 KCSUniToUnSigned32(const ustring *pStr);
ZEBCS_API s64 KCSUniToSigned64(const ustring *pStr);
ZEBCS_API u64 KCSUniToUnSigned64(const ustring *pStr);
ZEBCS_API d64 KCSUniToDouble(const ustring *pStr);

/* Number to 16-bit text.
 *
 * pDest      is cut without a failure where the room ends. That shows as a size above the room, which is not the size
 *            needed: ask for that.
 * pDestSize  in: room in bytes, where 0 asks for the size as a NULL pDest does; out: bytes needed or used, with the
 *            terminator.
 * radix      as of ltostr, with its cut to seven characters.
 * Returns    0; -1 when the conversion fails or the size that came back is below 2. */
ZEBCS_API s32 KCSUniSigned32ToStr(ustring *pDest, u32 *pDestSize, s32 value, s32 radix);
ZEBCS_API s32 KCSUniUnSigned32ToStr(ustring *pDest, u32 *pDestSize, u32 value, s32 radix);

/* The same for a double.
 *
 * precision  the number of decimals; text beyond 127 characters is cut. */
ZEBCS_API s32 KCSUniDoubleToStr(ustring *pDest, u32 *pDestSize, d64 value, s32 precision);

/* The same for a local time, as KCSTimeToAStr writes it.
 *
 * pDest      where it does not fit, the call fails and the size stays.
 * pDestSize  in: room in units; out: bytes needed or used, with the terminator.
 * Returns    0; -1 when the conversion fails or the size that came back is below 2. */
ZEBCS_API s32 KCSUniTimeToStr(ustring *pDest, u32 *pDestSize, const time_t *pTimer);

/* Checks. Each returns 0 when the whole text is valid, else SM_STATUS_INVALID_INPUT; NULL and empty texts are invalid.
 * Letters and digits are those of ASCII.
 *
 * IsASCIIIntNum           decimal digits; with checkSignP, a sign may lead and may even stand alone
 * IsASCIIHexNum           an optional "0x", which may stand alone, and digits with "a" to "f" (inLowCapsP) or with
 *                         "A" to "F" (otherwise), never mixed
 * IsASCIIOctalNum         "0" to "7"
 * IsASCIIAlphaNumericPlus letters, digits and the characters of pXtraValidChars, which may be NULL */
ZEBCS_API s32 KCSIsASCIIIntNum(const astring *pStr, booln checkSignP);
ZEBCS_API s32 KCSIsASCIIHexNum(const astring *pStr, booln inLowCapsP);
ZEBCS_API s32 KCSIsASCIIOctalNum(const astring *pStr);
ZEBCS_API s32 KCSIsASCIIAlpha(const astring *pStr);
ZEBCS_API s32 KCSIsASCIIAlphaNumeric(const astring *pStr);
ZEBCS_API s32 KCSIsASCIIAlphaNumericPlus(const astring *pStr, const astring *pXtraValidChars);

/* Checked text to number. The whole text must be valid for the radix:
 *   10  as IsASCIIIntNum with a sign
 *   16  as IsASCIIHexNum in either letter case. It is then read as "%i": only with "0x" in front as hexadecimal,
 *       otherwise as decimal, or as octal after a "0"; text that begins with a letter is refused.
 *   8   as IsASCIIOctalNum
 * Any other radix is refused. The 64-bit forms convert decimal text alone and give 0 for valid text of radix 16 or 8.
 *
 * pStatus  receives 0 or SM_STATUS_INVALID_INPUT; may be NULL.
 * Returns  the number, as the plain conversions give it; 0 whenever the status is not 0, except that
 *          ASCIIToUnSigned32VT gives 0xFFFFFFFF for another radix. */
ZEBCS_API s32 KCSASCIIToSigned32VT(const astring *pStr, s32 radix, s32 *pStatus);
ZEBCS_API u32 KCSASCIIToUnSigned32VT(const astring *pStr, s32 radix, s32 *pStatus);
ZEBCS_API s64 KCSASCIIToSigned64VT(const astring *pStr, s32 radix, s32 *pStatus);
ZEBCS_API u64 KCSASCIIToUnSigned64VT(const astring *pStr, s32 radix, s32 *pStatus);

/* Reads "true" or "false" in any letter case.
 *
 * pStatus  receives 0; SM_STATUS_INVALID_INPUT for any other text. May be NULL.
 * Returns  1 for "true", else 0. */
ZEBCS_API booln KCSASCIIToBoolnV(const astring *pStr, s32 *pStatus);

/* Replaces the first match of pFind in pSrc.
 *
 * pFind      matches a sequence of its characters in order, which need not stand side by side; the span that is
 *            replaced is as long as pFind and ends where the match ended.
 * pDestSize  in: room in bytes. With SM_STATUS_INSUFFICIENT_BUFFER it receives the bytes needed, else it is untouched.
 * pDest      NULL asks for the size, with SM_STATUS_INSUFFICIENT_BUFFER. Without a match it must hold a text: as many
 *            characters of pSrc as that text is long take its place, filled up with zeros.
 * Returns    0; -1 without a match; SM_STATUS_INSUFFICIENT_BUFFER; SM_STATUS_INVALID_INPUT when another argument is
 *            NULL, when pSrc or pFind is empty, or when pFind is longer than pSrc. */
ZEBCS_API s32 KCSASCIIReplaceSubstr(const astring *pSrc, const astring *pFind, const astring *pReplace, u32 *pDestSize,
                                    astring *pDest);

/* Checks a host name: at most 255 letters, digits, "-" and "." (letters and digits of the locale), of which the first
 * is a letter or a digit and the last is neither "-" nor ".". Nothing else is asked of the last character.
 *
 * Returns  0; -1; SM_STATUS_INVALID_INPUT when the first character is not allowed, or the text is NULL or empty. */
ZEBCS_API s32 KCSValidateHostName(const astring *pStr);

/* The same functions under their plain names. */
ZEBCS_API s32 ASCIIToSigned32(const astring *pStr);
ZEBCS_API u32 ASCIIToUnSigned32(const astring *pStr);
ZEBCS_API s64 ASCIIToSigned64(const astring *pStr);
ZEBCS_API u64 ASCIIToUnSigned64(const astring *pStr);
ZEBCS_API d64 ASCIIToDouble(const astring *pStr);
ZEBCS_API booln ASCIIToBooln(const astring *pStr);
ZEBCS_API void Signed32ToASCII(astring *pDest, s32 value);
ZEBCS_API void UnSigned32ToASCII(astring *pDest, u32 value);
ZEBCS_API void Signed64ToASCII(astring *pDest, s64 value);
ZEBCS_API void UnSigned64ToASCII(astring *pDest, u64 value);
ZEBCS_API void BoolnToASCII(astring *pDest, booln value);
ZEBCS_API void DoubleToASCII(astring *pDest, d64 value);
ZEBCS_API void DSTFix(time_t *pTimer);
ZEBCS_API s32 TimeToAStr(astring *pDest, const time_t *pTimer);
ZEBCS_API s32 UniToSigned32(const ustring *pStr);
ZEBCS_API u32 UniToUnSigned32(const ustring *pStr);
ZEBCS_API s64 UniToSigned64(const ustring *pStr);
ZEBCS_API u64 UniToUnSigned64(const ustring *pStr);
ZEBCS_API d64 UniToDouble(const ustring *pStr);
ZEBCS_API s32 UniSigned32ToStr(ustring *pDest, u32 *pDestSize, s32 value, s32 radix);
ZEBCS_API s32 UniUnSigned32ToStr(ustring *pDest, u32 *pDestSize, u32 value, s32 radix);
ZEBCS_API s32 UniDoubleToStr(ustring *pDest, u32 *pDestSize, d64 value, s32 precision);
ZEBCS_API s32 UniTimeToStr(ustring *pDest, u32 *pDestSize, const time_t *pTimer);
ZEBCS_API s32 IsASCIIIntNum(const astring *pStr, booln checkSignP);
ZEBCS_API s32 IsASCIIHexNum(const astring *pStr, booln inLowCapsP);
ZEBCS_API s32 IsASCIIOctalNum(const astring *pStr);
ZEBCS_API s32 IsASCIIAlpha(const astring *pStr);
ZEBCS_API s32 IsASCIIAlphaNumeric(const astring *pStr);
ZEBCS_API s32 IsASCIIAlphaNumericPlus(const astring *pStr, const astring *pXtraValidChars);
ZEBCS_API s32 ASCIIToSigned32VT(const astring *pStr, s32 radix, s32 *pStatus);
ZEBCS_API u32 ASCIIToUnSigned32VT(const astring *pStr, s32 radix, s32 *pStatus);
ZEBCS_API s64 ASCIIToSigned64VT(const astring *pStr, s32 radix, s32 *pStatus);
ZEBCS_API u64 ASCIIToUnSigned64VT(const astring *pStr, s32 radix, s32 *pStatus);
ZEBCS_API booln ASCIIToBoolnV(const astring *pStr, s32 *pStatus);
ZEBCS_API s32 ASCIIReplaceSubstr(const astring *pSrc, const astring *pFind, const astring *pReplace, u32 *pDestSize,
                                 astring *pDest);
ZEBCS_API s32 ValidateHostName(const astring *pStr);

/* Reverses a text in place, through a copy on the heap; without memory for it the text stays as it is. NULL is
 * ignored. Returns s. */
ZEBCS_API char *strrev(char *s);

/* Writes a number in radix 8 or 16 (as an unsigned one) or, for any other radix, 10, cut to its first seven
 * characters. Radix 2 is left to dec2bin, with its empty text. pDest must have room for 8 bytes. */
ZEBCS_API void ltostr(astring *pDest, s32 value, s32 radix);

/* Gives an empty text, whatever the value, and zeros as many bytes of pDest as the value has binary digits, but at
 * least one and at most eight. */
ZEBCS_API void dec2bin(astring *pDest, u32 value);

/* Change the case of a text in place, byte by byte with the locale's mapping. NULL is ignored.
 * strToUpperCase returns the length in bytes, the others s. */
ZEBCS_API u32 strToUpperCase(char *s);
ZEBCS_API char *strupr(char *s);
ZEBCS_API char *strlwr(char *s);

/* Removes the first character (byte) of a text that is not empty. NULL is ignored. */
ZEBCS_API void CharsLeftShift(astring *pStr);

#ifdef __cplusplus
}
#endif

#endif

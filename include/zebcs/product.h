/* The product: its directories, its locale, two of its settings, its stylesheets and its translated texts.
 *
 * A function that returns `astring *` returns a new text, released with KCSFreeMem or SUPTFreeMem; NULL when memory
 * ran out or for the reason that it names. The paths are fixed; nothing in the environment changes them. Where a
 * block of 256 bytes is promised, a caller may go on writing behind the text, up to its end.
 *
 * Threads: every function may run on any thread; a stream belongs to one thread at a time. */
#ifndef ZEBCS_PRODUCT_H
#define ZEBCS_PRODUCT_H

#include <stdio.h>

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The install path with a "/" at its end, and without. */
ZEBCS_API astring *KCSGetZEBInstallPath(void);
ZEBCS_API astring *KCSGetRootInstallPath(void);

/* Directories with a "/" at their end: settings, variable data. */
ZEBCS_API astring *KCSGetProductIniPath(void);
ZEBCS_API astring *KCSGetProductVarPath(void);

/* The same in blocks of 256 bytes: stylesheets, the web server's root. */
ZEBCS_API astring *KCSGetZEBXSLRootPath(void);
ZEBCS_API astring *KCSGetZEBWWWRootPath(void);

/* Directories without it, with a doubled "/" inside, in blocks of 256 bytes: uploads, downloads, and the documents of
 * the web server and of the command line in the language of the operating system. */
ZEBCS_API astring *KCSGetZEBUploadPath(void);
ZEBCS_API astring *KCSGetZEBDownloadPath(void);
ZEBCS_API astring *KCSGetZEBWEBDocsPath(void);
ZEBCS_API astring *KCSGetZEBCLIDocsPath(void);

/* The directory for temporary files of the web server, which is made if only it is missing, in a block of 256
 * bytes. NULL when it cannot be; what else has its name is taken for it. */
ZEBCS_API astring *KCSGetIWSTempDirPath(void);

/* The path of a brand's INI file: brand "vorn" for a brandingValue of exactly "0", "debrand" for any other text. The
 * block has 67 bytes more than the folder, the brand and the file name are long.
 *
 * Returns  NULL also when an argument is NULL. */
ZEBCS_API astring *KCSGetOEMINIPathFile(const astring *pOEMDataDir, const astring *pINIFileName,
                                        const astring *brandingValue);

/* The locale name for a language identifier, "en_US" for one that is not known. */
ZEBCS_API astring *KCSGetLocaleNameAStr(u32 languageId);

/* The locale name for the language of the operating system, as KCSGetLocalLanguageID tells it. */
ZEBCS_API astring *KCSGetOSLocaleName(void);

/* The parts of that name before and after its "_". NULL when it has none, as "de" and "ja". In blocks of 256 bytes. */
ZEBCS_API astring *KCSGetOSLanguage(void);
ZEBCS_API astring *KCSGetOSCountry(void);

/* The host name, cut at 63 characters. NULL also when it cannot be had. */
ZEBCS_API astring *KCSGetHostNameAStr(void);

/* The prefix of the directory schema: "vorn" unless the key "adschemaprefix" in section "data" of the product's
 * "oem.ini" says otherwise in at most 255 bytes. In a block of 256 bytes. Waits up to 60000 ms for the file lock. */
ZEBCS_API astring *KCSGetOEMADSchemaPrefix(void);

/* Returns 1 when the key "blade" in section "blade" of the product's "qxcli32.ini" is exactly "true", else 0. Waits
 * up to 60000 ms for the file lock. */
ZEBCS_API booln KCSCheckModularChassis(void);

/* Finds the stylesheet of an application in a language.
 *
 * The application's folder is that of KCSGetZEBXSLRootPath, "/" and its name. Where it has no template, the file
 * "template/TYPE/NAME" there, the answer is the URI of "en/US/TYPE/NAME" or else "en/TYPE/NAME" (for "en_US") or,
 * when neither exists, of "TYPE/NAME", whether or not that does.
 *
 * Where it has one, the answer is a stylesheet that includes the template, the file of that name in the language and
 * the language's "globals.xsl", all from "template": "template/en/US/TYPE/NAME" and so on. The two are looked for in
 * "en_US" as well, "globals.xsl" only there once the other was not found in the language; one that is missing is left
 * out.
 *
 * Names are put in as they are, but for blanks and backslashes: they must not have what XML or a URI gives a meaning,
 * such as "&" or a quote, nor "..", which leads out of the folder.
 *
 * pLangCountryCode  at most 5 characters, such as "en_US" or "de"; NULL or empty for "en_US".
 * xslHeadTailMask   what a stylesheet has around its includes, added up: 2 the XML declaration, 4 the start tag, 8 the
 *                   end tag. Other bits mean nothing.
 * bIsConsole        asks for "/" instead of backslashes, which no answer has anyway.
 * Returns           a URI, from a path of at most 255 characters, or a stylesheet of at most 512; NULL also when an
 *                   argument is missing or the code too long, and for a stylesheet that would be longer. */
ZEBCS_API astring *KCSGetXSLPathLocale(const astring *pApp, const astring *pType, const astring *pXSLName,
                                       const astring *pLangCountryCode, u32 xslHeadTailMask, booln bIsConsole);

/* Looks a translated text up in a string resource file: UTF-16, little-endian, with a byte-order mark. A line ends with
 * CR LF; one of 1024 units or more counts as several. An entry is "%X:%X=" with the identifiers of the language and of
 * the text, and behind its last "=" the text. The first line with the key anywhere in it counts. A last line without
 * CR LF loses its last unit.
 *
 * pLanguageId  in: the language; NULL, 0, 437 and 1033 stand for the neutral one. out: 0 when the text was looked for
 *              in the neutral language; not changed where a message took the text's place.
 * pDest        receives the text and its terminator. Where the file cannot be used, it receives an English message
 *              instead: "Invalid Path File Name", "String resource not found" or "Invalid string resource found".
 * pDestSize    in: room in bytes; out: as returned. With NULL here nothing is stored.
 * Returns      the size in bytes, terminator included; 0 when nothing was delivered: no such text, no destination, or
 *              too little room, which does not tell the size needed. With neither destination nor size it does. */
ZEBCS_API u32 KCSGetUnicodeStringFromIDPathFile(u32 stringID, u32 *pLanguageId, const astring *pPathFileName,
                                                ustring *pDest, u32 *pDestSize);

/* The same functions under their inner names. SUPTIntfGetProductInstallPath is KCSGetRootInstallPath's. */
ZEBCS_API astring *SUPTIntfGetZEBInstallPath(void);
ZEBCS_API astring *SUPTIntfGetProductInstallPath(void);
ZEBCS_API astring *SUPTIntfGetProductIniPath(void);
ZEBCS_API astring *SUPTIntfGetProductVarPath(void);
ZEBCS_API astring *SUPTIntfGetZEBXSLRootPath(void);
ZEBCS_API astring *SUPTIntfGetZEBWWWRootPath(void);
ZEBCS_API astring *SUPTIntfGetZEBUploadPath(void);
ZEBCS_API astring *SUPTIntfGetZEBDownloadPath(void);
ZEBCS_API astring *SUPTIntfGetZEBWEBDocsPath(void);
ZEBCS_API astring *SUPTIntfGetZEBCLIDocsPath(void);
ZEBCS_API astring *SUPTIntfGetIWSTempDirPath(void);
ZEBCS_API astring *SUPTIntfGetOEMINIPathFile(const astring *pOEMDataDir, const astring *pINIFileName,
                                             const astring *brandingValue);
ZEBCS_API astring *SUPTIntfGetLocaleNameAStr(u32 languageId);
ZEBCS_API astring *SUPTIntfGetOSLocaleName(void);
ZEBCS_API astring *SUPTIntfGetOSLanguage(void);
ZEBCS_API astring *SUPTIntfGetOSCountry(void);
ZEBCS_API astring *SUPTIntfGetHostNameAStr(void);
ZEBCS_API astring *SUPTIntfGetXSLPathLocale(const astring *pApp, const astring *pType, const astring *pXSLName,
                                            const astring *pLangCountryCode, u32 xslHeadTailMask, booln bIsConsole);
ZEBCS_API u32 GetUnicodeStringFromIDPathFile(u32 stringID, u32 *pLanguageId, const astring *pPathFileName,
                                             ustring *pDest, u32 *pDestSize);

/* The same as KCSGetHostNameAStr. */
ZEBCS_API astring *SUPTIntfHostGetHostNameAStr(void);

/* Returns the locale name for a language identifier as a constant, which is not released. */
ZEBCS_API const astring *SUPTIntfGetLocaleName(u32 languageId);

/* Finds the install path for the process; attaching does it. Returns 0, or a status and the path is unknown. */
ZEBCS_API s32 SUPTIntfInitZEBInstallPath(void);

/* Stores the install path.
 *
 * pSize    in: room in bytes; out: 20, the bytes needed or used. The rest of the room becomes zeros.
 * Returns  0; SM_STATUS_BUFFER_TOO_SMALL below 20 bytes; SM_STATUS_BAD_PARAMETER when an argument is NULL. */
ZEBCS_API s32 OSInitZEBInstallPath(astring *pDest, u32 *pSize);

/* Makes the path of a stylesheet: the application's folder, "template" when asked for, the locale's folder, the type
 * and the name, with "/" in between; cut at 255 characters.
 *
 * pLocaleCode  one or two folders as they are, such as "en/US"; NULL or empty for none.
 * bValidate    not 0: only what exists is returned.
 * Returns      NULL also when another argument is NULL, or it had to exist and does not. */
ZEBCS_API astring *SIGetXSLPath(const astring *pXSLRootAppPath, const astring *pType, const astring *pXSLName,
                                const astring *pLocaleCode, booln bUseTemplate, booln bValidate);

/* The same for a locale code: "en_US" is tried as the folders "en/US" and then as "en".
 *
 * pLocaleCode  at most 5 characters.
 * bValidate    0: the first of the two is returned without a look at the files.
 * Returns      NULL also when an argument is NULL, the code empty or too long, or nothing exists. */
ZEBCS_API astring *SIGetXSLPathLocalePermutate(const astring *pXSLRootAppPath, const astring *pType,
                                               const astring *pXSLName, const astring *pLocaleCode, booln bUseTemplate,
                                               booln bValidate);

/* Makes a URI of a path: each blank becomes "%20", each backslash "/". NULL also for NULL. */
ZEBCS_API astring *ConvertPathToURI(const astring *filepath);

/* Returns the first place of keyword in str, not new text; NULL when there is none or an argument is NULL. */
ZEBCS_API astring *GetRelativePath(const astring *str, const astring *keyword);

/* Delivers a 16-bit text, or nothing for NULL, which has the size 0.
 *
 * pDestSize  in: room in bytes; out: the size of the text with its terminator, in bytes. Not changed when it has no
 *            place to be stored.
 * Returns    that size when the text was stored, or when both pDest and pDestSize are NULL; else 0. */
ZEBCS_API u32 SetUnicodeStringToDestination(const ustring *pSrc, ustring *pDest, u32 *pDestSize);

/* Reads a line of 16-bit units up to and with CR LF, terminated, and leaves the file behind it. What does not fit, or
 * has no CR LF up to the end of the file, is a line without its last unit, and the file is left at that unit: a file
 * that does not end with CR LF loses its last unit, and a CR LF that ends beyond the room is split.
 *
 * pStr     room for numChar units; those behind the terminator are undefined.
 * numChar  at least 2: with 1, a unit is passed over and there is no line.
 * Returns  pStr; NULL when fewer than two units are left, a single one of which is passed over, when an argument is
 *          NULL or below 1, and for a stream whose position cannot be told and set. */
ZEBCS_API ustring *dc_fgetws(ustring *pStr, s32 numChar, FILE *fp);

#ifdef __cplusplus
}
#endif

#endif

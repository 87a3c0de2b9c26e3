/* The product: its directories, its locale and two of its settings.
 *
 * A function that returns `astring *` returns a new text, released with KCSFreeMem or SUPTFreeMem; NULL when memory
 * ran out or for the reason that it names. The paths are fixed; nothing in the environment changes them. Where a
 * block of 256 bytes is promised, a caller may go on writing behind the text, up to its end.
 *
 * Threads: every function may run on any thread. */
#ifndef ZEBCS_PRODUCT_H
#define ZEBCS_PRODUCT_H

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
 * bytes. NULL when it cannot be. */
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

/* The prefix of the directory schema: "vorn" unless the key "adschemaprefix" in section "data" of the product's
 * "oem.ini" says otherwise in at most 255 bytes. In a block of 256 bytes. Waits up to 60000 ms for the file lock. */
ZEBCS_API astring *KCSGetOEMADSchemaPrefix(void);

/* Returns 1 when the key "blade" in section "blade" of the product's "qxcli32.ini" is exactly "true", else 0. Waits
 * up to 60000 ms for the file lock. */
ZEBCS_API booln KCSCheckModularChassis(void);

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

/* Returns the locale name for a language identifier as a constant, which is not released. */
ZEBCS_API const astring *SUPTIntfGetLocaleName(u32 languageId);

/* Finds the install path for the process; attaching does it. Returns 0, or a status and the path is unknown. */
ZEBCS_API s32 SUPTIntfInitZEBInstallPath(void);

/* Stores the install path.
 *
 * pSize    in: room in bytes; out: 20, the bytes needed or used. The rest of the room becomes zeros.
 * Returns  0; SM_STATUS_BUFFER_TOO_SMALL below 20 bytes; SM_STATUS_BAD_PARAMETER when an argument is NULL. */
ZEBCS_API s32 OSInitZEBInstallPath(astring *pDest, u32 *pSize);

#ifdef __cplusplus
}
#endif

#endif

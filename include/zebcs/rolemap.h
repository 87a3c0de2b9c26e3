/* Rights: what the role map and the operating system let a user do.
 *
 * Rights words are described in auth.h.
 *
 * The role map is read when it is first needed and again when its modification time has changed. A file that is
 * missing, has another mode than 0640, is empty or malformed, or names a user twice for a host is reported in the
 * command log, with its line, by the call that meets it, and built-in rules stand in for it: user root is
 * administrator, members of group root are power users, anyone else is a user. A file that could be opened and was
 * found to be empty or malformed counts as empty for the rest of the process's life. One that was read well and then
 * goes away or gets another mode is reported, and its rules count until it is back and has changed.
 *
 * Threads: any number of threads may ask while the file changes; each answer is from the old or the new file. */
#ifndef ZEBCS_ROLEMAP_H
#define ZEBCS_ROLEMAP_H

#include <zebcs/auth.h>
#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns the rights of a user.
 *
 * userSpec  writable text in the locale's encoding: "name@host", "host\name", or "name" for a user on this machine.
 *           The first separator splits; the second part ends at a further one. A zero is written over the first
 *           separator, so pass a private copy.
 * Returns   0x40007 for a local account of user id 0; 0 where the role map grants nothing; else the larger of what the
 *           role map and the operating system grant. The account that the system is asked about is the text as it ends
 *           then: of "host\name" that is the host. 0 for NULL and when memory ran out. */
ZEBCS_API u32 get_user_rights(astring *userSpec);

/* Checks and opens the role map, as a program's first step or after a change; what it holds is read by the next call
 * below. Do not let get_user_rights follow before that: it would open the file again and find it empty.
 *
 * Returns  0 in any case. */
ZEBCS_API u32 KCSOpenRolemapFile(void);

/* Returns the rights of the account that runs this process, on this machine, by the role map as it was opened last.
 *
 * Returns  what the role map grants; where that is nothing, 7 for a local account of user id 0, else 0. Never 0x40007.
 *          0 when the process has no account or memory ran out. */
ZEBCS_API u32 KCSGetRightsUsingRolemap(void);

/* Narrows rights as a branded installation wants it. Its settings are in the file that KCSGetOEMINIPathFile names for
 * the value "name" in section "OEM" of the application's settings file, the program's name followed by "oem.ini", and
 * "0". In section "data" of it "accessoverride" of exactly "true" gives 7, and "accessmask" narrows:
 *   1 becomes 0 unless the mask is 3; 3 becomes the mask's two low bits if the mask is below 2.
 *
 * uRights        rights word. The high 16 bits stay as they are, but for "accessoverride".
 * pszProgram     start of the program's file name.
 * pszAppIni      path of the application's settings file.
 * nFailureIndex  receives 1001 when a user's rights were taken away by the mask, 1002 when a power user's were; else it
 *                is untouched. May be NULL.
 * Returns        the rights; 7 in the low 16 bits of uRights comes back at once. 0 when a text is NULL, when a file or
 *                a value cannot be read, and when memory ran out. */
ZEBCS_API u32 KCSMaskProgramRights(u32 uRights, const astring *pszProgram, const astring *pszAppIni,
                                   u32 *nFailureIndex);

/* The same functions under their plain names. */
ZEBCS_API u32 OSOpenRolemapFile(void);
ZEBCS_API u32 OSGetRightsUsingRolemap(void);

#ifdef __cplusplus
}
#endif

#endif

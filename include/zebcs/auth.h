/* Login through PAM, and who this process is.
 *
 * A login answers with the user's rights word (rolemap.h tells how it comes about), 0 for nobody: the account has
 * proved its password and may log in, and the role map grants it something. No session is opened and no credentials are
 * set.
 *
 * Passwords: no copy of one outlives a call. The 16-bit forms consume the caller's password: it is overwritten with
 * zeros, whatever came of it.
 *
 * Threads: any number of threads may log in at the same time; see getugroups for the one function that must run alone.
 */
#ifndef ZEBCS_AUTH_H
#define ZEBCS_AUTH_H

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Rights words. The low 16 bits are the privilege; bit 18 stands with 7 for the operating system's superuser. */
#define ZEBCS_RIGHTS_NONE 0u
#define ZEBCS_RIGHTS_USER 1u
#define ZEBCS_RIGHTS_POWER_USER 3u
#define ZEBCS_RIGHTS_ADMINISTRATOR 7u
#define ZEBCS_RIGHTS_SUPERUSER 0x40007u

struct pam_message;
struct pam_response;

/* The name of the PAM service, "qxauth" until the program sets another. Set it before the first login. */
ZEBCS_API extern const astring *pam_servicename;

/* Logs a user in.
 *
 * pDomainName  NULL authenticates the user name; any other is appended to it with a "@", an empty one as well, and is
 *              the host on which the role map is asked about the user.
 * pUserName    ASCII: a name with any other character is refused, as are such a domain and such a password.
 * pPassword    overwritten with zeros up to its terminator, on every way out.
 * Returns      the rights word; 0 when the user may not log in, has no rights, or an argument other than the domain is
 *              NULL, and when memory ran out. */
ZEBCS_API u32 KCSAuthenticateUser(const ustring *pDomainName, const ustring *pUserName, ustring *pPassword);

/* Returns the rights of a user whom the caller vouches for; no password is asked for. The domain must be NULL or empty:
 * 0 for any other, for a name that is NULL or not ASCII, and when memory ran out. */
ZEBCS_API u32 KCSAuthorizeUser(const ustring *pDomainName, const ustring *pUserName);

/* A privilege of a directory-service product. */
typedef struct PrivilegeDefines {
  astring *name;    /* the name of a privilege */
  u16 numericValue; /* its number */
} PrivilegeDefines;

/* Login through a directory service, which this platform does not have: does nothing and returns -1. */
ZEBCS_API s16 KCSADAuthenticateUser(const ustring *pDomainName, const ustring *pUserName, ustring *pPassword,
                                    const ustring *pProductName, const ustring *pProductClass,
                                    const ustring *pProductDomain, const PrivilegeDefines *pd, booln useSSL,
                                    u16 *pPrivileges);

/* Returns the rights of this process by its ids: 0x40007 for user id 0, real and effective; 7 for an effective user id
 * 0 alone; 3 for an effective group id 0; else 1. The role map is not asked. */
ZEBCS_API u32 KCSGetProcessRights(void);

/* Returns the name of the account of the real user id as new text, released with free; NULL when there is none or
 * memory ran out. */
ZEBCS_API astring *KCSGetProcessUser(void);

/* Returns the machine's domain name as new text, released with KCSFreeMem; NULL when none is set, when it begins with
 * "(none)", and when memory ran out. */
ZEBCS_API astring *KCSGetComputerDomainName(void);

/* Returns the list of domains, which this platform does not have: NULL. */
ZEBCS_API void *KCSGetOSDomainList(void);

/* The same functions under their plain names. */
ZEBCS_API u32 OSAuthenticateUser(const ustring *pDomainName, const ustring *pUserName, ustring *pPassword);
ZEBCS_API u32 OSAuthorizeUser(const ustring *pDomainName, const ustring *pUserName);
ZEBCS_API s16 OSADAuthenticateUser(const ustring *pDomainName, const ustring *pUserName, ustring *pPassword,
                                   const ustring *pProductName, const ustring *pProductClass,
                                   const ustring *pProductDomain, const PrivilegeDefines *pd, booln useSSL,
                                   u16 *pPrivileges);
ZEBCS_API u32 OSGetProcessRights(void);
ZEBCS_API astring *OSGetProcessUser(void);
ZEBCS_API astring *OSGetComputerDomainName(void);
ZEBCS_API void *OSDomainList(void);

/* Logs a user in with text in the locale's encoding.
 *
 * pUserName  writable: the lookup of the rights ends it at its first "@" or backslash (see get_user_rights).
 * pPassword  is left as it is; wiping it is the caller's.
 * Returns    the rights word; 0 as above. */
ZEBCS_API u32 LXAuthenticateUser(astring *pUserName, const astring *pPassword);

/* Proves a password to PAM and asks it whether the account may log in. An empty password is not accepted.
 *
 * Returns  0; -1, also when an argument is NULL. */
ZEBCS_API s32 pam_auth_basic_user(const astring *omusername, const astring *ompasswd);

/* What the conversation answers with, in the encoding of the locale. */
typedef struct auth_pam_userinfo {
  const astring *name; /* the user */
  const astring *pw;   /* the password */
} auth_pam_userinfo;

/* The PAM conversation: answers prompts without echo with the password and others with the name. Anything else that a
 * module wants to say ends the login.
 *
 * resp         receives new responses, which PAM releases.
 * appdata_ptr  an auth_pam_userinfo.
 * Returns      PAM_SUCCESS (0); PAM_CONV_ERR (19), with nothing stored. */
ZEBCS_API int auth_pam_talker(int num_msg, const struct pam_message **msg, struct pam_response **resp,
                              void *appdata_ptr);

/* Returns 0 when the account exists and has user id 0, else -1. */
ZEBCS_API s32 isuserroot(const astring *username);

/* Collects the ids of the groups that list a user as a member; the primary group is not among them unless it does.
 *
 * maxcount  room in grouplist; 0 counts only. The walk ends when there is no room for another.
 * Returns   the number of groups stored or counted.
 * Threads   the group database has one position for the process: no other thread may walk it meanwhile. */
ZEBCS_API s32 getugroups(s32 maxcount, u32 *grouplist, const astring *username);

#ifdef __cplusplus
}
#endif

#endif

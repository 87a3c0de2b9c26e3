/* Services of the operating system: threads, dynamic libraries, shutdown, the web connection service.
 *
 * The records belong to the caller, who passes them by address and keeps them until the thread or library is done.
 *
 * Threads: every function may run on any thread; a record belongs to one thread at a time. */
#ifndef ZEBCS_SYSTEM_H
#define ZEBCS_SYSTEM_H

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a thread runs. It must return by itself: nothing stops it. */
typedef void (*FPROCKCSTHREADROUTINE)(void *pKCSThreadData);

/* A started thread. */
typedef struct KCSThreadInfo {
  FPROCKCSTHREADROUTINE fpKCSTR; /* what it runs */
  void *pKCSThreadData;          /* what it is called with */
  unsigned long idKCSThread;     /* the platform's identifier, a pthread_t */
} KCSThreadInfo;

/* A loaded library. */
typedef struct KCSLibrary {
  astring *pLibPathFileName; /* a copy of its path, which the record owns; NULL when nothing is loaded */
  void *hLib;                /* the platform's handle; NULL when nothing is loaded */
} KCSLibrary;

/* Starts a thread with default attributes.
 *
 * pKCSTI   is filled in, and stays in place until KCSThreadStop has returned.
 * Returns  0; -1 when the thread cannot be created, or the record or the routine is NULL. */
ZEBCS_API s32 KCSThreadStart(KCSThreadInfo *pKCSTI, FPROCKCSTHREADROUTINE fpKCSTR, void *pKCSThreadData);

/* Waits, without time limit, until a thread has ended, and releases it: exactly once for each that was started. Does
 * not ask it to end. NULL is ignored. Returns 0. */
ZEBCS_API s32 KCSThreadStop(KCSThreadInfo *pKCSTI);

/* Loads a dynamic library, with all its symbols bound at once.
 *
 * pSL               is filled in, whatever it held; it owns a copy of the path until KCSLibUnLoad.
 * pLibPathFileName  as dlopen takes it: without a "/", the system's folders are searched.
 * Returns           0; SM_STATUS_FAILED when the library cannot be loaded; -1 when memory ran out;
 *                   SM_STATUS_BAD_PARAMETER when an argument is NULL or the path is empty. After a failure the record
 *                   holds nothing. */
ZEBCS_API s32 KCSLibLoad(KCSLibrary *pSL, const astring *pLibPathFileName);

/* Unloads a library and releases the record's copy of its path. The record holds nothing then.
 *
 * Returns  0; -1 when it cannot be closed, nothing was loaded, or the record is NULL. */
ZEBCS_API s32 KCSLibUnLoad(KCSLibrary *pSL);

/* Looks up what a library exports.
 *
 * Returns  the address, valid until the library is unloaded; NULL when there is no such name or nothing is loaded. */
ZEBCS_API void *KCSLibLinkToExportFN(KCSLibrary *pSL, const astring *pExportFNName);

/* Gives an address of KCSLibLinkToExportFN back, which needs nothing here. Returns 0. */
ZEBCS_API s32 KCSLibUnLinkFromExportFN(KCSLibrary *pSL, const astring *pExportFNName);

/* Shuts the system down, or restarts it: starts "/sbin/shutdown" with "-h" or "-r", "now" and "&", and does not wait
 * for it. The process that is started remains for the caller to reap.
 *
 * forceIt               has no effect.
 * restartAfterShutdown  1 restarts; any other value halts.
 * Returns               1, also when the program is missing. */
ZEBCS_API BOOL KCSOSShutdown(BOOL forceIt, BOOL restartAfterShutdown);

/* Stops, starts or restarts the agent's web connection service, by systemctl, or by its init script where
 * "/etc/os-release" does not exist, and waits for that. What these say on their error output appears on the caller's
 * standard output.
 *
 * webServerCmd   0 stops, 1 starts, 3 and 4 restart. Any other value puts the service's name directly behind the name
 *                of the tool, which no program is called. A restart marks the descriptors 3 to 255 of this process
 *                close-on-exec: the service gets none of them.
 * serviceName    has no effect.
 * webServerStat  receives the exit code of the command: of the tool, which is 0 as well when a signal ended it; 126 or
 *                127 when the shell could not start it; 255 when the command could not be run, or its end not be waited
 *                for because the process ignores SIGCHLD. May be NULL.
 * Returns        0 for exit code 0; SM_STATUS_RENAME_FAILED (258) for exit code 2; else -1.
 * Threads        as those of system(): SIGINT and SIGQUIT are ignored by the process meanwhile. */
ZEBCS_API s32 KCSWebServer(s32 webServerCmd, const astring *serviceName, s32 *webServerStat);

/* Returns the type of the platform: 2. */
ZEBCS_API s32 KCSOSGetType(void);

/* The same functions under their inner names. CfgWebServer is KCSWebServer's. */
ZEBCS_API s32 OSThreadStart(KCSThreadInfo *pKCSTI, FPROCKCSTHREADROUTINE fpKCSTR, void *pKCSThreadData);
ZEBCS_API s32 OSThreadStop(KCSThreadInfo *pKCSTI);
ZEBCS_API s32 OSLibLoad(KCSLibrary *pSL, const astring *pLibPathFileName);
ZEBCS_API s32 OSLibUnLoad(KCSLibrary *pSL);
ZEBCS_API void *OSLibLinkToExportFN(KCSLibrary *pSL, const astring *pExportFNName);
ZEBCS_API s32 OSLibUnLinkFromExportFN(KCSLibrary *pSL, const astring *pExportFNName);
ZEBCS_API BOOL OSShutdown(BOOL forceIt, BOOL restartAfterShutdown);
ZEBCS_API s32 CfgWebServer(s32 webServerCmd, const astring *serviceName, s32 *webServerStat);
ZEBCS_API s32 OSGetType(void);

/* What a started thread begins with: calls the routine of its KCSThreadInfo with that record's data. Returns NULL. */
ZEBCS_API void *OSThreadStub(void *pKCSTI);

#ifdef __cplusplus
}
#endif

#endif

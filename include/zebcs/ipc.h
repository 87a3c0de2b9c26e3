/* Mutual exclusion inside one process and between processes.
 *
 * Handles are opaque pointers; NULL means none, or failure. A global mutex's handle carries its name, a semaphore's
 * its System V identifier, a local mutex's points to memory of the library.
 *
 * Time-outs are in milliseconds. ZEBCS_WAIT_FOREVER waits without limit. Any other value N makes one attempt and then
 * up to N further ones, one millisecond apart; 0 is a single attempt.
 *
 * Wait and release functions return 0 on success, -1 on failure (a NULL handle included) and 3 when time ran out.
 *
 * Threads: the state behind these functions (name base, lock file) is plain memory, set up when the library attaches.
 * Record locks belong to the process: a global mutex excludes other processes, never another thread of the same one;
 * threads that need to exclude each other hold a local mutex as well. */
#ifndef ZEBCS_IPC_H
#define ZEBCS_IPC_H

#include <sys/types.h>

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ZEBCS_WAIT_FOREVER 0xFFFFFFFFu /* a time-out: none */
#define ZEBCS_WAIT_TIMED_OUT 3         /* a result: time ran out */

/* Numbers an IPC object: the machine's name base plus `name_user`.
 *
 * The base is read once per process, from the first line of /etc/zeb.conf that matches " ipcnamebase=%d"; without
 * such a line it is 100000. A configured base of -1 is read again at every call. */
ZEBCS_API int CreateIPCName(int name_user);

/* Opens the IPC lock file, once per process, creating it with mode 0664 where it is absent and falling back to
 * read-only where the process may not write it.
 *
 * Returns  0, or -1 when it cannot be opened. */
ZEBCS_API s32 OpenIPCFile(void);

/* Closes the IPC lock file, which also drops every lock that this process holds on it. Returns 0. */
ZEBCS_API s32 CloseIPCFile(void);

/* Takes the lock of the IPC lock file.
 *
 * offset   not used: every lock is the same lock over the whole file.
 * Returns  0, -1 or 3. A file that is open read-only is locked for reading, which still keeps writers out; a single
 *          attempt (time-out 0) on such a file answers 3. */
ZEBCS_API s32 LockIPCFileRecord(off_t offset, u32 timeout_msecs);

/* Releases the lock of the IPC lock file, whatever the offset. Returns 0 or -1. */
ZEBCS_API s32 UnlockIPCFileRecord(off_t offset);

/* Makes a mutex for the threads of this process; it does not nest. Returns NULL when memory ran out. */
ZEBCS_API void *CreateLocalMutex(void);

/* Destroys a local mutex that nobody holds. NULL is ignored. */
ZEBCS_API void DestroyLocalMutex(void *hMutex);

/* Takes a local mutex. Returns 0, -1 or 3. */
ZEBCS_API s32 WaitForLocalMutex(void *hMutex, u32 timeout_msecs);

/* Releases a local mutex. Returns 0, or -1 for NULL or when unlocking fails. */
ZEBCS_API s32 ReleaseLocalMutex(void *hMutex);

/* Make and open a mutex between processes. Both do the same: open the IPC lock file and return `mutexName` as the
 * handle. All global mutexes, whatever their names, are one and the same lock.
 *
 * Returns  the handle; NULL when `mutexName` is 0 or the lock file cannot be opened. */
ZEBCS_API void *CreateGlobalMutex(int mutexName);
ZEBCS_API void *OpenGlobalMutex(int mutexName);

/* Does nothing: the lock file stays open until CloseIPCFile. */
ZEBCS_API void DestroyGlobalMutex(void *hMutex);

/* Take and release a global mutex: see LockIPCFileRecord and UnlockIPCFileRecord. NULL gives -1. */
ZEBCS_API s32 WaitForGlobalMutex(void *hMutex, u32 timeout_msecs);
ZEBCS_API s32 ReleaseGlobalMutex(void *hMutex);

/* Opens the semaphore set with the key `semName`. Returns its handle, or NULL where there is none. */
ZEBCS_API void *OpenSemaphore(int semName);

/* Makes a semaphore with the value `initialVal`, or opens the existing one and leaves its value alone.
 *
 * Returns  the handle, or NULL on failure. The semaphore outlives the process; DestroySemaphore removes it. */
ZEBCS_API void *CreateSemaphore(int semName, int initialVal);

/* Removes the semaphore from the system, for every process. NULL is ignored. */
ZEBCS_API void DestroySemaphore(void *hSem);

/* Takes 1 from the semaphore, waiting until there is 1 to take. A process that ends in between does not give it
 * back. Returns 0, -1 or 3. */
ZEBCS_API s32 WaitForSemaphore(void *hSem, u32 timeout_msecs);

/* Adds 1 to the semaphore. Returns 0 or -1. */
ZEBCS_API s32 ReleaseSemaphore(void *hSem);

/* Sets the semaphore to 0. Returns -1 for NULL, else 0, also when the set is gone. */
ZEBCS_API s32 ResetSemaphore(void *hSem);

#ifdef __cplusplus
}
#endif

#endif

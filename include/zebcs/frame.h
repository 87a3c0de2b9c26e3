/* The frame: load and unload, memory, the process-wide file lock, context locks and the export context.
 *
 * The library attaches itself when the loader maps it and detaches itself when it is unmapped; a program needs to
 * call neither hook. Attaching takes the IPC lock file (see ipc.h). Where the folder of that file is missing the
 * library still loads, stays detached, and every call that needs the lock or the IP support says so.
 *
 * Ownership: a block that the library returns for the caller to own comes from the process heap and is released
 * with KCSFreeMem, KCSGenericFree or SUPTFreeMem. The three are interchangeable.
 *
 * Threads: where nothing else is said, every function may run on any thread. */
#ifndef ZEBCS_FRAME_H
#define ZEBCS_FRAME_H

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The context that an exported call runs in. */
typedef struct KCSECInfo {
  s32 threadGroupID; /* always 0 on this platform */
} KCSECInfo;

/* Attaches the caller to the library.
 *
 * The first attach creates the file lock and marks the IP support loaded; every later one only counts.
 * Returns  1 when the library is usable; 0 when the first attach failed, which leaves the library detached and
 *          everything released, so that the next attach tries again. After the last detach of a process, an attach
 *          answers 0: the IP support of a process is loaded once.
 * Threads  not safe beside another attach or detach. */
ZEBCS_API booln ModuleAttach(void);

/* Undoes one attach; the last one destroys the file lock and closes the IPC lock file.
 *
 * Returns  1 when an attach was undone, 0 when there was none.
 * Threads  not safe beside another attach or detach. */
ZEBCS_API booln ModuleDetach(void);

/* The load and unload hooks: ModuleAttach and ModuleDetach for the loader. They are bound to the shared object. */
ZEBCS_API int ModuleInit(void);
ZEBCS_API int ModuleFini(void);

/* Takes the process-wide file lock, which serialises the rewriting of shared files between processes.
 *
 * bBlock   1 waits up to 60000 ms; any other value makes one attempt.
 * Returns  1 when the lock was taken, else 0.
 * Threads  the lock belongs to the process: it does not keep two threads of one process apart, a second take by the
 *          same process succeeds at once, and the first release drops it. */
ZEBCS_API booln FileLock(booln bBlock);

/* Releases the process-wide file lock, whichever thread took it. */
ZEBCS_API void FileUnlock(void);

/* Makes a lock for the caller's own data, local to the process.
 *
 * Returns  an opaque handle, released with KCSFreeContextLock; NULL when memory ran out. */
ZEBCS_API void *KCSAllocContextLock(void);

/* Destroys a context lock, which nobody may hold or wait for. NULL is ignored. */
ZEBCS_API void KCSFreeContextLock(void *pCL);

/* Takes a context lock, waiting without time limit. NULL is ignored. The lock does not nest. */
ZEBCS_API void KCSLockContext(void *pCL);

/* Releases a context lock that the calling thread holds. NULL is ignored. */
ZEBCS_API void KCSUnLockContext(void *pCL);

/* Allocates `size` bytes from the process heap, not initialised.
 *
 * Returns  the block, released with KCSFreeMem; NULL when memory ran out. */
ZEBCS_API void *KCSAllocMem(u32 size);

/* Changes the size of a block as the heap's ordinary reallocation does; pMem may be NULL.
 *
 * size     with 0, a block is released and NULL returned.
 * Returns  the block at its new place; NULL when memory ran out, and pMem is then still valid. */
ZEBCS_API void *KCSReAllocMem(void *pMem, u32 size);

/* Release a block that the library returned or allocated. NULL is ignored. */
ZEBCS_API void KCSFreeMem(void *pMem);
ZEBCS_API void KCSGenericFree(void *pMem);
ZEBCS_API void SUPTFreeMem(void *pMem);

/* Stores the current export context: threadGroupID becomes 0. NULL is ignored. */
ZEBCS_API void KCSGetExportContext(KCSECInfo *pECI);

/* Enter and leave a context. Both do nothing on this platform: they are the hook for one with thread groups. */
ZEBCS_API void KCSSetExportContext(KCSECInfo *pPrevECI, KCSECInfo *pCurrECI);
ZEBCS_API void KCSResetExportContext(KCSECInfo *pCurrECI);

/* Long file names are always on here. Both return 0. */
ZEBCS_API s32 KCSEnableLongFileNames(void);
ZEBCS_API s32 KCSDisableLongFileNames(void);

/* Does nothing on this platform. */
ZEBCS_API void KCSSetProcessEnvironment(void);

/* The same functions under their plain names. */
ZEBCS_API void *AllocContextLock(void);
ZEBCS_API void FreeContextLock(void *pCL);
ZEBCS_API void LockContext(void *pCL);
ZEBCS_API void UnLockContext(void *pCL);
ZEBCS_API void GetExportContext(KCSECInfo *pECI);
ZEBCS_API void SetExportContext(KCSECInfo *pPrevECI, KCSECInfo *pCurrECI);
ZEBCS_API void ResetExportContext(KCSECInfo *pCurrECI);
ZEBCS_API s32 EnableLongFileNames(void);
ZEBCS_API s32 DisableLongFileNames(void);

#ifdef __cplusplus
}
#endif

#endif

// The frame's low face: memory, the process-wide file lock, context locks and the export context.
#include "zebsupt_base.h"

#include <cstdlib>

#include "zebcs/ipc.h"

namespace {
constexpr u32 kFileLockTimeout = 60000;  // milliseconds
}

void *hGFileLock = nullptr;
KCSECInfo origECI = {};

booln FileLock(booln bBlock) { return WaitForGlobalMutex(hGFileLock, bBlock == 1 ? kFileLockTimeout : 0) == 0; }

void FileUnlock(void) { (void)ReleaseGlobalMutex(hGFileLock); }  // fails only where no lock was taken

void *AllocContextLock(void) { return CreateLocalMutex(); }

void FreeContextLock(void *pCL) { DestroyLocalMutex(pCL); }

void LockContext(void *pCL) { (void)WaitForLocalMutex(pCL, ZEBCS_WAIT_FOREVER); }  // fails only for NULL

void UnLockContext(void *pCL) { (void)ReleaseLocalMutex(pCL); }  // fails only for NULL

void *KCSAllocMem(u32 size) { return std::malloc(size); }

void *KCSReAllocMem(void *pMem, u32 size) { return std::realloc(pMem, size); }

void KCSFreeMem(void *pMem) { std::free(pMem); }

void KCSGenericFree(void *pMem) { std::free(pMem); }

void SUPTFreeMem(void *pMem) { std::free(pMem); }

void GetExportContext(KCSECInfo *pECI) {
  if (pECI != nullptr) pECI->threadGroupID = 0;
}

void SetExportContext(KCSECInfo * /*pPrevECI*/, KCSECInfo * /*pCurrECI*/) {}

void ResetExportContext(KCSECInfo * /*pCurrECI*/) {}

s32 EnableLongFileNames(void) { return 0; }

s32 DisableLongFileNames(void) { return 0; }

void KCSSetProcessEnvironment(void) {}

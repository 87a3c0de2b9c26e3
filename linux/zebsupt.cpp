// Load and unload: attaching creates the process-wide file lock and starts the parts that need starting.
#include "zebcs/frame.h"
#include "zebcs/ipc.h"
#include "zebcs/logs.h"
#include "zebcs/net.h"
#include "zebcs/product.h"
#include "zebsupt_base.h"

namespace {

constexpr int kFileLockName = 30000;  // counted from the machine's IPC name base

s32 modAttachCount = 0;  // attaches not yet undone

void DropFileLock() {
  (void)ReleaseGlobalMutex(hGFileLock);  // closing the file drops the lock in any case
  DestroyGlobalMutex(hGFileLock);
  hGFileLock = nullptr;
  (void)CloseIPCFile();  // always 0
}

// What the loader runs. They are objects of this unit, which is linked last, so that the library's static
// initialisers run before the first and its static destructors after the second.
__attribute__((constructor)) void OnLoad() { (void)ModuleInit(); }  // a failed attach leaves the library detached
__attribute__((destructor)) void OnUnload() { (void)ModuleFini(); }

}  // namespace

booln ModuleAttach(void) {
  if (modAttachCount >= 1) {
    ++modAttachCount;
    return 1;
  }
  GetExportContext(&origECI);
  hGFileLock = CreateGlobalMutex(CreateIPCName(kFileLockName));
  if (hGFileLock == nullptr) return 0;
  (void)WaitForGlobalMutex(hGFileLock, ZEBCS_WAIT_FOREVER);  // without record locks, attaching goes on unguarded
  (void)SUPTIntfInitZEBInstallPath();                        // whoever needs the path looks again
  // Kept: unloading does not unmark the IP support, so a process cannot attach again after its last detach.
  if (LoadIPSupt() != SM_STATUS_SUCCESS) {
    DropFileLock();
    return 0;
  }
  ++modAttachCount;
  (void)ReleaseGlobalMutex(hGFileLock);
  InitCmdMaxLogSize();
  return 1;
}

booln ModuleDetach(void) {
  if (modAttachCount < 1) return 0;
  if (--modAttachCount > 0) return 1;
  (void)WaitForGlobalMutex(hGFileLock, ZEBCS_WAIT_FOREVER);
  (void)UnLoadIPSupt();  // loaded since the attach
  DropFileLock();
  return 1;
}

int ModuleInit(void) { return ModuleAttach(); }

int ModuleFini(void) { return ModuleDetach(); }

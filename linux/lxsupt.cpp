// Linux: where the product is installed, threads, dynamic libraries, and shutting the system down.
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <type_traits>

#include "owners.h"
#include "zebcs/product.h"
#include "zebcs/system.h"

static_assert(std::is_same_v<decltype(KCSThreadInfo::idKCSThread), pthread_t>);

namespace {
constexpr char kInstallPath[] = "/opt/vorn/fleetops/";
}

s32 OSInitZEBInstallPath(astring *pDest, u32 *pSize) {
  if (pDest == nullptr || pSize == nullptr) return SM_STATUS_BAD_PARAMETER;
  const u32 room = *pSize;
  *pSize = sizeof kInstallPath;
  if (room < sizeof kInstallPath) return SM_STATUS_BUFFER_TOO_SMALL;
  std::memset(pDest, 0, room);
  std::memcpy(pDest, kInstallPath, sizeof kInstallPath);
  return SM_STATUS_SUCCESS;
}

void *OSThreadStub(void *pKCSTI) {
  const auto *const info = static_cast<const KCSThreadInfo *>(pKCSTI);
  info->fpKCSTR(info->pKCSThreadData);
  return nullptr;
}

s32 OSThreadStart(KCSThreadInfo *pKCSTI, FPROCKCSTHREADROUTINE fpKCSTR, void *pKCSThreadData) {
  if (pKCSTI == nullptr || fpKCSTR == nullptr) return -1;
  pKCSTI->fpKCSTR = fpKCSTR;
  pKCSTI->pKCSThreadData = pKCSThreadData;
  return pthread_create(&pKCSTI->idKCSThread, nullptr, OSThreadStub, pKCSTI) == 0 ? 0 : -1;
}

s32 OSThreadStop(KCSThreadInfo *pKCSTI) {
  if (pKCSTI != nullptr) (void)pthread_join(pKCSTI->idKCSThread, nullptr);  // there is no answer but 0
  return 0;
}

s32 OSLibLoad(KCSLibrary *pSL, const astring *pLibPathFileName) {
  if (pSL == nullptr) return SM_STATUS_BAD_PARAMETER;
  *pSL = {};
  // Without a name the system would hand out the program itself.
  if (pLibPathFileName == nullptr || *pLibPathFileName == 0) return SM_STATUS_BAD_PARAMETER;
  MallocPtr<astring> path = NewText(pLibPathFileName);
  if (!path) return -1;
  pSL->hLib = dlopen(path.get(), RTLD_NOW);
  if (pSL->hLib == nullptr) return SM_STATUS_FAILED;
  pSL->pLibPathFileName = path.release();
  return SM_STATUS_SUCCESS;
}

s32 OSLibUnLoad(KCSLibrary *pSL) {
  if (pSL == nullptr) return -1;
  const bool isClosed = pSL->hLib != nullptr && dlclose(pSL->hLib) == 0;
  std::free(pSL->pLibPathFileName);
  *pSL = {};
  return isClosed ? 0 : -1;
}

void *OSLibLinkToExportFN(KCSLibrary *pSL, const astring *pExportFNName) {
  // Without a library the system would look through the whole program.
  if (pSL == nullptr || pSL->hLib == nullptr || pExportFNName == nullptr) return nullptr;
  (void)dlerror();  // an error of before, which nobody asked for, is not this look-up's
  void *const address = dlsym(pSL->hLib, pExportFNName);
  return dlerror() == nullptr ? address : nullptr;
}

s32 OSLibUnLinkFromExportFN(KCSLibrary * /*pSL*/, const astring * /*pExportFNName*/) { return 0; }

BOOL OSShutdown(BOOL /*forceIt*/, BOOL restartAfterShutdown) {
  char program[] = "shutdown";
  char halt[] = "-h";
  char restart[] = "-r";
  char now[] = "now";
  char background[] = "&";  // Kept: the program gets it as an argument; a shell would have taken it as its own.
  char *const arguments[] = {program, restartAfterShutdown == 1 ? restart : halt, now, background, nullptr};
  if (fork() == 0) {
    (void)execv("/sbin/shutdown", arguments);
    _exit(errno);
  }
  return 1;  // Kept: whatever became of it; a failure to start would be expected to show.
}

// A program with functions of its own that happen to have the names of the library's. Calls inside the library must
// not end up here.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zebcs/zebcs.h"

namespace {

[[noreturn]] void CaughtInnerCall(const char *name) {
  std::fprintf(stderr, "the library called the program's own %s\n", name);
  std::abort();
}

int failures = 0;

void Check(bool isRight, const char *what) {
  if (isRight) return;
  std::fprintf(stderr, "wrong: %s\n", what);
  ++failures;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) char *strrev(char *s);
char *strrev(char * /*s*/) { CaughtInnerCall("strrev"); }

booln FileLock(booln /*bBlock*/) { CaughtInnerCall("FileLock"); }
void FileUnlock(void) { CaughtInnerCall("FileUnlock"); }
void *AllocContextLock(void) { CaughtInnerCall("AllocContextLock"); }
void *CreateLocalMutex(void) { CaughtInnerCall("CreateLocalMutex"); }
s32 WaitForGlobalMutex(void * /*hMutex*/, u32 /*timeout_msecs*/) { CaughtInnerCall("WaitForGlobalMutex"); }
s32 LockIPCFileRecord(off_t /*offset*/, u32 /*timeout_msecs*/) { CaughtInnerCall("LockIPCFileRecord"); }
booln ModuleAttach(void) { CaughtInnerCall("ModuleAttach"); }
booln ModuleDetach(void) { CaughtInnerCall("ModuleDetach"); }
s32 LoadIPSupt(void) { CaughtInnerCall("LoadIPSupt"); }
void MD5Hash(const astring * /*pText*/, u8 * /*pDigest*/) { CaughtInnerCall("MD5Hash"); }
u8 hexToDecimalConvert(astring /*ch*/) { CaughtInnerCall("hexToDecimalConvert"); }
s32 IsIPv6(const astring * /*pText*/) { CaughtInnerCall("IsIPv6"); }
u32 UniStrlen(const ustring * /*pStr*/) { CaughtInnerCall("UniStrlen"); }
size_t Uni_strlen(const ustring * /*pStr*/) { CaughtInnerCall("Uni_strlen"); }
s32 UCS2StrToUTF8Str(astring * /*pDest*/, u32 * /*pDestSize*/, const ustring * /*pSrc*/) {
  CaughtInnerCall("UCS2StrToUTF8Str");
}
astring *SSAStrCatAStr(KCSSSAStr * /*pSSA*/, const astring * /*pStr*/) { CaughtInnerCall("SSAStrCatAStr"); }
void SUPTFreeMem(void * /*pMem*/) { CaughtInnerCall("SUPTFreeMem"); }

}  // extern "C"

int main() {
  const ustring text[] = {'a', 'b', 0};
  Check(KCSUniStrlen(text) == 2, "KCSUniStrlen");

  u8 digest[ZEBCS_MD5_SIZE] = {};
  KCSMD5Hash("abc", digest);
  Check(digest[0] == 0x90 && digest[15] == 0x72, "KCSMD5Hash");
  KCSMD5HashForPasswdSalt("a", digest, "6263");
  Check(digest[0] == 0x90 && digest[15] == 0x72, "KCSMD5HashForPasswdSalt");

  KCSSSAStr string{};
  Check(KCSSSAStrAlloc(&string, 1) != nullptr, "KCSSSAStrAlloc");
  KCSSSAStrCatAStr(&string, "x");
  KCSSSAStrCatUStr(&string, text);
  Check(string.pStr != nullptr && std::strcmp(string.pStr, "xab") == 0, "KCSSSAStrCatUStr");
  KCSSSAStrFree(&string);

  Check(KCSCheckIPEqual("::1", "0::1") == 1, "KCSCheckIPEqual");
  void *const lock = KCSAllocContextLock();
  KCSLockContext(lock);
  KCSUnLockContext(lock);
  KCSFreeContextLock(lock);
  return failures == 0 ? 0 : 1;
}

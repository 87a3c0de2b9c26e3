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
s32 CreateDir(const astring * /*pPath*/) { CaughtInnerCall("CreateDir"); }
s32 ReplaceFile(const astring * /*pPathFileNameToDelete*/, const astring * /*pPathFileNameReplaceWith*/) {
  CaughtInnerCall("ReplaceFile");
}
s32 ReadINIPathFileValue(const astring * /*pSection*/, const astring * /*pKey*/, u32 /*vType*/, void * /*pValue*/,
                         u32 * /*pvSize*/, const void * /*pDefault*/, u32 /*dSize*/, const astring * /*pPathFileName*/,
                         booln /*canBlock*/) {
  CaughtInnerCall("ReadINIPathFileValue");
}
s32 KCXBufCatNodeT(KCSSSAStr * /*pXMLBuf*/, const astring * /*pTagName*/, const astring * /*pAttrStr*/, u32 /*valType*/,
                   const void * /*pVal*/, u32 /*valSubType*/) {
  CaughtInnerCall("KCXBufCatNodeT");
}
void ltostr(astring * /*pDest*/, s32 /*value*/, s32 /*radix*/) { CaughtInnerCall("ltostr"); }
d64 ASCIIToDouble(const astring * /*pStr*/) { CaughtInnerCall("ASCIIToDouble"); }

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

  const ustring digits[] = {'1', '7', 0};
  Check(KCSUniToDouble(digits) == 17, "KCSUniToDouble");
  ustring wide[3] = {};
  u32 wideSize = sizeof wide;
  Check(KCSUniSigned32ToStr(wide, &wideSize, 17, 10) == 0 && KCSUniStrcmp(wide, digits) == 0, "KCSUniSigned32ToStr");

  KCSSSAStr *const xml = KCSXAllocBuf(1, 0);
  Check(xml != nullptr && KCSXBufCatNode(xml, "n", nullptr, KCX_ASTRING, "v") == 0, "KCSXBufCatNode");
  Check(std::strcmp(xml->pStr, "<n>v</n>") == 0, "the node");
  KCSXFreeBuf(xml, 0);

  const char *const values[] = {"one", "two"};
  for (const char *value : values) {
    const u32 valueSize = static_cast<u32>(std::strlen(value) + 1);
    Check(KCSWriteINIFileValue("s", "k", ZEBCS_INI_ASTRING, value, valueSize, "host.ini", 1) == 0,
          "KCSWriteINIFileValue");
    astring read[8] = {};
    u32 readSize = sizeof read;
    Check(KCSReadINIFileValue("s", "k", ZEBCS_INI_ASTRING, read, &readSize, nullptr, 0, "host.ini", 1) == 0 &&
              std::strcmp(read, value) == 0,
          "KCSReadINIFileValue");
  }

  Check(KCSCheckIPEqual("::1", "0::1") == 1, "KCSCheckIPEqual");
  void *const lock = KCSAllocContextLock();
  KCSLockContext(lock);
  KCSUnLockContext(lock);
  KCSFreeContextLock(lock);
  return failures == 0 ? 0 : 1;
}

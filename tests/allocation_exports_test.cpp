// Every name that the library exports, and whether its function asks for memory: a new one has to be put on the list,
// and one that asks for some has to be walked in one of the files beside this one.
#include <gtest/gtest.h>
#include <security/pam_appl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "failing_malloc.h"
#include "sandbox.h"
#include "zebcs/zebcs.h"

namespace {

constexpr const char *kIWSDirectory = "/opt/vorn/fleetops/var/lib/kelvestane/iws";

enum class Asks {
  kNone,
  kSome,    // with the arguments below; walked elsewhere
  kNotHere  // no function, or one that cannot be called beside the others
};

// What the calls below are given, new for each. A call that releases something takes it out.
struct Arguments {
  Arguments() {
    const std::string narrow = "key=value";
    std::copy(narrow.begin(), narrow.end(), text);
    std::copy(narrow.begin(), narrow.end(), wide);
    for (const std::string &path : {file, log}) sandbox::WriteFile(path, narrow + '\n', 0644);
    sandbox::WriteFile(ini, "[s]\nk=1\n[OEM]\nname=brand\n", 0644);
    KCSSSAStrAlloc(&string, 16);
    KCSSSUStrAlloc(&wideString, 16);
    KCSSLListInsertEntryAtTail(singles, &firstSingle);
    KCSDLListInsertEntryAtTail(doubles, &firstDouble);
    u32 count = 0;
    table = KCSCFGGetKeyValueEntries(file.c_str(), &count);
    stream = std::fopen(file.c_str(), "r");
    library = {};
    KCSLibLoad(&library, "libm.so.6");
  }
  Arguments(const Arguments &) = delete;
  Arguments &operator=(const Arguments &) = delete;
  ~Arguments() {
    std::free(block);
    KCSFreeContextLock(mutex);
    KCSCFGFreeKeyValueEntries(table, 1);
    KCXFreeBuf(xml, 0);
    KCSSSAStrFree(&string);
    KCSSSUStrFree(&wideString);
    KCSSLListFree(singles);
    KCSDLListFree(doubles);
    if (emptySingles != nullptr) KCSSLListFree(emptySingles);
    if (emptyDoubles != nullptr) KCSDLListFree(emptyDoubles);
    if (stream != nullptr) (void)std::fclose(stream);
    KCSLibUnLoad(&library);
    KCSFreeMem(result == text + 4 ? nullptr : result);
  }

  sandbox::TemporaryDirectory directory;
  std::string file = directory.Path("file");
  std::string log = directory.Path("log");
  std::string ini = directory.Path("ini");
  std::string none = directory.Path("none");
  std::string newDirectory = directory.Path("new");
  std::string logInNewDirectory = directory.Path("new/log");
  astring text[64] = {};
  ustring wide[64] = {};
  u32 code[2] = {'a', 0};
  std::string longText = std::string(1000, 'x');
  std::vector<ustring> longWide = Units(1000, 'x');
  std::vector<ustring> longDigits = Units(300, '0');
  astring *pairs[1] = {text};
  ustring *widePairs[1] = {wide};
  astring out[4096] = {};
  ustring wideOut[1024] = {};
  u8 digest[32] = {};
  u32 size = 256;
  u32 one = 1;
  u32 bit = 0;
  u64 big = 1;
  s32 status = 1;
  s64 time = 1000000;
  d64 fraction = 1.5;
  booln flag = 1;
  astring *result = nullptr;
  void *block = std::malloc(8);
  void *mutex = KCSAllocContextLock();
  KCSKVEntry entry = {text, text};
  KCSKVEntry emptyEntry = {};
  KCSKVEntry *table = nullptr;
  KCSSSAStr string = {};
  KCSSSUStr wideString = {};
  KCSSSAStr emptyString = {};
  KCSSSUStr emptyWideString = {};
  KCSSSAStr *xml = KCXAllocBuf(64, 0);
  KCSSLList *singles = KCSSLListAlloc();
  KCSDLList *doubles = KCSDLListAlloc();
  KCSSLList *emptySingles = KCSSLListAlloc();
  KCSDLList *emptyDoubles = KCSDLListAlloc();
  KCSSLListEntry *singleEntry = KCSSLListEntryAlloc(8);
  KCSDLListEntry *doubleEntry = KCSDLListEntryAlloc(8);
  KCSSLListEntry firstSingle = {};
  KCSDLListEntry firstDouble = {};
  KCSECInfo context = {};
  KCSLibrary library = {};
  KCSThreadInfo thread = {.fpKCSTR = [](void *) {}, .pKCSThreadData = nullptr, .idKCSThread = 0};
  FILE *stream = nullptr;
  auth_pam_userinfo user = {"alice", "word"};
  pam_message message = {.msg_style = PAM_PROMPT_ECHO_OFF, .msg = "Password: "};

 private:
  static std::vector<ustring> Units(size_t count, ustring unit) {
    std::vector<ustring> units(count, unit);
    units.push_back(0);
    return units;
  }
};

struct Export {
  const char *name;
  Asks asks;
  void (*call)(Arguments &);
};

const Export kAuthExports[] = {
    {"KCSADAuthenticateUser", Asks::kNone,
     [](Arguments &) {
       KCSADAuthenticateUser(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr);
     }},
    {"KCSAuthenticateUser", Asks::kSome, [](Arguments &a) { KCSAuthenticateUser(nullptr, a.wide, a.wideOut); }},
    {"KCSAuthorizeUser", Asks::kSome, [](Arguments &a) { KCSAuthorizeUser(nullptr, a.wide); }},
    {"KCSGetComputerDomainName", Asks::kSome, [](Arguments &) { KCSGetComputerDomainName(); }},
    {"KCSGetOSDomainList", Asks::kNone, [](Arguments &) { KCSGetOSDomainList(); }},
    {"KCSGetProcessRights", Asks::kNone, [](Arguments &) { KCSGetProcessRights(); }},
    {"KCSGetProcessUser", Asks::kSome, [](Arguments &) { KCSGetProcessUser(); }},
    {"LXAuthenticateUser", Asks::kSome, [](Arguments &a) { LXAuthenticateUser(a.text, "word"); }},
    {"OSADAuthenticateUser", Asks::kNone,
     [](Arguments &) {
       OSADAuthenticateUser(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr);
     }},
    {"OSAuthenticateUser", Asks::kSome, [](Arguments &a) { OSAuthenticateUser(nullptr, a.wide, a.wideOut); }},
    {"OSAuthorizeUser", Asks::kSome, [](Arguments &a) { OSAuthorizeUser(nullptr, a.wide); }},
    {"OSDomainList", Asks::kNone, [](Arguments &) { OSDomainList(); }},
    {"OSGetComputerDomainName", Asks::kSome, [](Arguments &) { OSGetComputerDomainName(); }},
    {"OSGetProcessRights", Asks::kNone, [](Arguments &) { OSGetProcessRights(); }},
    {"OSGetProcessUser", Asks::kSome, [](Arguments &) { OSGetProcessUser(); }},
    {"auth_pam_talker", Asks::kSome,
     [](Arguments &a) {
       const pam_message *message = &a.message;
       pam_response *response = nullptr;
       auth_pam_talker(1, &message, &response, &a.user);
     }},
    {"getugroups", Asks::kSome, [](Arguments &) { getugroups(0, nullptr, "alice"); }},
    {"isuserroot", Asks::kSome, [](Arguments &) { isuserroot("root"); }},
    {"pam_auth_basic_user", Asks::kSome, [](Arguments &) { pam_auth_basic_user("alice", "word"); }},
    {"pam_servicename", Asks::kNotHere, nullptr},
};

const Export kDASupportExports[] = {
    {"DASuptASCIIToXVal", Asks::kNone, [](Arguments &a) { DASuptASCIIToXVal("1", KCX_S32, &a.status); }},
    {"DASuptAstrToUstr", Asks::kSome, [](Arguments &a) { DASuptAstrToUstr(a.text, &a.status); }},
    {"DASuptAstrToUstrD", Asks::kSome, [](Arguments &a) { DASuptAstrToUstrD(a.text, nullptr, &a.status); }},
    {"DASuptBufCatSetCmdParam", Asks::kSome,
     [](Arguments &a) { DASuptBufCatSetCmdParam(a.xml, "n", a.text, a.text, a.text, KCX_ASTRING); }},
    {"DASuptCMDHelp", Asks::kSome, [](Arguments &) { DASuptCMDHelp(0, nullptr, nullptr, 0, nullptr); }},
    {"DASuptCatSMStatusNode", Asks::kSome, [](Arguments &a) { DASuptCatSMStatusNode(a.xml, 1, a.longText.c_str()); }},
    {"DASuptNVPValToXVal", Asks::kNone,
     [](Arguments &a) { DASuptNVPValToXVal(1, a.pairs, "key", KCX_ASTRING, &a.result); }},
    {"DASuptUstrToAstr", Asks::kSome, [](Arguments &a) { DASuptUstrToAstr(a.wide, &a.status); }},
    {"DASuptUstrToAstrD", Asks::kSome, [](Arguments &a) { DASuptUstrToAstrD(a.wide, nullptr, &a.status); }},
    {"DASuptXValToASCII", Asks::kSome, [](Arguments &a) { DASuptXValToASCII(KCX_ASTRING, a.text); }},
    {"KCSDASASCIIToXVal", Asks::kNone, [](Arguments &a) { KCSDASASCIIToXVal("1", KCX_S32, &a.status); }},
    {"KCSDASAstrToUstr", Asks::kSome, [](Arguments &a) { KCSDASAstrToUstr(a.text, &a.status); }},
    {"KCSDASAstrToUstrD", Asks::kSome, [](Arguments &a) { KCSDASAstrToUstrD(a.text, nullptr, &a.status); }},
    {"KCSDASBufCatSetCmdParam", Asks::kSome,
     [](Arguments &a) { KCSDASBufCatSetCmdParam(a.xml, "n", a.text, a.text, a.text, KCX_ASTRING); }},
    {"KCSDASCMDHelp", Asks::kSome, [](Arguments &) { KCSDASCMDHelp(0, nullptr, nullptr, 0, nullptr); }},
    {"KCSDASCatSMStatusNode", Asks::kSome, [](Arguments &a) { KCSDASCatSMStatusNode(a.xml, 1, a.longText.c_str()); }},
    {"KCSDASNVPValToXVal", Asks::kNone,
     [](Arguments &a) { KCSDASNVPValToXVal(1, a.pairs, "key", KCX_ASTRING, &a.result); }},
    {"KCSDASUstrToAstr", Asks::kSome, [](Arguments &a) { KCSDASUstrToAstr(a.wide, &a.status); }},
    {"KCSDASUstrToAstrD", Asks::kSome, [](Arguments &a) { KCSDASUstrToAstrD(a.wide, nullptr, &a.status); }},
    {"KCSDASXValToASCII", Asks::kSome, [](Arguments &a) { KCSDASXValToASCII(KCX_ASTRING, a.text); }},
};

const Export kEncodingExports[] = {
    {"ASCIIToUnicode", Asks::kNone, [](Arguments &a) { ASCIIToUnicode(a.wideOut, &a.size, a.text); }},
    {"BufToUStr", Asks::kSome, [](Arguments &a) { BufToUStr(&a.wideString, a.text, 9, 0, nullptr); }},
    {"GetLocalLanguageID", Asks::kNone, [](Arguments &) { GetLocalLanguageID(); }},
    {"KCSASCIIToUnicode", Asks::kNone, [](Arguments &a) { KCSASCIIToUnicode(a.wideOut, &a.size, a.text); }},
    {"KCSBufToUStr", Asks::kSome, [](Arguments &a) { KCSBufToUStr(&a.wideString, a.text, 9, 0, nullptr); }},
    {"KCSGetLocalLanguageID", Asks::kNone, [](Arguments &) { KCSGetLocalLanguageID(); }},
    {"KCSGetXMLUTF8StrFromAStr", Asks::kSome, [](Arguments &) { KCSGetXMLUTF8StrFromAStr("<", 1); }},
    {"KCSGetXMLUTF8StrFromUStr", Asks::kSome, [](Arguments &a) { KCSGetXMLUTF8StrFromUStr(a.wide, 1); }},
    {"KCSLocalToUnicode", Asks::kNone, [](Arguments &a) { KCSLocalToUnicode(a.wideOut, &a.size, a.text); }},
    {"KCSUCS2StrToUTF8Str", Asks::kNone, [](Arguments &a) { KCSUCS2StrToUTF8Str(a.out, &a.size, a.wide); }},
    {"KCSUCS4StrToUTF8Str", Asks::kNone, [](Arguments &a) { KCSUCS4StrToUTF8Str(a.out, &a.size, a.code); }},
    {"KCSUTF8StrToUCS2Str", Asks::kNone, [](Arguments &a) { KCSUTF8StrToUCS2Str(a.wideOut, &a.size, a.text); }},
    {"KCSUTF8StrToXMLUTF8Str", Asks::kNone,
     [](Arguments &a) { KCSUTF8StrToXMLUTF8Str(a.out, &a.size, &a.flag, a.text); }},
    {"KCSUnicodeToASCII", Asks::kNone, [](Arguments &a) { KCSUnicodeToASCII(a.out, &a.size, a.wide); }},
    {"KCSUnicodeToEscape", Asks::kNone, [](Arguments &a) { KCSUnicodeToEscape(a.out, &a.size, a.wide); }},
    {"KCSUnicodeToLocal", Asks::kNone, [](Arguments &a) { KCSUnicodeToLocal(a.out, &a.size, a.wide); }},
    {"LocalToUnicode", Asks::kNone, [](Arguments &a) { LocalToUnicode(a.wideOut, &a.size, a.text); }},
    {"SUPTIntfGetXMLUTF8StrFromAStr", Asks::kSome, [](Arguments &) { SUPTIntfGetXMLUTF8StrFromAStr("<", 1); }},
    {"SUPTIntfGetXMLUTF8StrFromUStr", Asks::kSome, [](Arguments &a) { SUPTIntfGetXMLUTF8StrFromUStr(a.wide, 1); }},
    {"UCS2StrToUTF8Str", Asks::kNone, [](Arguments &a) { UCS2StrToUTF8Str(a.out, &a.size, a.wide); }},
    {"UCS4CharToUTF16Chars", Asks::kNone, [](Arguments &a) { UCS4CharToUTF16Chars(a.wideOut, &a.size, 65); }},
    {"UCS4CharToUTF8Chars", Asks::kNone, [](Arguments &a) { UCS4CharToUTF8Chars(a.out, &a.size, 65); }},
    {"UCS4CharToXMLUTF8Chars", Asks::kNone, [](Arguments &a) { UCS4CharToXMLUTF8Chars(a.out, &a.size, &a.flag, 65); }},
    {"UCS4StrToUTF8Str", Asks::kNone, [](Arguments &a) { UCS4StrToUTF8Str(a.out, &a.size, a.code); }},
    {"UTF16CharsToUCS4Char", Asks::kNone, [](Arguments &a) { UTF16CharsToUCS4Char(&a.bit, a.wide); }},
    {"UTF8CharsToUCS4Char", Asks::kNone, [](Arguments &a) { UTF8CharsToUCS4Char(&a.bit, a.text, &a.one); }},
    {"UTF8StrToUCS2Str", Asks::kNone, [](Arguments &a) { UTF8StrToUCS2Str(a.wideOut, &a.size, a.text); }},
    {"UTF8StrToXMLUTF8Str", Asks::kNone, [](Arguments &a) { UTF8StrToXMLUTF8Str(a.out, &a.size, &a.flag, a.text); }},
    {"UnicodeToASCII", Asks::kNone, [](Arguments &a) { UnicodeToASCII(a.out, &a.size, a.wide); }},
    {"UnicodeToEscape", Asks::kNone, [](Arguments &a) { UnicodeToEscape(a.out, &a.size, a.wide); }},
    {"UnicodeToLocal", Asks::kNone, [](Arguments &a) { UnicodeToLocal(a.out, &a.size, a.wide); }},
};

const Export kFrameExports[] = {
    {"AllocContextLock", Asks::kSome, [](Arguments &) { AllocContextLock(); }},
    {"DisableLongFileNames", Asks::kNone, [](Arguments &) { DisableLongFileNames(); }},
    {"EnableLongFileNames", Asks::kNone, [](Arguments &) { EnableLongFileNames(); }},
    {"FileLock", Asks::kNone,
     [](Arguments &) {
       FileLock(0);
       FileUnlock();
     }},
    {"FileUnlock", Asks::kNone, [](Arguments &) { FileUnlock(); }},
    {"FreeContextLock", Asks::kNone, [](Arguments &a) { FreeContextLock(std::exchange(a.mutex, nullptr)); }},
    {"GetExportContext", Asks::kNone, [](Arguments &a) { GetExportContext(&a.context); }},
    {"KCSAllocContextLock", Asks::kSome, [](Arguments &) { KCSAllocContextLock(); }},
    {"KCSAllocMem", Asks::kSome, [](Arguments &) { KCSAllocMem(1); }},
    {"KCSDisableLongFileNames", Asks::kNone, [](Arguments &) { KCSDisableLongFileNames(); }},
    {"KCSEnableLongFileNames", Asks::kNone, [](Arguments &) { KCSEnableLongFileNames(); }},
    {"KCSFreeContextLock", Asks::kNone, [](Arguments &a) { KCSFreeContextLock(std::exchange(a.mutex, nullptr)); }},
    {"KCSFreeMem", Asks::kNone, [](Arguments &a) { KCSFreeMem(std::exchange(a.block, nullptr)); }},
    {"KCSGenericFree", Asks::kNone, [](Arguments &a) { KCSGenericFree(std::exchange(a.block, nullptr)); }},
    {"KCSGetExportContext", Asks::kNone, [](Arguments &a) { KCSGetExportContext(&a.context); }},
    {"KCSLockContext", Asks::kNone, [](Arguments &) { KCSLockContext(nullptr); }},
    {"KCSReAllocMem", Asks::kSome, [](Arguments &) { KCSReAllocMem(nullptr, 8); }},
    {"KCSResetExportContext", Asks::kNone, [](Arguments &a) { KCSResetExportContext(&a.context); }},
    {"KCSSetExportContext", Asks::kNone, [](Arguments &a) { KCSSetExportContext(&a.context, &a.context); }},
    {"KCSSetProcessEnvironment", Asks::kNone, [](Arguments &) { KCSSetProcessEnvironment(); }},
    {"KCSUnLockContext", Asks::kNone, [](Arguments &) { KCSUnLockContext(nullptr); }},
    {"LockContext", Asks::kNone, [](Arguments &) { LockContext(nullptr); }},
    {"ModuleAttach", Asks::kNone,
     [](Arguments &) {
       ModuleAttach();
       ModuleDetach();
     }},
    {"ModuleDetach", Asks::kNone,
     [](Arguments &) {
       ModuleAttach();
       ModuleDetach();
     }},
    {"ModuleFini", Asks::kNone,
     [](Arguments &) {
       ModuleAttach();
       ModuleFini();
     }},
    {"ModuleInit", Asks::kNone,
     [](Arguments &) {
       ModuleInit();
       ModuleDetach();
     }},
    {"ResetExportContext", Asks::kNone, [](Arguments &a) { ResetExportContext(&a.context); }},
    {"SUPTFreeMem", Asks::kNone, [](Arguments &a) { SUPTFreeMem(std::exchange(a.block, nullptr)); }},
    {"SetExportContext", Asks::kNone, [](Arguments &a) { SetExportContext(&a.context, &a.context); }},
    {"UnLockContext", Asks::kNone, [](Arguments &) { UnLockContext(nullptr); }},
};

const Export kHashIDExports[] = {
    {"AcquireHashID", Asks::kNone, [](Arguments &a) { AcquireHashID(a.out, sizeof a.out); }},
    {"ClearHashTable", Asks::kNone, [](Arguments &a) { ClearHashTable(a.out, sizeof a.out); }},
    {"FindFirstHashID", Asks::kNone, [](Arguments &a) { FindFirstHashID(a.out, sizeof a.out, &a.size, &a.bit); }},
    {"FindNextHashID", Asks::kNone, [](Arguments &a) { FindNextHashID(a.out, sizeof a.out, &a.bit, &a.bit); }},
    {"GetMaxInUseID", Asks::kNone, [](Arguments &a) { GetMaxInUseID(a.out, sizeof a.out); }},
    {"HashTableBytesNeeded", Asks::kNone, [](Arguments &) { HashTableBytesNeeded(100); }},
    {"KCSAcquireHashID", Asks::kNone, [](Arguments &a) { KCSAcquireHashID(a.out, sizeof a.out); }},
    {"KCSClearHashTable", Asks::kNone, [](Arguments &a) { KCSClearHashTable(a.out, sizeof a.out); }},
    {"KCSFindFirstHashID", Asks::kNone, [](Arguments &a) { KCSFindFirstHashID(a.out, sizeof a.out, &a.size, &a.bit); }},
    {"KCSFindNextHashID", Asks::kNone, [](Arguments &a) { KCSFindNextHashID(a.out, sizeof a.out, &a.bit, &a.bit); }},
    {"KCSGetMaxInUseID", Asks::kNone, [](Arguments &a) { KCSGetMaxInUseID(a.out, sizeof a.out); }},
    {"KCSHashTableBytesNeeded", Asks::kNone, [](Arguments &) { KCSHashTableBytesNeeded(100); }},
    {"KCSReleaseHashID", Asks::kNone, [](Arguments &a) { KCSReleaseHashID(a.out, sizeof a.out, 1); }},
    {"KCSVerifyHashID", Asks::kNone, [](Arguments &a) { KCSVerifyHashID(a.out, sizeof a.out, 1); }},
    {"ReleaseHashID", Asks::kNone, [](Arguments &a) { ReleaseHashID(a.out, sizeof a.out, 1); }},
    {"VerifyHashID", Asks::kNone, [](Arguments &a) { VerifyHashID(a.out, sizeof a.out, 1); }},
};

const Export kINIExports[] = {
    {"CreateDir", Asks::kNone, [](Arguments &a) { CreateDir(a.newDirectory.c_str()); }},
    {"DelDir", Asks::kNone, [](Arguments &a) { DelDir(a.none.c_str()); }},
    {"DelFile", Asks::kNone, [](Arguments &a) { DelFile(a.none.c_str()); }},
    {"GetSizeOfFile", Asks::kNone, [](Arguments &a) { GetSizeOfFile(a.file.c_str(), &a.size); }},
    {"GetStreamFileSize", Asks::kSome, [](Arguments &a) { GetStreamFileSize(a.stream); }},
    {"GetTmpFile", Asks::kNone, [](Arguments &a) { GetTmpFile(a.directory.path().c_str(), a.out, &a.size); }},
    {"KCSDeleteFile", Asks::kNone, [](Arguments &a) { KCSDeleteFile(a.none.c_str()); }},
    {"KCSGetSizeOfFile", Asks::kNone, [](Arguments &a) { KCSGetSizeOfFile(a.file.c_str(), &a.size); }},
    {"KCSGetTmpFile", Asks::kNone, [](Arguments &a) { KCSGetTmpFile(a.directory.path().c_str(), a.out, &a.size); }},
    {"KCSMkDir", Asks::kNone, [](Arguments &a) { KCSMkDir(a.newDirectory.c_str()); }},
    {"KCSReadINIFileValue", Asks::kNone,
     [](Arguments &a) { KCSReadINIFileValue("s", "k", ZEBCS_INI_ASTRING, a.out, &a.size, nullptr, 0, "file.ini", 1); }},
    {"KCSReadINIPathFileValue", Asks::kNone,
     [](Arguments &a) {
       KCSReadINIPathFileValue("s", "k", ZEBCS_INI_ASTRING, a.out, &a.size, nullptr, 0, a.ini.c_str(), 1);
     }},
    {"KCSRmDir", Asks::kNone, [](Arguments &a) { KCSRmDir(a.none.c_str()); }},
    {"KCSWriteINIFileValue", Asks::kNone,
     [](Arguments &) { KCSWriteINIFileValue("s", "k", ZEBCS_INI_ASTRING, "v", 2, "file.ini", 1); }},
    {"KCSWriteINIPathFileValue", Asks::kNone,
     [](Arguments &a) { KCSWriteINIPathFileValue("s", "k", ZEBCS_INI_ASTRING, "v", 2, a.ini.c_str(), 1); }},
    {"ReadINIFileValue_astring", Asks::kNone,
     [](Arguments &a) { ReadINIFileValue_astring("s", "k", a.out, &a.size, nullptr, 0, a.ini.c_str(), 1); }},
    {"ReadINIFileValue_binary", Asks::kNone,
     [](Arguments &a) { ReadINIFileValue_binary("s", "k", a.digest, &a.size, nullptr, 0, a.ini.c_str(), 1); }},
    {"ReadINIFileValue_booln", Asks::kNone,
     [](Arguments &a) { ReadINIFileValue_booln("s", "k", &a.flag, &a.size, nullptr, 0, a.ini.c_str(), 1); }},
    {"ReadINIFileValue_d64", Asks::kNone,
     [](Arguments &a) { ReadINIFileValue_d64("s", "k", &a.fraction, &a.size, nullptr, 0, a.ini.c_str(), 1); }},
    {"ReadINIFileValue_s32", Asks::kNone,
     [](Arguments &a) { ReadINIFileValue_s32("s", "k", &a.status, &a.size, nullptr, 0, a.ini.c_str(), 1); }},
    {"ReadINIFileValue_s64", Asks::kNone,
     [](Arguments &a) { ReadINIFileValue_s64("s", "k", &a.time, &a.size, nullptr, 0, a.ini.c_str(), 1); }},
    {"ReadINIFileValue_u32", Asks::kNone,
     [](Arguments &a) { ReadINIFileValue_u32("s", "k", &a.bit, &a.size, nullptr, 0, a.ini.c_str(), 1); }},
    {"ReadINIFileValue_u64", Asks::kNone,
     [](Arguments &a) { ReadINIFileValue_u64("s", "k", &a.big, &a.size, nullptr, 0, a.ini.c_str(), 1); }},
    {"ReadINIFileValue_ustring", Asks::kNone,
     [](Arguments &a) { ReadINIFileValue_ustring("s", "k", a.wideOut, &a.size, nullptr, 0, a.ini.c_str(), 1); }},
    {"ReadINIPathFileValue", Asks::kNone,
     [](Arguments &a) {
       ReadINIPathFileValue("s", "k", ZEBCS_INI_ASTRING, a.out, &a.size, nullptr, 0, a.ini.c_str(), 1);
     }},
    {"ReplaceFile", Asks::kNone, [](Arguments &a) { ReplaceFile(a.file.c_str(), a.log.c_str()); }},
    {"SUPTIntfReadINIFileValue", Asks::kNone,
     [](Arguments &a) {
       SUPTIntfReadINIFileValue("s", "k", ZEBCS_INI_ASTRING, a.out, &a.size, nullptr, 0, "file.ini", 1);
     }},
    {"SUPTIntfWriteINIFileValue", Asks::kNone,
     [](Arguments &) { SUPTIntfWriteINIFileValue("s", "k", ZEBCS_INI_ASTRING, "v", 2, "file.ini", 1); }},
    {"WriteINIFileValue_astring", Asks::kNone,
     [](Arguments &a) { WriteINIFileValue_astring("s", "k", a.text, 10, a.ini.c_str(), 1); }},
    {"WriteINIFileValue_binary", Asks::kNone,
     [](Arguments &a) { WriteINIFileValue_binary("s", "k", a.digest, 16, a.ini.c_str(), 1); }},
    {"WriteINIFileValue_booln", Asks::kNone,
     [](Arguments &a) { WriteINIFileValue_booln("s", "k", &a.flag, sizeof a.flag, a.ini.c_str(), 1); }},
    {"WriteINIFileValue_d64", Asks::kNone,
     [](Arguments &a) { WriteINIFileValue_d64("s", "k", &a.fraction, sizeof a.fraction, a.ini.c_str(), 1); }},
    {"WriteINIFileValue_s32", Asks::kNone,
     [](Arguments &a) { WriteINIFileValue_s32("s", "k", &a.status, sizeof a.status, a.ini.c_str(), 1); }},
    {"WriteINIFileValue_s64", Asks::kNone,
     [](Arguments &a) { WriteINIFileValue_s64("s", "k", &a.time, sizeof a.time, a.ini.c_str(), 1); }},
    {"WriteINIFileValue_u32", Asks::kNone,
     [](Arguments &a) { WriteINIFileValue_u32("s", "k", &a.one, sizeof a.one, a.ini.c_str(), 1); }},
    {"WriteINIFileValue_u64", Asks::kNone,
     [](Arguments &a) { WriteINIFileValue_u64("s", "k", &a.big, sizeof a.big, a.ini.c_str(), 1); }},
    {"WriteINIFileValue_ustring", Asks::kNone,
     [](Arguments &a) { WriteINIFileValue_ustring("s", "k", a.wide, 20, a.ini.c_str(), 1); }},
    {"WriteINIPathFileValue", Asks::kNone,
     [](Arguments &a) { WriteINIPathFileValue("s", "k", ZEBCS_INI_ASTRING, "v", 2, a.ini.c_str(), 1); }},
    {"pStrFALSE", Asks::kNotHere, nullptr},
    {"pStrTRUE", Asks::kNotHere, nullptr},
};

const Export kIPCExports[] = {
    {"CloseIPCFile", Asks::kNotHere, nullptr},
    {"CreateGlobalMutex", Asks::kNone, [](Arguments &) { CreateGlobalMutex(1); }},
    {"CreateIPCName", Asks::kNone, [](Arguments &) { CreateIPCName(1); }},
    {"CreateLocalMutex", Asks::kSome, [](Arguments &) { CreateLocalMutex(); }},
    {"CreateSemaphore", Asks::kNone, [](Arguments &) { CreateSemaphore(4711, 1); }},
    {"DestroyGlobalMutex", Asks::kNone, [](Arguments &) { DestroyGlobalMutex(nullptr); }},
    {"DestroyLocalMutex", Asks::kNone, [](Arguments &a) { DestroyLocalMutex(std::exchange(a.mutex, nullptr)); }},
    {"DestroySemaphore", Asks::kNone, [](Arguments &) { DestroySemaphore(nullptr); }},
    {"LockIPCFileRecord", Asks::kNone,
     [](Arguments &) {
       LockIPCFileRecord(0, 0);
       UnlockIPCFileRecord(0);
     }},
    {"OpenGlobalMutex", Asks::kNone, [](Arguments &) { OpenGlobalMutex(1); }},
    {"OpenIPCFile", Asks::kNone, [](Arguments &) { OpenIPCFile(); }},
    {"OpenSemaphore", Asks::kNone, [](Arguments &) { OpenSemaphore(4712); }},
    {"ReleaseGlobalMutex", Asks::kNone, [](Arguments &) { ReleaseGlobalMutex(nullptr); }},
    {"ReleaseLocalMutex", Asks::kNone, [](Arguments &) { ReleaseLocalMutex(nullptr); }},
    {"ReleaseSemaphore", Asks::kNone, [](Arguments &) { ReleaseSemaphore(nullptr); }},
    {"ResetSemaphore", Asks::kNone, [](Arguments &) { ResetSemaphore(nullptr); }},
    {"UnlockIPCFileRecord", Asks::kNone, [](Arguments &) { UnlockIPCFileRecord(0); }},
    {"WaitForGlobalMutex", Asks::kNone, [](Arguments &) { WaitForGlobalMutex(nullptr, 0); }},
    {"WaitForLocalMutex", Asks::kNone, [](Arguments &) { WaitForLocalMutex(nullptr, 0); }},
    {"WaitForSemaphore", Asks::kNone, [](Arguments &) { WaitForSemaphore(nullptr, 0); }},
};

const Export kKeyValueExports[] = {
    {"CFGEntryRemoveWhiteSpaceAndDQuotes", Asks::kNone,
     [](Arguments &a) { CFGEntryRemoveWhiteSpaceAndDQuotes(a.text); }},
    {"CFGEqualPosition", Asks::kNone, [](Arguments &a) { CFGEqualPosition(a.text); }},
    {"CFGFreeKeyValueEntries", Asks::kNone,
     [](Arguments &a) { CFGFreeKeyValueEntries(std::exchange(a.table, nullptr), 1); }},
    {"CFGGetFirstNonWhiteSpacePos", Asks::kNone, [](Arguments &a) { CFGGetFirstNonWhiteSpacePos(a.text); }},
    {"CFGGetKeyValue", Asks::kNone, [](Arguments &a) { CFGGetKeyValue(a.table, 1, "key", 0); }},
    {"CFGGetKeyValueEntries", Asks::kSome, [](Arguments &a) { CFGGetKeyValueEntries(a.file.c_str(), 0, &a.size); }},
    {"CFGSetKeyValue", Asks::kNone, [](Arguments &a) { CFGSetKeyValue(a.file.c_str(), 0, &a.entry, 0); }},
    {"KCSCFGFreeKeyValueEntries", Asks::kNone,
     [](Arguments &a) { KCSCFGFreeKeyValueEntries(std::exchange(a.table, nullptr), 1); }},
    {"KCSCFGGetKeyValue", Asks::kNone, [](Arguments &a) { KCSCFGGetKeyValue(a.table, 1, "key", 0); }},
    {"KCSCFGGetKeyValueEntries", Asks::kSome, [](Arguments &a) { KCSCFGGetKeyValueEntries(a.file.c_str(), &a.size); }},
    {"KCSCFGInstGetKeyValueEntries", Asks::kSome,
     [](Arguments &a) { KCSCFGInstGetKeyValueEntries("app.cfg", &a.size); }},
    {"KCSCFGInstSetKeyValue", Asks::kSome, [](Arguments &a) { KCSCFGInstSetKeyValue("file", &a.entry, 0); }},
    {"KCSCFGSetKeyValue", Asks::kNone, [](Arguments &a) { KCSCFGSetKeyValue(a.file.c_str(), &a.entry, 0); }},
    {"PopulateKeyValueEntries", Asks::kSome,
     [](Arguments &a) { PopulateKeyValueEntries(a.file.c_str(), &a.emptyEntry, &a.one); }},
    {"SetKeyValueEntry", Asks::kNone, [](Arguments &a) { SetKeyValueEntry(a.file.c_str(), &a.entry, 0); }},
};

const Export kListExports[] = {
    {"DLListAlloc", Asks::kSome, [](Arguments &) { DLListAlloc(); }},
    {"DLListDeleteEntry", Asks::kNone, [](Arguments &a) { DLListDeleteEntry(a.doubles, a.doubles->pHead); }},
    {"DLListEntryAlloc", Asks::kSome, [](Arguments &) { DLListEntryAlloc(8); }},
    {"DLListEntryFree", Asks::kNone, [](Arguments &a) { DLListEntryFree(std::exchange(a.doubleEntry, nullptr)); }},
    {"DLListFree", Asks::kNone, [](Arguments &a) { DLListFree(std::exchange(a.emptyDoubles, nullptr)); }},
    {"DLListInsertEntryAtHead", Asks::kNone,
     [](Arguments &a) { DLListInsertEntryAtHead(a.doubles, std::exchange(a.doubleEntry, nullptr)); }},
    {"DLListInsertEntryAtTail", Asks::kNone,
     [](Arguments &a) { DLListInsertEntryAtTail(a.doubles, std::exchange(a.doubleEntry, nullptr)); }},
    {"DLListInsertKeyed", Asks::kNone,
     [](Arguments &a) {
       DLListInsertKeyed(a.doubles, std::exchange(a.doubleEntry, nullptr),
                         [](KCSDLListEntry *, KCSDLListEntry *) { return -1; });
     }},
    {"DLListInsertOrdered", Asks::kNone,
     [](Arguments &a) {
       DLListInsertOrdered(a.doubles, std::exchange(a.doubleEntry, nullptr),
                           [](KCSDLListEntry *, KCSDLListEntry *) { return -1; });
     }},
    {"DLListRemoveEntryAtHead", Asks::kNone, [](Arguments &a) { DLListRemoveEntryAtHead(a.doubles); }},
    {"DLListRemoveEntryAtTail", Asks::kNone, [](Arguments &a) { DLListRemoveEntryAtTail(a.doubles); }},
    {"KCSDLListAlloc", Asks::kSome, [](Arguments &) { KCSDLListAlloc(); }},
    {"KCSDLListDeleteEntry", Asks::kNone, [](Arguments &a) { KCSDLListDeleteEntry(a.doubles, a.doubles->pHead); }},
    {"KCSDLListEntryAlloc", Asks::kSome, [](Arguments &) { KCSDLListEntryAlloc(8); }},
    {"KCSDLListEntryFree", Asks::kNone,
     [](Arguments &a) { KCSDLListEntryFree(std::exchange(a.doubleEntry, nullptr)); }},
    {"KCSDLListFree", Asks::kNone, [](Arguments &a) { KCSDLListFree(std::exchange(a.emptyDoubles, nullptr)); }},
    {"KCSDLListInsertEntryAtHead", Asks::kNone,
     [](Arguments &a) { KCSDLListInsertEntryAtHead(a.doubles, std::exchange(a.doubleEntry, nullptr)); }},
    {"KCSDLListInsertEntryAtTail", Asks::kNone,
     [](Arguments &a) { KCSDLListInsertEntryAtTail(a.doubles, std::exchange(a.doubleEntry, nullptr)); }},
    {"KCSDLListInsertKeyed", Asks::kNone,
     [](Arguments &a) {
       KCSDLListInsertKeyed(a.doubles, std::exchange(a.doubleEntry, nullptr),
                            [](KCSDLListEntry *, KCSDLListEntry *) { return -1; });
     }},
    {"KCSDLListInsertOrdered", Asks::kNone,
     [](Arguments &a) {
       KCSDLListInsertOrdered(a.doubles, std::exchange(a.doubleEntry, nullptr),
                              [](KCSDLListEntry *, KCSDLListEntry *) { return -1; });
     }},
    {"KCSDLListRemoveEntryAtHead", Asks::kNone, [](Arguments &a) { KCSDLListRemoveEntryAtHead(a.doubles); }},
    {"KCSDLListRemoveEntryAtTail", Asks::kNone, [](Arguments &a) { KCSDLListRemoveEntryAtTail(a.doubles); }},
    {"KCSSLListAlloc", Asks::kSome, [](Arguments &) { KCSSLListAlloc(); }},
    {"KCSSLListDeleteEntry", Asks::kNone, [](Arguments &a) { KCSSLListDeleteEntry(a.singles, a.singles->pHead); }},
    {"KCSSLListEntryAlloc", Asks::kSome, [](Arguments &) { KCSSLListEntryAlloc(8); }},
    {"KCSSLListEntryFree", Asks::kNone,
     [](Arguments &a) { KCSSLListEntryFree(std::exchange(a.singleEntry, nullptr)); }},
    {"KCSSLListFree", Asks::kNone, [](Arguments &a) { KCSSLListFree(std::exchange(a.emptySingles, nullptr)); }},
    {"KCSSLListInsertEntryAtHead", Asks::kNone,
     [](Arguments &a) { KCSSLListInsertEntryAtHead(a.singles, std::exchange(a.singleEntry, nullptr)); }},
    {"KCSSLListInsertEntryAtTail", Asks::kNone,
     [](Arguments &a) { KCSSLListInsertEntryAtTail(a.singles, std::exchange(a.singleEntry, nullptr)); }},
    {"KCSSLListInsertKeyed", Asks::kNone,
     [](Arguments &a) {
       KCSSLListInsertKeyed(a.singles, std::exchange(a.singleEntry, nullptr),
                            [](KCSSLListEntry *, KCSSLListEntry *) { return -1; });
     }},
    {"KCSSLListInsertOrdered", Asks::kNone,
     [](Arguments &a) {
       KCSSLListInsertOrdered(a.singles, std::exchange(a.singleEntry, nullptr),
                              [](KCSSLListEntry *, KCSSLListEntry *) { return -1; });
     }},
    {"KCSSLListRemoveEntryAtHead", Asks::kNone, [](Arguments &a) { KCSSLListRemoveEntryAtHead(a.singles); }},
    {"KCSSLListRemoveEntryAtTail", Asks::kNone, [](Arguments &a) { KCSSLListRemoveEntryAtTail(a.singles); }},
    {"SLListAlloc", Asks::kSome, [](Arguments &) { SLListAlloc(); }},
    {"SLListDeleteEntry", Asks::kNone, [](Arguments &a) { SLListDeleteEntry(a.singles, a.singles->pHead); }},
    {"SLListEntryAlloc", Asks::kSome, [](Arguments &) { SLListEntryAlloc(8); }},
    {"SLListEntryFree", Asks::kNone, [](Arguments &a) { SLListEntryFree(std::exchange(a.singleEntry, nullptr)); }},
    {"SLListFree", Asks::kNone, [](Arguments &a) { SLListFree(std::exchange(a.emptySingles, nullptr)); }},
    {"SLListInsertEntryAtHead", Asks::kNone,
     [](Arguments &a) { SLListInsertEntryAtHead(a.singles, std::exchange(a.singleEntry, nullptr)); }},
    {"SLListInsertEntryAtTail", Asks::kNone,
     [](Arguments &a) { SLListInsertEntryAtTail(a.singles, std::exchange(a.singleEntry, nullptr)); }},
    {"SLListInsertKeyed", Asks::kNone,
     [](Arguments &a) {
       SLListInsertKeyed(a.singles, std::exchange(a.singleEntry, nullptr),
                         [](KCSSLListEntry *, KCSSLListEntry *) { return -1; });
     }},
    {"SLListInsertOrdered", Asks::kNone,
     [](Arguments &a) {
       SLListInsertOrdered(a.singles, std::exchange(a.singleEntry, nullptr),
                           [](KCSSLListEntry *, KCSSLListEntry *) { return -1; });
     }},
    {"SLListRemoveEntryAtHead", Asks::kNone, [](Arguments &a) { SLListRemoveEntryAtHead(a.singles); }},
    {"SLListRemoveEntryAtTail", Asks::kNone, [](Arguments &a) { SLListRemoveEntryAtTail(a.singles); }},
};

const Export kLogsExports[] = {
    {"AppendToOSLog", Asks::kSome, [](Arguments &a) { AppendToOSLog(4, 1, a.wide, a.wide, nullptr, 0); }},
    {"AppendToXMLLog", Asks::kSome,
     [](Arguments &a) { AppendToXMLLog(a.log.c_str(), 4, 1, "u", "s", "d", nullptr, 0, 100000); }},
    {"BackupLogFile", Asks::kNone, [](Arguments &a) { BackupLogFile(a.log.c_str()); }},
    {"CheckBackupLogFile", Asks::kNone, [](Arguments &a) { CheckBackupLogFile(a.log.c_str(), 1, 1, &a.flag); }},
    {"ClearOSLog", Asks::kNone, [](Arguments &a) { ClearOSLog(a.wide); }},
    {"ClearXMLLog", Asks::kSome, [](Arguments &a) { ClearXMLLog(a.log.c_str(), "u", "s"); }},
    {"CreateLogDir", Asks::kSome, [](Arguments &a) { CreateLogDir(a.logInNewDirectory.c_str()); }},
    {"DeleteLogFile", Asks::kNone, [](Arguments &a) { DeleteLogFile(a.log.c_str()); }},
    {"ForceXMLLogExists", Asks::kSome, [](Arguments &a) { ForceXMLLogExists(a.none.c_str(), "u", "s"); }},
    {"GetBackupXMLLogPathFileName", Asks::kNone,
     [](Arguments &a) { GetBackupXMLLogPathFileName("x.log", a.out, &a.size); }},
    {"InitCmdMaxLogSize", Asks::kSome, [](Arguments &) { InitCmdMaxLogSize(); }},
    {"KCSAppendToCmdLog", Asks::kSome, [](Arguments &) { KCSAppendToCmdLog(5001, "u", "s", "d", 4); }},
    {"KCSAppendToOSLog", Asks::kSome, [](Arguments &a) { KCSAppendToOSLog(4, 1, a.wide, a.wide, nullptr, 0); }},
    {"KCSAppendToXMLLog", Asks::kSome,
     [](Arguments &a) { KCSAppendToXMLLog(a.log.c_str(), 4, 1, "u", "s", "d", nullptr, 0, 100000); }},
    {"KCSClearCmdLog", Asks::kSome, [](Arguments &) { KCSClearCmdLog("u", "s"); }},
    {"KCSClearOSLog", Asks::kNone, [](Arguments &a) { KCSClearOSLog(a.wide); }},
    {"KCSClearXMLLog", Asks::kSome, [](Arguments &a) { KCSClearXMLLog(a.log.c_str(), "u", "s"); }},
    {"KCSCmdGetXMLLogContent", Asks::kSome,
     [](Arguments &a) { KCSCmdGetXMLLogContent(a.file.c_str(), nullptr, nullptr); }},
    {"KCSForceXMLLogExists", Asks::kSome, [](Arguments &a) { KCSForceXMLLogExists(a.none.c_str(), "u", "s"); }},
    {"KCSGetBackupXMLLogPathFileName", Asks::kNone,
     [](Arguments &a) { KCSGetBackupXMLLogPathFileName("x.log", a.out, &a.size); }},
    {"KCSGetCmdLogMaxSize", Asks::kSome, [](Arguments &a) { KCSGetCmdLogMaxSize(&a.size); }},
    {"KCSGetCmdLogPathFileName", Asks::kSome, [](Arguments &) { KCSGetCmdLogPathFileName(); }},
    {"KCSGetCmdLogSize", Asks::kSome, [](Arguments &a) { KCSGetCmdLogSize(&a.size); }},
    {"KCSSetCmdLogMaxSize", Asks::kNone, [](Arguments &) { KCSSetCmdLogMaxSize(0x200000); }},
    {"RemoveCarriageReturns", Asks::kNone, [](Arguments &a) { RemoveCarriageReturns(a.text); }},
    {"SUPTIntfAppendToCmdLog", Asks::kSome, [](Arguments &) { SUPTIntfAppendToCmdLog(5001, "u", "s", "d", 4); }},
    {"SUPTIntfClearCmdLog", Asks::kSome, [](Arguments &) { SUPTIntfClearCmdLog("u", "s"); }},
    {"SUPTIntfGetCmdLogMaxSize", Asks::kSome, [](Arguments &a) { SUPTIntfGetCmdLogMaxSize(&a.size); }},
    {"SUPTIntfGetCmdLogPathFileName", Asks::kSome, [](Arguments &) { SUPTIntfGetCmdLogPathFileName(); }},
    {"SUPTIntfGetCmdLogSize", Asks::kSome, [](Arguments &a) { SUPTIntfGetCmdLogSize(&a.size); }},
    {"SUPTIntfSetCmdLogMaxSize", Asks::kNone, [](Arguments &) { SUPTIntfSetCmdLogMaxSize(0x200000); }},
    {"XMLFileCheck", Asks::kSome, [](Arguments &a) { XMLFileCheck(a.file.c_str()); }},
    {"findLastOccurrence", Asks::kNone, [](Arguments &a) { findLastOccurrence(a.text, "e"); }},
};

const Export kNetExports[] = {
    {"CheckIPEqual", Asks::kNone, [](Arguments &) { CheckIPEqual("::1", "::2"); }},
    {"EVPHashForPasswdSalt", Asks::kSome, [](Arguments &a) { EVPHashForPasswdSalt(a.text, a.digest, "00"); }},
    {"GetDNSSuffixName", Asks::kNone, [](Arguments &a) { GetDNSSuffixName(a.out, &a.size); }},
    {"GetIPAddrStrList", Asks::kSome, [](Arguments &a) { GetIPAddrStrList(nullptr, &a.size, nullptr); }},
    {"GetIPHostName", Asks::kNone, [](Arguments &a) { GetIPHostName(a.out, &a.size); }},
    {"GetLoopBack", Asks::kNone, [](Arguments &) { GetLoopBack(); }},
    {"GetSockType", Asks::kNone, [](Arguments &) { GetSockType(); }},
    {"IPAddrASCIIToNetwork", Asks::kNone, [](Arguments &a) { IPAddrASCIIToNetwork("::1", a.digest, &a.size); }},
    {"IPAddrNetworkToASCII", Asks::kNone, [](Arguments &a) { IPAddrNetworkToASCII(a.digest, 16, a.out, &a.size); }},
    {"IsIPv4", Asks::kNone, [](Arguments &) { IsIPv4("1.2.3.4"); }},
    {"IsIPv6", Asks::kNone, [](Arguments &) { IsIPv6("::1"); }},
    {"IsLinkLocal", Asks::kNone, [](Arguments &) { IsLinkLocal("fe80::1"); }},
    {"KCSCheckIPEqual", Asks::kNone, [](Arguments &) { KCSCheckIPEqual("::1", "::2"); }},
    {"KCSEVPHashForPasswdSalt", Asks::kSome, [](Arguments &a) { KCSEVPHashForPasswdSalt(a.text, a.digest, "00"); }},
    {"KCSGetDNSSuffixNameName", Asks::kNone, [](Arguments &a) { KCSGetDNSSuffixNameName(a.out, &a.size); }},
    {"KCSGetIPAddrStrList", Asks::kSome, [](Arguments &a) { KCSGetIPAddrStrList(nullptr, &a.size, nullptr); }},
    {"KCSGetIPHostName", Asks::kNone, [](Arguments &a) { KCSGetIPHostName(a.out, &a.size); }},
    {"KCSGetLoopBack", Asks::kNone, [](Arguments &) { KCSGetLoopBack(); }},
    {"KCSGetSockType", Asks::kNone, [](Arguments &) { KCSGetSockType(); }},
    {"KCSHostGetHostIPAddrList", Asks::kSome, [](Arguments &a) { KCSHostGetHostIPAddrList(&a.size); }},
    {"KCSIPAddrASCIIToNetwork", Asks::kNone, [](Arguments &a) { KCSIPAddrASCIIToNetwork("::1", a.digest, &a.size); }},
    {"KCSIPAddrNetworkToASCII", Asks::kNone,
     [](Arguments &a) { KCSIPAddrNetworkToASCII(a.digest, 16, a.out, &a.size); }},
    {"KCSIsIPv4", Asks::kNone, [](Arguments &) { KCSIsIPv4("1.2.3.4"); }},
    {"KCSIsIPv6", Asks::kNone, [](Arguments &) { KCSIsIPv6("::1"); }},
    {"KCSIsLinkLocal", Asks::kNone, [](Arguments &) { KCSIsLinkLocal("fe80::1"); }},
    {"KCSMD5Hash", Asks::kNone, [](Arguments &a) { KCSMD5Hash(a.text, a.digest); }},
    {"KCSMD5HashForPasswdSalt", Asks::kNone, [](Arguments &a) { KCSMD5HashForPasswdSalt(a.text, a.digest, "00"); }},
    {"KCSSHA256Hash", Asks::kNone, [](Arguments &a) { KCSSHA256Hash(a.text, a.digest); }},
    {"KCSSHA256HashForPasswdSalt", Asks::kNone,
     [](Arguments &a) { KCSSHA256HashForPasswdSalt(a.text, a.digest, "00"); }},
    {"KCSUniGetIPHostName", Asks::kNone, [](Arguments &a) { KCSUniGetIPHostName(a.wideOut, &a.size); }},
    {"LoadIPSupt", Asks::kNone, [](Arguments &) { LoadIPSupt(); }},
    {"MD5Hash", Asks::kNone, [](Arguments &a) { MD5Hash(a.text, a.digest); }},
    {"MD5HashForPasswdSalt", Asks::kNone, [](Arguments &a) { MD5HashForPasswdSalt(a.text, a.digest, "00"); }},
    {"SHA256Hash", Asks::kNone, [](Arguments &a) { SHA256Hash(a.text, a.digest); }},
    {"SHA256HashForPasswdSalt", Asks::kNone, [](Arguments &a) { SHA256HashForPasswdSalt(a.text, a.digest, "00"); }},
    {"SUPTIntfHostGetHostIPAddrList", Asks::kSome, [](Arguments &a) { SUPTIntfHostGetHostIPAddrList(&a.size); }},
    {"UnLoadIPSupt", Asks::kNotHere, nullptr},
    {"UniGetIPHostName", Asks::kNone, [](Arguments &a) { UniGetIPHostName(a.wideOut, &a.size); }},
    {"hexToDecimalConvert", Asks::kNone, [](Arguments &) { hexToDecimalConvert('f'); }},
};

const Export kNumberExports[] = {
    {"ASCIIReplaceSubstr", Asks::kNone, [](Arguments &a) { ASCIIReplaceSubstr(a.text, "k", "l", &a.size, a.out); }},
    {"ASCIIToBooln", Asks::kNone, [](Arguments &) { ASCIIToBooln("true"); }},
    {"ASCIIToBoolnV", Asks::kNone, [](Arguments &a) { ASCIIToBoolnV("true", &a.status); }},
    {"ASCIIToDouble", Asks::kNone, [](Arguments &) { ASCIIToDouble("1.5"); }},
    {"ASCIIToSigned32", Asks::kNone, [](Arguments &) { ASCIIToSigned32("15"); }},
    {"ASCIIToSigned32VT", Asks::kNone, [](Arguments &a) { ASCIIToSigned32VT("15", 10, &a.status); }},
    {"ASCIIToSigned64", Asks::kNone, [](Arguments &) { ASCIIToSigned64("15"); }},
    {"ASCIIToSigned64VT", Asks::kNone, [](Arguments &a) { ASCIIToSigned64VT("15", 10, &a.status); }},
    {"ASCIIToUnSigned32", Asks::kNone, [](Arguments &) { ASCIIToUnSigned32("15"); }},
    {"ASCIIToUnSigned32VT", Asks::kNone, [](Arguments &a) { ASCIIToUnSigned32VT("15", 10, &a.status); }},
    {"ASCIIToUnSigned64", Asks::kNone, [](Arguments &) { ASCIIToUnSigned64("15"); }},
    {"ASCIIToUnSigned64VT", Asks::kNone, [](Arguments &a) { ASCIIToUnSigned64VT("15", 10, &a.status); }},
    {"BoolnToASCII", Asks::kNone, [](Arguments &a) { BoolnToASCII(a.out, 1); }},
    {"CharsLeftShift", Asks::kNone, [](Arguments &a) { CharsLeftShift(a.text); }},
    {"DSTFix", Asks::kNone, [](Arguments &a) { DSTFix(&a.time); }},
    {"DoubleToASCII", Asks::kNone, [](Arguments &a) { DoubleToASCII(a.out, 1.5); }},
    {"IsASCIIAlpha", Asks::kNone, [](Arguments &a) { IsASCIIAlpha(a.text); }},
    {"IsASCIIAlphaNumeric", Asks::kNone, [](Arguments &a) { IsASCIIAlphaNumeric(a.text); }},
    {"IsASCIIAlphaNumericPlus", Asks::kNone, [](Arguments &a) { IsASCIIAlphaNumericPlus(a.text, "="); }},
    {"IsASCIIHexNum", Asks::kNone, [](Arguments &) { IsASCIIHexNum("1f", 1); }},
    {"IsASCIIIntNum", Asks::kNone, [](Arguments &) { IsASCIIIntNum("1", 1); }},
    {"IsASCIIOctalNum", Asks::kNone, [](Arguments &) { IsASCIIOctalNum("1"); }},
    {"KCSASCIIReplaceSubstr", Asks::kNone,
     [](Arguments &a) { KCSASCIIReplaceSubstr(a.text, "k", "l", &a.size, a.out); }},
    {"KCSASCIIToBooln", Asks::kNone, [](Arguments &) { KCSASCIIToBooln("true"); }},
    {"KCSASCIIToBoolnV", Asks::kNone, [](Arguments &a) { KCSASCIIToBoolnV("true", &a.status); }},
    {"KCSASCIIToDouble", Asks::kNone, [](Arguments &) { KCSASCIIToDouble("1.5"); }},
    {"KCSASCIIToSigned32", Asks::kNone, [](Arguments &) { KCSASCIIToSigned32("15"); }},
    {"KCSASCIIToSigned32VT", Asks::kNone, [](Arguments &a) { KCSASCIIToSigned32VT("15", 10, &a.status); }},
    {"KCSASCIIToSigned64", Asks::kNone, [](Arguments &) { KCSASCIIToSigned64("15"); }},
    {"KCSASCIIToSigned64VT", Asks::kNone, [](Arguments &a) { KCSASCIIToSigned64VT("15", 10, &a.status); }},
    {"KCSASCIIToUnSigned32", Asks::kNone, [](Arguments &) { KCSASCIIToUnSigned32("15"); }},
    {"KCSASCIIToUnSigned32VT", Asks::kNone, [](Arguments &a) { KCSASCIIToUnSigned32VT("15", 10, &a.status); }},
    {"KCSASCIIToUnSigned64", Asks::kNone, [](Arguments &) { KCSASCIIToUnSigned64("15"); }},
    {"KCSASCIIToUnSigned64VT", Asks::kNone, [](Arguments &a) { KCSASCIIToUnSigned64VT("15", 10, &a.status); }},
    {"KCSBoolnToASCII", Asks::kNone, [](Arguments &a) { KCSBoolnToASCII(a.out, 1); }},
    {"KCSDSTFix", Asks::kNone, [](Arguments &a) { KCSDSTFix(&a.time); }},
    {"KCSDoubleToASCII", Asks::kNone, [](Arguments &a) { KCSDoubleToASCII(a.out, 1.5); }},
    {"KCSIsASCIIAlpha", Asks::kNone, [](Arguments &a) { KCSIsASCIIAlpha(a.text); }},
    {"KCSIsASCIIAlphaNumeric", Asks::kNone, [](Arguments &a) { KCSIsASCIIAlphaNumeric(a.text); }},
    {"KCSIsASCIIAlphaNumericPlus", Asks::kNone, [](Arguments &a) { KCSIsASCIIAlphaNumericPlus(a.text, "="); }},
    {"KCSIsASCIIHexNum", Asks::kNone, [](Arguments &) { KCSIsASCIIHexNum("1f", 1); }},
    {"KCSIsASCIIIntNum", Asks::kNone, [](Arguments &) { KCSIsASCIIIntNum("1", 1); }},
    {"KCSIsASCIIOctalNum", Asks::kNone, [](Arguments &) { KCSIsASCIIOctalNum("1"); }},
    {"KCSSigned32ToASCII", Asks::kNone, [](Arguments &a) { KCSSigned32ToASCII(a.out, 1); }},
    {"KCSSigned64ToASCII", Asks::kNone, [](Arguments &a) { KCSSigned64ToASCII(a.out, 1); }},
    {"KCSTimeToAStr", Asks::kNone, [](Arguments &a) { KCSTimeToAStr(a.out, &a.time); }},
    {"KCSUnSigned32ToASCII", Asks::kNone, [](Arguments &a) { KCSUnSigned32ToASCII(a.out, 1); }},
    {"KCSUnSigned64ToASCII", Asks::kNone, [](Arguments &a) { KCSUnSigned64ToASCII(a.out, 1); }},
    {"KCSUniDoubleToStr", Asks::kNone, [](Arguments &a) { KCSUniDoubleToStr(a.wideOut, &a.size, 1.5, 2); }},
    {"KCSUniSigned32ToStr", Asks::kNone, [](Arguments &a) { KCSUniSigned32ToStr(a.wideOut, &a.size, 1, 10); }},
    {"KCSUniTimeToStr", Asks::kNone, [](Arguments &a) { KCSUniTimeToStr(a.wideOut, &a.size, &a.time); }},
    {"KCSUniToDouble", Asks::kSome, [](Arguments &a) { KCSUniToDouble(a.longDigits.data()); }},
    {"KCSUniToSigned32", Asks::kSome, [](Arguments &a) { KCSUniToSigned32(a.longDigits.data()); }},
    {"KCSUniToSigned64", Asks::kSome, [](Arguments &a) { KCSUniToSigned64(a.longDigits.data()); }},
    {"KCSUniToUnSigned32", Asks::kSome, [](Arguments &a) { KCSUniToUnSigned32(a.longDigits.data()); }},
    {"KCSUniToUnSigned64", Asks::kSome, [](Arguments &a) { KCSUniToUnSigned64(a.longDigits.data()); }},
    {"KCSUniUnSigned32ToStr", Asks::kNone, [](Arguments &a) { KCSUniUnSigned32ToStr(a.wideOut, &a.size, 1, 10); }},
    {"KCSValidateHostName", Asks::kNone, [](Arguments &) { KCSValidateHostName("host"); }},
    {"Signed32ToASCII", Asks::kNone, [](Arguments &a) { Signed32ToASCII(a.out, 1); }},
    {"Signed64ToASCII", Asks::kNone, [](Arguments &a) { Signed64ToASCII(a.out, 1); }},
    {"TimeToAStr", Asks::kNone, [](Arguments &a) { TimeToAStr(a.out, &a.time); }},
    {"UnSigned32ToASCII", Asks::kNone, [](Arguments &a) { UnSigned32ToASCII(a.out, 1); }},
    {"UnSigned64ToASCII", Asks::kNone, [](Arguments &a) { UnSigned64ToASCII(a.out, 1); }},
    {"UniDoubleToStr", Asks::kNone, [](Arguments &a) { UniDoubleToStr(a.wideOut, &a.size, 1.5, 2); }},
    {"UniSigned32ToStr", Asks::kNone, [](Arguments &a) { UniSigned32ToStr(a.wideOut, &a.size, 1, 10); }},
    {"UniTimeToStr", Asks::kNone, [](Arguments &a) { UniTimeToStr(a.wideOut, &a.size, &a.time); }},
    {"UniToDouble", Asks::kSome, [](Arguments &a) { UniToDouble(a.longDigits.data()); }},
    {"UniToSigned32", Asks::kSome, [](Arguments &a) { UniToSigned32(a.longDigits.data()); }},
    {"UniToSigned64", Asks::kSome, [](Arguments &a) { UniToSigned64(a.longDigits.data()); }},
    {"UniToUnSigned32", Asks::kSome, [](Arguments &a) { UniToUnSigned32(a.longDigits.data()); }},
    {"UniToUnSigned64", Asks::kSome, [](Arguments &a) { UniToUnSigned64(a.longDigits.data()); }},
    {"UniUnSigned32ToStr", Asks::kNone, [](Arguments &a) { UniUnSigned32ToStr(a.wideOut, &a.size, 1, 10); }},
    {"ValidateHostName", Asks::kNone, [](Arguments &) { ValidateHostName("host"); }},
    {"dec2bin", Asks::kNone, [](Arguments &a) { dec2bin(a.out, 5); }},
    {"ltostr", Asks::kNone, [](Arguments &a) { ltostr(a.out, 15, 10); }},
    {"strToUpperCase", Asks::kNone, [](Arguments &a) { strToUpperCase(a.text); }},
    {"strlwr", Asks::kNone, [](Arguments &a) { strlwr(a.text); }},
    {"strrev", Asks::kSome, [](Arguments &a) { strrev(a.text); }},
    {"strupr", Asks::kNone, [](Arguments &a) { strupr(a.text); }},
};

const Export kParamExports[] = {
    {"AppendNode", Asks::kSome, [](Arguments &a) { AppendNode("a", "b", &a.result); }},
    {"GetAStrParamName", Asks::kNone, [](Arguments &a) { GetAStrParamName(a.text); }},
    {"GetAStrParamNameLen", Asks::kNone, [](Arguments &a) { GetAStrParamNameLen(a.text); }},
    {"GetAStrParamValue", Asks::kNone, [](Arguments &a) { GetAStrParamValue(a.text); }},
    {"GetAStrParamValueByAStrName", Asks::kNone,
     [](Arguments &a) { GetAStrParamValueByAStrName(1, a.pairs, "key", 0); }},
    {"GetParamIndexByAStrName", Asks::kNone, [](Arguments &a) { GetParamIndexByAStrName(1, a.pairs, "key", 1); }},
    {"GetParamIndexByUStrName", Asks::kNone, [](Arguments &a) { GetParamIndexByUStrName(1, a.widePairs, a.wide, 1); }},
    {"GetUStrParamName", Asks::kNone, [](Arguments &a) { GetUStrParamName(a.wide); }},
    {"GetUStrParamNameLen", Asks::kNone, [](Arguments &a) { GetUStrParamNameLen(a.wide); }},
    {"GetUStrParamValue", Asks::kNone, [](Arguments &a) { GetUStrParamValue(a.wide); }},
    {"GetUStrParamValueByUStrName", Asks::kNone,
     [](Arguments &a) { GetUStrParamValueByUStrName(1, a.widePairs, a.wide, 0); }},
    {"IsValidParam", Asks::kNone, [](Arguments &a) { IsValidParam(a.text); }},
    {"IsValidUParam", Asks::kNone, [](Arguments &a) { IsValidUParam(a.wide); }},
    {"KCSAppendDNode", Asks::kSome, [](Arguments &a) { KCSAppendDNode("a", "b", &a.result); }},
    {"KCSGetAStrParamName", Asks::kNone, [](Arguments &a) { KCSGetAStrParamName(a.text); }},
    {"KCSGetAStrParamValue", Asks::kNone, [](Arguments &a) { KCSGetAStrParamValue(a.text); }},
    {"KCSGetAStrParamValueByAStrName", Asks::kNone,
     [](Arguments &a) { KCSGetAStrParamValueByAStrName(1, a.pairs, "key", 0); }},
    {"KCSGetParamIndexByAStrName", Asks::kNone, [](Arguments &a) { KCSGetParamIndexByAStrName(1, a.pairs, "key", 1); }},
    {"KCSGetParamIndexByUStrName", Asks::kNone,
     [](Arguments &a) { KCSGetParamIndexByUStrName(1, a.widePairs, a.wide, 1); }},
    {"KCSGetUStrParamName", Asks::kNone, [](Arguments &a) { KCSGetUStrParamName(a.wide); }},
    {"KCSGetUStrParamValue", Asks::kNone, [](Arguments &a) { KCSGetUStrParamValue(a.wide); }},
    {"KCSGetUStrParamValueByUStrName", Asks::kNone,
     [](Arguments &a) { KCSGetUStrParamValueByUStrName(1, a.widePairs, a.wide, 0); }},
    {"KCSIsValidParam", Asks::kNone, [](Arguments &a) { KCSIsValidParam(a.text); }},
    {"KCSIsValidUParam", Asks::kNone, [](Arguments &a) { KCSIsValidUParam(a.wide); }},
    {"KCSRemoveDQuotesInStrArr", Asks::kNone, [](Arguments &a) { KCSRemoveDQuotesInStrArr(1, a.pairs); }},
    {"RemoveDQuotesInStrArr", Asks::kNone, [](Arguments &a) { RemoveDQuotesInStrArr(1, a.pairs); }},
};

const Export kProductExports[] = {
    {"ConvertPathToURI", Asks::kSome, [](Arguments &) { ConvertPathToURI("a b"); }},
    {"GetRelativePath", Asks::kNone, [](Arguments &a) { GetRelativePath(a.text, "v"); }},
    {"GetUnicodeStringFromIDPathFile", Asks::kNone,
     [](Arguments &a) { GetUnicodeStringFromIDPathFile(1, nullptr, a.file.c_str(), a.wideOut, &a.size); }},
    {"KCSCheckModularChassis", Asks::kNone, [](Arguments &) { KCSCheckModularChassis(); }},
    {"KCSGetHostNameAStr", Asks::kSome, [](Arguments &) { KCSGetHostNameAStr(); }},
    {"KCSGetIWSTempDirPath", Asks::kSome, [](Arguments &) { KCSGetIWSTempDirPath(); }},
    {"KCSGetLocaleNameAStr", Asks::kSome, [](Arguments &) { KCSGetLocaleNameAStr(1031); }},
    {"KCSGetOEMADSchemaPrefix", Asks::kSome, [](Arguments &) { KCSGetOEMADSchemaPrefix(); }},
    {"KCSGetOEMINIPathFile", Asks::kSome, [](Arguments &) { KCSGetOEMINIPathFile("a", "b", "0"); }},
    {"KCSGetOSCountry", Asks::kSome, [](Arguments &) { KCSGetOSCountry(); }},
    {"KCSGetOSLanguage", Asks::kSome, [](Arguments &) { KCSGetOSLanguage(); }},
    {"KCSGetOSLocaleName", Asks::kSome, [](Arguments &) { KCSGetOSLocaleName(); }},
    {"KCSGetProductIniPath", Asks::kSome, [](Arguments &) { KCSGetProductIniPath(); }},
    {"KCSGetProductVarPath", Asks::kSome, [](Arguments &) { KCSGetProductVarPath(); }},
    {"KCSGetRootInstallPath", Asks::kSome, [](Arguments &) { KCSGetRootInstallPath(); }},
    {"KCSGetUnicodeStringFromIDPathFile", Asks::kNone,
     [](Arguments &a) { KCSGetUnicodeStringFromIDPathFile(1, nullptr, a.file.c_str(), a.wideOut, &a.size); }},
    {"KCSGetXSLPathLocale", Asks::kSome, [](Arguments &) { KCSGetXSLPathLocale("a", "b", "c", "de", 0, 0); }},
    {"KCSGetZEBCLIDocsPath", Asks::kSome, [](Arguments &) { KCSGetZEBCLIDocsPath(); }},
    {"KCSGetZEBDownloadPath", Asks::kSome, [](Arguments &) { KCSGetZEBDownloadPath(); }},
    {"KCSGetZEBInstallPath", Asks::kSome, [](Arguments &) { KCSGetZEBInstallPath(); }},
    {"KCSGetZEBUploadPath", Asks::kSome, [](Arguments &) { KCSGetZEBUploadPath(); }},
    {"KCSGetZEBWEBDocsPath", Asks::kSome, [](Arguments &) { KCSGetZEBWEBDocsPath(); }},
    {"KCSGetZEBWWWRootPath", Asks::kSome, [](Arguments &) { KCSGetZEBWWWRootPath(); }},
    {"KCSGetZEBXSLRootPath", Asks::kSome, [](Arguments &) { KCSGetZEBXSLRootPath(); }},
    {"OSInitZEBInstallPath", Asks::kNone, [](Arguments &a) { OSInitZEBInstallPath(a.out, &a.size); }},
    {"SIGetXSLPath", Asks::kSome, [](Arguments &) { SIGetXSLPath("a", "b", "c", nullptr, 0, 0); }},
    {"SIGetXSLPathLocalePermutate", Asks::kSome,
     [](Arguments &) { SIGetXSLPathLocalePermutate("a", "b", "c", "de", 0, 0); }},
    {"SUPTIntfGetHostNameAStr", Asks::kSome, [](Arguments &) { SUPTIntfGetHostNameAStr(); }},
    {"SUPTIntfGetIWSTempDirPath", Asks::kSome, [](Arguments &) { SUPTIntfGetIWSTempDirPath(); }},
    {"SUPTIntfGetLocaleName", Asks::kNone, [](Arguments &) { SUPTIntfGetLocaleName(1031); }},
    {"SUPTIntfGetLocaleNameAStr", Asks::kSome, [](Arguments &) { SUPTIntfGetLocaleNameAStr(1031); }},
    {"SUPTIntfGetOEMINIPathFile", Asks::kSome, [](Arguments &) { SUPTIntfGetOEMINIPathFile("a", "b", "0"); }},
    {"SUPTIntfGetOSCountry", Asks::kSome, [](Arguments &) { SUPTIntfGetOSCountry(); }},
    {"SUPTIntfGetOSLanguage", Asks::kSome, [](Arguments &) { SUPTIntfGetOSLanguage(); }},
    {"SUPTIntfGetOSLocaleName", Asks::kSome, [](Arguments &) { SUPTIntfGetOSLocaleName(); }},
    {"SUPTIntfGetProductIniPath", Asks::kSome, [](Arguments &) { SUPTIntfGetProductIniPath(); }},
    {"SUPTIntfGetProductInstallPath", Asks::kSome, [](Arguments &) { SUPTIntfGetProductInstallPath(); }},
    {"SUPTIntfGetProductVarPath", Asks::kSome, [](Arguments &) { SUPTIntfGetProductVarPath(); }},
    {"SUPTIntfGetXSLPathLocale", Asks::kSome, [](Arguments &) { SUPTIntfGetXSLPathLocale("a", "b", "c", "de", 0, 0); }},
    {"SUPTIntfGetZEBCLIDocsPath", Asks::kSome, [](Arguments &) { SUPTIntfGetZEBCLIDocsPath(); }},
    {"SUPTIntfGetZEBDownloadPath", Asks::kSome, [](Arguments &) { SUPTIntfGetZEBDownloadPath(); }},
    {"SUPTIntfGetZEBInstallPath", Asks::kSome, [](Arguments &) { SUPTIntfGetZEBInstallPath(); }},
    {"SUPTIntfGetZEBUploadPath", Asks::kSome, [](Arguments &) { SUPTIntfGetZEBUploadPath(); }},
    {"SUPTIntfGetZEBWEBDocsPath", Asks::kSome, [](Arguments &) { SUPTIntfGetZEBWEBDocsPath(); }},
    {"SUPTIntfGetZEBWWWRootPath", Asks::kSome, [](Arguments &) { SUPTIntfGetZEBWWWRootPath(); }},
    {"SUPTIntfGetZEBXSLRootPath", Asks::kSome, [](Arguments &) { SUPTIntfGetZEBXSLRootPath(); }},
    {"SUPTIntfHostGetHostNameAStr", Asks::kSome, [](Arguments &) { SUPTIntfHostGetHostNameAStr(); }},
    {"SUPTIntfInitZEBInstallPath", Asks::kNone, [](Arguments &) { SUPTIntfInitZEBInstallPath(); }},
    {"SetUnicodeStringToDestination", Asks::kNone,
     [](Arguments &a) { SetUnicodeStringToDestination(a.wide, a.wideOut, &a.size); }},
    {"dc_fgetws", Asks::kSome, [](Arguments &a) { dc_fgetws(a.wideOut, 16, a.stream); }},
};

const Export kRoleMapExports[] = {
    {"KCSGetRightsUsingRolemap", Asks::kSome, [](Arguments &) { KCSGetRightsUsingRolemap(); }},
    {"KCSMaskProgramRights", Asks::kSome, [](Arguments &a) { KCSMaskProgramRights(1, "app", a.ini.c_str(), nullptr); }},
    {"KCSOpenRolemapFile", Asks::kSome, [](Arguments &) { KCSOpenRolemapFile(); }},
    {"OSGetRightsUsingRolemap", Asks::kSome, [](Arguments &) { OSGetRightsUsingRolemap(); }},
    {"OSOpenRolemapFile", Asks::kSome, [](Arguments &) { OSOpenRolemapFile(); }},
    {"get_user_rights", Asks::kSome, [](Arguments &a) { get_user_rights(a.text); }},
};

const Export kSystemExports[] = {
    {"CfgWebServer", Asks::kNone, [](Arguments &a) { CfgWebServer(0, nullptr, &a.status); }},
    {"KCSLibLinkToExportFN", Asks::kNone, [](Arguments &a) { KCSLibLinkToExportFN(&a.library, "sin"); }},
    {"KCSLibLoad", Asks::kSome, [](Arguments &a) { KCSLibLoad(&a.library, "libm.so.6"); }},
    {"KCSLibUnLinkFromExportFN", Asks::kNone, [](Arguments &a) { KCSLibUnLinkFromExportFN(&a.library, "none"); }},
    {"KCSLibUnLoad", Asks::kNone, [](Arguments &a) { KCSLibUnLoad(&a.library); }},
    {"KCSOSGetType", Asks::kNone, [](Arguments &) { KCSOSGetType(); }},
    {"KCSOSShutdown", Asks::kNotHere, nullptr},
    {"KCSThreadStart", Asks::kSome,
     [](Arguments &a) {
       KCSThreadStart(
           &a.thread, [](void *) {}, nullptr);
     }},
    {"KCSThreadStop", Asks::kNone, [](Arguments &) { KCSThreadStop(nullptr); }},
    {"KCSWebServer", Asks::kNone, [](Arguments &a) { KCSWebServer(0, nullptr, &a.status); }},
    {"OSGetType", Asks::kNone, [](Arguments &) { OSGetType(); }},
    {"OSLibLinkToExportFN", Asks::kNone, [](Arguments &a) { OSLibLinkToExportFN(&a.library, "sin"); }},
    {"OSLibLoad", Asks::kSome, [](Arguments &a) { OSLibLoad(&a.library, "libm.so.6"); }},
    {"OSLibUnLinkFromExportFN", Asks::kNone, [](Arguments &a) { OSLibUnLinkFromExportFN(&a.library, "none"); }},
    {"OSLibUnLoad", Asks::kNone, [](Arguments &a) { OSLibUnLoad(&a.library); }},
    {"OSShutdown", Asks::kNotHere, nullptr},
    {"OSThreadStart", Asks::kSome,
     [](Arguments &a) {
       OSThreadStart(
           &a.thread, [](void *) {}, nullptr);
     }},
    {"OSThreadStop", Asks::kNone, [](Arguments &) { OSThreadStop(nullptr); }},
    {"OSThreadStub", Asks::kNone, [](Arguments &a) { OSThreadStub(&a.thread); }},
};

const Export kStringExports[] = {
    {"AStrnicmp", Asks::kNone, [](Arguments &) { AStrnicmp("a", "A", 1); }},
    {"KCSAStrnicmp", Asks::kNone, [](Arguments &) { KCSAStrnicmp("a", "A", 1); }},
    {"KCSSSAStrAlloc", Asks::kSome, [](Arguments &a) { KCSSSAStrAlloc(&a.emptyString, 16); }},
    {"KCSSSAStrCatAStr", Asks::kSome, [](Arguments &a) { KCSSSAStrCatAStr(&a.string, a.longText.c_str()); }},
    {"KCSSSAStrCatUStr", Asks::kSome, [](Arguments &a) { KCSSSAStrCatUStr(&a.string, a.longWide.data()); }},
    {"KCSSSAStrFree", Asks::kNone, [](Arguments &a) { KCSSSAStrFree(&a.string); }},
    {"KCSSSUStrAlloc", Asks::kSome, [](Arguments &a) { KCSSSUStrAlloc(&a.emptyWideString, 16); }},
    {"KCSSSUStrCatAStr", Asks::kSome, [](Arguments &a) { KCSSSUStrCatAStr(&a.wideString, a.longText.c_str()); }},
    {"KCSSSUStrCatUStr", Asks::kSome, [](Arguments &a) { KCSSSUStrCatUStr(&a.wideString, a.longWide.data()); }},
    {"KCSSSUStrFree", Asks::kNone, [](Arguments &a) { KCSSSUStrFree(&a.wideString); }},
    {"KCSUniStrcat", Asks::kNone, [](Arguments &a) { KCSUniStrcat(a.wide, a.wideOut); }},
    {"KCSUniStrchr", Asks::kNone, [](Arguments &a) { KCSUniStrchr(a.wide, '='); }},
    {"KCSUniStrcmp", Asks::kNone, [](Arguments &a) { KCSUniStrcmp(a.wide, a.wide); }},
    {"KCSUniStrcpy", Asks::kNone, [](Arguments &a) { KCSUniStrcpy(a.wideOut, a.wide); }},
    {"KCSUniStrcspn", Asks::kNone, [](Arguments &a) { KCSUniStrcspn(a.wide, a.wide); }},
    {"KCSUniStrlen", Asks::kNone, [](Arguments &a) { KCSUniStrlen(a.wide); }},
    {"KCSUniStrncat", Asks::kNone, [](Arguments &a) { KCSUniStrncat(a.wideOut, a.wide, 1); }},
    {"KCSUniStrncpy", Asks::kNone, [](Arguments &a) { KCSUniStrncpy(a.wideOut, a.wide, 1); }},
    {"KCSUniStrnset", Asks::kNone, [](Arguments &a) { KCSUniStrnset(a.wide, 'x', 1); }},
    {"KCSUniStrrev", Asks::kSome, [](Arguments &a) { KCSUniStrrev(a.wide); }},
    {"KCSUniStrset", Asks::kNone, [](Arguments &a) { KCSUniStrset(a.wide, 'x'); }},
    {"KCSUniStrspn", Asks::kNone, [](Arguments &a) { KCSUniStrspn(a.wide, a.wide); }},
    {"KCSUniStrstr", Asks::kNone, [](Arguments &a) { KCSUniStrstr(a.wide, a.wide); }},
    {"KCSUniStrtok", Asks::kNone, [](Arguments &a) { KCSUniStrtok(a.wide, a.wideOut); }},
    {"SSAStrAlloc", Asks::kSome, [](Arguments &a) { SSAStrAlloc(&a.emptyString, 16); }},
    {"SSAStrCatAStr", Asks::kSome, [](Arguments &a) { SSAStrCatAStr(&a.string, a.longText.c_str()); }},
    {"SSAStrCatUStr", Asks::kSome, [](Arguments &a) { SSAStrCatUStr(&a.string, a.longWide.data()); }},
    {"SSAStrFree", Asks::kNone, [](Arguments &a) { SSAStrFree(&a.string); }},
    {"SSUStrAlloc", Asks::kSome, [](Arguments &a) { SSUStrAlloc(&a.emptyWideString, 16); }},
    {"SSUStrCatAStr", Asks::kSome, [](Arguments &a) { SSUStrCatAStr(&a.wideString, a.longText.c_str()); }},
    {"SSUStrCatUStr", Asks::kSome, [](Arguments &a) { SSUStrCatUStr(&a.wideString, a.longWide.data()); }},
    {"SSUStrFree", Asks::kNone, [](Arguments &a) { SSUStrFree(&a.wideString); }},
    {"UniStrcat", Asks::kNone, [](Arguments &a) { UniStrcat(a.wide, a.wideOut); }},
    {"UniStrchr", Asks::kNone, [](Arguments &a) { UniStrchr(a.wide, '='); }},
    {"UniStrcmp", Asks::kNone, [](Arguments &a) { UniStrcmp(a.wide, a.wide); }},
    {"UniStrcpy", Asks::kNone, [](Arguments &a) { UniStrcpy(a.wideOut, a.wide); }},
    {"UniStrcspn", Asks::kNone, [](Arguments &a) { UniStrcspn(a.wide, a.wide); }},
    {"UniStrlen", Asks::kNone, [](Arguments &a) { UniStrlen(a.wide); }},
    {"UniStrncat", Asks::kNone, [](Arguments &a) { UniStrncat(a.wideOut, a.wide, 1); }},
    {"UniStrncpy", Asks::kNone, [](Arguments &a) { UniStrncpy(a.wideOut, a.wide, 1); }},
    {"UniStrnset", Asks::kNone, [](Arguments &a) { UniStrnset(a.wide, 'x', 1); }},
    {"UniStrrev", Asks::kSome, [](Arguments &a) { UniStrrev(a.wide); }},
    {"UniStrset", Asks::kNone, [](Arguments &a) { UniStrset(a.wide, 'x'); }},
    {"UniStrspn", Asks::kNone, [](Arguments &a) { UniStrspn(a.wide, a.wide); }},
    {"UniStrstr", Asks::kNone, [](Arguments &a) { UniStrstr(a.wide, a.wide); }},
    {"UniStrtok", Asks::kNone, [](Arguments &a) { UniStrtok(a.wide, a.wideOut); }},
    {"Uni_memcmp", Asks::kNone, [](Arguments &a) { Uni_memcmp(a.wide, a.wide, 1); }},
    {"Uni_strcat", Asks::kNone, [](Arguments &a) { Uni_strcat(a.wide, a.wideOut); }},
    {"Uni_strchr", Asks::kNone, [](Arguments &a) { Uni_strchr(a.wide, '='); }},
    {"Uni_strcmp", Asks::kNone, [](Arguments &a) { Uni_strcmp(a.wide, a.wide); }},
    {"Uni_strcpy", Asks::kNone, [](Arguments &a) { Uni_strcpy(a.wideOut, a.wide); }},
    {"Uni_strcspn", Asks::kNone, [](Arguments &a) { Uni_strcspn(a.wide, a.wide); }},
    {"Uni_strlen", Asks::kNone, [](Arguments &a) { Uni_strlen(a.wide); }},
    {"Uni_strncasecmp", Asks::kNone, [](Arguments &a) { Uni_strncasecmp(a.wide, a.wide, 1); }},
    {"Uni_strncat", Asks::kNone, [](Arguments &a) { Uni_strncat(a.wideOut, a.wide, 1); }},
    {"Uni_strncpy", Asks::kNone, [](Arguments &a) { Uni_strncpy(a.wideOut, a.wide, 1); }},
    {"Uni_strnset", Asks::kNone, [](Arguments &a) { Uni_strnset(a.wide, 'x', 1); }},
    {"Uni_strpbrk", Asks::kNone, [](Arguments &a) { Uni_strpbrk(a.wide, a.wide); }},
    {"Uni_strrev", Asks::kSome, [](Arguments &a) { Uni_strrev(a.wide); }},
    {"Uni_strset", Asks::kNone, [](Arguments &a) { Uni_strset(a.wide, 'x'); }},
    {"Uni_strspn", Asks::kNone, [](Arguments &a) { Uni_strspn(a.wide, a.wide); }},
    {"Uni_strstr", Asks::kNone, [](Arguments &a) { Uni_strstr(a.wide, a.wide); }},
    {"Uni_strtok", Asks::kNone, [](Arguments &a) { Uni_strtok(a.wide, a.wideOut); }},
};

const Export kXMLBufferExports[] = {
    {"KCSXAllocBuf", Asks::kSome, [](Arguments &) { KCSXAllocBuf(64, 0); }},
    {"KCSXBufCatBeginNode", Asks::kSome, [](Arguments &a) { KCSXBufCatBeginNode(a.xml, a.longText.c_str(), nullptr); }},
    {"KCSXBufCatEmptyNode", Asks::kSome, [](Arguments &a) { KCSXBufCatEmptyNode(a.xml, a.longText.c_str(), nullptr); }},
    {"KCSXBufCatEndNode", Asks::kSome, [](Arguments &a) { KCSXBufCatEndNode(a.xml, a.longText.c_str()); }},
    {"KCSXBufCatNode", Asks::kSome,
     [](Arguments &a) { KCSXBufCatNode(a.xml, "n", nullptr, KCX_ASTRING, a.longText.c_str()); }},
    {"KCSXFreeBuf", Asks::kNone, [](Arguments &a) { KCSXFreeBuf(std::exchange(a.xml, nullptr), 0); }},
    {"KCSXFreeBufContent", Asks::kNone,
     [](Arguments &a) { KCSXFreeBufContent(static_cast<astring *>(std::exchange(a.block, nullptr))); }},
    {"KCSXFreeBufGetContent", Asks::kNone,
     [](Arguments &a) { std::free(KCSXFreeBufGetContent(std::exchange(a.xml, nullptr))); }},
    {"KCXAllocBuf", Asks::kSome, [](Arguments &) { KCXAllocBuf(64, 0); }},
    {"KCXBufCatBeginNode", Asks::kSome, [](Arguments &a) { KCXBufCatBeginNode(a.xml, a.longText.c_str(), nullptr); }},
    {"KCXBufCatEmptyNode", Asks::kSome, [](Arguments &a) { KCXBufCatEmptyNode(a.xml, a.longText.c_str(), nullptr); }},
    {"KCXBufCatEndNode", Asks::kSome, [](Arguments &a) { KCXBufCatEndNode(a.xml, a.longText.c_str()); }},
    {"KCXBufCatNode", Asks::kSome,
     [](Arguments &a) { KCXBufCatNode(a.xml, "n", nullptr, KCX_ASTRING, a.longText.c_str()); }},
    {"KCXBufCatNodeT", Asks::kSome,
     [](Arguments &a) { KCXBufCatNodeT(a.xml, "n", nullptr, KCX_ASTRING_ESCAPED, a.longText.c_str(), 2); }},
    {"KCXFreeBuf", Asks::kNone, [](Arguments &a) { KCXFreeBuf(std::exchange(a.xml, nullptr), 0); }},
    {"KCXFreeBufContent", Asks::kNone,
     [](Arguments &a) { KCXFreeBufContent(static_cast<astring *>(std::exchange(a.block, nullptr))); }},
};

const std::span<const Export> kExports[] = {
    kAuthExports,  kDASupportExports, kEncodingExports, kFrameExports,  kHashIDExports, kINIExports,
    kIPCExports,   kKeyValueExports,  kListExports,     kLogsExports,   kNetExports,    kNumberExports,
    kParamExports, kProductExports,   kRoleMapExports,  kSystemExports, kStringExports, kXMLBufferExports};

// The C++ interface of the role map, whose members are walked as what they are part of, with the tables and type
// information that the compiler makes for it.
const char *const kMangledExports[] = {
    "_ZN11VornSupport13VornExceptionD0Ev",
    "_ZN11VornSupport13VornExceptionD1Ev",
    "_ZN11VornSupport13VornExceptionD2Ev",
    "_ZN16QXAuthFileReader10GetRecordsEv",
    "_ZN16QXAuthFileReader11GetInstanceEv",
    "_ZN16QXAuthFileReader17GetDefaultRecordsEv",
    "_ZN16QXAuthFileReader4OpenEv",
    "_ZN16QXAuthFileRecord16PopulateZEBRolesEv",
    "_ZN16QXAuthFileRecordC1ERKNSt7__cxx1112basic_stringIwSt11char_traitsIwESaIwEEEi",
    "_ZN16QXAuthFileRecordC2ERKNSt7__cxx1112basic_stringIwSt11char_traitsIwESaIwEEEi",
    "_ZN16QXAuthFileRecordD0Ev",
    "_ZN16QXAuthFileRecordD1Ev",
    "_ZN16QXAuthFileRecordD2Ev",
    "_ZN19ZEBRoleMapAlgorithm10InitializeERKSt5dequeIP16QXAuthFileRecordSaIS2_EE",
    "_ZN19ZEBRoleMapAlgorithm11GetInstanceEv",
    "_ZN19ZEBRoleMapAlgorithm14GetOSPrivilegeEPKc",
    "_ZN19ZEBRoleMapAlgorithm17GetUserPrivilegesER7ZEBRole",
    "_ZN29ZEBRoleMapFileReaderExceptionC1E17fileReadErrorCodem",
    "_ZN29ZEBRoleMapFileReaderExceptionC2E17fileReadErrorCodem",
    "_ZN29ZEBRoleMapFileReaderExceptionD0Ev",
    "_ZN29ZEBRoleMapFileReaderExceptionD1Ev",
    "_ZN29ZEBRoleMapFileReaderExceptionD2Ev",
    "_ZNK11VornSupport13VornException4whatEv",
    "_ZNK16QXAuthFileRecord8GetRolesERSt5dequeIP7ZEBRoleSaIS2_EE",
    "_ZNK29ZEBRoleMapFileReaderException19MapErrorCodeToCmdIdEv",
    "_ZTI16QXAuthFileRecord",
    "_ZTI29ZEBRoleMapFileReaderException",
    "_ZTIN11VornSupport13VornExceptionE",
    "_ZTS16QXAuthFileRecord",
    "_ZTS29ZEBRoleMapFileReaderException",
    "_ZTSN11VornSupport13VornExceptionE",
    "_ZTV16QXAuthFileRecord",
    "_ZTV29ZEBRoleMapFileReaderException",
    "_ZTVN11VornSupport13VornExceptionE",
};

std::set<std::string> ExportedNames() {
  std::ifstream map(ZEBCS_SOURCE_DIR "/exports/zebcs.map");
  std::set<std::string> names;
  bool isGlobal = false;
  for (std::string line; std::getline(map, line);) {
    const size_t start = line.find_first_not_of(' ');
    const size_t end = line.find_first_of(";:{# ", start);
    if (start == std::string::npos || end == std::string::npos) continue;
    const std::string word = line.substr(start, end - start);
    if (line[end] == ':') isGlobal = word == "global";
    if (line[end] == ';' && isGlobal) names.insert(word);
  }
  return names;
}

}  // namespace

TEST(AllocationOfExports, EveryNameIsOnTheList) {
  std::set<std::string> listed(std::begin(kMangledExports), std::end(kMangledExports));
  for (const std::span<const Export> module : kExports) {
    for (const Export &e : module) EXPECT_TRUE(listed.insert(e.name).second) << e.name << " stands there twice";
  }
  const std::set<std::string> exported = ExportedNames();
  EXPECT_GT(exported.size(), 500u);
  for (const std::string &name : exported) EXPECT_TRUE(listed.contains(name)) << name << " is not on the list";
  for (const std::string &name : listed) EXPECT_TRUE(exported.contains(name)) << name << " is not exported";
}

namespace {

void ExpectAsksAsListed(const Export &e) {
  if (e.call == nullptr) return;
  if (e.asks == Asks::kNone) {
    Arguments first;
    e.call(first);  // what the C library sets up once is not what is asked for
  }
  // In a process of its own: some leave things behind that others would find.
  sandbox::Process process;
  ASSERT_TRUE(process.Start([&e](sandbox::Channel &) {
    Arguments arguments;
    return FailRequest(1, [&] { e.call(arguments); }) ? 1 : 0;
  }));
  EXPECT_EQ(process.Wait(), e.asks == Asks::kSome ? 1 : 0) << e.name;
}

}  // namespace

TEST(AllocationOfExports, AskForMemoryAsTheListSays) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "alice * user\n", 0640));
  for (const char *directory : {sandbox::kIniDirectory, sandbox::kLogDirectory, kIWSDirectory}) {
    ASSERT_TRUE(sandbox::MakeDirectories(directory));
  }
  KCSFreeMem(KCSGetProcessUser());    // sets up the account databases
  setenv("TZ", "UTC0", 1);            // else the C library allocates the name of its file anew each time
  setenv("PATH", "/nonexistent", 1);  // a service that is controlled here is none of the machine's
  for (const std::span<const Export> module : kExports) {
    for (const Export &e : module) ExpectAsksAsListed(e);
  }
}

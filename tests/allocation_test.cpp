// Memory that runs out: the first, second, ... request fails in turn, the documented result comes each time, and
// nothing leaks. This program's own malloc takes the place of the C library's for the library as well.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "sandbox.h"
#include "zebcs/rolemap.hpp"
#include "zebcs/zebcs.h"

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
}

namespace {

bool isCounting = false;
int requests = 0;        // since counting began
int failingRequest = 0;  // counted from 1; 0 for none
long blocks = 0;         // given out and not returned, while counting

bool MustFail() { return isCounting && ++requests == failingRequest; }

}  // namespace

#pragma GCC visibility push(default)  // the library must find these
extern "C" {

void *malloc(size_t size) {
  if (MustFail()) {
    errno = ENOMEM;
    return nullptr;
  }
  if (isCounting) ++blocks;
  return __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
  if (MustFail()) {
    errno = ENOMEM;
    return nullptr;
  }
  if (isCounting) ++blocks;
  return __libc_calloc(count, size);
}

void *realloc(void *block, size_t size) {
  if (MustFail()) {
    errno = ENOMEM;
    return nullptr;
  }
  if (isCounting && block == nullptr) ++blocks;
  return __libc_realloc(block, size);
}

void free(void *block) {
  if (isCounting && block != nullptr) --blocks;
  __libc_free(block);
}

}  // extern "C"
#pragma GCC visibility pop

namespace {

// Runs `call` with its n-th request for memory failing. Returns whether there was an n-th request.
template <class Call>
bool FailRequest(int n, Call call) {
  requests = 0;
  failingRequest = n;
  isCounting = true;
  call();
  isCounting = false;
  return requests >= n;
}

const ustring kText[] = {'a', 0xE9, 'b', 0};

}  // namespace

TEST(Allocation, SelfSizingStringStaysAsItIsWhenAppendingFails) {
  const std::string longText(3000, 'x');
  std::vector<ustring> longUnits(3000, 'y');
  longUnits.push_back(0);
  int n = 1;
  for (bool failed = true; failed; ++n) {
    KCSSSAStr narrow{};
    KCSSSUStr wide{};
    ASSERT_NE(KCSSSAStrAlloc(&narrow, 16), nullptr);
    ASSERT_NE(KCSSSUStrAlloc(&wide, 16), nullptr);
    KCSSSAStrCatAStr(&narrow, "abc");
    KCSSSUStrCatAStr(&wide, "abc");
    u32 lengths[4] = {};
    failed = FailRequest(n, [&] {
      KCSSSAStrCatAStr(&narrow, longText.c_str());
      lengths[0] = narrow.strCurLen;
      KCSSSAStrCatUStr(&narrow, longUnits.data());
      lengths[1] = narrow.strCurLen;
      KCSSSUStrCatUStr(&wide, longUnits.data());
      lengths[2] = wide.strCurLen;
      KCSSSUStrCatAStr(&wide, longText.c_str());
      lengths[3] = wide.strCurLen;
    });
    // Each append is whole or did not happen.
    EXPECT_TRUE(lengths[0] == 3003 || lengths[0] == 3) << n;
    EXPECT_TRUE(lengths[1] == lengths[0] + 3000 || lengths[1] == lengths[0]) << n;
    EXPECT_TRUE(lengths[2] == 3003 || lengths[2] == 3) << n;
    EXPECT_TRUE(lengths[3] == lengths[2] + 3000 || lengths[3] == lengths[2]) << n;
    EXPECT_EQ(std::strlen(narrow.pStr), narrow.strCurLen);
    EXPECT_EQ(KCSUniStrlen(wide.pStr), wide.strCurLen);
    EXPECT_EQ(std::string(narrow.pStr, 3), "abc");
    KCSSSAStrFree(&narrow);
    KCSSSUStrFree(&wide);
  }
  EXPECT_GT(n, 5) << "nothing was asked for";
}

TEST(Allocation, SelfSizingStringAllocReportsNull) {
  KCSSSAStr narrow{const_cast<char *>("old"), 4, 3};
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSSSAStrAlloc(&narrow, 8), nullptr); }));
  EXPECT_EQ(narrow.pStr, nullptr) << "the result of the allocation is stored even when it is NULL";
  EXPECT_EQ(narrow.strBufSize, 4u);
  EXPECT_EQ(narrow.strCurLen, 3u);
}

TEST(Allocation, UniStrrevLeavesTheTextAlone) {
  ustring text[] = {'a', 'b', 'c', 0};
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSUniStrrev(text), text); }));
  EXPECT_EQ(std::vector<ustring>(text, text + 4), (std::vector<ustring>{'a', 'b', 'c', 0}));
}

TEST(Allocation, BufToUStrAnswersMinusOne) {
  KCSSSUStr dump{};
  ASSERT_NE(KCSSSUStrAlloc(&dump, 2), nullptr);
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSBufToUStr(&dump, "x", 1, 0, nullptr), -1); }));
  EXPECT_EQ(dump.strCurLen, 0u);
  KCSSSUStrFree(&dump);
}

TEST(Allocation, EscapedTextIsNullAndNothingLeaks) {
  int n = 1;
  for (bool failed = true; failed; ++n) {
    blocks = 0;
    astring *text = nullptr;
    failed = FailRequest(n, [&] { text = KCSGetXMLUTF8StrFromUStr(kText, 3); });
    if (failed) {
      EXPECT_EQ(text, nullptr) << n;
      EXPECT_EQ(blocks, 0) << n;
    } else {
      EXPECT_STREQ(text,
                   "a\xC3\xA9"
                   "b");
    }
    KCSFreeMem(text);
  }
  EXPECT_GT(n, 2);
}

TEST(Allocation, AddressListIsNullAndNothingLeaks) {
  sandbox::RequireSandbox();
  int n = 1;
  for (bool failed = true; failed; ++n) {
    blocks = 0;
    u32 count = 7;
    KCSIPAddrStr *list = nullptr;
    failed = FailRequest(n, [&] { list = KCSHostGetHostIPAddrList(&count); });
    EXPECT_EQ(count, 0u) << n;
    if (failed) {
      EXPECT_EQ(blocks, list == nullptr ? 0 : 1) << n;
    }
    KCSFreeMem(list);
  }
  EXPECT_GT(n, 2);
}

TEST(Allocation, ContextLockAndHostNameAreNull) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(KCSAllocContextLock(), nullptr); }));
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(KCSGetHostNameAStr(), nullptr); }));
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(KCSAllocMem(1), nullptr); }));
}

TEST(Allocation, EVPDigestIsZeros) {
  u8 digest[32];
  std::memset(digest, 'x', sizeof digest);
  ASSERT_TRUE(FailRequest(1, [&] { KCSEVPHashForPasswdSalt("password", digest, "00"); }));
  EXPECT_EQ(std::vector<u8>(digest, digest + 32), std::vector<u8>(32, 0));
}

TEST(Allocation, GrantsThatCannotBeMadeAreAnErrorWithoutALine) {
  int n = 1;
  for (bool failed = true; failed; ++n) {
    const std::wstring line(L"a-long-user-name,another-long-name a-long-host-name,another-long-host-name user");
    QXAuthFileRecord record(line, 7);
    blocks = 0;
    std::optional<fileReadErrorCode> code;
    unsigned long lineNumber = 99;
    failed = FailRequest(n, [&] {
      try {
        record.PopulateZEBRoles();
      } catch (const ZEBRoleMapFileReaderException &error) {
        code = error.getErrorCode();
        lineNumber = error.GetLineNumber();
      }
    });
    std::deque<ZEBRole *> roles;
    record.GetRoles(roles);
    if (failed) {
      EXPECT_EQ(code, MEMORY_ALLOCATION_FAILURE) << n;
      EXPECT_EQ(lineNumber, 0u) << n;
      EXPECT_TRUE(roles.empty()) << n;
    } else {
      EXPECT_EQ(roles.size(), 4u);
    }
  }
  EXPECT_GT(n, 8);
}

TEST(Allocation, ReadingStopsWithAnExceptionAndNotAsIfTheFileEnded) {
  sandbox::RequireSandbox();
  // A line longer than the stream's buffer, so that the text of the line has to grow while it is read.
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath,
                                 "alice * user\n# " + std::string(100000, 'x') + "\nalice h administrator\n", 0640));
  // One process for each request: a reader that has met an error stays as it is.
  int n = 1;
  for (bool failed = true; failed; ++n) {
    sandbox::Process process;
    ASSERT_TRUE(process.Start([n](sandbox::Channel &) {
      QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
      reader.Open();
      size_t records = 0;
      bool threw = false;
      const bool wasAsked = FailRequest(n, [&] {
        try {
          records = reader.GetRecords().size();
        } catch (const std::exception &) {
          threw = true;
        }
      });
      if (!wasAsked) return records == 2 ? 10 : 1;
      return threw || records == 2 ? 0 : 2;  // a request that can do without, or an exception; never half a file
    }));
    const int status = process.Wait();
    ASSERT_TRUE(status == 0 || status == 10) << "request " << n << ": " << status;
    failed = status == 0;
  }
  EXPECT_GT(n, 8);
}

TEST(Allocation, NewTextsAreNullAndNothingLeaks) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories("/opt/vorn/fleetops/var/lib/kelvestane/iws"));
  astring *(*const getters[])() = {
      KCSGetZEBInstallPath, KCSGetRootInstallPath, KCSGetProductIniPath,  KCSGetProductVarPath,   KCSGetZEBXSLRootPath,
      KCSGetZEBWWWRootPath, KCSGetZEBUploadPath,   KCSGetZEBDownloadPath, KCSGetZEBWEBDocsPath,   KCSGetZEBCLIDocsPath,
      KCSGetIWSTempDirPath, KCSGetOSLocaleName,    KCSGetOSLanguage,      KCSGetOEMADSchemaPrefix};
  int index = 0;
  for (const auto getter : getters) {
    astring *text = nullptr;
    blocks = 0;
    ASSERT_TRUE(FailRequest(1, [&] { text = getter(); })) << index;
    ++index;
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(blocks, 0);
    text = getter();  // the next call has forgotten it
    EXPECT_NE(text, nullptr);
    KCSFreeMem(text);
  }
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(KCSGetOEMINIPathFile("a", "b", "0"), nullptr); }));
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(KCSGetLocaleNameAStr(1031), nullptr); }));
  astring *joined = nullptr;
  ASSERT_TRUE(FailRequest(1, [&] { KCSAppendDNode("a", "b", &joined); }));
  EXPECT_EQ(joined, nullptr);
}

TEST(Allocation, StrrevLeavesTheTextAlone) {
  char text[] = "abc";
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(strrev(text), text); }));
  EXPECT_STREQ(text, "abc");
}

TEST(Allocation, WideNumberThatCannotBeNarrowedIsZero) {
  std::vector<ustring> digits(200, '0');
  digits[198] = '7';
  digits[199] = 0;
  EXPECT_EQ(KCSUniToSigned32(digits.data()), 7);
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSUniToSigned32(digits.data()), 0); }));
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSUniToUnSigned64(digits.data()), 0u); }));
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSUniToDouble(digits.data()), 0.0); }));
}

TEST(Allocation, XMLBufferIsNullOrWhole) {
  int n = 1;
  for (bool failed = true; failed; ++n) {
    blocks = 0;
    KCSSSAStr *buffer = nullptr;
    failed = FailRequest(n, [&] { buffer = KCXAllocBuf(100, 0); });
    EXPECT_EQ(buffer == nullptr, failed) << n;
    if (failed) {
      EXPECT_EQ(blocks, 0) << n;
    }
    KCXFreeBuf(buffer, 0);
  }
  EXPECT_EQ(n, 4);
}

TEST(Allocation, NodeThatDoesNotFitIsLeftOut) {
  const std::string longText(3000, '<');
  std::vector<ustring> longUnits(3000, '<');
  longUnits.push_back(0);
  const struct {
    u32 valType;
    const void *pVal;
    u32 passes;
  } cases[] = {{KCX_ASTRING, longText.c_str(), 0},
               {KCX_ASTRING_ESCAPED, longText.c_str(), 0},
               {KCX_ASTRING_ESCAPED, longText.c_str(), 3},
               {KCX_USTRING_ESCAPED, longUnits.data(), 1}};
  for (const auto &c : cases) {
    int n = 1;
    for (bool failed = true; failed; ++n) {
      KCSSSAStr *const buffer = KCXAllocBuf(64, 0);
      ASSERT_NE(buffer, nullptr);
      KCXBufCatBeginNode(buffer, "x", nullptr);
      s32 status = -1;
      blocks = 0;
      failed = FailRequest(n, [&] { status = KCXBufCatNodeT(buffer, "n", nullptr, c.valType, c.pVal, c.passes); });
      if (failed) {
        EXPECT_STREQ(buffer->pStr, "<x>") << c.valType << ' ' << n;
        EXPECT_TRUE(status == SM_STATUS_NO_MEMORY || status == SM_STATUS_SUCCESS) << status;
        EXPECT_EQ(blocks, 0);
      } else {
        EXPECT_EQ(status, SM_STATUS_SUCCESS);
        EXPECT_GT(buffer->strCurLen, 3000u);
      }
      KCXFreeBuf(buffer, 0);
    }
    EXPECT_GT(n, 2);
  }
}

TEST(Allocation, ValueTextsAreNullWithTheReason) {
  setenv("TZ", "UTC0", 1);  // else the C library allocates the name of its file anew each time
  const s32 number = 5;
  const d64 fraction = 1.5;
  const s64 time = 1000000;
  const struct {
    u32 valType;
    const void *pVal;
  } cases[] = {{KCX_ASTRING, "text"}, {KCX_BOOLN, &number}, {KCX_S32, &number},
               {KCX_D64, &fraction},  {KCX_TIME, &time},    {KCX_ASTRING_ESCAPED, "<"}};
  for (const auto &[valType, pVal] : cases) {
    KCSFreeMem(KCSDASXValToASCII(valType, pVal));  // what the C library sets up once is not what fails
    astring *text = nullptr;
    blocks = 0;
    ASSERT_TRUE(FailRequest(1, [&, type = valType, p = pVal] { text = KCSDASXValToASCII(type, p); }));
    EXPECT_EQ(text, nullptr) << valType;
    EXPECT_EQ(blocks, 0);
  }
  const ustring wide[] = {'a', 0};
  s32 status = 0;
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSDASUstrToAstr(wide, &status), nullptr); }));
  EXPECT_EQ(status, SM_STATUS_NO_MEMORY);
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSDASAstrToUstr("a", &status), nullptr); }));
  EXPECT_EQ(status, SM_STATUS_NO_MEMORY);
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSDASAstrToUstrD(nullptr, wide, &status), nullptr); }));
  EXPECT_EQ(status, SM_STATUS_NO_MEMORY);
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSDASUstrToAstrD(nullptr, "a", &status), nullptr); }));
  EXPECT_EQ(status, SM_STATUS_NO_MEMORY);
}

TEST(Allocation, SetCommandParameterIsWholeOrReported) {
  const std::string longName(1000, 'n');
  const s32 values[] = {1, 2, 3};
  int n = 1;
  for (bool failed = true; failed; ++n) {
    KCSSSAStr *const buffer = KCXAllocBuf(4000, 0);
    ASSERT_NE(buffer, nullptr);
    s32 status = -1;
    blocks = 0;
    failed = FailRequest(n, [&] {
      status = KCSDASBufCatSetCmdParam(buffer, longName.c_str(), &values[0], &values[1], &values[2], KCX_S32);
    });
    EXPECT_EQ(status, failed ? SM_STATUS_NO_MEMORY : SM_STATUS_SUCCESS) << n;
    EXPECT_EQ(std::string(buffer->pStr),
              failed ? "" : "<Parameter name=\"" + longName + "\" oldval=\"1\" newval=\"2\" value=\"3\"/>");
    EXPECT_EQ(blocks, 0);
    KCXFreeBuf(buffer, 0);
  }
  EXPECT_GT(n, 5);
}

TEST(Allocation, StatusNodeGoesWithoutAMessageThatDoesNotFit) {
  const std::string longMessage(1000, 'm');
  for (int n = 1; n <= 2; ++n) {
    KCSSSAStr *const buffer = KCXAllocBuf(4000, 0);
    ASSERT_NE(buffer, nullptr);
    ASSERT_TRUE(FailRequest(n, [&] { KCSDASCatSMStatusNode(buffer, 5, longMessage.c_str()); })) << n;
    EXPECT_STREQ(buffer->pStr, "<SMStatus>5</SMStatus>");
    KCXFreeBuf(buffer, 0);
  }
}

TEST(Allocation, TheINIStoreAsksForNone) {
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  astring value[100];
  u32 size = sizeof value;
  s32 statuses[3] = {-1, -1, -1};
  EXPECT_FALSE(FailRequest(1, [&] {
    statuses[0] = KCSWriteINIPathFileValue("s", "k", ZEBCS_INI_ASTRING, "v", 2, path.c_str(), 1);
    statuses[1] = KCSWriteINIPathFileValue("s", "k", ZEBCS_INI_ASTRING, "w", 2, path.c_str(), 1);
    statuses[2] = KCSReadINIPathFileValue("s", "k", ZEBCS_INI_ASTRING, value, &size, nullptr, 0, path.c_str(), 1);
  }));
  EXPECT_EQ(std::vector<s32>(statuses, statuses + 3), (std::vector<s32>{0, 0, 0}));
  EXPECT_STREQ(value, "w");
}

TEST(Allocation, ListsAndEntriesAreNullAndNothingLeaks) {
  for (int n = 1; n <= 2; ++n) {  // the record and its lock
    blocks = 0;
    ASSERT_TRUE(FailRequest(n, [] { EXPECT_EQ(KCSSLListAlloc(), nullptr); })) << n;
    ASSERT_TRUE(FailRequest(n, [] { EXPECT_EQ(KCSDLListAlloc(), nullptr); })) << n;
    EXPECT_EQ(blocks, 0) << n;
  }
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(KCSSLListEntryAlloc(8), nullptr); }));
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(KCSDLListEntryAlloc(8), nullptr); }));
}

TEST(Allocation, LibraryIsNotLoadedWithoutACopyOfItsPath) {
  KCSLibrary library = {};
  blocks = 0;
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSLibLoad(&library, "libm.so.6"), -1); }));
  EXPECT_EQ(library.pLibPathFileName, nullptr);
  EXPECT_EQ(library.hLib, nullptr);
  EXPECT_EQ(blocks, 0);
}

TEST(Allocation, StylesheetIsNullAndNothingLeaks) {
  sandbox::RequireSandbox();
  const std::string root = "/opt/vorn/fleetops/var/lib/kelvestane/xslroot//app";
  ASSERT_TRUE(sandbox::MakeDirectories(root + "/template/html"));
  ASSERT_TRUE(sandbox::WriteFile(root + "/template/html/with.xsl", ""));
  for (const char *name : {"with.xsl", "without.xsl"}) {
    int n = 1;
    for (bool failed = true; failed; ++n) {
      blocks = 0;
      astring *text = nullptr;
      failed = FailRequest(n, [&] { text = KCSGetXSLPathLocale("app", "html", name, "de", 14, 0); });
      EXPECT_EQ(text == nullptr, failed) << name << ", " << n;
      EXPECT_EQ(blocks, failed ? 0 : 1) << name << ", " << n;
      KCSFreeMem(text);
    }
    EXPECT_GT(n, 2) << name;
  }
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(ConvertPathToURI("a b"), nullptr); }));
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(SIGetXSLPath("a", "b", "c", nullptr, 0, 0), nullptr); }));
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(SIGetXSLPathLocalePermutate("a", "b", "c", "de", 0, 0), nullptr); }));
}

TEST(Allocation, StringResourcesAskForNone) {
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("texts");
  ASSERT_TRUE(sandbox::WriteFile(path, std::string("\xFF\xFE"
                                                   "0\0:\0"
                                                   "1\0=\0a\0\r\0\n\0",
                                                   16)));
  ustring text[8];
  u32 size = sizeof text;
  EXPECT_FALSE(
      FailRequest(1, [&] { EXPECT_EQ(GetUnicodeStringFromIDPathFile(1, nullptr, path.c_str(), text, &size), 4u); }));
  EXPECT_EQ(text[0], 'a');
}

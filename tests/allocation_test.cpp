// Memory that runs out: the first, second, ... request fails in turn, the documented result comes each time, and
// nothing leaks.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "failing_malloc.h"
#include "sandbox.h"
#include "shared_file.h"
#include "zebcs/rolemap.hpp"
#include "zebcs/zebcs.h"

namespace {

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
    l_memory.blocks = 0;
    astring *text = nullptr;
    failed = FailRequest(n, [&] { text = KCSGetXMLUTF8StrFromUStr(kText, 3); });
    if (failed) {
      EXPECT_EQ(text, nullptr) << n;
      EXPECT_EQ(l_memory.blocks, 0) << n;
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
    l_memory.blocks = 0;
    u32 count = 7;
    KCSIPAddrStr *list = nullptr;
    failed = FailRequest(n, [&] { list = KCSHostGetHostIPAddrList(&count); });
    EXPECT_EQ(count, 0u) << n;
    if (failed) {
      EXPECT_EQ(l_memory.blocks, list == nullptr ? 0 : 1) << n;
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
    l_memory.blocks = 0;
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
    l_memory.blocks = 0;
    ASSERT_TRUE(FailRequest(1, [&] { text = getter(); })) << index;
    ++index;
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(l_memory.blocks, 0);
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
    l_memory.blocks = 0;
    KCSSSAStr *buffer = nullptr;
    failed = FailRequest(n, [&] { buffer = KCXAllocBuf(100, 0); });
    EXPECT_EQ(buffer == nullptr, failed) << n;
    if (failed) {
      EXPECT_EQ(l_memory.blocks, 0) << n;
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
      l_memory.blocks = 0;
      failed = FailRequest(n, [&] { status = KCXBufCatNodeT(buffer, "n", nullptr, c.valType, c.pVal, c.passes); });
      if (failed) {
        EXPECT_STREQ(buffer->pStr, "<x>") << c.valType << ' ' << n;
        EXPECT_TRUE(status == SM_STATUS_NO_MEMORY || status == SM_STATUS_SUCCESS) << status;
        EXPECT_EQ(l_memory.blocks, 0);
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
    l_memory.blocks = 0;
    ASSERT_TRUE(FailRequest(1, [&, type = valType, p = pVal] { text = KCSDASXValToASCII(type, p); }));
    EXPECT_EQ(text, nullptr) << valType;
    EXPECT_EQ(l_memory.blocks, 0);
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
    l_memory.blocks = 0;
    failed = FailRequest(n, [&] {
      status = KCSDASBufCatSetCmdParam(buffer, longName.c_str(), &values[0], &values[1], &values[2], KCX_S32);
    });
    EXPECT_EQ(status, failed ? SM_STATUS_NO_MEMORY : SM_STATUS_SUCCESS) << n;
    EXPECT_EQ(std::string(buffer->pStr),
              failed ? "" : "<Parameter name=\"" + longName + "\" oldval=\"1\" newval=\"2\" value=\"3\"/>");
    EXPECT_EQ(l_memory.blocks, 0);
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
    l_memory.blocks = 0;
    ASSERT_TRUE(FailRequest(n, [] { EXPECT_EQ(KCSSLListAlloc(), nullptr); })) << n;
    ASSERT_TRUE(FailRequest(n, [] { EXPECT_EQ(KCSDLListAlloc(), nullptr); })) << n;
    EXPECT_EQ(l_memory.blocks, 0) << n;
  }
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(KCSSLListEntryAlloc(8), nullptr); }));
  ASSERT_TRUE(FailRequest(1, [] { EXPECT_EQ(KCSDLListEntryAlloc(8), nullptr); }));
}

TEST(Allocation, LibraryIsNotLoadedWithoutACopyOfItsPath) {
  KCSLibrary library = {};
  l_memory.blocks = 0;
  ASSERT_TRUE(FailRequest(1, [&] { EXPECT_EQ(KCSLibLoad(&library, "libm.so.6"), -1); }));
  EXPECT_EQ(library.pLibPathFileName, nullptr);
  EXPECT_EQ(library.hLib, nullptr);
  EXPECT_EQ(l_memory.blocks, 0);
}

TEST(Allocation, StylesheetIsNullAndNothingLeaks) {
  sandbox::RequireSandbox();
  const std::string root = "/opt/vorn/fleetops/var/lib/kelvestane/xslroot//app";
  ASSERT_TRUE(sandbox::MakeDirectories(root + "/template/html"));
  ASSERT_TRUE(sandbox::WriteFile(root + "/template/html/with.xsl", ""));
  for (const char *name : {"with.xsl", "without.xsl"}) {
    int n = 1;
    for (bool failed = true; failed; ++n) {
      l_memory.blocks = 0;
      astring *text = nullptr;
      failed = FailRequest(n, [&] { text = KCSGetXSLPathLocale("app", "html", name, "de", 14, 0); });
      EXPECT_EQ(text == nullptr, failed) << name << ", " << n;
      EXPECT_EQ(l_memory.blocks, failed ? 0 : 1) << name << ", " << n;
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

// --- What the C library and others ask for ---------------------------------------------------------------------------

TEST(Allocation, DigestIsRightOrZeros) {
  u8 right[32];
  KCSEVPHashForPasswdSalt("password", right, "00");  // sets libcrypto up
  u8 digest[32];
  const int requests = WalkRequests([&] { std::memset(digest, 'x', sizeof digest); },
                                    [&] { KCSEVPHashForPasswdSalt("password", digest, "00"); },
                                    [&](bool failed) {
                                      const std::vector<u8> got(digest, digest + 32);
                                      if (!failed || got != std::vector<u8>(32, 0)) {
                                        EXPECT_EQ(got, std::vector<u8>(right, right + 32));
                                      }
                                      return l_memory.blocks;  // libcrypto keeps its last errors
                                    });
  EXPECT_GE(requests, 1);
  for (int n = 1; n <= requests; ++n) {
    constexpr int kCalls = 200;
    long kept = 0;
    for (int i = 0; i < kCalls; ++i) {
      l_memory.blocks = 0;
      FailRequest(n, [&] { KCSEVPHashForPasswdSalt("password", digest, "00"); });
      kept += l_memory.blocks;
    }
    EXPECT_LT(kept, kCalls / 2) << n;
  }
}

TEST(Allocation, AddressesCannotBeListed) {
  sandbox::RequireSandbox();
  u32 right = 0;
  ASSERT_EQ(KCSGetIPAddrStrList(nullptr, &right, nullptr), SM_STATUS_SUCCESS);
  u32 count = 0;
  s32 status = -99;
  const int requests =
      WalkRequests([&] { count = 99; }, [&] { status = KCSGetIPAddrStrList(nullptr, &count, nullptr); },
                   [&](bool failed) {
                     EXPECT_EQ(status, failed ? -1 : SM_STATUS_SUCCESS);
                     EXPECT_EQ(count, failed ? 0 : right);
                     return 0;
                   });
  EXPECT_GE(requests, 1);
}

TEST(Allocation, EveryWideNumberThatCannotBeNarrowedIsZero) {
  std::vector<ustring> digits(300, '0');
  digits[298] = '7';
  digits[299] = 0;
  s64 sum = 0;
  for (int i = 0; i < 5; ++i) {
    const int requests = WalkRequests([] {},
                                      [&] {
                                        switch (i) {
                                          case 0: sum = KCSUniToSigned32(digits.data()); break;
                                          case 1: sum = KCSUniToUnSigned32(digits.data()); break;
                                          case 2: sum = KCSUniToSigned64(digits.data()); break;
                                          case 3: sum = static_cast<s64>(KCSUniToUnSigned64(digits.data())); break;
                                          default: sum = static_cast<s64>(KCSUniToDouble(digits.data()));
                                        }
                                      },
                                      [&](bool failed) {
                                        EXPECT_EQ(sum, failed ? 0 : 7) << i;
                                        return 0;
                                      });
    EXPECT_GE(requests, 1) << i;
  }
}

TEST(Allocation, ThreadIsStartedOrReported) {
  KCSThreadInfo thread = {};
  s32 status = -99;
  int hasRun = 0;
  const int requests = WalkRequests([&] { hasRun = 0; },
                                    [&] {
                                      status = KCSThreadStart(
                                          &thread, [](void *data) { *static_cast<int *>(data) = 1; }, &hasRun);
                                    },
                                    [&](bool failed) {
                                      EXPECT_TRUE(status == 0 || (failed && status == -1)) << status;
                                      if (status == 0) {
                                        EXPECT_EQ(KCSThreadStop(&thread), 0);
                                      }
                                      EXPECT_EQ(hasRun, status == 0 ? 1 : 0);
                                      return l_memory.blocks;  // the C library keeps the thread's
                                    });
  EXPECT_GE(requests, 1);
}

TEST(Allocation, LibraryIsLoadedOrItsRecordIsEmpty) {
  KCSLibrary library = {};
  s32 status = -99;
  const int requests =
      WalkRequests([] {}, [&] { status = KCSLibLoad(&library, "libanl.so.1"); },
                   [&](bool failed) {
                     EXPECT_TRUE(status == 0 || (failed && (status == -1 || status == SM_STATUS_FAILED))) << status;
                     EXPECT_EQ(library.hLib == nullptr, status != 0);
                     EXPECT_EQ(library.pLibPathFileName == nullptr, status != 0);
                     if (status == 0) {
                       EXPECT_EQ(KCSLibUnLoad(&library), 0);
                     }
                     return l_memory.blocks;  // the loader keeps its last error
                   });
  EXPECT_GT(requests, 3);
  ASSERT_EQ(KCSLibLoad(&library, "libm.so.6"), 0);
  void *address = &library;
  WalkRequests([] {}, [&] { address = KCSLibLinkToExportFN(&library, "no such function"); },
               [&](bool) {
                 EXPECT_EQ(address, nullptr);
                 return l_memory.blocks;  // likewise
               });
  EXPECT_EQ(KCSLibUnLoad(&library), 0);
}

namespace {

astring *AnswerHelp(s32, astring **) {
  astring *const text = static_cast<astring *>(KCSAllocMem(2001));
  if (text != nullptr) {
    std::memset(text, 'h', 2000);
    text[2000] = 0;
  }
  return text;
}

constexpr size_t kHelpSize = 4097;

astring *AskForHelp() {
  static astring name[] = "command";
  static const CmdDispatchTable table[] = {{name, AnswerHelp}, {name, AnswerHelp}};
  return KCSDASCMDHelp(0, nullptr, table, 2, [](s32, astring **) -> astring * { return nullptr; });
}

}  // namespace

TEST(Allocation, CommandHelpIsNullOrMadeOfWholeNodes) {
  const std::string answer(2000, 'h');
  const std::vector<std::string> nodes = {"<zebcmd val=\"command\">" + answer + "</zebcmd>",
                                          "<zebcmd>" + answer + "</zebcmd>",  // without memory for the name
                                          "<CLICmdHelp count=\"1\">", "</CLICmdHelp>"};
  astring *help = nullptr;
  const int requests = WalkRequests([] {}, [&] { help = AskForHelp(); },
                                    [&](bool failed) {
                                      std::string rest = help == nullptr ? "" : help;
                                      for (const std::string &node : nodes) {
                                        for (size_t at = 0; (at = rest.find(node)) != rest.npos;) {
                                          rest.erase(at, node.size());
                                        }
                                      }
                                      EXPECT_EQ(rest, "");
                                      EXPECT_TRUE(failed || std::string(help).size() == kHelpSize);
                                      KCSFreeMem(help);
                                      return help == nullptr ? 0 : 1;
                                    });
  EXPECT_GT(requests, 4);
}

TEST(Allocation, CommandHelpThatIsCutForWantOfMemoryIsNotHandedOut) {
  astring *help = nullptr;
  WalkRequests([] {}, [&] { help = AskForHelp(); },
               [&](bool) {
                 const std::string got = help == nullptr ? "" : help;
                 EXPECT_TRUE(got.empty() || got.ends_with("</CLICmdHelp>")) << got.substr(0, 50);
                 KCSFreeMem(help);
                 return help == nullptr ? 0 : 1;
               });
}

// --- Attaching -------------------------------------------------------------------------------------------------------

// A second copy of the library, which could not attach when it was loaded, attaches with too little memory.
TEST(Allocation, AttachingWorksOrCanBeTriedAgain) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories(sandbox::kIniDirectory));
  ASSERT_TRUE(sandbox::WriteFile(std::string(sandbox::kIniDirectory) + "/zeb.properties",
                                 "preferences.system.cmdlogmaxsize=3000000\n"));
  const sandbox::TemporaryDirectory directory;
  const std::string copy = directory.Path("copy.so");
  Dl_info info = {};
  ASSERT_NE(dladdr(dlsym(RTLD_DEFAULT, "KCSAllocMem"), &info), 0);
  ASSERT_TRUE(sandbox::WriteFile(copy, sandbox::ReadFile(info.dli_fname), 0755));
  bool failed = true;
  int n = 1;
  for (; failed; ++n) {
    sandbox::Process process;
    ASSERT_TRUE(process.Start([&](sandbox::Channel &) {
      const std::string aside = std::string(sandbox::kLockDirectory) + "-aside";
      EXPECT_EQ(std::rename(sandbox::kLockDirectory, aside.c_str()), 0);
      void *const library = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
      EXPECT_EQ(std::rename(aside.c_str(), sandbox::kLockDirectory), 0);
      if (library == nullptr) return 2;
      const auto attach = reinterpret_cast<decltype(&ModuleAttach)>(dlsym(library, "ModuleAttach"));
      const auto lock = reinterpret_cast<decltype(&FileLock)>(dlsym(library, "FileLock"));
      const auto detach = reinterpret_cast<decltype(&ModuleDetach)>(dlsym(library, "ModuleDetach"));
      EXPECT_EQ(lock(0), 0) << "attached when it was loaded";
      const std::set<std::string> descriptors = OpenDescriptors();
      booln attached = 0;
      const bool hasFailed = FailRequest(n, [&] { attached = attach(); });
      EXPECT_TRUE(attached == 1 || hasFailed);
      if (attached == 0) {
        EXPECT_EQ(OpenDescriptors(), descriptors);
        EXPECT_EQ(attach(), 1);
      }
      EXPECT_TRUE(sandbox::LockIsFree());
      EXPECT_EQ(lock(0), 1);
      EXPECT_EQ(detach(), 1);
      return hasFailed ? 1 : 0;
    }));
    const int status = process.Wait();
    ASSERT_TRUE(status == 0 || status == 1) << n << ": " << status;
    failed = status == 1;
  }
  EXPECT_GT(n, 5);
}

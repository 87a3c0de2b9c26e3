// Memory that runs out while files are read and written: settings and logs. What there was on the disk stays whole,
// nothing is left beside it, and the lock is free afterwards.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "failing_malloc.h"
#include "sandbox.h"
#include "shared_file.h"
#include "zebcs/zebcs.h"

namespace {

using sandbox::Files;
using sandbox::FilesIn;

constexpr const char *kCommandLog = "/opt/vorn/fleetops/var/log/kelvestane/qxcmdlog.xml";
constexpr const char *kCommandLogBackup = "/opt/vorn/fleetops/var/log/kelvestane/qxcmdlog.xm_";

// A log without what differs from one second to the next.
std::string WithoutTimes(const std::string &log) {
  static const std::regex kTimes("<TimeStamp>[0-9]+</TimeStamp><DateTime>[^<]*</DateTime>");
  return std::regex_replace(log, kTimes, "");
}

Files LogsIn(const std::string &directory) {
  Files files = FilesIn(directory);
  for (auto &file : files) file.second = WithoutTimes(file.second);
  return files;
}

// More pairs than a table starts with.
std::string ManyPairs() {
  std::string text;
  for (int i = 0; i < 40; ++i) text += "key" + std::to_string(i) + "=value\n";
  return text;
}

// Time zone and locale of the C library are set up once, which is not what is walked.
void PrepareSandbox() {
  sandbox::RequireSandbox();
  setenv("TZ", "UTC0", 1);
  (void)sandbox::FilesIn("/proc/self/fd");
  const time_t now = 1000000;
  astring text[26];
  ASSERT_EQ(TimeToAStr(text, &now), 0);
}

}  // namespace

// --- Key=value files -------------------------------------------------------------------------------------------------

TEST(AllocationOfFiles, KeyValueTableIsNullAndNothingLeaks) {
  PrepareSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories("/opt/vorn/fleetops/etc/kelvestane"));
  const std::string path = "/opt/vorn/fleetops/etc/kelvestane/many.cfg";
  ASSERT_TRUE(sandbox::WriteFile(path, ManyPairs()));
  for (const bool isInProduct : {false, true}) {
    KCSKVEntry *table = nullptr;
    u32 count = 0;
    const auto prepare = [&] { count = 99; };
    const auto call = [&] {
      table = isInProduct ? KCSCFGInstGetKeyValueEntries("many.cfg", &count)
                          : KCSCFGGetKeyValueEntries(path.c_str(), &count);
    };
    const int requests = WalkRequests(prepare, call, [&](bool failed) {
      EXPECT_EQ(table == nullptr, failed);
      EXPECT_EQ(count, failed ? 0u : 40u);
      EXPECT_TRUE(sandbox::LockIsFree());
      if (!failed) {
        EXPECT_STREQ(KCSCFGGetKeyValue(table, count, "key39", 0), "value");
      }
      KCSCFGFreeKeyValueEntries(table, count);
      return failed ? 0 : 81;
    });
    EXPECT_GT(requests, 81);
  }
}

TEST(AllocationOfFiles, KeyValueEntriesAreReleasedAgain) {
  PrepareSandbox();
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\nb=2\nc=3\n"));
  std::vector<KCSKVEntry> table;
  u32 count = 0;
  s32 status = -99;
  const auto prepare = [&] {
    table.assign(4, KCSKVEntry{});
    count = 3;
  };
  const int requests = WalkRequests(
      prepare, [&] { status = PopulateKeyValueEntries(path.c_str(), table.data(), &count); },
      [&](bool failed) {
        EXPECT_EQ(status, failed ? SM_STATUS_NO_MEMORY : SM_STATUS_SUCCESS);
        EXPECT_EQ(count, 3u);
        EXPECT_TRUE(sandbox::LockIsFree());
        for (size_t i = 0; i < table.size(); ++i) {
          EXPECT_EQ(table[i].pKey == nullptr, failed || i == 3) << i;
          EXPECT_EQ(table[i].pValue == nullptr, failed || i == 3) << i;
          std::free(table[i].pKey);
          std::free(table[i].pValue);
        }
        return failed ? 0 : 6;
      });
  EXPECT_EQ(requests, 6);
}

TEST(AllocationOfFiles, KeyValueFileKeepsItsOldContent) {
  PrepareSandbox();
  const std::string directory = "/opt/vorn/fleetops/etc/kelvestane";
  ASSERT_TRUE(sandbox::MakeDirectories(directory));
  const std::string path = directory + "/a.cfg";
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\nb=2\n"));
  const Files before = FilesIn(directory);
  astring key[] = "b";
  astring value[] = "3";
  const KCSKVEntry entry = {key, value};
  s32 status = -99;
  const int requests = WalkRequests([&] { ASSERT_TRUE(sandbox::WriteFile(path, "a=1\nb=2\n")); },
                                    [&] { status = KCSCFGInstSetKeyValue("a.cfg", &entry, 0); },
                                    [&](bool failed) {
                                      EXPECT_EQ(status, failed ? SM_STATUS_PATH_UNAVAILABLE : SM_STATUS_SUCCESS);
                                      Files after = before;
                                      if (!failed) after["a.cfg"] = "a=1\nb=3\n";
                                      EXPECT_EQ(FilesIn(directory), after);
                                      EXPECT_TRUE(sandbox::LockIsFree());
                                      return 0;
                                    });
  EXPECT_EQ(requests, 1);
}

// --- INI files -------------------------------------------------------------------------------------------------------

TEST(AllocationOfFiles, SchemaPrefixIsNullOrWhatTheFileSays) {
  PrepareSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories(sandbox::kIniDirectory));
  ASSERT_TRUE(sandbox::WriteFile(std::string(sandbox::kIniDirectory) + "/oem.ini", "[data]\nadschemaprefix=other\n"));
  astring *prefix = nullptr;
  const int requests = WalkRequests([] {}, [&] { prefix = KCSGetOEMADSchemaPrefix(); },
                                    [&](bool failed) {
                                      EXPECT_STREQ(prefix, failed ? nullptr : "other");
                                      EXPECT_TRUE(sandbox::LockIsFree());
                                      KCSFreeMem(prefix);
                                      return failed ? 0 : 1;
                                    });
  EXPECT_EQ(requests, 1);
}

// A stream that has no buffer yet gets one at its first use, or does without.
TEST(AllocationOfFiles, LineOfAStringResourceDoesNotNeedABuffer) {
  PrepareSandbox();
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("texts");
  ASSERT_TRUE(sandbox::WriteFile(path, std::string("a\0b\0\r\0\n\0", 8)));
  FILE *stream = nullptr;
  ustring line[8];
  s32 size = 0;
  const int requests = WalkRequests(
      [&] {
        stream = std::fopen(path.c_str(), "rb");
        ASSERT_NE(stream, nullptr);
        std::memset(line, 0, sizeof line);
      },
      [&] {
        size = GetStreamFileSize(stream);
        (void)dc_fgetws(line, 8, stream);
      },
      [&](bool) {
        EXPECT_EQ(size, 8);
        EXPECT_EQ(std::vector<ustring>(line, line + 5), (std::vector<ustring>{'a', 'b', '\r', '\n', 0}));
        EXPECT_EQ(std::fclose(stream), 0);
        return l_memory.blocks;  // the stream's buffer
      });
  EXPECT_GE(requests, 1);
}

// --- Event logs ------------------------------------------------------------------------------------------------------

namespace {

const std::string kDescription(3000, 'd');
const std::vector<u8> kData(1000, 0x5A);

// An entry that needs more room than it starts with, and takes every step.
s32 AppendLargeEntry(const std::string &path, u32 maxSize) {
  return KCSAppendToXMLLog(path.c_str(), 2, 77, "a <user>", "a \"source\"", kDescription.c_str(), kData.data(),
                           static_cast<u32>(kData.size()), maxSize);
}

constexpr u32 kLargeSize = 1000000;

}  // namespace

TEST(AllocationOfFiles, EntryIsWholeOrTheLogIsAsItWas) {
  PrepareSandbox();
  const sandbox::TemporaryDirectory directory;
  const std::string inner = directory.Path("logs");
  const std::string path = inner + "/a.log";
  // What is there before the entry: no directory, no log, a log, one that is large enough to be moved.
  for (const char *what : {"no directory", "no log", "a log", "a full log"}) {
    SCOPED_TRACE(what);
    const bool hasDirectory = std::strcmp(what, "no directory") != 0;
    const bool hasLog = hasDirectory && std::strcmp(what, "no log") != 0;
    const u32 maxSize = std::strcmp(what, "a full log") == 0 ? 100 : kLargeSize;
    const auto prepare = [&] {
      ASSERT_TRUE(sandbox::RemoveTree(inner));
      if (hasDirectory) {
        ASSERT_TRUE(sandbox::MakeDirectories(inner));
      }
      if (hasLog) {
        ASSERT_EQ(KCSAppendToXMLLog(path.c_str(), 4, 1, "u", "s", "d", nullptr, 0, kLargeSize), 0);
      }
    };
    prepare();
    const Files before = hasDirectory ? LogsIn(inner) : Files();
    ASSERT_EQ(AppendLargeEntry(path, maxSize), SM_STATUS_SUCCESS);
    const Files after = LogsIn(inner);
    ASSERT_EQ(after.size(), maxSize == 100 ? 2u : 1u);
    // The line "Log backup created" can do without, as it matters less than the entry.
    Files withoutBackupEntry = after;
    std::string &log = withoutBackupEntry["a.log"];
    const size_t first = log.find("<LogEntry>");
    const size_t second = log.find("<LogEntry>", first + 1);
    if (maxSize == 100) {
      ASSERT_NE(log.find("Log backup created"), std::string::npos);
      log.erase(first, second - first);
    }
    s32 status = -99;
    const int requests = WalkRequests(
        prepare, [&] { status = AppendLargeEntry(path, maxSize); },
        [&](bool failed) {
          const Files now = std::filesystem::exists(inner) ? LogsIn(inner) : Files();
          EXPECT_TRUE(status == SM_STATUS_SUCCESS || (failed && status == -1)) << status;
          if (status != SM_STATUS_SUCCESS) {
            EXPECT_EQ(now, before);
          } else if (!failed || now != withoutBackupEntry) {
            EXPECT_EQ(now, after);
          }
          EXPECT_TRUE(sandbox::LockIsFree());
          return 0;
        });
    EXPECT_GT(requests, 5);
  }
}

// What follows the end tag has to be read before it is written over.
TEST(AllocationOfFiles, LogWithTextBehindItsEndTagIsAsItWas) {
  PrepareSandbox();
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("a.log");
  ASSERT_EQ(KCSAppendToXMLLog(path.c_str(), 4, 1, "u", "s", "d", nullptr, 0, kLargeSize), 0);
  const std::string before = sandbox::ReadFile(path) + "behind";
  s32 status = -99;
  const int requests = WalkRequests([&] { ASSERT_TRUE(sandbox::WriteFile(path, before, 0644)); },
                                    [&] { status = AppendLargeEntry(path, kLargeSize); },
                                    [&](bool failed) {
                                      EXPECT_EQ(status == SM_STATUS_SUCCESS, !failed) << status;
                                      EXPECT_EQ(sandbox::ReadFile(path) == before, failed);
                                      EXPECT_TRUE(sandbox::LockIsFree());
                                      return 0;
                                    });
  EXPECT_GT(requests, 5);
}

TEST(AllocationOfFiles, LogWithTextBehindItsEndTagReportsWantOfMemoryAsSuch) {
  PrepareSandbox();
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("a.log");
  ASSERT_EQ(KCSAppendToXMLLog(path.c_str(), 4, 1, "u", "s", "d", nullptr, 0, kLargeSize), 0);
  const std::string before = sandbox::ReadFile(path) + "behind";
  s32 status = -99;
  WalkRequests([&] { ASSERT_TRUE(sandbox::WriteFile(path, before, 0644)); },
               [&] { status = AppendLargeEntry(path, kLargeSize); },
               [&](bool failed) {
                 EXPECT_EQ(status, failed ? -1 : SM_STATUS_SUCCESS);
                 return 0;
               });
}

TEST(AllocationOfFiles, ClearedLogIsNewOrGoneAndForcedOneIsNewOrMissing) {
  PrepareSandbox();
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("a.log");
  const std::string user(1000, '<');
  ASSERT_EQ(KCSForceXMLLogExists(path.c_str(), user.c_str(), "s"), 0);
  const Files started = LogsIn(directory.path());
  for (const bool clears : {true, false}) {
    s32 status = -99;
    const auto prepare = [&] {
      ASSERT_TRUE(sandbox::RemoveTree(path));
      if (clears) {
        ASSERT_EQ(KCSAppendToXMLLog(path.c_str(), 4, 1, "u", "s", "d", nullptr, 0, kLargeSize), 0);
      }
    };
    const auto call = [&] {
      status = clears ? KCSClearXMLLog(path.c_str(), user.c_str(), "s")
                      : KCSForceXMLLogExists(path.c_str(), user.c_str(), "s");
    };
    const int requests = WalkRequests(prepare, call, [&](bool failed) {
      EXPECT_EQ(status, failed ? -1 : SM_STATUS_SUCCESS);
      EXPECT_EQ(LogsIn(directory.path()), failed ? Files() : started);
      EXPECT_TRUE(sandbox::LockIsFree());
      return 0;
    });
    EXPECT_GT(requests, 2);
  }
}

TEST(AllocationOfFiles, RepairIsDoneOrTheLogIsAsItWas) {
  PrepareSandbox();
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("a.log");
  const std::string broken = "<EventLog><LogEntry>1</LogEntry><LogEntry>2";
  const int requests = WalkRequests(
      [&] { ASSERT_TRUE(sandbox::WriteFile(path, broken, 0644)); }, [&] { XMLFileCheck(path.c_str()); },
      [&](bool failed) {
        EXPECT_EQ(sandbox::ReadFile(path), failed ? broken : "<EventLog><LogEntry>1</LogEntry></EventLog>");
        return 0;
      });
  EXPECT_EQ(requests, 1);
}

// --- The command log -------------------------------------------------------------------------------------------------

namespace {

constexpr const char *kProperties = "/opt/vorn/fleetops/etc/kelvestane/zeb/ini/zeb.properties";

void SetUpCommandLog() {
  PrepareSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories(sandbox::kLogDirectory));
  ASSERT_TRUE(sandbox::MakeDirectories(sandbox::kIniDirectory));
  ASSERT_TRUE(sandbox::WriteFile(kProperties, "preferences.system.cmdlogmaxsize=3000000\n"));
}

void RemoveCommandLogs() {
  ASSERT_TRUE(sandbox::RemoveTree(kCommandLog));
  ASSERT_TRUE(sandbox::RemoveTree(kCommandLogBackup));
}

}  // namespace

TEST(AllocationOfFiles, CommandIsLoggedOrTheLogIsAsItWas) {
  SetUpCommandLog();
  const std::string user(1000, '&');
  const auto append = [&] { return KCSAppendToCmdLog(5001, user.c_str(), "source", "description", 2); };
  for (const bool hasLog : {false, true}) {
    SCOPED_TRACE(hasLog);
    const auto prepare = [&] {
      RemoveCommandLogs();
      if (hasLog) {
        ASSERT_EQ(KCSAppendToCmdLog(5002, "u", "s", "d", 4), 0);
      }
    };
    prepare();
    const Files before = LogsIn(sandbox::kLogDirectory);
    ASSERT_EQ(append(), 0);
    const Files after = LogsIn(sandbox::kLogDirectory);
    RemoveCommandLogs();
    KCSFreeMem(KCSGetCmdLogPathFileName());
    const Files started = LogsIn(sandbox::kLogDirectory);
    s32 status = -99;
    const int requests = WalkRequests(
        prepare, [&] { status = append(); },
        [&](bool failed) {
          const Files now = LogsIn(sandbox::kLogDirectory);
          EXPECT_TRUE(status == 0 || (failed && status == -1)) << status;
          if (status == 0) {
            EXPECT_EQ(now, after);
          } else {
            EXPECT_TRUE(now == before || (!hasLog && now == started));
          }
          EXPECT_TRUE(sandbox::LockIsFree());
          return 0;
        });
    EXPECT_GT(requests, 5);
  }
}

// One look at the log's end is all that a process takes, memory or not.
TEST(AllocationOfFiles, KeptCommandLogThatCouldNotBeRepairedStaysBroken) {
  SetUpCommandLog();
  const std::string broken =
      "<?xml-stylesheet type=\"text/xsl\" version=\"1.0\" encoding=\"UTF-8\"?><EventLog>"
      "<LogEntry>1</LogEntry><LogEntry>2";
  const auto append = [] { return KCSAppendToCmdLog(5001, "u", "s", "d", 2); };
  bool hasFailed = true;
  int unrepaired = 0;
  for (int n = 1; hasFailed; ++n) {
    ASSERT_TRUE(sandbox::WriteFile(kCommandLog, broken, 01664));
    sandbox::Process process;  // one for each: a process looks once
    ASSERT_TRUE(process.Start([&](sandbox::Channel &) {
      s32 status = -99;
      const bool failed = FailRequest(n, [&] { status = append(); });
      const bool staysBroken = sandbox::ReadFile(kCommandLog) == broken;
      if (failed && status == SM_STATUS_BAD_DATA && staysBroken && append() == status) return 2;
      if (failed && status == -1) return 1;  // before the repair or after it
      if (status != SM_STATUS_SUCCESS || append() != SM_STATUS_SUCCESS) return 9;
      return failed ? 1 : 0;
    }));
    const int result = process.Wait();
    ASSERT_LE(result, 2) << n;
    hasFailed = result != 0;
    if (result == 2) ++unrepaired;
  }
  EXPECT_EQ(unrepaired, 1);
}

TEST(AllocationOfFiles, CommandLogPathSizeAndClearingReportTheFailure) {
  SetUpCommandLog();
  astring *path = nullptr;
  int requests = WalkRequests(
      RemoveCommandLogs, [&] { path = KCSGetCmdLogPathFileName(); },
      [&](bool failed) {
        EXPECT_EQ(path == nullptr, failed);
        EXPECT_EQ(FilesIn(sandbox::kLogDirectory).size(), failed ? 0u : 1u);
        EXPECT_TRUE(sandbox::LockIsFree());
        KCSFreeMem(path);
        return failed ? 0 : 1;
      });
  EXPECT_GT(requests, 2);

  s32 status = -99;
  u32 size = 99;
  requests = WalkRequests(
      [&] {
        RemoveCommandLogs();
        size = 99;
      },
      [&] { status = KCSGetCmdLogSize(&size); },
      [&](bool failed) {
        EXPECT_EQ(status, failed ? SM_STATUS_NO_MEMORY : SM_STATUS_SUCCESS);
        EXPECT_EQ(size, failed ? 0 : std::filesystem::file_size(kCommandLog));
        EXPECT_TRUE(sandbox::LockIsFree());
        return 0;
      });
  EXPECT_GT(requests, 2);

  requests = WalkRequests(
      [] {
        RemoveCommandLogs();
        ASSERT_EQ(KCSAppendToCmdLog(5002, "u", "s", "d", 4), 0);
      },
      [&] { status = KCSClearCmdLog("user", "source"); },
      [&](bool failed) {
        EXPECT_EQ(status, failed ? -1 : SM_STATUS_SUCCESS);
        const Files files = LogsIn(sandbox::kLogDirectory);
        EXPECT_TRUE(failed || files.begin()->second.find("Log was cleared") != std::string::npos);
        EXPECT_TRUE(sandbox::LockIsFree());
        return 0;
      });
  EXPECT_GT(requests, 2);
}

TEST(AllocationOfFiles, MaximumSizeIsTheProcesssWithoutTheFiles) {
  SetUpCommandLog();
  s32 status = -99;
  u32 size = 0;
  const auto prepare = [] { ASSERT_EQ(KCSSetCmdLogMaxSize(0x110000), 0); };
  int requests = WalkRequests(
      prepare, [&] { status = KCSGetCmdLogMaxSize(&size); },
      [&](bool failed) {
        EXPECT_EQ(status, SM_STATUS_SUCCESS);
        EXPECT_EQ(size, failed ? 0x110000u : 3000000u);
        EXPECT_TRUE(sandbox::LockIsFree());
        return 0;
      });
  EXPECT_GT(requests, 3);

  // Asked twice, the file can be read at the second time.
  const auto processSize = [] {
    EXPECT_TRUE(sandbox::RemoveTree(kProperties));
    u32 set = 0;
    EXPECT_EQ(KCSGetCmdLogMaxSize(&set), 0);
    EXPECT_TRUE(sandbox::WriteFile(kProperties, "preferences.system.cmdlogmaxsize=3000000\n"));
    return set;
  };
  requests = WalkRequests(prepare, InitCmdMaxLogSize, [&](bool failed) {
    const u32 now = processSize();
    EXPECT_TRUE(now == 3000000u || (failed && now == 0x110000u)) << now;
    EXPECT_TRUE(sandbox::LockIsFree());
    return 0;
  });
  EXPECT_GT(requests, 3);
}

TEST(AllocationOfFiles, LogContentIsWholeOrNone) {
  PrepareSandbox();
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("a.log");
  const std::string text(20000, 't');
  ASSERT_TRUE(sandbox::WriteFile(path, text));
  const std::string whole = "<Content>" + text + "</Content><SMStatus>0</SMStatus>";
  astring *content = nullptr;
  const int requests = WalkRequests([] {}, [&] { content = KCSCmdGetXMLLogContent(path.c_str(), nullptr, nullptr); },
                                    [&](bool failed) {
                                      const std::string got = content == nullptr ? "" : content;
                                      EXPECT_EQ(got, failed ? "" : whole);
                                      KCSFreeMem(content);
                                      return content == nullptr ? 0 : 1;
                                    });
  EXPECT_GT(requests, 3);
}

// --- The system log --------------------------------------------------------------------------------------------------

TEST(AllocationOfFiles, SystemLogReportsTheFailure) {
  PrepareSandbox();
  const ustring source[] = {'s', 0};
  const std::vector<ustring> units(3000, 'd');
  std::vector<ustring> description = units;
  description.push_back(0);
  const auto append = [&] { return KCSAppendToOSLog(4, 1, source, description.data(), nullptr, 0); };
  ASSERT_EQ(append(), 0);
  s32 status = -99;
  const int requests = WalkRequests([] {}, [&] { status = append(); },
                                    [&](bool failed) {
                                      EXPECT_TRUE(status == 0 || (failed && status == -1)) << status;
                                      return 0;
                                    });
  EXPECT_GE(requests, 3);
}

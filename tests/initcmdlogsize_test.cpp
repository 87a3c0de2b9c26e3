// The command log with its maximum size, and the system log.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "guarded_buffer.h"
#include "program.h"
#include "sandbox.h"
#include "shared_file.h"
#include "system_log.h"
#include "zebcs/frame.h"
#include "zebcs/logs.h"
#include "zebcs/number.h"

namespace {

using sandbox::Channel;
using sandbox::Exists;
using sandbox::GuardedBuffer;
using sandbox::LockHolder;
using sandbox::LockIsFree;
using sandbox::ModeOf;
using sandbox::Process;
using sandbox::TemporaryDirectory;
using std::string_view;
using namespace std::string_literals;

bool l_skipsPauses = false;
int l_pauses = 0;
int l_pausesUntilRelease = 0;
std::function<void()> l_release;

}  // namespace

// In place of the C library's: a minute of waiting for the file lock is as many attempts, but takes no minute.
extern "C" int nanosleep(const timespec *requested, timespec *remaining) {
  if (l_skipsPauses) {
    if (++l_pauses == l_pausesUntilRelease) l_release();
    return 0;
  }
  const int error = clock_nanosleep(CLOCK_MONOTONIC, 0, requested, remaining);
  if (error == 0) return 0;
  errno = error;
  return -1;
}

namespace {

constexpr const char *kPath = "/opt/vorn/fleetops/var/log/kelvestane//qxcmdlog.xml";
const std::string kLog = std::string(sandbox::kLogDirectory) + "/qxcmdlog.xml";
const std::string kBackup = std::string(sandbox::kLogDirectory) + "/qxcmdlog.xm_";
const std::string kProperties = std::string(sandbox::kIniDirectory) + "/zeb.properties";
const std::string kKey = "preferences.system.cmdlogmaxsize";
constexpr u32 kMiB = 0x100000;
constexpr mode_t kLogMode = S_IFREG | 01664;

const std::string kHeader = "<?xml-stylesheet type=\"text/xsl\" version=\"1.0\" encoding=\"UTF-8\"?>";
const std::string kBegin = "<EventLog>";
const std::string kEnd = "</EventLog>";

std::string Taken(astring *text) {
  if (text == nullptr) return "(null)";
  const std::string copy(text);
  KCSFreeMem(text);
  return copy;
}

bool SetProperty(const std::string &value) { return sandbox::WriteFile(kProperties, kKey + '=' + value + '\n'); }

// The maximum size in force, or none after a failure.
std::optional<u32> MaxSize() {
  u32 maxSize = 12345;
  return KCSGetCmdLogMaxSize(&maxSize) == 0 ? std::optional<u32>(maxSize) : std::nullopt;
}

// What an entry says, apart from the time.
struct Entry {
  unsigned type = 0;
  u32 id = 0;
  std::string user = {};
  std::string source = {};
  std::string description = {};
};

std::string Render(const Entry &entry, std::time_t stamp) {
  std::string dateTime = std::ctime(&stamp);
  dateTime.pop_back();
  return "<LogEntry><TimeStamp>" + std::to_string(stamp) + "</TimeStamp><DateTime>" + dateTime +
         "</DateTime><ComputerName>sandbox</ComputerName><Type>" + std::to_string(entry.type) + "</Type><ID>" +
         std::to_string(entry.id) + "</ID><UserInfo>" + entry.user + "</UserInfo><Source>" + entry.source +
         "</Source><Description>" + entry.description + "</Description><Data></Data></LogEntry>";
}

const std::time_t kStart = std::time(nullptr);

// The log has the header, exactly these entries of this run, and the end tag.
void ExpectLog(const std::vector<Entry> &entries) {
  constexpr string_view kTag = "<LogEntry><TimeStamp>";
  const std::string text = sandbox::ReadFile(kLog);
  std::string expected = kHeader + kBegin;
  for (const Entry &entry : entries) {
    ASSERT_EQ(text.find(kTag, expected.size()), expected.size()) << text;
    const std::time_t stamp = std::strtoll(text.c_str() + expected.size() + kTag.size(), nullptr, 10);
    EXPECT_GE(stamp, kStart);
    EXPECT_LE(stamp, std::time(nullptr));
    expected += Render(entry, stamp);
  }
  EXPECT_EQ(text, expected + kEnd);
  EXPECT_EQ(ModeOf(kLog), kLogMode);
}

// What the log says of itself: by the library, or by whom it was called.
const Entry kMade{.type = 4, .id = 0, .user = "Local System", .source = "HALV", .description = "Log was cleared"};
Entry Cleared(const std::string &user, const std::string &source) {
  return {.type = 4, .id = 0, .user = user, .source = source, .description = "Log was cleared"};
}
Entry BackedUp(const std::string &user, const std::string &source) {
  return {.type = 4, .id = 1, .user = user, .source = source, .description = "Log backup created"};
}

Entry Plain(const std::string &description) {
  return {.type = 1, .id = 5001, .user = "u", .source = "s", .description = description};
}
s32 Append(const std::string &description) { return KCSAppendToCmdLog(5001, "u", "s", description.c_str(), 1); }

// A log of exactly this size, with a whole entry.
bool WriteLogOfSize(size_t size) {
  const std::string start = kHeader + kBegin + "<LogEntry>";
  const std::string end = "</LogEntry>" + kEnd;
  return sandbox::WriteFile(kLog, start + std::string(size - start.size() - end.size(), 'x') + end);
}

// --- This program as a client that has just loaded the library ------------------------------------------------------

constexpr const char *kProbe = "as-probe";

// as-probe max: the maximum size before and after the properties file is gone
__attribute__((constructor)) void ActAsProbe(int argc, char **argv) {
  if (argc != 3 || string_view(argv[1]) != kProbe) return;
  u32 before = 12345;
  u32 after = 12345;
  const s32 first = KCSGetCmdLogMaxSize(&before);
  (void)unlink("/opt/vorn/fleetops/etc/kelvestane/zeb/ini/zeb.properties");
  const s32 second = KCSGetCmdLogMaxSize(&after);
  std::printf("%d %u, %d %u\n", first, before, second, after);
  std::fflush(nullptr);
  _exit(0);
}

std::string FreshProcess() {
  return RunProgram({std::filesystem::read_symlink("/proc/self/exe"), kProbe, "max"}).output;
}

}  // namespace

// --- The path -------------------------------------------------------------------------------------------------------

TEST(CmdLogPath, IsFixedAndTheLogIsThere) {
  sandbox::RequireSandbox();
  ASSERT_FALSE(Exists(kLog)) << "attaching makes no log";
  astring *const path = KCSGetCmdLogPathFileName();
  EXPECT_STREQ(path, kPath);
  ExpectLog({kMade});
  astring *const other = SUPTIntfGetCmdLogPathFileName();
  EXPECT_STREQ(other, kPath);
  EXPECT_NE(path, other) << "each is the caller's own";
  path[0] = 'x';
  EXPECT_STREQ(other, kPath);
  KCSFreeMem(path);
  KCSFreeMem(other);
  ExpectLog({kMade});
}

TEST(CmdLogPath, ShortFileIsStartedAnewAndALongerOneStays) {
  sandbox::RequireSandbox();
  for (const size_t size : {0u, 1u, 64u, 65u, 1000u}) {
    const std::string text(size, 'x');
    ASSERT_TRUE(sandbox::WriteFile(kLog, text));
    EXPECT_EQ(Taken(SUPTIntfGetCmdLogPathFileName()), kPath);
    if (size <= 64) {
      ExpectLog({kMade});
    } else {
      EXPECT_EQ(sandbox::ReadFile(kLog), text);
    }
  }
}

TEST(CmdLogPath, DirectoryIsMadeOneLevelDeep) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLogDirectory));
  EXPECT_EQ(Taken(KCSGetCmdLogPathFileName()), kPath);
  ExpectLog({kMade});
  EXPECT_EQ(ModeOf(sandbox::kLogDirectory), static_cast<mode_t>(S_IFDIR | 0755));
}

TEST(CmdLogPath, WithoutAPlaceForTheLogEverythingFails) {
  sandbox::RequireSandbox();
  const std::string parent = "/opt/vorn/fleetops/var/log";
  for (const bool isBlocked : {false, true}) {
    ASSERT_TRUE(sandbox::RemoveTree(parent));
    if (isBlocked) {
      ASSERT_TRUE(sandbox::MakeDirectories(parent));
      ASSERT_TRUE(sandbox::WriteFile(sandbox::kLogDirectory, "a file"));
    }
    EXPECT_EQ(KCSGetCmdLogPathFileName(), nullptr);
    EXPECT_EQ(Append("d"), -1);
    EXPECT_EQ(KCSClearCmdLog("u", "s"), -1);
    u32 size = 7;
    EXPECT_EQ(KCSGetCmdLogSize(&size), SM_STATUS_NO_MEMORY);
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(LockIsFree());
    EXPECT_EQ(Exists(sandbox::kLogDirectory), isBlocked);
  }
}

// --- Appending and clearing -----------------------------------------------------------------------------------------

TEST(AppendToCmdLog, FirstOneMakesTheLog) {
  sandbox::RequireSandbox();
  EXPECT_EQ(KCSAppendToCmdLog(5001, "m<e>", "h&re", "<b>did</b>", 65535), 0);
  ExpectLog(
      {kMade, {.type = 65535, .id = 5001, .user = "m&lt;e&gt;", .source = "h&amp;re", .description = "<b>did</b>"}});
  EXPECT_FALSE(Exists(kBackup));
}

TEST(AppendToCmdLog, CommandIDsFrom5001To6999AreTaken) {
  sandbox::RequireSandbox();
  std::vector<Entry> entries{kMade};
  const struct {
    u32 id;
    bool isTaken;
  } cases[] = {
      {0, false},          {1, false},          {5000, false},    {5001, true},        {5002, true},
      {6998, true},        {6999, true},        {7000, false},    {0x7FFFFFFF, false}, {0x80000000, false},
      {0x80001389, false}, {0xFFFFFFFF, false}, {0x11389, false}, {6000, true},
  };
  for (const auto &c : cases) {
    for (s32 (*append)(u32, const astring *, const astring *, const astring *, u16) :
         {KCSAppendToCmdLog, SUPTIntfAppendToCmdLog}) {
      EXPECT_EQ(append(c.id, "u", "s", "d", 2), c.isTaken ? 0 : SM_STATUS_INVALID_INPUT) << c.id;
      if (!c.isTaken && entries.size() == 1) {
        EXPECT_FALSE(Exists(kLog)) << "not even the log is made";
      }
      if (c.isTaken) entries.push_back({.type = 2, .id = c.id, .user = "u", .source = "s", .description = "d"});
    }
  }
  ExpectLog(entries);
}

TEST(AppendToCmdLog, AllTextsAreRequired) {
  sandbox::RequireSandbox();
  EXPECT_EQ(KCSAppendToCmdLog(5001, nullptr, "s", "d", 1), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSAppendToCmdLog(5001, "u", nullptr, "d", 1), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSAppendToCmdLog(5001, "u", "s", nullptr, 1), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSAppendToCmdLog(5000, nullptr, nullptr, nullptr, 1), SM_STATUS_INVALID_INPUT);
  EXPECT_FALSE(Exists(kLog));
}

TEST(AppendToCmdLog, LengthsOfTextsAreThoseOfTheEventLog) {
  sandbox::RequireSandbox();
  const std::string name(1023, 'n');
  const std::string description(16383, 'd');
  const struct {
    std::string user;
    std::string source;
    std::string description;
    bool isTaken;
  } cases[] = {
      {"", "s", "d", false},           {"u", "", "d", false},         {"u", "s", "", false},
      {name + 'n', "s", "d", false},   {"u", name + 'n', "d", false}, {"u", "s", description + 'd', false},
      {name, name, description, true},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(KCSAppendToCmdLog(6999, c.user.c_str(), c.source.c_str(), c.description.c_str(), 1),
              c.isTaken ? 0 : SM_STATUS_BAD_PARAMETER);
    if (!c.isTaken) ExpectLog({kMade});
  }
  ExpectLog({kMade, {.type = 1, .id = 6999, .user = name, .source = name, .description = description}});
}

TEST(AppendToCmdLog, ManyProcessesLoseNothing) {
  sandbox::RequireSandbox();
  constexpr int kRounds = 20;
  std::vector<Process> writers(3);
  for (size_t w = 0; w < writers.size(); ++w) {
    ASSERT_TRUE(writers[w].Start([w](Channel &channel) {
      channel.Put("ready");
      if (channel.Get() != "go") return 1;
      for (int i = 0; i < kRounds; ++i) {
        if (Append(std::to_string(w) + '.' + std::to_string(i)) != 0) return 2;
      }
      return 0;
    }));
  }
  for (Process &writer : writers) ASSERT_EQ(writer.Receive(), "ready");
  EXPECT_EQ(Taken(KCSGetCmdLogPathFileName()), kPath);
  for (Process &writer : writers) writer.Send("go");
  for (Process &writer : writers) EXPECT_EQ(writer.Wait(), 0);
  const std::string text = sandbox::ReadFile(kLog);
  for (size_t w = 0; w < writers.size(); ++w) {
    for (int i = 0; i < kRounds; ++i) {
      const std::string description = "<Description>" + std::to_string(w) + '.' + std::to_string(i) + "</Description>";
      EXPECT_NE(text.find(description), std::string::npos) << description;
    }
  }
  EXPECT_EQ(text.find(kEnd), text.size() - kEnd.size());
}

TEST(ClearCmdLog, LeavesOneEntryOfWhoDidIt) {
  sandbox::RequireSandbox();
  EXPECT_EQ(KCSClearCmdLog("m<e", "here"), 0) << "the log is made first, so there is one to clear";
  ExpectLog({Cleared("m&lt;e", "here")});
  ASSERT_EQ(Append("d"), 0);
  EXPECT_EQ(SUPTIntfClearCmdLog(nullptr, nullptr), 0);
  ExpectLog({Cleared("", "")});
  EXPECT_EQ(KCSClearCmdLog("", "s"), SM_STATUS_BAD_PARAMETER);
  EXPECT_FALSE(Exists(kLog)) << "it was deleted first";
}

// --- Repair ---------------------------------------------------------------------------------------------------------

namespace {

const std::string kOldEntry = Render(Plain("old"), kStart);
const std::string kCutLog = kHeader + kBegin + kOldEntry + kOldEntry.substr(0, 40);

// Whether the next append of this process repairs a log.
bool NextAppendRepairs() {
  EXPECT_TRUE(sandbox::WriteFile(kLog, kCutLog));
  const s32 status = Append("new");
  if (status == 0) {
    ExpectLog({Plain("old"), Plain("new")});
  } else {
    EXPECT_EQ(status, SM_STATUS_BAD_DATA);
    EXPECT_EQ(sandbox::ReadFile(kLog), kCutLog);
  }
  return status == 0;
}

}  // namespace

TEST(CmdLogRepair, IsMadeByTheFirstAppendOfEachProcess) {
  sandbox::RequireSandbox();
  for (int i = 0; i < 3; ++i) {
    Process process;
    ASSERT_TRUE(process.Start([](Channel &) {
      EXPECT_TRUE(NextAppendRepairs());
      for (int k = 0; k < 3; ++k) EXPECT_FALSE(NextAppendRepairs());
      return 0;
    }));
    EXPECT_EQ(process.Wait(), 0);
  }
  EXPECT_TRUE(NextAppendRepairs()) << "this process has not appended yet";
  EXPECT_FALSE(NextAppendRepairs());
}

TEST(CmdLogRepair, AnAppendToAWholeLogUsesItUp) {
  sandbox::RequireSandbox();
  ASSERT_EQ(Append("d"), 0);
  EXPECT_FALSE(NextAppendRepairs());
}

TEST(CmdLogRepair, AppendThatDoesNotGetAsFarDoesNotUseItUp) {
  sandbox::RequireSandbox();
  EXPECT_EQ(KCSAppendToCmdLog(5000, "u", "s", "d", 1), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSAppendToCmdLog(5001, "u", "s", nullptr, 1), SM_STATUS_INVALID_INPUT);
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLogDirectory));
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kLogDirectory, "a file"));
  EXPECT_EQ(Append("d"), -1);
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLogDirectory));
  ASSERT_TRUE(sandbox::MakeDirectories(sandbox::kLogDirectory));
  EXPECT_TRUE(NextAppendRepairs());
}

TEST(CmdLogRepair, OtherCallsDoNotRepair) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(kLog, kCutLog));
  u32 size = 0;
  EXPECT_EQ(Taken(KCSGetCmdLogPathFileName()), kPath);
  EXPECT_EQ(KCSGetCmdLogSize(&size), 0);
  EXPECT_EQ(KCSSetCmdLogMaxSize(kMiB), 0);
  EXPECT_EQ(size, kCutLog.size());
  KCSFreeMem(KCSCmdGetXMLLogContent(kPath, nullptr, nullptr));
  EXPECT_EQ(sandbox::ReadFile(kLog), kCutLog);
  EXPECT_TRUE(NextAppendRepairs());
}

TEST(CmdLogRepair, LogWithoutAnyEntryIsStartedAnew) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(kLog, kHeader + kBegin + "<LogEnt"));
  ASSERT_EQ(Append("d"), 0);
  ExpectLog({Plain("d")});
}

// --- Size -----------------------------------------------------------------------------------------------------------

TEST(CmdLogSize, IsTheFilesAndTheLogIsMade) {
  sandbox::RequireSandbox();
  for (s32 (*get)(u32 *) : {KCSGetCmdLogSize, SUPTIntfGetCmdLogSize}) {
    ASSERT_TRUE(sandbox::RemoveTree(kLog));
    u32 size = 7;
    EXPECT_EQ(get(&size), 0);
    ExpectLog({kMade});
    EXPECT_EQ(size, sandbox::ReadFile(kLog).size());
    for (const size_t written : {65u, 66u, 100000u, 5000000u}) {
      ASSERT_TRUE(sandbox::WriteFile(kLog, std::string(written, 'x')));
      EXPECT_EQ(get(&size), 0);
      EXPECT_EQ(size, written);
    }
    EXPECT_EQ(get(nullptr), SM_STATUS_INVALID_INPUT);
    EXPECT_TRUE(LockIsFree());
  }
}

// --- Maximum size ---------------------------------------------------------------------------------------------------

TEST(CmdLogMaxSize, IsOneMegabyteAtFirst) {
  sandbox::RequireSandbox();
  EXPECT_EQ(MaxSize(), kMiB);
  EXPECT_FALSE(Exists(kLog)) << "asking makes no log";
}

TEST(CmdLogMaxSize, OneToFourMegabytesCanBeSet) {
  sandbox::RequireSandbox();
  u32 current = kMiB;
  const struct {
    u32 value;
    bool isTaken;
  } cases[] = {
      {0, false}, {0x400000, true}, {0x0FFFFF, false}, {0x100000, true},    {0x400001, false},   {0x100001, true},
      {1, false}, {0x3FFFFF, true}, {0x500000, false}, {0x80100000, false}, {0xFFFFFFFF, false}, {0x200000, true},
  };
  for (const auto &c : cases) {
    for (s32 (*set)(u32) : {KCSSetCmdLogMaxSize, SUPTIntfSetCmdLogMaxSize}) {
      EXPECT_EQ(set(c.value), c.isTaken ? 0 : SM_STATUS_INVALID_INPUT) << c.value;
      if (c.isTaken) current = c.value;
      EXPECT_EQ(MaxSize(), current) << c.value;
    }
  }
  EXPECT_FALSE(Exists(kProperties)) << "the file is not written";
  EXPECT_EQ(FreshProcess(), "0 1048576, 0 1048576\n") << "nor do other processes hear of it";
  EXPECT_EQ(MaxSize(), current);
  EXPECT_TRUE(LockIsFree());
}

TEST(CmdLogMaxSize, PropertiesFileComesFirstWhateverItSays) {
  sandbox::RequireSandbox();
  constexpr u32 kSet = 0x345678;
  const struct {
    const char *what;
    std::string text;
    u32 expected;
  } cases[] = {
      {"empty file", "", kSet},
      {"another key", "preferences.system.cmdlogsize=2097152\n", kSet},
      {"key of another case", "Preferences.System.CmdLogMaxSize=2097152\n", kSet},
      {"longer key", kKey + "2=2097152\n", kSet},
      {"value", kKey + "=2097152\n", 2097152},
      {"no line feed", kKey + "=2097152", 2097152},
      {"blanks", " \t" + kKey + " =\t 2097152 \r\n", 2097152},
      {"quotes", kKey + "=\"2097152\"\n", 2097152},
      {"after other lines", "# comment\n[section]\nkey=1\n" + kKey + "=3145728\nkey=2\n", 3145728},
      {"comment", "#" + kKey + "=2097152\n", kSet},
      {"the first of two", kKey + "=3145728\n" + kKey + "=2097152\n", 3145728},
      {"the first of two, which is no number", kKey + "=none\n" + kKey + "=2097152\n", kSet},
      {"eight megabytes", kKey + "=8388608\n", 8388608},
      {"below the least", kKey + "=1048575\n", 1048575},
      {"above the most", kKey + "=4194305\n", 4194305},
      {"zero", kKey + "=0\n", 0},
      {"one", kKey + "=1\n", 1},
      {"most", kKey + "=4294967295\n", 0xFFFFFFFF},
      {"plus", kKey + "=+2097152\n", 2097152},
      {"minus", kKey + "=-1\n", 0xFFFFFFFF},
      {"leading zeros", kKey + "=002097152\n", 2097152},
      {"hexadecimal", kKey + "=0x200000\n", kSet},
      {"letters", kKey + "=2MB\n", kSet},
      {"fraction", kKey + "=2097152.0\n", kSet},
      {"inner blank", kKey + "=2 097152\n", kSet},
  };
  ASSERT_EQ(KCSSetCmdLogMaxSize(kSet), 0);
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::WriteFile(kProperties, c.text));
    EXPECT_EQ(MaxSize(), c.expected) << c.what;
    EXPECT_EQ(sandbox::ReadFile(kProperties), c.text) << c.what;
  }
  // What is set does not outdo the file, but is there when the file has gone.
  ASSERT_TRUE(SetProperty("2097152"));
  EXPECT_EQ(KCSSetCmdLogMaxSize(kMiB), 0);
  EXPECT_EQ(MaxSize(), 2097152u);
  ASSERT_TRUE(sandbox::RemoveTree(kProperties));
  EXPECT_EQ(MaxSize(), kMiB);
  u32 maxSize = 1;
  EXPECT_EQ(SUPTIntfGetCmdLogMaxSize(&maxSize), 0);
  EXPECT_EQ(maxSize, kMiB);
  EXPECT_EQ(KCSGetCmdLogMaxSize(nullptr), SM_STATUS_INVALID_INPUT);
  EXPECT_TRUE(LockIsFree());
}

TEST(CmdLogMaxSize, ValuesOfNoClearMeaningAreReadAsTheNumberReaderReadsThem) {
  sandbox::RequireSandbox();
  constexpr u32 kSet = 0x345678;
  ASSERT_EQ(KCSSetCmdLogMaxSize(kSet), 0);
  for (const char *value : {"", "-", "+", "--1", "4294967296", "99999999999999999999", "-2097152"}) {
    ASSERT_TRUE(SetProperty(value));
    s32 status = 12345;
    const u32 number = KCSASCIIToUnSigned32VT(value, 10, &status);
    EXPECT_EQ(MaxSize(), status == 0 ? number : kSet) << '"' << value << '"';
  }
}

TEST(CmdLogMaxSize, PropertiesThatCannotBeReadCountAsMissing) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::MakeDirectories(kProperties));
  EXPECT_EQ(MaxSize(), kMiB);
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kIniDirectory));
  EXPECT_EQ(MaxSize(), kMiB);
  EXPECT_FALSE(Exists(sandbox::kIniDirectory));
}

TEST(CmdLogMaxSize, ThreadsSeeWhatOneOfThemSet) {
  sandbox::RequireSandbox();
  std::atomic<bool> isGood = true;
  const auto work = [&](u32 own) {
    for (int i = 0; i < 100; ++i) {
      if (KCSSetCmdLogMaxSize(own) != 0) isGood = false;
      const std::optional<u32> seen = MaxSize();
      if (seen != 2 * kMiB && seen != 3 * kMiB) isGood = false;
    }
  };
  std::thread a(work, 2 * kMiB);
  std::thread b(work, 3 * kMiB);
  a.join();
  b.join();
  EXPECT_TRUE(isGood);
}

TEST(CmdLogMaxSize, LogIsBackedUpWhereItWouldReachIt) {
  sandbox::RequireSandbox();
  const size_t added = Render(Plain("new"), kStart).size();
  for (const u32 maxSize : {kMiB, 2 * kMiB, 4 * kMiB}) {
    ASSERT_EQ(KCSSetCmdLogMaxSize(maxSize), 0);
    for (const bool isReached : {false, true}) {
      ASSERT_TRUE(sandbox::RemoveTree(kBackup));
      ASSERT_TRUE(WriteLogOfSize(maxSize - added - (isReached ? 0 : 1)));
      const std::string old = sandbox::ReadFile(kLog);
      ASSERT_EQ(Append("new"), 0);
      ASSERT_EQ(Exists(kBackup), isReached) << maxSize;
      if (isReached) {
        ExpectLog({BackedUp("u", "s"), Plain("new")});
        EXPECT_TRUE(sandbox::ReadFile(kBackup) == old);
        EXPECT_EQ(ModeOf(kBackup), kLogMode);
      } else {
        EXPECT_EQ(sandbox::ReadFile(kLog).size(), maxSize - 1u);
      }
    }
  }
}

TEST(CmdLogMaxSize, KeptSettingOutsideTheLimitsIsWhatAppendsUse) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(SetProperty("1"));
  ASSERT_EQ(Append("1"), 0);
  ExpectLog({BackedUp("u", "s"), Plain("1")});
  ASSERT_TRUE(SetProperty("8388608"));
  ASSERT_TRUE(sandbox::RemoveTree(kBackup));
  ASSERT_TRUE(WriteLogOfSize(5 * kMiB));
  ASSERT_EQ(Append("2"), 0);
  EXPECT_FALSE(Exists(kBackup));
}

// --- Attaching ------------------------------------------------------------------------------------------------------

TEST(InitCmdMaxLogSize, AttachingTakesTheSettingWithinItsLimits) {
  sandbox::RequireSandbox();
  const struct {
    const char *what;
    std::string value;
    u32 read;  // while the file is there
    u32 kept;  // by the process
  } cases[] = {
      {"below the least", "1048575", 1048575, kMiB},
      {"least", "1048576", kMiB, kMiB},
      {"above the least", "1048577", 1048577, 1048577},
      {"between", "2097152", 2097152, 2097152},
      {"most", "4194304", 4 * kMiB, 4 * kMiB},
      {"above the most", "4194305", 4194305, kMiB},
      {"eight megabytes", "8388608", 8388608, kMiB},
      {"zero", "0", 0, kMiB},
      {"minus", "-1", 0xFFFFFFFF, kMiB},
      {"no number", "many", kMiB, kMiB},
      {"in quotes", "\"3145728\"", 3145728, 3145728},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(SetProperty(c.value));
    EXPECT_EQ(FreshProcess(), "0 " + std::to_string(c.read) + ", 0 " + std::to_string(c.kept) + '\n') << c.what;
    ASSERT_FALSE(Exists(kProperties));
  }
  EXPECT_EQ(FreshProcess(), "0 1048576, 0 1048576\n") << "no file";
  EXPECT_FALSE(Exists(kLog)) << "attaching makes no log";
}

TEST(InitCmdMaxLogSize, OutOfRangeSettingReplacesWhatWasSet) {
  sandbox::RequireSandbox();
  ASSERT_EQ(KCSSetCmdLogMaxSize(3 * kMiB), 0);
  ASSERT_TRUE(SetProperty("8388608"));
  InitCmdMaxLogSize();
  EXPECT_EQ(MaxSize(), 8388608u);
  ASSERT_TRUE(sandbox::RemoveTree(kProperties));
  EXPECT_EQ(MaxSize(), kMiB);
  ASSERT_TRUE(SetProperty("2097152"));
  InitCmdMaxLogSize();
  ASSERT_TRUE(sandbox::RemoveTree(kProperties));
  EXPECT_EQ(MaxSize(), 2 * kMiB);
}

TEST(InitCmdMaxLogSize, KeptWithoutASettingTheSizeStaysWhatItIs) {
  sandbox::RequireSandbox();
  ASSERT_EQ(KCSSetCmdLogMaxSize(3 * kMiB), 0);
  InitCmdMaxLogSize();
  EXPECT_EQ(MaxSize(), 3 * kMiB);
  ASSERT_TRUE(SetProperty("many"));
  InitCmdMaxLogSize();
  EXPECT_EQ(MaxSize(), 3 * kMiB);
}

TEST(InitCmdMaxLogSize, KeptFirstTimeoutMeansOneMegabyteWhateverTheFileSays) {
  sandbox::RequireSandbox();
  ASSERT_EQ(KCSSetCmdLogMaxSize(3 * kMiB), 0);
  ASSERT_TRUE(SetProperty("2097152"));
  LockHolder holder;
  ASSERT_TRUE(holder);
  // Every wait is 60000 attempts, so the lock becomes free while the second wait is on.
  l_release = [&] { holder.Release(); };
  l_pauses = 0;
  l_pausesUntilRelease = 90000;
  l_skipsPauses = true;
  InitCmdMaxLogSize();
  l_skipsPauses = false;
  ASSERT_GE(l_pauses, 90000) << "there was no second wait";
  EXPECT_EQ(MaxSize(), 2 * kMiB) << "the file";
  ASSERT_TRUE(sandbox::RemoveTree(kProperties));
  EXPECT_EQ(MaxSize(), kMiB) << "the process";
}

// --- The lock -------------------------------------------------------------------------------------------------------

TEST(CmdLogLock, TimeoutsLeaveEverythingAsItWas) {
  sandbox::RequireSandbox();
  ASSERT_EQ(Append("d"), 0);
  const std::string before = sandbox::ReadFile(kLog);
  ASSERT_EQ(KCSSetCmdLogMaxSize(3 * kMiB), 0);
  u32 size = 7;
  u32 maxSize = 7;
  const struct {
    const char *what;
    std::function<s32()> call;
  } calls[] = {
      {"append", [] { return Append("e"); }},
      {"clear", [] { return KCSClearCmdLog("u", "s"); }},
      {"size", [&] { return KCSGetCmdLogSize(&size); }},
      {"maximum size", [&] { return KCSGetCmdLogMaxSize(&maxSize); }},
      {"set", [] { return KCSSetCmdLogMaxSize(2 * kMiB); }},
      {"init", [] { return InitCmdMaxLogSize(), SM_STATUS_LOCK_TIMEOUT; }},
  };
  for (const auto &c : calls) {
    LockHolder holder;
    ASSERT_TRUE(holder);
    l_pauses = 0;
    l_skipsPauses = true;
    EXPECT_EQ(c.call(), SM_STATUS_LOCK_TIMEOUT) << c.what;
    l_skipsPauses = false;
    EXPECT_GT(l_pauses, 1000) << c.what << " waits";
    EXPECT_FALSE(LockIsFree()) << c.what;
    holder.Release();
    EXPECT_EQ(MaxSize(), 3 * kMiB) << c.what;
    EXPECT_EQ(sandbox::ReadFile(kLog), before) << c.what;
  }
  EXPECT_EQ(size, 0u);
  LockHolder holder;
  ASSERT_TRUE(holder);
  l_skipsPauses = true;
  EXPECT_EQ(KCSSetCmdLogMaxSize(0), SM_STATUS_INVALID_INPUT) << "known before the lock is asked for";
  EXPECT_EQ(Taken(KCSGetCmdLogPathFileName()), kPath) << "needs no lock where the log is there";
  ASSERT_TRUE(sandbox::RemoveTree(kLog));
  EXPECT_EQ(KCSGetCmdLogPathFileName(), nullptr);
  EXPECT_FALSE(Exists(kLog));
  l_skipsPauses = false;
  holder.Release();
}

TEST(CmdLogLock, WithoutItIsAsATimeout) {
  sandbox::RequireSandbox();
  ASSERT_EQ(Append("d"), 0);
  const std::string before = sandbox::ReadFile(kLog);
  ASSERT_EQ(ModuleDetach(), 1);
  u32 size = 7;
  u32 maxSize = 7;
  EXPECT_EQ(KCSGetCmdLogSize(&size), SM_STATUS_LOCK_TIMEOUT);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(KCSGetCmdLogMaxSize(&maxSize), SM_STATUS_LOCK_TIMEOUT);
  EXPECT_EQ(KCSSetCmdLogMaxSize(2 * kMiB), SM_STATUS_LOCK_TIMEOUT);
  EXPECT_EQ(Append("e"), SM_STATUS_LOCK_TIMEOUT);
  EXPECT_EQ(KCSClearCmdLog("u", "s"), SM_STATUS_LOCK_TIMEOUT);
  EXPECT_EQ(sandbox::ReadFile(kLog), before);
}

TEST(CmdLogLock, KeptOwnLockIsDropped) {
  sandbox::RequireSandbox();
  u32 value = 0;
  const std::function<s32()> calls[] = {
      [&] { return KCSGetCmdLogSize(&value); },
      [&] { return KCSGetCmdLogMaxSize(&value); },
      [] { return KCSSetCmdLogMaxSize(kMiB); },
      [] { return Append("d"); },
  };
  for (const auto &call : calls) {
    ASSERT_EQ(FileLock(0), 1);
    EXPECT_EQ(call(), 0) << "the lock belongs to the process, which may take it again";
    EXPECT_TRUE(LockIsFree());
  }
}

// --- Content --------------------------------------------------------------------------------------------------------

TEST(CmdGetXMLLogContent, IsTheTextAsItIsAndTheStatus) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.xml");
  const struct {
    const char *what;
    std::string text;
  } cases[] = {
      {"one byte", "x"},
      {"a line", "one\n"},
      {"lines", "one\ntwo\n\nthree"},
      {"line ends", "one\r\ntwo\rthree\n\n\n"},
      {"XML", kHeader + kBegin + "<LogEntry>&lt;\"'</LogEntry>" + kEnd},
      {"what looks like a format", "%s%n%d"},
      {"bytes", "\x01\x7F\x80\xFF"},
      {"long line", std::string(100000, 'x')},
      {"long lines", std::string(9000, 'x') + '\n' + std::string(9000, 'y') + '\n'},
      {"megabytes", std::string(3000000, 'x') + '\n' + std::string(1000000, '\n')},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::WriteFile(path, c.text, 0400));
    const std::string expected = "<Content>" + c.text + "</Content><SMStatus>0</SMStatus>";
    EXPECT_TRUE(Taken(KCSCmdGetXMLLogContent(path.c_str(), nullptr, nullptr)) == expected) << c.what;
    EXPECT_TRUE(Taken(KCSCmdGetXMLLogContent(path.c_str(), "user", "source")) == expected) << c.what;
    EXPECT_TRUE(sandbox::ReadFile(path) == c.text) << c.what;
  }
}

TEST(CmdGetXMLLogContent, MissingAndEmptyLogsHaveNone) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.xml");
  EXPECT_EQ(KCSCmdGetXMLLogContent(nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(KCSCmdGetXMLLogContent(path.c_str(), nullptr, nullptr), nullptr);
  EXPECT_FALSE(Exists(path));
  ASSERT_TRUE(sandbox::WriteFile(path, ""));
  EXPECT_EQ(KCSCmdGetXMLLogContent(path.c_str(), nullptr, nullptr), nullptr);
  EXPECT_EQ(KCSCmdGetXMLLogContent(directory.path().c_str(), nullptr, nullptr), nullptr);
}

TEST(CmdGetXMLLogContent, IsThatOfTheCommandLogByItsPath) {
  sandbox::RequireSandbox();
  ASSERT_EQ(Append("d"), 0);
  const std::string path = Taken(KCSGetCmdLogPathFileName());
  EXPECT_EQ(Taken(KCSCmdGetXMLLogContent(path.c_str(), nullptr, nullptr)),
            "<Content>" + sandbox::ReadFile(kLog) + "</Content><SMStatus>0</SMStatus>");
}

// --- System log -----------------------------------------------------------------------------------------------------

namespace {

using sandbox::SystemLog;
using Units = std::vector<ustring>;

Units U(const std::string &text) {
  Units units;
  for (const char c : text) units.push_back(static_cast<unsigned char>(c));
  units.push_back(0);
  return units;
}

Units Repeated(ustring unit, size_t count) {
  Units units(count, unit);
  units.push_back(0);
  return units;
}

std::string Repeated(const char *text, size_t count) {
  std::string repeated;
  for (size_t i = 0; i < count; ++i) repeated += text;
  return repeated;
}

s32 Log(u16 type, u32 id, const Units &source, const Units &description) {
  // The texts end where memory does.
  const GuardedBuffer sourceBuffer(source.size() * sizeof(ustring));
  const GuardedBuffer descriptionBuffer(description.size() * sizeof(ustring));
  std::memcpy(sourceBuffer.data<void>(), source.data(), sourceBuffer.size());
  std::memcpy(descriptionBuffer.data<void>(), description.data(), descriptionBuffer.size());
  return KCSAppendToOSLog(type, id, sourceBuffer.data<ustring>(), descriptionBuffer.data<ustring>(), nullptr, 0);
}

size_t OpenFiles() {
  size_t count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

}  // namespace

TEST(AppendToOSLog, PriorityIsByTheType) {
  SystemLog log;
  const struct {
    u16 type;
    const char *priority;
  } cases[] = {{0, "<30>"}, {1, "<27>"}, {2, "<28>"},   {3, "<30>"},
               {4, "<30>"}, {6, "<30>"}, {256, "<30>"}, {65535, "<30>"}};
  ASSERT_EQ(LOG_DAEMON | LOG_ERR, 27);
  for (const auto &c : cases) {
    EXPECT_EQ(Log(c.type, 1234, U("source"), U("something happened")), 0);
    EXPECT_EQ(log.Receive(), std::string(c.priority) + "source: EventID: 1234  something happened") << c.type;
    EXPECT_EQ(log.Receive(), "(none)");
  }
}

TEST(AppendToOSLog, EventIDIsUnsigned) {
  SystemLog log;
  for (const u32 id : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(AppendToOSLog(1, id, U("s").data(), U("d").data(), nullptr, 0), 0);
    EXPECT_EQ(log.Receive(), "<27>s: EventID: " + std::to_string(id) + "  d");
  }
}

TEST(AppendToOSLog, TextsAreTakenAsTheyAre) {
  SystemLog log;
  const struct {
    const char *what;
    std::string source;
    std::string description;
    std::string expected;
  } cases[] = {
      {"carriage return", "s", "a\rb", "s: EventID: 5  a b"},
      {"only carriage returns", "s", "\r\r\r", "s: EventID: 5     "},
      {"line feeds stay", "s", "a\r\nb\nc", "s: EventID: 5  a \nb\nc"},
      {"tabs and quotes", "s", "\t\"'", "s: EventID: 5  \t\"'"},
      {"what looks like a format", "%s%n", "%s%n%m%100d", "%s%n: EventID: 5  %s%n%m%100d"},
      {"empty source", "", "d", ": EventID: 5  d"},
      {"empty description", "s", "", "s: EventID: 5  "},
      {"carriage return in the source", "s\rt", "d", "s\rt: EventID: 5  d"},
      {"long source", std::string(2000, 's'), "d", std::string(2000, 's') + ": EventID: 5  d"},
      {"long description", "s", std::string(20000, 'd'), "s: EventID: 5  " + std::string(20000, 'd')},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(Log(2, 5, U(c.source), U(c.description)), 0) << c.what;
    EXPECT_EQ(log.Receive(), "<28>" + c.expected) << c.what;
  }
}

TEST(AppendToOSLog, DataIsNotLookedAt) {
  SystemLog log;
  const GuardedBuffer none(0);
  EXPECT_EQ(KCSAppendToOSLog(1, 5, U("s").data(), U("d").data(), none.data<void>(), 0xFFFFFFFF), 0);
  EXPECT_EQ(log.Receive(), "<27>s: EventID: 5  d");
}

TEST(AppendToOSLog, TextIsInTheLocalesEncoding) {
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  SystemLog log;
  const Units text{0xE9, ' ', 0x20AC, 0};
  ASSERT_EQ(Log(1, 5, text, text), 0);
  EXPECT_EQ(log.Receive(), "<27>\xC3\xA9 \xE2\x82\xAC: EventID: 5  \xC3\xA9 \xE2\x82\xAC");
}

TEST(AppendToOSLog, KeptTextOfManyLongCharactersIsCut) {
  // The room is a byte for each unit and six more.
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  SystemLog log;
  const struct {
    ustring unit;
    const char *character;
    size_t count;
    size_t left;
  } cases[] = {
      {0xE9, "\xC3\xA9", 5, 5},
      {0xE9, "\xC3\xA9", 6, 6},
      {0xE9, "\xC3\xA9", 7, 6},
      {0xE9, "\xC3\xA9", 8, 7},
      {0xE9, "\xC3\xA9", 1000, 503},
      {0x20AC, "\xE2\x82\xAC", 2, 2},
      {0x20AC, "\xE2\x82\xAC", 3, 3},
      {0x20AC, "\xE2\x82\xAC", 4, 3},
      {0x20AC, "\xE2\x82\xAC", 5, 3},
      {0x20AC, "\xE2\x82\xAC", 6, 4},
      {0x20AC, "\xE2\x82\xAC", 1000, 335},
  };
  for (const auto &c : cases) {
    const Units text = Repeated(c.unit, c.count);
    const std::string expected = Repeated(c.character, c.left);
    ASSERT_EQ(Log(1, 5, U("s"), text), 0);
    EXPECT_EQ(log.Receive(), "<27>s: EventID: 5  " + expected) << c.count;
    ASSERT_EQ(Log(1, 5, text, U("d")), 0);
    EXPECT_EQ(log.Receive(), "<27>" + expected + ": EventID: 5  d") << c.count;
  }
}

TEST(AppendToOSLog, TextThatTheLocaleCannotExpressIsNotSent) {
  SystemLog log;
  for (const char *locale : {"C", "C.UTF-8"}) {
    ASSERT_NE(std::setlocale(LC_ALL, locale), nullptr);
    const Units bad = locale == "C"s ? Units{'a', 0x20AC, 0} : Units{'a', 0xD83D, 0xDE00, 0};
    EXPECT_EQ(Log(1, 5, U("s"), bad), -1) << locale;
    EXPECT_EQ(Log(1, 5, bad, U("d")), -1) << locale;
    EXPECT_EQ(Log(1, 5, bad, bad), -1) << locale;
    EXPECT_EQ(log.Receive(), "(none)") << locale;
  }
}

TEST(AppendToOSLog, NullTextsAreRefused) {
  SystemLog log;
  EXPECT_EQ(KCSAppendToOSLog(1, 5, nullptr, U("d").data(), nullptr, 0), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSAppendToOSLog(1, 5, U("s").data(), nullptr, nullptr, 0), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(log.Receive(), "(none)");
}

TEST(AppendToOSLog, LeavesNothingOpenAndItsSourceIsNotRemembered) {
  SystemLog log;
  const size_t before = OpenFiles();
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(Log(1, 5, U("s"), U("d")), 0);
    EXPECT_EQ(log.Receive(), "<27>s: EventID: 5  d");
    EXPECT_EQ(OpenFiles(), before);
  }
  syslog(LOG_USER | LOG_INFO, "own");
  EXPECT_EQ(log.Receive(), "<14>initcmdlogsize_test: own") << "the program's own name again";
  closelog();
}

TEST(AppendToOSLog, WithoutAServiceItSucceeds) {
  { const SystemLog gone; }
  EXPECT_EQ(Log(1, 5, U("s"), U("d")), 0);
}

TEST(ClearOSLog, DoesNothing) {
  SystemLog log;
  EXPECT_EQ(KCSClearOSLog(U("s").data()), 0);
  EXPECT_EQ(ClearOSLog(nullptr), 0);
  EXPECT_EQ(log.Receive(), "(none)");
}

TEST(RemoveCarriageReturns, MakesThemBlanks) {
  const struct {
    const char *text;
    const char *expected;
  } cases[] = {
      {"", ""}, {"\r", " "}, {"abc", "abc"}, {"\r\n", " \n"}, {"a\rb\r", "a b "}, {"\r\r", "  "}, {"\n\t\v", "\n\t\v"},
  };
  for (const auto &c : cases) {
    const GuardedBuffer buffer(std::strlen(c.text) + 1);
    std::strcpy(buffer.data<char>(), c.text);
    RemoveCarriageReturns(buffer.data<char>());
    EXPECT_STREQ(buffer.data<char>(), c.expected);
  }
  RemoveCarriageReturns(nullptr);
}

// The rights entry points: which user on which host is looked up, what the system adds, and what becomes of a role map
// that cannot be used.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <locale>
#include <ostream>
#include <regex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "guarded_buffer.h"
#include "sandbox.h"
#include "zebcs/auth.h"
#include "zebcs/logs.h"
#include "zebcs/rolemap.h"
#include "zebcs/rolemap.hpp"

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

constexpr u32 kSuperuser = 0x40007;

// Each text gets a modification time of its own, so that the change is seen.
void WriteRoleMap(const std::string &text, mode_t mode = 0640) {
  static time_t time = 1000000;
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, text, mode, ++time));
}

// Asks with a copy, as the text is altered.
u32 RightsOf(std::string userSpec) { return get_user_rights(userSpec.data()); }

s32 Granted(const std::wstring &user, const std::wstring &host) {
  ZEBRole role{user, host, 0};
  ZEBRoleMapAlgorithm::GetInstance().GetUserPrivileges(role);
  return role.nPerm;
}

// Opens the role map and asks what the account of this process is granted.
u32 OpenedRightsOfProcess() {
  EXPECT_EQ(OSOpenRolemapFile(), 0u);
  return OSGetRightsUsingRolemap();
}

// --- The command log ------------------------------------------------------------------------------------------------

constexpr const char *kCommandLog = "/opt/vorn/fleetops/var/log/kelvestane/qxcmdlog.xml";

struct Report {
  int commandId;
  unsigned long line;
};

// An entry, but for its time.
std::string Entry(const std::string &type, const std::string &id, const std::string &user, const std::string &source,
                  const std::string &description) {
  return "<LogEntry><TimeStamp/><DateTime/><ComputerName>sandbox</ComputerName><Type>" + type + "</Type><ID>" + id +
         "</ID><UserInfo>" + user + "</UserInfo><Source>" + source + "</Source><Description>" + description +
         "</Description><Data></Data></LogEntry>";
}

// The whole log of these reports; no log for none.
std::string LogOf(const std::vector<Report> &reports) {
  if (reports.empty()) return "";
  std::string log = R"(<?xml-stylesheet type="text/xsl" version="1.0" encoding="UTF-8"?><EventLog>)";
  log += Entry("4", "0", "Local System", "HALV", "Log was cleared");
  for (const Report &report : reports) {
    log += Entry("2", std::to_string(report.commandId), "root", "ZEBSERVER",
                 "<Parameter name=\"line\" value=\"" + std::to_string(report.line) + "\"/>");
  }
  return log + "</EventLog>";
}

// The log as it is, without the times in it.
std::string CommandLog() {
  if (access(kCommandLog, F_OK) != 0) return "";
  const std::regex times("<TimeStamp>[0-9]+</TimeStamp><DateTime>[^<]+</DateTime>");
  return std::regex_replace(sandbox::ReadFile(kCommandLog), times, "<TimeStamp/><DateTime/>");
}

// --- Accounts -------------------------------------------------------------------------------------------------------

// With these accounts the built-in rules show: root is not user id 0, so that the system does not make him superuser.
void SetAccountsThatShowTheDefaults() {
  ASSERT_TRUE(
      sandbox::SetAccounts("root:x:1005:1005::/:/bin/sh\n"
                           "carol:x:1003:0::/:/bin/sh\n"
                           "alice:x:1001:50::/:/bin/sh\n"
                           "op:x:0:50::/:/bin/sh\n",
                           "root:x:0:\nstaff:x:50:\nwheel:x:10:alice\n"));
}

void ExpectDefaults(const std::string &what) {
  EXPECT_EQ(RightsOf("root@h"), 7u) << what;
  EXPECT_EQ(RightsOf("root"), 7u) << what;
  EXPECT_EQ(RightsOf("carol@h"), 3u) << what << ": a member of group root";
  EXPECT_EQ(RightsOf("alice@h"), 1u) << what;
  EXPECT_EQ(RightsOf("no-such-account@h"), 1u) << what;
  EXPECT_EQ(RightsOf("op@h"), kSuperuser) << what;
}

// Makes `name` the account of this process, which is user 0, while a lookup by its name finds another entry first.
void SetProcessAccount(const std::string &name, const std::string &idsByName) {
  ASSERT_TRUE(sandbox::SetAccounts(name + ":x:" + idsByName + "::/:/bin/sh\n" + name + ":x:0:0::/:/bin/sh\n",
                                   "root:x:0:\nstaff:x:50:\n"));
}

class Rights : public testing::Test {
 protected:
  void SetUp() override { sandbox::RequireSandbox(); }
};
using GetUserRights = Rights;
using OpenRolemapFile = Rights;
using GetRightsUsingRolemap = Rights;

}  // namespace

TEST_F(GetUserRights, UserAndHostAreTakenApart) {
  const struct {
    std::string_view userSpec;
    const char *user;
    const char *host;
    std::string_view left;
  } cases[] = {
      {"zoe@web01", "zoe", "web01", "zoe\0web01"sv},
      {"zoe@Web01", "zoe", "web01", "zoe\0Web01"sv},
      {"ZOE@WEB01.Lab.EXAMPLE", "ZOE", "web01.lab.example", "ZOE\0WEB01.Lab.EXAMPLE"sv},
      {"zoe@2001:DB8::A", "zoe", "2001:db8::a", "zoe\0002001:DB8::A"sv},
      {"zoe@", "zoe", "", "zoe\0"sv},
      {"@host", "", "host", "\0host"sv},
      {"@", "", "", "\0"sv},
      {"@@", "", "", "\0\0"sv},
      {"a@@b", "a", "", "a\0\0b"sv},
      {"@@b", "", "", "\0\0b"sv},
      {"a@b@", "a", "b", "a\0b\0"sv},
      {"a@b@c", "a", "b", "a\0b\0c"sv},
      {"a@b@c@d", "a", "b", "a\0b\0c@d"sv},
      {"WEB01\\zoe", "zoe", "web01", "WEB01\0zoe"sv},
      {"Web01\\Zoe", "Zoe", "web01", "Web01\0Zoe"sv},
      {"\\name", "name", "", "\0name"sv},
      {"host\\", "", "host", "host\0"sv},
      {"\\", "", "", "\0"sv},
      {"\\\\", "", "", "\0\0"sv},
      {"a\\\\b", "", "a", "a\0\0b"sv},
      {"\\\\b", "", "", "\0\0b"sv},
      {"a\\b\\c", "b", "a", "a\0b\0c"sv},
      {"a\\b\\c\\d", "b", "a", "a\0b\0c\\d"sv},
      {"a\\b@c", "a\\b", "c", "a\\b\0c"sv},
      {"a@b\\c", "a", "b\\c", "a\0b\\c"sv},
      {"\\@b", "\\", "b", "\\\0b"sv},
      {"@a\\b", "", "a\\b", "\0a\\b"sv},
      {"zoe", "zoe", "sandbox", "zoe"sv},
      {"ZOE", "ZOE", "sandbox", "ZOE"sv},
      {"zoe.%+-_/:;", "zoe.%+-_/:;", "sandbox", "zoe.%+-_/:;"sv},
      {"", "", "sandbox", ""sv},
  };
  for (const auto &c : cases) {
    // The second items give an empty name and an empty host a column to stand in.
    WriteRoleMap(std::string(c.user) + ",other " + c.host + ",other poweruser\n* * user\n");
    const sandbox::GuardedBuffer text(c.userSpec.size() + 1);
    std::memcpy(text.data<char>(), std::string(c.userSpec).c_str(), text.size());
    EXPECT_EQ(get_user_rights(text.data<char>()), 3u) << c.userSpec;
    const std::string expected = std::string(c.left) + '\0';
    EXPECT_EQ(std::string(text.data<char>(), text.size()), expected) << c.userSpec;
  }
  EXPECT_EQ(CommandLog(), "");
}

TEST_F(GetUserRights, NullHasNoneAndLoadsNothing) {
  EXPECT_EQ(get_user_rights(nullptr), 0u);
  EXPECT_EQ(CommandLog(), "") << "nobody looked for the file";
}

TEST_F(GetUserRights, EmptyHostIsMatchedByRulesForAnyHostOnly) {
  WriteRoleMap("zoe sandbox administrator\nzoe h poweruser\n");
  EXPECT_EQ(RightsOf("zoe@"), 0u);
  WriteRoleMap("zoe sandbox administrator\nzoe * user\n");
  EXPECT_EQ(RightsOf("zoe@"), 1u);
  EXPECT_EQ(RightsOf("\\zoe"), 1u);
}

TEST_F(GetUserRights, NameAloneIsAUserOnThisMachine) {
  const std::string longest = "LongestHostName-" + std::string(48, 'X');
  const std::string longestLowered = "longesthostname-" + std::string(48, 'x');
  const struct {
    std::string hostName;
    std::string ruleHost;
  } cases[] = {{"sandbox", "sandbox"},
               {"SandBox", "sandbox"},
               {"Web01.Lab.Example", "web01.lab.example"},
               {longest, longestLowered}};
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::SetHostName(c.hostName));
    WriteRoleMap("zoe " + c.ruleHost + " poweruser\nzoe * user\n");
    EXPECT_EQ(RightsOf("zoe"), 3u) << c.hostName;
    EXPECT_EQ(RightsOf("zoe@other"), 1u) << c.hostName;
  }
}

TEST_F(GetUserRights, SystemRaisesWhatTheRoleMapGrants) {
  const char *const roles[] = {"", "user", "poweruser", "administrator"};
  const struct {
    const char *userSpec;
    u32 expected[4];  // by the roles above
  } cases[] = {
      {"alice@h", {0, 1, 3, 7}},
      {"alice", {0, 1, 3, 7}},
      {"carol@h", {0, 3, 3, 7}},  // her primary group is group id 0
      {"carol", {0, 3, 3, 7}},
      {"eve@h", {0, 3, 3, 7}},  // a member of group id 0
      {"no-such-account@h", {0, 1, 3, 7}},
      {"root@h", {kSuperuser, kSuperuser, kSuperuser, kSuperuser}},
      {"root@", {kSuperuser, kSuperuser, kSuperuser, kSuperuser}},
      {"root", {kSuperuser, kSuperuser, kSuperuser, kSuperuser}},
      {"toor@h", {kSuperuser, kSuperuser, kSuperuser, kSuperuser}},
      {"Root@h", {0, 1, 3, 7}},
      {"@root", {0, 1, 3, 7}},
      {"", {0, 1, 3, 7}},
  };
  ASSERT_TRUE(
      sandbox::SetAccounts("root:x:0:0::/:/bin/sh\ntoor:x:0:50::/:/bin/sh\nalice:x:1001:50::/:/bin/sh\n"
                           "carol:x:1003:0::/:/bin/sh\neve:x:1005:50::/:/bin/sh\n",
                           "staff:x:50:\nwheel:x:10:alice\nroot:x:0:eve\n"));
  for (size_t role = 0; role < std::size(roles); ++role) {
    WriteRoleMap("nobody-else nowhere user\n" + (*roles[role] ? "* * "s + roles[role] + "\n" : ""s));
    for (const auto &c : cases)
      EXPECT_EQ(RightsOf(c.userSpec), c.expected[role]) << c.userSpec << " as " << roles[role];
  }
}

TEST_F(GetUserRights, KeptHostBeforeABackslashIsTheAccountThatTheSystemIsAskedAbout) {
  const char *const roles[] = {"", "user", "poweruser", "administrator"};
  const struct {
    const char *userSpec;
    u32 expected[4];  // by the roles above
  } cases[] = {
      {"root\\alice", {kSuperuser, kSuperuser, kSuperuser, kSuperuser}},
      {"root\\no-such-account", {kSuperuser, kSuperuser, kSuperuser, kSuperuser}},
      {"root\\", {kSuperuser, kSuperuser, kSuperuser, kSuperuser}},
      {"ROOT\\alice", {0, 1, 3, 7}},  // only the role map gets the host in lower case
      {"carol\\alice", {0, 3, 3, 7}},
      {"alice\\carol", {0, 1, 3, 7}},
      {"alice\\root", {0, 1, 3, 7}},
      {"web01\\root", {0, 1, 3, 7}},
      {"\\root", {0, 1, 3, 7}},
  };
  for (size_t role = 0; role < std::size(roles); ++role) {
    WriteRoleMap("nobody-else nowhere user\n" + (*roles[role] ? "* * "s + roles[role] + "\n" : ""s));
    for (const auto &c : cases)
      EXPECT_EQ(RightsOf(c.userSpec), c.expected[role]) << c.userSpec << " as " << roles[role];
  }
}

TEST_F(GetUserRights, NamesThatAreNotValidInTheLocaleMatchNoRule) {
  WriteRoleMap("* * administrator\n");
  for (const char *locale : {"C", "C.UTF-8"}) {
    ASSERT_NE(std::setlocale(LC_ALL, locale), nullptr);
    EXPECT_EQ(RightsOf("\xFF@h"), 0u) << locale;
    EXPECT_EQ(RightsOf("zoe\xC3@h"), 0u) << locale;
    EXPECT_EQ(RightsOf("zoe@\xFF"), 0u) << locale;
    EXPECT_EQ(RightsOf("h\\\xFF"), 0u) << locale;
    EXPECT_EQ(RightsOf("\xFF\\zoe"), 0u) << locale;
    EXPECT_EQ(RightsOf("root@\xFF"), kSuperuser) << locale << ": the system knows him all the same";
    EXPECT_EQ(RightsOf("root\\\xFF"), kSuperuser) << locale;
    EXPECT_EQ(RightsOf("zoe@h"), 7u) << locale;
  }
  ASSERT_TRUE(sandbox::SetHostName("h\xFF"));
  EXPECT_EQ(RightsOf("zoe"), 0u);
}

TEST_F(GetUserRights, NamesAreReadInTheLocale) {
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  std::locale::global(std::locale("C.UTF-8"));
  WriteRoleMap("d\xC3\xA9j\xC3\xA0 \xC3\x89T\xC3\x89 poweruser\n");
  EXPECT_EQ(RightsOf("d\xC3\xA9j\xC3\xA0@\xC3\x89t\xC3\x89"), 3u) << "ASCII letters of a host are folded";
  EXPECT_EQ(RightsOf("\xC3\x89T\xC3\x89\\d\xC3\xA9j\xC3\xA0"), 3u);
  EXPECT_EQ(RightsOf("d\xC3\xA9j\xC3\xA0@\xC3\xA9t\xC3\xA9"), 0u) << "others are not";
  EXPECT_EQ(RightsOf("D\xC3\xA9j\xC3\xA0@\xC3\x89t\xC3\x89"), 0u) << "and of names none is";
}

TEST_F(GetUserRights, LongNames) {
  const std::string user(100000, 'u');
  const std::string host(100000, 'H');
  WriteRoleMap(user + " " + host + " poweruser\n");
  EXPECT_EQ(RightsOf(user + "@" + host), 3u);
  EXPECT_EQ(RightsOf(host + "\\" + user), 3u);
  EXPECT_EQ(RightsOf(user + "@" + host + "h"), 0u);
}

// --- A role map that cannot be used ---------------------------------------------------------------------------------

TEST_F(GetUserRights, UnusableRoleMapIsReportedAndTheDefaultsStandIn) {
  const struct {
    const char *what;
    std::function<void()> make;
    Report report;
  } cases[] = {
      {"missing", [] {}, {5912, 0}},
      {"mode 0644", [] { WriteRoleMap("zoe * administrator\n", 0644); }, {5913, 0}},
      {"mode 0600", [] { WriteRoleMap("zoe * administrator\n", 0600); }, {5913, 0}},
      {"mode 0660", [] { WriteRoleMap("zoe * administrator\n", 0660); }, {5913, 0}},
      {"set-user-id", [] { WriteRoleMap("zoe * administrator\n", 04640); }, {5913, 0}},
      {"malformed, but of another mode", [] { WriteRoleMap("bad\n", 0644); }, {5913, 0}},
      {"directory", [] { ASSERT_EQ(mkdir(sandbox::kRoleMapPath, 0640), 0); }, {5913, 0}},
      {"link to nowhere", [] { ASSERT_EQ(symlink("nowhere", sandbox::kRoleMapPath), 0); }, {5912, 0}},
      {"empty", [] { WriteRoleMap(""); }, {5914, 0}},
      {"without an entry", [] { WriteRoleMap("# zoe * administrator\n\n \t\n"); }, {5914, 0}},
      {"unknown role", [] { WriteRoleMap("carol * operator\n"); }, {5911, 1}},
      {"missing column", [] { WriteRoleMap("# 1\n\nzoe * administrator\ndave *\n"); }, {5911, 4}},
      {"carriage returns", [] { WriteRoleMap("# 1\r\nzoe * administrator\r\n"); }, {5911, 2}},
      {"far down", [] { WriteRoleMap(std::string(12344, '\n') + "bad\nworse\n"); }, {5911, 12345}},
      {"duplicate", [] { WriteRoleMap("zoe h administrator\n\nbob h user\n#\nbob H poweruser\n"); }, {5916, 5}},
      {"duplicate in a line", [] { WriteRoleMap("#\nzoe * administrator\nbob,bob * user\n"); }, {5916, 3}},
  };
  SetAccountsThatShowTheDefaults();
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::RemoveTree(sandbox::kRoleMapPath));
    ASSERT_TRUE(sandbox::RemoveTree(kCommandLog));
    c.make();
    sandbox::Process process;
    ASSERT_TRUE(process.Start([&c](sandbox::Channel &) {
      EXPECT_EQ(RightsOf("zoe@h"), 1u) << c.what;
      EXPECT_EQ(CommandLog(), LogOf({c.report})) << c.what;
      ExpectDefaults(c.what);
      return 0;
    }));
    EXPECT_EQ(process.Wait(), 0) << c.what;
  }
}

TEST_F(GetUserRights, UnreadableRoleMapIsReportedAsMissing) {
  EXPECT_EQ(sandbox::RunWithUnreadableRoleMap([] {
              SetAccountsThatShowTheDefaults();
              EXPECT_EQ(RightsOf("zoe@h"), 1u);
              EXPECT_EQ(CommandLog(), LogOf({{5912, 0}}));
              ExpectDefaults("unreadable");
              return 0;
            }),
            0);
}

TEST_F(GetUserRights, EveryCallThatMeetsAFailureReportsIt) {
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  EXPECT_EQ(RightsOf("root@h"), kSuperuser) << "also where the answer does not depend on it";
  EXPECT_EQ(OSOpenRolemapFile(), 0u);
  EXPECT_EQ(KCSOpenRolemapFile(), 0u);
  EXPECT_EQ(OSGetRightsUsingRolemap(), 7u);
  EXPECT_EQ(KCSGetRightsUsingRolemap(), 7u);
  EXPECT_EQ(CommandLog(), LogOf({{5912, 0}, {5912, 0}, {5912, 0}, {5912, 0}, {5912, 0}, {5912, 0}}));
}

TEST_F(GetUserRights, ReportStandsBehindWhatTheLogHolds) {
  ASSERT_EQ(KCSAppendToCmdLog(5001, "<alice>", "TEST", "<First/>", 4), SM_STATUS_SUCCESS);
  const std::string before = CommandLog();
  constexpr std::string_view end = "</EventLog>";
  ASSERT_TRUE(before.ends_with(end));
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  const std::string report = Entry("2", "5912", "root", "ZEBSERVER", "<Parameter name=\"line\" value=\"0\"/>");
  EXPECT_EQ(CommandLog(), before.substr(0, before.size() - end.size()) + report + std::string(end));
}

TEST_F(GetUserRights, ReportThatCannotBeWrittenChangesNoAnswer) {
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLogDirectory));
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kLogDirectory, "in the way"));
  SetAccountsThatShowTheDefaults();
  ExpectDefaults("no log");
  EXPECT_EQ(sandbox::ReadFile(sandbox::kLogDirectory), "in the way");
}

TEST_F(GetUserRights, MissingFileThatAppearsIsRead) {
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  WriteRoleMap("zoe * poweruser\n");
  EXPECT_EQ(RightsOf("zoe@h"), 3u);
  EXPECT_EQ(RightsOf("alice@h"), 0u) << "the defaults are gone";
  EXPECT_EQ(CommandLog(), LogOf({{5912, 0}}));
}

TEST_F(GetUserRights, FileOfAWrongModeIsReadOnceThatIsMended) {
  WriteRoleMap("zoe * poweruser\n", 0644);
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  ASSERT_EQ(chmod(sandbox::kRoleMapPath, 0640), 0);
  EXPECT_EQ(RightsOf("zoe@h"), 3u) << "its time has not been looked at before";
  EXPECT_EQ(RightsOf("alice@h"), 0u);
  EXPECT_EQ(CommandLog(), LogOf({{5913, 0}, {5913, 0}}));
}

TEST_F(GetUserRights, FileThatCouldNotBeReadIsReadLater) {
  EXPECT_EQ(sandbox::RunWithUnreadableRoleMap([] {
              EXPECT_EQ(RightsOf("zoe@h"), 1u);
              // A file that is mounted over the unreadable one takes its place for this process alone.
              const std::string good = std::string(sandbox::kRoleMapPath) + ".good";
              EXPECT_TRUE(sandbox::WriteFile(good, "zoe * poweruser\n", 0640, 5000));
              EXPECT_EQ(unshare(CLONE_NEWNS), 0);
              EXPECT_EQ(mount(good.c_str(), sandbox::kRoleMapPath, nullptr, MS_BIND, nullptr), 0);
              EXPECT_EQ(RightsOf("zoe@h"), 3u);
              EXPECT_EQ(CommandLog(), LogOf({{5912, 0}}));
              return 0;
            }),
            0);
}

TEST_F(GetUserRights, KeptAfterAFormatErrorTheFileIsEmptyForGood) {
  WriteRoleMap("zoe * administrator\nbad\n");
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  WriteRoleMap("zoe * administrator\n");
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  WriteRoleMap("zoe * poweruser\n");
  EXPECT_EQ(OSOpenRolemapFile(), 0u);
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  EXPECT_EQ(CommandLog(), LogOf({{5911, 2}, {5914, 0}, {5914, 0}, {5914, 0}}));
}

TEST_F(GetUserRights, KeptFileFoundEmptyStaysEmptyWhenFilled) {
  WriteRoleMap("# nothing\n");
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  WriteRoleMap("zoe * administrator\n");
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  EXPECT_EQ(CommandLog(), LogOf({{5914, 0}, {5914, 0}}));
}

TEST_F(GetUserRights, AfterAFormatErrorKindAndModeAreStillReported) {
  WriteRoleMap("bad\n");
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  ASSERT_EQ(chmod(sandbox::kRoleMapPath, 0600), 0);
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  ASSERT_EQ(unlink(sandbox::kRoleMapPath), 0);
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  EXPECT_EQ(CommandLog(), LogOf({{5911, 1}, {5913, 0}, {5912, 0}}));
}

TEST_F(GetUserRights, GoodFileThatBecomesMalformedGivesWayToTheDefaults) {
  SetAccountsThatShowTheDefaults();
  WriteRoleMap("zoe * administrator\n");
  EXPECT_EQ(RightsOf("zoe@h"), 7u);
  WriteRoleMap("zoe * administrator\n# 2\nzoe\n");
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  EXPECT_EQ(CommandLog(), LogOf({{5911, 3}}));
  ExpectDefaults("malformed now");
}

TEST_F(GetUserRights, KeptDuplicateIsReportedOnceAndTheDefaultsStayUntilTheFileIsSaved) {
  SetAccountsThatShowTheDefaults();
  WriteRoleMap("zoe * administrator\nbob * user\nbob * user\n");
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  ExpectDefaults("duplicate");
  EXPECT_EQ(OSGetRightsUsingRolemap(), 1u) << "user op of the defaults";
  EXPECT_EQ(CommandLog(), LogOf({{5916, 3}}));
  WriteRoleMap("zoe * administrator\nbob * user\n");
  EXPECT_EQ(RightsOf("zoe@h"), 7u);
  EXPECT_EQ(RightsOf("alice@h"), 0u);
  WriteRoleMap("bob * user\nbob * user\n");
  EXPECT_EQ(RightsOf("zoe@h"), 1u) << "and again";
  EXPECT_EQ(CommandLog(), LogOf({{5916, 3}, {5916, 2}}));
}

TEST_F(GetUserRights, KeptGoodFileThatGoesAwayOrChangesItsModeStillAnswers) {
  // Tables that are current are not filled anew, neither from the defaults nor from the file: only a new time of a
  // file that can be used makes them stale.
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * poweruser\n", 0640, 5000));
  EXPECT_EQ(RightsOf("zoe@h"), 3u);
  ASSERT_EQ(chmod(sandbox::kRoleMapPath, 0644), 0);
  EXPECT_EQ(RightsOf("zoe@h"), 3u);
  EXPECT_EQ(RightsOf("alice@h"), 0u);
  ASSERT_EQ(unlink(sandbox::kRoleMapPath), 0);
  EXPECT_EQ(RightsOf("zoe@h"), 3u);
  EXPECT_EQ(CommandLog(), LogOf({{5913, 0}, {5913, 0}, {5912, 0}})) << "though it is reported";
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * administrator\n", 0640, 5000));
  EXPECT_EQ(RightsOf("zoe@h"), 3u) << "no new time was seen";
  ASSERT_TRUE(sandbox::SetModificationTime(sandbox::kRoleMapPath, 5001));
  EXPECT_EQ(RightsOf("zoe@h"), 7u);
  EXPECT_EQ(CommandLog(), LogOf({{5913, 0}, {5913, 0}, {5912, 0}}));
}

TEST_F(GetUserRights, ChangedTimeIsWhatMakesAFileChanged) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * user\n", 0640, 5000));
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * poweruser\n", 0640, 5000));
  EXPECT_EQ(RightsOf("zoe@h"), 1u) << "same second";
  ASSERT_TRUE(sandbox::SetModificationTime(sandbox::kRoleMapPath, 4999));
  EXPECT_EQ(RightsOf("zoe@h"), 3u) << "an older time is a change too";
  ASSERT_TRUE(sandbox::SetModificationTime(sandbox::kRoleMapPath, 6000));
  EXPECT_EQ(RightsOf("zoe@h"), 3u);
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "bob * user\n", 0640, 6001));
  EXPECT_EQ(RightsOf("zoe@h"), 0u);
  EXPECT_EQ(CommandLog(), "");
}

TEST_F(GetUserRights, KeptFileOfTimeZeroThatAppearsIsNoChange) {
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * administrator\n", 0640, 0));
  EXPECT_EQ(RightsOf("zoe@h"), 1u) << "it is read, and the tables of the defaults stay";
  EXPECT_EQ(CommandLog(), LogOf({{5912, 0}}));
  ASSERT_TRUE(sandbox::SetModificationTime(sandbox::kRoleMapPath, 1));
  EXPECT_EQ(RightsOf("zoe@h"), 7u);
}

TEST_F(GetUserRights, GoodFileLeavesNoLog) {
  WriteRoleMap("zoe * poweruser\n");
  for (int times = 0; times < 3; ++times) EXPECT_EQ(RightsOf("zoe@h"), 3u);
  EXPECT_EQ(CommandLog(), "");
}

// --- Opening first, asking later ------------------------------------------------------------------------------------

TEST_F(OpenRolemapFile, AnswersZeroWhateverTheFileIs) {
  for (u32 (*const open)() : {&OSOpenRolemapFile, &KCSOpenRolemapFile}) {
    ASSERT_TRUE(sandbox::RemoveTree(sandbox::kRoleMapPath));
    EXPECT_EQ(open(), 0u);
    WriteRoleMap("zoe * user\n", 0644);
    EXPECT_EQ(open(), 0u);
    WriteRoleMap("zoe * user\n");
    EXPECT_EQ(open(), 0u);
  }
  EXPECT_EQ(CommandLog(), LogOf({{5912, 0}, {5913, 0}, {5912, 0}, {5913, 0}}));
}

TEST_F(OpenRolemapFile, InstallsTheDefaultsForAFileThatCannotBeOpened) {
  EXPECT_EQ(Granted(L"root", L"h"), 0);
  EXPECT_EQ(OSOpenRolemapFile(), 0u);
  EXPECT_EQ(Granted(L"root", L"h"), 7);
  EXPECT_EQ(Granted(L"carol", L"h"), 3);
  EXPECT_EQ(Granted(L"zoe", L"h"), 1);
}

TEST_F(OpenRolemapFile, DoesNotReadTheFile) {
  WriteRoleMap("bad\n");
  EXPECT_EQ(OSOpenRolemapFile(), 0u);
  EXPECT_EQ(Granted(L"zoe", L"h"), 0);
  EXPECT_EQ(CommandLog(), "");
  EXPECT_EQ(OSGetRightsUsingRolemap(), 7u) << "user root of the defaults";
  EXPECT_EQ(CommandLog(), LogOf({{5911, 1}}));
}

TEST_F(OpenRolemapFile, KeptUserRightsAskedForRightAfterItFindTheFileEmpty) {
  WriteRoleMap("zoe * administrator\n");
  EXPECT_EQ(OSOpenRolemapFile(), 0u);
  EXPECT_EQ(RightsOf("zoe@h"), 1u) << "the file is open and cannot be opened again";
  EXPECT_EQ(CommandLog(), LogOf({{5914, 0}}));
  WriteRoleMap("zoe * poweruser\n");
  EXPECT_EQ(RightsOf("zoe@h"), 1u) << "for good";
  EXPECT_EQ(CommandLog(), LogOf({{5914, 0}, {5914, 0}}));
}

TEST_F(OpenRolemapFile, KeptOpeningTwiceMakesTheFileEmpty) {
  SetProcessAccount("op", "0:50");
  WriteRoleMap("op * poweruser\n");
  EXPECT_EQ(OSOpenRolemapFile(), 0u);
  EXPECT_EQ(OSOpenRolemapFile(), 0u);
  EXPECT_EQ(OSGetRightsUsingRolemap(), 1u);
  EXPECT_EQ(CommandLog(), LogOf({{5914, 0}}));
}

TEST_F(OpenRolemapFile, HarmsNoFileThatHasBeenRead) {
  WriteRoleMap("zoe * poweruser\n");
  EXPECT_EQ(RightsOf("zoe@h"), 3u);
  for (int times = 0; times < 3; ++times) EXPECT_EQ(OSOpenRolemapFile(), 0u);
  EXPECT_EQ(RightsOf("zoe@h"), 3u);
  EXPECT_EQ(CommandLog(), "");
}

TEST_F(GetRightsUsingRolemap, IsWhatTheRoleMapGrantsAndNothingElse) {
  const struct {
    const char *what;
    const char *idsByName;
    const char *rule;
    u32 expected;
  } cases[] = {
      {"user id 0, user", "0:0", "op * user\n", 1},
      {"user id 0, power user", "0:0", "op * poweruser\n", 3},
      {"user id 0, administrator", "0:0", "op * administrator\n", 7},
      {"user id 0, no grant", "0:0", "zoe * user\n", 7},
      {"group id 0, user", "1005:0", "op * user\n", 1},
      {"group id 0, administrator", "1005:0", "op * administrator\n", 7},
      {"group id 0, no grant", "1005:0", "zoe * user\n", 0},
      {"other, user", "1005:50", "op * user\n", 1},
      {"other, power user", "1005:50", "op * poweruser\n", 3},
      {"other, no grant", "1005:50", "zoe * user\n", 0},
      {"by a group", "1005:50", "+staff * poweruser\n", 3},
      {"name in another letter case", "1005:50", "Op * poweruser\n", 0},
      {"this host", "1005:50", "op sandbox poweruser\nop * user\n", 3},
      {"another host", "1005:50", "op web01 poweruser\nop * user\n", 1},
  };
  for (const auto &c : cases) {
    SetProcessAccount("op", c.idsByName);
    WriteRoleMap(c.rule);
    EXPECT_EQ(OpenedRightsOfProcess(), c.expected) << c.what;
    EXPECT_EQ(KCSGetRightsUsingRolemap(), c.expected) << c.what;
  }
  EXPECT_EQ(CommandLog(), "");
}

TEST_F(GetRightsUsingRolemap, HostIsThisMachineInLowerCase) {
  const std::string longest = "LongestHostName-" + std::string(48, 'X');
  SetProcessAccount("op", "0:50");
  ASSERT_TRUE(sandbox::SetHostName("Web01.Lab"));
  WriteRoleMap("op web01.lab poweruser\nop * user\n");
  EXPECT_EQ(OpenedRightsOfProcess(), 3u);
  ASSERT_TRUE(sandbox::SetHostName(longest));
  WriteRoleMap("op " + longest + " poweruser\nop * user\n");
  EXPECT_EQ(OpenedRightsOfProcess(), 3u);
}

TEST_F(GetRightsUsingRolemap, AccountIsOfTheRealUser) {
  WriteRoleMap("alice sandbox poweruser\nroot sandbox user\n");
  if (!sandbox::CanSwitchAccounts()) {
    EXPECT_EQ(OpenedRightsOfProcess(), 1u) << "there is but one account to be";
    return;
  }
  sandbox::Process process;
  ASSERT_TRUE(process.Start([](sandbox::Channel &) {
    EXPECT_EQ(setresuid(1001, 0, 0), 0);
    EXPECT_EQ(OpenedRightsOfProcess(), 3u);
    WriteRoleMap("root sandbox user\n");
    EXPECT_EQ(OpenedRightsOfProcess(), 0u) << "the system grants alice something, which does not count";
    EXPECT_EQ(setresuid(0, 1001, 0), 0);
    EXPECT_EQ(OSGetRightsUsingRolemap(), 1u);
    return 0;
  }));
  EXPECT_EQ(process.Wait(), 0);
}

TEST_F(GetRightsUsingRolemap, ProcessWithoutAnAccountHasNoneAndLoadsNothing) {
  ASSERT_TRUE(sandbox::SetAccounts("alice:x:1001:50::/:/bin/sh\n", "staff:x:50:\n"));
  EXPECT_EQ(OSGetRightsUsingRolemap(), 0u);
  EXPECT_EQ(CommandLog(), "") << "nobody looked for the file";
  WriteRoleMap("* * administrator\n");
  EXPECT_EQ(OpenedRightsOfProcess(), 0u);
}

TEST_F(GetRightsUsingRolemap, NamesThatAreNotValidInTheLocaleMatchNoRule) {
  SetProcessAccount("op\xFF", "1005:50");
  WriteRoleMap("* * administrator\n");
  EXPECT_EQ(OpenedRightsOfProcess(), 0u);
  SetProcessAccount("op\xFF", "0:0");
  EXPECT_EQ(OSGetRightsUsingRolemap(), 7u);
  SetProcessAccount("op", "1005:50");
  EXPECT_EQ(OSGetRightsUsingRolemap(), 7u);
  ASSERT_TRUE(sandbox::SetHostName("h\xFF"));
  EXPECT_EQ(OSGetRightsUsingRolemap(), 0u);
}

TEST_F(GetRightsUsingRolemap, WithoutOpeningThereIsNoFile) {
  SetProcessAccount("op", "0:50");
  WriteRoleMap("op * poweruser\n");
  EXPECT_EQ(OSGetRightsUsingRolemap(), 1u) << "the defaults";
  EXPECT_EQ(OSGetRightsUsingRolemap(), 1u);
  EXPECT_EQ(CommandLog(), LogOf({{5912, 0}, {5912, 0}}));
  EXPECT_EQ(OpenedRightsOfProcess(), 3u);
  EXPECT_EQ(CommandLog(), LogOf({{5912, 0}, {5912, 0}}));
}

TEST_F(GetRightsUsingRolemap, DoesNotNoticeAChangeByItself) {
  SetProcessAccount("op", "0:50");
  WriteRoleMap("op * poweruser\n");
  EXPECT_EQ(OpenedRightsOfProcess(), 3u);
  WriteRoleMap("op * user\n");
  EXPECT_EQ(OSGetRightsUsingRolemap(), 3u);
  ASSERT_EQ(unlink(sandbox::kRoleMapPath), 0);
  EXPECT_EQ(OSGetRightsUsingRolemap(), 3u);
  EXPECT_EQ(CommandLog(), "");
  WriteRoleMap("op * administrator\n");
  EXPECT_EQ(OSGetRightsUsingRolemap(), 3u);
  EXPECT_EQ(OpenedRightsOfProcess(), 7u);
  WriteRoleMap("op * user\n");
  EXPECT_EQ(RightsOf("op@h"), kSuperuser) << "opens the file as well";
  EXPECT_EQ(OSGetRightsUsingRolemap(), 1u);
}

TEST_F(GetRightsUsingRolemap, FailuresOfReadingAreReported) {
  const struct {
    const char *text;
    Report report;
  } cases[] = {{"op * poweruser\nbad\n", {5911, 2}},
               {"# nothing\n", {5914, 0}},
               {"op * poweruser\n\nop * poweruser\n", {5916, 3}}};
  SetProcessAccount("op", "0:50");
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::RemoveTree(kCommandLog));
    WriteRoleMap(c.text);
    sandbox::Process process;
    ASSERT_TRUE(process.Start([&c](sandbox::Channel &) {
      EXPECT_EQ(OpenedRightsOfProcess(), 1u) << c.text;
      EXPECT_EQ(CommandLog(), LogOf({c.report})) << c.text;
      return 0;
    }));
    EXPECT_EQ(process.Wait(), 0) << c.text;
  }
}

// --- Rights narrowed by a brand -------------------------------------------------------------------------------------

namespace {

constexpr const char *kOemRoot = "/opt/vorn/fleetops/etc/kelvestane/wwwroot/oem/";
constexpr u32 kIndexBefore = 0xA5A5A5A5;
constexpr u32 kHighBits[] = {0, 0x10000, 0x40000, 0x80000000, 0xFFFF0000};

struct Masked {
  u32 rights;
  u32 failureIndex;

  bool operator==(const Masked &) const = default;
  friend std::ostream &operator<<(std::ostream &out, const Masked &masked) {
    return out << std::hex << masked.rights << " index " << std::dec << masked.failureIndex;
  }
};

class MaskProgramRights : public testing::Test {
 protected:
  void SetUp() override {
    sandbox::RequireSandbox();
    WriteAppSettings("[OEM]\nname=acme\n");
    // Settings that would grant all, at places where nobody must look.
    WriteBrandSettings("acme", "debrand", "webuioem.ini", "[data]\naccessoverride=true\n");
    WriteBrandSettings("acme", "vorn", "oem.ini", "[data]\naccessoverride=true\n");
    WriteBrandSettings("acme", "vorn", "webui", "[data]\naccessoverride=true\n");
  }

  void WriteAppSettings(const std::string &text) { ASSERT_TRUE(sandbox::WriteFile(AppIni(), text)); }

  void WriteBrandSettings(const std::string &oemName, const std::string &brand, const std::string &fileName,
                          const std::string &text) {
    const std::string directory = kOemRoot + oemName + "/ini/" + brand;
    ASSERT_TRUE(sandbox::MakeDirectories(directory));
    ASSERT_TRUE(sandbox::WriteFile(directory + "/" + fileName, text));
  }

  // The settings of brand acme for the program webui.
  void WriteSettings(const std::string &text) { WriteBrandSettings("acme", "vorn", "webuioem.ini", text); }

  Masked Mask(u32 rights, const char *program = "webui") {
    u32 failureIndex = kIndexBefore;
    const u32 masked = KCSMaskProgramRights(rights, program, AppIni().c_str(), &failureIndex);
    return {masked, failureIndex};
  }

  std::string AppIni() const { return m_directory.Path("app.ini"); }

 private:
  sandbox::TemporaryDirectory m_directory;
};

Masked Untouched(u32 rights) { return {rights, kIndexBefore}; }

}  // namespace

TEST_F(MaskProgramRights, AdministratorsComeBackAtOnce) {
  WriteSettings("[data]\naccessmask=0\n");
  for (const u32 high : kHighBits) {
    EXPECT_EQ(Mask(high | 7), Untouched(high | 7)) << std::hex << high;
    u32 failureIndex = kIndexBefore;
    EXPECT_EQ(KCSMaskProgramRights(high | 7, "webui", "/no/such/file", &failureIndex), high | 7);
    EXPECT_EQ(KCSMaskProgramRights(high | 7, nullptr, nullptr, &failureIndex), high | 7) << "nothing is read";
    EXPECT_EQ(failureIndex, kIndexBefore);
    EXPECT_EQ(KCSMaskProgramRights(high | 7, nullptr, nullptr, nullptr), high | 7);
  }
}

TEST_F(MaskProgramRights, MaskNarrowsUsersAndPowerUsers) {
  constexpr s32 kLeast = std::numeric_limits<s32>::min();
  constexpr s32 kMost = std::numeric_limits<s32>::max();
  const struct {
    u32 privilege;
    s32 mask;
    u32 expected;
    u32 failureIndex;
  } cases[] = {
      {1, 3, 1, kIndexBefore},
      {1, 0, 0, 1001},
      {1, 1, 0, 1001},
      {1, 2, 0, 1001},
      {1, 4, 0, 1001},
      {1, 7, 0, 1001},
      {1, -1, 0, 1001},
      {1, kLeast, 0, 1001},
      {1, kMost, 0, 1001},
      {3, 0, 0, 1002},
      {3, 1, 1, kIndexBefore},
      {3, 2, 3, kIndexBefore},
      {3, 3, 3, kIndexBefore},
      {3, 4, 3, kIndexBefore},
      {3, 7, 3, kIndexBefore},
      {3, kMost, 3, kIndexBefore},
      // Neither user nor power user: whatever the mask.
      {0, 0, 0, kIndexBefore},
      {0, 3, 0, kIndexBefore},
      {0, -1, 0, kIndexBefore},
      {2, 0, 2, kIndexBefore},
      {4, 0, 4, kIndexBefore},
      {5, 1, 5, kIndexBefore},
      {6, 0, 6, kIndexBefore},
      {8, 0, 8, kIndexBefore},
      {0xB, 0, 0xB, kIndexBefore},
      {0xF, 0, 0xF, kIndexBefore},
      {0x101, 0, 0x101, kIndexBefore},
      {0x8003, 0, 0x8003, kIndexBefore},
      {0xFFFF, 0, 0xFFFF, kIndexBefore},
  };
  for (const auto &c : cases) {
    WriteSettings("[data]\naccessmask=" + std::to_string(c.mask) + "\n");
    for (const u32 high : kHighBits) {
      EXPECT_EQ(Mask(high | c.privilege), (Masked{high | c.expected, c.failureIndex}))
          << c.privilege << " mask " << c.mask << std::hex << " high bits " << high;
    }
  }
}

TEST_F(MaskProgramRights, KeptNegativeMaskCountsByItsTwoLowBits) {
  const struct {
    s32 mask;
    Masked expected;
  } cases[] = {{-1, {3, kIndexBefore}},
               {-2, {2, kIndexBefore}},
               {-3, {1, kIndexBefore}},
               {-4, {0, 1002}},
               {-5, {3, kIndexBefore}},
               {-8, {0, 1002}},
               {std::numeric_limits<s32>::min(), {0, 1002}},
               {std::numeric_limits<s32>::min() + 3, {3, kIndexBefore}}};
  for (const auto &c : cases) {
    WriteSettings("[data]\naccessmask=" + std::to_string(c.mask) + "\n");
    for (const u32 high : kHighBits) {
      EXPECT_EQ(Mask(high | 3), (Masked{high | c.expected.rights, c.expected.failureIndex}))
          << c.mask << std::hex << " high bits " << high;
    }
  }
}

TEST_F(MaskProgramRights, KeptOverrideGivesAllAndDropsTheHighBits) {
  WriteSettings("[data]\naccessmask=0\naccessoverride=true\n");
  for (const u32 privilege : {0u, 1u, 2u, 3u, 5u, 0xFFFFu}) {
    for (const u32 high : kHighBits) {
      EXPECT_EQ(Mask(high | privilege), Untouched(7)) << std::hex << (high | privilege);
    }
  }
  WriteSettings("[data]\naccessoverride=true\n");
  EXPECT_EQ(Mask(1), Untouched(7)) << "it needs no mask";
}

TEST_F(MaskProgramRights, OverrideIsOneWordExactly) {
  const std::string cases[] = {"TRUE",  "True", "true ", " true",     "truex",
                               "tru",   "",     "1",     "\"true\"",  "true\r",
                               "false", "yes",  "TRUE ", "true;true", std::string(8190, 't')};
  for (const std::string &value : cases) {
    WriteSettings("[data]\naccessoverride=" + value + "\naccessmask=1\n");
    EXPECT_EQ(Mask(3), Untouched(1)) << value;
    WriteSettings("[data]\naccessoverride=" + value + "\n");
    EXPECT_EQ(Mask(3), Untouched(0)) << value;
  }
}

TEST_F(MaskProgramRights, OverrideThatIsTooLongIsNone) {
  for (const size_t length : {8191u, 8192u, 8193u, 8300u}) {
    WriteSettings("[data]\naccessoverride=" + std::string(length, 't') + "\naccessmask=1\n");
    EXPECT_EQ(Mask(3), Untouched(1)) << length;
  }
}

TEST_F(MaskProgramRights, SettingsThatCannotBeReadLeaveNothing) {
  const struct {
    const char *what;
    const char *text;
  } cases[] = {
      {"empty file", ""},
      {"no section", "accessmask=3\naccessoverride=true\n"},
      {"another section", "[Data]\naccessmask=3\naccessoverride=true\n"},
      {"no key", "[data]\n"},
      {"other keys", "[data]\nAccessmask=3\nAccessoverride=true\n"},
      {"comments", "[data]\n#accessmask=3\n;accessoverride=true\n"},
      {"keys of the next section", "[data]\n[more]\naccessmask=3\naccessoverride=true\n"},
      {"header without an end", "[data\naccessmask=3\naccessoverride=true\n"},
  };
  EXPECT_EQ(Mask(3), Untouched(0)) << "no file";
  for (const auto &c : cases) {
    WriteSettings(c.text);
    for (const u32 privilege : {0u, 1u, 3u, 5u}) {
      for (const u32 high : kHighBits) EXPECT_EQ(Mask(high | privilege), Untouched(0)) << c.what << ' ' << privilege;
    }
  }
}

TEST_F(MaskProgramRights, WithoutABrandThereIsNothing) {
  WriteSettings("[data]\naccessmask=3\naccessoverride=true\n");
  ASSERT_EQ(Mask(1), Untouched(7));
  const struct {
    const char *what;
    const char *text;
  } cases[] = {
      {"empty file", ""},
      {"no section", "name=acme\n"},
      {"no key", "[OEM]\nbrand=acme\n"},
      {"section in another letter case", "[oem]\nname=acme\n"},
      {"key in another letter case", "[OEM]\nName=acme\n"},
      {"malformed header", "[broken\n[OEM]\nname=acme\n"},
      {"another brand", "[OEM]\nname=other\n"},
  };
  for (const auto &c : cases) {
    WriteAppSettings(c.text);
    EXPECT_EQ(Mask(0x40003), Untouched(0)) << c.what;
  }
  ASSERT_TRUE(sandbox::RemoveTree(AppIni()));
  EXPECT_EQ(Mask(0x40003), Untouched(0)) << "no file";
}

TEST_F(MaskProgramRights, LongestNameOfABrand) {
  WriteSettings("[data]\naccessmask=3\n");
  // All of these lead to the same directory.
  const struct {
    size_t length;
    u32 expected;
  } cases[] = {{4, 3}, {254, 3}, {255, 3}, {256, 0}, {257, 0}, {1000, 0}};
  for (const auto &c : cases) {
    WriteAppSettings("[OEM]\nname=acme" + std::string(c.length - 4, '/') + "\n");
    EXPECT_EQ(Mask(3), Untouched(c.expected)) << c.length;
  }
  const std::string name(255, 'n');
  WriteBrandSettings(name, "vorn", "webuioem.ini", "[data]\naccessmask=3\n");
  WriteAppSettings("[OEM]\nname=" + name + "n\n");
  EXPECT_EQ(Mask(3), Untouched(0)) << "a longer one is not cut";
}

TEST_F(MaskProgramRights, EmptyNameOfABrandIsOne) {
  ASSERT_TRUE(sandbox::MakeDirectories(std::string(kOemRoot) + "ini/vorn"));
  ASSERT_TRUE(sandbox::WriteFile(std::string(kOemRoot) + "ini/vorn/webuioem.ini", "[data]\naccessmask=1\n"));
  WriteAppSettings("[OEM]\nname=\n");
  EXPECT_EQ(Mask(3), Untouched(1));
}

TEST_F(MaskProgramRights, EachProgramHasItsSettings) {
  const std::string longest(248, 'p');
  WriteSettings("[data]\naccessmask=3\n");
  WriteBrandSettings("acme", "vorn", "clioem.ini", "[data]\naccessmask=1\n");
  WriteBrandSettings("acme", "vorn", longest + "oem.ini", "[data]\naccessmask=0\n");
  EXPECT_EQ(Mask(3, "webui"), Untouched(3));
  EXPECT_EQ(Mask(3, "cli"), Untouched(1));
  EXPECT_EQ(Mask(3, longest.c_str()), (Masked{0, 1002}));
  EXPECT_EQ(Mask(3, ""), Untouched(7)) << "the file that is called like the suffix alone";
  EXPECT_EQ(Mask(3, "other"), Untouched(0));
  EXPECT_EQ(Mask(3, std::string(100000, 'p').c_str()), Untouched(0));
  EXPECT_EQ(Mask(3, "%s%n"), Untouched(0)) << "a name is no format";
}

TEST_F(MaskProgramRights, NullTexts) {
  WriteSettings("[data]\naccessoverride=true\n");
  u32 failureIndex = kIndexBefore;
  EXPECT_EQ(KCSMaskProgramRights(3, nullptr, AppIni().c_str(), &failureIndex), 0u);
  EXPECT_EQ(KCSMaskProgramRights(3, "webui", nullptr, &failureIndex), 0u);
  EXPECT_EQ(failureIndex, kIndexBefore);
}

TEST_F(MaskProgramRights, FailureIndexMayBeNull) {
  WriteSettings("[data]\naccessmask=0\n");
  EXPECT_EQ(KCSMaskProgramRights(1, "webui", AppIni().c_str(), nullptr), 0u);
  EXPECT_EQ(KCSMaskProgramRights(0x40003, "webui", AppIni().c_str(), nullptr), 0x40000u);
}

// --- Threads --------------------------------------------------------------------------------------------------------

namespace {

constexpr int kUsers = 500;

// A role map in which every user has the same role. It is long enough for a reader of half of it to be seen.
std::string EqualRoles(const std::string &role) {
  std::string text;
  for (int i = 0; i < kUsers; ++i) text += "user" + std::to_string(i) + " * " + role + "\n";
  return text;
}

// Puts a version in the place of the file, which is there all the time.
void ReplaceRoleMap(const std::string &text, time_t time) {
  const std::string next = std::string(sandbox::kRoleMapPath) + ".next";
  ASSERT_TRUE(sandbox::WriteFile(next, text, 0640, time));
  ASSERT_EQ(std::rename(next.c_str(), sandbox::kRoleMapPath), 0);
}

}  // namespace

TEST_F(GetUserRights, AnswersOfThreadsAreOfTheOneVersionOrTheOther) {
  constexpr int kThreads = 4;
  constexpr int kCalls = 200;  // of each thread, at least
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(100);
  const std::string versions[] = {EqualRoles("poweruser"), EqualRoles("administrator")};
  SetProcessAccount("user7", "1005:50");
  ReplaceRoleMap(versions[0], 5000);
  ASSERT_EQ(RightsOf("user0@h"), 3u);
  std::atomic<bool> isOver = false;
  std::atomic<int> satisfied = 0;  // threads that have made their calls and met both versions
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&wrong, &isOver, &satisfied] {
      bool hasMet[2] = {};
      bool isSatisfied = false;
      for (int i = 0; !isOver; ++i) {
        const u32 rights = RightsOf("user" + std::to_string(i % kUsers) + "@h");
        const u32 own = OSGetRightsUsingRolemap();
        if ((rights != 3 && rights != 7) || (own != 3 && own != 7) || RightsOf("no-such-user@h") != 0) ++wrong;
        hasMet[rights == 7] = true;
        if (isSatisfied || i < kCalls || !hasMet[0] || !hasMet[1]) continue;
        isSatisfied = true;
        ++satisfied;
      }
    });
  }
  int version = 0;
  for (int i = 1; satisfied < kThreads && wrong == 0 && !HasFatalFailure(); ++i) {
    if (std::chrono::steady_clock::now() > end) break;
    version = 1 - version;
    ReplaceRoleMap(versions[version], 5000 + i);
  }
  isOver = true;
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(satisfied, kThreads);
  EXPECT_EQ(RightsOf("user0@h"), version == 0 ? 3u : 7u) << "the last version is what counts now";
  EXPECT_EQ(CommandLog(), "") << "none of them met a failure";
}

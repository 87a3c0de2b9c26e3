// zebctl rolemap check on a file that is not in place yet, and what it says of bytes that end the reading of the
// installed one. zebctl_test.cpp has the rest of the latter.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "program.h"
#include "sandbox.h"

namespace {

using nlohmann::json;

ProgramResult Check(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {ZEBCTL_PATH, "rolemap", "check"});
  return RunProgram(arguments);
}

// A file with a role map that is to be judged.
class Draft {
 public:
  explicit Draft(const std::string &text, mode_t mode = 0640) : m_path(m_directory.Path("draft")) {
    EXPECT_TRUE(sandbox::WriteFile(m_path, text, mode));
  }
  const std::string &path() const { return m_path; }

  ProgramResult Check(std::vector<std::string> arguments = {}) const {
    arguments.insert(arguments.begin(), {"--file", m_path});
    return ::Check(arguments);
  }

  json CheckInJSON() const { return json::parse(Check({"--json"}).output, nullptr, false); }

 private:
  sandbox::TemporaryDirectory m_directory;
  std::string m_path;
};

// The findings of a severity as pairs of line and kind.
json KindsOf(const json &answer, const char *severity) {
  json kinds = json::array();
  for (const json &finding : answer[severity]) kinds.push_back({finding["line"], finding["kind"]});
  return kinds;
}

struct Case {
  const char *what;
  std::string text;
  json errors;
  json warnings;
};

void CheckCases(const std::vector<Case> &cases) {
  for (const Case &c : cases) {
    const Draft draft(c.text);
    const ProgramResult result = draft.Check({"--json"});
    const json answer = json::parse(result.output, nullptr, false);
    EXPECT_EQ(result.status, c.errors.empty() ? 0 : 1) << c.what;
    EXPECT_EQ(result.errors, "") << c.what;
    EXPECT_EQ(answer["ok"], c.errors.empty()) << c.what;
    EXPECT_EQ(answer.contains("grants"), c.errors.empty()) << c.what;
    EXPECT_EQ(KindsOf(answer, "errors"), c.errors) << c.what;
    EXPECT_EQ(KindsOf(answer, "warnings"), c.warnings) << c.what;
  }
}

json Finding(int line, const char *kind) { return json::array({json::array({line, kind})}); }

const json kNone = json::array();

void AddOwnAddress(const std::string &address) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", address));
}

}  // namespace

TEST(ZebctlRolemapCheckFile, PrintsTheGrantsOfAGoodFile) {
  const Draft draft("# map\n\n +wheel,alice\tweb,LAB  PowerUser\n* * user");
  const ProgramResult result = draft.Check();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "LINE  NAME    HOST  ROLE       PRIVILEGE\n"
            "3     +wheel  web   poweruser  3\n"
            "3     +wheel  lab   poweruser  3\n"
            "3     alice   web   poweruser  3\n"
            "3     alice   lab   poweruser  3\n"
            "4     *       *     user       1\n");
  EXPECT_EQ(draft.Check({"--strict"}).status, 0);
  const json answer = draft.CheckInJSON();
  EXPECT_EQ(answer["file"], draft.path());
  EXPECT_EQ(answer["ok"], true);
  EXPECT_EQ(answer["errors"], kNone);
  EXPECT_EQ(answer["warnings"], kNone);
  ASSERT_EQ(answer["grants"].size(), 5u);
  EXPECT_EQ(answer["grants"][4], (json{{"line", 4}, {"name", "*"}, {"host", "*"}, {"role", "user"}, {"privilege", 1}}));
  struct stat information {};
  EXPECT_NE(stat(sandbox::kRoleMapPath, &information), 0) << "the installed file has no part in this";
}

TEST(ZebctlRolemapCheckFile, JudgesTypeAndMode) {
  sandbox::RequireSandbox();
  const struct {
    mode_t mode;
    const char *text;  // of the mode; NULL where it is in order
  } cases[] = {{0640, nullptr}, {01640, nullptr}, {0644, "0644"},  {0600, "0600"},
               {0660, "0660"},  {0440, "0440"},   {02640, "2640"}, {04640, "4640"}};
  for (const auto &c : cases) {
    const Draft draft("root * user\nbad\n", c.mode);
    const ProgramResult result = draft.Check();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.output, "");
    const std::string mode = c.text == nullptr ? ""
                                               : "zebctl: " + draft.path() + ": error: Its permissions are " + c.text +
                                                     " and must be 0640.\n";
    EXPECT_EQ(result.errors, mode + "zebctl: " + draft.path() +
                                 ": line 2: error: The line has one of the three columns NAMES HOSTS ROLE.\n");
  }
  EXPECT_EQ(Draft("root * user\n", 01640).Check().status, 0);

  const sandbox::TemporaryDirectory directory;
  EXPECT_EQ(Check({"--file", directory.path()}).errors,
            "zebctl: " + directory.path() + ": error: It is not a regular file.\n");
  const std::string pipe = directory.Path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0640), 0);
  EXPECT_EQ(Check({"--file", pipe}).errors, "zebctl: " + pipe + ": error: It is not a regular file.\n");
  const std::string missing = directory.Path("missing");
  const ProgramResult result = Check({"--file", missing});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.errors, "zebctl: " + missing + ": error: The file cannot be examined: No such file or directory.\n");
  const Draft target("root * user\n");
  const std::string link = directory.Path("link");
  ASSERT_EQ(symlink(target.path().c_str(), link.c_str()), 0);
  EXPECT_EQ(Check({"--file", link}).status, 0);
}

TEST(ZebctlRolemapCheckFile, FileWithoutAnEntryIsEmpty) {
  sandbox::RequireSandbox();
  CheckCases({{"nothing", "", Finding(0, "empty"), kNone},
              {"blank lines and comments", " \t\n# root * user\n  #\n", Finding(0, "empty"), kNone}});
  EXPECT_EQ(KindsOf(Draft("", 0600).CheckInJSON(), "errors"), json::parse(R"([[0, "mode"], [0, "empty"]])"));
}

TEST(ZebctlRolemapCheckFile, NamesEveryFaultyLineAndWhy) {
  const Draft draft(
      "root\n"
      "root *\n"
      "root * operator\n"
      "root * user\r\n"
      "\r\n"
      "root * owner\r\r\n"
      "alice, bob * user\n"
      "alice ,bob * user\n"
      "alice web, lab user\n"
      "root web # user\n"
      "# fine\r\n"
      "carol \\x user\n");
  const ProgramResult result = draft.Check();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "");
  const std::string kReturn =
      "The line ends with a carriage return, which is not a blank here. Save the file with plain newlines at the ends "
      "of its lines.";
  const std::string kTorn = " ends the column, and what follows counts as the next one. Remove the blank.";
  const std::vector<std::pair<int, std::string>> expected = {
      {1, "The line has one of the three columns NAMES HOSTS ROLE."},
      {2, "The line has two of the three columns NAMES HOSTS ROLE."},
      {3, "The role \"operator\" is not administrator, poweruser or user."},
      {4, kReturn},
      {5, kReturn},
      {6, kReturn},
      {6, "The role \"owner\" is not administrator, poweruser or user."},
      {7, "The blank beside the comma in \"alice, bob\"" + kTorn},
      {8, "The blank beside the comma in \"alice ,bob\"" + kTorn},
      {9, "The blank beside the comma in \"web, lab\"" + kTorn},
      {10, "The role \"#\" is not administrator, poweruser or user."},
  };
  std::string errors;
  for (const auto &[line, message] : expected) {
    errors += "zebctl: " + draft.path() + ": line " + std::to_string(line) + ": error: " + message + '\n';
  }
  EXPECT_EQ(result.errors, errors);
  const json answer = draft.CheckInJSON();
  EXPECT_EQ(answer["ok"], false);
  EXPECT_EQ(KindsOf(answer, "errors"),
            json::parse(R"([[1, "missing-column"], [2, "missing-column"], [3, "unknown-role"], [4, "carriage-return"],
              [5, "carriage-return"], [6, "carriage-return"], [6, "unknown-role"], [7, "shifted-column"],
              [8, "shifted-column"], [9, "shifted-column"], [10, "unknown-role"]])"));
  EXPECT_EQ(answer["errors"][2]["message"], expected[2].second);
}

TEST(ZebctlRolemapCheckFile, WarnsOfLinesThatAreAcceptedAndHardlyMeantSo) {
  sandbox::RequireSandbox();
  CheckCases({{"text after the third column", "root * user too\n", kNone, Finding(1, "ignored-text")},
              {"a carriage return for a fourth column", "root * user \r\n", kNone, Finding(1, "ignored-text")},
              {"a blank after a comma that shifts the columns and leaves three", "alice, web user\n", kNone,
               json::parse(R"([[1, "shifted-column"], [1, "empty-name"]])")},
              {"an empty name", "alice,,bob web user\n", kNone, Finding(1, "empty-name")},
              {"a group without a name", "+ web user\n", kNone, Finding(1, "empty-name")},
              {"an empty host", "alice web, user\n", kNone, Finding(1, "empty-host")},
              {"an unknown user, once", "zoe web user\nzoe lab user\n", kNone, Finding(1, "unknown-user")},
              {"names keep their capitals", "Alice web user\n", kNone, Finding(1, "unknown-user")},
              {"an unknown group", "+zoo * user\n", kNone, Finding(1, "unknown-group")},
              {"a group is no user and a user no group", "wheel,+alice * user\n", kNone,
               json::parse(R"([[1, "unknown-user"], [1, "unknown-group"]])")}});
  const Draft draft("root * user  too \tmuch\n");
  EXPECT_EQ(draft.Check().errors, "zebctl: " + draft.path() +
                                      ": line 1: warning: The text after the third column is ignored: \"too "
                                      "\\u0009much\".\n");
}

TEST(ZebctlRolemapCheckFile, KeptUserTwiceIsAnErrorAndGroupsAndAnyoneAreMerged) {
  sandbox::RequireSandbox();
  CheckCases({{"a user", "root web user\nroot lab user\nroot WEB user\nroot lab user\n",
               json::parse(R"([[3, "duplicate-user"], [4, "duplicate-user"]])"), kNone},
              {"a user within a line", "root,root web user\n", Finding(1, "duplicate-user"), kNone},
              {"a group", "+wheel web user\n+wheel web poweruser\n", kNone, Finding(2, "merged-duplicate")},
              {"anyone", "* * user\n* * user\n", kNone, Finding(2, "merged-duplicate")}});
  const Draft draft("+wheel web poweruser\n+wheel web user\nbob web user\nbob web user\n");
  EXPECT_EQ(draft.Check().errors,
            "zebctl: " + draft.path() +
                ": line 2: warning: The line names \"+wheel\" for the host \"web\", as line 1 does. The stronger of "
                "the two counts: poweruser.\n"
                "zebctl: " +
                draft.path() +
                ": line 4: error: The line names the user \"bob\" for the host \"web\", as line 3 does. This makes the "
                "whole file unusable.\n");
}

// The machine's domain is sandbox.test.
TEST(ZebctlRolemapCheckFile, WarnsOfRulesThatCanNeverDecide) {
  AddOwnAddress("192.0.2.10/24");
  const json kBoth = json::parse(R"([[1, "domain-pattern"], [2, "never-decides"]])");
  CheckCases({
      {"a host behind a pattern of which it is a part", "alice *.web.lab user\nalice web user\n", kNone, kBoth},
      {"a host of which the pattern holds no part", "alice *.lab user\nalice web user\n", kNone,
       Finding(1, "domain-pattern")},
      {"the pattern of another user", "bob *.web user\nalice web user\n", kNone, Finding(1, "domain-pattern")},
      {"a group's host that a pattern makes stronger", "+wheel *.web poweruser\n+wheel web user\n", kNone, kBoth},
      {"a group's host that is stronger than a pattern", "+wheel *.web user\n+wheel web poweruser\n", kNone,
       Finding(1, "domain-pattern")},
      {"a pattern within one that comes first", "alice *.*.web user\nalice *.web user\n", kNone, kBoth},
      {"an address behind a pattern", "alice *.192.0.2.9 user\nalice 192.0.2.9 user\n", kNone, kBoth},
      {"this machine's own address behind a pattern", "alice *.192.0.2.10 user\nalice 192.0.2.10 user\n", kNone,
       Finding(1, "domain-pattern")},
      {"any host behind this machine's address", "alice 192.0.2.10 user\nalice * user\n", kNone,
       Finding(2, "never-decides")},
      {"any host behind this machine's domain", "+wheel * user\n+wheel *.SANDBOX.test user\n", kNone,
       Finding(1, "never-decides")},
      {"this machine's domain behind its address, for anyone", "* 192.0.2.10 user\n* *.sandbox.test user\n", kNone,
       Finding(2, "never-decides")},
      {"this machine's domain behind its address, for a user", "alice 192.0.2.10 user\nalice *.sandbox.test user\n",
       kNone, kNone},
      {"any host behind another address", "alice 192.0.2.9 user\nalice * user\n", kNone, kNone},
      {"a pattern no part of which is a name", "alice *.. user\n+wheel *.* user\n", kNone,
       json::parse(R"([[1, "never-decides"], [2, "never-decides"]])")},
      {"a pattern for anyone", "* *.lab user\n", kNone, Finding(1, "never-decides")},
      {"the pattern of this machine's domain for anyone", "* *.sandbox.test user\n", kNone, kNone},
      {"a star that stands for nothing", "alice,* web* user\n", kNone,
       json::parse(R"([[1, "never-decides"], [1, "never-decides"]])")},
  });
  const Draft draft("alice *.web user\nalice web user\n* *.lab user\nbob *.sandbox.test user\nbob *,w* user\n");
  const std::string start = "zebctl: " + draft.path() + ": line ";
  EXPECT_EQ(draft.Check().errors,
            start +
                "1: warning: The domain pattern \"*.web\" for \"alice\" matches a host whose name is a part of the "
                "pattern, and not the hosts of the domain.\n" +
                start +
                "2: warning: The rule for \"alice\" and the host \"web\" never decides: line 1 names the domain "
                "pattern \"*.web\", which matches every host that is a part of it and goes before.\n" +
                start +
                "3: warning: The rule for \"*\" and the host \"*.lab\" never decides: for anyone, a domain pattern "
                "counts only where it is that of this machine's own domain, which is \"*.sandbox.test\".\n" +
                start +
                "5: warning: The rule for \"bob\" and the host \"*\" never decides: line 4 names \"*.sandbox.test\", "
                "which is this machine's own domain and decides for every host before it.\n" +
                start +
                "5: warning: The rule for \"bob\" and the host \"w*\" never decides: a \"*\" stands for any host only "
                "by itself.\n");
}

TEST(ZebctlRolemapCheckFile, BytesThatEndTheReadingAreAnError) {
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  CheckCases({{"in the middle", "root * user\n\xFF\nbad\n",
               json::parse(R"([[2, "unreadable-bytes"], [3, "missing-column"]])"), kNone},
              {"in a comment", "root * user\n# caf\xE9\n", Finding(2, "unreadable-bytes"), kNone},
              {"a character cut short by the end", "root * user\xC3", Finding(1, "unreadable-bytes"), kNone},
              {"valid text", "root * user\n# caf\xC3\xA9\n", kNone, kNone}});
  const Draft draft("\xFFroot * user\n");
  EXPECT_EQ(draft.Check().errors,
            "zebctl: " + draft.path() +
                ": line 1: error: The line has bytes that are not valid text in this locale. The reading ends there, "
                "and what follows them does not count.\n");
}

TEST(ZebctlRolemapCheckFile, ZeroIsACharacterLikeOthers) {
  sandbox::RequireSandbox();
  const json answer = Draft(std::string("ro\0ot * user\n", 13)).CheckInJSON();
  EXPECT_EQ(KindsOf(answer, "warnings"), Finding(1, "unknown-user"));
  EXPECT_EQ(answer["grants"][0]["name"], std::string("ro\0ot", 5));
}

TEST(ZebctlRolemapCheckFile, StrictMakesWarningsCount) {
  const Draft draft("zoe * user\n");
  const ProgramResult lax = draft.Check();
  EXPECT_EQ(lax.status, 0);
  EXPECT_EQ(lax.errors,
            "zebctl: " + draft.path() + ": line 1: warning: This machine does not know the user \"zoe\".\n");
  const ProgramResult strict = draft.Check({"--strict"});
  EXPECT_EQ(strict.status, 1);
  EXPECT_EQ(strict.errors, lax.errors);
  EXPECT_EQ(strict.output, lax.output);
  EXPECT_EQ(json::parse(draft.Check({"--strict", "--json"}).output)["ok"], false);
}

TEST(ZebctlRolemapCheck, WarnsWhereTheReadingOfTheInstalledFileStopped) {
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  const std::string kStopped =
      " has bytes that are not valid text in this locale: the reading stopped there, and what follows them does not "
      "count.";
  const std::string kStart = "zebctl: /opt/vorn/fleetops/etc/zebrolemap: warning: Line ";
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "root * user\n\n# caf\xE9\nbad\n", 0640));
  const ProgramResult plain = Check({});
  EXPECT_EQ(plain.status, 0);
  EXPECT_EQ(plain.errors, kStart + '3' + kStopped + '\n');
  EXPECT_EQ(plain.output,
            "LINE  NAME  HOST  ROLE  PRIVILEGE\n"
            "1     root  *     user  1\n");
  EXPECT_EQ(Check({"--strict"}).status, 1);
  const json answer = json::parse(Check({"--json"}).output, nullptr, false);
  EXPECT_EQ(answer["ok"], true);
  EXPECT_EQ(answer["warnings"],
            json::array({{{"line", 3}, {"kind", "unreadable-bytes"}, {"message", "Line 3" + kStopped}}}));

  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "\xFF * user\nroot * user\n", 0640));
  const ProgramResult empty = Check({});
  EXPECT_EQ(empty.status, 1);
  EXPECT_NE(empty.errors.find("FILE_EMPTY"), std::string::npos);
  EXPECT_NE(empty.errors.find(kStart + '1' + kStopped), std::string::npos) << empty.errors;

  // What stands before the bytes may count as a line of its own.
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "root * user\nb\xFF * user\n", 0640));
  const ProgramResult faulty = Check({});
  EXPECT_EQ(faulty.status, 1);
  EXPECT_NE(faulty.errors.find("line 2: FILE_FORMAT_ERROR"), std::string::npos) << faulty.errors;
  EXPECT_NE(faulty.errors.find(kStart + '2' + kStopped), std::string::npos) << faulty.errors;

  // A line that is not an entry ends the reading before the bytes could.
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "bad\n\xFF\n", 0640));
  EXPECT_EQ(Check({}).errors.find("warning"), std::string::npos);
}

class ZebctlRolemapCheckRandom : public testing::TestWithParam<unsigned> {};

// What is judged before it is put in place fares the same once it is there.
TEST_P(ZebctlRolemapCheckRandom, JudgesAsTheLibraryDoes) {
  sandbox::RequireSandbox();
  std::mt19937 random(GetParam());
  const std::vector<std::string> pieces = {"a",     "b",       "+wheel", "*",    ",",          " ",           " ",
                                           "\t",    "user",    "USER",   "user", "web",        "*.",          "\n",
                                           " web ", " user\n", "#",      "\r",   "a * user\n", "b web user\n"};
  for (int i = 0; i < 15; ++i) {
    std::string text;
    for (unsigned piece = 0; piece < 1 + random() % 12; ++piece) text += pieces[random() % pieces.size()];
    const Draft draft(text);
    const ProgramResult judged = draft.Check({"--json"});
    ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, text, 0640));
    const ProgramResult installed = Check({"--json"});
    EXPECT_EQ(judged.status, installed.status) << text;
    const json expected = json::parse(installed.output, nullptr, false);
    const json answer = json::parse(judged.output, nullptr, false);
    if (expected["ok"] == true) {
      EXPECT_EQ(answer["grants"], expected["grants"]) << text;
      continue;
    }
    // The library tells the first faulty line, and duplicates only where there is none.
    const bool isDuplicate = expected["error"]["name"] == "DUPLICATE_ENTRY";
    bool isTold = false;
    for (const json &error : answer["errors"]) {
      if (!isDuplicate && error["kind"] == "duplicate-user") continue;
      EXPECT_EQ(error["line"], expected["error"]["line"]) << text;
      isTold = true;
      break;
    }
    EXPECT_TRUE(isTold) << text;
  }
}

INSTANTIATE_TEST_SUITE_P(Seed, ZebctlRolemapCheckRandom, testing::Range(1u, 7u));

// zebctl as its users run it: the real program on role maps of the sandbox, whole outputs and exit statuses.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "program.h"
#include "sandbox.h"

namespace {

ProgramResult Zebctl(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), ZEBCTL_PATH);
  return RunProgram(arguments);
}

void WriteRoleMap(const std::string &text, mode_t mode = 0640) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, text, mode));
}

constexpr char kPath[] = "/opt/vorn/fleetops/etc/zebrolemap";

}  // namespace

TEST(Zebctl, CheckPrintsEachGrant) {
  WriteRoleMap("# map\nroot * administrator\n\n+wheel,carol host1,*.Lab PowerUser\n");
  const ProgramResult result = Zebctl({"rolemap", "check"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "LINE  NAME    HOST   ROLE           PRIVILEGE\n"
            "2     root    *      administrator  7\n"
            "4     +wheel  host1  poweruser      3\n"
            "4     +wheel  *.lab  poweruser      3\n"
            "4     carol   host1  poweruser      3\n"
            "4     carol   *.lab  poweruser      3\n");
}

TEST(Zebctl, CheckPrintsJSON) {
  WriteRoleMap("a\"b * user\n");
  const ProgramResult result = Zebctl({"rolemap", "check", "--json"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(nlohmann::json::parse(result.output),
            nlohmann::json::parse(R"({"file": "/opt/vorn/fleetops/etc/zebrolemap", "ok": true, "grants": [
              {"line": 1, "name": "a\"b", "host": "*", "role": "user", "privilege": 1}]})"));
}

TEST(Zebctl, CheckNamesEveryKindOfError) {
  sandbox::RequireSandbox();
  const struct {
    const char *text;  // NULL for no file
    mode_t mode;
    std::string error;
    int code;
    int commandId;
    int line;
  } cases[] = {
      {nullptr, 0, "FILE_NOT_FOUND", 1, 5912, 0},
      {"a * user\nbad\n", 0640, "FILE_FORMAT_ERROR", 2, 5911, 2},
      {"a * user\n", 0644, "FILE_PERMS_ERROR", 4, 5913, 0},
      {"# nothing\n", 0640, "FILE_EMPTY", 5, 5914, 0},
      {"a h user\nb h user\na h user\n", 0640, "DUPLICATE_ENTRY", 6, 5916, 3},
  };
  for (const auto &c : cases) {
    if (c.text != nullptr) WriteRoleMap(c.text, c.mode);
    const ProgramResult plain = Zebctl({"rolemap", "check"});
    EXPECT_EQ(plain.status, 1) << c.error;
    EXPECT_EQ(plain.output, "") << c.error;
    const std::string line = c.line == 0 ? "" : "line " + std::to_string(c.line) + ": ";
    const std::string first =
        std::string("zebctl: ") + kPath + ": " + line + c.error + " (command id " + std::to_string(c.commandId) + ")\n";
    EXPECT_EQ(plain.errors.substr(0, first.size()), first);
    EXPECT_GT(plain.errors.size(), first.size()) << "and what to do about it";

    const ProgramResult json = Zebctl({"rolemap", "check", "--json"});
    EXPECT_EQ(json.status, 1);
    const auto answer = nlohmann::json::parse(json.output);
    EXPECT_EQ(answer["ok"], false);
    EXPECT_EQ(answer["error"]["name"], c.error);
    EXPECT_EQ(answer["error"]["code"], c.code);
    EXPECT_EQ(answer["error"]["commandId"], c.commandId);
    EXPECT_EQ(answer["error"]["line"], c.line);
  }
}

TEST(Zebctl, PrivilegeOfAnAccount) {
  WriteRoleMap("+wheel host1 administrator\n");
  const ProgramResult result = Zebctl({"rolemap", "privilege", "alice", "HOST1"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "SOURCE            ROLE           PRIVILEGE\n"
            "role map          administrator  7\n"
            "operating system  user           1\n");
  EXPECT_EQ(nlohmann::json::parse(Zebctl({"rolemap", "privilege", "--json", "carol", "x"}).output),
            nlohmann::json::parse(R"({"user": "carol", "host": "x", "source": "file",
              "roleMap": {"role": "none", "privilege": 0},
              "operatingSystem": {"role": "poweruser", "privilege": 3}})"));
}

TEST(Zebctl, PrivilegeByTheDefaultsSaysSo) {
  WriteRoleMap("bad\n");
  const ProgramResult result = Zebctl({"rolemap", "privilege", "root", "x"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.errors.find("line 1: FILE_FORMAT_ERROR (command id 5911)"), std::string::npos) << result.errors;
  EXPECT_NE(result.errors.find("built-in default records"), std::string::npos) << result.errors;
  EXPECT_EQ(result.output,
            "SOURCE               ROLE           PRIVILEGE\n"
            "role map (defaults)  administrator  7\n"
            "operating system     administrator  7\n");
  const auto json = nlohmann::json::parse(Zebctl({"rolemap", "privilege", "root", "x", "--json"}).output);
  EXPECT_EQ(json["source"], "defaults");
  EXPECT_EQ(json["error"]["name"], "FILE_FORMAT_ERROR");
}

TEST(Zebctl, NamesCannotCommandATerminal) {
  sandbox::RequireSandbox();
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  WriteRoleMap("d\xC3\xA9j\xC3\xA0\x1B[31m\\x * user\n");
  const ProgramResult plain = Zebctl({"rolemap", "check"});
  EXPECT_NE(plain.output.find("d\xC3\xA9j\xC3\xA0\\u001b[31m\\\\x  *"), std::string::npos) << plain.output;
  const auto json = nlohmann::json::parse(Zebctl({"rolemap", "check", "--json"}).output);
  EXPECT_EQ(json["grants"][0]["name"], "d\xC3\xA9j\xC3\xA0\x1B[31m\\x");
}

TEST(Zebctl, BadCommandLines) {
  sandbox::RequireSandbox();
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  const std::vector<std::vector<std::string>> lines = {
      {},
      {"bogus"},
      {"rolemap"},
      {"rolemap", "bogus"},
      {"rolemap", "privilege"},
      {"rolemap", "privilege", "alice"},
      {"rolemap", "privilege", "alice", "h", "more"},
      {"rolemap", "privilege", "", "h"},
      {"rolemap", "privilege", "\xFF", "h"},
      {"rolemap", "privilege", "alice", "\xFF"},
      {"rolemap", "check", "--bogus"},
  };
  for (const auto &line : lines) {
    const ProgramResult result = Zebctl(line);
    EXPECT_EQ(result.status, 2) << testing::PrintToString(line);
    EXPECT_EQ(result.output, "");
    EXPECT_TRUE(result.errors.starts_with("zebctl: ")) << result.errors;
  }
}

TEST(Zebctl, HelpEverywhere) {
  for (const std::vector<std::string> &line :
       std::vector<std::vector<std::string>>{{}, {"rolemap"}, {"rolemap", "check"}, {"rolemap", "privilege"}}) {
    std::vector<std::string> arguments = line;
    arguments.emplace_back("--help");
    const ProgramResult result = Zebctl(arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find("Usage:"), std::string::npos) << result.output;
  }
  EXPECT_EQ(Zebctl({"--version"}).output, "zebctl 1.0.0\n");
}

TEST(Zebctl, OutputThatCannotBeWrittenIsReported) {
  WriteRoleMap("a * user\n");
  const ProgramResult result =
      RunProgram({"/bin/sh", "-c", std::string("'") + ZEBCTL_PATH + "' rolemap check >/dev/full"});
  EXPECT_EQ(result.status, 3);
  EXPECT_NE(result.errors.find("cannot write the output"), std::string::npos) << result.errors;
}

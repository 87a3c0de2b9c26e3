// zebctl as its users run it: the real program on role maps of the sandbox, whole outputs and exit statuses.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "program.h"
#include "sandbox.h"

namespace {

using nlohmann::json;

constexpr char kPath[] = "/opt/vorn/fleetops/etc/zebrolemap";

ProgramResult Zebctl(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), ZEBCTL_PATH);
  return RunProgram(arguments);
}

void WriteRoleMap(const std::string &text, mode_t mode = 0640) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, text, mode));
}

// Whether the program gets a file that can be written, a device that is always full, a pipe whose reader has gone
// away, or nothing at all.
enum class Stream { kFile, kFull, kBrokenPipe, kClosed };

void AddStream(posix_spawn_file_actions_t &actions, int fd, Stream stream, const std::string &path, int brokenPipe) {
  switch (stream) {
    case Stream::kFile:
      posix_spawn_file_actions_addopen(&actions, fd, path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      return;
    case Stream::kFull: posix_spawn_file_actions_addopen(&actions, fd, "/dev/full", O_WRONLY, 0); return;
    case Stream::kBrokenPipe: posix_spawn_file_actions_adddup2(&actions, brokenPipe, fd); return;
    case Stream::kClosed: posix_spawn_file_actions_addclose(&actions, fd); return;
  }
}

// Runs zebctl with streams that may refuse what is written to them.
ProgramResult ZebctlInto(Stream output, Stream errors, std::vector<std::string> arguments) {
  const sandbox::TemporaryDirectory directory;
  const std::string outputPath = directory.Path("output");
  const std::string errorsPath = directory.Path("errors");
  std::array<int, 2> pipeEnds{};
  ProgramResult result;
  if (pipe2(pipeEnds.data(), O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe2: " << std::strerror(errno);
    return result;
  }
  close(pipeEnds[0]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  AddStream(actions, STDOUT_FILENO, output, outputPath, pipeEnds[1]);
  AddStream(actions, STDERR_FILENO, errors, errorsPath, pipeEnds[1]);
  arguments.insert(arguments.begin(), ZEBCTL_PATH);
  std::vector<char *> argv;
  for (std::string &argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeEnds[1]);
  int status = 0;
  if (error != 0 || waitpid(pid, &status, 0) != pid) {
    ADD_FAILURE() << argv[0] << " did not run";
    return result;
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (output == Stream::kFile) result.output = sandbox::ReadFile(outputPath);
  if (errors == Stream::kFile) result.errors = sandbox::ReadFile(errorsPath);
  return result;
}

// A kind of fault of the role map, and what zebctl says about it.
struct FaultCase {
  const char *text;  // NULL for no file
  mode_t mode;
  std::string name;
  int code;
  int commandId;
  int line;
  std::string message;
};

const std::vector<FaultCase> &FaultCases() {
  static const std::string kFormat =
      "The line is not \"NAMES HOSTS ROLE\": three columns with blanks between them, none after a comma, and a role of "
      "administrator, poweruser or user. Correct it. Carriage returns, and bytes that are not valid text in this "
      "locale, are mistakes too.";
  static const std::string kPermissions =
      "It must be a regular file with permissions 0640. If it is a regular file, run: chmod 0640 "
      "/opt/vorn/fleetops/etc/zebrolemap";
  static const std::string kEmpty =
      "The file has no entry: nothing, or only blank lines and comments. Add a line such as: root * administrator. "
      "Bytes that are not valid text in this locale end the reading.";
  static const std::string kDuplicate =
      "The line names a user for a host for which the user has been named before. Remove one of the two.";
  static const std::vector<FaultCase> kCases = {
      {nullptr, 0, "FILE_NOT_FOUND", 1, 5912, 0,
       "The file is missing, or this account may not read it. Create it with permissions 0640, or run zebctl as an "
       "account that may read it, such as root."},
      {"a * user\nbad\n", 0640, "FILE_FORMAT_ERROR", 2, 5911, 2, kFormat},
      {"a * owner\n", 0640, "FILE_FORMAT_ERROR", 2, 5911, 1, kFormat},
      {"a * user\r\n", 0640, "FILE_FORMAT_ERROR", 2, 5911, 1, kFormat},
      {"a h, g user\n", 0640, "FILE_FORMAT_ERROR", 2, 5911, 1, kFormat},
      {"a * user\n", 0644, "FILE_PERMS_ERROR", 4, 5913, 0, kPermissions},
      {"a * user\n", 0600, "FILE_PERMS_ERROR", 4, 5913, 0, kPermissions},
      {"", 0640, "FILE_EMPTY", 5, 5914, 0, kEmpty},
      {"# nothing\n\n", 0640, "FILE_EMPTY", 5, 5914, 0, kEmpty},
      {"a h user\nb h user\na h poweruser\n", 0640, "DUPLICATE_ENTRY", 6, 5916, 3, kDuplicate},
      {"a,a h user\n", 0640, "DUPLICATE_ENTRY", 6, 5916, 1, kDuplicate},
  };
  return kCases;
}

void ArrangeFault(const FaultCase &fault) {
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kRoleMapPath));
  if (fault.text != nullptr) WriteRoleMap(fault.text, fault.mode);
}

std::string TextOf(const FaultCase &fault) {
  const std::string line = fault.line == 0 ? "" : "line " + std::to_string(fault.line) + ": ";
  return std::string("zebctl: ") + kPath + ": " + line + fault.name + " (command id " +
         std::to_string(fault.commandId) + ")\n" + fault.message + "\n";
}

json JSONOf(const FaultCase &fault) {
  return {{"name", fault.name},
          {"code", fault.code},
          {"commandId", fault.commandId},
          {"line", fault.line},
          {"message", fault.message}};
}

}  // namespace

TEST(ZebctlRolemapCheck, PrintsEachGrant) {
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

TEST(ZebctlRolemapCheck, PrintsJSON) {
  WriteRoleMap("a\"b * user\n");
  const ProgramResult result = Zebctl({"rolemap", "check", "--json"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "{\n"
            "  \"file\": \"/opt/vorn/fleetops/etc/zebrolemap\",\n"
            "  \"ok\": true,\n"
            "  \"grants\": [\n"
            "    {\n"
            "      \"line\": 1,\n"
            "      \"name\": \"a\\\"b\",\n"
            "      \"host\": \"*\",\n"
            "      \"role\": \"user\",\n"
            "      \"privilege\": 1\n"
            "    }\n"
            "  ]\n"
            "}\n");
}

TEST(ZebctlRolemapCheck, NamesEveryFaultAndWhatToDo) {
  sandbox::RequireSandbox();
  for (const FaultCase &fault : FaultCases()) {
    ArrangeFault(fault);
    const ProgramResult plain = Zebctl({"rolemap", "check"});
    EXPECT_EQ(plain.status, 1) << fault.name;
    EXPECT_EQ(plain.output, "") << fault.name;
    EXPECT_EQ(plain.errors, TextOf(fault));

    const ProgramResult asJSON = Zebctl({"rolemap", "check", "--json"});
    EXPECT_EQ(asJSON.status, 1) << fault.name;
    EXPECT_EQ(asJSON.errors, "") << fault.name;
    EXPECT_EQ(json::parse(asJSON.output), (json{{"file", kPath}, {"ok", false}, {"error", JSONOf(fault)}}));
  }
}

TEST(ZebctlRolemapCheck, FileThatMayNotBeReadCountsAsNotFound) {
  EXPECT_EQ(sandbox::RunWithUnreadableRoleMap([] {
              // Without this, a program that user 0 starts has the right to read every file again.
              EXPECT_EQ(prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE), 0);
              EXPECT_EQ(prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH), 0);
              const ProgramResult result = Zebctl({"rolemap", "check"});
              EXPECT_EQ(result.output, "");
              EXPECT_EQ(result.errors, TextOf(FaultCases().front()));
              return result.status;
            }),
            1);
}

TEST(ZebctlRolemapPrivilege, AnswersForRoleMapAndOperatingSystem) {
  WriteRoleMap("+wheel host1 administrator\n");
  const ProgramResult result = Zebctl({"rolemap", "privilege", "alice", "HOST1"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "SOURCE            ROLE           PRIVILEGE\n"
            "role map          administrator  7\n"
            "operating system  user           1\n");
  EXPECT_EQ(json::parse(Zebctl({"rolemap", "privilege", "--json", "carol", "x"}).output),
            json::parse(R"({"user": "carol", "host": "x", "source": "file",
              "roleMap": {"role": "none", "privilege": 0},
              "operatingSystem": {"role": "poweruser", "privilege": 3}})"));
  EXPECT_EQ(Zebctl({"rolemap", "privilege", "nosuch", "host1"}).output,
            "SOURCE            ROLE  PRIVILEGE\n"
            "role map          none  0\n"
            "operating system  none  0\n");
}

TEST(ZebctlRolemapPrivilege, HostIsLoweredByteByByte) {
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  WriteRoleMap("a \xC4\x80pc user\n");  // U+0100, which has a lower case but stands beyond the single-byte table
  EXPECT_EQ(json::parse(Zebctl({"rolemap", "privilege", "a", "\xC4\x80PC", "--json"}).output)["host"], "\xC4\x80pc");
  EXPECT_EQ(json::parse(Zebctl({"rolemap", "privilege", "a", "\xC4\x80PC", "--json"}).output)["roleMap"]["privilege"],
            1);
}

TEST(ZebctlRolemapPrivilege, WordsOfTheProgramMayBeNames) {
  WriteRoleMap("check,rolemap,privilege,-x privilege user\n");
  for (const std::string name : {"check", "rolemap", "privilege", "-x"}) {
    const ProgramResult result = Zebctl({"rolemap", "privilege", "--", name, "privilege"});
    EXPECT_EQ(result.status, 0) << name;
    EXPECT_EQ(result.output,
              "SOURCE            ROLE  PRIVILEGE\n"
              "role map          user  1\n"
              "operating system  none  0\n")
        << name;
  }
}

TEST(ZebctlRolemapPrivilege, GoesByTheDefaultsAfterEveryFaultAndSaysSo) {
  sandbox::RequireSandbox();
  for (const FaultCase &fault : FaultCases()) {
    ArrangeFault(fault);
    const ProgramResult plain = Zebctl({"rolemap", "privilege", "root", "x"});
    EXPECT_EQ(plain.status, 0) << fault.name;
    EXPECT_EQ(plain.errors,
              TextOf(fault) +
                  "The agent goes by its built-in default records in place of the file, and so does this answer: root "
                  "is administrator, group root has poweruser, and anyone is user.\n");
    EXPECT_EQ(plain.output,
              "SOURCE               ROLE           PRIVILEGE\n"
              "role map (defaults)  administrator  7\n"
              "operating system     administrator  7\n");

    const ProgramResult asJSON = Zebctl({"rolemap", "privilege", "carol", "x", "--json"});
    EXPECT_EQ(asJSON.status, 0) << fault.name;
    EXPECT_EQ(asJSON.errors, "") << fault.name;
    EXPECT_EQ(json::parse(asJSON.output), (json{{"user", "carol"},
                                                {"host", "x"},
                                                {"source", "defaults"},
                                                {"roleMap", {{"role", "poweruser"}, {"privilege", 3}}},
                                                {"operatingSystem", {{"role", "poweruser"}, {"privilege", 3}}},
                                                {"error", JSONOf(fault)}}));
  }
}

TEST(ZebctlText, NamesCannotCommandATerminal) {
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  // An escape sequence, a backslash, a control character of 8 bits, a change of direction and a blank of no break.
  WriteRoleMap(
      "d\xC3\xA9j\xC3\xA0\x1B[31m\\x,\xC2\x9Bm,a\xE2\x80\xAE"
      "b,c\xC2\xA0"
      "d * user\n");
  EXPECT_EQ(Zebctl({"rolemap", "check"}).output,
            "LINE  NAME               HOST  ROLE  PRIVILEGE\n"
            "1     d\xC3\xA9j\xC3\xA0\\u001b[31m\\\\x  *     user  1\n"
            "1     \\u009bm            *     user  1\n"
            "1     a\\u202eb           *     user  1\n"
            "1     c\\u00a0d           *     user  1\n");
  const json answer = json::parse(Zebctl({"rolemap", "check", "--json"}).output);
  EXPECT_EQ(answer["grants"][0]["name"], "d\xC3\xA9j\xC3\xA0\x1B[31m\\x");
  EXPECT_EQ(answer["grants"][2]["name"],
            "a\xE2\x80\xAE"
            "b");
}

TEST(ZebctlText, EnvironmentWithoutAUsableLocaleIsTheCLocale) {
  ASSERT_EQ(setenv("LC_ALL", "xx_YY.UTF-8", 1), 0);
  WriteRoleMap("a * user\n");
  EXPECT_EQ(Zebctl({"rolemap", "check"}).output,
            "LINE  NAME  HOST  ROLE  PRIVILEGE\n"
            "1     a     *     user  1\n");
  const ProgramResult result = Zebctl({"rolemap", "privilege", "d\xC3\xA9j\xC3\xA0", "h"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.errors,
            "zebctl: USER is not valid text in this locale. Check the variables LC_ALL, LC_CTYPE and LANG.\n");
}

TEST(ZebctlCommandLine, MistakesAreNamed) {
  sandbox::RequireSandbox();
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  const std::string locale = " is not valid text in this locale. Check the variables LC_ALL, LC_CTYPE and LANG.\n";
  const struct {
    std::vector<std::string> line;
    std::string errors;
  } cases[] = {
      {{}, "A subcommand is required.\nRun \"zebctl --help\" to see what is.\n"},
      {{"bogus"}, "\"bogus\" is not understood here.\nRun \"zebctl --help\" to see what is.\n"},
      {{"rolemap"}, "A subcommand is required.\nRun \"zebctl rolemap --help\" to see what is.\n"},
      {{"rolemap", "bogus"}, "\"bogus\" is not understood here.\nRun \"zebctl rolemap --help\" to see what is.\n"},
      {{"rolemap", "check", "--bogus"},
       "\"--bogus\" is not understood here.\nRun \"zebctl rolemap check --help\" to see what is.\n"},
      {{"rolemap", "privilege"}, "USER is required.\nRun \"zebctl rolemap privilege --help\" to see what is.\n"},
      {{"rolemap", "privilege", "alice"},
       "HOST is required.\nRun \"zebctl rolemap privilege --help\" to see what is.\n"},
      {{"rolemap", "privilege", "alice", "h", "more"},
       "\"more\" is not understood here.\nRun \"zebctl rolemap privilege --help\" to see what is.\n"},
      {{"rolemap", "privilege", "", "h"}, "USER is empty. Name an account.\n"},
      {{"rolemap", "privilege", "\xFF", "h"}, "USER" + locale},
      {{"rolemap", "privilege", "alice", "\xFF"}, "HOST" + locale},
  };
  for (const auto &c : cases) {
    const ProgramResult result = Zebctl(c.line);
    EXPECT_EQ(result.status, 2) << testing::PrintToString(c.line);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "zebctl: " + c.errors);
  }
}

TEST(ZebctlCommandLine, HelpEverywhereTellsTheExitStatuses) {
  for (const std::vector<std::string> &line :
       std::vector<std::vector<std::string>>{{}, {"rolemap"}, {"rolemap", "check"}, {"rolemap", "privilege"}}) {
    std::vector<std::string> arguments = line;
    arguments.emplace_back("--help");
    const ProgramResult result = Zebctl(arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_NE(result.output.find("Usage: zebctl"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("Exit status: 0"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("\n             3  the output"), std::string::npos) << result.output;
  }
}

TEST(ZebctlCommandLine, VersionIsOneLine) {
  const ProgramResult result = Zebctl({"--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "zebctl 1.0.0\n");
  EXPECT_EQ(result.errors, "");
}

TEST(ZebctlOutput, ThatCannotBeWrittenIsReported) {
  WriteRoleMap("a * user\n");
  const std::vector<std::vector<std::string>> lines = {{"--help"},
                                                       {"--version"},
                                                       {"rolemap", "check"},
                                                       {"rolemap", "check", "--json"},
                                                       {"rolemap", "privilege", "a", "h"},
                                                       {"rolemap", "privilege", "a", "h", "--json"}};
  for (const auto &line : lines) {
    const ProgramResult full = ZebctlInto(Stream::kFull, Stream::kFile, line);
    EXPECT_EQ(full.status, 3) << testing::PrintToString(line);
    EXPECT_EQ(full.errors, "zebctl: The output could not be written: No space left on device.\n");
    const ProgramResult broken = ZebctlInto(Stream::kBrokenPipe, Stream::kFile, line);
    EXPECT_EQ(broken.status, 3) << testing::PrintToString(line);
    EXPECT_EQ(broken.errors, "zebctl: The output could not be written: Broken pipe.\n");
  }
}

TEST(ZebctlOutput, MuchThatCannotBeWrittenIsReportedAsWell) {
  std::string names = "first";
  for (int i = 0; i < 20000; ++i) names += ",user" + std::to_string(i);
  WriteRoleMap(names + " h user\n");
  const ProgramResult result = ZebctlInto(Stream::kFull, Stream::kFile, {"rolemap", "check"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.errors, "zebctl: The output could not be written: No space left on device.\n");
}

TEST(ZebctlOutput, ErrorsThatCannotBeWrittenShowInTheExitStatus) {
  WriteRoleMap("bad\n");
  for (const Stream stream : {Stream::kFull, Stream::kBrokenPipe}) {
    EXPECT_EQ(ZebctlInto(Stream::kFile, stream, {"rolemap", "check"}).status, 3);
    EXPECT_EQ(ZebctlInto(Stream::kFile, stream, {"rolemap", "privilege", "a", "h"}).status, 3);
  }
}

// The library's lock file is open by the time that main begins, and takes the number of a stream that is closed.
TEST(ZebctlOutput, StreamThatIsClosedIsNoReasonToWriteIntoTheLockFile) {
  WriteRoleMap("a * user\n");
  const ProgramResult noOutput = ZebctlInto(Stream::kClosed, Stream::kFile, {"rolemap", "check"});
  EXPECT_EQ(noOutput.status, 3);
  EXPECT_EQ(noOutput.errors, "zebctl: Standard output is closed, so that there is nowhere to write the answer to.\n");
  EXPECT_EQ(ZebctlInto(Stream::kFile, Stream::kClosed, {"bogus"}).status, 3);
  EXPECT_EQ(ZebctlInto(Stream::kClosed, Stream::kClosed, {"rolemap", "check"}).status, 3);
  EXPECT_EQ(sandbox::ReadFile(sandbox::kLockFile), "");
}

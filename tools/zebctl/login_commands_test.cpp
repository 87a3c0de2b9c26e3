// zebctl login, rights and whoami as their users run them: real PAM modules, real accounts and a real terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "program.h"
#include "sandbox.h"

namespace {

using nlohmann::json;

constexpr char kPassword[] = "Correct horse 7";
const std::string kHash =
    "$6$sandboxsalt$ltTpPIlRhz5qrnrKswzd.OORBdzBupuQWqMmjhyFnZVtMookxyxW4d4LbPKAHexsZdg3w8553suSK9n0pXJc51";

constexpr char kUnixService[] =
    "auth required pam_unix.so nodelay\n"
    "account required pam_unix.so\n";
constexpr char kPermitService[] =
    "auth required pam_permit.so\n"
    "account required pam_permit.so\n";
constexpr char kDenyService[] =
    "auth required pam_deny.so\n"
    "account required pam_permit.so\n";

const std::string kRefusedByPAM =
    "PAM refused: the password is wrong, the account is missing, locked or expired, or a module of qxauth wants more "
    "than a name and a password.";
const std::string kNothingGranted =
    "The role map grants this user no rights, so that no password would do. Run \"zebctl rolemap check\" to see whom "
    "it grants some.";
const std::string kNoService =
    "There is no file /etc/pam.d/qxauth, so that PAM goes by the service \"other\", if at all.";
const std::string kBuiltIn =
    "The role map cannot be used, at least not by this account. Built-in records stand in for it: root is "
    "administrator, group root has poweruser, and anyone is user. Run \"zebctl rolemap check\" to see why.";
const std::string kNotASCIIPassword =
    "The password has a character that is not ASCII. The library refuses every login with such a password.";

void WriteService(const std::string &text) { ASSERT_TRUE(sandbox::WriteFile("/etc/pam.d/qxauth", text)); }

void WriteRoleMap(const std::string &text) { ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, text, 0640)); }

void AddSanitizerOption(const std::string &option) {
  const char *const present = std::getenv("ASAN_OPTIONS");
  ASSERT_EQ(setenv("ASAN_OPTIONS", (present == nullptr ? option : present + (':' + option)).c_str(), 1), 0);
}

// Lets alice, bob, carol and root log in with the password; dave's is expired and toor has none.
void SetPasswords() {
  std::string shadow;
  for (const char *name : {"root", "alice", "bob", "carol"})
    shadow += std::string(name) + ':' + kHash + ":19000:0:99999:7:::\n";
  shadow += "dave:" + kHash + ":19000:0:99999:7::1:\n";
  shadow += "toor::19000:0:99999:7:::\n";
  shadow += "daemon:!" + kHash + ":19000:0:99999:7:::\n";
  ASSERT_TRUE(sandbox::WriteFile("/etc/shadow", shadow, 0640));
#ifdef ZEBCS_SANITIZED
  // The sanitizers' own crypt_r knows only what was loaded when the program started, and libcrypt comes with a module.
  ASSERT_EQ(setenv("LD_PRELOAD", "libcrypt.so.1", 1), 0);
  AddSanitizerOption("verify_asan_link_order=0");
#endif
}

// A file descriptor that is closed with the object.
class Fd {
 public:
  [[nodiscard]] explicit Fd(int fd) : m_fd(fd) { EXPECT_GE(fd, 0) << std::strerror(errno); }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  ~Fd() { Close(); }
  int get() const { return m_fd; }
  void Close() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
  }

 private:
  int m_fd;
};

class SpawnActions {
 public:
  SpawnActions() { posix_spawn_file_actions_init(&m_actions); }
  SpawnActions(const SpawnActions &) = delete;
  SpawnActions &operator=(const SpawnActions &) = delete;
  ~SpawnActions() { posix_spawn_file_actions_destroy(&m_actions); }
  posix_spawn_file_actions_t *get() { return &m_actions; }

 private:
  posix_spawn_file_actions_t m_actions;
};

// Starts zebctl. Returns its process id, or -1 with a failure.
pid_t Spawn(SpawnActions &actions, std::vector<std::string> arguments, const posix_spawnattr_t *attributes = nullptr) {
  arguments.insert(arguments.begin(), ZEBCTL_PATH);
  std::vector<char *> argv;
  for (std::string &argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, argv[0], actions.get(), attributes, argv.data(), environ);
  if (error == 0) return pid;
  ADD_FAILURE() << argv[0] << ": " << std::strerror(error);
  return -1;
}

int StatusOf(int waitStatus) { return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : 128 + WTERMSIG(waitStatus); }

// Runs zebctl with a descriptor of the caller's as standard input; -1 for none at all.
ProgramResult ZebctlFrom(int input, const std::vector<std::string> &arguments) {
  const sandbox::TemporaryDirectory directory;
  const std::string output = directory.Path("output");
  const std::string errors = directory.Path("errors");
  SpawnActions actions;
  if (input == -1) {
    posix_spawn_file_actions_addclose(actions.get(), STDIN_FILENO);
  } else {
    posix_spawn_file_actions_adddup2(actions.get(), input, STDIN_FILENO);
  }
  posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, errors.c_str(), O_WRONLY | O_CREAT, 0600);
  const pid_t pid = Spawn(actions, arguments);
  int status = 0;
  if (pid == -1 || waitpid(pid, &status, 0) != pid) return {};
  return {StatusOf(status), sandbox::ReadFile(output), sandbox::ReadFile(errors)};
}

ProgramResult Zebctl(const std::string &input, const std::vector<std::string> &arguments) {
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("input");
  EXPECT_TRUE(sandbox::WriteFile(path, input));
  const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return ZebctlFrom(file.get(), arguments);
}

ProgramResult Login(const std::string &input, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "login");
  return Zebctl(input, arguments);
}

ProgramResult Rights(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "rights");
  return Zebctl("", arguments);
}

ProgramResult WhoAmI(std::vector<std::string> arguments = {}) {
  arguments.insert(arguments.begin(), "whoami");
  return Zebctl("", arguments);
}

std::string Complaints(const std::vector<std::string> &hints) {
  std::string text;
  for (const std::string &hint : hints) text += "zebctl: " + hint + '\n';
  return text;
}

}  // namespace

// --- Login ----------------------------------------------------------------------------------------------------------

TEST(ZebctlLogin, TellsTheRightsOfWhoProvesHisPassword) {
  sandbox::RequireSandbox();
  SetPasswords();
  WriteService(kUnixService);
  WriteRoleMap("alice * administrator\nbob * user\ncarol * poweruser\n");
  const struct {
    const char *user;
    const char *output;
  } cases[] = {
      {"alice", "0x7  administrator\n"},
      {"bob", "0x1  user\n"},
      {"carol", "0x3  power user\n"},
      {"root", "0x40007  administrator, superuser\n"},  // whatever the role map says
  };
  for (const auto &c : cases) {
    const ProgramResult result = Login(std::string(kPassword) + '\n', {c.user});
    EXPECT_EQ(result.status, 0) << c.user;
    EXPECT_EQ(result.output, c.output) << c.user;
    EXPECT_EQ(result.errors, "") << c.user;
  }
}

TEST(ZebctlLogin, RefusalIsExplained) {
  sandbox::RequireSandbox();
  SetPasswords();
  WriteService(kUnixService);
  WriteRoleMap("alice,carol,dave,toor,daemon,ghost * user\n");
  const struct {
    const char *user;
    const char *input;
    const std::string &hint;
  } cases[] = {
      {"alice", "correct horse 7\n", kRefusedByPAM},
      {"alice", "Correct horse 7 \n", kRefusedByPAM},
      {"alice", "Correct horse 7\r\n", kRefusedByPAM},
      {"alice", "\n", kRefusedByPAM},
      {"dave", "Correct horse 7\n", kRefusedByPAM},    // expired
      {"daemon", "Correct horse 7\n", kRefusedByPAM},  // locked
      {"toor", "\n", kRefusedByPAM},                   // an empty password is not accepted, right as it is
      {"ghost", "Correct horse 7\n", kRefusedByPAM},   // no account
      {"bob", "Correct horse 7\n", kNothingGranted},   // the right password
      {"bob", "wrong\n", kNothingGranted},
  };
  for (const auto &c : cases) {
    const ProgramResult result = Login(c.input, {c.user});
    EXPECT_EQ(result.status, 1) << c.user << ' ' << c.input;
    EXPECT_EQ(result.output, "refused\n") << c.user << ' ' << c.input;
    EXPECT_EQ(result.errors, Complaints({c.hint})) << c.user << ' ' << c.input;
  }
}

TEST(ZebctlLogin, EveryPhaseMustBePassed) {
  sandbox::RequireSandbox();
  WriteRoleMap("alice * user\n");
  WriteService(kPermitService);
  EXPECT_EQ(Login("x\n", {"alice"}).output, "0x1  user\n");
  WriteService(kDenyService);
  EXPECT_EQ(Login("x\n", {"alice"}).errors, Complaints({kRefusedByPAM}));
  WriteService("auth required pam_permit.so\naccount required pam_deny.so\n");
  EXPECT_EQ(Login("x\n", {"alice"}).errors, Complaints({kRefusedByPAM}));
}

TEST(ZebctlLogin, ServiceThatIsMissingIsNamed) {
  sandbox::RequireSandbox();
  WriteRoleMap("alice * user\n");
  ASSERT_TRUE(sandbox::RemoveTree("/etc/pam.d/qxauth"));
  ASSERT_TRUE(sandbox::WriteFile("/etc/pam.d/other", kDenyService));
  const ProgramResult result = Login("x\n", {"alice"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "refused\n");
  EXPECT_EQ(result.errors, Complaints({kRefusedByPAM, kNoService}));
}

TEST(ZebctlLogin, DomainIsTheHostThatTheRoleMapIsAskedAbout) {
  sandbox::RequireSandbox();
  WriteService(kPermitService);
  WriteRoleMap("alice corp poweruser\nbob * user\n");
  EXPECT_EQ(Login("x\n", {"alice", "--domain", "Corp"}).output, "0x3  power user\n");
  EXPECT_EQ(Login("x\n", {"alice@corp"}).output, "0x3  power user\n");
  EXPECT_EQ(Login("x\n", {"alice"}).output, "refused\n");
  EXPECT_EQ(Login("x\n", {"bob", "--domain", ""}).output, "0x1  user\n");
  EXPECT_EQ(Login("x\n", {"alice", "--domain", ""}).errors, Complaints({kNothingGranted}));
  WriteService("auth required pam_succeed_if.so quiet user = alice@Corp\naccount required pam_permit.so\n");
  EXPECT_EQ(Login("x\n", {"alice", "--domain", "Corp"}).output, "0x3  power user\n");
  EXPECT_EQ(Login("x\n", {"alice", "--domain", "corp"}).output, "refused\n");
  EXPECT_EQ(Login("x\n", {"alice", "--domain", "corp"}).errors, Complaints({kRefusedByPAM}));
}

TEST(ZebctlLogin, PrintsJSON) {
  sandbox::RequireSandbox();
  WriteService(kPermitService);
  WriteRoleMap("alice * administrator\n");
  const ProgramResult accepted = Login("x\n", {"alice", "--json"});
  EXPECT_EQ(accepted.status, 0);
  EXPECT_EQ(accepted.errors, "");
  EXPECT_EQ(accepted.output,
            "{\n"
            "  \"user\": \"alice\",\n"
            "  \"domain\": null,\n"
            "  \"accepted\": true,\n"
            "  \"rights\": 7,\n"
            "  \"hexadecimal\": \"0x7\",\n"
            "  \"words\": [\n"
            "    \"administrator\"\n"
            "  ],\n"
            "  \"hints\": []\n"
            "}\n");
  const ProgramResult refused = Login("x\n", {"bob", "--domain", "corp", "--json"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.errors, "");
  EXPECT_EQ(json::parse(refused.output), (json{{"user", "bob"},
                                               {"domain", "corp"},
                                               {"accepted", false},
                                               {"rights", 0},
                                               {"hexadecimal", "0x0"},
                                               {"words", {"none"}},
                                               {"hints", {kNothingGranted}}}));
  const ProgramResult untried = Login("\xC3\xA9\n", {"alice", "--json"});
  EXPECT_EQ(untried.status, 1);
  EXPECT_EQ(untried.errors, "");
  EXPECT_EQ(json::parse(untried.output)["accepted"], false);
  EXPECT_EQ(json::parse(untried.output)["hints"], json::array({kNotASCIIPassword}));
}

TEST(ZebctlLogin, PasswordThatCannotBeTriedIsExplained) {
  sandbox::RequireSandbox();
  WriteService(kPermitService);  // would accept any
  WriteRoleMap("alice * user\n");
  const std::string tooLong = "The password is longer than 511 characters, which PAM does not take.";
  const std::string nothing = "Standard input ended, so that there is no password.";
  const struct {
    std::string input;
    std::string hint;
  } cases[] = {
      {"", nothing},
      {"pass\xC3\xA9\n", kNotASCIIPassword},
      {"pass\x80", kNotASCIIPassword},
      {"pass\xFF\n", kNotASCIIPassword},
      {std::string("pass\0word\n", 10), kNotASCIIPassword},
      {std::string(512, 'p') + '\n', tooLong},
      {std::string(100000, 'p'), tooLong},
  };
  for (const auto &c : cases) {
    const ProgramResult result = Login(c.input, {"alice"});
    EXPECT_EQ(result.status, 1) << c.hint;
    EXPECT_EQ(result.output, "") << c.hint;
    EXPECT_EQ(result.errors, Complaints({c.hint}));
  }
  for (const std::string &input : {std::string("\n"), std::string("x"), std::string("\x7F\x01\t \n"),
                                   std::string(511, 'p') + '\n', std::string(511, 'p')}) {
    EXPECT_EQ(Login(input, {"alice"}).output, "0x1  user\n") << input;
  }
}

TEST(ZebctlLogin, InputThatCannotBeReadIsExplained) {
  sandbox::RequireSandbox();
  WriteService(kPermitService);
  WriteRoleMap("alice * user\n");
  const ProgramResult closed = ZebctlFrom(-1, {"login", "alice"});
  EXPECT_EQ(closed.status, 1);
  EXPECT_EQ(closed.output, "");
  EXPECT_EQ(closed.errors, Complaints({"Standard input is closed, so that there is no password."}));
  const Fd directory(open("/etc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const ProgramResult unreadable = ZebctlFrom(directory.get(), {"login", "alice"});
  EXPECT_EQ(unreadable.status, 1);
  EXPECT_EQ(unreadable.output, "");
  EXPECT_EQ(unreadable.errors, Complaints({"The password could not be read: Is a directory."}));
}

TEST(ZebctlLogin, OnlyTheFirstLineIsTaken) {
  sandbox::RequireSandbox();
  SetPasswords();
  WriteService(kUnixService);
  WriteRoleMap("alice * user\n");
  const sandbox::TemporaryDirectory directory;
  const std::string line = std::string(kPassword) + '\n';
  ASSERT_TRUE(sandbox::WriteFile(directory.Path("input"), line + "for others\n"));
  const Fd file(open(directory.Path("input").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(ZebctlFrom(file.get(), {"login", "alice"}).output, "0x1  user\n");
  EXPECT_EQ(lseek(file.get(), 0, SEEK_CUR), static_cast<off_t>(line.size()));
}

TEST(ZebctlLogin, NamesThatAreNotASCIIAreExplainedBeforeThePasswordIsRead) {
  sandbox::RequireSandbox();
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  const std::string what = " has a character that is not ASCII. The library refuses every login with such a name.\n";
  const struct {
    std::vector<std::string> line;
    std::string errors;
  } cases[] = {
      {{"login", "ren\xC3\xA9"}, "USER" + what},
      {{"login", "\xFF", "--json"}, "USER" + what},
      {{"login", "alice", "--domain", "caf\xC3\xA9"}, "DOMAIN" + what},
      {{"login", ""}, "USER is empty. Name an account.\n"},
  };
  const sandbox::TemporaryDirectory directory;
  ASSERT_TRUE(sandbox::WriteFile(directory.Path("input"), "x\n"));
  const Fd file(open(directory.Path("input").c_str(), O_RDONLY | O_CLOEXEC));
  for (const auto &c : cases) {
    const ProgramResult result = ZebctlFrom(file.get(), c.line);
    EXPECT_EQ(result.status, 2) << c.errors;
    EXPECT_EQ(result.output, "") << c.errors;
    EXPECT_EQ(result.errors, "zebctl: " + c.errors);
  }
  EXPECT_EQ(lseek(file.get(), 0, SEEK_CUR), 0);
}

// --- The password in memory -----------------------------------------------------------------------------------------

namespace {

// Whether a text stands somewhere in the memory that a process can write.
bool IsInMemory(pid_t pid, const std::string &text) {
  const std::string process = "/proc/" + std::to_string(pid);
  const Fd memory(open((process + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  constexpr unsigned long kLargest = 1UL << 26;  // larger ones belong to a sanitizer
  std::istringstream maps(sandbox::ReadFile(process + "/maps"));
  for (std::string line; std::getline(maps, line);) {
    unsigned long first = 0;
    unsigned long last = 0;
    char access[5] = "";
    if (std::sscanf(line.c_str(), "%lx-%lx %4s", &first, &last, access) != 3) return false;
    if (std::strncmp(access, "rw", 2) != 0 || last - first > kLargest) continue;
    std::string bytes(last - first, '\0');
    const ssize_t count = pread(memory.get(), bytes.data(), bytes.size(), static_cast<off_t>(first));
    if (count > 0 && bytes.find(text) != std::string::npos) return true;
  }
  return false;
}

std::string InSixteenBits(const std::string &text) {
  std::string bytes;
  for (const char c : text) bytes += {c, '\0'};
  return bytes;
}

// What a traced process that has stopped is about to do.
enum class Stop { kWriting, kEnding, kOther };

Stop StopOf(pid_t pid, int status) {
  if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXIT << 8)) return Stop::kEnding;
  if (WSTOPSIG(status) != (SIGTRAP | 0x80)) return Stop::kOther;
  __ptrace_syscall_info info{};
  EXPECT_GT(ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info), 0) << std::strerror(errno);
  const bool isWriting = info.op == PTRACE_SYSCALL_INFO_ENTRY && info.entry.nr == SYS_write &&
                         (info.entry.args[0] == STDOUT_FILENO || info.entry.args[0] == STDERR_FILENO);
  return isWriting ? Stop::kWriting : Stop::kOther;
}

// Logs alice in with what a pipe gives, and looks for the password whenever zebctl is about to write, as its frames are
// still there then, and at its end.
void ExpectNoCopyLeft(const std::string &input, const std::string &password, int expectedStatus) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  const Fd reading(ends[0]);
  Fd writing(ends[1]);
  SpawnActions actions;
  posix_spawn_file_actions_adddup2(actions.get(), reading.get(), STDIN_FILENO);
  posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  const pid_t pid = Spawn(actions, {"login", "alice"});
  ASSERT_NE(pid, -1);
  ASSERT_EQ(ptrace(PTRACE_SEIZE, pid, nullptr, PTRACE_O_TRACEEXIT | PTRACE_O_TRACESYSGOOD), 0) << std::strerror(errno);
  ASSERT_EQ(ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr), 0);
  ASSERT_EQ(write(writing.get(), input.data(), input.size()), static_cast<ssize_t>(input.size()));
  writing.Close();
  int status = 0;
  int writes = 0;
  for (bool isEnding = false; !isEnding;) {
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSTOPPED(status)) << status;
    const Stop stop = StopOf(pid, status);
    isEnding = stop == Stop::kEnding;
    if (stop != Stop::kOther) {
      EXPECT_TRUE(IsInMemory(pid, "alice"));  // which shows that the search finds what is there
      EXPECT_FALSE(IsInMemory(pid, password)) << input;
      EXPECT_FALSE(IsInMemory(pid, InSixteenBits(password))) << input;
    }
    if (stop == Stop::kWriting) ++writes;
    ASSERT_EQ(ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr), 0);
  }
  EXPECT_GT(writes, 0);
  while (waitpid(pid, &status, 0) == pid && WIFSTOPPED(status)) ptrace(PTRACE_CONT, pid, nullptr, nullptr);
  EXPECT_EQ(StatusOf(status), expectedStatus);
}

}  // namespace

TEST(ZebctlLogin, NoCopyOfThePasswordIsLeft) {
  sandbox::RequireSandbox();
  AddSanitizerOption("detect_leaks=0");  // a traced program cannot look for leaks
  WriteRoleMap("alice * user\n");
  const std::string password = "Battery.Staple.12345";
  WriteService(kPermitService);
  ExpectNoCopyLeft(password + '\n', password, 0);
  WriteService(kDenyService);
  ExpectNoCopyLeft(password + '\n', password, 1);
  ExpectNoCopyLeft(password + "\x80\n", password, 1);
  ExpectNoCopyLeft(password + std::string(600, 'x'), password, 1);
}

// --- The terminal ---------------------------------------------------------------------------------------------------

namespace {

// A terminal of its own, and a session on it in which zebctl runs as the job in the foreground. The session's leader
// stays until it is told to go: a terminal whose leader ends is reset, which would hide what zebctl left of it.
class Terminal {
 public:
  [[nodiscard]] Terminal() : m_master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    EXPECT_EQ(grantpt(m_master.get()), 0);
    EXPECT_EQ(unlockpt(m_master.get()), 0);
    char name[64] = "";
    EXPECT_EQ(ptsname_r(m_master.get(), name, sizeof name), 0);
    m_name = name;
  }

  // Starts zebctl with the terminal as its three streams.
  bool Start(const std::vector<std::string> &arguments, bool ignoresHangup = false) {
    const bool isStarted = m_leader.Start([this, arguments, ignoresHangup](sandbox::Channel &channel) {
      return Lead(channel, arguments, ignoresHangup);
    });
    return isStarted && m_leader.Receive() == "started";
  }

  // Reads what the terminal shows until it ends with a text.
  std::string ShowsUntil(const std::string &end) {
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + sandbox::kDeadline;
    while (!text.ends_with(end)) {
      pollfd polled{m_master.get(), POLLIN, 0};
      char byte = 0;
      if (std::chrono::steady_clock::now() > deadline || poll(&polled, 1, 1000) < 0) break;
      if (polled.revents != 0 && read(m_master.get(), &byte, 1) != 1) break;  // nobody has the terminal open
      if (polled.revents != 0) text += byte;
    }
    EXPECT_TRUE(text.ends_with(end)) << text;
    return text;
  }

  void Type(const std::string &text) {
    EXPECT_EQ(write(m_master.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  termios Settings() const {
    termios settings{};
    EXPECT_EQ(tcgetattr(m_master.get(), &settings), 0);
    return settings;
  }

  // Bytes that have been typed and that nobody has read; a line counts once it is ended.
  std::string Unread() {
    m_leader.Send("unread");
    return m_leader.Receive();
  }

  void Signal(int signal) { m_leader.Send(std::to_string(signal)); }

  // Waits until zebctl has stopped or ended: "stopped SIGNAL" or its exit status.
  std::string Outcome() {
    m_leader.Send("wait");
    return m_leader.Receive();
  }

  void End() {
    m_leader.Send("end");
    EXPECT_EQ(m_leader.Wait(), 0);
  }

 private:
  // The leader: starts zebctl and does what it is told.
  int Lead(sandbox::Channel &channel, const std::vector<std::string> &arguments, bool ignoresHangup) const {
    if (setsid() == -1) return 1;
    const Fd terminal(open(m_name.c_str(), O_RDWR | O_CLOEXEC));  // becomes the session's
    if (ignoresHangup) std::signal(SIGHUP, SIG_IGN);
    SpawnActions actions;
    posix_spawn_file_actions_addtcsetpgrp_np(actions.get(), terminal.get());
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      posix_spawn_file_actions_adddup2(actions.get(), terminal.get(), stream);
    }
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);  // a job of its own
    const pid_t pid = Spawn(actions, arguments, &attributes);
    posix_spawnattr_destroy(&attributes);
    if (pid == -1) return 1;
    channel.Put("started");
    for (;;) {
      const std::string order = channel.Get();
      if (order == "end") return 0;
      if (order == "unread") {
        int count = -1;
        ioctl(terminal.get(), FIONREAD, &count);
        channel.Put(std::to_string(count));
      } else if (order == "wait") {
        int status = 0;
        if (waitpid(pid, &status, WUNTRACED) != pid) return 1;
        channel.Put(WIFSTOPPED(status) ? "stopped " + std::to_string(WSTOPSIG(status))
                                       : std::to_string(StatusOf(status)));
      } else {
        kill(pid, std::atoi(order.c_str()));
      }
    }
  }

  Fd m_master;
  std::string m_name;
  sandbox::Process m_leader;
};

void ExpectSame(const termios &one, const termios &other) {
  EXPECT_EQ(one.c_iflag, other.c_iflag);
  EXPECT_EQ(one.c_oflag, other.c_oflag);
  EXPECT_EQ(one.c_cflag, other.c_cflag);
  EXPECT_EQ(one.c_lflag, other.c_lflag);
  EXPECT_EQ(std::memcmp(one.c_cc, other.c_cc, sizeof one.c_cc), 0);
}

constexpr tcflag_t kEchoes = ECHO | ECHONL;
constexpr char kPrompt[] = "Password for alice: ";

// The keys that the terminal takes for signals and for the end.
constexpr char kInterruptKey[] = "\x03";
constexpr char kEndKey[] = "\x04";
constexpr char kStopKey[] = "\x1A";
constexpr char kQuitKey[] = "\x1C";

void ArrangeAlice() {
  SetPasswords();
  WriteService(kUnixService);
  WriteRoleMap("alice * user\n");
}

}  // namespace

TEST(ZebctlLoginTerminal, PasswordIsNotShown) {
  sandbox::RequireSandbox();
  ArrangeAlice();
  Terminal terminal;
  const termios before = terminal.Settings();
  EXPECT_NE(before.c_lflag & ECHO, 0U);
  ASSERT_TRUE(terminal.Start({"login", "alice"}));
  EXPECT_EQ(terminal.ShowsUntil(kPrompt), kPrompt);
  EXPECT_EQ(terminal.Settings().c_lflag, before.c_lflag & ~kEchoes);
  terminal.Type("wrong\x15");  // a line that is taken back
  terminal.Type(std::string(kPassword) + '\n');
  EXPECT_EQ(terminal.ShowsUntil("user\r\n"), "\r\n0x1  user\r\n");
  EXPECT_EQ(terminal.Outcome(), "0");
  ExpectSame(before, terminal.Settings());
  terminal.End();
}

TEST(ZebctlLoginTerminal, PromptCannotCommandTheTerminal) {
  sandbox::RequireSandbox();
  ArrangeAlice();
  Terminal terminal;
  ASSERT_TRUE(terminal.Start({"login", "a\x1B[2J", "--domain", "corp"}));
  EXPECT_EQ(terminal.ShowsUntil(": "), "Password for a\\u001b[2J@corp: ");
  terminal.Type(kInterruptKey);
  EXPECT_EQ(terminal.Outcome(), std::to_string(128 + SIGINT));
  terminal.End();
}

TEST(ZebctlLoginTerminal, EverySignalThatEndsFindsTheTerminalAsItWas) {
  sandbox::RequireSandbox();
  ArrangeAlice();
  const struct {
    const char *key;  // NULL for a signal that is sent
    int signal;
  } cases[] = {{kInterruptKey, SIGINT}, {kQuitKey, SIGQUIT}, {nullptr, SIGTERM}, {nullptr, SIGHUP},
               {nullptr, SIGALRM},      {nullptr, SIGUSR1},  {nullptr, SIGUSR2}};
  for (const auto &c : cases) {
    Terminal terminal;
    const termios before = terminal.Settings();
    ASSERT_TRUE(terminal.Start({"login", "alice"}));
    EXPECT_EQ(terminal.ShowsUntil(kPrompt), kPrompt) << c.signal;
    EXPECT_EQ(terminal.Settings().c_lflag & kEchoes, 0U) << c.signal;
    terminal.Type("half of a pass");
    if (c.key != nullptr) {
      terminal.Type(c.key);
    } else {
      terminal.Signal(c.signal);
    }
    EXPECT_EQ(terminal.Outcome(), std::to_string(128 + c.signal));
    ExpectSame(before, terminal.Settings());
    terminal.End();
  }
}

TEST(ZebctlLoginTerminal, StoppedJobGivesTheTerminalBackAndAsksAgain) {
  sandbox::RequireSandbox();
  ArrangeAlice();
  Terminal terminal;
  const termios before = terminal.Settings();
  ASSERT_TRUE(terminal.Start({"login", "alice"}));
  terminal.ShowsUntil(kPrompt);
  terminal.Type("half of a pass");
  terminal.Type(kStopKey);
  EXPECT_EQ(terminal.Outcome(), "stopped " + std::to_string(SIGTSTP));
  ExpectSame(before, terminal.Settings());
  terminal.Signal(SIGCONT);
  terminal.ShowsUntil(kPrompt);
  EXPECT_EQ(terminal.Settings().c_lflag, before.c_lflag & ~kEchoes);
  terminal.Type(std::string(kPassword) + '\n');  // and what was typed before the stop is forgotten
  EXPECT_EQ(terminal.ShowsUntil("user\r\n"), "\r\n0x1  user\r\n");
  EXPECT_EQ(terminal.Outcome(), "0");
  ExpectSame(before, terminal.Settings());
  terminal.End();
}

TEST(ZebctlLoginTerminal, SignalThatIsIgnoredDoesNotEndIt) {
  sandbox::RequireSandbox();
  ArrangeAlice();
  Terminal terminal;
  ASSERT_TRUE(terminal.Start({"login", "alice"}, true));
  terminal.ShowsUntil(kPrompt);
  terminal.Signal(SIGHUP);
  EXPECT_EQ(terminal.ShowsUntil(kPrompt), std::string("\r\n") + kPrompt);
  terminal.Type(std::string(kPassword) + '\n');
  EXPECT_EQ(terminal.ShowsUntil("user\r\n"), "\r\n0x1  user\r\n");
  EXPECT_EQ(terminal.Outcome(), "0");
  terminal.End();
}

TEST(ZebctlLoginTerminal, PasswordThatCannotBeTriedLeavesNothingBehind) {
  sandbox::RequireSandbox();
  ArrangeAlice();
  const struct {
    std::string typed;
    std::string message;
  } cases[] = {
      {kEndKey, "Standard input ended, so that there is no password."},
      {std::string(600, 'p') + "; ls\n", "The password is longer than 511 characters, which PAM does not take."},
      {"caf\xC3\xA9; ls\n", kNotASCIIPassword},
  };
  for (const auto &c : cases) {
    Terminal terminal;
    const termios before = terminal.Settings();
    ASSERT_TRUE(terminal.Start({"login", "alice"}));
    terminal.ShowsUntil(kPrompt);
    terminal.Type(c.typed);
    EXPECT_EQ(terminal.ShowsUntil(".\r\n"), "\r\nzebctl: " + c.message + "\r\n");
    EXPECT_EQ(terminal.Outcome(), "1");
    ExpectSame(before, terminal.Settings());
    EXPECT_EQ(terminal.Unread(), "0");  // a shell would run it
    terminal.End();
  }
}

// --- Rights ---------------------------------------------------------------------------------------------------------

TEST(ZebctlRights, EveryFormOfAUser) {
  sandbox::RequireSandbox();
  WriteRoleMap("alice web01 administrator\nalice sandbox poweruser\nbob * user\n+wheel lab user\ncarol * user\n");
  const struct {
    const char *user;
    const char *output;
    int status;
  } cases[] = {
      {"alice", "0x3  power user\n", 0},  // on this machine
      {"alice@web01", "0x7  administrator\n", 0},
      {"alice@WEB01", "0x7  administrator\n", 0},
      {"WEB01\\alice", "0x7  administrator\n", 0},
      {"alice@web01@web02", "0x7  administrator\n", 0},
      {"alice@", "0x0  none\n", 1},
      {"alice@elsewhere", "0x0  none\n", 1},
      {"Alice", "0x0  none\n", 1},
      {"bob@anywhere", "0x1  user\n", 0},
      {"anywhere\\bob", "0x1  user\n", 0},
      {"alice@lab", "0x1  user\n", 0},
      {"carol", "0x3  power user\n", 0},  // of group 0, which raises what the role map grants
      {"nobody", "0x0  none\n", 1},
      {"root", "0x40007  administrator, superuser\n", 0},
      {"toor@anywhere", "0x40007  administrator, superuser\n", 0},
  };
  for (const auto &c : cases) {
    const ProgramResult result = Rights({c.user});
    EXPECT_EQ(result.status, c.status) << c.user;
    EXPECT_EQ(result.output, c.output) << c.user;
    EXPECT_EQ(result.errors, "") << c.user;
  }
}

TEST(ZebctlRights, KeptHostInFrontOfABackslashIsTheAccountThatTheSystemIsAskedAbout) {
  sandbox::RequireSandbox();
  WriteRoleMap("bob * user\n");
  EXPECT_EQ(Rights({"root\\bob"}).output, "0x40007  administrator, superuser\n");
  EXPECT_EQ(Rights({"root\\ghost"}).output, "0x40007  administrator, superuser\n");
  EXPECT_EQ(Rights({"carol\\bob"}).output, "0x3  power user\n");
  EXPECT_EQ(Rights({"web01\\root"}).output, "0x0  none\n");
}

TEST(ZebctlRights, PrintsJSON) {
  sandbox::RequireSandbox();
  WriteRoleMap("bob * user\n");
  const ProgramResult result = Rights({"--json", "root@here"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "{\n"
            "  \"user\": \"root@here\",\n"
            "  \"rights\": 262151,\n"
            "  \"hexadecimal\": \"0x40007\",\n"
            "  \"words\": [\n"
            "    \"administrator\",\n"
            "    \"superuser\"\n"
            "  ],\n"
            "  \"hints\": []\n"
            "}\n");
}

TEST(ZebctlRights, RoleMapThatCannotBeUsedIsHintedAt) {
  sandbox::RequireSandbox();
  const struct {
    const char *what;
    const char *text;  // NULL for no file
    mode_t mode;
  } cases[] = {
      {"missing", nullptr, 0},
      {"mode", "alice * administrator\n", 0644},
      {"empty", "", 0640},
      {"comments", "# nothing\n", 0640},
      {"malformed", "alice * administrator\nbad\n", 0640},
      {"twice", "alice * administrator\nalice * user\n", 0640},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::RemoveTree(sandbox::kRoleMapPath));
    if (c.text != nullptr) {
      ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, c.text, c.mode));
    }
    const ProgramResult plain = Rights({"alice"});
    EXPECT_EQ(plain.status, 0) << c.what;
    EXPECT_EQ(plain.output, "0x1  user\n") << c.what;
    EXPECT_EQ(plain.errors, Complaints({kBuiltIn})) << c.what;
    const ProgramResult asJSON = Rights({"alice", "--json"});
    EXPECT_EQ(asJSON.errors, "") << c.what;
    EXPECT_EQ(json::parse(asJSON.output)["hints"], json::array({kBuiltIn})) << c.what;
    EXPECT_EQ(json::parse(asJSON.output)["rights"], 1) << c.what;

    WriteService(kPermitService);
    const ProgramResult accepted = Login("x\n", {"alice"});
    EXPECT_EQ(accepted.output, "0x1  user\n") << c.what;
    EXPECT_EQ(accepted.errors, Complaints({kBuiltIn})) << c.what;
    WriteService(kDenyService);
    EXPECT_EQ(Login("x\n", {"alice"}).errors, Complaints({kRefusedByPAM, kBuiltIn})) << c.what;

    const ProgramResult self = WhoAmI();
    EXPECT_EQ(self.status, 0) << c.what;
    EXPECT_EQ(self.errors, Complaints({kBuiltIn})) << c.what;
    EXPECT_NE(self.output.find("rights by the role map  0x7  administrator\n"), std::string::npos) << c.what;
  }
}

TEST(ZebctlRights, CommandLogTellsTheFaultOnceAQuestion) {
  sandbox::RequireSandbox();
  WriteRoleMap("alice * user\nbad\n");
  EXPECT_EQ(Rights({"alice"}).status, 0);
  const std::string log = sandbox::ReadFile(std::string(sandbox::kLogDirectory) + "/qxcmdlog.xml");
  const size_t first = log.find("5911");
  EXPECT_NE(first, std::string::npos) << log;
  EXPECT_EQ(log.find("5911", first + 1), std::string::npos) << log;
  EXPECT_EQ(log.find("5914"), std::string::npos) << log;  // looking whether the map is in use reports nothing
}

TEST(ZebctlRights, LibraryThatIsNotAttachedIsNamed) {
  sandbox::RequireSandbox();
  WriteRoleMap("alice sandbox user\n");
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockDirectory));
  const ProgramResult result = Rights({"alice"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "0x0  none\n");
  EXPECT_EQ(
      result.errors,
      "zebctl: The library is not attached, as its lock file /opt/vorn/fleetops/var/lib/kelvestane/.zebipc cannot "
      "be opened. The directory must be there, and this account must be allowed to open the file. Without it, the "
      "role map does not know this host.\n");
}

TEST(ZebctlRights, NameMustBeText) {
  sandbox::RequireSandbox();
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  WriteRoleMap("ren\xC3\xA9 * user\n");
  EXPECT_EQ(Rights({"ren\xC3\xA9"}).output, "0x1  user\n");
  EXPECT_EQ(json::parse(Rights({"ren\xC3\xA9", "--json"}).output)["user"], "ren\xC3\xA9");
  const ProgramResult invalid = Rights({"ren\xE9"});
  EXPECT_EQ(invalid.status, 2);
  EXPECT_EQ(invalid.errors,
            "zebctl: USER is not valid text in this locale. Check the variables LC_ALL, LC_CTYPE and LANG.\n");
  const ProgramResult empty = Rights({""});
  EXPECT_EQ(empty.status, 2);
  EXPECT_EQ(empty.errors, "zebctl: USER is empty. Name an account.\n");
}

// --- Who am I -------------------------------------------------------------------------------------------------------

TEST(ZebctlWhoAmI, TellsRightsAndNames) {
  sandbox::RequireSandbox();
  WriteRoleMap("root sandbox poweruser\n");
  const ProgramResult result = WhoAmI();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "WHAT                    VALUE\n"
            "rights of the process   0x40007  administrator, superuser\n"
            "rights by the role map  0x3  power user\n"
            "user                    root\n"
            "domain                  sandbox.test\n");
  // Without a grant, the superuser is administrator all the same.
  WriteRoleMap("alice * user\n");
  EXPECT_EQ(json::parse(WhoAmI({"--json"}).output)["roleMapRights"],
            json::parse(R"({"rights": 7, "hexadecimal": "0x7", "words": ["administrator"]})"));
}

TEST(ZebctlWhoAmI, PrintsJSON) {
  sandbox::RequireSandbox();
  WriteRoleMap("root * user\n");
  const ProgramResult result = WhoAmI({"--json"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(json::parse(result.output), json::parse(R"({
              "processRights": {"rights": 262151, "hexadecimal": "0x40007", "words": ["administrator", "superuser"]},
              "roleMapRights": {"rights": 1, "hexadecimal": "0x1", "words": ["user"]},
              "user": "root", "domain": "sandbox.test", "hints": []})"));
}

TEST(ZebctlWhoAmI, WhatThereIsNotIsADash) {
  sandbox::RequireSandbox();
  WriteRoleMap("root * user\n");
  ASSERT_TRUE(sandbox::SetDomainName("(none)"));
  ASSERT_TRUE(sandbox::SetAccounts("alice:x:1001:50::/:/bin/sh\n", "root:x:0:\n"));
  const ProgramResult result = WhoAmI();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");  // there is nobody to ask the role map about, which is in order
  EXPECT_EQ(result.output,
            "WHAT                    VALUE\n"
            "rights of the process   0x40007  administrator, superuser\n"
            "rights by the role map  0x0  none\n"
            "user                    -\n"
            "domain                  -\n");
  const json answer = json::parse(WhoAmI({"--json"}).output);
  EXPECT_EQ(answer["user"], nullptr);
  EXPECT_EQ(answer["domain"], nullptr);
  EXPECT_EQ(answer["hints"], json::array());
  ASSERT_TRUE(sandbox::SetDomainName(""));
  EXPECT_TRUE(WhoAmI().output.ends_with("domain                  (empty)\n"));
  EXPECT_EQ(json::parse(WhoAmI({"--json"}).output)["domain"], "");
}

TEST(ZebctlWhoAmI, OrdinaryAccount) {
  sandbox::RequireSandbox();
  if (!sandbox::CanSwitchAccounts()) {
    // Only user 0 exists here: under another name it is what its name says to the role map.
    WriteRoleMap("alice * poweruser\n");
    ASSERT_TRUE(sandbox::SetAccounts("alice:x:0:0::/:/bin/sh\n", "root:x:0:\n"));
    const json answer = json::parse(WhoAmI({"--json"}).output);
    EXPECT_EQ(answer["user"], "alice");
    EXPECT_EQ(answer["roleMapRights"]["rights"], 3);
    return;
  }
  SetPasswords();
  WriteService(kUnixService);
  WriteRoleMap("carol * user\n");
  constexpr gid_t kStaff = 50;
  ASSERT_EQ(chown(sandbox::kRoleMapPath, 0, kStaff), 0);
  ASSERT_EQ(chmod(sandbox::kLockDirectory, 0777), 0);
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kLockFile, "", 0666));
  const struct {
    const char *name;
    uid_t uid;
    gid_t gid;
    int processRights;
    int roleMapRights;
    bool canReadMap;
  } cases[] = {
      {"alice", 1001, kStaff, 1, 0, true},
      {"carol", 1003, 0, 3, 3, false},  // by the built-in records, as she cannot read the file
      {"bob", 1002, kStaff, 1, 0, true},
  };
  for (const auto &c : cases) {
    sandbox::Process process;
    ASSERT_TRUE(process.Start([&c](sandbox::Channel &) {
      EXPECT_EQ(setresgid(c.gid, c.gid, c.gid), 0);
      EXPECT_EQ(setresuid(c.uid, c.uid, c.uid), 0);
      const json answer = json::parse(RunProgram({ZEBCTL_PATH, "whoami", "--json"}).output);
      EXPECT_EQ(answer["user"], c.name);
      EXPECT_EQ(answer["processRights"]["rights"], c.processRights) << c.name;
      EXPECT_EQ(answer["roleMapRights"]["rights"], c.roleMapRights) << c.name;
      EXPECT_EQ(answer["hints"], c.canReadMap ? json::array() : json::array({kBuiltIn})) << c.name;
      return 0;
    }));
    EXPECT_EQ(process.Wait(), 0) << c.name;
  }
}

// --- The command line -----------------------------------------------------------------------------------------------

TEST(ZebctlLogin, CommandLineIsExplained) {
  sandbox::RequireSandbox();
  WriteRoleMap("-x,login * user\n");
  for (const std::string command : {"login", "rights", "whoami"}) {
    const ProgramResult help = Zebctl("", {command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.errors, "") << command;
    EXPECT_NE(help.output.find("Usage: zebctl " + command), std::string::npos) << help.output;
    EXPECT_NE(help.output.find("0x40007  administrator, superuser"), std::string::npos) << help.output;
    EXPECT_NE(help.output.find("\nExit status: 0"), std::string::npos) << help.output;
    EXPECT_NE(help.output.find("\n             3  the output"), std::string::npos) << help.output;
    const ProgramResult mistake = Zebctl("", {command, "--bogus"});
    EXPECT_EQ(mistake.status, 2) << command;
    EXPECT_EQ(mistake.output, "") << command;
    EXPECT_EQ(mistake.errors,
              "zebctl: \"--bogus\" is not understood here.\nRun \"zebctl " + command + " --help\" to see what is.\n");
  }
  EXPECT_EQ(Login("x\n", {}).errors, "zebctl: USER is required.\nRun \"zebctl login --help\" to see what is.\n");
  EXPECT_EQ(Rights({}).errors, "zebctl: USER is required.\nRun \"zebctl rights --help\" to see what is.\n");
  EXPECT_EQ(Rights({"--", "-x"}).output, "0x1  user\n");
  EXPECT_EQ(Rights({"login"}).output, "0x1  user\n");
}

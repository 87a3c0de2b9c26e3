// Control of the web connection service: the commands, what becomes of their results, and what the service is given.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "sandbox.h"
#include "shared_file.h"
#include "stand_in.h"
#include "zebcs/frame.h"
#include "zebcs/ipc.h"
#include "zebcs/system.h"

namespace {

using sandbox::Channel;
using sandbox::GuardedBuffer;
using sandbox::Lines;
using sandbox::Process;

constexpr char kOsRelease[] = "/etc/os-release";
constexpr char kInitScript[] = "/etc/init.d/vsm_qx_connsvc";
constexpr s32 kUntouched = -4711;

constexpr decltype(&CfgWebServer) kFunctions[] = {CfgWebServer, KCSWebServer};

enum class OsRelease { kAbsent, kPresent };

// The service tools of the system are out of reach, and stand-ins take their places: the search path leads to a folder
// of the test's own and nowhere else, and the folder of the init scripts is empty.
class WebServer : public ::testing::Test {
 protected:
  void SetUp() override {
    sandbox::RequireSandbox();
    ASSERT_EQ(setenv("PATH", m_programs.path().c_str(), 1), 0);
    ASSERT_TRUE(sandbox::MakeDirectories("/etc/init.d"));
    ASSERT_TRUE(m_initScripts.SmallDisk("/etc/init.d", "mode=0755"));
    ASSERT_EQ(access(kInitScript, F_OK), -1);
    Set(OsRelease::kPresent);
  }

  static void Set(OsRelease osRelease) {
    RemoveOsRelease();
    if (osRelease == OsRelease::kPresent) {
      EXPECT_TRUE(sandbox::WriteFile(kOsRelease, "ID=sandbox\n"));
    }
  }

  // The file may be a link, a file of the test's own, or one of the system that is mounted there.
  static void RemoveOsRelease() {
    (void)umount2(kOsRelease, MNT_DETACH | UMOUNT_NOFOLLOW);  // mostly nothing is mounted
    EXPECT_TRUE(sandbox::RemoveTree(kOsRelease));
  }

  std::string ProgramPath(const char *name) const { return m_programs.Path(name); }

  bool PutTools() const {
    return m_standIns.PutAt(ProgramPath("systemctl")) && m_standIns.PutAt(kInitScript) &&
           m_standIns.PutAt(ProgramPath("systemctlvsm_qx_connsvc")) &&
           m_standIns.PutAt(std::string(kInitScript) + "vsm_qx_connsvc");
  }

  sandbox::StandIns m_standIns;

 private:
  const sandbox::TemporaryDirectory m_programs;
  sandbox::Mount m_initScripts;
};

// A stand-in has the place of the shell itself while the object lives.
class ReplacedShell {
 public:
  ReplacedShell() : m_isReplaced(mount(ZEBCS_SYSTEM_PROBE, "/bin/sh", nullptr, MS_BIND, nullptr) == 0) {
    EXPECT_TRUE(m_isReplaced) << std::strerror(errno);
  }
  ReplacedShell(const ReplacedShell &) = delete;
  ReplacedShell &operator=(const ReplacedShell &) = delete;
  ~ReplacedShell() {
    if (m_isReplaced) umount2("/bin/sh", MNT_DETACH);
  }
  explicit operator bool() const { return m_isReplaced; }

 private:
  const bool m_isReplaced;
};

// What the commands are, and the argument lists of the tools that a shell makes of them.
const struct {
  s32 command;
  const char *commandWithOsRelease;
  Lines argumentsWithOsRelease;
  const char *commandWithout;
  Lines argumentsWithout;
} kCommands[] = {
    {0,
     "systemctl stop vsm_qx_connsvc.service 2>&1 >/dev/null",
     {"run", "systemctl", "stop", "vsm_qx_connsvc.service"},
     "/etc/init.d/vsm_qx_connsvc stop 2>&1 >/dev/null",
     {"run", "/etc/init.d/vsm_qx_connsvc", "stop"}},
    {1,
     "systemctl start vsm_qx_connsvc.service 2>&1 >/dev/null",
     {"run", "systemctl", "start", "vsm_qx_connsvc.service"},
     "/etc/init.d/vsm_qx_connsvc start 2>&1 >/dev/null",
     {"run", "/etc/init.d/vsm_qx_connsvc", "start"}},
    {3,
     "systemctl restart vsm_qx_connsvc.service 2>&1 >/dev/null",
     {"run", "systemctl", "restart", "vsm_qx_connsvc.service"},
     "/etc/init.d/vsm_qx_connsvc restart 2>&1 >/dev/null",
     {"run", "/etc/init.d/vsm_qx_connsvc", "restart"}},
    {4,
     "systemctl restart vsm_qx_connsvc.service 2>&1 >/dev/null",
     {"run", "systemctl", "restart", "vsm_qx_connsvc.service"},
     "/etc/init.d/vsm_qx_connsvc restart 2>&1 >/dev/null",
     {"run", "/etc/init.d/vsm_qx_connsvc", "restart"}},
};

// Any other value has the service's name as its word.
constexpr s32 kOtherCommands[] = {2, -1, 5, 6, 100, 256, 259, 65537, -3, INT_MAX, INT_MIN};
constexpr char kOtherWithOsRelease[] = "systemctlvsm_qx_connsvc vsm_qx_connsvc.service 2>&1 >/dev/null";
constexpr char kOtherWithout[] = "/etc/init.d/vsm_qx_connsvcvsm_qx_connsvc 2>&1 >/dev/null";

const struct {
  int code;
  s32 result;
} kExitCodes[] = {{0, SM_STATUS_SUCCESS},
                  {1, -1},
                  {2, SM_STATUS_RENAME_FAILED},
                  {3, -1},
                  {4, -1},
                  {126, -1},
                  {127, -1},
                  {128, -1},
                  {254, -1},
                  {255, -1}};

// Standard output and error output of this process go to files of their own while the object lives.
class Captured {
 public:
  Captured() {
    for (Stream &stream : m_streams) {
      std::fflush(nullptr);
      stream.saved = fcntl(stream.fd, F_DUPFD_CLOEXEC, 400);  // beyond the numbers that a test looks at
      const int file = open(m_directory.Path(stream.name).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
      EXPECT_EQ(dup2(file, stream.fd), stream.fd);
      close(file);
    }
  }
  Captured(const Captured &) = delete;
  Captured &operator=(const Captured &) = delete;
  ~Captured() {
    std::fflush(nullptr);
    for (const Stream &stream : m_streams) {
      dup2(stream.saved, stream.fd);
      close(stream.saved);
    }
  }

  std::string output() const { return sandbox::ReadFile(m_directory.Path(m_streams[0].name)); }
  std::string errors() const { return sandbox::ReadFile(m_directory.Path(m_streams[1].name)); }

 private:
  struct Stream {
    int fd;
    const char *name;
    int saved = -1;
  };

  const sandbox::TemporaryDirectory m_directory;
  std::array<Stream, 2> m_streams{{{STDOUT_FILENO, "output"}, {STDERR_FILENO, "errors"}}};
};

// Descriptors of one file on every free number of a range; the next program gets them all.
class OpenDescriptors {
 public:
  OpenDescriptors(int first, int last) : m_path(m_directory.Path("file")) {
    const int file = open(m_path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const int beyond = fcntl(file, F_DUPFD_CLOEXEC, last + 1);
    close(file);
    for (int fd = first; fd <= last; ++fd) {
      if (fcntl(fd, F_GETFD) != -1) continue;
      EXPECT_EQ(dup2(beyond, fd), fd) << std::strerror(errno);
      m_numbers.insert(fd);
    }
    close(beyond);
  }
  OpenDescriptors(const OpenDescriptors &) = delete;
  OpenDescriptors &operator=(const OpenDescriptors &) = delete;
  ~OpenDescriptors() {
    for (const int fd : m_numbers) close(fd);
  }

  const std::set<int> &numbers() const { return m_numbers; }

  // Whether each can still be written.
  bool AreUsable() const {
    std::string expected = sandbox::ReadFile(m_path);
    for (const int fd : m_numbers) {
      if (write(fd, "x", 1) != 1) return false;
      expected += 'x';
    }
    return sandbox::ReadFile(m_path) == expected;
  }

 private:
  const sandbox::TemporaryDirectory m_directory;
  const std::string m_path;
  std::set<int> m_numbers;
};

std::set<int> Between(const std::set<int> &numbers, int first, int last) {
  return {numbers.lower_bound(first), numbers.upper_bound(last)};
}

}  // namespace

// --- Commands -------------------------------------------------------------------------------------------------------

TEST_F(WebServer, ShellGetsTheWholeCommand) {
  const ReplacedShell shell;
  ASSERT_TRUE(shell);
  const auto commandOf = [this](s32 webServerCmd, OsRelease osRelease, decltype(&CfgWebServer) function) {
    Set(osRelease);
    s32 exitCode = kUntouched;
    EXPECT_EQ(function(webServerCmd, "service", &exitCode), 0);
    EXPECT_EQ(exitCode, 0);
    const Lines arguments = m_standIns.TakeArguments();
    if (arguments.size() < 4) return std::string("(nothing)");
    EXPECT_EQ(arguments[0], "run");
    EXPECT_EQ(arguments[1], "sh");
    EXPECT_EQ(arguments[2], "-c");
    EXPECT_EQ(std::count(arguments.begin(), arguments.end(), "run"), 1);
    return arguments.back();
  };
  for (const auto function : kFunctions) {
    for (const auto &c : kCommands) {
      EXPECT_EQ(commandOf(c.command, OsRelease::kPresent, function), c.commandWithOsRelease) << c.command;
      EXPECT_EQ(commandOf(c.command, OsRelease::kAbsent, function), c.commandWithout) << c.command;
    }
    for (const s32 command : kOtherCommands) {
      EXPECT_EQ(commandOf(command, OsRelease::kPresent, function), kOtherWithOsRelease) << command;
      EXPECT_EQ(commandOf(command, OsRelease::kAbsent, function), kOtherWithout) << command;
    }
  }
}

TEST_F(WebServer, ToolsGetTheirArguments) {
  ASSERT_TRUE(PutTools());
  for (const auto &c : kCommands) {
    for (const OsRelease osRelease : {OsRelease::kPresent, OsRelease::kAbsent}) {
      Set(osRelease);
      s32 exitCode = kUntouched;
      EXPECT_EQ(KCSWebServer(c.command, nullptr, &exitCode), 0);
      EXPECT_EQ(exitCode, 0);
      EXPECT_EQ(m_standIns.TakeArguments(),
                osRelease == OsRelease::kPresent ? c.argumentsWithOsRelease : c.argumentsWithout)
          << c.command;
    }
  }
}

TEST_F(WebServer, KeptUnknownCommandNamesTheServiceTwice) {
  ASSERT_TRUE(PutTools());
  for (const s32 command : kOtherCommands) {
    for (const auto &exit : kExitCodes) {
      m_standIns.Do("exit " + std::to_string(exit.code));
      s32 exitCode = kUntouched;
      Set(OsRelease::kPresent);
      EXPECT_EQ(CfgWebServer(command, nullptr, &exitCode), exit.result) << command << ' ' << exit.code;
      EXPECT_EQ(exitCode, exit.code) << command;
      EXPECT_EQ(m_standIns.TakeArguments(), (Lines{"run", "systemctlvsm_qx_connsvc", "vsm_qx_connsvc.service"}));
    }
    m_standIns.Do("exit 2");
    s32 exitCode = kUntouched;
    Set(OsRelease::kAbsent);
    EXPECT_EQ(CfgWebServer(command, nullptr, &exitCode), SM_STATUS_RENAME_FAILED) << command;
    EXPECT_EQ(exitCode, 2) << command;
    EXPECT_EQ(m_standIns.TakeArguments(), (Lines{"run", "/etc/init.d/vsm_qx_connsvcvsm_qx_connsvc"}));
  }
}

TEST_F(WebServer, ServiceNameHasNoEffect) {
  ASSERT_TRUE(PutTools());
  for (const char *const name :
       {static_cast<const char *>(nullptr), "", "other", "other.service", "; exit 3", "$(x)"}) {
    s32 exitCode = kUntouched;
    EXPECT_EQ(CfgWebServer(1, name, &exitCode), 0);
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(m_standIns.TakeArguments(), (Lines{"run", "systemctl", "start", "vsm_qx_connsvc.service"}));
    EXPECT_EQ(CfgWebServer(2, name, &exitCode), 0);
    EXPECT_EQ(m_standIns.TakeArguments(), (Lines{"run", "systemctlvsm_qx_connsvc", "vsm_qx_connsvc.service"}));
  }
}

TEST_F(WebServer, OsReleaseIsAskedForAtEveryCallAndNeedsOnlyToExist) {
  ASSERT_TRUE(PutTools());
  const sandbox::TemporaryDirectory directory;
  const std::string target = directory.Path("os-release");
  ASSERT_TRUE(sandbox::WriteFile(target, ""));
  const auto toolOf = [this] {
    EXPECT_EQ(CfgWebServer(1, nullptr, nullptr), 0);
    const Lines arguments = m_standIns.TakeArguments();
    return arguments.size() < 2 ? "(none)" : arguments[1];
  };
  EXPECT_EQ(toolOf(), "systemctl");
  RemoveOsRelease();
  EXPECT_EQ(toolOf(), kInitScript);
  ASSERT_TRUE(sandbox::WriteFile(kOsRelease, ""));
  EXPECT_EQ(toolOf(), "systemctl") << "an empty file";
  RemoveOsRelease();
  ASSERT_EQ(symlink(target.c_str(), kOsRelease), 0);
  EXPECT_EQ(toolOf(), "systemctl") << "a link";
  RemoveOsRelease();
  ASSERT_EQ(mkdir(kOsRelease, 0755), 0);
  EXPECT_EQ(toolOf(), "systemctl") << "a folder";
  RemoveOsRelease();
  EXPECT_EQ(toolOf(), kInitScript);
}

// --- Results --------------------------------------------------------------------------------------------------------

TEST_F(WebServer, ExitCodeIsStoredAndDecidesTheResult) {
  ASSERT_TRUE(PutTools());
  for (const OsRelease osRelease : {OsRelease::kPresent, OsRelease::kAbsent}) {
    Set(osRelease);
    for (const auto function : kFunctions) {
      for (const s32 command : {0, 1, 2, 3, 4}) {
        for (const auto &exit : kExitCodes) {
          m_standIns.Do("exit " + std::to_string(exit.code));
          const GuardedBuffer exitCode(sizeof(s32));
          *exitCode.data<s32>() = kUntouched;
          EXPECT_EQ(function(command, nullptr, exitCode.data<s32>()), exit.result) << command << ' ' << exit.code;
          EXPECT_EQ(*exitCode.data<s32>(), exit.code) << command;
        }
      }
    }
  }
  EXPECT_EQ(SM_STATUS_RENAME_FAILED, 258);
}

TEST_F(WebServer, EveryExitCode) {
  const ReplacedShell shell;
  ASSERT_TRUE(shell);
  for (int code = 0; code <= 255; ++code) {
    m_standIns.Do("exit " + std::to_string(code));
    s32 exitCode = kUntouched;
    EXPECT_EQ(CfgWebServer(1, nullptr, &exitCode), code == 0 ? 0 : code == 2 ? 258 : -1) << code;
    EXPECT_EQ(exitCode, code);
  }
}

TEST_F(WebServer, ExitCodeNeedsNoPlace) {
  ASSERT_TRUE(PutTools());
  for (const auto function : kFunctions) {
    for (const auto &exit : kExitCodes) {
      m_standIns.Do("exit " + std::to_string(exit.code));
      EXPECT_EQ(function(1, nullptr, nullptr), exit.result) << exit.code;
    }
  }
}

TEST_F(WebServer, MissingToolIsExitCode127OfTheShell) {
  for (const OsRelease osRelease : {OsRelease::kPresent, OsRelease::kAbsent}) {
    Set(osRelease);
    for (const s32 command : {0, 1, 2, 3, 4, -1, 5}) {
      const Captured captured;  // the shell says what is missing
      s32 exitCode = kUntouched;
      EXPECT_EQ(CfgWebServer(command, nullptr, &exitCode), -1) << command;
      EXPECT_EQ(exitCode, 127) << command;
      EXPECT_EQ(captured.errors(), "") << command;
    }
  }
  ASSERT_TRUE(sandbox::WriteFile(kInitScript, "#!/bin/sh\nexit 0\n", 0644));
  const Captured captured;
  s32 exitCode = kUntouched;
  EXPECT_EQ(CfgWebServer(1, nullptr, &exitCode), -1);
  EXPECT_EQ(exitCode, 126) << "the script may not be run";
}

TEST_F(WebServer, KeptToolThatASignalEndsCountsAsSuccess) {
  ASSERT_TRUE(PutTools());
  m_standIns.Do("kill " + std::to_string(getpid()));
  for (const OsRelease osRelease : {OsRelease::kPresent, OsRelease::kAbsent}) {
    Set(osRelease);
    s32 exitCode = kUntouched;
    EXPECT_EQ(CfgWebServer(1, nullptr, &exitCode), 0);
    EXPECT_EQ(exitCode, 0);
  }
}

TEST_F(WebServer, ResultThatIsLostIsAFailure) {
  ASSERT_TRUE(PutTools());
  ASSERT_NE(std::signal(SIGCHLD, SIG_IGN), SIG_ERR);  // the system then keeps no exit codes
  s32 exitCode = kUntouched;
  EXPECT_EQ(CfgWebServer(1, nullptr, &exitCode), -1);
  EXPECT_EQ(exitCode, 255) << "the second byte of -1";
  ASSERT_NE(std::signal(SIGCHLD, SIG_DFL), SIG_ERR);
  EXPECT_EQ(CfgWebServer(1, nullptr, &exitCode), 0);
  EXPECT_EQ(exitCode, 0);
}

TEST_F(WebServer, ShellThatTheSystemRefusesIsAFailure) {
  ASSERT_TRUE(PutTools());
  Process process;
  ASSERT_TRUE(process.Start([](Channel &) {
    EXPECT_TRUE(sandbox::RefuseProcessesAndThreads());
    for (const auto function : kFunctions) {
      s32 exitCode = kUntouched;
      EXPECT_EQ(function(1, nullptr, &exitCode), -1);
      EXPECT_NE(exitCode, 0);
      EXPECT_NE(exitCode, 2);
      EXPECT_NE(exitCode, kUntouched);
    }
    return 0;
  }));
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_EQ(m_standIns.TakeArguments(), Lines{});
}

// --- What the tool says ---------------------------------------------------------------------------------------------

TEST_F(WebServer, KeptErrorOutputGoesToStandardOutputAndStandardOutputNowhere) {
  ASSERT_TRUE(PutTools());
  for (const OsRelease osRelease : {OsRelease::kPresent, OsRelease::kAbsent}) {
    Set(osRelease);
    for (const s32 command : {0, 1, 2, 3, 4, -1, 5}) {
      for (const int code : {0, 2, 3}) {
        m_standIns.Do("talk " + std::to_string(code));
        std::string output;
        std::string errors;
        {
          const Captured captured;
          EXPECT_EQ(CfgWebServer(command, nullptr, nullptr), code == 0 ? 0 : code == 2 ? 258 : -1);
          output = captured.output();
          errors = captured.errors();
        }
        EXPECT_EQ(output, "said on error output\n") << command << ' ' << code;
        EXPECT_EQ(errors, "") << command << ' ' << code;
      }
    }
  }
}

// --- What the tool is given -----------------------------------------------------------------------------------------

TEST_F(WebServer, RestartGivesTheServiceNoneOfTheDescriptors3To255) {
  ASSERT_TRUE(PutTools());
  ASSERT_EQ(CloseIPCFile(), 0) << "which may have the first of the numbers";
  for (const OsRelease osRelease : {OsRelease::kPresent, OsRelease::kAbsent}) {
    Set(osRelease);
    for (const auto function : kFunctions) {
      for (const s32 command : {3, 4}) {
        const OpenDescriptors open(3, 300);
        // Also those that this test was started with: any would be passed on.
        for (int fd = 3; fd <= 300; ++fd) ASSERT_EQ(fcntl(fd, F_SETFD, 0), 0) << fd;
        std::set<int> above;
        for (int fd = 256; fd <= 300; ++fd) above.insert(fd);
        EXPECT_EQ(function(command, nullptr, nullptr), 0);
        const std::set<int> given = m_standIns.TakeDescriptors();
        EXPECT_EQ(Between(given, 0, 2), (std::set<int>{0, 1, 2}));
        EXPECT_EQ(Between(given, 3, 255), std::set<int>{});
        EXPECT_EQ(Between(given, 256, 300), above);
      }
    }
  }
  ASSERT_EQ(OpenIPCFile(), 0);
}

TEST_F(WebServer, RestartLeavesTheDescriptorsOfTheCallerOpen) {
  ASSERT_TRUE(PutTools());
  for (const s32 command : {3, 4}) {
    const OpenDescriptors open(3, 300);
    ASSERT_TRUE(open.AreUsable());
    EXPECT_EQ(CfgWebServer(command, nullptr, nullptr), 0);
    EXPECT_TRUE(open.AreUsable());
    for (const int fd : open.numbers()) {
      EXPECT_EQ(fcntl(fd, F_GETFD), fd <= 255 ? FD_CLOEXEC : 0) << fd;
    }
    m_standIns.TakeDescriptors();
  }
}

TEST_F(WebServer, OtherCommandsPassDescriptorsOn) {
  ASSERT_TRUE(PutTools());
  for (const OsRelease osRelease : {OsRelease::kPresent, OsRelease::kAbsent}) {
    Set(osRelease);
    for (const s32 command : {0, 1, 2, -1, 5}) {
      const OpenDescriptors open(3, 300);
      EXPECT_EQ(CfgWebServer(command, nullptr, nullptr), 0);
      const std::set<int> given = m_standIns.TakeDescriptors();
      for (const int fd : open.numbers()) {
        EXPECT_TRUE(given.contains(fd)) << fd;
        EXPECT_EQ(fcntl(fd, F_GETFD), 0) << fd;
      }
      EXPECT_TRUE(open.AreUsable());
    }
  }
}

TEST_F(WebServer, RestartThatFailsMarksTheDescriptorsToo) {
  const Captured captured;
  const OpenDescriptors open(3, 300);
  s32 exitCode = kUntouched;
  EXPECT_EQ(CfgWebServer(3, nullptr, &exitCode), -1);
  EXPECT_EQ(exitCode, 127);
  EXPECT_TRUE(open.AreUsable());
  for (const int fd : open.numbers()) EXPECT_EQ(fcntl(fd, F_GETFD), fd <= 255 ? FD_CLOEXEC : 0) << fd;
}

TEST_F(WebServer, FileLockOutlivesARestart) {
  ASSERT_TRUE(PutTools());
  for (const s32 command : {3, 4}) {
    ASSERT_EQ(FileLock(1), 1);
    EXPECT_FALSE(sandbox::LockIsFree());
    EXPECT_EQ(CfgWebServer(command, nullptr, nullptr), 0);
    EXPECT_FALSE(sandbox::LockIsFree()) << "still held";
    FileUnlock();
    EXPECT_TRUE(sandbox::LockIsFree());
    EXPECT_EQ(FileLock(0), 1) << "and can be taken again";
    EXPECT_FALSE(sandbox::LockIsFree());
    FileUnlock();
  }
}

// Helpers for tests that run under the launcher zebcs-sandbox.
//
// A helper that changes something first makes sure that the process runs in a sandbox, and ends the process if it does
// not: these are the paths of a real installation. A helper that fails adds a failure to the running test and says
// what went wrong; its result only lets the test stop early.
//
// The sandbox starts with these accounts and groups, the host name "sandbox" and the domain name "sandbox.test":
//   root (0), toor (0), daemon (1), nobody (65534)
//   alice (1001)  primary group staff (50), member of wheel (10) and operators (2000)
//   bob (1002)    primary group bob (1002), member of wheel
//   carol (1003)  primary group root (0)
//   dave (1004)   primary group dave (1004), member of team0 (3000) to team99 (3099)
// Also there, without members: shadow (42), users (100), nogroup (65534). No password is set.
#ifndef ZEBCS_TESTS_SANDBOX_SANDBOX_H
#define ZEBCS_TESTS_SANDBOX_SANDBOX_H

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace sandbox {

inline constexpr const char *kRoleMapPath = "/opt/vorn/fleetops/etc/zebrolemap";
inline constexpr const char *kLockDirectory = "/opt/vorn/fleetops/var/lib/kelvestane";
inline constexpr const char *kLockFile = "/opt/vorn/fleetops/var/lib/kelvestane/.zebipc";
inline constexpr const char *kLogDirectory = "/opt/vorn/fleetops/var/log/kelvestane";
inline constexpr const char *kIniDirectory = "/opt/vorn/fleetops/etc/kelvestane/zeb/ini";
inline constexpr const char *kConfPath = "/etc/zeb.conf";

// Ends the process with a clear message unless it runs in a sandbox.
void RequireSandbox();

// Whether accounts other than user 0 exist for the kernel, so that chown and setresuid to them work: true exactly if
// the launcher was started as root. A test that needs them must have something to check in the other case, too.
bool CanSwitchAccounts();

// --- Files ----------------------------------------------------------------------------------------------------------

// Makes the file hold exactly this text with exactly this mode, whatever the umask. A file that exists keeps its inode.
bool WriteFile(const std::string &path, std::string_view text, mode_t mode = 0644,
               std::optional<std::time_t> modificationTime = std::nullopt);
std::string ReadFile(const std::string &path);
bool SetModificationTime(const std::string &path, std::time_t seconds);

// Makes a directory and those above it that are missing, with mode 0755.
bool MakeDirectories(const std::string &path);

// Removes a file or a directory with all that it holds; nothing there is no failure. Refuses to touch anything outside
// the private trees /etc, /opt/vorn and the temporary one.
bool RemoveTree(const std::string &path);

// A new empty directory that goes away with the object.
class TemporaryDirectory {
 public:
  [[nodiscard]] TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory &) = delete;
  TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
  ~TemporaryDirectory();

  const std::string &path() const { return m_path; }
  std::string Path(std::string_view name) const;  // the path of an entry

 private:
  std::string m_path;
};

// --- Accounts and names ---------------------------------------------------------------------------------------------

// Replaces /etc/passwd and /etc/group.
bool SetAccounts(std::string_view passwdText, std::string_view groupText);
bool SetHostName(std::string_view name);
bool SetDomainName(std::string_view name);

// --- Network interfaces ---------------------------------------------------------------------------------------------

// The sandbox starts with the loopback interface alone. AddInterface makes one that is up and running and has no
// address, not even an automatic one. It needs a counterpart, which is called NAME-p and never has an address; a name
// may therefore have at most 13 letters.
bool AddInterface(const std::string &name);
bool AddAddress(const std::string &name, const std::string &addressWithPrefix);  // "192.0.2.10/24", "2001:db8::1/64"

// Returns once the change is visible in IFF_RUNNING. Taking an interface down costs it its IPv6 addresses, as always.
bool SetInterfaceUp(const std::string &name, bool isUp);

// --- A second process -----------------------------------------------------------------------------------------------

inline constexpr std::chrono::milliseconds kDeadline = std::chrono::seconds(30);

// Exit statuses of a child that did not get as far as returning one.
inline constexpr int kChannelFailed = 124;      // its partner did not read, did not answer, or was gone
inline constexpr int kExpectationFailed = 123;  // an expectation failed in the child, or it threw
inline constexpr int kNoExitStatus = -1;        // it did not end in time and was killed; a failure was added

// One end of a line of talk between two processes. Waiting beyond the deadline, or for a partner that is gone, adds a
// failure in the parent and ends the child with kChannelFailed.
class Channel {
 public:
  Channel() = default;
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;
  ~Channel();

  void Put(std::string_view line);  // without a line end
  std::string Get();                // without its line end; empty after a failure

 private:
  friend class Process;
  void Open(int fd, bool isChild, std::chrono::milliseconds deadline);
  void Close();
  bool WaitFor(short event, std::chrono::steady_clock::time_point end);
  void Fail(const char *what);

  int m_fd = -1;
  bool m_isChild = false;
  std::chrono::milliseconds m_deadline = kDeadline;
  std::string m_pending;  // read, but after the line that was asked for
};

// A real second process, made by fork, which runs a function of the test and ends by _exit with its result. It starts
// as a copy of the thread that calls Start, so start it before any other thread exists. It is killed when that thread
// ends, and when the object goes away.
class Process {
 public:
  using Body = std::function<int(Channel &)>;

  explicit Process(std::chrono::milliseconds deadline = kDeadline) : m_deadline(deadline) {}
  Process(const Process &) = delete;
  Process &operator=(const Process &) = delete;
  ~Process();

  bool Start(const Body &body);
  void Send(std::string_view line) { m_channel.Put(line); }
  std::string Receive() { return m_channel.Get(); }
  void Kill(int signal = SIGKILL);  // does not wait
  int Wait();                       // the exit status, or 128 + the number of the signal that ended the process
  pid_t pid() const { return m_pid; }

 private:
  std::chrono::milliseconds m_deadline;
  Channel m_channel;
  pid_t m_pid = -1;  // -1 while there is nothing to wait for
};

// --- A role map that cannot be read ---------------------------------------------------------------------------------

// Puts a regular file of mode 0640 at kRoleMapPath that stat finds and open refuses with EACCES, runs the body in a
// child process for which this holds, takes the file away again and returns the child's exit status. The child is
// user 0 and may write below /opt/vorn and /etc, but lacks the right to read other accounts' files. If the file
// turns out to be readable, that is a failure and the body is not run.
int RunWithUnreadableRoleMap(const std::function<int()> &body);

}  // namespace sandbox

#endif

#include "sandbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <system_error>
#include <vector>

// There only where the tests are built with coverage counters.
extern "C" [[gnu::weak]] void __gcov_dump();

namespace sandbox {

namespace {

using Clock = std::chrono::steady_clock;

// The same two paths stand in the launcher.
constexpr const char *kTemporaryRoot = "/opt/zebcs-test-tmp";
constexpr const char *kForeignFile = "/opt/zebcs-foreign-file";

struct FdGuard {
  explicit FdGuard(int descriptor) : fd(descriptor) {}
  FdGuard(const FdGuard &) = delete;
  FdGuard &operator=(const FdGuard &) = delete;
  ~FdGuard() {
    if (fd >= 0) close(fd);
  }
  int fd;
};

// Every helper reports a failed system call in this form; it reads errno, so it comes right after the call.
bool FailedTo(const std::string &step) {
  const int error = errno;
  ADD_FAILURE() << "cannot " << step << ": " << std::strerror(error);
  return false;
}

int MillisecondsUntil(Clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Whether the descriptor has the event, an error or a hang-up before the end.
bool PollUntil(int fd, short event, Clock::time_point end) {
  for (;;) {
    pollfd request = {.fd = fd, .events = event, .revents = 0};
    const int ready = poll(&request, 1, MillisecondsUntil(end));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

}  // namespace

void RequireSandbox() {
  const char *mark = std::getenv("ZEBCS_SANDBOX");
  const char *temporary = std::getenv("ZEBCS_SANDBOX_TMP");
  if (mark != nullptr && temporary != nullptr && access(kTemporaryRoot, W_OK) == 0) return;
  std::fputs("This test changes system files and must run in the sandbox: zebcs-sandbox TEST-PROGRAM\n", stderr);
  _exit(EXIT_FAILURE);
}

bool CanSwitchAccounts() {
  // Each line says: first number in here, first number outside, count.
  const std::string map = ReadFile("/proc/self/uid_map");
  unsigned count = 0;
  return std::sscanf(map.c_str(), "%*u %*u %u", &count) == 1 && (count > 1 || map.find('\n') + 1 < map.size());
}

// --- Files ----------------------------------------------------------------------------------------------------------

bool WriteFile(const std::string &path, std::string_view text, mode_t mode,
               std::optional<std::time_t> modificationTime) {
  RequireSandbox();
  const FdGuard file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (file.fd < 0) return FailedTo("open " + path + " for writing");
  while (!text.empty()) {
    const ssize_t written = write(file.fd, text.data(), text.size());
    if (written < 0) return FailedTo("write " + path);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  if (fchmod(file.fd, mode) != 0) return FailedTo("set the mode of " + path);
  return !modificationTime || SetModificationTime(path, *modificationTime);
}

std::string ReadFile(const std::string &path) {
  std::string text;
  const FdGuard file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.fd < 0) {
    FailedTo("open " + path + " for reading");
    return text;
  }
  std::array<char, 4096> piece;
  for (;;) {
    const ssize_t got = read(file.fd, piece.data(), piece.size());
    if (got < 0) FailedTo("read " + path);
    if (got <= 0) return text;
    text.append(piece.data(), static_cast<std::size_t>(got));
  }
}

bool SetModificationTime(const std::string &path, std::time_t seconds) {
  RequireSandbox();
  const std::array<timespec, 2> times = {{{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, {.tv_sec = seconds, .tv_nsec = 0}}};
  return utimensat(AT_FDCWD, path.c_str(), times.data(), 0) == 0 || FailedTo("set the time of " + path);
}

bool MakeDirectories(const std::string &path) {
  RequireSandbox();
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    if (mkdir(part.c_str(), 0755) == 0) {
      if (chmod(part.c_str(), 0755) != 0) return FailedTo("set the mode of " + part);  // whatever the umask
    } else if (errno != EEXIST) {
      return FailedTo("make the directory " + part);
    }
    if (end == std::string::npos) return true;
  }
}

bool RemoveTree(const std::string &path) {
  RequireSandbox();
  const std::string plain = std::filesystem::path(path).lexically_normal().string();
  if (!plain.starts_with("/etc/") && !plain.starts_with("/opt/vorn/") &&
      !plain.starts_with(std::string(kTemporaryRoot) + '/')) {
    ADD_FAILURE() << "will not remove " << path << ": it is outside the private trees";
    return false;
  }
  std::error_code error;
  std::filesystem::remove_all(plain, error);
  if (error) ADD_FAILURE() << "cannot remove " << path << ": " << error.message();
  return !error;
}

TemporaryDirectory::TemporaryDirectory() {
  RequireSandbox();
  std::string pattern = std::string(kTemporaryRoot) + "/XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr)
    FailedTo("make a temporary directory");
  else
    m_path = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  if (!m_path.empty()) RemoveTree(m_path);
}

std::string TemporaryDirectory::Path(std::string_view name) const { return m_path + '/' + std::string(name); }

// --- Accounts and names ---------------------------------------------------------------------------------------------

bool SetAccounts(std::string_view passwdText, std::string_view groupText) {
  return WriteFile("/etc/passwd", passwdText) && WriteFile("/etc/group", groupText);
}

bool SetHostName(std::string_view name) {
  RequireSandbox();
  return sethostname(name.data(), name.size()) == 0 || FailedTo("set the host name");
}

bool SetDomainName(std::string_view name) {
  RequireSandbox();
  return setdomainname(name.data(), name.size()) == 0 || FailedTo("set the domain name");
}

// --- Network interfaces ---------------------------------------------------------------------------------------------

namespace {

// An ordinary user's search path often lacks the directories for administrators.
const char *FindIpProgram() {
  for (const char *path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
    if (access(path, X_OK) == 0) return path;
  return nullptr;
}

// Runs "ip" with these words; what it has to say goes to the standard error of the test.
bool RunIp(std::vector<std::string> words) {
  RequireSandbox();
  const char *program = FindIpProgram();
  if (program == nullptr) {
    ADD_FAILURE() << "the program ip is missing; install iproute2";
    return false;
  }
  std::string command = "ip";
  words.insert(words.begin(), command);
  std::vector<char *> arguments;
  for (std::string &word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  for (std::size_t i = 1; i < words.size(); ++i) command += ' ' + words[i];

  pid_t pid = -1;
  errno = posix_spawn(&pid, program, nullptr, nullptr, arguments.data(), environ);
  if (errno != 0) return FailedTo("start " + command);
  int status = 0;
  while (waitpid(pid, &status, 0) != pid)
    if (errno != EINTR) return FailedTo("wait for " + command);
  if (status != 0) ADD_FAILURE() << command << " failed with wait status " << status;
  return status == 0;
}

bool IsRunning(const std::string &name) {
  const FdGuard socketFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request = {};
  name.copy(request.ifr_name, sizeof request.ifr_name - 1);
  if (socketFd.fd < 0 || ioctl(socketFd.fd, SIOCGIFFLAGS, &request) != 0) return FailedTo("examine " + name);
  return (request.ifr_flags & IFF_RUNNING) != 0;
}

// A socket that has something to read whenever an interface has changed. Open it before making a change.
int OpenLinkWatch() {
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  sockaddr_nl address = {};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK;
  if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
    FailedTo("watch the network interfaces");
  return fd;
}

bool WaitForRunning(const std::string &name, bool isRunning, int watchFd) {
  const Clock::time_point end = Clock::now() + kDeadline;
  while (IsRunning(name) != isRunning) {
    std::array<char, 8192> ignored;  // Only the fact that something has changed matters.
    if (!PollUntil(watchFd, POLLIN, end)) {
      ADD_FAILURE() << "the interface " << name << " did not " << (isRunning ? "begin" : "cease") << " to run";
      return false;
    }
    (void)recv(watchFd, ignored.data(), ignored.size(), MSG_DONTWAIT);  // A lost message has served its purpose, too.
  }
  return true;
}

}  // namespace

bool AddInterface(const std::string &name) {
  const std::string counterpart = name + "-p";
  if (!RunIp({"link", "add", "name", name, "type", "veth", "peer", "name", counterpart})) return false;
  for (const std::string &end : {counterpart, name})
    if (!RunIp({"link", "set", "dev", end, "addrgenmode", "none"})) return false;
  // The counterpart cannot run before the interface itself is up, so only the latter is waited for.
  if (!RunIp({"link", "set", "dev", counterpart, "up"})) return false;
  return SetInterfaceUp(name, true);
}

bool AddAddress(const std::string &name, const std::string &addressWithPrefix) {
  std::vector<std::string> words = {"address", "add", addressWithPrefix, "dev", name};
  // Without this word, an IPv6 address is not usable until nobody has objected to it for a second.
  if (addressWithPrefix.find(':') != std::string::npos) words.emplace_back("nodad");
  return RunIp(words);
}

bool SetInterfaceUp(const std::string &name, bool isUp) {
  const FdGuard watch(OpenLinkWatch());
  return RunIp({"link", "set", "dev", name, isUp ? "up" : "down"}) && WaitForRunning(name, isUp, watch.fd);
}

// --- A second process -----------------------------------------------------------------------------------------------

Channel::~Channel() { Close(); }

void Channel::Open(int fd, bool isChild, std::chrono::milliseconds deadline) {
  Close();
  m_fd = fd;
  m_isChild = isChild;
  m_deadline = deadline;
  m_pending.clear();
}

void Channel::Close() {
  if (m_fd >= 0) close(m_fd);
  m_fd = -1;
}

void Channel::Fail(const char *what) {
  if (m_isChild) {
    std::fprintf(stderr, "child process %d: %s\n", getpid(), what);
    _exit(kChannelFailed);
  }
  ADD_FAILURE() << what;
}

bool Channel::WaitFor(short event, Clock::time_point end) {
  const bool isReady = m_fd >= 0 && PollUntil(m_fd, event, end);
  if (!isReady) Fail(m_fd < 0 ? "there is no other process" : "the other process did not answer in time");
  return isReady;
}

void Channel::Put(std::string_view line) {
  const Clock::time_point end = Clock::now() + m_deadline;
  const std::string text = std::string(line) + '\n';
  for (std::size_t done = 0; done < text.size();) {
    if (!WaitFor(POLLOUT, end)) return;
    const ssize_t sent = send(m_fd, text.data() + done, text.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0)
      done += static_cast<std::size_t>(sent);
    else if (errno != EAGAIN && errno != EINTR)
      return Fail("the other process is gone");
  }
}

std::string Channel::Get() {
  const Clock::time_point end = Clock::now() + m_deadline;
  for (;;) {
    if (const std::size_t lineEnd = m_pending.find('\n'); lineEnd != std::string::npos) {
      std::string line = m_pending.substr(0, lineEnd);
      m_pending.erase(0, lineEnd + 1);
      return line;
    }
    if (!WaitFor(POLLIN, end)) return {};
    std::array<char, 4096> piece;
    const ssize_t got = recv(m_fd, piece.data(), piece.size(), MSG_DONTWAIT);
    if (got > 0) {
      m_pending.append(piece.data(), static_cast<std::size_t>(got));
    } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
      Fail("the other process is gone");
      return {};
    }
  }
}

namespace {

int RunBody(const Process::Body &body, Channel &channel) {
  const bool hadFailed = ::testing::Test::HasFailure();
  int status = kExpectationFailed;
  try {
    status = body(channel);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "child process %d threw: %s\n", getpid(), error.what());
  }
  // A failed expectation is printed here but counts in this process only; the exit status carries it to the parent.
  return !hadFailed && ::testing::Test::HasFailure() ? kExpectationFailed : status;
}

// Where there are coverage counters, writes those of the library, which it would do itself only where it is unloaded:
// that is what it then calls last, and all that this call does. Under a limit of file sizes they would be cut off, and
// under another root directory they would get in the way of the test.
void WriteCounters() {
  rlimit fileSize = {};
  if (__gcov_dump == nullptr || getrlimit(RLIMIT_FSIZE, &fileSize) != 0 || fileSize.rlim_cur != RLIM_INFINITY) return;
  for (const link_map *object = _r_debug.r_map; object != nullptr; object = object->l_next) {
    if (!std::string_view(object->l_name).ends_with("/libzebcs.so.1") || access(object->l_name, F_OK) != 0) continue;
    for (const ElfW(Dyn) *entry = object->l_ld; entry->d_tag != DT_NULL; ++entry) {
      if (entry->d_tag == DT_FINI) reinterpret_cast<void (*)()>(object->l_addr + entry->d_un.d_ptr)();
    }
  }
}

}  // namespace

bool Process::Start(const Body &body) {
  if (m_pid > 0) {
    ADD_FAILURE() << "the process has been started before and was not waited for";
    return false;
  }
  // A pair of sockets instead of two pipes: writing to a partner that is gone can be asked not to raise a signal.
  std::array<int, 2> ends;
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return FailedTo("make a pair of sockets");
  std::fflush(nullptr);  // Text that still waits to be written would be written twice.
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(kChannelFailed);  // The parent ended before the line above.
    close(ends[0]);
    m_channel.Close();
    Channel channel;
    channel.Open(ends[1], true, m_deadline);
    const int status = RunBody(body, channel);
    std::fflush(nullptr);
    WriteCounters();
    _exit(status);
  }
  close(ends[1]);
  m_channel.Open(ends[0], false, m_deadline);
  return m_pid > 0 || FailedTo("start a process");
}

void Process::Kill(int signal) {
  if (m_pid > 0 && kill(m_pid, signal) != 0) FailedTo("send a signal");
}

int Process::Wait() {
  if (m_pid <= 0) {
    ADD_FAILURE() << "there is no process to wait for";
    return kNoExitStatus;
  }
  // The C library's header for this call is not usable from C++ everywhere.
  const FdGuard processFd(static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0)));
  const bool hasEnded = processFd.fd >= 0 && PollUntil(processFd.fd, POLLIN, Clock::now() + m_deadline);
  if (!hasEnded) {
    ADD_FAILURE() << "the process " << m_pid << " did not end in time";
    Kill();
  }
  int status = 0;
  while (waitpid(m_pid, &status, 0) != m_pid)
    if (errno != EINTR) {
      FailedTo("wait for a process");
      break;
    }
  m_pid = -1;
  if (!hasEnded) return kNoExitStatus;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

Process::~Process() {
  if (m_pid <= 0) return;
  Kill();
  Wait();
}

// --- A role map that cannot be read ---------------------------------------------------------------------------------

namespace {

// The file lies at kRoleMapPath as long as the object lives.
class UnreadableFile {
 public:
  [[nodiscard]] UnreadableFile() {
    if (!RemoveTree(kRoleMapPath) || !WriteFile(kRoleMapPath, "unreadable\n", 0640)) return;
    if (CanSwitchAccounts()) {
      constexpr uid_t carol = 1003;
      constexpr gid_t nogroup = 65534;
      m_isReady = chown(kRoleMapPath, carol, nogroup) == 0 || FailedTo("give the role map away");
    } else {
      // Whatever an ordinary user makes it can also read, so a file of the machine takes the place.
      m_isBound = mount(kForeignFile, kRoleMapPath, nullptr, MS_BIND, nullptr) == 0 || FailedTo("bind the role map");
      m_isReady = m_isBound;
    }
  }
  UnreadableFile(const UnreadableFile &) = delete;
  UnreadableFile &operator=(const UnreadableFile &) = delete;
  ~UnreadableFile() {
    if (m_isBound && umount2(kRoleMapPath, MNT_DETACH) != 0) FailedTo("unbind the role map");
    RemoveTree(kRoleMapPath);
  }
  explicit operator bool() const { return m_isReady; }

 private:
  bool m_isReady = false;
  bool m_isBound = false;
};

// Gives up the two rights by which user 0 reads every file. User 0 itself stays, so that the child can go on writing to
// the directories of user 0 and behaves alike whoever started the sandbox.
bool DropReadRights() {
  __user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> rights = {};
  if (syscall(SYS_capget, &header, rights.data()) != 0) return FailedTo("ask for the rights of the process");
  constexpr __u32 dropped = 1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH;
  rights[0].effective &= ~dropped;
  rights[0].permitted &= ~dropped;
  rights[0].inheritable &= ~dropped;
  return syscall(SYS_capset, &header, rights.data()) == 0 || FailedTo("drop rights of the process");
}

bool IsUnreadable(const char *path) {
  struct stat info = {};
  if (stat(path, &info) != 0) return FailedTo(std::string("examine ") + path);
  EXPECT_EQ(info.st_mode, static_cast<mode_t>(S_IFREG | 0640)) << path << " must be a regular file of mode 0640";
  const FdGuard file(open(path, O_RDONLY | O_CLOEXEC));
  const int error = file.fd < 0 ? errno : 0;
  EXPECT_EQ(error, EACCES) << path << " must refuse to be opened";
  return error == EACCES && info.st_mode == (S_IFREG | 0640);
}

}  // namespace

int RunWithUnreadableRoleMap(const std::function<int()> &body) {
  const UnreadableFile file;
  if (!file) return kNoExitStatus;
  Process process;
  const bool isStarted = process.Start([&body](Channel &) {
    if (!DropReadRights() || !IsUnreadable(kRoleMapPath)) return kExpectationFailed;
    return body();
  });
  return isStarted ? process.Wait() : kNoExitStatus;
}

}  // namespace sandbox

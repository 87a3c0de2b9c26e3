// zebcs-sandbox PROGRAM [ARGS...]: runs one program in a private copy of everything a test may change.
//
// The library under test works on fixed paths below /opt/vorn and /etc, on the host name, on semaphores and on network
// interfaces. This launcher gives the program its own user, mount, UTS, IPC and network namespaces, prepares them, and
// then becomes the program, so that exit status, signals and process id are those of the program itself. Everything
// goes away with the last process inside, so nothing has to be cleaned up.
//
// Started as root, every account that exists outside exists inside too, and a test can give files away and change
// to another account. Started as an ordinary user, only user 0 exists inside, and it stands for that user.
//
// A step that fails ends the launcher with one line of text and status 125: a test never runs half-protected.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace {

constexpr int kLauncherFailed = 125;

// The same two paths stand in the helper library for the tests.
constexpr const char *kTemporaryRoot = "/opt/zebcs-test-tmp";
constexpr const char *kForeignFile = "/opt/zebcs-foreign-file";

constexpr const char *kNamespaceAdvice =
    "allow user namespaces with the sysctls kernel.unprivileged_userns_clone=1, user.max_user_namespaces above 0 and, "
    "where it exists, kernel.apparmor_restrict_unprivileged_userns=0; in a container, allow unshare and mount";
constexpr const char *kMapAdvice =
    "as root, keep the capabilities SETUID, SETGID and SETFCAP; as an ordinary user, make the launcher readable";
constexpr const char *kMountAdvice =
    "check that /opt, /etc and /proc exist and that mounting in a namespace is allowed";
constexpr const char *kKernelAdvice = "check that no system call filter around this process forbids it";

// What the sandbox owns in /etc. Everything else there is the original, read-only.
constexpr std::array<std::string_view, 14> kOwnedInEtc = {"passwd",   "passwd-",  "group",         "group-",   "shadow",
                                                          "shadow-",  "gshadow",  "gshadow-",      "hosts",    "pam.d",
                                                          "zeb.conf", "hostname", "nsswitch.conf", ".pwd.lock"};

constexpr std::array<std::string_view, 3> kOwnedInOpt = {"vorn", "zebcs-test-tmp", "zebcs-foreign-file"};

constexpr std::string_view kPasswd =
    "root:x:0:0:root:/root:/bin/sh\n"
    "toor:x:0:0:second superuser:/root:/bin/sh\n"
    "daemon:x:1:1:daemon:/usr/sbin:/usr/sbin/nologin\n"
    "alice:x:1001:50:Alice:/home/alice:/bin/sh\n"
    "bob:x:1002:1002:Bob:/home/bob:/bin/sh\n"
    "carol:x:1003:0:Carol:/home/carol:/bin/sh\n"
    "dave:x:1004:1004:Dave:/home/dave:/bin/sh\n"
    "nobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin\n";

constexpr std::string_view kGroup =
    "root:x:0:\n"
    "daemon:x:1:\n"
    "wheel:x:10:alice,bob\n"
    "shadow:x:42:\n"
    "staff:x:50:\n"
    "users:x:100:\n"
    "bob:x:1002:\n"
    "dave:x:1004:\n"
    "operators:x:2000:alice\n"
    "nogroup:x:65534:\n";

// Dave is a member of more groups than any first guess at a buffer holds.
constexpr int kTeams = 100;
constexpr int kFirstTeamGroup = 3000;

[[noreturn]] void Fail(std::string_view step, const char *advice) {
  const int error = errno;
  std::fprintf(stderr, "zebcs-sandbox: cannot %.*s: %s; %s\n", static_cast<int>(step.size()), step.data(),
               std::strerror(error), advice);
  _exit(kLauncherFailed);
}

struct FdGuard {
  explicit FdGuard(int descriptor) : fd(descriptor) {}
  FdGuard(const FdGuard &) = delete;
  FdGuard &operator=(const FdGuard &) = delete;
  ~FdGuard() {
    if (fd >= 0) close(fd);
  }
  int fd;
};

struct DirCloser {
  void operator()(DIR *dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::string ReadAll(int fd, const std::string &path) {
  std::string text;
  std::array<char, 4096> piece;
  for (;;) {
    const ssize_t got = read(fd, piece.data(), piece.size());
    if (got < 0) Fail("read " + path, kMountAdvice);
    if (got == 0) return text;
    text.append(piece.data(), static_cast<std::size_t>(got));
  }
}

std::string ReadFile(const std::string &path) {
  const FdGuard file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.fd < 0) Fail("open " + path, kMountAdvice);
  return ReadAll(file.fd, path);
}

void MakeDirectory(const std::string &path, mode_t mode) {
  if (mkdir(path.c_str(), mode) != 0) Fail("make the directory " + path, kMountAdvice);
}

void MakeFile(const std::string &path, mode_t mode, std::string_view text) {
  const FdGuard file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (file.fd < 0 || !WriteAll(file.fd, text)) Fail("make the file " + path, kMountAdvice);
}

// --- Namespaces -----------------------------------------------------------------------------------------------------

// Writes a map in one call, as the kernel demands.
void WriteMap(const std::string &path, std::string_view text) {
  const FdGuard file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (file.fd < 0 || write(file.fd, text.data(), text.size()) < 0) Fail("write " + path, kMapAdvice);
}

struct IdentityMap {
  std::string text;
  unsigned long count = 0;
};

// Maps every number that exists here to itself. The lines of the present map are "number here, number outside, count".
IdentityMap MakeIdentityMap(const char *path) {
  const std::string present = ReadFile(path);
  IdentityMap map;
  unsigned first = 0;
  unsigned outside = 0;
  unsigned count = 0;
  int length = 0;
  for (const char *rest = present.c_str(); std::sscanf(rest, "%u %u %u %n", &first, &outside, &count, &length) == 3;
       rest += length) {
    map.text += std::to_string(first) + ' ' + std::to_string(first) + ' ' + std::to_string(count) + '\n';
    map.count += count;
  }
  return map;
}

// In some containers user 0 is the only account there is; it is then an ordinary user for our purposes.
bool StartedAsRoot() { return geteuid() == 0 && MakeIdentityMap("/proc/self/uid_map").count > 1; }

void Unshare() {
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWNET) != 0)
    Fail("create the namespaces", kNamespaceAdvice);
}

// Only a process outside the new user namespace may map more than one account, so a child stays behind to do it.
void EnterAsRoot() {
  const std::string uidMap = MakeIdentityMap("/proc/self/uid_map").text;
  const std::string gidMap = MakeIdentityMap("/proc/self/gid_map").text;
  const std::string self = "/proc/" + std::to_string(getpid());

  std::array<int, 2> go;
  if (pipe2(go.data(), O_CLOEXEC) != 0) Fail("create a pipe", kKernelAdvice);
  const pid_t helper = fork();
  if (helper < 0) Fail("start the helper that maps the accounts", kKernelAdvice);
  if (helper == 0) {
    close(go[1]);
    char byte = 0;
    if (read(go[0], &byte, 1) != 1) _exit(kLauncherFailed);  // The launcher has failed and has said why.
    WriteMap(self + "/uid_map", uidMap);
    WriteMap(self + "/gid_map", gidMap);
    _exit(0);
  }
  close(go[0]);
  Unshare();
  if (!WriteAll(go[1], "g")) Fail("wake the helper that maps the accounts", kKernelAdvice);
  close(go[1]);
  int status = 0;
  if (waitpid(helper, &status, 0) != helper) Fail("wait for the helper that maps the accounts", kKernelAdvice);
  if (status != 0) _exit(kLauncherFailed);  // The helper has said why.

  // Groups that the caller happens to be in would change what the tests may read.
  if (setgroups(0, nullptr) != 0 || setresgid(0, 0, 0) != 0 || setresuid(0, 0, 0) != 0)
    Fail("become user 0 of the sandbox", kMapAdvice);
}

void EnterAsOrdinaryUser() {
  const std::string uidMap = "0 " + std::to_string(geteuid()) + " 1\n";
  const std::string gidMap = "0 " + std::to_string(getegid()) + " 1\n";
  Unshare();
  WriteMap("/proc/self/setgroups", "deny");
  WriteMap("/proc/self/uid_map", uidMap);
  WriteMap("/proc/self/gid_map", gidMap);
}

// --- File system ----------------------------------------------------------------------------------------------------

void MountTmpfs(const char *path) {
  if (mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0)
    Fail(std::string("mount a tmpfs at ") + path, kMountAdvice);
}

void MakeReadOnly(const std::string &path) {
  mount_attr attributes = {};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  if (mount_setattr(AT_FDCWD, path.c_str(), AT_RECURSIVE, &attributes, sizeof attributes) != 0)
    Fail("protect " + path + " against writing", "use a kernel of version 5.12 or later");
}

enum class Access { kAsBefore, kReadOnly };

// Makes one entry of a covered directory visible again. A link keeps its text, so that a relative one still leads to
// where it led. An entry that somebody has removed in the meantime is left out, as if it had been removed before.
void BringBack(int originalFd, const std::string &name, const std::string &target, Access access) {
  struct stat info = {};
  if (fstatat(originalFd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return;
    Fail("examine the original of " + target, kMountAdvice);
  }
  if (S_ISLNK(info.st_mode)) {
    std::array<char, 4096> text;
    const ssize_t length = readlinkat(originalFd, name.c_str(), text.data(), text.size());
    if (length < 0 || symlink(std::string(text.data(), static_cast<std::size_t>(length)).c_str(), target.c_str()) != 0)
      Fail("copy the link " + target, kMountAdvice);
    return;
  }
  if (S_ISDIR(info.st_mode))
    MakeDirectory(target, 0755);
  else
    MakeFile(target, 0644, "");
  const std::string source = "/proc/self/fd/" + std::to_string(originalFd) + '/' + name;
  if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    if (errno == ENOENT && std::remove(target.c_str()) == 0) return;
    Fail("bring back " + target, kMountAdvice);
  }
  if (access == Access::kReadOnly) MakeReadOnly(target);
}

// Covers a directory with an empty one of our own and brings its entries back, except those that the sandbox owns.
void CoverDirectory(const std::string &path, int originalFd, std::span<const std::string_view> owned, Access access) {
  MountTmpfs(path.c_str());
  const int listFd = openat(originalFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const DirPtr dir(listFd < 0 ? nullptr : fdopendir(listFd));
  if (!dir) Fail("list the original " + path, kMountAdvice);
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(dir.get());
    if (entry == nullptr) break;
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || std::find(owned.begin(), owned.end(), name) != owned.end()) continue;
    BringBack(originalFd, name, path + '/' + name, access);
  }
  if (errno != 0) Fail("list the original " + path, kMountAdvice);
}

int OpenOriginal(const char *path) {
  const int fd = open(path, O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) Fail(std::string("open ") + path, kMountAdvice);
  return fd;
}

void PrepareOpt() {
  const FdGuard original(OpenOriginal("/opt"));
  CoverDirectory("/opt", original.fd, kOwnedInOpt, Access::kAsBefore);
  for (const char *path :
       {"/opt/vorn", "/opt/vorn/fleetops", "/opt/vorn/fleetops/etc", "/opt/vorn/fleetops/etc/kelvestane",
        "/opt/vorn/fleetops/etc/kelvestane/zeb", "/opt/vorn/fleetops/etc/kelvestane/zeb/ini", "/opt/vorn/fleetops/var",
        "/opt/vorn/fleetops/var/lib", "/opt/vorn/fleetops/var/lib/kelvestane", "/opt/vorn/fleetops/var/log",
        "/opt/vorn/fleetops/var/log/kelvestane"})
    MakeDirectory(path, 0755);
  MakeDirectory(kTemporaryRoot, 01777);
}

// Later tests add a service of their own, so the directory is real and its files are copies.
void CopyPamServices(int originalEtc) {
  MakeDirectory("/etc/pam.d", 0755);
  const int pamFd = openat(originalEtc, "pam.d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (pamFd < 0 && errno == ENOENT) return;
  const DirPtr dir(pamFd < 0 ? nullptr : fdopendir(pamFd));
  if (!dir) Fail("list the original /etc/pam.d", kMountAdvice);
  for (;;) {
    errno = 0;
    const dirent *entry = readdir(dir.get());
    if (entry == nullptr) break;
    struct stat info = {};
    if (fstatat(pamFd, entry->d_name, &info, 0) != 0 || !S_ISREG(info.st_mode)) continue;
    const std::string path = std::string("/etc/pam.d/") + entry->d_name;
    const FdGuard file(openat(pamFd, entry->d_name, O_RDONLY | O_CLOEXEC));
    if (file.fd < 0) Fail("open the original " + path, "make the file readable");
    MakeFile(path, info.st_mode & 0777, ReadAll(file.fd, path));
  }
  if (errno != 0) Fail("list the original /etc/pam.d", kMountAdvice);
}

// One line "NAME:*:..." for each line of an account file: nobody can log in with a password until a test sets one.
std::string LockedEntries(std::string_view accounts, std::string_view rest) {
  std::string text;
  while (!accounts.empty()) {
    text.append(accounts.substr(0, accounts.find(':'))).append(":*:").append(rest).append("\n");
    accounts.remove_prefix(accounts.find('\n') + 1);
  }
  return text;
}

std::string GroupText() {
  std::string text(kGroup);
  for (int team = 0; team < kTeams; ++team)
    text += "team" + std::to_string(team) + ":x:" + std::to_string(kFirstTeamGroup + team) + ":dave\n";
  return text;
}

// An ordinary user owns every file that it can make in here, and can therefore always read it. The one file at hand
// that it cannot read is the password file of the machine; a test binds it where it needs an unreadable file.
void KeepForeignFile(int originalEtc) {
  struct stat info = {};
  if (fstatat(originalEtc, "shadow", &info, 0) == 0) BringBack(originalEtc, "shadow", kForeignFile, Access::kReadOnly);
}

void PrepareEtc(bool isRoot) {
  const FdGuard original(OpenOriginal("/etc"));
  CoverDirectory("/etc", original.fd, kOwnedInEtc, Access::kReadOnly);
  const std::string group = GroupText();
  MakeFile("/etc/passwd", 0644, kPasswd);
  MakeFile("/etc/group", 0644, group);
  MakeFile("/etc/shadow", 0640, LockedEntries(kPasswd, "19000:0:99999:7:::"));
  MakeFile("/etc/gshadow", 0640, LockedEntries(group, ":"));
  MakeFile("/etc/.pwd.lock", 0600, "");
  MakeFile("/etc/nsswitch.conf", 0644,
           "passwd: files\ngroup: files\nshadow: files\ngshadow: files\nhosts: files\nnetworks: files\n"
           "protocols: files\nservices: files\n");
  MakeFile("/etc/hosts", 0644,
           "127.0.0.1 localhost\n127.0.1.1 sandbox.sandbox.test sandbox\n::1 localhost ip6-localhost\n");
  MakeFile("/etc/hostname", 0644, "sandbox\n");
  CopyPamServices(original.fd);
  if (!isRoot) KeepForeignFile(original.fd);
}

void PrepareFileSystem(bool isRoot) {
  // The whole path is asked for first: it cannot be found any more once its beginning is covered.
  const std::unique_ptr<char, decltype(&std::free)> start(getcwd(nullptr, 0), &std::free);
  if (!start) Fail("find the current directory", "start from a directory that exists");
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) Fail("make the mounts private", kMountAdvice);
  PrepareOpt();
  PrepareEtc(isRoot);
  // A running name-service cache would answer with the accounts of the machine.
  if (access("/var/run/nscd", F_OK) == 0) MountTmpfs("/var/run/nscd");
  // A process that stands below a covered directory still stands in the covered one. Elsewhere nothing has changed,
  // and going there again could only fail, for an ordinary user who was put into a directory it may not enter.
  const std::string directory = std::string(start.get()) + '/';
  if ((directory.starts_with("/opt/") || directory.starts_with("/etc/")) && chdir(start.get()) != 0)
    Fail("return to " + directory, "start from another directory");
}

// --- Names and network ----------------------------------------------------------------------------------------------

void SetNames() {
  constexpr std::string_view host = "sandbox";
  constexpr std::string_view domain = "sandbox.test";
  if (sethostname(host.data(), host.size()) != 0) Fail("set the host name", kKernelAdvice);
  if (setdomainname(domain.data(), domain.size()) != 0) Fail("set the domain name", kKernelAdvice);
}

void StartLoopback() {
  const FdGuard socketFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request = {};
  std::strcpy(request.ifr_name, "lo");
  if (socketFd.fd < 0 || ioctl(socketFd.fd, SIOCGIFFLAGS, &request) != 0)
    Fail("examine the loopback interface", kKernelAdvice);
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  if (ioctl(socketFd.fd, SIOCSIFFLAGS, &request) != 0) Fail("start the loopback interface", kKernelAdvice);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fputs("usage: zebcs-sandbox PROGRAM [ARGS...]\n", stderr);
    return kLauncherFailed;
  }
  const bool isRoot = StartedAsRoot();
  if (isRoot)
    EnterAsRoot();
  else
    EnterAsOrdinaryUser();

  const mode_t callersMask = umask(0);  // The modes above are meant exactly.
  PrepareFileSystem(isRoot);
  umask(callersMask);
  SetNames();
  StartLoopback();

  // The thread sanitizer needs the memory layout that it was built for.
  const int present = personality(0xffffffff);
  if (present == -1 || personality(static_cast<unsigned long>(present) | ADDR_NO_RANDOMIZE) == -1)
    Fail("turn off address randomisation", kKernelAdvice);
  if (setenv("ZEBCS_SANDBOX", "1", 1) != 0 || setenv("ZEBCS_SANDBOX_TMP", kTemporaryRoot, 1) != 0)
    Fail("extend the environment", "make the environment smaller");
  execvp(argv[1], argv + 1);
  Fail(std::string("start ") + argv[1], "check that the file exists and that this user may run it");
}

#include "sandbox.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/magic.h>
#include <net/if.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/personality.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "guarded_buffer.h"

namespace {

constexpr const char *kTwoAccounts = "root:x:0:0::/:/bin/sh\nerin:x:1500:1500::/:/bin/sh\n";
constexpr const char *kTwoGroups = "root:x:0:\nerin:x:1500:root\n";

bool IsOnTmpfs(const char *path) {
  struct statfs info = {};
  return statfs(path, &info) == 0 && info.f_type == TMPFS_MAGIC;
}

mode_t ModeOf(const std::string &path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

std::time_t ModificationTimeOf(const std::string &path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? info.st_mtime : 0;
}

std::string AddressText(const sockaddr *address) {
  std::array<char, INET6_ADDRSTRLEN> text = {};
  const void *bytes = address->sa_family == AF_INET
                          ? static_cast<const void *>(&reinterpret_cast<const sockaddr_in *>(address)->sin_addr)
                          : static_cast<const void *>(&reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr);
  return inet_ntop(address->sa_family, bytes, text.data(), text.size()) == nullptr ? "" : text.data();
}

// The addresses of running interfaces other than loopback, as "interface address".
std::vector<std::string> RunningAddresses() {
  ifaddrs *first = nullptr;
  std::vector<std::string> addresses;
  if (getifaddrs(&first) != 0) return {"getifaddrs failed"};
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, &freeifaddrs);
  for (const ifaddrs *entry = first; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) continue;
    if (entry->ifa_addr->sa_family != AF_INET && entry->ifa_addr->sa_family != AF_INET6) continue;
    if ((entry->ifa_flags & IFF_RUNNING) == 0 || (entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
    addresses.push_back(std::string(entry->ifa_name) + ' ' + AddressText(entry->ifa_addr));
  }
  std::sort(addresses.begin(), addresses.end());
  return addresses;
}

using Addresses = std::vector<std::string>;

}  // namespace

TEST(Sandbox, IsRequiredAndPresent) { sandbox::RequireSandbox(); }

TEST(Sandbox, EndsTheProcessWithoutItsMark) {
  EXPECT_EXIT(
      {
        unsetenv("ZEBCS_SANDBOX");
        sandbox::SetHostName("never");
      },
      ::testing::ExitedWithCode(1), "must run in the sandbox");
}

TEST(Sandbox, IsUserZero) {
  EXPECT_EQ(getuid(), 0U);
  EXPECT_EQ(geteuid(), 0U);
  EXPECT_EQ(getgid(), 0U);
}

TEST(Sandbox, HasItsOwnTrees) {
  for (const char *path : {"/opt", "/etc", "/etc/pam.d", "/opt/vorn/fleetops/etc", sandbox::kLockDirectory,
                           sandbox::kLogDirectory, sandbox::kIniDirectory}) {
    EXPECT_TRUE(IsOnTmpfs(path)) << path;
    EXPECT_EQ(ModeOf(path), 0755U) << path;
    const std::string file = std::string(path) + "/sandbox-test";
    EXPECT_TRUE(sandbox::WriteFile(file, "private")) << path;
    EXPECT_EQ(sandbox::ReadFile(file), "private") << path;
    EXPECT_TRUE(path == std::string("/opt") ? unlink(file.c_str()) == 0 : sandbox::RemoveTree(file)) << path;
  }
  EXPECT_NE(access(sandbox::kConfPath, F_OK), 0);
}

TEST(Sandbox, KeepsTheOtherSystemFilesReadOnly) {
  struct statvfs info = {};
  ASSERT_EQ(statvfs("/etc/ld.so.cache", &info), 0);
  EXPECT_NE(info.f_flag & ST_RDONLY, 0U);
  EXPECT_EQ(access("/etc/ld.so.cache", R_OK), 0);
  EXPECT_EQ(open("/etc/ld.so.cache", O_WRONLY | O_CLOEXEC), -1);
}

TEST(Sandbox, HidesThePasswordsOfTheMachine) {
  EXPECT_EQ(ModeOf("/etc/shadow"), 0640U);
  EXPECT_EQ(ModeOf("/etc/gshadow"), 0640U);
  const spwd *alice = getspnam("alice");
  ASSERT_NE(alice, nullptr);
  EXPECT_STREQ(alice->sp_pwdp, "*");
}

TEST(Sandbox, HasItsOwnAccounts) {
  const passwd *alice = getpwnam("alice");
  ASSERT_NE(alice, nullptr);
  EXPECT_EQ(alice->pw_uid, 1001U);
  EXPECT_EQ(alice->pw_gid, 50U);
  const passwd *toor = getpwnam("toor");
  ASSERT_NE(toor, nullptr);
  EXPECT_EQ(toor->pw_uid, 0U);
  const group *operators = getgrgid(2000);
  ASSERT_NE(operators, nullptr);
  EXPECT_STREQ(operators->gr_name, "operators");
  EXPECT_STREQ(operators->gr_mem[0], "alice");
  int groupCount = 0;
  EXPECT_EQ(getgrouplist("dave", 1004, nullptr, &groupCount), -1);
  EXPECT_EQ(groupCount, 101);
}

TEST(Sandbox, LetsATestReplaceTheAccounts) {
  ASSERT_TRUE(sandbox::SetAccounts(kTwoAccounts, kTwoGroups));
  const passwd *erin = getpwnam("erin");
  ASSERT_NE(erin, nullptr);
  EXPECT_EQ(erin->pw_uid, 1500U);
  EXPECT_EQ(getpwnam("alice"), nullptr);
  EXPECT_EQ(getgrgid(2000), nullptr);
}

TEST(Sandbox, SwitchesAccountsExactlyIfItSaysSo) {
  sandbox::Process process;
  ASSERT_TRUE(process.Start([](sandbox::Channel &) { return setresuid(1002, 1002, 1002) == 0 ? 0 : errno; }));
  EXPECT_EQ(process.Wait(), sandbox::CanSwitchAccounts() ? 0 : EINVAL);
}

TEST(Sandbox, HasItsOwnNames) {
  std::array<char, 65> name = {};
  ASSERT_EQ(gethostname(name.data(), name.size()), 0);
  EXPECT_STREQ(name.data(), "sandbox");
  ASSERT_EQ(getdomainname(name.data(), name.size()), 0);
  EXPECT_STREQ(name.data(), "sandbox.test");
  ASSERT_TRUE(sandbox::SetHostName("other"));
  ASSERT_TRUE(sandbox::SetDomainName("other.test"));
  ASSERT_EQ(gethostname(name.data(), name.size()), 0);
  EXPECT_STREQ(name.data(), "other");
  ASSERT_EQ(getdomainname(name.data(), name.size()), 0);
  EXPECT_STREQ(name.data(), "other.test");
}

TEST(Sandbox, StartsWithoutSemaphores) {
  const int id = semget(0x5a5a, 1, IPC_CREAT | IPC_EXCL | 0600);
  EXPECT_EQ(id, 0);  // the first number that a new namespace hands out
  EXPECT_EQ(semctl(id, 0, IPC_RMID), 0);
}

TEST(Sandbox, HasAFixedMemoryLayout) { EXPECT_NE(personality(0xffffffff) & ADDR_NO_RANDOMIZE, 0); }

TEST(Files, HaveExactlyTheModeAndTimeAskedFor) {
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("file");
  const mode_t callersMask = umask(077);
  EXPECT_TRUE(sandbox::WriteFile(path, "long text", 0666, 1000));
  EXPECT_EQ(ModeOf(path), 0666U);
  EXPECT_EQ(ModificationTimeOf(path), 1000);
  EXPECT_TRUE(sandbox::WriteFile(path, "short", 0604));
  EXPECT_EQ(ModeOf(path), 0604U);
  EXPECT_EQ(sandbox::ReadFile(path), "short");
  EXPECT_TRUE(sandbox::SetModificationTime(path, 2000));
  EXPECT_EQ(ModificationTimeOf(path), 2000);
  EXPECT_TRUE(sandbox::MakeDirectories(directory.Path("a/b/c")));
  EXPECT_EQ(ModeOf(directory.Path("a/b/c")), 0755U);
  umask(callersMask);
}

TEST(Files, TemporaryDirectoryGoesAwayWithAllThatItHolds) {
  std::string path;
  {
    const sandbox::TemporaryDirectory directory;
    path = directory.path();
    EXPECT_TRUE(path.starts_with(getenv("ZEBCS_SANDBOX_TMP")));
    EXPECT_TRUE(sandbox::MakeDirectories(directory.Path("a/b")));
    EXPECT_TRUE(sandbox::WriteFile(directory.Path("a/b/file"), ""));
  }
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(Files, RemoveTreeRefusesTheRestOfTheMachine) {
  for (const char *path : {"/nowhere/file", "/etc", "/opt/vorn/../nowhere", "relative"})
    EXPECT_NONFATAL_FAILURE(sandbox::RemoveTree(path), "outside the private trees");
}

TEST(Interfaces, ListHoldsExactlyWhatTheTestHasAdded) {
  EXPECT_EQ(RunningAddresses(), Addresses());
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  EXPECT_EQ(RunningAddresses(), Addresses());
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::10/64"));
  EXPECT_EQ(RunningAddresses(), (Addresses{"net0 192.0.2.10", "net0 2001:db8::10"}));
  ASSERT_TRUE(sandbox::SetInterfaceUp("net0", false));
  EXPECT_EQ(RunningAddresses(), Addresses());
  ASSERT_TRUE(sandbox::SetInterfaceUp("net0", true));
  EXPECT_EQ(RunningAddresses(), Addresses{"net0 192.0.2.10"});
}

TEST(Interfaces, IpSixAddressIsUsableAtOnce) {
  ASSERT_TRUE(sandbox::AddInterface("net1"));
  ASSERT_TRUE(sandbox::AddAddress("net1", "2001:db8:1::10/64"));
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8:1::10", &address.sin6_addr), 1);
  const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  close(fd);
}

TEST(Interfaces, FailureIsReported) {
  EXPECT_NONFATAL_FAILURE(sandbox::AddAddress("missing", "192.0.2.10/24"), "ip address add 192.0.2.10/24 dev missing");
}

TEST(Process, TalksThroughItsChannel) {
  sandbox::Process process;
  ASSERT_TRUE(process.Start([](sandbox::Channel &channel) {
    while (true) {
      const std::string line = channel.Get();
      if (line == "end") return 7;
      channel.Put(line + ' ' + line);
    }
  }));
  process.Send("one");
  EXPECT_EQ(process.Receive(), "one one");
  process.Send("");
  process.Send("two");
  EXPECT_EQ(process.Receive(), " ");
  EXPECT_EQ(process.Receive(), "two two");
  process.Send("end");
  EXPECT_EQ(process.Wait(), 7);
}

TEST(Process, KilledChildIsReaped) {
  pid_t pid = -1;
  {
    sandbox::Process first;
    sandbox::Process second;
    ASSERT_TRUE(first.Start([](sandbox::Channel &channel) { return channel.Get().empty() ? 0 : 1; }));
    ASSERT_TRUE(second.Start([](sandbox::Channel &channel) { return channel.Get().empty() ? 0 : 1; }));
    pid = second.pid();
    first.Kill();
    EXPECT_EQ(first.Wait(), 128 + SIGKILL);
  }
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_EQ(errno, ESRCH);
}

TEST(Process, GoneOrSilentPartnerIsAFailureAndNoHang) {
  sandbox::Process gone;
  ASSERT_TRUE(gone.Start([](sandbox::Channel &) { return 0; }));
  EXPECT_NONFATAL_FAILURE(gone.Receive(), "the other process is gone");
  EXPECT_EQ(gone.Wait(), 0);
  EXPECT_NONFATAL_FAILURE(gone.Send("anybody there?"), "the other process is gone");

  sandbox::Process silent(std::chrono::milliseconds(50));
  ASSERT_TRUE(silent.Start([](sandbox::Channel &) { return pause(); }));
  EXPECT_NONFATAL_FAILURE(silent.Receive(), "did not answer in time");
  EXPECT_NONFATAL_FAILURE(EXPECT_EQ(silent.Wait(), sandbox::kNoExitStatus), "did not end in time");
}

TEST(Process, FailedExpectationInTheChildReachesTheParent) {
  sandbox::Process process;
  ASSERT_TRUE(process.Start([](sandbox::Channel &) {
    EXPECT_TRUE(false) << "this failure is meant to be printed";
    return 0;
  }));
  EXPECT_EQ(process.Wait(), sandbox::kExpectationFailed);
}

TEST(RunWithUnreadableRoleMap, BodySeesTheFileButCannotOpenIt) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "readable"));
  const int status = sandbox::RunWithUnreadableRoleMap([] {
    EXPECT_EQ(ModeOf(sandbox::kRoleMapPath), 0640U);
    EXPECT_EQ(open(sandbox::kRoleMapPath, O_RDONLY | O_CLOEXEC), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_TRUE(sandbox::WriteFile(sandbox::kLockFile, ""));
    return 42;
  });
  EXPECT_EQ(status, 42);
  EXPECT_NE(access(sandbox::kRoleMapPath, F_OK), 0);
}

TEST(GuardedBuffer, EveryByteIsUsableAndFilled) {
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{4095}, std::size_t{4096}, std::size_t{9000}})
    for (const sandbox::Guard guard : {sandbox::Guard::kAfter, sandbox::Guard::kBefore}) {
      sandbox::GuardedBuffer buffer(size, guard);
      EXPECT_EQ(buffer.size(), size);
      const unsigned char *bytes = buffer.data<unsigned char>();
      EXPECT_TRUE(std::all_of(bytes, bytes + size, [](unsigned char byte) {
        return byte == sandbox::GuardedBuffer::kFill;
      })) << size;
      buffer.Fill(0);
      EXPECT_TRUE(std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == 0; })) << size;
    }
}

TEST(GuardedBuffer, OneElementTooFarEndsTheProcess) {
  const sandbox::GuardedBuffer after(10);
  volatile char *bytes = after.data<volatile char>();
  EXPECT_DEATH((void)bytes[10], "");
  EXPECT_DEATH(bytes[10] = 1, "");
  volatile unsigned short *units = after.data<volatile unsigned short>();
  units[4] = 1;
  EXPECT_DEATH(units[5] = 1, "");
  const sandbox::GuardedBuffer before(10, sandbox::Guard::kBefore);
  bytes = before.data<volatile char>();
  bytes[0] = 1;
  EXPECT_DEATH(bytes[-1] = 1, "");
}

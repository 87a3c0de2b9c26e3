// Name numbers, the IPC lock file with real second processes, local mutexes and System V semaphores.
#include "zebcs/ipc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "program.h"
#include "sandbox.h"

namespace {

using sandbox::Channel;
using sandbox::Process;

constexpr int kName = 4711;

std::string NameOutput(const std::string &configuration) {
  sandbox::WriteFile(sandbox::kConfPath, configuration);
  return RunProgram({ZEBCS_FRAME_PROBE, "name"}).output;
}

// Takes from this process the right to open files that its own mode bits refuse, which user 0 otherwise has.
bool DropFileOverride() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  data[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
  return syscall(SYS_capset, &header, data) == 0;
}

std::chrono::milliseconds TimeOf(const auto &call) {
  const auto start = std::chrono::steady_clock::now();
  call();
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

// A process that takes the global lock, says so, and releases it when told.
int HoldGlobalMutex(Channel &channel) {
  void *const mutex = CreateGlobalMutex(kName + 1);
  channel.Put(WaitForGlobalMutex(mutex, 0) == 0 ? "held" : "failed");
  if (channel.Get() != "release") return 1;
  channel.Put(ReleaseGlobalMutex(mutex) == 0 ? "released" : "failed");
  return channel.Get() == "end" ? 0 : 1;
}

}  // namespace

TEST(CreateIPCName, BaseIs100000WithoutConfiguration) {
  EXPECT_EQ(RunProgram({ZEBCS_FRAME_PROBE, "name"}).output, "130000\n");
}

TEST(CreateIPCName, BaseComesFromTheFirstLineThatYieldsANumber) {
  const struct {
    const char *what;
    std::string text;
    const char *expected;
  } cases[] = {
      {"plain line", "ipcnamebase=200000\n", "230000\n"},
      {"no final newline", "ipcnamebase=200000", "230000\n"},
      {"leading blanks and a blank before the number", " \t ipcnamebase= 5\n", "30005\n"},
      {"text after the number", "ipcnamebase=5x\n", "30005\n"},
      {"a sign", "ipcnamebase=-5\n", "29995\n"},
      {"other lines first", "# comment\nother=1\n\nipcnamebase=9\n", "30009\n"},
      {"first of two", "ipcnamebase=1\nipcnamebase=2\n", "30001\n"},
      {"a line without a number is passed over", "ipcnamebase=x\nipcnamebase=3\n", "30003\n"},
      {"blank before the sign of equality", "ipcnamebase =4\n", "130000\n"},
      {"other case", "IPCNAMEBASE=4\n", "130000\n"},
      {"no such line", "nothing\n", "130000\n"},
      {"empty file", "", "130000\n"},
      {"number 255 characters into a line", std::string(243, ' ') + "ipcnamebase=6\n", "130000\n"},
      {"number within 255 characters", std::string(242, ' ') + "ipcnamebase=6\n", "30006\n"},
      {"the rest of a long line is a line", std::string(255, 'x') + "ipcnamebase=7\n", "30007\n"},
  };
  for (const auto &c : cases) EXPECT_EQ(NameOutput(c.text), c.expected) << c.what;
}

TEST(CreateIPCName, IsReadOncePerProcess) {
  sandbox::WriteFile(sandbox::kConfPath, "ipcnamebase=1\n");
  EXPECT_EQ(RunProgram({ZEBCS_FRAME_PROBE, "reread"}).output, "30001\n30001\n");
}

TEST(CreateIPCName, MissingLineIsNotLookedForAgain) {
  sandbox::WriteFile(sandbox::kConfPath, "nothing\n");
  EXPECT_EQ(RunProgram({ZEBCS_FRAME_PROBE, "reread"}).output, "130000\n130000\n");
}

TEST(CreateIPCName, KeptBaseOfMinusOneIsReadAgain) {
  sandbox::WriteFile(sandbox::kConfPath, "ipcnamebase=-1\n");
  EXPECT_EQ(RunProgram({ZEBCS_FRAME_PROBE, "reread"}).output, "29999\n30007\n");
}

TEST(CreateIPCName, SumWraps) {
  sandbox::RequireSandbox();
  EXPECT_EQ(CreateIPCName(2147483647), static_cast<int>(2147483647u + 100000u));
  EXPECT_EQ(CreateIPCName(-100000), 0);
}

TEST(OpenIPCFile, CreatesTheFileWithItsModeAndOpensItOnce) {
  sandbox::RequireSandbox();
  ASSERT_EQ(CloseIPCFile(), 0);
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockFile));
  umask(0);
  EXPECT_EQ(OpenIPCFile(), 0);
  struct stat status {};
  ASSERT_EQ(stat(sandbox::kLockFile, &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0664));
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockFile));
  EXPECT_EQ(OpenIPCFile(), 0);
  EXPECT_EQ(access(sandbox::kLockFile, F_OK), -1) << "an open file was opened again";
}

TEST(OpenIPCFile, DoesNotTakeThePlaceOfAClosedStandardStream) {
  sandbox::RequireSandbox();
  const ProgramResult result =
      RunProgram({"/bin/sh", "-c", std::string("exec '") + ZEBCS_FRAME_PROBE + "' standard-input <&-"});
  EXPECT_EQ(result.output, "closed, lock 1\n");
}

TEST(OpenIPCFile, MissingFolderFails) {
  sandbox::RequireSandbox();
  ASSERT_EQ(CloseIPCFile(), 0);
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockDirectory));
  EXPECT_EQ(OpenIPCFile(), -1);
  EXPECT_EQ(CreateGlobalMutex(kName), nullptr);
  EXPECT_EQ(OpenGlobalMutex(kName), nullptr);
}

TEST(CloseIPCFile, AnswersZeroAlsoWhenClosed) {
  sandbox::RequireSandbox();
  EXPECT_EQ(CloseIPCFile(), 0);
  EXPECT_EQ(CloseIPCFile(), 0);
}

TEST(CloseIPCFile, DropsTheLock) {
  sandbox::RequireSandbox();
  ASSERT_EQ(WaitForGlobalMutex(CreateGlobalMutex(kName), 0), 0);
  ASSERT_EQ(CloseIPCFile(), 0);
  Process other;
  ASSERT_TRUE(other.Start([](Channel &) { return WaitForGlobalMutex(CreateGlobalMutex(kName), 0); }));
  EXPECT_EQ(other.Wait(), 0);
}

TEST(LockIPCFileRecord, ClosedFileFails) {
  sandbox::RequireSandbox();
  ASSERT_EQ(CloseIPCFile(), 0);
  EXPECT_EQ(LockIPCFileRecord(0, ZEBCS_WAIT_FOREVER), -1);
  EXPECT_EQ(LockIPCFileRecord(0, 0), ZEBCS_WAIT_TIMED_OUT);
  EXPECT_EQ(LockIPCFileRecord(0, 1), ZEBCS_WAIT_TIMED_OUT);
  EXPECT_EQ(LockIPCFileRecord(0, 2), -1);
  EXPECT_EQ(UnlockIPCFileRecord(0), -1);
}

TEST(LockIPCFileRecord, KeptEveryOffsetIsTheSameLock) {
  sandbox::RequireSandbox();
  ASSERT_EQ(LockIPCFileRecord(5, 0), 0);
  Process other;
  ASSERT_TRUE(other.Start([](Channel &channel) {
    channel.Put(std::to_string(LockIPCFileRecord(1000000, 0)));
    channel.Get();
    return LockIPCFileRecord(77, 0);
  }));
  EXPECT_EQ(other.Receive(), "3");
  EXPECT_EQ(UnlockIPCFileRecord(123), 0);
  other.Send("go on");
  EXPECT_EQ(other.Wait(), 0);
}

TEST(LockIPCFileRecord, WaitThatWouldNeverEndFails) {
  sandbox::RequireSandbox();
  // Each of two processes has what the other waits for.
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("other");
  ASSERT_TRUE(sandbox::WriteFile(path, ""));
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  Process other;
  ASSERT_TRUE(other.Start([&](Channel &channel) {
    if (LockIPCFileRecord(0, 0) != 0) return 1;
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    channel.Put("held");
    if (channel.Get() != "wait") return 2;
    if (fcntl(fd, F_SETLKW, &whole) != 0) return 3;
    return UnlockIPCFileRecord(0) == 0 ? 0 : 4;
  }));
  ASSERT_EQ(other.Receive(), "held");
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(fcntl(fd, F_SETLK, &whole), 0);
  other.Send("wait");
  const std::string waiting = "-> POSIX  ADVISORY  WRITE " + std::to_string(other.pid()) + ' ';
  const auto end = std::chrono::steady_clock::now() + sandbox::kDeadline;
  while (sandbox::ReadFile("/proc/locks").find(waiting) == std::string::npos) {
    ASSERT_LT(std::chrono::steady_clock::now(), end);
    std::this_thread::yield();
  }
  EXPECT_EQ(LockIPCFileRecord(0, ZEBCS_WAIT_FOREVER), -1);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(other.Wait(), 0);
  EXPECT_EQ(LockIPCFileRecord(0, ZEBCS_WAIT_FOREVER), 0);
}

TEST(LockIPCFileRecord, ReadOnlyFileIsLockedForReading) {
  sandbox::RequireSandbox();
  Process reader;
  ASSERT_TRUE(reader.Start([](Channel &channel) {
    CloseIPCFile();
    if (chmod(sandbox::kLockFile, 0444) != 0 || !DropFileOverride()) return 1;
    if (OpenIPCFile() != 0) return 2;
    // A single attempt is a write lock and is refused; one more is a read lock.
    if (LockIPCFileRecord(0, 0) != ZEBCS_WAIT_TIMED_OUT) return 3;
    if (LockIPCFileRecord(0, 1) != 0) return 4;
    if (UnlockIPCFileRecord(0) != 0) return 5;
    if (LockIPCFileRecord(0, ZEBCS_WAIT_FOREVER) != 0) return 6;
    channel.Put("held");
    return channel.Get() == "end" ? 0 : 7;
  }));
  ASSERT_EQ(reader.Receive(), "held");
  Process secondReader;
  ASSERT_TRUE(secondReader.Start([](Channel &) {
    CloseIPCFile();
    if (!DropFileOverride() || OpenIPCFile() != 0) return 1;
    return LockIPCFileRecord(0, 1) == 0 ? 0 : 2;
  }));
  EXPECT_EQ(secondReader.Wait(), 0) << "two readers share the lock";
  EXPECT_EQ(WaitForGlobalMutex(CreateGlobalMutex(kName), 2), ZEBCS_WAIT_TIMED_OUT) << "a reader keeps writers out";
  reader.Send("end");
  EXPECT_EQ(reader.Wait(), 0);
}

TEST(GlobalMutex, HandleIsItsName) {
  sandbox::RequireSandbox();
  EXPECT_EQ(CreateGlobalMutex(0), nullptr);
  EXPECT_EQ(OpenGlobalMutex(0), nullptr);
  EXPECT_EQ(reinterpret_cast<intptr_t>(CreateGlobalMutex(kName)), kName);
  EXPECT_EQ(reinterpret_cast<intptr_t>(OpenGlobalMutex(-3)), -3);
}

TEST(GlobalMutex, NullHandleFails) {
  EXPECT_EQ(WaitForGlobalMutex(nullptr, 0), -1);
  EXPECT_EQ(WaitForGlobalMutex(nullptr, ZEBCS_WAIT_FOREVER), -1);
  EXPECT_EQ(ReleaseGlobalMutex(nullptr), -1);
  DestroyGlobalMutex(nullptr);
}

TEST(GlobalMutex, KeptTwoNamesAreOneLock) {
  sandbox::RequireSandbox();
  Process holder;
  ASSERT_TRUE(holder.Start(HoldGlobalMutex));
  ASSERT_EQ(holder.Receive(), "held");
  void *const mutex = CreateGlobalMutex(kName);
  EXPECT_EQ(WaitForGlobalMutex(mutex, 0), ZEBCS_WAIT_TIMED_OUT);
  holder.Send("release");
  ASSERT_EQ(holder.Receive(), "released");
  EXPECT_EQ(WaitForGlobalMutex(mutex, 0), 0);
  holder.Send("end");
  EXPECT_EQ(holder.Wait(), 0);
}

TEST(GlobalMutex, TimedWaitLastsItsMilliseconds) {
  sandbox::RequireSandbox();
  Process holder;
  ASSERT_TRUE(holder.Start(HoldGlobalMutex));
  ASSERT_EQ(holder.Receive(), "held");
  void *const mutex = CreateGlobalMutex(kName);
  s32 result = 0;
  EXPECT_GE(TimeOf([&] { result = WaitForGlobalMutex(mutex, 50); }).count(), 50);
  EXPECT_EQ(result, ZEBCS_WAIT_TIMED_OUT);
}

TEST(GlobalMutex, WaitersGetTheLockOfAProcessThatIsKilled) {
  sandbox::RequireSandbox();
  for (const u32 timeout : {ZEBCS_WAIT_FOREVER, 20000u}) {
    Process holder;
    ASSERT_TRUE(holder.Start(HoldGlobalMutex));
    ASSERT_EQ(holder.Receive(), "held");
    Process waiter;
    ASSERT_TRUE(waiter.Start([timeout](Channel &channel) {
      channel.Put("waiting");
      return WaitForGlobalMutex(CreateGlobalMutex(kName), timeout);
    }));
    ASSERT_EQ(waiter.Receive(), "waiting");
    holder.Kill();
    EXPECT_EQ(holder.Wait(), 128 + SIGKILL);
    EXPECT_EQ(waiter.Wait(), 0) << timeout;
  }
}

TEST(GlobalMutex, NestedTakeSucceedsAndTheFirstReleaseDropsIt) {
  sandbox::RequireSandbox();
  void *const mutex = CreateGlobalMutex(kName);
  ASSERT_EQ(WaitForGlobalMutex(mutex, 0), 0);
  EXPECT_EQ(WaitForGlobalMutex(mutex, 0), 0);
  EXPECT_EQ(ReleaseGlobalMutex(mutex), 0);
  Process other;
  ASSERT_TRUE(other.Start([](Channel &) { return WaitForGlobalMutex(CreateGlobalMutex(kName), 0); }));
  EXPECT_EQ(other.Wait(), 0);
}

TEST(GlobalMutex, DestroyingLeavesTheFileOpen) {
  sandbox::RequireSandbox();
  void *const mutex = CreateGlobalMutex(kName);
  DestroyGlobalMutex(mutex);
  EXPECT_EQ(WaitForGlobalMutex(mutex, 0), 0);
}

TEST(LocalMutex, NullHandle) {
  EXPECT_EQ(WaitForLocalMutex(nullptr, 0), -1);
  EXPECT_EQ(ReleaseLocalMutex(nullptr), -1);
  DestroyLocalMutex(nullptr);
}

TEST(LocalMutex, HeldMutexTimesOut) {
  void *const mutex = CreateLocalMutex();
  ASSERT_NE(mutex, nullptr);
  ASSERT_EQ(WaitForLocalMutex(mutex, 0), 0);
  s32 single = 0;
  s32 timed = 0;
  std::chrono::milliseconds timedFor{};
  std::thread([&] {
    single = WaitForLocalMutex(mutex, 0);
    timedFor = TimeOf([&] { timed = WaitForLocalMutex(mutex, 20); });
  }).join();
  EXPECT_EQ(single, ZEBCS_WAIT_TIMED_OUT);
  EXPECT_EQ(timed, ZEBCS_WAIT_TIMED_OUT);
  EXPECT_GE(timedFor.count(), 20);
  EXPECT_EQ(ReleaseLocalMutex(mutex), 0);
  DestroyLocalMutex(mutex);
}

TEST(LocalMutex, ThreadsExcludeEachOther) {
  void *const mutex = CreateLocalMutex();
  ASSERT_NE(mutex, nullptr);
  int count = 0;
  const auto work = [&](u32 timeout) {
    for (int i = 0; i < 2000; ++i) {
      ASSERT_EQ(WaitForLocalMutex(mutex, timeout), 0);
      ++count;
      ASSERT_EQ(ReleaseLocalMutex(mutex), 0);
    }
  };
  std::thread a(work, ZEBCS_WAIT_FOREVER);
  std::thread b(work, 60000u);
  a.join();
  b.join();
  EXPECT_EQ(count, 4000);
  DestroyLocalMutex(mutex);
}

TEST(Semaphore, NullHandle) {
  EXPECT_EQ(WaitForSemaphore(nullptr, 0), -1);
  EXPECT_EQ(ReleaseSemaphore(nullptr), -1);
  EXPECT_EQ(ResetSemaphore(nullptr), -1);
  DestroySemaphore(nullptr);
}

TEST(Semaphore, TheIdentifierZeroIsNeverGivenOut) {
  sandbox::RequireSandbox();  // whose first semaphore has the identifier 0
  void *const semaphore = CreateSemaphore(kName, 2);
  ASSERT_NE(semaphore, nullptr);
  EXPECT_EQ(OpenSemaphore(kName), semaphore);
  EXPECT_EQ(WaitForSemaphore(semaphore, 0), 0);
  EXPECT_EQ(WaitForSemaphore(semaphore, 0), 0);
  EXPECT_EQ(WaitForSemaphore(semaphore, 0), ZEBCS_WAIT_TIMED_OUT);
  seminfo system{};
  ASSERT_GE(semctl(0, 0, SEM_INFO, &system), 0);
  EXPECT_EQ(system.semusz, 1) << "what stood in for it is gone, and it is the only semaphore there is";
}

TEST(Semaphore, ExistingOneKeepsItsValue) {
  sandbox::RequireSandbox();
  void *const first = CreateSemaphore(kName, 1);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(CreateSemaphore(kName, 5), first);
  EXPECT_EQ(WaitForSemaphore(first, 0), 0);
  EXPECT_EQ(WaitForSemaphore(first, 0), ZEBCS_WAIT_TIMED_OUT);
}

TEST(Semaphore, OpeningWhatIsNotThereFails) {
  sandbox::RequireSandbox();
  EXPECT_EQ(OpenSemaphore(kName), nullptr);
}

TEST(Semaphore, OneThatTheSystemRefusesIsNull) {
  sandbox::RequireSandbox();
  std::vector<int> all;
  for (int id = 0; (id = semget(IPC_PRIVATE, 1, 0600)) != -1;) all.push_back(id);
  ASSERT_EQ(errno, ENOSPC);
  EXPECT_EQ(CreateSemaphore(kName, 1), nullptr);
  for (const int id : all) (void)semctl(id, 0, IPC_RMID);
  void *const semaphore = CreateSemaphore(kName, 1);
  EXPECT_NE(semaphore, nullptr);
  DestroySemaphore(semaphore);
}

TEST(Semaphore, DestroyedOneIsGone) {
  sandbox::RequireSandbox();
  void *const semaphore = CreateSemaphore(kName, 1);
  ASSERT_NE(semaphore, nullptr);
  DestroySemaphore(semaphore);
  EXPECT_EQ(OpenSemaphore(kName), nullptr);
  EXPECT_EQ(WaitForSemaphore(semaphore, ZEBCS_WAIT_FOREVER), -1);
  EXPECT_EQ(WaitForSemaphore(semaphore, 2), ZEBCS_WAIT_TIMED_OUT);
  EXPECT_EQ(ReleaseSemaphore(semaphore), -1);
  DestroySemaphore(semaphore);
}

TEST(Semaphore, KeptResettingAStaleOneSucceeds) {
  sandbox::RequireSandbox();
  void *const semaphore = CreateSemaphore(kName, 1);
  DestroySemaphore(semaphore);
  EXPECT_EQ(ResetSemaphore(semaphore), 0);
}

TEST(Semaphore, ResettingSetsItToZero) {
  sandbox::RequireSandbox();
  void *const semaphore = CreateSemaphore(kName, 3);
  EXPECT_EQ(ResetSemaphore(semaphore), 0);
  EXPECT_EQ(WaitForSemaphore(semaphore, 0), ZEBCS_WAIT_TIMED_OUT);
  EXPECT_EQ(ReleaseSemaphore(semaphore), 0);
  EXPECT_EQ(WaitForSemaphore(semaphore, 0), 0);
}

TEST(Semaphore, WakesAWaiterInAnotherProcess) {
  sandbox::RequireSandbox();
  void *const semaphore = CreateSemaphore(kName, 0);
  Process waiter;
  ASSERT_TRUE(waiter.Start([](Channel &channel) {
    channel.Put("waiting");
    return WaitForSemaphore(OpenSemaphore(kName), ZEBCS_WAIT_FOREVER);
  }));
  ASSERT_EQ(waiter.Receive(), "waiting");
  EXPECT_EQ(ReleaseSemaphore(semaphore), 0);
  EXPECT_EQ(waiter.Wait(), 0);
}

TEST(Semaphore, StaysTakenWhenItsTakerDies) {
  sandbox::RequireSandbox();
  void *const semaphore = CreateSemaphore(kName, 1);
  Process taker;
  ASSERT_TRUE(taker.Start([semaphore](Channel &) { return WaitForSemaphore(semaphore, 0); }));
  ASSERT_EQ(taker.Wait(), 0);
  EXPECT_EQ(WaitForSemaphore(semaphore, 3), ZEBCS_WAIT_TIMED_OUT);
}

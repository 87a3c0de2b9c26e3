// Attaching and detaching, the file lock, context locks, memory and the export context.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>

#include "program.h"
#include "sandbox.h"
#include "zebcs/frame.h"
#include "zebcs/ipc.h"
#include "zebcs/net.h"

namespace {

using sandbox::Channel;
using sandbox::Process;

// Whether the lock is free, asked by another process.
bool LockIsFree() {
  Process other;
  if (!other.Start([](Channel &) { return FileLock(0); })) return false;
  return other.Wait() == 1;
}

int HoldFileLock(Channel &channel) {
  channel.Put(FileLock(0) == 1 ? "held" : "failed");
  if (channel.Get() != "release") return 1;
  FileUnlock();
  channel.Put("released");
  return channel.Get() == "end" ? 0 : 1;
}

}  // namespace

TEST(ModuleAttach, LoadingTheLibraryAttaches) {
  sandbox::RequireSandbox();
  astring name[65];
  u32 size = sizeof name;
  EXPECT_EQ(FileLock(0), 1);
  FileUnlock();
  EXPECT_EQ(KCSGetIPHostName(name, &size), SM_STATUS_SUCCESS);
}

TEST(ModuleAttach, SecondOneOnlyCountsAndLeavesTheLockAlone) {
  sandbox::RequireSandbox();
  Process holder;
  ASSERT_TRUE(holder.Start(HoldFileLock));
  ASSERT_EQ(holder.Receive(), "held");
  EXPECT_EQ(ModuleAttach(), 1) << "it would wait for ever if it took the lock";
  EXPECT_EQ(ModuleDetach(), 1);
  holder.Send("release");
  ASSERT_EQ(holder.Receive(), "released");
  EXPECT_EQ(FileLock(0), 1) << "the lock is still there";
  FileUnlock();
  holder.Send("end");
  EXPECT_EQ(holder.Wait(), 0);
}

TEST(ModuleAttach, WaitsForTheLockOfAnotherProcess) {
  sandbox::RequireSandbox();
  Process holder;
  ASSERT_TRUE(holder.Start(HoldFileLock));
  ASSERT_EQ(holder.Receive(), "held");
  Process starter;
  ASSERT_TRUE(starter.Start([](Channel &channel) {
    channel.Put("starting");
    return RunProgram({ZEBCS_FRAME_PROBE, "name"}).status;
  }));
  ASSERT_EQ(starter.Receive(), "starting");
  holder.Send("release");
  ASSERT_EQ(holder.Receive(), "released");
  EXPECT_EQ(starter.Wait(), 0);
}

TEST(ModuleAttach, MissingLockFolderLeavesTheLibraryDetached) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockDirectory));
  const ProgramResult result = RunProgram({ZEBCS_FRAME_PROBE, "detached"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output, "detach 0\nlock 0 0\nhost name 17\naddresses none\nattach 0\n");
}

TEST(ModuleAttach, TriesAgainAfterAFailure) {
  sandbox::RequireSandbox();
  ASSERT_EQ(ModuleDetach(), 1);
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockDirectory));
  EXPECT_EQ(ModuleAttach(), 0);
  EXPECT_EQ(ModuleDetach(), 0) << "a failed attach does not count";
}

TEST(ModuleAttach, KeptAfterTheLastDetachItFailsAndReleasesEverything) {
  sandbox::RequireSandbox();
  ASSERT_EQ(ModuleDetach(), 1);
  EXPECT_EQ(ModuleAttach(), 0) << "the IP support counts as loaded already";
  EXPECT_EQ(FileLock(0), 0);
  EXPECT_EQ(LockIPCFileRecord(0, ZEBCS_WAIT_FOREVER), -1) << "the lock file is closed";
  EXPECT_EQ(ModuleDetach(), 0);
}

TEST(ModuleDetach, OnlyTheLastOneDestroysTheLock) {
  sandbox::RequireSandbox();
  ASSERT_EQ(ModuleAttach(), 1);
  EXPECT_EQ(ModuleDetach(), 1);
  EXPECT_EQ(FileLock(0), 1);
  FileUnlock();
  EXPECT_EQ(ModuleDetach(), 1);
  EXPECT_EQ(FileLock(0), 0);
  EXPECT_EQ(ModuleDetach(), 0) << "nothing left to detach";
}

TEST(ModuleDetach, LeavesTheLockFree) {
  sandbox::RequireSandbox();
  ASSERT_EQ(FileLock(0), 1);
  ASSERT_EQ(ModuleDetach(), 1);
  // This process's library is detached for good; a new process finds the lock free.
  EXPECT_EQ(RunProgram({ZEBCS_FRAME_PROBE, "locked-exit"}).output, "1\n");
}

TEST(ModuleInit, HooksAnswerAsAttachAndDetach) {
  sandbox::RequireSandbox();
  EXPECT_EQ(ModuleInit(), 1);
  EXPECT_EQ(ModuleFini(), 1);
  EXPECT_EQ(ModuleFini(), 1) << "undoes the attach that loading made";
  EXPECT_EQ(ModuleFini(), 0);
}

TEST(ModuleFini, ProcessThatLeavesWithTheLockFreesIt) {
  sandbox::RequireSandbox();
  ASSERT_EQ(RunProgram({ZEBCS_FRAME_PROBE, "locked-exit"}).output, "1\n");
  EXPECT_EQ(FileLock(0), 1);
  FileUnlock();
}

TEST(FileLock, SingleAttemptFailsAtOnceWhileAnotherProcessHoldsIt) {
  sandbox::RequireSandbox();
  Process holder;
  ASSERT_TRUE(holder.Start(HoldFileLock));
  ASSERT_EQ(holder.Receive(), "held");
  EXPECT_EQ(FileLock(0), 0);
  EXPECT_EQ(FileLock(2), 0) << "any value but 1 makes a single attempt";
  EXPECT_EQ(FileLock(-1), 0);
  holder.Send("release");
  ASSERT_EQ(holder.Receive(), "released");
  EXPECT_EQ(FileLock(0), 1);
  FileUnlock();
  holder.Send("end");
  EXPECT_EQ(holder.Wait(), 0);
}

TEST(FileLock, BlockingTakeWaitsForTheHolder) {
  sandbox::RequireSandbox();
  Process holder;
  ASSERT_TRUE(holder.Start(HoldFileLock));
  ASSERT_EQ(holder.Receive(), "held");
  Process waiter;
  ASSERT_TRUE(waiter.Start([](Channel &channel) {
    channel.Put("waiting");
    const booln taken = FileLock(1);
    channel.Put(taken == 1 ? "taken" : "failed");
    return taken;
  }));
  ASSERT_EQ(waiter.Receive(), "waiting");
  holder.Send("release");
  ASSERT_EQ(holder.Receive(), "released");
  EXPECT_EQ(waiter.Receive(), "taken");
  EXPECT_EQ(waiter.Wait(), 1);
}

TEST(FileLock, BlockingTakeGivesUpAfterAMinute) {
  sandbox::RequireSandbox();
  Process holder(std::chrono::minutes(3));
  ASSERT_TRUE(holder.Start(HoldFileLock));
  ASSERT_EQ(holder.Receive(), "held");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(FileLock(1), 0);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::seconds(60));
  EXPECT_LT(waited, std::chrono::seconds(150)) << "60000 attempts, a millisecond and a system call each";
}

TEST(FileLock, NestedTakeSucceedsAndTheFirstReleaseDropsIt) {
  sandbox::RequireSandbox();
  ASSERT_EQ(FileLock(0), 1);
  EXPECT_EQ(FileLock(1), 1);
  EXPECT_FALSE(LockIsFree());
  FileUnlock();
  EXPECT_TRUE(LockIsFree());
}

TEST(FileLock, TakingAndReleasingAreOneSystemCallEach) {
  sandbox::RequireSandbox();
  const auto calls = SystemCallsBetweenMarks(ZEBCS_STRACE, {ZEBCS_FRAME_PROBE, "lock"});
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_TRUE(calls[0].starts_with("fcntl(")) << calls[0];
  EXPECT_TRUE(calls[1].starts_with("fcntl(")) << calls[1];
}

TEST(ContextLock, NullIsIgnored) {
  KCSLockContext(nullptr);
  KCSUnLockContext(nullptr);
  KCSFreeContextLock(nullptr);
}

TEST(ContextLock, ThreadsExcludeEachOther) {
  void *const lock = KCSAllocContextLock();
  ASSERT_NE(lock, nullptr);
  int count = 0;
  const auto work = [&] {
    for (int i = 0; i < 2000; ++i) {
      KCSLockContext(lock);
      ++count;
      KCSUnLockContext(lock);
    }
  };
  std::thread a(work);
  std::thread b(work);
  a.join();
  b.join();
  EXPECT_EQ(count, 4000);
  KCSFreeContextLock(lock);
}

TEST(Memory, TheThreeReleasesAreInterchangeable) {
  for (void (*release)(void *) : {KCSFreeMem, KCSGenericFree, SUPTFreeMem}) {
    void *block = KCSAllocMem(16);
    ASSERT_NE(block, nullptr);
    std::memset(block, 'x', 16);
    block = KCSReAllocMem(block, 4000);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::memcmp(block, "xxxxxxxxxxxxxxxx", 16), 0);
    release(block);
    release(nullptr);
  }
  void *const fresh = KCSReAllocMem(nullptr, 8);
  EXPECT_NE(fresh, nullptr);
  KCSFreeMem(fresh);
}

TEST(ExportContext, IsAlwaysThreadGroupZero) {
  KCSECInfo context{7};
  KCSGetExportContext(&context);
  EXPECT_EQ(context.threadGroupID, 0);
  KCSECInfo other{9};
  KCSSetExportContext(&context, &other);
  KCSResetExportContext(&context);
  EXPECT_EQ(context.threadGroupID, 0);
  EXPECT_EQ(other.threadGroupID, 9) << "entering and leaving change nothing";
  KCSGetExportContext(nullptr);
}

TEST(Frame, TrivialFunctionsAnswerZero) {
  EXPECT_EQ(KCSEnableLongFileNames(), 0);
  EXPECT_EQ(KCSDisableLongFileNames(), 0);
  KCSSetProcessEnvironment();
}

TEST(Types, HaveTheirWidthsAndSigns) {
  static_assert(sizeof(u8) == 1 && sizeof(u16) == 2 && sizeof(u32) == 4 && sizeof(u64) == 8 && sizeof(d64) == 8);
  static_assert(sizeof(s8) == 1 && sizeof(s16) == 2 && sizeof(s32) == 4 && sizeof(s64) == 8);
  static_assert(sizeof(booln) == 2 && static_cast<booln>(-1) < 0);
  static_assert(sizeof(BOOL) == 1 && static_cast<BOOL>(-1) > 0);
  static_assert(sizeof(astring) == 1 && sizeof(ustring) == 2 && static_cast<ustring>(-1) > 0);
  EXPECT_EQ(sizeof(KCSECInfo), 4u);
}

TEST(StatusCodes, HaveTheirValues) {
  const struct {
    s32 status;
    s32 value;
  } table[] = {
      {SM_STATUS_SUCCESS, 0},         {SM_STATUS_BAD_PARAMETER, 2},         {SM_STATUS_NOT_FOUND, 7},
      {SM_STATUS_LOCK_TIMEOUT, 0xB},  {SM_STATUS_INSUFFICIENT_BUFFER, 0xF}, {SM_STATUS_BUFFER_TOO_SMALL, 0x10},
      {SM_STATUS_NOT_LOADED, 0x11},   {SM_STATUS_WRITE_FAILED, 0x13},       {SM_STATUS_FAILED, 0x100},
      {SM_STATUS_BAD_DATA, 0x101},    {SM_STATUS_RENAME_FAILED, 0x102},     {SM_STATUS_PATH_UNAVAILABLE, 0x104},
      {SM_STATUS_PARSE_ERROR, 0x105}, {SM_STATUS_SECTION_NOT_FOUND, 0x106}, {SM_STATUS_KEY_NOT_FOUND, 0x107},
      {SM_STATUS_BAD_SIZE, 0x108},    {SM_STATUS_DELETE_FAILED, 0x10E},     {SM_STATUS_INVALID_INPUT, 0x10F},
      {SM_STATUS_NO_MEMORY, 0x110},   {SM_STATUS_NULL_ADDRESS, 0x2018},
  };
  for (const auto &row : table) EXPECT_EQ(row.status, row.value);
}

TEST(Library, HoldsTheLockWhileItAttachesAndDetaches) {
  sandbox::RequireSandbox();
  const sandbox::TemporaryDirectory directory;
  const std::string trace = directory.Path("trace");
  // A leak check traces its own process, which a traced one cannot do.
  const ProgramResult result = RunProgram({ZEBCS_STRACE, "-f", "-E", "ASAN_OPTIONS=detect_leaks=0", "-o", trace, "-e",
                                           "trace=fcntl,openat,close", ZEBCS_FRAME_PROBE, "name"});
  ASSERT_EQ(result.status, 0) << result.errors;
  // What is done to the lock file, as letters: opened, waited for without limit, tried, unlocked, closed.
  std::string calls;
  std::string descriptor;
  std::istringstream lines(sandbox::ReadFile(trace));
  for (std::string line; std::getline(lines, line);) {
    const auto has = [&line](const std::string &text) { return line.find(text) != std::string::npos; };
    if (has(".zebipc\"")) {
      calls += 'o';
      descriptor = line.substr(line.rfind(' ') + 1);
    }
    if (descriptor.empty()) continue;
    if (has("fcntl(" + descriptor + ", F_SETLK")) calls += has("F_UNLCK") ? 'u' : has("F_SETLKW") ? 'w' : 't';
    if (has("close(" + descriptor + ")")) {
      calls += 'c';
      descriptor.clear();  // the number may be given to another file
    }
  }
  EXPECT_TRUE(calls.starts_with("owu")) << calls;
  EXPECT_TRUE(calls.ends_with("wuc")) << calls;
  EXPECT_EQ(std::count(calls.begin(), calls.end(), 'w'), 2) << calls << ", and all other locks have a limit";
}

TEST(KCSReAllocMem, SizeZeroReleasesTheBlock) {
  void *const block = KCSAllocMem(100);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(KCSReAllocMem(block, 0), nullptr);
}

#ifndef ZEBCS_SANITIZED  // whose runtime cannot be in two namespaces

TEST(Library, UnloadsAndLoadsAgain) {
  sandbox::RequireSandbox();
  // In a namespace of its own the library is loaded a second time and can be unloaded, unlike the one linked here.
  for (int i = 0; i < 2; ++i) {
    void *const library = dlmopen(LM_ID_NEWLM, ZEBCS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto lock = reinterpret_cast<booln (*)(booln)>(dlsym(library, "FileLock"));
    ASSERT_NE(lock, nullptr);
    EXPECT_EQ(lock(0), 1);
    EXPECT_EQ(dlclose(library), 0);
  }
}

#endif

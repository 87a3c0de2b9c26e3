// The install path, threads, dynamic libraries, and shutting the system down.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "sandbox.h"
#include "shared_file.h"
#include "stand_in.h"
#include "zebcs/product.h"
#include "zebcs/system.h"

namespace {

using sandbox::GuardedBuffer;

const std::string kInstallPath = "/opt/vorn/fleetops/";

std::string BytesOf(const GuardedBuffer &buffer) { return {buffer.data<char>(), buffer.size()}; }

}  // namespace

TEST(OSInitZEBInstallPath, TooLittleRoomIsAnsweredWithTheSize) {
  for (u32 room = 0; room < 20; ++room) {
    const GuardedBuffer buffer(room);
    u32 size = room;
    EXPECT_EQ(OSInitZEBInstallPath(buffer.data<astring>(), &size), SM_STATUS_BUFFER_TOO_SMALL) << room;
    EXPECT_EQ(size, 20u) << room;
    EXPECT_EQ(BytesOf(buffer), std::string(room, static_cast<char>(GuardedBuffer::kFill))) << room;
  }
}

TEST(OSInitZEBInstallPath, StoresThePathAndFillsTheRoomWithZeros) {
  for (const u32 room : {20u, 21u, 22u, 255u, 256u, 4096u, 100000u}) {
    for (const sandbox::Guard guard : {sandbox::Guard::kAfter, sandbox::Guard::kBefore}) {
      const GuardedBuffer buffer(room, guard);
      u32 size = room;
      EXPECT_EQ(OSInitZEBInstallPath(buffer.data<astring>(), &size), SM_STATUS_SUCCESS) << room;
      EXPECT_EQ(size, 20u) << room;
      EXPECT_EQ(BytesOf(buffer), kInstallPath + std::string(room - kInstallPath.size(), '\0')) << room;
    }
  }
}

TEST(OSInitZEBInstallPath, SizeIsThatOfTheText) {
  u32 size = 0;
  astring path[20];
  ASSERT_EQ(OSInitZEBInstallPath(path, &size), SM_STATUS_BUFFER_TOO_SMALL);
  ASSERT_EQ(OSInitZEBInstallPath(path, &size), SM_STATUS_SUCCESS) << "what the failure asks for is enough";
  EXPECT_EQ(size, std::strlen(path) + 1);
}

TEST(OSInitZEBInstallPath, ArgumentsAreRequired) {
  const GuardedBuffer buffer(20);
  u32 size = 20;
  EXPECT_EQ(OSInitZEBInstallPath(nullptr, &size), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(size, 20u);
  EXPECT_EQ(OSInitZEBInstallPath(buffer.data<astring>(), nullptr), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(BytesOf(buffer), std::string(20, static_cast<char>(GuardedBuffer::kFill)));
}

// --- Threads --------------------------------------------------------------------------------------------------------

namespace {

using sandbox::Channel;
using sandbox::Process;

constexpr struct {
  decltype(&OSThreadStart) start;
  decltype(&OSThreadStop) stop;
} kThreadFunctions[] = {{OSThreadStart, OSThreadStop}, {KCSThreadStart, KCSThreadStop}};

// What a thread was given and what it found.
struct Visit {
  int count = 0;
  void *data = nullptr;
  pthread_t id = 0;
};

void NoteVisit(void *data) {
  Visit &visit = *static_cast<Visit *>(data);
  ++visit.count;
  visit.data = data;
  visit.id = pthread_self();
}

int l_visitsWithoutData = 0;

void NoteVisitWithoutData(void *data) {
  if (data == nullptr) ++l_visitsWithoutData;
}

// 'R' for a thread that runs, 'S' for one that waits.
char StateOfThread(pid_t thread) {
  const std::string text = sandbox::ReadFile("/proc/self/task/" + std::to_string(thread) + "/stat");
  const size_t afterName = text.rfind(')');
  return afterName == std::string::npos || afterName + 2 >= text.size() ? '?' : text[afterName + 2];
}

struct LongTask {
  int go = -1;       // the task begins when this can be read
  pid_t waiter = 0;  // and ends when this thread waits
  bool isDone = false;
};

void RunUntilAwaited(void *data) {
  LongTask &task = *static_cast<LongTask *>(data);
  char byte;
  if (read(task.go, &byte, 1) != 1) return;
  const auto end = std::chrono::steady_clock::now() + sandbox::kDeadline;
  while (StateOfThread(task.waiter) != 'S') {
    if (std::chrono::steady_clock::now() > end) return;
  }
  pthread_testcancel();  // a thread that had been asked to end would go no further
  task.isDone = true;
}

// What a thread was made with.
struct ThreadNature {
  bool operator==(const ThreadNature &) const = default;
  int detachState = -1;
  int scope = -1;
  int policy = -1;
  int inherits = -1;
  int priority = -1;
  size_t stackSize = 0;
  size_t guardSize = 0;
};

void NoteNature(void *data) {
  ThreadNature &nature = *static_cast<ThreadNature *>(data);
  pthread_attr_t attributes;
  sched_param parameters{};
  void *stack = nullptr;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
  pthread_attr_getdetachstate(&attributes, &nature.detachState);
  pthread_attr_getscope(&attributes, &nature.scope);
  pthread_attr_getschedpolicy(&attributes, &nature.policy);
  pthread_attr_getinheritsched(&attributes, &nature.inherits);
  pthread_attr_getschedparam(&attributes, &parameters);
  nature.priority = parameters.sched_priority;
  pthread_attr_getstack(&attributes, &stack, &nature.stackSize);
  pthread_attr_getguardsize(&attributes, &nature.guardSize);
  pthread_attr_destroy(&attributes);
}

void *NoteNatureOfPlainThread(void *data) {
  NoteNature(data);
  return nullptr;
}

}  // namespace

TEST(OSThreadStart, RunsTheRoutineWithItsDataAndFillsTheRecord) {
  for (const auto &functions : kThreadFunctions) {
    Visit visit;
    KCSThreadInfo info{};
    ASSERT_EQ(functions.start(&info, NoteVisit, &visit), 0);
    EXPECT_EQ(info.fpKCSTR, &NoteVisit);
    EXPECT_EQ(info.pKCSThreadData, &visit);
    const pthread_t id = info.idKCSThread;
    EXPECT_EQ(functions.stop(&info), 0);
    EXPECT_EQ(visit.count, 1);
    EXPECT_EQ(visit.data, &visit);
    EXPECT_NE(pthread_equal(visit.id, id), 0);
    EXPECT_EQ(pthread_equal(visit.id, pthread_self()), 0) << "another thread";
  }
}

TEST(OSThreadStart, DataMayBeNull) {
  KCSThreadInfo info;
  std::memset(&info, 0xA5, sizeof info);
  ASSERT_EQ(OSThreadStart(&info, NoteVisitWithoutData, nullptr), 0);
  EXPECT_EQ(info.pKCSThreadData, nullptr);
  EXPECT_EQ(OSThreadStop(&info), 0);
  EXPECT_EQ(l_visitsWithoutData, 1);
}

TEST(OSThreadStart, FillsTheRecordAndNothingBehindIt) {
  for (const sandbox::Guard guard : {sandbox::Guard::kAfter, sandbox::Guard::kBefore}) {
    const GuardedBuffer buffer(sizeof(KCSThreadInfo), guard);
    Visit visit;
    ASSERT_EQ(OSThreadStart(buffer.data<KCSThreadInfo>(), NoteVisit, &visit), 0);
    EXPECT_EQ(OSThreadStop(buffer.data<KCSThreadInfo>()), 0);
    EXPECT_EQ(visit.count, 1);
  }
}

TEST(OSThreadStart, ThreadHasDefaultAttributes) {
  ThreadNature expected;
  pthread_t plain;
  ASSERT_EQ(pthread_create(&plain, nullptr, NoteNatureOfPlainThread, &expected), 0);
  ASSERT_EQ(pthread_join(plain, nullptr), 0);
  ASSERT_EQ(expected.detachState, PTHREAD_CREATE_JOINABLE);
  ThreadNature nature;
  KCSThreadInfo info{};
  ASSERT_EQ(OSThreadStart(&info, NoteNature, &nature), 0);
  EXPECT_EQ(OSThreadStop(&info), 0);
  EXPECT_EQ(nature.detachState, expected.detachState);
  EXPECT_EQ(nature.stackSize, expected.stackSize);
  EXPECT_EQ(nature.guardSize, expected.guardSize);
  EXPECT_EQ(nature.policy, expected.policy);
  EXPECT_TRUE(nature == expected);
}

TEST(OSThreadStart, ManyThreadsRunBesideEachOther) {
  constexpr size_t kThreads = 64;
  std::array<int, 2> gate{};
  ASSERT_EQ(pipe2(gate.data(), O_CLOEXEC), 0);
  struct Task {
    int gate;
    bool isDone = false;
  };
  std::vector<Task> tasks(kThreads, Task{gate[0]});
  std::vector<KCSThreadInfo> infos(kThreads);
  for (size_t i = 0; i < kThreads; ++i) {
    const auto runToTheGate = [](void *data) {
      Task &task = *static_cast<Task *>(data);
      char byte;
      task.isDone = read(task.gate, &byte, 1) == 0;  // none passes before all have been started
    };
    ASSERT_EQ(OSThreadStart(&infos[i], runToTheGate, &tasks[i]), 0);
  }
  std::vector<unsigned long> ids;
  for (const KCSThreadInfo &info : infos) ids.push_back(info.idKCSThread);
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end()) << "each has its own identifier";
  close(gate[1]);
  for (size_t i = kThreads; i-- > 0;) {
    EXPECT_EQ(OSThreadStop(&infos[i]), 0);
    EXPECT_TRUE(tasks[i].isDone) << i;
  }
  close(gate[0]);
}

TEST(OSThreadStart, RecordIsReusedAfterStop) {
  KCSThreadInfo info{};
  Visit visit;
  for (int i = 1; i <= 200; ++i) {
    ASSERT_EQ(OSThreadStart(&info, NoteVisit, &visit), 0) << i;
    ASSERT_EQ(OSThreadStop(&info), 0) << i;
    ASSERT_EQ(visit.count, i);
  }
}

TEST(OSThreadStart, RecordAndRoutineAreRequired) {
  for (const auto &functions : kThreadFunctions) {
    KCSThreadInfo info{};
    Visit visit;
    EXPECT_EQ(functions.start(nullptr, NoteVisit, &visit), -1);
    EXPECT_EQ(functions.start(&info, nullptr, &visit), -1);
    EXPECT_EQ(functions.start(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(visit.count, 0);
  }
}

TEST(OSThreadStart, ThreadThatTheSystemRefusesIsMinusOne) {
  Process process;
  ASSERT_TRUE(process.Start([](Channel &) {
    EXPECT_TRUE(sandbox::RefuseProcessesAndThreads());
    for (const auto &functions : kThreadFunctions) {
      KCSThreadInfo info{};
      Visit visit;
      EXPECT_EQ(functions.start(&info, NoteVisit, &visit), -1);
      EXPECT_EQ(info.fpKCSTR, &NoteVisit) << "stored before";
      EXPECT_EQ(info.pKCSThreadData, &visit);
      EXPECT_EQ(visit.count, 0);
    }
    return 0;
  }));
  EXPECT_EQ(process.Wait(), 0);
}

TEST(OSThreadStub, CallsTheRoutineOfTheRecordInTheSameThread) {
  Visit visit;
  KCSThreadInfo info{};
  info.fpKCSTR = NoteVisit;
  info.pKCSThreadData = &visit;
  info.idKCSThread = 12345;
  EXPECT_EQ(OSThreadStub(&info), nullptr);
  EXPECT_EQ(visit.count, 1);
  EXPECT_EQ(visit.data, &visit);
  EXPECT_NE(pthread_equal(visit.id, pthread_self()), 0);
  EXPECT_EQ(info.fpKCSTR, &NoteVisit);
  EXPECT_EQ(info.pKCSThreadData, &visit);
  EXPECT_EQ(info.idKCSThread, 12345u);
}

TEST(OSThreadStop, WaitsForTheThreadAndDoesNotAskItToEnd) {
  for (const auto &functions : kThreadFunctions) {
    std::array<int, 2> gate{};
    ASSERT_EQ(pipe2(gate.data(), O_CLOEXEC), 0);
    LongTask task;
    task.go = gate[0];
    task.waiter = gettid();
    KCSThreadInfo info{};
    ASSERT_EQ(functions.start(&info, RunUntilAwaited, &task), 0);
    ASSERT_EQ(write(gate[1], "g", 1), 1);
    EXPECT_EQ(functions.stop(&info), 0);
    EXPECT_TRUE(task.isDone);
    close(gate[0]);
    close(gate[1]);
  }
}

TEST(OSThreadStop, ThreadThatHasEndedNeedsNoWaiting) {
  std::array<int, 2> done{};
  ASSERT_EQ(pipe2(done.data(), O_CLOEXEC), 0);
  KCSThreadInfo info{};
  const auto tell = [](void *data) { close(*static_cast<int *>(data)); };
  ASSERT_EQ(OSThreadStart(&info, tell, &done[1]), 0);
  char byte;
  ASSERT_EQ(read(done[0], &byte, 1), 0);
  EXPECT_EQ(OSThreadStop(&info), 0);
  close(done[0]);
}

TEST(OSThreadStop, AnswersZeroAlsoWhereThereIsNothingToWaitFor) {
  EXPECT_EQ(OSThreadStop(nullptr), 0);
  EXPECT_EQ(KCSThreadStop(nullptr), 0);
  // A thread cannot wait for its own end: the platform refuses.
  KCSThreadInfo self{};
  self.idKCSThread = pthread_self();
  EXPECT_EQ(OSThreadStop(&self), 0);
}

// --- Dynamic libraries ----------------------------------------------------------------------------------------------

namespace {

constexpr struct {
  decltype(&OSLibLoad) load;
  decltype(&OSLibUnLoad) unload;
  decltype(&OSLibLinkToExportFN) link;
  decltype(&OSLibUnLinkFromExportFN) unlink;
} kLibFunctions[] = {{OSLibLoad, OSLibUnLoad, OSLibLinkToExportFN, OSLibUnLinkFromExportFN},
                     {KCSLibLoad, KCSLibUnLoad, KCSLibLinkToExportFN, KCSLibUnLinkFromExportFN}};

constexpr char kPlugin[] = ZEBCS_SYSTEM_PLUGIN;

using Difference = int (*)(int, int);
using TellUnloading = void (*)(int *);

bool IsEmpty(const KCSLibrary &library) { return library.pLibPathFileName == nullptr && library.hLib == nullptr; }

// A record as memory may happen to hold it.
KCSLibrary StrayRecord() {
  KCSLibrary library;
  std::memset(&library, 0xA5, sizeof library);
  return library;
}

bool IsLoaded(const char *path) {
  void *const handle = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
  if (handle != nullptr) dlclose(handle);
  return handle != nullptr;
}

void LeaveErrorUnread() { EXPECT_EQ(dlopen("/nowhere/at-all.so", RTLD_NOW), nullptr); }

}  // namespace

TEST(OSLibLoad, LoadsALibraryWhoseFunctionsAndDataAreFound) {
  for (const auto &functions : kLibFunctions) {
    KCSLibrary library = StrayRecord();
    ASSERT_EQ(functions.load(&library, kPlugin), 0);
    EXPECT_TRUE(IsLoaded(kPlugin));
    ASSERT_NE(library.hLib, nullptr);
    EXPECT_STREQ(library.pLibPathFileName, kPlugin);
    const auto difference = reinterpret_cast<Difference>(functions.link(&library, "PluginDifference"));
    ASSERT_NE(difference, nullptr);
    EXPECT_EQ(difference(50, 8), 42);
    const int *const number = static_cast<const int *>(functions.link(&library, "PluginNumber"));
    ASSERT_NE(number, nullptr);
    EXPECT_EQ(*number, 4711);
    EXPECT_EQ(number, dlsym(library.hLib, "PluginNumber")) << "the handle is the platform's";
    EXPECT_EQ(functions.unlink(&library, "PluginDifference"), 0);
    EXPECT_EQ(functions.unload(&library), 0);
  }
}

TEST(OSLibLoad, NameWithoutAFolderIsLookedForBySystemRules) {
  KCSLibrary library{};
  ASSERT_EQ(OSLibLoad(&library, "libm.so.6"), 0);
  EXPECT_STREQ(library.pLibPathFileName, "libm.so.6");
  const auto floorOf = reinterpret_cast<double (*)(double)>(OSLibLinkToExportFN(&library, "floor"));
  ASSERT_NE(floorOf, nullptr);
  EXPECT_EQ(floorOf(2.75), 2.0);
  EXPECT_EQ(OSLibUnLoad(&library), 0);
}

TEST(OSLibLoad, PathIsAPrivateCopy) {
  const GuardedBuffer path(sizeof kPlugin);
  std::memcpy(path.data<char>(), kPlugin, sizeof kPlugin);
  KCSLibrary library{};
  ASSERT_EQ(OSLibLoad(&library, path.data<char>()), 0);
  EXPECT_EQ(std::string(path.data<char>()), kPlugin) << "the argument stays";
  EXPECT_NE(library.pLibPathFileName, path.data<char>());
  std::memset(path.data<char>(), 'x', sizeof kPlugin);
  EXPECT_STREQ(library.pLibPathFileName, kPlugin);
  EXPECT_NE(OSLibLinkToExportFN(&library, "PluginDifference"), nullptr);
  EXPECT_EQ(OSLibUnLoad(&library), 0);
  EXPECT_EQ(std::string(path.data<char>(), sizeof kPlugin), std::string(sizeof kPlugin, 'x'));
}

TEST(OSLibLoad, WhatIsNoLibraryFailsAndLeavesTheRecordEmpty) {
  const sandbox::TemporaryDirectory directory;
  const std::string text = directory.Path("text.so");
  const std::string nothing = directory.Path("nothing.so");
  ASSERT_TRUE(sandbox::WriteFile(text, "This is no library.\n", 0755));
  ASSERT_TRUE(sandbox::WriteFile(nothing, "", 0755));
  const struct {
    const char *what;
    std::string path;
  } cases[] = {
      {"no such file", directory.Path("missing.so")},
      {"no such folder", "/nowhere/at-all.so"},
      {"no such name", "libnobody-has-this-name.so.77"},
      {"a folder", directory.path()},
      {"a text", text},
      {"an empty file", nothing},
      {"a blank", " "},
      {"a long path", "/" + std::string(10000, 'x')},
  };
  for (const auto &functions : kLibFunctions) {
    for (const auto &c : cases) {
      KCSLibrary library = StrayRecord();
      EXPECT_EQ(functions.load(&library, c.path.c_str()), SM_STATUS_FAILED) << c.what;
      EXPECT_EQ(SM_STATUS_FAILED, 256);
      EXPECT_TRUE(IsEmpty(library)) << c.what;
      EXPECT_EQ(functions.link(&library, "PluginDifference"), nullptr) << c.what;
      EXPECT_EQ(functions.unload(&library), -1) << c.what;
    }
  }
}

TEST(OSLibLoad, AllIsBoundAtOnce) {
  void *const late = dlopen(ZEBCS_UNBOUND_PLUGIN, RTLD_LAZY);
  ASSERT_NE(late, nullptr) << dlerror();
  ASSERT_EQ(dlclose(late), 0);
  KCSLibrary library = StrayRecord();
  EXPECT_EQ(OSLibLoad(&library, ZEBCS_UNBOUND_PLUGIN), SM_STATUS_FAILED);
  EXPECT_TRUE(IsEmpty(library));
  EXPECT_FALSE(IsLoaded(ZEBCS_UNBOUND_PLUGIN));
}

TEST(OSLibLoad, NamesOfTheLibraryAreNotGivenToOthers) {
  KCSLibrary library{};
  ASSERT_EQ(OSLibLoad(&library, kPlugin), 0);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "PluginDifference"), nullptr);
  EXPECT_EQ(OSLibUnLoad(&library), 0);
}

TEST(OSLibLoad, RecordAndPathAreRequired) {
  for (const auto &functions : kLibFunctions) {
    EXPECT_EQ(functions.load(nullptr, kPlugin), SM_STATUS_BAD_PARAMETER);
    EXPECT_FALSE(IsLoaded(kPlugin));
    for (const char *const path : {static_cast<const char *>(nullptr), ""}) {
      KCSLibrary library = StrayRecord();
      EXPECT_EQ(functions.load(&library, path), SM_STATUS_BAD_PARAMETER);
      EXPECT_TRUE(IsEmpty(library));
    }
  }
}

TEST(OSLibUnLoad, ClosesTheLibraryAndEmptiesTheRecord) {
  for (const auto &functions : kLibFunctions) {
    int isUnloading = 0;
    KCSLibrary library{};
    ASSERT_EQ(functions.load(&library, kPlugin), 0);
    const auto tell = reinterpret_cast<TellUnloading>(functions.link(&library, "PluginTellUnloading"));
    ASSERT_NE(tell, nullptr);
    tell(&isUnloading);
    EXPECT_EQ(isUnloading, 0);
    EXPECT_EQ(functions.unload(&library), 0);
    EXPECT_EQ(isUnloading, 1);
    EXPECT_FALSE(IsLoaded(kPlugin));
    EXPECT_TRUE(IsEmpty(library));
    EXPECT_EQ(functions.link(&library, "PluginDifference"), nullptr);
    EXPECT_EQ(functions.unload(&library), -1) << "a second time";
    EXPECT_TRUE(IsEmpty(library));
  }
}

TEST(OSLibUnLoad, LeavesTheLibraryToOtherRecords) {
  KCSLibrary first{};
  KCSLibrary second{};
  ASSERT_EQ(OSLibLoad(&first, kPlugin), 0);
  ASSERT_EQ(OSLibLoad(&second, kPlugin), 0);
  EXPECT_NE(first.pLibPathFileName, second.pLibPathFileName);
  EXPECT_EQ(OSLibUnLoad(&first), 0);
  EXPECT_TRUE(IsLoaded(kPlugin));
  EXPECT_STREQ(second.pLibPathFileName, kPlugin);
  const auto difference = reinterpret_cast<Difference>(OSLibLinkToExportFN(&second, "PluginDifference"));
  ASSERT_NE(difference, nullptr);
  EXPECT_EQ(difference(1, 2), -1);
  EXPECT_EQ(OSLibUnLoad(&second), 0);
  EXPECT_FALSE(IsLoaded(kPlugin));
}

TEST(OSLibUnLoad, LibraryThatCannotBeClosedIsMinusOneAndTheRecordEmpty) {
  KCSLibrary library{};
  ASSERT_EQ(OSLibLoad(&library, "libc.so.6"), 0);
  // Somebody else closes the record's handle. The library is this program's own, and stays.
  ASSERT_EQ(dlclose(library.hLib), 0);
  EXPECT_EQ(OSLibUnLoad(&library), -1);
  EXPECT_TRUE(IsEmpty(library));
}

TEST(OSLibUnLoad, NothingLoadedIsMinusOne) {
  for (const auto &functions : kLibFunctions) {
    KCSLibrary library{};
    EXPECT_EQ(functions.unload(&library), -1);
    EXPECT_TRUE(IsEmpty(library));
    EXPECT_EQ(functions.unload(nullptr), -1);
  }
}

TEST(OSLibLinkToExportFN, MissingNameIsNullWhateverErrorWasLeftUnread) {
  for (const auto &functions : kLibFunctions) {
    KCSLibrary library{};
    ASSERT_EQ(functions.load(&library, kPlugin), 0);
    for (const char *const name : {"PluginQuotient", "plugindifference", "PluginDifferenc", "PluginDifference ", ""}) {
      EXPECT_EQ(functions.link(&library, name), nullptr) << name;
      EXPECT_EQ(functions.link(&library, name), nullptr) << name << " after its own error";
      LeaveErrorUnread();
      EXPECT_EQ(functions.link(&library, name), nullptr) << name << " after another's error";
    }
    EXPECT_EQ(functions.unload(&library), 0);
  }
}

TEST(OSLibLinkToExportFN, ErrorThatWasLeftUnreadHidesNoName) {
  for (const auto &functions : kLibFunctions) {
    KCSLibrary library{};
    ASSERT_EQ(functions.load(&library, kPlugin), 0);
    LeaveErrorUnread();
    EXPECT_NE(functions.link(&library, "PluginDifference"), nullptr);
    EXPECT_EQ(functions.link(&library, "PluginQuotient"), nullptr);
    EXPECT_NE(functions.link(&library, "PluginDifference"), nullptr);
    EXPECT_EQ(functions.unload(&library), 0);
  }
}

TEST(OSLibLinkToExportFN, WithoutALibraryOrANameIsNull) {
  for (const auto &functions : kLibFunctions) {
    KCSLibrary library{};
    EXPECT_EQ(functions.link(nullptr, "malloc"), nullptr);
    EXPECT_EQ(functions.link(nullptr, nullptr), nullptr);
    EXPECT_EQ(functions.link(&library, "malloc"), nullptr) << "the program itself is not searched";
    EXPECT_EQ(functions.link(&library, nullptr), nullptr);
    ASSERT_EQ(functions.load(&library, kPlugin), 0);
    EXPECT_EQ(functions.link(&library, nullptr), nullptr);
    EXPECT_EQ(functions.unload(&library), 0);
  }
}

TEST(OSLibUnLinkFromExportFN, DoesNothing) {
  for (const auto &functions : kLibFunctions) {
    KCSLibrary library{};
    EXPECT_EQ(functions.unlink(nullptr, nullptr), 0);
    EXPECT_EQ(functions.unlink(&library, "PluginDifference"), 0);
    EXPECT_TRUE(IsEmpty(library));
    ASSERT_EQ(functions.load(&library, kPlugin), 0);
    const KCSLibrary before = library;
    const auto difference = reinterpret_cast<Difference>(functions.link(&library, "PluginDifference"));
    for (const char *const name : {static_cast<const char *>(nullptr), "", "PluginQuotient", "PluginDifference"}) {
      EXPECT_EQ(functions.unlink(&library, name), 0);
    }
    EXPECT_EQ(library.hLib, before.hLib);
    EXPECT_EQ(library.pLibPathFileName, before.pLibPathFileName);
    EXPECT_STREQ(library.pLibPathFileName, kPlugin);
    ASSERT_NE(difference, nullptr);
    EXPECT_EQ(difference(3, 1), 2) << "still there";
    EXPECT_EQ(functions.unload(&library), 0);
  }
}

// --- Shutting the system down ---------------------------------------------------------------------------------------

namespace {

using sandbox::Lines;

// The system's shutdown program is out of reach, and a stand-in takes its place where a test puts one.
class OSShutdownTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sandbox::RequireSandbox();
    ASSERT_TRUE(m_folder.SmallDisk("/sbin", "mode=0755"));
    ASSERT_EQ(access(kProgram, F_OK), -1) << "the real program";
  }

  // Waits for the one process that the function has started.
  static int ExitCodeOfChild() {
    int status = 0;
    const pid_t child = wait(&status);
    EXPECT_GT(child, 0) << std::strerror(errno);
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "another process";
    return WEXITSTATUS(status);
  }

  static constexpr char kProgram[] = "/sbin/shutdown";
  sandbox::StandIns m_standIns;

 private:
  sandbox::Mount m_folder;
};

constexpr decltype(&OSShutdown) kShutdownFunctions[] = {OSShutdown, KCSOSShutdown};

}  // namespace

TEST_F(OSShutdownTest, ProgramGetsTheArgumentsWithoutAShell) {
  const Lines halt = {"run", "shutdown", "-h", "now", "&"};
  const Lines restart = {"run", "shutdown", "-r", "now", "&"};
  ASSERT_TRUE(m_standIns.PutAt(kProgram));
  for (const auto shutdown : kShutdownFunctions) {
    for (const int force : {0, 1, 255}) {
      for (const int isRestart : {0, 1, 2, 3, 128, 254, 255}) {
        EXPECT_EQ(shutdown(static_cast<BOOL>(force), static_cast<BOOL>(isRestart)), 1);
        EXPECT_EQ(ExitCodeOfChild(), 0);
        EXPECT_EQ(m_standIns.TakeArguments(), isRestart == 1 ? restart : halt) << force << ' ' << isRestart;
      }
    }
  }
}

TEST_F(OSShutdownTest, DoesNotWaitForTheProgram) {
  ASSERT_TRUE(m_standIns.PutAt(kProgram));
  std::array<int, 2> gate{};
  ASSERT_EQ(pipe2(gate.data(), O_CLOEXEC), 0);
  ASSERT_EQ(fcntl(gate[0], F_SETFD, 0), 0) << "the program waits on this end";
  m_standIns.Do("await " + std::to_string(gate[0]));
  Process caller;
  ASSERT_TRUE(caller.Start([&gate](Channel &channel) {
    close(gate[1]);
    EXPECT_EQ(OSShutdown(0, 0), 1);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "the program is there and has not ended";
    channel.Put("returned");
    return ExitCodeOfChild();
  }));
  EXPECT_EQ(caller.Receive(), "returned");
  close(gate[1]);
  EXPECT_EQ(caller.Wait(), 0);
  EXPECT_EQ(m_standIns.TakeArguments(), (Lines{"run", "shutdown", "-h", "now", "&"}));
  close(gate[0]);
}

TEST_F(OSShutdownTest, AnswerDoesNotDependOnTheProgram) {
  ASSERT_TRUE(m_standIns.PutAt(kProgram));
  for (const int code : {1, 2, 127, 255}) {
    m_standIns.Do("exit " + std::to_string(code));
    EXPECT_EQ(OSShutdown(0, 0), 1);
    EXPECT_EQ(ExitCodeOfChild(), code);
  }
}

TEST_F(OSShutdownTest, KeptFailureToStartTheProgramShowsOnlyInTheChild) {
  for (const auto shutdown : kShutdownFunctions) {
    EXPECT_EQ(shutdown(0, 1), 1);
    EXPECT_EQ(ExitCodeOfChild(), ENOENT);
    EXPECT_EQ(shutdown(1, 0), 1);
    EXPECT_EQ(ExitCodeOfChild(), ENOENT);
  }
  EXPECT_EQ(ENOENT, 2);
  const struct {
    const char *what;
    const char *text;
    mode_t mode;
    int error;
  } cases[] = {
      {"may not be run", "#!/bin/sh\nexit 0\n", 0644, EACCES},
      {"neither a program nor a script, which only a shell would run", "exit 0\n", 0755, ENOEXEC},
      {"script of an interpreter that is missing", "#!/nowhere/sh\n", 0755, ENOENT},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::WriteFile(kProgram, c.text, c.mode));
    EXPECT_EQ(OSShutdown(0, 1), 1) << c.what;
    EXPECT_EQ(ExitCodeOfChild(), c.error) << c.what;
  }
  EXPECT_EQ(m_standIns.TakeArguments(), Lines{});
}

TEST_F(OSShutdownTest, ProgramOfTheSearchPathIsNotTaken) {
  const sandbox::TemporaryDirectory directory;
  ASSERT_TRUE(m_standIns.PutAt(directory.Path("shutdown")));
  ASSERT_EQ(setenv("PATH", directory.path().c_str(), 1), 0);
  EXPECT_EQ(OSShutdown(0, 0), 1);
  EXPECT_EQ(ExitCodeOfChild(), ENOENT);
  EXPECT_EQ(m_standIns.TakeArguments(), Lines{});
}

TEST_F(OSShutdownTest, KeptProcessThatTheSystemRefusesDoesNotShow) {
  ASSERT_TRUE(m_standIns.PutAt(kProgram));
  Process process;
  ASSERT_TRUE(process.Start([](Channel &) {
    EXPECT_TRUE(sandbox::RefuseProcessesAndThreads());
    EXPECT_EQ(OSShutdown(0, 0), 1);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    return 0;
  }));
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_EQ(m_standIns.TakeArguments(), Lines{});
}

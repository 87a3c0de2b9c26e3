// A load: processes of several threads work on the same files, settings, logs and the role map, and are killed and
// replaced meanwhile. In the end, and all the while, the files are held against what every worker was told.
//
// ZEBCS_LOAD_SECONDS says for how long.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "load/ledger.h"
#include "load/logs.h"
#include "load/stores.h"
#include "load/worker.h"
#include "sandbox.h"
#include "shared_file.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"
#include "zebcs/keyvalue.h"
#include "zebcs/logs.h"
#include "zebcs/net.h"

namespace {

using load::kProcesses;
using load::kThreads;
using load::kWorkers;
using load::Ledger;
using sandbox::Channel;
using sandbox::Exists;
using sandbox::Process;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr seconds kDefaultTime{5};
constexpr seconds kPatience{120};  // beyond the time, for a slow machine to do the least that makes a load
constexpr u32 kLeastKills = 4;
constexpr u32 kLeastMaps = 10;
constexpr u32 kLeastBackups = 5;
constexpr u32 kLeastCalls = 2 * kWorkers;  // of each kind

milliseconds TimeOfLoad() {
  const char *const text = std::getenv("ZEBCS_LOAD_SECONDS");
  const double time = text == nullptr ? 0 : std::strtod(text, nullptr);
  return time > 0 ? milliseconds(static_cast<long>(time * 1000)) : kDefaultTime;
}

std::ptrdiff_t EntriesOf(const char *directory) {
  return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
}

// The open descriptors, with the one that it takes to count them.
std::ptrdiff_t Descriptors() { return EntriesOf("/proc/self/fd"); }

std::ptrdiff_t Threads() { return EntriesOf("/proc/self/task"); }

u64 ResidentBytes() {
  const std::string text = sandbox::ReadFile("/proc/self/statm");
  return std::strtoull(text.c_str() + text.find(' '), nullptr, 10) * sandbox::kPage;
}

// --- A process of workers -------------------------------------------------------------------------------------------

// Threads that were joined can stay listed for a moment.
bool AreThreads(std::ptrdiff_t expected) {
  for (const Clock::time_point end = Clock::now() + seconds(10); Clock::now() < end; std::this_thread::yield()) {
    if (Threads() == expected) return true;
  }
  return false;
}

// Works until it is told to end. On the way there it can be told to look how much memory it has, which then must do.
int RunWorkers(Ledger &ledger, const load::Paths &paths, u32 process, Channel &channel) {
  std::deque<load::Worker> workers;
  for (u32 thread = 0; thread < kThreads; ++thread) workers.emplace_back(ledger, paths, process * kThreads + thread);
  for (load::Worker &worker : workers) worker.Resume();
  (void)load::AskRights(0);
  std::thread([] {}).join();  // a sanitizer starts threads of its own beside the first
  const std::ptrdiff_t descriptors = Descriptors();
  const std::ptrdiff_t threadsBefore = Threads();

  std::atomic<bool> isEnding = false;
  std::vector<std::thread> threads;
  for (load::Worker &worker : workers) {
    threads.emplace_back([&worker, &isEnding, &ledger] {
      while (!isEnding && !ledger.HasReport()) worker.WorkOneRound();
      worker.AskLastRights();
    });
  }
  u64 warm = 0;
  for (std::string told = channel.Get(); told != "end"; told = channel.Get()) warm = ResidentBytes();
  const u64 resident = ResidentBytes();
  isEnding = true;
  for (std::thread &thread : threads) thread.join();

  const std::string name = "process " + std::to_string(process) + ": ";
  if (Descriptors() != descriptors) {
    ledger.Report(name + std::to_string(Descriptors()) + " descriptors, at first " + std::to_string(descriptors));
  }
  if (!AreThreads(threadsBefore)) ledger.Report(name + std::to_string(Threads()) + " threads in the end");
#ifdef ZEBCS_SANITIZED
  (void)warm;  // what was released is kept for a while, to be watched
  (void)resident;
#else
  constexpr u64 kMostGrowth = 4 << 20;
  if (warm != 0 && resident > warm + kMostGrowth) {
    ledger.Report(name + "grew from " + std::to_string(warm) + " to " + std::to_string(resident) + " bytes");
  }
#endif
  return 0;
}

// --- The lock -------------------------------------------------------------------------------------------------------

// Looks at the record lock from the outside. Closing a descriptor of the lock file drops the locks of its process, so
// this one stays open as long as anybody in the process may have one.
class LockWatch {
 public:
  LockWatch() : m_fd(open(sandbox::kLockFile, O_RDONLY | O_CLOEXEC)) {}
  LockWatch(const LockWatch &) = delete;
  LockWatch &operator=(const LockWatch &) = delete;
  ~LockWatch() { close(m_fd); }

  // The process that has it; 0 for none or this one.
  pid_t Holder() const {
    struct flock record = {};
    record.l_type = F_WRLCK;
    record.l_whence = SEEK_SET;
    if (fcntl(m_fd, F_GETLK, &record) != 0) return -1;
    return record.l_type == F_UNLCK ? 0 : record.l_pid;
  }

  // Whether the system lists a lock of that file.
  bool IsListed() const {
    struct stat info = {};
    if (fstat(m_fd, &info) != 0) return false;
    std::array<char, 64> file = {};
    (void)std::snprintf(file.data(), file.size(), " %02x:%02x:%lu ", major(info.st_dev), minor(info.st_dev),
                        info.st_ino);
    return sandbox::ReadFile("/proc/locks").find(file.data()) != std::string::npos;
  }

 private:
  int m_fd;
};

// --- The load -------------------------------------------------------------------------------------------------------

std::string HostName() {
  std::array<astring, 256> name = {};
  u32 size = static_cast<u32>(name.size());
  return KCSGetIPHostName(name.data(), &size) == 0 ? name.data() : "no name";
}

// Who starts, kills and watches the workers, and replaces the role map under them. Everything here is one thread's.
class Load {
 public:
  explicit Load(milliseconds time) : m_time(time) {}

  bool Start();
  void Run();
  void End();
  void Summarize() const;

 private:
  bool StartProcess(u32 process);
  std::string WhatIsMissing() const;
  void CheckProcesses();
  void KillAndReplace(u32 process);
  bool StopAll();
  void PutRight();
  void PutRoleMap();
  void LookAtStores();
  void LookAtSmallLog();
  void LookAtFullLog();
  void Tidy();
  void CheckWhatIsLeft();
  void AskForLastRights();
  void Report(const std::string &what) {
    if (!what.empty()) m_ledger.Report("from outside: " + what);
  }
  std::string ReadLog(load::Log log, const std::string &path, std::vector<load::Entry> &entries);

  milliseconds m_time;
  sandbox::TemporaryDirectory m_directory;
  load::Paths m_paths{m_directory.path()};
  Ledger &m_ledger = Ledger::New();
  LockWatch m_lock;
  std::string m_hostName = HostName();
  load::Reader m_reader;
  load::LogReader m_logReader;
  std::ptrdiff_t m_descriptors = 0;
  std::deque<Process> m_processes;
  std::vector<Clock::time_point> m_looks;  // when each process has warmed up and looks at its memory
  Clock::time_point m_start;
  double m_seconds = 0;
  std::mt19937 m_random{20};
  u64 m_rounds = 0;
  u32 m_kills = 0;
  u32 m_cut = 0;       // operations that were begun and not reported when their process was killed
  u32 m_finished = 0;  // replacements of files that a killed process had got halfway with
  u32 m_backups = 0;
  u32 m_tidied = 0;
  std::string m_backupStart;  // of the backup that was seen last
};

// The parent's file lock while an object lives.
class Lock {
 public:
  Lock() : m_isTaken(FileLock(1) == 1) {}
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;
  ~Lock() {
    if (m_isTaken) FileUnlock();
  }
  explicit operator bool() const { return m_isTaken; }

 private:
  bool m_isTaken;
};

bool Load::StartProcess(u32 process) {
  m_looks[process] = Clock::now() + std::min<milliseconds>(m_time / 3, seconds(20));
  const auto work = [this, process](Channel &channel) { return RunWorkers(m_ledger, m_paths, process, channel); };
  return m_processes[process].Start(work);
}

bool Load::Start() {
  if (!sandbox::WriteFile(m_paths.ini, load::FirstIni()) || !sandbox::WriteFile(m_paths.cfg, load::FirstCfg())) {
    return false;
  }
  PutRoleMap();
  {
    const Lock lock;
    EXPECT_TRUE(m_lock.IsListed())
        << "that nobody has the lock can be seen only where it can be seen that somebody has";
  }
  m_descriptors = Descriptors();
  m_start = Clock::now();
  m_looks.resize(kProcesses);
  for (u32 process = 0; process < kProcesses; ++process) {
    m_processes.emplace_back(m_time + 2 * kPatience);
    if (!StartProcess(process)) return false;
  }
  return true;
}

// What has not happened as often as it takes to call this a load, or nothing.
std::string Load::WhatIsMissing() const {
  const struct {
    const char *what;
    u64 count;
    u64 least;
  } counts[] = {{"kills", m_kills, kLeastKills},
                {"operations cut short", m_cut, 1},
                {"backups", m_backups, kLeastBackups},
                {"role maps", m_ledger.currentMap, kLeastMaps},
                {"sections without keys", m_tidied, 1}};
  for (const auto &c : counts) {
    if (c.count < c.least) return std::to_string(c.count) + ' ' + c.what;
  }
  for (u32 i = 0; i < load::kKinds; ++i) {
    const load::Kind kind = static_cast<load::Kind>(i);
    const u64 calls = m_ledger.Calls(kind);
    const std::string found = std::to_string(calls) + ' ' + load::NameOf(kind);
    if (calls == 0) return found;
    if (kind == load::kIniRefused) continue;  // that is up to the others
    if (calls < kLeastCalls) return found;
    for (u32 worker = 0; worker < kWorkers; ++worker) {
      if (m_ledger.workers[worker].calls[kind] == 0) return found + ", none by worker " + std::to_string(worker);
    }
  }
  return {};
}

void Load::Run() {
  constexpr milliseconds kBetweenKills{350};
  constexpr milliseconds kPause{3};
  Clock::time_point nextKill = m_start + kBetweenKills;
  Clock::time_point nextMap = m_start;
  for (Clock::time_point now = m_start; !m_ledger.HasReport(); now = Clock::now()) {
    const bool isTimeUp = now >= m_start + m_time;
    if (isTimeUp && (WhatIsMissing().empty() || now >= m_start + m_time + kPatience)) break;
    CheckProcesses();
    for (u32 process = 0; process < kProcesses; ++process) {
      if (now < m_looks[process]) continue;
      m_processes[process].Send("look");
      m_looks[process] = Clock::time_point::max();
    }
    if (now >= nextMap) {
      PutRoleMap();
      nextMap = now + milliseconds(m_random() % 8 == 0 ? 200 : m_random() % 20);
    }
    if (now >= nextKill) {
      KillAndReplace(1 + static_cast<u32>(m_random() % (kProcesses - 1)));  // the first lives all the while
      nextKill = now + kBetweenKills;
    }
    LookAtSmallLog();
    if (m_rounds % 4 == 0) LookAtStores();
    if (m_rounds % 16 == 0) LookAtFullLog();
    if (m_rounds % 8 == 0) Tidy();
    ++m_rounds;
    std::this_thread::sleep_for(kPause);
  }
}

// None of the processes ends by itself.
void Load::CheckProcesses() {
  for (const Process &process : m_processes) {
    siginfo_t info = {};
    if (waitid(P_PID, static_cast<id_t>(process.pid()), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid != 0) {
      Report("a process has ended with " + std::to_string(info.si_status));
    }
  }
}

// --- Killing --------------------------------------------------------------------------------------------------------

bool Load::StopAll() {
  for (Process &process : m_processes) process.Kill(SIGSTOP);
  for (const Process &process : m_processes) {
    const id_t pid = static_cast<id_t>(process.pid());
    siginfo_t info = {};
    if (waitid(P_PID, pid, &info, WSTOPPED | WEXITED | WNOWAIT) != 0 || info.si_code != CLD_STOPPED ||
        waitid(P_PID, pid, &info, WSTOPPED) != 0) {
      Report("a process has ended with " + std::to_string(info.si_status));
      return false;
    }
  }
  return true;
}

// The process that had the lock was killed. Where it had taken a file away and not put the new one in its place, that
// is the temporary file, which somebody has to rename before anybody makes a new one.
void Load::PutRight() {
  for (const auto &[path, temporary] :
       {std::pair(m_paths.ini, m_paths.iniTemporary), std::pair(m_paths.cfg, m_paths.cfgTemporary)}) {
    if (Exists(path)) continue;
    if (std::rename(temporary.c_str(), path.c_str()) != 0) Report(path + " is gone, and there is no " + temporary);
    ++m_finished;
  }
}

// Kills a process in whatever it does, and starts another. All others stand still meanwhile: what it has left halfway
// is put right before they go on. It is stopped first itself, as killing ends a system call in the middle of its bytes.
void Load::KillAndReplace(u32 process) {
  if (!StopAll()) return;
  Process &killed = m_processes[process];
  const bool hadLock = m_lock.Holder() == killed.pid();
  killed.Kill();
  EXPECT_EQ(killed.Wait(), 128 + SIGKILL);
  ++m_kills;
  for (u32 worker = process * kThreads; worker < (process + 1) * kThreads; ++worker) {
    const load::WorkerLedger &ledger = m_ledger.workers[worker];
    m_cut += ledger.OpenCount();
    for (const load::Log log : {load::kSmallLog, load::kFullLog}) {
      if (ledger.logs[log].IsOpen()) m_logReader.AddUncertain(log, worker, ledger.logs[log].started);
    }
  }
  if (hadLock) PutRight();
  for (Process &other : m_processes) {
    if (&other != &killed) other.Kill(SIGCONT);
  }
  ASSERT_TRUE(StartProcess(process));
}

// --- What others do to the files ------------------------------------------------------------------------------------

// A new file takes the old one's place, of a modification time that is another second's.
void Load::PutRoleMap() {
  constexpr time_t kFirstTime = 1000000000;
  const u32 map = m_ledger.currentMap + 1;
  const std::string beside = std::string(sandbox::kRoleMapPath) + ".new";
  m_ledger.nextMap = map;
  if (!sandbox::WriteFile(beside, load::RoleMapText(map), 0640, kFirstTime + time_t{map}) ||
      std::rename(beside.c_str(), sandbox::kRoleMapPath) != 0) {
    Report("the role map cannot be replaced");
  }
  m_ledger.currentMap = map;
}

// Takes sections without keys out of the INI file, so that their owners add them again.
void Load::Tidy() {
  const Lock lock;
  if (!lock) return Report("the lock is not to be had");
  const std::string text = sandbox::ReadFile(m_paths.ini);
  const std::string tidy = load::WithoutEmptySections(text);
  if (tidy == text) return;
  const std::string beside = m_directory.Path("tidy.ini");
  if (!sandbox::WriteFile(beside, tidy, 01664) || std::rename(beside.c_str(), m_paths.ini.c_str()) != 0) {
    Report("the INI file cannot be replaced");
  }
  ++m_tidied;
}

// --- Looking --------------------------------------------------------------------------------------------------------

void Load::LookAtStores() {
  load::Windows windows(m_ledger);
  load::Snapshot ini;
  load::Snapshot cfg;
  {
    const Lock lock;
    if (!lock) return Report("the lock is not to be had");
    ini = load::ReadIni(sandbox::ReadFile(m_paths.ini));
    cfg = load::ReadCfg(sandbox::ReadFile(m_paths.cfg));
  }
  windows.Close();
  Report(ini.Check(load::kIni, m_reader, windows));
  Report(cfg.Check(load::kCfg, m_reader, windows));
  m_ledger.checked += 2 * kWorkers * load::kKeys;
}

std::string Load::ReadLog(load::Log log, const std::string &path, std::vector<load::Entry> &entries) {
  if (!Exists(path)) return {};
  const std::string document = sandbox::ReadFile(path);
  // All workers can have found room for their entry before the first of them wrote one.
  constexpr size_t kMost = load::kSmallLogSize + (kWorkers + 1) * load::kLargestEntry;
  if (log == load::kSmallLog && document.size() > kMost) {
    return path + " has " + std::to_string(document.size()) + " bytes and was not backed up";
  }
  return load::ReadDocument(log, document, m_hostName, entries);
}

void Load::LookAtSmallLog() {
  load::LogWindows windows(m_ledger, load::kSmallLog);
  std::vector<load::Entry> entries;
  std::string what;
  {
    const Lock lock;
    if (!lock) return Report("the lock is not to be had");
    what = ReadLog(load::kSmallLog, m_paths.backup, entries);
    if (what.empty() && !entries.empty()) {
      std::string start;
      for (const load::Entry &entry : entries) start += std::to_string(entry.number) + ' ';
      if (std::exchange(m_backupStart, start) != start) ++m_backups;
    }
    if (what.empty()) what = ReadLog(load::kSmallLog, m_paths.logs[load::kSmallLog], entries);
  }
  windows.Close();
  Report(what);
  if (what.empty()) Report(m_logReader.SeeLatest(entries, windows));
  m_ledger.checked += entries.size();
}

// Takes the log without backups away to read it, so that it does not grow without end.
void Load::LookAtFullLog() {
  load::LogWindows windows(m_ledger, load::kFullLog);
  const std::string &path = m_paths.logs[load::kFullLog];
  {
    const Lock lock;
    if (!lock) return Report("the lock is not to be had");
    if (Exists(path) && std::rename(path.c_str(), m_paths.collected.c_str()) != 0) Report(path + " cannot be renamed");
  }
  windows.Close();
  std::vector<load::Entry> entries;
  const std::string what = ReadLog(load::kFullLog, m_paths.collected, entries);
  Report(what);
  if (what.empty()) Report(m_logReader.SeeNew(entries, windows));
  (void)sandbox::RemoveTree(m_paths.collected);
  m_ledger.checked += entries.size();
}

// --- The end --------------------------------------------------------------------------------------------------------

void Load::End() {
  if (!m_ledger.HasReport()) {
    for (Process &process : m_processes) process.Send("end");
    for (Process &process : m_processes) EXPECT_EQ(process.Wait(), 0);
    m_seconds = std::chrono::duration<double>(Clock::now() - m_start).count();
    CheckWhatIsLeft();
    EXPECT_EQ(WhatIsMissing(), "");
  } else {
    m_processes.clear();  // which ends them
    m_seconds = std::chrono::duration<double>(Clock::now() - m_start).count();
  }
  if (m_ledger.HasReport()) ADD_FAILURE() << "the first thing that does not agree:\n" << m_ledger.FirstReport();
}

void Load::AskForLastRights() {
  Process fresh;
  ASSERT_TRUE(fresh.Start([this](Channel &) {
    load::Worker(m_ledger, m_paths, 0).AskLastRights();
    return 0;
  }));
  EXPECT_EQ(fresh.Wait(), 0);
}

void Load::CheckWhatIsLeft() {
  // Nobody is at work: a key is as its owner's last operation left it, and a log has the last entry.
  for (const load::WorkerLedger &worker : m_ledger.workers) EXPECT_EQ(worker.OpenCount(), 0u);
  LookAtStores();
  LookAtSmallLog();
  LookAtFullLog();
  EXPECT_EQ(m_lock.Holder(), 0);
  EXPECT_FALSE(m_lock.IsListed());
  EXPECT_TRUE(sandbox::LockIsFree());
  AskForLastRights();
  EXPECT_FALSE(Exists(std::string(sandbox::kLogDirectory) + "/qxcmdlog.xml")) << "a role map that could not be used";

  // The temporary file of a killed process is overwritten by the next that needs one, and then goes.
  EXPECT_EQ(KCSWriteINIPathFileValue("shared", "end", ZEBCS_INI_ASTRING, "1", 2, m_paths.ini.c_str(), 1), 0);
  std::string name = "end";
  const KCSKVEntry pair{name.data(), name.data()};
  EXPECT_EQ(KCSCFGSetKeyValue(m_paths.cfg.c_str(), &pair, 0), 0);
  std::vector<std::string> names;
  for (const auto &[file, content] : sandbox::FilesIn(m_directory.path())) names.push_back(file);
  EXPECT_EQ(names, (std::vector<std::string>{"shared.cfg", "shared.ini", "small.xm_", "small.xml"}));
  EXPECT_EQ(sandbox::ModeOf(m_paths.ini), static_cast<mode_t>(S_IFREG | 01664));
  EXPECT_EQ(sandbox::ModeOf(m_paths.cfg), static_cast<mode_t>(S_IFREG | 01664));
  m_processes.clear();
  EXPECT_EQ(Descriptors(), m_descriptors);
}

void Load::Summarize() const {
  std::string operations;
  u64 sum = 0;
  const auto record = [](const std::string &name, u64 count) {
    std::string key = name;
    std::replace(key.begin(), key.end(), ' ', '_');
    ::testing::Test::RecordProperty(key, std::to_string(count));
    return std::to_string(count) + ' ' + name;
  };
  for (u32 i = 0; i < load::kKinds; ++i) {
    const load::Kind kind = static_cast<load::Kind>(i);
    sum += m_ledger.Calls(kind);
    operations += (i == 0 ? "" : ", ") + record(load::NameOf(kind), m_ledger.Calls(kind));
  }
  std::printf("load: %.1f s, %s, %s each, %s (%s), %s, %s, %s, %s, %s, %s, %s\n", m_seconds,
              record("processes", kProcesses).c_str(), record("threads", kThreads).c_str(),
              record("operations", sum).c_str(), operations.c_str(), record("kills", m_kills).c_str(),
              record("operations cut short", m_cut).c_str(), record("replacements finished", m_finished).c_str(),
              record("role maps", m_ledger.currentMap).c_str(), record("backups seen", m_backups).c_str(),
              record("times tidied", m_tidied).c_str(), record("values checked", m_ledger.checked).c_str());
  ::testing::Test::RecordProperty("seconds", std::to_string(m_seconds));
}

}  // namespace

TEST(Load, FilesAgreeWithWhatEverybodyWasTold) {
  Load load(TimeOfLoad());
  ASSERT_TRUE(load.Start());
  load.Run();
  load.End();
  load.Summarize();
}

// --- What a load is held against can be failed ----------------------------------------------------------------------

TEST(LoadReader, TellsWhatAKeyCannotHold) {
  const load::Key key{3, 1};
  const auto text = [&](u32 number) { return load::TextAfter(load::kIni, key, number); };
  ASSERT_TRUE(text(1) && text(2) && !text(3) && text(4) && text(5) && !text(6));
  std::string changed = *text(4);
  changed.back() = changed.back() == '0' ? '1' : '0';
  const struct {
    const char *what;
    load::Text before;
    load::Text seen;
    load::Window window;
    bool isRight;
  } cases[] = {
      {"the only one", text(4), text(4), {4, 4}, true},
      {"the older of two", text(4), text(4), {4, 5}, true},
      {"the newer of two", text(4), text(5), {4, 5}, true},
      {"one of many", text(4), text(5), {4, 8}, true},
      {"a removal of many", text(4), std::nullopt, {4, 8}, true},
      {"the removal", text(4), std::nullopt, {6, 6}, true},
      {"nothing at first", text(4), std::nullopt, {4, 5}, false},
      {"a removal that was not begun", text(5), std::nullopt, {5, 5}, false},
      {"a value that was removed", text(5), text(5), {6, 6}, false},
      {"an older one", text(4), text(4), {5, 5}, false},
      {"one that was not begun", text(4), text(5), {4, 4}, false},
      {"an older one than before", text(5), text(4), {4, 5}, false},
      {"a removal and then an older one", text(5), text(4), {4, 6}, false},
      {"another byte", text(4), changed, {4, 4}, false},
      {"half of it", text(4), text(4)->substr(0, text(4)->size() / 2), {4, 4}, false},
      {"more of it", text(4), *text(4) + '.', {4, 4}, false},
      {"nothing but a key", text(4), "", {4, 4}, false},
      {"another key's", text(4), load::TextAfter(load::kIni, {3, 2}, 4), {4, 4}, false},
      {"another worker's", text(4), load::TextAfter(load::kIni, {4, 1}, 4), {4, 4}, false},
      {"another file's", text(4), load::TextAfter(load::kCfg, key, 4), {4, 4}, false},
  };
  for (const auto &c : cases) {
    load::Reader reader;
    EXPECT_EQ(reader.See(load::kIni, key, c.before, {4, 5}), "") << c.what;
    EXPECT_EQ(reader.See(load::kIni, key, c.seen, c.window).empty(), c.isRight) << c.what;
  }
}

TEST(LoadStores, TellWhatAFileCannotHold) {
  Ledger &ledger = Ledger::New();
  load::KeyLedger &first = ledger.workers[2].keys[load::kIni][0];
  load::KeyLedger &own = ledger.workers[2].keys[load::kIni][load::kSharedKeys];
  first.done = first.started = 1;
  own.done = own.started = 2;
  const std::string shared = "w2k0=" + *load::TextAfter(load::kIni, {2, 0}, 1) + '\n';
  const std::string header = "[own2]\n";
  const std::string last = "w2k4=" + *load::TextAfter(load::kIni, {2, 4}, 2) + '\n';
  std::string start = load::FirstIni();
  const std::string rest = start.substr(start.find("[ last ]"));
  start.erase(start.size() - rest.size());
  const struct {
    const char *what;
    std::string text;
    bool isRight;
  } cases[] = {
      {"all of it", start + shared + rest + header + last, true},
      {"an empty section beside", start + shared + rest + "[own1]\n" + header + last, true},
      {"a key lost", start + rest + header + last, false},
      {"a section lost", start + shared + rest, false},
      {"a key twice", start + shared + shared + rest + header + last, false},
      {"a section twice", start + shared + rest + header + header + last, false},
      {"a key in another section", start + rest + shared + header + last, false},
      {"nobody's line lost", start + shared + header + last, false},
      {"nobody's line twice", start + shared + rest + rest + header + last, false},
      {"a line that nobody wrote", start + shared + rest + header + last + "w2k5=(null)\n", false},
      {"a header that nobody wrote", start + shared + rest + "[own99]\n" + header + last, false},
      {"the end cut off", start + shared + rest + header + last.substr(0, last.size() - 1), false},
      {"nothing", "", false},
  };
  for (const auto &c : cases) {
    load::Windows windows(ledger);
    windows.Close();
    load::Reader reader;
    EXPECT_EQ(load::ReadIni(c.text).Check(load::kIni, reader, windows).empty(), c.isRight) << c.what;
  }
  EXPECT_EQ(load::WithoutEmptySections(start + "[own1]\n[own0]\n" + rest + header + last + "[own3]\n"),
            start + rest + header + last);
}

TEST(LoadLogs, TellWhatADocumentCannotHold) {
  const sandbox::TemporaryDirectory directory;
  const std::string path = directory.Path("a.xml");
  for (u32 number = 1; number <= 3; ++number) {
    const load::EntryParts parts = load::PartsOf(load::kSmallLog, 7, number, 10 + number);
    ASSERT_EQ(KCSAppendToXMLLog(path.c_str(), parts.type, number, parts.user.c_str(), parts.source.c_str(),
                                parts.description.c_str(), nullptr, 0, UINT32_MAX),
              0);
  }
  const std::string host = HostName();
  const std::string whole = sandbox::ReadFile(path);
  const auto isRight = [&host](const std::string &document) {
    std::vector<load::Entry> entries;
    return load::ReadDocument(load::kSmallLog, document, host, entries).empty();
  };
  std::vector<load::Entry> entries;
  ASSERT_EQ(load::ReadDocument(load::kSmallLog, whole, host, entries), "");
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[2].worker, 7u);
  EXPECT_EQ(entries[2].number, 3u);
  EXPECT_EQ(entries[2].ticket, 13u);
  EXPECT_TRUE(isRight(""));
  for (size_t size = 1; size < whole.size(); ++size) EXPECT_FALSE(isRight(whole.substr(0, size))) << size;
  EXPECT_FALSE(isRight(whole + '\n'));
  EXPECT_FALSE(isRight(whole + whole));
  // The ticket and the time are the only ones that could be others.
  size_t right = 0;
  for (size_t i = 0; i < whole.size(); ++i) {
    std::string changed = whole;
    changed[i] = changed[i] == '0' ? '1' : '0';
    if (isRight(changed)) ++right;
  }
  EXPECT_LE(right, 3 * std::string("10").size());
}

TEST(LoadLogs, TellWhichEntriesCannotBeMissing) {
  using Entries = std::vector<load::Entry>;
  Ledger &ledger = Ledger::New();
  const auto know = [&ledger](u32 worker, u32 done, u32 started, u32 ticket) {
    for (load::LogLedger &log : ledger.workers[worker].logs) {
      log.done = done;
      log.started = started;
      log.tickets[done % 2] = ticket;
    }
  };
  know(1, 4, 5, 9);
  know(2, 2, 2, 5);
  const struct {
    const char *what;
    Entries entries;  // worker, number, ticket
    bool isRight;     // of a log without backups
    bool isLatest;    // of a backup and the log behind it
  } cases[] = {
      {"all", {{1, 1, 1}, {2, 1, 2}, {1, 2, 3}, {2, 2, 5}, {1, 4, 9}}, true, true},
      {"one more", {{1, 1, 1}, {2, 1, 2}, {1, 2, 3}, {2, 2, 5}, {1, 4, 9}, {1, 5, 12}}, true, true},
      {"one that may be missing", {{1, 1, 1}, {2, 1, 2}, {1, 2, 3}, {1, 3, 4}, {2, 2, 5}, {1, 4, 9}}, true, true},
      {"the last ones", {{1, 2, 3}, {2, 2, 5}, {1, 4, 9}}, false, true},
      {"the last one", {{1, 4, 9}}, false, true},
      {"all of one worker's older than the rest", {{1, 4, 9}, {1, 5, 12}}, false, true},
      {"all of one worker's not older", {{1, 1, 1}, {1, 2, 3}, {1, 4, 9}}, false, false},
      {"none", {}, false, true},
      {"one in the middle missing", {{1, 1, 1}, {2, 1, 2}, {2, 2, 5}, {1, 4, 9}}, false, false},
      {"the last missing", {{1, 1, 1}, {2, 1, 2}, {1, 2, 3}, {1, 4, 9}}, false, false},
      {"one twice", {{1, 1, 1}, {2, 1, 2}, {1, 2, 3}, {2, 2, 5}, {2, 2, 5}, {1, 4, 9}}, false, false},
      {"two in another order", {{1, 2, 3}, {2, 1, 2}, {1, 1, 1}, {2, 2, 5}, {1, 4, 9}}, false, false},
      {"one that was not begun", {{1, 1, 1}, {2, 1, 2}, {1, 2, 3}, {2, 2, 5}, {1, 4, 9}, {2, 3, 13}}, false, false},
  };
  for (const auto &c : cases) {
    load::LogReader reader;
    for (const load::Log log : {load::kSmallLog, load::kFullLog}) reader.AddUncertain(log, 1, 3);
    load::LogWindows small(ledger, load::kSmallLog);
    load::LogWindows full(ledger, load::kFullLog);
    small.Close();
    full.Close();
    EXPECT_EQ(reader.SeeLatest(c.entries, small).empty(), c.isLatest) << c.what;
    EXPECT_EQ(reader.SeeNew(c.entries, full).empty(), c.isRight) << c.what;
  }
}

TEST(LoadRoleMap, NextOneGrantsEverybodyOtherRights) {
  for (u32 map = 1; map < 200; ++map) {
    for (u32 user = 0; user < load::kUsers; ++user) {
      const u32 rights = load::RightsOf(user, map);
      ASSERT_NE(rights, load::RightsOf(user, map + 1));
      EXPECT_EQ(load::MapOfAnswer(user, rights, map, map + 1), map);
      EXPECT_EQ(load::MapOfAnswer(user, rights, map + 1, map + 1), std::nullopt);
    }
    EXPECT_NE(load::RoleMapText(map), load::RoleMapText(map + 1));
  }
}

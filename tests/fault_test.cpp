// The system fails, or the process dies, at each system call of an operation in turn: what is on disk then is the old or
// the new whole, the answer is true to it or gives nobody more than there is, nothing stays open or locked, and the next
// call works.
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "program.h"
#include "sandbox.h"
#include "tracer.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"
#include "zebcs/logs.h"

namespace {

namespace fs = std::filesystem;

// The errors that a call of the operations can end with.
struct CallErrors {
  const char *name;
  std::vector<int> errors;
};
const std::map<long, CallErrors> kErrors = {
    {SYS_openat, {"openat", {EACCES, EMFILE}}},
    {SYS_read, {"read", {EIO, EINTR}}},
    {SYS_write, {"write", {ENOSPC, EINTR}}},
    {SYS_writev, {"writev", {ENOSPC, EINTR}}},
    {SYS_pread64, {"pread64", {EIO, EINTR}}},
    {SYS_pwrite64, {"pwrite64", {ENOSPC, EINTR}}},
    {SYS_pwritev, {"pwritev", {ENOSPC, EINTR}}},
    {SYS_copy_file_range, {"copy_file_range", {EIO, EXDEV}}},
    {SYS_lseek, {"lseek", {EINVAL}}},
    {SYS_ftruncate, {"ftruncate", {EIO, EINTR}}},
    {SYS_rename, {"rename", {EIO}}},
    {SYS_unlink, {"unlink", {EACCES}}},
    {SYS_mkdir, {"mkdir", {EACCES}}},
    {SYS_chmod, {"chmod", {EPERM}}},
    {SYS_fchmod, {"fchmod", {EPERM}}},
    {SYS_fstat, {"fstat", {EIO}}},
    {SYS_newfstatat, {"newfstatat", {EACCES}}},
    {SYS_access, {"access", {EACCES}}},
    {SYS_fcntl, {"fcntl", {EINTR, ENOLCK}}},
    {SYS_close, {"close", {EIO, EINTR}}},
    {SYS_socket, {"socket", {EMFILE, EAFNOSUPPORT}}},
    {SYS_connect, {"connect", {ECONNREFUSED, EINTR}}},
    {SYS_bind, {"bind", {EADDRINUSE}}},
    {SYS_getsockname, {"getsockname", {ENOBUFS}}},
    {SYS_sendto, {"sendto", {ENOBUFS, EINTR}}},
    {SYS_recvmsg, {"recvmsg", {ENOMEM, EINTR}}},
    {SYS_uname, {"uname", {EFAULT}}},
    {SYS_ioctl, {"ioctl", {ENOTTY}}},
    {SYS_readlink, {"readlink", {EACCES}}},
    {SYS_getrandom, {"getrandom", {EINTR}}},
    {SYS_dup, {"dup", {EMFILE}}},
    {SYS_mmap, {"mmap", {ENOMEM}}},
};

// Calls that cannot fail, or whose failing means nothing.
const std::set<long> kUnfailing = {SYS_getpid,  SYS_gettid,      SYS_getuid,       SYS_geteuid,        SYS_getgid,
                                   SYS_getegid, SYS_brk,         SYS_munmap,       SYS_mprotect,       SYS_madvise,
                                   SYS_futex,   SYS_sched_yield, SYS_rt_sigaction, SYS_rt_sigprocmask, SYS_sigaltstack,
                                   SYS_umask,   SYS_getppid,     SYS_nanosleep,    SYS_clock_nanosleep};

const std::string kINI = "; settings\n[a]\nkey=one\n[b]\nkey=two\nother=three\n";
const std::string kProperties = "# settings\nkey=one\nkey=two\nother=three\n";
const std::string kEntry = "<LogEntry><Status>4</Status><EventID>7</EventID><Desc>old entry</Desc></LogEntry>";
const std::string kLog = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<EventLog>" + kEntry + "</EventLog>";
const std::string kOldEntries = kLog.substr(0, kLog.find("</EventLog>"));
const std::string kCut = "<EventLog>" + kEntry;
const std::string kTorn = kCut + "<LogEntry><Sta";

// What a folder holds: the names of its files, below it as well, with their texts.
using Files = std::map<std::string, std::string>;

Files FilesOf(const std::string &folder) {
  Files files;
  for (const auto &entry : fs::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) {
      files[entry.path().lexically_relative(folder)] = sandbox::ReadFile(entry.path());
    }
  }
  return files;
}

void FillFolder(const std::string &folder) {
  for (const auto &[name, text] :
       Files{{"a.ini", kINI}, {"a.properties", kProperties}, {"a.xml", kLog}, {"torn.xml", kTorn}}) {
    ASSERT_TRUE(sandbox::WriteFile(folder + "/" + name, text));
  }
}

size_t CountOf(const std::string &text, const std::string &part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

// A log that has so many whole entries and nothing else.
bool IsLogOf(const std::string &text, size_t entries) {
  return text.ends_with("</EventLog>") && CountOf(text, "</EventLog>") == 1 && CountOf(text, "<EventLog>") == 1 &&
         CountOf(text, "<LogEntry>") == entries && CountOf(text, "</LogEntry>") == entries &&
         text.ends_with("</LogEntry></EventLog>");
}

std::string TextOf(const Files &files, const std::string &name) {
  const auto file = files.find(name);
  return file == files.end() ? "" : file->second;
}

// Whether a log has such an entry, and all logs that there are are whole.
bool HasEntry(const Files &files, const std::string &description) {
  bool isFound = false;
  for (const auto &[name, text] : files) {
    if (name.find(".xm") == std::string::npos || name == "torn.xml" || text.empty()) continue;
    if (!IsLogOf(text, CountOf(text, "</LogEntry>"))) return false;
    isFound = isFound || text.find(">" + description + "<") != std::string::npos;
  }
  return isFound;
}

struct Operation {
  std::string name;
  std::string file;       // that it changes, in the folder
  std::string temporary;  // that it writes beside it; none when it writes in place
  // Whether this is the file after the operation, as it was before, or, where a call died or failed, what may be left.
  std::function<bool(const Files &)> isNew;
  std::function<bool(const Files &)> isOld;
  std::string next = name;  // the operation that must work after this one
  // What it may leave when the process dies in the middle of a write, where that is neither old nor new, and the
  // operation that puts it right.
  std::function<bool(const Files &)> isTorn = [](const Files &) { return false; };
  std::string mending = next;
  std::function<bool(const Files &)> isMended = isNew;
};

[[maybe_unused]] void PrintTo(const Operation &operation, std::ostream *stream) { *stream << operation.name; }

Operation Rewrite(const std::string &name, const std::string &file, const std::string &temporary,
                  const std::string &oldText, const std::string &newText) {
  return {name, file, temporary, [=](const Files &files) { return TextOf(files, file) == newText; },
          [=](const Files &files) { return TextOf(files, file) == oldText; }};
}

// An operation that writes at the end of the file may leave a part of that behind what was there.
Operation WithTornEnd(Operation operation, const std::string &before) {
  operation.isTorn = [before, file = operation.file](const Files &files) {
    return TextOf(files, file).starts_with(before);
  };
  operation.mending = "ini_read";
  operation.isMended = operation.isTorn;
  return operation;
}

// The same for a log, which keeps its entries and takes new ones again when it has been checked.
Operation WithTornLog(Operation operation, const std::string &before, const std::string &mending) {
  operation.isTorn = [=, file = operation.file](const Files &files) {
    return (TextOf(files, file) + TextOf(files, "a.xm_")).find(before) != std::string::npos;
  };
  operation.mending = mending;
  operation.isMended = [=](const Files &files) { return HasEntry(files, "new entry") && operation.isTorn(files); };
  return operation;
}

const std::vector<Operation> &Operations() {
  static const std::vector<Operation> operations = {
      Rewrite("ini_update", "a.ini", "kcsini64.tmp", kINI, "; settings\n[a]\nkey=one\n[b]\nkey=changed\nother=three\n"),
      Rewrite("ini_add", "a.ini", "kcsini64.tmp", kINI,
              "; settings\n[a]\nkey=one\nnew=value\n[b]\nkey=two\nother=three\n"),
      Rewrite("ini_remove", "a.ini", "kcsini64.tmp", kINI, "; settings\n[a]\nkey=one\n[b]\nother=three\n"),
      WithTornEnd(Rewrite("ini_section", "a.ini", "kcsini64.tmp", kINI, kINI + "[c]\nkey=value\n"), kINI),
      WithTornEnd(Rewrite("ini_new", "new/b.ini", "", "", "[a]\nkey=value\n"), ""),
      Rewrite("ini_read", "a.ini", "", kINI, kINI),
      Rewrite("keyvalue_update", "a.properties", "kcscfg64.tmp", kProperties,
              "# settings\nkey=one\nkey=changed\nother=three\n"),
      Rewrite("keyvalue_add", "a.properties", "kcscfg64.tmp", kProperties, kProperties + "new=value\n"),
      Rewrite("keyvalue_remove", "a.properties", "kcscfg64.tmp", kProperties, "# settings\nkey=one\nother=three\n"),
      Rewrite("keyvalue_read", "a.properties", "", kProperties, kProperties),
      WithTornLog({"log_append", "a.xml", "",
                   [](const Files &files) {
                     return HasEntry(files, "new entry") && TextOf(files, "a.xml").starts_with(kOldEntries);
                   },
                   [](const Files &files) { return TextOf(files, "a.xml") == kLog; }},
                  kOldEntries, "log_mend"),
      WithTornLog({"log_new", "new/b.xml", "", [](const Files &files) { return HasEntry(files, "new entry"); },
                   [](const Files &files) { return TextOf(files, "new/b.xml").empty(); }},
                  "", "log_mend_new"),
      // The old entry is in the log or its backup at any time.
      WithTornLog({"log_backup", "a.xml", "",
                   [](const Files &files) { return HasEntry(files, "new entry") && HasEntry(files, "old entry"); },
                   [](const Files &files) { return !HasEntry(files, "new entry") && HasEntry(files, "old entry"); },
                   "log_append"},
                  kOldEntries, "log_mend"),
      WithTornLog(
          {"log_clear", "a.xml", "",
           [](const Files &files) { return HasEntry(files, "Log was cleared") || HasEntry(files, "new entry"); },
           [](const Files &files) { return TextOf(files, "a.xml") == kLog || TextOf(files, "a.xml").empty(); },
           "log_append"},
          "", "log_mend"),
      {"log_repair", "torn.xml", "",
       [](const Files &files) { return TextOf(files, "torn.xml") == kCut + "</EventLog>"; },
       // Without its torn end, or with a part of its tag, it is as good as before: the end tag is still missed.
       [](const Files &files) {
         const std::string text = TextOf(files, "torn.xml");
         return text == kTorn || (text.starts_with(kCut) && (kCut + "</EventLog>").starts_with(text));
       }},
  };
  return operations;
}

// One way to spoil an operation.
struct Point {
  SpoiltCall spoilt;
  long call;
  std::string text;
};

// The lengths to which a transfer is cut short.
std::set<uint64_t> PartsOf(const TracedCall &call) {
  if (call.bytes <= 1) return {};
  return {1, call.bytes / 2, call.bytes - 1};
}

// Every error of every call that an operation makes, and every transfer cut short.
std::vector<Point> FailuresOf(const std::vector<TracedCall> &calls) {
  std::vector<Point> points;
  for (size_t i = 0; i < calls.size(); ++i) {
    const TracedCall &call = calls[i];
#ifdef ZEBCS_SANITIZED
    if (call.number == SYS_mmap) continue;  // a sanitizer without memory ends the program
#endif
    if (kUnfailing.contains(call.number)) continue;
    const auto known = kErrors.find(call.number);
    if (known == kErrors.end()) {
      ADD_FAILURE() << "system call " << call.number << " is not known";
      continue;
    }
    const std::string name = known->second.name + (" at " + std::to_string(i));
    for (const int error : known->second.errors) {
      points.push_back(
          {{.how = Spoiling::kError, .call = i, .error = error}, call.number, name + ": " + strerrorname_np(error)});
    }
    for (const uint64_t bytes : PartsOf(call)) {
      points.push_back({{.how = Spoiling::kShortened, .call = i, .bytes = bytes},
                        call.number,
                        name + ": " + std::to_string(bytes) + " of " + std::to_string(call.bytes) + " bytes"});
    }
  }
  return points;
}

struct Answers {
  int first = -4711;
  long opened = -4711;  // descriptors
  int second = -4711;
};

Answers AnswersOf(const TracedProgram &program) {
  Answers answers;
  std::istringstream(program.output) >> answers.first >> answers.opened >> answers.second;
  return answers;
}

void ExpectLockIsFree() {
  EXPECT_EQ(FileLock(0), 1);
  FileUnlock();
}

struct Outcome {
  TracedProgram program;
  Answers answers;
  Files files;
  Files filesOfNext;  // after the operation has been called once more, with nothing in its way
};

// Runs an operation on fresh files.
Outcome Try(const Operation &operation, const SpoiltCall &spoilt) {
  const std::string &next = spoilt.how == Spoiling::kTorn ? operation.mending : operation.next;
  const sandbox::TemporaryDirectory directory;
  const std::string &folder = directory.path();
  FillFolder(folder);
  Outcome outcome;
  outcome.program = RunTraced({ZEBCS_FAULT_PROBE, operation.name, folder}, spoilt);
  outcome.answers = AnswersOf(outcome.program);
  outcome.files = FilesOf(folder);
  if (spoilt.how != Spoiling::kNone) {
    EXPECT_EQ(RunProgram({ZEBCS_FAULT_PROBE, next, folder}).status, 0);
    outcome.filesOfNext = FilesOf(folder);
  }
  return outcome;
}

// The system calls of an operation that nothing goes wrong with.
std::vector<TracedCall> CallsOf(const Operation &operation) {
  const Outcome outcome = Try(operation, {});
  EXPECT_EQ(outcome.program.status, 0) << outcome.program.errors;
  EXPECT_EQ(outcome.program.marks, 2);
  EXPECT_EQ(outcome.answers.first, 0);
  EXPECT_EQ(outcome.answers.opened, 0);
  EXPECT_TRUE(operation.isNew(outcome.files)) << TextOf(outcome.files, operation.file);
  return outcome.program.calls;
}

class Fault : public testing::TestWithParam<Operation> {
 protected:
  void SetUp() override { sandbox::RequireSandbox(); }

  // Whether the file is one of the wholes, or, when its replacing was cut in two, the new one waits under its
  // temporary name.
  static bool IsWhole(const Operation &operation, const Files &files) {
    if (operation.isNew(files) || operation.isOld(files)) return true;
    if (operation.temporary.empty() || files.contains(operation.file)) return false;
    Files replaced = files;
    replaced[operation.file] = TextOf(files, operation.temporary);
    return operation.isNew(replaced);
  }

  // Whether the operation works the next time, from a file that was left as it was.
  static bool Recovers(const Operation &operation, const Outcome &outcome) {
    return !operation.isOld(outcome.files) || operation.isNew(outcome.filesOfNext);
  }
};

INSTANTIATE_TEST_SUITE_P(Operation, Fault, testing::ValuesIn(Operations()),
                         [](const auto &operation) { return operation.param.name; });

}  // namespace

TEST_P(Fault, FailingCallLeavesTheOldOrTheNewWholeAndTheStatusTellsWhich) {
  const Operation &operation = GetParam();
  const std::vector<Point> points = FailuresOf(CallsOf(operation));
  for (const Point &point : points) {
    SCOPED_TRACE(point.text);
    const Outcome outcome = Try(operation, point.spoilt);
    ASSERT_EQ(outcome.program.status, 0) << outcome.program.errors;
    ASSERT_GT(outcome.program.calls.size(), point.spoilt.call);
    const int status = outcome.answers.first;
    EXPECT_EQ(outcome.answers.opened, 0);
    EXPECT_NE(status, 9999) << "a wrong value";
    const std::string text = TextOf(outcome.files, operation.file);
    if (point.spoilt.how == Spoiling::kShortened) {
      EXPECT_EQ(status, SM_STATUS_SUCCESS) << "the rest follows";
    }
    if (status == SM_STATUS_SUCCESS) {
      EXPECT_TRUE(operation.isNew(outcome.files) || operation.name == "log_repair") << text;
    } else if (status != SM_STATUS_RENAME_FAILED && point.call != SYS_close) {  // whose news come after the writing
      EXPECT_TRUE(operation.isOld(outcome.files)) << "status " << status << ":\n" << text;
    }
    EXPECT_TRUE(IsWhole(operation, outcome.files)) << text;
    EXPECT_TRUE(Recovers(operation, outcome)) << TextOf(outcome.filesOfNext, operation.file);
    ExpectLockIsFree();
  }
  RecordProperty("points", static_cast<int>(points.size()));
  EXPECT_GT(points.size(), 3u);
}

TEST_P(Fault, DeathAtACallLeavesTheOldOrTheNewWhole) {
  const Operation &operation = GetParam();
  const std::vector<TracedCall> calls = CallsOf(operation);
  for (size_t i = 0; i < calls.size(); ++i) {
    SCOPED_TRACE("call " + std::to_string(calls[i].number) + " at " + std::to_string(i));
    const Outcome outcome = Try(operation, {.how = Spoiling::kDeath, .call = i});
    ASSERT_EQ(outcome.program.status, 128 + SIGKILL);
    EXPECT_TRUE(IsWhole(operation, outcome.files)) << TextOf(outcome.files, operation.file);
    EXPECT_TRUE(Recovers(operation, outcome)) << TextOf(outcome.filesOfNext, operation.file);
    ExpectLockIsFree();
  }
  RecordProperty("points", static_cast<int>(calls.size()));
  EXPECT_GT(calls.size(), 3u);
}

// What the system had made of a write when the process died. A log is put right before it is written to again, and a
// file that was only just made has no old content to lose.
TEST_P(Fault, DeathInTheMiddleOfAWriteLeavesWhatCanBeGoneOnWith) {
  const Operation &operation = GetParam();
  const std::vector<TracedCall> calls = CallsOf(operation);
  int points = 0;
  for (size_t i = 0; i < calls.size(); ++i) {
    for (const uint64_t bytes : PartsOf(calls[i])) {
      SCOPED_TRACE(std::to_string(bytes) + " bytes of call " + std::to_string(calls[i].number) + " at " +
                   std::to_string(i));
      ++points;
      const Outcome outcome = Try(operation, {.how = Spoiling::kTorn, .call = i, .bytes = bytes});
      ASSERT_EQ(outcome.program.status, 128 + SIGKILL);
      EXPECT_TRUE(IsWhole(operation, outcome.files) || operation.isTorn(outcome.files))
          << TextOf(outcome.files, operation.file);
      EXPECT_TRUE(operation.isNew(outcome.files) || operation.isMended(outcome.filesOfNext))
          << TextOf(outcome.filesOfNext, operation.file);
      ExpectLockIsFree();
    }
  }
  RecordProperty("points", points);
}

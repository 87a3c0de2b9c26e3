// The system fails, or the process dies, at each system call of an update in turn: what is on disk then is the old or
// the new whole, the status says which, nothing stays open or locked, and the next call works.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "program.h"
#include "sandbox.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"
#include "zebcs/logs.h"

namespace {

namespace fs = std::filesystem;

// What the library calls, with the errors that each can end with.
const std::map<std::string, std::vector<std::string>> kCalls = {
    {"openat", {"EACCES", "EMFILE"}},
    {"read", {"EIO", "EINTR"}},
    {"write", {"ENOSPC", "EINTR"}},
    {"writev", {"ENOSPC", "EINTR"}},
    {"pread64", {"EIO"}},
    {"pwrite64", {"ENOSPC", "EINTR"}},
    {"pwritev", {"ENOSPC"}},
    {"lseek", {"EINVAL"}},
    {"ftruncate", {"EIO"}},
    {"rename", {"EIO"}},
    {"unlink", {"EACCES"}},
    {"mkdir", {"EACCES"}},
    {"chmod", {"EPERM"}},
    {"fchmod", {"EPERM"}},
    {"fstat", {"EIO"}},
    {"newfstatat", {"EACCES"}},
    {"access", {"EACCES"}},
    {"fcntl", {"EINTR", "ENOLCK"}},
    {"close", {"EIO", "EINTR"}},
    {"copy_file_range", {"EIO"}},
};

const std::string kINI = "; settings\n[a]\nkey=one\n[b]\nkey=two\nother=three\n";
const std::string kProperties = "# settings\nkey=one\nkey=two\nother=three\n";
const std::string kEntry = "<LogEntry><Status>4</Status><EventID>7</EventID><Desc>old entry</Desc></LogEntry>";
const std::string kLog = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<EventLog>" + kEntry + "</EventLog>";
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

struct Operation {
  std::string name;
  std::string file;       // that it changes, in the folder
  std::string temporary;  // that it writes beside it; none when it writes in place
  // Whether this is the file after the operation, as it was before, or, where a call died or failed, what may be left.
  std::function<bool(const Files &)> isNew;
  std::function<bool(const Files &)> isOld;
};

[[maybe_unused]] void PrintTo(const Operation &operation, std::ostream *stream) { *stream << operation.name; }

std::string TextOf(const Files &files, const std::string &name) {
  const auto file = files.find(name);
  return file == files.end() ? "" : file->second;
}

Operation Rewrite(const std::string &name, const std::string &file, const std::string &temporary,
                  const std::string &oldText, const std::string &newText) {
  return {name, file, temporary, [=](const Files &files) { return TextOf(files, file) == newText; },
          [=](const Files &files) { return TextOf(files, file) == oldText; }};
}

const std::vector<Operation> &Operations() {
  static const std::vector<Operation> operations = {
      Rewrite("ini_update", "a.ini", "kcsini64.tmp", kINI, "; settings\n[a]\nkey=one\n[b]\nkey=changed\nother=three\n"),
      Rewrite("ini_add", "a.ini", "kcsini64.tmp", kINI,
              "; settings\n[a]\nkey=one\nnew=value\n[b]\nkey=two\nother=three\n"),
      Rewrite("ini_remove", "a.ini", "kcsini64.tmp", kINI, "; settings\n[a]\nkey=one\n[b]\nother=three\n"),
      Rewrite("ini_section", "a.ini", "kcsini64.tmp", kINI, kINI + "[c]\nkey=value\n"),
      Rewrite("ini_new", "new/b.ini", "", "", "[a]\nkey=value\n"),
      Rewrite("ini_read", "a.ini", "", kINI, kINI),
      Rewrite("keyvalue_update", "a.properties", "kcscfg64.tmp", kProperties,
              "# settings\nkey=one\nkey=changed\nother=three\n"),
      Rewrite("keyvalue_remove", "a.properties", "kcscfg64.tmp", kProperties, "# settings\nkey=one\nother=three\n"),
      Rewrite("keyvalue_read", "a.properties", "", kProperties, kProperties),
      {"log_append", "a.xml", "",
       [](const Files &files) {
         return IsLogOf(TextOf(files, "a.xml"), 2) &&
                TextOf(files, "a.xml").starts_with(kLog.substr(0, kLog.size() - 11));
       },
       [](const Files &files) { return TextOf(files, "a.xml") == kLog; }},
      {"log_new", "new/b.xml", "", [](const Files &files) { return IsLogOf(TextOf(files, "new/b.xml"), 1); },
       [](const Files &files) { return TextOf(files, "new/b.xml").empty(); }},
      {"log_repair", "torn.xml", "",
       [](const Files &files) { return TextOf(files, "torn.xml") == kCut + "</EventLog>"; },
       // Without its torn end it is as good as before: the end tag is still missed.
       [](const Files &files) { return TextOf(files, "torn.xml") == kTorn || TextOf(files, "torn.xml") == kCut; }},
  };
  return operations;
}

struct TracedRun {
  ProgramResult result;
  std::string trace;
  Files files;
  Files filesOfNext;  // after the operation has been called once more, with nothing in its way
};

// Runs an operation in a fresh folder under strace with these options.
TracedRun RunTraced(const Operation &operation, const std::vector<std::string> &options) {
  const sandbox::TemporaryDirectory directory;
  const std::string folder = directory.Path("files");
  const std::string trace = directory.Path("trace");
  fs::create_directory(folder);
  FillFolder(folder);
  // A leak check traces its own process, which a traced one cannot do.
  std::vector<std::string> arguments{ZEBCS_STRACE, "-f", "-qq", "-o", trace, "-E", "ASAN_OPTIONS=detect_leaks=0"};
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.insert(arguments.end(), {ZEBCS_FAULT_PROBE, operation.name, folder});
  TracedRun run;
  run.result = RunProgram(arguments);
  run.trace = sandbox::ReadFile(trace);
  run.files = FilesOf(folder);
  if (!options.empty()) {
    EXPECT_EQ(RunProgram({ZEBCS_FAULT_PROBE, operation.name, folder}).status, 0);
    run.filesOfNext = FilesOf(folder);
  }
  return run;
}

// The system calls of an operation, each with the numbers of those between the marks.
std::map<std::string, std::pair<int, int>> CallsOf(const Operation &operation) {
  std::map<std::string, std::pair<int, int>> calls;
  std::map<std::string, int> counts;
  const TracedRun run = RunTraced(operation, {});
  EXPECT_EQ(run.result.status, 0) << run.result.errors;
  EXPECT_TRUE(run.result.output.ends_with(" 0\n")) << run.result.output << ": descriptors";
  EXPECT_TRUE(operation.isNew(run.files)) << TextOf(run.files, operation.file);
  int marks = 0;
  std::istringstream lines(run.trace);
  for (std::string line; std::getline(lines, line);) {
    const size_t start = line.find_first_not_of("0123456789 ");  // behind the process
    const std::string name = line.substr(start, line.find('(') - start);
    if (line.find("write(2, \"MARK\\n\"") != std::string::npos) ++marks;
    const int number = ++counts[name];
    if (marks != 1 || !kCalls.contains(name) || line.find("\"MARK") != std::string::npos) continue;
    calls.emplace(name, std::pair(number, number)).first->second.second = number;
  }
  EXPECT_EQ(marks, 2) << run.trace;
  return calls;
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
  static bool Recovers(const Operation &operation, const TracedRun &run) {
    return !operation.isOld(run.files) || operation.isNew(run.filesOfNext);
  }

  static void ExpectLockIsFree() {
    EXPECT_EQ(FileLock(0), 1);
    FileUnlock();
  }
};

INSTANTIATE_TEST_SUITE_P(Operation, Fault, testing::ValuesIn(Operations()),
                         [](const auto &operation) { return operation.param.name; });

}  // namespace

TEST_P(Fault, FailingCallLeavesTheOldOrTheNewWholeAndTheStatusTellsWhich) {
  const Operation &operation = GetParam();
  int points = 0;
  for (const auto &[call, numbers] : CallsOf(operation)) {
    for (const std::string &error : kCalls.at(call)) {
      for (int number = numbers.first; number <= numbers.second; ++number, ++points) {
        const std::string where = call + " " + std::to_string(number) + " " + error;
        const TracedRun run = RunTraced(
            operation,
            {"-e", "trace=" + call, "-e", "inject=" + call + ":error=" + error + ":when=" + std::to_string(number)});
        ASSERT_EQ(run.result.status, 0) << where << ": " << run.result.errors;
        ASSERT_NE(run.trace.find("(INJECTED)"), std::string::npos) << where;
        int status = -4711;
        long descriptors = -4711;
        std::istringstream(run.result.output) >> status >> descriptors;
        // A close that fails has closed all the same, but the one that strace lets fail has not been made.
        EXPECT_EQ(descriptors, call == "close" ? 1 : 0) << where;
        EXPECT_NE(status, 9999) << where << ": a wrong value";
        const std::string text = TextOf(run.files, operation.file);
        if (status == SM_STATUS_SUCCESS) {
          EXPECT_TRUE(operation.isNew(run.files) || operation.name == "log_repair") << where << ":\n" << text;
        } else if (status != SM_STATUS_RENAME_FAILED && call != "close") {  // whose news come after the writing
          EXPECT_TRUE(operation.isOld(run.files)) << where << ", status " << status << ":\n" << text;
        }
        EXPECT_TRUE(IsWhole(operation, run.files)) << where << ":\n" << text;
        EXPECT_TRUE(Recovers(operation, run)) << where << ":\n" << TextOf(run.filesOfNext, operation.file);
        ExpectLockIsFree();
      }
    }
  }
  RecordProperty("points", points);
  EXPECT_GT(points, 3);
}

TEST_P(Fault, DeathAtACallLeavesTheOldOrTheNewWhole) {
  const Operation &operation = GetParam();
  int points = 0;
  for (const auto &[call, numbers] : CallsOf(operation)) {
    for (int number = numbers.first; number <= numbers.second; ++number, ++points) {
      const std::string where = call + " " + std::to_string(number);
      const TracedRun run = RunTraced(operation, {"-e", "trace=" + call, "-e",
                                                  "inject=" + call + ":signal=SIGKILL:when=" + std::to_string(number)});
      ASSERT_EQ(run.result.status, 128 + SIGKILL) << where;
      EXPECT_TRUE(IsWhole(operation, run.files)) << where << ":\n" << TextOf(run.files, operation.file);
      EXPECT_TRUE(Recovers(operation, run)) << where << ":\n" << TextOf(run.filesOfNext, operation.file);
      ExpectLockIsFree();
    }
  }
  RecordProperty("points", points);
  EXPECT_GT(points, 3);
}

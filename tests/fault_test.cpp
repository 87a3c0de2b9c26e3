// The system fails, or the process dies, at each system call of an operation in turn: what is on disk then is the old or
// the new whole, the answer is true to it or gives nobody more than there is, nothing stays open or locked, and the next
// call works.
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "fault_points.h"
#include "program.h"
#include "sandbox.h"
#include "tracer.h"
#include "zebcs/ini.h"
#include "zebcs/logs.h"

namespace {

namespace fs = std::filesystem;

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

struct Outcome {
  TracedProgram program;
  ProbeAnswers answers;
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
  const std::vector<FaultPoint> points = FailuresOf(CallsOf(operation));
  for (const FaultPoint &point : points) {
    SCOPED_TRACE(point.text);
    const Outcome outcome = Try(operation, point.spoilt);
    ASSERT_EQ(outcome.program.status, 0) << outcome.program.errors;
    ASSERT_GT(outcome.program.calls.size(), point.spoilt.call);
    const int status = outcome.answers.first;
    EXPECT_EQ(outcome.answers.opened, 0);
    EXPECT_NE(status, kWrongAnswer) << "a wrong value";
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
    ExpectFileLockIsFree();
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
    ExpectFileLockIsFree();
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
      ExpectFileLockIsFree();
    }
  }
  RecordProperty("points", points);
}

// The system fails at each system call of a question in turn, in PAM, the account files and the network as well: the
// answer is the right one or says that there is none, nobody is let in or given more than the rules say, nothing stays
// open or locked, and the question is answered the next time.
#include <gtest/gtest.h>

#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fault_points.h"
#include "sandbox.h"
#include "system_log.h"

namespace {

constexpr const char *kAlicesWord = "$5$rounds=1000$salt$LAPjm8IxZfzU7gsCjkJ4YehoZHgEVhTCHOPMEEuQva.";

struct Question {
  std::string name;
  int answer;
  std::set<int> answersOfFailure;  // what it may say when the system fails
  std::set<int> answersOfNext;     // and what the same process is then told
  long mayStayOpen = 0;            // descriptors
};

[[maybe_unused]] void PrintTo(const Question &question, std::ostream *stream) { *stream << question.name; }

constexpr int kNobody = 0;
constexpr int kUser = 1;  // what the built-in rules give alice, when her own cannot be read
constexpr int kPowerUser = 3;
constexpr int kNothing = -1;

const std::vector<Question> &Questions() {
  static const std::vector<Question> questions = {
      // The file gives alice less than her group, which must not show.
      // Kept: a role map that was found empty, as one that cannot be read is, stays open.
      {"rights", kPowerUser, {kNobody, kUser}, {kUser}, 1},
      {"rights_changed", kUser, {kNobody, kPowerUser}, {kPowerUser}, 1},
      // Left alone: PAM itself keeps its file open where its folder cannot be examined.
      {"login", kPowerUser, {kNobody, kUser}, {kUser}, 1},
      {"wrong_login", kNobody, {}, {}, 1},
      {"process_user", 0, {kNothing}, {}},
      {"domain", 0, {kNothing}, {}},
      {"host_name", 0, {kNothing}, {}},
      {"addresses", 2, {kNothing}, {}},
      {"loopback", 4, {6, kNothing}, {}},
      {"resource", 0, {kNothing}, {}},
      {"log_content", 0, {kNothing, -2}, {}},
      {"system_log", 0, {}, {}},
  };
  return questions;
}

void Prepare(const std::string &folder) {
  ASSERT_TRUE(
      sandbox::SetAccounts("root:x:0:0:root:/root:/bin/sh\n"
                           "alice:x:1001:50::/nonexistent:/bin/sh\n",
                           "root:x:0:\nstaff:x:50:\nwheel:x:10:alice\n"));
  ASSERT_TRUE(sandbox::WriteFile("/etc/shadow", std::string("alice:") + kAlicesWord + ":19000:0:99999:7:::\n", 0640));
  ASSERT_TRUE(
      sandbox::WriteFile("/etc/pam.d/qxauth", "auth required pam_unix.so nodelay\naccount required pam_unix.so\n"));
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "alice * poweruser\n+wheel * administrator\n", 0640));
  ASSERT_TRUE(sandbox::WriteFile(
      folder + "/texts", std::string("\xFF\xFE", 2) + [] {
        std::string bytes;
        for (const char ch : std::string("0:1F4=text\r\n")) bytes += std::string{ch, '\0'};
        return bytes;
      }()));
  ASSERT_TRUE(sandbox::WriteFile(folder + "/a.xml", "<EventLog>" + std::string(5000, 'x') + "</EventLog>"));
}

class FaultAnswer : public testing::TestWithParam<Question> {};

INSTANTIATE_TEST_SUITE_P(Question, FaultAnswer, testing::ValuesIn(Questions()),
                         [](const auto &question) { return question.param.name; });

}  // namespace

TEST_P(FaultAnswer, IsRightOrNoneWhateverCallFails) {
  sandbox::RequireSandbox();
  const Question &question = GetParam();
  const sandbox::TemporaryDirectory directory;
  ASSERT_TRUE(sandbox::AddInterface("lan") && sandbox::AddAddress("lan", "192.0.2.10/24") &&
              sandbox::AddAddress("lan", "192.0.2.11/24"));
  const sandbox::SystemLog systemLog;
  const std::jthread reader([&](const std::stop_token &stop) {  // PAM says much, and would wait
    while (!stop.stop_requested()) systemLog.Receive(10);
  });
  const auto ask = [&](const SpoiltCall &spoilt) {
    Prepare(directory.path());
    return RunTraced({ZEBCS_FAULT_PROBE, question.name, directory.path()}, spoilt);
  };
  const TracedProgram unspoilt = ask({});
  ASSERT_EQ(unspoilt.status, 0) << unspoilt.errors;
  ASSERT_EQ(AnswersOf(unspoilt).first, question.answer);
  const std::vector<FaultPoint> points = FailuresOf(unspoilt.calls);
  for (const FaultPoint &point : points) {
    SCOPED_TRACE(point.text);
    const TracedProgram program = ask(point.spoilt);
    ASSERT_EQ(program.status, 0) << program.errors;
    const ProbeAnswers answers = AnswersOf(program);
    EXPECT_TRUE(answers.first == question.answer || question.answersOfFailure.contains(answers.first)) << answers.first;
    EXPECT_TRUE(answers.second == question.answer || question.answersOfNext.contains(answers.second)) << answers.second;
    EXPECT_LE(answers.opened, question.mayStayOpen);
    ExpectFileLockIsFree();
  }
  RecordProperty("points", static_cast<int>(points.size()));
  EXPECT_GT(points.size(), 0u);
}

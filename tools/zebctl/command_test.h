// What the tests of zebctl's commands have in common.
#ifndef ZEBCTL_COMMAND_TEST_H
#define ZEBCTL_COMMAND_TEST_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "program.h"
#include "sandbox.h"

using Line = std::vector<std::string>;

// A working directory for the program, which is an empty one, and the program in it. Command::kCommand is the first word
// of every command line.
template <class Command>
class CommandTest : public testing::Test {
 protected:
  void SetUp() override {
    sandbox::RequireSandbox();
    ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
    ASSERT_EQ(chdir(m_directory.path().c_str()), 0);
  }

  static ProgramResult Zebctl(Line arguments) {
    arguments.insert(arguments.begin(), {ZEBCTL_PATH, Command::kCommand});
    return RunProgram(arguments);
  }

  static void Expect(const Line &line, int status, const std::string &output, const std::string &errors) {
    const ProgramResult result = Zebctl(line);
    EXPECT_EQ(result.status, status) << testing::PrintToString(line);
    EXPECT_EQ(result.output, output) << testing::PrintToString(line);
    EXPECT_EQ(result.errors, errors) << testing::PrintToString(line);
  }

  // Expects an answer and no word of complaint.
  static void ExpectAnswer(const Line &line, const std::string &output) { Expect(line, 0, output, ""); }

  // Expects a complaint and no answer.
  static void ExpectRefusal(const Line &line, int status, const std::string &errors) {
    Expect(line, status, "", "zebctl: " + errors);
  }

  sandbox::TemporaryDirectory m_directory;
};

#endif

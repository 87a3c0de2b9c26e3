// Programs run by tests: arguments in, output and exit status back.
#ifndef ZEBCS_TESTS_SUPPORT_PROGRAM_H
#define ZEBCS_TESTS_SUPPORT_PROGRAM_H

#include <string>
#include <vector>

struct ProgramResult {
  int status = -1;  // the exit status, or 128 + the number of the signal that ended the program
  std::string output;
  std::string errors;
};

// Runs a program to its end; a program that cannot be started adds a failure to the running test.
ProgramResult RunProgram(const std::vector<std::string> &arguments);

// The system calls that a program makes between the two lines "MARK" which it writes to standard error, one a line.
std::vector<std::string> SystemCallsBetweenMarks(const std::string &strace, const std::vector<std::string> &arguments);

#endif

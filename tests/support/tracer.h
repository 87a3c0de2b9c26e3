// Runs a program under ptrace, notes the system calls that it makes between two marks, and spoils one of them.
//
// A mark is the text "MARK\n" written to standard error. Processes and threads that the program starts run unwatched.
#ifndef ZEBCS_TESTS_SUPPORT_TRACER_H
#define ZEBCS_TESTS_SUPPORT_TRACER_H

#include <cstdint>
#include <string>
#include <vector>

enum class Spoiling {
  kNone,
  kError,      // the call is not made and fails, but for close, which always closes
  kShortened,  // the call is made for fewer bytes than were asked for
  kDeath,      // the process is killed instead
  kTorn,       // the call is made for fewer bytes, and the process is killed behind it
};

struct SpoiltCall {
  Spoiling how = Spoiling::kNone;
  size_t call = 0;     // its position among those between the marks
  int error = 0;       // with which it fails
  uint64_t bytes = 0;  // to which it is shortened
};

struct TracedCall {
  long number = 0;     // SYS_...
  uint64_t bytes = 0;  // that it asks to be moved, for the calls that can be shortened
};

struct TracedProgram {
  int status = -1;  // the exit status, or 128 + the number of the signal that ended the program
  std::string output;
  std::string errors;
  std::vector<TracedCall> calls;  // between the marks
  int marks = 0;
};

// A program that cannot be run or traced adds a failure to the running test.
TracedProgram RunTraced(const std::vector<std::string> &arguments, const SpoiltCall &spoilt = {});

#endif

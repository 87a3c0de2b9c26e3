// The ways in which the system can fail under a program that is traced, and what the probe says afterwards.
#ifndef ZEBCS_TESTS_SUPPORT_FAULT_POINTS_H
#define ZEBCS_TESTS_SUPPORT_FAULT_POINTS_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tracer.h"

// One way to spoil an operation.
struct FaultPoint {
  SpoiltCall spoilt;
  long call;
  std::string text;
};

// The lengths to which a transfer is cut short.
std::set<uint64_t> PartsOf(const TracedCall &call);

// Every error of every call that an operation makes, and every transfer cut short. A call that nothing is known of adds
// a failure to the running test.
std::vector<FaultPoint> FailuresOf(const std::vector<TracedCall> &calls);

struct ProbeAnswers {
  int first = -4711;
  long opened = -4711;  // descriptors
  int second = -4711;
};

inline constexpr int kWrongAnswer = 9999;  // neither what was asked for nor that there is nothing

ProbeAnswers AnswersOf(const TracedProgram &program);

void ExpectFileLockIsFree();

#endif

// Contenders must agree before any of them is timed.
#ifndef ZEBCS_BENCH_COMPARE_H
#define ZEBCS_BENCH_COMPARE_H

#include <cstdio>
#include <cstdlib>
#include <string>

inline void Require(bool isTrue, const std::string &what) {
  if (isTrue) return;
  std::fprintf(stderr, "benchmark: %s\n", what.c_str());
  std::exit(1);
}

#endif

#include <benchmark/benchmark.h>

#include "compare.h"

int main(int argc, char **argv) {
  AddEncodingBenchmarks();
  AddXMLBenchmarks();
  AddDigestBenchmarks();
  AddFrameBenchmarks();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

// Runs the benchmarks and prints a line for each group of contenders.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "contenders.h"

namespace {

// The least processor time of each contender over all repetitions: whatever else the machine does can only add to it.
class GroupReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context &context) override {
    PrintBasicContext(&GetErrorStream(), context);
    return true;
  }

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const std::string &name = run.run_name.function_name;
      if (run.error_occurred) {
        std::fprintf(stderr, "%s was not measured: %s\n", name.c_str(), run.error_message.c_str());
        continue;
      }
      Contender &contender = m_contenders[run.family_index];
      contender.name = name;
      contender.time = std::min(contender.time, run.GetAdjustedCPUTime());
      const auto rate = run.counters.find("bytes_per_second");
      if (rate != run.counters.end()) contender.rate = std::max(contender.rate, rate->second.value);
    }
  }

  void Finalize() override {
    std::printf("%-40s %14s %8s   peers, as multiples of our time", "group", "ns", "GB/s");
    std::string lastGroup;
    double ourTime = 0;
    for (const auto &[index, contender] : m_contenders) {
      const size_t slash = contender.name.rfind('/');
      const std::string group = contender.name.substr(0, slash);
      const std::string name = contender.name.substr(slash + 1);
      if (group != lastGroup) {
        std::printf("\n%-40s", group.c_str());
        ourTime = 0;
      }
      lastGroup = group;
      if (name == "zebcs") {
        ourTime = contender.time;
        std::printf(" %14.1f %8.2f  ", contender.time, contender.rate / 1e9);
      } else if (ourTime > 0) {
        std::printf(" %s %.2f", name.c_str(), contender.time / ourTime);
      } else {  // a filter left us out
        std::printf(" %s %.1f ns", name.c_str(), contender.time);
      }
    }
    std::printf("\n");
  }

 private:
  struct Contender {
    std::string name;  // with its group
    double time = HUGE_VAL;
    double rate = 0;
  };

  std::map<int64_t, Contender> m_contenders;  // in the order in which they were added, in which we come first
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  AddEncodingBenchmarks();
  AddXMLBenchmarks();
  AddXMLBufBenchmarks();
  AddNumberBenchmarks();
  AddINIBenchmarks();
  AddKeyValueBenchmarks();
  AddLogBenchmarks();
  AddListBenchmarks();
  AddRightsBenchmarks();
  AddDigestBenchmarks();
  AddFrameBenchmarks();
  GroupReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return 0;
}

// Runs the benchmarks and prints a line for each group of contenders.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
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
      const size_t slash = name.rfind('/');
      Contender &contender = Find(Find(m_groups, name.substr(0, slash)).contenders, name.substr(slash + 1));
      contender.time = std::min(contender.time, run.GetAdjustedCPUTime());
      const auto rate = run.counters.find("bytes_per_second");
      if (rate != run.counters.end()) contender.rate = std::max(contender.rate, rate->second.value);
    }
  }

  void Finalize() override {
    std::printf("%-40s %14s %8s   peers, as multiples of our time\n", "group", "ns", "GB/s");
    for (const Group &group : m_groups) {
      std::printf("%-40s", group.name.c_str());
      double ourTime = 0;  // a filter may have left us out
      for (const Contender &contender : group.contenders) {
        if (contender.name == "zebcs") {
          ourTime = contender.time;
          std::printf(" %14.1f %8.2f  ", contender.time, contender.rate / 1e9);
        } else if (ourTime > 0) {
          std::printf(" %s %.2f", contender.name.c_str(), contender.time / ourTime);
        } else {
          std::printf(" %s %.1f ns", contender.name.c_str(), contender.time);
        }
      }
      std::printf("\n");
    }
  }

 private:
  struct Contender {
    std::string name;
    double time = 1e99;
    double rate = 0;
  };
  struct Group {
    std::string name;
    std::vector<Contender> contenders;
  };

  template <class Named>
  static Named &Find(std::vector<Named> &list, const std::string &name) {
    for (Named &named : list) {
      if (named.name == name) return named;
    }
    Named &added = list.emplace_back();
    added.name = name;
    return added;
  }

  std::vector<Group> m_groups;
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  AddEncodingBenchmarks();
  AddXMLBenchmarks();
  AddDigestBenchmarks();
  AddFrameBenchmarks();
  GroupReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return 0;
}

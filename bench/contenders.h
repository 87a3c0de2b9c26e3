// A benchmark is named GROUP/CONTENDER, and the contenders of a group do the same work. The library's own is "zebcs".
#ifndef ZEBCS_BENCH_CONTENDERS_H
#define ZEBCS_BENCH_CONTENDERS_H

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

// Adds a contender whose `run` handles that many bytes.
template <class Run>
void AddContender(const std::string &name, size_t bytes, Run run) {
  benchmark::RegisterBenchmark(name.c_str(), [run, bytes](benchmark::State &state) {
    for (auto _ : state) run();
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
  });
}

// Each file adds its benchmarks, after comparing the answers of their contenders.
void AddEncodingBenchmarks();
void AddXMLBenchmarks();
void AddXMLBufBenchmarks();
void AddNumberBenchmarks();
void AddINIBenchmarks();
void AddKeyValueBenchmarks();
void AddListBenchmarks();
void AddLogBenchmarks();
void AddRightsBenchmarks();
void AddDigestBenchmarks();
void AddFrameBenchmarks();

#endif

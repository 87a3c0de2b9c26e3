// The file lock beside its two system calls, and appending beside std::string.
#include "zebcs/frame.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "compare.h"
#include "contenders.h"
#include "zebcs/unistr.h"

namespace {

constexpr char kNotAttached[] = "the library is not attached; run this inside the sandbox, as bench/run does";

void OurLock(benchmark::State &state) {
  if (FileLock(1) != 1) {
    state.SkipWithError(kNotAttached);
    return;
  }
  FileUnlock();
  for (auto _ : state) {
    benchmark::DoNotOptimize(FileLock(1));
    FileUnlock();
  }
}

void BareLock(benchmark::State &state) {
  const int fd = open("/opt/vorn/fleetops/var/lib/kelvestane/.zebipc", O_RDWR | O_CLOEXEC);
  if (fd == -1) {
    state.SkipWithError(kNotAttached);
    return;
  }
  for (auto _ : state) {
    struct flock record {};
    record.l_type = F_WRLCK;
    benchmark::DoNotOptimize(fcntl(fd, F_SETLK, &record));
    record.l_type = F_UNLCK;
    benchmark::DoNotOptimize(fcntl(fd, F_SETLKW, &record));
  }
  close(fd);
}

constexpr int kAppends = 1000;
constexpr char kPiece[] = "a piece of some length";
constexpr size_t kAppendedBytes = kAppends * (sizeof kPiece - 1);

KCSSSAStr OurAppended() {
  KCSSSAStr string{};
  KCSSSAStrAlloc(&string, 16);
  for (int i = 0; i < kAppends; ++i) KCSSSAStrCatAStr(&string, kPiece);
  return string;
}

std::string StdAppended() {
  std::string string;
  for (int i = 0; i < kAppends; ++i) string.append(static_cast<const char *>(kPiece));
  return string;
}

}  // namespace

void AddFrameBenchmarks() {
  benchmark::RegisterBenchmark("lock_and_unlock/zebcs", OurLock);
  benchmark::RegisterBenchmark("lock_and_unlock/bare", BareLock);

  KCSSSAStr ours = OurAppended();
  Require(ours.pStr != nullptr && StdAppended() == ours.pStr, "std::string differs on appends");
  KCSSSAStrFree(&ours);
  AddContender("append/zebcs", kAppendedBytes, [] {
    KCSSSAStr string = OurAppended();
    benchmark::DoNotOptimize(string.pStr);
    KCSSSAStrFree(&string);
  });
  AddContender("append/std_string", kAppendedBytes, [] { benchmark::DoNotOptimize(StdAppended()); });
}

// The file lock beside its two system calls, and appending beside std::string.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "compare.h"
#include "zebcs/frame.h"
#include "zebcs/unistr.h"

namespace {

void BareLock(benchmark::State &state) {
  const int fd = open("/opt/vorn/fleetops/var/lib/kelvestane/.zebipc", O_RDWR | O_CLOEXEC);
  Require(fd != -1, "the lock file cannot be opened");
  for (auto _ : state) {
    struct flock record {};
    record.l_type = F_WRLCK;
    fcntl(fd, F_SETLK, &record);
    record.l_type = F_UNLCK;
    fcntl(fd, F_SETLKW, &record);
  }
  close(fd);
}

void OurLock(benchmark::State &state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(FileLock(1));
    FileUnlock();
  }
}

constexpr int kAppends = 1000;
constexpr char kPiece[] = "a piece of some length";

void OurAppend(benchmark::State &state) {
  for (auto _ : state) {
    KCSSSAStr string{};
    KCSSSAStrAlloc(&string, 16);
    for (int i = 0; i < kAppends; ++i) KCSSSAStrCatAStr(&string, kPiece);
    benchmark::DoNotOptimize(string.pStr);
    KCSSSAStrFree(&string);
  }
}

void StdAppend(benchmark::State &state) {
  for (auto _ : state) {
    std::string string;
    for (int i = 0; i < kAppends; ++i) string.append(static_cast<const char *>(kPiece));
    benchmark::DoNotOptimize(string.data());
  }
}

}  // namespace

void AddFrameBenchmarks() {
  Require(FileLock(0) == 1, "the library is not attached: run this inside the sandbox, as bench/run does");
  FileUnlock();
  benchmark::RegisterBenchmark("lock/zebcs", OurLock);
  benchmark::RegisterBenchmark("lock/bare", BareLock);
  benchmark::RegisterBenchmark("append/zebcs", OurAppend);
  benchmark::RegisterBenchmark("append/std_string", StdAppend);
}

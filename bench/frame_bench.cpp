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

constexpr size_t kAppends = 1000;

// Neither contender may know how long the piece is: a compiler that sees it counts in advance.
const char *Hidden(const std::string &piece) {
  const char *text = piece.c_str();
  benchmark::DoNotOptimize(text);
  return text;
}

KCSSSAStr OurAppended(const std::string &piece) {
  KCSSSAStr string{};
  KCSSSAStrAlloc(&string, 16);
  for (size_t i = 0; i < kAppends; ++i) KCSSSAStrCatAStr(&string, Hidden(piece));
  return string;
}

std::string StdAppended(const std::string &piece) {
  std::string string;
  for (size_t i = 0; i < kAppends; ++i) string.append(Hidden(piece));
  return string;
}

void AddAppending(size_t size) {
  const std::string name = "append/" + std::to_string(size);
  const std::string piece(size, 'a');
  KCSSSAStr ours = OurAppended(piece);
  Require(ours.pStr != nullptr && StdAppended(piece) == ours.pStr, "std::string differs on " + name);
  KCSSSAStrFree(&ours);
  AddContender(name + "/zebcs", kAppends * size, [piece] {
    KCSSSAStr string = OurAppended(piece);
    benchmark::DoNotOptimize(string.pStr);
    KCSSSAStrFree(&string);
  });
  AddContender(name + "/std_string", kAppends * size, [piece] { benchmark::DoNotOptimize(StdAppended(piece)); });
}

}  // namespace

void AddFrameBenchmarks() {
  benchmark::RegisterBenchmark("lock_and_unlock/zebcs", OurLock);
  benchmark::RegisterBenchmark("lock_and_unlock/bare", BareLock);
  for (const size_t size : {3u, 22u, 200u}) AddAppending(size);
}

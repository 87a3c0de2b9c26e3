// Memory that runs out: this program's own malloc takes the place of the C library's, for the library under test and
// for the libraries that it calls as well, and makes the request that a test names fail.
//
// Only the requests of the thread that is in FailRequest count.
#ifndef ZEBCS_TESTS_SUPPORT_FAILING_MALLOC_H
#define ZEBCS_TESTS_SUPPORT_FAILING_MALLOC_H

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

enum class Failing {
  kOne,       // a request for memory, and those behind it succeed
  kAllBehind  // that one and all behind it
};

struct MemoryState {
  bool isCounting = false;
  int requests = 0;        // since counting began
  int failingRequest = 0;  // counted from 1; 0 for none
  Failing failing = Failing::kOne;
  long blocks = 0;                // given out and not returned, while counting
  unsigned char newBytes = 0xA5;  // what new blocks are full of, while counting
};

extern thread_local constinit MemoryState l_memory;

// Adds up the requests that the running test has let fail, for who wants to know how many that are.
inline void CountPoint() {
  static const ::testing::TestInfo *test = nullptr;
  static int points = 0;
  const ::testing::TestInfo *const running = ::testing::UnitTest::GetInstance()->current_test_info();
  points = running == test ? points + 1 : 1;
  test = running;
  ::testing::Test::RecordProperty("points", points);
}

// Runs `call` with its n-th request for memory failing. Returns whether there was an n-th request.
template <class Call>
bool FailRequest(int n, Call call, Failing failing = Failing::kOne) {
  l_memory.requests = 0;
  l_memory.failingRequest = n;
  l_memory.failing = failing;
  l_memory.isCounting = true;
  call();
  l_memory.isCounting = false;
  const bool failed = l_memory.requests >= n;
  if (failed) CountPoint();
  return failed;
}

// The descriptors that this process has open; the one that lists them is none of them.
inline std::set<std::string> OpenDescriptors() {
  std::set<std::string> descriptors;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    const std::filesystem::path target = std::filesystem::read_symlink(entry.path(), error);
    if (!error && target.string().find("/fd") == std::string::npos) descriptors.insert(entry.path().filename());
  }
  return descriptors;
}

// Runs `prepare` and `call` again and again, the first, second, ... request for memory of `call` failing, alone and
// together with those behind it, until it asks no more. After each, `check` is told whether a request failed, sees to
// it that the result is right, and returns how many blocks more or less than before there must be now. Returns how
// many requests there were.
template <class Prepare, class Call, class Check>
int WalkRequests(Prepare prepare, Call call, Check check) {
  int requests = 0;
  for (const Failing failing : {Failing::kOne, Failing::kAllBehind}) {
    bool failed = true;
    for (int n = 1; failed && !::testing::Test::HasFatalFailure(); ++n) {
      SCOPED_TRACE("request " + std::to_string(n) + (failing == Failing::kOne ? "" : " and those behind it"));
      prepare();
      const std::set<std::string> descriptors = OpenDescriptors();
      l_memory.blocks = 0;
      failed = FailRequest(n, call, failing);
      const long blocks = l_memory.blocks;
      EXPECT_EQ(OpenDescriptors(), descriptors);
      EXPECT_EQ(blocks, check(failed)) << "blocks kept";
      if (failed && failing == Failing::kOne) requests = n;
    }
  }
  return requests;
}

#endif

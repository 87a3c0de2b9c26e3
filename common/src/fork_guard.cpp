#include "fork_guard.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>

namespace {

constexpr size_t kCount = static_cast<size_t>(ForkOrder::kCount);

constinit std::array<std::atomic<std::mutex *>, kCount> l_mutexes{};
constinit std::array<std::mutex *, kCount> l_held{};  // by the thread that forks; the C library lets one fork at a time

void HoldAll() {
  for (size_t i = 0; i < kCount; ++i) {
    l_held[i] = l_mutexes[i];
    if (l_held[i] != nullptr) l_held[i]->lock();
  }
}

void ReleaseAll() {
  for (size_t i = kCount; i-- > 0;) {
    if (l_held[i] != nullptr) l_held[i]->unlock();
  }
}

[[maybe_unused]] const int l_atFork = pthread_atfork(HoldAll, ReleaseAll, ReleaseAll);

}  // namespace

bool KeepFreeInChildren(ForkOrder order, std::mutex *pMutex) {
  l_mutexes[static_cast<size_t>(order)] = pMutex;
  return true;
}

#include "file_lock.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <new>

#include "zebcs/frame.h"

namespace {

std::recursive_timed_mutex l_threads;         // held by the thread that has guards
std::atomic<bool> l_isHeldElsewhere = false;  // that thread waits for another process

// A child has no thread that could give the mutex back.
[[maybe_unused]] const int l_atFork = pthread_atfork(nullptr, nullptr, [] {
  new (&l_threads) std::recursive_timed_mutex;
  l_isHeldElsewhere = false;
});

// By the system's clock: the thread sanitizer does not see a mutex that is waited for by another.
bool EnterWithin(std::chrono::milliseconds time) {
  return l_threads.try_lock_until(std::chrono::system_clock::now() + time);
}

// Waits for the guards of other threads. A call that must not wait for other processes still waits for a thread that is
// at work, which takes no longer than the work.
bool EnterThreads(booln canBlock) {
  constexpr std::chrono::milliseconds kTimeout{60000};
  constexpr std::chrono::milliseconds kLook{1};
  if (canBlock == 1) return EnterWithin(kTimeout);
  while (!EnterWithin(kLook)) {
    if (l_isHeldElsewhere) return false;
  }
  return true;
}

bool TakeLock(booln canBlock) {
  if (FileLock(0) == 1) return true;
  if (canBlock != 1) return false;
  l_isHeldElsewhere = true;
  const bool isTaken = FileLock(1) == 1;
  l_isHeldElsewhere = false;
  return isTaken;
}

}  // namespace

FileLockGuard::FileLockGuard(booln canBlock) : m_isTaken(EnterThreads(canBlock)) {
  if (m_isTaken && !TakeLock(canBlock)) {
    l_threads.unlock();
    m_isTaken = false;
  }
}

FileLockGuard::~FileLockGuard() {
  if (!m_isTaken) return;
  FileUnlock();
  l_threads.unlock();
}

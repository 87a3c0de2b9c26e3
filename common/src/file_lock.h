// The process-wide file lock while an object lives.
#ifndef ZEBCS_SRC_FILE_LOCK_H
#define ZEBCS_SRC_FILE_LOCK_H

#include "zebcs/frame.h"

// The lock belongs to the process and does not count: a second guard in the same process would drop it for both.
class FileLockGuard {
 public:
  [[nodiscard]] explicit FileLockGuard(booln canBlock) : m_isTaken(FileLock(canBlock) == 1) {}
  FileLockGuard(const FileLockGuard &) = delete;
  FileLockGuard &operator=(const FileLockGuard &) = delete;
  ~FileLockGuard() {
    if (m_isTaken) FileUnlock();
  }

  explicit operator bool() const { return m_isTaken; }

 private:
  bool m_isTaken;
};

#endif

// The process-wide file lock while an object lives.
#ifndef ZEBCS_SRC_FILE_LOCK_H
#define ZEBCS_SRC_FILE_LOCK_H

#include "zebcs/types.h"

// The lock belongs to the process, and so does not keep its threads apart: guards do that among themselves. One thread
// may hold several. The lock does not count, so the first of them that goes drops it.
class FileLockGuard {
 public:
  [[nodiscard]] explicit FileLockGuard(booln canBlock);
  FileLockGuard(const FileLockGuard &) = delete;
  FileLockGuard &operator=(const FileLockGuard &) = delete;
  ~FileLockGuard();

  explicit operator bool() const { return m_isTaken; }

 private:
  bool m_isTaken;
};

#endif

// Owners: each resource of the library is held by one of these and released on every way out.
#ifndef ZEBCS_SRC_OWNERS_H
#define ZEBCS_SRC_OWNERS_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

struct FileCloser {
  void operator()(std::FILE *file) const { (void)std::fclose(file); }  // writers close by hand and look
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// A file descriptor; -1 for none.
class FdGuard {
 public:
  [[nodiscard]] explicit FdGuard(int fd = -1) : m_fd(fd) {}
  FdGuard(FdGuard &&other) noexcept : m_fd(other.release()) {}
  FdGuard &operator=(FdGuard &&other) noexcept {
    reset(other.release());
    return *this;
  }
  ~FdGuard() { reset(); }

  explicit operator bool() const { return m_fd != -1; }
  int get() const { return m_fd; }
  int release() { return std::exchange(m_fd, -1); }
  void reset(int fd = -1) {
    if (m_fd != -1) (void)close(m_fd);  // writers close by hand and look
    m_fd = fd;
  }

 private:
  int m_fd;
};

// Opens a file that stays open, for this program alone. In a process that was started with a standard stream closed, what
// is printed must not end up in the file, nor what is in the file be read as input. Nothing, and errno, on failure.
inline FdGuard OpenAboveStandardStreams(const char *path, int flags, mode_t mode = 0) {
  FdGuard file(open(path, flags | O_CLOEXEC, mode));
  if (!file || file.get() > STDERR_FILENO) return file;
  FdGuard above(fcntl(file.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  const int error = errno;
  file.reset();
  errno = error;
  return above;
}

inline bool IsRegularFile(int fd) {
  struct stat info = {};
  return fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

struct MallocDeleter {
  void operator()(void *block) const { std::free(block); }
};

// A block of the process heap, which is also the library's allocator: what a caller will free is filled in one of
// these and handed over by release().
template <class T>
using MallocPtr = std::unique_ptr<T, MallocDeleter>;

// Allocates `count` elements, not initialised. Null when memory ran out.
template <class T>
MallocPtr<T> MallocArray(std::size_t count) {
  if (count > SIZE_MAX / sizeof(T)) return nullptr;
  return MallocPtr<T>(static_cast<T *>(std::malloc(count * sizeof(T))));
}

// A new text in a block of `room` bytes or, if it is longer, of its own size. Null when memory ran out.
inline MallocPtr<char> NewText(std::string_view text, std::size_t room = 0) {
  MallocPtr<char> copy = MallocArray<char>(std::max(text.size() + 1, room));
  if (!copy) return nullptr;
  std::copy(text.begin(), text.end(), copy.get());
  copy.get()[text.size()] = 0;
  return copy;
}

#endif

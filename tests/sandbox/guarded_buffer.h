// Memory that ends, or begins, at a page nobody may touch: reading or writing one byte too many ends the process.
//
// The sanitizers see most such mistakes, but not the ones that a C library function or a system call makes for us.
#ifndef ZEBCS_TESTS_SANDBOX_GUARDED_BUFFER_H
#define ZEBCS_TESTS_SANDBOX_GUARDED_BUFFER_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sandbox {

enum class Guard { kAfter, kBefore };

// Pages are aligned for every type. With the guard after the bytes, their first address is aligned for a type exactly
// if the size is a multiple of that alignment, so a size of an odd number of bytes gives a misaligned pointer. A size
// of zero is allowed: no byte may be touched then. The bytes start out as kFill, so that a byte left alone shows.
class GuardedBuffer {
 public:
  static constexpr unsigned char kFill = 0xA5;

  [[nodiscard]] explicit GuardedBuffer(std::size_t size, Guard guard = Guard::kAfter) : m_size(size) {
    const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t usable = (size + page - 1) / page * page;
    m_mappedSize = usable + 2 * page;
    m_mapped = mmap(nullptr, m_mappedSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m_mapped == MAP_FAILED) Die("mmap");
    unsigned char *const first = static_cast<unsigned char *>(m_mapped) + page;
    if (usable > 0 && mprotect(first, usable, PROT_READ | PROT_WRITE) != 0) Die("mprotect");
    m_data = guard == Guard::kBefore ? first : first + (usable - size);
    Fill(kFill);
  }
  GuardedBuffer(const GuardedBuffer &) = delete;
  GuardedBuffer &operator=(const GuardedBuffer &) = delete;
  ~GuardedBuffer() { munmap(m_mapped, m_mappedSize); }

  template <typename T>
  T *data() const {
    return static_cast<T *>(m_data);
  }
  std::size_t size() const { return m_size; }  // in bytes

  void Fill(unsigned char byte) {
    if (m_size > 0) std::memset(m_data, byte, m_size);
  }

 private:
  [[noreturn]] static void Die(const char *call) {
    std::perror(call);
    std::abort();
  }

  std::size_t m_size;
  std::size_t m_mappedSize = 0;
  void *m_mapped = nullptr;
  void *m_data = nullptr;
};

}  // namespace sandbox

#endif

#include "failing_malloc.h"

#include <malloc.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *block);
}

thread_local constinit MemoryState l_memory;

namespace {

bool MustFail() {
  if (!l_memory.isCounting) return false;
  const int request = ++l_memory.requests;
  if (l_memory.failingRequest == 0 || request < l_memory.failingRequest) return false;
  if (request > l_memory.failingRequest && l_memory.failing == Failing::kOne) return false;
  errno = ENOMEM;
  return true;
}

void *Counted(void *block) {
  if (l_memory.isCounting && block != nullptr) ++l_memory.blocks;
  return block;
}

void *CountedAndFilled(void *block, size_t size) {
  if (l_memory.isCounting && block != nullptr) std::memset(block, l_memory.newBytes, size);
  return Counted(block);
}

}  // namespace

#pragma GCC visibility push(default)  // the library must find these
extern "C" {

void *malloc(size_t size) { return MustFail() ? nullptr : CountedAndFilled(__libc_malloc(size), size); }

void *calloc(size_t count, size_t size) { return MustFail() ? nullptr : Counted(__libc_calloc(count, size)); }

void *realloc(void *block, size_t size) {
  if (MustFail()) return nullptr;
  void *const grown = __libc_realloc(block, size);
  if (block == nullptr) return Counted(grown);
  if (l_memory.isCounting && size == 0 && grown == nullptr) --l_memory.blocks;
  return grown;
}

void *memalign(size_t alignment, size_t size) {
  return MustFail() ? nullptr : CountedAndFilled(__libc_memalign(alignment, size), size);
}

void *aligned_alloc(size_t alignment, size_t size) {
  return MustFail() ? nullptr : CountedAndFilled(__libc_memalign(alignment, size), size);
}

int posix_memalign(void **block, size_t alignment, size_t size) {
  if (MustFail()) return ENOMEM;
  *block = CountedAndFilled(__libc_memalign(alignment, size), size);
  return *block == nullptr ? ENOMEM : 0;
}

void free(void *block) {
  if (l_memory.isCounting && block != nullptr) --l_memory.blocks;
  __libc_free(block);
}

}  // extern "C"
#pragma GCC visibility pop

// Owners: each resource of the library is held by one of these and released on every way out.
#ifndef ZEBCS_SRC_OWNERS_H
#define ZEBCS_SRC_OWNERS_H

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>

struct FileCloser {
  void operator()(std::FILE *file) const { (void)std::fclose(file); }  // writers close by hand and look
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

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

#endif

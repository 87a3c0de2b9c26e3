// What tests of files need that several processes share: their state, the lock, mounts.
#ifndef ZEBCS_TESTS_SUPPORT_SHARED_FILE_H
#define ZEBCS_TESTS_SUPPORT_SHARED_FILE_H

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <new>
#include <string>
#include <system_error>
#include <utility>

#include "sandbox.h"
#include "zebcs/frame.h"

namespace sandbox {

// All that a directory holds: the files with their bytes.
using Files = std::map<std::string, std::string>;

inline Files FilesIn(const std::string &directory) {
  Files files;
  for (const auto &entry : std::filesystem::directory_iterator(directory)) {
    files[entry.path().filename()] = entry.is_regular_file() ? sandbox::ReadFile(entry.path()) : "(no file)";
  }
  return files;
}

// Type and permissions; 0 for a file that there is not.
inline mode_t ModeOf(const std::string &path) {
  struct stat info = {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode : 0;
}

inline bool Exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// What changes about a file when somebody touches it.
struct FileState {
  explicit FileState(const std::string &path) : content(sandbox::ReadFile(path)) {
    struct stat info = {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    inode = info.st_ino;
    mode = info.st_mode;
    modified = {info.st_mtim.tv_sec, info.st_mtim.tv_nsec};
    changed = {info.st_ctim.tv_sec, info.st_ctim.tv_nsec};
  }
  bool operator==(const FileState &) const = default;

  std::string content;
  ino_t inode = 0;
  mode_t mode = 0;
  std::pair<time_t, long> modified;
  std::pair<time_t, long> changed;
};

// Another process that has the lock while the object lives, or until it is told to release it.
class LockHolder {
 public:
  LockHolder() {
    m_isReady = m_process.Start([](Channel &channel) {
      channel.Put(FileLock(0) == 1 ? "held" : "failed");
      if (channel.Get() != "release") return 1;
      FileUnlock();
      channel.Put("released");
      return 0;
    }) && m_process.Receive() == "held";
  }
  explicit operator bool() const { return m_isReady; }

  void Release() {
    m_process.Send("release");
    EXPECT_EQ(m_process.Receive(), "released");
    EXPECT_EQ(m_process.Wait(), 0);
  }

 private:
  Process m_process{std::chrono::minutes(3)};
  bool m_isReady = false;
};

// Whether the lock is free, asked by another process.
inline bool LockIsFree() {
  Process other;
  return other.Start([](Channel &) { return FileLock(0); }) && other.Wait() == 1;
}

// A number that this process and those which it starts share, 0 at first.
inline std::atomic<int> &NewSharedNumber() {
  void *const memory =
      mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return *new (memory) std::atomic<int>(0);
}

// Something mounted while the object lives.
class Mount {
 public:
  Mount() = default;
  Mount(const Mount &) = delete;
  Mount &operator=(const Mount &) = delete;
  ~Mount() {
    if (m_path.empty()) return;
    EXPECT_EQ(umount2(m_path.c_str(), MNT_DETACH), 0) << std::strerror(errno);
  }

  bool SmallDisk(const std::string &path, const char *options) {
    return MountAt(path, mount("tmpfs", path.c_str(), "tmpfs", 0, options));
  }
  bool OverItself(const std::string &path) {
    return MountAt(path, mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr));
  }
  bool ReadOnly(const std::string &path) {
    constexpr unsigned long kFlags = MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NOSUID | MS_NODEV;
    return OverItself(path) && MountAt(path, mount(nullptr, path.c_str(), nullptr, kFlags, nullptr));
  }

 private:
  bool MountAt(const std::string &path, int result) {
    if (result == 0) {
      m_path = path;
    } else {
      ADD_FAILURE() << "mount at " << path << ": " << std::strerror(errno);
    }
    return result == 0;
  }

  std::string m_path;
};

inline const size_t kPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));

// Takes all room on a disk but this many pages.
inline bool FillDisk(const std::string &directory, size_t freePages) {
  std::error_code error;
  const std::uintmax_t room = std::filesystem::space(directory, error).available;
  if (error || room < freePages * kPage) return false;
  return WriteFile(directory + "/filler", std::string(room - freePages * kPage, 'f')) &&
         std::filesystem::space(directory, error).available == freePages * kPage;
}

}  // namespace sandbox

#endif

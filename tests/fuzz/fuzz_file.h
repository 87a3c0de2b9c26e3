// What the fuzzers of files have in common: a file that is rewritten in place, and a short way to say long texts.
#ifndef ZEBCS_TESTS_FUZZ_FUZZ_FILE_H
#define ZEBCS_TESTS_FUZZ_FUZZ_FILE_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <optional>
#include <span>

#include "fuzzer.h"
#include "sandbox.h"

inline constexpr mode_t kFuzzFileMode = 0644;

// A file in a directory of the run, which lies in memory.
class FuzzFile {
 public:
  explicit FuzzFile(std::string_view name) {
    static const sandbox::TemporaryDirectory directory;
    m_path = directory.Path(name);
  }

  const char *path() const { return m_path.c_str(); }

  // Nothing is no file.
  void Set(const std::optional<std::string> &content) const {
    if (!content) {
      FUZZ_CHECK(unlink(path()) == 0 || errno == ENOENT);
      return;
    }
    const int fd = open(path(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFuzzFileMode);
    FUZZ_CHECK(fd != -1);
    FUZZ_CHECK(fchmod(fd, kFuzzFileMode) == 0);
    FUZZ_CHECK(write(fd, content->data(), content->size()) == static_cast<ssize_t>(content->size()));
    FUZZ_CHECK(close(fd) == 0);
  }

  std::optional<std::string> Content() const {
    const int fd = open(path(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) return std::nullopt;
    struct stat information {};
    FUZZ_CHECK(fstat(fd, &information) == 0);
    std::string content(static_cast<size_t>(information.st_size), '\0');
    FUZZ_CHECK(read(fd, content.data(), content.size()) == information.st_size);
    FUZZ_CHECK(close(fd) == 0);
    return content;
  }

  // Its permissions; 0 where there is no file.
  mode_t Mode() const {
    struct stat information {};
    return stat(path(), &information) == 0 ? information.st_mode & 07777 : 0;
  }

 private:
  std::string m_path;
};

inline constexpr size_t kLongestFuzzText = 20000;  // two of the longest lines and some more

// The text that an input stands for, cut at its longest. Two bytes stand for more than themselves:
//   1 and two bytes of a number   the character before them, so many times more
//   2 and an index                a word of the fuzzer; from 128 on, the byte of that value less 128
inline std::string Expanded(std::string_view bytes, std::span<const std::string_view> words = {},
                            size_t longest = kLongestFuzzText) {
  constexpr char kRepeat = 1;
  constexpr char kWord = 2;
  constexpr size_t kLongestRun = 9000;
  constexpr size_t kMostEmptyLines = 16;  // more are slow, and the same
  FuzzInput input(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
  std::string text;
  while (!input.IsEmpty() && text.size() < longest) {
    const char c = input.Take<char>();
    if (c == kRepeat) {
      const char last = text.empty() ? 'x' : text.back();
      text.append(input.Take<uint16_t>() % (last == '\n' ? kMostEmptyLines : kLongestRun), last);
    } else if (c == kWord) {
      const size_t index = input.Take<uint8_t>();
      if (index >= 128) {
        text += static_cast<char>(index - 128);
      } else if (!words.empty()) {
        text += words[index % words.size()];
      }
    } else {
      text += c;
    }
  }
  text.resize(std::min(text.size(), longest));
  return text;
}

// Bytes in memory of exactly their size, so that a sanitizer sees a step behind them.
class ExactBytes {
 public:
  explicit ExactBytes(size_t size, char fill = '\xA5') : m_bytes(new char[size]), m_size(size) {
    std::fill_n(m_bytes.get(), size, fill);
  }
  explicit ExactBytes(std::string_view bytes) : ExactBytes(bytes.size()) {
    std::copy(bytes.begin(), bytes.end(), m_bytes.get());
  }

  template <class T>
  T *data() const {
    return static_cast<T *>(static_cast<void *>(m_bytes.get()));
  }
  std::string Text() const { return std::string(m_bytes.get(), m_size); }

 private:
  std::unique_ptr<char[]> m_bytes;
  size_t m_size;
};

#endif

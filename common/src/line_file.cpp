// Text files line by line, and their rewriting.
#include "line_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

using std::string_view;

FdGuard OpenFile(const char *path, int flags) {
  constexpr mode_t kNewFileMode = 0664;
  return FdGuard(open(path, flags | O_CLOEXEC | O_NONBLOCK, kNewFileMode));  // makes no difference to files
}

FdGuard OpenTemporary(const char *path) {
  constexpr int kNew = O_WRONLY | O_CREAT | O_EXCL;
  FdGuard file = OpenFile(path, kNew);
  if (file || errno != EEXIST) return file;
  file = OpenFile(path, O_WRONLY | O_NOFOLLOW);
  struct stat info = {};
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_nlink != 1) return FdGuard();
  // An account that it belongs to could go on writing to it, or has it open.
  if (info.st_uid != geteuid()) return unlink(path) == 0 ? OpenFile(path, kNew) : FdGuard();
  if (info.st_size != 0 && ftruncate(file.get(), 0) != 0) return FdGuard();
  return file;
}

bool CloseWritten(FdGuard &file) { return close(file.release()) == 0; }

std::optional<size_t> ReadAll(int fd, std::span<char> room) {
  size_t total = 0;
  while (total < room.size()) {
    const ssize_t count = read(fd, room.data() + total, room.size() - total);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    total += static_cast<size_t>(count);
  }
  return total;
}

size_t WriteTexts(int fd, std::span<const string_view> texts) {
  std::array<iovec, kMostTexts> room;
  std::span<iovec> parts = std::span(room).first(texts.size());
  for (size_t i = 0; i < texts.size(); ++i) {
    parts[i] = {.iov_base = const_cast<char *>(texts[i].data()), .iov_len = texts[i].size()};
  }
  size_t total = 0;
  while (!parts.empty()) {
    const ssize_t written = writev(fd, parts.data(), static_cast<int>(parts.size()));
    if (written < 0) {
      if (errno == EINTR) continue;
      break;
    }
    size_t left = static_cast<size_t>(written);
    total += left;
    for (; !parts.empty() && left >= parts.front().iov_len; parts = parts.subspan(1)) left -= parts.front().iov_len;
    if (!parts.empty()) {
      parts.front().iov_base = static_cast<char *>(parts.front().iov_base) + left;
      parts.front().iov_len -= left;
    }
  }
  return total;
}

size_t SizeOf(std::span<const string_view> texts) {
  size_t size = 0;
  for (const string_view text : texts) size += text.size();
  return size;
}

string_view LineFile::Next() {
  size_t searched = 0;
  for (;;) {
    const size_t length = std::min(m_end - m_position, kLongestLine);
    const void *const feed = std::memchr(At(m_position + searched), '\n', length - searched);
    if (feed != nullptr) return Pass(IndexOf(feed) + 1 - m_position);
    if (length == kLongestLine) return Pass(length);
    if (!Fill()) return m_readFailed || m_writeFailed ? string_view() : Pass(length);
    searched = length;
  }
}

string_view LineFile::NextHeader() {
  for (;;) {
    const void *const bracket = std::memchr(At(m_position), '[', m_end - m_position);
    if (bracket == nullptr) {
      m_position = LineStart(m_end);
      if (Fill()) continue;
      m_position = m_end;
      return {};
    }
    m_position = LineStart(IndexOf(bracket));
    const string_view line = Next();
    if (line.starts_with('[')) return line;
    const size_t first = line.find_first_not_of(" \t");
    if (first != string_view::npos && line[first] == '[') return line.substr(first);
  }
}

bool LineFile::CopyWithEdit(bool dropsLastLine, const std::array<string_view, 4> &edit) {
  const string_view before(At(m_copied), (dropsLastLine ? m_lineStart : m_position) - m_copied);
  const string_view after(At(m_position), m_end - m_position);
  if (!Copy(std::array{before, edit[0], edit[1], edit[2], edit[3], after})) return false;
  m_copied = m_position = m_end;
  while (Fill()) m_position = m_end;
  return !m_readFailed && !m_writeFailed;
}

bool LineFile::CopyPassed() {
  const string_view passed(At(m_copied), m_position - m_copied);
  m_copied = m_position;
  return m_copyTo == -1 || passed.empty() || Copy(std::array{passed});
}

// The start of the line that holds the byte at `index`, or would hold it. The position is the start of a line.
size_t LineFile::LineStart(size_t index) const {
  if (index > m_position && *At(index - 1) == '\n') return index;
  const void *const feed = memrchr(At(m_position), '\n', index - m_position);
  const size_t start = feed == nullptr ? m_position : IndexOf(feed) + 1;
  return start + (index - start) / kLongestLine * kLongestLine;
}

string_view LineFile::Pass(size_t length) {
  m_lineStart = m_position;
  m_position += length;
  return {At(m_lineStart), length};
}

bool LineFile::Copy(std::span<const string_view> texts) {
  if (WriteTexts(m_copyTo, texts) == SizeOf(texts)) return true;
  m_writeFailed = true;
  return false;
}

// Moves the window on, so that it begins at the position and holds more behind it. False at the end of the file and
// after a failure.
bool LineFile::Fill() {
  if (!CopyPassed()) return false;
  m_end -= m_position;
  std::memmove(m_window, At(m_position), m_end);
  m_position = m_copied = 0;
  if (std::exchange(m_mayBeEndless, false) && !IsRegularFile(m_in)) {
    m_readFailed = true;
    return false;
  }
  const bool isFirstRead = std::exchange(m_isFirstRead, false);
  const size_t room = isFirstRead ? kFirstRead : kWindow - m_end;
  ssize_t count = 0;
  do {
    count = read(m_in, m_window + m_end, room);
  } while (count < 0 && errno == EINTR);
  m_mayBeEndless = isFirstRead && count == ssize_t{kFirstRead};
  if (count < 0) m_readFailed = true;
  if (count > 0) m_end += static_cast<size_t>(count);
  return count > 0;
}

// Text files line by line, and their rewriting: what the stores of settings have in common.
#ifndef ZEBCS_SRC_LINE_FILE_H
#define ZEBCS_SRC_LINE_FILE_H

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

#include "owners.h"

// Opens a file for this program alone, not for those that it starts. A file that is made can be read by everybody; a
// pipe is not waited for.
FdGuard OpenFile(const char *path, int flags);

// Opens the temporary file that is to take a file's place, empty. Nothing where something else has its name: a link or
// a pipe there, or a file that has another name as well, is nobody's temporary file. One that another account has left
// is replaced by a new one, where that is allowed.
FdGuard OpenTemporary(const char *path);

// Closes a file that was written to, which can bring the news that something of it got lost.
bool CloseWritten(FdGuard &file);

// Reads until the room is full or the file ends. Returns the number of bytes; nothing if reading failed.
std::optional<size_t> ReadAll(int fd, std::span<char> room);

// Writes texts one after another, at most kMostTexts, in as few calls as the system takes. Returns the number of bytes
// written, which is less than there were exactly if writing failed.
constexpr size_t kMostTexts = 8;
size_t WriteTexts(int fd, std::span<const std::string_view> texts);
size_t SizeOf(std::span<const std::string_view> texts);

// A file read line by line through a window that moves over it, and copied where there is a place to copy it to. What
// has been passed in the window is copied, at the latest when the window moves on.
class LineFile {
 public:
  // A longer line is several lines: each piece is what a caller sees as one.
  static constexpr size_t kLongestLine = 8449;

  explicit LineFile(int in, int copyTo = -1) : m_in(in), m_copyTo(copyTo) {}

  // The next line with its line feed, if it has one; empty at the end of the file or after a failure. It stays valid
  // until the next call.
  std::string_view Next();

  // The next line whose first character after blanks is "[", from there on, passing over all others; empty as above.
  // Only lines that have a "[" are looked at.
  std::string_view NextHeader();

  // Steps back to the start of the line that was returned last.
  void StepBack() { m_position = m_lineStart; }

  // Copies all that has been passed, without the last line if the edit takes its place, then the edit and the rest.
  bool CopyWithEdit(bool dropsLastLine, const std::array<std::string_view, 4> &edit);

  // Copies all that has been passed and not been copied yet.
  bool CopyPassed();

  bool ReadFailed() const { return m_readFailed; }
  bool WriteFailed() const { return m_writeFailed; }

 private:
  static constexpr size_t kFirstRead = 4096;  // a small file, or the first keys of a large one, cost no more
  static constexpr size_t kWindow = 32768;
  static_assert(kWindow > 2 * kLongestLine);

  const char *At(size_t index) const { return m_window + index; }
  size_t IndexOf(const void *p) const { return static_cast<size_t>(static_cast<const char *>(p) - m_window); }
  size_t LineStart(size_t index) const;
  std::string_view Pass(size_t length);
  bool Copy(std::span<const std::string_view> texts);
  bool Fill();

  int m_in;
  int m_copyTo;
  bool m_isFirstRead = true;
  bool m_mayBeEndless = false;  // as a device is: nothing has shown the end, and nobody has looked at what it is
  bool m_readFailed = false;
  bool m_writeFailed = false;
  size_t m_lineStart = 0;  // of the line returned last
  size_t m_position = 0;   // behind it: the start of the next
  size_t m_end = 0;        // of what the window holds
  size_t m_copied = 0;     // up to here
  char m_window[kWindow];
};

#endif

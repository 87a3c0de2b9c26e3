#include "files.h"

#include <fcntl.h>
#include <unistd.h>

bool EndsWithItsLine(const std::string &path) {
  const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);  // a pipe is not waited for
  if (file == -1) return true;
  char last = '\n';
  const bool isRead = lseek(file, -1, SEEK_END) == -1 || read(file, &last, 1) != -1;
  close(file);
  return isRead && last == '\n';
}

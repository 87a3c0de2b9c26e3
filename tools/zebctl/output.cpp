#include "output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

int g_outputError = 0;  // of the first write that failed, as later calls change errno; 0 for none
bool g_hasErrorsFailed = false;

// The library opens its lock file while it is loaded, before main. If the program was started with a standard stream
// closed, that file got the stream's number, and what is printed would end up in it. A stream that was inherited
// never has the close-on-exec flag, and the library's file always has it.
bool IsInherited(int fd) {
  const int flags = fcntl(fd, F_GETFD);
  return flags != -1 && (flags & FD_CLOEXEC) == 0;
}

void NoteOutputError() {
  if (g_outputError == 0) g_outputError = errno;
}

}  // namespace

bool PrepareOutput() {
  std::signal(SIGPIPE, SIG_IGN);
  if (!IsInherited(STDERR_FILENO)) return false;
  if (IsInherited(STDOUT_FILENO)) return true;
  Complain("zebctl: Standard output is closed, so that there is nowhere to write the answer to.\n");
  return false;
}

void Print(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) NoteOutputError();
}

void Complain(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stderr) != text.size()) g_hasErrorsFailed = true;
}

bool FinishOutput() {
  if (std::fclose(stdout) != 0) NoteOutputError();  // the last bytes leave here
  if (g_outputError != 0) {
    Complain(std::string("zebctl: The output could not be written: ") + std::strerror(g_outputError) + ".\n");
  }
  return g_outputError == 0 && !g_hasErrorsFailed;
}

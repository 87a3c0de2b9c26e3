// A client that starts from nothing: what the library says to a process that has just loaded it.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "zebcs/zebcs.h"

namespace {

void Mark() {
  if (write(STDERR_FILENO, "MARK\n", 5) != 5) std::abort();
}

}  // namespace

int main(int argc, char **argv) {
  const std::string_view what = argc > 1 ? argv[1] : "";
  if (what == "name") {
    std::printf("%d\n", CreateIPCName(30000));
  } else if (what == "reread") {
    // The configuration is changed between two calls.
    std::printf("%d\n", CreateIPCName(30000));
    std::FILE *const file = std::fopen("/etc/zeb.conf", "w");
    if (file == nullptr) return 2;
    std::fputs("ipcnamebase=7\n", file);
    std::fclose(file);
    std::printf("%d\n", CreateIPCName(30000));
  } else if (what == "detached") {
    astring name[65];
    u32 size = sizeof name;
    u32 count = 0;
    std::printf("detach %d\n", ModuleDetach());
    std::printf("lock %d %d\n", FileLock(0), FileLock(1));
    FileUnlock();
    std::printf("host name %d\n", KCSGetIPHostName(name, &size));
    std::printf("addresses %s\n", KCSHostGetHostIPAddrList(&count) == nullptr ? "none" : "some");
    std::printf("attach %d\n", ModuleAttach());
  } else if (what == "locked-exit") {
    std::printf("%d\n", FileLock(0));  // and leaves with the lock held
  } else if (what == "standard-input") {
    std::printf("%s, lock %d\n", fcntl(STDIN_FILENO, F_GETFD) == -1 ? "closed" : "open", FileLock(0));
  } else if (what == "lock") {
    Mark();
    if (FileLock(1) != 1) return 3;
    FileUnlock();
    Mark();
  } else {
    return 2;
  }
  return 0;
}

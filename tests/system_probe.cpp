// Stands in for a program of the system: writes down how it was started, then does what its caller wants.
//
// Appended to the file $STAND_IN_REPORT: a line "run" and each argument in a line; the numbers of the descriptors that
// it was started with, in one line, go to $STAND_IN_REPORT.descriptors. Then $STAND_IN_DOES, a word and a number:
//   exit CODE   ends with that code
//   talk CODE   says a line on standard output, another on error output, and ends with that code
//   await FD    reads this descriptor until its other side is closed, then ends with 0
//   kill PID    ends by SIGKILL, and the shell that started it, if that is not this process
#include <dirent.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

namespace {

std::set<int> Descriptors() {
  std::set<int> descriptors;
  DIR *const folder = opendir("/proc/self/fd");
  if (folder == nullptr) std::abort();
  while (const dirent *const entry = readdir(folder)) {
    if (entry->d_name[0] != '.') descriptors.insert(std::atoi(entry->d_name));
  }
  descriptors.erase(dirfd(folder));
  closedir(folder);
  return descriptors;
}

void Append(const std::string &path, const std::string &text) {
  std::FILE *const file = std::fopen(path.c_str(), "ae");
  if (file == nullptr || std::fputs(text.c_str(), file) < 0 || std::fclose(file) != 0) std::abort();
}

}  // namespace

int main(int argc, char **argv) {
  const std::set<int> descriptors = Descriptors();
  const char *const report = std::getenv("STAND_IN_REPORT");
  const char *const task = std::getenv("STAND_IN_DOES");
  if (report == nullptr || task == nullptr) return 99;
  std::string arguments = "run\n";
  for (int i = 0; i < argc; ++i) arguments.append(argv[i]).append("\n");
  Append(report, arguments);
  std::string numbers;
  for (const int fd : descriptors) numbers.append(std::to_string(fd)).append(" ");
  Append(std::string(report) + ".descriptors", numbers + '\n');

  char word[16];
  int number = 0;
  if (std::sscanf(task, "%15s %d", word, &number) != 2) return 98;
  const std::string what = word;
  if (what == "exit") return number;
  if (what == "talk") {
    std::fputs("said on standard output\n", stdout);
    std::fputs("said on error output\n", stderr);
    return number;
  }
  if (what == "await") {
    char byte;
    while (read(number, &byte, 1) > 0) continue;
    return 0;
  }
  if (what == "kill") {
    if (getppid() != number) kill(getppid(), SIGKILL);
    std::raise(SIGKILL);
  }
  return 97;
}

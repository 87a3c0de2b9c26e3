#include "program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <sstream>

#include "sandbox.h"

namespace {

// Reads both pipes until the program has closed them, so that neither can fill up and hold it.
void ReadBoth(std::array<int, 2> fds, std::array<std::string *, 2> texts) {
  std::array<pollfd, 2> polled{{{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}}};
  for (int open = 2; open > 0;) {
    if (poll(polled.data(), polled.size(), -1) < 0) return;
    for (size_t i = 0; i < polled.size(); ++i) {
      if (polled[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t count = read(polled[i].fd, buffer, sizeof buffer);
      if (count > 0) {
        texts[i]->append(buffer, static_cast<size_t>(count));
      } else {
        close(polled[i].fd);
        polled[i].fd = -1;
        --open;
      }
    }
  }
}

}  // namespace

ProgramResult RunProgram(const std::vector<std::string> &arguments) {
  ProgramResult result;
  std::array<int, 2> output{};
  std::array<int, 2> errors{};
  if (pipe2(output.data(), O_CLOEXEC) != 0 || pipe2(errors.data(), O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe2: " << std::strerror(errno);
    return result;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
  std::vector<char *> argv;
  for (const std::string &argument : arguments) argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(output[1]);
  close(errors[1]);
  if (error != 0) {
    ADD_FAILURE() << argv[0] << ": " << std::strerror(error);
    close(output[0]);
    close(errors[0]);
    return result;
  }
  ReadBoth({output[0], errors[0]}, {&result.output, &result.errors});
  int status = 0;
  if (waitpid(pid, &status, 0) == pid) {
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return result;
}

std::vector<std::string> SystemCallsBetweenMarks(const std::string &strace, const std::vector<std::string> &arguments) {
  const sandbox::TemporaryDirectory directory;
  const std::string tracePath = directory.Path("trace");
  // A leak check traces its own process, which a traced one cannot do.
  std::vector<std::string> traced{strace, "-qq", "-o", tracePath, "-E", "ASAN_OPTIONS=detect_leaks=0"};
  traced.insert(traced.end(), arguments.begin(), arguments.end());
  const ProgramResult result = RunProgram(traced);
  EXPECT_EQ(result.status, 0) << result.errors;
  const std::string trace = sandbox::ReadFile(tracePath);
  std::vector<std::string> calls;
  int marks = 0;
  std::istringstream lines(trace);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("write(2, \"MARK\\n\"")) {
      ++marks;
    } else if (marks == 1) {
      calls.push_back(line);
    }
  }
  EXPECT_EQ(marks, 2) << trace;
  return calls;
}

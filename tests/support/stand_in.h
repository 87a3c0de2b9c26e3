// Stand-ins for programs of the system, and a system that starts no program and no thread.
#ifndef ZEBCS_TESTS_SUPPORT_STAND_IN_H
#define ZEBCS_TESTS_SUPPORT_STAND_IN_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox.h"

namespace sandbox {

using Lines = std::vector<std::string>;

// What the stand-ins are to do, and what they have written down: see system_probe.cpp. It goes by the environment,
// which a stand-in has from the process under test.
class StandIns {
 public:
  StandIns() {
    setenv("STAND_IN_REPORT", m_report.c_str(), 1);
    Do("exit 0");
  }

  void Do(const std::string &task) { setenv("STAND_IN_DOES", task.c_str(), 1); }

  // Puts a stand-in at a path where nothing may be yet.
  bool PutAt(const std::string &path) const {
    if (symlink(ZEBCS_SYSTEM_PROBE, path.c_str()) == 0) return true;
    ADD_FAILURE() << path << ": " << std::strerror(errno);
    return false;
  }

  // The argument lists of those that ran since the last question; each begins with a line "run".
  Lines TakeArguments() { return Take(m_report); }

  // The descriptors of the one that ran since the last question.
  std::set<int> TakeDescriptors() {
    const Lines lines = Take(m_report + ".descriptors");
    EXPECT_EQ(lines.size(), 1u) << "runs";
    std::set<int> descriptors;
    std::istringstream numbers(lines.empty() ? "" : lines[0]);
    for (int fd = 0; numbers >> fd;) descriptors.insert(fd);
    return descriptors;
  }

 private:
  static Lines Take(const std::string &path) {
    Lines lines;
    if (access(path.c_str(), F_OK) != 0) return lines;
    std::istringstream text(ReadFile(path));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    RemoveTree(path);
    return lines;
  }

  const TemporaryDirectory m_directory;
  const std::string m_report = m_directory.Path("report");
};

// From here on the system refuses this process any other process and thread, as it does where there are too many. The
// number of processes could not be limited for the superuser. For use in a Process: the leak check needs a thread.
inline bool RefuseProcessesAndThreads() {
  constexpr unsigned kRefuse = SECCOMP_RET_ERRNO | EAGAIN;
  constexpr auto load = [](std::size_t offset) {
    return sock_filter{.code = BPF_LD | BPF_W | BPF_ABS, .jt = 0, .jf = 0, .k = static_cast<__u32>(offset)};
  };
  constexpr auto skipUnless = [](__u32 value, __u8 count) {
    return sock_filter{.code = BPF_JMP | BPF_JEQ | BPF_K, .jt = 0, .jf = count, .k = value};
  };
  constexpr auto answer = [](__u32 result) {
    return sock_filter{.code = BPF_RET | BPF_K, .jt = 0, .jf = 0, .k = result};
  };
  std::array filter = {load(offsetof(seccomp_data, arch)),
                       skipUnless(AUDIT_ARCH_X86_64, 9),
                       load(offsetof(seccomp_data, nr)),
                       skipUnless(SYS_clone, 1),
                       answer(kRefuse),
                       skipUnless(SYS_clone3, 1),
                       answer(kRefuse),
                       skipUnless(SYS_fork, 1),
                       answer(kRefuse),
                       skipUnless(SYS_vfork, 1),
                       answer(kRefuse),
                       answer(SECCOMP_RET_ALLOW)};
  const sock_fprog program = {.len = filter.size(), .filter = filter.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace sandbox

#endif

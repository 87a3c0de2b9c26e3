#include "tracer.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

namespace {

using Registers = user_regs_struct;

class MemoryFile {
 public:
  MemoryFile() : m_fd(memfd_create("output", MFD_CLOEXEC)) {}
  MemoryFile(const MemoryFile &) = delete;
  MemoryFile &operator=(const MemoryFile &) = delete;
  ~MemoryFile() { close(m_fd); }

  int fd() const { return m_fd; }
  std::string Text() const {
    std::string text(static_cast<size_t>(lseek(m_fd, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(m_fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
  }

 private:
  int m_fd;
};

long CallOf(const Registers &registers) { return static_cast<long>(registers.orig_rax); }

bool IsMark(const Registers &registers) {
  return CallOf(registers) == SYS_write && registers.rdi == STDERR_FILENO && registers.rdx == std::strlen("MARK\n");
}

// One process on its way from one stop to the next.
class Tracee {
 public:
  Tracee(pid_t pid, const SpoiltCall &spoilt, TracedProgram &program)
      : m_pid(pid), m_spoilt(spoilt), m_program(program) {}

  // Runs it to its end. False when it cannot be traced.
  bool Run() {
    int status = 0;
    if (waitpid(m_pid, &status, 0) != m_pid) return false;  // it has become the program
    if (WIFSTOPPED(status) &&
        ptrace(PTRACE_SETOPTIONS, m_pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0) {
      return false;
    }
    long signal = 0;
    while (WIFSTOPPED(status)) {
      // Behind the second mark nothing is looked at.
      if (ptrace(m_program.marks < 2 ? PTRACE_SYSCALL : PTRACE_CONT, m_pid, nullptr, signal) != 0 && errno != ESRCH) {
        return false;
      }
      if (waitpid(m_pid, &status, 0) != m_pid) return false;
      const bool isCall = WIFSTOPPED(status) && WSTOPSIG(status) == (SIGTRAP | 0x80);
      signal = isCall || !WIFSTOPPED(status) ? 0 : WSTOPSIG(status);
      if (isCall && !PassCall()) return false;
    }
    m_program.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
  }

 private:
  bool PassCall() {
    Registers registers;
    if (ptrace(PTRACE_GETREGS, m_pid, nullptr, &registers) != 0) return errno == ESRCH;  // killed at the moment
    m_isInside = !m_isInside;
    return m_isInside ? Enter(registers) : Leave(registers);
  }

  bool Enter(Registers registers) {
    if (IsMark(registers)) {
      ++m_program.marks;
      return true;
    }
    if (m_program.marks != 1) return true;
    const size_t position = m_program.calls.size();
    m_program.calls.push_back({CallOf(registers), BytesOf(registers)});
    if (m_spoilt.how == Spoiling::kNone || position != m_spoilt.call) return true;
    m_before = registers;
    m_isSpoilt = true;
    switch (m_spoilt.how) {
      case Spoiling::kDeath: return kill(m_pid, SIGKILL) == 0;
      case Spoiling::kShortened:
      case Spoiling::kTorn: return Shorten(registers);
      default:
        if (CallOf(registers) == SYS_close) return true;
        registers.orig_rax = ~0ULL;  // no call
        return Set(registers);
    }
  }

  bool Leave(Registers registers) {
    if (!m_isSpoilt) return true;
    m_isSpoilt = false;
    if (m_spoilt.how == Spoiling::kTorn) return kill(m_pid, SIGKILL) == 0;
    // The program's compiler counts on what a system call leaves alone.
    const unsigned long long result = registers.rax;
    const unsigned long long next = registers.rip;
    registers = m_before;
    registers.rip = next;
    registers.rax = m_spoilt.how == Spoiling::kError ? -static_cast<unsigned long long>(m_spoilt.error) : result;
    registers.orig_rax = ~0ULL;  // nothing to make again
    return Set(registers);
  }

  // The bytes that the call asks for, if it is one that may move fewer.
  uint64_t BytesOf(const Registers &registers) {
    switch (CallOf(registers)) {
      case SYS_read:
      case SYS_write:
      case SYS_pread64:
      case SYS_pwrite64: return registers.rdx;
      case SYS_copy_file_range: return registers.r8;
      case SYS_writev:
      case SYS_pwritev: {
        uint64_t total = 0;
        for (const iovec &part : PartsOf(registers)) total += part.iov_len;
        return total;
      }
      default: return 0;
    }
  }

  bool Shorten(Registers registers) {
    switch (CallOf(registers)) {
      case SYS_copy_file_range: registers.r8 = m_spoilt.bytes; break;
      case SYS_writev:
      case SYS_pwritev:
        // Becomes a write of the first part that holds a byte, and of no more than that.
        for (const iovec &part : PartsOf(registers)) {
          if (part.iov_len == 0) continue;
          registers.orig_rax = CallOf(registers) == SYS_writev ? SYS_write : SYS_pwrite64;
          registers.rsi = reinterpret_cast<uint64_t>(part.iov_base);
          registers.rdx = std::min<uint64_t>(m_spoilt.bytes, part.iov_len);
          break;
        }
        break;
      default: registers.rdx = m_spoilt.bytes;
    }
    return Set(registers);
  }

  std::vector<iovec> PartsOf(const Registers &registers) {
    std::vector<iovec> parts(registers.rdx);
    iovec local{parts.data(), parts.size() * sizeof(iovec)};
    iovec remote{reinterpret_cast<void *>(registers.rsi), local.iov_len};
    EXPECT_EQ(process_vm_readv(m_pid, &local, 1, &remote, 1, 0), static_cast<ssize_t>(local.iov_len));
    return parts;
  }

  bool Set(const Registers &registers) { return ptrace(PTRACE_SETREGS, m_pid, nullptr, &registers) == 0; }

  pid_t m_pid;
  const SpoiltCall &m_spoilt;
  TracedProgram &m_program;
  Registers m_before{};  // the call that is being spoilt
  bool m_isInside = false;
  bool m_isSpoilt = false;
};

[[noreturn]] void Become(const std::vector<std::string> &arguments, int output, int errors) {
  std::vector<char *> argv;
  for (const std::string &argument : arguments) argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);
  // A leak check traces its own process, which a traced one cannot do.
  if (setenv("ASAN_OPTIONS", "detect_leaks=0", 1) == 0 && dup2(output, STDOUT_FILENO) != -1 &&
      dup2(errors, STDERR_FILENO) != -1 && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0) {
    execv(argv[0], argv.data());
  }
  _exit(127);
}

}  // namespace

TracedProgram RunTraced(const std::vector<std::string> &arguments, const SpoiltCall &spoilt) {
  const MemoryFile output;
  const MemoryFile errors;
  TracedProgram program;
  const pid_t pid = fork();
  if (pid == 0) Become(arguments, output.fd(), errors.fd());
  if (pid == -1 || !Tracee(pid, spoilt, program).Run()) {
    ADD_FAILURE() << arguments[0] << " cannot be traced: " << std::strerror(errno);
    if (pid != -1 && kill(pid, SIGKILL) == 0) (void)waitpid(pid, nullptr, 0);
  }
  program.output = output.Text();
  program.errors = errors.Text();
  return program;
}

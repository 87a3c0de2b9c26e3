#include "fault_points.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>

#include "zebcs/frame.h"

namespace {

// The errors that a call of the operations can end with.
struct CallErrors {
  const char *name;
  std::vector<int> errors;
};
const std::map<long, CallErrors> kErrors = {
    {SYS_openat, {"openat", {EACCES, EMFILE}}},
    {SYS_read, {"read", {EIO, EINTR}}},
    {SYS_write, {"write", {ENOSPC, EINTR}}},
    {SYS_writev, {"writev", {ENOSPC, EINTR}}},
    {SYS_pread64, {"pread64", {EIO, EINTR}}},
    {SYS_pwrite64, {"pwrite64", {ENOSPC, EINTR}}},
    {SYS_pwritev, {"pwritev", {ENOSPC, EINTR}}},
    {SYS_copy_file_range, {"copy_file_range", {EIO, EXDEV}}},
    {SYS_lseek, {"lseek", {EINVAL}}},
    {SYS_ftruncate, {"ftruncate", {EIO, EINTR}}},
    {SYS_rename, {"rename", {EIO}}},
    {SYS_unlink, {"unlink", {EACCES}}},
    {SYS_mkdir, {"mkdir", {EACCES}}},
    {SYS_chmod, {"chmod", {EPERM}}},
    {SYS_fchmod, {"fchmod", {EPERM}}},
    {SYS_fstat, {"fstat", {EIO}}},
    {SYS_newfstatat, {"newfstatat", {EACCES}}},
    {SYS_access, {"access", {EACCES}}},
    {SYS_fcntl, {"fcntl", {EINTR, ENOLCK}}},
    {SYS_close, {"close", {EIO, EINTR}}},
    {SYS_socket, {"socket", {EMFILE, EAFNOSUPPORT}}},
    {SYS_connect, {"connect", {ECONNREFUSED, EINTR}}},
    {SYS_bind, {"bind", {EADDRINUSE}}},
    {SYS_getsockname, {"getsockname", {ENOBUFS}}},
    {SYS_sendto, {"sendto", {ENOBUFS, EINTR}}},
    {SYS_recvmsg, {"recvmsg", {ENOMEM, EINTR}}},
    {SYS_uname, {"uname", {EFAULT}}},
    {SYS_ioctl, {"ioctl", {ENOTTY}}},
    {SYS_readlink, {"readlink", {EACCES}}},
    {SYS_getrandom, {"getrandom", {EINTR}}},
    {SYS_dup, {"dup", {EMFILE}}},
    {SYS_statfs, {"statfs", {EIO}}},
    {SYS_prctl, {"prctl", {EPERM}}},
    {SYS_poll, {"poll", {EINTR}}},
    {SYS_recvfrom, {"recvfrom", {ENOBUFS, EINTR}}},
    {SYS_mmap, {"mmap", {ENOMEM}}},
};

// Calls that cannot fail, or whose failing means nothing.
const std::set<long> kUnfailing = {SYS_getpid,  SYS_gettid,      SYS_getuid,       SYS_geteuid,        SYS_getgid,
                                   SYS_getegid, SYS_brk,         SYS_munmap,       SYS_mprotect,       SYS_madvise,
                                   SYS_futex,   SYS_sched_yield, SYS_rt_sigaction, SYS_rt_sigprocmask, SYS_sigaltstack,
                                   SYS_umask,   SYS_getppid,     SYS_nanosleep,    SYS_clock_nanosleep};

}  // namespace

std::set<uint64_t> PartsOf(const TracedCall &call) {
  if (call.bytes <= 1) return {};
  return {1, call.bytes / 2, call.bytes - 1};
}

std::vector<FaultPoint> FailuresOf(const std::vector<TracedCall> &calls) {
  std::vector<FaultPoint> points;
  for (size_t i = 0; i < calls.size(); ++i) {
    const TracedCall &call = calls[i];
#ifdef ZEBCS_SANITIZED
    if (call.number == SYS_mmap) continue;  // a sanitizer without memory ends the program
    if (call.number == SYS_pipe2) {         // through which one writes memory to see whether it is there
      i += 3;
      continue;
    }
#endif
    if (kUnfailing.contains(call.number)) continue;
    const auto known = kErrors.find(call.number);
    if (known == kErrors.end()) {
      ADD_FAILURE() << "system call " << call.number << " is not known";
      continue;
    }
    const std::string name = known->second.name + (" at " + std::to_string(i));
    for (const int error : known->second.errors) {
      points.push_back(
          {{.how = Spoiling::kError, .call = i, .error = error}, call.number, name + ": " + strerrorname_np(error)});
    }
    for (const uint64_t bytes : PartsOf(call)) {
      points.push_back({{.how = Spoiling::kShortened, .call = i, .bytes = bytes},
                        call.number,
                        name + ": " + std::to_string(bytes) + " of " + std::to_string(call.bytes) + " bytes"});
    }
  }
  return points;
}

ProbeAnswers AnswersOf(const TracedProgram &program) {
  ProbeAnswers answers;
  std::istringstream(program.output) >> answers.first >> answers.opened >> answers.second;
  return answers;
}

void ExpectFileLockIsFree() {
  EXPECT_EQ(FileLock(0), 1);
  FileUnlock();
}

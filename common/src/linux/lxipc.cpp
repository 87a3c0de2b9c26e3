// Inter-process and in-process mutual exclusion: the IPC lock file, mutexes and System V semaphores.
#include "zebcs/ipc.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "owners.h"

namespace {

constexpr char kConfigurationFile[] = "/etc/zeb.conf";
constexpr mode_t kLockFileMode = 0664;
constexpr int kDefaultNameBase = 100000;
constexpr int kNameBaseUnread = -1;

// Process-wide state, set up while the library attaches; no lock protects it.
int l_ipc_name_base = kNameBaseUnread;
int l_ipc_fd = -1;
char l_ipc_filename[47] = "/opt/vorn/fleetops/var/lib/kelvestane//.zebipc";

void *HandleOf(int id) { return reinterpret_cast<void *>(static_cast<intptr_t>(id)); }
int IdOf(const void *handle) { return static_cast<int>(reinterpret_cast<intptr_t>(handle)); }

void SleepOneMillisecond() {
  constexpr timespec kPause{.tv_sec = 0, .tv_nsec = 1000 * 1000};
  (void)nanosleep(&kPause, nullptr);  // a signal only makes the next attempt come earlier
}

enum class Attempt { kDone, kRetry, kHopeless };

// The time-out rule of every timed wait: one attempt, then up to `retries` more, each after a pause. `tryOnce` tells
// what came of an attempt; a hopeless one ends the wait only while attempts are left, so that a wait whose last
// attempt fails has always timed out.
template <class TryOnce>
s32 Poll(u32 retries, TryOnce tryOnce) {
  for (u32 retry = 0;; ++retry) {
    const Attempt attempt = tryOnce();
    if (attempt == Attempt::kDone) return 0;
    if (retry == retries) return ZEBCS_WAIT_TIMED_OUT;
    if (attempt == Attempt::kHopeless) return -1;
    SleepOneMillisecond();
  }
}

// Opens the configuration, if there is one. A pipe is not waited for, and a device may have no end.
FilePtr OpenConfiguration() {
  FdGuard file(open(kConfigurationFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file || !IsRegularFile(file.get())) return nullptr;
  FilePtr stream(fdopen(file.get(), "r"));
  if (stream) (void)file.release();  // now the stream's
  return stream;
}

// Kept: every lock covers the whole file, whatever its offset or mutex name; all global mutexes are one lock.
struct flock WholeFile(short type) {
  struct flock record {};
  record.l_type = type;
  record.l_whence = SEEK_SET;
  return record;
}

// A file that is open read-only refuses a write lock with EBADF; a read lock is then the best there is. Returns false
// when the lock was a read lock already.
bool WeakenToReadLock(struct flock &record) {
  if (record.l_type == F_RDLCK) return false;
  record.l_type = F_RDLCK;
  return true;
}

// The last argument of semctl, which no system header declares.
union SemaphoreArgument {
  int val;
  semid_ds *buf;
};

int SetSemaphore(int id, int value) { return semctl(id, 0, SETVAL, SemaphoreArgument{.val = value}); }

int SemaphoreOperation(int id, short delta, short flags) {
  sembuf operation{.sem_num = 0, .sem_op = delta, .sem_flg = flags};
  return semop(id, &operation, 1);
}

constexpr int kSemaphorePermissions = 0666;
constexpr int kNewSemaphore = IPC_CREAT | IPC_EXCL | kSemaphorePermissions;

}  // namespace

int CreateIPCName(int name_user) {
  if (l_ipc_name_base == kNameBaseUnread) {
    l_ipc_name_base = kDefaultNameBase;
    if (const FilePtr file = OpenConfiguration()) {
      char line[256];  // a longer line is read as several
      int base = 0;
      while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        if (std::sscanf(line, " ipcnamebase=%d", &base) == 1) {
          l_ipc_name_base = base;
          break;
        }
      }
    }
  }
  // Summed without sign: any base that can be configured gives a number, if a wrapped one.
  return static_cast<int>(static_cast<u32>(l_ipc_name_base) + static_cast<u32>(name_user));
}

s32 OpenIPCFile(void) {
  if (l_ipc_fd != -1) return 0;
  FdGuard file = OpenAboveStandardStreams(l_ipc_filename, O_RDWR | O_CREAT, kLockFileMode);
  if (!file && errno == EACCES) file = OpenAboveStandardStreams(l_ipc_filename, O_RDONLY);
  l_ipc_fd = file.release();
  return l_ipc_fd == -1 ? -1 : 0;
}

s32 CloseIPCFile(void) {
  if (l_ipc_fd != -1) {
    (void)close(l_ipc_fd);  // nothing was written through it
    l_ipc_fd = -1;
  }
  return 0;
}

s32 LockIPCFileRecord(off_t /*offset*/, u32 timeout_msecs) {
  struct flock record = WholeFile(F_WRLCK);
  if (timeout_msecs == ZEBCS_WAIT_FOREVER) {
    while (fcntl(l_ipc_fd, F_SETLKW, &record) == -1) {
      if (errno == EINTR) continue;
      if (errno != EBADF || !WeakenToReadLock(record)) return -1;
    }
    return 0;
  }
  return Poll(timeout_msecs, [&record] {
    if (fcntl(l_ipc_fd, F_SETLK, &record) != -1) return Attempt::kDone;
    if (errno != EBADF) return Attempt::kRetry;
    // Kept: a read-only file becomes a read lock at the first retry, so a single attempt on one always times out.
    return WeakenToReadLock(record) ? Attempt::kRetry : Attempt::kHopeless;
  });
}

s32 UnlockIPCFileRecord(off_t /*offset*/) {
  struct flock record = WholeFile(F_UNLCK);
  while (fcntl(l_ipc_fd, F_SETLKW, &record) == -1) {
    if (errno != EINTR) return -1;
  }
  return 0;
}

void *CreateLocalMutex(void) {
  MallocPtr<pthread_mutex_t> mutex = MallocArray<pthread_mutex_t>(1);
  if (!mutex || pthread_mutex_init(mutex.get(), nullptr) != 0) return nullptr;
  return mutex.release();
}

void DestroyLocalMutex(void *hMutex) {
  if (hMutex == nullptr) return;
  (void)pthread_mutex_destroy(static_cast<pthread_mutex_t *>(hMutex));  // fails only for a mutex in use
  std::free(hMutex);
}

s32 WaitForLocalMutex(void *hMutex, u32 timeout_msecs) {
  if (hMutex == nullptr) return -1;
  auto *const mutex = static_cast<pthread_mutex_t *>(hMutex);
  if (timeout_msecs == ZEBCS_WAIT_FOREVER) return pthread_mutex_lock(mutex) == 0 ? 0 : -1;
  return Poll(timeout_msecs, [mutex] { return pthread_mutex_trylock(mutex) == 0 ? Attempt::kDone : Attempt::kRetry; });
}

s32 ReleaseLocalMutex(void *hMutex) {
  if (hMutex == nullptr) return -1;
  return pthread_mutex_unlock(static_cast<pthread_mutex_t *>(hMutex)) == 0 ? 0 : -1;
}

void *CreateGlobalMutex(int mutexName) {
  if (mutexName == 0 || OpenIPCFile() != 0) return nullptr;
  return HandleOf(mutexName);
}

void *OpenGlobalMutex(int mutexName) { return CreateGlobalMutex(mutexName); }

void DestroyGlobalMutex(void * /*hMutex*/) {}

s32 WaitForGlobalMutex(void *hMutex, u32 timeout_msecs) {
  if (hMutex == nullptr) return -1;
  return LockIPCFileRecord(reinterpret_cast<intptr_t>(hMutex), timeout_msecs);
}

s32 ReleaseGlobalMutex(void *hMutex) {
  if (hMutex == nullptr) return -1;
  return UnlockIPCFileRecord(reinterpret_cast<intptr_t>(hMutex));
}

void *OpenSemaphore(int semName) {
  const int id = semget(semName, 0, kSemaphorePermissions);
  return id == -1 ? nullptr : HandleOf(id);
}

void *CreateSemaphore(int semName, int initialVal) {
  const int id = semget(semName, 1, kNewSemaphore);
  if (id == -1) return errno == EEXIST ? OpenSemaphore(semName) : nullptr;
  if (id == 0) {
    // The identifier 0 reads as "none". A stand-in takes it while the semaphore is made once more.
    (void)semctl(0, 0, IPC_RMID);  // the set was made a moment ago
    const int standIn = semget(IPC_PRIVATE, 1, kNewSemaphore);
    void *const semaphore = CreateSemaphore(semName, initialVal);
    if (standIn != -1) (void)semctl(standIn, 0, IPC_RMID);  // nobody else knows it
    return semaphore;
  }
  (void)SetSemaphore(id, initialVal);  // a value out of range leaves the new semaphore at 0
  return HandleOf(id);
}

void DestroySemaphore(void *hSem) {
  if (hSem != nullptr) (void)semctl(IdOf(hSem), 0, IPC_RMID);  // a stale handle has nothing to remove
}

s32 WaitForSemaphore(void *hSem, u32 timeout_msecs) {
  if (hSem == nullptr) return -1;
  if (timeout_msecs == ZEBCS_WAIT_FOREVER) {
    while (SemaphoreOperation(IdOf(hSem), -1, 0) == -1) {
      if (errno != EINTR) return -1;
    }
    return 0;
  }
  return Poll(timeout_msecs, [hSem] {
    return SemaphoreOperation(IdOf(hSem), -1, IPC_NOWAIT) == 0 ? Attempt::kDone : Attempt::kRetry;
  });
}

s32 ReleaseSemaphore(void *hSem) {
  if (hSem == nullptr) return -1;
  while (SemaphoreOperation(IdOf(hSem), 1, IPC_NOWAIT) == -1) {
    if (errno != EINTR) return -1;
  }
  return 0;
}

s32 ResetSemaphore(void *hSem) {
  if (hSem == nullptr) return -1;
  (void)SetSemaphore(IdOf(hSem), 0);  // Kept: a set that is gone is reset all the same, not reported as -1.
  return 0;
}

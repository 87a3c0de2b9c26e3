// Local mutexes by their handle, for a unit that takes one in every call: the calls of ipc.h without their way round.
#ifndef ZEBCS_SRC_LXIPC_H
#define ZEBCS_SRC_LXIPC_H

#include <pthread.h>

// Takes a local mutex, waiting without limit. NULL is ignored.
inline void LockLocalMutex(void *hMutex) {
  if (hMutex != nullptr) (void)pthread_mutex_lock(static_cast<pthread_mutex_t *>(hMutex));  // cannot fail
}

// Releases a local mutex that this thread holds. NULL is ignored.
inline void UnlockLocalMutex(void *hMutex) {
  if (hMutex != nullptr) (void)pthread_mutex_unlock(static_cast<pthread_mutex_t *>(hMutex));  // cannot fail
}

#endif

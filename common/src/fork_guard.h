// What a process made by fork finds free, although other threads of its parent are at work.
#ifndef ZEBCS_SRC_FORK_GUARD_H
#define ZEBCS_SRC_FORK_GUARD_H

#include <mutex>

// The mutexes, in the order in which they are taken.
enum class ForkOrder { kRoleMapLoad, kRoleMapTables, kInstallPath, kTimeZone, kSystemLog, kCount };

// Has whoever forks wait until nobody holds the mutex, which must never be held for longer than a piece of work; null
// ends that. Returns true.
bool KeepFreeInChildren(ForkOrder order, std::mutex *pMutex);

#endif

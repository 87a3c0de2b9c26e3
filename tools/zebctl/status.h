// The library's statuses, for people.
#ifndef ZEBCTL_STATUS_H
#define ZEBCTL_STATUS_H

#include <string>

#include "zebcs/types.h"

// The name of a status, such as "SM_STATUS_KEY_NOT_FOUND"; NULL for one that has none, such as -1.
const char *NameOfStatus(s32 status);

// A status for a message, such as "SM_STATUS_KEY_NOT_FOUND (263)" or "status -1".
std::string StatusText(s32 status);

// Whether the library has attached. If not, it works without the lock that its files are read and written under.
bool IsAttached();

// Why it has not, and what to do about it.
inline constexpr char kNotAttached[] =
    "The library is not attached, as its lock file /opt/vorn/fleetops/var/lib/kelvestane/.zebipc cannot be opened. The "
    "directory must be there, and this account must be allowed to open the file.";

#endif

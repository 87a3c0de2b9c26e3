// Who and where this process is: rights by its ids, account, domain.
#include <grp.h>
#include <unistd.h>

#include <cstring>
#include <type_traits>

#include "accounts.h"
#include "owners.h"
#include "zebcs/auth.h"
#include "zebcs/system.h"

u32 OSGetProcessRights(void) {
  if (geteuid() != 0) return getegid() == 0 ? ZEBCS_RIGHTS_POWER_USER : ZEBCS_RIGHTS_USER;
  return getuid() == 0 ? ZEBCS_RIGHTS_SUPERUSER : ZEBCS_RIGHTS_ADMINISTRATOR;
}

astring *OSGetProcessUser(void) {
  const Account account(getuid());
  return account && account.name() != nullptr ? strdup(account.name()) : nullptr;
}

astring *OSGetComputerDomainName(void) {
  constexpr size_t kSize = 150;
  MallocPtr<astring> name = MallocArray<astring>(kSize);
  if (!name) return nullptr;
  std::memset(name.get(), 0, kSize);
  if (getdomainname(name.get(), kSize - 1) != 0) return nullptr;
  // Kept: six characters are compared, so a domain that only begins like the kernel's word for none is none too.
  if (std::strncmp(name.get(), "(none)", 6) == 0) return nullptr;
  return name.release();
}

s32 OSGetType(void) {
  constexpr s32 kLinux = 2;
  return kLinux;
}

void *OSDomainList(void) { return nullptr; }

s32 isuserroot(const astring *username) {
  if (username == nullptr) return -1;
  const Account account(username);
  return account && account.uid() == 0 ? 0 : -1;
}

s32 getugroups(s32 maxcount, u32 *grouplist, const astring *username) {
  static_assert(std::is_same_v<gid_t, u32>);
  if (username == nullptr) return 0;
  const bool stores = maxcount > 0 && grouplist != nullptr;
  s32 count = 0;
  setgrent();
  while (const group *const entry = getgrent()) {
    char **member = entry->gr_mem;
    while (*member != nullptr && std::strcmp(*member, username) != 0) ++member;
    if (*member == nullptr) continue;
    if (stores && count == maxcount) break;
    if (stores) grouplist[count] = entry->gr_gid;
    ++count;
  }
  endgrent();
  return count;
}

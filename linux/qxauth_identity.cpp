#include "qxauth_identity.h"

#include <unistd.h>

#include <cstring>

#include "owners.h"

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

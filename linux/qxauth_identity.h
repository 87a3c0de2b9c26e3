// The low face of the authentication unit: who and where this process is.
#ifndef ZEBCS_LINUX_QXAUTH_IDENTITY_H
#define ZEBCS_LINUX_QXAUTH_IDENTITY_H

#include "zebcs/types.h"

// Returns the machine's domain name as new text from the library's allocator; NULL when none is set or memory ran
// out. A domain name set to the empty text comes back as such.
astring *OSGetComputerDomainName(void);

#endif

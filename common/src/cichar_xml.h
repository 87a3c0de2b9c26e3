// Escaping for XML into new memory, for the units that hand such text out.
#ifndef ZEBCS_SRC_CICHAR_XML_H
#define ZEBCS_SRC_CICHAR_XML_H

#include "owners.h"
#include "zebcs/types.h"

// Escape a text `passes` times, 0 counting as 1, or until a pass finds nothing more to escape. Null when the text is
// NULL or not valid, and when memory ran out: the status tells them apart.
MallocPtr<astring> EscapedXML(const astring *pStr, u32 passes, s32 *pStatus = nullptr);
MallocPtr<astring> EscapedXML(const ustring *pStr, u32 passes, s32 *pStatus = nullptr);

#endif

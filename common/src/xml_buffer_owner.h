// The owner of an XML buffer whose text nobody takes over.
#ifndef ZEBCS_SRC_XML_BUFFER_OWNER_H
#define ZEBCS_SRC_XML_BUFFER_OWNER_H

#include <memory>

#include "zebcs/xmlbuf.h"

struct XMLBufferDeleter {
  void operator()(KCSSSAStr *buffer) const { (void)KCXFreeBuf(buffer, 0); }  // has nothing to hand over
};
using XMLBufferPtr = std::unique_ptr<KCSSSAStr, XMLBufferDeleter>;

#endif

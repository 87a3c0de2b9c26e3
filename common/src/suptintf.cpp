// Product settings and the services built on them. Here: text escaped for XML as new memory of the caller's.
#include <cstring>

#include "owners.h"
#include "zebcs/encoding.h"

astring *SUPTIntfGetXMLUTF8StrFromAStr(const astring *pStr, u32 passes) {
  if (pStr == nullptr) return nullptr;
  MallocPtr<astring> text;
  for (u32 pass = 0;; ++pass) {
    const astring *const source = pass == 0 ? pStr : text.get();
    u32 size = 0;
    if (UTF8StrToXMLUTF8Str(nullptr, &size, nullptr, source) != SM_STATUS_SUCCESS) return nullptr;
    MallocPtr<astring> escaped = MallocArray<astring>(size);
    booln wasConverted = 0;
    if (!escaped || UTF8StrToXMLUTF8Str(escaped.get(), &size, &wasConverted, source) != SM_STATUS_SUCCESS) {
      return nullptr;
    }
    text = std::move(escaped);
    if (wasConverted == 0 || pass + 1 >= passes) return text.release();
  }
}

astring *SUPTIntfGetXMLUTF8StrFromUStr(const ustring *pStr, u32 passes) {
  if (pStr == nullptr) return nullptr;
  u32 size = 0;
  if (UCS2StrToUTF8Str(nullptr, &size, pStr) != SM_STATUS_SUCCESS) return nullptr;
  const MallocPtr<astring> narrow = MallocArray<astring>(size);
  if (!narrow || UCS2StrToUTF8Str(narrow.get(), &size, pStr) != SM_STATUS_SUCCESS) return nullptr;
  return SUPTIntfGetXMLUTF8StrFromAStr(narrow.get(), passes);
}

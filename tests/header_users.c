/* C code as callers write it, for a strict C compiler to read. */
#include <zebcs/zebcs.h>

s32 ConvertAndFree(const astring *pText);

s32 ConvertAndFree(const astring *pText) {
  u32 size = 0;
  s32 status = KCSUTF8StrToUCS2Str(NULL, &size, pText);
  ustring *wide = NULL;
  KCSSSAStr text = {0};
  if (status != SM_STATUS_SUCCESS) {
    return status;
  }
  wide = KCSAllocMem(size);
  if (wide == NULL) {
    return SM_STATUS_NO_MEMORY;
  }
  status = KCSUTF8StrToUCS2Str(wide, &size, pText);
  if (status == SM_STATUS_SUCCESS && KCSSSAStrAlloc(&text, 16) != NULL) {
    (void)KCSSSAStrCatUStr(&text, wide);
    KCSSSAStrFree(&text);
  }
  KCSFreeMem(wide);
  return status;
}

/* Sends a text through UTF-16 and back. */
#include <stdio.h>
#include <zebcs/zebcs.h>

int main(void) {
  ustring wide[32];
  u32 size = 32;
  KCSSSAStr text = {0};
  if (KCSUTF8StrToUCS2Str(wide, &size, "caf\xC3\xA9") != SM_STATUS_SUCCESS) return 1;
  if (KCSSSAStrAlloc(&text, 16) == NULL || KCSSSAStrCatUStr(&text, wide) == NULL) return 1;
  puts(text.pStr);
  KCSSSAStrFree(&text);
  return 0;
}

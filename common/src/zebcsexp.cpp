// The exported interface: each KCS function passes its arguments to the function that does the work, in the order of
// the public headers. Functions with a mind of their own live in their modules.
#include "zebcs/zebcs.h"

extern "C" {

// Frame

void *KCSAllocContextLock(void) { return AllocContextLock(); }
void KCSFreeContextLock(void *pCL) { FreeContextLock(pCL); }
void KCSLockContext(void *pCL) { LockContext(pCL); }
void KCSUnLockContext(void *pCL) { UnLockContext(pCL); }
void KCSGetExportContext(KCSECInfo *pECI) { GetExportContext(pECI); }
void KCSSetExportContext(KCSECInfo *pPrevECI, KCSECInfo *pCurrECI) { SetExportContext(pPrevECI, pCurrECI); }
void KCSResetExportContext(KCSECInfo *pCurrECI) { ResetExportContext(pCurrECI); }
s32 KCSEnableLongFileNames(void) { return EnableLongFileNames(); }
s32 KCSDisableLongFileNames(void) { return DisableLongFileNames(); }

// 16-bit strings and self-sizing strings

u32 KCSUniStrlen(const ustring *pStr) { return UniStrlen(pStr); }
ustring *KCSUniStrcpy(ustring *pDest, const ustring *pSrc) { return UniStrcpy(pDest, pSrc); }
ustring *KCSUniStrcat(ustring *pDest, const ustring *pSrc) { return UniStrcat(pDest, pSrc); }
ustring *KCSUniStrncpy(ustring *pDest, const ustring *pSrc, u32 count) { return UniStrncpy(pDest, pSrc, count); }
ustring *KCSUniStrncat(ustring *pDest, const ustring *pSrc, u32 count) { return UniStrncat(pDest, pSrc, count); }
s32 KCSUniStrcmp(const ustring *pStr1, const ustring *pStr2) { return UniStrcmp(pStr1, pStr2); }
ustring *KCSUniStrchr(const ustring *pStr, s32 ch) { return UniStrchr(pStr, ch); }
ustring *KCSUniStrstr(const ustring *pStr, const ustring *pFind) { return UniStrstr(pStr, pFind); }
u32 KCSUniStrspn(const ustring *pStr, const ustring *pSet) { return UniStrspn(pStr, pSet); }
u32 KCSUniStrcspn(const ustring *pStr, const ustring *pSet) { return UniStrcspn(pStr, pSet); }
ustring *KCSUniStrtok(ustring *pStr, const ustring *pDelims) { return UniStrtok(pStr, pDelims); }
ustring *KCSUniStrset(ustring *pStr, s32 ch) { return UniStrset(pStr, ch); }
ustring *KCSUniStrnset(ustring *pStr, s32 ch, u32 count) { return UniStrnset(pStr, ch, count); }
ustring *KCSUniStrrev(ustring *pStr) { return UniStrrev(pStr); }
s32 KCSAStrnicmp(const astring *pStr1, const astring *pStr2, u32 count) { return AStrnicmp(pStr1, pStr2, count); }
ustring *KCSSSUStrAlloc(KCSSSUStr *pSSU, u32 size) { return SSUStrAlloc(pSSU, size); }
astring *KCSSSAStrAlloc(KCSSSAStr *pSSA, u32 size) { return SSAStrAlloc(pSSA, size); }
ustring *KCSSSUStrCatUStr(KCSSSUStr *pSSU, const ustring *pStr) { return SSUStrCatUStr(pSSU, pStr); }
ustring *KCSSSUStrCatAStr(KCSSSUStr *pSSU, const astring *pStr) { return SSUStrCatAStr(pSSU, pStr); }
astring *KCSSSAStrCatAStr(KCSSSAStr *pSSA, const astring *pStr) { return SSAStrCatAStr(pSSA, pStr); }
astring *KCSSSAStrCatUStr(KCSSSAStr *pSSA, const ustring *pStr) { return SSAStrCatUStr(pSSA, pStr); }
void KCSSSUStrFree(KCSSSUStr *pSSU) { SSUStrFree(pSSU); }
void KCSSSAStrFree(KCSSSAStr *pSSA) { SSAStrFree(pSSA); }

// Encodings

s32 KCSGetLocalLanguageID(void) { return GetLocalLanguageID(); }
s32 KCSUCS2StrToUTF8Str(astring *pDest, u32 *pDestSize, const ustring *pSrc) {
  return UCS2StrToUTF8Str(pDest, pDestSize, pSrc);
}
s32 KCSUCS4StrToUTF8Str(astring *pDest, u32 *pDestSize, const u32 *pSrc) {
  return UCS4StrToUTF8Str(pDest, pDestSize, pSrc);
}
s32 KCSUTF8StrToUCS2Str(ustring *pDest, u32 *pDestSize, const astring *pSrc) {
  return UTF8StrToUCS2Str(pDest, pDestSize, pSrc);
}
s32 KCSUTF8StrToXMLUTF8Str(astring *pDest, u32 *pDestSize, booln *pWasConverted, const astring *pSrc) {
  return UTF8StrToXMLUTF8Str(pDest, pDestSize, pWasConverted, pSrc);
}
// Kept: the exported "local" and "ASCII" encodings are UTF-8, whatever the locale.
s32 KCSLocalToUnicode(ustring *pDest, u32 *pDestSize, const astring *pSrc) {
  return UTF8StrToUCS2Str(pDest, pDestSize, pSrc);
}
s32 KCSASCIIToUnicode(ustring *pDest, u32 *pDestSize, const astring *pSrc) {
  return UTF8StrToUCS2Str(pDest, pDestSize, pSrc);
}
s32 KCSUnicodeToLocal(astring *pDest, u32 *pDestSize, const ustring *pSrc) {
  return UCS2StrToUTF8Str(pDest, pDestSize, pSrc);
}
s32 KCSUnicodeToASCII(astring *pDest, u32 *pDestSize, const ustring *pSrc) {
  return UCS2StrToUTF8Str(pDest, pDestSize, pSrc);
}
s32 KCSUnicodeToEscape(astring *pDest, u32 *pDestSize, const ustring *pSrc) {
  return UnicodeToEscape(pDest, pDestSize, pSrc);
}
s32 KCSBufToUStr(KCSSSUStr *pSSU, const void *pBuf, u32 bufSize, u32 printAddrStart, const s32 *pLid) {
  return BufToUStr(pSSU, pBuf, bufSize, printAddrStart, pLid);
}
astring *KCSGetXMLUTF8StrFromAStr(const astring *pStr, u32 passes) {
  return SUPTIntfGetXMLUTF8StrFromAStr(pStr, passes);
}
astring *KCSGetXMLUTF8StrFromUStr(const ustring *pStr, u32 passes) {
  return SUPTIntfGetXMLUTF8StrFromUStr(pStr, passes);
}

// Network and digests

s32 KCSGetIPHostName(astring *pName, u32 *pSize) { return GetIPHostName(pName, pSize); }
s32 KCSUniGetIPHostName(ustring *pName, u32 *pSize) { return UniGetIPHostName(pName, pSize); }
s32 KCSGetIPAddrStrList(const astring *pHostName, u32 *pCount, KCSIPAddrStr *pList) {
  return GetIPAddrStrList(pHostName, pCount, pList);
}
s32 KCSGetDNSSuffixNameName(astring *pName, u32 *pSize) { return GetDNSSuffixName(pName, pSize); }
s32 KCSIPAddrASCIIToNetwork(const astring *pText, u8 *pAddr, u32 *pSize) {
  return IPAddrASCIIToNetwork(pText, pAddr, pSize);
}
s32 KCSIPAddrNetworkToASCII(const u8 *pAddr, u32 addrSize, astring *pText, u32 *pSize) {
  return IPAddrNetworkToASCII(pAddr, addrSize, pText, pSize);
}
s32 KCSCheckIPEqual(const astring *pAddr1, const astring *pAddr2) { return CheckIPEqual(pAddr1, pAddr2); }
KCSIPAddrStr *KCSHostGetHostIPAddrList(u32 *pCount) { return SUPTIntfHostGetHostIPAddrList(pCount); }
astring *KCSGetHostNameAStr(void) { return SUPTIntfGetHostNameAStr(); }
s32 KCSIsIPv6(const astring *pText) { return IsIPv6(pText); }
s32 KCSIsIPv4(const astring *pText) { return IsIPv4(pText); }
s32 KCSIsLinkLocal(const astring *pText) { return IsLinkLocal(pText); }
Proto_Type KCSGetSockType(void) { return GetSockType(); }
const astring *KCSGetLoopBack(void) { return GetLoopBack(); }
void KCSMD5Hash(const astring *pText, u8 *pDigest) { MD5Hash(pText, pDigest); }
void KCSSHA256Hash(const astring *pText, u8 *pDigest) { SHA256Hash(pText, pDigest); }
void KCSMD5HashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt) {
  MD5HashForPasswdSalt(pPasswd, pDigest, pSalt);
}
void KCSSHA256HashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt) {
  SHA256HashForPasswdSalt(pPasswd, pDigest, pSalt);
}
void KCSEVPHashForPasswdSalt(const astring *pPasswd, u8 *pDigest, const astring *pSalt) {
  EVPHashForPasswdSalt(pPasswd, pDigest, pSalt);
}

}  // extern "C"

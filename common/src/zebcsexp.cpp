// The exported interface: each KCS function passes its arguments to the function that does the work, in the order of
// the public headers. Functions with a mind of their own live in their modules.
#include "zebcs/zebcs.h"

#include "export_context.h"

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

// Numbers, booleans, times and validators

s32 KCSASCIIToSigned32(const astring *pStr) { return ASCIIToSigned32(pStr); }
u32 KCSASCIIToUnSigned32(const astring *pStr) { return ASCIIToUnSigned32(pStr); }
s64 KCSASCIIToSigned64(const astring *pStr) { return ASCIIToSigned64(pStr); }
u64 KCSASCIIToUnSigned64(const astring *pStr) { return ASCIIToUnSigned64(pStr); }
d64 KCSASCIIToDouble(const astring *pStr) { return ASCIIToDouble(pStr); }
booln KCSASCIIToBooln(const astring *pStr) { return ASCIIToBooln(pStr); }
void KCSSigned32ToASCII(astring *pDest, s32 value) { Signed32ToASCII(pDest, value); }
void KCSUnSigned32ToASCII(astring *pDest, u32 value) { UnSigned32ToASCII(pDest, value); }
void KCSSigned64ToASCII(astring *pDest, s64 value) { Signed64ToASCII(pDest, value); }
void KCSUnSigned64ToASCII(astring *pDest, u64 value) { UnSigned64ToASCII(pDest, value); }
void KCSBoolnToASCII(astring *pDest, booln value) { BoolnToASCII(pDest, value); }
void KCSDoubleToASCII(astring *pDest, d64 value) { DoubleToASCII(pDest, value); }
void KCSDSTFix(time_t *pTimer) { DSTFix(pTimer); }
s32 KCSTimeToAStr(astring *pDest, const time_t *pTimer) { return TimeToAStr(pDest, pTimer); }
s32 KCSUniToSigned32(const ustring *pStr) { return UniToSigned32(pStr); }
u32 KCSUniToUnSigned32(const ustring *pStr) { return UniToUnSigned32(pStr); }
s64 KCSUniToSigned64(const ustring *pStr) { return UniToSigned64(pStr); }
u64 KCSUniToUnSigned64(const ustring *pStr) { return UniToUnSigned64(pStr); }
d64 KCSUniToDouble(const ustring *pStr) { return UniToDouble(pStr); }
s32 KCSUniSigned32ToStr(ustring *pDest, u32 *pDestSize, s32 value, s32 radix) {
  return UniSigned32ToStr(pDest, pDestSize, value, radix);
}
s32 KCSUniUnSigned32ToStr(ustring *pDest, u32 *pDestSize, u32 value, s32 radix) {
  return UniUnSigned32ToStr(pDest, pDestSize, value, radix);
}
s32 KCSUniDoubleToStr(ustring *pDest, u32 *pDestSize, d64 value, s32 precision) {
  return UniDoubleToStr(pDest, pDestSize, value, precision);
}
s32 KCSUniTimeToStr(ustring *pDest, u32 *pDestSize, const time_t *pTimer) {
  return UniTimeToStr(pDest, pDestSize, pTimer);
}
s32 KCSIsASCIIIntNum(const astring *pStr, booln checkSignP) { return IsASCIIIntNum(pStr, checkSignP); }
s32 KCSIsASCIIHexNum(const astring *pStr, booln inLowCapsP) { return IsASCIIHexNum(pStr, inLowCapsP); }
s32 KCSIsASCIIOctalNum(const astring *pStr) { return IsASCIIOctalNum(pStr); }
s32 KCSIsASCIIAlpha(const astring *pStr) { return IsASCIIAlpha(pStr); }
s32 KCSIsASCIIAlphaNumeric(const astring *pStr) { return IsASCIIAlphaNumeric(pStr); }
s32 KCSIsASCIIAlphaNumericPlus(const astring *pStr, const astring *pXtraValidChars) {
  return IsASCIIAlphaNumericPlus(pStr, pXtraValidChars);
}
s32 KCSASCIIToSigned32VT(const astring *pStr, s32 radix, s32 *pStatus) {
  return ASCIIToSigned32VT(pStr, radix, pStatus);
}
u32 KCSASCIIToUnSigned32VT(const astring *pStr, s32 radix, s32 *pStatus) {
  return ASCIIToUnSigned32VT(pStr, radix, pStatus);
}
s64 KCSASCIIToSigned64VT(const astring *pStr, s32 radix, s32 *pStatus) {
  return ASCIIToSigned64VT(pStr, radix, pStatus);
}
u64 KCSASCIIToUnSigned64VT(const astring *pStr, s32 radix, s32 *pStatus) {
  return ASCIIToUnSigned64VT(pStr, radix, pStatus);
}
booln KCSASCIIToBoolnV(const astring *pStr, s32 *pStatus) { return ASCIIToBoolnV(pStr, pStatus); }
s32 KCSASCIIReplaceSubstr(const astring *pSrc, const astring *pFind, const astring *pReplace, u32 *pDestSize,
                          astring *pDest) {
  return ASCIIReplaceSubstr(pSrc, pFind, pReplace, pDestSize, pDest);
}
s32 KCSValidateHostName(const astring *pStr) { return ValidateHostName(pStr); }

// Parameter lists

astring *KCSGetAStrParamName(astring *pEntry) { return GetAStrParamName(pEntry); }
ustring *KCSGetUStrParamName(ustring *pEntry) { return GetUStrParamName(pEntry); }
astring *KCSGetAStrParamValue(const astring *pEntry) { return GetAStrParamValue(pEntry); }
ustring *KCSGetUStrParamValue(const ustring *pEntry) { return GetUStrParamValue(pEntry); }
s32 KCSGetParamIndexByAStrName(s32 numNVPair, astring *const *ppNVPair, const astring *pName, booln ignoreCase) {
  return GetParamIndexByAStrName(numNVPair, ppNVPair, pName, ignoreCase);
}
s32 KCSGetParamIndexByUStrName(s32 numNVPair, ustring *const *ppNVPair, const ustring *pName, booln ignoreCase) {
  return GetParamIndexByUStrName(numNVPair, ppNVPair, pName, ignoreCase);
}
astring *KCSGetAStrParamValueByAStrName(s32 numNVPair, astring *const *ppNVPair, const astring *pName,
                                        booln ignoreCase) {
  return GetAStrParamValueByAStrName(numNVPair, ppNVPair, pName, ignoreCase);
}
ustring *KCSGetUStrParamValueByUStrName(s32 numNVPair, ustring *const *ppNVPair, const ustring *pName,
                                        booln ignoreCase) {
  return GetUStrParamValueByUStrName(numNVPair, ppNVPair, pName, ignoreCase);
}
booln KCSIsValidParam(const astring *pEntry) { return IsValidParam(pEntry); }
booln KCSIsValidUParam(const ustring *pEntry) { return IsValidUParam(pEntry); }
void KCSRemoveDQuotesInStrArr(s32 argc, astring **argv) { RemoveDQuotesInStrArr(argc, argv); }
void KCSAppendDNode(const astring *pDAXML, const astring *pNewNode, astring **ppFinalDAXML) {
  AppendNode(pDAXML, pNewNode, ppFinalDAXML);
}

// XML buffer

KCSSSAStr *KCSXAllocBuf(u32 initSize, booln appendHeader) { return KCXAllocBuf(initSize, appendHeader); }
astring *KCSXFreeBuf(KCSSSAStr *pXMLBuf, booln getContentStr) { return KCXFreeBuf(pXMLBuf, getContentStr); }
void KCSXFreeBufContent(astring *pContent) { KCXFreeBufContent(pContent); }
s32 KCSXBufCatEmptyNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr) {
  return KCXBufCatEmptyNode(pXMLBuf, pTagName, pAttrStr);
}
s32 KCSXBufCatBeginNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr) {
  return KCXBufCatBeginNode(pXMLBuf, pTagName, pAttrStr);
}
s32 KCSXBufCatEndNode(KCSSSAStr *pXMLBuf, const astring *pTagName) { return KCXBufCatEndNode(pXMLBuf, pTagName); }
s32 KCSXBufCatNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr, u32 valType,
                   const void *pVal) {
  return KCXBufCatNode(pXMLBuf, pTagName, pAttrStr, valType, pVal);
}

// INI store and files

s32 KCSReadINIPathFileValue(const astring *pSection, const astring *pKey, u32 vType, void *pValue, u32 *pvSize,
                            const void *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock) {
  const ExportContext context;
  return ReadINIPathFileValue(pSection, pKey, vType, pValue, pvSize, pDefault, dSize, pPathFileName, canBlock);
}
s32 KCSWriteINIPathFileValue(const astring *pSection, const astring *pKey, u32 vType, const void *pValue, u32 vSize,
                             const astring *pPathFileName, booln canBlock) {
  const ExportContext context;
  return WriteINIPathFileValue(pSection, pKey, vType, pValue, vSize, pPathFileName, canBlock);
}
s32 KCSReadINIFileValue(const astring *pSection, const astring *pKey, u32 vType, void *pValue, u32 *pvSize,
                        const void *pDefault, u32 dSize, const astring *pFileName, booln canBlock) {
  const ExportContext context;
  return SUPTIntfReadINIFileValue(pSection, pKey, vType, pValue, pvSize, pDefault, dSize, pFileName, canBlock);
}
s32 KCSWriteINIFileValue(const astring *pSection, const astring *pKey, u32 vType, const void *pValue, u32 vSize,
                         const astring *pFileName, booln canBlock) {
  const ExportContext context;
  return SUPTIntfWriteINIFileValue(pSection, pKey, vType, pValue, vSize, pFileName, canBlock);
}
s32 KCSMkDir(const astring *pPath) { return CreateDir(pPath); }
s32 KCSRmDir(const astring *pPath) { return DelDir(pPath); }
s32 KCSGetTmpFile(const astring *pPath, astring *pFileName, u32 *pSize) { return GetTmpFile(pPath, pFileName, pSize); }
s32 KCSGetSizeOfFile(const astring *pPathFileName, u32 *pSize) { return GetSizeOfFile(pPathFileName, pSize); }
s32 KCSDeleteFile(const astring *pPathFileName) { return DelFile(pPathFileName); }

// Product

astring *KCSGetZEBInstallPath(void) { return SUPTIntfGetZEBInstallPath(); }
astring *KCSGetRootInstallPath(void) { return SUPTIntfGetProductInstallPath(); }
astring *KCSGetProductIniPath(void) {
  const ExportContext context;
  return SUPTIntfGetProductIniPath();
}
astring *KCSGetProductVarPath(void) {
  const ExportContext context;
  return SUPTIntfGetProductVarPath();
}
astring *KCSGetZEBXSLRootPath(void) { return SUPTIntfGetZEBXSLRootPath(); }
astring *KCSGetZEBWWWRootPath(void) { return SUPTIntfGetZEBWWWRootPath(); }
astring *KCSGetZEBUploadPath(void) { return SUPTIntfGetZEBUploadPath(); }
astring *KCSGetZEBDownloadPath(void) { return SUPTIntfGetZEBDownloadPath(); }
astring *KCSGetZEBWEBDocsPath(void) { return SUPTIntfGetZEBWEBDocsPath(); }
astring *KCSGetZEBCLIDocsPath(void) { return SUPTIntfGetZEBCLIDocsPath(); }
astring *KCSGetIWSTempDirPath(void) { return SUPTIntfGetIWSTempDirPath(); }
astring *KCSGetOEMINIPathFile(const astring *pOEMDataDir, const astring *pINIFileName, const astring *brandingValue) {
  return SUPTIntfGetOEMINIPathFile(pOEMDataDir, pINIFileName, brandingValue);
}
astring *KCSGetLocaleNameAStr(u32 languageId) { return SUPTIntfGetLocaleNameAStr(languageId); }
astring *KCSGetOSLocaleName(void) { return SUPTIntfGetOSLocaleName(); }
astring *KCSGetOSLanguage(void) { return SUPTIntfGetOSLanguage(); }
astring *KCSGetOSCountry(void) { return SUPTIntfGetOSCountry(); }
astring *KCSGetHostNameAStr(void) { return SUPTIntfGetHostNameAStr(); }
astring *KCSGetXSLPathLocale(const astring *pApp, const astring *pType, const astring *pXSLName,
                             const astring *pLangCountryCode, u32 xslHeadTailMask, booln bIsConsole) {
  return SUPTIntfGetXSLPathLocale(pApp, pType, pXSLName, pLangCountryCode, xslHeadTailMask, bIsConsole);
}
u32 KCSGetUnicodeStringFromIDPathFile(u32 stringID, u32 *pLanguageId, const astring *pPathFileName, ustring *pDest,
                                      u32 *pDestSize) {
  return GetUnicodeStringFromIDPathFile(stringID, pLanguageId, pPathFileName, pDest, pDestSize);
}

// Key=value files

KCSKVEntry *KCSCFGGetKeyValueEntries(const astring *pPathFileName, u32 *pKVTSize) {
  const ExportContext context;
  return CFGGetKeyValueEntries(pPathFileName, 0, pKVTSize);
}
KCSKVEntry *KCSCFGInstGetKeyValueEntries(const astring *pFileName, u32 *pKVTSize) {
  const ExportContext context;
  return CFGGetKeyValueEntries(pFileName, 1, pKVTSize);
}
astring *KCSCFGGetKeyValue(const KCSKVEntry *pKVTable, u32 kvtSize, const astring *pKeyName, u32 instance) {
  const ExportContext context;
  return CFGGetKeyValue(pKVTable, kvtSize, pKeyName, instance);
}
void KCSCFGFreeKeyValueEntries(KCSKVEntry *pKVTable, u32 kvtSize) {
  const ExportContext context;
  CFGFreeKeyValueEntries(pKVTable, kvtSize);
}
s32 KCSCFGSetKeyValue(const astring *pPathFileName, const KCSKVEntry *pKVEnt, u32 instance) {
  const ExportContext context;
  return CFGSetKeyValue(pPathFileName, 0, pKVEnt, instance);
}
s32 KCSCFGInstSetKeyValue(const astring *pFileName, const KCSKVEntry *pKVEnt, u32 instance) {
  const ExportContext context;
  return CFGSetKeyValue(pFileName, 1, pKVEnt, instance);
}

// Logs

s32 KCSAppendToXMLLog(const astring *pPathFileName, u16 type, u32 eventID, const astring *pUserInfo,
                      const astring *pSource, const astring *pEventDesc, const void *pData, u32 dataBufSize,
                      u32 maxLogSize) {
  const ExportContext context;
  return AppendToXMLLog(pPathFileName, type, eventID, pUserInfo, pSource, pEventDesc, pData, dataBufSize, maxLogSize);
}
s32 KCSClearXMLLog(const astring *pPathFileName, const astring *pUserInfo, const astring *pSource) {
  const ExportContext context;
  return ClearXMLLog(pPathFileName, pUserInfo, pSource);
}
s32 KCSForceXMLLogExists(const astring *pPathFileName, const astring *pUserInfo, const astring *pSource) {
  const ExportContext context;
  return ForceXMLLogExists(pPathFileName, pUserInfo, pSource);
}
s32 KCSGetBackupXMLLogPathFileName(const astring *pPathFileName, astring *pBackup, u32 *pSize) {
  const ExportContext context;
  return GetBackupXMLLogPathFileName(pPathFileName, pBackup, pSize);
}
s32 KCSAppendToCmdLog(u32 cmdID, const astring *pUserInfo, const astring *pSource, const astring *pCmdDesc, u16 type) {
  const ExportContext context;
  return SUPTIntfAppendToCmdLog(cmdID, pUserInfo, pSource, pCmdDesc, type);
}
s32 KCSClearCmdLog(const astring *pUserInfo, const astring *pSource) {
  const ExportContext context;
  return SUPTIntfClearCmdLog(pUserInfo, pSource);
}
s32 KCSGetCmdLogSize(u32 *pSize) {
  const ExportContext context;
  return SUPTIntfGetCmdLogSize(pSize);
}
s32 KCSGetCmdLogMaxSize(u32 *pMaxSize) {
  const ExportContext context;
  return SUPTIntfGetCmdLogMaxSize(pMaxSize);
}
s32 KCSSetCmdLogMaxSize(u32 maxSize) {
  const ExportContext context;
  return SUPTIntfSetCmdLogMaxSize(maxSize);
}
astring *KCSGetCmdLogPathFileName(void) {
  const ExportContext context;
  return SUPTIntfGetCmdLogPathFileName();
}
s32 KCSAppendToOSLog(u16 type, u32 eventID, const ustring *pSource, const ustring *pEventDesc, const void *pData,
                     u32 dataBufSize) {
  const ExportContext context;
  return AppendToOSLog(type, eventID, pSource, pEventDesc, pData, dataBufSize);
}
s32 KCSClearOSLog(const ustring *pSource) {
  const ExportContext context;
  return ClearOSLog(pSource);
}

// Rights, login and identity

u32 KCSOpenRolemapFile(void) { return OSOpenRolemapFile(); }
u32 KCSGetRightsUsingRolemap(void) { return OSGetRightsUsingRolemap(); }
u32 KCSAuthenticateUser(const ustring *pDomainName, const ustring *pUserName, ustring *pPassword) {
  return OSAuthenticateUser(pDomainName, pUserName, pPassword);
}
u32 KCSAuthorizeUser(const ustring *pDomainName, const ustring *pUserName) {
  return OSAuthorizeUser(pDomainName, pUserName);
}
s16 KCSADAuthenticateUser(const ustring *pDomainName, const ustring *pUserName, ustring *pPassword,
                          const ustring *pProductName, const ustring *pProductClass, const ustring *pProductDomain,
                          const PrivilegeDefines *pd, booln useSSL, u16 *pPrivileges) {
  return OSADAuthenticateUser(pDomainName, pUserName, pPassword, pProductName, pProductClass, pProductDomain, pd,
                              useSSL, pPrivileges);
}
u32 KCSGetProcessRights(void) { return OSGetProcessRights(); }
astring *KCSGetProcessUser(void) { return OSGetProcessUser(); }
astring *KCSGetComputerDomainName(void) { return OSGetComputerDomainName(); }
void *KCSGetOSDomainList(void) { return OSDomainList(); }

// Threads, libraries, shutdown and web service

s32 KCSThreadStart(KCSThreadInfo *pKCSTI, FPROCKCSTHREADROUTINE fpKCSTR, void *pKCSThreadData) {
  return OSThreadStart(pKCSTI, fpKCSTR, pKCSThreadData);
}
s32 KCSThreadStop(KCSThreadInfo *pKCSTI) { return OSThreadStop(pKCSTI); }
s32 KCSLibLoad(KCSLibrary *pSL, const astring *pLibPathFileName) { return OSLibLoad(pSL, pLibPathFileName); }
s32 KCSLibUnLoad(KCSLibrary *pSL) { return OSLibUnLoad(pSL); }
void *KCSLibLinkToExportFN(KCSLibrary *pSL, const astring *pExportFNName) {
  return OSLibLinkToExportFN(pSL, pExportFNName);
}
s32 KCSLibUnLinkFromExportFN(KCSLibrary *pSL, const astring *pExportFNName) {
  return OSLibUnLinkFromExportFN(pSL, pExportFNName);
}
BOOL KCSOSShutdown(BOOL forceIt, BOOL restartAfterShutdown) { return OSShutdown(forceIt, restartAfterShutdown); }
s32 KCSWebServer(s32 webServerCmd, const astring *serviceName, s32 *webServerStat) {
  const ExportContext context;
  return CfgWebServer(webServerCmd, serviceName, webServerStat);
}
s32 KCSOSGetType(void) { return OSGetType(); }

// Linked lists

KCSSLList *KCSSLListAlloc(void) { return SLListAlloc(); }
KCSDLList *KCSDLListAlloc(void) { return DLListAlloc(); }
void KCSSLListFree(KCSSLList *pList) { SLListFree(pList); }
void KCSDLListFree(KCSDLList *pList) { DLListFree(pList); }
KCSSLListEntry *KCSSLListEntryAlloc(u32 entryDataSize) { return SLListEntryAlloc(entryDataSize); }
KCSDLListEntry *KCSDLListEntryAlloc(u32 entryDataSize) { return DLListEntryAlloc(entryDataSize); }
void KCSSLListEntryFree(KCSSLListEntry *pEntry) { SLListEntryFree(pEntry); }
void KCSDLListEntryFree(KCSDLListEntry *pEntry) { DLListEntryFree(pEntry); }
void KCSSLListInsertEntryAtTail(KCSSLList *pList, KCSSLListEntry *pEntry) { SLListInsertEntryAtTail(pList, pEntry); }
void KCSDLListInsertEntryAtTail(KCSDLList *pList, KCSDLListEntry *pEntry) { DLListInsertEntryAtTail(pList, pEntry); }
void KCSSLListInsertEntryAtHead(KCSSLList *pList, KCSSLListEntry *pEntry) { SLListInsertEntryAtHead(pList, pEntry); }
void KCSDLListInsertEntryAtHead(KCSDLList *pList, KCSDLListEntry *pEntry) { DLListInsertEntryAtHead(pList, pEntry); }
s32 KCSSLListInsertOrdered(KCSSLList *pList, KCSSLListEntry *pEntry, PFNSLLISTCMP pfnCmp) {
  return SLListInsertOrdered(pList, pEntry, pfnCmp);
}
s32 KCSDLListInsertOrdered(KCSDLList *pList, KCSDLListEntry *pEntry, PFNDLLISTCMP pfnCmp) {
  return DLListInsertOrdered(pList, pEntry, pfnCmp);
}
s32 KCSSLListInsertKeyed(KCSSLList *pList, KCSSLListEntry *pEntry, PFNSLLISTCMP pfnCmp) {
  return SLListInsertKeyed(pList, pEntry, pfnCmp);
}
s32 KCSDLListInsertKeyed(KCSDLList *pList, KCSDLListEntry *pEntry, PFNDLLISTCMP pfnCmp) {
  return DLListInsertKeyed(pList, pEntry, pfnCmp);
}
void KCSSLListDeleteEntry(KCSSLList *pList, KCSSLListEntry *pEntry) { SLListDeleteEntry(pList, pEntry); }
void KCSDLListDeleteEntry(KCSDLList *pList, KCSDLListEntry *pEntry) { DLListDeleteEntry(pList, pEntry); }
KCSSLListEntry *KCSSLListRemoveEntryAtHead(KCSSLList *pList) { return SLListRemoveEntryAtHead(pList); }
KCSDLListEntry *KCSDLListRemoveEntryAtHead(KCSDLList *pList) { return DLListRemoveEntryAtHead(pList); }
KCSSLListEntry *KCSSLListRemoveEntryAtTail(KCSSLList *pList) { return SLListRemoveEntryAtTail(pList); }
KCSDLListEntry *KCSDLListRemoveEntryAtTail(KCSDLList *pList) { return DLListRemoveEntryAtTail(pList); }

// Identifiers

u32 KCSHashTableBytesNeeded(u32 maxHashID) { return HashTableBytesNeeded(maxHashID); }
s32 KCSClearHashTable(void *pHashTable, u32 hashTableSize) { return ClearHashTable(pHashTable, hashTableSize); }
u32 KCSAcquireHashID(void *pHashTable, u32 hashTableSize) { return AcquireHashID(pHashTable, hashTableSize); }
s32 KCSVerifyHashID(const void *pHashTable, u32 hashTableSize, u32 hashID) {
  return VerifyHashID(pHashTable, hashTableSize, hashID);
}
s32 KCSReleaseHashID(void *pHashTable, u32 hashTableSize, u32 hashID) {
  return ReleaseHashID(pHashTable, hashTableSize, hashID);
}
u32 KCSGetMaxInUseID(const void *pHashTable, u32 hashTableSize) { return GetMaxInUseID(pHashTable, hashTableSize); }
u32 KCSFindFirstHashID(const void *pHashTable, u32 hashTableSize, u32 *pHashIndex, u32 *pBitIndex) {
  return FindFirstHashID(pHashTable, hashTableSize, pHashIndex, pBitIndex);
}
u32 KCSFindNextHashID(const void *pHashTable, u32 hashTableSize, u32 *pHashIndex, u32 *pBitIndex) {
  return FindNextHashID(pHashTable, hashTableSize, pHashIndex, pBitIndex);
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

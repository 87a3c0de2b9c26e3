// What the library exports: the forwarders and their targets, the export list, the library file itself, and a host
// program whose functions bear the same names.
#include "zebcs/zebcs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "program.h"
#include "sandbox.h"

namespace {

// A forwarder has the very type of its target: an implicit conversion in one would go unseen.
template <auto kExported, auto kTarget>
constexpr bool Same() {
  static_assert(std::is_same_v<decltype(kExported), decltype(kTarget)>);
  return true;
}

struct Forwarder {
  const char *name;
  bool isSame;
};

// One line for each KCS function that forwards.
constexpr Forwarder kForwarders[] = {
    {"KCSAllocContextLock", Same<&KCSAllocContextLock, &AllocContextLock>()},
    {"KCSFreeContextLock", Same<&KCSFreeContextLock, &FreeContextLock>()},
    {"KCSLockContext", Same<&KCSLockContext, &LockContext>()},
    {"KCSUnLockContext", Same<&KCSUnLockContext, &UnLockContext>()},
    {"KCSGetExportContext", Same<&KCSGetExportContext, &GetExportContext>()},
    {"KCSSetExportContext", Same<&KCSSetExportContext, &SetExportContext>()},
    {"KCSResetExportContext", Same<&KCSResetExportContext, &ResetExportContext>()},
    {"KCSEnableLongFileNames", Same<&KCSEnableLongFileNames, &EnableLongFileNames>()},
    {"KCSDisableLongFileNames", Same<&KCSDisableLongFileNames, &DisableLongFileNames>()},
    {"KCSUniStrlen", Same<&KCSUniStrlen, &UniStrlen>()},
    {"KCSUniStrcpy", Same<&KCSUniStrcpy, &UniStrcpy>()},
    {"KCSUniStrcat", Same<&KCSUniStrcat, &UniStrcat>()},
    {"KCSUniStrncpy", Same<&KCSUniStrncpy, &UniStrncpy>()},
    {"KCSUniStrncat", Same<&KCSUniStrncat, &UniStrncat>()},
    {"KCSUniStrcmp", Same<&KCSUniStrcmp, &UniStrcmp>()},
    {"KCSUniStrchr", Same<&KCSUniStrchr, &UniStrchr>()},
    {"KCSUniStrstr", Same<&KCSUniStrstr, &UniStrstr>()},
    {"KCSUniStrspn", Same<&KCSUniStrspn, &UniStrspn>()},
    {"KCSUniStrcspn", Same<&KCSUniStrcspn, &UniStrcspn>()},
    {"KCSUniStrtok", Same<&KCSUniStrtok, &UniStrtok>()},
    {"KCSUniStrset", Same<&KCSUniStrset, &UniStrset>()},
    {"KCSUniStrnset", Same<&KCSUniStrnset, &UniStrnset>()},
    {"KCSUniStrrev", Same<&KCSUniStrrev, &UniStrrev>()},
    {"KCSAStrnicmp", Same<&KCSAStrnicmp, &AStrnicmp>()},
    {"KCSSSUStrAlloc", Same<&KCSSSUStrAlloc, &SSUStrAlloc>()},
    {"KCSSSAStrAlloc", Same<&KCSSSAStrAlloc, &SSAStrAlloc>()},
    {"KCSSSUStrCatUStr", Same<&KCSSSUStrCatUStr, &SSUStrCatUStr>()},
    {"KCSSSUStrCatAStr", Same<&KCSSSUStrCatAStr, &SSUStrCatAStr>()},
    {"KCSSSAStrCatAStr", Same<&KCSSSAStrCatAStr, &SSAStrCatAStr>()},
    {"KCSSSAStrCatUStr", Same<&KCSSSAStrCatUStr, &SSAStrCatUStr>()},
    {"KCSSSUStrFree", Same<&KCSSSUStrFree, &SSUStrFree>()},
    {"KCSSSAStrFree", Same<&KCSSSAStrFree, &SSAStrFree>()},
    {"KCSGetLocalLanguageID", Same<&KCSGetLocalLanguageID, &GetLocalLanguageID>()},
    {"KCSUCS2StrToUTF8Str", Same<&KCSUCS2StrToUTF8Str, &UCS2StrToUTF8Str>()},
    {"KCSUCS4StrToUTF8Str", Same<&KCSUCS4StrToUTF8Str, &UCS4StrToUTF8Str>()},
    {"KCSUTF8StrToUCS2Str", Same<&KCSUTF8StrToUCS2Str, &UTF8StrToUCS2Str>()},
    {"KCSUTF8StrToXMLUTF8Str", Same<&KCSUTF8StrToXMLUTF8Str, &UTF8StrToXMLUTF8Str>()},
    {"KCSLocalToUnicode", Same<&KCSLocalToUnicode, &UTF8StrToUCS2Str>()},
    {"KCSASCIIToUnicode", Same<&KCSASCIIToUnicode, &UTF8StrToUCS2Str>()},
    {"KCSUnicodeToLocal", Same<&KCSUnicodeToLocal, &UCS2StrToUTF8Str>()},
    {"KCSUnicodeToASCII", Same<&KCSUnicodeToASCII, &UCS2StrToUTF8Str>()},
    {"KCSUnicodeToEscape", Same<&KCSUnicodeToEscape, &UnicodeToEscape>()},
    {"KCSBufToUStr", Same<&KCSBufToUStr, &BufToUStr>()},
    {"KCSGetXMLUTF8StrFromAStr", Same<&KCSGetXMLUTF8StrFromAStr, &SUPTIntfGetXMLUTF8StrFromAStr>()},
    {"KCSGetXMLUTF8StrFromUStr", Same<&KCSGetXMLUTF8StrFromUStr, &SUPTIntfGetXMLUTF8StrFromUStr>()},
    {"KCSASCIIToSigned32", Same<&KCSASCIIToSigned32, &ASCIIToSigned32>()},
    {"KCSASCIIToUnSigned32", Same<&KCSASCIIToUnSigned32, &ASCIIToUnSigned32>()},
    {"KCSASCIIToSigned64", Same<&KCSASCIIToSigned64, &ASCIIToSigned64>()},
    {"KCSASCIIToUnSigned64", Same<&KCSASCIIToUnSigned64, &ASCIIToUnSigned64>()},
    {"KCSASCIIToDouble", Same<&KCSASCIIToDouble, &ASCIIToDouble>()},
    {"KCSASCIIToBooln", Same<&KCSASCIIToBooln, &ASCIIToBooln>()},
    {"KCSSigned32ToASCII", Same<&KCSSigned32ToASCII, &Signed32ToASCII>()},
    {"KCSUnSigned32ToASCII", Same<&KCSUnSigned32ToASCII, &UnSigned32ToASCII>()},
    {"KCSSigned64ToASCII", Same<&KCSSigned64ToASCII, &Signed64ToASCII>()},
    {"KCSUnSigned64ToASCII", Same<&KCSUnSigned64ToASCII, &UnSigned64ToASCII>()},
    {"KCSBoolnToASCII", Same<&KCSBoolnToASCII, &BoolnToASCII>()},
    {"KCSDoubleToASCII", Same<&KCSDoubleToASCII, &DoubleToASCII>()},
    {"KCSDSTFix", Same<&KCSDSTFix, &DSTFix>()},
    {"KCSTimeToAStr", Same<&KCSTimeToAStr, &TimeToAStr>()},
    {"KCSUniToSigned32", Same<&KCSUniToSigned32, &UniToSigned32>()},
    {"KCSUniToUnSigned32", Same<&KCSUniToUnSigned32, &UniToUnSigned32>()},
    {"KCSUniToSigned64", Same<&KCSUniToSigned64, &UniToSigned64>()},
    {"KCSUniToUnSigned64", Same<&KCSUniToUnSigned64, &UniToUnSigned64>()},
    {"KCSUniToDouble", Same<&KCSUniToDouble, &UniToDouble>()},
    {"KCSUniSigned32ToStr", Same<&KCSUniSigned32ToStr, &UniSigned32ToStr>()},
    {"KCSUniUnSigned32ToStr", Same<&KCSUniUnSigned32ToStr, &UniUnSigned32ToStr>()},
    {"KCSUniDoubleToStr", Same<&KCSUniDoubleToStr, &UniDoubleToStr>()},
    {"KCSUniTimeToStr", Same<&KCSUniTimeToStr, &UniTimeToStr>()},
    {"KCSIsASCIIIntNum", Same<&KCSIsASCIIIntNum, &IsASCIIIntNum>()},
    {"KCSIsASCIIHexNum", Same<&KCSIsASCIIHexNum, &IsASCIIHexNum>()},
    {"KCSIsASCIIOctalNum", Same<&KCSIsASCIIOctalNum, &IsASCIIOctalNum>()},
    {"KCSIsASCIIAlpha", Same<&KCSIsASCIIAlpha, &IsASCIIAlpha>()},
    {"KCSIsASCIIAlphaNumeric", Same<&KCSIsASCIIAlphaNumeric, &IsASCIIAlphaNumeric>()},
    {"KCSIsASCIIAlphaNumericPlus", Same<&KCSIsASCIIAlphaNumericPlus, &IsASCIIAlphaNumericPlus>()},
    {"KCSASCIIToSigned32VT", Same<&KCSASCIIToSigned32VT, &ASCIIToSigned32VT>()},
    {"KCSASCIIToUnSigned32VT", Same<&KCSASCIIToUnSigned32VT, &ASCIIToUnSigned32VT>()},
    {"KCSASCIIToSigned64VT", Same<&KCSASCIIToSigned64VT, &ASCIIToSigned64VT>()},
    {"KCSASCIIToUnSigned64VT", Same<&KCSASCIIToUnSigned64VT, &ASCIIToUnSigned64VT>()},
    {"KCSASCIIToBoolnV", Same<&KCSASCIIToBoolnV, &ASCIIToBoolnV>()},
    {"KCSASCIIReplaceSubstr", Same<&KCSASCIIReplaceSubstr, &ASCIIReplaceSubstr>()},
    {"KCSValidateHostName", Same<&KCSValidateHostName, &ValidateHostName>()},
    {"KCSGetAStrParamName", Same<&KCSGetAStrParamName, &GetAStrParamName>()},
    {"KCSGetUStrParamName", Same<&KCSGetUStrParamName, &GetUStrParamName>()},
    {"KCSGetAStrParamValue", Same<&KCSGetAStrParamValue, &GetAStrParamValue>()},
    {"KCSGetUStrParamValue", Same<&KCSGetUStrParamValue, &GetUStrParamValue>()},
    {"KCSGetParamIndexByAStrName", Same<&KCSGetParamIndexByAStrName, &GetParamIndexByAStrName>()},
    {"KCSGetParamIndexByUStrName", Same<&KCSGetParamIndexByUStrName, &GetParamIndexByUStrName>()},
    {"KCSGetAStrParamValueByAStrName", Same<&KCSGetAStrParamValueByAStrName, &GetAStrParamValueByAStrName>()},
    {"KCSGetUStrParamValueByUStrName", Same<&KCSGetUStrParamValueByUStrName, &GetUStrParamValueByUStrName>()},
    {"KCSIsValidParam", Same<&KCSIsValidParam, &IsValidParam>()},
    {"KCSIsValidUParam", Same<&KCSIsValidUParam, &IsValidUParam>()},
    {"KCSRemoveDQuotesInStrArr", Same<&KCSRemoveDQuotesInStrArr, &RemoveDQuotesInStrArr>()},
    {"KCSAppendDNode", Same<&KCSAppendDNode, &AppendNode>()},
    {"KCSXAllocBuf", Same<&KCSXAllocBuf, &KCXAllocBuf>()},
    {"KCSXFreeBuf", Same<&KCSXFreeBuf, &KCXFreeBuf>()},
    {"KCSXFreeBufContent", Same<&KCSXFreeBufContent, &KCXFreeBufContent>()},
    {"KCSXBufCatEmptyNode", Same<&KCSXBufCatEmptyNode, &KCXBufCatEmptyNode>()},
    {"KCSXBufCatBeginNode", Same<&KCSXBufCatBeginNode, &KCXBufCatBeginNode>()},
    {"KCSXBufCatEndNode", Same<&KCSXBufCatEndNode, &KCXBufCatEndNode>()},
    {"KCSXBufCatNode", Same<&KCSXBufCatNode, &KCXBufCatNode>()},
    {"KCSReadINIPathFileValue", Same<&KCSReadINIPathFileValue, &ReadINIPathFileValue>()},
    {"KCSWriteINIPathFileValue", Same<&KCSWriteINIPathFileValue, &WriteINIPathFileValue>()},
    {"KCSReadINIFileValue", Same<&KCSReadINIFileValue, &SUPTIntfReadINIFileValue>()},
    {"KCSWriteINIFileValue", Same<&KCSWriteINIFileValue, &SUPTIntfWriteINIFileValue>()},
    {"KCSMkDir", Same<&KCSMkDir, &CreateDir>()},
    {"KCSRmDir", Same<&KCSRmDir, &DelDir>()},
    {"KCSGetTmpFile", Same<&KCSGetTmpFile, &GetTmpFile>()},
    {"KCSGetSizeOfFile", Same<&KCSGetSizeOfFile, &GetSizeOfFile>()},
    {"KCSDeleteFile", Same<&KCSDeleteFile, &DelFile>()},
    {"KCSGetZEBInstallPath", Same<&KCSGetZEBInstallPath, &SUPTIntfGetZEBInstallPath>()},
    {"KCSGetRootInstallPath", Same<&KCSGetRootInstallPath, &SUPTIntfGetProductInstallPath>()},
    {"KCSGetProductIniPath", Same<&KCSGetProductIniPath, &SUPTIntfGetProductIniPath>()},
    {"KCSGetProductVarPath", Same<&KCSGetProductVarPath, &SUPTIntfGetProductVarPath>()},
    {"KCSGetZEBXSLRootPath", Same<&KCSGetZEBXSLRootPath, &SUPTIntfGetZEBXSLRootPath>()},
    {"KCSGetZEBWWWRootPath", Same<&KCSGetZEBWWWRootPath, &SUPTIntfGetZEBWWWRootPath>()},
    {"KCSGetZEBUploadPath", Same<&KCSGetZEBUploadPath, &SUPTIntfGetZEBUploadPath>()},
    {"KCSGetZEBDownloadPath", Same<&KCSGetZEBDownloadPath, &SUPTIntfGetZEBDownloadPath>()},
    {"KCSGetZEBWEBDocsPath", Same<&KCSGetZEBWEBDocsPath, &SUPTIntfGetZEBWEBDocsPath>()},
    {"KCSGetZEBCLIDocsPath", Same<&KCSGetZEBCLIDocsPath, &SUPTIntfGetZEBCLIDocsPath>()},
    {"KCSGetIWSTempDirPath", Same<&KCSGetIWSTempDirPath, &SUPTIntfGetIWSTempDirPath>()},
    {"KCSGetOEMINIPathFile", Same<&KCSGetOEMINIPathFile, &SUPTIntfGetOEMINIPathFile>()},
    {"KCSGetLocaleNameAStr", Same<&KCSGetLocaleNameAStr, &SUPTIntfGetLocaleNameAStr>()},
    {"KCSGetOSLocaleName", Same<&KCSGetOSLocaleName, &SUPTIntfGetOSLocaleName>()},
    {"KCSGetOSLanguage", Same<&KCSGetOSLanguage, &SUPTIntfGetOSLanguage>()},
    {"KCSGetOSCountry", Same<&KCSGetOSCountry, &SUPTIntfGetOSCountry>()},
    {"KCSGetXSLPathLocale", Same<&KCSGetXSLPathLocale, &SUPTIntfGetXSLPathLocale>()},
    {"KCSGetUnicodeStringFromIDPathFile", Same<&KCSGetUnicodeStringFromIDPathFile, &GetUnicodeStringFromIDPathFile>()},
    {"KCSDASCMDHelp", Same<&KCSDASCMDHelp, &DASuptCMDHelp>()},
    {"KCSDASCatSMStatusNode", Same<&KCSDASCatSMStatusNode, &DASuptCatSMStatusNode>()},
    {"KCSDASBufCatSetCmdParam", Same<&KCSDASBufCatSetCmdParam, &DASuptBufCatSetCmdParam>()},
    {"KCSDASASCIIToXVal", Same<&KCSDASASCIIToXVal, &DASuptASCIIToXVal>()},
    {"KCSDASNVPValToXVal", Same<&KCSDASNVPValToXVal, &DASuptNVPValToXVal>()},
    {"KCSDASXValToASCII", Same<&KCSDASXValToASCII, &DASuptXValToASCII>()},
    {"KCSDASAstrToUstr", Same<&KCSDASAstrToUstr, &DASuptAstrToUstr>()},
    {"KCSDASAstrToUstrD", Same<&KCSDASAstrToUstrD, &DASuptAstrToUstrD>()},
    {"KCSDASUstrToAstr", Same<&KCSDASUstrToAstr, &DASuptUstrToAstr>()},
    {"KCSDASUstrToAstrD", Same<&KCSDASUstrToAstrD, &DASuptUstrToAstrD>()},
    {"KCSGetIPHostName", Same<&KCSGetIPHostName, &GetIPHostName>()},
    {"KCSUniGetIPHostName", Same<&KCSUniGetIPHostName, &UniGetIPHostName>()},
    {"KCSGetIPAddrStrList", Same<&KCSGetIPAddrStrList, &GetIPAddrStrList>()},
    {"KCSGetDNSSuffixNameName", Same<&KCSGetDNSSuffixNameName, &GetDNSSuffixName>()},
    {"KCSIPAddrASCIIToNetwork", Same<&KCSIPAddrASCIIToNetwork, &IPAddrASCIIToNetwork>()},
    {"KCSIPAddrNetworkToASCII", Same<&KCSIPAddrNetworkToASCII, &IPAddrNetworkToASCII>()},
    {"KCSCheckIPEqual", Same<&KCSCheckIPEqual, &CheckIPEqual>()},
    {"KCSHostGetHostIPAddrList", Same<&KCSHostGetHostIPAddrList, &SUPTIntfHostGetHostIPAddrList>()},
    {"KCSGetHostNameAStr", Same<&KCSGetHostNameAStr, &SUPTIntfGetHostNameAStr>()},
    {"KCSIsIPv6", Same<&KCSIsIPv6, &IsIPv6>()},
    {"KCSIsIPv4", Same<&KCSIsIPv4, &IsIPv4>()},
    {"KCSIsLinkLocal", Same<&KCSIsLinkLocal, &IsLinkLocal>()},
    {"KCSGetSockType", Same<&KCSGetSockType, &GetSockType>()},
    {"KCSGetLoopBack", Same<&KCSGetLoopBack, &GetLoopBack>()},
    {"KCSMD5Hash", Same<&KCSMD5Hash, &MD5Hash>()},
    {"KCSSHA256Hash", Same<&KCSSHA256Hash, &SHA256Hash>()},
    {"KCSMD5HashForPasswdSalt", Same<&KCSMD5HashForPasswdSalt, &MD5HashForPasswdSalt>()},
    {"KCSSHA256HashForPasswdSalt", Same<&KCSSHA256HashForPasswdSalt, &SHA256HashForPasswdSalt>()},
    {"KCSEVPHashForPasswdSalt", Same<&KCSEVPHashForPasswdSalt, &EVPHashForPasswdSalt>()},
    {"KCSCFGGetKeyValue", Same<&KCSCFGGetKeyValue, &CFGGetKeyValue>()},
    {"KCSCFGFreeKeyValueEntries", Same<&KCSCFGFreeKeyValueEntries, &CFGFreeKeyValueEntries>()},
    {"KCSAppendToXMLLog", Same<&KCSAppendToXMLLog, &AppendToXMLLog>()},
    {"KCSClearXMLLog", Same<&KCSClearXMLLog, &ClearXMLLog>()},
    {"KCSForceXMLLogExists", Same<&KCSForceXMLLogExists, &ForceXMLLogExists>()},
    {"KCSGetBackupXMLLogPathFileName", Same<&KCSGetBackupXMLLogPathFileName, &GetBackupXMLLogPathFileName>()},
    {"KCSAppendToOSLog", Same<&KCSAppendToOSLog, &AppendToOSLog>()},
    {"KCSClearOSLog", Same<&KCSClearOSLog, &ClearOSLog>()},
    {"KCSAppendToCmdLog", Same<&KCSAppendToCmdLog, &SUPTIntfAppendToCmdLog>()},
    {"KCSClearCmdLog", Same<&KCSClearCmdLog, &SUPTIntfClearCmdLog>()},
    {"KCSGetCmdLogSize", Same<&KCSGetCmdLogSize, &SUPTIntfGetCmdLogSize>()},
    {"KCSGetCmdLogMaxSize", Same<&KCSGetCmdLogMaxSize, &SUPTIntfGetCmdLogMaxSize>()},
    {"KCSSetCmdLogMaxSize", Same<&KCSSetCmdLogMaxSize, &SUPTIntfSetCmdLogMaxSize>()},
    {"KCSGetCmdLogPathFileName", Same<&KCSGetCmdLogPathFileName, &SUPTIntfGetCmdLogPathFileName>()},
    {"KCSOpenRolemapFile", Same<&KCSOpenRolemapFile, &OSOpenRolemapFile>()},
    {"KCSGetRightsUsingRolemap", Same<&KCSGetRightsUsingRolemap, &OSGetRightsUsingRolemap>()},
    {"KCSAuthenticateUser", Same<&KCSAuthenticateUser, &OSAuthenticateUser>()},
    {"KCSAuthorizeUser", Same<&KCSAuthorizeUser, &OSAuthorizeUser>()},
    {"KCSADAuthenticateUser", Same<&KCSADAuthenticateUser, &OSADAuthenticateUser>()},
    {"KCSGetProcessRights", Same<&KCSGetProcessRights, &OSGetProcessRights>()},
    {"KCSGetProcessUser", Same<&KCSGetProcessUser, &OSGetProcessUser>()},
    {"KCSGetComputerDomainName", Same<&KCSGetComputerDomainName, &OSGetComputerDomainName>()},
    {"KCSGetOSDomainList", Same<&KCSGetOSDomainList, &OSDomainList>()},
    {"KCSThreadStart", Same<&KCSThreadStart, &OSThreadStart>()},
    {"KCSThreadStop", Same<&KCSThreadStop, &OSThreadStop>()},
    {"KCSLibLoad", Same<&KCSLibLoad, &OSLibLoad>()},
    {"KCSLibUnLoad", Same<&KCSLibUnLoad, &OSLibUnLoad>()},
    {"KCSLibLinkToExportFN", Same<&KCSLibLinkToExportFN, &OSLibLinkToExportFN>()},
    {"KCSLibUnLinkFromExportFN", Same<&KCSLibUnLinkFromExportFN, &OSLibUnLinkFromExportFN>()},
    {"KCSOSShutdown", Same<&KCSOSShutdown, &OSShutdown>()},
    {"KCSWebServer", Same<&KCSWebServer, &CfgWebServer>()},
    {"KCSOSGetType", Same<&KCSOSGetType, &OSGetType>()},
    {"KCSSLListAlloc", Same<&KCSSLListAlloc, &SLListAlloc>()},
    {"KCSDLListAlloc", Same<&KCSDLListAlloc, &DLListAlloc>()},
    {"KCSSLListFree", Same<&KCSSLListFree, &SLListFree>()},
    {"KCSDLListFree", Same<&KCSDLListFree, &DLListFree>()},
    {"KCSSLListEntryAlloc", Same<&KCSSLListEntryAlloc, &SLListEntryAlloc>()},
    {"KCSDLListEntryAlloc", Same<&KCSDLListEntryAlloc, &DLListEntryAlloc>()},
    {"KCSSLListEntryFree", Same<&KCSSLListEntryFree, &SLListEntryFree>()},
    {"KCSDLListEntryFree", Same<&KCSDLListEntryFree, &DLListEntryFree>()},
    {"KCSSLListInsertEntryAtTail", Same<&KCSSLListInsertEntryAtTail, &SLListInsertEntryAtTail>()},
    {"KCSDLListInsertEntryAtTail", Same<&KCSDLListInsertEntryAtTail, &DLListInsertEntryAtTail>()},
    {"KCSSLListInsertEntryAtHead", Same<&KCSSLListInsertEntryAtHead, &SLListInsertEntryAtHead>()},
    {"KCSDLListInsertEntryAtHead", Same<&KCSDLListInsertEntryAtHead, &DLListInsertEntryAtHead>()},
    {"KCSSLListInsertOrdered", Same<&KCSSLListInsertOrdered, &SLListInsertOrdered>()},
    {"KCSDLListInsertOrdered", Same<&KCSDLListInsertOrdered, &DLListInsertOrdered>()},
    {"KCSSLListInsertKeyed", Same<&KCSSLListInsertKeyed, &SLListInsertKeyed>()},
    {"KCSDLListInsertKeyed", Same<&KCSDLListInsertKeyed, &DLListInsertKeyed>()},
    {"KCSSLListDeleteEntry", Same<&KCSSLListDeleteEntry, &SLListDeleteEntry>()},
    {"KCSDLListDeleteEntry", Same<&KCSDLListDeleteEntry, &DLListDeleteEntry>()},
    {"KCSSLListRemoveEntryAtHead", Same<&KCSSLListRemoveEntryAtHead, &SLListRemoveEntryAtHead>()},
    {"KCSDLListRemoveEntryAtHead", Same<&KCSDLListRemoveEntryAtHead, &DLListRemoveEntryAtHead>()},
    {"KCSSLListRemoveEntryAtTail", Same<&KCSSLListRemoveEntryAtTail, &SLListRemoveEntryAtTail>()},
    {"KCSDLListRemoveEntryAtTail", Same<&KCSDLListRemoveEntryAtTail, &DLListRemoveEntryAtTail>()},
    {"KCSHashTableBytesNeeded", Same<&KCSHashTableBytesNeeded, &HashTableBytesNeeded>()},
    {"KCSClearHashTable", Same<&KCSClearHashTable, &ClearHashTable>()},
    {"KCSAcquireHashID", Same<&KCSAcquireHashID, &AcquireHashID>()},
    {"KCSVerifyHashID", Same<&KCSVerifyHashID, &VerifyHashID>()},
    {"KCSReleaseHashID", Same<&KCSReleaseHashID, &ReleaseHashID>()},
    {"KCSGetMaxInUseID", Same<&KCSGetMaxInUseID, &GetMaxInUseID>()},
    {"KCSFindFirstHashID", Same<&KCSFindFirstHashID, &FindFirstHashID>()},
    {"KCSFindNextHashID", Same<&KCSFindNextHashID, &FindNextHashID>()},
};

// KCS functions that do their work themselves.
constexpr const char *kNotForwarding[] = {"KCSAllocMem",
                                          "KCSCFGGetKeyValueEntries",
                                          "KCSCFGInstGetKeyValueEntries",
                                          "KCSCFGInstSetKeyValue",
                                          "KCSCFGSetKeyValue",
                                          "KCSCheckModularChassis",
                                          "KCSCmdGetXMLLogContent",
                                          "KCSFreeMem",
                                          "KCSGenericFree",
                                          "KCSGetOEMADSchemaPrefix",
                                          "KCSMaskProgramRights",
                                          "KCSReAllocMem",
                                          "KCSSetProcessEnvironment",
                                          "KCSXFreeBufGetContent"};

std::string ReadSource(const std::string &path) {
  std::ifstream file(std::string(ZEBCS_SOURCE_DIR) + "/" + path);
  EXPECT_TRUE(file.good()) << path;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> ExportList() {
  std::vector<std::string> names;
  std::istringstream lines(ReadSource("exports/zebcs.map"));
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("    ") && line != "    *;") names.push_back(line.substr(4, line.size() - 5));
  }
  return names;
}

std::vector<std::string> ExportedByLibrary() {
  const ProgramResult nm = RunProgram({"/usr/bin/nm", "-D", "--defined-only", "--format=posix", ZEBCS_LIBRARY});
  EXPECT_EQ(nm.status, 0) << nm.errors;
  std::set<std::string> names;
  std::istringstream lines(nm.output);
  for (std::string line; std::getline(lines, line);) names.insert(line.substr(0, line.find(' ')));
  return {names.begin(), names.end()};
}

std::set<std::string> DeclaredInHeaders() {
  std::set<std::string> names;
  const std::regex declaration("\\nZEBCS_API [^(;]*?(\\w+)[(;]");
  for (const char *header : {"auth", "dasupport", "encoding", "frame", "hashid", "ini", "ipc", "keyvalue", "list",
                             "logs", "net", "number", "param", "product", "rolemap", "system", "unistr", "xmlbuf"}) {
    const std::string text = ReadSource(std::string("include/zebcs/") + header + ".h");
    for (std::sregex_iterator match(text.begin(), text.end(), declaration), end; match != end; ++match) {
      names.insert((*match)[1]);
    }
  }
  return names;
}

std::string ReadElf(const char *option) {
  const ProgramResult result = RunProgram({"/usr/bin/readelf", "-W", option, ZEBCS_LIBRARY});
  EXPECT_EQ(result.status, 0) << result.errors;
  return result.output;
}

}  // namespace

TEST(ExportList, IsSortedAndWithoutRepetition) {
  const std::vector<std::string> names = ExportList();
  ASSERT_GT(names.size(), 150u);
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

TEST(ExportList, IsWhatTheLibraryExports) { EXPECT_EQ(ExportedByLibrary(), ExportList()); }

TEST(ExportList, HasEveryDeclaredFunctionAndNoOther) {
  std::set<std::string> names;
  for (const std::string &name : ExportList()) {
    if (!name.starts_with("_Z")) names.insert(name);  // the role map's classes
  }
  EXPECT_EQ(names, DeclaredInHeaders());
}

TEST(Forwarders, TableHasEveryExportedName) {
  std::set<std::string> names(std::begin(kNotForwarding), std::end(kNotForwarding));
  for (const Forwarder &forwarder : kForwarders) EXPECT_TRUE(forwarder.isSame && names.insert(forwarder.name).second);
  std::set<std::string> exported;
  for (const std::string &name : ExportList()) {
    if (name.starts_with("KCS")) exported.insert(name);
  }
  EXPECT_EQ(names, exported);
}

TEST(HostProgram, FunctionsOfTheSameNameDoNotTakeInnerCalls) {
  sandbox::RequireSandbox();
  const ProgramResult result = RunProgram({ZEBCS_HOST_PROGRAM});
  EXPECT_EQ(result.status, 0) << result.errors;
}

TEST(LibraryFile, HasItsSoname) { EXPECT_NE(ReadElf("-d").find("Library soname: [libzebcs.so.1]"), std::string::npos); }

#ifndef ZEBCS_SANITIZED

TEST(LibraryFile, NeedsNoOtherLibraries) {
  // libgcc_s is the C++ library's own: it unwinds exceptions.
  const std::set<std::string> allowed = {"libc.so.6", "libstdc++.so.6", "libgcc_s.so.1", "libcrypto.so.3",
                                         "libpam.so.0"};
  const std::string dynamic = ReadElf("-d");
  const std::regex needed("\\(NEEDED\\)\\s+Shared library: \\[([^\\]]+)\\]");
  int count = 0;
  for (std::sregex_iterator match(dynamic.begin(), dynamic.end(), needed), end; match != end; ++match, ++count) {
    EXPECT_TRUE(allowed.contains((*match)[1])) << (*match)[1];
  }
  EXPECT_GE(count, 3);
}

TEST(LibraryFile, IsHardened) {
  const std::string segments = ReadElf("-l");
  EXPECT_NE(segments.find("GNU_RELRO"), std::string::npos);
  EXPECT_TRUE(std::regex_search(segments, std::regex("GNU_STACK[^\\n]* RW "))) << segments;
  EXPECT_NE(ReadElf("-d").find("BIND_NOW"), std::string::npos);
  // Control-flow protection shows in the code itself: what may be jumped to begins with this instruction.
  const ProgramResult code = RunProgram({"/usr/bin/objdump", "--disassemble=KCSUniStrlen", ZEBCS_LIBRARY});
  EXPECT_NE(code.output.find("endbr64"), std::string::npos) << code.output;
  EXPECT_NE(ReadElf("--dyn-syms").find("__stack_chk_fail"), std::string::npos);
}

#endif

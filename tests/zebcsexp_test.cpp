// What the library exports: the forwarders and their targets, the export list, the library file itself, and a host
// program whose functions bear the same names.
#include "zebcs/zebcs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "program.h"
#include "sandbox.h"

namespace {

namespace fs = std::filesystem;

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

constexpr const char *kOtherType[] = {"KCSCFGGetKeyValueEntries", "KCSCFGInstGetKeyValueEntries",
                                      "KCSCFGInstSetKeyValue", "KCSCFGSetKeyValue"};

std::string ReadSource(const std::string &path) {
  std::ifstream file(std::string(ZEBCS_SOURCE_DIR) + "/" + path);
  EXPECT_TRUE(file.good()) << path;
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// A row of the export list.
struct Export {
  std::string name;
  std::string family;  // the header that declares it
  std::string target;  // of a KCS function: what it forwards to, or "itself"
  bool isInContext;    // whether it does so in the export context
};

const std::vector<Export> &ExportList() {
  static const std::vector<Export> list = [] {
    std::vector<Export> rows;
    const std::regex row("    (\\w+); +# (\\w+)(?:: (\\w+)(, in the export context)?)?");
    std::istringstream lines(ReadSource("exports/zebcs.map"));
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with("    ") || line == "    *;") continue;
      std::smatch match;
      EXPECT_TRUE(std::regex_match(line, match, row)) << line;
      rows.push_back({match[1], match[2], match[3], match[4].matched});
    }
    return rows;
  }();
  return list;
}

std::vector<std::string> ExportedNames() {
  std::vector<std::string> names;
  for (const Export &row : ExportList()) names.push_back(row.name);
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

// Every function of the C headers with the header that declares it.
std::map<std::string, std::string> DeclaredInHeaders() {
  std::map<std::string, std::string> families;
  const std::regex declaration("\\nZEBCS_API [^(;]*?(\\w+)[(;]");
  for (const auto &header : fs::directory_iterator(fs::path(ZEBCS_SOURCE_DIR) / "include/zebcs")) {
    if (header.path().extension() != ".h") continue;
    const std::string text = ReadSource("include/zebcs/" + header.path().filename().string());
    for (std::sregex_iterator match(text.begin(), text.end(), declaration), end; match != end; ++match) {
      EXPECT_TRUE(families.emplace((*match)[1], header.path().stem()).second) << (*match)[1] << " is declared twice";
    }
  }
  return families;
}

// The definition of a forwarder, up to its closing brace; empty where there is none.
std::string ForwarderText(const std::string &name) {
  for (const char *file : {"common/src/zebcsexp.cpp", "common/src/dacsexp.cpp"}) {
    const std::string text = ReadSource(file);
    std::smatch match;
    if (!std::regex_search(text, match, std::regex("\\n\\w[\\w *]*\\b" + name + "\\("))) continue;
    const size_t start = static_cast<size_t>(match.position()) + 1;
    return text.substr(start, text.find("}\n", start) - start);
  }
  return {};
}

std::string ReadElf(const char *option) {
  const ProgramResult result = RunProgram({"/usr/bin/readelf", "-W", option, ZEBCS_LIBRARY});
  EXPECT_EQ(result.status, 0) << result.errors;
  return result.output;
}

}  // namespace

TEST(ExportList, IsSortedAndWithoutRepetition) {
  const std::vector<std::string> names = ExportedNames();
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

TEST(ExportList, IsWhatTheLibraryExports) { EXPECT_EQ(ExportedByLibrary(), ExportedNames()); }

TEST(ExportList, HasEveryDeclaredFunctionWithItsHeader) {
  std::map<std::string, std::string> families;
  for (const Export &row : ExportList()) {
    if (!row.name.starts_with("_Z")) families.emplace(row.name, row.family);  // else of the role map's classes
  }
  EXPECT_EQ(families, DeclaredInHeaders());
}

TEST(ExportList, EveryFamilyIsComplete) {
  std::map<std::string, int> counts;
  for (const Export &row : ExportList()) {
    if (row.name.starts_with("KCS")) ++counts[row.family];
    if (row.name.starts_with("KCX")) ++counts["KCX"];
  }
  const std::map<std::string, int> wanted = {
      {"frame", 14}, {"unistr", 23},    {"encoding", 13}, {"number", 36}, {"param", 12}, {"list", 22},
      {"hashid", 8}, {"xmlbuf", 8},     {"KCX", 8},       {"ini", 9},     {"logs", 13},  {"keyvalue", 6},
      {"auth", 7},   {"dasupport", 10}, {"product", 21},  {"rolemap", 3}, {"system", 9}, {"net", 18}};
  EXPECT_EQ(counts, wanted);
}

TEST(Forwarders, AreDefinedAsListed) {
  for (const Export &row : ExportList()) {
    if (!row.name.starts_with("KCS")) {
      EXPECT_EQ(row.target, "") << row.name;
      continue;
    }
    const std::string text = ForwarderText(row.name);
    if (row.target == "itself") {
      EXPECT_EQ(text, "") << row.name;
      continue;
    }
    EXPECT_NE(text.find(" " + row.target + "("), std::string::npos) << row.name << ": " << text;
    EXPECT_EQ(text.find("const ExportContext context;") != std::string::npos, row.isInContext) << text;
  }
}

TEST(Forwarders, TypesOfAllAreCompared) {
  std::set<std::string> compared;
  for (const Forwarder &forwarder : kForwarders) {
    EXPECT_TRUE(forwarder.isSame && compared.insert(forwarder.name).second) << forwarder.name;
  }
  // Three look a path up themselves, and so take another argument than their target.
  for (const char *name : kOtherType) EXPECT_TRUE(compared.insert(name).second) << name;
  std::set<std::string> forwarding;
  for (const Export &row : ExportList()) {
    if (row.name.starts_with("KCS") && row.target != "itself") forwarding.insert(row.name);
  }
  EXPECT_EQ(compared, forwarding);
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

// The exported names of the data-access support: each KCSDAS function passes its arguments to the DASupt function.
#include "zebcs/dasupport.h"

extern "C" {

astring *KCSDASCMDHelp(s32 numNVPair, astring **ppNVPair, const CmdDispatchTable *pCDT, s32 countCDT,
                       PFNSENDCMD pfnSelf) {
  return DASuptCMDHelp(numNVPair, ppNVPair, pCDT, countCDT, pfnSelf);
}
s32 KCSDASCatSMStatusNode(KCSSSAStr *pXMLBuf, s32 smStatus, const astring *pMssg) {
  return DASuptCatSMStatusNode(pXMLBuf, smStatus, pMssg);
}
s32 KCSDASBufCatSetCmdParam(KCSSSAStr *pXMLBuf, const astring *pParamName, const void *pOldVal, const void *pNewVal,
                            const void *pVal, u32 valType) {
  return DASuptBufCatSetCmdParam(pXMLBuf, pParamName, pOldVal, pNewVal, pVal, valType);
}
s32 KCSDASASCIIToXVal(const astring *pStr, u32 valType, void *pXVal) { return DASuptASCIIToXVal(pStr, valType, pXVal); }
s32 KCSDASNVPValToXVal(s32 numNVPair, astring *const *ppNVPair, const astring *pValName, u32 valType, void *pXVal) {
  return DASuptNVPValToXVal(numNVPair, ppNVPair, pValName, valType, pXVal);
}
astring *KCSDASXValToASCII(u32 valType, const void *pXVal) { return DASuptXValToASCII(valType, pXVal); }
ustring *KCSDASAstrToUstr(const astring *pAstr, s32 *pStatus) { return DASuptAstrToUstr(pAstr, pStatus); }
ustring *KCSDASAstrToUstrD(const astring *pAstr, const ustring *pDefaultUstr, s32 *pStatus) {
  return DASuptAstrToUstrD(pAstr, pDefaultUstr, pStatus);
}
astring *KCSDASUstrToAstr(const ustring *pUstr, s32 *pStatus) { return DASuptUstrToAstr(pUstr, pStatus); }
astring *KCSDASUstrToAstrD(const ustring *pUstr, const astring *pDefaultAstr, s32 *pStatus) {
  return DASuptUstrToAstrD(pUstr, pDefaultAstr, pStatus);
}

}  // extern "C"

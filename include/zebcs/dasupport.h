/* Data-access support: how a command provider answers the data-access service.
 *
 * Value types are those of xmlbuf.h, parameter lists those of param.h. New texts come from the heap and are released
 * with KCSFreeMem.
 *
 * Threads: nothing here keeps state. */
#ifndef ZEBCS_DASUPPORT_H
#define ZEBCS_DASUPPORT_H

#include <zebcs/types.h>
#include <zebcs/unistr.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A value given in thousandths, for DASuptASCIIToXVal alone: stored as s64 in whole units, cut toward zero. */
#define KCSDAS_THOUSANDTHS 99

/* A command: takes a parameter list and returns new XML text, or NULL. */
typedef astring *(*PFNSENDCMD)(s32 numNVPair, astring **ppNVPair);

/* A command that a provider answers. */
typedef struct CmdDispatchTable {
  const astring *pCmdValue; /* the command's name */
  PFNSENDCMD pfnSendCmd;    /* what it runs */
} CmdDispatchTable;

/* Builds the help of all commands: runs each but pfnSelf with "zebusrinfo=dasupt" and "cmdhelp=true", and puts what
 * they return, as it is, into a node each. The attribute "count" is countCDT less one, for pfnSelf.
 *
 * numNVPair, ppNVPair  are not used.
 * Returns  new text, empty when pCDT or pfnSelf is NULL or countCDT is below 1; NULL when memory ran out. */
ZEBCS_API astring *KCSDASCMDHelp(s32 numNVPair, astring **ppNVPair, const CmdDispatchTable *pCDT, s32 countCDT,
                                 PFNSENDCMD pfnSelf);

/* Appends a node "SMStatus" with the status in decimal and, if there is a message, the attribute "mssg", which is not
 * escaped. Without memory for the attribute the node goes without.
 *
 * Returns  as KCXBufCatNode. */
ZEBCS_API s32 KCSDASCatSMStatusNode(KCSSSAStr *pXMLBuf, s32 smStatus, const astring *pMssg);

/* Appends an empty node "Parameter" with the attributes "name", "oldval", "newval" and "value", none escaped. A value
 * whose type has no text leaves its attribute out.
 *
 * pOldVal, pNewVal  may be NULL when pVal is not.
 * pVal              may be NULL.
 * Returns  0; SM_STATUS_INVALID_INPUT when pXMLBuf, pParamName or a value that is required is NULL;
 *          SM_STATUS_NO_MEMORY. */
ZEBCS_API s32 KCSDASBufCatSetCmdParam(KCSSSAStr *pXMLBuf, const astring *pParamName, const void *pOldVal,
                                      const void *pNewVal, const void *pVal, u32 valType);

/* Reads decimal text into a value of a type: KCX_ASTRING (stores the pointer pStr itself), KCX_BOOLN, the integers,
 * KCX_D64, KCSDAS_THOUSANDTHS.
 *
 * pXVal    receives the value, 0 when the text is not valid; untouched when an argument is refused.
 * Returns  0; SM_STATUS_INVALID_INPUT when the text is not valid for the type (any is for KCX_D64) or pXVal is NULL;
 *          -1 when the text is NULL; SM_STATUS_BAD_PARAMETER for another type. */
ZEBCS_API s32 KCSDASASCIIToXVal(const astring *pStr, u32 valType, void *pXVal);

/* KCSDASASCIIToXVal with the value of a parameter, whose name is compared in its exact case.
 *
 * Returns  SM_STATUS_INVALID_INPUT also when there is no such parameter. */
ZEBCS_API s32 KCSDASNVPValToXVal(s32 numNVPair, astring *const *ppNVPair, const astring *pValName, u32 valType,
                                 void *pXVal);

/* Makes text of a value. The types: texts, escaped texts (once), KCX_BOOLN, integers (decimal), KCX_D64 (eight
 * decimals), KCX_TIME (local calendar text).
 *
 * Returns  new text; NULL when pXVal is NULL, for another type, when the value has no text, and when memory ran out.
 *          16-bit text that is not all ASCII has none as KCX_USTRING: see KCSDASUstrToAstr. */
ZEBCS_API astring *KCSDASXValToASCII(u32 valType, const void *pXVal);

/* Convert a text into a new one; D: or copy the default when the text is NULL.
 *
 * pStatus  receives 0; SM_STATUS_INVALID_INPUT when there is nothing to convert or copy; SM_STATUS_NO_MEMORY; or the
 *          converter's own. The new narrow text has one byte a unit, so UstrToAstr and UstrToAstrD give
 *          SM_STATUS_BUFFER_TOO_SMALL for text with a character above 0x7F. May be NULL.
 * Returns  new text, or NULL when the status is not 0. */
ZEBCS_API ustring *KCSDASAstrToUstr(const astring *pAstr, s32 *pStatus);
ZEBCS_API ustring *KCSDASAstrToUstrD(const astring *pAstr, const ustring *pDefaultUstr, s32 *pStatus);
ZEBCS_API astring *KCSDASUstrToAstr(const ustring *pUstr, s32 *pStatus);
ZEBCS_API astring *KCSDASUstrToAstrD(const ustring *pUstr, const astring *pDefaultAstr, s32 *pStatus);

/* The same functions under their plain names. */
ZEBCS_API astring *DASuptCMDHelp(s32 numNVPair, astring **ppNVPair, const CmdDispatchTable *pCDT, s32 countCDT,
                                 PFNSENDCMD pfnSelf);
ZEBCS_API s32 DASuptCatSMStatusNode(KCSSSAStr *pXMLBuf, s32 smStatus, const astring *pMssg);
ZEBCS_API s32 DASuptBufCatSetCmdParam(KCSSSAStr *pXMLBuf, const astring *pParamName, const void *pOldVal,
                                      const void *pNewVal, const void *pVal, u32 valType);
ZEBCS_API s32 DASuptASCIIToXVal(const astring *pStr, u32 valType, void *pXVal);
ZEBCS_API s32 DASuptNVPValToXVal(s32 numNVPair, astring *const *ppNVPair, const astring *pValName, u32 valType,
                                 void *pXVal);
ZEBCS_API astring *DASuptXValToASCII(u32 valType, const void *pXVal);
ZEBCS_API ustring *DASuptAstrToUstr(const astring *pAstr, s32 *pStatus);
ZEBCS_API ustring *DASuptAstrToUstrD(const astring *pAstr, const ustring *pDefaultUstr, s32 *pStatus);
ZEBCS_API astring *DASuptUstrToAstr(const ustring *pUstr, s32 *pStatus);
ZEBCS_API astring *DASuptUstrToAstrD(const ustring *pUstr, const astring *pDefaultAstr, s32 *pStatus);

#ifdef __cplusplus
}
#endif

#endif

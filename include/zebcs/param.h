/* Parameter lists: commands get their parameters as arrays of "name=value" texts.
 *
 * An entry's name is the text before its first "=". An entry without "=", or that begins with it, has no name and
 * matches nothing; so does a NULL entry. The entries stay the caller's, and some functions change them in place.
 *
 * Threads: nothing here keeps state. */
#ifndef ZEBCS_PARAM_H
#define ZEBCS_PARAM_H

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writes a terminator over the entry's first "=". Returns the entry, which is now its name; NULL, and nothing is
 * changed, when it has none. */
ZEBCS_API astring *KCSGetAStrParamName(astring *pEntry);
ZEBCS_API ustring *KCSGetUStrParamName(ustring *pEntry);

/* Return the character after the entry's first "=", inside the entry; NULL when the entry has no name. */
ZEBCS_API astring *KCSGetAStrParamValue(const astring *pEntry);
ZEBCS_API ustring *KCSGetUStrParamValue(const ustring *pEntry);

/* Find the first entry of a name.
 *
 * numNVPair   entries in ppNVPair; below 1 for none.
 * pName       narrow: the name, or the name with "=" and any text behind it.
 *             16-bit: units are compared in pairs, one pair for each unit of the name, so the comparison runs on into
 *             "=" where pName has its terminator: no entry is ever found.
 * ignoreCase  exactly 1 compares without regard to case, by the locale.
 * Returns     the index, or -1. */
ZEBCS_API s32 KCSGetParamIndexByAStrName(s32 numNVPair, astring *const *ppNVPair, const astring *pName,
                                         booln ignoreCase);
ZEBCS_API s32 KCSGetParamIndexByUStrName(s32 numNVPair, ustring *const *ppNVPair, const ustring *pName,
                                         booln ignoreCase);

/* Return the value of the entry that the functions above find, inside that entry, or NULL. */
ZEBCS_API astring *KCSGetAStrParamValueByAStrName(s32 numNVPair, astring *const *ppNVPair, const astring *pName,
                                                  booln ignoreCase);
ZEBCS_API ustring *KCSGetUStrParamValueByUStrName(s32 numNVPair, ustring *const *ppNVPair, const ustring *pName,
                                                  booln ignoreCase);

/* Return 1 when the entry has a name, else 0. */
ZEBCS_API booln KCSIsValidParam(const astring *pEntry);
ZEBCS_API booln KCSIsValidUParam(const ustring *pEntry);

/* Removes every double quote from each of `argc` texts, in place. */
ZEBCS_API void KCSRemoveDQuotesInStrArr(s32 argc, astring **argv);

/* Joins two texts.
 *
 * ppFinalDAXML  receives a new text, released with KCSFreeMem; untouched when an input is NULL or memory ran out. */
ZEBCS_API void KCSAppendDNode(const astring *pDAXML, const astring *pNewNode, astring **ppFinalDAXML);

/* The same functions under their plain names. AppendNode is KCSAppendDNode's. */
ZEBCS_API astring *GetAStrParamName(astring *pEntry);
ZEBCS_API ustring *GetUStrParamName(ustring *pEntry);
ZEBCS_API astring *GetAStrParamValue(const astring *pEntry);
ZEBCS_API ustring *GetUStrParamValue(const ustring *pEntry);
ZEBCS_API s32 GetParamIndexByAStrName(s32 numNVPair, astring *const *ppNVPair, const astring *pName, booln ignoreCase);
ZEBCS_API s32 GetParamIndexByUStrName(s32 numNVPair, ustring *const *ppNVPair, const ustring *pName, booln ignoreCase);
ZEBCS_API astring *GetAStrParamValueByAStrName(s32 numNVPair, astring *const *ppNVPair, const astring *pName,
                                               booln ignoreCase);
ZEBCS_API ustring *GetUStrParamValueByUStrName(s32 numNVPair, ustring *const *ppNVPair, const ustring *pName,
                                               booln ignoreCase);
ZEBCS_API booln IsValidParam(const astring *pEntry);
ZEBCS_API booln IsValidUParam(const ustring *pEntry);
ZEBCS_API void RemoveDQuotesInStrArr(s32 argc, astring **argv);
ZEBCS_API void AppendNode(const astring *pDAXML, const astring *pNewNode, astring **ppFinalDAXML);

/* Return the length of the entry's name, in bytes or units; 0 when it has none. */
ZEBCS_API u32 GetAStrParamNameLen(const astring *pEntry);
ZEBCS_API u32 GetUStrParamNameLen(const ustring *pEntry);

#ifdef __cplusplus
}
#endif

#endif

/* The XML buffer: a document in UTF-8 that grows node by node.
 *
 *   KCSSSAStr *pBuf = KCXAllocBuf(256, 0);
 *   KCXBufCatBeginNode(pBuf, "Fans", "count=\"1\"");
 *   KCXBufCatNode(pBuf, "Speed", NULL, KCX_U32, &speed);
 *   KCXBufCatEndNode(pBuf, "Fans");
 *   astring *pText = KCXFreeBuf(pBuf, 1);   ... KCXFreeBufContent(pText);
 *
 * A buffer is a self-sizing string (unistr.h) on the heap. Names and attribute text are written as they are; values
 * are too, but for the two escaped kinds, so text that may hold "<", "&" or quotes belongs into one of those.
 *
 * The functions that append return 0; SM_STATUS_INVALID_INPUT when the buffer or the name is NULL, with nothing
 * appended; and what they say themselves. When memory for a larger buffer runs out what does not fit is left out and 0
 * is returned all the same. That is the whole element or, of the types 2, 9, 11, 13, 15 and 17, its start tag, its
 * content or its end tag. The name and the attribute text must not lie in the buffer's own text, nor 16-bit text.
 *
 * Threads: a buffer belongs to one thread at a time. */
#ifndef ZEBCS_XMLBUF_H
#define ZEBCS_XMLBUF_H

#include <zebcs/types.h>
#include <zebcs/unistr.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Value types: what pVal points to, and what stands between the tags. */
#define KCX_ASTRING 1          /* narrow text: as it is */
#define KCX_USTRING 2          /* 16-bit text: in UTF-8; nothing where it is not valid */
#define KCX_BOOLN 4            /* booln: "true" for 1, else "false" */
#define KCX_U32 5              /* u32: decimal for valSubType 0 and 10; "0x..." for 16, but "0" for 0 */
#define KCX_S32 7              /* s32: likewise; "0x..." shows its 32 bits */
#define KCX_U64 9              /* u64: decimal */
#define KCX_S64 11             /* s64: decimal */
#define KCX_D64 13             /* d64: always nothing */
#define KCX_TIME 15            /* s64 time: local calendar text; "-1" below 1 */
#define KCX_ASTRING_RECORD 16  /* KCSSSAStr, of which the pointer and the length count: as it is */
#define KCX_USTRING_POINTER 17 /* a pointer to 16-bit text, such as a KCSSSUStr begins with: as KCX_USTRING */
#define KCX_BEGIN 18           /* no value: the start tag alone */
#define KCX_END 19             /* no value: the end tag alone */
#define KCX_U8 20              /* u8: as KCX_U32 */
#define KCX_S8 21              /* s8: as KCX_S32, sign-extended */
#define KCX_U16 22             /* u16: as KCX_U32 */
#define KCX_S16 23             /* s16: as KCX_S32, sign-extended */
#define KCX_NODE 25            /* KCSXNodeDef, whose type is not KCX_NODE itself: as that definition says */
#define KCX_ASTRING_ESCAPED 26 /* narrow text: escaped in valSubType passes, where 0 is one */
#define KCX_USTRING_ESCAPED 27 /* 16-bit text: in UTF-8, escaped likewise */

/* A value with its type, for KCX_NODE. */
typedef struct KCSXNodeDef {
  u32 valType;      /* one of the types above */
  u32 valSubType;   /* what the type says */
  const void *pVal; /* the value */
} KCSXNodeDef;

/* Makes a buffer of at least `initSize` and 64 bytes. With `appendHeader` of exactly 1 its text begins with a
 * processing instruction for a stylesheet.
 *
 * Returns  the buffer, released with KCXFreeBuf; NULL when memory ran out. */
ZEBCS_API KCSSSAStr *KCXAllocBuf(u32 initSize, booln appendHeader);

/* Releases a buffer. NULL is ignored.
 *
 * getContentStr  exactly 1 hands the text over instead of releasing it.
 * Returns        the text, released with KCXFreeBufContent or KCSFreeMem; NULL unless it was asked for. */
ZEBCS_API astring *KCXFreeBuf(KCSSSAStr *pXMLBuf, booln getContentStr);

/* Releases a text that KCXFreeBuf handed over. NULL is ignored. */
ZEBCS_API void KCXFreeBufContent(astring *pContent);

/* Appends an element without content, as in <name attributes/>. pAttrStr may be NULL. */
ZEBCS_API s32 KCXBufCatEmptyNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr);

/* Appends an element: start tag, value, end tag.
 *
 * pAttrStr    text that follows the name and a blank, or NULL.
 * valType     one of the types above.
 * pVal        the value; NULL only for KCX_BEGIN and KCX_END.
 * valSubType  what the type says; ignored by the others.
 * Returns     SM_STATUS_INVALID_INPUT also for a NULL pVal, another type or another integer format;
 *             SM_STATUS_NO_MEMORY when text cannot be escaped, for want of memory or because it is not valid. Nothing
 *             is appended then. */
ZEBCS_API s32 KCXBufCatNodeT(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr, u32 valType,
                             const void *pVal, u32 valSubType);

/* KCXBufCatNodeT with a valSubType of 0. */
ZEBCS_API s32 KCXBufCatNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr, u32 valType,
                            const void *pVal);

/* Append a start tag and an end tag. */
ZEBCS_API s32 KCXBufCatBeginNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr);
ZEBCS_API s32 KCXBufCatEndNode(KCSSSAStr *pXMLBuf, const astring *pTagName);

/* Hands over the text of a buffer and releases the rest: KCXFreeBuf with 1. NULL gives NULL. */
ZEBCS_API astring *KCSXFreeBufGetContent(KCSSSAStr *pXMLBuf);

/* The same functions under their other names. */
ZEBCS_API KCSSSAStr *KCSXAllocBuf(u32 initSize, booln appendHeader);
ZEBCS_API astring *KCSXFreeBuf(KCSSSAStr *pXMLBuf, booln getContentStr);
ZEBCS_API void KCSXFreeBufContent(astring *pContent);
ZEBCS_API s32 KCSXBufCatEmptyNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr);
ZEBCS_API s32 KCSXBufCatBeginNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr);
ZEBCS_API s32 KCSXBufCatEndNode(KCSSSAStr *pXMLBuf, const astring *pTagName);
ZEBCS_API s32 KCSXBufCatNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr, u32 valType,
                             const void *pVal);

#ifdef __cplusplus
}
#endif

#endif

// The XML buffer and its node writer. Elements are formatted straight into the growing buffer.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "cichar_string.h"
#include "cichar_xml.h"
#include "owners.h"
#include "zebcs/encoding.h"
#include "zebcs/number.h"
#include "zebcs/xmlbuf.h"

namespace {

constexpr u32 kSmallestBuffer = 64;
constexpr char kHeader[] = R"(<?xml-stylesheet type="text/xsl" version="1.0" encoding="UTF-8"?>)";

char *Put(char *p, std::string_view text) {
  std::memcpy(p, text.data(), text.size());
  return p + text.size();
}

char *Put(char *p, char c) {
  *p = c;
  return p + 1;
}

// The tags of an element. Attribute text, where there is any, follows the name and a blank.
class Tags {
 public:
  Tags(const astring *pTagName, const astring *pAttrStr)
      : m_name(pTagName), m_attributes(pAttrStr == nullptr ? "" : pAttrStr), m_hasAttributes(pAttrStr != nullptr) {}

  size_t StartSize() const { return 2 + m_name.size() + (m_hasAttributes ? 1 + m_attributes.size() : 0); }
  size_t EndSize() const { return 3 + m_name.size(); }

  char *PutStart(char *p, std::string_view close = ">") const {
    p = Put(Put(p, '<'), m_name);
    if (m_hasAttributes) p = Put(Put(p, ' '), m_attributes);
    return Put(p, close);
  }

  char *PutEnd(char *p) const { return Put(Put(Put(Put(p, '<'), '/'), m_name), '>'); }

 private:
  std::string_view m_name;
  std::string_view m_attributes;
  bool m_hasAttributes;
};

void AppendText(KCSSSAStr &buffer, std::string_view text) {
  AppendWith(buffer, text.size(), [=](char *p) { Put(p, text); });
}

void AppendStart(KCSSSAStr &buffer, const Tags &tags) {
  AppendWith(buffer, tags.StartSize(), [&](char *p) { tags.PutStart(p); });
}

void AppendEnd(KCSSSAStr &buffer, const Tags &tags) {
  AppendWith(buffer, tags.EndSize(), [&](char *p) { tags.PutEnd(p); });
}

// Appends an element whose content of a known size `putContent` writes. That comes first, as what it reads may be the
// end of the buffer's own text, which the start tag follows.
template <class PutContent>
void AppendElement(KCSSSAStr &buffer, const Tags &tags, size_t contentSize, PutContent putContent) {
  AppendWith(buffer, tags.StartSize() + contentSize + tags.EndSize(), [&](char *p) {
    putContent(p + tags.StartSize());
    tags.PutStart(p);
    tags.PutEnd(p + tags.StartSize() + contentSize);
  });
}

void AppendElement(KCSSSAStr &buffer, const Tags &tags, std::string_view content) {
  AppendElement(buffer, tags, content.size(), [=](char *p) { Put(p, content); });
}

// Appends an element in three steps, after each of which the buffer may have grown.
void AppendInPieces(KCSSSAStr &buffer, const Tags &tags, std::string_view content) {
  AppendStart(buffer, tags);
  AppendText(buffer, content);
  AppendEnd(buffer, tags);
}

void AppendWideInPieces(KCSSSAStr &buffer, const Tags &tags, const ustring *pText) {
  AppendStart(buffer, tags);
  (void)SSAStrCatUStr(&buffer, pText);  // text that is not valid leaves the element empty
  AppendEnd(buffer, tags);
}

template <class T>
T Load(const void *p) {
  T value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

// An integer in decimal or, for the format 16, in hexadecimal with a prefix, which 0 goes without.
template <class Integer>
s32 AppendInteger(KCSSSAStr &buffer, const Tags &tags, Integer value, u32 format) {
  char text[16];
  char *end = text;
  if (format == 0 || format == 10) {
    end = std::to_chars(text, text + sizeof text, value).ptr;
  } else if (format == 16) {
    if (value != 0) end = Put(text, "0x");
    end = std::to_chars(end, text + sizeof text, static_cast<u32>(value), 16).ptr;
  } else {
    return SM_STATUS_INVALID_INPUT;
  }
  AppendElement(buffer, tags, std::string_view(text, end));
  return SM_STATUS_SUCCESS;
}

template <class Integer>
void AppendWideInteger(KCSSSAStr &buffer, const Tags &tags, Integer value) {
  char text[24];
  AppendInPieces(buffer, tags, std::string_view(text, std::to_chars(text, text + sizeof text, value).ptr));
}

void AppendTime(KCSSSAStr &buffer, const Tags &tags, time_t time) {
  char text[26];
  const bool hasText = time >= 1 && TimeToAStr(text, &time) == 0;
  AppendInPieces(buffer, tags, hasText ? text : "-1");
}

// Escapes once straight into the buffer; further passes need the text in between.
s32 AppendEscaped(KCSSSAStr &buffer, const Tags &tags, const astring *pText, u32 passes) {
  MallocPtr<astring> escaped;
  u32 size = 0;
  if (passes > 1) {
    escaped = EscapedXML(pText, passes - 1);
    if (!escaped) return SM_STATUS_NO_MEMORY;
    pText = escaped.get();
  }
  if (UTF8StrToXMLUTF8Str(nullptr, &size, nullptr, pText) != SM_STATUS_SUCCESS) return SM_STATUS_NO_MEMORY;
  AppendElement(buffer, tags, size - 1, [&size, pText](char *p) {
    (void)UTF8StrToXMLUTF8Str(p, &size, nullptr, pText);  // fits, as it was asked for its size
  });
  return SM_STATUS_SUCCESS;
}

s32 AppendEscaped(KCSSSAStr &buffer, const Tags &tags, const ustring *pText, u32 passes) {
  const MallocPtr<astring> escaped = EscapedXML(pText, passes);
  if (!escaped) return SM_STATUS_NO_MEMORY;
  AppendElement(buffer, tags, escaped.get());
  return SM_STATUS_SUCCESS;
}

s32 AppendRecord(KCSSSAStr &buffer, const Tags &tags, const KCSSSAStr &record) {
  if (record.pStr == nullptr) return SM_STATUS_INVALID_INPUT;
  AppendElement(buffer, tags, std::string_view(record.pStr, strnlen(record.pStr, record.strCurLen)));
  return SM_STATUS_SUCCESS;
}

s32 AppendValue(KCSSSAStr &buffer, const Tags &tags, u32 valType, const void *pVal, u32 valSubType) {
  switch (valType) {
    case KCX_ASTRING: AppendElement(buffer, tags, static_cast<const astring *>(pVal)); break;
    case KCX_USTRING: AppendWideInPieces(buffer, tags, static_cast<const ustring *>(pVal)); break;
    case KCX_BOOLN: AppendElement(buffer, tags, Load<booln>(pVal) == 1 ? "true" : "false"); break;
    case KCX_U32: return AppendInteger(buffer, tags, Load<u32>(pVal), valSubType);
    case KCX_U8: return AppendInteger(buffer, tags, u32{Load<u8>(pVal)}, valSubType);
    case KCX_U16: return AppendInteger(buffer, tags, u32{Load<u16>(pVal)}, valSubType);
    case KCX_S32: return AppendInteger(buffer, tags, Load<s32>(pVal), valSubType);
    case KCX_S8: return AppendInteger(buffer, tags, s32{Load<s8>(pVal)}, valSubType);
    case KCX_S16: return AppendInteger(buffer, tags, s32{Load<s16>(pVal)}, valSubType);
    case KCX_U64: AppendWideInteger(buffer, tags, Load<u64>(pVal)); break;
    case KCX_S64: AppendWideInteger(buffer, tags, Load<s64>(pVal)); break;
    // Kept: the digits of a double never make it into its element; a number would be expected there.
    case KCX_D64: AppendInPieces(buffer, tags, ""); break;
    case KCX_TIME: AppendTime(buffer, tags, Load<s64>(pVal)); break;
    case KCX_ASTRING_RECORD: return AppendRecord(buffer, tags, Load<KCSSSAStr>(pVal));
    case KCX_USTRING_POINTER: {
      const ustring *const pText = Load<const ustring *>(pVal);
      if (pText == nullptr) return SM_STATUS_INVALID_INPUT;
      AppendWideInPieces(buffer, tags, pText);
      break;
    }
    case KCX_BEGIN: AppendStart(buffer, tags); break;
    case KCX_END: AppendEnd(buffer, tags); break;
    case KCX_ASTRING_ESCAPED: return AppendEscaped(buffer, tags, static_cast<const astring *>(pVal), valSubType);
    case KCX_USTRING_ESCAPED: return AppendEscaped(buffer, tags, static_cast<const ustring *>(pVal), valSubType);
    default: return SM_STATUS_INVALID_INPUT;
  }
  return SM_STATUS_SUCCESS;
}

}  // namespace

KCSSSAStr *KCXAllocBuf(u32 initSize, booln appendHeader) {
  MallocPtr<KCSSSAStr> buffer = MallocArray<KCSSSAStr>(1);
  if (!buffer || SSAStrAlloc(buffer.get(), std::max(initSize, kSmallestBuffer)) == nullptr) return nullptr;
  if (appendHeader == 1) AppendText(*buffer, kHeader);
  return buffer.release();
}

astring *KCXFreeBuf(KCSSSAStr *pXMLBuf, booln getContentStr) {
  const MallocPtr<KCSSSAStr> buffer(pXMLBuf);
  if (!buffer) return nullptr;
  if (getContentStr == 1) return buffer->pStr;
  SSAStrFree(buffer.get());
  return nullptr;
}

void KCXFreeBufContent(astring *pContent) { std::free(pContent); }

astring *KCSXFreeBufGetContent(KCSSSAStr *pXMLBuf) { return KCXFreeBuf(pXMLBuf, 1); }

s32 KCXBufCatEmptyNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr) {
  if (pXMLBuf == nullptr || pTagName == nullptr) return SM_STATUS_INVALID_INPUT;
  const Tags tags(pTagName, pAttrStr);
  AppendWith(*pXMLBuf, tags.StartSize() + 1, [&](char *p) { tags.PutStart(p, "/>"); });
  return SM_STATUS_SUCCESS;
}

s32 KCXBufCatNodeT(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr, u32 valType, const void *pVal,
                   u32 valSubType) {
  if (pXMLBuf == nullptr || pTagName == nullptr) return SM_STATUS_INVALID_INPUT;
  if (valType == KCX_NODE && pVal != nullptr) {
    const KCSXNodeDef node = Load<KCSXNodeDef>(pVal);
    if (node.valType == KCX_NODE) return SM_STATUS_INVALID_INPUT;
    return KCXBufCatNodeT(pXMLBuf, pTagName, pAttrStr, node.valType, node.pVal, node.valSubType);
  }
  if (pVal == nullptr && valType != KCX_BEGIN && valType != KCX_END) return SM_STATUS_INVALID_INPUT;
  return AppendValue(*pXMLBuf, Tags(pTagName, pAttrStr), valType, pVal, valSubType);
}

s32 KCXBufCatNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr, u32 valType, const void *pVal) {
  return KCXBufCatNodeT(pXMLBuf, pTagName, pAttrStr, valType, pVal, 0);
}

s32 KCXBufCatBeginNode(KCSSSAStr *pXMLBuf, const astring *pTagName, const astring *pAttrStr) {
  return KCXBufCatNode(pXMLBuf, pTagName, pAttrStr, KCX_BEGIN, nullptr);
}

s32 KCXBufCatEndNode(KCSSSAStr *pXMLBuf, const astring *pTagName) {
  return KCXBufCatNode(pXMLBuf, pTagName, nullptr, KCX_END, nullptr);
}

// Data-access support: help documents, status nodes, set-command parameters, and values as text.
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "cichar_number.h"
#include "cichar_string.h"
#include "cichar_xml.h"
#include "owners.h"
#include "xml_buffer_owner.h"
#include "zebcs/dasupport.h"
#include "zebcs/encoding.h"
#include "zebcs/number.h"
#include "zebcs/param.h"
#include "zebcs/unistr.h"

namespace {

using std::string_view;

template <class T>
T Load(const void *p) {
  T value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

template <class T>
void Store(void *p, T value) {
  std::memcpy(p, &value, sizeof value);
}

template <class Unit>
MallocPtr<Unit> NewText(const Unit *pText, size_t length) {
  MallocPtr<Unit> copy = MallocArray<Unit>(length + 1);
  if (copy) std::memcpy(copy.get(), pText, (length + 1) * sizeof(Unit));
  return copy;
}

template <class Number>
MallocPtr<astring> NewDecimal(const void *pXVal) {
  astring text[24];
  astring *const end = std::to_chars(text, text + sizeof text, Load<Number>(pXVal)).ptr;
  *end = 0;
  return NewText(text, static_cast<size_t>(end - text));
}

MallocPtr<astring> NewFixed(d64 value) {
  constexpr int kDecimals = 8;
  const size_t room = static_cast<size_t>(FormatFixed(nullptr, 0, value, kDecimals)) + 1;
  MallocPtr<astring> text = MallocArray<astring>(room);
  if (text) (void)FormatFixed(text.get(), room, value, kDecimals);
  return text;
}

// Makes text of a value. SM_STATUS_INVALID_INPUT: it has none.
s32 MakeText(u32 valType, const void *pXVal, MallocPtr<astring> &text) {
  if (pXVal == nullptr) return SM_STATUS_INVALID_INPUT;
  const astring *const pText = static_cast<const astring *>(pXVal);
  const ustring *const pWideText = static_cast<const ustring *>(pXVal);
  s32 status = SM_STATUS_NO_MEMORY;
  switch (valType) {
    case KCX_ASTRING: text = NewText(pText, std::strlen(pText)); break;
    case KCX_USTRING: text.reset(DASuptUstrToAstr(pWideText, &status)); break;
    case KCX_BOOLN: text = Load<booln>(pXVal) == 1 ? NewText("true", 4) : NewText("false", 5); break;
    case KCX_U32: text = NewDecimal<u32>(pXVal); break;
    case KCX_U8: text = NewDecimal<u8>(pXVal); break;
    case KCX_U16: text = NewDecimal<u16>(pXVal); break;
    case KCX_S32: text = NewDecimal<s32>(pXVal); break;
    case KCX_S8: text = NewDecimal<s8>(pXVal); break;
    case KCX_S16: text = NewDecimal<s16>(pXVal); break;
    case KCX_U64: text = NewDecimal<u64>(pXVal); break;
    case KCX_S64: text = NewDecimal<s64>(pXVal); break;
    case KCX_D64: text = NewFixed(Load<d64>(pXVal)); break;
    case KCX_TIME: {
      const time_t time = Load<s64>(pXVal);
      astring calendarText[26];
      if (TimeToAStr(calendarText, &time) != 0) return SM_STATUS_INVALID_INPUT;
      text = NewText(calendarText, std::strlen(calendarText));
      break;
    }
    case KCX_ASTRING_ESCAPED: text = EscapedXML(pText, 0, &status); break;
    case KCX_USTRING_ESCAPED: text = EscapedXML(pWideText, 0, &status); break;
    default: return SM_STATUS_INVALID_INPUT;
  }
  if (text) return SM_STATUS_SUCCESS;
  return status == SM_STATUS_NO_MEMORY ? SM_STATUS_NO_MEMORY : SM_STATUS_INVALID_INPUT;
}

// Stores where the caller wants it, which may be nowhere.
void Report(s32 status, s32 *pStatus) {
  if (pStatus != nullptr) *pStatus = status;
}

// The conversions of text to new text: what there is of it is converted, else the default is copied.
template <class Dest, class Src, class LengthOf, class DestLengthOf>
Dest *NewConverted(const Src *pText, const Dest *pDefault, s32 *pStatus, s32 (*convert)(Dest *, u32 *, const Src *),
                   LengthOf lengthOf, DestLengthOf destLengthOf) {
  if (pText == nullptr && pDefault == nullptr) {
    Report(SM_STATUS_INVALID_INPUT, pStatus);
    return nullptr;
  }
  if (pText == nullptr) {
    MallocPtr<Dest> copy = NewText(pDefault, destLengthOf(pDefault));
    Report(copy ? SM_STATUS_SUCCESS : SM_STATUS_NO_MEMORY, pStatus);
    return copy.release();
  }
  const size_t room = lengthOf(pText) + 1;
  MallocPtr<Dest> converted = room <= UINT32_MAX ? MallocArray<Dest>(room) : nullptr;
  if (!converted) {
    Report(SM_STATUS_NO_MEMORY, pStatus);
    return nullptr;
  }
  u32 size = static_cast<u32>(room);
  const s32 status = convert(converted.get(), &size, pText);
  Report(status, pStatus);
  return status == SM_STATUS_SUCCESS ? converted.release() : nullptr;
}

}  // namespace

astring *DASuptCMDHelp(s32 /*numNVPair*/, astring ** /*ppNVPair*/, const CmdDispatchTable *pCDT, s32 countCDT,
                       PFNSENDCMD pfnSelf) {
  XMLBufferPtr document(KCXAllocBuf(256, 0));
  if (!document) return nullptr;
  // The buffer leaves out what it has no memory for, and says nothing of it.
  auto hasGrown = [&document, length = document->strCurLen]() mutable {
    return std::exchange(length, document->strCurLen) < document->strCurLen;
  };
  if (pCDT != nullptr && countCDT >= 1 && pfnSelf != nullptr) {
    astring count[24];
    (void)std::snprintf(count, sizeof count, "count=\"%d\"", countCDT - 1);  // fits every count
    (void)KCXBufCatBeginNode(document.get(), "CLICmdHelp", count);           // has all it needs, as below
    if (!hasGrown()) return nullptr;
    for (s32 i = 0; i < countCDT; ++i) {
      if (pCDT[i].pfnSendCmd == nullptr || pCDT[i].pfnSendCmd == pfnSelf) continue;
      // Made anew for each: a command may take its parameters apart in place.
      astring information[] = "zebusrinfo=dasupt";
      astring help[] = "cmdhelp=true";
      std::array<astring *, 2> parameters{information, help};
      const MallocPtr<astring> answer(pCDT[i].pfnSendCmd(static_cast<s32>(parameters.size()), parameters.data()));
      if (!answer) continue;
      BuiltText attribute(64);
      attribute.Add("val=\"");
      if (pCDT[i].pCmdValue != nullptr) attribute.Add(pCDT[i].pCmdValue);
      attribute.Add("\"");
      if (attribute.get() == nullptr) return nullptr;
      (void)KCXBufCatNode(document.get(), "zebcmd", attribute.get(), KCX_ASTRING, answer.get());
      if (!hasGrown()) return nullptr;
    }
    (void)KCXBufCatEndNode(document.get(), "CLICmdHelp");
    if (!hasGrown()) return nullptr;
  }
  return KCXFreeBuf(document.release(), 1);
}

s32 DASuptCatSMStatusNode(KCSSSAStr *pXMLBuf, s32 smStatus, const astring *pMssg) {
  if (pMssg == nullptr) return KCXBufCatNode(pXMLBuf, "SMStatus", nullptr, KCX_S32, &smStatus);
  BuiltText attribute(256);
  attribute.Add("mssg=\"");
  attribute.Add(pMssg);
  attribute.Add("\"");
  return KCXBufCatNode(pXMLBuf, "SMStatus", attribute.get(), KCX_S32, &smStatus);
}

s32 DASuptBufCatSetCmdParam(KCSSSAStr *pXMLBuf, const astring *pParamName, const void *pOldVal, const void *pNewVal,
                            const void *pVal, u32 valType) {
  if (pXMLBuf == nullptr || pParamName == nullptr) return SM_STATUS_INVALID_INPUT;
  if (pVal == nullptr && (pOldVal == nullptr || pNewVal == nullptr)) return SM_STATUS_INVALID_INPUT;
  BuiltText attributes(256);
  if (attributes.get() == nullptr) return SM_STATUS_NO_MEMORY;
  attributes.Add("name=\"");
  attributes.Add(pParamName);
  const struct {
    string_view start;
    const void *pValue;
  } values[] = {{"\" oldval=\"", pOldVal}, {"\" newval=\"", pNewVal}, {"\" value=\"", pVal}};
  for (const auto &[start, pValue] : values) {
    MallocPtr<astring> text;
    const s32 status = MakeText(valType, pValue, text);
    if (status == SM_STATUS_NO_MEMORY) return status;
    if (status != SM_STATUS_SUCCESS) continue;
    attributes.Add(start);
    attributes.Add(text.get());
  }
  attributes.Add("\"");
  if (attributes.get() == nullptr) return SM_STATUS_NO_MEMORY;
  return KCXBufCatEmptyNode(pXMLBuf, "Parameter", attributes.get());
}

s32 DASuptASCIIToXVal(const astring *pStr, u32 valType, void *pXVal) {
  constexpr s32 kRadix = 10;
  if (pXVal == nullptr) return SM_STATUS_INVALID_INPUT;
  if (pStr == nullptr) return -1;
  s32 status = SM_STATUS_SUCCESS;
  switch (valType) {
    case KCX_ASTRING: Store(pXVal, pStr); break;
    case KCX_BOOLN: Store(pXVal, ASCIIToBoolnV(pStr, &status)); break;
    case KCX_U32: Store(pXVal, ASCIIToUnSigned32VT(pStr, kRadix, &status)); break;
    case KCX_U8: Store(pXVal, static_cast<u8>(ASCIIToUnSigned32VT(pStr, kRadix, &status))); break;
    case KCX_U16: Store(pXVal, static_cast<u16>(ASCIIToUnSigned32VT(pStr, kRadix, &status))); break;
    case KCX_S32: Store(pXVal, ASCIIToSigned32VT(pStr, kRadix, &status)); break;
    case KCX_S8: Store(pXVal, static_cast<s8>(ASCIIToSigned32VT(pStr, kRadix, &status))); break;
    case KCX_S16: Store(pXVal, static_cast<s16>(ASCIIToSigned32VT(pStr, kRadix, &status))); break;
    case KCX_U64: Store(pXVal, ASCIIToUnSigned64VT(pStr, kRadix, &status)); break;
    case KCX_S64: Store(pXVal, ASCIIToSigned64VT(pStr, kRadix, &status)); break;
    case KCX_D64: Store(pXVal, ASCIIToDouble(pStr)); break;
    case KCSDAS_THOUSANDTHS: Store(pXVal, ASCIIToSigned64VT(pStr, kRadix, &status) / 1000); break;
    default: return SM_STATUS_BAD_PARAMETER;
  }
  return status;
}

s32 DASuptNVPValToXVal(s32 numNVPair, astring *const *ppNVPair, const astring *pValName, u32 valType, void *pXVal) {
  const astring *const pText = GetAStrParamValueByAStrName(numNVPair, ppNVPair, pValName, 0);
  return pText == nullptr ? SM_STATUS_INVALID_INPUT : DASuptASCIIToXVal(pText, valType, pXVal);
}

astring *DASuptXValToASCII(u32 valType, const void *pXVal) {
  MallocPtr<astring> text;
  (void)MakeText(valType, pXVal, text);  // shows in the text
  return text.release();
}

ustring *DASuptAstrToUstrD(const astring *pAstr, const ustring *pDefaultUstr, s32 *pStatus) {
  return NewConverted(pAstr, pDefaultUstr, pStatus, UTF8StrToUCS2Str, std::strlen, Uni_strlen);
}

ustring *DASuptAstrToUstr(const astring *pAstr, s32 *pStatus) { return DASuptAstrToUstrD(pAstr, nullptr, pStatus); }

astring *DASuptUstrToAstrD(const ustring *pUstr, const astring *pDefaultAstr, s32 *pStatus) {
  // Kept: there is room for a byte a unit, so that text beyond ASCII does not fit; asking for the size would be usual.
  return NewConverted(pUstr, pDefaultAstr, pStatus, UCS2StrToUTF8Str, Uni_strlen, std::strlen);
}

astring *DASuptUstrToAstr(const ustring *pUstr, s32 *pStatus) { return DASuptUstrToAstrD(pUstr, nullptr, pStatus); }

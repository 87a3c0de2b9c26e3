// XML buffers, node by node beside plain text, and what data-access support makes of values. A document without raw
// text is well-formed.
#include <strings.h>

#include <bit>
#include <cinttypes>
#include <ctime>
#include <optional>
#include <vector>

#include "fuzzer.h"
#include "zebcs/zebcs.h"

namespace {

constexpr char kHeader[] = R"(<?xml-stylesheet type="text/xsl" version="1.0" encoding="UTF-8"?>)";

std::string Escaped(std::string text, u32 passes) {
  for (u32 pass = 0; pass < std::max(passes, 1U); ++pass) {
    std::string escaped;
    for (const char c : text) {
      switch (c) {
        case '"': escaped += "&quot;"; break;
        case '&': escaped += "&amp;"; break;
        case '\'': escaped += "&apos;"; break;
        case '<': escaped += "&lt;"; break;
        case '>': escaped += "&gt;"; break;
        default: escaped += c; break;
      }
    }
    if (escaped == text) break;
    text = escaped;
  }
  return text;
}

// One pass back.
std::string Unescaped(const std::string &text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '&') {
      plain += text[i];
      continue;
    }
    const size_t end = text.find(';', i);
    FUZZ_CHECK(end != std::string::npos);
    const std::string name = text.substr(i + 1, end - i - 1);
    FUZZ_CHECK(name == "quot" || name == "amp" || name == "apos" || name == "lt" || name == "gt");
    plain += name == "quot" ? '"' : name == "amp" ? '&' : name == "apos" ? '\'' : name == "lt" ? '<' : '>';
    i = end;
  }
  return plain;
}

bool IsUTF8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<u8>(text[i]);
    const size_t tail = lead < 0x80 ? 0 : lead < 0xC2 ? 9 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : lead < 0xF5 ? 3 : 9;
    if (tail == 9 || tail >= text.size() - i) return false;
    u32 codePoint = tail == 0 ? lead : lead & (0x3FU >> tail);
    for (size_t k = 1; k <= tail; ++k) {
      const auto byte = static_cast<u8>(text[i + k]);
      if ((byte & 0xC0) != 0x80) return false;
      codePoint = codePoint << 6 | (byte & 0x3F);
    }
    constexpr u32 kFirst[] = {0, 0x80, 0x800, 0x10000};
    if (codePoint < kFirst[tail] || codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) return false;
    i += tail + 1;
  }
  return true;
}

// Whether tags nest, and text between them has no "<" and no "&" but those of entities.
bool IsWellFormed(std::string_view document) {
  std::vector<std::string_view> open;
  if (document.starts_with(kHeader)) document.remove_prefix(sizeof kHeader - 1);
  while (!document.empty()) {
    if (document[0] != '<') {
      const std::string_view text = document.substr(0, document.find('<'));
      (void)Unescaped(std::string(text));
      if (text.find('>') != std::string_view::npos) return false;
      document.remove_prefix(text.size());
      continue;
    }
    const size_t end = document.find('>');
    if (end == std::string_view::npos || end == 1) return false;
    const std::string_view tag = document.substr(1, end - 1);
    document.remove_prefix(end + 1);
    const std::string_view name = tag.substr(0, tag.find_first_of(" /", 1));
    if (tag[0] == '/') {
      if (open.empty() || open.back() != tag.substr(1)) return false;
      open.pop_back();
    } else if (tag.back() != '/') {
      open.push_back(name);
    }
  }
  return open.empty();
}

// What the converter to UTF-8 gives, which its own fuzzer looks at; nothing where the text is not valid.
std::optional<std::string> UTF8Of(const std::vector<ustring> &text) {
  std::vector<char> room(4 * text.size() + 1);
  auto size = static_cast<u32>(room.size());
  if (KCSUCS2StrToUTF8Str(room.data(), &size, text.data()) != SM_STATUS_SUCCESS) return std::nullopt;
  return std::string(room.data());
}

template <class... Arguments>
std::string Formatted(const char *format, Arguments... arguments) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  char text[400];
  (void)std::snprintf(text, sizeof text, format, arguments...);
#pragma GCC diagnostic pop
  return text;
}

std::optional<std::string> CalendarText(s64 seconds) {
  const time_t when = seconds;
  char text[64];
  if (ctime_r(&when, text) == nullptr) return std::nullopt;
  return std::string(text, std::strlen(text) - 1);
}

// The values that an input gives, one for each kind of type.
struct Values {
  s64 number = 0;
  std::string text;
  std::vector<ustring> wideText;  // terminated
  KCSSSAStr record{};
  const ustring *wideTextPointer = nullptr;

  // What a value of this type is at.
  const void *At(u32 valType) const {
    switch (valType) {
      case KCX_ASTRING:
      case KCX_ASTRING_ESCAPED: return text.c_str();
      case KCX_USTRING:
      case KCX_USTRING_ESCAPED: return wideText.data();
      case KCX_ASTRING_RECORD: return &record;
      case KCX_USTRING_POINTER: return &wideTextPointer;
      default: return &number;  // integers are little-endian: it begins with the smaller ones
    }
  }
};

void FillValues(Values &values, FuzzInput &input) {
  values.number = input.Take<s64>();
  values.text = input.TakeText();
  const std::string_view bytes = input.TakeBytes(input.Take<u8>() % 64U);
  values.wideText.assign(bytes.size() / 2 + 1, 0);
  std::memcpy(values.wideText.data(), bytes.data(), bytes.size() / 2 * 2);
  values.wideText.resize(static_cast<size_t>(std::find(values.wideText.begin(), values.wideText.end(), ustring{0}) -
                                             values.wideText.begin()) +
                         1);
  const auto length = static_cast<u32>(values.text.size());
  values.record = {values.text.data(), length + 1, length};
  values.wideTextPointer = values.wideText.data();
}

std::optional<std::string> IntegerContent(u32 valType, s64 number, u32 format) {
  if (format != 0 && format != 10 && format != 16) return std::nullopt;
  switch (valType) {
    case KCX_U32: return Formatted(format == 16 ? "%#x" : "%u", static_cast<u32>(number));
    case KCX_U8: return Formatted(format == 16 ? "%#x" : "%u", static_cast<u8>(number));
    case KCX_U16: return Formatted(format == 16 ? "%#x" : "%u", static_cast<u16>(number));
    case KCX_S32: return Formatted(format == 16 ? "%#x" : "%d", static_cast<s32>(number));
    case KCX_S8: return Formatted(format == 16 ? "%#x" : "%d", static_cast<s8>(number));
    default: return Formatted(format == 16 ? "%#x" : "%d", static_cast<s16>(number));
  }
}

// What stands between the tags, and the status; nothing for a node that is refused.
std::optional<std::string> Content(const Values &values, u32 valType, u32 valSubType, s32 &status) {
  status = SM_STATUS_SUCCESS;
  std::optional<std::string> content;
  switch (valType) {
    case KCX_ASTRING:
    case KCX_ASTRING_RECORD: return values.text;
    case KCX_USTRING:
    case KCX_USTRING_POINTER: return UTF8Of(values.wideText).value_or("");
    case KCX_BOOLN: return static_cast<booln>(values.number) == 1 ? "true" : "false";
    case KCX_U32:
    case KCX_U8:
    case KCX_U16:
    case KCX_S32:
    case KCX_S8:
    case KCX_S16:
      content = IntegerContent(valType, values.number, valSubType);
      status = content ? SM_STATUS_SUCCESS : SM_STATUS_INVALID_INPUT;
      return content;
    case KCX_U64: return Formatted("%" PRIu64, static_cast<u64>(values.number));
    case KCX_S64: return Formatted("%" PRId64, values.number);
    case KCX_D64: return "";
    case KCX_TIME: return values.number < 1 ? "-1" : CalendarText(values.number).value_or("-1");
    case KCX_ASTRING_ESCAPED: return Escaped(values.text, valSubType);
    case KCX_USTRING_ESCAPED:
      content = UTF8Of(values.wideText);
      if (content) content = Escaped(*content, valSubType);
      status = content ? SM_STATUS_SUCCESS : SM_STATUS_NO_MEMORY;
      return content;
    default: status = SM_STATUS_INVALID_INPUT; return std::nullopt;
  }
}

// A document, and the text that it must be.
class Document {
 public:
  Document(u32 size, bool hasHeader) : m_buffer(KCXAllocBuf(size, hasHeader ? 1 : 0)) {
    FUZZ_CHECK(m_buffer != nullptr && m_buffer->strBufSize >= std::max(size, 64U));
    if (hasHeader) m_expected = kHeader;
    Check();
  }

  void Append(FuzzInput &input) {
    constexpr const char *kNames[] = {"a", "Fans", "p-1", "_x.y"};
    constexpr const char *kAttributes[] = {"", "count=\"1\"", "a='' b=\"c d\"", "x=\"&amp;\""};
    const auto choice = input.Take<u8>();
    const auto type = input.Take<u8>();
    std::string name = kNames[choice % 4];
    if ((choice & 0x80) != 0) name = RawText(input);
    std::string attributes = kAttributes[choice / 4 % 4];
    if ((choice & 0x40) != 0) attributes = RawText(input);
    const char *const pAttributes = (choice & 0x10) != 0 ? attributes.c_str() : nullptr;
    const std::string start = "<" + name + (pAttributes != nullptr ? " " + attributes : "");

    switch (const u32 valType = type % 40U) {
      case KCX_BEGIN:
        FUZZ_CHECK(KCXBufCatBeginNode(m_buffer, name.c_str(), pAttributes) == SM_STATUS_SUCCESS);
        m_expected += start + ">";
        m_open.push_back(name);
        break;
      case KCX_END:
        if (m_open.empty()) {
          m_isClean = false;
        } else {
          name = m_open.back();
          m_open.pop_back();
        }
        FUZZ_CHECK(KCXBufCatNodeT(m_buffer, name.c_str(), pAttributes, KCX_END, nullptr, type) == SM_STATUS_SUCCESS);
        m_expected += "</" + name + ">";
        break;
      case 30:
        FUZZ_CHECK(KCXBufCatEmptyNode(m_buffer, name.c_str(), pAttributes) == SM_STATUS_SUCCESS);
        m_expected += start + "/>";
        break;
      case 31: AppendStatus(input, pAttributes != nullptr); break;
      case 32: AppendParameter(input, type / 40U); break;
      default: AppendValue(input, valType, name, pAttributes, start); break;
    }
    Check();
  }

  // Takes the text out of the buffer.
  void Finish() {
    if (m_isClean && m_open.empty()) {
      FUZZ_CHECK(IsWellFormed(m_expected));
      FUZZ_CHECK(!m_isUTF8 || IsUTF8({m_buffer->pStr, m_buffer->strCurLen}));
    }
    astring *const text = KCSXFreeBufGetContent(m_buffer);
    FUZZ_CHECK(text != nullptr && text == m_expected);
    KCXFreeBufContent(text);
  }

 private:
  std::string RawText(FuzzInput &input) {
    m_isClean = false;
    return input.TakeText();
  }

  void AppendValue(FuzzInput &input, u32 valType, const std::string &name, const char *pAttributes,
                   const std::string &start) {
    constexpr u32 kFormats[] = {0, 10, 16, 1, 2, 3, 11, 4};
    Values values;
    const auto choice = input.Take<u8>();
    const u32 valSubType = kFormats[choice % 8];
    FillValues(values, input);
    const bool isNested = (choice & 0x80) != 0;
    const bool hasValue = (choice & 0x70) != 0;
    const void *const pVal = hasValue ? values.At(valType) : nullptr;
    s32 expected = SM_STATUS_INVALID_INPUT;
    std::optional<std::string> content;
    if (hasValue) content = Content(values, valType, valSubType, expected);

    const KCSXNodeDef node = {valType, valSubType, pVal};
    s32 status = 0;
    if (isNested) {
      status = KCXBufCatNodeT(m_buffer, name.c_str(), pAttributes, KCX_NODE, &node, 3);
    } else if (valType == KCX_NODE && hasValue) {
      const KCSXNodeDef inner = {KCX_NODE, 0, &node};
      status = KCXBufCatNodeT(m_buffer, name.c_str(), pAttributes, KCX_NODE, &inner, 0);
    } else if (valSubType == 0) {
      status = KCXBufCatNode(m_buffer, name.c_str(), pAttributes, valType, pVal);
    } else {
      status = KCXBufCatNodeT(m_buffer, name.c_str(), pAttributes, valType, pVal, valSubType);
    }
    FUZZ_CHECK(status == expected);
    if (!content) return;
    std::string element = start;
    element += ">" + *content + "</" + name + ">";
    m_expected += element;
    const bool isEscaped = valType == KCX_ASTRING_ESCAPED || valType == KCX_USTRING_ESCAPED;
    const bool isRaw = valType == KCX_ASTRING || valType == KCX_ASTRING_RECORD || valType == KCX_USTRING ||
                       valType == KCX_USTRING_POINTER;
    if (isRaw) m_isClean = false;
    if (isEscaped) {
      m_isUTF8 = m_isUTF8 && IsUTF8(*content);
      if (valType == KCX_ASTRING_ESCAPED) CheckRoundTrip(*content, values.text, valSubType);
    }
  }

  static void CheckRoundTrip(std::string content, const std::string &text, u32 passes) {
    FUZZ_CHECK(IsUTF8(content) == IsUTF8(text));
    for (u32 pass = 0; pass < std::max(passes, 1U) && content != text; ++pass) content = Unescaped(content);
    FUZZ_CHECK(content == text);
  }

  void AppendStatus(FuzzInput &input, bool hasMessage) {
    const auto status = input.Take<s32>();
    const std::string message = RawText(input);
    FUZZ_CHECK(KCSDASCatSMStatusNode(m_buffer, status, hasMessage ? message.c_str() : nullptr) == SM_STATUS_SUCCESS);
    m_expected +=
        "<SMStatus" + (hasMessage ? " mssg=\"" + message + "\"" : "") + ">" + std::to_string(status) + "</SMStatus>";
  }

  void AppendParameter(FuzzInput &input, u32 choice);

  void Check() {
    FUZZ_CHECK(m_buffer->strCurLen == m_expected.size() && m_buffer->strBufSize > m_buffer->strCurLen);
    FUZZ_CHECK(std::memcmp(m_buffer->pStr, m_expected.c_str(), m_expected.size() + 1) == 0);
  }

  KCSSSAStr *m_buffer;
  std::string m_expected;
  std::vector<std::string> m_open;
  bool m_isClean = true;  // no text without escapes, and no end without a beginning
  bool m_isUTF8 = true;   // all escaped text
};

// --- Data-access support --------------------------------------------------------------------------------------------

// The text of a value, or nothing.
std::optional<std::string> ValueText(const Values &values, u32 valType) {
  switch (valType) {
    case KCX_ASTRING: return values.text;
    case KCX_USTRING: {
      // In one byte a unit, which beyond ASCII is seldom enough.
      const std::optional<std::string> text = UTF8Of(values.wideText);
      return text && text->size() < values.wideText.size() ? text : std::nullopt;
    }
    case KCX_D64: return Formatted("%.8f", std::bit_cast<d64>(values.number));
    case KCX_TIME: return CalendarText(values.number);
    case KCX_ASTRING_RECORD:
    case KCX_USTRING_POINTER: return std::nullopt;
    default: break;
  }
  s32 status = 0;
  return Content(values, valType, 0, status);
}

void CheckValueText(const Values &values, u32 valType) {
  const std::optional<std::string> expected = ValueText(values, valType);
  astring *const text = KCSDASXValToASCII(valType, values.At(valType));
  FUZZ_CHECK((text != nullptr) == expected.has_value());
  if (text != nullptr) FUZZ_CHECK(text == *expected);
  KCSFreeMem(text);
}

void Document::AppendParameter(FuzzInput &input, u32 choice) {
  const u32 valType = input.Take<u8>() % 30U;
  const u32 given = input.Take<u8>() % 8U;
  const std::string name = RawText(input);
  const std::string_view words[] = {"oldval", "newval", "value"};
  Values values[3];
  const void *pointers[3] = {};
  std::string attributes = "name=\"" + name;
  for (u32 i = 0; i < 3; ++i) {
    if (choice < 3 || i == 0) FillValues(values[i], input);
    if ((given & 1U << i) == 0) continue;
    FillValues(values[i], input);
    pointers[i] = values[i].At(valType);
    if (const auto text = ValueText(values[i], valType)) {
      attributes += "\" ";
      attributes += words[i];
      attributes += "=\"" + *text;
    }
  }
  const bool isComplete = (given & 4) != 0 || (given & 3) == 3;
  FUZZ_CHECK(KCSDASBufCatSetCmdParam(m_buffer, name.c_str(), pointers[0], pointers[1], pointers[2], valType) ==
             (isComplete ? SM_STATUS_SUCCESS : SM_STATUS_INVALID_INPUT));
  if (isComplete) m_expected += "<Parameter " + attributes + "\"/>";
}

// Text as a value: as the checked conversions, which their own fuzzer looks at, have it.
void CheckTextAsValue(const std::string &text, u32 valType) {
  const astring *const pText = text.c_str();
  s32 status = SM_STATUS_SUCCESS;
  u64 value = 0x5A5A5A5A5A5A5A5A;
  const auto store = [&](auto number) { std::memcpy(&value, &number, sizeof number); };
  switch (valType) {
    case KCX_ASTRING: store(pText); break;
    case KCX_BOOLN: {
      const bool isTrue = strcasecmp(pText, "true") == 0;
      store(static_cast<booln>(isTrue ? 1 : 0));
      if (!isTrue && strcasecmp(pText, "false") != 0) status = SM_STATUS_INVALID_INPUT;
      break;
    }
    case KCX_U32: store(KCSASCIIToUnSigned32VT(pText, 10, &status)); break;
    case KCX_U8: store(static_cast<u8>(KCSASCIIToUnSigned32VT(pText, 10, &status))); break;
    case KCX_U16: store(static_cast<u16>(KCSASCIIToUnSigned32VT(pText, 10, &status))); break;
    case KCX_S32: store(KCSASCIIToSigned32VT(pText, 10, &status)); break;
    case KCX_S8: store(static_cast<s8>(KCSASCIIToSigned32VT(pText, 10, &status))); break;
    case KCX_S16: store(static_cast<s16>(KCSASCIIToSigned32VT(pText, 10, &status))); break;
    case KCX_U64: store(KCSASCIIToUnSigned64VT(pText, 10, &status)); break;
    case KCX_S64: store(KCSASCIIToSigned64VT(pText, 10, &status)); break;
    case KCX_D64: store(KCSASCIIToDouble(pText)); break;
    case KCSDAS_THOUSANDTHS: store(KCSASCIIToSigned64VT(pText, 10, &status) / 1000); break;
    default: status = SM_STATUS_BAD_PARAMETER; break;
  }
  u64 got = 0x5A5A5A5A5A5A5A5A;
  FUZZ_CHECK(KCSDASASCIIToXVal(pText, valType, &got) == status && got == value);
  if (valType == KCX_ASTRING) return;  // the pointer is another one there

  std::string first = "other=1";
  std::string second = "Limit=" + text;
  astring *pairs[] = {first.data(), second.data()};
  got = 0x5A5A5A5A5A5A5A5A;
  FUZZ_CHECK(KCSDASNVPValToXVal(2, pairs, "Limit", valType, &got) == status && got == value);
  FUZZ_CHECK(KCSDASNVPValToXVal(2, pairs, "limit", valType, &got) == SM_STATUS_INVALID_INPUT && got == value);
}

void CheckNewTexts(const Values &values) {
  s32 status = 1;
  std::vector<ustring> expected(values.text.size() + 1);
  auto room = static_cast<u32>(expected.size());
  const s32 expectedStatus = KCSUTF8StrToUCS2Str(expected.data(), &room, values.text.c_str());
  ustring *wide = KCSDASAstrToUstr(values.text.c_str(), &status);
  FUZZ_CHECK(status == expectedStatus && (wide != nullptr) == (status == SM_STATUS_SUCCESS));
  if (wide != nullptr) FUZZ_CHECK(std::memcmp(wide, expected.data(), room) == 0);
  KCSFreeMem(wide);
  wide = KCSDASAstrToUstrD(nullptr, values.wideText.data(), &status);
  FUZZ_CHECK(wide != nullptr && status == SM_STATUS_SUCCESS);
  FUZZ_CHECK(std::equal(values.wideText.begin(), values.wideText.end(), wide));
  KCSFreeMem(wide);

  const std::optional<std::string> text = ValueText(values, KCX_USTRING);
  astring *narrow = KCSDASUstrToAstr(values.wideText.data(), &status);
  FUZZ_CHECK((narrow != nullptr) == text.has_value() && (status == SM_STATUS_SUCCESS) == text.has_value());
  if (narrow != nullptr) FUZZ_CHECK(narrow == *text);
  FUZZ_CHECK(text || status == SM_STATUS_BUFFER_TOO_SMALL || !UTF8Of(values.wideText));
  KCSFreeMem(narrow);
  narrow = KCSDASUstrToAstrD(nullptr, values.text.c_str(), &status);
  FUZZ_CHECK(narrow != nullptr && status == SM_STATUS_SUCCESS && narrow == values.text);
  KCSFreeMem(narrow);
}

// Commands: two that answer with the text of the input, one that does not answer, and the help itself.
const std::string *g_answer = nullptr;

astring *AnswerWith(const std::string &text, s32 count, astring **ppPairs) {
  FUZZ_CHECK(count == 2 && std::strcmp(ppPairs[0], "zebusrinfo=dasupt") == 0);
  FUZZ_CHECK(std::strcmp(ppPairs[1], "cmdhelp=true") == 0);
  auto *const answer = static_cast<astring *>(KCSAllocMem(static_cast<u32>(text.size() + 1)));
  FUZZ_CHECK(answer != nullptr);
  std::memcpy(answer, text.c_str(), text.size() + 1);
  return answer;
}

astring *Echo(s32 count, astring **ppPairs) { return AnswerWith(*g_answer, count, ppPairs); }
astring *EchoTwice(s32 count, astring **ppPairs) { return AnswerWith(*g_answer + *g_answer, count, ppPairs); }
astring *Silent(s32 /*count*/, astring ** /*ppPairs*/) { return nullptr; }
astring *Help(s32 /*count*/, astring ** /*ppPairs*/) {
  FUZZ_CHECK(false);
  return nullptr;
}

void CheckHelp(FuzzInput &input, const std::string &answer) {
  constexpr PFNSENDCMD kCommands[] = {Echo, EchoTwice, Silent, Help};
  g_answer = &answer;
  const size_t count = input.Take<u8>() % 6U;
  std::vector<std::string> names(count);
  std::vector<CmdDispatchTable> table(count);
  std::string expected = "<CLICmdHelp count=\"" + std::to_string(static_cast<int>(count) - 1) + "\">";
  for (size_t i = 0; i < count; ++i) {
    const size_t command = input.Take<u8>() % 4U;
    names[i] = input.TakeText();
    table[i] = {names[i].c_str(), kCommands[command]};
    if (command < 2) {
      expected += "<zebcmd val=\"" + names[i] + "\">" + answer;
      if (command == 1) expected += answer;
      expected += "</zebcmd>";
    }
  }
  expected += "</CLICmdHelp>";
  astring *const help = KCSDASCMDHelp(0, nullptr, table.data(), static_cast<s32>(count), Help);
  FUZZ_CHECK(help != nullptr && help == (count == 0 ? "" : expected));
  KCSFreeMem(help);
  g_answer = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzInput input(data, size);
  const auto choice = input.Take<u8>();
  Values values;
  FillValues(values, input);
  constexpr u32 kTypes[] = {KCX_ASTRING,
                            KCX_USTRING,
                            3,
                            KCX_BOOLN,
                            KCX_U32,
                            KCX_S32,
                            KCX_U64,
                            KCX_S64,
                            KCX_D64,
                            KCX_TIME,
                            KCX_ASTRING_RECORD,
                            KCX_USTRING_POINTER,
                            KCX_U8,
                            KCX_S8,
                            KCX_U16,
                            KCX_S16,
                            KCX_ASTRING_ESCAPED,
                            KCX_USTRING_ESCAPED,
                            28,
                            KCSDAS_THOUSANDTHS};
  for (const u32 valType : kTypes) {
    CheckTextAsValue(values.text, valType);
    CheckValueText(values, valType);
  }
  CheckNewTexts(values);
  CheckHelp(input, values.text);

  Document document(choice % 128U, (choice & 0x80) != 0);
  for (int i = 0; i < 100 && !input.IsEmpty(); ++i) document.Append(input);
  document.Finish();
  return 0;
}

// Data-access support: help documents, status nodes, set-command parameters, and values as text.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "zebcs/dasupport.h"
#include "zebcs/encoding.h"
#include "zebcs/frame.h"
#include "zebcs/param.h"
#include "zebcs/xmlbuf.h"

namespace {

using sandbox::Guard;
using sandbox::GuardedBuffer;
using Units = std::vector<ustring>;

constexpr s32 kUntouched = 12345;

astring *NewText(const std::string &text) {
  astring *const copy = static_cast<astring *>(KCSAllocMem(static_cast<u32>(text.size() + 1)));
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

// The text, which is released; "(null)" for none.
std::string Taken(astring *text) {
  if (text == nullptr) return "(null)";
  const std::string copy(text);
  KCSFreeMem(text);
  return copy;
}

Units Taken(ustring *text) {
  if (text == nullptr) return {'(', 'n', 'u', 'l', 'l', ')'};
  const Units copy(text, text + KCSUniStrlen(text));
  KCSFreeMem(text);
  return copy;
}

class XMLBuffer {
 public:
  XMLBuffer() : record(KCXAllocBuf(0, 0)) {}
  XMLBuffer(const XMLBuffer &) = delete;
  XMLBuffer &operator=(const XMLBuffer &) = delete;
  ~XMLBuffer() { EXPECT_EQ(KCXFreeBuf(record, 0), nullptr); }

  void Expect(const std::string &text) const {
    EXPECT_EQ(std::string(record->pStr), text);
    EXPECT_EQ(record->strCurLen, text.size());
    EXPECT_LT(record->strCurLen, record->strBufSize);
  }

  KCSSSAStr *record;
};

// --- Commands of a dispatch table -----------------------------------------------------------------------------------

// What the commands were called with, call by call.
std::vector<std::vector<std::string>> &Calls() {
  static std::vector<std::vector<std::string>> calls;
  return calls;
}

astring *Answer(const char *command, s32 numNVPair, astring **ppNVPair, const std::string &text) {
  std::vector<std::string> call = {command};
  for (s32 i = 0; i < numNVPair; ++i) call.emplace_back(ppNVPair[i] == nullptr ? "(null)" : ppNVPair[i]);
  Calls().push_back(call);
  return NewText(text);
}

astring *SendFirst(s32 numNVPair, astring **ppNVPair) {
  return Answer("first", numNVPair, ppNVPair, "<first a=\"1\">&</first>");
}
astring *SendSecond(s32 numNVPair, astring **ppNVPair) { return Answer("second", numNVPair, ppNVPair, "%s%n"); }
astring *SendEmpty(s32 numNVPair, astring **ppNVPair) { return Answer("empty", numNVPair, ppNVPair, ""); }
astring *SendLarge(s32 numNVPair, astring **ppNVPair) {
  return Answer("large", numNVPair, ppNVPair, std::string(5000, 'L'));
}
astring *SendNothing(s32 numNVPair, astring **ppNVPair) {
  KCSFreeMem(Answer("nothing", numNVPair, ppNVPair, ""));
  return nullptr;
}
astring *SendSelf(s32 /*numNVPair*/, astring ** /*ppNVPair*/) {
  ADD_FAILURE() << "the help command calls itself";
  return nullptr;
}

// Takes its parameters apart in place, as commands may.
astring *SendDestroyer(s32 numNVPair, astring **ppNVPair) {
  astring *const answer = Answer("destroyer", numNVPair, ppNVPair, "destroyed");
  for (s32 i = 0; i < numNVPair; ++i) {
    std::memset(ppNVPair[i], 'X', std::strlen(ppNVPair[i]));
    ppNVPair[i][1] = 0;
    ppNVPair[i] = nullptr;
  }
  return answer;
}

}  // namespace

TEST(DASuptCMDHelp, RunsEveryCommandButItself) {
  const std::string large = "<zebcmd val=\"large\">" + std::string(5000, 'L') + "</zebcmd>";
  const struct {
    const char *what;
    std::vector<CmdDispatchTable> commands;
    std::string expected;
    std::vector<std::string> called;
  } cases[] = {
      {"two commands and the help",
       {{"first", SendFirst}, {"help", SendSelf}, {"second", SendSecond}},
       "<CLICmdHelp count=\"2\"><zebcmd val=\"first\"><first a=\"1\">&</first></zebcmd>"
       "<zebcmd val=\"second\">%s%n</zebcmd></CLICmdHelp>",
       {"first", "second"}},
      {"one without a name",
       {{"help", SendSelf}, {nullptr, SendSecond}},
       "<CLICmdHelp count=\"1\"><zebcmd val=\"\">%s%n</zebcmd></CLICmdHelp>",
       {"second"}},
      {"one that answers nothing",
       {{"help", SendSelf}, {"nothing", SendNothing}, {"second", SendSecond}},
       "<CLICmdHelp count=\"2\"><zebcmd val=\"second\">%s%n</zebcmd></CLICmdHelp>",
       {"nothing", "second"}},
      {"an empty answer",
       {{"empty", SendEmpty}, {"help", SendSelf}},
       "<CLICmdHelp count=\"1\"><zebcmd val=\"empty\"></zebcmd></CLICmdHelp>",
       {"empty"}},
      {"the help alone", {{"help", SendSelf}}, "<CLICmdHelp count=\"0\"></CLICmdHelp>", {}},
      {"the help twice",
       {{"help", SendSelf}, {"?", SendSelf}, {"empty", SendEmpty}},
       "<CLICmdHelp count=\"2\"><zebcmd val=\"empty\"></zebcmd></CLICmdHelp>",
       {"empty"}},
      {"no help at all",
       {{"empty", SendEmpty}, {"empty", SendEmpty}},
       "<CLICmdHelp count=\"1\"><zebcmd val=\"empty\"></zebcmd><zebcmd val=\"empty\"></zebcmd></CLICmdHelp>",
       {"empty", "empty"}},
      {"an entry without a function",
       {{"none", nullptr}, {"empty", SendEmpty}, {"none", nullptr}, {"help", SendSelf}},
       "<CLICmdHelp count=\"3\"><zebcmd val=\"empty\"></zebcmd></CLICmdHelp>",
       {"empty"}},
      {"names are not escaped",
       {{"<&\"'%s%n", SendEmpty}, {"", SendEmpty}, {"help", SendSelf}},
       "<CLICmdHelp count=\"2\"><zebcmd val=\"<&\"'%s%n\"></zebcmd><zebcmd val=\"\"></zebcmd></CLICmdHelp>",
       {"empty", "empty"}},
      {"more than the buffer first held",
       {{"large", SendLarge}, {"large", SendLarge}, {"help", SendSelf}, {"large", SendLarge}},
       "<CLICmdHelp count=\"3\">" + large + large + large + "</CLICmdHelp>",
       {"large", "large", "large"}},
  };
  for (const auto &c : cases) {
    // Nothing behind the table is read, nor the caller's own parameters.
    const GuardedBuffer table(c.commands.size() * sizeof(CmdDispatchTable));
    std::memcpy(table.data<void>(), c.commands.data(), table.size());
    const GuardedBuffer none(0);
    for (const auto help : {DASuptCMDHelp, KCSDASCMDHelp}) {
      for (astring **const ppNVPair : {static_cast<astring **>(nullptr), none.data<astring *>()}) {
        Calls().clear();
        EXPECT_EQ(
            Taken(help(7, ppNVPair, table.data<CmdDispatchTable>(), static_cast<s32>(c.commands.size()), SendSelf)),
            c.expected)
            << c.what;
        std::vector<std::vector<std::string>> called;
        for (const std::string &name : c.called) called.push_back({name, "zebusrinfo=dasupt", "cmdhelp=true"});
        EXPECT_EQ(Calls(), called) << c.what;
      }
    }
  }
}

TEST(DASuptCMDHelp, CommandsThatChangeTheirParametersDisturbNoOther) {
  const CmdDispatchTable commands[] = {{"a", SendDestroyer}, {"b", SendEmpty}, {"c", SendDestroyer}, {"d", SendEmpty}};
  Calls().clear();
  EXPECT_EQ(Taken(DASuptCMDHelp(0, nullptr, commands, 4, SendSelf)),
            "<CLICmdHelp count=\"3\"><zebcmd val=\"a\">destroyed</zebcmd><zebcmd val=\"b\"></zebcmd>"
            "<zebcmd val=\"c\">destroyed</zebcmd><zebcmd val=\"d\"></zebcmd></CLICmdHelp>");
  ASSERT_EQ(Calls().size(), 4u);
  for (const std::vector<std::string> &call : Calls()) {
    EXPECT_EQ(call, (std::vector<std::string>{call[0], "zebusrinfo=dasupt", "cmdhelp=true"}));
  }
}

TEST(DASuptCMDHelp, IsEmptyWithoutATable) {
  const CmdDispatchTable commands[] = {{"empty", SendEmpty}};
  Calls().clear();
  for (const auto help : {DASuptCMDHelp, KCSDASCMDHelp}) {
    EXPECT_EQ(Taken(help(0, nullptr, nullptr, 1, SendSelf)), "");
    EXPECT_EQ(Taken(help(0, nullptr, nullptr, 0, nullptr)), "");
    EXPECT_EQ(Taken(help(0, nullptr, commands, 0, SendSelf)), "");
    EXPECT_EQ(Taken(help(0, nullptr, commands, -1, SendSelf)), "");
    EXPECT_EQ(Taken(help(0, nullptr, commands, std::numeric_limits<s32>::min(), SendSelf)), "");
    EXPECT_EQ(Taken(help(0, nullptr, commands, 1, nullptr)), "");
  }
  EXPECT_TRUE(Calls().empty());
}

TEST(DASuptCatSMStatusNode, WritesTheStatusInDecimal) {
  const struct {
    s32 status;
    const char *message;
    std::string expected;
  } cases[] = {
      {0, nullptr, "<SMStatus>0</SMStatus>"},
      {271, nullptr, "<SMStatus>271</SMStatus>"},
      {-1, nullptr, "<SMStatus>-1</SMStatus>"},
      {std::numeric_limits<s32>::max(), nullptr, "<SMStatus>2147483647</SMStatus>"},
      {std::numeric_limits<s32>::min(), "least", "<SMStatus mssg=\"least\">-2147483648</SMStatus>"},
      {0, "", "<SMStatus mssg=\"\">0</SMStatus>"},
      {2, "a \"quoted\" <message> & %s%n", "<SMStatus mssg=\"a \"quoted\" <message> & %s%n\">2</SMStatus>"},
      {2, "\xC3\xA9\xFF", "<SMStatus mssg=\"\xC3\xA9\xFF\">2</SMStatus>"},
  };
  for (const auto append : {DASuptCatSMStatusNode, KCSDASCatSMStatusNode}) {
    XMLBuffer all;
    std::string expected;
    for (const auto &c : cases) {
      XMLBuffer one;
      EXPECT_EQ(append(one.record, c.status, c.message), 0);
      one.Expect(c.expected);
      EXPECT_EQ(append(all.record, c.status, c.message), 0);
      expected += c.expected;
      all.Expect(expected);
    }
    EXPECT_EQ(append(nullptr, 0, nullptr), 271);
    EXPECT_EQ(append(nullptr, 0, "message"), 271);
  }
}

TEST(DASuptCatSMStatusNode, MessagesOfEveryLength) {
  for (size_t length = 0; length <= 600; ++length) {
    XMLBuffer buffer;
    const GuardedBuffer message(length + 1);
    std::memset(message.data<void>(), 'm', length);
    message.data<char>()[length] = 0;
    EXPECT_EQ(DASuptCatSMStatusNode(buffer.record, 1, message.data<char>()), 0);
    buffer.Expect("<SMStatus mssg=\"" + std::string(length, 'm') + "\">1</SMStatus>");
    EXPECT_EQ(DASuptCatSMStatusNode(buffer.record, 2, buffer.record->pStr + buffer.record->strCurLen - 11), 0);
    buffer.Expect("<SMStatus mssg=\"" + std::string(length, 'm') +
                  "\">1</SMStatus><SMStatus mssg=\"</SMStatus>\">2</SMStatus>");
  }
}

// --- Values as text -------------------------------------------------------------------------------------------------

namespace {

using Bytes = std::vector<unsigned char>;

template <class T>
Bytes BytesOf(const T &value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

Bytes BytesOf(const std::string &text) { return {text.c_str(), text.c_str() + text.size() + 1}; }

Bytes BytesOf(Units units) {
  units.push_back(0);
  Bytes bytes(units.size() * sizeof(ustring));
  std::memcpy(bytes.data(), units.data(), bytes.size());
  return bytes;
}

constexpr char kNone[] = "(null)";

struct ValueText {
  u32 type;
  Bytes value;
  std::string text;
};

template <class Integer>
void AddIntegers(std::vector<ValueText> &values, u32 type) {
  using Limits = std::numeric_limits<Integer>;
  for (const Integer value : {Integer{0}, Integer{1}, Integer{10}, Limits::max(), Limits::min(),
                              static_cast<Integer>(-1), static_cast<Integer>(Limits::max() / 2 + 1)}) {
    values.push_back({type, BytesOf(value), std::to_string(value)});
  }
}

std::string LongText(size_t length, char c) { return std::string(length, c); }

std::vector<ValueText> ValueTexts() {
  std::vector<ValueText> values = {
      {1, BytesOf(std::string()), ""},
      {1, BytesOf(std::string("<&\"'%s%n \xC3\xA9\xFF")), "<&\"'%s%n \xC3\xA9\xFF"},
      {1, BytesOf(LongText(1000, 'x')), LongText(1000, 'x')},
      {2, BytesOf(Units{}), ""},
      {2, BytesOf(Units{'a', '<', 0x7F}), "a<\x7F"},
      {2, BytesOf(Units(1000, 'x')), LongText(1000, 'x')},
      {2, BytesOf(Units{0x80}), kNone},
      {2, BytesOf(Units{'a', 0xE9, 'b'}), kNone},
      {2, BytesOf(Units{0xDC00}), kNone},
      {4, BytesOf(booln{1}), "true"},
      {4, BytesOf(booln{0}), "false"},
      {4, BytesOf(booln{2}), "false"},
      {4, BytesOf(booln{-1}), "false"},
      {4, BytesOf(booln{257}), "false"},
      {13, BytesOf(0.0), "0.00000000"},
      {13, BytesOf(-0.0), "-0.00000000"},
      {13, BytesOf(1.5), "1.50000000"},
      {13, BytesOf(-0.000000014), "-0.00000001"},
      {13, BytesOf(123456789.123456789), "123456789.12345679"},
      {13, BytesOf(1e23), "99999999999999991611392.00000000"},
      {13, BytesOf(std::numeric_limits<d64>::infinity()), "inf"},
      {13, BytesOf(-std::numeric_limits<d64>::infinity()), "-inf"},
      {15, BytesOf(s64{0}), "Thu Jan  1 00:00:00 1970"},
      {15, BytesOf(s64{-1}), "Wed Dec 31 23:59:59 1969"},
      {15, BytesOf(s64{533240568}), "Mon Nov 24 18:22:48 1986"},
      {15, BytesOf(s64{4102444799}), "Thu Dec 31 23:59:59 2099"},
      {15, BytesOf(std::numeric_limits<s64>::max()), kNone},
      {26, BytesOf(std::string()), ""},
      {26, BytesOf(std::string("plain")), "plain"},
      {26, BytesOf(std::string("a\"&'<>z\xFF")), "a&quot;&amp;&apos;&lt;&gt;z\xFF"},
      {27, BytesOf(Units{}), ""},
      {27, BytesOf(Units{'<', 0xE9, '&', 0x3042}), "&lt;\xC3\xA9&amp;\xE3\x81\x82"},
  };
  AddIntegers<u32>(values, 5);
  AddIntegers<u8>(values, 20);
  AddIntegers<u16>(values, 22);
  AddIntegers<s32>(values, 7);
  AddIntegers<s8>(values, 21);
  AddIntegers<s16>(values, 23);
  AddIntegers<u64>(values, 9);
  AddIntegers<s64>(values, 11);
  return values;
}

// Times are written for this zone above.
void UseGreenwichTime() {
  ASSERT_EQ(setenv("TZ", "UTC0", 1), 0);
  tzset();
}

std::vector<u32> ManyTypes() {
  std::vector<u32> types;
  for (u32 type = 0; type <= 300; ++type) types.push_back(type);
  for (const u32 type : {0xFFFFu, 0x10001u, 0x10005u, 0x80000001u, 0xFFFFFF01u, 0xFFFFFFFFu}) types.push_back(type);
  return types;
}

}  // namespace

TEST(DASuptXValToASCII, TextOfEveryType) {
  UseGreenwichTime();
  for (const ValueText &c : ValueTexts()) {
    for (const Guard guard : {Guard::kAfter, Guard::kBefore}) {
      const GuardedBuffer value(c.value.size(), guard);
      std::memcpy(value.data<void>(), c.value.data(), c.value.size());
      EXPECT_EQ(Taken(DASuptXValToASCII(c.type, value.data<void>())), c.text) << c.type;
      EXPECT_EQ(Taken(KCSDASXValToASCII(c.type, value.data<void>())), c.text) << c.type;
      EXPECT_EQ(std::memcmp(value.data<void>(), c.value.data(), c.value.size()), 0) << "the value stays";
    }
  }
}

TEST(DASuptXValToASCII, TextThatCannotBeEscapedIsNone) {
  for (const Units &units : {Units{0xDC00}, Units{0xDC00, 'a'}, Units{0xD83D, '<'}}) {
    const Bytes text = BytesOf(units);
    EXPECT_EQ(DASuptXValToASCII(KCX_USTRING_ESCAPED, text.data()), nullptr);
    EXPECT_EQ(DASuptXValToASCII(KCX_USTRING, text.data()), nullptr);
  }
}

TEST(DASuptXValToASCII, TextIsACopy) {
  const astring text[] = "text";
  for (const u32 type : {1u, 26u}) {
    astring *const copy = DASuptXValToASCII(type, text);
    EXPECT_NE(copy, text);
    EXPECT_STREQ(copy, text);
    KCSFreeMem(copy);
  }
}

TEST(DASuptXValToASCII, OtherTypesHaveNoText) {
  const GuardedBuffer unreadable(0);
  for (const u32 type : ManyTypes()) {
    EXPECT_EQ(DASuptXValToASCII(type, nullptr), nullptr) << type;
    EXPECT_EQ(KCSDASXValToASCII(type, nullptr), nullptr) << type;
    bool hasText = false;
    for (const u32 known : {1u, 2u, 4u, 5u, 7u, 9u, 11u, 13u, 15u, 20u, 21u, 22u, 23u, 26u, 27u}) {
      hasText |= type == known;
    }
    if (hasText) continue;
    EXPECT_EQ(DASuptXValToASCII(type, unreadable.data<void>()), nullptr) << type;
  }
}

TEST(DASuptXValToASCII, TimesFollowTheLocalZone) {
  ASSERT_EQ(setenv("TZ", "EST5", 1), 0);
  tzset();
  const s64 first = 0;
  EXPECT_EQ(Taken(DASuptXValToASCII(KCX_TIME, &first)), "Wed Dec 31 19:00:00 1969");
}

TEST(DASuptXValToASCII, DoublesAreWholeHoweverLong) {
  const auto expected = [](d64 value) {
    char text[400];
    std::snprintf(text, sizeof text, "%.8f", value);
    return std::string(text);
  };
  for (const d64 value :
       {std::numeric_limits<d64>::max(), -std::numeric_limits<d64>::max(), std::numeric_limits<d64>::min(),
        std::numeric_limits<d64>::denorm_min(), std::numeric_limits<d64>::quiet_NaN(),
        -std::numeric_limits<d64>::quiet_NaN(), 0.000000005, 0.999999995, 1e22, 1e21 + 0.5, 123456789012345678.0}) {
    EXPECT_EQ(Taken(DASuptXValToASCII(KCX_D64, &value)), expected(value));
  }
  std::mt19937_64 random(1);
  for (int i = 0; i < 20000; ++i) {
    // Any bits at all, and numbers of everyday size.
    const u64 bits = random();
    d64 value;
    std::memcpy(&value, &bits, sizeof value);
    if (i % 2 == 0) value = static_cast<d64>(static_cast<s64>(bits)) / std::pow(10, random() % 20);
    ASSERT_EQ(Taken(DASuptXValToASCII(KCX_D64, &value)), expected(value)) << bits;
  }
}

// --- Set-command parameters -----------------------------------------------------------------------------------------

TEST(DASuptBufCatSetCmdParam, AttributesStandInOrder) {
  const s32 oldValue = 1;
  const s32 newValue = 2;
  const s32 value = -3;
  const struct {
    const s32 *pOld;
    const s32 *pNew;
    const s32 *pVal;
    s32 status;
    const char *expected;
  } cases[] = {
      {&oldValue, &newValue, nullptr, 0, "<Parameter name=\"p\" oldval=\"1\" newval=\"2\"/>"},
      {&oldValue, &newValue, &value, 0, "<Parameter name=\"p\" oldval=\"1\" newval=\"2\" value=\"-3\"/>"},
      {&oldValue, nullptr, &value, 0, "<Parameter name=\"p\" oldval=\"1\" value=\"-3\"/>"},
      {nullptr, &newValue, &value, 0, "<Parameter name=\"p\" newval=\"2\" value=\"-3\"/>"},
      {nullptr, nullptr, &value, 0, "<Parameter name=\"p\" value=\"-3\"/>"},
      {&oldValue, nullptr, nullptr, 271, ""},
      {nullptr, &newValue, nullptr, 271, ""},
      {nullptr, nullptr, nullptr, 271, ""},
  };
  for (const auto append : {DASuptBufCatSetCmdParam, KCSDASBufCatSetCmdParam}) {
    XMLBuffer all;
    std::string expected;
    for (const auto &c : cases) {
      XMLBuffer buffer;
      EXPECT_EQ(append(buffer.record, "p", c.pOld, c.pNew, c.pVal, KCX_S32), c.status);
      buffer.Expect(c.expected);
      EXPECT_EQ(append(all.record, "p", c.pOld, c.pNew, c.pVal, KCX_S32), c.status);
      expected += c.expected;
      all.Expect(expected);
      EXPECT_EQ(append(nullptr, "p", c.pOld, c.pNew, c.pVal, KCX_S32), 271);
      EXPECT_EQ(append(nullptr, nullptr, c.pOld, c.pNew, c.pVal, KCX_S32), 271);
      EXPECT_EQ(append(buffer.record, nullptr, c.pOld, c.pNew, c.pVal, KCX_S32), 271);
      buffer.Expect(c.expected);
    }
  }
}

TEST(DASuptBufCatSetCmdParam, ValuesOfEveryType) {
  UseGreenwichTime();
  for (const ValueText &c : ValueTexts()) {
    for (int present = 1; present < 8; ++present) {
      const bool hasOld = (present & 1) != 0;
      const bool hasNew = (present & 2) != 0;
      const bool hasValue = (present & 4) != 0;
      if (!hasValue && !(hasOld && hasNew)) continue;
      const void *const pVal = c.value.data();
      // A value without text has no attribute.
      const auto attribute = [&](bool isThere, const char *name) {
        return isThere && c.text != kNone ? std::string(" ") + name + "=\"" + c.text + "\"" : std::string();
      };
      XMLBuffer buffer;
      EXPECT_EQ(DASuptBufCatSetCmdParam(buffer.record, "name", hasOld ? pVal : nullptr, hasNew ? pVal : nullptr,
                                        hasValue ? pVal : nullptr, c.type),
                0);
      buffer.Expect("<Parameter name=\"name\"" + attribute(hasOld, "oldval") + attribute(hasNew, "newval") +
                    attribute(hasValue, "value") + "/>");
    }
  }
}

TEST(DASuptBufCatSetCmdParam, TypesWithoutTextLeaveTheNameAlone) {
  const GuardedBuffer unreadable(0);
  const void *const pVal = unreadable.data<void>();
  for (const u32 type :
       {0u, 3u, 6u, 8u, 10u, 12u, 14u, 16u, 17u, 18u, 19u, 24u, 25u, 28u, 29u, 30u, 99u, 0xFFFFFFFFu}) {
    XMLBuffer buffer;
    EXPECT_EQ(DASuptBufCatSetCmdParam(buffer.record, "n", pVal, pVal, pVal, type), 0) << type;
    EXPECT_EQ(DASuptBufCatSetCmdParam(buffer.record, "n", pVal, pVal, nullptr, type), 0) << type;
    EXPECT_EQ(DASuptBufCatSetCmdParam(buffer.record, "n", nullptr, nullptr, pVal, type), 0) << type;
    buffer.Expect("<Parameter name=\"n\"/><Parameter name=\"n\"/><Parameter name=\"n\"/>");
    EXPECT_EQ(DASuptBufCatSetCmdParam(buffer.record, "n", pVal, nullptr, nullptr, type), 271) << type;
    buffer.Expect("<Parameter name=\"n\"/><Parameter name=\"n\"/><Parameter name=\"n\"/>");
  }
}

TEST(DASuptBufCatSetCmdParam, TextThatCannotBeEscapedHasNoAttribute) {
  const Bytes half = BytesOf(Units{0xDC00, 'a'});
  const Bytes whole = BytesOf(Units{'<', 0xE9});
  XMLBuffer buffer;
  EXPECT_EQ(DASuptBufCatSetCmdParam(buffer.record, "n", half.data(), whole.data(), half.data(), 27), 0);
  buffer.Expect("<Parameter name=\"n\" newval=\"&lt;\xC3\xA9\"/>");
}

TEST(DASuptBufCatSetCmdParam, NothingIsEscaped) {
  XMLBuffer buffer;
  EXPECT_EQ(DASuptBufCatSetCmdParam(buffer.record, "<\"n\"&%s%n>", "<\"o\">", "&%d", "'v'", KCX_ASTRING), 0);
  buffer.Expect("<Parameter name=\"<\"n\"&%s%n>\" oldval=\"<\"o\">\" newval=\"&%d\" value=\"'v'\"/>");
  XMLBuffer empty;
  EXPECT_EQ(DASuptBufCatSetCmdParam(empty.record, "", "", "", "", KCX_ASTRING), 0);
  empty.Expect("<Parameter name=\"\" oldval=\"\" newval=\"\" value=\"\"/>");
}

TEST(DASuptBufCatSetCmdParam, TextsOfEveryLength) {
  // The work string of 256 bytes ends in the name, in a value, and between them.
  for (size_t length = 0; length <= 300; ++length) {
    const std::string name(length, 'n');
    const std::string oldText(300 - length, 'o');
    XMLBuffer buffer;
    const s32 status = DASuptBufCatSetCmdParam(buffer.record, name.c_str(), oldText.c_str(), name.c_str(),
                                               oldText.c_str(), KCX_ASTRING);
    ASSERT_EQ(status, 0);
    buffer.Expect("<Parameter name=\"" + name + "\" oldval=\"" + oldText + "\" newval=\"" + name + "\" value=\"" +
                  oldText + "\"/>");
  }
}

TEST(DASuptBufCatSetCmdParam, TextsOfTheBufferItself) {
  for (size_t length = 0; length <= 150; ++length) {
    const std::string text(length, 't');
    XMLBuffer buffer;
    KCSSSAStrCatAStr(buffer.record, text.c_str());
    const astring *const own = buffer.record->pStr;
    ASSERT_EQ(DASuptBufCatSetCmdParam(buffer.record, own, own, own + length, own, KCX_ASTRING), 0);
    buffer.Expect(text + "<Parameter name=\"" + text + "\" oldval=\"" + text + "\" newval=\"\" value=\"" + text +
                  "\"/>");
  }
}

// --- Text as values -------------------------------------------------------------------------------------------------

namespace {

struct TextValue {
  const char *text;
  u32 type;
  s32 status;
  Bytes value;
};

std::vector<TextValue> TextValues() {
  std::vector<TextValue> values = {
      {"true", 4, 0, BytesOf(booln{1})},
      {"TRUE", 4, 0, BytesOf(booln{1})},
      {"tRuE", 4, 0, BytesOf(booln{1})},
      {"false", 4, 0, BytesOf(booln{0})},
      {"FaLsE", 4, 0, BytesOf(booln{0})},
      {"1", 4, 271, BytesOf(booln{0})},
      {"true ", 4, 271, BytesOf(booln{0})},
      {"", 4, 271, BytesOf(booln{0})},
      {"4294967295", 5, 0, BytesOf(u32{0xFFFFFFFF})},
      {"-1", 5, 0, BytesOf(u32{0xFFFFFFFF})},
      {"255", 20, 0, BytesOf(u8{255})},
      {"256", 20, 0, BytesOf(u8{0})},
      {"300", 20, 0, BytesOf(u8{44})},
      {"-1", 20, 0, BytesOf(u8{255})},
      {"65535", 22, 0, BytesOf(u16{65535})},
      {"70000", 22, 0, BytesOf(u16{4464})},
      {"-2", 22, 0, BytesOf(u16{65534})},
      {"2147483647", 7, 0, BytesOf(std::numeric_limits<s32>::max())},
      {"-2147483648", 7, 0, BytesOf(std::numeric_limits<s32>::min())},
      {"127", 21, 0, BytesOf(s8{127})},
      {"128", 21, 0, BytesOf(s8{-128})},
      {"-129", 21, 0, BytesOf(s8{127})},
      {"-32768", 23, 0, BytesOf(s16{-32768})},
      {"65535", 23, 0, BytesOf(s16{-1})},
      {"18446744073709551615", 9, 0, BytesOf(std::numeric_limits<u64>::max())},
      {"18446744073709551617", 9, 0, BytesOf(u64{1})},
      {"-5", 9, 0, BytesOf(u64{0})},
      {"+", 9, 0, BytesOf(u64{0})},
      {"-", 9, 0, BytesOf(u64{0})},
      {"9223372036854775807", 11, 0, BytesOf(std::numeric_limits<s64>::max())},
      {"-9223372036854775808", 11, 0, BytesOf(std::numeric_limits<s64>::min())},
      {"9223372036854775808", 11, 0, BytesOf(std::numeric_limits<s64>::min())},
      {"-5", 11, 0, BytesOf(s64{-5})},
      {"+", 11, 0, BytesOf(s64{0})},
      {"-", 11, 0, BytesOf(s64{0})},
      {"1.5", 13, 0, BytesOf(1.5)},
      {"-2e3", 13, 0, BytesOf(-2000.0)},
      {" \t4", 13, 0, BytesOf(4.0)},
      {"1.5 and more", 13, 0, BytesOf(1.5)},
      {"abc", 13, 0, BytesOf(0.0)},
      {"", 13, 0, BytesOf(0.0)},
      {"1e999", 13, 0, BytesOf(std::numeric_limits<d64>::infinity())},
      {"12345", 99, 0, BytesOf(s64{12})},
      {"-1500", 99, 0, BytesOf(s64{-1})},
      {"999", 99, 0, BytesOf(s64{0})},
      {"-999", 99, 0, BytesOf(s64{0})},
      {"1000", 99, 0, BytesOf(s64{1})},
      {"-1000", 99, 0, BytesOf(s64{-1})},
      {"0", 99, 0, BytesOf(s64{0})},
      {"+", 99, 0, BytesOf(s64{0})},
      {"9223372036854775807", 99, 0, BytesOf(s64{9223372036854775})},
      {"-9223372036854775808", 99, 0, BytesOf(s64{-9223372036854775})},
  };
  const struct {
    u32 type;
    Bytes zero;
    Bytes seven;
  } integers[] = {{5, BytesOf(u32{0}), BytesOf(u32{7})},  {20, BytesOf(u8{0}), BytesOf(u8{7})},
                  {22, BytesOf(u16{0}), BytesOf(u16{7})}, {7, BytesOf(s32{0}), BytesOf(s32{7})},
                  {21, BytesOf(s8{0}), BytesOf(s8{7})},   {23, BytesOf(s16{0}), BytesOf(s16{7})},
                  {9, BytesOf(u64{0}), BytesOf(u64{7})},  {11, BytesOf(s64{0}), BytesOf(s64{7})}};
  for (const auto &integer : integers) {
    for (const char *const text : {"7", "+7", "007"}) values.push_back({text, integer.type, 0, integer.seven});
    values.push_back({"0", integer.type, 0, integer.zero});
    for (const char *const text : {"", " 7", "7 ", "7.0", "0x7", "a", "7a", "--7", "+-7", "7-", "\xC3\xA9"}) {
      values.push_back({text, integer.type, 271, integer.zero});
    }
    // A sign alone passes the check of both widths, but only the 64-bit reader is content with it.
    if (integer.zero.size() < 8) values.push_back({"+", integer.type, 271, integer.zero});
    if (integer.zero.size() < 8) values.push_back({"-", integer.type, 271, integer.zero});
  }
  for (const char *const text : {"", "abc", "1.5", " 1000", "1000x"}) {
    values.push_back({text, 99, 271, BytesOf(s64{0})});
  }
  return values;
}

bool IsReadable(u32 type) {
  for (const u32 known : {1u, 4u, 5u, 20u, 22u, 7u, 21u, 23u, 9u, 11u, 13u, 99u}) {
    if (type == known) return true;
  }
  return false;
}

}  // namespace

TEST(DASuptASCIIToXVal, ValuesOfEveryType) {
  for (const TextValue &c : TextValues()) {
    const std::string source = c.text;
    const GuardedBuffer text(source.size() + 1);
    std::memcpy(text.data<void>(), source.c_str(), source.size() + 1);
    for (const Guard guard : {Guard::kAfter, Guard::kBefore}) {
      for (const auto read : {DASuptASCIIToXVal, KCSDASASCIIToXVal}) {
        const GuardedBuffer value(c.value.size(), guard);
        EXPECT_EQ(read(text.data<char>(), c.type, value.data<void>()), c.status) << c.type << " '" << c.text << "'";
        EXPECT_EQ(Bytes(value.data<unsigned char>(), value.data<unsigned char>() + value.size()), c.value)
            << c.type << " '" << c.text << "'";
      }
    }
    // Bytes behind the value stay.
    Bytes room(16, 0xA5);
    Bytes expected = room;
    std::copy(c.value.begin(), c.value.end(), expected.begin());
    EXPECT_EQ(DASuptASCIIToXVal(c.text, c.type, room.data()), c.status);
    EXPECT_EQ(room, expected) << c.type << " '" << c.text << "'";
  }
}

TEST(DASuptASCIIToXVal, TextIsStoredAsThePointer) {
  for (const char *const text : {"", "text", "%s", "\xFF"}) {
    const astring *stored = nullptr;
    EXPECT_EQ(DASuptASCIIToXVal(text, KCX_ASTRING, &stored), 0);
    EXPECT_EQ(stored, text);
  }
}

TEST(DASuptASCIIToXVal, KeptThousandthsAreCutTowardZero) {
  std::mt19937_64 random(3);
  for (int i = 0; i < 5000; ++i) {
    const s64 thousandths = static_cast<s64>(random()) >> random() % 64;
    s64 stored = kUntouched;
    ASSERT_EQ(DASuptASCIIToXVal(std::to_string(thousandths).c_str(), KCSDAS_THOUSANDTHS, &stored), 0);
    ASSERT_EQ(stored, thousandths / 1000);
  }
}

TEST(DASuptASCIIToXVal, RefusesMissingArgumentsFirst) {
  for (const u32 type : ManyTypes()) {
    EXPECT_EQ(DASuptASCIIToXVal("1", type, nullptr), 271) << type;
    EXPECT_EQ(DASuptASCIIToXVal(nullptr, type, nullptr), 271) << type;
    Bytes room(16, 0xA5);
    EXPECT_EQ(DASuptASCIIToXVal(nullptr, type, room.data()), -1) << type;
    EXPECT_EQ(room, Bytes(16, 0xA5)) << type;
  }
}

TEST(DASuptASCIIToXVal, RefusesOtherTypes) {
  for (const u32 type : ManyTypes()) {
    if (IsReadable(type)) continue;
    for (const char *const text : {"1", "true", ""}) {
      Bytes room(16, 0xA5);
      EXPECT_EQ(DASuptASCIIToXVal(text, type, room.data()), 2) << type;
      EXPECT_EQ(room, Bytes(16, 0xA5)) << type;
    }
  }
}

TEST(DASuptASCIIToXVal, ReadsWhatXValToASCIIWrites) {
  std::mt19937_64 random(4);
  for (const u32 type : {5u, 20u, 22u, 7u, 21u, 23u, 9u, 11u}) {
    const size_t size = type == 9 || type == 11 ? 8 : type == 5 || type == 7 ? 4 : type == 22 || type == 23 ? 2 : 1;
    for (int i = 0; i < 1000; ++i) {
      const u64 bits = random() >> random() % 64;
      Bytes value(size);
      std::memcpy(value.data(), &bits, size);
      const std::string text = Taken(DASuptXValToASCII(type, value.data()));
      Bytes stored(size);
      ASSERT_EQ(DASuptASCIIToXVal(text.c_str(), type, stored.data()), 0) << type << ' ' << text;
      ASSERT_EQ(stored, value) << type << ' ' << text;
    }
  }
}

TEST(DASuptNVPValToXVal, ReadsTheParameterOfTheName) {
  astring zero[] = "other=1";
  astring one[] = "size=42";
  astring two[] = "size=43";
  astring three[] = "SIZE=44";
  astring four[] = "flag=TRUE";
  astring five[] = "bad=x";
  astring six[] = "empty=";
  astring seven[] = "=nameless";
  astring eight[] = "bare";
  astring *const list[] = {zero, one, two, three, four, five, six, seven, eight};
  const struct {
    const char *name;
    u32 type;
    s32 status;
    s64 value;
  } cases[] = {
      {"size", 11, 0, 42},
      {"size=", 11, 0, 42},
      {"size=43", 11, 0, 42},
      {"SIZE", 11, 0, 44},
      {"Size", 11, 271, kUntouched},
      {"siz", 11, 271, kUntouched},
      {"sizes", 11, 271, kUntouched},
      {"", 11, 271, kUntouched},
      {"bare", 11, 271, kUntouched},
      {"missing", 11, 271, kUntouched},
      {"missing", 0, 271, kUntouched},
      {"size", 99, 0, 0},
      {"bad", 11, 271, 0},
      {"empty", 11, 271, 0},
      {"size", 3, 2, kUntouched},
      {"size", 98, 2, kUntouched},
  };
  for (const auto &c : cases) {
    for (const auto read : {DASuptNVPValToXVal, KCSDASNVPValToXVal}) {
      s64 value = kUntouched;
      EXPECT_EQ(read(9, list, c.name, c.type, &value), c.status) << c.name << ' ' << c.type;
      EXPECT_EQ(value, c.value) << c.name << ' ' << c.type;
      EXPECT_EQ(read(9, list, c.name, c.type, nullptr), 271) << c.name;
      EXPECT_EQ(read(0, list, c.name, c.type, &value), 271) << c.name;
      EXPECT_EQ(read(-1, list, c.name, c.type, &value), 271) << c.name;
      EXPECT_EQ(value, c.value) << "a list without entries has nothing";
    }
  }
  booln flag = 7;
  EXPECT_EQ(DASuptNVPValToXVal(9, list, "flag", KCX_BOOLN, &flag), 0);
  EXPECT_EQ(flag, 1);
  const astring *text = nullptr;
  EXPECT_EQ(DASuptNVPValToXVal(9, list, "flag", KCX_ASTRING, &text), 0);
  EXPECT_EQ(text, &four[5]) << "the value inside the entry";
  EXPECT_EQ(DASuptNVPValToXVal(9, list, "empty", KCX_ASTRING, &text), 0);
  EXPECT_EQ(text, &six[6]);
  EXPECT_STREQ(one, "size=42") << "the entries stay";
}

// --- Copies in the other encoding -----------------------------------------------------------------------------------

namespace {

Units UnitsOf(const std::string &text) { return {text.begin(), text.end()}; }

Units Terminated(Units units) {
  units.push_back(0);
  return units;
}

}  // namespace

TEST(DASuptAstrToUstr, ConvertsToNewText) {
  const struct {
    const char *text;
    s32 status;
    Units expected;
  } cases[] = {
      {"", 0, {}},
      {"plain", 0, UnitsOf("plain")},
      {"\xC3\xA9\xE3\x81\x82", 0, {0xE9, 0x3042}},
      {"\xF0\x9F\x98\x80", 0, {0xD87D, 0xDE00}},
      {"a\xFFzzzzzz", 257, {}},
      {"a\xC3", 257, {}},
      {"\xF7\xBF\xBF\xBF", 257, {}},
  };
  const ustring standBy[] = {'d', 0};
  for (const auto &c : cases) {
    const std::string source = c.text;
    const GuardedBuffer text(source.size() + 1);
    std::memcpy(text.data<void>(), source.c_str(), source.size() + 1);
    const astring *const pText = text.data<char>();
    s32 status[4] = {kUntouched, kUntouched, kUntouched, kUntouched};
    ustring *const results[] = {DASuptAstrToUstr(pText, &status[0]), KCSDASAstrToUstr(pText, &status[1]),
                                DASuptAstrToUstrD(pText, standBy, &status[2]),
                                KCSDASAstrToUstrD(pText, standBy, &status[3])};
    for (size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(status[i], c.status) << c.text;
      EXPECT_EQ(results[i] != nullptr, c.status == 0) << c.text;
      if (c.status != 0) continue;
      EXPECT_EQ(Taken(results[i]), c.expected) << c.text;
    }
    ustring *const unasked = DASuptAstrToUstr(pText, nullptr);
    EXPECT_EQ(unasked != nullptr, c.status == 0) << "the status need not be asked for";
    KCSFreeMem(unasked);
  }
}

TEST(DASuptAstrToUstr, EveryLengthFits) {
  for (size_t length = 0; length <= 600; ++length) {
    const GuardedBuffer text(length + 1);
    std::memset(text.data<void>(), 'x', length);
    text.data<char>()[length] = 0;
    s32 status = kUntouched;
    ASSERT_EQ(Taken(DASuptAstrToUstr(text.data<char>(), &status)), Units(length, 'x'));
    ASSERT_EQ(status, 0);
  }
}

TEST(DASuptAstrToUstrD, CopiesTheDefault) {
  for (const Units &standBy : {Units{}, UnitsOf("default"), Units{0xDC00, 0xE9, 0xFFFF}, Units(500, 'x')}) {
    const GuardedBuffer text((standBy.size() + 1) * sizeof(ustring));
    const Units terminated = Terminated(standBy);
    std::memcpy(text.data<void>(), terminated.data(), text.size());
    for (const auto copy : {DASuptAstrToUstrD, KCSDASAstrToUstrD}) {
      s32 status = kUntouched;
      ustring *const result = copy(nullptr, text.data<ustring>(), &status);
      EXPECT_NE(result, text.data<ustring>());
      EXPECT_EQ(Taken(result), standBy) << "any text at all";
      EXPECT_EQ(status, 0);
      KCSFreeMem(copy(nullptr, text.data<ustring>(), nullptr));
    }
  }
}

TEST(DASuptAstrToUstrD, NothingToConvertOrCopy) {
  s32 status[3] = {kUntouched, kUntouched, kUntouched};
  EXPECT_EQ(DASuptAstrToUstrD(nullptr, nullptr, &status[0]), nullptr);
  EXPECT_EQ(DASuptAstrToUstr(nullptr, &status[1]), nullptr);
  EXPECT_EQ(KCSDASAstrToUstr(nullptr, &status[2]), nullptr);
  for (const s32 s : status) EXPECT_EQ(s, 271);
  EXPECT_EQ(DASuptAstrToUstrD(nullptr, nullptr, nullptr), nullptr);
}

TEST(DASuptUstrToAstrD, NothingToConvertOrCopy) {
  s32 status[3] = {kUntouched, kUntouched, kUntouched};
  EXPECT_EQ(DASuptUstrToAstrD(nullptr, nullptr, &status[0]), nullptr);
  EXPECT_EQ(DASuptUstrToAstr(nullptr, &status[1]), nullptr);
  EXPECT_EQ(KCSDASUstrToAstr(nullptr, &status[2]), nullptr);
  for (const s32 s : status) EXPECT_EQ(s, 271);
  EXPECT_EQ(DASuptUstrToAstrD(nullptr, nullptr, nullptr), nullptr);
}

TEST(DASuptUstrToAstr, ConvertsASCIIToNewText) {
  for (size_t length = 0; length <= 600; ++length) {
    const GuardedBuffer text((length + 1) * sizeof(ustring));
    std::string expected;
    for (size_t i = 0; i < length; ++i) {
      text.data<ustring>()[i] = static_cast<ustring>(1 + i % 0x7F);
      expected += static_cast<char>(1 + i % 0x7F);
    }
    text.data<ustring>()[length] = 0;
    const ustring *const pText = text.data<ustring>();
    s32 status[4] = {kUntouched, kUntouched, kUntouched, kUntouched};
    ASSERT_EQ(Taken(DASuptUstrToAstr(pText, &status[0])), expected);
    ASSERT_EQ(Taken(KCSDASUstrToAstr(pText, &status[1])), expected);
    ASSERT_EQ(Taken(DASuptUstrToAstrD(pText, "default", &status[2])), expected);
    ASSERT_EQ(Taken(KCSDASUstrToAstrD(pText, "default", &status[3])), expected);
    for (const s32 s : status) ASSERT_EQ(s, 0);
    ASSERT_EQ(Taken(DASuptUstrToAstr(pText, nullptr)), expected);
  }
}

TEST(DASuptUstrToAstrD, CopiesTheDefault) {
  for (const std::string &standBy : {std::string(), std::string("default \xC3\xA9\xFF"), std::string(500, 'x')}) {
    const GuardedBuffer text(standBy.size() + 1);
    std::memcpy(text.data<void>(), standBy.c_str(), standBy.size() + 1);
    for (const auto copy : {DASuptUstrToAstrD, KCSDASUstrToAstrD}) {
      s32 status = kUntouched;
      astring *const result = copy(nullptr, text.data<char>(), &status);
      EXPECT_NE(result, text.data<char>());
      EXPECT_EQ(Taken(result), standBy) << "any text at all";
      EXPECT_EQ(status, 0);
      EXPECT_EQ(Taken(copy(nullptr, text.data<char>(), nullptr)), standBy);
    }
  }
}

TEST(DASuptUstrToAstr, KeptTextBeyondASCIIDoesNotFit) {
  const std::vector<Units> texts = {
      {0xE9}, {0x80}, {0xFFFF}, {'a', 'b', 0xE9}, {0xE9, 'a', 'b'}, Units(300, 0x3042), {0xD83D, 0xDE00}};
  for (const Units &units : texts) {
    const Units text = Terminated(units);
    for (const auto convert : {DASuptUstrToAstrD, KCSDASUstrToAstrD}) {
      s32 status = kUntouched;
      EXPECT_EQ(convert(text.data(), "default", &status), nullptr);
      EXPECT_EQ(status, 16);
    }
    for (const auto convert : {DASuptUstrToAstr, KCSDASUstrToAstr}) {
      s32 status = kUntouched;
      EXPECT_EQ(convert(text.data(), &status), nullptr);
      EXPECT_EQ(status, 16);
    }
    EXPECT_EQ(DASuptUstrToAstr(text.data(), nullptr), nullptr);
  }
}

TEST(DASuptUstrToAstr, IsTheConverterWithAByteAUnit) {
  constexpr ustring kUnits[] = {'a', 'b', '<', 0x7F, 0x80, 0xE9, 0x3042, 0xD800, 0xDC00, 0xFFFF};
  std::mt19937 random(5);
  for (int i = 0; i < 20000; ++i) {
    Units text;
    const bool isMostlyASCII = random() % 2 == 0;
    for (size_t length = random() % 40; length > 0; --length) {
      text.push_back(kUnits[isMostlyASCII && random() % 30 != 0 ? random() % 4 : random() % std::size(kUnits)]);
    }
    text.push_back(0);
    std::vector<astring> converted(text.size());
    u32 size = static_cast<u32>(converted.size());
    const s32 expected = KCSUCS2StrToUTF8Str(converted.data(), &size, text.data());
    s32 status = kUntouched;
    const std::string result = Taken(DASuptUstrToAstr(text.data(), &status));
    ASSERT_EQ(status, expected);
    ASSERT_EQ(result, expected == 0 ? std::string(converted.data()) : kNone);
  }
}

TEST(DASuptAstrToUstr, IsTheConverterWithTwoBytesAByte) {
  constexpr const char *kPieces[] = {"a", "<", "\x7F", "\xC3\xA9", "\xE3\x81\x82", "\xF0\x9F\x98\x80", "\xFF", "\xC3"};
  std::mt19937 random(6);
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    const bool isValid = random() % 2 == 0;
    for (size_t length = random() % 40; length > 0; --length) text += kPieces[random() % (isValid ? 6 : 8)];
    std::vector<ustring> converted(text.size() + 1);
    u32 size = static_cast<u32>(2 * text.size() + 2);
    const s32 expected = KCSUTF8StrToUCS2Str(converted.data(), &size, text.c_str());
    s32 status = kUntouched;
    ustring *const result = DASuptAstrToUstr(text.c_str(), &status);
    ASSERT_EQ(status, expected);
    ASSERT_EQ(result != nullptr, expected == 0);
    if (result == nullptr) continue;
    ASSERT_EQ(Taken(result), Units(converted.data(), converted.data() + size / 2 - 1));
  }
}

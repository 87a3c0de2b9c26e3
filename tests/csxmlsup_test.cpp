// The XML buffer and its node writer.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "zebcs/encoding.h"
#include "zebcs/frame.h"
#include "zebcs/number.h"
#include "zebcs/xmlbuf.h"

namespace {

using sandbox::Guard;
using sandbox::GuardedBuffer;

constexpr char kHeader[] = "<?xml-stylesheet type=\"text/xsl\" version=\"1.0\" encoding=\"UTF-8\"?>";

constexpr booln kFlags[] = {0, 1, 2, -1, 256, 257};

// What a buffer must hold: the text, and the size that the appends so far have made of it.
class Model {
 public:
  explicit Model(u32 size) : m_size(size) {}

  void Append(const std::string &piece) {
    const u64 needed = m_text.size() + piece.size() + 1;
    if (needed > m_size) {
      const u32 grown = m_size <= 0xFFFFF ? 2 * m_size : m_size * 125u / 100u;
      m_size = std::max(grown, static_cast<u32>(needed));
      m_hasGrown = true;
    }
    m_text += piece;
  }
  void Append(const std::vector<std::string> &pieces) {
    for (const std::string &piece : pieces) Append(piece);
  }

  testing::AssertionResult SizesAgree(const KCSSSAStr &record) const {
    if (record.pStr == nullptr) return testing::AssertionFailure() << "no text";
    if (record.strBufSize != m_size || record.strCurLen != m_text.size()) {
      return testing::AssertionFailure() << "size " << record.strBufSize << " instead of " << m_size << ", length "
                                         << record.strCurLen << " instead of " << m_text.size();
    }
    if (record.pStr[record.strCurLen] != 0) return testing::AssertionFailure() << "not terminated";
    if (m_hasGrown && record.pStr[record.strBufSize - 1] != 0) {
      return testing::AssertionFailure() << "the last byte of a grown buffer is not zero";
    }
    return testing::AssertionSuccess();
  }

  testing::AssertionResult Agrees(const KCSSSAStr &record) const {
    const testing::AssertionResult sizesAgree = SizesAgree(record);
    if (!sizesAgree) return sizesAgree;
    const std::string text(record.pStr, record.strCurLen);
    if (text != m_text) return testing::AssertionFailure() << "'" << text << "' instead of '" << m_text << "'";
    return testing::AssertionSuccess();
  }

  const std::string &text() const { return m_text; }

 private:
  std::string m_text;
  u32 m_size;
  bool m_hasGrown = false;
};

// A buffer of the library's with the model that it must agree with.
class XMLBuffer {
 public:
  explicit XMLBuffer(u32 size = 0, booln appendHeader = 0) : record(KCXAllocBuf(size, appendHeader)), model(0) {
    model = Model(std::max(size, 64u));
    if (appendHeader == 1) model.Append(kHeader);
  }
  XMLBuffer(const XMLBuffer &) = delete;
  XMLBuffer &operator=(const XMLBuffer &) = delete;
  ~XMLBuffer() { EXPECT_EQ(KCXFreeBuf(record, 0), nullptr); }

  testing::AssertionResult Agrees() const { return model.Agrees(*record); }

  KCSSSAStr *record;
  Model model;
};

// A buffer that lies between its guard and bytes that nobody may change. It must not grow.
class FixedBuffer {
 public:
  FixedBuffer(const std::string &text, u32 size) : m_memory(size), m_expected(size, static_cast<char>(m_memory.kFill)) {
    record = {m_memory.data<astring>(), size, static_cast<u32>(text.size())};
    std::memcpy(record.pStr, text.c_str(), text.size() + 1);
    Expect(text);
  }

  void Expect(const std::string &text) {
    m_length = text.size();
    std::memcpy(m_expected.data(), text.c_str(), text.size() + 1);
  }

  testing::AssertionResult Agrees() const {
    if (record.pStr != m_memory.data<astring>() || record.strBufSize != m_memory.size()) {
      return testing::AssertionFailure() << "the buffer was replaced";
    }
    if (record.strCurLen != m_length) return testing::AssertionFailure() << "length " << record.strCurLen;
    const std::string bytes(m_memory.data<char>(), m_memory.size());
    if (bytes != m_expected) return testing::AssertionFailure() << testing::PrintToString(bytes);
    return testing::AssertionSuccess();
  }

  KCSSSAStr record{};

 private:
  GuardedBuffer m_memory;
  std::string m_expected;
  size_t m_length = 0;
};

using Bytes = std::vector<unsigned char>;

template <class T>
Bytes BytesOf(const T &value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

template <class T>
T ValueIn(const void *bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

Bytes BytesOf(const std::string &text) { return {text.c_str(), text.c_str() + text.size() + 1}; }

Bytes BytesOf(std::vector<ustring> units) {
  units.push_back(0);
  Bytes bytes(units.size() * sizeof(ustring));
  std::memcpy(bytes.data(), units.data(), bytes.size());
  return bytes;
}

// The narrow form of what a value of type 16 holds; the first number belongs to somebody else.
struct TextRecord {
  const astring *pText;
  u32 other;
  u32 length;
};

bool IsInPieces(u32 type) { return type == 2 || type == 9 || type == 11 || type == 13 || type == 15 || type == 17; }

// What one call appends, one piece after the other.
std::vector<std::string> Pieces(u32 type, const std::string &name, const char *pAttributes,
                                const std::string &content) {
  const std::string start = "<" + name + (pAttributes == nullptr ? "" : std::string(" ") + pAttributes) + ">";
  const std::string end = "</" + name + ">";
  if (type == KCX_BEGIN) return {start};
  if (type == KCX_END) return {end};
  if (IsInPieces(type)) return {start, content, end};
  return {start + content + end};
}

std::string Joined(const std::vector<std::string> &pieces) {
  std::string joined;
  for (const std::string &piece : pieces) joined += piece;
  return joined;
}

std::string CalendarText(s64 seconds) {
  const time_t time = seconds;
  char text[64];
  if (KCSTimeToAStr(text, &time) != 0) return "-1";
  return text;
}

std::string Escaped(const std::string &text, u32 passes) {
  astring *const escaped = KCSGetXMLUTF8StrFromAStr(text.c_str(), passes);
  const std::string copy(escaped);
  KCSFreeMem(escaped);
  return copy;
}

// A value and what it looks like between the tags.
struct Row {
  std::string what;
  u32 type;
  Bytes value;
  u32 subType;
  std::string content;
};

std::string Hexadecimal(u32 value) {
  char text[16];
  std::snprintf(text, sizeof text, "%#x", value);
  return text;
}

template <class Integer>
void AddIntegers(std::vector<Row> &rows, u32 type) {
  using Limits = std::numeric_limits<Integer>;
  const Integer values[] = {0,
                            1,
                            9,
                            10,
                            100,
                            Limits::max(),
                            Limits::min(),
                            static_cast<Integer>(Limits::max() / 2 + 1),
                            static_cast<Integer>(-1),
                            static_cast<Integer>(-100)};
  for (const Integer value : values) {
    const std::string decimal = std::to_string(value);
    for (const u32 format : {0u, 10u}) {
      rows.push_back({"integer " + decimal + " as " + std::to_string(format), type, BytesOf(value), format, decimal});
    }
    const s64 extended = value;
    rows.push_back(
        {"integer " + decimal + " as 16", type, BytesOf(value), 16, Hexadecimal(static_cast<u32>(extended))});
  }
}

template <class Integer>
void AddWideIntegers(std::vector<Row> &rows, u32 type) {
  using Limits = std::numeric_limits<Integer>;
  for (const Integer value : {Integer{0}, Integer{1}, Integer{10}, static_cast<Integer>(-1), Limits::max(),
                              Limits::min(), static_cast<Integer>(1000000000000)}) {
    rows.push_back({"integer " + std::to_string(value), type, BytesOf(value), 0, std::to_string(value)});
  }
}

const char kRecordText[] = "record < & text";
const ustring kPointerText[] = {'<', 0xE9, 0x3042, 0};
const ustring kPointerEmpty[] = {0};
const ustring kPointerInvalid[] = {0xDC00, 'x', 0};

// A row for every kind of value that can be written, but for definitions.
std::vector<Row> Rows() {
  std::vector<Row> rows = {
      {"text", 1, BytesOf(std::string("plain")), 0, "plain"},
      {"no text", 1, BytesOf(std::string()), 0, ""},
      {"text that XML reserves", 1, BytesOf(std::string("<&\"'>")), 0, "<&\"'>"},
      {"text that is no UTF-8", 1, BytesOf(std::string("\xFF\x80\x01")), 0, "\xFF\x80\x01"},
      {"text like a format", 1, BytesOf(std::string("%s%n%d%%")), 0, "%s%n%d%%"},
      {"long text", 1, BytesOf(std::string(1000, 'x')), 0, std::string(1000, 'x')},
      {"16-bit text", 2, BytesOf(std::vector<ustring>{'a', '<', '&'}), 0, "a<&"},
      {"no 16-bit text", 2, BytesOf(std::vector<ustring>{}), 0, ""},
      {"16-bit text like a format", 2, BytesOf(std::vector<ustring>{'%', 's', '%', 'n'}), 0, "%s%n"},
      {"16-bit text beyond ASCII", 2, BytesOf(std::vector<ustring>{0x7F, 0x80, 0x7FF, 0x800, 0xFFFF}), 0,
       "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF"},
      {"long 16-bit text", 2, BytesOf(std::vector<ustring>(700, 0xE9)), 0,
       Joined(std::vector<std::string>(700, "\xC3\xA9"))},
      {"16-bit text that is half a pair", 2, BytesOf(std::vector<ustring>{0xDC00}), 0, ""},
      {"16-bit text that begins with half a pair", 2, BytesOf(std::vector<ustring>{0xD800, 'a', 'b'}), 0, ""},
      {"surrogates behind a character", 2, BytesOf(std::vector<ustring>{'a', 0xD83D, 0xDE00}), 0, "aaa"},
      {"flag 1", 4, BytesOf(booln{1}), 0, "true"},
      {"flag 0", 4, BytesOf(booln{0}), 0, "false"},
      {"flag 2", 4, BytesOf(booln{2}), 0, "false"},
      {"flag -1", 4, BytesOf(booln{-1}), 0, "false"},
      {"flag 257", 4, BytesOf(booln{257}), 0, "false"},
      {"zero", 13, BytesOf(d64{0}), 0, ""},
      {"one and a half", 13, BytesOf(d64{1.5}), 0, ""},
      {"a large number", 13, BytesOf(d64{-1e300}), 0, ""},
      {"no number", 13, BytesOf(std::numeric_limits<d64>::quiet_NaN()), 0, ""},
      {"no time", 15, BytesOf(s64{0}), 0, "-1"},
      {"a time before all", 15, BytesOf(s64{-1}), 0, "-1"},
      {"the first time", 15, BytesOf(std::numeric_limits<s64>::min()), 0, "-1"},
      {"the time 1", 15, BytesOf(s64{1}), 0, CalendarText(1)},
      {"the time 2^31", 15, BytesOf(s64{0x80000000}), 0, CalendarText(0x80000000)},
      {"a time above 2^32", 15, BytesOf(s64{0x1FFFFFFFF}), 0, CalendarText(0x1FFFFFFFF)},
      {"a time without text", 15, BytesOf(std::numeric_limits<s64>::max()), 0, "-1"},
      {"a record", 16, BytesOf(TextRecord{kRecordText, 0, sizeof kRecordText - 1}), 0, kRecordText},
      {"a record with the size", 16, BytesOf(TextRecord{kRecordText, 1, sizeof kRecordText}), 0, kRecordText},
      {"a record longer than its text", 16, BytesOf(TextRecord{kRecordText, 0xFFFFFFFF, 0xFFFFFFFF}), 0, kRecordText},
      {"a record of a part", 16, BytesOf(TextRecord{kRecordText, 99, 3}), 0, "rec"},
      {"an empty record", 16, BytesOf(TextRecord{kRecordText, 99, 0}), 0, ""},
      {"a pointer", 17, BytesOf(&kPointerText[0]), 0, "<\xC3\xA9\xE3\x81\x82"},
      {"a pointer to no text", 17, BytesOf(&kPointerEmpty[0]), 0, ""},
      {"a pointer to half a pair", 17, BytesOf(&kPointerInvalid[0]), 0, ""},
      {"begin", 18, Bytes{0}, 0, ""},
      {"end", 19, Bytes{0}, 0, ""},
      {"16-bit text to escape", 27, BytesOf(std::vector<ustring>{'<', 0xE9, '&'}), 0, "&lt;\xC3\xA9&amp;"},
      {"16-bit text to escape once", 27, BytesOf(std::vector<ustring>{'<'}), 1, "&lt;"},
      {"16-bit text to escape twice", 27, BytesOf(std::vector<ustring>{'<'}), 2, "&amp;lt;"},
      {"no 16-bit text to escape", 27, BytesOf(std::vector<ustring>{}), 3, ""},
      {"text that is no UTF-8 to escape", 26, BytesOf(std::string("\xFF<\x80")), 0, "\xFF&lt;\x80"},
      {"text to escape like a format", 26, BytesOf(std::string("%s%n")), 1, "%s%n"},
      {"no text to escape", 26, BytesOf(std::string()), 3, ""},
      {"all that XML reserves", 26, BytesOf(std::string("a\"&'<>z")), 0, "a&quot;&amp;&apos;&lt;&gt;z"},
      {"to escape once", 26, BytesOf(std::string("<")), 1, "&lt;"},
      {"to escape twice", 26, BytesOf(std::string("<")), 2, "&amp;lt;"},
      {"to escape thrice", 26, BytesOf(std::string("<")), 3, "&amp;amp;lt;"},
      {"nothing to escape, often", 26, BytesOf(std::string("plain")), 0xFFFFFFFF, "plain"},
  };
  AddIntegers<u32>(rows, 5);
  AddIntegers<u8>(rows, 20);
  AddIntegers<u16>(rows, 22);
  AddIntegers<s32>(rows, 7);
  AddIntegers<s8>(rows, 21);
  AddIntegers<s16>(rows, 23);
  AddWideIntegers<u64>(rows, 9);
  AddWideIntegers<s64>(rows, 11);
  return rows;
}

const char *const kAttributes[] = {nullptr, "", "a=\"1\" b='<&%s'"};

bool IsKnown(u32 type) {
  constexpr u32 kKnown[] = {1, 2, 4, 5, 7, 9, 11, 13, 15, 16, 17, 18, 19, 20, 21, 22, 23, 25, 26, 27};
  return std::find(std::begin(kKnown), std::end(kKnown), type) != std::end(kKnown);
}

const u32 kIntegerTypes[] = {5, 20, 22, 7, 21, 23};

}  // namespace

TEST(KCXAllocBuf, StartsWithTheTextAskedFor) {
  for (const u32 size : {0u, 1u, 10u, 63u, 64u, 65u, 66u, 67u, 68u, 1000u, 0x100000u}) {
    for (const booln appendHeader : kFlags) {
      const XMLBuffer buffer(size, appendHeader);
      ASSERT_NE(buffer.record, nullptr);
      EXPECT_TRUE(buffer.Agrees()) << size << ' ' << appendHeader;
    }
  }
  KCSSSAStr *const buffer = KCXAllocBuf(10, 0);
  EXPECT_EQ(buffer->strBufSize, 64u);
  EXPECT_EQ(buffer->strCurLen, 0u);
  EXPECT_STREQ(buffer->pStr, "");
  EXPECT_EQ(KCXFreeBuf(buffer, 0), nullptr);
}

TEST(KCXFreeBuf, HandsTheTextOverForExactlyOne) {
  void (*const release[])(astring *) = {KCXFreeBufContent, KCSXFreeBufContent, [](astring *p) { KCSFreeMem(p); },
                                        [](astring *p) { KCSGenericFree(p); }};
  for (const auto &releaseText : release) {
    for (astring *(*const take)(KCSSSAStr *) :
         {+[](KCSSSAStr *p) { return KCXFreeBuf(p, 1); }, +[](KCSSSAStr *p) { return KCSXFreeBuf(p, 1); },
          KCSXFreeBufGetContent}) {
      KCSSSAStr *const buffer = KCXAllocBuf(0, 1);
      ASSERT_EQ(KCXBufCatEmptyNode(buffer, "a", nullptr), 0);
      astring *const text = buffer->pStr;
      EXPECT_EQ(take(buffer), text);
      EXPECT_EQ(text, std::string(kHeader) + "<a/>");
      releaseText(text);
    }
  }
}

TEST(KCXFreeBuf, ReleasesAllForAnyOtherFlag) {
  for (const booln flag : kFlags) {
    if (flag == 1) continue;
    KCSSSAStr *const buffer = KCXAllocBuf(1000, 1);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(KCXFreeBuf(buffer, flag), nullptr) << flag;
    EXPECT_EQ(KCXFreeBuf(nullptr, flag), nullptr);
    EXPECT_EQ(KCSXFreeBuf(KCSXAllocBuf(0, 0), flag), nullptr);
    EXPECT_EQ(KCSXFreeBuf(nullptr, flag), nullptr);
  }
  EXPECT_EQ(KCXFreeBuf(nullptr, 1), nullptr);
  EXPECT_EQ(KCSXFreeBuf(nullptr, 1), nullptr);
  EXPECT_EQ(KCSXFreeBufGetContent(nullptr), nullptr);
  KCXFreeBufContent(nullptr);
  KCSXFreeBufContent(nullptr);
}

TEST(KCXBufCatEmptyNode, WritesNameAndAttributes) {
  const struct {
    const char *name;
    const char *attributes;
    const char *expected;
  } cases[] = {
      {"a", nullptr, "<a/>"}, {"a", "", "<a />"}, {"a", "b=\"1\"", "<a b=\"1\"/>"}, {"a", "<&%s%n", "<a <&%s%n/>"},
      {"", nullptr, "</>"},   {"", "b", "< b/>"}, {"%s%n", "%d", "<%s%n %d/>"},
  };
  for (const auto &c : cases) {
    XMLBuffer buffer;
    EXPECT_EQ(KCXBufCatEmptyNode(buffer.record, c.name, c.attributes), 0);
    buffer.model.Append(std::string(c.expected));
    EXPECT_TRUE(buffer.Agrees());
    EXPECT_EQ(KCSXBufCatEmptyNode(buffer.record, c.name, c.attributes), 0);
    buffer.model.Append(std::string(c.expected));
    EXPECT_TRUE(buffer.Agrees());
    FixedBuffer fixed("x", static_cast<u32>(std::strlen(c.expected)) + 2);
    EXPECT_EQ(KCXBufCatEmptyNode(&fixed.record, c.name, c.attributes), 0);
    fixed.Expect(std::string("x") + c.expected);
    EXPECT_TRUE(fixed.Agrees());
  }
}

TEST(KCXBufCatEmptyNode, GrowsTheBuffer) {
  for (size_t length = 0; length <= 300; ++length) {
    XMLBuffer buffer;
    const std::string name(length, 'n');
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(KCXBufCatEmptyNode(buffer.record, name.c_str(), i % 2 == 0 ? nullptr : name.c_str()), 0);
      buffer.model.Append("<" + name + (i % 2 == 0 ? "" : " " + name) + "/>");
      ASSERT_TRUE(buffer.Agrees()) << length << ' ' << i;
    }
  }
}

TEST(KCXBufCatNodeT, EveryTypeWithAndWithoutAttributes) {
  for (const Row &row : Rows()) {
    // The value begins or ends at a page that cannot be read.
    for (const Guard guard : {Guard::kAfter, Guard::kBefore}) {
      const GuardedBuffer value(row.value.size(), guard);
      std::memcpy(value.data<void>(), row.value.data(), row.value.size());
      for (const char *const attributes : kAttributes) {
        XMLBuffer buffer;
        EXPECT_EQ(KCXBufCatNodeT(buffer.record, "Name", attributes, row.type, value.data<void>(), row.subType), 0)
            << row.what;
        buffer.model.Append(Pieces(row.type, "Name", attributes, row.content));
        EXPECT_TRUE(buffer.Agrees()) << row.what;
        EXPECT_EQ(KCXBufCatNodeT(buffer.record, "", attributes, row.type, value.data<void>(), row.subType), 0);
        buffer.model.Append(Pieces(row.type, "", attributes, row.content));
        EXPECT_TRUE(buffer.Agrees()) << row.what;
        EXPECT_EQ(std::memcmp(value.data<void>(), row.value.data(), row.value.size()), 0) << "the value stays";
      }
    }
  }
}

TEST(KCXBufCatNodeT, ExamplesInFull) {
  const struct {
    u32 type;
    Bytes value;
    u32 subType;
    s32 status;
    const char *expected;
  } cases[] = {
      {5, BytesOf(u32{255}), 16, 0, "<n>0xff</n>"},
      {5, BytesOf(u32{255}), 10, 0, "<n>255</n>"},
      {5, BytesOf(u32{255}), 2, 271, ""},
      {21, BytesOf(u8{0xFF}), 0, 0, "<n>-1</n>"},
      {21, BytesOf(u8{0xFF}), 16, 0, "<n>0xffffffff</n>"},
      {23, BytesOf(u16{0x8000}), 16, 0, "<n>0xffff8000</n>"},
      {20, BytesOf(u8{0xFF}), 16, 0, "<n>0xff</n>"},
      {7, BytesOf(s32{0}), 16, 0, "<n>0</n>"},
      {13, BytesOf(d64{3.25}), 0, 0, "<n></n>"},
      {15, BytesOf(s64{0}), 0, 0, "<n>-1</n>"},
      {19, Bytes{0}, 0, 0, "</n>"},
      {18, Bytes{0}, 0, 0, "<n>"},
  };
  for (const auto &c : cases) {
    XMLBuffer buffer;
    EXPECT_EQ(KCXBufCatNodeT(buffer.record, "n", nullptr, c.type, c.value.data(), c.subType), c.status);
    EXPECT_STREQ(buffer.record->pStr, c.expected);
  }
}

TEST(KCXBufCatNodeT, KeptADoubleLeavesItsElementEmpty) {
  for (const d64 value : {0.0, -0.0, 1.0, 0.1, 1e-300, 1e300, -5.5}) {
    XMLBuffer buffer;
    for (const u32 subType : {0u, 10u, 16u, 0xFFFFFFFFu}) {
      EXPECT_EQ(KCXBufCatNodeT(buffer.record, "d", "u=\"V\"", KCX_D64, &value, subType), 0);
      buffer.model.Append(Pieces(KCX_D64, "d", "u=\"V\"", ""));
      EXPECT_TRUE(buffer.Agrees()) << value;
    }
  }
}

TEST(KCXBufCatNodeT, TouchesNoByteBehindTheText) {
  for (const Row &row : Rows()) {
    for (const char *const attributes : kAttributes) {
      const std::string element = Joined(Pieces(row.type, "Name", attributes, row.content));
      for (const u32 spare : {0u, 1u, 7u, 64u, 1000u}) {
        FixedBuffer fixed("begin", static_cast<u32>(element.size()) + 6 + spare);
        EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "Name", attributes, row.type, row.value.data(), row.subType), 0);
        fixed.Expect("begin" + element);
        EXPECT_TRUE(fixed.Agrees()) << row.what << ' ' << spare;
      }
    }
  }
}

TEST(KCXBufCatNodeT, TimesFollowTheLocalZone) {
  const struct {
    const char *zone;
    s64 time;
    const char *expected;
  } cases[] = {
      {"UTC0", 1, "<t>Thu Jan  1 00:00:01 1970</t>"},
      {"UTC0", 533240568, "<t>Mon Nov 24 18:22:48 1986</t>"},
      {"UTC0", 4102444799, "<t>Thu Dec 31 23:59:59 2099</t>"},
      {"EST5", 1, "<t>Wed Dec 31 19:00:01 1969</t>"},
      {"EST5", 0, "<t>-1</t>"},
      {"AAA-14", 1, "<t>Thu Jan  1 14:00:01 1970</t>"},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(setenv("TZ", c.zone, 1), 0);
    tzset();
    XMLBuffer buffer;
    EXPECT_EQ(KCXBufCatNodeT(buffer.record, "t", nullptr, KCX_TIME, &c.time, 0), 0);
    EXPECT_STREQ(buffer.record->pStr, c.expected) << c.zone;
  }
}

TEST(KCXBufCatNodeT, RefusesOtherTypes) {
  const Bytes value(64, 0);
  std::vector<u32> types;
  for (u32 type = 0; type <= 300; ++type) types.push_back(type);
  for (const u32 type : {0xFFu, 0xFFFFu, 0x10001u, 0x80000001u, 0xFFFFFF01u, 0xFFFFFFFFu}) types.push_back(type);
  for (const u32 type : types) {
    if (IsKnown(type)) continue;
    for (const char *const attributes : kAttributes) {
      for (const u32 subType : {0u, 10u, 16u}) {
        FixedBuffer fixed("before", 100);
        EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", attributes, type, value.data(), subType), 271) << type;
        EXPECT_EQ(KCXBufCatNode(&fixed.record, "n", attributes, type, value.data()), 271) << type;
        const KCSXNodeDef node = {type, subType, value.data()};
        EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", attributes, KCX_NODE, &node, subType), 271) << type;
        EXPECT_TRUE(fixed.Agrees()) << type;
      }
    }
  }
}

TEST(KCXBufCatNodeT, RefusesMissingArguments) {
  const Bytes value(64, 0);
  for (u32 type = 0; type <= 30; ++type) {
    for (const char *const attributes : kAttributes) {
      EXPECT_EQ(KCXBufCatNodeT(nullptr, "n", attributes, type, value.data(), 0), 271) << type;
      EXPECT_EQ(KCXBufCatNodeT(nullptr, nullptr, attributes, type, nullptr, 0), 271) << type;
      EXPECT_EQ(KCXBufCatNode(nullptr, "n", attributes, type, value.data()), 271) << type;
      FixedBuffer fixed("before", 100);
      EXPECT_EQ(KCXBufCatNodeT(&fixed.record, nullptr, attributes, type, value.data(), 0), 271) << type;
      EXPECT_EQ(KCXBufCatNode(&fixed.record, nullptr, attributes, type, value.data()), 271) << type;
      if (type != KCX_BEGIN && type != KCX_END) {
        EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", attributes, type, nullptr, 0), 271) << type;
        EXPECT_EQ(KCXBufCatNode(&fixed.record, "n", attributes, type, nullptr), 271) << type;
      }
      EXPECT_TRUE(fixed.Agrees()) << type;
    }
  }
  for (const u32 type : {99u, 0xFFFFFFFFu}) {
    FixedBuffer fixed("before", 100);
    EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", nullptr, type, nullptr, 0), 271);
    EXPECT_TRUE(fixed.Agrees());
  }
}

TEST(KCXBufCatEmptyNode, RefusesMissingArguments) {
  FixedBuffer fixed("before", 100);
  for (const char *const attributes : kAttributes) {
    EXPECT_EQ(KCXBufCatEmptyNode(nullptr, "n", attributes), 271);
    EXPECT_EQ(KCXBufCatEmptyNode(nullptr, nullptr, attributes), 271);
    EXPECT_EQ(KCXBufCatEmptyNode(&fixed.record, nullptr, attributes), 271);
    EXPECT_EQ(KCXBufCatBeginNode(nullptr, "n", attributes), 271);
    EXPECT_EQ(KCXBufCatBeginNode(&fixed.record, nullptr, attributes), 271);
  }
  EXPECT_EQ(KCXBufCatEndNode(nullptr, "n"), 271);
  EXPECT_EQ(KCXBufCatEndNode(&fixed.record, nullptr), 271);
  EXPECT_TRUE(fixed.Agrees());
}

TEST(KCXBufCatNodeT, RefusesOtherIntegerFormats) {
  const u32 value = 0x12345678;
  std::vector<u32> formats;
  for (u32 format = 0; format <= 300; ++format) formats.push_back(format);
  for (const u32 format : {0x10000u, 0x1000Au, 0x10010u, 0xFFFFFFF0u, 0xFFFFFFFFu}) formats.push_back(format);
  for (const u32 type : kIntegerTypes) {
    FixedBuffer fixed("before", 100);
    for (const u32 format : formats) {
      if (format == 0 || format == 10 || format == 16) continue;
      const KCSXNodeDef node = {type, format, &value};
      for (const char *const attributes : kAttributes) {
        ASSERT_EQ(KCXBufCatNodeT(&fixed.record, "n", attributes, type, &value, format), 271) << type << ' ' << format;
        ASSERT_EQ(KCXBufCatNodeT(&fixed.record, "n", attributes, KCX_NODE, &node, 0), 271) << type << ' ' << format;
      }
    }
    EXPECT_TRUE(fixed.Agrees()) << type;
  }
}

TEST(KCXBufCatNodeT, OtherTypesIgnoreTheFormat) {
  for (const Row &row : Rows()) {
    if (row.type == KCX_ASTRING_ESCAPED || row.type == KCX_USTRING_ESCAPED) continue;
    if (std::find(std::begin(kIntegerTypes), std::end(kIntegerTypes), row.type) != std::end(kIntegerTypes)) continue;
    for (const u32 subType : {1u, 2u, 10u, 16u, 99u, 0xFFFFFFFFu}) {
      XMLBuffer buffer;
      EXPECT_EQ(KCXBufCatNodeT(buffer.record, "n", nullptr, row.type, row.value.data(), subType), 0) << row.what;
      buffer.model.Append(Pieces(row.type, "n", nullptr, row.content));
      EXPECT_TRUE(buffer.Agrees()) << row.what << ' ' << subType;
    }
  }
}

TEST(KCXBufCatNodeT, TextThatCannotBeEscapedIsNoMemory) {
  const std::vector<std::vector<ustring>> texts = {
      {0xDC00}, {0xDC00, 'a'}, {0xD800}, {0xD800, 'a'}, {0xD83D, '<', '&'}};
  for (const std::vector<ustring> &units : texts) {
    const Bytes text = BytesOf(units);
    for (const char *const attributes : kAttributes) {
      for (const u32 passes : {0u, 1u, 2u, 5u}) {
        FixedBuffer fixed("before", 100);
        const KCSXNodeDef node = {KCX_USTRING_ESCAPED, passes, text.data()};
        EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", attributes, KCX_USTRING_ESCAPED, text.data(), passes), 272);
        EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", attributes, KCX_NODE, &node, 0), 272);
        EXPECT_TRUE(fixed.Agrees());
      }
    }
  }
}

TEST(KCXBufCatNodeT, RecordsWithoutTextAreRefused) {
  const TextRecord narrow = {nullptr, 5, 5};
  const TextRecord empty = {nullptr, 0, 0};
  const ustring *const wide = nullptr;
  const struct {
    u32 type;
    const void *pVal;
  } cases[] = {{KCX_ASTRING_RECORD, &narrow}, {KCX_ASTRING_RECORD, &empty}, {KCX_USTRING_POINTER, &wide}};
  for (const auto &c : cases) {
    for (const char *const attributes : kAttributes) {
      FixedBuffer fixed("before", 100);
      const KCSXNodeDef node = {c.type, 0, c.pVal};
      EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", attributes, c.type, c.pVal, 0), 271) << c.type;
      EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", attributes, KCX_NODE, &node, 0), 271) << c.type;
      EXPECT_TRUE(fixed.Agrees()) << c.type;
    }
  }
}

TEST(KCXBufCatNodeT, RecordsAreReadNoFurtherThanTheirLength) {
  for (u32 length = 0; length <= 40; ++length) {
    GuardedBuffer text(length);
    text.Fill('r');
    for (const u32 other : {0u, 1u, 0xFFFFFFFFu}) {
      const TextRecord record = {text.data<astring>(), other, length};
      XMLBuffer buffer;
      EXPECT_EQ(KCXBufCatNodeT(buffer.record, "n", "a", KCX_ASTRING_RECORD, &record, 0), 0);
      buffer.model.Append("<n a>" + std::string(length, 'r') + "</n>");
      EXPECT_TRUE(buffer.Agrees()) << length;
    }
  }
}

TEST(KCXBufCatNodeT, SelfSizingStringsAreRecords) {
  KCSSSAStr narrow{};
  ASSERT_NE(KCSSSAStrAlloc(&narrow, 8), nullptr);
  KCSSSAStrCatAStr(&narrow, "narrow & long enough to grow");
  KCSSSUStr wide{};
  ASSERT_NE(KCSSSUStrAlloc(&wide, 8), nullptr);
  KCSSSUStrCatAStr(&wide, "wide \xC3\xA9");
  XMLBuffer buffer;
  EXPECT_EQ(KCXBufCatNode(buffer.record, "n", nullptr, KCX_ASTRING_RECORD, &narrow), 0);
  buffer.model.Append("<n>narrow & long enough to grow</n>");
  EXPECT_TRUE(buffer.Agrees());
  EXPECT_EQ(KCXBufCatNode(buffer.record, "w", nullptr, KCX_USTRING_POINTER, &wide), 0);
  buffer.model.Append({"<w>", "wide \xC3\xA9", "</w>"});
  EXPECT_TRUE(buffer.Agrees());
  KCSSSAStrFree(&narrow);
  KCSSSUStrFree(&wide);
}

TEST(KCXBufCatNodeT, DefinitionsAreWrittenAsTheySay) {
  for (const Row &row : Rows()) {
    const KCSXNodeDef node = {row.type, row.subType, row.value.data()};
    const GuardedBuffer definition(sizeof node);
    std::memcpy(definition.data<void>(), &node, sizeof node);
    for (const char *const attributes : kAttributes) {
      XMLBuffer buffer;
      for (const u32 subType : {0u, 16u, 2u}) {
        const s32 status =
            KCXBufCatNodeT(buffer.record, "Name", attributes, KCX_NODE, definition.data<void>(), subType);
        EXPECT_EQ(status, 0) << row.what;
        buffer.model.Append(Pieces(row.type, "Name", attributes, row.content));
        EXPECT_TRUE(buffer.Agrees()) << row.what << ": the caller's format does not count";
      }
    }
  }
}

TEST(KCXBufCatNodeT, DefinitionsOfDefinitionsAreRefused) {
  const u32 value = 5;
  const KCSXNodeDef inner = {KCX_U32, 0, &value};
  FixedBuffer fixed("before", 100);
  for (const void *const pVal : {static_cast<const void *>(&inner), static_cast<const void *>(nullptr)}) {
    const KCSXNodeDef outer = {KCX_NODE, 0, pVal};
    EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", nullptr, KCX_NODE, &outer, 0), 271);
    EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", "a", KCX_NODE, &outer, 10), 271);
  }
  const KCSXNodeDef itself = {KCX_NODE, 0, &itself};
  EXPECT_EQ(KCXBufCatNodeT(&fixed.record, "n", nullptr, KCX_NODE, &itself, 0), 271);
  EXPECT_TRUE(fixed.Agrees());
}

TEST(KCXBufCatNodeT, DefinitionsWithoutAValue) {
  for (u32 type = 0; type <= 30; ++type) {
    const KCSXNodeDef node = {type, 0, nullptr};
    for (const char *const attributes : kAttributes) {
      XMLBuffer buffer;
      const bool isTag = type == KCX_BEGIN || type == KCX_END;
      EXPECT_EQ(KCXBufCatNodeT(buffer.record, "n", attributes, KCX_NODE, &node, 0), isTag ? 0 : 271) << type;
      if (isTag) buffer.model.Append(Pieces(type, "n", attributes, ""));
      EXPECT_TRUE(buffer.Agrees()) << type;
    }
  }
}

TEST(KCXBufCatNode, IsTheFormatZero) {
  for (const Row &row : Rows()) {
    if (row.subType != 0) continue;
    for (const char *const attributes : kAttributes) {
      XMLBuffer buffer;
      EXPECT_EQ(KCXBufCatNode(buffer.record, "n", attributes, row.type, row.value.data()), 0) << row.what;
      buffer.model.Append(Pieces(row.type, "n", attributes, row.content));
      EXPECT_EQ(KCSXBufCatNode(buffer.record, "n", attributes, row.type, row.value.data()), 0) << row.what;
      buffer.model.Append(Pieces(row.type, "n", attributes, row.content));
      EXPECT_TRUE(buffer.Agrees()) << row.what;
    }
  }
}

TEST(KCXBufCatBeginNode, WritesOneTag) {
  for (const char *const attributes : kAttributes) {
    XMLBuffer buffer(0, 1);
    const std::string start = attributes == nullptr ? "<n>" : std::string("<n ") + attributes + ">";
    EXPECT_EQ(KCXBufCatBeginNode(buffer.record, "n", attributes), 0);
    buffer.model.Append(start);
    EXPECT_TRUE(buffer.Agrees());
    EXPECT_EQ(KCSXBufCatBeginNode(buffer.record, "n", attributes), 0);
    buffer.model.Append(start);
    EXPECT_EQ(KCXBufCatNode(buffer.record, "n", attributes, KCX_BEGIN, nullptr), 0);
    buffer.model.Append(start);
    EXPECT_TRUE(buffer.Agrees());
  }
}

TEST(KCXBufCatEndNode, WritesOneTag) {
  XMLBuffer buffer;
  EXPECT_EQ(KCXBufCatEndNode(buffer.record, "name"), 0);
  EXPECT_STREQ(buffer.record->pStr, "</name>");
  EXPECT_EQ(KCSXBufCatEndNode(buffer.record, "%s"), 0);
  EXPECT_STREQ(buffer.record->pStr, "</name></%s>");
  EXPECT_EQ(KCXBufCatNode(buffer.record, "", "not used", KCX_END, nullptr), 0);
  EXPECT_STREQ(buffer.record->pStr, "</name></%s></>");
}

TEST(XMLBuffer, WithoutATextStaysAsItIs) {
  const Bytes value(64, 0);
  for (const u32 type : {1u, 2u, 4u, 5u, 7u, 9u, 11u, 13u, 15u, 18u, 19u, 20u, 26u, 27u}) {
    KCSSSAStr record = {nullptr, 77, 88};
    EXPECT_EQ(KCXBufCatNodeT(&record, "n", "a", type, value.data(), 0), 0) << type;
    EXPECT_EQ(KCXBufCatEmptyNode(&record, "n", nullptr), 0);
    EXPECT_EQ(record.pStr, nullptr);
    EXPECT_EQ(record.strBufSize, 77u);
    EXPECT_EQ(record.strCurLen, 88u);
  }
}

// Growth. The model knows the rule; the content must come through whole.
TEST(Growth, EveryLengthOfContent) {
  for (size_t length = 0; length <= 300; ++length) {
    const std::string text(length, 't');
    std::vector<ustring> wide(length, 0xE9);
    wide.push_back(0);
    const ustring *const pWide = wide.data();
    const std::string wideContent = Joined(std::vector<std::string>(length, "\xC3\xA9"));
    const std::string reserved(length, '<');
    const std::string reservedContent = Joined(std::vector<std::string>(length, "&lt;"));
    const TextRecord record = {text.c_str(), 0, static_cast<u32>(length)};
    const struct {
      u32 type;
      const void *pVal;
      const std::string &content;
    } cases[] = {{KCX_ASTRING, text.c_str(), text},
                 {KCX_USTRING, pWide, wideContent},
                 {KCX_ASTRING_RECORD, &record, text},
                 {KCX_USTRING_POINTER, &pWide, wideContent},
                 {KCX_ASTRING_ESCAPED, reserved.c_str(), reservedContent},
                 {KCX_USTRING_ESCAPED, pWide, wideContent}};
    for (const auto &c : cases) {
      XMLBuffer buffer;
      for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(KCXBufCatNodeT(buffer.record, "n", nullptr, c.type, c.pVal, 0), 0);
        buffer.model.Append(Pieces(c.type, "n", nullptr, c.content));
        ASSERT_TRUE(buffer.Agrees()) << c.type << ' ' << length << ' ' << i;
      }
    }
  }
}

TEST(Growth, EveryLengthOfTagsAroundEveryType) {
  for (const Row &row : Rows()) {
    // A long name makes the end tag alone outgrow the doubled buffer; long attributes do so for the start tag.
    for (size_t length = 0; length <= 160; length += 1 + length / 8) {
      const std::string name(length, 'n');
      for (const char *const attributes : {static_cast<const char *>(nullptr), name.c_str()}) {
        XMLBuffer buffer;
        ASSERT_EQ(KCXBufCatNodeT(buffer.record, name.c_str(), attributes, row.type, row.value.data(), row.subType), 0);
        buffer.model.Append(Pieces(row.type, name, attributes, row.content));
        ASSERT_TRUE(buffer.Agrees()) << row.what << ' ' << length;
      }
    }
  }
}

TEST(Growth, WholeElementsAndPiecesGrowDifferently) {
  const std::string content(150, 'c');
  const std::vector<ustring> units(content.begin(), content.end());
  XMLBuffer whole;
  EXPECT_EQ(KCXBufCatNode(whole.record, "n", nullptr, KCX_ASTRING, content.c_str()), 0);
  EXPECT_EQ(whole.record->strBufSize, 158u) << "3 + 150 + 4 + 1";
  XMLBuffer pieces;
  EXPECT_EQ(KCXBufCatNode(pieces.record, "n", nullptr, KCX_USTRING, BytesOf(units).data()), 0);
  EXPECT_EQ(pieces.record->strBufSize, 308u) << "3 + 150 + 1, doubled for the end tag";
  EXPECT_STREQ(whole.record->pStr, pieces.record->pStr);
}

TEST(Growth, ManyAppendsPastTheDoublingLimit) {
  XMLBuffer buffer;
  const std::string text(997, 'x');
  const Bytes wide = BytesOf(std::vector<ustring>(997, 'y'));
  const u64 number = 12345678901234567890u;
  while (buffer.model.text().size() < 3000000) {
    ASSERT_EQ(KCXBufCatNode(buffer.record, "text", "a=\"1\"", KCX_ASTRING, text.c_str()), 0);
    buffer.model.Append(Pieces(KCX_ASTRING, "text", "a=\"1\"", text));
    ASSERT_TRUE(buffer.model.SizesAgree(*buffer.record));
    ASSERT_EQ(KCXBufCatNode(buffer.record, "wide", nullptr, KCX_USTRING, wide.data()), 0);
    buffer.model.Append(Pieces(KCX_USTRING, "wide", nullptr, std::string(997, 'y')));
    ASSERT_TRUE(buffer.model.SizesAgree(*buffer.record));
    ASSERT_EQ(KCXBufCatNode(buffer.record, "number", nullptr, KCX_U64, &number), 0);
    buffer.model.Append(Pieces(KCX_U64, "number", nullptr, "12345678901234567890"));
    ASSERT_TRUE(buffer.model.SizesAgree(*buffer.record));
  }
  EXPECT_TRUE(buffer.Agrees());
}

TEST(Growth, AtTheDoublingLimit) {
  for (const u32 size : {0xFFFFEu, 0xFFFFFu, 0x100000u, 0x100001u, 2000000u}) {
    for (const u32 length : {size - 9, size - 8, size - 7}) {
      XMLBuffer buffer(size);
      const std::string text(length, 'x');
      ASSERT_EQ(KCXBufCatNode(buffer.record, "n", nullptr, KCX_ASTRING, text.c_str()), 0);
      buffer.model.Append("<n>" + text + "</n>");
      EXPECT_TRUE(buffer.model.SizesAgree(*buffer.record)) << size << ' ' << length;
      ASSERT_EQ(KCXBufCatEndNode(buffer.record, ""), 0);
      buffer.model.Append(std::string("</>"));
      EXPECT_TRUE(buffer.model.SizesAgree(*buffer.record)) << size << ' ' << length;
      EXPECT_EQ(buffer.model.text(), buffer.record->pStr);
    }
  }
}

TEST(Growth, KeptAQuarterOfAVeryLargeBufferWraps) {
  // 125 times 40,000,000 wraps at 32 bits to 7,050,327 hundreds, so the need alone counts.
  const std::string text(40000000, 'x');
  XMLBuffer buffer(40000000);
  ASSERT_EQ(KCXBufCatNode(buffer.record, "n", nullptr, KCX_ASTRING, text.c_str()), 0);
  EXPECT_EQ(buffer.record->strBufSize, 40000008u);
  buffer.model.Append("<n>" + text + "</n>");
  EXPECT_TRUE(buffer.model.SizesAgree(*buffer.record));
  EXPECT_EQ(std::memcmp(buffer.record->pStr, buffer.model.text().c_str(), buffer.model.text().size() + 1), 0);
}

// Values that lie in the buffer they are appended to, which may have to grow for them.
TEST(OwnText, IsAppendedAsItWas) {
  const std::string pattern = "ab<c&\"d>e'";
  for (size_t length = 0; length <= 200; ++length) {
    std::string text;
    while (text.size() < length) text += pattern[text.size() % pattern.size()];
    for (const size_t offset : {size_t{0}, length / 2, length}) {
      const std::string value = text.substr(offset);
      const struct {
        u32 type;
        u32 subType;
        std::string content;
      } cases[] = {{KCX_ASTRING, 0, value},
                   {KCX_ASTRING_ESCAPED, 0, Escaped(value, 0)},
                   {KCX_ASTRING_ESCAPED, 1, Escaped(value, 1)},
                   {KCX_ASTRING_ESCAPED, 2, Escaped(value, 2)},
                   {KCX_ASTRING_ESCAPED, 3, Escaped(value, 3)}};
      for (const auto &c : cases) {
        for (const bool isDefined : {false, true}) {
          // A buffer that must grow, and one that has room.
          for (const u32 size : {0u, 4000u}) {
            XMLBuffer buffer(size);
            ASSERT_EQ(KCSSSAStrCatAStr(buffer.record, text.c_str()), buffer.record->pStr);
            buffer.model.Append(text);
            const KCSXNodeDef node = {c.type, c.subType, buffer.record->pStr + offset};
            const void *const pVal = isDefined ? static_cast<const void *>(&node) : node.pVal;
            const u32 type = isDefined ? KCX_NODE : c.type;
            ASSERT_EQ(KCXBufCatNodeT(buffer.record, "n", "a", type, pVal, c.subType), 0);
            buffer.model.Append(Pieces(c.type, "n", "a", c.content));
            ASSERT_TRUE(buffer.Agrees()) << c.type << ' ' << c.subType << ' ' << length << ' ' << offset;
          }
        }
      }
    }
  }
}

TEST(OwnText, TheBufferIsARecordToo) {
  for (size_t length = 0; length <= 200; ++length) {
    const std::string text(length, 'x');
    for (const u32 size : {0u, 1000u}) {
      XMLBuffer buffer(size);
      KCSSSAStrCatAStr(buffer.record, text.c_str());
      buffer.model.Append(text);
      ASSERT_EQ(KCXBufCatNode(buffer.record, "n", nullptr, KCX_ASTRING_RECORD, buffer.record), 0);
      buffer.model.Append("<n>" + text + "</n>");
      ASSERT_TRUE(buffer.Agrees()) << length;
      const TextRecord part = {buffer.record->pStr + length, 0, 2};
      ASSERT_EQ(KCXBufCatNode(buffer.record, "n", nullptr, KCX_ASTRING_RECORD, &part), 0);
      buffer.model.Append(std::string("<n><n</n>"));
      ASSERT_TRUE(buffer.Agrees()) << length;
    }
  }
}

TEST(OwnText, BytesOfTheTextAsNumbers) {
  const std::string text = "0123456789abcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHIJ01234567";
  const struct {
    u32 type;
    std::function<std::string(const char *)> content;
  } cases[] = {
      {4, [](const char *) { return std::string("false"); }},
      {5, [](const char *p) { return std::to_string(ValueIn<u32>(p)); }},
      {7, [](const char *p) { return std::to_string(ValueIn<s32>(p)); }},
      {9, [](const char *p) { return std::to_string(ValueIn<u64>(p)); }},
      {11, [](const char *p) { return std::to_string(ValueIn<s64>(p)); }},
      {13, [](const char *) { return std::string(); }},
      {15, [](const char *p) { return CalendarText(ValueIn<s64>(p)); }},
      {20, [](const char *p) { return std::to_string(ValueIn<u8>(p)); }},
      {21, [](const char *p) { return std::to_string(ValueIn<s8>(p)); }},
      {22, [](const char *p) { return std::to_string(ValueIn<u16>(p)); }},
      {23, [](const char *p) { return std::to_string(ValueIn<s16>(p)); }},
  };
  for (const auto &c : cases) {
    for (size_t length = 16; length <= text.size(); length += 8) {
      for (size_t offset = 0; offset + 8 <= length; offset += 8) {
        XMLBuffer buffer;
        KCSSSAStrCatAStr(buffer.record, text.substr(0, length).c_str());
        buffer.model.Append(text.substr(0, length));
        const std::string content = c.content(buffer.record->pStr + offset);
        ASSERT_EQ(KCXBufCatNode(buffer.record, "n", nullptr, c.type, buffer.record->pStr + offset), 0);
        buffer.model.Append(Pieces(c.type, "n", nullptr, content));
        ASSERT_TRUE(buffer.Agrees()) << c.type << ' ' << length << ' ' << offset;
      }
    }
  }
}

TEST(OwnText, WideTextToEscape) {
  // Pairs of ASCII bytes, read as 16-bit units, each of which needs three bytes as UTF-8.
  for (size_t units = 1; units <= 40; ++units) {
    const std::string text(2 * units, 'a');
    XMLBuffer buffer;
    KCSSSAStrCatAStr(buffer.record, text.c_str());
    buffer.model.Append(text);
    if (buffer.record->strCurLen + 2 > buffer.record->strBufSize) continue;
    buffer.record->pStr[buffer.record->strCurLen + 1] = 0;  // the other half of the terminator
    ASSERT_EQ(KCXBufCatNode(buffer.record, "n", nullptr, KCX_USTRING_ESCAPED, buffer.record->pStr), 0);
    buffer.model.Append("<n>" + Joined(std::vector<std::string>(units, "\xE6\x85\xA1")) + "</n>");
    ASSERT_TRUE(buffer.Agrees()) << units;
  }
}

// Random documents against a plain text.
namespace {

class RandomDocument {
 public:
  explicit RandomDocument(u32 seed) : m_random(seed), m_buffer(Below(200), Below(4) == 0) {}

  // Appends something, or fails to. False when the buffer and its model no longer agree.
  testing::AssertionResult Step() {
    const std::string name = Text(Below(10) == 0 ? 80 : 8);
    const std::string attributes = Text(12);
    const char *const pAttributes = Below(2) == 0 ? attributes.c_str() : nullptr;
    switch (Below(16)) {
      case 0: AppendEmptyNode(name, pAttributes); break;
      case 1:
        EXPECT_EQ(KCXBufCatBeginNode(m_buffer.record, name.c_str(), pAttributes), 0);
        m_buffer.model.Append(Pieces(KCX_BEGIN, name, pAttributes, ""));
        break;
      case 2:
        EXPECT_EQ(KCXBufCatEndNode(m_buffer.record, name.c_str()), 0);
        m_buffer.model.Append(Pieces(KCX_END, name, nullptr, ""));
        break;
      case 3: Fail(name, pAttributes); break;
      case 4: AppendOwnText(name, pAttributes); break;
      case 5:
      case 6:
      case 7: AppendNumber(name, pAttributes); break;
      default: AppendText(name, pAttributes); break;
    }
    return m_buffer.Agrees();
  }

 private:
  u32 Below(u32 limit) { return static_cast<u32>(m_random() % limit); }

  std::string Text(u32 limit) {
    constexpr char kCharacters[] = "abcdefXYZ 0123<>&\"'%sn=/\t\n\x01\x7F\xC3\xA9\xFF";
    std::string text(Below(limit + 1), 0);
    for (char &c : text) c = kCharacters[Below(sizeof kCharacters - 1)];
    return text;
  }

  void Append(const std::string &name, const char *pAttributes, u32 type, const void *pVal, u32 subType,
              const std::string &content) {
    const std::vector<std::string> pieces = Pieces(type, name, pAttributes, content);
    if (Below(4) == 0) {
      const KCSXNodeDef node = {type, subType, pVal};
      EXPECT_EQ(KCXBufCatNodeT(m_buffer.record, name.c_str(), pAttributes, KCX_NODE, &node, Below(20)), 0);
    } else {
      EXPECT_EQ(KCXBufCatNodeT(m_buffer.record, name.c_str(), pAttributes, type, pVal, subType), 0);
    }
    m_buffer.model.Append(pieces);
  }

  void AppendEmptyNode(const std::string &name, const char *pAttributes) {
    EXPECT_EQ(KCXBufCatEmptyNode(m_buffer.record, name.c_str(), pAttributes), 0);
    const std::string start = Joined(Pieces(KCX_BEGIN, name, pAttributes, ""));
    m_buffer.model.Append(start.substr(0, start.size() - 1) + "/>");
  }

  void AppendText(const std::string &name, const char *pAttributes) {
    const std::string text = Text(Below(20) == 0 ? 2000 : 60);
    const u32 passes = Below(4);
    std::vector<ustring> units;
    std::string utf8;
    for (u32 i = Below(60); i > 0; --i) {
      const bool isPlain = Below(3) != 0;
      units.push_back(isPlain ? static_cast<ustring>("a<&z"[Below(4)]) : 0x3042);
      utf8 += isPlain ? std::string(1, static_cast<char>(units.back())) : "\xE3\x81\x82";
    }
    units.push_back(0);
    const ustring *const pUnits = units.data();
    const u32 length = Below(70);
    const TextRecord record = {text.c_str(), Below(5), length};
    switch (Below(6)) {
      case 0: Append(name, pAttributes, KCX_ASTRING, text.c_str(), passes, text); break;
      case 1: Append(name, pAttributes, KCX_USTRING, units.data(), passes, utf8); break;
      case 2: Append(name, pAttributes, KCX_ASTRING_RECORD, &record, passes, text.substr(0, length)); break;
      case 3: Append(name, pAttributes, KCX_USTRING_POINTER, &pUnits, passes, utf8); break;
      case 4: Append(name, pAttributes, KCX_ASTRING_ESCAPED, text.c_str(), passes, Escaped(text, passes)); break;
      default: Append(name, pAttributes, KCX_USTRING_ESCAPED, units.data(), passes, Escaped(utf8, passes)); break;
    }
  }

  template <class Integer>
  void AppendInteger(const std::string &name, const char *pAttributes, u32 type, u64 bits) {
    const Integer value = static_cast<Integer>(bits);
    const s64 extended = value;
    const bool isHexadecimal = Below(3) == 0;
    Append(name, pAttributes, type, &value, isHexadecimal ? 16 : 10 * Below(2),
           isHexadecimal ? Hexadecimal(static_cast<u32>(extended)) : std::to_string(value));
  }

  void AppendNumber(const std::string &name, const char *pAttributes) {
    const u64 bits = (u64{m_random()} << 32 | m_random()) >> Below(64);
    const s64 number = static_cast<s64>(bits);
    const s64 time = number % 5000000000;
    const booln flag = static_cast<booln>(Below(4));
    const d64 fraction = static_cast<d64>(bits) / 7;
    switch (Below(11)) {
      case 0: AppendInteger<u32>(name, pAttributes, KCX_U32, bits); break;
      case 1: AppendInteger<s32>(name, pAttributes, KCX_S32, bits); break;
      case 2: AppendInteger<u8>(name, pAttributes, KCX_U8, bits); break;
      case 3: AppendInteger<s8>(name, pAttributes, KCX_S8, bits); break;
      case 4: AppendInteger<u16>(name, pAttributes, KCX_U16, bits); break;
      case 5: AppendInteger<s16>(name, pAttributes, KCX_S16, bits); break;
      case 6: Append(name, pAttributes, KCX_U64, &bits, Below(20), std::to_string(bits)); break;
      case 7: Append(name, pAttributes, KCX_S64, &number, Below(20), std::to_string(number)); break;
      case 8: Append(name, pAttributes, KCX_BOOLN, &flag, Below(20), flag == 1 ? "true" : "false"); break;
      case 9: Append(name, pAttributes, KCX_D64, &fraction, Below(20), ""); break;
      default: Append(name, pAttributes, KCX_TIME, &time, Below(20), time < 1 ? "-1" : CalendarText(time)); break;
    }
  }

  void AppendOwnText(const std::string &name, const char *pAttributes) {
    const std::string text = m_buffer.model.text();
    const size_t length = std::min<size_t>(text.size(), Below(100));
    const std::string end = text.substr(text.size() - length);
    const char *const pEnd = m_buffer.record->pStr + text.size() - length;
    const u32 passes = Below(3);
    const TextRecord record = {m_buffer.record->pStr, 0, static_cast<u32>(length)};
    switch (Below(3)) {
      case 0: Append(name, pAttributes, KCX_ASTRING, pEnd, 0, end); break;
      case 1: Append(name, pAttributes, KCX_ASTRING_ESCAPED, pEnd, passes, Escaped(end, passes)); break;
      default: Append(name, pAttributes, KCX_ASTRING_RECORD, &record, 0, text.substr(0, length)); break;
    }
  }

  void Fail(const std::string &name, const char *pAttributes) {
    const u64 value = 1;
    const ustring half[] = {0xDC00, 0};
    const KCSXNodeDef node = {KCX_NODE, 0, &value};
    switch (Below(6)) {
      case 0: EXPECT_EQ(KCXBufCatNode(m_buffer.record, name.c_str(), pAttributes, 28 + Below(100), &value), 271); break;
      case 1: EXPECT_EQ(KCXBufCatNodeT(m_buffer.record, name.c_str(), pAttributes, KCX_U32, &value, 2), 271); break;
      case 2: EXPECT_EQ(KCXBufCatNode(m_buffer.record, name.c_str(), pAttributes, KCX_ASTRING, nullptr), 271); break;
      case 3: EXPECT_EQ(KCXBufCatNode(m_buffer.record, nullptr, pAttributes, KCX_U64, &value), 271); break;
      case 4: EXPECT_EQ(KCXBufCatNode(m_buffer.record, name.c_str(), pAttributes, KCX_NODE, &node), 271); break;
      default:
        EXPECT_EQ(KCXBufCatNode(m_buffer.record, name.c_str(), pAttributes, KCX_USTRING_ESCAPED, half), 272);
        break;
    }
  }

  std::mt19937 m_random;
  XMLBuffer m_buffer;
};

}  // namespace

TEST(XMLBuffer, RandomDocumentsAgreeWithAPlainText) {
  for (u32 seed = 1; seed <= 60; ++seed) {
    RandomDocument document(seed);
    for (int step = 0; step < 250; ++step) ASSERT_TRUE(document.Step()) << seed << ' ' << step;
  }
}

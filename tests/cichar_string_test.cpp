// 16-bit strings under their exported names, the narrow comparison, and self-sizing strings.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "guarded_buffer.h"
#include "zebcs/frame.h"
#include "zebcs/unistr.h"

namespace {

using Units = std::vector<ustring>;

Units U(const std::string &text) {
  Units units(text.begin(), text.end());
  units.push_back(0);
  return units;
}

// A narrow string with a buffer of `size` bytes.
class Narrow {
 public:
  explicit Narrow(u32 size) { EXPECT_NE(KCSSSAStrAlloc(&record, size), nullptr); }
  Narrow(const Narrow &) = delete;
  Narrow &operator=(const Narrow &) = delete;
  ~Narrow() { KCSSSAStrFree(&record); }

  void Expect(const std::string &text, u32 size) const {
    EXPECT_EQ(std::string(record.pStr), text);
    EXPECT_EQ(record.strCurLen, text.size());
    EXPECT_EQ(record.strBufSize, size);
  }

  KCSSSAStr record{};
};

class Wide {
 public:
  explicit Wide(u32 size) { EXPECT_NE(KCSSSUStrAlloc(&record, size), nullptr); }
  Wide(const Wide &) = delete;
  Wide &operator=(const Wide &) = delete;
  ~Wide() { KCSSSUStrFree(&record); }

  void Expect(const Units &text, u32 size) const {
    EXPECT_EQ(Units(record.pStr, record.pStr + record.strCurLen + 1), text);
    EXPECT_EQ(record.strBufSize, size);
  }

  KCSSSUStr record{};
};

}  // namespace

TEST(UniStr, CharacterIsReducedToSixteenBits) {
  const Units text = U("ab");
  EXPECT_EQ(KCSUniStrchr(text.data(), 0x10000 + 'b'), &text[1]);
  EXPECT_EQ(KCSUniStrchr(text.data(), 0x10000), &text[2]);
  Units buffer = U("abc");
  EXPECT_EQ(KCSUniStrset(buffer.data(), 0x30078), buffer.data());
  EXPECT_EQ(buffer, U("xxx"));
  EXPECT_EQ(KCSUniStrnset(buffer.data(), -65536 + 'y', 2), buffer.data());
  EXPECT_EQ(buffer, U("yyx"));
}

TEST(UniStr, PassesToTheLayerBelow) {
  Units buffer(16, 7);
  EXPECT_EQ(KCSUniStrcpy(buffer.data(), U("abc").data()), buffer.data());
  EXPECT_EQ(KCSUniStrlen(buffer.data()), 3u);
  EXPECT_EQ(KCSUniStrcat(buffer.data(), U("de").data()), buffer.data());
  EXPECT_EQ(KCSUniStrncat(buffer.data(), U("fgh").data(), 1), buffer.data());
  EXPECT_EQ(KCSUniStrcmp(buffer.data(), U("abcdef").data()), 0);
  EXPECT_EQ(KCSUniStrcmp(U("a").data(), U("b").data()), 65535);
  EXPECT_EQ(KCSUniStrstr(buffer.data(), U("de").data()), &buffer[3]);
  EXPECT_EQ(KCSUniStrspn(buffer.data(), U("ab").data()), 2u);
  EXPECT_EQ(KCSUniStrcspn(buffer.data(), U("c").data()), 2u);
  EXPECT_EQ(KCSUniStrrev(buffer.data()), buffer.data());
  EXPECT_EQ(KCSUniStrcmp(buffer.data(), U("fedcba").data()), 0);
  EXPECT_EQ(KCSUniStrncpy(buffer.data(), U("xy").data(), 1), buffer.data());
  EXPECT_EQ(KCSUniStrtok(buffer.data(), U("d").data()), &buffer[0]);
  EXPECT_EQ(KCSUniStrcmp(buffer.data(), U("xe").data()), 0);
  EXPECT_EQ(KCSUniStrtok(nullptr, U("d").data()), &buffer[3]);
}

TEST(AStrnicmp, KeptItFoldsToLowerCase) {
  EXPECT_EQ(KCSAStrnicmp("abcZ", "ABCz", 10), 0);
  EXPECT_EQ(KCSAStrnicmp("a_", "aA", 10), '_' - 'a') << "negative: before the letters";
  EXPECT_EQ(KCSAStrnicmp("a", "b", 1), -1);
  EXPECT_EQ(KCSAStrnicmp("ax", "ay", 1), 0);
  EXPECT_EQ(KCSAStrnicmp("a", "ab", 5), -'b');
  EXPECT_EQ(KCSAStrnicmp("ab", "a", 5), 'b');
  EXPECT_EQ(KCSAStrnicmp("a", "b", 0), 0);
  EXPECT_EQ(KCSAStrnicmp("\xE9", "e", 1), 0xE9 - 'e') << "bytes have no sign";
  EXPECT_EQ(KCSAStrnicmp("\xC3\x89", "\xC3\xA9", 2), 0x89 - 0xA9) << "nothing else is folded";
  EXPECT_EQ(KCSAStrnicmp(std::string("a\0x", 3).c_str(), std::string("A\0y", 3).c_str(), 3), 0);
}

TEST(SSAStrAlloc, SizeZeroLeavesTheRecordAlone) {
  KCSSSAStr narrow{const_cast<char *>("x"), 5, 6};
  EXPECT_EQ(KCSSSAStrAlloc(&narrow, 0), nullptr);
  EXPECT_STREQ(narrow.pStr, "x");
  EXPECT_EQ(narrow.strBufSize, 5u);
  EXPECT_EQ(narrow.strCurLen, 6u);
  KCSSSUStr wide{nullptr, 5, 6};
  EXPECT_EQ(KCSSSUStrAlloc(&wide, 0), nullptr);
  EXPECT_EQ(wide.strBufSize, 5u);
  EXPECT_EQ(KCSSSAStrAlloc(nullptr, 1), nullptr);
  EXPECT_EQ(KCSSSUStrAlloc(nullptr, 1), nullptr);
}

TEST(SSAStrAlloc, StartsEmpty) {
  for (const u32 size : {1u, 2u, 3u, 100u}) {
    KCSSSAStr narrow{nullptr, 77, 88};
    EXPECT_EQ(KCSSSAStrAlloc(&narrow, size), narrow.pStr);
    ASSERT_NE(narrow.pStr, nullptr);
    EXPECT_EQ(narrow.pStr[0], 0);
    EXPECT_EQ(narrow.strBufSize, size);
    EXPECT_EQ(narrow.strCurLen, 0u);
    KCSSSAStrFree(&narrow);
    KCSSSUStr wide{nullptr, 77, 88};
    EXPECT_EQ(KCSSSUStrAlloc(&wide, size), wide.pStr);
    ASSERT_NE(wide.pStr, nullptr);
    EXPECT_EQ(wide.pStr[0], 0);
    EXPECT_EQ(wide.strBufSize, size) << "in bytes";
    EXPECT_EQ(wide.strCurLen, 0u);
    KCSSSUStrFree(&wide);
  }
}

TEST(SSAStrFree, ZeroesTheSizesAlsoWithoutABuffer) {
  KCSSSAStr narrow{nullptr, 5, 6};
  KCSSSAStrFree(&narrow);
  EXPECT_EQ(narrow.strBufSize, 0u);
  EXPECT_EQ(narrow.strCurLen, 0u);
  KCSSSUStr wide{nullptr, 5, 6};
  KCSSSUStrFree(&wide);
  EXPECT_EQ(wide.strBufSize, 0u);
  EXPECT_EQ(wide.strCurLen, 0u);
  KCSSSAStrFree(nullptr);
  KCSSSUStrFree(nullptr);
  ASSERT_NE(KCSSSAStrAlloc(&narrow, 4), nullptr) << "a released record may be allocated anew";
  KCSSSAStrFree(&narrow);
  EXPECT_EQ(narrow.pStr, nullptr);
}

TEST(SSAStrCatAStr, GrowsByDoublingOrTheNeed) {
  const struct {
    size_t appended;
    u32 expectedSize;
  } cases[] = {{4, 16}, {5, 16}, {6, 32}, {20, 32}, {21, 32}, {22, 33}, {30, 41}};
  for (const auto &c : cases) {
    Narrow string(16);
    KCSSSAStrCatAStr(&string.record, "0123456789");
    const std::string text(c.appended, 'x');
    EXPECT_EQ(KCSSSAStrCatAStr(&string.record, text.c_str()), string.record.pStr);
    string.Expect("0123456789" + text, c.expectedSize);
    if (c.expectedSize != 16) {
      EXPECT_EQ(string.record.pStr[c.expectedSize - 1], 0) << "a new buffer ends in a zero";
    }
  }
}

TEST(SSAStrCatAStr, BuffersAboveTheLimitGrowByAQuarter) {
  const struct {
    const char *what;
    u32 size;
    u32 expectedSize;
  } cases[] = {
      {"at the limit it doubles", 0xFFFFF, 2 * 0xFFFFF},
      {"one above it is a quarter", 0x100000, 1310720},
      {"two million", 2000000, 2500000},
      {"just below where the product wraps", 34359738, 42949672},
      {"Kept: one further the product wraps and the need decides", 34359739, 34359740},
      {"Kept: a wrapped product above nothing", 40000000, 40000001},
  };
  for (const auto &c : cases) {
    Narrow string(c.size);
    ASSERT_NE(string.record.pStr, nullptr);
    std::memset(string.record.pStr, 'a', c.size - 1);
    string.record.pStr[c.size - 1] = 0;
    string.record.strCurLen = c.size - 1;
    KCSSSAStrCatAStr(&string.record, "b");
    EXPECT_EQ(string.record.strBufSize, c.expectedSize) << c.what;
    EXPECT_EQ(string.record.strCurLen, c.size) << c.what;
    EXPECT_STREQ(string.record.pStr + c.size - 2, "ab") << c.what;
  }
}

TEST(SSUStrCatUStr, SizesAreInBytes) {
  Wide string(2000000);
  std::fill_n(string.record.pStr, 999999, ustring{'a'});
  string.record.pStr[999999] = 0;
  string.record.strCurLen = 999999;
  EXPECT_EQ(KCSSSUStrCatUStr(&string.record, U("b").data()), string.record.pStr);
  EXPECT_EQ(string.record.strBufSize, 2500000u);
  EXPECT_EQ(string.record.strCurLen, 1000000u);
  EXPECT_EQ(string.record.pStr[999999], 'b');
  EXPECT_EQ(string.record.pStr[1000000], 0);

  Wide small(8);
  KCSSSUStrCatUStr(&small.record, U("abc").data());
  small.Expect(U("abc"), 8);
  KCSSSUStrCatUStr(&small.record, U("d").data());
  small.Expect(U("abcd"), 16);
  KCSSSUStrCatUStr(&small.record, U("0123456789abcdef").data());
  small.Expect(U("abcd0123456789abcdef"), 42);
}

TEST(SSUStrCatUStr, OddBufferSizes) {
  for (const u32 size : {1u, 3u, 5u, 7u}) {
    Wide string(size);
    std::string text;
    for (int i = 0; i < 40; ++i) {
      KCSSSUStrCatUStr(&string.record, U("x").data());
      text += 'x';
      EXPECT_EQ(Units(string.record.pStr, string.record.pStr + string.record.strCurLen + 1), U(text));
      EXPECT_LE((string.record.strCurLen + 1) * 2, string.record.strBufSize);
    }
  }
}

TEST(SSStrCat, NullTextAndUnallocatedRecordAreLeftAlone) {
  Narrow narrow(8);
  Wide wide(8);
  KCSSSAStrCatAStr(&narrow.record, "a");
  EXPECT_EQ(KCSSSAStrCatAStr(&narrow.record, nullptr), narrow.record.pStr);
  EXPECT_EQ(KCSSSAStrCatUStr(&narrow.record, nullptr), narrow.record.pStr);
  narrow.Expect("a", 8);
  EXPECT_EQ(KCSSSUStrCatUStr(&wide.record, nullptr), wide.record.pStr);
  EXPECT_EQ(KCSSSUStrCatAStr(&wide.record, nullptr), wide.record.pStr);
  wide.Expect(U(""), 8);
  KCSSSAStr noNarrow{};
  KCSSSUStr noWide{};
  EXPECT_EQ(KCSSSAStrCatAStr(&noNarrow, "a"), nullptr);
  EXPECT_EQ(KCSSSAStrCatUStr(&noNarrow, U("a").data()), nullptr);
  EXPECT_EQ(KCSSSUStrCatUStr(&noWide, U("a").data()), nullptr);
  EXPECT_EQ(KCSSSUStrCatAStr(&noWide, "a"), nullptr);
  EXPECT_EQ(noNarrow.strCurLen + noWide.strCurLen, 0u);
  EXPECT_EQ(KCSSSAStrCatUStr(nullptr, U("a").data()), nullptr);
  EXPECT_EQ(KCSSSUStrCatAStr(nullptr, "a"), nullptr);
  EXPECT_EQ(KCSSSAStrCatAStr(nullptr, "a"), nullptr);
  EXPECT_EQ(KCSSSUStrCatAStr(nullptr, "a"), nullptr);
}

TEST(SSStrCat, EmptyTextChangesNothing) {
  Narrow narrow(1);
  KCSSSAStrCatAStr(&narrow.record, "");
  narrow.Expect("", 1);
  Wide wide(2);
  KCSSSUStrCatAStr(&wide.record, "");
  wide.Expect(U(""), 2);
}

TEST(SSStrCat, ConvertsBetweenTheEncodings) {
  Narrow narrow(4);
  const Units text{'a', 0xE9, 0x3042, 0};
  EXPECT_EQ(KCSSSAStrCatUStr(&narrow.record, text.data()), narrow.record.pStr);
  narrow.Expect("a\xC3\xA9\xE3\x81\x82", 8);
  Wide wide(4);
  EXPECT_EQ(KCSSSUStrCatAStr(&wide.record, "a\xC3\xA9\xE3\x81\x82"), wide.record.pStr);
  wide.Expect(text, 8);
}

TEST(SSStrCat, LongTextsConvertToo) {
  std::string narrowText;
  Units wideText;
  for (int i = 0; i < 3000; ++i) {
    narrowText += "\xC3\xA9";
    wideText.push_back(0xE9);
  }
  wideText.push_back(0);
  Narrow narrow(4);
  KCSSSAStrCatUStr(&narrow.record, wideText.data());
  narrow.Expect(narrowText, 6001);
  Wide wide(4);
  KCSSSUStrCatAStr(&wide.record, narrowText.c_str());
  wide.Expect(wideText, 6002);
}

TEST(SSStrCat, TextThatCannotBeConvertedIsNotAppended) {
  Narrow narrow(4);
  KCSSSAStrCatAStr(&narrow.record, "ab");
  KCSSSAStrCatUStr(&narrow.record, Units{0xDC00, 'x', 0}.data());
  narrow.Expect("ab", 4);
  Wide wide(8);
  KCSSSUStrCatAStr(&wide.record, "ab");
  KCSSSUStrCatAStr(&wide.record, "xyz\xFF");
  wide.Expect(U("ab"), 8);
}

TEST(SSStrCat, KeptLongFormOfZeroEndsTheAppendedText) {
  Wide wide(4);
  KCSSSUStrCatAStr(&wide.record,
                   "ab\xC0\x80"
                   "cd");
  wide.Expect(U("ab"), 8);
}

TEST(SSStrCat, StringMayBeAppendedToItself) {
  Narrow narrow(4);
  KCSSSAStrCatAStr(&narrow.record, "abc");
  KCSSSAStrCatAStr(&narrow.record, narrow.record.pStr);
  narrow.Expect("abcabc", 8);
  Narrow roomy(20);
  KCSSSAStrCatAStr(&roomy.record, "abc");
  KCSSSAStrCatAStr(&roomy.record, roomy.record.pStr + 1);
  roomy.Expect("abcbc", 20);
  Wide wide(4);
  KCSSSUStrCatAStr(&wide.record, "a");
  KCSSSUStrCatUStr(&wide.record, wide.record.pStr);
  wide.Expect(U("aa"), 8);
}

TEST(UniStr, BothNamesReduceTheCharacter) {
  const Units text = U("ab");
  for (const auto find : {KCSUniStrchr, UniStrchr}) {
    EXPECT_EQ(find(text.data(), 'a' - 65536), &text[0]);
    EXPECT_EQ(find(text.data(), INT_MIN), &text[2]) << "low 16 bits of zero find the terminator";
    EXPECT_EQ(find(text.data(), -1), nullptr);
  }
  for (const auto set : {KCSUniStrset, UniStrset}) {
    Units buffer = U("abc");
    buffer.push_back(7);
    EXPECT_EQ(set(buffer.data(), -1), buffer.data());
    EXPECT_EQ(buffer, (Units{0xFFFF, 0xFFFF, 0xFFFF, 0, 7}));
  }
  for (const auto set : {KCSUniStrnset, UniStrnset}) {
    Units buffer = U("ab");
    buffer.resize(7, 7);
    EXPECT_EQ(set(buffer.data(), 0x12345, 5), buffer.data());
    EXPECT_EQ(buffer, (Units{0x2345, 0x2345, 0x2345, 0x2345, 0x2345, 7, 7})) << "a text of two, five written";
  }
}

TEST(UniStr, BothNamesOfEachFunction) {
  const Units abc = U("abc");
  for (const auto length : {KCSUniStrlen, UniStrlen}) {
    Units big(70000, 'x');
    big.push_back(0);
    EXPECT_EQ(length(big.data()), 70000u) << "more than 16 bits";
  }
  for (const auto compare : {KCSUniStrcmp, UniStrcmp}) {
    EXPECT_EQ(compare(U("a").data(), U("b").data()), 65535);
    EXPECT_EQ(compare(abc.data(), U("abc").data()), 0);
  }
  for (const auto copy : {KCSUniStrncpy, UniStrncpy}) {
    for (const u32 count : {0u, 1u, 2u, 3u, 4u, 5u, 0xFFFFFFFFu}) {
      Units buffer(6, 7);
      Units expected(6, 7);
      std::copy_n(abc.begin(), std::min(count, 4u), expected.begin());
      EXPECT_EQ(copy(buffer.data(), abc.data(), count), buffer.data());
      EXPECT_EQ(buffer, expected) << "no terminator and no filling, count " << count;
    }
  }
  for (const auto append : {KCSUniStrncat, UniStrncat}) {
    for (const u32 count : {0u, 1u, 2u, 3u, 4u, 0xFFFFFFFFu}) {
      Units buffer{'x', 0, 7, 7, 7, 7};
      Units expected = buffer;
      std::copy_n(abc.begin(), std::min(count, 3u), expected.begin() + 1);
      if (count > 0) expected[1 + std::min(count, 3u)] = 0;
      EXPECT_EQ(append(buffer.data(), abc.data(), count), buffer.data());
      EXPECT_EQ(buffer, expected) << count;
    }
  }
  for (const auto find : {KCSUniStrstr, UniStrstr}) {
    EXPECT_EQ(find(abc.data(), U("").data()), abc.data());
    EXPECT_EQ(find(abc.data(), U("c").data()), &abc[2]);
    EXPECT_EQ(find(abc.data(), U("abcd").data()), nullptr);
  }
  for (const auto span : {KCSUniStrspn, UniStrspn}) EXPECT_EQ(span(abc.data(), U("ba").data()), 2u);
  for (const auto span : {KCSUniStrcspn, UniStrcspn}) EXPECT_EQ(span(abc.data(), U("c").data()), 2u);
  for (const auto join : {KCSUniStrcat, UniStrcat}) {
    Units buffer{'x', 0, 7, 7, 7, 7};
    EXPECT_EQ(join(buffer.data(), abc.data()), buffer.data());
    EXPECT_EQ(buffer, (Units{'x', 'a', 'b', 'c', 0, 7}));
  }
  for (const auto copy : {KCSUniStrcpy, UniStrcpy}) {
    Units buffer(6, 7);
    EXPECT_EQ(copy(buffer.data(), abc.data()), buffer.data());
    EXPECT_EQ(buffer, (Units{'a', 'b', 'c', 0, 7, 7}));
  }
  for (const auto reverse : {KCSUniStrrev, UniStrrev}) {
    Units buffer = U("abc");
    EXPECT_EQ(reverse(buffer.data()), buffer.data());
    EXPECT_EQ(buffer, U("cba"));
  }
}

TEST(AStrnicmp, EveryPairOfBytes) {
  const auto lower = [](int byte) { return byte >= 'A' && byte <= 'Z' ? byte + 32 : byte; };
  for (int a = 0; a < 256; ++a) {
    for (int b = 0; b < 256; ++b) {
      const char textA[] = {'q', static_cast<char>(a)};
      const char textB[] = {'Q', static_cast<char>(b)};
      ASSERT_EQ(AStrnicmp(textA, textB, 2), lower(a) - lower(b)) << a << ' ' << b;
      ASSERT_EQ(AStrnicmp(textA, textB, 1), 0);
    }
  }
}

TEST(AStrnicmp, StopsAtTheFirstOfDifferenceTerminatorAndCount) {
  std::mt19937 random(1);
  for (unsigned round = 0; round < 5000; ++round) {
    const u32 count = static_cast<u32>(random() % 20);
    const auto letter = [&random] { return random() % 30 == 0 ? '\0' : "aAbB"[random() % 4]; };
    // Neither text has a byte behind the count.
    const sandbox::GuardedBuffer a(count);
    const sandbox::GuardedBuffer b(count);
    for (u32 i = 0; i < count; ++i) {
      a.data<char>()[i] = letter();
      b.data<char>()[i] = random() % 20 == 0 ? letter() : a.data<char>()[i];
    }
    s32 expected = 0;
    for (u32 i = 0; i < count; ++i) {
      const int byteA = a.data<char>()[i] == 0 ? 0 : a.data<char>()[i] | 0x20;
      const int byteB = b.data<char>()[i] == 0 ? 0 : b.data<char>()[i] | 0x20;
      expected = byteA - byteB;
      if (expected != 0 || byteA == 0) break;
    }
    ASSERT_EQ(AStrnicmp(a.data<char>(), b.data<char>(), count), expected) << round;
  }
  EXPECT_EQ(AStrnicmp("ab", "AB", 0xFFFFFFFF), 0);
  EXPECT_EQ(AStrnicmp("a", "b", 0), 0);
}

TEST(AStrnicmp, KeptItsOrderIsOtherThanThatOfTheSixteenBitForm) {
  // The six characters between "Z" and "a" come before the letters here, and after them there.
  for (const char c : {'[', '\\', ']', '^', '_', '`'}) {
    const char text[] = {c, 0};
    const Units units{static_cast<ustring>(c), 0};
    for (const char *letter : {"m", "M"}) {
      EXPECT_LT(AStrnicmp(text, letter, 1), 0) << c;
      EXPECT_GT(Uni_strncasecmp(units.data(), U(letter).data(), 1), 0) << c;
    }
  }
}

// The growth of a self-sizing string, in 64 bits but for the product that wraps.
namespace {

u32 PlainGrown(u32 size, u64 needed) {
  if (needed <= size) return size;
  const u64 more = size <= 0xFFFFF ? u64{size} * 2 : u64{size} * 125 % (u64{1} << 32) / 100;
  return static_cast<u32>(std::max(more, needed));
}

// A whole record.
template <class Record>
auto Fields(const Record &record) {
  return std::tuple(record.pStr, record.strBufSize, record.strCurLen);
}

// Fills a string that is empty.
template <class Unit, class Record>
void Fill(Record &record, size_t length) {
  std::fill_n(record.pStr, length, static_cast<Unit>('a'));
  record.pStr[length] = 0;
  record.strCurLen = static_cast<u32>(length);
}

}  // namespace

TEST(SSStrCat, KeptGrowthAtEveryLimit) {
  const struct {
    const char *what;
    u32 size;  // of the full buffer
    u32 more;  // bytes appended
    u32 expected;
  } cases[] = {
      {"doubling", 1000, 2, 2000},
      {"doubling, all of it used", 1000, 1000, 2000},
      {"one more than doubling gives", 1000, 1002, 2002},
      {"last even size below the doubling limit", 0xFFFFE, 2, 0x1FFFFC},
      {"first size above it", 0x100000, 2, 0x140000},
      {"a quarter, all of it used", 0x100000, 0x40000, 0x140000},
      {"more than a quarter gives", 0x100000, 0x40002, 0x140002},
      {"two million", 2000000, 2, 2500000},
      {"a quarter that is no whole number", 2000002, 2, 2500002},
      {"the last size whose product does not wrap", 34359738, 2, 42949672},
      {"Kept: the first whose product wraps", 34359740, 2, 34359742},
      {"Kept: a wrapped product and a large need", 40000000, 10000000, 50000000},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(c.expected, PlainGrown(c.size, u64{c.size} + c.more)) << c.what;
    Narrow narrow(c.size);
    ASSERT_NE(narrow.record.pStr, nullptr);
    Fill<char>(narrow.record, c.size - 1);
    EXPECT_EQ(KCSSSAStrCatAStr(&narrow.record, std::string(c.more, 'b').c_str()), narrow.record.pStr);
    EXPECT_EQ(narrow.record.strBufSize, c.expected) << c.what;
    EXPECT_EQ(narrow.record.strCurLen, c.size - 1 + c.more) << c.what;
    EXPECT_EQ(std::string_view(narrow.record.pStr).find('b'), c.size - 1) << c.what;
    EXPECT_EQ(std::strlen(narrow.record.pStr), narrow.record.strCurLen) << c.what;
    EXPECT_EQ(narrow.record.pStr[c.expected - 1], 0) << c.what << ": a new narrow buffer ends in a zero";

    Wide wide(c.size);
    ASSERT_NE(wide.record.pStr, nullptr);
    Fill<ustring>(wide.record, c.size / 2 - 1);
    Units text(c.more / 2, 'b');
    text.push_back(0);
    EXPECT_EQ(KCSSSUStrCatUStr(&wide.record, text.data()), wide.record.pStr);
    EXPECT_EQ(wide.record.strBufSize, c.expected) << c.what;
    EXPECT_EQ(wide.record.strCurLen, c.size / 2 - 1 + c.more / 2) << c.what;
    EXPECT_EQ(KCSUniStrlen(wide.record.pStr), wide.record.strCurLen) << c.what;
    EXPECT_EQ(KCSUniStrchr(wide.record.pStr, 'b'), wide.record.pStr + c.size / 2 - 1) << c.what;
  }
}

TEST(SSStrCat, TextThatJustFitsStaysInItsBuffer) {
  for (u32 size = 2; size <= 40; ++size) {
    Narrow narrow(size);
    const astring *const buffer = narrow.record.pStr;
    EXPECT_EQ(KCSSSAStrCatAStr(&narrow.record, std::string(size - 1, 'x').c_str()), buffer);
    narrow.Expect(std::string(size - 1, 'x'), size);
    KCSSSAStrCatAStr(&narrow.record, "");
    narrow.Expect(std::string(size - 1, 'x'), size);
    KCSSSAStrCatAStr(&narrow.record, "y");
    narrow.Expect(std::string(size - 1, 'x') + 'y', 2 * size);

    Wide wide(2 * size);
    const ustring *const wideBuffer = wide.record.pStr;
    EXPECT_EQ(KCSSSUStrCatUStr(&wide.record, U(std::string(size - 1, 'x')).data()), wideBuffer);
    wide.Expect(U(std::string(size - 1, 'x')), 2 * size);
    KCSSSUStrCatUStr(&wide.record, U("y").data());
    wide.Expect(U(std::string(size - 1, 'x') + 'y'), 4 * size);
  }
}

TEST(SSStrCat, AppendingInPlaceWritesNothingBehindTheText) {
  for (u32 length = 0; length <= 40; ++length) {
    // The records' buffers end where nobody may write, just where the text ends.
    const sandbox::GuardedBuffer buffer(length + 3);
    const sandbox::GuardedBuffer text(length + 1);
    std::memcpy(buffer.data<char>(), "ab", 3);
    std::memset(text.data<char>(), 'x', length);
    text.data<char>()[length] = 0;
    KCSSSAStr narrow{buffer.data<char>(), length + 3, 2};
    EXPECT_EQ(KCSSSAStrCatAStr(&narrow, text.data<char>()), buffer.data<char>());
    EXPECT_EQ(std::string(narrow.pStr), "ab" + std::string(length, 'x'));
    EXPECT_EQ(Fields(narrow), std::tuple(buffer.data<char>(), length + 3, length + 2));

    const sandbox::GuardedBuffer wideBuffer(2 * (length + 3));
    const sandbox::GuardedBuffer wideText(2 * (length + 1));
    std::memcpy(wideBuffer.data<char>(), u"ab", 6);
    std::fill_n(wideText.data<ustring>(), length, ustring{'x'});
    wideText.data<ustring>()[length] = 0;
    KCSSSUStr wide{wideBuffer.data<ustring>(), 2 * (length + 3), 2};
    EXPECT_EQ(KCSSSUStrCatUStr(&wide, wideText.data<ustring>()), wideBuffer.data<ustring>());
    EXPECT_EQ(Units(wide.pStr, wide.pStr + length + 3), U("ab" + std::string(length, 'x')));
    EXPECT_EQ(Fields(wide), std::tuple(wideBuffer.data<ustring>(), 2 * (length + 3), length + 2));
  }
}

TEST(SSStrCat, ManyAppendsAgreeWithAPlainImplementation) {
  std::mt19937 random(2);
  for (unsigned round = 0; round < 300; ++round) {
    u32 narrowSize = 1 + static_cast<u32>(random() % 40);
    u32 wideSize = 2 + static_cast<u32>(random() % 40);
    Narrow narrow(narrowSize);
    Wide wide(wideSize);
    std::string expectedNarrow;
    Units expectedWide;
    for (unsigned i = 0; i < 25; ++i) {
      Units units;
      std::string bytes;
      for (size_t left = random() % (i == 20 ? 3000 : 30); left > 0; --left) {
        constexpr struct {
          ustring unit;
          const char *text;
        } kCharacters[] = {{'a', "a"}, {0x7F, "\x7F"}, {0x80, "\xC2\x80"}, {0x3042, "\xE3\x81\x82"}};
        const auto &character = kCharacters[random() % std::size(kCharacters)];
        units.push_back(character.unit);
        bytes += character.text;
      }
      expectedNarrow += bytes;
      expectedWide.insert(expectedWide.end(), units.begin(), units.end());
      narrowSize = PlainGrown(narrowSize, expectedNarrow.size() + 1);
      wideSize = PlainGrown(wideSize, 2 * (expectedWide.size() + 1));
      units.push_back(0);
      if (random() % 2 == 0) {
        ASSERT_EQ(SSAStrCatAStr(&narrow.record, bytes.c_str()), narrow.record.pStr);
        ASSERT_EQ(SSUStrCatAStr(&wide.record, bytes.c_str()), wide.record.pStr);
      } else {
        ASSERT_EQ(SSAStrCatUStr(&narrow.record, units.data()), narrow.record.pStr);
        ASSERT_EQ(SSUStrCatUStr(&wide.record, units.data()), wide.record.pStr);
      }
      ASSERT_EQ(narrow.record.strBufSize, narrowSize);
      ASSERT_EQ(narrow.record.strCurLen, expectedNarrow.size());
      ASSERT_EQ(std::string(narrow.record.pStr), expectedNarrow);
      ASSERT_EQ(wide.record.strBufSize, wideSize);
      ASSERT_EQ(wide.record.strCurLen, expectedWide.size());
      ASSERT_EQ(Units(wide.record.pStr, wide.record.pStr + expectedWide.size()), expectedWide);
      ASSERT_EQ(wide.record.pStr[expectedWide.size()], 0);
    }
  }
}

TEST(SSStrCat, KeptSurrogatesOfTheAppendedTextStandForItsFirstCharacter) {
  Narrow narrow(64);
  KCSSSAStrCatAStr(&narrow.record, "before ");
  KCSSSAStrCatUStr(&narrow.record, Units{'x', 0xD83D, 0xDE00, 0}.data());
  narrow.Expect("before xxx", 64);
  KCSSSAStrCatUStr(&narrow.record, Units{0xD83D, 0xDE00, 0}.data());
  narrow.Expect("before xxx\xF0\x9F\x98\x80\xF0\x9F\x98\x80", 64);
  Wide wide(64);
  KCSSSUStrCatAStr(&wide.record, "\xF0\x90\x80\x80");
  wide.Expect({0xD840, 0xDC00, 0}, 64);
}

TEST(SSStrCat, EveryTextThatCannotBeConvertedLeavesTheWholeRecord) {
  Wide wide(8);
  KCSSSUStrCatAStr(&wide.record, "ab");
  const auto wideBefore = Fields(wide.record);
  const std::string longText(3000, 'x');
  const std::string texts[] = {"\x80",     "xyz\xBF",          "xyz\xFE",          "\xFF",
                               "xyz\xC3",  "xyz\xE3\x81",      "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80",
                               "\xFD\xBF", longText + "\xE3x", "ab\xC0\x80\xFF",   std::string("\xC0\x80\xC3")};
  for (const std::string &text : texts) {
    EXPECT_EQ(KCSSSUStrCatAStr(&wide.record, text.c_str()), wide.record.pStr);
    EXPECT_EQ(Fields(wide.record), wideBefore) << text;
    wide.Expect(U("ab"), 8);
  }
  Narrow narrow(4);
  KCSSSAStrCatAStr(&narrow.record, "ab");
  const auto narrowBefore = Fields(narrow.record);
  const Units longBad = [] {
    Units units(3000, 0xE9);
    units[0] = 0xDC00;
    units.push_back(0);
    return units;
  }();
  for (const Units &text : {Units{0xDC00, 0}, Units{0xDFFF, 'x', 0}, Units{0xD800, 0}, Units{0xDBFF, 'x', 0},
                            Units{0xD800, 0xD800, 0xDC00, 0}, longBad}) {
    EXPECT_EQ(KCSSSAStrCatUStr(&narrow.record, text.data()), narrow.record.pStr);
    EXPECT_EQ(Fields(narrow.record), narrowBefore) << text[0];
    narrow.Expect("ab", 4);
  }
}

TEST(SSStrCat, KeptEveryLongFormOfZeroEndsTheAppendedText) {
  for (const char *zero : {"\xC0\x80", "\xE0\x80\x80", "\xF0\x80\x80\x80", "\xFC\x80\x80\x80\x80\x80"}) {
    Wide wide(64);
    KCSSSUStrCatAStr(&wide.record, "ab");
    KCSSSUStrCatAStr(&wide.record, (std::string(zero) + "cd").c_str());
    wide.Expect(U("ab"), 64);
    KCSSSUStrCatAStr(&wide.record, (std::string("e") + zero + "cd").c_str());
    wide.Expect(U("abe"), 64);
    KCSSSUStrCatAStr(&wide.record, "f");
    wide.Expect(U("abef"), 64);

    Narrow narrow(64);
    KCSSSAStrCatAStr(&narrow.record, zero);
    narrow.Expect(zero, 64);
  }
}

TEST(SSStrCat, StringDoublesItselfAgainAndAgain) {
  Narrow narrow(3);
  Wide wide(6);
  KCSSSAStrCatAStr(&narrow.record, "xy");
  KCSSSUStrCatAStr(&wide.record, "xy");
  std::string expected = "xy";
  for (int i = 0; i < 20; ++i) {
    KCSSSAStrCatAStr(&narrow.record, narrow.record.pStr);
    KCSSSUStrCatUStr(&wide.record, wide.record.pStr);
    expected += expected;
    ASSERT_EQ(narrow.record.strCurLen, expected.size());
    ASSERT_EQ(std::string(narrow.record.pStr), expected);
    ASSERT_EQ(wide.record.strCurLen, expected.size());
    ASSERT_EQ(Units(wide.record.pStr, wide.record.pStr + expected.size() + 1), U(expected));
  }
}

TEST(SSStrCat, AnyEndOfTheStringMayBeAppendedToIt) {
  const std::string text = "abcdefgh";
  for (const u32 size : {9u, 12u, 40u}) {
    for (size_t first = 0; first <= text.size(); ++first) {
      Narrow narrow(size);
      KCSSSAStrCatAStr(&narrow.record, text.c_str());
      KCSSSAStrCatAStr(&narrow.record, narrow.record.pStr + first);
      narrow.Expect(text + text.substr(first), PlainGrown(size, 17 - first));
      Wide wide(2 * size);
      KCSSSUStrCatAStr(&wide.record, text.c_str());
      KCSSSUStrCatUStr(&wide.record, wide.record.pStr + first);
      wide.Expect(U(text + text.substr(first)), PlainGrown(2 * size, 2 * (17 - first)));
    }
  }
}

TEST(SSStrAlloc, BufferThatTheRecordHoldsIsNotReleased) {
  KCSSSAStr narrow{};
  astring *const first = SSAStrAlloc(&narrow, 8);
  ASSERT_NE(first, nullptr);
  SSAStrCatAStr(&narrow, "abc");
  ASSERT_NE(SSAStrAlloc(&narrow, 4), nullptr);
  EXPECT_NE(narrow.pStr, first);
  EXPECT_STREQ(first, "abc") << "still the caller's";
  EXPECT_EQ(narrow.strBufSize, 4u);
  EXPECT_EQ(narrow.strCurLen, 0u);
  EXPECT_STREQ(narrow.pStr, "");
  KCSFreeMem(first);
  SSAStrFree(&narrow);
}

TEST(SSStrAlloc, SizeZeroLeavesAStringInUseAlone) {
  Narrow narrow(8);
  KCSSSAStrCatAStr(&narrow.record, "abc");
  EXPECT_EQ(KCSSSAStrAlloc(&narrow.record, 0), nullptr);
  narrow.Expect("abc", 8);
  Wide wide(8);
  KCSSSUStrCatAStr(&wide.record, "abc");
  EXPECT_EQ(KCSSSUStrAlloc(&wide.record, 0), nullptr);
  wide.Expect(U("abc"), 8);
}

TEST(SSStrFree, ReleasedTwiceAndUsedAnew) {
  KCSSSUStr wide{};
  for (int i = 0; i < 3; ++i) {
    ASSERT_NE(SSUStrAlloc(&wide, 8), nullptr);
    SSUStrCatAStr(&wide, "more than eight bytes");
    SSUStrFree(&wide);
    EXPECT_EQ(Fields(wide), (std::tuple<ustring *, u32, u32>(nullptr, 0, 0)));
    SSUStrFree(&wide);
    EXPECT_EQ(Fields(wide), (std::tuple<ustring *, u32, u32>(nullptr, 0, 0)));
    EXPECT_EQ(SSUStrCatAStr(&wide, "a"), nullptr) << "no buffer, no text";
    EXPECT_EQ(Fields(wide), (std::tuple<ustring *, u32, u32>(nullptr, 0, 0)));
  }
}

TEST(SSAStrCatAStr, NewBufferEndsInAZeroAlsoInUsedMemory) {
  for (u32 size = 16; size <= 500; size += 7) {
    // Memory of the new buffer's size that was used before and comes back, as far as the heap has it that way.
    KCSSSAStr used{};
    ASSERT_NE(SSAStrAlloc(&used, 2 * size), nullptr);
    std::memset(used.pStr, 0x5A, 2 * size);
    Narrow string(size);
    KCSSSAStrCatAStr(&string.record, std::string(size - 1, 'x').c_str());
    const std::string more = "y";
    SSAStrFree(&used);
    KCSSSAStrCatAStr(&string.record, more.c_str());
    ASSERT_EQ(string.record.strBufSize, 2 * size);
    ASSERT_EQ(string.record.pStr[2 * size - 1], 0) << size;
  }
}

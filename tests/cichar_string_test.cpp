// 16-bit strings under their exported names, the narrow comparison, and self-sizing strings.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

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

// The layer of 16-bit string functions below the exported ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "zebcs/unistr.h"

namespace {

using sandbox::GuardedBuffer;
using Units = std::vector<ustring>;

constexpr ustring kFill = 0x5A5A;

// Text as units with a terminator.
Units U(const std::string &text) {
  Units units(text.begin(), text.end());
  units.push_back(0);
  return units;
}

// A buffer of `size` units that begins with the text and is filled with a pattern behind it.
Units Buffer(const std::string &text, size_t size) {
  Units buffer = U(text);
  buffer.resize(size, kFill);
  return buffer;
}

}  // namespace

TEST(Uni_strlen, EveryLengthUpToThePageNobodyMayTouch) {
  for (size_t length = 0; length <= 200; ++length) {
    for (size_t padding = 0; padding < 9; ++padding) {
      GuardedBuffer memory((length + 1 + padding) * sizeof(ustring));
      ustring *const text = memory.data<ustring>() + padding;
      std::fill_n(memory.data<ustring>(), padding, ustring{0});  // zeros in front do not count
      std::fill_n(text, length, ustring{0x100});                 // nor does a unit with a zero byte
      text[length] = 0;
      ASSERT_EQ(Uni_strlen(text), length);
    }
  }
}

TEST(Uni_strcpy, CopiesWithTheTerminatorAndNoMore) {
  Units buffer(6, kFill);
  EXPECT_EQ(Uni_strcpy(buffer.data(), U("abc").data()), buffer.data());
  EXPECT_EQ(buffer, Buffer("abc", 6));
  EXPECT_EQ(Uni_strcpy(buffer.data(), U("").data()), buffer.data());
  EXPECT_EQ(buffer[0], 0);
  EXPECT_EQ(buffer[1], 'b');
}

TEST(Uni_strcat, AppendsAtTheEnd) {
  Units buffer = Buffer("ab", 8);
  EXPECT_EQ(Uni_strcat(buffer.data(), U("cd").data()), buffer.data());
  EXPECT_EQ(buffer, Buffer("abcd", 8));
}

TEST(Uni_strncpy, KeptTheRestIsNotFilledAndNoTerminatorIsAdded) {
  const struct {
    size_t count;
    Units expected;
  } cases[] = {
      {0, {kFill, kFill, kFill, kFill, kFill}}, {1, {'a', kFill, kFill, kFill, kFill}},
      {2, {'a', 'b', kFill, kFill, kFill}},     {3, {'a', 'b', 0, kFill, kFill}},
      {4, {'a', 'b', 0, kFill, kFill}},         {5, {'a', 'b', 0, kFill, kFill}},
  };
  for (const auto &c : cases) {
    Units buffer(5, kFill);
    EXPECT_EQ(Uni_strncpy(buffer.data(), U("ab").data(), c.count), buffer.data());
    EXPECT_EQ(buffer, c.expected) << c.count;
  }
}

TEST(Uni_strncat, AppendsAtMostTheCountAndThenATerminator) {
  const struct {
    size_t count;
    std::string expected;
  } cases[] = {{1, "abc"}, {2, "abcd"}, {3, "abcd"}, {100, "abcd"}};
  for (const auto &c : cases) {
    Units buffer = Buffer("ab", 8);
    EXPECT_EQ(Uni_strncat(buffer.data(), U("cd").data(), c.count), buffer.data());
    EXPECT_EQ(buffer, Buffer(c.expected, 8)) << c.count;
  }
  Units unterminated(3, kFill);
  EXPECT_EQ(Uni_strncat(unterminated.data(), U("cd").data(), 0), unterminated.data());
  EXPECT_EQ(unterminated, Units(3, kFill)) << "a count of 0 does not even look for the end";
}

TEST(Uni_strcmp, KeptTheDifferenceIsNeverNegative) {
  EXPECT_EQ(Uni_strcmp(U("a").data(), U("b").data()), 65535);
  EXPECT_EQ(Uni_strcmp(U("b").data(), U("a").data()), 1);
  EXPECT_EQ(Uni_strcmp(U("abc").data(), U("abc").data()), 0);
  EXPECT_EQ(Uni_strcmp(U("").data(), U("").data()), 0);
  EXPECT_EQ(Uni_strcmp(U("ab").data(), U("a").data()), 'b');
  EXPECT_EQ(Uni_strcmp(U("a").data(), U("ab").data()), 65536 - 'b');
  EXPECT_EQ(Uni_strcmp(Units{0xFFFF, 0}.data(), Units{1, 0}.data()), 0xFFFE);
}

TEST(Uni_strchr, FindsTheFirst) {
  const Units text = U("abcb");
  EXPECT_EQ(Uni_strchr(text.data(), 'b'), &text[1]);
  EXPECT_EQ(Uni_strchr(text.data(), 'x'), nullptr);
  EXPECT_EQ(Uni_strchr(text.data(), 0), &text[4]);
}

TEST(Uni_strstr, FindsTheFirst) {
  const Units text = U("abcabd");
  EXPECT_EQ(Uni_strstr(text.data(), U("").data()), &text[0]);
  EXPECT_EQ(Uni_strstr(text.data(), U("abd").data()), &text[3]);
  EXPECT_EQ(Uni_strstr(text.data(), U("abcabd").data()), &text[0]);
  EXPECT_EQ(Uni_strstr(text.data(), U("abcabde").data()), nullptr);
  EXPECT_EQ(Uni_strstr(text.data(), U("x").data()), nullptr);
  EXPECT_EQ(Uni_strstr(U("").data(), U("a").data()), nullptr);
  EXPECT_EQ(Uni_strstr(text.data(), U("d").data()), &text[5]) << "the last place there is";
}

TEST(Uni_strspn, LeadingRuns) {
  EXPECT_EQ(Uni_strspn(U("aabc").data(), U("ba").data()), 3u);
  EXPECT_EQ(Uni_strspn(U("").data(), U("a").data()), 0u);
  EXPECT_EQ(Uni_strspn(U("a").data(), U("").data()), 0u);
  EXPECT_EQ(Uni_strspn(U("aa").data(), U("a").data()), 2u);
  EXPECT_EQ(Uni_strcspn(U("aabc").data(), U("cb").data()), 2u);
  EXPECT_EQ(Uni_strcspn(U("aa").data(), U("").data()), 2u);
  EXPECT_EQ(Uni_strcspn(U("").data(), U("a").data()), 0u);
}

TEST(Uni_strpbrk, FindsTheFirstOfTheSet) {
  const Units text = U("abc");
  EXPECT_EQ(Uni_strpbrk(text.data(), U("cb").data()), &text[1]);
  EXPECT_EQ(Uni_strpbrk(text.data(), U("x").data()), nullptr);
  EXPECT_EQ(Uni_strpbrk(text.data(), U("").data()), nullptr);
}

TEST(Uni_strtok, SplitsInPlaceAndRemembersItsPosition) {
  Units text = U(",,a,bc,,d,");
  const Units delims = U(",");
  EXPECT_EQ(Uni_strtok(text.data(), delims.data()), &text[2]);
  EXPECT_EQ(text[3], 0) << "the delimiter after the token is overwritten";
  EXPECT_EQ(Uni_strtok(nullptr, delims.data()), &text[4]);
  EXPECT_EQ(Uni_strtok(nullptr, delims.data()), &text[8]);
  EXPECT_EQ(Uni_strtok(nullptr, delims.data()), nullptr);
  EXPECT_EQ(Uni_strtok(nullptr, delims.data()), nullptr) << "the position is forgotten";
  Units last = U("ab");
  EXPECT_EQ(Uni_strtok(last.data(), delims.data()), last.data());
  EXPECT_EQ(Uni_strtok(nullptr, delims.data()), nullptr);
  Units other = U("a;b,c");
  EXPECT_EQ(Uni_strtok(other.data(), delims.data()), &other[0]);
  EXPECT_EQ(Uni_strtok(nullptr, U(";").data()), &other[4]) << "the delimiters may change from call to call";
  Units none = U(",,");
  EXPECT_EQ(Uni_strtok(none.data(), delims.data()), nullptr);
}

TEST(Uni_strset, StopsAtTheTerminator) {
  Units buffer = Buffer("abc", 6);
  EXPECT_EQ(Uni_strset(buffer.data(), 'x'), buffer.data());
  EXPECT_EQ(buffer, Buffer("xxx", 6));
}

TEST(Uni_strnset, KeptItWritesPastTheTerminator) {
  Units buffer = Buffer("ab", 7);
  EXPECT_EQ(Uni_strnset(buffer.data(), 'x', 5), buffer.data());
  EXPECT_EQ(buffer, (Units{'x', 'x', 'x', 'x', 'x', kFill, kFill}));
  EXPECT_EQ(Uni_strnset(buffer.data(), 'y', 0), buffer.data());
  EXPECT_EQ(buffer[0], 'x');
}

TEST(Uni_strrev, Reverses) {
  for (const char *text : {"", "a", "ab", "abc", "a longer text"}) {
    Units buffer = Buffer(text, 20);
    std::string reversed(text);
    std::reverse(reversed.begin(), reversed.end());
    EXPECT_EQ(Uni_strrev(buffer.data()), buffer.data());
    EXPECT_EQ(buffer, Buffer(reversed, 20));
  }
}

TEST(Uni_memcmp, ComparesZerosToo) {
  const Units a{1, 0, 2, 3};
  const Units b{1, 0, 2, 4};
  EXPECT_EQ(Uni_memcmp(a.data(), b.data(), 0), 0);
  EXPECT_EQ(Uni_memcmp(a.data(), b.data(), 3), 0);
  EXPECT_EQ(Uni_memcmp(a.data(), b.data(), 4), 65535);
  EXPECT_EQ(Uni_memcmp(b.data(), a.data(), 4), 1);
}

TEST(Uni_strncasecmp, KeptItFoldsToUpperCase) {
  EXPECT_EQ(Uni_strncasecmp(U("abcZ").data(), U("ABCz").data(), 10), 0);
  EXPECT_EQ(Uni_strncasecmp(U("a_").data(), U("aA").data(), 10), '_' - 'A') << "positive: after the letters";
  EXPECT_EQ(Uni_strncasecmp(U("a").data(), U("b").data(), 1), -1) << "unlike Uni_strcmp it tells the order";
  EXPECT_EQ(Uni_strncasecmp(U("ax").data(), U("ay").data(), 1), 0);
  EXPECT_EQ(Uni_strncasecmp(U("a").data(), U("ab").data(), 5), -'B');
  EXPECT_EQ(Uni_strncasecmp(U("a").data(), U("b").data(), 0), 0);
  EXPECT_EQ(Uni_strncasecmp(U("a").data(), U("b").data(), -1), 0);
  EXPECT_EQ(Uni_strncasecmp(Units{0xE9, 0}.data(), Units{0xC9, 0}.data(), 1), 0x20) << "nothing else is folded";
  EXPECT_EQ(Uni_strncasecmp(Units{'a', 0, 'x'}.data(), Units{'A', 0, 'y'}.data(), 3), 0) << "stops at the terminator";
}

// Against a plain second implementation: text of a few units that are easy to take for each other.
namespace {

constexpr size_t kNone = SIZE_MAX;

Units RandomText(std::mt19937 &random, size_t length) {
  constexpr ustring kUnits[] = {'a', 'b', 0x6100, 0x6161, 0x8061, 0xFFFF, 0xD800};
  const size_t variety = 1 + random() % std::size(kUnits);
  Units text;
  for (size_t i = 0; i < length; ++i) text.push_back(kUnits[random() % variety]);
  text.push_back(0);
  return text;
}

// A copy of text that ends at a page nobody may touch.
class GuardedText {
 public:
  explicit GuardedText(const Units &text) : m_memory(text.size() * sizeof(ustring)), m_size(text.size()) {
    std::copy(text.begin(), text.end(), data());
  }
  ustring *data() const { return m_memory.data<ustring>(); }
  Units Content() const { return {data(), data() + m_size}; }

 private:
  GuardedBuffer m_memory;
  size_t m_size;
};

size_t Length(const Units &text) { return text.size() - 1; }

bool IsIn(const Units &set, ustring unit) { return std::find(set.begin(), set.end() - 1, unit) != set.end() - 1; }

size_t PlainSpan(const Units &text, const Units &set, bool isIn) {
  size_t length = 0;
  while (length < Length(text) && IsIn(set, text[length]) == isIn) ++length;
  return length;
}

size_t PlainFind(const Units &text, const Units &find) {
  for (size_t i = 0; i + Length(find) <= Length(text); ++i) {
    bool isEqual = true;
    for (size_t k = 0; k < Length(find); ++k) isEqual = isEqual && text[i + k] == find[k];
    if (isEqual) return i;
  }
  return kNone;
}

s32 PlainDifference(ustring a, ustring b) { return (65536 + a - b) % 65536; }

s32 PlainCompare(const Units &a, const Units &b) {
  size_t i = 0;
  while (i < Length(a) && i < Length(b) && a[i] == b[i]) ++i;
  return PlainDifference(a[i], b[i]);
}

s32 PlainUpper(ustring unit) { return unit >= 'a' && unit <= 'z' ? unit - 'a' + 'A' : unit; }

// Where in a text a function's answer points.
size_t Place(const ustring *text, const ustring *answer) {
  return answer == nullptr ? kNone : static_cast<size_t>(answer - text);
}

}  // namespace

TEST(Uni_str, SearchingAgreesWithAPlainImplementation) {
  std::mt19937 random(1);
  for (unsigned round = 0; round < 6000; ++round) {
    const Units text = RandomText(random, random() % 24);
    const Units other = RandomText(random, random() % (round % 2 == 0 ? 4 : 24));
    const GuardedText s(text);
    const GuardedText o(other);
    ASSERT_EQ(Uni_strlen(s.data()), Length(text));
    ASSERT_EQ(Uni_strcmp(s.data(), o.data()), PlainCompare(text, other)) << round;
    ASSERT_EQ(Place(s.data(), Uni_strstr(s.data(), o.data())), PlainFind(text, other)) << round;
    ASSERT_EQ(Uni_strspn(s.data(), o.data()), PlainSpan(text, other, true)) << round;
    const size_t before = PlainSpan(text, other, false);
    ASSERT_EQ(Uni_strcspn(s.data(), o.data()), before) << round;
    ASSERT_EQ(Place(s.data(), Uni_strpbrk(s.data(), o.data())), before == Length(text) ? kNone : before) << round;
    for (const ustring unit : {ustring{0}, ustring{'a'}, ustring{0x6100}, ustring{0xFFFF}, ustring{0x7777}}) {
      const auto found = std::find(text.begin(), text.end(), unit);
      ASSERT_EQ(Place(s.data(), Uni_strchr(s.data(), unit)),
                found == text.end() ? kNone : static_cast<size_t>(found - text.begin()));
    }
    ASSERT_EQ(s.Content(), text);
    ASSERT_EQ(o.Content(), other);
  }
}

TEST(Uni_strstr, EveryPieceOfATextIsFoundInIt) {
  const Units text = U("abcdefghijklmnopqrstuvwxyz");
  const GuardedText s(text);
  for (size_t first = 0; first <= Length(text); ++first) {
    for (size_t length = 0; first + length <= Length(text); ++length) {
      Units piece(&text[first], &text[first] + length);
      piece.push_back(0);
      const GuardedText o(piece);
      ASSERT_EQ(Place(s.data(), Uni_strstr(s.data(), o.data())), length == 0 ? 0 : first);
    }
  }
}

TEST(Uni_str, CopyingTouchesNoMoreThanItSays) {
  std::mt19937 random(2);
  for (size_t length = 0; length <= 40; ++length) {
    for (size_t before = 0; before <= 20; before += 5) {
      const Units text = RandomText(random, length);
      const Units start = RandomText(random, before);
      const GuardedText source(text);
      Units joined(start.begin(), start.end() - 1);
      joined.insert(joined.end(), text.begin(), text.end());

      GuardedText copied(Units(length + 1, kFill));
      ASSERT_EQ(Uni_strcpy(copied.data(), source.data()), copied.data());
      ASSERT_EQ(copied.Content(), text);

      Units room = start;
      room.resize(joined.size(), kFill);
      GuardedText appended(room);
      ASSERT_EQ(Uni_strcat(appended.data(), source.data()), appended.data());
      ASSERT_EQ(appended.Content(), joined);

      for (const size_t count : {length / 2, length - 1, length, length + 1, length + 2, kNone}) {
        if (length == 0 && count == kNone) continue;
        const size_t copiedUnits = std::min(count, length + 1);
        // A source that has no terminator within the count is not read past the count.
        const GuardedText cut(Units(text.begin(), text.begin() + static_cast<ptrdiff_t>(copiedUnits)));
        GuardedText dest(Units(copiedUnits, kFill));
        ASSERT_EQ(Uni_strncpy(dest.data(), cut.data(), count), dest.data());
        ASSERT_EQ(dest.Content(), cut.Content()) << length << ' ' << count;

        Units expected(start.begin(), start.end() - 1);
        const size_t appendedUnits = std::min(count, length);
        expected.insert(expected.end(), text.begin(), text.begin() + static_cast<ptrdiff_t>(appendedUnits));
        expected.push_back(0);
        if (count == 0) expected = start;
        Units destBefore = start;
        destBefore.resize(expected.size(), kFill);
        GuardedText joinedDest(destBefore);
        ASSERT_EQ(Uni_strncat(joinedDest.data(), cut.data(), count), joinedDest.data());
        ASSERT_EQ(joinedDest.Content(), expected) << length << ' ' << count;
      }
    }
  }
}

TEST(Uni_str, ComparingStopsAtTheCount) {
  std::mt19937 random(3);
  for (unsigned round = 0; round < 3000; ++round) {
    const size_t count = random() % 20;
    Units a = RandomText(random, count);
    Units b = round % 3 == 0 ? a : RandomText(random, count);
    if (count > 0 && round % 2 == 0) a[random() % count] = 0;
    if (count > 0 && round % 4 == 0) b[random() % count] = 0;
    if (count > 0 && round % 5 == 0) b[random() % count] = static_cast<ustring>(random());
    a.pop_back();
    b.pop_back();
    const GuardedText guardedA(a);
    const GuardedText guardedB(b);

    s32 expected = 0;
    for (size_t i = 0; i < count && expected == 0; ++i) expected = PlainDifference(a[i], b[i]);
    ASSERT_EQ(Uni_memcmp(guardedA.data(), guardedB.data(), count), expected) << round;

    expected = 0;
    for (size_t i = 0; i < count && expected == 0; ++i) {
      expected = PlainUpper(a[i]) - PlainUpper(b[i]);
      if (a[i] == 0 && b[i] == 0) break;
    }
    ASSERT_EQ(Uni_strncasecmp(guardedA.data(), guardedB.data(), static_cast<s32>(count)), expected) << round;
  }
}

TEST(Uni_strncasecmp, FoldsTheLettersOfASCIIAndNothingElse) {
  for (unsigned unit = 0; unit <= 0xFFFF; ++unit) {
    const Units a{static_cast<ustring>(unit)};
    for (const ustring other :
         {ustring{'A'}, ustring{'q'}, ustring{'Z'}, ustring{'['}, ustring{'`'}, ustring{0xFFFF}}) {
      const Units b{other};
      ASSERT_EQ(Uni_strncasecmp(a.data(), b.data(), 1), PlainUpper(a[0]) - PlainUpper(other)) << unit << ' ' << other;
    }
  }
}

TEST(Uni_strncasecmp, CountsAtTheLimits) {
  const Units a = U("abC");
  const Units b = U("ABd");
  EXPECT_EQ(Uni_strncasecmp(a.data(), b.data(), 2), 0);
  EXPECT_EQ(Uni_strncasecmp(a.data(), b.data(), 3), -1);
  EXPECT_EQ(Uni_strncasecmp(a.data(), b.data(), INT_MAX), -1);
  EXPECT_EQ(Uni_strncasecmp(a.data(), b.data(), INT_MIN), 0);
}

TEST(Uni_strcmp, KeptEveryDifferenceIsModulo65536) {
  for (unsigned unit = 1; unit <= 0xFFFF; ++unit) {
    const Units a{static_cast<ustring>(unit), 0};
    ASSERT_EQ(Uni_strcmp(a.data(), U("").data()), static_cast<s32>(unit));
    ASSERT_EQ(Uni_strcmp(U("").data(), a.data()), static_cast<s32>(65536 - unit));
    ASSERT_EQ(Uni_strcmp(a.data(), U("m").data()), PlainDifference(a[0], 'm'));
  }
}

TEST(Uni_strtok, AgreesWithAPlainImplementation) {
  std::mt19937 random(4);
  for (unsigned round = 0; round < 3000; ++round) {
    const Units text = RandomText(random, random() % 30);
    const GuardedText s(text);
    Units expected = text;
    size_t position = 0;
    bool isFirst = true;
    for (;;) {
      const Units delims = RandomText(random, random() % 3);  // others each time
      const GuardedText d(delims);
      while (position < Length(text) && IsIn(delims, text[position])) ++position;
      const size_t token = position < Length(text) ? position : kNone;
      while (position < Length(text) && !IsIn(delims, text[position])) ++position;
      if (token != kNone && position < Length(text)) expected[position++] = 0;
      ASSERT_EQ(Place(s.data(), Uni_strtok(isFirst ? s.data() : nullptr, d.data())), token) << round;
      ASSERT_EQ(s.Content(), expected) << round;
      isFirst = false;
      if (token == kNone) break;
    }
    ASSERT_EQ(Uni_strtok(nullptr, U("").data()), nullptr) << "the position is forgotten";
  }
}

TEST(Uni_strtok, OnePositionForTheWholeProcess) {
  Units first = U("a b c");
  Units second = U("x y");
  const Units blank = U(" ");
  EXPECT_EQ(Uni_strtok(first.data(), blank.data()), &first[0]);
  EXPECT_EQ(KCSUniStrtok(nullptr, blank.data()), &first[2]) << "the exported name has the same position";
  EXPECT_EQ(UniStrtok(second.data(), blank.data()), &second[0]) << "a new text takes the old one's place";
  EXPECT_EQ(Uni_strtok(nullptr, blank.data()), &second[2]);
  EXPECT_EQ(Uni_strtok(nullptr, blank.data()), nullptr);
  EXPECT_EQ(first, (Units{'a', 0, 'b', 0, 'c', 0}));

  EXPECT_EQ(Uni_strtok(U("").data(), blank.data()), nullptr);
  EXPECT_EQ(Uni_strtok(nullptr, blank.data()), nullptr);
  Units third = U("a b");
  Units onlyDelims = U("   ");
  EXPECT_EQ(Uni_strtok(third.data(), blank.data()), &third[0]);
  EXPECT_EQ(Uni_strtok(onlyDelims.data(), blank.data()), nullptr);
  EXPECT_EQ(Uni_strtok(nullptr, blank.data()), nullptr) << "the text before is forgotten, too";
  EXPECT_EQ(onlyDelims, U("   "));
  Units whole = U("a b");
  EXPECT_EQ(Uni_strtok(whole.data(), U("").data()), &whole[0]) << "without delimiters the whole text is a token";
  EXPECT_EQ(whole, U("a b"));
}

TEST(Uni_strset, AnyUnitAndZeroToo) {
  for (const ustring unit : {ustring{0}, ustring{1}, ustring{0xD800}, ustring{0xFFFF}}) {
    for (size_t length = 0; length <= 20; ++length) {
      const GuardedText s(U(std::string(length, 'x')));
      Units expected(length, unit);
      expected.push_back(0);
      EXPECT_EQ(Uni_strset(s.data(), unit), s.data());
      EXPECT_EQ(s.Content(), expected);
    }
  }
}

TEST(Uni_strnset, WritesExactlyTheCount) {
  for (size_t count = 0; count <= 40; ++count) {
    const GuardedText s(Units(count, 0));
    EXPECT_EQ(Uni_strnset(s.data(), 0xABCD, count), s.data());
    EXPECT_EQ(s.Content(), Units(count, 0xABCD));
  }
}

TEST(Uni_strrev, EveryLength) {
  std::mt19937 random(5);
  for (size_t length = 0; length <= 4100; length += length < 70 ? 1 : 403) {
    const Units text = RandomText(random, length);
    const GuardedText s(text);
    Units expected = text;
    std::reverse(expected.begin(), expected.end() - 1);
    EXPECT_EQ(Uni_strrev(s.data()), s.data());
    ASSERT_EQ(s.Content(), expected) << length;
  }
}

TEST(Uni_strncat, CountOfZeroDoesNotLookForTheEnd) {
  const GuardedText unterminated(Units(3, kFill));
  const GuardedText source(U("cd"));
  EXPECT_EQ(Uni_strncat(unterminated.data(), source.data(), 0), unterminated.data());
  EXPECT_EQ(unterminated.Content(), Units(3, kFill));
}

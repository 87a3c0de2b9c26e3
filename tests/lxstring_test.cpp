// The layer of 16-bit string functions below the exported ones.
#include <gtest/gtest.h>

#include <algorithm>
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

// Text escaped for XML as new memory.
#include <gtest/gtest.h>

#include <string>

#include "zebcs/encoding.h"
#include "zebcs/frame.h"

namespace {

std::string Taken(astring *text) {
  if (text == nullptr) return "(null)";
  const std::string copy(text);
  KCSFreeMem(text);
  return copy;
}

}  // namespace

TEST(GetXMLUTF8StrFromAStr, PassesEscapeWhatThePassBeforeMade) {
  const struct {
    const char *text;
    u32 passes;
    const char *expected;
  } cases[] = {
      {"a<b", 0, "a&lt;b"},
      {"a<b", 1, "a&lt;b"},
      {"a<b", 2, "a&amp;lt;b"},
      {"a<b", 3, "a&amp;amp;lt;b"},
      {"plain", 5, "plain"},
      {"", 3, ""},
      {"\"'&<>", 1, "&quot;&apos;&amp;&lt;&gt;"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Taken(KCSGetXMLUTF8StrFromAStr(c.text, c.passes)), c.expected) << c.text << ' ' << c.passes;
    EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromAStr(c.text, c.passes)), c.expected);
  }
  EXPECT_EQ(KCSGetXMLUTF8StrFromAStr(nullptr, 1), nullptr);
}

TEST(GetXMLUTF8StrFromUStr, ConvertsFirst) {
  const ustring text[] = {'<', 0xE9, 0};
  EXPECT_EQ(Taken(KCSGetXMLUTF8StrFromUStr(text, 1)), "&lt;\xC3\xA9");
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromUStr(text, 2)), "&amp;lt;\xC3\xA9");
  const ustring half[] = {0xDC00, 0};
  EXPECT_EQ(KCSGetXMLUTF8StrFromUStr(half, 1), nullptr);
  EXPECT_EQ(KCSGetXMLUTF8StrFromUStr(nullptr, 1), nullptr);
}

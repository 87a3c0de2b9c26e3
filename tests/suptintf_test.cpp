// Text escaped for XML as new memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "guarded_buffer.h"
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

// Against a plain second implementation.
namespace {

std::string PlainPass(const std::string &text) {
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
  return escaped;
}

std::string PlainPasses(std::string text, u32 passes) {
  for (u32 i = 0; i < std::max(passes, 1u); ++i) {
    const std::string escaped = PlainPass(text);
    if (escaped == text) break;
    text = escaped;
  }
  return text;
}

}  // namespace

TEST(GetXMLUTF8StrFromAStr, AgreesWithAPlainImplementation) {
  std::mt19937 random(1);
  for (size_t length = 0; length <= 120; ++length) {
    for (const unsigned spacing : {1u, 3u, 30u, 1000000u}) {
      std::string text(length, 'x');
      for (char &c : text) {
        c = random() % spacing == 0 ? "<>&\"'"[random() % 5] : static_cast<char>(1 + random() % 255);
      }
      const sandbox::GuardedBuffer memory(length + 1);
      std::memcpy(memory.data<char>(), text.c_str(), length + 1);
      for (u32 passes = 0; passes <= 4; ++passes) {
        ASSERT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromAStr(memory.data<char>(), passes)), PlainPasses(text, passes))
            << length << ' ' << passes;
      }
      ASSERT_EQ(std::string(memory.data<char>()), text) << "the source stays";
    }
  }
}

TEST(GetXMLUTF8StrFromAStr, PassesEndWhenNothingNeedsEscaping) {
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromAStr("plain", 0xFFFFFFFF)), "plain") << "the first pass is the last";
  std::string expected = "&";
  for (u32 passes = 1; passes <= 200; ++passes) {
    expected += "amp;";
    EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromAStr("&", passes)), expected) << "an entity is escaped in each pass";
  }
}

TEST(GetXMLUTF8StrFromAStr, ResultIsAlwaysNewMemory) {
  const char text[] = "nothing to escape";
  astring *const result = SUPTIntfGetXMLUTF8StrFromAStr(text, 1);
  ASSERT_NE(result, nullptr);
  EXPECT_NE(result, text);
  EXPECT_STREQ(result, text);
  KCSFreeMem(result);
}

TEST(GetXMLUTF8StrFromAStr, BytesThatAreNoUTF8AreCopied) {
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromAStr("\xFF<\x80\x01\xC3", 1)), "\xFF&lt;\x80\x01\xC3");
}

TEST(GetXMLUTF8StrFromUStr, AgreesWithAPlainImplementation) {
  std::mt19937 random(2);
  constexpr struct {
    ustring unit;
    const char *text;
  } kCharacters[] = {{'a', "a"},
                     {'<', "<"},
                     {'&', "&"},
                     {'"', "\""},
                     {0xE9, "\xC3\xA9"},
                     {'\'', "'"},
                     {'>', ">"},
                     {0x3042, "\xE3\x81\x82"},
                     {0xFFFF, "\xEF\xBF\xBF"}};
  for (size_t length = 0; length <= 120; ++length) {
    const sandbox::GuardedBuffer memory((length + 1) * sizeof(ustring));
    std::string narrow;
    for (size_t i = 0; i < length; ++i) {
      const auto &character = kCharacters[random() % std::size(kCharacters)];
      memory.data<ustring>()[i] = character.unit;
      narrow += character.text;
    }
    memory.data<ustring>()[length] = 0;
    for (u32 passes = 0; passes <= 3; ++passes) {
      ASSERT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromUStr(memory.data<ustring>(), passes)), PlainPasses(narrow, passes))
          << length << ' ' << passes;
    }
  }
}

TEST(GetXMLUTF8StrFromUStr, KeptSurrogatesStandForTheFirstCharacter) {
  const ustring late[] = {'<', 0xD83D, 0xDE00, 0};
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromUStr(late, 1)), "&lt;&lt;&lt;");
  const ustring first[] = {0xD83D, 0xDE00, 0};
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromUStr(first, 1)), "\xF0\x9F\x98\x80\xF0\x9F\x98\x80");
  const ustring half[] = {0xD83D, '<', 0};
  EXPECT_EQ(SUPTIntfGetXMLUTF8StrFromUStr(half, 1), nullptr);
  const ustring empty[] = {0};
  EXPECT_EQ(Taken(SUPTIntfGetXMLUTF8StrFromUStr(empty, 1)), "");
}

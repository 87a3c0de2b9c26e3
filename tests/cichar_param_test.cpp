// Parameter lists: arrays of "name=value" texts.
#include <gtest/gtest.h>

#include <cctype>
#include <clocale>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "guarded_buffer.h"
#include "zebcs/frame.h"
#include "zebcs/param.h"

namespace {

using sandbox::GuardedBuffer;

// A text whose end is the last that can be read.
template <class Unit>
class GuardedText {
 public:
  explicit GuardedText(const std::string &text) : m_memory((text.size() + 1) * sizeof(Unit)), m_length(text.size()) {
    for (size_t i = 0; i < m_length; ++i) data()[i] = static_cast<Unit>(static_cast<unsigned char>(text[i]));
    data()[m_length] = 0;
  }

  Unit *data() const { return m_memory.template data<Unit>(); }

  // All of it, the terminator and what is behind others that were put inside included.
  std::string all() const {
    std::string units;
    for (size_t i = 0; i <= m_length; ++i) units += static_cast<char>(data()[i]);
    return units;
  }

 private:
  GuardedBuffer m_memory;
  size_t m_length;
};

template <class Unit>
std::vector<std::unique_ptr<GuardedText<Unit>>> GuardedTexts(const std::vector<std::string> &texts) {
  std::vector<std::unique_ptr<GuardedText<Unit>>> guarded;
  for (const std::string &text : texts) guarded.push_back(std::make_unique<GuardedText<Unit>>(text));
  return guarded;
}

// Every text of at most `length` of the characters.
std::vector<std::string> TextsOf(const std::string &characters, size_t length) {
  std::vector<std::string> texts = {""};
  for (size_t i = 0; i < texts.size() && texts[i].size() < length; ++i) {
    const std::string text = texts[i];
    for (const char c : characters) texts.push_back(text + c);
  }
  return texts;
}

size_t NameLength(const std::string &entry) {
  const size_t length = entry.find('=');
  return length == std::string::npos ? 0 : length;
}

// The rule of the narrow lookup, character by character.
bool Matches(const std::string &entry, const std::string &name, booln ignoreCase) {
  const auto fold = [ignoreCase](char c) {
    return ignoreCase == 1 ? std::tolower(static_cast<unsigned char>(c)) : static_cast<unsigned char>(c);
  };
  const size_t length = NameLength(entry);
  if (length == 0) return false;
  for (size_t i = 0; i <= length; ++i) {
    if (fold(entry.c_str()[i]) != fold(name.c_str()[i])) return i == name.size() && i == length;
  }
  return true;
}

constexpr booln kFlags[] = {0, 1, 2, -1, 257};

// The two families under one name each.
struct NarrowNames {
  using Unit = astring;
  static constexpr auto kName = KCSGetAStrParamName;
  static constexpr auto kValue = KCSGetAStrParamValue;
  static constexpr auto kLength = GetAStrParamNameLen;
  static constexpr auto kIsValid = KCSIsValidParam;
  static constexpr auto kPlainName = GetAStrParamName;
  static constexpr auto kPlainValue = GetAStrParamValue;
  static constexpr auto kPlainIsValid = IsValidParam;
  static constexpr auto kIndex = KCSGetParamIndexByAStrName;
  static constexpr auto kPlainIndex = GetParamIndexByAStrName;
  static constexpr auto kValueOf = KCSGetAStrParamValueByAStrName;
  static constexpr auto kPlainValueOf = GetAStrParamValueByAStrName;
};

struct WideNames {
  using Unit = ustring;
  static constexpr auto kName = KCSGetUStrParamName;
  static constexpr auto kValue = KCSGetUStrParamValue;
  static constexpr auto kLength = GetUStrParamNameLen;
  static constexpr auto kIsValid = KCSIsValidUParam;
  static constexpr auto kPlainName = GetUStrParamName;
  static constexpr auto kPlainValue = GetUStrParamValue;
  static constexpr auto kPlainIsValid = IsValidUParam;
  static constexpr auto kIndex = KCSGetParamIndexByUStrName;
  static constexpr auto kPlainIndex = GetParamIndexByUStrName;
  static constexpr auto kValueOf = KCSGetUStrParamValueByUStrName;
  static constexpr auto kPlainValueOf = GetUStrParamValueByUStrName;
};

template <class Names>
class ParamEntry : public testing::Test {};
using BothForms = testing::Types<NarrowNames, WideNames>;
TYPED_TEST_SUITE(ParamEntry, BothForms);

}  // namespace

TYPED_TEST(ParamEntry, NameAndValueOfEveryShortText) {
  std::vector<std::string> texts = TextsOf("a=\"", 6);
  for (const char *const text : {"=x", "abc", "a=b=c", "a=b", "name=", "long name=long value", "\xC3\xA9=\xFF"}) {
    texts.emplace_back(text);
  }
  for (const std::string &text : texts) {
    const GuardedText<typename TypeParam::Unit> entry(text);
    const size_t length = NameLength(text);
    const bool isValid = length != 0;
    const std::string before = entry.all();
    ASSERT_EQ(TypeParam::kLength(entry.data()), length) << text;
    ASSERT_EQ(TypeParam::kIsValid(entry.data()), isValid ? 1 : 0) << text;
    ASSERT_EQ(TypeParam::kPlainIsValid(entry.data()), isValid ? 1 : 0) << text;
    ASSERT_EQ(TypeParam::kValue(entry.data()), isValid ? entry.data() + length + 1 : nullptr) << text;
    ASSERT_EQ(TypeParam::kPlainValue(entry.data()), isValid ? entry.data() + length + 1 : nullptr) << text;
    ASSERT_EQ(entry.all(), before) << "the entry stays";
    ASSERT_EQ(TypeParam::kName(entry.data()), isValid ? entry.data() : nullptr) << text;
    std::string after = before;
    if (isValid) after[length] = 0;
    ASSERT_EQ(entry.all(), after) << "a terminator takes the place of the first sign, and that is all";
    ASSERT_EQ(TypeParam::kPlainName(entry.data()), nullptr) << "an entry that was cut has no name";
    ASSERT_EQ(entry.all(), after) << text;
  }
}

TYPED_TEST(ParamEntry, PlainNameCutsToo) {
  const GuardedText<typename TypeParam::Unit> entry("a=b=c");
  EXPECT_EQ(TypeParam::kPlainName(entry.data()), entry.data());
  EXPECT_EQ(entry.all(), std::string("a\0b=c\0", 6));
}

TYPED_TEST(ParamEntry, NoEntryHasNoName) {
  EXPECT_EQ(TypeParam::kLength(nullptr), 0u);
  EXPECT_EQ(TypeParam::kName(nullptr), nullptr);
  EXPECT_EQ(TypeParam::kValue(nullptr), nullptr);
  EXPECT_EQ(TypeParam::kIsValid(nullptr), 0);
}

TYPED_TEST(ParamEntry, EmptyListsHaveNothing) {
  using Unit = typename TypeParam::Unit;
  const GuardedText<Unit> entry("name=value");
  const GuardedText<Unit> name("name");
  Unit *const list[] = {entry.data()};
  for (const booln ignoreCase : kFlags) {
    for (const s32 count : {0, -1, std::numeric_limits<s32>::min()}) {
      for (Unit *const *const ppNVPair : {static_cast<Unit *const *>(nullptr), static_cast<Unit *const *>(list)}) {
        EXPECT_EQ(TypeParam::kIndex(count, ppNVPair, name.data(), ignoreCase), -1);
        EXPECT_EQ(TypeParam::kPlainIndex(count, ppNVPair, name.data(), ignoreCase), -1);
        EXPECT_EQ(TypeParam::kValueOf(count, ppNVPair, name.data(), ignoreCase), nullptr);
        EXPECT_EQ(TypeParam::kPlainValueOf(count, ppNVPair, name.data(), ignoreCase), nullptr);
      }
    }
  }
}

TEST(GetParamIndexByAStrName, FirstEntryOfTheName) {
  const struct {
    std::vector<std::string> entries;
    const char *name;
    s32 exact;
    s32 ignoringCase;
  } cases[] = {
      {{"username=x", "user=y"}, "user", 1, 1},
      {{"username=x", "user=y"}, "user=z", 1, 1},
      {{"username=x", "user=y"}, "username", 0, 0},
      {{"username=x", "user=y"}, "use", -1, -1},
      {{"username=x", "user=y"}, "users", -1, -1},
      {{"username=x", "user=y"}, "", -1, -1},
      {{"username=x", "user=y"}, "=", -1, -1},
      {{"USER=y"}, "user", -1, 0},
      {{"USER=y", "user=z"}, "user", 1, 0},
      {{"user=1", "user=2", "user=3"}, "user", 0, 0},
      {{"user", "=user", "", "=", "user=y"}, "user", 4, 4},
      {{"user", "=user", "", "="}, "user", -1, -1},
      {{"user", "=user", "", "="}, "user=", -1, -1},
      {{"=", "==", "=x"}, "=x", -1, -1},
      {{"a b=1"}, "a b", 0, 0},
      {{"a b=1"}, "A B=2", -1, 0},
      {{"value=VALUE"}, "value=value", 0, 0},
      {{"a=b=c"}, "a=b", 0, 0},
      {{"a=b=c"}, "a=", 0, 0},
      {{"a=b=c"}, "a", 0, 0},
      {{"a[=1", "a{=2"}, "a{", 1, 1},
      {{"@=1", "`=2"}, "`", 1, 1},
      {{"\xC3\x89=1"}, "\xC3\xA9", -1, -1},
      {{"\xFF=1"}, "\xFF", 0, 0},
  };
  for (const auto &c : cases) {
    const auto entries = GuardedTexts<astring>(c.entries);
    const GuardedText<astring> name(c.name);
    std::vector<astring *> list;
    for (const auto &entry : entries) list.push_back(entry->data());
    const s32 count = static_cast<s32>(list.size());
    for (const booln ignoreCase : kFlags) {
      const s32 expected = ignoreCase == 1 ? c.ignoringCase : c.exact;
      const size_t index = static_cast<size_t>(expected);
      astring *const value = expected < 0 ? nullptr : list[index] + NameLength(c.entries[index]) + 1;
      EXPECT_EQ(KCSGetParamIndexByAStrName(count, list.data(), name.data(), ignoreCase), expected) << c.name;
      EXPECT_EQ(GetParamIndexByAStrName(count, list.data(), name.data(), ignoreCase), expected) << c.name;
      EXPECT_EQ(KCSGetAStrParamValueByAStrName(count, list.data(), name.data(), ignoreCase), value) << c.name;
      EXPECT_EQ(GetAStrParamValueByAStrName(count, list.data(), name.data(), ignoreCase), value) << c.name;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
      EXPECT_EQ(entries[i]->all(), std::string(c.entries[i].c_str(), c.entries[i].size() + 1)) << "entries stay";
    }
  }
}

TEST(GetParamIndexByAStrName, EveryShortEntryAndName) {
  const std::vector<std::string> texts = TextsOf("aAb=", 4);
  const auto guarded = GuardedTexts<astring>(texts);
  for (size_t i = 0; i < texts.size(); ++i) {
    astring *const list[] = {guarded[i]->data()};
    for (size_t k = 0; k < texts.size(); ++k) {
      for (const booln ignoreCase : {booln{0}, booln{1}}) {
        const bool matches = Matches(texts[i], texts[k], ignoreCase);
        ASSERT_EQ(GetParamIndexByAStrName(1, list, guarded[k]->data(), ignoreCase), matches ? 0 : -1)
            << texts[i] << ' ' << texts[k] << ' ' << ignoreCase;
      }
    }
  }
}

TEST(GetParamIndexByAStrName, RandomLists) {
  std::mt19937 random(1);
  const auto text = [&random](const std::string &characters, size_t limit) {
    std::string made(random() % (limit + 1), 0);
    for (char &c : made) c = characters[random() % characters.size()];
    return made;
  };
  for (int i = 0; i < 5000; ++i) {
    std::vector<std::string> entries(random() % 12);
    for (std::string &entry : entries) entry = text("abAB", 3) + (random() % 8 == 0 ? "" : "=") + text("aA=", 3);
    std::vector<astring *> list;
    for (std::string &entry : entries) list.push_back(entry.data());
    const std::string name = text("abAB", 3) + (random() % 3 == 0 ? "=" + text("aA=", 3) : "");
    for (const booln ignoreCase : kFlags) {
      s32 expected = -1;
      for (size_t k = 0; k < entries.size() && expected < 0; ++k) {
        if (Matches(entries[k], name, ignoreCase)) expected = static_cast<s32>(k);
      }
      const s32 count = static_cast<s32>(list.size());
      ASSERT_EQ(GetParamIndexByAStrName(count, list.data(), name.c_str(), ignoreCase), expected) << name;
    }
  }
}

TEST(GetParamIndexByAStrName, EveryByteFoldsAsTheLocaleSays) {
  for (const char *const locale : {"C", "C.UTF-8"}) {
    ASSERT_NE(std::setlocale(LC_ALL, locale), nullptr) << locale;
    for (int entryByte = 1; entryByte < 256; ++entryByte) {
      const std::string entry = std::string(1, static_cast<char>(entryByte)) + "=1";
      const GuardedText<astring> guarded(entry);
      astring *const list[] = {guarded.data()};
      for (int nameByte = 1; nameByte < 256; ++nameByte) {
        const std::string name(1, static_cast<char>(nameByte));
        for (const booln ignoreCase : {booln{0}, booln{1}}) {
          ASSERT_EQ(GetParamIndexByAStrName(1, list, name.c_str(), ignoreCase),
                    Matches(entry, name, ignoreCase) ? 0 : -1)
              << entryByte << ' ' << nameByte << ' ' << ignoreCase;
        }
      }
    }
  }
}

// The comparison takes two units for each one of the name, so the "=" of the entry is always compared with the
// terminator of the name: they differ whatever the name and the value are.
TEST(GetParamIndexByUStrName, KeptNoEntryIsEverFound) {
  for (size_t length = 0; length <= 40; ++length) {
    for (const char *const value : {"", "=", "v", "value that is longer than every one of the names in this list"}) {
      const std::string lower(length, 'n');
      const std::string upper(length, 'N');
      const auto entries = GuardedTexts<ustring>({lower + "=" + value, upper + "=" + value, lower, "=" + lower, ""});
      const auto names = GuardedTexts<ustring>({lower, upper, lower + "=", lower + "=" + value, lower + "x", ""});
      std::vector<ustring *> list;
      for (const auto &entry : entries) list.push_back(entry->data());
      const s32 count = static_cast<s32>(list.size());
      for (const auto &name : names) {
        for (const booln ignoreCase : kFlags) {
          ASSERT_EQ(KCSGetParamIndexByUStrName(count, list.data(), name->data(), ignoreCase), -1) << length;
          ASSERT_EQ(GetParamIndexByUStrName(count, list.data(), name->data(), ignoreCase), -1) << length;
          ASSERT_EQ(KCSGetUStrParamValueByUStrName(count, list.data(), name->data(), ignoreCase), nullptr) << length;
          ASSERT_EQ(GetUStrParamValueByUStrName(count, list.data(), name->data(), ignoreCase), nullptr) << length;
        }
      }
    }
  }
}

TEST(GetParamIndexByUStrName, KeptNotEvenAShortEntryIsFound) {
  const auto guarded = GuardedTexts<ustring>(TextsOf("aA=", 4));
  for (const auto &entry : guarded) {
    ustring *const list[] = {entry->data()};
    for (const auto &name : guarded) {
      for (const booln ignoreCase : {booln{0}, booln{1}}) {
        ASSERT_EQ(GetParamIndexByUStrName(1, list, name->data(), ignoreCase), -1);
      }
    }
  }
}

TEST(GetParamIndexByUStrName, KeptNorAnEntryOfAnyUnit) {
  for (const char *const locale : {"C", "C.UTF-8"}) {
    ASSERT_NE(std::setlocale(LC_ALL, locale), nullptr) << locale;
    const GuardedBuffer entry(4 * sizeof(ustring));
    const GuardedBuffer name(2 * sizeof(ustring));
    ustring *const list[] = {entry.data<ustring>()};
    for (u32 unit = 1; unit <= 0xFFFF; ++unit) {
      const ustring entryUnits[] = {static_cast<ustring>(unit), '=', '1', 0};
      const ustring nameUnits[] = {static_cast<ustring>(unit), 0};
      std::memcpy(entry.data<void>(), entryUnits, sizeof entryUnits);
      std::memcpy(name.data<void>(), nameUnits, sizeof nameUnits);
      ASSERT_EQ(GetParamIndexByUStrName(1, list, name.data<ustring>(), 0), -1) << unit;
      ASSERT_EQ(GetParamIndexByUStrName(1, list, name.data<ustring>(), 1), -1) << unit;
    }
  }
}

TEST(GetParamIndexByUStrName, KeptNotEvenWithTheEntryBehindTheName) {
  // What lies behind the terminator counts as zero, so it does not help that it goes on as the entry does.
  for (size_t length = 1; length <= 20; ++length) {
    std::vector<ustring> entry(length, 'n');
    std::vector<ustring> name = entry;
    entry.push_back('=');
    name.push_back(0);
    for (size_t i = 0; i < length; ++i) {
      entry.push_back('v');
      name.push_back('v');
    }
    entry.push_back(0);
    name.push_back(0);
    ustring *const list[] = {entry.data()};
    EXPECT_EQ(GetParamIndexByUStrName(1, list, name.data(), 0), -1) << length;
    EXPECT_EQ(GetParamIndexByUStrName(1, list, name.data(), 1), -1) << length;
  }
}

TEST(GetParamIndex, EntryThatIsMissingIsSkippedAndNameThatIsMissingFindsNone) {
  astring first[] = "a=1";
  astring second[] = "b=2";
  astring *list[] = {nullptr, first, nullptr, second};
  EXPECT_EQ(GetParamIndexByAStrName(4, list, "b", 0), 3);
  EXPECT_STREQ(GetAStrParamValueByAStrName(4, list, "b", 0), "2");
  EXPECT_EQ(GetParamIndexByAStrName(4, list, "c", 0), -1);
  ustring wide[] = {'a', '=', '1', 0};
  ustring *wideList[] = {nullptr, wide};
  for (const booln ignoreCase : {booln{0}, booln{1}}) {
    EXPECT_EQ(GetParamIndexByAStrName(4, list, nullptr, ignoreCase), -1);
    EXPECT_EQ(GetAStrParamValueByAStrName(4, list, nullptr, ignoreCase), nullptr);
    EXPECT_EQ(GetParamIndexByUStrName(2, wideList, nullptr, ignoreCase), -1);
    EXPECT_EQ(GetUStrParamValueByUStrName(2, wideList, nullptr, ignoreCase), nullptr);
  }
}

TEST(RemoveDQuotesInStrArr, TextThatIsMissingIsSkipped) {
  astring text[] = "\"a\"";
  astring *list[] = {nullptr, text, nullptr};
  KCSRemoveDQuotesInStrArr(3, list);
  EXPECT_STREQ(text, "a");
  EXPECT_EQ(list[0], nullptr);
}

TEST(RemoveDQuotesInStrArr, EveryShortText) {
  for (const std::string &text : TextsOf("a\"'", 8)) {
    std::string buffer(text.c_str(), text.size() + 1);
    // Each character, the terminator included, moves left by the quotes before it; nothing is written behind that.
    std::string expected = buffer;
    size_t quotes = 0;
    for (size_t i = 0; i < buffer.size(); ++i) {
      expected[i - quotes] = buffer[i];
      if (buffer[i] == '"') ++quotes;
    }
    astring *list[] = {buffer.data()};
    KCSRemoveDQuotesInStrArr(1, list);
    ASSERT_EQ(buffer, expected) << text;
  }
}

TEST(RemoveDQuotesInStrArr, EachTextByItself) {
  const auto texts = GuardedTexts<astring>({"a\"b\"c", "\"\"\"", "", "plain", "name=\"value\"", "'\\\"'", "\"last"});
  std::vector<astring *> list;
  for (const auto &text : texts) list.push_back(text->data());
  const GuardedBuffer argv(list.size() * sizeof(astring *));
  std::memcpy(argv.data<void>(), list.data(), argv.size());
  KCSRemoveDQuotesInStrArr(static_cast<s32>(list.size()) - 1, argv.data<astring *>());
  const char *const expected[] = {"abc", "", "", "plain", "name=value", "'\\'", "\"last"};
  for (size_t i = 0; i < list.size(); ++i) EXPECT_STREQ(list[i], expected[i]);
  EXPECT_EQ(std::memcmp(argv.data<void>(), list.data(), argv.size()), 0) << "the pointers stay";
  RemoveDQuotesInStrArr(static_cast<s32>(list.size()), argv.data<astring *>());
  EXPECT_STREQ(list.back(), "last");
}

TEST(RemoveDQuotesInStrArr, BelowOneDoesNothing) {
  astring text[] = "\"a\"";
  astring *list[] = {text};
  for (const s32 count : {0, -1, std::numeric_limits<s32>::min()}) {
    KCSRemoveDQuotesInStrArr(count, list);
    KCSRemoveDQuotesInStrArr(count, nullptr);
    RemoveDQuotesInStrArr(count, list);
  }
  EXPECT_STREQ(text, "\"a\"");
}

TEST(AppendNode, JoinsTwoTextsIntoANewOne) {
  const std::string texts[] = {"", "a", "<a>1</a>", "%s%n\"&", "\xC3\xA9\xFF", std::string(3000, 'x')};
  for (const std::string &first : texts) {
    for (const std::string &second : texts) {
      const GuardedText<astring> document(first);
      const GuardedText<astring> node(second);
      for (const auto append : {AppendNode, KCSAppendDNode}) {
        astring *joined = nullptr;
        append(document.data(), node.data(), &joined);
        ASSERT_NE(joined, nullptr);
        EXPECT_NE(joined, document.data());
        EXPECT_NE(joined, node.data());
        EXPECT_EQ(joined, first + second);
        KCSFreeMem(joined);
        EXPECT_EQ(document.data(), first) << "the inputs stay the caller's";
        EXPECT_EQ(node.data(), second);
      }
    }
  }
}

TEST(AppendNode, JoinsATextWithItself) {
  const GuardedText<astring> text("<a/>");
  astring *joined = nullptr;
  KCSAppendDNode(text.data(), text.data(), &joined);
  EXPECT_STREQ(joined, "<a/><a/>");
  KCSFreeMem(joined);
}

TEST(AppendNode, StoresNothingWithoutBoth) {
  astring before[] = "before";
  for (const auto append : {AppendNode, KCSAppendDNode}) {
    astring *joined = before;
    append(nullptr, "node", &joined);
    append("document", nullptr, &joined);
    append(nullptr, nullptr, &joined);
    append("document", "node", nullptr);
    EXPECT_EQ(joined, before);
  }
}

// Key=value files: how lines are cleaned, what is loaded, and edits, alone and between processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <new>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "guarded_buffer.h"
#include "sandbox.h"
#include "shared_file.h"
#include "zebcs/frame.h"
#include "zebcs/keyvalue.h"

namespace {

using sandbox::Channel;
using sandbox::Exists;
using sandbox::Files;
using sandbox::FilesIn;
using sandbox::FileState;
using sandbox::FillDisk;
using sandbox::Guard;
using sandbox::GuardedBuffer;
using sandbox::kPage;
using sandbox::LockHolder;
using sandbox::LockIsFree;
using sandbox::ModeOf;
using sandbox::Mount;
using sandbox::NewSharedNumber;
using sandbox::Process;
using sandbox::TemporaryDirectory;

constexpr const char *kTemporaryName = "kcscfg64.tmp";
constexpr mode_t kEditedMode = S_IFREG | 01664;
constexpr size_t kLongestLine = 8449;
constexpr size_t kLargestPair = 8448;  // key and value together

using Text = std::optional<std::string>;
using Pair = std::pair<std::string, std::string>;
using Pairs = std::vector<Pair>;

// --- The functions under both names ---------------------------------------------------------------------------------

using Loader = KCSKVEntry *(*)(const astring *, u32 *);
using Setter = s32 (*)(const astring *, const KCSKVEntry *, u32);

constexpr Loader kLoaders[] = {
    KCSCFGGetKeyValueEntries,
    [](const astring *path, u32 *size) { return CFGGetKeyValueEntries(path, 0, size); },
    [](const astring *path, u32 *size) { return CFGGetKeyValueEntries(path, 2, size); },
    [](const astring *path, u32 *size) { return CFGGetKeyValueEntries(path, -1, size); },
};
constexpr Loader kProductLoaders[] = {
    KCSCFGInstGetKeyValueEntries,
    [](const astring *name, u32 *size) { return CFGGetKeyValueEntries(name, 1, size); },
};
constexpr Setter kPathSetters[] = {
    KCSCFGSetKeyValue,
    [](const astring *path, const KCSKVEntry *entry, u32 instance) { return CFGSetKeyValue(path, 0, entry, instance); },
    [](const astring *path, const KCSKVEntry *entry, u32 instance) { return CFGSetKeyValue(path, 2, entry, instance); },
    [](const astring *path, const KCSKVEntry *entry, u32 instance) {
      return CFGSetKeyValue(path, -1, entry, instance);
    },
};
constexpr Setter kProductSetters[] = {
    KCSCFGInstSetKeyValue,
    [](const astring *name, const KCSKVEntry *entry, u32 instance) { return CFGSetKeyValue(name, 1, entry, instance); },
};
constexpr auto kGetters = {KCSCFGGetKeyValue, CFGGetKeyValue};
constexpr auto kReleasers = {KCSCFGFreeKeyValueEntries, CFGFreeKeyValueEntries};

std::vector<Setter> FullPathSetters() {
  std::vector<Setter> setters(std::begin(kPathSetters), std::end(kPathSetters));
  setters.push_back(SetKeyValueEntry);
  return setters;
}

// The pairs of a file; nothing when there is no table.
Pairs Load(const std::string &path, Loader load = KCSCFGGetKeyValueEntries) {
  u32 size = 4711;
  KCSKVEntry *const table = load(path.c_str(), &size);
  if (table == nullptr) {
    EXPECT_EQ(size, 0u) << path;
    return {};
  }
  EXPECT_GT(size, 0u) << path;
  Pairs pairs;
  for (u32 i = 0; i < size; ++i) pairs.emplace_back(table[i].pKey, table[i].pValue);
  KCSCFGFreeKeyValueEntries(table, size);
  return pairs;
}

// Without a value the instance is removed.
s32 Set(const std::string &path, const std::string &key, const Text &value, u32 instance = 0,
        Setter set = KCSCFGSetKeyValue) {
  std::string keyText = key;
  std::string valueText = value.value_or("");
  const KCSKVEntry entry{keyText.data(), value ? valueText.data() : nullptr};
  const s32 status = set(path.c_str(), &entry, instance);
  EXPECT_EQ(keyText, key);
  EXPECT_EQ(valueText, value.value_or(""));
  return status;
}

s32 Remove(const std::string &path, const std::string &key, u32 instance = 0, Setter set = KCSCFGSetKeyValue) {
  return Set(path, key, std::nullopt, instance, set);
}

// --- The model: a file as lines, step by step -----------------------------------------------------------------------

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string Cleaned(std::string line) {
  const size_t equals = line.find('=');
  if (equals == std::string::npos) return line;
  size_t value = equals + 1;
  while (value < line.size() && IsBlank(line[value])) ++value;
  if (value < line.size()) {
    std::string start;
    bool isInside = false;
    for (const char c : line.substr(0, value)) {
      if (c == '"') isInside = !isInside;
      if (isInside || !IsBlank(c)) start += c;
    }
    line = start + line.substr(value);
  }
  while (IsBlank(line.back())) line.pop_back();
  std::erase(line, '"');
  return line;
}

std::vector<std::string> PiecesOf(const std::string &text) {
  std::vector<std::string> pieces;
  std::string piece;
  for (const char c : text) {
    piece += c;
    if (c == '\n' || piece.size() == kLongestLine) pieces.push_back(std::exchange(piece, ""));
  }
  if (!piece.empty()) pieces.push_back(piece);
  return pieces;
}

std::optional<Pair> PairIn(const std::string &line) {
  const std::string cleaned = Cleaned(line);
  const size_t equals = cleaned.find('=');
  if (equals == std::string::npos || cleaned[0] == '#' || cleaned[0] == ';') return std::nullopt;
  return Pair(cleaned.substr(0, equals), cleaned.substr(equals + 1));
}

Pairs PairsIn(const std::string &text) {
  Pairs pairs;
  for (const std::string &piece : PiecesOf(text)) {
    if (const std::optional<Pair> pair = PairIn(piece)) pairs.push_back(*pair);
  }
  return pairs;
}

struct Edited {
  s32 status;
  std::string text;
};

Edited EditedText(const std::string &text, const std::string &key, const Text &value, u32 instance) {
  if (key.size() + value.value_or("").size() > kLargestPair) return {SM_STATUS_BAD_SIZE, text};
  const std::string newLine = value ? key + '=' + *value + '\n' : "";
  std::string result;
  u32 found = 0;
  bool isPlaced = false;
  for (const std::string &piece : PiecesOf(text)) {
    const std::optional<Pair> pair = PairIn(piece);
    const bool isInstance = pair && pair->first == key && found++ == instance;
    result += isInstance ? newLine : piece;
    isPlaced |= isInstance;
  }
  if (isPlaced) return {0, result};
  if (instance != 0 && instance != found) return {SM_STATUS_INVALID_INPUT, text};
  if (!value) return {SM_STATUS_KEY_NOT_FOUND, text};
  return {0, text + newLine};
}

// Text of fragments, most of which mean something to a reader of such files.
std::string RandomText(std::mt19937 &random, size_t fragments) {
  static const std::vector<std::string> kFragments = {
      "=",     "=",       "=",           "\"",          "\"",       "\"\"",     " ",  "  ",  "\t",       "\r",
      "\n",    "\n",      "\r\n",        "#",           ";",        "a",        "b",  "key", "key",      "two words",
      "k=1\n", "key=2\n", " key = 3 \n", "\"key\"=4\n", "#key=5\n", "\x80\xFF", "\v", "\f",  "\xC3\xA9", "[s]"};
  std::string text;
  for (size_t i = 0; i < fragments; ++i) text += kFragments[random() % kFragments.size()];
  return text;
}

// --- Files ----------------------------------------------------------------------------------------------------------

std::vector<std::string> LinesOf(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

}  // namespace

// --- Cleaning -------------------------------------------------------------------------------------------------------

namespace {

// Cleans a line in memory that begins or ends at a page nobody may touch.
std::string CleanedIn(const GuardedBuffer &buffer, const std::string &line) {
  EXPECT_LE(line.size() + 1, buffer.size());
  char *const text = buffer.data<char>() + (buffer.size() - line.size() - 1);
  std::memcpy(text, line.c_str(), line.size() + 1);
  CFGEntryRemoveWhiteSpaceAndDQuotes(text);
  return text;
}

std::string CleanedByLibrary(const std::string &line) {
  const std::string afterwards = CleanedIn(GuardedBuffer(line.size() + 1), line);
  EXPECT_EQ(CleanedIn(GuardedBuffer(line.size() + 1, Guard::kBefore), line), afterwards);
  return afterwards;
}

}  // namespace

TEST(CleanLine, Cases) {
  const struct {
    const char *what;
    std::string line;
    std::string cleaned;
  } cases[] = {
      {"nothing to do", "key=value", "key=value"},
      {"line feed", "key=value\n", "key=value"},
      {"carriage return and line feed", "key=value\r\n", "key=value"},
      {"blanks around the equals sign", "key \t = \t value\n", "key=value"},
      {"blanks of all four kinds before the value", "\r\n\t key\r\n\t =\r\n\t value", "key=value"},
      {"blanks in the key", "my own\tkey=value", "myownkey=value"},
      {"blanks in the value stay", "key=two  words\tand three", "key=two  words\tand three"},
      {"line ends in the value stay", "key=one\r\ntwo\nthree", "key=one\r\ntwo\nthree"},
      {"blanks at the end of all four kinds", "key=value \t\r\n \t\r\n", "key=value"},
      {"quoted value", "name  =  \"two words\"\n", "name=two words"},
      {"blanks at the ends of a quoted value", "key= \" two words \" \n", "key= two words "},
      {"quoted blanks alone", "key = \"  \"\n", "key=  "},
      {"empty quotes", "key = \"\" \n", "key="},
      {"one quote before blanks", "key=\"  \n", "key="},
      {"one quote after blanks", "key=  \"", "key="},
      {"quotes within the value", "key=a\"b\"c \"d\"", "key=abc d"},
      {"blanks after a quote that is not closed", "key=\"value  \n", "key=value"},
      {"quoted key", "\"my key\"=value", "my key=value"},
      {"quoted part of a key", "a \"b c\" d = value", "ab cd=value"},
      {"quoted blanks at the start", "\"  key\" = value", "  key=value"},
      {"quote in the key that is not closed", "my \"key of mine = value", "mykey of mine = value"},
      {"quote before the equals sign, closed after it", "key\" = \"value", "key = value"},
      {"second quoted part of the key", "\"a b\" c \"d e\" f=1", "a bcd ef=1"},
      {"quoted equals sign", "\"a = b\" = c", "a = b = c"},
      {"second equals sign", "key = a = b", "key=a = b"},
      {"two equals signs at once", "key == value", "key== value"},
      {"equals sign alone", "=", "="},
      {"equals sign with blanks after it", "=  \n", "="},
      {"equals sign with blanks before it", "  =", "  ="},
      {"no key", "  = value", "=value"},
      {"comment", "  #  x = 1", "#x=1"},
      {"other comment", "  ;  x = 1", ";x=1"},
      {"other controls are no blanks", "a\vb\f= \v c\f\n", "a\vb\f=\v c\f"},
      {"bytes above 127 are no blanks", "\xA0k\x85= \xA0v\xA0", "\xA0k\x85=\xA0v\xA0"},
      {"single quotes mean nothing", "'my key' = 'a b'", "'mykey'='a b'"},
      {"backslashes mean nothing", "a\\\" b = \\\"c\\\"", "a\\ b = \\c\\"},
      {"no equals sign", "  my \"key\" \r\n", "  my \"key\" \r\n"},
      {"blanks alone", " \t\r\n", " \t\r\n"},
      {"quotes alone", "\"\"", "\"\""},
      {"nothing", "", ""},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(CleanedByLibrary(c.line), c.cleaned) << c.what;
    EXPECT_EQ(Cleaned(c.line), c.cleaned) << "the model: " << c.what;
  }
}

TEST(CleanLine, KeptBlanksOfTheKeyStayWhereTheValueIsBlank) {
  EXPECT_EQ(CleanedByLibrary("my key ="), "my key =");
  EXPECT_EQ(CleanedByLibrary("  my\t\"key\" = \t\r\n"), "  my\tkey =");
  EXPECT_EQ(CleanedByLibrary("  #x = \n"), "  #x =");
  EXPECT_EQ(CleanedByLibrary(" \r\n\t=\n"), " \r\n\t=");
}

TEST(CleanLine, EveryShortLineAsTheModelDoes) {
  constexpr std::string_view kLetters = "a \n\"=";
  constexpr size_t kLongest = 7;
  const GuardedBuffer buffer(kLongest + 1);
  size_t count = 1;
  for (size_t length = 0; length <= kLongest; ++length, count *= kLetters.size()) {
    for (size_t number = 0; number < count; ++number) {
      std::string line;
      for (size_t rest = number; line.size() < length; rest /= kLetters.size()) {
        line += kLetters[rest % kLetters.size()];
      }
      ASSERT_EQ(CleanedIn(buffer, line), Cleaned(line)) << '<' << line << '>';
    }
  }
}

TEST(CleanLine, RandomLinesAsTheModelDoes) {
  const GuardedBuffer buffer(2000);
  std::mt19937 random(1);
  for (int i = 0; i < 20000; ++i) {
    const std::string line = RandomText(random, random() % 20);
    ASSERT_EQ(CleanedIn(buffer, line), Cleaned(line)) << '<' << line << '>';
  }
}

TEST(CleanLine, EveryByteThatIsNoBlankAndNoQuoteStays) {
  for (int byte = 1; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    if (IsBlank(c) || c == '"' || c == '=') continue;
    const std::string line = {c, '=', c};
    EXPECT_EQ(CleanedByLibrary(line), line) << byte;
    EXPECT_EQ(CleanedByLibrary(' ' + line + ' '), line) << byte;
  }
}

TEST(CleanLine, AnyLengthIsCleaned) {
  for (const size_t length : {4096u, 8448u, 8449u, 8450u, 8451u, 100000u}) {
    const std::string word(length, 'x');
    const std::string blanks(length, ' ');
    EXPECT_EQ(CleanedByLibrary(blanks + word + blanks + '=' + blanks + word + blanks), word + '=' + word) << length;
    EXPECT_EQ(CleanedByLibrary(word + '=' + blanks), word + '=') << length;
    EXPECT_EQ(CleanedByLibrary(std::string(length, '"') + '=' + std::string(length, '"')), "=") << length;
    EXPECT_EQ(CleanedByLibrary(word + blanks), word + blanks) << length;
  }
}

TEST(CleanLine, NullIsIgnored) { CFGEntryRemoveWhiteSpaceAndDQuotes(nullptr); }

TEST(EqualPosition, IsThatOfTheFirst) {
  const struct {
    const char *text;
    s32 position;
  } cases[] = {
      {"", -1},       {"key", -1},    {"=", 0},    {"==", 0},    {"key=value", 3},
      {"key=a=b", 3}, {" \"=\"=", 2}, {"#x=1", 2}, {"a\nb=", 3}, {"\xFF=", 1},
  };
  for (const auto &c : cases) EXPECT_EQ(CFGEqualPosition(c.text), c.position) << c.text;
  EXPECT_EQ(CFGEqualPosition(nullptr), -1);
  EXPECT_EQ(CFGEqualPosition((std::string(100000, 'x') + "==").c_str()), 100000);
}

TEST(GetFirstNonWhiteSpacePos, PassesOverSpacesAndTabsOnly) {
  const struct {
    const char *text;
    s32 position;
  } cases[] = {
      {"", -1},  {" ", -1}, {"\t", -1},   {" \t \t", -1}, {"a", 0},    {" a", 1},   {"\ta b", 1}, {" \t a", 3},
      {"\n", 0}, {"\r", 0}, {" \r\n", 1}, {" \v", 1},     {"\f a", 0}, {"\xA0", 0}, {"  \"", 2},  {" =", 1},
  };
  for (const auto &c : cases) EXPECT_EQ(CFGGetFirstNonWhiteSpacePos(c.text), c.position) << '<' << c.text << '>';
  EXPECT_EQ(CFGGetFirstNonWhiteSpacePos(nullptr), -1);
  EXPECT_EQ(CFGGetFirstNonWhiteSpacePos((std::string(100000, ' ') + 'x').c_str()), 100000);
  EXPECT_EQ(CFGGetFirstNonWhiteSpacePos(std::string(100000, '\t').c_str()), -1);
}

TEST(PositionSearches, ReadNothingPastTheEnd) {
  for (const std::string text : {"", " ", "key", " \t"}) {
    const GuardedBuffer buffer(text.size() + 1);
    std::memcpy(buffer.data<char>(), text.c_str(), text.size() + 1);
    EXPECT_EQ(CFGEqualPosition(buffer.data<char>()), -1);
    EXPECT_EQ(CFGGetFirstNonWhiteSpacePos(buffer.data<char>()), text == "key" ? 0 : -1);
  }
}

// --- Loading --------------------------------------------------------------------------------------------------------

TEST(Load, Lines) {
  const struct {
    const char *what;
    std::string text;
    Pairs pairs;
  } cases[] = {
      {"one pair", "key=value\n", {{"key", "value"}}},
      {"without a line feed at the end", "key=value", {{"key", "value"}}},
      {"lines of another system", "a=1\r\nb=2\r\n", {{"a", "1"}, {"b", "2"}}},
      {"quoted value of two words", "name  =  \"two words\"\n", {{"name", "two words"}}},
      {"comments", "#x=1\n;x=2\nx=3\n", {{"x", "3"}}},
      {"comments behind blanks", "  #x=1\n\t;x=2\nx=3\n", {{"x", "3"}}},
      {"comments made by taking quotes away", "\"#\"x=1\n\";x\"=2\nx=3\n", {{"x", "3"}}},
      {"quoted blank before the sign", "\" #x\"=1\n", {{" #x", "1"}}},
      {"signs further on", "x#=#1\nx;=;2\n", {{"x#", "#1"}, {"x;", ";2"}}},
      {"no equals sign", "key\nkey value\n\"key\"\n\n \t\nx=1\n", {{"x", "1"}}},
      {"the same key again", "k=1\nK=2\nk=1\nk=3\n", {{"k", "1"}, {"K", "2"}, {"k", "1"}, {"k", "3"}}},
      {"the first equals sign splits", "a=b=c\nd = e = f\n\"g=h\"=i\n", {{"a", "b=c"}, {"d", "e = f"}, {"g", "h=i"}}},
      {"blanks in a key", "my key=1\n", {{"mykey", "1"}}},
      {"no value", "a=\nb= \t\n\"c\" = \"\"\n", {{"a", ""}, {"b", ""}, {"c", ""}}},
      {"no key", "=1\n = 2\n\"\"=3\n", {{"", "1"}, {"", "2"}, {"", "3"}}},
      {"nothing but an equals sign", "=\n==\n", {{"", ""}, {"", "="}}},
      {"headers mean nothing", "[s]\n[s=1]\n", {{"[s", "1]"}}},
      {"quotes do not reach over lines", "a=\"1\nb = \"2\"\n", {{"a", "1"}, {"b", "2"}}},
      {"UTF-8", "\xC3\xA9 = \xE2\x82\xAC 5\n", {{"\xC3\xA9", "\xE2\x82\xAC 5"}}},
      {"last line is a comment", "a=1\n#b=2", {{"a", "1"}}},
      {"last line is blank", "a=1\n  \t", {{"a", "1"}}},
  };
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::WriteFile(path, c.text));
    const FileState before(path);
    for (const Loader load : kLoaders) EXPECT_EQ(Load(path, load), c.pairs) << c.what;
    EXPECT_EQ(PairsIn(c.text), c.pairs) << "the model: " << c.what;
    EXPECT_EQ(FileState(path), before) << c.what;
  }
  EXPECT_EQ(FilesIn(directory.path()).size(), 1u);
}

TEST(Load, KeptBlanksOfAKeyWithoutAValueStayAndHideACommentSign) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "my key =\n  #x=\n\t;y= \r\n#z=\n"));
  EXPECT_EQ(Load(path), (Pairs{{"my key ", ""}, {"  #x", ""}, {"\t;y", ""}}));
}

TEST(Load, NoPairsAreNoTable) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  for (const char *text : {"", "\n", "key\n", "#a=1\n;b=2\n  #c=3\n", " \t\r\n\n", "\"a\""}) {
    ASSERT_TRUE(sandbox::WriteFile(path, text));
    for (const Loader load : kLoaders) {
      u32 size = 7;
      EXPECT_EQ(load(path.c_str(), &size), nullptr) << text;
      EXPECT_EQ(size, 0u) << text;
    }
  }
}

TEST(Load, FileThatCannotBeReadIsNoTable) {
  const TemporaryDirectory directory;
  ASSERT_TRUE(sandbox::WriteFile(directory.Path("plain"), "a=1\n"));
  for (const std::string &path : {directory.Path("missing"), directory.path(), directory.Path("plain/below"),
                                  directory.Path("no/such"), std::string()}) {
    for (const Loader load : kLoaders) {
      u32 size = 7;
      EXPECT_EQ(load(path.c_str(), &size), nullptr) << path;
      EXPECT_EQ(size, 0u) << path;
    }
  }
  EXPECT_EQ(FilesIn(directory.path()).size(), 1u) << "loading makes nothing";
}

TEST(Load, ArgumentsMustBeThere) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  std::vector<Loader> loaders(std::begin(kLoaders), std::end(kLoaders));
  loaders.insert(loaders.end(), std::begin(kProductLoaders), std::end(kProductLoaders));
  for (const Loader load : loaders) {
    u32 size = 7;
    EXPECT_EQ(load(nullptr, &size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(load(path.c_str(), nullptr), nullptr);
    EXPECT_EQ(load(nullptr, nullptr), nullptr);
  }
}

TEST(Load, LongLineIsSeveralLines) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  for (const size_t length : {8447u, 8448u, 8449u, 8450u, 8451u, 2 * 8449u, 2 * 8449u + 1, 50000u}) {
    // The pieces after the first have no equals sign of their own.
    const std::string value(length - 2, 'v');
    ASSERT_TRUE(sandbox::WriteFile(path, "k=" + value + "\nlast=1"));
    EXPECT_EQ(Load(path), (Pairs{{"k", value.substr(0, 8447)}, {"last", "1"}})) << length;
    // With one each they are pairs.
    std::string text = "k=" + value;
    for (size_t i = 8449 + 5; i < text.size(); i += 8449) text[i] = '=';
    ASSERT_TRUE(sandbox::WriteFile(path, text));
    const Pairs pairs = Load(path);
    EXPECT_EQ(pairs, PairsIn(text)) << length;
    EXPECT_EQ(pairs.size(), text.size() <= 8449 + 5 ? 1u : 1u + (text.size() - 5 - 1) / 8449) << length;
  }
}

TEST(Load, PieceOfALongLineIsReadAsALineIs) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  const std::string start = "k=" + std::string(8447, 'v');
  const Pair first("k", std::string(8447, 'v'));
  const struct {
    const char *what;
    std::string rest;
    Pairs pairs;
  } cases[] = {
      {"comment", "#x=1\n", {first}},
      {"pair", " x = 1 \n", {first, {"x", "1"}}},
      {"no value", "x =\n", {first, {"x ", ""}}},
      {"equals sign", "=1\n", {first, {"", "1"}}},
      {"quotes begin anew", "my \"own\" key=1\n", {first, {"myownkey", "1"}}},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::WriteFile(path, start + c.rest));
    EXPECT_EQ(Load(path), c.pairs) << c.what;
  }
  // A piece is cleaned without what follows: blanks at its end are no longer between words.
  ASSERT_TRUE(sandbox::WriteFile(path, "k=v" + std::string(8446, ' ') + "w=x\n"));
  EXPECT_EQ(Load(path), (Pairs{{"k", "v"}, {"w", "x"}}));
  ASSERT_TRUE(sandbox::WriteFile(path, std::string(8448, ' ') + "=x\n"));
  EXPECT_EQ(Load(path), (Pairs{{std::string(8448, ' '), ""}}));
}

TEST(Load, TextOfALineEndsAtAZeroByte) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, std::string("a=1\0b=2\nc\0=3\nd=\0\n\0e=5\nf=6\n", 26)));
  EXPECT_EQ(Load(path), (Pairs{{"a", "1"}, {"d", ""}, {"f", "6"}}));
}

TEST(Load, ManyPairsComeInTheirOrder) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  for (const int count : {1, 2, 15, 16, 17, 31, 32, 33, 1000, 20000}) {
    std::string text;
    Pairs expected;
    for (int i = 0; i < count; ++i) {
      expected.emplace_back("key" + std::to_string(i % 7), "value " + std::to_string(i));
      text += expected.back().first + " = " + expected.back().second + "\n# a comment = " + std::to_string(i) + '\n';
    }
    ASSERT_TRUE(sandbox::WriteFile(path, text));
    ASSERT_EQ(Load(path), expected) << count;
  }
}

TEST(Load, RandomFilesAsTheModelDoes) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  std::mt19937 random(2);
  for (int i = 0; i < 1500; ++i) {
    std::string text = RandomText(random, random() % 200);
    if (i % 10 == 0) {
      // Lines around the longest, in front and in between.
      text = RandomText(random, 1) + std::string(8430 + random() % 30, i % 20 == 0 ? 'x' : ' ') + text +
             std::string(random() % 40000, 'y') + RandomText(random, 20);
    }
    ASSERT_TRUE(sandbox::WriteFile(path, text));
    const Loader load = kLoaders[static_cast<size_t>(i) % std::size(kLoaders)];
    ASSERT_EQ(Load(path, load), PairsIn(text)) << text;
  }
}

TEST(Load, EachCallMakesATableOfItsOwn) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\nb=2\n"));
  u32 size = 0;
  KCSKVEntry *const table = KCSCFGGetKeyValueEntries(path.c_str(), &size);
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(size, 2u);
  std::strcpy(table[0].pValue, "9");
  EXPECT_EQ(Load(path), (Pairs{{"a", "1"}, {"b", "2"}}));
  ASSERT_EQ(Set(path, "b", "3"), 0);
  EXPECT_STREQ(table[0].pValue, "9");
  EXPECT_STREQ(table[1].pValue, "2") << "the table does not follow the file";
  CFGFreeKeyValueEntries(table, size);
}

// --- Paths ----------------------------------------------------------------------------------------------------------

namespace {

const std::string kProductDirectory = "/opt/vorn/fleetops/etc/kelvestane";

}  // namespace

TEST(ProductFile, LiesInTheProductsDirectory) {
  sandbox::RequireSandbox();
  const std::string path = kProductDirectory + "/a.cfg";
  for (size_t i = 0; i < std::size(kProductSetters); ++i) {
    ASSERT_TRUE(sandbox::WriteFile(path, "a=1\nb=2\n", 0600));
    for (const Loader load : kProductLoaders) EXPECT_EQ(Load("a.cfg", load), (Pairs{{"a", "1"}, {"b", "2"}}));
    EXPECT_EQ(Set("a.cfg", "b", "3", 0, kProductSetters[i]), 0);
    EXPECT_EQ(sandbox::ReadFile(path), "a=1\nb=3\n");
    EXPECT_EQ(ModeOf(path), kEditedMode);
    EXPECT_EQ(Remove("a.cfg", "a", 0, kProductSetters[i]), 0);
    EXPECT_EQ(sandbox::ReadFile(path), "b=3\n");
    EXPECT_EQ(Set("a.cfg", "b", "4", 2, kProductSetters[i]), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(Remove("a.cfg", "c", 0, kProductSetters[i]), SM_STATUS_KEY_NOT_FOUND);
    EXPECT_EQ(Set("missing.cfg", "b", "4", 0, kProductSetters[i]), SM_STATUS_PATH_UNAVAILABLE);
    EXPECT_FALSE(Exists(kProductDirectory + '/' + kTemporaryName));
  }
  for (const Loader load : kProductLoaders) EXPECT_EQ(Load("missing.cfg", load), Pairs());
}

TEST(ProductFile, NameMayHaveDirectories) {
  sandbox::RequireSandbox();
  ASSERT_TRUE(sandbox::WriteFile(std::string(sandbox::kIniDirectory) + "/a.cfg", "a=1\n"));
  ASSERT_TRUE(sandbox::MakeDirectories(kProductDirectory + "/sub"));
  for (const Setter set : kProductSetters) {
    EXPECT_EQ(Set("zeb/ini/a.cfg", "a", "2", 0, set), 0);
    for (const Loader load : kProductLoaders) EXPECT_EQ(Load("zeb/ini/a.cfg", load), (Pairs{{"a", "2"}}));
    EXPECT_EQ(Set("sub/missing.cfg", "a", "2", 0, set), SM_STATUS_PATH_UNAVAILABLE);
    EXPECT_EQ(Set("no/such/a.cfg", "a", "2", 0, set), -1);
    // An absolute path is a name like any other.
    EXPECT_EQ(Set(std::string(sandbox::kIniDirectory) + "/a.cfg", "a", "3", 0, set), -1);
  }
  EXPECT_FALSE(Exists(kProductDirectory + "/no"));
  EXPECT_EQ(sandbox::ReadFile(std::string(sandbox::kIniDirectory) + "/a.cfg"), "a=2\n");
}

TEST(ProductFile, KeptPathIsCutAt255Bytes) {
  sandbox::RequireSandbox();
  const std::string folder = kProductDirectory + "//";
  const size_t longest = 255 - folder.size();
  const std::string name(longest, 'n');
  ASSERT_TRUE(sandbox::WriteFile(folder + name, "a=0\n"));
  int value = 0;
  for (const Setter set : kProductSetters) {
    for (const size_t length : {longest, longest + 1, longest + 2, size_t{5000}}) {
      const std::string given(length, 'n');
      EXPECT_EQ(Set(given, "a", std::to_string(++value), 0, set), 0) << length;
      EXPECT_EQ(sandbox::ReadFile(folder + name), "a=" + std::to_string(value) + '\n') << length;
      for (const Loader load : kProductLoaders) {
        EXPECT_EQ(Load(given, load), (Pairs{{"a", std::to_string(value)}})) << length;
      }
    }
    EXPECT_EQ(Set(name.substr(1), "a", "9", 0, set), SM_STATUS_PATH_UNAVAILABLE);
  }
  for (const Loader load : kProductLoaders) EXPECT_EQ(Load(name.substr(1), load), Pairs());
}

TEST(FullPath, KeptItIsCutAt256Bytes) {
  const TemporaryDirectory directory;
  const std::string folder = directory.Path(std::string(100, 'd'));
  ASSERT_TRUE(sandbox::MakeDirectories(folder));
  const std::string path = folder + '/' + std::string(256 - folder.size() - 1, 'n');
  ASSERT_EQ(path.size(), 256u);
  ASSERT_TRUE(sandbox::WriteFile(path, "a=0\n"));
  int value = 0;
  for (const Setter set : kPathSetters) {
    for (const std::string &rest : {std::string(), std::string("n"), std::string("/x"), std::string(5000, 'n')}) {
      EXPECT_EQ(Set(path + rest, "a", std::to_string(++value), 0, set), 0) << rest;
      EXPECT_EQ(FilesIn(folder), (Files{{path.substr(folder.size() + 1), "a=" + std::to_string(value) + '\n'}}));
      for (const Loader load : kLoaders) EXPECT_EQ(Load(path + rest, load), (Pairs{{"a", std::to_string(value)}}));
    }
    EXPECT_EQ(Set(path.substr(0, 255), "a", "9", 0, set), SM_STATUS_PATH_UNAVAILABLE);
  }
  for (const Loader load : kLoaders) EXPECT_EQ(Load(path.substr(0, 255), load), Pairs());
}

TEST(FullPath, IsRefusedAbove256BytesWhereItIsNotCut) {
  const TemporaryDirectory directory;
  const std::string folder = directory.Path(std::string(100, 'd'));
  ASSERT_TRUE(sandbox::MakeDirectories(folder));
  const std::string path = folder + '/' + std::string(256 - folder.size() - 1, 'n');
  ASSERT_TRUE(sandbox::WriteFile(path, "a=0\n"));
  ASSERT_TRUE(sandbox::WriteFile(path + 'n', "a=0\n"));
  EXPECT_EQ(Set(path + 'n', "a", "9", 0, SetKeyValueEntry), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(sandbox::ReadFile(path + 'n'), "a=0\n");
  EXPECT_EQ(Set(path, "a", "9", 0, SetKeyValueEntry), 0);
  EXPECT_EQ(sandbox::ReadFile(path), "a=9\n");
}

TEST(FullPath, TemporaryFileOfALongDirectoryIsWhereItBelongs) {
  const TemporaryDirectory directory;
  std::string folder = directory.Path(std::string(100, 'd')) + '/';
  folder += std::string(254 - folder.size(), 'e');
  ASSERT_TRUE(sandbox::MakeDirectories(folder));
  ASSERT_TRUE(sandbox::WriteFile(folder + "/a", "a=0\n"));
  ASSERT_TRUE(sandbox::WriteFile(folder + '/' + kTemporaryName, "stale"));
  for (const Setter set : FullPathSetters()) {
    EXPECT_EQ(Set(folder + "/a", "b", "1", 0, set), 0);
    EXPECT_EQ(FilesIn(folder), (Files{{"a", "a=0\nb=1\n"}}));
  }
}

TEST(FullPath, IsNotTakenFromTheProductsDirectory) {
  sandbox::RequireSandbox();
  const TemporaryDirectory directory;
  ASSERT_EQ(chdir(directory.path().c_str()), 0);
  ASSERT_TRUE(sandbox::WriteFile(kProductDirectory + "/a.cfg", "a=product\n"));
  for (const Loader load : kLoaders) EXPECT_EQ(Load("a.cfg", load), Pairs());
  for (const Setter set : FullPathSetters()) EXPECT_EQ(Set("a.cfg", "a", "1", 0, set), SM_STATUS_PATH_UNAVAILABLE);
  ASSERT_TRUE(sandbox::WriteFile("a.cfg", "a=here\n"));
  for (const Loader load : kLoaders) EXPECT_EQ(Load("a.cfg", load), (Pairs{{"a", "here"}}));
  for (const Setter set : FullPathSetters()) EXPECT_EQ(Set("a.cfg", "a", "1", 0, set), 0);
  EXPECT_EQ(sandbox::ReadFile(kProductDirectory + "/a.cfg"), "a=product\n");
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", "a=1\n"}}));
  ASSERT_EQ(chdir("/"), 0);
}

// --- Tables ---------------------------------------------------------------------------------------------------------

TEST(GetKeyValue, CountsTheInstancesOfAKey) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "k=1\nonly=2\nK=3\nk=4\n=5\nk=\n=6\nkk=7\n"));
  const struct {
    const char *key;
    u32 instance;
    int entry;  // -1 for none
  } cases[] = {
      {"k", 0, 0},
      {"k", 1, 3},
      {"k", 2, 5},
      {"k", 3, -1},
      {"k", 0xFFFFFFFF, -1},
      {"only", 0, 1},
      {"only", 1, -1},
      {"K", 0, 2},
      {"K", 1, -1},
      {"", 0, 4},
      {"", 1, 6},
      {"", 2, -1},
      {"kk", 0, 7},
      {"kkk", 0, -1},
      {"onl", 0, -1},
      {"only ", 0, -1},
      {" k", 0, -1},
      {"none", 0, -1},
      {"none", 0xFFFFFFFF, -1},
      {"k=1", 0, -1},
  };
  u32 size = 0;
  KCSKVEntry *const table = KCSCFGGetKeyValueEntries(path.c_str(), &size);
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(size, 8u);
  for (const auto get : kGetters) {
    for (const auto &c : cases) {
      const astring *const expected = c.entry == -1 ? nullptr : table[c.entry].pValue;
      EXPECT_EQ(get(table, size, c.key, c.instance), expected) << c.key << ' ' << c.instance;
    }
    EXPECT_EQ(get(table, 3, "k", 0), table[0].pValue);
    EXPECT_EQ(get(table, 3, "k", 1), nullptr) << "no entry beyond the size counts";
    EXPECT_EQ(get(table, 4, "k", 1), table[3].pValue);
    EXPECT_EQ(get(table, 0, "k", 0), nullptr);
  }
  CFGFreeKeyValueEntries(table, size);
}

TEST(GetKeyValue, ReadsNothingBeyondTheTable) {
  const GuardedBuffer memory(2 * sizeof(KCSKVEntry));
  KCSKVEntry *const table = memory.data<KCSKVEntry>();
  std::string key = "k";
  std::string value = "v";
  table[0] = table[1] = {key.data(), value.data()};
  for (const auto get : kGetters) {
    EXPECT_EQ(get(table, 2, "k", 1), value.data());
    EXPECT_EQ(get(table, 2, "k", 2), nullptr);
    EXPECT_EQ(get(table + 2, 0, "k", 0), nullptr);
  }
}

TEST(GetKeyValue, WithoutATableOrAKeyThereIsNone) {
  std::string text = "k";
  KCSKVEntry entries[] = {{nullptr, nullptr}, {text.data(), nullptr}, {text.data(), text.data()}};
  for (const auto get : kGetters) {
    EXPECT_EQ(get(nullptr, 0, "k", 0), nullptr);
    EXPECT_EQ(get(nullptr, 5, "k", 0), nullptr);
    EXPECT_EQ(get(entries, 3, nullptr, 0), nullptr);
    EXPECT_EQ(get(entries, 3, "k", 0), nullptr) << "the value that it has";
    EXPECT_EQ(get(entries, 3, "k", 1), text.data());
  }
}

TEST(FreeKeyValueEntries, ReleasesTextsAndTable) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\nb=2\nc=3\n"));
  for (const auto release : kReleasers) {
    release(nullptr, 0);
    release(nullptr, 5);
    u32 size = 0;
    KCSKVEntry *const table = KCSCFGGetKeyValueEntries(path.c_str(), &size);
    ASSERT_EQ(size, 3u);
    KCSFreeMem(table[1].pKey);
    table[1].pKey = nullptr;
    KCSFreeMem(table[2].pValue);
    table[2].pValue = nullptr;
    release(table, size);  // a text that is not there is no trouble
    KCSKVEntry *const none = static_cast<KCSKVEntry *>(KCSAllocMem(sizeof(KCSKVEntry)));
    release(none, 0);
  }
}

// --- Filling a table ------------------------------------------------------------------------------------------------

namespace {

// Room for entries, each byte of which is kFill, as in a table that nobody has filled.
class Room {
 public:
  explicit Room(u32 count) : m_memory(count * sizeof(KCSKVEntry)), m_count(count) {}

  KCSKVEntry *entries() const { return m_memory.data<KCSKVEntry>(); }

  // Whether the entries from `first` on are as they were at first.
  bool IsUntouchedFrom(u32 first) const {
    const auto *const bytes = m_memory.data<unsigned char>();
    return std::all_of(bytes + first * sizeof(KCSKVEntry), bytes + m_memory.size(),
                       [](unsigned char byte) { return byte == GuardedBuffer::kFill; });
  }

  Pairs Take(u32 count) const {
    Pairs pairs;
    for (u32 i = 0; i < count && i < m_count; ++i) {
      pairs.emplace_back(entries()[i].pKey, entries()[i].pValue);
      KCSFreeMem(entries()[i].pKey);
      KCSFreeMem(entries()[i].pValue);
    }
    return pairs;
  }

 private:
  GuardedBuffer m_memory;
  u32 m_count;
};

}  // namespace

TEST(PopulateKeyValueEntries, KeptCountingIsAFailureThatComesWithTheCount) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  const std::pair<const char *, u32> cases[] = {{"", 0}, {"#a=1\nb\n", 0}, {"a=1", 1}, {"a=1\n#b=2\na=3\nc\n=\n", 3}};
  for (const auto &[text, count] : cases) {
    ASSERT_TRUE(sandbox::WriteFile(path, text));
    u32 size = 0;
    EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), nullptr, &size), -1) << text;
    EXPECT_EQ(size, count) << text;
  }
}

TEST(PopulateKeyValueEntries, FillsATableThatHasRoom) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  const Pairs pairs{{"a", "1"}, {"b", "two words"}, {"a", ""}};
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n# x=y\n b = \"two words\"\na=\n"));
  for (const u32 room : {3u, 4u, 10u}) {
    const Room table(room);
    u32 size = room;
    EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), table.entries(), &size), 0) << room;
    EXPECT_EQ(size, room) << "the size stays as it was";
    EXPECT_TRUE(table.IsUntouchedFrom(3)) << room;
    EXPECT_EQ(table.Take(3), pairs) << room;
  }
}

TEST(PopulateKeyValueEntries, TooLittleRoomGivesTheCountAndAnEmptyTable) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\nb=2\nc=3\n"));
  for (const u32 room : {0u, 1u, 2u}) {
    const Room table(3);
    u32 size = room;
    EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), table.entries(), &size), -1) << room;
    EXPECT_EQ(size, 3u) << room;
    for (u32 i = 0; i < room; ++i) {
      EXPECT_EQ(table.entries()[i].pKey, nullptr) << room;
      EXPECT_EQ(table.entries()[i].pValue, nullptr) << room;
    }
    EXPECT_TRUE(table.IsUntouchedFrom(room)) << room;
  }
}

TEST(PopulateKeyValueEntries, FileWithoutPairsFillsAnyTable) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "# a=1\nb\n"));
  for (const u32 room : {0u, 2u}) {
    const Room table(2);
    u32 size = room;
    EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), table.entries(), &size), 0);
    EXPECT_EQ(size, room);
    EXPECT_TRUE(table.IsUntouchedFrom(0));
  }
}

TEST(PopulateKeyValueEntries, FileThatCannotBeReadTouchesNothing) {
  const TemporaryDirectory directory;
  for (const std::string &path : {directory.Path("missing"), directory.path()}) {
    const Room table(2);
    u32 size = 2;
    EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), table.entries(), &size), -1) << path;
    EXPECT_EQ(size, 2u) << path;
    EXPECT_TRUE(table.IsUntouchedFrom(0)) << path;
    size = 0;
    EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), nullptr, &size), -1) << path;
    EXPECT_EQ(size, 0u) << path;
  }
}

TEST(PopulateKeyValueEntries, ArgumentsMustFit) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  for (const std::string &any : {path, directory.Path("missing")}) {
    for (const u32 room : {1u, 0xFFFFFFFFu}) {
      u32 size = room;
      EXPECT_EQ(PopulateKeyValueEntries(any.c_str(), nullptr, &size), SM_STATUS_INVALID_INPUT) << "no table";
      EXPECT_EQ(size, room);
    }
  }
  const Room table(2);
  u32 size = 2;
  EXPECT_EQ(PopulateKeyValueEntries(nullptr, table.entries(), &size), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(size, 2u);
  EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), table.entries(), nullptr), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), nullptr, nullptr), SM_STATUS_INVALID_INPUT);
  EXPECT_TRUE(table.IsUntouchedFrom(0));
}

// --- Editing --------------------------------------------------------------------------------------------------------

TEST(SetKeyValue, Edits) {
  const struct {
    const char *what;
    std::string before;
    const char *key;
    Text value;
    u32 instance;
    s32 status;
    std::string after;  // of a success
  } cases[] = {
      {"replace", "a=1\nb=2\nc=3\n", "b", "x", 0, 0, "a=1\nb=x\nc=3\n"},
      {"replace the first line", "a=1\nb=2\n", "a", "x", 0, 0, "a=x\nb=2\n"},
      {"replace the last line", "a=1\nb=2\n", "b", "x", 0, 0, "a=1\nb=x\n"},
      {"replace a last line without a line feed", "a=1\nb=2", "b", "x", 0, 0, "a=1\nb=x\n"},
      {"replace with the same", "a=1\n", "a", "1", 0, 0, "a=1\n"},
      {"replace a line that has to be cleaned", " \"my\"  key = \"1\" \r\n", "mykey", "x", 0, 0, "mykey=x\n"},
      {"replace a quoted key", "\"my key\" = 1\n", "my key", "x", 0, 0, "my key=x\n"},
      {"replace an empty key", " = 1\n", "", "x", 0, 0, "=x\n"},
      {"replace by no text", "a=1\n", "a", "", 0, 0, "a=\n"},
      {"replace no text", "a=\n", "a", "x", 0, 0, "a=x\n"},
      {"replace a long value", "a=" + std::string(5000, 'v') + "\nb=2\n", "a", "x", 0, 0, "a=x\nb=2\n"},
      {"other lines are not cleaned", "  x = \"1\" \r\n#a=2\n;a=3\n  a  \n\na = 4\n y =\t2\r\n\r\nend", "a", "x", 0, 0,
       "  x = \"1\" \r\n#a=2\n;a=3\n  a  \n\na=x\n y =\t2\r\n\r\nend"},
      {"comments do not count", "#k=1\n;k=2\n  #k=3\n\"#\"k=4\nk=5\n", "k", "x", 0, 0,
       "#k=1\n;k=2\n  #k=3\n\"#\"k=4\nk=x\n"},
      {"lines without an equals sign do not count", "k\nk 1\n\"k\"\nk=5\n", "k", "x", 0, 0, "k\nk 1\n\"k\"\nk=x\n"},
      {"other keys do not count", "kk=1\nK=2\n =3\nak=4\nk=5\n", "k", "x", 0, 0, "kk=1\nK=2\n =3\nak=4\nk=x\n"},
      {"keys within values do not count", "a=k=1\na= k = 2\nk=5\n", "k", "x", 0, 0, "a=k=1\na= k = 2\nk=x\n"},

      {"first of two", "k=1\nk=2\n", "k", "x", 0, 0, "k=x\nk=2\n"},
      {"second of two", "k=1\nk=2\n", "k", "x", 1, 0, "k=1\nk=x\n"},
      {"just past two", "k=1\nk=2\n", "k", "x", 2, 0, "k=1\nk=2\nk=x\n"},
      {"further past two", "k=1\nk=2\n", "k", "x", 3, SM_STATUS_INVALID_INPUT, ""},
      {"far past two", "k=1\nk=2\n", "k", "x", 0xFFFFFFFF, SM_STATUS_INVALID_INPUT, ""},
      {"middle one, written in other ways", "k=1\n\tk = 2\n#k=\n\"k\"=3\n", "k", "x", 1, 0, "k=1\nk=x\n#k=\n\"k\"=3\n"},

      {"add", "a=1\n", "b", "x", 0, 0, "a=1\nb=x\n"},
      {"add to an empty file", "", "b", "x", 0, 0, "b=x\n"},
      {"add to comments", "# nothing\n", "b", "x", 0, 0, "# nothing\nb=x\n"},
      {"add no text", "a=1\n", "b", "", 0, 0, "a=1\nb=\n"},
      {"add an empty key", "a=1\n", "", "x", 0, 0, "a=1\n=x\n"},
      {"add to a commented one", "#b=1\n", "b", "x", 0, 0, "#b=1\nb=x\n"},
      {"add the second at once", "a=1\n", "b", "x", 1, SM_STATUS_INVALID_INPUT, ""},
      {"add the second at once to an empty file", "", "b", "x", 1, SM_STATUS_INVALID_INPUT, ""},

      {"remove", "a=1\nb=2\nc=3\n", "b", std::nullopt, 0, 0, "a=1\nc=3\n"},
      {"remove the only line", "a=1\n", "a", std::nullopt, 0, 0, ""},
      {"remove a last line without a line feed", "a=1\nb=2", "b", std::nullopt, 0, 0, "a=1\n"},
      {"remove in front of one without a line feed", "a=1\nb=2", "a", std::nullopt, 0, 0, "b=2"},
      {"remove the second", "k=1\nk=2\nk=3\n", "k", std::nullopt, 1, 0, "k=1\nk=3\n"},
      {"remove just past the last", "k=1\nk=2\n", "k", std::nullopt, 2, SM_STATUS_KEY_NOT_FOUND, ""},
      {"remove further past the last", "k=1\nk=2\n", "k", std::nullopt, 3, SM_STATUS_INVALID_INPUT, ""},
      {"remove what is missing", "a=1\n", "b", std::nullopt, 0, SM_STATUS_KEY_NOT_FOUND, ""},
      {"remove the second of what is missing", "a=1\n", "b", std::nullopt, 1, SM_STATUS_INVALID_INPUT, ""},
      {"remove from an empty file", "", "b", std::nullopt, 0, SM_STATUS_KEY_NOT_FOUND, ""},
      {"remove a commented one", "#b=1\n", "b", std::nullopt, 0, SM_STATUS_KEY_NOT_FOUND, ""},
  };
  for (const Setter set : FullPathSetters()) {
    for (const auto &c : cases) {
      const TemporaryDirectory directory;
      const std::string path = directory.Path("a.cfg");
      ASSERT_TRUE(sandbox::WriteFile(path, c.before, 0640));
      const FileState before(path);
      EXPECT_EQ(Set(path, c.key, c.value, c.instance, set), c.status) << c.what;
      if (c.status == 0) {
        EXPECT_EQ(ModeOf(path), kEditedMode) << c.what;
      } else {
        EXPECT_EQ(FileState(path), before) << c.what;
      }
      EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", c.status == 0 ? c.after : c.before}})) << c.what;
      const Edited model = EditedText(c.before, c.key, c.value, c.instance);
      EXPECT_EQ(model.status, c.status) << "the model: " << c.what;
      EXPECT_EQ(model.text, c.status == 0 ? c.after : c.before) << "the model: " << c.what;
    }
  }
}

TEST(SetKeyValue, KeptALineIsAddedBehindALastOneWithoutItsLineFeed) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1"));
  EXPECT_EQ(Set(path, "b", "2"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), "a=1b=2\n");
  EXPECT_EQ(Load(path), (Pairs{{"a", "1b=2"}}));
}

TEST(SetKeyValue, KeptPairIsWrittenAsItIsWhateverReadersMakeOfIt) {
  const struct {
    const char *key;
    const char *value;
    Pairs loaded;
  } cases[] = {
      {"my key", "v", {{"mykey", "v"}}},
      {"k", "  two words\t", {{"k", "two words"}}},
      {"k", "\"quoted\"", {{"k", "quoted"}}},
      {"\"k\"", "v", {{"k", "v"}}},
      {"a=b", "c", {{"a", "b=c"}}},
      {"#k", "v", {}},
      {";k", "v", {}},
      {"k", "1\nl=2", {{"k", "1"}, {"l", "2"}}},
      {"k", "1\r", {{"k", "1"}}},
      {" k ", "", {{" k ", ""}}},
  };
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  for (const auto &c : cases) {
    const std::string line = std::string(c.key) + '=' + c.value + '\n';
    ASSERT_TRUE(sandbox::WriteFile(path, ""));
    EXPECT_EQ(Set(path, c.key, c.value), 0) << line;
    EXPECT_EQ(sandbox::ReadFile(path), line);
    EXPECT_EQ(Load(path), c.loaded) << line;
    // A key that no reader makes out is never found again.
    const bool isFound = !c.loaded.empty() && c.loaded[0].first == c.key;
    EXPECT_EQ(Set(path, c.key, c.value), 0) << line;
    EXPECT_EQ(sandbox::ReadFile(path), isFound ? EditedText(line, c.key, c.value, 0).text : line + line);
  }
}

TEST(SetKeyValue, OtherLinesKeepEveryByte) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
  const std::string before = bytes + bytes + '\n';
  const std::string after = bytes + "\n\n\r\r\n" + bytes;
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  for (const Setter set : FullPathSetters()) {
    ASSERT_TRUE(sandbox::WriteFile(path, before + "the key=1\n" + after));
    EXPECT_EQ(Set(path, "thekey", "2", 0, set), 0);
    EXPECT_EQ(sandbox::ReadFile(path), before + "thekey=2\n" + after);
    EXPECT_EQ(Remove(path, "thekey", 0, set), 0);
    EXPECT_EQ(sandbox::ReadFile(path), before + after);
    EXPECT_EQ(Set(path, "thekey", "3", 0, set), 0);
    EXPECT_EQ(sandbox::ReadFile(path), before + after + "thekey=3\n");
  }
}

TEST(SetKeyValue, EveryByteButTheZeroIsWritten) {
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  for (const Setter set : FullPathSetters()) {
    ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
    EXPECT_EQ(Set(path, bytes, bytes, 0, set), 0);
    EXPECT_EQ(sandbox::ReadFile(path), "a=1\n" + bytes + '=' + bytes + '\n');
  }
}

TEST(SetKeyValue, ArgumentsMustBeThere) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n", 0640));
  const FileState before(path);
  std::string text = "a";
  const KCSKVEntry entry{text.data(), text.data()};
  const KCSKVEntry withoutKey{nullptr, text.data()};
  const KCSKVEntry empty{nullptr, nullptr};
  std::vector<Setter> setters = FullPathSetters();
  setters.insert(setters.end(), std::begin(kProductSetters), std::end(kProductSetters));
  for (const Setter set : setters) {
    EXPECT_EQ(set(nullptr, &entry, 0), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(set(path.c_str(), nullptr, 0), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(set(path.c_str(), &withoutKey, 0), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(set(path.c_str(), &empty, 0), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(set(nullptr, nullptr, 0), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(set(directory.Path("new/a.cfg").c_str(), &withoutKey, 0), SM_STATUS_INVALID_INPUT);
  }
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(FilesIn(directory.path()).size(), 1u) << "not even a directory is made";
}

TEST(SetKeyValue, KeyAndValueHaveALargestSizeTogether) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  for (const Setter set : FullPathSetters()) {
    for (const size_t keySize : {size_t{0}, size_t{1}, size_t{4000}, kLargestPair - 1, kLargestPair}) {
      const std::string key(keySize, 'k');
      for (const size_t size : {kLargestPair - 1, kLargestPair, kLargestPair + 1, 2 * kLargestPair}) {
        if (size < keySize) continue;
        const std::string value(size - keySize, 'v');
        ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n", 0640));
        const FileState before(path);
        if (size > kLargestPair) {
          EXPECT_EQ(Set(path, key, value, 0, set), SM_STATUS_BAD_SIZE) << keySize << ' ' << size;
          EXPECT_EQ(FileState(path), before);
        } else {
          EXPECT_EQ(Set(path, key, value, 0, set), 0) << keySize << ' ' << size;
          EXPECT_EQ(sandbox::ReadFile(path), "a=1\n" + key + '=' + value + '\n');
          EXPECT_EQ(Load(path), (Pairs{{"a", "1"}, {key, value}}));
        }
      }
    }
    // A value that is to be removed takes no room.
    for (const size_t keySize : {kLargestPair - 1, kLargestPair, kLargestPair + 1, 10 * kLargestPair}) {
      const std::string key(keySize, 'k');
      ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n" + key + "=\n", 0640));
      EXPECT_EQ(Remove(path, key, 0, set), keySize > kLargestPair ? SM_STATUS_BAD_SIZE : 0) << keySize;
      EXPECT_EQ(Remove(path, key, 0, set), keySize > kLargestPair ? SM_STATUS_BAD_SIZE : SM_STATUS_KEY_NOT_FOUND);
    }
  }
  EXPECT_EQ(Set(directory.Path("new/a.cfg"), "k", std::string(kLargestPair, 'v')), SM_STATUS_BAD_SIZE);
  EXPECT_EQ(FilesIn(directory.path()).size(), 1u) << "the size comes before the directory";
}

TEST(SetKeyValue, KeptLineFeedOfTheLongestPairStaysWhenThatIsReplaced) {
  // The longest pair is a whole piece without its line feed.
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  const std::string longest(kLargestPair - 1, 'v');
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  EXPECT_EQ(Set(path, "k", longest), 0);
  EXPECT_EQ(Set(path, "b", "2"), 0);
  EXPECT_EQ(Set(path, "k", "3"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), "a=1\nk=3\n\nb=2\n");
  EXPECT_EQ(Set(path, "k", longest.substr(1)), 0);
  EXPECT_EQ(Set(path, "k", "4"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), "a=1\nk=4\n\nb=2\n") << "one byte less fits with its line feed";
}

TEST(SetKeyValue, LongLinesAreEditedByPieces) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  for (const size_t length : {8448u, 8449u, 8450u, 8451u, 2 * 8449u - 1, 2 * 8449u, 2 * 8449u + 1, 40000u}) {
    const std::string line = "k=" + std::string(length - 2, 'v');
    const std::string text = "a=1\n" + line + "\nb=2\n";
    const std::string rest = line.size() < 8449 ? "" : line.substr(8449) + '\n';
    for (const Setter set : FullPathSetters()) {
      ASSERT_TRUE(sandbox::WriteFile(path, text));
      EXPECT_EQ(Set(path, "b", "3", 0, set), 0);
      EXPECT_EQ(sandbox::ReadFile(path), "a=1\n" + line + "\nb=3\n") << length;
      EXPECT_EQ(Set(path, "c", "4", 0, set), 0);
      EXPECT_EQ(sandbox::ReadFile(path), "a=1\n" + line + "\nb=3\nc=4\n") << length;
      EXPECT_EQ(Set(path, "k", "5", 0, set), 0);
      EXPECT_EQ(sandbox::ReadFile(path), "a=1\nk=5\n" + rest + "b=3\nc=4\n") << length;
      ASSERT_TRUE(sandbox::WriteFile(path, text));
      EXPECT_EQ(Remove(path, "k", 0, set), 0);
      EXPECT_EQ(sandbox::ReadFile(path), "a=1\n" + rest + "b=2\n") << length;
    }
  }
  // A piece in the middle of a line is a pair of its own.
  const std::string start = "k=" + std::string(8447, 'v');
  ASSERT_TRUE(sandbox::WriteFile(path, start + "x=1\ny=2\n"));
  EXPECT_EQ(Set(path, "x", "3"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), start + "x=3\ny=2\n");
  EXPECT_EQ(Remove(path, "x"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), start + "y=2\n");
}

TEST(SetKeyValue, LargeFilesAreEditedAnywhere) {
  constexpr int kLines = 6000;
  const auto text = [](int edited, const std::string &line) {
    std::string result;
    for (int i = 0; i < kLines; ++i) {
      result += i == edited ? line : "key " + std::to_string(i) + " = value " + std::to_string(i) + '\n';
    }
    return result;
  };
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  const std::string original = text(-1, "");
  for (const int number : {0, 1, 150, 1000, 1300, 3000, kLines - 2, kLines - 1}) {
    const std::string key = "key" + std::to_string(number);
    ASSERT_TRUE(sandbox::WriteFile(path, original));
    EXPECT_EQ(Set(path, key, "new"), 0);
    EXPECT_TRUE(sandbox::ReadFile(path) == text(number, key + "=new\n")) << number;
    EXPECT_EQ(Remove(path, key), 0);
    EXPECT_TRUE(sandbox::ReadFile(path) == text(number, "")) << number;
  }
  ASSERT_TRUE(sandbox::WriteFile(path, original));
  EXPECT_EQ(Set(path, "new", "value"), 0);
  EXPECT_TRUE(sandbox::ReadFile(path) == original + "new=value\n");
  EXPECT_EQ(FilesIn(directory.path()).size(), 1u);
}

TEST(SetKeyValue, ModeIsSetWhateverItWasAndWhateverTheMaskIs) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  const mode_t mask = umask(0);
  for (const mode_t newMask : {mode_t{0}, mode_t{022}, mode_t{077}, mode_t{0777}}) {
    for (const mode_t mode : {mode_t{0644}, mode_t{0600}, mode_t{0400}, mode_t{0}, mode_t{0777}}) {
      ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n", mode));
      umask(newMask);
      EXPECT_EQ(Set(path, "a", "2"), 0);
      umask(0);
      EXPECT_EQ(ModeOf(path), kEditedMode) << std::oct << mode << ' ' << newMask;
      EXPECT_EQ(sandbox::ReadFile(path), "a=2\n");
    }
  }
  umask(mask);
}

TEST(SetKeyValue, FileMustExist) {
  const TemporaryDirectory directory;
  ASSERT_TRUE(sandbox::WriteFile(directory.Path("plain"), "a=1\n"));
  for (const Setter set : FullPathSetters()) {
    for (const u32 instance : {0u, 1u}) {
      for (const Text &value : {Text("1"), Text()}) {
        EXPECT_EQ(Set(directory.Path("missing"), "a", value, instance, set), SM_STATUS_PATH_UNAVAILABLE);
        EXPECT_EQ(Set(directory.Path("plain/below"), "a", value, instance, set), SM_STATUS_PATH_UNAVAILABLE);
      }
    }
    EXPECT_EQ(Set("", "a", "1", 0, set), SM_STATUS_PATH_UNAVAILABLE);
  }
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"plain", "a=1\n"}}));
}

TEST(SetKeyValue, KeptDirectoryIsMadeOneLevelDeepThoughTheFileMustExist) {
  const mode_t mask = umask(077);
  for (const Setter set : FullPathSetters()) {
    const TemporaryDirectory directory;
    EXPECT_EQ(Set(directory.Path("new/a.cfg"), "a", "1", 0, set), SM_STATUS_PATH_UNAVAILABLE);
    EXPECT_EQ(ModeOf(directory.Path("new")), static_cast<mode_t>(S_IFDIR | 0755));
    EXPECT_EQ(FilesIn(directory.Path("new")), Files());
    EXPECT_EQ(Set(directory.Path("one/two/a.cfg"), "a", "1", 0, set), -1);
    EXPECT_EQ(Remove(directory.Path("one/two/a.cfg"), "a", 0, set), -1);
    EXPECT_FALSE(Exists(directory.Path("one")));
  }
  umask(mask);
}

TEST(SetKeyValue, DirectoryIsNoFile) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("folder");
  ASSERT_TRUE(sandbox::MakeDirectories(path));
  for (const Setter set : FullPathSetters()) {
    EXPECT_EQ(Set(path, "a", "1", 0, set), SM_STATUS_WRITE_FAILED) << "it cannot be read to its end";
    EXPECT_EQ(Set(path + '/', "a", "1", 0, set), SM_STATUS_WRITE_FAILED);
    EXPECT_EQ(FilesIn(directory.path()), (Files{{"folder", "(no file)"}}));
    EXPECT_EQ(FilesIn(path), Files());
  }
}

TEST(SetKeyValue, KeptLinkIsReplacedByTheFile) {
  const TemporaryDirectory directory;
  const TemporaryDirectory elsewhere;
  const std::string target = elsewhere.Path("target");
  ASSERT_TRUE(sandbox::WriteFile(target, "a=1\n"));
  ASSERT_EQ(symlink(target.c_str(), directory.Path("a.cfg").c_str()), 0);
  EXPECT_EQ(Set(directory.Path("a.cfg"), "a", "2"), 0);
  EXPECT_FALSE(std::filesystem::is_symlink(directory.Path("a.cfg")));
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", "a=2\n"}}));
  EXPECT_EQ(FilesIn(elsewhere.path()), (Files{{"target", "a=1\n"}}));
}

TEST(SetKeyValue, RandomEditsAsTheModelDoes) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  const std::string keys[] = {"key", "k", "a", "", "b", "keykey", "a b", "twowords", "two words", "[s]key"};
  const std::string values[] = {"", "1", "two words", " blanks ", "\"quoted\"", "a=b", "#", "1\nk=2"};
  const std::vector<Setter> setters = FullPathSetters();
  std::mt19937 random(3);
  for (int file = 0; file < 150; ++file) {
    std::string text = RandomText(random, random() % 150);
    if (file % 10 == 0) text += std::string(8440 + random() % 20, file % 20 == 0 ? ' ' : 'x') + RandomText(random, 50);
    ASSERT_TRUE(sandbox::WriteFile(path, text));
    for (int edit = 0; edit < 12; ++edit) {
      const std::string &key = keys[random() % std::size(keys)];
      Text value = values[random() % std::size(values)];
      if (random() % 3 == 0) value = std::nullopt;
      if (random() % 40 == 0) value = std::string(kLargestPair - 5 + random() % 10, 'v');
      const u32 instance = random() % 4;
      const Edited expected = EditedText(text, key, value, instance);
      ASSERT_EQ(Set(path, key, value, instance, setters[random() % setters.size()]), expected.status)
          << text << '\n'
          << key << ' ' << value.value_or("(none)") << ' ' << instance;
      text = expected.text;
      ASSERT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", text}}))
          << key << ' ' << value.value_or("(none)") << ' ' << instance;
    }
    ASSERT_EQ(Load(path), PairsIn(text));
  }
}

// --- The temporary file ---------------------------------------------------------------------------------------------

TEST(TemporaryFile, StaleOneIsTruncated) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  ASSERT_TRUE(sandbox::WriteFile(directory.Path(kTemporaryName), std::string(100000, 'x'), 0600));
  EXPECT_EQ(Set(path, "a", "2"), 0);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", "a=2\n"}}));
  EXPECT_EQ(ModeOf(path), kEditedMode);
}

TEST(TemporaryFile, DirectoryInItsPlaceIsRefused) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  ASSERT_TRUE(sandbox::MakeDirectories(directory.Path(kTemporaryName)));
  const FileState before(path);
  for (const Setter set : FullPathSetters()) {
    EXPECT_EQ(Set(path, "a", "2", 0, set), SM_STATUS_PATH_UNAVAILABLE);
    EXPECT_EQ(Set(path, "b", "2", 0, set), SM_STATUS_PATH_UNAVAILABLE);
    EXPECT_EQ(Remove(path, "a", 0, set), SM_STATUS_PATH_UNAVAILABLE);
  }
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(FilesIn(directory.path()).size(), 2u);
}

TEST(TemporaryFile, LinkIsRefusedAndItsTargetUntouched) {
  const TemporaryDirectory directory;
  const TemporaryDirectory elsewhere;
  const std::string path = directory.Path("a.cfg");
  const std::string target = elsewhere.Path("target");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  ASSERT_TRUE(sandbox::WriteFile(target, "precious"));
  const FileState before(path);
  const FileState targetBefore(target);
  ASSERT_EQ(symlink(target.c_str(), directory.Path(kTemporaryName).c_str()), 0);
  EXPECT_EQ(Set(path, "a", "2"), SM_STATUS_PATH_UNAVAILABLE);
  EXPECT_EQ(Set(path, "b", "2"), SM_STATUS_PATH_UNAVAILABLE);
  EXPECT_EQ(Remove(path, "a"), SM_STATUS_PATH_UNAVAILABLE);
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(FileState(target), targetBefore);
}

TEST(TemporaryFile, PipeIsRefusedAtOnce) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  const std::string pipe = directory.Path(kTemporaryName);
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  ASSERT_EQ(mkfifo(pipe.c_str(), 0666), 0);
  const FileState before(path);
  // An editor that waited for a reader would hold the lock for ever.
  Process editor(std::chrono::seconds(10));
  ASSERT_TRUE(editor.Start([&path](Channel &) { return Set(path, "a", "2") == SM_STATUS_PATH_UNAVAILABLE ? 0 : 1; }));
  EXPECT_EQ(editor.Wait(), 0);
  const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_NE(reader, -1);
  EXPECT_EQ(Set(path, "a", "2"), SM_STATUS_PATH_UNAVAILABLE) << "else the pipe would take the file's place";
  close(reader);
  EXPECT_EQ(FileState(path), before);
}

TEST(TemporaryFile, IsNoKeyValueFileItself) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path(kTemporaryName);
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  const FileState before(path);
  ASSERT_EQ(chdir(directory.path().c_str()), 0);
  for (const Setter set : FullPathSetters()) {
    EXPECT_EQ(Set(path, "a", "2", 0, set), SM_STATUS_INVALID_INPUT) << "it would be overwritten by its own copy";
    EXPECT_EQ(Set(kTemporaryName, "a", "2", 0, set), SM_STATUS_INVALID_INPUT);
  }
  ASSERT_EQ(chdir("/"), 0);
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(Load(path), (Pairs{{"a", "1"}}));
}

TEST(TemporaryFile, IsInTheWorkingDirectoryForAPathWithoutADirectory) {
  const TemporaryDirectory directory;
  ASSERT_TRUE(sandbox::WriteFile(directory.Path("a.cfg"), "a=1\n"));
  ASSERT_TRUE(sandbox::WriteFile(directory.Path(kTemporaryName), "stale"));
  ASSERT_EQ(chdir(directory.path().c_str()), 0);
  EXPECT_EQ(Set("a.cfg", "a", "2"), 0);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", "a=2\n"}}));
  ASSERT_TRUE(sandbox::MakeDirectories(directory.Path(kTemporaryName)));
  EXPECT_EQ(Set("a.cfg", "a", "3"), SM_STATUS_PATH_UNAVAILABLE) << "it was used";
  // A relative directory is one as any other.
  ASSERT_TRUE(sandbox::MakeDirectories(directory.Path("sub")));
  ASSERT_TRUE(sandbox::WriteFile(directory.Path("sub/a.cfg"), "a=1\n"));
  EXPECT_EQ(Set("sub/a.cfg", "a", "3"), 0);
  EXPECT_EQ(FilesIn(directory.Path("sub")), (Files{{"a.cfg", "a=3\n"}}));
  ASSERT_EQ(chdir("/"), 0);
}

namespace {

// Runs a function in a second process, where expectations work as here.
void InAnotherProcess(const std::function<void()> &body) {
  Process process;
  ASSERT_TRUE(process.Start([&body](Channel &) {
    body();
    return 0;
  }));
  EXPECT_EQ(process.Wait(), 0);
}

}  // namespace

TEST(TemporaryFile, KeptThatOfAFileUnderTheRootIsInTheWorkingDirectory) {
  const TemporaryDirectory root;
  ASSERT_TRUE(sandbox::MakeDirectories(root.Path("work")));
  ASSERT_TRUE(sandbox::WriteFile(root.Path("a.cfg"), "a=1\n"));
  ASSERT_TRUE(sandbox::WriteFile(root.Path("work") + '/' + kTemporaryName, "stale"));
  ASSERT_TRUE(sandbox::WriteFile(root.Path(kTemporaryName), "another"));
  InAnotherProcess([&root] {
    ASSERT_EQ(chroot(root.path().c_str()), 0);
    ASSERT_EQ(chdir("/work"), 0);
    EXPECT_EQ(Set("/a.cfg", "a", "2"), 0);
  });
  EXPECT_EQ(FilesIn(root.Path("work")), Files());
  EXPECT_EQ(FilesIn(root.path()), (Files{{"a.cfg", "a=2\n"}, {kTemporaryName, "another"}, {"work", "(no file)"}}));
}

TEST(TemporaryFile, HoldsTheNewContentAloneWhenItCannotBeRenamed) {
  // A file under the root has its temporary file on another disk where the working directory is on one.
  const TemporaryDirectory root;
  const std::string work = root.Path("work");
  ASSERT_TRUE(sandbox::MakeDirectories(work));
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(work, "size=64k"));
  for (const Setter set : FullPathSetters()) {
    ASSERT_TRUE(sandbox::WriteFile(root.Path("a.cfg"), "a=1\nb=2\n"));
    InAnotherProcess([&root, set] {
      ASSERT_EQ(chroot(root.path().c_str()), 0);
      ASSERT_EQ(chdir("/work"), 0);
      EXPECT_EQ(Set("/a.cfg", "a", "3", 0, set), SM_STATUS_RENAME_FAILED);
    });
    EXPECT_EQ(FilesIn(work), (Files{{kTemporaryName, "a=3\nb=2\n"}}));
    EXPECT_FALSE(Exists(root.Path("a.cfg")));
  }
}

TEST(FileThatStays, CannotBeEditedUntilItCanBeDeleted) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\nb=2\n"));
  {
    Mount mount;
    ASSERT_TRUE(mount.OverItself(path));  // a mount point cannot be deleted
    for (const Setter set : FullPathSetters()) {
      EXPECT_EQ(Set(path, "a", "3", 0, set), SM_STATUS_DELETE_FAILED);
      EXPECT_EQ(Set(path, "c", "3", 0, set), SM_STATUS_DELETE_FAILED);
      EXPECT_EQ(Remove(path, "a", 0, set), SM_STATUS_DELETE_FAILED);
      EXPECT_EQ(Remove(path, "c", 0, set), SM_STATUS_KEY_NOT_FOUND) << "there is nothing to delete it for";
      EXPECT_EQ(sandbox::ReadFile(path), "a=1\nb=2\n");
    }
  }
  EXPECT_EQ(Set(path, "a", "3"), 0);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", "a=3\nb=2\n"}}));
}

TEST(FileThatStays, HasNoTemporaryFileBesideIt) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\nb=2\n"));
  Mount mount;
  ASSERT_TRUE(mount.OverItself(path));
  EXPECT_EQ(Set(path, "a", "3"), SM_STATUS_DELETE_FAILED);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", "a=1\nb=2\n"}}));
}

// --- A disk that is full, a directory that refuses ------------------------------------------------------------------

TEST(FullDisk, EditFailsAndLeavesTheOldFileAlone) {
  constexpr size_t kPages = 3;  // of either file
  const std::string line = '#' + std::string(kPage - 50, '=') + '\n';
  const std::string comment = line + line + line;
  const std::string old = "a=1\n" + comment + "b=2\n";
  ASSERT_EQ((old.size() + kPage - 1) / kPage, kPages);
  const TemporaryDirectory directory;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(directory.path(), "size=64k"));
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, old));
  for (size_t freePages = 0; freePages < kPages; ++freePages) {
    ASSERT_TRUE(FillDisk(directory.path(), freePages));
    const FileState before(path);
    for (const Setter set : FullPathSetters()) {
      EXPECT_EQ(Set(path, "a", "3", 0, set), SM_STATUS_WRITE_FAILED) << freePages;
      EXPECT_EQ(Set(path, "b", "3", 0, set), SM_STATUS_WRITE_FAILED) << freePages;
      EXPECT_EQ(Set(path, "c", "3", 0, set), SM_STATUS_WRITE_FAILED) << freePages;
      EXPECT_EQ(Remove(path, "b", 0, set), SM_STATUS_WRITE_FAILED) << freePages;
      EXPECT_FALSE(Exists(directory.Path(kTemporaryName))) << freePages;
    }
    EXPECT_EQ(FileState(path), before) << freePages;
    EXPECT_EQ(Load(path), (Pairs{{"a", "1"}, {"b", "2"}}));
    ASSERT_TRUE(sandbox::RemoveTree(directory.Path("filler")));
  }
  ASSERT_TRUE(FillDisk(directory.path(), kPages));
  EXPECT_EQ(Set(path, "a", "3"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), "a=3\n" + comment + "b=2\n");
}

TEST(FullDisk, LineThatDoesNotFitLeavesTheOldFile) {
  // The copy fits where the longer file does not: a value of two pages at the end of a file of one.
  const std::string old = "a=1\n#" + std::string(kPage / 2, '=') + '\n';
  const TemporaryDirectory directory;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(directory.path(), "size=64k"));
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, old));
  ASSERT_TRUE(FillDisk(directory.path(), 1));
  const FileState before(path);
  const std::string value(8192, 'v');
  ASSERT_GT(old.size() + value.size(), 2 * kPage);
  EXPECT_EQ(Set(path, "b", value), SM_STATUS_WRITE_FAILED);
  EXPECT_EQ(Set(path, "a", value), SM_STATUS_WRITE_FAILED);
  EXPECT_EQ(FileState(path), before);
  EXPECT_FALSE(Exists(directory.Path(kTemporaryName)));
  EXPECT_EQ(Set(path, "b", "2"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), old + "b=2\n");
}

TEST(FullDisk, LargeEditFailsAndLeavesTheOldFile) {
  std::string old = "first=1\n";
  while (old.size() < 1000000) old += "# a comment of some length\n";
  old += "last=2\n";
  const TemporaryDirectory directory;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(directory.path(), "size=3m"));
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, old));
  for (const size_t freePages : {0u, 1u, 9u, 100u, 200u}) {
    ASSERT_TRUE(FillDisk(directory.path(), freePages));
    const FileState before(path);
    EXPECT_EQ(Set(path, "first", "2"), SM_STATUS_WRITE_FAILED) << freePages;
    EXPECT_EQ(Set(path, "last", "3"), SM_STATUS_WRITE_FAILED) << freePages;
    EXPECT_EQ(Set(path, "new", "4"), SM_STATUS_WRITE_FAILED) << freePages;
    EXPECT_TRUE(FileState(path) == before) << freePages;
    EXPECT_FALSE(Exists(directory.Path(kTemporaryName))) << freePages;
    ASSERT_TRUE(sandbox::RemoveTree(directory.Path("filler")));
  }
}

TEST(FullDisk, WithoutRoomForAnotherFileNothingIsOpened) {
  const TemporaryDirectory directory;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(directory.path(), "size=64k,nr_inodes=2"));  // the directory itself and one file
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  const FileState before(path);
  for (const Setter set : FullPathSetters()) {
    EXPECT_EQ(Set(path, "a", "2", 0, set), SM_STATUS_PATH_UNAVAILABLE);
    EXPECT_EQ(Set(path, "b", "2", 0, set), SM_STATUS_PATH_UNAVAILABLE);
    EXPECT_EQ(Set(directory.Path("new/b.cfg"), "a", "2", 0, set), -1) << "nor is there room for a directory";
  }
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(FilesIn(directory.path()).size(), 1u);
}

TEST(ReadOnlyDirectory, EditsFailAndTheFileStays) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  const FileState before(path);
  {
    Mount mount;
    ASSERT_TRUE(mount.ReadOnly(directory.path()));
    for (const Setter set : FullPathSetters()) {
      EXPECT_EQ(Set(path, "a", "2", 0, set), SM_STATUS_PATH_UNAVAILABLE);
      EXPECT_EQ(Set(path, "b", "2", 0, set), SM_STATUS_PATH_UNAVAILABLE);
      EXPECT_EQ(Remove(path, "a", 0, set), SM_STATUS_PATH_UNAVAILABLE);
      EXPECT_EQ(Set(directory.Path("new/b.cfg"), "a", "2", 0, set), -1);
    }
    for (const Loader load : kLoaders) EXPECT_EQ(Load(path, load), (Pairs{{"a", "1"}}));
    EXPECT_EQ(FileState(path), before);
    EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", "a=1\n"}}));
  }
  EXPECT_EQ(Set(path, "a", "2"), 0);
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", "a=2\n"}}));
}

// --- The lock -------------------------------------------------------------------------------------------------------

namespace {

// The count of a file's pairs, or a negative number if counting did not go as it should.
int CountOf(const std::string &path) {
  u32 size = 0;
  return PopulateKeyValueEntries(path.c_str(), nullptr, &size) == -1 ? static_cast<int>(size) : -1;
}

s32 Fill(const std::string &path) {
  const Room table(1);
  u32 size = 1;
  const s32 status = PopulateKeyValueEntries(path.c_str(), table.entries(), &size);
  if (status == 0) {
    EXPECT_EQ(table.Take(1), (Pairs{{"a", "1"}}));
  }
  return status;
}

}  // namespace

TEST(HeldLock, CallsWaitUntilItIsReleased) {
  sandbox::RequireSandbox();
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  const Pairs pairs{{"a", "1"}};
  std::vector<std::function<void()>> calls = {[&path] { EXPECT_EQ(CountOf(path), 1); },
                                              [&path] { EXPECT_EQ(Fill(path), 0); }};
  for (const Loader load : kLoaders) calls.emplace_back([&, load] { EXPECT_EQ(Load(path, load), pairs); });
  for (const Loader load : kProductLoaders) calls.emplace_back([&, load] { EXPECT_EQ(Load("a.cfg", load), pairs); });
  std::vector<std::string> edited;
  for (const Setter set : FullPathSetters()) {
    const std::string ownPath = edited.emplace_back(directory.Path("edited" + std::to_string(edited.size())));
    calls.emplace_back([set, ownPath] { EXPECT_EQ(Set(ownPath, "a", "2", 0, set), 0); });
  }
  for (const Setter set : kProductSetters) {
    const std::string name = "edited" + std::to_string(edited.size());
    edited.push_back(kProductDirectory + '/' + name);
    calls.emplace_back([set, name] { EXPECT_EQ(Set(name, "a", "2", 0, set), 0); });
  }
  for (const std::string &file : edited) ASSERT_TRUE(sandbox::WriteFile(file, "a=1\n"));
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  ASSERT_TRUE(sandbox::WriteFile(kProductDirectory + "/a.cfg", "a=1\n"));
  const Files before = FilesIn(directory.path());

  LockHolder holder;
  ASSERT_TRUE(holder);
  std::atomic<int> &finished = NewSharedNumber();
  std::deque<Process> callers;
  for (const auto &call : calls) {
    ASSERT_TRUE(callers.emplace_back().Start([&finished, &call](Channel &channel) {
      channel.Put("waiting");
      call();
      ++finished;
      return 0;
    }));
    ASSERT_EQ(callers.back().Receive(), "waiting");
  }
  for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // a call that did not wait would often be through by now
  EXPECT_EQ(finished, 0);
  EXPECT_EQ(FilesIn(directory.path()), before);
  holder.Release();
  for (Process &caller : callers) EXPECT_EQ(caller.Wait(), 0);
  EXPECT_EQ(finished, static_cast<int>(calls.size()));
  for (const std::string &file : edited) EXPECT_EQ(sandbox::ReadFile(file), "a=2\n") << file;
}

TEST(HeldLock, ArgumentsAreRefusedWithoutWaitingForIt) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n"));
  LockHolder holder;
  ASSERT_TRUE(holder);
  std::string text = "a";
  const KCSKVEntry entry{text.data(), text.data()};
  const KCSKVEntry withoutKey{nullptr, text.data()};
  for (const Setter set : FullPathSetters()) {
    EXPECT_EQ(set(nullptr, &entry, 0), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(set(path.c_str(), nullptr, 0), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(set(path.c_str(), &withoutKey, 0), SM_STATUS_INVALID_INPUT);
    EXPECT_EQ(Set(path, "a", std::string(kLargestPair, 'v'), 0, set), SM_STATUS_BAD_SIZE);
    EXPECT_EQ(Set(directory.Path("one/two/a.cfg"), "a", "1", 0, set), -1);
  }
  u32 size = 1;
  EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), nullptr, &size), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(KCSCFGGetKeyValueEntries(nullptr, &size), nullptr);
  EXPECT_EQ(KCSCFGGetKeyValueEntries(path.c_str(), nullptr), nullptr);
  holder.Release();
  EXPECT_EQ(FilesIn(directory.path()), (Files{{"a.cfg", "a=1\n"}}));
}

TEST(HeldLock, EveryWayOutOfACallReleasesIt) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  const std::string missing = directory.Path("missing.cfg");
  const std::string empty = directory.Path("empty.cfg");
  const std::string busy = directory.Path("busy.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "k=1\nk=2\n"));
  ASSERT_TRUE(sandbox::WriteFile(empty, "# nothing\n"));
  ASSERT_TRUE(sandbox::WriteFile(busy, "k=1\n"));
  Mount mount;
  ASSERT_TRUE(mount.OverItself(busy));
  const std::string blocked = directory.Path("blocked");
  ASSERT_TRUE(sandbox::MakeDirectories(blocked + '/' + kTemporaryName));
  ASSERT_TRUE(sandbox::WriteFile(blocked + "/a.cfg", "k=1\n"));
  const struct {
    const char *what;
    std::function<s32()> call;
    s32 result;
  } cases[] = {
      {"a table", [&] { return static_cast<s32>(Load(path).size()); }, 2},
      {"a file without pairs", [&] { return static_cast<s32>(Load(empty).size()); }, 0},
      {"a missing file", [&] { return static_cast<s32>(Load(missing).size()); }, 0},
      {"a directory", [&] { return static_cast<s32>(Load(directory.path()).size()); }, 0},
      {"a count", [&] { return CountOf(path); }, 2},
      {"a table without room", [&] { return Fill(path); }, -1},
      {"a missing file to fill from", [&] { return Fill(missing); }, -1},
      {"a replacement", [&] { return Set(path, "k", "3", 1); }, 0},
      {"an addition", [&] { return Set(path, "new", "3"); }, 0},
      {"a removal", [&] { return Remove(path, "new"); }, 0},
      {"a removal of nothing", [&] { return Remove(path, "new"); }, SM_STATUS_KEY_NOT_FOUND},
      {"too far an instance", [&] { return Set(path, "k", "3", 3); }, SM_STATUS_INVALID_INPUT},
      {"an edit of a missing file", [&] { return Set(missing, "k", "3"); }, SM_STATUS_PATH_UNAVAILABLE},
      {"an edit without a temporary file", [&] { return Set(blocked + "/a.cfg", "k", "3"); },
       SM_STATUS_PATH_UNAVAILABLE},
      {"a file that cannot be deleted", [&] { return Set(busy, "k", "2"); }, SM_STATUS_DELETE_FAILED},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.call(), c.result) << c.what;
    EXPECT_TRUE(LockIsFree()) << c.what;
  }
}

TEST(MissingLock, IsATimeoutAndTouchesNothing) {
  sandbox::RequireSandbox();
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "a=1\n", 0640));
  ASSERT_TRUE(sandbox::WriteFile(kProductDirectory + "/a.cfg", "a=1\n", 0640));
  const FileState before(path);
  const FileState productBefore(kProductDirectory + "/a.cfg");
  // A library that is detached has no lock. It cannot be attached again, so that a process of its own is needed.
  InAnotherProcess([&directory, &path] {
    while (ModuleDetach() == 1) continue;
    for (const Setter set : FullPathSetters()) {
      EXPECT_EQ(Set(path, "a", "2", 0, set), SM_STATUS_LOCK_TIMEOUT);
      EXPECT_EQ(Remove(path, "a", 0, set), SM_STATUS_LOCK_TIMEOUT);
      EXPECT_EQ(Set(directory.Path("missing.cfg"), "a", "2", 0, set), SM_STATUS_LOCK_TIMEOUT);
    }
    for (const Setter set : kProductSetters) EXPECT_EQ(Set("a.cfg", "a", "2", 0, set), SM_STATUS_LOCK_TIMEOUT);
    for (const Loader load : kLoaders) EXPECT_EQ(Load(path, load), Pairs());
    for (const Loader load : kProductLoaders) EXPECT_EQ(Load("a.cfg", load), Pairs());
    const Room table(2);
    u32 size = 2;
    EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), table.entries(), &size), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(size, 2u);
    EXPECT_TRUE(table.IsUntouchedFrom(0));
    size = 0;
    EXPECT_EQ(PopulateKeyValueEntries(path.c_str(), nullptr, &size), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(FilesIn(directory.path()).size(), 1u);
    EXPECT_EQ(Set(directory.Path("new/a.cfg"), "a", "2"), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_TRUE(Exists(directory.Path("new"))) << "the directory comes before the lock";
  });
  EXPECT_EQ(FileState(path), before);
  EXPECT_EQ(FileState(kProductDirectory + "/a.cfg"), productBefore);
  EXPECT_EQ(FilesIn(directory.Path("new")), Files());
}

// --- Shared files ---------------------------------------------------------------------------------------------------

namespace {

constexpr int kEditors = 4;

std::string Name(const char *prefix, int number) { return prefix + std::to_string(number); }

}  // namespace

TEST(SharedFile, ManyEditorsLoseNothing) {
  constexpr int kRounds = 100;
  const std::string original =
      "# a comment = none\n"
      "  before = \"every other\" \r\n"
      "a word\n"
      "\n"
      "shared=1\n"
      "shared = 2\n";
  std::string text = original;
  for (int round = 0; round < kRounds; ++round) {
    for (int editor = 0; editor < kEditors; ++editor) text += Name("gone", editor) + '=' + std::to_string(round) + '\n';
  }
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, text));
  std::deque<Process> editors;
  for (int editor = 0; editor < kEditors; ++editor) {
    ASSERT_TRUE(editors.emplace_back().Start([&path, editor](Channel &channel) {
      const Setter set = FullPathSetters()[static_cast<size_t>(editor)];
      EXPECT_EQ(channel.Get(), "go");
      for (int round = 0; round < kRounds; ++round) {
        const std::string number = std::to_string(round);
        EXPECT_EQ(Set(path, Name("replaced", editor), number, 0, set), 0);
        EXPECT_EQ(Set(path, Name("added", editor), number, static_cast<u32>(round), set), 0);
        EXPECT_EQ(Remove(path, Name("gone", editor), 0, set), 0);
        // What this process alone edits is as it left it.
        u32 size = 0;
        KCSKVEntry *const table = KCSCFGGetKeyValueEntries(path.c_str(), &size);
        EXPECT_STREQ(KCSCFGGetKeyValue(table, size, Name("replaced", editor).c_str(), 0), number.c_str());
        EXPECT_STREQ(KCSCFGGetKeyValue(table, size, Name("added", editor).c_str(), static_cast<u32>(round)),
                     number.c_str());
        EXPECT_EQ(KCSCFGGetKeyValue(table, size, Name("added", editor).c_str(), static_cast<u32>(round) + 1), nullptr);
        KCSCFGFreeKeyValueEntries(table, size);
      }
      EXPECT_EQ(Remove(path, Name("gone", editor), 0, set), SM_STATUS_KEY_NOT_FOUND);
      return 0;
    }));
  }
  for (Process &editor : editors) editor.Send("go");
  for (Process &editor : editors) EXPECT_EQ(editor.Wait(), 0);

  const Files files = FilesIn(directory.path());
  ASSERT_EQ(files.size(), 1u) << "the temporary file is gone";
  std::map<std::string, std::vector<std::string>> added;
  std::string others;
  for (const std::string &line : LinesOf(files.at("a.cfg"))) {
    const size_t equals = line.find('=');
    const std::string key = line.substr(0, equals);
    if (key.starts_with("replaced") || key.starts_with("added")) {
      added[key].push_back(line.substr(equals + 1));
    } else {
      others += line + '\n';
    }
  }
  EXPECT_EQ(others, original);
  EXPECT_EQ(added.size(), 2 * size_t{kEditors});
  std::vector<std::string> numbers;
  for (int round = 0; round < kRounds; ++round) numbers.push_back(std::to_string(round));
  for (int editor = 0; editor < kEditors; ++editor) {
    EXPECT_EQ(added[Name("replaced", editor)], std::vector<std::string>{numbers.back()});
    EXPECT_EQ(added[Name("added", editor)], numbers);
  }
  EXPECT_EQ(ModeOf(path), kEditedMode);
}

TEST(SharedFile, FilesOfOneDirectoryDoNotMixThoughTheirTemporaryNameIsOne) {
  constexpr int kRounds = 150;
  const TemporaryDirectory directory;
  const auto content = [](int editor, int round) {
    std::string text = "key=" + std::to_string(round) + '\n';
    for (int i = 0; i < 200; ++i) text += Name("this = file ", editor) + '\n';
    return text;
  };
  std::deque<Process> editors;
  for (int editor = 0; editor < kEditors; ++editor) {
    const std::string path = directory.Path(Name("file", editor));
    ASSERT_TRUE(sandbox::WriteFile(path, content(editor, 0)));
    ASSERT_TRUE(editors.emplace_back().Start([path, editor, &content](Channel &channel) {
      EXPECT_EQ(channel.Get(), "go");
      for (int round = 1; round <= kRounds; ++round) {
        EXPECT_EQ(Set(path, "key", std::to_string(round)), 0);
        EXPECT_EQ(sandbox::ReadFile(path), content(editor, round));
      }
      return 0;
    }));
  }
  for (Process &editor : editors) editor.Send("go");
  for (Process &editor : editors) EXPECT_EQ(editor.Wait(), 0);
  EXPECT_EQ(FilesIn(directory.path()).size(), size_t{kEditors});
}

TEST(SharedFile, LoadersNeverSeeHalfAnEdit) {
  constexpr int kRounds = 300;
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.cfg");
  ASSERT_TRUE(sandbox::WriteFile(path, "key=0\n" + std::string(20000, '#') + "\nend=whole\n"));
  Process editor;
  ASSERT_TRUE(editor.Start([&path](Channel &) {
    for (int round = 1; round <= kRounds; ++round) EXPECT_EQ(Set(path, "key", std::to_string(round)), 0);
    return 0;
  }));
  int last = 0;
  while (last < kRounds) {
    const Pairs pairs = Load(path);
    ASSERT_EQ(pairs.size(), 2u);
    ASSERT_EQ(pairs[0].first, "key");
    ASSERT_EQ(pairs[1], Pair("end", "whole"));
    ASSERT_GE(std::stoi(pairs[0].second), last) << "values come in the order in which they were written";
    last = std::stoi(pairs[0].second);
    ASSERT_EQ(CountOf(path), 2);
  }
  EXPECT_EQ(editor.Wait(), 0);
}

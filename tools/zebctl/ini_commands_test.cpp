// zebctl ini as its users run it: whole outputs, exit statuses and files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "command_test.h"
#include "program.h"
#include "sandbox.h"

namespace {

using nlohmann::json;

constexpr char kProductFile[] = "/opt/vorn/fleetops/etc/kelvestane//zeb/ini/test.ini";

class ZebctlIni : public CommandTest<ZebctlIni> {
 public:
  static constexpr char kCommand[] = "ini";

 protected:
  static void Write(const std::string &text) { ASSERT_TRUE(sandbox::WriteFile("a.ini", text)); }

  void ExpectValues(const std::set<std::string> &types);
};

std::string Text(const Line &lines) {
  std::string text;
  for (const std::string &line : lines) text += line + '\n';
  return text;
}

// How the store writes a value, and how it is shown.
struct ValueCase {
  std::string type;
  std::string value;
  std::string written;
  std::string shown;
  json inJSON;
};

const std::vector<ValueCase> &ValueCases() {
  static const std::string kBinary1638(size_t{2} * 1638, '0');
  static const std::string kList1638 = [] {
    std::string list = "0x00";
    for (int i = 1; i < 1638; ++i) list += ",0x00";
    return list;
  }();
  static const std::vector<ValueCase> kCases = {
      {"astring", "Fleet  Operations", "Fleet  Operations", "Fleet  Operations", "Fleet  Operations"},
      {"astring", "", "", "", ""},
      {"astring", " x ", " x ", "\\u0020x\\u0020", " x "},
      {"astring", " ", " ", "\\u0020", " "},
      {"astring", "a=b;[c]", "a=b;[c]", "a=b;[c]", "a=b;[c]"},
      {"astring", "{}", "{}", "{}", "{}"},
      {"astring", "%%", "%%", "%%", "%%"},
      {"astring", "[a,b]", "[a,b]", "[a,b]", "[a,b]"},
      {"astring", "get", "get", "get", "get"},
      {"astring", "C:\\x", "C:\\x", "C:\\\\x", "C:\\x"},
      {"astring", "\x1B[31m\r", "\x1B[31m\r", "\\u001b[31m\\u000d", "\x1B[31m\r"},
      {"astring", "Z\xC3\xBCrich \xF0\x9F\x98\x80", "Z\xC3\xBCrich \xF0\x9F\x98\x80", "Z\xC3\xBCrich \xF0\x9F\x98\x80",
       "Z\xC3\xBCrich \xF0\x9F\x98\x80"},
      {"astring", "Z\xFCrich \xC0\x80\xED\xA0\x80", "Z\xFCrich \xC0\x80\xED\xA0\x80",
       "Z\\udcfcrich \\udcc0\\udc80\\udced\\udca0\\udc80",
       "Z\xEF\xBF\xBDrich \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"astring", std::string(8192, 'v'), std::string(8192, 'v'), std::string(8192, 'v'), std::string(8192, 'v')},
      {"ustring", "", "0x00,0x00", "", ""},
      {"ustring", "A", "0x41,0x00,0x00,0x00", "A", "A"},
      {"ustring", "\xC3\xBC\xE2\x82\xAC\n", "0xFC,0x00,0xAC,0x20,0x0A,0x00,0x00,0x00", "\xC3\xBC\xE2\x82\xAC\\u000a",
       "\xC3\xBC\xE2\x82\xAC\n"},
      {"binary", "0x01,0xAB", "0x01,0xAB", "0x01,0xAB", "0x01,0xAB"},
      {"binary", "01abFF", "0x01,0xAB,0xFF", "0x01,0xAB,0xFF", "0x01,0xAB,0xFF"},
      {"binary", "0X1,b,00", "0x01,0x0B,0x00", "0x01,0x0B,0x00", "0x01,0x0B,0x00"},
      {"binary", kBinary1638, kList1638, kList1638, kList1638},
      {"booln", "true", "TRUE", "true", true},
      {"booln", "False", "FALSE", "false", false},
      {"u32", "4294967295", "4294967295", "4294967295", 4294967295U},
      {"u32", "007", "7", "7", 7},
      {"s32", "-2147483648", "-2147483648", "-2147483648", -2147483648LL},
      {"u64", "18446744073709551615", "18446744073709551615", "18446744073709551615", 18446744073709551615ULL},
      {"s64", "-9223372036854775808", "-9223372036854775808", "-9223372036854775808",
       std::numeric_limits<std::int64_t>::min()},
      {"d64", "-1.5", "-1.50000000", "-1.5", -1.5},
      {"d64", "2e3", "2000.00000000", "2000.0", 2000.0},
      {"d64", "0.123456789", "0.12345679", "0.12345679", 0.12345679},
  };
  return kCases;
}

void ZebctlIni::ExpectValues(const std::set<std::string> &types) {
  for (const ValueCase &c : ValueCases()) {
    if (!types.contains(c.type)) continue;
    ASSERT_TRUE(sandbox::RemoveTree(m_directory.Path("a.ini")));
    ExpectAnswer({"set", "a.ini", "main", "k", c.value, "--type", c.type}, "");
    EXPECT_EQ(sandbox::ReadFile("a.ini"), "[main]\nk=" + c.written + '\n') << c.type << ' ' << c.value;
    ExpectAnswer({"get", "a.ini", "main", "k", "--type", c.type}, c.shown + '\n');
    const ProgramResult asJSON = Zebctl({"get", "a.ini", "main", "k", "--type", c.type, "--json"});
    EXPECT_EQ(asJSON.status, 0);
    EXPECT_EQ(asJSON.errors, "");
    EXPECT_EQ(json::parse(asJSON.output),
              (json{{"file", "a.ini"}, {"section", "main"}, {"key", "k"}, {"type", c.type}, {"value", c.inJSON}}));
  }
}

}  // namespace

TEST_F(ZebctlIni, TextsAreWrittenAndShown) { ExpectValues({"astring", "ustring"}); }
TEST_F(ZebctlIni, BytesAndBooleansAreWrittenAndShown) { ExpectValues({"binary", "booln"}); }
TEST_F(ZebctlIni, NumbersAreWrittenAndShown) { ExpectValues({"u32", "s32", "u64", "s64", "d64"}); }

TEST_F(ZebctlIni, GetPrintsJSON) {
  Write("[a \"b\"]\nk=5\n");
  ExpectAnswer({"get", "a.ini", "a \"b\"", "k", "--type", "u32", "--json"},
               "{\n"
               "  \"file\": \"a.ini\",\n"
               "  \"section\": \"a \\\"b\\\"\",\n"
               "  \"key\": \"k\",\n"
               "  \"type\": \"u32\",\n"
               "  \"value\": 5\n"
               "}\n");
  const ProgramResult failure = Zebctl({"get", "a.ini", "main", "k", "--json"});
  EXPECT_EQ(failure.status, 1);
  EXPECT_EQ(failure.errors, "");
  EXPECT_EQ(failure.output,
            "{\n"
            "  \"status\": 262,\n"
            "  \"name\": \"SM_STATUS_SECTION_NOT_FOUND\"\n"
            "}\n");
}

TEST_F(ZebctlIni, ValuesThatOthersWroteAreShown) {
  // What each type makes of a text; the JSON of a number that JSON does not have is a text.
  const struct {
    std::string text;
    std::string type;
    std::string shown;
    json inJSON;
  } cases[] = {
      {"abc", "u32", "0", 0},
      {"4294967297", "u32", "1", 1},
      {"true and more", "booln", "true", true},
      {"inf", "d64", "inf", "inf"},
      {"-inf", "d64", "-inf", "-inf"},
      {"nan", "d64", "nan", "nan"},
      {"", "binary", "", ""},
      {"1,ab,,xyz", "binary", "0x01,0xAB", "0x01,0xAB"},
      // A pair of surrogates; half of one; text behind the terminator.
      {"0x3D,0xD8,0x00,0xDE,0x00,0x00", "ustring", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
      {"0x3D,0xD8,0x41,0x00,0x00,0x00", "ustring", "\\ud83dA",
       "\xEF\xBF\xBD"
       "A"},
      {"0x00,0xDE,0x00,0x00", "ustring", "\\ude00", "\xEF\xBF\xBD"},
      {"0x41,0x00,0x00,0x00,0x42", "ustring", "A", "A"},
  };
  for (const auto &c : cases) {
    Write("[main]\nk=" + c.text + '\n');
    ExpectAnswer({"get", "a.ini", "main", "k", "--type", c.type}, c.shown + '\n');
    const ProgramResult asJSON = Zebctl({"get", "a.ini", "main", "k", "--type", c.type, "--json"});
    EXPECT_EQ(json::parse(asJSON.output)["value"], c.inJSON) << c.text;
  }
  Write("[main]\nk=" + std::string(8447, 'v') + '\n');  // the longest line that is one
  ExpectAnswer({"get", "a.ini", "main", "k"}, std::string(8447, 'v') + '\n');
}

TEST_F(ZebctlIni, FailuresHaveTheirStatus) {
  const struct {
    const char *text;  // NULL for no file
    Line line;
    std::string name;
    int status;
    std::string advice;
  } cases[] = {
      {nullptr,
       {"get", "a.ini", "s", "k"},
       "SM_STATUS_NOT_FOUND",
       7,
       "The file is missing, or this account may not read it or write in its directory."},
      {"", {"get", "a.ini", "s", "k"}, "SM_STATUS_SECTION_NOT_FOUND", 262, "The file has no such section."},
      {"[s]\nk2=v\n", {"get", "a.ini", "s", "k"}, "SM_STATUS_KEY_NOT_FOUND", 263, "The section has no such key."},
      {"[s\n",
       {"get", "a.ini", "s", "k"},
       "SM_STATUS_PARSE_ERROR",
       261,
       "The file cannot be read, or it has a line that begins with \"[\" and has no \"]\"."},
      {"[s]\nk=yes\n",
       {"get", "a.ini", "s", "k", "--type", "booln"},
       "SM_STATUS_BAD_SIZE",
       264,
       "The value is not of this type."},
      {"[s]\nk=100\n",
       {"get", "a.ini", "s", "k", "--type", "binary"},
       "SM_STATUS_BAD_SIZE",
       264,
       "The value is not of this type."},
      {"[s]\nk=0x41,0x00,0x00\n",
       {"get", "a.ini", "s", "k", "--type", "ustring"},
       "SM_STATUS_BAD_DATA",
       257,
       "The value is no 16-bit text: it has no terminator. Read it as binary."},
      {nullptr,
       {"sections", "a.ini"},
       "SM_STATUS_NOT_FOUND",
       7,
       "The file is missing, or this account may not read it or write in its directory."},
      {"", {"sections", "a.ini"}, "SM_STATUS_SECTION_NOT_FOUND", 262, "The file has no such section."},
      {"[s]\n", {"keys", "a.ini", "t"}, "SM_STATUS_SECTION_NOT_FOUND", 262, "The file has no such section."},
      {"[s]\nword\n", {"keys", "a.ini", "s"}, "SM_STATUS_KEY_NOT_FOUND", 263, "The section has no such key."},
      {"[s\n",
       {"set", "a.ini", "s", "k", "v"},
       "SM_STATUS_PARSE_ERROR",
       261,
       "The file cannot be read, or it has a line that begins with \"[\" and has no \"]\"."},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::RemoveTree(m_directory.Path("a.ini")));
    if (c.text != nullptr) Write(c.text);
    ExpectRefusal(c.line, 1, "a.ini: " + c.name + " (" + std::to_string(c.status) + ")\n" + c.advice + '\n');
    if (c.text != nullptr) {
      EXPECT_EQ(sandbox::ReadFile("a.ini"), c.text);
    }
    if (c.line[0] != "set") {
      Line line = c.line;
      line.emplace_back("--json");
      const ProgramResult asJSON = Zebctl(line);
      EXPECT_EQ(asJSON.status, 1);
      EXPECT_EQ(asJSON.errors, "");
      EXPECT_EQ(json::parse(asJSON.output), (json{{"status", c.status}, {"name", c.name}}));
    }
  }
}

TEST_F(ZebctlIni, DirectoryThatCannotBeMadeHasAStatusWithoutAName) {
  ExpectRefusal({"set", "no/such/a.ini", "s", "k", "v"}, 1,
                "no/such/a.ini: status -1\nThe file's directory is missing and could not be made.\n");
}

TEST_F(ZebctlIni, DefaultStandsInForWhatIsNotThere) {
  const std::string answer = "The answer is the default.\n";
  const struct {
    const char *text;  // NULL for no file
    std::string type;
    std::string fallback;
    std::string shown;
    json inJSON;
    std::string errors;
    std::string name;
    int status;
  } cases[] = {
      {nullptr, "astring", "x y", "x y", "x y",
       "SM_STATUS_NOT_FOUND (7)\nThe file is missing, or this account may not read it or write in its directory.\n",
       "SM_STATUS_NOT_FOUND", 7},
      {"", "astring", "", "", "", "SM_STATUS_SECTION_NOT_FOUND (262)\nThe file has no such section.\n",
       "SM_STATUS_SECTION_NOT_FOUND", 262},
      {"[s]\n", "s32", "-3", "-3", -3, "SM_STATUS_KEY_NOT_FOUND (263)\nThe section has no such key.\n",
       "SM_STATUS_KEY_NOT_FOUND", 263},
      {"[s]\n", "ustring", "\xC3\xBC", "\xC3\xBC", "\xC3\xBC",
       "SM_STATUS_KEY_NOT_FOUND (263)\nThe section has no such key.\n", "SM_STATUS_KEY_NOT_FOUND", 263},
      {"[s]\n", "binary", "01ab", "0x01,0xAB", "0x01,0xAB",
       "SM_STATUS_KEY_NOT_FOUND (263)\nThe section has no such key.\n", "SM_STATUS_KEY_NOT_FOUND", 263},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::RemoveTree(m_directory.Path("a.ini")));
    if (c.text != nullptr) Write(c.text);
    const ProgramResult plain = Zebctl({"get", "a.ini", "s", "k", "--type", c.type, "--default", c.fallback});
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.output, c.shown + '\n');
    EXPECT_EQ(plain.errors, "zebctl: a.ini: " + c.errors + answer);
    const ProgramResult asJSON =
        Zebctl({"get", "a.ini", "s", "k", "--type", c.type, "--json", "--default", c.fallback});
    EXPECT_EQ(asJSON.status, 0);
    EXPECT_EQ(asJSON.errors, "");
    EXPECT_EQ(json::parse(asJSON.output), (json{{"file", "a.ini"},
                                                {"section", "s"},
                                                {"key", "k"},
                                                {"type", c.type},
                                                {"value", c.inJSON},
                                                {"status", c.status},
                                                {"name", c.name}}));
  }
  Write("[s]\nk=5\nn=abc\nb=yes\n");
  ExpectAnswer({"get", "a.ini", "s", "k", "--type", "u32", "--default", "7"}, "5\n");
  ExpectAnswer({"get", "a.ini", "s", "n", "--type", "u32", "--default", "7"}, "7\n");  // as the library has it
  ExpectRefusal({"get", "a.ini", "s", "b", "--type", "booln", "--default", "true"}, 1,
                "a.ini: SM_STATUS_BAD_SIZE (264)\nThe value is not of this type.\n");
}

TEST_F(ZebctlIni, ValuesAreCheckedBeforeTheFileIsTouched) {
  const std::string bytes = " is neither a list of bytes such as 0x01,0xAB nor pairs of hexadecimal digits.\n";
  const std::string u32 = " is not a whole number from 0 to 4294967295.\n";
  const std::string number = " is not a number such as -1.5 or 2e6.\n";
  const struct {
    std::string type;
    std::string value;
    std::string errors;
  } cases[] = {
      {"astring", "a\nb", " has a line feed, which would end its line.\n"},
      {"astring", std::string(8193, 'v'), " is longer than 8192 bytes.\n"},
      {"ustring", "\xFC", " is not valid UTF-8.\n"},
      {"ustring", "a\xF0\x9F\x98\x80",
       " has a character beyond U+FFFF, which the library's 16-bit text does not keep.\n"},
      {"ustring", std::string(819, 'v'), " is longer than 818 characters.\n"},
      {"binary", "", " is not 1 to 1638 bytes.\n"},
      {"binary", std::string(size_t{2} * 1639, '0'), " is not 1 to 1638 bytes.\n"},
      {"binary", "1", bytes},
      {"binary", "012", bytes},
      {"binary", "0g", bytes},
      {"binary", "0x", bytes},
      {"binary", "0x1AB", bytes},
      {"binary", "0x01,", bytes},
      {"binary", ",0x01", bytes},
      {"binary", "0x01,,0x02", bytes},
      {"binary", "0x01, 0x02", bytes},
      {"binary", "x1", bytes},
      {"binary", " 1", bytes},
      {"binary", "+1", bytes},
      {"booln", "yes", " is neither true nor false.\n"},
      {"booln", "true ", " is neither true nor false.\n"},
      {"u32", "", u32},
      {"u32", "abc", u32},
      {"u32", "12x", u32},
      {"u32", " 1", u32},
      {"u32", "0x10", u32},
      {"u32", "-1", u32},
      {"u32", "4294967296", u32},
      {"s32", "2147483648", " is not a whole number from -2147483648 to 2147483647.\n"},
      {"s32", "-2147483649", " is not a whole number from -2147483648 to 2147483647.\n"},
      {"u64", "18446744073709551616", " is not a whole number from 0 to 18446744073709551615.\n"},
      {"s64", "9223372036854775808", " is not a whole number from -9223372036854775808 to 9223372036854775807.\n"},
      {"d64", "", number},
      {"d64", "1.5x", number},
      {"d64", "1,5", number},
      {"d64", "inf", number},
      {"d64", "nan", number},
      {"d64", "1e999", number},
      {"d64", "1e86", " has more digits than the store writes.\n"},
  };
  Write("[s]\nk=old\n");
  std::set<std::string> types{"astring"};  // with a line feed, as a default it is as good as any
  for (const auto &c : cases) {
    ExpectRefusal({"set", "a.ini", "s", "k", c.value, "--type", c.type}, 2, "VALUE" + c.errors);
    if (types.insert(c.type).second) {
      ExpectRefusal({"get", "a.ini", "s", "k", "--type", c.type, "--default", c.value}, 2, "--default" + c.errors);
    }
  }
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "[s]\nk=old\n");
}

TEST_F(ZebctlIni, LargestNumbersThatAreTakenAreReadBack) {
  ExpectAnswer({"set", "a.ini", "s", "k", "1e85", "--type", "d64"}, "");
  ExpectAnswer({"get", "a.ini", "s", "k", "--type", "d64"}, "1e+85\n");
  ExpectAnswer({"set", "a.ini", "s", "k", std::string(817, 'v') + "\xC3\xBC", "--type", "ustring"}, "");
  ExpectAnswer({"get", "a.ini", "s", "k", "--type", "ustring"}, std::string(817, 'v') + "\xC3\xBC\n");
}

TEST_F(ZebctlIni, NamesThatWouldNotBeReadBackAreRefused) {
  const std::string start =
      "KEY begins with a blank, \"[\", \";\" or \"#\", so that its line would not be read as a key.\n";
  const struct {
    std::string section;
    std::string key;
    std::string errors;
  } cases[] = {
      {"a\nb", "k", "SECTION has a line feed, which would end its line.\n"},
      {"a]b", "k", "SECTION has a \"]\", which would end its name.\n"},
      {std::string(256, 's'), "k", "SECTION is longer than 255 bytes.\n"},
      {"s", "", "KEY is empty. Name a key.\n"},
      {"s", "a\nb", "KEY has a line feed, which would end its line.\n"},
      {"s", "a=b", "KEY has a \"=\", which would end its name.\n"},
      {"s", " a", start},
      {"s", "\ta", start},
      {"s", "[a]", start},
      {"s", ";a", start},
      {"s", "#a", start},
      {"s", std::string(256, 'k'), "KEY is longer than 255 bytes.\n"},
  };
  for (const auto &c : cases) ExpectRefusal({"set", "a.ini", c.section, c.key, "v"}, 2, c.errors);
  EXPECT_FALSE(std::filesystem::exists("a.ini"));
  // What is odd, but is read back.
  for (const auto &[section, key] : std::vector<std::pair<std::string, std::string>>{
           {"", "k"},
           {" [s", "k;#[] "},
           {std::string(255, 's'), std::string(255, 'k')},
           {"get", "paths"},
           {"ini", "rolemap"},
       }) {
    ExpectAnswer({"set", "a.ini", section, key, std::string(8192, 'v')}, "");
    ExpectAnswer({"get", "a.ini", section, key}, std::string(8192, 'v') + '\n');
  }
  ExpectAnswer({"set", "a.ini", "--", "-s", "-k", "--json"}, "");
  ExpectAnswer({"get", "a.ini", "--", "-s", "-k"}, "--json\n");
}

TEST_F(ZebctlIni, SetKeepsTheRestOfTheFile) {
  Write("; top\n[a]\n  k = 1\r\nk=2\n\n[b]\nword\n");
  ExpectAnswer({"set", "a.ini", "a", "k", "3"}, "");
  ExpectAnswer({"set", "a.ini", "a", "n", "4"}, "");
  ExpectAnswer({"set", "a.ini", "b", "word", "5"}, "");
  ExpectAnswer({"set", "a.ini", "c", "k", "6"}, "");
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "; top\n[a]\n  k = 1\r\nk=3\n\nn=4\n[b]\nword=5\n[c]\nk=6\n");
  struct stat information {};
  ASSERT_EQ(stat("a.ini", &information), 0);
  EXPECT_EQ(information.st_mode & 07777U, 01664U);
  EXPECT_FALSE(std::filesystem::exists("kcsini64.tmp"));
}

TEST_F(ZebctlIni, NothingIsAddedToALineThatIsNotEnded) {
  const std::string refusal =
      "a.ini: The last line of the file has no line feed\nWhat is added might join it. End that line first.\n";
  Write("[a]\nk=1");
  ExpectRefusal({"set", "a.ini", "a", "n", "2"}, 1, refusal);
  ExpectRefusal({"set", "a.ini", "b", "n", "2"}, 1, refusal);
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "[a]\nk=1");
  ExpectAnswer({"set", "a.ini", "a", "k", "2"}, "");
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "[a]\nk=2\n");
  Write("");
  ExpectAnswer({"set", "a.ini", "a", "k", "1"}, "");
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "[a]\nk=1\n");
}

TEST_F(ZebctlIni, UnsetRemovesTheKeyAndSaysWhenThereIsNone) {
  Write("[a]\nk=1\nn=2\nk\nk=3\n[b]\nk=4\n");
  ExpectAnswer({"unset", "a.ini", "a", "k"}, "");
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "[a]\nn=2\n[b]\nk=4\n");
  ExpectRefusal({"unset", "a.ini", "a", "k"}, 1,
                "a.ini: SM_STATUS_KEY_NOT_FOUND (263)\nThe section has no such key.\n");
  // In the last section the store itself would add a line, and in a file without the section as well.
  ExpectRefusal({"unset", "a.ini", "b", "n"}, 1,
                "a.ini: SM_STATUS_KEY_NOT_FOUND (263)\nThe section has no such key.\n");
  ExpectRefusal({"unset", "a.ini", "c", "n"}, 1,
                "a.ini: SM_STATUS_SECTION_NOT_FOUND (262)\nThe file has no such section.\n");
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "[a]\nn=2\n[b]\nk=4\n");
  ExpectAnswer({"unset", "a.ini", "b", "k"}, "");
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "[a]\nn=2\n[b]\n");
  ExpectRefusal({"unset", "none.ini", "b", "k"}, 1,
                "none.ini: SM_STATUS_NOT_FOUND (7)\n"
                "The file is missing, or this account may not read it or write in its directory.\n");
  EXPECT_FALSE(std::filesystem::exists("none.ini"));
}

TEST_F(ZebctlIni, ListsHaveEveryName) {
  Write("[a b]\n[]\n [ c\x1B ] x\nk=1\n;n=2\nword\n=3\nk=4\nt =5\n[a b]\n");
  ExpectAnswer({"sections", "a.ini"}, Text({"a b", "", "\\u0020c\\u001b\\u0020", "a b"}));
  ExpectAnswer({"sections", "a.ini", "--json"},
               "{\n"
               "  \"file\": \"a.ini\",\n"
               "  \"sections\": [\n"
               "    \"a b\",\n"
               "    \"\",\n"
               "    \" c\\u001b \",\n"
               "    \"a b\"\n"
               "  ]\n"
               "}\n");
  ExpectAnswer({"keys", "a.ini", " c\x1B "}, Text({"k", "", "k", "t\\u0020"}));
  ExpectAnswer({"keys", "a.ini", " c\x1B ", "--json"},
               "{\n"
               "  \"file\": \"a.ini\",\n"
               "  \"section\": \" c\\u001b \",\n"
               "  \"keys\": [\n"
               "    \"k\",\n"
               "    \"\",\n"
               "    \"k\",\n"
               "    \"t \"\n"
               "  ]\n"
               "}\n");
}

TEST_F(ZebctlIni, ListsMayBeOfAnyLength) {
  // Around the first size of the buffer, 1024 bytes, and well beyond.
  for (const size_t length : {1022U, 1023U, 1024U, 1025U}) {
    Write('[' + std::string(length, 's') + "]\n");
    ExpectAnswer({"sections", "a.ini"}, std::string(length, 's') + '\n');
  }
  std::string text;
  Line sections;
  for (int i = 0; i < 20000; ++i) {
    sections.push_back("section" + std::to_string(i));
    text += '[' + sections.back() + "]\n";
  }
  Write(text);
  ExpectAnswer({"sections", "a.ini"}, Text(sections));
}

TEST_F(ZebctlIni, FileIsAPathOrInTheWorkingDirectoryOrTheProducts) {
  ExpectAnswer({"set", "test.ini", "s", "where", "here"}, "");
  ExpectAnswer({"set", "./sub/test.ini", "s", "where", "below"}, "");
  ExpectAnswer({"set", m_directory.Path("abs.ini"), "s", "where", "absolute"}, "");
  ExpectAnswer({"set", "test.ini", "s", "where", "product", "--product"}, "");
  EXPECT_EQ(sandbox::ReadFile("test.ini"), "[s]\nwhere=here\n");
  EXPECT_EQ(sandbox::ReadFile("sub/test.ini"), "[s]\nwhere=below\n");
  EXPECT_EQ(sandbox::ReadFile("abs.ini"), "[s]\nwhere=absolute\n");
  EXPECT_EQ(sandbox::ReadFile(kProductFile), "[s]\nwhere=product\n");
  ExpectAnswer({"get", "--product", "test.ini", "s", "where"}, "product\n");
  EXPECT_EQ(json::parse(Zebctl({"get", "--product", "test.ini", "s", "where", "--json"}).output)["file"], kProductFile);
  ExpectAnswer({"sections", "--product", "test.ini"}, "s\n");
  ExpectAnswer({"keys", "--product", "test.ini", "s"}, "where\n");
  ExpectAnswer({"unset", "--product", "test.ini", "s", "where"}, "");
  EXPECT_EQ(sandbox::ReadFile(kProductFile), "[s]\n");
  ASSERT_TRUE(sandbox::WriteFile(kProductFile, "[s]"));
  ExpectRefusal({"set", "--product", "test.ini", "s", "k", "v"}, 1,
                std::string(kProductFile) +
                    ": The last line of the file has no line feed\n"
                    "What is added might join it. End that line first.\n");
}

TEST_F(ZebctlIni, FileThatTheLibraryWouldMistakeIsRefused) {
  const std::string longestName(212, 'f');  // 43 characters stand before it
  ExpectAnswer({"set", "--product", longestName, "s", "k", "v"}, "");
  ExpectAnswer({"get", "--product", longestName, "s", "k"}, "v\n");
  for (Line line :
       std::vector<Line>{{"get", "s", "k"}, {"set", "s", "k", "v"}, {"unset", "s", "k"}, {"sections"}, {"keys", "s"}}) {
    const auto on = [&line](const std::string &file) {
      Line whole = line;
      whole.insert(whole.begin() + 1, file);
      return whole;
    };
    ExpectRefusal(on(""), 2, "FILE is empty. Name a file.\n");
    line.emplace_back("--product");
    ExpectRefusal(on(longestName + 'f'), 2, "FILE is longer than 212 bytes.\n");
    ExpectRefusal(on("../x.ini"), 2, "FILE has a \"/\". With --product, name a file of the product's INI directory.\n");
  }
  const std::string directory = m_directory.Path(std::string(240, 'd'));
  ASSERT_TRUE(sandbox::MakeDirectories(directory));
  ASSERT_TRUE(sandbox::WriteFile(directory + "/a.ini", "[s]\nk=v\n"));
  ExpectAnswer({"get", directory + "/a.ini", "s", "k"}, "v\n");
  ExpectRefusal({"unset", directory + "/a.ini", "s", "k"}, 1,
                directory +
                    "/a.ini: SM_STATUS_BAD_PARAMETER (2)\n"
                    "The path, the section or the key is longer than the library takes.\n");
}

TEST_F(ZebctlIni, LibraryThatIsNotAttachedIsNamed) {
  Write("[s]\nk=v\n");
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockDirectory));
  const std::string errors =
      "a.ini: SM_STATUS_LOCK_TIMEOUT (11)\n"
      "The library is not attached, as its lock file /opt/vorn/fleetops/var/lib/kelvestane/.zebipc cannot be opened. "
      "The directory must be there, and this account must be allowed to open the file.\n";
  for (const Line &line : std::vector<Line>{{"get", "a.ini", "s", "k"},
                                            {"get", "a.ini", "s", "k", "--no-wait", "--default", "x"},
                                            {"set", "a.ini", "s", "k", "w"},
                                            {"unset", "a.ini", "s", "k"},
                                            {"sections", "a.ini"},
                                            {"keys", "a.ini", "s"}}) {
    ExpectRefusal(line, 1, errors);
  }
  const ProgramResult asJSON = Zebctl({"get", "a.ini", "s", "k", "--json"});
  EXPECT_EQ(asJSON.status, 1);
  EXPECT_EQ(json::parse(asJSON.output), (json{{"status", 11}, {"name", "SM_STATUS_LOCK_TIMEOUT"}}));
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "[s]\nk=v\n");
}

// Whoever holds the lock while the program is loaded makes it wait for that long. For a lock that is taken between
// loading and reading, the third operation on the lock file is made to fail as it then would.
TEST_F(ZebctlIni, NoWaitTriesTheLockOnce) {
  Write("[s]\nk=v\n");
  for (const Line &line : std::vector<Line>{{"get", "a.ini", "s", "k"},
                                            {"set", "a.ini", "s", "k", "w"},
                                            {"unset", "a.ini", "s", "k"},
                                            {"sections", "a.ini"},
                                            {"keys", "a.ini", "s"}}) {
    Line traced{ZEBCS_STRACE,
                "-qq",
                "-o",
                "/dev/null",
                "-P",
                sandbox::kLockFile,
                "-E",
                "ASAN_OPTIONS=detect_leaks=0",  // a leak check traces its own process, which a traced one cannot do
                "-e",
                "inject=fcntl:error=EAGAIN:when=11",  // attaching makes ten of these calls
                ZEBCTL_PATH,
                "ini"};
    traced.insert(traced.end(), line.begin(), line.end());
    traced.emplace_back("--no-wait");
    const ProgramResult result = RunProgram(traced);
    EXPECT_EQ(result.status, 1) << line[0];
    EXPECT_EQ(result.output, "") << line[0];
    EXPECT_EQ(result.errors,
              "zebctl: a.ini: SM_STATUS_LOCK_TIMEOUT (11)\n"
              "Another process holds the library's file lock. Try again, or without --no-wait.\n")
        << line[0];
  }
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "[s]\nk=v\n");
  ExpectAnswer({"get", "a.ini", "s", "k", "--no-wait"}, "v\n");
}

TEST_F(ZebctlIni, TextGoesByteForByteInAnyLocale) {
  ASSERT_EQ(setenv("LC_ALL", "C", 1), 0);
  ExpectAnswer({"set", "a.ini", "s\xC3\xBC", "k\xFC", "v\xC3\xBC\xFF"}, "");
  EXPECT_EQ(sandbox::ReadFile("a.ini"), "[s\xC3\xBC]\nk\xFC=v\xC3\xBC\xFF\n");
  ExpectAnswer({"get", "a.ini", "s\xC3\xBC", "k\xFC"}, "v\\u00fc\\udcff\n");
  ExpectAnswer({"sections", "a.ini"}, "s\\u00fc\n");
  ExpectAnswer({"set", "a.ini", "s\xC3\xBC", "u", "\xC3\xBC", "--type", "ustring"}, "");
  ExpectAnswer({"get", "a.ini", "s\xC3\xBC", "u", "--type", "ustring"}, "\\u00fc\n");
}

TEST_F(ZebctlIni, MistakesOnTheCommandLineAreNamed) {
  const auto seeHelp = [](const std::string &command) {
    return "\nRun \"zebctl ini" + command + " --help\" to see what is.\n";
  };
  ExpectRefusal({}, 2, "A subcommand is required." + seeHelp(""));
  ExpectRefusal({"bogus"}, 2, "\"bogus\" is not understood here." + seeHelp(""));
  ExpectRefusal({"get"}, 2, "FILE is required." + seeHelp(" get"));
  ExpectRefusal({"get", "f"}, 2, "SECTION is required." + seeHelp(" get"));
  ExpectRefusal({"get", "f", "s"}, 2, "KEY is required." + seeHelp(" get"));
  ExpectRefusal({"get", "f", "s", "k", "paths"}, 2, "\"paths\" is not understood here." + seeHelp(" get"));
  ExpectRefusal({"set", "f", "s", "k"}, 2, "VALUE is required." + seeHelp(" set"));
  ExpectRefusal({"set", "f", "s", "k", "v", "--json"}, 2, "\"--json\" is not understood here." + seeHelp(" set"));
  ExpectRefusal({"unset", "f", "s", "k", "v"}, 2, "\"v\" is not understood here." + seeHelp(" unset"));
  ExpectRefusal({"keys", "f"}, 2, "SECTION is required." + seeHelp(" keys"));
  ExpectRefusal({"sections"}, 2, "FILE is required." + seeHelp(" sections"));
  ExpectRefusal({"set", "f", "s", "k", "v", "--type", "text"}, 2,
                "--type: text not in {astring,ustring,binary,booln,u32,s32,u64,s64,d64}." + seeHelp(" set"));
  EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(ZebctlIni, HelpTellsTheExitStatuses) {
  for (const std::string command : {"", "get", "set", "unset", "sections", "keys"}) {
    const ProgramResult result = Zebctl(command.empty() ? Line{"--help"} : Line{command, "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_NE(result.output.find("Usage: zebctl ini"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("Exit status: 0"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("\n             3  the output"), std::string::npos) << result.output;
  }
}

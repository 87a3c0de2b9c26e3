// zebctl conf as its users run it: whole outputs, exit statuses and files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "command_test.h"
#include "program.h"
#include "sandbox.h"

namespace {

using nlohmann::json;

constexpr char kProductFile[] = "/opt/vorn/fleetops/etc/kelvestane//zeb/ini/test.properties";
const std::string kNoFile = "status -1\nThe file cannot be read: No such file or directory.\n";
const std::string kNoKey = "SM_STATUS_KEY_NOT_FOUND (263)\nThe file has no such key.\n";
const std::string kFewer = "SM_STATUS_KEY_NOT_FOUND (263)\nThe key has fewer instances.\n";
const std::string kFarFewer = "SM_STATUS_INVALID_INPUT (271)\nThe key has fewer instances. They are counted from 0.\n";

class ZebctlConf : public CommandTest<ZebctlConf> {
 public:
  static constexpr char kCommand[] = "conf";

 protected:
  static void Write(const std::string &text) { ASSERT_TRUE(sandbox::WriteFile("a", text)); }
};

}  // namespace

TEST_F(ZebctlConf, GetPrintsTheInstanceThatIsAskedFor) {
  Write("# k=0\n my key = \"two  words\" \nk=1\nword\nk = 2 = 3\nK=4\nk=\n=5\n");
  ExpectAnswer({"get", "a", "k"}, "1\n");
  ExpectAnswer({"get", "a", "k", "--instance", "0"}, "1\n");
  ExpectAnswer({"get", "a", "k", "--instance", "1"}, "2 = 3\n");
  ExpectAnswer({"get", "a", "k", "--instance", "2"}, "\n");
  ExpectAnswer({"get", "a", "k", "--all"}, "1\n2 = 3\n\n");
  ExpectAnswer({"get", "a", "mykey"}, "two  words\n");
  ExpectAnswer({"get", "a", ""}, "5\n");
  ExpectRefusal({"get", "a", "k", "--instance", "3"}, 1, "a: " + kFewer);
  ExpectRefusal({"get", "a", "word"}, 1, "a: " + kNoKey);
  ExpectRefusal({"get", "a", "word", "--all"}, 1, "a: " + kNoKey);
}

TEST_F(ZebctlConf, GetPrintsJSON) {
  Write("k\"\"=1\nk=2\xFF\x1B\n");
  ExpectAnswer({"get", "a", "k", "--instance", "1", "--json"},
               "{\n"
               "  \"file\": \"a\",\n"
               "  \"key\": \"k\",\n"
               "  \"instance\": 1,\n"
               "  \"value\": \"2\xEF\xBF\xBD\\u001b\"\n"
               "}\n");
  ExpectAnswer({"get", "a", "k", "--json", "--all"},
               "{\n"
               "  \"file\": \"a\",\n"
               "  \"key\": \"k\",\n"
               "  \"values\": [\n"
               "    \"1\",\n"
               "    \"2\xEF\xBF\xBD\\u001b\"\n"
               "  ]\n"
               "}\n");
  const ProgramResult failure = Zebctl({"get", "a", "x", "--json"});
  EXPECT_EQ(failure.status, 1);
  EXPECT_EQ(failure.errors, "");
  EXPECT_EQ(failure.output,
            "{\n"
            "  \"status\": 263,\n"
            "  \"name\": \"SM_STATUS_KEY_NOT_FOUND\",\n"
            "  \"message\": \"The file has no such key.\"\n"
            "}\n");
}

TEST_F(ZebctlConf, ListPrintsEveryPair) {
  Write("k=1\n; x=y\nlonger.key = C:\\x\x1B\nk=2\n= \n");
  ExpectAnswer({"list", "a"},
               "KEY         INSTANCE  VALUE\n"
               "k           0         1\n"
               "longer.key  0         C:\\\\x\\u001b\n"
               "k           1         2\n"
               "            0         \n");
  Write("k=1\nk=2\n");
  ExpectAnswer({"list", "a", "--json"},
               "{\n"
               "  \"file\": \"a\",\n"
               "  \"pairs\": [\n"
               "    {\n"
               "      \"key\": \"k\",\n"
               "      \"instance\": 0,\n"
               "      \"value\": \"1\"\n"
               "    },\n"
               "    {\n"
               "      \"key\": \"k\",\n"
               "      \"instance\": 1,\n"
               "      \"value\": \"2\"\n"
               "    }\n"
               "  ]\n"
               "}\n");
  for (const std::string text : {"", "word\n# k=1\n"}) {
    Write(text);
    ExpectAnswer({"list", "a"}, "KEY  INSTANCE  VALUE\n");
    EXPECT_EQ(json::parse(Zebctl({"list", "a", "--json"}).output), (json{{"file", "a"}, {"pairs", json::array()}}));
    ExpectRefusal({"get", "a", "k"}, 1, "a: " + kNoKey);
  }
}

TEST_F(ZebctlConf, ValuesAreReadBackAsTheyWere) {
  const struct {
    std::string value;
    std::string written;
    std::string shown;
  } cases[] = {
      {"", "", ""},
      {"Fleet  Operations", "Fleet  Operations", "Fleet  Operations"},
      {" x", "\" x\"", "\\u0020x"},
      {"x\t", "\"x\t\"", "x\\u0009"},
      {" ", "\" \"", "\\u0020"},
      {" \t\r", "\" \t\r\"", "\\u0020\\u0009\\u000d"},
      {"x\ry\r", "\"x\ry\r\"", "x\\u000dy\\u000d"},
      {"a=b", "a=b", "a=b"},
      {"=", "=", "="},
      {"#x;", "#x;", "#x;"},
      {"'", "'", "'"},
      {"{}", "{}", "{}"},
      {"[a,b]", "[a,b]", "[a,b]"},
      {"%%", "%%", "%%"},
      {"get", "get", "get"},
      {"\v", "\v", "\\u000b"},
      {"Z\xC3\xBCrich \xFF", "Z\xC3\xBCrich \xFF", "Z\xC3\xBCrich \\udcff"},
      {std::string(8447, 'v'), std::string(8447, 'v'), std::string(8447, 'v')},
      {' ' + std::string(8444, 'v'), "\" " + std::string(8444, 'v') + '"', "\\u0020" + std::string(8444, 'v')},
  };
  for (const auto &c : cases) {
    Write("");
    ExpectAnswer({"set", "a", "k", c.value}, "");
    EXPECT_EQ(sandbox::ReadFile("a"), "k=" + c.written + '\n');
    ExpectAnswer({"get", "a", "k"}, c.shown + '\n');
  }
  for (const std::string key : {"get", "conf", "k#;[]", "'k'", "\xC3\xBC\xFF", "k\v", "[k]"}) {
    Write("");
    ExpectAnswer({"set", "a", key, "v"}, "");
    EXPECT_EQ(sandbox::ReadFile("a"), key + "=v\n");
    ExpectAnswer({"get", "a", key}, "v\n");
  }
  Write("");
  ExpectAnswer({"set", "a", "--", "-k", "--json"}, "");
  ExpectAnswer({"get", "a", "--", "-k"}, "--json\n");
  ExpectAnswer({"unset", "a", "--", "-k"}, "");
  EXPECT_EQ(sandbox::ReadFile("a"), "");
}

TEST_F(ZebctlConf, WhatWouldNotBeReadBackIsRefused) {
  const std::string blank = "KEY has a blank, which would not be read as part of it.\n";
  const std::string comment = "KEY begins with \"#\" or \";\", so that its line would be a comment.\n";
  const std::string length = "KEY and VALUE are longer than 8448 bytes together.\n";
  const struct {
    std::string key;
    std::string value;
    std::string errors;
  } cases[] = {
      {"", "v", "KEY is empty. Name a key.\n"},
      {"my key", "v", blank},
      {" k", "v", blank},
      {"k\t", "v", blank},
      {"k\r", "v", blank},
      {"k\nl", "v", blank},
      {"a=b", "v", "KEY has a \"=\", which would end its name.\n"},
      {"\"k\"", "v", "KEY has a double quote, which would not be read back.\n"},
      {"#k", "v", comment},
      {";k", "v", comment},
      {"k", "a\nb", "VALUE has a line feed, which would end its line.\n"},
      {"k", "\"v\"", "VALUE has a double quote, which would not be read back.\n"},
      {"k", std::string(8448, 'v'), length},
      {"k", ' ' + std::string(8445, 'v'), length},
      {std::string(8448, 'k'), "v", length},
  };
  Write("k=old\n");
  for (const auto &c : cases) ExpectRefusal({"set", "a", c.key, c.value}, 2, c.errors);
  EXPECT_EQ(sandbox::ReadFile("a"), "k=old\n");
}

TEST_F(ZebctlConf, SetKeepsTheRestOfTheFile) {
  Write("# top\n my key = \"1\" \r\nword\n\nk=2\nk=3\n");
  ExpectAnswer({"set", "a", "mykey", "4"}, "");
  ExpectAnswer({"set", "a", "k", "5", "--instance", "1"}, "");
  ExpectAnswer({"set", "a", "k", "6", "--instance", "2"}, "");
  ExpectAnswer({"set", "a", "n", "7"}, "");
  const std::string text = "# top\nmykey=4\nword\n\nk=2\nk=5\nk=6\nn=7\n";
  EXPECT_EQ(sandbox::ReadFile("a"), text);
  ExpectRefusal({"set", "a", "k", "8", "--instance", "4"}, 1, "a: " + kFarFewer);
  EXPECT_EQ(sandbox::ReadFile("a"), text);
  struct stat information {};
  ASSERT_EQ(stat("a", &information), 0);
  EXPECT_EQ(information.st_mode & 07777U, 01664U);
  EXPECT_FALSE(std::filesystem::exists("kcscfg64.tmp"));
}

TEST_F(ZebctlConf, NothingIsAddedToALineThatIsNotEnded) {
  const std::string refusal =
      "a: The last line of the file has no line feed\nWhat is added would join it. End that line first.\n";
  for (const std::string text : {"k=1", "k=1\n# x"}) {
    Write(text);
    ExpectRefusal({"set", "a", "n", "2"}, 1, refusal);
    ExpectRefusal({"set", "a", "k", "2", "--instance", "1"}, 1, refusal);
    EXPECT_EQ(sandbox::ReadFile("a"), text);
  }
  ExpectAnswer({"set", "a", "k", "2"}, "");
  EXPECT_EQ(sandbox::ReadFile("a"), "k=2\n# x");
  Write("word");
  ExpectRefusal({"set", "a", "n", "2"}, 1, refusal);
}

TEST_F(ZebctlConf, UnsetRemovesOneInstance) {
  Write("k=0\n my key = 1\nk=2\n# k=3\nk=4\nother key=\n");
  ExpectAnswer({"unset", "a", "k", "--instance", "1"}, "");
  EXPECT_EQ(sandbox::ReadFile("a"), "k=0\n my key = 1\n# k=3\nk=4\nother key=\n");
  ExpectAnswer({"unset", "a", "k"}, "");
  ExpectAnswer({"unset", "a", "mykey"}, "");
  ExpectAnswer({"unset", "a", "other key"}, "");
  EXPECT_EQ(sandbox::ReadFile("a"), "# k=3\nk=4\n");
  ExpectRefusal({"unset", "a", "k", "--instance", "1"}, 1, "a: " + kFewer);
  ExpectRefusal({"unset", "a", "k", "--instance", "2"}, 1, "a: " + kFarFewer);
  ExpectRefusal({"unset", "a", "mykey"}, 1, "a: " + kNoKey);
  EXPECT_EQ(sandbox::ReadFile("a"), "# k=3\nk=4\n");
  EXPECT_FALSE(std::filesystem::exists("kcscfg64.tmp"));
}

TEST_F(ZebctlConf, FileThatIsMissingIsNotMade) {
  const std::string refusal =
      "a: SM_STATUS_PATH_UNAVAILABLE (260)\n"
      "The file cannot be read: No such file or directory. The library changes files that are there and makes none: "
      "make an empty one first, for example with touch.\n";
  ExpectRefusal({"set", "a", "k", "v"}, 1, refusal);
  ExpectRefusal({"unset", "a", "k"}, 1, refusal);
  ExpectRefusal({"get", "a", "k"}, 1, "a: " + kNoFile);
  ExpectRefusal({"list", "a"}, 1, "a: " + kNoFile);
  const ProgramResult asJSON = Zebctl({"list", "a", "--json"});
  EXPECT_EQ(asJSON.status, 1);
  EXPECT_EQ(asJSON.errors, "");
  EXPECT_EQ(
      json::parse(asJSON.output),
      (json{{"status", -1}, {"name", nullptr}, {"message", "The file cannot be read: No such file or directory."}}));
  ExpectRefusal({"set", "no/such/a", "k", "v"}, 1,
                "no/such/a: status -1\nThe file's directory is missing and could not be made.\n");
  EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(ZebctlConf, FileThatCannotBeUsedIsNamed) {
  ASSERT_TRUE(sandbox::MakeDirectories(m_directory.Path("sub")));
  ExpectRefusal({"list", "sub"}, 1, "sub: status -1\nThe file cannot be read: Is a directory.\n");
  ASSERT_EQ(mkfifo("pipe", 0600), 0);  // nobody is waited for
  ExpectRefusal({"get", "pipe", "k"}, 1, "pipe: " + kNoKey);
  Write("k=1\n");
  ASSERT_TRUE(sandbox::MakeDirectories(m_directory.Path("kcscfg64.tmp")));
  ExpectRefusal({"set", "a", "k", "v"}, 1,
                "a: SM_STATUS_PATH_UNAVAILABLE (260)\n"
                "The temporary file kcscfg64.tmp cannot be written in the file's directory.\n");
  EXPECT_EQ(sandbox::ReadFile("a"), "k=1\n");
}

TEST_F(ZebctlConf, TemporaryFileIsNotEdited) {
  const std::string refusal = "FILE has the name of the temporary file that the library edits with.\n";
  for (const std::string &file : {std::string("kcscfg64.tmp"), m_directory.Path("kcscfg64.tmp")}) {
    ASSERT_TRUE(sandbox::WriteFile(file, "k=1\n"));
    ExpectRefusal({"set", file, "k", "v"}, 2, refusal);
    ExpectRefusal({"unset", file, "k"}, 2, refusal);
    ExpectAnswer({"get", file, "k"}, "1\n");
  }
}

TEST_F(ZebctlConf, FileIsAPathOrInTheWorkingDirectoryOrTheProducts) {
  const std::string name = "zeb/ini/test.properties";
  const std::string absolute = m_directory.Path("abs");
  ASSERT_TRUE(sandbox::MakeDirectories(m_directory.Path("zeb/ini")));
  for (const std::string &path : {name, absolute, std::string(kProductFile)}) {
    ASSERT_TRUE(sandbox::WriteFile(path, ""));
  }
  ExpectAnswer({"set", name, "where", "here"}, "");
  ExpectAnswer({"set", absolute, "where", "absolute"}, "");
  ExpectAnswer({"set", name, "where", "product", "--product"}, "");
  EXPECT_EQ(sandbox::ReadFile(name), "where=here\n");
  EXPECT_EQ(sandbox::ReadFile(absolute), "where=absolute\n");
  EXPECT_EQ(sandbox::ReadFile(kProductFile), "where=product\n");
  ExpectAnswer({"get", "--product", name, "where"}, "product\n");
  EXPECT_EQ(json::parse(Zebctl({"get", "--product", name, "where", "--json"}).output)["file"], kProductFile);
  ExpectAnswer({"list", "--product", name}, "KEY    INSTANCE  VALUE\nwhere  0         product\n");
  ExpectAnswer({"unset", "--product", name, "where"}, "");
  EXPECT_EQ(sandbox::ReadFile(kProductFile), "");
  ExpectRefusal({"list", "--product", "none"}, 1, "/opt/vorn/fleetops/etc/kelvestane//none: " + kNoFile);
  ASSERT_TRUE(sandbox::WriteFile(kProductFile, "k=1"));
  ExpectRefusal({"set", "--product", name, "n", "v"}, 1,
                std::string(kProductFile) +
                    ": The last line of the file has no line feed\n"
                    "What is added would join it. End that line first.\n");
}

TEST_F(ZebctlConf, FileThatTheLibraryWouldMistakeIsRefused) {
  const std::string directory = m_directory.Path(std::string(180, 'd'));
  const std::string longest = directory + '/' + std::string(255 - directory.size(), 'f');  // 256 bytes
  const std::string longestName(220, 'f');  // 35 characters stand before it
  ASSERT_TRUE(sandbox::MakeDirectories(directory));
  ASSERT_TRUE(sandbox::WriteFile(longest, "k=1\n"));
  ASSERT_TRUE(sandbox::WriteFile("/opt/vorn/fleetops/etc/kelvestane/" + longestName, "k=1\n"));
  ExpectAnswer({"set", longest, "k", "2"}, "");
  ExpectAnswer({"get", longest, "k"}, "2\n");
  ExpectAnswer({"set", "--product", longestName, "k", "2"}, "");
  ExpectAnswer({"get", "--product", longestName, "k"}, "2\n");
  for (Line line : std::vector<Line>{{"get", "k"}, {"set", "k", "v"}, {"unset", "k"}, {"list"}}) {
    const auto on = [&line](const std::string &file) {
      Line whole = line;
      whole.insert(whole.begin() + 1, file);
      return whole;
    };
    ExpectRefusal(on(""), 2, "FILE is empty. Name a file.\n");
    ExpectRefusal(on(longest + 'f'), 2, "FILE is longer than 256 bytes.\n");
    line.emplace_back("--product");
    ExpectRefusal(on(longestName + 'f'), 2, "FILE is longer than 220 bytes.\n");
    ExpectRefusal(on("/a"), 2,
                  "FILE begins with a \"/\". With --product, name a file below the product's INI directory.\n");
  }
}

TEST_F(ZebctlConf, LibraryThatIsNotAttachedIsNamed) {
  Write("k=v\n");
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockDirectory));
  const std::string errors =
      "a: SM_STATUS_LOCK_TIMEOUT (11)\n"
      "The library is not attached, as its lock file /opt/vorn/fleetops/var/lib/kelvestane/.zebipc cannot be opened. "
      "The directory must be there, and this account must be allowed to open the file.\n";
  for (const Line &line :
       std::vector<Line>{{"get", "a", "k"}, {"set", "a", "k", "w"}, {"unset", "a", "k"}, {"list", "a"}}) {
    ExpectRefusal(line, 1, errors);
  }
  EXPECT_EQ(sandbox::ReadFile("a"), "k=v\n");
}

TEST_F(ZebctlConf, MistakesOnTheCommandLineAreNamed) {
  const auto seeHelp = [](const std::string &command) {
    return "\nRun \"zebctl conf" + command + " --help\" to see what is.\n";
  };
  ExpectRefusal({}, 2, "A subcommand is required." + seeHelp(""));
  ExpectRefusal({"bogus"}, 2, "\"bogus\" is not understood here." + seeHelp(""));
  ExpectRefusal({"get"}, 2, "FILE is required." + seeHelp(" get"));
  ExpectRefusal({"get", "a"}, 2, "KEY is required." + seeHelp(" get"));
  ExpectRefusal({"get", "a", "k", "paths"}, 2, "\"paths\" is not understood here." + seeHelp(" get"));
  ExpectRefusal({"get", "a", "k", "--all", "--instance", "1"}, 2, "--instance excludes --all." + seeHelp(" get"));
  ExpectRefusal({"set", "a", "k"}, 2, "VALUE is required." + seeHelp(" set"));
  ExpectRefusal({"set", "a", "k", "v", "--json"}, 2, "\"--json\" is not understood here." + seeHelp(" set"));
  ExpectRefusal({"unset", "a", "k", "v"}, 2, "\"v\" is not understood here." + seeHelp(" unset"));
  ExpectRefusal({"list", "a", "k"}, 2, "\"k\" is not understood here." + seeHelp(" list"));
  for (const std::string number : {"x", "1x", "+1", "-1", "4294967296"}) {
    for (const Line &line : std::vector<Line>{{"get", "a", "k"}, {"set", "a", "k", "v"}, {"unset", "a", "k"}}) {
      Line whole = line;
      whole.push_back("--instance=" + number);
      ExpectRefusal(whole, 2, "--instance is not a whole number from 0 to 4294967295.\n");
    }
  }
  EXPECT_TRUE(std::filesystem::is_empty("."));
}

TEST_F(ZebctlConf, HelpTellsTheExitStatuses) {
  for (const std::string command : {"", "get", "set", "unset", "list"}) {
    const ProgramResult result = Zebctl(command.empty() ? Line{"--help"} : Line{command, "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_NE(result.output.find("Usage: zebctl conf"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("Exit status: 0"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("\n             3  the output"), std::string::npos) << result.output;
  }
}

// zebctl log as its users run it: whole outputs, exit statuses and files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command_test.h"
#include "program.h"
#include "sandbox.h"

namespace {

using nlohmann::json;

constexpr char kCommandLog[] = "/opt/vorn/fleetops/var/log/kelvestane//qxcmdlog.xml";
constexpr char kBackup[] = "/opt/vorn/fleetops/var/log/kelvestane//qxcmdlog.xm_";
constexpr char kProperties[] = "/opt/vorn/fleetops/etc/kelvestane//zeb/ini/zeb.properties";
const std::string kHead = R"(<?xml-stylesheet type="text/xsl" version="1.0" encoding="UTF-8"?><EventLog>)";
const std::string kEnd = "</EventLog>";
const std::string kHeading = "TIME                      TYPE  ID    USER   SOURCE  DESCRIPTION\n";
const std::string kDamaged = "zebctl: a.xml: The log cannot be read as a whole\n";
const std::string kNoEnd = "It does not end with its end tag.\n";
const std::string kNotAttached =
    "The library is not attached, as its lock file /opt/vorn/fleetops/var/lib/kelvestane/.zebipc cannot be opened. The "
    "directory must be there, and this account must be allowed to open the file.\n";

struct Entry {
  std::string id;
  std::string description;
  std::string type = "4";
  std::string user = "alice";
  std::string source = "shell";
  std::string data = {};
  std::string timestamp = "1700000000";
  std::string dateTime = "Tue Nov 14 22:13:20 2023";
};

std::string Text(const Entry &entry) {
  return "<LogEntry><TimeStamp>" + entry.timestamp + "</TimeStamp><DateTime>" + entry.dateTime +
         "</DateTime><ComputerName>sandbox</ComputerName><Type>" + entry.type + "</Type><ID>" + entry.id +
         "</ID><UserInfo>" + entry.user + "</UserInfo><Source>" + entry.source + "</Source><Description>" +
         entry.description + "</Description><Data>" + entry.data + "</Data></LogEntry>";
}

std::string Row(const std::string &id, const std::string &description) {
  return "Tue Nov 14 22:13:20 2023  4     " + id + "  alice  shell   " + description + '\n';
}

class ZebctlLog : public CommandTest<ZebctlLog> {
 public:
  static constexpr char kCommand[] = "log";

 protected:
  // The entries of the command log, as the program has them in its JSON.
  static json Entries() {
    const ProgramResult result = Zebctl({"show", "--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    return json::parse(result.output)["entries"];
  }

  // Expects the command log to have these entries and nothing else, whatever their times.
  static void ExpectCommandLog(std::vector<Entry> expected) {
    const json entries = Entries();
    ASSERT_EQ(entries.size(), expected.size());
    std::string text = kHead;
    for (size_t i = 0; i < expected.size(); ++i) {
      expected[i].timestamp = std::to_string(entries[i]["timestamp"].get<long>());
      expected[i].dateTime = entries[i]["dateTime"].get<std::string>();
      text += Text(expected[i]);
    }
    EXPECT_EQ(sandbox::ReadFile(kCommandLog), text + kEnd);
  }
};

const Entry kStart{.id = "0", .description = "Log was cleared", .user = "Local System", .source = "HALV"};

}  // namespace

TEST_F(ZebctlLog, ShowPrintsATable) {
  const std::string text = kHead + Text({.id = "5001", .description = "Restarted &amp; well"}) +
                           Text({.id = "7", .description = "", .type = "65535", .user = "", .source = ""}) +
                           Text({.id = "4294967295",
                                 .description = "C:\\x \x1B[31m Z\xC3\xBCrich \xFF",
                                 .user = "a&lt;b&gt; &quot;&apos;&amp;lt;",
                                 .source = "\xE2\x80\xAE",
                                 .timestamp = "-1",
                                 .dateTime = "x"}) +
                           kEnd;
  ASSERT_TRUE(sandbox::WriteFile("a.xml", text));
  ExpectAnswer({"show", "--file", "a.xml"},
               "TIME                      TYPE   ID          USER         SOURCE  DESCRIPTION\n"
               "Tue Nov 14 22:13:20 2023  4      5001        alice        shell   Restarted & well\n"
               "Tue Nov 14 22:13:20 2023  65535  7           -            -       -\n"
               "x                         4      4294967295  a<b> \"'&lt;  \\u202e  C:\\\\x \\u001b[31m Z\xC3\xBCrich "
               "\\udcff\n");
  EXPECT_EQ(sandbox::ReadFile("a.xml"), text);
}

TEST_F(ZebctlLog, ShowPrintsJSON) {
  ASSERT_TRUE(sandbox::WriteFile("a.xml", kHead +
                                              Text({.id = "5001",
                                                    .description = "<Parameter name=\"line\" value=\"5\"/>",
                                                    .user = "a&lt;\xFF",
                                                    .data = "0x00000000: 3C                3C  < \r\n"}) +
                                              kEnd));
  ExpectAnswer({"show", "--file", "a.xml", "--json"},
               "{\n"
               "  \"file\": \"a.xml\",\n"
               "  \"ok\": true,\n"
               "  \"entries\": [\n"
               "    {\n"
               "      \"timestamp\": 1700000000,\n"
               "      \"dateTime\": \"Tue Nov 14 22:13:20 2023\",\n"
               "      \"computer\": \"sandbox\",\n"
               "      \"type\": 4,\n"
               "      \"id\": 5001,\n"
               "      \"user\": \"a<\xEF\xBF\xBD\",\n"
               "      \"source\": \"shell\",\n"
               "      \"description\": \"line=5\",\n"
               "      \"descriptionXML\": \"<Parameter name=\\\"line\\\" value=\\\"5\\\"/>\",\n"
               "      \"data\": \"0x00000000: 3C                3C  < \\r\\n\"\n"
               "    }\n"
               "  ],\n"
               "  \"errors\": []\n"
               "}\n");
  ASSERT_TRUE(sandbox::WriteFile("a.xml", kHead));
  Expect({"show", "--file", "a.xml", "--json"}, 1,
         "{\n"
         "  \"file\": \"a.xml\",\n"
         "  \"ok\": false,\n"
         "  \"entries\": [],\n"
         "  \"errors\": [\n"
         "    \"It does not end with its end tag.\"\n"
         "  ]\n"
         "}\n",
         "");
}

TEST_F(ZebctlLog, DescriptionsAreShownAsText) {
  const struct {
    std::string xml;
    std::string text;
  } cases[] = {
      {"", ""},
      {" plain  text ", " plain  text "},
      {"&lt;a&gt; &amp;amp; &quot;&apos;", "<a> &amp; \"'"},
      {"&#65;&#x42;&#xe4;&#10;", "AB\xC3\xA4\n"},
      {"&#0;&#x110000;&#;&#x;&#-1;&#65 &amp &unknown; &", "&#0;&#x110000;&#;&#x;&#-1;&#65 &amp &unknown; &"},
      {"<Parameter name=\"line\" value=\"5\"/>", "line=5"},
      {"<Parameter name='line'\tvalue = '5'/>", "<Parameter name='line'\tvalue = '5'/>"},
      {"<Parameter name=\"a\" value=\"1\"/><Parameter name=\"b\" value=\"\"/>", "a=1 b=\"\""},
      {"<Parameter name=\"a\" value=\"x &lt; y\"></Parameter>", "a=\"x < y\""},
      {"<Parameter name=\"speed\" oldval=\"3\" newval=\"5\"/>", "speed.oldval=3 speed.newval=5"},
      {"<Parameter value=\"5\" name=\"line\" />", "line=5"},
      {"<Parameter name=\"line\"/>", "name=line"},
      {"<Fan index=\"2\" a:b='>'/>", "index=2 a:b=>"},
      {"<Command>restart <b>now</b></Command><Reason>none</Reason>", "restart now none"},
      {"set<Parameter name=\"a\" value=\"1\"/>on bob", "set a=1 on bob"},
      {"<br/>", ""},
      {"1 < 2 <> </> <3 a> <a b> <a b=> <a b=\"> <a b=\"1\"c=\"2\">",
       "1 < 2 <> </> <3 a> <a b> <a b=> <a b=\"> <a b=\"1\"c=\"2\">"},
      {"<!-- x --><![CDATA[y]]><?z?><3><-a>", "<!-- x --><![CDATA[y]]><?z?><3><-a>"},
      {"<Description>in</Description> </LogEntry></EventLog>", "in "},
      {"</Description><Data>", ""},
  };
  std::string text = kHead;
  for (const auto &c : cases) text += Text({.id = "5001", .description = c.xml});
  ASSERT_TRUE(sandbox::WriteFile("a.xml", text + kEnd));
  const ProgramResult result = Zebctl({"show", "--file", "a.xml", "--json"});
  EXPECT_EQ(result.status, 0);
  const json entries = json::parse(result.output)["entries"];
  ASSERT_EQ(entries.size(), std::size(cases));
  for (size_t i = 0; i < entries.size(); ++i) {
    EXPECT_EQ(entries[i]["description"], cases[i].text) << cases[i].xml;
    EXPECT_EQ(entries[i]["descriptionXML"], cases[i].xml);
  }
}

TEST_F(ZebctlLog, DamagedLogsAreShownAsFarAsTheyGo) {
  const std::string one = Text({.id = "5001", .description = "one"});
  const std::string two = Text({.id = "5002", .description = "two"});
  const std::string rows = Row("5001", "one") + Row("5002", "two");
  const std::string cut = two.substr(0, two.size() - 1);
  const auto leftOut = [](size_t size, size_t offset) {
    return "The " + std::to_string(size) + " bytes from offset " + std::to_string(offset) +
           " on are no whole entry and are left out.\n";
  };
  const size_t first = kHead.size();
  const size_t second = first + one.size();
  std::string badNumber = two;
  badNumber.replace(badNumber.find("<Type>4"), 7, "<Type>65536");
  std::string badText = two;
  badText.replace(badText.find("alice"), 5, "a<b>");
  const struct {
    const char *what;
    std::string text;
    std::string rows;
    std::string errors;
  } cases[] = {
      {"no end tag", kHead + one + two, rows, kNoEnd},
      {"half an end tag", kHead + one + "</Event", Row("5001", "one"), leftOut(7, second) + kNoEnd},
      {"a cut entry", kHead + one + cut, Row("5001", "one"), leftOut(cut.size(), second) + kNoEnd},
      {"a cut entry and the end tag", kHead + one + cut + kEnd, Row("5001", "one"), leftOut(cut.size(), second)},
      {"cut entries before a whole one", kHead + cut + cut + one + kEnd, Row("5001", "one"),
       leftOut(2 * cut.size(), first)},
      {"a number that is too large", kHead + one + badNumber + kEnd, Row("5001", "one"),
       leftOut(badNumber.size(), second)},
      {"a tag in a user", kHead + badText + one + kEnd, Row("5001", "one"), leftOut(badText.size(), first)},
      {"text between entries", kHead + one + "junk" + two + kEnd, rows, leftOut(4, second)},
      {"text behind the end tag", kHead + one + two + kEnd + "junk", rows,
       leftOut(kEnd.size() + 4, second + two.size()) + kNoEnd},
      {"an entry behind the end tag", kHead + one + kEnd + two + kEnd, rows, leftOut(kEnd.size(), second)},
      {"no beginning", one + two + kEnd, rows, "It does not begin as an event log does.\n"},
      {"a zero byte", kHead + one + two + std::string(1, '\0') + kEnd, rows, kNoEnd},
      {"no log at all", "k=v\n", "", "It does not begin as an event log does.\n" + kNoEnd},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(sandbox::WriteFile("a.xml", c.text));
    Expect({"show", "--file", "a.xml"}, 1, c.rows.empty() ? "" : kHeading + c.rows, kDamaged + c.errors);
    EXPECT_EQ(sandbox::ReadFile("a.xml"), c.text);
  }
}

TEST_F(ZebctlLog, LogsThatOthersHaveLaidOutAreWhole) {
  const std::string one = Text({.id = "5001", .description = "one"});
  for (const std::string &text : {"\n<EventLog>\n  " + one + "\r\n\t" + one + "\n" + kEnd + "\n",
                                  "<?xml version=\"1.0\"?>" + kHead + one + one + kEnd}) {
    ASSERT_TRUE(sandbox::WriteFile("a.xml", text));
    ExpectAnswer({"show", "--file", "a.xml"}, kHeading + Row("5001", "one") + Row("5001", "one"));
  }
  ASSERT_TRUE(sandbox::WriteFile("a.xml", kHead + kEnd));
  ExpectAnswer({"show", "--file", "a.xml"}, "TIME  TYPE  ID  USER  SOURCE  DESCRIPTION\n");
}

TEST_F(ZebctlLog, FileThatHoldsNoLogIsNamed) {
  ASSERT_TRUE(sandbox::WriteFile("empty", ""));
  ASSERT_EQ(mkfifo("pipe", 0600), 0);
  const struct {
    std::string file;
    std::string error;
  } cases[] = {
      {"none", "No such file or directory."},
      {"none/a.xml", "No such file or directory."},
      {"empty/a.xml", "Not a directory."},
      {"empty", "It is empty."},
      {".", "It is not a file that could hold a log."},
      {"pipe", "It is not a file that could hold a log."},
  };
  for (const auto &c : cases) {
    ExpectRefusal({"show", "--file", c.file}, 1, c.file + ": The log cannot be read as a whole\n" + c.error + '\n');
  }
  const ProgramResult asJSON = Zebctl({"show", "--file", "none", "--json"});
  EXPECT_EQ(asJSON.status, 1);
  EXPECT_EQ(asJSON.errors, "");
  EXPECT_EQ(json::parse(asJSON.output), (json{{"file", "none"},
                                              {"ok", false},
                                              {"entries", json::array()},
                                              {"errors", json::array({"No such file or directory."})}}));
}

TEST_F(ZebctlLog, CommandLogIsMadeToBeShown) {
  ASSERT_FALSE(std::filesystem::exists(kCommandLog));
  ExpectCommandLog({kStart});
  const ProgramResult asJSON = Zebctl({"show", "--json"});
  EXPECT_EQ(json::parse(asJSON.output)["file"], kCommandLog);
  const std::string time = Entries()[0]["dateTime"].get<std::string>();
  ExpectAnswer({"show"}, "TIME                      TYPE  ID  USER          SOURCE  DESCRIPTION\n" + time +
                             "  4     0   Local System  HALV    Log was cleared\n");
}

TEST_F(ZebctlLog, AppendWritesEntriesThatAreReadBack) {
  const struct {
    Line arguments;
    Entry entry;
    std::string description;
  } cases[] = {
      {{"5001", "Restarted"},
       {.id = "5001", .description = "Restarted", .user = "root", .source = "zebctl"},
       "Restarted"},
      {{"6999", "a < b & \"c\" 'd' <Parameter name=\"x\" value=\"1\"/>", "--user", "bob & co", "--source", "x>y",
        "--type", "0"},
       {.id = "6999",
        .description =
            "a &lt; b &amp; &quot;c&quot; &apos;d&apos; &lt;Parameter name=&quot;x&quot; value=&quot;1&quot;/&gt;",
        .type = "0",
        .user = "bob &amp; co",
        .source = "x&gt;y"},
       "a < b & \"c\" 'd' <Parameter name=\"x\" value=\"1\"/>"},
      {{"5500", "&lt; \tZ\xC3\xBCrich \xF0\x9F\x98\x80", "--type", "65535", "--user", std::string(1023, 'u')},
       {.id = "5500",
        .description = "&amp;lt; \tZ\xC3\xBCrich \xF0\x9F\x98\x80",
        .type = "65535",
        .user = std::string(1023, 'u'),
        .source = "zebctl"},
       "&lt; \tZ\xC3\xBCrich \xF0\x9F\x98\x80"},
      {{"5500", std::string(16383, 'd')},
       {.id = "5500", .description = std::string(16383, 'd'), .user = "root", .source = "zebctl"},
       std::string(16383, 'd')},
      {{"--", "5500", "-x"}, {.id = "5500", .description = "-x", .user = "root", .source = "zebctl"}, "-x"},
  };
  std::vector<Entry> expected{kStart};
  for (const auto &c : cases) {
    Line line = c.arguments;
    line.insert(line.begin(), "append");
    ExpectAnswer(line, "");
    expected.push_back(c.entry);
  }
  ExpectCommandLog(expected);
  const json entries = Entries();
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(entries[i + 1]["description"], cases[i].description);
}

TEST_F(ZebctlLog, AccountWithoutANameIsItsNumber) {
  ASSERT_TRUE(sandbox::SetAccounts("alice:x:1001:50::/:/bin/sh\n", "staff:x:50:\n"));
  ExpectAnswer({"append", "5001", "x"}, "");
  EXPECT_EQ(Entries()[1]["user"], "0");
}

TEST_F(ZebctlLog, AppendRefusesWhatALogDoesNotHold) {
  const std::string id = "ID is not a whole number from 5001 to 6999.\n";
  const std::string type = "--type is not a whole number from 0 to 65535.\n";
  const std::string character = " has a line feed or another character that a log does not hold.\n";
  const struct {
    Line line;
    std::string errors;
  } cases[] = {
      {{"append", "5000", "x"}, id},
      {{"append", "7000", "x"}, id},
      {{"append", "", "x"}, id},
      {{"append", "5001x", "x"}, id},
      {{"append", " 5001", "x"}, id},
      {{"append", "4294972297", "x"}, id},
      {{"append", "5001", "x", "--type", "65536"}, type},
      {{"append", "5001", "x", "--type", "y"}, type},
      {{"append", "5001", "x", "--type=-1"}, type},
      {{"append", "5001", ""}, "DESCRIPTION is empty.\n"},
      {{"append", "5001", "a\nb"}, "DESCRIPTION" + character},
      {{"append", "5001", "a\rb"}, "DESCRIPTION" + character},
      {{"append", "5001", "a\x1B"}, "DESCRIPTION" + character},
      {{"append", "5001", "\xEF\xBF\xBF"}, "DESCRIPTION" + character},
      {{"append", "5001", "\xFC"}, "DESCRIPTION is not valid UTF-8.\n"},
      {{"append", "5001", std::string(16384, 'd')}, "DESCRIPTION is longer than 16383 bytes, as XML has it.\n"},
      {{"append", "5001", std::string(4096, '<')}, "DESCRIPTION is longer than 16383 bytes, as XML has it.\n"},
      {{"append", "5001", "x", "--user", ""}, "--user is empty.\n"},
      {{"append", "5001", "x", "--user", "a\n"}, "--user" + character},
      {{"append", "5001", "x", "--user", std::string(1024, 'u')}, "--user is longer than 1023 bytes.\n"},
      {{"append", "5001", "x", "--source", ""}, "--source is empty.\n"},
      {{"append", "5001", "x", "--source", std::string(1024, 's')}, "--source is longer than 1023 bytes.\n"},
      {{"clear", "--user", ""}, "--user is empty.\n"},
      {{"clear", "--source", "\x01"}, "--source" + character},
  };
  for (const auto &c : cases) ExpectRefusal(c.line, 2, c.errors);
  EXPECT_FALSE(std::filesystem::exists(kCommandLog));
}

TEST_F(ZebctlLog, AppendMendsALogWithoutEndTag) {
  ASSERT_TRUE(sandbox::WriteFile(kCommandLog, kHead + Text(kStart) + "<LogEntry><TimeStamp>17"));
  EXPECT_EQ(Zebctl({"show"}).status, 1);
  ExpectAnswer({"append", "5001", "x"}, "");
  ExpectCommandLog({kStart, {.id = "5001", .description = "x", .user = "root", .source = "zebctl"}});
}

TEST_F(ZebctlLog, FullLogIsMovedToItsBackup) {
  const auto write = [] {
    std::string text =
        kHead + Text({.id = "5001", .description = "old", .data = std::string(0x100000 - 500, ' ')}) + kEnd;
    ASSERT_LT(text.size(), 0x100000U);
    ASSERT_TRUE(sandbox::WriteFile(kCommandLog, text));
  };
  const auto ids = [] {
    std::string list;
    for (const json &entry : Entries()) list += std::to_string(entry["id"].get<unsigned>()) + ' ';
    return list;
  };
  write();
  ASSERT_EQ(Zebctl({"max", "2097152"}).status, 0);
  ExpectAnswer({"append", "5002", std::string(500, 'x')}, "");
  EXPECT_EQ(ids(), "5001 5002 ");
  EXPECT_FALSE(std::filesystem::exists(kBackup));
  write();
  ASSERT_EQ(Zebctl({"max", "1048576"}).status, 0);
  ExpectAnswer({"append", "5002", std::string(500, 'x')}, "");
  EXPECT_EQ(ids(), "1 5002 ");
  EXPECT_EQ(Entries()[0]["description"], "Log backup created");
  const ProgramResult backup = Zebctl({"show", "--file", kBackup, "--json"});
  EXPECT_EQ(json::parse(backup.output)["entries"].size(), 1U);
}

TEST_F(ZebctlLog, ClearStartsTheLogAnew) {
  ExpectAnswer({"append", "5001", "x"}, "");
  ExpectAnswer({"clear"}, "");
  ExpectCommandLog({{.id = "0", .description = "Log was cleared", .user = "root", .source = "zebctl"}});
  ExpectAnswer({"clear", "--user", "bob<", "--source", "desk"}, "");
  ExpectCommandLog({{.id = "0", .description = "Log was cleared", .user = "bob&lt;", .source = "desk"}});
}

TEST_F(ZebctlLog, SizeIsThatOfTheFile) {
  ASSERT_TRUE(sandbox::WriteFile(kCommandLog, std::string(12345, 'x')));
  ExpectAnswer({"size"}, "12345\n");
  ExpectAnswer({"size", "--json"},
               "{\n"
               "  \"file\": \"/opt/vorn/fleetops/var/log/kelvestane//qxcmdlog.xml\",\n"
               "  \"size\": 12345\n"
               "}\n");
}

TEST_F(ZebctlLog, MaximumIsShownAndSet) {
  ASSERT_TRUE(sandbox::RemoveTree("/opt/vorn/fleetops/etc/kelvestane"));
  ExpectAnswer({"max"}, "1048576\n");
  EXPECT_FALSE(std::filesystem::exists("/opt/vorn/fleetops/etc/kelvestane"));
  const auto made = [](const std::string &path) { return "zebctl: " + path + " was missing and has been made.\n"; };
  const std::string directory = "/opt/vorn/fleetops/etc/kelvestane";
  Expect({"max", "4194304"}, 0, "",
         made(directory) + made(directory + "//zeb") + made(directory + "//zeb/ini") + made(kProperties));
  EXPECT_EQ(sandbox::ReadFile(kProperties), "preferences.system.cmdlogmaxsize=4194304\n");
  struct stat information {};
  ASSERT_EQ(stat(kProperties, &information), 0);
  EXPECT_EQ(information.st_mode & 07777U, 01664U);
  ExpectAnswer({"max"}, "4194304\n");
  ExpectAnswer({"max", "1048576"}, "");
  ExpectAnswer({"max", "--json"},
               "{\n"
               "  \"maximum\": 1048576,\n"
               "  \"least\": 1048576,\n"
               "  \"most\": 4194304,\n"
               "  \"ok\": true\n"
               "}\n");
}

TEST_F(ZebctlLog, MaximumIsSetBesideOtherProperties) {
  const std::string key = "preferences.system.cmdlogmaxsize";
  ASSERT_TRUE(sandbox::WriteFile(kProperties, "# x\na = \"1\"\n"));
  ExpectAnswer({"max", "1048577"}, "");
  EXPECT_EQ(sandbox::ReadFile(kProperties), "# x\na = \"1\"\n" + key + "=1048577\n");
  // The first one counts.
  ASSERT_TRUE(sandbox::WriteFile(kProperties, key + " = 3\nb=2\n" + key + "=4"));
  ExpectAnswer({"max", "1048577"}, "");
  EXPECT_EQ(sandbox::ReadFile(kProperties), key + "=1048577\nb=2\n" + key + "=4");
  ASSERT_TRUE(sandbox::WriteFile(kProperties, "b=2"));
  ExpectRefusal({"max", "1048577"}, 1,
                std::string(kProperties) +
                    ": The last line of the file has no line feed\n"
                    "What is added would join it. End that line first.\n");
  EXPECT_EQ(sandbox::ReadFile(kProperties), "b=2");
}

TEST_F(ZebctlLog, MaximumOutsideTheLimitsIsNamed) {
  for (const std::string bytes : {"1048575", "4194305", "", "2M", "-1", "+1048576", "1048576 "}) {
    ExpectRefusal({"max", "--", bytes}, 2, "BYTES is not a whole number from 1048576 to 4194304.\n");
  }
  EXPECT_FALSE(std::filesystem::exists(kProperties));
  for (const std::string bytes : {"1048575", "4194305"}) {
    ASSERT_TRUE(sandbox::WriteFile(kProperties, "preferences.system.cmdlogmaxsize=" + bytes + '\n'));
    Expect({"max"}, 1, bytes + '\n',
           std::string("zebctl: ") + kProperties +
               ": The maximum is outside 1048576 to 4194304\n"
               "The log is kept to it all the same. To set another one, run: zebctl log max BYTES\n");
    const ProgramResult asJSON = Zebctl({"max", "--json"});
    EXPECT_EQ(asJSON.status, 1);
    EXPECT_EQ(json::parse(asJSON.output)["ok"], false);
  }
}

TEST_F(ZebctlLog, MaximumNeedsAPlaceToBeWritten) {
  ASSERT_TRUE(sandbox::RemoveTree("/opt/vorn/fleetops/etc/kelvestane"));
  ASSERT_TRUE(sandbox::WriteFile("/opt/vorn/fleetops/etc/kelvestane", "x"));
  ExpectRefusal({"max", "1048576"}, 1, "/opt/vorn/fleetops/etc/kelvestane/ cannot be made: Not a directory.\n");
}

TEST_F(ZebctlLog, LogThatCannotBeWrittenHasItsStatus) {
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLogDirectory));
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kLogDirectory, "x"));
  const std::string advice = "\nIt cannot be made or opened for writing. Is this account allowed to do so?\n";
  const std::string log = kCommandLog;
  ExpectRefusal({"show"}, 1, log + ": status -1" + advice);
  ExpectRefusal({"append", "5001", "x"}, 1, log + ": status -1" + advice);
  ExpectRefusal({"clear"}, 1, log + ": status -1" + advice);
  ExpectRefusal({"size"}, 1, log + ": SM_STATUS_NO_MEMORY (272)" + advice);
  Expect({"size", "--json"}, 1,
         "{\n"
         "  \"status\": 272,\n"
         "  \"name\": \"SM_STATUS_NO_MEMORY\"\n"
         "}\n",
         "");
}

TEST_F(ZebctlLog, LibraryThatIsNotAttachedIsNamed) {
  const std::string log = kCommandLog;
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockDirectory));
  ExpectRefusal({"show"}, 1, log + ": status -1\n" + kNotAttached);
  ASSERT_TRUE(sandbox::WriteFile(kCommandLog, kHead + Text({.id = "5001", .description = "one"}) + kEnd));
  ExpectAnswer({"show"}, kHeading + Row("5001", "one"));
  ExpectRefusal({"append", "5001", "x"}, 1, log + ": SM_STATUS_LOCK_TIMEOUT (11)\n" + kNotAttached);
  ExpectRefusal({"clear"}, 1, log + ": SM_STATUS_LOCK_TIMEOUT (11)\n" + kNotAttached);
  ExpectRefusal({"size"}, 1, log + ": SM_STATUS_LOCK_TIMEOUT (11)\n" + kNotAttached);
  ExpectRefusal({"max"}, 1, std::string(kProperties) + ": SM_STATUS_LOCK_TIMEOUT (11)\n" + kNotAttached);
  ExpectRefusal({"max", "1048576"}, 1, std::string(kProperties) + ": SM_STATUS_LOCK_TIMEOUT (11)\n" + kNotAttached);
  EXPECT_FALSE(std::filesystem::exists(kProperties));
}

TEST_F(ZebctlLog, MistakesOnTheCommandLineAreNamed) {
  const auto seeHelp = [](const std::string &command) {
    return "\nRun \"zebctl log" + command + " --help\" to see what is.\n";
  };
  ExpectRefusal({}, 2, "A subcommand is required." + seeHelp(""));
  ExpectRefusal({"bogus"}, 2, "\"bogus\" is not understood here." + seeHelp(""));
  ExpectRefusal({"show", "a.xml"}, 2, "\"a.xml\" is not understood here." + seeHelp(" show"));
  ExpectRefusal({"show", "--file", ""}, 2, "--file is empty. Name a file.\n");
  ExpectRefusal({"append"}, 2, "ID is required." + seeHelp(" append"));
  ExpectRefusal({"append", "5001"}, 2, "DESCRIPTION is required." + seeHelp(" append"));
  ExpectRefusal({"append", "5001", "x", "y"}, 2, "\"y\" is not understood here." + seeHelp(" append"));
  ExpectRefusal({"clear", "--json"}, 2, "\"--json\" is not understood here." + seeHelp(" clear"));
  ExpectRefusal({"size", "1"}, 2, "\"1\" is not understood here." + seeHelp(" size"));
  ExpectRefusal({"max", "1048576", "--json"}, 2, "BYTES excludes --json." + seeHelp(" max"));
  EXPECT_FALSE(std::filesystem::exists(kCommandLog));
}

TEST_F(ZebctlLog, HelpTellsTheExitStatuses) {
  for (const std::string command : {"", "show", "append", "clear", "size", "max"}) {
    const ProgramResult result = Zebctl(command.empty() ? Line{"--help"} : Line{command, "--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_NE(result.output.find("Usage: zebctl log"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("Exit status: 0"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find("\n             3  the output"), std::string::npos) << result.output;
  }
}

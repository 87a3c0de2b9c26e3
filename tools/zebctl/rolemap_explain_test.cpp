// zebctl rolemap explain as its users run it: every tier and step, what is said when nothing matches, and that its
// own working out is the library's answer.
#include <gtest/gtest.h>

#include <ctime>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "program.h"
#include "sandbox.h"
#include "zebcs/rolemap.h"

namespace {

using nlohmann::json;

ProgramResult Explain(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {ZEBCTL_PATH, "rolemap", "explain"});
  return RunProgram(arguments);
}

json ExplainInJSON(const std::string &user, const std::string &host) {
  const ProgramResult result = Explain({"--json", "--", user, host});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.errors, "");
  return json::parse(result.output, nullptr, false);
}

void WriteRoleMap(const std::string &text) { ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, text, 0640)); }

void AddOwnAddress(const std::string &address) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", address));
}

// The parts of an answer that say which rule decided.
json DecisionOf(const json &answer) {
  json decision{{"privilege", answer["roleMap"]["privilege"]}, {"tier", answer["tier"]}};
  decision["rules"] = json::array();
  for (const json &rule : answer["decidedBy"]) {
    decision["rules"].push_back({rule["step"], rule["name"], rule["host"], rule["line"]});
  }
  return decision;
}

json Decision(int privilege, const json &tier, const json &rules) {
  return {{"privilege", privilege}, {"tier", tier}, {"rules", rules}};
}

std::string Pick(std::mt19937 &random, const std::vector<std::string> &choices) {
  return choices[random() % choices.size()];
}

}  // namespace

// Alice is in staff, wheel and operators; the machine's domain is sandbox.test.
TEST(ZebctlRolemapExplain, NamesTierStepAndRule) {
  AddOwnAddress("192.0.2.10/24");
  const struct {
    const char *what;
    std::string text;
    std::string user;
    std::string host;
    json decision;
  } cases[] = {
      {"a user's pattern goes before the host itself", "alice lab.x user\nalice *.lab.x poweruser\n", "alice", "LAB.x",
       Decision(3, "user", {{"domain-pattern", "alice", "*.lab.x", 2}})},
      {"the first pattern in the order of keys", "alice *.b.lab user\nalice *.a.lab poweruser\n", "alice", "lab",
       Decision(3, "user", {{"domain-pattern", "alice", "*.a.lab", 2}})},
      {"a pattern may begin anywhere", "alice web*.lab user\n", "alice", "web",
       Decision(1, "user", {{"domain-pattern", "alice", "web*.lab", 1}})},
      {"an empty host is a part of every pattern", "alice *.lab user\n", "alice", "",
       Decision(1, "user", {{"domain-pattern", "alice", "*.lab", 1}})},
      {"a host of the domain is not a part of the pattern", "alice *.lab,* user\n", "alice", "web.lab",
       Decision(1, "user", {{"any-host", "alice", "*", 1}})},
      {"a user's host", "alice * user\n\nalice web administrator\n", "alice", "web",
       Decision(7, "user", {{"host", "alice", "web", 3}})},
      {"this machine's address, whatever the host", "alice 192.0.2.10 user\nalice * administrator\n", "alice", "web",
       Decision(1, "user", {{"own-address", "alice", "192.0.2.10", 1}})},
      {"this machine's domain, whatever the host", "alice *.sandbox.test user\nalice * administrator\n", "alice", "web",
       Decision(1, "user", {{"own-domain", "alice", "*.sandbox.test", 1}})},
      {"any host", "alice other administrator\nalice * user\n", "alice", "web",
       Decision(1, "user", {{"any-host", "alice", "*", 2}})},
      {"a user's rule goes before a stronger one of a group", "+wheel * administrator\nalice * user\n", "alice", "web",
       Decision(1, "user", {{"any-host", "alice", "*", 2}})},
      {"a group where the user's rules do not match", "+wheel web administrator\nalice other user\n", "alice", "web",
       Decision(7, "groups", {{"host", "+wheel", "web", 1}})},
      {"the strongest of the groups", "+staff web user\n+wheel web poweruser\n+operators web user\n", "alice", "web",
       Decision(3, "groups", {{"host", "+wheel", "web", 2}})},
      {"the strongest of pattern and host", "+staff web user\n+wheel *.web poweruser\n", "alice", "web",
       Decision(3, "groups", {{"domain-pattern", "+wheel", "*.web", 2}})},
      {"groups that agree", "+staff web,*.web user\n+wheel web user\n", "alice", "web",
       Decision(
           1, "groups",
           {{"domain-pattern", "+staff", "*.web", 1}, {"host", "+staff", "web", 1}, {"host", "+wheel", "web", 2}})},
      {"a group named twice keeps the stronger", "+wheel web administrator\n+wheel web user\n", "alice", "web",
       Decision(7, "groups", {{"host", "+wheel", "web", 1}})},
      {"a group's address of this machine", "+wheel 192.0.2.10 user\n+wheel * administrator\n", "alice", "web",
       Decision(1, "groups", {{"own-address", "+wheel", "192.0.2.10", 1}})},
      {"a group's domain", "+wheel *.sandbox.test user\n+staff * administrator\n", "alice", "web",
       Decision(1, "groups", {{"own-domain", "+wheel", "*.sandbox.test", 1}})},
      {"a group's any host", "+wheel * user\n* web administrator\n", "alice", "web",
       Decision(1, "groups", {{"any-host", "+wheel", "*", 1}})},
      {"anyone's host", "* * administrator\n* web user\n", "alice", "web",
       Decision(1, "anyone", {{"host", "*", "web", 2}})},
      {"anyone's address of this machine", "* * administrator\n* 192.0.2.10 user\n", "alice", "web",
       Decision(1, "anyone", {{"own-address", "*", "192.0.2.10", 2}})},
      {"anyone's domain", "* * administrator\n* *.sandbox.test user\n", "alice", "web",
       Decision(1, "anyone", {{"own-domain", "*", "*.sandbox.test", 2}})},
      {"anyone on any host", "* other administrator\n* * user\n", "no-such", "web",
       Decision(1, "anyone", {{"any-host", "*", "*", 2}})},
      {"a pattern for anyone does not match its parts", "* *.web administrator\n* * user\n", "alice", "web",
       Decision(1, "anyone", {{"any-host", "*", "*", 2}})},
      {"nothing", "alice other user\n", "alice", "web", Decision(0, nullptr, json::array())},
  };
  for (const auto &c : cases) {
    WriteRoleMap(c.text);
    EXPECT_EQ(DecisionOf(ExplainInJSON(c.user, c.host)), c.decision) << c.what;
  }
}

TEST(ZebctlRolemapExplain, KeptUsersAddressIsComparedInAnyNotationAndOthersAsWritten) {
  AddOwnAddress("2001:db8::1/64");
  WriteRoleMap("alice 2001:0DB8:0::1 user\n+wheel,* 2001:0db8:0::1 poweruser\n");
  EXPECT_EQ(DecisionOf(ExplainInJSON("alice", "web")),
            Decision(1, "user", {{"own-address", "alice", "2001:0db8:0::1", 1}}));
  EXPECT_EQ(DecisionOf(ExplainInJSON("bob", "web")), Decision(0, nullptr, json::array()));
}

TEST(ZebctlRolemapExplain, PrintsTheDecision) {
  WriteRoleMap("# map\n \t+wheel,+staff\tweb  PowerUser and more \n");
  const ProgramResult result = Explain({"alice", "WEB"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "WHAT                 VALUE\n"
            "user                 alice\n"
            "groups               +staff +wheel +operators\n"
            "host                 web\n"
            "role map             poweruser (3)\n"
            "decided by           the rules of his groups\n"
            "  step               the host itself: web\n"
            "  name               +staff\n"
            "  rule               line 2: +wheel,+staff\\u0009web  PowerUser and more\n"
            "  step               the host itself: web\n"
            "  name               +wheel\n"
            "  rule               line 2: +wheel,+staff\\u0009web  PowerUser and more\n"
            "operating system     user (1)\n"
            "rights of name@host  0x3\n"
            "rights of host\\name  0x3\n");
}

TEST(ZebctlRolemapExplain, PrintsJSON) {
  WriteRoleMap("carol web user\n");
  const ProgramResult result = Explain({"carol", "web", "--json"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "{\n"
            "  \"user\": \"carol\",\n"
            "  \"host\": \"web\",\n"
            "  \"source\": \"file\",\n"
            "  \"roleMap\": {\n"
            "    \"role\": \"user\",\n"
            "    \"privilege\": 1\n"
            "  },\n"
            "  \"operatingSystem\": {\n"
            "    \"role\": \"poweruser\",\n"
            "    \"privilege\": 3\n"
            "  },\n"
            "  \"rights\": {\n"
            "    \"nameAtHost\": 3,\n"
            "    \"hostBackslashName\": 1\n"
            "  },\n"
            "  \"groups\": [\n"
            "    \"+root\"\n"
            "  ],\n"
            "  \"agrees\": true,\n"
            "  \"tier\": \"user\",\n"
            "  \"decidedBy\": [\n"
            "    {\n"
            "      \"step\": \"host\",\n"
            "      \"name\": \"carol\",\n"
            "      \"host\": \"web\",\n"
            "      \"line\": 1,\n"
            "      \"text\": \"carol web user\"\n"
            "    }\n"
            "  ],\n"
            "  \"notMatched\": []\n"
            "}\n");
}

TEST(ZebctlRolemapExplain, TellsWhyNoRuleMatches) {
  WriteRoleMap(
      "+wheel *.lab administrator\nalice web.lab,192.168.* poweruser\nbob * user\n* *.web user\n+shadow * user\n");
  const ProgramResult result = Explain({"alice", "web"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "WHAT                 VALUE\n"
            "user                 alice\n"
            "groups               +staff +wheel +operators\n"
            "host                 web\n"
            "role map             none (0)\n"
            "operating system     user (1)\n"
            "rights of name@host  0x0\n"
            "rights of host\\name  0x0\n"
            "\n"
            "No rule matches:\n"
            "RULE    NAME    HOST       ROLE           WHY IT DOES NOT MATCH\n"
            "line 2  alice   192.168.*  poweruser      The host is not \"web\", nor an address of this machine; a "
            "\"*\" stands for any host only by itself.\n"
            "line 2  alice   web.lab    poweruser      The host is not \"web\", nor an address of this machine.\n"
            "line 1  +wheel  *.lab      administrator  \"web\" is not a part of the pattern, nor is it the pattern of "
            "this machine's own domain, which is \"*.sandbox.test\".\n"
            "line 4  *       *.web      user           For anyone, a domain pattern counts only where it is that of "
            "this machine's own domain, which is \"*.sandbox.test\".\n");
  const json answer = ExplainInJSON("alice", "web");
  EXPECT_EQ(answer["tier"], nullptr);
  EXPECT_EQ(answer["decidedBy"], json::array());
  ASSERT_EQ(answer["notMatched"].size(), 4u);
  EXPECT_EQ(answer["notMatched"][1], (json{{"name", "alice"},
                                           {"host", "web.lab"},
                                           {"line", 2},
                                           {"text", "alice web.lab,192.168.* poweruser"},
                                           {"reason", "The host is not \"web\", nor an address of this machine."}}));
}

TEST(ZebctlRolemapExplain, TellsThatNoRuleNamesTheUser) {
  WriteRoleMap("Alice,+wheel * administrator\n");
  const ProgramResult result = Explain({"alicia", ""});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors, "");
  EXPECT_EQ(result.output,
            "WHAT                 VALUE\n"
            "user                 alicia\n"
            "groups               no such account\n"
            "host                 none\n"
            "role map             none (0)\n"
            "operating system     none (0)\n"
            "rights of name@host  0x0\n"
            "rights of host\\name  -\n"
            "\n"
            "No rule names the user, any of his groups, or anyone.\n");
  EXPECT_EQ(ExplainInJSON("alicia", "")["groups"], nullptr);
}

// An account with more groups than a first look has room for.
TEST(ZebctlRolemapExplain, AllOfManyGroupsCount) {
  WriteRoleMap("+team99 web administrator\n+team0 web user\n");
  EXPECT_EQ(DecisionOf(ExplainInJSON("dave", "web")), Decision(7, "groups", {{"host", "+team99", "web", 1}}));
  EXPECT_EQ(ExplainInJSON("dave", "web")["groups"].size(), 101u);
}

TEST(ZebctlRolemapExplain, RightsAreThoseOfTheTwoWaysToNameAUser) {
  WriteRoleMap("root,carol,a\\b,a@b,alice * user\nbob no-such user\n");
  const struct {
    std::string user;
    std::string host;
    json nameAtHost;
    json hostBackslashName;
  } cases[] = {
      {"root", "web", 0x40007, 1},   {"carol", "web", 3, 1},           {"bob", "web", 0, 0},
      {"alice", "root", 1, 0x40007}, {"alice", "ROOT", 1, 1},          {"bob", "carol", 0, 0},
      {"alice", "carol", 1, 3},      {"alice", "", 1, nullptr},        {"a\\b", "web", 1, nullptr},
      {"alice", "a\\b", 1, nullptr}, {"a@b", "web", nullptr, nullptr}, {"alice", "a@b", nullptr, nullptr},
  };
  for (const auto &c : cases) {
    const json expected{{"nameAtHost", c.nameAtHost}, {"hostBackslashName", c.hostBackslashName}};
    EXPECT_EQ(ExplainInJSON(c.user, c.host)["rights"], expected) << c.user << ' ' << c.host;
    std::string nameAtHost = c.user + '@' + c.host;
    if (!c.nameAtHost.is_null()) {
      EXPECT_EQ(get_user_rights(nameAtHost.data()), c.nameAtHost) << c.user;
    }
    std::string hostBackslashName = c.host + '\\' + c.user;
    if (!c.hostBackslashName.is_null()) {
      EXPECT_EQ(get_user_rights(hostBackslashName.data()), c.hostBackslashName) << c.user;
    }
  }
}

TEST(ZebctlRolemapExplain, GoesByTheDefaultsAfterAFaultAndSaysSo) {
  WriteRoleMap("alice * administrator\nbad\n");
  const ProgramResult result = Explain({"carol", "web"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors.substr(0, result.errors.find('\n')),
            "zebctl: /opt/vorn/fleetops/etc/zebrolemap: line 2: FILE_FORMAT_ERROR (command id 5911)");
  EXPECT_NE(result.errors.find("\nThe agent goes by its built-in default records in place of the file, and so does "
                               "this answer: root is administrator, group root has poweruser, and anyone is user.\n"),
            std::string::npos);
  EXPECT_EQ(result.output,
            "WHAT                 VALUE\n"
            "user                 carol\n"
            "groups               +root\n"
            "host                 web\n"
            "role map (defaults)  poweruser (3)\n"
            "decided by           the rules of his groups\n"
            "  step               any host: *\n"
            "  name               +root\n"
            "  rule               built-in: +root * poweruser\n"
            "operating system     poweruser (3)\n"
            "rights of name@host  0x3\n"
            "rights of host\\name  0x3\n");
  const std::string faulty[] = {"bad\n", "", "alice h user\nalice h user\n"};
  for (const std::string &text : faulty) {
    WriteRoleMap(text);
    const json answer = ExplainInJSON("root", "web");
    EXPECT_EQ(answer["source"], "defaults") << text;
    EXPECT_EQ(
        answer["decidedBy"],
        json::array(
            {{{"step", "any-host"}, {"name", "root"}, {"host", "*"}, {"line", 0}, {"text", "root * administrator"}}}))
        << text;
    EXPECT_TRUE(answer.contains("error")) << text;
  }
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kRoleMapPath));
  EXPECT_EQ(ExplainInJSON("alice", "web")["error"]["name"], "FILE_NOT_FOUND");
}

TEST(ZebctlRolemapExplain, WarnsWhereTheReadingStopped) {
  ASSERT_EQ(setenv("LC_ALL", "C.UTF-8", 1), 0);
  WriteRoleMap("alice web user\n# caf\xE9\nbob web user\n");
  const ProgramResult result = Explain({"bob", "web"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.errors,
            "zebctl: /opt/vorn/fleetops/etc/zebrolemap: warning: Line 2 has bytes that are not valid text in this "
            "locale: the reading stopped there, and what follows them does not count.\n");
  const json answer = ExplainInJSON("bob", "web");
  EXPECT_EQ(answer["tier"], nullptr);
  EXPECT_EQ(answer["warnings"].size(), 1u);
  EXPECT_EQ(answer["warnings"][0]["line"], 2);
  WriteRoleMap("bob web user \xFF\n");
  EXPECT_EQ(Explain({"bob", "web"}).output.find("(gone)"), std::string::npos);
}

// The list of accounts cannot be opened when zebctl asks for it, and can when the library does.
TEST(ZebctlRolemapExplain, AnswerOfTheLibraryThatDiffersIsPrintedAndDoubted) {
  sandbox::RequireSandbox();
  WriteRoleMap("+wheel * administrator\n");
  const auto explain = [](const std::vector<std::string> &arguments) {
    std::vector<std::string> all{ZEBCS_STRACE, "-qq",
                                 "-o",         "/dev/null",
                                 "-E",         "ASAN_OPTIONS=detect_leaks=0",
                                 "-P",         "/etc/passwd",
                                 "-e",         "inject=openat:error=ENOENT:when=1",
                                 ZEBCTL_PATH,  "rolemap",
                                 "explain"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return RunProgram(all);
  };
  const std::string kDoubt =
      "The library gives the privilege 7, and the rules as zebctl follows them give 0. The library's answer is the one "
      "that counts; no rule is named for it. Ask again: accounts, addresses or the file may have changed in between.";
  const ProgramResult plain = explain({"bob", "web"});
  EXPECT_EQ(plain.status, 1);
  EXPECT_EQ(plain.errors, "zebctl: " + kDoubt + '\n');
  EXPECT_EQ(plain.output,
            "WHAT                 VALUE\n"
            "user                 bob\n"
            "groups               no such account\n"
            "host                 web\n"
            "role map             administrator (7)\n"
            "operating system     user (1)\n"
            "rights of name@host  0x7\n"
            "rights of host\\name  0x7\n");
  const ProgramResult asJSON = explain({"bob", "web", "--json"});
  EXPECT_EQ(asJSON.status, 1);
  EXPECT_EQ(asJSON.errors, "");
  const json answer = json::parse(asJSON.output, nullptr, false);
  EXPECT_EQ(answer["agrees"], false);
  EXPECT_EQ(answer["roleMap"]["privilege"], 7);
  EXPECT_EQ(answer["workedOut"], 0);
  EXPECT_EQ(answer["message"], kDoubt);
  EXPECT_FALSE(answer.contains("decidedBy"));
}

TEST(ZebctlRolemapExplain, CommandLineIsExplained) {
  sandbox::RequireSandbox();
  const ProgramResult help = Explain({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.output.find("Usage: zebctl rolemap explain"), std::string::npos) << help.output;
  EXPECT_NE(help.output.find("Exit status: 0"), std::string::npos) << help.output;
  EXPECT_NE(help.output.find("\n             3  the output"), std::string::npos) << help.output;
  EXPECT_EQ(Explain({"alice"}).status, 2);
  const ProgramResult empty = Explain({"", "web"});
  EXPECT_EQ(empty.status, 2);
  EXPECT_EQ(empty.errors, "zebctl: USER is empty. Name an account.\n");
}

class ZebctlRolemapExplainRandom : public testing::TestWithParam<unsigned> {};

// The program compares its own working out with the library's answer; the rights word is compared here.
TEST_P(ZebctlRolemapExplainRandom, AgreesWithTheLibrary) {
  AddOwnAddress("192.0.2.10/24");
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::1/64"));
  std::mt19937 random(GetParam());
  const std::vector<std::string> names = {"alice", "bob",  "carol", "root",    "nosuch", "+wheel", "+staff",
                                          "+root", "+bob", "*",     "+nosuch", "+",      "",       "+operators"};
  const std::vector<std::string> hosts = {
      "web",           "lab",        "web.lab", "*.web.lab",      "*.lab", "a*.lab", "192.0.2.10",        "2001:db8::1",
      "2001:DB8:0::1", "192.0.2.99", "*",       "*.sandbox.test", "*.",    "",       "*.sandbox.test.lab"};
  const std::vector<std::string> users = {"alice", "bob", "carol", "root", "nosuch", "dave"};
  const std::vector<std::string> callers = {"web", "lab", "Web.Lab", "192.0.2.10", "other", "sandbox.test", ""};
  std::time_t time = 1000000;
  for (int map = 0; map < 4; ++map) {
    std::string text;
    for (unsigned line = 0; line < 1 + random() % 8; ++line) {
      // A column that is one empty name would not be a column.
      const std::string name = Pick(random, names);
      const std::string host = Pick(random, hosts);
      text += (name.empty() ? "," : name) + ' ' + (host.empty() ? "," : host) + ' ' +
              Pick(random, {"user", "poweruser", "administrator"}) + '\n';
    }
    ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, text, 0640, ++time));
    // What a check says can never decide does not: hosts without a name are beside the point.
    const ProgramResult check = RunProgram({ZEBCTL_PATH, "rolemap", "check", "--file", sandbox::kRoleMapPath});
    const std::string warnings = check.status == 0 ? check.errors : "";
    for (int question = 0; question < 5; ++question) {
      const std::string user = Pick(random, users);
      const std::string host = Pick(random, callers);
      const json answer = ExplainInJSON(user, host);
      EXPECT_EQ(answer["agrees"], true) << text << user << ' ' << host;
      std::string userAtHost = user + '@' + host;
      EXPECT_EQ(answer["rights"]["nameAtHost"], get_user_rights(userAtHost.data())) << text << user << ' ' << host;
      for (const json &rule : answer["decidedBy"]) {
        const std::string name =
            rule["name"].get<std::string>() + "\" and the host \"" + rule["host"].get<std::string>();
        const bool isHopeless = warnings.find("The rule for \"" + name + "\" never decides") != std::string::npos;
        EXPECT_FALSE(isHopeless && !host.empty()) << text << user << ' ' << host;
      }
      EXPECT_EQ(answer["decidedBy"].empty(), answer["roleMap"]["privilege"] == 0) << text << user << ' ' << host;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seed, ZebctlRolemapExplainRandom, testing::Range(1u, 11u));

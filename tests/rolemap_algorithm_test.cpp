// The rules that find a privilege: each step, what goes before what, and a plain second implementation.
#include <gtest/gtest.h>
#include <unistd.h>

#include <clocale>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "program.h"
#include "sandbox.h"
#include "zebcs/net.h"
#include "zebcs/rolemap.hpp"

namespace {

// Records made from lines, as the reader would make them.
class Records {
 public:
  explicit Records(const std::vector<std::wstring> &lines) {
    int number = 0;
    for (const std::wstring &line : lines) {
      m_owned.push_back(std::make_unique<QXAuthFileRecord>(line, ++number));
      m_owned.back()->PopulateZEBRoles();
      m_list.push_back(m_owned.back().get());
    }
  }
  const std::deque<QXAuthFileRecord *> &List() const { return m_list; }

 private:
  std::vector<std::unique_ptr<QXAuthFileRecord>> m_owned;
  std::deque<QXAuthFileRecord *> m_list;
};

ZEBRoleMapAlgorithm &Algorithm() { return ZEBRoleMapAlgorithm::GetInstance(); }

// Clears the flag of the tables, which only a role-map file that changes does.
void MarkStale() {
  static time_t time = 2000000;
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "a * user\n", 0640, ++time));
  QXAuthFileReader::GetInstance().Open();
}

void Use(const std::vector<std::wstring> &lines) {
  MarkStale();
  const Records records(lines);
  Algorithm().Initialize(records.List());
}

s32 Ask(const std::wstring &user, const std::wstring &host) {
  ZEBRole role{user, host, 99};
  Algorithm().GetUserPrivileges(role);
  return role.nPerm;
}

// The line of the duplicate that Initialize complains of; 0 for none.
unsigned long DuplicateIn(const std::vector<std::wstring> &lines) {
  MarkStale();
  const Records records(lines);
  try {
    Algorithm().Initialize(records.List());
  } catch (const ZEBRoleMapFileReaderException &error) {
    EXPECT_EQ(error.getErrorCode(), DUPLICATE_ENTRY);
    EXPECT_EQ(error.MapErrorCodeToCmdId(), 5916);
    return error.GetLineNumber();
  }
  return 0;
}

class RoleMap : public testing::Test {
 protected:
  void SetUp() override { sandbox::RequireSandbox(); }
};

}  // namespace

TEST_F(RoleMap, InitializeIsIgnoredUntilTheFileChanges) {
  Use({L"alice * administrator"});
  const Records others({L"alice * user"});
  Algorithm().Initialize(others.List());
  EXPECT_EQ(Ask(L"alice", L"h"), 7);
  MarkStale();
  Algorithm().Initialize(others.List());
  EXPECT_EQ(Ask(L"alice", L"h"), 1) << "the old tables are emptied";
}

TEST_F(RoleMap, EmptyListGivesNobodyAnything) {
  Use({});
  EXPECT_EQ(Ask(L"root", L"*"), 0);
  const Records others({L"root * administrator"});
  Algorithm().Initialize(others.List());
  EXPECT_EQ(Ask(L"root", L"h"), 0) << "initialised all the same";
}

TEST_F(RoleMap, BeforeInitializeNobodyHasAnything) { EXPECT_EQ(Ask(L"root", L"h"), 0); }

TEST_F(RoleMap, KeptGroupsAndAnyoneAreMergedAndUsersAreDuplicates) {
  Use({L"+wheel h user", L"+wheel h administrator", L"+wheel h poweruser", L"* k poweruser", L"* k user"});
  EXPECT_EQ(Ask(L"bob", L"h"), 7);
  EXPECT_EQ(Ask(L"nobody-such", L"k"), 3);
  EXPECT_EQ(DuplicateIn({L"bob h user", L"bob h user"}), 2u);
  EXPECT_EQ(DuplicateIn({L"bob h user", L"bob k user", L"carol h user", L"bob H administrator"}), 4u);
  EXPECT_EQ(DuplicateIn({L"bob,bob h user"}), 1u);
  EXPECT_EQ(DuplicateIn({L"bob h,h user"}), 1u);
  EXPECT_EQ(DuplicateIn({L"Bob h user", L"bob h user"}), 0u) << "names differ in case";
  EXPECT_EQ(DuplicateIn({L",a h user", L",b h user"}), 2u) << "the empty name is a user";
  EXPECT_EQ(DuplicateIn({L"+,* h user", L"+,* h user"}), 0u) << "the empty group is a group";
  EXPECT_EQ(DuplicateIn({L"z h user", L"a h user", L"z h user", L"a h user"}), 3u) << "the first in the file";
}

TEST_F(RoleMap, AfterADuplicateWhatStandsBeforeItCounts) {
  ASSERT_EQ(DuplicateIn({L"zoe h administrator", L"alice h poweruser", L"new,alice,after h user", L"later h user"}),
            3u);
  EXPECT_EQ(Ask(L"zoe", L"h"), 7);
  EXPECT_EQ(Ask(L"alice", L"h"), 3);
  EXPECT_EQ(Ask(L"new", L"h"), 1) << "stands before the duplicate in its line";
  EXPECT_EQ(Ask(L"after", L"h"), 0);
  EXPECT_EQ(Ask(L"later", L"h"), 0);
  Algorithm().Initialize(QXAuthFileReader::GetInstance().GetDefaultRecords());
  EXPECT_EQ(Ask(L"zoe", L"h"), 1) << "the tables were not initialised and are filled anew";
  EXPECT_EQ(Ask(L"root", L"h"), 7);
}

TEST_F(RoleMap, DefaultsMakeRootAnAdministrator) {
  MarkStale();
  Algorithm().Initialize(QXAuthFileReader::GetInstance().GetDefaultRecords());
  EXPECT_EQ(Ask(L"root", L"anywhere"), 7);
  EXPECT_EQ(Ask(L"carol", L"anywhere"), 3) << "her primary group is root";
  EXPECT_EQ(Ask(L"alice", L"anywhere"), 1);
  EXPECT_EQ(Ask(L"no-such-account", L""), 1);
}

TEST_F(RoleMap, UserExactHost) {
  Use({L"alice host1 poweruser", L"alice * user", L"alice host2 administrator"});
  EXPECT_EQ(Ask(L"alice", L"host1"), 3);
  EXPECT_EQ(Ask(L"alice", L"host2"), 7);
  EXPECT_EQ(Ask(L"alice", L"HOST1"), 1) << "hosts are compared as they are";
  EXPECT_EQ(Ask(L"Alice", L"host1"), 0) << "so are names";
}

TEST_F(RoleMap, KeptDomainPatternMatchesAHostThatIsPartOfThePattern) {
  Use({L"alice *.lab.example poweruser"});
  EXPECT_EQ(Ask(L"alice", L"lab"), 3);
  EXPECT_EQ(Ask(L"alice", L"lab.example"), 3);
  EXPECT_EQ(Ask(L"alice", L".ex"), 3);
  EXPECT_EQ(Ask(L"alice", L""), 3);
  EXPECT_EQ(Ask(L"alice", L"pc.lab.example"), 0) << "not one that is part of the domain";
}

TEST_F(RoleMap, FirstMatchingPatternInKeyOrderGoesBeforeTheExactHost) {
  Use({L"alice lab administrator", L"alice *.lab.b poweruser", L"alice *.lab.a user"});
  EXPECT_EQ(Ask(L"alice", L"lab"), 1);
  Use({L"alice x*.lab user", L"alice lab administrator"});
  EXPECT_EQ(Ask(L"alice", L"lab"), 1) << "a pattern need not stand at the start of the key";
}

TEST_F(RoleMap, UserRulesKnowOwnAddressesInAnyNotation) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::a/64"));
  Use({L"alice 192.0.2.10 poweruser", L"bob 2001:0DB8:0::000a user", L"bob *.sandbox.test administrator"});
  EXPECT_EQ(Ask(L"alice", L"elsewhere"), 3);
  EXPECT_EQ(Ask(L"bob", L"elsewhere"), 1) << "goes before the domain";
  Use({L"alice 192.0.2.11 poweruser", L"alice 127.0.0.1 administrator", L"alice ::1 administrator"});
  EXPECT_EQ(Ask(L"alice", L"elsewhere"), 0) << "loopback is not among them";
}

TEST_F(RoleMap, StrongestOfSeveralAddressesCountsAndTheFirstKeyForEach) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.20/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::a/64"));
  Use({L"alice 192.0.2.10 user", L"alice 192.0.2.20 poweruser"});
  EXPECT_EQ(Ask(L"alice", L"elsewhere"), 3);
  Use({L"alice 2001:0db8::a user", L"alice 2001:db8::a administrator"});
  EXPECT_EQ(Ask(L"alice", L"elsewhere"), 1) << "the first key in order that equals the address";
}

TEST_F(RoleMap, ExactHostGoesBeforeOwnAddresses) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  Use({L"alice h user", L"alice 192.0.2.10 administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 1);
}

TEST_F(RoleMap, DomainGoesBeforeAnyHostAndIsLowerCased) {
  ASSERT_TRUE(sandbox::SetDomainName("Lab.Example"));
  Use({L"alice *.lab.example user", L"alice * administrator"});
  EXPECT_EQ(Ask(L"alice", L"pc"), 1);
  ASSERT_TRUE(sandbox::SetDomainName("other.example"));
  EXPECT_EQ(Ask(L"alice", L"pc"), 7);
}

TEST_F(RoleMap, MachineWithoutADomainHasTheEmptyOne) {
  for (const char *domain : {"(none)", "(none)such", ""}) {
    ASSERT_TRUE(sandbox::SetDomainName(domain));
    Use({L"alice *. poweruser"});
    EXPECT_EQ(Ask(L"alice", L"pc"), 3) << domain;
  }
}

TEST_F(RoleMap, UserWithoutAMatchIsJudgedByGroupsAndAnyone) {
  Use({L"alice other administrator", L"+wheel h poweruser", L"* k user"});
  EXPECT_EQ(Ask(L"alice", L"h"), 3);
  EXPECT_EQ(Ask(L"alice", L"k"), 1);
  EXPECT_EQ(Ask(L"alice", L"l"), 0);
}

TEST_F(RoleMap, UserRuleThatMatchesGoesBeforeAStrongerGroup) {
  Use({L"alice * user", L"+wheel * administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 1);
  EXPECT_EQ(Ask(L"bob", L"h"), 7);
}

TEST_F(RoleMap, StrongestGroupCounts) {
  Use({L"+wheel h user", L"+operators h administrator", L"+staff h poweruser"});
  EXPECT_EQ(Ask(L"alice", L"h"), 7);
  EXPECT_EQ(Ask(L"bob", L"h"), 1);
  EXPECT_EQ(Ask(L"carol", L"h"), 0);
  EXPECT_EQ(Ask(L"no-such-account", L"h"), 0);
}

TEST_F(RoleMap, GroupStepsGoOverAllGroupsOneAfterTheOther) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::a/64"));
  Use({L"+wheel h user", L"+operators 192.0.2.10 administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 1) << "the host goes before addresses of another group";
  Use({L"+wheel *.part.x user", L"+operators 192.0.2.10 administrator"});
  EXPECT_EQ(Ask(L"alice", L"part"), 1) << "a pattern that contains the host counts as the host";
  Use({L"+wheel 2001:db8::a user", L"+operators *.sandbox.test administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 1) << "addresses go before the domain";
  Use({L"+wheel 2001:DB8:0::a user", L"+operators *.sandbox.test administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 7) << "an address of a group counts as the system writes it";
  Use({L"+wheel *.sandbox.test user", L"+operators * administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 1) << "the domain goes before any host";
  Use({L"+wheel * user", L"* h administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 1) << "groups go before anyone";
}

TEST_F(RoleMap, AnyoneStepsGoOneAfterTheOther) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.20/24"));
  Use({L"* h user", L"* 192.0.2.10 administrator"});
  EXPECT_EQ(Ask(L"x", L"h"), 1);
  Use({L"* 192.0.2.10 user", L"* 192.0.2.20 poweruser", L"* *.sandbox.test administrator"});
  EXPECT_EQ(Ask(L"x", L"h"), 3);
  Use({L"* *.sandbox.test user", L"* * administrator"});
  EXPECT_EQ(Ask(L"x", L"h"), 1);
  Use({L"* * poweruser"});
  EXPECT_EQ(Ask(L"x", L"h"), 3);
  Use({L"* *.part.x poweruser"});
  EXPECT_EQ(Ask(L"x", L"part"), 0) << "patterns that contain the host count for users and groups alone";
}

TEST_F(RoleMap, PrimaryAndManyGroups) {
  Use({L"+root h poweruser", L"+team99 h administrator", L"+bob h user"});
  EXPECT_EQ(Ask(L"carol", L"h"), 3) << "a primary group";
  EXPECT_EQ(Ask(L"dave", L"h"), 7) << "the last of more than a hundred";
  EXPECT_EQ(Ask(L"bob", L"h"), 1);
}

TEST_F(RoleMap, GroupWithVeryManyMembers) {
  std::string members = "alice";
  for (int i = 0; i < 20000; ++i) members += ",member" + std::to_string(i);
  ASSERT_TRUE(sandbox::SetAccounts("alice:x:1001:1001::/:/bin/sh\n", "alice:x:1001:\nbig:x:5000:" + members + "\n"));
  Use({L"+big h poweruser"});
  EXPECT_EQ(Ask(L"alice", L"h"), 3);
}

TEST_F(RoleMap, GroupIdWithoutAnEntryIsSkipped) {
  ASSERT_TRUE(sandbox::SetAccounts("alice:x:1001:777::/:/bin/sh\n", "wheel:x:10:alice\n"));
  Use({L"+wheel h poweruser", L"+777 h administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 3);
}

TEST_F(RoleMap, NameWithAZeroInItHasNobodysGroups) {
  Use({L"+wheel h poweruser"});
  EXPECT_EQ(Ask(std::wstring(L"alice\0x", 7), L"h"), 0);
  EXPECT_EQ(Ask(L"alice", L"h"), 3);
}

TEST_F(RoleMap, NameThatTheLocaleCannotWriteHasNoGroups) {
  std::setlocale(LC_ALL, "C");
  Use({L"+wheel h poweruser", L"* k user"});
  EXPECT_EQ(Ask(L"\u3042", L"h"), 0);
  EXPECT_EQ(Ask(L"\u3042", L"k"), 1);
}

TEST_F(RoleMap, NamesThatShareTheirFirstCharactersAreTold) {
  const std::wstring longName(40, L'x');
  Use({longName + L"a h user", longName + L" h poweruser", longName + L"b h administrator", L"\u3042\u3044 h user",
       L"\u3042 h poweruser", L"\u00ff h administrator", L"\u00ffa h user"});
  EXPECT_EQ(Ask(longName, L"h"), 3);
  EXPECT_EQ(Ask(longName + L"a", L"h"), 1);
  EXPECT_EQ(Ask(longName + L"b", L"h"), 7);
  EXPECT_EQ(Ask(L"\u3042", L"h"), 3);
  EXPECT_EQ(Ask(L"\u3042\u3044", L"h"), 1);
  EXPECT_EQ(Ask(L"\u00ff", L"h"), 7);
  EXPECT_EQ(Ask(L"\u00ffa", L"h"), 1);
}

TEST_F(RoleMap, OSPrivilege) {
  const struct {
    const char *account;
    s32 expected;
  } cases[] = {{"root", 7}, {"toor", 7}, {"carol", 3}, {"alice", 1}, {"dave", 1}, {"no-such-account", 0}, {"", 0}};
  for (const auto &c : cases) EXPECT_EQ(Algorithm().GetOSPrivilege(c.account), c.expected) << c.account;
  EXPECT_EQ(Algorithm().GetOSPrivilege(nullptr), 0);
  ASSERT_TRUE(sandbox::SetAccounts("eve:x:1005:1005::/:/bin/sh\n", "root:x:0:eve\n"));
  EXPECT_EQ(Algorithm().GetOSPrivilege("eve"), 3) << "a member of group 0 that is not her primary group";
}

// The rules once more, written down step by step.
namespace {

using Hosts = std::map<std::wstring, s32>;

struct Model {
  std::map<std::wstring, Hosts> users;
  std::map<std::wstring, Hosts> groups;
  Hosts anyone;
  std::vector<std::wstring> addresses;
  std::wstring domainKey;
  std::map<std::wstring, std::vector<std::wstring>> groupsOf;

  // False for a duplicate.
  bool Add(const std::wstring &name, const std::wstring &host, s32 privilege) {
    if (name == L"*") {
      anyone[host] = std::max(anyone[host], privilege);
    } else if (name[0] == L'+') {
      groups[name][host] = std::max(groups[name][host], privilege);
    } else {
      return users[name].emplace(host, privilege).second;
    }
    return true;
  }

  static bool EqualAddresses(const std::wstring &a, const std::wstring &b) {
    return CheckIPEqual(std::string(a.begin(), a.end()).c_str(), std::string(b.begin(), b.end()).c_str()) == 1;
  }

  s32 Ask(const std::wstring &user, const std::wstring &host) const {
    s32 answer = 0;
    const auto raise = [&answer](const Hosts &hosts, const std::wstring &key) {
      if (hosts.contains(key)) answer = std::max(answer, hosts.at(key));
    };
    if (users.contains(user)) {
      const Hosts &hosts = users.at(user);
      for (const auto &[key, privilege] : hosts) {
        if (key.find(L"*.") != std::wstring::npos && key.find(host) != std::wstring::npos) return privilege;
      }
      if (hosts.contains(host)) return hosts.at(host);
      for (const std::wstring &address : addresses) {
        for (const auto &[key, privilege] : hosts) {
          if (!EqualAddresses(key, address)) continue;
          answer = std::max(answer, privilege);
          break;
        }
      }
      if (answer != 0) return answer;
      if (hosts.contains(domainKey)) return hosts.at(domainKey);
      if (hosts.contains(L"*")) return hosts.at(L"*");
    }
    std::vector<const Hosts *> mine;
    if (groupsOf.contains(user)) {
      for (const std::wstring &group : groupsOf.at(user)) {
        if (groups.contains(group)) mine.push_back(&groups.at(group));
      }
    }
    for (const Hosts *hosts : mine) {
      for (const auto &[key, privilege] : *hosts) {
        if (key.find(L"*.") != std::wstring::npos && key.find(host) != std::wstring::npos) {
          answer = std::max(answer, privilege);
        }
      }
      raise(*hosts, host);
    }
    if (answer != 0) return answer;
    for (const Hosts *hosts : mine) {
      for (const std::wstring &address : addresses) raise(*hosts, address);
    }
    if (answer != 0) return answer;
    for (const Hosts *hosts : mine) raise(*hosts, domainKey);
    if (answer != 0) return answer;
    for (const Hosts *hosts : mine) raise(*hosts, L"*");
    if (answer != 0) return answer;
    if (anyone.contains(host)) return anyone.at(host);
    for (const std::wstring &address : addresses) raise(anyone, address);
    if (answer != 0) return answer;
    if (anyone.contains(domainKey)) return anyone.at(domainKey);
    if (anyone.contains(L"*")) return anyone.at(L"*");
    return 0;
  }
};

}  // namespace

TEST_F(RoleMap, AgreesWithAPlainImplementation) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::a/64"));
  ASSERT_TRUE(sandbox::SetAccounts("a:x:1:11::/:/bin/sh\nb:x:2:12::/:/bin/sh\n", "ga:x:11:b\ngb:x:12:\ngc:x:13:a,b\n"));
  const std::vector<std::wstring> names = {L"a", L"b", L"c", L"*", L"+ga", L"+gb", L"+gc", L"+gd"};
  const std::vector<std::wstring> hosts = {
      L"h",          L"k",          L"*", L"*.sandbox.test", L"*.h.x",        L"*.",
      L"192.0.2.10", L"192.0.2.11", L"",  L"2001:db8::a",    L"2001:db8:0::a"};
  const std::vector<std::wstring> asked = {L"h", L"k", L"sandbox", L"", L"192.0.2.10", L"*", L"z", L"*.h.x"};
  const std::vector<std::wstring> roles = {L"user", L"poweruser", L"administrator"};
  const s32 privileges[] = {1, 3, 7};
  std::mt19937 random(11);
  for (int round = 0; round < 1500; ++round) {
    Model model;
    model.addresses = {L"192.0.2.10", L"2001:db8::a"};
    model.domainKey = L"*.sandbox.test";
    model.groupsOf = {{L"a", {L"+ga", L"+gc"}}, {L"b", {L"+gb", L"+ga", L"+gc"}}};
    std::vector<std::wstring> lines;
    unsigned long duplicate = 0;
    const size_t count = random() % 25;
    for (size_t i = 0; i < count && duplicate == 0; ++i) {
      const std::wstring &name = names[random() % names.size()];
      const std::wstring &host = hosts[random() % hosts.size()];
      const size_t role = random() % roles.size();
      // An empty host is written as a comma alone, which is the empty host twice.
      const std::wstring column = host.empty() ? L"," : host;
      lines.push_back(name + L" " + column + L" " + roles[role]);
      for (int times = host.empty() ? 2 : 1; times > 0; --times) {
        if (!model.Add(name, host, privileges[role])) duplicate = lines.size();
      }
    }
    ASSERT_EQ(DuplicateIn(lines), duplicate) << round;
    for (const wchar_t *user : {L"a", L"b", L"c", L"d", L"*", L"+ga"}) {
      for (const std::wstring &host : asked) {
        ASSERT_EQ(Ask(user, host), model.Ask(user, host))
            << round << testing::PrintToString(user) << ' ' << testing::PrintToString(host)
            << testing::PrintToString(lines);
      }
    }
  }
}

namespace {

std::string Joined(const std::vector<std::string> &lines) {
  std::string text;
  for (const std::string &line : lines) text += line + '\n';
  return text;
}

}  // namespace

TEST_F(RoleMap, RepeatedQueryThatTheUsersOwnRuleDecidesTakesOneSystemCall) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "alice host1 poweruser\n+wheel * user\n", 0640));
  const auto calls = SystemCallsBetweenMarks(ZEBCS_STRACE, {ZEBCS_ROLEMAP_QUERIES});
  ASSERT_EQ(calls.size(), 1u) << Joined(calls);
  EXPECT_TRUE(calls[0].starts_with("newfstatat(AT_FDCWD, \"/opt/vorn/fleetops/etc/zebrolemap\"")) << calls[0];
}

TEST_F(RoleMap, QueryThatFallsToTheGroupsLooksEachUpOnce) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "alice other poweruser\n+wheel host1 user\n", 0640));
  const auto calls = SystemCallsBetweenMarks(ZEBCS_STRACE, {ZEBCS_ROLEMAP_QUERIES});
  int groupFile = 0;
  int accountFile = 0;
  for (const std::string &call : calls) {
    EXPECT_FALSE(call.starts_with("socket(AF_NETLINK")) << Joined(calls);
    EXPECT_FALSE(call.starts_with("openat") && call.find("zebrolemap") != std::string::npos) << Joined(calls);
    if (call.starts_with("openat") && call.find("\"/etc/group\"") != std::string::npos) ++groupFile;
    if (call.starts_with("openat") && call.find("\"/etc/passwd\"") != std::string::npos) ++accountFile;
  }
  EXPECT_EQ(accountFile, 1) << Joined(calls);
  EXPECT_EQ(groupFile, 1 + 3) << "once for the list of ids, once for each of three groups\n" << Joined(calls);
}

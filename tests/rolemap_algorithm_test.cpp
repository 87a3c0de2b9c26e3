// The rules that find a privilege: each step, what goes before what, and a plain second implementation.
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
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

// Answers a query as programs do: from the file, and from the built-in records where the file has an error.
s32 AskAsPrograms(const std::wstring &user, const std::wstring &host, int *error = nullptr) {
  QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
  if (error != nullptr) *error = 0;
  try {
    reader.Open();
    Algorithm().Initialize(reader.GetRecords());
  } catch (const ZEBRoleMapFileReaderException &exception) {
    if (error != nullptr) *error = exception.getErrorCode();
    Algorithm().Initialize(reader.GetDefaultRecords());
  }
  return Ask(user, host);
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

TEST_F(RoleMap, OnlyGroupsAndAnyoneBeforeADuplicateAreMerged) {
  ASSERT_EQ(DuplicateIn({L"+wheel,* h user", L"alice h user", L"+wheel h poweruser", L"alice h user",
                         L"+wheel,* h administrator"}),
            4u);
  EXPECT_EQ(Ask(L"bob", L"h"), 3);
  EXPECT_EQ(Ask(L"no-such-account", L"h"), 1);
}

TEST_F(RoleMap, EachRuleIsMergedForItself) {
  Use({L"+wheel h administrator", L"+wheel k user", L"* h poweruser", L"* k user", L"+operators h user"});
  EXPECT_EQ(Ask(L"bob", L"k"), 1);
  EXPECT_EQ(Ask(L"bob", L"h"), 7);
  EXPECT_EQ(Ask(L"no-such-account", L"k"), 1);
  EXPECT_EQ(Ask(L"no-such-account", L"h"), 3);
}

TEST_F(RoleMap, OnlyTheStarAloneIsAnyoneAndOnlyALeadingPlusIsAGroup) {
  Use({L"** h user", L"*x h poweruser", L"a+wheel h administrator", L"+* k user"});
  EXPECT_EQ(Ask(L"**", L"h"), 1);
  EXPECT_EQ(Ask(L"*x", L"h"), 3);
  EXPECT_EQ(Ask(L"a+wheel", L"h"), 7);
  EXPECT_EQ(Ask(L"bob", L"h"), 0);
  EXPECT_EQ(Ask(L"bob", L"k"), 0) << "a group whose name is a star is one that nobody is in";
  EXPECT_EQ(Ask(L"*", L"h"), 0) << "a user who is called like the sign for anyone";
  EXPECT_EQ(Ask(L"+wheel", L"h"), 0);
  EXPECT_EQ(DuplicateIn({L"*x h user", L"*x h user"}), 2u);
}

TEST_F(RoleMap, QueryKeepsItsNames) {
  Use({L"alice * user"});
  ZEBRole role{L"alice", L"Host1", -5};
  Algorithm().GetUserPrivileges(role);
  EXPECT_EQ(role.szUserName, L"alice");
  EXPECT_EQ(role.szHostName, L"Host1");
  EXPECT_EQ(role.nPerm, 1);
}

TEST_F(RoleMap, InstanceIsOne) { EXPECT_EQ(&ZEBRoleMapAlgorithm::GetInstance(), &ZEBRoleMapAlgorithm::GetInstance()); }

TEST_F(RoleMap, KeptFileWithADuplicateIsReplacedByTheDefaultsUntilItIsSaved) {
  int error = 0;
  const std::string good = "zoe * administrator\n";
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, good + "bob * user\nbob * user\n", 0640, 5000));
  EXPECT_EQ(AskAsPrograms(L"zoe", L"h", &error), 1);
  EXPECT_EQ(error, DUPLICATE_ENTRY);
  EXPECT_EQ(AskAsPrograms(L"zoe", L"h", &error), 1);
  EXPECT_EQ(error, 0) << "it is reported once";
  EXPECT_EQ(AskAsPrograms(L"root", L"h", &error), 7);
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, good + "bob * user\n", 0640, 5001));
  EXPECT_EQ(AskAsPrograms(L"zoe", L"h", &error), 7);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(AskAsPrograms(L"root", L"h", &error), 0);
}

TEST_F(RoleMap, KeptAfterAFormatErrorTheTablesStayThoseOfTheDefaults) {
  int error = 0;
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * administrator\nbad\n", 0640, 5000));
  EXPECT_EQ(AskAsPrograms(L"zoe", L"h", &error), 1);
  EXPECT_EQ(error, FILE_FORMAT_ERROR);
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * administrator\n", 0640, 5001));
  for (int times = 0; times < 3; ++times) {
    EXPECT_EQ(AskAsPrograms(L"zoe", L"h", &error), 1) << times;
    EXPECT_EQ(error, FILE_EMPTY) << times;
  }
}

TEST_F(RoleMap, TouchedFileIsReadAgainAndTheTablesAreBuiltAnew) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * administrator\n", 0640, 5000));
  EXPECT_EQ(AskAsPrograms(L"zoe", L"h"), 7);
  Algorithm().Initialize(QXAuthFileReader::GetInstance().GetDefaultRecords());
  EXPECT_EQ(AskAsPrograms(L"zoe", L"h"), 7) << "other records alone do not rebuild the tables";
  ASSERT_TRUE(sandbox::SetModificationTime(sandbox::kRoleMapPath, 4999));
  QXAuthFileReader::GetInstance().Open();
  Algorithm().Initialize({});
  EXPECT_EQ(Ask(L"zoe", L"h"), 0) << "the tables were stale";
  ASSERT_TRUE(sandbox::SetModificationTime(sandbox::kRoleMapPath, 5000));
  int error = 0;
  EXPECT_EQ(AskAsPrograms(L"zoe", L"h", &error), 1) << "the file was opened twice and not read in between";
  EXPECT_EQ(error, FILE_EMPTY);
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

TEST_F(RoleMap, EachStepGoesBeforeAllThatFollow) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::a/64"));
  const std::vector<std::wstring> steps = {
      L"alice *.part.x",
      L"alice part",
      L"alice 2001:DB8:0::A",
      L"alice *.sandbox.test",
      L"alice *",
      L"+wheel part",
      L"+staff 192.0.2.10",
      L"+operators *.sandbox.test",
      L"+wheel *",
      L"* part",
      L"* 2001:db8::a",
      L"* *.sandbox.test",
      L"* *",
  };
  for (size_t i = 0; i < steps.size(); ++i) {
    Use({steps[i] + L" poweruser"});
    EXPECT_EQ(Ask(L"alice", L"part"), 3) << testing::PrintToString(steps[i]);
    for (size_t j = i + 1; j < steps.size(); ++j) {
      Use({steps[i] + L" user", steps[j] + L" administrator"});
      EXPECT_EQ(Ask(L"alice", L"part"), 1) << testing::PrintToString(steps[i]) << testing::PrintToString(steps[j]);
    }
  }
}

TEST_F(RoleMap, EmptyHostIsPartOfEveryPatternAndElseAHostLikeAnyOther) {
  Use({L"alice *.zzz user", L"alice k, administrator"});
  EXPECT_EQ(Ask(L"alice", L""), 1);
  Use({L"alice k, poweruser", L"alice * user"});
  EXPECT_EQ(Ask(L"alice", L""), 3);
  EXPECT_EQ(Ask(L"alice", L"k"), 3);
  EXPECT_EQ(Ask(L"alice", L"l"), 1);
  Use({L"+wheel *.zzz poweruser", L"+wheel k, user"});
  EXPECT_EQ(Ask(L"bob", L""), 3);
  Use({L"* *.zzz poweruser", L"* k, user"});
  EXPECT_EQ(Ask(L"bob", L""), 1);
  Use({L"* *.zzz poweruser"});
  EXPECT_EQ(Ask(L"bob", L""), 0);
}

TEST_F(RoleMap, KeptHostThatIsAStarOrADotMatchesEveryPattern) {
  Use({L"alice *.zzz user", L"alice * administrator"});
  EXPECT_EQ(Ask(L"alice", L"*"), 1) << "before the rule for any host, which is the exact one here";
  EXPECT_EQ(Ask(L"alice", L"."), 1);
  EXPECT_EQ(Ask(L"alice", L"*."), 1);
  EXPECT_EQ(Ask(L"alice", L"*.zzz"), 1);
  EXPECT_EQ(Ask(L"alice", L"*.zzzz"), 7);
}

TEST_F(RoleMap, GroupPatternsAndTheExactHostAreOneStep) {
  Use({L"+wheel *.h.x user", L"+wheel h poweruser"});
  EXPECT_EQ(Ask(L"bob", L"h"), 3);
  Use({L"+wheel *.h.x administrator", L"+wheel h poweruser"});
  EXPECT_EQ(Ask(L"bob", L"h"), 7);
  Use({L"+wheel *.a.h user", L"+wheel *.b.h administrator", L"+wheel *.c.h poweruser"});
  EXPECT_EQ(Ask(L"bob", L"h"), 7) << "all patterns count, not only the first";
  Use({L"+wheel *.h.x user", L"+operators h administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 7) << "over all groups";
}

TEST_F(RoleMap, StrongestAddressOfAllGroupsCounts) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::a/64"));
  Use({L"+wheel 192.0.2.10 user", L"+wheel 2001:db8::a poweruser", L"+operators 192.0.2.10 user"});
  EXPECT_EQ(Ask(L"alice", L"h"), 3);
  Use({L"+wheel 192.0.2.10 user", L"+wheel 2001:db8::a poweruser", L"+operators 192.0.2.10 administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 7);
  EXPECT_EQ(Ask(L"bob", L"h"), 3);
}

TEST_F(RoleMap, StrongestDomainAndAnyHostOfAllGroupsCount) {
  Use({L"+wheel *.sandbox.test user", L"+operators *.sandbox.test poweruser", L"+staff * administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 3);
  Use({L"+wheel * user", L"+operators * poweruser", L"+staff * user"});
  EXPECT_EQ(Ask(L"alice", L"h"), 3);
}

TEST_F(RoleMap, OwnAddressThatIsAskedForIsAHostToo) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  Use({L"alice 192.0.2.10 user", L"alice * administrator"});
  EXPECT_EQ(Ask(L"alice", L"192.0.2.10"), 1);
  EXPECT_EQ(Ask(L"alice", L"192.0.2.99"), 1) << "the machine's own address does not depend on the asking host";
}

TEST_F(RoleMap, NotationsOfAddressesInUserRules) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::c000:20a/64"));
  const struct {
    const wchar_t *host;
    bool isOwn;
  } cases[] = {
      {L"192.0.2.10", true},
      {L"192.0.2.010", false},
      {L"192.0.2.10.", false},
      {L"192.0.522", false},
      {L"3221225994", false},
      {L"0xc000020a", false},
      {L"::ffff:192.0.2.10", false},
      {L"2001:db8::c000:20a", true},
      {L"2001:DB8::C000:20A", true},
      {L"2001:0db8:0:0:0:0:c000:020a", true},
      {L"2001:db8::192.0.2.10", true},
      {L"2001:db8::c000:20a/64", false},
      {L"2001:db8::c000:20a%net0", false},
      {L"[2001:db8::c000:20a]", false},
      {L":", false},
      {L"127.0.0.1", false},
      {L"::1", false},
      {L"0.0.0.0", false},
      {L"::", false},
  };
  for (const auto &c : cases) {
    Use({L"alice " + std::wstring(c.host) + L" poweruser"});
    EXPECT_EQ(Ask(L"alice", L"elsewhere"), c.isOwn ? 3 : 0) << testing::PrintToString(c.host);
  }
}

TEST_F(RoleMap, GroupsAndAnyoneKnowOwnAddressesAsTheSystemWritesThemOnly) {
  ASSERT_TRUE(sandbox::AddInterface("net0"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "192.0.2.10/24"));
  ASSERT_TRUE(sandbox::AddAddress("net0", "2001:db8::c000:20a/64"));
  const struct {
    const wchar_t *host;
    bool isOwn;
  } cases[] = {
      {L"192.0.2.10", true},
      {L"2001:db8::c000:20a", true},
      {L"2001:DB8::C000:20A", true},  // hosts are in lower case by then
      {L"2001:db8:0::c000:20a", false},
      {L"2001:db8::192.0.2.10", false},
      {L"127.0.0.1", false},
      {L"::1", false},
  };
  for (const auto &c : cases) {
    for (const wchar_t *name : {L"+wheel ", L"* "}) {
      Use({name + std::wstring(c.host) + L" poweruser"});
      EXPECT_EQ(Ask(L"alice", L"elsewhere"), c.isOwn ? 3 : 0)
          << testing::PrintToString(name) << testing::PrintToString(c.host);
    }
  }
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

TEST_F(RoleMap, DomainIsLowerCasedForGroupsAndAnyoneToo) {
  ASSERT_TRUE(sandbox::SetDomainName("LAB.Example"));
  for (const wchar_t *name : {L"+wheel ", L"* "}) {
    Use({name + std::wstring(L"*.Lab.EXAMPLE user"), name + std::wstring(L"* administrator")});
    EXPECT_EQ(Ask(L"bob", L"pc"), 1) << testing::PrintToString(name);
    Use({name + std::wstring(L"*.example user")});
    EXPECT_EQ(Ask(L"bob", L"pc"), 0) << testing::PrintToString(name) << "a domain above is another one";
  }
}

TEST_F(RoleMap, DomainAndGroupsAreReadByTheLocale) {
  ASSERT_TRUE(sandbox::SetDomainName("D\xC3\x89J\xC3\xA0.example"));
  ASSERT_TRUE(sandbox::SetAccounts("\xC3\xA9lan:x:1001:1001::/:/bin/sh\n",
                                   "\xC3\xA9quipe:x:1001:\nplain:x:1002:\xC3\xA9lan\n"));
  const std::vector<std::wstring> lines = {L"alice *.d\u00c9j\u00e0.example user", L"+\u00e9quipe h poweruser",
                                           L"+plain k administrator"};
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  Use(lines);
  EXPECT_EQ(Ask(L"alice", L"pc"), 1) << "letters beyond the single bytes of the locale keep their case";
  EXPECT_EQ(Ask(L"\u00e9lan", L"h"), 3);
  EXPECT_EQ(Ask(L"\u00e9lan", L"k"), 7);
  EXPECT_EQ(Ask(L"elan", L"h"), 0);
  ASSERT_NE(std::setlocale(LC_ALL, "C"), nullptr);
  EXPECT_EQ(Ask(L"alice", L"pc"), 0);
  EXPECT_EQ(Ask(L"\u00e9lan", L"k"), 0) << "there is no such account in this locale";
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

TEST_F(RoleMap, LastOfAnyNumberOfGroupsCounts) {
  for (const int count : {1, 2, 98, 99, 100, 101, 102, 150, 2000}) {
    std::string groups;
    for (int i = 1; i <= count; ++i) groups += "g" + std::to_string(i) + ":x:" + std::to_string(4000 + i) + ":eve\n";
    ASSERT_TRUE(sandbox::SetAccounts("eve:x:1005:3999::/:/bin/sh\n", "own:x:3999:\n" + groups));
    Use({L"+g" + std::to_wstring(count) + L" h poweruser", L"+g0 h administrator"});
    EXPECT_EQ(Ask(L"eve", L"h"), 3) << count;
    EXPECT_EQ(Algorithm().GetOSPrivilege("eve"), 1) << count;
    ASSERT_TRUE(sandbox::SetAccounts("eve:x:1005:3999::/:/bin/sh\n", "own:x:3999:\n" + groups + "root:x:0:eve\n"));
    EXPECT_EQ(Algorithm().GetOSPrivilege("eve"), 3) << count;
  }
}

TEST_F(RoleMap, NamesOfGroupsAndAccountsKeepTheirCase) {
  ASSERT_TRUE(sandbox::SetAccounts("alice:x:1001:1001::/:/bin/sh\nAlice:x:1002:1002::/:/bin/sh\n",
                                   "wheel:x:10:alice\nWheel:x:11:Alice\n"));
  Use({L"+wheel h user", L"+Wheel h poweruser", L"+WHEEL h administrator"});
  EXPECT_EQ(Ask(L"alice", L"h"), 1);
  EXPECT_EQ(Ask(L"Alice", L"h"), 3);
  EXPECT_EQ(Ask(L"ALICE", L"h"), 0);
}

TEST_F(RoleMap, GroupRuleNeedsItsPlus) {
  Use({L"wheel h administrator", L"+alice h poweruser"});
  EXPECT_EQ(Ask(L"bob", L"h"), 0);
  EXPECT_EQ(Ask(L"alice", L"h"), 0) << "no group is called like her";
  EXPECT_EQ(Ask(L"wheel", L"h"), 7) << "a user";
}

TEST_F(RoleMap, AccountWithALongEntry) {
  ASSERT_TRUE(sandbox::SetAccounts("eve:x:1005:10:" + std::string(100000, 'e') + ":/:/bin/sh\n", "wheel:x:10:\n"));
  Use({L"+wheel h poweruser"});
  EXPECT_EQ(Ask(L"eve", L"h"), 3);
  EXPECT_EQ(Algorithm().GetOSPrivilege("eve"), 1);
}

TEST_F(RoleMap, WithoutAccountFilesUsersAndAnyoneStillCount) {
  Use({L"alice h poweruser", L"+wheel k administrator", L"* k user"});
  ASSERT_TRUE(sandbox::RemoveTree("/etc/group"));
  EXPECT_EQ(Ask(L"alice", L"h"), 3);
  EXPECT_EQ(Ask(L"alice", L"k"), 1);
  EXPECT_EQ(Algorithm().GetOSPrivilege("alice"), 1);
  EXPECT_EQ(Algorithm().GetOSPrivilege("carol"), 3) << "a primary group needs no entry";
  ASSERT_TRUE(sandbox::RemoveTree("/etc/passwd"));
  EXPECT_EQ(Ask(L"alice", L"h"), 3);
  EXPECT_EQ(Ask(L"alice", L"k"), 1);
  EXPECT_EQ(Algorithm().GetOSPrivilege("root"), 0);
}

TEST_F(RoleMap, LookupsOfSeveralThreadsDoNotDisturbEachOther) {
  Use({L"alice h user", L"+wheel h poweruser", L"* *.sandbox.test administrator"});
  std::vector<int> wrong(4);
  std::vector<std::thread> threads;
  for (int &count : wrong) {
    threads.emplace_back([&count] {
      for (int i = 0; i < 200; ++i) {
        if (Ask(L"alice", L"h") != 1 || Ask(L"bob", L"h") != 3 || Ask(L"dave", L"h") != 7) ++count;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4));
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
  EXPECT_EQ(Ask(std::wstring(L"alice\0", 6), L"h"), 0);
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
  } cases[] = {{"root", 7}, {"toor", 7}, {"carol", 3},           {"alice", 1},
               {"dave", 1}, {"Root", 0}, {"no-such-account", 0}, {"", 0}};
  for (const auto &c : cases) EXPECT_EQ(Algorithm().GetOSPrivilege(c.account), c.expected) << c.account;
  EXPECT_EQ(Algorithm().GetOSPrivilege(nullptr), 0);
  ASSERT_TRUE(sandbox::SetAccounts("eve:x:1005:1005::/:/bin/sh\n", "root:x:0:eve\n"));
  EXPECT_EQ(Algorithm().GetOSPrivilege("eve"), 3) << "a member of group 0 that is not her primary group";
  ASSERT_TRUE(sandbox::SetAccounts("eve:x:0:1005::/:/bin/sh\n", "root:x:5:eve\n"));
  EXPECT_EQ(Algorithm().GetOSPrivilege("eve"), 7) << "the number counts, not the name";
  ASSERT_TRUE(sandbox::SetAccounts("root:x:1005:1005::/:/bin/sh\n", "root:x:5:root\n"));
  EXPECT_EQ(Algorithm().GetOSPrivilege("root"), 1);
}

TEST_F(RoleMap, OSPrivilegeDoesNotAskTheRoleMap) {
  Use({L"alice * administrator", L"* * poweruser"});
  EXPECT_EQ(Algorithm().GetOSPrivilege("alice"), 1);
  EXPECT_EQ(Algorithm().GetOSPrivilege("no-such-account"), 0);
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

namespace {

using Items = std::vector<std::wstring>;

// Mostly one item, sometimes two, which may be the same.
Items PickItems(const Items &all, std::mt19937 &random) {
  Items items(random() % 8 == 0 ? 2 : 1);
  for (std::wstring &item : items) item = all[random() % all.size()];
  return items;
}

std::wstring JoinedByCommas(const Items &items) {
  std::wstring text = items[0];
  for (size_t i = 1; i < items.size(); ++i) text += L"," + items[i];
  return text;
}

}  // namespace

TEST_F(RoleMap, AgreesWithAPlainImplementationOnAwkwardNames) {
  // Names of different lengths that share long beginnings, with the characters at the ends of a byte's range.
  const wchar_t characters[] = {L'\0', L'\x01', L'a', L'\xFE', L'\xFF', L'\x100', L'\x3042', L'\x10FFFF'};
  std::mt19937 random(12);
  for (int round = 0; round < 300; ++round) {
    std::vector<std::wstring> names(30);
    for (std::wstring &name : names) {
      if (random() % 2 == 0) name = names[random() % names.size()].substr(0, random() % 20);
      for (size_t length = random() % 4; length > 0; --length) name += characters[random() % std::size(characters)];
    }
    Model model;
    std::vector<std::wstring> lines;
    unsigned long duplicate = 0;
    for (size_t i = 0; i < names.size() && duplicate == 0; ++i) {
      // The comma gives the empty name a column, and with it a grant to a name that no other line has.
      const std::wstring other = L"other" + std::to_wstring(i);
      lines.push_back(names[i] + L"," + other + L" h " + (i % 2 == 0 ? L"user" : L"poweruser"));
      if (!model.Add(names[i], L"h", i % 2 == 0 ? 1 : 3)) duplicate = lines.size();
      if (duplicate == 0) model.Add(other, L"h", i % 2 == 0 ? 1 : 3);
    }
    ASSERT_EQ(DuplicateIn(lines), duplicate) << round;
    for (size_t i = 0; i < names.size(); ++i) {
      ASSERT_EQ(Ask(names[i], L"h"), model.Ask(names[i], L"h")) << round << testing::PrintToString(names[i]);
      const std::wstring longer = names[i] + L'\0';
      ASSERT_EQ(Ask(longer, L"h"), model.Ask(longer, L"h")) << round << testing::PrintToString(longer);
    }
  }
}

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
      const size_t role = random() % roles.size();
      const Items lineNames = PickItems(names, random);
      Items lineHosts = PickItems(hosts, random);
      // An empty host alone would be no column; behind a comma it is one.
      if (lineHosts == Items{L""}) lineHosts.push_back(L"k");
      lines.push_back(JoinedByCommas(lineNames) + L" " + JoinedByCommas(lineHosts) + L" " + roles[role]);
      for (const std::wstring &name : lineNames) {
        for (const std::wstring &host : lineHosts) {
          if (duplicate == 0 && !model.Add(name, host, privileges[role])) duplicate = lines.size();
        }
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
  EXPECT_EQ(RunProgram({ZEBCS_ROLEMAP_QUERIES}).output, "3\n");
  const auto calls = SystemCallsBetweenMarks(ZEBCS_STRACE, {ZEBCS_ROLEMAP_QUERIES});
  ASSERT_EQ(calls.size(), 1u) << Joined(calls);
  EXPECT_TRUE(calls[0].starts_with("newfstatat(AT_FDCWD, \"/opt/vorn/fleetops/etc/zebrolemap\"")) << calls[0];
}

TEST_F(RoleMap, QueryThatFallsToTheGroupsLooksEachUpOnce) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "alice other poweruser\n+wheel host1 user\n", 0640));
  const auto calls = SystemCallsBetweenMarks(ZEBCS_STRACE, {ZEBCS_ROLEMAP_QUERIES});
  EXPECT_EQ(RunProgram({ZEBCS_ROLEMAP_QUERIES}).output, "1\n");
  int roleMapChecks = 0;
  int groupFile = 0;
  int accountFile = 0;
  for (const std::string &call : calls) {
    EXPECT_FALSE(call.starts_with("socket(AF_NETLINK")) << Joined(calls);
    EXPECT_FALSE(call.starts_with("openat") && call.find("zebrolemap") != std::string::npos) << Joined(calls);
    if (call.starts_with("newfstatat") && call.find("zebrolemap") != std::string::npos) ++roleMapChecks;
    if (call.starts_with("openat") && call.find("\"/etc/group\"") != std::string::npos) ++groupFile;
    if (call.starts_with("openat") && call.find("\"/etc/passwd\"") != std::string::npos) ++accountFile;
  }
  EXPECT_EQ(roleMapChecks, 1) << Joined(calls);
  EXPECT_EQ(accountFile, 1) << Joined(calls);
  EXPECT_EQ(groupFile, 1 + 3) << "once for the list of ids, once for each of three groups\n" << Joined(calls);
}

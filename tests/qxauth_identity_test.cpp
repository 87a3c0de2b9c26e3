// Who and where this process is, and the rights of users whom a caller vouches for.
#include <grp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "guarded_buffer.h"
#include "sandbox.h"
#include "zebcs/auth.h"
#include "zebcs/frame.h"
#include "zebcs/system.h"

namespace {

using namespace std::string_literals;

constexpr const char *kCommandLog = "/opt/vorn/fleetops/var/log/kelvestane/qxcmdlog.xml";
constexpr u32 kSuperuser = 0x40007;

class Identity : public testing::Test {
 protected:
  void SetUp() override { sandbox::RequireSandbox(); }
};
using GetProcessRights = Identity;
using GetProcessUser = Identity;
using GetComputerDomainName = Identity;
using IsUserRoot = Identity;
using GetUGroups = Identity;
using AuthorizeUser = Identity;
using Platform = Identity;

}  // namespace

// --- Rights of the process ------------------------------------------------------------------------------------------

TEST_F(GetProcessRights, FollowTheIds) {
  EXPECT_EQ(OSGetProcessRights(), kSuperuser);
  EXPECT_EQ(KCSGetProcessRights(), kSuperuser);
  if (!sandbox::CanSwitchAccounts()) return;  // the superuser is all that there is to be
  constexpr uid_t alice = 1001;
  constexpr gid_t staff = 50;
  const struct {
    uid_t realUser, user, savedUser;
    gid_t realGroup, group, savedGroup;
    u32 expected;
  } cases[] = {
      {0, 0, 0, 0, 0, 0, kSuperuser},
      {0, 0, alice, 0, 0, staff, kSuperuser},
      {0, 0, 0, staff, staff, staff, kSuperuser},
      {alice, 0, 0, staff, staff, staff, 7},
      {alice, 0, 0, staff, 0, 0, 7},
      {alice, 0, alice, 0, 0, 0, 7},
      {alice, alice, alice, staff, 0, 0, 3},
      {alice, alice, alice, 0, 0, 0, 3},
      {0, alice, 0, staff, 0, 0, 3},
      {alice, alice, 0, staff, 0, staff, 3},
      {alice, alice, alice, staff, staff, staff, 1},
      {alice, alice, alice, 0, staff, 0, 1},
      {0, alice, 0, 0, staff, 0, 1},
      {alice, alice, 0, staff, staff, 0, 1},
  };
  for (const auto &c : cases) {
    const std::string what =
        testing::PrintToString(std::vector<u32>{c.realUser, c.user, c.savedUser, c.realGroup, c.group, c.savedGroup});
    sandbox::Process process;
    ASSERT_TRUE(process.Start([&](sandbox::Channel &) {
      EXPECT_EQ(setresgid(c.realGroup, c.group, c.savedGroup), 0) << what;
      EXPECT_EQ(setresuid(c.realUser, c.user, c.savedUser), 0) << what;
      EXPECT_EQ(OSGetProcessRights(), c.expected) << what;
      EXPECT_EQ(KCSGetProcessRights(), c.expected) << what;
      return 0;
    }));
    EXPECT_EQ(process.Wait(), 0) << what;
  }
}

TEST_F(GetProcessRights, OtherGroupsDoNotCount) {
  if (!sandbox::CanSwitchAccounts()) {
    EXPECT_EQ(OSGetProcessRights(), kSuperuser) << "whatever the groups, of which there is but one";
    return;
  }
  sandbox::Process process;
  ASSERT_TRUE(process.Start([](sandbox::Channel &) {
    const gid_t groups[] = {0, 10};
    EXPECT_EQ(setgroups(std::size(groups), groups), 0);
    EXPECT_EQ(setresgid(50, 50, 50), 0);
    EXPECT_EQ(setresuid(1001, 1001, 1001), 0);
    EXPECT_EQ(OSGetProcessRights(), 1u);
    return 0;
  }));
  EXPECT_EQ(process.Wait(), 0);
}

TEST_F(GetProcessRights, NeitherRoleMapNorAccountsAreAsked) {
  ASSERT_TRUE(sandbox::RemoveTree("/etc/passwd"));
  ASSERT_TRUE(sandbox::RemoveTree("/etc/group"));
  EXPECT_EQ(OSGetProcessRights(), kSuperuser);
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "root * user\n", 0640));
  EXPECT_EQ(OSGetProcessRights(), kSuperuser);
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "bad\n", 0600));
  EXPECT_EQ(OSGetProcessRights(), kSuperuser);
  EXPECT_NE(access(kCommandLog, F_OK), 0) << "nobody has met that role map";
}

// --- The account of the process -------------------------------------------------------------------------------------

namespace {

std::string ProcessUser(astring *(*get)() = &OSGetProcessUser) {
  astring *const name = get();
  if (name == nullptr) return "(null)";
  const std::string copy(name);
  std::free(name);
  return copy;
}

}  // namespace

TEST_F(GetProcessUser, IsTheFirstAccountOfTheId) {
  EXPECT_EQ(ProcessUser(), "root") << "not toor";
  EXPECT_EQ(ProcessUser(&KCSGetProcessUser), "root");
  const std::string longName(2000, 'n');
  const struct {
    std::string accounts;
    std::string expected;
  } cases[] = {
      {"toor:x:0:0::/:/bin/sh\nroot:x:0:0::/:/bin/sh\n", "toor"},
      {"root:x:5:5::/:/bin/sh\nOp:x:0:50::/:/bin/sh\n", "Op"},
      {longName + ":x:0:0::/:/bin/sh\n", longName},
      {"op:x:0:0:" + std::string(100000, 'g') + ":/:/bin/sh\n", "op"},
      {"\xFF\xC3:x:0:0::/:/bin/sh\n", "\xFF\xC3"},
      {"root:x:5:5::/:/bin/sh\n", "(null)"},
      {"", "(null)"},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::SetAccounts(c.accounts, "root:x:0:\n"));
    EXPECT_EQ(ProcessUser(), c.expected) << c.accounts.substr(0, 100);
    EXPECT_EQ(ProcessUser(&KCSGetProcessUser), c.expected);
  }
  ASSERT_TRUE(sandbox::RemoveTree("/etc/passwd"));
  EXPECT_EQ(ProcessUser(), "(null)");
}

TEST_F(GetProcessUser, RealUserCounts) {
  if (!sandbox::CanSwitchAccounts()) {
    EXPECT_EQ(ProcessUser(), "root");
    return;
  }
  const struct {
    uid_t real, effective, saved;
    const char *expected;
  } cases[] = {{1001, 0, 0, "alice"},  {0, 1001, 1001, "root"},         {1001, 1001, 1001, "alice"},
               {1002, 1001, 0, "bob"}, {65534, 65534, 65534, "nobody"}, {4711, 0, 0, "(null)"}};
  for (const auto &c : cases) {
    sandbox::Process process;
    ASSERT_TRUE(process.Start([&c](sandbox::Channel &) {
      EXPECT_EQ(setresuid(c.real, c.effective, c.saved), 0);
      EXPECT_EQ(ProcessUser(), c.expected);
      return 0;
    }));
    EXPECT_EQ(process.Wait(), 0) << c.expected;
  }
}

TEST_F(GetProcessUser, EachResultIsTheCallers) {
  astring *const first = OSGetProcessUser();
  astring *const second = OSGetProcessUser();
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  first[0] = 'X';
  EXPECT_STREQ(second, "root");
  std::free(first);
  std::free(second);
}

TEST_F(GetProcessUser, ThreadsDoNotDisturbEachOther) {
  std::vector<int> wrong(4);
  std::vector<std::thread> threads;
  for (int &count : wrong) {
    threads.emplace_back([&count] {
      for (int i = 0; i < 100; ++i) {
        if (ProcessUser() != "root" || isuserroot("toor") != 0 || isuserroot("alice") != -1) ++count;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4));
}

// --- The domain of the machine --------------------------------------------------------------------------------------

namespace {

std::string DomainName(astring *(*get)() = &OSGetComputerDomainName) {
  astring *const name = get();
  if (name == nullptr) return "(null)";
  const std::string copy(name);
  KCSFreeMem(name);
  return copy;
}

}  // namespace

TEST_F(GetComputerDomainName, IsTheKernels) {
  EXPECT_EQ(DomainName(), "sandbox.test");
  const std::string names[] = {
      "lab.example", "Lab.EXAMPLE", "",        "x",      " ",        "none", "(none",
      "(None)",      " (none)",     "x(none)", "(NONE)", "\xFF\xC3", "a b",  std::string(64, 'd')};
  for (const std::string &name : names) {
    ASSERT_TRUE(sandbox::SetDomainName(name));
    EXPECT_EQ(DomainName(), name);
    EXPECT_EQ(DomainName(&KCSGetComputerDomainName), name);
  }
}

TEST_F(GetComputerDomainName, NoneIsNull) {
  ASSERT_TRUE(sandbox::SetDomainName("(none)"));
  EXPECT_EQ(OSGetComputerDomainName(), nullptr);
  EXPECT_EQ(KCSGetComputerDomainName(), nullptr);
}

TEST_F(GetComputerDomainName, KeptNameThatOnlyBeginsLikeNoneIsNullToo) {
  for (const std::string &rest : {"x"s, ".example"s, " "s, "(none)"s, std::string(58, 'x')}) {
    ASSERT_TRUE(sandbox::SetDomainName("(none)" + rest));
    EXPECT_EQ(OSGetComputerDomainName(), nullptr) << rest;
  }
}

TEST_F(GetComputerDomainName, EmptyNameIsAText) {
  ASSERT_TRUE(sandbox::SetDomainName(""));
  astring *const name = OSGetComputerDomainName();
  ASSERT_NE(name, nullptr);
  EXPECT_STREQ(name, "");
  KCSFreeMem(name);
}

TEST_F(GetComputerDomainName, BlockIsZeroBehindTheName) {
  constexpr size_t kRoom = 150;
  for (const std::string &name : {""s, "lab.example"s, std::string(64, 'd')}) {
    ASSERT_TRUE(sandbox::SetDomainName(name));
    // A block that was in use before is what the next one may be made of.
    void *const used = std::malloc(kRoom);
    ASSERT_NE(used, nullptr);
    std::memset(used, 0xA5, kRoom);
    std::free(used);
    astring *const block = OSGetComputerDomainName();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::string(block, kRoom), name + std::string(kRoom - name.size(), '\0'));
    KCSFreeMem(block);
  }
}

// --- Constants of the platform --------------------------------------------------------------------------------------

TEST_F(Platform, TypeAndDomains) {
  EXPECT_EQ(OSGetType(), 2);
  EXPECT_EQ(KCSOSGetType(), 2);
  EXPECT_EQ(OSDomainList(), nullptr);
  EXPECT_EQ(KCSGetOSDomainList(), nullptr);
}

// --- isuserroot -----------------------------------------------------------------------------------------------------

TEST_F(IsUserRoot, UserIdZeroOfTheNameCounts) {
  const struct {
    const char *name;
    s32 expected;
  } cases[] = {{"root", 0},  {"toor", 0},   {"daemon", -1},          {"carol", -1}, {"alice", -1}, {"nobody", -1},
               {"Root", -1}, {"root ", -1}, {"no-such-account", -1}, {"0", -1},     {"+root", -1}, {"", -1}};
  for (const auto &c : cases) EXPECT_EQ(isuserroot(c.name), c.expected) << c.name;
  EXPECT_EQ(isuserroot(std::string(100000, 'r').c_str()), -1);
  EXPECT_EQ(isuserroot(nullptr), -1);
  ASSERT_TRUE(sandbox::SetAccounts("root:x:5:0::/:/bin/sh\nop:x:0:50:" + std::string(100000, 'g') + ":/:/bin/sh\n",
                                   "root:x:0:op\n"));
  EXPECT_EQ(isuserroot("root"), -1);
  EXPECT_EQ(isuserroot("op"), 0);
  ASSERT_TRUE(sandbox::RemoveTree("/etc/passwd"));
  EXPECT_EQ(isuserroot("root"), -1);
}

// --- getugroups -----------------------------------------------------------------------------------------------------

namespace {

using Ids = std::vector<u32>;

Ids Teams(u32 count) {
  Ids ids(count);
  for (u32 i = 0; i < count; ++i) ids[i] = 3000 + i;
  return ids;
}

// Asks with room for so many ids and nothing behind it, and compares all of the room.
void ExpectGroups(const std::string &user, size_t capacity, const Ids &expected) {
  const sandbox::GuardedBuffer room(capacity * sizeof(u32));
  ASSERT_EQ(getugroups(static_cast<s32>(capacity), room.data<u32>(), user.c_str()), static_cast<s32>(expected.size()))
      << user << ' ' << capacity;
  Ids whole = expected;
  whole.resize(capacity, 0xA5A5A5A5);
  EXPECT_EQ(Ids(room.data<u32>(), room.data<u32>() + capacity), whole) << user << ' ' << capacity;
}

// How many descriptors of this process lead to the group database.
int OpenDescriptors() {
  int count = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;  // the descriptor of this walk is gone when it is asked about
    if (std::filesystem::read_symlink(entry.path(), error) == "/etc/group") ++count;
  }
  return count;
}

}  // namespace

TEST_F(GetUGroups, EveryCapacity) {
  for (u32 capacity = 1; capacity <= 103; ++capacity) {
    ExpectGroups("dave", capacity, Teams(std::min(capacity, 100u)));
  }
  for (const size_t capacity : {1u, 2u, 3u, 10u}) {
    ExpectGroups("alice", capacity, capacity == 1 ? Ids{10} : Ids{10, 2000});
    ExpectGroups("bob", capacity, {10});
    ExpectGroups("no-such-account", capacity, {});
  }
}

TEST_F(GetUGroups, WithoutRoomGroupsAreCounted) {
  const struct {
    const char *user;
    s32 expected;
  } cases[] = {{"dave", 100}, {"alice", 2}, {"bob", 1}, {"carol", 0}, {"no-such-account", 0}};
  for (const auto &c : cases) {
    EXPECT_EQ(getugroups(0, nullptr, c.user), c.expected) << c.user;
    EXPECT_EQ(getugroups(1, nullptr, c.user), c.expected) << c.user;
    const sandbox::GuardedBuffer nothing(0);
    EXPECT_EQ(getugroups(0, nothing.data<u32>(), c.user), c.expected) << c.user;
  }
}

TEST_F(GetUGroups, PrimaryGroupCountsOnlyIfItListsTheUser) {
  ASSERT_TRUE(sandbox::SetAccounts("eve:x:1005:20::/:/bin/sh\n", "a:x:10:eve\nown:x:20:\nb:x:30:eve\n"));
  ExpectGroups("eve", 5, {10, 30});
  ASSERT_TRUE(sandbox::SetAccounts("eve:x:1005:20::/:/bin/sh\n", "a:x:10:eve\nown:x:20:eve\nb:x:30:eve\n"));
  ExpectGroups("eve", 5, {10, 20, 30});
}

TEST_F(GetUGroups, NamesAreComparedWholeAndAsTheyAre) {
  ASSERT_TRUE(sandbox::SetAccounts("",
                                   "a:x:10:eve\nb:x:20:Eve\nc:x:30:evelyn,ev\nd:x:40:adam,eve\neve:x:50:\ne:x:60:"
                                   "eve,adam\nf:x:70:\ng:x:80:adam\n"));
  ExpectGroups("eve", 9, {10, 40, 60});
  ExpectGroups("Eve", 9, {20});
  ExpectGroups("ev", 9, {30});
  ExpectGroups("adam", 9, {40, 60, 80});
  ExpectGroups("EVE", 9, {});
  ExpectGroups("", 9, {});
  ExpectGroups("eve,adam", 9, {});
}

TEST_F(GetUGroups, EachEntryCountsOnceAndInItsOrder) {
  ASSERT_TRUE(sandbox::SetAccounts("",
                                   "z:x:90:eve,eve,adam,eve\na:x:10:eve\nroot:x:0:eve\nagain:x:10:eve\n"
                                   "big:x:4294967294:eve\n"));
  ExpectGroups("eve", 9, {90, 10, 0, 10, 4294967294});
  ExpectGroups("eve", 3, {90, 10, 0});
  EXPECT_EQ(getugroups(0, nullptr, "eve"), 5);
}

TEST_F(GetUGroups, LongMemberLists) {
  std::string members;
  for (int i = 0; i < 20000; ++i) members += "member" + std::to_string(i) + ",";
  ASSERT_TRUE(sandbox::SetAccounts("", "a:x:10:eve\nbig:x:20:" + members + "eve\nb:x:30:eve\n"));
  ExpectGroups("eve", 5, {10, 20, 30});
}

TEST_F(GetUGroups, NullNameHasNone) {
  u32 id = 4711;
  EXPECT_EQ(getugroups(1, &id, nullptr), 0);
  EXPECT_EQ(getugroups(0, nullptr, nullptr), 0);
  EXPECT_EQ(id, 4711u);
}

TEST_F(GetUGroups, NegativeCapacityIsNoRoom) {
  const sandbox::GuardedBuffer nothing(0);
  EXPECT_EQ(getugroups(-1, nothing.data<u32>(), "alice"), 2);
}

TEST_F(GetUGroups, WalkBeginsAtTheStartAndEndsClosed) {
  const auto firstEntry = [] {
    const group *const entry = getgrent();
    return entry == nullptr ? std::string("(null)") : std::string(entry->gr_name);
  };
  for (const s32 capacity : {0, 1, 2, 3}) {
    setgrent();
    EXPECT_EQ(firstEntry(), "root");
    for (int i = 0; i < 5; ++i) EXPECT_NE(firstEntry(), "(null)");
    u32 ids[3] = {};
    EXPECT_EQ(getugroups(capacity, ids, "alice"), capacity == 1 ? 1 : 2) << capacity << ": behind both groups";
    EXPECT_EQ(OpenDescriptors(), 0) << capacity;
    EXPECT_EQ(firstEntry(), "root") << capacity << ": the walk is over, and another one starts";
    endgrent();
  }
}

TEST_F(GetUGroups, WithoutADatabaseThereAreNone) {
  ASSERT_TRUE(sandbox::SetAccounts("eve:x:1005:20::/:/bin/sh\n", ""));
  ExpectGroups("eve", 2, {});
  ASSERT_TRUE(sandbox::RemoveTree("/etc/group"));
  ExpectGroups("eve", 2, {});
  EXPECT_EQ(getugroups(0, nullptr, "eve"), 0);
}

// --- Users whom the caller vouches for ------------------------------------------------------------------------------

namespace {

// 16-bit text in memory of its own, with nothing behind it.
class WideText {
 public:
  explicit WideText(std::u16string_view text) : m_memory((text.size() + 1) * sizeof(ustring)) {
    std::memcpy(m_memory.data<char>(), text.data(), text.size() * sizeof(ustring));
    m_memory.data<ustring>()[text.size()] = 0;
  }
  const ustring *get() const { return m_memory.data<ustring>(); }

 private:
  sandbox::GuardedBuffer m_memory;
};

u32 Authorize(std::u16string_view user) {
  const WideText name(user);
  const WideText empty(u"");
  const u32 rights = OSAuthorizeUser(nullptr, name.get());
  EXPECT_EQ(OSAuthorizeUser(empty.get(), name.get()), rights) << "an empty domain is none";
  EXPECT_EQ(KCSAuthorizeUser(nullptr, name.get()), rights);
  EXPECT_EQ(KCSAuthorizeUser(empty.get(), name.get()), rights);
  EXPECT_EQ(std::u16string(user.begin(), user.end()), std::u16string(name.get(), name.get() + user.size()))
      << "the name stays";
  return rights;
}

}  // namespace

TEST_F(AuthorizeUser, RightsAreTheUsersOnThisMachine) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath,
                                 "alice sandbox poweruser\nalice * user\nbob web01 poweruser\ncarol * user\n"
                                 "zoe * administrator\nzoe web01 user\n,other * poweruser\n",
                                 0640));
  const struct {
    std::u16string user;
    u32 expected;
  } cases[] = {
      {u"alice", 3},
      {u"bob", 0},
      {u"carol", 3},
      {u"zoe", 7},
      {u"Zoe", 0},
      {u"root", kSuperuser},
      {u"toor", kSuperuser},
      {u"dave", 0},
      {u"no-such-account", 0},
      {u"alice@web01", 1},
      {u"bob@WEB01", 3},
      {u"web01\\bob", 3},
      {u"root@web01", 0x40007},
      {u"root\\alice", 0x40007},
      {u"", 3},
      {std::u16string(5000, u'x'), 0},
  };
  for (const auto &c : cases) EXPECT_EQ(Authorize(c.user), c.expected) << testing::PrintToString(c.user);
  ASSERT_TRUE(sandbox::SetHostName("Web01"));
  EXPECT_EQ(Authorize(u"alice"), 1u);
  EXPECT_EQ(Authorize(u"bob"), 3u);
  EXPECT_EQ(Authorize(u"zoe"), 1u);
}

TEST_F(AuthorizeUser, DomainIsRefused) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "* * administrator\n", 0640));
  const WideText root(u"root");
  const WideText zoe(u"zoe");
  ASSERT_EQ(OSAuthorizeUser(nullptr, zoe.get()), 7u);
  for (const char16_t *domain : {u"sandbox.test", u"sandbox", u"localhost", u".", u" ", u"\x00e9", u"\xD800"}) {
    const WideText text(domain);
    EXPECT_EQ(OSAuthorizeUser(text.get(), root.get()), 0u) << testing::PrintToString(domain);
    EXPECT_EQ(OSAuthorizeUser(text.get(), zoe.get()), 0u);
    EXPECT_EQ(KCSAuthorizeUser(text.get(), root.get()), 0u);
    EXPECT_EQ(OSAuthorizeUser(text.get(), nullptr), 0u);
  }
}

TEST_F(AuthorizeUser, KeptNameBeyondASCIIIsRefused) {
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "* * administrator\n", 0640));
  ASSERT_EQ(Authorize(u"zoe\x7F"), 7u);
  const std::u16string names[] = {u"\x80",  u"\xE9",  u"d\xE9j\xE0", u"zoe\xFF",
                                  u"\x7FF", u"\x800", u"\x3042",     u"\xFFFD"};
  for (const std::u16string &name : names) EXPECT_EQ(Authorize(name), 0u) << testing::PrintToString(name);
}

TEST_F(AuthorizeUser, NameWithASurrogateIsRefused) {
  // Not taken for another name either: these must not become "aa" and "zoezz".
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "* * administrator\n", 0640));
  const std::u16string names[] = {u"\xD83D\xDE00", u"\xD800", u"\xDC00x", u"a\xD800", u"zoe\xD83D\xDE00"};
  for (const std::u16string &name : names) EXPECT_EQ(Authorize(name), 0u) << testing::PrintToString(name);
}

TEST_F(AuthorizeUser, NullNameHasNone) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "* * administrator\n", 0640));
  EXPECT_EQ(OSAuthorizeUser(nullptr, nullptr), 0u);
  EXPECT_EQ(KCSAuthorizeUser(nullptr, nullptr), 0u);
}

TEST_F(AuthorizeUser, RefusedBeforeTheRoleMapIsLookedAt) {
  const WideText domain(u"sandbox.test");
  const WideText name(u"alice");
  const WideText foreign(
      u"al\xEF"
      u"ce");
  EXPECT_EQ(OSAuthorizeUser(domain.get(), name.get()), 0u);
  EXPECT_EQ(OSAuthorizeUser(nullptr, foreign.get()), 0u);
  EXPECT_EQ(OSAuthorizeUser(nullptr, nullptr), 0u);
  EXPECT_NE(access(kCommandLog, F_OK), 0) << "the missing file was not met";
  EXPECT_EQ(OSAuthorizeUser(nullptr, name.get()), 1u) << "the built-in rules";
  EXPECT_EQ(access(kCommandLog, F_OK), 0);
}

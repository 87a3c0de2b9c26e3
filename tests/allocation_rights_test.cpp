// Memory that runs out while rights are told and users log in: never more rights than there are, no half-built tables,
// no password left behind. What PAM, its modules and the C library ask for fails as well.
#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <security/pam_appl.h>
#include <sys/select.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <functional>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "failing_malloc.h"
#include "sandbox.h"
#include "shared_file.h"
#include "zebcs/rolemap.hpp"
#include "zebcs/zebcs.h"

#pragma GCC visibility push(default)  // PAM finds this before the C library's
extern "C" {

// Nobody tries passwords here: PAM need not wait after a login that has failed, which it does without descriptors.
int select(int count, fd_set *readable, fd_set *writable, fd_set *exceptional, timeval *timeout) {
  if (count == 0) return 0;
  timespec time = {};
  if (timeout != nullptr) time = {.tv_sec = timeout->tv_sec, .tv_nsec = timeout->tv_usec * 1000};
  return pselect(count, readable, writable, exceptional, timeout == nullptr ? nullptr : &time, nullptr);
}

}  // extern "C"
#pragma GCC visibility pop

namespace {

constexpr const char *kServicePath = "/etc/pam.d/qxauth";
constexpr const char *kPasswords = "auth required pam_unix.so nodelay\naccount required pam_unix.so\n";
constexpr const char *kAnybody = "auth required pam_permit.so\naccount required pam_permit.so\n";
constexpr const char *kNobody = "auth required pam_deny.so\naccount required pam_deny.so\n";

// The password "alice's word".
constexpr const char *kShadow =
    "root:!:19000:0:99999:7:::\n"
    "alice:$5$rounds=1000$salt$LAPjm8IxZfzU7gsCjkJ4YehoZHgEVhTCHOPMEEuQva.:19000:0:99999:7:::\n";

// Nobody's rights are those that the built-in rules give.
constexpr const char *kRules = "alice * poweruser\nbob * poweruser\n";
constexpr int kFileNotFoundID = 5912;
constexpr int kGrantsFailedID = 5915;
constexpr u32 kAlicesRights = ZEBCS_RIGHTS_POWER_USER;

// Sets the databases of accounts up, which the C library does once: it can crash when that fails, and the test too.
void SetUpAccounts() {
  (void)isuserroot("alice");
  (void)getugroups(0, nullptr, "alice");
  ZEBRoleMapAlgorithm::GetInstance().GetOSPrivilege("alice");
}

void PrepareSandbox() {
  sandbox::RequireSandbox();
  setenv("TZ", "UTC0", 1);
  ASSERT_TRUE(sandbox::MakeDirectories(sandbox::kLogDirectory));
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, kRules, 0640));
  ASSERT_TRUE(sandbox::WriteFile("/etc/shadow", kShadow, 0640));
  ASSERT_TRUE(sandbox::WriteFile("/etc/pam.d/other", kNobody));  // PAM's choice where it has no memory for the service
  SetUpAccounts();
}

u32 RightsOf(const std::string &user) {
  std::string text = user;
  return get_user_rights(text.data());
}

// The rights of all, which tell one set of rules from another.
std::vector<u32> AllRights() { return {RightsOf("alice"), RightsOf("bob"), RightsOf("dave"), RightsOf("carol")}; }
const std::vector<u32> kByTheFile = {3, 3, 0, 0};
const std::vector<u32> kByTheBuiltInRules = {1, 1, 1, 3};

// Runs `body` with the number of the request in a process of its own, as often as there are requests: the role map's
// reader and PAM's modules keep a state. The body returns whether a request failed. Returns how many there were.
int WalkInProcesses(const std::function<bool(int, Failing)> &body) {
  constexpr int kFailed = 10;
  constexpr int kEnough = 11;
  int requests = 0;
  for (const Failing failing : {Failing::kOne, Failing::kAllBehind}) {
    int status = kFailed;
    for (int n = 1; status != kEnough && n < 200; ++n) {
      SCOPED_TRACE("request " + std::to_string(n) + (failing == Failing::kOne ? "" : " and those behind it"));
      sandbox::Process process;
      if (!process.Start([&](sandbox::Channel &) { return body(n, failing) ? kFailed : kEnough; })) return -1;
      status = process.Wait();
      EXPECT_TRUE(status == kFailed || status == kEnough) << status;
      if (status == kFailed && failing == Failing::kOne) requests = n;
    }
  }
  return requests;
}

}  // namespace

// --- The rights of a user --------------------------------------------------------------------------------------------

// A reading that was broken off leaves the reader without a file, and the built-in rules stand in for it.
TEST(AllocationOfRights, TablesAreThoseOfTheFileOrTheBuiltInOnes) {
  PrepareSandbox();
  const int requests = WalkInProcesses([](int n, Failing failing) {
    std::string alice = "alice";
    u32 rights = 99;
    const bool failed = FailRequest(
        n, [&] { rights = get_user_rights(alice.data()); }, failing);
    // The built-in rules also answer at once: where a line's grants cannot be made.
    EXPECT_TRUE(rights == kAlicesRights || (failed && rights <= ZEBCS_RIGHTS_USER)) << rights;
    const std::vector<u32> all = AllRights();
    EXPECT_TRUE(all == kByTheFile || (failed && all == kByTheBuiltInRules)) << ::testing::PrintToString(all);
    EXPECT_EQ(AllRights(), all);
    EXPECT_TRUE(sandbox::LockIsFree());
    return failed;
  });
  EXPECT_GT(requests, 20);
}

// Tables that were read well go on to count while the new ones cannot be made.
TEST(AllocationOfRights, ChangedFileIsReadLaterOrTheBuiltInRulesStandIn) {
  PrepareSandbox();
  const int requests = WalkInProcesses([](int n, Failing failing) {
    EXPECT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, kRules, 0640, 1000000));
    EXPECT_EQ(AllRights(), kByTheFile);
    EXPECT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "alice * administrator\ndave * user\n", 0640, 2000000));
    std::string dave = "dave";
    u32 rights = 99;
    const bool failed = FailRequest(
        n, [&] { rights = get_user_rights(dave.data()); }, failing);
    EXPECT_TRUE(rights == ZEBCS_RIGHTS_USER || (failed && rights == 0)) << rights;
    const std::vector<u32> all = AllRights();
    EXPECT_TRUE(all == (std::vector<u32>{7, 0, 1, 0}) || (failed && all == kByTheBuiltInRules))
        << ::testing::PrintToString(all);
    return failed;
  });
  EXPECT_GT(requests, 20);
}

TEST(AllocationOfRights, UserWithoutARuleGetsNothingWhenTheFileCannotBeOpenedForWantOfMemory) {
  PrepareSandbox();
  WalkInProcesses([](int n, Failing failing) {
    constexpr const char *kCommandLog = "/opt/vorn/fleetops/var/log/kelvestane/qxcmdlog.xml";
    EXPECT_TRUE(sandbox::RemoveTree(kCommandLog));
    std::string dave = "dave";
    u32 rights = 99;
    const bool failed = FailRequest(
        n, [&] { rights = get_user_rights(dave.data()); }, failing);
    // The file is there: it must not be reported as missing, with the built-in rules in its place.
    const std::string log = sandbox::Exists(kCommandLog) ? sandbox::ReadFile(kCommandLog) : "";
    EXPECT_EQ(log.find("<ID>" + std::to_string(kFileNotFoundID) + "</ID>"), std::string::npos);
    if (log.find("<ID>" + std::to_string(kGrantsFailedID) + "</ID>") == std::string::npos) {
      EXPECT_EQ(rights, 0u);
    }
    return failed;
  });
}

// The account is in a hundred groups, which is more than are asked for at first; none of them is group 0.
TEST(AllocationOfRights, GroupsThatCannotBeHadAreNotReadFromMemoryThatNobodyFilled) {
  PrepareSandbox();
  ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
  ASSERT_EQ(algorithm.GetOSPrivilege("dave"), 1);
  s32 privilege = 99;
  const int requests =
      WalkRequests([] { l_memory.newBytes = 0; }, [&] { privilege = algorithm.GetOSPrivilege("dave"); },
                   [&](bool failed) {
                     EXPECT_TRUE(privilege == 1 || (failed && privilege == 0)) << privilege;
                     return 0;
                   });
  EXPECT_GT(requests, 3);
}

TEST(AllocationOfRights, FileThatCouldNotBeOpenedForWantOfMemoryIsReadByTheNextCall) {
  PrepareSandbox();
  WalkInProcesses([](int n, Failing failing) {
    bool wasOpened = true;
    const bool failed = FailRequest(
        n,
        [&] {
          try {
            QXAuthFileReader::GetInstance().Open();
          } catch (const std::exception &) {
            wasOpened = false;
          }
        },
        failing);
    EXPECT_TRUE(wasOpened || failed);
    if (!wasOpened) {
      EXPECT_EQ(AllRights(), kByTheFile);
    }
    return failed;
  });
}

TEST(AllocationOfRights, WarmLookUpIsRightOrNothing) {
  PrepareSandbox();
  ASSERT_EQ(AllRights(), kByTheFile);
  const struct {
    const char *rules;
    const char *user;
    std::set<u32> answers;
  } cases[] = {
      // Without the account, its groups and the machine's addresses there is less to go by.
      {"alice * poweruser\n", "alice", {3}},
      {"+wheel * administrator\n* * user\n", "alice@h", {7, 1}},
      {"+root * user\n", "carol", {3, 1}},
      {"alice 127.0.0.1,*.test,h administrator\n", "alice@h", {7}},
      {"alice 127.0.0.1,*.test administrator\n", "alice@nowhere", {1, 7}},
      {"root * user\n", "root", {0x40007, 1}},
  };
  time_t time = 3000000;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.rules);
    ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, c.rules, 0640, time += 1000));
    const u32 right = RightsOf(c.user);
    std::string user;
    u32 rights = 99;
    const int requests = WalkRequests([&] { user = c.user; }, [&] { rights = get_user_rights(user.data()); },
                                      [&](bool failed) {
                                        if (failed && rights != right) {
                                          EXPECT_TRUE(rights == 0 || (c.answers.contains(rights) && rights < right))
                                              << rights;
                                        } else {
                                          EXPECT_EQ(rights, right);
                                        }
                                        EXPECT_EQ(RightsOf(c.user), right);
                                        return 0;
                                      });
    EXPECT_GE(requests, 1);
  }
}

TEST(AllocationOfRights, OwnRightsAreRightOrNothing) {
  PrepareSandbox();
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "root * poweruser\n", 0640));
  int requests = WalkInProcesses([](int n, Failing failing) {
    EXPECT_EQ(KCSOpenRolemapFile(), 0u);
    u32 rights = 99;
    const bool failed = FailRequest(
        n, [&] { rights = KCSGetRightsUsingRolemap(); }, failing);
    // Where a line's grants cannot be made the built-in rules stand in, by which user root is administrator. So they do
    // after a reading that was broken off.
    EXPECT_TRUE(rights == ZEBCS_RIGHTS_POWER_USER || (failed && (rights == 0 || rights == ZEBCS_RIGHTS_ADMINISTRATOR)))
        << rights;
    const u32 next = KCSGetRightsUsingRolemap();
    EXPECT_TRUE(next == ZEBCS_RIGHTS_POWER_USER || (failed && next == ZEBCS_RIGHTS_ADMINISTRATOR)) << next;
    return failed;
  });
  EXPECT_GT(requests, 10);

  requests = WalkInProcesses([](int n, Failing failing) {
    u32 result = 99;
    const bool failed = FailRequest(
        n, [&] { result = KCSOpenRolemapFile(); }, failing);
    EXPECT_EQ(result, 0u);
    return failed;
  });
  EXPECT_GT(requests, 1);
}

TEST(AllocationOfRights, AuthorizedUserGetsHisRightsOrNothing) {
  PrepareSandbox();
  ASSERT_EQ(AllRights(), kByTheFile);
  const ustring alice[] = {'a', 'l', 'i', 'c', 'e', 0};
  const ustring none[] = {0};
  u32 rights = 99;
  const int requests = WalkRequests([] {}, [&] { rights = KCSAuthorizeUser(none, alice); },
                                    [&](bool failed) {
                                      EXPECT_TRUE(rights == kAlicesRights || (failed && rights == 0)) << rights;
                                      return 0;
                                    });
  EXPECT_GE(requests, 3);
}

TEST(AllocationOfRights, MaskedRightsAreRightOrNothing) {
  PrepareSandbox();
  const std::string app = "/opt/vorn/fleetops/etc/app.ini";
  const std::string brandDirectory = "/opt/vorn/fleetops/etc/kelvestane/wwwroot/oem/brand/ini/vorn";
  ASSERT_TRUE(sandbox::MakeDirectories(brandDirectory));
  ASSERT_TRUE(sandbox::WriteFile(app, "[OEM]\nname=brand\n"));
  ASSERT_TRUE(sandbox::WriteFile(brandDirectory + "/appoem.ini", "[data]\naccessmask=1\n"));
  u32 rights = 99;
  u32 failureIndex = 0;
  const int requests = WalkRequests([&] { failureIndex = 0; },
                                    [&] { rights = KCSMaskProgramRights(0x50001, "app", app.c_str(), &failureIndex); },
                                    [&](bool failed) {
                                      EXPECT_EQ(rights, failed ? 0u : 0x50000u);
                                      EXPECT_EQ(failureIndex, failed ? 0u : 1001u);
                                      EXPECT_TRUE(sandbox::LockIsFree());
                                      return 0;
                                    });
  EXPECT_EQ(requests, 2);
}

// --- The role map's classes ------------------------------------------------------------------------------------------

TEST(AllocationOfRights, RecordGivesItsGrantsOrThrows) {
  const std::wstring line(L"a-long-user-name,another-long-name a-long-host-name,another-long-host-name user");
  std::optional<size_t> count;
  const int requests = WalkRequests([&] { count.reset(); },
                                    [&] {
                                      try {
                                        QXAuthFileRecord record(line, 7);
                                        record.PopulateZEBRoles();
                                        std::deque<ZEBRole *> roles;
                                        record.GetRoles(roles);
                                        count = roles.size();
                                      } catch (const std::bad_alloc &) {
                                      } catch (const ZEBRoleMapFileReaderException &) {}
                                    },
                                    [&](bool failed) {
                                      EXPECT_EQ(count, failed ? std::nullopt : std::optional<size_t>(4));
                                      return 0;
                                    });
  EXPECT_GT(requests, 8);
}

TEST(AllocationOfRights, BuiltInRecordsAreAllOrAnException) {
  PrepareSandbox();
  QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
  ASSERT_EQ(reader.GetDefaultRecords().size(), 3u);
  std::optional<size_t> count;
  const int requests = WalkRequests([&] { count.reset(); },
                                    [&] {
                                      try {
                                        count = reader.GetDefaultRecords().size();
                                      } catch (const std::bad_alloc &) {
                                      } catch (const ZEBRoleMapFileReaderException &) {}
                                    },
                                    [&](bool failed) {
                                      EXPECT_EQ(count, failed ? std::nullopt : std::optional<size_t>(3));
                                      EXPECT_EQ(reader.GetDefaultRecords().size(), 3u);
                                      return l_memory.blocks;  // the records of before were the first to go
                                    });
  EXPECT_GT(requests, 3);
}

TEST(AllocationOfRights, TablesStayWhenNewOnesCannotBeMade) {
  PrepareSandbox();
  const int requests = WalkInProcesses([](int n, Failing failing) {
    ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
    QXAuthFileRecord first(L"alice,bob h user", 1);
    QXAuthFileRecord second(L"+wheel,* *.domain,10.0.0.1,h administrator", 2);
    first.PopulateZEBRoles();
    second.PopulateZEBRoles();
    bool threw = false;
    const bool failed = FailRequest(
        n,
        [&] {
          try {
            algorithm.Initialize({&first, &second});
          } catch (const std::bad_alloc &) {
            threw = true;
          }
        },
        failing);
    ZEBRole role{L"alice", L"h", 99};
    algorithm.GetUserPrivileges(role);
    EXPECT_EQ(role.nPerm, threw ? 0 : 1);
    algorithm.Initialize({&first, &second});
    algorithm.GetUserPrivileges(role);
    EXPECT_EQ(role.nPerm, 1);
    EXPECT_TRUE(failed || !threw);
    return failed;
  });
  EXPECT_GT(requests, 5);
}

// --- Login -----------------------------------------------------------------------------------------------------------

namespace {

constexpr std::u16string_view kAlicesWord = u"alice's word";
constexpr std::u16string_view kOtherWord = u"another word";

std::vector<ustring> Units(std::u16string_view text) {
  std::vector<ustring> units(text.begin(), text.end());
  units.push_back(0);
  return units;
}

constexpr int kForeignCrash = 12;

// With passwords one request fails alone: while there is no memory at all, PAM looks an account up for ever.
const std::vector<Failing> kOneAlone = {Failing::kOne};
const std::vector<Failing> kBothModes = {Failing::kOne, Failing::kAllBehind};

// Ends the process in another way when a library that PAM uses does not bear the want of memory.
void OnCrash(int /*signal*/) {
  std::array<void *, 64> frames{};
  const int count = backtrace(frames.data(), static_cast<int>(frames.size()));
  for (int i = 0; i < count; ++i) {
    Dl_info info = {};
    if (dladdr(frames[static_cast<size_t>(i)], &info) == 0 || info.dli_fname == nullptr) continue;
    const std::string_view library = info.dli_fname;
    if (library.find("libzebcs") != library.npos) break;
    if (library.find("pam") != library.npos) _exit(kForeignCrash);
  }
  _exit(1);
}

// Calls `body` with the number of the request until it asks for no more, in a process that is made anew when a library
// behind PAM has crashed. The body returns whether a request failed. Returns how many requests there were.
int WalkLogins(const std::function<bool(int, Failing)> &body, const std::vector<Failing> &modes) {
  int requests = 0;
  for (const Failing failing : modes) {
    std::atomic<int> &number = sandbox::NewSharedNumber();
    int status = kForeignCrash;
    while (status == kForeignCrash) {
      sandbox::Process process;
      if (!process.Start([&](sandbox::Channel &) {
            std::array<void *, 1> frame{};
            (void)backtrace(frame.data(), 1);  // loads what it needs
            (void)std::signal(SIGSEGV, OnCrash);
            (void)std::signal(SIGABRT, OnCrash);
            while (body(++number, failing) && !::testing::Test::HasFailure()) continue;
            return 0;
          })) {
        return -1;
      }
      status = process.Wait();
    }
    EXPECT_EQ(status, 0) << "request " << number << (failing == Failing::kOne ? "" : " and those behind it");
    if (failing == Failing::kOne) requests = number;
  }
  return requests;
}

// Walks the login of alice.
int WalkLogin(std::u16string_view word, u32 right, const std::vector<Failing> &modes) {
  return WalkLogins(
      [=](int n, Failing failing) {
        EXPECT_EQ(RightsOf("alice"), kAlicesRights);  // the role map is not what is walked here
        const std::vector<ustring> user = Units(u"alice");
        std::vector<ustring> password = Units(word);
        const std::set<std::string> descriptors = OpenDescriptors();
        u32 rights = 99;
        const bool failed = FailRequest(
            n, [&] { rights = KCSAuthenticateUser(nullptr, user.data(), password.data()); }, failing);
        EXPECT_TRUE(rights == right || (failed && rights == 0)) << rights << " at request " << n;
        EXPECT_EQ(password, std::vector<ustring>(word.size() + 1, 0)) << n;
        EXPECT_EQ(OpenDescriptors(), descriptors) << n;
        EXPECT_TRUE(sandbox::LockIsFree());
        return failed;
      },
      modes);
}

}  // namespace

TEST(AllocationOfLogin, RightPasswordGivesTheRightsOrNothing) {
  PrepareSandbox();
  ASSERT_TRUE(sandbox::WriteFile(kServicePath, kPasswords));
  EXPECT_GT(WalkLogin(kAlicesWord, kAlicesRights, kOneAlone), 20);
}

TEST(AllocationOfLogin, WrongPasswordGivesNothing) {
  PrepareSandbox();
  ASSERT_TRUE(sandbox::WriteFile(kServicePath, kPasswords));
  EXPECT_GT(WalkLogin(kOtherWord, 0, kOneAlone), 20);
}

TEST(AllocationOfLogin, ServiceThatAcceptsOrRefusesAnybodyGivesNoMoreThanThat) {
  PrepareSandbox();
  ASSERT_TRUE(sandbox::WriteFile(kServicePath, kAnybody));
  EXPECT_GT(WalkLogin(kOtherWord, kAlicesRights, kBothModes), 20);
  ASSERT_TRUE(sandbox::WriteFile(kServicePath, kNobody));
  EXPECT_GT(WalkLogin(kOtherWord, 0, kBothModes), 20);
}

TEST(AllocationOfLogin, PlainLoginIsRefusedForWantOfMemory) {
  PrepareSandbox();
  ASSERT_TRUE(sandbox::WriteFile(kServicePath, kAnybody));
  int requests = WalkLogins(
      [](int n, Failing failing) {
        s32 result = -99;
        const bool failed = FailRequest(
            n, [&] { result = pam_auth_basic_user("alice", "word"); }, failing);
        EXPECT_TRUE(result == 0 || (failed && result == -1)) << result;
        return failed;
      },
      kBothModes);
  EXPECT_GT(requests, 10);
  requests = WalkLogins(
      [](int n, Failing failing) {
        EXPECT_EQ(RightsOf("alice"), kAlicesRights);
        std::string alice = "alice";
        u32 rights = 99;
        const bool failed = FailRequest(
            n, [&] { rights = LXAuthenticateUser(alice.data(), "word"); }, failing);
        EXPECT_TRUE(rights == kAlicesRights || (failed && rights == 0)) << rights;
        return failed;
      },
      kBothModes);
  EXPECT_GT(requests, 10);
}

TEST(AllocationOfLogin, ConversationStoresNothing) {
  const pam_message password = {.msg_style = PAM_PROMPT_ECHO_OFF, .msg = "Password: "};
  const pam_message name = {.msg_style = PAM_PROMPT_ECHO_ON, .msg = "login: "};
  const pam_message *messages[] = {&name, &password, &name};
  auth_pam_userinfo user = {"alice", "alice's word"};
  pam_response *responses = nullptr;
  int result = -99;
  const int requests =
      WalkRequests([&] { responses = nullptr; }, [&] { result = auth_pam_talker(3, messages, &responses, &user); },
                   [&](bool failed) {
                     EXPECT_EQ(result, failed ? PAM_CONV_ERR : PAM_SUCCESS);
                     EXPECT_EQ(responses == nullptr, failed);
                     if (responses == nullptr) return 0;
                     for (int i = 0; i < 3; ++i) std::free(responses[i].resp);
                     std::free(responses);
                     return 4;
                   });
  EXPECT_EQ(requests, 4);
}

// --- Who and where this process is -----------------------------------------------------------------------------------

TEST(AllocationOfRights, IdentityIsNullOrRight) {
  PrepareSandbox();
  astring *text = nullptr;
  int requests = WalkRequests([] {}, [&] { text = KCSGetProcessUser(); },
                              [&](bool failed) {
                                if (!failed || text != nullptr) {
                                  EXPECT_STREQ(text, "root");
                                }
                                std::free(text);
                                return text == nullptr ? 0 : 1;
                              });
  EXPECT_GE(requests, 1);
  requests = WalkRequests([] {}, [&] { text = KCSGetComputerDomainName(); },
                          [&](bool failed) {
                            EXPECT_STREQ(text, failed ? nullptr : "sandbox.test");
                            KCSFreeMem(text);
                            return failed ? 0 : 1;
                          });
  EXPECT_EQ(requests, 1);
  s32 answer = -99;
  requests = WalkRequests([] {}, [&] { answer = isuserroot("root"); },
                          [&](bool failed) {
                            EXPECT_TRUE(answer == 0 || (failed && answer == -1)) << answer;
                            return 0;
                          });
  EXPECT_GE(requests, 1);
  EXPECT_EQ(isuserroot("root"), 0);
  s32 count = -99;
  const s32 allGroups = getugroups(0, nullptr, "dave");
  EXPECT_EQ(allGroups, 100);
  WalkRequests([] {}, [&] { count = getugroups(0, nullptr, "dave"); },
               [&](bool failed) {
                 EXPECT_TRUE(count == allGroups || (failed && count >= 0 && count < allGroups)) << count;
                 EXPECT_EQ(getugroups(0, nullptr, "dave"), allGroups);
                 return l_memory.blocks;  // the C library keeps its own
               });
}

// Login: the conversation, the PAM transaction, the rights that come of it, and what is left of the password.
//
// The sandbox has an /etc of its own, in which the service "qxauth" is made of the system's real modules.
#include <crypt.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <security/pam_appl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "guarded_buffer.h"
#include "sandbox.h"
#include "zebcs/auth.h"

// --- The calls that the library makes to PAM -------------------------------------------------------------------------

namespace {

using Calls = std::vector<std::string>;

thread_local Calls l_calls;
thread_local pam_conv l_conversation;

// PAM's own function behind one of those below.
template <class Function>
Function *Real(Function * /*ours*/, const char *name) {
  void *const address = dlsym(RTLD_NEXT, name);
  if (address == nullptr) std::abort();
  return reinterpret_cast<Function *>(address);
}

int Note(const std::string &call, int result) {
  l_calls.push_back(call + ": " + std::to_string(result));
  return result;
}

// Stands between a module and the conversation.
int Overhear(int count, const pam_message **messages, pam_response **responses, void * /*data*/) {
  std::string call = "say";
  for (int i = 0; i < count; ++i) call += ' ' + std::to_string(messages[i]->msg_style);
  return Note(call, l_conversation.conv(count, messages, responses, l_conversation.appdata_ptr));
}

Calls CallsOf(const std::function<void()> &body) {
  l_calls.clear();
  body();
  return std::exchange(l_calls, {});
}

}  // namespace

#pragma GCC visibility push(default)  // the library finds these before PAM's
extern "C" {

int pam_start(const char *service, const char *user, const pam_conv *conversation, pam_handle_t **handle) {
  l_conversation = *conversation;
  const pam_conv overheard = {.conv = Overhear, .appdata_ptr = nullptr};
  return Note(std::string("start ") + service + ' ' + user,
              Real(pam_start, "pam_start")(service, user, &overheard, handle));
}

int pam_authenticate(pam_handle_t *handle, int flags) {
  return Note("authenticate " + std::to_string(flags), Real(pam_authenticate, "pam_authenticate")(handle, flags));
}

int pam_acct_mgmt(pam_handle_t *handle, int flags) {
  return Note("account " + std::to_string(flags), Real(pam_acct_mgmt, "pam_acct_mgmt")(handle, flags));
}

int pam_end(pam_handle_t *handle, int status) {
  return Note("end " + std::to_string(status), Real(pam_end, "pam_end")(handle, status));
}

int pam_setcred(pam_handle_t *handle, int flags) {
  return Note("setcred", Real(pam_setcred, "pam_setcred")(handle, flags));
}

int pam_open_session(pam_handle_t *handle, int flags) {
  return Note("open session", Real(pam_open_session, "pam_open_session")(handle, flags));
}

int pam_close_session(pam_handle_t *handle, int flags) {
  return Note("close session", Real(pam_close_session, "pam_close_session")(handle, flags));
}

int pam_chauthtok(pam_handle_t *handle, int flags) {
  return Note("change password", Real(pam_chauthtok, "pam_chauthtok")(handle, flags));
}

#ifdef ZEBCS_SANITIZED
// The sanitizers' own function of this name knows only what was loaded when the program started, and libcrypt comes
// with a module.
char *crypt_r(const char *phrase, const char *setting, crypt_data *data) {
  static void *const library = dlopen("libcrypt.so.1", RTLD_NOW);
  void *const address = library == nullptr ? nullptr : dlsym(library, "crypt_r");
  if (address == nullptr) std::abort();
  return reinterpret_cast<decltype(&crypt_r)>(address)(phrase, setting, data);
}

// Left alone: the lock of the dynamic linker, which PAM asks for modules, is not known to the sanitizer; libaudit,
// which PAM tells of every login, keeps the path of the program in a buffer that all threads fill alike.
const char *__tsan_default_suppressions();
const char *__tsan_default_suppressions() { return "race:ld-linux-x86-64.so\nrace:libaudit.so\n"; }
#endif

}  // extern "C"
#pragma GCC visibility pop

// --- Services, accounts, rules ---------------------------------------------------------------------------------------

namespace {

using sandbox::GuardedBuffer;

constexpr const char *kServicePath = "/etc/pam.d/qxauth";
constexpr const char *kNologinPath = "/etc/nologin";

constexpr const char *kPasswords = "auth required pam_unix.so nodelay\naccount required pam_unix.so\n";
constexpr const char *kAnybody = "auth required pam_permit.so\naccount required pam_permit.so\n";
constexpr const char *kNobody = "auth required pam_deny.so\naccount required pam_deny.so\n";

struct HashOf {
  static constexpr const char *kAlicesWord = "$5$rounds=1000$salt$LAPjm8IxZfzU7gsCjkJ4YehoZHgEVhTCHOPMEEuQva.";
  static constexpr const char *kBobsWord = "$5$rounds=1000$salt$8TIap3GkPfVorQ6Lb1MrkzwDPqyI2FE9kHU7CQTW6m1";
  static constexpr const char *kCarolsWord = "$y$j75$abcdefghijklmnop$Jmf2CXLZqO3AoMlt9IgwEvDCAHnfcewSRwRlUtT3bV0";
  static constexpr const char *kRootsWord = "$5$rounds=1000$salt$LTwbmAIAjtkpm/QafJBGLbiKnJOni8XELNHUQ94T2W8";
  static constexpr const char *kCorpWord = "$5$rounds=1000$salt$WBtEwjuKgRuZw3jOWPfihUI.J5v6QobFRW7BzuZkC7B";
  static constexpr const char *kUmlautWord = "$5$rounds=1000$salt$Z4uYpJM65vnBPPjAedSTJwreapj0gU8V2cffb/OAyo8";
  static constexpr const char *kSecret = "$5$rounds=1000$salt$oDPg.mgALEJ/i86umSgid0hl29HmsfmRKR6f7iBHbl7";
};

constexpr const char *kUsualAging = "19000:0:99999:7:::";

// The password of an account is the text that its hash is named after, in the form "alice's word".
struct TestAccount {
  const char *name;
  int group;  // primary group; 0 is the superuser's
  const char *hash;
  const char *aging;
};
constexpr TestAccount kAccounts[] = {
    {"alice", 50, HashOf::kAlicesWord, kUsualAging},
    {"alice@corp", 50, HashOf::kCorpWord, kUsualAging},
    {"bob", 50, HashOf::kBobsWord, kUsualAging},
    {"bob@", 50, HashOf::kCorpWord, kUsualAging},
    {"carol", 0, HashOf::kCarolsWord, kUsualAging},
    {"dave", 50, HashOf::kAlicesWord, kUsualAging},
    {"j\xc3\xb6rg", 50, HashOf::kUmlautWord, kUsualAging},
    {"empty", 50, "", kUsualAging},
    {"locked", 50, "!", kUsualAging},
    {"expired", 50, HashOf::kAlicesWord, "19000:0:99999:7::18000:"},
    {"stale", 50, HashOf::kAlicesWord, "0:0:99999:7:::"},
    {"aged", 50, HashOf::kAlicesWord, "10000:0:10:7:5::"},
    {"keeper", 50, HashOf::kSecret, kUsualAging},
};

// Everybody has a rule who must be kept out by PAM alone; dave has none.
constexpr const char *kRules =
    "alice corp administrator\n"
    "alice sandbox poweruser\n"
    "bob,carol,empty,locked,expired,stale,aged,keeper,ftp * user\n";

bool SetService(std::string_view text) { return sandbox::WriteFile(kServicePath, text); }
bool SetRules(std::string_view text) { return sandbox::WriteFile(sandbox::kRoleMapPath, text, 0640); }

bool SetTestAccounts() {
  std::string passwd = "root:x:0:0:root:/root:/bin/sh\n";
  std::string shadow = std::string("root:") + HashOf::kRootsWord + ':' + kUsualAging + '\n';
  int id = 1001;
  for (const TestAccount &account : kAccounts) {
    passwd += std::string(account.name) + ":x:" + std::to_string(id++) + ':' + std::to_string(account.group) +
              "::/nonexistent:/bin/sh\n";
    shadow += std::string(account.name) + ':' + account.hash + ':' + account.aging + '\n';
  }
  return sandbox::SetAccounts(passwd, "root:x:0:\nstaff:x:50:\n") && sandbox::WriteFile("/etc/shadow", shadow, 0640);
}

class LoginTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(SetTestAccounts() && SetRules(kRules) && SetService(kPasswords)); }
};
using PamTransaction = LoginTest;
using LocalLogin = LoginTest;
using Login = LoginTest;

// A 16-bit text that ends where its memory ends, or has other units behind it.
class Text {
 public:
  explicit Text(std::u16string_view text, size_t unitsBehind = 0)
      : m_text(text), m_buffer((text.size() + 1 + unitsBehind) * sizeof(ustring)) {
    std::copy(text.begin(), text.end(), get());
    get()[text.size()] = 0;
  }

  ustring *get() const { return m_buffer.data<ustring>(); }
  bool IsUnchanged() const { return std::equal(m_text.begin(), m_text.end(), get()) && RestIsUnchanged(); }
  bool IsZeroed() const {
    return std::all_of(get(), get() + m_text.size(), [](ustring unit) { return unit == 0; }) && RestIsUnchanged();
  }

 private:
  bool RestIsUnchanged() const {
    const ustring *const end = get() + m_text.size();
    const unsigned char *const behind = reinterpret_cast<const unsigned char *>(end + 1);
    return *end == 0 && std::all_of(behind, m_buffer.data<const unsigned char>() + m_buffer.size(),
                                    [](unsigned char byte) { return byte == GuardedBuffer::kFill; });
  }

  std::u16string m_text;
  GuardedBuffer m_buffer;
};

using OptionalText = std::optional<std::u16string_view>;

// Logs in once with each of the two names of the function, and sees to it that the password is gone and the rest left.
u32 LogIn(OptionalText domain, std::u16string_view user, std::u16string_view password) {
  const Text domainText(domain.value_or(u""));
  const Text userText(user);
  const Text exact(password);
  const Text roomy(password, 5);
  const ustring *const pDomain = domain ? domainText.get() : nullptr;
  const u32 rights = KCSAuthenticateUser(pDomain, userText.get(), exact.get());
  EXPECT_EQ(OSAuthenticateUser(pDomain, userText.get(), roomy.get()), rights);
  EXPECT_TRUE(exact.IsZeroed() && roomy.IsZeroed()) << "the caller's password";
  EXPECT_TRUE(domainText.IsUnchanged() && userText.IsUnchanged());
  return rights;
}

std::string Narrow(std::u16string_view text) { return {text.begin(), text.end()}; }

}  // namespace

// --- The conversation ------------------------------------------------------------------------------------------------

namespace {

constexpr pam_message kPasswordPrompt = {.msg_style = PAM_PROMPT_ECHO_OFF, .msg = "Password: "};
constexpr pam_message kNamePrompt = {.msg_style = PAM_PROMPT_ECHO_ON, .msg = "login: "};
constexpr pam_message kInformation = {.msg_style = PAM_TEXT_INFO, .msg = "Welcome."};

// Releases the responses as PAM does.
void Release(pam_response *responses, size_t count) {
  for (size_t i = 0; i < count; ++i) std::free(responses[i].resp);
  std::free(responses);
}

size_t HeapInUse() { return mallinfo2().uordblks; }

}  // namespace

static_assert(sizeof(pam_response) == 16);
static_assert(sizeof(auth_pam_userinfo) == 16 && offsetof(auth_pam_userinfo, name) == 0 &&
              offsetof(auth_pam_userinfo, pw) == 8);

TEST(AuthPamTalker, PromptsAreAnsweredByStyle) {
  auth_pam_userinfo info{"a name", "a word"};
  const pam_message *messages[] = {&kPasswordPrompt, &kNamePrompt, &kNamePrompt, &kPasswordPrompt, &kPasswordPrompt};
  const char *const answers[] = {"a word", "a name", "a name", "a word", "a word"};
  for (int count = 0; count <= 5; ++count) {
    pam_response *responses = nullptr;
    ASSERT_EQ(auth_pam_talker(count, messages, &responses, &info), PAM_SUCCESS);
    ASSERT_NE(responses, nullptr) << count;
    for (int i = 0; i < count; ++i) {
      EXPECT_STREQ(responses[i].resp, answers[i]) << i;
      EXPECT_EQ(responses[i].resp_retcode, 0) << i;
      EXPECT_NE(responses[i].resp, info.pw);
      EXPECT_NE(responses[i].resp, info.name);
      for (int j = 0; j < i; ++j) EXPECT_NE(responses[i].resp, responses[j].resp) << "each is a block of its own";
    }
    Release(responses, static_cast<size_t>(count));
  }
  EXPECT_STREQ(info.name, "a name");
  EXPECT_STREQ(info.pw, "a word");
}

TEST(AuthPamTalker, AnswersAreCopiedByteByByte) {
  const std::string any = "w\xc3\xb6rd \xff\x01\n" + std::string(5000, 'x');
  for (const std::string &text : {std::string(), std::string("x"), any}) {
    auth_pam_userinfo info{text.c_str(), text.c_str()};
    const pam_message *messages[] = {&kPasswordPrompt, &kNamePrompt};
    pam_response *responses = nullptr;
    ASSERT_EQ(auth_pam_talker(2, messages, &responses, &info), PAM_SUCCESS);
    EXPECT_EQ(std::string(responses[0].resp), text);
    EXPECT_EQ(std::string(responses[1].resp), text);
    Release(responses, 2);
  }
}

TEST(AuthPamTalker, NullArgumentsAreRefused) {
  auth_pam_userinfo info{"name", "word"};
  const pam_message *messages[] = {&kPasswordPrompt};
  pam_response untouched{};
  pam_response *responses = &untouched;
  EXPECT_EQ(auth_pam_talker(1, nullptr, &responses, &info), PAM_CONV_ERR);
  EXPECT_EQ(auth_pam_talker(1, messages, nullptr, &info), PAM_CONV_ERR);
  EXPECT_EQ(auth_pam_talker(1, messages, &responses, nullptr), PAM_CONV_ERR);
  EXPECT_EQ(auth_pam_talker(1, nullptr, nullptr, nullptr), PAM_CONV_ERR);
  EXPECT_EQ(auth_pam_talker(0, nullptr, &responses, &info), PAM_CONV_ERR);
  const pam_message *holed[] = {&kPasswordPrompt, nullptr};
  EXPECT_EQ(auth_pam_talker(2, holed, &responses, &info), PAM_CONV_ERR);
  EXPECT_EQ(responses, &untouched);
}

TEST(AuthPamTalker, PromptForWhatIsMissingEndsTheConversation) {
  const pam_message *prompts[] = {&kNamePrompt, &kPasswordPrompt};
  pam_response untouched{};
  pam_response *responses = &untouched;
  auth_pam_userinfo withoutWord{"name", nullptr};
  EXPECT_EQ(auth_pam_talker(2, prompts, &responses, &withoutWord), PAM_CONV_ERR);
  auth_pam_userinfo withoutName{nullptr, "word"};
  EXPECT_EQ(auth_pam_talker(2, prompts, &responses, &withoutName), PAM_CONV_ERR);
  EXPECT_EQ(responses, &untouched);
}

TEST(AuthPamTalker, KeptEveryOtherStyleEndsTheConversation) {
  auth_pam_userinfo info{"name", "word"};
  for (const int style : {INT_MIN, -1, 0, PAM_ERROR_MSG, PAM_TEXT_INFO, PAM_RADIO_TYPE, 6, PAM_BINARY_PROMPT, 257, 258,
                          65537, 65538, INT_MAX}) {
    const pam_message other = {.msg_style = style, .msg = "text"};
    for (size_t position = 0; position < 3; ++position) {
      const pam_message *messages[] = {&kPasswordPrompt, &kNamePrompt, &kPasswordPrompt};
      messages[position] = &other;
      pam_response untouched{};
      pam_response *responses = &untouched;
      EXPECT_EQ(auth_pam_talker(3, messages, &responses, &info), 19) << style << " at " << position;
      EXPECT_EQ(responses, &untouched);
    }
  }
}

TEST(AuthPamTalker, FailureHalfWayLeavesNothingBehind) {
  const std::string word(200, 'w');
  auth_pam_userinfo info{"name", word.c_str()};
  std::vector<const pam_message *> messages(1000, &kPasswordPrompt);
  messages.back() = &kInformation;
  pam_response *responses = nullptr;
  const auto fail = [&] { return auth_pam_talker(1000, messages.data(), &responses, &info); };
  ASSERT_EQ(fail(), PAM_CONV_ERR);  // the heap has its first blocks in reserve then
  const size_t before = HeapInUse();
  for (int i = 0; i < 20; ++i) ASSERT_EQ(fail(), PAM_CONV_ERR);
  EXPECT_EQ(HeapInUse(), before);
  EXPECT_EQ(responses, nullptr);
}

TEST(AuthPamTalker, CountIsAtMost65535) {
  auth_pam_userinfo info{"name", "word"};
  std::vector<const pam_message *> messages(65535, &kPasswordPrompt);
  messages.back() = &kNamePrompt;
  pam_response *responses = nullptr;
  ASSERT_EQ(auth_pam_talker(65535, messages.data(), &responses, &info), PAM_SUCCESS);
  for (size_t i = 0; i < 65534; ++i) ASSERT_STREQ(responses[i].resp, "word") << i;
  EXPECT_STREQ(responses[65534].resp, "name");
  Release(responses, 65535);

  pam_response untouched{};
  responses = &untouched;
  for (const int count : {65536, 65537, 131072, INT_MAX, -1, -65535, -65536, INT_MIN}) {
    EXPECT_EQ(auth_pam_talker(count, messages.data(), &responses, &info), PAM_CONV_ERR) << count;
  }
  EXPECT_EQ(responses, &untouched);
}

#ifndef ZEBCS_SANITIZED  // whose runtimes need memory of their own and end the process for want of it

namespace {

// Lets the process have this much more memory than it has, for as long as the object lives.
class LittleMemory {
 public:
  explicit LittleMemory(size_t more) {
    const std::string sizes = sandbox::ReadFile("/proc/self/statm");
    const size_t pages = std::strtoul(sizes.c_str(), nullptr, 10);
    EXPECT_EQ(getrlimit(RLIMIT_AS, &m_before), 0);
    rlimit limit = m_before;
    limit.rlim_cur = pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) + more;
    EXPECT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
  }
  LittleMemory(const LittleMemory &) = delete;
  LittleMemory &operator=(const LittleMemory &) = delete;
  ~LittleMemory() { EXPECT_EQ(setrlimit(RLIMIT_AS, &m_before), 0); }

 private:
  rlimit m_before{};
};

constexpr size_t kMebibyte = size_t{1} << 20;

}  // namespace

TEST(AuthPamTalker, MemoryThatRunsOutHalfWayIsAnError) {
  sandbox::RequireSandbox();
  const std::string word(kMebibyte, 'w');
  auth_pam_userinfo info{"name", word.c_str()};
  std::vector<const pam_message *> messages(1000, &kPasswordPrompt);
  pam_response untouched{};
  pam_response *responses = &untouched;
  for (int i = 0; i < 3; ++i) {
    const LittleMemory little(32 * kMebibyte);  // a leak would leave nothing for the prompts that follow
    EXPECT_EQ(auth_pam_talker(1000, messages.data(), &responses, &info), PAM_CONV_ERR);
    EXPECT_EQ(responses, &untouched);
  }
  const LittleMemory little(32 * kMebibyte);
  ASSERT_EQ(auth_pam_talker(20, messages.data(), &responses, &info), PAM_SUCCESS);
  Release(responses, 20);
}

TEST_F(Login, MemoryThatRunsOutIsNoLogin) {
  ASSERT_TRUE(SetService(kAnybody));
  ASSERT_EQ(LogIn({}, u"bob", u""), ZEBCS_RIGHTS_USER);
  const std::u16string longText(20 * kMebibyte, u'x');
  const struct {
    const char *what;
    OptionalText domain;
    std::u16string_view user;
    std::u16string_view password;
  } cases[] = {
      {"password", {}, u"bob", longText},
      {"user", {}, longText, u"word"},
      {"domain", longText, u"bob", u"word"},
  };
  for (const auto &c : cases) {
    const Text domain(c.domain.value_or(u""));
    const Text user(c.user);
    const Text password(c.password);
    const Calls calls = CallsOf([&] {
      const LittleMemory little(10 * kMebibyte);
      EXPECT_EQ(OSAuthenticateUser(c.domain ? domain.get() : nullptr, user.get(), password.get()), 0u) << c.what;
    });
    EXPECT_EQ(calls, Calls()) << c.what;
    EXPECT_TRUE(password.IsZeroed()) << c.what;
  }
}

#endif

// --- The transaction -------------------------------------------------------------------------------------------------

TEST_F(PamTransaction, IsAuthenticationAndAccountCheckAlone) {
  const std::string closed = std::string("pam_nologin.so file=") + kNologinPath + '\n';
  const std::string byPassword = "auth required pam_unix.so nodelay\n";
  const std::string always = "account required pam_permit.so\n";
  ASSERT_TRUE(sandbox::WriteFile(kNologinPath, "Closed.\n"));
  const struct {
    const char *what;
    std::string service;
    const char *user;
    const char *password;
    s32 result;
    Calls afterStart;
  } cases[] = {
      {"right", kPasswords, "alice", "alice's word", 0, {"say 1: 0", "authenticate 1: 0", "account 1: 0", "end 0: 0"}},
      {"wrong", kPasswords, "alice", "alice's wors", -1, {"say 1: 0", "authenticate 1: 7", "end 7: 0"}},
      {"no password wanted", kAnybody, "alice", "x", 0, {"authenticate 1: 0", "account 1: 0", "end 0: 0"}},
      {"nobody wanted", kNobody, "alice", "alice's word", -1, {"authenticate 1: 7", "end 7: 0"}},
      {"unknown", kPasswords, "nosuch", "word", -1, {"say 1: 0", "authenticate 1: 10", "end 10: 0"}},
      {"account refused",
       "auth required pam_permit.so\naccount requisite pam_deny.so\n",
       "alice",
       "x",
       -1,
       {"authenticate 1: 0", "account 1: 7", "end 7: 0"}},
      {"account expired",
       kPasswords,
       "expired",
       "alice's word",
       -1,
       {"say 1: 0", "authenticate 1: 0", "say 3: 19", "account 1: 13", "end 13: 0"}},
      {"new password required",
       kPasswords,
       "stale",
       "alice's word",
       -1,
       {"say 1: 0", "authenticate 1: 0", "say 3: 19", "account 1: 12", "end 12: 0"}},
      {"password too old",
       kPasswords,
       "aged",
       "alice's word",
       -1,
       {"say 1: 0", "authenticate 1: 0", "say 3: 19", "account 1: 27", "end 27: 0"}},
      {"closed to logins",
       byPassword + "account required " + closed,
       "alice",
       "alice's word",
       -1,
       {"say 1: 0", "authenticate 1: 0", "say 3: 19", "account 1: 7", "end 7: 0"}},
      {"closed from the start",
       "auth requisite " + closed + byPassword + always,
       "alice",
       "alice's word",
       -1,
       {"say 3: 19", "authenticate 1: 7", "end 7: 0"}},
      {"two prompts",
       "auth required pam_ftp.so\nauth required pam_ftp.so\n" + always,
       "ftp",
       "ftp",
       0,
       {"say 1: 0", "say 1: 0", "authenticate 1: 0", "account 1: 0", "end 0: 0"}},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(SetService(c.service)) << c.what;
    Calls expected = c.afterStart;
    expected.insert(expected.begin(), std::string("start qxauth ") + c.user + ": 0");
    const Calls calls = CallsOf([&c] { EXPECT_EQ(pam_auth_basic_user(c.user, c.password), c.result) << c.what; });
    EXPECT_EQ(calls, expected) << c.what;
  }
}

TEST_F(PamTransaction, ThatDoesNotStartIsNotEnded) {
  ASSERT_TRUE(sandbox::RemoveTree("/etc/pam.d"));
  sandbox::Process process;  // which ends without a look for leaks, as PAM itself leaves something behind
  ASSERT_TRUE(process.Start([](sandbox::Channel &) {
    const Calls calls = CallsOf([] { EXPECT_EQ(pam_auth_basic_user("alice", "alice's word"), -1); });
    EXPECT_EQ(calls, Calls({"start qxauth alice: " + std::to_string(PAM_ABORT)}));
    EXPECT_EQ(LogIn({}, u"alice", u"alice's word"), 0u);
    return 0;
  }));
  EXPECT_EQ(process.Wait(), 0);
}

TEST_F(PamTransaction, EmptyPasswordsAreForbidden) {
  // The service and the account would do with none; it is the flag that forbids it.
  ASSERT_TRUE(SetService("auth required pam_unix.so nodelay nullok\naccount required pam_unix.so\n"));
  auth_pam_userinfo info{"empty", ""};
  const pam_conv conversation = {.conv = auth_pam_talker, .appdata_ptr = &info};
  pam_handle_t *handle = nullptr;
  ASSERT_EQ(pam_start("qxauth", "empty", &conversation, &handle), PAM_SUCCESS);
  EXPECT_EQ(pam_authenticate(handle, 0), PAM_SUCCESS);
  EXPECT_EQ(pam_end(handle, PAM_SUCCESS), PAM_SUCCESS);

  EXPECT_EQ(pam_auth_basic_user("empty", ""), -1);
  EXPECT_EQ(pam_auth_basic_user("empty", "word"), -1);
  EXPECT_EQ(LogIn({}, u"empty", u""), 0u);
  EXPECT_EQ(LogIn({}, u"empty", u"word"), 0u);
}

TEST_F(PamTransaction, ArgumentsMustBeThere) {
  ASSERT_TRUE(SetService(kAnybody));
  const Calls calls = CallsOf([] {
    EXPECT_EQ(pam_auth_basic_user(nullptr, "word"), -1);
    EXPECT_EQ(pam_auth_basic_user("alice", nullptr), -1);
    EXPECT_EQ(pam_auth_basic_user(nullptr, nullptr), -1);
  });
  EXPECT_EQ(calls, Calls());
}

TEST_F(PamTransaction, ServiceIsTheProgramsChoice) {
  EXPECT_STREQ(pam_servicename, "qxauth");
  const char other[] = "another-service";
  ASSERT_TRUE(SetService(kNobody));
  ASSERT_TRUE(sandbox::WriteFile(std::string("/etc/pam.d/") + other, kPasswords));
  EXPECT_EQ(LogIn({}, u"alice", u"alice's word"), 0u);
  pam_servicename = other;
  const Calls calls = CallsOf([] { EXPECT_EQ(pam_auth_basic_user("alice", "alice's word"), 0); });
  EXPECT_EQ(calls.at(0), "start another-service alice: 0");
  EXPECT_EQ(LogIn({}, u"alice", u"alice's word"), ZEBCS_RIGHTS_POWER_USER);
  EXPECT_EQ(LogIn({}, u"alice", u"alice's wors"), 0u);
  EXPECT_EQ(pam_servicename, other) << "the library leaves it alone";
}

TEST_F(PamTransaction, ModulesSeeNameAndPassword) {
  const sandbox::TemporaryDirectory directory;
  const std::string log = directory.Path("log");
  const std::string exec = "required pam_exec.so quiet log=" + log;
  ASSERT_TRUE(SetService("auth " + exec + " expose_authtok /bin/cat\naccount " + exec + " /usr/bin/env\n"));
  EXPECT_EQ(LogIn(u"corp", u"alice", u"any word"), ZEBCS_RIGHTS_ADMINISTRATOR);
  const std::string seen = sandbox::ReadFile(log);
  EXPECT_NE(seen.find("any word"), std::string::npos) << seen;
  EXPECT_NE(seen.find("\nPAM_USER=alice@corp\n"), std::string::npos) << seen;
  EXPECT_NE(seen.find("\nPAM_SERVICE=qxauth\n"), std::string::npos) << seen;
}

// --- Local text ------------------------------------------------------------------------------------------------------

TEST_F(LocalLogin, NameEndsAtItsSeparatorOnceTheLoginIsGood) {
  ASSERT_TRUE(SetService(kAnybody));
  const struct {
    const char *user;
    u32 rights;
    const char *userAfter;
  } cases[] = {
      {"alice", ZEBCS_RIGHTS_POWER_USER, "alice"},
      {"alice@corp", ZEBCS_RIGHTS_ADMINISTRATOR, "alice"},
      {"alice@", ZEBCS_RIGHTS_NONE, "alice"},
      {"bob@", ZEBCS_RIGHTS_USER, "bob"},
      {"corp\\alice", ZEBCS_RIGHTS_ADMINISTRATOR, "corp"},
      {"dave", ZEBCS_RIGHTS_NONE, "dave"},
      {"j\xc3\xb6rg@any", ZEBCS_RIGHTS_NONE, "j\xc3\xb6rg"},  // matches no rule before the locale is set
  };
  for (const auto &c : cases) {
    std::string user = c.user;
    const GuardedBuffer password(5);
    std::memcpy(password.data<char>(), "word", 5);
    EXPECT_EQ(LXAuthenticateUser(user.data(), password.data<char>()), c.rights) << c.user;
    EXPECT_STREQ(user.c_str(), c.userAfter) << c.user;
    EXPECT_STREQ(password.data<char>(), "word") << "stays the caller's";
  }
  ASSERT_TRUE(SetService(kNobody));
  for (const auto &c : cases) {
    std::string user = c.user;
    EXPECT_EQ(LXAuthenticateUser(user.data(), "word"), 0u) << c.user;
    EXPECT_EQ(user, c.user) << "the rights were not asked for";
  }
}

TEST_F(LocalLogin, AnyByteGoesToPam) {
  const Calls calls = CallsOf([] { EXPECT_EQ(pam_auth_basic_user("j\xc3\xb6rg", "w\xc3\xb6rd"), 0); });
  EXPECT_EQ(calls.at(0), "start qxauth j\xc3\xb6rg: 0");
  EXPECT_EQ(pam_auth_basic_user("j\xc3\xb6rg", "w\xf6rd"), -1);
  EXPECT_EQ(pam_auth_basic_user("j\xc3\xb6rg", "word"), -1);
}

TEST_F(LocalLogin, PasswordDecides) {
  std::string alice = "alice";
  EXPECT_EQ(LXAuthenticateUser(alice.data(), "alice's word"), ZEBCS_RIGHTS_POWER_USER);
  EXPECT_EQ(LXAuthenticateUser(alice.data(), "alice's wors"), 0u);
  EXPECT_EQ(LXAuthenticateUser(alice.data(), ""), 0u);
  EXPECT_EQ(LXAuthenticateUser(alice.data(), nullptr), 0u);
  EXPECT_EQ(LXAuthenticateUser(nullptr, "alice's word"), 0u);
}

// --- 16-bit text -----------------------------------------------------------------------------------------------------

TEST_F(Login, PasswordDecidesAndRulesGrant) {
  const struct {
    OptionalText domain;
    std::u16string_view user;
    std::u16string_view password;
    u32 rights;
  } cases[] = {
      {{}, u"alice", u"alice's word", ZEBCS_RIGHTS_POWER_USER},
      {{}, u"bob", u"bob's word", ZEBCS_RIGHTS_USER},
      {{}, u"carol", u"carol's word", ZEBCS_RIGHTS_POWER_USER},  // by her group
      {{}, u"root", u"root's word", ZEBCS_RIGHTS_SUPERUSER},     // without a rule
      {{}, u"dave", u"alice's word", ZEBCS_RIGHTS_NONE},         // authenticated, but granted nothing
      {{}, u"alice", u"", ZEBCS_RIGHTS_NONE},
      {{}, u"alice", u"a", ZEBCS_RIGHTS_NONE},
      {{}, u"alice", u"alice's wor", ZEBCS_RIGHTS_NONE},
      {{}, u"alice", u"alice's word ", ZEBCS_RIGHTS_NONE},
      {{}, u"alice", u"Alice's word", ZEBCS_RIGHTS_NONE},
      {{}, u"alice", u"bob's word", ZEBCS_RIGHTS_NONE},
      {{}, u"root", u"alice's word", ZEBCS_RIGHTS_NONE},
      {{}, u"nosuch", u"alice's word", ZEBCS_RIGHTS_NONE},
      {{}, u"Alice", u"alice's word", ZEBCS_RIGHTS_NONE},
      {{}, u"alice ", u"alice's word", ZEBCS_RIGHTS_NONE},
      {{}, u"locked", u"", ZEBCS_RIGHTS_NONE},
      {{}, u"locked", u"!", ZEBCS_RIGHTS_NONE},
      {{}, u"expired", u"alice's word", ZEBCS_RIGHTS_NONE},
      {{}, u"stale", u"alice's word", ZEBCS_RIGHTS_NONE},
      {u"corp", u"alice", u"corp word", ZEBCS_RIGHTS_ADMINISTRATOR},
      {{}, u"alice@corp", u"corp word", ZEBCS_RIGHTS_ADMINISTRATOR},
      {u"corp", u"alice", u"alice's word", ZEBCS_RIGHTS_NONE},
      {u"CORP", u"alice", u"corp word", ZEBCS_RIGHTS_NONE},  // no account of that name
      {u"", u"bob", u"corp word", ZEBCS_RIGHTS_USER},
      {u"", u"bob", u"bob's word", ZEBCS_RIGHTS_NONE},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(LogIn(c.domain, c.user, c.password), c.rights)
        << Narrow(c.domain.value_or(u"(none)")) << ' ' << Narrow(c.user) << ' ' << Narrow(c.password);
  }
}

TEST_F(Login, DomainIsPartOfTheNameForPamAndTheHostForTheRules) {
  ASSERT_TRUE(SetService(kAnybody));
  const std::u16string longDomain(3000, u'd');
  const std::u16string longUser(3000, u'u');
  const struct {
    OptionalText domain;
    std::u16string_view user;
    std::string name;
    u32 rights;
  } cases[] = {
      {{}, u"alice", "alice", ZEBCS_RIGHTS_POWER_USER},
      {u"corp", u"alice", "alice@corp", ZEBCS_RIGHTS_ADMINISTRATOR},
      {u"CoRP", u"alice", "alice@CoRP", ZEBCS_RIGHTS_ADMINISTRATOR},
      {u"sandbox", u"alice", "alice@sandbox", ZEBCS_RIGHTS_POWER_USER},
      {u"corp", u"Alice", "Alice@corp", ZEBCS_RIGHTS_NONE},
      {u"corp ", u"alice", "alice@corp ", ZEBCS_RIGHTS_NONE},
      {u"elsewhere", u"alice", "alice@elsewhere", ZEBCS_RIGHTS_NONE},
      {u"elsewhere", u"bob", "bob@elsewhere", ZEBCS_RIGHTS_USER},
      {u"", u"alice", "alice@", ZEBCS_RIGHTS_NONE},
      {u"", u"bob", "bob@", ZEBCS_RIGHTS_USER},
      {{}, u"alice@corp", "alice@corp", ZEBCS_RIGHTS_ADMINISTRATOR},
      {u"elsewhere", u"alice@corp", "alice@corp@elsewhere", ZEBCS_RIGHTS_ADMINISTRATOR},
      {{}, u"corp\\alice", "corp\\alice", ZEBCS_RIGHTS_ADMINISTRATOR},
      {{}, u"CORP\\alice", "CORP\\alice", ZEBCS_RIGHTS_ADMINISTRATOR},
      {u"corp", u"corp\\alice", "corp\\alice@corp", ZEBCS_RIGHTS_NONE},
      {u"corp", u"root", "root@corp", ZEBCS_RIGHTS_SUPERUSER},
      {u"%s%n", u"bob", "bob@%s%n", ZEBCS_RIGHTS_USER},
      {longDomain, u"bob", "bob@" + Narrow(longDomain), ZEBCS_RIGHTS_USER},
      {longDomain, longUser, Narrow(longUser) + '@' + Narrow(longDomain), ZEBCS_RIGHTS_NONE},
      {{}, longUser, Narrow(longUser), ZEBCS_RIGHTS_NONE},
  };
  for (const auto &c : cases) {
    const Calls one = {"start qxauth " + c.name + ": 0", "authenticate 1: 0", "account 1: 0", "end 0: 0"};
    Calls both = one;
    both.insert(both.end(), one.begin(), one.end());
    const Calls calls = CallsOf([&c] { EXPECT_EQ(LogIn(c.domain, c.user, u"word"), c.rights) << c.name; });
    EXPECT_EQ(calls, both);
  }
}

TEST_F(Login, KeptTheAccountBehindABackslashedNameIsItsHost) {
  ASSERT_TRUE(SetService(kAnybody));
  EXPECT_EQ(LogIn({}, u"root\\dave", u"word"), ZEBCS_RIGHTS_SUPERUSER);
  EXPECT_EQ(LogIn({}, u"carol\\bob", u"word"), ZEBCS_RIGHTS_POWER_USER);
  EXPECT_EQ(LogIn({}, u"corp\\root", u"word"), ZEBCS_RIGHTS_NONE);
}

TEST_F(Login, KeptAnythingBeyondAsciiIsRefused) {
  ASSERT_TRUE(SetService(kAnybody) && SetRules("* * user\n"));
  ASSERT_EQ(LogIn(u"d\x7f", u"u\x01", u"p\x7f"), ZEBCS_RIGHTS_USER);
  const std::u16string before(300, u'x');
  const std::u16string texts[] = {u"\u0080",
                                  u"\u00e9",
                                  u"alic\u00e9",
                                  u"\u00e9lice",
                                  u"al\u00ffce",
                                  u"\u07ff",
                                  u"\u0800",
                                  u"al\u20acce",
                                  u"\uffff",
                                  u"\ufeffcorp",
                                  u"\u0661",
                                  u"\u00e9\u00e9x",
                                  before + u"\u00e9",
                                  u"\u00e9" + before,
                                  u"\U0001f600",
                                  u"\U0001f600x",
                                  u"\U0010ffff\u00e9",
                                  std::u16string{0xd83d},
                                  std::u16string{0xde00, 'x'}};
  for (const std::u16string &text : texts) {
    const Calls calls = CallsOf([&text] {
      EXPECT_EQ(LogIn({}, text, u"word"), 0u);
      EXPECT_EQ(LogIn(u"corp", text, u"word"), 0u);
      EXPECT_EQ(LogIn(text, u"alice", u"word"), 0u);
      EXPECT_EQ(LogIn({}, u"alice", text), 0u);
      EXPECT_EQ(LogIn(u"corp", u"alice", text), 0u);
      EXPECT_EQ(LogIn(text, text, text), 0u);
    });
    EXPECT_EQ(calls, Calls()) << "PAM is not asked";
  }
}

TEST_F(Login, CharactersBeyondSixteenBitsAreRefusedAfterAnAsciiLetter) {
  ASSERT_TRUE(SetService(kAnybody) && SetRules("* * user\n"));
  for (const std::u16string_view text : {u"al\U0001f600ce", u"a\U0010ffff"}) {
    const Calls calls = CallsOf([text] {
      EXPECT_EQ(LogIn({}, text, u"word"), 0u);
      EXPECT_EQ(LogIn(text, u"alice", u"word"), 0u);
      EXPECT_EQ(LogIn({}, u"alice", text), 0u);
    });
    EXPECT_EQ(calls, Calls()) << "PAM is not asked";
  }
}

TEST_F(Login, ArgumentsMustBeThereExceptTheDomain) {
  ASSERT_TRUE(SetService(kAnybody));
  const Text domain(u"corp");
  const Text user(u"alice");
  for (const ustring *const pDomain :
       {static_cast<const ustring *>(nullptr), static_cast<const ustring *>(domain.get())})
    for (const auto authenticate : {KCSAuthenticateUser, OSAuthenticateUser}) {
      const Text password(u"word", 1);
      const Calls calls = CallsOf([&] {
        EXPECT_EQ(authenticate(pDomain, user.get(), nullptr), 0u);
        EXPECT_EQ(authenticate(pDomain, nullptr, nullptr), 0u);
        EXPECT_TRUE(password.IsUnchanged());
        EXPECT_EQ(authenticate(pDomain, nullptr, password.get()), 0u);
      });
      EXPECT_EQ(calls, Calls());
      EXPECT_TRUE(password.IsZeroed());
    }
}

TEST_F(Login, KeptAnErrorMessageEndsIt) {
  ASSERT_TRUE(sandbox::WriteFile(kNologinPath, "Closed.\n"));
  ASSERT_TRUE(SetService(std::string(kPasswords) + "auth required pam_nologin.so file=" + kNologinPath + '\n'));
  EXPECT_EQ(LogIn({}, u"alice", u"alice's word"), 0u);
  ASSERT_TRUE(sandbox::RemoveTree(kNologinPath));
  EXPECT_EQ(LogIn({}, u"alice", u"alice's word"), ZEBCS_RIGHTS_POWER_USER);
}

TEST_F(Login, KeptAnInformationalMessageEndsIt) {
  const std::string echo = "required pam_echo.so Welcome\n";
  for (const std::string &line : {"auth " + echo, "account " + echo}) {
    ASSERT_TRUE(SetService(line + kPasswords));
    EXPECT_EQ(LogIn({}, u"alice", u"alice's word"), 0u) << line;
    ASSERT_TRUE(SetService(kPasswords + line));
    EXPECT_EQ(LogIn({}, u"alice", u"alice's word"), 0u) << line;
  }
}

TEST_F(Login, ManyThreadsAtTheSameTime) {
  struct Case {
    OptionalText domain;
    std::u16string_view user;
    std::u16string_view password;
    u32 rights;
  };
  const Case cases[] = {
      {{}, u"alice", u"alice's word", ZEBCS_RIGHTS_POWER_USER},
      {{}, u"bob", u"alice's word", ZEBCS_RIGHTS_NONE},
      {{}, u"root", u"root's word", ZEBCS_RIGHTS_SUPERUSER},
      {u"corp", u"alice", u"corp word", ZEBCS_RIGHTS_ADMINISTRATOR},
      {{}, u"nosuch", u"alice's word", ZEBCS_RIGHTS_NONE},
      {{}, u"bob", u"bob's word", ZEBCS_RIGHTS_USER},
      {{}, u"expired", u"alice's word", ZEBCS_RIGHTS_NONE},
  };
  constexpr size_t kThreads = 8;
  std::vector<std::thread> threads;
  for (size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&cases, thread] {
      for (size_t i = 0; i < std::size(cases); ++i) {
        const Case &c = cases[(i + thread) % std::size(cases)];
        EXPECT_EQ(LogIn(c.domain, c.user, c.password), c.rights) << Narrow(c.user) << " in thread " << thread;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

// --- Directory service -----------------------------------------------------------------------------------------------

static_assert(sizeof(PrivilegeDefines) == 16 && offsetof(PrivilegeDefines, numericValue) == 8);

TEST_F(Login, KeptThereIsNoDirectoryService) {
  ASSERT_TRUE(SetService(kAnybody));
  const Text text(u"alice");
  const Text password(u"alice's word");
  std::string privilegeName = "admin";
  const PrivilegeDefines privilege = {.name = privilegeName.data(), .numericValue = 7};
  const PrivilegeDefines same = privilege;
  for (const auto authenticate : {KCSADAuthenticateUser, OSADAuthenticateUser}) {
    const Calls calls = CallsOf([&] {
      EXPECT_EQ(authenticate(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr), -1);
      for (const booln useSSL : {booln{0}, booln{1}, booln{-1}}) {
        u16 privileges = 0x1234;
        EXPECT_EQ(authenticate(text.get(), text.get(), password.get(), text.get(), text.get(), text.get(), &privilege,
                               useSSL, &privileges),
                  -1);
        EXPECT_EQ(privileges, 0x1234);
      }
    });
    EXPECT_EQ(calls, Calls());
    EXPECT_TRUE(text.IsUnchanged() && password.IsUnchanged());
    EXPECT_EQ(std::memcmp(&privilege, &same, sizeof same), 0);
    EXPECT_EQ(privilegeName, "admin");
  }
}

// --- What is left of a password --------------------------------------------------------------------------------------

#ifndef ZEBCS_SANITIZED  // whose code keeps in memory what is otherwise in registers, and whose own memory is vast

namespace {

using MemoryAfterLogin = LoginTest;

// The password of the account "keeper". It is scrambled here and put together unit by unit, so that no piece of it is
// in memory before; no two of its letters are the same, so that a letter tells its place.
constexpr unsigned char kMask = 0x5a;
constexpr std::array<unsigned char, 32> kScrambled = {0x00, 0x2b, 0x6d, 0x79, 0x37, 0x0d, 0x68, 0x7e, 0x22, 0x16, 0x38,
                                                      0x63, 0x7b, 0x31, 0x0e, 0x3c, 0x6e, 0x7c, 0x2c, 0x08, 0x30, 0x6c,
                                                      0x70, 0x3e, 0x12, 0x29, 0x69, 0x7f, 0x2a, 0x03, 0x39, 0x62};

// Writes the password and its terminator in letters of `unitSize` bytes.
void WriteSecret(void *pText, size_t unitSize) {
  volatile unsigned char *const bytes = static_cast<unsigned char *>(pText);  // one by one, through no wide register
  for (size_t i = 0; i < (kScrambled.size() + 1) * unitSize; ++i) bytes[i] = 0;
  for (size_t i = 0; i < kScrambled.size(); ++i) bytes[i * unitSize] = kScrambled[i] ^ kMask;
}

// Finds pieces of the password, in units of 8 and of 16 bits, in all memory of the process that can be written to.
class MemorySearch {
 public:
  static constexpr size_t kShortestPiece = 6;  // in letters; shorter ones come about by chance

  struct Finding {
    std::uintptr_t address;
    size_t unitSize;
    size_t length;
    std::string region;
  };

  MemorySearch() : m_window(kWindowSize) {
    m_placeOf.fill(-1);
    for (size_t i = 0; i < kScrambled.size(); ++i) m_placeOf[kScrambled[i] ^ kMask] = static_cast<int>(i);
  }

  std::vector<Finding> Run() {
    m_findings.clear();
    m_searched = 0;
    const std::string maps = sandbox::ReadFile("/proc/self/maps");
    const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    EXPECT_GE(memory, 0) << std::strerror(errno);
    for (size_t at = 0; at < maps.size(); at = maps.find('\n', at) + 1)
      SearchRegion(memory, maps.substr(at, maps.find('\n', at) - at));
    close(memory);
    EXPECT_GT(m_searched, size_t{100000}) << "the stack and the heap at least";
    return m_findings;
  }

 private:
  static constexpr size_t kWindowSize = size_t{1} << 20;
  static constexpr size_t kOverlap = 256;  // so that no piece is torn apart

  void SearchRegion(int memory, const std::string &line) {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    char access[5] = "";
    ASSERT_EQ(std::sscanf(line.c_str(), "%lx-%lx %4s", &begin, &end, access), 3) << line;
    const std::uintptr_t own = reinterpret_cast<std::uintptr_t>(m_window.data<void>());
    if (access[1] != 'w' || (begin <= own && own < end)) return;
    for (std::uintptr_t at = begin; at < end; at += kWindowSize - kOverlap) {
      const size_t wanted = std::min(kWindowSize, end - at);
      const ssize_t got = pread(memory, m_window.data<void>(), wanted, static_cast<off_t>(at));
      ASSERT_EQ(got, static_cast<ssize_t>(wanted)) << line;
      SearchWindow(at, wanted, line);
      m_searched += wanted;
      if (wanted < kWindowSize) break;
    }
  }

  void SearchWindow(std::uintptr_t address, size_t size, const std::string &region) {
    const unsigned char *const bytes = m_window.data<unsigned char>();
    for (size_t at = 0; at < size; ++at) {
      if (m_placeOf[bytes[at]] < 0) continue;
      for (const size_t unitSize : {sizeof(astring), sizeof(ustring)}) {
        const size_t length = PieceLength(bytes + at, size - at, unitSize);
        if (length < kShortestPiece) continue;
        m_findings.push_back({address + at, unitSize, length, region});
        at += (length - 1) * unitSize;
        break;
      }
    }
  }

  size_t PieceLength(const unsigned char *bytes, size_t size, size_t unitSize) const {
    const int place = m_placeOf[bytes[0]];
    size_t length = 1;
    for (size_t at = unitSize; at + unitSize <= size; at += unitSize, ++length) {
      if (unitSize == 2 && bytes[at + 1] != 0) break;
      if (m_placeOf[bytes[at]] != place + static_cast<int>(length)) break;
    }
    return length;
  }

  GuardedBuffer m_window;
  std::array<int, 256> m_placeOf;
  std::vector<Finding> m_findings;
  size_t m_searched = 0;
};

void ExpectNothingFound(const std::vector<MemorySearch::Finding> &findings, const char *when) {
  for (const auto &finding : findings) {
    ADD_FAILURE() << when << ": " << finding.length << " letters of " << finding.unitSize << " bytes at " << std::hex
                  << finding.address << " in " << finding.region;
  }
}

bool IsAmong(const std::vector<MemorySearch::Finding> &findings, const void *address, size_t unitSize, size_t length) {
  return std::any_of(findings.begin(), findings.end(), [=](const MemorySearch::Finding &finding) {
    return finding.address == reinterpret_cast<std::uintptr_t>(address) && finding.unitSize == unitSize &&
           finding.length == length;
  });
}

// Proves that the search finds what there is to find, and nothing else.
void ExpectThatPlantedCopiesAreFound(MemorySearch &search) {
  constexpr size_t kLength = kScrambled.size();
  static astring global[kLength + 1];
  astring local[kLength + 1];
  const std::unique_ptr<astring[]> heap(new astring[kLength + 1]);
  const std::unique_ptr<ustring[]> wideHeap(new ustring[kLength + 1]);
  const GuardedBuffer odd(2 * kLength + 3);  // 16-bit text at an odd address
  ustring wide[kLength + 1];
  WriteSecret(global, 1);
  WriteSecret(local, 1);
  WriteSecret(heap.get(), 1);
  WriteSecret(wideHeap.get(), 2);
  WriteSecret(wide, 2);
  WriteSecret(odd.data<char>() + 1, 2);
  std::memset(heap.get(), 0, 16);  // as the heap does to a released block
  const auto findings = search.Run();
  EXPECT_EQ(findings.size(), 6u);
  EXPECT_TRUE(IsAmong(findings, global, 1, kLength));
  EXPECT_TRUE(IsAmong(findings, local, 1, kLength));
  EXPECT_TRUE(IsAmong(findings, heap.get() + 16, 1, kLength - 16));
  EXPECT_TRUE(IsAmong(findings, wideHeap.get(), 2, kLength));
  EXPECT_TRUE(IsAmong(findings, odd.data<char>() + 1, 2, kLength));
  EXPECT_TRUE(IsAmong(findings, wide, 2, kLength));
  explicit_bzero(global, sizeof global);
  explicit_bzero(local, sizeof local);
  explicit_bzero(heap.get(), kLength + 1);
  explicit_bzero(wideHeap.get(), sizeof wide);
  explicit_bzero(odd.data<void>(), odd.size());
  explicit_bzero(wide, sizeof wide);
  ExpectNothingFound(search.Run(), "before the call");
}

// A secret password in the caller's memory, with other units behind it if wanted.
class SecretText {
 public:
  explicit SecretText(std::u16string_view behind = u"")
      : m_buffer((kScrambled.size() + behind.size() + 1) * sizeof(ustring)) {
    WriteSecret(get(), 2);
    std::copy(behind.begin(), behind.end(), get() + kScrambled.size());
    get()[kScrambled.size() + behind.size()] = 0;
  }
  ustring *get() const { return m_buffer.data<ustring>(); }

 private:
  GuardedBuffer m_buffer;
};

}  // namespace

TEST_F(MemoryAfterLogin, HoldsNoPassword) {
  const std::string closed = std::string("required pam_nologin.so file=") + kNologinPath + '\n';
  ASSERT_TRUE(sandbox::WriteFile(kNologinPath, "Closed.\n"));
  const std::u16string longName(2000, u'u');
  const struct {
    const char *what;
    std::string service;
    OptionalText domain;
    std::u16string_view user;
    std::u16string_view behind;  // follows the password
    u32 rights;
  } cases[] = {
      {"success", kPasswords, {}, u"keeper", u"", ZEBCS_RIGHTS_USER},
      {"wrong password", kPasswords, {}, u"alice", u"", 0},
      {"wrong password, other hash", kPasswords, {}, u"carol", u"", 0},
      {"longer password", kPasswords, {}, u"keeper", u" and more", 0},
      {"unknown account", kPasswords, {}, u"nosuch", u"", 0},
      {"expired account", kPasswords, {}, u"expired", u"", 0},
      {"with a domain", kAnybody, u"corp", u"alice", u"", ZEBCS_RIGHTS_ADMINISTRATOR},
      {"nobody wanted", kNobody, {}, u"keeper", u"", 0},
      {"failing conversation", std::string(kPasswords) + "auth " + closed, {}, u"keeper", u"", 0},
      {"conversation that fails at once", "auth " + closed + kPasswords, {}, u"keeper", u"", 0},
      {"conversation that fails for the account", std::string(kPasswords) + "account " + closed, {}, u"keeper", u"", 0},
      {"prompts of two modules",
       "auth required pam_ftp.so\nauth required pam_ftp.so\naccount required pam_permit.so\n",
       {},
       u"ftp",
       u"",
       ZEBCS_RIGHTS_USER},
      {"name beyond ASCII", kAnybody, {}, u"k\u00e9\u00e9per", u"", 0},
      {"domain beyond ASCII", kAnybody, u"c\u00f6rp", u"keeper", u"", 0},
      {"password beyond ASCII at its end", kAnybody, {}, u"keeper", u"\u00e9", 0},
      {"long name", kAnybody, longName, u"keeper", u"", ZEBCS_RIGHTS_USER},
  };
  MemorySearch search;
  ExpectThatPlantedCopiesAreFound(search);
  for (const auto &c : cases) {
    ASSERT_TRUE(SetService(c.service)) << c.what;
    const Text domain(c.domain.value_or(u""));
    const Text user(c.user);
    const SecretText password(c.behind);
    EXPECT_EQ(OSAuthenticateUser(c.domain ? domain.get() : nullptr, user.get(), password.get()), c.rights) << c.what;
    ExpectNothingFound(search.Run(), c.what);
  }
  // A finding would have been found to the end.
  ExpectThatPlantedCopiesAreFound(search);
}

TEST_F(MemoryAfterLogin, HoldsNoPasswordOfAnotherThread) {
  MemorySearch search;
  ExpectThatPlantedCopiesAreFound(search);
  std::thread([&search] {
    const Text user(u"keeper");
    const SecretText password;
    EXPECT_EQ(OSAuthenticateUser(nullptr, user.get(), password.get()), ZEBCS_RIGHTS_USER);
    ExpectNothingFound(search.Run(), "in the thread");
  }).join();
  ExpectNothingFound(search.Run(), "after the thread");
}

TEST_F(MemoryAfterLogin, HoldsNoPasswordWhenPamDoesNotStartOrTheNameIsMissing) {
  MemorySearch search;
  ExpectThatPlantedCopiesAreFound(search);
  const SecretText unused;
  EXPECT_EQ(OSAuthenticateUser(nullptr, nullptr, unused.get()), 0u);
  ExpectNothingFound(search.Run(), "without a name");
  ASSERT_TRUE(sandbox::RemoveTree("/etc/pam.d"));
  const Text user(u"keeper");
  const SecretText password;
  EXPECT_EQ(OSAuthenticateUser(nullptr, user.get(), password.get()), 0u);
  ExpectNothingFound(search.Run(), "without a service");
}

TEST_F(MemoryAfterLogin, HoldsTheCallersOwnLocalTextOnly) {
  MemorySearch search;
  ExpectThatPlantedCopiesAreFound(search);
  const GuardedBuffer password(kScrambled.size() + 1);
  WriteSecret(password.data<void>(), 1);
  for (const char *const name : {"keeper", "alice", "nosuch"}) {
    std::string user = name;
    EXPECT_EQ(LXAuthenticateUser(user.data(), password.data<astring>()), user == "keeper" ? ZEBCS_RIGHTS_USER : 0u);
    const auto findings = search.Run();
    EXPECT_EQ(findings.size(), 1u) << name;
    EXPECT_TRUE(IsAmong(findings, password.data<astring>(), 1, kScrambled.size())) << name;
  }
}

TEST_F(MemoryAfterLogin, HoldsNoAnswersOfAFailedConversation) {
  MemorySearch search;
  ExpectThatPlantedCopiesAreFound(search);
  const GuardedBuffer password(kScrambled.size() + 1);
  WriteSecret(password.data<void>(), 1);
  auth_pam_userinfo info{password.data<astring>(), password.data<astring>()};
  std::vector<const pam_message *> messages(100, &kPasswordPrompt);
  messages[50] = &kNamePrompt;
  messages.back() = &kInformation;
  pam_response *responses = nullptr;
  EXPECT_EQ(auth_pam_talker(100, messages.data(), &responses, &info), PAM_CONV_ERR);
  const auto findings = search.Run();
  EXPECT_EQ(findings.size(), 1u);
  EXPECT_TRUE(IsAmong(findings, password.data<astring>(), 1, kScrambled.size()));
}

#endif

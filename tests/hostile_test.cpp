// Hostile and careless surroundings: a host that is started with next to nothing, that is interrupted all the time or
// has no room left, and files that somebody else has prepared. Nothing is followed, overwritten, half written or
// waited for without end, and nobody gets rights out of it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <regex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "guarded_buffer.h"
#include "program.h"
#include "sandbox.h"
#include "shared_file.h"
#include "zebcs/auth.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"
#include "zebcs/ipc.h"
#include "zebcs/keyvalue.h"
#include "zebcs/logs.h"
#include "zebcs/net.h"
#include "zebcs/product.h"
#include "zebcs/rolemap.h"
#include "zebcs/system.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

using sandbox::Channel;
using sandbox::Mount;
using sandbox::Process;
using sandbox::TemporaryDirectory;

constexpr const char *kProduct = "/opt/vorn/fleetops";
constexpr const char *kCommandLog = "/opt/vorn/fleetops/var/log/kelvestane/qxcmdlog.xml";
constexpr u32 kSuperuser = 0x40007;
constexpr u32 kRoomy = 100000000;

// --- What files hold ------------------------------------------------------------------------------------------------

// Each path below a directory, with what it is: "directory", a link, or mode and content without the times of entries.
using Tree = std::map<std::string, std::string>;

std::string WithoutTimes(const std::string &text) {
  static const std::regex times("<TimeStamp>[0-9]+</TimeStamp><DateTime>[^<]+</DateTime>");
  return std::regex_replace(text, times, "<Times/>");
}

std::string Described(const fs::path &path) {
  struct stat info = {};
  if (lstat(path.c_str(), &info) != 0) return "(missing)";
  char mode[16];
  (void)std::snprintf(mode, sizeof mode, "%04o", info.st_mode & 07777u);
  if (S_ISLNK(info.st_mode)) return "link to " + fs::read_symlink(path).string();
  if (S_ISDIR(info.st_mode)) return "directory "s + mode;
  if (!S_ISREG(info.st_mode)) return "special file";
  return mode + " "s + WithoutTimes(sandbox::ReadFile(path));
}

Tree TreeOf(const std::string &directory) {
  Tree tree;
  for (const auto &entry : fs::recursive_directory_iterator(directory)) {
    tree[entry.path().lexically_relative(directory)] = Described(entry.path());
  }
  return tree;
}

// The changes that turn one tree into the other.
Tree Changes(const Tree &before, const Tree &after) {
  Tree changes;
  for (const auto &[path, what] : after) {
    const auto old = before.find(path);
    if (old == before.end() || old->second != what) changes[path] = what;
  }
  for (const auto &[path, what] : before) {
    if (!after.contains(path)) changes[path] = "(gone)";
  }
  return changes;
}

const std::string kHeader = R"(<?xml-stylesheet type="text/xsl" version="1.0" encoding="UTF-8"?>)";

std::string Entry(const std::string &type, const std::string &id, const std::string &user, const std::string &source,
                  const std::string &description, const std::string &data = "") {
  return "<LogEntry><Times/><ComputerName>sandbox</ComputerName><Type>" + type + "</Type><ID>" + id +
         "</ID><UserInfo>" + user + "</UserInfo><Source>" + source + "</Source><Description>" + description +
         "</Description><Data>" + data + "</Data></LogEntry>";
}

std::string LogOf(const std::vector<std::string> &entries) {
  std::string log = kHeader + "<EventLog>";
  for (const std::string &entry : entries) log += entry;
  return log + "</EventLog>";
}

// --- A host in its surroundings -------------------------------------------------------------------------------------

// The sanitizers take more of the stack, and their crypt does not know the library that a module brings along.
#ifdef ZEBCS_SANITIZED
constexpr const char *kSmallStack = "stack=2097152";
constexpr const char *kService = "auth required pam_permit.so\naccount required pam_permit.so\n";
constexpr const char *kRightsOfWrongPassword = "7";
#else
constexpr const char *kSmallStack = "stack=131072";
constexpr const char *kService = "auth required pam_unix.so nodelay\naccount required pam_unix.so\n";
constexpr const char *kRightsOfWrongPassword = "0";
#endif

constexpr const char *kRules =
    "# who may do what\n"
    "alice * administrator\n"
    "bob web01 poweruser\n"
    "+wheel * user\n"
    "carol * user\n";

// The password of alice is "alice's word".
constexpr const char *kShadow =
    "alice:$5$rounds=1000$salt$LAPjm8IxZfzU7gsCjkJ4YehoZHgEVhTCHOPMEEuQva.:19000:0:99999:7:::\n";

std::string Utf16(std::string_view text) {
  std::string bytes = "\xFF\xFE";
  for (const char c : text) bytes += {c, '\0'};
  return bytes;
}

// Everything that the host asks for, with all that it may find.
bool Furnish(const std::string &folder) {
  const std::string entry = Entry("1", "2", "u", "s", "d");
  const std::string oem = "/opt/vorn/fleetops/etc/kelvestane/wwwroot/oem/brand/ini/vorn";
  const std::string styles = "/opt/vorn/fleetops/var/lib/kelvestane/xslroot/app/template";
  return sandbox::WriteFile(folder + "/a.ini", "[s]\nkey=one\n[t]\nold=gone\nkey=two\n") &&
         sandbox::WriteFile(folder + "/app.ini", "[OEM]\nname=brand\n") &&
         sandbox::WriteFile(folder + "/a.properties", "# settings\nkey = one\nkey = two\nother = 3\n") &&
         sandbox::WriteFile(folder + "/torn.xml", kHeader + "<EventLog>" + entry + "<LogEntry><Ty") &&
         sandbox::WriteFile(folder + "/text.res", Utf16("407:1F4=Guten Morgen\r\n")) &&
         sandbox::WriteFile(sandbox::kRoleMapPath, kRules, 0640) && sandbox::MakeDirectories(oem) &&
         sandbox::WriteFile(oem + "/progoem.ini", "[data]\naccessmask=1\n") &&
         sandbox::MakeDirectories(styles + "/type") && sandbox::WriteFile(styles + "/type/name.xsl", "") &&
         sandbox::MakeDirectories("/opt/vorn/fleetops/var/lib/kelvestane/iws") &&
         sandbox::WriteFile("/etc/shadow", kShadow, 0640) && sandbox::WriteFile("/etc/pam.d/qxauth", kService) &&
         sandbox::WriteFile("/etc/pam.d/refusing", "auth required pam_deny.so\naccount required pam_deny.so\n");
}

// What the host gets to hear wherever it is.
std::string UsualReport() {
  return "INI value: 0 two\n"
         "INI update: 0\nINI addition: 0\nINI section: 0\nINI removal: 0\nINI file: 0\n"
         "INI updated: 0 gr\xc3\xbc\xc3\x9f\n"
         "product INI: 0\nproduct INI value: 0\nproduct number: 4294967295\n"
         "schema prefix: vorn\nchassis: 0\n"
         "pair: 0\npairs: 3\nsecond: changed\n"
         "log: 0\nlog with backup: 0\nlog made: 0\ncommand: 0\n"
         "command log size: 0\ncommand log is there: 1\nmaximum size: 0\nmaximum: 1048576\n"
         "content: <Content>" +
         kHeader + "<EventLog>" + Entry("1", "2", "u", "s", "d") +
         "</EventLog></Content><SMStatus>0</SMStatus>\n"
         "system log: 0\n"
         "alice@h: 7\nWEB01\\bob: 3\nbob@web01: 3\nbob@h: 1\ncarol@h: 3\nroot@h: 262151\n"
         "nobody@h: 0\nno-such-account@h: 0\nalice: 7\n"
         "open: 0\nown by role map: 7\nown: 262151\nown name: root\nauthorized: 7\nmasked: 1\nfailure: 0\n"
         "login: 7\nwrong password: " +
         kRightsOfWrongPassword +
         "\nrefused login: 0\n"
         "stylesheet: <?xml version=\"1.0\" encoding=\"UTF-8\"?><xsl:stylesheet version=\"1.0\" "
         "xmlns:xsl=\"http://www.w3.org/1999/XSL/Transform\" xmlns:fo=\"http://www.w3.org/1999/XSL/Format\">"
         "<xsl:include href=\"/opt/vorn/fleetops/var/lib/kelvestane/xslroot//app/template/type/name.xsl\" />"
         "</xsl:stylesheet>\n"
         "web documents: /opt/vorn/fleetops/var/lib/kelvestane/wwwroot//zeb/docs/en_US\n"
         "temporary directory: /opt/vorn/fleetops/var/lib/kelvestane/iws/temp\n"
         "install path: /opt/vorn/fleetops/\nhost: sandbox\ndomain: sandbox.test\naddresses: 0\n"
         "resource: 26\ntext: Guten Morgen\nlock: 1\nname: 100001\n"
         "thread: 0\nthread ends: 0\nthread ran: 1\nsame descriptors: 1\n";
}

// What is in its folder and in the product's directories then.
Tree UsualChangesOfFolder() {
  return {{"a.ini", "1664 [s]\nkey=gr\xc3\xbc\xc3\x9f\n[t]\nkey=two\nnew=value\n[u]\nkey=three\n"},
          {"a.properties", "1664 # settings\nkey = one\nkey=changed\nother = 3\n"},
          {"logs", "directory 0755"},
          {"logs/b.xml", "1664 " + LogOf({Entry("4", "0", "u", "s", "Log was cleared")})},
          {"new", "directory 0755"},
          {"new/b.ini", "1664 [s]\nkey=value\n"},
          {"torn.xml", "0644 " + LogOf({Entry("1", "2", "u", "s", "d")})}};
}

Tree UsualChangesOfProduct() {
  return {
      {"etc/kelvestane/zeb/ini/hostile.ini", "1664 [s]\nnumber=4294967295\n"},
      {"var/lib/kelvestane/iws/temp", "directory 0755"},
      {"var/log/kelvestane/qxcmdlog.xml", "1664 " + LogOf({Entry("4", "0", "Local System", "HALV", "Log was cleared"),
                                                           Entry("2", "5001", "u", "s", "command")})}};
}

// The document without what the dump of data looks like, which is not this test's business.
std::string WithoutDumps(const std::string &text) {
  static const std::regex dump("<Data>[^<]+</Data>");
  return std::regex_replace(text, dump, "<Data>...</Data>");
}

struct Surrounding {
  std::string name;
  std::vector<std::string> modes{};                       // of the host
  std::function<bool()> prepare{};                        // right before it becomes the host
  std::optional<std::vector<std::string>> environment{};  // else what this process has
};

[[maybe_unused]] void PrintTo(const Surrounding &surrounding, std::ostream *stream) { *stream << surrounding.name; }

// Becomes the host. Does not return where that works.
int BecomeHost(const Surrounding &surrounding, const std::string &folder, const std::string &report) {
  std::vector<std::string> words{ZEBCS_HOSTILE_PROBE, folder, report};
  words.insert(words.end(), surrounding.modes.begin(), surrounding.modes.end());
  const auto pointers = [](std::vector<std::string> &texts) {
    std::vector<char *> result;
    for (std::string &text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
  };
  const std::vector<char *> arguments = pointers(words);
  std::vector<std::string> texts = surrounding.environment.value_or(std::vector<std::string>());
  const std::vector<char *> variables = pointers(texts);
  if (surrounding.prepare && !surrounding.prepare()) return 120;
  if (!surrounding.environment) {
    execv(ZEBCS_HOSTILE_PROBE, arguments.data());
  } else if (texts.empty()) {
    execve(ZEBCS_HOSTILE_PROBE, arguments.data(), nullptr);
  } else {
    execve(ZEBCS_HOSTILE_PROBE, arguments.data(), variables.data());
  }
  return 121;
}

// Runs the host, whose words go to a file, and returns what it was told.
std::string ReportOf(const Surrounding &surrounding, const std::string &folder, const TemporaryDirectory &directory) {
  const std::string report = directory.Path("report");
  const std::string words = directory.Path("words");
  Process host(std::chrono::minutes(2));
  const bool isStarted = host.Start([&](Channel &) {
    const int out = open(words.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (out < 0 || dup2(out, STDOUT_FILENO) < 0 || dup2(out, STDERR_FILENO) < 0 || close(out) != 0) return 119;
    return BecomeHost(surrounding, folder, report);
  });
  EXPECT_TRUE(isStarted);
  EXPECT_EQ(host.Wait(), 0) << sandbox::ReadFile(words);
  const std::regex ownWords("^(the host's words\n)*$");
  EXPECT_TRUE(std::regex_match(sandbox::ReadFile(words), ownWords)) << sandbox::ReadFile(words);
  return WithoutTimes(sandbox::ReadFile(report));
}

// Whoever listens to the system log of the machine has nothing to do with this, and need not even read.
bool HideSystemLog(const TemporaryDirectory &directory) {
  if (access("/dev/log", F_OK) != 0) return true;
  const std::string stranger = directory.Path("log");
  return sandbox::WriteFile(stranger, "") && mount(stranger.c_str(), "/dev/log", nullptr, MS_BIND, nullptr) == 0;
}

// The ways to be started without standard streams.
std::vector<Surrounding> ClosedStreams() {
  std::vector<Surrounding> surroundings;
  for (int closed = 1; closed < 8; ++closed) {
    std::string name = "without";
    for (int fd = 0; fd < 3; ++fd) {
      if ((closed & 1 << fd) != 0) name += "_" + std::to_string(fd);
    }
    surroundings.push_back({.name = name, .prepare = [closed] {
                              for (int fd = 0; fd < 3; ++fd) {
                                if ((closed & 1 << fd) != 0) close(fd);
                              }
                              return true;
                            }});
  }
  return surroundings;
}

// Variables that make programs look elsewhere or behave otherwise, all with the same text.
std::vector<std::string> VariablesOf(const std::string &text) {
  std::vector<std::string> variables;
  for (const char *name : {"LANG",
                           "LANGUAGE",
                           "LC_ALL",
                           "LC_CTYPE",
                           "LC_NUMERIC",
                           "LC_TIME",
                           "LOCPATH",
                           "NLSPATH",
                           "TZ",
                           "TZDIR",
                           "HOME",
                           "TMPDIR",
                           "TEMP",
                           "TMP",
                           "PATH",
                           "PWD",
                           "SHELL",
                           "IFS",
                           "ENV",
                           "BASH_ENV",
                           "USER",
                           "LOGNAME",
                           "HOSTNAME",
                           "HOSTALIASES",
                           "RES_OPTIONS",
                           "LOCALDOMAIN",
                           "GCONV_PATH",
                           "MALLOC_ARENA_MAX",
                           "MALLOC_PERTURB_",
                           "MALLOC_CHECK_",
                           "POSIXLY_CORRECT",
                           "ZEB_HOME",
                           "OPENSSL_CONF",
                           "OPENSSL_MODULES",
                           "PAM_SERVICE"}) {
    variables.push_back(name + "="s + text);
  }
  return variables;
}

std::vector<Surrounding> Surroundings() {
  std::vector<Surrounding> surroundings = {
      {.name = "plain"},
      {.name = "umask_0", .prepare = [] { return umask(0) != 0777; }},
      {.name = "umask_0777", .prepare = [] { return umask(0777) != 0777; }},
      {.name = "interrupted_all_the_time", .modes = {"ticking"}},
      {.name = "children_ignored", .modes = {"children-ignored"}},
      {.name = "children_not_kept", .modes = {"children-not-kept"}},
      {.name = "children_reaped", .modes = {"children-reaped"}},
      {.name = "daemon", .modes = {"daemon"}},
      {.name = "interrupted_daemon", .modes = {"daemon", "ticking"}},
      {.name = "locale", .modes = {"locale=C.UTF-8"}},
      {.name = "thread_locale", .modes = {"thread-locale=C.UTF-8"}},
      {.name = "small_stack", .modes = {kSmallStack}},
      {.name = "small_stack_interrupted", .modes = {"ticking", kSmallStack}},
      {.name = "no_environment", .environment = std::vector<std::string>()},
      {.name = "empty_variables", .environment = VariablesOf("")},
      {.name = "long_variables", .environment = VariablesOf(std::string(40000, 'x'))},
      {.name = "way_up", .environment = VariablesOf("../../../../../../..")},
      {.name = "format", .environment = VariablesOf("%s%n%s%n%s%n%1000000d")},
      {.name = "odd_bytes", .environment = VariablesOf("\xff\xfe\x01\xc3\x28 ;$(exit)`exit`\n")},
      {.name = "other_language", .environment = VariablesOf("de_DE.UTF-8")},
      {.name = "file", .environment = VariablesOf("/etc/passwd")},
      {.name = "strange_variables", .environment = std::vector<std::string>{"", "=", "==", "LANG", "\xff", "=x=y"}},
      {.name = "blocked_signals",
       .prepare =
           [] {
             sigset_t all;
             return sigfillset(&all) == 0 && sigprocmask(SIG_BLOCK, &all, nullptr) == 0;
           }},
      {.name = "ignored_signals",
       .prepare =
           [] {
             for (const int number : {SIGPIPE, SIGHUP, SIGCHLD, SIGALRM, SIGXFSZ, SIGXCPU}) {
               if (std::signal(number, SIG_IGN) == SIG_ERR) return false;
             }
             return true;
           }},
      {.name = "few_descriptors",
       .prepare =
           [] {
             const rlimit limit{24, 24};
             return setrlimit(RLIMIT_NOFILE, &limit) == 0;
           }},
      {.name = "no_core_no_lock_memory",
       .prepare =
           [] {
             const rlimit none{0, 0};
             return setrlimit(RLIMIT_CORE, &none) == 0 && setrlimit(RLIMIT_MEMLOCK, &none) == 0;
           }},
      {.name = "current_directory_is_gone",
       .prepare =
           [] {
             std::string gone = "/opt/zebcs-test-tmp/goneXXXXXX";
             return mkdtemp(gone.data()) != nullptr && chdir(gone.c_str()) == 0 && rmdir(gone.c_str()) == 0;
           }},
  };
#ifndef ZEBCS_SANITIZED
  // The sanitizers themselves need to see what memory the process has.
  surroundings.push_back(
      {.name = "without_proc", .prepare = [] { return mount("tmpfs", "/proc", "tmpfs", 0, "mode=0755") == 0; }});
#endif
  for (Surrounding &surrounding : ClosedStreams()) surroundings.push_back(std::move(surrounding));
  return surroundings;
}

class Host : public testing::TestWithParam<Surrounding> {
 protected:
  void SetUp() override { ASSERT_TRUE(HideSystemLog(m_directory)); }

 private:
  const TemporaryDirectory m_directory;
};

INSTANTIATE_TEST_SUITE_P(In, Host, testing::ValuesIn(Surroundings()),
                         [](const auto &surrounding) { return surrounding.param.name; });

}  // namespace

TEST_P(Host, HearsAndWritesTheSameEverywhere) {
  const TemporaryDirectory directory;
  const std::string folder = directory.Path("files");
  ASSERT_TRUE(sandbox::MakeDirectories(folder) && Furnish(folder));
  const Tree folderBefore = TreeOf(folder);
  const Tree productBefore = TreeOf(kProduct);
  EXPECT_EQ(ReportOf(GetParam(), folder, directory), UsualReport());
  Tree changes = Changes(folderBefore, TreeOf(folder));
  for (auto &[path, what] : changes) what = WithoutDumps(what);
  Tree expected = UsualChangesOfFolder();
  const std::string first = Entry("4", "7", "j\xc3\xb6rg", "&lt;s&gt;", "first", "...");
  const std::string created = Entry("4", "1", "j\xc3\xb6rg", "&lt;s&gt;", "Log backup created");
  const std::string second = Entry("4", "7", "j\xc3\xb6rg", "&lt;s&gt;", "second", "...");
  expected["a.xm_"] = "1664 " + LogOf({first});
  expected["a.xml"] = "1664 " + LogOf({created, second});
  EXPECT_EQ(changes, expected);
  EXPECT_EQ(Changes(productBefore, TreeOf(kProduct)), UsualChangesOfProduct());
  EXPECT_TRUE(sandbox::LockIsFree());
}

// --- What stands where a file should be -----------------------------------------------------------------------------

namespace {

// Devices are only ever read: their modes are those of the whole machine.
enum class Thing { kDirectory, kPipe, kSocket, kLinkToItself, kLinkToNothing, kLinkToDirectory, kNullDevice };

constexpr Thing kThings[] = {Thing::kDirectory,    Thing::kPipe,          Thing::kSocket,
                             Thing::kLinkToItself, Thing::kLinkToNothing, Thing::kLinkToDirectory,
                             Thing::kNullDevice};

const char *NameOf(Thing thing) {
  switch (thing) {
    case Thing::kDirectory: return "directory";
    case Thing::kPipe: return "pipe";
    case Thing::kSocket: return "socket";
    case Thing::kLinkToItself: return "link to itself";
    case Thing::kLinkToNothing: return "link to nothing";
    case Thing::kLinkToDirectory: return "link to a directory";
    case Thing::kNullDevice: return "link to the null device";
  }
  return "";
}

bool PutSocket(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  path.copy(address.sun_path, path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool isBound = bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
  close(fd);
  return isBound;
}

// Puts it in the place of whatever is there.
bool Put(Thing thing, const std::string &path) {
  if (!sandbox::RemoveTree(path)) return false;
  switch (thing) {
    case Thing::kDirectory: return mkdir(path.c_str(), 0755) == 0;
    case Thing::kPipe: return mkfifo(path.c_str(), 0640) == 0 && chmod(path.c_str(), 0640) == 0;
    case Thing::kSocket: return PutSocket(path);
    case Thing::kLinkToItself: return symlink(path.c_str(), path.c_str()) == 0;
    case Thing::kLinkToNothing: return symlink("/opt/zebcs-test-tmp/nothing", path.c_str()) == 0;
    case Thing::kLinkToDirectory: return symlink("/opt/zebcs-test-tmp", path.c_str()) == 0;
    case Thing::kNullDevice: return symlink("/dev/null", path.c_str()) == 0;
  }
  return false;
}

u32 RightsOf(std::string userSpec) { return get_user_rights(userSpec.data()); }

std::string Text(astring *pText) {
  const std::string text = pText == nullptr ? "(null)" : pText;
  KCSFreeMem(pText);
  return text;
}

s32 WriteINI(const std::string &path, const char *section, const char *key, const char *value, booln canBlock = 1) {
  const u32 size = value == nullptr ? 0 : static_cast<u32>(std::strlen(value) + 1);
  return KCSWriteINIPathFileValue(section, key, ZEBCS_INI_ASTRING, value, size, path.c_str(), canBlock);
}

// The value, or the status of a failure.
std::string ReadINI(const std::string &path, const char *section, const char *key, booln canBlock = 1) {
  astring value[8193];
  u32 size = sizeof value;
  const s32 status =
      KCSReadINIPathFileValue(section, key, ZEBCS_INI_ASTRING, value, &size, nullptr, 0, path.c_str(), canBlock);
  return status == 0 ? value : "status " + std::to_string(status);
}

s32 SetPair(const std::string &path, const char *key, const char *value, u32 instance = 0) {
  const KCSKVEntry entry{const_cast<astring *>(key), const_cast<astring *>(value)};
  return KCSCFGSetKeyValue(path.c_str(), &entry, instance);
}

u32 CountPairs(const std::string &path) {
  u32 count = 0;
  KCSKVEntry *const table = KCSCFGGetKeyValueEntries(path.c_str(), &count);
  KCSCFGFreeKeyValueEntries(table, count);
  return count;
}

s32 AppendLog(const std::string &path, const char *description, u32 maxSize = kRoomy) {
  return KCSAppendToXMLLog(path.c_str(), 4, 7, "u", "s", description, nullptr, 0, maxSize);
}

// Runs the body in a process that must have ended within seconds.
int InAnotherProcess(const std::function<int()> &body, std::chrono::seconds within = std::chrono::seconds(60)) {
  Process process(within);
  return process.Start([&body](Channel &) { return body(); }) ? process.Wait() : -1;
}

void Within(const std::string &what, const std::function<void()> &body) {
  EXPECT_EQ(InAnotherProcess([&body] {
              body();
              return 0;
            }),
            0)
      << what;
}

class InTheWay : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(HideSystemLog(m_directory)); }

 private:
  const TemporaryDirectory m_directory;
};

// The name and the lock as a program finds them that has just loaded the library.
std::string FrameOfNewHost() {
  const TemporaryDirectory directory;
  return ReportOf({.name = "frame", .modes = {"frame"}}, directory.path(), directory);
}

}  // namespace

TEST_F(InTheWay, OfTheRoleMapGivesTheBuiltInRights) {
  ASSERT_TRUE(sandbox::SetAccounts("root:x:1005:1005::/:/bin/sh\ncarol:x:1003:0::/:/bin/sh\nop:x:0:50::/:/bin/sh\n",
                                   "root:x:0:\nstaff:x:50:\n"));
  for (const Thing thing : kThings) {
    const bool isMissing = thing == Thing::kLinkToItself || thing == Thing::kLinkToNothing;
    ASSERT_TRUE(Put(thing, sandbox::kRoleMapPath)) << NameOf(thing);
    ASSERT_TRUE(sandbox::RemoveTree(kCommandLog));
    Within(NameOf(thing), [&] {
      EXPECT_EQ(RightsOf("root@h"), 7u);
      EXPECT_EQ(RightsOf("carol@h"), 3u);
      EXPECT_EQ(RightsOf("zoe@h"), 1u);
      EXPECT_EQ(RightsOf("op@h"), kSuperuser);
      const std::string report =
          Entry("2", isMissing ? "5912" : "5913", "root", "ZEBSERVER", "<Parameter name=\"line\" value=\"0\"/>");
      EXPECT_EQ(WithoutTimes(sandbox::ReadFile(kCommandLog)),
                LogOf({Entry("4", "0", "Local System", "HALV", "Log was cleared"), report, report, report, report}))
          << NameOf(thing);
    });
  }
  EXPECT_FALSE(fs::exists("/opt/zebcs-test-tmp/nothing"));
}

TEST_F(InTheWay, OfTheLockFileIsUsedOrRefusedAtOnce) {
  const struct {
    Thing thing;
    bool isLocked;
  } cases[] = {{Thing::kDirectory, false},    {Thing::kPipe, true},          {Thing::kSocket, false},
               {Thing::kLinkToItself, false}, {Thing::kLinkToNothing, true}, {Thing::kLinkToDirectory, false},
               {Thing::kNullDevice, true}};
  for (const auto &c : cases) {
    ASSERT_TRUE(Put(c.thing, sandbox::kLockFile));
    EXPECT_EQ(FrameOfNewHost(), "name: 130000\nlock: "s + (c.isLocked ? "1" : "0") + "\n") << NameOf(c.thing);
    if (!c.isLocked) continue;
    // It keeps processes apart all the same.
    Process holder;
    ASSERT_TRUE(holder.Start([](Channel &channel) {
      CloseIPCFile();
      channel.Put(OpenIPCFile() == 0 && FileLock(0) == 1 ? "held" : "failed");
      return channel.Get() == "end" ? 0 : 1;
    }));
    ASSERT_EQ(holder.Receive(), "held") << NameOf(c.thing);
    EXPECT_EQ(InAnotherProcess([] {
                CloseIPCFile();
                return OpenIPCFile() == 0 ? FileLock(0) : -1;
              }),
              0)
        << NameOf(c.thing);
    holder.Send("end");
    EXPECT_EQ(holder.Wait(), 0);
  }
  EXPECT_EQ(Described("/opt/zebcs-test-tmp/nothing"), "0644 ") << "made where the link leads, and empty";
}

TEST_F(InTheWay, FileThatTheLockFileLeadsToStaysAsItIs) {
  const TemporaryDirectory directory;
  const std::string target = directory.Path("secret");
  ASSERT_TRUE(sandbox::WriteFile(target, "a secret\n", 0600, 1000000));
  const sandbox::FileState before(target);
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockFile));
  ASSERT_EQ(symlink(target.c_str(), sandbox::kLockFile), 0);
  EXPECT_EQ(FrameOfNewHost(), "name: 130000\nlock: 1\n");
  EXPECT_EQ(before, sandbox::FileState(target));
}

TEST_F(InTheWay, WithoutALockFileEveryCallThatNeedsTheLockSaysSoAtOnce) {
  const TemporaryDirectory directory;
  const std::string ini = directory.Path("a.ini");
  const std::string log = directory.Path("a.xml");
  ASSERT_TRUE(sandbox::WriteFile(ini, "[s]\nkey=1\n") && sandbox::WriteFile(sandbox::kRoleMapPath, kRules, 0640));
  ASSERT_EQ(AppendLog(log, "first"), 0);
  const Tree before = TreeOf(directory.path());
  for (const Thing thing : {Thing::kDirectory, Thing::kSocket, Thing::kLinkToItself}) {
    ASSERT_TRUE(Put(thing, sandbox::kLockFile));
    Within(NameOf(thing), [&] {
      CloseIPCFile();
      EXPECT_EQ(OpenIPCFile(), -1);
      EXPECT_EQ(ReadINI(ini, "s", "key"), "status 11");
      EXPECT_EQ(WriteINI(ini, "s", "key", "2"), SM_STATUS_LOCK_TIMEOUT);
      EXPECT_EQ(SetPair(ini, "key", "2"), SM_STATUS_LOCK_TIMEOUT);
      EXPECT_EQ(CountPairs(ini), 0u);
      EXPECT_EQ(RightsOf("bob@web01"), 3u) << "needs no lock";
      EXPECT_EQ(KCSGetCmdLogMaxSize(nullptr), SM_STATUS_INVALID_INPUT);
    });
  }
  EXPECT_EQ(TreeOf(directory.path()), before);
}

TEST_F(InTheWay, OfTheConfigurationMeansTheUsualNames) {
  for (const Thing thing : kThings) {
    ASSERT_TRUE(Put(thing, sandbox::kConfPath));
    EXPECT_EQ(FrameOfNewHost(), "name: 130000\nlock: 1\n") << NameOf(thing);
  }
}

TEST_F(InTheWay, OddConfigurationsGiveTheFirstNumberThatALineYields) {
  const struct {
    const char *what;
    std::string text;
    int name;
  } cases[] = {
      {"empty", "", 130000},
      {"zeros", std::string(100000, '\0'), 130000},
      {"a zero hides the rest of its line", "\0ipcnamebase=7\nipcnamebase=8\n"s, 30008},
      {"a zero behind the number", "ipcnamebase=9\0x\nipcnamebase=8\n"s, 30009},
      {"a byte-order mark is no blank", "\xef\xbb\xbfipcnamebase=7\nipcnamebase=8\n", 30008},
      {"line ends of another system", "\r\nipcnamebase=7\r\n", 30007},
      {"no line feed", "ipcnamebase=7", 30007},
      {"a megabyte before it on the line", std::string(1000000, ' ') + "ipcnamebase=7\n", 30007},
      {"split where a piece of 255 ends", std::string(255, 'x') + "ipcnamebase=7\n", 30007},
      {"not where it does not", std::string(254, 'x') + "ipcnamebase=7\n", 130000},
      {"many lines",
       [] {
         std::string lines;
         for (int i = 0; i < 200000; ++i) lines += "x\n";
         return lines + "ipcnamebase=7\n";
       }(),
       30007},
      {"every byte",
       [] {
         std::string bytes;
         for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte);
         return bytes + "\nipcnamebase=7\n";
       }(),
       30007},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(sandbox::WriteFile(sandbox::kConfPath, c.text));
    EXPECT_EQ(FrameOfNewHost(), "name: " + std::to_string(c.name) + "\nlock: 1\n") << c.what;
  }
}

TEST_F(InTheWay, OfASettingMeansThatItIsNotSet) {
  const std::string directory = std::string(sandbox::kIniDirectory) + "/";
  for (const Thing thing : kThings) {
    for (const char *name : {"oem.ini", "qxcli32.ini", "zeb.properties"}) {
      ASSERT_TRUE(Put(thing, directory + name)) << NameOf(thing);
    }
    Within(NameOf(thing), [&] {
      EXPECT_EQ(Text(KCSGetOEMADSchemaPrefix()), "vorn");
      EXPECT_EQ(KCSCheckModularChassis(), 0);
      u32 size = 0;
      EXPECT_EQ(KCSGetCmdLogMaxSize(&size), 0);
      EXPECT_EQ(size, 0x100000u);
      InitCmdMaxLogSize();
      u32 failure = 77;
      EXPECT_EQ(KCSMaskProgramRights(3, "prog", (directory + "oem.ini").c_str(), &failure), 0u);
      EXPECT_EQ(failure, 77u);
    });
  }
}

TEST_F(InTheWay, OfAFileThatIsReadIsAFailureAtOnce) {
  const struct {
    Thing thing;
    s32 iniStatus;
    const char *resource;
  } cases[] = {
      {Thing::kDirectory, SM_STATUS_PARSE_ERROR, "Invalid string resource found"},
      {Thing::kPipe, SM_STATUS_SECTION_NOT_FOUND, "Invalid string resource found"},
      {Thing::kSocket, SM_STATUS_NOT_FOUND, "String resource not found"},
      {Thing::kLinkToItself, SM_STATUS_NOT_FOUND, "String resource not found"},
      {Thing::kLinkToNothing, SM_STATUS_NOT_FOUND, "String resource not found"},
      {Thing::kLinkToDirectory, SM_STATUS_PARSE_ERROR, "Invalid string resource found"},
      {Thing::kNullDevice, SM_STATUS_SECTION_NOT_FOUND, "Invalid string resource found"},
  };
  const TemporaryDirectory directory;
  const std::string path = directory.Path("file");
  for (const auto &c : cases) {
    ASSERT_TRUE(Put(c.thing, path));
    Within(NameOf(c.thing), [&] {
      EXPECT_EQ(ReadINI(path, "s", "key"), "status " + std::to_string(c.iniStatus)) << NameOf(c.thing);
      EXPECT_EQ(CountPairs(path), 0u) << NameOf(c.thing);
      ustring text[64] = {};
      u32 size = sizeof text;
      KCSGetUnicodeStringFromIDPathFile(1, nullptr, path.c_str(), text, &size);
      EXPECT_EQ(std::string(text, std::find(text, text + 64, 0)), c.resource) << NameOf(c.thing);
      EXPECT_EQ(KCSCmdGetXMLLogContent(path.c_str(), nullptr, nullptr), nullptr) << NameOf(c.thing);
      XMLFileCheck(path.c_str());
    });
  }
}

TEST_F(InTheWay, OfTheLogDirectoryMeansThatThereIsNoCommandLog) {
  const std::string directory = sandbox::kLogDirectory;
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * nonsense\n", 0640));
  for (const Thing thing :
       {Thing::kPipe, Thing::kSocket, Thing::kLinkToItself, Thing::kLinkToNothing, Thing::kNullDevice}) {
    ASSERT_TRUE(Put(thing, directory));
    Within(NameOf(thing), [&] {
      EXPECT_EQ(KCSAppendToCmdLog(5001, "u", "s", "d", 1), -1) << NameOf(thing);
      EXPECT_EQ(KCSClearCmdLog("u", "s"), -1) << NameOf(thing);
      u32 size = 77;
      EXPECT_EQ(KCSGetCmdLogSize(&size), SM_STATUS_NO_MEMORY) << NameOf(thing);
      EXPECT_EQ(size, 0u);
      EXPECT_EQ(KCSGetCmdLogPathFileName(), nullptr) << NameOf(thing);
      EXPECT_EQ(RightsOf("zoe@h"), 1u) << "the report is lost, the answer is not";
    });
    EXPECT_FALSE(fs::exists("/opt/zebcs-test-tmp/nothing")) << NameOf(thing);
  }
}

// The backup's name is taken by something that cannot be replaced by renaming: the log goes on growing.
TEST_F(InTheWay, OfTheBackupMeansThatTheLogStaysWhereItIs) {
  const TemporaryDirectory directory;
  const std::string log = directory.Path("a.xml");
  ASSERT_EQ(AppendLog(log, "first"), 0);
  ASSERT_TRUE(sandbox::MakeDirectories(directory.Path("a.xm_/full")));
  EXPECT_EQ(AppendLog(log, "second", 1), 0);
  EXPECT_EQ(WithoutTimes(sandbox::ReadFile(log)),
            LogOf({Entry("4", "7", "u", "s", "first"), Entry("4", "7", "u", "s", "second")}));
  EXPECT_TRUE(fs::is_directory(directory.Path("a.xm_/full")));
}

TEST_F(InTheWay, OfTheBackupIsReplacedByTheLog) {
  for (const Thing thing : {Thing::kPipe, Thing::kSocket, Thing::kLinkToItself, Thing::kLinkToNothing}) {
    const TemporaryDirectory directory;
    const std::string log = directory.Path("a.xml");
    ASSERT_EQ(AppendLog(log, "first"), 0);
    ASSERT_TRUE(Put(thing, directory.Path("a.xm_")));
    EXPECT_EQ(AppendLog(log, "second", 1), 0);
    EXPECT_EQ(TreeOf(directory.path()).size(), 2u) << NameOf(thing);
    EXPECT_EQ(WithoutTimes(sandbox::ReadFile(directory.Path("a.xm_"))), LogOf({Entry("4", "7", "u", "s", "first")}));
  }
  EXPECT_FALSE(fs::exists("/opt/zebcs-test-tmp/nothing"));
}

TEST_F(InTheWay, ReadOnlyLockDirectoryLeavesTheLibraryDetached) {
  Mount mount;
  ASSERT_TRUE(mount.ReadOnly(sandbox::kLockDirectory));
  EXPECT_EQ(FrameOfNewHost(), "name: 130000\nlock: 0\n") << "only a file that may not be written is opened for reading";
}

TEST_F(InTheWay, ReadOnlyProductMeansThatRightsGoUnreported) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * poweruser\n", 0640, 1000000));
  const Tree before = TreeOf(kProduct);
  {
    Mount mount;
    ASSERT_TRUE(mount.ReadOnly(kProduct));
    EXPECT_EQ(RightsOf("zoe@h"), 3u);
    EXPECT_EQ(KCSAppendToCmdLog(5001, "u", "s", "d", 1), -1);
    const u32 value = 1;
    EXPECT_NE(KCSWriteINIFileValue("s", "k", ZEBCS_INI_U32, &value, sizeof value, "a.ini", 1), 0);
    EXPECT_EQ(KCSGetIWSTempDirPath(), nullptr);
  }
  EXPECT_EQ(TreeOf(kProduct), before);
}

// --- Files of others ------------------------------------------------------------------------------------------------

namespace {

// Gives up the rights by which user 0 reads and writes every file, as the account of a service has none.
bool DropFileRights() {
  __user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> rights = {};
  if (syscall(SYS_capget, &header, rights.data()) != 0) return false;
  constexpr __u32 kDropped = 1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH;
  rights[0].effective &= ~kDropped;
  rights[0].permitted &= ~kDropped;
  return syscall(SYS_capset, &header, rights.data()) == 0;
}

class FilesOfOthers : public InTheWay {};

}  // namespace

TEST_F(FilesOfOthers, UnreadableOnesAreNotThere) {
  const TemporaryDirectory directory;
  const std::string ini = directory.Path("a.ini");
  const std::string properties = directory.Path("a.properties");
  const std::string resource = directory.Path("text.res");
  ASSERT_TRUE(sandbox::WriteFile(ini, "[s]\nkey=1\n", 0) && sandbox::WriteFile(properties, "key=1\n", 0) &&
              sandbox::WriteFile(resource, Utf16("0:1=x\r\n"), 0));
  for (const char *name : {"oem.ini", "qxcli32.ini", "zeb.properties"}) {
    const std::string path = std::string(sandbox::kIniDirectory) + "/" + name;
    ASSERT_TRUE(sandbox::WriteFile(path,
                                   "[data]\nadschemaprefix=x\n[blade]\nblade=true\n"
                                   "preferences.system.cmdlogmaxsize=2000000\n",
                                   0));
  }
  const Tree before = TreeOf(directory.path());
  EXPECT_EQ(InAnotherProcess([&] {
              if (!DropFileRights()) return 1;
              EXPECT_EQ(ReadINI(ini, "s", "key"), "status 7");
              EXPECT_EQ(WriteINI(ini, "s", "key", "2"), SM_STATUS_NOT_FOUND);
              EXPECT_EQ(WriteINI(ini, "t", "key", "2"), SM_STATUS_NOT_FOUND);
              EXPECT_EQ(CountPairs(properties), 0u);
              EXPECT_EQ(SetPair(properties, "key", "2"), SM_STATUS_PATH_UNAVAILABLE);
              ustring text[64] = {};
              u32 size = sizeof text;
              KCSGetUnicodeStringFromIDPathFile(1, nullptr, resource.c_str(), text, &size);
              EXPECT_EQ(std::string(text, std::find(text, text + 64, 0)), "String resource not found");
              EXPECT_EQ(Text(KCSGetOEMADSchemaPrefix()), "vorn");
              EXPECT_EQ(KCSCheckModularChassis(), 0);
              EXPECT_EQ(KCSGetCmdLogMaxSize(&size), 0);
              EXPECT_EQ(size, 0x100000u);
              return 0;
            }),
            0);
  EXPECT_EQ(TreeOf(directory.path()), before);
}

TEST_F(FilesOfOthers, DirectoryThatMayNotBeEnteredHidesItsFiles) {
  const TemporaryDirectory directory;
  const std::string closed = directory.Path("closed");
  ASSERT_TRUE(sandbox::MakeDirectories(closed) && sandbox::WriteFile(closed + "/a.ini", "[s]\nkey=1\n") &&
              sandbox::WriteFile(closed + "/a.xml", ""));
  const Tree before = TreeOf(closed);
  ASSERT_EQ(chmod(closed.c_str(), 0), 0);
  EXPECT_EQ(InAnotherProcess([&] {
              if (!DropFileRights()) return 1;
              EXPECT_EQ(ReadINI(closed + "/a.ini", "s", "key"), "status 7");
              EXPECT_EQ(WriteINI(closed + "/a.ini", "s", "key", "2"), SM_STATUS_NOT_FOUND);
              EXPECT_EQ(CountPairs(closed + "/a.ini"), 0u);
              EXPECT_EQ(SetPair(closed + "/a.ini", "key", "2"), SM_STATUS_PATH_UNAVAILABLE);
              EXPECT_EQ(AppendLog(closed + "/a.xml", "d"), -1);
              EXPECT_EQ(KCSForceXMLLogExists((closed + "/a.xml").c_str(), "u", "s"), -1);
              EXPECT_EQ(KCSClearXMLLog((closed + "/a.xml").c_str(), "u", "s"), -1);
              return 0;
            }),
            0);
  ASSERT_EQ(chmod(closed.c_str(), 0755), 0);
  EXPECT_EQ(TreeOf(closed), before);
}

TEST_F(FilesOfOthers, KeptOwnerOfTheRoleMapDoesNotMatter) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * poweruser\n", 0640, 1000000));
  if (sandbox::CanSwitchAccounts()) {
    ASSERT_EQ(chown(sandbox::kRoleMapPath, 1003, 65534), 0);
  }
  ASSERT_EQ(chmod("/opt/vorn/fleetops/etc", 01777), 0);
  EXPECT_EQ(RightsOf("zoe@h"), 3u) << "nor do the rights of its directory";
}

TEST_F(FilesOfOthers, RoleMapThatSomeGroupOrAnybodyMayWriteIsNotRead) {
  time_t time = 1000000;
  for (const mode_t mode :
       {0660u, 0642u, 0666u, 0777u, 02640u, 04640u, 06640u, 0650u, 0641u, 0644u, 0600u, 0400u, 0u}) {
    ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * administrator\n", mode, ++time));
    EXPECT_EQ(RightsOf("zoe@h"), 1u) << mode;
  }
}

TEST_F(FilesOfOthers, LogOfAnotherAccountIsAppendedToAndItsModeStaysHis) {
  if (!sandbox::CanSwitchAccounts()) {
    EXPECT_NE(chown(sandbox::kLogDirectory, 1003, 0), 0);
    return;
  }
  const TemporaryDirectory directory;
  const std::string log = directory.Path("a.xml");
  ASSERT_EQ(chmod(directory.path().c_str(), 0777), 0);
  ASSERT_EQ(AppendLog(log, "first"), 0);
  ASSERT_EQ(chown(log.c_str(), 1003, 65534), 0);
  ASSERT_EQ(chmod(log.c_str(), 0666), 0);
  EXPECT_EQ(InAnotherProcess([&] {
              if (setresgid(1001, 1001, 1001) != 0 || setresuid(1001, 1001, 1001) != 0) return 1;
              return AppendLog(log, "second");
            }),
            0);
  EXPECT_EQ(Described(log), "0666 " + LogOf({Entry("4", "7", "u", "s", "first"), Entry("4", "7", "u", "s", "second")}));
}

// --- Limits of the process ------------------------------------------------------------------------------------------

namespace {

class Limits : public InTheWay {};

struct Change {
  const char *name;
  std::function<s32(const std::string &folder)> make;
  bool isReplacement;  // by a temporary file that takes the file's place; else it is written in place
};

const std::string kLongText(3000, 'x');

const std::vector<Change> &FileChanges() {
  static const std::vector<Change> changes = {
      {"INI update", [](const std::string &f) { return WriteINI(f + "/a.ini", "s", "key", kLongText.c_str()); }, true},
      {"INI removal", [](const std::string &f) { return WriteINI(f + "/a.ini", "t", "key", nullptr); }, true},
      {"INI section", [](const std::string &f) { return WriteINI(f + "/a.ini", "u", "key", kLongText.c_str()); },
       false},
      {"INI file", [](const std::string &f) { return WriteINI(f + "/b.ini", "s", "key", kLongText.c_str()); }, false},
      {"pair", [](const std::string &f) { return SetPair(f + "/a.properties", "key", kLongText.c_str()); }, true},
      {"log", [](const std::string &f) { return AppendLog(f + "/a.xml", kLongText.c_str()); }, false},
      {"new log", [](const std::string &f) { return AppendLog(f + "/b.xml", kLongText.c_str()); }, false},
      {"forced log", [](const std::string &f) { return KCSForceXMLLogExists((f + "/b.xml").c_str(), "u", "s"); },
       false},
  };
  return changes;
}

bool FillFolder(const std::string &folder) {
  return sandbox::MakeDirectories(folder) &&
         sandbox::WriteFile(folder + "/a.ini", "[s]\nkey=one\n" + std::string(2000, 'y') + "\n[t]\nkey=two\n") &&
         sandbox::WriteFile(folder + "/a.properties", "key=one\n" + std::string(2000, 'y') + "\nother=2\n") &&
         AppendLog(folder + "/a.xml", "first") == 0;
}

// What must not be less than it was: the contents, where an empty file is as good as none, and a temporary one too.
std::map<std::string, std::string> ContentsOf(const std::string &folder) {
  std::map<std::string, std::string> contents;
  for (const auto &entry : fs::directory_iterator(folder)) {
    const std::string text = WithoutTimes(sandbox::ReadFile(entry.path()));
    if (entry.path().extension() != ".tmp" && !text.empty()) contents[entry.path().filename()] = text;
  }
  return contents;
}

constexpr rlim_t kFileSizes[] = {0, 1, 10, 64, 65, 75, 100, 1000, 2010, 2030, 3010, 3400, 5050};

// A change that was made where no file may be longer than some size.
struct LimitedChange {
  const Change &change;
  std::string what;
  std::string folder;
  std::map<std::string, std::string> before;  // the contents
  int status;                                 // of the change, or of the process that died of it
};

// Makes each change in a process of its own for each size, on fresh files, and has a look at what became of it.
void MakeChangesAtLimits(void (*atLimit)(int), const std::function<void(const LimitedChange &)> &look) {
  for (const Change &change : FileChanges()) {
    for (const rlim_t size : kFileSizes) {
      const TemporaryDirectory directory;
      const std::string folder = directory.Path("files");
      ASSERT_TRUE(FillFolder(folder));
      const auto before = ContentsOf(folder);
      const int status = InAnotherProcess([&] {
        const rlimit limit{size, size};
        if (std::signal(SIGXFSZ, atLimit) == SIG_ERR || setrlimit(RLIMIT_FSIZE, &limit) != 0) return 99;
        return change.make(folder);  // statuses of failures fit an exit status
      });
      look({change, change.name + " to "s + std::to_string(size), folder, before, status});
    }
  }
}

}  // namespace

TEST_F(Limits, FileThatMayNotGrowIsAsItWas) {
  int failures = 0;
  MakeChangesAtLimits(SIG_IGN, [&failures](const LimitedChange &limited) {
    const auto after = ContentsOf(limited.folder);
    if (limited.status == SM_STATUS_SUCCESS) {
      EXPECT_NE(after, limited.before) << limited.what;
    } else {
      ++failures;
      EXPECT_EQ(limited.status, SM_STATUS_WRITE_FAILED) << limited.what;
      EXPECT_EQ(after, limited.before) << limited.what;
    }
    EXPECT_TRUE(sandbox::LockIsFree()) << limited.what;
  });
  EXPECT_GT(failures, 30);
}

TEST_F(Limits, ProcessThatDiesAtOneLeavesTheOldFilesThatAreReplacedAsAWhole) {
  int deaths = 0;
  MakeChangesAtLimits(SIG_DFL, [&deaths](const LimitedChange &limited) {
    if (!limited.change.isReplacement || limited.status == SM_STATUS_SUCCESS) return;
    ++deaths;
    EXPECT_EQ(limited.status, 128 + SIGXFSZ) << limited.what;
    EXPECT_EQ(ContentsOf(limited.folder), limited.before) << limited.what;
    EXPECT_TRUE(sandbox::LockIsFree()) << limited.what << ": the system drops it";
    EXPECT_EQ(limited.change.make(limited.folder), 0) << limited.what << ": the next one works";
  });
  EXPECT_GT(deaths, 10);
}

namespace {

// Takes all descriptors that the process may have.
std::vector<int> TakeDescriptors() {
  const rlimit limit{64, 64};
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<int> taken;
  for (int fd = dup(0); fd != -1; fd = dup(0)) taken.push_back(fd);
  EXPECT_EQ(errno, EMFILE);
  return taken;
}

}  // namespace

TEST_F(Limits, WithoutADescriptorEveryCallThatNeedsAFileSaysSo) {
  const TemporaryDirectory directory;
  const std::string folder = directory.Path("files");
  ASSERT_TRUE(FillFolder(folder));
  ASSERT_TRUE(sandbox::WriteFile(folder + "/text.res", Utf16("0:1=x\r\n")));
  const Tree before = TreeOf(folder);
  EXPECT_EQ(InAnotherProcess([&] {
              const std::vector<int> taken = TakeDescriptors();
              EXPECT_EQ(ReadINI(folder + "/a.ini", "s", "key"), "status 7");
              EXPECT_EQ(CountPairs(folder + "/a.properties"), 0u);
              for (const Change &change : FileChanges()) {
                const std::string name = change.name;
                const s32 expected = name == "pair"                          ? SM_STATUS_PATH_UNAVAILABLE
                                     : name.find("log") != std::string::npos ? -1
                                                                             : SM_STATUS_NOT_FOUND;
                EXPECT_EQ(change.make(folder), expected) << change.name;
              }
              EXPECT_EQ(KCSClearXMLLog((folder + "/none.xml").c_str(), "u", "s"), -1);
              EXPECT_EQ(KCSAppendToCmdLog(5001, "u", "s", "d", 1), -1);
              ustring text[64] = {};
              u32 size = sizeof text;
              KCSGetUnicodeStringFromIDPathFile(1, nullptr, (folder + "/text.res").c_str(), text, &size);
              EXPECT_EQ(std::string(text, std::find(text, text + 64, 0)), "String resource not found");
              EXPECT_EQ(FileLock(0), 1);
              FileUnlock();
              for (const int fd : taken) close(fd);
              EXPECT_EQ(ReadINI(folder + "/a.ini", "s", "key"), "one");
              return 0;
            }),
            0);
  EXPECT_EQ(TreeOf(folder), before);
}

#ifndef ZEBCS_SANITIZED
// The sanitizers need descriptors themselves, to see whether an object is one.
TEST_F(Limits, KeptWithoutADescriptorTheBuiltInRightsStandInUntilTheRoleMapIsSaved) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "zoe * administrator\n", 0640, 1000000));
  ASSERT_TRUE(sandbox::WriteFile("/etc/pam.d/qxauth", "auth required pam_permit.so\naccount required pam_permit.so\n"));
  EXPECT_EQ(InAnotherProcess([] {
              const std::vector<int> taken = TakeDescriptors();
              EXPECT_EQ(RightsOf("zoe@h"), 1u) << "the built-in rules stand in for a file that cannot be opened";
              EXPECT_EQ(RightsOf("alice@h"), 1u);
              EXPECT_EQ(KCSAuthenticateUser(nullptr, std::array<ustring, 2>{'z', 0}.data(),
                                            std::array<ustring, 2>{'p', 0}.data()),
                        0u);
              for (const int fd : taken) close(fd);
              EXPECT_EQ(RightsOf("zoe@h"), 1u) << "the file is read, and its rules are not taken over";
              if (!sandbox::SetModificationTime(sandbox::kRoleMapPath, 1000001)) return 1;
              EXPECT_EQ(RightsOf("zoe@h"), 7u);
              return 0;
            }),
            0);
}
#endif

// --- Time -----------------------------------------------------------------------------------------------------------

namespace {

class Growth : public InTheWay {};

std::string Repeated(const std::string &text, size_t size) {
  std::string result;
  result.reserve(size + text.size());
  while (result.size() < size) result += text;
  return result;
}

// Numbered lines such as "key7=value".
std::string Numbered(const std::string &before, const std::string &behind, size_t size) {
  std::string result;
  for (int i = 0; result.size() < size; ++i) result += before + std::to_string(i) + behind;
  return result;
}

struct Parser {
  const char *name;
  std::string start;                                  // of the file, which makes the parser look at the rest
  std::function<s32(const std::string &path)> parse;  // and its status
  s32 status;                                         // for any of the texts
};

double CpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// The least of a few runs: what else the machine does only adds to it.
double SecondsOf(const Parser &parser, const std::string &path, const std::string &text, s32 statusOfMalformed) {
  double least = 1e9;
  for (int run = 0; run < 3 && least > 0.02; ++run) {
    EXPECT_TRUE(sandbox::WriteFile(path, parser.start + text));
    const double start = CpuSeconds();
    const s32 status = parser.parse(path);
    least = std::min(least, CpuSeconds() - start);
    EXPECT_TRUE(status == parser.status || status == statusOfMalformed) << parser.name << ": " << status;
  }
  return least;
}

struct Shape {
  const char *name;
  std::function<std::string(size_t)> text;
  s32 statusOfMalformed = 0;  // where an INI file cannot be read to its end
};

const std::vector<Shape> &Shapes() {
  static const std::vector<Shape> shapes = {
      {"one line", [](size_t size) { return std::string(size, 'x'); }},
      {"line feeds", [](size_t size) { return std::string(size, '\n'); }},
      {"short lines", [](size_t size) { return Repeated("a\n", size); }},
      {"zeros", [](size_t size) { return std::string(size, '\0'); }},
      {"blanks", [](size_t size) { return std::string(size, ' '); }},
      {"blank lines", [](size_t size) { return Repeated(" \t \n", size); }},
      {"equals signs", [](size_t size) { return std::string(size, '='); }},
      {"quotes", [](size_t size) { return std::string(size, '"'); }},
      {"quoted blanks", [](size_t size) { return Repeated("\" =", size); }},
      {"brackets in a line", [](size_t size) { return "x" + std::string(size, '['); }, SM_STATUS_PARSE_ERROR},
      {"brackets in lines", [](size_t size) { return Repeated("x[\n", size); }},
      {"headers", [](size_t size) { return Repeated("[x]\n", size); }},
      {"keys", [](size_t size) { return Numbered("key", "=value\n", size); }},
      {"comments", [](size_t size) { return Repeated("# comment [x] =\n", size); }},
      {"carriage returns", [](size_t size) { return std::string(size, '\r'); }},
      {"line ends of another system", [](size_t size) { return Repeated("a=b\r\n", size); }},
      {"ends of entries", [](size_t size) { return Repeated("</LogEntry>", size); }},
      {"almost ends of logs", [](size_t size) { return Repeated("</EventLog", size); }},
      {"angle brackets", [](size_t size) { return std::string(size, '<'); }},
      {"high bytes", [](size_t size) { return std::string(size, '\xff'); }},
      {"digits and colons", [](size_t size) { return Repeated("0:1F", size); }},
  };
  return shapes;
}

const std::vector<Parser> &Parsers() {
  static const std::vector<Parser> parsers = {
      {"INI value", "", [](const std::string &p) { return ReadINI(p, "none", "key").starts_with("status 26") ? 0 : 1; },
       0},
      {"INI key", "[s]\n", [](const std::string &p) { return ReadINI(p, "s", "none") == "status 263" ? 0 : 1; }, 0},
      {"INI sections", "[s]\n",
       [](const std::string &p) {
         static std::vector<astring> list(1000001);
         u32 size = 1000000;
         return KCSReadINIPathFileValue(nullptr, nullptr, ZEBCS_INI_ASTRING, list.data(), &size, nullptr, 0, p.c_str(),
                                        1);
       },
       0},
      {"INI keys", "[s]\na=b\n",
       [](const std::string &p) {
         static std::vector<astring> list(1000001);
         u32 size = 1000000;
         return KCSReadINIPathFileValue("s", nullptr, ZEBCS_INI_ASTRING, list.data(), &size, nullptr, 0, p.c_str(), 1);
       },
       0},
      {"INI update", "[s]\nkey=1\n", [](const std::string &p) { return WriteINI(p, "s", "key", "2"); }, 0},
      {"INI addition", "[s]\n", [](const std::string &p) { return WriteINI(p, "s", "none", "2"); }, 0},
      {"INI section", "", [](const std::string &p) { return WriteINI(p, "none", "key", "2"); }, 0},
      {"pairs", "a=b\n", [](const std::string &p) { return CountPairs(p) > 0 ? 0 : 1; }, 0},
      {"pair", "", [](const std::string &p) { return SetPair(p, "none", "2"); }, 0},
      {"resource", "\xff\xfe",
       [](const std::string &p) {
         ustring text[64] = {};
         u32 size = sizeof text;
         u32 language = 7;
         return static_cast<s32>(KCSGetUnicodeStringFromIDPathFile(9, &language, p.c_str(), text, &size));
       },
       0},
      {"repair", "",
       [](const std::string &p) {
         XMLFileCheck(p.c_str());
         return sandbox::ReadFile(p).ends_with("</EventLog>") ? 0 : 1;
       },
       0},
      {"append to what is no log", "", [](const std::string &p) { return AppendLog(p, "d"); }, SM_STATUS_BAD_DATA},
      {"append before a tail", kHeader + "</EventLog>", [](const std::string &p) { return AppendLog(p, "d"); }, 0},
      {"content", "",
       [](const std::string &p) {
         return Text(KCSCmdGetXMLLogContent(p.c_str(), nullptr, nullptr)).ends_with("<SMStatus>0</SMStatus>") ? 0 : 1;
       },
       0},
      {"role map", "zoe * user\n",
       [](const std::string &p) {
         static time_t time = 1000000;
         if (!sandbox::WriteFile(sandbox::kRoleMapPath, sandbox::ReadFile(p), 0640, ++time)) return 1;
         return RightsOf("zoe@h") == 1 ? 0 : 1;
       },
       0},
  };
  return parsers;
}

}  // namespace

TEST_F(Growth, NoParserTakesMoreThanItsFileGrows) {
#ifdef ZEBCS_SANITIZED
  constexpr size_t kSize = 10000;
#else
  constexpr size_t kSize = 200000;
#endif
  const TemporaryDirectory directory;
  const std::string path = directory.Path("file");
  for (const Parser &parser : Parsers()) {
    for (const Shape &shape : Shapes()) {
      const double small = SecondsOf(parser, path, shape.text(kSize), shape.statusOfMalformed);
      const double large = SecondsOf(parser, path, shape.text(4 * kSize), shape.statusOfMalformed);
      EXPECT_LT(large, 8 * small + 0.2) << parser.name << ", " << shape.name << ": " << small;
    }
  }
}

// --- Texts ----------------------------------------------------------------------------------------------------------

namespace {

class OddTexts : public InTheWay {};

}  // namespace

TEST_F(OddTexts, ByteOrderMarkIsPartOfTheFirstLine) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("file");
  ASSERT_TRUE(sandbox::WriteFile(path, "\xef\xbb\xbf[s]\nkey=1\n[t]\nkey=2\n"));
  EXPECT_EQ(ReadINI(path, "s", "key"), "status 262");
  EXPECT_EQ(ReadINI(path, "t", "key"), "2");
  EXPECT_EQ(WriteINI(path, "s", "key", "3"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), "\xef\xbb\xbf[s]\nkey=1\n[t]\nkey=2\n[s]\nkey=3\n");
  ASSERT_TRUE(sandbox::WriteFile(path, "\xef\xbb\xbfkey=1\n\xef\xbb\xbf#x=2\n"));
  EXPECT_EQ(CountPairs(path), 2u);
  EXPECT_EQ(SetPair(path, "key", "3"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), "\xef\xbb\xbfkey=1\n\xef\xbb\xbf#x=2\nkey=3\n");
  for (const char *start : {"\xef\xbb\xbf", "\xff\xfe", "\xfe\xff"}) {
    static time_t time = 1000000;
    ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, start + "zoe * administrator\n"s, 0640, ++time));
    EXPECT_EQ(InAnotherProcess([] { return static_cast<int>(RightsOf("zoe@h")); }), 1) << "not zoe's line";
  }
}

TEST_F(OddTexts, AnyByteAtAnyPlaceOfARoleMapGivesNobodyMore) {
  const std::string line = "zoe h user\n";
  time_t time = 1000000;
  for (size_t position = 0; position < line.size(); ++position) {
    // Each place has a process of its own, as a format error lasts.
    EXPECT_EQ(InAnotherProcess([&] {
                for (int byte = 0; byte < 256; ++byte) {
                  std::string text = line;
                  text[position] = static_cast<char>(byte);
                  if (!sandbox::WriteFile(sandbox::kRoleMapPath, text, 0640, ++time)) return 1;
                  EXPECT_LE(RightsOf("zoe@h"), 1u) << position << ' ' << byte;
                  EXPECT_LE(RightsOf("h@zoe"), 1u) << position << ' ' << byte;
                }
                return 0;
              }),
              0);
  }
}

TEST_F(OddTexts, LineEndsOfAnotherSystemMakeTheRoleMapUnusable) {
  ASSERT_TRUE(sandbox::WriteFile(sandbox::kRoleMapPath, "# rules\r\nzoe * administrator\r\n", 0640));
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
}

TEST_F(OddTexts, BytesOfAnyKindAreKeptByEveryRewrite) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("file");
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes += static_cast<char>(byte == '[' ? 'x' : byte);
  const std::string many = Repeated(bytes, 100000);
  ASSERT_TRUE(sandbox::WriteFile(path, many + "\n[s]\nkey=1\n" + many));
  EXPECT_EQ(WriteINI(path, "s", "key", "2"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), many + "\n[s]\nkey=2\n" + many);
  ASSERT_TRUE(sandbox::WriteFile(path, many + "\nkey=1\n" + many));
  EXPECT_EQ(SetPair(path, "key", "2"), 0);
  EXPECT_EQ(sandbox::ReadFile(path), many + "\nkey=2\n" + many);
}

// --- A role map that changes while it is read -----------------------------------------------------------------------

namespace {

class Swapped : public InTheWay {};

constexpr const char *kOther = "/opt/vorn/fleetops/etc/zebrolemap.other";

struct Swap {
  const char *name;
  std::function<bool()> prepare;    // both
  std::function<bool(int)> change;  // that is made again and again
  std::set<u32> rights;             // that zoe may have
};

bool Exchange() { return renameat2(AT_FDCWD, kOther, AT_FDCWD, sandbox::kRoleMapPath, RENAME_EXCHANGE) == 0; }

bool WriteOther(const std::string &text, mode_t mode = 0640) { return sandbox::WriteFile(kOther, text, mode, 2000000); }

bool WriteRoleMap(const std::string &text, time_t time = 1000000) {
  return sandbox::WriteFile(sandbox::kRoleMapPath, text, 0640, time);
}

const std::vector<Swap> &Swaps() {
  const auto exchange = [](int) { return Exchange(); };
  static const std::vector<Swap> swaps = {
      {"another file", [] { return WriteOther("zoe * poweruser\n"); }, exchange, {3, 7}},
      {"a link to another file",
       [] {
         return sandbox::WriteFile("/opt/zebcs-test-tmp/target", "zoe * poweruser\n", 0640, 2000000) &&
                symlink("/opt/zebcs-test-tmp/target", kOther) == 0;
       },
       exchange,
       {3, 7}},
      {"a file with fewer rules", [] { return WriteOther("# nothing for zoe\nbob * user\n"); }, exchange, {0, 7}},
      {"an empty file", [] { return WriteOther(""); }, exchange, {1, 7}},
      {"a directory", [] { return mkdir(kOther, 0640) == 0; }, exchange, {1, 7}},
      {"a link to itself", [] { return symlink(kOther, kOther) == 0; }, exchange, {1, 7}},
      {"a device", [] { return symlink("/dev/null", kOther) == 0; }, exchange, {1, 7}},
      {"nothing",
       [] { return true; },
       [](int i) {
         return i % 2 == 0 ? rename(sandbox::kRoleMapPath, kOther) == 0 : rename(kOther, sandbox::kRoleMapPath) == 0;
       },
       {1, 7}},
      {"other modes",
       [] { return true; },
       [](int i) { return chmod(sandbox::kRoleMapPath, i % 2 == 0 ? 0644 : 0640) == 0; },
       {1, 7}},
      {"other times",
       [] { return true; },
       [](int i) { return sandbox::SetModificationTime(sandbox::kRoleMapPath, 1000000 + i); },
       {7}},
      {"a file that is truncated and grows",
       [] { return true; },
       [](int i) {
         std::string text = "zoe * administrator\n";
         for (int line = 0; line < 40; ++line) text += "user" + std::to_string(line) + " * poweruser\n";
         return WriteRoleMap(text, 1000000 + i);
       },
       {1, 7}},
  };
  return swaps;
}

}  // namespace

TEST_F(Swapped, RightsAreThoseOfOneOfTheTwoOrTheBuiltInOnes) {
  for (const Swap &swap : Swaps()) {
    ASSERT_TRUE(sandbox::RemoveTree(kOther) && sandbox::RemoveTree(sandbox::kRoleMapPath));
    ASSERT_TRUE(WriteRoleMap("zoe * administrator\n") && swap.prepare()) << swap.name;
    ASSERT_TRUE(sandbox::RemoveTree(kCommandLog));
    Within(swap.name, [&swap] {
      std::atomic<bool> isOver = false;
      std::atomic<int> swaps = 0;
      std::thread swapper([&] {
        for (int i = 0; !isOver; ++i) {
          EXPECT_TRUE(swap.change(i)) << swap.name << ": " << std::strerror(errno);
          ++swaps;
        }
      });
      const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(400);
      while (std::chrono::steady_clock::now() < end || swaps < 100) {
        const u32 rights = RightsOf("zoe@h");
        EXPECT_TRUE(swap.rights.contains(rights)) << swap.name << ": " << rights;
        EXPECT_LE(RightsOf("stranger@h"), 1u) << swap.name;
      }
      isOver = true;
      swapper.join();
    });
  }
}

// --- Signals, children, locales -------------------------------------------------------------------------------------

namespace {

std::atomic<int> l_ticks = 0;

// Interrupts the process every millisecond, without the calls being restarted.
bool Tick(bool isOn, bool hasTimer = true) {
  struct sigaction action = {};
  action.sa_handler = [](int) { ++l_ticks; };
  if (!isOn) action.sa_handler = SIG_IGN;
  const timeval pause{0, isOn && hasTimer ? 1000 : 0};
  const itimerval timer{pause, pause};
  return sigaction(SIGALRM, &action, nullptr) == 0 && setitimer(ITIMER_REAL, &timer, nullptr) == 0;
}

class Interrupted : public InTheWay {};

// Makes a call that waits until another process has interrupted it two hundred times, and only then goes on.
void WhileAnotherProcess(const char *what, const std::function<bool()> &takes, const std::function<void()> &gives,
                         const std::function<void()> &body) {
  const pid_t self = getpid();
  Process other;
  ASSERT_TRUE(other.Start([&](Channel &channel) {
    channel.Put(takes() ? "ready" : "failed");
    if (channel.Get() != "go") return 1;
    for (int i = 0; i < 200; ++i) {
      usleep(1000);
      if (kill(self, SIGALRM) != 0) return 2;
    }
    gives();
    return 0;
  }));
  ASSERT_EQ(other.Receive(), "ready") << what;
  l_ticks = 0;
  ASSERT_TRUE(Tick(true, false));
  other.Send("go");
  body();
  EXPECT_EQ(other.Wait(), 0) << what;
  ASSERT_TRUE(Tick(false));
  EXPECT_GT(l_ticks, 0) << what;
}

void WhileTheLockIsHeld(const char *what, const std::function<void()> &body) {
  WhileAnotherProcess(
      what, [] { return FileLock(0) == 1; }, FileUnlock, body);
}

}  // namespace

TEST_F(Interrupted, CallsThatWaitForTheLockGoOnWaiting) {
  const TemporaryDirectory directory;
  const std::string folder = directory.Path("files");
  ASSERT_TRUE(FillFolder(folder));
  ASSERT_TRUE(WriteRoleMap("zoe * nonsense\n"));
  const std::pair<const char *, std::function<void()>> cases[] = {
      {"INI value", [&] { EXPECT_EQ(ReadINI(folder + "/a.ini", "s", "key"), "one"); }},
      {"INI update", [&] { EXPECT_EQ(WriteINI(folder + "/a.ini", "s", "key", "2"), 0); }},
      {"pairs", [&] { EXPECT_EQ(CountPairs(folder + "/a.properties"), 2u); }},
      {"pair", [&] { EXPECT_EQ(SetPair(folder + "/a.properties", "key", "2"), 0); }},
      {"log", [&] { EXPECT_EQ(AppendLog(folder + "/a.xml", "d"), 0); }},
      {"backup", [&] { EXPECT_EQ(AppendLog(folder + "/a.xml", "d", 1), 0); }},
      {"clearing", [&] { EXPECT_EQ(KCSClearXMLLog((folder + "/a.xml").c_str(), "u", "s"), 0); }},
      {"command log", [&] { EXPECT_EQ(KCSAppendToCmdLog(5001, "u", "s", "d", 1), 0); }},
      {"maximum size", [&] { EXPECT_EQ(KCSSetCmdLogMaxSize(0x200000), 0); }},
      {"report of the role map", [&] { EXPECT_EQ(RightsOf("zoe@h"), 1u); }},
      {"the lock",
       [&] {
         EXPECT_EQ(FileLock(1), 1);
         FileUnlock();
       }},
      {"the lock without limit",
       [&] {
         EXPECT_EQ(LockIPCFileRecord(0, ZEBCS_WAIT_FOREVER), 0);
         EXPECT_EQ(UnlockIPCFileRecord(0), 0);
       }},
  };
  for (const auto &[what, body] : cases) ASSERT_NO_FATAL_FAILURE(WhileTheLockIsHeld(what, body));
}

TEST_F(Interrupted, SemaphoreIsWaitedForAllTheSame) {
  void *const semaphore = CreateSemaphore(4711, 0);
  ASSERT_NE(semaphore, nullptr);
  WhileAnotherProcess(
      "semaphore", [] { return true; }, [&] { (void)ReleaseSemaphore(semaphore); },
      [&] { EXPECT_EQ(WaitForSemaphore(semaphore, ZEBCS_WAIT_FOREVER), 0); });
  DestroySemaphore(semaphore);
}

namespace {

class Forked : public InTheWay {};

// Starts children while another thread of this process is busy with the same calls. Each child must end by itself.
void ExpectChildrenToWork(const std::string &what, const std::function<bool()> &work) {
  std::atomic<bool> isOver = false;
  std::atomic<bool> isFine = true;
  std::thread busy([&] {
    while (!isOver) {
      if (!work()) isFine = false;
    }
  });
  for (int i = 0; i < 40; ++i) {
    Process child(std::chrono::seconds(10));
    EXPECT_TRUE(child.Start([&work](Channel &) { return work() ? 0 : 1; }));
    if (child.Wait() != 0) {
      ADD_FAILURE() << what << ": child " << i;
      break;
    }
  }
  isOver = true;
  busy.join();
  EXPECT_TRUE(isFine) << what;
}

}  // namespace

TEST_F(Forked, ChildOfAProcessAtWorkCanUseTheStores) {
  const TemporaryDirectory directory;
  const std::string folder = directory.Path("files");
  ASSERT_TRUE(FillFolder(folder));
  ExpectChildrenToWork("INI", [&] { return WriteINI(folder + "/a.ini", "s", "key", "1") == 0; });
  ExpectChildrenToWork("pairs", [&] { return SetPair(folder + "/a.properties", "key", "1") == 0; });
  ExpectChildrenToWork("maximum size", [&] { return KCSSetCmdLogMaxSize(0x200000) == 0; });
}

TEST_F(Forked, ChildThatEndsAtOnceLeavesTheParentsLock) {
  ASSERT_EQ(FileLock(0), 1);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(InAnotherProcess([] { return 0; }), 0);
    EXPECT_FALSE(sandbox::LockIsFree()) << "its descriptors are closed, and the lock is not its own";
  }
  EXPECT_EQ(InAnotherProcess([] {
              FileUnlock();  // what it never had
              return 0;
            }),
            0);
  EXPECT_FALSE(sandbox::LockIsFree());
  FileUnlock();
  EXPECT_TRUE(sandbox::LockIsFree());
}

// Leaving takes the lock, as any last detach does: it waits for a parent that has it.
TEST_F(Forked, ChildThatExitsLeavesTheParentsLock) {
  ASSERT_EQ(FileLock(0), 1);
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) std::exit(0);  // NOLINT: with all that a program does at its end
  EXPECT_FALSE(sandbox::LockIsFree());
  FileUnlock();
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(sandbox::LockIsFree());
  EXPECT_EQ(FileLock(0), 1) << "the parent is still attached";
  EXPECT_FALSE(sandbox::LockIsFree());
  FileUnlock();
}

// --- Locales --------------------------------------------------------------------------------------------------------

namespace {

// A locale with "," for the decimal point, which the C library's own program makes.
class CommaLocale {
 public:
  CommaLocale() {
    std::ofstream charmap(m_directory.Path("charmap"));
    charmap << "<code_set_name> ONEBYTE\n<mb_cur_max> 1\n<escape_char> /\n<comment_char> %\nCHARMAP\n";
    for (unsigned byte = 0; byte < 256; ++byte) {
      char line[32];
      (void)std::snprintf(line, sizeof line, "<U%04X> /x%02x\n", byte, byte);
      charmap << line;
    }
    charmap << "END CHARMAP\n" << std::flush;
    std::ofstream source(m_directory.Path("source"));
    source << "LC_CTYPE\nupper <U0041>..<U005A>\nlower <U0061>..<U007A>\nspace <U0009>..<U000D>;<U0020>\nEND LC_CTYPE\n"
              "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \".\"\ngrouping 3;3\nEND LC_NUMERIC\n"
           << std::flush;
    // It exits with 1 for the categories that the source leaves out; what counts is whether the locale can be set.
    const ProgramResult result = RunProgram({"/usr/bin/localedef", "-c", "-i", m_directory.Path("source"), "-f",
                                             m_directory.Path("charmap"), m_directory.Path("comma")});
    setenv("LOCPATH", m_directory.path().c_str(), 1);
    m_isSet = std::setlocale(LC_ALL, "comma") != nullptr;
    EXPECT_TRUE(m_isSet) << result.status << result.output << result.errors;
  }
  CommaLocale(const CommaLocale &) = delete;
  CommaLocale &operator=(const CommaLocale &) = delete;
  ~CommaLocale() {
    std::setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
  }
  explicit operator bool() const { return m_isSet; }
  std::string Variable() const { return "LOCPATH=" + m_directory.path(); }

 private:
  TemporaryDirectory m_directory;
  bool m_isSet = false;
};

class Locales : public InTheWay {};

std::string ReadDouble(const std::string &path) {
  d64 value = -1;
  u32 size = sizeof value;
  const s32 status = KCSReadINIPathFileValue("s", "key", ZEBCS_INI_D64, &value, &size, nullptr, 0, path.c_str(), 1);
  char text[64];
  (void)std::snprintf(text, sizeof text, "%d %d", status, static_cast<int>(value * 1000));
  return text;
}

}  // namespace

TEST_F(Locales, DecimalPointIsThatOfEachThread) {
  const CommaLocale locale;
  ASSERT_TRUE(locale);
  const TemporaryDirectory directory;
  const std::string path = directory.Path("a.ini");
  const d64 value = 1.5;
  const auto write = [&] {
    return KCSWriteINIPathFileValue("s", "key", ZEBCS_INI_D64, &value, sizeof value, path.c_str(), 1);
  };
  EXPECT_EQ(write(), 0);
  EXPECT_EQ(sandbox::ReadFile(path), "[s]\nkey=1,50000000\n");
  EXPECT_EQ(ReadDouble(path), "0 1500");
  std::thread([&] {
    const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
    uselocale(plain);
    EXPECT_EQ(ReadDouble(path), "0 1000") << "the number ends at what is no point";
    EXPECT_EQ(write(), 0);
    EXPECT_EQ(ReadDouble(path), "0 1500");
    uselocale(LC_GLOBAL_LOCALE);
    freelocale(plain);
  }).join();
  EXPECT_EQ(sandbox::ReadFile(path), "[s]\nkey=1.50000000\n");
  EXPECT_EQ(ReadDouble(path), "0 1000");
}

TEST_F(Locales, ThousandsAreNotPartedAnywhere) {
  const CommaLocale locale;
  ASSERT_TRUE(locale);
  const TemporaryDirectory directory;
  const std::string folder = directory.Path("files");
  ASSERT_TRUE(sandbox::MakeDirectories(folder) && Furnish(folder));
  const Tree before = TreeOf(kProduct);
  const Surrounding surrounding{
      .name = "comma", .modes = {"locale=comma"}, .environment = std::vector<std::string>{locale.Variable()}};
  EXPECT_EQ(ReportOf(surrounding, folder, directory), UsualReport());
  EXPECT_EQ(Changes(before, TreeOf(kProduct)), UsualChangesOfProduct());
}

// --- A machine that lacks what every machine has --------------------------------------------------------------------

TEST_F(InTheWay, MissingAccountsAndDevicesAddNoRights) {
  ASSERT_TRUE(WriteRoleMap(kRules) && sandbox::WriteFile("/etc/pam.d/qxauth", kService));
  ASSERT_TRUE(sandbox::WriteFile("/etc/shadow", kShadow, 0640));
  for (const char *path : {"/etc/passwd", "/etc/group", "/etc/nsswitch.conf", "/etc/hosts"}) {
    ASSERT_TRUE(sandbox::RemoveTree(path));
  }
  Within("all", [] {
    ASSERT_EQ(mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755"), 0);
    EXPECT_EQ(RightsOf("alice@h"), 7u);
    EXPECT_EQ(RightsOf("bob@web01"), 3u);
    EXPECT_EQ(RightsOf("bob@h"), 0u) << "nobody knows his groups";
    EXPECT_EQ(RightsOf("carol@h"), 1u) << "nor hers";
    EXPECT_EQ(RightsOf("root@h"), 0u);
    EXPECT_EQ(KCSOpenRolemapFile(), 0u);
    EXPECT_EQ(KCSGetRightsUsingRolemap(), 0u);
    EXPECT_EQ(KCSGetProcessUser(), nullptr);
    EXPECT_EQ(KCSGetProcessRights(), kSuperuser) << "which is by the ids alone";
    std::array<ustring, 5> source{'s', 0};
    EXPECT_EQ(KCSAppendToOSLog(1, 1, source.data(), source.data(), nullptr, 0), 0);
    EXPECT_EQ(KCSAppendToCmdLog(5001, "u", "s", "d", 1), 0);
    astring name[64];
    u32 size = sizeof name;
    EXPECT_EQ(KCSGetIPHostName(name, &size), 0);
    EXPECT_STREQ(name, "sandbox");
    ASSERT_EQ(umount2("/dev", MNT_DETACH), 0);
  });
}

// --- Services of the system -----------------------------------------------------------------------------------------

TEST_F(Interrupted, ServiceToolAnswersWhateverBecomesOfChildren) {
  const TemporaryDirectory directory;
  ASSERT_TRUE(sandbox::WriteFile(directory.Path("systemctl"), "#!/bin/sh\nexit 2\n", 0755));
  ASSERT_TRUE(fs::exists("/etc/os-release"));
  const std::string path = directory.path() + ":/usr/bin:/bin";
  ASSERT_EQ(setenv("PATH", path.c_str(), 1), 0);
  const auto ask = [](s32 expectedStatus, s32 expectedCode) {
    s32 exitCode = -1;
    EXPECT_EQ(KCSWebServer(1, nullptr, &exitCode), expectedStatus);
    EXPECT_EQ(exitCode, expectedCode);
  };
  Within("ticking", [&] {
    ASSERT_TRUE(Tick(true));
    for (int i = 0; i < 20; ++i) ask(SM_STATUS_RENAME_FAILED, 2);
  });
  Within("children that nobody waits for", [&] {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    action.sa_flags = SA_NOCLDWAIT;
    ASSERT_EQ(sigaction(SIGCHLD, &action, nullptr), 0);
    ask(-1, 255);
  });
  Within("blocked signals", [&] {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    ask(SM_STATUS_RENAME_FAILED, 2);
  });
}

// --- Endless files --------------------------------------------------------------------------------------------------

namespace {

class Endless : public InTheWay {};

constexpr const char *kEndlessDevices[] = {"/dev/zero", "/dev/full", "/dev/urandom"};

bool PutDevice(const char *device, const std::string &path) {
  return sandbox::RemoveTree(path) && symlink(device, path.c_str()) == 0;
}

}  // namespace

TEST_F(Endless, DevicesAreNoRoleMapNoResourceAndNoLog) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("file");
  for (const char *device : kEndlessDevices) {
    ASSERT_TRUE(PutDevice(device, sandbox::kRoleMapPath) && PutDevice(device, path));
    Within(device, [&] {
      EXPECT_EQ(RightsOf("zoe@h"), 1u);
      EXPECT_EQ(AppendLog(path, "d"), -1);
      EXPECT_EQ(KCSCmdGetXMLLogContent(path.c_str(), nullptr, nullptr), nullptr);
      XMLFileCheck(path.c_str());
      ustring text[64] = {};
      u32 size = sizeof text;
      if (device == "/dev/urandom"s) return;  // which may begin with any bytes
      KCSGetUnicodeStringFromIDPathFile(1, nullptr, path.c_str(), text, &size);
      EXPECT_EQ(std::string(text, std::find(text, text + 64, 0)), "Invalid string resource found");
    });
  }
}

TEST_F(Endless, ConfigurationIsNotReadWithoutEnd) {
  for (const char *device : kEndlessDevices) {
    ASSERT_TRUE(PutDevice(device, sandbox::kConfPath));
    EXPECT_EQ(InAnotherProcess(
                  [] {
                    execl(ZEBCS_HOSTILE_PROBE, ZEBCS_HOSTILE_PROBE, "/", "/dev/null", "frame", nullptr);
                    return 121;
                  },
                  std::chrono::seconds(5)),
              0)
        << device;
  }
}

TEST_F(InTheWay, PipeForTheConfigurationIsNotWaitedFor) {
  ASSERT_TRUE(Put(Thing::kPipe, sandbox::kConfPath));
  EXPECT_EQ(InAnotherProcess(
                [] {
                  execl(ZEBCS_HOSTILE_PROBE, ZEBCS_HOSTILE_PROBE, "/", "/dev/null", "frame", nullptr);
                  return 121;
                },
                std::chrono::seconds(5)),
            0);
}

TEST_F(Endless, SettingsAreNotReadWithoutEnd) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("file");
  for (const char *device : {"/dev/zero", "/dev/full"}) {
    ASSERT_TRUE(PutDevice(device, path));
    const std::pair<const char *, std::function<void()>> calls[] = {
        {"value", [&] { EXPECT_TRUE(ReadINI(path, "s", "key").starts_with("status")); }},
        {"pairs", [&] { EXPECT_EQ(CountPairs(path), 0u); }},
    };
    for (const auto &call : calls) {
      EXPECT_EQ(InAnotherProcess(
                    [&call] {
                      call.second();
                      return 0;
                    },
                    std::chrono::seconds(5)),
                0)
          << call.first << " of " << device;
      EXPECT_TRUE(sandbox::LockIsFree());
    }
  }
}

// --- Temporary files of others --------------------------------------------------------------------------------------

TEST_F(FilesOfOthers, TemporaryFileOfAnotherAccountDoesNotBecomeTheFile) {
  if (!sandbox::CanSwitchAccounts()) {
    EXPECT_NE(chown(sandbox::kLogDirectory, 1003, 0), 0);
    return;
  }
  const std::pair<const char *, std::function<s32(const std::string &)>> calls[] = {
      {"kcsini64.tmp", [](const std::string &path) { return WriteINI(path, "s", "key", "2"); }},
      {"kcscfg64.tmp", [](const std::string &path) { return SetPair(path, "key", "2"); }},
  };
  for (const auto &[temporary, call] : calls) {
    const TemporaryDirectory directory;
    const std::string path = directory.Path("file");
    ASSERT_EQ(chmod(directory.path().c_str(), 01777), 0);
    ASSERT_TRUE(sandbox::WriteFile(path, "[s]\nkey=1\n", 01664));
    ASSERT_TRUE(sandbox::WriteFile(directory.Path(temporary), "", 0666));
    ASSERT_EQ(chown(directory.Path(temporary).c_str(), 1003, 65534), 0);
    (void)call(path);
    struct stat info = {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 0u) << temporary << ": he could go on writing to it";
  }
}

// --- Children of a process at work ----------------------------------------------------------------------------------

TEST_F(Forked, ChildOfAProcessAtWorkCanAskForRights) {
  ASSERT_TRUE(WriteRoleMap(kRules));
  std::atomic<int> time = 1000000;
  ExpectChildrenToWork("rights", [&time] {
    return sandbox::SetModificationTime(sandbox::kRoleMapPath, ++time) && RightsOf("bob@h") == 1;
  });
}

TEST_F(Forked, ChildOfAProcessAtWorkCanAskForPaths) {
  ExpectChildrenToWork("paths", [] { return Text(KCSGetZEBInstallPath()) == "/opt/vorn/fleetops/"; });
}

TEST_F(Forked, ChildOfAProcessAtWorkCanWriteLogs) {
  const TemporaryDirectory directory;
  const std::string log = directory.Path("a.xml");
  ExpectChildrenToWork("log", [&] { return AppendLog(log, "d") == 0; });
}

TEST_F(Forked, ChildOfAProcessAtWorkCanWriteTheCommandLog) {
  ExpectChildrenToWork("command log", [] { return KCSAppendToCmdLog(5001, "u", "s", "d", 1) == 0; });
}

TEST_F(Forked, ChildOfAProcessAtWorkCanUseTheSystemLog) {
  ExpectChildrenToWork("system log", [] {
    std::array<ustring, 2> text{'s', 0};
    return KCSAppendToOSLog(1, 1, text.data(), text.data(), nullptr, 0) == 0;
  });
}

// --- A role map that is swapped between the look at its mode and its opening -----------------------------------------

namespace {

std::atomic<int> l_exchangeAfterLooks = 0;  // how many looks at the role map are followed by an exchange

}  // namespace

#pragma GCC visibility push(default)  // the library finds this before the C library's
extern "C" int stat(const char *path, struct stat *info) noexcept {
  const int result = fstatat(AT_FDCWD, path, info, 0);
  const int error = errno;
  if (l_exchangeAfterLooks > 0 && std::strcmp(path, sandbox::kRoleMapPath) == 0) {
    --l_exchangeAfterLooks;
    (void)renameat2(AT_FDCWD, kOther, AT_FDCWD, sandbox::kRoleMapPath, RENAME_EXCHANGE);
  }
  errno = error;
  return result;
}
#pragma GCC visibility pop

TEST_F(Swapped, FileWithAWrongModeIsNeverRead) {
  for (const mode_t mode : {0666u, 0644u, 0600u, 04640u}) {
    ASSERT_TRUE(WriteRoleMap("zoe * user\n") && WriteOther("zoe * administrator\n", mode));
    Within(std::to_string(mode), [mode] {
      l_exchangeAfterLooks = 1;
      EXPECT_EQ(RightsOf("zoe@h"), 1u) << mode;
      EXPECT_EQ(l_exchangeAfterLooks, 0);
      EXPECT_TRUE(Exchange());
    });
  }
}

TEST_F(Swapped, PipeIsNotWaitedFor) {
  ASSERT_TRUE(WriteRoleMap("zoe * user\n"));
  ASSERT_EQ(mkfifo(kOther, 0640), 0);
  EXPECT_EQ(InAnotherProcess(
                [] {
                  l_exchangeAfterLooks = 1;
                  return static_cast<int>(RightsOf("zoe@h"));
                },
                std::chrono::seconds(5)),
            1);
}

TEST_F(Swapped, FileThatTookThePlaceOfOneThatWasSeenBeforeIsANewOne) {
  ASSERT_TRUE(WriteRoleMap("zoe * user\n") && WriteOther("zoe * administrator\n", 0644));
  l_exchangeAfterLooks = 1;
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  ASSERT_TRUE(Exchange() && WriteOther("zoe * poweruser\n"));
  l_exchangeAfterLooks = 1;
  EXPECT_EQ(RightsOf("zoe@h"), 3u);
  EXPECT_EQ(l_exchangeAfterLooks, 0);
}

TEST_F(Swapped, RulesOfAFileThatIsGoneAgainAreNotKept) {
  ASSERT_TRUE(WriteRoleMap("zoe * user\n") && WriteOther("zoe * administrator\n"));
  l_exchangeAfterLooks = 1;
  (void)RightsOf("zoe@h");
  ASSERT_EQ(l_exchangeAfterLooks, 0);
  ASSERT_TRUE(Exchange());
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
}

// --- What stays open ------------------------------------------------------------------------------------------------

TEST_F(FilesOfOthers, RoleMapThatStaysOpenIsNotHandedToPrograms) {
  ASSERT_TRUE(WriteRoleMap("zoe * nonsense\n"));
  EXPECT_EQ(RightsOf("zoe@h"), 1u);
  for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code error;  // the descriptor of this walk is gone when it is asked about
    if (fs::read_symlink(entry.path(), error) != sandbox::kRoleMapPath) continue;
    const int fd = std::stoi(entry.path().filename());
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  }
}

TEST_F(FilesOfOthers, RoleMapThatStaysOpenDoesNotBecomeAStandardStream) {
  ASSERT_TRUE(WriteRoleMap("zoe * nonsense\n"));
  EXPECT_EQ(InAnotherProcess([] {
              close(STDIN_FILENO);
              EXPECT_EQ(RightsOf("zoe@h"), 1u);
              EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
              return 0;
            }),
            0);
}

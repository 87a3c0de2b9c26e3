// A host of the library in surroundings that a test has prepared: makes a call of every family, and writes down what
// came of each. It works on the fixed paths, so that it runs in the sandbox only.
//
//   hostile_probe FOLDER REPORT [MODE]...
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

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

// The descriptors that are open, without asking /proc, which may be missing.
std::vector<int> Descriptors() {
  constexpr int kMost = 4096;
  std::vector<int> open;
  for (int fd = 0; fd < kMost; ++fd) {
    if (fcntl(fd, F_GETFD) != -1) open.push_back(fd);
  }
  return open;
}

// A 16-bit text of ASCII.
std::vector<ustring> Wide(std::string_view text) {
  std::vector<ustring> units(text.begin(), text.end());
  units.push_back(0);
  return units;
}

// A text of the library's, which is released.
std::string Taken(astring *pText) {
  const std::string text = pText == nullptr ? "(null)" : pText;
  KCSFreeMem(pText);
  return text;
}

class Report {
 public:
  void Add(const char *what, const std::string &value) { m_text += std::string(what) + ": " + value + '\n'; }
  void Add(const char *what, long long value) { Add(what, std::to_string(value)); }
  const std::string &text() const { return m_text; }

 private:
  std::string m_text;
};

std::string ReadINI(const std::string &path, const char *section, const char *key) {
  astring value[256] = "";
  u32 size = sizeof value;
  const s32 status =
      KCSReadINIPathFileValue(section, key, ZEBCS_INI_ASTRING, value, &size, nullptr, 0, path.c_str(), 1);
  return std::to_string(status) + ' ' + value;
}

s32 WriteINI(const std::string &path, const char *section, const char *key, const std::string &value) {
  return KCSWriteINIPathFileValue(section, key, ZEBCS_INI_ASTRING, value.c_str(), static_cast<u32>(value.size() + 1),
                                  path.c_str(), 1);
}

void AskStores(const std::string &folder, Report &report) {
  const std::string ini = folder + "/a.ini";
  report.Add("INI value", ReadINI(ini, "t", "key"));
  report.Add("INI update", WriteINI(ini, "s", "key", "gr\xc3\xbc\xc3\x9f"));
  report.Add("INI addition", WriteINI(ini, "t", "new", "value"));
  report.Add("INI section", WriteINI(ini, "u", "key", "three"));
  report.Add("INI removal", KCSWriteINIPathFileValue("t", "old", ZEBCS_INI_ASTRING, nullptr, 0, ini.c_str(), 1));
  report.Add("INI file", WriteINI(folder + "/new/b.ini", "s", "key", "value"));
  report.Add("INI updated", ReadINI(ini, "s", "key"));
  const u32 number = 4294967295u;
  report.Add("product INI",
             KCSWriteINIFileValue("s", "number", ZEBCS_INI_U32, &number, sizeof number, "hostile.ini", 1));
  u32 readNumber = 0;
  u32 size = sizeof readNumber;
  report.Add("product INI value",
             KCSReadINIFileValue("s", "number", ZEBCS_INI_U32, &readNumber, &size, nullptr, 0, "hostile.ini", 1));
  report.Add("product number", readNumber);
  report.Add("schema prefix", Taken(KCSGetOEMADSchemaPrefix()));
  report.Add("chassis", KCSCheckModularChassis());

  const std::string properties = folder + "/a.properties";
  char key[] = "key";
  char value[] = "changed";
  const KCSKVEntry entry{key, value};
  report.Add("pair", KCSCFGSetKeyValue(properties.c_str(), &entry, 1));
  u32 count = 0;
  KCSKVEntry *const table = KCSCFGGetKeyValueEntries(properties.c_str(), &count);
  report.Add("pairs", count);
  const astring *const second = KCSCFGGetKeyValue(table, count, "key", 1);
  report.Add("second", second == nullptr ? "(null)" : second);
  KCSCFGFreeKeyValueEntries(table, count);
}

void AskLogs(const std::string &folder, Report &report) {
  const std::string log = folder + "/a.xml";
  const auto append = [&log](const char *description, u32 maxSize) {
    return KCSAppendToXMLLog(log.c_str(), 4, 7, "j\xc3\xb6rg", "<s>", description, "data", 4, maxSize);
  };
  report.Add("log", append("first", 100000));
  report.Add("log with backup", append("second", 1));
  report.Add("log made", KCSForceXMLLogExists((folder + "/logs/b.xml").c_str(), "u", "s"));
  XMLFileCheck((folder + "/torn.xml").c_str());
  report.Add("command", KCSAppendToCmdLog(5001, "u", "s", "command", 2));
  u32 size = 0;
  report.Add("command log size", KCSGetCmdLogSize(&size));
  report.Add("command log is there", size > 0);
  report.Add("maximum size", KCSGetCmdLogMaxSize(&size));
  report.Add("maximum", size);
  report.Add("content", Taken(KCSCmdGetXMLLogContent((folder + "/torn.xml").c_str(), nullptr, nullptr)));
  report.Add("system log", KCSAppendToOSLog(2, 9, Wide("source").data(), Wide("text").data(), nullptr, 0));
}

void AskRights(const std::string &folder, Report &report) {
  for (const char *userSpec :
       {"alice@h", "WEB01\\bob", "bob@web01", "bob@h", "carol@h", "root@h", "nobody@h", "no-such-account@h", "alice"}) {
    std::string copy = userSpec;
    report.Add(userSpec, get_user_rights(copy.data()));
  }
  report.Add("open", KCSOpenRolemapFile());
  report.Add("own by role map", KCSGetRightsUsingRolemap());
  report.Add("own", KCSGetProcessRights());
  report.Add("own name", Taken(KCSGetProcessUser()));
  report.Add("authorized", KCSAuthorizeUser(nullptr, Wide("alice").data()));
  u32 failure = 0;
  report.Add("masked", KCSMaskProgramRights(3, "prog", (folder + "/app.ini").c_str(), &failure));
  report.Add("failure", failure);
  report.Add("login", KCSAuthenticateUser(nullptr, Wide("alice").data(), Wide("alice's word").data()));
  report.Add("wrong password", KCSAuthenticateUser(nullptr, Wide("alice").data(), Wide("bob's word").data()));
  pam_servicename = "refusing";
  report.Add("refused login", KCSAuthenticateUser(nullptr, Wide("alice").data(), Wide("alice's word").data()));
  pam_servicename = "qxauth";
}

void AskSystem(const std::string &folder, Report &report) {
  report.Add("stylesheet", Taken(KCSGetXSLPathLocale("app", "type", "name.xsl", "pt_BR", 14, 0)));
  report.Add("web documents", Taken(KCSGetZEBWEBDocsPath()));
  report.Add("temporary directory", Taken(KCSGetIWSTempDirPath()));
  report.Add("install path", Taken(KCSGetZEBInstallPath()));
  report.Add("host", Taken(KCSGetHostNameAStr()));
  report.Add("domain", Taken(KCSGetComputerDomainName()));
  u32 count = 0;
  KCSFreeMem(KCSHostGetHostIPAddrList(&count));
  report.Add("addresses", count);
  ustring text[64] = {};
  u32 size = sizeof text;
  u32 language = 0x407;
  report.Add("resource",
             KCSGetUnicodeStringFromIDPathFile(0x1F4, &language, (folder + "/text.res").c_str(), text, &size));
  report.Add("text", std::string(std::begin(text), std::find(std::begin(text), std::end(text), 0)));
  report.Add("lock", FileLock(0));
  FileUnlock();
  report.Add("name", CreateIPCName(1));
  KCSThreadInfo thread{};
  static std::atomic<int> ran = 0;
  report.Add("thread", KCSThreadStart(
                           &thread, [](void *) { ++ran; }, nullptr));
  report.Add("thread ends", KCSThreadStop(&thread));
  report.Add("thread ran", ran);
}

std::string AskAll(const std::string &folder) {
  Report report;
  const std::vector<int> before = Descriptors();
  AskStores(folder, report);
  AskLogs(folder, report);
  AskRights(folder, report);
  AskSystem(folder, report);
  report.Add("same descriptors", Descriptors() == before);
  return report.text();
}

// --- Modes ----------------------------------------------------------------------------------------------------------

std::atomic<long> l_ticks = 0;

// Interrupts every call that can be interrupted, every millisecond.
bool StartTicking() {
  struct sigaction action = {};
  action.sa_handler = [](int) { ++l_ticks; };  // without SA_RESTART
  const itimerval often{.it_interval = {.tv_sec = 0, .tv_usec = 1000}, .it_value = {.tv_sec = 0, .tv_usec = 1000}};
  return sigaction(SIGALRM, &action, nullptr) == 0 && setitimer(ITIMER_REAL, &often, nullptr) == 0;
}

bool IgnoreChildren(int flags) {
  struct sigaction action = {};
  action.sa_handler = flags == 0 ? SIG_IGN : SIG_DFL;
  action.sa_flags = flags;
  return sigaction(SIGCHLD, &action, nullptr) == 0;
}

// Waits for every child of the process, whosever it is, as some hosts do.
void StartReaper() {
  std::thread([] {
    for (;;) {
      if (waitpid(-1, nullptr, 0) == -1) usleep(100);
    }
  }).detach();
}

// Becomes a child of nobody in particular, while the first process waits to tell how it ends.
bool BecomeDaemon() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
  const pid_t child = fork();
  if (child < 0) return false;
  if (child > 0) {
    close(ends[1]);
    char byte = 0;
    while (read(ends[0], &byte, 1) == -1 && errno == EINTR) continue;  // until the last process of it is gone
    _exit(0);
  }
  close(ends[0]);
  if (setsid() == -1) return false;
  const pid_t grandchild = fork();
  if (grandchild > 0) _exit(0);
  return grandchild == 0;
}

struct ThreadTask {
  std::string folder;
  std::string report;
};

// Makes the calls on a thread with a stack of this size.
std::string AskAllOnAStackOf(size_t size, const std::string &folder) {
  ThreadTask task{folder, ""};
  pthread_attr_t attributes;
  pthread_t thread{};
  pthread_attr_init(&attributes);
  if (pthread_attr_setstacksize(&attributes, size) != 0) return "no stack\n";
  const auto run = [](void *p) -> void * {
    auto &data = *static_cast<ThreadTask *>(p);
    data.report = AskAll(data.folder);
    return nullptr;
  };
  if (pthread_create(&thread, &attributes, run, &task) != 0) return "no thread\n";
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  return task.report;
}

bool Prepare(std::string_view mode) {
  if (mode == "ticking") return StartTicking();
  if (mode == "children-ignored") return IgnoreChildren(0);
  if (mode == "children-not-kept") return IgnoreChildren(SA_NOCLDWAIT);
  if (mode == "children-reaped") {
    StartReaper();
    return true;
  }
  if (mode == "daemon") return BecomeDaemon();
  if (mode.starts_with("locale=")) return std::setlocale(LC_ALL, mode.data() + 7) != nullptr;
  if (mode.starts_with("thread-locale=")) {
    const locale_t locale = newlocale(LC_ALL_MASK, mode.data() + 14, nullptr);
    return locale != nullptr && uselocale(locale) != nullptr;
  }
  return mode == "frame" || mode.starts_with("stack=");
}

// What the library says of itself that has just been loaded.
std::string AskFrame() {
  Report report;
  report.Add("name", CreateIPCName(30000));
  report.Add("lock", FileLock(1));
  FileUnlock();
  return report.text();
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3 || access("/opt/zebcs-test-tmp", W_OK) != 0) return 2;
  const std::string folder = argv[1];
  size_t stack = 0;
  bool isFrameAlone = false;
  for (const char *mode : std::vector<const char *>(argv + 3, argv + argc)) {
    if (!Prepare(mode)) return 3;
    if (std::strncmp(mode, "stack=", 6) == 0) stack = std::strtoul(mode + 6, nullptr, 10);
    if (std::strcmp(mode, "frame") == 0) isFrameAlone = true;
  }
  const std::string report = isFrameAlone ? AskFrame() : stack == 0 ? AskAll(folder) : AskAllOnAStackOf(stack, folder);
  if (l_ticks > 0) {
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
  }
  // Whatever has the numbers of the standard streams now: the words of a host must not get into a file of ours.
  (void)!write(STDOUT_FILENO, "the host's words\n", 17);
  (void)!write(STDERR_FILENO, "the host's words\n", 17);
  FILE *const file = std::fopen(argv[2], "we");
  if (file == nullptr) return 4;
  std::fputs(report.c_str(), file);
  return std::fclose(file) == 0 ? 0 : 5;
}

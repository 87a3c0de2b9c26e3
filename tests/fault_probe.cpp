// One call of the library, for tests that let the system fail under it. Prints its answer, how many more descriptors are
// open after it than before, and the answer of the same call made once more for those that change nothing.
//
//   fault_probe OPERATION FOLDER
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zebcs/auth.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"
#include "zebcs/keyvalue.h"
#include "zebcs/logs.h"
#include "zebcs/net.h"
#include "zebcs/product.h"
#include "zebcs/rolemap.h"

namespace {

void Mark() {
  if (write(STDERR_FILENO, "MARK\n", 5) != 5) std::abort();
}

long Descriptors() {
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return std::distance(begin(open), end(open));
}

s32 WriteINI(const std::string &path, const char *section, const char *key, const char *value) {
  const u32 size = value == nullptr ? 0 : static_cast<u32>(std::char_traits<char>::length(value) + 1);
  return KCSWriteINIPathFileValue(section, key, ZEBCS_INI_ASTRING, value, size, path.c_str(), 1);
}

s32 ReadINI(const std::string &path) {
  astring value[16] = "";
  u32 size = sizeof value;
  const s32 status =
      KCSReadINIPathFileValue("b", "key", ZEBCS_INI_ASTRING, value, &size, "default", 8, path.c_str(), 1);
  const std::string expected = status == SM_STATUS_SUCCESS ? "two" : "default";
  return value == expected || (status != SM_STATUS_SUCCESS && *value == 0) ? status : 9999;
}

s32 WriteKeyValue(const std::string &path, const char *key, const char *value, u32 instance) {
  const KCSKVEntry entry{const_cast<astring *>(key), const_cast<astring *>(value)};
  return KCSCFGSetKeyValue(path.c_str(), &entry, instance);
}

s32 ReadKeyValue(const std::string &path) {
  u32 size = 0;
  KCSKVEntry *const table = KCSCFGGetKeyValueEntries(path.c_str(), &size);
  if (table == nullptr) return size == 0 ? -1 : 9999;
  const astring *const value = KCSCFGGetKeyValue(table, size, "key", 1);
  const bool isRight = value != nullptr && std::string(value) == "two";
  KCSCFGFreeKeyValueEntries(table, size);
  return isRight ? 0 : 9999;
}

s32 Append(const std::string &path, u32 maxSize) {
  return KCSAppendToXMLLog(path.c_str(), 4, 7, "user", "source", "new entry", nullptr, 0, maxSize);
}

constexpr s32 kNothing = -1;
constexpr s32 kWrong = 9999;

struct MemoryRelease {
  void operator()(void *memory) const { KCSFreeMem(memory); }
};
using Text = std::unique_ptr<astring, MemoryRelease>;

// Nothing, also as an empty text, or exactly this text.
s32 Is(const Text &text, const std::string &expected) {
  if (text == nullptr || *text == 0) return kNothing;
  return text.get() == expected ? 0 : kWrong;
}

s32 Rights() {
  astring user[] = "alice@host1";
  return static_cast<s32>(get_user_rights(user));
}

// A rule that gives less, in a file of another time.
s32 ChangeRoleMap() {
  constexpr char kNew[] = "/opt/vorn/fleetops/etc/zebrolemap.new";
  constexpr char kMap[] = "/opt/vorn/fleetops/etc/zebrolemap";
  if (!(std::ofstream(kNew) << "alice * user\n+wheel * administrator\n").flush()) std::abort();
  const timespec times[2] = {{.tv_sec = 1000, .tv_nsec = 0}, {.tv_sec = 1000, .tv_nsec = 0}};
  if (chmod(kNew, 0640) != 0 || utimensat(AT_FDCWD, kNew, times, 0) != 0 || rename(kNew, kMap) != 0) std::abort();
  return 0;
}

std::vector<ustring> Wide(const std::string &text) {
  std::vector<ustring> units(text.begin(), text.end());
  units.push_back(0);
  return units;
}

s32 LogIn(const char *word) {
  std::vector<ustring> password = Wide(word);
  const u32 rights = KCSAuthenticateUser(nullptr, Wide("alice").data(), password.data());
  return password == std::vector<ustring>(password.size(), 0) ? static_cast<s32>(rights) : kWrong;
}

s32 Addresses() {
  u32 count = 4711;
  const std::unique_ptr<KCSIPAddrStr, MemoryRelease> list(SUPTIntfHostGetHostIPAddrList(&count));
  if (list == nullptr) return count == 0 ? kNothing : kWrong;
  return static_cast<s32>(count);
}

s32 LoopBack() {
  const astring *const address = KCSGetLoopBack();
  if (address == nullptr) return kNothing;
  return std::string(address) == "127.0.0.1" ? 4 : std::string(address) == "::1" ? 6 : kWrong;
}

s32 StringResource(const std::string &path) {
  std::vector<ustring> text(64, 'x');
  u32 size = 64 * sizeof(ustring);
  u32 language = 0;
  const u32 delivered = KCSGetUnicodeStringFromIDPathFile(500, &language, path.c_str(), text.data(), &size);
  const auto is = [&](const char *expected) {
    const std::vector<ustring> units = Wide(expected);
    return std::equal(units.begin(), units.end(), text.begin());
  };
  if (delivered == 10 && is("text")) return 0;
  return is("String resource not found") || is("Invalid string resource found") ? kNothing : kWrong;
}

s32 LogContent(const std::string &path, const std::string &text) {
  const Text content(KCSCmdGetXMLLogContent(path.c_str(), "user", "source"));
  if (content == nullptr) return kNothing;
  if (std::string(content.get()).starts_with("<SMStatus>")) return -2;
  return content.get() == "<Content>" + text + "</Content><SMStatus>0</SMStatus>" ? 0 : kWrong;
}

std::string ReadFile(const std::string &path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

struct Operation {
  std::function<s32()> call;
  bool isRepeatable = false;
  std::function<s32()> prepare = [] { return 0; };  // before the marks
};

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) return 2;
  const std::string folder = argv[2];
  const std::string ini = folder + "/a.ini";
  const std::string properties = folder + "/a.properties";
  const std::string log = folder + "/a.xml";
  const std::string logText = ReadFile(log);
  const std::map<std::string, Operation> operations = {
      {"ini_update", {[&] { return WriteINI(ini, "b", "key", "changed"); }}},
      {"ini_add", {[&] { return WriteINI(ini, "a", "new", "value"); }}},
      {"ini_remove", {[&] { return WriteINI(ini, "b", "key", nullptr); }}},
      {"ini_section", {[&] { return WriteINI(ini, "c", "key", "value"); }}},
      {"ini_new", {[&] { return WriteINI(folder + "/new/b.ini", "a", "key", "value"); }}},
      {"ini_read", {[&] { return ReadINI(ini); }, true}},
      {"keyvalue_update", {[&] { return WriteKeyValue(properties, "key", "changed", 1); }}},
      {"keyvalue_add", {[&] { return WriteKeyValue(properties, "new", "value", 0); }}},
      {"keyvalue_remove", {[&] { return WriteKeyValue(properties, "key", nullptr, 1); }}},
      {"keyvalue_read", {[&] { return ReadKeyValue(properties); }, true}},
      {"log_append", {[&] { return Append(log, 1000000); }}},
      {"log_backup", {[&] { return Append(log, 100); }}},
      {"log_new", {[&] { return Append(folder + "/new/b.xml", 1000000); }}},
      {"log_clear", {[&] { return KCSClearXMLLog(log.c_str(), "user", "source"); }}},
      {"log_mend", {[&] {
         XMLFileCheck(log.c_str());
         return Append(log, 1000000);
       }}},
      {"log_mend_new", {[&] {
         XMLFileCheck((folder + "/new/b.xml").c_str());
         return Append(folder + "/new/b.xml", 1000000);
       }}},
      {"log_content", {[&] { return LogContent(log, logText); }, true}},
      {"log_repair", {[&] {
         XMLFileCheck((folder + "/torn.xml").c_str());
         return 0;
       }}},
      {"system_log",
       {[] { return KCSAppendToOSLog(4, 7, Wide("source").data(), Wide("event").data(), nullptr, 0); }, true}},
      {"rights", {Rights, true}},
      {"rights_changed", {Rights, true, [] { return Rights() != 3 ? kWrong : ChangeRoleMap(); }}},
      {"login", {[] { return LogIn("alice's word"); }, true}},
      {"wrong_login", {[] { return LogIn("bob's word"); }, true}},
      {"process_user", {[] { return Is(Text(KCSGetProcessUser()), "root"); }, true}},
      {"domain", {[] { return Is(Text(KCSGetComputerDomainName()), "sandbox.test"); }, true}},
      {"host_name", {[] { return Is(Text(KCSGetHostNameAStr()), "sandbox"); }, true}},
      {"addresses", {Addresses, true}},
      {"loopback", {LoopBack, true}},
      {"resource", {[&] { return StringResource(folder + "/texts"); }, true}},
  };
  const auto found = operations.find(argv[1]);
  if (found == operations.end()) return 2;
  const Operation &operation = found->second;
  if (operation.prepare() != 0) return 3;
  const long before = Descriptors();
  Mark();
  const s32 answer = operation.call();
  Mark();
  const long opened = Descriptors() - before;
  std::printf("%d %ld %d\n", answer, opened, operation.isRepeatable ? operation.call() : answer);
  return 0;
}

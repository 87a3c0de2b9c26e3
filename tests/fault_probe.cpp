// One call of the library that writes or reads files, for tests that let the system fail under it. Prints its status,
// and how many more descriptors are open after it than before.
//
//   fault_probe OPERATION FOLDER
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <string>

#include "zebcs/ini.h"
#include "zebcs/keyvalue.h"
#include "zebcs/logs.h"

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

s32 WriteKeyValue(const std::string &path, const char *key, const char *value) {
  const KCSKVEntry entry{const_cast<astring *>(key), const_cast<astring *>(value)};
  return KCSCFGSetKeyValue(path.c_str(), &entry, 1);
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

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) return 2;
  const std::string folder = argv[2];
  const std::string ini = folder + "/a.ini";
  const std::string properties = folder + "/a.properties";
  const std::string log = folder + "/a.xml";
  const std::map<std::string, std::function<s32()>> operations = {
      {"ini_update", [&] { return WriteINI(ini, "b", "key", "changed"); }},
      {"ini_add", [&] { return WriteINI(ini, "a", "new", "value"); }},
      {"ini_remove", [&] { return WriteINI(ini, "b", "key", nullptr); }},
      {"ini_section", [&] { return WriteINI(ini, "c", "key", "value"); }},
      {"ini_new", [&] { return WriteINI(folder + "/new/b.ini", "a", "key", "value"); }},
      {"ini_read", [&] { return ReadINI(ini); }},
      {"keyvalue_update", [&] { return WriteKeyValue(properties, "key", "changed"); }},
      {"keyvalue_add", [&] { return WriteKeyValue(properties, "new", "value"); }},
      {"keyvalue_remove", [&] { return WriteKeyValue(properties, "key", nullptr); }},
      {"keyvalue_read", [&] { return ReadKeyValue(properties); }},
      {"log_append", [&] { return Append(log, 1000000); }},
      {"log_backup", [&] { return Append(log, 100); }},
      {"log_new", [&] { return Append(folder + "/new/b.xml", 1000000); }},
      {"log_clear", [&] { return KCSClearXMLLog(log.c_str(), "user", "source"); }},
      {"log_repair",
       [&] {
         XMLFileCheck((folder + "/torn.xml").c_str());
         return 0;
       }},
  };
  const auto operation = operations.find(argv[1]);
  if (operation == operations.end()) return 2;
  const long before = Descriptors();
  Mark();
  const s32 status = operation->second();
  Mark();
  std::printf("%d %ld\n", status, Descriptors() - before);
  return 0;
}

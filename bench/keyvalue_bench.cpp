// Loading a key=value file of 10000 lines and looking one key up, beside GLib's key file of one section.
#include <glib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "compare.h"
#include "contenders.h"
#include "zebcs/keyvalue.h"

namespace {

constexpr int kLines = 10000;
constexpr char kKey[] = "preferences.item9000.limit";
constexpr char kValue[] = "value of 9000";

std::string LookUpByUs(const std::string &path) {
  u32 count = 0;
  KCSKVEntry *const table = KCSCFGGetKeyValueEntries(path.c_str(), &count);
  const astring *const value = KCSCFGGetKeyValue(table, count, kKey, 0);
  std::string found = value == nullptr ? "" : value;
  KCSCFGFreeKeyValueEntries(table, count);
  return found;
}

std::string LookUpByGLib(const std::string &path) {
  const std::unique_ptr<GKeyFile, decltype(&g_key_file_free)> keys(g_key_file_new(), g_key_file_free);
  g_key_file_load_from_file(keys.get(), path.c_str(), G_KEY_FILE_NONE, nullptr);
  const std::unique_ptr<gchar, decltype(&g_free)> value(g_key_file_get_string(keys.get(), "all", kKey, nullptr),
                                                        g_free);
  return value != nullptr ? value.get() : "";
}

}  // namespace

void AddKeyValueBenchmarks() {
  char folder[] = "/tmp/zebcs-bench-conf-XXXXXX";
  Require(mkdtemp(folder) != nullptr, "no folder for key=value files");
  const std::string path = std::string(folder) + "/bench.properties";
  std::ofstream file(path);
  file << "[all]\n";  // no pair: we pass over it
  for (int i = 0; i < kLines; ++i) file << "preferences.item" << i << ".limit=value of " << i << '\n';
  file.close();
  const size_t size = static_cast<size_t>(std::ifstream(path, std::ios::ate).tellg());
  Require(LookUpByUs(path) == kValue && LookUpByGLib(path) == kValue, "key=value files are read differently");
  AddContender("keyvalue_10000/zebcs", size, [path] { benchmark::DoNotOptimize(LookUpByUs(path)); });
  AddContender("keyvalue_10000/glib", size, [path] { benchmark::DoNotOptimize(LookUpByGLib(path)); });
}

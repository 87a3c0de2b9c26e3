// Reading a setting from an INI file and updating one, beside GLib, inih and iniparser, and reading beside no more than
// the system calls that a read takes. The small file has 20 lines, the large one 110000.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <glib.h>
#include <ini.h>
#include <iniparser/iniparser.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "compare.h"
#include "contenders.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"

namespace {

struct Setting {
  std::string section;
  std::string key;
  std::string value;
  size_t valueOffset;  // in the file
};

struct File {
  std::string path;
  std::string text;
  std::vector<Setting> settings;
};

void Store(const std::string &path, const std::string &text) {
  std::FILE *const file = std::fopen(path.c_str(), "w");
  Require(file != nullptr, "an INI file cannot be written");
  std::fputs(text.c_str(), file);
  Require(std::fclose(file) == 0, "an INI file cannot be written");
}

std::string Stored(const std::string &path) {
  gchar *text = nullptr;
  Require(g_file_get_contents(path.c_str(), &text, nullptr, nullptr), "an INI file cannot be read");
  std::string stored = text;
  g_free(text);
  return stored;
}

// Names in lower case: iniparser makes them so.
std::shared_ptr<const File> Make(const std::string &path, int sections, int keys) {
  auto file = std::make_shared<File>();
  file->path = path;
  for (int i = 0; i < sections; ++i) {
    const std::string section = "section" + std::to_string(i);
    file->text += "[" + section + "]\n";
    for (int j = 0; j < keys; ++j) {
      const std::string key = "key" + std::to_string(j);
      const std::string value = "value " + std::to_string(j) + " of section " + std::to_string(i);
      file->text += key + "=";
      file->settings.push_back({section, key, value, file->text.size()});
      file->text += value + "\n";
    }
  }
  Store(path, file->text);
  return file;
}

// --- Reading --------------------------------------------------------------------------------------------------------

std::string ReadByUs(const File &file, const Setting &setting) {
  astring value[256];
  u32 size = sizeof value;
  const s32 status = KCSReadINIPathFileValue(setting.section.c_str(), setting.key.c_str(), ZEBCS_INI_ASTRING, value,
                                             &size, nullptr, 0, file.path.c_str(), 1);
  return status == SM_STATUS_SUCCESS ? value : "";
}

// What is left of a read when nothing is looked for: the lock, and the file's blocks up to the value.
std::string ReadBare(const File &file, const Setting &setting) {
  static char block[64 * 1024];
  const size_t start = setting.valueOffset;
  const size_t end = start + setting.value.size();
  std::string value;
  FileLock(1);
  const int fd = open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
  size_t offset = 0;
  for (size_t room = 4096; offset < end; room = sizeof block) {
    const ssize_t size = read(fd, block, room);
    if (size <= 0) break;
    const size_t blockEnd = offset + static_cast<size_t>(size);
    const size_t from = std::max(start, offset);
    const size_t to = std::min(end, blockEnd);
    if (from < to) value.append(block + (from - offset), to - from);
    offset = blockEnd;
  }
  close(fd);
  FileUnlock();
  return value;
}

using KeyFile = std::unique_ptr<GKeyFile, decltype(&g_key_file_free)>;

std::string ReadByGLib(const File &file, const Setting &setting) {
  const KeyFile keys(g_key_file_new(), g_key_file_free);
  g_key_file_load_from_file(keys.get(), file.path.c_str(), G_KEY_FILE_NONE, nullptr);
  const std::unique_ptr<gchar, decltype(&g_free)> value(
      g_key_file_get_string(keys.get(), setting.section.c_str(), setting.key.c_str(), nullptr), g_free);
  return value != nullptr ? value.get() : "";
}

struct Search {
  const Setting &setting;
  std::string value;
};

int OnSetting(void *pSearch, const char *pSection, const char *pKey, const char *pValue) {
  Search &search = *static_cast<Search *>(pSearch);
  if (search.setting.key == pKey && search.setting.section == pSection) search.value = pValue;
  return 1;
}

std::string ReadByInih(const File &file, const Setting &setting) {
  Search search{setting, {}};
  ini_parse(file.path.c_str(), OnSetting, &search);
  return search.value;
}

std::string ReadByIniparser(const File &file, const Setting &setting) {
  const std::unique_ptr<dictionary, decltype(&iniparser_freedict)> settings(iniparser_load(file.path.c_str()),
                                                                            iniparser_freedict);
  return iniparser_getstring(settings.get(), (setting.section + ":" + setting.key).c_str(), "");
}

using Reader = std::string (*)(const File &file, const Setting &setting);

constexpr std::pair<const char *, Reader> kReaders[] = {
    {"zebcs", ReadByUs}, {"bare", ReadBare}, {"glib", ReadByGLib}, {"inih", ReadByInih}};

// iniparser looks for each key among all those before it, which takes seconds in the large file: it reads that once,
// and is checked when it has.
void AddSlowReader(const std::string &name, const std::shared_ptr<const File> &file, const Setting &setting) {
  const auto run = [file, setting, name](benchmark::State &state) {
    std::string value;
    for (auto _ : state) value = ReadByIniparser(*file, setting);
    Require(value == setting.value, "iniparser differs on " + name);
  };
  benchmark::RegisterBenchmark((name + "/iniparser").c_str(), run)->Iterations(1)->Repetitions(1);
}

void AddReading(const std::string &name, const std::shared_ptr<const File> &file, const Setting &setting) {
  const size_t bytes = setting.valueOffset + setting.value.size();
  const auto add = [&](const char *contender, Reader read) {
    Require(read(*file, setting) == setting.value, std::string(contender) + " differs on " + name);
    AddContender(name + "/" + contender, bytes,
                 [file, setting, read] { benchmark::DoNotOptimize(read(*file, setting)); });
  };
  for (const auto &[contender, read] : kReaders) add(contender, read);
  if (file->settings.size() <= 1000) {
    add("iniparser", ReadByIniparser);
  } else {
    AddSlowReader(name, file, setting);
  }
}

// --- Updating -------------------------------------------------------------------------------------------------------

bool UpdateByUs(const std::string &path, const Setting &setting, const std::string &value) {
  return KCSWriteINIPathFileValue(setting.section.c_str(), setting.key.c_str(), ZEBCS_INI_ASTRING, value.c_str(),
                                  static_cast<u32>(value.size() + 1), path.c_str(), 1) == SM_STATUS_SUCCESS;
}

// Comments are kept, as we keep them.
bool UpdateByGLib(const std::string &path, const Setting &setting, const std::string &value) {
  const KeyFile keys(g_key_file_new(), g_key_file_free);
  if (!g_key_file_load_from_file(keys.get(), path.c_str(), G_KEY_FILE_KEEP_COMMENTS, nullptr)) return false;
  g_key_file_set_string(keys.get(), setting.section.c_str(), setting.key.c_str(), value.c_str());
  return g_key_file_save_to_file(keys.get(), path.c_str(), nullptr) != 0;
}

// GLib puts an empty line between sections.
std::string WithoutEmptyLines(const std::string &text) {
  std::string result;
  for (const char c : text) {
    if (c != '\n' || (!result.empty() && result.back() != '\n')) result += c;
  }
  return result;
}

void AddUpdating(const std::string &name, const std::shared_ptr<const File> &file, const Setting &setting) {
  using Update = bool (*)(const std::string &path, const Setting &setting, const std::string &value);
  const std::pair<const char *, Update> updates[] = {{"zebcs", UpdateByUs}, {"glib", UpdateByGLib}};
  std::string other = setting.value;
  std::reverse(other.begin(), other.end());
  std::string expected = file->text;
  expected.replace(setting.valueOffset, other.size(), other);
  for (const auto &[contender, update] : updates) {
    const std::string path = file->path + "." + contender;
    Store(path, file->text);
    Require(update(path, setting, other), std::string(contender) + " failed on " + name);
    const std::string stored = Stored(path);
    const bool isOurs = update == UpdateByUs;
    Require((isOurs ? stored : WithoutEmptyLines(stored)) == expected, std::string(contender) + " differs on " + name);
    // Each update changes the file.
    const auto isChanged = std::make_shared<bool>(true);
    AddContender(name + "/" + contender, file->text.size(), [path, setting, other, update = update, isChanged] {
      *isChanged = !*isChanged;
      benchmark::DoNotOptimize(update(path, setting, *isChanged ? other : setting.value));
    });
  }
}

}  // namespace

void AddINIBenchmarks() {
  const char *const directory = std::getenv("ZEBCS_SANDBOX_TMP");
  if (directory == nullptr) {
    std::fputs("INI files were not measured; run this inside the sandbox, as bench/run does\n", stderr);
    return;
  }
  // The files go away with the sandbox.
  const auto small = Make(std::string(directory) + "/small.ini", 2, 9);
  const auto large = Make(std::string(directory) + "/large.ini", 10000, 10);
  for (const auto &[lines, file] : {std::pair("20", small), std::pair("110000", large)}) {
    const std::string name = std::string("ini_read/") + lines;
    AddReading(name + "/first", file, file->settings.front());
    AddReading(name + "/middle", file, file->settings[file->settings.size() / 2]);
    AddReading(name + "/last", file, file->settings.back());
  }
  AddUpdating("ini_update/110000/middle", large, large->settings[large->settings.size() / 2]);
}

#include "stores.h"

#include <charconv>
#include <vector>

namespace load {

namespace {

constexpr std::string_view kOwnHeader = "[own";

// The lines with their line feeds.
std::vector<std::string_view> LinesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t feed = text.find('\n');
    const size_t size = feed == std::string_view::npos ? text.size() : feed + 1;
    lines.push_back(text.substr(0, size));
    text.remove_prefix(size);
  }
  return lines;
}

// A worker's key and its text, from a line.
struct KeyLine {
  std::optional<Key> key;
  std::string_view text;

  explicit KeyLine(std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || !line.ends_with('\n')) return;
    key = KeyOfName(line.substr(0, equals));
    text = line.substr(equals + 1, line.size() - equals - 2);
  }
};

}  // namespace

std::string FirstIni() {
  return "; Kept by nobody\n"
         "[first]\n"
         "kept = yes\r\n"
         "\n"
         "[shared]\n"
         "# Keys of all workers\n"
         "[ last ] of them\n"
         "kept=1\n"
         "a word\n";
}

std::string FirstCfg() {
  return "# Kept by nobody\n"
         "kept = \"as it is\" \r\n"
         "a word\n";
}

void Snapshot::Add(Key key, std::string_view text) {
  Text &stored = texts[key.worker][key.key];
  if (stored) fault = key.Name() + " stands there twice";
  stored = text;
}

std::string Snapshot::Check(Store store, Reader &reader, const Windows &windows) const {
  const char *const name = store == kIni ? "INI file: " : "key=value file: ";
  if (!fault.empty()) return name + fault;
  if (others != (store == kIni ? FirstIni() : FirstCfg())) {
    return std::string(name) + "what belongs to nobody has changed:\n" + others.substr(0, 1000);
  }
  for (u32 worker = 0; worker < kWorkers; ++worker) {
    for (u32 k = 0; k < kKeys; ++k) {
      const Key key{worker, k};
      std::string what = reader.See(store, key, texts[worker][k], windows.Of(store, key));
      if (!what.empty()) return what;
    }
  }
  return {};
}

Snapshot ReadIni(std::string_view text) {
  Snapshot snapshot;
  std::array<bool, kWorkers> hasSection = {};
  std::string section;
  for (const std::string_view line : LinesOf(text)) {
    const KeyLine keyLine(line);
    if (keyLine.key) {
      if (section != keyLine.key->Section()) snapshot.fault = keyLine.key->Name() + " stands in [" + section + ']';
      snapshot.Add(*keyLine.key, keyLine.text);
      continue;
    }
    if (line.starts_with('[')) section = line.substr(1, line.find(']') - 1);
    if (!line.starts_with(kOwnHeader)) {
      snapshot.others += line;
      continue;
    }
    u32 worker = kWorkers;
    (void)std::from_chars(section.data() + 3, section.data() + section.size(), worker);
    if (worker >= kWorkers || line != '[' + Key{worker, kSharedKeys}.Section() + "]\n") {
      snapshot.fault = "a header that nobody wrote: " + section;
    } else if (hasSection[worker]) {
      snapshot.fault = "the section " + section + " stands there twice";
    } else {
      hasSection[worker] = true;
    }
  }
  return snapshot;
}

Snapshot ReadCfg(std::string_view text) {
  Snapshot snapshot;
  for (const std::string_view line : LinesOf(text)) {
    const KeyLine keyLine(line);
    if (keyLine.key) {
      snapshot.Add(*keyLine.key, keyLine.text);
    } else {
      snapshot.others += line;
    }
  }
  return snapshot;
}

std::string WithoutEmptySections(std::string_view text) {
  const std::vector<std::string_view> lines = LinesOf(text);
  std::string kept;
  for (size_t i = 0; i < lines.size(); ++i) {
    const bool isLastOfSection = i + 1 == lines.size() || lines[i + 1].starts_with('[');
    if (!lines[i].starts_with(kOwnHeader) || !isLastOfSection) kept += lines[i];
  }
  return kept;
}

}  // namespace load

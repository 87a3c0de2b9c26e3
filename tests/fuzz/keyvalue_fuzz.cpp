// Key=value files beside a plain reference: what is loaded, found and edited, and the whole file after each edit.
//
// An input is the number of edits, the edits and, up to its end, the file.
#include <vector>

#include "fuzz_file.h"
#include "ini_model.h"
#include "zebcs/keyvalue.h"

namespace {

using Bytes = std::optional<std::string>;

constexpr std::string_view kWords[] = {"k=", "\nk=1\n", "\"", "= \"", "l=2", "#", "; ", " = ", "\r\n", "k = v \n"};
constexpr size_t kLargestPair = 8451;  // with what stands between and behind key and value
constexpr size_t kMostEdits = 4;
constexpr size_t kMostQueries = 10;

// --- The reference --------------------------------------------------------------------------------------------------

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string Cleaned(std::string line) {
  const size_t equals = line.find('=');
  if (equals == std::string::npos) return line;
  size_t first = equals + 1;
  while (first < line.size() && IsBlank(line[first])) ++first;
  std::string cleaned;
  if (first == line.size()) {
    cleaned = line;
  } else {
    bool isQuoted = false;
    for (size_t i = 0; i < first; ++i) {
      if (line[i] == '"') isQuoted = !isQuoted;
      if (isQuoted || !IsBlank(line[i])) cleaned += line[i];
    }
    cleaned += line.substr(first);
  }
  const size_t valueStart = cleaned.find('=') + 1;
  while (cleaned.size() > valueStart && IsBlank(cleaned.back())) cleaned.pop_back();
  if (cleaned.find('"') != std::string::npos) std::erase(cleaned, '"');
  return cleaned;
}

struct Pair {
  std::string key;
  std::string value;
  bool operator==(const Pair &) const = default;
};

// Nothing for a comment, and for a line without a "=".
std::optional<Pair> PairOf(const std::string &piece) {
  if (piece.find('=') == std::string::npos) return std::nullopt;
  const std::string line = Cleaned(ini_model::UpToZero(piece));
  const size_t equals = line.find('=');
  if (equals == std::string::npos || line[0] == '#' || line[0] == ';') return std::nullopt;
  return Pair{line.substr(0, equals), line.substr(equals + 1)};
}

std::vector<Pair> PairsOf(const Bytes &file) {
  std::vector<Pair> pairs;
  for (const std::string &piece : ini_model::PiecesOf(file.value_or(""))) {
    if (const std::optional<Pair> pair = PairOf(piece)) pairs.push_back(*pair);
  }
  return pairs;
}

// What there is on the disk. After an edit no temporary file stays.
struct Disk {
  Bytes file;
  Bytes temporary;
  mode_t mode = 0;
  bool operator==(const Disk &) const = default;
};

struct Change {
  std::string key;
  Bytes value;
  u32 instance = 0;
};

s32 Edit(Disk &disk, const Change &change) {
  if (change.key.size() + change.value.value_or("").size() + 3 > kLargestPair) return SM_STATUS_BAD_SIZE;
  if (!disk.file) return SM_STATUS_PATH_UNAVAILABLE;
  const std::string newLine = change.value ? change.key + '=' + *change.value + '\n' : "";
  std::vector<std::string> pieces = ini_model::PiecesOf(*disk.file);
  u32 found = 0;
  bool isPlaced = false;
  for (std::string &piece : pieces) {
    const std::optional<Pair> pair = PairOf(piece);
    if (!pair || pair->key != change.key || found++ != change.instance) continue;
    piece = newLine;
    isPlaced = true;
    break;
  }
  disk.temporary.reset();
  if (!isPlaced) {
    if (change.instance != 0 && change.instance != found) return SM_STATUS_INVALID_INPUT;
    if (!change.value) return SM_STATUS_KEY_NOT_FOUND;
    pieces.push_back(newLine);
  }
  disk.file = ini_model::Joined(pieces);
  disk.mode = ini_model::kWrittenMode;
  return SM_STATUS_SUCCESS;
}

// --- The library beside it ------------------------------------------------------------------------------------------

struct Files {
  FuzzFile file{"kv.properties"};
  FuzzFile temporary{"kcscfg64.tmp"};

  void Set(const Disk &disk) const {
    file.Set(disk.file);
    temporary.Set(disk.temporary);
  }
  Disk Look() const { return {file.Content(), temporary.Content(), file.Mode()}; }
};

std::vector<Pair> Copied(const KCSKVEntry *pTable, size_t count) {
  std::vector<Pair> pairs;
  for (const KCSKVEntry &entry : std::span(pTable, count)) pairs.push_back({entry.pKey, entry.pValue});
  return pairs;
}

// The value of an instance; null where there is none.
const std::string *Find(const std::vector<Pair> &pairs, const std::string &key, u32 instance) {
  for (const Pair &pair : pairs) {
    if (pair.key == key && instance-- == 0) return &pair.value;
  }
  return nullptr;
}

void CheckQuery(const KCSKVEntry *pTable, const std::vector<Pair> &pairs, const std::string &key, u32 instance) {
  const astring *const found = KCSCFGGetKeyValue(pTable, static_cast<u32>(pairs.size()), key.c_str(), instance);
  const std::string *const expected = Find(pairs, key, instance);
  FUZZ_CHECK((found == nullptr) == (expected == nullptr));
  FUZZ_CHECK(expected == nullptr || *expected == found);
}

void CheckTable(const char *path, const std::vector<Pair> &pairs, const std::string &key) {
  u32 count = 12345;
  KCSKVEntry *const table = KCSCFGGetKeyValueEntries(path, &count);
  FUZZ_CHECK((table == nullptr) == pairs.empty());
  FUZZ_CHECK(count == pairs.size());
  FUZZ_CHECK(Copied(table, count) == pairs);
  for (u32 instance = 0; instance < 3; ++instance) CheckQuery(table, pairs, key, instance);
  for (size_t i = 0; i < std::min(pairs.size(), kMostQueries); ++i) {
    CheckQuery(table, pairs, pairs[i].key, static_cast<u32>(i % 3));
  }
  KCSCFGFreeKeyValueEntries(table, count);
}

void CheckFilling(const char *path, bool isThere, const std::vector<Pair> &pairs, u32 room) {
  u32 count = 0;
  FUZZ_CHECK(PopulateKeyValueEntries(path, nullptr, &count) == -1);
  FUZZ_CHECK(count == (isThere ? pairs.size() : 0));
  const ExactBytes memory(room * sizeof(KCSKVEntry), '\0');
  KCSKVEntry *const table = memory.data<KCSKVEntry>();
  count = room;
  const s32 status = PopulateKeyValueEntries(path, table, &count);
  const bool isFilled = isThere && pairs.size() <= room;
  FUZZ_CHECK(status == (isFilled ? SM_STATUS_SUCCESS : -1));
  FUZZ_CHECK(count == (isThere && !isFilled ? pairs.size() : room));
  const size_t filled = isFilled ? pairs.size() : 0;
  FUZZ_CHECK(Copied(table, filled) == std::vector<Pair>(pairs.begin(), pairs.begin() + static_cast<ptrdiff_t>(filled)));
  for (size_t i = 0; i < room; ++i) {
    FUZZ_CHECK(i < filled || (table[i].pKey == nullptr && table[i].pValue == nullptr));
    std::free(table[i].pKey);
    std::free(table[i].pValue);
  }
}

void CheckLine(const std::string &line) {
  const std::string text = ini_model::UpToZero(line);
  const ExactBytes cleaned(std::string_view(text.c_str(), text.size() + 1));
  CFGEntryRemoveWhiteSpaceAndDQuotes(cleaned.data<astring>());
  FUZZ_CHECK(cleaned.data<astring>() == Cleaned(text));
  const size_t equals = text.find('=');
  const size_t first = text.find_first_not_of(" \t");
  FUZZ_CHECK(CFGEqualPosition(text.c_str()) == (equals == std::string::npos ? -1 : static_cast<s32>(equals)));
  FUZZ_CHECK(CFGGetFirstNonWhiteSpacePos(text.c_str()) == (first == std::string::npos ? -1 : static_cast<s32>(first)));
}

// A text that is likely to be in a file, or one of the input.
std::string TakeText(FuzzInput &input) {
  constexpr std::string_view kTexts[] = {"k", "l", "", "1", "v w", "k v"};
  const size_t index = input.Take<uint8_t>();
  if (index < std::size(kTexts)) return std::string(kTexts[index]);
  return ini_model::UpToZero(Expanded(input.TakeText(), kWords, kLargestPair));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const Files files;
  FuzzInput input(data, size);
  const unsigned start = input.Take<uint8_t>();
  const u32 room = input.Take<uint8_t>() % 32u;
  std::vector<Change> changes(start % kMostEdits);
  for (Change &change : changes) {
    const unsigned flags = input.Take<uint8_t>();
    change.instance = flags % 4;
    change.key = TakeText(input);
    if ((flags & 4) == 0) change.value = TakeText(input);
  }
  Disk model;
  if (start < 0xF0) model.file = Expanded(input.TakeRest(), kWords);
  if ((start & 0x10) != 0) model.temporary = "old";
  model.mode = model.file ? kFuzzFileMode : 0;

  files.Set(model);
  const std::string key = changes.empty() ? "k" : changes.front().key;
  const std::vector<Pair> pairs = PairsOf(model.file);
  CheckTable(files.file.path(), pairs, key);
  CheckFilling(files.file.path(), model.file.has_value(), pairs, room);
  if (model.file) CheckLine(model.file->substr(0, ini_model::kPiece));
  for (const Change &change : changes) {
    const ExactBytes keyText(std::string_view(change.key.c_str(), change.key.size() + 1));
    const std::string value = change.value.value_or("");
    const ExactBytes valueText(std::string_view(value.c_str(), value.size() + 1));
    const KCSKVEntry entry{keyText.data<astring>(), change.value ? valueText.data<astring>() : nullptr};
    const s32 expected = Edit(model, change);
    FUZZ_CHECK(KCSCFGSetKeyValue(files.file.path(), &entry, change.instance) == expected);
    FUZZ_CHECK(files.Look() == model);
  }
  if (!changes.empty()) CheckTable(files.file.path(), PairsOf(model.file), changes.back().key);
  return 0;
}

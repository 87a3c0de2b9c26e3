// Key=value files: flat settings that are loaded as a table and edited one pair at a time.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "file_lock.h"
#include "line_file.h"
#include "owners.h"
#include "zebcs/ini.h"
#include "zebcs/keyvalue.h"
#include "zebcs/product.h"

namespace {

using std::string_view;

constexpr size_t kLineRoom = LineFile::kLongestLine + 1;  // with a terminator
constexpr size_t kLongestFullPath = 256;
constexpr size_t kLongestJoinedPath = 255;
constexpr size_t kLargestPair = 8451;  // key, value, "=", line feed and terminator
constexpr char kTemporaryName[] = "kcscfg64.tmp";

constexpr string_view kBlanks = " \t\r\n";

// An object, which an algorithm calls without a jump.
constexpr auto IsBlank = [](char c) { return c <= ' ' && (c == ' ' || c == '\t' || c == '\r' || c == '\n'); };

// A pair as it stands in a cleaned line.
struct Pair {
  string_view key;
  string_view value;
};

// Cleans the line in `text`, which may be done in place as it only gets shorter. Returns its new length.
//
//     my key = "two words"  #      becomes      mykey=two words  #
size_t Clean(char *text, size_t length) {
  const char *const equals = static_cast<const char *>(std::memchr(text, '=', length));
  if (equals == nullptr) return length;
  const string_view line(text, length);
  const size_t valueStart = line.find_first_not_of(kBlanks, static_cast<size_t>(equals + 1 - text));
  const size_t end = line.find_last_not_of(kBlanks) + 1;  // at least behind the "="
  // Kept: with nothing behind the "=" the blanks in and around the key stay.
  const size_t squeezedEnd = valueStart == string_view::npos ? 0 : valueStart;
  char *out = text;
  bool isQuoted = false;
  for (size_t i = 0; i < end; ++i) {
    const char c = text[i];
    if (c == '"') {
      isQuoted = !isQuoted;
    } else if (i >= squeezedEnd || isQuoted || !IsBlank(c)) {
      *out++ = c;
    }
  }
  return static_cast<size_t>(out - text);
}

// Whether cleaning takes away nothing but the blanks at the end, as in most lines.
bool IsClean(string_view line, size_t equals) {
  return equals + 1 < line.size() && !IsBlank(line[equals + 1]) && line.find('"') == string_view::npos &&
         std::none_of(line.begin(), line.begin() + equals, IsBlank);
}

// Takes a line apart, in `copy` where it has to be cleaned, which has room for any. Nothing for a comment and for a
// line without a "=".
bool ReadPair(string_view line, char (&copy)[kLineRoom], Pair &pair) {
  line = line.substr(0, line.find('\0'));  // C text ends at the first zero
  size_t equals = line.find('=');
  if (equals == string_view::npos) return false;
  if (IsClean(line, equals)) {
    while (IsBlank(line.back())) line.remove_suffix(1);
  } else {
    std::memcpy(copy, line.data(), line.size());
    line = string_view(copy, Clean(copy, line.size()));
    equals = line.find('=');  // what stands in front of it got shorter
  }
  if (line.starts_with('#') || line.starts_with(';')) return false;
  pair = {line.substr(0, equals), line.substr(equals + 1)};
  return true;
}

void Clear(KCSKVEntry *pKVTable, u32 count) {
  for (KCSKVEntry *entry = pKVTable; entry < pKVTable + count; ++entry) {
    std::free(entry->pKey);
    std::free(entry->pValue);
    *entry = {};
  }
}

bool Store(const Pair &pair, KCSKVEntry &entry) {
  MallocPtr<astring> key = NewText(pair.key);
  MallocPtr<astring> value = NewText(pair.value);
  if (!key || !value) return false;
  entry = {key.release(), value.release()};
  return true;
}

// Walks over the pairs of a file under the file lock. `handle` may stop the walk with a status.
template <class Handle>
s32 ForEachPair(const astring *pPathFileName, Handle handle) {
  const FileLockGuard lock(1);
  if (!lock) return SM_STATUS_LOCK_TIMEOUT;
  const FdGuard in = OpenFile(pPathFileName, O_RDONLY);
  if (!in) return -1;
  LineFile file(in.get());
  char copy[kLineRoom];
  Pair pair;
  for (string_view line = file.Next(); !line.empty(); line = file.Next()) {
    if (!ReadPair(line, copy, pair)) continue;
    if (const s32 status = handle(pair); status != SM_STATUS_SUCCESS) return status;
  }
  return file.ReadFailed() ? -1 : SM_STATUS_SUCCESS;
}

// A table that grows while the file is read, and is released unless it is handed over.
class Table {
 public:
  Table() = default;
  Table(const Table &) = delete;
  Table &operator=(const Table &) = delete;
  ~Table() { Clear(m_entries.get(), m_count); }

  s32 Add(const Pair &pair) {
    if (m_count == m_room && !Grow()) return SM_STATUS_NO_MEMORY;
    if (!Store(pair, m_entries.get()[m_count])) return SM_STATUS_NO_MEMORY;
    ++m_count;
    return SM_STATUS_SUCCESS;
  }

  KCSKVEntry *Release(u32 *pCount) {
    *pCount = std::exchange(m_count, 0);
    return m_entries.release();
  }

 private:
  bool Grow() {
    constexpr u32 kFirstRoom = 16;
    const u32 room = std::max(kFirstRoom, 2 * m_room);
    if (room <= m_room) return false;  // a count has 32 bits
    void *const grown = std::realloc(m_entries.get(), room * sizeof(KCSKVEntry));
    if (grown == nullptr) return false;
    (void)m_entries.release();  // it is part of the grown block now
    m_entries.reset(static_cast<KCSKVEntry *>(grown));
    m_room = room;
    return true;
  }

  MallocPtr<KCSKVEntry> m_entries;
  u32 m_count = 0;
  u32 m_room = 0;
};

// The path that a caller means.
struct Path {
  astring text[kLongestFullPath + 1];

  // False where the product's INI directory is not known.
  bool Set(const astring *pPathFileName, bool isInProduct) {
    if (!isInProduct) {
      // Kept: a longer path is cut, and not refused.
      const size_t length = strnlen(pPathFileName, kLongestFullPath);
      std::memcpy(text, pPathFileName, length);
      text[length] = 0;
      return true;
    }
    const MallocPtr<astring> directory(SUPTIntfGetProductIniPath());
    if (!directory) return false;
    (void)std::snprintf(text, kLongestJoinedPath + 1, "%s%c%s", directory.get(), '/', pPathFileName);  // cut likewise
    return true;
  }
};

// Copies a file with the instance of the key replaced, added or removed.
s32 CopyEdited(LineFile &file, const KCSKVEntry &entry, u32 instance) {
  const string_view key = entry.pKey;
  const std::array<string_view, 4> nothing{};
  const std::array<string_view, 4> newLine =
      entry.pValue == nullptr ? nothing : std::array<string_view, 4>{key, "=", entry.pValue, "\n"};
  const auto copy = [&file](bool dropsLine, const std::array<string_view, 4> &edit) {
    return file.CopyWithEdit(dropsLine, edit) ? SM_STATUS_SUCCESS : SM_STATUS_WRITE_FAILED;
  };
  char cleaned[kLineRoom];
  Pair pair;
  u32 found = 0;
  for (string_view line = file.Next(); !line.empty(); line = file.Next()) {
    if (ReadPair(line, cleaned, pair) && pair.key == key && found++ == instance) return copy(true, newLine);
  }
  if (file.ReadFailed() || file.WriteFailed()) return SM_STATUS_WRITE_FAILED;
  if (instance != 0 && instance != found) return SM_STATUS_INVALID_INPUT;
  return entry.pValue == nullptr ? SM_STATUS_KEY_NOT_FOUND : copy(false, newLine);
}

}  // namespace

s32 CFGEqualPosition(const astring *pStr) {
  const astring *const equals = pStr == nullptr ? nullptr : std::strchr(pStr, '=');
  return equals == nullptr ? -1 : static_cast<s32>(equals - pStr);
}

s32 CFGGetFirstNonWhiteSpacePos(const astring *pStr) {
  if (pStr == nullptr) return -1;
  const size_t position = std::strspn(pStr, " \t");
  return pStr[position] == 0 ? -1 : static_cast<s32>(position);
}

void CFGEntryRemoveWhiteSpaceAndDQuotes(astring *pLine) {
  if (pLine != nullptr) pLine[Clean(pLine, std::strlen(pLine))] = 0;
}

s32 PopulateKeyValueEntries(const astring *pPathFileName, KCSKVEntry *pKVTable, u32 *pSizeKVT) {
  if (pPathFileName == nullptr || pSizeKVT == nullptr || (pKVTable == nullptr && *pSizeKVT != 0)) {
    return SM_STATUS_INVALID_INPUT;
  }
  const u32 room = *pSizeKVT;
  u32 count = 0;
  s32 status = ForEachPair(pPathFileName, [&](const Pair &pair) {
    if (count < room && !Store(pair, pKVTable[count])) return SM_STATUS_NO_MEMORY;
    ++count;
    return SM_STATUS_SUCCESS;
  });
  // Kept: to count the pairs is a failure, which the count comes with.
  if (status == SM_STATUS_SUCCESS && (pKVTable == nullptr || count > room)) {
    *pSizeKVT = count;
    status = -1;
  }
  if (status != SM_STATUS_SUCCESS) Clear(pKVTable, std::min(count, room));
  return status;
}

KCSKVEntry *CFGGetKeyValueEntries(const astring *pPathFileName, booln bUseInstallPath, u32 *pKVTSize) {
  if (pKVTSize == nullptr) return nullptr;
  *pKVTSize = 0;
  Path path;
  if (pPathFileName == nullptr || !path.Set(pPathFileName, bUseInstallPath == 1)) return nullptr;
  Table table;
  const s32 status = ForEachPair(path.text, [&table](const Pair &pair) { return table.Add(pair); });
  return status == SM_STATUS_SUCCESS ? table.Release(pKVTSize) : nullptr;
}

astring *CFGGetKeyValue(const KCSKVEntry *pKVTable, u32 kvtSize, const astring *pKeyName, u32 instance) {
  if (pKVTable == nullptr || pKeyName == nullptr) return nullptr;
  for (const KCSKVEntry *entry = pKVTable; entry < pKVTable + kvtSize; ++entry) {
    if (entry->pKey != nullptr && std::strcmp(entry->pKey, pKeyName) == 0 && instance-- == 0) return entry->pValue;
  }
  return nullptr;
}

void CFGFreeKeyValueEntries(KCSKVEntry *pKVTable, u32 kvtSize) {
  if (pKVTable == nullptr) return;
  Clear(pKVTable, kvtSize);
  std::free(pKVTable);
}

s32 SetKeyValueEntry(const astring *pPathFileName, const KCSKVEntry *pKVEnt, u32 instance) {
  if (pPathFileName == nullptr || pKVEnt == nullptr || pKVEnt->pKey == nullptr) return SM_STATUS_INVALID_INPUT;
  const size_t valueLength = pKVEnt->pValue == nullptr ? 0 : std::strlen(pKVEnt->pValue);
  if (std::strlen(pKVEnt->pKey) + valueLength + 3 > kLargestPair) return SM_STATUS_BAD_SIZE;
  const string_view path = pPathFileName;
  if (path.size() > kLongestFullPath) return SM_STATUS_INVALID_INPUT;
  const size_t slash = path.rfind('/');
  if (path.substr(slash + 1) == kTemporaryName) return SM_STATUS_INVALID_INPUT;  // its own copy would overwrite it
  const string_view directory = slash == string_view::npos ? "" : path.substr(0, slash);
  astring temporary[kLongestFullPath + sizeof kTemporaryName + 1];
  if (!directory.empty()) {
    temporary[directory.copy(temporary, directory.size())] = 0;
    if (CreateDir(temporary) != SM_STATUS_SUCCESS) return -1;
  }
  (void)std::snprintf(temporary, sizeof temporary, "%.*s%c%s",
                      directory.empty() ? 1 : static_cast<int>(directory.size()),
                      directory.empty() ? "." : directory.data(), '/', kTemporaryName);  // fits

  const FileLockGuard lock(1);
  if (!lock) return SM_STATUS_LOCK_TIMEOUT;
  FdGuard in = OpenFile(pPathFileName, O_RDONLY);
  if (!in) return SM_STATUS_PATH_UNAVAILABLE;
  FdGuard out = OpenTemporary(temporary);
  if (!out) return SM_STATUS_PATH_UNAVAILABLE;
  LineFile file(in.get(), out.get());
  s32 status = CopyEdited(file, *pKVEnt, instance);
  in.reset();
  if (!CloseWritten(out) && status == SM_STATUS_SUCCESS) status = SM_STATUS_WRITE_FAILED;
  if (status == SM_STATUS_SUCCESS) status = ReplaceFile(pPathFileName, temporary);
  // After a failed renaming it is all that is left; after another failure the next edit would overwrite it.
  if (status != SM_STATUS_SUCCESS && status != SM_STATUS_RENAME_FAILED) (void)unlink(temporary);
  return status;
}

s32 CFGSetKeyValue(const astring *pPathFileName, booln bUseInstallPath, const KCSKVEntry *pKVEnt, u32 instance) {
  if (pPathFileName == nullptr) return SM_STATUS_INVALID_INPUT;
  Path path;
  if (!path.Set(pPathFileName, bUseInstallPath == 1)) return SM_STATUS_PATH_UNAVAILABLE;
  return SetKeyValueEntry(path.text, pKVEnt, instance);
}

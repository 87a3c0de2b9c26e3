// The INI store: typed settings in text files that several processes share, and helpers for files.
#include <fcntl.h>
#include <strings.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>

#include "cichar_number.h"
#include "file_lock.h"
#include "line_file.h"
#include "owners.h"
#include "zebcs/ini.h"
#include "zebcs/number.h"
#include "zebcs/unistr.h"

const astring *pStrTRUE = "TRUE";
const astring *pStrFALSE = "FALSE";

namespace {

using std::string_view;

constexpr mode_t kFileMode = 01664;
constexpr mode_t kDirectoryMode = 0755;
constexpr size_t kLongestName = 255;
constexpr u32 kLargestText = 8193;  // with the terminator
constexpr size_t kLongestPath = 255;
constexpr char kTemporaryName[] = "kcsini64.tmp";

// --- Lines ----------------------------------------------------------------------------------------------------------

enum class LineKind { kComment, kHeader, kKey, kWord };

// A line taken apart:
//
//   ; a comment, or # one      only in the first column
//     [name] anything          a header, whose name is looked at apart; without "]" it is malformed
//     name=value               a key
//     name                     a word, which readers do not see
struct Line {
  LineKind kind;
  string_view name;
  string_view value;
};

// The name in a header, which begins with its "["; nothing for a malformed one.
std::optional<string_view> NameOfHeader(string_view header) {
  const size_t end = header.find(']');
  if (end == string_view::npos) return std::nullopt;
  return header.substr(1, end - 1);
}

Line Classify(string_view text) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  if (text.starts_with(';') || text.starts_with('#')) return {LineKind::kComment, {}, {}};
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  if (text.starts_with('[')) return {LineKind::kHeader, {}, {}};
  const size_t equals = text.find('=');
  if (equals == string_view::npos) return {LineKind::kWord, text, {}};
  return {LineKind::kKey, text.substr(0, equals), text.substr(equals + 1)};
}

// Passes the first header of that name.
s32 FindSection(LineFile &file, string_view section) {
  for (string_view header = file.NextHeader(); !header.empty(); header = file.NextHeader()) {
    const std::optional<string_view> name = NameOfHeader(header);
    if (!name) return SM_STATUS_PARSE_ERROR;
    if (*name == section) return SM_STATUS_SUCCESS;
  }
  return file.ReadFailed() ? SM_STATUS_PARSE_ERROR : SM_STATUS_SECTION_NOT_FOUND;
}

// --- Reading --------------------------------------------------------------------------------------------------------

// What a caller gets to see of a name or a value: C text ends at the first zero.
string_view UpToZero(string_view text) { return text.substr(0, text.find('\0')); }

// Names for the caller, each with its terminator, and one more terminator.
class NameList {
 public:
  // The room must be of two bytes at least.
  NameList(astring *pDest, u32 room) : m_dest(pDest), m_room(room) { m_dest[0] = m_dest[1] = 0; }

  void Add(string_view name) {
    name = UpToZero(name);
    const u64 start = m_total;
    m_total += name.size() + 1;
    if (m_total > m_room) return;
    std::memcpy(m_dest + start, name.data(), name.size());
    m_dest[m_total - 1] = 0;
    // Kept: the list's own terminator is not counted; it lies behind the room when the names fill that exactly.
    m_dest[m_total] = 0;
  }

  bool IsEmpty() const { return m_total == 0; }

  // Stores the size of the names, which may be more than there was room for.
  s32 Finish(u32 *pSize) const {
    *pSize = static_cast<u32>(m_total);
    return m_total > m_room ? SM_STATUS_BUFFER_TOO_SMALL : SM_STATUS_SUCCESS;
  }

 private:
  astring *m_dest;
  u64 m_room;
  u64 m_total = 0;
};

s32 GetAllSections(LineFile &file, astring *pValue, u32 *pvSize) {
  if (*pvSize < 2) return SM_STATUS_BAD_PARAMETER;
  NameList names(pValue, *pvSize);
  for (string_view header = file.NextHeader(); !header.empty(); header = file.NextHeader()) {
    const std::optional<string_view> name = NameOfHeader(header);
    if (!name) return SM_STATUS_PARSE_ERROR;
    names.Add(*name);
  }
  if (file.ReadFailed()) return SM_STATUS_PARSE_ERROR;
  return names.IsEmpty() ? SM_STATUS_SECTION_NOT_FOUND : names.Finish(pvSize);
}

s32 GetAllKeys(LineFile &file, string_view section, astring *pValue, u32 *pvSize) {
  if (*pvSize < 2) return SM_STATUS_BAD_PARAMETER;
  NameList names(pValue, *pvSize);
  if (const s32 status = FindSection(file, section); status != SM_STATUS_SUCCESS) return status;
  for (string_view text = file.Next(); !text.empty(); text = file.Next()) {
    const Line line = Classify(text);
    if (line.kind == LineKind::kHeader) break;
    if (line.kind == LineKind::kKey) names.Add(line.name);
  }
  if (file.ReadFailed()) return SM_STATUS_PARSE_ERROR;
  return names.IsEmpty() ? SM_STATUS_KEY_NOT_FOUND : names.Finish(pvSize);
}

s32 StoreText(string_view text, astring *pValue, u32 *pvSize) {
  const u32 room = *pvSize;
  *pvSize = static_cast<u32>(text.size() + 1);
  if (*pvSize > room) return SM_STATUS_BUFFER_TOO_SMALL;
  std::memcpy(pValue, text.data(), text.size());
  pValue[text.size()] = 0;
  return SM_STATUS_SUCCESS;
}

s32 GetValue(LineFile &file, string_view section, string_view key, astring *pValue, u32 *pvSize) {
  if (const s32 status = FindSection(file, section); status != SM_STATUS_SUCCESS) return status;
  for (string_view text = file.Next(); !text.empty(); text = file.Next()) {
    const Line line = Classify(text);
    if (line.kind == LineKind::kHeader) return SM_STATUS_KEY_NOT_FOUND;
    if (line.kind == LineKind::kKey && line.name == key) return StoreText(UpToZero(line.value), pValue, pvSize);
  }
  return file.ReadFailed() ? SM_STATUS_PARSE_ERROR : SM_STATUS_KEY_NOT_FOUND;
}

// What a text reads as when the wanted one is not there.
void StoreDefaultText(astring *pValue, u32 *pvSize, const astring *pDefault, u32 dSize) {
  if (pDefault == nullptr || dSize == 0) {
    *pvSize = 0;
    pValue[0] = 0;
    return;
  }
  const u32 size = std::min(*pvSize, dSize);
  std::memcpy(pValue, pDefault, size);
  pValue[size - 1] = 0;
  *pvSize = size;
}

// What a typed reader parses: the text of a value, or its status. There is a byte more than the store is told of: a
// list that fills the room exactly ends behind it.
template <u32 kRoom>
struct ReadText {
  ReadText(const astring *pSection, const astring *pKey, const astring *pPathFileName, booln canBlock) {
    u32 size = kRoom;
    status = ReadINIFileValue_astring(pSection, pKey, text, &size, nullptr, 0, pPathFileName, canBlock);
  }

  s32 status;
  astring text[kRoom + 1];
};

// Where a value and its default are.
template <class T>
struct Wanted {
  T *pValue;
  u32 *pvSize;
  const T *pDefault;
  u32 dSize;

  bool HasDefault() const { return pDefault != nullptr && dSize >= sizeof(T); }

  s32 Fail(s32 status) const {
    if (HasDefault()) *pValue = *pDefault;
    *pvSize = HasDefault() ? sizeof(T) : 0;
    return status;
  }
};

// Reads a value of a fixed size. `parse` gives nothing for a text that is not one, which then has `badText`: a failure,
// or success with the default or 0.
template <class T, class Parse>
s32 ReadFixed(const astring *pSection, const astring *pKey, const Wanted<T> &wanted, const astring *pPathFileName,
              booln canBlock, s32 badText, Parse parse) {
  if (wanted.pvSize == nullptr || wanted.pValue == nullptr || pPathFileName == nullptr || *wanted.pvSize < sizeof(T)) {
    return SM_STATUS_BAD_PARAMETER;
  }
  const ReadText<kLargestText> read(pSection, pKey, pPathFileName, canBlock);
  if (read.status != SM_STATUS_SUCCESS) return wanted.Fail(read.status);
  const std::optional<T> value = parse(read.text);
  if (!value && badText != SM_STATUS_SUCCESS) return wanted.Fail(badText);
  *wanted.pValue = value ? *value : wanted.HasDefault() ? *wanted.pDefault : T{};
  return SM_STATUS_SUCCESS;
}

std::optional<booln> ParseBooln(const astring *pText) {
  string_view word = pText;
  word.remove_prefix(std::min(word.find_first_not_of(' '), word.size()));
  word = word.substr(0, word.find(' '));
  const auto is = [word](const astring *pWord) {
    return word.size() == std::strlen(pWord) && strncasecmp(word.data(), pWord, word.size()) == 0;
  };
  if (is(pStrTRUE)) return booln{1};
  if (is(pStrFALSE)) return booln{0};
  return std::nullopt;
}

// Integers of 64 bits are read by the plain conversions, which do not tell whether there was a number.
template <class T, T (*kConvert)(const astring *)>
std::optional<T> ParseWideInteger(const astring *pText) {
  return ScanUnSigned(pText, 10) ? std::optional(kConvert(pText)) : std::nullopt;
}

std::optional<d64> ParseDouble(const astring *pText) {
  char *end = nullptr;
  const d64 value = ASCIIToDouble(pText);
  if (value == 0 && (std::strtod(pText, &end), end == pText)) return std::nullopt;
  return value;
}

// The next token of a text that is split at commas, of which any number count as one.
std::optional<string_view> NextToken(string_view &rest) {
  rest.remove_prefix(std::min(rest.find_first_not_of(','), rest.size()));
  if (rest.empty()) return std::nullopt;
  const string_view token = rest.substr(0, rest.find(','));
  rest.remove_prefix(token.size());
  return token;
}

// Parses a list of bytes. The room is filled as far as it goes, and the count goes on.
s32 ParseBinary(astring *pText, u8 *pValue, u32 *pvSize) {
  u32 count = 0;
  string_view rest = pText;
  while (const std::optional<string_view> token = NextToken(rest)) {
    pText[token->data() + token->size() - pText] = 0;
    const std::optional<u64> scanned = ScanUnSigned(token->data(), 16);
    if (!scanned) break;
    const u32 value = static_cast<u32>(*scanned);
    if (value > std::numeric_limits<u8>::max()) return SM_STATUS_BAD_SIZE;
    if (count < *pvSize) pValue[count] = static_cast<u8>(value);
    ++count;
    if (!rest.empty()) rest.remove_prefix(1);  // its comma is a terminator now
  }
  const bool fits = count <= *pvSize;
  *pvSize = count;
  return fits ? SM_STATUS_SUCCESS : SM_STATUS_BUFFER_TOO_SMALL;
}

// --- Writing --------------------------------------------------------------------------------------------------------

// Adds a section with one key at the end of a file, which is made if it does not exist. When that fails, the file ends
// where it ended before.
s32 AppendValue(const astring *pSection, const astring *pKey, const astring *pValue, const astring *pPathFileName) {
  if (pValue == nullptr) return SM_STATUS_BAD_SIZE;
  (void)chmod(pPathFileName, kFileMode);  // there may be no file yet, or it may be somebody else's
  FdGuard file = OpenFile(pPathFileName, O_WRONLY | O_APPEND | O_CREAT);
  if (!file) return SM_STATUS_NOT_FOUND;
  (void)fchmod(file.get(), kFileMode);  // likewise
  const std::array<string_view, 7> texts{"[", pSection, "]\n", pKey, "=", pValue, "\n"};
  const size_t written = WriteTexts(file.get(), texts);
  if (written != SizeOf(texts)) {
    const off_t end = lseek(file.get(), 0, SEEK_END);
    if (end != -1 && written > 0) (void)!ftruncate(file.get(), end - static_cast<off_t>(written));  // best effort
    return SM_STATUS_WRITE_FAILED;
  }
  return CloseWritten(file) ? SM_STATUS_SUCCESS : SM_STATUS_WRITE_FAILED;
}

// What becomes of a file: whether the line that was passed last goes, and the text that is put where it was or behind.
struct Edit {
  bool dropsLine;
  std::array<string_view, 4> text;
};

// Looks for the key in the section that the file is in, and for the place of its line.
Edit FindKeyUpdateValue(LineFile &file, string_view key, const astring *pValue) {
  const std::array<string_view, 4> nothing{};
  const std::array<string_view, 4> newLine =
      pValue == nullptr ? nothing : std::array<string_view, 4>{key, "=", pValue, "\n"};
  for (string_view text = file.Next(); !text.empty(); text = file.Next()) {
    const Line line = Classify(text);
    if (line.kind == LineKind::kHeader) {
      file.StepBack();
      return {false, newLine};
    }
    // A word counts as a key here: written as one, it becomes one.
    if (line.kind != LineKind::kComment && line.name == key) return {true, newLine};
  }
  // Kept: removing a key that the last section of the file does not have writes a line with this text; leaving the file
  // as it is would be expected.
  return {false, {key, "=", pValue == nullptr ? "(null)" : pValue, "\n"}};
}

// Copies a file to the temporary one with the key's line replaced, added or removed.
s32 CopyUpdated(int in, int out, const astring *pSection, const astring *pKey, const astring *pValue) {
  LineFile file(in, out);
  s32 status = FindSection(file, pSection);
  if (status == SM_STATUS_SUCCESS) {
    const Edit edit = FindKeyUpdateValue(file, pKey, pValue);
    if (file.ReadFailed() || !file.CopyWithEdit(edit.dropsLine, edit.text)) status = SM_STATUS_PARSE_ERROR;
  } else if (status == SM_STATUS_PARSE_ERROR) {
    (void)file.CopyPassed();  // what led up to it stays to be looked at; the status tells enough
  }
  return file.WriteFailed() ? SM_STATUS_WRITE_FAILED : status;
}

s32 UpdateValue(FdGuard in, const astring *pSection, const astring *pKey, const astring *pValue,
                const astring *pPathFileName, const astring *pTemporary) {
  if (!in) return SM_STATUS_NOT_FOUND;
  FdGuard out = OpenTemporary(pTemporary);
  if (!out) return SM_STATUS_NOT_FOUND;
  const s32 status = CopyUpdated(in.get(), out.get(), pSection, pKey, pValue);
  in.reset();
  const bool isWritten = CloseWritten(out);
  if (status == SM_STATUS_SECTION_NOT_FOUND) {
    (void)unlink(pTemporary);  // what stays would be overwritten by the next update
    return AppendValue(pSection, pKey, pValue, pPathFileName);
  }
  if (status != SM_STATUS_SUCCESS) return status;
  return isWritten ? ReplaceFile(pPathFileName, pTemporary) : SM_STATUS_WRITE_FAILED;
}

// The temporary file in the directory of an INI file.
struct Temporary {
  astring directory[kLongestPath + 1];  // empty if there is none to make
  astring path[kLongestPath + 1];
};

bool NameTemporary(string_view pathFileName, Temporary &temporary) {
  const size_t slash = pathFileName.rfind('/');
  const string_view directory = slash == string_view::npos ? "" : pathFileName.substr(0, slash);
  if (pathFileName.substr(slash + 1) == kTemporaryName) return false;  // it would be overwritten by its own copy
  if (directory.size() + sizeof "/" - 1 + sizeof kTemporaryName > sizeof temporary.path) return false;
  temporary.directory[directory.copy(temporary.directory, directory.size())] = 0;
  // Kept: a file directly under the root has its temporary file in the working directory.
  const string_view place = directory.empty() ? "." : directory;
  astring *p = temporary.path + place.copy(temporary.path, place.size());
  *p++ = '/';
  std::memcpy(p, kTemporaryName, sizeof kTemporaryName);
  return true;
}

// The checks that typed writers share: what is named, and the size of a value.
s32 CheckWrite(const astring *pSection, const astring *pKey, const astring *pPathFileName, bool isSizeGood) {
  if (pSection == nullptr || pKey == nullptr || pPathFileName == nullptr) return SM_STATUS_BAD_PARAMETER;
  return isSizeGood ? SM_STATUS_SUCCESS : SM_STATUS_BAD_SIZE;
}

// Writes a value of a fixed size as the text that `format` makes of it, or removes the key.
template <class T, class Format>
s32 WriteFixed(const astring *pSection, const astring *pKey, const T *pValue, u32 vSize, const astring *pPathFileName,
               booln canBlock, Format format) {
  const bool isSizeGood = pValue == nullptr ? vSize == 0 : vSize >= sizeof(T);
  if (const s32 status = CheckWrite(pSection, pKey, pPathFileName, isSizeGood); status != 0) return status;
  if (pValue == nullptr) return WriteINIFileValue_astring(pSection, pKey, nullptr, 0, pPathFileName, canBlock);
  astring text[96];
  if (!format(text, *pValue)) return SM_STATUS_BAD_SIZE;
  const u32 size = static_cast<u32>(std::strlen(text) + 1);
  return WriteINIFileValue_astring(pSection, pKey, text, size, pPathFileName, canBlock);
}

template <class T>
bool FormatInteger(astring (&text)[96], T value) {
  *std::to_chars(text, text + sizeof text, value).ptr = 0;
  return true;
}

// A name for a temporary file that is not in use. The platform's own function has this form.
bool MakeTemporaryName(astring (&name)[20]) {
  constexpr int kAttempts = 100;
  constexpr string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  constexpr string_view kPrefix = "/tmp/file";
  constexpr size_t kRandomLetters = 6;
  struct stat information {};
  if (stat("/tmp", &information) != 0 || !S_ISDIR(information.st_mode)) return false;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    u64 random = 0;
    if (getrandom(&random, sizeof random, GRND_NONBLOCK) != sizeof random) return false;
    astring *p = name + kPrefix.copy(name, kPrefix.size());
    for (size_t i = 0; i < kRandomLetters; ++i, random /= kLetters.size()) *p++ = kLetters[random % kLetters.size()];
    *p = 0;
    if (lstat(name, &information) != 0 && errno == ENOENT) return true;
  }
  return false;
}

}  // namespace

s32 ReadINIFileValue_astring(const astring *pSection, const astring *pKey, astring *pValue, u32 *pvSize,
                             const astring *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock) {
  if (pvSize == nullptr || pValue == nullptr || pPathFileName == nullptr || *pvSize == 0) {
    return SM_STATUS_BAD_PARAMETER;
  }
  const FileLockGuard lock(canBlock);
  if (!lock) return SM_STATUS_LOCK_TIMEOUT;
  const FdGuard in = OpenFile(pPathFileName, O_RDONLY);
  if (!in) return SM_STATUS_NOT_FOUND;
  LineFile file(in.get());
  if (pSection == nullptr) return GetAllSections(file, pValue, pvSize);
  if (pKey == nullptr) return GetAllKeys(file, pSection, pValue, pvSize);
  const s32 status = GetValue(file, pSection, pKey, pValue, pvSize);
  if (status != SM_STATUS_SUCCESS && status != SM_STATUS_BUFFER_TOO_SMALL) {
    StoreDefaultText(pValue, pvSize, pDefault, dSize);
  }
  return status;
}

s32 ReadINIFileValue_ustring(const astring *pSection, const astring *pKey, ustring *pValue, u32 *pvSize,
                             const ustring *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock) {
  if (pDefault != nullptr && dSize != (UniStrlen(pDefault) + 1) * sizeof(ustring)) return SM_STATUS_BAD_PARAMETER;
  return ReadINIFileValue_binary(pSection, pKey, reinterpret_cast<u8 *>(pValue), pvSize,
                                 reinterpret_cast<const u8 *>(pDefault), dSize, pPathFileName, canBlock);
}

s32 ReadINIFileValue_binary(const astring *pSection, const astring *pKey, u8 *pValue, u32 *pvSize, const u8 *pDefault,
                            u32 dSize, const astring *pPathFileName, booln canBlock) {
  constexpr u32 kLineBuffer = 8451;
  if (pvSize == nullptr || pValue == nullptr || pPathFileName == nullptr || *pvSize == 0) {
    return SM_STATUS_BAD_PARAMETER;
  }
  ReadText<kLineBuffer> read(pSection, pKey, pPathFileName, canBlock);
  s32 status = read.status;
  if (status == SM_STATUS_BUFFER_TOO_SMALL) {
    // Kept: the one failure that passes the default by.
    *pvSize = 0;
    return status;
  }
  if (status == SM_STATUS_SUCCESS) status = ParseBinary(read.text, pValue, pvSize);
  if (status == SM_STATUS_SUCCESS || status == SM_STATUS_BUFFER_TOO_SMALL) return status;
  *pvSize = pDefault == nullptr ? 0 : std::min(dSize, *pvSize);
  if (*pvSize > 0) std::memcpy(pValue, pDefault, *pvSize);
  return status;
}

s32 ReadINIFileValue_booln(const astring *pSection, const astring *pKey, booln *pValue, u32 *pvSize,
                           const booln *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock) {
  return ReadFixed<booln>(pSection, pKey, {pValue, pvSize, pDefault, dSize}, pPathFileName, canBlock,
                          SM_STATUS_BAD_SIZE, ParseBooln);
}

s32 ReadINIFileValue_u32(const astring *pSection, const astring *pKey, u32 *pValue, u32 *pvSize, const u32 *pDefault,
                         u32 dSize, const astring *pPathFileName, booln canBlock) {
  return ReadFixed<u32>(pSection, pKey, {pValue, pvSize, pDefault, dSize}, pPathFileName, canBlock, SM_STATUS_SUCCESS,
                        [](const astring *pText) {
                          const std::optional<u64> value = ScanUnSigned(pText, 10);
                          return value ? std::optional(static_cast<u32>(*value)) : std::nullopt;
                        });
}

s32 ReadINIFileValue_s32(const astring *pSection, const astring *pKey, s32 *pValue, u32 *pvSize, const s32 *pDefault,
                         u32 dSize, const astring *pPathFileName, booln canBlock) {
  return ReadFixed<s32>(pSection, pKey, {pValue, pvSize, pDefault, dSize}, pPathFileName, canBlock, SM_STATUS_SUCCESS,
                        [](const astring *pText) {
                          const std::optional<s64> value = ScanSigned(pText, 10);
                          return value ? std::optional(static_cast<s32>(*value)) : std::nullopt;
                        });
}

s32 ReadINIFileValue_u64(const astring *pSection, const astring *pKey, u64 *pValue, u32 *pvSize, const u64 *pDefault,
                         u32 dSize, const astring *pPathFileName, booln canBlock) {
  return ReadFixed<u64>(pSection, pKey, {pValue, pvSize, pDefault, dSize}, pPathFileName, canBlock, SM_STATUS_SUCCESS,
                        ParseWideInteger<u64, ASCIIToUnSigned64>);
}

s32 ReadINIFileValue_s64(const astring *pSection, const astring *pKey, s64 *pValue, u32 *pvSize, const s64 *pDefault,
                         u32 dSize, const astring *pPathFileName, booln canBlock) {
  return ReadFixed<s64>(pSection, pKey, {pValue, pvSize, pDefault, dSize}, pPathFileName, canBlock, SM_STATUS_SUCCESS,
                        ParseWideInteger<s64, ASCIIToSigned64>);
}

s32 ReadINIFileValue_d64(const astring *pSection, const astring *pKey, d64 *pValue, u32 *pvSize, const d64 *pDefault,
                         u32 dSize, const astring *pPathFileName, booln canBlock) {
  return ReadFixed<d64>(pSection, pKey, {pValue, pvSize, pDefault, dSize}, pPathFileName, canBlock, SM_STATUS_SUCCESS,
                        ParseDouble);
}

s32 WriteINIFileValue_astring(const astring *pSection, const astring *pKey, const astring *pValue, u32 vSize,
                              const astring *pPathFileName, booln canBlock) {
  if (pSection == nullptr || pKey == nullptr || pPathFileName == nullptr ||
      strnlen(pSection, kLongestName + 1) > kLongestName || strnlen(pKey, kLongestName + 1) > kLongestName) {
    return SM_STATUS_BAD_PARAMETER;
  }
  if (vSize > kLargestText || vSize != (pValue == nullptr ? 0 : strnlen(pValue, kLargestText) + 1)) {
    return SM_STATUS_BAD_SIZE;
  }
  Temporary temporary;
  if (!NameTemporary(pPathFileName, temporary)) return SM_STATUS_BAD_PARAMETER;
  if (temporary.directory[0] != 0 && CreateDir(temporary.directory) != SM_STATUS_SUCCESS) return -1;
  const FileLockGuard lock(canBlock);
  if (!lock) return SM_STATUS_LOCK_TIMEOUT;
  FdGuard in = OpenFile(pPathFileName, O_RDONLY);
  if (!in && (errno == ENOENT || errno == ENOTDIR)) return AppendValue(pSection, pKey, pValue, pPathFileName);
  return UpdateValue(std::move(in), pSection, pKey, pValue, pPathFileName, temporary.path);
}

s32 WriteINIFileValue_ustring(const astring *pSection, const astring *pKey, const ustring *pValue, u32 vSize,
                              const astring *pPathFileName, booln canBlock) {
  constexpr u32 kLargestWideText = 2048;
  const bool isSizeGood = pValue == nullptr
                              ? vSize == 0
                              : vSize <= kLargestWideText && vSize == (u64{UniStrlen(pValue)} + 1) * sizeof(ustring);
  if (const s32 status = CheckWrite(pSection, pKey, pPathFileName, isSizeGood); status != 0) return status;
  return WriteINIFileValue_binary(pSection, pKey, reinterpret_cast<const u8 *>(pValue), vSize, pPathFileName, canBlock);
}

s32 WriteINIFileValue_binary(const astring *pSection, const astring *pKey, const u8 *pValue, u32 vSize,
                             const astring *pPathFileName, booln canBlock) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  constexpr u32 kCharactersPerByte = 5;  // "0xAB,"
  constexpr u32 kMostBytes = kLargestText / kCharactersPerByte;
  const bool isSizeGood = pValue == nullptr ? vSize == 0 : vSize >= 1 && vSize <= kMostBytes;
  if (const s32 status = CheckWrite(pSection, pKey, pPathFileName, isSizeGood); status != 0) return status;
  if (pValue == nullptr) return WriteINIFileValue_astring(pSection, pKey, nullptr, 0, pPathFileName, canBlock);
  astring text[kLargestText];
  astring *p = text;
  for (u32 i = 0; i < vSize; ++i) {
    const astring byte[kCharactersPerByte] = {'0', 'x', kDigits[pValue[i] >> 4], kDigits[pValue[i] & 0xF], ','};
    std::memcpy(p, byte, sizeof byte);
    p += sizeof byte;
  }
  p[-1] = 0;
  return WriteINIFileValue_astring(pSection, pKey, text, static_cast<u32>(p - text), pPathFileName, canBlock);
}

s32 WriteINIFileValue_booln(const astring *pSection, const astring *pKey, const booln *pValue, u32 vSize,
                            const astring *pPathFileName, booln canBlock) {
  const bool isSizeGood = pValue == nullptr ? vSize == 0 : vSize >= sizeof(booln);
  if (const s32 status = CheckWrite(pSection, pKey, pPathFileName, isSizeGood); status != 0) return status;
  // Kept: any value but 1 is written as false, where most readers of a flag would call it true.
  const astring *const pWord = pValue == nullptr ? nullptr : *pValue == 1 ? pStrTRUE : pStrFALSE;
  const u32 size = pWord == nullptr ? 0 : static_cast<u32>(std::strlen(pWord) + 1);
  return WriteINIFileValue_astring(pSection, pKey, pWord, size, pPathFileName, canBlock);
}

s32 WriteINIFileValue_u32(const astring *pSection, const astring *pKey, const u32 *pValue, u32 vSize,
                          const astring *pPathFileName, booln canBlock) {
  return WriteFixed(pSection, pKey, pValue, vSize, pPathFileName, canBlock, FormatInteger<u32>);
}

s32 WriteINIFileValue_s32(const astring *pSection, const astring *pKey, const s32 *pValue, u32 vSize,
                          const astring *pPathFileName, booln canBlock) {
  return WriteFixed(pSection, pKey, pValue, vSize, pPathFileName, canBlock, FormatInteger<s32>);
}

s32 WriteINIFileValue_u64(const astring *pSection, const astring *pKey, const u64 *pValue, u32 vSize,
                          const astring *pPathFileName, booln canBlock) {
  return WriteFixed(pSection, pKey, pValue, vSize, pPathFileName, canBlock, FormatInteger<u64>);
}

s32 WriteINIFileValue_s64(const astring *pSection, const astring *pKey, const s64 *pValue, u32 vSize,
                          const astring *pPathFileName, booln canBlock) {
  return WriteFixed(pSection, pKey, pValue, vSize, pPathFileName, canBlock, FormatInteger<s64>);
}

s32 WriteINIFileValue_d64(const astring *pSection, const astring *pKey, const d64 *pValue, u32 vSize,
                          const astring *pPathFileName, booln canBlock) {
  // A number that does not fit is refused: without its last digits it would be another one.
  return WriteFixed(pSection, pKey, pValue, vSize, pPathFileName, canBlock, [](astring(&text)[96], d64 value) {
    return FormatFixed(text, sizeof text, value, 8) < static_cast<int>(sizeof text);
  });
}

s32 ReadINIPathFileValue(const astring *pSection, const astring *pKey, u32 vType, void *pValue, u32 *pvSize,
                         const void *pDefault, u32 dSize, const astring *pPathFileName, booln canBlock) {
  const auto read = [&]<class T>(s32 (*reader)(const astring *, const astring *, T *, u32 *, const T *, u32,
                                               const astring *, booln)) {
    return reader(pSection, pKey, static_cast<T *>(pValue), pvSize, static_cast<const T *>(pDefault), dSize,
                  pPathFileName, canBlock);
  };
  switch (vType) {
    case ZEBCS_INI_ASTRING: return read(ReadINIFileValue_astring);
    case ZEBCS_INI_USTRING: return read(ReadINIFileValue_ustring);
    case ZEBCS_INI_BINARY: return read(ReadINIFileValue_binary);
    case ZEBCS_INI_BOOLN: return read(ReadINIFileValue_booln);
    case ZEBCS_INI_U32: return read(ReadINIFileValue_u32);
    case ZEBCS_INI_S32: return read(ReadINIFileValue_s32);
    case ZEBCS_INI_U64: return read(ReadINIFileValue_u64);
    case ZEBCS_INI_S64: return read(ReadINIFileValue_s64);
    case ZEBCS_INI_D64: return read(ReadINIFileValue_d64);
    default: return SM_STATUS_BAD_PARAMETER;
  }
}

s32 WriteINIPathFileValue(const astring *pSection, const astring *pKey, u32 vType, const void *pValue, u32 vSize,
                          const astring *pPathFileName, booln canBlock) {
  const auto write =
      [&]<class T>(s32 (*writer)(const astring *, const astring *, const T *, u32, const astring *, booln)) {
        return writer(pSection, pKey, static_cast<const T *>(pValue), vSize, pPathFileName, canBlock);
      };
  switch (vType) {
    case ZEBCS_INI_ASTRING: return write(WriteINIFileValue_astring);
    case ZEBCS_INI_USTRING: return write(WriteINIFileValue_ustring);
    case ZEBCS_INI_BINARY: return write(WriteINIFileValue_binary);
    case ZEBCS_INI_BOOLN: return write(WriteINIFileValue_booln);
    case ZEBCS_INI_U32: return write(WriteINIFileValue_u32);
    case ZEBCS_INI_S32: return write(WriteINIFileValue_s32);
    case ZEBCS_INI_U64: return write(WriteINIFileValue_u64);
    case ZEBCS_INI_S64: return write(WriteINIFileValue_s64);
    case ZEBCS_INI_D64: return write(WriteINIFileValue_d64);
    default: return SM_STATUS_BAD_PARAMETER;
  }
}

s32 ReplaceFile(const astring *pPathFileNameToDelete, const astring *pPathFileNameReplaceWith) {
  if (pPathFileNameToDelete == nullptr || pPathFileNameReplaceWith == nullptr) return SM_STATUS_BAD_PARAMETER;
  (void)chmod(pPathFileNameToDelete, kFileMode);  // deleting does not depend on it
  if (unlink(pPathFileNameToDelete) != 0) return SM_STATUS_DELETE_FAILED;
  if (std::rename(pPathFileNameReplaceWith, pPathFileNameToDelete) != 0) return SM_STATUS_RENAME_FAILED;
  (void)chmod(pPathFileNameToDelete, kFileMode);  // the content is in place
  return SM_STATUS_SUCCESS;
}

s32 CreateDir(const astring *pPath) {
  if (pPath == nullptr) return -1;
  if (access(pPath, F_OK) == 0) return SM_STATUS_SUCCESS;
  if (mkdir(pPath, kDirectoryMode) != 0) return access(pPath, F_OK) == 0 ? SM_STATUS_SUCCESS : -1;
  // The umask may have taken rights away; what the parent directory passed on stays.
  struct stat information {};
  if (stat(pPath, &information) == 0 && (information.st_mode & 0777) != kDirectoryMode) {
    (void)chmod(pPath, (information.st_mode & 07000) | kDirectoryMode);  // the directory is there in any case
  }
  return SM_STATUS_SUCCESS;
}

s32 DelDir(const astring *pPath) {
  if (pPath == nullptr) return -1;
  if (rmdir(pPath) == 0) return SM_STATUS_SUCCESS;
  if (errno == ENOTEMPTY || errno == EEXIST) return SM_STATUS_BAD_DATA;
  return errno == ENOENT ? SM_STATUS_FAILED : -1;
}

s32 DelFile(const astring *pPathFileName) {
  if (pPathFileName == nullptr || chmod(pPathFileName, kFileMode) != 0) return -1;
  return unlink(pPathFileName) == 0 ? SM_STATUS_SUCCESS : -1;
}

s32 GetStreamFileSize(FILE *fp) {
  if (fp == nullptr) return -1;
  const off_t position = ftello(fp);
  if (position == -1 || fseeko(fp, 0, SEEK_END) != 0) return -1;
  const off_t size = ftello(fp);
  return fseeko(fp, position, SEEK_SET) == 0 ? static_cast<s32>(size) : -1;
}

s32 GetSizeOfFile(const astring *pPathFileName, u32 *pSize) {
  if (pPathFileName == nullptr || pSize == nullptr) return SM_STATUS_BAD_PARAMETER;
  *pSize = 0;
  const FdGuard file = OpenFile(pPathFileName, O_RDONLY);
  const off_t size = file ? lseek(file.get(), 0, SEEK_END) : -1;
  const u32 storedSize = static_cast<u32>(size);
  if (size == -1 || static_cast<s32>(storedSize) == -1) return -1;  // that size is not told from a failure
  *pSize = storedSize;
  return SM_STATUS_SUCCESS;
}

s32 GetTmpFile(const astring *pPath, astring *pFileName, u32 *pSize) {
  constexpr s32 kNoWayBack = 9;
  astring name[20];
  if (pPath == nullptr || pFileName == nullptr || pSize == nullptr) return SM_STATUS_BAD_PARAMETER;
  if (*pSize < sizeof name) {
    *pSize = sizeof name;
    return SM_STATUS_BUFFER_TOO_SMALL;
  }
  astring workingDirectory[256];
  if (getcwd(workingDirectory, sizeof workingDirectory) == nullptr) return SM_STATUS_BUFFER_TOO_SMALL;
  if (chdir(pPath) != 0) return SM_STATUS_FAILED;
  const bool hasName = MakeTemporaryName(name);
  if (hasName) {
    std::memset(pFileName, 0, *pSize);
    *pSize = static_cast<u32>(std::strlen(name) + 1);
    std::memcpy(pFileName, name, *pSize);
  }
  if (chdir(workingDirectory) != 0) return kNoWayBack;
  return hasName ? SM_STATUS_SUCCESS : SM_STATUS_RENAME_FAILED;
}

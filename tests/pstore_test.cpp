// The INI store: every rule of reading, writing and the file helpers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "guarded_buffer.h"
#include "sandbox.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"

namespace {

using namespace std::string_literals;
using sandbox::Channel;
using sandbox::GuardedBuffer;
using sandbox::Process;
using sandbox::TemporaryDirectory;
using Bytes = std::optional<std::string>;

constexpr mode_t kMode = 01664;
constexpr size_t kPiece = 8449;
constexpr char kNoFile[] = "(no file)";
constexpr u32 kFirstNumberType = ZEBCS_INI_BOOLN;
constexpr u32 kLastType = ZEBCS_INI_D64;

constexpr u32 SizeOfType(u32 type) {
  constexpr u32 kSizes[] = {0, 1, 1, 1, 2, 4, 4, 8, 8, 8};
  return kSizes[type];
}

std::string ContentOf(const std::string &path) {
  return access(path.c_str(), F_OK) == 0 ? sandbox::ReadFile(path) : kNoFile;
}

mode_t ModeOf(const std::string &path) {
  struct stat information {};
  return stat(path.c_str(), &information) == 0 ? information.st_mode & 07777 : 0;
}

ino_t InodeOf(const std::string &path) {
  struct stat information {};
  return stat(path.c_str(), &information) == 0 ? information.st_ino : 0;
}

// An INI file, which need not exist, in a directory of its own.
class IniFile {
 public:
  explicit IniFile(const Bytes &text = std::nullopt, mode_t mode = 0644) {
    if (text) sandbox::WriteFile(path(), *text, mode);
  }
  std::string path() const { return m_directory.Path("a.ini"); }
  std::string text() const { return ContentOf(path()); }
  mode_t mode() const { return ModeOf(path()); }
  std::string directory() const { return m_directory.path(); }
  std::string temporaryPath() const { return m_directory.Path("kcsini64.tmp"); }
  std::string temporaryText() const { return ContentOf(temporaryPath()); }

 private:
  TemporaryDirectory m_directory;
};

// What a call leaves behind: its status, the size and every byte of the buffer.
struct Outcome {
  s32 status;
  u32 size;
  std::string buffer;
  bool operator==(const Outcome &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Outcome &outcome) {
  return out << "status " << outcome.status << " size " << outcome.size << " buffer "
             << testing::PrintToString(outcome.buffer.substr(0, 200));
}

// Bytes in a buffer that was longer: the rest is untouched.
std::string Filled(std::string bytes, size_t size) {
  bytes.resize(size, static_cast<char>(GuardedBuffer::kFill));
  return bytes;
}

template <class T>
std::string BytesOf(T value) {
  return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

std::string WideBytes(const std::string &text) {
  std::string bytes;
  for (const char c : text + '\0') bytes += BytesOf(static_cast<ustring>(c));
  return bytes;
}

const char *PointerTo(const Bytes &bytes) { return bytes ? bytes->c_str() : nullptr; }

struct Wanted {
  u32 type = ZEBCS_INI_ASTRING;
  Bytes section = "s";
  Bytes key = "k";
  u32 size = 64;
  Bytes defaultBytes = std::nullopt;
  std::optional<u32> dSize = std::nullopt;  // if it is not the size of the default
  size_t behind = 0;                        // bytes that may be touched behind the room
  booln canBlock = 1;
};

// Reads into a buffer that ends where the room ends; for a number that is the size of its type, whatever it is told.
Outcome Read(const std::string &path, const Wanted &wanted) {
  const size_t room = wanted.type < kFirstNumberType || wanted.type > kLastType ? wanted.size : SizeOfType(wanted.type);
  const GuardedBuffer buffer(room + wanted.behind);
  const GuardedBuffer defaultBuffer(wanted.defaultBytes ? wanted.defaultBytes->size() : 0);
  if (wanted.defaultBytes && !wanted.defaultBytes->empty()) {
    std::memcpy(defaultBuffer.data<char>(), wanted.defaultBytes->data(), wanted.defaultBytes->size());
  }
  u32 size = wanted.size;
  const u32 dSize = wanted.dSize.value_or(wanted.defaultBytes ? static_cast<u32>(wanted.defaultBytes->size()) : 0);
  const s32 status = KCSReadINIPathFileValue(
      PointerTo(wanted.section), PointerTo(wanted.key), wanted.type, buffer.data<void>(), &size,
      wanted.defaultBytes ? defaultBuffer.data<void>() : nullptr, dSize, path.c_str(), wanted.canBlock);
  return {status, size, std::string(buffer.data<char>(), buffer.size())};
}

Outcome ReadFrom(const std::string &text, const Wanted &wanted) { return Read(IniFile(text).path(), wanted); }

struct Value {
  u32 type = ZEBCS_INI_ASTRING;
  std::string section = "s";
  std::string key = "k";
  Bytes bytes = std::nullopt;
  std::optional<u32> vSize = std::nullopt;  // if it is not the size of the bytes
  booln canBlock = 1;
};

s32 Write(const std::string &path, const Value &value) {
  const GuardedBuffer buffer(value.bytes ? value.bytes->size() : 0);
  if (value.bytes && !value.bytes->empty()) {
    std::memcpy(buffer.data<char>(), value.bytes->data(), value.bytes->size());
  }
  const u32 vSize = value.vSize.value_or(value.bytes ? static_cast<u32>(value.bytes->size()) : 0);
  return KCSWriteINIPathFileValue(value.section.c_str(), value.key.c_str(), value.type,
                                  value.bytes ? buffer.data<void>() : nullptr, vSize, path.c_str(), value.canBlock);
}

// Writes a text, or removes the key.
s32 WriteText(const std::string &path, const Bytes &text, const std::string &section = "s",
              const std::string &key = "k") {
  return Write(path, {.section = section, .key = key, .bytes = text ? Bytes(*text + '\0') : text});
}

// Takes from this process the right to enter directories that their own mode bits close, which user 0 otherwise has.
bool DropFileOverride() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  data[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
  return syscall(SYS_capset, &header, data) == 0;
}

// Runs a function in a second process, where expectations work as here.
void InAnotherProcess(const std::function<void()> &body) {
  Process process;
  ASSERT_TRUE(process.Start([&body](Channel &) {
    body();
    return 0;
  }));
  EXPECT_EQ(process.Wait(), 0);
}

std::string WorkingDirectory() {
  char path[4096];
  return getcwd(path, sizeof path) == nullptr ? "" : path;
}

}  // namespace

// --- Lines ----------------------------------------------------------------------------------------------------------

TEST(GetValue, TakesLinesApart) {
  const struct {
    const char *what;
    std::string text;
    const char *section;
    const char *key;
    s32 status;
    const char *value;
  } cases[] = {
      {"plain", "[s]\nk=v\n", "s", "k", 0, "v"},
      {"no line feed at the end", "[s]\nk=v", "s", "k", 0, "v"},
      {"empty value", "[s]\nk=\n", "s", "k", 0, ""},
      {"empty value at the end", "[s]\nk=", "s", "k", 0, ""},
      {"blanks before the header", " \t [s]\nk=v\n", "s", "k", 0, "v"},
      {"text behind the header", "[s] ; [t]\nk=v\n", "s", "k", 0, "v"},
      {"first closing bracket ends the name", "[s]]\nk=v\n", "s", "k", 0, "v"},
      {"the other bracket does not", "[s]]\nk=v\n", "s]", "k", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"second opening bracket is of the name", "[[s]\nk=v\n", "[s", "k", 0, "v"},
      {"blanks in the brackets are of the name", "[ s\t]\nk=v\n", " s\t", "k", 0, "v"},
      {"name is not trimmed", "[ s ]\nk=v\n", "s", "k", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"wanted name is not trimmed", "[s]\nk=v\n", " s ", "k", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"empty section name", "[s]\nk=1\n[]\nk=v\n", "", "k", 0, "v"},
      {"case of the section", "[S]\nk=v\n", "s", "k", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"section with a common start", "[sa]\nk=v\n", "s", "k", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"start of a section", "[s]\nk=v\n", "sa", "k", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"no header", "k=v\n", "s", "k", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"empty file", "", "s", "k", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"key before the header", "k=0\n[s]\nk=v\n", "s", "k", 0, "v"},
      {"key in another section", "[a]\nk=0\n[s]\nk=v\n[b]\nk=2\n", "s", "k", 0, "v"},
      {"only the first section of that name", "[s]\na=1\n[s]\nk=v\n", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"the first key of that name", "[s]\nk=v\nk=w\n", "s", "k", 0, "v"},
      {"header ends the section", "[s]\na=1\n[t]\nk=v\n", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"header behind blanks ends it", "[s]\n \t[t]\nk=v\n", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"malformed header ends it", "[s]\n[t\nk=v\n", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"end of file", "[s]\na=1\n", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"header is the end of file", "[s]", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"blanks before the key", "[s]\n \t k=v\n", "s", "k", 0, "v"},
      {"nothing is trimmed: the key", "[s]\nname = x\n", "s", "name", SM_STATUS_KEY_NOT_FOUND, ""},
      {"nothing is trimmed: the value", "[s]\nname = x \n", "s", "name ", 0, " x "},
      {"first sign of equality splits", "[s]\nk=a=b==c\n", "s", "k", 0, "a=b==c"},
      {"key with a sign of equality is never found", "[s]\nk=a=b\n", "s", "k=a", SM_STATUS_KEY_NOT_FOUND, ""},
      {"empty key", "[s]\n\n  \n=v\n", "s", "", 0, "v"},
      {"empty key behind blanks", "[s]\n \t=v\n", "s", "", 0, "v"},
      {"case of the key", "[s]\nK=v\n", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"key with a common start", "[s]\nkk=v\n", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"start of a key", "[s]\nk=v\n", "s", "kk", SM_STATUS_KEY_NOT_FOUND, ""},
      {"line without a sign of equality", "[s]\nk\nk=v\n", "s", "k", 0, "v"},
      {"word alone is invisible", "[s]\nk\n", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"carriage return is of the value", "[s]\r\nk=v\r\n", "s", "k", 0, "v\r"},
      {"comment in the first column", "[s]\n;k=1\n#k=2\nk=v\n", "s", "k", 0, "v"},
      {"comment is no key", "[s]\n;k=1\n", "s", ";k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"the other comment is none either", "[s]\n#k=1\n", "s", "#k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"behind a blank it is one", "[s]\n ;k=v\n", "s", ";k", 0, "v"},
      {"behind a tab it is one", "[s]\n\t#k=v\n", "s", "#k", 0, "v"},
      {"comment with a bracket", "; [s\n#[s\n[s]\n;[\nk=v\n", "s", "k", 0, "v"},
      {"comment character in a value", "[s]\nk=v ; w # x\n", "s", "k", 0, "v ; w # x"},
      {"bracket in a value", "a=[\n[s]\nb=[\nk=[v\n", "s", "k", 0, "[v"},
      {"bracket inside a word", "a[b\n[s]\nc[d\nk=v\n", "s", "k", 0, "v"},
      {"header with a value is a header", "[s]\n[t]k=v\n", "s", "t]k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"header that ends the file", "[t]\n[s]k=v", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"malformed header before", "[t\n[s]\nk=v\n", "s", "k", SM_STATUS_PARSE_ERROR, ""},
      {"malformed header behind blanks", "\t [\n[s]\nk=v\n", "s", "k", SM_STATUS_PARSE_ERROR, ""},
      {"bracket on the next line", "[s\n]\nk=v\n", "s", "k", SM_STATUS_PARSE_ERROR, ""},
      {"malformed header at the end", "[t]\n[s", "s", "k", SM_STATUS_PARSE_ERROR, ""},
      {"malformed header behind the key", "[s]\nk=v\n[t\n", "s", "k", 0, "v"},
      {"malformed header in the section before", "[t]\n[u\n[s]\nk=v\n", "s", "k", SM_STATUS_PARSE_ERROR, ""},
      {"bytes above 127", "[\xFF\xC3]\n\xE9=\x80\xFE\n", "\xFF\xC3", "\xE9", 0, "\x80\xFE"},
      {"zero in the value", "[s]\nk=v\0w\n"s, "s", "k", 0, "v"},
      {"other white space is no blank", "[s]\n\vk=v\n", "s", "\vk", 0, "v"},
      {"carriage return is no blank", "[s]\n\rk=v\n", "s", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"carriage return before a bracket", "[s]\n\r[t]\nk=v\n", "s", "k", 0, "v"},
  };
  for (const auto &c : cases) {
    const std::string stored = c.value + "\0"s;
    const u32 size = c.status == 0 ? static_cast<u32>(stored.size()) : 0;
    EXPECT_EQ(ReadFrom(c.text, {.section = c.section, .key = c.key}), (Outcome{c.status, size, Filled(stored, 64)}))
        << c.what;
  }
}

TEST(GetValue, IsStoredWholeOrNotAtAll) {
  for (u32 room = 1; room <= 7; ++room) {
    const Outcome expected =
        room < 6 ? Outcome{SM_STATUS_BUFFER_TOO_SMALL, 6, Filled("", room)} : Outcome{0, 6, Filled("abcde\0"s, room)};
    EXPECT_EQ(ReadFrom("[s]\nk=abcde\n", {.size = room}), expected);
    EXPECT_EQ(ReadFrom("[s]\nk=abcde\n", {.size = room, .defaultBytes = "default"}), expected) << "no default";
  }
  EXPECT_EQ(ReadFrom("[s]\nk=\n", {.size = 1}), (Outcome{0, 1, "\0"s}));
}

TEST(GetValue, LongSectionNamesOfAFileAreComparedWhole) {
  for (const size_t length : {254u, 255u, 256u, 257u, 300u, 8447u}) {
    const std::string name(length, 'n');
    const std::string text = "[" + name + "]\nk=v\n";
    EXPECT_EQ(ReadFrom(text, {.section = name}).status, 0) << length;
    EXPECT_EQ(ReadFrom(text, {.section = name.substr(1)}).status, SM_STATUS_SECTION_NOT_FOUND) << length;
    EXPECT_EQ(ReadFrom(text, {.section = name + 'n'}).status, SM_STATUS_SECTION_NOT_FOUND) << length;
  }
}

TEST(GetValue, LongKeysOfAFileAreComparedWhole) {
  const std::string key(300, 'k');
  EXPECT_EQ(ReadFrom("[s]\n" + key + "=v\n", {.key = key}).status, 0);
  EXPECT_EQ(ReadFrom("[s]\n" + key + "=v\n", {.key = key.substr(45)}).status, SM_STATUS_KEY_NOT_FOUND);
}

// --- Pieces of long lines -------------------------------------------------------------------------------------------

namespace {

std::string X(size_t count) { return std::string(count, 'x'); }

}  // namespace

TEST(LongLine, PiecesAreLines) {
  const std::string head = "[s]\n";
  const struct {
    const char *what;
    std::string text;
    const char *key;
    s32 status;
    std::string value;
  } cases[] = {
      {"value to the end of a piece, line feed included", head + "k=" + X(kPiece - 3) + "\n", "k", 0, X(kPiece - 3)},
      {"the line feed is the next piece", head + "k=" + X(kPiece - 2) + "\n", "k", 0, X(kPiece - 2)},
      {"one character is the next piece", head + "k=" + X(kPiece - 1) + "\n", "k", 0, X(kPiece - 2)},
      {"three pieces", head + "k=" + X(3 * kPiece) + "\n", "k", 0, X(kPiece - 2)},
      {"key at the start of the second piece", head + X(kPiece) + "k=v\n", "k", 0, "v"},
      {"key at the start of the third piece", head + X(2 * kPiece) + "k=v\n", "k", 0, "v"},
      {"key one character early", head + X(kPiece - 1) + "k=v\n", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"its other half is an empty key", head + X(kPiece - 1) + "k=v\n", "", 0, "v"},
      {"key one character late", head + X(kPiece + 1) + "k=v\n", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"late by a blank", head + X(kPiece) + " k=v\n", "k", 0, "v"},
      {"first sign of equality of each piece", head + "a=" + X(kPiece - 2) + "k=v\n", "k", 0, "v"},
      {"comment ends with its piece", head + ";" + X(kPiece - 1) + "k=v\n", "k", 0, "v"},
      {"comment character at the start of a piece", head + X(kPiece) + ";k=v\n", ";k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"the other one", head + X(kPiece) + "#k=v\n", "#k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"behind a blank it is none", head + X(kPiece) + " ;k=v\n", ";k", 0, "v"},
      {"header at the start of a piece", head + X(kPiece) + "[t]\nk=v\n", "k", SM_STATUS_KEY_NOT_FOUND, ""},
      {"bracket one character late", head + X(kPiece + 1) + "[t]\nk=v\n", "k", 0, "v"},
      {"wanted header at the start of a piece", X(kPiece) + "[s]\nk=v\n", "k", 0, "v"},
      {"wanted header one character late", X(kPiece + 1) + "[s]\nk=v\n", "k", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"malformed header at the start of a piece", X(kPiece) + "[\n[s]\nk=v\n", "k", SM_STATUS_PARSE_ERROR, ""},
      {"blanks fill a piece", head + std::string(kPiece, ' ') + "k=v\n", "k", 0, "v"},
      {"blanks and a bracket fill a piece", std::string(kPiece - 1, ' ') + "[s]\nk=v\n", "k", SM_STATUS_PARSE_ERROR,
       ""},
      {"blanks and a header fill a piece", std::string(kPiece - 3, ' ') + "[s]k=v\n", "k", 0, "v"},
      {"text behind a header is a piece of its own", "[s]" + X(kPiece - 3) + "k=v\n", "k", 0, "v"},
      {"header fills a piece", "[" + X(kPiece - 2) + "]\n[s]\nk=v\n", "k", 0, "v"},
      {"header longer than a piece is malformed", "[" + X(kPiece - 1) + "]\n[s]\nk=v\n", "k", SM_STATUS_PARSE_ERROR,
       ""},
  };
  for (const auto &c : cases) {
    const Outcome got = ReadFrom(c.text, {.key = c.key, .size = kPiece});
    const std::string stored = c.value + '\0';
    const u32 size = c.status == 0 ? static_cast<u32>(stored.size()) : 0;
    EXPECT_EQ(got, (Outcome{c.status, size, Filled(stored, kPiece)})) << c.what;
  }
}

TEST(LongLine, OfEveryLengthAroundTheLimitIsPassedOverAndCopied) {
  for (const size_t multiple : {1u, 2u, 3u, 4u, 8u}) {
    for (size_t length = multiple * kPiece - 2; length <= multiple * kPiece + 2; ++length) {
      const std::string before = X(length) + "\n[s]\n" + X(length) + "\n";
      const std::string after = X(length) + "\n[t]\n" + X(length);
      const IniFile file(before + "k=v\n" + after);
      EXPECT_EQ(Read(file.path(), {}).buffer.substr(0, 2), "v\0"s) << length;
      EXPECT_EQ(WriteText(file.path(), "new"), 0);
      EXPECT_TRUE(file.text() == before + "k=new\n" + after) << length;
      EXPECT_EQ(WriteText(file.path(), std::nullopt), 0);
      EXPECT_TRUE(file.text() == before + after) << length;
    }
  }
}

TEST(LongLine, WritingActsOnPieces) {
  const struct {
    const char *what;
    std::string before;
    const char *key;
    Bytes value;
    std::string after;
  } cases[] = {
      {"first piece is replaced", "[s]\nk=" + X(9000) + "\n", "k", "v", "[s]\nk=v\n" + X(9002 - kPiece) + "\n"},
      {"first piece is removed", "[s]\nk=" + X(9000) + "\n", "k", std::nullopt, "[s]\n" + X(9002 - kPiece) + "\n"},
      {"second piece is replaced", "[s]\n" + X(kPiece) + "k=1\na=1\n", "k", "v", "[s]\n" + X(kPiece) + "k=v\na=1\n"},
      {"second piece is removed", "[s]\n" + X(kPiece) + "k=1\na=1\n", "k", std::nullopt, "[s]\n" + X(kPiece) + "a=1\n"},
      {"word as the second piece", "[s]\n" + X(kPiece) + "k\n", "k", "v", "[s]\n" + X(kPiece) + "k=v\n"},
      {"line feed as the second piece", "[s]\n" + X(kPiece) + "\na=1\n", "", "v", "[s]\n" + X(kPiece) + "=v\na=1\n"},
      {"header as the second piece", "[s]\n" + X(kPiece) + "[t]\n", "k", "v", "[s]\n" + X(kPiece) + "k=v\n[t]\n"},
      {"file that ends with a whole piece", "[s]\n" + X(kPiece), "k", "v", "[s]\n" + X(kPiece) + "k=v\n"},
      {"no key in a third piece", "[s]\n" + X(2 * kPiece + 1) + "k=1\n[t]\n", "k", "v",
       "[s]\n" + X(2 * kPiece + 1) + "k=1\nk=v\n[t]\n"},
      {"section as a piece", X(kPiece) + "[s]\nk=1\n", "k", "v", X(kPiece) + "[s]\nk=v\n"},
  };
  for (const auto &c : cases) {
    const IniFile file(c.before);
    EXPECT_EQ(WriteText(file.path(), c.value, "s", c.key), 0) << c.what;
    EXPECT_TRUE(file.text() == c.after) << c.what;
    EXPECT_EQ(file.temporaryText(), kNoFile) << c.what;
  }
}

TEST(LongLine, IsAListOfPieces) {
  const std::string text = "[s]\na=1" + X(kPiece - 3) + "b=2\n" + X(kPiece) + "[t]\nc" + X(kPiece - 1) + "[u]\n";
  EXPECT_EQ(ReadFrom(text, {.section = std::nullopt, .size = 7}), (Outcome{0, 6, "s\0t\0u\0\0"s}));
  EXPECT_EQ(ReadFrom(text, {.key = std::nullopt, .size = 5}), (Outcome{0, 4, "a\0b\0\0"s}));
  const std::string name = X(kPiece - 2);
  EXPECT_EQ(ReadFrom("[" + name + "]\n", {.section = std::nullopt, .size = kPiece}),
            (Outcome{0, kPiece - 1, name + "\0\0"s}));
}

// --- Lists ----------------------------------------------------------------------------------------------------------

TEST(GetAllSections, ListsEveryHeader) {
  const struct {
    const char *what;
    std::string text;
    s32 status;
    std::string list;  // without its own terminator
  } cases[] = {
      {"two", "[a]\n[b]\n", 0, "a\0b\0"s},
      {"with keys between", "x=1\n[a]\nk=1\n\n;[c]\n #[d]\n[b]", 0, "a\0b\0"s},
      {"twice", "[a]\n[b]\n[a]\n", 0, "a\0b\0a\0"s},
      {"verbatim", " [ a ] x\n\t[[b]]\n", 0, " a \0[b\0"s},
      {"empty name", "[]\n[a]\n", 0, "\0a\0"s},
      {"only an empty name", "[]", 0, "\0"s},
      {"zero in a name", "[a\0b]\n[c]\n"s, 0, "a\0c\0"s},
      {"long name", "[" + X(300) + "]\n", 0, X(300) + '\0'},
      {"no header", "k=v\n;[a]\n", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"empty file", "", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"malformed header first", "[a\n[b]\n", SM_STATUS_PARSE_ERROR, ""},
      {"malformed header in a comment", "#[a\n[b]\n;[", 0, "b\0"s},
  };
  for (const auto &c : cases) {
    const u32 size = c.status == 0 ? static_cast<u32>(c.list.size()) : 400;
    const std::string list = c.status == 0 ? c.list + '\0' : "\0\0"s;
    const std::string expected = Filled(list.size() < 2 ? "\0\0"s : list, 400);
    EXPECT_EQ(ReadFrom(c.text, {.section = std::nullopt, .size = 400}), (Outcome{c.status, size, expected})) << c.what;
    EXPECT_EQ(ReadFrom(c.text, {.section = std::nullopt, .key = std::nullopt, .size = 400, .defaultBytes = "d\0"s}),
              (Outcome{c.status, size, expected}))
        << c.what << ", with or without a key, and without a default";
  }
}

TEST(GetAllSections, MalformedHeaderEndsTheListAtOnce) {
  EXPECT_EQ(ReadFrom("[a]\n[b\n[c]\n", {.section = std::nullopt, .size = 9}),
            (Outcome{SM_STATUS_PARSE_ERROR, 9, Filled("a\0\0"s, 9)}));
}

TEST(GetAllKeys, ListsTheFirstSectionOfThatName) {
  const struct {
    const char *what;
    std::string text;
    s32 status;
    std::string list;
  } cases[] = {
      {"two", "[s]\na=1\nb=2\n", 0, "a\0b\0"s},
      {"up to the next header", "[r]\nz=1\n[s]\na=1\n[t]\nb=2\n", 0, "a\0"s},
      {"up to a header behind blanks", "[s]\na=1\n \t[t]\nb=2\n", 0, "a\0"s},
      {"not the second section of that name", "[s]\na=1\n[s]\nb=2\n", 0, "a\0"s},
      {"twice", "[s]\na=1\na=2\nb\na=3\n", 0, "a\0a\0a\0"s},
      {"verbatim", "[s]\n \ta \t=1\nb=c=d\n", 0, "a \t\0b\0"s},
      {"comments", "[s]\n;a=1\n#b=2\n ;c=3\n", 0, ";c\0"s},
      {"line without a sign of equality", "[s]\na\n\n  \nb=1\n", 0, "b\0"s},
      {"empty key", "[s]\na=1\n =x\nb=2\n", 0, "a\0\0b\0"s},
      {"only an empty key", "[s]\n=\n", 0, "\0"s},
      {"zero in a key", "[s]\na\0b=1\nc=2"s, 0, "a\0c\0"s},
      {"last line without a line feed", "[s]\na=1\nb=", 0, "a\0b\0"s},
      {"no key", "[s]\na\n;b=1\n", SM_STATUS_KEY_NOT_FOUND, ""},
      {"no key before the next header", "[s]\n[t]\na=1\n", SM_STATUS_KEY_NOT_FOUND, ""},
      {"no line", "[s]", SM_STATUS_KEY_NOT_FOUND, ""},
      {"no section", "[t]\na=1\n", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"no header", "a=1\n", SM_STATUS_SECTION_NOT_FOUND, ""},
      {"malformed header before", "[r\n[s]\na=1\n", SM_STATUS_PARSE_ERROR, ""},
      {"malformed header behind", "[s]\na=1\n[t\n", 0, "a\0"s},
  };
  for (const auto &c : cases) {
    const u32 size = c.status == 0 ? static_cast<u32>(c.list.size()) : 40;
    const std::string list = c.status == 0 ? c.list + '\0' : "\0\0"s;
    const std::string expected = Filled(list.size() < 2 ? "\0\0"s : list, 40);
    EXPECT_EQ(ReadFrom(c.text, {.key = std::nullopt, .size = 40}), (Outcome{c.status, size, expected})) << c.what;
    EXPECT_EQ(ReadFrom(c.text, {.key = std::nullopt, .size = 40, .defaultBytes = "d\0"s}),
              (Outcome{c.status, size, expected}))
        << c.what << ", no default";
  }
}

TEST(List, KeptLastTerminatorIsBehindARoomThatIsFilled) {
  for (const bool keys : {false, true}) {
    const std::string text = keys ? "[s]\na=1\nb=2\n" : "[a]\n[b]\n";
    const Bytes section = keys ? Bytes("s") : std::nullopt;
    const auto read = [&](u32 size, size_t behind) {
      return ReadFrom(text, {.section = section, .key = std::nullopt, .size = size, .behind = behind});
    };
    EXPECT_EQ(read(2, 1), (Outcome{SM_STATUS_BUFFER_TOO_SMALL, 4, "a\0\0"s})) << "full after one name";
    EXPECT_EQ(read(3, 0), (Outcome{SM_STATUS_BUFFER_TOO_SMALL, 4, "a\0\0"s}));
    EXPECT_EQ(read(4, 2), (Outcome{0, 4, Filled("a\0b\0\0"s, 6)})) << "one byte behind the room";
    EXPECT_EQ(read(5, 0), (Outcome{0, 4, "a\0b\0\0"s}));
    EXPECT_EQ(read(6, 0), (Outcome{0, 4, Filled("a\0b\0\0"s, 6)}));
  }
}

TEST(List, CountsOnWhereTheRoomEnds) {
  const auto read = [](u32 size) {
    return ReadFrom("[long name]\n[b]\n[c]\n", {.section = std::nullopt, .size = size});
  };
  EXPECT_EQ(read(2), (Outcome{SM_STATUS_BUFFER_TOO_SMALL, 14, "\0\0"s}));
  EXPECT_EQ(read(9), (Outcome{SM_STATUS_BUFFER_TOO_SMALL, 14, Filled("\0\0"s, 9)})) << "nothing that is shorter fits";
  EXPECT_EQ(read(13), (Outcome{SM_STATUS_BUFFER_TOO_SMALL, 14, Filled("long name\0b\0\0"s, 13)}));
  std::string text;
  std::string list;
  for (int i = 0; i < 20000; ++i) {
    text += "[n" + std::to_string(i) + "]\nk=v\n";
    list += "n" + std::to_string(i) + '\0';
  }
  const u32 total = static_cast<u32>(list.size());
  const IniFile file(text);
  EXPECT_EQ(Read(file.path(), {.section = std::nullopt, .size = 100}).size, total);
  EXPECT_EQ(Read(file.path(), {.section = std::nullopt, .size = total + 1}), (Outcome{0, total, list + '\0'}));
}

TEST(List, MalformedHeaderComesBeforeTooLittleRoom) {
  EXPECT_EQ(ReadFrom("[aa]\n[b\n", {.section = std::nullopt, .size = 2}), (Outcome{SM_STATUS_PARSE_ERROR, 2, "\0\0"s}));
}

TEST(List, NeedsRoomForTwoBytes) {
  for (const Bytes &section : {Bytes(), Bytes("s"), Bytes("none")}) {
    const Wanted wanted{.section = section, .key = std::nullopt, .size = 1};
    EXPECT_EQ(ReadFrom("[s]\nk=v\n", wanted), (Outcome{SM_STATUS_BAD_PARAMETER, 1, Filled("", 1)}));
    EXPECT_EQ(Read(IniFile().path(), wanted), (Outcome{SM_STATUS_NOT_FOUND, 1, Filled("", 1)})) << "the file first";
  }
}

TEST(List, KeptTypedReadersTakeTheFirstName) {
  const std::string text = "[12]\n0x10,5=a\ntrue=b\n[2]\n";
  const Wanted sections{.type = ZEBCS_INI_U32, .section = std::nullopt, .size = 4};
  EXPECT_EQ(ReadFrom(text, sections), (Outcome{0, 4, BytesOf(u32{12})}));
  const Wanted keys{.type = ZEBCS_INI_BINARY, .section = "12", .key = std::nullopt, .size = 4};
  EXPECT_EQ(ReadFrom(text, keys), (Outcome{0, 2, Filled("\x10\x05", 4)}));
}

TEST(List, ThatATypedReaderHasNoRoomForIsTooSmall) {
  // Names of 8 bytes with their terminators: first as many as fit, then one more.
  const struct {
    u32 type;
    size_t room;
    std::string defaultBytes;
  } cases[] = {{ZEBCS_INI_S32, 8193, BytesOf(s32{9})}, {ZEBCS_INI_BINARY, 8451, "\x01\x02"}};
  for (const auto &c : cases) {
    std::string text = "[3" + X(c.room % 8 + 6) + "]\n";
    for (size_t i = 1; i < c.room / 8; ++i) text += "[1234567]\n";
    const Wanted wanted{.type = c.type, .section = std::nullopt, .size = 4, .defaultBytes = c.defaultBytes};
    EXPECT_EQ(ReadFrom(text, wanted).status, 0) << "filled to the last byte";
    const Outcome tooSmall = c.type == ZEBCS_INI_BINARY ? Outcome{SM_STATUS_BUFFER_TOO_SMALL, 0, Filled("", 4)}
                                                        : Outcome{SM_STATUS_BUFFER_TOO_SMALL, 4, c.defaultBytes};
    EXPECT_EQ(ReadFrom(text + "[]\n", wanted), tooSmall) << "and a binary takes no default";
  }
}

// --- Defaults and failures ------------------------------------------------------------------------------------------

TEST(ReadINIFileValue, TextDefaultIsCutToTheRoom) {
  const struct {
    Bytes defaultBytes;
    std::optional<u32> dSize;
    u32 room;
    u32 size;
    std::string buffer;
  } cases[] = {
      {"abcdefghi\0"s, {}, 4, 4, "abc\0"s},
      {"abcdefghi\0"s, {}, 10, 10, "abcdefghi\0"s},
      {"abcdefghi\0"s, {}, 12, 10, Filled("abcdefghi\0"s, 12)},
      {"abcdefghi\0"s, {}, 1, 1, "\0"s},
      {"abc", {}, 5, 3, Filled("ab\0"s, 5)},
      {"a\0b\0"s, {}, 9, 4, Filled("a\0b\0"s, 9)},
      {"abc", 1, 5, 1, Filled("\0"s, 5)},
      {"abc", 0, 5, 0, Filled("\0"s, 5)},
      {std::nullopt, 0, 5, 0, Filled("\0"s, 5)},
      {std::nullopt, 7, 5, 0, Filled("\0"s, 5)},
  };
  const struct {
    const char *text;
    s32 status;
  } failures[] = {{"[t]\n", SM_STATUS_SECTION_NOT_FOUND},
                  {"", SM_STATUS_SECTION_NOT_FOUND},
                  {"[s]\n", SM_STATUS_KEY_NOT_FOUND},
                  {"[\n", SM_STATUS_PARSE_ERROR}};
  for (const auto &failure : failures) {
    const IniFile file(failure.text);
    for (const auto &c : cases) {
      EXPECT_EQ(Read(file.path(), {.size = c.room, .defaultBytes = c.defaultBytes, .dSize = c.dSize}),
                (Outcome{failure.status, c.size, c.buffer}))
          << testing::PrintToString(failure.text) << ' ' << c.room;
    }
  }
}

TEST(ReadINIFileValue, TextOfAMissingFileIsLeftAlone) {
  const Outcome untouched{SM_STATUS_NOT_FOUND, 5, Filled("", 5)};
  for (const Bytes &section : {Bytes(), Bytes("s")}) {
    for (const Bytes &key : {Bytes(), Bytes("k")}) {
      const Wanted wanted{.section = section, .key = key, .size = 5, .defaultBytes = "d\0"s};
      EXPECT_EQ(Read(IniFile().path(), wanted), untouched);
      EXPECT_EQ(Read(IniFile().path() + "/none/a.ini", wanted), untouched);
      EXPECT_EQ(Read("", wanted), untouched);
    }
  }
}

TEST(ReadINIFileValue, FileThatCannotBeReadIsAParseError) {
  const TemporaryDirectory directory;
  const s32 status = SM_STATUS_PARSE_ERROR;
  EXPECT_EQ(Read(directory.path(), {.size = 3, .defaultBytes = "d\0"s}), (Outcome{status, 2, Filled("d\0"s, 3)}));
  EXPECT_EQ(Read(directory.path(), {.key = std::nullopt, .size = 3}), (Outcome{status, 3, Filled("\0\0"s, 3)}));
  EXPECT_EQ(Read(directory.path(), {.section = std::nullopt, .size = 3}), (Outcome{status, 3, Filled("\0\0"s, 3)}));
  EXPECT_EQ(Read(directory.path(), {.type = ZEBCS_INI_U32, .size = 4}), (Outcome{status, 0, Filled("", 4)}));
}

TEST(ReadINIFileValue, NumberDefaultComesWithTheStatusOfTheFailure) {
  const TemporaryDirectory unreadable;
  const IniFile missing;
  const IniFile noSection("[t]\nk=1\n");
  const IniFile noKey("[s]\nl=1\n[t]\nk=1\n");
  const IniFile malformed("[t\n[s]\nk=1\n");
  const IniFile tooLong("[s]\nk=" + std::string(8193, '1') + "\n");
  const struct {
    std::string path;
    s32 status;
  } failures[] = {
      {missing.path(), SM_STATUS_NOT_FOUND},      {noSection.path(), SM_STATUS_SECTION_NOT_FOUND},
      {noKey.path(), SM_STATUS_KEY_NOT_FOUND},    {malformed.path(), SM_STATUS_PARSE_ERROR},
      {unreadable.path(), SM_STATUS_PARSE_ERROR}, {tooLong.path(), SM_STATUS_BUFFER_TOO_SMALL},
  };
  for (const auto &failure : failures) {
    for (u32 type = kFirstNumberType; type <= kLastType; ++type) {
      const u32 width = SizeOfType(type);
      const std::string value = std::string("\1\2\3\4\5\6\7\x08").substr(0, width);
      const Outcome untouched{failure.status, 0, Filled("", width)};
      for (const u32 size : {width, width + 1, 100u}) {
        for (const u32 dSize : {width, width + 1, 100u}) {
          EXPECT_EQ(Read(failure.path, {.type = type, .size = size, .defaultBytes = value, .dSize = dSize}),
                    (Outcome{failure.status, width, value}))
              << type << ' ' << failure.status;
        }
        for (const u32 dSize : {width - 1, 0u}) {
          EXPECT_EQ(Read(failure.path, {.type = type, .size = size, .defaultBytes = value, .dSize = dSize}), untouched)
              << type << ' ' << failure.status;
        }
        EXPECT_EQ(Read(failure.path, {.type = type, .size = size, .dSize = width}), untouched) << type;
      }
    }
  }
}

TEST(ReadINIFileValue, BinaryDefaultIsCutToTheRoom) {
  const IniFile missing;
  const IniFile noSection("");
  const IniFile noKey("[s]\n");
  const IniFile malformed("[");
  const IniFile aboveAByte("[s]\nk=100\n");
  const struct {
    std::string path;
    s32 status;
  } failures[] = {
      {missing.path(), SM_STATUS_NOT_FOUND},   {noSection.path(), SM_STATUS_SECTION_NOT_FOUND},
      {noKey.path(), SM_STATUS_KEY_NOT_FOUND}, {malformed.path(), SM_STATUS_PARSE_ERROR},
      {aboveAByte.path(), SM_STATUS_BAD_SIZE},
  };
  for (const auto &failure : failures) {
    const auto read = [&failure](u32 type, u32 room, const Bytes &bytes, std::optional<u32> dSize = std::nullopt) {
      return Read(failure.path, {.type = type, .size = room, .defaultBytes = bytes, .dSize = dSize});
    };
    const u32 type = ZEBCS_INI_BINARY;
    EXPECT_EQ(read(type, 3, "abcde"), (Outcome{failure.status, 3, "abc"})) << "no terminator";
    EXPECT_EQ(read(type, 5, "abcde"), (Outcome{failure.status, 5, "abcde"}));
    EXPECT_EQ(read(type, 7, "abcde"), (Outcome{failure.status, 5, Filled("abcde", 7)}));
    EXPECT_EQ(read(type, 7, "abcde", 1), (Outcome{failure.status, 1, Filled("a", 7)}));
    EXPECT_EQ(read(type, 7, "abcde", 0), (Outcome{failure.status, 0, Filled("", 7)}));
    EXPECT_EQ(read(type, 7, std::nullopt, 3), (Outcome{failure.status, 0, Filled("", 7)}));
    const std::string wide = WideBytes("ab");
    EXPECT_EQ(read(ZEBCS_INI_USTRING, 4, wide), (Outcome{failure.status, 4, wide.substr(0, 4)}));
    EXPECT_EQ(read(ZEBCS_INI_USTRING, 8, wide), (Outcome{failure.status, 6, Filled(wide, 8)}));
    EXPECT_EQ(read(ZEBCS_INI_USTRING, 8, std::nullopt, 3), (Outcome{failure.status, 0, Filled("", 8)}));
  }
}

TEST(ReadINIFileValue, WideDefaultMustHaveItsSize) {
  const std::string wide = WideBytes("ab");
  for (const std::string &text : {"[s]\nk=0x41,0x00,0x00,0x00\n"s, ""s}) {
    for (const u32 dSize : {0u, 1u, 4u, 5u, 7u, 8u}) {
      EXPECT_EQ(ReadFrom(text, {.type = ZEBCS_INI_USTRING, .size = 8, .defaultBytes = wide, .dSize = dSize}),
                (Outcome{SM_STATUS_BAD_PARAMETER, 8, Filled("", 8)}))
          << dSize;
    }
  }
  EXPECT_EQ(ReadFrom("[s]\nk=0x41,0x00,0x00,0x00\n", {.type = ZEBCS_INI_USTRING, .size = 8, .defaultBytes = wide}),
            (Outcome{0, 4, Filled(WideBytes("A"), 8)}));
}

TEST(ReadINIFileValue, ArgumentsAreCheckedFirst) {
  const IniFile file("[s]\nk=1\n");
  const std::string path = file.path();
  for (u32 type = 1; type <= kLastType; ++type) {
    d64 value = 0.5;
    u32 size = 8;
    EXPECT_EQ(KCSReadINIPathFileValue("s", "k", type, nullptr, &size, nullptr, 0, path.c_str(), 1),
              SM_STATUS_BAD_PARAMETER)
        << type;
    EXPECT_EQ(KCSReadINIPathFileValue("s", "k", type, &value, nullptr, nullptr, 0, path.c_str(), 1),
              SM_STATUS_BAD_PARAMETER)
        << type;
    EXPECT_EQ(KCSReadINIPathFileValue("s", "k", type, &value, &size, nullptr, 0, nullptr, 1), SM_STATUS_BAD_PARAMETER)
        << type;
    EXPECT_EQ(size, 8u) << type;
    const std::string defaultBytes = WideBytes("abc");
    for (const bool isThere : {true, false}) {
      for (u32 tooSmall = 0; tooSmall < SizeOfType(type); ++tooSmall) {
        const Outcome got =
            Read(isThere ? path : path + ".none", {.type = type, .size = tooSmall, .defaultBytes = defaultBytes});
        const size_t room = type < kFirstNumberType ? 0 : SizeOfType(type);
        EXPECT_EQ(got, (Outcome{SM_STATUS_BAD_PARAMETER, tooSmall, Filled("", room)})) << type << ' ' << isThere;
      }
    }
    EXPECT_EQ(value, 0.5) << type;
  }
}

TEST(ReadINIPathFileValue, OtherTypesAreRefused) {
  const IniFile file("[s]\nk=1\n");
  for (const u32 type : {0u, 10u, 11u, 256u, 257u, 0x10001u, 0x80000001u, 0xFFFFFFFFu}) {
    EXPECT_EQ(Read(file.path(), {.type = type, .size = 8, .defaultBytes = "12345678"}),
              (Outcome{SM_STATUS_BAD_PARAMETER, 8, Filled("", 8)}))
        << type;
    EXPECT_EQ(Write(file.path(), {.type = type, .bytes = "2\0"s}), SM_STATUS_BAD_PARAMETER) << type;
    EXPECT_EQ(Write(file.path(), {.type = type}), SM_STATUS_BAD_PARAMETER) << type;
  }
  EXPECT_EQ(file.text(), "[s]\nk=1\n");
  EXPECT_EQ(file.mode(), 0644u);
}

// --- Typed values ---------------------------------------------------------------------------------------------------

TEST(ReadINIFileValue, BoolnIsTheFirstWord) {
  const struct {
    const char *text;
    int value;  // -1 for none
  } cases[] = {
      {"TRUE", 1},    {"FALSE", 0},     {"true", 1},    {"false", 0},       {"TrUe", 1},       {"fAlSe", 0},
      {" TRUE", 1},   {"   FALSE", 0},  {"TRUE ", 1},   {"TRUE FALSE", 1},  {"FALSE TRUE", 0}, {"FALSE and more", 0},
      {"TRUE\r", -1}, {"TRUE\t", -1},   {"\tTRUE", -1}, {"TRUE \r", 1},     {"TRUEX", -1},     {"TRU", -1},
      {"", -1},       {"    ", -1},     {"1", -1},      {"0", -1},          {"yes", -1},       {"TRUE=1", -1},
      {"TRUE,", -1},  {"\"TRUE\"", -1}, {"x TRUE", -1}, {"FALSEFALSE", -1},
  };
  const std::string defaultBytes = BytesOf(booln{77});
  for (const auto &c : cases) {
    const std::string text = "[s]\nk="s + c.text + "\n";
    for (const u32 size : {2u, 5u}) {
      const Outcome expected = c.value < 0 ? Outcome{SM_STATUS_BAD_SIZE, 2, defaultBytes}
                                           : Outcome{0, size, BytesOf(static_cast<booln>(c.value))};
      EXPECT_EQ(ReadFrom(text, {.type = ZEBCS_INI_BOOLN, .size = size, .defaultBytes = defaultBytes}), expected)
          << testing::PrintToString(c.text);
    }
    if (c.value < 0) {
      EXPECT_EQ(ReadFrom(text, {.type = ZEBCS_INI_BOOLN, .size = 2}), (Outcome{SM_STATUS_BAD_SIZE, 0, Filled("", 2)}));
      EXPECT_EQ(ReadFrom(text, {.type = ZEBCS_INI_BOOLN, .size = 2, .defaultBytes = defaultBytes, .dSize = 1}),
                (Outcome{SM_STATUS_BAD_SIZE, 0, Filled("", 2)}));
    }
  }
}

TEST(ReadINIFileValue, BoolnWordsGoThroughTheGlobalPointers) {
  const IniFile file;
  const astring *const savedTrue = pStrTRUE;
  const astring *const savedFalse = pStrFALSE;
  EXPECT_STREQ(pStrTRUE, "TRUE");
  EXPECT_STREQ(pStrFALSE, "FALSE");
  pStrTRUE = "On";
  pStrFALSE = "Off";
  EXPECT_EQ(Write(file.path(), {.type = ZEBCS_INI_BOOLN, .key = "a", .bytes = BytesOf(booln{1})}), 0);
  EXPECT_EQ(Write(file.path(), {.type = ZEBCS_INI_BOOLN, .key = "b", .bytes = BytesOf(booln{0})}), 0);
  EXPECT_EQ(Write(file.path(), {.section = "s", .key = "c", .bytes = "TRUE\0"s}), 0);
  EXPECT_EQ(file.text(), "[s]\na=On\nb=Off\nc=TRUE\n");
  EXPECT_EQ(Read(file.path(), {.type = ZEBCS_INI_BOOLN, .key = "a", .size = 2}), (Outcome{0, 2, BytesOf(booln{1})}));
  EXPECT_EQ(Read(file.path(), {.type = ZEBCS_INI_BOOLN, .key = "b", .size = 2}), (Outcome{0, 2, BytesOf(booln{0})}));
  EXPECT_EQ(Read(file.path(), {.type = ZEBCS_INI_BOOLN, .key = "c", .size = 2}).status, SM_STATUS_BAD_SIZE);
  pStrTRUE = savedTrue;
  pStrFALSE = savedFalse;
}

TEST(ReadINIFileValue, NumberIsWhatStandsInFront) {
  constexpr auto kInfinity = std::numeric_limits<d64>::infinity();
  const struct {
    u32 type;
    const char *text;
    std::string value;
  } cases[] = {
      {ZEBCS_INI_U32, "0", BytesOf(u32{0})},
      {ZEBCS_INI_U32, "12", BytesOf(u32{12})},
      {ZEBCS_INI_U32, "007", BytesOf(u32{7})},
      {ZEBCS_INI_U32, " \t 7", BytesOf(u32{7})},
      {ZEBCS_INI_U32, "+7", BytesOf(u32{7})},
      {ZEBCS_INI_U32, "7x8", BytesOf(u32{7})},
      {ZEBCS_INI_U32, "7 8", BytesOf(u32{7})},
      {ZEBCS_INI_U32, "7\r", BytesOf(u32{7})},
      {ZEBCS_INI_U32, "0x10", BytesOf(u32{0})},
      {ZEBCS_INI_U32, "1.9", BytesOf(u32{1})},
      {ZEBCS_INI_U32, "4294967295", BytesOf(u32{0xFFFFFFFF})},
      {ZEBCS_INI_U32, "4294967296", BytesOf(u32{0})},
      {ZEBCS_INI_U32, "4294967299", BytesOf(u32{3})},
      {ZEBCS_INI_U32, "-1", BytesOf(u32{0xFFFFFFFF})},
      {ZEBCS_INI_U32, "18446744073709551615", BytesOf(u32{0xFFFFFFFF})},
      {ZEBCS_INI_U32, "99999999999999999999", BytesOf(u32{0xFFFFFFFF})},
      {ZEBCS_INI_S32, "-12", BytesOf(s32{-12})},
      {ZEBCS_INI_S32, "+12", BytesOf(s32{12})},
      {ZEBCS_INI_S32, " -12;", BytesOf(s32{-12})},
      {ZEBCS_INI_S32, "2147483647", BytesOf(std::numeric_limits<s32>::max())},
      {ZEBCS_INI_S32, "-2147483648", BytesOf(std::numeric_limits<s32>::min())},
      {ZEBCS_INI_S32, "2147483648", BytesOf(std::numeric_limits<s32>::min())},
      {ZEBCS_INI_S32, "-2147483649", BytesOf(std::numeric_limits<s32>::max())},
      {ZEBCS_INI_S32, "4294967301", BytesOf(s32{5})},
      {ZEBCS_INI_S32, "99999999999999999999", BytesOf(s32{-1})},
      {ZEBCS_INI_S32, "-99999999999999999999", BytesOf(s32{0})},
      {ZEBCS_INI_U64, "12", BytesOf(u64{12})},
      {ZEBCS_INI_U64, " \t+12x", BytesOf(u64{12})},
      {ZEBCS_INI_U64, "18446744073709551615", BytesOf(std::numeric_limits<u64>::max())},
      {ZEBCS_INI_U64, "18446744073709551616", BytesOf(u64{0})},
      {ZEBCS_INI_U64, "18446744073709551621", BytesOf(u64{5})},
      {ZEBCS_INI_S64, "-12", BytesOf(s64{-12})},
      {ZEBCS_INI_S64, " +12 ", BytesOf(s64{12})},
      {ZEBCS_INI_S64, "9223372036854775807", BytesOf(std::numeric_limits<s64>::max())},
      {ZEBCS_INI_S64, "-9223372036854775808", BytesOf(std::numeric_limits<s64>::min())},
      {ZEBCS_INI_S64, "9223372036854775808", BytesOf(std::numeric_limits<s64>::min())},
      {ZEBCS_INI_S64, "18446744073709551617", BytesOf(s64{1})},
      {ZEBCS_INI_D64, "1.5", BytesOf(1.5)},
      {ZEBCS_INI_D64, "-1.5", BytesOf(-1.5)},
      {ZEBCS_INI_D64, " \t+2.5e3x", BytesOf(2500.0)},
      {ZEBCS_INI_D64, ".5", BytesOf(0.5)},
      {ZEBCS_INI_D64, "7", BytesOf(7.0)},
      {ZEBCS_INI_D64, "0", BytesOf(0.0)},
      {ZEBCS_INI_D64, "-0.0", BytesOf(-0.0)},
      {ZEBCS_INI_D64, "0x1p4", BytesOf(16.0)},
      {ZEBCS_INI_D64, "inf", BytesOf(kInfinity)},
      {ZEBCS_INI_D64, "-1e999", BytesOf(-kInfinity)},
      {ZEBCS_INI_D64, "1e-999", BytesOf(0.0)},
      {ZEBCS_INI_D64, "0.1", BytesOf(0.1)},
  };
  const std::string defaultBytes = "\1\2\3\4\5\6\7\x08";
  for (const auto &c : cases) {
    const u32 width = SizeOfType(c.type);
    const std::string text = "[s]\nk="s + c.text + "\n";
    for (const u32 size : {width, width + 3}) {
      EXPECT_EQ(ReadFrom(text, {.type = c.type, .size = size}), (Outcome{0, size, c.value})) << c.type << ' ' << c.text;
    }
    EXPECT_EQ(ReadFrom(text, {.type = c.type, .size = width, .defaultBytes = defaultBytes.substr(0, width)}),
              (Outcome{0, width, c.value}))
        << c.type << ' ' << c.text;
  }
}

TEST(ReadINIFileValue, MinusOfAnUnsignedWideNumberReadsAsZero) {
  EXPECT_EQ(ReadFrom("[s]\nk=-5\n", {.type = ZEBCS_INI_U64, .size = 8}), (Outcome{0, 8, BytesOf(u64{0})}));
}

TEST(ReadINIFileValue, TextThatIsNoNumberReadsAsTheDefaultOrZeroWithSuccess) {
  for (u32 type = ZEBCS_INI_U32; type <= kLastType; ++type) {
    const u32 width = SizeOfType(type);
    const std::string value = std::string("\1\2\3\4\5\6\7\x08").substr(0, width);
    const std::string zero(width, '\0');
    for (const char *const text : {"", "abc", "-", "+", " \t ", "--1", "+-1", "-+1", "\r", "=1", "x1", ",1"}) {
      const IniFile file("[s]\nk="s + text + "\n");
      for (const u32 size : {width, width + 3}) {
        EXPECT_EQ(Read(file.path(), {.type = type, .size = size, .defaultBytes = value}), (Outcome{0, size, value}))
            << type << ' ' << text;
        EXPECT_EQ(Read(file.path(), {.type = type, .size = size, .defaultBytes = value, .dSize = width - 1}),
                  (Outcome{0, size, zero}))
            << type << ' ' << text;
        EXPECT_EQ(Read(file.path(), {.type = type, .size = size, .dSize = width}), (Outcome{0, size, zero}))
            << type << ' ' << text;
      }
    }
  }
}

TEST(ReadINIFileValue, NumberTextOf8192CharactersIsTheLongest) {
  const std::string text = "[s]\nk=" + std::string(8191, '0') + "7";
  for (u32 type = ZEBCS_INI_U32; type <= kLastType; ++type) {
    const u32 width = SizeOfType(type);
    const std::string seven = type == ZEBCS_INI_D64 ? BytesOf(7.0) : BytesOf(u64{7}).substr(0, width);
    EXPECT_EQ(ReadFrom(text + "\n", {.type = type, .size = width}), (Outcome{0, width, seven})) << type;
    EXPECT_EQ(ReadFrom(text + "x\n", {.type = type, .size = width}),
              (Outcome{SM_STATUS_BUFFER_TOO_SMALL, 0, Filled("", width)}))
        << type;
  }
}

TEST(ReadINIFileValue, BinaryIsAListOfHexadecimalTokens) {
  const struct {
    const char *what;
    std::string text;
    u32 room;
    s32 status;
    u32 size;
    std::string buffer;
  } cases[] = {
      {"as written", "0x01,0xAB,0xFF", 8, 0, 3, "\x01\xAB\xFF"},
      {"exactly the room", "0x01,0xAB,0xFF", 3, 0, 3, "\x01\xAB\xFF"},
      {"without a prefix", "1,aB,ff,7F", 8, 0, 4, "\x01\xAB\xFF\x7F"},
      {"large prefix", "0X1f", 8, 0, 1, "\x1F"},
      {"zeros in front", "0x0001,00000000000000000002", 8, 0, 2, "\1\2"},
      {"white space in front", " 1,\t2, \r3", 8, 0, 3, "\1\2\3"},
      {"signs", "+1,-0", 8, 0, 2, "\1\0"s},
      {"text behind a number", "1 x,2y,3 4,5\r", 8, 0, 4, "\1\2\3\5"},
      {"empty tokens are skipped", ",,1,,2,", 8, 0, 2, "\1\2"},
      {"empty value", "", 8, 0, 0, ""},
      {"only commas", ",,,", 8, 0, 0, ""},
      {"no number", "zz", 8, 0, 0, ""},
      {"blank token", "1, ,2", 8, 0, 1, "\1"},
      {"token that is none ends the list", "1,2,zz,3", 8, 0, 2, "\1\2"},
      {"and a large one behind it", "1,g,100", 8, 0, 1, "\1"},
      {"decimal looks are hexadecimal", "10,99", 8, 0, 2, "\x10\x99"},
      {"room for less", "1,2,3,4", 2, SM_STATUS_BUFFER_TOO_SMALL, 4, "\1\2"},
      {"room for less, and an end", "1,2,3,x,4", 2, SM_STATUS_BUFFER_TOO_SMALL, 3, "\1\2"},
      {"token that is none where the room ends", "1,2,x,4", 2, 0, 2, "\1\2"},
      {"above a byte", "100", 8, SM_STATUS_BAD_SIZE, 0, ""},
      {"the largest", "FFFFFFFF", 8, SM_STATUS_BAD_SIZE, 0, ""},
      {"below zero", "-1", 8, SM_STATUS_BAD_SIZE, 0, ""},
      {"too large", "99999999999999999999", 8, SM_STATUS_BAD_SIZE, 0, ""},
      {"above a byte behind the room", "1,2,3,100", 3, SM_STATUS_BAD_SIZE, 0, "\1\2\3"},
  };
  for (const auto &c : cases) {
    const std::string text = "[s]\nk=" + c.text + "\n";
    for (const u32 type : {u32{ZEBCS_INI_BINARY}, u32{ZEBCS_INI_USTRING}}) {
      const Outcome expected{c.status, c.size, Filled(c.buffer, c.room)};
      EXPECT_EQ(ReadFrom(text, {.type = type, .size = c.room}), expected) << c.what;
    }
    const Outcome got = ReadFrom(text, {.type = ZEBCS_INI_BINARY, .size = c.room, .defaultBytes = "de"});
    EXPECT_EQ(got.status, c.status) << c.what;
    if (c.status == SM_STATUS_BAD_SIZE) {
      EXPECT_EQ(got.size, 2u) << c.what;
      EXPECT_EQ(got.buffer.substr(0, 2), "de") << c.what;
    } else {
      EXPECT_EQ(got, (Outcome{c.status, c.size, Filled(c.buffer, c.room)})) << c.what << ": no default";
    }
  }
}

TEST(ReadINIFileValue, BinaryTextMayFillItsPiece) {
  std::string value;
  std::string bytes;
  while (value.size() + 3 <= kPiece - 2) {
    value += "7F,";
    bytes += '\x7F';
  }
  const u32 count = static_cast<u32>(bytes.size());
  const std::string text = "[s]\nk=" + value + std::string(kPiece - 2 - value.size(), '1') + "\n";
  EXPECT_EQ(ReadFrom(text, {.type = ZEBCS_INI_BINARY, .size = 4000}),
            (Outcome{0, count + 1, Filled(bytes + '\x11', 4000)}));
}

// --- Writing: lines -------------------------------------------------------------------------------------------------

TEST(UpdateValue, EditsOneLine) {
  const struct {
    const char *what;
    std::string before;
    std::string key;
    Bytes value;
    std::string after;
  } cases[] = {
      {"replaced", "[s]\na=1\nk=1\nb=2\n", "k", "v", "[s]\na=1\nk=v\nb=2\n"},
      {"empty value", "[s]\nk=1\n", "k", "", "[s]\nk=\n"},
      {"blanks before the key go", "[s]\n \tk=1\n", "k", "v", "[s]\nk=v\n"},
      {"blanks around the sign of equality are of the names", "[s]\nk =1\n", "k", "v", "[s]\nk =1\nk=v\n"},
      {"the first of two", "[s]\nk=1\nk=2\n", "k", "v", "[s]\nk=v\nk=2\n"},
      {"the first section of two", "[s]\na=1\n[s]\nk=2\n", "k", "v", "[s]\na=1\nk=v\n[s]\nk=2\n"},
      {"not in other sections", "k=0\n[a]\nk=1\n[s]\nk=2\n[b]\nk=3\n", "k", "v", "k=0\n[a]\nk=1\n[s]\nk=v\n[b]\nk=3\n"},
      {"last line without a line feed", "[s]\nk=1", "k", "v", "[s]\nk=v\n"},
      {"rest without a line feed", "[s]\nk=1\nb", "k", "v", "[s]\nk=v\nb"},
      {"carriage returns of other lines stay", "[s]\r\nk=1\r\nb=2\r\n", "k", "v", "[s]\r\nk=v\nb=2\r\n"},
      {"text behind the header stays", " [s] x\n\n;c\nk=1\n", "k", "v", " [s] x\n\n;c\nk=v\n"},
      {"all bytes stay", "\0\n\xFF\n[s]\n\0=\x80\nk=1\n\0\0"s, "k", "v", "\0\n\xFF\n[s]\n\0=\x80\nk=v\n\0\0"s},
      {"value with signs of equality", "[s]\nk=a=b\n", "k", "c=d", "[s]\nk=c=d\n"},
      {"key that never matches", "[s]\na=b=1\n", "a=b", "v", "[s]\na=b=1\na=b=v\n"},
      {"value of lines", "[s]\nk=1\n", "k", "a\n[t]\nk=2", "[s]\nk=a\n[t]\nk=2\n"},
      {"case counts", "[S]\n[s]\nK=1\nk=2\n", "k", "v", "[S]\n[s]\nK=1\nk=v\n"},
      {"comment stays", "[s]\n;k=1\n#k=2\n", "k", "v", "[s]\n;k=1\n#k=2\nk=v\n"},
      {"comment is not the key", "[s]\n;k=1\n", ";k", "v", "[s]\n;k=1\n;k=v\n"},
      {"behind a blank it is", "[s]\n ;k=1\n", ";k", "v", "[s]\n;k=v\n"},
      {"word alone", "[s]\nk\nb=1\n", "k", "v", "[s]\nk=v\nb=1\n"},
      {"word alone behind blanks", "[s]\n\t k\n", "k", "v", "[s]\nk=v\n"},
      {"word alone at the end", "[s]\nk", "k", "v", "[s]\nk=v\n"},
      {"word before the key", "[s]\nk\nk=1\n", "k", "v", "[s]\nk=v\nk=1\n"},
      {"word with a blank is another", "[s]\nk \n", "k", "v", "[s]\nk \nk=v\n"},
      {"word with a carriage return is another", "[s]\nk\r\n", "k", "v", "[s]\nk\r\nk=v\n"},
      {"empty key", "[s]\n=1\n", "", "v", "[s]\n=v\n"},
      {"empty line is the empty key", "[s]\na=1\n\n=1\n", "", "v", "[s]\na=1\n=v\n=1\n"},
      {"line of blanks is the empty key", "[s]\n \t\nb=1\n", "", "v", "[s]\n=v\nb=1\n"},
      {"before the next header", "[s]\na=1\n[t]\nb=2\n", "k", "v", "[s]\na=1\nk=v\n[t]\nb=2\n"},
      {"behind blank lines", "[s]\na=1\n\n\n[t]\n", "k", "v", "[s]\na=1\n\n\nk=v\n[t]\n"},
      {"behind comments", "[s]\n;c\n \t[t] x\n", "k", "v", "[s]\n;c\nk=v\n \t[t] x\n"},
      {"before a malformed header", "[s]\n[t\nk=1\n", "k", "v", "[s]\nk=v\n[t\nk=1\n"},
      {"before a header that ends the file", "[s]\n[t]", "k", "v", "[s]\nk=v\n[t]"},
      {"malformed header behind the key", "[s]\nk=1\n[t\n", "k", "v", "[s]\nk=v\n[t\n"},
      {"at the end", "[a]\n[s]\na=1\n", "k", "v", "[a]\n[s]\na=1\nk=v\n"},
      {"at the end behind blank lines", "[s]\n\n", "k", "v", "[s]\n\nk=v\n"},
      {"removed", "[s]\na=1\nk=1\nb=2\n", "k", std::nullopt, "[s]\na=1\nb=2\n"},
      {"removed: the first of two", "[s]\nk=1\nk=2\n", "k", std::nullopt, "[s]\nk=2\n"},
      {"removed: the header stays", "[s]\nk=1", "k", std::nullopt, "[s]\n"},
      {"removed: a word", "[s]\nk\nb=1\n", "k", std::nullopt, "[s]\nb=1\n"},
      {"removed: an empty line", "[s]\n\nb=1\n", "", std::nullopt, "[s]\nb=1\n"},
      {"removed before another section", "[s]\nk=1\n[t]\nk=1\n", "k", std::nullopt, "[s]\n[t]\nk=1\n"},
      {"not there to be removed", "[s]\na=1\n[t]\nk=1\n", "k", std::nullopt, "[s]\na=1\n[t]\nk=1\n"},
      {"not there before a malformed header", "[s]\n[t\nk=1\n", "k", std::nullopt, "[s]\n[t\nk=1\n"},
  };
  for (const auto &c : cases) {
    const IniFile file(c.before);
    const ino_t inode = InodeOf(file.path());
    EXPECT_EQ(WriteText(file.path(), c.value, "s", c.key), 0) << c.what;
    EXPECT_EQ(file.text(), c.after) << c.what;
    EXPECT_EQ(file.mode(), kMode) << c.what;
    EXPECT_NE(InodeOf(file.path()), inode) << c.what << ": another file took its place";
    EXPECT_EQ(file.temporaryText(), kNoFile) << c.what;
  }
}

TEST(UpdateValue, KeptLineAtTheEndJoinsALastLineWithoutItsLineFeed) {
  for (const std::string &last : {"[s]"s, "[s]\na=1"s, "[s]\n "s, "[s]\n;c"s}) {
    const IniFile file(last);
    EXPECT_EQ(WriteText(file.path(), "v"), 0);
    EXPECT_EQ(file.text(), last + "k=v\n");
  }
}

TEST(UpdateValue, KeptRemovalOfAnAbsentKeyFromTheLastSectionWritesALine) {
  const IniFile file("[s]\na=1\n");
  for (u32 type = 1; type <= kLastType; ++type) {
    sandbox::WriteFile(file.path(), "[s]\na=1\n");
    EXPECT_EQ(Write(file.path(), {.type = type}), 0) << type;
    EXPECT_EQ(file.text(), "[s]\na=1\nk=(null)\n") << type;
    EXPECT_EQ(Write(file.path(), {.type = type}), 0) << type;
    EXPECT_EQ(file.text(), "[s]\na=1\n") << type << ": it is there now";
  }
}

TEST(UpdateValue, SectionNamesAreComparedVerbatim) {
  const std::string before = "[ s ]\n[]\n[s]\n[[s]\n[s]]\n";
  const struct {
    const char *section;
    std::string after;
  } cases[] = {
      {" s ", "[ s ]\nk=v\n[]\n[s]\n[[s]\n[s]]\n"},
      {"", "[ s ]\n[]\nk=v\n[s]\n[[s]\n[s]]\n"},
      {"s", "[ s ]\n[]\n[s]\nk=v\n[[s]\n[s]]\n"},
      {"[s", "[ s ]\n[]\n[s]\n[[s]\nk=v\n[s]]\n"},
      {"s]", before + "[s]]\nk=v\n"},
      {"S", before + "[S]\nk=v\n"},
  };
  for (const auto &c : cases) {
    const IniFile file(before);
    EXPECT_EQ(WriteText(file.path(), "v", c.section), 0) << c.section;
    EXPECT_EQ(file.text(), c.after) << c.section;
  }
}

TEST(UpdateValue, MalformedHeaderBeforeTheSectionLeavesTheFileAndTheTemporaryFile) {
  const struct {
    std::string before;
    std::string temporary;
  } cases[] = {
      {"[a]\nb=1\n [t\n[s]\nk=1\n", "[a]\nb=1\n [t\n"},
      {"[s", "[s"},
      {"[\n[s]\nk=1\n", "[\n"},
      {X(kPiece) + "[\n[s]\nk=1\n", X(kPiece) + "[\n"},
  };
  for (const auto &c : cases) {
    for (const Bytes &value : {Bytes("v"), Bytes()}) {
      const IniFile file(c.before);
      EXPECT_EQ(WriteText(file.path(), value), SM_STATUS_PARSE_ERROR);
      EXPECT_TRUE(file.text() == c.before);
      EXPECT_EQ(file.mode(), 0644u);
      EXPECT_TRUE(file.temporaryText() == c.temporary) << file.temporaryText();
    }
  }
}

TEST(UpdateValue, StaleTemporaryFileIsTruncated) {
  const IniFile file("[s]\nk=1\n");
  sandbox::WriteFile(file.temporaryPath(), X(100000), 0600);
  EXPECT_EQ(WriteText(file.path(), "v"), 0);
  EXPECT_EQ(file.text(), "[s]\nk=v\n");
  EXPECT_EQ(file.mode(), kMode);
  EXPECT_EQ(file.temporaryText(), kNoFile);
  sandbox::WriteFile(file.temporaryPath(), X(100000));
  EXPECT_EQ(WriteText(file.path(), "v", "new"), 0);
  EXPECT_EQ(file.text(), "[s]\nk=v\n[new]\nk=v\n");
  EXPECT_EQ(file.temporaryText(), kNoFile);
}

TEST(UpdateValue, AppendsWhereTheSectionIsMissing) {
  const struct {
    const char *what;
    std::string before;
    std::string after;
  } cases[] = {
      {"empty file", "", "[s]\nk=v\n"},
      {"other sections", "[a]\nk=1\n", "[a]\nk=1\n[s]\nk=v\n"},
      {"no header", "k=1\n", "k=1\n[s]\nk=v\n"},
      {"commented header", ";[s]\n", ";[s]\n[s]\nk=v\n"},
      {"Kept: the header joins a line without its line feed", "[a]\nk=1", "[a]\nk=1[s]\nk=v\n"},
      {"longer than a piece", X(20000), X(20000) + "[s]\nk=v\n"},
  };
  for (const auto &c : cases) {
    const IniFile file(c.before, 0600);
    const ino_t inode = InodeOf(file.path());
    EXPECT_EQ(WriteText(file.path(), std::nullopt), SM_STATUS_BAD_SIZE) << c.what;
    EXPECT_EQ(file.text(), c.before) << c.what;
    EXPECT_EQ(file.mode(), 0600u) << c.what;
    EXPECT_EQ(file.temporaryText(), kNoFile) << c.what;
    EXPECT_EQ(WriteText(file.path(), "v"), 0) << c.what;
    EXPECT_EQ(file.text(), c.after) << c.what;
    EXPECT_EQ(file.mode(), kMode) << c.what;
    EXPECT_EQ(InodeOf(file.path()), inode) << c.what << ": the same file";
    EXPECT_EQ(file.temporaryText(), kNoFile) << c.what;
  }
}

TEST(AppendValue, MakesTheFile) {
  const IniFile file;
  sandbox::WriteFile(file.temporaryPath(), "stale");
  EXPECT_EQ(WriteText(file.path(), std::nullopt), SM_STATUS_BAD_SIZE);
  EXPECT_EQ(file.text(), kNoFile);
  EXPECT_EQ(WriteText(file.path(), "v"), 0);
  EXPECT_EQ(file.text(), "[s]\nk=v\n");
  EXPECT_EQ(file.mode(), kMode);
  EXPECT_EQ(file.temporaryText(), "stale") << "there was nothing to rewrite";
}

TEST(AppendValue, NamesAreWrittenAsTheyAre) {
  const IniFile file;
  EXPECT_EQ(WriteText(file.path(), " v ", "a]%s", " %n=;"), 0);
  EXPECT_EQ(file.text(), "[a]%s]\n %n=;= v \n");
}

TEST(WriteINIFileValue, ModeDoesNotDependOnTheMask) {
  for (const mode_t mask : {0u, 022u, 027u, 077u, 0777u}) {
    const IniFile file;
    const mode_t saved = umask(mask);
    EXPECT_EQ(WriteText(file.path(), "1"), 0);
    EXPECT_EQ(file.mode(), kMode) << "made";
    EXPECT_EQ(chmod(file.path().c_str(), 0400), 0);
    EXPECT_EQ(WriteText(file.path(), "2"), 0);
    EXPECT_EQ(file.mode(), kMode) << "updated";
    EXPECT_EQ(chmod(file.path().c_str(), 0), 0);
    EXPECT_EQ(WriteText(file.path(), "3", "t"), 0);
    EXPECT_EQ(file.mode(), kMode) << "appended to";
    umask(saved);
    EXPECT_EQ(file.text(), "[s]\nk=2\n[t]\nk=3\n");
  }
}

TEST(WriteINIFileValue, OtherNameOfTheFileKeepsTheOldContentWithTheNewMode) {
  const IniFile file("[s]\nk=1\n");
  const std::string other = file.path() + ".other";
  ASSERT_EQ(link(file.path().c_str(), other.c_str()), 0);
  EXPECT_EQ(WriteText(file.path(), "2"), 0);
  EXPECT_EQ(file.text(), "[s]\nk=2\n");
  EXPECT_EQ(ContentOf(other), "[s]\nk=1\n");
  EXPECT_EQ(ModeOf(other), kMode) << "set before the old file was deleted";
}

TEST(WriteINIFileValue, LinkIsReplacedByAFile) {
  const IniFile file;
  const std::string target = file.path() + ".target";
  sandbox::WriteFile(target, "[s]\nk=1\n");
  ASSERT_EQ(symlink(target.c_str(), file.path().c_str()), 0);
  EXPECT_EQ(WriteText(file.path(), "2"), 0);
  EXPECT_EQ(file.text(), "[s]\nk=2\n");
  EXPECT_EQ(ContentOf(target), "[s]\nk=1\n");
}

// --- Writing: arguments, directories, failures ----------------------------------------------------------------------

TEST(WriteINIFileValue, ArgumentsAreCheckedBeforeAnythingIsTouched) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("sub/a.ini");
  const d64 value = 0;
  const u32 size = 8;
  for (u32 type = 1; type <= kLastType; ++type) {
    for (const void *const pValue : {static_cast<const void *>(&value), static_cast<const void *>(nullptr)}) {
      for (const u32 vSize : {0u, size, 0xFFFFFFFFu}) {
        EXPECT_EQ(KCSWriteINIPathFileValue(nullptr, "k", type, pValue, vSize, path.c_str(), 1),
                  SM_STATUS_BAD_PARAMETER);
        EXPECT_EQ(KCSWriteINIPathFileValue("s", nullptr, type, pValue, vSize, path.c_str(), 1),
                  SM_STATUS_BAD_PARAMETER);
        EXPECT_EQ(KCSWriteINIPathFileValue("s", "k", type, pValue, vSize, nullptr, 1), SM_STATUS_BAD_PARAMETER);
      }
    }
    for (const u32 vSize : {1u, 2u, 8u}) EXPECT_EQ(Write(path, {.type = type, .vSize = vSize}), SM_STATUS_BAD_SIZE);
  }
  EXPECT_EQ(access(directory.Path("sub").c_str(), F_OK), -1);
}

TEST(WriteINIFileValue, SizesMustFitTheType) {
  const struct {
    u32 type;
    std::string bytes;
    u32 vSize;
    bool isGood;
  } cases[] = {
      {ZEBCS_INI_ASTRING, "abc\0"s, 4, true},
      {ZEBCS_INI_ASTRING, "abc\0"s, 3, false},
      {ZEBCS_INI_ASTRING, "abc\0"s, 5, false},
      {ZEBCS_INI_ASTRING, "abc\0"s, 0, false},
      {ZEBCS_INI_ASTRING, "\0"s, 1, true},
      {ZEBCS_INI_ASTRING, X(8192) + '\0', 8193, true},
      {ZEBCS_INI_ASTRING, X(8193) + '\0', 8194, false},
      {ZEBCS_INI_ASTRING, X(8193) + '\0', 8193, false},
      {ZEBCS_INI_USTRING, WideBytes("ab"), 6, true},
      {ZEBCS_INI_USTRING, WideBytes("ab"), 5, false},
      {ZEBCS_INI_USTRING, WideBytes("ab"), 4, false},
      {ZEBCS_INI_USTRING, WideBytes("ab"), 7, false},
      {ZEBCS_INI_USTRING, WideBytes("ab"), 0, false},
      {ZEBCS_INI_USTRING, WideBytes(""), 2, true},
      {ZEBCS_INI_USTRING, WideBytes(X(818)), 1638, true},
      {ZEBCS_INI_USTRING, WideBytes(X(819)), 1640, false},
      {ZEBCS_INI_USTRING, WideBytes(X(1023)), 2048, false},
      {ZEBCS_INI_USTRING, WideBytes(X(1024)), 2050, false},
      {ZEBCS_INI_BINARY, "a", 1, true},
      {ZEBCS_INI_BINARY, "a", 0, false},
      {ZEBCS_INI_BINARY, X(1638), 1638, true},
      {ZEBCS_INI_BINARY, X(1639), 1639, false},
      {ZEBCS_INI_BINARY, X(2048), 2048, false},
      {ZEBCS_INI_BINARY, X(2049), 2049, false},
      {ZEBCS_INI_BOOLN, BytesOf(booln{1}), 1, false},
      {ZEBCS_INI_BOOLN, BytesOf(booln{1}), 0, false},
      {ZEBCS_INI_BOOLN, BytesOf(booln{1}), 2, true},
      {ZEBCS_INI_BOOLN, BytesOf(booln{1}), 9000, true},
      {ZEBCS_INI_U32, BytesOf(u32{1}), 3, false},
      {ZEBCS_INI_U32, BytesOf(u32{1}), 0, false},
      {ZEBCS_INI_U32, BytesOf(u32{1}), 4, true},
      {ZEBCS_INI_U32, BytesOf(u32{1}), 0xFFFFFFFF, true},
      {ZEBCS_INI_S32, BytesOf(s32{1}), 3, false},
      {ZEBCS_INI_S32, BytesOf(s32{1}), 0, false},
      {ZEBCS_INI_S32, BytesOf(s32{1}), 5, true},
      {ZEBCS_INI_U64, BytesOf(u64{1}), 7, false},
      {ZEBCS_INI_U64, BytesOf(u64{1}), 4, false},
      {ZEBCS_INI_U64, BytesOf(u64{1}), 8, true},
      {ZEBCS_INI_S64, BytesOf(s64{1}), 7, false},
      {ZEBCS_INI_S64, BytesOf(s64{1}), 0, false},
      {ZEBCS_INI_S64, BytesOf(s64{1}), 9, true},
      {ZEBCS_INI_D64, BytesOf(1.0), 7, false},
      {ZEBCS_INI_D64, BytesOf(1.0), 0, false},
      {ZEBCS_INI_D64, BytesOf(1.0), 8, true},
  };
  for (const auto &c : cases) {
    const IniFile file;
    EXPECT_EQ(Write(file.path(), {.type = c.type, .bytes = c.bytes, .vSize = c.vSize}),
              c.isGood ? SM_STATUS_SUCCESS : SM_STATUS_BAD_SIZE)
        << c.type << ' ' << c.vSize;
    EXPECT_EQ(file.text() != kNoFile, c.isGood) << c.type << ' ' << c.vSize;
  }
}

TEST(WriteINIFileValue, NamesHaveAtMost255Characters) {
  const IniFile file;
  const std::string longest = X(255);
  EXPECT_EQ(WriteText(file.path(), "v", longest + 'x', "k"), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(WriteText(file.path(), "v", "s", longest + 'x'), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(WriteText(file.path(), std::nullopt, "s", X(10000)), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(file.text(), kNoFile);
  EXPECT_EQ(WriteText(file.path(), "1", longest, longest), 0);
  EXPECT_EQ(WriteText(file.path(), "2", longest, longest), 0);
  EXPECT_EQ(file.text(), "[" + longest + "]\n" + longest + "=2\n");
  EXPECT_EQ(WriteText(file.path(), "3", "", ""), 0) << "and may be empty";
  EXPECT_EQ(file.text(), "[" + longest + "]\n" + longest + "=2\n[]\n=3\n");
}

TEST(WriteINIFileValue, ValuesBecomeText) {
  constexpr auto kInfinity = std::numeric_limits<d64>::infinity();
  const struct {
    u32 type;
    std::string bytes;
    std::string text;
  } cases[] = {
      {ZEBCS_INI_ASTRING, " a=b ; c \0"s, " a=b ; c "},
      {ZEBCS_INI_ASTRING, "\0"s, ""},
      {ZEBCS_INI_ASTRING, "%s%n\xC3\xA9\r\0"s, "%s%n\xC3\xA9\r"},
      {ZEBCS_INI_USTRING, WideBytes("A"), "0x41,0x00,0x00,0x00"},
      {ZEBCS_INI_USTRING, WideBytes(""), "0x00,0x00"},
      {ZEBCS_INI_USTRING, BytesOf(ustring{0x3042}) + BytesOf(ustring{0xFFFE}) + "\0\0"s,
       "0x42,0x30,0xFE,0xFF,0x00,0x00"},
      {ZEBCS_INI_BINARY, "\x01\xAB\xFF", "0x01,0xAB,0xFF"},
      {ZEBCS_INI_BINARY, "\0"s, "0x00"},
      {ZEBCS_INI_BOOLN, BytesOf(booln{1}), "TRUE"},
      {ZEBCS_INI_BOOLN, BytesOf(booln{0}), "FALSE"},
      {ZEBCS_INI_BOOLN, BytesOf(booln{2}), "FALSE"},
      {ZEBCS_INI_BOOLN, BytesOf(booln{-1}), "FALSE"},
      {ZEBCS_INI_BOOLN, BytesOf(booln{0x101}), "FALSE"},
      {ZEBCS_INI_U32, BytesOf(u32{0}), "0"},
      {ZEBCS_INI_U32, BytesOf(u32{0x80000000}), "2147483648"},
      {ZEBCS_INI_U32, BytesOf(u32{0xFFFFFFFF}), "4294967295"},
      {ZEBCS_INI_S32, BytesOf(s32{0}), "0"},
      {ZEBCS_INI_S32, BytesOf(s32{-1}), "-1"},
      {ZEBCS_INI_S32, BytesOf(std::numeric_limits<s32>::min()), "-2147483648"},
      {ZEBCS_INI_S32, BytesOf(std::numeric_limits<s32>::max()), "2147483647"},
      {ZEBCS_INI_U64, BytesOf(u64{0}), "0"},
      {ZEBCS_INI_U64, BytesOf(std::numeric_limits<u64>::max()), "18446744073709551615"},
      {ZEBCS_INI_S64, BytesOf(s64{0}), "0"},
      {ZEBCS_INI_S64, BytesOf(std::numeric_limits<s64>::min()), "-9223372036854775808"},
      {ZEBCS_INI_S64, BytesOf(std::numeric_limits<s64>::max()), "9223372036854775807"},
      {ZEBCS_INI_D64, BytesOf(0.0), "0.00000000"},
      {ZEBCS_INI_D64, BytesOf(-0.0), "-0.00000000"},
      {ZEBCS_INI_D64, BytesOf(1.5), "1.50000000"},
      {ZEBCS_INI_D64, BytesOf(-0.001953125), "-0.00195312"},
      {ZEBCS_INI_D64, BytesOf(0.005859375), "0.00585938"},
      {ZEBCS_INI_D64, BytesOf(0.000000004), "0.00000000"},
      {ZEBCS_INI_D64, BytesOf(0.000000006), "0.00000001"},
      {ZEBCS_INI_D64, BytesOf(1e15), "1000000000000000.00000000"},
      {ZEBCS_INI_D64, BytesOf(kInfinity), "inf"},
      {ZEBCS_INI_D64, BytesOf(-kInfinity), "-inf"},
      {ZEBCS_INI_D64, BytesOf(std::numeric_limits<d64>::quiet_NaN()), "nan"},
  };
  for (const auto &c : cases) {
    const IniFile file;
    EXPECT_EQ(Write(file.path(), {.type = c.type, .bytes = c.bytes}), 0);
    EXPECT_EQ(file.text(), "[s]\nk=" + c.text + "\n") << c.type;
  }
}

TEST(WriteINIFileValue, BinaryTextEndsWithoutItsComma) {
  const IniFile file;
  std::string bytes;
  std::string text;
  for (unsigned value = 0; value < 256; ++value) {
    char token[8];
    std::snprintf(token, sizeof token, "%s0x%02X", value == 0 ? "" : ",", value);
    bytes += static_cast<char>(value);
    text += token;
  }
  EXPECT_EQ(Write(file.path(), {.type = ZEBCS_INI_BINARY, .bytes = bytes}), 0);
  EXPECT_EQ(file.text(), "[s]\nk=" + text + "\n");
  EXPECT_EQ(Read(file.path(), {.type = ZEBCS_INI_BINARY, .size = 256}), (Outcome{0, 256, bytes}));
  EXPECT_EQ(Write(file.path(), {.type = ZEBCS_INI_BINARY, .bytes = X(1638)}), 0);
  EXPECT_EQ(file.text().size(), std::strlen("[s]\nk=\n") + 1638 * 5 - 1);
  EXPECT_EQ(Read(file.path(), {.type = ZEBCS_INI_BINARY, .size = 1638}), (Outcome{0, 1638, X(1638)}));
}

TEST(WriteINIFileValue, DoubleHasAtMost95Characters) {
  const struct {
    d64 value;
    size_t length;  // of the text
  } cases[] = {{1e85, 95}, {1e86, 96}, {-1e84, 95}, {-1e85, 96}, {std::numeric_limits<d64>::max(), 318}};
  for (const auto &c : cases) {
    const IniFile file("[s]\n");
    EXPECT_EQ(Write(file.path(), {.type = ZEBCS_INI_D64, .bytes = BytesOf(c.value)}),
              c.length <= 95 ? SM_STATUS_SUCCESS : SM_STATUS_BAD_SIZE)
        << c.value;
    EXPECT_EQ(file.text().size(), c.length <= 95 ? std::strlen("[s]\nk=\n") + c.length : 4) << c.value;
  }
}

TEST(WriteINIFileValue, NoValueRemovesTheKeyOfAnyType) {
  for (u32 type = 1; type <= kLastType; ++type) {
    const IniFile file("[s]\na=1\nk=1\nb=2\n");
    EXPECT_EQ(Write(file.path(), {.type = type}), 0) << type;
    EXPECT_EQ(file.text(), "[s]\na=1\nb=2\n") << type;
    EXPECT_EQ(Write(file.path(), {.type = type, .section = "t"}), SM_STATUS_BAD_SIZE) << type;
    EXPECT_EQ(file.text(), "[s]\na=1\nb=2\n") << type;
  }
}

TEST(WriteINIFileValue, WhatWasWrittenReadsBack) {
  const struct {
    u32 type;
    std::string bytes;
  } cases[] = {
      {ZEBCS_INI_ASTRING, "a text\0"s},
      {ZEBCS_INI_USTRING, WideBytes("a text")},
      {ZEBCS_INI_BINARY, "\0\1\xFF"s},
      {ZEBCS_INI_BOOLN, BytesOf(booln{1})},
      {ZEBCS_INI_BOOLN, BytesOf(booln{0})},
      {ZEBCS_INI_U32, BytesOf(u32{0xFFFFFFFF})},
      {ZEBCS_INI_S32, BytesOf(std::numeric_limits<s32>::min())},
      {ZEBCS_INI_U64, BytesOf(std::numeric_limits<u64>::max())},
      {ZEBCS_INI_S64, BytesOf(std::numeric_limits<s64>::min())},
      {ZEBCS_INI_D64, BytesOf(-1234.25)},
      {ZEBCS_INI_D64, BytesOf(std::numeric_limits<d64>::infinity())},
  };
  for (const auto &c : cases) {
    const IniFile file;
    const u32 size = static_cast<u32>(c.bytes.size());
    EXPECT_EQ(Write(file.path(), {.type = c.type, .bytes = c.bytes}), 0);
    EXPECT_EQ(Read(file.path(), {.type = c.type, .size = size}), (Outcome{0, size, c.bytes})) << c.type;
  }
}

TEST(WriteINIFileValue, DirectoryIsMadeOneLevelDeep) {
  const TemporaryDirectory directory;
  const mode_t saved = umask(077);
  EXPECT_EQ(WriteText(directory.Path("one/a.ini"), "v"), 0);
  EXPECT_EQ(WriteText(directory.Path("a/b/a.ini"), "v"), -1);
  EXPECT_EQ(WriteText(directory.Path("two//a.ini"), "v"), 0);
  umask(saved);
  EXPECT_EQ(ContentOf(directory.Path("one/a.ini")), "[s]\nk=v\n");
  EXPECT_EQ(ModeOf(directory.Path("one")), 0755u);
  EXPECT_EQ(ContentOf(directory.Path("two/a.ini")), "[s]\nk=v\n");
  EXPECT_EQ(access(directory.Path("a").c_str(), F_OK), -1);
  EXPECT_EQ(WriteText(directory.Path("three/a.ini"), std::nullopt), SM_STATUS_BAD_SIZE);
  EXPECT_EQ(access(directory.Path("three").c_str(), F_OK), 0) << "also where there is nothing to write";
}

TEST(WriteINIFileValue, DirectoryMayBeAFileAndThenNothingOpens) {
  const IniFile file("[s]\nk=1\n");
  EXPECT_EQ(WriteText(file.path() + "/b.ini", "v"), SM_STATUS_NOT_FOUND);
  EXPECT_EQ(file.text(), "[s]\nk=1\n");
  EXPECT_EQ(file.mode(), 0644u);
}

TEST(WriteINIFileValue, PathWithoutADirectoryUsesTheWorkingDirectory) {
  const IniFile file;
  const std::string saved = WorkingDirectory();
  ASSERT_EQ(chdir(file.directory().c_str()), 0);
  EXPECT_EQ(WriteText("a.ini", "1"), 0);
  EXPECT_EQ(WriteText("a.ini", "2"), 0);
  EXPECT_EQ(file.text(), "[s]\nk=2\n");
  EXPECT_EQ(Read("a.ini", {.size = 2}), (Outcome{0, 2, "2\0"s}));
  sandbox::WriteFile(file.path(), "[bad\n");
  EXPECT_EQ(WriteText("a.ini", "3"), SM_STATUS_PARSE_ERROR);
  EXPECT_EQ(file.temporaryText(), "[bad\n");
  EXPECT_EQ(WriteText("sub/a.ini", "4"), 0) << "relative, with a directory";
  EXPECT_EQ(ContentOf(file.directory() + "/sub/a.ini"), "[s]\nk=4\n");
  EXPECT_EQ(chdir(saved.c_str()), 0);
}

TEST(WriteINIFileValue, KeptFileUnderTheRootHasItsTemporaryFileInTheWorkingDirectory) {
  const TemporaryDirectory root;
  sandbox::MakeDirectories(root.Path("work"));
  sandbox::WriteFile(root.Path("work/kcsini64.tmp"), "stale");
  sandbox::WriteFile(root.Path("b.ini"), "[bad\n");
  InAnotherProcess([&root] {
    ASSERT_EQ(chroot(root.path().c_str()), 0);
    ASSERT_EQ(chdir("/work"), 0);
    EXPECT_EQ(WriteText("/a.ini", "1"), 0);
    EXPECT_EQ(WriteText("/b.ini", "1"), SM_STATUS_PARSE_ERROR);
  });
  EXPECT_EQ(ContentOf(root.Path("work/kcsini64.tmp")), "[bad\n");
  EXPECT_EQ(ContentOf(root.Path("kcsini64.tmp")), kNoFile);
  InAnotherProcess([&root] {
    ASSERT_EQ(chroot(root.path().c_str()), 0);
    ASSERT_EQ(chdir("/work"), 0);
    EXPECT_EQ(WriteText("/a.ini", "2"), 0);
  });
  EXPECT_EQ(ContentOf(root.Path("a.ini")), "[s]\nk=2\n");
  EXPECT_EQ(ContentOf(root.Path("work/kcsini64.tmp")), kNoFile);
}

TEST(WriteINIFileValue, NameOfTheTemporaryFileHasAtMost255Characters) {
  const TemporaryDirectory directory;
  const size_t longest = 255 - std::strlen("/kcsini64.tmp");
  const std::string good = directory.Path(X(longest - directory.path().size() - 1));
  ASSERT_EQ(good.size(), longest);
  EXPECT_EQ(WriteText(good + "/a.ini", "1"), 0);
  EXPECT_EQ(WriteText(good + "/a.ini", "2"), 0);
  EXPECT_EQ(ContentOf(good + "/a.ini"), "[s]\nk=2\n");
  EXPECT_EQ(WriteText(good + "x/a.ini", "1"), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(access((good + 'x').c_str(), F_OK), -1) << "nothing is made";
  EXPECT_EQ(WriteText(directory.path() + '/' + X(5000) + "/a.ini", "1"), SM_STATUS_BAD_PARAMETER);
  const std::string longName = directory.Path(X(255));
  EXPECT_EQ(WriteText(longName, "1"), 0) << "the file's own name does not count";
  EXPECT_EQ(WriteText(longName, "2"), 0);
  EXPECT_EQ(ContentOf(longName), "[s]\nk=2\n");
}

TEST(WriteINIFileValue, FilesThatCannotBeOpened) {
  const IniFile file("[s]\nk=1\n");
  sandbox::MakeDirectories(file.temporaryPath());
  for (const char *const section : {"s", "t"}) {
    EXPECT_EQ(WriteText(file.path(), "v", section), SM_STATUS_NOT_FOUND) << "no temporary file";
  }
  EXPECT_EQ(file.text(), "[s]\nk=1\n");
  EXPECT_EQ(file.mode(), 0644u);
  EXPECT_EQ(WriteText(file.directory() + '/' + X(256), "v"), SM_STATUS_NOT_FOUND) << "a name that is too long";
  EXPECT_EQ(WriteText(file.directory() + '/', "v"), SM_STATUS_NOT_FOUND) << "no name";
}

TEST(WriteINIFileValue, FileThatCannotBeReadIsAParseError) {
  const IniFile file;
  sandbox::MakeDirectories(file.path());
  EXPECT_EQ(WriteText(file.path(), "v"), SM_STATUS_PARSE_ERROR);
  EXPECT_EQ(file.temporaryText(), "");
}

TEST(WriteINIFileValue, FilesThatCannotBeWritten) {
  const std::string text = "[s]\nk=1\n" + X(20000);
  const IniFile large(text);
  const IniFile small("[s]\nk=1\n");
  const IniFile missing;
  s32 statuses[3] = {};
  InAnotherProcess([&] {
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = saved;
    limit.rlim_cur = 10;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    statuses[0] = WriteText(large.path(), "2");
    statuses[1] = WriteText(small.path(), "2", "t");
    statuses[2] = WriteText(missing.path(), "12345");
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
    EXPECT_EQ(statuses[0], SM_STATUS_WRITE_FAILED) << "the temporary file";
    EXPECT_EQ(statuses[1], SM_STATUS_WRITE_FAILED) << "the file that is appended to";
    EXPECT_EQ(statuses[2], SM_STATUS_WRITE_FAILED) << "the file that is made";
  });
  EXPECT_EQ(large.text(), text);
  EXPECT_EQ(large.mode(), 0644u);
  EXPECT_NE(large.temporaryText(), kNoFile);
  EXPECT_EQ(small.text(), "[s]\nk=1\n");
  EXPECT_EQ(small.temporaryText(), kNoFile);
}

// --- The lock -------------------------------------------------------------------------------------------------------

TEST(FileLock, HeldElsewhereIsATimeout) {
  const IniFile file("[s]\nk=1\n");
  Process holder;
  ASSERT_TRUE(holder.Start([](Channel &channel) {
    if (FileLock(0) != 1) return 1;
    channel.Put("held");
    channel.Get();
    FileUnlock();
    channel.Put("released");
    return channel.Get() == "end" ? 0 : 1;
  }));
  ASSERT_EQ(holder.Receive(), "held");
  for (const booln canBlock : {booln{0}, booln{2}, booln{-1}}) {
    EXPECT_EQ(Read(file.path(), {.size = 4, .defaultBytes = "d\0"s, .canBlock = canBlock}),
              (Outcome{SM_STATUS_LOCK_TIMEOUT, 4, Filled("", 4)}));
    EXPECT_EQ(Read(file.path(), {.type = ZEBCS_INI_BINARY, .size = 4, .defaultBytes = "de", .canBlock = canBlock}),
              (Outcome{SM_STATUS_LOCK_TIMEOUT, 2, Filled("de", 4)}));
    EXPECT_EQ(Read(file.path(), {.type = ZEBCS_INI_U32, .size = 9, .canBlock = canBlock}),
              (Outcome{SM_STATUS_LOCK_TIMEOUT, 0, Filled("", 4)}));
    EXPECT_EQ(Read(file.path(), {.type = ZEBCS_INI_U32, .size = 9, .defaultBytes = "1234", .canBlock = canBlock}),
              (Outcome{SM_STATUS_LOCK_TIMEOUT, 4, "1234"}));
    EXPECT_EQ(Write(file.path(), {.bytes = "2\0"s, .canBlock = canBlock}), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(Write(file.path(), {.bytes = "2\0"s, .vSize = 9, .canBlock = canBlock}), SM_STATUS_BAD_SIZE);
  }
  EXPECT_EQ(Write(file.directory() + "/sub/a.ini", {.bytes = "2\0"s, .canBlock = 0}), SM_STATUS_LOCK_TIMEOUT);
  EXPECT_EQ(access((file.directory() + "/sub").c_str(), F_OK), 0) << "the directory comes before the lock";
  EXPECT_EQ(file.text(), "[s]\nk=1\n");
  EXPECT_EQ(file.temporaryText(), kNoFile);
  EXPECT_EQ(CreateDir((file.directory() + "/other").c_str()), 0) << "the helpers take no lock";
  holder.Send("release");
  ASSERT_EQ(holder.Receive(), "released");
  EXPECT_EQ(Write(file.path(), {.bytes = "2\0"s, .canBlock = 0}), 0);
  EXPECT_EQ(Read(file.path(), {.size = 2, .canBlock = 0}), (Outcome{0, 2, "2\0"s}));
  holder.Send("end");
  EXPECT_EQ(holder.Wait(), 0);
}

TEST(FileLock, IsReleasedOnEveryWayOut) {
  const IniFile file("[s]\nk=1\n");
  const IniFile malformed("[bad\n");
  const IniFile missing;
  Process other;
  ASSERT_TRUE(other.Start([](Channel &channel) {
    while (channel.Get() == "try") {
      const bool isFree = FileLock(0) == 1;
      if (isFree) FileUnlock();
      channel.Put(isFree ? "free" : "held");
    }
    return 0;
  }));
  const std::function<s32()> calls[] = {
      [&] { return Read(file.path(), {}).status; },
      [&] { return Read(file.path(), {.section = std::nullopt}).status; },
      [&] { return Read(file.path(), {.key = std::nullopt, .size = 1}).status; },
      [&] { return Read(file.path(), {.size = 1}).status; },
      [&] { return Read(file.path(), {.type = ZEBCS_INI_S64, .size = 8}).status; },
      [&] { return Read(missing.path(), {}).status; },
      [&] { return Read(malformed.path(), {}).status; },
      [&] { return WriteText(file.path(), "2"); },
      [&] { return WriteText(file.path(), "2", "t"); },
      [&] { return WriteText(missing.path(), std::nullopt); },
      [&] { return WriteText(malformed.path(), "2"); },
      [&] { return WriteText(file.path() + "/b.ini", "2"); },
      [&] { return WriteText(missing.path(), "2"); },
  };
  for (size_t i = 0; i < std::size(calls); ++i) {
    calls[i]();
    other.Send("try");
    EXPECT_EQ(other.Receive(), "free") << i;
  }
  other.Send("end");
  EXPECT_EQ(other.Wait(), 0);
}

// --- Entry points ---------------------------------------------------------------------------------------------------

namespace {

// Calls one typed function of each kind and compares it with the entry points that take a type code.
template <class T>
void ExpectSame(u32 type,
                s32 (*reader)(const astring *, const astring *, T *, u32 *, const T *, u32, const astring *, booln),
                s32 (*writer)(const astring *, const astring *, const T *, u32, const astring *, booln),
                const std::vector<T> &value, const std::vector<T> &defaultValue, const std::string &text) {
  const u32 vSize = static_cast<u32>(value.size() * sizeof(T));
  const u32 dSize = static_cast<u32>(defaultValue.size() * sizeof(T));
  const IniFile byType;
  const IniFile byName;
  const IniFile exported;
  EXPECT_EQ(writer("s", "k", value.data(), vSize, byName.path().c_str(), 1), 0);
  EXPECT_EQ(WriteINIPathFileValue("s", "k", type, value.data(), vSize, byType.path().c_str(), 1), 0);
  EXPECT_EQ(KCSWriteINIPathFileValue("s", "k", type, value.data(), vSize, exported.path().c_str(), 1), 0);
  for (const IniFile *const file : {&byType, &byName, &exported}) EXPECT_EQ(file->text(), "[s]\nk=" + text + "\n");
  const std::string path = byType.path();
  const struct {
    const char *key;
    s32 status;
    const std::vector<T> &expected;
  } cases[] = {{"k", 0, value}, {"none", SM_STATUS_KEY_NOT_FOUND, defaultValue}};
  for (const auto &c : cases) {
    const u32 size = static_cast<u32>(c.expected.size() * sizeof(T));
    for (int way = 0; way < 3; ++way) {
      std::vector<T> got(c.expected.size());
      u32 gotSize = size;
      const s32 status = way == 0
                             ? reader("s", c.key, got.data(), &gotSize, defaultValue.data(), dSize, path.c_str(), 1)
                         : way == 1 ? ReadINIPathFileValue("s", c.key, type, got.data(), &gotSize, defaultValue.data(),
                                                           dSize, path.c_str(), 1)
                                    : KCSReadINIPathFileValue("s", c.key, type, got.data(), &gotSize,
                                                              defaultValue.data(), dSize, path.c_str(), 1);
      EXPECT_EQ(status, c.status) << type << ' ' << way;
      EXPECT_EQ(gotSize, size) << type << ' ' << way;
      EXPECT_EQ(got, c.expected) << type << ' ' << way;
    }
  }
}

}  // namespace

TEST(ReadINIPathFileValue, TypesHaveTheirNumbers) {
  ExpectSame<astring>(1, ReadINIFileValue_astring, WriteINIFileValue_astring, {'a', 0}, {'b', 'c', 0}, "a");
  ExpectSame<ustring>(2, ReadINIFileValue_ustring, WriteINIFileValue_ustring, {'A', 0}, {'b', 'c', 0},
                      "0x41,0x00,0x00,0x00");
  ExpectSame<u8>(3, ReadINIFileValue_binary, WriteINIFileValue_binary, {1, 2}, {3}, "0x01,0x02");
  ExpectSame<booln>(4, ReadINIFileValue_booln, WriteINIFileValue_booln, {1}, {0}, "TRUE");
  ExpectSame<u32>(5, ReadINIFileValue_u32, WriteINIFileValue_u32, {4000000000}, {6}, "4000000000");
  ExpectSame<s32>(6, ReadINIFileValue_s32, WriteINIFileValue_s32, {-5}, {6}, "-5");
  ExpectSame<u64>(7, ReadINIFileValue_u64, WriteINIFileValue_u64, {18000000000000000000u}, {6}, "18000000000000000000");
  ExpectSame<s64>(8, ReadINIFileValue_s64, WriteINIFileValue_s64, {-5000000000}, {6}, "-5000000000");
  ExpectSame<d64>(9, ReadINIFileValue_d64, WriteINIFileValue_d64, {0.5}, {6.5}, "0.50000000");
}

// --- Helpers for files ----------------------------------------------------------------------------------------------

TEST(CreateDir, MakesOneDirectory) {
  s32 (*const functions[])(const astring *) = {CreateDir, KCSMkDir};
  for (const auto function : functions) {
    for (const mode_t mask : {0u, 022u, 077u, 0777u}) {
      const TemporaryDirectory directory;
      const std::string path = directory.Path("d");
      const mode_t saved = umask(mask);
      EXPECT_EQ(function(path.c_str()), 0);
      umask(saved);
      EXPECT_EQ(ModeOf(path), 0755u) << mask;
      EXPECT_EQ(chmod(path.c_str(), 0700), 0);
      EXPECT_EQ(function(path.c_str()), 0) << "it exists already";
      EXPECT_EQ(ModeOf(path), 0700u) << "and stays as it is";
      EXPECT_EQ(function(directory.Path("a/b").c_str()), -1) << "no parents";
      EXPECT_EQ(access(directory.Path("a").c_str(), F_OK), -1);
      sandbox::WriteFile(directory.Path("f"), "text", 0640);
      EXPECT_EQ(function(directory.Path("f").c_str()), 0) << "something accessible is there";
      EXPECT_EQ(ContentOf(directory.Path("f")), "text");
      EXPECT_EQ(ModeOf(directory.Path("f")), 0640u);
      EXPECT_EQ(function(directory.Path("f/d").c_str()), -1) << "below a file";
      EXPECT_EQ(function(directory.Path(X(256)).c_str()), -1) << "a name that is too long";
      EXPECT_EQ(function(""), -1);
    }
  }
}

TEST(DelDir, RemovesAnEmptyDirectory) {
  s32 (*const functions[])(const astring *) = {DelDir, KCSRmDir};
  for (const auto function : functions) {
    const TemporaryDirectory directory;
    const std::string path = directory.Path("d");
    sandbox::MakeDirectories(path);
    sandbox::WriteFile(path + "/f", "");
    EXPECT_EQ(function(path.c_str()), SM_STATUS_BAD_DATA) << "not empty";
    EXPECT_EQ(access((path + "/f").c_str(), F_OK), 0);
    EXPECT_EQ(function((path + "/f").c_str()), -1) << "a file";
    EXPECT_EQ(function((path + "/f/d").c_str()), -1) << "below a file";
    EXPECT_EQ(unlink((path + "/f").c_str()), 0);
    EXPECT_EQ(function(path.c_str()), 0);
    EXPECT_EQ(access(path.c_str(), F_OK), -1);
    EXPECT_EQ(function(path.c_str()), SM_STATUS_FAILED) << "absent";
  }
}

TEST(DelFile, SetsTheModeFirst) {
  s32 (*const functions[])(const astring *) = {DelFile, KCSDeleteFile};
  for (const auto function : functions) {
    const TemporaryDirectory directory;
    const std::string path = directory.Path("f");
    sandbox::WriteFile(path, "text", 0400);
    ASSERT_EQ(link(path.c_str(), directory.Path("other").c_str()), 0);
    EXPECT_EQ(function(path.c_str()), 0);
    EXPECT_EQ(ContentOf(path), kNoFile);
    EXPECT_EQ(ContentOf(directory.Path("other")), "text");
    EXPECT_EQ(ModeOf(directory.Path("other")), kMode);
    EXPECT_EQ(function(path.c_str()), -1) << "absent";
    ASSERT_EQ(symlink("nothing", path.c_str()), 0);
    EXPECT_EQ(function(path.c_str()), -1) << "no mode can be set";
    sandbox::MakeDirectories(directory.Path("d"));
    EXPECT_EQ(function(directory.Path("d").c_str()), -1) << "a directory";
    EXPECT_EQ(ModeOf(directory.Path("d")), kMode) << "which has the mode now";
  }
}

TEST(FileHelpers, NothingIsDoneToAPathThatIsMissing) {
  for (const auto function : {CreateDir, KCSMkDir, DelDir, KCSRmDir, DelFile, KCSDeleteFile}) {
    EXPECT_EQ(function(nullptr), -1);
  }
}

TEST(ReplaceFile, DeletesAndRenames) {
  const TemporaryDirectory directory;
  const std::string oldFile = directory.Path("old");
  const std::string newFile = directory.Path("new");
  const std::string other = directory.Path("other");
  for (const mode_t mask : {0u, 077u}) {
    const mode_t saved = umask(mask);
    sandbox::WriteFile(oldFile, "old", 0400);
    sandbox::WriteFile(newFile, "new", 0600);
    ASSERT_EQ(link(oldFile.c_str(), other.c_str()), 0);
    EXPECT_EQ(ReplaceFile(oldFile.c_str(), newFile.c_str()), 0);
    EXPECT_EQ(ContentOf(oldFile), "new");
    EXPECT_EQ(ModeOf(oldFile), kMode);
    EXPECT_EQ(ContentOf(newFile), kNoFile);
    EXPECT_EQ(ContentOf(other), "old");
    EXPECT_EQ(ModeOf(other), kMode) << "set before it was deleted";
    ASSERT_EQ(unlink(other.c_str()), 0);
    umask(saved);
  }
}

TEST(ReplaceFile, Fails) {
  const TemporaryDirectory directory;
  const std::string oldFile = directory.Path("old");
  const std::string newFile = directory.Path("new");
  sandbox::WriteFile(newFile, "new", 0600);
  EXPECT_EQ(ReplaceFile(oldFile.c_str(), newFile.c_str()), SM_STATUS_DELETE_FAILED) << "nothing to delete";
  EXPECT_EQ(ContentOf(newFile), "new");
  EXPECT_EQ(ModeOf(newFile), 0600u);
  EXPECT_EQ(ContentOf(oldFile), kNoFile);
  sandbox::MakeDirectories(oldFile);
  EXPECT_EQ(ReplaceFile(oldFile.c_str(), newFile.c_str()), SM_STATUS_DELETE_FAILED) << "a directory";
  EXPECT_EQ(ContentOf(newFile), "new");
  EXPECT_EQ(ReplaceFile(nullptr, newFile.c_str()), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(ReplaceFile(newFile.c_str(), nullptr), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(ModeOf(newFile), 0600u) << "it is not touched";
  EXPECT_EQ(ReplaceFile(newFile.c_str(), directory.Path("none").c_str()), SM_STATUS_RENAME_FAILED);
  EXPECT_EQ(ContentOf(newFile), kNoFile) << "it is gone by then";
}

TEST(GetStreamFileSize, KeepsThePosition) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("f");
  sandbox::WriteFile(path, "0123456789");
  FILE *const file = std::fopen(path.c_str(), "r+b");
  ASSERT_NE(file, nullptr);
  for (const long position : {0L, 3L, 10L, 25L}) {
    ASSERT_EQ(std::fseek(file, position, SEEK_SET), 0);
    EXPECT_EQ(GetStreamFileSize(file), 10);
    EXPECT_EQ(std::ftell(file), position);
  }
  std::rewind(file);
  EXPECT_EQ(std::fgetc(file), '0');
  EXPECT_EQ(GetStreamFileSize(file), 10);
  EXPECT_EQ(std::fgetc(file), '1');
  ASSERT_EQ(std::fseek(file, 0, SEEK_END), 0);
  EXPECT_GE(std::fputs("ab", file), 0);
  EXPECT_EQ(GetStreamFileSize(file), 12) << "what is not on disk yet counts";
  EXPECT_EQ(std::fclose(file), 0);
  EXPECT_EQ(ContentOf(path), "0123456789ab");
}

TEST(GetStreamFileSize, CannotBeToldWhereWhatWaitsCannotBeWritten) {
  FILE *const file = std::fopen("/dev/full", "w");
  ASSERT_NE(file, nullptr);
  EXPECT_GE(std::fputs("text", file), 0);
  EXPECT_EQ(GetStreamFileSize(file), -1);
  (void)std::fclose(file);  // fails as well
  EXPECT_EQ(GetStreamFileSize(nullptr), -1);
}

TEST(GetStreamFileSize, PipeHasNone) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  FILE *const file = fdopen(ends[0], "r");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(GetStreamFileSize(file), -1);
  EXPECT_EQ(std::fclose(file), 0);
  EXPECT_EQ(close(ends[1]), 0);
}

TEST(GetSizeOfFile, StoresTheSizeOrZero) {
  s32 (*const functions[])(const astring *, u32 *) = {GetSizeOfFile, KCSGetSizeOfFile};
  const struct {
    off_t size;
    s32 status;
    u32 stored;
  } cases[] = {
      {0, 0, 0},
      {1, 0, 1},
      {100000, 0, 100000},
      {0x7FFFFFFF, 0, 0x7FFFFFFF},
      {0x80000000, 0, 0x80000000},
      {0xFFFFFFFE, 0, 0xFFFFFFFE},
      {0xFFFFFFFF, -1, 0},
      {0x100000000, 0, 0},
      {0x100000005, 0, 5},
  };
  const TemporaryDirectory directory;
  const std::string path = directory.Path("f");
  for (const auto function : functions) {
    for (const auto &c : cases) {
      sandbox::WriteFile(path, "");
      ASSERT_EQ(truncate(path.c_str(), c.size), 0);
      u32 size = 77;
      EXPECT_EQ(function(path.c_str(), &size), c.status) << c.size;
      EXPECT_EQ(size, c.stored) << c.size;
    }
    u32 size = 77;
    EXPECT_EQ(function(directory.Path("none").c_str(), &size), -1);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(function(nullptr, &size), SM_STATUS_BAD_PARAMETER);
    EXPECT_EQ(function(path.c_str(), nullptr), SM_STATUS_BAD_PARAMETER);
  }
}

namespace {

struct TmpFile {
  s32 status;
  u32 size;
  std::string buffer;
};

TmpFile MakeTmpFile(const std::string &path, u32 room) {
  const GuardedBuffer buffer(room);
  u32 size = room;
  const s32 status = KCSGetTmpFile(path.c_str(), buffer.data<char>(), &size);
  return {status, size, std::string(buffer.data<char>(), room)};
}

// A new directory whose whole path has this length, by way of directories that are shorter.
std::string MakeDirectoryOfLength(const std::string &below, size_t length) {
  std::string path = below;
  while (path.size() + 100 < length) path += '/' + X(60);
  path += '/' + X(length - path.size() - 1);
  sandbox::MakeDirectories(path);
  return path;
}

}  // namespace

TEST(GetTmpFile, NamesAFileThatDoesNotExist) {
  const TemporaryDirectory directory;
  const std::string before = WorkingDirectory();
  std::string last;
  for (const u32 room : {20u, 21u, 30u, 255u, 256u, 1000u}) {
    const TmpFile got = MakeTmpFile(directory.path(), room);
    ASSERT_EQ(got.status, 0);
    const std::string name(got.buffer.c_str());
    EXPECT_EQ(got.size, name.size() + 1);
    EXPECT_LE(got.size, 20u);
    EXPECT_EQ(got.buffer, name + std::string(room - name.size(), '\0'));
    EXPECT_TRUE(name.starts_with("/tmp/")) << name;
    EXPECT_EQ(access(name.c_str(), F_OK), -1) << "the file is not made";
    EXPECT_NE(name, last);
    last = name;
    EXPECT_EQ(WorkingDirectory(), before);
  }
}

TEST(GetTmpFile, NeedsRoomFor20Bytes) {
  const TemporaryDirectory directory;
  for (const u32 room : {0u, 1u, 10u, 19u}) {
    for (const std::string &path : {directory.path(), directory.Path("none")}) {
      const TmpFile got = MakeTmpFile(path, room);
      EXPECT_EQ(got.status, SM_STATUS_BUFFER_TOO_SMALL) << room;
      EXPECT_EQ(got.size, 20u) << room;
      EXPECT_EQ(got.buffer, Filled("", room)) << room;
    }
  }
}

TEST(GetTmpFile, DirectoryMustBeOneThatCanBeEntered) {
  const TemporaryDirectory directory;
  sandbox::WriteFile(directory.Path("f"), "");
  const std::string before = WorkingDirectory();
  for (const std::string &path : {directory.Path("none"), directory.Path("f"), ""s}) {
    const TmpFile got = MakeTmpFile(path, 30);
    EXPECT_EQ(got.status, SM_STATUS_FAILED) << path;
    EXPECT_EQ(got.buffer, Filled("", 30)) << path;
    EXPECT_EQ(WorkingDirectory(), before);
  }
}

TEST(GetTmpFile, WorkingDirectoryMustHaveANameBelow256Bytes) {
  const TemporaryDirectory directory;
  const std::string before = WorkingDirectory();
  const std::string good = MakeDirectoryOfLength(directory.path(), 255);
  const std::string bad = MakeDirectoryOfLength(directory.path(), 256);
  ASSERT_EQ(chdir(good.c_str()), 0);
  EXPECT_EQ(MakeTmpFile(directory.path(), 30).status, 0);
  EXPECT_EQ(WorkingDirectory(), good);
  ASSERT_EQ(chdir(bad.c_str()), 0);
  EXPECT_EQ(MakeTmpFile(directory.path(), 30).status, SM_STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(WorkingDirectory(), bad);
  ASSERT_EQ(rmdir(bad.c_str()), 0);
  EXPECT_EQ(MakeTmpFile(directory.path(), 30).status, SM_STATUS_BUFFER_TOO_SMALL) << "one that is gone has none";
  EXPECT_EQ(chdir(before.c_str()), 0);
}

TEST(GetTmpFile, WayBackMayBeClosed) {
  const TemporaryDirectory directory;
  sandbox::MakeDirectories(directory.Path("closed"));
  InAnotherProcess([&directory] {
    ASSERT_EQ(chdir(directory.Path("closed").c_str()), 0);
    ASSERT_EQ(chmod(directory.Path("closed").c_str(), 0), 0);
    ASSERT_TRUE(DropFileOverride());
    const TmpFile got = MakeTmpFile(directory.path(), 30);
    EXPECT_EQ(got.status, 9);
    EXPECT_EQ(got.size, std::strlen(got.buffer.c_str()) + 1) << "the name is there by then";
    EXPECT_EQ(WorkingDirectory(), directory.path());
  });
}

TEST(GetTmpFile, FailsWhereThereIsNoDirectoryForTemporaryFiles) {
  const struct {
    const char *what;
    std::function<void(const std::string &)> prepare;
  } cases[] = {
      {"none", [](const std::string &) {}},
      {"a file", [](const std::string &path) { EXPECT_TRUE(sandbox::WriteFile(path, "text")); }},
      {"one that cannot be entered", [](const std::string &path) { EXPECT_EQ(mkdir(path.c_str(), 0), 0); }},
  };
  for (const auto &c : cases) {
    const TemporaryDirectory root;
    sandbox::MakeDirectories(root.Path("work"));
    c.prepare(root.Path("tmp"));
    InAnotherProcess([&] {
      const int before = open("/", O_PATH | O_CLOEXEC);
      ASSERT_EQ(chroot(root.path().c_str()), 0);
      ASSERT_EQ(chdir("/work"), 0);
      ASSERT_TRUE(DropFileOverride());
      const TmpFile got = MakeTmpFile("/", 30);
      EXPECT_EQ(got.status, SM_STATUS_RENAME_FAILED) << c.what;
      EXPECT_EQ(got.buffer, Filled("", 30)) << c.what;
      EXPECT_EQ(WorkingDirectory(), "/work");
      EXPECT_EQ(fchdir(before), 0);  // where what this process has covered can be written
      EXPECT_EQ(chroot("."), 0);
    });
  }
}

TEST(GetTmpFile, ArgumentsMustBeThere) {
  astring name[20];
  u32 size = sizeof name;
  EXPECT_EQ(GetTmpFile(nullptr, name, &size), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(GetTmpFile("/", nullptr, &size), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(GetTmpFile("/", name, nullptr), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(size, sizeof name);
  EXPECT_EQ(GetTmpFile("/", name, &size), 0);
}

// --- Arguments of the inner functions -------------------------------------------------------------------------------

TEST(FileHelpers, NullIsRefusedAndTouchesNothing) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("file");
  ASSERT_TRUE(sandbox::WriteFile(path, "text", 0600));
  EXPECT_EQ(ReplaceFile(nullptr, path.c_str()), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(ReplaceFile(path.c_str(), nullptr), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(CreateDir(nullptr), -1);
  EXPECT_EQ(DelDir(nullptr), -1);
  EXPECT_EQ(DelFile(nullptr), -1);
  EXPECT_EQ(GetStreamFileSize(nullptr), -1);
  EXPECT_EQ(sandbox::ReadFile(path), "text");
  EXPECT_EQ(ModeOf(path) & 07777, 0600u);
}

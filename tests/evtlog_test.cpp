// The XML event log: whole files after every append, backups, repair, damaged logs, and logs under adverse conditions.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "guarded_buffer.h"
#include "program.h"
#include "sandbox.h"
#include "shared_file.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"
#include "zebcs/logs.h"
#include "zebcs/net.h"

namespace {

using sandbox::Channel;
using sandbox::Files;
using sandbox::FilesIn;
using sandbox::FillDisk;
using sandbox::GuardedBuffer;
using sandbox::kPage;
using sandbox::LockHolder;
using sandbox::LockIsFree;
using sandbox::Mount;
using sandbox::Process;
using sandbox::TemporaryDirectory;
using std::string_view;

bool l_skipsPauses = false;

}  // namespace

// In place of the C library's: a minute of waiting for the file lock is as many attempts, but takes no minute.
extern "C" int nanosleep(const timespec *requested, timespec *remaining) {
  if (l_skipsPauses) return 0;
  const int error = clock_nanosleep(CLOCK_MONOTONIC, 0, requested, remaining);
  if (error == 0) return 0;
  errno = error;
  return -1;
}

// --- This program as a client that strace watches -------------------------------------------------------------------

namespace {

constexpr const char *kProbe = "as-probe";

void Mark() {
  if (write(STDERR_FILENO, "MARK\n", 5) != 5) std::abort();
}

// as-probe append PATH DESCRIPTION MAXSIZE | content PATH | size
__attribute__((constructor)) void ActAsProbe(int argc, char **argv) {
  if (argc < 3 || string_view(argv[1]) != kProbe) return;
  const string_view what = argv[2];
  if (what == "append" && argc == 6) {
    const u32 maxSize = static_cast<u32>(std::strtoul(argv[5], nullptr, 10));
    Mark();
    const s32 status = KCSAppendToXMLLog(argv[3], 1, 2, "user", "source", argv[4], nullptr, 0, maxSize);
    Mark();
    std::printf("%d\n", status);
  } else if (what == "content" && argc == 4) {
    Mark();
    astring *const text = KCSCmdGetXMLLogContent(argv[3], nullptr, nullptr);
    Mark();
    std::printf("%s\n", text == nullptr ? "(null)" : text);
    KCSFreeMem(text);
  } else if (what == "size") {
    u32 size = 12345;
    Mark();
    const s32 status = KCSGetCmdLogSize(&size);
    Mark();
    std::printf("%d %u\n", status, size);
  }
  std::fflush(nullptr);
  _exit(0);
}

std::vector<std::string> Probe(const std::vector<std::string> &arguments) {
  std::vector<std::string> words{std::filesystem::read_symlink("/proc/self/exe"), kProbe};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return words;
}

}  // namespace

// --- Logs as text ---------------------------------------------------------------------------------------------------

namespace {

const std::string kHeader = "<?xml-stylesheet type=\"text/xsl\" version=\"1.0\" encoding=\"UTF-8\"?>";
const std::string kBegin = "<EventLog>";
const std::string kEnd = "</EventLog>";
constexpr u32 kRoomy = 0x40000000;
constexpr mode_t kLogMode = S_IFREG | 01664;

// An entry by its contents. Texts are as they stand in the file.
struct Entry {
  unsigned type = 0;
  u32 id = 0;
  std::string user = {};
  std::string source = {};
  std::string description = {};
  std::string data = {};
  std::string host = "sandbox";
};

std::string Render(const Entry &entry, std::time_t stamp) {
  std::string dateTime = std::ctime(&stamp);
  dateTime.pop_back();
  return "<LogEntry><TimeStamp>" + std::to_string(stamp) + "</TimeStamp><DateTime>" + dateTime +
         "</DateTime><ComputerName>" + entry.host + "</ComputerName><Type>" + std::to_string(entry.type) +
         "</Type><ID>" + std::to_string(entry.id) + "</ID><UserInfo>" + entry.user + "</UserInfo><Source>" +
         entry.source + "</Source><Description>" + entry.description + "</Description><Data>" + entry.data +
         "</Data></LogEntry>";
}

std::string Document(const std::string &entries) { return kHeader + kBegin + entries + kEnd; }

// As long as any entry with these contents is in our days.
size_t SizeOf(const Entry &entry) { return Render(entry, std::time(nullptr)).size(); }

const std::time_t kStart = std::time(nullptr);

// The log that holds these entries, with the time stamps that the text has at their places. Stamps that are not of this
// run are a failure.
std::string DocumentLike(const std::string &text, const std::vector<Entry> &entries) {
  constexpr string_view kTag = "<LogEntry><TimeStamp>";
  std::string expected;
  size_t position = 0;
  std::time_t last = kStart;
  for (const Entry &entry : entries) {
    position = text.find(kTag, position);
    if (position == std::string::npos) return "an entry is missing";
    const std::time_t stamp = std::strtoll(text.c_str() + position + kTag.size(), nullptr, 10);
    EXPECT_GE(stamp, last);
    EXPECT_LE(stamp, std::time(nullptr));
    last = stamp;
    expected += Render(entry, stamp);
    position += kTag.size();
  }
  return Document(expected);
}

// Whether a text is a well-formed document of the kind that a log is: processing instructions, then one element.
// Elements have no attributes; references are the five that XML itself knows.
class Reader {
 public:
  explicit Reader(string_view text) : m_rest(text) {}

  bool IsWellFormed() {
    while (m_rest.starts_with("<?")) {
      const size_t end = m_rest.find("?>");
      if (end == string_view::npos) return false;
      m_rest.remove_prefix(end + 2);
    }
    return Element() && m_rest.empty();
  }

 private:
  bool Take(string_view what) {
    if (!m_rest.starts_with(what)) return false;
    m_rest.remove_prefix(what.size());
    return true;
  }

  bool Element() {
    if (!Take("<")) return false;
    const size_t length = m_rest.find('>');
    if (length == string_view::npos || length == 0) return false;
    const std::string name(m_rest.substr(0, length));
    for (const char c : name) {
      if (std::isalnum(static_cast<unsigned char>(c)) == 0) return false;
    }
    m_rest.remove_prefix(length + 1);
    while (!m_rest.starts_with("</")) {
      if (m_rest.empty()) return false;
      if (m_rest.front() == '<' ? !Element() : !Character()) return false;
    }
    return Take("</" + name + ">");
  }

  bool Character() {
    if (m_rest.front() == '&') {
      for (const char *reference : {"&lt;", "&gt;", "&amp;", "&quot;", "&apos;"}) {
        if (Take(reference)) return true;
      }
      return false;
    }
    const unsigned char c = static_cast<unsigned char>(m_rest.front());
    m_rest.remove_prefix(1);
    return c >= 0x20 || c == '\t' || c == '\n' || c == '\r';
  }

  string_view m_rest;
};

bool IsWellFormed(const std::string &text) { return Reader(text).IsWellFormed(); }

size_t Count(const std::string &text, const std::string &word) {
  size_t count = 0;
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++count;
  return count;
}

// The dump of data, written as plainly as can be.
std::string Dump(const std::string &data) {
  std::string dump;
  for (size_t start = 0; start < data.size(); start += 16) {
    char address[16];
    std::snprintf(address, sizeof address, "0x%08X: ", static_cast<unsigned>(start));
    dump += address;
    std::string letters(16, ' ');
    for (size_t i = 0; i < 16; ++i) {
      if (start + i >= data.size()) {
        dump += "   ";
        continue;
      }
      const unsigned char byte = static_cast<unsigned char>(data[start + i]);
      char digits[4];
      std::snprintf(digits, sizeof digits, "%02X", byte);
      const bool isColon = (i == 3 || i == 7 || i == 11) && start + i + 1 < data.size();
      dump += digits;
      dump += isColon ? ':' : ' ';
      letters[i] = byte >= 0x20 && byte <= 0x7A ? static_cast<char>(byte) : '.';
    }
    dump += "   " + letters + " \r\n";
  }
  return dump;
}

mode_t ModeOf(const std::string &path) {
  struct stat info = {};
  return lstat(path.c_str(), &info) == 0 ? info.st_mode : 0;
}

bool Exists(const std::string &path) { return ModeOf(path) != 0; }

// A log in a directory of its own.
class Log {
 public:
  explicit Log(const std::string &name = "a.xml")
      : m_path(m_directory.Path(name)), m_backup(m_path.substr(0, m_path.size() - 1) + '_') {}

  const std::string &path() const { return m_path; }
  const char *name() const { return m_path.c_str(); }
  const std::string &backup() const { return m_backup; }
  const std::string &directory() const { return m_directory.path(); }

  s32 Append(const std::string &description, u32 maxSize = kRoomy) const {
    return AppendToXMLLog(name(), 1, 2, "user", "source", description.c_str(), nullptr, 0, maxSize);
  }
  s32 Append(const Entry &entry, u32 maxSize = kRoomy) const {
    return AppendToXMLLog(name(), static_cast<u16>(entry.type), entry.id, entry.user.c_str(), entry.source.c_str(),
                          entry.description.c_str(), nullptr, 0, maxSize);
  }

  std::string Text() const { return sandbox::ReadFile(m_path); }
  std::string BackupText() const { return sandbox::ReadFile(m_backup); }
  bool Write(const std::string &text) const { return sandbox::WriteFile(m_path, text); }

  // The log holds exactly these entries and nothing else.
  void Expect(const std::vector<Entry> &entries) const {
    const std::string text = Text();
    EXPECT_EQ(text, DocumentLike(text, entries));
    EXPECT_TRUE(IsWellFormed(text)) << text;
    EXPECT_EQ(ModeOf(m_path), kLogMode);
  }

 private:
  TemporaryDirectory m_directory;
  std::string m_path;
  std::string m_backup;
};

// As Log::Append makes them, and as the log makes its own.
Entry Plain(const std::string &description) {
  return {.type = 1, .id = 2, .user = "user", .source = "source", .description = description};
}
Entry Cleared(const std::string &user, const std::string &source) {
  return {.type = 4, .id = 0, .user = user, .source = source, .description = "Log was cleared"};
}
Entry BackedUp(const std::string &user, const std::string &source) {
  return {.type = 4, .id = 1, .user = user, .source = source, .description = "Log backup created"};
}

const char *TextOrNull(const std::optional<std::string> &text) { return text ? text->c_str() : nullptr; }

}  // namespace

// --- What an append writes ------------------------------------------------------------------------------------------

TEST(AppendToXMLLog, FirstOneMakesHeaderBeginTagEntryAndEndTag) {
  const Log log;
  const mode_t mask = umask(077);
  EXPECT_EQ(AppendToXMLLog(log.name(), 3, 7, "user", "source", "description", nullptr, 0, kRoomy), 0);
  umask(mask);
  const std::string text = log.Text();
  ASSERT_EQ(kHeader.size(), 65u);
  EXPECT_TRUE(
      text.starts_with("<?xml-stylesheet type=\"text/xsl\" version=\"1.0\" encoding=\"UTF-8\"?><EventLog><LogEntry>"
                       "<TimeStamp>"))
      << text;
  EXPECT_TRUE(
      text.ends_with("<ComputerName>sandbox</ComputerName><Type>3</Type><ID>7</ID><UserInfo>user</UserInfo>"
                     "<Source>source</Source><Description>description</Description><Data></Data></LogEntry>"
                     "</EventLog>"))
      << text;
  EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
  log.Expect({{.type = 3, .id = 7, .user = "user", .source = "source", .description = "description"}});
  EXPECT_EQ(FilesIn(log.directory()).size(), 1u);
}

TEST(AppendToXMLLog, EachFurtherOneGoesBeforeTheOnlyEndTag) {
  const Log log;
  std::vector<Entry> entries;
  for (int i = 0; i < 40; ++i) {
    entries.push_back(Plain("event " + std::to_string(i)));
    ASSERT_EQ(i % 2 == 0 ? log.Append(entries.back())
                         : KCSAppendToXMLLog(log.name(), 1, 2, "user", "source", entries.back().description.c_str(),
                                             nullptr, 0, kRoomy),
              0);
    log.Expect(entries);
    const std::string text = log.Text();
    ASSERT_EQ(Count(text, kEnd), 1u);
    ASSERT_EQ(text.find_first_of("\r\n"), std::string::npos);
  }
}

TEST(AppendToXMLLog, NumbersAreUnsignedDecimals) {
  const Log log;
  std::vector<Entry> entries;
  for (const u16 type : {u16{0}, u16{1}, u16{32768}, u16{65535}}) {
    for (const u32 id : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
      ASSERT_EQ(AppendToXMLLog(log.name(), type, id, "u", "s", "d", nullptr, 0, kRoomy), 0);
      entries.push_back({.type = type, .id = id, .user = "u", .source = "s", .description = "d"});
      log.Expect(entries);
    }
  }
}

TEST(AppendToXMLLog, UserAndSourceAreEscapedOnceAndTheDescriptionNever) {
  const struct {
    const char *what;
    std::optional<std::string> user;
    std::optional<std::string> source;
    std::optional<std::string> description;
    Entry expected;
  } cases[] = {
      {"nothing given", {}, {}, {}, {}},
      {"user only", "u", {}, {}, {.user = "u"}},
      {"source only", {}, "s", {}, {.source = "s"}},
      {"description only", {}, {}, "d", {.description = "d"}},
      {"all five",
       "\"'&<>",
       "<&>",
       "d",
       {.user = "&quot;&apos;&amp;&lt;&gt;", .source = "&lt;&amp;&gt;", .description = "d"}},
      {"escaped already",
       "&lt;",
       "&amp;lt;",
       "&lt;",
       {.user = "&amp;lt;", .source = "&amp;amp;lt;", .description = "&lt;"}},
      {"elements", "<b>", "</b>", "<b>x</b>", {.user = "&lt;b&gt;", .source = "&lt;/b&gt;", .description = "<b>x</b>"}},
      {"UTF-8",
       "\xC3\xA9<",
       "\xE2\x82\xAC",
       "\xF0\x9F\x98\x80",
       {.user = "\xC3\xA9&lt;", .source = "\xE2\x82\xAC", .description = "\xF0\x9F\x98\x80"}},
      {"blanks and line ends", " ", "\t", "\r\n", {.user = " ", .source = "\t", .description = "\r\n"}},
      {"what looks like a format", "%s%n", "%d", "%100u", {.user = "%s%n", .source = "%d", .description = "%100u"}},
  };
  const Log log;
  std::vector<Entry> entries;
  for (const auto &c : cases) {
    ASSERT_EQ(AppendToXMLLog(log.name(), 0, 0, TextOrNull(c.user), TextOrNull(c.source), TextOrNull(c.description),
                             nullptr, 0, kRoomy),
              0)
        << c.what;
    entries.push_back(c.expected);
    log.Expect(entries);
  }
}

TEST(AppendToXMLLog, KeptDescriptionIsWrittenUnescapedEvenWhereThatBreaksTheDocument) {
  const Log log;
  EXPECT_EQ(log.Append("a < b & c"), 0);
  const std::string text = log.Text();
  EXPECT_EQ(text, DocumentLike(text, {Plain("a < b & c")}));
  EXPECT_FALSE(IsWellFormed(text));
}

TEST(AppendToXMLLog, KeptTextsAreNotCheckedToBeUtf8) {
  const Log log;
  EXPECT_EQ(AppendToXMLLog(log.name(), 1, 2, "\xFF\x80<", "\xC3", "\x01\xFE", nullptr, 0, kRoomy), 0);
  const std::string text = log.Text();
  EXPECT_EQ(
      text,
      DocumentLike(text, {{.type = 1, .id = 2, .user = "\xFF\x80&lt;", .source = "\xC3", .description = "\x01\xFE"}}));
}

TEST(AppendToXMLLog, DataIsDumpedFromAddressZero) {
  const Log log;
  std::vector<Entry> entries;
  for (const size_t size : {1u, 3u, 4u, 5u, 15u, 16u, 17u, 32u, 33u, 255u, 256u, 257u}) {
    const GuardedBuffer data(size);
    std::string bytes;
    for (size_t i = 0; i < size; ++i) bytes.push_back("ABCDEFG \x7A\x7B~\xFF\x01"[(i * 7 + size) % 13]);
    std::memcpy(data.data<char>(), bytes.data(), size);
    ASSERT_EQ(
        AppendToXMLLog(log.name(), 1, 2, nullptr, nullptr, nullptr, data.data<void>(), static_cast<u32>(size), kRoomy),
        0);
    entries.push_back({.type = 1, .id = 2, .data = Dump(bytes)});
    log.Expect(entries);
  }
}

TEST(AppendToXMLLog, KeptDataIsNotEscaped) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
  bytes += "</EventLog>";
  const Log log;
  EXPECT_EQ(AppendToXMLLog(log.name(), 1, 2, "u", "s", "d", bytes.data(), static_cast<u32>(bytes.size()), kRoomy), 0);
  const Entry first{.type = 1, .id = 2, .user = "u", .source = "s", .description = "d", .data = Dump(bytes)};
  EXPECT_EQ(log.Text(), DocumentLike(log.Text(), {first}));
  // What looks like an end tag before the end is not taken for it.
  EXPECT_EQ(log.Append("next"), 0);
  EXPECT_EQ(log.Text(), DocumentLike(log.Text(), {first, Plain("next")}));
}

TEST(AppendToXMLLog, DataWithoutSizeIsNotLookedAt) {
  const GuardedBuffer none(0);
  const Log log;
  EXPECT_EQ(AppendToXMLLog(log.name(), 1, 2, "user", "source", "d", none.data<void>(), 0, kRoomy), 0);
  log.Expect({Plain("d")});
}

TEST(AppendToXMLLog, LimitsOfItsArguments) {
  const std::string longest(1023, '"');
  const std::string longestDescription(16383, 'd');
  const std::string data(32769, '\x02');
  std::string escaped;
  for (size_t i = 0; i < longest.size(); ++i) escaped += "&quot;";
  const struct {
    const char *what;
    std::string user;
    std::string source;
    std::string description;
    u32 dataSize;
    bool isTaken;
  } cases[] = {
      {"empty user", "", "s", "d", 0, false},
      {"empty source", "u", "", "d", 0, false},
      {"empty description", "u", "s", "", 0, false},
      {"shortest", "u", "s", "d", 1, true},
      {"longest user", longest, "s", "d", 0, true},
      {"longer user", longest + '"', "s", "d", 0, false},
      {"longest source", "u", longest, "d", 0, true},
      {"longer source", "u", longest + '"', "d", 0, false},
      {"longest description", "u", "s", longestDescription, 0, true},
      {"longer description", "u", "s", longestDescription + 'd', 0, false},
      {"most data", "u", "s", "d", 32768, true},
      {"more data", "u", "s", "d", 32769, false},
      {"far too much of all", longest + longest, longest + longest, longestDescription + longest, 0xFFFFFFFF, false},
      {"most of all", longest, longest, longestDescription, 32768, true},
  };
  const Log log("new/a.xml");
  std::vector<Entry> entries;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    // Texts end where memory does.
    const GuardedBuffer user(c.user.size() + 1);
    const GuardedBuffer source(c.source.size() + 1);
    const GuardedBuffer description(c.description.size() + 1);
    const size_t dataSize = std::min<size_t>(c.dataSize, data.size());
    const GuardedBuffer dataBuffer(dataSize);
    std::strcpy(user.data<char>(), c.user.c_str());
    std::strcpy(source.data<char>(), c.source.c_str());
    std::strcpy(description.data<char>(), c.description.c_str());
    std::memcpy(dataBuffer.data<char>(), data.data(), dataSize);
    ASSERT_EQ(AppendToXMLLog(log.name(), 1, 2, user.data<char>(), source.data<char>(), description.data<char>(),
                             dataBuffer.data<void>(), c.dataSize, kRoomy),
              c.isTaken ? 0 : SM_STATUS_BAD_PARAMETER);
    if (c.isTaken) {
      entries.push_back({.type = 1,
                         .id = 2,
                         .user = c.user == longest ? escaped : c.user,
                         .source = c.source == longest ? escaped : c.source,
                         .description = c.description,
                         .data = Dump(data.substr(0, dataSize))});
      const std::string text = log.Text();
      ASSERT_TRUE(text == DocumentLike(text, entries));
      ASSERT_TRUE(IsWellFormed(text));
    } else if (entries.empty()) {
      ASSERT_FALSE(Exists(log.directory() + "/new")) << "nothing is made for arguments that are refused";
    } else {
      const std::string text = log.Text();
      ASSERT_TRUE(text == DocumentLike(text, entries));
    }
  }
}

TEST(AppendToXMLLog, MissingPathAndMissingDataAreRefused) {
  const Log log;
  EXPECT_EQ(AppendToXMLLog(nullptr, 1, 2, "u", "s", "d", nullptr, 0, kRoomy), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(AppendToXMLLog(log.name(), 1, 2, "u", "s", "d", nullptr, 1, kRoomy), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSAppendToXMLLog(log.name(), 1, 2, "u", "s", "d", nullptr, 32768, kRoomy), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(KCSAppendToXMLLog(log.name(), 1, 2, "u", "s", "d", nullptr, 32769, kRoomy), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(FilesIn(log.directory()), Files());
}

TEST(AppendToXMLLog, HostNameIsTheMachinesAtThatTime) {
  const Log log;
  const std::string longest(64, 'h');  // that the kernel takes
  std::vector<Entry> entries;
  for (const std::string &host : {std::string("sandbox"), std::string("h"), longest}) {
    ASSERT_TRUE(sandbox::SetHostName(host));
    ASSERT_EQ(log.Append("d"), 0);
    entries.push_back(Plain("d"));
    entries.back().host = host;
    log.Expect(entries);
  }
}

TEST(AppendToXMLLog, DateIsLocalTime) {
  ASSERT_EQ(setenv("TZ", "XYZ-13:45", 1), 0);
  tzset();
  const Log log;
  ASSERT_EQ(log.Append("d"), 0);
  const std::string text = log.Text();
  const size_t at = text.find("<TimeStamp>") + 11;
  const std::time_t stamp = std::strtoll(text.c_str() + at, nullptr, 10);
  const std::time_t shifted = stamp + (13 * 60 + 45) * 60;
  std::tm parts = {};
  gmtime_r(&shifted, &parts);
  char date[64];
  std::strftime(date, sizeof date, "<DateTime>%a %b %e %H:%M:%S %Y</DateTime>", &parts);
  EXPECT_NE(text.find(date), std::string::npos) << text << '\n' << date;
}

TEST(AppendToXMLLog, SetsTheModeOfALogThatIsThere) {
  for (const mode_t mode : {0600u, 0444u, 0777u, 04000u}) {
    const Log log;
    ASSERT_EQ(log.Append("1"), 0);
    ASSERT_EQ(chmod(log.name(), mode), 0);
    ASSERT_EQ(log.Append("2"), 0);
    log.Expect({Plain("1"), Plain("2")});
  }
}

TEST(AppendToXMLLog, WithoutTheHostNameNothingIsWritten) {
  const Log log("new/a.xml");
  ASSERT_TRUE(sandbox::RemoveTree(sandbox::kLockDirectory));  // so that a new process cannot attach
  const ProgramResult result = RunProgram(Probe({"append", log.path(), "d", "1000"}));
  EXPECT_EQ(result.output, std::to_string(SM_STATUS_NOT_LOADED) + "\n") << result.errors;
  EXPECT_EQ(FilesIn(log.directory() + "/new"), Files()) << "the directory is made first";
}

// --- The directory --------------------------------------------------------------------------------------------------

TEST(CreateLogDir, MakesOneLevel) {
  const TemporaryDirectory directory;
  const mode_t mask = umask(077);
  EXPECT_EQ(CreateLogDir(directory.Path("new/a.xml").c_str()), 0);
  umask(mask);
  EXPECT_EQ(ModeOf(directory.Path("new")), static_cast<mode_t>(S_IFDIR | 0755));
  EXPECT_EQ(FilesIn(directory.Path("new")), Files());
  EXPECT_EQ(CreateLogDir(directory.Path("new/a.xml").c_str()), 0) << "it is there already";
  EXPECT_EQ(CreateLogDir(directory.Path("one/two/a.xml").c_str()), -1);
  EXPECT_FALSE(Exists(directory.Path("one")));
  EXPECT_EQ(CreateLogDir("a.xml"), 0);
  EXPECT_EQ(CreateLogDir("/a.xml"), 0) << "directly under the root directory";
  EXPECT_FALSE(Exists("/a.xml"));
  EXPECT_EQ(CreateLogDir(directory.Path("tail/").c_str()), 0);
  EXPECT_EQ(ModeOf(directory.Path("tail")), static_cast<mode_t>(S_IFDIR | 0755));
}

TEST(CreateLogDir, PathThatIsMissingHasNoneToMake) { EXPECT_EQ(CreateLogDir(nullptr), 0); }

TEST(AppendToXMLLog, MakesTheDirectoryOneLevelDeep) {
  const Log log("new/a.xml");
  EXPECT_EQ(log.Append("d"), 0);
  log.Expect({Plain("d")});
  const Log deep("one/two/a.xml");
  EXPECT_EQ(deep.Append("d"), -1);
  EXPECT_EQ(FilesIn(deep.directory()), Files());
}

TEST(AppendToXMLLog, PathWithoutDirectoryIsInTheCurrentOne) {
  const Log log("b.xml");
  ASSERT_EQ(chdir(log.directory().c_str()), 0);
  EXPECT_EQ(AppendToXMLLog("b.xml", 1, 2, "user", "source", "d", nullptr, 0, kRoomy), 0);
  log.Expect({Plain("d")});
  const size_t size = log.Text().size();
  EXPECT_EQ(AppendToXMLLog("b.xml", 1, 2, "user", "source", "d", nullptr, 0, static_cast<u32>(size)), 0);
  log.Expect({BackedUp("user", "source"), Plain("d")});
  EXPECT_TRUE(Exists(log.backup()));
  ASSERT_EQ(chdir("/"), 0);
}

TEST(AppendToXMLLog, FileInPlaceOfTheDirectoryIsAFailure) {
  const Log log("file/a.xml");
  ASSERT_TRUE(sandbox::WriteFile(log.directory() + "/file", "text"));
  EXPECT_EQ(log.Append("d"), -1);
  EXPECT_EQ(FilesIn(log.directory()), (Files{{"file", "text"}}));
}

// --- Backup ---------------------------------------------------------------------------------------------------------

TEST(Backup, IsMadeExactlyWhereTheLogWouldReachItsMaximum) {
  for (const int below : {-100, -1, 0, 1, 2, 1000}) {
    SCOPED_TRACE(below);
    const Log log;
    ASSERT_EQ(log.Append("first"), 0);
    const std::string old = log.Text();
    const size_t reached = old.size() + SizeOf(Plain("second entry"));
    ASSERT_EQ(log.Append("second entry", static_cast<u32>(static_cast<int>(reached) + below)), 0);
    if (below <= 0) {
      log.Expect({BackedUp("user", "source"), Plain("second entry")});
      EXPECT_EQ(log.BackupText(), old);
      EXPECT_EQ(ModeOf(log.backup()), kLogMode);
      EXPECT_EQ(FilesIn(log.directory()).size(), 2u);
    } else {
      log.Expect({Plain("first"), Plain("second entry")});
      EXPECT_FALSE(Exists(log.backup()));
    }
  }
}

TEST(Backup, ManyEventsCrossTheLimitWhereTheSizeSays) {
  const Log log;
  const u32 maxSize = 3000;
  size_t backups = 0;
  for (int i = 0; i < 60; ++i) {
    const std::string description(static_cast<size_t>(1 + i * 37 % 300), 'x');
    const std::string before = i == 0 ? "" : log.Text();
    ASSERT_EQ(log.Append(description, maxSize), 0);
    const std::string after = log.Text();
    ASSERT_TRUE(IsWellFormed(after));
    if (i > 0 && before.size() + SizeOf(Plain(description)) >= maxSize) {
      ++backups;
      ASSERT_EQ(log.BackupText(), before);
      log.Expect({BackedUp("user", "source"), Plain(description)});
    } else if (i > 0) {
      ASSERT_TRUE(after.starts_with(before.substr(0, before.size() - kEnd.size())));
      ASSERT_EQ(after.size(), before.size() + SizeOf(Plain(description)));
    }
  }
  EXPECT_GT(backups, 3u);
}

TEST(Backup, EntryAboutItHasTheUserAndTheSourceOfTheEvent) {
  const Log log;
  ASSERT_EQ(log.Append("first"), 0);
  ASSERT_EQ(AppendToXMLLog(log.name(), 9, 10, "<me>", nullptr, nullptr, "x", 1, 1), 0);
  log.Expect({BackedUp("&lt;me&gt;", ""), {.type = 9, .id = 10, .user = "&lt;me&gt;", .data = Dump("x")}});
  ASSERT_EQ(AppendToXMLLog(log.name(), 9, 10, nullptr, "here", nullptr, nullptr, 0, 1), 0);
  log.Expect({BackedUp("", "here"), {.type = 9, .id = 10, .source = "here"}});
}

TEST(Backup, EachReplacesTheOneBefore) {
  const Log log;
  ASSERT_EQ(log.Append("0"), 0);
  for (int i = 1; i < 5; ++i) {
    const std::string before = log.Text();
    ASSERT_EQ(log.Append(std::to_string(i), 0), 0) << "a maximum of 0 is always reached";
    EXPECT_EQ(log.BackupText(), before);
    log.Expect({BackedUp("user", "source"), Plain(std::to_string(i))});
    ASSERT_EQ(chmod(log.backup().c_str(), i % 2 == 0 ? 0 : 0444), 0);
  }
  EXPECT_EQ(FilesIn(log.directory()).size(), 2u);
}

TEST(Backup, MissingLogIsNotBackedUpAndAnEmptyOneIs) {
  const Log log;
  ASSERT_EQ(log.Append("first", 0), 0);
  log.Expect({Plain("first")});
  EXPECT_FALSE(Exists(log.backup()));
  const Log empty;
  ASSERT_TRUE(empty.Write(""));
  ASSERT_EQ(empty.Append("first", 1), 0);
  empty.Expect({BackedUp("user", "source"), Plain("first")});
  EXPECT_EQ(FilesIn(empty.directory()).at("a.xm_"), "");
}

TEST(Backup, DamagedLogIsMovedAsideToo) {
  const Log log;
  const std::string damaged = kHeader + kBegin + "<LogEntry>";
  ASSERT_TRUE(log.Write(damaged));
  EXPECT_EQ(log.Append("first", static_cast<u32>(damaged.size() + SizeOf(Plain("first")) + 1)), SM_STATUS_BAD_DATA);
  EXPECT_EQ(log.Append("first", static_cast<u32>(damaged.size() + SizeOf(Plain("first")))), 0);
  log.Expect({BackedUp("user", "source"), Plain("first")});
  EXPECT_EQ(log.BackupText(), damaged);
}

TEST(Backup, LargestEntryStaysBelowTheMaximumOfTheEntryAboutTheBackup) {
  const Log log;
  const std::string text(1023, '"');
  const std::string description(16383, 'd');
  const std::string data(32768, '\0');
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(AppendToXMLLog(log.name(), 65535, 0xFFFFFFFF, text.c_str(), text.c_str(), description.c_str(),
                             data.data(), 32768, 1),
              0);
    const std::string now = log.Text();
    EXPECT_EQ(Count(now, "<LogEntry>"), i == 0 ? 1u : 2u);
    EXPECT_TRUE(IsWellFormed(now));
  }
}

TEST(Backup, OneThatFailsIsSkipped) {
  const Log log;
  ASSERT_TRUE(sandbox::MakeDirectories(log.backup() + "/full"));
  ASSERT_EQ(log.Append("1"), 0);
  ASSERT_EQ(log.Append("2", 1), 0);
  log.Expect({Plain("1"), Plain("2")});
  EXPECT_TRUE(Exists(log.backup() + "/full"));
  EXPECT_EQ(BackupLogFile(log.name()), -1);
  log.Expect({Plain("1"), Plain("2")});
  EXPECT_TRUE(LockIsFree());
}

TEST(Backup, PathThatIsTooLongForItIsLoggedToWithoutEnd) {
  const TemporaryDirectory directory;
  const std::string folder = directory.path() + '/' + std::string(120, 'd');
  ASSERT_TRUE(sandbox::MakeDirectories(folder));
  for (const size_t length : {255u, 256u}) {
    const std::string path = folder + '/' + std::string(length - folder.size() - 1, 'l');
    const std::string backup = path.substr(0, length - 1) + '_';
    for (int i = 0; i < 2; ++i) {
      ASSERT_EQ(AppendToXMLLog(path.c_str(), 1, 2, "user", "source", "d", nullptr, 0, 1), 0);
    }
    const std::string text = sandbox::ReadFile(path);
    if (length == 255) {
      EXPECT_EQ(text, DocumentLike(text, {BackedUp("user", "source"), Plain("d")}));
      EXPECT_TRUE(Exists(backup));
    } else {
      EXPECT_EQ(text, DocumentLike(text, {Plain("d"), Plain("d")}));
      EXPECT_FALSE(Exists(backup));
      EXPECT_EQ(BackupLogFile(path.c_str()), SM_STATUS_BUFFER_TOO_SMALL);
    }
  }
}

TEST(GetBackupXMLLogPathFileName, ReplacesTheLastCharacter) {
  for (const size_t length : {0u, 1u, 2u, 3u, 10u, 254u, 255u, 256u, 257u, 5000u}) {
    for (s32 (*get)(const astring *, astring *, u32 *) :
         {GetBackupXMLLogPathFileName, KCSGetBackupXMLLogPathFileName}) {
      SCOPED_TRACE(length);
      std::string path(length, 'p');
      if (length > 2) path[length - 2] = '/';
      const std::string copy = path;
      const GuardedBuffer backup(std::min<size_t>(length + 1, 256));
      const std::string untouched(backup.data<char>(), backup.size());
      u32 size = 77;
      const s32 status = get(path.c_str(), backup.data<char>(), &size);
      const std::string stored(backup.data<char>(), backup.size());
      EXPECT_EQ(path, copy);
      if (length < 2) {
        EXPECT_EQ(status, SM_STATUS_INVALID_INPUT);
        EXPECT_EQ(stored, untouched);
      } else {
        EXPECT_EQ(status, length > 255 ? SM_STATUS_BUFFER_TOO_SMALL : 0);
        EXPECT_EQ(size, length + 1);
        if (length <= 255) {
          path.back() = '_';
          EXPECT_EQ(stored, std::string(path.c_str(), length + 1));
        }
      }
    }
  }
}

TEST(GetBackupXMLLogPathFileName, RoomThatIsGivenDoesNotMatter) {
  astring backup[256];
  for (const u32 given : {0u, 1u, 0xFFFFFFFFu}) {
    u32 size = given;
    EXPECT_EQ(GetBackupXMLLogPathFileName("qxcmdlog.xml", backup, &size), 0);
    EXPECT_STREQ(backup, "qxcmdlog.xm_");
    EXPECT_EQ(size, 13u);
  }
}

TEST(GetBackupXMLLogPathFileName, NullIsRefused) {
  astring backup[256];
  u32 size = 256;
  EXPECT_EQ(GetBackupXMLLogPathFileName(nullptr, backup, &size), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(GetBackupXMLLogPathFileName("abc", nullptr, &size), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(GetBackupXMLLogPathFileName("abc", backup, nullptr), SM_STATUS_INVALID_INPUT);
}

TEST(BackupLogFile, MovesWhateverIsThere) {
  const Log log;
  EXPECT_EQ(BackupLogFile(log.name()), -1) << "there is none";
  EXPECT_EQ(FilesIn(log.directory()), Files());
  ASSERT_TRUE(sandbox::WriteFile(log.backup(), "an older one"));
  EXPECT_EQ(BackupLogFile(log.name()), -1);
  ASSERT_TRUE(sandbox::WriteFile(log.backup(), "an older one", 0400));
  ASSERT_TRUE(sandbox::WriteFile(log.path(), "no log at all", 0600));
  EXPECT_EQ(BackupLogFile(log.name()), 0);
  EXPECT_EQ(FilesIn(log.directory()), (Files{{"a.xm_", "no log at all"}}));
  EXPECT_EQ(ModeOf(log.backup()), kLogMode);
  EXPECT_EQ(BackupLogFile("a"), SM_STATUS_INVALID_INPUT);
  EXPECT_EQ(BackupLogFile(""), SM_STATUS_INVALID_INPUT);
  EXPECT_TRUE(LockIsFree());
}

TEST(BackupLogFile, KeptOldBackupIsDeletedBeforeTheLogIsFoundMissing) {
  const Log log;
  ASSERT_TRUE(sandbox::WriteFile(log.backup(), "an older one"));
  EXPECT_EQ(BackupLogFile(log.name()), -1);
  EXPECT_EQ(FilesIn(log.directory()), Files());
}

TEST(CheckBackupLogFile, BacksUpFromTheMaximumOn) {
  const struct {
    const char *what;
    size_t size;
    u32 maxSize;
    u32 entrySize;
    bool isMoved;
  } cases[] = {
      {"one below", 100, 131, 30, false},
      {"just reached", 100, 130, 30, true},
      {"above", 100, 129, 30, true},
      {"no entry, one below", 100, 101, 0, false},
      {"no entry, reached", 100, 100, 0, true},
      {"empty log and no maximum", 0, 0, 0, true},
      {"empty log, one below", 0, 1, 0, false},
      {"highest maximum", 100, 0xFFFFFFFF, 0x7FFFFFFF, false},
  };
  for (const auto &c : cases) {
    const Log log;
    ASSERT_TRUE(log.Write(std::string(c.size, 'x')));
    booln isBackedUp = 7;
    CheckBackupLogFile(log.name(), c.maxSize, c.entrySize, &isBackedUp);
    EXPECT_EQ(isBackedUp, c.isMoved ? 1 : 0) << c.what;
    EXPECT_EQ(FilesIn(log.directory()), (Files{{c.isMoved ? "a.xm_" : "a.xml", std::string(c.size, 'x')}})) << c.what;
  }
  const Log missing;
  booln isBackedUp = 7;
  CheckBackupLogFile(missing.name(), 0, 100, &isBackedUp);
  EXPECT_EQ(isBackedUp, 0);
  const Log stuck;
  ASSERT_TRUE(stuck.Write("x"));
  ASSERT_TRUE(sandbox::MakeDirectories(stuck.backup() + "/full"));
  isBackedUp = 7;
  CheckBackupLogFile(stuck.name(), 0, 100, &isBackedUp);
  EXPECT_EQ(isBackedUp, 0) << "the backup failed";
  EXPECT_TRUE(Exists(stuck.path()));
}

TEST(CheckBackupLogFile, MovesNothingWithoutAPathOrAPlaceForTheAnswer) {
  const Log log;
  ASSERT_TRUE(log.Write("x"));
  CheckBackupLogFile(log.name(), 0, 100, nullptr);
  EXPECT_EQ(FilesIn(log.directory()), (Files{{"a.xml", "x"}}));
  booln isBackedUp = 7;
  CheckBackupLogFile(nullptr, 0, 100, &isBackedUp);
  EXPECT_EQ(isBackedUp, 0);
}

TEST(DeleteLogFile, DeletesAFileAndNothingElse) {
  const Log log;
  EXPECT_EQ(DeleteLogFile(log.name()), -1) << "there is none";
  ASSERT_TRUE(sandbox::WriteFile(log.path(), "no log at all", 0));
  EXPECT_EQ(DeleteLogFile(log.name()), 0);
  EXPECT_EQ(FilesIn(log.directory()), Files());
  ASSERT_TRUE(sandbox::MakeDirectories(log.path()));
  EXPECT_EQ(DeleteLogFile(log.name()), -1);
  EXPECT_TRUE(Exists(log.path()));
  EXPECT_EQ(DeleteLogFile(nullptr), -1);
  EXPECT_TRUE(LockIsFree());
}

// --- Clearing and forcing -------------------------------------------------------------------------------------------

TEST(ClearXMLLog, LeavesOneEntryThatSaysSo) {
  for (s32 (*clear)(const astring *, const astring *, const astring *) : {ClearXMLLog, KCSClearXMLLog}) {
    const Log log;
    ASSERT_EQ(log.Append("1"), 0);
    ASSERT_EQ(log.Append("2", 1), 0);
    const std::string backup = log.BackupText();
    ASSERT_EQ(clear(log.name(), "m<e", "here"), 0);
    log.Expect({Cleared("m&lt;e", "here")});
    EXPECT_EQ(log.BackupText(), backup) << "the backup stays";
    ASSERT_EQ(clear(log.name(), nullptr, nullptr), 0);
    log.Expect({Cleared("", "")});
    ASSERT_EQ(log.Append("3"), 0);
    log.Expect({Cleared("", ""), Plain("3")});
  }
}

TEST(ClearXMLLog, MissingLogStaysMissing) {
  const Log log;
  EXPECT_EQ(ClearXMLLog(log.name(), "u", "s"), -1);
  EXPECT_EQ(FilesIn(log.directory()), Files());
  const Log deep("new/a.xml");
  EXPECT_EQ(KCSClearXMLLog(deep.name(), "u", "s"), -1);
  EXPECT_EQ(FilesIn(deep.directory()), Files());
}

TEST(ClearXMLLog, TakesAnyFile) {
  for (const std::string &text : {std::string(), std::string("x"), kHeader + kBegin, std::string(100000, '\0')}) {
    const Log log;
    ASSERT_TRUE(log.Write(text));
    EXPECT_EQ(ClearXMLLog(log.name(), "u", "s"), 0);
    log.Expect({Cleared("u", "s")});
  }
}

TEST(ClearXMLLog, KeptLogIsDeletedBeforeTheTextsAreRefused) {
  const Log log;
  ASSERT_EQ(log.Append("1"), 0);
  EXPECT_EQ(ClearXMLLog(log.name(), "", "s"), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(FilesIn(log.directory()), Files());
}

TEST(ForceXMLLogExists, StartsALogOfUpTo64BytesAndLeavesALongerOne) {
  for (const size_t size : {0u, 1u, 10u, 63u, 64u, 65u, 66u, 76u, 1000u}) {
    for (s32 (*force)(const astring *, const astring *, const astring *) : {ForceXMLLogExists, KCSForceXMLLogExists}) {
      SCOPED_TRACE(size);
      const Log log;
      const std::string text(size, 'x');
      ASSERT_TRUE(sandbox::WriteFile(log.path(), text, 0600));
      EXPECT_EQ(force(log.name(), "u&", nullptr), 0);
      if (size <= 64) {
        log.Expect({Cleared("u&amp;", "")});
      } else {
        EXPECT_EQ(log.Text(), text);
        EXPECT_EQ(ModeOf(log.path()), static_cast<mode_t>(S_IFREG | 0600));
      }
      EXPECT_EQ(FilesIn(log.directory()).size(), 1u);
    }
  }
}

TEST(ForceXMLLogExists, MakesALogThatIsMissingWithItsDirectory) {
  const Log log("new/a.xml");
  EXPECT_EQ(ForceXMLLogExists(log.name(), "u", "s"), 0);
  log.Expect({Cleared("u", "s")});
  const std::string text = log.Text();
  EXPECT_EQ(ForceXMLLogExists(log.name(), "other", "other"), 0);
  EXPECT_EQ(log.Text(), text);
  EXPECT_EQ(ForceXMLLogExists(nullptr, "u", "s"), SM_STATUS_BAD_PARAMETER);
  const Log refused;
  EXPECT_EQ(ForceXMLLogExists(refused.name(), "", "s"), SM_STATUS_BAD_PARAMETER);
  EXPECT_EQ(FilesIn(refused.directory()), Files());
  const Log deep("one/two/a.xml");
  EXPECT_EQ(ForceXMLLogExists(deep.name(), "u", "s"), -1);
}

// --- Where the end tag is -------------------------------------------------------------------------------------------

TEST(AppendToXMLLog, FileShorterThanTheHeaderIsStartedAnew) {
  for (const size_t size : {0u, 1u, 11u, 21u, 64u}) {
    const Log log;
    ASSERT_TRUE(log.Write(std::string(size, 'x')));
    ASSERT_EQ(log.Append("d"), 0) << size;
    log.Expect({Plain("d")});
  }
}

TEST(AppendToXMLLog, EndTagCountsFromTheHeadersEndOn) {
  for (size_t offset = 50; offset <= 80; ++offset) {
    SCOPED_TRACE(offset);
    const Log log;
    const std::string start(offset, 'x');  // which is not looked at
    ASSERT_TRUE(log.Write(start + kEnd));
    const s32 status = log.Append("d");
    const std::string text = log.Text();
    if (offset + kEnd.size() < 65) {
      log.Expect({Plain("d")});
    } else if (offset < 65) {
      EXPECT_EQ(status, SM_STATUS_BAD_DATA);
      EXPECT_EQ(text, start + kEnd);
    } else {
      EXPECT_EQ(status, 0);
      const std::string like = DocumentLike(text, {Plain("d")});
      EXPECT_EQ(text, start + like.substr(kHeader.size() + kBegin.size()));
    }
  }
}

TEST(AppendToXMLLog, LongFileWithoutEndTagIsBadData) {
  for (const size_t size : {65u, 75u, 76u, 77u, 4096u, 4161u, 100000u}) {
    for (const char *filler : {"x", "<", "</EventLog", "/EventLog>", "</eventlog>", "</EventLog >"}) {
      std::string text;
      while (text.size() < size) text += filler;
      text.resize(size);
      const Log log;
      ASSERT_TRUE(log.Write(text));
      ASSERT_EQ(log.Append("d"), SM_STATUS_BAD_DATA) << size << filler;
      ASSERT_TRUE(log.Text() == text);
      ASSERT_TRUE(LockIsFree());
      if (size < 1000) continue;
      break;
    }
  }
}

TEST(AppendToXMLLog, KeptWhatFollowsTheEndTagIsOverwrittenOnlyAsFarAsTheNewTextGoes) {
  const Log log;
  ASSERT_EQ(log.Append("first"), 0);
  const std::string first = log.Text();
  const size_t added = SizeOf(Plain("d"));
  for (const size_t size : {1u, 10u, 11u, 12u, 200u, 4085u, 4086u, 4096u, 9000u}) {
    for (const size_t moved : {size, added - 1, added, added + 1, added + size}) {
      std::string tail;
      for (size_t i = 0; i < moved; ++i) tail.push_back("<tail/>\n"[i % 8]);
      ASSERT_TRUE(log.Write(first + tail));
      ASSERT_EQ(log.Append("d"), 0);
      const std::string text = log.Text();
      const std::string expected = DocumentLike(text, {Plain("first"), Plain("d")});
      const std::string rest = moved > added ? tail.substr(added) : "";
      ASSERT_TRUE(text == expected + rest) << moved << '\n' << text << '\n' << expected + rest;
    }
  }
}

TEST(AppendToXMLLog, LastEndTagIsFoundWhereverItIs) {
  // Every place near the sizes in which a file may be read, and parts of a tag before and behind it.
  const std::string start = kHeader + kBegin + kEnd + "</EventLog";
  const size_t added = SizeOf(Plain("d"));
  for (const size_t near : {64u, 512u, 1024u, 2048u, 4096u, 8192u, 12288u, 16384u}) {
    const Log log;
    for (size_t distance = near - 25; distance <= near + 25; ++distance) {
      std::string tail(distance, 't');
      tail.replace(tail.size() - 10, 10, kEnd, 1, 10);
      ASSERT_TRUE(log.Write(start + kEnd + tail));
      ASSERT_EQ(log.Append("d"), 0) << distance;
      const std::string text = log.Text();
      const std::string like = DocumentLike(text, {Plain("d")});
      const std::string written = like.substr(kHeader.size() + kBegin.size());
      ASSERT_TRUE(text == start + written + (tail.size() > added ? tail.substr(added) : "")) << distance;
    }
  }
}

TEST(AppendToXMLLog, LogOfSeveralMegabytesIsReadAtItsEndOnly) {
  const Log log;
  std::string text = kHeader + kBegin;
  const std::string entry = Render(Plain(std::string(300, 'd')), kStart);
  while (text.size() < (6u << 20)) text += entry;
  ASSERT_TRUE(log.Write(text + kEnd));
  size_t bytes = 0;
  const auto calls = SystemCallsBetweenMarks(ZEBCS_STRACE, Probe({"append", log.path(), "traced", "1000000000"}));
  for (const std::string &call : calls) {
    EXPECT_FALSE(call.starts_with("mmap(") && call.find(", MAP_SHARED") != std::string::npos) << call;
    if (!call.starts_with("read(") && !call.starts_with("pread64(") && !call.starts_with("readv(")) continue;
    bytes += std::strtoul(call.c_str() + call.rfind('=') + 1, nullptr, 10);
  }
  EXPECT_GE(bytes, kEnd.size());
  EXPECT_LE(bytes, 8192u) << "the end, and what the process itself may have to look up";
  EXPECT_LT(calls.size(), 40u);
  const std::string after = log.Text();
  ASSERT_EQ(after.size(), text.size() + SizeOf(Plain("traced")) + kEnd.size());
  EXPECT_TRUE(after.starts_with(text));
  EXPECT_TRUE(after.ends_with("<Description>traced</Description><Data></Data></LogEntry>" + kEnd));
}

// --- Repair ---------------------------------------------------------------------------------------------------------

namespace {

// What repair makes of a text, as plainly as can be.
std::string Repaired(const std::string &text) {
  if (text.find(kEnd) != std::string::npos) return text;
  constexpr string_view kEntryEnd = "</LogEntry>";
  long last = -1;
  for (size_t at = text.find(kEntryEnd); at != std::string::npos; at = text.find(kEntryEnd, at + 1)) {
    last = static_cast<long>(at);
  }
  return text.substr(0, static_cast<size_t>(last + 11)) + kEnd;
}

}  // namespace

TEST(XMLFileCheck, CutsAfterTheLastWholeEntryAndPutsTheEndTagThere) {
  const std::string start = kHeader + kBegin;
  const struct {
    const char *what;
    std::string text;
    std::string expected;
  } cases[] = {
      {"whole log", start + "<LogEntry></LogEntry>" + kEnd, start + "<LogEntry></LogEntry>" + kEnd},
      {"end tag in the middle", start + kEnd + "<LogEntry>", start + kEnd + "<LogEntry>"},
      {"end tag at the start", kEnd + "more", kEnd + "more"},
      {"end tag alone", kEnd, kEnd},
      {"no end tag", start + "<LogEntry>1</LogEntry>", start + "<LogEntry>1</LogEntry>" + kEnd},
      {"cut end tag", start + "<LogEntry>1</LogEntry></EventLo", start + "<LogEntry>1</LogEntry>" + kEnd},
      {"cut entry", start + "<LogEntry>1</LogEntry><LogEntry>2</LogEntr", start + "<LogEntry>1</LogEntry>" + kEnd},
      {"two entries", start + "<LogEntry>1</LogEntry></LogEntry>2", start + "<LogEntry>1</LogEntry></LogEntry>" + kEnd},
      {"entry's end alone", "</LogEntry>", "</LogEntry>" + kEnd},
      {"entry's end and one byte", "</LogEntry>x", "</LogEntry>" + kEnd},
      {"in another case", start + "</eventlog></LOGENTRY>", start.substr(0, 10) + kEnd},
      {"long end", "</LogEntry>" + std::string(100000, 'x'), "</LogEntry>" + kEnd},
      {"long start", std::string(100000, 'x') + "</LogEntry>y", std::string(100000, 'x') + "</LogEntry>" + kEnd},
  };
  for (const auto &c : cases) {
    ASSERT_EQ(Repaired(c.text), c.expected) << c.what;
    const Log log;
    ASSERT_TRUE(log.Write(c.text));
    XMLFileCheck(log.name());
    EXPECT_EQ(FilesIn(log.directory()), (Files{{"a.xml", c.expected}})) << c.what;
    XMLFileCheck(log.name());
    EXPECT_EQ(log.Text(), c.expected) << "a second time: " << c.what;
  }
}

TEST(XMLFileCheck, KeptWithoutAnyEntryTheFirstTenBytesStay) {
  for (size_t size = 1; size <= 90; ++size) {
    std::string text = kHeader + kBegin + "<LogEntry><Tim";
    text.resize(std::min(size, text.size()));
    const Log log;
    ASSERT_TRUE(log.Write(text));
    XMLFileCheck(log.name());
    EXPECT_EQ(log.Text(), text.substr(0, 10) + kEnd) << size;
    // Which is too short to be a log, so that the next append starts it anew.
    ASSERT_EQ(log.Append("d"), 0);
    log.Expect({Plain("d")});
  }
}

TEST(XMLFileCheck, WholeLogIsNotTouched) {
  const Log log;
  ASSERT_EQ(log.Append("d"), 0);
  ASSERT_TRUE(sandbox::SetModificationTime(log.path(), 1000000));
  XMLFileCheck(log.name());
  struct stat info = {};
  ASSERT_EQ(stat(log.name(), &info), 0);
  EXPECT_EQ(info.st_mtim.tv_sec, 1000000);
  log.Expect({Plain("d")});
}

TEST(XMLFileCheck, WhatCannotBeReadStays) {
  const Log log;
  XMLFileCheck(log.name());
  EXPECT_EQ(FilesIn(log.directory()), Files()) << "nothing is made";
  XMLFileCheck(log.directory().c_str());
  EXPECT_EQ(FilesIn(log.directory()), Files());
  XMLFileCheck(nullptr);
  XMLFileCheck("");
}

TEST(XMLFileCheck, KeptTakesNoLock) {
  const Log log;
  ASSERT_TRUE(log.Write(kHeader + kBegin + "<LogEntry></LogEntry><Log"));
  LockHolder holder;
  ASSERT_TRUE(holder);
  XMLFileCheck(log.name());  // would wait for a minute
  EXPECT_EQ(log.Text(), Document("<LogEntry></LogEntry>"));
  holder.Release();
  // Nor does it drop a lock that this process has.
  ASSERT_TRUE(log.Write("x"));
  ASSERT_EQ(FileLock(0), 1);
  XMLFileCheck(log.name());
  EXPECT_FALSE(LockIsFree());
  FileUnlock();
}

TEST(XMLFileCheck, LogCutAnywhereCanBeAppendedToAfterwards) {
  const Log log;
  ASSERT_EQ(log.Append("first"), 0);
  ASSERT_EQ(log.Append("second"), 0);
  const std::string whole = log.Text();
  const size_t ends[] = {whole.find("<LogEntry>", 80), whole.size() - kEnd.size()};
  for (size_t cut = 1; cut < whole.size(); ++cut) {
    SCOPED_TRACE(cut);
    const std::string damaged = whole.substr(0, cut);
    ASSERT_TRUE(log.Write(damaged));
    const s32 status = log.Append("third");
    ASSERT_EQ(status, cut < 65 ? 0 : SM_STATUS_BAD_DATA);
    if (cut < 65) continue;
    ASSERT_EQ(log.Text(), damaged);
    XMLFileCheck(log.name());
    ASSERT_EQ(log.Text(), Repaired(damaged));
    ASSERT_EQ(log.Append("third"), 0);
    std::vector<Entry> entries;
    if (cut >= ends[0]) entries.push_back(Plain("first"));
    if (cut >= ends[1]) entries.push_back(Plain("second"));
    entries.push_back(Plain("third"));
    log.Expect(entries);
    if (HasFailure()) break;
  }
}

TEST(XMLFileCheck, AppendThatStoppedHalfwayCanBeRepaired) {
  const Log log;
  ASSERT_EQ(log.Append("first"), 0);
  const std::string old = log.Text();
  const std::string added = Render(Plain("second"), kStart) + kEnd;
  for (size_t done = 0; done <= added.size(); ++done) {
    SCOPED_TRACE(done);
    std::string text = old;
    text.replace(old.size() - kEnd.size(), std::min(done, kEnd.size()), added, 0, done);
    ASSERT_TRUE(log.Write(text));
    XMLFileCheck(log.name());
    ASSERT_EQ(log.Text(), Repaired(text));
    ASSERT_EQ(log.Append("third"), 0);
    const std::string after = log.Text();
    ASSERT_TRUE(IsWellFormed(after)) << after;
    ASSERT_EQ(Count(after, "<Description>first<"), 1u);
    ASSERT_EQ(Count(after, "<Description>second<"), done >= added.size() - kEnd.size() ? 1u : 0u);
    ASSERT_EQ(Count(after, "<Description>third<"), 1u);
    ASSERT_EQ(Count(after, kEnd), 1u);
  }
}

TEST(FindLastOccurrence, OffsetOfTheLastOneOrMinusOne) {
  const struct {
    const char *text;
    const char *word;
    s32 expected;
  } cases[] = {
      {"", "a", -1},      {"a", "a", 0},           {"ba", "a", 1},      {"aa", "a", 1},      {"aaa", "aa", 1},
      {"aaaa", "aaa", 1}, {"abab", "ab", 2},       {"ababa", "aba", 2}, {"abc", "abcd", -1}, {"abc", "x", -1},
      {"abc", "c", 2},    {"</A></A>", "</A>", 4}, {"aB", "b", -1},
  };
  for (const auto &c : cases) EXPECT_EQ(findLastOccurrence(c.text, c.word), c.expected) << c.text << ' ' << c.word;
  std::string text(100000, 'x');
  text.replace(50000, 4, "word");
  EXPECT_EQ(findLastOccurrence(text.c_str(), "word"), 50000);
  EXPECT_EQ(findLastOccurrence(nullptr, "word"), -1);
  EXPECT_EQ(findLastOccurrence("word", nullptr), -1);
}

// --- Several processes ----------------------------------------------------------------------------------------------

TEST(SharedLog, ManyWritersLoseNothing) {
  constexpr int kWriters = 4;
  constexpr int kRounds = 60;
  const Log log;
  std::vector<Process> writers(kWriters);
  for (int w = 0; w < kWriters; ++w) {
    ASSERT_TRUE(writers[static_cast<size_t>(w)].Start([&log, w](Channel &channel) {
      channel.Put("ready");
      if (channel.Get() != "go") return 1;
      for (int i = 0; i < kRounds; ++i) {
        const std::string description = std::to_string(w) + '.' + std::to_string(i) + std::string(size_t(i) * 7, '-');
        if (log.Append(description) != 0) return 2;
      }
      return 0;
    }));
  }
  for (Process &writer : writers) ASSERT_EQ(writer.Receive(), "ready");
  for (Process &writer : writers) writer.Send("go");
  for (Process &writer : writers) EXPECT_EQ(writer.Wait(), 0);
  const std::string text = log.Text();
  EXPECT_TRUE(IsWellFormed(text));
  EXPECT_EQ(Count(text, "<LogEntry>"), static_cast<size_t>(kWriters * kRounds));
  EXPECT_EQ(Count(text, kEnd), 1u);
  for (int w = 0; w < kWriters; ++w) {
    size_t position = 0;
    for (int i = 0; i < kRounds; ++i) {
      const std::string description = "<Description>" + std::to_string(w) + '.' + std::to_string(i) +
                                      std::string(size_t(i) * 7, '-') + "</Description>";
      position = text.find(description, position);
      ASSERT_NE(position, std::string::npos) << "lost or out of order: " << description;
    }
  }
}

TEST(SharedLog, WritersThatCrossTheLimitLeaveWholeDocuments) {
  constexpr int kWriters = 3;
  const Log log;
  std::vector<Process> writers(kWriters);
  for (Process &writer : writers) {
    ASSERT_TRUE(writer.Start([&log](Channel &channel) {
      channel.Put("ready");
      if (channel.Get() != "go") return 1;
      for (int i = 0; i < 60; ++i) {
        if (log.Append("event", 2000) != 0) return 2;
      }
      return 0;
    }));
  }
  for (Process &writer : writers) ASSERT_EQ(writer.Receive(), "ready");
  for (Process &writer : writers) writer.Send("go");
  for (Process &writer : writers) EXPECT_EQ(writer.Wait(), 0);
  EXPECT_TRUE(IsWellFormed(log.Text())) << log.Text();
  EXPECT_TRUE(IsWellFormed(log.BackupText())) << log.BackupText();
  EXPECT_EQ(FilesIn(log.directory()).size(), 2u);
}

TEST(KilledWriter, LosesNoEntryThatWasReported) {
  const Log log;
  size_t reported = 0;
  for (int round = 0; round < 6; ++round) {
    std::vector<Process> writers(2);
    for (size_t w = 0; w < writers.size(); ++w) {
      ASSERT_TRUE(writers[w].Start([&log, round, w](Channel &channel) {
        for (int i = 0;; ++i) {
          const std::string name = std::to_string(round) + '.' + std::to_string(w) + '.' + std::to_string(i);
          if (log.Append(name + std::string(3000, '-')) != 0) return 2;
          channel.Put(name);
        }
      }));
    }
    std::vector<std::string> names;
    for (int i = 0; i < 2 + round % 3; ++i) {
      for (Process &writer : writers) names.push_back(writer.Receive());
    }
    for (Process &writer : writers) writer.Kill();
    for (Process &writer : writers) EXPECT_EQ(writer.Wait(), 128 + SIGKILL);
    XMLFileCheck(log.name());
    ASSERT_EQ(log.Append("after " + std::to_string(round)), 0);
    const std::string text = log.Text();
    ASSERT_TRUE(IsWellFormed(text));
    for (const std::string &name : names) ASSERT_EQ(Count(text, "<Description>" + name + "---"), 1u) << name;
    reported += names.size();
    ASSERT_GE(Count(text, "<LogEntry>"), reported + static_cast<size_t>(round) + 1);
  }
}

// --- Every call of an append in turn: the writer dies before it, or the call fails ----------------------------------

namespace {

struct NumberedCall {
  std::string name;
  int number;  // of the calls of that name
};

// An append to a log of one entry, made by a process of its own under strace.
class TracedAppend {
 public:
  explicit TracedAppend(const std::string &maxSize = "1000000000") : m_maxSize(maxSize) {
    m_isReady = log.Append("first") == 0;
    m_old = log.Text();
  }

  bool IsReady() const { return m_isReady; }
  const std::string &old() const { return m_old; }

  // What happens is in the words of strace; nothing if empty.
  ProgramResult Run(const std::string &what) {
    EXPECT_TRUE(sandbox::RemoveTree(log.backup()));
    EXPECT_TRUE(sandbox::WriteFile(log.path(), m_old, 01664));
    std::vector<std::string> arguments{ZEBCS_STRACE, "-qq", "-o", Trace(), "-E", "ASAN_OPTIONS=detect_leaks=0"};
    if (!what.empty()) arguments.insert(arguments.end(), {"-e", "inject=" + what});
    const std::vector<std::string> probe = Probe({"append", log.path(), "second", m_maxSize});
    arguments.insert(arguments.end(), probe.begin(), probe.end());
    return RunProgram(arguments);
  }

  std::vector<NumberedCall> Calls() {
    const ProgramResult result = Run("");
    EXPECT_EQ(result.output, "0\n") << result.errors;
    std::map<std::string, int> counts;
    std::vector<NumberedCall> calls;
    int marks = 0;
    std::istringstream lines(sandbox::ReadFile(Trace()));
    for (std::string line; std::getline(lines, line);) {
      const std::string name = line.substr(0, line.find('('));
      const int number = ++counts[name];
      if (line.starts_with("write(2, \"MARK\\n\"")) {
        ++marks;
      } else if (marks == 1) {
        calls.push_back({name, number});
      }
    }
    EXPECT_GT(calls.size(), 5u);
    return calls;
  }

  const Log log;

 private:
  std::string Trace() const { return m_traces.Path("trace"); }

  TemporaryDirectory m_traces;
  std::string m_maxSize;
  std::string m_old;
  bool m_isReady = false;
};

}  // namespace

TEST(KilledWriter, LeavesTheOldLogOrTheNewOneBeforeEachOfItsCalls) {
  TracedAppend append;
  ASSERT_TRUE(append.IsReady());
  std::set<std::string> states;
  for (const NumberedCall &call : append.Calls()) {
    const std::string what = call.name + ":signal=KILL:when=" + std::to_string(call.number);
    ASSERT_EQ(append.Run(what).status, 128 + SIGKILL) << what;
    const std::string text = append.log.Text();
    if (text == append.old()) {
      states.insert("old");
    } else {
      ASSERT_EQ(text, DocumentLike(text, {Plain("first"), Plain("second")})) << what;
      states.insert("new");
    }
    XMLFileCheck(append.log.name());
    EXPECT_EQ(append.log.Text(), text) << "nothing to repair";
    ASSERT_EQ(append.log.Append("third"), 0) << "the lock is free again";
    ASSERT_TRUE(IsWellFormed(append.log.Text()));
  }
  EXPECT_EQ(states, (std::set<std::string>{"old", "new"}));
}

TEST(KilledWriter, LeavesTheOldEntriesInTheLogOrItsBackup) {
  TracedAppend append("1");
  ASSERT_TRUE(append.IsReady());
  for (const NumberedCall &call : append.Calls()) {
    const std::string what = call.name + ":signal=KILL:when=" + std::to_string(call.number);
    ASSERT_EQ(append.Run(what).status, 128 + SIGKILL) << what;
    const Files files = FilesIn(append.log.directory());
    const bool isMoved = files.contains("a.xm_");
    ASSERT_EQ(files.at(isMoved ? "a.xm_" : "a.xml"), append.old()) << what;
    ASSERT_EQ(append.log.Append("third"), 0) << what;
    ASSERT_TRUE(IsWellFormed(append.log.Text())) << what;
  }
}

TEST(FailingCall, LeavesTheOldLogWhereTheAppendFails) {
  TracedAppend append;
  ASSERT_TRUE(append.IsReady());
  const std::set<std::string> kFileCalls{"access", "chmod",  "close",      "fchmod", "fcntl",   "fstat",    "ftruncate",
                                         "lseek",  "mkdir",  "newfstatat", "openat", "pread64", "pwrite64", "read",
                                         "readv",  "rename", "stat",       "statx",  "unlink",  "write",    "writev"};
  std::map<s32, int> statuses;
  for (const NumberedCall &call : append.Calls()) {
    if (!kFileCalls.contains(call.name)) continue;  // the others are for memory and for the host name
    const std::string what = call.name + ":error=EIO:when=" + std::to_string(call.number);
    const ProgramResult result = append.Run(what);
    const std::string text = append.log.Text();
    const s32 status = static_cast<s32>(std::strtol(result.output.c_str(), nullptr, 10));
    ++statuses[status];
    if (status == 0 || call.name == "close") {
      EXPECT_EQ(text, DocumentLike(text, {Plain("first"), Plain("second")})) << what;
    } else {
      EXPECT_EQ(text, append.old()) << what;
    }
    // Other files may be read and closed on the way, which need not be there.
    const bool isRead = call.name.starts_with("pread") || call.name == "read" || call.name == "readv";
    if (call.name.find("write") != std::string::npos) {
      EXPECT_EQ(status, SM_STATUS_WRITE_FAILED) << what;
    } else if (call.name == "close") {
      EXPECT_TRUE(status == 0 || status == SM_STATUS_WRITE_FAILED) << what << ' ' << status;
    } else if (isRead) {
      EXPECT_TRUE(status == 0 || status == SM_STATUS_BAD_DATA) << what << ' ' << status;
    } else {
      EXPECT_TRUE(status == 0 || status == -1 || status == SM_STATUS_WRITE_FAILED) << what << ' ' << status;
    }
  }
  EXPECT_TRUE(statuses.contains(SM_STATUS_WRITE_FAILED));
  EXPECT_TRUE(statuses.contains(SM_STATUS_BAD_DATA));
}

// --- A full disk ----------------------------------------------------------------------------------------------------

TEST(FullDisk, LogIsAsItWas) {
  const Log log;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(log.directory(), "size=128k"));
  ASSERT_EQ(log.Append("first"), 0);
  const std::string old = log.Text();
  ASSERT_LT(old.size(), kPage);
  const std::string description(16000, 'd');
  const size_t needed = (old.size() + SizeOf(Plain(description)) + kPage - 1) / kPage - 1;
  for (size_t freePages = 0; freePages <= needed; ++freePages) {
    ASSERT_TRUE(log.Write(old));
    ASSERT_TRUE(FillDisk(log.directory(), freePages));
    const bool isEnough = freePages == needed;
    EXPECT_EQ(log.Append(description), isEnough ? 0 : SM_STATUS_WRITE_FAILED) << freePages;
    if (isEnough) {
      log.Expect({Plain("first"), Plain(description)});
    } else {
      EXPECT_EQ(log.Text(), old) << freePages;
      EXPECT_EQ(log.Append("short"), 0) << "which fits in the last page";
      log.Expect({Plain("first"), Plain("short")});
    }
    EXPECT_TRUE(LockIsFree());
    ASSERT_TRUE(sandbox::RemoveTree(log.directory() + "/filler"));
  }
}

TEST(FullDisk, WhatFollowsTheEndTagStaysToo) {
  const Log log;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(log.directory(), "size=128k"));
  ASSERT_EQ(log.Append("first"), 0);
  const std::string old = log.Text() + "something behind the end tag";
  ASSERT_TRUE(log.Write(old));
  ASSERT_TRUE(FillDisk(log.directory(), 1));
  EXPECT_EQ(log.Append(std::string(16000, 'd')), SM_STATUS_WRITE_FAILED);
  EXPECT_EQ(log.Text(), old);
}

TEST(FullDisk, NewLogHoldsNothingHalf) {
  const Log log;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(log.directory(), "size=64k"));
  const std::string description(9000, 'd');
  for (const size_t freePages : {0u, 1u, 2u}) {
    ASSERT_TRUE(FillDisk(log.directory(), freePages));
    EXPECT_EQ(log.Append(description), SM_STATUS_WRITE_FAILED) << freePages;
    EXPECT_EQ(Exists(log.path()) ? log.Text() : "", "") << freePages;
    ASSERT_TRUE(sandbox::RemoveTree(log.directory() + "/filler"));
  }
  EXPECT_EQ(log.Append(description), 0);
  log.Expect({Plain(description)});
}

TEST(FullDisk, BackupIsWhatItShouldBe) {
  const Log log;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(log.directory(), "size=64k"));
  ASSERT_EQ(log.Append("first"), 0);
  const std::string old = log.Text();
  ASSERT_TRUE(FillDisk(log.directory(), 0));
  EXPECT_EQ(log.Append("second", 1), SM_STATUS_WRITE_FAILED);
  EXPECT_EQ(log.BackupText(), old);
  ASSERT_TRUE(sandbox::RemoveTree(log.directory() + "/filler"));
  EXPECT_EQ(log.Append("third"), 0);
  log.Expect({Plain("third")});
}

TEST(FullDisk, WithoutRoomForAFileThereIsNoLog) {
  const Log log;
  Mount disk;
  ASSERT_TRUE(disk.SmallDisk(log.directory(), "size=64k,nr_inodes=2"));  // the directory itself and one file
  ASSERT_TRUE(sandbox::WriteFile(log.directory() + "/file", ""));
  EXPECT_EQ(log.Append("d"), -1);
  EXPECT_EQ(AppendToXMLLog((log.directory() + "/new/a.xml").c_str(), 1, 2, nullptr, nullptr, nullptr, nullptr, 0, 1),
            -1)
      << "nor for a directory";
  EXPECT_EQ(FilesIn(log.directory()), (Files{{"file", ""}}));
  EXPECT_TRUE(LockIsFree());
}

// --- A held lock ----------------------------------------------------------------------------------------------------

TEST(HeldLock, AppendWaitsForIt) {
  const Log log;
  ASSERT_EQ(log.Append("first"), 0);
  LockHolder holder;
  ASSERT_TRUE(holder);
  Process writer;
  ASSERT_TRUE(writer.Start([&](Channel &channel) {
    channel.Put("starting");
    return log.Append("second");
  }));
  ASSERT_EQ(writer.Receive(), "starting");
  log.Expect({Plain("first")});
  holder.Release();
  EXPECT_EQ(writer.Wait(), 0);
  log.Expect({Plain("first"), Plain("second")});
  EXPECT_TRUE(LockIsFree());
}

TEST(HeldLock, AfterAMinuteTheLogIsAsItWas) {
  const Log log;
  ASSERT_EQ(log.Append("first"), 0);
  ASSERT_TRUE(sandbox::WriteFile(log.backup(), "an older one"));
  const Files before = FilesIn(log.directory());
  const std::string missing = log.directory() + "/new/b.xml";
  const struct {
    const char *what;
    std::function<s32()> call;
  } calls[] = {
      {"append", [&] { return log.Append("second"); }},
      {"append with a backup", [&] { return log.Append("second", 1); }},
      {"clear", [&] { return ClearXMLLog(log.name(), "u", "s"); }},
      {"delete", [&] { return DeleteLogFile(log.name()); }},
      {"backup", [&] { return BackupLogFile(log.name()); }},
      {"force", [&] { return ForceXMLLogExists(missing.c_str(), "u", "s"); }},
  };
  for (const auto &c : calls) {
    LockHolder holder;
    ASSERT_TRUE(holder);
    l_skipsPauses = true;
    const s32 status = c.call();
    l_skipsPauses = false;
    EXPECT_EQ(status, SM_STATUS_LOCK_TIMEOUT) << c.what;
    EXPECT_FALSE(LockIsFree()) << "it is still the other's: " << c.what;
    holder.Release();
  }
  booln isBackedUp = 7;
  {
    LockHolder holder;
    ASSERT_TRUE(holder);
    l_skipsPauses = true;
    CheckBackupLogFile(log.name(), 1, 1, &isBackedUp);
    EXPECT_EQ(isBackedUp, 0);
    EXPECT_EQ(ForceXMLLogExists(log.name(), "u", "s"), 0) << "nothing to be done";
    EXPECT_EQ(BackupLogFile("a"), SM_STATUS_INVALID_INPUT) << "known before the lock is asked for";
    l_skipsPauses = false;
    holder.Release();
  }
  EXPECT_EQ(FilesIn(log.directory() + "/new"), Files()) << "the directory is made without the lock";
  ASSERT_TRUE(sandbox::RemoveTree(log.directory() + "/new"));
  EXPECT_EQ(FilesIn(log.directory()), before);
  log.Expect({Plain("first")});
}

TEST(HeldLock, KeptOwnLockIsDroppedByAnAppend) {
  const Log log;
  ASSERT_EQ(FileLock(0), 1);
  EXPECT_EQ(log.Append("d"), 0) << "the lock belongs to the process, which may take it again";
  EXPECT_TRUE(LockIsFree());
}

TEST(WithoutLock, IsAFailureAsATimeoutIs) {
  const Log log;
  ASSERT_EQ(log.Append("d"), 0);
  const Files before = FilesIn(log.directory());
  Process detached;
  ASSERT_TRUE(detached.Start([&](Channel &) {
    if (ModuleDetach() != 1) return 1;
    EXPECT_EQ(ClearXMLLog(log.name(), "u", "s"), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(DeleteLogFile(log.name()), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(BackupLogFile(log.name()), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(log.Append("second"), SM_STATUS_LOCK_TIMEOUT);
    EXPECT_EQ(log.Append("second", 1), SM_STATUS_LOCK_TIMEOUT);
    return 0;
  }));
  EXPECT_EQ(detached.Wait(), 0);
  EXPECT_EQ(FilesIn(log.directory()), before);
}

// --- What may be in the way -----------------------------------------------------------------------------------------

TEST(ReadOnlyDirectory, LogStaysAsItIs) {
  const Log log;
  ASSERT_EQ(log.Append("first"), 0);
  ASSERT_TRUE(sandbox::WriteFile(log.directory() + "/damaged", "damaged"));
  ASSERT_TRUE(sandbox::WriteFile(log.backup(), "backup"));
  const Files before = FilesIn(log.directory());
  {
    Mount mount;
    ASSERT_TRUE(mount.ReadOnly(log.directory()));
    EXPECT_EQ(log.Append("second"), -1);
    EXPECT_EQ(log.Append("second", 1), -1);
    EXPECT_EQ(ClearXMLLog(log.name(), "u", "s"), -1);
    EXPECT_EQ(BackupLogFile(log.name()), -1);
    EXPECT_EQ(DeleteLogFile(log.name()), -1);
    EXPECT_EQ(ForceXMLLogExists(log.name(), "u", "s"), 0);
    EXPECT_EQ(ForceXMLLogExists((log.directory() + "/b.xml").c_str(), "u", "s"), -1);
    EXPECT_EQ(ForceXMLLogExists((log.directory() + "/new/b.xml").c_str(), "u", "s"), -1);
    XMLFileCheck((log.directory() + "/damaged").c_str());
    EXPECT_EQ(FilesIn(log.directory()), before);
    EXPECT_TRUE(LockIsFree());
  }
  EXPECT_EQ(log.Append("second"), 0);
  log.Expect({Plain("first"), Plain("second")});
}

TEST(InTheWay, DirectoryIsNoLogAndStaysWhereItIs) {
  for (const u32 maxSize : {kRoomy, 1u}) {
    const Log log;
    ASSERT_TRUE(sandbox::MakeDirectories(log.path() + "/full"));
    u32 size = 0;
    ASSERT_EQ(GetSizeOfFile(log.name(), &size), -1);
    EXPECT_EQ(log.Append("d", maxSize), -1) << maxSize;
    EXPECT_TRUE(Exists(log.path() + "/full")) << "it has no size, so it is not moved aside: " << maxSize;
    EXPECT_FALSE(Exists(log.backup())) << maxSize;
    EXPECT_TRUE(LockIsFree());
  }
}

TEST(InTheWay, DirectoryIsNeitherForcedNorCleared) {
  const Log log;
  for (const char *name : {"/one", "/two", "/three", "/four"}) {
    ASSERT_TRUE(sandbox::MakeDirectories(log.path() + name));
  }
  EXPECT_EQ(ForceXMLLogExists(log.name(), "u", "s"), -1) << "it has no size, and nothing can be appended to it";
  EXPECT_EQ(ClearXMLLog(log.name(), "u", "s"), -1);
  EXPECT_EQ(FilesIn(log.path()).size(), 4u);
  EXPECT_TRUE(LockIsFree());
}

TEST(InTheWay, LogIsReachedThroughALink) {
  const Log log;
  const std::string target = log.directory() + "/target";
  ASSERT_EQ(symlink(target.c_str(), log.name()), 0);
  EXPECT_EQ(log.Append("first"), 0) << "it is made at the place that the link names";
  EXPECT_EQ(log.Append("second"), 0);
  EXPECT_TRUE(S_ISLNK(ModeOf(log.path())));
  EXPECT_EQ(ModeOf(target), kLogMode);
  std::string text = sandbox::ReadFile(target);
  EXPECT_EQ(text, DocumentLike(text, {Plain("first"), Plain("second")}));

  EXPECT_EQ(log.Append("third", 1), 0);
  EXPECT_TRUE(S_ISLNK(ModeOf(log.backup()))) << "what is moved aside is the link";
  EXPECT_EQ(sandbox::ReadFile(target), text);
  log.Expect({BackedUp("user", "source"), Plain("third")});

  ASSERT_TRUE(sandbox::RemoveTree(log.path()));
  ASSERT_EQ(symlink(target.c_str(), log.name()), 0);
  EXPECT_EQ(ClearXMLLog(log.name(), "u", "s"), 0);
  log.Expect({Cleared("u", "s")});
  EXPECT_EQ(sandbox::ReadFile(target), text) << "what is deleted is the link";
}

TEST(InTheWay, LinkToItselfIsAFailure) {
  const Log log;
  ASSERT_EQ(symlink(log.name(), log.name()), 0);
  EXPECT_EQ(log.Append("d"), -1);
  EXPECT_EQ(ForceXMLLogExists(log.name(), "u", "s"), -1);
  XMLFileCheck(log.name());
  EXPECT_TRUE(S_ISLNK(ModeOf(log.path())));
  EXPECT_EQ(ClearXMLLog(log.name(), "u", "s"), 0) << "it goes as any other log";
  EXPECT_TRUE(S_ISREG(ModeOf(log.path())));
}

TEST(InTheWay, PipeIsNoLog) {
  const Log log;
  ASSERT_EQ(mkfifo(log.name(), 0666), 0);
  EXPECT_EQ(log.Append("d"), -1) << "else the entry would go with the pipe";
  u32 size = 1;
  EXPECT_EQ(KCSGetSizeOfFile(log.name(), &size), -1) << "and nobody is waited for";
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(KCSCmdGetXMLLogContent(log.name(), nullptr, nullptr), nullptr);
}

TEST(AppendToXMLLog, ThreadsDoNotLoseEachOthersEntries) {
  constexpr int kThreads = 4;
  constexpr u32 kEntries = 100;
  const Log log;
  std::vector<std::thread> threads;
  for (u32 t = 0; t < kThreads; ++t) {
    threads.emplace_back([&log, t] {
      for (u32 i = 0; i < kEntries; ++i) {
        EXPECT_EQ(AppendToXMLLog(log.name(), 4, t * kEntries + i, "u", "s", "d", nullptr, 0, UINT32_MAX), 0);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  const std::string text = sandbox::ReadFile(log.path());
  for (u32 id = 0; id < kThreads * kEntries; ++id) {
    EXPECT_NE(text.find("<ID>" + std::to_string(id) + "</ID>"), std::string::npos) << id;
  }
  EXPECT_EQ(text.find("</EventLog>"), text.size() - std::strlen("</EventLog>"));
}

namespace {

// Gives up the rights by which user 0 reads and writes every file.
bool DropFileRights() {
  __user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, rights) != 0) return false;
  constexpr __u32 kDropped = 1U << CAP_DAC_OVERRIDE | 1U << CAP_DAC_READ_SEARCH;
  rights[0].effective &= ~kDropped;
  rights[0].permitted &= ~kDropped;
  rights[0].inheritable &= ~kDropped;
  return syscall(SYS_capset, &header, rights) == 0;
}

int WithoutFileRights(const std::function<void()> &body) {
  Process process;
  const bool isStarted = process.Start([&](Channel &) {
    if (!DropFileRights()) return 1;
    body();
    return 0;
  });
  return isStarted ? process.Wait() : -1;
}

}  // namespace

TEST(InTheWay, LogThatTheWriterShutItselfOutOfIsOpenedAgain) {
  for (const mode_t mode : {0u, 0400u, 0200u}) {
    const Log log;
    ASSERT_EQ(log.Append("first"), 0);
    ASSERT_EQ(chmod(log.name(), mode), 0);
    EXPECT_EQ(WithoutFileRights([&] { EXPECT_EQ(log.Append("second"), 0); }), 0) << mode;
    log.Expect({Plain("first"), Plain("second")});
  }
}

TEST(InTheWay, LogThatCannotBeReadHasNoSizeAndIsNotBackedUp) {
  const Log log;
  ASSERT_EQ(log.Append("first"), 0);
  ASSERT_EQ(chmod(log.name(), 0), 0);
  const auto append = [&] {
    u32 size = 0;
    EXPECT_EQ(GetSizeOfFile(log.name(), &size), -1);
    EXPECT_EQ(log.Append("second", 1), 0);
  };
  EXPECT_EQ(WithoutFileRights(append), 0);
  EXPECT_FALSE(Exists(log.backup()));
  log.Expect({Plain("first"), Plain("second")});
}

TEST(InTheWay, LogThatCannotBeReadHasNoSizeAndIsForced) {
  const Log log;
  ASSERT_EQ(log.Append("first"), 0);
  ASSERT_EQ(chmod(log.name(), 0), 0);
  EXPECT_EQ(WithoutFileRights([&] { EXPECT_EQ(ForceXMLLogExists(log.name(), "u", "s"), 0); }), 0);
  log.Expect({Plain("first"), Cleared("u", "s")});
}

TEST(InTheWay, PipeDoesNotHoldAnAppend) {
  const Log log;
  ASSERT_EQ(mkfifo(log.name(), 0600), 0);
  Process writer;
  ASSERT_TRUE(writer.Start([&](Channel &) {
    (void)log.Append("d");
    (void)ForceXMLLogExists(log.name(), "u", "s");
    XMLFileCheck(log.name());
    return 0;
  }));
  EXPECT_EQ(writer.Wait(), 0);
  EXPECT_TRUE(S_ISFIFO(ModeOf(log.path())));
  EXPECT_EQ(ClearXMLLog(log.name(), "u", "s"), 0);
  log.Expect({Cleared("u", "s")});
}

// --- The command log, as far as its system calls matter -------------------------------------------------------------

TEST(CmdLogContent, LogThatCannotBeOpenedGivesTheStatusAlone) {
  const Log log;
  ASSERT_EQ(log.Append("d"), 0);
  const TemporaryDirectory traces;
  const std::string trace = traces.Path("trace");
  const auto run = [&](int failing) {
    std::vector<std::string> arguments{ZEBCS_STRACE, "-qq",     "-o", trace, "-E", "ASAN_OPTIONS=detect_leaks=0",
                                       "-P",         log.path()};
    if (failing > 0) {
      arguments.insert(arguments.end(), {"-e", "inject=openat:error=EACCES:when=" + std::to_string(failing)});
    }
    const std::vector<std::string> probe = Probe({"content", log.path()});
    arguments.insert(arguments.end(), probe.begin(), probe.end());
    return RunProgram(arguments).output;
  };
  EXPECT_EQ(run(0), "<Content>" + log.Text() + "</Content><SMStatus>0</SMStatus>\n");
  EXPECT_EQ(run(1), "(null)\n") << "the size is not known";
  EXPECT_EQ(run(2), "<SMStatus>-1</SMStatus>\n");
}

TEST(CmdLogSize, KeptMakingTheLogDropsTheLockBeforeTheSizeIsRead) {
  std::vector<std::string> steps;
  for (const std::string &call : SystemCallsBetweenMarks(ZEBCS_STRACE, Probe({"size"}))) {
    if (call.starts_with("fcntl(") && call.find("F_SETLK") != std::string::npos) {
      steps.push_back(call.find("F_UNLCK") != std::string::npos ? "release" : "take");
    } else if (call.starts_with("openat(") && call.find("qxcmdlog.xml") != std::string::npos) {
      if (call.find("O_RDONLY") != std::string::npos) steps.push_back("size");
    }
  }
  EXPECT_EQ(steps, (std::vector<std::string>{"take", "take", "release", "size", "release"}));
}

TEST(BackupLogFile, LogWhosePathEndsLikeABackupIsNotMoved) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("audit_");
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(AppendToXMLLog(path.c_str(), 4, static_cast<u32>(i), "user", "source", "text", nullptr, 0, 1), 0);
  }
  const std::string log = sandbox::ReadFile(path);
  for (const char *id : {"<ID>1</ID>", "<ID>2</ID>", "<ID>3</ID>"}) EXPECT_NE(log.find(id), std::string::npos) << id;
  EXPECT_EQ(BackupLogFile(path.c_str()), SM_STATUS_INVALID_INPUT) << "it would be deleted as its own older backup";
  EXPECT_EQ(sandbox::ReadFile(path), log);
}

// --- Arguments of the inner functions -------------------------------------------------------------------------------

TEST(LogHelpers, NullIsRefusedAndTouchesNothing) {
  const TemporaryDirectory directory;
  const std::string path = directory.Path("file");
  ASSERT_TRUE(sandbox::WriteFile(path, "text"));
  EXPECT_EQ(CreateLogDir(nullptr), SM_STATUS_SUCCESS);  // where there is no path there is no directory to make
  EXPECT_EQ(DeleteLogFile(nullptr), -1);
  EXPECT_NE(BackupLogFile(nullptr), SM_STATUS_SUCCESS);
  booln isBackedUp = 1;
  CheckBackupLogFile(nullptr, 1, 1, &isBackedUp);
  EXPECT_EQ(isBackedUp, 0);
  CheckBackupLogFile(path.c_str(), 1, 1, nullptr);
  EXPECT_EQ(findLastOccurrence(nullptr, "text"), -1);
  EXPECT_EQ(findLastOccurrence("text", nullptr), -1);
  EXPECT_EQ(sandbox::ReadFile(path), "text");
}

// zebctl log: the command log and other event logs.
#include "zebcs/logs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "files.h"
#include "output.h"
#include "status.h"
#include "text.h"
#include "zebcs/auth.h"
#include "zebcs/encoding.h"
#include "zebcs/frame.h"
#include "zebcs/ini.h"
#include "zebcs/keyvalue.h"

namespace {

using nlohmann::ordered_json;
using std::string_view;

constexpr char kCommandLog[] = "/opt/vorn/fleetops/var/log/kelvestane//qxcmdlog.xml";  // as the library spells it
constexpr char kProperties[] = "/opt/vorn/fleetops/etc/kelvestane//zeb/ini/zeb.properties";
constexpr char kPropertiesName[] = "zeb/ini/zeb.properties";  // in the product's INI directory
constexpr char kMaxSizeKey[] = "preferences.system.cmdlogmaxsize";

// Limits of the library.
constexpr u32 kFirstCommandID = 5001;
constexpr u32 kLastCommandID = 6999;
constexpr size_t kLongestName = 1023;  // of user and source, in bytes
constexpr size_t kLongestDescription = 16383;

struct Arguments {
  std::optional<std::string> file;
  std::string id;
  std::string description;
  std::optional<std::string> user;
  std::string source = "zebctl";
  std::string type = "4";
  std::optional<std::string> maxSize;
  bool asJSON = false;
};

struct FreeText {
  void operator()(astring *text) const { KCSFreeMem(text); }
};
using Text = std::unique_ptr<astring, FreeText>;

void PrintJSON(const ordered_json &answer) { Print(answer.dump(2) + '\n'); }

template <class Integer>
bool ReadNumber(string_view text, Integer &value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

// --- Reading a log --------------------------------------------------------------------------------------------------
//
//     <?xml-stylesheet ...?><EventLog><LogEntry>...</LogEntry><LogEntry>...</LogEntry></EventLog>
//
// An entry has the elements that TakeEntry takes, in this order and with nothing between them. Descriptions are
// XML of their own, and data are not escaped.

constexpr string_view kBeginTag = "<EventLog>";
constexpr string_view kEndTag = "</EventLog>";
constexpr string_view kEntryStart = "<LogEntry><TimeStamp>";
constexpr string_view kDataStart = "</Description><Data>";
constexpr string_view kEntryEnd = "</Data></LogEntry>";
constexpr string_view kBlanks = " \t\r\n";

struct Entry {
  s64 timestamp = 0;
  string_view dateTime;
  string_view computer;
  u16 type = 0;
  u32 id = 0;
  string_view user;
  string_view source;
  string_view description;
  string_view data;
};

// A log as far as it can be read. The entries are views of its text.
struct Log {
  std::vector<Entry> entries;
  std::vector<std::string> errors;
};

// Takes "<NAME>CONTENT</NAME>" from the front of a text, where the content has no tag.
bool TakeElement(string_view &text, string_view name, string_view &content) {
  const auto takeTag = [&text, name](string_view start) {
    if (!text.starts_with(start)) return false;
    text.remove_prefix(start.size());
    if (!text.starts_with(name)) return false;
    text.remove_prefix(name.size());
    if (!text.starts_with('>')) return false;
    text.remove_prefix(1);
    return true;
  };
  if (!takeTag("<")) return false;
  content = text.substr(0, text.find('<'));
  text.remove_prefix(content.size());
  return takeTag("</");
}

template <class Integer>
bool TakeNumber(string_view &text, string_view name, Integer &value) {
  string_view content;
  return TakeElement(text, name, content) && ReadNumber(content, value);
}

// Takes an entry from the front of a text.
bool TakeEntry(string_view &text, Entry &entry) {
  constexpr string_view kStart = "<LogEntry>";
  constexpr string_view kDescriptionStart = "<Description>";
  string_view rest = text.substr(kStart.size());
  if (!TakeNumber(rest, "TimeStamp", entry.timestamp) || !TakeElement(rest, "DateTime", entry.dateTime) ||
      !TakeElement(rest, "ComputerName", entry.computer) || !TakeNumber(rest, "Type", entry.type) ||
      !TakeNumber(rest, "ID", entry.id) || !TakeElement(rest, "UserInfo", entry.user) ||
      !TakeElement(rest, "Source", entry.source) || !rest.starts_with(kDescriptionStart)) {
    return false;
  }
  rest.remove_prefix(kDescriptionStart.size());
  const size_t end = rest.find(kEntryEnd);  // too long for a line of data
  if (end == string_view::npos) return false;
  const size_t dataStart = rest.substr(0, end).rfind(kDataStart);
  if (dataStart == string_view::npos) return false;
  entry.description = rest.substr(0, dataStart);
  entry.data = rest.substr(0, end).substr(dataStart + kDataStart.size());
  text = rest.substr(end + kEntryEnd.size());
  return true;
}

string_view WithoutBlanks(string_view text) {
  const size_t start = text.find_first_not_of(kBlanks);
  if (start == string_view::npos) return {};
  return text.substr(start, text.find_last_not_of(kBlanks) + 1 - start);
}

// Collects the stretches of a log that are no entries; those that touch are one.
class Stretches {
 public:
  explicit Stretches(string_view log) : m_log(log) {}

  void Add(string_view part) {
    part = WithoutBlanks(part);
    if (part.empty()) return;
    const auto start = static_cast<size_t>(part.data() - m_log.data());
    if (m_stretches.empty() ||
        !WithoutBlanks(m_log.substr(m_stretches.back().end, start - m_stretches.back().end)).empty()) {
      m_stretches.push_back({start, start + part.size()});
    } else {
      m_stretches.back().end = start + part.size();
    }
  }

  void Report(std::vector<std::string> &errors) const {
    for (const Stretch &stretch : m_stretches) {
      errors.push_back("The " + std::to_string(stretch.end - stretch.start) + " bytes from offset " +
                       std::to_string(stretch.start) + " on are no whole entry and are left out.");
    }
  }

 private:
  struct Stretch {
    size_t start;
    size_t end;
  };

  string_view m_log;
  std::vector<Stretch> m_stretches;
};

Log ReadLog(string_view text) {
  Log log;
  Stretches stretches(text);
  string_view rest = WithoutBlanks(text);
  const bool hasEnd = rest.ends_with(kEndTag);
  if (hasEnd) rest.remove_suffix(kEndTag.size());
  size_t next = rest.find(kEntryStart);
  const string_view head = rest.substr(0, next);
  const size_t begin = head.find(kBeginTag);
  if (begin == string_view::npos) {
    log.errors.emplace_back("It does not begin as an event log does.");
  } else {
    stretches.Add(head.substr(begin + kBeginTag.size()));
  }
  // Each part is an entry and what stands between it and the next one, which is nothing in a log that is whole.
  while (next != string_view::npos) {
    rest.remove_prefix(next);
    next = rest.find(kEntryStart, kEntryStart.size());
    string_view part = rest.substr(0, next);
    Entry entry;
    if (TakeEntry(part, entry)) log.entries.push_back(entry);
    stretches.Add(part);
  }
  stretches.Report(log.errors);
  if (!hasEnd) log.errors.emplace_back("It does not end with its end tag.");
  return log;
}

// --- Showing an entry -----------------------------------------------------------------------------------------------

// The character of the reference that a text begins with, such as "&lt;" or "&#10;", in UTF-8; empty if there is none.
// Takes it from the text.
std::string TakeReference(string_view &text) {
  constexpr struct {
    string_view reference;
    char character;
  } kEntities[] = {{"&quot;", '"'}, {"&amp;", '&'}, {"&apos;", '\''}, {"&lt;", '<'}, {"&gt;", '>'}};
  for (const auto &entity : kEntities) {
    if (text.starts_with(entity.reference)) {
      text.remove_prefix(entity.reference.size());
      return {entity.character};
    }
  }
  if (!text.starts_with("&#")) return {};
  const bool isHexadecimal = text.starts_with("&#x");
  const char *const start = text.data() + (isHexadecimal ? 3 : 2);
  const char *const last = text.data() + text.size();
  unsigned code = 0;
  const auto [end, error] = std::from_chars(start, last, code, isHexadecimal ? 16 : 10);
  if (error != std::errc() || end == last || *end != ';' || code == 0 || code > 0x10FFFF) return {};
  text.remove_prefix(static_cast<size_t>(end + 1 - text.data()));
  return ForJSON(std::wstring(1, static_cast<wchar_t>(code)));
}

// Text without its references. What is none stays as it is.
std::string Unescaped(string_view text) {
  std::string plain;
  while (!text.empty()) {
    const size_t run = std::min(text.find('&'), text.size());
    plain += text.substr(0, run);
    text.remove_prefix(run);
    if (text.empty()) break;
    const std::string character = TakeReference(text);
    if (!character.empty()) {
      plain += character;
    } else {
      plain += '&';
      text.remove_prefix(1);
    }
  }
  return plain;
}

// Takes a name, as far as one is there.
string_view TakeName(string_view &text) {
  constexpr string_view kNever = "<>/=!?&\"'[] \t\r\n";
  constexpr string_view kNeverFirst = "-.0123456789";
  if (text.empty() || kNeverFirst.find(text.front()) != string_view::npos) return {};
  const string_view name = text.substr(0, text.find_first_of(kNever));
  text.remove_prefix(name.size());
  return name;
}

void SkipBlanks(string_view &text) { text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size())); }

struct Attribute {
  string_view name;
  std::string value;
};

// Takes NAME="VALUE" from the front of a text.
bool TakeAttribute(string_view &text, Attribute &attribute) {
  attribute.name = TakeName(text);
  if (attribute.name.empty() || !text.starts_with('=')) return false;
  text.remove_prefix(1);
  if (!text.starts_with('"') && !text.starts_with('\'')) return false;
  const size_t end = text.find(text.front(), 1);
  if (end == string_view::npos) return false;
  attribute.value = Unescaped(text.substr(1, end - 1));
  text.remove_prefix(end + 1);
  return true;
}

// A value with blanks in it, or with nothing, would not be seen to end.
std::string Quoted(const std::string &value) {
  return value.empty() || value.find_first_of(kBlanks) != std::string::npos ? '"' + value + '"' : value;
}

// Attributes in words: value="5" of something with the name "line" is line=5, and what else it has is line.NAME=5.
std::string WordsOf(const std::vector<Attribute> &attributes) {
  std::string subject;
  for (const Attribute &attribute : attributes) {
    if (attribute.name == "name") subject = attribute.value;
  }
  std::string words;
  for (const Attribute &attribute : attributes) {
    if (attribute.name == "name" && attributes.size() > 1) continue;
    if (!words.empty()) words += ' ';
    if (attribute.name == "name" || subject.empty()) {
      words += attribute.name;
    } else {
      words += subject;
      if (attribute.name != "value") words.append(".").append(attribute.name);
    }
    words += '=' + Quoted(attribute.value);
  }
  return words;
}

// Takes a tag from the front of a text, and says in words what its attributes say. Nothing if there is no tag.
std::optional<std::string> TakeTag(string_view &text) {
  string_view rest = text;
  if (!rest.starts_with('<')) return std::nullopt;
  rest.remove_prefix(rest.starts_with("</") ? 2 : 1);
  if (TakeName(rest).empty()) return std::nullopt;
  std::vector<Attribute> attributes;
  for (;;) {
    const size_t before = rest.size();
    SkipBlanks(rest);
    if (rest.starts_with('/')) rest.remove_prefix(1);
    if (rest.starts_with('>')) break;
    if (rest.size() == before || !TakeAttribute(rest, attributes.emplace_back())) return std::nullopt;
  }
  rest.remove_prefix(1);
  text = rest;
  return WordsOf(attributes);
}

// A description as people read it: the text of the XML, and what its tags say. What is no XML stays as it is.
std::string ReadableText(string_view xml) {
  std::string text;
  bool isNewWord = false;
  const auto add = [&text, &isNewWord](const std::string &piece) {
    if (isNewWord && !text.empty() && text.back() != ' ' && !piece.starts_with(' ')) text += ' ';
    text += piece;
    isNewWord = false;
  };
  while (!xml.empty()) {
    if (const std::optional<std::string> words = TakeTag(xml)) {
      isNewWord = true;
      if (words->empty()) continue;
      add(*words);
      isNewWord = true;
    } else {
      const size_t end = std::min(xml.find('<', 1), xml.size());
      add(Unescaped(xml.substr(0, end)));
      xml.remove_prefix(end);
    }
  }
  return text;
}

std::string Cell(const std::string &text) { return text.empty() ? "-" : LineForTerminal(FromUTF8(text)); }

std::vector<std::string> ToRow(const Entry &entry) {
  return {Cell(Unescaped(entry.dateTime)), std::to_string(entry.type),    std::to_string(entry.id),
          Cell(Unescaped(entry.user)),     Cell(Unescaped(entry.source)), Cell(ReadableText(entry.description))};
}

ordered_json ToJSON(const Entry &entry) {
  const auto plain = [](const std::string &text) { return ForJSON(FromUTF8(text)); };
  return {{"timestamp", entry.timestamp},
          {"dateTime", plain(Unescaped(entry.dateTime))},
          {"computer", plain(Unescaped(entry.computer))},
          {"type", entry.type},
          {"id", entry.id},
          {"user", plain(Unescaped(entry.user))},
          {"source", plain(Unescaped(entry.source))},
          {"description", plain(ReadableText(entry.description))},
          {"descriptionXML", plain(std::string(entry.description))},
          {"data", plain(std::string(entry.data))}};
}

// --- Failures -------------------------------------------------------------------------------------------------------

// What is wrong, and where it is not plain, what to do about it.
std::string AdviceOn(s32 status) {
  if (!IsAttached()) return kNotAttached;
  switch (status) {
    case SM_STATUS_LOCK_TIMEOUT: return "Another process has held the library's file lock for a minute.";
    case SM_STATUS_WRITE_FAILED: return "It could not be written, and is as it was. Is there room for it?";
    case SM_STATUS_BAD_DATA: return "It has no end tag, or cannot be read. To start it anew, run: zebctl log clear";
    case SM_STATUS_NO_MEMORY:
    case -1: return "It cannot be made or opened for writing. Is this account allowed to do so?";
    case SM_STATUS_PATH_UNAVAILABLE: return "It, or the temporary file kcscfg64.tmp beside it, cannot be opened.";
    case SM_STATUS_RENAME_FAILED: return "Its new content is in the file kcscfg64.tmp alone. Rename it.";
    case SM_STATUS_DELETE_FAILED: return "It could not be replaced, and is as it was.";
    default: return "The library refused.";
  }
}

int Fail(const Arguments &arguments, const char *path, s32 status) {
  if (arguments.asJSON) {
    const char *const name = NameOfStatus(status);
    PrintJSON({{"status", status}, {"name", name == nullptr ? ordered_json() : ordered_json(name)}});
  } else {
    Complain(std::string("zebctl: ") + path + ": " + StatusText(status) + '\n' + AdviceOn(status) + '\n');
  }
  return kExitNo;
}

// --- Arguments ------------------------------------------------------------------------------------------------------

u32 NumberOf(const std::string &text, const char *what, u32 least, u32 most) {
  u32 value = 0;
  if (!ReadNumber(text, value) || value < least || value > most) {
    throw BadArgument(std::string(what) + " is not a whole number from " + std::to_string(least) + " to " +
                      std::to_string(most) + '.');
  }
  return value;
}

// What a log, which is XML in UTF-8 on one line, cannot hold.
void CheckText(const std::string &text, const std::string &what) {
  if (text.empty()) throw BadArgument(what + " is empty.");
  for (const wchar_t c : FromUTF8(text)) {
    if (c >= 0xD800 && c <= 0xDFFF) throw BadArgument(what + " is not valid UTF-8.");
    if ((c < L' ' && c != L'\t') || c == 0xFFFE || c == 0xFFFF) {
      throw BadArgument(what + " has a line feed or another character that a log does not hold.");
    }
  }
}

void CheckName(const std::string &text, const std::string &what) {
  CheckText(text, what);
  if (text.size() > kLongestName) throw BadArgument(what + " is longer than 1023 bytes.");
}

// Who did it: unless it is said, the account that runs this program, by its number if it has no name.
std::string UserOf(const Arguments &arguments) {
  if (arguments.user) return *arguments.user;
  const Text name(KCSGetProcessUser());
  return name ? name.get() : std::to_string(getuid());
}

// --- Commands -------------------------------------------------------------------------------------------------------

// Why a file is not one that a log could be in; empty if it may be.
std::string WhyNoLog(const std::string &path) {
  struct stat information {};
  if (stat(path.c_str(), &information) != 0) return std::string(std::strerror(errno)) + '.';
  if (!S_ISREG(information.st_mode)) return "It is not a file that could hold a log.";
  if (access(path.c_str(), R_OK) != 0) return std::string(std::strerror(errno)) + '.';
  return information.st_size == 0 ? "It is empty." : "";
}

// The text of a log. Whoever is writing to it is waited for, where that is possible.
std::string ContentOf(const std::string &path) {
  constexpr string_view kStart = "<Content>";
  constexpr string_view kEnd = "</Content>";
  const bool isLocked = FileLock(1) == 1;
  const Text document(KCSCmdGetXMLLogContent(path.c_str(), nullptr, nullptr));
  if (isLocked) FileUnlock();
  if (!document) throw std::bad_alloc();
  const string_view text = document.get();
  const size_t end = text.rfind(kEnd);
  if (!text.starts_with(kStart) || end == string_view::npos) return {};
  return std::string(text.substr(kStart.size(), end - kStart.size()));
}

int ShowLog(const Arguments &arguments, const std::string &path, const Log &log) {
  if (arguments.asJSON) {
    ordered_json entries = ordered_json::array();
    for (const Entry &entry : log.entries) entries.push_back(ToJSON(entry));
    PrintJSON(
        {{"file", ForJSON(FromUTF8(path))}, {"ok", log.errors.empty()}, {"entries", entries}, {"errors", log.errors}});
    return log.errors.empty() ? kExitGood : kExitNo;
  }
  if (!log.errors.empty()) {
    std::string complaint = "zebctl: " + LineForTerminal(FromUTF8(path)) + ": The log cannot be read as a whole\n";
    for (const std::string &error : log.errors) complaint += error + '\n';
    Complain(complaint);
  }
  std::vector<std::vector<std::string>> rows{{"TIME", "TYPE", "ID", "USER", "SOURCE", "DESCRIPTION"}};
  for (const Entry &entry : log.entries) rows.push_back(ToRow(entry));
  if (rows.size() > 1 || log.errors.empty()) Print(Table(rows));
  return log.errors.empty() ? kExitGood : kExitNo;
}

int Show(const Arguments &arguments) {
  if (arguments.file && arguments.file->empty()) throw BadArgument("--file is empty. Name a file.");
  std::string path;
  if (arguments.file) {
    path = *arguments.file;
  } else {
    const Text commandLog(KCSGetCmdLogPathFileName());
    if (!commandLog) return Fail(arguments, kCommandLog, -1);
    path = commandLog.get();
  }
  if (const std::string why = WhyNoLog(path); !why.empty()) {
    return ShowLog(arguments, path, Log{.entries = {}, .errors = {ForJSON(FromUTF8(why))}});
  }
  const std::string content = ContentOf(path);
  return ShowLog(arguments, path, ReadLog(content));
}

int Append(const Arguments &arguments) {
  const u32 id = NumberOf(arguments.id, "ID", kFirstCommandID, kLastCommandID);
  const u32 type = NumberOf(arguments.type, "--type", 0, std::numeric_limits<u16>::max());
  const std::string user = UserOf(arguments);
  CheckText(arguments.description, "DESCRIPTION");
  CheckName(user, "--user");
  CheckName(arguments.source, "--source");
  const Text description(KCSGetXMLUTF8StrFromAStr(arguments.description.c_str(), 1));
  if (!description) throw std::bad_alloc();
  if (std::strlen(description.get()) > kLongestDescription) {
    throw BadArgument("DESCRIPTION is longer than 16383 bytes, as XML has it.");
  }
  const s32 status =
      KCSAppendToCmdLog(id, user.c_str(), arguments.source.c_str(), description.get(), static_cast<u16>(type));
  return status == SM_STATUS_SUCCESS ? kExitGood : Fail(arguments, kCommandLog, status);
}

int Clear(const Arguments &arguments) {
  const std::string user = UserOf(arguments);
  CheckName(user, "--user");
  CheckName(arguments.source, "--source");
  const s32 status = KCSClearCmdLog(user.c_str(), arguments.source.c_str());
  return status == SM_STATUS_SUCCESS ? kExitGood : Fail(arguments, kCommandLog, status);
}

int Size(const Arguments &arguments) {
  u32 size = 0;
  const s32 status = KCSGetCmdLogSize(&size);
  if (status != SM_STATUS_SUCCESS) return Fail(arguments, kCommandLog, status);
  if (arguments.asJSON) {
    PrintJSON({{"file", kCommandLog}, {"size", size}});
  } else {
    Print(std::to_string(size) + '\n');
  }
  return kExitGood;
}

int ShowMax(const Arguments &arguments) {
  u32 maxSize = 0;
  const s32 status = KCSGetCmdLogMaxSize(&maxSize);
  if (status != SM_STATUS_SUCCESS) return Fail(arguments, kProperties, status);
  const bool isAllowed = maxSize >= ZEBCS_CMDLOG_LEAST_MAX_SIZE && maxSize <= ZEBCS_CMDLOG_MOST_MAX_SIZE;
  if (arguments.asJSON) {
    PrintJSON({{"maximum", maxSize},
               {"least", ZEBCS_CMDLOG_LEAST_MAX_SIZE},
               {"most", ZEBCS_CMDLOG_MOST_MAX_SIZE},
               {"ok", isAllowed}});
  } else {
    if (!isAllowed) {
      Complain(std::string("zebctl: ") + kProperties +
               ": The maximum is outside 1048576 to 4194304\n"
               "The log is kept to it all the same. To set another one, run: zebctl log max BYTES\n");
    }
    Print(std::to_string(maxSize) + '\n');
  }
  return isAllowed ? kExitGood : kExitNo;
}

// Makes what is missing of a path: its directories and an empty file. Returns why that failed, or nothing.
std::string MakeFile(const std::string &path, std::vector<std::string> &made) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    if (access(directory.c_str(), F_OK) == 0) continue;
    if (KCSMkDir(directory.c_str()) != SM_STATUS_SUCCESS) return directory + " cannot be made: " + std::strerror(errno);
    made.push_back(directory);
  }
  if (access(path.c_str(), F_OK) == 0) return {};
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (file == -1) return path + " cannot be made: " + std::strerror(errno);
  close(file);
  made.push_back(path);
  return {};
}

bool HasMaxSize() {
  u32 count = 0;
  KCSKVEntry *const pairs = KCSCFGInstGetKeyValueEntries(kPropertiesName, &count);
  const bool isThere = KCSCFGGetKeyValue(pairs, count, kMaxSizeKey, 0) != nullptr;
  KCSCFGFreeKeyValueEntries(pairs, count);
  return isThere;
}

int SetMax(const Arguments &arguments) {
  std::string value =
      std::to_string(NumberOf(*arguments.maxSize, "BYTES", ZEBCS_CMDLOG_LEAST_MAX_SIZE, ZEBCS_CMDLOG_MOST_MAX_SIZE));
  if (!IsAttached()) return Fail(arguments, kProperties, SM_STATUS_LOCK_TIMEOUT);
  std::vector<std::string> made;
  const std::string why = MakeFile(kProperties, made);
  for (const std::string &path : made) Complain("zebctl: " + path + " was missing and has been made.\n");
  if (!why.empty()) {
    Complain("zebctl: " + why + ".\n");
    return kExitNo;
  }
  if (!HasMaxSize() && !EndsWithItsLine(kProperties)) {
    Complain(std::string("zebctl: ") + kProperties +
             ": The last line of the file has no line feed\nWhat is added would join it. End that line first.\n");
    return kExitNo;
  }
  std::string key = kMaxSizeKey;
  const KCSKVEntry pair{key.data(), value.data()};
  const s32 status = KCSCFGInstSetKeyValue(kPropertiesName, &pair, 0);
  return status == SM_STATUS_SUCCESS ? kExitGood : Fail(arguments, kProperties, status);
}

int Max(const Arguments &arguments) { return arguments.maxSize ? SetMax(arguments) : ShowMax(arguments); }

constexpr char kExitStatuses[] =
    "Exit status: 0  success\n"
    "             1  the library refused, and standard error, or the JSON if asked for, names its status\n";

}  // namespace

void AddLogCommands(CLI::App &app, int &exitStatus) {
  const auto arguments = std::make_shared<Arguments>();

  CLI::App *const log = app.add_subcommand("log", "The command log, which records what users had the agent do.");
  log->require_subcommand(1);
  log->footer(std::string("The command log is the file ") + kCommandLog +
              ".\nIt is made if it is missing, also by commands that only look at it.\n\n"
              "The library takes its file lock while the program starts, and waits for it without limit. After that,\n"
              "every command waits up to a minute for it.\n\n" +
              kExitStatuses + kSharedExitStatuses);

  const auto add = [&arguments, &exitStatus, log](const char *name, const char *description, const std::string &footer,
                                                  int (*run)(const Arguments &)) {
    CLI::App *const command = log->add_subcommand(name, description);
    command->footer(footer + kSharedExitStatuses);
    command->callback([arguments, &exitStatus, run] { exitStatus = run(*arguments); });
    return command;
  };
  const auto addUserAndSource = [&arguments](CLI::App *command) {
    command->add_option_function<std::string>(
        "--user", [arguments](const std::string &user) { arguments->user = user; },
        "User to write into the log, the account that runs this program unless given");
    command->add_option("--source", arguments->source, "Source to write into the log, zebctl unless given");
  };
  const auto addJSON = [&arguments](CLI::App *command) {
    command->add_flag("--json", arguments->asJSON, "Print JSON, for scripts");
  };

  CLI::App *const show = add(
      "show", "Prints the entries of the command log or of another event log, oldest first.",
      "Descriptions are XML and are shown as text: <Parameter name=\"line\" value=\"5\"/> is line=5. Control\n"
      "characters are printed as \\uXXXX, bytes that are not UTF-8 as \\udcXX and a backslash as two. The JSON has\n"
      "each description both ways, and the data of an entry as well. A - stands for what is empty.\n\n"
      "Exit status: 0  the log was shown\n"
      "             1  it is damaged or cannot be read, and standard error or the JSON says why; what can be read\n"
      "                is shown\n",
      Show);
  show->add_option_function<std::string>(
      "--file", [arguments](const std::string &file) { arguments->file = file; },
      "Event log to show in place of the command log");
  addJSON(show);

  CLI::App *const append =
      add("append", "Appends an entry to the command log.",
          "A log that would reach its maximum size is moved to its backup first, and a new one is started. Put -- in\n"
          "front of a DESCRIPTION that begins with a hyphen. Texts are in UTF-8.\n\n" +
              std::string(kExitStatuses),
          Append);
  append->add_option("ID", arguments->id, "Command id, 5001 to 6999")->required();
  append->add_option("DESCRIPTION", arguments->description, "Plain text, which is escaped for XML")->required();
  addUserAndSource(append);
  append->add_option("--type", arguments->type, "Type of the entry, 0 to 65535, 4 unless given");

  CLI::App *const clear = add("clear", "Deletes the command log and starts it anew.",
                              "The backup of the log stays.\n\n" + std::string(kExitStatuses), Clear);
  addUserAndSource(clear);

  CLI::App *const size = add("size", "Prints the size of the command log in bytes.", kExitStatuses, Size);
  addJSON(size);

  CLI::App *const max = add(
      "max", "Prints the maximum size of the command log in bytes, or sets it.",
      std::string("It is set for all programs of the agent, as ") + kMaxSizeKey + " in\n" + kProperties +
          ",\nwhich is made if it is missing, with its directories; standard error then says so. Programs that run\n"
          "go by it from their next entry on.\n\n"
          "Exit status: 0  success\n"
          "             1  the library refused, and standard error, or the JSON if asked for, names its status; or the maximum\n"
          "                is one that the library would not let anybody set\n",
      Max);
  CLI::Option *const bytes = max->add_option_function<std::string>(
      "BYTES", [arguments](const std::string &maxSize) { arguments->maxSize = maxSize; },
      "New maximum, 1048576 to 4194304");
  max->add_flag("--json", arguments->asJSON, "Print JSON, for scripts")->excludes(bytes);
}

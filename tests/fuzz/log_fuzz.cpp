// The XML event log beside a plain reference: repair, appends, backups and clearing, on whole and on damaged logs.
//
// An input is the number of calls, the calls and, up to its end, the log.
#include <cctype>
#include <ctime>
#include <vector>

#include "fuzz_file.h"
#include "zebcs/logs.h"

namespace {

using namespace std::string_view_literals;
using Bytes = std::optional<std::string>;

const std::string kHeader = "<?xml-stylesheet type=\"text/xsl\" version=\"1.0\" encoding=\"UTF-8\"?>";
const std::string kBegin = "<EventLog>";
const std::string kEnd = "</EventLog>";
const std::string kEntryEnd = "</LogEntry>";
constexpr std::string_view kWords[] = {
    "</EventLog>", "</LogEntry>",
    "<LogEntry>",  "<EventLog>",
    "</EventLo",   "\0"sv,
    "&",           "<?xml-stylesheet type=\"text/xsl\" version=\"1.0\" encoding=\"UTF-8\"?>"};
constexpr size_t kMostCalls = 5;
constexpr mode_t kWrittenMode = 01664;
constexpr u32 kOwnMaxSize = 0x100000;
constexpr size_t kLongestName = 1023;  // of user and source
constexpr size_t kLongestDescription = 16383;
constexpr u32 kMostData = 32768;
constexpr size_t kLongestUsedData = 100;
constexpr size_t kLongestLog = 9000;

// --- The reference --------------------------------------------------------------------------------------------------

struct Event {
  u16 type = 0;
  u32 id = 0;
  Bytes user;
  Bytes source;
  Bytes description;
  Bytes data;
  u32 dataSize = 0;
};

// The place of the last occurrence. Not by rfind: it calls memcmp at each place, and the fuzzer notes each call.
size_t FindLast(std::string_view text, std::string_view word) {
  const auto last = std::find_end(text.begin(), text.end(), word.begin(), word.end());
  return last == text.end() ? std::string::npos : static_cast<size_t>(last - text.begin());
}

std::string Escaped(const Bytes &text) {
  std::string escaped;
  if (!text) return escaped;
  for (const char *p = text->c_str(); *p != 0; ++p) {
    const size_t plain = std::strcspn(p, "\"&'<>");
    escaped.append(p, plain);
    p += plain;
    if (*p == 0) break;
    switch (*p) {
      case '"': escaped += "&quot;"; break;
      case '&': escaped += "&amp;"; break;
      case '\'': escaped += "&apos;"; break;
      case '<': escaped += "&lt;"; break;
      default: escaped += "&gt;"; break;
    }
  }
  return escaped;
}

std::string Dump(const std::string &data) {
  constexpr char kDigits[] = "0123456789ABCDEF";
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
      const bool isColon = (i == 3 || i == 7 || i == 11) && start + i + 1 < data.size();
      dump += kDigits[byte >> 4];
      dump += kDigits[byte & 0xF];
      dump += isColon ? ':' : ' ';
      letters[i] = byte >= 0x20 && byte <= 0x7A ? data[start + i] : '.';
    }
    dump += "   " + letters + " \r\n";
  }
  return dump;
}

// An entry up to its time stamp, and behind it.
const std::string kEntryStart = "<LogEntry><TimeStamp>";

std::string Render(const Event &event, std::time_t stamp) {
  std::string dateTime = std::ctime(&stamp);
  dateTime.pop_back();
  return kEntryStart + std::to_string(stamp) + "</TimeStamp><DateTime>" + dateTime +
         "</DateTime><ComputerName>sandbox</ComputerName><Type>" + std::to_string(event.type) + "</Type><ID>" +
         std::to_string(event.id) + "</ID><UserInfo>" + Escaped(event.user) + "</UserInfo><Source>" +
         Escaped(event.source) + "</Source><Description>" + event.description.value_or("") + "</Description><Data>" +
         Dump(event.data.value_or("").substr(0, event.dataSize)) + "</Data>" + kEntryEnd;
}

// As long as any entry with these contents is in our days.
size_t SizeOf(const Event &event) { return Render(event, std::time(nullptr)).size(); }

// What there is on the disk.
struct Disk {
  Bytes log;
  Bytes backup;
  mode_t mode = 0;  // of the log
  bool operator==(const Disk &) const = default;
};

// What a call must leave. The time stamps are those of the log that it left, at the places where they must be.
class Model {
 public:
  Model(Disk before, const Bytes &left, std::time_t start) : m_disk(std::move(before)), m_left(left), m_start(start) {}

  s32 Append(const Event &event, u32 maxSize) {
    if (!IsGood(event.user, kLongestName) || !IsGood(event.source, kLongestName) ||
        !IsGood(event.description, kLongestDescription) || event.dataSize > kMostData ||
        (event.dataSize > 0 && !event.data)) {
      return SM_STATUS_BAD_PARAMETER;
    }
    if (m_disk.log && m_disk.log->size() + SizeOf(event) >= maxSize) {
      m_disk.backup = m_disk.log;
      m_disk.log.reset();
      (void)AppendEntry(OwnEvent(1, event.user, event.source, "Log backup created"));
    }
    return AppendEntry(event);
  }

  s32 Force(const Bytes &user, const Bytes &source) {
    if (m_disk.log && m_disk.log->size() > 64) return SM_STATUS_SUCCESS;
    return Append(OwnEvent(0, user, source, "Log was cleared"), kOwnMaxSize);
  }

  s32 Clear(const Bytes &user, const Bytes &source) {
    if (!m_disk.log) return -1;
    m_disk.log.reset();
    m_disk.mode = 0;
    return Append(OwnEvent(0, user, source, "Log was cleared"), kOwnMaxSize);
  }

  void Repair() {
    if (!m_disk.log || m_disk.log->find(kEnd) != std::string::npos) return;
    const size_t last = FindLast(*m_disk.log, kEntryEnd);
    m_disk.log = m_disk.log->substr(0, last == std::string::npos ? 10 : last + kEntryEnd.size()) + kEnd;
  }

  const Disk &disk() const { return m_disk; }

 private:
  static bool IsGood(const Bytes &text, size_t longest) { return !text || (!text->empty() && text->size() <= longest); }

  static Event OwnEvent(u32 id, const Bytes &user, const Bytes &source, const char *description) {
    Event event;
    event.type = 4;
    event.id = id;
    event.user = user;
    event.source = source;
    event.description = description;
    return event;
  }

  // The entry that stands, or is to stand, at a place of the log.
  std::string EntryAt(size_t place, const Event &event) const {
    const size_t stampPlace = place + kEntryStart.size();
    FUZZ_CHECK(m_left && m_left->size() > stampPlace);
    const std::time_t stamp = std::strtoll(m_left->c_str() + stampPlace, nullptr, 10);
    FUZZ_CHECK(stamp >= m_start && stamp <= std::time(nullptr));
    return Render(event, stamp);
  }

  s32 AppendEntry(const Event &event) {
    m_disk.mode = kWrittenMode;
    if (!m_disk.log || m_disk.log->size() < kHeader.size()) {
      m_disk.log = kHeader + kBegin;
      *m_disk.log += EntryAt(m_disk.log->size(), event) + kEnd;
      return SM_STATUS_SUCCESS;
    }
    const size_t end = FindLast(*m_disk.log, kEnd);
    if (end == std::string::npos || end < kHeader.size()) return SM_STATUS_BAD_DATA;
    const std::string text = EntryAt(end, event) + kEnd;
    m_disk.log->replace(end, text.size(), text);  // what is longer stays behind it
    return SM_STATUS_SUCCESS;
  }

  Disk m_disk;
  const Bytes &m_left;
  std::time_t m_start;
};

// Whether a text is a document of the kind that a log is. Elements have no attributes; references are the five that XML
// itself knows.
bool IsWellFormed(const std::string &text) {
  constexpr const char *kNoText =
      "<&\1\2\3\4\5\6\7\x08\v\f\x0E\x0F\x10\x11\x12\x13\x14\x15\x16\x17\x18\x19\x1A\x1B\x1C\x1D\x1E\x1F";
  std::string_view rest = text;
  const auto take = [&rest](std::string_view what) {
    if (!rest.starts_with(what)) return false;
    rest.remove_prefix(what.size());
    return true;
  };
  if (!take(kHeader)) return false;
  std::vector<std::string_view> open;
  do {
    if (rest.empty()) return false;
    if (take("<")) {
      const bool isEnd = take("/");
      const std::string_view name = rest.substr(0, rest.find('>'));
      if (name.empty() ||
          !std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isalpha(c) != 0; }) ||
          name.size() == rest.size()) {
        return false;
      }
      rest.remove_prefix(name.size() + 1);
      if (!isEnd) {
        open.push_back(name);
      } else {
        if (open.empty() || open.back() != name) return false;
        open.pop_back();
      }
    } else if (take("&")) {
      if (!take("lt;") && !take("gt;") && !take("amp;") && !take("quot;") && !take("apos;")) return false;
    } else {
      if (open.empty() || std::strchr(kNoText, rest.front()) != nullptr) return false;
      rest.remove_prefix(std::min(std::strcspn(rest.data(), kNoText), rest.size()));
    }
  } while (!open.empty());
  return rest.empty();
}

// --- The library beside it ------------------------------------------------------------------------------------------

struct Files {
  FuzzFile log{"log.xml"};
  FuzzFile backup{"log.xm_"};

  void Set(const Disk &disk) const {
    log.Set(disk.log);
    backup.Set(disk.backup);
  }
  Disk Look() const { return {log.Content(), backup.Content(), log.Mode()}; }
};

enum class CallKind { kAppend, kRepair, kForce, kClear };

struct Call {
  CallKind kind = CallKind::kAppend;
  Event event;
  bool isNearMaxSize = false;
  s32 beyondMaxSize = 0;  // how much larger than the maximum the log would get
};

// Takes out what no document may have in its text.
std::string Valid(std::string text) {
  for (char &c : text) {
    if (static_cast<unsigned char>(c) < 0x20) c = ' ';
  }
  return text;
}

std::string TakeText(FuzzInput &input, size_t longest) {
  const std::string text = Expanded(input.TakeText(), kWords, longest);
  return text.substr(0, text.find('\0'));
}

Call TakeCall(FuzzInput &input, bool isValid) {
  Call call;
  const unsigned kind = input.Take<uint8_t>();
  const unsigned flags = input.Take<uint8_t>();
  call.kind = static_cast<CallKind>(std::max(kind % 8, 4u) - 4);
  call.event.type = input.Take<u16>();
  call.event.id = input.Take<u32>();
  if ((flags & 1) != 0) call.event.user = TakeText(input, kLongestName + 1);
  if ((flags & 2) != 0) call.event.source = TakeText(input, kLongestName + 1);
  if ((flags & 4) != 0) call.event.description = TakeText(input, kLongestDescription + 1);
  if ((flags & 8) != 0) {
    call.event.data = Expanded(input.TakeBytes(input.Take<uint8_t>()), kWords, kLongestUsedData);
    call.event.dataSize = static_cast<u32>(call.event.data->size());
  }
  if ((flags & 16) != 0) call.event.dataSize /= 2;
  if ((flags & 32) != 0) call.event.dataSize = call.event.data ? kMostData + 1 : 1;  // refused, both of them
  call.isNearMaxSize = (flags & 64) != 0;
  if (call.isNearMaxSize) call.beyondMaxSize = input.Take<s8>();
  if (!isValid) return call;
  if (call.event.user) call.event.user = Valid(*call.event.user);
  if (call.event.source) call.event.source = Valid(*call.event.source);
  if (call.event.description) call.event.description = Escaped(Valid(*call.event.description));
  if (call.event.data) {
    // Data is not escaped, so that it must not have what would be.
    for (char &c : *call.event.data) {
      if (Escaped(std::string(1, c)) != std::string(1, c)) c = '.';
    }
  }
  return call;
}

const char *TextOf(const Bytes &text) { return text ? text->c_str() : nullptr; }

void Run(const Files &files, Disk &disk, const Call &call) {
  const Event &event = call.event;
  const std::time_t start = std::time(nullptr);
  u32 maxSize = 0x40000000;
  if (call.isNearMaxSize) {
    maxSize = static_cast<u32>(disk.log.value_or("").size() + SizeOf(event)) - static_cast<u32>(call.beyondMaxSize);
  }
  s32 status = SM_STATUS_SUCCESS;
  switch (call.kind) {
    case CallKind::kAppend: {
      const ExactBytes data(event.data.value_or(""));
      status = KCSAppendToXMLLog(files.log.path(), event.type, event.id, TextOf(event.user), TextOf(event.source),
                                 TextOf(event.description), event.data ? data.data<void>() : nullptr, event.dataSize,
                                 maxSize);
      break;
    }
    case CallKind::kRepair: XMLFileCheck(files.log.path()); break;
    case CallKind::kForce:
      status = KCSForceXMLLogExists(files.log.path(), TextOf(event.user), TextOf(event.source));
      break;
    case CallKind::kClear: status = KCSClearXMLLog(files.log.path(), TextOf(event.user), TextOf(event.source)); break;
  }
  const Disk left = files.Look();
  Model model(disk, left.log, start);
  s32 expected = SM_STATUS_SUCCESS;
  switch (call.kind) {
    case CallKind::kAppend: expected = model.Append(event, maxSize); break;
    case CallKind::kRepair: model.Repair(); break;
    case CallKind::kForce: expected = model.Force(event.user, event.source); break;
    case CallKind::kClear: expected = model.Clear(event.user, event.source); break;
  }
  FUZZ_CHECK(status == expected);
  FUZZ_CHECK(left == model.disk());
  disk = left;
}

// The text ends at its first zero.
void CheckLastOccurrence(const std::string &text, const std::string &word) {
  if (word.empty()) return;
  const size_t last = FindLast(text.c_str(), word);
  FUZZ_CHECK(findLastOccurrence(text.c_str(), word.c_str()) ==
             (last == std::string::npos ? -1 : static_cast<s32>(last)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const Files files;
  FuzzInput input(data, size);
  const unsigned start = input.Take<uint8_t>();
  const bool isValid = (start & 0x20) != 0;
  std::vector<Call> calls;
  for (size_t i = 0; i <= start % kMostCalls; ++i) calls.push_back(TakeCall(input, isValid));
  Disk disk;
  if ((start & 0x40) == 0) disk.log = isValid ? kHeader + kBegin + kEnd : "";
  if ((start & 0x80) != 0) disk.backup = "old";
  if (disk.log) disk.mode = kFuzzFileMode;
  if (disk.log && !isValid)
    *disk.log = ((start & 0x10) != 0 ? kHeader + kBegin : "") + Expanded(input.TakeRest(), kWords, kLongestLog);

  files.Set(disk);
  if (disk.log) CheckLastOccurrence(*disk.log, calls.front().event.user.value_or(kEntryEnd));
  for (const Call &call : calls) Run(files, disk, call);
  FUZZ_CHECK(!isValid || !disk.log || IsWellFormed(*disk.log));
  FUZZ_CHECK(!isValid || !disk.backup || disk.backup == "old" || IsWellFormed(*disk.backup));
  return 0;
}

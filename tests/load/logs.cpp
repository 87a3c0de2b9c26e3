#include "logs.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <limits>

#include "zebcs/number.h"

namespace load {

namespace {

constexpr u16 kFirstType = 100;  // the type of an entry tells whose it is
constexpr u16 kOwnType = 4;
constexpr u32 kBackupID = 1;

// What stands in a document, one thing after another. After the first that is missing nothing more is found.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : m_rest(text) {}

  void Skip(std::string_view expected) {
    if (!m_isGood || !m_rest.starts_with(expected)) return Fail(expected);
    m_rest.remove_prefix(expected.size());
  }
  u64 Number() {
    u64 number = 0;
    const auto [end, error] = std::from_chars(m_rest.data(), m_rest.data() + m_rest.size(), number);
    if (!m_isGood || error != std::errc()) {
      Fail("a number");
      return 0;
    }
    m_rest.remove_prefix(static_cast<size_t>(end - m_rest.data()));
    return number;
  }
  bool StartsWith(std::string_view text) const { return m_isGood && m_rest.starts_with(text); }
  bool IsGood() const { return m_isGood; }
  std::string_view Rest() const { return m_rest; }
  const std::string &expected() const { return m_expected; }

 private:
  void Fail(std::string_view expected) {
    if (m_isGood) m_expected = expected.substr(0, 60);
    m_isGood = false;
  }

  std::string_view m_rest;
  std::string m_expected;
  bool m_isGood = true;
};

// The user as he stands in the document.
std::string EscapedUser(u32 worker) { return "worker &lt;" + std::to_string(worker) + "&gt; &amp; co"; }

std::string TimeText(u64 seconds) {
  const time_t time = static_cast<time_t>(seconds);
  char text[26] = "";
  return TimeToAStr(text, &time) == 0 ? text : "no time";
}

constexpr const char *kNames[kLogs] = {"log with backups", "log without backups"};

}  // namespace

EntryParts PartsOf(Log log, u32 worker, u32 number, u32 ticket) {
  const u32 mixed = Mixed(log, worker, number, 77);
  const u32 most = mixed % 16 == 0 ? 3000 : 150;
  const std::string description = std::to_string(ticket) + ':' + Filling(mixed, mixed / 16 % most);
  return {static_cast<u16>(kFirstType + worker), "worker <" + std::to_string(worker) + "> & co", kNames[log],
          description};
}

std::string ReadDocument(Log log, std::string_view document, const std::string &hostName, std::vector<Entry> &entries) {
  if (document.empty()) return {};
  Cursor cursor(document);
  cursor.Skip(R"(<?xml-stylesheet type="text/xsl" version="1.0" encoding="UTF-8"?><EventLog>)");
  while (cursor.StartsWith("<LogEntry>")) {
    cursor.Skip("<LogEntry><TimeStamp>");
    const u64 time = cursor.Number();
    cursor.Skip("</TimeStamp><DateTime>" + TimeText(time) + "</DateTime><ComputerName>" + hostName +
                "</ComputerName><Type>");
    const u64 type = cursor.Number();
    cursor.Skip("</Type><ID>");
    const u64 id = cursor.Number();
    if (!cursor.IsGood() || id > std::numeric_limits<u32>::max()) break;
    cursor.Skip("</ID><UserInfo>");
    Entry entry{};
    if (log == kSmallLog && type == kOwnType && id == kBackupID) {
      while (entry.worker + 1 < kWorkers && !cursor.StartsWith(EscapedUser(entry.worker))) ++entry.worker;
    } else {
      cursor.Skip(type >= kFirstType && type < kFirstType + kWorkers ? "" : "a worker's type");
      entry.worker = static_cast<u32>(type) - kFirstType;
      entry.number = static_cast<u32>(id);
    }
    cursor.Skip(EscapedUser(entry.worker) + "</UserInfo><Source>" + kNames[log] + "</Source><Description>");
    if (entry.number == 0) {
      cursor.Skip("Log backup created");
    } else {
      Cursor ticket(cursor.Rest());
      entry.ticket = static_cast<u32>(ticket.Number());
      cursor.Skip(PartsOf(log, entry.worker, entry.number, entry.ticket).description);
    }
    cursor.Skip("</Description><Data></Data></LogEntry>");
    entries.push_back(entry);
  }
  cursor.Skip("</EventLog>");
  if (cursor.IsGood() && cursor.Rest().empty()) return {};
  const size_t offset = document.size() - cursor.Rest().size();
  return std::string(kNames[log]) + ": behind " + std::to_string(offset) + " bytes and " +
         std::to_string(entries.size()) + " entries there should be \"" + cursor.expected() + "\" and is \"" +
         std::string(cursor.Rest().substr(0, 200)) + "\", of " + std::to_string(document.size()) + " bytes";
}

LogWindows::LogWindows(const Ledger &ledger, Log log) : m_ledger(ledger), m_log(log) {
  for (u32 worker = 0; worker < kWorkers; ++worker) {
    const LogLedger &entry = ledger.workers[worker].logs[log];
    u32 done = 0;
    u32 ticket = 0;
    do {
      done = entry.done;
      ticket = entry.tickets[done % 2];
    } while (entry.done != done);
    m_entries[worker] = {{done, 0}, ticket};
  }
}

void LogWindows::Close() {
  for (u32 worker = 0; worker < kWorkers; ++worker) {
    m_entries[worker].window.started = m_ledger.workers[worker].logs[m_log].started;
  }
}

// An entry is the next one of its worker's behind the last, up to those that a killed worker may not have written.
std::string LogReader::CheckNext(Log log, const Entry &entry, u32 last) const {
  if (entry.number <= last) {
    return std::string(kNames[log]) + ": entry " + std::to_string(entry.number) + " of worker " +
           std::to_string(entry.worker) + " stands behind its entry " + std::to_string(last);
  }
  return CheckLast(log, entry.worker, last, {entry.number - 1, entry.number});
}

// The last entry of a worker is one that was begun, and no later one was reported.
std::string LogReader::CheckLast(Log log, u32 worker, u32 last, Window window) const {
  const auto name = [&](u32 number) {
    return std::string(kNames[log]) + ": entry " + std::to_string(number) + " of worker " + std::to_string(worker);
  };
  if (last > window.started) return name(last) + " was not begun; begun " + std::to_string(window.started);
  for (u32 number = last + 1; number <= window.done; ++number) {
    if (!m_uncertain[log][worker].contains(number)) {
      return name(number) + " is missing behind " + std::to_string(last) + "; reported " + std::to_string(window.done);
    }
  }
  return {};
}

std::string LogReader::SeeNew(const std::vector<Entry> &entries, const LogWindows &windows) {
  for (const Entry &entry : entries) {
    u32 &last = m_last[entry.worker];
    if (std::string what = CheckNext(kFullLog, entry, last); !what.empty()) return what;
    last = entry.number;
  }
  for (u32 worker = 0; worker < kWorkers; ++worker) {
    std::string what = CheckLast(kFullLog, worker, m_last[worker], windows.Of(worker).window);
    if (!what.empty()) return what;
  }
  return {};
}

std::string LogReader::SeeLatest(const std::vector<Entry> &entries, const LogWindows &windows) const {
  std::array<u32, kWorkers> last = {};
  // Whoever has two entries here had the first written when the second was begun. Nobody's entry that was begun later
  // still stands before that first one, among those that may be gone.
  u32 ticketOfSecond = std::numeric_limits<u32>::max();
  for (const Entry &entry : entries) {
    if (entry.number == 0) continue;
    if (last[entry.worker] != 0) {
      if (std::string what = CheckNext(kSmallLog, entry, last[entry.worker]); !what.empty()) return what;
      ticketOfSecond = std::min(ticketOfSecond, entry.ticket);
    }
    last[entry.worker] = entry.number;
  }
  for (u32 worker = 0; worker < kWorkers; ++worker) {
    const LogWindows::Entries &known = windows.Of(worker);
    if (last[worker] != 0) {
      if (std::string what = CheckLast(kSmallLog, worker, last[worker], known.window); !what.empty()) return what;
    } else if (known.ticket > ticketOfSecond && !m_uncertain[kSmallLog][worker].contains(known.window.done)) {
      return std::string(kNames[kSmallLog]) + ": entry " + std::to_string(known.window.done) + " of worker " +
             std::to_string(worker) + " is missing, though older entries are there";
    }
  }
  return {};
}

}  // namespace load

// The event logs of a load, read from their bytes and held against the ledgers.
#ifndef ZEBCS_TESTS_LOAD_LOGS_H
#define ZEBCS_TESTS_LOAD_LOGS_H

#include <array>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ledger.h"

namespace load {

inline constexpr u32 kSmallLogSize = 20000;
inline constexpr u32 kLargestEntry = 4000;

// What a worker's entry of that number is made of.
struct EntryParts {
  u16 type;
  std::string user;
  std::string source;
  std::string description;
};
EntryParts PartsOf(Log log, u32 worker, u32 number, u32 ticket);

// An entry as it stands in a log. One that the log wrote of itself has the number 0.
struct Entry {
  u32 worker;
  u32 number;
  u32 ticket;
};

// Reads a document to its last byte. Returns what is wrong with it, or nothing. One without any byte is right: whoever
// made it was killed then, and has no entries.
std::string ReadDocument(Log log, std::string_view document, const std::string &hostName, std::vector<Entry> &entries);

// What the ledgers said of a log's entries: until somebody looked, and when he was done.
class LogWindows {
 public:
  LogWindows(const Ledger &ledger, Log log);
  void Close();

  struct Entries {
    Window window;
    u32 ticket;  // of the last entry that was reported
  };
  const Entries &Of(u32 worker) const { return m_entries[worker]; }

 private:
  const Ledger &m_ledger;
  Log m_log;
  std::array<Entries, kWorkers> m_entries = {};
};

// Follows the entries of both logs.
class LogReader {
 public:
  // A worker was killed while it appended the entry of that number, which is there or not.
  void AddUncertain(Log log, u32 worker, u32 number) { m_uncertain[log][worker].insert(number); }

  // The entries that were added since the last ones: all that the ledgers know of, in each worker's order.
  std::string SeeNew(const std::vector<Entry> &entries, const LogWindows &windows);

  // The entries of a backup and of the log behind it: what is missing of all that the ledgers know of was older.
  std::string SeeLatest(const std::vector<Entry> &entries, const LogWindows &windows) const;

 private:
  std::string CheckLast(Log log, u32 worker, u32 last, Window window) const;
  std::string CheckNext(Log log, const Entry &entry, u32 last) const;

  std::array<std::array<std::set<u32>, kWorkers>, kLogs> m_uncertain;
  std::array<u32, kWorkers> m_last = {};  // of the log without backups
};

}  // namespace load

#endif

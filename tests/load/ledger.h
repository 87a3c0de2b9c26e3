// What the workers of a load were told, in memory that outlives them, and what follows from it for the files.
//
// A worker owns keys and numbers what it does to each of them: 1, 2, 3. What an operation leaves follows from its
// number, to the last byte, so that two numbers say all about a key: the operation that was begun last, and the one
// that was reported as done last. Whoever looks must see what one of these left, or one between them.
#ifndef ZEBCS_TESTS_LOAD_LEDGER_H
#define ZEBCS_TESTS_LOAD_LEDGER_H

#include <array>
#include <atomic>
#include <optional>
#include <string>
#include <string_view>

#include "zebcs/types.h"

namespace load {

inline constexpr u32 kProcesses = 4;
inline constexpr u32 kThreads = 3;
inline constexpr u32 kWorkers = kProcesses * kThreads;

// --- Keys -----------------------------------------------------------------------------------------------------------

enum Store : u32 { kIni, kCfg, kStores };

inline constexpr u32 kSharedKeys = 4;  // of each worker; in the INI file they stand in a section of all workers
inline constexpr u32 kOwnKeys = 2;     // in the INI file they stand in a section of the worker's own
inline constexpr u32 kKeys = kSharedKeys + kOwnKeys;

// A worker's key.
struct Key {
  u32 worker;
  u32 key;

  bool operator==(const Key &) const = default;
  std::string Name() const;
  std::string Section() const;
};

// The key of that name, if it is one of a worker's.
std::optional<Key> KeyOfName(std::string_view name);

// The text of a key; nothing where the key is not there.
using Text = std::optional<std::string>;

// What the operation of that number leaves. The first finds no key.
Text TextAfter(Store store, Key key, u32 number);

// Letters and digits that follow from a seed.
std::string Filling(u32 seed, size_t length);

// A number that looks random and follows from others.
u32 Mixed(u32 a, u32 b, u32 c = 0, u32 d = 0);

// Operations, from the last one that was reported before somebody looked to the last one begun before he was done.
struct Window {
  u32 done;
  u32 started;
};

// What one reader has seen of all keys, none of which may go back.
class Reader {
 public:
  // Holds what was seen of a key against the operations that it can come from. Returns what is wrong, or nothing.
  std::string See(Store store, Key key, const Text &seen, Window window);

 private:
  std::array<std::array<std::array<u32, kKeys>, kWorkers>, kStores> m_last = {};
};

// --- Rules of the role map ------------------------------------------------------------------------------------------

inline constexpr u32 kUsers = 6;

// What the role map of that number grants. No user has the same rights in a map and the next.
u32 RightsOf(u32 user, u32 map);
std::string UserName(u32 user);
std::string RoleMapText(u32 map);

// The map that an answer is from: the first from `first` to `last` that gives it.
std::optional<u32> MapOfAnswer(u32 user, u32 rights, u32 first, u32 last);

// --- The ledgers ----------------------------------------------------------------------------------------------------

enum Log : u32 { kSmallLog, kFullLog, kLogs };

// Calls by what they did.
enum Kind : u32 {
  kIniWritten,
  kIniRemoved,
  kIniRefused,
  kIniRead,
  kIniListed,
  kCfgWritten,
  kCfgRemoved,
  kCfgLoaded,
  kSmallLogAppended,
  kFullLogAppended,
  kRightsAsked,
  kKinds
};
const char *NameOf(Kind kind);

struct KeyLedger {
  std::atomic<u32> started = 0;
  std::atomic<u32> done = 0;

  bool IsOpen() const { return started != done; }
};

struct LogLedger {
  std::atomic<u32> started = 0;
  std::atomic<u32> done = 0;
  std::array<std::atomic<u32>, 2> tickets = {};  // of the entry begun last and the one before, by their numbers' parity

  bool IsOpen() const { return started != done; }
};

struct WorkerLedger {
  std::array<std::array<KeyLedger, kKeys>, kStores> keys;
  std::array<LogLedger, kLogs> logs;
  std::array<std::atomic<u64>, kKinds> calls = {};

  u32 OpenCount() const;  // operations that were begun and not reported
};

// All that the processes of a load share. The first thing that does not agree is kept, and ends the load.
class Ledger {
 public:
  static Ledger &New();

  // Says what does not agree. Only the first counts.
  void Report(const std::string &what);
  bool HasReport() const { return m_report != kNone; }
  std::string FirstReport() const { return m_text.data(); }

  Window WindowOf(Store store, Key key) const;
  u64 Calls(Kind kind) const;

  std::array<WorkerLedger, kWorkers> workers;
  std::atomic<u64> checked = 0;     // what was seen and held against the ledger: values, entries, rights
  std::atomic<u32> tickets = 0;     // handed out to entries of logs before they are appended
  std::atomic<u32> nextMap = 0;     // the role map that is about to be put in place
  std::atomic<u32> currentMap = 0;  // the one that is in place

 private:
  enum : int { kNone, kBegun };
  std::atomic<int> m_report = kNone;
  std::array<char, 2000> m_text = {};
};

// The windows of all keys, which are opened before somebody looks and closed when he is done.
class Windows {
 public:
  explicit Windows(const Ledger &ledger);
  void Close();
  Window Of(Store store, Key key) const { return m_windows[store][key.worker][key.key]; }

 private:
  const Ledger &m_ledger;
  std::array<std::array<std::array<Window, kKeys>, kWorkers>, kStores> m_windows = {};
};

}  // namespace load

#endif

#include "ledger.h"

#include <sys/mman.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <new>

namespace load {

namespace {

// Takes a decimal number from the front of a text.
std::optional<u32> TakeNumber(std::string_view &text) {
  u32 number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<size_t>(end - text.data()));
  return number;
}

bool Take(std::string_view &text, std::string_view start) {
  if (!text.starts_with(start)) return false;
  text.remove_prefix(start.size());
  return true;
}

// Every third operation removes the key that the two before it wrote.
bool IsRemoval(u32 number) { return number % 3 == 0; }

std::string StartOfText(Store store, Key key) { return (store == kIni ? "ini." : "cfg.") + key.Name() + '.'; }

// The number that a text says it has, whether or not the rest of it is right.
std::optional<u32> NumberIn(Store store, Key key, std::string_view text) {
  if (!Take(text, StartOfText(store, key))) return std::nullopt;
  return TakeNumber(text);
}

// Long texts are told by their start and their size.
std::string Shown(const Text &text) {
  constexpr size_t kMost = 120;
  if (!text) return "no key";
  return '"' + text->substr(0, kMost) + "\" of " + std::to_string(text->size()) + " bytes";
}

}  // namespace

u32 Mixed(u32 a, u32 b, u32 c, u32 d) {
  u32 mixed = 2166136261;
  for (const u32 part : {a, b, c, d}) {
    mixed = (mixed ^ part) * 2654435761u;
    mixed ^= mixed >> 15;
  }
  return mixed;
}

std::string Filling(u32 seed, size_t length) {
  constexpr std::string_view kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789=.";
  std::string text(length, '.');
  for (char &c : text) {
    seed = seed * 1664525 + 1013904223;
    c = kLetters[seed >> 26];
  }
  return text;
}

// --- Keys -----------------------------------------------------------------------------------------------------------

std::string Key::Name() const { return "w" + std::to_string(worker) + "k" + std::to_string(key); }

std::string Key::Section() const { return key < kSharedKeys ? "shared" : "own" + std::to_string(worker); }

std::optional<Key> KeyOfName(std::string_view name) {
  const std::string_view whole = name;
  if (!Take(name, "w")) return std::nullopt;
  const std::optional<u32> worker = TakeNumber(name);
  if (!worker || *worker >= kWorkers || !Take(name, "k")) return std::nullopt;
  const std::optional<u32> number = TakeNumber(name);
  if (!number || *number >= kKeys) return std::nullopt;
  const Key key{*worker, *number};
  return key.Name() == whole ? std::optional(key) : std::nullopt;
}

Text TextAfter(Store store, Key key, u32 number) {
  if (IsRemoval(number)) return std::nullopt;
  const u32 mixed = Mixed(store, key.worker, key.key, number);
  // Mostly short, at times as long as a window of the library's, and of any length.
  const u32 most = mixed % 16 == 0 ? 8000 : mixed % 4 == 0 ? 900 : 50;
  return StartOfText(store, key) + std::to_string(number) + ':' + Filling(mixed, mixed / 16 % most) + ':' +
         std::to_string(mixed);
}

std::string Reader::See(Store store, Key key, const Text &seen, Window window) {
  u32 &last = m_last[store][key.worker][key.key];
  std::optional<u32> number;
  if (seen) {
    number = NumberIn(store, key, *seen);
    if (number && TextAfter(store, key, *number) != seen) number.reset();
  } else {
    u32 removal = std::max(window.done, last);
    while (!IsRemoval(removal)) ++removal;
    number = removal;
  }
  if (number && *number >= window.done && *number <= window.started && *number >= last) {
    last = *number;
    return {};
  }
  const char *const what = !number                    ? "is nothing that its owner wrote"
                           : *number < window.done    ? "is older than what was reported as done"
                           : *number > window.started ? "is newer than what was begun"
                                                      : "is older than what this reader has seen before";
  return std::string(store == kIni ? "INI" : "key=value") + " file, " + key.Name() + ": " + Shown(seen) + ' ' + what +
         "; done " + std::to_string(window.done) + ", begun " + std::to_string(window.started) + ", seen before " +
         std::to_string(last);
}

// --- Rules of the role map ------------------------------------------------------------------------------------------

u32 RightsOf(u32 user, u32 map) {
  constexpr u32 kRights[2][2] = {{0, 1}, {3, 7}};
  return kRights[map % 2][Mixed(user, map) >> 9 & 1];
}

std::string UserName(u32 user) { return "user" + std::to_string(user); }

std::string RoleMapText(u32 map) {
  constexpr u32 kOthers = 80;  // rules behind each user's: the file is several times as large as a stream's buffer
  std::string text = "# Map " + std::to_string(map) + '\n';
  for (u32 user = 0; user < kUsers; ++user) {
    const u32 rights = RightsOf(user, map);
    const char *const role = rights == 1 ? "user" : rights == 3 ? "PowerUser" : "administrator";
    if (rights != 0) text += UserName(user) + "\t*\t" + role + '\n';
    for (u32 other = 0; other < kOthers; ++other) {
      text += "other" + std::to_string(user) + '.' + std::to_string(other) + " host.lab.example,*.part.example user\n";
    }
  }
  return text;
}

std::optional<u32> MapOfAnswer(u32 user, u32 rights, u32 first, u32 last) {
  for (u32 map = first; map <= last; ++map) {
    if (RightsOf(user, map) == rights) return map;
  }
  return std::nullopt;
}

// --- The ledgers ----------------------------------------------------------------------------------------------------

const char *NameOf(Kind kind) {
  constexpr const char *kNames[kKinds] = {"INI values written", "INI keys removed", "INI calls refused",
                                          "INI values read",    "INI lists read",   "pairs written",
                                          "pairs removed",      "tables loaded",    "entries with backups",
                                          "entries without",    "rights asked for"};
  return kNames[kind];
}

u32 WorkerLedger::OpenCount() const {
  u32 count = 0;
  for (const auto &store : keys) {
    count += static_cast<u32>(std::count_if(store.begin(), store.end(), [](const KeyLedger &k) { return k.IsOpen(); }));
  }
  return count +
         static_cast<u32>(std::count_if(logs.begin(), logs.end(), [](const LogLedger &log) { return log.IsOpen(); }));
}

Ledger &Ledger::New() {
  void *const memory = mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return *new (memory) Ledger;
}

void Ledger::Report(const std::string &what) {
  int none = kNone;
  if (!m_report.compare_exchange_strong(none, kBegun)) return;
  m_text[what.copy(m_text.data(), m_text.size() - 1)] = 0;
}

Window Ledger::WindowOf(Store store, Key key) const {
  const KeyLedger &ledger = workers[key.worker].keys[store][key.key];
  return {ledger.done, ledger.started};
}

u64 Ledger::Calls(Kind kind) const {
  u64 sum = 0;
  for (const WorkerLedger &worker : workers) sum += worker.calls[kind];
  return sum;
}

Windows::Windows(const Ledger &ledger) : m_ledger(ledger) {
  for (const Store store : {kIni, kCfg}) {
    for (u32 worker = 0; worker < kWorkers; ++worker) {
      for (u32 key = 0; key < kKeys; ++key) m_windows[store][worker][key] = ledger.WindowOf(store, {worker, key});
    }
  }
}

void Windows::Close() {
  for (const Store store : {kIni, kCfg}) {
    for (u32 worker = 0; worker < kWorkers; ++worker) {
      for (u32 key = 0; key < kKeys; ++key) {
        m_windows[store][worker][key].started = m_ledger.WindowOf(store, {worker, key}).started;
      }
    }
  }
}

}  // namespace load

#include "worker.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "logs.h"
#include "stores.h"
#include "zebcs/ini.h"
#include "zebcs/keyvalue.h"
#include "zebcs/logs.h"
#include "zebcs/rolemap.h"

namespace load {

namespace {

// What a call that must not wait for other processes is given.
constexpr booln kOneAttempt = 0;
constexpr booln kWaits = 1;

s32 WriteIniText(const Paths &paths, Key key, const Text &text, booln canBlock) {
  return KCSWriteINIPathFileValue(key.Section().c_str(), key.Name().c_str(), ZEBCS_INI_ASTRING,
                                  text ? text->c_str() : nullptr, text ? static_cast<u32>(text->size() + 1) : 0,
                                  paths.ini.c_str(), canBlock);
}

// Stores the text where the status is success; a key or section that is not there is a success without a text.
s32 ReadIniText(const Paths &paths, Key key, booln canBlock, Text &text) {
  std::array<astring, 8193> value;
  u32 size = static_cast<u32>(value.size());
  const s32 status = KCSReadINIPathFileValue(key.Section().c_str(), key.Name().c_str(), ZEBCS_INI_ASTRING, value.data(),
                                             &size, nullptr, 0, paths.ini.c_str(), canBlock);
  text.reset();
  if (status == SM_STATUS_KEY_NOT_FOUND || status == SM_STATUS_SECTION_NOT_FOUND) return 0;
  if (status == 0) text = std::string(value.data(), size - 1);
  return status;
}

// The names in a list of the store's.
std::vector<std::string> NamesOf(const astring *pList) {
  std::vector<std::string> names;
  for (; *pList != 0; pList += names.back().size() + 1) names.emplace_back(pList);
  return names;
}

// All that a table holds, as the file of its pairs would.
Snapshot LoadTable(const Paths &paths) {
  std::string text;
  u32 size = 0;
  KCSKVEntry *const table = KCSCFGGetKeyValueEntries(paths.cfg.c_str(), &size);
  for (u32 i = 0; i < size; ++i) text += std::string(table[i].pKey) + '=' + table[i].pValue + '\n';
  KCSCFGFreeKeyValueEntries(table, size);
  Snapshot snapshot = ReadCfg(text);
  if (snapshot.others == "kept=as it is\n") {
    snapshot.others = FirstCfg();  // of which this is the only pair
  } else {
    snapshot.fault = "a table that has this beside workers' keys: " + snapshot.others;
  }
  return snapshot;
}

}  // namespace

Paths::Paths(const std::string &directory)
    : ini(directory + "/shared.ini"),
      iniTemporary(directory + "/kcsini64.tmp"),
      cfg(directory + "/shared.cfg"),
      cfgTemporary(directory + "/kcscfg64.tmp"),
      logs{directory + "/small.xml", directory + "/full.xml"},
      backup(directory + "/small.xm_"),
      collected(directory + "/collected.xml") {}

u32 AskRights(u32 user) {
  std::string name = UserName(user) + "@any.host";
  return get_user_rights(name.data());
}

Worker::Worker(Ledger &ledger, const Paths &paths, u32 number)
    : m_ledger(ledger),
      m_paths(paths),
      m_number(number),
      m_random(Mixed(number, static_cast<u32>(getpid()))),
      m_map(ledger.currentMap) {}

void Worker::Expect(const std::string &what) {
  if (!what.empty()) m_ledger.Report("worker " + std::to_string(m_number) + ": " + what);
}

void Worker::ExpectStatus(const char *call, Key key, s32 status, s32 expected) {
  if (status == expected) return;
  Expect(std::string(call) + ' ' + key.Name() + ": status " + std::to_string(status) + " instead of " +
         std::to_string(expected));
}

// An operation that was begun and not reported has been done or not. Where it has not, it never will be, and its number
// is free for the next.
void Worker::Resolve(Store store, Key key, const Text &found) {
  KeyLedger &ledger = Own().keys[store][key.key];
  if (ledger.IsOpen() && found == TextAfter(store, key, ledger.started)) {
    ledger.done = ledger.started.load();
  } else {
    ledger.started = ledger.done.load();
  }
  Expect(m_reader.See(store, key, found, m_ledger.WindowOf(store, key)));
}

void Worker::Resume() {
  const Snapshot table = LoadTable(m_paths);
  Expect(table.fault);
  for (u32 k = 0; k < kKeys; ++k) {
    const Key key{m_number, k};
    Resolve(kCfg, key, table.texts[m_number][k]);
    Text text;
    ExpectStatus("read", key, ReadIniText(m_paths, key, kWaits, text), 0);
    Resolve(kIni, key, text);
  }
  for (LogLedger &log : Own().logs) log.done = log.started.load();
}

void Worker::WorkOneRound() {
  enum class Work {
    kWriteIni,
    kReadOwnIni,
    kReadOtherIni,
    kListIni,
    kWriteCfg,
    kLoadCfg,
    kAppendSmall,
    kAppendFull,
    kAsk
  };
  using enum Work;
  std::array<Work, 22> works = {kWriteIni,     kWriteIni,     kWriteIni,    kWriteIni,    kReadOwnIni, kReadOwnIni,
                                kReadOtherIni, kReadOtherIni, kListIni,     kWriteCfg,    kWriteCfg,   kWriteCfg,
                                kLoadCfg,      kAppendSmall,  kAppendSmall, kAppendSmall, kAppendFull, kAppendFull,
                                kAsk,          kAsk,          kAsk,         kAsk};
  std::shuffle(works.begin(), works.end(), m_random);
  for (const Work work : works) {
    if (m_ledger.HasReport()) return;
    switch (work) {
      case kWriteIni: WriteIni(); break;
      case kReadOwnIni: ReadIni(OwnKey()); break;
      case kReadOtherIni: ReadIni({Random(kWorkers), Random(kKeys)}); break;
      case kListIni: ListIni(); break;
      case kWriteCfg: WriteCfg(); break;
      case kLoadCfg: LoadCfg(); break;
      case kAppendSmall: Append(kSmallLog); break;
      case kAppendFull: Append(kFullLog); break;
      case kAsk: AskSomeRights(); break;
    }
  }
}

void Worker::WriteIni() {
  const Key key = OwnKey();
  KeyLedger &ledger = Own().keys[kIni][key.key];
  const Text text = TextAfter(kIni, key, ledger.done + 1);
  const booln canBlock = Random(4) == 0 ? kOneAttempt : kWaits;
  ++ledger.started;
  const s32 status = WriteIniText(m_paths, key, text, canBlock);
  if (canBlock == kOneAttempt && status == SM_STATUS_LOCK_TIMEOUT) {
    --ledger.started;  // nothing was done, and the next operation takes the number
    Count(kIniRefused);
    return;
  }
  ExpectStatus(text ? "write" : "remove", key, status, 0);
  ledger.done = ledger.started.load();
  Count(text ? kIniWritten : kIniRemoved);
}

void Worker::ReadIni(Key key) {
  const booln canBlock = Random(4) == 0 ? kOneAttempt : kWaits;
  Window window = m_ledger.WindowOf(kIni, key);
  Text text;
  const s32 status = ReadIniText(m_paths, key, canBlock, text);
  window.started = m_ledger.WindowOf(kIni, key).started;
  if (canBlock == kOneAttempt && status == SM_STATUS_LOCK_TIMEOUT) {
    Count(kIniRefused);
    return;
  }
  ExpectStatus("read", key, status, 0);
  Expect(m_reader.See(kIni, key, text, window));
  Count(kIniRead);
  ++m_ledger.checked;
}

// The lists name a key exactly where it is there. Of the worker's own keys nobody else decides that.
void Worker::ListIni() {
  std::array<astring, 4096> list;
  u32 size = static_cast<u32>(list.size()) - 1;
  s32 status = KCSReadINIPathFileValue("shared", nullptr, ZEBCS_INI_ASTRING, list.data(), &size, nullptr, 0,
                                       m_paths.ini.c_str(), kWaits);
  std::array<bool, kKeys> isListed = {};
  if (status == 0) {
    for (const std::string &name : NamesOf(list.data())) {
      const std::optional<Key> key = KeyOfName(name);
      if (!key || key->key >= kSharedKeys) return Expect("a list of keys has this: " + name);
      if (key->worker != m_number) continue;
      if (std::exchange(isListed[key->key], true)) Expect("a list of keys has this twice: " + name);
    }
  } else if (status != SM_STATUS_KEY_NOT_FOUND) {
    Expect("a list of keys: status " + std::to_string(status));
  }
  for (u32 k = 0; k < kSharedKeys; ++k) {
    const Key key{m_number, k};
    if (isListed[k] == TextAfter(kIni, key, Own().keys[kIni][k].done).has_value()) continue;
    Expect(key.Name() + (isListed[k] ? " is listed and was removed" : " is not listed and was written"));
  }

  size = static_cast<u32>(list.size()) - 1;
  status = KCSReadINIPathFileValue(nullptr, nullptr, ZEBCS_INI_ASTRING, list.data(), &size, nullptr, 0,
                                   m_paths.ini.c_str(), kWaits);
  if (status != 0) return Expect("a list of sections: status " + std::to_string(status));
  std::vector<std::string> sections = NamesOf(list.data());
  std::sort(sections.begin(), sections.end());
  if (std::adjacent_find(sections.begin(), sections.end()) != sections.end()) {
    Expect("a list of sections has one twice: " + *std::adjacent_find(sections.begin(), sections.end()));
  }
  const Key own{m_number, kSharedKeys};
  const bool hasKeys = std::any_of(Own().keys[kIni].begin() + kSharedKeys, Own().keys[kIni].end(), [&](KeyLedger &k) {
    const u32 number = static_cast<u32>(&k - Own().keys[kIni].data());
    return TextAfter(kIni, {m_number, number}, k.done).has_value();
  });
  if (hasKeys && !std::binary_search(sections.begin(), sections.end(), own.Section())) {
    Expect("a list of sections lacks " + own.Section() + ", which has keys");
  }
  Count(kIniListed);
  m_ledger.checked += kSharedKeys + sections.size();
}

void Worker::WriteCfg() {
  const Key key = OwnKey();
  KeyLedger &ledger = Own().keys[kCfg][key.key];
  std::string name = key.Name();
  Text text = TextAfter(kCfg, key, ledger.done + 1);
  const KCSKVEntry pair{name.data(), text ? text->data() : nullptr};
  ++ledger.started;
  const s32 status = KCSCFGSetKeyValue(m_paths.cfg.c_str(), &pair, 0);
  ExpectStatus(text ? "set" : "unset", key, status, 0);
  ledger.done = ledger.started.load();
  Count(text ? kCfgWritten : kCfgRemoved);
}

void Worker::LoadCfg() {
  Windows windows(m_ledger);
  const Snapshot table = LoadTable(m_paths);
  windows.Close();
  Expect(table.Check(kCfg, m_reader, windows));
  Count(kCfgLoaded);
  m_ledger.checked += kWorkers * kKeys;
}

void Worker::Append(Log log) {
  LogLedger &ledger = Own().logs[log];
  const u32 number = ledger.done + 1;
  const u32 ticket = ++m_ledger.tickets;
  const EntryParts parts = PartsOf(log, m_number, number, ticket);
  ledger.tickets[number % 2] = ticket;
  ledger.started = number;
  const s32 status =
      KCSAppendToXMLLog(m_paths.logs[log].c_str(), parts.type, number, parts.user.c_str(), parts.source.c_str(),
                        parts.description.c_str(), nullptr, 0, log == kSmallLog ? kSmallLogSize : UINT32_MAX);
  if (status != 0) Expect("append entry " + std::to_string(number) + ": status " + std::to_string(status));
  ledger.done = number;
  Count(log == kSmallLog ? kSmallLogAppended : kFullLogAppended);
}

// Several answers in a row: each is from a whole map, and none from an older one than the answer before.
void Worker::AskSomeRights() {
  constexpr u32 kAsked = 4;
  const u32 first = Random(kUsers);
  for (u32 i = 0; i < kAsked; ++i) {
    const u32 user = (first + i) % kUsers;
    const u32 from = std::max(m_map, m_ledger.currentMap.load());
    const u32 rights = AskRights(user);
    const u32 to = m_ledger.nextMap;
    const std::optional<u32> map = MapOfAnswer(user, rights, from, to);
    if (!map) {
      return Expect("rights of " + UserName(user) + ": " + std::to_string(rights) + ", which no map grants from " +
                    std::to_string(from) + " to " + std::to_string(to) + "; an answer before was from " +
                    std::to_string(m_map));
    }
    m_map = *map;
    Count(kRightsAsked);
    ++m_ledger.checked;
  }
}

void Worker::AskLastRights() {
  const u32 map = m_ledger.currentMap;
  for (u32 user = 0; user < kUsers; ++user) {
    const u32 rights = AskRights(user);
    if (rights == RightsOf(user, map)) continue;
    Expect("rights of " + UserName(user) + ": " + std::to_string(rights) + " instead of " +
           std::to_string(RightsOf(user, map)) + ", as the last map grants");
  }
}

}  // namespace load

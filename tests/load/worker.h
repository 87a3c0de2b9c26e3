// The workers of a load: threads of several processes that use the same files at the same time.
#ifndef ZEBCS_TESTS_LOAD_WORKER_H
#define ZEBCS_TESTS_LOAD_WORKER_H

#include <array>
#include <random>
#include <string>

#include "ledger.h"

namespace load {

// Where everything is.
struct Paths {
  explicit Paths(const std::string &directory);

  std::string ini;
  std::string iniTemporary;
  std::string cfg;
  std::string cfgTemporary;
  std::array<std::string, kLogs> logs;
  std::string backup;     // of the small log
  std::string collected;  // what was taken away of the full log, to be read
};

// The rights that a user has, asked for by name.
u32 AskRights(u32 user);

// One worker. What it sees or is told and does not agree with the ledger, it reports there.
class Worker {
 public:
  Worker(Ledger &ledger, const Paths &paths, u32 number);

  // Finds out what became of the operations that its forerunner was killed in.
  void Resume();

  // Makes every kind of call at least once, in any order.
  void WorkOneRound();

  // Asks for all rights, which the last role map has granted for good.
  void AskLastRights();

 private:
  void WriteIni();
  void ReadIni(Key key);
  void ListIni();
  void WriteCfg();
  void LoadCfg();
  void Append(Log log);
  void AskSomeRights();

  u32 Random(u32 below) { return static_cast<u32>(m_random() % below); }
  Key OwnKey() { return {m_number, Random(kKeys)}; }
  WorkerLedger &Own() { return m_ledger.workers[m_number]; }
  void Count(Kind kind) { ++Own().calls[kind]; }
  void Expect(const std::string &what);  // nothing, or the first thing that does not agree
  void ExpectStatus(const char *call, Key key, s32 status, s32 expected);
  void Resolve(Store store, Key key, const Text &found);

  Ledger &m_ledger;
  const Paths &m_paths;
  u32 m_number;
  std::mt19937 m_random;
  Reader m_reader;
  u32 m_map = 0;  // the latest role map of which an answer was
};

}  // namespace load

#endif

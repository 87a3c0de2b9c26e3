// The INI file and the key=value file of a load, read from their bytes.
#ifndef ZEBCS_TESTS_LOAD_STORES_H
#define ZEBCS_TESTS_LOAD_STORES_H

#include <array>
#include <string>
#include <string_view>

#include "ledger.h"

namespace load {

// Files as they are before anybody works on them. What they hold belongs to nobody, and stays.
std::string FirstIni();
std::string FirstCfg();

// All keys as they stand in a file at one moment.
struct Snapshot {
  std::array<std::array<Text, kKeys>, kWorkers> texts;
  std::string others;  // what is nobody's
  std::string fault;   // what no writer leaves; empty as it should be

  // Adds a key where the key is not there yet.
  void Add(Key key, std::string_view text);

  // Holds the keys against the ledgers and the rest against what was there first. Returns what is wrong, or nothing.
  std::string Check(Store store, Reader &reader, const Windows &windows) const;
};

Snapshot ReadIni(std::string_view text);
Snapshot ReadCfg(std::string_view text);

// An INI file without the headers of workers' own sections that have no keys.
std::string WithoutEmptySections(std::string_view text);

}  // namespace load

#endif

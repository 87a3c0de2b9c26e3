// Loading a role map beside a plain loop that puts the same lines into hash maps, and looking privileges up. Runs in
// the sandbox, whose role-map file it writes; each measurement is a process of its own.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "compare.h"
#include "zebcs/rolemap.hpp"

namespace {

constexpr char kFile[] = "/opt/vorn/fleetops/etc/zebrolemap";
constexpr int kRounds = 5;

using Clock = std::chrono::steady_clock;
using HashTables = std::unordered_map<std::string, std::unordered_map<std::string, int>>;

double MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string UserName(int i) {
  char name[32];
  std::snprintf(name, sizeof name, "user%07d", i);
  return name;
}

std::string HostName(int i) { return "host" + std::to_string(i % 100) + ".example"; }

int PrivilegeFor(int i) { return i % 3 == 0 ? 7 : i % 3 == 1 ? 3 : 1; }

const char *RoleFor(int i) { return i % 3 == 0 ? "administrator" : i % 3 == 1 ? "poweruser" : "user"; }

void WriteRoleMap(const std::function<void(std::FILE *)> &writeLines) {
  std::FILE *const file = std::fopen(kFile, "w");
  Require(file != nullptr, "the role map cannot be written: run this inside the sandbox, as bench/run does");
  writeLines(file);
  Require(std::fclose(file) == 0 && chmod(kFile, 0640) == 0, "the role map cannot be written");
}

void WriteUsers(int lines) {
  std::vector<int> order(static_cast<size_t>(lines));
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), std::mt19937(1));
  WriteRoleMap([&order](std::FILE *file) {
    for (const int i : order) {
      std::fprintf(file, "%s %s %s\n", UserName(i).c_str(), HostName(i).c_str(), RoleFor(i));
    }
  });
}

void Load() {
  QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
  reader.Open();
  ZEBRoleMapAlgorithm::GetInstance().Initialize(reader.GetRecords());
}

// The least time of several processes that each run `measure`, which returns milliseconds.
double Fastest(const std::function<double()> &measure) {
  double fastest = 1e9;
  for (int round = 0; round < kRounds; ++round) {
    int fds[2];
    Require(pipe(fds) == 0, "pipe failed");
    const pid_t pid = fork();
    Require(pid != -1, "fork failed");
    if (pid == 0) {
      const double time = measure();
      const bool isWritten = write(fds[1], &time, sizeof time) == static_cast<ssize_t>(sizeof time);
      _exit(isWritten ? 0 : 1);
    }
    double time = 0;
    Require(read(fds[0], &time, sizeof time) == static_cast<ssize_t>(sizeof time), "a measurement failed");
    close(fds[0]);
    close(fds[1]);
    waitpid(pid, nullptr, 0);
    fastest = std::min(fastest, time);
  }
  return fastest;
}

double TimeOurLoad() {
  const auto start = Clock::now();
  Load();
  return MillisecondsSince(start);
}

double TimePlainLoop() {
  const auto start = Clock::now();
  HashTables tables;
  std::ifstream file(kFile);
  for (std::string line; std::getline(file, line);) {
    const size_t first = line.find(' ');
    const size_t second = line.find(' ', first + 1);
    const std::string role = line.substr(second + 1);
    tables[line.substr(0, first)][line.substr(first + 1, second - first - 1)] = role == "administrator" ? 7
                                                                                : role == "poweruser"   ? 3
                                                                                                        : 1;
  }
  const double time = MillisecondsSince(start);
  Require(!tables.empty(), "the plain loop read nothing");
  return time;
}

// Nanoseconds of one lookup by random users, whose answers are checked.
double TimeLookups(int users, const std::function<ZEBRole(int)> &query, const std::function<int(int)> &expected) {
  Load();
  std::mt19937 random(2);
  std::vector<ZEBRole> queries;
  std::vector<int> answers;
  for (int i = 0; i < 100000; ++i) {
    const int user = static_cast<int>(random() % static_cast<unsigned>(users));
    queries.push_back(query(user));
    answers.push_back(expected(user));
  }
  ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
  const auto start = Clock::now();
  for (ZEBRole &role : queries) algorithm.GetUserPrivileges(role);
  const double time = MillisecondsSince(start);
  for (size_t i = 0; i < queries.size(); ++i) Require(queries[i].nPerm == answers[i], "a lookup answers wrongly");
  return time * 1e6 / static_cast<double>(queries.size());
}

std::wstring Wide(const std::string &text) { return {text.begin(), text.end()}; }

}  // namespace

int main() {
  std::printf("%-34s %10s %10s %7s %16s\n", "load, lines", "zebcs ms", "plain ms", "ratio", "ns per n log2 n");
  for (const int lines : {1000, 10000, 100000, 1000000}) {
    WriteUsers(lines);
    const double plain = Fastest(TimePlainLoop);
    const double ours = Fastest(TimeOurLoad);
    std::printf("%-34d %10.2f %10.2f %7.2f %16.2f\n", lines, ours, plain, ours / plain,
                ours * 1e6 / (lines * std::log2(lines)));
  }

  constexpr int kRules = 100000;
  std::printf("%-34s %10s\n", "lookup, 100000 rules", "ns");
  WriteUsers(kRules);
  std::printf("%-34s %10.1f\n", "user's own host", Fastest([] {
                return TimeLookups(
                    kRules,
                    [](int i) {
                      return ZEBRole{Wide(UserName(i)), Wide(HostName(i)), 0};
                    },
                    PrivilegeFor);
              }));
  WriteRoleMap([](std::FILE *file) {
    for (int i = 0; i < kRules; ++i) std::fprintf(file, "%s * %s\n", UserName(i).c_str(), RoleFor(i));
  });
  std::printf("%-34s %10.1f\n", "user's own rule for any host", Fastest([] {
                return TimeLookups(
                    kRules,
                    [](int i) {
                      return ZEBRole{Wide(UserName(i)), L"elsewhere", 0};
                    },
                    PrivilegeFor);
              }));
  WriteRoleMap([](std::FILE *file) {
    for (int i = 0; i < kRules; ++i) std::fprintf(file, "alice host%06d %s\n", i, RoleFor(i));
  });
  std::printf("%-34s %10.1f\n", "one user with all the rules", Fastest([] {
                return TimeLookups(
                    kRules,
                    [](int i) {
                      char host[32];
                      std::snprintf(host, sizeof host, "host%06d", i);
                      return ZEBRole{L"alice", Wide(host), 0};
                    },
                    PrivilegeFor);
              }));
  WriteRoleMap([](std::FILE *file) {
    for (int i = 0; i < kRules; ++i) std::fprintf(file, "* host%06d %s\n", i, RoleFor(i));
  });
  std::printf("%-34s %10.1f\n", "rules for anyone", Fastest([] {
                return TimeLookups(
                    kRules,
                    [](int i) {
                      char host[32];
                      std::snprintf(host, sizeof host, "host%06d", i);
                      return ZEBRole{L"bob", Wide(host), 0};
                    },
                    PrivilegeFor);
              }));
  return 0;
}

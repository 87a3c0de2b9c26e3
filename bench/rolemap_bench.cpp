// Loading a role map beside a plain loop that puts the same lines into hash maps, and looking privileges up. Runs in
// the sandbox, whose role-map file it writes; each measurement is a process of its own, so that no load finds memory
// that another one has left. The first query after a change stands beside visudo's check of the same rules. Times are
// processor time: nothing here waits, and the machine may have other work.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
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
#include "zebcs/rolemap.h"
#include "zebcs/rolemap.hpp"

namespace {

constexpr char kFile[] = "/opt/vorn/fleetops/etc/zebrolemap";
constexpr int kRounds = 5;
constexpr int kQueries = 100000;

double Milliseconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

// A word and a number of so many digits.
std::string Numbered(const char *word, int digits, int number) {
  char text[64];
  std::snprintf(text, sizeof text, "%s%0*d", word, digits, number);
  return text;
}

ZEBRole Query(const std::string &user, const std::string &host) {
  return {{user.begin(), user.end()}, {host.begin(), host.end()}, 0};
}

// --- The generated lines --------------------------------------------------------------------------------------------

struct Line {
  std::string name;
  std::string host;
};

std::string HostNumber(int i) { return Numbered("host", 6, i); }
std::string UserNumber(int i) { return Numbered("user", 7, i); }

bool IsGroup(int i) { return i % 20 == 0; }

// A role map as an administrator has it: mostly users on one of some machines, with groups, patterns and addresses.
Line MixedLine(int i) {
  const std::string name = IsGroup(i) ? Numbered("+group", 7, i) : UserNumber(i);
  switch (i % 10) {
    case 7: return {name, Numbered("192.0.2.", 1, i % 256)};
    case 8: return {name, "*.lab.example"};
    case 9: return {name, "*"};
    default: return {name, Numbered("host", 2, i % 100) + ".example"};
  }
}

struct Role {
  const char *keyword;
  int privilege;
};

Role RoleOf(int i) {
  constexpr Role kRoles[] = {{"administrator", 7}, {"poweruser", 3}, {"user", 1}};
  return kRoles[i % 3];
}

void WriteRoleMap(int lines, const std::function<Line(int)> &lineOf) {
  std::vector<int> order(static_cast<size_t>(lines));
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), std::mt19937(1));
  std::FILE *const file = std::fopen(kFile, "w");
  Require(file != nullptr, "the role map cannot be written: run this inside the sandbox, as bench/run does");
  for (const int i : order) {
    const Line line = lineOf(i);
    std::fprintf(file, "%s %s %s\n", line.name.c_str(), line.host.c_str(), RoleOf(i).keyword);
  }
  Require(std::fclose(file) == 0 && chmod(kFile, 0640) == 0, "the role map cannot be written");
}

// --- Measuring ------------------------------------------------------------------------------------------------------

// Runs `measure` in a process of its own and returns what it returned.
double InOwnProcess(const std::function<double()> &measure) {
  int fds[2];
  Require(pipe(fds) == 0, "pipe failed");
  const pid_t pid = fork();
  Require(pid != -1, "fork failed");
  if (pid == 0) {
    const double time = measure();
    const bool isWritten = write(fds[1], &time, sizeof time) == static_cast<ssize_t>(sizeof time);
    _exit(isWritten ? 0 : 1);
  }
  close(fds[1]);  // so that a measurement that fails ends the read
  double time = 0;
  const bool isRead = read(fds[0], &time, sizeof time) == static_cast<ssize_t>(sizeof time);
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  Require(isRead, "a measurement failed");
  return time;
}

// --- Loading --------------------------------------------------------------------------------------------------------

size_t Load() {
  QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
  reader.Open();
  const std::deque<QXAuthFileRecord *> &records = reader.GetRecords();
  ZEBRoleMapAlgorithm::GetInstance().Initialize(records);
  return records.size();
}

double TimeOurLoad(int lines) {
  const double start = Milliseconds();
  const size_t loaded = Load();
  const double time = Milliseconds() - start;
  Require(loaded == static_cast<size_t>(lines), "the reader did not read every line");
  for (int i = 0; i < lines; i += 7) {
    if (IsGroup(i)) continue;  // nobody is a member
    const Line line = MixedLine(i);
    // The pattern matches a host that is part of it.
    ZEBRole role = Query(line.name, line.host == "*.lab.example" ? "lab.example" : line.host);
    ZEBRoleMapAlgorithm::GetInstance().GetUserPrivileges(role);
    Require(role.nPerm == RoleOf(i).privilege, "the role map was loaded wrongly");
  }
  return time;
}

double TimePlainLoop(int lines) {
  std::unordered_map<std::string, std::unordered_map<std::string, int>> tables;
  const double start = Milliseconds();
  std::ifstream file(kFile);
  for (std::string line; std::getline(file, line);) {
    const size_t first = line.find(' ');
    const size_t second = line.find(' ', first + 1);
    const std::string role = line.substr(second + 1);
    const int privilege = role == "administrator" ? 7 : role == "poweruser" ? 3 : 1;
    tables[line.substr(0, first)][line.substr(first + 1, second - first - 1)] = privilege;
  }
  const double time = Milliseconds() - start;
  Require(tables.size() == static_cast<size_t>(lines), "the plain loop did not read every line");
  for (int i = 0; i < lines; i += 7) {
    const Line line = MixedLine(i);
    Require(tables[line.name][line.host] == RoleOf(i).privilege, "the plain loop loaded wrongly");
  }
  return time;
}

void CompareLoads(int lines) {
  WriteRoleMap(lines, MixedLine);
  double ours = HUGE_VAL;
  double plain = HUGE_VAL;
  for (int round = 0; round < kRounds; ++round) {
    plain = std::min(plain, InOwnProcess([lines] { return TimePlainLoop(lines); }));
    ours = std::min(ours, InOwnProcess([lines] { return TimeOurLoad(lines); }));
  }
  const double nanosecondsPerLine = ours * 1e6 / lines;
  std::printf("%-34d %10.2f %10.2f %7.2f %12.1f %16.2f\n", lines, ours, plain, ours / plain, nanosecondsPerLine,
              nanosecondsPerLine / std::log2(lines));
}

// --- The first query after a change --------------------------------------------------------------------------------

constexpr char kSudoers[] = "/tmp/zebcs-bench-sudoers";

u32 RightsOf(std::string user) { return get_user_rights(user.data()); }

double TimeQueryAfterChange() {
  const Line line = MixedLine(1);
  const std::string user = line.name + "@" + line.host;
  Require(RightsOf(user) == 3, "the rights differ");
  const timespec times[] = {{.tv_sec = 1000000000, .tv_nsec = 0}, {.tv_sec = 1000000000, .tv_nsec = 0}};
  Require(utimensat(AT_FDCWD, kFile, times, 0) == 0, "the role map cannot be touched");
  const double start = Milliseconds();
  const u32 rights = RightsOf(user);
  const double time = Milliseconds() - start;
  Require(rights == 3, "the rights differ");
  return time;
}

// The same grants as rules for commands.
void WriteSudoers(int lines) {
  std::ofstream file(kSudoers);
  for (int i = 0; i < lines; ++i) {
    Line line = MixedLine(i);
    if (IsGroup(i)) line.name[0] = '%';
    file << line.name << ' ' << (line.host == "*" ? "ALL" : line.host) << " = (ALL) ALL\n";
  }
  file.close();
  Require(file.good() && chmod(kSudoers, 0440) == 0, "the sudoers file cannot be written");
}

double TimeVisudo() {
  const pid_t pid = fork();
  if (pid == 0) {
    execl("/usr/sbin/visudo", "visudo", "-c", "-q", "-f", kSudoers, nullptr);
    _exit(1);
  }
  int status = 0;
  rusage usage{};
  Require(pid != -1 && wait4(pid, &status, 0, &usage) == pid && status == 0, "visudo failed");
  const auto milliseconds = [](const timeval &t) {
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_usec) / 1e3;
  };
  return milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
}

void CompareFirstQueries(int lines) {
  WriteRoleMap(lines, MixedLine);
  WriteSudoers(lines);
  double ours = HUGE_VAL;
  double visudo = HUGE_VAL;
  for (int round = 0; round < kRounds; ++round) {
    Require(chmod(kFile, 0640) == 0 && utimensat(AT_FDCWD, kFile, nullptr, 0) == 0, "the role map cannot be touched");
    ours = std::min(ours, InOwnProcess(TimeQueryAfterChange));
    visudo = std::min(visudo, InOwnProcess(TimeVisudo));
  }
  std::printf("%-34d %10.2f %10.2f %7.2f\n", lines, ours, visudo, visudo / ours);
}

// --- Looking up -----------------------------------------------------------------------------------------------------

// Nanoseconds of one lookup out of many for lines drawn at random.
double TimeLookups(int lines, const std::function<ZEBRole(int)> &queryFor) {
  Load();
  std::mt19937 random(2);
  std::vector<ZEBRole> queries;
  std::vector<int> answers;
  for (int i = 0; i < kQueries; ++i) {
    const int line = static_cast<int>(random() % static_cast<unsigned>(lines));
    queries.push_back(queryFor(line));
    answers.push_back(RoleOf(line).privilege);
  }
  ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
  const double start = Milliseconds();
  for (ZEBRole &role : queries) algorithm.GetUserPrivileges(role);
  const double time = Milliseconds() - start;
  for (size_t i = 0; i < queries.size(); ++i) Require(queries[i].nPerm == answers[i], "a lookup answers wrongly");
  return time * 1e6 / kQueries;
}

void ReportLookups(const char *what, const std::function<Line(int)> &lineOf,
                   const std::function<ZEBRole(int)> &queryFor) {
  constexpr int kLines = 100000;
  WriteRoleMap(kLines, lineOf);
  double time = HUGE_VAL;
  for (int round = 0; round < kRounds; ++round) {
    time = std::min(time, InOwnProcess([&queryFor] { return TimeLookups(kLines, queryFor); }));
  }
  std::printf("%-34s %10.1f\n", what, time);
}

}  // namespace

int main() {
  std::printf("%-34s %10s %10s %7s %12s %16s\n", "load, lines", "zebcs ms", "plain ms", "ratio", "ns per line",
              "ns per n log2 n");
  for (const int lines : {1000, 10000, 100000, 1000000}) CompareLoads(lines);

  std::printf("%-34s %10s %10s %7s\n", "first query, lines", "zebcs ms", "visudo ms", "ratio");
  for (const int lines : {1000, 100000}) CompareFirstQueries(lines);

  // None of these lookups makes a system call: each is decided before groups would be asked for.
  std::printf("%-34s %10s\n", "lookup, 100000 lines", "ns");
  const auto ownHost = [](int i) { return Line{UserNumber(i), HostNumber(i % 100)}; };
  const auto anyHost = [](int i) { return Line{UserNumber(i), "*"}; };
  const auto oneUser = [](int i) { return Line{"alice", HostNumber(i)}; };
  const auto anyone = [](int i) { return Line{"*", HostNumber(i)}; };
  ReportLookups("user's own rule for a host", ownHost, [](int i) { return Query(UserNumber(i), HostNumber(i % 100)); });
  ReportLookups("user's own rule for any host", anyHost, [](int i) { return Query(UserNumber(i), "elsewhere"); });
  ReportLookups("one user with all the rules", oneUser, [](int i) { return Query("alice", HostNumber(i)); });
  ReportLookups("rules for anyone", anyone, [](int i) { return Query("bob", HostNumber(i)); });
  return 0;
}

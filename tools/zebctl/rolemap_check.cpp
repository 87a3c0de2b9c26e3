// zebctl rolemap check --file: judges a role map before it is put in place.
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <deque>
#include <iterator>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commands.h"
#include "output.h"
#include "rolemap_commands.h"
#include "text.h"

namespace {

using nlohmann::ordered_json;

enum class Severity { kError, kWarning };

struct Finding {
  Severity severity;
  unsigned long line;  // 0 for the whole file
  const char *kind;    // a word that scripts can rely on
  std::wstring message;
};

// What is found, and the records of the lines that are in order.
struct Judgement {
  std::vector<Finding> findings;
  std::vector<std::unique_ptr<QXAuthFileRecord>> owned;
  Records records;

  void Error(unsigned long line, const char *kind, std::wstring message) {
    findings.push_back({Severity::kError, line, kind, std::move(message)});
  }
  void Warn(unsigned long line, const char *kind, std::wstring message) {
    findings.push_back({Severity::kWarning, line, kind, std::move(message)});
  }
  bool Has(Severity severity) const {
    return std::any_of(findings.begin(), findings.end(),
                       [severity](const Finding &finding) { return finding.severity == severity; });
  }
};

// --- The file itself ------------------------------------------------------------------------------------------------

std::wstring SystemError() { return Widened(std::strerror(errno)).value_or(L"the system does not say why"); }

// Returns the lines of the file, unless it cannot be read.
std::optional<Lines> JudgeFile(const std::string &path, Judgement &judgement) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    judgement.Error(0, "not-found", L"The file cannot be examined: " + SystemError() + L'.');
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    judgement.Error(0, "type", L"It is not a regular file.");
    return std::nullopt;
  }
  // Kept: the sticky bit is the one bit that may be set beside 0640.
  const mode_t mode = status.st_mode & 07777;
  if ((mode & ~mode_t{S_ISVTX}) != 0640) {
    wchar_t text[64];
    (void)std::swprintf(text, std::size(text), L"Its permissions are %04o and must be 0640.", mode);
    judgement.Error(0, "mode", text);
  }
  std::optional<Lines> lines = ReadLines(path.c_str());
  if (!lines) judgement.Error(0, "not-found", L"The file cannot be read: " + SystemError() + L'.');
  return lines;
}

// --- Lines ----------------------------------------------------------------------------------------------------------

std::vector<std::wstring_view> ColumnsOf(std::wstring_view line) {
  constexpr wchar_t kBlanks[] = L" \t";
  std::vector<std::wstring_view> columns;
  for (line = Trimmed(line); !line.empty(); line = Trimmed(line)) {
    columns.push_back(line.substr(0, line.find_first_of(kBlanks)));
    line.remove_prefix(columns.back().size());
  }
  return columns;
}

// The first two columns that a blank beside a comma has torn apart, of those up to `last`.
std::optional<std::wstring> TornColumns(const std::vector<std::wstring_view> &columns, size_t last) {
  for (size_t i = 0; i < last && i + 1 < columns.size(); ++i) {
    if (columns[i].ends_with(L',') || columns[i + 1].starts_with(L',')) {
      return std::wstring(columns[i]) + L' ' + std::wstring(columns[i + 1]);
    }
  }
  return std::nullopt;
}

std::wstring Torn(const std::wstring &columns) {
  return L"The blank beside the comma in " + Quoted(columns) +
         L" ends the column, and what follows counts as the next one. Remove the blank.";
}

// The line's record with its grants; null if the line does not follow the format.
std::unique_ptr<QXAuthFileRecord> RecordOf(std::wstring_view line, unsigned long number) {
  auto record = std::make_unique<QXAuthFileRecord>(std::wstring(line), static_cast<int>(number));
  try {
    record->PopulateZEBRoles();
  } catch (const ZEBRoleMapFileReaderException &error) {
    if (error.getErrorCode() == MEMORY_ALLOCATION_FAILURE) throw std::bad_alloc();
    return nullptr;
  }
  return record;
}

void JudgeFaultyLine(std::wstring_view line, unsigned long number, Judgement &judgement) {
  if (line.ends_with(L'\r')) {
    judgement.Error(number, "carriage-return",
                    L"The line ends with a carriage return, which is not a blank here. Save the file with plain "
                    L"newlines at the ends of its lines.");
    line = Trimmed(line.substr(0, line.find_last_not_of(L'\r') + 1));
    if (line.empty() || RecordOf(line, number) != nullptr) return;
  }
  const std::vector<std::wstring_view> columns = ColumnsOf(line);
  if (const auto torn = TornColumns(columns, 2)) {
    judgement.Error(number, "shifted-column", Torn(*torn));
  } else if (columns.size() < 3) {
    judgement.Error(number, "missing-column",
                    L"The line has " + std::wstring(columns.size() == 1 ? L"one" : L"two") +
                        L" of the three columns NAMES HOSTS ROLE.");
  } else {
    judgement.Error(number, "unknown-role",
                    L"The role " + Quoted(columns[2]) + L" is not administrator, poweruser or user.");
  }
}

void JudgeLine(std::wstring_view line, unsigned long number, Judgement &judgement) {
  std::unique_ptr<QXAuthFileRecord> record = RecordOf(line, number);
  if (record == nullptr) {
    JudgeFaultyLine(line, number, judgement);
    return;
  }
  const std::vector<std::wstring_view> columns = ColumnsOf(line);
  // A comma at the end of the hosts is only that if what follows is a role.
  if (const auto torn = TornColumns(columns, 1)) judgement.Warn(number, "shifted-column", Torn(*torn));
  if (columns.size() > 3) {
    const auto rest = static_cast<size_t>(columns[3].data() - line.data());
    judgement.Warn(number, "ignored-text",
                   L"The text after the third column is ignored: " + Quoted(line.substr(rest)) + L'.');
  }
  judgement.records.push_back(record.get());
  judgement.owned.push_back(std::move(record));
}

void JudgeLines(const Lines &lines, Judgement &judgement) {
  unsigned long number = 0;
  bool isEmpty = true;
  for (const FileLine &line : lines) {
    ++number;
    const std::wstring_view text = Trimmed(line.text);
    if (line.isValid && (text.empty() || text.starts_with(L'#'))) continue;
    isEmpty = false;
    if (line.isValid) {
      JudgeLine(text, number, judgement);
    } else {
      judgement.Error(number, "unreadable-bytes",
                      L"The line has bytes that are not valid text in this locale. The reading ends there, and what "
                      L"follows them does not count.");
    }
  }
  if (isEmpty) judgement.Error(0, "empty", L"The file has no entry.");
}

// --- Names ----------------------------------------------------------------------------------------------------------

bool IsAccount(const std::wstring &name) {
  const std::optional<std::string> narrow = Narrowed(name);
  return narrow && getpwnam(narrow->c_str()) != nullptr;
}

bool IsGroup(const std::wstring &name) {
  const std::optional<std::string> narrow = Narrowed(name);
  return narrow && getgrnam(narrow->c_str()) != nullptr;
}

// Each name is asked for once, and told where it stands first.
void JudgeName(const std::wstring &name, unsigned long number, Judgement &judgement) {
  if (IsForAnyone(name)) return;
  if (name.empty() || name == L"+") {
    judgement.Warn(number, "empty-name", L"The line has an empty name, which is nobody's.");
  } else if (IsForGroup(name)) {
    if (IsGroup(name.substr(1))) return;
    judgement.Warn(number, "unknown-group", L"This machine does not know the group " + Quoted(name.substr(1)) + L'.');
  } else if (!IsAccount(name)) {
    judgement.Warn(number, "unknown-user", L"This machine does not know the user " + Quoted(name) + L'.');
  }
}

// --- Rules that say the same thing twice ----------------------------------------------------------------------------

void JudgeRepetition(const ZEBRole &role, unsigned long number, const Rule &before, Judgement &judgement) {
  const std::wstring what = Quoted(role.szUserName) + L" for the host " + Quoted(role.szHostName);
  const std::wstring where = L", as line " + std::to_wstring(before.line) + L" does";
  if (!IsForAnyone(role.szUserName) && !IsForGroup(role.szUserName)) {
    judgement.Error(number, "duplicate-user",
                    L"The line names the user " + what + where + L". This makes the whole file unusable.");
    return;
  }
  const s32 stronger = std::max(before.privilege, role.nPerm);
  judgement.Warn(
      number, "merged-duplicate",
      L"The line names " + what + where + L". The stronger of the two counts: " + *Widened(RoleOf(stronger)) + L'.');
}

// --- Rules that cannot decide ---------------------------------------------------------------------------------------

// The rules of one name, and which of them no lookup on this machine can end with.
class DecidingRules {
 public:
  DecidingRules(const std::wstring &name, const HostRules &rules, const Machine &machine)
      : m_isForAnyone(IsForAnyone(name)),
        m_isForUser(!m_isForAnyone && !IsForGroup(name)),
        m_rules(rules),
        m_machine(machine) {}

  // Why the rule never decides; nothing if it can.
  std::optional<std::wstring> WhyNever(const std::wstring &host) const {
    if (IsOwnAddress(host)) return std::nullopt;
    const bool isOwnDomain = host == m_machine.domainKey;
    if (isOwnDomain || host == L"*") {
      const auto first = std::find_if(m_rules.begin(), m_rules.end(), [&](const auto &entry) {
        return IsOwnAddress(entry.first) || (!isOwnDomain && entry.first == m_machine.domainKey);
      });
      if (first == m_rules.end()) return std::nullopt;
      if (!isOwnDomain || m_isForAnyone) {
        return L"line " + std::to_wstring(first->second.line) + L" names " + Quoted(first->first) +
               L", which is this machine's own " + (IsOwnAddress(first->first) ? L"address" : L"domain") +
               L" and decides for every host before it";
      }
    }
    if (IsPattern(host)) {
      if (m_isForAnyone) {
        return L"for anyone, a domain pattern counts only where it is that of this machine's own domain" +
               (m_machine.domainKey ? L", which is " + Quoted(*m_machine.domainKey) : L"");
      }
      if (!HasHostName(host)) {
        return std::wstring(
            L"a domain pattern matches a host whose name is a part of it, and no part of it is a name, "
            L"except for a login without a host");
      }
    } else if (host.find(L'*') != std::wstring::npos) {
      return std::wstring(L"a \"*\" stands for any host only by itself");
    }
    return WhyHidden(host);
  }

 private:
  bool IsOwnAddress(const std::wstring &host) const { return m_machine.HasAddress(host, m_isForUser); }

  // Whether a part of the pattern can be the name of a host.
  static bool HasHostName(const std::wstring &pattern) {
    return pattern.find_first_not_of(L"*.") != std::wstring::npos;
  }

  // A domain pattern that matches whatever this host matches: before it among a user's rules, and with more privilege
  // among a group's.
  std::optional<std::wstring> WhyHidden(const std::wstring &host) const {
    if (m_isForAnyone) return std::nullopt;
    const s32 privilege = m_rules.at(host).privilege;
    for (const auto &[pattern, rule] : m_rules) {
      if (!IsPattern(pattern) || pattern == host || !Contains(pattern, host)) continue;
      const bool isFirst = m_isForUser ? !IsPattern(host) || pattern < host : rule.privilege > privilege;
      if (!isFirst) continue;
      return L"line " + std::to_wstring(rule.line) + L" names the domain pattern " + Quoted(pattern) +
             L", which matches every host that is a part of it and goes before";
    }
    return std::nullopt;
  }

  const bool m_isForAnyone;
  const bool m_isForUser;
  const HostRules &m_rules;
  const Machine &m_machine;
};

void JudgeRules(const std::wstring &name, const HostRules &rules, const Machine &machine, Judgement &judgement) {
  const DecidingRules deciding(name, rules, machine);
  for (const auto &[host, rule] : rules) {
    if (host.empty()) {
      judgement.Warn(rule.line, "empty-host",
                     L"The rule for " + Quoted(name) + L" has an empty host, which only a login without a host has.");
    }
    if (const auto reason = deciding.WhyNever(host)) {
      judgement.Warn(
          rule.line, "never-decides",
          L"The rule for " + Quoted(name) + L" and the host " + Quoted(host) + L" never decides: " + *reason + L'.');
    } else if (IsPattern(host) && !IsForAnyone(name) && host != machine.domainKey) {
      judgement.Warn(rule.line, "domain-pattern",
                     L"The domain pattern " + Quoted(host) + L" for " + Quoted(name) +
                         L" matches a host whose name is a part of the pattern, and not the hosts of the domain.");
    }
  }
}

// --- The answer -----------------------------------------------------------------------------------------------------

void JudgeGrants(Judgement &judgement) {
  Rules rules;
  std::set<std::wstring> names;
  std::deque<ZEBRole *> roles;
  for (const auto &record : judgement.owned) {
    const unsigned long number = record->GetLineNumber();
    record->GetRoles(roles);
    for (const ZEBRole *role : roles) {
      if (names.insert(role->szUserName).second) JudgeName(role->szUserName, number, judgement);
      if (const auto before = rules.Add(*role, number)) JudgeRepetition(*role, number, *before, judgement);
    }
  }
  const Machine machine;
  for (const auto &[name, hosts] : rules.users) JudgeRules(name, hosts, machine, judgement);
  for (const auto &[name, hosts] : rules.groups) JudgeRules(name, hosts, machine, judgement);
  JudgeRules(L"*", rules.anyone, machine, judgement);
}

Judgement Judge(const std::string &path) {
  Judgement judgement;
  if (const std::optional<Lines> lines = JudgeFile(path, judgement)) {
    JudgeLines(*lines, judgement);
    JudgeGrants(judgement);
  }
  std::stable_sort(judgement.findings.begin(), judgement.findings.end(),
                   [](const Finding &a, const Finding &b) { return a.line < b.line; });
  return judgement;
}

ordered_json JSONOf(const Judgement &judgement, Severity severity) {
  ordered_json list = ordered_json::array();
  for (const Finding &finding : judgement.findings) {
    if (finding.severity != severity) continue;
    list.push_back({{"line", finding.line}, {"kind", finding.kind}, {"message", ForJSON(finding.message)}});
  }
  return list;
}

std::string ToText(const Finding &finding, const std::string &path) {
  std::string text = "zebctl: " + path + ": ";
  if (finding.line != 0) text += "line " + std::to_string(finding.line) + ": ";
  text += finding.severity == Severity::kError ? "error: " : "warning: ";
  return text + LineForTerminal(finding.message) + '\n';
}

}  // namespace

int CheckFile(const std::string &path, bool isStrict, bool asJSON) {
  const Judgement judgement = Judge(path);
  const bool isUsable = !judgement.Has(Severity::kError);
  const bool isGood = isUsable && !(isStrict && judgement.Has(Severity::kWarning));
  const std::wstring widePath = FromUTF8(path);
  if (asJSON) {
    ordered_json answer{{"file", ForJSON(widePath)},
                        {"ok", isGood},
                        {"errors", JSONOf(judgement, Severity::kError)},
                        {"warnings", JSONOf(judgement, Severity::kWarning)}};
    if (isUsable) answer["grants"] = GrantsForJSON(judgement.records);
    PrintJSON(answer);
    return isGood ? kExitGood : kExitNo;
  }
  for (const Finding &finding : judgement.findings) Complain(ToText(finding, LineForTerminal(widePath)));
  if (isUsable) Print(GrantsForTerminal(judgement.records));
  return isGood ? kExitGood : kExitNo;
}

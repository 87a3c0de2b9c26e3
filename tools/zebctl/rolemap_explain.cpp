// zebctl rolemap explain: which rule decides what the role map gives an account, or why none does.
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "output.h"
#include "rolemap_commands.h"
#include "text.h"
#include "zebcs/auth.h"

namespace {

using nlohmann::ordered_json;

// --- The decision ---------------------------------------------------------------------------------------------------

enum class Tier { kUser, kGroups, kAnyone };
enum class Step { kPattern, kHost, kAddress, kDomain, kAny };

// A rule that matches.
struct Match {
  Step step;
  std::wstring name;
  std::wstring host;
  Rule rule;
};

// A rule that could have mattered and does not match.
struct Miss {
  std::wstring name;
  std::wstring host;
  Rule rule;
  std::wstring reason;
};

struct Decision {
  std::optional<Tier> tier;    // nothing when no rule matches
  std::vector<Match> matches;  // those that decide: several only where they agree
  std::vector<Miss> misses;    // only when no rule matches

  s32 Privilege() const { return matches.empty() ? 0 : matches.front().rule.privilege; }
};

// The rules of one group of the user.
struct GroupRules {
  std::wstring name;
  const HostRules &rules;
};

std::vector<Match> Strongest(std::vector<Match> matches) {
  s32 strongest = 0;
  for (const Match &match : matches) strongest = std::max(strongest, match.rule.privilege);
  std::erase_if(matches, [strongest](const Match &match) { return match.rule.privilege != strongest; });
  return matches;
}

// The search for the rules that decide for one host, by the steps that the library promises.
class Search {
 public:
  Search(std::wstring host, const Machine &machine) : m_host(std::move(host)), m_machine(machine) {}

  std::vector<Match> ByUser(const std::wstring &name, const HostRules &rules) const {
    for (const auto &[host, rule] : rules) {
      if (IsPattern(host) && Contains(host, m_host)) return {{Step::kPattern, name, host, rule}};
    }
    std::vector<Match> matches;
    AddExact(matches, Step::kHost, name, rules, m_host);
    if (!matches.empty()) return matches;
    for (const std::string &address : m_machine.addresses) {
      const auto found = std::find_if(rules.begin(), rules.end(),
                                      [&address](const auto &entry) { return IsSameAddress(entry.first, address); });
      if (found != rules.end()) matches.push_back({Step::kAddress, name, found->first, found->second});
    }
    if (matches.empty() && m_machine.domainKey) AddExact(matches, Step::kDomain, name, rules, *m_machine.domainKey);
    if (matches.empty()) AddExact(matches, Step::kAny, name, rules, L"*");
    return Strongest(matches);
  }

  // Each step over all groups before the next.
  std::vector<Match> ByGroups(const std::vector<GroupRules> &groups) const {
    std::vector<Match> matches;
    for (const GroupRules &group : groups) {
      for (const auto &[host, rule] : group.rules) {
        if (IsPattern(host) && Contains(host, m_host)) {
          matches.push_back({Step::kPattern, group.name, host, rule});
        } else if (host == m_host) {
          matches.push_back({Step::kHost, group.name, host, rule});
        }
      }
    }
    if (matches.empty()) {
      for (const GroupRules &group : groups) AddOwnAddresses(matches, group.name, group.rules);
    }
    if (matches.empty() && m_machine.domainKey) {
      for (const GroupRules &group : groups) {
        AddExact(matches, Step::kDomain, group.name, group.rules, *m_machine.domainKey);
      }
    }
    if (matches.empty()) {
      for (const GroupRules &group : groups) AddExact(matches, Step::kAny, group.name, group.rules, L"*");
    }
    return Strongest(matches);
  }

  std::vector<Match> ByAnyone(const HostRules &rules) const {
    std::vector<Match> matches;
    AddExact(matches, Step::kHost, L"*", rules, m_host);
    if (matches.empty()) AddOwnAddresses(matches, L"*", rules);
    if (matches.empty() && m_machine.domainKey) AddExact(matches, Step::kDomain, L"*", rules, *m_machine.domainKey);
    if (matches.empty()) AddExact(matches, Step::kAny, L"*", rules, L"*");
    return Strongest(matches);
  }

  // Adds the rules of one name, none of which matches, and why.
  void AddMisses(std::vector<Miss> &misses, const std::wstring &name, const HostRules &rules) const {
    for (const auto &[host, rule] : rules) misses.push_back({name, host, rule, WhyNot(name, host)});
  }

 private:
  static void AddExact(std::vector<Match> &matches, Step step, const std::wstring &name, const HostRules &rules,
                       const std::wstring &host) {
    const auto found = rules.find(host);
    if (found != rules.end()) matches.push_back({step, name, host, found->second});
  }

  void AddOwnAddresses(std::vector<Match> &matches, const std::wstring &name, const HostRules &rules) const {
    for (const std::string &address : m_machine.addresses) {
      if (const auto wide = Widened(address.c_str())) AddExact(matches, Step::kAddress, name, rules, *wide);
    }
  }

  std::wstring WhyNot(const std::wstring &name, const std::wstring &host) const {
    if (!IsPattern(host)) {
      return L"The host is not " + Quoted(m_host) + L", nor an address of this machine" +
             (host.find(L'*') == std::wstring::npos ? L"." : L"; a \"*\" stands for any host only by itself.");
    }
    const std::wstring domain = m_machine.domainKey ? L", which is " + Quoted(*m_machine.domainKey) : L"";
    if (IsForAnyone(name)) {
      return L"For anyone, a domain pattern counts only where it is that of this machine's own domain" + domain + L'.';
    }
    return Quoted(m_host) + L" is not a part of the pattern, nor is it the pattern of this machine's own domain" +
           domain + L'.';
  }

  std::wstring m_host;
  const Machine &m_machine;
};

// The groups of an account with their "+", in the system's order, each once. Nothing when there is no such account.
std::optional<std::vector<std::wstring>> GroupsOf(const std::string &user) {
  const passwd *const account = getpwnam(user.c_str());
  if (account == nullptr) return std::nullopt;
  const std::string name = account->pw_name;
  const gid_t primary = account->pw_gid;
  std::vector<gid_t> ids(100);
  int count = static_cast<int>(ids.size());
  while (getgrouplist(name.c_str(), primary, ids.data(), &count) == -1) {
    ids.resize(std::max(static_cast<size_t>(count), ids.size() + 1));
    count = static_cast<int>(ids.size());
  }
  ids.resize(static_cast<size_t>(count));
  std::vector<std::wstring> groups;
  for (const gid_t id : ids) {
    const group *const entry = getgrgid(id);
    const std::optional<std::wstring> wide = entry == nullptr ? std::nullopt : Widened(entry->gr_name);
    if (wide && std::find(groups.begin(), groups.end(), L'+' + *wide) == groups.end()) groups.push_back(L'+' + *wide);
  }
  return groups;
}

Decision Decide(const Rules &rules, const ZEBRole &question, const std::vector<std::wstring> &groupNames) {
  const Machine machine;
  const Search search(question.szHostName, machine);
  Decision decision;
  const auto user = rules.users.find(question.szUserName);
  if (user != rules.users.end()) {
    decision.tier = Tier::kUser;
    decision.matches = search.ByUser(user->first, user->second);
    if (!decision.matches.empty()) return decision;
  }
  std::vector<GroupRules> groups;
  for (const std::wstring &name : groupNames) {
    const auto found = rules.groups.find(name);
    if (found != rules.groups.end()) groups.push_back({name, found->second});
  }
  decision.tier = Tier::kGroups;
  decision.matches = search.ByGroups(groups);
  if (!decision.matches.empty()) return decision;
  decision.tier = Tier::kAnyone;
  decision.matches = search.ByAnyone(rules.anyone);
  if (!decision.matches.empty()) return decision;
  decision.tier = std::nullopt;
  if (user != rules.users.end()) search.AddMisses(decision.misses, user->first, user->second);
  for (const GroupRules &group : groups) search.AddMisses(decision.misses, group.name, group.rules);
  search.AddMisses(decision.misses, L"*", rules.anyone);
  return decision;
}

// --- The rights word ------------------------------------------------------------------------------------------------

// What get_user_rights makes of the role map's privilege and the operating system's.
u32 RightsWord(s32 privilege, s32 osPrivilege) {
  if (osPrivilege == 7) return 0x40007;
  return privilege == 0 ? 0 : static_cast<u32>(std::max(privilege, osPrivilege));
}

// The rights words of the two ways to name a user and a host; nothing where the separators in them do not let the
// text mean this user and this host.
struct Rights {
  std::optional<u32> nameAtHost;
  std::optional<u32> hostBackslashName;
};

Rights RightsOf(const std::string &user, const std::string &host, s32 privilege, s32 osPrivilege) {
  Rights rights;
  if ((user + host).find('@') != std::string::npos) return rights;
  rights.nameAtHost = RightsWord(privilege, osPrivilege);
  if (host.empty() || (user + host).find('\\') != std::string::npos) return rights;
  // Kept: for this form the system is asked about an account with the name of the host.
  rights.hostBackslashName = RightsWord(privilege, ZEBRoleMapAlgorithm::GetInstance().GetOSPrivilege(host.c_str()));
  return rights;
}

// --- The answer -----------------------------------------------------------------------------------------------------

const char *NameOf(Tier tier) {
  switch (tier) {
    case Tier::kUser: return "the user's own rules";
    case Tier::kGroups: return "the rules of his groups";
    case Tier::kAnyone: return "the rules for anyone";
  }
  return "";
}

const char *WordOf(Tier tier) {
  switch (tier) {
    case Tier::kUser: return "user";
    case Tier::kGroups: return "groups";
    case Tier::kAnyone: return "anyone";
  }
  return "";
}

const char *NameOf(Step step) {
  switch (step) {
    case Step::kPattern: return "domain pattern";
    case Step::kHost: return "the host itself";
    case Step::kAddress: return "this machine's address";
    case Step::kDomain: return "this machine's domain";
    case Step::kAny: return "any host";
  }
  return "";
}

const char *WordOf(Step step) {
  switch (step) {
    case Step::kPattern: return "domain-pattern";
    case Step::kHost: return "host";
    case Step::kAddress: return "own-address";
    case Step::kDomain: return "own-domain";
    case Step::kAny: return "any-host";
  }
  return "";
}

// All that there is to tell.
struct Answer {
  ZEBRole question;  // with the library's answer
  std::optional<Fault> fault;
  unsigned long stop = 0;  // the line at which the reading stopped; 0 for none
  Lines lines;             // of the file
  std::optional<std::vector<std::wstring>> groups;
  Decision decision;
  s32 osPrivilege = 0;
  Rights rights;

  bool IsInDoubt() const { return decision.Privilege() != question.nPerm; }

  // The text of the line that makes a rule; nothing when the file has changed and the line is gone.
  std::optional<std::wstring> TextOf(const std::wstring &name, const std::wstring &host, const Rule &rule) const {
    if (rule.line == 0) return name + L' ' + host + L' ' + *Widened(RoleOf(rule.privilege));
    if (rule.line > lines.size()) return std::nullopt;
    return std::wstring(Trimmed(lines[rule.line - 1].text));
  }
};

std::string DoubtOf(const Answer &answer) {
  return "The library gives the privilege " + std::to_string(answer.question.nPerm) +
         ", and the rules as zebctl follows them give " + std::to_string(answer.decision.Privilege()) +
         ". The library's answer is the one that counts; no rule is named for it. Ask again: accounts, addresses or "
         "the file may have changed in between.";
}

ordered_json JSONOf(const std::optional<u32> &word) { return word ? ordered_json(*word) : ordered_json(); }

ordered_json JSONOf(const std::optional<std::wstring> &text) {
  return text ? ordered_json(ForJSON(*text)) : ordered_json();
}

void PrintJSONAnswer(const Answer &answer) {
  ordered_json json{{"user", ForJSON(answer.question.szUserName)},
                    {"host", ForJSON(answer.question.szHostName)},
                    {"source", answer.fault ? "defaults" : "file"},
                    {"roleMap", {{"role", RoleOf(answer.question.nPerm)}, {"privilege", answer.question.nPerm}}},
                    {"operatingSystem", {{"role", RoleOf(answer.osPrivilege)}, {"privilege", answer.osPrivilege}}},
                    {"rights",
                     {{"nameAtHost", JSONOf(answer.rights.nameAtHost)},
                      {"hostBackslashName", JSONOf(answer.rights.hostBackslashName)}}}};
  json["groups"] = nullptr;
  if (answer.groups) {
    json["groups"] = ordered_json::array();
    for (const std::wstring &group : *answer.groups) json["groups"].push_back(ForJSON(group));
  }
  json["agrees"] = !answer.IsInDoubt();
  if (answer.IsInDoubt()) {
    json["workedOut"] = answer.decision.Privilege();
    json["message"] = DoubtOf(answer);
  } else {
    json["tier"] = answer.decision.tier ? ordered_json(WordOf(*answer.decision.tier)) : ordered_json();
    json["decidedBy"] = ordered_json::array();
    for (const Match &match : answer.decision.matches) {
      json["decidedBy"].push_back({{"step", WordOf(match.step)},
                                   {"name", ForJSON(match.name)},
                                   {"host", ForJSON(match.host)},
                                   {"line", match.rule.line},
                                   {"text", JSONOf(answer.TextOf(match.name, match.host, match.rule))}});
    }
    json["notMatched"] = ordered_json::array();
    for (const Miss &miss : answer.decision.misses) {
      json["notMatched"].push_back({{"name", ForJSON(miss.name)},
                                    {"host", ForJSON(miss.host)},
                                    {"line", miss.rule.line},
                                    {"text", JSONOf(answer.TextOf(miss.name, miss.host, miss.rule))},
                                    {"reason", ForJSON(miss.reason)}});
    }
  }
  if (answer.stop != 0) {
    const ordered_json warning{
        {"line", answer.stop}, {"kind", "unreadable-bytes"}, {"message", ReadingStopped(answer.stop)}};
    json["warnings"] = ordered_json::array({warning});
  }
  if (answer.fault) json["error"] = ToJSON(*answer.fault);
  PrintJSON(json);
}

std::string LineOf(const Rule &rule) { return rule.line == 0 ? "built-in" : "line " + std::to_string(rule.line); }

std::string TextOf(const std::optional<u32> &word) {
  if (!word) return "-";
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", *word);
  return text;
}

std::string TextOf(s32 privilege) { return std::string(RoleOf(privilege)) + " (" + std::to_string(privilege) + ')'; }

void PrintText(const Answer &answer) {
  if (answer.fault) Complain("zebctl: " + ToText(*answer.fault) + kGoesByDefaults);
  if (answer.stop != 0) {
    Complain(std::string("zebctl: ") + kRoleMapFile + ": warning: " + ReadingStopped(answer.stop) + '\n');
  }
  std::string groups;
  for (const std::wstring &group : answer.groups.value_or(std::vector<std::wstring>())) {
    groups += (groups.empty() ? "" : " ") + ForTerminal(group);
  }
  std::vector<std::vector<std::string>> rows{
      {"WHAT", "VALUE"},
      {"user", ForTerminal(answer.question.szUserName)},
      {"groups", !answer.groups   ? "no such account"
                 : groups.empty() ? "none"
                                  : groups},
      {"host", answer.question.szHostName.empty() ? "none" : ForTerminal(answer.question.szHostName)},
      {answer.fault ? "role map (defaults)" : "role map", TextOf(answer.question.nPerm)}};
  if (!answer.IsInDoubt() && answer.decision.tier) {
    rows.push_back({"decided by", NameOf(*answer.decision.tier)});
    for (const Match &match : answer.decision.matches) {
      rows.push_back({"  step", std::string(NameOf(match.step)) + ": " + ForTerminal(match.host)});
      rows.push_back({"  name", ForTerminal(match.name)});
      rows.push_back(
          {"  rule", LineOf(match.rule) + ": " +
                         LineForTerminal(answer.TextOf(match.name, match.host, match.rule).value_or(L"(gone)"))});
    }
  }
  rows.push_back({"operating system", TextOf(answer.osPrivilege)});
  rows.push_back({"rights of name@host", TextOf(answer.rights.nameAtHost)});
  rows.push_back({"rights of host\\name", TextOf(answer.rights.hostBackslashName)});
  Print(Table(rows));
  if (answer.IsInDoubt()) {
    Complain("zebctl: " + DoubtOf(answer) + '\n');
    return;
  }
  if (answer.decision.tier) return;
  if (answer.decision.misses.empty()) {
    Print("\nNo rule names the user, any of his groups, or anyone.\n");
    return;
  }
  rows = {{"RULE", "NAME", "HOST", "ROLE", "WHY IT DOES NOT MATCH"}};
  for (const Miss &miss : answer.decision.misses) {
    rows.push_back({LineOf(miss.rule), ForTerminal(miss.name), ForTerminal(miss.host), RoleOf(miss.rule.privilege),
                    LineForTerminal(miss.reason)});
  }
  Print("\nNo rule matches:\n" + Table(rows));
}

}  // namespace

int Explain(const std::string &user, const std::string &host, bool asJSON) {
  Answer answer;
  answer.question = {Widen(user, "USER"), Lowered(Widen(host, "HOST")), 0};
  if (user.empty()) throw BadArgument("USER is empty. Name an account.");
  ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
  const Records *records = Load(answer.fault);
  answer.stop = WhereReadingStopped(answer.fault);
  if (records == nullptr) {
    records = &QXAuthFileReader::GetInstance().GetDefaultRecords();
    algorithm.Initialize(*records);
  } else {
    answer.lines = ReadLines(kRoleMapFile).value_or(Lines());
  }
  answer.groups = GroupsOf(user);
  answer.decision = Decide(Rules(*records), answer.question, answer.groups.value_or(std::vector<std::wstring>()));
  algorithm.GetUserPrivileges(answer.question);
  answer.osPrivilege = algorithm.GetOSPrivilege(user.c_str());
  answer.rights = RightsOf(user, host, answer.question.nPerm, answer.osPrivilege);
  if (asJSON) {
    PrintJSONAnswer(answer);
  } else {
    PrintText(answer);
  }
  return answer.IsInDoubt() ? kExitNo : kExitGood;
}

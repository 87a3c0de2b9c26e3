// The role map beside a plain reading of it: lines one by one, then as a file, its tables, and a question to them.
//
// A file with a line that is refused would be the last that this process reads. So each line is tried by itself, and
// those that are refused are comments in the file.
#include <cctype>
#include <map>
#include <optional>
#include <vector>

#include "fuzzer.h"
#include "sandbox.h"
#include "zebcs/rolemap.hpp"

namespace {

struct Grant {
  std::wstring name;
  std::wstring host;
  s32 privilege = 0;
  unsigned long line = 0;

  bool operator==(const Grant &) const = default;
};
using Grants = std::vector<Grant>;

// What went wrong, and where; nothing in the usual case.
struct Outcome {
  int code = 0;
  unsigned long line = 0;

  bool operator==(const Outcome &) const = default;
};

std::wstring Widened(std::string_view text) {
  std::wstring wide;
  for (const char c : text) wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
  return wide;
}

std::wstring Lowered(std::wstring text) {
  for (wchar_t &c : text) c = c <= 0xFF ? static_cast<wchar_t>(std::tolower(static_cast<int>(c))) : c;
  return text;
}

// The pieces between separators, of which there is one more than separators.
std::vector<std::wstring> Split(const std::wstring &text, wchar_t separator) {
  std::vector<std::wstring> pieces(1);
  for (const wchar_t c : text) {
    if (c == separator) {
      pieces.emplace_back();
    } else {
      pieces.back() += c;
    }
  }
  return pieces;
}

// The grants of a line, in order, or nothing.
std::optional<Grants> GrantsOfLine(const std::wstring &line, unsigned long number) {
  std::vector<std::wstring> columns;
  bool isBlank = true;
  for (const wchar_t c : line) {
    const bool wasBlank = isBlank;
    isBlank = c == L' ' || c == L'\t';
    if (isBlank) continue;
    if (wasBlank) columns.emplace_back();
    columns.back() += c;
  }
  if (columns.size() < 3) return std::nullopt;
  const std::wstring role = Lowered(columns[2]);
  const s32 privilege = role == L"administrator" ? 7 : role == L"poweruser" ? 3 : role == L"user" ? 1 : 0;
  if (privilege == 0) return std::nullopt;
  Grants grants;
  for (const std::wstring &name : Split(columns[0], L',')) {
    for (const std::wstring &host : Split(Lowered(columns[1]), L',')) grants.push_back({name, host, privilege, number});
  }
  return grants;
}

// Adds up the grants of a record.
void AddGrants(const QXAuthFileRecord &record, Grants &grants) {
  std::deque<ZEBRole *> roles(3, nullptr);
  record.GetRoles(roles);
  for (const ZEBRole *role : roles) {
    grants.push_back({role->szUserName, role->szHostName, role->nPerm, record.GetLineNumber()});
  }
}

template <class Step>
Outcome OutcomeOf(Step step) {
  try {
    step();
  } catch (const ZEBRoleMapFileReaderException &error) {
    return {error.getErrorCode(), error.GetLineNumber()};
  }
  return {};
}

void CheckLine(const std::wstring &line, unsigned long number) {
  const std::optional<Grants> expected = GrantsOfLine(line, number);
  QXAuthFileRecord record(line, static_cast<int>(number));
  const Outcome outcome = OutcomeOf([&] { record.PopulateZEBRoles(); });
  FUZZ_CHECK(outcome == (expected ? Outcome{} : Outcome{FILE_FORMAT_ERROR, number}));
  Grants grants;
  AddGrants(record, grants);
  FUZZ_CHECK(grants == expected.value_or(Grants{}));
}

// --- Tables and lookups ---------------------------------------------------------------------------------------------

using Hosts = std::map<std::wstring, s32>;
using Tables = std::map<std::wstring, Hosts>;  // users by name, groups with their "+", anyone as "*"

// The line of the first user who is named again for a host, or 0. The tables hold what stands before it.
unsigned long FillTables(const Grants &grants, Tables &tables) {
  for (const Grant &grant : grants) {
    const bool isUser = grant.name != L"*" && !grant.name.starts_with(L"+");
    Hosts &hosts = tables[grant.name];
    if (isUser && hosts.contains(grant.host)) return grant.line;
    s32 &privilege = hosts[grant.host];
    privilege = std::max(privilege, grant.privilege);
  }
  return 0;
}

s32 ValueAt(const Tables &tables, const std::wstring &name, const std::wstring &host) {
  const auto hosts = tables.find(name);
  if (hosts == tables.end()) return 0;
  const auto rule = hosts->second.find(host);
  return rule == hosts->second.end() ? 0 : rule->second;
}

bool IsPatternFor(const std::wstring &key, const std::wstring &host) {
  return key.find(L"*.") != std::wstring::npos && key.find(host) != std::wstring::npos;
}

// A privilege as the rules give it that do not name an address. The domain is the sandbox's.
s32 Privilege(const Tables &tables, const std::wstring &user, const std::vector<std::wstring> &groups,
              const std::wstring &host) {
  const std::wstring steps[] = {host, L"*.sandbox.test", L"*"};
  if (const auto own = tables.find(user); own != tables.end() && user != L"*" && !user.starts_with(L"+")) {
    for (const auto &[key, privilege] : own->second) {
      if (IsPatternFor(key, host)) return privilege;
    }
    for (const std::wstring &key : steps) {
      if (const s32 privilege = ValueAt(tables, user, key); privilege != 0) return privilege;
    }
  }
  for (const std::wstring &step : steps) {
    s32 strongest = 0;
    for (const std::wstring &group : groups) {
      const auto hosts = tables.find(group);
      if (hosts == tables.end()) continue;
      for (const auto &[key, privilege] : hosts->second) {
        if (key == step || (&step == &steps[0] && IsPatternFor(key, host))) strongest = std::max(strongest, privilege);
      }
    }
    if (strongest != 0) return strongest;
  }
  for (const std::wstring &key : steps) {
    if (const s32 privilege = ValueAt(tables, L"*", key); privilege != 0) return privilege;
  }
  return 0;
}

// What may be one of this machine's addresses is the matter of other tests.
bool MayBeAddress(const std::wstring &host) {
  return host.find_first_not_of(L"0123456789abcdefx.") == std::wstring::npos || host.find(L':') != std::wstring::npos;
}

void CheckLookups(const Grants &grants, const Tables &tables, const std::wstring &askedHost) {
  for (const Grant &grant : grants) {
    if (MayBeAddress(grant.host)) return;
  }
  const struct {
    std::wstring user;
    std::vector<std::wstring> groups;
  } accounts[] = {
      {L"alice", {L"+staff", L"+wheel", L"+operators"}},
      {L"nobody-here", {}},
      {grants[0].name, {}},
  };
  for (const auto &account : accounts) {
    // The names of the sandbox's accounts have groups of their own.
    if (&account == &accounts[2] && account.user.size() < 7) continue;
    for (const std::wstring &host : {askedHost, grants.back().host, std::wstring(L"sandbox")}) {
      ZEBRole role{account.user, host, 5};
      ZEBRoleMapAlgorithm::GetInstance().GetUserPrivileges(role);
      FUZZ_CHECK(role.nPerm == Privilege(tables, account.user, account.groups, host));
      FUZZ_CHECK(role.szUserName == account.user && role.szHostName == host);
    }
  }
}

// --- The file -------------------------------------------------------------------------------------------------------

void CheckFile(const std::string &text, mode_t mode, const Grants &expected, const std::wstring &askedHost) {
  // Another time for each file, so that the reader sees it change.
  static time_t l_time = 1'000'000;
  FUZZ_CHECK(sandbox::WriteFile(sandbox::kRoleMapPath, text, mode, ++l_time));
  QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
  ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
  const Outcome opened = OutcomeOf([&] { reader.Open(); });
  if ((mode & ~mode_t{01000}) != 0640) {
    FUZZ_CHECK((opened == Outcome{FILE_PERMS_ERROR, 0}));
    return;
  }
  FUZZ_CHECK(opened == Outcome{});
  Grants grants;
  FUZZ_CHECK(OutcomeOf([&] {
               for (const QXAuthFileRecord *record : reader.GetRecords()) AddGrants(*record, grants);
             }) == Outcome{});
  FUZZ_CHECK(grants == expected);

  Tables tables;
  const unsigned long duplicate = FillTables(expected, tables);
  const Outcome filled = OutcomeOf([&] { algorithm.Initialize(reader.GetRecords()); });
  FUZZ_CHECK(filled == (duplicate == 0 ? Outcome{} : Outcome{DUPLICATE_ENTRY, duplicate}));
  if (duplicate != 0) {
    const std::optional<Grants> defaults[] = {GrantsOfLine(L"root * administrator", 0),
                                              GrantsOfLine(L"+root * poweruser", 0), GrantsOfLine(L"* * user", 0)};
    Grants all;
    for (const auto &grant : defaults) all.insert(all.end(), grant->begin(), grant->end());
    tables.clear();
    FUZZ_CHECK(FillTables(all, tables) == 0);
    algorithm.Initialize(reader.GetDefaultRecords());
    grants.clear();
    for (const QXAuthFileRecord *record : reader.GetRecords()) AddGrants(*record, grants);
    FUZZ_CHECK(grants == all);
    CheckLookups(all, tables, askedHost);
    return;
  }
  CheckLookups(expected, tables, askedHost);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool l_isPrivate = (sandbox::RequireSandbox(), true);
  FUZZ_CHECK(l_isPrivate);
  FuzzInput input(data, size);
  const auto choice = input.Take<u8>();
  constexpr mode_t kModes[] = {0640, 01640, 0640, 0640, 0644, 0640, 0600, 0640};
  const std::wstring askedHost = Lowered(Widened(input.TakeText()));

  // The file is read by the locale "C", which has characters up to 0x7F; a line by itself has any.
  std::string file;
  Grants grants;
  const std::string_view text = input.TakeRest();
  // Names times hosts: a line of many commas takes as long as hundreds of others, and shows no more.
  if (std::count_if(text.begin(), text.end(), [](char c) { return (c & 0x7F) == ','; }) > 30) return 0;
  unsigned long number = 0;
  for (size_t start = 0; start < text.size(); ++number) {
    const std::string_view line = text.substr(start, text.find('\n', start) - start);
    start += line.size() + 1;
    const bool isLast = start > text.size();  // it has no line end
    const std::wstring wide = Widened(line);
    CheckLine(wide, number + 1);
    std::wstring wider = wide;
    for (wchar_t &c : wider) c += c >= 0x80 ? L'\x400' : L'\0';
    CheckLine(wider, number + 1);

    std::string narrow(line);
    for (char &c : narrow) c = static_cast<char>(c & 0x7F);
    std::replace(narrow.begin(), narrow.end(), '\n', ' ');
    const size_t first = narrow.find_first_not_of(" \t");
    if (first != std::string::npos && narrow[first] != '#') {
      const std::optional<Grants> more = GrantsOfLine(Widened(narrow), number + 1);
      if (more) grants.insert(grants.end(), more->begin(), more->end());
      if (!more) file += '#';
    }
    file += narrow;
    if (!isLast) file += '\n';
  }
  if (grants.empty()) {
    if (!file.empty() && file.back() != '\n') file += '\n';
    const auto lines = static_cast<unsigned long>(std::count(file.begin(), file.end(), '\n'));
    file += "dave SANDBOX user";
    grants.push_back({L"dave", L"sandbox", 1, lines + 1});
  }
  CheckFile(file, kModes[choice % 8], grants, askedHost);
  return 0;
}

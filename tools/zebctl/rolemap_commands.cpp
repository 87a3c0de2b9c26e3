// zebctl rolemap: what the role map grants, and what it gives one account.
#include "rolemap_commands.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cwchar>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "commands.h"
#include "output.h"
#include "text.h"
#include "zebcs/auth.h"
#include "zebcs/frame.h"
#include "zebcs/net.h"
#include "zebcs/rolemap.hpp"

using nlohmann::ordered_json;

const char *RoleOf(s32 privilege) {
  switch (privilege) {
    case 0: return "none";
    case 1: return "user";
    case 3: return "poweruser";
    case 7: return "administrator";
    default: return "unknown";
  }
}

namespace {

const char *NameOf(fileReadErrorCode code) {
  switch (code) {
    case FILE_NOT_FOUND: return "FILE_NOT_FOUND";
    case FILE_FORMAT_ERROR: return "FILE_FORMAT_ERROR";
    case MEMORY_ALLOCATION_FAILURE: return "MEMORY_ALLOCATION_FAILURE";
    case FILE_PERMS_ERROR: return "FILE_PERMS_ERROR";
    case FILE_EMPTY: return "FILE_EMPTY";
    case DUPLICATE_ENTRY: return "DUPLICATE_ENTRY";
  }
  return "UNKNOWN";
}

// What is wrong and what to do about it.
std::string AdviceOn(fileReadErrorCode code) {
  switch (code) {
    case FILE_NOT_FOUND:
      return "The file is missing, or this account may not read it. Create it with permissions 0640, or run zebctl as "
             "an account that may read it, such as root.";
    case FILE_FORMAT_ERROR:
      return "The line is not \"NAMES HOSTS ROLE\": three columns with blanks between them, none after a comma, and a "
             "role of administrator, poweruser or user. Correct it. Carriage returns, and bytes that are not valid "
             "text in this locale, are mistakes too.";
    case MEMORY_ALLOCATION_FAILURE: return "Memory ran out while the file was read. Try again when there is more.";
    case FILE_PERMS_ERROR:
      return std::string("It must be a regular file with permissions 0640. If it is a regular file, run: chmod 0640 ") +
             kRoleMapFile;
    case FILE_EMPTY:
      return "The file has no entry: nothing, or only blank lines and comments. Add a line such as: root * "
             "administrator. Bytes that are not valid text in this locale end the reading.";
    case DUPLICATE_ENTRY:
      return "The line names a user for a host for which the user has been named before. Remove one of the two.";
  }
  return "The file cannot be used.";
}

}  // namespace

ordered_json ToJSON(const Fault &fault) {
  return {{"name", NameOf(fault.error)},
          {"code", fault.error},
          {"commandId", fault.commandId},
          {"line", fault.line},
          {"message", fault.message}};
}

void PrintJSON(const ordered_json &answer) { Print(answer.dump(2) + '\n'); }

std::string ToText(const Fault &fault) {
  std::string text = std::string(kRoleMapFile) + ": ";
  if (fault.line != 0) text += "line " + std::to_string(fault.line) + ": ";
  return text + NameOf(fault.error) + " (command id " + std::to_string(fault.commandId) + ")\n" + fault.message + "\n";
}

const Records *Load(std::optional<Fault> &fault) {
  try {
    QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
    reader.Open();
    const Records &records = reader.GetRecords();
    ZEBRoleMapAlgorithm::GetInstance().Initialize(records);
    return &records;
  } catch (const ZEBRoleMapFileReaderException &error) {
    fault = Fault{.error = error.getErrorCode(),
                  .commandId = error.MapErrorCodeToCmdId(),
                  .line = error.GetLineNumber(),
                  .message = AdviceOn(error.getErrorCode())};
    return nullptr;
  }
}

namespace {

// Calls a function with each grant and its line.
template <class Take>
void ForEachGrant(const Records &records, Take take) {
  std::deque<ZEBRole *> roles;
  for (const QXAuthFileRecord *record : records) {
    record->GetRoles(roles);
    for (const ZEBRole *role : roles) take(*role, record->GetLineNumber());
  }
}

}  // namespace

ordered_json GrantsForJSON(const Records &records) {
  ordered_json grants = ordered_json::array();
  ForEachGrant(records, [&grants](const ZEBRole &role, unsigned long line) {
    grants.push_back({{"line", line},
                      {"name", ForJSON(role.szUserName)},
                      {"host", ForJSON(role.szHostName)},
                      {"role", RoleOf(role.nPerm)},
                      {"privilege", role.nPerm}});
  });
  return grants;
}

std::string GrantsForTerminal(const Records &records) {
  std::vector<std::vector<std::string>> rows{{"LINE", "NAME", "HOST", "ROLE", "PRIVILEGE"}};
  ForEachGrant(records, [&rows](const ZEBRole &role, unsigned long line) {
    rows.push_back({std::to_string(line), ForTerminal(role.szUserName), ForTerminal(role.szHostName),
                    RoleOf(role.nPerm), std::to_string(role.nPerm)});
  });
  return Table(rows);
}

std::wstring Lowered(std::wstring text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](wchar_t c) { return c >= 0 && c <= 0xFF ? static_cast<wchar_t>(std::tolower(c)) : c; });
  return text;
}

std::optional<std::wstring> Widened(const char *text) {
  std::mbstate_t state{};
  const size_t length = std::mbsrtowcs(nullptr, &text, 0, &state);
  if (length == static_cast<size_t>(-1)) return std::nullopt;
  std::wstring wide(length, L'\0');
  state = {};
  std::mbsrtowcs(wide.data(), &text, length, &state);
  return wide;
}

std::optional<std::string> Narrowed(const std::wstring &text) {
  if (text.find(L'\0') != std::wstring::npos) return std::nullopt;
  std::mbstate_t state{};
  const wchar_t *p = text.c_str();
  const size_t length = std::wcsrtombs(nullptr, &p, 0, &state);
  if (length == static_cast<size_t>(-1)) return std::nullopt;
  std::string narrow(length, '\0');
  state = {};
  std::wcsrtombs(narrow.data(), &p, length, &state);
  return narrow;
}

namespace {

struct FileCloser {
  void operator()(std::FILE *file) const { (void)std::fclose(file); }  // it was only read
};

// Zeros are characters like others.
FileLine WidenedLine(std::string_view bytes) {
  std::wstring text;
  std::mbstate_t state{};
  while (!bytes.empty()) {
    wchar_t c = 0;
    const size_t length = std::mbrtowc(&c, bytes.data(), bytes.size(), &state);
    if (length > bytes.size()) return {text, false};  // not valid, or not complete
    text += c;
    bytes.remove_prefix(std::max<size_t>(length, 1));  // the length of a zero is told as 0
  }
  return {text, true};
}

}  // namespace

std::optional<Lines> ReadLines(const char *path) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path, "re"));
  if (file == nullptr) return std::nullopt;
  std::string bytes;
  char piece[4096];
  while (const size_t length = std::fread(piece, 1, sizeof piece, file.get())) bytes.append(piece, length);
  if (std::ferror(file.get()) != 0) return std::nullopt;
  Lines lines;
  for (std::string_view rest = bytes; !rest.empty();) {
    const size_t end = std::min(rest.find('\n'), rest.size());
    lines.push_back(WidenedLine(rest.substr(0, end)));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return lines;
}

unsigned long WhereReadingStopped(const std::optional<Fault> &fault) {
  if (fault && fault->error != FILE_FORMAT_ERROR && fault->error != FILE_EMPTY && fault->error != DUPLICATE_ENTRY) {
    return 0;  // it was not read
  }
  const Lines lines = ReadLines(kRoleMapFile).value_or(Lines());
  const auto stop = std::find_if(lines.begin(), lines.end(), [](const FileLine &line) { return !line.isValid; });
  if (stop == lines.end()) return 0;
  const unsigned long number = static_cast<unsigned long>(stop - lines.begin()) + 1;
  const bool isBehindFault = fault && fault->error == FILE_FORMAT_ERROR && fault->line < number;
  return isBehindFault ? 0 : number;
}

std::string ReadingStopped(unsigned long line) {
  return "Line " + std::to_string(line) +
         " has bytes that are not valid text in this locale: the reading stopped there, and what follows them does "
         "not count.";
}

std::wstring_view Trimmed(std::wstring_view line) {
  constexpr wchar_t kBlanks[] = L" \t";
  const size_t first = line.find_first_not_of(kBlanks);
  if (first == std::wstring_view::npos) return {};
  return line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
}

Rules::Rules(const Records &records) {
  ForEachGrant(records, [this](const ZEBRole &role, unsigned long line) { (void)Add(role, line); });
}

HostRules &Rules::Of(const std::wstring &name) {
  if (IsForAnyone(name)) return anyone;
  return IsForGroup(name) ? groups[name] : users[name];
}

std::optional<Rule> Rules::Add(const ZEBRole &role, unsigned long line) {
  const auto [entry, isNew] = Of(role.szUserName).try_emplace(role.szHostName, Rule{role.nPerm, line});
  if (isNew) return std::nullopt;
  const Rule before = entry->second;
  if (role.nPerm > before.privilege) entry->second = {role.nPerm, line};
  return before;
}

namespace {

struct FreeText {
  void operator()(astring *text) const { KCSFreeMem(text); }
};

struct FreeAddresses {
  void operator()(KCSIPAddrStr *list) const { SUPTFreeMem(list); }
};

}  // namespace

Machine::Machine() {
  u32 count = 0;
  const std::unique_ptr<KCSIPAddrStr, FreeAddresses> list(KCSHostGetHostIPAddrList(&count));
  for (u32 i = 0; i < count; ++i) addresses.emplace_back(list.get()[i].az);
  const std::unique_ptr<astring, FreeText> domain(KCSGetComputerDomainName());
  if (const auto wide = Widened(domain ? domain.get() : "")) domainKey = Lowered(L"*." + *wide);
}

bool Machine::HasAddress(const std::wstring &host, bool isForUser) const {
  return std::any_of(addresses.begin(), addresses.end(), [&](const std::string &address) {
    return isForUser ? IsSameAddress(host, address) : Widened(address.c_str()) == host;
  });
}

bool IsSameAddress(const std::wstring &host, const std::string &address) {
  const std::optional<std::string> narrow = Narrowed(host);
  return narrow && KCSCheckIPEqual(narrow->c_str(), address.c_str()) == 1;
}

std::wstring Quoted(std::wstring_view text) { return L'"' + std::wstring(text) + L'"'; }

namespace {

int Check(bool isStrict, bool asJSON) {
  std::optional<Fault> fault;
  const Records *const records = Load(fault);
  const unsigned long stop = WhereReadingStopped(fault);
  const bool isGood = records != nullptr && (stop == 0 || !isStrict);
  if (asJSON) {
    ordered_json answer{{"file", kRoleMapFile}, {"ok", isGood}};
    if (fault) answer["error"] = ToJSON(*fault);
    if (stop != 0) {
      const ordered_json warning{{"line", stop}, {"kind", "unreadable-bytes"}, {"message", ReadingStopped(stop)}};
      answer["warnings"] = ordered_json::array({warning});
    }
    if (records != nullptr) answer["grants"] = GrantsForJSON(*records);
    PrintJSON(answer);
    return isGood ? kExitGood : kExitNo;
  }
  if (fault) Complain("zebctl: " + ToText(*fault));
  if (stop != 0) Complain(std::string("zebctl: ") + kRoleMapFile + ": warning: " + ReadingStopped(stop) + '\n');
  if (records != nullptr) Print(GrantsForTerminal(*records));
  return isGood ? kExitGood : kExitNo;
}

int Privilege(const std::string &user, const std::string &host, bool asJSON) {
  // Hosts stand in the role map in lower case.
  ZEBRole role{Widen(user, "USER"), Lowered(Widen(host, "HOST")), 0};
  if (user.empty()) throw BadArgument("USER is empty. Name an account.");
  std::optional<Fault> fault;
  ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
  if (Load(fault) == nullptr) algorithm.Initialize(QXAuthFileReader::GetInstance().GetDefaultRecords());
  algorithm.GetUserPrivileges(role);
  const s32 osPrivilege = algorithm.GetOSPrivilege(user.c_str());
  if (asJSON) {
    ordered_json answer{{"user", ForJSON(role.szUserName)},
                        {"host", ForJSON(role.szHostName)},
                        {"source", fault ? "defaults" : "file"},
                        {"roleMap", {{"role", RoleOf(role.nPerm)}, {"privilege", role.nPerm}}},
                        {"operatingSystem", {{"role", RoleOf(osPrivilege)}, {"privilege", osPrivilege}}}};
    if (fault) answer["error"] = ToJSON(*fault);
    PrintJSON(answer);
    return kExitGood;
  }
  if (fault) Complain("zebctl: " + ToText(*fault) + kGoesByDefaults);
  Print(Table({{"SOURCE", "ROLE", "PRIVILEGE"},
               {fault ? "role map (defaults)" : "role map", RoleOf(role.nPerm), std::to_string(role.nPerm)},
               {"operating system", RoleOf(osPrivilege), std::to_string(osPrivilege)}}));
  return kExitGood;
}

}  // namespace

void AddRolemapCommands(CLI::App &app, int &exitStatus) {
  struct Arguments {
    std::string user;
    std::string host;
    std::optional<std::string> file;
    bool isStrict = false;
    bool asJSON = false;
  };
  const auto arguments = std::make_shared<Arguments>();

  CLI::App *const rolemap = app.add_subcommand("rolemap", "The file that maps users and groups to roles.");
  rolemap->require_subcommand(1);
  rolemap->footer(std::string("The role map is the file ") + kRoleMapFile + ".\n\n" +
                  "Exit status: 0  success\n"
                  "             1  the role map was checked and cannot be used, or an answer is in doubt\n" +
                  kSharedExitStatuses);

  CLI::App *const check = rolemap->add_subcommand(
      "check", "Reads the role map as the agent does and prints each grant, or what is wrong with it.");
  check->add_option("--file", arguments->file, "Judge this file instead, before it is put in place");
  check->add_flag("--strict", arguments->isStrict, "Let warnings count as errors");
  check->add_flag("--json", arguments->asJSON, "Print JSON, for scripts");
  check->footer(
      std::string("With --file every error is named, and warnings tell what is most likely not meant: rules that\n"
                  "can never decide, users and groups that this machine does not know, and the like.\n\n"
                  "Exit status: 0  the role map can be used\n"
                  "             1  it cannot, and standard error or the JSON says why; with --strict also if there\n"
                  "                are warnings\n") +
      kSharedExitStatuses);
  check->callback([arguments, &exitStatus] {
    exitStatus = arguments->file ? CheckFile(*arguments->file, arguments->isStrict, arguments->asJSON)
                                 : Check(arguments->isStrict, arguments->asJSON);
  });

  // Adds a command about an account that comes from a host.
  const auto addQuestion = [rolemap, arguments](const char *name, const char *description) {
    CLI::App *const command = rolemap->add_subcommand(name, description);
    command->add_option("USER", arguments->user, "Account, as it logs in")->required();
    command->add_option("HOST", arguments->host, "Host that the account comes from")->required();
    command->add_flag("--json", arguments->asJSON, "Print JSON, for scripts");
    return command;
  };
  const std::string kHowItAnswers =
      "Privileges: 0 none, 1 user, 3 poweruser, 7 administrator. If the role map cannot be used, the answer\n"
      "goes by the agent's built-in default records, and standard error and the JSON say so. Put -- in\n"
      "front of a USER that begins with a hyphen.\n\n"
      "Exit status: 0  the question was answered, whatever the answer\n";

  CLI::App *const privilege =
      addQuestion("privilege", "Prints what the role map and the operating system give an account.");
  privilege->footer(kHowItAnswers + kSharedExitStatuses);
  privilege->callback(
      [arguments, &exitStatus] { exitStatus = Privilege(arguments->user, arguments->host, arguments->asJSON); });

  CLI::App *const explain =
      addQuestion("explain", "Names the rule that decides what the role map gives an account, or why none does.");
  explain->footer(
      "The user's own rules are tried first, then those of his groups, of which the strongest counts, then those\n"
      "for anyone; and among each of them a domain pattern, the host itself, this machine's own addresses, its\n"
      "domain, and any host. A domain pattern matches a host whose name is a part of the pattern; for anyone it\n"
      "only counts where it is this machine's own domain.\n\n" +
      kHowItAnswers + "             1  the library's answer is another than the rules give; it is printed\n" +
      kSharedExitStatuses);
  explain->callback(
      [arguments, &exitStatus] { exitStatus = Explain(arguments->user, arguments->host, arguments->asJSON); });
}

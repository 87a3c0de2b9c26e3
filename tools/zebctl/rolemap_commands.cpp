// zebctl rolemap: what the role map grants, and what it gives one account.
#include <algorithm>
#include <cctype>
#include <deque>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "commands.h"
#include "output.h"
#include "text.h"
#include "zebcs/rolemap.hpp"

namespace {

using nlohmann::ordered_json;

constexpr char kFile[] = "/opt/vorn/fleetops/etc/zebrolemap";

const char *RoleOf(s32 privilege) {
  switch (privilege) {
    case 0: return "none";
    case 1: return "user";
    case 3: return "poweruser";
    case 7: return "administrator";
    default: return "unknown";
  }
}

struct Fault {
  std::string name;
  int code;
  int commandId;
  unsigned long line;  // 0 for none
  std::string message;
};

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
             "text "
             "in this locale, are mistakes too.";
    case MEMORY_ALLOCATION_FAILURE: return "Memory ran out while the file was read. Try again when there is more.";
    case FILE_PERMS_ERROR:
      return std::string("It must be a regular file with permissions 0640. If it is a regular file, run: chmod 0640 ") +
             kFile;
    case FILE_EMPTY:
      return "The file has no entry: nothing, or only blank lines and comments. Add a line such as: root * "
             "administrator. Bytes that are not valid text in this locale end the reading.";
    case DUPLICATE_ENTRY:
      return "The line names a user for a host for which the user has been named before. Remove one of the two.";
  }
  return "The file cannot be used.";
}

Fault FaultOf(const ZEBRoleMapFileReaderException &error) {
  return {NameOf(error.getErrorCode()), error.getErrorCode(), error.MapErrorCodeToCmdId(), error.GetLineNumber(),
          AdviceOn(error.getErrorCode())};
}

ordered_json ToJSON(const Fault &fault) {
  return {{"name", fault.name},
          {"code", fault.code},
          {"commandId", fault.commandId},
          {"line", fault.line},
          {"message", fault.message}};
}

void PrintJSON(const ordered_json &answer) { Print(answer.dump(2) + '\n'); }

std::string ToText(const Fault &fault) {
  std::string text = std::string(kFile) + ": ";
  if (fault.line != 0) text += "line " + std::to_string(fault.line) + ": ";
  return text + fault.name + " (command id " + std::to_string(fault.commandId) + ")\n" + fault.message + "\n";
}

// Loads the role map into the lookup tables. Returns the records, or the fault that keeps the file out of use.
const std::deque<QXAuthFileRecord *> *Load(std::optional<Fault> &fault) {
  try {
    QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
    reader.Open();
    const std::deque<QXAuthFileRecord *> &records = reader.GetRecords();
    ZEBRoleMapAlgorithm::GetInstance().Initialize(records);
    return &records;
  } catch (const ZEBRoleMapFileReaderException &error) {
    fault = FaultOf(error);
    return nullptr;
  }
}

int Check(bool asJSON) {
  std::optional<Fault> fault;
  const std::deque<QXAuthFileRecord *> *const records = Load(fault);
  if (records == nullptr) {
    if (asJSON) {
      PrintJSON(ordered_json{{"file", kFile}, {"ok", false}, {"error", ToJSON(*fault)}});
    } else {
      Complain("zebctl: " + ToText(*fault));
    }
    return kExitNo;
  }
  ordered_json grants = ordered_json::array();
  std::vector<std::vector<std::string>> rows{{"LINE", "NAME", "HOST", "ROLE", "PRIVILEGE"}};
  std::deque<ZEBRole *> roles;
  for (const QXAuthFileRecord *record : *records) {
    record->GetRoles(roles);
    for (const ZEBRole *role : roles) {
      if (asJSON) {
        grants.push_back({{"line", record->GetLineNumber()},
                          {"name", ForJSON(role->szUserName)},
                          {"host", ForJSON(role->szHostName)},
                          {"role", RoleOf(role->nPerm)},
                          {"privilege", role->nPerm}});
      } else {
        rows.push_back({std::to_string(record->GetLineNumber()), ForTerminal(role->szUserName),
                        ForTerminal(role->szHostName), RoleOf(role->nPerm), std::to_string(role->nPerm)});
      }
    }
  }
  if (asJSON) {
    PrintJSON(ordered_json{{"file", kFile}, {"ok", true}, {"grants", grants}});
  } else {
    Print(Table(rows));
  }
  return kExitGood;
}

int Privilege(const std::string &user, const std::string &host, bool asJSON) {
  ZEBRole role{Widen(user, "USER"), Widen(host, "HOST"), 0};
  if (user.empty()) throw BadArgument("USER is empty. Name an account.");
  // Hosts stand in the role map in lower case.
  std::transform(role.szHostName.begin(), role.szHostName.end(), role.szHostName.begin(),
                 [](wchar_t c) { return c >= 0 && c <= 0xFF ? static_cast<wchar_t>(std::tolower(c)) : c; });
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
  if (fault) {
    Complain("zebctl: " + ToText(*fault) +
             "The agent goes by its built-in default records in place of the file, and so does this answer: root is "
             "administrator, group root has poweruser, and anyone is user.\n");
  }
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
    bool asJSON = false;
  };
  const auto arguments = std::make_shared<Arguments>();

  CLI::App *const rolemap = app.add_subcommand("rolemap", "The file that maps users and groups to roles.");
  rolemap->require_subcommand(1);
  rolemap->footer(std::string("The role map is the file ") + kFile + ".\n\n" +
                  "Exit status: 0  success\n"
                  "             1  the role map was checked and cannot be used\n" +
                  kSharedExitStatuses);

  CLI::App *const check = rolemap->add_subcommand(
      "check", "Reads the role map as the agent does and prints each grant, or what is wrong with it.");
  check->add_flag("--json", arguments->asJSON, "Print JSON, for scripts");
  check->footer(std::string("Exit status: 0  the role map can be used\n"
                            "             1  it cannot, and standard error or the JSON says why\n") +
                kSharedExitStatuses);
  check->callback([arguments, &exitStatus] { exitStatus = Check(arguments->asJSON); });

  CLI::App *const privilege =
      rolemap->add_subcommand("privilege", "Prints what the role map and the operating system give an account.");
  privilege->add_option("USER", arguments->user, "Account, as it logs in")->required();
  privilege->add_option("HOST", arguments->host, "Host that the account comes from")->required();
  privilege->add_flag("--json", arguments->asJSON, "Print JSON, for scripts");
  privilege->footer(
      std::string(
          "Privileges: 0 none, 1 user, 3 poweruser, 7 administrator. If the role map cannot be used, the answer\n"
          "goes by the agent's built-in default records, and standard error and the JSON say so. Put -- in\n"
          "front of a USER that begins with a hyphen.\n\n"
          "Exit status: 0  the question was answered, whatever the answer\n") +
      kSharedExitStatuses);
  privilege->callback(
      [arguments, &exitStatus] { exitStatus = Privilege(arguments->user, arguments->host, arguments->asJSON); });
}

// zebctl paths: where the product's things are, and the language and the settings it goes by.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands.h"
#include "output.h"
#include "status.h"
#include "text.h"
#include "zebcs/frame.h"
#include "zebcs/product.h"

namespace {

using nlohmann::ordered_json;

struct FreeText {
  void operator()(astring *text) const { KCSFreeMem(text); }
};
using Text = std::unique_ptr<astring, FreeText>;

enum class IfNull { kNoMemory, kNone, kCannotBeMade };

struct Entry {
  const char *title;
  const char *member;  // of the JSON
  astring *(*get)(void);
  IfNull ifNull;  // what it means if there is no text
};

constexpr Entry kEntries[] = {
    {"install path", "install", KCSGetZEBInstallPath, IfNull::kNoMemory},
    {"root install path", "rootInstall", KCSGetRootInstallPath, IfNull::kNoMemory},
    {"INI files", "ini", KCSGetProductIniPath, IfNull::kNoMemory},
    {"variable data", "var", KCSGetProductVarPath, IfNull::kNoMemory},
    {"XSL root", "xslRoot", KCSGetZEBXSLRootPath, IfNull::kNoMemory},
    {"WWW root", "wwwRoot", KCSGetZEBWWWRootPath, IfNull::kNoMemory},
    {"uploads", "upload", KCSGetZEBUploadPath, IfNull::kNoMemory},
    {"downloads", "download", KCSGetZEBDownloadPath, IfNull::kNoMemory},
    {"web documents", "webDocuments", KCSGetZEBWEBDocsPath, IfNull::kNoMemory},
    {"CLI documents", "cliDocuments", KCSGetZEBCLIDocsPath, IfNull::kNoMemory},
    {"IWS temporary files", "iwsTemporary", KCSGetIWSTempDirPath, IfNull::kCannotBeMade},
    {"OS locale", "locale", KCSGetOSLocaleName, IfNull::kNoMemory},
    {"OS language", "language", KCSGetOSLanguage, IfNull::kNone},
    {"OS country", "country", KCSGetOSCountry, IfNull::kNone},
    {"schema prefix", "schemaPrefix", KCSGetOEMADSchemaPrefix, IfNull::kNoMemory},
};

// Why the directory for temporary files, which is the only one that is made, could not be made.
std::string WhyNotMade() {
  constexpr char kParent[] = "/opt/vorn/fleetops/var/lib/kelvestane/iws";
  const int error = access(kParent, W_OK | X_OK) == 0 ? 0 : errno;
  return std::string("The directory for IWS temporary files could not be made in ") + kParent +
         (error == 0 ? "." : std::string(": ") + std::strerror(error) + '.');
}

int Paths(bool asJSON) {
  int exitStatus = kExitGood;
  std::vector<std::vector<std::string>> rows{{"WHAT", "VALUE"}};
  ordered_json answer;
  std::vector<std::string> errors;
  if (!IsAttached()) {
    errors.push_back(std::string(kNotAttached) + " Without it, the settings are their defaults.");
  }
  for (const Entry &entry : kEntries) {
    const Text text(entry.get());
    if (!text && entry.ifNull == IfNull::kNoMemory) throw std::bad_alloc();
    if (!text && entry.ifNull == IfNull::kCannotBeMade) {
      errors.push_back(WhyNotMade());
      exitStatus = kExitNo;
    }
    const std::wstring wide = FromUTF8(text ? text.get() : "");
    rows.push_back({entry.title, text ? LineForTerminal(wide) : "-"});
    answer[entry.member] = text ? ordered_json(ForJSON(wide)) : ordered_json();
  }
  const bool isModular = KCSCheckModularChassis() == 1;
  rows.push_back({"modular chassis", isModular ? "yes" : "no"});
  answer["modularChassis"] = isModular;
  answer["errors"] = errors;
  if (asJSON) {
    Print(answer.dump(2) + '\n');
  } else {
    for (const std::string &error : errors) Complain("zebctl: " + error + '\n');
    Print(Table(rows));
  }
  return exitStatus;
}

}  // namespace

void AddPathsCommand(CLI::App &app, int &exitStatus) {
  const auto asJSON = std::make_shared<bool>(false);
  CLI::App *const paths =
      app.add_subcommand("paths", "Prints the product's directories, its locale and two of its settings.");
  paths->add_flag("--json", *asJSON, "Print JSON, for scripts");
  paths->footer(
      std::string(
          "Asking for the directory for IWS temporary files makes it, if it is missing and the one above it is\n"
          "there. A - stands for what there is not: a language or a country of a locale that names none.\n\n"
          "Exit status: 0  success\n"
          "             1  the directory for IWS temporary files could not be made\n") +
      kSharedExitStatuses);
  paths->callback([asJSON, &exitStatus] { exitStatus = Paths(*asJSON); });
}

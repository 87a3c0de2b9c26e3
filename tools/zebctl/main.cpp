// zebctl: the administrator's view of what the library sees. A client of the exported interface and of nothing else.
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "commands.h"
#include "output.h"
#include "text.h"

namespace {

// The words that lead to the command that the user has reached, such as "zebctl rolemap".
std::string PathOf(const CLI::App &app) {
  std::string path = app.get_name();
  for (const CLI::App *command : app.get_subcommands()) path += ' ' + PathOf(*command);
  return path;
}

// What is wrong with a command line. A word that nothing has taken is named first: it usually explains why something
// else is missing.
std::string Explain(const CLI::App &app, const CLI::ParseError &error) {
  const std::vector<std::string> unknown = app.remaining(true);
  const std::string what =
      unknown.empty() ? std::string(error.what()) + '.' : '"' + unknown.front() + "\" is not understood here.";
  return "zebctl: " + what + "\nRun \"" + PathOf(app) + " --help\" to see what is.\n";
}

int Run(int argc, char **argv) {
  CLI::App app("Inspects a server systems-management agent through its common-services library.", "zebctl");
  int exitStatus = kExitGood;
  app.set_version_flag("--version", "zebctl " ZEBCTL_VERSION, "Print the version and exit");
  app.footer(std::string("Exit status: 0  success\n"
                         "             1  the answer is \"no\", or what was asked about is faulty\n") +
             kSharedExitStatuses);
  app.require_subcommand(1);
  AddLoginCommands(app, exitStatus);
  AddRolemapCommands(app, exitStatus);
  AddLogCommands(app, exitStatus);
  AddConfCommands(app, exitStatus);
  AddIniCommands(app, exitStatus);
  AddPathsCommand(app, exitStatus);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp &) {
    Print(app.help());
  } catch (const CLI::CallForVersion &version) {
    Print(std::string(version.what()) + '\n');
  } catch (const CLI::ParseError &error) {
    Complain(Explain(app, error));
    exitStatus = kExitBadArgument;
  } catch (const BadArgument &error) {
    Complain(std::string("zebctl: ") + error.what() + '\n');
    exitStatus = kExitBadArgument;
  }
  return FinishOutput() ? exitStatus : kExitTrouble;
}

}  // namespace

int main(int argc, char **argv) {
  if (!PrepareOutput()) return kExitTrouble;
  try {
    UseLocaleOfEnvironment();
    return Run(argc, argv);
  } catch (const std::bad_alloc &) {
    std::fputs("zebctl: Memory ran out.\n", stderr);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "zebctl: %s\n", error.what());
  } catch (...) {
    std::fputs("zebctl: Something failed that cannot be named.\n", stderr);
  }
  return kExitTrouble;
}

// zebctl: the administrator's view of what the library sees. A client of the exported interface and of nothing else.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>

#include "commands.h"
#include "text.h"

namespace {

constexpr char kFooter[] =
    "Exit status: 0 success; 1 a negative answer or a faulty file; 2 a bad command line; 3 output that could not be\n"
    "written, or other trouble.";

// The last bytes leave for the terminal, file or pipe here: only now is it known that they all arrived.
int FinishOutput(int exitStatus) {
  std::cout.flush();
  if (std::cout.good() && std::fflush(stdout) == 0) return exitStatus;
  std::fprintf(stderr, "zebctl: cannot write the output: %s\n", std::strerror(errno));
  return kExitTrouble;
}

int Run(int argc, char **argv) {
  CLI::App app("Inspects a server systems-management agent through its common-services library.", "zebctl");
  int exitStatus = kExitGood;
  app.set_version_flag("--version", "zebctl " ZEBCTL_VERSION);
  app.footer(kFooter);
  app.require_subcommand(1);
  AddRolemapCommands(app, exitStatus);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success &help) {
    return FinishOutput(app.exit(help));
  } catch (const CLI::ParseError &error) {
    std::fprintf(stderr, "zebctl: %s\nRun \"zebctl --help\" for what there is.\n", error.what());
    return kExitBadArgument;
  } catch (const BadArgument &error) {
    std::fprintf(stderr, "zebctl: %s\n", error.what());
    return kExitBadArgument;
  }
  return FinishOutput(exitStatus);
}

}  // namespace

int main(int argc, char **argv) {
  try {
    UseLocaleOfEnvironment();
    return Run(argc, argv);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "zebctl: %s\n", error.what());
    return kExitTrouble;
  }
}

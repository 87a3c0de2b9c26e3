// The commands of zebctl. Each Add function hangs a group of commands below the program's own; the one that the user
// chose runs as its callback, prints with the functions of output.h and leaves its exit status.
#ifndef ZEBCTL_COMMANDS_H
#define ZEBCTL_COMMANDS_H

#include <CLI/CLI.hpp>

// Exit statuses, which scripts rely on.
inline constexpr int kExitGood = 0;
inline constexpr int kExitNo = 1;           // the question was answered with "no", or what was asked about is faulty
inline constexpr int kExitBadArgument = 2;  // the command line cannot be understood
inline constexpr int kExitTrouble = 3;      // the answer could not be written, or memory ran out

// The statuses that every command shares, as the last lines of its help.
inline constexpr char kSharedExitStatuses[] =
    "             2  the command line cannot be understood\n"
    "             3  the output could not be written, or memory ran out";

void AddConfCommands(CLI::App &app, int &exitStatus);
void AddIniCommands(CLI::App &app, int &exitStatus);
void AddLogCommands(CLI::App &app, int &exitStatus);
void AddLoginCommands(CLI::App &app, int &exitStatus);  // login, rights and whoami
void AddPathsCommand(CLI::App &app, int &exitStatus);
void AddRolemapCommands(CLI::App &app, int &exitStatus);

#endif

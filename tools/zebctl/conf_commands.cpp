// zebctl conf: settings in key=value files, as the library loads and edits them.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "files.h"
#include "output.h"
#include "status.h"
#include "text.h"
#include "zebcs/keyvalue.h"

namespace {

using nlohmann::ordered_json;

constexpr char kProductDirectory[] = "/opt/vorn/fleetops/etc/kelvestane//";  // as the library spells it
constexpr std::string_view kTemporaryName = "kcscfg64.tmp";
constexpr std::string_view kBlanks = " \t\r\n";

// Limits of the library, in bytes.
constexpr size_t kLongestPath = 256;
constexpr size_t kLongestProductPath = 255;
constexpr size_t kLongestPair = 8448;  // key and value together

struct Arguments {
  std::string file;
  std::string key;
  std::string value;
  std::string instance = "0";
  bool isAll = false;
  bool isProduct = false;
  bool asJSON = false;
};

// Something that went wrong: the library's status, and what it means here.
struct Failure {
  s32 status = SM_STATUS_SUCCESS;
  std::string advice;
};

// The pairs of a file, in order.
struct Pairs {
  Pairs() = default;
  Pairs(const Pairs &) = delete;
  Pairs &operator=(const Pairs &) = delete;
  ~Pairs() { KCSCFGFreeKeyValueEntries(entries, count); }

  KCSKVEntry *entries = nullptr;
  u32 count = 0;
};

// --- Files ----------------------------------------------------------------------------------------------------------

std::string PathOf(const Arguments &arguments) {
  return arguments.isProduct ? kProductDirectory + arguments.file : arguments.file;
}

// Opens a file for reading as the library does: without waiting for anybody, whatever it is. -1 if it cannot be opened.
int OpenAsLibrary(const std::string &path) { return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }

// Why a file cannot be read; empty if it can.
std::string WhyUnreadable(const std::string &path) {
  const int file = OpenAsLibrary(path);
  if (file == -1) return std::strerror(errno);
  char byte = 0;
  const std::string why = read(file, &byte, 1) == -1 ? std::strerror(errno) : "";
  close(file);
  return why;
}

std::string LockAdvice() {
  return IsAttached() ? "Another process has held the library's file lock for a minute." : kNotAttached;
}

// Loads all pairs. A file without any is no failure, where the library makes no difference to one that it cannot
// read.
Failure Load(const Arguments &arguments, Pairs &pairs) {
  const auto load = arguments.isProduct ? KCSCFGInstGetKeyValueEntries : KCSCFGGetKeyValueEntries;
  pairs.entries = load(arguments.file.c_str(), &pairs.count);
  if (pairs.entries != nullptr) return {};
  u32 count = 0;
  const std::string path = PathOf(arguments);
  const s32 status = PopulateKeyValueEntries(path.c_str(), nullptr, &count);
  if (status == SM_STATUS_LOCK_TIMEOUT) return {status, LockAdvice()};
  if (count > 0) return {SM_STATUS_NO_MEMORY, "Memory ran out, or the file has just been changed. Try again."};
  const std::string why = WhyUnreadable(path);
  if (!why.empty()) return {status, "The file cannot be read: " + why + '.'};
  return {};
}

// --- Failures -------------------------------------------------------------------------------------------------------

std::string AdviceOnPath(const std::string &path) {
  const std::string why = WhyUnreadable(path);
  if (why.empty()) return "The temporary file kcscfg64.tmp cannot be written in the file's directory.";
  return "The file cannot be read: " + why +
         ". The library changes files that are there and makes none: make an empty one first, for example with touch.";
}

// What a status of an edit means.
Failure FailureOf(s32 status, const Arguments &arguments) {
  switch (status) {
    case SM_STATUS_SUCCESS: return {};
    case SM_STATUS_LOCK_TIMEOUT: return {status, LockAdvice()};
    case SM_STATUS_WRITE_FAILED: return {status, "The file could not be written, or read to its end. It is as it was."};
    case SM_STATUS_RENAME_FAILED: return {status, "The new content is in the file kcscfg64.tmp alone. Rename it."};
    case SM_STATUS_PATH_UNAVAILABLE: return {status, AdviceOnPath(PathOf(arguments))};
    case SM_STATUS_KEY_NOT_FOUND:
      return {status, arguments.instance == "0" ? "The file has no such key." : "The key has fewer instances."};
    case SM_STATUS_INVALID_INPUT: return {status, "The key has fewer instances. They are counted from 0."};
    case SM_STATUS_DELETE_FAILED: return {status, "The file could not be replaced; it is as it was."};
    case -1: return {status, "The file's directory is missing and could not be made."};
    default: return {status, "The library refused."};
  }
}

void PrintJSON(const ordered_json &answer) { Print(answer.dump(2) + '\n'); }

void ComplainAbout(const Arguments &arguments, const std::string &what, const std::string &advice) {
  Complain("zebctl: " + LineForTerminal(FromUTF8(PathOf(arguments))) + ": " + what + '\n' + advice + '\n');
}

int Fail(const Arguments &arguments, const Failure &failure) {
  if (arguments.asJSON) {
    const char *const name = NameOfStatus(failure.status);
    PrintJSON({{"status", failure.status},
               {"name", name == nullptr ? ordered_json() : ordered_json(name)},
               {"message", ForJSON(FromUTF8(failure.advice))}});
  } else {
    ComplainAbout(arguments, StatusText(failure.status), failure.advice);
  }
  return kExitNo;
}

// --- Commands -------------------------------------------------------------------------------------------------------

void CheckFile(const Arguments &arguments) {
  if (arguments.file.empty()) throw BadArgument("FILE is empty. Name a file.");
  if (arguments.isProduct && arguments.file.front() == '/') {
    throw BadArgument("FILE begins with a \"/\". With --product, name a file below the product's INI directory.");
  }
  // The library would cut a longer path of its own, and so name another file.
  if (arguments.isProduct && PathOf(arguments).size() > kLongestProductPath) {
    throw BadArgument("FILE is longer than 220 bytes.");
  }
  if (arguments.file.size() > kLongestPath) throw BadArgument("FILE is longer than 256 bytes.");
}

// The library would empty this file while it reads it.
void CheckIsNotTemporary(const Arguments &arguments) {
  if (arguments.file.substr(arguments.file.rfind('/') + 1) == kTemporaryName) {
    throw BadArgument("FILE has the name of the temporary file that the library edits with.");
  }
}

u32 InstanceOf(const Arguments &arguments) {
  u32 instance = 0;
  const char *const last = arguments.instance.data() + arguments.instance.size();
  const auto [end, error] = std::from_chars(arguments.instance.data(), last, instance);
  if (error != std::errc() || end != last) {
    throw BadArgument("--instance is not a whole number from 0 to 4294967295.");
  }
  return instance;
}

bool HasAnyOf(const std::string &text, std::string_view characters) {
  return text.find_first_of(characters) != std::string::npos;
}

// A value as it is written, so that its blanks at either end are read back.
std::string WrittenForm(const std::string &value) {
  const bool hasBlankEnd = !value.empty() && (kBlanks.find(value.front()) != std::string_view::npos ||
                                              kBlanks.find(value.back()) != std::string_view::npos);
  return hasBlankEnd ? '"' + value + '"' : value;
}

// What the library would write, but not read back as it was.
void CheckWritable(const Arguments &arguments) {
  if (arguments.key.empty()) throw BadArgument("KEY is empty. Name a key.");
  if (HasAnyOf(arguments.key, kBlanks)) throw BadArgument("KEY has a blank, which would not be read as part of it.");
  if (HasAnyOf(arguments.key, "=")) throw BadArgument("KEY has a \"=\", which would end its name.");
  if (HasAnyOf(arguments.key, "\"")) throw BadArgument("KEY has a double quote, which would not be read back.");
  if (arguments.key.front() == '#' || arguments.key.front() == ';') {
    throw BadArgument("KEY begins with \"#\" or \";\", so that its line would be a comment.");
  }
  if (HasAnyOf(arguments.value, "\n")) throw BadArgument("VALUE has a line feed, which would end its line.");
  if (HasAnyOf(arguments.value, "\"")) throw BadArgument("VALUE has a double quote, which would not be read back.");
  if (arguments.key.size() + WrittenForm(arguments.value).size() > kLongestPair) {
    throw BadArgument("KEY and VALUE are longer than 8448 bytes together.");
  }
}

int Get(const Arguments &arguments) {
  CheckFile(arguments);
  const u32 first = InstanceOf(arguments);
  Pairs pairs;
  if (const Failure failure = Load(arguments, pairs); failure.status != SM_STATUS_SUCCESS) {
    return Fail(arguments, failure);
  }
  std::vector<std::wstring> values;
  for (u32 i = 0; i < pairs.count; ++i) {
    const KCSKVEntry &entry = pairs.entries[i];
    if (entry.pKey == arguments.key) values.push_back(FromUTF8(entry.pValue));
  }
  if (values.size() <= first) return Fail(arguments, FailureOf(SM_STATUS_KEY_NOT_FOUND, arguments));
  ordered_json answer{{"file", ForJSON(FromUTF8(PathOf(arguments)))}, {"key", ForJSON(FromUTF8(arguments.key))}};
  std::string lines;
  if (arguments.isAll) {
    answer["values"] = ordered_json::array();
    for (const std::wstring &value : values) {
      answer["values"].push_back(ForJSON(value));
      lines += LineForTerminal(value) + '\n';
    }
  } else {
    answer["instance"] = first;
    answer["value"] = ForJSON(values[first]);
    lines = LineForTerminal(values[first]) + '\n';
  }
  if (arguments.asJSON) {
    PrintJSON(answer);
  } else {
    Print(lines);
  }
  return kExitGood;
}

// Replaces, adds or, without a value, removes an instance.
int Edit(const Arguments &arguments, u32 instance, const char *value) {
  std::string key = arguments.key;
  std::string text = value == nullptr ? "" : value;
  const KCSKVEntry pair{key.data(), value == nullptr ? nullptr : text.data()};
  const auto edit = arguments.isProduct ? KCSCFGInstSetKeyValue : KCSCFGSetKeyValue;
  const s32 status = edit(arguments.file.c_str(), &pair, instance);
  return status == SM_STATUS_SUCCESS ? kExitGood : Fail(arguments, FailureOf(status, arguments));
}

int Set(const Arguments &arguments) {
  CheckFile(arguments);
  CheckIsNotTemporary(arguments);
  CheckWritable(arguments);
  const u32 instance = InstanceOf(arguments);
  Pairs pairs;
  const Failure failure = Load(arguments, pairs);
  if (failure.status == SM_STATUS_LOCK_TIMEOUT) return Fail(arguments, failure);
  // Any other failure is one of the edit as well, which has a status for it.
  const bool isThere = KCSCFGGetKeyValue(pairs.entries, pairs.count, arguments.key.c_str(), instance) != nullptr;
  if (!isThere && failure.status == SM_STATUS_SUCCESS && !EndsWithItsLine(PathOf(arguments))) {
    ComplainAbout(arguments, "The last line of the file has no line feed",
                  "What is added would join it. End that line first.");
    return kExitNo;
  }
  return Edit(arguments, instance, WrittenForm(arguments.value).c_str());
}

int Unset(const Arguments &arguments) {
  CheckFile(arguments);
  CheckIsNotTemporary(arguments);
  return Edit(arguments, InstanceOf(arguments), nullptr);
}

int List(const Arguments &arguments) {
  CheckFile(arguments);
  Pairs pairs;
  if (const Failure failure = Load(arguments, pairs); failure.status != SM_STATUS_SUCCESS) {
    return Fail(arguments, failure);
  }
  std::vector<std::vector<std::string>> rows{{"KEY", "INSTANCE", "VALUE"}};
  ordered_json answer = ordered_json::array();
  std::map<std::string_view, u32> instances;
  for (u32 i = 0; i < pairs.count; ++i) {
    const u32 instance = instances[pairs.entries[i].pKey]++;
    const std::wstring key = FromUTF8(pairs.entries[i].pKey);
    const std::wstring value = FromUTF8(pairs.entries[i].pValue);
    if (arguments.asJSON) {
      answer.push_back({{"key", ForJSON(key)}, {"instance", instance}, {"value", ForJSON(value)}});
    } else {
      rows.push_back({LineForTerminal(key), std::to_string(instance), LineForTerminal(value)});
    }
  }
  if (arguments.asJSON) {
    PrintJSON({{"file", ForJSON(FromUTF8(PathOf(arguments)))}, {"pairs", answer}});
  } else {
    Print(Table(rows));
  }
  return kExitGood;
}

constexpr char kExitStatuses[] =
    "Exit status: 0  success\n"
    "             1  the library refused, and standard error, or the JSON if asked for, names its status\n";

}  // namespace

void AddConfCommands(CLI::App &app, int &exitStatus) {
  const auto arguments = std::make_shared<Arguments>();

  CLI::App *const conf =
      app.add_subcommand("conf", "Settings in key=value files, as the library reads and writes them.");
  conf->require_subcommand(1);
  conf->footer(std::string("FILE is a path; a mere name is a file in the working directory or, with --product, in\n") +
               kProductDirectory +
               ",\nas zeb/ini/zeb.properties is. Put -- in front of keys and values that begin with a hyphen.\n\n"
               "The library takes its file lock while the program starts, and waits for it without limit. After that,\n"
               "every command waits up to a minute for it.\n\n" +
               kExitStatuses + kSharedExitStatuses);

  const auto add = [&arguments, &exitStatus, conf](const char *name, const char *description, const std::string &footer,
                                                   int (*run)(const Arguments &)) {
    CLI::App *const command = conf->add_subcommand(name, description);
    command->add_option("FILE", arguments->file, "Key=value file; a mere name is one in the working directory")
        ->required();
    command->add_flag("--product", arguments->isProduct, "FILE is the name of a file in the product's INI directory");
    command->footer(footer + kExitStatuses + kSharedExitStatuses);
    command->callback([arguments, &exitStatus, run] { exitStatus = run(*arguments); });
    return command;
  };
  const auto addKey = [&arguments](CLI::App *command) {
    command->add_option("KEY", arguments->key, "Key, without the blanks that stand in the file")->required();
  };
  const auto addInstance = [&arguments](CLI::App *command) {
    return command->add_option("--instance", arguments->instance,
                               "Which one of a key that stands there several times, counted from 0, which it is "
                               "unless given");
  };
  const auto addJSON = [&arguments](CLI::App *command) {
    command->add_flag("--json", arguments->asJSON, "Print JSON, for scripts");
  };

  CLI::App *const get =
      add("get", "Prints the value of a key.",
          "Control characters are printed as \\uXXXX, bytes that are not UTF-8 as \\udcXX and a backslash as two. In\n"
          "the JSON the text is as it is in the file, with U+FFFD for bytes that are not UTF-8.\n\n",
          Get);
  addKey(get);
  CLI::Option *const instance = addInstance(get);
  get->add_flag("--all", arguments->isAll, "Print the values of all instances, in order")->excludes(instance);
  addJSON(get);

  CLI::App *const set =
      add("set", "Writes the value of a key.",
          "The file must be there. A key that is not there is added at its end, and so is a further instance when\n"
          "--instance is the number of those that are there. A VALUE with blanks at its ends is written in double\n"
          "quotes, which the library takes off; keys and values that would not be read back are refused.\n\n",
          Set);
  addKey(set);
  set->add_option("VALUE", arguments->value, "Value")->required();
  addInstance(set);

  CLI::App *const unset =
      add("unset", "Removes one instance of a key.", "The instances behind it move up by one.\n\n", Unset);
  addKey(unset);
  addInstance(unset);

  CLI::App *const list = add("list", "Lists all keys and values of a file, in order.", "", List);
  addJSON(list);
}

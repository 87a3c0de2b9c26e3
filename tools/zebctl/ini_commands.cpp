// zebctl ini: settings in INI files, as the library's store reads and writes them.
#include "zebcs/ini.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "files.h"
#include "output.h"
#include "status.h"
#include "text.h"

namespace {

using nlohmann::ordered_json;
using Bytes = std::vector<u8>;

constexpr char kProductDirectory[] = "/opt/vorn/fleetops/etc/kelvestane//zeb/ini/";  // as the library spells it

// Limits of the store, in bytes.
constexpr size_t kLongestPath = 255;  // of a product file
constexpr size_t kLongestName = 255;
constexpr size_t kLongestText = 8192;
constexpr size_t kLongestBinary = 1638;
constexpr size_t kLongestDouble = 95;

struct Arguments {
  std::string file;
  std::string section;
  std::string key;
  std::string value;
  std::string type = "astring";
  std::optional<std::string> fallback;
  bool isProduct = false;
  bool isWaitless = false;
  bool asJSON = false;
};

// --- Values ---------------------------------------------------------------------------------------------------------

// A value as it is printed.
struct Shown {
  std::string text;
  ordered_json json;
};

Shown ShowText(const std::wstring &text) { return {LineForTerminal(text), ForJSON(text)}; }

template <class T>
Bytes BytesOf(const T &value) {
  Bytes bytes(sizeof value);
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

template <class T>
T ValueOf(const Bytes &bytes) {
  T value{};
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

// Each type has a function that makes the bytes of a value out of an argument, or throws BadArgument, and one that
// shows the bytes that were read, if they are a value.

Bytes EncodeText(const std::string &text, const std::string &what) {
  if (text.size() > kLongestText) throw BadArgument(what + " is longer than 8192 bytes.");
  Bytes bytes(text.begin(), text.end());
  bytes.push_back(0);
  return bytes;
}

std::optional<Shown> DecodeText(const Bytes &bytes) {
  const std::string text(bytes.begin(), std::find(bytes.begin(), bytes.end(), 0));
  return ShowText(FromUTF8(text));
}

Bytes EncodeWideText(const std::string &text, const std::string &what) {
  Bytes bytes;
  std::wstring wide = FromUTF8(text);
  wide.push_back(L'\0');
  for (const wchar_t c : wide) {
    if (c >= 0xD800 && c <= 0xDFFF) throw BadArgument(what + " is not valid UTF-8.");
    if (c > 0xFFFF) {
      throw BadArgument(what + " has a character beyond U+FFFF, which the library's 16-bit text does not keep.");
    }
    const Bytes unit = BytesOf(static_cast<ustring>(c));
    bytes.insert(bytes.end(), unit.begin(), unit.end());
  }
  if (bytes.size() > kLongestBinary) throw BadArgument(what + " is longer than 818 characters.");
  return bytes;
}

std::optional<Shown> DecodeWideText(const Bytes &bytes) {
  std::vector<ustring> units(bytes.size() / sizeof(ustring));
  std::memcpy(units.data(), bytes.data(), units.size() * sizeof(ustring));
  const auto end = std::find(units.begin(), units.end(), 0);
  if (end == units.end()) return std::nullopt;
  std::wstring text;
  for (auto unit = units.begin(); unit != end; ++unit) {
    const bool isTail = *unit >= 0xDC00 && *unit <= 0xDFFF;
    if (isTail && !text.empty() && text.back() >= 0xD800 && text.back() <= 0xDBFF) {
      text.back() = 0x10000 + ((text.back() - 0xD800) << 10) + (*unit - 0xDC00);
    } else {
      text += static_cast<wchar_t>(*unit);
    }
  }
  return ShowText(text);
}

// The digits of each byte of "0x01,0xAB", where each "0x" may be missing.
std::vector<std::string_view> SplitList(std::string_view text) {
  std::vector<std::string_view> bytes;
  for (;;) {
    const size_t comma = text.find(',');
    std::string_view digits = text.substr(0, comma);
    if (digits.starts_with("0x") || digits.starts_with("0X")) digits.remove_prefix(2);
    bytes.push_back(digits);
    if (comma == std::string_view::npos) return bytes;
    text.remove_prefix(comma + 1);
  }
}

// The same of "01AB".
std::vector<std::string_view> SplitPairs(std::string_view text) {
  std::vector<std::string_view> bytes;
  for (size_t i = 0; i < text.size(); i += 2) bytes.push_back(text.substr(i, 2));
  return bytes;
}

Bytes EncodeBinary(const std::string &text, const std::string &what) {
  const bool isList = text.find_first_of(",xX") != std::string::npos;
  const size_t fewestDigits = isList ? 1 : 2;
  Bytes bytes;
  for (const std::string_view digits : isList ? SplitList(text) : SplitPairs(text)) {
    const char *const last = digits.data() + digits.size();
    u8 byte = 0;
    const auto [end, error] = std::from_chars(digits.data(), last, byte, 16);
    if (error != std::errc() || end != last || digits.size() < fewestDigits || digits.size() > 2) {
      throw BadArgument(what + " is neither a list of bytes such as 0x01,0xAB nor pairs of hexadecimal digits.");
    }
    bytes.push_back(byte);
  }
  if (bytes.empty() || bytes.size() > kLongestBinary) throw BadArgument(what + " is not 1 to 1638 bytes.");
  return bytes;
}

std::optional<Shown> DecodeBinary(const Bytes &bytes) {
  std::string text;
  for (const unsigned byte : bytes) {
    char token[8];
    std::snprintf(token, sizeof token, "%s0x%02X", text.empty() ? "" : ",", byte);
    text += token;
  }
  return Shown{text, text};
}

Bytes EncodeBoolean(const std::string &text, const std::string &what) {
  if (strcasecmp(text.c_str(), "true") == 0) return BytesOf(booln{1});
  if (strcasecmp(text.c_str(), "false") == 0) return BytesOf(booln{0});
  throw BadArgument(what + " is neither true nor false.");
}

std::optional<Shown> DecodeBoolean(const Bytes &bytes) {
  const bool value = ValueOf<booln>(bytes) == 1;
  return Shown{value ? "true" : "false", value};
}

template <class T>
Bytes EncodeInteger(const std::string &text, const std::string &what) {
  T value{};
  const char *const last = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), last, value);
  if (error != std::errc() || end != last) {
    throw BadArgument(what + " is not a whole number from " + std::to_string(std::numeric_limits<T>::min()) + " to " +
                      std::to_string(std::numeric_limits<T>::max()) + '.');
  }
  return BytesOf(value);
}

template <class T>
std::optional<Shown> DecodeInteger(const Bytes &bytes) {
  const T value = ValueOf<T>(bytes);
  return Shown{std::to_string(value), value};
}

Bytes EncodeDouble(const std::string &text, const std::string &what) {
  d64 value = 0;
  const char *const last = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), last, value);
  if (error != std::errc() || end != last || !std::isfinite(value)) {
    throw BadArgument(what + " is not a number such as -1.5 or 2e6.");
  }
  if (std::snprintf(nullptr, 0, "%.8f", value) > static_cast<int>(kLongestDouble)) {
    throw BadArgument(what + " has more digits than the store writes.");
  }
  return BytesOf(value);
}

std::optional<Shown> DecodeDouble(const Bytes &bytes) {
  const d64 value = ValueOf<d64>(bytes);
  if (std::isfinite(value)) return Shown{ordered_json(value).dump(), value};
  const char *const text = std::isnan(value) ? "nan" : value > 0 ? "inf" : "-inf";
  return Shown{text, text};  // JSON has no number for it
}

struct Type {
  const char *name;
  u32 code;
  u32 size;  // in bytes; 0 for a type whose values have none of their own
  Bytes (*encode)(const std::string &text, const std::string &what);
  std::optional<Shown> (*decode)(const Bytes &bytes);
};

constexpr Type kTypes[] = {
    {"astring", ZEBCS_INI_ASTRING, 0, EncodeText, DecodeText},
    {"ustring", ZEBCS_INI_USTRING, 0, EncodeWideText, DecodeWideText},
    {"binary", ZEBCS_INI_BINARY, 0, EncodeBinary, DecodeBinary},
    {"booln", ZEBCS_INI_BOOLN, sizeof(booln), EncodeBoolean, DecodeBoolean},
    {"u32", ZEBCS_INI_U32, sizeof(u32), EncodeInteger<u32>, DecodeInteger<u32>},
    {"s32", ZEBCS_INI_S32, sizeof(s32), EncodeInteger<s32>, DecodeInteger<s32>},
    {"u64", ZEBCS_INI_U64, sizeof(u64), EncodeInteger<u64>, DecodeInteger<u64>},
    {"s64", ZEBCS_INI_S64, sizeof(s64), EncodeInteger<s64>, DecodeInteger<s64>},
    {"d64", ZEBCS_INI_D64, sizeof(d64), EncodeDouble, DecodeDouble},
};
constexpr const Type &kText = kTypes[0];

const Type &TypeOf(const Arguments &arguments) {
  return *std::find_if(std::begin(kTypes), std::end(kTypes),
                       [&arguments](const Type &type) { return type.name == arguments.type; });
}

// --- The store ------------------------------------------------------------------------------------------------------

std::string PathOf(const Arguments &arguments) {
  return arguments.isProduct ? kProductDirectory + arguments.file : arguments.file;
}

// Reads a value or, without section or key, a list of names into as many bytes as it takes.
s32 Read(const Arguments &arguments, const char *section, const char *key, const Type &type,
         const std::optional<Bytes> &fallback, Bytes &bytes) {
  const auto read = arguments.isProduct ? KCSReadINIFileValue : KCSReadINIPathFileValue;
  constexpr u32 kFirstRoom = 1024;
  for (u32 room = type.size == 0 ? kFirstRoom : type.size;;) {
    bytes.assign(size_t{room} + 1, 0);  // a list that fills the room has its end behind it
    u32 size = room;
    const s32 status = read(section, key, type.code, bytes.data(), &size, fallback ? fallback->data() : nullptr,
                            fallback ? static_cast<u32>(fallback->size()) : 0, arguments.file.c_str(),
                            arguments.isWaitless ? booln{0} : booln{1});
    if (status == SM_STATUS_BUFFER_TOO_SMALL && size > room) {
      room = size;
      continue;
    }
    bytes.resize(size);
    return status;
  }
}

// Writes a value, or removes the key.
s32 Write(const Arguments &arguments, const Type &type, const Bytes *bytes) {
  const auto write = arguments.isProduct ? KCSWriteINIFileValue : KCSWriteINIPathFileValue;
  return write(arguments.section.c_str(), arguments.key.c_str(), type.code, bytes == nullptr ? nullptr : bytes->data(),
               bytes == nullptr ? 0 : static_cast<u32>(bytes->size()), arguments.file.c_str(),
               arguments.isWaitless ? booln{0} : booln{1});
}

// Whether there is a value, as far as a reader can see.
s32 LookFor(const Arguments &arguments) {
  Bytes bytes;
  return Read(arguments, arguments.section.c_str(), arguments.key.c_str(), kText, std::nullopt, bytes);
}

bool IsAbsence(s32 status) {
  return status == SM_STATUS_NOT_FOUND || status == SM_STATUS_SECTION_NOT_FOUND || status == SM_STATUS_KEY_NOT_FOUND;
}

// --- Failures -------------------------------------------------------------------------------------------------------

std::string LockAdvice(const Arguments &arguments) {
  if (!IsAttached()) return kNotAttached;
  return arguments.isWaitless ? "Another process holds the library's file lock. Try again, or without --no-wait."
                              : "Another process has held the library's file lock for a minute.";
}

// What is wrong, and where it is not plain, what to do about it.
std::string AdviceOn(s32 status, const Arguments &arguments) {
  switch (status) {
    case SM_STATUS_NOT_FOUND: return "The file is missing, or this account may not read it or write in its directory.";
    case SM_STATUS_LOCK_TIMEOUT: return LockAdvice(arguments);
    case SM_STATUS_BUFFER_TOO_SMALL: return "The value is longer than any that the library converts to this type.";
    case SM_STATUS_WRITE_FAILED: return "The file could not be written. Is there room for it?";
    case SM_STATUS_BAD_DATA: return "The value is no 16-bit text: it has no terminator. Read it as binary.";
    case SM_STATUS_RENAME_FAILED: return "The new content is in the file kcsini64.tmp alone. Rename it.";
    case SM_STATUS_PARSE_ERROR:
      return "The file cannot be read, or it has a line that begins with \"[\" and has no \"]\".";
    case SM_STATUS_SECTION_NOT_FOUND: return "The file has no such section.";
    case SM_STATUS_KEY_NOT_FOUND: return "The section has no such key.";
    case SM_STATUS_BAD_SIZE: return "The value is not of this type.";
    case SM_STATUS_DELETE_FAILED: return "The file could not be replaced; it is as it was.";
    case -1: return "The file's directory is missing and could not be made.";
    case SM_STATUS_BAD_PARAMETER: return "The path, the section or the key is longer than the library takes.";
    default: return "The library refused.";
  }
}

std::string ToText(const Arguments &arguments, s32 status) {
  return "zebctl: " + LineForTerminal(FromUTF8(PathOf(arguments))) + ": " + StatusText(status) + '\n' +
         AdviceOn(status, arguments) + '\n';
}

ordered_json ToJSON(s32 status) {
  const char *const name = NameOfStatus(status);
  return {{"status", status}, {"name", name == nullptr ? ordered_json() : ordered_json(name)}};
}

void PrintJSON(const ordered_json &answer) { Print(answer.dump(2) + '\n'); }

int Fail(const Arguments &arguments, s32 status) {
  if (arguments.asJSON) {
    PrintJSON(ToJSON(status));
  } else {
    Complain(ToText(arguments, status));
  }
  return kExitNo;
}

// --- Commands -------------------------------------------------------------------------------------------------------

void CheckFile(const Arguments &arguments) {
  if (arguments.file.empty()) throw BadArgument("FILE is empty. Name a file.");
  if (arguments.isProduct && arguments.file.find('/') != std::string::npos) {
    throw BadArgument("FILE has a \"/\". With --product, name a file of the product's INI directory.");
  }
  // The library would cut a longer path of its own, and so name another file.
  if (arguments.isProduct && PathOf(arguments).size() > kLongestPath) {
    throw BadArgument("FILE is longer than 212 bytes.");
  }
}

// What the store would write, but not read back as it was.
void CheckWritable(const Arguments &arguments) {
  const auto has = [](const std::string &text, char c) { return text.find(c) != std::string::npos; };
  if (has(arguments.section, '\n')) throw BadArgument("SECTION has a line feed, which would end its line.");
  if (has(arguments.section, ']')) throw BadArgument("SECTION has a \"]\", which would end its name.");
  if (arguments.section.size() > kLongestName) throw BadArgument("SECTION is longer than 255 bytes.");
  if (arguments.key.empty()) throw BadArgument("KEY is empty. Name a key.");
  if (has(arguments.key, '\n')) throw BadArgument("KEY has a line feed, which would end its line.");
  if (has(arguments.key, '=')) throw BadArgument("KEY has a \"=\", which would end its name.");
  if (has(" \t[;#", arguments.key.front())) {
    throw BadArgument("KEY begins with a blank, \"[\", \";\" or \"#\", so that its line would not be read as a key.");
  }
  if (arguments.key.size() > kLongestName) throw BadArgument("KEY is longer than 255 bytes.");
  if (arguments.type == kText.name && has(arguments.value, '\n')) {
    throw BadArgument("VALUE has a line feed, which would end its line.");
  }
}

int Get(const Arguments &arguments) {
  CheckFile(arguments);
  const Type &type = TypeOf(arguments);
  std::optional<Bytes> fallback;
  if (arguments.fallback) fallback = type.encode(*arguments.fallback, "--default");
  Bytes bytes;
  const s32 status = Read(arguments, arguments.section.c_str(), arguments.key.c_str(), type, fallback, bytes);
  const bool isFallback = fallback && IsAbsence(status);
  if (isFallback) bytes = *fallback;  // the library stores none for a text of a missing file
  if (status != SM_STATUS_SUCCESS && !isFallback) return Fail(arguments, status);
  const std::optional<Shown> value = type.decode(bytes);
  if (!value) return Fail(arguments, SM_STATUS_BAD_DATA);
  if (arguments.asJSON) {
    ordered_json answer{{"file", ForJSON(FromUTF8(PathOf(arguments)))},
                        {"section", ForJSON(FromUTF8(arguments.section))},
                        {"key", ForJSON(FromUTF8(arguments.key))},
                        {"type", arguments.type},
                        {"value", value->json}};
    if (isFallback) answer.update(ToJSON(status));
    PrintJSON(answer);
    return kExitGood;
  }
  if (isFallback) Complain(ToText(arguments, status) + "The answer is the default.\n");
  Print(value->text + '\n');
  return kExitGood;
}

int Set(const Arguments &arguments) {
  CheckFile(arguments);
  CheckWritable(arguments);
  const Type &type = TypeOf(arguments);
  const Bytes bytes = type.encode(arguments.value, "VALUE");
  const s32 found = LookFor(arguments);
  if (found != SM_STATUS_SUCCESS && !IsAbsence(found)) return Fail(arguments, found);
  if (found != SM_STATUS_SUCCESS && !EndsWithItsLine(PathOf(arguments))) {
    Complain("zebctl: " + LineForTerminal(FromUTF8(PathOf(arguments))) +
             ": The last line of the file has no line feed\nWhat is added might join it. End that line first.\n");
    return kExitNo;
  }
  const s32 status = Write(arguments, type, &bytes);
  return status == SM_STATUS_SUCCESS ? kExitGood : Fail(arguments, status);
}

int Unset(const Arguments &arguments) {
  CheckFile(arguments);
  // Removing a key that is not there can make the store write a line of its own, so each removal looks first. A key may
  // stand there several times, or once more as a line without "=".
  for (bool isRemoved = false;; isRemoved = true) {
    const s32 found = LookFor(arguments);
    if (found == SM_STATUS_KEY_NOT_FOUND && isRemoved) return kExitGood;
    if (found != SM_STATUS_SUCCESS) return Fail(arguments, found);
    if (const s32 status = Write(arguments, kText, nullptr); status != SM_STATUS_SUCCESS) {
      return Fail(arguments, status);
    }
  }
}

// Prints the sections, or the keys of a section.
int List(const Arguments &arguments, bool ofKeys) {
  CheckFile(arguments);
  Bytes bytes;
  const s32 status = Read(arguments, ofKeys ? arguments.section.c_str() : nullptr, nullptr, kText, std::nullopt, bytes);
  if (status != SM_STATUS_SUCCESS) return Fail(arguments, status);
  ordered_json names = ordered_json::array();
  std::string lines;
  // By the size, as a name may be empty.
  for (auto start = bytes.begin(); start != bytes.end();) {
    const auto end = std::find(start, bytes.end(), 0);
    const std::wstring name = FromUTF8(std::string(start, end));
    names.push_back(ForJSON(name));
    lines += LineForTerminal(name) + '\n';
    start = end + 1;
  }
  if (!arguments.asJSON) {
    Print(lines);
    return kExitGood;
  }
  ordered_json answer{{"file", ForJSON(FromUTF8(PathOf(arguments)))}};
  if (ofKeys) answer["section"] = ForJSON(FromUTF8(arguments.section));
  answer[ofKeys ? "keys" : "sections"] = names;
  PrintJSON(answer);
  return kExitGood;
}

constexpr char kExitStatuses[] =
    "Exit status: 0  success\n"
    "             1  the library refused, and standard error, or the JSON if asked for, names its status\n";

constexpr char kTypesHelp[] =
    "Types: astring    text, byte for byte\n"
    "       ustring    16-bit text, written in UTF-8 here\n"
    "       binary     bytes: 0x01,0xAB or 01AB\n"
    "       booln      true or false\n"
    "       u32, s32, u64, s64  whole numbers\n"
    "       d64        a number; the file keeps eight decimals\n\n";

}  // namespace

void AddIniCommands(CLI::App &app, int &exitStatus) {
  const auto arguments = std::make_shared<Arguments>();

  CLI::App *const ini = app.add_subcommand("ini", "Settings in INI files, as the library reads and writes them.");
  ini->require_subcommand(1);
  ini->footer(std::string("FILE is a path; a mere name is a file in the working directory or, with --product, in\n") +
              kProductDirectory +
              ".\nPut -- in front of names and values that begin with a hyphen.\n\n"
              "The library takes its file lock while the program starts, and waits for it without limit. After that,\n"
              "every command waits up to a minute for it or, with --no-wait, not at all.\n\n" +
              kExitStatuses + kSharedExitStatuses);

  const auto add = [&arguments, &exitStatus, ini](const char *name, const char *description, const std::string &footer,
                                                  int (*run)(const Arguments &)) {
    CLI::App *const command = ini->add_subcommand(name, description);
    command->add_option("FILE", arguments->file, "INI file; a mere name is one in the working directory")->required();
    command->add_flag("--product", arguments->isProduct, "FILE is the name of a file in the product's INI directory");
    command->add_flag("--no-wait", arguments->isWaitless, "Try the library's file lock once, without waiting for it");
    command->footer(footer + kExitStatuses + kSharedExitStatuses);
    command->callback([arguments, &exitStatus, run] { exitStatus = run(*arguments); });
    return command;
  };
  const auto addSection = [&arguments](CLI::App *command) {
    command->add_option("SECTION", arguments->section, "Section, exactly as it stands between the brackets")
        ->required();
  };
  const auto addKey = [&arguments](CLI::App *command) {
    command->add_option("KEY", arguments->key, "Key, exactly as it stands in front of the \"=\"")->required();
  };
  const auto addType = [&arguments](CLI::App *command) {
    std::vector<std::string> names;
    for (const Type &type : kTypes) names.emplace_back(type.name);
    command->add_option("--type", arguments->type, "Type of the value, astring unless given")
        ->check(CLI::IsMember(names));
  };
  const auto addJSON = [&arguments](CLI::App *command) {
    command->add_flag("--json", arguments->asJSON, "Print JSON, for scripts");
  };

  CLI::App *const get =
      add("get", "Prints the value of a key.",
          std::string(kTypesHelp) +
              "A text that is no number reads as the default or, without one, as 0, as it does for the agent. Control\n"
              "characters are printed as \\uXXXX, bytes that are not UTF-8 as \\udcXX and a backslash as two. In the\n"
              "JSON the text is as it is in the file, with U+FFFD for bytes that are not UTF-8.\n\n",
          Get);
  addSection(get);
  addKey(get);
  addType(get);
  get->add_option_function<std::string>(
      "--default", [arguments](const std::string &value) { arguments->fallback = value; },
      "Value to print if there is none: standard error or the JSON then has the status, and the exit status is 0");
  addJSON(get);

  CLI::App *const set =
      add("set", "Writes the value of a key.",
          std::string(kTypesHelp) +
              "The file is made if it is missing, with its directory. Put -- in front of a VALUE that begins with a\n"
              "hyphen and is no number. Names and values that would not be read back are refused.\n\n",
          Set);
  addSection(set);
  addKey(set);
  set->add_option("VALUE", arguments->value, "Value, in the form of its type")->required();
  addType(set);

  CLI::App *const unset = add("unset", "Removes a key from its section, however often it stands there.", "", Unset);
  addSection(unset);
  addKey(unset);

  CLI::App *const sections = add("sections", "Lists the sections of a file, in order.", "",
                                 [](const Arguments &chosen) { return List(chosen, false); });
  addJSON(sections);

  CLI::App *const keys = add("keys", "Lists the keys of a section, in order.", "",
                             [](const Arguments &chosen) { return List(chosen, true); });
  addSection(keys);
  addJSON(keys);
}

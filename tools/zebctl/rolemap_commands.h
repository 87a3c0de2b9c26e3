// What the commands of zebctl rolemap share: the role map as the library reads it, the file's own lines, and the rules
// taken apart by the names that they are for.
#ifndef ZEBCTL_ROLEMAP_COMMANDS_H
#define ZEBCTL_ROLEMAP_COMMANDS_H

#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zebcs/rolemap.hpp"

inline constexpr char kRoleMapFile[] = "/opt/vorn/fleetops/etc/zebrolemap";

// The word for a privilege, such as "poweruser".
const char *RoleOf(s32 privilege);

// What keeps the installed file out of use.
struct Fault {
  fileReadErrorCode error;
  int commandId;
  unsigned long line;  // 0 for none
  std::string message;
};

nlohmann::ordered_json ToJSON(const Fault &fault);
std::string ToText(const Fault &fault);
void PrintJSON(const nlohmann::ordered_json &answer);

// What is said after the fault where an answer goes by the built-in records.
inline constexpr char kGoesByDefaults[] =
    "The agent goes by its built-in default records in place of the file, and so does this answer: root is "
    "administrator, group root has poweruser, and anyone is user.\n";

using Records = std::deque<QXAuthFileRecord *>;

// Loads the role map into the lookup tables. Returns the records, or the fault that keeps the file out of use.
const Records *Load(std::optional<Fault> &fault);

// The grants of records, for scripts and for people.
nlohmann::ordered_json GrantsForJSON(const Records &records);
std::string GrantsForTerminal(const Records &records);

// The same text in lower case as the library makes it: by the single-byte table, characters beyond it as they are.
std::wstring Lowered(std::wstring text);

// Text of the system in the locale's encoding as wide characters, and back. Nothing where it cannot be done; a text
// with a zero in it cannot be handed to the system.
std::optional<std::wstring> Widened(const char *text);
std::optional<std::string> Narrowed(const std::wstring &text);

// A line of a file. Where it has bytes that are not valid in the locale, the text ends before them.
struct FileLine {
  std::wstring text;
  bool isValid;
};
using Lines = std::vector<FileLine>;

// The lines of a file; nothing when it cannot be read, with errno set. The library reads up to the first bytes that
// are not valid. Depending on what is behind them, the text before them in their line counts as a line or is lost.
std::optional<Lines> ReadLines(const char *path);

// The number of the line of the installed file at which the load that gave this fault, if any, came upon such bytes;
// 0 for none. And a sentence about it.
unsigned long WhereReadingStopped(const std::optional<Fault> &fault);
std::string ReadingStopped(unsigned long line);

// A line without the blanks at its ends.
std::wstring_view Trimmed(std::wstring_view line);

// Rules by name and by host, in the order in which the library walks them.
struct Rule {
  s32 privilege;
  unsigned long line;  // 0 for a built-in record
};
using HostRules = std::map<std::wstring, Rule>;
using NamedRules = std::map<std::wstring, HostRules>;

struct Rules {
  NamedRules users;
  NamedRules groups;  // by the name with its "+"
  HostRules anyone;

  Rules() = default;
  explicit Rules(const Records &records);

  HostRules &Of(const std::wstring &name);

  // Adds a grant and returns the rule that there was for this name and host before, if there was one. Of the two, the
  // stronger stays.
  std::optional<Rule> Add(const ZEBRole &role, unsigned long line);
};

inline bool IsForAnyone(std::wstring_view name) { return name == L"*"; }
inline bool IsForGroup(std::wstring_view name) { return name.starts_with(L'+'); }
inline bool IsPattern(std::wstring_view host) { return host.find(L"*.") != std::wstring_view::npos; }
inline bool Contains(std::wstring_view text, std::wstring_view part) {
  return text.find(part) != std::wstring_view::npos;
}

// This machine as the rules know it.
struct Machine {
  std::vector<std::string> addresses;     // in the library's order
  std::optional<std::wstring> domainKey;  // such as "*.lab.example"; nothing where the domain is not valid text

  Machine();

  // Whether a rule's host is one of the addresses: for a user in any notation, else only as it is written.
  bool HasAddress(const std::wstring &host, bool isForUser) const;
};

// Whether a rule's host is an address in any notation.
bool IsSameAddress(const std::wstring &host, const std::string &address);

std::wstring Quoted(std::wstring_view text);

int Explain(const std::string &user, const std::string &host, bool asJSON);
int CheckFile(const std::string &path, bool isStrict, bool asJSON);

#endif

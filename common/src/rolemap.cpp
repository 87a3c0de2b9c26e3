// The role map: the reader of the administrator's file, its records, and the rules that find a user's privilege.
#include "zebcs/rolemap.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <ext/stdio_filebuf.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "accounts.h"
#include "fork_guard.h"
#include "locale_text.h"
#include "owners.h"
#include "zebcs/auth.h"
#include "zebcs/net.h"

namespace {

// Constants, built by the library's static initialisers.
const std::string PRIVILEGE_FILE = "/opt/vorn/fleetops/etc/zebrolemap";
constexpr wchar_t COMMENT_CHAR = L'#';
const std::wstring WHITE_SPACE = L" \t";       // trimmed from lines
const std::wstring COLUMN_DELIMITER = L" \t";  // splits lines; the same characters, for another purpose
const std::wstring COLUMN_SEPARATOR = L",";
const std::wstring ZEB_STR_ADMIN_ROLE = L"administrator";
const std::wstring ZEB_STR_POWERUSER_ROLE = L"poweruser";
const std::wstring ZEB_STR_USER_ROLE = L"user";
const std::wstring WILDCARD = L"*";
const std::wstring DOMAIN_WILDCARD = L"*.";
const std::wstring GROUP_CHAR = L"+";
const std::wstring DEF_ADMINS_GRP = L"root";  // Kept: a user, although the name speaks of a group.
const std::wstring DEF_POWERUSER_GRP = GROUP_CHAR + L"root";
const std::wstring DEF_USER_GRP = WILDCARD;

constexpr s32 kUserPrivilege = 1;
constexpr s32 kPowerUserPrivilege = 3;
constexpr s32 kAdministratorPrivilege = 7;

// Splits a text at any one of the delimiters, of which there are one or two. Adjacent delimiters give empty tokens,
// and a text that ends in one gives a last empty token.
class Tokenizer {
 public:
  Tokenizer(std::wstring_view text, std::wstring_view delimiters)
      : m_rest(text), m_delimiter1(delimiters.front()), m_delimiter2(delimiters.back()), m_hasMore(!text.empty()) {}

  bool HasMore() const { return m_hasMore; }

  std::wstring_view Next() {
    size_t end = 0;
    while (end < m_rest.size() && m_rest[end] != m_delimiter1 && m_rest[end] != m_delimiter2) ++end;
    const std::wstring_view token = m_rest.substr(0, end);
    m_hasMore = end < m_rest.size();
    m_rest.remove_prefix(m_hasMore ? end + 1 : end);
    return token;
  }

  // The next token that is not empty; an empty one when none is left.
  std::wstring_view NextNonEmpty() {
    std::wstring_view token;
    while (token.empty() && m_hasMore) token = Next();
    return token;
  }

 private:
  std::wstring_view m_rest;
  wchar_t m_delimiter1;
  wchar_t m_delimiter2;
  bool m_hasMore;
};

std::wstring_view Trimmed(std::wstring_view text, std::wstring_view set) {
  const size_t first = text.find_first_not_of(set);
  if (first == std::wstring_view::npos) return {};
  return text.substr(first, text.find_last_not_of(set) - first + 1);
}

}  // namespace

namespace VornSupport {

VornException::~VornException() = default;
const char *VornException::what() const noexcept { return m_text; }

}  // namespace VornSupport

using VornSupport::VornCriticalSection;

namespace {

const char *DescriptionOf(fileReadErrorCode code) {
  switch (code) {
    case FILE_NOT_FOUND: return "the role-map file cannot be opened";
    case FILE_FORMAT_ERROR: return "a line of the role-map file does not follow the format";
    case MEMORY_ALLOCATION_FAILURE: return "memory ran out while the role-map file was read";
    case FILE_PERMS_ERROR: return "the role-map file is not a regular file with permissions 0640";
    case FILE_EMPTY: return "the role-map file has no entry";
    case DUPLICATE_ENTRY: return "the role-map file names a user twice for one host";
  }
  return "the role-map file cannot be used";
}

}  // namespace

ZEBRoleMapFileReaderException::ZEBRoleMapFileReaderException(fileReadErrorCode code, unsigned long lineNumber) noexcept
    : VornException(code, DescriptionOf(code)), m_lineNumber(lineNumber), m_errorCode(code) {}

ZEBRoleMapFileReaderException::~ZEBRoleMapFileReaderException() = default;

int ZEBRoleMapFileReaderException::MapErrorCodeToCmdId() const noexcept {
  // Kept: the ids do not follow the order of the codes.
  switch (m_errorCode) {
    case FILE_FORMAT_ERROR: return 5911;
    case FILE_NOT_FOUND: return 5912;
    case FILE_PERMS_ERROR: return 5913;
    case FILE_EMPTY: return 5914;
    case MEMORY_ALLOCATION_FAILURE: return 5915;
    case DUPLICATE_ENTRY: return 5916;
  }
  return 5900;
}

QXAuthFileRecord::QXAuthFileRecord(const std::wstring &line, int lineNumber)
    : m_line(line), m_lineNumber(static_cast<unsigned long>(lineNumber)) {}

QXAuthFileRecord::~QXAuthFileRecord() = default;

void QXAuthFileRecord::GetRoles(std::deque<ZEBRole *> &roles) const {
  roles.clear();
  for (ZEBRole &role : m_Roles) roles.push_back(&role);
}

namespace {

// Whether the text is the keyword, which is in lower case, in any letter case.
bool IsKeyword(std::wstring_view text, std::wstring_view keyword) {
  return std::equal(text.begin(), text.end(), keyword.begin(), keyword.end(),
                    [](wchar_t c, wchar_t expected) { return ToLower(c) == expected; });
}

// The privilege that a role keyword gives.
std::optional<s32> PrivilegeOf(std::wstring_view role) {
  if (IsKeyword(role, ZEB_STR_ADMIN_ROLE)) return kAdministratorPrivilege;
  if (IsKeyword(role, ZEB_STR_POWERUSER_ROLE)) return kPowerUserPrivilege;
  if (IsKeyword(role, ZEB_STR_USER_ROLE)) return kUserPrivilege;
  return std::nullopt;
}

// An entry line taken apart:
//
//   alice,+wheel   host1,*.lab.example   administrator   anything further is not looked at
//   NAMES          HOSTS                 ROLE
struct EntryLine {
  std::wstring_view names;
  std::wstring_view hosts;
  s32 privilege;
};

// Nothing for a line that does not have three columns or whose role is unknown.
std::optional<EntryLine> ClassifyEntryLine(std::wstring_view line) {
  Tokenizer columns(line, COLUMN_DELIMITER);
  const std::wstring_view names = columns.NextNonEmpty();
  if (!columns.HasMore()) return std::nullopt;
  const std::wstring_view hosts = columns.NextNonEmpty();
  if (!columns.HasMore()) return std::nullopt;
  const std::optional<s32> privilege = PrivilegeOf(columns.NextNonEmpty());
  if (!privilege) return std::nullopt;
  return EntryLine{names, hosts, *privilege};
}

}  // namespace

void QXAuthFileRecord::PopulateZEBRoles() {
  const std::optional<EntryLine> entry = ClassifyEntryLine(m_line);
  if (!entry) throw ZEBRoleMapFileReaderException(FILE_FORMAT_ERROR, m_lineNumber);
  try {
    // Items need no trimming: the columns were split at every blank. Empty ones are names and hosts like any other.
    for (Tokenizer names(entry->names, COLUMN_SEPARATOR); names.HasMore();) {
      const std::wstring_view name = names.Next();
      for (Tokenizer hosts(entry->hosts, COLUMN_SEPARATOR); hosts.HasMore();) {
        const std::wstring_view host = hosts.Next();
        m_Roles.push_back({std::wstring(name), Lowered(host), entry->privilege});
      }
    }
  } catch (const std::bad_alloc &) {
    m_Roles.clear();
    throw ZEBRoleMapFileReaderException(MEMORY_ALLOCATION_FAILURE, 0);
  }
}

QXAuthFileReader &QXAuthFileReader::GetInstance() {
  static QXAuthFileReader reader;
  return reader;
}

QXAuthFileReader::QXAuthFileReader() : m_szFilename(PRIVILEGE_FILE) {}

QXAuthFileReader::~QXAuthFileReader() {
  const VornCriticalSection lock(m_CriticalSection);
  DestroyRecords();
}

void QXAuthFileReader::DestroyRecords() noexcept {
  for (const QXAuthFileRecord *record : m_fileRecords) delete record;
  m_fileRecords.clear();
}

void QXAuthFileReader::AppendRecord(const std::wstring &line, int lineNumber) {
  auto record = std::make_unique<QXAuthFileRecord>(line, lineNumber);
  record->PopulateZEBRoles();
  m_fileRecords.push_back(record.get());
  (void)record.release();  // now the list's
}

namespace {

// The file is there: for want of memory nobody gets the rights of the built-in rules instead of its own.
[[noreturn]] void ThrowNotOpened() {
  if (errno == ENOMEM) throw std::bad_alloc();
  throw ZEBRoleMapFileReaderException(FILE_NOT_FOUND, 0);
}

}  // namespace

void QXAuthFileReader::CheckFilePermissions() {
  struct stat status {};
  if (stat(m_szFilename.c_str(), &status) != 0) throw ZEBRoleMapFileReaderException(FILE_NOT_FOUND, 0);
  CheckFile(status);
}

void QXAuthFileReader::CheckFile(const struct stat &status) {
  constexpr mode_t kExpectedMode = S_IFREG | S_IRUSR | S_IWUSR | S_IRGRP;
  // Kept: the sticky bit is the one bit that may be set as well.
  if ((status.st_mode & ~mode_t{S_ISVTX}) != kExpectedMode) throw ZEBRoleMapFileReaderException(FILE_PERMS_ERROR, 0);
  if (status.st_mtime == m_tZEBRM_ModifiedFileStamp) return;
  m_tZEBRM_ModifiedFileStamp = status.st_mtime;
  m_bInitialized = false;
  ZEBRoleMapAlgorithm::GetInstance().m_bInitialized = false;
}

void QXAuthFileReader::Open() {
  const VornCriticalSection lock(m_CriticalSection);
  CheckFilePermissions();
  if (m_bInitialized) return;
  if (m_pfile == nullptr) m_pfile = std::make_unique<std::wifstream>();
  if (m_pfile->is_open()) {
    // Kept: a stream left open by a failed read cannot be opened again. That sets its fail state, and as it counts as
    // open no error is raised here; GetRecords then finds the file empty.
    m_pfile->setstate(std::ios_base::failbit);
    return;
  }
  // A file that has taken the place of the one that was checked may be anything; a pipe would be waited for.
  FdGuard file = OpenAboveStandardStreams(m_szFilename.c_str(), O_RDONLY | O_NONBLOCK);
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) ThrowNotOpened();
  CheckFile(status);
  const int fd = file.release();
  __gnu_cxx::stdio_filebuf<wchar_t> buffer(fd, std::ios_base::in);  // owns the file, unless there is no memory for it
  if (!buffer.is_open()) {
    file.reset(fd);
    throw std::bad_alloc();
  }
  m_pfile->rdbuf()->swap(buffer);
  m_pfile->clear();
}

namespace {

// Reads lines from a stream. Bytes that are not valid in the locale end the reading; in a file that fits the stream's
// buffer what stands before them in their line still is a line, as if the file ended there. An exception that is not
// the stream's own, such as bad_alloc, passes and is not taken for the end.
class LineReader {
 public:
  explicit LineReader(std::wistream &stream) : m_stream(stream) {
    if (!m_stream.bad()) m_stream.exceptions(std::ios_base::badbit);
  }
  LineReader(const LineReader &) = delete;
  LineReader &operator=(const LineReader &) = delete;
  ~LineReader() { m_stream.exceptions(std::ios_base::goodbit); }

  bool Read(std::wstring &line) {
    try {
      return static_cast<bool>(std::getline(m_stream, line));
    } catch (const std::ios_base::failure &) {
      return false;
    }
  }

 private:
  std::wistream &m_stream;
};

}  // namespace

void QXAuthFileReader::ReadRecords(std::wistream &stream) {
  LineReader reader(stream);
  std::wstring line;
  for (int lineNumber = 1; reader.Read(line); ++lineNumber) {
    const std::wstring_view text = Trimmed(line, WHITE_SPACE);
    if (text.empty() || text.front() == COMMENT_CHAR) continue;
    if (text.size() != line.size()) line = std::wstring(text);
    AppendRecord(line, lineNumber);
  }
}

std::deque<QXAuthFileRecord *> &QXAuthFileReader::GetRecords() {
  const VornCriticalSection lock(m_CriticalSection);
  if (m_bInitialized) return m_fileRecords;
  DestroyRecords();
  if (m_pfile == nullptr) throw ZEBRoleMapFileReaderException(FILE_NOT_FOUND, 0);
  ReadRecords(*m_pfile);
  if (m_fileRecords.empty()) throw ZEBRoleMapFileReaderException(FILE_EMPTY, 0);
  m_pfile->close();  // a failure sets the stream's fail state, and the stream ends here
  m_pfile.reset();
  m_bInitialized = true;
  return m_fileRecords;
}

std::deque<QXAuthFileRecord *> &QXAuthFileReader::GetDefaultRecords() {
  const VornCriticalSection lock(m_CriticalSection);
  DestroyRecords();
  const std::array<std::pair<const std::wstring &, const std::wstring &>, 3> defaults{
      {{DEF_ADMINS_GRP, ZEB_STR_ADMIN_ROLE},
       {DEF_POWERUSER_GRP, ZEB_STR_POWERUSER_ROLE},
       {DEF_USER_GRP, ZEB_STR_USER_ROLE}}};
  for (const auto &[name, role] : defaults) {
    AppendRecord(name + COLUMN_DELIMITER + WILDCARD + COLUMN_DELIMITER + role, 0);
  }
  return m_fileRecords;
}

ZEBRoleMapAlgorithm &ZEBRoleMapAlgorithm::GetInstance() {
  static ZEBRoleMapAlgorithm algorithm;
  return algorithm;
}

ZEBRoleMapAlgorithm::ZEBRoleMapAlgorithm() : m_pTables(std::make_shared<const Tables>()) {
  KeepFreeInChildren(ForkOrder::kRoleMapTables, &m_TablesMutex);
}

ZEBRoleMapAlgorithm::~ZEBRoleMapAlgorithm() { KeepFreeInChildren(ForkOrder::kRoleMapTables, nullptr); }

namespace {

// What a lookup cannot find by the key alone: keys that contain "*.", and keys that may be an address, which has only
// digits and dots, or a colon somewhere.
struct HostKind {
  bool isPattern;
  bool isAddress;
};

HostKind KindOf(std::wstring_view host) {
  bool isPattern = false;
  bool hasColon = false;
  bool hasOther = host.empty();
  wchar_t previous = L'\0';
  for (const wchar_t c : host) {
    if (c == L':') hasColon = true;
    if (c != L'.' && (c < L'0' || c > L'9')) hasOther = true;
    if (c == DOMAIN_WILDCARD[1] && previous == DOMAIN_WILDCARD[0]) isPattern = true;
    previous = c;
  }
  return {isPattern, hasColon || !hasOther};
}

}  // namespace

// The rules of one user or group, or for anyone.
struct ZEBRoleMapAlgorithm::HostRules {
  struct Entry {
    std::wstring_view host;
    s32 privilege;
  };
  std::span<const Entry> entries;  // in code-point order

  // Those that a lookup has to walk, in order.
  using EntryList = std::vector<const Entry *>;
  struct Walked {
    EntryList patterns;   // contain "*."
    EntryList addresses;  // may be an IP address
  };
  std::unique_ptr<Walked> walked;  // null for the usual rules, which have none

  const s32 *Find(std::wstring_view host) const {
    const auto entry = std::lower_bound(entries.begin(), entries.end(), host,
                                        [](const Entry &e, std::wstring_view h) { return e.host < h; });
    return entry != entries.end() && entry->host == host ? &entry->privilege : nullptr;
  }

  void FindWalked() {
    for (const Entry &entry : entries) {
      const HostKind kind = KindOf(entry.host);
      if (!kind.isPattern && !kind.isAddress) continue;
      if (walked == nullptr) walked = std::make_unique<Walked>();
      if (kind.isPattern) walked->patterns.push_back(&entry);
      if (kind.isAddress) walked->addresses.push_back(&entry);
    }
  }
};

// What a lookup needs, built in one go and never changed: a few large blocks, whatever the number of rules.
struct ZEBRoleMapAlgorithm::Tables {
  struct NamedRules {
    std::wstring_view name;
    HostRules rules;
  };
  using RulesMap = std::vector<NamedRules>;  // in code-point order

  RulesMap users;
  RulesMap groups;  // with their "+"
  HostRules anyone;

  Tables() = default;
  explicit Tables(std::span<const SortKey> order);
  Tables(const Tables &) = delete;
  Tables &operator=(const Tables &) = delete;

  static const HostRules *Find(const RulesMap &map, std::wstring_view name) {
    const auto named = std::lower_bound(map.begin(), map.end(), name,
                                        [](const NamedRules &n, std::wstring_view key) { return n.name < key; });
    return named != map.end() && named->name == name ? &named->rules : nullptr;
  }

 private:
  std::wstring m_texts;                     // all names and hosts
  std::vector<HostRules::Entry> m_entries;  // of all rules
};

// A grant on its way into the tables.
struct ZEBRoleMapAlgorithm::Rule {
  std::wstring_view name;
  std::wstring_view host;
  s32 privilege;
  bool isForAnyone;
  bool isForGroup;
  unsigned long lineNumber;

  Rule(const ZEBRole &role, unsigned long line)
      : name(role.szUserName),
        host(role.szHostName),
        privilege(role.nPerm),
        isForAnyone(name == WILDCARD),
        isForGroup(name.starts_with(GROUP_CHAR)),
        lineNumber(line) {}
};

// A grant while the grants are sorted by name, host and place in the file. The start of the name is packed into
// numbers that order as names do: these are compared side by side in memory, and the texts only where they are equal.
struct ZEBRoleMapAlgorithm::SortKey {
  std::array<u64, 2> nameStart;
  Rule *rule;  // in the order of the file

  explicit SortKey(Rule &r) : nameStart{}, rule(&r) {
    bool isExact = true;  // the end of the name, or a character that does not fit a byte, ends what can be packed
    size_t i = 0;
    for (u64 &part : nameStart) {
      for (size_t byte = 0; byte < sizeof part; ++byte, ++i) {
        const wchar_t c = isExact && i < r.name.size() ? std::clamp(r.name[i], L'\0', L'\xFF') : L'\0';
        part = part << 8 | static_cast<u8>(c);
        isExact = isExact && c > L'\0' && c < L'\xFF';
      }
    }
  }

  bool operator<(const SortKey &other) const {
    if (nameStart[0] != other.nameStart[0]) return nameStart[0] < other.nameStart[0];
    if (nameStart[1] != other.nameStart[1]) return nameStart[1] < other.nameStart[1];
    if (const int order = rule->name.compare(other.rule->name); order != 0) return order < 0;
    if (const int order = rule->host.compare(other.rule->host); order != 0) return order < 0;
    return rule < other.rule;
  }

  bool HasSameNameAs(const SortKey &other) const {
    return nameStart == other.nameStart && rule->name == other.rule->name;
  }
  bool IsSameRuleAs(const SortKey &other) const { return HasSameNameAs(other) && rule->host == other.rule->host; }
};

// The grants are sorted first and then appended in order: that costs no search, and repeated ones stand side by side.
void ZEBRoleMapAlgorithm::Initialize(const std::deque<QXAuthFileRecord *> &records) {
  const VornCriticalSection lock(m_CriticalSection);
  if (m_bInitialized) return;
  std::vector<Rule> rules;
  rules.reserve(records.size());
  std::deque<ZEBRole *> roles;
  for (const QXAuthFileRecord *record : records) {
    record->GetRoles(roles);
    for (const ZEBRole *role : roles) {
      rules.emplace_back(*role, record->GetLineNumber());
    }
  }
  std::vector<SortKey> order(rules.begin(), rules.end());
  std::sort(order.begin(), order.end());

  // Of several users named twice the first in the file is the error; what stands before it goes into the tables.
  const Rule *duplicate = nullptr;
  for (size_t i = 1; i < order.size(); ++i) {
    const Rule *const rule = order[i].rule;
    if (!order[i].IsSameRuleAs(order[i - 1]) || rule->isForAnyone || rule->isForGroup) continue;
    if (duplicate == nullptr || rule < duplicate) duplicate = rule;
  }
  if (duplicate != nullptr) {
    std::erase_if(order, [duplicate](const SortKey &key) { return key.rule >= duplicate; });
    Publish(order);
    throw ZEBRoleMapFileReaderException(DUPLICATE_ENTRY, duplicate->lineNumber);
  }
  Publish(order);
  m_bInitialized = true;
}

void ZEBRoleMapAlgorithm::Publish(std::span<const SortKey> order) {
  std::shared_ptr<const Tables> tables = std::make_shared<const Tables>(order);
  const std::lock_guard lock(m_TablesMutex);
  m_pTables.swap(tables);  // the former ones go when the last lookup in them is done
}

std::shared_ptr<const ZEBRoleMapAlgorithm::Tables> ZEBRoleMapAlgorithm::CurrentTables() const {
  const std::lock_guard lock(m_TablesMutex);
  return m_pTables;
}

ZEBRoleMapAlgorithm::Tables::Tables(std::span<const SortKey> order) {
  size_t textSize = 0;
  size_t names = 0;
  for (size_t i = 0; i < order.size(); ++i) {
    const bool isNewName = i == 0 || !order[i].HasSameNameAs(order[i - 1]);
    textSize += order[i].rule->host.size() + (isNewName ? order[i].rule->name.size() : 0);
    if (isNewName) ++names;
  }
  // Nothing moves after that, which views and spans rely on.
  m_texts.reserve(textSize);
  m_entries.reserve(order.size());
  users.reserve(names);
  const auto keep = [this](std::wstring_view text) {
    const size_t start = m_texts.size();
    m_texts.append(text);
    return std::wstring_view(m_texts).substr(start);
  };
  for (size_t i = 0; i < order.size();) {
    const size_t first = i;
    const Rule &firstRule = *order[first].rule;
    const size_t firstEntry = m_entries.size();
    do {
      const Rule &rule = *order[i].rule;
      // Kept: a group or "*" named again for a host is merged to the stronger privilege, where a user is an error.
      if (m_entries.size() > firstEntry && m_entries.back().host == rule.host) {
        m_entries.back().privilege = std::max(m_entries.back().privilege, rule.privilege);
      } else {
        m_entries.push_back({keep(rule.host), rule.privilege});
      }
    } while (++i < order.size() && order[i].HasSameNameAs(order[first]));
    RulesMap &map = firstRule.isForGroup ? groups : users;
    if (!firstRule.isForAnyone) map.push_back({keep(firstRule.name), {}});
    HostRules &rules = firstRule.isForAnyone ? anyone : map.back().rules;
    rules.entries = std::span(m_entries).subspan(firstEntry);
    rules.FindWalked();
  }
}

namespace {

// This machine as rules know it: its addresses and its domain, each fetched when a rule first needs it to decide.
class ThisMachine {
 public:
  // The addresses as text; none when they cannot be had.
  const std::vector<const char *> &Addresses() {
    if (!m_hasAddresses) {
      m_hasAddresses = true;
      u32 count = 0;
      m_addressList.reset(SUPTIntfHostGetHostIPAddrList(&count));
      for (u32 i = 0; i < count; ++i) m_addresses.push_back(m_addressList.get()[i].az);
    }
    return m_addresses;
  }

  // The host key of the domain, such as "*.lab.example". A machine without a domain has the key "*."; nothing only
  // where the domain is not valid in the locale.
  const std::optional<std::wstring> &DomainKey() {
    if (!m_hasDomainKey) {
      m_hasDomainKey = true;
      const MallocPtr<astring> domain(OSGetComputerDomainName());
      if (const auto wide = Widened(domain ? domain.get() : "")) m_domainKey = Lowered(DOMAIN_WILDCARD + *wide);
    }
    return m_domainKey;
  }

 private:
  bool m_hasAddresses = false;
  bool m_hasDomainKey = false;
  MallocPtr<KCSIPAddrStr> m_addressList;
  std::vector<const char *> m_addresses;
  std::optional<std::wstring> m_domainKey;
};

// The keys under which the user's groups stand in the role map, in the order of his group list.
std::vector<std::wstring> GroupKeysOf(const std::wstring &userName) {
  std::vector<std::wstring> keys;
  const std::optional<std::string> name = Narrowed(userName);
  if (!name) return keys;
  const Account account(name->c_str());
  if (!account) return keys;
  for (const gid_t id : GroupList(account)) {
    const Group group(id);
    if (!group) continue;
    if (const auto wide = Widened(group.name())) keys.push_back(GROUP_CHAR + *wide);
  }
  return keys;
}

bool MatchesPattern(std::wstring_view pattern, std::wstring_view host) { return pattern.find(host) != pattern.npos; }

}  // namespace

// The search for one answer: the steps that the three tables share, and the tables' own order of steps.
struct ZEBRoleMapAlgorithm::Search {
  const std::wstring &host;
  ThisMachine machine = {};

  static const HostRules::EntryList &Patterns(const HostRules &rules) {
    static const HostRules::EntryList kNone;
    return rules.walked == nullptr ? kNone : rules.walked->patterns;
  }

  static const HostRules::EntryList &Addresses(const HostRules &rules) {
    static const HostRules::EntryList kNone;
    return rules.walked == nullptr ? kNone : rules.walked->addresses;
  }

  const s32 *FindDomain(const HostRules &rules) {
    if (Patterns(rules).empty()) return nullptr;  // the domain's key would be one of them
    const std::optional<std::wstring> &key = machine.DomainKey();
    return key ? rules.Find(*key) : nullptr;
  }

  // The strongest privilege of the rules whose host is written exactly as one of the machine's addresses; 0 for none.
  s32 StrongestOfAddresses(const HostRules &rules) {
    s32 strongest = 0;
    if (Addresses(rules).empty()) return strongest;
    for (const char *address : machine.Addresses()) {
      const auto wide = Widened(address);
      const s32 *const privilege = wide ? rules.Find(*wide) : nullptr;
      if (privilege != nullptr) strongest = std::max(strongest, *privilege);
    }
    return strongest;
  }

  // The strongest privilege of the rules whose host is one of the machine's addresses in any notation; for each
  // address the first such rule counts. 0 for none.
  s32 StrongestOfEqualAddresses(const HostRules &rules) {
    s32 strongest = 0;
    if (Addresses(rules).empty()) return strongest;
    for (const char *address : machine.Addresses()) {
      for (const HostRules::Entry *entry : Addresses(rules)) {
        const std::optional<std::string> key = Narrowed(std::wstring(entry->host));
        if (!key || CheckIPEqual(key->c_str(), address) != 1) continue;
        strongest = std::max(strongest, entry->privilege);
        break;
      }
    }
    return strongest;
  }

  // The rules of one user. Nothing when none of them matches.
  std::optional<s32> DecideByUser(const HostRules &rules) {
    // Kept: a domain pattern matches a host that is part of the pattern, not one that is part of the domain.
    for (const HostRules::Entry *entry : Patterns(rules)) {
      if (MatchesPattern(entry->host, host)) return entry->privilege;
    }
    if (const s32 *privilege = rules.Find(host)) return *privilege;
    if (const s32 strongest = StrongestOfEqualAddresses(rules); strongest != 0) return strongest;
    if (const s32 *privilege = FindDomain(rules)) return *privilege;
    if (const s32 *privilege = rules.Find(WILDCARD)) return *privilege;
    return std::nullopt;
  }

  // The rules of the user's groups, each step over all groups before the next step. 0 when none matches.
  s32 DecideByGroups(const std::vector<const HostRules *> &groups) {
    s32 strongest = 0;
    const auto raise = [&strongest](const s32 *privilege) {
      if (privilege != nullptr) strongest = std::max(strongest, *privilege);
    };
    for (const HostRules *rules : groups) {
      for (const HostRules::Entry *entry : Patterns(*rules)) {
        if (MatchesPattern(entry->host, host)) raise(&entry->privilege);
      }
      raise(rules->Find(host));
    }
    if (strongest != 0) return strongest;
    for (const HostRules *rules : groups) strongest = std::max(strongest, StrongestOfAddresses(*rules));
    if (strongest != 0) return strongest;
    for (const HostRules *rules : groups) raise(FindDomain(*rules));
    if (strongest != 0) return strongest;
    for (const HostRules *rules : groups) raise(rules->Find(WILDCARD));
    return strongest;
  }

  // The rules for anyone. 0 when none matches.
  s32 DecideByHost(const HostRules &rules) {
    if (const s32 *privilege = rules.Find(host)) return *privilege;
    if (const s32 strongest = StrongestOfAddresses(rules); strongest != 0) return strongest;
    if (const s32 *privilege = FindDomain(rules)) return *privilege;
    if (const s32 *privilege = rules.Find(WILDCARD)) return *privilege;
    return 0;
  }
};

void ZEBRoleMapAlgorithm::GetUserPrivileges(ZEBRole &role) {
  role.nPerm = 0;
  const std::shared_ptr<const Tables> tables = CurrentTables();
  Search search{.host = role.szHostName};
  if (const HostRules *rules = Tables::Find(tables->users, role.szUserName)) {
    if (const std::optional<s32> privilege = search.DecideByUser(*rules)) {
      role.nPerm = *privilege;
      return;
    }
  }
  if (!tables->groups.empty()) {
    std::vector<const HostRules *> groups;
    for (const std::wstring &key : GroupKeysOf(role.szUserName)) {
      if (const HostRules *rules = Tables::Find(tables->groups, key)) groups.push_back(rules);
    }
    role.nPerm = search.DecideByGroups(groups);
    if (role.nPerm != 0) return;
  }
  role.nPerm = search.DecideByHost(tables->anyone);
}

s32 ZEBRoleMapAlgorithm::GetOSPrivilege(const astring *userName) {
  if (userName == nullptr) return 0;
  const Account account(userName);
  if (!account) return 0;
  if (account.uid() == 0) return kAdministratorPrivilege;
  const GroupList ids(account);
  const bool isInRootGroup = std::find(ids.begin(), ids.end(), gid_t{0}) != ids.end();
  return isInRootGroup ? kPowerUserPrivilege : kUserPrivilege;
}

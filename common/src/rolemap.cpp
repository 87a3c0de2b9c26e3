// The role map: the reader of the administrator's file, its records, and the rules that find a user's privilege.
#include "zebcs/rolemap.hpp"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <cwchar>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "owners.h"
#include "qxauth_identity.h"
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

constexpr size_t kTypicalGroupCount = 100;

// Splits a text at any one of the delimiters. Adjacent delimiters give empty tokens, and a text that ends in one
// gives a last empty token.
class Tokenizer {
 public:
  Tokenizer(std::wstring_view text, std::wstring_view delimiters)
      : m_rest(text), m_delimiters(delimiters), m_hasMore(!text.empty()) {}

  bool HasMore() const { return m_hasMore; }

  std::wstring_view Next() {
    const size_t end = m_rest.find_first_of(m_delimiters);
    const std::wstring_view token = m_rest.substr(0, end);
    m_hasMore = end != std::wstring_view::npos;
    m_rest = m_hasMore ? m_rest.substr(end + 1) : std::wstring_view();
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
  std::wstring_view m_delimiters;
  bool m_hasMore;
};

std::wstring_view Trimmed(std::wstring_view text, std::wstring_view set) {
  const size_t first = text.find_first_not_of(set);
  if (first == std::wstring_view::npos) return {};
  return text.substr(first, text.find_last_not_of(set) - first + 1);
}

// Lower case by the system's single-byte table; characters beyond it stay as they are.
wchar_t ToLower(wchar_t c) { return c >= 0 && c <= 0xFF ? static_cast<wchar_t>(std::tolower(c)) : c; }

std::wstring Lowered(std::wstring_view text) {
  std::wstring lowered(text);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), ToLower);
  return lowered;
}

// Text of the locale as wide characters; nothing when it is not valid there.
std::optional<std::wstring> Widened(const char *text) {
  std::mbstate_t state{};
  const char *p = text;
  const size_t length = std::mbsrtowcs(nullptr, &p, 0, &state);
  if (length == static_cast<size_t>(-1)) return std::nullopt;
  std::wstring wide(length, L'\0');
  state = {};
  p = text;
  std::mbsrtowcs(wide.data(), &p, length, &state);
  return wide;
}

// Wide characters as text of the locale; nothing when they cannot be written there, and nothing for a text with a
// zero in it, which would name somebody else.
std::optional<std::string> Narrowed(const std::wstring &text) {
  if (text.find(L'\0') != std::wstring::npos) return std::nullopt;
  std::mbstate_t state{};
  const wchar_t *p = text.c_str();
  const size_t length = std::wcsrtombs(nullptr, &p, 0, &state);
  if (length == static_cast<size_t>(-1)) return std::nullopt;
  std::string narrow(length, '\0');
  state = {};
  p = text.c_str();
  std::wcsrtombs(narrow.data(), &p, length, &state);
  return narrow;
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

QXAuthFileRecord::~QXAuthFileRecord() { DestroyRoles(); }

void QXAuthFileRecord::DestroyRoles() noexcept {
  for (const ZEBRole *role : m_Roles) delete role;
  m_Roles.clear();
}

void QXAuthFileRecord::GetRoles(std::deque<ZEBRole *> &roles) const { roles = m_Roles; }

namespace {

// The privilege that a role keyword in lower case gives.
std::optional<s32> PrivilegeOf(std::wstring_view role) {
  if (role == ZEB_STR_ADMIN_ROLE) return kAdministratorPrivilege;
  if (role == ZEB_STR_POWERUSER_ROLE) return kPowerUserPrivilege;
  if (role == ZEB_STR_USER_ROLE) return kUserPrivilege;
  return std::nullopt;
}

// An entry line taken apart:
//
//   alice,+wheel   host1,*.lab.example   administrator   anything further is not looked at
//   NAMES          HOSTS                 ROLE
struct EntryLine {
  std::wstring_view names;
  std::wstring hosts;  // in lower case
  s32 privilege;
};

// Nothing for a line that does not have three columns or whose role is unknown.
std::optional<EntryLine> ClassifyEntryLine(std::wstring_view line) {
  Tokenizer columns(line, COLUMN_DELIMITER);
  const std::wstring_view names = columns.NextNonEmpty();
  if (!columns.HasMore()) return std::nullopt;
  const std::wstring_view hosts = columns.NextNonEmpty();
  if (!columns.HasMore()) return std::nullopt;
  const std::optional<s32> privilege = PrivilegeOf(Lowered(columns.NextNonEmpty()));
  if (!privilege) return std::nullopt;
  return EntryLine{names, Lowered(hosts), *privilege};
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
        auto role = std::make_unique<ZEBRole>(ZEBRole{std::wstring(name), std::wstring(host), entry->privilege});
        m_Roles.push_back(role.get());
        (void)role.release();  // now the list's
      }
    }
  } catch (const std::bad_alloc &) {
    DestroyRoles();
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

void QXAuthFileReader::CheckFilePermissions() {
  struct stat status {};
  if (stat(m_szFilename.c_str(), &status) != 0) throw ZEBRoleMapFileReaderException(FILE_NOT_FOUND, 0);
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
  // Kept: a stream left open by a failed read cannot be opened again. That sets its fail state, and as it counts as
  // open no error is raised here; GetRecords then finds the file empty.
  m_pfile->open(m_szFilename, std::ios_base::in);
  if (!m_pfile->is_open()) throw ZEBRoleMapFileReaderException(FILE_NOT_FOUND, 0);
}

namespace {

// Reads lines from a stream. A line cannot be read at the end of the file, nor where its bytes are not valid in the
// locale; an exception that is not the stream's own, such as bad_alloc, passes and is not taken for the end.
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

ZEBRoleMapAlgorithm::ZEBRoleMapAlgorithm() = default;
ZEBRoleMapAlgorithm::~ZEBRoleMapAlgorithm() = default;

namespace {

// Whether a host key can equal an address text: only digits and dots, or a colon somewhere.
bool MayBeAddress(std::wstring_view host) {
  if (host.empty()) return false;
  return host.find(L':') != std::wstring_view::npos ||
         host.find_first_not_of(L"0123456789.") == std::wstring_view::npos;
}

}  // namespace

// Adds a key that is not there yet. It should sort after all that are, which makes it cost no search.
void ZEBRoleMapAlgorithm::HostRules::Append(const std::wstring &host, s32 privilege) {
  const HostMap::value_type &entry = *hosts.emplace_hint(hosts.end(), host, privilege);
  if (host.find(DOMAIN_WILDCARD) != std::wstring::npos) patterns.push_back(&entry);
  if (MayBeAddress(host)) addresses.push_back(&entry);
}

namespace {

// A grant on its way into the tables, with the start of its name packed into a number that orders as the names do:
// sorting compares numbers, and looks at the texts only where these are equal.
struct SortableRole {
  u64 nameStart;
  const ZEBRole *role;
  size_t position;  // in the order of the file
  unsigned long lineNumber;

  bool operator<(const SortableRole &other) const {
    if (nameStart != other.nameStart) return nameStart < other.nameStart;
    if (const int order = role->szUserName.compare(other.role->szUserName); order != 0) return order < 0;
    if (const int order = role->szHostName.compare(other.role->szHostName); order != 0) return order < 0;
    return position < other.position;
  }
};

u64 PackedStart(const std::wstring &name) {
  constexpr size_t kPackedCharacters = sizeof(u64);
  u64 packed = 0;
  bool isExact = true;  // a character that does not fit a byte ends what can be packed
  for (size_t i = 0; i < kPackedCharacters; ++i) {
    const wchar_t c = isExact && i < name.size() ? std::clamp(name[i], L'\0', L'\xFF') : L'\0';
    packed = packed << 8 | static_cast<u8>(c);
    isExact = isExact && c > L'\0' && c < L'\xFF';
  }
  return packed;
}

bool SameNameAndHost(const ZEBRole &a, const ZEBRole &b) {
  return a.szUserName == b.szUserName && a.szHostName == b.szHostName;
}

bool IsUserRule(const ZEBRole &role) { return role.szUserName != WILDCARD && !role.szUserName.starts_with(GROUP_CHAR); }

}  // namespace

// The grants are sorted first and then appended in order: building a tree from sorted keys costs no search, and
// repeated ones stand side by side.
void ZEBRoleMapAlgorithm::Initialize(const std::deque<QXAuthFileRecord *> &records) {
  const VornCriticalSection lock(m_CriticalSection);
  if (m_bInitialized) return;
  m_UserLkupMap.clear();
  m_GroupLkupMap.clear();
  m_HostLkupMap = {};

  std::vector<SortableRole> roles;
  roles.reserve(records.size());
  std::deque<ZEBRole *> rolesOfRecord;
  for (const QXAuthFileRecord *record : records) {
    record->GetRoles(rolesOfRecord);
    for (const ZEBRole *role : rolesOfRecord) {
      roles.push_back({PackedStart(role->szUserName), role, roles.size(), record->GetLineNumber()});
    }
  }
  std::sort(roles.begin(), roles.end());

  // Of several users named twice the first in the file is the error; what stands before it goes into the tables.
  const SortableRole *duplicate = nullptr;
  for (size_t i = 1; i < roles.size(); ++i) {
    if (!IsUserRule(*roles[i].role) || !SameNameAndHost(*roles[i - 1].role, *roles[i].role)) continue;
    if (duplicate == nullptr || roles[i].position < duplicate->position) duplicate = &roles[i];
  }
  const size_t end = duplicate == nullptr ? roles.size() : duplicate->position;

  HostRules *rules = nullptr;  // of the user or group at hand
  const std::wstring *rulesName = nullptr;
  for (size_t i = 0; i < roles.size();) {
    const ZEBRole &role = *roles[i].role;
    // Kept: a group or "*" named again for a host is merged to the stronger privilege, where a user is an error.
    s32 privilege = 0;
    bool isInTables = false;
    for (; i < roles.size() && SameNameAndHost(role, *roles[i].role); ++i) {
      if (roles[i].position >= end) continue;
      privilege = isInTables ? std::max(privilege, roles[i].role->nPerm) : roles[i].role->nPerm;
      isInTables = true;
    }
    if (!isInTables) continue;
    if (role.szUserName == WILDCARD) {
      m_HostLkupMap.Append(role.szHostName, privilege);
      continue;
    }
    if (rulesName == nullptr || *rulesName != role.szUserName) {
      RulesMap &map = role.szUserName.starts_with(GROUP_CHAR) ? m_GroupLkupMap : m_UserLkupMap;
      rules = &map.try_emplace(map.end(), role.szUserName)->second;
      rulesName = &role.szUserName;
    }
    rules->Append(role.szHostName, privilege);
  }
  if (duplicate != nullptr) throw ZEBRoleMapFileReaderException(DUPLICATE_ENTRY, duplicate->lineNumber);
  m_bInitialized = true;
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

// Memory for an account database call, which says ERANGE when an entry needs more.
class EntryBuffer {
 public:
  char *Data() { return m_large.empty() ? m_small : m_large.data(); }
  size_t Size() const { return m_large.empty() ? sizeof m_small : m_large.size(); }
  void Grow() { m_large.resize(2 * Size()); }

 private:
  char m_small[4096];
  std::vector<char> m_large;
};

const passwd *FindAccount(const char *name, passwd &entry, EntryBuffer &buffer) {
  passwd *found = nullptr;
  while (getpwnam_r(name, &entry, buffer.Data(), buffer.Size(), &found) == ERANGE) buffer.Grow();
  return found;
}

const group *FindGroup(gid_t id, group &entry, EntryBuffer &buffer) {
  group *found = nullptr;
  while (getgrgid_r(id, &entry, buffer.Data(), buffer.Size(), &found) == ERANGE) buffer.Grow();
  return found;
}

// The ids of the account's groups, the primary one among them; none when memory runs out.
class GroupList {
 public:
  explicit GroupList(const passwd &account) {
    int count = kTypicalGroupCount;
    m_ids = MallocArray<gid_t>(kTypicalGroupCount);
    if (m_ids && getgrouplist(account.pw_name, account.pw_gid, m_ids.get(), &count) == -1) {
      const int room = count;
      m_ids = MallocArray<gid_t>(static_cast<size_t>(room));
      // The groups may have grown in between: what fits is what counts.
      if (m_ids && getgrouplist(account.pw_name, account.pw_gid, m_ids.get(), &count) == -1) count = room;
    }
    m_count = m_ids && count > 0 ? static_cast<size_t>(count) : 0;
  }

  const gid_t *begin() const { return m_ids.get(); }
  const gid_t *end() const { return m_ids.get() + m_count; }

 private:
  MallocPtr<gid_t> m_ids;
  size_t m_count = 0;
};

// The keys under which the user's groups stand in the role map, in the order of his group list.
std::vector<std::wstring> GroupKeysOf(const std::wstring &userName) {
  std::vector<std::wstring> keys;
  const std::optional<std::string> name = Narrowed(userName);
  if (!name) return keys;
  EntryBuffer buffer;
  passwd accountEntry{};
  const passwd *const account = FindAccount(name->c_str(), accountEntry, buffer);
  if (account == nullptr) return keys;
  const GroupList ids(*account);
  for (const gid_t id : ids) {
    group groupEntry{};
    const group *const found = FindGroup(id, groupEntry, buffer);
    if (found == nullptr) continue;
    if (const auto wide = Widened(found->gr_name)) keys.push_back(GROUP_CHAR + *wide);
  }
  return keys;
}

template <class Map>
const s32 *FindPrivilege(const Map &hosts, const std::wstring &host) {
  const auto entry = hosts.find(host);
  return entry == hosts.end() ? nullptr : &entry->second;
}

template <class Rules>
const s32 *FindDomain(const Rules &rules, ThisMachine &machine) {
  if (rules.patterns.empty()) return nullptr;  // the domain's key would be one of them
  const std::optional<std::wstring> &key = machine.DomainKey();
  return key ? FindPrivilege(rules.hosts, *key) : nullptr;
}

// The strongest privilege of the rules whose host is written exactly as one of the machine's addresses; 0 for none.
template <class Rules>
s32 StrongestOfAddresses(const Rules &rules, ThisMachine &machine) {
  s32 strongest = 0;
  if (rules.addresses.empty()) return strongest;
  for (const char *address : machine.Addresses()) {
    const auto wide = Widened(address);
    const s32 *const privilege = wide ? FindPrivilege(rules.hosts, *wide) : nullptr;
    if (privilege != nullptr) strongest = std::max(strongest, *privilege);
  }
  return strongest;
}

// The strongest privilege of the rules whose host is one of the machine's addresses in any notation; for each
// address the first such rule counts. 0 for none.
template <class Rules>
s32 StrongestOfEqualAddresses(const Rules &rules, ThisMachine &machine) {
  s32 strongest = 0;
  if (rules.addresses.empty()) return strongest;
  for (const char *address : machine.Addresses()) {
    for (const auto *entry : rules.addresses) {
      const std::optional<std::string> host = Narrowed(entry->first);
      if (!host || CheckIPEqual(host->c_str(), address) != 1) continue;
      strongest = std::max(strongest, entry->second);
      break;
    }
  }
  return strongest;
}

bool MatchesPattern(const std::wstring &key, const std::wstring &host) { return key.find(host) != std::wstring::npos; }

// The rules of one user. Nothing when none of them matches.
template <class Rules>
std::optional<s32> DecideByUserRules(const Rules &rules, const std::wstring &host, ThisMachine &machine) {
  // Kept: a domain pattern matches a host that is part of the pattern, not one that is part of the domain.
  for (const auto *entry : rules.patterns) {
    if (MatchesPattern(entry->first, host)) return entry->second;
  }
  if (const s32 *privilege = FindPrivilege(rules.hosts, host)) return *privilege;
  if (const s32 strongest = StrongestOfEqualAddresses(rules, machine); strongest != 0) return strongest;
  if (const s32 *privilege = FindDomain(rules, machine)) return *privilege;
  if (const s32 *privilege = FindPrivilege(rules.hosts, WILDCARD)) return *privilege;
  return std::nullopt;
}

// The rules of the user's groups, each step over all groups before the next step. 0 when none matches.
template <class Rules>
s32 DecideByGroupRules(const std::vector<const Rules *> &groups, const std::wstring &host, ThisMachine &machine) {
  s32 strongest = 0;
  const auto raise = [&strongest](const s32 *privilege) {
    if (privilege != nullptr) strongest = std::max(strongest, *privilege);
  };
  for (const Rules *rules : groups) {
    for (const auto *entry : rules->patterns) {
      if (MatchesPattern(entry->first, host)) raise(&entry->second);
    }
    raise(FindPrivilege(rules->hosts, host));
  }
  if (strongest != 0) return strongest;
  for (const Rules *rules : groups) strongest = std::max(strongest, StrongestOfAddresses(*rules, machine));
  if (strongest != 0) return strongest;
  for (const Rules *rules : groups) raise(FindDomain(*rules, machine));
  if (strongest != 0) return strongest;
  for (const Rules *rules : groups) raise(FindPrivilege(rules->hosts, WILDCARD));
  return strongest;
}

// The rules for anyone. 0 when none matches.
template <class Rules>
s32 DecideByHostRules(const Rules &rules, const std::wstring &host, ThisMachine &machine) {
  if (const s32 *privilege = FindPrivilege(rules.hosts, host)) return *privilege;
  if (const s32 strongest = StrongestOfAddresses(rules, machine); strongest != 0) return strongest;
  if (const s32 *privilege = FindDomain(rules, machine)) return *privilege;
  if (const s32 *privilege = FindPrivilege(rules.hosts, WILDCARD)) return *privilege;
  return 0;
}

}  // namespace

void ZEBRoleMapAlgorithm::GetUserPrivileges(ZEBRole &role) {
  role.nPerm = 0;
  ThisMachine machine;
  if (const auto user = m_UserLkupMap.find(role.szUserName); user != m_UserLkupMap.end()) {
    if (const std::optional<s32> privilege = DecideByUserRules(user->second, role.szHostName, machine)) {
      role.nPerm = *privilege;
      return;
    }
  }
  if (!m_GroupLkupMap.empty()) {
    std::vector<const HostRules *> groups;
    for (const std::wstring &key : GroupKeysOf(role.szUserName)) {
      if (const auto found = m_GroupLkupMap.find(key); found != m_GroupLkupMap.end()) groups.push_back(&found->second);
    }
    role.nPerm = DecideByGroupRules(groups, role.szHostName, machine);
    if (role.nPerm != 0) return;
  }
  role.nPerm = DecideByHostRules(m_HostLkupMap, role.szHostName, machine);
}

s32 ZEBRoleMapAlgorithm::GetOSPrivilege(const astring *userName) {
  if (userName == nullptr) return 0;
  EntryBuffer buffer;
  passwd entry{};
  const passwd *const account = FindAccount(userName, entry, buffer);
  if (account == nullptr) return 0;
  if (account->pw_uid == 0) return kAdministratorPrivilege;
  const GroupList ids(*account);
  const bool isInRootGroup = std::find(ids.begin(), ids.end(), gid_t{0}) != ids.end();
  return isInRootGroup ? kPowerUserPrivilege : kUserPrivilege;
}

// The role map: from the administrator's file to the privilege of a user on a host.
//
// A lookup takes these steps; the classes are the one C++ part of the interface:
//   QXAuthFileReader &reader = QXAuthFileReader::GetInstance();
//   ZEBRoleMapAlgorithm &algorithm = ZEBRoleMapAlgorithm::GetInstance();
//   try { reader.Open(); algorithm.Initialize(reader.GetRecords()); }
//   catch (const ZEBRoleMapFileReaderException &) { algorithm.Initialize(reader.GetDefaultRecords()); }
//   ZEBRole role{L"alice", L"host1", 0};
//   algorithm.GetUserPrivileges(role);  // role.nPerm is now 0, 1, 3 or 7
//
// Privileges are cumulative masks: 0 none, 1 user, 3 power user, 7 administrator; the larger is the stronger.
// Failures of the file are thrown as ZEBRoleMapFileReaderException; bad_alloc may pass as well.
//
// Threads: the reader's calls exclude each other, and so do loads of the tables. A lookup is answered from the tables
// of one load, also while another goes on. A record list is only valid until the next call that replaces it: a program
// whose threads load holds a lock of its own around these steps, as the entry points of rolemap.h do.
#ifndef ZEBCS_ROLEMAP_HPP
#define ZEBCS_ROLEMAP_HPP

#include <atomic>
#include <ctime>
#include <deque>
#include <exception>
#include <fstream>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include <zebcs/types.h>

namespace VornSupport {

// An error with a code and a constant text.
class ZEBCS_API VornException : public std::exception {
 public:
  VornException() noexcept = default;
  // `text` must outlive the exception.
  VornException(int code, const char *text) noexcept : m_code(code), m_text(text) {}
  ~VornException() override;

  // The code, or 0.
  int GetCode() const noexcept { return m_code; }
  // The text, or an empty one.
  const char *what() const noexcept override;

 private:
  int m_code = 0;
  const char *m_text = "";
};

// A lock object for VornCriticalSection.
class VornCriticalSectionObject {
  friend class VornCriticalSection;
  std::mutex m_mutex;
};

// Holds a lock object for the length of a scope.
class VornCriticalSection {
 public:
  // Takes the lock, waiting without time limit.
  [[nodiscard]] explicit VornCriticalSection(VornCriticalSectionObject &object) : m_lock(object.m_mutex) {}

 private:
  std::lock_guard<std::mutex> m_lock;
};

}  // namespace VornSupport

// What is wrong with the role-map file.
enum fileReadErrorCode {
  FILE_NOT_FOUND = 1,             // it cannot be examined or opened, or there is no open file to read
  FILE_FORMAT_ERROR = 2,          // a line does not follow the format
  MEMORY_ALLOCATION_FAILURE = 3,  // memory ran out while a line's grants were made
  FILE_PERMS_ERROR = 4,           // it is not a regular file with permissions 0640
  FILE_EMPTY = 5,                 // it was read and gave no entry
  DUPLICATE_ENTRY = 6,            // it names a user twice for the same host
};

// An error in the role-map file.
class ZEBCS_API ZEBRoleMapFileReaderException : public VornSupport::VornException {
 public:
  ZEBRoleMapFileReaderException() noexcept = default;  // no code, no line

  // The line is counted from 1, or 0 for none.
  ZEBRoleMapFileReaderException(fileReadErrorCode code, unsigned long lineNumber) noexcept;
  ~ZEBRoleMapFileReaderException() override;

  // What is wrong.
  fileReadErrorCode getErrorCode() const noexcept { return m_errorCode; }

  // The line that the error concerns.
  unsigned long GetLineNumber() const noexcept { return m_lineNumber; }

  // The id under which the failure goes to the command log.
  int MapErrorCodeToCmdId() const noexcept;

 private:
  unsigned long m_lineNumber = 0;
  fileReadErrorCode m_errorCode = static_cast<fileReadErrorCode>(0);
};

// One grant of the role map, and the question and answer of a lookup.
struct ZEBRole {
  std::wstring szUserName;  // as written: "+" in front of a group, "*" for anyone
  std::wstring szHostName;  // in lower case: a host, "*" for any, or a domain as "*.domain"
  s32 nPerm = 0;            // 0, 1, 3 or 7
};

// One entry line of the role-map file and the grants it makes.
class ZEBCS_API QXAuthFileRecord {
 public:
  // Keeps a copy of the line, which is trimmed of blanks; does not parse it.
  QXAuthFileRecord(const std::wstring &line, int lineNumber);
  virtual ~QXAuthFileRecord();
  QXAuthFileRecord(const QXAuthFileRecord &) = delete;
  QXAuthFileRecord &operator=(const QXAuthFileRecord &) = delete;

  // Parses the line and makes one grant for each name on each host, names outside, hosts inside. Called once.
  // Throws FILE_FORMAT_ERROR with the line number, and no grant is made; MEMORY_ALLOCATION_FAILURE with line 0.
  void PopulateZEBRoles();

  // Replaces the contents of `roles` by the record's grants, which stay the record's.
  void GetRoles(std::deque<ZEBRole *> &roles) const;

  // The line's number in the file, counted from 1; 0 for a built-in record.
  unsigned long GetLineNumber() const noexcept { return m_lineNumber; }

 private:
  std::wstring m_line;
  unsigned long m_lineNumber;
  // Not a deque, which would take half a kilobyte for the usual one grant. What GetRoles hands out may be changed.
  mutable std::vector<ZEBRole> m_Roles;
};

// The one reader of the role-map file.
class ZEBCS_API QXAuthFileReader {
 public:
  // The reader, which lives as long as the process.
  static QXAuthFileReader &GetInstance();
  QXAuthFileReader(const QXAuthFileReader &) = delete;
  QXAuthFileReader &operator=(const QXAuthFileReader &) = delete;

  // Checks type, mode and modification time of the file and opens it unless the records are current.
  // Throws FILE_NOT_FOUND or FILE_PERMS_ERROR.
  void Open();

  // Reads the opened file unless the records are current.
  //
  // Returns the reader's own list, in file order, valid until the next GetRecords or GetDefaultRecords. After a
  // fallback to the default records while the file's were current, these are the default ones until the file changes.
  // Throws FILE_NOT_FOUND, FILE_EMPTY, FILE_FORMAT_ERROR, MEMORY_ALLOCATION_FAILURE. After a file that could be
  // opened but gave an error here, the process reads it as FILE_EMPTY for the rest of its life.
  std::deque<QXAuthFileRecord *> &GetRecords();

  // Replaces the list by the three built-in records: user root administrator, group root power user, anyone user.
  std::deque<QXAuthFileRecord *> &GetDefaultRecords();

 private:
  QXAuthFileReader();
  ~QXAuthFileReader();
  void CheckFilePermissions();
  void CheckFile(const struct stat &status);
  void DestroyRecords() noexcept;
  void ReadRecords(std::wistream &stream);
  void AppendRecord(const std::wstring &line, int lineNumber);

  VornSupport::VornCriticalSectionObject m_CriticalSection;  // held by every public call
  bool m_bInitialized = false;                               // the records are all of the current file
  std::string m_szFilename;
  std::deque<QXAuthFileRecord *> m_fileRecords;  // owned
  std::unique_ptr<std::wifstream> m_pfile;       // null when no stream is held
  time_t m_tZEBRM_ModifiedFileStamp = 0;         // when the file was last seen to change
};

// The lookup tables and the rules that find a user's privilege in them.
class ZEBCS_API ZEBRoleMapAlgorithm {
 public:
  // The tables, which live as long as the process.
  static ZEBRoleMapAlgorithm &GetInstance();
  ZEBRoleMapAlgorithm(const ZEBRoleMapAlgorithm &) = delete;
  ZEBRoleMapAlgorithm &operator=(const ZEBRoleMapAlgorithm &) = delete;

  // Builds the tables, unless they are built already and the reader has not seen the file change since.
  // A group or "*" named twice for a host keeps the stronger privilege; a user named twice for a host is an error:
  // throws DUPLICATE_ENTRY with the later line, and the tables then hold what stands before it. Lookups go on meanwhile
  // in the former tables, and never meet half of the new ones.
  void Initialize(const std::deque<QXAuthFileRecord *> &records);

  // Answers the privilege of role.szUserName coming from role.szHostName in role.nPerm, 0 for none. The host is
  // compared as it is: callers pass it in lower case. The first of these that gives a privilege decides: the user's
  // own rules, the strongest of the rules of his groups, the rules for anyone; and among each of them the host
  // itself, this machine's own addresses, its domain, any host.
  void GetUserPrivileges(ZEBRole &role);

  // Returns what the operating system itself grants a local account: 7 for user id 0, 3 for a member of group id 0,
  // 1 for any other account, 0 for none. `userName` is in the locale's encoding; NULL is no account.
  s32 GetOSPrivilege(const astring *userName);

 private:
  friend class QXAuthFileReader;  // marks the tables stale

  struct Rule;
  struct SortKey;
  struct HostRules;
  struct Tables;
  struct Search;

  ZEBRoleMapAlgorithm();
  ~ZEBRoleMapAlgorithm();
  void Publish(std::span<const SortKey> order);
  std::shared_ptr<const Tables> CurrentTables() const;

  VornSupport::VornCriticalSectionObject m_CriticalSection;  // held by Initialize
  mutable std::mutex m_TablesMutex;                          // held to take or replace the pointer, and no longer
  std::shared_ptr<const Tables> m_pTables;                   // never null
  std::atomic<bool> m_bInitialized = false;                  // cleared by the reader without the lock
};

#endif

// The XML event log, and the system log.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <span>
#include <string_view>

#include "cichar_string.h"
#include "file_lock.h"
#include "fork_guard.h"
#include "line_file.h"
#include "owners.h"
#include "zebcs/encoding.h"
#include "zebcs/ini.h"
#include "zebcs/logs.h"
#include "zebcs/net.h"
#include "zebcs/number.h"
#include "zebcs/unistr.h"

namespace {

using std::string_view;

// A log is the header, the begin tag, the entries and the end tag, without a line break anywhere.
constexpr string_view xmlLogFileHdr = R"(<?xml-stylesheet type="text/xsl" version="1.0" encoding="UTF-8"?>)";
constexpr string_view xmlLogBeginTag = "<EventLog>";
constexpr string_view xmlLogEndTag = "</EventLog>";
constexpr string_view kEntryEndTag = "</LogEntry>";

constexpr mode_t kFileMode = 01664;
constexpr size_t kLongestPath = 255;
constexpr size_t kLongestName = 1023;  // of user and source
constexpr size_t kLongestDescription = 16383;
constexpr u32 kMostData = 32768;

// What the log says of itself.
constexpr u16 kOwnEntryType = 4;
constexpr u32 kOwnMaxSize = 0x100000;
constexpr u32 kClearedID = 0;
constexpr u32 kBackupCreatedID = 1;

bool HasLength(const astring *pText, size_t longest) {
  if (pText == nullptr) return true;
  const size_t length = strnlen(pText, longest + 1);
  return length >= 1 && length <= longest;
}

template <class Integer>
void AddDecimal(BuiltText &entry, Integer value) {
  astring text[24];
  entry.Add(string_view(text, std::to_chars(text, text + sizeof text, value).ptr));
}

// Adds text escaped for XML. False where it cannot be.
bool AddEscaped(BuiltText &entry, const astring *pText) {
  u32 size = 0;
  if (pText == nullptr) return true;
  if (UTF8StrToXMLUTF8Str(nullptr, &size, nullptr, pText) != SM_STATUS_SUCCESS) return false;
  entry.AddWith(size - 1, [&](astring *p) {
    (void)UTF8StrToXMLUTF8Str(p, &size, nullptr, pText);  // fits, as it was asked for its size
  });
  return true;
}

s32 AddDump(BuiltText &entry, const void *pData, u32 dataBufSize) {
  constexpr u32 kFirstRoom = 2048;
  if (dataBufSize == 0) return SM_STATUS_SUCCESS;
  KCSSSUStr dump{};
  if (SSUStrAlloc(&dump, kFirstRoom) == nullptr) return -1;
  const s32 status = BufToUStr(&dump, pData, dataBufSize, 0, nullptr);
  if (status == SM_STATUS_SUCCESS) entry.AddWide(dump.pStr);
  SSUStrFree(&dump);
  return status;
}

// What an event consists of, apart from where and when.
struct Event {
  u16 type;
  u32 id;
  const astring *pUserInfo;
  const astring *pSource;
  const astring *pDescription;
  const void *pData;
  u32 dataSize;
};

s32 BuildEntry(const Event &event, BuiltText &entry) {
  const time_t now = std::time(nullptr);
  astring timeText[26];
  if (const s32 status = TimeToAStr(timeText, &now); status != SM_STATUS_SUCCESS) return status;
  astring hostName[256];
  hostName[0] = 0;
  u32 hostNameSize = sizeof hostName;
  if (const s32 status = GetIPHostName(hostName, &hostNameSize); status != SM_STATUS_SUCCESS) return status;

  entry.Add("<LogEntry><TimeStamp>");
  AddDecimal(entry, now);
  entry.Add("</TimeStamp><DateTime>");
  entry.Add(timeText);
  entry.Add("</DateTime><ComputerName>");
  entry.Add(hostName);
  entry.Add("</ComputerName><Type>");
  AddDecimal(entry, event.type);
  entry.Add("</Type><ID>");
  AddDecimal(entry, event.id);
  entry.Add("</ID><UserInfo>");
  if (!AddEscaped(entry, event.pUserInfo)) return -1;
  entry.Add("</UserInfo><Source>");
  if (!AddEscaped(entry, event.pSource)) return -1;
  entry.Add("</Source><Description>");
  if (event.pDescription != nullptr) entry.Add(event.pDescription);
  entry.Add("</Description><Data>");
  if (const s32 status = AddDump(entry, event.pData, event.dataSize); status != SM_STATUS_SUCCESS) return status;
  entry.Add("</Data>");
  entry.Add(kEntryEndTag);
  return entry.get() == nullptr ? -1 : SM_STATUS_SUCCESS;
}

// Opens a log for reading and writing, or makes it.
FdGuard OpenLog(const astring *pPath) {
  FdGuard file = OpenFile(pPath, O_RDWR | O_CREAT);
  if (!file && errno == EACCES && chmod(pPath, kFileMode) == 0) file = OpenFile(pPath, O_RDWR | O_CREAT);
  return file;
}

// Reads `size` bytes at an offset; false where they are not there.
bool ReadAt(int fd, char *p, size_t size, off_t offset) {
  while (size > 0) {
    const ssize_t count = pread(fd, p, size, offset);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    p += count;
    size -= static_cast<size_t>(count);
    offset += count;
  }
  return true;
}

// The offset of the last end tag at or behind the header's end; -1 where there is none or reading failed. It is the
// last thing in the file as a rule, and looked for there first.
off_t FindEndTag(int fd, off_t size) {
  const off_t first = static_cast<off_t>(xmlLogFileHdr.size());
  const off_t tagSize = static_cast<off_t>(xmlLogEndTag.size());
  char block[4096];
  off_t length = tagSize;
  for (off_t end = size; end - first >= tagSize; end -= length - (tagSize - 1), length = sizeof block) {
    const off_t start = std::max(first, end - length);
    length = end - start;
    if (!ReadAt(fd, block, static_cast<size_t>(length), start)) return -1;
    const size_t position = string_view(block, static_cast<size_t>(length)).rfind(xmlLogEndTag);
    if (position != string_view::npos) return start + static_cast<off_t>(position);
  }
  return -1;
}

// Whether all of the texts could be written there.
bool WriteAt(int fd, off_t offset, std::span<const string_view> texts) {
  return lseek(fd, offset, SEEK_SET) == offset && WriteTexts(fd, texts) == SizeOf(texts);
}

// Writes an entry and the end tag over the end tag at an offset, and over what may follow that. Where that fails the
// file gets its old end back.
s32 WriteOver(int fd, off_t offset, off_t oldSize, string_view entry) {
  const std::array texts{entry, xmlLogEndTag};
  const size_t endSize = std::min(SizeOf(texts), static_cast<size_t>(oldSize - offset));
  MallocPtr<char> read;
  string_view oldEnd = xmlLogEndTag;
  if (endSize > oldEnd.size()) {
    read = MallocArray<char>(endSize);
    if (!read) return -1;
    if (!ReadAt(fd, read.get(), endSize, offset)) return SM_STATUS_WRITE_FAILED;
    oldEnd = string_view(read.get(), endSize);
  }
  if (WriteAt(fd, offset, texts)) return SM_STATUS_SUCCESS;
  (void)WriteAt(fd, offset, std::array{oldEnd});  // takes room that the file had before
  (void)!ftruncate(fd, oldSize);
  return SM_STATUS_WRITE_FAILED;
}

s32 WriteNew(int fd, string_view entry) {
  const std::array texts{xmlLogFileHdr, xmlLogBeginTag, entry, xmlLogEndTag};
  if (WriteTexts(fd, texts) == SizeOf(texts)) return SM_STATUS_SUCCESS;
  (void)!ftruncate(fd, 0);  // best effort; there was no log in it before
  return SM_STATUS_WRITE_FAILED;
}

s32 WriteEntry(const astring *pPath, string_view entry) {
  const FileLockGuard lock(1);
  if (!lock) return SM_STATUS_LOCK_TIMEOUT;
  FdGuard file = OpenLog(pPath);
  struct stat information {};
  if (!file || fstat(file.get(), &information) != 0 || !S_ISREG(information.st_mode)) return -1;
  if ((information.st_mode & 07777) != kFileMode) (void)fchmod(file.get(), kFileMode);  // may be somebody else's
  if (information.st_size < static_cast<off_t>(xmlLogFileHdr.size())) {
    if (const s32 status = WriteNew(file.get(), entry); status != SM_STATUS_SUCCESS) return status;
  } else {
    const off_t offset = FindEndTag(file.get(), information.st_size);
    if (offset == -1) return SM_STATUS_BAD_DATA;
    const s32 status = WriteOver(file.get(), offset, information.st_size, entry);
    if (status != SM_STATUS_SUCCESS) return status;
  }
  return CloseWritten(file) ? SM_STATUS_SUCCESS : SM_STATUS_WRITE_FAILED;
}

// The size of a log that there is and can be read.
bool ReadSize(const astring *pPath, u64 &size) {
  constexpr mode_t kEverybodyReads = S_IRUSR | S_IRGRP | S_IROTH;
  struct stat information = {};
  if (stat(pPath, &information) != 0 || !S_ISREG(information.st_mode)) return false;
  const bool isForAll = (information.st_mode & kEverybodyReads) == kEverybodyReads;
  if (!isForAll && faccessat(AT_FDCWD, pPath, R_OK, AT_EACCESS) != 0) return false;
  size = static_cast<u64>(information.st_size);
  return true;
}

bool MustBeBackedUp(u64 size, u64 entrySize, u32 maxLogSize) { return size + entrySize >= maxLogSize; }

s32 Append(const astring *pPath, const Event &event, u32 maxLogSize) {
  constexpr u32 kFirstRoom = 2048;
  u64 size = 0;
  const bool isThere = ReadSize(pPath, size);
  if (!isThere && CreateLogDir(pPath) != SM_STATUS_SUCCESS) return -1;  // where the log is, its directory is
  BuiltText entry(kFirstRoom);
  if (const s32 status = BuildEntry(event, entry); status != SM_STATUS_SUCCESS) return status;
  if (isThere && MustBeBackedUp(size, entry.size(), maxLogSize) && BackupLogFile(pPath) == SM_STATUS_SUCCESS) {
    const Event created{
        kOwnEntryType, kBackupCreatedID, event.pUserInfo, event.pSource, "Log backup created", nullptr, 0};
    (void)Append(pPath, created, kOwnMaxSize);  // the entry itself matters more
  }
  return WriteEntry(pPath, string_view(entry.get(), entry.size()));
}

s32 AppendCleared(const astring *pPath, const astring *pUserInfo, const astring *pSource) {
  return AppendToXMLLog(pPath, kOwnEntryType, kClearedID, pUserInfo, pSource, "Log was cleared", nullptr, 0,
                        kOwnMaxSize);
}

// 16-bit text in the locale's encoding, cut where it takes more than some bytes beyond one a unit. What is stored is
// always terminated.
s32 Narrow(const ustring *pText, MallocPtr<astring> &narrow) {
  constexpr size_t kSpareBytes = 6;
  const size_t room = Uni_strlen(pText) + kSpareBytes;
  narrow = room < UINT32_MAX ? MallocArray<astring>(room + 1) : nullptr;
  if (!narrow) return -1;
  u32 size = static_cast<u32>(room);
  narrow.get()[room] = 0;
  return UnicodeToLocal(narrow.get(), &size, pText);
}

std::mutex l_syslog_mutex;  // the connection to the system log is one for the process
[[maybe_unused]] const bool l_isSyslogKeptFree = KeepFreeInChildren(ForkOrder::kSystemLog, &l_syslog_mutex);

}  // namespace

s32 AppendToXMLLog(const astring *pPathFileName, u16 type, u32 eventID, const astring *pUserInfo,
                   const astring *pSource, const astring *pEventDesc, const void *pData, u32 dataBufSize,
                   u32 maxLogSize) {
  if (pPathFileName == nullptr || dataBufSize > kMostData || (dataBufSize != 0 && pData == nullptr) ||
      !HasLength(pUserInfo, kLongestName) || !HasLength(pSource, kLongestName) ||
      !HasLength(pEventDesc, kLongestDescription)) {
    return SM_STATUS_BAD_PARAMETER;
  }
  return Append(pPathFileName, {type, eventID, pUserInfo, pSource, pEventDesc, pData, dataBufSize}, maxLogSize);
}

s32 ClearXMLLog(const astring *pPathFileName, const astring *pUserInfo, const astring *pSource) {
  if (const s32 status = DeleteLogFile(pPathFileName); status != SM_STATUS_SUCCESS) return status;
  return AppendCleared(pPathFileName, pUserInfo, pSource);
}

s32 ForceXMLLogExists(const astring *pPathFileName, const astring *pUserInfo, const astring *pSource) {
  u64 size = 0;
  if (pPathFileName != nullptr && ReadSize(pPathFileName, size) && size >= xmlLogFileHdr.size()) {
    return SM_STATUS_SUCCESS;
  }
  return AppendCleared(pPathFileName, pUserInfo, pSource);
}

s32 GetBackupXMLLogPathFileName(const astring *pPathFileName, astring *pBackup, u32 *pSize) {
  if (pPathFileName == nullptr || pBackup == nullptr || pSize == nullptr) return SM_STATUS_INVALID_INPUT;
  const size_t length = std::strlen(pPathFileName);
  if (length < 2 || length >= UINT32_MAX) return SM_STATUS_INVALID_INPUT;
  *pSize = static_cast<u32>(length + 1);
  if (length > kLongestPath) return SM_STATUS_BUFFER_TOO_SMALL;
  std::memcpy(pBackup, pPathFileName, length + 1);
  pBackup[length - 1] = '_';
  return SM_STATUS_SUCCESS;
}

s32 CreateLogDir(const astring *pPathFileName) {
  const string_view path = pPathFileName == nullptr ? "" : pPathFileName;
  const size_t slash = path.rfind('/');
  if (slash == string_view::npos || slash == 0) return SM_STATUS_SUCCESS;
  MallocPtr<astring> directory = MallocArray<astring>(slash + 1);
  if (!directory) return -1;
  directory.get()[path.copy(directory.get(), slash)] = 0;
  return CreateDir(directory.get());
}

s32 DeleteLogFile(const astring *pPathFileName) {
  const FileLockGuard lock(1);
  if (!lock) return SM_STATUS_LOCK_TIMEOUT;
  if (pPathFileName == nullptr) return -1;
  (void)chmod(pPathFileName, kFileMode);  // whether it can be deleted is the directory's to say
  return unlink(pPathFileName) == 0 ? SM_STATUS_SUCCESS : -1;
}

s32 BackupLogFile(const astring *pPathFileName) {
  astring backup[kLongestPath + 1];
  u32 size = sizeof backup;
  const s32 status = GetBackupXMLLogPathFileName(pPathFileName, backup, &size);
  if (status != SM_STATUS_SUCCESS) return status;
  if (std::strcmp(backup, pPathFileName) == 0) return SM_STATUS_INVALID_INPUT;  // it would be deleted as the older one
  const FileLockGuard lock(1);
  if (!lock) return SM_STATUS_LOCK_TIMEOUT;
  (void)DelFile(backup);  // there may be none, and the new one takes its place in any case
  if (chmod(pPathFileName, kFileMode) != 0) return -1;
  return std::rename(pPathFileName, backup) == 0 ? SM_STATUS_SUCCESS : -1;
}

void CheckBackupLogFile(const astring *pPathFileName, u32 maxLogSize, u32 appendLogEntrySize, booln *pIsBackedUp) {
  if (pIsBackedUp == nullptr) return;
  *pIsBackedUp = 0;
  u64 size = 0;
  if (pPathFileName == nullptr || !ReadSize(pPathFileName, size)) return;
  if (!MustBeBackedUp(size, appendLogEntrySize, maxLogSize)) return;
  if (BackupLogFile(pPathFileName) == SM_STATUS_SUCCESS) *pIsBackedUp = 1;
}

s32 findLastOccurrence(const astring *pStr, const astring *pWord) {
  if (pStr == nullptr || pWord == nullptr) return -1;
  const size_t position = string_view(pStr).rfind(pWord);
  return position == string_view::npos ? -1 : static_cast<s32>(position);
}

void XMLFileCheck(const astring *pPathFileName) {
  if (pPathFileName == nullptr) return;
  const FdGuard file = OpenFile(pPathFileName, O_RDWR);
  struct stat information {};
  if (!file || fstat(file.get(), &information) != 0 || information.st_size < 0) return;
  const size_t size = static_cast<size_t>(information.st_size);
  const MallocPtr<char> content = MallocArray<char>(size + 1);
  if (!content || !ReadAt(file.get(), content.get(), size, 0)) return;
  const string_view text(content.get(), size);
  if (text.find(xmlLogEndTag) != string_view::npos) return;
  // Kept: without any entry the first ten bytes stay, which is where the arithmetic with "not found" ends up.
  constexpr size_t kWithoutEntry = 10;
  const size_t lastEntry = text.rfind(kEntryEndTag);
  const size_t cut = lastEntry == string_view::npos ? std::min(size, kWithoutEntry) : lastEntry + kEntryEndTag.size();
  // The rest goes first: whoever is interrupted between the two leaves a log without the tag, which is repaired the next
  // time. Before a rest, the tag would never be looked for again.
  if (ftruncate(file.get(), static_cast<off_t>(cut)) != 0) return;
  (void)WriteAt(file.get(), static_cast<off_t>(cut), std::array{xmlLogEndTag});
}

s32 AppendToOSLog(u16 type, u32 eventID, const ustring *pSource, const ustring *pEventDesc, const void * /*pData*/,
                  u32 /*dataBufSize*/) {
  if (pSource == nullptr || pEventDesc == nullptr) return SM_STATUS_INVALID_INPUT;
  MallocPtr<astring> source;
  MallocPtr<astring> description;
  if (const s32 status = Narrow(pSource, source); status != SM_STATUS_SUCCESS) return status;
  if (const s32 status = Narrow(pEventDesc, description); status != SM_STATUS_SUCCESS) return status;
  const size_t room = std::strlen(description.get()) + 256;
  const MallocPtr<astring> message = MallocArray<astring>(room);
  if (!message) return -1;
  (void)std::snprintf(message.get(), room, "EventID: %u  %s", eventID, description.get());  // fits
  RemoveCarriageReturns(message.get());
  const int priority = type == 1 ? LOG_ERR : type == 2 ? LOG_WARNING : LOG_INFO;
  const std::lock_guard lock(l_syslog_mutex);
  openlog(source.get(), LOG_NDELAY, LOG_DAEMON);
  syslog(priority, "%s", message.get());
  closelog();
  return SM_STATUS_SUCCESS;
}

s32 ClearOSLog(const ustring * /*pSource*/) { return SM_STATUS_SUCCESS; }

void RemoveCarriageReturns(astring *pStr) {
  if (pStr != nullptr) std::replace(pStr, pStr + std::strlen(pStr), '\r', ' ');
}

// The command log: what users had the agent do, in an event log at a fixed place with a size that can be set.
#include <fcntl.h>

#include <atomic>
#include <cstring>
#include <optional>

#include "file_lock.h"
#include "line_file.h"
#include "owners.h"
#include "xml_buffer_owner.h"
#include "zebcs/dasupport.h"
#include "zebcs/ini.h"
#include "zebcs/keyvalue.h"
#include "zebcs/logs.h"
#include "zebcs/number.h"

namespace {

constexpr char kPath[] = "/opt/vorn/fleetops/var/log/kelvestane//qxcmdlog.xml";
constexpr char kOwnUser[] = "Local System";
constexpr char kOwnSource[] = "HALV";
constexpr u32 kDefaultMaxSize = ZEBCS_CMDLOG_LEAST_MAX_SIZE;
constexpr s32 kFirstCommandID = 5001;
constexpr s32 kLastCommandID = 6999;

// The file lock, under which it is used, does not keep threads apart.
std::atomic<u32> kcsCmdLogMaxSize = kDefaultMaxSize;
std::atomic<int> XMLFlag = 0;  // 1 once this process has looked at the log's end

bool IsAllowedMaxSize(u32 size) { return size >= ZEBCS_CMDLOG_LEAST_MAX_SIZE && size <= ZEBCS_CMDLOG_MOST_MAX_SIZE; }

// The maximum size that the properties file sets; false where it sets none.
bool ReadMaxSizeSetting(u32 &maxSize) {
  u32 count = 0;
  KCSKVEntry *const table = CFGGetKeyValueEntries("zeb/ini/zeb.properties", 1, &count);
  const astring *const text = CFGGetKeyValue(table, count, "preferences.system.cmdlogmaxsize", 0);
  s32 status = SM_STATUS_INVALID_INPUT;
  const u32 value = ASCIIToUnSigned32VT(text, 10, &status);
  CFGFreeKeyValueEntries(table, count);
  if (status == SM_STATUS_SUCCESS) maxSize = value;
  return status == SM_STATUS_SUCCESS;
}

// Reads a file, of which a size is known, as text: what there is of it, as it may change its size. False when it cannot
// be opened or read.
bool ReadText(const astring *pPath, u32 size, astring *pText) {
  const FdGuard file = OpenFile(pPath, O_RDONLY);
  const std::optional<size_t> count = file ? ReadAll(file.get(), {pText, size}) : std::nullopt;
  if (count) pText[*count] = 0;
  return count.has_value();
}

}  // namespace

astring *SUPTIntfGetCmdLogPathFileName(void) {
  constexpr size_t kRoom = 92;
  MallocPtr<astring> path = MallocArray<astring>(kRoom);
  if (!path) return nullptr;
  std::memcpy(path.get(), kPath, sizeof kPath);
  return ForceXMLLogExists(path.get(), kOwnUser, kOwnSource) == SM_STATUS_SUCCESS ? path.release() : nullptr;
}

s32 SUPTIntfAppendToCmdLog(u32 cmdID, const astring *pUserInfo, const astring *pSource, const astring *pCmdDesc,
                           u16 type) {
  const s32 signedID = static_cast<s32>(cmdID);
  if (pUserInfo == nullptr || pSource == nullptr || pCmdDesc == nullptr || signedID < kFirstCommandID ||
      signedID > kLastCommandID) {
    return SM_STATUS_INVALID_INPUT;
  }
  const MallocPtr<astring> path(SUPTIntfGetCmdLogPathFileName());
  if (!path) return -1;
  u32 maxSize = kDefaultMaxSize;
  if (const s32 status = SUPTIntfGetCmdLogMaxSize(&maxSize); status != SM_STATUS_SUCCESS) return status;
  if (XMLFlag == 0) XMLFileCheck(path.get());  // by two threads at the same time, if need be
  XMLFlag = 1;
  return AppendToXMLLog(path.get(), type, cmdID, pUserInfo, pSource, pCmdDesc, nullptr, 0, maxSize);
}

s32 SUPTIntfClearCmdLog(const astring *pUserInfo, const astring *pSource) {
  const MallocPtr<astring> path(SUPTIntfGetCmdLogPathFileName());
  return path ? ClearXMLLog(path.get(), pUserInfo, pSource) : -1;
}

s32 SUPTIntfGetCmdLogSize(u32 *pSize) {
  if (pSize == nullptr) return SM_STATUS_INVALID_INPUT;
  *pSize = 0;
  // Kept: making the log takes the lock again and drops it, so that other processes may enter from there on; a lock
  // that counts would keep them out.
  const FileLockGuard lock(1);
  if (!lock) return SM_STATUS_LOCK_TIMEOUT;
  const MallocPtr<astring> path(SUPTIntfGetCmdLogPathFileName());
  return path ? GetSizeOfFile(path.get(), pSize) : SM_STATUS_NO_MEMORY;
}

s32 SUPTIntfGetCmdLogMaxSize(u32 *pMaxSize) {
  if (pMaxSize == nullptr) return SM_STATUS_INVALID_INPUT;
  const FileLockGuard lock(1);
  if (!lock) return SM_STATUS_LOCK_TIMEOUT;
  // Kept: what the properties file says is not held against the limits here, only when the library attaches.
  if (!ReadMaxSizeSetting(*pMaxSize)) *pMaxSize = kcsCmdLogMaxSize;
  return SM_STATUS_SUCCESS;
}

s32 SUPTIntfSetCmdLogMaxSize(u32 maxSize) {
  if (!IsAllowedMaxSize(maxSize)) return SM_STATUS_INVALID_INPUT;
  const FileLockGuard lock(1);
  if (!lock) return SM_STATUS_LOCK_TIMEOUT;
  kcsCmdLogMaxSize = maxSize;
  return SM_STATUS_SUCCESS;
}

void InitCmdMaxLogSize(void) {
  u32 maxSize = kDefaultMaxSize;
  const s32 status = SUPTIntfGetCmdLogMaxSize(&maxSize);
  (void)ReadMaxSizeSetting(maxSize);  // it may have been set while the lock was waited for
  if (status != SM_STATUS_SUCCESS || !IsAllowedMaxSize(maxSize)) maxSize = kDefaultMaxSize;
  (void)SUPTIntfSetCmdLogMaxSize(maxSize);  // without the lock the size stays what it is, which is the default
}

astring *KCSCmdGetXMLLogContent(const astring *pLogPath, const astring * /*pUserInfo*/, const astring * /*pSource*/) {
  u32 size = 0;
  if (pLogPath == nullptr || GetSizeOfFile(pLogPath, &size) != SM_STATUS_SUCCESS || size == 0) return nullptr;
  MallocPtr<astring> text = MallocArray<astring>(size_t{size} + 1);
  XMLBufferPtr document(text ? KCXAllocBuf(size + 1, 0) : nullptr);
  if (!document) return nullptr;
  const bool isRead = ReadText(pLogPath, size, text.get());
  if (isRead) (void)KCXBufCatNode(document.get(), "Content", nullptr, KCX_ASTRING, text.get());
  const u32 contentLength = document->strCurLen;
  (void)DASuptCatSMStatusNode(document.get(), isRead ? SM_STATUS_SUCCESS : -1, nullptr);
  // What there was no memory for is missing.
  if ((isRead && contentLength == 0) || document->strCurLen == contentLength) return nullptr;
  return KCXFreeBuf(document.release(), 1);
}

/* Logs: the XML event log, the command log and the system log.
 *
 * An event log is one XML document without line breaks: a processing instruction for a stylesheet, and an element
 * "EventLog" with a "LogEntry" for each event. It is whole after every append. The command log is an event log at a
 * fixed place, "/opt/vorn/fleetops/var/log/kelvestane//qxcmdlog.xml". An append that would make a log reach its maximum
 * size first moves it to its backup, the same path with "_" in place of the last character, and starts a new one with
 * the entry "Log backup created". Files have mode 01664.
 *
 * Threads: appending, clearing and moving each hold the process-wide file lock (frame.h) and keep the threads of a
 * process apart. */
#ifndef ZEBCS_LOGS_H
#define ZEBCS_LOGS_H

#include <zebcs/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Between these, in bytes, lies the maximum size of the command log. */
#define ZEBCS_CMDLOG_LEAST_MAX_SIZE 0x100000
#define ZEBCS_CMDLOG_MOST_MAX_SIZE 0x400000

/* Appends an event to the XML event log in a file, which is made if missing, with its directory (one level).
 *
 * pUserInfo, pSource  1 to 1023 bytes of UTF-8, which are escaped; NULL for an empty element.
 * pEventDesc          1 to 16383 bytes, written as they are: valid XML; NULL for an empty element.
 * pData, dataBufSize  up to 32768 bytes, written as a hex dump.
 * maxLogSize          in bytes: the log is moved to its backup when it would become as large as this.
 * Returns             0; SM_STATUS_BAD_PARAMETER; SM_STATUS_LOCK_TIMEOUT; SM_STATUS_BAD_DATA when the log's end tag is
 *                     missing (see XMLFileCheck) or cannot be read; SM_STATUS_WRITE_FAILED, with the log as it was; -1
 *                     when the directory or the file cannot be made or memory ran out; a status of KCSGetIPHostName. */
ZEBCS_API s32 KCSAppendToXMLLog(const astring *pPathFileName, u16 type, u32 eventID, const astring *pUserInfo,
                                const astring *pSource, const astring *pEventDesc, const void *pData, u32 dataBufSize,
                                u32 maxLogSize);

/* Deletes an event log and starts it anew with the entry "Log was cleared". A user or source that is refused is noticed
 * when the log is gone already.
 *
 * Returns  as KCSAppendToXMLLog; -1 also when there is no log to delete, and nothing is made then. */
ZEBCS_API s32 KCSClearXMLLog(const astring *pPathFileName, const astring *pUserInfo, const astring *pSource);

/* Makes sure that an event log exists: one that is missing or has at most 64 bytes is started with the entry "Log was
 * cleared".
 *
 * Returns  as KCSAppendToXMLLog. */
ZEBCS_API s32 KCSForceXMLLogExists(const astring *pPathFileName, const astring *pUserInfo, const astring *pSource);

/* Stores the path of a log's backup.
 *
 * pBackup  room for 256 bytes, or for the path.
 * pSize    out: the bytes used, or needed with SM_STATUS_BUFFER_TOO_SMALL.
 * Returns  0; SM_STATUS_BUFFER_TOO_SMALL for a path above 255 bytes; SM_STATUS_INVALID_INPUT for one below 2 bytes and
 *          when an argument is NULL. */
ZEBCS_API s32 KCSGetBackupXMLLogPathFileName(const astring *pPathFileName, astring *pBackup, u32 *pSize);

/* Appends a command to the command log, after putting its end tag right where the log of an earlier process ends in
 * the middle of an entry.
 *
 * cmdID    5001 to 6999.
 * Returns  as KCSAppendToXMLLog; SM_STATUS_INVALID_INPUT when a text is NULL or cmdID is another; -1 also when the log
 *          cannot be made. */
ZEBCS_API s32 KCSAppendToCmdLog(u32 cmdID, const astring *pUserInfo, const astring *pSource, const astring *pCmdDesc,
                                u16 type);

/* Clears the command log. Returns as KCSClearXMLLog. */
ZEBCS_API s32 KCSClearCmdLog(const astring *pUserInfo, const astring *pSource);

/* Stores the size of the command log in bytes; the log is made if it is missing.
 *
 * Returns  0; SM_STATUS_LOCK_TIMEOUT; SM_STATUS_NO_MEMORY when the log cannot be made; -1; SM_STATUS_INVALID_INPUT when
 *          pSize is NULL. */
ZEBCS_API s32 KCSGetCmdLogSize(u32 *pSize);

/* Stores the command log's maximum size in bytes: what "preferences.system.cmdlogmaxsize" in the product's
 * "zeb/ini/zeb.properties" says, whatever that is, or else what was set for the process.
 *
 * Returns  0; SM_STATUS_LOCK_TIMEOUT; SM_STATUS_INVALID_INPUT when pMaxSize is NULL. */
ZEBCS_API s32 KCSGetCmdLogMaxSize(u32 *pMaxSize);

/* Sets the maximum size of the command log for this process; the properties file stays as it is.
 *
 * Returns  0; SM_STATUS_INVALID_INPUT outside 1 MiB to 4 MiB; SM_STATUS_LOCK_TIMEOUT. */
ZEBCS_API s32 KCSSetCmdLogMaxSize(u32 maxSize);

/* Returns the path of the command log as a new text, released with KCSFreeMem; the log is made if it is missing. NULL
 * when it cannot be. */
ZEBCS_API astring *KCSGetCmdLogPathFileName(void);

/* Returns the text of a log as the content of a node "Content", as it is, followed by a node "SMStatus", as a new text
 * that is released with KCSFreeMem; with the status -1 alone when the log can no longer be opened, or not be read.
 * NULL when there is no file that can be read, when it is empty, and when memory ran out. The other arguments are not
 * used. */
ZEBCS_API astring *KCSCmdGetXMLLogContent(const astring *pLogPath, const astring *pUserInfo, const astring *pSource);

/* Sends an event to the system log, at a priority by its type: 1 an error, 2 a warning, any other an information.
 *
 * pSource, pEventDesc  16-bit text, converted to the locale's encoding and cut at 6 bytes more than it has units.
 *                      Carriage returns of the description become blanks.
 * pData, dataBufSize   are not used.
 * Returns  0; SM_STATUS_INVALID_INPUT when a text is NULL; a status of the conversion; -1 when memory ran out.
 * Threads  calls exclude each other. The process's own connection to the system log, if it has one, is closed. */
ZEBCS_API s32 KCSAppendToOSLog(u16 type, u32 eventID, const ustring *pSource, const ustring *pEventDesc,
                               const void *pData, u32 dataBufSize);

/* Does nothing and returns 0: the system log is not the library's to clear. */
ZEBCS_API s32 KCSClearOSLog(const ustring *pSource);

/* The same functions under their plain names: those of the command log begin with SUPTIntf. */
ZEBCS_API s32 AppendToXMLLog(const astring *pPathFileName, u16 type, u32 eventID, const astring *pUserInfo,
                             const astring *pSource, const astring *pEventDesc, const void *pData, u32 dataBufSize,
                             u32 maxLogSize);
ZEBCS_API s32 ClearXMLLog(const astring *pPathFileName, const astring *pUserInfo, const astring *pSource);
ZEBCS_API s32 ForceXMLLogExists(const astring *pPathFileName, const astring *pUserInfo, const astring *pSource);
ZEBCS_API s32 GetBackupXMLLogPathFileName(const astring *pPathFileName, astring *pBackup, u32 *pSize);
ZEBCS_API s32 SUPTIntfAppendToCmdLog(u32 cmdID, const astring *pUserInfo, const astring *pSource,
                                     const astring *pCmdDesc, u16 type);
ZEBCS_API s32 SUPTIntfClearCmdLog(const astring *pUserInfo, const astring *pSource);
ZEBCS_API s32 SUPTIntfGetCmdLogSize(u32 *pSize);
ZEBCS_API s32 SUPTIntfGetCmdLogMaxSize(u32 *pMaxSize);
ZEBCS_API s32 SUPTIntfSetCmdLogMaxSize(u32 maxSize);
ZEBCS_API astring *SUPTIntfGetCmdLogPathFileName(void);
ZEBCS_API s32 AppendToOSLog(u16 type, u32 eventID, const ustring *pSource, const ustring *pEventDesc, const void *pData,
                            u32 dataBufSize);
ZEBCS_API s32 ClearOSLog(const ustring *pSource);

/* Takes the command log's maximum size from the properties file; attaching does it. A size outside 1 MiB to 4 MiB
 * counts as 1 MiB; without one the size stays what it is, at first 1 MiB. */
ZEBCS_API void InitCmdMaxLogSize(void);

/* Repairs an event log that has no end tag: cuts it after its last whole entry and puts the end tag there. Does nothing
 * to a log that has one or cannot be read. Takes no lock. */
ZEBCS_API void XMLFileCheck(const astring *pPathFileName);

/* Makes the directory of a log, one level. Returns 0; -1. */
ZEBCS_API s32 CreateLogDir(const astring *pPathFileName);

/* Deletes a log under the file lock. Returns 0; SM_STATUS_LOCK_TIMEOUT; -1. */
ZEBCS_API s32 DeleteLogFile(const astring *pPathFileName);

/* Moves a log to its backup, in place of an older one, under the file lock.
 *
 * Returns  0; as GetBackupXMLLogPathFileName; SM_STATUS_INVALID_INPUT also when the path is its own backup's, which one
 *          that ends in "_" is: such a log is never moved; SM_STATUS_LOCK_TIMEOUT; -1. */
ZEBCS_API s32 BackupLogFile(const astring *pPathFileName);

/* Moves a log to its backup if another entry would make it reach the maximum size.
 *
 * pIsBackedUp  receives 1 if the log was moved, else 0. */
ZEBCS_API void CheckBackupLogFile(const astring *pPathFileName, u32 maxLogSize, u32 appendLogEntrySize,
                                  booln *pIsBackedUp);

/* Returns the offset of the last occurrence of a word in a text, or -1. */
ZEBCS_API s32 findLastOccurrence(const astring *pStr, const astring *pWord);

/* Replaces every carriage return of a text by a blank, in place. */
ZEBCS_API void RemoveCarriageReturns(astring *pStr);

#ifdef __cplusplus
}
#endif

#endif

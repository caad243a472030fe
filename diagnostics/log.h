// The log: five level functions, one per severity, and PNXLog, the process-wide holder of
// the log's settings and of its file.
//
// A message whose level is above the current level costs one relaxed atomic load and a
// comparison: nothing is formatted or allocated. A message that passes is formatted on the
// caller's thread and handed to the serial queue "pnx_log_dispatch", which prefixes it with
// its severity mark and sends it to the system log. When file logging is on, the serial
// queue "pnx_log_file_dispatch" stamps it with the local date and time and appends it to
// "PNX.log" in the logs directory, rotating that file by size through the numbered backups
// "PNX-1.log" (newest) to "PNX-<maximumNumberOfLogFiles>.log".
//
// Before PNXLog::sharedInstance() is first called the level is 0 (NONE) and every message
// of the level functions is dropped; creating the instance sets it to 1 (ERROR).
//
// Thread-safety: the level functions and PNXLogWrite may be called from any thread. The
// setters are safe to call from any thread too, but are meant for set-up, before file
// logging is busy: a new logs directory closes the open file at once.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/file_handle.h"
#include "platform/foundation/date.h"
#include "platform/foundation/export.h"
#include "platform/foundation/format.h"
#include "platform/foundation/value.h"

// 0 NONE, 1 ERROR, 2 WARN, 3 INFO, 4 VERBOSE, 5 TRACE. A message passes when its level is
// at most the current level.
using PNXLogLevel = std::intptr_t;

// The severity mark of each level ("🛑 " for ERROR, ...). Filled on the log queue before
// the first line is composed, unless the host installed its own marks before that.
extern PNX_EXPORT std::map<PNXLogLevel, std::string>& pnxFlags;
// Stamps file lines; created on the file queue with the pattern
// "[yyyy-MM-dd'T'HH:mm:ssZZZ] " before the first file line, unless the host installed one.
extern PNX_EXPORT std::shared_ptr<pnx::DateFormatter>& dateFormatter;

// The core, for C callers: printf conventions, where "%@" (and "%{public}@") takes a
// NUL-terminated UTF-8 C string (a null pointer prints "(null)"); C has no objects to
// describe. Level 0 passes at every setting and is written to the file but not to the
// system log.
extern "C" PNX_EXPORT void PNXLogWrite(PNXLogLevel level, const char* format, va_list args);

namespace pnx::log_detail {

extern PNX_EXPORT std::atomic<PNXLogLevel> currentLevel;

inline bool passes(PNXLogLevel level) {
  return currentLevel.load(std::memory_order_relaxed) >= level;
}

// Queues an already formatted message; dropped when the log does not exist yet.
PNX_EXPORT void submit(PNXLogLevel level, std::string_view text);

// Kept out of line so that the filtered path of the level functions stays a load, a
// comparison and a branch.
template <class... A>
[[gnu::noinline]] void formatAndSubmit(PNXLogLevel level, std::string_view format,
                                       const A&... args) {
  submit(level, pnx::format(format, args...));
}

}  // namespace pnx::log_detail

// Format strings follow pnx::format: "%@" prints any value's description.
template <class... A>
inline void PNXLogError(std::string_view format, const A&... args) {
  if (pnx::log_detail::passes(1)) [[unlikely]]
    pnx::log_detail::formatAndSubmit(1, format, args...);
}

template <class... A>
inline void PNXLogWarn(std::string_view format, const A&... args) {
  if (pnx::log_detail::passes(2)) [[unlikely]]
    pnx::log_detail::formatAndSubmit(2, format, args...);
}

template <class... A>
inline void PNXLogInfo(std::string_view format, const A&... args) {
  if (pnx::log_detail::passes(3)) [[unlikely]]
    pnx::log_detail::formatAndSubmit(3, format, args...);
}

template <class... A>
inline void PNXLogVerbose(std::string_view format, const A&... args) {
  if (pnx::log_detail::passes(4)) [[unlikely]]
    pnx::log_detail::formatAndSubmit(4, format, args...);
}

template <class... A>
inline void PNXLogTrace(std::string_view format, const A&... args) {
  if (pnx::log_detail::passes(5)) [[unlikely]]
    pnx::log_detail::formatAndSubmit(5, format, args...);
}

class PNX_EXPORT PNXLog {
 public:
  // Created once per process, never destroyed.
  static PNXLog& sharedInstance();

  // The running process's Documents directory (no subdirectory).
  static std::string defaultLogsDirectory();
  // Level number to name, built anew on every call: 0 "NONE" to 5 "TRACE".
  static std::map<PNXLogLevel, std::string> logLevelNames();

  // The name of the current level; none for a level outside 0 to 5.
  std::optional<std::string> logLevelName() const;
  // Selects the level whose name matches, ignoring case; none or an unknown name leaves
  // the level as it was.
  void setLogLevelName(const std::optional<std::string>& name);

  // The live file is rotated once a write takes it past this many bytes.
  std::uint64_t maximumSize() const;
  void setMaximumSize(std::uint64_t bytes);
  // Number of numbered backups kept (at least one is, whatever the setting).
  std::int32_t maximumNumberOfLogFiles() const;
  void setMaximumNumberOfLogFiles(std::int32_t count);
  bool logToFile() const;
  void setLogToFile(bool enabled);
  std::string logsDirectory() const;
  // Closes the open file when the path changes; the next file line opens one there.
  void setLogsDirectory(const std::string& path);
  // Written after every file line; "\n" by default.
  pnx::Data lineData() const;
  void setLineData(pnx::Data data);
  std::shared_ptr<pnx::FileHandle> fileHandle() const;
  void setFileHandle(std::shared_ptr<pnx::FileHandle> handle);

  // Prepares the logs directory (falling back to the default one when it is a file or
  // can't be created) and the live file, rotating an oversized one, and returns a handle
  // positioned at the end of the live file; nullptr when it can't be opened. The file is
  // opened for appending and created when missing, never replaced: other processes may
  // write the same files. A symbolic link in its place is refused.
  std::shared_ptr<pnx::FileHandle> openFileHandle();
  // Appends one line (and lineData) to the live file, rotating afterwards when the file
  // has grown past maximumSize; when another process has rotated it already, follows it
  // to the new live file instead. Safe from any thread.
  void writeFileLog(const std::string& line);
  // Shifts "PNX.log" to "PNX-1.log", moving the existing backups up first. Holds the
  // advisory lock on the logs directory meanwhile, as every process's log does for its
  // file work, so that two processes never shift the same files at once.
  void rotate();
  // Shifts numberedPath(index) to numberedPath(index + 1), moving that one up first when
  // it exists and is still within the limit, and dropping it otherwise.
  void rotate(std::int32_t index);
  // "PNX.log" for 0, "PNX-<index>.log" otherwise, in the logs directory.
  std::string numberedPath(std::int32_t index) const;

  // Placeholders of the public interface: they do nothing and return false.
  bool sendLog();
  bool emailLog(const pnx::Value& recipient);

  // Waits until every message logged so far has been through both queues, including the
  // messages the file side logged about them. Not to be called from the log's own queues.
  void drain();

 private:
  struct Pipeline;
  class LineBatch;
  class PendingLines;
  friend void pnx::log_detail::submit(PNXLogLevel level, std::string_view text);

  PNXLog();
  ~PNXLog() = delete;

  void enqueue(PNXLogLevel level, std::string_view text);
  void composeLines();
  void writeQueuedFileLines();
  void writeLinesLocked(const LineBatch& lines, bool stamp);
  const std::string& stampNow();
  void prepareLogsDirectory();
  std::shared_ptr<pnx::FileHandle> openFileHandleLocked();
  std::shared_ptr<pnx::FileHandle> openLiveFile(bool creating);
  void rotateAfterWriteLocked();
  bool holdsLiveFile() const;
  void shift(std::int32_t index);
  std::unique_ptr<pnx::FileLock> lockLogsDirectory();
  void storeLogsDirectory(std::string path);

  std::atomic<std::uint64_t> maximumSize_;
  std::atomic<std::int32_t> maximumNumberOfLogFiles_;
  std::atomic<bool> logToFile_{false};

  mutable std::mutex settingsMutex_;                  // guards logsDirectory_ and lineData_
  mutable std::optional<std::string> logsDirectory_;  // the default until set
  pnx::Data lineData_;

  // Guards fileHandle_ and lastOpenFailure_, and keeps file writes of the queue apart
  // from direct calls.
  mutable std::mutex fileMutex_;
  std::shared_ptr<pnx::FileHandle> fileHandle_;
  std::string lastOpenFailure_;  // reported once, not again for every line it costs

  std::unique_ptr<Pipeline> pipeline_;
};

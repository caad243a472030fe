#include "diagnostics/log.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>
#include <utility>

#include "platform/dispatch/dispatch.h"
#include "platform/files/container.h"
#include "platform/files/file_manager.h"
#include "platform/system/system_log.h"

// Never destroyed: the log's queues may still use them while the process exits.
std::map<PNXLogLevel, std::string>& pnxFlags = *new std::map<PNXLogLevel, std::string>;
std::shared_ptr<pnx::DateFormatter>& dateFormatter = *new std::shared_ptr<pnx::DateFormatter>;

namespace pnx::log_detail {
std::atomic<PNXLogLevel> currentLevel{0};
}  // namespace pnx::log_detail

namespace {

constexpr const char* kLogQueueLabel = "pnx_log_dispatch";
constexpr const char* kFileQueueLabel = "pnx_log_file_dispatch";
constexpr const char* kSystemLogSubsystem = "Quorvex";
constexpr const char* kSystemLogCategory = "PNX";
constexpr const char* kStampPattern = "[yyyy-MM-dd'T'HH:mm:ssZZZ] ";
constexpr const char* kLiveFileName = "PNX.log";
constexpr const char* kBackupFileFormat = "PNX-%d.log";
constexpr std::uint64_t kDefaultMaximumSize = 10485760;
constexpr std::int32_t kDefaultMaximumNumberOfLogFiles = 7;
// A burst of queued lines is written in chunks of about this size.
constexpr std::size_t kWriteChunkBytes = 1 << 20;

// Set once sharedInstance() has built the log; messages before that have nowhere to go.
std::atomic<PNXLog*> sharedLog{nullptr};

const std::map<PNXLogLevel, std::string>& defaultSeverityMarks() {
  static const auto* marks = new std::map<PNXLogLevel, std::string>{
      {0, "\u203C\uFE0F "},  // ‼️
      {1, "\U0001F6D1 "},    // 🛑
      {2, "\u26A0\uFE0F "},  // ⚠️
      {3, "\U0001F535 "},    // 🔵
      {4, "\u26AB\uFE0F "},  // ⚫️
      {5, "\u26AA\uFE0F "},  // ⚪️
  };
  return *marks;
}

// Error goes to the system log as an error, WARN and INFO as info, VERBOSE and TRACE as
// debug; any other level (NONE) is not sent.
std::optional<pnx::LogType> systemLogType(PNXLogLevel level) {
  switch (level) {
    case 1:
      return pnx::LogType::Error;
    case 2:
    case 3:
      return pnx::LogType::Info;
    case 4:
    case 5:
      return pnx::LogType::Debug;
    default:
      return std::nullopt;
  }
}

std::string lowercased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// Lines may hold identifiers: what the log creates is readable by the user only.
pnx::FileAttributes privateAttributes(mode_t permissions) {
  pnx::FileAttributes attributes;
  attributes.protection = pnx::NSFileProtectionNone;
  attributes.posixPermissions = permissions;
  return attributes;
}

// Turns a format of the platform's conventions into one for vsnprintf: "%@" and
// "%{public}@" become "%s" (C callers pass C strings for them), other conversions stay.
std::string cFormat(const char* format) {
  std::string out;
  for (const char* p = format; *p; ++p) {
    out.push_back(*p);
    if (*p != '%') continue;
    ++p;
    if (*p == '{') {  // a privacy annotation: every line is public here
      const char* close = std::strchr(p, '}');
      if (close) p = close + 1;
    }
    std::string directive;
    while (*p && std::strchr("-+ #0'123456789.*hlqLjzt", *p)) directive.push_back(*p++);
    if (!*p) {
      out += directive;
      break;
    }
    if (*p == '@') {
      std::erase_if(directive, [](char c) { return std::strchr("hlqLjzt", c) != nullptr; });
      out += directive;
      out.push_back('s');
    } else {
      out += directive;
      out.push_back(*p);
    }
  }
  return out;
}

std::string formatVariadic(const char* format, va_list args) {
  if (!format) return {};
  std::string converted = cFormat(format);
  char small[512];
  va_list copy;
  va_copy(copy, args);
  int length = std::vsnprintf(small, sizeof small, converted.c_str(), copy);
  va_end(copy);
  if (length < 0) return {};
  if (static_cast<std::size_t>(length) < sizeof small) return std::string(small, length);
  std::string text(static_cast<std::size_t>(length), '\0');
  va_copy(copy, args);
  std::vsnprintf(text.data(), text.size() + 1, converted.c_str(), copy);
  va_end(copy);
  return text;
}

}  // namespace

// Lines on their way between threads, packed one after another into one byte buffer: each
// is its level, its length and its bytes. Buffers are swapped between producer and
// consumer rather than copied, so once warm, passing lines along allocates nothing.
class PNXLog::LineBatch {
 public:
  bool empty() const { return bytes_.empty(); }
  void clear() { bytes_.clear(); }
  void swap(LineBatch& other) { bytes_.swap(other.bytes_); }

  // Appends one line made of `head` followed by `tail`.
  void append(PNXLogLevel level, std::string_view head, std::string_view tail = {}) {
    head = head.substr(0, UINT32_MAX);
    tail = tail.substr(0, UINT32_MAX - head.size());
    const auto length = static_cast<std::uint32_t>(head.size() + tail.size());
    char header[kHeaderSize];
    std::memcpy(header, &level, sizeof level);
    std::memcpy(header + sizeof level, &length, sizeof length);
    bytes_.append(header, kHeaderSize).append(head).append(tail);
  }

  void appendAll(const LineBatch& other) { bytes_.append(other.bytes_); }

  // A burst leaves its storage behind for the next one, unless it was unusually large.
  void releaseIfLarge() {
    if (bytes_.capacity() > kKeptBytes) std::string().swap(bytes_);
  }

  // Reads the lines in order.
  class Cursor {
   public:
    explicit Cursor(const LineBatch& batch) : bytes_(batch.bytes_) {}
    bool atEnd() const { return at_ >= bytes_.size(); }
    std::string_view next(PNXLogLevel* level = nullptr) {
      std::uint32_t length;
      if (level) std::memcpy(level, bytes_.data() + at_, sizeof *level);
      std::memcpy(&length, bytes_.data() + at_ + sizeof(PNXLogLevel), sizeof length);
      std::string_view text(bytes_.data() + at_ + kHeaderSize, length);
      at_ += kHeaderSize + length;
      return text;
    }

   private:
    const std::string& bytes_;
    std::size_t at_ = 0;
  };

 private:
  static constexpr std::size_t kHeaderSize = sizeof(PNXLogLevel) + sizeof(std::uint32_t);
  static constexpr std::size_t kKeptBytes = 4 * kWriteChunkBytes;
  std::string bytes_;
};

// Lines waiting for one serial queue. A producer queues the consumer's block only when none
// is due; the block takes the lines in batches until it finds none left, so a busy log
// costs one hop (and one wake-up) per burst, not per line, and producers never touch the
// queue while its block is at work.
class PNXLog::PendingLines {
 public:
  using Batch = LineBatch;

  // The block is queued under the lock, so that a drain() queued after this call runs
  // after the block that will take the line.
  template <class Append>
  void post(const Append& append, pnx::DispatchQueue& queue,
            const pnx::DispatchQueue::Block& take) {
    std::lock_guard<std::mutex> lock(mutex_);
    append(waiting_);
    if (due_) return;
    due_ = true;
    queue.async(take);
  }

  // Moves the waiting lines into `into` (cleared first); the two buffers' storage goes
  // back and forth. With none waiting it gives the processor up a few times first, so that
  // a producer in the middle of a burst (formatting its next line) finds the block still
  // due and need not wake the queue again; then it returns false and the block is no
  // longer due: the next line queues a new one.
  bool take(Batch& into) {
    into.clear();
    for (int round = 0;; ++round) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!waiting_.empty()) {
          waiting_.swap(into);
          return true;
        }
        if (round == kLingerRounds) {
          due_ = false;
          return false;
        }
      }
      std::this_thread::yield();
    }
  }

 private:
  static constexpr int kLingerRounds = 3;
  std::mutex mutex_;
  Batch waiting_;
  bool due_ = false;
};

struct PNXLog::Pipeline {
  // The file queue is created first, as the log's set-up has always done.
  std::shared_ptr<pnx::DispatchQueue> fileQueue = pnx::DispatchQueue::create(kFileQueueLabel);
  std::shared_ptr<pnx::DispatchQueue> logQueue = pnx::DispatchQueue::create(kLogQueueLabel);
  PendingLines messages;   // level and text, for the log queue
  PendingLines fileLines;  // mark and text, for the file queue
  pnx::DispatchQueue::Block composeBlock;
  pnx::DispatchQueue::Block writeBlock;

  // Used on the log queue only.
  std::optional<pnx::SystemLog> systemLog;
  std::string consoleLine;
  LineBatch composing;
  LineBatch forwarding;

  // Used on the file queue only: the stamp of the current second, and the write buffer.
  LineBatch writing;
  std::string stamp;
  double stampSecond = NAN;
  const pnx::DateFormatter* stampFormatter = nullptr;
  bool stampCacheable = false;
  std::string buffer;
};

namespace pnx::log_detail {

void submit(PNXLogLevel level, std::string_view text) {
  PNXLog* log = sharedLog.load(std::memory_order_acquire);
  if (log) log->enqueue(level, text);
}

}  // namespace pnx::log_detail

extern "C" void PNXLogWrite(PNXLogLevel level, const char* format, va_list args) {
  if (!pnx::log_detail::passes(level)) return;
  pnx::log_detail::submit(level, formatVariadic(format, args));
}

// ---------------------------------------------------------------------------------------
// Settings

PNXLog& PNXLog::sharedInstance() {
  static PNXLog* instance = [] {
    auto* log = new PNXLog();
    sharedLog.store(log, std::memory_order_release);
    return log;
  }();
  return *instance;
}

PNXLog::PNXLog()
    : maximumSize_(kDefaultMaximumSize),
      maximumNumberOfLogFiles_(kDefaultMaximumNumberOfLogFiles),
      lineData_{'\n'},
      pipeline_(std::make_unique<Pipeline>()) {
  pnx::log_detail::currentLevel.store(1, std::memory_order_relaxed);
  pipeline_->composeBlock = [this] { composeLines(); };
  pipeline_->writeBlock = [this] { writeQueuedFileLines(); };
}

std::string PNXLog::defaultLogsDirectory() {
  return pnx::Container::documentsDirectory();
}

// Seven pairs, the one for VERBOSE twice, as the names have always been listed.
std::map<PNXLogLevel, std::string> PNXLog::logLevelNames() {
  static const std::pair<PNXLogLevel, const char*> kPairs[] = {
      {1, "ERROR"}, {3, "INFO"},    {2, "WARN"}, {4, "VERBOSE"},
      {5, "TRACE"}, {4, "VERBOSE"}, {0, "NONE"},
  };
  std::map<PNXLogLevel, std::string> names;
  for (const auto& [level, name] : kPairs) names.insert_or_assign(level, name);
  return names;
}

std::optional<std::string> PNXLog::logLevelName() const {
  auto names = logLevelNames();
  auto found = names.find(pnx::log_detail::currentLevel.load(std::memory_order_relaxed));
  if (found == names.end()) return std::nullopt;
  return found->second;
}

void PNXLog::setLogLevelName(const std::optional<std::string>& name) {
  if (!name) return;
  const std::string wanted = lowercased(*name);
  for (const auto& [level, levelName] : logLevelNames()) {
    if (lowercased(levelName) == wanted) {
      pnx::log_detail::currentLevel.store(level, std::memory_order_relaxed);
      return;
    }
  }
}

std::uint64_t PNXLog::maximumSize() const {
  return maximumSize_.load(std::memory_order_relaxed);
}

void PNXLog::setMaximumSize(std::uint64_t bytes) {
  maximumSize_.store(bytes, std::memory_order_relaxed);
}

std::int32_t PNXLog::maximumNumberOfLogFiles() const {
  return maximumNumberOfLogFiles_.load(std::memory_order_relaxed);
}

void PNXLog::setMaximumNumberOfLogFiles(std::int32_t count) {
  maximumNumberOfLogFiles_.store(count, std::memory_order_relaxed);
}

bool PNXLog::logToFile() const {
  return logToFile_.load(std::memory_order_relaxed);
}

void PNXLog::setLogToFile(bool enabled) {
  logToFile_.store(enabled, std::memory_order_relaxed);
}

std::string PNXLog::logsDirectory() const {
  std::lock_guard<std::mutex> lock(settingsMutex_);
  if (!logsDirectory_) logsDirectory_ = defaultLogsDirectory();
  return *logsDirectory_;
}

void PNXLog::setLogsDirectory(const std::string& path) {
  std::lock_guard<std::mutex> lock(fileMutex_);
  {
    std::lock_guard<std::mutex> settings(settingsMutex_);
    if (logsDirectory_ == path) return;
  }
  if (fileHandle_) fileHandle_->close();
  fileHandle_.reset();
  storeLogsDirectory(path);
}

void PNXLog::storeLogsDirectory(std::string path) {
  std::lock_guard<std::mutex> lock(settingsMutex_);
  logsDirectory_ = std::move(path);
}

pnx::Data PNXLog::lineData() const {
  std::lock_guard<std::mutex> lock(settingsMutex_);
  return lineData_;
}

void PNXLog::setLineData(pnx::Data data) {
  std::lock_guard<std::mutex> lock(settingsMutex_);
  lineData_ = std::move(data);
}

std::shared_ptr<pnx::FileHandle> PNXLog::fileHandle() const {
  std::lock_guard<std::mutex> lock(fileMutex_);
  return fileHandle_;
}

void PNXLog::setFileHandle(std::shared_ptr<pnx::FileHandle> handle) {
  std::lock_guard<std::mutex> lock(fileMutex_);
  fileHandle_ = std::move(handle);
}

bool PNXLog::sendLog() {
  return false;
}

bool PNXLog::emailLog(const pnx::Value&) {
  return false;
}

// ---------------------------------------------------------------------------------------
// The two queues

// The caller's share: one short lock to append the text to the waiting lines.
void PNXLog::enqueue(PNXLogLevel level, std::string_view text) {
  pipeline_->messages.post([&](LineBatch& waiting) { waiting.append(level, text); },
                           *pipeline_->logQueue, pipeline_->composeBlock);
}

// On the log queue: prefix, system log, hand-over to the file queue.
void PNXLog::composeLines() {
  Pipeline& p = *pipeline_;
  while (p.messages.take(p.composing)) {
    if (pnxFlags.empty()) pnxFlags = defaultSeverityMarks();
    if (!p.systemLog) p.systemLog.emplace(kSystemLogSubsystem, kSystemLogCategory);
    const pnx::SystemLog& systemLog = *p.systemLog;
    std::shared_ptr<pnx::LogSink> sink = pnx::SystemLog::sink();
    const bool toFile = logToFile();
    p.forwarding.clear();
    for (LineBatch::Cursor lines(p.composing); !lines.atEnd();) {
      PNXLogLevel level = 0;
      const std::string_view text = lines.next(&level);
      auto found = pnxFlags.find(level);
      const std::string_view mark = found != pnxFlags.end() ? found->second : std::string_view();
      if (auto type = systemLogType(level)) {
        p.consoleLine.assign(mark).append(text);
        sink->systemLog(*type, systemLog.subsystem(), systemLog.category(), p.consoleLine);
      }
      if (toFile) p.forwarding.append(level, mark, text);
    }
    if (!p.forwarding.empty()) {
      p.fileLines.post(
          [&](LineBatch& waiting) {
            if (waiting.empty()) {
              waiting.swap(p.forwarding);
            } else {
              waiting.appendAll(p.forwarding);
            }
          },
          *p.fileQueue, p.writeBlock);
    }
  }
  p.composing.releaseIfLarge();
  p.forwarding.releaseIfLarge();
}

// On the file queue: stamp and write.
void PNXLog::writeQueuedFileLines() {
  Pipeline& p = *pipeline_;
  while (p.fileLines.take(p.writing)) {
    if (!dateFormatter) dateFormatter = std::make_shared<pnx::DateFormatter>(kStampPattern);
    std::lock_guard<std::mutex> lock(fileMutex_);
    writeLinesLocked(p.writing, true);
  }
  p.writing.releaseIfLarge();
}

// The stamp only changes with the second unless the pattern prints fractions of one.
const std::string& PNXLog::stampNow() {
  Pipeline& p = *pipeline_;
  const pnx::Date now = pnx::Date::now();
  const double second = std::floor(now.timeIntervalSince1970());
  if (p.stampFormatter != dateFormatter.get()) {
    p.stampFormatter = dateFormatter.get();
    p.stampCacheable = dateFormatter->pattern().find('S') == std::string::npos;
    p.stampSecond = NAN;
  }
  if (!p.stampCacheable || second != p.stampSecond) {
    p.stamp = dateFormatter->stringFromDate(now);
    p.stampSecond = second;
  }
  return p.stamp;
}

// ---------------------------------------------------------------------------------------
// The file

void PNXLog::writeFileLog(const std::string& line) {
  LineBatch single;
  single.append(0, line);
  std::lock_guard<std::mutex> lock(fileMutex_);
  writeLinesLocked(single, false);
}

// Writes each line followed by lineData, as writeFileLog does one at a time, but gathers
// consecutive lines into one write until one of them takes the file past maximumSize:
// that is where a line-by-line writer would rotate. A line met without an open file is
// lost, and the next one tries to open the file again. The lines of one write are handled
// at the same moment and share its stamp. The file is opened for appending, so lines of
// other processes writing the same file land between ours, never over them.
void PNXLog::writeLinesLocked(const LineBatch& lines, bool stamp) {
  const pnx::Data separator = lineData();
  const std::string_view separatorText(reinterpret_cast<const char*>(separator.data()),
                                       separator.size());
  std::string& buffer = pipeline_->buffer;
  LineBatch::Cursor cursor(lines);
  while (!cursor.atEnd()) {
    if (!fileHandle_) fileHandle_ = openFileHandleLocked();
    if (!fileHandle_) {
      cursor.next();
      continue;
    }
    // Held over the write and the rotation it may call for, so that no process finds the
    // live file past maximumSize (and rotates it, losing a line) while its writer has yet to
    // rotate it.
    const std::unique_ptr<pnx::FileLock> lock = lockLogsDirectory();
    const std::uint64_t limit = maximumSize();
    std::uint64_t offset = fileHandle_->seekToEnd();
    const std::string_view stampText = stamp ? std::string_view(stampNow()) : std::string_view();
    buffer.clear();
    do {
      const std::size_t before = buffer.size();
      buffer.append(stampText).append(cursor.next()).append(separatorText);
      offset += buffer.size() - before;
    } while (!cursor.atEnd() && offset <= limit && buffer.size() < kWriteChunkBytes);
    fileHandle_->write(buffer);
    if (fileHandle_->offset() > limit) rotateAfterWriteLocked();
  }
  if (buffer.capacity() > kWriteChunkBytes) std::string().swap(buffer);
}

std::shared_ptr<pnx::FileHandle> PNXLog::openFileHandle() {
  return openFileHandleLocked();
}

// Needs no lock of its own: it touches the file system and the settings, not fileHandle_.
std::shared_ptr<pnx::FileHandle> PNXLog::openFileHandleLocked() {
  prepareLogsDirectory();
  pnx::FileManager& files = pnx::FileManager::current();
  const std::unique_ptr<pnx::FileLock> lock = lockLogsDirectory();
  const std::string path = numberedPath(0);
  if (!files.fileExists(path)) return openLiveFile(true);

  pnx::ErrorPtr error;
  std::optional<pnx::FileInfo> info = files.attributesOfItem(path, &error);
  if (error) {
    PNXLogError("Couldn't get file attributes for %@: %@", path, error->localizedDescription());
  }
  const std::uint64_t size = info ? info->size : 0;
  if (size <= maximumSize()) return openLiveFile(true);
  // An oversized file is rotated, and no live file is created in its place: the line being
  // written is lost, and the next line finds no file and creates it.
  shift(0);
  return openLiveFile(false);
}

void PNXLog::prepareLogsDirectory() {
  pnx::FileManager& files = pnx::FileManager::current();
  const std::string directory = logsDirectory();
  bool isDirectory = false;
  const bool exists = files.fileExists(directory, &isDirectory);
  if (exists && !isDirectory) {
    PNXLogError("Specified output directory is a file, resetting to default.");
    storeLogsDirectory(defaultLogsDirectory());
  } else if (!exists) {
    PNXLogInfo("Specified output directory does not exist, created.");
    pnx::ErrorPtr error;
    files.createDirectory(directory, true, privateAttributes(0700), &error);
    if (error) {
      PNXLogError(
          "Specified output directory didn't exist and couldn't be created, resetting to "
          "default. Error was: %@",
          error->localizedDescription());
      storeLogsDirectory(defaultLogsDirectory());
    }
  }
}

// Opens "PNX.log" for appending, creating it (readable by the user only) when asked to. A
// failure other than a missing file is reported once, not again for each line it costs.
std::shared_ptr<pnx::FileHandle> PNXLog::openLiveFile(bool creating) {
  const std::string path = numberedPath(0);
  pnx::ErrorPtr error;
  std::shared_ptr<pnx::FileHandle> handle = pnx::FileManager::current().fileHandleForAppending(
      path, creating ? std::optional(privateAttributes(0600)) : std::nullopt, &error);
  if (handle) {
    lastOpenFailure_.clear();
    handle->seekToEnd();
    return handle;
  }
  pnx::ErrorPtr reason = error ? error->underlyingError() : nullptr;
  if (!reason || reason->code() == ENOENT) return nullptr;
  const std::string failure =
      reason->code() == ELOOP
          ? pnx::format("Refused log file %@: it is a symbolic link.", path)
          : pnx::format("Couldn't open log file %@: %@", path, reason->localizedDescription());
  if (failure != lastOpenFailure_) {
    lastOpenFailure_ = failure;
    PNXLogError("%@", failure);
  }
  return nullptr;
}

// The live file has grown past maximumSize. Rotates it, unless another process did so
// first (the handle then no longer names "PNX.log"), and goes on in the new live file.
// Called with the directory's lock held, so two processes that both see the file too large
// rotate it once.
void PNXLog::rotateAfterWriteLocked() {
  const bool ours = holdsLiveFile();
  fileHandle_->close();
  fileHandle_.reset();
  if (ours) shift(0);
  fileHandle_ = openLiveFile(true);
}

// True unless "PNX.log" is known to be another file than the one held.
bool PNXLog::holdsLiveFile() const {
  std::optional<pnx::FileInfo> held = fileHandle_->attributes();
  if (!held) return true;
  std::optional<pnx::FileInfo> live =
      pnx::FileManager::current().attributesOfItem(numberedPath(0), nullptr);
  return live && live->fileSystemNumber == held->fileSystemNumber &&
         live->fileSystemFileNumber == held->fileSystemFileNumber;
}

// Logging goes on without the lock when the directory can't be opened (the opening or
// the moves that follow then fail and say so).
std::unique_ptr<pnx::FileLock> PNXLog::lockLogsDirectory() {
  return pnx::FileManager::current().lockItem(logsDirectory(), nullptr);
}

void PNXLog::rotate() {
  rotate(0);
}

void PNXLog::rotate(std::int32_t index) {
  const std::unique_ptr<pnx::FileLock> lock = lockLogsDirectory();
  shift(index);
}

void PNXLog::shift(std::int32_t index) {
  pnx::FileManager& files = pnx::FileManager::current();
  const std::int64_t nextIndex = static_cast<std::int64_t>(index) + 1;
  if (nextIndex > INT32_MAX) return;
  const std::string source = numberedPath(index);
  const std::string destination = numberedPath(static_cast<std::int32_t>(nextIndex));
  if (nextIndex < maximumNumberOfLogFiles()) {
    if (files.fileExists(destination)) shift(static_cast<std::int32_t>(nextIndex));
  } else {
    pnx::ErrorPtr ignored;
    files.removeItem(destination, &ignored);
  }
  pnx::ErrorPtr error;
  files.moveItem(source, destination, &error);
  if (error) {
    PNXLogError("Couldn't move item at path %@ to path %@: %@", source, destination,
                error->localizedDescription());
  }
}

std::string PNXLog::numberedPath(std::int32_t index) const {
  if (index == 0) return pnx::pathByAppendingComponent(logsDirectory(), kLiveFileName);
  return pnx::pathByAppendingComponent(logsDirectory(), pnx::format(kBackupFileFormat, index));
}

// Two rounds: the messages the file side logs while writing the lines of the first round
// (a directory that had to be replaced, a failed move) are written in the second.
void PNXLog::drain() {
  for (int round = 0; round < 2; ++round) {
    pipeline_->logQueue->drain();
    pipeline_->fileQueue->drain();
  }
}

#include "diagnostics/log.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
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

// Work waiting for one serial queue. A producer queues a block only when none is pending,
// and that block takes everything posted until it runs: a burst of lines costs one hop.
template <class T>
class Mailbox {
 public:
  // The block is queued under the lock, so that a drain() queued after this call runs
  // after the block that will take the item.
  void post(T item, pnx::DispatchQueue& queue, const std::function<void()>& takeBlock) {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(std::move(item));
    scheduleLocked(queue, takeBlock);
  }

  // Moves the items over; `items` is left empty, perhaps with spare capacity.
  void postAll(std::vector<T>& items, pnx::DispatchQueue& queue,
               const std::function<void()>& takeBlock) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (items_.empty()) {
      items_.swap(items);
    } else {
      std::move(items.begin(), items.end(), std::back_inserter(items_));
      items.clear();
    }
    scheduleLocked(queue, takeBlock);
  }

  // Swaps the waiting items into `into` (cleared first), so that the two vectors' storage
  // is reused from batch to batch.
  void takeAll(std::vector<T>& into) {
    into.clear();
    std::lock_guard<std::mutex> lock(mutex_);
    scheduled_ = false;
    items_.swap(into);
  }

 private:
  void scheduleLocked(pnx::DispatchQueue& queue, const std::function<void()>& takeBlock) {
    if (scheduled_) return;
    scheduled_ = true;
    queue.async(takeBlock);
  }

  std::mutex mutex_;
  std::vector<T> items_;
  bool scheduled_ = false;
};

}  // namespace

// A message on its way: the level's mark is filled in on the log queue (short marks fit
// in the string itself, so that costs no allocation).
struct PNXLog::Line {
  PNXLogLevel level;
  std::string mark;
  std::string text;
};

struct PNXLog::Pipeline {
  // The file queue is created first, as the log's set-up has always done.
  std::shared_ptr<pnx::DispatchQueue> fileQueue = pnx::DispatchQueue::create(kFileQueueLabel);
  std::shared_ptr<pnx::DispatchQueue> logQueue = pnx::DispatchQueue::create(kLogQueueLabel);
  Mailbox<Line> messages;
  Mailbox<Line> fileLines;
  std::function<void()> composeBlock;
  std::function<void()> writeBlock;

  // Used on the log queue only.
  std::optional<pnx::SystemLog> systemLog;
  std::string consoleLine;
  std::vector<Line> composing;
  std::vector<Line> forwarding;

  // Used on the file queue only: the stamp of the current second, and the write buffer.
  std::vector<Line> writing;
  std::string stamp;
  double stampSecond = NAN;
  const pnx::DateFormatter* stampFormatter = nullptr;
  bool stampCacheable = false;
  std::string buffer;
};

namespace pnx::log_detail {

void submit(PNXLogLevel level, std::string text) {
  PNXLog* log = sharedLog.load(std::memory_order_acquire);
  if (log) log->enqueue(level, std::move(text));
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

void PNXLog::enqueue(PNXLogLevel level, std::string text) {
  pipeline_->messages.post(Line{level, {}, std::move(text)}, *pipeline_->logQueue,
                           pipeline_->composeBlock);
}

// On the log queue: prefix, system log, hand-over to the file queue.
void PNXLog::composeLines() {
  std::vector<Line>& batch = pipeline_->composing;
  pipeline_->messages.takeAll(batch);
  if (pnxFlags.empty()) pnxFlags = defaultSeverityMarks();
  if (!pipeline_->systemLog) pipeline_->systemLog.emplace(kSystemLogSubsystem, kSystemLogCategory);
  const pnx::SystemLog& systemLog = *pipeline_->systemLog;
  std::shared_ptr<pnx::LogSink> sink = pnx::SystemLog::sink();
  std::string& consoleLine = pipeline_->consoleLine;

  std::vector<Line>& fileLines = pipeline_->forwarding;
  for (Line& line : batch) {
    auto mark = pnxFlags.find(line.level);
    if (mark != pnxFlags.end()) line.mark = mark->second;
    if (auto type = systemLogType(line.level)) {
      consoleLine.assign(line.mark).append(line.text);
      sink->systemLog(*type, systemLog.subsystem(), systemLog.category(), consoleLine);
    }
    if (logToFile()) fileLines.push_back(std::move(line));
  }
  if (!fileLines.empty()) {
    pipeline_->fileLines.postAll(fileLines, *pipeline_->fileQueue, pipeline_->writeBlock);
  }
}

// On the file queue: stamp and write.
void PNXLog::writeQueuedFileLines() {
  std::vector<Line>& lines = pipeline_->writing;
  pipeline_->fileLines.takeAll(lines);
  if (!dateFormatter) dateFormatter = std::make_shared<pnx::DateFormatter>(kStampPattern);
  std::lock_guard<std::mutex> lock(fileMutex_);
  writeLinesLocked(lines, true);
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
  std::lock_guard<std::mutex> lock(fileMutex_);
  writeLinesLocked({Line{0, {}, line}}, false);
}

// Writes each line followed by lineData, as writeFileLog does one at a time, but gathers
// consecutive lines into one write until one of them takes the file past maximumSize:
// that is where a line-by-line writer would rotate. A line met without an open file is
// lost, and the next one tries to open the file again. The lines of one write are handled
// at the same moment and share its stamp.
void PNXLog::writeLinesLocked(const std::vector<Line>& lines, bool stamp) {
  const pnx::Data separator = lineData();
  std::string& buffer = pipeline_->buffer;
  std::size_t next = 0;
  while (next < lines.size()) {
    if (!fileHandle_) fileHandle_ = openFileHandleLocked();
    if (!fileHandle_) {
      ++next;
      continue;
    }
    const std::uint64_t limit = maximumSize();
    std::uint64_t offset = fileHandle_->offset();
    const std::string noStamp;
    const std::string& stampText = stamp ? stampNow() : noStamp;
    buffer.clear();
    do {
      const std::size_t before = buffer.size();
      const Line& line = lines[next++];
      buffer.append(stampText).append(line.mark).append(line.text);
      buffer.append(separator.begin(), separator.end());
      offset += buffer.size() - before;
    } while (next < lines.size() && offset <= limit && buffer.size() < kWriteChunkBytes);
    fileHandle_->write(buffer);
    if (fileHandle_->offset() > limit) {
      fileHandle_->close();
      fileHandle_.reset();
      rotate();
      fileHandle_ = openFileHandleLocked();
    }
  }
  if (buffer.capacity() > kWriteChunkBytes) std::string().swap(buffer);
}

std::shared_ptr<pnx::FileHandle> PNXLog::openFileHandle() {
  return openFileHandleLocked();
}

// Needs no lock of its own: it touches the file system and the settings, not fileHandle_.
std::shared_ptr<pnx::FileHandle> PNXLog::openFileHandleLocked() {
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

  // After rotating an oversized file no live file exists, so the open below fails and the
  // line being written is lost; the next line finds no file and creates it.
  const std::string path = numberedPath(0);
  if (files.fileExists(path)) {
    pnx::ErrorPtr error;
    std::optional<pnx::FileInfo> info = files.attributesOfItem(path, &error);
    if (error) {
      PNXLogError("Couldn't get file attributes for %@: %@", path, error->localizedDescription());
    }
    const std::uint64_t size = info ? info->size : 0;
    if (size > maximumSize()) rotate();
  } else {
    pnx::ErrorPtr ignored;
    files.createFile(path, {}, privateAttributes(0600), &ignored);
  }

  std::unique_ptr<pnx::FileHandle> handle = files.fileHandleForUpdating(path);
  if (!handle) return nullptr;
  handle->seekToEnd();
  return handle;
}

void PNXLog::rotate() {
  rotate(0);
}

void PNXLog::rotate(std::int32_t index) {
  pnx::FileManager& files = pnx::FileManager::current();
  const std::int64_t nextIndex = static_cast<std::int64_t>(index) + 1;
  if (nextIndex > INT32_MAX) return;
  const std::string source = numberedPath(index);
  const std::string destination = numberedPath(static_cast<std::int32_t>(nextIndex));
  if (nextIndex < maximumNumberOfLogFiles()) {
    if (files.fileExists(destination)) rotate(static_cast<std::int32_t>(nextIndex));
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

#include "platform/system/system_log.h"

#include <errno.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <utility>

#include "platform/foundation/date.h"

namespace pnx {

namespace {

int syslogPriority(LogType type) {
  switch (type) {
    case LogType::Error:
      return LOG_ERR;
    case LogType::Info:
      return LOG_INFO;
    case LogType::Debug:
      return LOG_DEBUG;
  }
  return LOG_INFO;
}

// syslog(3) for the system log; stderr with the platform's console header for the console.
class DefaultSink final : public LogSink {
 public:
  void systemLog(LogType type, std::string_view, std::string_view, std::string_view text) override {
    prepareLocalZone();  // syslog stamps the line in local time
    syslog(LOG_USER | syslogPriority(type), "%.*s", static_cast<int>(text.size()), text.data());
  }

  void console(std::string_view text) override {
    static const auto* stamp = new DateFormatter("yyyy-MM-dd HH:mm:ss.SSS");
    std::string line = stamp->stringFromDate(Date::now()) + " " + program_invocation_short_name +
                       "[" + std::to_string(getpid()) + ":" + std::to_string(gettid()) + "] ";
    line.append(text);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
};

std::mutex& sinkMutex() {
  static std::mutex* mutex = new std::mutex;
  return *mutex;
}

// Never destroyed: other threads may log while the process exits.
std::shared_ptr<LogSink>& installedSink() {
  static auto* sink = new std::shared_ptr<LogSink>(std::make_shared<DefaultSink>());
  return *sink;
}

}  // namespace

SystemLog::SystemLog(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void SystemLog::write(LogType type, std::string_view text) const {
  sink()->systemLog(type, subsystem_, category_, text);
}

std::shared_ptr<LogSink> SystemLog::sink() {
  std::lock_guard<std::mutex> lock(sinkMutex());
  return installedSink();
}

void SystemLog::setSink(std::shared_ptr<LogSink> sink) {
  if (!sink) sink = std::make_shared<DefaultSink>();
  std::shared_ptr<LogSink> previous;  // released outside the lock
  std::lock_guard<std::mutex> lock(sinkMutex());
  previous = std::exchange(installedSink(), std::move(sink));
}

void Console::log(std::string_view text) {
  SystemLog::sink()->console(text);
}

}  // namespace pnx

// LogCapture: while it lives, system-log and console lines come here, not to syslog and stderr.
// lines() waits for the log's queues and gives system-log lines (never level-0 ones) as mark and
// text. Set a level first. Use from any thread; build and destroy it on the test's thread.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "diagnostics/log.h"
#include "platform/system/system_log.h"

class LogCapture {
 public:
  LogCapture() { pnx::SystemLog::setSink(sink_); }
  ~LogCapture() { pnx::SystemLog::setSink(previous_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() { return seen().lines; }
  std::vector<pnx::LogType> types() { return seen().types; }
  bool contains(std::string_view part) {
    return std::ranges::any_of(
        lines(), [&](const std::string& line) { return line.find(part) != std::string::npos; });
  }
  // Console lines (pnx::Console::log), without the console's header.
  std::vector<std::string> consoleLines() { return seen(false).console; }
  void clear() { seen(true, true); }

 private:
  struct Seen {
    std::vector<std::string> lines, console;
    std::vector<pnx::LogType> types;
  };
  struct Sink final : pnx::LogSink {
    void systemLog(pnx::LogType type, std::string_view, std::string_view,
                   std::string_view text) override {
      std::lock_guard<std::mutex> lock(mutex);
      seen.lines.emplace_back(text);
      seen.types.push_back(type);
    }
    void console(std::string_view text) override {
      std::lock_guard<std::mutex> lock(mutex);
      seen.console.emplace_back(text);
    }
    std::mutex mutex;
    Seen seen;
  };

  Seen seen(bool drain = true, bool reset = false) {
    if (drain) PNXLog::sharedInstance().drain();
    std::lock_guard<std::mutex> lock(sink_->mutex);
    return reset ? std::exchange(sink_->seen, {}) : sink_->seen;
  }

  std::shared_ptr<pnx::LogSink> previous_ = pnx::SystemLog::sink();
  std::shared_ptr<Sink> sink_ = std::make_shared<Sink>();
};

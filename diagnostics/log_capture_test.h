// LogCapture: while it lives, every system-log and console line goes to it instead of
// syslog and stderr; the previous sink comes back when it goes away. lines() waits for the
// log's queues and returns the system-log lines as mark and text, e.g. "🛑 Keychain is
// inaccessible." (level 0 lines never reach the system log). Set a level first.
// Accessors may be called from any thread; build and destroy it on the test's thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "diagnostics/log.h"
#include "platform/system/system_log.h"

class LogCapture {
 public:
  struct Entry {
    pnx::LogType type;
    std::string text;
  };

  LogCapture() : previous_(pnx::SystemLog::sink()), sink_(std::make_shared<Sink>()) {
    pnx::SystemLog::setSink(sink_);
  }
  ~LogCapture() { pnx::SystemLog::setSink(previous_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() {
    std::vector<std::string> texts;
    for (const Entry& entry : entries()) texts.push_back(entry.text);
    return texts;
  }
  std::vector<Entry> entries() {
    PNXLog::sharedInstance().drain();
    std::lock_guard<std::mutex> lock(sink_->mutex);
    return sink_->entries;
  }
  bool contains(std::string_view substring) {
    for (const std::string& line : lines()) {
      if (line.find(substring) != std::string::npos) return true;
    }
    return false;
  }
  // Console lines (pnx::Console::log), without the console's header.
  std::vector<std::string> consoleLines() {
    std::lock_guard<std::mutex> lock(sink_->mutex);
    return sink_->consoleTexts;
  }
  void clear() {
    PNXLog::sharedInstance().drain();
    std::lock_guard<std::mutex> lock(sink_->mutex);
    sink_->entries.clear();
    sink_->consoleTexts.clear();
  }

 private:
  struct Sink final : pnx::LogSink {
    void systemLog(pnx::LogType type, std::string_view, std::string_view,
                   std::string_view text) override {
      std::lock_guard<std::mutex> lock(mutex);
      entries.push_back({type, std::string(text)});
    }
    void console(std::string_view text) override {
      std::lock_guard<std::mutex> lock(mutex);
      consoleTexts.emplace_back(text);
    }
    std::mutex mutex;
    std::vector<Entry> entries;
    std::vector<std::string> consoleTexts;
  };

  std::shared_ptr<pnx::LogSink> previous_;
  std::shared_ptr<Sink> sink_;
};

// SystemLog and Console: the two places a log line can go outside the process.
//
// SystemLog is the platform's unified log: a handle named by subsystem and category that
// takes lines of three types (error, info, debug). Here it is backed by syslog(3): error
// maps to LOG_ERR, info to LOG_INFO, debug to LOG_DEBUG, and the text is passed through
// whole (never redacted). Console is the platform's NSLog: a time-stamped line with the
// process name on stderr.
//
// Both write through a process-wide LogSink that tests replace with a capturing one
// (setSink); nullptr restores the default. A sink sees every line of every handle.
//
// Thread-safety: every function may be called from any thread. Sinks must be thread-safe:
// lines may arrive on several threads at once.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace pnx {

enum class LogType { Error, Info, Debug };

class LogSink {
 public:
  virtual ~LogSink() = default;
  // A line for the system log, from the handle (subsystem, category).
  virtual void systemLog(LogType type, std::string_view subsystem, std::string_view category,
                         std::string_view text) = 0;
  // A console line (the text only; the default sink adds its own header).
  virtual void console(std::string_view text) = 0;
};

class SystemLog {
 public:
  SystemLog(std::string subsystem, std::string category);

  const std::string& subsystem() const { return subsystem_; }
  const std::string& category() const { return category_; }
  void write(LogType type, std::string_view text) const;

  // The sink every handle and the console write to; nullptr restores syslog + stderr.
  static std::shared_ptr<LogSink> sink();
  static void setSink(std::shared_ptr<LogSink> sink);

 private:
  std::string subsystem_;
  std::string category_;
};

class Console {
 public:
  // "<date> <process>[<pid>:<thread>] <text>" on stderr, or to the installed sink.
  static void log(std::string_view text);
};

}  // namespace pnx

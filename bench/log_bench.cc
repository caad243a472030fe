// The log's two costs that matter.
//
// A message below the level: PNXLogTrace at level ERROR against a call of an empty function
// taking the same arguments. The filtered call should cost one load and one comparison.
//
// Lines written to a file per second: PNXLog at level INFO with file logging on, against
// spdlog's asynchronous logger (one worker thread, its default queue of 8192 messages,
// blocking when full) with a basic file sink, writing the same message. Both loggers are
// set up once and warm; one iteration logs kLinesPerIteration lines from the benchmark
// thread and waits until all of them have been written to the file: PNXLog::drain, and
// for spdlog a flush queued behind the lines, whose arrival at the sink is awaited. Both
// leave the bytes with the kernel (spdlog's fflush, PNXLog's write); neither syncs. The
// system log is replaced by a sink that drops the lines, since spdlog writes no system
// log either. Both run in real time, as the work is done on other threads; the CPU column
// is the calling thread's own time, the cost a program pays on the thread that logs.
// BM_FormatLine is the formatting of the message alone, the part of that cost which is
// not the log's.
//
// The logger's threads compete with the caller for the cores: PNXLog has two (its two
// queues), spdlog one, so the ratio depends on how many cores are free. Compare them side
// by side in one run.

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "diagnostics/log.h"
#include "platform/system/system_log.h"

namespace {

constexpr int kLinesPerIteration = 10000;

[[gnu::noinline]] void emptyFunction(const char* format, int value, const char* text) {
  asm volatile("" : : "r"(format), "r"(value), "r"(text) : "memory");
}

class DroppingSink final : public pnx::LogSink {
 public:
  void systemLog(pnx::LogType, std::string_view, std::string_view, std::string_view) override {}
  void console(std::string_view) override {}
};

// A fresh directory for one benchmark's files, removed afterwards.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::string pattern = std::filesystem::temp_directory_path() / "pnx-log-bench-XXXXXX";
    path_ = mkdtemp(pattern.data()) ? pattern : "";
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void BM_EmptyFunctionCall(benchmark::State& state) {
  for (auto _ : state) emptyFunction("delivery record %d for channel %@ queued", 42, "C-1013");
}
BENCHMARK(BM_EmptyFunctionCall);

void BM_FilteredLogCall(benchmark::State& state) {
  PNXLog::sharedInstance().setLogLevelName("error");
  for (auto _ : state) PNXLogTrace("delivery record %d for channel %@ queued", 42, "C-1013");
}
BENCHMARK(BM_FilteredLogCall);

void BM_FormatLine(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        pnx::format("delivery record %d for channel %@ queued", i++, "C-1013"));
  }
}
BENCHMARK(BM_FormatLine);

void BM_PNXLogFileLines(benchmark::State& state) {
  ScratchDirectory directory;
  PNXLog& log = PNXLog::sharedInstance();
  pnx::SystemLog::setSink(std::make_shared<DroppingSink>());
  log.setLogsDirectory(directory.path());
  log.setMaximumSize(UINT64_MAX);  // spdlog's basic file sink does not rotate either
  log.setLogLevelName("info");
  log.setLogToFile(true);
  for (auto _ : state) {
    for (int i = 0; i < kLinesPerIteration; ++i) {
      PNXLogInfo("delivery record %d for channel %@ queued", i, "C-1013");
    }
    log.drain();
  }
  log.setLogToFile(false);
  pnx::SystemLog::setSink(nullptr);
  state.SetItemsProcessed(state.iterations() * kLinesPerIteration);
}
BENCHMARK(BM_PNXLogFileLines)->UseRealTime()->Unit(benchmark::kMillisecond);

// A basic file sink that says when a flush has reached it: everything queued before the
// flush has then been written.
class FlushSignallingSink final : public spdlog::sinks::sink {
 public:
  explicit FlushSignallingSink(const std::string& path)
      : file_(std::make_shared<spdlog::sinks::basic_file_sink_mt>(path)) {}

  void log(const spdlog::details::log_msg& message) override { file_->log(message); }
  void flush() override {
    file_->flush();
    std::lock_guard<std::mutex> lock(mutex_);
    ++flushes_;
    flushed_.notify_all();
  }
  void set_pattern(const std::string& pattern) override { file_->set_pattern(pattern); }
  void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override {
    file_->set_formatter(std::move(formatter));
  }

  void awaitFlushes(long count) {
    std::unique_lock<std::mutex> lock(mutex_);
    flushed_.wait(lock, [&] { return flushes_ >= count; });
  }

 private:
  std::shared_ptr<spdlog::sinks::basic_file_sink_mt> file_;
  std::mutex mutex_;
  std::condition_variable flushed_;
  long flushes_ = 0;
};

void BM_SpdlogAsyncFileLines(benchmark::State& state) {
  ScratchDirectory directory;
  auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
  auto sink = std::make_shared<FlushSignallingSink>(directory.path() + "/spdlog.log");
  auto logger = std::make_shared<spdlog::async_logger>("bench", sink, pool,
                                                       spdlog::async_overflow_policy::block);
  logger->set_pattern("[%Y-%m-%dT%H:%M:%S%z] %v");
  long flushes = 0;
  for (auto _ : state) {
    for (int i = 0; i < kLinesPerIteration; ++i) {
      logger->info("delivery record {} for channel {} queued", i, "C-1013");
    }
    logger->flush();
    sink->awaitFlushes(++flushes);
  }
  logger.reset();
  pool.reset();  // joins its thread
  state.SetItemsProcessed(state.iterations() * kLinesPerIteration);
}
BENCHMARK(BM_SpdlogAsyncFileLines)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

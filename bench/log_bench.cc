// The log's two costs that matter.
//
// A message below the level: PNXLogTrace at level ERROR against a call of an empty function
// taking the same arguments. The filtered call should cost one load and one comparison.
//
// Lines written to a file per second: PNXLog at level INFO with file logging on, against
// spdlog's asynchronous logger (one worker thread, its default queue of 8192 messages,
// blocking when full) with a basic file sink, writing the same message. One iteration
// logs kLinesPerIteration lines from the benchmark thread and waits until all of them are
// in the file (PNXLog::drain; for spdlog, destroying its thread pool, which writes what is
// queued and closes the file). The system log is replaced by a sink that drops the lines,
// since spdlog writes no system log either. Both run in real time, as the work is done on
// other threads.

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
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

void BM_SpdlogAsyncFileLines(benchmark::State& state) {
  ScratchDirectory directory;
  const std::string path = directory.path() + "/spdlog.log";
  for (auto _ : state) {
    state.PauseTiming();
    auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
    auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path);
    auto logger = std::make_shared<spdlog::async_logger>("bench", sink, pool,
                                                         spdlog::async_overflow_policy::block);
    logger->set_pattern("[%Y-%m-%dT%H:%M:%S%z] %v");
    state.ResumeTiming();
    for (int i = 0; i < kLinesPerIteration; ++i) {
      logger->info("delivery record {} for channel {} queued", i, "C-1013");
    }
    logger.reset();
    sink.reset();
    pool.reset();  // writes everything queued, then joins its thread
  }
  state.SetItemsProcessed(state.iterations() * kLinesPerIteration);
}
BENCHMARK(BM_SpdlogAsyncFileLines)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

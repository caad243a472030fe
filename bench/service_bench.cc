// The notification service's costs, side by side in one run.
//
// BM_FirstHandBack: in process, from didReceiveNotificationRequest to the first hand-back
// of a payload with four dynamic actions and no media, delivery reporting off. The main
// queue runs on the benchmark thread; the category is registered in the device's SQLite
// store on the disk under $TMPDIR. Target: median under 2 ms.
//
// BM_DeliverProcessVsTrue: `pnx deliver` as a whole process (a payload without actions or
// media, reporting off) and `true`, spawned alternately. Target: the median of pnx deliver
// at most 4 times that of true.
//
// BM_MovieVsCurl: a 50 MB movie served by `pnx serve`, fetched alternately by `pnx deliver`
// (download, copy into the temporary directory, attachment check, move into the store) and
// by `curl -o` into a file. Targets: pnx deliver's peak memory (the whole process, from
// wait4) under 16 MB, and its throughput at least 0.9 of curl's.
//
// Each reports medians as counters (milliseconds, MB/s, MB); per-iteration times are taken
// with steady_clock around exactly the measured work.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/dispatch.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/json.h"
#include "service/extension_host.h"
#include "service/notification_service.h"

extern char** environ;

namespace {

using Steady = std::chrono::steady_clock;
using namespace std::chrono_literals;

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double milliseconds(Steady::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

struct ProcessResult {
  int status = -1;
  double milliseconds = 0;
  double peakMegabytes = 0;  // ru_maxrss of the child
};

// This process's own peak resident set (VmHWM).
double ownPeakMegabytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}

// Runs a program with stdout and stderr to /dev/null (or to `out`) and waits for it.
ProcessResult runProcess(const std::vector<std::string>& arguments, const std::string& out = {}) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.empty() ? "/dev/null" : out.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  std::vector<char*> argv;
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  ProcessResult result;
  pid_t pid = 0;
  const auto start = Steady::now();
  if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) return result;
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  rusage usage{};
  while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
  }
  result.milliseconds = milliseconds(Steady::now() - start);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.peakMegabytes = static_cast<double>(usage.ru_maxrss) / 1024.0;
  return result;
}

// A copy of the sample bundle with delivery reporting on or off and its server address.
std::string makeBundle(const pnx::testing::TempDir& dir, bool reporting,
                       const std::string& server = "http://127.0.0.1:9") {
  const std::string bundle = dir.file("bundle");
  std::filesystem::copy(PNX_SOURCE_DIR "/examples/SampleApp", bundle);
  std::string config = dir.read("bundle/PnxConfig.json");
  config = std::regex_replace(config, std::regex("http://127\\.0\\.0\\.1:[0-9]+"), server);
  if (!reporting) {
    config = std::regex_replace(config, std::regex("\"deliveryReporting\": true"),
                                "\"deliveryReporting\": false");
  }
  dir.write("bundle/PnxConfig.json", config);
  return bundle;
}

// `pnx serve --port 0 --media DIR` for the length of a benchmark.
class Serve {
 public:
  Serve(const pnx::testing::TempDir& dir, const std::string& media) : out_(dir.file("serve.out")) {
    std::vector<std::string> arguments = {
        PNX_BINARY, "--device", dir.file("serve-device"), "serve", "--port", "0", "--media", media};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn(&pid_, PNX_BINARY, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    std::smatch match;
    for (int i = 0; i < 500; ++i) {
      std::ifstream in(out_);
      std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      if (std::regex_search(text, match, std::regex("http://127\\.0\\.0\\.1:[0-9]+"))) {
        url_ = match[0];
        return;
      }
      std::this_thread::sleep_for(10ms);
    }
  }
  ~Serve() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  const std::string& url() const { return url_; }

 private:
  std::string out_;
  pid_t pid_ = -1;
  std::string url_;
};

void BM_FirstHandBack(benchmark::State& state) {
  pnx::testing::ScopedDevice device("com.example.bench.service");
  const pnx::Value payload = *pnx::JSON::parse(R"({
    "aps": {"alert": {"title": "Sale", "body": "Four buttons"}, "mutable-content": 1},
    "category-name": "bench-actions",
    "category-actions": [
      {"name": "Open", "type": "url", "value": "https://shop.example"},
      {"name": "Later", "foreground": false},
      {"name": "Reply", "value": {"textEntryTitle": "Send", "textEntryPlaceholder": "Say"}},
      {"name": "Stop", "destructive": true, "authentication": true}
    ]})");
  auto request = pnx::ExtensionHost::requestFromPayload("BENCH", payload);
  std::vector<double> times;
  for (auto _ : state) {
    std::mutex mutex;
    bool handedBack = false;
    auto service = PNXNotificationService::make();
    const auto start = Steady::now();
    Steady::time_point handBack;
    service->didReceiveNotificationRequest(request, [&](pnx::NotificationContentPtr) {
      std::lock_guard lock(mutex);
      if (!handedBack) handBack = Steady::now();
      handedBack = true;
      pnx::DispatchQueue::main().async([] {});
    });
    pnx::RunLoop::runUntil(
        [&] {
          std::lock_guard lock(mutex);
          return handedBack;
        },
        Steady::now() + 10s);
    times.push_back(milliseconds(handBack - start));
    state.PauseTiming();
    pnx::RunLoop::runUntil([] { return !pnx::ExtensionHost::extensionWorkInFlight(); },
                           Steady::now() + 10s);
    state.ResumeTiming();
  }
  state.counters["median_ms"] = median(times);
}
BENCHMARK(BM_FirstHandBack)->Iterations(200)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_DeliverProcessVsTrue(benchmark::State& state) {
  pnx::testing::TempDir dir;
  const std::string bundle = makeBundle(dir, false);
  const std::string payload = PNX_SOURCE_DIR "/examples/payloads/plain.json";
  std::vector<double> deliver, truth;
  for (auto _ : state) {
    ProcessResult run = runProcess({PNX_BINARY, "--device", dir.file("device"), "--bundle", bundle,
                                    "deliver", payload, "--id", "BENCH"});
    if (run.status != 0) state.SkipWithError("pnx deliver failed");
    deliver.push_back(run.milliseconds);
    truth.push_back(runProcess({"true"}).milliseconds);
  }
  state.counters["deliver_median_ms"] = median(deliver);
  state.counters["true_median_ms"] = median(truth);
  state.counters["ratio"] = median(deliver) / median(truth);
}
BENCHMARK(BM_DeliverProcessVsTrue)->Iterations(60)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_MovieVsCurl(benchmark::State& state) {
  pnx::testing::TempDir dir;
  // A movie of 50 MB less a little: the sample's header, then filler.
  constexpr std::size_t kSize = 50u * 1024 * 1024 - 4096;
  {
    // Written in pieces: the children are spawned sharing this process's memory until they
    // exec, and ru_maxrss then counts this process's own peak, so it must stay small.
    std::ifstream sample(PNX_SOURCE_DIR "/examples/media/sample.mp4", std::ios::binary);
    std::string header((std::istreambuf_iterator<char>(sample)), std::istreambuf_iterator<char>());
    std::filesystem::create_directories(dir.file("media"));
    std::ofstream movie(dir.file("media/movie.mp4"), std::ios::binary);
    movie << header;
    const std::string filler(1024 * 1024, '\0');
    for (std::size_t left = kSize - header.size(); left > 0;) {
      const std::size_t piece = std::min(left, filler.size());
      movie.write(filler.data(), static_cast<std::streamsize>(piece));
      left -= piece;
    }
  }
  Serve serve(dir, dir.file("media"));
  const std::string bundle = makeBundle(dir, false, serve.url());
  dir.write("movie.json", R"({"aps": {"alert": "movie", "mutable-content": 1},
    "media-attachment": ")" + serve.url() +
                              "/media/movie.mp4\"}");
  const double megabytes = static_cast<double>(kSize) / (1024 * 1024);
  std::vector<double> pnxRate, curlRate, peak;
  int index = 0;
  for (auto _ : state) {
    // Each run its own device, so the temporary directory never holds the name already.
    const std::string device = dir.file("device-" + std::to_string(index++));
    ProcessResult run = runProcess(
        {PNX_BINARY, "--device", device, "--bundle", bundle, "deliver", dir.file("movie.json")},
        dir.file("deliver.out"));
    if (run.status != 0 || dir.read("deliver.out").find("public.mpeg-4") == std::string::npos) {
      state.SkipWithError("pnx deliver did not attach the movie");
      break;
    }
    std::filesystem::remove_all(device);
    pnxRate.push_back(megabytes / (run.milliseconds / 1000));
    peak.push_back(run.peakMegabytes);
    ProcessResult curl =
        runProcess({"curl", "-s", "-o", dir.file("curl.mp4"), serve.url() + "/media/movie.mp4"});
    curlRate.push_back(megabytes / (curl.milliseconds / 1000));
    std::filesystem::remove(dir.file("curl.mp4"));
  }
  state.counters["pnx_MBps"] = median(pnxRate);
  state.counters["curl_MBps"] = median(curlRate);
  state.counters["throughput_ratio"] = median(pnxRate) / median(curlRate);
  state.counters["pnx_peak_MB"] = peak.empty() ? 0 : *std::max_element(peak.begin(), peak.end());
  // The floor under pnx_peak_MB (see above): a child's ru_maxrss is never below it.
  state.counters["bench_peak_MB"] = ownPeakMegabytes();
}
BENCHMARK(BM_MovieVsCurl)->Iterations(9)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

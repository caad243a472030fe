// URL loading against curl, side by side in one run, reported as ratios.
//
//   url_loading_bench [--size MB] [--posts N] [--rounds R]
//
// A cpp-httplib server in this process serves a file of --size MB (default 50) and
// answers small POSTs on 127.0.0.1. Every measurement runs in a child process, so that
// the server's own memory and threads are not counted:
//   - download: a download task of this library against `curl -s -o FILE` of the same
//     URL, each timed from spawn to exit; throughput ratio ours / curl's.
//   - peak memory: the largest resident set (VmHWM) of the whole child process during our
//     download, libcurl and its libraries included.
//   - posts: N small POSTs through URLSession::shared() (one at a time, each waiting for
//     its completion) against the same through curl's easy interface reusing one handle;
//     rate ratio ours / curl's; and the same N resumed all at once.
// Each figure is the median of R rounds (default 5), the runs alternating.
#include <curl/curl.h>
#include <httplib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/dispatch.h"
#include "platform/network/url_session.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

const std::string kPostBody =
    R"({"delivery":[{"userId":"2f9a1c4e","channelId":"8b7d6e5f","attribution":"abc","mailingId":"m-1"}]})";

// ---- child modes ------------------------------------------------------------------
// Each child writes its figure (seconds, or KB) to the report file the parent names.

void writeReport(const std::string& path, double value) {
  if (FILE* out = std::fopen(path.c_str(), "w")) {
    std::fprintf(out, "%.9f\n", value);
    std::fclose(out);
  }
}

double readReport(const std::string& path) {
  double value = -1;
  if (FILE* in = std::fopen(path.c_str(), "r")) {
    if (std::fscanf(in, "%lf", &value) != 1) value = -1;
    std::fclose(in);
  }
  unlink(path.c_str());
  return value;
}

class CountingDelegate : public pnx::URLSessionDelegate {
 public:
  void didFinishDownloadingToURL(pnx::URLSession&, pnx::URLSessionDownloadTask& task,
                                 const pnx::URL&) override {
    bytes = task.countOfBytesReceived();
  }
  void didCompleteWithError(pnx::URLSession&, pnx::URLSessionTask&,
                            const pnx::ErrorPtr& error) override {
    if (error) std::fprintf(stderr, "download failed: %s\n", error->description().c_str());
    done.set_value(!error);
  }
  std::uint64_t bytes = 0;
  std::promise<bool> done;
};

// The peak resident set of this process since its exec, in KB (VmHWM). getrusage's
// ru_maxrss of a child would also count what the forking parent had resident before exec.
long peakResidentKB() {
  FILE* status = std::fopen("/proc/self/status", "r");
  if (!status) return -1;
  char line[256];
  long kb = -1;
  while (std::fgets(line, sizeof line, status)) {
    if (std::sscanf(line, "VmHWM: %ld kB", &kb) == 1) break;
  }
  std::fclose(status);
  return kb;
}

int downloadChild(const std::string& url, const std::string& report) {
  auto delegate = std::make_shared<CountingDelegate>();
  auto session = pnx::URLSession::make(pnx::URLSessionConfiguration(), delegate, nullptr);
  session->downloadTask(*pnx::URL::parse(url))->resume();
  bool ok = delegate->done.get_future().get();
  writeReport(report, static_cast<double>(peakResidentKB()));
  return ok ? 0 : 1;
}

int sessionPostsChild(const std::string& url, int count, const std::string& report) {
  pnx::URLRequest request(*pnx::URL::parse(url));
  request.setHTTPMethod("POST");
  request.setValue("application/json", "Content-type");
  request.setHTTPBody(pnx::Data(kPostBody.begin(), kPostBody.end()));
  auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    std::promise<bool> done;
    pnx::URLSession::shared()
        .dataTask(request,
                  [&](std::optional<pnx::Data>,
                      std::shared_ptr<const pnx::HTTPURLResponse> response, pnx::ErrorPtr error) {
                    done.set_value(!error && response && response->statusCode() == 200);
                  })
        ->resume();
    if (!done.get_future().get()) return 1;
  }
  writeReport(report, secondsSince(start));
  return 0;
}

// One at a time, each started by the completion of the one before, as asynchronous code
// sends a sequence: no thread sits waiting for an answer.
int sessionChainedPostsChild(const std::string& url, int count, const std::string& report) {
  pnx::URLRequest request(*pnx::URL::parse(url));
  request.setHTTPMethod("POST");
  request.setValue("application/json", "Content-type");
  request.setHTTPBody(pnx::Data(kPostBody.begin(), kPostBody.end()));
  std::promise<bool> finished;
  int sent = 0;  // touched only by the completions, which run one at a time
  std::function<void()> sendNext = [&] {
    pnx::URLSession::shared()
        .dataTask(request,
                  [&](std::optional<pnx::Data>,
                      std::shared_ptr<const pnx::HTTPURLResponse> response, pnx::ErrorPtr error) {
                    if (error || !response || response->statusCode() != 200) {
                      finished.set_value(false);
                    } else if (++sent == count) {
                      finished.set_value(true);
                    } else {
                      sendNext();
                    }
                  })
        ->resume();
  };
  auto start = Clock::now();
  sendNext();
  if (!finished.get_future().get()) return 1;
  writeReport(report, secondsSince(start));
  return 0;
}

// All N resumed at once, as a host sending reports in the background would: the session
// runs them over a few kept-alive connections in parallel.
int sessionConcurrentPostsChild(const std::string& url, int count, const std::string& report) {
  pnx::URLRequest request(*pnx::URL::parse(url));
  request.setHTTPMethod("POST");
  request.setValue("application/json", "Content-type");
  request.setHTTPBody(pnx::Data(kPostBody.begin(), kPostBody.end()));
  std::atomic<int> failures{0};
  auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    pnx::URLSession::shared()
        .dataTask(request,
                  [&](std::optional<pnx::Data>,
                      std::shared_ptr<const pnx::HTTPURLResponse> response, pnx::ErrorPtr error) {
                    if (error || !response || response->statusCode() != 200) ++failures;
                  })
        ->resume();
  }
  pnx::URLSession::waitForOutstandingTasks(Clock::now() + std::chrono::minutes(5));
  writeReport(report, secondsSince(start));
  return failures == 0 && pnx::URLSession::outstandingTaskCount() == 0 ? 0 : 1;
}

std::size_t discard(char*, std::size_t size, std::size_t count, void*) {
  return size * count;
}

int easyPostsChild(const std::string& url, int count, const std::string& report) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  CURL* easy = curl_easy_init();
  curl_slist* headers = curl_slist_append(nullptr, "Content-type: application/json");
  headers = curl_slist_append(headers, "Expect:");
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, kPostBody.c_str());
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(kPostBody.size()));
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &discard);
  curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");  // as the session asks
  auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    if (curl_easy_perform(easy) != CURLE_OK) return 1;
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) return 1;
  }
  writeReport(report, secondsSince(start));
  curl_slist_free_all(headers);
  curl_easy_cleanup(easy);
  return 0;
}

// ---- the parent -------------------------------------------------------------------

struct Run {
  double seconds = 0;
  long maxResidentKB = 0;  // reported by the download child itself
  bool ok = false;
};

// Runs argv as a child; wall time from spawn to exit.
Run spawn(std::vector<std::string> argv) {
  std::vector<char*> args;
  for (std::string& arg : argv) args.push_back(arg.data());
  args.push_back(nullptr);
  auto start = Clock::now();
  pid_t pid = fork();
  if (pid == 0) {
    execvp(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  Run run;
  run.seconds = secondsSince(start);
  run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (!run.ok) std::fprintf(stderr, "failed: %s\n", argv[0].c_str());
  return run;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double spread(const std::vector<double>& values) {
  auto [low, high] = std::minmax_element(values.begin(), values.end());
  return *high - *low;
}

std::string self() {
  char path[4096];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : "url_loading_bench";
}

int parent(int sizeMB, int posts, int rounds) {
  const std::string body(static_cast<std::size_t>(sizeMB) * 1024 * 1024, 'm');
  httplib::Server server;
  server.Get("/file", [&](const httplib::Request&, httplib::Response& response) {
    response.set_content_provider(
        body.size(), "application/octet-stream",
        [&](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          return sink.write(body.data() + offset, std::min<std::size_t>(length, 256 * 1024));
        });
  });
  server.Post("/post", [](const httplib::Request&, httplib::Response& response) {
    response.set_content("ok", "text/plain");
  });
  // Small answers go out at once rather than waiting for the previous segment's ACK.
  server.set_tcp_nodelay(true);
  int port = server.bind_to_any_port("127.0.0.1");
  std::thread listener([&] { server.listen_after_bind(); });
  const std::string base = "http://127.0.0.1:" + std::to_string(port);
  const std::string me = self();
  char scratch[] = "/tmp/url-loading-bench-XXXXXX";
  int fd = mkstemp(scratch);
  close(fd);
  // The children's downloads land in a device of their own.
  char device[] = "/tmp/url-loading-bench-device-XXXXXX";
  if (!mkdtemp(device)) return 1;
  setenv("PNX_DEVICE", device, 1);

  std::vector<double> ours, theirs, memory, sessionRate, chainedRate, concurrentRate, easyRate;
  bool ok = true;
  for (int round = 0; round < rounds; ++round) {
    const std::string report = std::string(scratch) + ".report";
    Run download = spawn({me, "download", base + "/file", report});
    download.maxResidentKB = static_cast<long>(readReport(report));
    Run curl = spawn({"curl", "-s", "-o", scratch, base + "/file"});
    Run session = spawn({me, "session-posts", base + "/post", std::to_string(posts), report});
    session.seconds = readReport(report);
    Run easy = spawn({me, "easy-posts", base + "/post", std::to_string(posts), report});
    easy.seconds = readReport(report);
    Run chained =
        spawn({me, "session-chained-posts", base + "/post", std::to_string(posts), report});
    chained.seconds = readReport(report);
    Run concurrent =
        spawn({me, "session-concurrent-posts", base + "/post", std::to_string(posts), report});
    concurrent.seconds = readReport(report);
    ok = ok && download.ok && curl.ok && session.ok && easy.ok && concurrent.ok && chained.ok;
    double megabytes = body.size() / 1e6;
    ours.push_back(megabytes / download.seconds);
    theirs.push_back(megabytes / curl.seconds);
    memory.push_back(download.maxResidentKB / 1024.0);
    sessionRate.push_back(posts / session.seconds);
    easyRate.push_back(posts / easy.seconds);
    concurrentRate.push_back(posts / concurrent.seconds);
    chainedRate.push_back(posts / chained.seconds);
  }
  unlink(scratch);
  std::filesystem::remove_all(device);
  server.stop();
  listener.join();

  std::printf("%d MB download, %d rounds (median, spread max-min)\n", sizeMB, rounds);
  std::printf("  download task          %8.1f MB/s  (spread %.1f)\n", median(ours), spread(ours));
  std::printf("  curl -o                %8.1f MB/s  (spread %.1f)\n", median(theirs),
              spread(theirs));
  std::printf("  ratio ours/curl        %8.2f   (goal >= 0.90)\n", median(ours) / median(theirs));
  std::printf("  peak memory, whole process %6.1f MB  (spread %.1f; goal < 16)\n", median(memory),
              spread(memory));
  std::printf("%d small POSTs (the loop timed inside each process)\n", posts);
  std::printf("  URLSession::shared()   %8.0f /s  (spread %.0f)\n", median(sessionRate),
              spread(sessionRate));
  std::printf("  curl easy, one handle  %8.0f /s  (spread %.0f)\n", median(easyRate),
              spread(easyRate));
  std::printf("  ratio ours/curl        %8.2f   (goal >= 0.80)\n",
              median(sessionRate) / median(easyRate));
  std::printf("  each started by the completion before it %6.0f /s  (spread %.0f; ratio %.2f)\n",
              median(chainedRate), spread(chainedRate), median(chainedRate) / median(easyRate));
  std::printf("  all resumed at once    %8.0f /s  (spread %.0f; ratio to curl easy %.2f)\n",
              median(concurrentRate), spread(concurrentRate),
              median(concurrentRate) / median(easyRate));
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 3 && args[0] == "download") return downloadChild(args[1], args[2]);
  if (args.size() == 4 && args[0] == "session-posts") {
    return sessionPostsChild(args[1], std::atoi(args[2].c_str()), args[3]);
  }
  if (args.size() == 4 && args[0] == "session-chained-posts") {
    return sessionChainedPostsChild(args[1], std::atoi(args[2].c_str()), args[3]);
  }
  if (args.size() == 4 && args[0] == "session-concurrent-posts") {
    return sessionConcurrentPostsChild(args[1], std::atoi(args[2].c_str()), args[3]);
  }
  if (args.size() == 4 && args[0] == "easy-posts") {
    return easyPostsChild(args[1], std::atoi(args[2].c_str()), args[3]);
  }
  int sizeMB = 50, posts = 1000, rounds = 5;
  for (std::size_t i = 0; i + 1 < args.size(); i += 2) {
    if (args[i] == "--size") sizeMB = std::atoi(args[i + 1].c_str());
    if (args[i] == "--posts") posts = std::atoi(args[i + 1].c_str());
    if (args[i] == "--rounds") rounds = std::atoi(args[i + 1].c_str());
  }
  return parent(std::max(sizeMB, 1), std::max(posts, 1), std::max(rounds, 1));
}

// URL loading against real servers on 127.0.0.1 (cpp-httplib, in this process).
#include "platform/network/url_session.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/files/fixtures_test.h"
#include "platform/foundation/date.h"
#include "platform/network/local_server_test.h"
#include "platform/network/url_error.h"

// cpp-httplib is Debian's compiled library, not built with ThreadSanitizer, which then
// reports the memory it hands between its own threads as races: leave its calls out.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libcpp-httplib.so\n";
}
#endif

namespace pnx {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using testing::LocalServer;

std::string localHost(int port) {
  return "//127.0.0.1:" + std::to_string(port);
}

httplib::Server::Handler content(std::string body, const char* type = "application/octet-stream") {
  return [body = std::move(body), type](const httplib::Request&, httplib::Response& response) {
    response.set_content(body, type);
  };
}

// What a data task's completion handler received; it never runs on the thread that made it.
struct Outcome {
  std::optional<Data> data;
  std::shared_ptr<const HTTPURLResponse> response;
  ErrorPtr error;
  std::string text() const { return data ? std::string(data->begin(), data->end()) : "(none)"; }
};

std::shared_future<Outcome> start(URLRequest request, URLSession& session = URLSession::shared()) {
  auto done = std::make_shared<std::promise<Outcome>>();
  auto handler = [done, thread = std::this_thread::get_id()](auto data, auto response, auto error) {
    EXPECT_NE(std::this_thread::get_id(), thread);
    done->set_value({data, response, error});
  };
  session.dataTask(std::move(request), handler)->resume();
  return done->get_future().share();
}

Outcome load(URLRequest request, URLSession& session = URLSession::shared()) {
  auto future = start(std::move(request), session);
  const bool done = future.wait_for(20s) == std::future_status::ready;
  EXPECT_TRUE(done) << "no completion";
  return done ? future.get() : Outcome{};
}

std::int64_t codeOf(const ErrorPtr& error) {
  return error ? error->code() : 0;
}

// Records the delegate callbacks, which run on the main queue the test thread drains: no lock.
class Recorder : public URLSessionDelegate {
 public:
  void didFinishDownloadingToURL(URLSession&, URLSessionDownloadTask& task,
                                 const URL& location) override {
    events.push_back("finish " + task.originalRequest().url().lastPathComponent());
    location_ = location.path();
    EXPECT_EQ(testing::modeOf(location_), 0600u);  // private to the app
    std::ifstream in(location_, std::ios::binary);
    fileContents.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    onMainQueue = onMainQueue && DispatchQueue::main().isCurrent();
  }
  void didCompleteWithError(URLSession&, URLSessionTask&, const ErrorPtr& error) override {
    events.push_back("complete " + std::to_string(codeOf(error)));
    onMainQueue = onMainQueue && DispatchQueue::main().isCurrent();
    if (!location_.empty()) fileGoneAtCompletion = !fs::exists(location_);
  }
  void didBecomeInvalidWithError(URLSession&, const ErrorPtr& error) override {
    events.push_back(error ? "invalid with error" : "invalid");
  }

  bool waitFor(std::size_t count) {
    return RunLoop::runUntil([&] { return events.size() >= count; }, RunLoop::Clock::now() + 20s);
  }

  std::vector<std::string> events;
  std::string location_;
  std::string fileContents;
  bool onMainQueue = true;
  bool fileGoneAtCompletion = false;
};

bool waitForNoTasks() {
  return RunLoop::runUntil([] { return URLSession::outstandingTaskCount() == 0; },
                           RunLoop::Clock::now() + 20s);
}

// A server on 127.0.0.1 that takes connections and never answers, so that requests to it
// stall with no thread parked anywhere. Once destroyed, its port has no listener.
class SilentServer {
 public:
  SilentServer() {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    bind(listener_, reinterpret_cast<sockaddr*>(&address), length);
    listen(listener_, 512);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~SilentServer() {
    for (int fd : accepted_) close(fd);
    close(listener_);
  }
  URL url(const std::string& path) const { return *URL::parse("http:" + localHost(port_) + path); }
  // Waits until count requests in all have connected: they are in the HTTP stack's hands.
  bool waitForConnections(std::size_t count) {
    while (accepted_.size() < count) {
      pollfd incoming{listener_, POLLIN, 0};
      if (poll(&incoming, 1, 10'000) != 1) return false;
      accepted_.push_back(accept(listener_, nullptr, nullptr));
    }
    return true;
  }

 private:
  int listener_ = socket(AF_INET, SOCK_STREAM, 0);
  int port_ = 0;
  std::vector<int> accepted_;
};

TEST(URLSessionTest, SharedSessionLoadsOnABackgroundQueueAndReportsTransportFailures) {
  LocalServer server;
  server->Post("/echo", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.method + " " + request.get_header_value("Content-Language") + " " +
                             request.get_header_value("Content-Type") +
                             (request.has_header("Expect") ? " Expect " : " ") + request.body,
                         "text/plain");
  });
  server->Get("/cut", [](const httplib::Request&, httplib::Response& response) {
    // Promises 100,000 bytes, sends 10, and hangs up.
    response.set_content_provider(100000, "application/octet-stream",
                                  [](std::size_t, std::size_t, httplib::DataSink& sink) {
                                    sink.write("0123456789", 10);
                                    return false;
                                  });
  });
  server->Get("/(loop|to-file)", [](const httplib::Request& request, httplib::Response& response) {
    response.set_redirect(request.matches[1] == "loop" ? "/loop" : "file:///etc/passwd");
  });
  server->Get(R"(/n/(\d+))", [](const httplib::Request& request, httplib::Response& response) {
    response.set_content(request.matches[1].str(), "text/plain");
  });
  server.start();

  URLRequest request(server.url("/echo"), URLRequestCachePolicy::UseProtocolCachePolicy, 60);
  request.setHTTPMethod("POST");
  request.setValue("en", "content-LANGUAGE");
  request.setValue("application/json", "Content-type");
  request.setHTTPBody(Data{'{', '}', 0, 0xFF});
  Outcome posted = load(request);
  EXPECT_EQ(posted.text(), std::string("POST en application/json {}\0\xFF", 29));
  ASSERT_TRUE(posted.response);
  EXPECT_EQ(posted.response->url()->absoluteString(), server.url("/echo").absoluteString());

  // Tasks beyond those handed to the HTTP stack at once wait, and run as others finish.
  constexpr int kTasks = 200;
  std::vector<std::shared_future<Outcome>> results;
  for (int i = 0; i < kTasks; ++i) {
    results.push_back(start(URLRequest(server.url("/n/" + std::to_string(i)))));
  }
  ASSERT_TRUE(URLSession::waitForOutstandingTasks(std::chrono::steady_clock::now() + 30s));
  for (int i = 0; i < kTasks; ++i) EXPECT_EQ(results[i].get().text(), std::to_string(i));

  URL closedURL = SilentServer().url("/x");

  Outcome refused = load(URLRequest(closedURL));
  EXPECT_EQ(codeOf(refused.error), NSURLErrorCannotConnectToHost);
  ASSERT_TRUE(refused.error && refused.error->url());
  EXPECT_EQ(refused.error->url()->absoluteString(), closedURL.absoluteString());
  EXPECT_EQ(refused.error->domain(), NSURLErrorDomain);
  EXPECT_EQ(refused.error->localizedDescription(), "Could not connect to the server.");
  EXPECT_FALSE(refused.data);

  EXPECT_EQ(codeOf(load(URLRequest(server.url("/cut"))).error), NSURLErrorNetworkConnectionLost);
  EXPECT_EQ(codeOf(load(URLRequest(server.url("/loop"))).error), NSURLErrorHTTPTooManyRedirects);
  EXPECT_EQ(codeOf(load(URLRequest(server.url("/to-file"))).error), NSURLErrorUnsupportedURL);
  Outcome unsupported = load(URLRequest(*URL::parse("ftp://127.0.0.1/x")));
  EXPECT_EQ(codeOf(unsupported.error), NSURLErrorUnsupportedURL);
  EXPECT_FALSE(unsupported.response);
  Outcome nameless = load(URLRequest(*URL::parse("http://name-that-does-not-resolve.invalid/")));
  EXPECT_EQ(codeOf(nameless.error), NSURLErrorCannotFindHost);

  // A host waiting on the main run loop hears at once when nothing is in flight any more.
  auto pending = start(URLRequest(server.url("/missing")));
  auto begun = RunLoop::Clock::now();
  EXPECT_TRUE(waitForNoTasks());
  EXPECT_EQ(pending.wait_for(0s), std::future_status::ready);
  EXPECT_LT(RunLoop::Clock::now() - begun, 10s);
}

// Downloads over the cap, by their Content-Length or while streaming, stop at once.
TEST(URLSessionTest, DownloadsFinishThenCompleteOnTheMainQueueAndLeaveNoFile) {
  testing::ScopedDevice device;
  std::string body(300 * 1024, 'x');
  for (std::size_t i = 0; i < body.size(); i += 97) body[i] = static_cast<char>(i);
  std::atomic<std::size_t> streamed{0};
  constexpr std::size_t kEndless = 256u * 1024 * 1024;
  LocalServer server;
  server->Get("/media/cat.png", content(body, "image/png"));
  server->Get("/declared", content(body + "!"));
  server->Get("/streamed", [&](const httplib::Request&, httplib::Response& response) {
    // No Content-Length: the cap can only be seen while the body arrives.
    response.set_chunked_content_provider(
        "application/octet-stream", [&](std::size_t, httplib::DataSink& sink) {
          std::string chunk(64 * 1024, 's');
          if (streamed >= kEndless || !sink.write(chunk.data(), chunk.size())) return false;
          streamed += chunk.size();
          return true;
        });
  });
  server.start();

  URLSessionConfiguration configuration;
  configuration.maximumDownloadSize = body.size();  // the image just fits
  auto recorder = std::make_shared<Recorder>();
  auto session = URLSession::make(configuration, recorder, &DispatchQueue::main());
  auto task = session->downloadTask(server.url("/media/cat.png"));
  EXPECT_EQ(task->state(), URLSessionTask::State::Suspended);
  task->resume();
  ASSERT_TRUE(recorder->waitFor(2));
  EXPECT_EQ(recorder->fileContents, body);
  EXPECT_EQ(fs::path(recorder->location_).parent_path(), fs::path(Container::temporaryDirectory()));
  EXPECT_TRUE(recorder->fileGoneAtCompletion);
  EXPECT_EQ(task->state(), URLSessionTask::State::Completed);
  EXPECT_EQ(task->countOfBytesReceived(), body.size());
  EXPECT_EQ(task->response()->statusCode(), 200);

  session->downloadTask(server.url("/declared"))->resume();
  ASSERT_TRUE(recorder->waitFor(3));
  session->downloadTask(server.url("/streamed"))->resume();
  session->finishTasksAndInvalidate();
  ASSERT_TRUE(recorder->waitFor(5));
  EXPECT_EQ(recorder->events,
            (std::vector<std::string>{"finish cat.png", "complete 0", "complete -1103",
                                      "complete -1103", "invalid"}));
  EXPECT_TRUE(recorder->onMainQueue);
  EXPECT_TRUE(fs::is_empty(Container::temporaryDirectory()));
  EXPECT_LT(streamed.load(), kEndless);  // stopped long before the server ran dry
  EXPECT_THROW(session->downloadTask(server.url("/media/cat.png")), Exception);
  EXPECT_TRUE(waitForNoTasks());

  // The cap holds for data tasks too: nothing beyond it is kept in memory.
  Outcome data =
      load(URLRequest(server.url("/declared")), *URLSession::make(configuration, nullptr, nullptr));
  EXPECT_EQ(codeOf(data.error), NSURLErrorDataLengthExceedsMaximum);
}

// Cancelled tasks, whether never resumed, connected or waiting, complete once, cancelled.
TEST(URLSessionTest, StalledRequestsTimeOutOrEndAsCancelled) {
  Clock::set(Date(2'000'000'000));
  SilentServer silent;
  auto future =
      start(URLRequest(silent.url("/stall"), URLRequestCachePolicy::UseProtocolCachePolicy, 60));
  ASSERT_TRUE(silent.waitForConnections(1));
  Clock::advance(59);
  EXPECT_EQ(future.wait_for(300ms), std::future_status::timeout);
  Clock::advance(1);
  ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(codeOf(future.get().error), NSURLErrorTimedOut);
  EXPECT_EQ(future.get().error->localizedDescription(), "The request timed out.");
  Clock::useSystemClock();

  auto recorder = std::make_shared<Recorder>();
  auto session = URLSession::make({}, recorder, &DispatchQueue::main());
  session->dataTask(silent.url("/never"))->cancel();
  ASSERT_TRUE(recorder->waitFor(1));

  auto first = session->dataTask(silent.url("/first"));
  first->resume();
  session->downloadTask(silent.url("/second"))->resume();
  ASSERT_TRUE(silent.waitForConnections(3));
  first->cancel();
  ASSERT_TRUE(recorder->waitFor(2));
  EXPECT_EQ(codeOf(first->error()), NSURLErrorCancelled);

  constexpr int kWaiting = 100;  // more than are handed to the HTTP stack at once
  for (int i = 0; i < kWaiting; ++i) {
    session->dataTask(silent.url("/" + std::to_string(i)))->resume();
  }
  EXPECT_EQ(URLSession::outstandingTaskCount(), kWaiting + 1u);
  session->invalidateAndCancel();
  ASSERT_TRUE(recorder->waitFor(kWaiting + 4));
  EXPECT_EQ(std::count(recorder->events.begin(), recorder->events.end(), "complete -999"),
            kWaiting + 3);
  EXPECT_EQ(recorder->events.back(), "invalid");
  EXPECT_EQ(URLSession::outstandingTaskCount(), 0u);
}

TEST(URLSessionTest, CertificatesAreCheckedAgainstTheSystemAndTheDeviceTrust) {
  testing::ScopedDevice device;
  const std::string cert = device.root().file("cert.pem"), key = device.root().file("key.pem");
  ASSERT_TRUE(testing::writeLocalCertificate(device.root()));
  LocalServer server(std::make_unique<httplib::SSLServer>(cert.c_str(), key.c_str()));
  server->Get("/hello", content("secret"));
  server.start();

  Outcome untrusted = load(URLRequest(server.url("/hello")));
  EXPECT_EQ(codeOf(untrusted.error), NSURLErrorServerCertificateUntrusted);
  EXPECT_FALSE(untrusted.data);

  // A PEM file that is not a certificate is passed over; the one in trust/ is used.
  device.root().write("device/trust/notes.txt", "not a certificate");
  fs::copy_file(cert, device.deviceDirectory() + "/trust/test.pem");
  Outcome trusted = load(URLRequest(server.url("/hello")));
  EXPECT_EQ(trusted.error, nullptr) << trusted.error->description();
  EXPECT_EQ(trusted.text(), "secret");
}

}  // namespace
}  // namespace pnx

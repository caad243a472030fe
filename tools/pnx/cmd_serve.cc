// pnx serve: a stand-in for the push backend on 127.0.0.1, for integrators and tests.
//
// Prints {"listening": "http://127.0.0.1:PORT"} (https with --tls) first, then one JSON line
// per request handled, each flushed at once:
//   an accepted delivery report  {"time", "appKey", "records": [...], "bytes": {"gzip", "json"}}
//   any other request            {"time", "method", "path", "status", "error"?, "fault"?}
// where "path" is the request target as sent, "error" says why a request was refused, and
// "fault" names the fault that answered instead (status null when it dropped the connection).
// SIGTERM and SIGINT stop the server; the command then exits 0.
//
// What the endpoints check and answer lives in tools/pnx/serve/ (routing, delivery checks,
// faults, media files); this file binds them to the HTTP library and keeps the state: the
// accepted reports and the faults, shared by the library's worker threads under locks.

#include <dirent.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "tools/pnx/command.h"
#include "tools/pnx/serve/delivery_check.h"
#include "tools/pnx/serve/fault.h"
#include "tools/pnx/serve/media_file.h"
#include "tools/pnx/serve/routing.h"

namespace pnx {
namespace {

using namespace pnx::serve;

// The HTTP library inflates gzip (and brotli) bodies itself, before any handler runs and
// without a limit. The pre-routing hook moves the header to this name, which no client
// can send (a received header name never holds a colon), so bodies arrive as sent.
constexpr const char* kHiddenContentEncoding = "pnx:content-encoding";
// Bodies of other endpoints than the delivery one are read up to this size, the rest
// skipped.
constexpr std::size_t kMaxControlBody = 1024 * 1024;
constexpr std::size_t kMediaChunk = 64 * 1024;
constexpr std::size_t kWorkerThreads = 32;

// Whether this worker thread has printed the line of the request it is serving. The
// library's logger runs after every answer it writes, including its own refusals (a
// malformed request line, an unknown method); it prints a line only for those.
thread_local bool tLinePrinted = false;

std::string nowText() {
  return pnx::Date::now().iso8601();
}

HeaderList headersOf(const httplib::Request& request) {
  HeaderList headers;
  for (const auto& [name, value] : request.headers) {
    if (name == kHiddenContentEncoding) {
      headers.emplace_back("Content-Encoding", value);
    } else if (name != "REMOTE_ADDR" && name != "REMOTE_PORT" && name != "LOCAL_ADDR" &&
               name != "LOCAL_PORT") {
      headers.emplace_back(name, value);
    }
  }
  return headers;
}

// Why the HTTP library refused a request before any handler saw it.
std::string libraryRefusal(int status) {
  switch (status) {
    case 400:
      return "malformed request";
    case 413:
      return "body is too large";
    case 414:
      return "request target is too long";
    case 416:
      return "range not satisfiable";
    default:
      return "refused with status " + std::to_string(status);
  }
}

void setJSON(httplib::Response& response, int status, const pnx::Value& body) {
  response.status = status;
  response.set_content(pnxJSONText(body), "application/json");
}

pnx::Value errorBody(const std::string& error) {
  return pnx::Value::dict({{"error", error}});
}

// Reads the whole body through `reader`, keeping at most limit + 1 bytes (so that the
// caller can tell that it was over) and skipping the rest, so that the connection stays
// in step for the next request. False when the body could not be read.
bool readBody(const httplib::ContentReader& reader, std::size_t limit, std::string& body) {
  return reader([&](const char* data, std::size_t length) {
    const std::size_t room = limit + 1 - std::min(body.size(), limit + 1);
    body.append(data, std::min(room, length));
    return true;
  });
}

// The socket of the connection that `request` arrived on: the TLS session's, or the one
// whose two ends match the request's addresses.
int connectionSocket(const httplib::Request& request) {
  if (request.ssl) return SSL_get_fd(request.ssl);
  DIR* descriptors = opendir("/proc/self/fd");
  if (!descriptors) return -1;
  int found = -1;
  while (dirent* entry = readdir(descriptors)) {
    const int fd = std::atoi(entry->d_name);
    if (fd <= 2) continue;
    sockaddr_storage peer{}, local{};
    socklen_t peerLength = sizeof peer, localLength = sizeof local;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0 ||
        peer.ss_family != AF_INET || local.ss_family != AF_INET) {
      continue;
    }
    const auto& peerIn = reinterpret_cast<const sockaddr_in&>(peer);
    const auto& localIn = reinterpret_cast<const sockaddr_in&>(local);
    if (ntohs(peerIn.sin_port) == request.remote_port &&
        (request.local_port <= 0 || ntohs(localIn.sin_port) == request.local_port)) {
      found = fd;
      break;
    }
  }
  closedir(descriptors);
  return found;
}

class Backend {
 public:
  Backend(std::optional<std::string> mediaRoot, std::vector<Fault> faults)
      : mediaRoot_(std::move(mediaRoot)) {
    faults_.replace(std::move(faults));
  }

  void install(httplib::Server& server) {
    server.new_task_queue = [] { return new httplib::ThreadPool(kWorkerThreads); };
    server.set_payload_max_length(limits_.maxBodyBytes);
    server.set_pre_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) {
          return preRoute(request, response);
        });
    const auto plain = [this](const httplib::Request& request, httplib::Response& response) {
      handle(request, response, nullptr);
    };
    const auto withBody = [this](const httplib::Request& request, httplib::Response& response,
                                 const httplib::ContentReader& reader) {
      handle(request, response, &reader);
    };
    server.Get(".*", plain);
    server.Options(".*", plain);
    server.Post(".*", withBody);
    server.Put(".*", withBody);
    server.Patch(".*", withBody);
    server.Delete(".*", withBody);
    server.set_error_handler([](const httplib::Request&, httplib::Response& response) {
      // The library's own refusals come without a body; say what they are.
      if (response.body.empty() && !response.content_provider_) {
        setJSON(response, response.status, errorBody(libraryRefusal(response.status)));
      }
    });
    server.set_logger([this](const httplib::Request& request, const httplib::Response& response) {
      if (!tLinePrinted) {
        printRequestLine(request, response.status,
                         response.status >= 400 ? libraryRefusal(response.status) : std::string());
      }
      tLinePrinted = false;
    });
  }

  void printLine(const pnx::Value& line) { printText(pnxJSONText(line)); }

  void printText(const std::string& text) {
    std::lock_guard lock(outputMutex_);
    std::cout << text << '\n' << std::flush;
  }

  // Ends delays in progress, so that stopping does not wait for them.
  void stop() {
    std::lock_guard lock(stopMutex_);
    stopping_ = true;
    stopChanged_.notify_all();
  }

 private:
  httplib::Server::HandlerResponse preRoute(const httplib::Request& request,
                                            httplib::Response& response) {
    tLinePrinted = false;
    // The request is the server's own, non-const object; only the reference is const.
    auto& headers = const_cast<httplib::Request&>(request).headers;
    std::vector<std::string> encodings;
    const auto [first, last] = headers.equal_range("Content-Encoding");  // any case
    for (auto it = first; it != last; ++it) encodings.push_back(it->second);
    headers.erase(first, last);
    for (auto& encoding : encodings) headers.emplace(kHiddenContentEncoding, std::move(encoding));

    // Methods that have no handler (CONNECT, TRACE) are answered here.
    static const std::array<std::string, 7> kHandled = {"GET",   "HEAD",   "POST",   "PUT",
                                                        "PATCH", "DELETE", "OPTIONS"};
    if (std::find(kHandled.begin(), kHandled.end(), request.method) != kHandled.end()) {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    response.set_header("Connection", "close");
    answerRoute(request, response, routeRequest(request.method, request.target));
    return httplib::Server::HandlerResponse::Handled;
  }

  void handle(const httplib::Request& request, httplib::Response& response,
              const httplib::ContentReader* reader) {
    const Route route = routeRequest(request.method, request.target);
    std::string body;
    if (reader) {
      const std::size_t limit =
          route.endpoint == Endpoint::Delivery ? limits_.maxBodyBytes : kMaxControlBody;
      if (!readBody(*reader, limit, body)) {
        // The library has set the status (413 over its length limit, 400 for a broken
        // body) and may not have read everything; end the connection after the answer.
        const int status = response.status >= 400 ? response.status : 400;
        const std::string error =
            status == 413 ? "body is larger than " + std::to_string(limits_.maxBodyBytes) + " bytes"
                          : "body could not be read";
        response.set_header("Connection", "close");
        refuse(request, response, status, error);
        return;
      }
    } else {
      body = request.body;
    }
    answerRoute(request, response, route, body);
  }

  void answerRoute(const httplib::Request& request, httplib::Response& response, const Route& route,
                   const std::string& body = {}) {
    if (route.endpoint == Endpoint::Unknown) {
      refuse(request, response, 404, "no such endpoint");
      return;
    }
    if (!route.methodAllowed) {
      response.set_header("Allow", route.allow);
      refuse(request, response, 405, request.method + " is not allowed here; use " + route.allow);
      return;
    }
    switch (route.endpoint) {
      case Endpoint::Delivery:
        return delivery(request, response, route, body);
      case Endpoint::Reports:
        return reports(request, response);
      case Endpoint::Faults:
        return faults(request, response, body);
      case Endpoint::Media:
        return media(request, response, route);
      case Endpoint::Unknown:
        break;
    }
  }

  void delivery(const httplib::Request& request, httplib::Response& response, const Route& route,
                const std::string& body) {
    if (auto fault = faults_.next()) {
      if (fault->delaySeconds > 0) sleepUnlessStopped(fault->delaySeconds);
      if (fault->drop) {
        printRequestLine(request, std::nullopt, {}, fault->text);
        const int fd = connectionSocket(request);
        if (fd >= 0) shutdown(fd, SHUT_RDWR);
        return;
      }
      if (fault->status) {
        if (fault->retryAfter) response.set_header("Retry-After", *fault->retryAfter);
        setJSON(response, *fault->status,
                pnx::Value::dict({{"error", "fault"}, {"fault", fault->text}}));
        printRequestLine(request, *fault->status, {}, fault->text);
        return;
      }
      // A fault that only delays: the request is then handled as usual.
    }

    DeliveryCheck check = checkDelivery(headersOf(request), body, limits_);
    if (!check.accepted()) {
      refuse(request, response, check.status, check.error);
      return;
    }
    const std::size_t count = check.records.size();
    pnx::Value report = pnx::Value::dict(
        {{"time", nowText()},
         {"appKey", route.appKey},
         {"records", std::move(check.records)},
         {"bytes",
          pnx::Value::dict({{"gzip", static_cast<unsigned long long>(check.gzipBytes)},
                            {"json", static_cast<unsigned long long>(check.jsonBytes)}})}});
    std::string line = pnxJSONText(report);
    {
      std::lock_guard lock(reportsMutex_);
      reports_.push_back(line);
    }
    printText(line);
    tLinePrinted = true;
    setJSON(response, 200,
            pnx::Value::dict({{"accepted", static_cast<unsigned long long>(count)}}));
  }

  void reports(const httplib::Request& request, httplib::Response& response) {
    std::string array = "[";
    {
      std::lock_guard lock(reportsMutex_);
      for (const std::string& line : reports_) {
        if (array.size() > 1) array += ',';
        array += line;
      }
    }
    array += ']';
    response.status = 200;
    response.set_content(array, "application/json");
    printRequestLine(request, 200);
  }

  void faults(const httplib::Request& request, httplib::Response& response,
              const std::string& body) {
    if (request.method == "POST") {
      std::string error;
      auto replacement = parseFaultList(body, &error);
      if (!replacement) {
        refuse(request, response, 400, error);
        return;
      }
      faults_.replace(std::move(*replacement));
    }
    setJSON(response, 200, faults_.describe());
    printRequestLine(request, 200);
  }

  void media(const httplib::Request& request, httplib::Response& response, const Route& route) {
    if (!mediaRoot_) {
      refuse(request, response, 404, "no media directory (pnx serve --media DIR)");
      return;
    }
    if (route.mediaName.empty()) {
      refuse(request, response, 404, "media name refused: it could leave the media directory");
      return;
    }
    auto file = MediaFile::open(*mediaRoot_, route.mediaName);
    if (!file) {
      refuse(request, response, 404, "no media file \"" + route.mediaName + "\"");
      return;
    }
    // The status is left to the library: 200, or 206 when the request asked for a range.
    response.set_content_provider(
        file->size(), std::string(mediaContentType(route.mediaName)),
        [file](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          std::array<char, kMediaChunk> buffer;
          const ssize_t count =
              file->readAt(buffer.data(), std::min(length, buffer.size()), offset);
          if (count <= 0) return false;  // the file shrank or failed: end the connection
          return sink.write(buffer.data(), static_cast<std::size_t>(count));
        });
    printRequestLine(request, request.ranges.empty() ? 200 : 206);
  }

  void refuse(const httplib::Request& request, httplib::Response& response, int status,
              const std::string& error) {
    setJSON(response, status, errorBody(error));
    printRequestLine(request, status, error);
  }

  void printRequestLine(const httplib::Request& request, std::optional<int> status,
                        const std::string& error = {}, const std::string& fault = {}) {
    pnx::Dictionary line;
    line.emplace("time", nowText());
    line.emplace("method", request.method);
    line.emplace("path", request.target);
    line.emplace("status", status ? pnx::Value(*status) : pnx::Value());
    if (!error.empty()) line.emplace("error", error);
    if (!fault.empty()) line.emplace("fault", fault);
    printLine(line);
    tLinePrinted = true;
  }

  void sleepUnlessStopped(double seconds) {
    std::unique_lock lock(stopMutex_);
    stopChanged_.wait_for(lock, std::chrono::duration<double>(seconds),
                          [this] { return stopping_; });
  }

  const DeliveryLimits limits_;
  const std::optional<std::string> mediaRoot_;
  FaultPlan faults_;
  std::mutex reportsMutex_;
  // Kept as their compact JSON text: a long-running server keeps every report, and the
  // text is a tenth of the memory of the parsed form.
  std::vector<std::string> reports_;
  std::mutex outputMutex_;
  std::mutex stopMutex_;
  std::condition_variable stopChanged_;
  bool stopping_ = false;
};

// SIGTERM and SIGINT are blocked in every thread of the server (the mask is set before
// any of them starts, and threads inherit it) and taken by the main thread with sigwait,
// which then stops the server in an orderly way. SIGUSR1 wakes it the same way when the
// server ends on its own.
sigset_t stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGUSR1);
  return signals;
}

bool blockStopSignals() {
  const sigset_t signals = stopSignals();
  // Writes to a client that has gone must fail, not end the process (TLS writes do not ask
  // for MSG_NOSIGNAL).
  std::signal(SIGPIPE, SIG_IGN);
  return pthread_sigmask(SIG_BLOCK, &signals, nullptr) == 0;
}

void waitForStop() {
  const sigset_t signals = stopSignals();
  int signal = 0;
  while (sigwait(&signals, &signal) != 0) {
  }
}

struct ServeOptions {
  int port = 0;
  std::string media;
  std::vector<std::string> faults;
  std::vector<std::string> tls;
};

int runServe(const ServeOptions& options) {
  std::vector<Fault> faults;
  for (const auto& text : options.faults) {
    std::string error;
    auto fault = parseFault(text, &error);
    if (!fault) return pnxUsage(error);
    faults.push_back(std::move(*fault));
  }
  std::optional<std::string> root;
  if (!options.media.empty()) {
    root = mediaRoot(options.media);
    if (!root) return pnxUsage("no media directory at '" + options.media + "'");
  }

  // Declared before the server, so that it outlives the handlers that refer to it.
  Backend backend(std::move(root), std::move(faults));
  std::unique_ptr<httplib::Server> server;
  if (options.tls.empty()) {
    server = std::make_unique<httplib::Server>();
  } else {
    server = std::make_unique<httplib::SSLServer>(options.tls[0].c_str(), options.tls[1].c_str());
    if (!server->is_valid()) {
      return pnxFail("cannot use the TLS certificate '" + options.tls[0] + "' and key '" +
                     options.tls[1] + "'");
    }
  }
  // The server writes an answer's head and body separately: with Nagle's algorithm the body
  // would wait for the client's delayed ACK, 40 ms on every request.
  server->set_tcp_nodelay(true);
  // A stop waits for each idle kept-alive connection to time out: one second, not five.
  server->set_keep_alive_timeout(1);
  backend.install(*server);
  if (!blockStopSignals()) return pnxFail("cannot block the stop signals");

  int port = options.port;
  if (port == 0) {
    port = server->bind_to_any_port("127.0.0.1");
  } else if (!server->bind_to_port("127.0.0.1", port)) {
    port = -1;
  }
  if (port <= 0) {
    return pnxFail("cannot listen on 127.0.0.1:" + std::to_string(options.port) + ": " +
                   std::strerror(errno));
  }
  const std::string scheme = options.tls.empty() ? "http" : "https";
  // Written out rather than serialised: scripts match this first line as it stands.
  backend.printText("{\"listening\": \"" + scheme + "://127.0.0.1:" + std::to_string(port) + "\"}");

  std::atomic<bool> listenFailed = false, listenEnded = false;
  const pthread_t mainThread = pthread_self();
  std::thread listener([&] {
    if (!server->listen_after_bind()) listenFailed = true;
    listenEnded = true;
    // Wakes the main thread when the server ends on its own; after a stop, the signal
    // stays pending and blocked until the process ends.
    pthread_kill(mainThread, SIGUSR1);
  });
  waitForStop();
  backend.stop();
  // The server ignores a stop until its listen loop runs, and a signal can come first.
  while (!server->is_running() && !listenEnded) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  server->stop();
  listener.join();
  return listenFailed ? pnxFail("the server stopped unexpectedly") : 0;
}

CommandRegistration registration("serve", kServeSummary, [](CLI::App& sub) -> PnxCommandRun {
  auto options = std::make_shared<ServeOptions>();
  sub.add_option("--port", options->port, "Port to listen on; 0 picks a free one")
      ->check(CLI::Range(0, 65535))
      ->type_name("N");
  sub.add_option("--media", options->media, "Serve the files of DIR under /media/NAME")
      ->type_name("DIR");
  sub.add_option("--fault", options->faults,
                 "Answer delivery reports with a fault: "
                 "status=N[,retry-after=V][,delay=S][,drop][,times=N]; repeatable, the "
                 "first fault with uses left applies")
      ->type_name("FAULT")
      ->allow_extra_args(false);
  sub.add_option("--tls", options->tls, "Serve HTTPS with this PEM certificate and key")
      ->expected(2)
      ->type_name("CERT KEY");
  sub.footer(
      "Endpoints: POST /3.0/apps/{appKey}/delivery (gzip JSON {\"delivery\": [...]}), "
      "GET /_pnx/reports, GET|POST /_pnx/faults (a JSON array of faults "
      "replaces the faults), GET /media/NAME. Faults apply to the delivery endpoint only; "
      "drop needs no status, and delay=S alone delays the normal answer. "
      "Prints {\"listening\": URL}, then one JSON line per request. SIGTERM or SIGINT "
      "stops it.");
  return [options](const PnxGlobals&) { return runServe(*options); };
});

}  // namespace
}  // namespace pnx

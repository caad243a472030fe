// DeliveryServer: an in-process HTTP server on 127.0.0.1 playing the delivery endpoint. It
// records every request and answers as the test scripts (200 "{}" by default), optionally
// holding requests until release(). Requests arrive on the server's threads; accessors lock.
#pragma once

#include <httplib.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "codecs/gzip.h"
#include "platform/foundation/json.h"
#include "platform/foundation/value.h"

namespace pnx::testing {

class DeliveryServer {
 public:
  struct Request {
    std::string method;
    std::string path;
    httplib::Headers headers;
    std::string body;  // as received, inflated by the server when it was gzip
    Value json;        // the gunzipped body parsed, or null
    Value records() const { return json["delivery"]; }
  };
  struct Answer {
    int status = 200;
    httplib::Headers headers;
    std::string body = "{}";
  };
  using Responder = std::function<Answer(const Request&)>;

  DeliveryServer() {
    auto handler = [this](const httplib::Request& in, httplib::Response& out) { handle(in, out); };
    server_.Post(".*", handler);
    server_.set_tcp_nodelay(true);
    // Stopping waits for idle kept-alive connections, which the shared session keeps.
    server_.set_keep_alive_timeout(1);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~DeliveryServer() {
    release();
    server_.stop();
    thread_.join();
  }

  std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

  void respond(Responder responder) {
    std::lock_guard lock(mutex_);
    responder_ = std::move(responder);
  }
  void respondWith(int status, httplib::Headers headers = {}, std::string body = "{}") {
    respond([=](const Request&) { return Answer{status, headers, body}; });
  }
  // Requests wait until release() once hold() was called.
  void hold() {
    std::lock_guard lock(mutex_);
    held_ = true;
  }
  void release() {
    std::lock_guard lock(mutex_);
    held_ = false;
    changed_.notify_all();
  }
  // Waits until n requests have arrived (whether answered or held).
  bool waitForRequests(std::size_t n, std::chrono::seconds timeout = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= n; });
  }
  std::vector<Request> requests() {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  void handle(const httplib::Request& in, httplib::Response& out) {
    Request request{in.method, in.path, in.headers, in.body, Value()};
    auto plain = gunzippedData(Data(in.body.begin(), in.body.end()));
    if (auto json = plain ? JSON::parse(*plain) : std::nullopt) request.json = *json;
    Responder responder;
    {
      std::unique_lock lock(mutex_);
      requests_.push_back(request);
      changed_.notify_all();
      changed_.wait(lock, [this] { return !held_; });
      responder = responder_;
    }
    Answer answer = responder ? responder(request) : Answer();
    out.status = answer.status;
    for (const auto& [name, value] : answer.headers) out.set_header(name, value);
    out.set_content(answer.body, "application/json");
  }

  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  Responder responder_;
  bool held_ = false;
  std::vector<Request> requests_;
};

}  // namespace pnx::testing

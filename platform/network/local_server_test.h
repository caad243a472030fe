// An HTTP(S) server of the test's own on a free port of 127.0.0.1, listening on its thread.
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "platform/foundation/url.h"

namespace pnx::testing {

class LocalServer {
 public:
  explicit LocalServer(
      std::unique_ptr<httplib::Server> server = std::make_unique<httplib::Server>())
      : server_(std::move(server)) {
    // Idle kept-alive connections hold a server thread, and stopping waits for them.
    server_->set_keep_alive_timeout(1);
  }
  ~LocalServer() {
    if (!thread_.joinable()) return;
    server_->stop();
    thread_.join();
  }

  httplib::Server* operator->() { return server_.get(); }
  // Returns once the server listens: a stop that came earlier would be ignored by it.
  void start() {
    port_ = server_->bind_to_any_port("127.0.0.1");
    ASSERT_GT(port_, 0);
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    while (!server_->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  int port() const { return port_; }
  URL url(const std::string& path) const {
    const bool tls = dynamic_cast<httplib::SSLServer*>(server_.get());
    return *URL::parse(std::string(tls ? "https" : "http") +
                       "://127.0.0.1:" + std::to_string(port_) + path);
  }

 private:
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace pnx::testing

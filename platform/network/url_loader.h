// The network thread: one thread drives libcurl's multi interface for every task of the
// process. Tasks hand themselves over with start() and cancel(); the thread runs the
// transfers, watches their time-outs on the process Clock, and hands each outcome to the
// task's session for delivery on its delegate queue. Internal to URL loading.
#pragma once

#include <atomic>
#include <memory>

namespace pnx {

class URLSessionTask;

class URLLoader {
 public:
  static URLLoader& shared();
  void start(const std::shared_ptr<URLSessionTask>& task);
  void cancel(const std::shared_ptr<URLSessionTask>& task);

 private:
  class Impl;
  URLLoader();
  std::atomic<Impl*> impl_{nullptr};  // lives for the process, as does its thread
};

}  // namespace pnx

// URL loading: sessions, their tasks, and the delegate that hears about them.
//
//   URLSession::shared()      data tasks with a completion handler; the handler gets
//                             (data, response, error) on the session's own serial
//                             background queue.
//   URLSession::make(...)     a session with a configuration, a delegate and a delegate
//                             queue (DispatchQueue::main() for the main queue, which the
//                             host drains with RunLoop); data and download tasks.
//
// Every task of the process runs on one network thread over libcurl's multi interface
// (opened on first use; see curl_library.h); connections are kept and reused between
// requests to the same host. Only http and https are loaded: any other scheme fails with
// NSURLErrorUnsupportedURL before anything is read. HTTPS is verified against the
// system's certificates plus the PEM certificates in <device>/trust/.
//
// A task is made suspended; resume() starts it, cancel() ends it with NSURLErrorCancelled.
// Exactly one completion reaches each resumed (or cancelled) task: the completion handler
// when the task has one, else the delegate's didCompleteWithError. An HTTP error status is
// not an error: the response carries it. Errors are NSURLErrorDomain values (url_error.h).
//
// A download task streams the body to a file in the container's tmp directory (created
// 0600) and never holds it in memory. On success the delegate's didFinishDownloadingToURL
// gets the file's URL and the file is removed when that callback returns: copy or move it
// there. didCompleteWithError follows on the delegate queue, always after it. A download
// over the configuration's maximumDownloadSize (by its Content-Length or while streaming)
// stops at once with NSURLErrorDataLengthExceedsMaximum and leaves no file.
//
// Time-outs are measured on the process Clock (date.h): a request fails with
// NSURLErrorTimedOut when its timeoutInterval passes without a byte sent or received. A
// test that pins the Clock and advances it past the interval sees the time-out without
// waiting for it.
//
// All functions are thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/dispatch/dispatch.h"
#include "platform/foundation/error.h"
#include "platform/network/http_response.h"
#include "platform/network/url_request.h"

namespace pnx {

class URLSession;
class URLSessionTask;
class URLSessionDownloadTask;

struct URLSessionConfiguration {
  // The largest attachment the service can use.
  static constexpr std::uint64_t kDefaultMaximumDownloadSize = 50ull * 1024 * 1024;

  static URLSessionConfiguration defaultSessionConfiguration() { return {}; }

  // The time-out of tasks made from a URL alone (a URLRequest carries its own).
  double timeoutIntervalForRequest = URLRequest::kDefaultTimeoutInterval;
  // Bodies beyond this many bytes fail with NSURLErrorDataLengthExceedsMaximum; 0: no limit.
  std::uint64_t maximumDownloadSize = kDefaultMaximumDownloadSize;
};

// Callbacks of a session with a delegate; all run on the session's delegate queue, one
// at a time. Defaults do nothing.
class URLSessionDelegate {
 public:
  virtual ~URLSessionDelegate() = default;
  // The last callback: the session was invalidated and every task has completed. error is
  // null after finishTasksAndInvalidate and invalidateAndCancel.
  virtual void didBecomeInvalidWithError(URLSession& session, const ErrorPtr& error);
  // A task ended: error is null on success, whatever the HTTP status.
  virtual void didCompleteWithError(URLSession& session, URLSessionTask& task,
                                    const ErrorPtr& error);
  // A download task's body is complete in the file at location, which is removed when
  // this returns.
  virtual void didFinishDownloadingToURL(URLSession& session, URLSessionDownloadTask& task,
                                         const URL& location);
};

class URLSessionTask : public std::enable_shared_from_this<URLSessionTask> {
 public:
  enum class State { Running, Suspended, Canceling, Completed };

  virtual ~URLSessionTask();
  URLSessionTask(const URLSessionTask&) = delete;
  URLSessionTask& operator=(const URLSessionTask&) = delete;

  // Starts a suspended task; later calls do nothing.
  void resume();
  // Ends the task with NSURLErrorCancelled unless it has already ended.
  void cancel();

  std::uint64_t taskIdentifier() const { return identifier_; }
  const URLRequest& originalRequest() const { return request_; }
  State state() const;
  // The response once its header has arrived.
  std::shared_ptr<const HTTPURLResponse> response() const;
  // Set when the task has completed with an error.
  ErrorPtr error() const;
  std::uint64_t countOfBytesReceived() const;
  URLSession& session() const { return *session_; }
  bool isDownload() const;

 protected:
  URLSessionTask(std::shared_ptr<URLSession> session, URLRequest request);

 private:
  friend class URLSession;
  using DataCompletion =
      std::function<void(std::optional<Data>, std::shared_ptr<const HTTPURLResponse>, ErrorPtr)>;
  std::shared_ptr<URLSession> session_;
  const URLRequest request_;
  const std::uint64_t identifier_;
  DataCompletion completion_;  // data tasks with a completion handler

  mutable std::mutex mutex_;
  State state_ = State::Suspended;
  bool started_ = false;  // resumed or cancelled: counts as outstanding until delivered
  std::shared_ptr<const HTTPURLResponse> response_;
  ErrorPtr error_;
  std::uint64_t bytesReceived_ = 0;
};

class URLSessionDataTask final : public URLSessionTask {
 public:
  URLSessionDataTask(std::shared_ptr<URLSession> session, URLRequest request)
      : URLSessionTask(std::move(session), std::move(request)) {}
};

class URLSessionDownloadTask final : public URLSessionTask {
 public:
  URLSessionDownloadTask(std::shared_ptr<URLSession> session, URLRequest request)
      : URLSessionTask(std::move(session), std::move(request)) {}
};

class URLSession : public std::enable_shared_from_this<URLSession> {
 public:
  using DataCompletion = URLSessionTask::DataCompletion;

  // The process-wide session: default configuration, no delegate, its own serial
  // background queue for completions. It cannot be invalidated.
  static URLSession& shared();
  // A session whose callbacks run on delegateQueue (which must outlive the session;
  // nullptr: a serial queue of its own). The session keeps the delegate until it has
  // heard didBecomeInvalidWithError.
  static std::shared_ptr<URLSession> make(URLSessionConfiguration configuration,
                                          std::shared_ptr<URLSessionDelegate> delegate,
                                          DispatchQueue* delegateQueue);
  ~URLSession();

  // Tasks start suspended. Making one in an invalidated session throws Exception
  // "NSGenericException".
  std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request, DataCompletion completion = {});
  std::shared_ptr<URLSessionDataTask> dataTask(const URL& url, DataCompletion completion = {});
  std::shared_ptr<URLSessionDownloadTask> downloadTask(URLRequest request);
  std::shared_ptr<URLSessionDownloadTask> downloadTask(const URL& url);

  // Lets running tasks finish, takes no new ones, then tells the delegate
  // didBecomeInvalidWithError (null). Without effect on the shared session.
  void finishTasksAndInvalidate();
  // Cancels every task that has started, then invalidates as above.
  void invalidateAndCancel();

  const URLSessionConfiguration& configuration() const { return configuration_; }
  DispatchQueue& delegateQueue() const { return *delegateQueue_; }

  // Tasks of the whole process that were started and whose completion has not yet
  // returned.
  static std::size_t outstandingTaskCount();
  // Waits until outstandingTaskCount() is zero or the deadline passes; true when zero.
  // Completions delivered on the main queue need the main thread's RunLoop: wait there
  // with RunLoop::runUntil([] { return URLSession::outstandingTaskCount() == 0; }, ...).
  static bool waitForOutstandingTasks(std::chrono::steady_clock::time_point deadline);

  URLSession(URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate,
             DispatchQueue* delegateQueue, bool isShared);  // use shared() or make()

 private:
  friend class URLSessionTask;
  friend class URLLoader;
  void checkValid() const;
  void taskStarted(const std::shared_ptr<URLSessionTask>& task);
  // Records the task's outcome and posts its completion (and a download's finish) to the
  // delegate queue; the downloaded file is removed after the finish callback.
  void deliver(const std::shared_ptr<URLSessionTask>& task,
               std::shared_ptr<const HTTPURLResponse> response, std::optional<Data> data,
               std::optional<std::string> downloadedFile, ErrorPtr error,
               std::uint64_t bytesReceived);
  void taskDelivered(const std::shared_ptr<URLSessionTask>& task);
  void invalidateIfIdle(std::unique_lock<std::mutex>& lock);

  const URLSessionConfiguration configuration_;
  std::shared_ptr<URLSessionDelegate> delegate_;
  std::shared_ptr<DispatchQueue> ownQueue_;
  DispatchQueue* delegateQueue_;
  const bool isShared_;

  mutable std::mutex mutex_;
  bool invalidated_ = false;
  bool invalidationDelivered_ = false;
  std::vector<std::weak_ptr<URLSessionTask>> running_;  // started, not yet delivered
};

}  // namespace pnx

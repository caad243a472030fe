#include "platform/network/url_session.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>

#include "platform/network/url_error.h"
#include "platform/network/url_loader.h"

namespace pnx {
namespace {

std::atomic<std::uint64_t> nextTaskIdentifier{1};

// Tasks of the process between their start and the return of their completion.
struct Outstanding {
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t count = 0;
};

Outstanding& outstanding() {
  static Outstanding* instance = new Outstanding;  // used by threads while the process exits
  return *instance;
}

}  // namespace

void URLSessionDelegate::didBecomeInvalidWithError(URLSession&, const ErrorPtr&) {}
void URLSessionDelegate::didCompleteWithError(URLSession&, URLSessionTask&, const ErrorPtr&) {}
void URLSessionDelegate::didFinishDownloadingToURL(URLSession&, URLSessionDownloadTask&,
                                                   const URL&) {}

// ---- tasks -------------------------------------------------------------------------------

URLSessionTask::URLSessionTask(std::shared_ptr<URLSession> session, URLRequest request)
    : session_(std::move(session)),
      request_(std::move(request)),
      identifier_(nextTaskIdentifier++) {}

URLSessionTask::~URLSessionTask() = default;

void URLSessionTask::resume() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (started_) return;
    started_ = true;
    state_ = State::Running;
  }
  auto self = shared_from_this();
  session_->taskStarted(self);
  URLLoader::shared().start(self);
}

void URLSessionTask::cancel() {
  bool wasStarted;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == State::Canceling || state_ == State::Completed) return;
    wasStarted = started_;
    started_ = true;
    state_ = State::Canceling;
  }
  auto self = shared_from_this();
  if (wasStarted) {
    URLLoader::shared().cancel(self);
    return;
  }
  // Never resumed: nothing reached the network, the completion is all there is to do.
  session_->taskStarted(self);
  session_->deliver(self, nullptr, std::nullopt, std::nullopt,
                    makeURLError(NSURLErrorCancelled, request_.url()), 0);
}

URLSessionTask::State URLSessionTask::state() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}

std::shared_ptr<const HTTPURLResponse> URLSessionTask::response() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return response_;
}

ErrorPtr URLSessionTask::error() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return error_;
}

std::uint64_t URLSessionTask::countOfBytesReceived() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return bytesReceived_;
}

bool URLSessionTask::isDownload() const {
  return dynamic_cast<const URLSessionDownloadTask*>(this) != nullptr;
}

// ---- sessions ----------------------------------------------------------------------------

URLSession::URLSession(URLSessionConfiguration configuration,
                       std::shared_ptr<URLSessionDelegate> delegate, DispatchQueue* delegateQueue,
                       bool isShared)
    : configuration_(configuration),
      delegate_(std::move(delegate)),
      delegateQueue_(delegateQueue),
      isShared_(isShared) {
  if (!delegateQueue_) {
    ownQueue_ = DispatchQueue::create(isShared ? "URLSession.shared" : "URLSession.delegate");
    delegateQueue_ = ownQueue_.get();
  }
}

URLSession::~URLSession() = default;

// Made on first use and never destroyed: tasks may complete while the process exits.
URLSession& URLSession::shared() {
  static auto* session = new std::shared_ptr<URLSession>(std::make_shared<URLSession>(
      URLSessionConfiguration::defaultSessionConfiguration(), nullptr, nullptr, true));
  return **session;
}

std::shared_ptr<URLSession> URLSession::make(URLSessionConfiguration configuration,
                                             std::shared_ptr<URLSessionDelegate> delegate,
                                             DispatchQueue* delegateQueue) {
  return std::make_shared<URLSession>(configuration, std::move(delegate), delegateQueue, false);
}

void URLSession::checkValid() const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (invalidated_) {
    throw Exception("NSGenericException", "Task created in a session that has been invalidated");
  }
}

std::shared_ptr<URLSessionDataTask> URLSession::dataTask(URLRequest request,
                                                         DataCompletion completion) {
  checkValid();
  auto task = std::make_shared<URLSessionDataTask>(shared_from_this(), std::move(request));
  task->completion_ = std::move(completion);
  return task;
}

std::shared_ptr<URLSessionDataTask> URLSession::dataTask(const URL& url,
                                                         DataCompletion completion) {
  return dataTask(URLRequest(url, URLRequestCachePolicy::UseProtocolCachePolicy,
                             configuration_.timeoutIntervalForRequest),
                  std::move(completion));
}

std::shared_ptr<URLSessionDownloadTask> URLSession::downloadTask(URLRequest request) {
  checkValid();
  return std::make_shared<URLSessionDownloadTask>(shared_from_this(), std::move(request));
}

std::shared_ptr<URLSessionDownloadTask> URLSession::downloadTask(const URL& url) {
  return downloadTask(URLRequest(url, URLRequestCachePolicy::UseProtocolCachePolicy,
                                 configuration_.timeoutIntervalForRequest));
}

void URLSession::taskStarted(const std::shared_ptr<URLSessionTask>& task) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    running_.push_back(task);
  }
  Outstanding& all = outstanding();
  std::lock_guard<std::mutex> lock(all.mutex);
  ++all.count;
}

void URLSession::deliver(const std::shared_ptr<URLSessionTask>& task,
                         std::shared_ptr<const HTTPURLResponse> response, std::optional<Data> data,
                         std::optional<std::string> downloadedFile, ErrorPtr error,
                         std::uint64_t bytesReceived) {
  {
    std::lock_guard<std::mutex> lock(task->mutex_);
    task->state_ = URLSessionTask::State::Completed;
    task->response_ = response;
    task->error_ = error;
    task->bytesReceived_ = bytesReceived;
  }
  std::shared_ptr<URLSessionDelegate> delegate;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    delegate = delegate_;
  }
  auto self = shared_from_this();
  delegateQueue_->async([self, task, delegate, response = std::move(response),
                         data = std::move(data), file = std::move(downloadedFile),
                         error = std::move(error)]() mutable {
    if (task->completion_) {
      task->completion_(std::move(data), std::move(response), error);
    } else if (delegate && file) {
      delegate->didFinishDownloadingToURL(*self, static_cast<URLSessionDownloadTask&>(*task),
                                          URL::fileURL(*file));
    }
    if (file) ::unlink(file->c_str());
    if (!task->completion_ && delegate) delegate->didCompleteWithError(*self, *task, error);
    self->taskDelivered(task);
  });
}

void URLSession::taskDelivered(const std::shared_ptr<URLSessionTask>& task) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    std::erase_if(running_, [&](const std::weak_ptr<URLSessionTask>& entry) {
      auto running = entry.lock();
      return !running || running == task;
    });
    invalidateIfIdle(lock);
  }
  Outstanding& all = outstanding();
  {
    std::lock_guard<std::mutex> lock(all.mutex);
    --all.count;
  }
  all.changed.notify_all();
}

// Called with mutex_ held. The delegate hears of the invalidation after the last
// completion, on the same queue, and is let go then.
void URLSession::invalidateIfIdle(std::unique_lock<std::mutex>&) {
  if (!invalidated_ || invalidationDelivered_ || !running_.empty()) return;
  invalidationDelivered_ = true;
  std::shared_ptr<URLSessionDelegate> delegate = std::move(delegate_);
  if (!delegate) return;
  auto self = shared_from_this();
  delegateQueue_->async([self, delegate] { delegate->didBecomeInvalidWithError(*self, nullptr); });
}

void URLSession::finishTasksAndInvalidate() {
  if (isShared_) return;
  std::unique_lock<std::mutex> lock(mutex_);
  invalidated_ = true;
  invalidateIfIdle(lock);
}

void URLSession::invalidateAndCancel() {
  if (isShared_) return;
  std::vector<std::shared_ptr<URLSessionTask>> tasks;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    invalidated_ = true;
    for (const auto& entry : running_) {
      if (auto task = entry.lock()) tasks.push_back(std::move(task));
    }
  }
  for (const auto& task : tasks) task->cancel();
  std::unique_lock<std::mutex> lock(mutex_);
  invalidateIfIdle(lock);
}

std::size_t URLSession::outstandingTaskCount() {
  Outstanding& all = outstanding();
  std::lock_guard<std::mutex> lock(all.mutex);
  return all.count;
}

bool URLSession::waitForOutstandingTasks(std::chrono::steady_clock::time_point deadline) {
  Outstanding& all = outstanding();
  std::unique_lock<std::mutex> lock(all.mutex);
  return all.changed.wait_until(lock, deadline, [&] { return all.count == 0; });
}

}  // namespace pnx

#include "platform/network/url_loader.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "platform/files/container.h"
#include "platform/foundation/date.h"
#include "platform/network/curl_library.h"
#include "platform/network/url_error.h"
#include "platform/network/url_session.h"

namespace pnx {
namespace {

// Redirects followed before failing with NSURLErrorHTTPTooManyRedirects.
constexpr long kMaximumRedirects = 16;
// The receive buffer: large enough that a fast local download is not held up by the
// number of callbacks, small enough to stay out of the process's footprint.
constexpr long kReceiveBufferSize = 100 * 1024;
constexpr long kConnectionsPerHost = 6;
// How long the thread sleeps when nothing else wakes it; a change of the wall clock is
// noticed within this.
constexpr int kLongestPollMilliseconds = 1000;
constexpr const char* kSystemBundle = "/etc/ssl/certs/ca-certificates.crt";
constexpr const char* kUserAgent = "QuorvexMobilePushNotification/" PNX_VERSION;

double nowSeconds() {
  return Clock::now().timeIntervalSince1970();
}

bool readFile(const std::string& path, std::string& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

// The certificates HTTPS trusts: the system's bundle, then every PEM certificate file in
// <device>/trust/ (in name order), so that a local test CA can be trusted without
// touching the system's store. Read for each secure transfer, since a test may add its CA
// while the process runs; the system's bundle is read once.
std::string trustedCertificates() {
  static const std::string system = [] {
    std::string text;
    readFile(kSystemBundle, text);
    return text;
  }();
  std::string bundle = system;
  std::string directory = Device::directory() + "/trust";
  DIR* dir = opendir(directory.c_str());
  if (!dir) return bundle;
  std::vector<std::string> names;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string path = directory + "/" + name;
    struct stat info;
    std::string text;
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || !readFile(path, text)) {
      continue;
    }
    if (text.find("-----BEGIN CERTIFICATE-----") == std::string::npos) continue;
    bundle += "\n" + text + "\n";
  }
  return bundle;
}

// The NSURLErrorDomain code for what libcurl reported.
std::int64_t errorCodeFor(CURLcode code) {
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return NSURLErrorTimedOut;
    case CURLE_UNSUPPORTED_PROTOCOL:
      return NSURLErrorUnsupportedURL;
    case CURLE_URL_MALFORMAT:
      return NSURLErrorBadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return NSURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return NSURLErrorCannotConnectToHost;
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return NSURLErrorNetworkConnectionLost;
    case CURLE_TOO_MANY_REDIRECTS:
      return NSURLErrorHTTPTooManyRedirects;
    case CURLE_FILESIZE_EXCEEDED:
      return NSURLErrorDataLengthExceedsMaximum;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
      return NSURLErrorServerCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_USE_SSL_FAILED:
      return NSURLErrorSecureConnectionFailed;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      return NSURLErrorBadServerResponse;
    default:
      return NSURLErrorUnknown;
  }
}

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string trimmed(std::string_view text) {
  std::size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos) return {};
  std::size_t end = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(begin, end + 1 - begin));
}

}  // namespace

// One request in flight on the network thread.
struct Transfer {
  std::shared_ptr<URLSessionTask> task;
  CURL* easy = nullptr;
  curl_slist* headers = nullptr;
  char errorText[CURL_ERROR_SIZE] = {};

  // The header fields of the latest response (a redirect or an interim answer starts a
  // new one), in arrival order; repeated names are combined with ", ".
  std::vector<std::pair<std::string, std::string>> responseHeaders;
  Data body;             // data tasks
  int file = -1;         // download tasks
  std::string filePath;  // download tasks
  std::uint64_t received = 0;
  std::uint64_t limit = 0;   // 0: no limit
  std::int64_t failure = 0;  // a failure of our own making (too large, write failed)
  std::string failureDetail;

  double timeout = URLRequest::kDefaultTimeoutInterval;
  double lastProgress = 0;  // Clock seconds of the last byte sent or received
  curl_off_t lastDown = 0;
  curl_off_t lastUp = 0;
};

class URLLoader::Impl {
 public:
  explicit Impl(const CurlLibrary* curl) : curl_(curl) {
    multi_ = curl_->multi_init();
    // Keep idle connections for reuse by later requests to the same hosts, and open at
    // most a few per host: further requests wait for one of them, as the platform's do.
    curl_->multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 32L);
    curl_->multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, kConnectionsPerHost);
    Clock::addChangeListener([this] { curl_->multi_wakeup(multi_); });
    std::thread(&Impl::run, this).detach();
  }

  void post(std::shared_ptr<URLSessionTask> task, bool cancel) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      inbox_.push_back({std::move(task), cancel});
    }
    curl_->multi_wakeup(multi_);
  }

 private:
  struct Command {
    std::shared_ptr<URLSessionTask> task;
    bool cancel;
  };

  void run() {
    for (;;) {
      takeCommands();
      int running = 0;
      curl_->multi_perform(multi_, &running);
      finishDone();
      expireStalled();
      curl_->multi_poll(multi_, nullptr, 0, pollMilliseconds(), nullptr);
    }
  }

  void takeCommands() {
    std::vector<Command> commands;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      commands.swap(inbox_);
    }
    for (Command& command : commands) {
      if (command.cancel) {
        cancel(command.task);
      } else {
        begin(std::move(command.task));
      }
    }
  }

  int pollMilliseconds() const {
    if (transfers_.empty() || Clock::isPinned()) return kLongestPollMilliseconds;
    double now = nowSeconds();
    double soonest = kLongestPollMilliseconds / 1000.0;
    for (const auto& [easy, transfer] : transfers_) {
      soonest = std::min(soonest, transfer->lastProgress + transfer->timeout - now);
    }
    return static_cast<int>(std::max(0.0, soonest) * 1000) + 1;
  }

  // ---- starting --------------------------------------------------------------------

  void begin(std::shared_ptr<URLSessionTask> task) {
    auto transfer = std::make_unique<Transfer>();
    transfer->task = std::move(task);
    const URLRequest& request = transfer->task->originalRequest();
    transfer->limit = transfer->task->session().configuration().maximumDownloadSize;
    transfer->timeout = request.timeoutInterval() > 0 ? request.timeoutInterval()
                                                      : URLRequest::kDefaultTimeoutInterval;
    transfer->lastProgress = nowSeconds();
    if (transfer->task->isDownload() && !openFile(*transfer)) {
      complete(std::move(transfer), NSURLErrorCannotCreateFile, transfer->failureDetail);
      return;
    }
    transfer->easy = curl_->easy_init();
    if (!transfer->easy) {
      complete(std::move(transfer), NSURLErrorUnknown, "cannot make a transfer handle");
      return;
    }
    configure(*transfer, request);
    CURL* easy = transfer->easy;
    transfers_.emplace(easy, std::move(transfer));
    curl_->multi_add_handle(multi_, easy);
  }

  // The download's file: a new name in the container's tmp directory, 0600.
  bool openFile(Transfer& transfer) {
    std::string path = Container::temporaryDirectory() + "/download-XXXXXX.tmp";
    std::vector<char> name(path.begin(), path.end());
    name.push_back('\0');
    transfer.file = mkostemps(name.data(), 4, O_CLOEXEC);
    if (transfer.file < 0) {
      transfer.failureDetail = std::string("cannot create a file in ") +
                               Container::temporaryDirectory() + ": " + std::strerror(errno);
      return false;
    }
    transfer.filePath = name.data();
    return true;
  }

  void configure(Transfer& transfer, const URLRequest& request) {
    CURL* easy = transfer.easy;
    auto set = [&](CURLoption option, auto value) { curl_->easy_setopt(easy, option, value); };
    set(CURLOPT_PRIVATE, static_cast<void*>(&transfer));
    set(CURLOPT_URL, request.url().absoluteString().c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, kMaximumRedirects);
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_ERRORBUFFER, transfer.errorText);
    set(CURLOPT_BUFFERSIZE, kReceiveBufferSize);
    set(CURLOPT_ACCEPT_ENCODING, "");  // every decoding the library has; bodies come decoded
    set(CURLOPT_HEADERFUNCTION, &Impl::onHeader);
    set(CURLOPT_HEADERDATA, static_cast<void*>(&transfer));
    set(CURLOPT_WRITEFUNCTION, &Impl::onBody);
    set(CURLOPT_WRITEDATA, static_cast<void*>(&transfer));
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_XFERINFOFUNCTION, &Impl::onProgress);
    set(CURLOPT_XFERINFODATA, static_cast<void*>(&transfer));
    if (transfer.limit > 0) {
      set(CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(transfer.limit));
    }
    if (request.url().scheme() == "https") {
      std::string certificates = trustedCertificates();
      curl_blob blob{certificates.data(), certificates.size(), CURL_BLOB_COPY};
      set(CURLOPT_CAINFO_BLOB, &blob);
    }

    const std::string& method = request.httpMethod();
    const Data& body = request.httpBody();
    if (method == "HEAD") {
      set(CURLOPT_NOBODY, 1L);
    } else if (method != "GET" || !body.empty()) {
      if (method != "POST") set(CURLOPT_CUSTOMREQUEST, method.c_str());
      // The body lives in the task's request, which outlives the transfer.
      set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
      set(CURLOPT_POSTFIELDS, static_cast<const void*>(body.data()));
    }

    bool hasUserAgent = false;
    for (const auto& [name, value] : request.allHTTPHeaderFields()) {
      hasUserAgent = hasUserAgent || sameName(name, "User-Agent");
      transfer.headers = curl_->slist_append(transfer.headers, (name + ": " + value).c_str());
    }
    if (!hasUserAgent) set(CURLOPT_USERAGENT, kUserAgent);
    // The body goes at once; waiting for "100 Continue" costs a round trip per request.
    if (!request.valueForHTTPHeaderField("Expect")) {
      transfer.headers = curl_->slist_append(transfer.headers, "Expect:");
    }
    set(CURLOPT_HTTPHEADER, transfer.headers);
  }

  // ---- callbacks (on this thread, inside multi_perform) ----------------------------

  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
    auto& transfer = *static_cast<Transfer*>(user);
    std::string_view line(data, size * count);
    if (line.rfind("HTTP/", 0) == 0) {
      transfer.responseHeaders.clear();  // a new response: a redirect or an interim one
    } else if (std::size_t colon = line.find(':'); colon != std::string_view::npos) {
      std::string name = trimmed(line.substr(0, colon));
      std::string value = trimmed(line.substr(colon + 1));
      auto same = std::find_if(transfer.responseHeaders.begin(), transfer.responseHeaders.end(),
                               [&](const auto& field) { return sameName(field.first, name); });
      if (same == transfer.responseHeaders.end()) {
        transfer.responseHeaders.emplace_back(std::move(name), std::move(value));
      } else {
        same->second += ", " + value;
      }
    }
    transfer.lastProgress = nowSeconds();
    return size * count;
  }

  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto& transfer = *static_cast<Transfer*>(user);
    std::size_t length = size * count;
    transfer.received += length;
    transfer.lastProgress = nowSeconds();
    if (transfer.limit > 0 && transfer.received > transfer.limit) {
      transfer.failure = NSURLErrorDataLengthExceedsMaximum;
      transfer.failureDetail = "more than " + std::to_string(transfer.limit) + " bytes";
      return 0;  // stops the transfer
    }
    if (transfer.file < 0) {
      transfer.body.insert(transfer.body.end(), data, data + length);
      return length;
    }
    for (std::size_t written = 0; written < length;) {
      ssize_t n = ::write(transfer.file, data + written, length - written);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        transfer.failure = NSURLErrorCannotWriteToFile;
        transfer.failureDetail = transfer.filePath + ": " + std::strerror(errno);
        return 0;
      }
      written += static_cast<std::size_t>(n);
    }
    return length;
  }

  static int onProgress(void* user, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up) {
    auto& transfer = *static_cast<Transfer*>(user);
    if (down != transfer.lastDown || up != transfer.lastUp) {
      transfer.lastDown = down;
      transfer.lastUp = up;
      transfer.lastProgress = nowSeconds();
    }
    return 0;
  }

  // ---- ending ------------------------------------------------------------------------

  void finishDone() {
    int left = 0;
    while (CURLMsg* message = curl_->multi_info_read(multi_, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURLcode result = message->data.result;
      std::unique_ptr<Transfer> transfer = take(message->easy_handle);
      if (!transfer) continue;
      if (transfer->failure != 0) {
        complete(std::move(transfer), transfer->failure, transfer->failureDetail);
      } else if (result != CURLE_OK) {
        std::string detail =
            transfer->errorText[0] ? transfer->errorText : curl_->easy_strerror(result);
        complete(std::move(transfer), errorCodeFor(result), detail);
      } else {
        complete(std::move(transfer), 0, {});
      }
    }
  }

  void expireStalled() {
    double now = nowSeconds();
    std::vector<CURL*> stalled;
    for (const auto& [easy, transfer] : transfers_) {
      if (now - transfer->lastProgress >= transfer->timeout) stalled.push_back(easy);
    }
    for (CURL* easy : stalled) {
      std::unique_ptr<Transfer> transfer = take(easy);
      std::string detail = "no progress for " + std::to_string(transfer->timeout) + " s";
      complete(std::move(transfer), NSURLErrorTimedOut, detail);
    }
  }

  void cancel(const std::shared_ptr<URLSessionTask>& task) {
    for (const auto& [easy, transfer] : transfers_) {
      if (transfer->task == task) {
        std::unique_ptr<Transfer> taken = take(easy);
        complete(std::move(taken), NSURLErrorCancelled, {});
        return;
      }
    }
  }

  // Removes the transfer from the multi handle; the response is read before the handle
  // goes.
  std::unique_ptr<Transfer> take(CURL* easy) {
    auto found = transfers_.find(easy);
    if (found == transfers_.end()) return nullptr;
    std::unique_ptr<Transfer> transfer = std::move(found->second);
    transfers_.erase(found);
    curl_->multi_remove_handle(multi_, easy);
    return transfer;
  }

  std::shared_ptr<const HTTPURLResponse> responseOf(Transfer& transfer) {
    long status = 0;
    curl_->easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
    if (status == 0) return nullptr;
    char* effective = nullptr;
    curl_->easy_getinfo(transfer.easy, CURLINFO_EFFECTIVE_URL, &effective);
    std::optional<URL> url = effective ? URL::parse(effective) : std::nullopt;
    if (!url) url = transfer.task->originalRequest().url();
    Dictionary fields;
    for (auto& [name, value] : transfer.responseHeaders) fields.emplace(Value(name), Value(value));
    return std::make_shared<HTTPURLResponse>(std::move(url), status, Value(std::move(fields)));
  }

  // Ends the transfer: frees its handles, removes a failed download's file, and hands
  // the outcome to the session. code 0 is success.
  void complete(std::unique_ptr<Transfer> transfer, std::int64_t code, const std::string& detail) {
    std::shared_ptr<const HTTPURLResponse> response;
    if (transfer->easy) {
      response = responseOf(*transfer);
      curl_->easy_cleanup(transfer->easy);
    }
    if (transfer->headers) curl_->slist_free_all(transfer->headers);
    if (transfer->file >= 0) ::close(transfer->file);
    ErrorPtr error;
    if (code != 0) {
      error = makeURLError(code, transfer->task->originalRequest().url(), detail);
      if (!transfer->filePath.empty()) ::unlink(transfer->filePath.c_str());
    }
    std::optional<Data> data;
    std::optional<std::string> file;
    if (!error) {
      if (transfer->filePath.empty()) {
        data = std::move(transfer->body);
      } else {
        file = transfer->filePath;
      }
    }
    URLSession& session = transfer->task->session();
    session.deliver(transfer->task, std::move(response), std::move(data), std::move(file),
                    std::move(error), transfer->received);
  }

  const CurlLibrary* curl_;
  CURLM* multi_ = nullptr;
  std::mutex mutex_;
  std::vector<Command> inbox_;
  // Touched only by the network thread.
  std::map<CURL*, std::unique_ptr<Transfer>> transfers_;
};

URLLoader& URLLoader::shared() {
  static URLLoader* loader = new URLLoader;
  return *loader;
}

URLLoader::URLLoader() = default;

// The thread and libcurl start with the first task that needs them; a task that fails
// before that (an unsupported URL) costs nothing.
void URLLoader::start(const std::shared_ptr<URLSessionTask>& task) {
  const URL& url = task->originalRequest().url();
  std::string scheme = url.scheme();
  if (scheme != "http" && scheme != "https") {
    task->session().deliver(task, nullptr, std::nullopt, std::nullopt,
                            makeURLError(NSURLErrorUnsupportedURL, url,
                                         "scheme \"" + scheme + "\" is not http or https"),
                            0);
    return;
  }
  static std::once_flag once;
  static std::string loadError;
  std::call_once(once, [this] {
    const CurlLibrary* curl = CurlLibrary::get(&loadError);
    if (curl) impl_.store(new Impl(curl), std::memory_order_release);
  });
  Impl* impl = impl_.load(std::memory_order_acquire);
  if (!impl) {
    task->session().deliver(task, nullptr, std::nullopt, std::nullopt,
                            makeURLError(NSURLErrorUnknown, url, loadError), 0);
    return;
  }
  impl->post(task, false);
}

// A task that never reached the network thread has already been delivered.
void URLLoader::cancel(const std::shared_ptr<URLSessionTask>& task) {
  if (Impl* impl = impl_.load(std::memory_order_acquire)) impl->post(task, true);
}

}  // namespace pnx

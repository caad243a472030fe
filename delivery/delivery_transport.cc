#include "delivery/delivery_transport.h"

#include <curl/curl.h>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace pnx {

namespace {

std::mutex outstandingMutex;
std::condition_variable outstandingChanged;
std::size_t outstanding = 0;

struct Exchange {
  Data body;
  Dictionary headers;
};

std::size_t collectBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* body = &static_cast<Exchange*>(user)->body;
  body->insert(body->end(), data, data + size * count);
  return size * count;
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\r' || text.back() == '\n' || text.back() == ' ')) {
    text.pop_back();
  }
  std::size_t start = text.find_first_not_of(' ');
  return start == std::string::npos ? std::string() : text.substr(start);
}

std::size_t collectHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* headers = &static_cast<Exchange*>(user)->headers;
  std::string line(data, size * count);
  if (line.rfind("HTTP/", 0) == 0) headers->clear();  // a new response begins
  std::size_t colon = line.find(':');
  if (colon != std::string::npos) {
    Value name(trimmed(line.substr(0, colon)));
    if (!headers->count(name)) (*headers)[name] = Value(trimmed(line.substr(colon + 1)));
  }
  return size * count;
}

ErrorPtr transportError(CURLcode code, const URL& url) {
  std::int64_t urlCode = -1;
  std::string description = "An unknown error occurred.";
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      urlCode = -1001;
      description = "The request timed out.";
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
      urlCode = -1003;
      description = "A server with the specified hostname could not be found.";
      break;
    case CURLE_COULDNT_CONNECT:
      urlCode = -1004;
      description = "Could not connect to the server.";
      break;
    case CURLE_GOT_NOTHING:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_PARTIAL_FILE:
      urlCode = -1005;
      description = "The network connection was lost.";
      break;
    default:
      break;
  }
  return Error::make(NSURLErrorDomain, urlCode,
                     Value::dict({{NSLocalizedDescriptionKey, description},
                                  {NSURLErrorKey, Value(ObjectPtr(std::make_shared<URL>(url)))},
                                  {NSDebugDescriptionErrorKey, curl_easy_strerror(code)}}));
}

void perform(const DeliveryHTTPRequest& request, const DeliveryHTTPCompletion& completion) {
  static std::once_flag initialised;
  std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  CURL* curl = curl_easy_init();
  Exchange exchange;
  curl_slist* headers = nullptr;
  for (const auto& [name, value] : request.headers) {
    headers = curl_slist_append(headers, (name + ": " + value).c_str());
  }
  headers = curl_slist_append(headers, "Expect:");
  curl_easy_setopt(curl, CURLOPT_URL, request.url.absoluteString().c_str());
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, static_cast<long>(request.timeoutInterval));
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(request.timeoutInterval));
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collectBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &exchange);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, collectHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &exchange);
  CURLcode code = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_cleanup(curl);
  curl_slist_free_all(headers);
  if (code != CURLE_OK) {
    completion(std::nullopt, nullptr, transportError(code, request.url));
    return;
  }
  completion(
      std::move(exchange.body),
      std::make_shared<HTTPURLResponse>(request.url, status, Value(std::move(exchange.headers))),
      nullptr);
}

}  // namespace

void startDeliveryHTTPRequest(DeliveryHTTPRequest request, DeliveryHTTPCompletion completion) {
  {
    std::lock_guard lock(outstandingMutex);
    ++outstanding;
  }
  std::thread([request = std::move(request), completion = std::move(completion)] {
    perform(request, completion);
    std::lock_guard lock(outstandingMutex);
    --outstanding;
    outstandingChanged.notify_all();
  }).detach();
}

std::size_t outstandingDeliveryHTTPRequests() {
  std::lock_guard lock(outstandingMutex);
  return outstanding;
}

bool waitForDeliveryHTTPRequests(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(outstandingMutex);
  return outstandingChanged.wait_until(lock, deadline, [] { return outstanding == 0; });
}

}  // namespace pnx

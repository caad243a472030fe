// URLRequest: what to load. A value type: method, URL, header fields, body, time-out and
// cache policy.
//
// Header field names are case-insensitive: setting "content-type" replaces a
// "Content-Type" set before (the first spelling is kept, as sent on the wire), and lookups
// match in any case.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/url.h"
#include "platform/foundation/value.h"

namespace pnx {

// The platform's cache policies. This platform keeps no URL cache, so every policy loads
// from the network; the value is carried for callers that set it.
enum class URLRequestCachePolicy : int {
  UseProtocolCachePolicy = 0,
  ReloadIgnoringLocalCacheData = 1,
  ReturnCacheDataElseLoad = 2,
  ReturnCacheDataDontLoad = 3,
};

class URLRequest {
 public:
  using HeaderFields = std::vector<std::pair<std::string, std::string>>;

  // The platform's default: a minute without progress fails the request.
  static constexpr double kDefaultTimeoutInterval = 60;

  explicit URLRequest(
      URL url, URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::UseProtocolCachePolicy,
      double timeoutInterval = kDefaultTimeoutInterval);

  const URL& url() const { return url_; }
  void setURL(URL url) { url_ = std::move(url); }
  // "GET" unless set; names are sent as given.
  const std::string& httpMethod() const { return method_; }
  void setHTTPMethod(std::string method) { method_ = std::move(method); }
  const Data& httpBody() const { return body_; }
  void setHTTPBody(Data body) { body_ = std::move(body); }
  // Seconds without progress (no byte sent or received) after which the request fails
  // with NSURLErrorTimedOut. Zero or less means the default.
  double timeoutInterval() const { return timeoutInterval_; }
  void setTimeoutInterval(double seconds) { timeoutInterval_ = seconds; }
  URLRequestCachePolicy cachePolicy() const { return cachePolicy_; }
  void setCachePolicy(URLRequestCachePolicy policy) { cachePolicy_ = policy; }

  // Sets the field, replacing one of the same name in any case; an empty value removes it.
  // Names or values holding line breaks or NUL are refused (std::invalid_argument), since
  // they would let a value forge further header lines.
  void setValue(std::string_view value, std::string_view field);
  // Appends to the field's value, comma-separated, as HTTP combines repeated fields.
  void addValue(std::string_view value, std::string_view field);
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  const HeaderFields& allHTTPHeaderFields() const { return headers_; }

 private:
  HeaderFields::iterator find(std::string_view field);
  URL url_;
  std::string method_ = "GET";
  Data body_;
  double timeoutInterval_;
  URLRequestCachePolicy cachePolicy_;
  HeaderFields headers_;
};

}  // namespace pnx

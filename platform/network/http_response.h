// HTTPURLResponse: what an HTTP exchange answered: status code, header fields, URL.
// Header fields are kept as received (a dictionary of string to string, first-seen
// spelling); allHeaderFields() lookup is exact, as a dictionary's is; valueForHTTPHeaderField()
// and headerValue() ignore case, as HTTP header names do (HTTP/2 sends them in lower case).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"

namespace pnx {

class HTTPURLResponse final : public Object {
 public:
  HTTPURLResponse(std::optional<URL> url, long statusCode, Value headerFields = {});

  long statusCode() const { return statusCode_; }
  const Value& allHeaderFields() const { return headers_; }
  // The field's value as received (a string, or a number when built so); null when absent.
  const Value& valueForHTTPHeaderField(std::string_view name) const;
  // The field's value as text: numbers in their description; none when absent.
  std::optional<std::string> headerValue(std::string_view name) const;
  const std::optional<URL>& url() const { return url_; }

  std::string className() const override { return "NSHTTPURLResponse"; }
  std::string description() const override;

 private:
  std::optional<URL> url_;
  long statusCode_;
  Value headers_;
};

}  // namespace pnx

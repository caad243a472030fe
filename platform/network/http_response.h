// HTTPURLResponse: what an HTTP exchange answered: status code, header fields, URL.
// Header fields are kept as received (a dictionary of string to string, first-seen
// spelling); allHeaderFields() lookup is exact, headerValue() is case-insensitive.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/export.h"
#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"

namespace pnx {

class PNX_EXPORT HTTPURLResponse final : public Object {
 public:
  HTTPURLResponse(std::optional<URL> url, long statusCode, Value headerFields = {});

  long statusCode() const { return statusCode_; }
  const Value& allHeaderFields() const { return headers_; }
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

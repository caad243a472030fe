#include "platform/network/http_response.h"

#include <strings.h>

namespace pnx {

HTTPURLResponse::HTTPURLResponse(std::optional<URL> url, long statusCode, Value headerFields)
    : url_(std::move(url)),
      statusCode_(statusCode),
      headers_(headerFields.isDictionary() ? std::move(headerFields) : Value(Dictionary{})) {}

const Value& HTTPURLResponse::valueForHTTPHeaderField(std::string_view name) const {
  static const Value absent;
  for (const auto& [key, value] : *headers_.asDictionary()) {
    const std::string* field = key.asString();
    if (field && field->size() == name.size() &&
        strncasecmp(field->data(), name.data(), name.size()) == 0) {
      return value;
    }
  }
  return absent;
}

std::optional<std::string> HTTPURLResponse::headerValue(std::string_view name) const {
  const Value& value = valueForHTTPHeaderField(name);
  if (const std::string* text = value.asString()) return *text;
  if (value.isNumber()) return value.description();
  return std::nullopt;
}

std::string HTTPURLResponse::description() const {
  std::string url = url_ ? url_->absoluteString() : "(null)";
  return "<NSHTTPURLResponse> { URL: " + url + " } { Status Code: " + std::to_string(statusCode_) +
         ", Headers " + headers_.description() + " }";
}

}  // namespace pnx

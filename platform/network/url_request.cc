#include "platform/network/url_request.h"

#include <strings.h>

#include <algorithm>
#include <stdexcept>

namespace pnx {
namespace {

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

void checkHeaderText(std::string_view text, const char* what) {
  if (text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos) {
    throw std::invalid_argument(std::string("URLRequest: a header ") + what +
                                " holds a line break or NUL");
  }
}

void checkField(std::string_view field) {
  if (field.empty() || field.find(':') != std::string_view::npos) {
    throw std::invalid_argument("URLRequest: header name \"" + std::string(field) +
                                "\" is empty or holds ':'");
  }
  checkHeaderText(field, "name");
}

}  // namespace

URLRequest::URLRequest(URL url, URLRequestCachePolicy cachePolicy, double timeoutInterval)
    : url_(std::move(url)), timeoutInterval_(timeoutInterval), cachePolicy_(cachePolicy) {}

URLRequest::HeaderFields::iterator URLRequest::find(std::string_view field) {
  return std::find_if(headers_.begin(), headers_.end(),
                      [&](const auto& entry) { return sameName(entry.first, field); });
}

void URLRequest::setValue(std::string_view value, std::string_view field) {
  checkField(field);
  checkHeaderText(value, "value");
  auto existing = find(field);
  if (value.empty()) {
    if (existing != headers_.end()) headers_.erase(existing);
  } else if (existing != headers_.end()) {
    existing->second = value;
  } else {
    headers_.emplace_back(field, value);
  }
}

void URLRequest::addValue(std::string_view value, std::string_view field) {
  checkField(field);
  checkHeaderText(value, "value");
  auto existing = find(field);
  if (existing == headers_.end()) {
    if (!value.empty()) headers_.emplace_back(field, value);
  } else if (!value.empty()) {
    existing->second += ",";
    existing->second += value;
  }
}

std::optional<std::string> URLRequest::valueForHTTPHeaderField(std::string_view field) const {
  for (const auto& [name, value] : headers_) {
    if (sameName(name, field)) return value;
  }
  return std::nullopt;
}

}  // namespace pnx

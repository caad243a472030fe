#include "tools/pnx/serve/routing.h"

#include <algorithm>
#include <cctype>

namespace pnx::serve {

namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The path part of a request target (no query, no fragment).
std::string_view pathOf(std::string_view target) {
  return target.substr(0, target.find_first_of("?#"));
}

std::vector<std::string_view> splitAtSlashes(std::string_view path) {
  std::vector<std::string_view> segments;
  std::size_t start = 0;
  while (true) {
    const std::size_t slash = path.find('/', start);
    segments.push_back(path.substr(start, slash - start));
    if (slash == std::string_view::npos) return segments;
    start = slash + 1;
  }
}

// Decoded segments of an origin-form path ("/a/b" -> "a", "b"); nullopt when the target
// does not start with a slash or holds a malformed escape.
std::optional<std::vector<std::string>> decodedSegments(std::string_view path) {
  if (path.empty() || path.front() != '/') return std::nullopt;
  std::vector<std::string> segments;
  for (std::string_view raw : splitAtSlashes(path.substr(1))) {
    auto decoded = percentDecode(raw);
    if (!decoded) return std::nullopt;
    segments.push_back(std::move(*decoded));
  }
  return segments;
}

Route endpointRoute(Endpoint endpoint, std::string_view method,
                    std::initializer_list<std::string_view> methods) {
  Route route;
  route.endpoint = endpoint;
  for (std::string_view allowed : methods) {
    if (method == allowed) route.methodAllowed = true;
    if (!route.allow.empty()) route.allow += ", ";
    route.allow += allowed;
  }
  return route;
}

bool refusedSegment(std::string_view segment) {
  return segment.empty() || segment == "." || segment == ".." ||
         segment.find('/') != std::string_view::npos ||
         segment.find('\0') != std::string_view::npos;
}

}  // namespace

const std::string* findHeader(const HeaderList& headers, std::string_view name) {
  for (const auto& [key, value] : headers) {
    if (equalsIgnoringCase(key, name)) return &value;
  }
  return nullptr;
}

std::optional<std::string> percentDecode(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const int high = hexDigit(text[i + 1]), low = hexDigit(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return decoded;
}

std::optional<std::string> safeMediaPath(std::string_view encodedName) {
  std::string relative;
  for (std::string_view raw : splitAtSlashes(encodedName)) {
    if (refusedSegment(raw)) return std::nullopt;
    auto decoded = percentDecode(raw);
    if (!decoded || refusedSegment(*decoded)) return std::nullopt;
    if (!relative.empty()) relative += '/';
    relative += *decoded;
  }
  return relative;
}

Route routeRequest(std::string_view method, std::string_view target) {
  const std::string_view path = pathOf(target);
  static constexpr std::string_view kMediaPrefix = "/media/";
  if (path.starts_with(kMediaPrefix)) {
    Route route = endpointRoute(Endpoint::Media, method, {"GET", "HEAD"});
    route.mediaName = safeMediaPath(path.substr(kMediaPrefix.size())).value_or("");
    return route;
  }

  const auto segments = decodedSegments(path);
  if (!segments) return {};
  const auto& s = *segments;
  if (s.size() == 4 && s[0] == "3.0" && s[1] == "apps" && !s[2].empty() && s[3] == "delivery") {
    Route route = endpointRoute(Endpoint::Delivery, method, {"POST"});
    route.appKey = s[2];
    return route;
  }
  if (s.size() == 2 && s[0] == "_pnx" && s[1] == "reports") {
    return endpointRoute(Endpoint::Reports, method, {"GET", "HEAD"});
  }
  if (s.size() == 2 && s[0] == "_pnx" && s[1] == "faults") {
    return endpointRoute(Endpoint::Faults, method, {"GET", "HEAD", "POST"});
  }
  return {};
}

std::string_view mediaContentType(std::string_view name) {
  static constexpr std::pair<std::string_view, std::string_view> kTypes[] = {
      {"png", "image/png"},   {"jpg", "image/jpeg"},      {"jpeg", "image/jpeg"},
      {"gif", "image/gif"},   {"mp3", "audio/mpeg"},      {"wav", "audio/x-wav"},
      {"aif", "audio/aiff"},  {"aiff", "audio/aiff"},     {"m4a", "audio/mp4"},
      {"mp4", "video/mp4"},   {"m4v", "video/mp4"},       {"mpg", "video/mpeg"},
      {"mpeg", "video/mpeg"}, {"avi", "video/x-msvideo"},
  };
  const std::size_t dot = name.rfind('.');
  const std::size_t slash = name.rfind('/');
  if (dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash)) {
    const std::string_view extension = name.substr(dot + 1);
    for (const auto& [known, type] : kTypes) {
      if (equalsIgnoringCase(extension, known)) return type;
    }
  }
  return "application/octet-stream";
}

}  // namespace pnx::serve

// URL parsing scans the text once to decide what the platform's parser would refuse
// (characters outside RFC 3986, bad percent escapes, brackets outside the host) and where
// the components lie, then checks the authority of absolute URLs (host syntax, IPv6
// literals, port range) the way the HTTP stack will when the URL is loaded, so that a URL
// accepted here is never refused there as malformed. The text itself is kept as given:
// only the path operations rebuild the path part. No HTTP library is involved, so parsing
// a URL costs a process nothing it would not otherwise load.
#include "platform/foundation/url.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cctype>
#include <memory>

namespace pnx {
namespace {

constexpr std::string_view kHex = "0123456789ABCDEF";

bool isUnreserved(unsigned char c) {
  return std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

bool isSubDelimiter(unsigned char c) {
  return std::string_view("!$&'()*+,;=").find(static_cast<char>(c)) != std::string_view::npos;
}

// Characters that may appear unescaped in a path (the platform's path-allowed set).
bool isPathCharacter(unsigned char c) {
  return isUnreserved(c) || isSubDelimiter(c) || c == ':' || c == '@' || c == '/';
}

bool isURLCharacter(unsigned char c) {
  return isPathCharacter(c) || c == '?' || c == '#' || c == '[' || c == ']' || c == '%';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decodes %XX escapes. With keepSlashes, "%2F" stays encoded: a decoded slash inside one
// path component would turn a file name into a path.
std::string percentDecoded(std::string_view text, bool keepSlashes = false) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
        hexValue(text[i + 2]) >= 0) {
      char c = static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      if (!(keepSlashes && c == '/')) {
        out += c;
        i += 2;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

std::string percentEncodedPath(std::string_view text) {
  std::string out;
  for (unsigned char c : text) {
    if (isPathCharacter(c)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

// Where the components of a URL reference lie in its text (RFC 3986 section 3).
struct Parts {
  std::string_view scheme;
  bool hasAuthority = false;
  std::string_view authority;
  std::size_t pathBegin = 0;
  std::size_t pathEnd = 0;
  std::string_view query;
  bool hasQuery = false;

  std::string_view path(std::string_view text) const {
    return text.substr(pathBegin, pathEnd - pathBegin);
  }
};

// The scheme's length when the text opens with "scheme:", else 0.
std::size_t schemeLength(std::string_view text) {
  if (text.empty() || !std::isalpha(static_cast<unsigned char>(text[0]))) return 0;
  for (std::size_t i = 1; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == ':') return i;
    if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return 0;
  }
  return 0;
}

Parts split(std::string_view text) {
  Parts parts;
  std::size_t position = schemeLength(text);
  if (position > 0) {
    parts.scheme = text.substr(0, position);
    ++position;  // ':'
  }
  if (text.substr(position, 2) == "//") {
    parts.hasAuthority = true;
    std::size_t end = text.find_first_of("/?#", position + 2);
    if (end == std::string_view::npos) end = text.size();
    parts.authority = text.substr(position + 2, end - position - 2);
    position = end;
  }
  parts.pathBegin = position;
  parts.pathEnd = std::min(text.find_first_of("?#", position), text.size());
  if (parts.pathEnd < text.size() && text[parts.pathEnd] == '?') {
    parts.hasQuery = true;
    std::size_t end = std::min(text.find('#', parts.pathEnd), text.size());
    parts.query = text.substr(parts.pathEnd + 1, end - parts.pathEnd - 1);
  }
  return parts;
}

// Host and port of an authority "[userinfo@]host[:port]"; an IPv6 host loses its brackets.
std::string_view hostOf(std::string_view authority, std::string_view* port) {
  std::size_t at = authority.rfind('@');
  std::string_view hostPort = at == std::string_view::npos ? authority : authority.substr(at + 1);
  std::size_t colon = std::string_view::npos;
  std::string_view host = hostPort;
  if (!hostPort.empty() && hostPort.front() == '[') {
    std::size_t close = hostPort.find(']');
    if (close == std::string_view::npos) return hostPort;
    host = hostPort.substr(1, close - 1);
    if (close + 1 < hostPort.size() && hostPort[close + 1] == ':') colon = close + 1;
  } else {
    colon = hostPort.rfind(':');
    if (colon != std::string_view::npos) host = hostPort.substr(0, colon);
  }
  if (port) *port = colon == std::string_view::npos ? "" : hostPort.substr(colon + 1);
  return host;
}

// Every character allowed by RFC 3986, escapes well formed, one '#' at most, brackets
// only in the authority.
bool hasValidCharacters(std::string_view text, const Parts& parts) {
  bool seenFragment = false;
  std::size_t authorityBegin = parts.hasAuthority ? parts.pathBegin - parts.authority.size() : 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (!isURLCharacter(c)) return false;
    if (c == '%' &&
        (i + 2 >= text.size() || hexValue(text[i + 1]) < 0 || hexValue(text[i + 2]) < 0)) {
      return false;
    }
    if (c == '#') {
      if (seenFragment) return false;
      seenFragment = true;
    }
    bool inAuthority = parts.hasAuthority && i >= authorityBegin && i < parts.pathBegin;
    if ((c == '[' || c == ']') && !inAuthority) return false;
  }
  return true;
}

// A bracketed IPv6 literal's inside: hex digits, ':' and '.' (an embedded IPv4 part) that
// form an address, then optionally '%' and a zone identifier, which is not checked here
// (the HTTP stack takes whatever it is given).
bool isIPv6Literal(std::string_view text) {
  std::string_view address = text.substr(0, text.find('%'));
  if (address.size() + 1 == text.size()) return false;  // '%' and no zone
  if (address.empty() || address.size() >= INET6_ADDRSTRLEN) return false;
  for (unsigned char c : address) {
    if (!std::isxdigit(c) && c != ':' && c != '.') return false;
  }
  in6_addr parsed;
  return inet_pton(AF_INET6, std::string(address).c_str(), &parsed) == 1;
}

// A host name after its escapes are decoded: no control characters, no space and none of
// the delimiters and sub-delimiters of URLs (bytes of other scripts are left to the
// resolver).
bool isHostName(std::string_view host) {
  constexpr std::string_view kRefused = " /:#?!@{}[]\\$'\"^`*<>=;,+&()";
  if (host.empty()) return false;
  for (unsigned char c : percentDecoded(host)) {
    if (c < 0x20 || kRefused.find(static_cast<char>(c)) != std::string_view::npos) {
      return false;
    }
  }
  return true;
}

// "[userinfo@]host[:port]": a host name (see isHostName) or a bracketed IPv6 literal, and a
// port of decimal digits up to 65535, or none at all after the ':'.
bool hasValidAuthority(std::string_view authority) {
  std::size_t at = authority.find('@');
  std::string_view hostPort = at == std::string_view::npos ? authority : authority.substr(at + 1);
  std::string_view port;
  if (!hostPort.empty() && hostPort.front() == '[') {
    std::size_t close = hostPort.find(']');
    if (close == std::string_view::npos || !isIPv6Literal(hostPort.substr(1, close - 1))) {
      return false;
    }
    std::string_view rest = hostPort.substr(close + 1);
    if (!rest.empty() && rest.front() != ':') return false;
    port = rest.empty() ? rest : rest.substr(1);
  } else {
    std::size_t colon = hostPort.find(':');
    if (!isHostName(hostPort.substr(0, colon))) return false;
    port = colon == std::string_view::npos ? "" : hostPort.substr(colon + 1);
  }
  unsigned long value = 0;
  for (char c : port) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<unsigned long>(c - '0');
    if (value > 65535) return false;
  }
  return true;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

std::string currentDirectory() {
  std::unique_ptr<char, decltype(&free)> cwd(getcwd(nullptr, 0), free);
  return cwd ? cwd.get() : "/";
}

}  // namespace

URL::URL(std::string text) : text_(std::move(text)) {}

std::optional<URL> URL::parse(std::string_view text) {
  if (text.empty()) return std::nullopt;
  Parts parts = split(text);
  if (!hasValidCharacters(text, parts)) return std::nullopt;
  if (parts.scheme.empty()) {
    // A relative reference: its first segment can't hold a ':' (it would be a scheme).
    std::string_view first = text.substr(0, text.find_first_of("/?#"));
    if (first.find(':') != std::string_view::npos) return std::nullopt;
    return URL(std::string(text));
  }
  if (!parts.hasAuthority) return URL(std::string(text));  // "mailto:a@b", "file:/x"
  if (equalsIgnoringCase(parts.scheme, "file")) return URL(std::string(text));
  if (hostOf(parts.authority, nullptr).empty()) return std::nullopt;
  if (!hasValidAuthority(parts.authority)) return std::nullopt;
  return URL(std::string(text));
}

URL URL::fileURL(const std::string& path) {
  std::string absolute = path;
  if (absolute.empty() || absolute.front() != '/') {
    std::string cwd = currentDirectory();
    absolute = absolute.empty() ? cwd : cwd + (cwd.back() == '/' ? "" : "/") + absolute;
  }
  return URL("file://" + percentEncodedPath(absolute));
}

std::string URL::scheme() const {
  std::string scheme(split(text_).scheme);
  for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return scheme;
}

std::string URL::host() const {
  Parts parts = split(text_);
  return percentDecoded(hostOf(parts.authority, nullptr));
}

std::optional<int> URL::port() const {
  std::string_view port;
  hostOf(split(text_).authority, &port);
  if (port.empty() || port.size() > 5) return std::nullopt;
  int value = 0;
  for (char c : port) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

std::string URL::path() const {
  std::string_view path = split(text_).path(text_);
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return percentDecoded(path);
}

std::string URL::query() const {
  return std::string(split(text_).query);
}

std::string URL::lastPathComponent() const {
  std::string_view path = split(text_).path(text_);
  std::size_t end = path.find_last_not_of('/');
  if (end == std::string_view::npos) return path.empty() ? "" : "/";
  std::size_t slash = path.rfind('/', end);
  std::size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
  return percentDecoded(path.substr(begin, end + 1 - begin), true);
}

URL URL::appendingPathComponent(std::string_view component) const {
  if (component.empty()) return *this;
  Parts parts = split(text_);
  std::string path(parts.path(text_));
  std::string encoded = percentEncodedPath(component);
  if (path.empty()) {
    if (parts.hasAuthority && encoded.front() != '/') path = "/";
  } else if (path.back() == '/' && encoded.front() == '/') {
    encoded.erase(0, 1);
  } else if (path.back() != '/' && encoded.front() != '/') {
    path += '/';
  }
  return URL(text_.substr(0, parts.pathBegin) + path + encoded + text_.substr(parts.pathEnd));
}

// As the platform does: "/a/b" and "/a/b/" become "/a/"; "/a" becomes "/"; a path with
// nothing left to delete ("", "/") or ending in ".." climbs with "../"; a relative
// "name" becomes "./".
URL URL::deletingLastPathComponent() const {
  Parts parts = split(text_);
  std::string_view path = parts.path(text_);
  std::string_view trimmed = path.substr(0, path.find_last_not_of('/') + 1);
  std::string result;
  if (trimmed.empty()) {
    result = (parts.hasAuthority || !path.empty()) ? "/../" : "../";
  } else {
    std::size_t slash = trimmed.rfind('/');
    std::string_view last = slash == std::string_view::npos ? trimmed : trimmed.substr(slash + 1);
    if (last == "..") {
      result = std::string(trimmed) + "/../";
    } else if (slash == std::string_view::npos) {
      result = "./";
    } else {
      result = std::string(trimmed.substr(0, slash + 1));
    }
  }
  return URL(text_.substr(0, parts.pathBegin) + result + text_.substr(parts.pathEnd));
}

bool URL::isEqual(const Object& other) const {
  auto url = dynamic_cast<const URL*>(&other);
  return url && url->text_ == text_;
}

}  // namespace pnx

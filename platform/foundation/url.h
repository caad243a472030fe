// URL: an absolute URL (scheme://host[:port]/path?query#fragment), a relative reference
// (no scheme, as the platform's parser accepts "example.com/x"), or a file URL.
// Parsing fails where the platform's parser fails (spaces, control characters, bad
// percent escapes, a malformed authority: a host of other than unreserved characters, a
// bad IPv6 literal, a port beyond 65535).
// Path operations follow the platform: lastPathComponent of "https://h" is "", of
// "https://h/" is "/", of "https://h/a/b/" is "b"; deletingLastPathComponent of
// "https://h/a/b" is "https://h/a/", of "https://h/a/" is "https://h/", and where nothing is
// left to delete ("https://h/", "https://h") it climbs: "https://h/../".
// scheme() is lower-cased; path() is percent-decoded without a trailing slash ("/" stays);
// lastPathComponent() is percent-decoded except "%2F", so that it is always one file name.
// appendingPathComponent() percent-encodes what a path can't hold ("?", "#", spaces) but
// keeps "/" as a separator. Query and fragment survive the path operations.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/object.h"

namespace pnx {

class URL final : public Object {
 public:
  static std::optional<URL> parse(std::string_view text);
  static URL fileURL(const std::string& path);

  const std::string& absoluteString() const { return text_; }
  // Empty when absent.
  std::string scheme() const;
  std::string host() const;
  std::optional<int> port() const;
  std::string path() const;  // percent-decoded
  std::string query() const;
  bool isFileURL() const { return scheme() == "file"; }

  std::string lastPathComponent() const;
  URL appendingPathComponent(std::string_view component) const;
  URL deletingLastPathComponent() const;

  std::string className() const override { return "NSURL"; }
  std::string description() const override { return text_; }
  bool isEqual(const Object& other) const override;
  std::size_t hash() const override { return std::hash<std::string>()(text_); }

 private:
  explicit URL(std::string text);
  std::string text_;
};

}  // namespace pnx

// Routing for `pnx serve`: which endpoint a request's method and target reach, with the
// path decoded the way the server means it. Kept apart from the HTTP library so that the
// decision can be tested and fuzzed on its own.
//
// Endpoints:
//   POST /3.0/apps/{appKey}/delivery    a delivery report
//   GET  /_pnx/reports                  the reports accepted so far
//   GET|POST /_pnx/faults               the current faults / replace them
//   GET  /media/NAME                    a file of the media directory (HEAD too)
// Another method on one of these paths is refused with 405, any other path with 404.
//
// Percent-encoding is decoded once, segment by segment, after the path is split at its
// slashes, so an encoded slash never separates segments. A media name whose segments,
// raw or decoded, are empty, "." or "..", or hold a slash or a NUL byte is refused outright:
// it never reaches the file system.
//
// Thread-safety: pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pnx::serve {

// Request or response headers in arrival order; names compare without regard to case.
using HeaderList = std::vector<std::pair<std::string, std::string>>;

// The first value of header `name` (any case), nullptr when there is none.
const std::string* findHeader(const HeaderList& headers, std::string_view name);

enum class Endpoint { Delivery, Reports, Faults, Media, Unknown };

struct Route {
  Endpoint endpoint = Endpoint::Unknown;
  // False when the path is known but the method is not one it takes (405).
  bool methodAllowed = false;
  // The methods the path takes, for the Allow header of a 405.
  std::string allow;
  // Delivery: the app key, decoded.
  std::string appKey;
  // Media: the name relative to the media directory, decoded and checked; empty when the
  // name was refused (the answer is then 404, as for a file that is not there).
  std::string mediaName;
};

Route routeRequest(std::string_view method, std::string_view target);

// `text` with %XX sequences decoded; nullopt when a % is not followed by two hex digits.
std::optional<std::string> percentDecode(std::string_view text);

// The checked relative path for the still-encoded name after "/media/", or nullopt when
// it could leave the media directory or name no file (see above).
std::optional<std::string> safeMediaPath(std::string_view encodedName);

// The Content-Type for a media file, from its extension (any case).
std::string_view mediaContentType(std::string_view name);

}  // namespace pnx::serve

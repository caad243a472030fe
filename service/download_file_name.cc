#include "service/download_file_name.h"

#include <algorithm>
#include <cctype>

namespace pnx {
namespace {

// URL::lastPathComponent() decodes everything but "%2F", so that the name stays one
// component; decoded, that would be a separator.
bool holdsEncodedSlash(const std::string& name) {
  for (std::size_t i = 0; i + 2 < name.size(); ++i) {
    if (name[i] == '%' && name[i + 1] == '2' && std::toupper(name[i + 2]) == 'F') return true;
  }
  return false;
}

const char* refusal(const std::string& name) {
  if (name.empty()) return "the URL names no file";
  if (name == "." || name == "..") return "it names a directory, not a file";
  if (name.find('/') != std::string::npos || holdsEncodedSlash(name)) {
    return "it holds a path separator";
  }
  if (name.find('\0') != std::string::npos) return "it holds a NUL character";
  return nullptr;
}

// Readable in a log line: a NUL would end it.
std::string printable(std::string name) {
  std::replace(name.begin(), name.end(), '\0', '?');
  return name;
}

}  // namespace

std::optional<std::string> downloadFileName(const URL& url, ErrorPtr* error) {
  std::string name = url.lastPathComponent();
  if (const char* why = refusal(name)) {
    if (error) {
      *error = Error::withDescription(
          NSCocoaErrorDomain, NSFileWriteInvalidFileNameError,
          "The file name \"" + printable(name) + "\" of " + url.absoluteString() +
              " cannot be used in the temporary directory: " + why + ".");
    }
    return std::nullopt;
  }
  return name;
}

}  // namespace pnx

// The file name under which a downloaded media file is copied into the temporary
// directory: the last path component of the URL it was requested from, extension and all
// (query and fragment are not part of it).
//
// A push payload is outside input, so the name must never lead out of the temporary
// directory: a component that is empty, "." or "..", or that holds "/" or NUL once
// percent-decoded, is refused with a copy error.
//
// Thread-safety: a pure function.
#pragma once

#include <optional>
#include <string>

#include "platform/foundation/error.h"
#include "platform/foundation/url.h"

namespace pnx {

// The platform's code for a file name that cannot be used (NSCocoaErrorDomain).
inline constexpr std::int64_t NSFileWriteInvalidFileNameError = 514;

// The name, or nullopt and *error (NSCocoaErrorDomain 514, saying which name and why).
std::optional<std::string> downloadFileName(const URL& url, ErrorPtr* error);

}  // namespace pnx

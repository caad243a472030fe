// Errors of URL loading: values in NSURLErrorDomain with the platform's codes, a
// description a person understands, and the failing URL under NSURLErrorKey (its text
// under NSURLErrorFailingURLStringErrorKey). What the HTTP stack said, when it said
// something, is under NSDebugDescriptionErrorKey.
#pragma once

#include <cstdint>
#include <string>

#include "platform/foundation/error.h"
#include "platform/foundation/url.h"

namespace pnx {

inline constexpr const char* NSURLErrorFailingURLStringErrorKey = "NSErrorFailingURLStringKey";

inline constexpr std::int64_t NSURLErrorUnknown = -1;
inline constexpr std::int64_t NSURLErrorCancelled = -999;
inline constexpr std::int64_t NSURLErrorBadURL = -1000;
inline constexpr std::int64_t NSURLErrorTimedOut = -1001;
inline constexpr std::int64_t NSURLErrorUnsupportedURL = -1002;
inline constexpr std::int64_t NSURLErrorCannotFindHost = -1003;
inline constexpr std::int64_t NSURLErrorCannotConnectToHost = -1004;
inline constexpr std::int64_t NSURLErrorNetworkConnectionLost = -1005;
inline constexpr std::int64_t NSURLErrorHTTPTooManyRedirects = -1007;
inline constexpr std::int64_t NSURLErrorBadServerResponse = -1011;
inline constexpr std::int64_t NSURLErrorDataLengthExceedsMaximum = -1103;
inline constexpr std::int64_t NSURLErrorSecureConnectionFailed = -1200;
inline constexpr std::int64_t NSURLErrorServerCertificateUntrusted = -1202;
inline constexpr std::int64_t NSURLErrorCannotCreateFile = -3000;
inline constexpr std::int64_t NSURLErrorCannotWriteToFile = -3003;

// The description of a code, as a person reads it ("The request timed out.").
std::string urlErrorDescription(std::int64_t code);
// An NSURLErrorDomain error for the URL; detail (the HTTP stack's own words) is kept
// under NSDebugDescriptionErrorKey when not empty.
ErrorPtr makeURLError(std::int64_t code, const URL& url, const std::string& detail = {});

}  // namespace pnx

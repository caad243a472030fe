#include "platform/network/url_error.h"

#include <memory>

namespace pnx {

std::string urlErrorDescription(std::int64_t code) {
  switch (code) {
    case NSURLErrorCancelled:
      return "The request was cancelled.";
    case NSURLErrorBadURL:
      return "The URL is malformed.";
    case NSURLErrorTimedOut:
      return "The request timed out.";
    case NSURLErrorUnsupportedURL:
      return "The URL is not supported: only http and https can be loaded.";
    case NSURLErrorCannotFindHost:
      return "A server with the specified hostname could not be found.";
    case NSURLErrorCannotConnectToHost:
      return "Could not connect to the server.";
    case NSURLErrorNetworkConnectionLost:
      return "The network connection was lost.";
    case NSURLErrorHTTPTooManyRedirects:
      return "There were too many redirects.";
    case NSURLErrorBadServerResponse:
      return "The server's response could not be understood.";
    case NSURLErrorDataLengthExceedsMaximum:
      return "The resource exceeds the maximum size allowed for a download.";
    case NSURLErrorSecureConnectionFailed:
      return "A secure connection to the server could not be made.";
    case NSURLErrorServerCertificateUntrusted:
      return "The certificate for this server is not trusted: the server may be "
             "pretending to be the one asked for.";
    case NSURLErrorCannotCreateFile:
      return "The file for the download could not be created.";
    case NSURLErrorCannotWriteToFile:
      return "The download could not be written to its file.";
    default:
      return "An unknown error occurred while loading the URL.";
  }
}

ErrorPtr makeURLError(std::int64_t code, const URL& url, const std::string& detail) {
  Dictionary info;
  info.emplace(Value(NSLocalizedDescriptionKey), Value(urlErrorDescription(code)));
  info.emplace(Value(NSURLErrorKey), Value(ObjectPtr(std::make_shared<URL>(url))));
  info.emplace(Value(NSURLErrorFailingURLStringErrorKey), Value(url.absoluteString()));
  if (!detail.empty()) info.emplace(Value(NSDebugDescriptionErrorKey), Value(detail));
  return Error::make(NSURLErrorDomain, code, Value(std::move(info)));
}

}  // namespace pnx

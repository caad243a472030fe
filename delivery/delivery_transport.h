// The HTTP exchange of a delivery report, behind one function, so that the client does not
// depend on how URL loading is done: start a request, get (data, response, error) once, on a
// background thread.
//
// Thread-safety: all functions may be called from any thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/url.h"
#include "platform/foundation/value.h"
#include "platform/network/http_response.h"

namespace pnx {

struct DeliveryHTTPRequest {
  URL url;
  std::string method = "POST";
  double timeoutInterval = 60;
  std::vector<std::pair<std::string, std::string>> headers;
  Data body;
};

using DeliveryHTTPCompletion =
    std::function<void(std::optional<Data>, std::shared_ptr<const HTTPURLResponse>, ErrorPtr)>;

// Starts the request; completion runs exactly once, on a background thread.
void startDeliveryHTTPRequest(DeliveryHTTPRequest request, DeliveryHTTPCompletion completion);

// Requests started and whose completion has not returned yet; a wait for none.
std::size_t outstandingDeliveryHTTPRequests();
bool waitForDeliveryHTTPRequests(std::chrono::steady_clock::time_point deadline);

}  // namespace pnx

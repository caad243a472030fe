#include "delivery/push_delivery_client.h"

#include "config/config.h"
#include "delivery/delivery_records.h"
#include "diagnostics/errors.h"
#include "diagnostics/log.h"
#include "platform/foundation/utf8.h"
#include "platform/network/url_request.h"
#include "platform/network/url_session.h"

namespace {

constexpr double kDeliveryTimeoutSeconds = 60;

pnx::URL deliveryURL(const pnx::URL& baseUrl, const std::string& appKey) {
  return baseUrl.appendingPathComponent("3.0")
      .appendingPathComponent("apps")
      .appendingPathComponent(appKey)
      .appendingPathComponent("delivery");
}

void logResponse(long status, const pnx::HTTPURLResponse& response,
                 const std::optional<pnx::Data>& data) {
  std::string url = response.url() ? response.url()->absoluteString() : std::string("(null)");
  if (!data) {
    PNXLogVerbose("%ld Response From: %@\nNo data returned", status, url);
  } else if (pnx::isValidUTF8(data->data(), data->size())) {
    PNXLogVerbose("%ld Response From: %@\n%@", status, url,
                  std::string(data->begin(), data->end()));
  } else {
    PNXLogVerbose("%ld Response From: %@\nNon UTF-8 data detected", status, url);
  }
}

}  // namespace

void PNXPushDeliveryClient::sendPushQueue(const pnx::Set& queue, Completion completion) {
  auto config = PNXConfig::sharedInstance();
  auto appKey = config->appKey();
  if (!appKey) {
    PNXLogError("Couldn't find appKey in configuration!");
    completion(NSError_PNX::appKeyMissing());
    return;
  }
  pnx::URL url = deliveryURL(config->baseUrl(), *appKey);
  pnx::URLRequest request(url, pnx::URLRequestCachePolicy::UseProtocolCachePolicy,
                          kDeliveryTimeoutSeconds);
  request.setHTTPMethod("POST");

  pnx::ErrorPtr serialisationError;
  auto body = pnx::deliveryBody(queue, &serialisationError);
  if (!body) {
    completion(serialisationError);
    return;
  }
  request.setHTTPBody(body->compressed);
  request.setValue("gzip", "Content-Encoding");
  long compressedLength = static_cast<long>(body->compressed.size());
  long jsonLength = static_cast<long>(body->json.size());
  // Single precision, as the ratio has always been computed; an empty body divides by zero
  // and prints "inf".
  float ratio = static_cast<float>(jsonLength) / static_cast<float>(compressedLength);
  PNXLogVerbose(
      "Payload Compression on, only sending %ld bytes instead of %ld bytes, %.1f compression "
      "ratio",
      compressedLength, jsonLength, ratio);
  request.setValue("application/json", "Content-type");
  PNXLogVerbose("POST %@\n%@", url.absoluteString(), body->json);

  auto task = pnx::URLSession::shared().dataTask(
      std::move(request),
      [url, completion = std::move(completion)](
          std::optional<pnx::Data> data, std::shared_ptr<const pnx::HTTPURLResponse> response,
          pnx::ErrorPtr error) {
        if (error) {
          PNXLogVerbose("HTTP Error occured %@", error);
          completion(error);
          return;
        }
        if (!response) {
          PNXLogError("Response From: %@ was not an HTTP Response", url.absoluteString());
          completion(NSError_PNX::responseNotHttpError());
          return;
        }
        long status = response->statusCode();
        logResponse(status, *response, data);
        if (status >= 200 && status <= 299) {
          completion(nullptr);
        } else {
          completion(NSError_PNX::httpResponseError(*response, data));
        }
      });
  task->resume();
}

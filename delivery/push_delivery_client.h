// PNXPushDeliveryClient: the wire layer of delivery reporting. Given a set of delivery
// records, it makes one request, POST <baseUrl>/3.0/apps/<appKey>/delivery with the gzip
// compression of {"delivery": [records]} ("Content-Encoding: gzip", "Content-type:
// application/json", a 60-second time-out), and tells its completion the outcome: no error
// for a 2xx status; NSError(PNX) httpResponseError (105, with "statusCode", "retryAfter",
// "statusMessage") for any other status; the transport's own error as it came; appKeyMissing
// (100) without a request when the configuration has no app key; the serialiser's error when
// a record cannot be written as JSON. It keeps no state and never retries or queues: that is
// PNXPushDeliveryMananger's work.
//
// Thread-safety: no state, so concurrent calls are independent. The early failures (no app
// key, records not JSON) call the completion synchronously on the caller's thread; every
// other completion runs on a background thread of the URL loading.
#pragma once

#include <functional>
#include <memory>

#include "platform/foundation/error.h"
#include "platform/foundation/export.h"
#include "platform/foundation/value.h"

class PNX_EXPORT PNXPushDeliveryClient {
 public:
  // One error value: null means success.
  using Completion = std::function<void(pnx::ErrorPtr error)>;

  PNXPushDeliveryClient() = default;
  virtual ~PNXPushDeliveryClient() = default;

  // sendPushQueue:completion:. The completion is called exactly once.
  virtual void sendPushQueue(const pnx::Set& queue, Completion completion);
};

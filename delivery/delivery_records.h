// The values of delivery reporting, as pure functions: the delivery record built from a
// push payload and the stored identities, the queue as a set of records and its stored
// form (an array), the retry gate from the stored "retryAfter" date, the back-off date a
// failed send sets, and the compressed request body.
//
// Keeping these free of keychain and network makes the rules testable with plain values
// and a given "now", without a clock or a server.
//
// Thread-safety: every function is pure; call from any thread.
#pragma once

#include <cstddef>
#include <optional>

#include "platform/foundation/date.h"
#include "platform/foundation/error.h"
#include "platform/foundation/value.h"

namespace pnx {

// Keychain item names of the shared store, as the application side also reads them.
inline constexpr const char* kPushQueueItem = "pushQueue";
inline constexpr const char* kRetryAfterItem = "retryAfter";

// Seconds a 429 answer without a Retry-After value holds sends back.
inline constexpr std::int64_t kDefaultRetryAfterSeconds = 10;

// {"userId", "channelId", "attribution", "mailingId"}, each only when its source is
// present: the identities as given (null means absent), the two others from the payload's
// "pnx" entry when that is a dictionary (anything else counts as no "pnx").
Value deliveryRecord(const Value& userId, const Value& channelId, const Value& payload);

// The queue that a stored "pushQueue" value stands for: the set of its elements when it is
// an array, nullopt when it is anything else (a missing item is null).
std::optional<Set> queueFromStoredValue(const Value& stored);
// The value to store for a queue: an array of its records.
Value storedValueFromQueue(const Set& queue);

// Makes queue (queue ∪ add) \ remove in place, without copying the queue; true when that
// changed it (a record added that was missing, or a record removed that was there).
bool applyQueueChange(Set& queue, const Set& add, const Set& remove);

// Whether sends may go out now: true when nothing usable is stored (null, not a date) or
// the stored date lies strictly before now.
bool retryGateOpen(const Value& storedRetryAfter, Date now);

// The back-off date a failed send sets: for an error whose user info holds "statusCode"
// 429, now plus the integer value of its "retryAfter" entry (10 seconds when absent);
// nullopt for every other error.
std::optional<Date> retryAfterDateForError(const ErrorPtr& error, Date now);

// The request body: the compact JSON of {"delivery": [records]} (kept for the log) and its
// gzip compression. On a serialisation failure, nullopt with *error set to the
// serialiser's error.
struct DeliveryBody {
  Data compressed;
  std::string json;
};
std::optional<DeliveryBody> deliveryBody(const Set& queue, ErrorPtr* error);

}  // namespace pnx

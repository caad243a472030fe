#include "delivery/delivery_records.h"

#include "codecs/gzip.h"
#include "diagnostics/errors.h"
#include "platform/foundation/json.h"

namespace pnx {

Value deliveryRecord(const Value& userId, const Value& channelId, const Value& payload) {
  Dictionary record;
  if (!userId.isNull()) record[Value("userId")] = userId;
  if (!channelId.isNull()) record[Value("channelId")] = channelId;
  const Value& pnx = payload["pnx"];
  if (pnx.isDictionary()) {
    if (!pnx["attribution"].isNull()) record[Value("attribution")] = pnx["attribution"];
    if (!pnx["mailingId"].isNull()) record[Value("mailingId")] = pnx["mailingId"];
  }
  return Value(std::move(record));
}

std::optional<Set> queueFromStoredValue(const Value& stored) {
  const Array* records = stored.asArray();
  if (!records) return std::nullopt;
  return Set(records->begin(), records->end());
}

Value storedValueFromQueue(const Set& queue) {
  return Value(Array(queue.begin(), queue.end()));
}

bool applyQueueChange(Set& queue, const Set& add, const Set& remove) {
  bool changed = false;
  for (const Value& record : add) {
    if (!remove.count(record) && queue.insert(record).second) changed = true;
  }
  for (const Value& record : remove) {
    if (queue.erase(record) != 0) changed = true;
  }
  return changed;
}

bool retryGateOpen(const Value& storedRetryAfter, Date now) {
  const Date* until = storedRetryAfter.asDate();
  return !until || *until < now;
}

std::optional<Date> retryAfterDateForError(const ErrorPtr& error, Date now) {
  if (!error) return std::nullopt;
  const Value& userInfo = error->userInfo();
  const Value& status = userInfo[kStatusCodeKey];
  if (status.isNull() || status.integerValue() != 429) return std::nullopt;
  const Value& retryAfter = userInfo[kRetryAfterKey];
  std::int64_t seconds =
      retryAfter.isNull() ? kDefaultRetryAfterSeconds : retryAfter.integerValue();
  return now.addingTimeInterval(static_cast<double>(seconds));
}

std::optional<DeliveryBody> deliveryBody(const Set& queue, ErrorPtr* error) {
  auto json = JSON::serialize(Value::dict({{"delivery", storedValueFromQueue(queue)}}), error);
  if (!json) return std::nullopt;
  DeliveryBody body;
  body.json = std::move(*json);
  // Compression failing (zlib refusing to start) leaves an empty body; the request still
  // goes out and announces gzip, so the server refuses it and the records stay queued.
  body.compressed = gzippedData(Data(body.json.begin(), body.json.end())).value_or(Data());
  return body;
}

}  // namespace pnx

// PNXPushDeliveryMananger (spelt so on purpose): tells the server that a push reached the
// device. For each push it builds a delivery record ("userId" and "channelId" from the
// shared keychain, "attribution" and "mailingId" from the payload's "pnx" dictionary), adds
// it to the queue kept in the shared keychain item "pushQueue" (a set: equal records
// collapse) before any network activity, and sends the whole queue through
// PNXPushDeliveryClient unless the date stored under "retryAfter" has not passed yet. On
// success the sent records leave the queue; on failure they are merged back, and a 429
// answer stores now + its Retry-After seconds (10 without one) under "retryAfter". Nothing
// is retried on a timer: queued records go out with the next sendPushDelivery or
// resendPushDelivery. With the configuration's deliveryReporting off it does nothing at all.
//
// Nothing lost. Every change of "pushQueue" is one keychain transaction that reads the
// stored queue, merges, and writes, so concurrent senders in any number of processes never
// overwrite each other's records. While a request is on its way its records are out of
// "pushQueue" (which is empty during a send) and recorded in "pushQueueInFlight" with the
// identity of the sending process (in_flight.h); a later send or resend in any process takes
// them back into the queue when that process is gone or the send is older than the
// request's time-out plus a margin.
//
// The delivery guarantee is AT LEAST ONCE: no record is ever lost, but a record whose
// request reached the server just before the process died (or before its keychain write
// failed) is sent again, so the server may see it twice.
//
// Keychain writes of one notification that is sent at once and accepted: 4 commits (the
// enlarged queue; the in-flight entry; the queue emptied; the in-flight entry removed).
//
// Thread-safety: any method may be called from any thread at the same time. sharedInstance
// is created exactly once; client and keychain are atomic properties. Completions of sends
// run on the URL loading's background thread (or synchronously when no request is made).
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/atomic_property.h"
#include "delivery/push_delivery_client.h"
#include "platform/foundation/error.h"
#include "platform/foundation/export.h"
#include "platform/foundation/value.h"
#include "storage/keychain.h"

class PNX_EXPORT PNXPushDeliveryMananger
    : public std::enable_shared_from_this<PNXPushDeliveryMananger> {
 public:
  // Told once what became of a send: how many records the request carried (0 when no request
  // was made: reporting off, an empty queue, the retry gate closed) and its error (null on
  // success and when no request was made).
  using SendCompletion = std::function<void(std::size_t sent, pnx::ErrorPtr error)>;

  // The process's instance, created on first use.
  static std::shared_ptr<PNXPushDeliveryMananger> sharedInstance();

  // init: a new client and the group keychain "PNX". Make instances with std::make_shared.
  PNXPushDeliveryMananger();

  std::shared_ptr<PNXPushDeliveryClient> client() const { return client_.load(); }
  void setClient(std::shared_ptr<PNXPushDeliveryClient> client) {
    client_.store(std::move(client));
  }
  std::shared_ptr<PNXKeychain> keychain() const { return keychain_.load(); }
  void setKeychain(std::shared_ptr<PNXKeychain> keychain) { keychain_.store(std::move(keychain)); }

  // Reports one delivery: records it, stores it, sends the queue.
  void sendPushDelivery(const pnx::Value& payload, SendCompletion completion = {});
  // Sends whatever is queued (taking back the records of abandoned sends first).
  void resendPushDelivery(SendCompletion completion = {});
  // The delivery record of a payload.
  pnx::Value generatePayload(const pnx::Value& payload);
  // Sends the queue unless the retry gate is closed; then the queue is stored and waits.
  void sendPushQueue(const pnx::Set& queue, SendCompletion completion = {});
  // Sends the queue now.
  void checkedSendPushQueue(const pnx::Set& queue, SendCompletion completion = {});

  // The stored queue; empty (logged) when the item is missing, unreadable or not an array.
  pnx::Set pushQueue();
  // Stores the queue as it is, replacing what was stored.
  void setPushQueue(const pnx::Set& queue);

  // The records of every send now in flight, in this or another process.
  pnx::Set inFlightRecords();
  // Takes the records of abandoned sends back into the queue; returns how many records
  // were taken back.
  std::size_t reclaimAbandonedSends();

  // Sends of this process whose completion has not finished yet; a wait for none.
  static std::size_t outstandingSends();
  static bool waitForOutstandingSends(std::chrono::steady_clock::time_point deadline);

 private:
  struct QueueChange {
    pnx::Set add;
    pnx::Set remove;
  };
  // (stored ∪ add) − remove, as one keychain transaction; returns the queue as stored
  // afterwards (as it would be, when the write failed), tells in *stored whether the write
  // succeeded, and logs as setPushQueue does.
  pnx::Set changeQueue(const QueueChange& change, bool* stored = nullptr);
  // Adds / removes in-flight entries; false (logged) when the keychain refused.
  bool recordInFlight(const std::string& sendId, const pnx::Set& records);
  void releaseInFlight(const std::vector<std::string>& sendIds);
  // Records of abandoned sends, read without writing.
  struct Abandoned {
    std::vector<std::string> sendIds;
    pnx::Set records;
  };
  Abandoned findAbandoned();
  // sendPushQueue; callerStored holds the outcome of the caller's own store of the queue
  // a moment ago, nullopt when the caller did not store it.
  void sendUnlessHeldBack(const pnx::Set& queue, SendCompletion completion,
                          std::optional<bool> callerStored);
  void finishSend(const std::string& sendId, const pnx::Set& queue, const pnx::ErrorPtr& error);

  pnx::AtomicProperty<std::shared_ptr<PNXPushDeliveryClient>> client_;
  pnx::AtomicProperty<std::shared_ptr<PNXKeychain>> keychain_;
};

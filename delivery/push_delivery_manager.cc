#include "delivery/push_delivery_manager.h"

#include <condition_variable>
#include <mutex>

#include "config/config.h"
#include "delivery/delivery_records.h"
#include "delivery/in_flight.h"
#include "delivery/keychain_update.h"
#include "diagnostics/log.h"
#include "platform/dispatch/dispatch.h"
#include "platform/foundation/uuid.h"

namespace {

constexpr const char* kKeychainService = "PNX";

// Sends of this process between checkedSendPushQueue and the end of their completion.
std::mutex outstandingMutex;
std::condition_variable outstandingChanged;
std::size_t outstanding = 0;

void sendStarted() {
  std::lock_guard lock(outstandingMutex);
  ++outstanding;
}

void sendFinished() {
  std::lock_guard lock(outstandingMutex);
  --outstanding;
  outstandingChanged.notify_all();
}

void logQueueStored(bool stored) {
  if (stored) {
    PNXLogVerbose("Queued delivery payload in keychain");
  } else {
    PNXLogVerbose("Couldn't queue delivery payload in keychain");
  }
}

void logQueueUnreadable() {
  PNXLogError("Couldn't get pushQueue from keychain");
}

void tell(const PNXPushDeliveryMananger::SendCompletion& completion, std::size_t sent,
          const pnx::ErrorPtr& error) {
  if (completion) completion(sent, error);
}

}  // namespace

std::shared_ptr<PNXPushDeliveryMananger> PNXPushDeliveryMananger::sharedInstance() {
  static pnx::OnceFlag once;
  static std::shared_ptr<PNXPushDeliveryMananger> instance;
  pnx::dispatchOnce(once, [] { instance = std::make_shared<PNXPushDeliveryMananger>(); });
  return instance;
}

PNXPushDeliveryMananger::PNXPushDeliveryMananger()
    : client_(std::make_shared<PNXPushDeliveryClient>()),
      keychain_(PNXKeychain::groupKeychain(kKeychainService)) {}

// MARK: records and queue storage

pnx::Value PNXPushDeliveryMananger::generatePayload(const pnx::Value& payload) {
  auto store = keychain();
  // userId is read before channelId, so that the log tells the reads in that order (the
  // arguments of a call are evaluated in no fixed order).
  pnx::Value userId = store->userId();
  pnx::Value channelId = store->channelId();
  return pnx::deliveryRecord(userId, channelId, payload);
}

pnx::Set PNXPushDeliveryMananger::pushQueue() {
  pnx::ErrorPtr error;
  pnx::Value stored = keychain()->objectForName(pnx::kPushQueueItem, &error);
  auto queue = error ? std::nullopt : pnx::queueFromStoredValue(stored);
  if (!queue) {
    logQueueUnreadable();
    return {};
  }
  return *queue;
}

void PNXPushDeliveryMananger::setPushQueue(const pnx::Set& queue) {
  logQueueStored(keychain()->setObject(pnx::storedValueFromQueue(queue), pnx::kPushQueueItem));
}

pnx::Set PNXPushDeliveryMananger::changeQueue(const QueueChange& change, bool* storedOut) {
  bool unreadable = false;
  pnx::Set result;
  auto merge = [&](const pnx::Value& stored) -> std::optional<pnx::Value> {
    auto current = pnx::queueFromStoredValue(stored);
    unreadable = !current;
    // The queue read is changed in place: copying and comparing it would cost more than
    // the change itself when it is long.
    result = current ? std::move(*current) : pnx::Set();
    const bool changed = pnx::applyQueueChange(result, change.add, change.remove);
    // An unchanged queue needs no write; a missing or malformed one is written anew.
    if (!unreadable && !changed) return std::nullopt;
    return pnx::storedValueFromQueue(result);
  };
  bool stored = pnx::updateKeychainValue(*keychain(), pnx::kPushQueueItem, merge);
  if (unreadable) logQueueUnreadable();
  logQueueStored(stored);
  if (storedOut) *storedOut = stored;
  return result;
}

// MARK: in-flight sends

bool PNXPushDeliveryMananger::recordInFlight(const std::string& sendId, const pnx::Set& records) {
  pnx::Value entry = pnx::inFlightEntry(pnx::ProcessIdentity::current(), pnx::Date::now(), records);
  bool stored =
      pnx::updateKeychainValue(*keychain(), pnx::kPushQueueInFlightItem,
                               [&](const pnx::Value& current) -> std::optional<pnx::Value> {
                                 return pnx::inFlightWith(current, sendId, entry);
                               });
  if (!stored) PNXLogError("Couldn't record in-flight delivery payload in keychain");
  return stored;
}

void PNXPushDeliveryMananger::releaseInFlight(const std::vector<std::string>& sendIds) {
  bool stored = pnx::updateKeychainValue(
      *keychain(), pnx::kPushQueueInFlightItem,
      [&](const pnx::Value& current) { return pnx::inFlightWithout(current, sendIds); });
  if (!stored) PNXLogError("Couldn't release in-flight delivery payload in keychain");
}

PNXPushDeliveryMananger::Abandoned PNXPushDeliveryMananger::findAbandoned() {
  pnx::ErrorPtr error;
  pnx::Value stored = keychain()->objectForName(pnx::kPushQueueInFlightItem, &error);
  auto found = pnx::abandonedSends(stored, pnx::Date::now(), pnx::kInFlightAbandonSeconds,
                                   pnx::inFlightOwnerRunning);
  if (!found.sendIds.empty()) {
    PNXLogVerbose("Taking back %ld delivery records of %ld abandoned sends",
                  static_cast<long>(found.records.size()), static_cast<long>(found.sendIds.size()));
  }
  return {std::move(found.sendIds), std::move(found.records)};
}

pnx::Set PNXPushDeliveryMananger::inFlightRecords() {
  pnx::ErrorPtr error;
  return pnx::inFlightRecords(keychain()->objectForName(pnx::kPushQueueInFlightItem, &error));
}

std::size_t PNXPushDeliveryMananger::reclaimAbandonedSends() {
  Abandoned abandoned = findAbandoned();
  if (abandoned.sendIds.empty()) return 0;
  // Into the queue first, out of the in-flight item second, and only once they are in the
  // queue: a crash or a failed write in between leaves the records in both places, never
  // in neither.
  bool stored = false;
  changeQueue({abandoned.records, {}}, &stored);
  if (!stored) return 0;
  releaseInFlight(abandoned.sendIds);
  return abandoned.records.size();
}

// MARK: sending

void PNXPushDeliveryMananger::sendPushDelivery(const pnx::Value& payload,
                                               SendCompletion completion) {
  if (!PNXConfig::sharedInstance()->deliveryReporting()) {
    PNXLogVerbose("Not sending push delivery because config flag is false");
    tell(completion, 0, nullptr);
    return;
  }
  pnx::Set add{generatePayload(payload)};
  Abandoned abandoned = findAbandoned();
  add.insert(abandoned.records.begin(), abandoned.records.end());
  // Stored before any network activity.
  bool stored = false;
  pnx::Set queue = changeQueue({add, {}}, &stored);
  if (stored && !abandoned.sendIds.empty()) releaseInFlight(abandoned.sendIds);
  sendUnlessHeldBack(queue, std::move(completion), stored);
}

void PNXPushDeliveryMananger::resendPushDelivery(SendCompletion completion) {
  if (!PNXConfig::sharedInstance()->deliveryReporting()) {
    PNXLogVerbose("Not resending push delivery because config flag is false");
    tell(completion, 0, nullptr);
    return;
  }
  reclaimAbandonedSends();
  pnx::Set queue = pushQueue();
  if (queue.empty()) {
    tell(completion, 0, nullptr);
    return;
  }
  sendPushQueue(queue, std::move(completion));
}

void PNXPushDeliveryMananger::sendPushQueue(const pnx::Set& queue, SendCompletion completion) {
  sendUnlessHeldBack(queue, std::move(completion), std::nullopt);
}

void PNXPushDeliveryMananger::sendUnlessHeldBack(const pnx::Set& queue, SendCompletion completion,
                                                 std::optional<bool> callerStored) {
  pnx::ErrorPtr error;
  pnx::Value retryAfter = keychain()->objectForName(pnx::kRetryAfterItem, &error);
  if (retryAfter.isNull() || error) {
    checkedSendPushQueue(queue, std::move(completion));
    return;
  }
  PNXLogVerbose("retryAfter: %@", retryAfter);
  if (pnx::retryGateOpen(retryAfter, pnx::Date::now())) {
    checkedSendPushQueue(queue, std::move(completion));
    return;
  }
  PNXLogVerbose("Queueing send push delivery queue because previous 429");
  if (callerStored) {
    // The queue was merged and stored a moment ago (sendPushDelivery); merging it again
    // would change nothing and cost a second read of the whole queue. The message tells
    // how that store went.
    logQueueStored(*callerStored);
  } else {
    changeQueue({queue, {}});
  }
  tell(completion, 0, nullptr);
}

void PNXPushDeliveryMananger::checkedSendPushQueue(const pnx::Set& queue,
                                                   SendCompletion completion) {
  sendStarted();
  std::string sendId = pnx::UUID::random().string();
  // The records go into the in-flight item before they leave the queue, so that they are
  // always in one of the two. When that fails they stay queued too: a later send may carry
  // them a second time, which at-least-once allows.
  bool owned = recordInFlight(sendId, queue);
  changeQueue({{}, owned ? queue : pnx::Set()});
  auto self = shared_from_this();
  client()->sendPushQueue(
      queue, [self, sendId, queue, completion = std::move(completion)](pnx::ErrorPtr error) {
        self->finishSend(sendId, queue, error);
        tell(completion, queue.size(), error);
        sendFinished();
      });
}

void PNXPushDeliveryMananger::finishSend(const std::string& sendId, const pnx::Set& queue,
                                         const pnx::ErrorPtr& error) {
  if (!error) {
    PNXLogVerbose("Sent delivery payload to server!");
    changeQueue({{}, queue});
    releaseInFlight({sendId});
    return;
  }
  PNXLogError("Couldn't send delivery payload to server, queuing in keychain!");
  bool requeued = false;
  changeQueue({queue, {}}, &requeued);
  if (auto until = pnx::retryAfterDateForError(error, pnx::Date::now())) {
    keychain()->setObject(pnx::Value(*until), pnx::kRetryAfterItem);
  }
  // Records that could not be put back are held by the in-flight entry alone: it stays, and
  // a later send takes them back once this process is gone or the send is too old.
  if (requeued) releaseInFlight({sendId});
}

std::size_t PNXPushDeliveryMananger::outstandingSends() {
  std::lock_guard lock(outstandingMutex);
  return outstanding;
}

bool PNXPushDeliveryMananger::waitForOutstandingSends(
    std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(outstandingMutex);
  return outstandingChanged.wait_until(lock, deadline, [] { return outstanding == 0; });
}

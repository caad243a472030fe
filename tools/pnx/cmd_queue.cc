// pnx queue: the delivery reports waiting in the shared keychain, as the extension sees
// them: {"pushQueue": [record, ...], "retryAfter": ISO 8601 text or null, "inFlight":
// [record, ...]}. "inFlight" holds the records of sends that are on their way, in any
// process, or that a process left behind when it died (the next send takes those back).
// A keychain that cannot be read is a failure (exit 1, naming the item), not an empty queue.

#include "delivery/delivery_records.h"
#include "delivery/in_flight.h"
#include "delivery/push_delivery_manager.h"
#include "tools/pnx/command.h"
#include "tools/pnx/delivery_json.h"

using namespace pnx;  // the host helpers moved into namespace pnx

namespace {

int runQueue() {
  auto keychain = PNXPushDeliveryMananger::sharedInstance()->keychain();
  pnx::Value queue, retryAfter, inFlight;
  for (auto [name, value] :
       {std::pair{pnx::kPushQueueItem, &queue}, std::pair{pnx::kRetryAfterItem, &retryAfter},
        std::pair{pnx::kPushQueueInFlightItem, &inFlight}}) {
    if (auto failure = pnxReadDeliveryItem(*keychain, name, value)) return pnxFail(*failure);
  }
  // A stored value that is not an array is an empty queue to the extension too.
  pnx::Set records = pnx::queueFromStoredValue(queue).value_or(pnx::Set());
  pnxPrintJSON(
      pnx::Value::dict({{"pushQueue", pnx::storedValueFromQueue(records)},
                        {"retryAfter", pnxDateJSON(retryAfter)},
                        {"inFlight", pnx::storedValueFromQueue(pnx::inFlightRecords(inFlight))}}));
  return 0;
}

CommandRegistration registration("queue",
                                 "Show the stored delivery queue, the back-off date and the "
                                 "reports in flight",
                                 [](CLI::App&) -> PnxCommandRun {
                                   return [](const PnxGlobals&) { return runQueue(); };
                                 });

}  // namespace

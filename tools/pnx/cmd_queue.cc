// pnx queue: the delivery reports waiting in the shared keychain, as the extension sees
// them: {"pushQueue": [record, ...], "retryAfter": ISO 8601 text or null, "inFlight":
// [record, ...]}. "inFlight" holds the records of sends that are on their way, in any
// process, or that a process left behind when it died (the next send takes those back).

#include "delivery/delivery_records.h"
#include "delivery/push_delivery_manager.h"
#include "tools/pnx/command.h"
#include "tools/pnx/delivery_json.h"

using namespace pnx;  // the host helpers moved into namespace pnx

namespace {

int runQueue() {
  auto manager = PNXPushDeliveryMananger::sharedInstance();
  pnx::ErrorPtr error;
  pnx::Value retryAfter = manager->keychain()->objectForName(pnx::kRetryAfterItem, &error);
  pnxPrintJSON(
      pnx::Value::dict({{"pushQueue", pnx::storedValueFromQueue(manager->pushQueue())},
                        {"retryAfter", pnxDateJSON(retryAfter)},
                        {"inFlight", pnx::storedValueFromQueue(manager->inFlightRecords())}}));
  return 0;
}

CommandRegistration registration("queue",
                                 "Show the stored delivery queue, the back-off date and the "
                                 "reports in flight",
                                 [](CLI::App&) -> PnxCommandRun {
                                   return [](const PnxGlobals&) { return runQueue(); };
                                 });

}  // namespace

// pnx resend: resends the stored delivery queue as the host application would
// (resendPushDelivery), waits for the outcome, and prints {"sent": n, "error": null or
// {"domain", "code", "description"}, "retryAfter": ISO 8601 text or null}. n is the number of
// records the request carried; 0 when nothing was sent (an empty queue, reporting off, or a
// back-off date not reached yet). Exit 0 when nothing failed; otherwise exit 1 with a line
// on stderr that names the failure.

#include <chrono>
#include <future>

#include "config/config.h"
#include "delivery/delivery_records.h"
#include "delivery/push_delivery_manager.h"
#include "tools/pnx/command.h"
#include "tools/pnx/delivery_json.h"

using namespace pnx;  // the host helpers moved into namespace pnx

namespace {

// Longer than the request's own 60-second time-out, so that the request always ends first.
constexpr auto kPatience = std::chrono::seconds(90);

struct Outcome {
  std::size_t sent = 0;
  pnx::ErrorPtr error;
};

int runResend() {
  auto manager = PNXPushDeliveryMananger::sharedInstance();
  // The extension takes an unreadable queue for an empty one and sends nothing; here that
  // is a failure to report, not "nothing to send". With reporting off nothing is read.
  if (PNXConfig::sharedInstance()->deliveryReporting()) {
    pnx::Value queue;
    if (auto failure = pnxReadDeliveryItem(*manager->keychain(), pnx::kPushQueueItem, &queue)) {
      return pnxFail(*failure);
    }
  }
  auto outcome = std::make_shared<std::promise<Outcome>>();
  manager->resendPushDelivery([outcome](std::size_t sent, pnx::ErrorPtr error) {
    outcome->set_value({sent, error});
  });
  auto result = outcome->get_future();
  if (result.wait_for(kPatience) != std::future_status::ready) {
    return pnxFail("no outcome from the delivery server within 90 seconds");
  }
  Outcome done = result.get();
  pnx::ErrorPtr readError;
  pnx::Value retryAfter = manager->keychain()->objectForName(pnx::kRetryAfterItem, &readError);
  pnxPrintJSON(pnx::Value::dict({{"sent", static_cast<std::int64_t>(done.sent)},
                                 {"error", pnxErrorJSON(done.error)},
                                 {"retryAfter", pnxDateJSON(retryAfter)}}));
  if (done.error) {
    return pnxFail("the delivery queue was not sent: " + done.error->localizedDescription());
  }
  return 0;
}

CommandRegistration registration("resend",
                                 "Resend the stored delivery queue and wait for the outcome",
                                 [](CLI::App&) -> PnxCommandRun {
                                   return [](const PnxGlobals&) { return runResend(); };
                                 });

}  // namespace

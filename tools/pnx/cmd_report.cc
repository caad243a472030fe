// pnx _report: a driver for the delivery soak test, hidden from --help. For each of --count
// pushes it hands a payload {"aps": {...}, "pnx": {"attribution": "<prefix>-<n>",
// "mailingId": <mailing-id>}} to PNXPushDeliveryMananger::sendPushDelivery, as the
// notification service does, prints {"stored": "<prefix>-<n>"} once the call has returned
// (the record is then in the keychain), and waits for the send's outcome before the next
// push. Prints {"pushed": count} at the end. Until `pnx deliver` runs the whole extension,
// this is how the soak pushes.

#include <chrono>
#include <future>
#include <iostream>
#include <string>

#include "delivery/push_delivery_manager.h"
#include "tools/pnx/command.h"

using namespace pnx;  // the host helpers moved into namespace pnx

namespace {

struct ReportOptions {
  std::string prefix = "soak";
  long first = 0;
  long count = 1;
  long mailingId = 1;
};

constexpr auto kPatience = std::chrono::seconds(90);

int runReport(const ReportOptions& options) {
  auto manager = PNXPushDeliveryMananger::sharedInstance();
  for (long n = options.first; n < options.first + options.count; ++n) {
    std::string attribution = options.prefix + "-" + std::to_string(n);
    pnx::Value payload = pnx::Value::dict(
        {{"aps", pnx::Value::dict({{"alert", "delivery soak"}, {"mutable-content", 1}})},
         {"pnx",
          pnx::Value::dict({{"attribution", attribution}, {"mailingId", options.mailingId}})}});
    auto done = std::make_shared<std::promise<void>>();
    manager->sendPushDelivery(payload, [done](std::size_t, pnx::ErrorPtr) { done->set_value(); });
    pnxPrintJSON(pnx::Value::dict({{"stored", attribution}}));
    std::cout.flush();
    if (done->get_future().wait_for(kPatience) != std::future_status::ready) {
      return pnxFail("no outcome for " + attribution + " within 90 seconds");
    }
  }
  pnxPrintJSON(pnx::Value::dict({{"pushed", options.count}}));
  return 0;
}

CommandRegistration registration(
    "_report", "Report deliveries of generated pushes (soak driver)",
    [](CLI::App& sub) -> PnxCommandRun {
      sub.group("");  // hidden: a test driver, not a command for integrators
      auto options = std::make_shared<ReportOptions>();
      sub.add_option("--prefix", options->prefix, "Attribution prefix");
      sub.add_option("--first", options->first, "Number of the first push");
      sub.add_option("--count", options->count, "Number of pushes")->check(CLI::NonNegativeNumber);
      sub.add_option("--mailing-id", options->mailingId, "mailingId of every push");
      return [options](const PnxGlobals&) { return runReport(*options); };
    });

}  // namespace

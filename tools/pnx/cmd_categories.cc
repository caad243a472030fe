// pnx categories: the notification categories that the bundle's app has registered on the
// device, read the way the app's notification center reads them, as one JSON object:
//   {"categories": [{"identifier", "options", "intentIdentifiers", "actions": [{"identifier",
//    "title", "options", "textInput"?: {"buttonTitle", "placeholder"}}]}]}
// ordered by identifier. A device where the app registered nothing prints an empty list.

#include "platform/notifications/notification_center.h"
#include "tools/pnx/command.h"

using namespace pnx;  // the host helpers moved into namespace pnx

namespace {

int runCategories(const PnxGlobals&) {
  auto center = pnx::NotificationCenter::currentNotificationCenter();
  pnx::ErrorPtr error;
  auto categories = center->registeredCategories(&error);
  if (!categories) {
    return pnxFail("cannot read the categories of " + center->applicationIdentifier() + ": " +
                   error->localizedDescription());
  }
  pnx::Array listed;
  for (const auto& category : pnx::sortedCategories(*categories)) {
    listed.push_back(category->jsonObject());
  }
  pnxPrintJSON(pnx::Value::dict({{"categories", pnx::Value(std::move(listed))}}));
  return 0;
}

CommandRegistration registration("categories",
                                 "The notification categories the bundle's app has registered",
                                 [](CLI::App&) -> PnxCommandRun { return runCategories; });

}  // namespace

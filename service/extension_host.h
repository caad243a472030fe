// ExtensionHost: the operating system's part when a push arrives, so that the notification
// service can run whole on this machine (`pnx deliver`, the tests, the benchmarks).
//
// It starts the extension only when the payload's "aps" is a dictionary whose
// "mutable-content" is 1. Then it calls didReceiveNotificationRequest on a thread of its own
// and runs the main queue on the calling thread until the content has been handed back and
// no work of the extension is in flight (the call itself, the service's queued steps and
// category callbacks, URL tasks, delivery reports), or until the time budget has passed on
// the process Clock (so a test can pin the clock and advance it past the budget). After the
// budget it calls serviceExtensionTimeWillExpire on the main thread and lets the extension
// work on for a short grace (real time), until nothing is in flight.
//
// An exception out of didReceiveNotificationRequest (the configuration's "Invalid Config
// File", say) would end the extension's process on a phone: here it ends the run at once
// and is rethrown to the caller of deliver(), nothing shown.
//
// Every hand-back is recorded as a snapshot of the content at that moment. The first is
// what the user sees: it is shown through the app's notification center, which moves its
// attachment files into the device's notification store. Without any hand-back (or without
// the extension) the content is shown as it arrived.
//
// Thread-safety: deliver() must run on the thread that drains the main queue, one
// delivery at a time.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"
#include "platform/notifications/notification_content.h"
#include "service/notification_service_extension.h"

namespace pnx {

struct ExtensionRunOptions {
  double timeBudget = 30;  // seconds, on the process Clock
  std::chrono::milliseconds grace{1000};
};

struct ExtensionOutcome {
  bool extensionRan = false;
  bool expired = false;
  std::vector<NotificationContentPtr> handBacks;
  NotificationContentPtr displayed;
  ErrorPtr displayError;  // the first attachment that could not be moved into the store
};

class ExtensionHost {
 public:
  // Whether the operating system starts the extension for this user info.
  static bool wantsExtension(const Value& userInfo);
  // The request the operating system makes of an APNs-style payload: title, subtitle and
  // body from "aps"."alert" (a dictionary, or a string that is the body), badge, sound,
  // category ("aps"."category") and thread identifier ("aps"."thread-id"); the user info is
  // the whole payload. Values of the wrong type are left out.
  static NotificationRequestPtr requestFromPayload(std::string identifier, const Value& payload);
  // Whether any work of an extension in this process is still under way.
  static bool extensionWorkInFlight();

  static ExtensionOutcome deliver(const NotificationRequestPtr& request,
                                  const std::shared_ptr<NotificationServiceExtension>& extension,
                                  const ExtensionRunOptions& options = {});
};

}  // namespace pnx

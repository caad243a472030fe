// NotificationServiceExtension: what the operating system calls on a notification service
// extension. It starts the extension with the request and a content handler, and warns it
// once the time for the notification is nearly spent; the extension must have called the
// handler by then, or the notification is shown as it arrived.
#pragma once

#include "platform/foundation/export.h"
#include "platform/notifications/notification_content.h"

namespace pnx {

class PNX_EXPORT NotificationServiceExtension {
 public:
  virtual ~NotificationServiceExtension() = default;
  virtual void didReceiveNotificationRequest(const NotificationRequestPtr& request,
                                             ContentHandler withContentHandler) = 0;
  virtual void serviceExtensionTimeWillExpire() = 0;
};

}  // namespace pnx

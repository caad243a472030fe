// PNXNotificationService: the notification service extension. The operating system makes
// one for each remote notification that asks for mutable content and calls
// didReceiveNotificationRequest; the service then
//
//   1. reports the delivery through PNXPushDeliveryMananger, before anything else;
//   2. when the payload's "category-actions" is an array, builds a category from it (each
//      action's identifier is the compact JSON of its dictionary), merges it into the
//      app's registered categories on the main queue, waits for the registration to be
//      taken in, and points the notification at it through "aps"."category";
//   3. downloads the payload's "media-attachment" URL on a session whose delegate is the
//      service and whose delegate queue is the main queue, copies the file into the
//      temporary directory under the URL's last path component, attaches it, and hands the
//      content back.
//
// The content is handed back on every ending, and again on each later one: no or an
// unusable URL, a failed copy or attachment, the finish and then the completion of the
// download (so twice after a successful one), the session's invalidation, and
// serviceExtensionTimeWillExpire. Nothing records that it was handed back already.
// Progress and failures of the media step go to the console log ("PNXNotificationService:
// ..."); an action that cannot be written as JSON is logged ("Couldn't encode json %@")
// and stops the flow, so that only the expiry hands the content back.
//
// Thread-safety: didReceiveNotificationRequest may be called on any thread, once per
// service; serviceExtensionTimeWillExpire on any thread after it has returned. The delegate
// callbacks arrive on the main queue. The two properties are guarded by a lock.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>

#include "platform/foundation/export.h"
#include "platform/foundation/value.h"
#include "platform/network/url_session.h"
#include "platform/notifications/notification_content.h"
#include "service/notification_service_extension.h"

class PNX_EXPORT PNXNotificationService
    : public pnx::NotificationServiceExtension,
      public pnx::URLSessionDelegate,
      public std::enable_shared_from_this<PNXNotificationService> {
 public:
  // The service must be owned by a shared_ptr: its callbacks keep it alive.
  static std::shared_ptr<PNXNotificationService> make() {
    return std::make_shared<PNXNotificationService>();
  }

  void didReceiveNotificationRequest(const pnx::NotificationRequestPtr& request,
                                     pnx::ContentHandler withContentHandler) override;
  // Hands the content back as it stands.
  void serviceExtensionTimeWillExpire() override;

  // The media step: downloads and attaches the URL given as a string; anything else (no
  // value, not a string, not a URL) hands the content back at once on the calling thread.
  void deliverWithMediaAttachment(const pnx::Value& mediaAttachment);

  // URL session delegate, on the main queue.
  void didFinishDownloadingToURL(pnx::URLSession& session, pnx::URLSessionDownloadTask& task,
                                 const pnx::URL& location) override;
  void didCompleteWithError(pnx::URLSession& session, pnx::URLSessionTask& task,
                            const pnx::ErrorPtr& error) override;
  void didBecomeInvalidWithError(pnx::URLSession& session, const pnx::ErrorPtr& error) override;

  pnx::ContentHandler contentHandler() const;
  void setContentHandler(pnx::ContentHandler contentHandler);
  pnx::MutableNotificationContentPtr bestAttemptContent() const;
  void setBestAttemptContent(pnx::MutableNotificationContentPtr bestAttemptContent);

  // Steps of any service in this process still under way: blocks queued on the main queue
  // and category callbacks awaited (downloads and delivery reports are counted by URL
  // loading and the delivery manager).
  static std::size_t outstandingWork();

 private:
  void handBackContent();

  mutable std::mutex mutex_;
  pnx::ContentHandler contentHandler_;
  pnx::MutableNotificationContentPtr bestAttemptContent_;
};

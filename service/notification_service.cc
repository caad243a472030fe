#include "service/notification_service.h"

#include <string>
#include <utility>
#include <vector>

#include "config/config.h"
#include "delivery/push_delivery_manager.h"
#include "diagnostics/log.h"
#include "platform/dispatch/dispatch.h"
#include "platform/files/container.h"
#include "platform/files/file_manager.h"
#include "platform/foundation/format.h"
#include "platform/foundation/uuid.h"
#include "platform/notifications/notification_attachment.h"
#include "platform/notifications/notification_center.h"
#include "platform/system/system_log.h"
#include "service/download_file_name.h"
#include "service/dynamic_category.h"
#include "service/work_in_flight.h"

using pnx::Value;

namespace {

// The media step's messages go to the console log, not through PNXLog.
template <class... A>
void consoleLog(std::string_view format, const A&... args) {
  pnx::Console::log(pnx::format(format, args...));
}

// The localized description of an error, or nothing (printed "(null)") without one.
Value describe(const pnx::ErrorPtr& error) {
  return error ? Value(error->localizedDescription()) : Value();
}

pnx::NotificationActionPtr makeAction(const pnx::DynamicAction& action) {
  if (action.textInputButtonTitle) {
    return pnx::TextInputNotificationAction::make(action.identifier, action.title, action.options,
                                                  *action.textInputButtonTitle,
                                                  action.textInputPlaceholder);
  }
  return pnx::NotificationAction::make(action.identifier, action.title, action.options);
}

// Step 11, in the center's callback: merges the payload's category into the registered set,
// waits until the set has been taken in, then starts the media step.
void registerCategory(const std::shared_ptr<PNXNotificationService>& self,
                      const std::string& identifier, const Value& userInfo,
                      const pnx::NotificationRequestPtr& request,
                      pnx::NotificationCategorySet registered) {
  // The last category of the same identifier is replaced; every other one stays.
  pnx::NotificationCategoryPtr sameIdentifier;
  for (const auto& category : registered) {
    if (category && category->identifier() == identifier) sameIdentifier = category;
  }
  if (sameIdentifier) registered.erase(sameIdentifier);

  std::vector<pnx::NotificationActionPtr> actions;
  for (const Value& description : *userInfo["category-actions"].asArray()) {
    pnx::ErrorPtr error;
    auto action = pnx::DynamicCategory::action(description, &error);
    if (!action) {
      // Deliberately the end of this notification's work: nothing is registered and the
      // media step never starts, so only the expiry hands the content back.
      PNXLogError("Couldn't encode json %@", describe(error));
      return;
    }
    actions.push_back(makeAction(*action));
  }
  registered.insert(pnx::NotificationCategory::make(
      identifier, std::move(actions), {}, pnx::NotificationCategoryOptionCustomDismissAction));
  auto center = pnx::NotificationCenter::currentNotificationCenter();
  center->setNotificationCategories(std::move(registered));

  // Asking again only waits until the registration has been taken in.
  center->getNotificationCategories(
      [self, request, work = pnx::WorkInFlight::begin()](pnx::NotificationCategorySet) {
        self->deliverWithMediaAttachment(request->content()->userInfo()["media-attachment"]);
      });
}

}  // namespace

void PNXNotificationService::didReceiveNotificationRequest(
    const pnx::NotificationRequestPtr& request, pnx::ContentHandler withContentHandler) {
  const Value received = request->content()->userInfo();
  PNXPushDeliveryMananger::sharedInstance()->sendPushDelivery(received);
  setContentHandler(std::move(withContentHandler));
  auto content = request->content()->mutableCopy();
  setBestAttemptContent(content);

  Value userInfo = received;
  if (!pnx::DynamicCategory::isRequested(userInfo)) {
    deliverWithMediaAttachment(received["media-attachment"]);
    return;
  }
  const std::string identifier =
      pnx::DynamicCategory::identifier(userInfo, PNXConfig::sharedInstance()->watchCategory());
  userInfo = pnx::DynamicCategory::userInfoWithCategory(userInfo, identifier);
  content->setUserInfo(userInfo);
  content->setCategoryIdentifier(identifier);

  auto self = shared_from_this();
  pnx::WorkInFlight::Token work = pnx::WorkInFlight::begin();
  pnx::DispatchQueue::main().async([self, identifier, userInfo, request, work] {
    pnx::NotificationCenter::currentNotificationCenter()->getNotificationCategories(
        [self, identifier, userInfo, request,
         next = pnx::WorkInFlight::begin()](pnx::NotificationCategorySet registered) {
          registerCategory(self, identifier, userInfo, request, std::move(registered));
        });
  });
}

void PNXNotificationService::deliverWithMediaAttachment(const Value& mediaAttachment) {
  std::optional<pnx::URL> url;
  if (const std::string* text = mediaAttachment.asString()) url = pnx::URL::parse(*text);
  if (!url) {
    handBackContent();
    return;
  }
  auto self = shared_from_this();
  pnx::DispatchQueue::main().async([self, url = *url, work = pnx::WorkInFlight::begin()] {
    consoleLog("PNXNotificationService: setting up download session: %@", url.description());
    auto session =
        pnx::URLSession::make(pnx::URLSessionConfiguration::defaultSessionConfiguration(), self,
                              &pnx::DispatchQueue::main());
    session->downloadTask(url)->resume();
    consoleLog("PNXNotificationService: set up download session: %@", url.description());
  });
}

void PNXNotificationService::didFinishDownloadingToURL(pnx::URLSession&,
                                                       pnx::URLSessionDownloadTask& task,
                                                       const pnx::URL& location) {
  consoleLog("PNXNotificationService: downloadTask: didFinishDownloadingToURL %@",
             location.description());
  const std::string identifier = pnx::UUID::random().string();

  pnx::ErrorPtr error;
  std::optional<std::string> name = pnx::downloadFileName(task.originalRequest().url(), &error);
  std::string destination;
  if (name) {
    destination = pnx::pathByAppendingComponent(pnx::Container::temporaryDirectory(), *name);
    pnx::FileManager::current().copyItem(location.path(), destination, &error);
  }
  if (error) {
    consoleLog("PNXNotificationService: Copy Error: %@", error->localizedDescription());
    handBackContent();
    return;
  }

  auto attachment = pnx::NotificationAttachment::attachmentWithIdentifier(
      identifier, pnx::URL::fileURL(destination), Value(pnx::Dictionary()), &error);
  if (error) {
    consoleLog("PNXNotificationService: Attachment Error: %@", error->localizedDescription());
    handBackContent();
    return;
  }
  bestAttemptContent()->setAttachments({attachment});
  handBackContent();
}

void PNXNotificationService::didCompleteWithError(pnx::URLSession&, pnx::URLSessionTask&,
                                                  const pnx::ErrorPtr& error) {
  consoleLog("PNXNotificationService: didCompleteWithError: %@", describe(error));
  handBackContent();
}

void PNXNotificationService::didBecomeInvalidWithError(pnx::URLSession&,
                                                       const pnx::ErrorPtr& error) {
  consoleLog("PNXNotificationService: didBecomeInvalidWithError: %@", describe(error));
  handBackContent();
}

void PNXNotificationService::serviceExtensionTimeWillExpire() {
  consoleLog("PNXNotificationService: Service time expired!");
  handBackContent();
}

// No check for a missing handler or content, and no record of earlier hand-backs: every
// ending hands the content back, as it stands at that moment.
void PNXNotificationService::handBackContent() {
  contentHandler()(bestAttemptContent());
}

pnx::ContentHandler PNXNotificationService::contentHandler() const {
  std::lock_guard lock(mutex_);
  return contentHandler_;
}

void PNXNotificationService::setContentHandler(pnx::ContentHandler contentHandler) {
  std::lock_guard lock(mutex_);
  contentHandler_ = std::move(contentHandler);
}

pnx::MutableNotificationContentPtr PNXNotificationService::bestAttemptContent() const {
  std::lock_guard lock(mutex_);
  return bestAttemptContent_;
}

void PNXNotificationService::setBestAttemptContent(
    pnx::MutableNotificationContentPtr bestAttemptContent) {
  std::lock_guard lock(mutex_);
  bestAttemptContent_ = std::move(bestAttemptContent);
}

std::size_t PNXNotificationService::outstandingWork() {
  return pnx::WorkInFlight::count();
}

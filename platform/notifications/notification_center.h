// NotificationCenter: the notification center of one app on the simulated device. It
// keeps the app's registered categories and shows notifications.
//
//   auto center = NotificationCenter::currentNotificationCenter();   // the main bundle's app
//   center->getNotificationCategories([](NotificationCategorySet categories) { ... });
//   center->setNotificationCategories(std::move(categories));
//   NotificationContentPtr shown = center->displayNotification(*content);   // the host
//
// App id: an app's own bundle identifier; for an extension (a bundle whose Info.plist has
// an "NSExtension" entry or package type "XPC!", or whose directory ends in ".appex"), its
// bundle identifier without the last component, so that an app and its extensions share
// one center. Without a main bundle the app id is "unknown.bundle".
//
// Categories live in <device>/notifications/<app id>.db (SQLite, write-ahead log, file
// 0600, directories 0700; table layout in docs/layout.md), so every process of the device
// sees the same set. Both category calls run in order on the center's own serial
// background queue: getNotificationCategories reads the stored set and hands it to the
// completion handler on that queue; setNotificationCategories replaces the whole stored
// set. So a get started after a set always sees that set. A storage failure is written to
// the system log (subsystem "pnx.notifications"); a get then delivers an empty set and a
// set leaves the stored set as it was. A stored row that cannot be read as a category is
// left out of a get (and logged), so that a caller merging into what it was given keeps
// every other category; registeredCategories fails on it instead, naming what is wrong.
//
// displayNotification plays the operating system's part when a notification is shown:
// each attachment file is moved into <device>/notifications/<app id>/attachments/ (never
// overwriting: a name that is taken gets " 2", " 3", ... before its extension) and the
// content comes back with the new URLs. Files inside the process's temporary directory are
// moved; a file anywhere else is copied, so that showing a notification never takes a file
// away from where a person keeps it. An attachment whose file cannot be moved or copied is
// left out of the returned content, and *error names the first such failure.
//
// Thread-safety: all functions are thread-safe. Centers are shared per device directory
// and app id and live until the process ends.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/dispatch/dispatch.h"
#include "platform/foundation/error.h"
#include "platform/notifications/notification_category.h"
#include "platform/notifications/notification_content.h"

namespace pnx {

class Bundle;

// The app id of a bundle (see above); "unknown.bundle" for nullptr or a bundle without an
// identifier.
std::string notificationApplicationIdentifier(const Bundle* bundle);
// Whether the bundle is an app extension.
bool isApplicationExtension(const Bundle& bundle);

class NotificationCenter {
 public:
  using CategoriesHandler = std::function<void(NotificationCategorySet categories)>;

  // The center of the main bundle's app on the current device.
  static std::shared_ptr<NotificationCenter> currentNotificationCenter();
  // The center of the given app id on the current device.
  static std::shared_ptr<NotificationCenter> forApplication(const std::string& applicationId);

  const std::string& applicationIdentifier() const { return applicationId_; }
  // <device>/notifications/<app id>.db
  const std::string& databasePath() const { return databasePath_; }
  // <device>/notifications/<app id>/attachments
  std::string attachmentsDirectory() const;

  // Delivers the registered categories on the center's background queue.
  void getNotificationCategories(CategoriesHandler completionHandler);
  // Replaces the registered set (asynchronously, in order with the other calls).
  void setNotificationCategories(NotificationCategorySet categories);

  // The registered categories, read now on the calling thread (for hosts and tools): an
  // empty set when nothing was ever registered (no file is created); nullopt and *error
  // when the database cannot be read.
  std::optional<NotificationCategorySet> registeredCategories(ErrorPtr* error = nullptr);
  // Waits until every call queued before this one has been carried out.
  void waitUntilIdle();
  // Category calls queued or running (a get counts until its handler has returned): zero
  // when the center has no work in flight, so that a host can tell when it is done.
  std::size_t pendingCalls() const { return pending_.load(); }

  // Shows the content (see above) and returns what is shown.
  NotificationContentPtr displayNotification(const NotificationContent& content,
                                             ErrorPtr* error = nullptr);

  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

 private:
  NotificationCenter(std::string device, std::string applicationId);
  // At exit: closes every center's connection, which folds the write-ahead log back into
  // the database file. Waits a moment at most for a center whose queue is busy.
  static void closeAll();
  struct Storage;

  std::string device_;
  std::string applicationId_;
  std::string databasePath_;
  std::unique_ptr<Storage> storage_;  // used only on queue_
  std::shared_ptr<DispatchQueue> queue_;
  std::atomic<std::size_t> pending_{0};
};

}  // namespace pnx

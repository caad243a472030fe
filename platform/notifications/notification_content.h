// Notification content and the request that carries it.
//
//   auto content = MutableNotificationContent::make();
//   content->setTitle("Hello");
//   content->setUserInfo(payload);
//   NotificationRequest request("ID-1", content);        // keeps an immutable copy
//   MutableNotificationContentPtr best = request.content()->mutableCopy();
//   best->setCategoryIdentifier("chat");
//   handler(best);                                        // a ContentHandler
//
// NotificationContent holds title, subtitle, body, badge (a number, or null for none),
// sound (null for none; a sound name string, or the payload's sound dictionary), category
// identifier, thread identifier, user info (a dictionary) and attachments. Content is
// shared by pointer: NotificationContentPtr for reading, MutableNotificationContentPtr for
// the copy a service changes. mutableCopy() and copy() make independent copies.
//
// Thread-safety: every getter and setter takes the content's own lock, so one content may
// be changed on one thread while another reads it (getters return copies). A sequence of
// calls is not atomic as a whole.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/foundation/export.h"
#include "platform/foundation/value.h"
#include "platform/notifications/notification_attachment.h"

namespace pnx {

class NotificationContent;
class MutableNotificationContent;
using NotificationContentPtr = std::shared_ptr<const NotificationContent>;
using MutableNotificationContentPtr = std::shared_ptr<MutableNotificationContent>;

// The platform's content handler: receives the content to show.
using ContentHandler = std::function<void(NotificationContentPtr content)>;

class PNX_EXPORT NotificationContent {
 public:
  NotificationContent() = default;
  NotificationContent(const NotificationContent& other);
  NotificationContent& operator=(const NotificationContent& other);
  virtual ~NotificationContent() = default;

  std::string title() const;
  std::string subtitle() const;
  std::string body() const;
  Value badge() const;
  Value sound() const;
  std::string categoryIdentifier() const;
  std::string threadIdentifier() const;
  // Always a dictionary (empty when none was set).
  Value userInfo() const;
  std::vector<NotificationAttachmentPtr> attachments() const;

  // An immutable snapshot / a changeable copy.
  NotificationContentPtr copy() const;
  MutableNotificationContentPtr mutableCopy() const;

  // {"identifier": requestIdentifier, "title", "subtitle", "body", "badge", "sound",
  //  "categoryIdentifier", "threadIdentifier", "userInfo", "attachments": [{"identifier",
  //  "url", "type"}]}: the content as `pnx deliver` prints it.
  Value jsonObject(const std::string& requestIdentifier) const;

 protected:
  struct Fields {
    std::string title, subtitle, body;
    Value badge, sound;
    std::string categoryIdentifier, threadIdentifier;
    Value userInfo;
    std::vector<NotificationAttachmentPtr> attachments;
  };
  Fields fields() const;

  mutable std::mutex mutex_;
  Fields fields_;
};

class PNX_EXPORT MutableNotificationContent final : public NotificationContent {
 public:
  static MutableNotificationContentPtr make() {
    return std::make_shared<MutableNotificationContent>();
  }
  void setTitle(std::string title);
  void setSubtitle(std::string subtitle);
  void setBody(std::string body);
  // A number, or null for no badge (anything else counts as null).
  void setBadge(Value badge);
  void setSound(Value sound);
  void setCategoryIdentifier(std::string identifier);
  void setThreadIdentifier(std::string identifier);
  // Anything but a dictionary is stored as an empty dictionary.
  void setUserInfo(Value userInfo);
  void setAttachments(std::vector<NotificationAttachmentPtr> attachments);
};

// A notification to show: its identifier and an immutable copy of its content.
class PNX_EXPORT NotificationRequest {
 public:
  NotificationRequest(std::string identifier, const NotificationContent& content);
  static std::shared_ptr<const NotificationRequest> make(std::string identifier,
                                                         const NotificationContent& content) {
    return std::make_shared<const NotificationRequest>(std::move(identifier), content);
  }

  const std::string& identifier() const { return identifier_; }
  const NotificationContentPtr& content() const { return content_; }

 private:
  std::string identifier_;
  NotificationContentPtr content_;
};

using NotificationRequestPtr = std::shared_ptr<const NotificationRequest>;

}  // namespace pnx

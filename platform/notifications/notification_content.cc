#include "platform/notifications/notification_content.h"

#include <utility>

namespace pnx {

NotificationContent::NotificationContent(const NotificationContent& other)
    : fields_(other.fields()) {}

NotificationContent& NotificationContent::operator=(const NotificationContent& other) {
  if (this == &other) return *this;
  Fields copied = other.fields();
  std::lock_guard lock(mutex_);
  fields_ = std::move(copied);
  return *this;
}

NotificationContent::Fields NotificationContent::fields() const {
  std::lock_guard lock(mutex_);
  return fields_;
}

std::string NotificationContent::title() const {
  std::lock_guard lock(mutex_);
  return fields_.title;
}

std::string NotificationContent::subtitle() const {
  std::lock_guard lock(mutex_);
  return fields_.subtitle;
}

std::string NotificationContent::body() const {
  std::lock_guard lock(mutex_);
  return fields_.body;
}

Value NotificationContent::badge() const {
  std::lock_guard lock(mutex_);
  return fields_.badge;
}

Value NotificationContent::sound() const {
  std::lock_guard lock(mutex_);
  return fields_.sound;
}

std::string NotificationContent::categoryIdentifier() const {
  std::lock_guard lock(mutex_);
  return fields_.categoryIdentifier;
}

std::string NotificationContent::threadIdentifier() const {
  std::lock_guard lock(mutex_);
  return fields_.threadIdentifier;
}

Value NotificationContent::userInfo() const {
  std::lock_guard lock(mutex_);
  return fields_.userInfo.isDictionary() ? fields_.userInfo : Value(Dictionary());
}

std::vector<NotificationAttachmentPtr> NotificationContent::attachments() const {
  std::lock_guard lock(mutex_);
  return fields_.attachments;
}

NotificationContentPtr NotificationContent::copy() const {
  return std::make_shared<const NotificationContent>(*this);
}

MutableNotificationContentPtr NotificationContent::mutableCopy() const {
  auto copied = MutableNotificationContent::make();
  copied->fields_ = fields();
  return copied;
}

Value NotificationContent::jsonObject(const std::string& requestIdentifier) const {
  Fields f = fields();
  Array attachments;
  for (const auto& attachment : f.attachments) attachments.push_back(attachment->jsonObject());
  return Value::dict({{"identifier", requestIdentifier},
                      {"title", f.title},
                      {"subtitle", f.subtitle},
                      {"body", f.body},
                      {"badge", f.badge},
                      {"sound", f.sound},
                      {"categoryIdentifier", f.categoryIdentifier},
                      {"threadIdentifier", f.threadIdentifier},
                      {"userInfo", f.userInfo.isDictionary() ? f.userInfo : Value(Dictionary())},
                      {"attachments", Value(std::move(attachments))}});
}

void MutableNotificationContent::setTitle(std::string title) {
  std::lock_guard lock(mutex_);
  fields_.title = std::move(title);
}

void MutableNotificationContent::setSubtitle(std::string subtitle) {
  std::lock_guard lock(mutex_);
  fields_.subtitle = std::move(subtitle);
}

void MutableNotificationContent::setBody(std::string body) {
  std::lock_guard lock(mutex_);
  fields_.body = std::move(body);
}

void MutableNotificationContent::setBadge(Value badge) {
  std::lock_guard lock(mutex_);
  fields_.badge = badge.isNumber() ? std::move(badge) : Value();
}

void MutableNotificationContent::setSound(Value sound) {
  std::lock_guard lock(mutex_);
  fields_.sound = std::move(sound);
}

void MutableNotificationContent::setCategoryIdentifier(std::string identifier) {
  std::lock_guard lock(mutex_);
  fields_.categoryIdentifier = std::move(identifier);
}

void MutableNotificationContent::setThreadIdentifier(std::string identifier) {
  std::lock_guard lock(mutex_);
  fields_.threadIdentifier = std::move(identifier);
}

void MutableNotificationContent::setUserInfo(Value userInfo) {
  std::lock_guard lock(mutex_);
  fields_.userInfo = userInfo.isDictionary() ? std::move(userInfo) : Value(Dictionary());
}

void MutableNotificationContent::setAttachments(
    std::vector<NotificationAttachmentPtr> attachments) {
  std::erase(attachments, nullptr);
  std::lock_guard lock(mutex_);
  fields_.attachments = std::move(attachments);
}

NotificationRequest::NotificationRequest(std::string identifier, const NotificationContent& content)
    : identifier_(std::move(identifier)), content_(content.copy()) {}

}  // namespace pnx

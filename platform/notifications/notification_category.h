// Notification actions and categories: the buttons a notification shows, and the named
// group of them that a notification points at through its category identifier.
//
//   auto reply = TextInputNotificationAction::make("reply", "Reply",
//                                                  NotificationActionOptionForeground,
//                                                  "Send", "Message");
//   auto open = NotificationAction::make("open", "Open", NotificationActionOptionForeground);
//   auto category = NotificationCategory::make("chat", {reply, open}, {},
//                                              NotificationCategoryOptionCustomDismissAction);
//   NotificationCategorySet set{category};      // value equality: equal categories collapse
//
// All three are immutable Objects shared by pointer, like the platform's: they compare by
// value (isEqual/hash over every field, a text-input action never equals a plain one), so
// they work in NotificationCategorySet, in a Value and in a pnx::Set. description() is
// the platform-style text, stable between runs (no addresses).
//
// jsonObject() / fromJSONObject() convert to and from the JSON shape used for storage and
// by `pnx categories`:
//   category: {"identifier", "options", "intentIdentifiers": [..], "actions": [action..]}
//   action:   {"identifier", "title", "options", "textInput"?: {"buttonTitle",
//              "placeholder" (null when none)}}
//
// Option bits are the platform's values.
// Thread-safety: immutable after construction; share freely between threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/export.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"

namespace pnx {

using NotificationActionOptions = std::uint64_t;
inline constexpr NotificationActionOptions NotificationActionOptionNone = 0;
inline constexpr NotificationActionOptions NotificationActionOptionAuthenticationRequired = 1;
inline constexpr NotificationActionOptions NotificationActionOptionDestructive = 2;
inline constexpr NotificationActionOptions NotificationActionOptionForeground = 4;

using NotificationCategoryOptions = std::uint64_t;
inline constexpr NotificationCategoryOptions NotificationCategoryOptionNone = 0;
inline constexpr NotificationCategoryOptions NotificationCategoryOptionCustomDismissAction = 1;
inline constexpr NotificationCategoryOptions NotificationCategoryOptionAllowInCarPlay = 2;
inline constexpr NotificationCategoryOptions NotificationCategoryOptionHiddenPreviewsShowTitle = 4;
inline constexpr NotificationCategoryOptions NotificationCategoryOptionHiddenPreviewsShowSubtitle =
    8;
inline constexpr NotificationCategoryOptions NotificationCategoryOptionAllowAnnouncement = 16;

class NotificationAction;
class NotificationCategory;
using NotificationActionPtr = std::shared_ptr<const NotificationAction>;
using NotificationCategoryPtr = std::shared_ptr<const NotificationCategory>;

// A plain button: identifier (handed to the app when chosen), title, options.
class PNX_EXPORT NotificationAction : public Object {
 public:
  // actionWithIdentifier:title:options:
  static NotificationActionPtr make(std::string identifier, std::string title,
                                    NotificationActionOptions options);
  // Builds an action (plain or text-input) from its jsonObject(); nullptr and *error
  // (NSCocoaErrorDomain 3840) naming the field when the shape is wrong.
  static NotificationActionPtr fromJSONObject(const Value& object, ErrorPtr* error = nullptr);

  const std::string& identifier() const { return identifier_; }
  const std::string& title() const { return title_; }
  NotificationActionOptions options() const { return options_; }
  // Non-null for a TextInputNotificationAction.
  virtual const class TextInputNotificationAction* asTextInput() const { return nullptr; }

  virtual Value jsonObject() const;
  std::string className() const override { return "UNNotificationAction"; }
  // <UNNotificationAction: identifier: "ok", title: "OK", options: [foreground]>
  std::string description() const override;
  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;

 protected:
  NotificationAction(std::string identifier, std::string title, NotificationActionOptions options);
  std::string fieldsDescription() const;

 private:
  std::string identifier_;
  std::string title_;
  NotificationActionOptions options_;
};

// A button that opens a text field; the typed text goes to the app with the action.
class PNX_EXPORT TextInputNotificationAction final : public NotificationAction {
 public:
  // actionWithIdentifier:title:options:textInputButtonTitle:textInputPlaceholder:
  static std::shared_ptr<const TextInputNotificationAction> make(
      std::string identifier, std::string title, NotificationActionOptions options,
      std::string textInputButtonTitle, std::optional<std::string> textInputPlaceholder);

  const std::string& textInputButtonTitle() const { return buttonTitle_; }
  // nullopt when the action has no placeholder.
  const std::optional<std::string>& textInputPlaceholder() const { return placeholder_; }
  const TextInputNotificationAction* asTextInput() const override { return this; }

  Value jsonObject() const override;
  std::string className() const override { return "UNTextInputNotificationAction"; }
  // <UNTextInputNotificationAction: identifier: ..., title: ..., options: [...],
  //  textInputButtonTitle: "Send", textInputPlaceholder: "Message">
  std::string description() const override;
  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;

 private:
  TextInputNotificationAction(std::string identifier, std::string title,
                              NotificationActionOptions options, std::string buttonTitle,
                              std::optional<std::string> placeholder);
  std::string buttonTitle_;
  std::optional<std::string> placeholder_;
};

class PNX_EXPORT NotificationCategory final : public Object {
 public:
  // categoryWithIdentifier:actions:intentIdentifiers:options:
  static NotificationCategoryPtr make(std::string identifier,
                                      std::vector<NotificationActionPtr> actions,
                                      std::vector<std::string> intentIdentifiers,
                                      NotificationCategoryOptions options);
  // nullptr and *error (NSCocoaErrorDomain 3840) naming the field when the shape is wrong.
  static NotificationCategoryPtr fromJSONObject(const Value& object, ErrorPtr* error = nullptr);

  const std::string& identifier() const { return identifier_; }
  const std::vector<NotificationActionPtr>& actions() const { return actions_; }
  const std::vector<std::string>& intentIdentifiers() const { return intentIdentifiers_; }
  NotificationCategoryOptions options() const { return options_; }

  Value jsonObject() const;
  std::string className() const override { return "UNNotificationCategory"; }
  // <UNNotificationCategory: identifier: "chat", actions: (<...>, <...>),
  //  intentIdentifiers: (), options: [customDismissAction]>
  std::string description() const override;
  // Equal when identifier, options, intent identifiers and actions (in order) are equal.
  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;

 private:
  NotificationCategory(std::string identifier, std::vector<NotificationActionPtr> actions,
                       std::vector<std::string> intentIdentifiers,
                       NotificationCategoryOptions options);
  std::string identifier_;
  std::vector<NotificationActionPtr> actions_;
  std::vector<std::string> intentIdentifiers_;
  NotificationCategoryOptions options_;
};

// Hashing and equality by value, for sets of categories (null pointers are equal to each
// other only).
struct PNX_EXPORT NotificationCategoryHash {
  std::size_t operator()(const NotificationCategoryPtr& category) const;
};
struct PNX_EXPORT NotificationCategoryEqual {
  bool operator()(const NotificationCategoryPtr& a, const NotificationCategoryPtr& b) const;
};
// The set of registered categories (an unordered set, as the platform's is).
using NotificationCategorySet =
    std::unordered_set<NotificationCategoryPtr, NotificationCategoryHash,
                       NotificationCategoryEqual>;

// Whether the two sets hold equal categories. (The set's own == compares the pointers, as
// the standard library defines it for every unordered set; this compares the values.)
bool equalCategorySets(const NotificationCategorySet& a, const NotificationCategorySet& b);

// The set's categories ordered by identifier, then description: a stable order for output.
PNX_EXPORT std::vector<NotificationCategoryPtr> sortedCategories(
    const NotificationCategorySet& categories);

}  // namespace pnx

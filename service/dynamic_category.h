// The dynamic category of a push payload: what the service reads from "category-actions",
// "category-name" and "data" to build the category that gives the notification its
// buttons. Pure functions over the payload; the service turns their results into
// notification actions and registers them.
//
// Payload values are read as the platform reads them: flags through the lenient boolean
// reading (numbers non-zero, strings starting with Y, y, T, t or 1-9), a JSON null the
// same as an absent key, except under "data"/"watch" where any value counts.
//
// Thread-safety: pure functions, callable from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"

namespace pnx {

// Action option bits, the platform's values.
inline constexpr std::int64_t kActionOptionAuthenticationRequired = 1;
inline constexpr std::int64_t kActionOptionDestructive = 2;
inline constexpr std::int64_t kActionOptionForeground = 4;
// Category option: the notification reports its dismissal to the app.
inline constexpr std::int64_t kCategoryOptionCustomDismissAction = 1;

// One action of "category-actions", read.
struct DynamicAction {
  std::string identifier;  // the compact JSON of the whole action dictionary
  std::string title;       // "name"
  std::int64_t options = 0;
  // Set for a text-input action: "value" is a dictionary holding "textEntryTitle".
  std::optional<std::string> textInputButtonTitle;
  std::optional<std::string> textInputPlaceholder;
};

class DynamicCategory {
 public:
  // Whether the payload asks for a category: "category-actions" is an array.
  static bool isRequested(const Value& userInfo);

  // "category-name" (a fresh UUID when absent), replaced by watchCategory when "data" is a
  // dictionary holding "watch" with any value.
  static std::string identifier(const Value& userInfo, const std::string& watchCategory);

  // The user info with "aps"."category" set to the identifier. A payload without "aps"
  // stays without it; an "aps" that is not a dictionary is left as it is.
  static Value userInfoWithCategory(const Value& userInfo, const std::string& identifier);

  // Options of one action dictionary: exactly foreground for the types "rich", "dial",
  // "url" and "openApp"; otherwise the destructive, authentication and foreground flags.
  static std::int64_t actionOptions(const Value& action);

  // The action read whole. nullopt and *error when its dictionary cannot be written as JSON
  // (the action is not a dictionary, or holds a date or data).
  static std::optional<DynamicAction> action(const Value& action, ErrorPtr* error);

  // Text of a payload value used as a name: a string as it is, any other value its
  // description, nothing for an absent value or null.
  static std::string text(const Value& value);
};

}  // namespace pnx

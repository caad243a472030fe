#include "service/dynamic_category.h"

#include <array>
#include <string_view>

#include "config/value_reading.h"
#include "platform/foundation/json.h"
#include "platform/foundation/uuid.h"

namespace pnx {
namespace {

// A dictionary entry that is present and not a JSON null: the payload's "not nil".
const Value* present(const Value& dictionary, std::string_view key) {
  const Value& value = dictionary[key];
  return value.isNull() ? nullptr : &value;
}

bool flag(const Value& action, std::string_view key) {
  const Value* value = present(action, key);
  return value && ValueReading::boolValue(*value).value_or(false);
}

}  // namespace

bool DynamicCategory::isRequested(const Value& userInfo) {
  return userInfo["category-actions"].isArray();
}

std::string DynamicCategory::identifier(const Value& userInfo, const std::string& watchCategory) {
  const Value& data = userInfo["data"];
  if (data.isDictionary() && data.contains("watch")) return watchCategory;
  if (const Value* name = present(userInfo, "category-name")) return text(*name);
  return UUID::random().string();
}

Value DynamicCategory::userInfoWithCategory(const Value& userInfo, const std::string& identifier) {
  const Value& aps = userInfo["aps"];
  if (!aps.isDictionary() || !userInfo.isDictionary()) return userInfo;
  Dictionary newAps = *aps.asDictionary();
  newAps.insert_or_assign("category", identifier);
  Dictionary entries = *userInfo.asDictionary();
  entries.insert_or_assign("aps", std::move(newAps));
  return entries;
}

std::int64_t DynamicCategory::actionOptions(const Value& action) {
  static constexpr std::array<std::string_view, 4> kForegroundTypes = {"rich", "dial", "url",
                                                                       "openApp"};
  if (const std::string* type = action["type"].asString()) {
    for (std::string_view foregroundType : kForegroundTypes) {
      if (*type == foregroundType) return kActionOptionForeground;
    }
  }
  std::int64_t options = 0;
  if (flag(action, "destructive")) options |= kActionOptionDestructive;
  if (flag(action, "authentication")) options |= kActionOptionAuthenticationRequired;
  if (flag(action, "foreground")) options |= kActionOptionForeground;
  return options;
}

std::optional<DynamicAction> DynamicCategory::action(const Value& action, ErrorPtr* error) {
  DynamicAction result;
  result.options = actionOptions(action);
  // The platform's serialiser writes only arrays and dictionaries at the top.
  if (!action.isDictionary() && !action.isArray()) {
    if (error) {
      *error = Error::withDescription(
          NSCocoaErrorDomain, NSPropertyListWriteInvalidError,
          "Invalid top-level type in JSON write (" + action.className() + ")");
    }
    return std::nullopt;
  }
  auto json = JSON::serialize(action, error);
  if (!json) return std::nullopt;
  result.identifier = std::move(*json);
  if (const Value* name = present(action, "name")) result.title = text(*name);
  const Value& value = action["value"];
  if (value.isDictionary()) {
    if (const Value* buttonTitle = present(value, "textEntryTitle")) {
      result.textInputButtonTitle = text(*buttonTitle);
      if (const Value* placeholder = present(value, "textEntryPlaceholder")) {
        result.textInputPlaceholder = text(*placeholder);
      }
    }
  }
  return result;
}

std::string DynamicCategory::text(const Value& value) {
  if (const std::string* string = value.asString()) return *string;
  return value.isNull() ? std::string() : value.description();
}

}  // namespace pnx

#include "platform/notifications/notification_category.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace pnx {
namespace {

std::size_t combine(std::size_t seed, std::size_t value) {
  return seed ^ (value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

std::size_t hashText(const std::string& text) {
  return std::hash<std::string>()(text);
}

// "\"text\"" with quotes and backslashes escaped, so a description can be read back by eye.
std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

struct OptionName {
  std::uint64_t bit;
  const char* name;
};

std::string optionsDescription(std::uint64_t options, std::initializer_list<OptionName> names) {
  std::string out = "[";
  for (const OptionName& option : names) {
    if (!(options & option.bit)) continue;
    if (out.size() > 1) out += ", ";
    out += option.name;
    options &= ~option.bit;
  }
  if (options) {
    if (out.size() > 1) out += ", ";
    out += std::to_string(options);
  }
  return out + "]";
}

ErrorPtr shapeError(const std::string& what) {
  return Error::withDescription(NSCocoaErrorDomain, NSPropertyListReadCorruptError,
                                "The stored notification " + what);
}

bool fail(ErrorPtr* error, const std::string& what) {
  if (error) *error = shapeError(what);
  return false;
}

std::nullptr_t refuse(ErrorPtr* error, const std::string& what) {
  fail(error, what);
  return nullptr;
}

bool readString(const Value& object, const char* key, const char* owner, std::string* out,
                ErrorPtr* error) {
  const std::string* text = object[key].asString();
  if (!text) return fail(error, std::string(owner) + " has no string \"" + key + "\"");
  *out = *text;
  return true;
}

bool readOptions(const Value& object, const char* owner, std::uint64_t* out, ErrorPtr* error) {
  const Value& options = object["options"];
  if (!options.isInteger() || options.integerValue() < 0) {
    return fail(error, std::string(owner) + " has no non-negative integer \"options\"");
  }
  *out = static_cast<std::uint64_t>(options.integerValue());
  return true;
}

}  // namespace

// --- NotificationAction ---

NotificationAction::NotificationAction(std::string identifier, std::string title,
                                       NotificationActionOptions options)
    : identifier_(std::move(identifier)), title_(std::move(title)), options_(options) {}

NotificationActionPtr NotificationAction::make(std::string identifier, std::string title,
                                               NotificationActionOptions options) {
  return NotificationActionPtr(
      new NotificationAction(std::move(identifier), std::move(title), options));
}

NotificationActionPtr NotificationAction::fromJSONObject(const Value& object, ErrorPtr* error) {
  if (!object.isDictionary()) return refuse(error, "action is not a dictionary");
  std::string identifier, title;
  std::uint64_t options = 0;
  if (!readString(object, "identifier", "action", &identifier, error) ||
      !readString(object, "title", "action", &title, error) ||
      !readOptions(object, "action", &options, error)) {
    return nullptr;
  }
  const Value& textInput = object["textInput"];
  if (textInput.isNull()) return make(std::move(identifier), std::move(title), options);
  if (!textInput.isDictionary()) return refuse(error, "action's \"textInput\" is not a dictionary");
  std::string buttonTitle;
  if (!readString(textInput, "buttonTitle", "text input", &buttonTitle, error)) return nullptr;
  const Value& placeholder = textInput["placeholder"];
  if (!placeholder.isNull() && !placeholder.isString()) {
    return refuse(error, "text input's \"placeholder\" is neither a string nor null");
  }
  return TextInputNotificationAction::make(
      std::move(identifier), std::move(title), options, std::move(buttonTitle),
      placeholder.isString() ? std::optional<std::string>(*placeholder.asString()) : std::nullopt);
}

Value NotificationAction::jsonObject() const {
  return Value::dict({{"identifier", identifier_},
                      {"title", title_},
                      {"options", static_cast<long long>(options_)}});
}

std::string NotificationAction::fieldsDescription() const {
  return "identifier: " + quoted(identifier_) + ", title: " + quoted(title_) + ", options: " +
         optionsDescription(
             options_, {{NotificationActionOptionAuthenticationRequired, "authenticationRequired"},
                        {NotificationActionOptionDestructive, "destructive"},
                        {NotificationActionOptionForeground, "foreground"}});
}

std::string NotificationAction::description() const {
  return "<" + className() + ": " + fieldsDescription() + ">";
}

bool NotificationAction::isEqual(const Object& other) const {
  if (this == &other) return true;
  auto* action = dynamic_cast<const NotificationAction*>(&other);
  if (!action || action->asTextInput() != nullptr) return false;
  return identifier_ == action->identifier_ && title_ == action->title_ &&
         options_ == action->options_;
}

std::size_t NotificationAction::hash() const {
  return combine(combine(hashText(identifier_), hashText(title_)), options_);
}

// --- TextInputNotificationAction ---

TextInputNotificationAction::TextInputNotificationAction(std::string identifier, std::string title,
                                                         NotificationActionOptions options,
                                                         std::string buttonTitle,
                                                         std::optional<std::string> placeholder)
    : NotificationAction(std::move(identifier), std::move(title), options),
      buttonTitle_(std::move(buttonTitle)),
      placeholder_(std::move(placeholder)) {}

std::shared_ptr<const TextInputNotificationAction> TextInputNotificationAction::make(
    std::string identifier, std::string title, NotificationActionOptions options,
    std::string textInputButtonTitle, std::optional<std::string> textInputPlaceholder) {
  return std::shared_ptr<const TextInputNotificationAction>(new TextInputNotificationAction(
      std::move(identifier), std::move(title), options, std::move(textInputButtonTitle),
      std::move(textInputPlaceholder)));
}

Value TextInputNotificationAction::jsonObject() const {
  Dictionary object = *NotificationAction::jsonObject().asDictionary();
  object[Value("textInput")] =
      Value::dict({{"buttonTitle", buttonTitle_},
                   {"placeholder", placeholder_ ? Value(*placeholder_) : Value()}});
  return Value(std::move(object));
}

std::string TextInputNotificationAction::description() const {
  return "<" + className() + ": " + fieldsDescription() +
         ", textInputButtonTitle: " + quoted(buttonTitle_) +
         ", textInputPlaceholder: " + (placeholder_ ? quoted(*placeholder_) : "(null)") + ">";
}

bool TextInputNotificationAction::isEqual(const Object& other) const {
  if (this == &other) return true;
  auto* action = dynamic_cast<const TextInputNotificationAction*>(&other);
  return action && identifier() == action->identifier() && title() == action->title() &&
         options() == action->options() && buttonTitle_ == action->buttonTitle_ &&
         placeholder_ == action->placeholder_;
}

std::size_t TextInputNotificationAction::hash() const {
  std::size_t seed = combine(NotificationAction::hash(), hashText(buttonTitle_));
  return combine(seed, placeholder_ ? hashText(*placeholder_) : 0x5bd1e995);
}

// --- NotificationCategory ---

NotificationCategory::NotificationCategory(std::string identifier,
                                           std::vector<NotificationActionPtr> actions,
                                           std::vector<std::string> intentIdentifiers,
                                           NotificationCategoryOptions options)
    : identifier_(std::move(identifier)),
      actions_(std::move(actions)),
      intentIdentifiers_(std::move(intentIdentifiers)),
      options_(options) {
  // A null action has nothing to show; the platform would not take one either.
  std::erase(actions_, nullptr);
}

NotificationCategoryPtr NotificationCategory::make(std::string identifier,
                                                   std::vector<NotificationActionPtr> actions,
                                                   std::vector<std::string> intentIdentifiers,
                                                   NotificationCategoryOptions options) {
  return NotificationCategoryPtr(new NotificationCategory(std::move(identifier), std::move(actions),
                                                          std::move(intentIdentifiers), options));
}

NotificationCategoryPtr NotificationCategory::fromJSONObject(const Value& object, ErrorPtr* error) {
  if (!object.isDictionary()) return refuse(error, "category is not a dictionary");
  std::string identifier;
  std::uint64_t options = 0;
  if (!readString(object, "identifier", "category", &identifier, error) ||
      !readOptions(object, "category", &options, error)) {
    return nullptr;
  }
  const Array* intents = object["intentIdentifiers"].asArray();
  const Array* actionObjects = object["actions"].asArray();
  if (!intents) return refuse(error, "category has no array \"intentIdentifiers\"");
  if (!actionObjects) return refuse(error, "category has no array \"actions\"");
  std::vector<std::string> intentIdentifiers;
  for (const Value& intent : *intents) {
    if (!intent.isString()) return refuse(error, "intent identifier is not a string");
    intentIdentifiers.push_back(*intent.asString());
  }
  std::vector<NotificationActionPtr> actions;
  for (const Value& actionObject : *actionObjects) {
    auto action = NotificationAction::fromJSONObject(actionObject, error);
    if (!action) return nullptr;
    actions.push_back(std::move(action));
  }
  return make(std::move(identifier), std::move(actions), std::move(intentIdentifiers), options);
}

Value NotificationCategory::jsonObject() const {
  Array intents(intentIdentifiers_.begin(), intentIdentifiers_.end());
  Array actions;
  for (const auto& action : actions_) actions.push_back(action->jsonObject());
  return Value::dict({{"identifier", identifier_},
                      {"options", static_cast<long long>(options_)},
                      {"intentIdentifiers", Value(std::move(intents))},
                      {"actions", Value(std::move(actions))}});
}

std::string NotificationCategory::description() const {
  std::string actions;
  for (const auto& action : actions_) {
    actions += actions.empty() ? "" : ", ";
    actions += action->description();
  }
  std::string intents;
  for (const auto& intent : intentIdentifiers_) {
    intents += intents.empty() ? "" : ", ";
    intents += quoted(intent);
  }
  return "<" + className() + ": identifier: " + quoted(identifier_) + ", actions: (" + actions +
         "), intentIdentifiers: (" + intents + "), options: " +
         optionsDescription(
             options_,
             {{NotificationCategoryOptionCustomDismissAction, "customDismissAction"},
              {NotificationCategoryOptionAllowInCarPlay, "allowInCarPlay"},
              {NotificationCategoryOptionHiddenPreviewsShowTitle, "hiddenPreviewsShowTitle"},
              {NotificationCategoryOptionHiddenPreviewsShowSubtitle, "hiddenPreviewsShowSubtitle"},
              {NotificationCategoryOptionAllowAnnouncement, "allowAnnouncement"}}) +
         ">";
}

bool NotificationCategory::isEqual(const Object& other) const {
  if (this == &other) return true;
  auto* category = dynamic_cast<const NotificationCategory*>(&other);
  if (!category || identifier_ != category->identifier_ || options_ != category->options_ ||
      intentIdentifiers_ != category->intentIdentifiers_ ||
      actions_.size() != category->actions_.size()) {
    return false;
  }
  return std::equal(actions_.begin(), actions_.end(), category->actions_.begin(),
                    [](const NotificationActionPtr& a, const NotificationActionPtr& b) {
                      return a->isEqual(*b);
                    });
}

std::size_t NotificationCategory::hash() const {
  std::size_t seed = combine(hashText(identifier_), options_);
  for (const auto& intent : intentIdentifiers_) seed = combine(seed, hashText(intent));
  for (const auto& action : actions_) seed = combine(seed, action->hash());
  return seed;
}

std::size_t NotificationCategoryHash::operator()(const NotificationCategoryPtr& category) const {
  return category ? category->hash() : 0;
}

bool NotificationCategoryEqual::operator()(const NotificationCategoryPtr& a,
                                           const NotificationCategoryPtr& b) const {
  if (!a || !b) return a == b;
  return a->isEqual(*b);
}

bool equalCategorySets(const NotificationCategorySet& a, const NotificationCategorySet& b) {
  if (a.size() != b.size()) return false;
  for (const auto& category : a) {
    if (!b.contains(category)) return false;
  }
  return true;
}

std::vector<NotificationCategoryPtr> sortedCategories(const NotificationCategorySet& categories) {
  std::vector<NotificationCategoryPtr> sorted;
  for (const auto& category : categories) {
    if (category) sorted.push_back(category);
  }
  std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
    if (a->identifier() != b->identifier()) return a->identifier() < b->identifier();
    return a->description() < b->description();
  });
  return sorted;
}

}  // namespace pnx

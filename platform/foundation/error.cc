#include "platform/foundation/error.h"

#include <functional>
#include <utility>

#include "platform/foundation/url.h"

namespace pnx {

namespace {

// userInfo is always a dictionary, so lookups and descriptions need no null checks.
Value normalisedUserInfo(Value userInfo) {
  if (userInfo.isDictionary()) return userInfo;
  return Value(Dictionary{});
}

}  // namespace

Error::Error(std::string domain, std::int64_t code, Value userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(normalisedUserInfo(std::move(userInfo))) {}

ErrorPtr Error::make(std::string domain, std::int64_t code, Value userInfo) {
  return std::make_shared<const Error>(std::move(domain), code, std::move(userInfo));
}

ErrorPtr Error::withDescription(std::string domain, std::int64_t code, std::string description,
                                std::string path) {
  Dictionary info;
  info.emplace(Value(NSLocalizedDescriptionKey), Value(std::move(description)));
  if (!path.empty()) info.emplace(Value(NSFilePathErrorKey), Value(std::move(path)));
  return make(std::move(domain), code, Value(std::move(info)));
}

std::string Error::localizedDescription() const {
  if (const std::string* text = userInfo_[NSLocalizedDescriptionKey].asString()) return *text;
  // U+2019 (right single quotation mark), as the platform writes "couldn’t".
  return "The operation couldn\u2019t be completed. (" + domain_ + " error " +
         std::to_string(code_) + ".)";
}

ErrorPtr Error::underlyingError() const {
  return userInfo_[NSUnderlyingErrorKey].asObjectOf<Error>();
}

std::shared_ptr<const Exception> Error::underlyingException() const {
  return userInfo_[NSUnderlyingErrorKey].asObjectOf<Exception>();
}

std::shared_ptr<const URL> Error::url() const {
  return userInfo_[NSURLErrorKey].asObjectOf<URL>();
}

// The platform leaves the UserInfo part out when there is nothing in it.
std::string Error::description() const {
  std::string text = "Error Domain=" + domain_ + " Code=" + std::to_string(code_) + " \"" +
                     localizedDescription() + "\"";
  const Dictionary* info = userInfo_.asDictionary();
  if (!info || info->empty()) return text;
  text += " UserInfo={";
  bool first = true;
  for (const auto& [key, value] : *info) {
    if (!first) text += ", ";
    first = false;
    text += key.description() + "=" + value.description();
  }
  text += "}";
  return text;
}

bool Error::isEqual(const Object& other) const {
  const auto* error = dynamic_cast<const Error*>(&other);
  return error && error->domain_ == domain_ && error->code_ == code_ &&
         error->userInfo_ == userInfo_;
}

// Equal errors share domain and code; userInfo is left out to keep hashing cheap.
std::size_t Error::hash() const {
  return std::hash<std::string>()(domain_) * 31 + std::hash<std::int64_t>()(code_);
}

Exception::Exception(std::string name, std::string reason, Value userInfo)
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(std::move(userInfo)) {}

bool Exception::isEqual(const Object& other) const {
  const auto* exception = dynamic_cast<const Exception*>(&other);
  return exception && exception->name_ == name_ && exception->reason_ == reason_;
}

std::size_t Exception::hash() const {
  return std::hash<std::string>()(name_) * 31 + std::hash<std::string>()(reason_);
}

}  // namespace pnx

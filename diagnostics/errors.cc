#include "diagnostics/errors.h"

#include <cstdlib>
#include <utility>

#include "diagnostics/error_caller.h"
#include "diagnostics/log.h"
#include "platform/foundation/format.h"
#include "platform/foundation/url.h"

namespace {

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUTF8(const pnx::Data& bytes) {
  std::size_t i = 0;
  const std::size_t n = bytes.size();
  while (i < n) {
    const std::uint8_t lead = bytes[i];
    std::size_t length;
    std::uint32_t min;
    std::uint32_t code;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, min = 0x80, code = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, min = 0x800, code = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, min = 0x10000, code = lead & 0x07;
    } else {
      return false;
    }
    if (n - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
      const std::uint8_t next = bytes[i + k];
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

// The leading decimal integer of a text after optional white space and sign, saturating at
// the integer range; 0 when the text does not start with a number (an HTTP date).
std::int64_t leadingInteger(const std::string& text) {
  return std::strtoll(text.c_str(), nullptr, 10);
}

// A usable "Retry-After" value (a string or a number) as an integer; none otherwise. The
// name is matched in any case: HTTP/2 servers send "retry-after".
std::optional<std::int64_t> retryAfterSeconds(const pnx::HTTPURLResponse& response) {
  const pnx::Value& header = response.valueForHTTPHeaderField("Retry-After");
  if (const std::string* text = header.asString()) return leadingInteger(*text);
  if (header.isNumber()) return header.integerValue();
  return std::nullopt;
}

pnx::Value optionalText(const std::optional<std::string>& text) {
  return text ? pnx::Value(*text) : pnx::Value();
}

}  // namespace

pnx::ErrorPtr NSError_PNX::errorWithCode(std::intptr_t code, const std::string& description) {
  return errorWithCode(code, description, pnx::Value(), pnx::Value());
}

pnx::ErrorPtr NSError_PNX::errorWithCode(std::intptr_t code, const std::string& description,
                                         const pnx::Value& underlyingError) {
  return errorWithCode(code, description, underlyingError, pnx::Value());
}

// The order fixes which value wins when keys collide: extra userInfo over the description,
// the underlying error over extra userInfo, the call site over everything.
pnx::ErrorPtr NSError_PNX::errorWithCode(std::intptr_t code, const std::string& description,
                                         const pnx::Value& underlyingError,
                                         const pnx::Value& userInfo) {
  std::shared_ptr<PNXErrorCaller> caller = PNXErrorCaller::errorCaller();
  pnx::Dictionary info;
  info.insert_or_assign(pnx::Value(pnx::NSLocalizedDescriptionKey), pnx::Value(description));
  if (const pnx::Dictionary* extra = userInfo.asDictionary()) {
    for (const auto& [key, value] : *extra) info.insert_or_assign(key, value);
  }
  if (!underlyingError.isNull()) {
    info.insert_or_assign(pnx::Value(pnx::NSUnderlyingErrorKey), underlyingError);
  }
  pnx::Value finalInfo = addCaller(caller, pnx::Value(std::move(info)));
  return pnx::Error::make(errorDomain, code, std::move(finalInfo));
}

pnx::Value NSError_PNX::addCaller(const pnx::ObjectPtr& caller, const pnx::Value& userInfo) {
  auto record = std::dynamic_pointer_cast<const PNXErrorCaller>(caller);
  if (!record) {
    PNXLogError("NSError(PNX) addCaller called without valid caller reference.");
    return userInfo;
  }
  pnx::Dictionary info;
  if (const pnx::Dictionary* existing = userInfo.asDictionary()) info = *existing;
  info.insert_or_assign(pnx::Value(pnx::NSDebugDescriptionErrorKey),
                        pnx::Value(record->debugDescription()));
  return pnx::Value(std::move(info));
}

pnx::ErrorPtr NSError_PNX::appKeyMissing() {
  return errorWithCode(
      100,
      "AppKey is not set to a valid value in the configuration. (PnxConfig.json or manual "
      "integration) Please note that if application is run with standard developer signing "
      "from the Xcode app, the development AppKey is used. If the app is being run with a "
      "production provisioning profile, the production AppKey is used.");
}

pnx::ErrorPtr NSError_PNX::pnxRegistrationIncomplete() {
  return errorWithCode(
      101,
      "The PNX SDK has not yet registered with the server. Requests to update attributes and "
      "send events will not be able to be sent until the registration completes. Note, if "
      "you're deferring SDK initialization, execute [PNXSdk.sharedInstance "
      "manualInitialization] to begin the registration process");
}

pnx::ErrorPtr NSError_PNX::apsRegistrationIncomplete() {
  return errorWithCode(
      102,
      "The PNX SDK has not received APNS registration information yet. Requests to update "
      "attributes and send events will not be able to be sent until the registration "
      "completes. Please verify that UIApplication's registerForRemoteNotifications has been "
      "called.");
}

pnx::ErrorPtr NSError_PNX::invalidJsonFromServer(const pnx::ErrorPtr& error) {
  return errorWithCode(103,
                       "The JSON returned from the server is invalid. Is there a proxy in front "
                       "of the device modifying the REST response?",
                       error ? pnx::Value(pnx::ObjectPtr(error)) : pnx::Value());
}

pnx::ErrorPtr NSError_PNX::keychainUnarchiveFailed(
    const std::optional<std::string>& name, std::shared_ptr<const pnx::Exception> exception) {
  return errorWithCode(104, pnx::format("Keychain unarchive of %@ failed", optionalText(name)),
                       exception ? pnx::Value(pnx::ObjectPtr(exception)) : pnx::Value());
}

pnx::ErrorPtr NSError_PNX::httpResponseError(const pnx::HTTPURLResponse& response,
                                             const std::optional<pnx::Data>& data) {
  pnx::Dictionary info;
  if (auto retryAfter = retryAfterSeconds(response)) {
    info.insert_or_assign(pnx::Value(PNXRetryAfterKey), pnx::Value(*retryAfter));
  }
  if (data && isValidUTF8(*data)) {
    info.insert_or_assign(pnx::Value(PNXStatusMessageKey),
                          pnx::Value(std::string(data->begin(), data->end())));
  }
  info.insert_or_assign(pnx::Value(PNXStatusCodeKey), pnx::Value(response.statusCode()));
  if (response.url()) {
    info.insert_or_assign(pnx::Value(pnx::NSURLErrorKey),
                          pnx::Value(pnx::ObjectPtr(std::make_shared<pnx::URL>(*response.url()))));
  }
  return errorWithCode(
      105,
      "HTTP connection to PNX server failed. Please check the baseUrl in the PNX configuration, "
      "the App Transport Security Settings in info.plist, and the network connection and proxy "
      "of the device.",
      pnx::Value(), pnx::Value(std::move(info)));
}

pnx::ErrorPtr NSError_PNX::responseNotHttpError() {
  return errorWithCode(
      106,
      "Server response was not HTTP. Please check the baseUrl in the PNX configuration, the App "
      "Transport Security Settings in info.plist, and the network connection and proxy of the "
      "device.");
}

pnx::ErrorPtr NSError_PNX::inboxSyncTooFrequent(pnx::Date lastSync) {
  return errorWithCode(107, pnx::format("Inbox sync request submitted too frequently. Do not "
                                        "request to sync inbox messages more then once every 5 "
                                        "minutes. Last sync was %.1f seconds ago.",
                                        -lastSync.timeIntervalSinceNow()));
}

pnx::ErrorPtr NSError_PNX::invalidInboxMessageId() {
  return errorWithCode(108, "Invalid inboxMessageId provided to API");
}

pnx::ErrorPtr NSError_PNX::inboxMessageDecodeFromPayloadFailed() {
  return errorWithCode(109, "Could not decode inbox message content from payload");
}

pnx::ErrorPtr NSError_PNX::duplicateUserAttribute(const pnx::Value& name, const pnx::Value& value) {
  return errorWithCode(
      110, pnx::format("User attribute named %@ was set to value %@ multiple times.", name, value));
}

pnx::ErrorPtr NSError_PNX::duplicateChannelAttribute(const pnx::Value& name,
                                                     const pnx::Value& value) {
  return errorWithCode(
      111,
      pnx::format("Channel attribute named %@ was set to value %@ multiple times.", name, value));
}

pnx::ErrorPtr NSError_PNX::multipleDeleteUserAttribute(const pnx::Value& name) {
  return errorWithCode(112,
                       pnx::format("User attribute named %@ was deleted more then once.", name));
}

pnx::ErrorPtr NSError_PNX::multipleDeleteChannelAttribute(const pnx::Value& name) {
  return errorWithCode(113,
                       pnx::format("Channel attribute named %@ was deleted more then once.", name));
}

pnx::ErrorPtr NSError_PNX::verificationUserAttribute(const pnx::Value& name,
                                                     const pnx::Value& value) {
  return errorWithCode(
      114, pnx::format("Verification of setting user attribute %@ to %@ failed.", name, value));
}

pnx::ErrorPtr NSError_PNX::verificationChannelAttribute(const pnx::Value& name,
                                                        const pnx::Value& value) {
  return errorWithCode(
      115, pnx::format("Verification of setting channel attribute %@ to %@ failed.", name, value));
}

pnx::ErrorPtr NSError_PNX::verificationDeleteUserAttribute(const pnx::Value& name) {
  return errorWithCode(
      116, pnx::format("Verification of deleting user attribute named %@ failed.", name));
}

pnx::ErrorPtr NSError_PNX::verificationDeleteChannelAttribute(const pnx::Value& name) {
  return errorWithCode(
      117, pnx::format("Verification of deleting channel attribute named %@ failed.", name));
}

pnx::ErrorPtr NSError_PNX::genericDatabaseErrorCode(std::intptr_t code,
                                                    const std::string& description) {
  return errorWithCode(118, description, pnx::Value(),
                       pnx::Value::dict({{PNXSqliteCodeKey, pnx::Value(code)}}));
}

pnx::ErrorPtr NSError_PNX::installIdNotAvailable() {
  return errorWithCode(119, "InstallId not available, keychain is inaccessible.");
}

pnx::ErrorPtr NSError_PNX::httpRequestMissingURL() {
  return errorWithCode(120, "HTTP request missing required URL.");
}

pnx::ErrorPtr NSError_PNX::valueIsNotJsonComplient(const pnx::Value& value) {
  return errorWithCode(121, pnx::format("Could not encode value as JSON: %@", value));
}

pnx::ErrorPtr NSError_PNX::keychainNotAvailable() {
  return errorWithCode(122, "Keychain is inaccessible.");
}

pnx::ErrorPtr NSError_PNX::duplicateEventNamed(const pnx::Value& name, const pnx::Value& type) {
  return errorWithCode(
      123,
      pnx::format("Event with name: %@, type: %@ was prevented from being queued multiple times.",
                  name, type));
}

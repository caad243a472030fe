// NSError_PNX: the error factories of the SDK's one error domain, "pnx.campaign.mobile"
// (errorDomain). Every error the SDK hands to a caller is made here, with its fixed code
// (100 to 123) and text, and with the description of the call site that asked for it under
// NSDebugDescriptionErrorKey (a PNXErrorCaller record). In call stack lines the class
// shows as "NSError(PNX)", which is how the caller record recognises and skips its frames.
//
// Thread-safety: stateless; every factory may be called from any thread at the same time.
// The call-site record is taken on the calling thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "diagnostics/constants.h"
#include "platform/foundation/date.h"
#include "platform/foundation/error.h"
#include "platform/foundation/export.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"
#include "platform/network/http_response.h"

namespace pnx {

// userInfo keys of a code-105 error (read back by the delivery manager) and of code 118.
inline constexpr const char* kRetryAfterKey = "retryAfter";
inline constexpr const char* kStatusMessageKey = "statusMessage";
inline constexpr const char* kStatusCodeKey = "statusCode";
inline constexpr const char* kSqliteCodeKey = "sqliteCode";

}  // namespace pnx

class PNX_EXPORT NSError_PNX {
 public:
  // The builder. userInfo starts as { NSLocalizedDescriptionKey: description }; the
  // entries of extraUserInfo (a dictionary, or null) are copied over it, then a non-null
  // underlyingError is set under NSUnderlyingErrorKey, then the call site is added.
  static pnx::ErrorPtr errorWithCode(std::intptr_t code, const std::string& description);
  static pnx::ErrorPtr errorWithCode(std::intptr_t code, const std::string& description,
                                     const pnx::Value& underlyingError);
  static pnx::ErrorPtr errorWithCode(std::intptr_t code, const std::string& description,
                                     const pnx::Value& underlyingError, const pnx::Value& userInfo);
  // userInfo with NSDebugDescriptionErrorKey set to the record's debugDescription; when the
  // record is null or not a PNXErrorCaller, logs that and returns userInfo unchanged.
  static pnx::Value addCaller(const pnx::ObjectPtr& caller, const pnx::Value& userInfo);

  // Codes 100 to 103.
  static pnx::ErrorPtr appKeyMissing();
  static pnx::ErrorPtr pnxRegistrationIncomplete();
  static pnx::ErrorPtr apsRegistrationIncomplete();
  static pnx::ErrorPtr invalidJsonFromServer(const pnx::ErrorPtr& error);
  // 104, with the exception as the underlying error.
  static pnx::ErrorPtr keychainUnarchiveFailed(const std::optional<std::string>& name,
                                               std::shared_ptr<const pnx::Exception> exception);
  // 105: "statusCode", "retryAfter" (from a numeric or textual Retry-After header: its
  // leading integer, 0 for an HTTP date), "statusMessage" (the body, when it is UTF-8),
  // and the response's URL under NSURLErrorKey.
  static pnx::ErrorPtr httpResponseError(const pnx::HTTPURLResponse& response,
                                         const std::optional<pnx::Data>& data);
  // Codes 106 to 117; names and values print as "%@" does, a null one as "(null)".
  static pnx::ErrorPtr responseNotHttpError();
  static pnx::ErrorPtr inboxSyncTooFrequent(pnx::Date lastSync);
  static pnx::ErrorPtr invalidInboxMessageId();
  static pnx::ErrorPtr inboxMessageDecodeFromPayloadFailed();
  static pnx::ErrorPtr duplicateUserAttribute(const pnx::Value& name, const pnx::Value& value);
  static pnx::ErrorPtr duplicateChannelAttribute(const pnx::Value& name, const pnx::Value& value);
  static pnx::ErrorPtr multipleDeleteUserAttribute(const pnx::Value& name);
  static pnx::ErrorPtr multipleDeleteChannelAttribute(const pnx::Value& name);
  static pnx::ErrorPtr verificationUserAttribute(const pnx::Value& name, const pnx::Value& value);
  static pnx::ErrorPtr verificationChannelAttribute(const pnx::Value& name,
                                                    const pnx::Value& value);
  static pnx::ErrorPtr verificationDeleteUserAttribute(const pnx::Value& name);
  static pnx::ErrorPtr verificationDeleteChannelAttribute(const pnx::Value& name);
  // 118, with the description as given and "sqliteCode" = code.
  static pnx::ErrorPtr genericDatabaseErrorCode(std::intptr_t code, const std::string& description);
  // Codes 119 to 122.
  static pnx::ErrorPtr installIdNotAvailable();
  static pnx::ErrorPtr httpRequestMissingURL();
  static pnx::ErrorPtr valueIsNotJsonComplient(const pnx::Value& value);
  static pnx::ErrorPtr keychainNotAvailable();
  // 123; the event is any object answering name() and type().
  template <class Event>
  static pnx::ErrorPtr duplicateEvent(const Event& event) {
    return duplicateEventNamed(event.name(), event.type());
  }
  static pnx::ErrorPtr duplicateEventNamed(const pnx::Value& name, const pnx::Value& type);
};

// Error and Exception: the platform's error object (domain, code, userInfo) and its
// exception (name, reason). Both are immutable Objects, so they can sit inside a Value
// (an error's underlying error or exception lives in userInfo under NSUnderlyingErrorKey,
// the failing URL under NSURLErrorKey).
//
// Reads report failures through an error place, `ErrorPtr* error`, which stays untouched
// on success; writes return a flag. Exceptions are thrown only where the system raises
// them (an unarchive failure, an invalid configuration file).
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/export.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"

namespace pnx {

class URL;

// userInfo keys, spelt as the platform spells them.
inline constexpr const char* NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr const char* NSUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr const char* NSDebugDescriptionErrorKey = "NSDebugDescription";
inline constexpr const char* NSURLErrorKey = "NSErrorFailingURLKey";
inline constexpr const char* NSFilePathErrorKey = "NSFilePath";

// Domains of the errors that the platform layer itself makes.
inline constexpr const char* NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr const char* NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* NSURLErrorDomain = "NSURLErrorDomain";

// NSCocoaErrorDomain codes that the platform layer reports, under the platform's names.
inline constexpr std::int64_t NSFileNoSuchFileError = 4;
inline constexpr std::int64_t NSFileReadUnknownError = 256;
inline constexpr std::int64_t NSFileReadNoPermissionError = 257;
inline constexpr std::int64_t NSFileReadNoSuchFileError = 260;
inline constexpr std::int64_t NSFileWriteUnknownError = 512;
inline constexpr std::int64_t NSFileWriteNoPermissionError = 513;
inline constexpr std::int64_t NSFileWriteFileExistsError = 516;
inline constexpr std::int64_t NSFileWriteOutOfSpaceError = 640;
inline constexpr std::int64_t NSFileWriteVolumeReadOnlyError = 642;
inline constexpr std::int64_t NSPropertyListReadCorruptError = 3840;
inline constexpr std::int64_t NSPropertyListWriteInvalidError = 3851;

class Error;
using ErrorPtr = std::shared_ptr<const Error>;

class PNX_EXPORT Error final : public Object {
 public:
  // userInfo must be a dictionary or null (treated as empty).
  Error(std::string domain, std::int64_t code, Value userInfo = {});
  static ErrorPtr make(std::string domain, std::int64_t code, Value userInfo = {});
  // A platform-layer error with just a description (and optionally the path it concerns).
  static ErrorPtr withDescription(std::string domain, std::int64_t code, std::string description,
                                  std::string path = {});

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  const Value& userInfo() const { return userInfo_; }

  // userInfo[NSLocalizedDescriptionKey] when it is a string, else the platform's generic
  // "The operation couldn’t be completed. (<domain> error <code>.)".
  std::string localizedDescription() const;
  // The entry under NSUnderlyingErrorKey when it is an Error / an Exception.
  ErrorPtr underlyingError() const;
  std::shared_ptr<const class Exception> underlyingException() const;
  // The entry under NSURLErrorKey when it is a URL.
  std::shared_ptr<const URL> url() const;

  std::string className() const override { return "NSError"; }
  // "Error Domain=<domain> Code=<code> \"<localized description>\" UserInfo={...}"
  std::string description() const override;
  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;

 private:
  std::string domain_;
  std::int64_t code_;
  Value userInfo_;
};

// The platform's exception. Thrown by value (it is a std::exception too) and caught by
// reference; copy it into a Value with Value(std::make_shared<Exception>(e)).
class PNX_EXPORT Exception final : public Object, public std::exception {
 public:
  Exception(std::string name, std::string reason, Value userInfo = {});

  const std::string& name() const { return name_; }
  const std::string& reason() const { return reason_; }
  const Value& userInfo() const { return userInfo_; }

  const char* what() const noexcept override { return reason_.c_str(); }
  std::string className() const override { return "NSException"; }
  std::string description() const override { return reason_; }
  bool isEqual(const Object& other) const override;
  // Agrees with isEqual: by name and reason.
  std::size_t hash() const override;

 private:
  std::string name_;
  std::string reason_;
  Value userInfo_;
};

// Names of the platform exceptions the library raises.
inline constexpr const char* NSInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr const char* NSInvalidUnarchiveOperationException =
    "NSInvalidUnarchiveOperationException";

}  // namespace pnx

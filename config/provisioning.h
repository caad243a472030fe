// PNXProvisioning: how the running application was signed, read from the provisioning
// profile in its main bundle ("embedded.mobileprovision", or the desktop layout's
// "Contents/embedded.provisionprofile").
//
// The profile is a signed envelope around a plain-text XML property list; the reader cuts
// that list out of the file's bytes, reads the distribution environment ("debug",
// "ad-hoc", "enterprise" or "appstore"), the expiration date and the provisioned devices.
// Every failure is logged once at error level and leaves the three properties none; the
// instance is still usable.
//
// Thread-safety: the shared instance is created once even under concurrent first calls;
// each property is individually atomic (guarded by the instance's mutex).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/foundation/date.h"
#include "platform/foundation/export.h"
#include "platform/foundation/value.h"

class PNX_EXPORT PNXProvisioning {
 public:
  // The process's reader, which reads the main bundle's profile on first use.
  static std::shared_ptr<PNXProvisioning> sharedInstance();

  // Reads the main bundle's profile.
  PNXProvisioning();
  // Reads the profile at `path` (tests and tools that hold a file of their own).
  explicit PNXProvisioning(const std::string& path);

  // The profile's "ExpirationDate"; none when absent or not a date.
  std::optional<pnx::Date> certificateExpiration() const;
  void setCertificateExpiration(std::optional<pnx::Date> date);
  // "debug", "ad-hoc", "enterprise", "appstore"; none when the profile could not be read.
  std::optional<std::string> binaryEnvironment() const;
  void setBinaryEnvironment(std::optional<std::string> environment);
  // The profile's "ProvisionedDevices" as read (normally an array); null when absent.
  pnx::Value provisionedDevices() const;
  void setProvisionedDevices(pnx::Value devices);

  // True when the expiration lies in the past; false when it is now, later, or none.
  bool certificateExpired() const;

 private:
  void readProfileAt(const std::optional<std::string>& path);
  void readPropertyList(const pnx::Value& plist);

  mutable std::mutex mutex_;
  std::optional<pnx::Date> certificateExpiration_;
  std::optional<std::string> binaryEnvironment_;
  pnx::Value provisionedDevices_;
};

#include "config/provisioning.h"

#include <string_view>

#include "codecs/hex.h"
#include "config/value_reading.h"
#include "diagnostics/log.h"
#include "platform/dispatch/dispatch.h"
#include "platform/files/bundle.h"
#include "platform/files/file_manager.h"
#include "platform/foundation/plist.h"

namespace {

// "<?xml" and "</plist>" as the lower-case hex text the profile is searched in.
constexpr std::string_view kPlistStartMarker = "3c3f786d6c";
constexpr std::string_view kPlistEndMarker = "3c2f706c6973743e";

// The main bundle's "embedded.mobileprovision", else its "Contents/embedded.provisionprofile".
std::optional<std::string> locateProfile() {
  auto bundle = pnx::Bundle::main();
  if (!bundle) return std::nullopt;
  pnx::FileManager& files = pnx::FileManager::current();
  auto mobile = bundle->pathForResource("embedded", "mobileprovision");
  if (mobile && files.fileExists(*mobile)) return mobile;
  const std::string desktop = pnx::pathByAppendingComponent(
      pnx::pathByAppendingComponent(bundle->bundlePath(), "Contents"), "embedded.provisionprofile");
  if (files.fileExists(desktop)) return desktop;
  return std::nullopt;
}

// The hex text from the opening marker up to and including the closing one, or nullopt
// (with the error logged) when a marker is missing or they are the wrong way round.
std::optional<std::string_view> plistHexRange(std::string_view hex) {
  const std::size_t start = hex.find(kPlistStartMarker);
  if (start == std::string_view::npos) {
    PNXLogError("Couldn't find beginning of plist in embedded.mobileprovision");
    return std::nullopt;
  }
  // Searched from the start of the text, not from the opening marker.
  const std::size_t end = hex.find(kPlistEndMarker);
  if (end == std::string_view::npos) {
    PNXLogError("Couldn't find ending of plist in embedded.mobileprovision");
    return std::nullopt;
  }
  if (end < start) {
    // A closing marker before the opening one gives no range to cut out.
    PNXLogError("Couldn't extract plist string from embedded.mobileprovision");
    return std::nullopt;
  }
  return hex.substr(start, end - start + kPlistEndMarker.size());
}

bool isTrue(const pnx::Value& value) {
  return pnx::ValueReading::boolValue(value).value_or(false);
}

}  // namespace

std::shared_ptr<PNXProvisioning> PNXProvisioning::sharedInstance() {
  static pnx::OnceFlag once;
  static std::shared_ptr<PNXProvisioning> instance;
  pnx::dispatchOnce(once, [] { instance = std::make_shared<PNXProvisioning>(); });
  return instance;
}

PNXProvisioning::PNXProvisioning() {
  readProfileAt(locateProfile());
}

PNXProvisioning::PNXProvisioning(const std::string& path) {
  readProfileAt(pnx::FileManager::current().fileExists(path) ? std::optional(path) : std::nullopt);
}

void PNXProvisioning::readProfileAt(const std::optional<std::string>& path) {
  PNXLog::sharedInstance();  // messages are dropped until the log exists
  if (!path) {
    PNXLogError(
        "Couldn't find file embedded.mobileprovision or embedded.provisionprofile, you may be "
        "using the Simulator which doesn't have this file.");
    return;
  }
  pnx::ErrorPtr readError;
  auto bytes = pnx::FileManager::current().contentsOfFile(*path, &readError);
  if (!bytes) {
    // Names the first candidate even when the desktop one was read.
    PNXLogError("Could not read embedded.mobileprovision");
    return;
  }
  const std::string hex = hexadecimalString(*bytes);
  auto range = plistHexRange(hex);
  if (!range) return;
  auto text = stringFromHex(*range);
  if (!text) {
    PNXLogError("Couldn't extract plist string from embedded.mobileprovision");
    return;
  }
  pnx::ErrorPtr parseError;
  auto plist = pnx::PropertyList::parse(pnx::Data(text->begin(), text->end()), &parseError);
  if (!plist || !plist->isDictionary()) {
    PNXLogError("Couldn't read plist: %@",
                parseError ? parseError->localizedDescription()
                           : std::string("the property list is not a dictionary"));
    return;
  }
  PNXLogTrace("Provisioning - %@", *plist);
  readPropertyList(*plist);
}

void PNXProvisioning::readPropertyList(const pnx::Value& plist) {
  std::string environment;
  if (plist.contains("ProvisionedDevices")) {
    PNXLogVerbose("Provisioning - ProvisionedDevices exists");
    if (isTrue(plist["Entitlements"]["get-task-allow"])) {
      PNXLogVerbose("Provisioning - Entitlements.get-task-allow is true (debug)");
      environment = "debug";
    } else {
      PNXLogVerbose("Provisioning - Entitlements.get-task-allow is false (ad-hoc)");
      environment = "ad-hoc";
    }
  } else if (isTrue(plist["ProvisionsAllDevices"])) {
    PNXLogVerbose("Provisioning - ProvisionsAllDevices exists (enterprise)");
    environment = "enterprise";
  } else {
    PNXLogVerbose(
        "Provisioning - ProvisionsAllDevices and ProvisionedDevices don't exist (appstore)");
    environment = "appstore";
  }
  setBinaryEnvironment(environment);
  const pnx::Date* expiration = plist["ExpirationDate"].asDate();
  setCertificateExpiration(expiration ? std::optional(*expiration) : std::nullopt);
  setProvisionedDevices(plist["ProvisionedDevices"]);
}

std::optional<pnx::Date> PNXProvisioning::certificateExpiration() const {
  std::lock_guard lock(mutex_);
  return certificateExpiration_;
}

void PNXProvisioning::setCertificateExpiration(std::optional<pnx::Date> date) {
  std::lock_guard lock(mutex_);
  certificateExpiration_ = date;
}

std::optional<std::string> PNXProvisioning::binaryEnvironment() const {
  std::lock_guard lock(mutex_);
  return binaryEnvironment_;
}

void PNXProvisioning::setBinaryEnvironment(std::optional<std::string> environment) {
  std::lock_guard lock(mutex_);
  binaryEnvironment_ = std::move(environment);
}

pnx::Value PNXProvisioning::provisionedDevices() const {
  std::lock_guard lock(mutex_);
  return provisionedDevices_;
}

void PNXProvisioning::setProvisionedDevices(pnx::Value devices) {
  std::lock_guard lock(mutex_);
  provisionedDevices_ = std::move(devices);
}

bool PNXProvisioning::certificateExpired() const {
  auto expiration = certificateExpiration();
  return expiration && expiration->timeIntervalSinceNow() < 0;
}

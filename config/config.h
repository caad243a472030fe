// PNXConfig: the process-wide configuration of the kit.
//
// Built once from a dictionary handed in by the application or, when none is, from
// "PnxConfig.json" in the main bundle. The loosely typed JSON values become typed
// properties with defaults; a few are clamped, the application key is chosen by the
// provisioning environment, the base URL is reduced to its server root, the log settings
// are pushed into the log, and the result is logged. Values of the wrong type read as the
// key's default; only a file that is not JSON (or not an object) stops the build, with a
// pnx::Exception ("Invalid Config File" / "Invalid Config value").
//
// Thread-safety: the shared instance is built exactly once even under concurrent first
// calls. Every property is individually atomic; nothing locks several properties at once.
// pathForDatabase runs under a lock of its own, so concurrent calls never move files at
// the same time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "config/atomic_property.h"
#include "platform/foundation/export.h"
#include "platform/foundation/object.h"
#include "platform/foundation/url.h"
#include "platform/foundation/uuid.h"
#include "platform/foundation/value.h"

// Exported configuration constants; the defaults of the configuration keys equal them.
inline constexpr const char* kConfigFileName = "PnxConfig";
// The kit's server root, used when "baseUrl" is missing or has no scheme.
inline constexpr const char* kDefaultUrl = "https://push.quorvex.example/";
inline constexpr std::int32_t kDefaultSessionTimeout = 20;
inline constexpr std::int32_t kDefaultSyncRadius = 100000;
inline constexpr std::int32_t kDefaultSyncTimeout = 600;
inline constexpr std::int32_t kMinSyncTimeout = 300;
inline constexpr const char* kDefaultHandoffUserActivityName = "pnx.application";
inline constexpr const char* kDefaultHandoffInterface = "handoff";
inline constexpr const char* kDefaultWatchCategory = "pnx-watch-category";
inline constexpr std::int32_t kMaximumSearchRadius = 10000000;
inline constexpr std::int32_t kDefaultSearchRadius = 10000;
inline constexpr std::int32_t kMaximumSearchCount = 100;
inline constexpr std::int32_t kMaximumGeofenceCount = 20;
inline constexpr std::int32_t kDefaultDatabaseRotationDays = 30;

// The platform's location accuracy constants, in metres.
inline constexpr double kCLLocationAccuracyBest = -1;
inline constexpr double kCLLocationAccuracyNearestTenMeters = 10;
inline constexpr double kCLLocationAccuracyHundredMeters = 100;
inline constexpr double kCLLocationAccuracyKilometer = 1000;
inline constexpr double kCLLocationAccuracyThreeKilometers = 3000;

namespace pnx {

// A class reference for "appDelegateClass". There is no run-time class lookup by name
// here, so applications register a named factory instead (registerAppDelegateClass).
struct AppDelegateClass {
  std::string name;
  std::function<std::shared_ptr<pnx::Object>()> make;
};

}  // namespace pnx

class PNX_EXPORT PNXConfig {
 public:
  // The process's configuration. The first call builds it, from `dictionary` when that is
  // a dictionary, else from the bundle's file; later calls ignore their argument. A build
  // that throws leaves no instance, so a later call tries again.
  static std::shared_ptr<PNXConfig> sharedInstance();
  static std::shared_ptr<PNXConfig> sharedInstanceWithDictionary(const pnx::Value& dictionary);

  // Builds a configuration (initWithDictionary). Throws pnx::Exception when the bundle's
  // file has to be read and is not a JSON object.
  explicit PNXConfig(const pnx::Value& dictionary = pnx::Value());

  // The process-wide class registry that "appDelegateClass" names are looked up in.
  // Registering a name again replaces its factory.
  static void registerAppDelegateClass(const std::string& name,
                                       std::function<std::shared_ptr<pnx::Object>()> make);
  static std::shared_ptr<const pnx::AppDelegateClass> appDelegateClassNamed(
      const std::string& name);

  // Typed getters: the value's reading, or the default when it is absent or of the wrong
  // kind. Strings "true"/"yes"/"false"/"no" (any case) are booleans, other strings are not.
  static bool boolValue(const pnx::Value& value, bool orDefault);
  // A non-empty string, unchanged; numbers are not converted.
  static std::optional<std::string> stringValue(const pnx::Value& value,
                                                std::optional<std::string> orDefault);
  // Numbers, and strings by their leading decimal integer (0 when they have none).
  static std::int64_t longLongValue(const pnx::Value& value, std::int64_t orDefault);
  static std::int32_t intValue(const pnx::Value& value, std::int32_t orDefault);
  static pnx::Value dictionaryValue(const pnx::Value& value, const pnx::Value& orDefault);

  // Validators, each given the raw value.
  // The dictionary itself, or the bundle's "PnxConfig.json" read and parsed; null when
  // there is no file (logged). Throws pnx::Exception for a file that is not a JSON object.
  pnx::Value validateConfigDictionary(const pnx::Value& dictionary) const;
  double validateGeofenceAccuracy(const std::optional<std::string>& accuracy) const;
  std::int64_t validateSessionTimeout(const pnx::Value& value) const;
  std::shared_ptr<const pnx::AppDelegateClass> validateAppDelegateClass(
      const pnx::Value& value) const;
  bool validateAutoInitializeFlag(const pnx::Value& value) const;
  // The development or production key of "appKey", chosen by the provisioning environment;
  // none when either key is invalid.
  std::optional<std::string> validateAppKey(const pnx::Value& dictionary) const;
  // True for a string of 10 UTF-16 code units that starts with "ap".
  bool checkAppKey(const std::optional<std::string>& key) const;
  // The URL reduced to its server root; the default base URL when `text` does not parse or
  // has no scheme.
  pnx::URL trimmedBaseUrlWithString(const std::string& text) const;

  // The full path at which the database file `name` is to be opened, after moving any copy
  // left in the other locations there (a move never overwrites; failures are logged).
  std::string pathForDatabase(const std::string& name);

  // Writes the ten-line summary of the configuration to the log at info level.
  void logConfig() const;

  // Properties, in declaration order.
  std::int64_t sessionTimeout() const { return sessionTimeout_.load(); }
  void setSessionTimeout(std::int64_t value) { sessionTimeout_.store(value); }
  pnx::URL baseUrl() const { return baseUrl_.load(); }
  void setBaseUrl(pnx::URL value) { baseUrl_.store(std::move(value)); }
  std::optional<std::string> appKey() const { return appKey_.load(); }
  void setAppKey(std::optional<std::string> value) { appKey_.store(std::move(value)); }
  bool autoInitializeFlag() const { return autoInitializeFlag_.load(); }
  void setAutoInitializeFlag(bool value) { autoInitializeFlag_.store(value); }
  bool autoInitializeLocationFlag() const { return autoInitializeLocationFlag_.load(); }
  void setAutoInitializeLocationFlag(bool value) { autoInitializeLocationFlag_.store(value); }
  std::shared_ptr<const pnx::AppDelegateClass> appDelegateClass() const {
    return appDelegateClass_.load();
  }
  void setAppDelegateClass(std::shared_ptr<const pnx::AppDelegateClass> value) {
    appDelegateClass_.store(std::move(value));
  }
  std::int32_t locationSyncRadius() const { return locationSyncRadius_.load(); }
  void setLocationSyncRadius(std::int32_t value) { locationSyncRadius_.store(value); }
  std::int32_t locationSyncTimeout() const { return locationSyncTimeout_.load(); }
  void setLocationSyncTimeout(std::int32_t value) { locationSyncTimeout_.store(value); }
  bool geofenceEnabled() const { return geofenceEnabled_.load(); }
  void setGeofenceEnabled(bool value) { geofenceEnabled_.store(value); }
  bool beaconEnabled() const { return beaconEnabled_.load(); }
  void setBeaconEnabled(bool value) { beaconEnabled_.store(value); }
  std::optional<pnx::UUID> beaconUUID() const { return beaconUUID_.load(); }
  void setBeaconUUID(std::optional<pnx::UUID> value) { beaconUUID_.store(value); }
  double geofenceAccuracy() const { return geofenceAccuracy_.load(); }
  void setGeofenceAccuracy(double value) { geofenceAccuracy_.store(value); }
  std::string handoffUserActivityName() const { return handoffUserActivityName_.load(); }
  void setHandoffUserActivityName(std::string value) {
    handoffUserActivityName_.store(std::move(value));
  }
  std::string handoffInterfaceController() const { return handoffInterfaceController_.load(); }
  void setHandoffInterfaceController(std::string value) {
    handoffInterfaceController_.store(std::move(value));
  }
  std::string watchCategory() const { return watchCategory_.load(); }
  void setWatchCategory(std::string value) { watchCategory_.store(std::move(value)); }
  bool invalidateExistingUser() const { return invalidateExistingUser_.load(); }
  void setInvalidateExistingUser(bool value) { invalidateExistingUser_.store(value); }
  bool privateDatabaseStorage() const { return privateDatabaseStorage_.load(); }
  void setPrivateDatabaseStorage(bool value) { privateDatabaseStorage_.store(value); }
  bool databaseEncryption() const { return databaseEncryption_.load(); }
  void setDatabaseEncryption(bool value) { databaseEncryption_.store(value); }
  std::int32_t databaseKeyRotationDays() const { return databaseKeyRotationDays_.load(); }
  void setDatabaseKeyRotationDays(std::int32_t value) { databaseKeyRotationDays_.store(value); }
  bool autoReinitialize() const { return autoReinitialize_.load(); }
  void setAutoReinitialize(bool value) { autoReinitialize_.store(value); }
  bool allowJailbrokenDevices() const { return allowJailbrokenDevices_.load(); }
  void setAllowJailbrokenDevices(bool value) { allowJailbrokenDevices_.store(value); }
  std::optional<std::string> apiKey() const { return apiKey_.load(); }
  void setApiKey(std::optional<std::string> value) { apiKey_.store(std::move(value)); }
  std::optional<std::string> orgId() const { return orgId_.load(); }
  void setOrgId(std::optional<std::string> value) { orgId_.store(std::move(value)); }
  std::int32_t maximumSearchRadius() const { return maximumSearchRadius_.load(); }
  void setMaximumSearchRadius(std::int32_t value) { maximumSearchRadius_.store(value); }
  std::int32_t defaultSearchRadius() const { return defaultSearchRadius_.load(); }
  void setDefaultSearchRadius(std::int32_t value) { defaultSearchRadius_.store(value); }
  std::int32_t maximumSearchCount() const { return maximumSearchCount_.load(); }
  void setMaximumSearchCount(std::int32_t value) { maximumSearchCount_.store(value); }
  std::int32_t maximumGeofenceCount() const { return maximumGeofenceCount_.load(); }
  void setMaximumGeofenceCount(std::int32_t value) { maximumGeofenceCount_.store(value); }
  std::optional<std::string> teamId() const { return teamId_.load(); }
  void setTeamId(std::optional<std::string> value) { teamId_.store(std::move(value)); }
  bool deliveryReporting() const { return deliveryReporting_.load(); }
  void setDeliveryReporting(bool value) { deliveryReporting_.store(value); }

 private:
  void readLogSettings(const pnx::Value& config);
  void readLocation(const pnx::Value& location);
  void readGeofence(const pnx::Value& geofence);
  void readWatch(const pnx::Value& config);

  pnx::AtomicProperty<std::int64_t> sessionTimeout_;
  pnx::AtomicProperty<pnx::URL> baseUrl_;
  pnx::AtomicProperty<std::optional<std::string>> appKey_;
  pnx::AtomicProperty<bool> autoInitializeFlag_;
  pnx::AtomicProperty<bool> autoInitializeLocationFlag_;
  pnx::AtomicProperty<std::shared_ptr<const pnx::AppDelegateClass>, false> appDelegateClass_;
  pnx::AtomicProperty<std::int32_t> locationSyncRadius_;
  pnx::AtomicProperty<std::int32_t> locationSyncTimeout_;
  pnx::AtomicProperty<bool> geofenceEnabled_;
  pnx::AtomicProperty<bool> beaconEnabled_;
  pnx::AtomicProperty<std::optional<pnx::UUID>> beaconUUID_;
  pnx::AtomicProperty<double> geofenceAccuracy_;
  pnx::AtomicProperty<std::string> handoffUserActivityName_;
  pnx::AtomicProperty<std::string> handoffInterfaceController_;
  pnx::AtomicProperty<std::string> watchCategory_;
  pnx::AtomicProperty<bool> invalidateExistingUser_;
  pnx::AtomicProperty<bool> privateDatabaseStorage_;
  pnx::AtomicProperty<bool> databaseEncryption_;
  pnx::AtomicProperty<std::int32_t> databaseKeyRotationDays_;
  pnx::AtomicProperty<bool> autoReinitialize_;
  pnx::AtomicProperty<bool> allowJailbrokenDevices_;
  pnx::AtomicProperty<std::optional<std::string>> apiKey_;
  pnx::AtomicProperty<std::optional<std::string>> orgId_;
  pnx::AtomicProperty<std::int32_t> maximumSearchRadius_;
  pnx::AtomicProperty<std::int32_t> defaultSearchRadius_;
  pnx::AtomicProperty<std::int32_t> maximumSearchCount_;
  pnx::AtomicProperty<std::int32_t> maximumGeofenceCount_;
  pnx::AtomicProperty<std::optional<std::string>> teamId_;
  pnx::AtomicProperty<bool> deliveryReporting_;

  // Serialises pathForDatabase's existence checks and moves.
  std::mutex databaseMutex_;
};

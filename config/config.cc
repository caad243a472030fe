#include "config/config.h"

#include <algorithm>
#include <map>

#include "config/provisioning.h"
#include "config/value_reading.h"
#include "diagnostics/log.h"
#include "platform/dispatch/dispatch.h"
#include "platform/files/bundle.h"
#include "platform/files/file_manager.h"
#include "platform/foundation/error.h"
#include "platform/foundation/format.h"
#include "platform/foundation/json.h"
#include "platform/foundation/utf8.h"

namespace {

PNXLog& sharedLog() {
  return PNXLog::sharedInstance();
}

pnx::URL defaultBaseUrl() {
  return *pnx::URL::parse(kDefaultUrl);
}

// An optional string as a "%@" argument: the text, or null (printed "(null)").
pnx::Value orNull(const std::optional<std::string>& text) {
  return text ? pnx::Value(*text) : pnx::Value();
}

bool isOneOf(const std::string& lowered, std::initializer_list<const char*> words) {
  return std::any_of(words.begin(), words.end(), [&](const char* w) { return lowered == w; });
}

std::string asciiLowercase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

struct ClassRegistry {
  std::mutex mutex;
  std::map<std::string, std::shared_ptr<const pnx::AppDelegateClass>> classes;
};

ClassRegistry& classRegistry() {
  static ClassRegistry registry;
  return registry;
}

}  // namespace

// MARK: shared instance

std::shared_ptr<PNXConfig> PNXConfig::sharedInstance() {
  return sharedInstanceWithDictionary(pnx::Value());
}

std::shared_ptr<PNXConfig> PNXConfig::sharedInstanceWithDictionary(const pnx::Value& dictionary) {
  static pnx::OnceFlag once;
  static std::shared_ptr<PNXConfig> instance;
  // A build that throws ("Invalid Config File") leaves the flag unset: the next call
  // reads the file again.
  pnx::dispatchOnce(once, [&] { instance = std::make_shared<PNXConfig>(dictionary); });
  return instance;
}

// MARK: building

PNXConfig::PNXConfig(const pnx::Value& dictionary) : baseUrl_(defaultBaseUrl()) {
  sharedLog();  // messages are dropped until the log exists
  const pnx::Value config = validateConfigDictionary(dictionaryValue(dictionary, pnx::Value()));

  setTeamId(stringValue(config["teamId"], std::nullopt));
  if (teamId()) setDeliveryReporting(boolValue(config["deliveryReporting"], false));

  readLogSettings(config);

  setOrgId(stringValue(config["orgId"], std::nullopt));
  setApiKey(stringValue(config["apiKey"], std::nullopt));
  setAutoReinitialize(boolValue(config["autoReinitialize"], true));
  setInvalidateExistingUser(boolValue(config["invalidateExistingUser"], false));
  setLocationSyncRadius(kDefaultSyncRadius);
  setLocationSyncTimeout(kDefaultSyncTimeout);
  setDatabaseEncryption(boolValue(config["databaseEncryption"], false));
  setDatabaseKeyRotationDays(
      intValue(config["databaseKeyRotationDays"], kDefaultDatabaseRotationDays));
  if (databaseKeyRotationDays() < 0) setDatabaseKeyRotationDays(kDefaultDatabaseRotationDays);
  setPrivateDatabaseStorage(boolValue(config["privateDatabaseStorage"], true));
  setAllowJailbrokenDevices(boolValue(config["allowJailbrokenDevices"], true));

  const pnx::Value location = dictionaryValue(config["location"], pnx::Value());
  if (location.isDictionary()) readLocation(location);
  readWatch(config);

  setAppKey(validateAppKey(config));
  setBaseUrl(trimmedBaseUrlWithString(*stringValue(config["baseUrl"], std::string(kDefaultUrl))));
  setAutoInitializeFlag(validateAutoInitializeFlag(config["autoInitialize"]));
  setAppDelegateClass(validateAppDelegateClass(config["appDelegateClass"]));
  setSessionTimeout(validateSessionTimeout(config["sessionTimeout"]));
  logConfig();
}

void PNXConfig::readLogSettings(const pnx::Value& config) {
  PNXLog& log = sharedLog();
  log.setLogLevelName(stringValue(config["loglevel"], std::string("error")));
  log.setMaximumSize(static_cast<std::uint64_t>(
      longLongValue(config["maximumLogSize"], static_cast<std::int64_t>(log.maximumSize()))));
  log.setMaximumNumberOfLogFiles(
      intValue(config["maximumNumberOfLogFiles"], log.maximumNumberOfLogFiles()));
  log.setLogToFile(boolValue(config["logfile"], false));
}

void PNXConfig::readLocation(const pnx::Value& location) {
  setAutoInitializeLocationFlag(boolValue(location["autoInitialize"], true));

  const pnx::Value sync = dictionaryValue(location["sync"], pnx::Value());
  if (sync.isDictionary()) {
    setLocationSyncRadius(intValue(sync["syncRadius"], kDefaultSyncRadius));
    setLocationSyncTimeout(intValue(sync["syncInterval"], kDefaultSyncTimeout));
    if (locationSyncTimeout() < kMinSyncTimeout) setLocationSyncTimeout(kMinSyncTimeout);
  }

  const pnx::Value beacon = dictionaryValue(location["ibeacon"], pnx::Value());
  if (beacon.isDictionary()) {
    setBeaconEnabled(true);
    auto text = stringValue(beacon["UUID"], std::nullopt);
    setBeaconUUID(text ? pnx::UUID::parse(*text) : std::nullopt);
    if (!beaconUUID()) {
      PNXLogError("iBeacon support enabled, but no UUID specified, disabling iBeacon support");
      setBeaconEnabled(false);
    }
  }

  const pnx::Value geofence = dictionaryValue(location["geofence"], pnx::Value());
  if (geofence.isDictionary()) readGeofence(geofence);
}

void PNXConfig::readGeofence(const pnx::Value& geofence) {
  const pnx::Value search = dictionaryValue(geofence["search"], pnx::Value());
  setMaximumSearchRadius(intValue(search["maximumRadius"], kMaximumSearchRadius));
  setDefaultSearchRadius(intValue(search["defaultRadius"], kDefaultSearchRadius));
  setMaximumSearchCount(intValue(search["maximumCount"], kMaximumSearchCount));
  setMaximumGeofenceCount(intValue(search["maximumQuantity"], kMaximumGeofenceCount));
  if (maximumGeofenceCount() > kMaximumGeofenceCount) {
    PNXLogError(
        "Maximum Location Geofence Count is larger then the amount allowed by iOS. Using max iOS "
        "value, 20, instead.");
    setMaximumGeofenceCount(kMaximumGeofenceCount);
  }
  setGeofenceEnabled(true);
  setGeofenceAccuracy(validateGeofenceAccuracy(stringValue(geofence["accuracy"], std::nullopt)));
}

void PNXConfig::readWatch(const pnx::Value& config) {
  const pnx::Value watch = dictionaryValue(config["watch"], pnx::Dictionary());
  const pnx::Value handoff = dictionaryValue(watch["handoff"], pnx::Dictionary());
  setWatchCategory(*stringValue(watch["category"], std::string(kDefaultWatchCategory)));
  setHandoffUserActivityName(
      *stringValue(handoff["userActivityName"], std::string(kDefaultHandoffUserActivityName)));
  setHandoffInterfaceController(
      *stringValue(handoff["interfaceController"], std::string(kDefaultHandoffInterface)));
}

// MARK: typed getters

bool PNXConfig::boolValue(const pnx::Value& value, bool orDefault) {
  if (const std::string* text = value.asString()) {
    const std::string lowered = asciiLowercase(*text);
    if (isOneOf(lowered, {"true", "yes"})) return true;
    if (isOneOf(lowered, {"false", "no"})) return false;
    return orDefault;
  }
  if (value.isNumber()) return value.boolValue();
  return orDefault;
}

std::optional<std::string> PNXConfig::stringValue(const pnx::Value& value,
                                                  std::optional<std::string> orDefault) {
  const std::string* text = value.asString();
  if (text && !text->empty()) return *text;
  return orDefault;
}

std::int64_t PNXConfig::longLongValue(const pnx::Value& value, std::int64_t orDefault) {
  return pnx::ValueReading::longLongValue(value).value_or(orDefault);
}

std::int32_t PNXConfig::intValue(const pnx::Value& value, std::int32_t orDefault) {
  return pnx::ValueReading::intValue(value).value_or(orDefault);
}

pnx::Value PNXConfig::dictionaryValue(const pnx::Value& value, const pnx::Value& orDefault) {
  return value.isDictionary() ? value : orDefault;
}

// MARK: validators

pnx::Value PNXConfig::validateConfigDictionary(const pnx::Value& dictionary) const {
  if (dictionary.isDictionary()) return dictionary;

  auto bundle = pnx::Bundle::main();
  auto path = bundle ? bundle->pathForResource(kConfigFileName, "json") : std::nullopt;
  if (!path) {
    PNXLogError(
        "Config file named %@.json was expected in bundle but not found, PNX integration will "
        "not operate correctly.",
        kConfigFileName);
    return pnx::Value();
  }
  pnx::ErrorPtr readError;
  auto bytes = pnx::FileManager::current().contentsOfFile(*path, &readError);
  auto parsed = bytes ? pnx::JSON::parse(*bytes) : std::nullopt;
  if (!parsed) {
    throw pnx::Exception("Invalid Config File", "Config file could not be parsed as JSON");
  }
  // The keys are read from an object; any other top level (an array) is no configuration.
  // The message shows the start of it: the file may be megabytes long.
  if (!parsed->isDictionary()) {
    throw pnx::Exception(
        "Invalid Config value",
        pnx::format("Config of %@ is invalid.",
                    pnx::excerpt(pnx::JSON::serialize(*parsed).value_or("(null)"))));
  }
  return *parsed;
}

double PNXConfig::validateGeofenceAccuracy(const std::optional<std::string>& accuracy) const {
  static const std::map<std::string, double> kAccuracies = {
      {"best", kCLLocationAccuracyBest},           {"10m", kCLLocationAccuracyNearestTenMeters},
      {"100m", kCLLocationAccuracyHundredMeters},  {"1km", kCLLocationAccuracyKilometer},
      {"3km", kCLLocationAccuracyThreeKilometers},
  };
  if (accuracy) {
    auto found = kAccuracies.find(*accuracy);
    if (found != kAccuracies.end()) return found->second;
  }
  PNXLogError(
      "Config value for geo accuracty is specified as '%@', which is not a valid value. Using "
      "default of 3km",
      accuracy ? pnx::Value(pnx::excerpt(*accuracy)) : pnx::Value());
  return kCLLocationAccuracyThreeKilometers;
}

std::int64_t PNXConfig::validateSessionTimeout(const pnx::Value& value) const {
  auto timeout = pnx::ValueReading::longLongValue(value);
  if (timeout && *timeout >= 1) return *timeout;
  return kDefaultSessionTimeout;
}

std::shared_ptr<const pnx::AppDelegateClass> PNXConfig::validateAppDelegateClass(
    const pnx::Value& value) const {
  const std::string* name = value.asString();
  auto found = name ? appDelegateClassNamed(*name) : nullptr;
  if (!found) {
    PNXLogWarn("appDelegateClass does not exist in config file, PNXAppDelegate will not be used.");
  }
  return found;
}

bool PNXConfig::validateAutoInitializeFlag(const pnx::Value& value) const {
  // Absent, null, or a value with no boolean reading (an object, an array): the default.
  return pnx::ValueReading::boolValue(value).value_or(true);
}

bool PNXConfig::checkAppKey(const std::optional<std::string>& key) const {
  return key && key->starts_with("ap") && pnx::utf16Length(*key) == 10;
}

std::optional<std::string> PNXConfig::validateAppKey(const pnx::Value& dictionary) const {
  auto provisioning = PNXProvisioning::sharedInstance();
  // An "appKey" that is not an object has no members: both keys read as missing.
  const pnx::Value& keys = dictionary["appKey"];
  auto devKey = stringValue(keys["dev"], std::nullopt);
  if (!checkAppKey(devKey)) {
    PNXLogError(
        "devAppKey is invalid should start with 'ap', 10 character long and should not be null.");
    return std::nullopt;
  }
  auto prodKey = stringValue(keys["prod"], std::nullopt);
  if (!checkAppKey(prodKey)) {
    PNXLogError(
        "prodAppKey is invalid should start with 'ap', 10 character long and should not be null.");
    return std::nullopt;
  }
  // Only a key's start and length are checked: it is logged escaped, like any input.
  PNXLogVerbose("ARM BINARY, defaulting to prod appkey %@", pnx::excerpt(*prodKey));
  if (provisioning->binaryEnvironment() == "debug") {
    PNXLogVerbose("Provisioning profile override to dev appKey: %@", pnx::excerpt(*devKey));
    return devKey;
  }
  return prodKey;
}

pnx::URL PNXConfig::trimmedBaseUrlWithString(const std::string& text) const {
  auto parsed = pnx::URL::parse(text);
  pnx::URL url = parsed && !parsed->scheme().empty() ? *parsed : defaultBaseUrl();
  // Deleting the last path component until the root is reached, in one step: a loop over
  // the components would copy the whole URL once per component.
  return url.deletingPathToRoot();
}

// MARK: app delegate classes

void PNXConfig::registerAppDelegateClass(const std::string& name,
                                         std::function<std::shared_ptr<pnx::Object>()> make) {
  auto entry =
      std::make_shared<const pnx::AppDelegateClass>(pnx::AppDelegateClass{name, std::move(make)});
  ClassRegistry& registry = classRegistry();
  std::lock_guard lock(registry.mutex);
  registry.classes[name] = std::move(entry);
}

std::shared_ptr<const pnx::AppDelegateClass> PNXConfig::appDelegateClassNamed(
    const std::string& name) {
  ClassRegistry& registry = classRegistry();
  std::lock_guard lock(registry.mutex);
  auto found = registry.classes.find(name);
  return found == registry.classes.end() ? nullptr : found->second;
}

// MARK: summary

void PNXConfig::logConfig() const {
  auto provisioning = PNXProvisioning::sharedInstance();
  auto delegateClass = appDelegateClass();
  auto expiration = provisioning->certificateExpiration();
  PNXLogInfo("Application Configuration Loaded");
  PNXLogInfo("Log Level is %@", sharedLog().logLevelName().value_or("UNKNOWN"));
  PNXLogInfo("App Key is %@",
             orNull(appKey() ? std::optional(pnx::excerpt(*appKey())) : std::nullopt));
  PNXLogInfo("Base URL is %@", baseUrl());
  PNXLogInfo("Auto Initialize is %@", autoInitializeFlag() ? "ON" : "OFF");
  PNXLogInfo("App Delegate Class is %@",
             delegateClass ? pnx::Value(delegateClass->name) : pnx::Value());
  PNXLogInfo("Session Timeout is %ld\n", static_cast<long>(sessionTimeout()));
  PNXLogInfo("Binary Environment %@", orNull(provisioning->binaryEnvironment()));
  PNXLogInfo("APNS Certificate Expiration %@", expiration ? pnx::Value(*expiration) : pnx::Value());
  PNXLogInfo(provisioning->certificateExpired() ? "APNS Certificate is Expired\n"
                                                : "APNS Certificate is Not Expired\n");
}

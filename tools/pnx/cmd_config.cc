// pnx config: loads the configuration from the bundle exactly as the extension's first use
// does (which also creates the log and reads the provisioning profile) and prints every
// property of PNXConfig as one JSON object. URLs and UUIDs print as strings, the app
// delegate class as its registered name, anything absent as null.

#include <memory>

#include "config/config.h"
#include "diagnostics/log.h"
#include "tools/pnx/command.h"

namespace pnx {
namespace {

pnx::Value orNull(const std::optional<std::string>& text) {
  return text ? pnx::Value(*text) : pnx::Value();
}

pnx::Value configAsJSON(const PNXConfig& config) {
  auto delegateClass = config.appDelegateClass();
  auto beaconUUID = config.beaconUUID();
  return pnx::Value::dict({
      {"sessionTimeout", static_cast<long long>(config.sessionTimeout())},
      {"baseUrl", config.baseUrl().absoluteString()},
      {"appKey", orNull(config.appKey())},
      {"autoInitializeFlag", config.autoInitializeFlag()},
      {"autoInitializeLocationFlag", config.autoInitializeLocationFlag()},
      {"appDelegateClass", delegateClass ? pnx::Value(delegateClass->name) : pnx::Value()},
      {"locationSyncRadius", config.locationSyncRadius()},
      {"locationSyncTimeout", config.locationSyncTimeout()},
      {"geofenceEnabled", config.geofenceEnabled()},
      {"beaconEnabled", config.beaconEnabled()},
      {"beaconUUID", beaconUUID ? pnx::Value(beaconUUID->string()) : pnx::Value()},
      {"geofenceAccuracy", config.geofenceAccuracy()},
      {"handoffUserActivityName", config.handoffUserActivityName()},
      {"handoffInterfaceController", config.handoffInterfaceController()},
      {"watchCategory", config.watchCategory()},
      {"invalidateExistingUser", config.invalidateExistingUser()},
      {"privateDatabaseStorage", config.privateDatabaseStorage()},
      {"databaseEncryption", config.databaseEncryption()},
      {"databaseKeyRotationDays", config.databaseKeyRotationDays()},
      {"autoReinitialize", config.autoReinitialize()},
      {"allowJailbrokenDevices", config.allowJailbrokenDevices()},
      {"apiKey", orNull(config.apiKey())},
      {"orgId", orNull(config.orgId())},
      {"maximumSearchRadius", config.maximumSearchRadius()},
      {"defaultSearchRadius", config.defaultSearchRadius()},
      {"maximumSearchCount", config.maximumSearchCount()},
      {"maximumGeofenceCount", config.maximumGeofenceCount()},
      {"teamId", orNull(config.teamId())},
      {"deliveryReporting", config.deliveryReporting()},
  });
}

int runConfig(const PnxGlobals&) {
  // An exception from the build ("Invalid Config File", ...) leaves through main, which
  // reports it as one line naming the exception and its reason.
  std::shared_ptr<PNXConfig> config;
  try {
    config = PNXConfig::sharedInstance();
  } catch (...) {
    PNXLog::sharedInstance().drain();
    throw;
  }
  // Let the log's queues finish, so that a log file of this run is complete on exit.
  PNXLog::sharedInstance().drain();
  pnxPrintJSON(configAsJSON(*config));
  return 0;
}

CommandRegistration registration("config", "Load the configuration as the extension would",
                                 [](CLI::App&) -> PnxCommandRun { return runConfig; });

}  // namespace
}  // namespace pnx

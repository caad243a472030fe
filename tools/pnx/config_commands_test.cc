// pnx config and pnx profile, run as separate processes on bundles built in the test: the
// configuration as one process loads it (file, profile, log) and the profile reading.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "platform/files/fixtures_test.h"
#include "tools/pnx/run_pnx_test.h"

namespace {

// pnx run on a bundle directory with an Info.plist, plus whatever each test adds.
class PnxConfigCommands : public ::testing::Test {
 protected:
  PnxConfigCommands() {
    bundle_.write("Info.plist", pnx::testing::ScopedDevice::infoPlist("com.example.commands"));
  }
  // A signed profile of the environment, made by the examples' script.
  void addProfile(const std::string& environment, int days = 365) {
    const std::string command = "sh " PNX_SOURCE_DIR "/examples/make-profiles.sh --days " +
                                std::to_string(days) + " '" + bundle_.file("p") + "' " +
                                environment;
    ASSERT_EQ(std::system(command.c_str()), 0);
    std::filesystem::copy_file(bundle_.file("p/" + environment + ".mobileprovision"),
                               bundle_.file("embedded.mobileprovision"),
                               std::filesystem::copy_options::overwrite_existing);
  }

  pnx::testing::TempDir bundle_;
  PnxRunner pnx_{bundle_.path()};
};

pnx::Value json(std::string_view text) {
  return pnx::JSON::parse(text).value();
}

TEST_F(PnxConfigCommands, PrintsEveryPropertyWithItsDefaultOrAsTheFileSetsIt) {
  EXPECT_EQ(expectPnxJSON(pnx_.run({"config"})), json(R"({
      "sessionTimeout": 20, "baseUrl": "https://push.quorvex.example/", "appKey": null,
      "autoInitializeFlag": true, "autoInitializeLocationFlag": false, "appDelegateClass": null,
      "locationSyncRadius": 100000, "locationSyncTimeout": 600, "geofenceEnabled": false,
      "beaconEnabled": false, "beaconUUID": null, "geofenceAccuracy": 0,
      "handoffUserActivityName": "pnx.application", "handoffInterfaceController": "handoff",
      "watchCategory": "pnx-watch-category", "invalidateExistingUser": false,
      "privateDatabaseStorage": true, "databaseEncryption": false, "databaseKeyRotationDays": 30,
      "autoReinitialize": true, "allowJailbrokenDevices": true, "apiKey": null, "orgId": null,
      "maximumSearchRadius": 0, "defaultSearchRadius": 0, "maximumSearchCount": 0,
      "maximumGeofenceCount": 0, "teamId": null, "deliveryReporting": false})"));

  bundle_.write("PnxConfig.json", R"({
      "teamId": "T1", "deliveryReporting": "yes", "orgId": "org", "apiKey": "api",
      "autoReinitialize": "no", "invalidateExistingUser": 1, "databaseEncryption": true,
      "databaseKeyRotationDays": 7, "privateDatabaseStorage": false,
      "allowJailbrokenDevices": "false",
      "location": {"autoInitialize": false, "sync": {"syncRadius": "500", "syncInterval": 10},
                   "ibeacon": {"UUID": "e621e1f8-c36c-495a-93fc-0c247a3e6e5f"},
                   "geofence": {"accuracy": "best", "search": {"maximumRadius": 1,
                       "defaultRadius": 2, "maximumCount": 3, "maximumQuantity": 99}}},
      "watch": {"category": "cat", "handoff": {"userActivityName": "act",
                                               "interfaceController": "glance"}},
      "appKey": {"dev": "apDEV45678", "prod": "apPROD5678"},
      "baseUrl": "https://api.example.com:8443/rest/v1/", "autoInitialize": "no",
      "appDelegateClass": "Unknown", "sessionTimeout": "45"})");
  EXPECT_EQ(expectPnxJSON(pnx_.run({"config"})), json(R"({
      "sessionTimeout": 45, "baseUrl": "https://api.example.com:8443/", "appKey": "apPROD5678",
      "autoInitializeFlag": false, "autoInitializeLocationFlag": false, "appDelegateClass": null,
      "locationSyncRadius": 500, "locationSyncTimeout": 300, "geofenceEnabled": true,
      "beaconEnabled": true, "beaconUUID": "E621E1F8-C36C-495A-93FC-0C247A3E6E5F",
      "geofenceAccuracy": -1, "handoffUserActivityName": "act",
      "handoffInterfaceController": "glance", "watchCategory": "cat",
      "invalidateExistingUser": true, "privateDatabaseStorage": false,
      "databaseEncryption": true, "databaseKeyRotationDays": 7, "autoReinitialize": false,
      "allowJailbrokenDevices": false, "apiKey": "api", "orgId": "org",
      "maximumSearchRadius": 1, "defaultSearchRadius": 2, "maximumSearchCount": 3,
      "maximumGeofenceCount": 20, "teamId": "T1", "deliveryReporting": true})"));
}

TEST_F(PnxConfigCommands, ReportsAnUnreadableFileAsOneLine) {
  // Cut short: not JSON. The keychain commands, which load the configuration for the team's
  // group, fail the same way.
  bundle_.write("PnxConfig.json", "{\"teamId\": \"T1\",");
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"config"}, {"keychain", "get", "userId"}, {"identity"}}) {
    SCOPED_TRACE(command[0]);
    expectPnxFailure(pnx_.run(command), 1,
                     "pnx: Invalid Config File: Config file could not be parsed as JSON\n");
  }

  // A configuration that is no object is quoted by its start only.
  std::string array = "[\"\\u001b[2J\"";
  while (array.size() < (4u << 20)) array += ",123456789";
  bundle_.write("PnxConfig.json", array + "]");
  PnxRun run = pnx_.run({"config"});
  expectPnxFailure(run, 1, "pnx: Invalid Config value: Config of [\"\\u001b[2J\",123");
  EXPECT_LT(run.err.size(), 200u) << run.err;
  EXPECT_TRUE(run.err.ends_with(" more bytes) is invalid.\n")) << run.err;
}

TEST_F(PnxConfigCommands, WritesTheRunsLogFileWhenTheConfigurationAsksForIt) {
  bundle_.write("PnxConfig.json", R"({"logfile": true, "loglevel": "info"})");
  expectPnxJSON(pnx_.run({"config"}));
  const std::string log =
      readWholeFile(pnx_.device() + "/containers/com.example.commands/Documents/PNX.log");
  EXPECT_NE(log.find("Application Configuration Loaded"), std::string::npos) << log;
  EXPECT_NE(log.find("APNS Certificate is Not Expired"), std::string::npos) << log;
}

TEST_F(PnxConfigCommands, ProfilePrintsWhatTheProfileSays) {
  PnxRun none = pnx_.run({"--log", "profile"});
  EXPECT_EQ(expectPnxJSON(none), json(R"({"binaryEnvironment": null,
      "certificateExpiration": null, "certificateExpired": false, "provisionedDevices": null})"));
  // The log shows why no profile was read.
  EXPECT_NE(none.err.find("pnx log: \xF0\x9F\x9B\x91 Couldn't find file embedded.mobileprovision"),
            std::string::npos)
      << none.err;

  addProfile("ad-hoc", -2);
  pnx::Value profile = expectPnxJSON(pnx_.run({"profile"}));
  EXPECT_EQ(profile["binaryEnvironment"], pnx::Value("ad-hoc"));
  EXPECT_EQ(profile["certificateExpired"], pnx::Value(true));
  EXPECT_EQ(profile["provisionedDevices"].size(), 2u);
  auto expiration = pnx::Date::fromISO8601(*profile["certificateExpiration"].asString());
  ASSERT_TRUE(expiration);
  EXPECT_NEAR(expiration->timeIntervalSinceNow(), -2 * 86400.0, 3600);

  EXPECT_EQ(expectPnxJSON(PnxRunner().run({"profile"}))["binaryEnvironment"], pnx::Value("debug"))
      << "the sample bundle ships a debug profile";
}

}  // namespace

// pnx config and pnx profile, run as separate processes on bundles built in the test:
// the configuration as one process loads it (file, profile, log), and the profile reading.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "platform/fixtures_test.h"
#include "tools/pnx/run_pnx_test.h"

namespace {

const std::set<std::string> kConfigProperties = {"sessionTimeout",
                                                 "baseUrl",
                                                 "appKey",
                                                 "autoInitializeFlag",
                                                 "autoInitializeLocationFlag",
                                                 "appDelegateClass",
                                                 "locationSyncRadius",
                                                 "locationSyncTimeout",
                                                 "geofenceEnabled",
                                                 "beaconEnabled",
                                                 "beaconUUID",
                                                 "geofenceAccuracy",
                                                 "handoffUserActivityName",
                                                 "handoffInterfaceController",
                                                 "watchCategory",
                                                 "invalidateExistingUser",
                                                 "privateDatabaseStorage",
                                                 "databaseEncryption",
                                                 "databaseKeyRotationDays",
                                                 "autoReinitialize",
                                                 "allowJailbrokenDevices",
                                                 "apiKey",
                                                 "orgId",
                                                 "maximumSearchRadius",
                                                 "defaultSearchRadius",
                                                 "maximumSearchCount",
                                                 "maximumGeofenceCount",
                                                 "teamId",
                                                 "deliveryReporting"};

// A bundle directory with an Info.plist, plus whatever each test adds.
class BundleUnderTest {
 public:
  BundleUnderTest() {
    dir_.write("Info.plist", pnx::testing::ScopedDevice::infoPlist("com.example.commands"));
  }
  const std::string& path() const { return dir_.path(); }
  void write(const std::string& name, const std::string& text) { dir_.write(name, text); }
  // A signed profile of the environment, made by the examples' script.
  void addProfile(const std::string& environment, int days = 365) {
    const std::string command = "sh " PNX_SOURCE_DIR "/examples/make-profiles.sh --days " +
                                std::to_string(days) + " '" + dir_.file("profiles") + "' " +
                                environment;
    ASSERT_EQ(std::system(command.c_str()), 0);
    std::filesystem::copy_file(dir_.file("profiles/" + environment + ".mobileprovision"),
                               dir_.file("embedded.mobileprovision"));
  }

 private:
  pnx::testing::TempDir dir_;
};

pnx::Value runJSON(const PnxRunner& pnx, const std::vector<std::string>& arguments) {
  PnxRun run = pnx.run(arguments);
  EXPECT_EQ(run.exitCode, 0) << run.err;
  auto json = run.json();
  EXPECT_TRUE(json && json->isDictionary()) << run.out;
  return json.value_or(pnx::Value());
}

std::set<std::string> keysOf(const pnx::Value& object) {
  std::set<std::string> keys;
  if (const auto* entries = object.asDictionary()) {
    for (const auto& [key, value] : *entries) keys.insert(*key.asString());
  }
  return keys;
}

TEST(PnxConfigCommand, PrintsEveryPropertyWithDefaultsWhenThereIsNoFile) {
  BundleUnderTest bundle;
  const pnx::Value config = runJSON(PnxRunner(bundle.path()), {"config"});
  EXPECT_EQ(keysOf(config), kConfigProperties);
  EXPECT_EQ(config["sessionTimeout"], pnx::Value(20));
  EXPECT_EQ(config["baseUrl"], pnx::Value("https://push.quorvex.example/"));
  EXPECT_TRUE(config["appKey"].isNull());
  EXPECT_TRUE(config["appDelegateClass"].isNull());
  EXPECT_TRUE(config["beaconUUID"].isNull());
  EXPECT_EQ(config["geofenceAccuracy"], pnx::Value(0));
  EXPECT_EQ(config["locationSyncTimeout"], pnx::Value(600));
  EXPECT_EQ(config["privateDatabaseStorage"], pnx::Value(true));
  EXPECT_EQ(config["watchCategory"], pnx::Value("pnx-watch-category"));
}

TEST(PnxConfigCommand, ReadsTheBundleFileAndChoosesTheKeyByItsProfile) {
  BundleUnderTest bundle;
  bundle.write("PnxConfig.json", R"({
      "teamId": "T1", "deliveryReporting": "yes", "orgId": "org", "apiKey": "api",
      "appKey": {"dev": "apDEV45678", "prod": "apPROD5678"},
      "baseUrl": "https://api.example.com:8443/rest/v1/", "sessionTimeout": "45",
      "location": {"ibeacon": {"UUID": "e621e1f8-c36c-495a-93fc-0c247a3e6e5f"},
                   "geofence": {"accuracy": "best", "search": {"maximumQuantity": 99}}},
      "watch": {"handoff": {"interfaceController": "glance"}}})");
  PnxRunner pnx(bundle.path());
  pnx::Value config = runJSON(pnx, {"config"});
  EXPECT_EQ(config["appKey"], pnx::Value("apPROD5678"));  // no profile
  EXPECT_EQ(config["baseUrl"], pnx::Value("https://api.example.com:8443/"));
  EXPECT_EQ(config["sessionTimeout"], pnx::Value(45));
  EXPECT_EQ(config["deliveryReporting"], pnx::Value(true));
  EXPECT_EQ(config["beaconEnabled"], pnx::Value(true));
  EXPECT_EQ(config["beaconUUID"], pnx::Value("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"));
  EXPECT_EQ(config["geofenceAccuracy"], pnx::Value(-1));
  EXPECT_EQ(config["maximumGeofenceCount"], pnx::Value(20));
  EXPECT_EQ(config["handoffInterfaceController"], pnx::Value("glance"));
  EXPECT_EQ(config["handoffUserActivityName"], pnx::Value("pnx.application"));

  bundle.addProfile("debug");
  EXPECT_EQ(runJSON(pnx, {"config"})["appKey"], pnx::Value("apDEV45678"));
}

TEST(PnxConfigCommand, ReportsAnUnreadableFileAsOneLine) {
  BundleUnderTest bundle;
  bundle.write("PnxConfig.json", "{\"teamId\": \"T1\",");
  PnxRun run = PnxRunner(bundle.path()).run({"config"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.out, "");
  ASSERT_EQ(run.errLines().size(), 1u) << run.err;
  EXPECT_NE(run.err.find("Invalid Config File"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("Config file could not be parsed as JSON"), std::string::npos);
}

TEST(PnxConfigCommand, WritesTheRunsLogFileWhenTheConfigurationAsksForIt) {
  BundleUnderTest bundle;
  bundle.write("PnxConfig.json", R"({"logfile": true, "loglevel": "info"})");
  PnxRunner pnx(bundle.path());
  runJSON(pnx, {"config"});
  std::ifstream file(pnx.device() + "/containers/com.example.commands/Documents/PNX.log");
  const std::string log((std::istreambuf_iterator<char>(file)), {});
  EXPECT_NE(log.find("Application Configuration Loaded"), std::string::npos) << log;
  EXPECT_NE(log.find("APNS Certificate is Not Expired"), std::string::npos) << log;
}

TEST(PnxProfileCommand, PrintsWhatTheProfileSays) {
  BundleUnderTest bundle;
  PnxRunner pnx(bundle.path());
  pnx::Value profile = runJSON(pnx, {"profile"});
  EXPECT_EQ(keysOf(profile), (std::set<std::string>{"binaryEnvironment", "certificateExpiration",
                                                    "certificateExpired", "provisionedDevices"}));
  EXPECT_TRUE(profile["binaryEnvironment"].isNull());
  EXPECT_TRUE(profile["certificateExpiration"].isNull());
  EXPECT_EQ(profile["certificateExpired"], pnx::Value(false));
  EXPECT_TRUE(profile["provisionedDevices"].isNull());

  bundle.addProfile("ad-hoc", -2);
  profile = runJSON(pnx, {"profile"});
  EXPECT_EQ(profile["binaryEnvironment"], pnx::Value("ad-hoc"));
  EXPECT_EQ(profile["certificateExpired"], pnx::Value(true));
  EXPECT_EQ(profile["provisionedDevices"].size(), 2u);
  auto expiration = pnx::Date::fromISO8601(*profile["certificateExpiration"].asString());
  ASSERT_TRUE(expiration);
  EXPECT_NEAR(expiration->timeIntervalSinceNow(), -2 * 86400.0, 3600);
}

TEST(PnxProfileCommand, TheSampleBundleShipsADebugProfile) {
  pnx::Value profile = runJSON(PnxRunner(), {"profile"});
  EXPECT_EQ(profile["binaryEnvironment"], pnx::Value("debug"));
  EXPECT_EQ(profile["certificateExpired"], pnx::Value(false));
}

}  // namespace

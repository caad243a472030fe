#include "config/config.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "config/provisioning.h"
#include "diagnostics/log.h"
#include "diagnostics/log_capture_test.h"
#include "platform/error.h"
#include "platform/fixtures_test.h"
#include "platform/json.h"

namespace {

constexpr const char* kNoFileError =
    "Config file named PnxConfig.json was expected in bundle but not found, PNX integration "
    "will not operate correctly.";
constexpr const char* kDevKeyError =
    "devAppKey is invalid should start with 'ap', 10 character long and should not be null.";
constexpr const char* kProdKeyError =
    "prodAppKey is invalid should start with 'ap', 10 character long and should not be null.";
constexpr const char* kBeaconError =
    "iBeacon support enabled, but no UUID specified, disabling iBeacon support";
constexpr const char* kGeofenceCountError =
    "Maximum Location Geofence Count is larger then the amount allowed by iOS. Using max iOS "
    "value, 20, instead.";

pnx::Value json(std::string_view text) {
  auto value = pnx::JSON::parse(text);
  EXPECT_TRUE(value) << text;
  return value.value_or(pnx::Value());
}

class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override { PNXProvisioning::sharedInstance()->setBinaryEnvironment(std::nullopt); }
  void TearDown() override { PNXLog::sharedInstance().setLogLevelName("error"); }

  std::unique_ptr<PNXConfig> build(std::string_view text) {
    return std::make_unique<PNXConfig>(json(text));
  }
  // Builds with the log at "verbose", so that every message of the build is captured.
  std::unique_ptr<PNXConfig> buildLogged(std::string text) {
    pnx::Value dictionary = json(text);
    auto entries = *dictionary.asDictionary();
    entries[pnx::Value("loglevel")] = pnx::Value("verbose");
    return std::make_unique<PNXConfig>(pnx::Value(entries));
  }

  pnx::testing::ScopedDevice device_;
  LogCapture log_;
};

TEST_F(ConfigTest, DefaultsWithNoFileAndNoDictionary) {
  PNXLog::sharedInstance().setLogLevelName("verbose");
  PNXConfig config;
  EXPECT_TRUE(log_.contains(kNoFileError));
  EXPECT_TRUE(log_.contains(kDevKeyError));
  EXPECT_EQ(config.sessionTimeout(), 20);
  EXPECT_EQ(config.baseUrl().absoluteString(), kDefaultUrl);
  EXPECT_EQ(config.appKey(), std::nullopt);
  EXPECT_TRUE(config.autoInitializeFlag());
  EXPECT_FALSE(config.autoInitializeLocationFlag());
  EXPECT_EQ(config.appDelegateClass(), nullptr);
  EXPECT_TRUE(config.privateDatabaseStorage());
  EXPECT_TRUE(config.autoReinitialize());
  EXPECT_TRUE(config.allowJailbrokenDevices());
  EXPECT_FALSE(config.databaseEncryption());
  EXPECT_FALSE(config.invalidateExistingUser());
  EXPECT_EQ(config.databaseKeyRotationDays(), 30);
  EXPECT_EQ(config.locationSyncRadius(), 100000);
  EXPECT_EQ(config.locationSyncTimeout(), 600);
  EXPECT_EQ(config.watchCategory(), "pnx-watch-category");
  EXPECT_EQ(config.handoffUserActivityName(), "pnx.application");
  EXPECT_EQ(config.handoffInterfaceController(), "handoff");
  EXPECT_FALSE(config.geofenceEnabled());
  EXPECT_FALSE(config.beaconEnabled());
  EXPECT_EQ(config.beaconUUID(), std::nullopt);
  EXPECT_EQ(config.maximumSearchRadius(), 0);
  EXPECT_EQ(config.defaultSearchRadius(), 0);
  EXPECT_EQ(config.maximumSearchCount(), 0);
  EXPECT_EQ(config.maximumGeofenceCount(), 0);
  EXPECT_EQ(config.geofenceAccuracy(), 0.0);
  EXPECT_EQ(config.teamId(), std::nullopt);
  EXPECT_FALSE(config.deliveryReporting());
  EXPECT_EQ(config.apiKey(), std::nullopt);
  EXPECT_EQ(config.orgId(), std::nullopt);
  EXPECT_EQ(PNXLog::sharedInstance().logLevelName(), "ERROR");
}

TEST_F(ConfigTest, ReadsTheBundleFileOnlyWithoutADictionary) {
  device_.writeBundleFile("PnxConfig.json", R"({"teamId": "FROMFILE", "sessionTimeout": 33})");
  EXPECT_EQ(PNXConfig().teamId(), "FROMFILE");
  EXPECT_EQ(PNXConfig(pnx::Value::dict({})).teamId(), std::nullopt);
  EXPECT_EQ(PNXConfig(pnx::Value("not a dictionary")).sessionTimeout(), 33);
}

TEST_F(ConfigTest, AFileThatIsNotAJSONObjectStopsTheBuild) {
  const std::pair<const char*, const char*> cases[] = {
      {"{\"teamId\": ", "Invalid Config File"},
      {"", "Invalid Config File"},
      {"\"just a string\"", "Invalid Config File"},
      {"[1, 2]", "Invalid Config value"},
  };
  for (const auto& [text, name] : cases) {
    device_.writeBundleFile("PnxConfig.json", text);
    try {
      PNXConfig config;
      ADD_FAILURE() << "no exception for " << text;
    } catch (const pnx::Exception& exception) {
      EXPECT_EQ(exception.name(), name) << text;
      if (exception.name() == "Invalid Config File") {
        EXPECT_EQ(exception.reason(), "Config file could not be parsed as JSON");
      }
    }
  }
}

TEST_F(ConfigTest, TypedGettersReadLooselyTypedValues) {
  EXPECT_TRUE(PNXConfig::boolValue("YES", false));
  EXPECT_TRUE(PNXConfig::boolValue("True", false));
  EXPECT_FALSE(PNXConfig::boolValue("no", true));
  EXPECT_FALSE(PNXConfig::boolValue("FALSE", true));
  for (const char* other : {"1", "on", "Y", "", "yess"}) {
    EXPECT_TRUE(PNXConfig::boolValue(other, true)) << other;
    EXPECT_FALSE(PNXConfig::boolValue(other, false)) << other;
  }
  EXPECT_TRUE(PNXConfig::boolValue(1, false));
  EXPECT_TRUE(PNXConfig::boolValue(0.5, false));
  EXPECT_FALSE(PNXConfig::boolValue(0, true));
  EXPECT_TRUE(PNXConfig::boolValue(pnx::Value::array({}), true));

  EXPECT_EQ(PNXConfig::stringValue("Mixed Case", std::nullopt), "Mixed Case");
  EXPECT_EQ(PNXConfig::stringValue("", "default"), "default");
  EXPECT_EQ(PNXConfig::stringValue(42, "default"), "default");

  EXPECT_EQ(PNXConfig::longLongValue("  -12abc", 7), -12);
  EXPECT_EQ(PNXConfig::longLongValue("abc", 7), 0);
  EXPECT_EQ(PNXConfig::longLongValue("99999999999999999999", 7), INT64_MAX);
  EXPECT_EQ(PNXConfig::longLongValue(pnx::Value(), 7), 7);
  EXPECT_EQ(PNXConfig::longLongValue(true, 7), 1);
  EXPECT_EQ(PNXConfig::intValue("5000000000", 7), INT32_MAX);
  EXPECT_EQ(PNXConfig::intValue(-1e12, 7), INT32_MIN);
  EXPECT_EQ(PNXConfig::intValue(41.9, 7), 41);
  EXPECT_EQ(PNXConfig::intValue(pnx::Value::dict({}), 7), 7);
}

TEST_F(ConfigTest, DeliveryReportingNeedsATeam) {
  EXPECT_FALSE(build(R"({"deliveryReporting": true})")->deliveryReporting());
  EXPECT_FALSE(build(R"({"teamId": "", "deliveryReporting": true})")->deliveryReporting());
  EXPECT_TRUE(build(R"({"teamId": "T1", "deliveryReporting": "YES"})")->deliveryReporting());
  EXPECT_FALSE(build(R"({"teamId": "T1", "deliveryReporting": "1"})")->deliveryReporting());
  EXPECT_TRUE(build(R"({"teamId": "T1", "deliveryReporting": 1})")->deliveryReporting());
}

TEST_F(ConfigTest, PushesLogSettingsIntoTheLog) {
  PNXLog& log = PNXLog::sharedInstance();
  const std::uint64_t size = log.maximumSize();
  const std::int32_t files = log.maximumNumberOfLogFiles();
  build(R"({"loglevel": "Trace", "maximumLogSize": "4096", "maximumNumberOfLogFiles": 3})");
  EXPECT_EQ(log.logLevelName(), "TRACE");
  EXPECT_EQ(log.maximumSize(), 4096u);
  EXPECT_EQ(log.maximumNumberOfLogFiles(), 3);
  EXPECT_FALSE(log.logToFile());
  // Missing sizes keep the log's current values.
  build(R"({"logfile": "yes"})");
  EXPECT_EQ(log.logLevelName(), "ERROR");
  EXPECT_EQ(log.maximumSize(), 4096u);
  EXPECT_EQ(log.maximumNumberOfLogFiles(), 3);
  EXPECT_TRUE(log.logToFile());
  log.setLogToFile(false);
  log.setMaximumSize(size);
  log.setMaximumNumberOfLogFiles(files);
}

TEST_F(ConfigTest, ClampsAndReplacesOutOfRangeNumbers) {
  auto syncInterval = [&](const char* value) {
    return build(std::string(R"({"location": {"sync": {"syncInterval": )") + value + "}}}")
        ->locationSyncTimeout();
  };
  EXPECT_EQ(syncInterval("10"), 300);
  EXPECT_EQ(syncInterval("300"), 300);
  EXPECT_EQ(syncInterval("301"), 301);
  EXPECT_EQ(syncInterval("\"soon\""), 300);

  auto config = build(R"({"databaseKeyRotationDays": -1, "sessionTimeout": 0})");
  EXPECT_EQ(config->databaseKeyRotationDays(), 30);
  EXPECT_EQ(config->sessionTimeout(), 20);
  config = build(R"({"databaseKeyRotationDays": 0, "sessionTimeout": -5})");
  EXPECT_EQ(config->databaseKeyRotationDays(), 0);
  EXPECT_EQ(config->sessionTimeout(), 20);
  EXPECT_EQ(build(R"({"sessionTimeout": "45"})")->sessionTimeout(), 45);
  EXPECT_EQ(build(R"({"sessionTimeout": 1})")->sessionTimeout(), 1);
  EXPECT_EQ(build(R"({"sessionTimeout": []})")->sessionTimeout(), 20);
}

TEST_F(ConfigTest, GeofenceCountIsCappedAtTwenty) {
  auto quantity = [&](int value) {
    return buildLogged(R"({"location": {"geofence": {"search": {"maximumQuantity": )" +
                       std::to_string(value) + "}}}}")
        ->maximumGeofenceCount();
  };
  EXPECT_EQ(quantity(20), 20);
  EXPECT_FALSE(log_.contains(kGeofenceCountError));
  EXPECT_EQ(quantity(0), 0);
  EXPECT_EQ(quantity(-3), -3);
  EXPECT_FALSE(log_.contains(kGeofenceCountError));
  EXPECT_EQ(quantity(21), 20);
  EXPECT_TRUE(log_.contains(kGeofenceCountError));
}

TEST_F(ConfigTest, LocationBlocksSetTheirFlagsOnlyWhenPresent) {
  auto config = build(R"({"location": {}})");
  EXPECT_TRUE(config->autoInitializeLocationFlag());
  EXPECT_FALSE(config->geofenceEnabled());
  EXPECT_EQ(config->maximumSearchRadius(), 0);

  config = buildLogged(R"({"location": {"autoInitialize": "no", "geofence": {}}})");
  EXPECT_FALSE(config->autoInitializeLocationFlag());
  EXPECT_TRUE(config->geofenceEnabled());
  EXPECT_EQ(config->maximumSearchRadius(), 10000000);
  EXPECT_EQ(config->defaultSearchRadius(), 10000);
  EXPECT_EQ(config->maximumSearchCount(), 100);
  EXPECT_EQ(config->maximumGeofenceCount(), 20);
  EXPECT_EQ(config->geofenceAccuracy(), 3000);
  EXPECT_TRUE(log_.contains(
      "Config value for geo accuracty is specified as '(null)', which is not a valid value. "
      "Using default of 3km"));

  config = build(R"({"location": {"geofence": {"search": {"maximumRadius": 5,
                     "defaultRadius": "6", "maximumCount": 7}, "accuracy": "100m"}}})");
  EXPECT_EQ(config->maximumSearchRadius(), 5);
  EXPECT_EQ(config->defaultSearchRadius(), 6);
  EXPECT_EQ(config->maximumSearchCount(), 7);
  EXPECT_EQ(config->geofenceAccuracy(), 100);
}

TEST_F(ConfigTest, AccuracyNamesAreExact) {
  PNXConfig config(pnx::Value::dict({}));
  EXPECT_EQ(config.validateGeofenceAccuracy("best"), -1);
  EXPECT_EQ(config.validateGeofenceAccuracy("10m"), 10);
  EXPECT_EQ(config.validateGeofenceAccuracy("1km"), 1000);
  EXPECT_EQ(config.validateGeofenceAccuracy("3km"), 3000);
  PNXLog::sharedInstance().setLogLevelName("error");
  log_.clear();
  EXPECT_EQ(config.validateGeofenceAccuracy("Best"), 3000);
  EXPECT_TRUE(log_.contains("specified as 'Best', which is not a valid value"));
}

TEST_F(ConfigTest, BeaconNeedsAValidUUID) {
  auto config = buildLogged(R"({"location": {"ibeacon": {}}})");
  EXPECT_FALSE(config->beaconEnabled());
  EXPECT_TRUE(log_.contains(kBeaconError));
  log_.clear();
  EXPECT_FALSE(
      buildLogged(R"({"location": {"ibeacon": {"UUID": "not-a-uuid"}}})")->beaconEnabled());
  EXPECT_TRUE(log_.contains(kBeaconError));
  log_.clear();
  config =
      buildLogged(R"({"location": {"ibeacon": {"UUID": "e621e1f8-c36c-495a-93fc-0c247a3e6e5f"}}})");
  EXPECT_TRUE(config->beaconEnabled());
  EXPECT_EQ(config->beaconUUID()->string(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_FALSE(log_.contains(kBeaconError));
}

TEST_F(ConfigTest, AutoInitializeUsesThePlatformsBooleanReading) {
  auto flag = [&](const char* value) {
    return build(std::string(R"({"autoInitialize": )") + value + "}")->autoInitializeFlag();
  };
  EXPECT_FALSE(flag("\"no\""));
  EXPECT_FALSE(flag("\"maybe\""));
  EXPECT_FALSE(flag("\"0\""));
  EXPECT_FALSE(flag("0"));
  EXPECT_TRUE(flag("\"yes\""));
  EXPECT_TRUE(flag("\" +007\""));
  EXPECT_TRUE(flag("2"));
  EXPECT_TRUE(flag("null"));
  EXPECT_TRUE(flag("{}"));
  EXPECT_TRUE(build("{}")->autoInitializeFlag());
}

TEST_F(ConfigTest, AppDelegateClassIsLookedUpInTheRegistry) {
  PNXConfig::registerAppDelegateClass("SampleAppDelegate", [] { return nullptr; });
  auto config = buildLogged(R"({"appDelegateClass": "SampleAppDelegate"})");
  ASSERT_NE(config->appDelegateClass(), nullptr);
  EXPECT_EQ(config->appDelegateClass()->name, "SampleAppDelegate");
  EXPECT_FALSE(log_.contains("appDelegateClass does not exist"));
  for (const char* text : {R"({"appDelegateClass": "Missing"})", R"({"appDelegateClass": 5})"}) {
    EXPECT_EQ(buildLogged(text)->appDelegateClass(), nullptr);
    EXPECT_TRUE(log_.contains(
        "appDelegateClass does not exist in config file, PNXAppDelegate will not be used."));
  }
}

TEST_F(ConfigTest, AppKeysMustStartWithApAndHaveTenUnits) {
  PNXConfig config(pnx::Value::dict({}));
  EXPECT_TRUE(config.checkAppKey("ap12345678"));
  EXPECT_TRUE(config.checkAppKey("apé1234567"));  // 10 UTF-16 units, 11 bytes
  EXPECT_FALSE(config.checkAppKey("ap1234567"));
  EXPECT_FALSE(config.checkAppKey("ap123456789"));
  EXPECT_FALSE(config.checkAppKey("AP12345678"));
  EXPECT_FALSE(config.checkAppKey(std::nullopt));
}

TEST_F(ConfigTest, ChoosesTheKeyByTheProvisioningEnvironment) {
  const std::string keys = R"({"appKey": {"dev": "apDEV45678", "prod": "apPROD5678"}})";
  EXPECT_EQ(buildLogged(keys)->appKey(), "apPROD5678");  // no profile
  EXPECT_TRUE(log_.contains("ARM BINARY, defaulting to prod appkey apPROD5678"));
  EXPECT_FALSE(log_.contains("Provisioning profile override"));

  for (const char* environment : {"ad-hoc", "enterprise", "appstore"}) {
    PNXProvisioning::sharedInstance()->setBinaryEnvironment(environment);
    EXPECT_EQ(build(keys)->appKey(), "apPROD5678") << environment;
  }
  PNXProvisioning::sharedInstance()->setBinaryEnvironment("debug");
  log_.clear();
  EXPECT_EQ(buildLogged(keys)->appKey(), "apDEV45678");
  EXPECT_TRUE(log_.contains("ARM BINARY, defaulting to prod appkey apPROD5678"));
  EXPECT_TRUE(log_.contains("Provisioning profile override to dev appKey: apDEV45678"));
}

TEST_F(ConfigTest, OneBadKeyMeansNoKey) {
  PNXProvisioning::sharedInstance()->setBinaryEnvironment("debug");
  EXPECT_EQ(buildLogged(R"({"appKey": {"dev": "apDEV45678"}})")->appKey(), std::nullopt);
  EXPECT_TRUE(log_.contains(kProdKeyError));
  EXPECT_FALSE(log_.contains(kDevKeyError));
  log_.clear();
  EXPECT_EQ(buildLogged(R"({"appKey": {"dev": "AP12345678", "prod": "x"}})")->appKey(),
            std::nullopt);
  EXPECT_TRUE(log_.contains(kDevKeyError));
  EXPECT_FALSE(log_.contains(kProdKeyError));
  log_.clear();
  EXPECT_EQ(buildLogged(R"({"appKey": "apDEV45678"})")->appKey(), std::nullopt);
  EXPECT_TRUE(log_.contains(kDevKeyError));
}

TEST_F(ConfigTest, BaseUrlIsReducedToItsServerRoot) {
  PNXConfig config(pnx::Value::dict({}));
  auto trimmed = [&](const std::string& text) {
    return config.trimmedBaseUrlWithString(text).absoluteString();
  };
  EXPECT_EQ(trimmed("https://api.example.com/a/b"), "https://api.example.com/");
  EXPECT_EQ(trimmed("https://api.example.com/api/rest/"), "https://api.example.com/");
  EXPECT_EQ(trimmed("http://api.example.com:8080/x/y"), "http://api.example.com:8080/");
  EXPECT_EQ(trimmed("https://api.example.com/"), "https://api.example.com/");
  EXPECT_EQ(trimmed("https://api.example.com"), "https://api.example.com");
  EXPECT_EQ(trimmed("api.example.com/path"), kDefaultUrl);
  EXPECT_EQ(trimmed("not a url"), kDefaultUrl);
  EXPECT_EQ(build(R"({"baseUrl": "https://h.example/v1/"})")->baseUrl().absoluteString(),
            "https://h.example/");
  EXPECT_EQ(build(R"({"baseUrl": 12})")->baseUrl().absoluteString(), kDefaultUrl);
}

TEST_F(ConfigTest, LogsATenLineSummary) {
  PNXProvisioning::sharedInstance()->setBinaryEnvironment("ad-hoc");
  PNXConfig::registerAppDelegateClass("Delegate", [] { return nullptr; });
  build(R"({"loglevel": "info", "appKey": {"dev": "apDEV45678", "prod": "apPROD5678"},
            "appDelegateClass": "Delegate", "autoInitialize": false, "sessionTimeout": 9})");
  const std::vector<std::string> lines = log_.lines();
  const std::vector<std::string> expected = {
      "Application Configuration Loaded",
      "Log Level is INFO",
      "App Key is apPROD5678",
      std::string("Base URL is ") + kDefaultUrl,
      "Auto Initialize is OFF",
      "App Delegate Class is Delegate",
      "Session Timeout is 9\n",
      "Binary Environment ad-hoc",
      "APNS Certificate Expiration (null)",
      "APNS Certificate is Not Expired\n",
  };
  ASSERT_GE(lines.size(), expected.size());
  const std::size_t first = lines.size() - expected.size();
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_TRUE(lines[first + i].ends_with(expected[i])) << lines[first + i];
  }
}

TEST_F(ConfigTest, TheSharedInstanceIsBuiltOnceUnderConcurrentFirstCalls) {
  std::vector<std::shared_ptr<PNXConfig>> seen(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] {
      seen[i] = PNXConfig::sharedInstanceWithDictionary(
          pnx::Value::dict({{"sessionTimeout", static_cast<int>(100 + i)}}));
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& config : seen) EXPECT_EQ(config, seen[0]);
  const std::int64_t timeout = seen[0]->sessionTimeout();
  EXPECT_EQ(PNXConfig::sharedInstanceWithDictionary(pnx::Value::dict({{"sessionTimeout", 7}})),
            seen[0]);
  EXPECT_EQ(PNXConfig::sharedInstance()->sessionTimeout(), timeout);
}

}  // namespace

#include "config/config.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "config/provisioning.h"
#include "diagnostics/log.h"
#include "diagnostics/log_capture_test.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/error.h"
#include "platform/foundation/json.h"

namespace {

const std::string kKeyError =
    "AppKey is invalid should start with 'ap', 10 character long and should not be null.";
constexpr const char* kBeaconError = "iBeacon support enabled, but no UUID specified";
constexpr const char* kGeofenceCountError = "Maximum Location Geofence Count is larger then";
const std::string kKeys = R"("appKey": {"dev": "apDEV45678", "prod": "apPROD5678"})";

// Each test gets its own bundle, no profile environment, and a capture of the log. Builds
// run with the log at "verbose" unless the JSON names a level, so every message is seen.
class ConfigTest : public ::testing::Test {
 protected:
  void SetUp() override { PNXProvisioning::sharedInstance()->setBinaryEnvironment(std::nullopt); }
  void TearDown() override { PNXLog::sharedInstance().setLogLevelName("error"); }

  std::unique_ptr<PNXConfig> build(const std::string& members) {
    auto dictionary = pnx::JSON::parse(R"({"loglevel": "verbose")" +
                                       (members.empty() ? "" : ", " + members) + "}");
    EXPECT_TRUE(dictionary) << members;
    return std::make_unique<PNXConfig>(dictionary.value_or(pnx::Value()));
  }

  pnx::testing::ScopedDevice device_;
  LogCapture log_;
};

// A missing file is logged and leaves the defaults (the log at "error").
TEST_F(ConfigTest, ReadsTheBundleFileWithoutADictionaryAndBuildsTheSharedOneOnce) {
  PNXLog::sharedInstance().setLogLevelName("verbose");
  EXPECT_EQ(PNXConfig().teamId(), std::nullopt);
  EXPECT_TRUE(
      log_.contains("Config file named PnxConfig.json was expected in bundle but not found, PNX "
                    "integration will not operate correctly."));
  EXPECT_EQ(PNXLog::sharedInstance().logLevelName(), "ERROR");

  device_.writeBundleFile("PnxConfig.json", R"({"teamId": "FROMFILE"})");
  EXPECT_EQ(PNXConfig().teamId(), "FROMFILE");
  EXPECT_EQ(PNXConfig(pnx::Value("not a dictionary")).teamId(), "FROMFILE");
  EXPECT_EQ(PNXConfig(pnx::Value::dict({})).teamId(), std::nullopt);
  for (const char* unreadable : {"", "\"a string\""}) {
    device_.writeBundleFile("PnxConfig.json", unreadable);
    try {
      PNXConfig config;
      ADD_FAILURE() << "read " << unreadable;
    } catch (const pnx::Exception& exception) {
      EXPECT_EQ(exception.name(), "Invalid Config File") << unreadable;
    }
  }

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

TEST_F(ConfigTest, ValuesAreReadLooselyTypedClampedAndTheBaseUrlReducedToItsRoot) {
  for (const char* yes : {"YES", "True", "yes"}) EXPECT_TRUE(PNXConfig::boolValue(yes, false));
  for (const char* no : {"no", "FALSE"}) EXPECT_FALSE(PNXConfig::boolValue(no, true));
  for (const char* other : {"1", "on", "Y", ""}) EXPECT_TRUE(PNXConfig::boolValue(other, true));
  EXPECT_TRUE(PNXConfig::boolValue(0.5, false));
  EXPECT_TRUE(PNXConfig::boolValue(pnx::Value::array({}), true));
  EXPECT_EQ(PNXConfig::stringValue("", "default"), "default");
  EXPECT_EQ(PNXConfig::stringValue(42, "default"), "default");
  EXPECT_EQ(PNXConfig::longLongValue("  -12abc", 7), -12);
  EXPECT_EQ(PNXConfig::longLongValue("abc", 7), 0);
  EXPECT_EQ(PNXConfig::longLongValue("99999999999999999999", 7), INT64_MAX);
  EXPECT_EQ(PNXConfig::longLongValue(pnx::Value(), 7), 7);
  EXPECT_EQ(PNXConfig::intValue("5000000000", 7), INT32_MAX);
  EXPECT_EQ(PNXConfig::intValue(-1e12, 7), INT32_MIN);
  EXPECT_EQ(PNXConfig::intValue(41.9, 7), 41);

  auto read = [&](const std::string& members, auto property) {
    return (build(members).get()->*property)();
  };
  const std::string autoInit = R"("autoInitialize": )";
  for (const char* off : {"\"no\"", "\"maybe\"", "\"0\"", "0", "false"})
    EXPECT_FALSE(read(autoInit + off, &PNXConfig::autoInitializeFlag)) << off;
  for (const char* on : {"\"yes\"", "\" +007\"", "\"true\"", "2", "null", "{}"})
    EXPECT_TRUE(read(autoInit + on, &PNXConfig::autoInitializeFlag)) << on;
  EXPECT_FALSE(build(R"("deliveryReporting": true)")->deliveryReporting());
  EXPECT_FALSE(build(R"("teamId": "", "deliveryReporting": true)")->deliveryReporting());
  EXPECT_FALSE(build(R"("teamId": "T1", "deliveryReporting": "1")")->deliveryReporting());
  EXPECT_TRUE(build(R"("teamId": "T1", "deliveryReporting": 1)")->deliveryReporting());

  const std::string sync = R"("location": {"sync": {"syncInterval": )";
  EXPECT_EQ(read(sync + "301}}", &PNXConfig::locationSyncTimeout), 301);
  EXPECT_EQ(read(sync + "\"soon\"}}", &PNXConfig::locationSyncTimeout), 300);
  EXPECT_EQ(read(R"("databaseKeyRotationDays": -1)", &PNXConfig::databaseKeyRotationDays), 30);
  EXPECT_EQ(read(R"("databaseKeyRotationDays": 0)", &PNXConfig::databaseKeyRotationDays), 0);
  for (const char* fallback : {"0", "-5", "[]", "\"x\""}) {
    EXPECT_EQ(read(std::string(R"("sessionTimeout": )") + fallback, &PNXConfig::sessionTimeout),
              20);
  }

  const std::string quantity = R"("location": {"geofence": {"search": {"maximumQuantity": )";
  EXPECT_EQ(read(quantity + "20}}}", &PNXConfig::maximumGeofenceCount), 20);
  EXPECT_EQ(read(quantity + "-3}}}", &PNXConfig::maximumGeofenceCount), -3);
  EXPECT_FALSE(log_.contains(kGeofenceCountError));
  EXPECT_EQ(read(quantity + "21}}}", &PNXConfig::maximumGeofenceCount), 20);
  EXPECT_TRUE(log_.contains(kGeofenceCountError));

  auto config = build("");
  const std::pair<const char*, const char*> cases[] = {
      {"https://api.example.com/", "https://api.example.com/"},
      {"https://api.example.com", "https://api.example.com"},
      {"api.example.com/path", kDefaultUrl},
      {"not a url", kDefaultUrl},
      {"https://api.example.com/a/b?key=1#top", "https://api.example.com/?key=1#top"},
      // ".." components cannot climb above the root (deleting them one by one never ends).
      {"https://api.example.com/a/../b/..", "https://api.example.com/"},
  };
  for (const auto& [given, root] : cases)
    EXPECT_EQ(config->trimmedBaseUrlWithString(given).absoluteString(), root) << given;
  std::string deep = "https://api.example.com";  // linear time, not one copy per component
  for (int i = 0; i < 100000; ++i) deep += "/abcdefghi";
  EXPECT_EQ(config->trimmedBaseUrlWithString(deep).absoluteString(), "https://api.example.com/");
  EXPECT_EQ(build(R"("baseUrl": 12)")->baseUrl().absoluteString(), kDefaultUrl);
}

TEST_F(ConfigTest, LocationBlocksCountOnlyWhenPresentAndAppKeysAreCheckedAndChosen) {
  auto config = build(R"("location": {"geofence": {}, "ibeacon": {}})");
  EXPECT_TRUE(config->autoInitializeLocationFlag());
  EXPECT_TRUE(config->geofenceEnabled());
  EXPECT_EQ(config->geofenceAccuracy(), 3000);
  EXPECT_TRUE(
      log_.contains("Config value for geo accuracty is specified as '(null)', which is not a valid "
                    "value. Using default of 3km"));
  EXPECT_FALSE(config->beaconEnabled());
  EXPECT_TRUE(log_.contains(kBeaconError));

  // Accuracy names match in their own case only.
  config =
      build(R"("location": {"geofence": {"search": {"defaultRadius": "6"}, "accuracy": "Best"}})");
  EXPECT_EQ(config->defaultSearchRadius(), 6);
  EXPECT_EQ(config->geofenceAccuracy(), 3000);
  EXPECT_TRUE(log_.contains("specified as 'Best'"));

  log_.clear();
  EXPECT_FALSE(build(R"("location": {"ibeacon": {"UUID": "E621E1F8"}})")->beaconEnabled());
  EXPECT_TRUE(log_.contains(kBeaconError));
  const std::pair<const char*, double> accuracies[] = {
      {"best", -1}, {"10m", 10}, {"100m", 100}, {"1km", 1000}, {"3km", 3000}};
  for (const auto& [name, metres] : accuracies)
    EXPECT_EQ(config->validateGeofenceAccuracy(name), metres) << name;

  // Bad values are quoted as short escaped excerpts (whole files too: pnx config's tests).
  build(R"("location": {"geofence": {"accuracy": "\u001b[2J\u0000"}})");
  EXPECT_TRUE(log_.contains("Config value for geo accuracty is specified as '\\x1b[2J\\x00'"));
  config = build(R"("appKey": {"dev": "ap\u001b[2J4567", "prod": "ap\u001b[2J4567"})");
  EXPECT_EQ(config->appKey(), "ap\x1b[2J4567");
  EXPECT_TRUE(log_.contains("defaulting to prod appkey ap\\x1b[2J4567"));
  EXPECT_TRUE(config->checkAppKey("apé1234567"));  // 10 UTF-16 units, 11 bytes
  for (const char* bad : {"ap1234567", "ap123456789", "AP12345678"})
    EXPECT_FALSE(config->checkAppKey(bad));

  EXPECT_EQ(build(kKeys)->appKey(), "apPROD5678");  // no profile
  EXPECT_TRUE(log_.contains("ARM BINARY, defaulting to prod appkey apPROD5678"));
  PNXProvisioning::sharedInstance()->setBinaryEnvironment("ad-hoc");
  EXPECT_EQ(build(kKeys)->appKey(), "apPROD5678");
  EXPECT_FALSE(log_.contains("Provisioning profile override"));
  PNXProvisioning::sharedInstance()->setBinaryEnvironment("debug");
  EXPECT_EQ(build(kKeys)->appKey(), "apDEV45678");
  EXPECT_TRUE(log_.contains("Provisioning profile override to dev appKey: apDEV45678"));

  // One bad key means no key, and the other key is then not looked at.
  log_.clear();
  EXPECT_EQ(build(R"("appKey": {"dev": "apDEV45678"})")->appKey(), std::nullopt);
  EXPECT_TRUE(log_.contains("prod" + kKeyError) && !log_.contains("dev" + kKeyError));
  log_.clear();
  EXPECT_EQ(build(R"("appKey": {"dev": "AP12345678", "prod": "x"})")->appKey(), std::nullopt);
  EXPECT_TRUE(log_.contains("dev" + kKeyError) && !log_.contains("prod" + kKeyError));
  EXPECT_EQ(build(R"("appKey": "apDEV45678")")->appKey(), std::nullopt);
}

// Log settings reach the log; the delegate class is looked up in the registry.
TEST_F(ConfigTest, SetsUpTheLogLogsATenLineSummaryAndLooksTheDelegateClassUp) {
  PNXProvisioning::sharedInstance()->setBinaryEnvironment("ad-hoc");
  PNXConfig::registerAppDelegateClass("Delegate", [] { return nullptr; });
  auto config =
      build(R"("loglevel": "info", "appDelegateClass": "Delegate", "autoInitialize": false,
           "sessionTimeout": 9, )" +
            kKeys);
  const std::vector<std::string> lines = log_.lines();
  ASSERT_GE(lines.size(), 10u);
  std::string summary;  // the last ten lines without their marks
  for (auto line = lines.end() - 10; line != lines.end(); ++line)
    summary += line->substr(line->find(' ') + 1) + "|";
  EXPECT_EQ(summary, std::string("Application Configuration Loaded|Log Level is INFO|App Key is "
                                 "apPROD5678|Base URL is ") +
                         kDefaultUrl +
                         "|Auto Initialize is OFF|App Delegate Class is Delegate|Session Timeout "
                         "is 9\n|Binary Environment ad-hoc|APNS Certificate Expiration "
                         "(null)|APNS Certificate is Not Expired\n|");
  EXPECT_EQ(config->appDelegateClass()->name, "Delegate");
  EXPECT_FALSE(log_.contains("appDelegateClass does not exist"));
  EXPECT_EQ(build(R"("appDelegateClass": "Missing")")->appDelegateClass(), nullptr);
  EXPECT_TRUE(log_.contains(
      "appDelegateClass does not exist in config file, PNXAppDelegate will not be used."));

  PNXLog& log = PNXLog::sharedInstance();
  const std::uint64_t size = log.maximumSize();
  const std::int32_t files = log.maximumNumberOfLogFiles();
  build(R"("loglevel": "Trace", "maximumLogSize": "4096", "maximumNumberOfLogFiles": 3)");
  EXPECT_EQ(log.logLevelName(), "TRACE");
  EXPECT_EQ(log.maximumSize(), 4096u);
  EXPECT_EQ(log.maximumNumberOfLogFiles(), 3);
  build(R"("loglevel": 5, "logfile": "yes")");  // sizes missing: the log keeps its own
  EXPECT_EQ(log.logLevelName(), "ERROR");
  EXPECT_EQ(log.maximumSize(), 4096u);
  EXPECT_TRUE(log.logToFile());
  log.setLogToFile(false);
  log.setMaximumSize(size);
  log.setMaximumNumberOfLogFiles(files);
}

}  // namespace

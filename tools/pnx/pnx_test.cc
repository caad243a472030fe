// pnx run as separate processes, as people use it: the program's contract, its commands on
// bundles and devices built in the test, and the delivery commands against `pnx serve`.

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <regex>
#include <thread>

#include "platform/files/fixtures_test.h"
#include "platform/foundation/error.h"
#include "platform/foundation/keyed_archive.h"
#include "platform/security/sqlite.h"
#include "tools/pnx/command.h"
#include "tools/pnx/run_pnx_test.h"

namespace pnx {
namespace {

TEST(PnxProgram, VersionAndHelpExitZeroAndUsageErrorsFailInOneLine) {
  PnxRunner app;
  // The library's version, whatever the globals.
  for (const PnxRun& run : {runPnx({"--version"}), app.run({"--version"})}) {
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "3.8.0\n");
    EXPECT_EQ(run.err, "");
  }

  PnxRun help = runPnx({"--help"});
  EXPECT_EQ(help.exitCode, 0) << help.err;
  for (const char* global : {"--device", "--bundle"})
    EXPECT_NE(help.out.find(global), std::string::npos);
  // Each command listed under "Subcommands:" has a help of its own.
  const std::string listed = help.out.substr(help.out.find("Subcommands:"));
  const std::regex entry("\n  ([a-z_]+) ");
  for (std::sregex_iterator it(listed.begin(), listed.end(), entry), end; it != end; ++it) {
    const std::string command = (*it)[1];
    SCOPED_TRACE(command);
    PnxRun commandHelp = app.run({command, "--help"});
    EXPECT_EQ(commandHelp.exitCode, 0) << commandHelp.err;
    EXPECT_NE(commandHelp.out.find("pnx " + command), std::string::npos);
    expectPnxFailure(app.run({command, "--no-such-option"}), 2, "--no-such-option");
  }

  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"nonsense"}, "unknown command 'nonsense'"},
      {{"--bogus"}, "unknown option '--bogus'"},
      {{}, "a command is required"},
      // Control characters are escaped and a long name is cut short.
      {{"\x1b[2J\x1b]0;title\x07" + std::string(100000, 'x')},
       "unknown command '\\x1b[2J\\x1b]0;title\\x07xxx"},
      // A name quoted in a command's own error, here a keychain item's.
      {{"keychain", "set", "\x1b[31mred\x1b[0m", "not json"},
       "the value for \\x1b[31mred\\x1b[0m is not JSON"},
  };
  for (const auto& [arguments, mentions] : cases) {
    const PnxRun run = app.run(arguments);
    expectPnxFailure(run, 2, mentions);
    EXPECT_LT(run.err.size(), 200u) << run.err;
    EXPECT_EQ(run.err.find('\x1b'), std::string::npos) << run.err;
  }
  expectPnxFailure(runPnx({"--device"}), 2, "--device");

  const std::string device = app.device().path(), missing = device + "/no-such-bundle";
  expectPnxFailure(runPnx({"--device", device, "--bundle", missing, "config"}), 1, missing);
  expectPnxFailure(runPnx({"--device", device, "config"}, "", {"PNX_BUNDLE=" + missing}), 1,
                   missing);
}

TEST(PnxJSONText, WritesCompactJSONAndTurnsWhatJSONCannotHoldIntoText) {
  const Date date(1625065452.25);
  const std::pair<Value, std::string> cases[] = {
      // Compact, keys in order; what JSON itself holds is the serialiser's (tested with it).
      {Value::dict({{"b", Value::array({1, "x"})}, {"a", nullptr}}), R"({"a":null,"b":[1,"x"]})"},
      {date, "\"" + date.iso8601() + "\""},
      // Data as standard base64 (OpenSSL's), padded.
      {Data{0xff, 0x00, 0xfe, 0x7f}, R"("/wD+fw==")"},
      {std::numeric_limits<double>::quiet_NaN(), "null"},
      {Value::array({-std::numeric_limits<double>::infinity()}), "[null]"},
      // Inside containers too, keys that are no strings and sets included.
      {Value::array({Dictionary{{5, "five"}, {"set", Set{Data{'f'}, 2}}}}),
       R"([{"5":"five","set":[2,"Zg=="]}])"},
  };
  for (const auto& [value, text] : cases) EXPECT_EQ(pnxJSONText(value), text);
  auto error = Error::withDescription("test.domain", 7, "went wrong");
  EXPECT_EQ(pnxJSONText(Value(error)), pnxJSONText(error->description()));

  // Large data is encoded in pieces; only the end is padded.
  Data large((3u << 20) + 4, 0xfb);
  const std::string text = pnxJSONText(large);
  EXPECT_EQ(text.size(), 2 + 4 * ((large.size() + 2) / 3));
  EXPECT_EQ(text.find('='), text.size() - 3);
  EXPECT_EQ(text.substr(text.size() - 10), "7+/v7+w==\"");
}

// pnx run on a bundle directory with an Info.plist, plus whatever each test adds.
class PnxCommands : public ::testing::Test {
 protected:
  PnxCommands() {
    bundle_.write("Info.plist", testing::ScopedDevice::infoPlist("com.example.commands"));
  }
  testing::TempDir bundle_;
  PnxRunner pnx_{bundle_.path()};
};

TEST_F(PnxCommands, ConfigAndProfilePrintWhatTheBundleSaysAndABadConfigFailsInOneLine) {
  PnxRun none = pnx_.run({"--log", "profile"});
  EXPECT_EQ(expectPnxJSON(none), *JSON::parse(R"({"binaryEnvironment": null,
      "certificateExpiration": null, "certificateExpired": false, "provisionedDevices": null})"));
  EXPECT_NE(none.err.find("pnx log: \xF0\x9F\x9B\x91 Couldn't find file embedded.mobileprovision"),
            std::string::npos)
      << none.err;

  // An ad-hoc profile that expired two days ago, signed by the examples' script, given by path.
  const std::string make = "sh " PNX_SOURCE_DIR "/examples/make-profiles.sh --days -2 '";
  ASSERT_EQ(std::system((make + bundle_.file("p") + "' ad-hoc").c_str()), 0);
  Value profile = pnx_.json({"profile", "--file", bundle_.file("p/ad-hoc.mobileprovision")});
  EXPECT_EQ(profile["binaryEnvironment"], Value("ad-hoc"));
  EXPECT_EQ(profile["certificateExpired"], Value(true));
  EXPECT_EQ(profile["provisionedDevices"].size(), 2u);
  auto expiration = Date::fromISO8601(*profile["certificateExpiration"].asString());
  ASSERT_TRUE(expiration);
  EXPECT_NEAR(expiration->timeIntervalSinceNow(), -2 * 86400.0, 3600);

  EXPECT_EQ(PnxRunner().json({"profile"})["binaryEnvironment"], Value("debug"))
      << "the sample bundle ships a debug profile";

  EXPECT_EQ(pnx_.json({"config"}), *JSON::parse(R"({
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
  EXPECT_EQ(pnx_.json({"config"}), *JSON::parse(R"({
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

  bundle_.write("PnxConfig.json", R"({"logfile": true, "loglevel": "info"})");
  pnx_.json({"config"});
  const std::string log = pnx_.device().read("containers/com.example.commands/Documents/PNX.log");
  EXPECT_NE(log.find("Application Configuration Loaded"), std::string::npos) << log;
  EXPECT_NE(log.find("APNS Certificate is Not Expired"), std::string::npos) << log;

  // Cut short: not JSON. The keychain commands, which load it for the team's group, too.
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

constexpr const char* kSharedGroup = "A1B2C3D4E5.PNX";  // teamId of the sample bundle + ".PNX"

// The PNX service's items of an account in the device's database: group, class, value.
std::vector<Value> storedRows(const PnxRunner& app, const std::string& account) {
  auto database = SQLiteDatabase::open(app.device().file("keychain.db"));
  auto rows = database ? database->query(
                             "SELECT access_group, accessible, data FROM items"
                             " WHERE service = 'PNX' AND account = ?",
                             {Value(account)})
                       : std::nullopt;
  std::vector<Value> result;
  while (rows && rows->next()) {
    result.push_back(Value::array(
        {rows->valueForColumnIndex(0), rows->valueForColumnIndex(1),
         KeyedUnarchiver::unarchiveObjectWithData(*rows->valueForColumnIndex(2).asData())}));
  }
  return result;
}

TEST_F(PnxCommands, KeychainAndIdentityWriteIntoTheSharedGroupOnlyAndReadBack) {
  PnxRunner app;  // the sample bundle, entitled to the shared group
  expectPnxFailure(app.run({"keychain", "set", "userId", "\"x\"", "--group", "ZZZZZ.PNX"}), 1,
                   "errSecMissingEntitlement (-34018)");
  EXPECT_EQ(app.json({"identity"}), Value::dict({{"userId", Value()}, {"channelId", Value()}}));
  EXPECT_EQ(app.json({"identity", "--user-id", "user-7", "--channel-id", "chan-9"}),
            Value::dict({{"userId", "user-7"}, {"channelId", "chan-9"}}));
  EXPECT_EQ(app.json({"identity", "--user-id", "user-8"}),
            Value::dict({{"userId", "user-8"}, {"channelId", "chan-9"}}));

  EXPECT_EQ(storedRows(app, "userId"), std::vector{Value::array({kSharedGroup, "dku", "user-8"})});

  // A bundle entitled to its own identifier only may not write the shared group.
  bundle_.write("PnxConfig.json", R"({"teamId": "A1B2C3D4E5"})");
  expectPnxFailure(pnx_.run({"identity", "--user-id", "u"}), 1, "errSecMissingEntitlement");

  // One item set, read and removed; another service is another item, "" the default group.
  const char* queue = R"([{"userId":"u1","mailingId":3},{"channelId":"c2"}])";
  const Value expected = *JSON::parse(queue);
  EXPECT_EQ(app.json({"keychain", "set", "pushQueue", queue}), expected);
  EXPECT_EQ(app.json({"keychain", "get", "pushQueue"}), expected);
  EXPECT_EQ(storedRows(app, "pushQueue"),
            std::vector{Value::array({kSharedGroup, "dku", expected})});

  app.json({"keychain", "set", "pushQueue", "42", "--service", "other", "--group", ""});
  EXPECT_EQ(app.json({"keychain", "get", "pushQueue"}), expected);
  EXPECT_EQ(app.json({"keychain", "rm", "pushQueue"}), expected);
  expectPnxFailure(app.run({"keychain", "get", "pushQueue"}), 1, "errSecItemNotFound (-25300)");
  expectPnxFailure(app.run({"keychain", "rm", "pushQueue"}), 1, "errSecItemNotFound (-25300)");
}

// User u1 on channel c1, with the sample bundle pointed at a `pnx serve` of examples/media.
class PnxDeliveryCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GT(serve_.port(), 0) << "pnx serve did not start: " << serve_.err();
    std::filesystem::copy(kPnxSampleBundle, dir_.file("bundle"));
    std::filesystem::copy(PNX_SOURCE_DIR "/examples/payloads", dir_.file("payloads"));
    const std::string config = dir_.read("bundle/PnxConfig.json");
    dir_.write("bundle/PnxConfig.json", std::regex_replace(config, kLocalUrl, serve_.url()));
    app_.json({"identity", "--user-id", "u1", "--channel-id", "c1"});
  }

  // An example payload, its media URL pointing at the server.
  std::string payload(const std::string& name) {
    return std::regex_replace(dir_.read("payloads/" + name), kLocalUrl, serve_.url());
  }
  void setFaults(const std::string& faults) {
    auto answer = serve_.client().Post("/_pnx/faults", faults, "application/json");
    ASSERT_TRUE(answer && answer->status == 200);
  }
  static Value record(const std::string& attribution) {
    return Value::dict(
        {{"attribution", attribution}, {"channelId", "c1"}, {"mailingId", 1}, {"userId", "u1"}});
  }
  static Value queue(Value pushQueue, Value inFlight = Value(Array())) {
    return Value::dict({{"pushQueue", pushQueue}, {"retryAfter", Value()}, {"inFlight", inFlight}});
  }

  const std::regex kLocalUrl{"http://127\\.0\\.0\\.1:[0-9]+"};
  testing::TempDir dir_;
  PnxServe serve_{{"--media", PNX_SOURCE_DIR "/examples/media"}};
  PnxRunner app_{dir_.file("bundle")};
};

TEST_F(PnxDeliveryCommands, DeliverTakesAPushTheWholeRoadAndRefusesBadInputInOneLine) {
  // An action that cannot be encoded stops the extension until its time budget ends.
  EXPECT_EQ(app_.json({"deliver", "-", "--time-budget", "0.3"},
                      payload("bad-action-not-encodable.json"))["expired"],
            Value(true));

  PnxRun run = app_.run({"deliver", "-", "--id", "IMG-1"}, payload("image.json"));
  Value result = expectPnxJSON(run);
  EXPECT_EQ(result["extension"], Value(true));
  EXPECT_EQ(result["expired"], Value(false));
  ASSERT_EQ(result["handBacks"].size(), 2u);
  const Value& first = result["handBacks"].asArray()->at(0);
  EXPECT_EQ(first["identifier"], Value("IMG-1"));
  EXPECT_EQ(first["title"], Value("New arrivals"));
  EXPECT_EQ(first["categoryIdentifier"], Value("new-arrivals"));
  EXPECT_EQ(first["userInfo"]["aps"]["category"], Value("new-arrivals"));
  ASSERT_EQ(first["attachments"].size(), 1u);
  EXPECT_EQ(first["attachments"].asArray()->at(0)["type"], Value("public.png"));
  const std::string path = *result["displayed"]["attachments"].asArray()->at(0)["url"].asString();
  EXPECT_TRUE(path.ends_with("/notifications/com.example.sampleapp/attachments/sample.png"))
      << path;
  EXPECT_TRUE(std::filesystem::exists(path.substr(std::string("file://").size())));
  EXPECT_NE(run.err.find("New arrivals"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("[ Ask a question … ]"), std::string::npos) << run.err;

  // Another process sees the category and an empty delivery queue: the report went out.
  Value categories = app_.json({"categories"})["categories"];
  ASSERT_EQ(categories.size(), 1u);
  EXPECT_EQ(categories.asArray()->at(0)["actions"].size(), 4u);
  EXPECT_EQ(app_.json({"queue"})["pushQueue"], Value(Array()));
  EXPECT_NE(serve_.client().Get("/_pnx/reports")->body.find("arrivals"), std::string::npos);

  for (const char* input : {"[1, 2]", "{\"aps\": ", "\"text\""})
    expectPnxFailure(app_.run({"deliver", "-"}, input), 1);
  expectPnxFailure(app_.run({"deliver", dir_.file("nothing-here.json")}), 1, "nothing-here.json");
  expectPnxFailure(app_.run({"deliver", "-", "--time-budget", "-1"}, "{}"), 2);
  expectPnxFailure(app_.run({"deliver", dir_.file("bundle")}), 1, "is a directory");
  // The configuration's exception ends the run in one line, not an abort.
  dir_.write("bundle/PnxConfig.json", "{not JSON");
  expectPnxFailure(app_.run({"deliver", "-"}, payload("plain.json")), 1, "Invalid Config File");
}

TEST_F(PnxDeliveryCommands, QueueShowsWhatFailedOrIsInFlightAndResendSendsIt) {
  setFaults(R"(["status=500,times=1"])");
  ASSERT_EQ(app_.run({"_report", "--prefix", "p", "--count", "1"}).exitCode, 0);
  EXPECT_EQ(app_.json({"queue"}), queue(Value::array({record("p-0")})));

  // A failing resend exits 1 with the error in its JSON and one line that names it.
  setFaults(R"(["status=503"])");
  PnxRun refused = app_.run({"resend"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(JSON::parse(refused.out).value()["error"]["code"], Value(105));
  EXPECT_EQ(std::count(refused.err.begin(), refused.err.end(), '\n'), 1) << refused.err;
  EXPECT_NE(refused.err.find("HTTP connection to PNX server failed"), std::string::npos);

  // A process killed during its request leaves its records in flight for the next one.
  setFaults(R"(["delay=30,times=1"])");
  PnxProcess reporter(app_.arguments({"_report", "--prefix", "k", "--count", "1"}));
  const Value inFlight = queue(Value(Array()), Value::array({record("k-0"), record("p-0")}));
  Value shown;
  for (int i = 0; i < 500 && shown != inFlight; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    shown = app_.json({"queue"});
  }
  ASSERT_EQ(shown, inFlight);
  reporter.stop(SIGKILL);
  EXPECT_EQ(app_.json({"resend"}),
            Value::dict({{"sent", 2}, {"error", Value()}, {"retryAfter", Value()}}));
  EXPECT_EQ(app_.json({"queue"}), queue(Value(Array())));
  EXPECT_EQ(JSON::parse(serve_.client().Get("/_pnx/reports")->body)->size(), 1u);
  EXPECT_EQ(app_.json({"resend"})["sent"], Value(0));

  // A back-off holds resends, and both commands show its date.
  setFaults(R"(["status=429,retry-after=120"])");
  ASSERT_EQ(app_.run({"_report", "--prefix", "b", "--count", "1"}).exitCode, 0);
  Value held = app_.json({"queue"});
  ASSERT_TRUE(held["retryAfter"].isString());
  EXPECT_EQ(app_.json({"resend"}),
            Value::dict({{"sent", 0}, {"error", Value()}, {"retryAfter", held["retryAfter"]}}));
  EXPECT_EQ(app_.json({"queue"})["pushQueue"], Value::array({record("b-0")}));

  // A keychain that cannot be read is no empty queue, and is named with its status.
  app_.device().write("keychain.db", std::string(4096, 'x'));
  for (const char* command : {"queue", "resend"}) {
    PnxRun broken = app_.run({command});
    EXPECT_EQ(broken.exitCode, 1) << command;
    EXPECT_NE(broken.err.find("pushQueue"), std::string::npos) << command << broken.err;
    EXPECT_NE(broken.err.find("(errSecInteractionNotAllowed (-25308)"), std::string::npos);
  }
}

}  // namespace
}  // namespace pnx

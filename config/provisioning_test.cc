#include "config/provisioning.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <tuple>

#include "diagnostics/log.h"
#include "diagnostics/log_capture_test.h"
#include "platform/files/fixtures_test.h"

namespace {

const std::string kDevices =
    "<key>ProvisionedDevices</key><array><string>00008110-000A1C2E3F4B5D6E</string></array>";

// An unsigned profile: a plist of these members between bytes the reader skips.
std::string profile(const std::string& members) {
  return "junk\x01\x02<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" +
         members + "</dict></plist>\x03trailer";
}

class ProvisioningTest : public ::testing::Test {
 protected:
  void SetUp() override { PNXLog::sharedInstance().setLogLevelName("verbose"); }
  void TearDown() override { PNXLog::sharedInstance().setLogLevelName("error"); }

  pnx::testing::TempDir scratch_;
  LogCapture log_;
};

// Profiles here are unsigned text, but for one: the reader needs only the plist between the
// markers. An unreadable one leaves everything none.
TEST_F(ProvisioningTest, DecidesTheEnvironmentFromTheMembersAndFindsTheBundlesProfile) {
  const std::string taskAllow = "<key>Entitlements</key><dict><key>get-task-allow</key>";
  const std::string allDevices = "<key>ProvisionsAllDevices</key>";
  const std::string head = "<?xml version=\"1.0\"?><plist>";
  // The profile's text, the environment read from it, and a part of what the log says.
  const std::tuple<std::string, std::optional<std::string>, std::string> cases[] = {
      {profile(kDevices), "ad-hoc", "get-task-allow is false (ad-hoc)"},
      {profile(kDevices + taskAllow + "<string>YES</string></dict>"), "debug",
       "get-task-allow is true (debug)"},
      {profile(kDevices + allDevices + "<true/>"), "ad-hoc", "get-task-allow is false (ad-hoc)"},
      {profile(allDevices + "<false/>"), "appstore", "ProvisionedDevices don't exist (appstore)"},
      {profile(allDevices + "<integer>1</integer>"), "enterprise",
       "ProvisionsAllDevices exists (enterprise)"},
      {"no markers at all", std::nullopt, "Couldn't find beginning of plist"},
      {head, std::nullopt, "Couldn't find ending of plist"},
      // The only closing marker lies before the only opening one.
      {"</plist> and later <?xml", std::nullopt, "Couldn't extract plist string"},
      {"<?xml \xff\xfe </plist>", std::nullopt, "Couldn't extract plist string"},
      {head + "<dict><key>a</key></plist>", std::nullopt, "Couldn't read plist: "},
      {head + "<array/></plist>", std::nullopt, "Couldn't read plist: "},
  };
  for (const auto& [text, environment, message] : cases) {
    log_.clear();
    PNXProvisioning reader(scratch_.write("p", text));
    EXPECT_EQ(reader.binaryEnvironment(), environment) << text;
    EXPECT_TRUE(log_.contains(message)) << text;
    EXPECT_TRUE(environment || reader.provisionedDevices().isNull()) << text;
  }

  pnx::testing::ScopedDevice device;
  EXPECT_EQ(PNXProvisioning().binaryEnvironment(), std::nullopt);
  EXPECT_TRUE(
      log_.contains("Couldn't find file embedded.mobileprovision or embedded.provisionprofile, you "
                    "may be using the Simulator which doesn't have this file."));
  device.writeBundleFile("Contents/embedded.provisionprofile", profile(""));
  EXPECT_EQ(PNXProvisioning().binaryEnvironment(), "appstore");
  // The phone's layout wins over the desktop one; pnx profile's test reads an expired one.
  const std::string command =
      "sh " PNX_SOURCE_DIR "/examples/make-profiles.sh --days 365 '" + scratch_.path() + "' debug";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  device.writeBundleFile("embedded.mobileprovision", scratch_.read("debug.mobileprovision"));
  PNXProvisioning reader;
  EXPECT_EQ(reader.binaryEnvironment(), "debug");
  ASSERT_TRUE(reader.certificateExpiration());
  EXPECT_NEAR(reader.certificateExpiration()->timeIntervalSinceNow(), 365 * 86400.0, 86400);
  EXPECT_FALSE(reader.certificateExpired());
}

}  // namespace

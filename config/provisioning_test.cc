#include "config/provisioning.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "diagnostics/log.h"
#include "diagnostics/log_capture_test.h"
#include "platform/files/fixtures_test.h"

namespace {

const std::string kDevices =
    "<key>ProvisionedDevices</key><array><string>00008110-000A1C2E3F4B5D6E</string></array>";

std::string plistWith(const std::string& members) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>" + members +
         "</dict></plist>";
}

class ProvisioningTest : public ::testing::Test {
 protected:
  void SetUp() override { PNXLog::sharedInstance().setLogLevelName("verbose"); }
  void TearDown() override { PNXLog::sharedInstance().setLogLevelName("error"); }

  // A profile holding just `text`, unsigned: the reader needs only the plain text.
  std::string writeProfile(const std::string& text) { return scratch_.write("p", text); }

  pnx::testing::TempDir scratch_;
  LogCapture log_;
};

// A signed profile as the build tools make it, by the examples' script; an expired one is
// read by pnx profile's test.
TEST_F(ProvisioningTest, ReadsASignedProfileAndItsExpiration) {
  const std::string command =
      "sh " PNX_SOURCE_DIR "/examples/make-profiles.sh --days 365 '" + scratch_.path() + "' debug";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
  PNXProvisioning reader(scratch_.file("debug.mobileprovision"));
  EXPECT_EQ(reader.binaryEnvironment(), "debug");
  ASSERT_TRUE(reader.certificateExpiration());
  EXPECT_NEAR(reader.certificateExpiration()->timeIntervalSinceNow(), 365 * 86400.0, 86400);
  EXPECT_FALSE(reader.certificateExpired());
}

TEST_F(ProvisioningTest, DecidesTheEnvironmentFromTheMembersAndSaysWhy) {
  const std::string taskAllow = "<key>Entitlements</key><dict><key>get-task-allow</key>";
  const std::string allDevices = "<key>ProvisionsAllDevices</key>";
  struct Case {
    std::string members;
    const char* environment;
    const char* reason;
  };
  const Case cases[] = {
      {kDevices, "ad-hoc", "Entitlements.get-task-allow is false (ad-hoc)"},
      {kDevices + taskAllow + "<string>YES</string></dict>", "debug",
       "Entitlements.get-task-allow is true (debug)"},
      {kDevices + allDevices + "<true/>", "ad-hoc",
       "Entitlements.get-task-allow is false (ad-hoc)"},
      {allDevices + "<false/>", "appstore",
       "ProvisionsAllDevices and ProvisionedDevices don't exist (appstore)"},
      {allDevices + "<integer>1</integer>", "enterprise",
       "ProvisionsAllDevices exists (enterprise)"},
  };
  for (const Case& c : cases) {
    log_.clear();
    PNXProvisioning reader(writeProfile("junk\x01\x02" + plistWith(c.members) + "\x03trailer"));
    EXPECT_EQ(reader.binaryEnvironment(), c.environment) << c.members;
    EXPECT_TRUE(log_.contains(std::string("Provisioning - ") + c.reason)) << c.members;
  }
}

TEST_F(ProvisioningTest, UnreadableProfilesLeaveEverythingNone) {
  const std::pair<std::string, const char*> cases[] = {
      {"no markers at all", "Couldn't find beginning of plist in embedded.mobileprovision"},
      {"<?xml version=\"1.0\"?><plist>",
       "Couldn't find ending of plist in embedded.mobileprovision"},
      // The only closing marker lies before the only opening one.
      {"</plist> and later <?xml", "Couldn't extract plist string from embedded.mobileprovision"},
      {"<?xml \xff\xfe </plist>", "Couldn't extract plist string from embedded.mobileprovision"},
      {"<?xml version=\"1.0\"?><plist><dict><key>a</key></plist>", "Couldn't read plist: "},
      {"<?xml version=\"1.0\"?><plist><array/></plist>", "Couldn't read plist: "},
  };
  for (const auto& [text, message] : cases) {
    log_.clear();
    PNXProvisioning reader(writeProfile(text));
    EXPECT_TRUE(log_.contains(message)) << text;
    EXPECT_EQ(reader.binaryEnvironment(), std::nullopt);
    EXPECT_TRUE(reader.provisionedDevices().isNull());
  }
}

TEST_F(ProvisioningTest, FindsTheProfileInTheMainBundle) {
  pnx::testing::ScopedDevice device;
  EXPECT_EQ(PNXProvisioning().binaryEnvironment(), std::nullopt);
  EXPECT_TRUE(log_.contains(
      "Couldn't find file embedded.mobileprovision or embedded.provisionprofile, you may be "
      "using the Simulator which doesn't have this file."));
  device.writeBundleFile("Contents/embedded.provisionprofile", plistWith(""));
  EXPECT_EQ(PNXProvisioning().binaryEnvironment(), "appstore");
  // The phone's layout wins over the desktop one.
  device.writeBundleFile("embedded.mobileprovision", plistWith(kDevices));
  EXPECT_EQ(PNXProvisioning().binaryEnvironment(), "ad-hoc");
}

}  // namespace

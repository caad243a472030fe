#include "platform/files/container.h"

#include <gtest/gtest.h>

#include "platform/files/fixtures_test.h"

namespace pnx {
namespace {

TEST(DeviceTest, DefaultDirectoryFollowsTheEnvironment) {
  testing::ScopedEnv home("HOME", "/home/someone");
  testing::ScopedEnv data("XDG_DATA_HOME", nullptr);
  testing::ScopedEnv device("PNX_DEVICE", "");
  EXPECT_EQ(Device::defaultDirectory(), "/home/someone/.local/share/pnx/device");
  {
    testing::ScopedEnv xdg("XDG_DATA_HOME", "/data");
    EXPECT_EQ(Device::defaultDirectory(), "/data/pnx/device");
    testing::ScopedEnv named("PNX_DEVICE", "/devices/phone");
    EXPECT_EQ(Device::defaultDirectory(), "/devices/phone");
    EXPECT_EQ(Device::directory(), "/devices/phone");
    Device::setDirectory("/chosen");
    EXPECT_EQ(Device::directory(), "/chosen");
    Device::setDirectory("");
    EXPECT_EQ(Device::directory(), "/devices/phone");
  }
}

TEST(ContainerTest, LaysOutPrivateDirectoriesPerBundleOnDemand) {
  testing::ScopedDevice device("com.example.app");
  std::string root = device.deviceDirectory() + "/containers/com.example.app";
  EXPECT_EQ(Container::root(), root);
  EXPECT_EQ(Container::documentsDirectory(), root + "/Documents");
  EXPECT_EQ(Container::libraryDirectory(), root + "/Library");
  EXPECT_EQ(Container::temporaryDirectory(), root + "/tmp");
  for (const char* sub : {"", "/Documents", "/Library", "/tmp"}) {
    EXPECT_EQ(testing::modeOf(root + sub), 0700u) << sub;
  }
  EXPECT_EQ(testing::modeOf(device.deviceDirectory()), 0700u);

  Bundle::setMain("");
  EXPECT_FALSE(Bundle::main());
  EXPECT_EQ(Container::root(), device.deviceDirectory() + "/containers/unknown.bundle");
  device.writeBundleFile("Info.plist", testing::ScopedDevice::infoPlist("../escape"));
  EXPECT_EQ(Container::root(), device.deviceDirectory() + "/containers/.._escape");
}

}  // namespace
}  // namespace pnx

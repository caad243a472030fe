#include "platform/files/bundle.h"

#include <gtest/gtest.h>

#include "platform/files/file_manager.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/plist.h"

namespace pnx {
namespace {

using testing::TempDir;

// Reads fail with the file manager's error; everything else forwards.
class UnreadableFiles : public FileManagerWrapper {
 public:
  using FileManagerWrapper::FileManagerWrapper;
  std::optional<Data> contentsOfFile(const std::string& path, ErrorPtr* error) override {
    ++reads;
    if (error) *error = Error::withDescription(NSCocoaErrorDomain, 257, "no permission", path);
    return std::nullopt;
  }
  int reads = 0;
};

// The XML form is read by every test that names a main bundle (ScopedDevice).
TEST(BundleTest, ReadsABinaryInfoPlistThroughTheFileManagerAndAnyOtherAsEmpty) {
  TempDir binary;
  Value info = Value::dict({{"CFBundleIdentifier", "com.example.binary"},
                            {"keychain-access-groups", Value::array({"TEAM.PNX"})}});
  auto bytes = PropertyList::serialize(info, PropertyList::Format::Binary);
  ASSERT_TRUE(bytes);
  binary.write("Info.plist", std::string(bytes->begin(), bytes->end()));
  Bundle bundle(binary.path() + "/");
  EXPECT_EQ(bundle.bundlePath(), binary.path());
  EXPECT_EQ(bundle.infoDictionary(), info);
  EXPECT_EQ(bundle.objectForInfoDictionaryKey("keychain-access-groups").size(), 1u);

  auto unreadable = std::make_shared<UnreadableFiles>(FileManager::posix());
  FileManager::setCurrent(unreadable);
  Bundle unread(binary.path());
  FileManager::setCurrent(nullptr);
  EXPECT_EQ(unreadable->reads, 1);
  EXPECT_EQ(Bundle(binary.path()).infoDictionary(), info);  // the default manager is back

  TempDir empty, broken, wrongType;
  broken.write("Info.plist", "<plist><dict><key>x");
  wrongType.write("Info.plist", "<plist version=\"1.0\"><array/></plist>");
  for (const Bundle& emptyInfo :
       {unread, Bundle(empty.path()), Bundle(broken.path()), Bundle(wrongType.path())}) {
    EXPECT_TRUE(emptyInfo.infoDictionary().isDictionary());
    EXPECT_EQ(emptyInfo.infoDictionary().size(), 0u);
    EXPECT_FALSE(emptyInfo.bundleIdentifier());
  }
}

TEST(BundleTest, FindsResourcesInsideTheBundleOnly) {
  TempDir root;
  root.write("outside.json", "{}");
  std::string config = root.write("App/PnxConfig.json", "{}");
  std::string profile = root.write("App/embedded.mobileprovision", "");
  root.write("App/Sounds/ping.caf", "");
  Bundle bundle(root.file("App"));
  EXPECT_EQ(bundle.pathForResource("PnxConfig", "json"), config);
  EXPECT_EQ(bundle.pathForResource("embedded.mobileprovision", ""), profile);
  EXPECT_EQ(bundle.pathForResource("Sounds", ""), root.file("App/Sounds"));
  EXPECT_TRUE(bundle.pathForResource("Sounds/ping", "caf"));
  EXPECT_FALSE(bundle.pathForResource("PnxConfig", "plist"));
  EXPECT_FALSE(bundle.pathForResource("../outside", "json"));
  EXPECT_FALSE(bundle.pathForResource(root.file("outside"), "json"));
  EXPECT_FALSE(bundle.pathForResource("", ""));
}

}  // namespace
}  // namespace pnx

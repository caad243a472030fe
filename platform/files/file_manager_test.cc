#include "platform/files/file_manager.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>

#include "platform/files/bundle.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/plist.h"

namespace pnx {
namespace {

using testing::modeOf;
using testing::TempDir;

Data bytes(std::string_view text) {
  return Data(text.begin(), text.end());
}

FileAttributes permissions(mode_t mode) {
  FileAttributes attributes;
  attributes.posixPermissions = mode;
  return attributes;
}

// Each test runs under umask 077 unless it sets another; the previous one comes back after.
class FileManagerTest : public ::testing::Test {
 protected:
  ~FileManagerTest() override { umask(previousMask_); }

  FileManager& files = *FileManager::posix();
  TempDir dir;
  const mode_t previousMask_ = umask(077);
};

TEST(PathTest, ComponentOperations) {
  EXPECT_EQ(pathByAppendingComponent("a/", "b"), "a/b");
  EXPECT_EQ(pathByAppendingComponent("/", "b"), "/b");
  EXPECT_EQ(pathByAppendingComponent("a", "/b"), "a/b");
  EXPECT_EQ(pathByAppendingComponent("", "b"), "b");
  EXPECT_EQ(lastPathComponent("/a/b/"), "b");
  EXPECT_EQ(lastPathComponent("/"), "/");
  EXPECT_EQ(lastPathComponent("name"), "name");
  EXPECT_EQ(pathByDeletingLastComponent("/a/b"), "/a");
  EXPECT_EQ(pathByDeletingLastComponent("/a//b/"), "/a");
  EXPECT_EQ(pathByDeletingLastComponent("/a"), "/");
  EXPECT_EQ(pathByDeletingLastComponent("a"), "");
}

TEST_F(FileManagerTest, MovesAndCopiesNeverOverwriteAndMissingItemsReportNoSuchFileWithTheirPath) {
  std::string a = dir.write("a.db", "old"), b = dir.write("Library/a.db", "new");
  for (bool move : {true, false}) {
    ErrorPtr error;
    EXPECT_FALSE(move ? files.moveItem(a, b, &error) : files.copyItem(a, b, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), 516);
    EXPECT_EQ(*error->userInfo()[NSFilePathErrorKey].asString(), a);
    EXPECT_EQ(error->underlyingError()->code(), EEXIST);
    EXPECT_EQ(dir.read("a.db"), "old");
    EXPECT_EQ(dir.read("Library/a.db"), "new");
    if (move) {
      EXPECT_EQ(error->localizedDescription(),
                "\u201ca.db\u201d couldn\u2019t be moved to \u201cLibrary\u201d because an item "
                "with the same name already exists.");
    }
  }
  ErrorPtr error;
  EXPECT_TRUE(files.moveItem(a, dir.file("moved.db"), &error));
  EXPECT_EQ(dir.read("moved.db"), "old");

  EXPECT_FALSE(files.contentsOfFile(a, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->localizedDescription(),
            "The file \u201ca.db\u201d couldn\u2019t be opened because there is no such file.");
  EXPECT_EQ(error->underlyingError()->domain(), NSPOSIXErrorDomain);
  // Property lists read through the file manager keep its errors, and their own.
  const std::function<bool(ErrorPtr*)> reads[] = {
      [&](ErrorPtr* e) { return !!files.contentsOfFile(a, e); },
      [&](ErrorPtr* e) { return !!files.fileHandleForUpdating(a, e); },
      [&](ErrorPtr* e) { return files.removeItem(a, e); },
      [&](ErrorPtr* e) { return !!propertyListWithContentsOfFile(a, e); }};
  for (const auto& read : reads) {
    error.reset();
    EXPECT_FALSE(read(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSFileNoSuchFileError);
    EXPECT_EQ(error->userInfo()[NSFilePathErrorKey], Value(a));
  }
  EXPECT_FALSE(propertyListWithContentsOfFile(dir.write("Broken.plist", "<plist><dict>"), &error));
  EXPECT_EQ(error->code(), 3840);
}

// Items are born with their final modes: no chmod (an inotify attribute event) follows,
// and the modes are exact whatever the umask, on every new level.
TEST_F(FileManagerTest, CreatesItemsWithTheirFinalPermissionsAndAttributes) {
  umask(022);
  int events = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(events, dir.path().c_str(), IN_ATTRIB), 0);
  ErrorPtr error;
  ASSERT_TRUE(files.createDirectory(dir.file("private/logs"), true, permissions(0700), &error));
  ASSERT_TRUE(files.createFile(dir.file("secret"), bytes("first"), permissions(0600), &error));
  alignas(inotify_event) char buffer[4096];
  EXPECT_LT(read(events, buffer, sizeof buffer), 0) << "a mode was changed after creation";
  close(events);
  EXPECT_EQ(modeOf(dir.file("private")), 0700u);
  EXPECT_EQ(modeOf(dir.file("private/logs")), 0700u);
  EXPECT_EQ(modeOf(dir.file("secret")), 0600u);

  // A new file replaces the old whole and leaves no temporary beside it.
  ASSERT_TRUE(files.createFile(dir.file("secret"), bytes("second"), permissions(0600), &error));
  EXPECT_EQ(*files.contentsOfFile(dir.file("secret"), &error), bytes("second"));
  auto names = *files.contentsOfDirectory(dir.path(), &error);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"private", "secret"}));

  umask(077);
  FileAttributes attributes = permissions(0750);
  attributes.protection = NSFileProtectionNone;
  ASSERT_TRUE(files.createDirectory(dir.file("a/b"), true, attributes, &error));
  EXPECT_EQ(modeOf(dir.file("a")), 0750u);
  EXPECT_EQ(modeOf(dir.file("a/b")), 0750u);
  auto info = files.attributesOfItem(dir.file("a/b"), &error);
  ASSERT_TRUE(info);
  EXPECT_TRUE(info->isDirectory);
  if (setxattr(dir.path().c_str(), "user.probe", "1", 1, 0) == 0) {  // file system keeps it
    EXPECT_EQ(info->protection, std::string(NSFileProtectionNone));
  }
  ASSERT_TRUE(files.createFile(dir.file("shared"), bytes("x"), permissions(0644), &error));
  EXPECT_EQ(modeOf(dir.file("shared")), 0644u);

  // An existing directory is an error only without intermediates; so is a missing parent.
  EXPECT_TRUE(files.createDirectory(dir.file("a/b"), true, {}, &error));
  EXPECT_FALSE(files.createDirectory(dir.file("a/b"), false, {}, &error));
  EXPECT_EQ(error->code(), 516);
  EXPECT_FALSE(files.createDirectory(dir.file("x/y"), false, {}, &error));
  EXPECT_EQ(error->code(), 4);
  EXPECT_FALSE(files.fileExists(dir.file("x")));
  EXPECT_FALSE(files.createDirectory(dir.file("shared"), true, {}, &error));
  EXPECT_EQ(error->code(), 516);
  EXPECT_FALSE(files.createFile(dir.file("none/x"), bytes("x"), {}, &error));
  EXPECT_EQ(error->code(), 4);
}

// Open-or-create leaves an existing file's mode as it is. Links (dangling too) are refused
// and left as they are; appending refuses directories and FIFOs too.
TEST_F(FileManagerTest, OpeningCanCreateAndRefusesLinks) {
  ErrorPtr error;
  ASSERT_TRUE(files.fileHandleForAppending(dir.file("live.log"), permissions(0640), &error))
      << error->description();
  EXPECT_EQ(modeOf(dir.file("live.log")), 0640u);
  EXPECT_FALSE(files.fileHandleForAppending(dir.file("missing"), std::nullopt, nullptr));
  std::filesystem::create_symlink(dir.file("live.log"), dir.file("link"));
  std::filesystem::create_symlink(dir.file("nowhere"), dir.file("dangling"));
  std::filesystem::create_directory(dir.file("folder"));
  ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
  for (const char* name : {"link", "dangling", "folder", "fifo"}) {
    error.reset();
    EXPECT_FALSE(files.fileHandleForAppending(dir.file(name), permissions(0600), &error)) << name;
    EXPECT_TRUE(error) << name;
  }
  EXPECT_TRUE(std::filesystem::is_symlink(dir.file("dangling")));
  EXPECT_FALSE(std::filesystem::exists(dir.file("nowhere")));

  FileOpenOptions options{.create = true, .followSymbolicLinks = false, .permissions = 0640};
  ASSERT_TRUE(files.fileHandleForUpdating(dir.file("new.db"), options, &error));
  EXPECT_EQ(modeOf(dir.file("new.db")), 0640u);
  chmod(dir.file("new.db").c_str(), 0600);
  ASSERT_TRUE(files.fileHandleForUpdating(dir.file("new.db"), options, &error));
  EXPECT_EQ(modeOf(dir.file("new.db")), 0600u);
  for (const char* link : {"link", "dangling"}) {
    EXPECT_FALSE(files.fileHandleForUpdating(dir.file(link), options, &error)) << link;
    EXPECT_NE(error->localizedDescription().find("because it is a symbolic link"),
              std::string::npos)
        << error->localizedDescription();
  }
  EXPECT_FALSE(std::filesystem::exists(dir.file("nowhere")));
}

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
TEST(BundleTest, ReadsABinaryInfoPlistThroughTheFileManagerAnyOtherAsEmptyAndResourcesInside) {
  TempDir root;
  Value info = Value::dict({{"CFBundleIdentifier", "com.example.binary"},
                            {"keychain-access-groups", Value::array({"TEAM.PNX"})}});
  auto bytes = PropertyList::serialize(info, PropertyList::Format::Binary);
  ASSERT_TRUE(bytes);
  root.write("App/Info.plist", std::string(bytes->begin(), bytes->end()));
  root.write("outside.json", "{}");
  std::string config = root.write("App/PnxConfig.json", "{}");
  std::string profile = root.write("App/embedded.mobileprovision", "");
  root.write("App/Sounds/ping.caf", "");
  const std::string app = root.file("App");
  Bundle bundle(app + "/");
  EXPECT_EQ(bundle.bundlePath(), app);
  EXPECT_EQ(bundle.infoDictionary(), info);
  EXPECT_EQ(bundle.objectForInfoDictionaryKey("keychain-access-groups").size(), 1u);

  auto unreadable = std::make_shared<UnreadableFiles>(FileManager::posix());
  FileManager::setCurrent(unreadable);
  Bundle unread(app);
  FileManager::setCurrent(nullptr);
  EXPECT_EQ(unreadable->reads, 1);
  EXPECT_EQ(Bundle(app).infoDictionary(), info);  // the default manager is back

  root.write("Broken/Info.plist", "<plist><dict><key>x");
  root.write("WrongType/Info.plist", "<plist version=\"1.0\"><array/></plist>");
  for (const Bundle& emptyInfo :
       {unread, Bundle(root.path()), Bundle(root.file("Broken")), Bundle(root.file("WrongType"))}) {
    EXPECT_EQ(emptyInfo.infoDictionary(), Value(Dictionary()));
    EXPECT_FALSE(emptyInfo.bundleIdentifier());
  }

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

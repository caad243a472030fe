#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "config/config.h"
#include "diagnostics/log.h"
#include "diagnostics/log_capture_test.h"
#include "platform/files/container.h"
#include "platform/files/file_manager.h"
#include "platform/files/fixtures_test.h"

namespace {

class DatabasePathTest : public ::testing::Test {
 protected:
  void TearDown() override { PNXLog::sharedInstance().setLogLevelName("error"); }

  static void put(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
  }
  static std::string contents(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

  pnx::testing::ScopedDevice device_;
  LogCapture log_;
  // Inside the scratch device, so set after it.
  const std::string documents_ = pnx::Container::documentsDirectory();
  const std::string library_ = pnx::Container::libraryDirectory();
  const std::string privateDirectory_ = library_ + "/pnx.mobile-push";
};

// A file system that refuses to create directories.
class NoNewDirectories : public pnx::FileManagerWrapper {
 public:
  NoNewDirectories() : FileManagerWrapper(pnx::FileManager::posix()) {}
  bool createDirectory(const std::string& path, bool, const pnx::FileAttributes&,
                       pnx::ErrorPtr* error) override {
    if (error)
      *error = pnx::Error::withDescription(pnx::NSCocoaErrorDomain, 513, "no permission", path);
    return false;
  }
};

// A directory that cannot be made is logged and the path still returned; concurrent first
// callers make it and move a file once.
TEST_F(DatabasePathTest, EachStorageTakesTheOtherOnesFilesAndKeepsItsOwnOnConflict) {
  auto config = std::make_unique<PNXConfig>(pnx::Value::dict({{"privateDatabaseStorage", true}}));
  PNXLog::sharedInstance().setLogLevelName("verbose");  // the configuration sets its own
  pnx::FileManager::setCurrent(std::make_shared<NoNewDirectories>());
  EXPECT_EQ(config->pathForDatabase("d.db"), privateDirectory_ + "/d.db");
  pnx::FileManager::setCurrent(nullptr);
  EXPECT_TRUE(
      log_.contains("Couldn't create private directory " + privateDirectory_ + ": no permission"));
  put(documents_ + "/e.db", "public");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&] { config->pathForDatabase("e.db"); });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(contents(privateDirectory_ + "/e.db"), "public");
  EXPECT_FALSE(std::filesystem::exists(documents_ + "/e.db"));
  EXPECT_FALSE(log_.contains("Couldn't move"));

  log_.clear();
  EXPECT_EQ(config->pathForDatabase("empty.db"), privateDirectory_ + "/empty.db");
  EXPECT_TRUE(log_.contains("Using Private Path for database empty.db -> " + privateDirectory_ +
                            "/empty.db"));
  EXPECT_FALSE(log_.contains("moving to"));

  put(library_ + "/a.db", "old private");
  put(documents_ + "/a.db", "public");
  EXPECT_EQ(config->pathForDatabase("a.db"), privateDirectory_ + "/a.db");
  EXPECT_EQ(contents(privateDirectory_ + "/a.db"), "old private");
  EXPECT_EQ(contents(documents_ + "/a.db"), "public");
  EXPECT_FALSE(std::filesystem::exists(library_ + "/a.db"));
  EXPECT_TRUE(log_.contains("Old private database found for a.db, moving to private path."));
  EXPECT_TRUE(log_.contains("Public database found for a.db, moving to private path."));
  EXPECT_TRUE(log_.contains("Couldn't move public database at " + documents_ + "/a.db to " +
                            privateDirectory_ + "/a.db: "));
  // Nothing left to move the second time but the conflicting public file.
  log_.clear();
  config->pathForDatabase("a.db");
  EXPECT_FALSE(log_.contains("Old private database found"));

  // Public storage moves the private file back, preferring the old one.
  put(privateDirectory_ + "/b.db", "private");
  put(library_ + "/c.db", "old private");
  put(privateDirectory_ + "/c.db", "private");
  config = std::make_unique<PNXConfig>(pnx::Value::dict({{"privateDatabaseStorage", false}}));
  PNXLog::sharedInstance().setLogLevelName("verbose");
  EXPECT_EQ(config->pathForDatabase("b.db"), documents_ + "/b.db");
  EXPECT_EQ(contents(documents_ + "/b.db"), "private");
  EXPECT_TRUE(log_.contains("Using Public Path for database b.db -> " + documents_ + "/b.db"));
  EXPECT_TRUE(log_.contains("Private database found for b.db, moving to public path."));
  log_.clear();
  config->pathForDatabase("b.db");
  EXPECT_FALSE(log_.contains("moving to"));

  EXPECT_EQ(config->pathForDatabase("c.db"), documents_ + "/c.db");
  EXPECT_EQ(contents(documents_ + "/c.db"), "old private");
  EXPECT_EQ(contents(privateDirectory_ + "/c.db"), "private");
  EXPECT_TRUE(log_.contains("Old Private database found for c.db, moving to public path."));
  EXPECT_TRUE(log_.contains("Couldn't move private database at " + privateDirectory_ + "/c.db to " +
                            documents_ + "/c.db: "));
}

}  // namespace

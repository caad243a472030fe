// An unreadable configuration reaches every caller and leaves no shared instance half-built.
// A child process (a death test exiting 0) keeps earlier tests' instances out.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "config/provisioning.h"
#include "diagnostics/log.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/error.h"
#include "storage/keychain.h"

namespace {

// Whether groupKeychain reports the unreadable file.
bool reportsInvalidFile() {
  try {
    PNXKeychain::groupKeychain("PNX");
  } catch (const pnx::Exception& exception) {
    return exception.name() == "Invalid Config File";
  }
  return false;
}

// Eight first callers at once, then one more: each sees the failure.
TEST(SharedInstances, AnUnreadableConfigurationIsReportedToEveryCallerAndThenBuilt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        pnx::testing::ScopedDevice device;
        device.writeBundleFile("PnxConfig.json", R"({"teamId": "T1", "sessionTimeout": 1e400})");
        std::atomic<int> reported = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) threads.emplace_back([&] { reported += reportsInvalidFile(); });
        for (std::thread& thread : threads) thread.join();
        if (reported != 8 || !reportsInvalidFile()) std::_Exit(1);  // not every caller saw it
        PNXLog::sharedInstance().setLogLevelName("info");
        // 2: the log or the provisioning reader is unusable; 3: the fix is not read.
        if (PNXLog::sharedInstance().logLevelName() != "INFO" || !PNXProvisioning::sharedInstance())
          std::_Exit(2);
        device.writeBundleFile("PnxConfig.json", R"({"teamId": "T1"})");
        std::_Exit(PNXKeychain::groupKeychain("PNX")->group() == "T1.PNX" ? 0 : 3);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace

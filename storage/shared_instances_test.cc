// An unreadable configuration reaches every caller and leaves no shared instance half-built.
// A child process (a death test exiting 0) keeps earlier tests' instances out.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
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

// Ends the child: exit 0 when the check held, else a message and exit 1.
[[noreturn]] void exitWith(bool held, const char* failure) {
  if (!held) std::fputs(failure, stderr);
  std::_Exit(held ? 0 : 1);
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
        if (reported != 8 || !reportsInvalidFile()) exitWith(false, "not every caller saw it");
        PNXLog::sharedInstance().setLogLevelName("info");
        if (PNXLog::sharedInstance().logLevelName() != "INFO" ||
            !PNXProvisioning::sharedInstance()) {
          exitWith(false, "the log or the provisioning reader is unusable");
        }
        device.writeBundleFile("PnxConfig.json", R"({"teamId": "T1"})");
        exitWith(PNXKeychain::groupKeychain("PNX")->group() == "T1.PNX",
                 "the configuration is not built after the fix");
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace

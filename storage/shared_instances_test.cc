// The shared instances when the configuration file cannot be read: the exception reaches
// the caller, no instance is left half-built, and a later call (from any thread) behaves
// as a first one. Each test runs in a child process of its own, so that no earlier test's
// instances stand in for the ones built here.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "config/config.h"
#include "config/provisioning.h"
#include "diagnostics/log.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/error.h"
#include "storage/keychain.h"

namespace {

constexpr const char* kOutOfRange = R"({"teamId": "T1", "sessionTimeout": 1e400})";

// Ends the child process: 0 when every check held, else 1 after saying which failed.
[[noreturn]] void finish(const std::vector<std::string>& failures) {
  for (const std::string& failure : failures) std::fprintf(stderr, "%s\n", failure.c_str());
  std::fflush(stderr);
  std::_Exit(failures.empty() ? 0 : 1);
}

// What `use` throws: the exception's name, or "" when it returned.
template <class Use>
std::string thrownBy(Use&& use) {
  try {
    use();
  } catch (const pnx::Exception& exception) {
    return exception.name();
  }
  return "";
}

class SharedInstances : public ::testing::Test {
 protected:
  SharedInstances() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(SharedInstances, AnUnreadableConfigurationIsReportedAgainAndThenBuilt) {
  EXPECT_EXIT(
      {
        std::vector<std::string> failures;
        pnx::testing::ScopedDevice device;
        device.writeBundleFile("PnxConfig.json", kOutOfRange);
        for (int attempt = 0; attempt < 2; ++attempt) {
          if (thrownBy([] { PNXKeychain::groupKeychain("PNX"); }) != "Invalid Config File") {
            failures.push_back("groupKeychain did not report the file");
          }
          if (thrownBy([] { PNXConfig::sharedInstance(); }) != "Invalid Config File") {
            failures.push_back("sharedInstance did not report the file");
          }
        }
        // The log and the provisioning reader are whole and usable.
        PNXLog::sharedInstance().setLogLevelName("info");
        if (PNXLog::sharedInstance().logLevelName() != "INFO") failures.push_back("log");
        if (!PNXProvisioning::sharedInstance()) failures.push_back("provisioning");

        device.writeBundleFile("Entitlements.plist",
                               "<plist version=\"1.0\"><dict><key>keychain-access-groups</key>"
                               "<array><string>T1.PNX</string></array></dict></plist>");
        device.writeBundleFile("PnxConfig.json", R"({"teamId": "T1"})");
        auto keychain = PNXKeychain::groupKeychain("PNX");
        if (keychain->group() != "T1.PNX") failures.push_back("no group after the fix");
        if (!keychain->setObject("user-1", "userId") ||
            !(keychain->userId() == pnx::Value("user-1"))) {
          failures.push_back("the keychain is unusable");
        }
        finish(failures);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(SharedInstances, ConcurrentFirstCallersEachSeeTheFailure) {
  EXPECT_EXIT(
      {
        pnx::testing::ScopedDevice device;
        device.writeBundleFile("PnxConfig.json", kOutOfRange);
        std::atomic<int> reported = 0;
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
          threads.emplace_back([&] {
            if (thrownBy([] { PNXKeychain::groupKeychain("PNX"); }) == "Invalid Config File") {
              ++reported;
            }
          });
        }
        for (std::thread& thread : threads) thread.join();
        finish(reported == 8 ? std::vector<std::string>{}
                             : std::vector<std::string>{"not every caller saw the failure"});
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace

// Shared set-up of the delivery tests: a scratch device and bundle, the shared
// configuration pointed at a test server with reporting on, and the log at verbose level
// captured. Everything is put back when the fixture ends.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

#include "config/config.h"
#include "diagnostics/log.h"
#include "diagnostics/log_capture_test.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/date.h"

namespace pnx::testing {

class DeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto config = PNXConfig::sharedInstance();
    savedAppKey_ = config->appKey();
    savedBaseUrl_ = config->baseUrl();
    savedReporting_ = config->deliveryReporting();
    config->setAppKey("apTestKey1");
    config->setDeliveryReporting(true);
    PNXLog::sharedInstance().setLogLevelName("verbose");
  }
  void TearDown() override {
    auto config = PNXConfig::sharedInstance();
    config->setAppKey(savedAppKey_);
    config->setBaseUrl(savedBaseUrl_);
    config->setDeliveryReporting(savedReporting_);
    PNXLog::sharedInstance().setLogLevelName("error");
    Clock::useSystemClock();
  }
  void useServer(const std::string& baseUrl) {
    PNXConfig::sharedInstance()->setBaseUrl(*URL::parse(baseUrl));
  }

  ScopedDevice device_;
  LogCapture log_;

 private:
  std::optional<std::string> savedAppKey_;
  URL savedBaseUrl_ = *URL::parse("https://push.quorvex.example/");
  bool savedReporting_ = false;
};

}  // namespace pnx::testing

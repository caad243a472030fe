#include "platform/system/system_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/foundation/date.h"

namespace pnx {
namespace {

// syslog(3) and DateFormatter both set up the C library's zone on first use: on two threads
// ordered only by a relaxed flag, doing it twice is a race ThreadSanitizer reports.
// Meaningful only in a process of its own (ctest runs each test so).
TEST(SystemLogTest, TheFirstLineAndTheFirstLocalTimeOnTwoThreadsDoNotRace) {
  SystemLog::setSink(nullptr);  // syslog(3) itself
  std::atomic<bool> logged{false};
  std::thread systemLogUser([&] {
    SystemLog("Quorvex", "PNX").write(LogType::Debug, "pnx test: a line for the system log");
    logged.store(true, std::memory_order_relaxed);
  });
  std::string stamp;
  std::thread formatter([&] {
    while (!logged.load(std::memory_order_relaxed)) std::this_thread::yield();
    stamp = DateFormatter("yyyy-MM-dd HH:mm:ss ZZZ").stringFromDate(Date(1625065452));
  });
  systemLogUser.join();
  formatter.join();
  EXPECT_EQ(stamp.size(), 25u) << stamp;
}

// The same with a UTC stamp first: gmtime_r loads the zone rules too, on first use.
TEST(SystemLogTest, AFirstUtcStampAndTheFirstLineOnTwoThreadsDoNotRace) {
  SystemLog::setSink(nullptr);
  std::atomic<bool> stamped{false};
  std::string stamp;
  std::thread formatter([&] {
    stamp = DateFormatter("yyyy-MM-dd HH:mm:ss", DateFormatter::Zone::UTC)
                .stringFromDate(Date(1625065452));
    stamped.store(true, std::memory_order_relaxed);
  });
  std::thread systemLogUser([&] {
    while (!stamped.load(std::memory_order_relaxed)) std::this_thread::yield();
    SystemLog("Quorvex", "PNX").write(LogType::Debug, "pnx test: a line after a UTC stamp");
  });
  formatter.join();
  systemLogUser.join();
  EXPECT_EQ(stamp, "2021-06-30 15:04:12");
}

}  // namespace
}  // namespace pnx

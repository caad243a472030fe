#include "platform/foundation/date.h"

#include <gtest/gtest.h>

#include <time.h>

#include <atomic>
#include <limits>
#include <thread>
#include <vector>

#include "platform/files/fixtures_test.h"

namespace pnx {
namespace {

constexpr double kJune30 = 1625065452;  // 2021-06-30 15:04:12 UTC
constexpr double kJan15 = 1610723052;   // 2021-01-15 15:04:12 UTC

TEST(DateTest, WritesISO8601AndDescriptionsInUTCAndReadsFractionsAndOffsets) {
  testing::ScopedEnv zone("TZ", "Asia/Tokyo");  // must not leak into either text
  EXPECT_EQ(Date(kJune30).description(), "2021-06-30 15:04:12 +0000");
  EXPECT_EQ(Date(kJune30).iso8601(), "2021-06-30T15:04:12Z");
  EXPECT_EQ(Date(kJune30 + 0.25).iso8601(), "2021-06-30T15:04:12.250Z");
  EXPECT_EQ(Date(kJune30 + 0.3).iso8601(), "2021-06-30T15:04:12.300Z");
  EXPECT_EQ(Date(-0.5).iso8601(), "1969-12-31T23:59:59.500Z");
  EXPECT_EQ(Date::fromReferenceDate(0).iso8601(), "2001-01-01T00:00:00Z");
  // Dates beyond the calendar still format (clamped) instead of crashing.
  EXPECT_FALSE(Date(std::numeric_limits<double>::quiet_NaN()).description().empty());
  // ...on their own side of the epoch (a far-future back-off date once printed as year -290308).
  EXPECT_EQ(Date(1e23).iso8601().find('-'), 6u) << Date(1e23).iso8601();
  EXPECT_EQ(Date(-1e23).iso8601()[0], '-') << Date(-1e23).iso8601();

  for (double seconds : {kJune30, kJune30 + 0.25, 1625065452.123, -0.5, 0.0}) {
    EXPECT_EQ(Date::fromISO8601(Date(seconds).iso8601()), Date(seconds)) << Date(seconds).iso8601();
  }
  EXPECT_EQ(Date::fromISO8601("2021-06-30T17:04:12+02:00"), Date(kJune30));
  EXPECT_EQ(Date::fromISO8601("2021-06-30T13:34:12-0130"), Date(kJune30));
  EXPECT_EQ(Date::fromISO8601("2021-06-30T15:04:12.1234567Z"), Date(1625065452.123456));
  EXPECT_EQ(Date::fromISO8601("2024-02-29T00:00:00Z"), Date(1709164800));
  for (const char* bad :
       {"", "2021-06-30", "2021-06-30T15:04:12", "2021-06-30 15:04:12Z", "2021-02-29T00:00:00Z",
        "2021-13-01T00:00:00Z", "2021-06-30T24:00:00Z", "2021-06-30T15:04:12.Z",
        "2021-06-30T15:04:12Zjunk", "2021-06-30T15:04:12+2:00", "21-06-30T15:04:12Z"}) {
    EXPECT_FALSE(Date::fromISO8601(bad).has_value()) << bad;
  }
}

TEST(DateTest, FormatterFieldsLiteralsAndTheLocalZoneWithDaylightSaving) {
  testing::ScopedEnv zone("TZ", "Europe/Berlin");
  const DateFormatter stamp("[yyyy-MM-dd'T'HH:mm:ssZZZ] ");
  EXPECT_EQ(stamp.stringFromDate(Date(kJune30)), "[2021-06-30T17:04:12+0200] ");
  EXPECT_EQ(stamp.stringFromDate(Date(kJan15)), "[2021-01-15T16:04:12+0100] ");
  EXPECT_EQ(DateFormatter("ZZZZZ").stringFromDate(Date(kJune30)), "+02:00");

  // A change of TZ is picked up by the next formatting.
  setenv("TZ", "America/St_Johns", 1);
  EXPECT_EQ(DateFormatter("HH:mm Z ZZZZZ").stringFromDate(Date(kJune30)), "12:34 -0230 -02:30");

  const DateFormatter utc("yy M d h:m:s.SSS a ZZZZZ 'o''clock' '' EEE MMM Q",
                          DateFormatter::Zone::UTC);
  EXPECT_EQ(utc.stringFromDate(Date(kJan15 + 0.0789)),
            "21 1 15 3:4:12.078 PM Z o'clock ' Fri Jan Q");
  EXPECT_EQ(DateFormatter("hh a", DateFormatter::Zone::UTC).stringFromDate(Date(0)), "12 AM");
}

TEST(ClockTest, PinAdvanceAndReleaseAndConcurrentAdvancesAllCount) {
  Clock::set(Date(kJune30));
  EXPECT_EQ(Date::now(), Date(kJune30));
  Clock::advance(90.5);
  EXPECT_EQ(Clock::now(), Date(kJune30 + 90.5));
  EXPECT_DOUBLE_EQ(Date(kJune30 + 100).timeIntervalSinceNow(), 9.5);

  Clock::useSystemClock();
  EXPECT_GT(Clock::now(), Date(kJune30 + 90.5));
  // advance() on the system clock pins it at now + delta.
  Clock::advance(3600 * 24 * 365 * 100.0);
  Date pinned = Clock::now();
  EXPECT_EQ(Clock::now(), pinned);
  EXPECT_GT(pinned.timeIntervalSince1970(), time(nullptr) + 3600 * 24 * 365 * 99.0);

  constexpr int kThreads = 4;
  constexpr int kSteps = 20000;
  Clock::set(Date(0));
  std::atomic<int> ready{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      ready.fetch_add(1);
      while (ready.load() < kThreads) {
      }
      for (int i = 0; i < kSteps; ++i) Clock::advance(1);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(Clock::now(), Date(kThreads * kSteps));
  Clock::useSystemClock();
}

}  // namespace
}  // namespace pnx

// Date: a point in time with sub-second precision, as seconds since 1970-01-01 UTC.
// Clock: the one source of "now" for the whole library; tests may pin or move it.
// DateFormatter: Unicode date patterns ("yyyy-MM-dd'T'HH:mm:ssZZZ") in the device's
// local zone (TZ), or in UTC when asked.
// Dates are plain values; Clock is safe to read from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace pnx {

class Date {
 public:
  // Seconds between 1970-01-01 and the platform's reference date 2001-01-01 (UTC).
  static constexpr double kReferenceDateOffset = 978307200.0;

  constexpr Date() = default;
  constexpr explicit Date(double secondsSince1970) : seconds_(secondsSince1970) {}
  static Date now();  // reads Clock
  static constexpr Date fromReferenceDate(double secondsSince2001) {
    return Date(secondsSince2001 + kReferenceDateOffset);
  }

  constexpr double timeIntervalSince1970() const { return seconds_; }
  constexpr double timeIntervalSinceReferenceDate() const {
    return seconds_ - kReferenceDateOffset;
  }
  // Negative when the date lies in the past.
  double timeIntervalSinceNow() const;
  constexpr Date addingTimeInterval(double seconds) const { return Date(seconds_ + seconds); }

  // "2021-06-30 15:04:12 +0000", the platform's description of a date (always UTC).
  std::string description() const;
  // "2021-06-30T15:04:12Z" (fraction kept when not whole: "2021-06-30T15:04:12.250Z").
  std::string iso8601() const;
  // Parses ISO 8601 text in the forms iso8601() writes, and with a numeric zone offset.
  static std::optional<Date> fromISO8601(std::string_view text);

  friend constexpr bool operator==(Date a, Date b) { return a.seconds_ == b.seconds_; }
  friend constexpr auto operator<=>(Date a, Date b) { return a.seconds_ <=> b.seconds_; }

 private:
  double seconds_ = 0;
};

// Process-wide clock. By default the system's real-time clock; tests pin it with set()
// and move it with advance(). Reset with useSystemClock().
//
// Code that waits for a point in time (delayed work, network time-outs) listens for
// changes: after every set/advance/useSystemClock the listeners run on the thread that
// changed the clock, so a test that advances a pinned clock past a deadline sees what
// that deadline triggers without sleeping.
class Clock {
 public:
  static Date now();
  static void set(Date fixed);
  static void advance(double seconds);
  static void useSystemClock();
  // True while the clock is pinned: time moves only when set or advanced.
  static bool isPinned();
  // Registers a listener for the rest of the process (there is no removal: listeners
  // belong to process-wide services). It must not change the clock itself.
  static void addChangeListener(std::function<void()> listener);
};

// Formats dates with a Unicode pattern. Supported fields: y, yyyy, MM, dd, HH, hh, mm, ss,
// SSS, a, Z/ZZ/ZZZ (+0100), ZZZZZ (+01:00 or Z), quoted literals ('T', '' for a quote).
class DateFormatter {
 public:
  enum class Zone { Local, UTC };
  explicit DateFormatter(std::string pattern, Zone zone = Zone::Local);
  std::string stringFromDate(Date date) const;
  const std::string& pattern() const { return pattern_; }

 private:
  std::string pattern_;
  Zone zone_;
};

}  // namespace pnx

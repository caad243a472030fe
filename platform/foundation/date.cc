#include "platform/foundation/date.h"

#include <time.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <vector>

namespace pnx {

namespace {

// ---------------------------------------------------------------------------------------
// Clock state: one atomic double holding the pinned time, NaN while the system clock is
// in use. A single atomic keeps set/advance/useSystemClock consistent without a lock.

std::atomic<double> pinnedSeconds{std::numeric_limits<double>::quiet_NaN()};

// Listeners of clock changes; never destroyed, since they may be called while the
// process exits.
struct ClockListeners {
  std::mutex mutex;
  std::vector<std::function<void()>> listeners;
};

ClockListeners& clockListeners() {
  static ClockListeners* listeners = new ClockListeners;
  return *listeners;
}

// Runs the listeners outside the lock, so that one may read the clock or register work.
void notifyClockChanged() {
  ClockListeners& all = clockListeners();
  std::vector<std::function<void()>> listeners;
  {
    std::lock_guard<std::mutex> lock(all.mutex);
    listeners = all.listeners;
  }
  for (const auto& listener : listeners) listener();
}

double systemSeconds() {
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(since).count();
}

// ---------------------------------------------------------------------------------------
// Splitting a date into calendar fields.

// Dates far outside the calendar's range (or NaN) are clamped so that the C library
// never sees a time_t it cannot convert, and the count of microseconds fits in 64 bits:
// about +-285,000 years.
constexpr double kMaxFormattableSeconds = 9e12;

struct Instant {
  time_t seconds = 0;       // whole seconds, rounded toward -infinity
  std::int64_t micros = 0;  // 0..999999
};

Instant splitDate(Date date) {
  double s = date.timeIntervalSince1970();
  if (!std::isfinite(s)) s = std::isnan(s) ? 0 : std::copysign(kMaxFormattableSeconds, s);
  if (s > kMaxFormattableSeconds) s = kMaxFormattableSeconds;
  if (s < -kMaxFormattableSeconds) s = -kMaxFormattableSeconds;
  // Rounding to whole microseconds first keeps 15.3 from showing as 15.299.
  auto total = static_cast<std::int64_t>(std::llround(s * 1e6));
  std::int64_t whole = total / 1000000;
  std::int64_t micros = total % 1000000;
  if (micros < 0) {
    micros += 1000000;
    whole -= 1;
  }
  return Instant{static_cast<time_t>(whole), micros};
}

// Broken-down time plus its offset from UTC in seconds.
struct Fields {
  struct tm tm {};
  long offset = 0;
  std::int64_t micros = 0;
};

// The C library keeps the local zone's rules in process-wide state: tzset builds it from
// TZ, and localtime_r (ours, and the one syslog(3) calls to stamp each line of the system
// log) builds it lazily on first use. A later tzset frees and rebuilds it. glibc guards
// that state with a lock of its own, which ThreadSanitizer cannot see; so the first set-up
// happens once, under a once-only guard that every user of the zone passes first
// (prepareLocalZone), and every later tzset under zoneMutex. TZ is read again on each
// formatting, so a changed TZ is picked up; changing it (setenv) while another thread
// formats a date is the changer's race, as with any setenv.
std::mutex& zoneMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

bool zoneWasSet = false;  // guarded by zoneMutex(), like zoneText
std::string& zoneText() {
  static auto* text = new std::string;
  return *text;
}

// Called with zoneMutex() held.
void loadZone(const char* tz) {
  tzset();
  zoneWasSet = tz != nullptr;
  zoneText() = tz ? tz : "";
}

void refreshLocalZone() {
  prepareLocalZone();
  const char* tz = std::getenv("TZ");
  std::lock_guard<std::mutex> lock(zoneMutex());
  const bool unchanged = zoneWasSet == (tz != nullptr) && (!tz || zoneText() == tz);
  if (!unchanged) loadZone(tz);
}

Fields fieldsOf(Date date, DateFormatter::Zone zone) {
  Instant instant = splitDate(date);
  Fields fields;
  fields.micros = instant.micros;
  if (zone == DateFormatter::Zone::UTC) {
    // gmtime_r also loads the zone rules on its first call, so it must not overlap the
    // first tzset() of another thread.
    prepareLocalZone();
    gmtime_r(&instant.seconds, &fields.tm);
    return fields;
  }
  refreshLocalZone();
  localtime_r(&instant.seconds, &fields.tm);
  fields.offset = fields.tm.tm_gmtoff;
  return fields;
}

// Decimal text of value, zero-padded to width digits. Hand-rolled: the log stamps every
// line, and snprintf per field was most of a stamp's cost.
std::string padded(long value, int width) {
  char digits[24];
  int n = 0;
  unsigned long magnitude = value < 0 ? 0UL - static_cast<unsigned long>(value) : value;
  do {
    digits[n++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
  } while (magnitude != 0);
  std::string text = value < 0 ? "-" : "";
  if (width > n) text.append(static_cast<std::size_t>(width - n), '0');
  while (n > 0) text += digits[--n];
  return text;
}

// "+0200" or, with a colon, "+02:00".
std::string zoneOffset(long offset, bool colon) {
  char sign = offset < 0 ? '-' : '+';
  long magnitude = offset < 0 ? -offset : offset;
  long minutes = magnitude / 60;
  return std::string(1, sign) + padded(minutes / 60, 2) + (colon ? ":" : "") +
         padded(minutes % 60, 2);
}

// ---------------------------------------------------------------------------------------
// Pattern fields.

const char* const kMonthNames[] = {"January",   "February", "March",    "April",
                                   "May",       "June",     "July",     "August",
                                   "September", "October",  "November", "December"};
const char* const kWeekdayNames[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                     "Thursday", "Friday", "Saturday"};

// Appends the text of one run of a pattern letter ("yyyy", "MM", ...). Returns false for
// letters this formatter does not know, which the caller then copies through.
bool appendField(std::string& out, char letter, int count, const Fields& f) {
  const struct tm& tm = f.tm;
  switch (letter) {
    case 'y': {
      long year = tm.tm_year + 1900L;
      if (count == 2) {
        out += padded(((year % 100) + 100) % 100, 2);
      } else {
        out += padded(year, count);
      }
      return true;
    }
    case 'M':
      if (count >= 4) {
        out += kMonthNames[tm.tm_mon];
      } else if (count == 3) {
        out += std::string(kMonthNames[tm.tm_mon], 3);
      } else {
        out += padded(tm.tm_mon + 1, count);
      }
      return true;
    case 'd':
      out += padded(tm.tm_mday, count);
      return true;
    case 'E':
      out += count >= 4 ? std::string(kWeekdayNames[tm.tm_wday])
                        : std::string(kWeekdayNames[tm.tm_wday], 3);
      return true;
    case 'H':
      out += padded(tm.tm_hour, count);
      return true;
    case 'h':
      out += padded(tm.tm_hour % 12 == 0 ? 12 : tm.tm_hour % 12, count);
      return true;
    case 'm':
      out += padded(tm.tm_min, count);
      return true;
    case 's':
      out += padded(tm.tm_sec, count);
      return true;
    case 'S': {
      // Fraction of a second, truncated to count digits (microseconds at most).
      std::string digits = padded(static_cast<long>(f.micros), 6);
      if (count <= 6) {
        out += digits.substr(0, count);
      } else {
        out += digits + std::string(count - 6, '0');
      }
      return true;
    }
    case 'a':
      out += tm.tm_hour < 12 ? "AM" : "PM";
      return true;
    case 'Z':
      if (count <= 3) {
        out += zoneOffset(f.offset, false);
      } else if (count == 4) {
        out += "GMT" + zoneOffset(f.offset, true);
      } else {
        out += f.offset == 0 ? "Z" : zoneOffset(f.offset, true);
      }
      return true;
    default:
      return false;
  }
}

bool isPatternLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// ---------------------------------------------------------------------------------------
// ISO 8601 parsing helpers.

class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}
  bool atEnd() const { return pos_ == text_.size(); }
  char peek() const { return atEnd() ? '\0' : text_[pos_]; }
  bool accept(char c) {
    if (peek() != c) return false;
    ++pos_;
    return true;
  }
  // Exactly n decimal digits.
  bool number(int n, int& value) {
    value = 0;
    for (int i = 0; i < n; ++i) {
      char c = peek();
      if (c < '0' || c > '9') return false;
      value = value * 10 + (c - '0');
      ++pos_;
    }
    return true;
  }

 private:
  std::string_view text_;
  std::size_t pos_ = 0;
};

// Reads "Z", "+HH:MM" or "+HHMM" into an offset in seconds.
bool parseZone(Scanner& scan, long& offset) {
  if (scan.accept('Z')) {
    offset = 0;
    return true;
  }
  int sign = scan.accept('+') ? 1 : (scan.accept('-') ? -1 : 0);
  int hours = 0;
  int minutes = 0;
  if (sign == 0 || !scan.number(2, hours)) return false;
  scan.accept(':');
  if (!scan.number(2, minutes) || hours > 23 || minutes > 59) return false;
  offset = sign * (hours * 3600L + minutes * 60L);
  return true;
}

}  // namespace

void prepareLocalZone() {
  static std::once_flag once;
  std::call_once(once, [] {
    const char* tz = std::getenv("TZ");
    std::lock_guard<std::mutex> lock(zoneMutex());
    loadZone(tz);
  });
}

// ---------------------------------------------------------------------------------------

Date Date::now() {
  return Clock::now();
}

double Date::timeIntervalSinceNow() const {
  return seconds_ - Clock::now().timeIntervalSince1970();
}

std::string Date::description() const {
  return DateFormatter("yyyy-MM-dd HH:mm:ss Z", DateFormatter::Zone::UTC).stringFromDate(*this);
}

std::string Date::iso8601() const {
  Fields f = fieldsOf(*this, DateFormatter::Zone::UTC);
  std::string text;
  appendField(text, 'y', 4, f);
  text += '-';
  appendField(text, 'M', 2, f);
  text += '-';
  appendField(text, 'd', 2, f);
  text += 'T';
  appendField(text, 'H', 2, f);
  text += ':';
  appendField(text, 'm', 2, f);
  text += ':';
  appendField(text, 's', 2, f);
  // Millisecond precision; a whole second carries no fraction at all.
  if (f.micros / 1000 != 0) {
    text += '.';
    appendField(text, 'S', 3, f);
  }
  return text + 'Z';
}

std::optional<Date> Date::fromISO8601(std::string_view text) {
  using namespace std::chrono;
  Scanner scan(text);
  int y, mo, d, h, mi, s;
  if (!scan.number(4, y) || !scan.accept('-') || !scan.number(2, mo) || !scan.accept('-') ||
      !scan.number(2, d) || !scan.accept('T') || !scan.number(2, h) || !scan.accept(':') ||
      !scan.number(2, mi) || !scan.accept(':') || !scan.number(2, s)) {
    return std::nullopt;
  }
  // Up to six fraction digits count (microseconds); further digits are read and dropped.
  std::int64_t micros = 0;
  if (scan.accept('.')) {
    int digits = 0;
    while (scan.peek() >= '0' && scan.peek() <= '9') {
      if (digits < 6) micros = micros * 10 + (scan.peek() - '0');
      ++digits;
      scan.accept(scan.peek());
    }
    if (digits == 0) return std::nullopt;
    for (; digits < 6; ++digits) micros *= 10;
  }
  long offset = 0;
  if (!parseZone(scan, offset) || !scan.atEnd()) return std::nullopt;

  year_month_day ymd{year(y), month(static_cast<unsigned>(mo)), day(static_cast<unsigned>(d))};
  if (!ymd.ok() || h > 23 || mi > 59 || s > 60) return std::nullopt;
  std::int64_t whole =
      sys_days(ymd).time_since_epoch().count() * 86400LL + h * 3600LL + mi * 60LL + s - offset;
  // Whole microseconds divided once, so ".123" gives the double nearest to x.123.
  return Date(static_cast<double>(whole * 1000000 + micros) / 1e6);
}

// ---------------------------------------------------------------------------------------

Date Clock::now() {
  double pinned = pinnedSeconds.load(std::memory_order_acquire);
  return Date(std::isnan(pinned) ? systemSeconds() : pinned);
}

void Clock::set(Date fixed) {
  pinnedSeconds.store(fixed.timeIntervalSince1970(), std::memory_order_release);
  notifyClockChanged();
}

// Moves a pinned clock; an unpinned one is pinned at now + seconds.
void Clock::advance(double seconds) {
  double current = pinnedSeconds.load(std::memory_order_acquire);
  double next;
  do {
    next = (std::isnan(current) ? systemSeconds() : current) + seconds;
  } while (!pinnedSeconds.compare_exchange_weak(current, next, std::memory_order_acq_rel));
  notifyClockChanged();
}

void Clock::useSystemClock() {
  pinnedSeconds.store(std::numeric_limits<double>::quiet_NaN(), std::memory_order_release);
  notifyClockChanged();
}

bool Clock::isPinned() {
  return !std::isnan(pinnedSeconds.load(std::memory_order_acquire));
}

void Clock::addChangeListener(std::function<void()> listener) {
  ClockListeners& all = clockListeners();
  std::lock_guard<std::mutex> lock(all.mutex);
  all.listeners.push_back(std::move(listener));
}

// ---------------------------------------------------------------------------------------

DateFormatter::DateFormatter(std::string pattern, Zone zone)
    : pattern_(std::move(pattern)), zone_(zone) {}

std::string DateFormatter::stringFromDate(Date date) const {
  Fields fields = fieldsOf(date, zone_);
  std::string out;
  const std::string& p = pattern_;
  std::size_t i = 0;
  while (i < p.size()) {
    char c = p[i];
    if (c == '\'') {
      // '' is a quote; otherwise copy up to the closing quote ('' inside is a quote too).
      if (i + 1 < p.size() && p[i + 1] == '\'') {
        out += '\'';
        i += 2;
        continue;
      }
      ++i;
      while (i < p.size()) {
        if (p[i] == '\'') {
          if (i + 1 < p.size() && p[i + 1] == '\'') {
            out += '\'';
            i += 2;
            continue;
          }
          ++i;
          break;
        }
        out += p[i++];
      }
      continue;
    }
    if (!isPatternLetter(c)) {
      out += c;
      ++i;
      continue;
    }
    std::size_t run = i;
    while (run < p.size() && p[run] == c) ++run;
    int count = static_cast<int>(run - i);
    if (!appendField(out, c, count, fields)) out.append(p, i, run - i);
    i = run;
  }
  return out;
}

}  // namespace pnx

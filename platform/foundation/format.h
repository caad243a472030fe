// Type-safe printf-style formatting with the platform's conventions:
//   %@ and %{public}@  any Value / Object / string's description; a null prints (null)
//   %d %i %ld %lld %u %lu %llu %x %lx %X   integers, with flags, width and precision
//   %f %.1f %e %g      reals
//   %s                 a C string or std::string
//   %c                 a character
//   %%                 a percent sign
// Arguments are captured as FormatArg values (no C varargs), so a mismatched argument
// prints something sensible instead of reading the wrong memory: an integer given for
// %@ prints its decimal text, a string given for %d prints 0, a missing argument prints
// as (null) for %@ and 0 for numbers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "platform/foundation/export.h"
#include "platform/foundation/object.h"
#include "platform/foundation/value.h"

namespace pnx {

class FormatArg {
 public:
  FormatArg(std::nullptr_t) : v_(Value()) {}
  FormatArg(bool b) : v_(static_cast<std::int64_t>(b)) {}
  FormatArg(char c) : v_(static_cast<std::int64_t>(c)) {}
  FormatArg(int i) : v_(static_cast<std::int64_t>(i)) {}
  FormatArg(long i) : v_(static_cast<std::int64_t>(i)) {}
  FormatArg(long long i) : v_(static_cast<std::int64_t>(i)) {}
  FormatArg(unsigned i) : v_(static_cast<std::uint64_t>(i)) {}
  FormatArg(unsigned long i) : v_(static_cast<std::uint64_t>(i)) {}
  FormatArg(unsigned long long i) : v_(static_cast<std::uint64_t>(i)) {}
  FormatArg(double d) : v_(d) {}
  FormatArg(float f) : v_(static_cast<double>(f)) {}
  // A null C string prints (null).
  FormatArg(const char* s) : v_(s ? Value(s) : Value()) {}
  FormatArg(const std::string& s) : v_(Value(s)) {}
  FormatArg(std::string_view s) : v_(Value(s)) {}
  FormatArg(const Value& v) : v_(v) {}
  FormatArg(const Date& d) : v_(Value(d)) {}
  // Any platform object, or a null pointer to one (prints (null)).
  template <class T, class = std::enable_if_t<std::is_base_of_v<Object, T>>>
  FormatArg(const std::shared_ptr<T>& o) : v_(o ? Value(ObjectPtr(o)) : Value()) {}
  template <class T, class = std::enable_if_t<std::is_base_of_v<Object, T>>>
  FormatArg(const T& o) : v_(Value(ObjectPtr(std::make_shared<T>(o)))) {}

  const std::variant<std::int64_t, std::uint64_t, double, Value>& value() const { return v_; }

 private:
  std::variant<std::int64_t, std::uint64_t, double, Value> v_;
};

// Expands fmt with args. Never fails; unknown conversions are copied through as written.
PNX_EXPORT std::string formatArgs(std::string_view fmt, const std::vector<FormatArg>& args);

template <class... Args>
std::string format(std::string_view fmt, const Args&... args) {
  return formatArgs(fmt, std::vector<FormatArg>{FormatArg(args)...});
}

// Untrusted text (file contents, names, values from outside) made fit to quote in a message:
// at most maxBytes of it, cut at a character boundary and followed by "…" and the number of
// bytes left out; control characters, the characters that reorder a line, and bytes that
// are not UTF-8 written as escapes (\n, \t, \x1b, \u202e). So bad input can neither flood a
// log or terminal nor drive it. Every message that quotes bad input goes through this.
inline constexpr std::size_t kExcerptLength = 80;
std::string excerpt(std::string_view text, std::size_t maxBytes = kExcerptLength);

}  // namespace pnx

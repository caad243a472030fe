#include "config/value_reading.h"

#include <cmath>
#include <limits>
#include <string_view>

namespace pnx {
namespace {

// White space as the platform's string scanner skips it (ASCII white space).
bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Skips leading white space and an optional sign; returns true when the sign was '-'.
bool skipSpaceAndSign(std::string_view& text) {
  std::size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  text.remove_prefix(i);
  return negative;
}

bool stringBoolValue(std::string_view text) {
  skipSpaceAndSign(text);
  while (!text.empty() && text.front() == '0') text.remove_prefix(1);
  if (text.empty()) return false;
  const char c = text.front();
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

// The leading decimal integer, saturating at the given bounds.
std::int64_t stringIntegerValue(std::string_view text, std::int64_t minimum, std::int64_t maximum) {
  const bool negative = skipSpaceAndSign(text);
  const std::int64_t limit = negative ? minimum : maximum;
  std::int64_t value = 0;
  for (char c : text) {
    if (!isDigit(c)) break;
    const int digit = c - '0';
    if (negative) {
      if (value < (minimum + digit) / 10) return limit;
      value = value * 10 - digit;
    } else {
      if (value > (maximum - digit) / 10) return limit;
      value = value * 10 + digit;
    }
  }
  return value;
}

std::int32_t saturatingInt32(double value) {
  if (std::isnan(value)) return 0;
  if (value >= 2147483647.0) return std::numeric_limits<std::int32_t>::max();
  if (value <= -2147483648.0) return std::numeric_limits<std::int32_t>::min();
  return static_cast<std::int32_t>(value);
}

}  // namespace

std::optional<bool> ValueReading::boolValue(const Value& value) {
  if (value.isNumber()) return value.boolValue();
  if (const std::string* text = value.asString()) return stringBoolValue(*text);
  return std::nullopt;
}

std::optional<std::int64_t> ValueReading::longLongValue(const Value& value) {
  if (value.isNumber()) return value.integerValue();
  if (const std::string* text = value.asString()) {
    return stringIntegerValue(*text, std::numeric_limits<std::int64_t>::min(),
                              std::numeric_limits<std::int64_t>::max());
  }
  return std::nullopt;
}

std::optional<std::int32_t> ValueReading::intValue(const Value& value) {
  if (value.isReal()) return saturatingInt32(value.doubleValue());
  if (value.isNumber()) return static_cast<std::int32_t>(value.integerValue());
  if (const std::string* text = value.asString()) {
    return static_cast<std::int32_t>(stringIntegerValue(
        *text, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
  }
  return std::nullopt;
}

}  // namespace pnx

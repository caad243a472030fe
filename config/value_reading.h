// ValueReading: the platform's lenient readings of loosely typed values, as its number
// and string classes answer boolValue, intValue and longLongValue. The configuration and
// the provisioning reader read JSON and property-list values through them.
//
// Thread-safety: pure functions.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/foundation/value.h"

namespace pnx {

class ValueReading {
 public:
  // Numbers: true when non-zero. Strings: true when, after leading white space, an
  // optional sign and leading zeros, the first character is Y, y, T, t or a digit 1 to 9
  // (so "yes" and "true" are true; "no", "false" and "0" are false). nullopt for values
  // that have no boolean reading (null, containers, dates, data).
  static std::optional<bool> boolValue(const pnx::Value& value);

  // Numbers: their integer value (reals truncate toward zero, saturating). Strings: the
  // leading decimal integer after white space and an optional sign, 0 when there is none,
  // saturating on overflow. nullopt for values with no integer reading.
  static std::optional<std::int64_t> longLongValue(const pnx::Value& value);

  // The same with a 32-bit reading: integers keep their low 32 bits, reals and strings
  // saturate at the 32-bit range.
  static std::optional<std::int32_t> intValue(const pnx::Value& value);
};

}  // namespace pnx

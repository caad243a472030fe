// JSON to and from Value, as the platform's JSON serialiser does it.
// Parsing streams through nlohmann/json's SAX interface straight into Values (no
// intermediate tree). Serialising is compact; dates, data, objects, NaN/infinity and
// non-string dictionary keys cannot be written and yield an error instead of output.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"

namespace pnx {

struct JSONReadOptions {
  // Accept a top-level value other than an array or object ("fragments").
  bool allowFragments = false;
};

class JSON {
 public:
  // Integers become Integer (Real above INT64_MAX), other numbers Real, null Null.
  // On failure returns nullopt and fills *error (NSCocoaErrorDomain, code 3840) with a
  // description that says where: "... at line L, column C (byte B): <what>".
  static std::optional<Value> parse(std::string_view text, ErrorPtr* error = nullptr,
                                    JSONReadOptions options = {});
  static std::optional<Value> parse(const Data& bytes, ErrorPtr* error = nullptr,
                                    JSONReadOptions options = {});
  // Compact text; nullopt and *error (code 3851) naming the offending value otherwise.
  static std::optional<std::string> serialize(const Value& value, ErrorPtr* error = nullptr);
  // Whether serialize would succeed.
  static bool isValidJSONObject(const Value& value);
};

}  // namespace pnx

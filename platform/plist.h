// Property lists (XML and binary) to and from Value, through libplist.
// Integers are signed 64-bit both ways (libplist keeps them unsigned internally).
// Reading detects the format; a parse failure fills the error place and returns nullopt.
// Values that a property list cannot hold (null, objects) make writing fail.
#pragma once

#include <optional>
#include <string>

#include "platform/error.h"
#include "platform/value.h"

namespace pnx {

class PropertyList {
 public:
  enum class Format { XML, Binary };
  static std::optional<Value> parse(const Data& bytes, ErrorPtr* error = nullptr,
                                    Format* format = nullptr);
  static std::optional<Data> serialize(const Value& value, Format format,
                                       ErrorPtr* error = nullptr);
  static std::optional<Value> readFile(const std::string& path, ErrorPtr* error = nullptr);
};

}  // namespace pnx

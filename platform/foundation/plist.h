// Property lists (XML and binary) to and from Value: binary ones read by our own code,
// XML ones read and both written through libplist.
// Integers are signed 64-bit both ways (libplist keeps them unsigned internally).
// Reading detects the format; a parse failure fills the error place and returns nullopt.
// Strings read are always UTF-8: a binary list's one-byte strings are taken as Latin-1,
// XML text that is not UTF-8 is refused. Binary dates read exactly; XML dates only within
// 32-bit seconds of 2001-01-01 (1932 to 2069), others are refused rather than read wrong.
// Values that a property list cannot hold (null, objects, text that is not UTF-8 or holds
// a NUL character, dates beyond 32-bit seconds) make writing fail.
#pragma once

#include <optional>
#include <string>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"

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

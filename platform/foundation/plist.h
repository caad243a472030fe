// Property lists (XML and binary) to and from Value: binary ones read and written by our
// own code, XML ones read and written through libplist.
// Integers are signed 64-bit both ways (libplist keeps them unsigned internally).
// Reading detects the format; a parse failure fills the error place and returns nullopt.
// Strings read are always UTF-8: a binary list's one-byte strings are taken as Latin-1,
// XML text that is not UTF-8 is refused. Binary dates are read and written exactly; XML
// dates only within 32-bit seconds of 2001-01-01 (1932 to 2069), others are refused rather
// than read or written wrong. A dictionary {"CF$UID": n} (n below 2^32) is written as the
// UID n, a keyed archive's reference, and a UID reads back as such a dictionary.
// Values that a property list cannot hold (null, objects, text that is not UTF-8 or holds
// a NUL character) make writing fail. Binary writing is linear in the size of the value.
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
};

}  // namespace pnx

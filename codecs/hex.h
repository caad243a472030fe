// Hexadecimal text of byte buffers and back (the NSData(Hex) and NSString(Hex) categories).
//
// hexadecimalString writes two lower-case digits per byte. stringFromHex reads the text
// two characters at a time with strtol's leniency (white space, a sign, a stray non-digit
// are all accepted without complaint) and returns the decoded bytes as a string, or
// nullopt when those bytes are not UTF-8.
//
// Thread-safety: pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/export.h"
#include "platform/foundation/value.h"

// "00abff" for the bytes 00 AB FF; "" for an empty buffer.
PNX_EXPORT std::string hexadecimalString(const pnx::Data& data);

// Decodes pairs of characters, counted in UTF-16 code units (each unit reduced to its low
// 8 bits before parsing); a trailing odd character is ignored. nullopt when the decoded
// bytes are not well-formed UTF-8.
PNX_EXPORT std::optional<std::string> stringFromHex(std::string_view text);

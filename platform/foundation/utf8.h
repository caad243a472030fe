// UTF-8 checks and UTF-16 views of UTF-8 text.
//
// Strings in this library are UTF-8, but a few rules count or index text the way the
// platform's strings do, in UTF-16 code units (application key lengths, hex decoding).
// These helpers bridge the two. Malformed UTF-8 never fails: each byte that does not start
// a well-formed sequence stands for one code unit of its own value, as if it were Latin-1.
//
// Thread-safety: pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pnx {

// True when the bytes are well-formed UTF-8: shortest forms only, no surrogates, nothing
// above U+10FFFF.
bool isValidUTF8(const std::uint8_t* bytes, std::size_t length);
inline bool isValidUTF8(std::string_view text) {
  return isValidUTF8(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

// The UTF-16 code units of the text; characters above U+FFFF become surrogate pairs.
std::u16string utf16FromUTF8(std::string_view text);

// The number of UTF-16 code units of the text, without building them.
std::size_t utf16Length(std::string_view text);

}  // namespace pnx

// UTF-8: the one decoder and encoder of the library, and UTF-16 views of UTF-8 text.
//
// Strings in this library are UTF-8, but a few rules count or index text the way the
// platform's strings do, in UTF-16 code units (application key lengths, hex decoding).
// Well-formed means shortest forms only, no surrogates, nothing above U+10FFFF. Where text
// is viewed as UTF-16, malformed UTF-8 never fails: each byte that does not start a
// well-formed sequence stands for one code unit of its own value, as if it were Latin-1.
//
// Thread-safety: pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pnx {

// The length (1 to 4) of the well-formed sequence that starts at text[at], storing its code
// point in *codePoint when given; 0 when the bytes there are not one (or at is past the end).
std::size_t utf8SequenceLength(std::string_view text, std::size_t at,
                               char32_t* codePoint = nullptr);

// True when the bytes are well-formed UTF-8.
bool isValidUTF8(std::string_view text);
inline bool isValidUTF8(const std::uint8_t* bytes, std::size_t length) {
  return isValidUTF8(std::string_view(reinterpret_cast<const char*>(bytes), length));
}

// Appends a code point (at most U+10FFFF, not a surrogate) as UTF-8.
void appendUTF8(std::string& out, char32_t codePoint);

// The UTF-16 code units of the text; characters above U+FFFF become surrogate pairs.
std::u16string utf16FromUTF8(std::string_view text);

// The number of UTF-16 code units of the text, without building them.
std::size_t utf16Length(std::string_view text);

}  // namespace pnx

#include "platform/foundation/utf8.h"

namespace pnx {

namespace {

// Decodes one well-formed UTF-8 sequence at the start of `bytes`. Returns its length and
// sets *codePoint, or returns 0 when the bytes there are not a well-formed sequence.
std::size_t decodeOne(const std::uint8_t* bytes, std::size_t length, char32_t* codePoint) {
  const std::uint8_t lead = bytes[0];
  if (lead < 0x80) {
    *codePoint = lead;
    return 1;
  }
  std::size_t count;
  char32_t value;
  char32_t minimum;
  if (lead >= 0xC2 && lead <= 0xDF) {
    count = 2, value = lead & 0x1F, minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    count = 3, value = lead & 0x0F, minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    count = 4, value = lead & 0x07, minimum = 0x10000;
  } else {
    return 0;
  }
  if (length < count) return 0;
  for (std::size_t i = 1; i < count; ++i) {
    if ((bytes[i] & 0xC0) != 0x80) return 0;
    value = (value << 6) | (bytes[i] & 0x3F);
  }
  // Overlong forms, UTF-16 surrogates and values past the last code point are not UTF-8.
  if (value < minimum || (value >= 0xD800 && value <= 0xDFFF) || value > 0x10FFFF) return 0;
  *codePoint = value;
  return count;
}

// Calls emit(codeUnit) for each UTF-16 code unit of the text.
template <class Emit>
void forEachCodeUnit(std::string_view text, Emit&& emit) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  std::size_t i = 0;
  while (i < text.size()) {
    char32_t codePoint;
    std::size_t used = decodeOne(bytes + i, text.size() - i, &codePoint);
    if (used == 0) {
      emit(static_cast<char16_t>(bytes[i]));  // a stray byte stands for itself
      ++i;
      continue;
    }
    if (codePoint >= 0x10000) {
      codePoint -= 0x10000;
      emit(static_cast<char16_t>(0xD800 + (codePoint >> 10)));
      emit(static_cast<char16_t>(0xDC00 + (codePoint & 0x3FF)));
    } else {
      emit(static_cast<char16_t>(codePoint));
    }
    i += used;
  }
}

}  // namespace

bool isValidUTF8(const std::uint8_t* bytes, std::size_t length) {
  std::size_t i = 0;
  while (i < length) {
    if (bytes[i] < 0x80) {  // ASCII runs are the common case
      ++i;
      continue;
    }
    char32_t codePoint;
    std::size_t used = decodeOne(bytes + i, length - i, &codePoint);
    if (used == 0) return false;
    i += used;
  }
  return true;
}

std::u16string utf16FromUTF8(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  forEachCodeUnit(text, [&](char16_t unit) { units.push_back(unit); });
  return units;
}

std::size_t utf16Length(std::string_view text) {
  std::size_t count = 0;
  forEachCodeUnit(text, [&](char16_t) { ++count; });
  return count;
}

}  // namespace pnx

#include "platform/foundation/utf8.h"

namespace pnx {

namespace {

// Calls emit(codeUnit) for each UTF-16 code unit of the text.
template <class Emit>
void forEachCodeUnit(std::string_view text, Emit&& emit) {
  std::size_t i = 0;
  while (i < text.size()) {
    char32_t codePoint;
    std::size_t used = utf8SequenceLength(text, i, &codePoint);
    if (used == 0) {
      emit(static_cast<char16_t>(static_cast<unsigned char>(text[i])));  // stands for itself
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

std::size_t utf8SequenceLength(std::string_view text, std::size_t at, char32_t* codePoint) {
  if (at >= text.size()) return 0;
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) {
    if (codePoint) *codePoint = lead;
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
  if (text.size() - at < count) return 0;
  for (std::size_t i = 1; i < count; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80) return 0;
    value = (value << 6) | (byte(at + i) & 0x3F);
  }
  // Overlong forms, UTF-16 surrogates and values past the last code point are not UTF-8.
  if (value < minimum || (value >= 0xD800 && value <= 0xDFFF) || value > 0x10FFFF) return 0;
  if (codePoint) *codePoint = value;
  return count;
}

bool isValidUTF8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    if (static_cast<unsigned char>(text[i]) < 0x80) {  // ASCII runs are the common case
      ++i;
      continue;
    }
    std::size_t used = utf8SequenceLength(text, i);
    if (used == 0) return false;
    i += used;
  }
  return true;
}

void appendUTF8(std::string& out, char32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | code >> 6);
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | code >> 12);
    out += static_cast<char>(0x80 | (code >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | code >> 18);
    out += static_cast<char>(0x80 | (code >> 12 & 0x3F));
    out += static_cast<char>(0x80 | (code >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
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

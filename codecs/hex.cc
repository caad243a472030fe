#include "codecs/hex.h"

#include <cstdlib>

#include "platform/foundation/utf8.h"

std::string hexadecimalString(const pnx::Data& data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.resize(data.size() * 2);
  char* out = text.data();
  for (std::uint8_t byte : data) {
    *out++ = kDigits[byte >> 4];
    *out++ = kDigits[byte & 0x0F];
  }
  return text;
}

namespace {

// One pair parsed exactly as strtol(pair, nullptr, 16) does, truncated to a byte.
std::uint8_t parsePair(char16_t first, char16_t second) {
  const char scratch[3] = {static_cast<char>(first & 0xFF), static_cast<char>(second & 0xFF), 0};
  return static_cast<std::uint8_t>(std::strtol(scratch, nullptr, 16) & 0xFF);
}

// Two hex digits of ASCII text: the common case, decoded without the UTF-16 detour.
bool isPlainHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

std::uint8_t digitValue(char c) {
  if (c <= '9') return static_cast<std::uint8_t>(c - '0');
  return static_cast<std::uint8_t>((c | 0x20) - 'a' + 10);
}

bool isPlainHex(std::string_view text) {
  for (char c : text) {
    if (!isPlainHexDigit(c)) return false;
  }
  return true;
}

}  // namespace

std::optional<std::string> stringFromHex(std::string_view text) {
  std::string bytes;
  if (isPlainHex(text)) {
    bytes.resize(text.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<char>(digitValue(text[2 * i]) << 4 | digitValue(text[2 * i + 1]));
    }
  } else {
    const std::u16string units = pnx::utf16FromUTF8(text);
    bytes.resize(units.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      bytes[i] = static_cast<char>(parsePair(units[2 * i], units[2 * i + 1]));
    }
  }
  if (!pnx::isValidUTF8(bytes)) return std::nullopt;
  return bytes;
}

// Fuzzes stringFromHex on arbitrary text, and the round trip through hexadecimalString:
// decoding the hex of any bytes gives them back exactly when they are UTF-8.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "codecs/hex.h"
#include "platform/foundation/utf8.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto decoded = stringFromHex(text)) {
    if (!pnx::isValidUTF8(*decoded)) std::abort();
    if (decoded->size() > size / 2) std::abort();
  }

  const pnx::Data bytes(data, data + size);
  const std::string hex = hexadecimalString(bytes);
  auto back = stringFromHex(hex);
  if (back.has_value() != pnx::isValidUTF8(data, size)) std::abort();
  if (back && *back != text) std::abort();
  return 0;
}

#include "platform/foundation/uuid.h"

#include <uuid/uuid.h>

#include <cctype>
#include <cstring>

namespace pnx {

namespace {

constexpr std::size_t kTextLength = 36;

// libuuid's parser tolerates some malformed input, so the shape is checked here first:
// 8-4-4-4-12 hexadecimal digits separated by hyphens, nothing more.
bool hasCanonicalShape(std::string_view text) {
  if (text.size() != kTextLength) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool hyphenPlace = i == 8 || i == 13 || i == 18 || i == 23;
    bool ok = hyphenPlace ? text[i] == '-' : std::isxdigit(static_cast<unsigned char>(text[i]));
    if (!ok) return false;
  }
  return true;
}

}  // namespace

UUID UUID::random() {
  uuid_t raw;
  uuid_generate_random(raw);
  UUID uuid;
  std::memcpy(uuid.bytes_.data(), raw, uuid.bytes_.size());
  return uuid;
}

std::optional<UUID> UUID::parse(std::string_view text) {
  if (!hasCanonicalShape(text)) return std::nullopt;
  std::string terminated(text);
  uuid_t raw;
  if (uuid_parse(terminated.c_str(), raw) != 0) return std::nullopt;
  UUID uuid;
  std::memcpy(uuid.bytes_.data(), raw, uuid.bytes_.size());
  return uuid;
}

std::string UUID::string() const {
  uuid_t raw;
  std::memcpy(raw, bytes_.data(), bytes_.size());
  char text[kTextLength + 1];
  uuid_unparse_upper(raw, text);
  return std::string(text, kTextLength);
}

}  // namespace pnx

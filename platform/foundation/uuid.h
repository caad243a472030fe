// UUID: 128-bit identifiers in the canonical upper-case 8-4-4-4-12 text form.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/export.h"

namespace pnx {

class PNX_EXPORT UUID {
 public:
  static UUID random();
  // Accepts the 36-character hyphenated form, either case; nullopt otherwise.
  static std::optional<UUID> parse(std::string_view text);
  // "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"
  std::string string() const;
  const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }
  friend bool operator==(const UUID&, const UUID&) = default;

 private:
  std::array<std::uint8_t, 16> bytes_{};
};

}  // namespace pnx

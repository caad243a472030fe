// OSStatus: the platform's result code of a keychain operation, and the values the
// keychain answers with. 0 is success; the others are negative.
#pragma once

#include <cstdint>

namespace pnx {

using OSStatus = std::int32_t;

inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecItemNotFound = -25300;
inline constexpr OSStatus errSecDuplicateItem = -25299;
inline constexpr OSStatus errSecMissingEntitlement = -34018;
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;
inline constexpr OSStatus errSecParam = -50;

}  // namespace pnx

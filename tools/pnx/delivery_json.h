// What `pnx queue`, `pnx resend` and the soak driver print about delivery reporting: the
// retry date as ISO 8601 text with its offset, errors as {"domain", "code", "description"}.
#pragma once

#include <optional>
#include <string>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"
#include "storage/keychain.h"

// "2026-11-23T02:10:34.250+00:00" in the device's local zone, or null when value is not a
// date.
pnx::Value pnxDateJSON(const pnx::Value& value);
// {"domain", "code", "description"}, or null for no error.
pnx::Value pnxErrorJSON(const pnx::ErrorPtr& error);
// Reads one item of the delivery store into *value (null when missing); on failure, the
// line that says why: the item, the error and the keychain's status.
std::optional<std::string> pnxReadDeliveryItem(PNXKeychain& store, const char* name,
                                               pnx::Value* value);

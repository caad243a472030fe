// Read-modify-write of one value of a keychain store, for the delivery queue and its
// in-flight record: change gets the stored value (null when there is none or when it cannot
// be read) and returns the value to store, or nullopt to leave the item alone.
//
// The read, the change and the write are one keychain transaction, so that processes
// changing the same item concurrently take turns and none overwrites another's change.
// change may run more than once and must not use the keychain itself.
//
// Thread-safety: as the store's; any thread.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/foundation/value.h"
#include "storage/keychain.h"

namespace pnx {

using KeychainValueChange = std::function<std::optional<Value>(const Value& current)>;

// True when the change was stored or nothing needed storing; false (logged by the store)
// when the keychain refused.
bool updateKeychainValue(PNXKeychain& store, const std::string& name,
                         const KeychainValueChange& change);

}  // namespace pnx

#include "delivery/keychain_update.h"

namespace pnx {

bool updateKeychainValue(PNXKeychain& store, const std::string& name,
                         const KeychainValueChange& change) {
  ErrorPtr error;
  if (store.updateObjectForName(name, change, &error)) return true;
  // Stored data that is not an archive can never be merged with: it counts as no value and
  // is replaced, as a queue that cannot be read counts as empty. Any other failure is the
  // keychain's and stands.
  if (!error || error->code() != 104) return false;
  auto next = change(Value());
  return !next || store.setObject(*next, name);
}

}  // namespace pnx

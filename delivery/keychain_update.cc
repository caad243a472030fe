#include "delivery/keychain_update.h"

namespace pnx {

bool updateKeychainValue(PNXKeychain& store, const std::string& name,
                         const KeychainValueChange& change) {
  ErrorPtr error;
  Value current = store.objectForName(name, &error);
  auto next = change(current);
  if (!next) return true;
  return store.setObject(*next, name);
}

}  // namespace pnx

// pnx identity [--user-id U] [--channel-id C]: writes the installation's identifiers into
// the shared keychain store, as the application side of the kit does, and prints both as
// they read back: {"userId": ..., "channelId": ...} (null when absent).

#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/format.h"
#include "platform/security/keychain_items.h"
#include "storage/keychain.h"
#include "tools/pnx/command.h"

namespace pnx {
namespace {

struct IdentityOptions {
  std::optional<std::string> userId;
  std::optional<std::string> channelId;
};

// Writes one identifier; the failure message when the keychain refused it.
std::optional<std::string> write(PNXKeychain& store, const char* name,
                                 const std::optional<std::string>& value) {
  if (!value) return std::nullopt;
  pnx::OSStatus status = pnx::errSecSuccess;
  if (store.setObject(*value, name, &status)) return std::nullopt;
  return std::string("cannot write ") + name + " into the shared keychain (group " +
         pnx::excerpt(store.group().value_or("<default>")) +
         "): " + pnx::keychainStatusDescription(status);
}

int runIdentity(const IdentityOptions& options) {
  auto store = PNXKeychain::groupKeychain("PNX");
  if (auto failure = write(*store, "userId", options.userId)) return pnxFail(*failure);
  if (auto failure = write(*store, "channelId", options.channelId)) return pnxFail(*failure);
  pnxPrintJSON(pnx::Value::dict({{"userId", store->userId()}, {"channelId", store->channelId()}}));
  return 0;
}

CommandRegistration registration(
    "identity", "Write the user and channel identifiers into the shared keychain",
    [](CLI::App& sub) -> PnxCommandRun {
      auto options = std::make_shared<IdentityOptions>();
      sub.add_option("--user-id", options->userId, "The user identifier to store");
      sub.add_option("--channel-id", options->channelId, "The channel identifier to store");
      return [options](const PnxGlobals&) { return runIdentity(*options); };
    });

}  // namespace
}  // namespace pnx

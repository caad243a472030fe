// pnx keychain get|set|rm NAME [JSON] [--service S] [--group G]: raw access to one item of
// a keychain store. The store is the shared one (service "PNX", the configuration's
// "<teamId>.PNX" group) unless --service or --group name another; --group "" means the
// default group. set takes the value as JSON text; every action prints the value as JSON
// (rm the value it removed). A keychain status other than success is one line naming it.

#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/format.h"
#include "platform/foundation/json.h"
#include "platform/security/keychain_items.h"
#include "storage/keychain.h"
#include "tools/pnx/command.h"

namespace pnx {
namespace {

struct KeychainOptions {
  std::string action;
  std::string name;
  std::optional<std::string> json;
  std::string service = "PNX";
  std::optional<std::string> group;
};

std::shared_ptr<PNXKeychain> storeFor(const KeychainOptions& options) {
  auto store = PNXKeychain::groupKeychain(options.service);
  if (options.group) {
    store->setGroup(options.group->empty() ? std::nullopt : options.group);
  }
  return store;
}

// Names, services and groups come from the command line and the configuration file.
std::string itemLabel(const PNXKeychain& store, const std::string& name) {
  return "keychain item '" + pnx::excerpt(name) + "' (service " +
         pnx::excerpt(store.service().value_or("")) + ", group " +
         pnx::excerpt(store.group().value_or("<default>")) + ")";
}

int statusFailure(const PNXKeychain& store, const std::string& name, const char* doing,
                  pnx::OSStatus status) {
  return pnxFail(std::string("cannot ") + doing + " " + itemLabel(store, name) + ": " +
                 pnx::keychainStatusDescription(status));
}

int runGet(PNXKeychain& store, const std::string& name) {
  pnx::ErrorPtr error;
  pnx::OSStatus status = pnx::errSecSuccess;
  pnx::Value value = store.objectForName(name, &error, &status);
  if (status != pnx::errSecSuccess) return statusFailure(store, name, "read", status);
  if (error) return pnxFail(itemLabel(store, name) + ": " + error->localizedDescription());
  pnxPrintJSON(value);
  return 0;
}

int runSet(PNXKeychain& store, const std::string& name, const std::string& json) {
  pnx::ErrorPtr error;
  auto value = pnx::JSON::parse(json, &error, pnx::JSONReadOptions{.allowFragments = true});
  if (!value) {
    return pnxUsage("the value for " + pnx::excerpt(name) + " is not JSON: " +
                    (error ? error->localizedDescription() : std::string("unreadable")));
  }
  pnx::OSStatus status = pnx::errSecSuccess;
  if (!store.setObject(*value, name, &status)) return statusFailure(store, name, "write", status);
  return runGet(store, name);
}

int runRemove(PNXKeychain& store, const std::string& name) {
  pnx::ErrorPtr unreadable;  // an item that is no archive can still be removed
  pnx::Value value = store.objectForName(name, &unreadable);
  pnx::OSStatus status = pnx::errSecSuccess;
  if (!store.removeObjectForName(name, &status)) {
    return statusFailure(store, name, "remove", status);
  }
  pnxPrintJSON(value);
  return 0;
}

int runKeychain(const KeychainOptions& options) {
  bool needsValue = options.action == "set";
  if (needsValue != options.json.has_value()) {
    return pnxUsage(needsValue ? "keychain set needs a JSON value"
                               : "keychain " + options.action + " takes no value");
  }
  auto store = storeFor(options);
  if (options.action == "get") return runGet(*store, options.name);
  if (options.action == "set") return runSet(*store, options.name, *options.json);
  return runRemove(*store, options.name);
}

CommandRegistration registration(
    "keychain", "Read, write or remove one keychain item", [](CLI::App& sub) -> PnxCommandRun {
      auto options = std::make_shared<KeychainOptions>();
      sub.add_option("action", options->action, "get, set or rm")
          ->required()
          ->check(CLI::IsMember({"get", "set", "rm"}));
      sub.add_option("name", options->name, "The item's name (its account)")->required();
      sub.add_option("json", options->json, "The value to store, as JSON text (set only)");
      sub.add_option("--service", options->service, "The keychain service")->capture_default_str();
      sub.add_option("--group", options->group,
                     "The access group (default: <teamId>.PNX; \"\" for the default group)");
      return [options](const PnxGlobals&) { return runKeychain(*options); };
    });

}  // namespace
}  // namespace pnx

#include "tools/pnx/delivery_json.h"

#include "platform/foundation/date.h"
#include "platform/security/keychain_items.h"

pnx::Value pnxDateJSON(const pnx::Value& value) {
  const pnx::Date* date = value.asDate();
  if (!date) return pnx::Value();
  static const pnx::DateFormatter formatter("yyyy-MM-dd'T'HH:mm:ss.SSSZZZZZ");
  std::string text = formatter.stringFromDate(*date);
  // The formatter writes a zero offset as "Z"; spell every offset out.
  if (!text.empty() && text.back() == 'Z') text.replace(text.size() - 1, 1, "+00:00");
  return pnx::Value(text);
}

pnx::Value pnxErrorJSON(const pnx::ErrorPtr& error) {
  if (!error) return pnx::Value();
  return pnx::Value::dict({{"domain", error->domain()},
                           {"code", error->code()},
                           {"description", error->localizedDescription()}});
}

std::optional<std::string> pnxReadDeliveryItem(PNXKeychain& store, const char* name,
                                               pnx::Value* value) {
  pnx::ErrorPtr error;
  pnx::OSStatus status = pnx::errSecSuccess;
  *value = store.objectForName(name, &error, &status);
  if (!error) return std::nullopt;
  std::string reason = "cannot read the delivery queue: " + error->localizedDescription();
  if (status != pnx::errSecSuccess) reason += " (" + pnx::keychainStatusDescription(status) + ")";
  return reason;
}

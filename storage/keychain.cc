#include "storage/keychain.h"

#include "config/config.h"
#include "diagnostics/errors.h"
#include "diagnostics/log.h"
#include "platform/files/bundle.h"
#include "platform/foundation/keyed_archive.h"
#include "platform/security/keychain_items.h"

namespace {

constexpr const char* kUserIdName = "userId";
constexpr const char* kChannelIdName = "channelId";
constexpr const char* kGroupSuffix = ".PNX";

// The data of a keychain result, unarchived. Throws pnx::Exception when it is not an
// archive (or not data at all).
pnx::Value unarchive(const pnx::Value& data) {
  const pnx::Data* bytes = data.asData();
  if (!bytes) {
    throw pnx::Exception(pnx::NSInvalidUnarchiveOperationException,
                         "*** -[NSKeyedUnarchiver initForReadingWithData:]: data is NULL");
  }
  return pnx::KeyedUnarchiver::unarchiveObjectWithData(*bytes);
}

std::optional<pnx::Date> dateEntry(const pnx::Value& dictionary, const char* key) {
  const pnx::Date* date = dictionary[key].asDate();
  return date ? std::optional<pnx::Date>(*date) : std::nullopt;
}

void fill(pnx::ErrorPtr* error, pnx::ErrorPtr value) {
  if (error) *error = std::move(value);
}

// Why the keychain database failed, in SQLite's words, after the line that says what failed.
void logReason(const pnx::ErrorPtr& reason) {
  if (reason) PNXLogError("Keychain database failure: %@", reason->localizedDescription());
}

}  // namespace

std::shared_ptr<PNXKeychainItem> PNXKeychainItem::initWithKeyDictionary(
    const pnx::Value& keyDictionary, pnx::ErrorPtr* error) {
  auto item = std::make_shared<PNXKeychainItem>();
  try {
    pnx::Value value = unarchive(keyDictionary[pnx::kSecValueData]);
    if (!value.isNull()) {
      item->setValue(value);
      item->setCreated(dateEntry(keyDictionary, pnx::kSecAttrCreationDate));
      item->setModified(dateEntry(keyDictionary, pnx::kSecAttrModificationDate));
    }
  } catch (const pnx::Exception& exception) {
    fill(error, NSError_PNX::keychainUnarchiveFailed(
                    "<unknown>", std::make_shared<const pnx::Exception>(exception)));
    return nullptr;
  }
  return item;
}

PNXKeychain::PNXKeychain(std::optional<std::string> service) : service_(std::move(service)) {}

std::shared_ptr<PNXKeychain> PNXKeychain::keychainWithService(std::optional<std::string> service) {
  return std::make_shared<PNXKeychain>(std::move(service));
}

std::shared_ptr<PNXKeychain> PNXKeychain::defaultKeychain() {
  auto bundle = pnx::Bundle::main();
  pnx::Value bundleId =
      bundle ? bundle->objectForInfoDictionaryKey("CFBundleIdentifier") : pnx::Value();
  PNXLogInfo("keychain bundleId: %@", bundleId);
  const std::string* service = bundleId.asString();
  return keychainWithService(service ? std::optional<std::string>(*service) : std::nullopt);
}

std::shared_ptr<PNXKeychain> PNXKeychain::groupKeychain(std::optional<std::string> service) {
  auto keychain = keychainWithService(std::move(service));
  if (auto teamId = PNXConfig::sharedInstance()->teamId()) {
    PNXLogVerbose("Created keychain group with teamId");
    keychain->setGroup(*teamId + kGroupSuffix);
  } else {
    PNXLogVerbose("Can not create keychain group with teamId, there is no teamId in config file.");
  }
  return keychain;
}

pnx::Value PNXKeychain::getKeychainQuery(const std::string& name) const {
  auto service = this->service();
  if (!service) {
    // The platform's query dictionary refuses a nil value: a programming error.
    throw pnx::Exception(pnx::NSInvalidArgumentException,
                         std::string("*** -[__NSDictionaryM setObject:forKey:]: object cannot be "
                                     "nil (key: ") +
                             pnx::kSecAttrService + ")");
  }
  pnx::Dictionary query;
  query[pnx::Value(pnx::kSecClass)] = pnx::Value(pnx::kSecClassGenericPassword);
  query[pnx::Value(pnx::kSecAttrService)] = pnx::Value(*service);
  query[pnx::Value(pnx::kSecAttrAccount)] = pnx::Value(name);
  query[pnx::Value(pnx::kSecAttrAccessible)] =
      pnx::Value(pnx::kSecAttrAccessibleAlwaysThisDeviceOnly);
  if (auto group = this->group()) query[pnx::Value(pnx::kSecAttrAccessGroup)] = pnx::Value(*group);
  return pnx::Value(std::move(query));
}

namespace {

pnx::Value withEntries(const pnx::Value& dictionary,
                       std::initializer_list<std::pair<const char*, pnx::Value>> entries) {
  pnx::Dictionary result = *dictionary.asDictionary();
  for (const auto& [key, value] : entries) result[pnx::Value(key)] = value;
  return pnx::Value(std::move(result));
}

}  // namespace

bool PNXKeychain::setObject(const pnx::Value& value, const std::string& name) {
  pnx::OSStatus status;
  return setObject(value, name, &status);
}

// The update or add is one transaction of the keychain, so that two processes writing a
// new name at once both succeed (the later value stays) instead of one failing on the
// other's add.
bool PNXKeychain::setObject(const pnx::Value& value, const std::string& name,
                            pnx::OSStatus* result) {
  pnx::Value query = getKeychainQuery(name);
  // A value the archiver cannot hold is refused like a bad query.
  auto archive = pnx::KeyedArchiver::archivedDataWithRootObject(value);
  pnx::ErrorPtr reason;
  pnx::OSStatus status =
      archive ? pnx::keychainSetItemData(query, *archive, &reason) : pnx::errSecParam;
  *result = status;
  if (status != pnx::errSecSuccess) {
    PNXLogError("Could not set keychain name %@ to value %@, return %d", name, value, status);
    logReason(reason);
    return false;
  }
  return true;
}

bool PNXKeychain::updateObjectForName(const std::string& name, const ValueChange& change,
                                      pnx::ErrorPtr* error) {
  pnx::Value query = getKeychainQuery(name);
  pnx::ErrorPtr unreadable;
  auto changeData = [&](const std::optional<pnx::Data>& current) -> std::optional<pnx::Data> {
    unreadable = nullptr;  // a retried transaction starts over
    pnx::Value value;
    if (current) {
      try {
        value = pnx::KeyedUnarchiver::unarchiveObjectWithData(*current);
      } catch (const pnx::Exception& exception) {
        unreadable = NSError_PNX::keychainUnarchiveFailed(
            name, std::make_shared<const pnx::Exception>(exception));
        return std::nullopt;
      }
    }
    std::optional<pnx::Value> next = change(value);
    if (!next) return std::nullopt;
    auto archive = pnx::KeyedArchiver::archivedDataWithRootObject(*next);
    if (!archive) {
      throw pnx::Exception(pnx::NSInvalidArgumentException,
                           "keychain value for " + name + " cannot be archived");
    }
    return archive;
  };
  pnx::ErrorPtr reason;
  pnx::OSStatus status = pnx::keychainUpdateItem(query, changeData, &reason);
  if (status == pnx::errSecSuccess && !unreadable) return true;
  if (unreadable) {
    fill(error, unreadable);
  } else {
    fill(error,
         NSError_PNX::errorWithCode(122, "Keychain is inaccessible.",
                                    reason ? pnx::Value(pnx::ObjectPtr(reason)) : pnx::Value()));
  }
  PNXLogError("Could not update keychain name %@, return %d", name, status);
  logReason(reason);
  return false;
}

pnx::Value PNXKeychain::objectForName(const std::string& name, pnx::ErrorPtr* error) {
  pnx::OSStatus status;
  return objectForName(name, error, &status);
}

pnx::Value PNXKeychain::objectForName(const std::string& name, pnx::ErrorPtr* error,
                                      pnx::OSStatus* result) {
  pnx::Value query = withEntries(
      getKeychainQuery(name),
      {{pnx::kSecReturnData, pnx::Value(true)}, {pnx::kSecMatchLimit, pnx::kSecMatchLimitOne}});
  pnx::Value data;
  pnx::OSStatus status = pnx::SecItemCopyMatching(query, &data);
  *result = status;
  if (status == pnx::errSecItemNotFound) return pnx::Value();
  if (status != pnx::errSecSuccess) {
    // Reported as an unarchive failure of the name, not as an unavailable keychain.
    fill(error, NSError_PNX::keychainUnarchiveFailed(name, nullptr));
    return pnx::Value();
  }
  try {
    return unarchive(data);
  } catch (const pnx::Exception& exception) {
    fill(error, NSError_PNX::keychainUnarchiveFailed(
                    name, std::make_shared<const pnx::Exception>(exception)));
    return pnx::Value();
  }
}

std::shared_ptr<PNXKeychainItem> PNXKeychain::itemForName(const std::string& name,
                                                          pnx::ErrorPtr* error) {
  pnx::Value query =
      withEntries(getKeychainQuery(name), {{pnx::kSecReturnData, pnx::Value(true)},
                                           {pnx::kSecReturnAttributes, pnx::Value(true)},
                                           {pnx::kSecMatchLimit, pnx::kSecMatchLimitOne}});
  pnx::Value attributes;
  pnx::OSStatus status = pnx::SecItemCopyMatching(query, &attributes);
  if (status == pnx::errSecItemNotFound) return nullptr;
  if (status != pnx::errSecSuccess) {
    fill(error, NSError_PNX::keychainNotAvailable());
    return nullptr;
  }
  return PNXKeychainItem::initWithKeyDictionary(attributes, error);
}

bool PNXKeychain::removeObjectForName(const std::string& name) {
  pnx::OSStatus status;
  return removeObjectForName(name, &status);
}

bool PNXKeychain::removeObjectForName(const std::string& name, pnx::OSStatus* status) {
  *status = pnx::SecItemDelete(getKeychainQuery(name));
  return *status == pnx::errSecSuccess;
}

pnx::Value PNXKeychain::identifier(const char* name) {
  pnx::ErrorPtr error;
  pnx::Value value = objectForName(name, &error);
  if (error) {
    PNXLogVerbose("Couldn't get %@ from shared keychain.", name);
  } else {
    PNXLogVerbose("Got %@ from shared keychain.", name);
  }
  return value;
}

void PNXKeychain::setIdentifier(const pnx::Value& value, const char* name) {
  if (setObject(value, name)) {
    PNXLogVerbose("Set %@ in shared keychain.", name);
  } else {
    PNXLogVerbose("Couldn't set %@ in shared keychain.", name);
  }
}

pnx::Value PNXKeychain::userId() {
  return identifier(kUserIdName);
}

void PNXKeychain::setUserId(const pnx::Value& userId) {
  setIdentifier(userId, kUserIdName);
}

pnx::Value PNXKeychain::channelId() {
  return identifier(kChannelIdName);
}

void PNXKeychain::setChannelId(const pnx::Value& channelId) {
  setIdentifier(channelId, kChannelIdName);
}

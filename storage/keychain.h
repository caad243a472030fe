// PNXKeychain: a small persistent name-to-value store over the device's keychain, through
// which the application and its notification service extension share values by way of a
// keychain access group. A store is bound to one service name and, optionally, one access
// group; each name is one generic-password item (the account) whose data is the keyed
// archive of the value. Every item is stored and looked up with the accessibility
// kSecAttrAccessibleAlwaysThisDeviceOnly: items of another accessibility are invisible to
// the store on purpose.
//
// Two stores are used by the kit: the shared store, groupKeychain("PNX"), in the group
// "<teamId>.PNX", which holds "pushQueue", "retryAfter", "userId" and "channelId"; and
// the default store, defaultKeychain(), bound to the bundle identifier and no group.
//
// PNXKeychainItem: one item as read back, with its dates.
//
// Failures are values: writes return false and log the status; reads return null and
// fill the error place (code 104 for a value that cannot be read, 122 when the keychain
// itself is unavailable); a missing item is not an error and leaves the error place alone.
// A store without a service (defaultKeychain() in a bundle without an identifier) raises
// pnx::Exception NSInvalidArgumentException from every operation.
//
// Thread-safety: no cache and no lock of its own; the keychain serialises access to
// items, and service and group are atomic. Any thread may use a store.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "config/atomic_property.h"
#include "platform/foundation/date.h"
#include "platform/foundation/error.h"
#include "platform/foundation/export.h"
#include "platform/foundation/value.h"
#include "platform/security/os_status.h"

class PNX_EXPORT PNXKeychainItem {
 public:
  PNXKeychainItem() = default;

  // initWithKeyDictionary:error: from an attribute dictionary as the keychain returns it.
  // Unarchives its kSecValueData; a null value leaves all three properties null. When the
  // data is not a keyed archive, fills *error with keychainUnarchiveFailed("<unknown>")
  // and returns null.
  static std::shared_ptr<PNXKeychainItem> initWithKeyDictionary(const pnx::Value& keyDictionary,
                                                                pnx::ErrorPtr* error);

  std::optional<pnx::Date> created() const { return created_.load(); }
  void setCreated(std::optional<pnx::Date> created) { created_.store(created); }
  std::optional<pnx::Date> modified() const { return modified_.load(); }
  void setModified(std::optional<pnx::Date> modified) { modified_.store(modified); }
  pnx::Value value() const { return value_.load(); }
  void setValue(pnx::Value value) { value_.store(std::move(value)); }

 private:
  pnx::AtomicProperty<std::optional<pnx::Date>> created_;
  pnx::AtomicProperty<std::optional<pnx::Date>> modified_;
  pnx::AtomicProperty<pnx::Value> value_;
};

class PNX_EXPORT PNXKeychain {
 public:
  // initWithService:; the group stays null.
  explicit PNXKeychain(std::optional<std::string> service);

  static std::shared_ptr<PNXKeychain> keychainWithService(std::optional<std::string> service);
  // The store of the main bundle's identifier, without a group.
  static std::shared_ptr<PNXKeychain> defaultKeychain();
  // The store of service in the group "<teamId>.PNX" of the shared configuration; without
  // a teamId, in the default group.
  static std::shared_ptr<PNXKeychain> groupKeychain(std::optional<std::string> service);

  std::optional<std::string> service() const { return service_.load(); }
  void setService(std::optional<std::string> service) { service_.store(std::move(service)); }
  std::optional<std::string> group() const { return group_.load(); }
  void setGroup(std::optional<std::string> group) { group_.store(std::move(group)); }

  // Class, service, account = name, accessibility, and the group when there is one.
  pnx::Value getKeychainQuery(const std::string& name) const;

  // Updates the item, or adds it when missing, in one transaction: writers racing for the
  // same name all succeed and the last one wins. False (logged, with the database's reason
  // when there is one) on failure.
  bool setObject(const pnx::Value& value, const std::string& name);

  // Given the current value (null when there is no item), the value to store, or nullopt to
  // leave the item as it is.
  using ValueChange = std::function<std::optional<pnx::Value>(const pnx::Value& current)>;
  // Read-modify-write of one item as one transaction of the keychain: change sees the
  // stored value and what it returns is stored, while other threads and processes doing
  // the same to the item wait their turn, so concurrent merges lose nothing. change may
  // run more than once (a lock conflict starts the transaction again), must not use the
  // keychain itself, and may throw (nothing is stored then; the exception passes on). A
  // value that cannot be archived raises NSInvalidArgumentException. False (logged) on
  // failure, with *error: code 104 when the stored data is not an archive (nothing is
  // written then), 122 with the database's failure as underlying error otherwise.
  bool updateObjectForName(const std::string& name, const ValueChange& change,
                           pnx::ErrorPtr* error = nullptr);
  // The unarchived value, or null.
  pnx::Value objectForName(const std::string& name, pnx::ErrorPtr* error);
  // The item with its dates, or null.
  std::shared_ptr<PNXKeychainItem> itemForName(const std::string& name, pnx::ErrorPtr* error);
  // True when an item was deleted.
  bool removeObjectForName(const std::string& name);

  // The same operations, also handing out the keychain's status (for tools that show it).
  bool setObject(const pnx::Value& value, const std::string& name, pnx::OSStatus* status);
  pnx::Value objectForName(const std::string& name, pnx::ErrorPtr* error, pnx::OSStatus* status);
  bool removeObjectForName(const std::string& name, pnx::OSStatus* status);

  // The items "userId" and "channelId"; the getters log and swallow errors (null then).
  pnx::Value userId();
  void setUserId(const pnx::Value& userId);
  pnx::Value channelId();
  void setChannelId(const pnx::Value& channelId);

 private:
  pnx::Value identifier(const char* name);
  void setIdentifier(const pnx::Value& value, const char* name);

  pnx::AtomicProperty<std::optional<std::string>> service_;
  pnx::AtomicProperty<std::optional<std::string>> group_;
};

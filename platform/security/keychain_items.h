// The device's keychain: generic-password items kept in one SQLite database,
// <device>/keychain.db, shared by every process of the device, and reached through the
// four item operations of the platform over query dictionaries.
//
// An item has a class, service, account, access group, accessibility, data, and its
// creation and modification dates. At most one item exists per class + service +
// account + access group, whatever its accessibility. A query names the class, service
// and account, and may name the access group and the accessibility; it matches the items
// that agree with every attribute it names. Statuses are the platform's:
//
//   errSecSuccess 0, errSecItemNotFound -25300, errSecDuplicateItem -25299,
//   errSecMissingEntitlement -34018, errSecInteractionNotAllowed -25308, errSecParam -50.
//
// errSecParam: a query without class, service or account, with a null or a value of the
// wrong type, with an attribute the operation does not take, or of a class other than
// generic password. errSecInteractionNotAllowed: the keychain cannot be used right now
// (the database cannot be opened or read, is not a database, or the disk fails), the
// state a locked device reports, and also a database whose schema is newer than this
// program's, a keychain.db that is a symbolic link, and a device directory that group or
// others can write. Failures are logged to the system log with SQLite's reason. Lock
// conflicts with other processes are waited out for up to a few seconds in total (without
// holding any lock other threads need) and retried; only then are they a failure.
//
// Access groups come from the main bundle's entitlements: the "keychain-access-groups"
// array of <bundle>/Entitlements.plist (XML or binary), or, without that, the bundle's
// identifier alone. An item added without a group goes to the first entitled group; a
// query without a group searches every entitled group, in entitlement order. Naming a
// group outside them gives errSecMissingEntitlement and touches nothing.
//
// Durability: every write is one transaction committed with a full sync of the
// write-ahead log, so an operation that returned errSecSuccess survives a crash of the
// process. The database file is created 0600 in a 0700 directory.
//
// Thread-safety: all functions are thread-safe and may be used from several processes at
// once (also after fork()).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/error.h"
#include "platform/foundation/value.h"
#include "platform/security/os_status.h"

namespace pnx {

// Attribute names and values, with the platform's string values.
inline constexpr const char* kSecClass = "class";
inline constexpr const char* kSecClassGenericPassword = "genp";
inline constexpr const char* kSecAttrService = "svce";
inline constexpr const char* kSecAttrAccount = "acct";
inline constexpr const char* kSecAttrAccessGroup = "agrp";
inline constexpr const char* kSecAttrAccessible = "pdmn";
inline constexpr const char* kSecAttrAccessibleWhenUnlocked = "ak";
inline constexpr const char* kSecAttrAccessibleAfterFirstUnlock = "ck";
inline constexpr const char* kSecAttrAccessibleAlways = "dk";
inline constexpr const char* kSecAttrAccessibleWhenUnlockedThisDeviceOnly = "aku";
inline constexpr const char* kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly = "cku";
inline constexpr const char* kSecAttrAccessibleAlwaysThisDeviceOnly = "dku";
inline constexpr const char* kSecAttrCreationDate = "cdat";
inline constexpr const char* kSecAttrModificationDate = "mdat";
inline constexpr const char* kSecValueData = "v_Data";
inline constexpr const char* kSecReturnData = "r_Data";
inline constexpr const char* kSecReturnAttributes = "r_Attributes";
inline constexpr const char* kSecMatchLimit = "m_Limit";
inline constexpr const char* kSecMatchLimitOne = "m_LimitOne";
inline constexpr const char* kSecMatchLimitAll = "m_LimitAll";

// Finds the items matching query. With a result place and kSecReturnData and/or
// kSecReturnAttributes, *result receives for each match its data, or its attribute
// dictionary (class, service, account, group, accessibility, dates, and kSecValueData when
// data was asked for too): one match by default and with kSecMatchLimitOne, an array with
// kSecMatchLimitAll or a positive count. *result is left alone unless the status is 0.
OSStatus SecItemCopyMatching(const Value& query, Value* result = nullptr);
// Adds an item: the attributes of a query plus kSecValueData (absent: empty data). The
// accessibility defaults to kSecAttrAccessibleWhenUnlocked. With a result place and
// kSecReturnData / kSecReturnAttributes, *result receives the new item as
// SecItemCopyMatching would return it.
OSStatus SecItemAdd(const Value& attributes, Value* result = nullptr);
// Changes the matching items: attributesToUpdate may hold kSecValueData and
// kSecAttrAccessible. The modification date becomes now.
OSStatus SecItemUpdate(const Value& query, const Value& attributesToUpdate);
// Deletes every matching item.
OSStatus SecItemDelete(const Value& query);

// Beyond the platform's four operations: what the kit's own store needs to write an item
// safely while other processes write it too.

// Given an item's current data (nullopt when there is none), its new data, or nullopt to
// leave the item as it is.
using KeychainItemChange = std::function<std::optional<Data>(const std::optional<Data>& current)>;

// Read-modify-write of one item in one write transaction of the keychain database: reads
// the data of the item the query matches, hands it to change, and stores what change
// returns, updating that item or adding a new one as SecItemAdd would (the query's
// attributes, the first entitled group when it names none). Threads and processes changing
// the same item take turns, so every change applies to the result of the one before: none
// is lost, and two first writes never collide. errSecDuplicateItem only when an item of the
// same name and group exists with another accessibility, which the query cannot see.
// change may be called more than once (a lock conflict starts the transaction again) and
// must not use the keychain itself. With errSecInteractionNotAllowed, *reason receives the
// database's failure with SQLite's message.
OSStatus keychainUpdateItem(const Value& query, const KeychainItemChange& change,
                            ErrorPtr* reason = nullptr);
// Stores data as the item's data, updating the item or adding it, in one transaction:
// concurrent writers never fail, and the last one wins.
OSStatus keychainSetItemData(const Value& query, const Data& data, ErrorPtr* reason = nullptr);

// "errSecItemNotFound (-25300): the item cannot be found", for people reading a status.
std::string keychainStatusDescription(OSStatus status);

// The access groups this process is entitled to, in the order the entitlements list them.
std::vector<std::string> keychainAccessGroups();
// <device>/keychain.db
std::string keychainDatabasePath();

}  // namespace pnx

#include "platform/security/keychain_items.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "platform/files/bundle.h"
#include "platform/files/container.h"
#include "platform/files/file_manager.h"
#include "platform/foundation/date.h"
#include "platform/foundation/plist.h"
#include "platform/security/sqlite.h"
#include "platform/system/system_log.h"

// On-disk layout of <device>/keychain.db (user_version 1):
//
//   CREATE TABLE items (class TEXT, service TEXT, account TEXT, access_group TEXT,
//                       accessible TEXT, data BLOB, created REAL, modified REAL,
//                       PRIMARY KEY (class, service, account, access_group))
//
// The text columns hold the attribute values as given (class "genp", accessibility
// "dku", ...); data holds the item's bytes as given; the dates are seconds since
// 1970-01-01 UTC.

namespace pnx {

namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS items ("
    " class TEXT NOT NULL, service TEXT NOT NULL, account TEXT NOT NULL,"
    " access_group TEXT NOT NULL, accessible TEXT NOT NULL, data BLOB NOT NULL,"
    " created REAL NOT NULL, modified REAL NOT NULL,"
    " PRIMARY KEY (class, service, account, access_group));"
    "PRAGMA user_version = 1;";
constexpr std::int64_t kSchemaVersion = 1;

constexpr const char* kColumns =
    "class, service, account, access_group, accessible, data, created, modified";

// How long lock conflicts with other processes are waited out, in total, before the
// keychain counts as unavailable: well inside the time a notification service extension
// has for its whole work. The waiting happens between tries, without any lock held.
constexpr auto kBusyPatience = std::chrono::seconds(3);
constexpr auto kLongestPause = std::chrono::milliseconds(20);

enum class Operation { CopyMatching, Add, Update, Delete };

// A query dictionary, checked and typed.
struct ItemQuery {
  std::string itemClass;
  std::string service;
  std::string account;
  std::optional<std::string> group;
  std::optional<std::string> accessible;
  std::optional<Data> data;
  bool returnData = false;
  bool returnAttributes = false;
  // Matches to return; 0 means all.
  std::size_t limit = 1;
};

struct StoredItem {
  std::string itemClass, service, account, group, accessible;
  Data data;
  Date created, modified;
};

bool isAccessibility(const std::string& value) {
  for (const char* known :
       {kSecAttrAccessibleWhenUnlocked, kSecAttrAccessibleAfterFirstUnlock,
        kSecAttrAccessibleAlways, kSecAttrAccessibleWhenUnlockedThisDeviceOnly,
        kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly, kSecAttrAccessibleAlwaysThisDeviceOnly}) {
    if (value == known) return true;
  }
  return false;
}

bool takes(Operation operation, const std::string& key) {
  if (key == kSecClass || key == kSecAttrService || key == kSecAttrAccount ||
      key == kSecAttrAccessGroup || key == kSecAttrAccessible) {
    return true;
  }
  if (key == kSecReturnData || key == kSecReturnAttributes) {
    return operation == Operation::CopyMatching || operation == Operation::Add;
  }
  if (key == kSecMatchLimit) return operation == Operation::CopyMatching;
  if (key == kSecValueData) return operation == Operation::Add;
  return false;
}

// Reads one entry of the query into item; false for a value of the wrong type.
bool readEntry(const std::string& key, const Value& value, ItemQuery* item) {
  if (key == kSecValueData) {
    if (!value.isData()) return false;
    item->data = *value.asData();
    return true;
  }
  if (key == kSecReturnData || key == kSecReturnAttributes) {
    if (!value.isNumber()) return false;
    (key == kSecReturnData ? item->returnData : item->returnAttributes) = value.boolValue();
    return true;
  }
  if (key == kSecMatchLimit) {
    if (value == Value(kSecMatchLimitOne)) {
      item->limit = 1;
    } else if (value == Value(kSecMatchLimitAll)) {
      item->limit = 0;
    } else if (value.isInteger() && value.integerValue() > 0) {
      item->limit = static_cast<std::size_t>(value.integerValue());
    } else {
      return false;
    }
    return true;
  }
  const std::string* text = value.asString();
  if (!text) return false;
  if (key == kSecClass) {
    item->itemClass = *text;
    return *text == kSecClassGenericPassword;
  }
  if (key == kSecAttrService) item->service = *text;
  if (key == kSecAttrAccount) item->account = *text;
  if (key == kSecAttrAccessGroup) item->group = *text;
  if (key == kSecAttrAccessible) {
    item->accessible = *text;
    return isAccessibility(*text);
  }
  return true;
}

OSStatus parseQuery(const Value& query, Operation operation, ItemQuery* item) {
  const Dictionary* entries = query.asDictionary();
  if (!entries) return errSecParam;
  for (const auto& [key, value] : *entries) {
    const std::string* name = key.asString();
    if (!name || !takes(operation, *name) || !readEntry(*name, value, item)) return errSecParam;
  }
  for (const char* required : {kSecClass, kSecAttrService, kSecAttrAccount}) {
    if (!query.contains(Value(required))) return errSecParam;
  }
  return errSecSuccess;
}

Value attributesOf(const StoredItem& stored) {
  Dictionary attributes;
  attributes[Value(kSecClass)] = Value(stored.itemClass);
  attributes[Value(kSecAttrService)] = Value(stored.service);
  attributes[Value(kSecAttrAccount)] = Value(stored.account);
  attributes[Value(kSecAttrAccessGroup)] = Value(stored.group);
  attributes[Value(kSecAttrAccessible)] = Value(stored.accessible);
  attributes[Value(kSecAttrCreationDate)] = Value(stored.created);
  attributes[Value(kSecAttrModificationDate)] = Value(stored.modified);
  return Value(std::move(attributes));
}

// What SecItemCopyMatching hands back for one item.
Value resultFor(const StoredItem& stored, const ItemQuery& query) {
  if (!query.returnAttributes) return Value(stored.data);
  Value attributes = attributesOf(stored);
  if (!query.returnData) return attributes;
  Dictionary withData = *attributes.asDictionary();
  withData[Value(kSecValueData)] = Value(stored.data);
  return Value(std::move(withData));
}

StoredItem storedItemFrom(const SQLiteResultSet& row) {
  auto text = [&row](int column) {
    Value value = row.valueForColumnIndex(column);
    return value.isString() ? *value.asString() : std::string();
  };
  StoredItem item{text(0), text(1), text(2), text(3), text(4), {}, {}, {}};
  Value data = row.valueForColumnIndex(5);
  if (data.isData()) item.data = *data.asData();
  item.created = Date(row.valueForColumnIndex(6).doubleValue());
  item.modified = Date(row.valueForColumnIndex(7).doubleValue());
  return item;
}

// The WHERE clause of a query over the given groups, and its arguments.
std::string whereClause(const ItemQuery& query, const std::vector<std::string>& groups,
                        std::vector<Value>* arguments) {
  std::string clause = " WHERE class = ? AND service = ? AND account = ? AND access_group IN (";
  arguments->insert(arguments->end(),
                    {Value(query.itemClass), Value(query.service), Value(query.account)});
  for (std::size_t i = 0; i < groups.size(); ++i) {
    clause += i == 0 ? "?" : ", ?";
    arguments->push_back(Value(groups[i]));
  }
  clause += ")";
  if (query.accessible) {
    clause += " AND accessible = ?";
    arguments->push_back(Value(*query.accessible));
  }
  return clause;
}

// A database operation: the status for the caller, or nullopt with *error when the
// database failed.
using Work = std::function<std::optional<OSStatus>(SQLiteDatabase& database, ErrorPtr* error)>;

// Failures of the keychain database go to the system log with SQLite's reason, as the
// platform's keychain reports its own.
void logFailure(const ErrorPtr& error) {
  static const SystemLog* log = new SystemLog("pnx.platform", "keychain");
  std::string reason = error ? error->localizedDescription() : "unknown failure";
  log->write(LogType::Error, "keychain database unavailable: " + reason);
}

// A random pause of up to limit, so that processes retrying together drift apart.
std::chrono::microseconds jittered(std::chrono::microseconds limit) {
  thread_local std::minstd_rand random(std::random_device{}());
  std::uniform_int_distribution<std::int64_t> pick(limit.count() / 2, limit.count());
  return std::chrono::microseconds(pick(random));
}

// The process's connection to the device's keychain database and its entitlements.
// One mutex serialises both; the connection is closed before fork() so that a child
// never inherits SQLite's state for an open file.
class Keychain {
 public:
  static Keychain& shared() {
    static Keychain* keychain = [] {
      auto* created = new Keychain();  // never destroyed: used until the process ends
      pthread_atfork([] { Keychain::shared().beforeFork(); },
                     [] { Keychain::shared().afterFork(); },
                     [] { Keychain::shared().afterFork(); });
      // Closing the last connection folds the write-ahead log back into keychain.db, so
      // the file alone holds every item once the process has ended.
      std::atexit([] { Keychain::shared().closeAtExit(); });
      return created;
    }();
    return *keychain;
  }

  std::vector<std::string> accessGroups() {
    std::lock_guard lock(mutex_);
    return accessGroupsLocked();
  }

  // Runs work against the database, waiting out lock conflicts with other connections; a
  // database that cannot be used gives errSecInteractionNotAllowed, logged, with the reason
  // in *reason. The connection never waits inside SQLite (its busy timeout is 0): a
  // conflict comes back at once and the pause before the next try is taken without the
  // mutex, so other threads keep using the keychain meanwhile. work may run more than once.
  OSStatus run(const Work& work, ErrorPtr* reason = nullptr) {
    auto giveUp = std::chrono::steady_clock::now() + kBusyPatience;
    std::chrono::microseconds pause = std::chrono::milliseconds(1);
    for (;;) {
      ErrorPtr error;
      {
        std::lock_guard lock(mutex_);
        SQLiteDatabase* database = connection(&error);
        if (database) {
          auto status = work(*database, &error);
          if (status) return *status;
        }
        if (!SQLiteDatabase::isBusy(error) || std::chrono::steady_clock::now() >= giveUp) {
          database_.reset();  // reopen next time: the file may have been repaired meanwhile
          logFailure(error);
          if (reason) *reason = error;
          return errSecInteractionNotAllowed;
        }
      }
      std::this_thread::sleep_for(jittered(pause));
      pause = std::min<std::chrono::microseconds>(pause * 2, kLongestPause);
    }
  }

  std::vector<std::string> groupsFor(const ItemQuery& query, OSStatus* status) {
    std::lock_guard lock(mutex_);
    const std::vector<std::string>& entitled = accessGroupsLocked();
    *status = errSecSuccess;
    if (entitled.empty()) {
      *status = errSecMissingEntitlement;
      return {};
    }
    if (!query.group) return entitled;
    if (std::find(entitled.begin(), entitled.end(), *query.group) == entitled.end()) {
      *status = errSecMissingEntitlement;
      return {};
    }
    return {*query.group};
  }

 private:
  Keychain() = default;

  void beforeFork() {
    mutex_.lock();
    database_.reset();
  }
  void afterFork() { mutex_.unlock(); }
  void closeAtExit() {
    std::lock_guard lock(mutex_);
    database_.reset();
  }

  SQLiteDatabase* connection(ErrorPtr* error) {
    std::string path = keychainDatabasePath();
    if (database_ && database_->path() == path) return database_.get();
    database_.reset();
    if (!Device::preparePrivateDirectory(error)) return nullptr;
    SQLiteDatabase::Options options;
    options.busyTimeoutMilliseconds = 0;  // run() waits, without holding the mutex
    options.newestUserVersion = kSchemaVersion;
    auto database = SQLiteDatabase::open(path, options, error);
    if (!database || !ensureSchema(*database, error)) return nullptr;
    database_ = std::move(database);
    return database_.get();
  }

  // Creates the table in a new database; an existing one is only read, so that opening
  // costs no write.
  static bool ensureSchema(SQLiteDatabase& database, ErrorPtr* error) {
    std::int64_t version = 0;
    {
      auto rows = database.query("PRAGMA user_version", {}, error);
      if (!rows) return false;
      ErrorPtr stepError;
      if (rows->next(&stepError)) version = rows->valueForColumnIndex(0).integerValue();
      if (stepError) {
        *error = stepError;
        return false;
      }
    }
    if (version >= kSchemaVersion) return true;
    return database.transaction(
        [&database](ErrorPtr* failure) { return database.execute(kSchema, failure); }, error);
  }

  const std::vector<std::string>& accessGroupsLocked() {
    auto bundle = Bundle::main();
    if (bundle == entitlementsBundle_ && entitlementsRead_) return groups_;
    entitlementsBundle_ = bundle;
    entitlementsRead_ = true;
    groups_ = bundle ? entitledGroups(*bundle) : std::vector<std::string>();
    return groups_;
  }

  // "keychain-access-groups" of the bundle's Entitlements.plist, or its identifier alone
  // when the file has no such array.
  static std::vector<std::string> entitledGroups(const Bundle& bundle) {
    std::vector<std::string> groups;
    auto path = bundle.pathForResource("Entitlements", "plist");
    auto entitlements = path ? propertyListWithContentsOfFile(*path) : std::nullopt;
    const Value& listed = entitlements ? (*entitlements)["keychain-access-groups"] : Value();
    if (listed.isArray()) {
      for (const Value& group : *listed.asArray()) {
        if (group.isString() && !group.asString()->empty()) groups.push_back(*group.asString());
      }
      return groups;
    }
    if (auto identifier = bundle.bundleIdentifier()) groups.push_back(*identifier);
    return groups;
  }

  std::mutex mutex_;
  std::unique_ptr<SQLiteDatabase> database_;
  std::shared_ptr<const Bundle> entitlementsBundle_;
  bool entitlementsRead_ = false;
  std::vector<std::string> groups_;
};

// Parses the query and resolves the groups it may touch.
OSStatus prepare(const Value& dictionary, Operation operation, ItemQuery* query,
                 std::vector<std::string>* groups) {
  OSStatus status = parseQuery(dictionary, operation, query);
  if (status != errSecSuccess) return status;
  *groups = Keychain::shared().groupsFor(*query, &status);
  return status;
}

std::optional<std::vector<StoredItem>> findItems(SQLiteDatabase& database, const ItemQuery& query,
                                                 const std::vector<std::string>& groups,
                                                 ErrorPtr* error) {
  std::vector<Value> arguments;
  std::string sql =
      std::string("SELECT ") + kColumns + " FROM items" + whereClause(query, groups, &arguments);
  auto rows = database.query(sql, arguments, error);
  if (!rows) return std::nullopt;
  std::vector<StoredItem> items;
  ErrorPtr stepError;
  while (rows->next(&stepError)) items.push_back(storedItemFrom(*rows));
  if (stepError) {
    *error = stepError;
    return std::nullopt;
  }
  // The groups' entitlement order decides which match comes first.
  auto rank = [&groups](const StoredItem& item) {
    return std::find(groups.begin(), groups.end(), item.group) - groups.begin();
  };
  std::stable_sort(items.begin(), items.end(),
                   [&](const StoredItem& a, const StoredItem& b) { return rank(a) < rank(b); });
  return items;
}

// A new item of the query's attributes in group, created and modified now.
StoredItem newItem(const ItemQuery& query, const std::string& group, Data data) {
  StoredItem item{query.itemClass,
                  query.service,
                  query.account,
                  group,
                  query.accessible.value_or(kSecAttrAccessibleWhenUnlocked),
                  std::move(data),
                  Date::now(),
                  {}};
  item.modified = item.created;
  return item;
}

// Inserts item unless one of the same class, service, account and group exists (then
// changes() is 0).
bool insertItem(SQLiteDatabase& database, const StoredItem& item, ErrorPtr* error) {
  std::string sql =
      std::string("INSERT OR IGNORE INTO items (") + kColumns + ") VALUES (?, ?, ?, ?, ?, ?, ?, ?)";
  return database.execute(
      sql,
      {Value(item.itemClass), Value(item.service), Value(item.account), Value(item.group),
       Value(item.accessible), Value(item.data), Value(item.created), Value(item.modified)},
      error);
}

// Gives the stored item new data, modified now.
bool replaceData(SQLiteDatabase& database, const StoredItem& item, const Data& data,
                 ErrorPtr* error) {
  return database.execute(
      "UPDATE items SET data = ?, modified = ?"
      " WHERE class = ? AND service = ? AND account = ? AND access_group = ?",
      {Value(data), Value(Date::now()), Value(item.itemClass), Value(item.service),
       Value(item.account), Value(item.group)},
      error);
}

Value resultsFor(const std::vector<StoredItem>& items, const ItemQuery& query) {
  if (query.limit == 1) return resultFor(items.front(), query);
  Array results;
  for (const StoredItem& item : items) {
    if (query.limit != 0 && results.size() == query.limit) break;
    results.push_back(resultFor(item, query));
  }
  return Value(std::move(results));
}

}  // namespace

std::string keychainDatabasePath() {
  return pathByAppendingComponent(Device::directory(), "keychain.db");
}

std::string keychainStatusDescription(OSStatus status) {
  struct Known {
    OSStatus status;
    const char* name;
    const char* meaning;
  };
  static constexpr Known kKnown[] = {
      {errSecSuccess, "errSecSuccess", "no error"},
      {errSecItemNotFound, "errSecItemNotFound", "the item cannot be found"},
      {errSecDuplicateItem, "errSecDuplicateItem", "the item already exists"},
      {errSecMissingEntitlement, "errSecMissingEntitlement",
       "the access group is not among the bundle's keychain-access-groups"},
      {errSecInteractionNotAllowed, "errSecInteractionNotAllowed",
       "the keychain database cannot be used"},
      {errSecParam, "errSecParam", "the query is not valid"},
  };
  for (const Known& known : kKnown) {
    if (known.status == status) {
      return std::string(known.name) + " (" + std::to_string(status) + "): " + known.meaning;
    }
  }
  return "status " + std::to_string(status);
}

std::vector<std::string> keychainAccessGroups() {
  return Keychain::shared().accessGroups();
}

OSStatus SecItemCopyMatching(const Value& dictionary, Value* result) {
  ItemQuery query;
  std::vector<std::string> groups;
  OSStatus status = prepare(dictionary, Operation::CopyMatching, &query, &groups);
  if (status != errSecSuccess) return status;
  return Keychain::shared().run(
      [&](SQLiteDatabase& database, ErrorPtr* error) -> std::optional<OSStatus> {
        auto items = findItems(database, query, groups, error);
        if (!items) return std::nullopt;
        if (items->empty()) return errSecItemNotFound;
        if (result && (query.returnData || query.returnAttributes)) {
          *result = resultsFor(*items, query);
        }
        return errSecSuccess;
      });
}

OSStatus SecItemAdd(const Value& attributes, Value* result) {
  ItemQuery query;
  std::vector<std::string> groups;
  OSStatus status = prepare(attributes, Operation::Add, &query, &groups);
  if (status != errSecSuccess) return status;
  StoredItem item = newItem(query, groups.front(), query.data.value_or(Data()));
  return Keychain::shared().run(
      [&](SQLiteDatabase& database, ErrorPtr* error) -> std::optional<OSStatus> {
        if (!insertItem(database, item, error)) return std::nullopt;
        if (database.changes() == 0) return errSecDuplicateItem;
        if (result && (query.returnData || query.returnAttributes))
          *result = resultFor(item, query);
        return errSecSuccess;
      });
}

OSStatus SecItemUpdate(const Value& dictionary, const Value& attributesToUpdate) {
  ItemQuery query;
  std::vector<std::string> groups;
  OSStatus status = prepare(dictionary, Operation::Update, &query, &groups);
  if (status != errSecSuccess) return status;
  const Dictionary* changes = attributesToUpdate.asDictionary();
  if (!changes || changes->empty()) return errSecParam;
  std::string assignments = "modified = ?";
  std::vector<Value> arguments{Value(Date::now())};
  for (const auto& [key, value] : *changes) {
    if (key == Value(kSecValueData) && value.isData()) {
      assignments += ", data = ?";
    } else if (key == Value(kSecAttrAccessible) && value.isString() &&
               isAccessibility(*value.asString())) {
      assignments += ", accessible = ?";
    } else {
      return errSecParam;
    }
    arguments.push_back(value);
  }
  std::string sql = "UPDATE items SET " + assignments + whereClause(query, groups, &arguments);
  return Keychain::shared().run(
      [&](SQLiteDatabase& database, ErrorPtr* error) -> std::optional<OSStatus> {
        if (!database.execute(sql, arguments, error)) return std::nullopt;
        return database.changes() == 0 ? errSecItemNotFound : errSecSuccess;
      });
}

OSStatus SecItemDelete(const Value& dictionary) {
  ItemQuery query;
  std::vector<std::string> groups;
  OSStatus status = prepare(dictionary, Operation::Delete, &query, &groups);
  if (status != errSecSuccess) return status;
  std::vector<Value> arguments;
  std::string sql = "DELETE FROM items" + whereClause(query, groups, &arguments);
  return Keychain::shared().run(
      [&](SQLiteDatabase& database, ErrorPtr* error) -> std::optional<OSStatus> {
        if (!database.execute(sql, arguments, error)) return std::nullopt;
        return database.changes() == 0 ? errSecItemNotFound : errSecSuccess;
      });
}

OSStatus keychainUpdateItem(const Value& dictionary, const KeychainItemChange& change,
                            ErrorPtr* reason) {
  ItemQuery query;
  std::vector<std::string> groups;
  OSStatus status = prepare(dictionary, Operation::Update, &query, &groups);
  if (status != errSecSuccess) return status;
  return Keychain::shared().run(
      [&](SQLiteDatabase& database, ErrorPtr* error) -> std::optional<OSStatus> {
        OSStatus result = errSecSuccess;
        bool done = database.transaction(
            [&](ErrorPtr* failure) {
              auto items = findItems(database, query, groups, failure);
              if (!items) return false;
              std::optional<Data> current;
              if (!items->empty()) current = std::move(items->front().data);
              std::optional<Data> next = change(current);
              if (!next) return true;
              if (!items->empty()) return replaceData(database, items->front(), *next, failure);
              if (!insertItem(database, newItem(query, groups.front(), *next), failure)) {
                return false;
              }
              // Only an item the query cannot see (another accessibility) blocks the add.
              if (database.changes() == 0) result = errSecDuplicateItem;
              return true;
            },
            error);
        if (!done) return std::nullopt;
        return result;
      },
      reason);
}

OSStatus keychainSetItemData(const Value& query, const Data& data, ErrorPtr* reason) {
  return keychainUpdateItem(
      query, [&data](const std::optional<Data>&) { return std::optional<Data>(data); }, reason);
}

}  // namespace pnx

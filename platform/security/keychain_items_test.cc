#include "platform/security/keychain_items.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/log_capture_test.h"
#include "platform/files/fixtures_test.h"
#include "platform/security/sqlite.h"
#include "platform/security/sqlite_io.h"

namespace pnx {
namespace {

constexpr const char* kBundleId = "com.example.keychain";

Value query(const char* account,
            std::initializer_list<std::pair<std::string_view, Value>> more = {}) {
  Dictionary entries{{Value(kSecClass), Value(kSecClassGenericPassword)},
                     {Value(kSecAttrService), Value("svc")},
                     {Value(kSecAttrAccount), Value(account)}};
  for (const auto& [key, value] : more) entries[Value(key)] = value;
  return Value(std::move(entries));
}

constexpr auto npos = std::string::npos;

Data bytes(std::string_view text) {
  return Data(text.begin(), text.end());
}

// What a search that must succeed finds.
Value found(const Value& search) {
  Value result;
  EXPECT_EQ(SecItemCopyMatching(search, &result), errSecSuccess) << search.description();
  return result;
}

// The data stored for account (searching every entitled group).
std::string readText(const char* account) {
  const Value result = found(query(account, {{kSecReturnData, true}}));
  const Data* data = result.asData();
  return data ? std::string(data->begin(), data->end()) : "";
}

// The reason a write failed for, "" when it succeeded.
std::string failedWrite(const char* account, const char* text) {
  ErrorPtr reason;
  OSStatus status = keychainSetItemData(query(account), bytes(text), &reason);
  if (status == errSecSuccess) return "";
  EXPECT_EQ(status, errSecInteractionNotAllowed);
  return reason ? reason->localizedDescription() : "<no reason>";
}

class KeychainItems : public ::testing::Test {
 protected:
  KeychainItems() : device_(kBundleId) { Clock::set(Date(1700000000)); }
  ~KeychainItems() override {
    Clock::useSystemClock();
    SQLiteIO::setCurrent(nullptr);
  }

  testing::ScopedDevice device_;
  LogCapture log_;
};

TEST_F(KeychainItems, ItemsAreAddedFoundUpdatedAndDeletedAndMalformedQueriesRefused) {
  Value item = query("a", {{kSecValueData, bytes("one")},
                           {kSecAttrAccessible, kSecAttrAccessibleAlwaysThisDeviceOnly}});
  EXPECT_EQ(SecItemCopyMatching(query("a")), errSecItemNotFound);
  EXPECT_EQ(SecItemAdd(item), errSecSuccess);
  EXPECT_EQ(SecItemAdd(item), errSecDuplicateItem);
  EXPECT_EQ(readText("a"), "one");

  Clock::advance(60);
  EXPECT_EQ(SecItemUpdate(query("a"), Value::dict({{kSecValueData, bytes("two")}})), errSecSuccess);
  const Value attributes = found(query(
      "a",
      {{kSecReturnData, true}, {kSecReturnAttributes, true}, {kSecMatchLimit, kSecMatchLimitOne}}));
  EXPECT_EQ(attributes[kSecValueData], Value(bytes("two")));
  EXPECT_EQ(attributes[kSecAttrAccessGroup], Value(kBundleId)) << attributes.description();
  EXPECT_EQ(attributes[kSecAttrAccessible], Value(kSecAttrAccessibleAlwaysThisDeviceOnly));
  EXPECT_EQ(attributes[kSecAttrCreationDate], Value(Date(1700000000)));
  EXPECT_EQ(attributes[kSecAttrModificationDate], Value(Date(1700000060)));

  EXPECT_EQ(SecItemUpdate(query("b"), Value::dict({{kSecValueData, bytes("x")}})),
            errSecItemNotFound);
  EXPECT_EQ(SecItemDelete(query("a", {{kSecAttrAccessible, kSecAttrAccessibleWhenUnlocked}})),
            errSecItemNotFound);
  EXPECT_EQ(SecItemDelete(query("a")), errSecSuccess);
  EXPECT_EQ(SecItemDelete(query("a")), errSecItemNotFound);

  EXPECT_EQ(testing::modeOf(device_.deviceDirectory()), 0700u);

  const Value badQueries[] = {
      Value("not a dictionary"),
      Value::dict({{kSecAttrService, "svc"}, {kSecAttrAccount, "a"}}),
      query("a", {{kSecClass, "inet"}}),
      query("a", {{kSecAttrService, Value()}}),
      query("a", {{kSecAttrService, 7}}),
      query("a", {{kSecAttrAccessible, "sometimes"}}),
      query("a", {{"labl", "unknown attribute"}}),
      query("a", {{kSecMatchLimit, 0}}),
      query("a", {{kSecValueData, "text is not data"}}),
  };
  for (const Value& bad : badQueries) {
    EXPECT_EQ(SecItemCopyMatching(bad), errSecParam) << bad.description();
    EXPECT_EQ(SecItemAdd(bad), errSecParam) << bad.description();
    EXPECT_EQ(SecItemDelete(bad), errSecParam) << bad.description();
  }
  ASSERT_EQ(SecItemAdd(query("a")), errSecSuccess);
  for (const Value& change : {Value::dict({}), Value::dict({{kSecAttrAccount, "b"}}),
                              Value::dict({{kSecValueData, Value()}})}) {
    EXPECT_EQ(SecItemUpdate(query("a"), change), errSecParam) << change.description();
  }
}

TEST_F(KeychainItems, AccessGroupsFollowTheEntitlements) {
  EXPECT_EQ(keychainAccessGroups(), std::vector<std::string>{kBundleId});  // no entitlements

  device_.writeBundleFile(
      "Entitlements.plist",
      "<plist version=\"1.0\"><dict><key>keychain-access-groups</key><array>"
      "<string>TEAM.shared</string><string>TEAM.other</string></array></dict></plist>");
  EXPECT_EQ(keychainAccessGroups(), (std::vector<std::string>{"TEAM.shared", "TEAM.other"}));
  ASSERT_EQ(SecItemAdd(
                query("a", {{kSecAttrAccessGroup, "TEAM.other"}, {kSecValueData, bytes("other")}})),
            errSecSuccess);
  ASSERT_EQ(SecItemAdd(query("a", {{kSecValueData, bytes("first")}})), errSecSuccess);
  EXPECT_EQ(readText("a"), "first");  // the first entitled group comes first

  const Value all =
      found(query("a", {{kSecReturnAttributes, true}, {kSecMatchLimit, kSecMatchLimitAll}}));
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ((*all.asArray())[0][kSecAttrAccessGroup], Value("TEAM.shared"));
  EXPECT_EQ((*all.asArray())[1][kSecAttrAccessGroup], Value("TEAM.other"));

  const Value foreign = query("a", {{kSecAttrAccessGroup, kBundleId}});
  EXPECT_EQ(SecItemAdd(foreign), errSecMissingEntitlement);
  EXPECT_EQ(SecItemCopyMatching(foreign), errSecMissingEntitlement);
  EXPECT_EQ(SecItemDelete(foreign), errSecMissingEntitlement);

  // Deleting without a group removes the item from every entitled group.
  EXPECT_EQ(SecItemDelete(query("a")), errSecSuccess);
  EXPECT_EQ(SecItemCopyMatching(query("a")), errSecItemNotFound);

  // A bundle with neither entitlements nor identifier may use no group at all.
  testing::ScopedDevice anonymous("");
  EXPECT_EQ(SecItemAdd(query("a")), errSecMissingEntitlement);
}

// A writer waits out another connection's write lock without blocking readers, gives up
// within seconds saying why, and gets through if the lock is released while it waits.
TEST_F(KeychainItems, ABusyDatabaseIsWaitedOutBrieflyWithoutBlockingOtherThreads) {
  using std::chrono::steady_clock;
  ASSERT_EQ(failedWrite("a", "before"), "");
  auto other = SQLiteDatabase::open(keychainDatabasePath());
  ASSERT_TRUE(other && other->execute("BEGIN IMMEDIATE"));
  auto start = steady_clock::now();
  std::thread writer([] { EXPECT_NE(failedWrite("a", "x").find("database is locked"), npos); });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(readText("a"), "before");
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(1));
  writer.join();
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(6));
  EXPECT_EQ(readText("a"), "before");
  EXPECT_TRUE(log_.contains("database is locked"));

  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    other->execute("COMMIT");
  });
  EXPECT_EQ(failedWrite("a", "after"), "");
  releaser.join();
}

// A disk under the store whose writes fail with code, or whose syncs fail with SQLITE_IOERR_FSYNC.
struct FailingDisk : SQLiteIO {
  explicit FailingDisk(int code) : code(code) {}
  int write(const File& file, const void* bytes, int amount, std::int64_t offset) override {
    return code != SQLITE_IOERR_FSYNC ? code : SQLiteIO::write(file, bytes, amount, offset);
  }
  int sync(const File& file, int flags) override {
    return code == SQLITE_IOERR_FSYNC ? code : SQLiteIO::sync(file, flags);
  }
  int code;
};

// Each failed write is reported with SQLite's reason and the store works once it clears.
TEST_F(KeychainItems, AFailedWriteLosesNothingStoredBefore) {
  const std::pair<int, const char*> faults[] = {{SQLITE_FULL, "database or disk is full"},
                                                {SQLITE_IOERR_WRITE, "disk I/O error"},
                                                {SQLITE_IOERR_FSYNC, "disk I/O error"}};
  ASSERT_EQ(failedWrite("kept", "v0"), "");
  int round = 0;
  for (const auto& [code, message] : faults) {
    std::string before = "v" + std::to_string(round), after = "v" + std::to_string(++round);
    SQLiteIO::setCurrent(std::make_shared<FailingDisk>(code));
    EXPECT_NE(failedWrite("kept", "failed").find(message), npos) << code;
    SQLiteIO::setCurrent(nullptr);
    // A commit whose sync failed may still count, as the disk decided; others change nothing.
    std::string stored = readText("kept");
    EXPECT_TRUE(stored == before || (code == SQLITE_IOERR_FSYNC && stored == "failed")) << code;
    EXPECT_EQ(failedWrite("kept", after.c_str()), "") << code;
    EXPECT_EQ(readText("kept"), after) << code;
    EXPECT_TRUE(log_.contains(message)) << code;
  }
  // A first write that fails leaves no item behind.
  SQLiteIO::setCurrent(std::make_shared<FailingDisk>(SQLITE_FULL));
  EXPECT_NE(failedWrite("new", "failed"), "");
  SQLiteIO::setCurrent(nullptr);
  EXPECT_EQ(SecItemCopyMatching(query("new")), errSecItemNotFound);
}

// Refused and left as they are: keychain.db as a (dangling) symbolic link, a device
// directory others can write, a newer schema, and a file that is no database at all.
TEST_F(KeychainItems, UntrustworthyFilesAreRefusedAndLeftAlone) {
  std::string device = device_.deviceDirectory(), elsewhere = device_.root().file("other.db");
  std::filesystem::create_directories(device);
  ASSERT_EQ(symlink(elsewhere.c_str(), keychainDatabasePath().c_str()), 0);
  EXPECT_NE(failedWrite("a", "x").find("symbolic link"), npos);
  EXPECT_FALSE(std::filesystem::exists(elsewhere));
  ASSERT_TRUE(SQLiteDatabase::open(elsewhere));
  EXPECT_EQ(SecItemCopyMatching(query("a")), errSecInteractionNotAllowed);
  std::filesystem::remove(keychainDatabasePath());

  for (mode_t mode : {0777, 0720, 0702}) {
    ASSERT_EQ(chmod(device.c_str(), mode), 0);
    std::string reason = failedWrite("a", "x");
    EXPECT_NE(reason.find(device + " can be written by group or others"), npos) << reason;
  }
  EXPECT_FALSE(std::filesystem::exists(keychainDatabasePath()));
  ASSERT_EQ(chmod(device.c_str(), 0750), 0);

  SQLiteDatabase::Options rollbackJournal;
  rollbackJournal.writeAheadLog = false;
  ASSERT_TRUE(SQLiteDatabase::open(keychainDatabasePath(), rollbackJournal)
                  ->execute("CREATE TABLE future (x); PRAGMA user_version = 99;"));
  std::string original = device_.root().read("device/keychain.db");
  EXPECT_NE(failedWrite("a", "x").find("schema version 99"), npos);
  EXPECT_EQ(device_.root().read("device/keychain.db"), original);
  EXPECT_FALSE(std::filesystem::exists(keychainDatabasePath() + "-wal"));

  std::string garbage(8192, '\x5a');
  device_.root().write("device/keychain.db", garbage);
  EXPECT_EQ(SecItemCopyMatching(query("a")), errSecInteractionNotAllowed);
  EXPECT_EQ(SecItemAdd(query("a")), errSecInteractionNotAllowed);
  EXPECT_EQ(device_.root().read("device/keychain.db"), garbage);
}

}  // namespace
}  // namespace pnx

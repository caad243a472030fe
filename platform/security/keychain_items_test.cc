#include "platform/security/keychain_items.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/files/fixtures_test.h"
#include "platform/security/sqlite.h"

namespace pnx {
namespace {

constexpr const char* kBundleId = "com.example.keychain";

std::string entitlementsPlist(std::initializer_list<const char*> groups) {
  std::string text =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
      "<key>keychain-access-groups</key>\n<array>\n";
  for (const char* group : groups) text += std::string("<string>") + group + "</string>\n";
  return text + "</array>\n</dict>\n</plist>\n";
}

Value query(const char* account,
            std::initializer_list<std::pair<std::string_view, Value>> more = {}) {
  Dictionary entries{{Value(kSecClass), Value(kSecClassGenericPassword)},
                     {Value(kSecAttrService), Value("svc")},
                     {Value(kSecAttrAccount), Value(account)}};
  for (const auto& [key, value] : more) entries[Value(key)] = value;
  return Value(std::move(entries));
}

Data bytes(std::string_view text) {
  return Data(text.begin(), text.end());
}

// The data stored for account (searching every entitled group), or "" when none.
std::string readText(const char* account) {
  Value result;
  if (SecItemCopyMatching(query(account, {{kSecReturnData, true}}), &result) != errSecSuccess) {
    return "";
  }
  const Data* data = result.asData();
  return data ? std::string(data->begin(), data->end()) : "<not data>";
}

class KeychainItems : public ::testing::Test {
 protected:
  KeychainItems() : device_(kBundleId) { Clock::set(Date(1700000000)); }
  ~KeychainItems() override { Clock::useSystemClock(); }

  testing::ScopedDevice device_;
};

TEST_F(KeychainItems, ItemsAreAddedFoundUpdatedAndDeleted) {
  Value item = query("a", {{kSecValueData, bytes("one")},
                           {kSecAttrAccessible, kSecAttrAccessibleAlwaysThisDeviceOnly}});
  EXPECT_EQ(SecItemCopyMatching(query("a")), errSecItemNotFound);
  EXPECT_EQ(SecItemAdd(item), errSecSuccess);
  EXPECT_EQ(SecItemAdd(item), errSecDuplicateItem);
  // Uniqueness ignores accessibility; matching does not.
  EXPECT_EQ(SecItemAdd(query("a", {{kSecAttrAccessible, kSecAttrAccessibleWhenUnlocked}})),
            errSecDuplicateItem);
  EXPECT_EQ(SecItemCopyMatching(query("a", {{kSecAttrAccessible, kSecAttrAccessibleWhenUnlocked}})),
            errSecItemNotFound);
  EXPECT_EQ(readText("a"), "one");

  Clock::advance(60);
  EXPECT_EQ(SecItemUpdate(query("a"), Value::dict({{kSecValueData, bytes("two")}})), errSecSuccess);
  Value attributes;
  ASSERT_EQ(SecItemCopyMatching(query("a", {{kSecReturnData, true},
                                            {kSecReturnAttributes, true},
                                            {kSecMatchLimit, kSecMatchLimitOne}}),
                                &attributes),
            errSecSuccess);
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

  struct stat info {};
  ASSERT_EQ(stat(keychainDatabasePath().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  ASSERT_EQ(stat(device_.deviceDirectory().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
}

TEST_F(KeychainItems, MalformedQueriesAreParameterErrors) {
  const Value badQueries[] = {
      Value("not a dictionary"),
      Value::dict({{kSecAttrService, "svc"}, {kSecAttrAccount, "a"}}),
      Value::dict({{kSecClass, kSecClassGenericPassword}, {kSecAttrAccount, "a"}}),
      Value::dict({{kSecClass, kSecClassGenericPassword}, {kSecAttrService, "svc"}}),
      query("a", {{kSecClass, "inet"}}),
      query("a", {{kSecAttrService, Value()}}),
      query("a", {{kSecAttrAccessGroup, Value()}}),
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
  // Without entitlements the bundle identifier is the one group.
  EXPECT_EQ(keychainAccessGroups(), std::vector<std::string>{kBundleId});

  device_.writeBundleFile("Entitlements.plist", entitlementsPlist({"TEAM.shared", "TEAM.other"}));
  EXPECT_EQ(keychainAccessGroups(), (std::vector<std::string>{"TEAM.shared", "TEAM.other"}));
  ASSERT_EQ(SecItemAdd(
                query("a", {{kSecAttrAccessGroup, "TEAM.other"}, {kSecValueData, bytes("other")}})),
            errSecSuccess);
  ASSERT_EQ(SecItemAdd(query("a", {{kSecValueData, bytes("first")}})), errSecSuccess);
  EXPECT_EQ(readText("a"), "first");  // the first entitled group comes first

  Value all;
  ASSERT_EQ(
      SecItemCopyMatching(
          query("a", {{kSecReturnAttributes, true}, {kSecMatchLimit, kSecMatchLimitAll}}), &all),
      errSecSuccess);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ((*all.asArray())[0][kSecAttrAccessGroup], Value("TEAM.shared"));
  EXPECT_EQ((*all.asArray())[1][kSecAttrAccessGroup], Value("TEAM.other"));

  Value foreign = query("a", {{kSecAttrAccessGroup, kBundleId}, {kSecValueData, bytes("x")}});
  EXPECT_EQ(SecItemAdd(foreign), errSecMissingEntitlement);
  EXPECT_EQ(SecItemCopyMatching(query("a", {{kSecAttrAccessGroup, kBundleId}})),
            errSecMissingEntitlement);
  EXPECT_EQ(SecItemDelete(query("a", {{kSecAttrAccessGroup, kBundleId}})),
            errSecMissingEntitlement);
  auto database = SQLiteDatabase::open(keychainDatabasePath());
  ASSERT_TRUE(database);
  auto rows =
      database->query("SELECT count(*) AS n FROM items WHERE access_group = ?", {Value(kBundleId)});
  ASSERT_TRUE(rows && rows->next());
  EXPECT_EQ(rows->valueForColumn("n"), Value(0));

  // Deleting without a group removes the item from every entitled group.
  EXPECT_EQ(SecItemDelete(query("a")), errSecSuccess);
  EXPECT_EQ(SecItemCopyMatching(query("a")), errSecItemNotFound);

  // A bundle with neither entitlements nor identifier may use no group at all.
  testing::ScopedDevice anonymous("");
  EXPECT_EQ(SecItemAdd(query("a")), errSecMissingEntitlement);
}

TEST_F(KeychainItems, AnUnreadableDatabaseMeansInteractionNotAllowed) {
  std::string garbage(8192, '\x5a');
  device_.root().write("device/keychain.db", garbage);
  EXPECT_EQ(SecItemCopyMatching(query("a")), errSecInteractionNotAllowed);
  EXPECT_EQ(SecItemAdd(query("a")), errSecInteractionNotAllowed);
  EXPECT_EQ(SecItemDelete(query("a")), errSecInteractionNotAllowed);
  EXPECT_EQ(device_.root().read("device/keychain.db"), garbage);  // left as it was
}

TEST_F(KeychainItems, ThreadsShareTheKeychainSafely) {
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &failures] {
      for (int round = 0; round < 20; ++round) {
        std::string account = "t" + std::to_string(t) + "-" + std::to_string(round);
        if (SecItemAdd(query(account.c_str(), {{kSecValueData, bytes(account)}})) !=
                errSecSuccess ||
            readText(account.c_str()) != account) {
          ++failures;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
}

// Each child adds its own items and overwrites one shared item in a loop, reading both
// back every time; the parent then checks that every item arrived.
TEST_F(KeychainItems, ConcurrentProcessesLoseNothing) {
  constexpr int kChildren = 2;
  constexpr int kRounds = 60;
  ASSERT_EQ(SecItemAdd(query("shared", {{kSecValueData, bytes("start")}})), errSecSuccess);
  std::vector<pid_t> children;
  for (int child = 0; child < kChildren; ++child) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid > 0) {
      children.push_back(pid);
      continue;
    }
    int failures = 0;
    for (int round = 0; round < kRounds; ++round) {
      std::string own = "own-" + std::to_string(child) + "-" + std::to_string(round);
      std::string text = "child" + std::to_string(child) + "-" + std::to_string(round);
      if (SecItemAdd(query(own.c_str(), {{kSecValueData, bytes(text)}})) != errSecSuccess) {
        ++failures;
      }
      if (SecItemUpdate(query("shared"), Value::dict({{kSecValueData, bytes(text)}})) !=
          errSecSuccess) {
        ++failures;
      }
      if (readText(own.c_str()) != text) ++failures;
      std::string shared = readText("shared");
      if (!shared.starts_with("child")) ++failures;
    }
    _exit(failures == 0 ? 0 : 1);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  }
  for (int child = 0; child < kChildren; ++child) {
    for (int round = 0; round < kRounds; ++round) {
      std::string own = "own-" + std::to_string(child) + "-" + std::to_string(round);
      EXPECT_EQ(readText(own.c_str()),
                "child" + std::to_string(child) + "-" + std::to_string(round));
    }
  }
  EXPECT_TRUE(readText("shared").ends_with("-" + std::to_string(kRounds - 1)));
}

}  // namespace
}  // namespace pnx

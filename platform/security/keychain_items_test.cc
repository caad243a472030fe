#include "platform/security/keychain_items.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/files/fixtures_test.h"
#include "platform/security/sqlite.h"
#include "platform/security/sqlite_io.h"
#include "platform/system/system_log.h"

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

// Two processes append to one item at the same time, each through read-modify-write
// transactions: every element of both arrives.
TEST_F(KeychainItems, ConcurrentReadModifyWritesLoseNothing) {
  constexpr int kChildren = 2;
  constexpr int kRounds = 40;
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
      std::string element = std::to_string(child) + "-" + std::to_string(round) + ";";
      auto append = [&element](const std::optional<Data>& current) {
        Data next = current.value_or(Data());
        next.insert(next.end(), element.begin(), element.end());
        return std::optional<Data>(next);
      };
      if (keychainUpdateItem(query("queue"), append) != errSecSuccess) ++failures;
    }
    _exit(failures == 0 ? 0 : 1);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  }
  std::string stored = readText("queue");
  for (int child = 0; child < kChildren; ++child) {
    for (int round = 0; round < kRounds; ++round) {
      std::string element = std::to_string(child) + "-" + std::to_string(round) + ";";
      EXPECT_NE(stored.find(element), std::string::npos) << element;
    }
  }
  EXPECT_EQ(std::count(stored.begin(), stored.end(), ';'), kChildren * kRounds);

  // A change that keeps the item writes nothing; a change that throws leaves it as it was.
  EXPECT_EQ(keychainUpdateItem(query("queue"), [](auto&) { return std::optional<Data>(); }),
            errSecSuccess);
  EXPECT_THROW(
      keychainUpdateItem(query("queue"),
                         [](auto&) -> std::optional<Data> { throw std::runtime_error("x"); }),
      std::runtime_error);
  EXPECT_EQ(readText("queue"), stored);
  EXPECT_EQ(keychainSetItemData(query("queue"), bytes("reset")), errSecSuccess);
  EXPECT_EQ(readText("queue"), "reset");
}

// Collects the system-log lines while it lives.
class SystemLogLines : public LogSink {
 public:
  SystemLogLines() : previous_(SystemLog::sink()) {}
  ~SystemLogLines() override = default;
  void systemLog(LogType, std::string_view, std::string_view, std::string_view text) override {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(text);
  }
  void console(std::string_view) override {}
  bool contains(std::string_view text) {
    std::lock_guard lock(mutex_);
    return std::any_of(lines_.begin(), lines_.end(),
                       [&](const std::string& line) { return line.find(text) != line.npos; });
  }

 private:
  std::shared_ptr<LogSink> previous_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

class KeychainFailures : public KeychainItems {
 protected:
  KeychainFailures() : lines_(std::make_shared<SystemLogLines>()) { SystemLog::setSink(lines_); }
  ~KeychainFailures() override {
    SystemLog::setSink(nullptr);
    SQLiteIO::setCurrent(nullptr);
  }

  // The reason of a failed write, "" when it succeeded.
  static std::string failedWrite(const char* account, const char* text) {
    ErrorPtr reason;
    OSStatus status = keychainSetItemData(query(account), bytes(text), &reason);
    if (status == errSecSuccess) return "";
    EXPECT_EQ(status, errSecInteractionNotAllowed);
    return reason ? reason->localizedDescription() : "<no reason>";
  }

  std::shared_ptr<SystemLogLines> lines_;
};

// Another connection holds the write lock: a writer waits without blocking readers of
// other threads, gives up after a few seconds, and says why.
TEST_F(KeychainFailures, BusyDatabaseIsWaitedOutBrieflyWithoutBlockingOtherThreads) {
  ASSERT_EQ(SecItemAdd(query("a", {{kSecValueData, bytes("before")}})), errSecSuccess);
  auto other = SQLiteDatabase::open(keychainDatabasePath());
  ASSERT_TRUE(other && other->execute("BEGIN IMMEDIATE"));

  using Clock = std::chrono::steady_clock;
  std::atomic<bool> writerStarted{false};
  std::string writerReason;
  auto writerStart = Clock::now();
  Clock::duration writerTook{};
  std::thread writer([&] {
    writerStarted = true;
    writerReason = failedWrite("a", "blocked");
    writerTook = Clock::now() - writerStart;
  });
  while (!writerStarted) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  auto readStart = Clock::now();
  EXPECT_EQ(readText("a"), "before");
  EXPECT_LT(Clock::now() - readStart, std::chrono::seconds(1));
  writer.join();
  EXPECT_NE(writerReason.find("database is locked"), std::string::npos) << writerReason;
  EXPECT_LT(writerTook, std::chrono::seconds(6));
  EXPECT_TRUE(lines_->contains("database is locked"));

  // Once the lock is gone within the wait, the write goes through.
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    other->execute("COMMIT");
  });
  EXPECT_EQ(failedWrite("a", "after"), "");
  releaser.join();
  EXPECT_EQ(readText("a"), "after");
}

// Fakes of the disk under every SQLite store: each failed write is reported with SQLite's
// reason, leaves what was stored before it, and the keychain works once the fault clears.
class FailingDisk : public SQLiteIO {
 public:
  explicit FailingDisk(int code) : code_(code) {}
  int write(const File& file, const void* bytes, int amount, std::int64_t offset) override {
    return code_ == SQLITE_FULL || code_ == SQLITE_IOERR_WRITE
               ? code_
               : SQLiteIO::write(file, bytes, amount, offset);
  }
  int sync(const File& file, int flags) override {
    return code_ == SQLITE_IOERR_FSYNC ? code_ : SQLiteIO::sync(file, flags);
  }
  int shmLock(const File& file, int offset, int count, int flags) override {
    // Offset 0 is the write-ahead log's writer lock, which another writer would hold.
    bool takesWriteLock =
        offset == 0 && (flags & SQLITE_SHM_LOCK) && (flags & SQLITE_SHM_EXCLUSIVE);
    return code_ == SQLITE_BUSY && takesWriteLock ? SQLITE_BUSY
                                                  : SQLiteIO::shmLock(file, offset, count, flags);
  }

 private:
  int code_;
};

TEST_F(KeychainFailures, AFailedWriteLosesNothingStoredBefore) {
  struct Fault {
    int code;
    const char* message;
    // Whether the failed write may still be found later: a commit whose frames all reached
    // the log but whose sync failed is durable or not, as the disk decided.
    bool mayLand;
  };
  const Fault faults[] = {
      {SQLITE_FULL, "database or disk is full", false},
      {SQLITE_IOERR_WRITE, "disk I/O error", false},
      {SQLITE_BUSY, "database is locked", false},
      {SQLITE_IOERR_FSYNC, "disk I/O error", true},  // the commit's sync fails
  };
  ASSERT_EQ(failedWrite("kept", "v0"), "");
  int round = 0;
  for (const Fault& fault : faults) {
    std::string before = "v" + std::to_string(round);
    std::string after = "v" + std::to_string(++round);
    SQLiteIO::setCurrent(std::make_shared<FailingDisk>(fault.code));
    std::string reason = failedWrite("kept", "failed");
    EXPECT_NE(reason.find(fault.message), std::string::npos) << fault.code << ": " << reason;
    SQLiteIO::setCurrent(nullptr);
    std::string stored = readText("kept");
    if (fault.mayLand && stored == "failed") stored = before;
    EXPECT_EQ(stored, before) << fault.code;
    EXPECT_EQ(failedWrite("kept", after.c_str()), "") << fault.code;
    EXPECT_EQ(readText("kept"), after) << fault.code;
    EXPECT_TRUE(lines_->contains(fault.message)) << fault.code;
  }
  // A first write that fails leaves no item behind.
  SQLiteIO::setCurrent(std::make_shared<FailingDisk>(SQLITE_FULL));
  EXPECT_NE(failedWrite("new", "failed"), "");
  SQLiteIO::setCurrent(nullptr);
  EXPECT_EQ(SecItemCopyMatching(query("new")), errSecItemNotFound);
}

// keychain.db must be the device's own file: a symbolic link in its place, even one
// pointing nowhere, is refused and nothing is created at its target.
TEST_F(KeychainFailures, ASymbolicLinkForTheDatabaseIsRefused) {
  std::filesystem::create_directories(device_.deviceDirectory());
  std::string elsewhere = device_.root().file("elsewhere.db");
  ASSERT_EQ(symlink(elsewhere.c_str(), keychainDatabasePath().c_str()), 0);
  std::string reason = failedWrite("a", "x");
  EXPECT_NE(reason.find("symbolic link"), std::string::npos) << reason;
  EXPECT_FALSE(std::filesystem::exists(elsewhere));

  // Also when the target is a real database.
  ASSERT_TRUE(SQLiteDatabase::open(elsewhere));
  EXPECT_NE(failedWrite("a", "x"), "");
  EXPECT_EQ(SecItemCopyMatching(query("a")), errSecInteractionNotAllowed);
  EXPECT_TRUE(std::filesystem::is_symlink(keychainDatabasePath()));
}

TEST_F(KeychainFailures, ADeviceDirectoryOthersCanWriteIsRefused) {
  std::filesystem::create_directories(device_.deviceDirectory());
  for (mode_t mode : {0777, 0720, 0702}) {
    ASSERT_EQ(chmod(device_.deviceDirectory().c_str(), mode), 0);
    std::string reason = failedWrite("a", "x");
    EXPECT_NE(reason.find(device_.deviceDirectory()), std::string::npos) << reason;
    EXPECT_NE(reason.find("written by group or others"), std::string::npos) << reason;
  }
  EXPECT_FALSE(std::filesystem::exists(keychainDatabasePath()));
  ASSERT_EQ(chmod(device_.deviceDirectory().c_str(), 0750), 0);
  EXPECT_EQ(failedWrite("a", "x"), "");
}

// A database written by a newer program is left exactly as it is.
TEST_F(KeychainFailures, ADatabaseWithANewerSchemaIsRefusedAndNotWritten) {
  std::filesystem::create_directories(device_.deviceDirectory());
  SQLiteDatabase::Options rollbackJournal;
  rollbackJournal.writeAheadLog = false;
  {
    auto newer = SQLiteDatabase::open(keychainDatabasePath(), rollbackJournal);
    ASSERT_TRUE(newer);
    ASSERT_TRUE(newer->execute("CREATE TABLE future (x); PRAGMA user_version = 99;"));
  }
  std::string path = "device/keychain.db";
  std::string original = device_.root().read(path);
  std::string reason = failedWrite("a", "x");
  EXPECT_NE(reason.find("schema version 99"), std::string::npos) << reason;
  EXPECT_EQ(SecItemCopyMatching(query("a")), errSecInteractionNotAllowed);
  EXPECT_EQ(device_.root().read(path), original);
  EXPECT_FALSE(std::filesystem::exists(keychainDatabasePath() + "-wal"));
}

}  // namespace
}  // namespace pnx

#include "storage/keychain.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "config/config.h"
#include "diagnostics/log_capture_test.h"
#include "platform/files/fixtures_test.h"
#include "platform/security/keychain_items.h"

namespace {

constexpr const char* kBundleId = "com.example.keychain.store";

// A raw item of service "svc" beside the store's own items.
pnx::OSStatus addRawItem(const char* account, const std::string& text) {
  return pnx::SecItemAdd(
      pnx::Value::dict({{pnx::kSecClass, pnx::kSecClassGenericPassword},
                        {pnx::kSecAttrService, "svc"},
                        {pnx::kSecAttrAccount, account},
                        {pnx::kSecAttrAccessible, pnx::kSecAttrAccessibleAlwaysThisDeviceOnly},
                        {pnx::kSecValueData, pnx::Data(text.begin(), text.end())}}));
}

// "code: description" of an error, or "none".
std::string summary(const pnx::ErrorPtr& error) {
  return error ? std::to_string(error->code()) + ": " + error->localizedDescription() : "none";
}

class KeychainStore : public ::testing::Test {
 protected:
  KeychainStore() : device_(kBundleId) {
    PNXLog::sharedInstance().setLogLevelName("trace");
    pnx::Clock::set(pnx::Date(1700000000));
  }
  ~KeychainStore() override { pnx::Clock::useSystemClock(); }

  pnx::testing::ScopedDevice device_;
  LogCapture log_;
  PNXKeychain store_{"svc"};
  pnx::ErrorPtr error_;
};

// Reads with nothing to report leave the error they were given in place.
TEST_F(KeychainStore, SetObjectAddsThenUpdatesAndMissingItemsAreNullWithoutAnError) {
  error_ = pnx::Error::make("sentinel", 1);
  EXPECT_TRUE(store_.objectForName("name", &error_).isNull());
  EXPECT_FALSE(store_.itemForName("name", &error_));
  ASSERT_TRUE(store_.setObject("first", "name"));
  pnx::Clock::advance(30);
  const pnx::Value value = pnx::Value::array({pnx::Date(5), 7});
  ASSERT_TRUE(store_.setObject(value, "name"));
  EXPECT_EQ(store_.objectForName("name", &error_), value);
  auto item = store_.itemForName("name", &error_);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->value(), value);
  EXPECT_EQ(item->created(), pnx::Date(1700000000));
  EXPECT_EQ(item->modified(), pnx::Date(1700000030));

  // A stored null comes back as null, and as an item with no properties.
  ASSERT_TRUE(store_.setObject(pnx::Value(), "nothing"));
  EXPECT_TRUE(store_.objectForName("nothing", &error_).isNull());
  item = store_.itemForName("nothing", &error_);
  ASSERT_TRUE(item);
  EXPECT_FALSE(item->created());
  EXPECT_TRUE(item->value().isNull());
  EXPECT_EQ(error_->domain(), "sentinel");

  EXPECT_TRUE(store_.removeObjectForName("name"));
  EXPECT_FALSE(store_.removeObjectForName("name"));
}

// Data that is no archive is never handed to an update's change nor overwritten; a change
// that returns nothing keeps the item.
TEST_F(KeychainStore, DataThatIsNoArchiveIsAnUnarchiveFailureAndIsNeverOverwritten) {
  ASSERT_EQ(addRawItem("junk", "not an archive"), pnx::errSecSuccess);
  EXPECT_TRUE(store_.objectForName("junk", &error_).isNull());
  EXPECT_EQ(summary(error_), "104: Keychain unarchive of junk failed");
  ASSERT_TRUE(error_->underlyingException());
  EXPECT_EQ(error_->underlyingException()->name(), pnx::NSInvalidUnarchiveOperationException);
  EXPECT_FALSE(store_.itemForName("junk", &error_));
  EXPECT_EQ(summary(error_), "104: Keychain unarchive of <unknown> failed");

  auto toOne = [](const pnx::Value& current) {
    return current.isNull() ? std::optional<pnx::Value>(1) : std::nullopt;
  };
  error_ = nullptr;
  EXPECT_FALSE(store_.updateObjectForName("junk", toOne, &error_));
  EXPECT_EQ(error_->code(), 104);
  EXPECT_TRUE(log_.contains("Could not update keychain name junk"));
  EXPECT_EQ(store_.objectForName("junk", &error_), pnx::Value());
  EXPECT_TRUE(store_.updateObjectForName("fresh", toOne));
  EXPECT_TRUE(store_.updateObjectForName("fresh", toOne));
  EXPECT_EQ(store_.objectForName("fresh", &error_), pnx::Value(1));

  EXPECT_TRUE(store_.userId().isNull());
  ASSERT_EQ(addRawItem("userId", "junk"), pnx::errSecSuccess);
  EXPECT_TRUE(store_.userId().isNull());
  EXPECT_TRUE(log_.contains("Couldn't get userId from shared keychain."));
}

TEST_F(KeychainStore, AnUnavailableKeychainFailsEveryOperation) {
  device_.root().write("device/keychain.db", std::string(4096, 'x'));
  EXPECT_TRUE(store_.objectForName("name", &error_).isNull());
  EXPECT_EQ(summary(error_), "104: Keychain unarchive of name failed");
  EXPECT_FALSE(error_->underlyingException());
  EXPECT_FALSE(store_.itemForName("name", &error_));
  EXPECT_EQ(summary(error_), "122: Keychain is inaccessible.");

  EXPECT_FALSE(store_.setObject("v", "name"));
  EXPECT_TRUE(log_.contains("Could not set keychain name name to value v, return -25308"));
  EXPECT_FALSE(store_.removeObjectForName("name"));
  store_.setChannelId("c");
  EXPECT_TRUE(log_.contains("Couldn't set channelId in shared keychain."));
}

// The default store is the bundle identifier's; the group store is in the team's shared
// group, or in the default group without a team.
TEST_F(KeychainStore, TheDefaultStoreIsTheBundlesAndTheGroupStoreTheTeams) {
  auto store = PNXKeychain::defaultKeychain();
  EXPECT_EQ(store->service(), kBundleId);
  EXPECT_FALSE(store->group());
  EXPECT_TRUE(log_.contains(std::string("keychain bundleId: ") + kBundleId));

  auto config = PNXConfig::sharedInstanceWithDictionary(pnx::Value::dict({}));
  PNXLog::sharedInstance().setLogLevelName("trace");  // the configuration sets its own
  config->setTeamId(std::nullopt);
  EXPECT_FALSE(PNXKeychain::groupKeychain("PNX")->group());
  EXPECT_TRUE(log_.contains(
      "Can not create keychain group with teamId, there is no teamId in config file."));

  config->setTeamId("ABCDE12345");
  device_.writeBundleFile("Entitlements.plist",
                          "<plist version=\"1.0\"><dict><key>keychain-access-groups</key>"
                          "<array><string>ABCDE12345.PNX</string></array></dict></plist>");
  auto shared = PNXKeychain::groupKeychain("PNX");
  EXPECT_EQ(shared->group(), "ABCDE12345.PNX");
  EXPECT_TRUE(log_.contains("Created keychain group with teamId"));

  shared->setUserId("user-1");
  shared->setChannelId("channel-1");
  EXPECT_EQ(shared->channelId(), pnx::Value("channel-1"));
  EXPECT_TRUE(log_.contains("Set userId in shared keychain."));
  EXPECT_TRUE(log_.contains("Got channelId from shared keychain."));

  // Without an identifier there is no service, and every operation raises.
  device_.writeBundleFile("Info.plist", "<plist version=\"1.0\"><dict/></plist>");
  auto broken = PNXKeychain::defaultKeychain();
  EXPECT_FALSE(broken->service());
  EXPECT_THROW(broken->setObject("v", "name"), pnx::Exception);
  EXPECT_THROW(broken->objectForName("name", &error_), pnx::Exception);
}

// Two processes, lined up each round by a shared barrier, write the same new name and merge a
// record into one queue: every write succeeds, each name holds one value, no record is lost.
TEST_F(KeychainStore, ConcurrentWritersNeverCollideAndMergesLoseNothing) {
  constexpr int kRounds = 40;
  auto* barrier = static_cast<pthread_barrier_t*>(mmap(nullptr, sizeof(pthread_barrier_t),
                                                       PROT_READ | PROT_WRITE,
                                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(barrier, MAP_FAILED);
  pthread_barrierattr_t attributes;
  pthread_barrierattr_init(&attributes);
  pthread_barrierattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  ASSERT_EQ(pthread_barrier_init(barrier, &attributes, 2), 0);
  pid_t children[2];
  for (int child = 0; child < 2; ++child) {
    children[child] = fork();
    if (children[child] > 0) continue;
    PNXKeychain store("svc");
    int failures = 0;
    for (int i = 0; i < kRounds; ++i) {
      pthread_barrier_wait(barrier);
      failures += !store.setObject("p" + std::to_string(child), "name-" + std::to_string(i));
      failures += !store.updateObjectForName("pushQueue", [&](const pnx::Value& current) {
        pnx::Array queue = current.isArray() ? *current.asArray() : pnx::Array();
        queue.push_back(pnx::Value::dict({{"child", child}, {"i", i}}));
        return std::optional<pnx::Value>(pnx::Value(std::move(queue)));
      });
    }
    _exit(std::min(failures, 100));
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "failures: " << status;
  }
  pthread_barrier_destroy(barrier);
  munmap(barrier, sizeof(pthread_barrier_t));
  for (int i = 0; i < kRounds; ++i) {
    pnx::Value value = store_.objectForName("name-" + std::to_string(i), &error_);
    EXPECT_TRUE(value == pnx::Value("p0") || value == pnx::Value("p1")) << value.description();
  }
  pnx::Value queue = store_.objectForName("pushQueue", &error_);
  ASSERT_TRUE(queue.isArray()) << queue.description();
  EXPECT_EQ(pnx::Set(queue.asArray()->begin(), queue.asArray()->end()).size(), 2u * kRounds);
}

}  // namespace

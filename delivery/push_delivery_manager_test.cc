#include "delivery/push_delivery_manager.h"

#include <gtest/gtest.h>

#include <future>
#include <random>
#include <thread>

#include "delivery/delivery_records.h"
#include "delivery/delivery_server_test.h"
#include "delivery/delivery_fixture_test.h"
#include "delivery/in_flight.h"
#include "platform/security/sqlite_io.h"

#include <sqlite3.h>

namespace pnx::testing {
namespace {

Value pushWith(const std::string& attribution, Value mailingId = Value(7)) {
  return Value::dict(
      {{"aps", Value::dict({{"alert", "hello"}})},
       {"pnx", Value::dict({{"attribution", attribution}, {"mailingId", mailingId}})}});
}

Value recordFor(const std::string& attribution, Value mailingId = Value(7)) {
  return Value::dict({{"userId", "user-1"},
                      {"channelId", "channel-1"},
                      {"attribution", attribution},
                      {"mailingId", mailingId}});
}

class DeliveryManagerTest : public DeliveryTest {
 protected:
  void SetUp() override {
    DeliveryTest::SetUp();
    useServer(server_.baseUrl());
    store_->setUserId("user-1");
    store_->setChannelId("channel-1");
    manager_->setKeychain(store_);
    log_.clear();
  }

  struct Outcome {
    std::size_t sent = 0;
    ErrorPtr error;
  };
  // Starts a send or a resend; the future gets its outcome.
  using Completion = PNXPushDeliveryMananger::SendCompletion;
  static std::future<Outcome> start(const std::function<void(Completion)>& call) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    call([promise](std::size_t sent, ErrorPtr error) { promise->set_value({sent, error}); });
    return promise->get_future();
  }
  std::future<Outcome> startPush(const Value& payload) {
    return start([&](Completion done) { manager_->sendPushDelivery(payload, done); });
  }
  Outcome push(const Value& payload) { return wait(startPush(payload)); }
  Outcome resend() {
    return wait(start([&](Completion done) { manager_->resendPushDelivery(done); }));
  }
  static Outcome wait(std::future<Outcome> outcome) {
    EXPECT_EQ(outcome.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    return outcome.get();
  }
  // The records of each request the server received.
  std::vector<Set> sentRecords() {
    std::vector<Set> sent;
    for (const auto& request : server_.requests()) {
      const Array* records = request.records().asArray();
      sent.push_back(records ? Set(records->begin(), records->end()) : Set());
    }
    return sent;
  }
  // What is stored, read as an independent reader would.
  Value stored(const char* name) {
    ErrorPtr error;
    return store_->objectForName(name, &error);
  }
  Set storedQueue() {
    return queueFromStoredValue(stored(kPushQueueItem)).value_or(Set{Value("unreadable")});
  }

  DeliveryServer server_;
  std::shared_ptr<PNXKeychain> store_ = PNXKeychain::keychainWithService("PNX");
  std::shared_ptr<PNXPushDeliveryMananger> manager_ = std::make_shared<PNXPushDeliveryMananger>();
};

TEST_F(DeliveryManagerTest, ReportingOffTouchesNothing) {
  PNXConfig::sharedInstance()->setDeliveryReporting(false);
  EXPECT_EQ(push(pushWith("a")).sent, 0u);
  EXPECT_EQ(resend().sent, 0u);
  EXPECT_TRUE(server_.requests().empty());
  EXPECT_TRUE(stored(kPushQueueItem).isNull());
  EXPECT_TRUE(stored(kPushQueueInFlightItem).isNull());
  EXPECT_EQ(log_.lines(), (std::vector<std::string>{
                              "⚫️ Not sending push delivery because config flag is false",
                              "⚫️ Not resending push delivery because config flag is false"}));
}

TEST_F(DeliveryManagerTest, FirstPushIsReportedAndLeavesNothingBehind) {
  // A queue that is not an array counts as empty, like the missing item.
  ASSERT_TRUE(store_->setObject(Value("not an array"), kPushQueueItem));
  Outcome outcome = push(pushWith("att-1", Value("mail-9")));
  EXPECT_EQ(outcome.sent, 1u);
  EXPECT_EQ(outcome.error, nullptr);
  EXPECT_EQ(sentRecords(), std::vector<Set>{{recordFor("att-1", Value("mail-9"))}});
  EXPECT_EQ(stored(kPushQueueItem), Value(Array()));
  EXPECT_TRUE(manager_->inFlightRecords().empty());
  EXPECT_TRUE(stored(kRetryAfterItem).isNull());
  EXPECT_TRUE(log_.contains("Couldn't get pushQueue from keychain"));
  EXPECT_TRUE(log_.contains("Queued delivery payload in keychain"));
  EXPECT_TRUE(log_.contains("Sent delivery payload to server!"));
}

TEST_F(DeliveryManagerTest, FailedSendsRequeueAndEqualRecordsCollapse) {
  // What a failed send leaves (no retry time, nothing in flight) is pnx queue's to show.
  server_.respondWith(500, {{"Retry-After", "60"}}, "down");
  push(pushWith("same"));
  push(pushWith("same"));
  EXPECT_EQ(sentRecords(), (std::vector<Set>(2, {recordFor("same")})));
  EXPECT_EQ(storedQueue(), Set{recordFor("same")});
  EXPECT_TRUE(log_.contains("Couldn't send delivery payload to server, queuing in keychain!"));
}

// The back-off date's own rules are checked with retryGateOpen; here, sends wait for it.
TEST_F(DeliveryManagerTest, TooManyRequestsHoldsSendsBackUntilTheStoredDateHasPassed) {
  Date start(2'000'000'000);
  Clock::set(start);
  server_.respondWith(429);
  push(pushWith("a"));
  EXPECT_EQ(stored(kRetryAfterItem), Value(start.addingTimeInterval(10)));

  server_.respondWith(200);
  Clock::advance(5);
  EXPECT_EQ(push(pushWith("b")).sent, 0u);
  EXPECT_EQ(storedQueue(), (Set{recordFor("a"), recordFor("b")}));
  EXPECT_TRUE(log_.contains("retryAfter: " + start.addingTimeInterval(10).description()));
  EXPECT_TRUE(log_.contains("Queueing send push delivery queue because previous 429"));
  Clock::set(start.addingTimeInterval(10));
  EXPECT_EQ(resend().sent, 0u);

  Clock::set(start.addingTimeInterval(11));
  EXPECT_EQ(push(pushWith("c")).sent, 3u);
  EXPECT_EQ(sentRecords(),
            (std::vector<Set>{{recordFor("a")}, {recordFor("a"), recordFor("b"), recordFor("c")}}));
  EXPECT_EQ(storedQueue(), Set{});
}

TEST_F(DeliveryManagerTest, DuringASendTheQueueIsEmptyAndAFailureKeepsWhatCameMeanwhile) {
  server_.respondWith(500);
  server_.hold();
  auto first = startPush(pushWith("a"));
  ASSERT_TRUE(server_.waitForRequests(1));
  auto second = startPush(pushWith("b"));
  ASSERT_TRUE(server_.waitForRequests(2));
  EXPECT_EQ(stored(kPushQueueItem), Value(Array()));
  EXPECT_EQ(manager_->inFlightRecords(), (Set{recordFor("a"), recordFor("b")}));

  server_.release();
  wait(std::move(first));
  wait(std::move(second));
  EXPECT_EQ(storedQueue(), (Set{recordFor("a"), recordFor("b")}));
  EXPECT_TRUE(manager_->inFlightRecords().empty());
}

TEST_F(DeliveryManagerTest, ConcurrentSendsInOneProcessLoseNothing) {
  // The server fails about half the requests, in every way it can.
  std::mutex randomMutex;
  std::mt19937 random(12345);
  server_.respond([&](const DeliveryServer::Request&) {
    std::lock_guard lock(randomMutex);
    const auto roll = random() % 4;
    if (roll == 0) return DeliveryServer::Answer{500, {}, "busy"};
    if (roll == 1) return DeliveryServer::Answer{429, {{"Retry-After", "0"}}, "slow down"};
    return DeliveryServer::Answer{};
  });
  constexpr int kThreads = 6, kPushes = 8;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPushes; ++i)
        manager_->sendPushDelivery(pushWith(std::to_string(t * 100 + i)));
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(PNXPushDeliveryMananger::waitForOutstandingSends(std::chrono::steady_clock::now() +
                                                               std::chrono::seconds(30)));
  server_.respondWith(200);
  for (int round = 0; round < 5 && !storedQueue().empty(); ++round) resend();

  // Records are sent again until answered 200, so every distinct record the server saw was
  // not dropped before sending.
  Set accepted;
  for (const Set& records : sentRecords()) accepted.insert(records.begin(), records.end());
  EXPECT_EQ(accepted.size(), static_cast<std::size_t>(kThreads * kPushes));
  EXPECT_EQ(storedQueue(), Set{});
  EXPECT_TRUE(manager_->inFlightRecords().empty());
}

// A disk whose writes fail with "database or disk is full" while it is switched on.
class FullDisk : public SQLiteIO {
 public:
  int write(const File& file, const void* bytes, int amount, std::int64_t offset) override {
    return full ? SQLITE_FULL : SQLiteIO::write(file, bytes, amount, offset);
  }
  std::atomic<bool> full{false};
};

TEST_F(DeliveryManagerTest, AFailingKeychainLosesNothingThatWasStored) {
  auto disk = std::make_shared<FullDisk>();
  SQLiteIO::setCurrent(disk);
  server_.respondWith(500);
  push(pushWith("stored"));
  ASSERT_EQ(storedQueue(), Set{recordFor("stored")});

  // Every write of the next push fails: the new record cannot be stored, but the queue
  // that was stored stays as it was, whatever the server answers.
  disk->full = true;
  log_.clear();
  for (int status : {500, 200}) {
    server_.respondWith(status);
    EXPECT_EQ(push(pushWith("unstorable")).sent, 2u);
  }
  EXPECT_TRUE(log_.contains("Couldn't queue delivery payload in keychain"));
  EXPECT_TRUE(log_.contains("Couldn't record in-flight delivery payload in keychain"));
  disk->full = false;
  EXPECT_EQ(storedQueue(), Set{recordFor("stored")});
  EXPECT_TRUE(manager_->inFlightRecords().empty());
  SQLiteIO::setCurrent(nullptr);
}

TEST_F(DeliveryManagerTest, TheRecordReadsUserIdBeforeChannelId) {
  manager_->generatePayload(pushWith("order"));
  std::vector<std::string> reads;
  for (const std::string& line : log_.lines()) {
    if (line.find("from shared keychain.") != std::string::npos) reads.push_back(line);
  }
  EXPECT_EQ(reads, (std::vector<std::string>{"⚫️ Got userId from shared keychain.",
                                             "⚫️ Got channelId from shared keychain."}));
}

TEST_F(DeliveryManagerTest, AHeldBackPushTellsThatItsQueueWasNotStored) {
  auto disk = std::make_shared<FullDisk>();
  SQLiteIO::setCurrent(disk);
  store_->setObject(Value(Date::now().addingTimeInterval(600)), kRetryAfterItem);
  disk->full = true;
  log_.clear();
  EXPECT_EQ(push(pushWith("held")).sent, 0u);
  disk->full = false;
  SQLiteIO::setCurrent(nullptr);
  EXPECT_TRUE(log_.contains("Queueing send push delivery queue because previous 429"));
  EXPECT_TRUE(log_.contains("Couldn't queue delivery payload in keychain"));
  EXPECT_FALSE(log_.contains("Queued delivery payload in keychain"));
  EXPECT_TRUE(server_.requests().empty());
}

// A disk on which the next `failures` writes fail, and later ones succeed again.
class FlakyDisk : public SQLiteIO {
 public:
  int write(const File& file, const void* bytes, int amount, std::int64_t offset) override {
    if (failures.fetch_sub(1) > 0) return SQLITE_FULL;
    return SQLiteIO::write(file, bytes, amount, offset);
  }
  std::atomic<int> failures{0};
};

TEST_F(DeliveryManagerTest, ARequeueThatCannotBeStoredKeepsTheRecordsInFlight) {
  auto disk = std::make_shared<FlakyDisk>();
  SQLiteIO::setCurrent(disk);
  server_.respondWith(500);
  server_.hold();
  std::future<Outcome> outcome = startPush(pushWith("kept"));
  ASSERT_TRUE(server_.waitForRequests(1));
  disk->failures = 1;  // the merge back fails; the in-flight entry must not go then
  server_.release();
  wait(std::move(outcome));
  SQLiteIO::setCurrent(nullptr);
  EXPECT_TRUE(log_.contains("Couldn't queue delivery payload in keychain"));
  EXPECT_EQ(storedQueue(), Set{});
  EXPECT_EQ(manager_->inFlightRecords(), Set{recordFor("kept")});
}

TEST_F(DeliveryManagerTest, TakingBackThatCannotBeStoredLeavesTheRecordsInFlight) {
  Date longAgo = Date::now().addingTimeInterval(-10 * kInFlightAbandonSeconds);
  ASSERT_TRUE(store_->setObject(
      inFlightWith(Value(), "old-send",
                   inFlightEntry(ProcessIdentity::current(), longAgo, {recordFor("old")})),
      kPushQueueInFlightItem));
  auto disk = std::make_shared<FlakyDisk>();
  SQLiteIO::setCurrent(disk);
  disk->failures = 1;  // the queue's write fails, the in-flight entry's would not
  manager_->reclaimAbandonedSends();
  SQLiteIO::setCurrent(nullptr);
  EXPECT_TRUE(storedQueue() == Set{recordFor("old")} ||
              manager_->inFlightRecords() == Set{recordFor("old")});
}

}  // namespace
}  // namespace pnx::testing

// The delivery client and manager against DeliveryServer: an in-process HTTP server that
// records each request's records and answers from a script, holding requests while told to.

#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>

#include <algorithm>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "config/config.h"
#include "delivery/delivery_records.h"
#include "delivery/in_flight.h"
#include "delivery/push_delivery_client.h"
#include "delivery/push_delivery_manager.h"
#include "diagnostics/errors.h"
#include "diagnostics/log.h"
#include "diagnostics/log_capture_test.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/date.h"
#include "platform/foundation/json.h"
#include "platform/network/local_server_test.h"
#include "platform/security/sqlite_io.h"

namespace pnx::testing {
namespace {

class DeliveryServer {
 public:
  struct Answer {
    int status = 200;
    httplib::Headers headers = {};
    std::string body = "{}";
  };

  DeliveryServer() {
    server_->Post(".*", [this](const httplib::Request& in, httplib::Response& out) {
      // A gzip body comes inflated already.
      const Value json = JSON::parse(in.body).value_or(Value());
      const Array* records = json["delivery"].asArray();
      std::unique_lock lock(mutex_);
      const std::size_t index = requests_.size();
      requests_.push_back(records ? Set(records->begin(), records->end()) : Set{"none"});
      changed_.notify_all();
      changed_.wait(lock, [this] { return !held_; });
      const Answer answer = answers_.empty() ? Answer() : answers_[index % answers_.size()];
      out.status = answer.status;
      for (const auto& [name, value] : answer.headers) out.set_header(name, value);
      out.set_content(answer.body, "application/json");
    });
    server_->set_tcp_nodelay(true);
    server_.start();
  }
  // Lets a held request go, or stopping the server would wait for it.
  ~DeliveryServer() { hold(false); }

  std::string baseUrl() const { return server_.url("/").absoluteString(); }

  // Requests get these answers in turn, round and round.
  void respondWith(std::vector<Answer> answers) {
    std::lock_guard lock(mutex_);
    answers_ = std::move(answers);
  }
  void hold(bool held = true) {
    std::lock_guard lock(mutex_);
    held_ = held;
    changed_.notify_all();
  }
  // Waits until n requests have arrived (whether answered or held).
  bool waitForRequests(std::size_t n) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return requests_.size() >= n; });
  }
  // Each request's "delivery" array, as a set; {"none"} for a body without one.
  std::vector<Set> requests() {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Answer> answers_;
  bool held_ = false;
  std::vector<Set> requests_;
  LocalServer server_;  // last: it stops before what its handler uses goes
};

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

// A disk on which the next `failures` writes fail with "database or disk is full".
struct FlakyDisk : SQLiteIO {
  static constexpr int kAlways = 1 << 30;
  int write(const File& file, const void* bytes, int amount, std::int64_t offset) override {
    return failures.fetch_sub(1) > 0 ? SQLITE_FULL : SQLiteIO::write(file, bytes, amount, offset);
  }
  std::atomic<int> failures{0};
};

// Reporting on, to the test's server, for user-1 on channel-1 in a store whose disk the test
// can fail, the log captured; the configuration and the disk are put back.
class DeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    config_->setAppKey("apTestKey1");
    config_->setDeliveryReporting(true);
    config_->setBaseUrl(*URL::parse(server_.baseUrl()));
    PNXLog::sharedInstance().setLogLevelName("verbose");
    store_->setUserId("user-1");
    store_->setChannelId("channel-1");
    manager_->setKeychain(store_);
    SQLiteIO::setCurrent(disk_);
    log_.clear();
  }
  void TearDown() override {
    SQLiteIO::setCurrent(nullptr);
    config_->setAppKey(savedAppKey_);
    config_->setBaseUrl(savedBaseUrl_);
    config_->setDeliveryReporting(savedReporting_);
    PNXLog::sharedInstance().setLogLevelName("error");
    Clock::useSystemClock();
  }

  ErrorPtr send(const Set& queue) {
    // Shared with the completion, so that a send that never completes fails the test
    // instead of hanging it.
    auto outcome = std::make_shared<std::promise<ErrorPtr>>();
    PNXPushDeliveryClient().sendPushQueue(queue,
                                          [outcome](ErrorPtr error) { outcome->set_value(error); });
    auto future = outcome->get_future();
    if (future.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
      ADD_FAILURE() << "the send did not complete";
      return nullptr;
    }
    return future.get();
  }

  // Starts a push of the payload, or a resend without one; the future gets the number sent.
  std::future<std::size_t> start(const std::optional<Value>& payload) {
    auto promise = std::make_shared<std::promise<std::size_t>>();
    auto done = [promise](std::size_t sent, ErrorPtr) { promise->set_value(sent); };
    payload ? manager_->sendPushDelivery(*payload, done) : manager_->resendPushDelivery(done);
    return promise->get_future();
  }
  std::size_t push(const Value& payload) { return wait(start(payload)); }
  std::size_t resend() { return wait(start(std::nullopt)); }
  static std::size_t wait(std::future<std::size_t> outcome) {
    if (outcome.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
      ADD_FAILURE() << "the push did not complete";
      return 0;
    }
    return outcome.get();
  }
  // What is stored, read as an independent reader would.
  Value stored(const char* name) { return store_->objectForName(name, nullptr); }
  Set storedQueue() {
    return queueFromStoredValue(stored(kPushQueueItem)).value_or(Set{Value("unreadable")});
  }

  ScopedDevice device_;
  std::shared_ptr<PNXConfig> config_ = PNXConfig::sharedInstance();
  std::optional<std::string> savedAppKey_ = config_->appKey();
  URL savedBaseUrl_ = config_->baseUrl();
  bool savedReporting_ = config_->deliveryReporting();
  LogCapture log_;
  DeliveryServer server_;
  Set queue_{Value::dict({{"userId", "u1"}, {"attribution", "a1"}}),
             Value::dict({{"channelId", "c2"}, {"mailingId", 7}})};
  std::shared_ptr<FlakyDisk> disk_ = std::make_shared<FlakyDisk>();
  std::shared_ptr<PNXKeychain> store_ = PNXKeychain::keychainWithService("PNX");
  std::shared_ptr<PNXPushDeliveryMananger> manager_ = std::make_shared<PNXPushDeliveryMananger>();
};

// The headers, path and gzip body are pnx serve's checks, which every pnx delivery test
// passes; the log names the URL. Transport errors pass through unchanged.
TEST_F(DeliveryTest, NothingGoesOutUnconfiguredAndTheClientPostsTheQueueOnlyTwoHundredsSucceed) {
  config_->setDeliveryReporting(false);
  EXPECT_EQ(push(pushWith("a")), 0u);
  EXPECT_EQ(resend(), 0u);
  EXPECT_TRUE(stored(kPushQueueItem).isNull());
  EXPECT_TRUE(stored(kPushQueueInFlightItem).isNull());
  EXPECT_EQ(log_.lines(), (std::vector<std::string>{
                              "⚫️ Not sending push delivery because config flag is false",
                              "⚫️ Not resending push delivery because config flag is false"}));

  config_->setAppKey(std::nullopt);
  ErrorPtr error;
  PNXPushDeliveryClient().sendPushQueue(queue_, [&](ErrorPtr e) { error = e; });
  ASSERT_NE(error, nullptr);  // at once, before any request
  EXPECT_EQ(error->code(), 100);
  EXPECT_TRUE(log_.contains("Couldn't find appKey in configuration!"));
  EXPECT_TRUE(server_.requests().empty());
  config_->setAppKey("apTestKey1");

  EXPECT_EQ(send(queue_), nullptr);
  EXPECT_TRUE(log_.contains("Payload Compression on, only sending "));
  const std::string url = server_.baseUrl() + "3.0/apps/apTestKey1/delivery";
  EXPECT_TRUE(log_.contains("POST " + url + "\n{\"delivery\":["));
  EXPECT_TRUE(log_.contains("200 Response From: " + url + "\n{}"));
  EXPECT_EQ(send({}), nullptr);
  EXPECT_EQ(server_.requests(), (std::vector<Set>{queue_, Set()}));

  for (int status : {204, 299}) {
    // A 204 with a body would be read as the start of the reused connection's next answer.
    server_.respondWith({{status, {}, status == 204 ? "" : "{}"}});
    EXPECT_EQ(send(queue_), nullptr) << status;
  }
  server_.respondWith({{200, {}, std::string("\xff\xfe\x80", 3)}});
  EXPECT_EQ(send(queue_), nullptr);
  EXPECT_TRUE(log_.contains("\nNon UTF-8 data detected"));

  // What the error carries of the answer is checked with httpResponseError.
  server_.respondWith({{300, {}, "went wrong"}});
  error = send(queue_);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), 105);
  EXPECT_EQ(error->userInfo()["statusMessage"], Value("went wrong"));

  config_->setBaseUrl(*URL::parse("http://127.0.0.1:1/"));
  error = send(queue_);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), NSURLErrorDomain);
  EXPECT_EQ(error->code(), -1004);
  EXPECT_TRUE(log_.contains("HTTP Error occured Error Domain=NSURLErrorDomain Code=-1004"));
}

TEST_F(DeliveryTest, APushIsReportedOrRequeuedAndEqualRecordsCollapse) {
  // A queue that is not an array counts as empty, like the missing item.
  ASSERT_TRUE(store_->setObject(Value("not an array"), kPushQueueItem));
  EXPECT_EQ(push(pushWith("att-1", Value("mail-9"))), 1u);
  EXPECT_EQ(server_.requests(), std::vector<Set>{{recordFor("att-1", Value("mail-9"))}});
  EXPECT_TRUE(log_.contains("Couldn't get pushQueue from keychain"));
  EXPECT_TRUE(log_.contains("Queued delivery payload in keychain"));
  EXPECT_TRUE(log_.contains("Sent delivery payload to server!"));
  // The log tells the identity reads in the order the record is made: userId first.
  const auto lines = log_.lines();
  const auto read = [&](const char* line) { return std::find(lines.begin(), lines.end(), line); };
  ASSERT_NE(read("⚫️ Got channelId from shared keychain."), lines.end());
  EXPECT_LT(read("⚫️ Got userId from shared keychain."),
            read("⚫️ Got channelId from shared keychain."));

  // What a failed send leaves (no retry time, nothing in flight) is pnx queue's to show.
  server_.respondWith({{500}});
  push(pushWith("same"));
  push(pushWith("same"));
  EXPECT_EQ(server_.requests(),
            (std::vector<Set>{
                {recordFor("att-1", Value("mail-9"))}, {recordFor("same")}, {recordFor("same")}}));
  EXPECT_EQ(storedQueue(), Set{recordFor("same")});
  EXPECT_TRUE(log_.contains("Couldn't send delivery payload to server, queuing in keychain!"));
}

// The back-off date's own rules are checked with retryGateOpen; here, sends wait for it.
TEST_F(DeliveryTest, TooManyRequestsHoldsSendsBackUntilTheStoredDateHasPassed) {
  Date start(2'000'000'000);
  Clock::set(start);
  server_.respondWith({{429}});
  push(pushWith("a"));
  EXPECT_EQ(stored(kRetryAfterItem), Value(start.addingTimeInterval(10)));

  server_.respondWith({{200}});
  Clock::advance(5);
  EXPECT_EQ(push(pushWith("b")), 0u);
  EXPECT_EQ(storedQueue(), (Set{recordFor("a"), recordFor("b")}));
  EXPECT_TRUE(log_.contains("retryAfter: " + start.addingTimeInterval(10).description()));
  EXPECT_TRUE(log_.contains("Queueing send push delivery queue because previous 429"));

  // A held-back push whose record cannot be stored says so, not that it was queued.
  disk_->failures = FlakyDisk::kAlways;
  log_.clear();
  EXPECT_EQ(push(pushWith("unstorable")), 0u);
  disk_->failures = 0;
  EXPECT_TRUE(log_.contains("Couldn't queue delivery payload in keychain"));
  EXPECT_FALSE(log_.contains("Queued delivery payload in keychain"));

  Clock::set(start.addingTimeInterval(11));
  EXPECT_EQ(push(pushWith("c")), 3u);
  EXPECT_EQ(server_.requests(),
            (std::vector<Set>{{recordFor("a")}, {recordFor("a"), recordFor("b"), recordFor("c")}}));
  EXPECT_EQ(storedQueue(), Set{});
}

TEST_F(DeliveryTest, DuringASendTheQueueIsEmptyAndAFailureKeepsWhatCameMeanwhileOrInFlight) {
  server_.respondWith({{500}});
  server_.hold();
  auto first = start(pushWith("a"));
  ASSERT_TRUE(server_.waitForRequests(1));
  auto second = start(pushWith("b"));
  ASSERT_TRUE(server_.waitForRequests(2));
  EXPECT_EQ(stored(kPushQueueItem), Value(Array()));
  EXPECT_EQ(manager_->inFlightRecords(), (Set{recordFor("a"), recordFor("b")}));

  server_.hold(false);
  wait(std::move(first));
  wait(std::move(second));
  EXPECT_EQ(storedQueue(), (Set{recordFor("a"), recordFor("b")}));
  EXPECT_TRUE(manager_->inFlightRecords().empty());

  // A failed send whose records cannot be merged back keeps its in-flight entry.
  server_.hold();
  auto third = start(pushWith("c"));
  ASSERT_TRUE(server_.waitForRequests(3));
  disk_->failures = 1;
  server_.hold(false);
  wait(std::move(third));
  EXPECT_TRUE(log_.contains("Couldn't queue delivery payload in keychain"));
  EXPECT_EQ(storedQueue(), Set{});
  EXPECT_EQ(manager_->inFlightRecords(), (Set{recordFor("a"), recordFor("b"), recordFor("c")}));
}

TEST_F(DeliveryTest, ConcurrentSendsInOneProcessLoseNothing) {
  // The server fails half the requests, in every way it can, the first two of every four.
  server_.respondWith({{500, {}, "busy"}, {429, {{"Retry-After", "0"}}, "slow down"}, {}, {}});
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
  const std::size_t scripted = server_.requests().size();
  server_.respondWith({{200}});
  for (int round = 0; round < 5 && !storedQueue().empty(); ++round) resend();

  // Records are sent again until answered 200: every one must have been accepted.
  Set accepted;
  const std::vector<Set> sent = server_.requests();
  for (std::size_t i = 0; i < sent.size(); ++i) {
    if (i >= scripted || i % 4 >= 2) accepted.insert(sent[i].begin(), sent[i].end());
  }
  EXPECT_EQ(accepted.size(), static_cast<std::size_t>(kThreads * kPushes));
  EXPECT_EQ(storedQueue(), Set{});
  EXPECT_TRUE(manager_->inFlightRecords().empty());
}

TEST_F(DeliveryTest, AFailingKeychainLosesNothingThatWasStoredOrInFlight) {
  server_.respondWith({{500}});
  push(pushWith("stored"));
  ASSERT_EQ(storedQueue(), Set{recordFor("stored")});

  // With every write failing, the stored queue stays as it was, whatever the server answers.
  disk_->failures = FlakyDisk::kAlways;
  log_.clear();
  for (int status : {500, 200}) {
    server_.respondWith({{status}});
    EXPECT_EQ(push(pushWith("unstorable")), 2u);
  }
  EXPECT_TRUE(log_.contains("Couldn't queue delivery payload in keychain"));
  EXPECT_TRUE(log_.contains("Couldn't record in-flight delivery payload in keychain"));
  disk_->failures = 0;
  EXPECT_EQ(storedQueue(), Set{recordFor("stored")});
  EXPECT_TRUE(manager_->inFlightRecords().empty());

  // Taking back an abandoned send whose records cannot be queued leaves them in flight.
  ASSERT_TRUE(store_->setObject(
      inFlightWith(Value(), "old-send",
                   inFlightEntry(ProcessIdentity::current(), Date(0), {recordFor("old")})),
      kPushQueueInFlightItem));
  disk_->failures = 1;  // the queue's write fails, the in-flight entry's would not
  manager_->reclaimAbandonedSends();
  EXPECT_TRUE(storedQueue() == (Set{recordFor("stored"), recordFor("old")}) ||
              manager_->inFlightRecords() == Set{recordFor("old")});
}

}  // namespace
}  // namespace pnx::testing

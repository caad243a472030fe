// The notification service end to end inside one process: a real notification center on a
// temporary device, a real HTTP server on 127.0.0.1 for the media, the settable clock for
// the expiry. Delivery reporting is off (no configuration file), so no report is sent.
#include "service/notification_service.h"

#include <httplib.h>

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <limits>
#include <mutex>
#include <thread>

#include "diagnostics/log_capture_test.h"
#include "platform/dispatch/dispatch.h"
#include "platform/files/container.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/json.h"
#include "platform/foundation/uuid.h"
#include "platform/notifications/notification_center.h"
#include "service/extension_host.h"
#include "service/work_in_flight.h"

namespace pnx {
namespace {

using namespace std::chrono_literals;

std::string sampleFile(const std::string& name) {
  std::ifstream in(std::string(PNX_SOURCE_DIR) + "/examples/media/" + name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Serves /media/NAME: the sample PNG under any name but "missing.png" (a 404 page), and
// holds requests for names starting with "slow" until release().
class MediaServer {
 public:
  MediaServer() {
    server_.Get("/media/(.*)", [this](const httplib::Request& in, httplib::Response& out) {
      const std::string name = in.matches[1];
      requests_.fetch_add(1);
      if (name.rfind("slow", 0) == 0) {
        std::unique_lock lock(mutex_);
        arrived_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return released_; });
      }
      if (name == "missing.png") {
        out.status = 404;
        out.set_content("<html><body>Not Found</body></html>", "text/html");
        return;
      }
      out.set_content(sampleFile("sample.png"), "image/png");
    });
    // One request per connection: a kept-alive connection would hold stop() for seconds.
    server_.set_keep_alive_max_count(1);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    while (!server_.is_running()) std::this_thread::sleep_for(1ms);
  }
  ~MediaServer() {
    release();
    server_.stop();
    thread_.join();
  }
  std::string url(const std::string& name) const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/media/" + name;
  }
  void waitForSlowRequest() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return arrived_; });
  }
  void release() {
    std::lock_guard lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }
  int requests() const { return requests_.load(); }

 private:
  httplib::Server server_;
  int port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool arrived_ = false;
  bool released_ = false;
  std::atomic<int> requests_{0};
};

Value json(std::string_view text) {
  auto value = JSON::parse(text);
  EXPECT_TRUE(value) << text;
  return value.value_or(Value());
}

NotificationRequestPtr requestFor(const Value& payload) {
  return ExtensionHost::requestFromPayload("REQ-1", payload);
}

// Calls the service directly and records what it hands back.
struct HandBacks {
  std::mutex mutex;
  std::vector<NotificationContentPtr> contents;
  std::vector<std::thread::id> threads;

  ContentHandler handler() {
    return [this](NotificationContentPtr content) {
      std::lock_guard lock(mutex);
      contents.push_back(content->copy());
      threads.push_back(std::this_thread::get_id());
    };
  }
  std::size_t count() {
    std::lock_guard lock(mutex);
    return contents.size();
  }
};

// Runs the main queue until the service's work, downloads included, is over.
void runUntilIdle(HandBacks& handBacks, std::size_t expected) {
  RunLoop::runUntil(
      [&] { return handBacks.count() >= expected && !ExtensionHost::extensionWorkInFlight(); },
      std::chrono::steady_clock::now() + 20s);
}

class NotificationServiceTest : public ::testing::Test {
 protected:
  void SetUp() override { PNXLog::sharedInstance().setLogLevelName("trace"); }
  void TearDown() override { Clock::useSystemClock(); }

  bool consoleHas(std::string_view text) {
    for (const auto& line : log_.consoleLines()) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }
  std::shared_ptr<NotificationCenter> center() {
    return NotificationCenter::currentNotificationCenter();
  }

  testing::ScopedDevice device_{"com.example.sampleapp.service"};
  LogCapture log_;
};

TEST_F(NotificationServiceTest, WithoutActionsOrMediaHandsBackAtOnceOnTheCallingThread) {
  for (const char* payload : {R"({"aps": {"mutable-content": 1}})",
                              R"({"aps": {}, "category-actions": {"not": "an array"},
                                  "media-attachment": ["not", "a", "string"]})",
                              R"({"media-attachment": "http://[bad"})"}) {
    HandBacks handBacks;
    auto service = PNXNotificationService::make();
    service->didReceiveNotificationRequest(requestFor(json(payload)), handBacks.handler());
    ASSERT_EQ(handBacks.count(), 1u) << payload;
    EXPECT_EQ(handBacks.threads[0], std::this_thread::get_id());
    EXPECT_TRUE(handBacks.contents[0]->attachments().empty());
    EXPECT_EQ(handBacks.contents[0]->categoryIdentifier(), "");
  }
  EXPECT_EQ(PNXNotificationService::outstandingWork(), 0u);
  EXPECT_FALSE(std::filesystem::exists(center()->databasePath()));  // center never touched
  EXPECT_TRUE(log_.consoleLines().empty());
}

TEST_F(NotificationServiceTest, RegistersThePayloadsCategoryInPlaceOfOneOfTheSameIdentifier) {
  center()->setNotificationCategories(
      {NotificationCategory::make("other", {}, {}, 0),
       NotificationCategory::make("promo", {NotificationAction::make("old", "Old", 0)}, {}, 0)});
  const Value payload = json(R"({
    "aps": {"alert": "hi", "mutable-content": 1},
    "category-name": "promo",
    "category-actions": [
      {"name": "Open", "type": "url", "destructive": true},
      {"name": "Reply", "value": {"textEntryTitle": "Send"}},
      {"name": "Delete", "destructive": true, "authentication": "YES", "foreground": false}
    ]})");

  ExtensionOutcome outcome =
      ExtensionHost::deliver(requestFor(payload), PNXNotificationService::make());
  ASSERT_EQ(outcome.handBacks.size(), 1u);
  EXPECT_FALSE(outcome.expired);
  const auto& content = *outcome.handBacks[0];
  EXPECT_EQ(content.categoryIdentifier(), "promo");
  EXPECT_EQ(content.userInfo()["aps"]["category"], Value("promo"));

  auto registered = center()->registeredCategories();
  ASSERT_TRUE(registered);
  auto sorted = sortedCategories(*registered);
  ASSERT_EQ(sorted.size(), 2u);
  EXPECT_EQ(sorted[0]->identifier(), "other");
  const auto& promo = *sorted[1];
  EXPECT_EQ(promo.options(), NotificationCategoryOptionCustomDismissAction);
  EXPECT_TRUE(promo.intentIdentifiers().empty());
  ASSERT_EQ(promo.actions().size(), 3u);
  EXPECT_EQ(promo.actions()[0]->options(), NotificationActionOptionForeground);
  EXPECT_EQ(JSON::parse(promo.actions()[0]->identifier()),
            payload["category-actions"].asArray()->at(0));
  ASSERT_TRUE(promo.actions()[1]->asTextInput());
  EXPECT_EQ(promo.actions()[1]->asTextInput()->textInputButtonTitle(), "Send");
  EXPECT_FALSE(promo.actions()[1]->asTextInput()->textInputPlaceholder());
  EXPECT_EQ(promo.actions()[2]->options(), 3u);
}

TEST_F(NotificationServiceTest, EmptyActionsAndTheWatchCategory) {
  ExtensionHost::deliver(requestFor(json(R"({"aps": {"mutable-content": 1},
      "category-name": "ignored", "data": {"watch": ""}, "category-actions": []})")),
                         PNXNotificationService::make());
  auto registered = center()->registeredCategories();
  ASSERT_TRUE(registered);
  ASSERT_EQ(registered->size(), 1u);
  const auto& category = **registered->begin();
  EXPECT_EQ(category.identifier(), "pnx-watch-category");
  EXPECT_TRUE(category.actions().empty());
  EXPECT_EQ(category.options(), NotificationCategoryOptionCustomDismissAction);
}

TEST_F(NotificationServiceTest, AnActionThatCannotBeEncodedLeavesOnlyTheExpiry) {
  Clock::set(Date::fromReferenceDate(800000000));
  // Once the flow has stopped, the clock moves past the budget: no real waiting.
  std::thread clockMover([this] {
    while (!log_.contains("Couldn't encode json")) std::this_thread::sleep_for(1ms);
    while (PNXNotificationService::outstandingWork() != 0) std::this_thread::sleep_for(1ms);
    Clock::advance(31);
  });
  ExtensionOutcome outcome = ExtensionHost::deliver(
      requestFor(json(R"({"aps": {"mutable-content": 1}, "category-name": "c",
                          "category-actions": [{"name": "fine"}, "not a dictionary"],
                          "media-attachment": "http://127.0.0.1:9/never.png"})")),
      PNXNotificationService::make());
  clockMover.join();
  EXPECT_TRUE(outcome.expired);
  ASSERT_EQ(outcome.handBacks.size(), 1u);
  EXPECT_EQ(outcome.handBacks[0]->categoryIdentifier(), "c");
  EXPECT_TRUE(consoleHas("PNXNotificationService: Service time expired!"));
  EXPECT_FALSE(consoleHas("setting up download session"));
  auto registered = center()->registeredCategories();
  ASSERT_TRUE(registered);
  EXPECT_TRUE(registered->empty());
}

TEST_F(NotificationServiceTest, ADownloadIsAttachedHandedBackTwiceAndMovedWhenShown) {
  MediaServer server;
  ExtensionOutcome outcome = ExtensionHost::deliver(
      requestFor(Value::dict({{"aps", Value::dict({{"mutable-content", 1}})},
                              {"media-attachment", server.url("cat.png?size=2")}})),
      PNXNotificationService::make());
  EXPECT_FALSE(outcome.expired);
  ASSERT_EQ(outcome.handBacks.size(), 2u);  // the finish, then the completion
  for (const auto& content : outcome.handBacks) {
    ASSERT_EQ(content->attachments().size(), 1u);
    EXPECT_EQ(content->attachments()[0]->type(), "public.png");
    EXPECT_EQ(content->attachments()[0]->url().lastPathComponent(), "cat.png");
  }
  EXPECT_NE(outcome.handBacks[0]->attachments()[0]->identifier(), "cat.png");
  EXPECT_TRUE(UUID::parse(outcome.handBacks[0]->attachments()[0]->identifier()));

  ASSERT_EQ(outcome.displayed->attachments().size(), 1u);
  const std::string shown = outcome.displayed->attachments()[0]->url().path();
  EXPECT_EQ(shown.rfind(center()->attachmentsDirectory(), 0), 0u) << shown;
  EXPECT_TRUE(std::filesystem::exists(shown));
  EXPECT_FALSE(std::filesystem::exists(Container::temporaryDirectory() + "/cat.png"));
  EXPECT_TRUE(consoleHas("PNXNotificationService: didCompleteWithError: (null)"));
}

TEST_F(NotificationServiceTest, TheSecondNotificationNamingTheSameFileFailsToCopy) {
  MediaServer server;
  const Value payload = Value::dict({{"media-attachment", server.url("same.png")}});
  HandBacks first, second;
  auto one = PNXNotificationService::make();
  one->didReceiveNotificationRequest(requestFor(payload), first.handler());
  runUntilIdle(first, 2);
  auto two = PNXNotificationService::make();
  two->didReceiveNotificationRequest(requestFor(payload), second.handler());
  runUntilIdle(second, 2);

  ASSERT_EQ(first.count(), 2u);
  EXPECT_EQ(first.contents[0]->attachments().size(), 1u);
  ASSERT_EQ(second.count(), 2u);  // the copy error, then the completion
  EXPECT_TRUE(second.contents[0]->attachments().empty());
  EXPECT_TRUE(second.contents[1]->attachments().empty());
  EXPECT_TRUE(consoleHas("PNXNotificationService: Copy Error: "));
}

TEST_F(NotificationServiceTest, RefusedAttachmentsAndUnusableNamesGoBackWithoutMedia) {
  MediaServer server;
  struct Case {
    std::string url;
    const char* message;
  };
  for (const Case& c : {Case{server.url("noext"), "Attachment Error: "},
                        Case{server.url("missing.png"), "Attachment Error: "},
                        Case{server.url("..%2F..%2Fescape.png"), "Copy Error: "}}) {
    log_.clear();
    HandBacks handBacks;
    auto service = PNXNotificationService::make();
    service->didReceiveNotificationRequest(requestFor(Value::dict({{"media-attachment", c.url}})),
                                           handBacks.handler());
    runUntilIdle(handBacks, 2);
    ASSERT_EQ(handBacks.count(), 2u) << c.url;
    EXPECT_TRUE(handBacks.contents[0]->attachments().empty()) << c.url;
    EXPECT_TRUE(consoleHas(c.message)) << c.url;
  }
  EXPECT_FALSE(std::filesystem::exists(Container::temporaryDirectory() + "/../escape.png"));
  EXPECT_FALSE(std::filesystem::exists(Container::root() + "/../escape.png"));
}

TEST_F(NotificationServiceTest, AFileURLIsNeverRead) {
  HandBacks handBacks;
  auto service = PNXNotificationService::make();
  service->didReceiveNotificationRequest(
      requestFor(Value::dict({{"media-attachment", "file:///etc/hostname"}})), handBacks.handler());
  runUntilIdle(handBacks, 1);
  ASSERT_EQ(handBacks.count(), 1u);  // only the completion, with an error
  EXPECT_TRUE(handBacks.contents[0]->attachments().empty());
  EXPECT_FALSE(consoleHas("didFinishDownloadingToURL"));
  EXPECT_FALSE(consoleHas("didCompleteWithError: (null)"));
  EXPECT_FALSE(std::filesystem::exists(Container::temporaryDirectory() + "/hostname"));
}

TEST_F(NotificationServiceTest, ExpiryDuringTheDownloadThenTheFinishHandsBackAgain) {
  MediaServer server;
  Clock::set(Date::fromReferenceDate(800000000));
  std::thread driver([&] {
    server.waitForSlowRequest();
    Clock::advance(31);  // past the budget while the server holds the download
    while (!consoleHas("Service time expired!")) std::this_thread::sleep_for(1ms);
    server.release();
  });
  ExtensionRunOptions options;
  options.grace = 10s;  // ends as soon as nothing is in flight
  ExtensionOutcome outcome = ExtensionHost::deliver(
      requestFor(Value::dict({{"aps", Value::dict({{"mutable-content", 1}})},
                              {"media-attachment", server.url("slow.png")}})),
      PNXNotificationService::make(), options);
  driver.join();

  EXPECT_TRUE(outcome.expired);
  ASSERT_EQ(outcome.handBacks.size(), 3u);  // expiry, finish, completion
  EXPECT_TRUE(outcome.handBacks[0]->attachments().empty());
  EXPECT_EQ(outcome.handBacks[1]->attachments().size(), 1u);
  EXPECT_EQ(outcome.handBacks[2]->attachments().size(), 1u);
  EXPECT_TRUE(outcome.displayed->attachments().empty());  // the first hand-back is shown
}

TEST_F(NotificationServiceTest, WithoutMutableContentTheExtensionNeverRuns) {
  MediaServer server;
  for (const char* aps : {R"({"alert": "x"})", R"({"mutable-content": 0})",
                          R"({"mutable-content": "1"})", R"("mutable-content")"}) {
    const Value payload = Value::dict({{"aps", json(std::string("[") + aps + "]").asArray()->at(0)},
                                       {"category-actions", Value::array({})},
                                       {"media-attachment", server.url("x.png")}});
    ExtensionOutcome outcome =
        ExtensionHost::deliver(requestFor(payload), PNXNotificationService::make());
    EXPECT_FALSE(outcome.extensionRan) << aps;
    EXPECT_TRUE(outcome.handBacks.empty());
    EXPECT_EQ(outcome.displayed->userInfo(), payload);
  }
  EXPECT_EQ(server.requests(), 0);
  EXPECT_FALSE(std::filesystem::exists(center()->databasePath()));
}

TEST(ExtensionHost, RequestFromAnApnsPayload) {
  auto request = ExtensionHost::requestFromPayload("ID", json(R"({"aps": {
      "alert": {"title": "T", "subtitle": "S", "body": "B"}, "badge": 3, "sound": "ping",
      "category": "cat", "thread-id": "th"}, "x": 1})"));
  const auto& content = *request->content();
  EXPECT_EQ(request->identifier(), "ID");
  EXPECT_EQ(content.title(), "T");
  EXPECT_EQ(content.subtitle(), "S");
  EXPECT_EQ(content.body(), "B");
  EXPECT_EQ(content.badge(), Value(3));
  EXPECT_EQ(content.sound(), Value("ping"));
  EXPECT_EQ(content.categoryIdentifier(), "cat");
  EXPECT_EQ(content.threadIdentifier(), "th");
  EXPECT_EQ(content.userInfo()["x"], Value(1));

  auto plain = ExtensionHost::requestFromPayload("ID", json(R"({"aps": {"alert": "just a body",
      "badge": "three", "sound": 5}})"));
  EXPECT_EQ(plain->content()->body(), "just a body");
  EXPECT_EQ(plain->content()->title(), "");
  EXPECT_TRUE(plain->content()->badge().isNull());
  EXPECT_TRUE(plain->content()->sound().isNull());
}

// Hands the content back on the main queue, a moment after it is called.
class HandsBackFromTheMainQueue final : public NotificationServiceExtension {
 public:
  void didReceiveNotificationRequest(const NotificationRequestPtr& request,
                                     ContentHandler handler) override {
    DispatchQueue::main().async([request, handler] { handler(request->content()); });
  }
  void serviceExtensionTimeWillExpire() override { expiries++; }
  std::atomic<int> expiries{0};
};

TEST(ExtensionHost, ABudgetTooLongToCountStillWaitsForTheHandBack) {
  testing::ScopedDevice device;
  for (double budget : {std::numeric_limits<double>::infinity(), 1e300, 1e12}) {
    auto extension = std::make_shared<HandsBackFromTheMainQueue>();
    ExtensionRunOptions options;
    options.timeBudget = budget;
    ExtensionOutcome outcome = ExtensionHost::deliver(
        requestFor(json(R"({"aps": {"mutable-content": 1}})")), extension, options);
    EXPECT_FALSE(outcome.expired) << budget;
    EXPECT_EQ(outcome.handBacks.size(), 1u) << budget;
    EXPECT_EQ(extension->expiries.load(), 0) << budget;
  }
}

class ThrowsOnReceive final : public NotificationServiceExtension {
 public:
  void didReceiveNotificationRequest(const NotificationRequestPtr&, ContentHandler) override {
    throw Exception("Invalid Config File", "not JSON");
  }
  void serviceExtensionTimeWillExpire() override {}
};

TEST(ExtensionHost, AnExceptionFromTheExtensionIsRethrownOnTheHostsThread) {
  testing::ScopedDevice device;
  EXPECT_THROW(ExtensionHost::deliver(requestFor(json(R"({"aps": {"mutable-content": 1}})")),
                                      std::make_shared<ThrowsOnReceive>()),
               Exception);
}

}  // namespace
}  // namespace pnx

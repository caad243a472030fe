// The notification service and its parts in one process: a temporary device, a local media server.
#include "service/notification_service.h"

#include <httplib.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <mutex>
#include <thread>

#include "diagnostics/log_capture_test.h"
#include "platform/dispatch/dispatch.h"
#include "platform/files/container.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/json.h"
#include "platform/foundation/uuid.h"
#include "platform/network/local_server_test.h"
#include "platform/notifications/notification_center.h"
#include "service/download_file_name.h"
#include "service/dynamic_category.h"
#include "service/extension_host.h"

namespace pnx {
namespace {

using namespace std::chrono_literals;

// Serves the sample PNG as /media/NAME; for a NAME starting "slow", only once the hook set
// by holdSlow returns.
class MediaServer {
 public:
  MediaServer() {
    std::ifstream in(PNX_SOURCE_DIR "/examples/media/sample.png", std::ios::binary);
    png_.assign(std::istreambuf_iterator<char>(in), {});
    server_->Get("/media/(.*)", [this](const httplib::Request& in, httplib::Response& out) {
      if (std::string(in.matches[1]).starts_with("slow")) slowHook()();
      out.set_content(png_, "image/png");
    });
    // One request per connection: a kept-alive one would hold stop() for up to a second.
    server_->set_keep_alive_max_count(1);
    server_.start();
  }
  std::string url(const std::string& name) const {
    return server_.url("/media/" + name).absoluteString();
  }
  // Under a lock: the hook is set while the server runs, and a request reaching it over a
  // socket is no ordering the thread sanitizer can see.
  void holdSlow(std::function<void()> hook) {
    std::lock_guard lock(mutex_);
    onSlow_ = std::move(hook);
  }

 private:
  std::function<void()> slowHook() {
    std::lock_guard lock(mutex_);
    return onSlow_;
  }

  std::mutex mutex_;
  std::function<void()> onSlow_ = [] {};
  std::string png_;
  testing::LocalServer server_;  // last: it stops before what its handler uses goes
};

Value json(std::string_view text) {
  return JSON::parse(text).value();  // a typo throws, failing the test
}

NotificationRequestPtr requestFor(const Value& payload) {
  return ExtensionHost::requestFromPayload("REQ-1", payload);
}

ExtensionOutcome serve(const NotificationRequestPtr& request, ExtensionRunOptions options = {}) {
  return ExtensionHost::deliver(request, PNXNotificationService::make(), options);
}

NotificationRequestPtr mediaRequest(const std::string& url) {
  return requestFor(
      Value::dict({{"aps", Value::dict({{"mutable-content", 1}})}, {"media-attachment", url}}));
}

class NotificationServiceTest : public ::testing::Test {
 protected:
  void SetUp() override { PNXLog::sharedInstance().setLogLevelName("trace"); }
  void TearDown() override { Clock::useSystemClock(); }

  bool consoleHas(std::string_view text) {
    return std::ranges::any_of(log_.consoleLines(),
                               [&](auto& line) { return line.find(text) != line.npos; });
  }
  NotificationCategorySet registered() { return center_->registeredCategories().value(); }

  testing::ScopedDevice device_{"com.example.sampleapp.service"};
  std::shared_ptr<NotificationCenter> center_ = NotificationCenter::currentNotificationCenter();
  LogCapture log_;
};

TEST_F(NotificationServiceTest, WithNothingToDoHandsBackAtOnceAndWithoutMutableContentNeverRuns) {
  for (const char* payload : {R"({"aps": {}, "category-actions": {"not": "an array"},
                                  "media-attachment": ["not", "a", "string"]})",
                              R"({"media-attachment": "http://[bad"})"}) {
    std::vector<std::thread::id> threads;
    NotificationContentPtr content;
    PNXNotificationService::make()->didReceiveNotificationRequest(
        requestFor(json(payload)), [&](NotificationContentPtr handed) {
          threads.push_back(std::this_thread::get_id());
          content = handed->copy();
        });
    ASSERT_EQ(threads, std::vector{std::this_thread::get_id()}) << payload;
    EXPECT_TRUE(content->attachments().empty());
    EXPECT_EQ(content->categoryIdentifier(), "");
  }
  EXPECT_EQ(PNXNotificationService::outstandingWork(), 0u);
  EXPECT_TRUE(log_.consoleLines().empty());

  for (const char* aps : {R"({"alert": "x"})", R"({"mutable-content": 0})",
                          R"({"mutable-content": "1"})", R"("mutable-content")"}) {
    const Value payload =
        json(std::string(R"({"aps": )") + aps +
             R"(, "category-actions": [], "media-attachment": "http://127.0.0.1:9/x.png"})");
    ExtensionOutcome outcome = serve(requestFor(payload));
    EXPECT_FALSE(outcome.extensionRan) << aps;
    EXPECT_TRUE(outcome.handBacks.empty());
    EXPECT_EQ(outcome.displayed->userInfo(), payload);
  }
  EXPECT_FALSE(std::filesystem::exists(center_->databasePath()));
}

TEST_F(NotificationServiceTest, RegistersThePayloadsCategoryInPlaceOfOneOfTheSameIdentifier) {
  center_->setNotificationCategories(
      {NotificationCategory::make("other", {}, {}, 0),
       NotificationCategory::make("promo", {NotificationAction::make("old", "Old", 0)}, {}, 0)});
  const Value payload = json(R"({
    "aps": {"alert": "hi", "mutable-content": 1},
    "category-name": "promo",
    "category-actions": [
      {"name": "Open", "type": "url", "destructive": true},
      {"name": "Reply", "value": {"textEntryTitle": "Send"}}
    ]})");

  ExtensionOutcome outcome = serve(requestFor(payload));
  ASSERT_EQ(outcome.handBacks.size(), 1u);
  EXPECT_FALSE(outcome.expired);
  EXPECT_EQ(outcome.handBacks[0]->categoryIdentifier(), "promo");
  EXPECT_EQ(outcome.handBacks[0]->userInfo()["aps"]["category"], Value("promo"));

  // Each action's identifier is its compact JSON.
  NotificationCategorySet expected = {
      NotificationCategory::make("other", {}, {}, 0),
      NotificationCategory::make(
          "promo",
          {NotificationAction::make(R"({"destructive":true,"name":"Open","type":"url"})", "Open",
                                    NotificationActionOptionForeground),
           TextInputNotificationAction::make(
               R"({"name":"Reply","value":{"textEntryTitle":"Send"}})", "Reply", 0, "Send",
               std::nullopt)},
          {}, NotificationCategoryOptionCustomDismissAction)};
  EXPECT_TRUE(equalCategorySets(registered(), expected));

  // Empty actions still register a category; a watch payload's is the watch category.
  serve(requestFor(json(R"({"aps": {"mutable-content": 1},
      "category-name": "ignored", "data": {"watch": ""}, "category-actions": []})")));
  expected.insert(NotificationCategory::make("pnx-watch-category", {}, {},
                                             NotificationCategoryOptionCustomDismissAction));
  EXPECT_TRUE(equalCategorySets(registered(), expected));
}

TEST_F(NotificationServiceTest,
       ADownloadIsAttachedOrGoesBackWithoutMediaAndTheExpiryHandsBackWhatThereIs) {
  MediaServer server;
  ExtensionOutcome outcome = serve(mediaRequest(server.url("cat.png?size=2")));
  ASSERT_EQ(outcome.handBacks.size(), 2u);  // the finish, then the completion
  ASSERT_EQ(outcome.handBacks[1]->attachments().size(), 1u);
  const auto& attached = *outcome.handBacks[1]->attachments()[0];
  EXPECT_EQ(attached.url().lastPathComponent(), "cat.png");
  EXPECT_TRUE(UUID::parse(attached.identifier()));
  EXPECT_FALSE(std::filesystem::exists(Container::temporaryDirectory() + "/cat.png"));
  EXPECT_TRUE(consoleHas("PNXNotificationService: didCompleteWithError: (null)"));

  struct Case {
    std::string url;
    bool fetched;  // a file URL is never read: only the completion, with an error, comes back
    const char* message;
  };
  for (const Case& c : {Case{server.url("noext"), true, "Attachment Error: "},
                        Case{server.url("..%2F..%2Fescape.png"), true, "Copy Error: "},
                        Case{"file:///etc/hostname", false, "didCompleteWithError: "}}) {
    SCOPED_TRACE(c.url);
    log_.clear();
    outcome = serve(mediaRequest(c.url));
    ASSERT_EQ(outcome.handBacks.size(), c.fetched ? 2u : 1u);
    EXPECT_TRUE(std::ranges::all_of(outcome.handBacks,
                                    [](auto& content) { return content->attachments().empty(); }));
    EXPECT_TRUE(consoleHas(c.message));
    EXPECT_EQ(consoleHas("didFinishDownloadingToURL"), c.fetched);
    EXPECT_EQ(consoleHas("didCompleteWithError: (null)"), c.fetched);
  }
  EXPECT_FALSE(std::filesystem::exists(Container::temporaryDirectory() + "/hostname"));
  EXPECT_FALSE(std::filesystem::exists(Container::temporaryDirectory() + "/../escape.png"));
  EXPECT_FALSE(std::filesystem::exists(Container::root() + "/../escape.png"));

  // An action that cannot be encoded stops the flow, so only the expiry hands back; during a
  // download, the finish and the completion hand back again after the expiry.
  log_.clear();
  Clock::set(Date::fromReferenceDate(800000000));
  // Once the flow has stopped, the clock moves past the budget: no real waiting.
  std::thread clockMover([this] {
    while (!log_.contains("Couldn't encode json")) std::this_thread::sleep_for(1ms);
    while (PNXNotificationService::outstandingWork() != 0) std::this_thread::sleep_for(1ms);
    Clock::advance(31);
  });
  outcome = serve(requestFor(json(R"({"aps": {"mutable-content": 1}, "category-name": "c",
                          "category-actions": [{"name": "fine"}, "not a dictionary"],
                          "media-attachment": "http://127.0.0.1:9/never.png"})")));
  clockMover.join();
  EXPECT_TRUE(outcome.expired);
  ASSERT_EQ(outcome.handBacks.size(), 1u);
  EXPECT_EQ(outcome.handBacks[0]->categoryIdentifier(), "c");
  EXPECT_TRUE(consoleHas("PNXNotificationService: Service time expired!"));
  EXPECT_FALSE(consoleHas("setting up download session"));
  EXPECT_TRUE(registered().empty());

  log_.clear();
  server.holdSlow([this] {
    Clock::advance(31);  // past the budget while the download is held
    while (!consoleHas("Service time expired!")) std::this_thread::sleep_for(1ms);
  });
  // A long grace: the run ends as soon as nothing is in flight.
  outcome = serve(mediaRequest(server.url("slow.png")), ExtensionRunOptions{.grace = 10s});
  EXPECT_TRUE(outcome.expired);
  ASSERT_EQ(outcome.handBacks.size(), 3u);  // expiry, finish, completion
  EXPECT_TRUE(outcome.handBacks[0]->attachments().empty());
  EXPECT_EQ(outcome.handBacks[1]->attachments().size(), 1u);
  EXPECT_EQ(outcome.handBacks[2]->attachments().size(), 1u);
  EXPECT_TRUE(outcome.displayed->attachments().empty());  // the first hand-back is shown
}

TEST(ExtensionHost, RequestFromAnApnsPayload) {
  const std::string payload = R"({"aps": {"alert": {"title": "T", "subtitle": "S", "body": "B"},
      "badge": 3, "sound": "ping", "category": "cat", "thread-id": "th"}, "x": 1})";
  auto request = ExtensionHost::requestFromPayload("ID", json(payload));
  EXPECT_EQ(request->identifier(), "ID");
  EXPECT_EQ(request->content()->jsonObject("ID"), json(R"({"identifier": "ID", "title": "T",
      "subtitle": "S", "body": "B", "badge": 3, "sound": "ping", "categoryIdentifier": "cat",
      "threadIdentifier": "th", "attachments": [], "userInfo": )" +
                                                       payload + "}"));

  auto plain = ExtensionHost::requestFromPayload(
      "ID", json(R"({"aps": {"alert": "just a body", "sound": 5}})"));
  EXPECT_EQ(plain->content()->body(), "just a body");
  EXPECT_EQ(plain->content()->title(), "");
  EXPECT_TRUE(plain->content()->sound().isNull());
}

// Hands the content back on the main queue, a moment after it is called, or throws.
class MainQueueExtension final : public NotificationServiceExtension {
 public:
  explicit MainQueueExtension(bool throws) : throws_(throws) {}
  void didReceiveNotificationRequest(const NotificationRequestPtr& request,
                                     ContentHandler handler) override {
    if (throws_) throw Exception("Invalid Config File", "not JSON");
    DispatchQueue::main().async([request, handler] { handler(request->content()); });
  }
  void serviceExtensionTimeWillExpire() override { expiries++; }
  const bool throws_;
  std::atomic<int> expiries{0};
};

// A budget too long to count still waits for the hand-back (it once ended the run at once);
// an exception from the extension is rethrown on the host's thread, not lost on the queue.
TEST(ExtensionHost, WaitsOutABudgetTooLongToCountAndRethrowsTheExtensionsException) {
  testing::ScopedDevice device;
  const auto request = requestFor(json(R"({"aps": {"mutable-content": 1}})"));
  for (double budget : {std::numeric_limits<double>::infinity(), 1e300, 1e12}) {
    auto extension = std::make_shared<MainQueueExtension>(false);
    ExtensionOutcome outcome =
        ExtensionHost::deliver(request, extension, ExtensionRunOptions{.timeBudget = budget});
    EXPECT_FALSE(outcome.expired) << budget;
    EXPECT_EQ(outcome.handBacks.size(), 1u) << budget;
    EXPECT_EQ(extension->expiries.load(), 0) << budget;
  }
  EXPECT_THROW(ExtensionHost::deliver(request, std::make_shared<MainQueueExtension>(true)),
               Exception);
}

TEST(DynamicCategory, RequestedByAnArrayOfActionsNamedAfterThePayloadAndActionsReadFromIt) {
  // The service tests above request with an empty array and refuse a dictionary or nothing.
  EXPECT_FALSE(DynamicCategory::isRequested(json(R"({"category-actions": null})")));
  // Any value under "watch" counts, false ones too; a "data" that is not a dictionary never does.
  for (const char* watch : {R"("yes")", "false", R"("")", "null", "{}"}) {
    auto payload =
        json(std::string(R"({"category-name": "promo", "data": {"watch": )") + watch + "}}");
    EXPECT_EQ(DynamicCategory::identifier(payload, "w"), "w") << watch;
  }
  EXPECT_EQ(DynamicCategory::identifier(json(R"({"category-name": "p", "data": ["watch"]})"), "w"),
            "p");
  EXPECT_EQ(DynamicCategory::identifier(json(R"({"category-name": 7})"), "w"), "7");

  std::string first = DynamicCategory::identifier(json("{}"), "w");
  std::string second = DynamicCategory::identifier(json(R"({"category-name": null})"), "w");
  EXPECT_TRUE(UUID::parse(first));
  EXPECT_EQ(first, UUID::parse(first)->string());  // canonical upper-case form
  EXPECT_NE(first, second);

  EXPECT_EQ(DynamicCategory::userInfoWithCategory(
                json(R"({"aps": {"alert": "hi", "category": "old"}, "x": 1})"), "new"),
            json(R"({"aps": {"alert": "hi", "category": "new"}, "x": 1})"));
  for (const char* unchanged : {R"({"x": 1})", R"({"aps": "text"})"}) {
    EXPECT_EQ(DynamicCategory::userInfoWithCategory(json(unchanged), "new"), json(unchanged));
  }

  // The four foreground types take exactly foreground, whatever the flags say.
  for (const char* type : {"rich", "dial", "url", "openApp"}) {
    Value action = Value::dict({{"type", type}, {"destructive", true}, {"authentication", true}});
    EXPECT_EQ(DynamicCategory::actionOptions(action), kActionOptionForeground) << type;
  }
  // Type names are case-sensitive; flags are read as booleans, and what is not one as no.
  const std::pair<const char*, std::int64_t> flags[] = {
      {R"({"type": "URL", "destructive": true})", kActionOptionDestructive},
      {R"({"destructive": true, "authentication": true, "foreground": false})", 3},
      {R"({"destructive": 0, "authentication": {}, "foreground": 2})", kActionOptionForeground},
      {"{}", 0}};
  for (const auto& [action, options] : flags) {
    EXPECT_EQ(DynamicCategory::actionOptions(json(action)), options) << action;
  }

  const std::tuple<const char*, std::optional<std::string>, std::optional<std::string>> values[] = {
      {R"({"textEntryTitle": "Send", "textEntryPlaceholder": "Say"})", "Send", "Say"},
      {R"({"textEntryPlaceholder": "Say"})", std::nullopt, std::nullopt},
      {R"("Send")", std::nullopt, std::nullopt},
      {"3", std::nullopt, std::nullopt}};
  for (const auto& [value, title, placeholder] : values) {
    auto read = DynamicCategory::action(
        json(std::string(R"({"name": "R", "value": )") + value + "}"), nullptr);
    ASSERT_TRUE(read) << value;
    EXPECT_EQ(read->textInputButtonTitle, title) << value;
    EXPECT_EQ(read->textInputPlaceholder, placeholder) << value;
  }

  for (const Value& refused : {Value("open"), Value(5), Value::dict({{"when", Date()}})}) {
    ErrorPtr error;
    EXPECT_FALSE(DynamicCategory::action(refused, &error)) << refused;
    ASSERT_TRUE(error);
    EXPECT_FALSE(error->localizedDescription().empty());
  }
}

TEST(DownloadFileName, LastPathComponentWithoutQueryOrFragmentAndNothingThatLeavesTheDirectory) {
  EXPECT_EQ(downloadFileName(*URL::parse("https://cdn.example/media/cat.png?size=2#top"), nullptr),
            "cat.png");
  for (const char* text :
       {"https://cdn.example", "https://cdn.example/", "https://cdn.example/a/%2E%2E",
        "https://cdn.example/a/..%2Fetc", "https://cdn.example/a/x%2fy.png",
        "https://cdn.example/a/nul%00.png", "https://cdn.example/a/%2e"}) {
    auto url = URL::parse(text);
    ASSERT_TRUE(url) << text;
    ErrorPtr error;
    EXPECT_FALSE(downloadFileName(*url, &error)) << text;
    ASSERT_TRUE(error) << text;
    EXPECT_EQ(error->code(), NSFileWriteInvalidFileNameError);
    EXPECT_NE(error->localizedDescription().find("cannot be used"), std::string::npos);
  }
}

}  // namespace
}  // namespace pnx

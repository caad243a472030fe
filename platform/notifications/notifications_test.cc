// The notification center, and the categories, contents and attachments it keeps.
#include "platform/notifications/notification_center.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <thread>

#include "platform/files/bundle.h"
#include "platform/files/container.h"
#include "platform/files/fixtures_test.h"
#include "platform/foundation/json.h"
#include "platform/foundation/uuid.h"
#include "platform/notifications/notification_content.h"
#include "platform/security/sqlite.h"
#include "platform/system/system_log.h"

namespace pnx {
namespace {

using namespace std::literals;

const std::string kMedia = PNX_SOURCE_DIR "/examples/media/";

NotificationCategoryPtr category(const std::string& identifier) {
  return NotificationCategory::make(
      identifier,
      {NotificationAction::make("open", "Open", NotificationActionOptionForeground),
       TextInputNotificationAction::make("reply", "Reply", 0, "Send", "Message")},
      {}, NotificationCategoryOptionCustomDismissAction);
}

URL fileURLOr(const std::string& pathOrURL) {
  return pathOrURL.starts_with("/") ? URL::fileURL(pathOrURL) : *URL::parse(pathOrURL);
}

NotificationAttachmentPtr attach(const std::string& pathOrURL, ErrorPtr* error) {
  return NotificationAttachment::attachmentWithIdentifier("ID", fileURLOr(pathOrURL), Value(),
                                                          error);
}

// What the center hands to a get, and the thread it was handed on.
std::pair<NotificationCategorySet, std::thread::id> fetch(NotificationCenter& center) {
  std::promise<std::pair<NotificationCategorySet, std::thread::id>> delivered;
  center.getNotificationCategories([&delivered](NotificationCategorySet categories) {
    delivered.set_value({std::move(categories), std::this_thread::get_id()});
  });
  return delivered.get_future().get();
}

// Keeps the system log's lines, each after its subsystem.
struct CapturingSink : LogSink {
  void systemLog(LogType, std::string_view subsystem, std::string_view,
                 std::string_view text) override {
    std::lock_guard lock(mutex);
    lines.push_back(std::string(subsystem) + ": " + std::string(text));
  }
  void console(std::string_view) override {}
  std::mutex mutex;
  std::vector<std::string> lines;
};

class NotificationCenterTest : public ::testing::Test {
 protected:
  testing::ScopedDevice device_{"com.example.chat"};
  std::shared_ptr<NotificationCenter> center_ = NotificationCenter::currentNotificationCenter();
};

TEST_F(NotificationCenterTest,
       DeliversTheSetLastStoredByItOrAnotherConnectionKeepingWhatItCanRead) {
  EXPECT_EQ(center_.get(), NotificationCenter::forApplication("com.example.chat").get());
  auto [empty, thread] = fetch(*center_);
  EXPECT_TRUE(empty.empty());
  EXPECT_NE(thread, std::this_thread::get_id());

  auto sink = std::make_shared<CapturingSink>();
  SystemLog::setSink(sink);
  center_->setNotificationCategories({category("a"), category("b")});
  center_->setNotificationCategories({category("b"), category("c")});
  // A get queued after the sets sees the last one, with no waiting in between.
  auto [registered, ignored] = fetch(*center_);
  EXPECT_TRUE(equalCategorySets(registered, {category("b"), category("c")}));
  // Text that is not UTF-8 cannot be stored: the stored set stays, the system log says why.
  center_->setNotificationCategories({category("b"), category("bad\xff")});
  center_->waitUntilIdle();
  SystemLog::setSink(nullptr);
  EXPECT_TRUE(
      equalCategorySets(center_->registeredCategories().value(), {category("b"), category("c")}));
  const std::string directory = device_.deviceDirectory() + "/notifications";
  EXPECT_EQ(center_->databasePath(), directory + "/com.example.chat.db");
  EXPECT_EQ(testing::modeOf(directory), 0700u);
  EXPECT_EQ(testing::modeOf(center_->databasePath()), 0600u);
  auto other = SQLiteDatabase::open(center_->databasePath());
  ASSERT_TRUE(other);
  std::string theirs = JSON::serialize(category("theirs")->jsonObject()).value();
  ASSERT_TRUE(other->execute("DELETE FROM categories"));
  ASSERT_TRUE(other->execute("INSERT INTO categories VALUES (0, 'theirs', ?)", {Value(theirs)}));

  EXPECT_TRUE(equalCategorySets(fetch(*center_).first, {category("theirs")}));
  EXPECT_TRUE(equalCategorySets(center_->registeredCategories().value(), {category("theirs")}));

  // Rows no one can read: the synchronous read says so, a get leaves them out (it once lost
  // the whole set), so a service's merge (get, add its own, set the whole) keeps the rest.
  ASSERT_TRUE(other->execute(
      "INSERT INTO categories VALUES (1, 'bad', '{\"identifier\": 1}'), (9, 'worse', 'not JSON')"));
  ErrorPtr error;
  EXPECT_FALSE(center_->registeredCategories(&error));
  ASSERT_TRUE(error);
  EXPECT_NE(error->localizedDescription().find("\"identifier\""), std::string::npos);
  NotificationCategorySet merged = fetch(*center_).first;
  EXPECT_TRUE(equalCategorySets(merged, {category("theirs")}));
  merged.insert(category("c"));
  center_->setNotificationCategories(merged);
  EXPECT_TRUE(equalCategorySets(center_->registeredCategories().value(),
                                {category("theirs"), category("c")}));

  std::lock_guard lock(sink->mutex);
  ASSERT_EQ(sink->lines.size(), 1u);
  EXPECT_NE(
      sink->lines[0].find(
          "pnx.notifications: Cannot store the notification categories of com.example.chat: "),
      std::string::npos)
      << sink->lines[0];
  EXPECT_NE(sink->lines[0].find("not UTF-8"), std::string::npos) << sink->lines[0];
}

TEST_F(NotificationCenterTest, CountsCallsInFlightUntilTheirHandlersReturn) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  center_->getNotificationCategories([&](NotificationCategorySet) {
    released.wait();
    // The chain of a service: register, then ask again, from inside the handler.
    center_->setNotificationCategories({category("chat")});
    center_->getNotificationCategories([](NotificationCategorySet) {});
  });
  center_->setNotificationCategories({});
  EXPECT_EQ(center_->pendingCalls(), 2u);
  release.set_value();
  // A host's run loop waiting for the count is woken when it reaches zero, not at its deadline.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(RunLoop::runUntil([&] { return center_->pendingCalls() == 0; },
                                start + std::chrono::seconds(60)));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
  EXPECT_TRUE(equalCategorySets(center_->registeredCategories().value(), {category("chat")}));
}

TEST_F(NotificationCenterTest, GivesAnExtensionTheCenterOfItsApp) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "com.example.chat.service"},
      {"<key>NSExtension</key><dict/>", "com.example.chat"},
      {"<key>CFBundlePackageType</key><string>XPC!</string>", "com.example.chat"}};
  for (const auto& [entries, identifier] : cases) {
    device_.writeBundleFile("Info.plist",
                            testing::ScopedDevice::infoPlist("com.example.chat.service", entries));
    EXPECT_EQ(NotificationCenter::currentNotificationCenter()->applicationIdentifier(), identifier)
        << entries;
  }
  EXPECT_TRUE(isApplicationExtension(Bundle(device_.root().file("Service.appex"))));
  EXPECT_EQ(notificationApplicationIdentifier(nullptr), "unknown.bundle");
}

TEST_F(NotificationCenterTest, DisplayMovesAttachmentsIntoTheStoreUnderFreeNames) {
  auto withAttachment = [](const std::string& path) {
    auto content = MutableNotificationContent::make();
    content->setAttachments({attach(path, nullptr)});
    return content;
  };
  const std::string temporary = Container::temporaryDirectory();
  auto inTemporary = [&](const char* sample, const char* name) {
    std::filesystem::copy_file(kMedia + sample, temporary + "/" + name);
    return withAttachment(temporary + "/" + name);
  };
  auto first = center_->displayNotification(*inTemporary("sample.png", "image.png"));
  auto second = center_->displayNotification(*inTemporary("sample.png", "image.png"));
  const std::string store =
      device_.deviceDirectory() + "/notifications/com.example.chat/attachments";
  ASSERT_EQ(first->attachments().size(), 1u);
  ASSERT_EQ(second->attachments().size(), 1u);
  EXPECT_EQ(first->attachments()[0]->url().path(), store + "/image.png");
  EXPECT_EQ(second->attachments()[0]->url().path(), store + "/image 2.png");
  EXPECT_FALSE(std::filesystem::exists(temporary + "/image.png"));
  EXPECT_TRUE(std::filesystem::exists(store + "/image 2.png"));
  EXPECT_EQ(testing::modeOf(store), 0700u);

  // A file kept elsewhere is copied, not taken away.
  auto shown = center_->displayNotification(*withAttachment(kMedia + "sample.gif"));
  EXPECT_EQ(shown->attachments()[0]->url().path(), store + "/sample.gif");
  EXPECT_TRUE(std::filesystem::exists(kMedia + "sample.gif"));

  // A file gone by then is left out, and the error names it.
  auto gone = inTemporary("sample.wav", "sound.wav");
  std::filesystem::remove(temporary + "/sound.wav");
  ErrorPtr error;
  EXPECT_TRUE(center_->displayNotification(*gone, &error)->attachments().empty());
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), UNErrorDomain);
  EXPECT_EQ(error->code(), UNErrorCodeAttachmentMoveIntoDataStoreFailed);
  EXPECT_NE(error->localizedDescription().find(temporary + "/sound.wav"), std::string::npos);
}

// A sparse file of the given size that begins with head.
std::string sizedFile(const testing::TempDir& dir, const std::string& name, std::string_view head,
                      std::uint64_t size) {
  std::string path = dir.write(name, head);
  std::filesystem::resize_file(path, size);
  return path;
}

TEST(NotificationAttachment, JudgesEveryFileByItsExtensionAndContentAndComparesByValue) {
  testing::TempDir dir;
  std::filesystem::copy_file(kMedia + "sample.jpg", dir.file("PHOTO.JPEG"));
  auto expectType = [](const std::string& path, const char* type) {
    ErrorPtr error;
    auto attachment = attach(path, &error);
    ASSERT_TRUE(attachment) << path << ": " << error->localizedDescription();
    EXPECT_EQ(attachment->type(), type) << path;
  };
  const std::pair<const char*, const char*> samples[] = {
      {"png", "public.png"},          {"jpg", "public.jpeg"},
      {"gif", "com.compuserve.gif"},  {"wav", "com.microsoft.waveform-audio"},
      {"aiff", "public.aiff-audio"},  {"mp3", "public.mp3"},
      {"m4a", "public.mpeg-4-audio"}, {"mp4", "public.mpeg-4"},
      {"mpg", "public.mpeg"},         {"avi", "public.avi"}};
  for (const auto& [extension, type] : samples) expectType(kMedia + "sample." + extension, type);
  expectType(dir.file("PHOTO.JPEG"), "public.jpeg");
  expectType(sizedFile(dir, "edge.mp3", "ID3", 5 * 1024 * 1024), "public.mp3");  // at its limit

  const URL sample = URL::fileURL(kMedia + "sample.png");
  auto first = NotificationAttachment::attachmentWithIdentifier("", sample, Value());
  ASSERT_TRUE(first);
  EXPECT_TRUE(UUID::parse(first->identifier()));
  auto again =
      NotificationAttachment::attachmentWithIdentifier(first->identifier(), sample, Value());
  EXPECT_TRUE(first->isEqual(*again));
  EXPECT_EQ(first->hash(), again->hash());
  EXPECT_FALSE(first->isEqual(*first->withURL(URL::fileURL("/elsewhere/sample.png"))));

  std::filesystem::create_directory(dir.file("folder.png"));
  const std::string png = "\x89PNG\r\n\x1a\n";
  struct Case {
    std::string path;
    std::int64_t code;
    std::string described;  // a part of the description
  };
  const Case cases[] = {
      {dir.file("missing.png"), UNErrorCodeAttachmentInvalidURL,
       "no file at " + dir.file("missing.png")},
      {dir.file("folder.png"), UNErrorCodeAttachmentInvalidURL, "a directory"},
      {dir.write("notes.txt", "hello"), UNErrorCodeAttachmentUnrecognizedType, "\"notes.txt\""},
      {dir.write("image", png), UNErrorCodeAttachmentUnrecognizedType, "\"image\""},
      {dir.write("empty.jpg", ""), UNErrorCodeAttachmentInvalidFileSize, "is empty"},
      {sizedFile(dir, "big.png", png, 10 * 1024 * 1024 + 1), UNErrorCodeAttachmentInvalidFileSize,
       "over the limit of 10485760 bytes for images"},
      {sizedFile(dir, "big.wav", "RIFF\0\0\0\0WAVE"sv, 5 * 1024 * 1024 + 1),
       UNErrorCodeAttachmentInvalidFileSize, "for audio"},
      {sizedFile(dir, "big.mp4", "\0\0\0\030ftypisom"sv, 50 * 1024 * 1024 + 1),
       UNErrorCodeAttachmentInvalidFileSize, "for movies"},
      {dir.write("x.png", "<!DOCTYPE html><html><body><h1>404 Not Found</h1></body></html>"),
       UNErrorCodeAttachmentCorrupt, dir.file("x.png") + " does not begin as a public.png"},
      {dir.write("photo.gif", "\xff\xd8\xff\xe0 JFIF"), UNErrorCodeAttachmentCorrupt,
       "com.compuserve.gif"},  // a JPEG
      {dir.write("clip.avi", "RIFF\0\0\0\0WAVEfmt "sv), UNErrorCodeAttachmentCorrupt,
       "public.avi"},  // a WAV
      {dir.write("song.mp3", "\xff\xf1\x50\x80\x00\x1f\xfc"sv), UNErrorCodeAttachmentCorrupt,
       "public.mp3"},  // AAC frames
      {"https://media.example/sample.png", UNErrorCodeAttachmentInvalidURL, "is not a file URL"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    ErrorPtr error;
    EXPECT_FALSE(attach(c.path, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), UNErrorDomain);
    EXPECT_EQ(error->code(), c.code) << error->localizedDescription();
    EXPECT_NE(error->localizedDescription().find(c.described), std::string::npos)
        << error->localizedDescription();
    ASSERT_TRUE(error->url());
    EXPECT_EQ(error->url()->absoluteString(), fileURLOr(c.path).absoluteString());
  }
}

NotificationCategoryPtr chat(
    std::vector<NotificationActionPtr> actions,
    NotificationCategoryOptions options = NotificationCategoryOptionCustomDismissAction) {
  return NotificationCategory::make("chat", std::move(actions), {}, options);
}

TEST(NotificationCategory, EqualCategoriesCollapseInASetAndAnyDifferenceKeepsBoth) {
  auto open = [] { return NotificationAction::make("open", "Open", 4); };
  auto reply = [](std::optional<std::string> placeholder) {
    return TextInputNotificationAction::make("reply", "Reply", 0, "Send", std::move(placeholder));
  };
  NotificationCategorySet set = {chat({open(), reply("Message")}),
                                 chat({open(), reply("Message")})};
  EXPECT_EQ(set.size(), 1u);
  EXPECT_TRUE(equalCategorySets(set, {chat({open(), reply("Message")})}));

  // Each of these differs from the first in one field.
  set.insert(chat({reply("Message"), open()}));     // action order
  set.insert(chat({open(), reply(std::nullopt)}));  // no placeholder
  set.insert(chat({open(), reply("")}));            // an empty placeholder
  set.insert(chat({open(), NotificationAction::make("reply", "Reply", 0)}));  // plain action
  set.insert(chat({open(), reply("Message")}, NotificationCategoryOptionNone));
  set.insert(NotificationCategory::make("chat", {open(), reply("Message")}, {"INSendMessageIntent"},
                                        NotificationCategoryOptionCustomDismissAction));
  EXPECT_EQ(set.size(), 7u);
  EXPECT_FALSE(equalCategorySets({chat({})}, {chat({}, NotificationCategoryOptionNone)}));
  EXPECT_FALSE(equalCategorySets({chat({})}, {}));

  // A plain action never equals a text-input one, whichever side asks.
  auto plain = NotificationAction::make("reply", "Reply", 0);
  EXPECT_FALSE(plain->isEqual(*reply(std::nullopt)));
  EXPECT_FALSE(reply(std::nullopt)->isEqual(*plain));
}

TEST(NotificationCategory, RefusesAStoredShapeItCannotReadNamingWhatIsWrong) {
  const std::string withAction = R"({"identifier": "c", "options": 0, "intentIdentifiers": [], )"
                                 R"("actions": [{"identifier": "a", )";
  const std::pair<std::string, const char*> cases[] = {
      {R"([])", "category is not a dictionary"},
      {R"({"options": 1, "intentIdentifiers": [], "actions": []})", "\"identifier\""},
      {R"({"identifier": "c", "options": -1, "intentIdentifiers": [], "actions": []})",
       "\"options\""},
      {R"({"identifier": "c", "options": 0, "actions": []})", "\"intentIdentifiers\""},
      {R"({"identifier": "c", "options": 0, "intentIdentifiers": [7], "actions": []})",
       "intent identifier"},
      {withAction + R"("options": 0}]})", "action has no string \"title\""},
      {withAction + R"("title": "A", "options": 0, "textInput": 1}]})", "\"textInput\""},
      {withAction + R"("title": "A", "options": 0, "textInput": {"buttonTitle": "B",
                                                                  "placeholder": 2}}]})",
       "\"placeholder\""},
  };
  for (const auto& [json, described] : cases) {
    ErrorPtr error;
    EXPECT_FALSE(NotificationCategory::fromJSONObject(JSON::parse(json).value(), &error)) << json;
    ASSERT_TRUE(error) << json;
    EXPECT_NE(error->localizedDescription().find(described), std::string::npos)
        << error->localizedDescription();
  }
}

TEST(NotificationCategory, DescribesItselfInThePlatformsStyle) {
  auto category = chat(
      {NotificationAction::make(
           "ok", "O\"K", NotificationActionOptionForeground | NotificationActionOptionDestructive),
       TextInputNotificationAction::make("reply", "Reply", 0, "Send", std::nullopt)},
      NotificationCategoryOptionCustomDismissAction | 64);
  EXPECT_EQ(category->description(),
            "<UNNotificationCategory: identifier: \"chat\", actions: ("
            "<UNNotificationAction: identifier: \"ok\", title: \"O\\\"K\", options: "
            "[destructive, foreground]>, "
            "<UNTextInputNotificationAction: identifier: \"reply\", title: \"Reply\", options: [], "
            "textInputButtonTitle: \"Send\", textInputPlaceholder: (null)>), "
            "intentIdentifiers: (), options: [customDismissAction, 64]>");
}

TEST(NotificationContent, PrintsWithUserInfoADictionaryAndBadgeANumberOrNullAndCopiesUnderWrites) {
  auto content = MutableNotificationContent::make();
  content->setBadge(Value(3));
  content->setBadge(Value("3"));  // not a number: no badge, not the last one
  content->setUserInfo(Value::dict({{"x", 1}}));
  content->setUserInfo(Value("not a dictionary"));
  const URL movie = URL::fileURL(kMedia + "sample.mp4");
  content->setAttachments({NotificationAttachment::attachmentWithIdentifier("A", movie, Value())});
  EXPECT_EQ(content->jsonObject("REQ"),
            JSON::parse(R"({"identifier": "REQ", "title": "", "subtitle": "", "body": "",
                "badge": null, "sound": null, "categoryIdentifier": "",
                "threadIdentifier": "", "userInfo": {}, "attachments": [
                {"identifier": "A", "url": ")" +
                        movie.absoluteString() + R"(", "type": "public.mpeg-4"}]})"));
  content->setBadge(Value(3));
  EXPECT_EQ(content->badge(), Value(3));
  EXPECT_EQ(MutableNotificationContent::make()->userInfo(), Value(Dictionary()));

  // Copies can be taken while another thread changes it.
  std::thread writer([content] {
    for (int i = 0; i < 1000; ++i) content->setUserInfo(Value::dict({{"n", i}}));
  });
  for (int i = 0; i < 1000; ++i) {
    auto snapshot = content->copy();
    EXPECT_TRUE(snapshot->userInfo().isDictionary());
  }
  writer.join();
  EXPECT_EQ(content->userInfo(), Value::dict({{"n", 999}}));
}

}  // namespace
}  // namespace pnx

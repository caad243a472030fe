#include "platform/notifications/notification_content.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/foundation/json.h"

namespace pnx {
namespace {

TEST(NotificationContent, PrintsAsTheHostShowsItWithUserInfoADictionaryAndBadgeANumberOrNull) {
  auto content = MutableNotificationContent::make();
  content->setTitle("T");
  content->setSubtitle("S");
  content->setBody("B");
  content->setSound(Value("default"));
  content->setThreadIdentifier("thread");
  content->setBadge(Value(3));
  content->setBadge(Value("3"));  // not a number: no badge, not the last one
  content->setUserInfo(Value::dict({{"x", 1}}));
  content->setUserInfo(Value("not a dictionary"));
  const URL movie = URL::fileURL(PNX_SOURCE_DIR "/examples/media/sample.mp4");
  content->setAttachments({NotificationAttachment::attachmentWithIdentifier("A", movie, Value())});
  EXPECT_EQ(content->jsonObject("REQ"),
            JSON::parse(R"({"identifier": "REQ", "title": "T", "subtitle": "S", "body": "B",
                "badge": null, "sound": "default", "categoryIdentifier": "",
                "threadIdentifier": "thread", "userInfo": {}, "attachments": [
                {"identifier": "A", "url": ")" +
                        movie.absoluteString() + R"(", "type": "public.mpeg-4"}]})"));
  content->setBadge(Value(3));
  EXPECT_EQ(content->badge(), Value(3));
  EXPECT_EQ(MutableNotificationContent::make()->userInfo(), Value(Dictionary()));
}

TEST(NotificationContent, CanBeReadWhileAnotherThreadChangesIt) {
  auto content = MutableNotificationContent::make();
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

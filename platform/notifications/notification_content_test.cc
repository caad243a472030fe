// Notification content: user info is always a dictionary, the JSON shape hosts print, and
// one content read while another thread changes it.

#include "platform/notifications/notification_content.h"

#include <gtest/gtest.h>

#include <thread>

namespace pnx {
namespace {

TEST(NotificationContent, KeepsUserInfoADictionaryAndBadgeANumberOrNull) {
  auto content = MutableNotificationContent::make();
  EXPECT_EQ(content->userInfo(), Value(Dictionary()));
  content->setUserInfo(Value("not a dictionary"));
  EXPECT_EQ(content->userInfo(), Value(Dictionary()));
  content->setBadge(Value("3"));
  EXPECT_TRUE(content->badge().isNull());
  content->setBadge(Value(3));
  EXPECT_EQ(content->badge(), Value(3));
}

TEST(NotificationContent, PrintsAsTheHostShowsIt) {
  auto content = MutableNotificationContent::make();
  content->setTitle("T");
  content->setSubtitle("S");
  content->setBody("B");
  content->setSound(Value("default"));
  content->setThreadIdentifier("thread");
  content->setAttachments({NotificationAttachment::attachmentWithIdentifier(
      "A", URL::fileURL(PNX_SOURCE_DIR "/examples/media/sample.mp4"), Value())});
  EXPECT_EQ(content->jsonObject("REQ"),
            Value::dict(
                {{"identifier", "REQ"},
                 {"title", "T"},
                 {"subtitle", "S"},
                 {"body", "B"},
                 {"badge", Value()},
                 {"sound", "default"},
                 {"categoryIdentifier", ""},
                 {"threadIdentifier", "thread"},
                 {"userInfo", Value(Dictionary())},
                 {"attachments",
                  Value::array({Value::dict(
                      {{"identifier", "A"},
                       {"url",
                        URL::fileURL(PNX_SOURCE_DIR "/examples/media/sample.mp4").absoluteString()},
                       {"type", "public.mpeg-4"}})})}}));
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

#include "platform/notifications/notification_category.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/foundation/json.h"
#include "platform/notifications/notification_content.h"

namespace pnx {
namespace {

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
  NotificationCategorySet set;
  set.insert(chat({open(), reply("Message")}));
  set.insert(chat({open(), reply("Message")}));
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
  // In a Value, as "%@" would print it.
  EXPECT_EQ(Value(ObjectPtr(category)).description(), category->description());
}

TEST(NotificationContent, PrintsAsTheHostShowsItWithUserInfoADictionaryAndBadgeANumberOrNull) {
  auto content = MutableNotificationContent::make();
  content->setBadge(Value(3));
  content->setBadge(Value("3"));  // not a number: no badge, not the last one
  content->setUserInfo(Value::dict({{"x", 1}}));
  content->setUserInfo(Value("not a dictionary"));
  const URL movie = URL::fileURL(PNX_SOURCE_DIR "/examples/media/sample.mp4");
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

#include "service/dynamic_category.h"

#include <gtest/gtest.h>

#include "platform/foundation/json.h"
#include "platform/foundation/uuid.h"
#include "service/download_file_name.h"

namespace pnx {
namespace {

Value json(std::string_view text) {
  ErrorPtr error;
  auto value = JSON::parse(text, &error);
  EXPECT_TRUE(value) << (error ? error->localizedDescription() : "");
  return value.value_or(Value());
}

TEST(DynamicCategory, RequestedOnlyByAnArrayOfActions) {
  EXPECT_TRUE(DynamicCategory::isRequested(json(R"({"category-actions": []})")));
  EXPECT_FALSE(DynamicCategory::isRequested(json(R"({"category-actions": {}})")));
  EXPECT_FALSE(DynamicCategory::isRequested(json(R"({"category-actions": null})")));
  EXPECT_FALSE(DynamicCategory::isRequested(json(R"({"aps": {}})")));
}

TEST(DynamicCategory, IdentifierFromNameUuidOrWatch) {
  EXPECT_EQ(DynamicCategory::identifier(json(R"({"category-name": "promo"})"), "w"), "promo");
  // Any value under "watch" counts, false and empty ones too; a "data" that is not a
  // dictionary never does.
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
}

TEST(DynamicCategory, CategoryWrittenIntoApsOnlyWhenItIsADictionary) {
  Value withAps = DynamicCategory::userInfoWithCategory(
      json(R"({"aps": {"alert": "hi", "category": "old"}, "x": 1})"), "new");
  EXPECT_EQ(withAps, json(R"({"aps": {"alert": "hi", "category": "new"}, "x": 1})"));
  EXPECT_EQ(DynamicCategory::userInfoWithCategory(json(R"({"x": 1})"), "new"), json(R"({"x": 1})"));
  EXPECT_EQ(DynamicCategory::userInfoWithCategory(json(R"({"aps": "text"})"), "new"),
            json(R"({"aps": "text"})"));
}

TEST(DynamicCategory, ActionOptions) {
  // The four foreground types take exactly foreground, whatever the flags say.
  for (const char* type : {"rich", "dial", "url", "openApp"}) {
    Value action = Value::dict({{"type", type}, {"destructive", true}, {"authentication", true}});
    EXPECT_EQ(DynamicCategory::actionOptions(action), kActionOptionForeground) << type;
  }
  EXPECT_EQ(DynamicCategory::actionOptions(json(R"({"type": "URL", "destructive": true})")),
            kActionOptionDestructive);  // case matters
  EXPECT_EQ(DynamicCategory::actionOptions(
                json(R"({"destructive": true, "authentication": true, "foreground": false})")),
            3);
  // Flags are read as the platform's boolean reading does (tested with it); what it cannot
  // read counts as no.
  EXPECT_EQ(DynamicCategory::actionOptions(
                json(R"({"destructive": 0, "authentication": {}, "foreground": 2})")),
            kActionOptionForeground);
  EXPECT_EQ(DynamicCategory::actionOptions(json("{}")), 0);
}

TEST(DynamicCategory, ActionIdentifierCarriesTheWholeDictionary) {
  Value description = json(R"({"name": "Open", "type": "url", "value": "https://x.example/a",
                               "extra": {"n": [1, 2]}})");
  ErrorPtr error;
  auto action = DynamicCategory::action(description, &error);
  ASSERT_TRUE(action);
  EXPECT_EQ(action->title, "Open");
  EXPECT_EQ(action->options, kActionOptionForeground);
  EXPECT_EQ(action->identifier.find('\n'), std::string::npos);  // compact
  EXPECT_EQ(JSON::parse(action->identifier), description);
  EXPECT_FALSE(action->textInputButtonTitle);
}

TEST(DynamicCategory, TextInputNeedsATitleInAValueDictionary) {
  auto both = DynamicCategory::action(
      json(
          R"({"name": "Reply", "value": {"textEntryTitle": "Send", "textEntryPlaceholder": "Say"}})"),
      nullptr);
  ASSERT_TRUE(both);
  EXPECT_EQ(both->textInputButtonTitle, "Send");
  EXPECT_EQ(both->textInputPlaceholder, "Say");

  auto titleOnly = DynamicCategory::action(
      json(R"({"name": "R", "value": {"textEntryTitle": "Send"}})"), nullptr);
  ASSERT_TRUE(titleOnly);
  EXPECT_EQ(titleOnly->textInputButtonTitle, "Send");
  EXPECT_FALSE(titleOnly->textInputPlaceholder);

  for (const char* value : {R"({"textEntryPlaceholder": "Say"})", R"("Send")", "3"}) {
    auto plain = DynamicCategory::action(
        json(std::string(R"({"name": "R", "value": )") + value + "}"), nullptr);
    ASSERT_TRUE(plain);
    EXPECT_FALSE(plain->textInputButtonTitle) << value;
  }
}

TEST(DynamicCategory, AnActionThatIsNotADictionaryCannotBeEncoded) {
  for (const Value& action : {Value("open"), Value(5), Value::dict({{"when", Date()}})}) {
    ErrorPtr error;
    EXPECT_FALSE(DynamicCategory::action(action, &error)) << action;
    ASSERT_TRUE(error);
    EXPECT_FALSE(error->localizedDescription().empty());
  }
}

TEST(DownloadFileName, LastPathComponentWithoutQueryOrFragment) {
  auto name = [](std::string_view text) {
    ErrorPtr error;
    auto result = downloadFileName(*URL::parse(text), &error);
    return result ? *result : "error: " + error->localizedDescription();
  };
  EXPECT_EQ(name("https://cdn.example/media/cat.png?size=2#top"), "cat.png");
  EXPECT_EQ(name("https://cdn.example/media/noext"), "noext");
}

TEST(DownloadFileName, NamesThatWouldLeaveTheDirectoryAreRefused) {
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

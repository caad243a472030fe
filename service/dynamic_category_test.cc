#include "service/dynamic_category.h"

#include <gtest/gtest.h>

#include "platform/foundation/json.h"
#include "platform/foundation/uuid.h"
#include "service/download_file_name.h"

namespace pnx {
namespace {

Value json(std::string_view text) {
  auto value = JSON::parse(text);
  EXPECT_TRUE(value) << text;
  return value.value_or(Value());
}

TEST(DynamicCategory, RequestedByAnArrayOfActionsUnderANameAUuidOrTheWatchsIdentifierInAps) {
  EXPECT_TRUE(DynamicCategory::isRequested(json(R"({"category-actions": []})")));
  for (const char* payload :
       {R"({"category-actions": {}})", R"({"category-actions": null})", R"({"aps": {}})"}) {
    EXPECT_FALSE(DynamicCategory::isRequested(json(payload))) << payload;
  }

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

  EXPECT_EQ(DynamicCategory::userInfoWithCategory(
                json(R"({"aps": {"alert": "hi", "category": "old"}, "x": 1})"), "new"),
            json(R"({"aps": {"alert": "hi", "category": "new"}, "x": 1})"));
  for (const char* unchanged : {R"({"x": 1})", R"({"aps": "text"})"}) {
    EXPECT_EQ(DynamicCategory::userInfoWithCategory(json(unchanged), "new"), json(unchanged));
  }
}

TEST(DynamicCategory, ActionsAndTheirOptions) {
  // The four foreground types take exactly foreground, whatever the flags say.
  for (const char* type : {"rich", "dial", "url", "openApp"}) {
    Value action = Value::dict({{"type", type}, {"destructive", true}, {"authentication", true}});
    EXPECT_EQ(DynamicCategory::actionOptions(action), kActionOptionForeground) << type;
  }
  // Type names are case-sensitive. Flags are read as the platform's boolean reading does
  // (tested with it); what it cannot read counts as no.
  const std::pair<const char*, std::int64_t> flags[] = {
      {R"({"type": "URL", "destructive": true})", kActionOptionDestructive},
      {R"({"destructive": true, "authentication": true, "foreground": false})", 3},
      {R"({"destructive": 0, "authentication": {}, "foreground": 2})", kActionOptionForeground},
      {"{}", 0}};
  for (const auto& [action, options] : flags) {
    EXPECT_EQ(DynamicCategory::actionOptions(json(action)), options) << action;
  }

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

  const std::tuple<const char*, std::optional<std::string>, std::optional<std::string>> values[] = {
      {R"({"textEntryTitle": "Send", "textEntryPlaceholder": "Say"})", "Send", "Say"},
      {R"({"textEntryTitle": "Send"})", "Send", std::nullopt},
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
    error.reset();
    EXPECT_FALSE(DynamicCategory::action(refused, &error)) << refused;
    ASSERT_TRUE(error);
    EXPECT_FALSE(error->localizedDescription().empty());
  }
}

TEST(DownloadFileName, LastPathComponentWithoutQueryOrFragmentAndNothingThatLeavesTheDirectory) {
  EXPECT_EQ(downloadFileName(*URL::parse("https://cdn.example/media/cat.png?size=2#top"), nullptr),
            "cat.png");
  EXPECT_EQ(downloadFileName(*URL::parse("https://cdn.example/media/noext"), nullptr), "noext");
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

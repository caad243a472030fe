// pnx categories runs as a separate process.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/files/fixtures_test.h"
#include "platform/foundation/json.h"
#include "platform/notifications/notification_center.h"
#include "tools/pnx/run_pnx_test.h"

namespace {

PnxRun categories(const pnx::testing::ScopedDevice& device) {
  return runPnx(
      {"--device", device.deviceDirectory(), "--bundle", device.bundleDirectory(), "categories"});
}

TEST(PnxCategoriesCommand, ListsWhatAnotherProcessRegisteredOrderedByIdentifierOrFailsInOneLine) {
  pnx::testing::ScopedDevice device("com.example.chat");
  EXPECT_EQ(expectPnxJSON(categories(device)), pnx::JSON::parse(R"({"categories": []})"));
  EXPECT_FALSE(std::filesystem::exists(device.deviceDirectory() + "/notifications"));
  const std::string database = "device/notifications/com.example.chat.db";
  device.root().write(database, "not a database, just text");
  expectPnxFailure(categories(device), 1, "cannot read the categories of com.example.chat");
  EXPECT_EQ(device.root().read(database), "not a database, just text");
  std::filesystem::remove(device.root().file(database));

  auto center = pnx::NotificationCenter::currentNotificationCenter();
  center->setNotificationCategories(
      {pnx::NotificationCategory::make(
           "reply", {pnx::TextInputNotificationAction::make("r", "Reply", 4, "Send", std::nullopt)},
           {}, 1),
       pnx::NotificationCategory::make(
           "alert", {pnx::NotificationAction::make("{\"name\":\"OK\"}", "OK", 2)}, {"intent"}, 0)});
  center->waitUntilIdle();

  EXPECT_EQ(expectPnxJSON(categories(device)), pnx::JSON::parse(R"({"categories": [
      {"identifier": "alert", "options": 0, "intentIdentifiers": ["intent"],
       "actions": [{"identifier": "{\"name\":\"OK\"}", "title": "OK", "options": 2}]},
      {"identifier": "reply", "options": 1, "intentIdentifiers": [],
       "actions": [{"identifier": "r", "title": "Reply", "options": 4,
                    "textInput": {"buttonTitle": "Send", "placeholder": null}}]}]})"));
}

}  // namespace

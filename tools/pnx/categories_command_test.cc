// pnx categories, run as a separate process: an empty device lists nothing (and is left
// untouched), and what this process's notification center registered is listed in order.

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

TEST(PnxCategoriesCommand, ListsNothingOnAnEmptyDevice) {
  pnx::testing::ScopedDevice device("com.example.chat");
  PnxRun run = categories(device);
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.json(), pnx::JSON::parse(R"({"categories": []})"));
  EXPECT_FALSE(std::filesystem::exists(device.deviceDirectory() + "/notifications"));
}

TEST(PnxCategoriesCommand, ListsWhatAnotherProcessRegisteredOrderedByIdentifier) {
  pnx::testing::ScopedDevice device("com.example.chat");
  auto center = pnx::NotificationCenter::currentNotificationCenter();
  center->setNotificationCategories(
      {pnx::NotificationCategory::make(
           "reply", {pnx::TextInputNotificationAction::make("r", "Reply", 4, "Send", std::nullopt)},
           {}, 1),
       pnx::NotificationCategory::make(
           "alert", {pnx::NotificationAction::make("{\"name\":\"OK\"}", "OK", 2)}, {"intent"}, 0)});
  center->waitUntilIdle();

  PnxRun run = categories(device);
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.json(), pnx::JSON::parse(R"({"categories": [
      {"identifier": "alert", "options": 0, "intentIdentifiers": ["intent"],
       "actions": [{"identifier": "{\"name\":\"OK\"}", "title": "OK", "options": 2}]},
      {"identifier": "reply", "options": 1, "intentIdentifiers": [],
       "actions": [{"identifier": "r", "title": "Reply", "options": 4,
                    "textInput": {"buttonTitle": "Send", "placeholder": null}}]}]})"));
}

TEST(PnxCategoriesCommand, FailsInOneLineWhenTheDatabaseIsNotOne) {
  pnx::testing::ScopedDevice device("com.example.chat");
  device.root().write("device/notifications/com.example.chat.db", "not a database, just text");
  PnxRun run = categories(device);
  EXPECT_EQ(run.exitCode, 1);
  ASSERT_EQ(run.errLines().size(), 1u) << run.err;
  EXPECT_NE(run.err.find("cannot read the categories of com.example.chat"), std::string::npos)
      << run.err;
  EXPECT_EQ(device.root().read("device/notifications/com.example.chat.db"),
            "not a database, just text");
}

}  // namespace

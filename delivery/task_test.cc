#include "delivery/task.h"

#include <gtest/gtest.h>

#include "platform/security/sqlite.h"

namespace {

// The task read back from a row of an in-memory table holding the given values.
std::shared_ptr<PNXTask> taskFromRow(const std::vector<pnx::Value>& values) {
  auto database = pnx::SQLiteDatabase::open(":memory:");
  EXPECT_TRUE(database->execute(
      "CREATE TABLE tasks (id INTEGER PRIMARY KEY, name TEXT, userInfo TEXT, createdDate INTEGER,"
      " availableDate INTEGER, retryCount INTEGER, maxRetries INTEGER, retryWithBackoff INTEGER)"));
  EXPECT_TRUE(database->execute(
      "INSERT INTO tasks (name, userInfo, createdDate, availableDate, retryCount, maxRetries,"
      " retryWithBackoff) VALUES (?, ?, ?, ?, ?, ?, ?)",
      values));
  auto rows = database->query("SELECT * FROM tasks");
  EXPECT_TRUE(rows && rows->next());
  return PNXTask::taskWithResultSet(*rows);
}

TEST(PNXTask, ARowFillsEveryPropertyAndDamagedPayloadsBecomeEmpty) {
  auto task = taskFromRow({"sync", R"({"page": 2, "tags": ["a"]})", 1600000000, 0, 3, -1, 1});
  // The description carries the id, name, retry count and available date.
  EXPECT_EQ(task->description(),
            "Task 1: sync (3 retries, next available 1970-01-01 00:00:00 +0000), userInfo: " +
                task->userInfo().description());
  EXPECT_EQ(task->userInfo(), pnx::Value::dict({{"page", 2}, {"tags", pnx::Value::array({"a"})}}));
  EXPECT_EQ(task->createdDate(), pnx::Date(1600000000));
  EXPECT_EQ(task->maxRetries(), PNXTaskAlwaysRetry);
  EXPECT_TRUE(task->retryWithBackoff());
  EXPECT_TRUE(task->canBeRetried());  // a negative budget never runs out

  for (pnx::Value payload : {pnx::Value("{not json"), pnx::Value("[1, 2]"), pnx::Value(42)}) {
    EXPECT_EQ(taskFromRow({"n", payload, 0, 0, 0, 0, 0})->userInfo(), pnx::Value(pnx::Dictionary()))
        << payload.description();
  }
  // A null name is none (null numbers read as zero: Value's integerValue).
  EXPECT_FALSE(taskFromRow({pnx::Value(), "{}", pnx::Value(), pnx::Value(), pnx::Value(),
                            pnx::Value(), pnx::Value()})
                   ->name());
}

TEST(PNXTask, FactoriesFillDefaultsAndTheRetryBudgetDecidesCanBeRetried) {
  pnx::Clock::set(pnx::Date(1700000000));
  auto plain = PNXTask::taskWithName("upload", pnx::Value());
  EXPECT_FALSE(plain->retryWithBackoff());
  EXPECT_EQ(plain->description(),
            "Task (null): upload (0 retries, next available 2023-11-14 22:13:20 +0000), "
            "userInfo: {\n}");
  plain->setRetryCount(9);  // the default budget is 10
  EXPECT_TRUE(plain->canBeRetried());
  plain->setRetryCount(10);
  EXPECT_FALSE(plain->canBeRetried());
  EXPECT_FALSE(PNXTask().canBeRetried());  // a bare task has a budget of 0

  PNXTask::setRetryWithBackoffDefault(true);
  EXPECT_FALSE(plain->retryWithBackoff());  // only later tasks change
  EXPECT_TRUE(PNXTask::taskWithName("upload", pnx::Value::dict({{"k", 1}}))->retryWithBackoff());
  // Given explicitly, the choice overrides the default.
  EXPECT_FALSE(
      PNXTask::taskWithName("upload", pnx::Value(), std::nullopt, 2, false)->retryWithBackoff());
  PNXTask::setRetryWithBackoffDefault(false);
  pnx::Clock::useSystemClock();
}

}  // namespace

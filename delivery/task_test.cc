#include "delivery/task.h"

#include <gtest/gtest.h>

#include "platform/security/sqlite.h"

namespace {

class TaskRows : public ::testing::Test {
 protected:
  TaskRows() : database_(pnx::SQLiteDatabase::open(":memory:")) {
    EXPECT_TRUE(
        database_->execute("CREATE TABLE tasks (id INTEGER PRIMARY KEY, name TEXT, userInfo TEXT,"
                           " createdDate INTEGER, availableDate INTEGER, retryCount INTEGER,"
                           " maxRetries INTEGER, retryWithBackoff INTEGER)"));
  }

  // The task read back from a row holding the given values.
  std::shared_ptr<PNXTask> taskFromRow(const std::vector<pnx::Value>& values) {
    EXPECT_TRUE(database_->execute(
        "INSERT INTO tasks (name, userInfo, createdDate, availableDate, retryCount, maxRetries,"
        " retryWithBackoff) VALUES (?, ?, ?, ?, ?, ?, ?)",
        values));
    auto rows =
        database_->query("SELECT * FROM tasks WHERE id = ?",
                         {pnx::Value(static_cast<long long>(database_->lastInsertRowId()))});
    EXPECT_TRUE(rows && rows->next());
    return PNXTask::taskWithResultSet(*rows);
  }

  std::unique_ptr<pnx::SQLiteDatabase> database_;
};

TEST_F(TaskRows, ARowFillsEveryProperty) {
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
}

TEST_F(TaskRows, DamagedPayloadsBecomeEmpty) {
  for (pnx::Value payload : {pnx::Value("{not json"), pnx::Value("[1, 2]"), pnx::Value(42)}) {
    auto task = taskFromRow({"n", payload, 0, 0, 0, 0, 0});
    EXPECT_EQ(task->userInfo(), pnx::Value(pnx::Dictionary())) << payload.description();
  }
  // A null name is none (null numbers read as zero: Value's integerValue).
  auto task = taskFromRow(
      {pnx::Value(), "{}", pnx::Value(), pnx::Value(), pnx::Value(), pnx::Value(), pnx::Value()});
  EXPECT_FALSE(task->name());
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
  auto explicitTask = PNXTask::taskWithName("upload", pnx::Value(), std::nullopt, 2, false);
  EXPECT_FALSE(explicitTask->retryWithBackoff());
  EXPECT_EQ(explicitTask->maxRetries(), 2);
  PNXTask::setRetryWithBackoffDefault(false);
  pnx::Clock::useSystemClock();
}

}  // namespace

// The pure values of delivery reporting (records, queue, back-off, request body, in-flight
// sends) and the task rows of the delivery queue.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "delivery/delivery_records.h"
#include "delivery/in_flight.h"
#include "delivery/task.h"
#include "diagnostics/errors.h"
#include "platform/security/sqlite.h"

namespace pnx {
namespace {

TEST(DeliveryRecord, TakesIdentitiesAndThePnxDictionaryOnlyWhenPresentAndGoesAsCompactJSON) {
  const Value fields = Value::dict({{"attribution", "att-1"}, {"mailingId", 42}, {"other", 1}});
  EXPECT_EQ(
      deliveryRecord("u", "c", Value::dict({{"aps", 1}, {"pnx", fields}})),
      Value::dict(
          {{"userId", "u"}, {"channelId", "c"}, {"attribution", "att-1"}, {"mailingId", 42}}));
  EXPECT_EQ(deliveryRecord("u", "c", Value::dict({{"aps", 1}})),
            Value::dict({{"userId", "u"}, {"channelId", "c"}}));
  // A "pnx" that is not a dictionary counts as absent.
  EXPECT_EQ(deliveryRecord(Value(), "c", Value::dict({{"pnx", "att-1"}})),
            Value::dict({{"channelId", "c"}}));
  EXPECT_EQ(deliveryRecord(Value(), Value(), Value()), Value(Dictionary()));

  // The request body is the compact JSON of the records, and fails on what JSON cannot hold.
  ErrorPtr error;
  auto body = deliveryBody({Value::dict({{"userId", "u"}, {"mailingId", 5}})}, &error);
  ASSERT_TRUE(body);
  EXPECT_EQ(body->json, "{\"delivery\":[{\"mailingId\":5,\"userId\":\"u\"}]}");

  EXPECT_FALSE(deliveryBody({Value::dict({{"attribution", Value(Data{1, 2})}})}, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), NSPropertyListWriteInvalidError);
}

TEST(RetryGate, OnlyTooManyRequestsSetsABackOffDateAndTheGateOpensStrictlyAfterIt) {
  Date now(1'000'000);
  EXPECT_TRUE(retryGateOpen(Value(), now));
  EXPECT_TRUE(retryGateOpen(Value("soon"), now));
  EXPECT_TRUE(retryGateOpen(Value(now.addingTimeInterval(-0.001)), now));
  EXPECT_FALSE(retryGateOpen(Value(now), now));
  EXPECT_FALSE(retryGateOpen(Value(now.addingTimeInterval(120)), now));

  const std::pair<Value, std::optional<Date>> httpErrors[] = {
      {Value::dict({{"statusCode", 429}}), now.addingTimeInterval(10)},
      {Value::dict({{"statusCode", 429}, {"retryAfter", 120}}), now.addingTimeInterval(120)},
      // An HTTP-date Retry-After reads as 0 seconds: held back only until the next call.
      {Value::dict({{"statusCode", 429}, {"retryAfter", 0}}), now},
      {Value::dict({{"statusCode", 500}, {"retryAfter", 5}}), std::nullopt},
  };
  for (const auto& [userInfo, until] : httpErrors) {
    EXPECT_EQ(retryAfterDateForError(Error::make("pnx.campaign.mobile", 105, userInfo), now),
              until);
  }
  EXPECT_FALSE(retryAfterDateForError(Error::make(NSURLErrorDomain, -1004), now));
  EXPECT_FALSE(retryAfterDateForError(nullptr, now));
}

// Only an array is a queue, and equal records collapse. A change in place gives what the set
// algebra gives and tells exactly when the queue changed (another spelling changes nothing).
TEST(DeliveryQueue, EqualRecordsCollapseAndChangesInPlaceFollowTheSetAlgebra) {
  const Value a = Value::dict({{"userId", "a"}, {"mailingId", 5}});
  const Value aAsReal = Value::dict({{"mailingId", 5.0}, {"userId", "a"}});
  const Value b = Value::dict({{"userId", "b"}}), c = Value::dict({{"userId", "c"}});
  EXPECT_EQ(storedValueFromQueue(queueFromStoredValue(Value::array({a, b, aAsReal})).value()),
            Value::array({a, b}));
  EXPECT_FALSE(queueFromStoredValue(Value()));
  EXPECT_FALSE(queueFromStoredValue(Value("not a queue")));

  struct Case {
    Set queue, add, remove;
    bool changes;
  };
  for (const Case& change :
       {Case{{a, b}, {}, {}, false}, Case{{a, b}, {aAsReal}, {}, false}, Case{{a}, {b}, {}, true},
        Case{{a, b}, {}, {b}, true}, Case{{a}, {}, {c}, false}, Case{{a}, {c}, {c}, false},
        Case{{a, c}, {c}, {c}, true}, Case{{}, {a, b}, {a}, true},
        Case{{a}, {b}, {aAsReal}, true}}) {
    Set queue = change.queue;
    EXPECT_EQ(applyQueueChange(queue, change.add, change.remove), change.changes);
    Set expected = change.queue;  // (queue ∪ add) \ remove
    expected.insert(change.add.begin(), change.add.end());
    std::erase_if(expected, [&](const Value& record) { return change.remove.count(record); });
    EXPECT_EQ(queue, expected);
  }
}

TEST(InFlight, ProcessIdentitiesTellRunningOwnersFromEndedOnesAndAbandonedSendsAreFound) {
  ProcessIdentity self = ProcessIdentity::current();
  EXPECT_GT(self.startTime, 0);
  EXPECT_FALSE(self.bootId.empty());
  EXPECT_EQ(ProcessIdentity::running(getpid()), self);
  EXPECT_TRUE(inFlightOwnerRunning(inFlightEntry(self, Date::now(), {})));

  pid_t child = fork();
  if (child == 0) _exit(0);
  // Ended but not reaped: a zombie is gone too.
  while (ProcessIdentity::running(child)) usleep(1000);
  Value entry = inFlightEntry(ProcessIdentity{child, 1, self.bootId}, Date::now(), {});
  EXPECT_FALSE(inFlightOwnerRunning(entry));
  waitpid(child, nullptr, 0);
  EXPECT_FALSE(ProcessIdentity::running(child));
  // The same pid with another start time is another process.
  ProcessIdentity reused = self;
  reused.startTime += 1;
  EXPECT_FALSE(inFlightOwnerRunning(inFlightEntry(reused, Date::now(), {})));

  // Abandoned are the sends of owners gone, sends too old, and malformed entries.
  Date now(1'000'000);
  const Value a("a"), b("b"), c("c");
  ProcessIdentity alive{1, 1, "boot"}, gone{2, 2, "boot"};
  Value stored =
      inFlightWith(Value(), "live", inFlightEntry(alive, now.addingTimeInterval(-5), {a}));
  stored = inFlightWith(stored, "dead", inFlightEntry(gone, now.addingTimeInterval(-5), {b}));
  stored = inFlightWith(stored, "stuck", inFlightEntry(alive, now.addingTimeInterval(-91), {c}));
  stored = inFlightWith(stored, "broken", Value("garbage"));
  auto running = [](const Value& entry) { return entry["pid"] == Value(1); };

  AbandonedSends abandoned = abandonedSends(stored, now, kInFlightAbandonSeconds, running);
  EXPECT_EQ(abandoned.sendIds, (std::vector<std::string>{"broken", "dead", "stuck"}));
  EXPECT_EQ(abandoned.records, (Set{b, c}));
  EXPECT_EQ(inFlightRecords(stored), (Set{a, b, c}));

  auto remaining = inFlightWithout(stored, abandoned.sendIds);
  ASSERT_TRUE(remaining);
  EXPECT_EQ(inFlightRecords(*remaining), Set{a});
  // Removing what is not there changes nothing and needs no write.
  EXPECT_FALSE(inFlightWithout(*remaining, {"dead"}));
  EXPECT_FALSE(inFlightWithout(Value(), {"dead"}));
  EXPECT_TRUE(abandonedSends(Value("unreadable"), now, 90, running).sendIds.empty());
}

std::shared_ptr<PNXTask> taskFromRow(const std::vector<Value>& values) {
  auto database = SQLiteDatabase::open(":memory:");
  EXPECT_TRUE(database->execute(
      "CREATE TABLE tasks (id INTEGER PRIMARY KEY, name TEXT, userInfo TEXT, createdDate INTEGER,"
      " availableDate INTEGER, retryCount INTEGER, maxRetries INTEGER, retryWithBackoff INTEGER)"));
  EXPECT_TRUE(database->execute("INSERT INTO tasks VALUES (NULL, ?, ?, ?, ?, ?, ?, ?)", values));
  auto rows = database->query("SELECT * FROM tasks");
  EXPECT_TRUE(rows && rows->next());
  return PNXTask::taskWithResultSet(*rows);
}

TEST(PNXTask, RowsAndFactoriesFillEveryPropertyAndTheRetryBudgetDecidesCanBeRetried) {
  auto task = taskFromRow({"sync", R"({"page": 2, "tags": ["a"]})", 1600000000, 0, 3, -1, 1});
  EXPECT_EQ(task->description(),
            "Task 1: sync (3 retries, next available 1970-01-01 00:00:00 +0000), userInfo: " +
                task->userInfo().description());
  EXPECT_EQ(task->userInfo(), Value::dict({{"page", 2}, {"tags", Value::array({"a"})}}));
  EXPECT_EQ(task->createdDate(), Date(1600000000));
  EXPECT_EQ(task->maxRetries(), PNXTaskAlwaysRetry);
  EXPECT_TRUE(task->retryWithBackoff());
  EXPECT_TRUE(task->canBeRetried());  // a negative budget never runs out

  for (Value payload : {Value("{not json"), Value("[1, 2]"), Value(42)}) {
    EXPECT_EQ(taskFromRow({"n", payload, 0, 0, 0, 0, 0})->userInfo(), Value(Dictionary()))
        << payload.description();
  }
  // A null name is none (null numbers read as zero: Value's integerValue).
  EXPECT_FALSE(taskFromRow({Value(), "{}", Value(), Value(), Value(), Value(), Value()})->name());

  Clock::set(Date(1700000000));
  auto plain = PNXTask::taskWithName("upload", Value());
  EXPECT_FALSE(plain->retryWithBackoff());
  EXPECT_EQ(plain->availableDate(), Date(1700000000));
  plain->setRetryCount(9);  // the default budget is 10
  EXPECT_TRUE(plain->canBeRetried());
  plain->setRetryCount(10);
  EXPECT_FALSE(plain->canBeRetried());
  EXPECT_FALSE(PNXTask().canBeRetried());  // a bare task has a budget of 0

  PNXTask::setRetryWithBackoffDefault(true);
  EXPECT_FALSE(plain->retryWithBackoff());  // only later tasks change
  EXPECT_TRUE(PNXTask::taskWithName("upload", Value::dict({{"k", 1}}))->retryWithBackoff());
  EXPECT_FALSE(
      PNXTask::taskWithName("upload", Value(), std::nullopt, 2, false)->retryWithBackoff());
  PNXTask::setRetryWithBackoffDefault(false);
  Clock::useSystemClock();
}

}  // namespace
}  // namespace pnx

#include "delivery/delivery_records.h"

#include <gtest/gtest.h>

#include "diagnostics/errors.h"
#include "platform/foundation/json.h"

namespace pnx {
namespace {

TEST(DeliveryRecord, TakesIdentitiesAndThePnxDictionaryOnlyWhenPresent) {
  Value payload = Value::dict(
      {{"aps", Value::dict({{"alert", "hi"}})},
       {"pnx", Value::dict({{"attribution", "att-1"}, {"mailingId", 42}, {"other", 1}})}});
  EXPECT_EQ(
      deliveryRecord("u", "c", payload),
      Value::dict(
          {{"userId", "u"}, {"channelId", "c"}, {"attribution", "att-1"}, {"mailingId", 42}}));
  EXPECT_EQ(deliveryRecord("u", "c", Value::dict({{"aps", 1}})),
            Value::dict({{"userId", "u"}, {"channelId", "c"}}));
  // A "pnx" that is not a dictionary counts as absent.
  EXPECT_EQ(deliveryRecord(Value(), "c", Value::dict({{"pnx", "att-1"}})),
            Value::dict({{"channelId", "c"}}));
  EXPECT_EQ(deliveryRecord(Value(), Value(), Value()), Value(Dictionary()));
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

TEST(DeliveryBody, IsTheGzipOfTheCompactJson) {
  Set queue{Value::dict({{"userId", "u"}, {"mailingId", 5}})};
  ErrorPtr error;
  auto body = deliveryBody(queue, &error);
  ASSERT_TRUE(body);
  EXPECT_EQ(body->json, "{\"delivery\":[{\"mailingId\":5,\"userId\":\"u\"}]}");

  EXPECT_FALSE(deliveryBody({Value::dict({{"attribution", Value(Data{1, 2})}})}, &error));
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), NSPropertyListWriteInvalidError);
}

// The queue's stored form collapses equal records, and only an array is a queue. The change
// in place gives what the set algebra gives, and tells exactly when the queue differs from
// before (equal records in another spelling change nothing).
TEST(DeliveryQueue, EqualRecordsCollapseAndChangesInPlaceFollowTheSetAlgebra) {
  const Value a = Value::dict({{"userId", "a"}, {"mailingId", 5}});
  const Value aAsReal = Value::dict({{"mailingId", 5.0}, {"userId", "a"}});
  const Value b = Value::dict({{"userId", "b"}});
  const Value c = Value::dict({{"userId", "c"}});
  auto stored = queueFromStoredValue(Value::array({a, b, aAsReal}));
  ASSERT_TRUE(stored);
  EXPECT_EQ(stored->size(), 2u);
  EXPECT_EQ(storedValueFromQueue(*stored).size(), 2u);
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
    Set expected;  // (queue ∪ add) \ remove, element by element
    for (const Set* part : {&change.queue, &change.add}) {
      for (const Value& record : *part) {
        if (!change.remove.count(record)) expected.insert(record);
      }
    }
    EXPECT_EQ(queue, expected);
  }
}

}  // namespace
}  // namespace pnx

#include "delivery/in_flight.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace pnx {
namespace {

TEST(ProcessIdentity, TellsRunningProcessesFromEndedOnes) {
  ProcessIdentity self = ProcessIdentity::current();
  EXPECT_EQ(self.pid, getpid());
  EXPECT_GT(self.startTime, 0);
  EXPECT_FALSE(self.bootId.empty());
  ASSERT_TRUE(ProcessIdentity::running(getpid()));
  EXPECT_EQ(*ProcessIdentity::running(getpid()), self);
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
}

TEST(InFlight, AbandonedAreSendsOfGoneOwnersTooOldOrMalformed) {
  Date now(1'000'000);
  Value a = Value::dict({{"attribution", "a"}});
  Value b = Value::dict({{"attribution", "b"}});
  Value c = Value::dict({{"attribution", "c"}});
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

}  // namespace
}  // namespace pnx

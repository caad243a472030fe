#include "platform/dispatch/dispatch.h"

#include "platform/foundation/date.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace pnx {
namespace {

using namespace std::chrono_literals;

// A block that throws is reported and the queue goes on; sync hands the exception back.
TEST(DispatchQueueTest, SyncIsABarrierRunsInlineFromTheQueueItselfAndRethrows) {
  DispatchQueue queue("sync");
  int counter = 0;
  queue.async([] { throw std::runtime_error("boom"); });
  for (int i = 0; i < 100; ++i) queue.async([&] { ++counter; });
  queue.sync([&] {
    EXPECT_TRUE(queue.isCurrent());
    EXPECT_EQ(counter, 100);
    queue.sync([&] { ++counter; });  // would deadlock if it waited
  });
  EXPECT_FALSE(queue.isCurrent());
  EXPECT_EQ(counter, 101);
  EXPECT_THROW(queue.sync([] { throw std::runtime_error("to caller"); }), std::runtime_error);
}

// The last reference may go when a block on the queue's own thread is destroyed: the
// queue must then finish its work without joining itself.
TEST(DispatchQueueTest, SurvivesLosingItsLastReferenceOnItsOwnThread) {
  struct Owner {
    std::shared_ptr<DispatchQueue> queue = DispatchQueue::create("owned");
    std::promise<void> gone;
    ~Owner() {
      queue.reset();
      gone.set_value();
    }
  };
  auto owner = std::make_shared<Owner>();
  std::future<void> gone = owner->gone.get_future();
  std::atomic<int> ran{0};
  owner->queue->async([owner, &ran] { ++ran; });
  owner->queue->async([&ran] { ++ran; });
  owner.reset();
  gone.wait();
  EXPECT_EQ(ran, 2);
}

TEST(RunLoopTest, BlocksFromOtherThreadsWakeTheMainQueueAndRunPendingDoesNotChase) {
  DispatchQueue& main = DispatchQueue::main();
  bool done = false;  // touched only on the main queue and after runUntil
  std::thread poster([&] {
    main.sync([&] { EXPECT_TRUE(main.isCurrent()); });
    main.async([&] { done = true; });
  });
  // A generous deadline: runUntil must return as soon as done is set, not at the deadline.
  EXPECT_TRUE(RunLoop::runUntil([&] { return done; }, RunLoop::Clock::now() + 60s));
  poster.join();
  EXPECT_FALSE(main.isCurrent());

  auto start = RunLoop::Clock::now();
  EXPECT_FALSE(RunLoop::runUntil([] { return false; }, start + 20ms));
  EXPECT_GE(RunLoop::Clock::now(), start + 20ms);
  // The system clock fires asyncAfter in real time on the main queue too.
  bool fired = false;
  main.asyncAfter(0.05, [&] { fired = true; });
  EXPECT_TRUE(RunLoop::runUntil([&] { return fired; }, start + 5s));
  EXPECT_GE(RunLoop::Clock::now(), start + 70ms);

  int runs = 0;
  std::function<void()> requeue = [&] {
    if (++runs < 3) main.async(requeue);
  };
  main.async(requeue);
  RunLoop::runPending();
  EXPECT_EQ(runs, 1);
  // From the thread that runs the loop, sync first runs what is queued, then the block.
  main.sync([&] { EXPECT_EQ(runs, 2); });
  RunLoop::runPending();
  EXPECT_EQ(runs, 3);
}

TEST(AsyncAfterTest, APinnedClockFiresExactlyWhenDueAndADestroyedQueueDropsWhatWaits) {
  Clock::set(Date(1'000'000));
  DispatchQueue queue("delayed");
  std::vector<std::string> ran;  // touched only on the queue
  queue.asyncAfter(10, [&] { ran.push_back("10 s"); });
  queue.asyncAfter(5, [&] { ran.push_back("5 s, first"); });
  queue.asyncAfter(5, [&] { ran.push_back("5 s, second"); });
  queue.asyncAfter(0, [&] { ran.push_back("now"); });

  queue.drain();
  EXPECT_EQ(ran, std::vector<std::string>{"now"});
  Clock::advance(4.999);
  queue.drain();
  EXPECT_EQ(ran.size(), 1u);
  // Advancing returns with the due blocks already queued: no sleep, no polling.
  Clock::advance(0.001);
  queue.drain();
  EXPECT_EQ(ran, (std::vector<std::string>{"now", "5 s, first", "5 s, second"}));
  Clock::set(Date(1'000'000 + 3600));
  queue.drain();
  EXPECT_EQ(ran.back(), "10 s");

  // A destroyed queue runs what is queued (and what that queues) but drops what is not due.
  int counter = 0;
  auto captured = std::make_shared<int>(0);
  {
    DispatchQueue shortLived("short-lived");
    shortLived.asyncAfter(1, [captured] { ++*captured; });
    for (int i = 0; i < 100; ++i) shortLived.async([&] { ++counter; });
    shortLived.async([&] { shortLived.async([&] { ++counter; }); });
  }
  EXPECT_EQ(counter, 101);
  EXPECT_EQ(captured.use_count(), 1);  // the block went with the queue
  Clock::advance(2);                   // and nothing posts to the destroyed queue
  EXPECT_EQ(*captured, 0);
  Clock::useSystemClock();
}

}  // namespace
}  // namespace pnx

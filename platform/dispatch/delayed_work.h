// The timer behind DispatchQueue::asyncAfter: blocks waiting for a point in Clock time.
//
// One thread, started with the first delayed block, hands each block to its queue when
// the system clock reaches the block's time. While the clock is pinned the thread only
// sleeps: moving the clock (Clock::set, Clock::advance) hands over every block that became
// due, on the thread that moved it, so a test sees those blocks queued as soon as the
// clock call returns.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "platform/dispatch/dispatch.h"

namespace pnx {

class DelayedWork {
 public:
  static DelayedWork& shared();
  // The shared instance if one was made, else nullptr (a queue's destructor must not start
  // the timer thread just to say that it has nothing waiting).
  static DelayedWork* existing();

  void add(DispatchQueue& queue, double dueSeconds, DispatchQueue::Block block);
  // Drops the blocks still waiting for queue; called as the queue is destroyed.
  void forget(const DispatchQueue& queue);

 private:
  DelayedWork();
  struct Entry {
    DispatchQueue* queue;
    DispatchQueue::Block block;
  };
  void run();
  void clockChanged();
  // Hands due blocks to their queues; called with mutex_ held.
  void fireDue();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::multimap<double, Entry> entries_;  // by due time, seconds since 1970
  bool changed_ = false;
  std::thread thread_;
};

}  // namespace pnx

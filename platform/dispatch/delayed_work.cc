#include "platform/dispatch/delayed_work.h"

#include <algorithm>
#include <atomic>
#include <chrono>

#include "platform/foundation/date.h"

namespace pnx {
namespace {

std::atomic<DelayedWork*> instance{nullptr};

// With the system clock the thread sleeps at most this long at a time, so that a change of
// the wall clock moves due times by no more than this.
constexpr double kLongestSleepSeconds = 1.0;

}  // namespace

// Created on first use and never destroyed: queues may still post delayed work while the
// process exits.
DelayedWork& DelayedWork::shared() {
  static DelayedWork* work = [] {
    auto* created = new DelayedWork;
    instance.store(created, std::memory_order_release);
    return created;
  }();
  return *work;
}

DelayedWork* DelayedWork::existing() {
  return instance.load(std::memory_order_acquire);
}

DelayedWork::DelayedWork() {
  Clock::addChangeListener([this] { clockChanged(); });
  thread_ = std::thread(&DelayedWork::run, this);
  thread_.detach();
}

void DelayedWork::add(DispatchQueue& queue, double dueSeconds, DispatchQueue::Block block) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.emplace(dueSeconds, Entry{&queue, std::move(block)});
    changed_ = true;
    fireDue();  // a delay of zero or less is due at once
  }
  wake_.notify_one();
}

void DelayedWork::forget(const DispatchQueue& queue) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::erase_if(entries_, [&](const auto& entry) { return entry.second.queue == &queue; });
}

void DelayedWork::clockChanged() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    changed_ = true;
    fireDue();
  }
  wake_.notify_one();
}

// Posting under mutex_ keeps a queue from being destroyed between the lookup and the post:
// its destructor calls forget() first, which waits for mutex_.
void DelayedWork::fireDue() {
  double now = Clock::now().timeIntervalSince1970();
  while (!entries_.empty() && entries_.begin()->first <= now) {
    auto node = entries_.extract(entries_.begin());
    node.mapped().queue->async(std::move(node.mapped().block));
  }
}

void DelayedWork::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    fireDue();
    changed_ = false;
    if (entries_.empty() || Clock::isPinned()) {
      wake_.wait(lock, [this] { return changed_; });
      continue;
    }
    double wait = entries_.begin()->first - Clock::now().timeIntervalSince1970();
    wait = std::clamp(wait, 0.0, kLongestSleepSeconds);
    wake_.wait_for(lock, std::chrono::duration<double>(wait), [this] { return changed_; });
  }
}

}  // namespace pnx

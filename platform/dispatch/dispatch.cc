#include "platform/dispatch/dispatch.h"

#include <cstdio>
#include <exception>
#include <utility>

#include "platform/dispatch/delayed_work.h"
#include "platform/foundation/date.h"

namespace pnx {

namespace {

// The queue whose block the calling thread is running (nullptr outside any block).
thread_local const DispatchQueue* currentQueue = nullptr;

// Set on a worker thread when its own queue was destroyed from inside one of its blocks
// (typically the block held the last reference to the queue's owner). The worker loop
// then returns without touching the destroyed queue.
thread_local bool ownQueueDestroyed = false;

// Runs a block as the given queue's; an exception is reported and the queue goes on.
void runBlock(const DispatchQueue& queue, const DispatchQueue::Block& block) {
  const DispatchQueue* previous = currentQueue;
  currentQueue = &queue;
  try {
    block();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "DispatchQueue %s: a block threw: %s\n", queue.label().c_str(), e.what());
  } catch (...) {
    std::fprintf(stderr, "DispatchQueue %s: a block threw an unknown exception\n",
                 queue.label().c_str());
  }
  currentQueue = previous;
}

}  // namespace

DispatchQueue::DispatchQueue(std::string label) : DispatchQueue(std::move(label), false) {}

DispatchQueue::DispatchQueue(std::string label, bool threadless)
    : label_(std::move(label)), threadless_(threadless) {}

// Destroyed from its own worker (inside a block, or by a block's destruction), the queue
// cannot join that thread: it runs what is left right here, then lets the thread go.
DispatchQueue::~DispatchQueue() {
  if (DelayedWork* delayed = DelayedWork::existing()) delayed->forget(*this);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (!thread_.joinable()) return;
  if (thread_.get_id() != std::this_thread::get_id()) {
    thread_.join();
    return;
  }
  while (runOne()) {
  }
  thread_.detach();
  ownQueueDestroyed = true;
}

std::shared_ptr<DispatchQueue> DispatchQueue::create(std::string label) {
  return std::make_shared<DispatchQueue>(std::move(label));
}

// Created on first use and deliberately never destroyed: threads may still post to it
// while the process exits, after static destructors have run.
DispatchQueue& DispatchQueue::main() {
  static DispatchQueue* queue = new DispatchQueue("main", true);
  return *queue;
}

void DispatchQueue::async(Block block) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    blocks_.push_back(std::move(block));
    startIfNeeded();
  }
  wake_.notify_one();
}

void DispatchQueue::asyncAfter(double seconds, Block block) {
  DelayedWork::shared().add(*this, Clock::now().timeIntervalSince1970() + seconds,
                            std::move(block));
}

// Called with mutex_ held.
void DispatchQueue::startIfNeeded() {
  if (threadless_ || thread_.joinable()) return;
  thread_ = std::thread(&DispatchQueue::workerLoop, this);
  runner_ = thread_.get_id();
}

// Called from a block of this queue (or, for the main queue, from the thread that runs its
// RunLoop), waiting would deadlock: the block then runs inline, after whatever the run
// loop's thread still has queued. An exception from the block reaches the caller.
void DispatchQueue::sync(const Block& block) {
  if (isCurrent()) {
    block();
    return;
  }
  bool drivenHere;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    drivenHere = threadless_ && runner_ == std::this_thread::get_id();
  }
  if (drivenHere) {
    runQueuedNow();
    const DispatchQueue* previous = currentQueue;
    currentQueue = this;
    try {
      block();
    } catch (...) {
      currentQueue = previous;
      throw;
    }
    currentQueue = previous;
    return;
  }

  bool done = false;
  std::exception_ptr failure;
  async([&] {
    try {
      block();
    } catch (...) {
      failure = std::current_exception();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    done = true;
    idle_.notify_all();
  });
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [&] { return done; });
  lock.unlock();
  if (failure) std::rethrow_exception(failure);
}

bool DispatchQueue::isCurrent() const {
  return currentQueue == this;
}

bool DispatchQueue::runOne() {
  Block block;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (blocks_.empty()) return false;
    block = std::move(blocks_.front());
    blocks_.pop_front();
    running_ = true;
  }
  runBlock(*this, block);
  block = nullptr;
  std::lock_guard<std::mutex> lock(mutex_);
  running_ = false;
  return true;
}

// Blocks queued by the blocks run here wait for a later call, so a block that re-queues
// itself cannot keep this from returning.
void DispatchQueue::runQueuedNow() {
  std::size_t count;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    count = blocks_.size();
  }
  for (; count > 0 && runOne(); --count) {
  }
}

void DispatchQueue::workerLoop() {
  for (;;) {
    Block block;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return !blocks_.empty() || stopping_; });
      if (blocks_.empty()) return;  // stopping, and nothing left to run
      block = std::move(blocks_.front());
      blocks_.pop_front();
      running_ = true;
    }
    runBlock(*this, block);
    if (ownQueueDestroyed) return;
    block = nullptr;  // may release the last reference to this queue
    if (ownQueueDestroyed) return;
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
  }
}

// ---------------------------------------------------------------------------------------

// done() is checked before the first block and after each one; a change made from another
// thread without queueing a block is seen at the next block or at the deadline.
bool RunLoop::runUntil(const std::function<bool()>& done, Clock::time_point deadline) {
  DispatchQueue& queue = DispatchQueue::main();
  {
    std::lock_guard<std::mutex> lock(queue.mutex_);
    queue.runner_ = std::this_thread::get_id();
  }
  for (;;) {
    if (done()) return true;
    if (queue.runOne()) continue;
    std::unique_lock<std::mutex> lock(queue.mutex_);
    if (Clock::now() >= deadline) break;
    queue.wake_.wait_until(lock, deadline, [&] { return !queue.blocks_.empty(); });
  }
  return done();
}

void RunLoop::runFor(std::chrono::milliseconds duration) {
  runUntil([] { return false; }, Clock::now() + duration);
}

void RunLoop::runPending() {
  DispatchQueue& queue = DispatchQueue::main();
  {
    std::lock_guard<std::mutex> lock(queue.mutex_);
    queue.runner_ = std::this_thread::get_id();
  }
  queue.runQueuedNow();
}

}  // namespace pnx

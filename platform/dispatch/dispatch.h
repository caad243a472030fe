// Serial dispatch queues, the main queue and its run loop, once-only guards.
//
// A DispatchQueue runs the blocks given to async() one at a time, in order, on a thread
// of its own (started on first use, joined when the queue is destroyed after draining).
// The main queue has no thread: the host program drains it by running the RunLoop on
// its main thread. All functions are thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace pnx {

class DispatchQueue {
 public:
  using Block = std::function<void()>;

  explicit DispatchQueue(std::string label);
  ~DispatchQueue();  // runs what is queued, then stops the thread
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  static std::shared_ptr<DispatchQueue> create(std::string label);
  // The queue the host's RunLoop drains; lives for the process.
  static DispatchQueue& main();

  const std::string& label() const { return label_; }
  void async(Block block);
  // Queues block once the process Clock has moved on by the given seconds (at once when
  // zero or less). Blocks due at the same time run in the order they were given. While
  // the clock is pinned, time passes only by Clock::set/advance, which queue what became
  // due before they return. Blocks still waiting when the queue is destroyed are dropped.
  void asyncAfter(double seconds, Block block);
  // Runs block on the queue and waits for it; an exception from the block reaches the
  // caller. Called from the queue itself (or, for the main queue, from the thread that runs
  // its RunLoop), waiting would deadlock, so the block runs inline instead.
  void sync(const Block& block);
  // Waits until every block queued before this call has run.
  void drain() {
    sync([] {});
  }
  // True when called from a block running on this queue.
  bool isCurrent() const;

 private:
  friend class RunLoop;
  explicit DispatchQueue(std::string label, bool threadless);
  void startIfNeeded();
  void workerLoop();
  // Runs at most one queued block; false when none was queued.
  bool runOne();
  // Runs the blocks queued at the time of the call, not those they queue in turn.
  void runQueuedNow();

  std::string label_;
  bool threadless_ = false;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable idle_;
  std::deque<Block> blocks_;
  bool running_ = false;  // a block is executing
  bool stopping_ = false;
  std::thread thread_;
  std::thread::id runner_;
};

// Drains the main queue on the calling thread.
class RunLoop {
 public:
  using Clock = std::chrono::steady_clock;
  // Runs main-queue blocks until done() is true or the deadline passes; returns done().
  static bool runUntil(const std::function<bool()>& done, Clock::time_point deadline);
  // Runs main-queue blocks for the given time.
  static void runFor(std::chrono::milliseconds duration);
  // Runs whatever is queued on the main queue now, without waiting.
  static void runPending();
};

// dispatch_once: std::call_once under the platform's name.
using OnceFlag = std::once_flag;
template <class F>
void dispatchOnce(OnceFlag& flag, F&& f) {
  std::call_once(flag, std::forward<F>(f));
}

}  // namespace pnx

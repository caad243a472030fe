// AtomicProperty: one property whose every read and write is indivisible.
//
// Scalars that the hardware can update atomically use std::atomic; anything else (strings,
// optionals, URLs) is copied in and out under a mutex of its own. There is no lock across
// several properties: a reader may see one property before and another after a change.
//
// Thread-safety: load and store may be called from any thread.
#pragma once

#include <atomic>
#include <mutex>
#include <type_traits>
#include <utility>

namespace pnx {

template <class T, bool kLockFree = std::is_scalar_v<T>>
class AtomicProperty {
 public:
  explicit AtomicProperty(T value = T()) : value_(std::move(value)) {}
  T load() const {
    std::lock_guard lock(mutex_);
    return value_;
  }
  void store(T value) {
    std::lock_guard lock(mutex_);
    value_ = std::move(value);
  }

 private:
  mutable std::mutex mutex_;
  T value_;
};

template <class T>
class AtomicProperty<T, true> {
 public:
  explicit AtomicProperty(T value = T()) : value_(value) {}
  T load() const { return value_.load(std::memory_order_acquire); }
  void store(T value) { value_.store(value, std::memory_order_release); }

 private:
  std::atomic<T> value_;
};

}  // namespace pnx

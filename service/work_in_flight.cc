#include "service/work_in_flight.h"

#include <atomic>

#include "platform/dispatch/dispatch.h"

namespace pnx {
namespace {

std::atomic<std::size_t> outstanding{0};

}  // namespace

WorkInFlight::Token WorkInFlight::begin() {
  outstanding.fetch_add(1);
  return Token(static_cast<void*>(nullptr), [](void*) {
    // Wakes the main thread's run loop, which may be waiting for the count to reach zero.
    if (outstanding.fetch_sub(1) == 1) DispatchQueue::main().async([] {});
  });
}

std::size_t WorkInFlight::count() {
  return outstanding.load();
}

}  // namespace pnx

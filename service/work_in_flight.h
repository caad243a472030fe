// WorkInFlight: counts the service's own asynchronous steps that have been started and not
// yet finished (blocks queued on the main queue, category callbacks awaited), so that the
// host can tell when a notification's work is done.
//
//   auto token = WorkInFlight::begin();         // counted until the last copy goes away
//   queue.async([token] { ... });               // finished when the block has run and
//                                               // been destroyed
//
// A step that starts the next one takes the next token before releasing its own, so the
// count never drops to zero between the steps of one chain.
//
// Thread-safety: all functions are thread-safe.
#pragma once

#include <cstddef>
#include <memory>

namespace pnx {

class WorkInFlight {
 public:
  using Token = std::shared_ptr<void>;
  static Token begin();
  static std::size_t count();
};

}  // namespace pnx

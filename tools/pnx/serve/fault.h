// Faults that `pnx serve` plays instead of the normal answer, so that clients can be tried
// against a backend that refuses, stalls or vanishes.
//
// A fault is written comma-separated, each part at most once, in any order:
//   status=N        answer with HTTP status N (200-599) and a short JSON body
//   retry-after=V   with a Retry-After header of value V (printable text)
//   delay=S         wait S seconds (fractional allowed, at most 600) before answering
//   drop            close the connection without an answer
//   times=N         apply to the next N requests only (N >= 1); without it, to all
// status is required unless the fault drops or only delays (then the request is handled
// normally once the delay is over). Examples: "status=429,retry-after=30,times=2",
// "status=503,delay=1.5", "drop,times=1".
//
// A FaultPlan holds the faults in order. Each request that faults apply to takes the first
// fault that still has uses, and uses one of them; once none has uses left, answers are
// normal again. A fault without times therefore applies to every later request and the
// faults after it are never reached.
//
// Thread-safety: parsing is pure; FaultPlan may be used from any thread at once.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/value.h"

namespace pnx::serve {

struct Fault {
  std::string text;           // the fault as given, for logs
  std::optional<int> status;  // none: no answer of its own (drop, or delay then normal)
  std::optional<std::string> retryAfter;
  double delaySeconds = 0;
  bool drop = false;
  std::optional<std::uint64_t> times;  // none: every request
};

// nullopt and *error (one sentence naming the bad part) when the text is not a fault.
std::optional<Fault> parseFault(std::string_view text, std::string* error = nullptr);

// The body of a run-time replacement: a JSON array of fault strings.
std::optional<std::vector<Fault>> parseFaultList(std::string_view json,
                                                 std::string* error = nullptr);

class FaultPlan {
 public:
  void replace(std::vector<Fault> faults);
  // The fault for the next request faults apply to, with one of its uses taken; nullopt
  // to answer normally.
  std::optional<Fault> next();
  // [{"fault": text, "remaining": uses left or null for unlimited}, ...]
  pnx::Value describe() const;

 private:
  mutable std::mutex mutex_;
  std::vector<Fault> faults_;  // times counts down as uses are taken
};

}  // namespace pnx::serve

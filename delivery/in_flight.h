// In-flight sends: what each delivery request carries while it is on its way, kept in the
// shared keychain so that a process that dies during a request loses nothing.
//
// While a send is on the network its records are out of "pushQueue" (the queue stays empty
// during a send, as the application side expects). Before they leave the queue they are
// written into the keychain item "pushQueueInFlight", under an identifier of the send,
// together with the identity of the sending process and the time the send began. The
// owner removes the entry once it has dealt with the outcome (records removed on success,
// merged back on failure; when the merge cannot be stored, the entry stays). Any later send or
// resend, in any process, takes the records of an entry back into the queue when the owning process
// is gone, or when the send began longer ago than the request time-out plus a margin (the owner is
// stuck or its clock jumped), so that they go out again.
//
// The item's value: a dictionary from send identifier to
//   {"pid": int, "processStart": int, "boot": string, "started": date, "records": [record]}
// "processStart" is the process's start time in clock ticks after boot and "boot" the
// kernel's boot identifier: a pid alone may have been reused by another process.
//
// The guarantee is at least once: a record whose send reached the server just before its
// process died is sent again, never lost.
//
// Thread-safety: the functions on values are pure; ProcessIdentity reads /proc and may be
// used from any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/date.h"
#include "platform/foundation/value.h"

namespace pnx {

inline constexpr const char* kPushQueueInFlightItem = "pushQueueInFlight";

// A send older than this many seconds is taken back even when its process still runs: the
// request's own time-out (60 s) plus a margin for the completion's keychain work.
inline constexpr double kInFlightAbandonSeconds = 60 + 30;

// Who owns an in-flight send: a process, told apart from a later one with the same pid.
struct ProcessIdentity {
  std::int64_t pid = 0;
  std::int64_t startTime = 0;  // clock ticks after boot
  std::string bootId;

  // This process (read once; a fork() child reads its own).
  static ProcessIdentity current();
  // The process now running with pid, or nullopt when none runs (a zombie, which has
  // ended but not been reaped yet, counts as gone).
  static std::optional<ProcessIdentity> running(pid_t pid);

  friend bool operator==(const ProcessIdentity&, const ProcessIdentity&) = default;
};

// Whether the process that owns entry is still running.
bool inFlightOwnerRunning(const Value& entry);

// The entry of a send begun at `started` by `owner` carrying `records`.
Value inFlightEntry(const ProcessIdentity& owner, Date started, const Set& records);

// The stored dictionary with the entry added / the entries removed (a missing or
// unreadable stored value counts as empty). nullopt from inFlightWithout when nothing
// changes, so that no write is needed.
Value inFlightWith(const Value& stored, const std::string& sendId, const Value& entry);
std::optional<Value> inFlightWithout(const Value& stored, const std::vector<std::string>& sendIds);

// Entries to take back: those whose owner is not running (ownerRunning decides) or that
// began more than maxAge seconds before now, and malformed ones. Their records are merged.
struct AbandonedSends {
  std::vector<std::string> sendIds;
  Set records;
};
AbandonedSends abandonedSends(const Value& stored, Date now, double maxAge,
                              const std::function<bool(const Value& entry)>& ownerRunning);

// Every record of every entry.
Set inFlightRecords(const Value& stored);

}  // namespace pnx

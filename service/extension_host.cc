#include "service/extension_host.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <thread>

#include "delivery/push_delivery_manager.h"
#include "platform/dispatch/dispatch.h"
#include "platform/network/url_session.h"
#include "platform/notifications/notification_center.h"
#include "service/work_in_flight.h"

namespace pnx {
namespace {

using Steady = std::chrono::steady_clock;

// Shared with the extension's threads through the content handler.
struct RunState {
  std::mutex mutex;
  std::vector<NotificationContentPtr> handBacks;
  std::atomic<bool> callReturned{false};
  std::atomic<bool> budgetOver{false};

  void record(const NotificationContentPtr& content) {
    // A snapshot: the service goes on changing the same content object afterwards.
    NotificationContentPtr snapshot = content ? content->copy() : nullptr;
    {
      std::lock_guard lock(mutex);
      handBacks.push_back(std::move(snapshot));
    }
    DispatchQueue::main().async([] {});  // wakes the run loop
  }
  bool handedBack() {
    std::lock_guard lock(mutex);
    return !handBacks.empty();
  }

  // What the extension threw from didReceiveNotificationRequest, if anything.
  std::exception_ptr thrown;  // written before callReturned is set, read after
};

// Joins the thread however the scope is left, so that an exception out of the run loop
// does not meet a joinable thread (std::terminate).
struct JoinOnExit {
  std::thread& thread;
  ~JoinOnExit() {
    if (thread.joinable()) thread.join();
  }
};

// Runs the main queue until done() or the deadline, looking again at least every few
// milliseconds: some work (a delivery report) ends on another thread without queueing
// anything on the main queue.
bool runMainQueueUntil(const std::function<bool()>& done, Steady::time_point deadline) {
  constexpr auto kSlice = std::chrono::milliseconds(10);
  while (!done()) {
    const auto now = Steady::now();
    if (now >= deadline) return false;
    RunLoop::runUntil(done, std::min(deadline, now + kSlice));
  }
  return true;
}

// Now plus the given seconds. A bound too far to count in the steady clock's ticks (an
// unlimited budget, say) means no bound at all, rather than an overflow that would put it
// in the past and end the run at once.
Steady::time_point realTimeBound(double seconds) {
  constexpr double kFarthest = 1e9;  // some 30 years: well inside the clock's range
  if (!(seconds < kFarthest)) return Steady::time_point::max();
  return Steady::now() +
         std::chrono::duration_cast<Steady::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

bool ExtensionHost::wantsExtension(const Value& userInfo) {
  const Value& aps = userInfo["aps"];
  if (!aps.isDictionary()) return false;
  const Value& mutableContent = aps["mutable-content"];
  return (mutableContent.isInteger() || mutableContent.isReal()) && mutableContent == Value(1);
}

NotificationRequestPtr ExtensionHost::requestFromPayload(std::string identifier,
                                                         const Value& payload) {
  auto content = MutableNotificationContent::make();
  const Value& aps = payload["aps"];
  const Value& alert = aps["alert"];
  auto text = [](const Value& value) {
    const std::string* string = value.asString();
    return string ? *string : std::string();
  };
  if (alert.isString()) {
    content->setBody(text(alert));
  } else {
    content->setTitle(text(alert["title"]));
    content->setSubtitle(text(alert["subtitle"]));
    content->setBody(text(alert["body"]));
  }
  content->setBadge(aps["badge"]);
  if (aps["sound"].isString() || aps["sound"].isDictionary()) content->setSound(aps["sound"]);
  content->setCategoryIdentifier(text(aps["category"]));
  content->setThreadIdentifier(text(aps["thread-id"]));
  content->setUserInfo(payload);
  return NotificationRequest::make(std::move(identifier), *content);
}

bool ExtensionHost::extensionWorkInFlight() {
  return WorkInFlight::count() != 0 || URLSession::outstandingTaskCount() != 0 ||
         PNXPushDeliveryMananger::outstandingSends() != 0 ||
         NotificationCenter::currentNotificationCenter()->pendingCalls() != 0;
}

ExtensionOutcome ExtensionHost::deliver(
    const NotificationRequestPtr& request,
    const std::shared_ptr<NotificationServiceExtension>& extension,
    const ExtensionRunOptions& options) {
  ExtensionOutcome outcome;
  auto center = NotificationCenter::currentNotificationCenter();
  if (!extension || !wantsExtension(request->content()->userInfo())) {
    outcome.displayed = center->displayNotification(*request->content(), &outcome.displayError);
    return outcome;
  }
  outcome.extensionRan = true;

  auto state = std::make_shared<RunState>();
  DispatchQueue::main().asyncAfter(options.timeBudget, [state] { state->budgetOver = true; });
  std::thread call([state, request, extension] {
    try {
      extension->didReceiveNotificationRequest(
          request, [state](NotificationContentPtr content) { state->record(content); });
    } catch (...) {
      // On a phone this ends the extension's process; here it ends the run, on the host's
      // thread, instead of terminating the host.
      state->thrown = std::current_exception();
    }
    state->callReturned = true;
    DispatchQueue::main().async([] {});
  });
  JoinOnExit joinOnExit{call};

  auto finished = [&] {
    return state->callReturned && state->handedBack() && !extensionWorkInFlight();
  };
  // The budget runs on the process Clock; this real-time bound only keeps a pinned clock
  // that nobody advances from holding the host for ever.
  auto threw = [&] { return state->callReturned && state->thrown; };
  runMainQueueUntil([&] { return finished() || threw() || state->budgetOver; },
                    realTimeBound(options.timeBudget + 600));
  call.join();
  if (state->thrown) std::rethrow_exception(state->thrown);
  if (!finished()) {
    outcome.expired = true;
    extension->serviceExtensionTimeWillExpire();
    runMainQueueUntil([] { return !extensionWorkInFlight(); }, Steady::now() + options.grace);
  }

  {
    std::lock_guard lock(state->mutex);
    outcome.handBacks = state->handBacks;
  }
  const NotificationContentPtr shown = outcome.handBacks.empty() || !outcome.handBacks.front()
                                           ? request->content()
                                           : outcome.handBacks.front();
  outcome.displayed = center->displayNotification(*shown, &outcome.displayError);
  return outcome;
}

}  // namespace pnx

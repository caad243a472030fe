#include "tools/pnx/serve/fault.h"

#include <charconv>
#include <cmath>

#include "platform/foundation/json.h"

namespace pnx::serve {

namespace {

constexpr double kMaxDelaySeconds = 600;
constexpr std::size_t kMaxFaults = 1000;

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

template <class Number>
std::optional<Number> wholeNumber(std::string_view text) {
  Number number{};
  const auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (status != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

bool printable(std::string_view text) {
  for (char c : text) {
    if (c < 0x20 || c > 0x7e) return false;
  }
  return true;
}

// Applies one "key=value" or "drop" part to `fault`; an error sentence when it is bad.
std::optional<std::string> applyPart(std::string_view part, Fault& fault,
                                     std::vector<std::string>& seen) {
  const std::size_t equals = part.find('=');
  const std::string key(trimmed(part.substr(0, equals)));
  const std::string_view value =
      equals == std::string_view::npos ? std::string_view() : trimmed(part.substr(equals + 1));
  if (key.empty()) return "empty part in \"" + fault.text + "\"";
  for (const auto& earlier : seen) {
    if (earlier == key) return "\"" + key + "\" given twice";
  }
  seen.push_back(key);

  if (key == "drop") {
    if (equals != std::string_view::npos) return "\"drop\" takes no value";
    fault.drop = true;
    return std::nullopt;
  }
  if (equals == std::string_view::npos) {
    if (key == "status" || key == "retry-after" || key == "delay" || key == "times") {
      return "\"" + key + "\" needs a value (" + key + "=...)";
    }
    return "unknown fault part \"" + key + "\"";
  }
  if (key == "status") {
    auto status = wholeNumber<int>(value);
    if (!status || *status < 200 || *status > 599) {
      return "status must be a number from 200 to 599, not \"" + std::string(value) + "\"";
    }
    fault.status = *status;
  } else if (key == "retry-after") {
    if (value.empty() || !printable(value)) return "retry-after needs a printable value";
    fault.retryAfter = std::string(value);
  } else if (key == "delay") {
    auto delay = wholeNumber<double>(value);
    if (!delay || !std::isfinite(*delay) || *delay < 0 || *delay > kMaxDelaySeconds) {
      return "delay must be a number of seconds from 0 to 600, not \"" + std::string(value) + "\"";
    }
    fault.delaySeconds = *delay;
  } else if (key == "times") {
    auto times = wholeNumber<std::uint64_t>(value);
    if (!times || *times == 0) {
      return "times must be a whole number from 1, not \"" + std::string(value) + "\"";
    }
    fault.times = *times;
  } else {
    return "unknown fault part \"" + key + "\"";
  }
  return std::nullopt;
}

}  // namespace

std::optional<Fault> parseFault(std::string_view text, std::string* error) {
  const auto fail = [error](std::string message) -> std::optional<Fault> {
    if (error) *error = "bad fault: " + std::move(message);
    return std::nullopt;
  };
  Fault fault;
  fault.text = std::string(trimmed(text));
  if (fault.text.empty()) return fail("empty fault");
  if (!printable(fault.text)) return fail("the fault holds control characters");

  std::vector<std::string> seen;
  std::string_view rest = fault.text;
  while (true) {
    const std::size_t comma = rest.find(',');
    if (auto problem = applyPart(rest.substr(0, comma), fault, seen)) return fail(*problem);
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  if (!fault.status && !fault.drop && fault.delaySeconds == 0) {
    return fail("\"" + fault.text + "\" needs status=N (or drop, or delay=S)");
  }
  if (fault.drop && fault.retryAfter) {
    return fail("\"" + fault.text + "\" drops the connection, so retry-after cannot be sent");
  }
  if (fault.retryAfter && !fault.status) {
    return fail("\"" + fault.text + "\" has retry-after but no status");
  }
  return fault;
}

std::optional<std::vector<Fault>> parseFaultList(std::string_view json, std::string* error) {
  const auto fail = [error](std::string message) -> std::optional<std::vector<Fault>> {
    if (error) *error = std::move(message);
    return std::nullopt;
  };
  pnx::ErrorPtr parseError;
  auto parsed = pnx::JSON::parse(json, &parseError);
  if (!parsed) {
    return fail("faults are not JSON: " +
                (parseError ? parseError->localizedDescription() : std::string("unreadable")));
  }
  const pnx::Array* items = parsed->asArray();
  if (!items) return fail("faults must be a JSON array of fault strings");
  if (items->size() > kMaxFaults) {
    return fail("at most " + std::to_string(kMaxFaults) + " faults at once");
  }
  std::vector<Fault> faults;
  for (std::size_t i = 0; i < items->size(); ++i) {
    const std::string* text = (*items)[i].asString();
    if (!text) return fail("fault " + std::to_string(i) + " is not a string");
    std::string problem;
    auto fault = parseFault(*text, &problem);
    if (!fault) return fail(problem);
    faults.push_back(std::move(*fault));
  }
  return faults;
}

void FaultPlan::replace(std::vector<Fault> faults) {
  std::lock_guard lock(mutex_);
  faults_ = std::move(faults);
}

std::optional<Fault> FaultPlan::next() {
  std::lock_guard lock(mutex_);
  for (Fault& fault : faults_) {
    if (fault.times && *fault.times == 0) continue;
    Fault taken = fault;
    if (fault.times) --*fault.times;
    return taken;
  }
  return std::nullopt;
}

pnx::Value FaultPlan::describe() const {
  std::lock_guard lock(mutex_);
  pnx::Array items;
  for (const Fault& fault : faults_) {
    items.push_back(pnx::Value::dict(
        {{"fault", fault.text},
         {"remaining", fault.times ? pnx::Value(static_cast<unsigned long long>(*fault.times))
                                   : pnx::Value()}}));
  }
  return items;
}

}  // namespace pnx::serve

// Fuzzes what pnx serve does with a request before any answer is written: routing, the
// delivery report checks (headers, gzip with its cap, JSON), media names and fault
// texts. The input reads like a request:
//
//   METHOD TARGET\n
//   Name: value\n ...       headers; each value is also tried as a fault
//   \n
//   body                    checked as a report as sent, and once more gzipped, so that
//                           the JSON checks see every body; also tried as a fault list
//
// Beyond not crashing, the outcomes must keep their promises: statuses from the documented
// set, a reason for every refusal, records only when accepted, decompressed sizes within
// the cap, and media names that cannot climb out of the media directory.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "codecs/gzip.h"
#include "tools/pnx/serve/delivery_check.h"
#include "tools/pnx/serve/fault.h"
#include "tools/pnx/serve/routing.h"

namespace {

using namespace pnx::serve;

constexpr DeliveryLimits kLimits{.maxBodyBytes = 1 << 16, .maxJsonBytes = 1 << 16};

std::string_view nextLine(std::string_view& text) {
  const std::size_t newline = text.find('\n');
  const std::string_view line = text.substr(0, newline);
  text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
  return line;
}

void checkMediaName(const std::string& name) {
  if (name.empty()) return;
  if (name.front() == '/' || name.back() == '/' || name.find("//") != std::string::npos ||
      name.find('\0') != std::string::npos) {
    std::abort();
  }
  const std::string padded = "/" + name + "/";
  if (padded.find("/../") != std::string::npos || padded.find("/./") != std::string::npos) {
    std::abort();
  }
}

void checkOutcome(const DeliveryCheck& check) {
  if (check.accepted()) {
    if (!check.error.empty() || check.jsonBytes > kLimits.maxJsonBytes) std::abort();
    for (const auto& record : check.records) {
      if (!record.isDictionary()) std::abort();
    }
    return;
  }
  if (check.status != 400 && check.status != 413) std::abort();
  if (check.error.empty() || !check.records.empty()) std::abort();
  if (check.error.find('\n') != std::string::npos) std::abort();
}

void checkFault(std::string_view text) {
  std::string error;
  auto fault = parseFault(text, &error);
  if (!fault) {
    if (error.empty()) std::abort();
    return;
  }
  if (fault->status && (*fault->status < 200 || *fault->status > 599)) std::abort();
  if (!fault->status && !fault->drop && fault->delaySeconds <= 0) std::abort();
  if (fault->times && *fault->times == 0) std::abort();
  if (fault->retryAfter && fault->retryAfter->find_first_of("\r\n") != std::string::npos) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string_view requestLine = nextLine(input);
  const std::size_t space = requestLine.find(' ');
  const std::string_view method = requestLine.substr(0, space);
  const std::string_view target =
      space == std::string_view::npos ? std::string_view() : requestLine.substr(space + 1);

  HeaderList headers;
  while (!input.empty()) {
    const std::string_view line = nextLine(input);
    if (line.empty()) break;
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
    headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
    checkFault(value);
  }
  const std::string_view body = input;

  Route route = routeRequest(method, target);
  if (route.endpoint == Endpoint::Delivery && route.appKey.empty()) std::abort();
  if (route.endpoint == Endpoint::Media) {
    checkMediaName(route.mediaName);
    mediaContentType(route.mediaName);
  }
  if (auto name = safeMediaPath(target)) checkMediaName(*name);

  checkOutcome(checkDelivery(headers, body, kLimits));
  auto compressed = gzippedData(pnx::Data(body.begin(), body.end()));
  if (compressed && !compressed->empty()) {
    const std::string gzipped(compressed->begin(), compressed->end());
    checkOutcome(checkDelivery(headers, gzipped, kLimits));
    std::string out;
    if (gunzipCapped(gzipped, kLimits.maxJsonBytes, out) == GunzipStatus::Ok &&
        !isGzippedData(pnx::Data(body.begin(), body.end())) && out != body) {
      std::abort();  // a round trip through the codec must give the body back
    }
    if (out.size() > kLimits.maxJsonBytes) std::abort();
  }

  std::string error;
  if (auto faults = parseFaultList(body, &error)) {
    FaultPlan plan;
    plan.replace(std::move(*faults));
    for (int i = 0; i < 3; ++i) plan.next();
    plan.describe();
  } else if (error.empty()) {
    std::abort();
  }
  return 0;
}

// Fuzzes the JSON reader on arbitrary bytes, strictly and with fragments allowed. Anything
// that parses must write again, and the text written must read back to an equal Value with
// an equal hash. A refusal must come with the reader's error; a success must leave the error
// place alone.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/foundation/error.h"
#include "platform/foundation/json.h"

namespace {

constexpr std::int64_t kReadErrorCode = 3840;

// Stands in the error place to show whether a successful call touched it.
const pnx::ErrorPtr& untouchedMarker() {
  static const pnx::ErrorPtr marker = pnx::Error::make("untouched", 0);
  return marker;
}

void checkReadError(const pnx::ErrorPtr& error) {
  if (!error || error == untouchedMarker()) std::abort();
  if (error->domain() != pnx::NSCocoaErrorDomain || error->code() != kReadErrorCode) std::abort();
  if (!error->localizedDescription().starts_with("JSON parse error at line ")) std::abort();
}

std::optional<pnx::Value> parseChecked(std::string_view text, bool allowFragments) {
  pnx::ErrorPtr error = untouchedMarker();
  auto value = pnx::JSON::parse(text, &error, {.allowFragments = allowFragments});
  if (value && error != untouchedMarker()) std::abort();
  if (!value) checkReadError(error);
  return value;
}

// Whatever the reader accepted holds only what JSON can hold, so it must write. The text
// need not be the input's (-0.0 writes as "-0", which reads back as the integer 0), but it
// must read back to an equal Value.
void checkRoundTrip(const pnx::Value& value, bool allowFragments) {
  const bool container = value.isArray() || value.isDictionary();
  if (pnx::JSON::isValidJSONObject(value) != container) std::abort();
  pnx::ErrorPtr error = untouchedMarker();
  auto text = pnx::JSON::serialize(value, &error);
  if (!text || error != untouchedMarker()) std::abort();

  auto back = parseChecked(*text, allowFragments);
  if (!back || *back != value || back->hash() != value.hash()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto strict = parseChecked(text, false);
  auto lenient = parseChecked(text, true);

  // Fragments widen what is accepted and change nothing else.
  if (strict && (!lenient || *lenient != *strict)) std::abort();
  if (lenient && !strict && (lenient->isArray() || lenient->isDictionary())) std::abort();

  if (strict) {
    checkRoundTrip(*strict, false);
  } else if (lenient) {
    checkRoundTrip(*lenient, true);
  }
  return 0;
}

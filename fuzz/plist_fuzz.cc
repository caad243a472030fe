// Fuzzes the property-list reader on arbitrary bytes (XML, binary, or neither). A list that
// parses must write again as XML and as binary unless it holds what the writer cannot take
// (a string with a NUL character; for XML also a date beyond 32-bit seconds), and each
// writing must read back as its own format to an equal Value. XML keeps dates to the whole
// second and binary exactly, so XML dates compare within a second; everything else compares
// exactly.
// Strings read are always UTF-8, whatever bytes a binary list's one-byte strings hold, so
// the writers never meet text they would refuse.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

#include "platform/foundation/error.h"
#include "platform/foundation/plist.h"

namespace {

using Format = pnx::PropertyList::Format;

constexpr std::int64_t kReadErrorCode = 3840;
constexpr std::int64_t kWriteErrorCode = 3851;

// Stands in the error place to show whether a successful call touched it.
const pnx::ErrorPtr& untouchedMarker() {
  static const pnx::ErrorPtr marker = pnx::Error::make("untouched", 0);
  return marker;
}

void checkError(const pnx::ErrorPtr& error, std::int64_t code) {
  if (!error || error == untouchedMarker()) std::abort();
  if (error->domain() != pnx::NSCocoaErrorDomain || error->code() != code) std::abort();
}

double sinceReferenceDate(const pnx::Value& date) {
  return date.asDate()->timeIntervalSinceReferenceDate();
}

// What a format cannot be written with: a string holding a NUL character, and for XML a
// date whose whole seconds since 2001-01-01 do not fit 32 bits (libplist's date range).
bool beyondWriter(Format format, const pnx::Value& value) {
  if (const std::string* s = value.asString()) return s->find('\0') != std::string::npos;
  if (value.isDate() && format == Format::XML) {
    const double seconds = std::floor(sinceReferenceDate(value));
    return !(seconds >= std::numeric_limits<std::int32_t>::min() &&
             seconds <= std::numeric_limits<std::int32_t>::max());
  }
  if (const pnx::Array* items = value.asArray()) {
    for (const pnx::Value& item : *items) {
      if (beyondWriter(format, item)) return true;
    }
  }
  if (const pnx::Dictionary* dict = value.asDictionary()) {
    for (const auto& [key, item] : *dict) {
      if (beyondWriter(format, key) || beyondWriter(format, item)) return true;
    }
  }
  return false;
}

// Whether a date written in `format` may read back as `back`.
bool sameDateFor(Format format, double written, double back) {
  if (format == Format::XML) return back == std::floor(back) && std::abs(written - back) <= 1.0;
  return written == back || (std::isnan(written) && std::isnan(back));
}

bool sameFor(Format format, const pnx::Value& written, const pnx::Value& back) {
  if (written.isDate() && back.isDate()) {
    return sameDateFor(format, sinceReferenceDate(written), sinceReferenceDate(back));
  }
  if (written.isArray() && back.isArray()) {
    const pnx::Array& a = *written.asArray();
    const pnx::Array& b = *back.asArray();
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
      if (!sameFor(format, a[i], b[i])) return false;
    }
    return true;
  }
  if (written.isDictionary() && back.isDictionary()) {
    const pnx::Dictionary& a = *written.asDictionary();
    const pnx::Dictionary& b = *back.asDictionary();
    if (a.size() != b.size()) return false;
    for (auto ia = a.begin(), ib = b.begin(); ia != a.end(); ++ia, ++ib) {
      if (ia->first != ib->first || !sameFor(format, ia->second, ib->second)) return false;
    }
    return true;
  }
  return written == back;
}

std::optional<pnx::Value> parseChecked(const pnx::Data& bytes, Format* format) {
  pnx::ErrorPtr error = untouchedMarker();
  auto value = pnx::PropertyList::parse(bytes, &error, format);
  if (value && error != untouchedMarker()) std::abort();
  if (!value) checkError(error, kReadErrorCode);
  return value;
}

// Writes `value` in `format`; true when the format could hold it.
bool checkRoundTrip(const pnx::Value& value, Format format) {
  pnx::ErrorPtr error = untouchedMarker();
  auto written = pnx::PropertyList::serialize(value, format, &error);
  if (!written) {
    checkError(error, kWriteErrorCode);
    return false;
  }
  if (error != untouchedMarker()) std::abort();
  Format readAs = format == Format::XML ? Format::Binary : Format::XML;
  auto back = parseChecked(*written, &readAs);
  if (!back || readAs != format || !sameFor(format, value, *back)) std::abort();
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const pnx::Data bytes(data, data + size);
  Format format;
  auto value = parseChecked(bytes, &format);
  if (!value) return 0;
  const bool binaryMagic = size >= 8 && std::string(data, data + 8) == "bplist00";
  if ((format == Format::Binary) != binaryMagic) std::abort();

  const bool xml = checkRoundTrip(*value, Format::XML);
  const bool binary = checkRoundTrip(*value, Format::Binary);
  // Each format refuses exactly what it cannot hold.
  if (xml == beyondWriter(Format::XML, *value)) std::abort();
  if (binary == beyondWriter(Format::Binary, *value)) std::abort();
  return 0;
}

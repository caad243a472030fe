// Checks a delivery report as the push backend receives it: a POST whose body is gzip
// compressed JSON of the form {"delivery": [record, ...]}, each record an object.
//
// The checks, in order, each with its own refusal:
//   Content-type   "application/json", any case, parameters allowed   else 400
//   Content-Encoding "gzip", any case                                  else 400
//   the body as received, at most limits.maxBodyBytes                  else 413
//   the body, one or more complete gzip members and nothing else       else 400
//   the decompressed JSON, at most limits.maxJsonBytes                 else 413
//     (decompression stops as soon as the limit is passed, so a small body that
//     inflates to gigabytes costs no more than the limit)
//   JSON text                                                          else 400
//   an object with "delivery"                                          else 400
//   "delivery" an array                                                else 400
//   each element an object                                             else 400
//
// Thread-safety: pure functions; each call owns its zlib stream.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/foundation/value.h"
#include "tools/pnx/serve/routing.h"

namespace pnx::serve {

struct DeliveryLimits {
  std::size_t maxBodyBytes = 16 * 1024 * 1024;
  std::size_t maxJsonBytes = 16 * 1024 * 1024;
};

struct DeliveryCheck {
  int status = 200;   // 200 when accepted, else 400 or 413
  std::string error;  // why it was refused, one sentence
  pnx::Array records;
  std::size_t gzipBytes = 0;  // the body as received
  std::size_t jsonBytes = 0;  // the body decompressed (so far, when refused on the way)

  bool accepted() const { return status == 200; }
};

DeliveryCheck checkDelivery(const HeaderList& headers, std::string_view body,
                            const DeliveryLimits& limits = {});

enum class GunzipStatus { Ok, NotGzip, TooLarge };

// Decompresses `compressed`, which must be one or more complete gzip members, into `out`
// (appended), stopping once more than `maxBytes` would be produced. On NotGzip, `*why`
// (when given) says what is wrong with the data.
GunzipStatus gunzipCapped(std::string_view compressed, std::size_t maxBytes, std::string& out,
                          std::string* why = nullptr);

// Whether a Content-Type value names application/json ("Application/JSON; charset=utf-8"
// does; "application/jsonx" and "text/json" do not).
bool isJSONContentType(std::string_view value);

}  // namespace pnx::serve

#include "tools/pnx/serve/delivery_check.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <limits>

#include "platform/foundation/error.h"
#include "platform/foundation/json.h"

namespace pnx::serve {

namespace {

constexpr std::size_t kInflateChunk = 16384;

std::string_view trimmed(std::string_view text) {
  const auto isSpace = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool startsWithGzipMagic(std::string_view data) {
  return data.size() >= 2 && static_cast<unsigned char>(data[0]) == 0x1f &&
         static_cast<unsigned char>(data[1]) == 0x8b;
}

DeliveryCheck refused(DeliveryCheck check, int status, std::string error) {
  check.status = status;
  check.error = std::move(error);
  check.records.clear();
  return check;
}

class InflateStream {
 public:
  InflateStream() { ok_ = inflateInit2(&stream_, 16 + MAX_WBITS) == Z_OK; }
  ~InflateStream() {
    if (ok_) inflateEnd(&stream_);
  }
  InflateStream(const InflateStream&) = delete;
  InflateStream& operator=(const InflateStream&) = delete;

  bool ok() const { return ok_; }
  z_stream& get() { return stream_; }

 private:
  z_stream stream_{};
  bool ok_ = false;
};

}  // namespace

bool isJSONContentType(std::string_view value) {
  return equalsIgnoringCase(trimmed(value.substr(0, value.find(';'))), "application/json");
}

GunzipStatus gunzipCapped(std::string_view compressed, std::size_t maxBytes, std::string& out,
                          std::string* why) {
  const auto notGzip = [why](std::string reason) {
    if (why) *why = std::move(reason);
    return GunzipStatus::NotGzip;
  };
  if (!startsWithGzipMagic(compressed)) return notGzip("body is not gzip data");
  // zlib counts input in uInt; bodies are capped far below that, but say so if not.
  if (compressed.size() > std::numeric_limits<uInt>::max()) return GunzipStatus::TooLarge;

  InflateStream inflater;
  if (!inflater.ok()) return notGzip("cannot start decompressing");
  z_stream& stream = inflater.get();
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
  stream.avail_in = static_cast<uInt>(compressed.size());
  const std::size_t start = out.size();
  std::array<char, kInflateChunk> buffer;
  while (true) {
    stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
    stream.avail_out = static_cast<uInt>(buffer.size());
    const int status = inflate(&stream, Z_NO_FLUSH);
    const std::size_t produced = buffer.size() - stream.avail_out;
    if (out.size() - start + produced > maxBytes) return GunzipStatus::TooLarge;
    out.append(buffer.data(), produced);

    if (status == Z_STREAM_END) {
      if (stream.avail_in == 0) return GunzipStatus::Ok;
      // Concatenated members are one gzip file; anything else after the end is not.
      const std::string_view rest(reinterpret_cast<const char*>(stream.next_in), stream.avail_in);
      if (!startsWithGzipMagic(rest)) return notGzip("body has bytes after the gzip data");
      if (inflateReset(&stream) != Z_OK) return notGzip("cannot restart decompressing");
      continue;
    }
    if (status == Z_OK) continue;
    if (status == Z_BUF_ERROR && stream.avail_in == 0) {
      return notGzip("body is truncated gzip data");
    }
    const std::string detail = stream.msg ? std::string(": ") + stream.msg : std::string();
    return notGzip("body is corrupt gzip data" + detail);
  }
}

DeliveryCheck checkDelivery(const HeaderList& headers, std::string_view body,
                            const DeliveryLimits& limits) {
  DeliveryCheck check;
  check.gzipBytes = body.size();

  const std::string* contentType = findHeader(headers, "Content-Type");
  if (!contentType)
    return refused(check, 400, "Content-type is missing; expected application/json");
  if (!isJSONContentType(*contentType)) {
    return refused(check, 400, "Content-type is \"" + *contentType + "\", not application/json");
  }
  const std::string* encoding = findHeader(headers, "Content-Encoding");
  if (!encoding) return refused(check, 400, "Content-Encoding is missing; expected gzip");
  if (!equalsIgnoringCase(trimmed(*encoding), "gzip")) {
    return refused(check, 400, "Content-Encoding is \"" + *encoding + "\", not gzip");
  }
  if (body.size() > limits.maxBodyBytes) {
    return refused(check, 413,
                   "body is larger than " + std::to_string(limits.maxBodyBytes) + " bytes");
  }

  std::string json, why;
  switch (gunzipCapped(body, limits.maxJsonBytes, json, &why)) {
    case GunzipStatus::Ok:
      break;
    case GunzipStatus::TooLarge:
      check.jsonBytes = json.size();
      return refused(
          check, 413,
          "body decompresses to more than " + std::to_string(limits.maxJsonBytes) + " bytes");
    case GunzipStatus::NotGzip:
      check.jsonBytes = json.size();
      return refused(check, 400, why);
  }
  check.jsonBytes = json.size();

  pnx::ErrorPtr parseError;
  auto parsed = pnx::JSON::parse(std::string_view(json), &parseError);
  if (!parsed) {
    return refused(check, 400,
                   "body is not JSON: " + (parseError ? parseError->localizedDescription()
                                                      : std::string("unreadable")));
  }
  if (!parsed->isDictionary()) return refused(check, 400, "body is not a JSON object");
  const pnx::Value& delivery = (*parsed)["delivery"];
  if (!parsed->contains("delivery")) return refused(check, 400, "body has no \"delivery\"");
  const pnx::Array* records = delivery.asArray();
  if (!records) return refused(check, 400, "\"delivery\" is not an array");
  for (std::size_t i = 0; i < records->size(); ++i) {
    if (!(*records)[i].isDictionary()) {
      return refused(check, 400, "\"delivery\" item " + std::to_string(i) + " is not an object");
    }
  }
  check.records = *records;
  return check;
}

}  // namespace pnx::serve

#include "codecs/gzip.h"

#include <zlib.h>

#include <cmath>
#include <cstdint>

namespace {

// 15 window bits (32 KiB) plus 16 for a gzip header and trailer.
constexpr int kDeflateWindowBits = 31;
// 15 window bits plus 32: detect a zlib or a gzip header.
constexpr int kInflateWindowBits = 47;
constexpr int kMemoryLevel = 8;

// A stream reading `data` in place, with zlib's default allocator. The length is
// truncated to zlib's 32-bit count, as the stream record holds no more.
z_stream streamReading(const pnx::Data& data) {
  z_stream stream{};
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  stream.total_out = 0;
  stream.avail_out = 0;
  stream.zalloc = Z_NULL;
  stream.zfree = Z_NULL;
  stream.opaque = Z_NULL;
  return stream;
}

int zlibLevel(float level) {
  if (level < 0.0f) return Z_DEFAULT_COMPRESSION;
  // std::lround rounds halves away from zero: 0.5 gives 5 (4.5), 1.0 gives 9.
  return static_cast<int>(std::lround(static_cast<double>(level) * 9.0));
}

void pointOutputAt(z_stream& stream, pnx::Data& buffer) {
  stream.next_out = buffer.data() + stream.total_out;
  stream.avail_out = static_cast<uInt>(buffer.size() - stream.total_out);
}

}  // namespace

bool isGzippedData(const pnx::Data& data) {
  return data.size() > 1 && data[0] == 0x1F && data[1] == 0x8B;
}

std::optional<pnx::Data> gzippedDataWithCompressionLevel(const pnx::Data& data, float level) {
  if (data.empty() || isGzippedData(data)) return data;

  // A level that is not a number maps to no zlib level at all.
  if (std::isnan(level)) return std::nullopt;
  z_stream stream = streamReading(data);
  // Levels far above 1.0 must not overflow the conversion; zlib refuses them anyway.
  const int zLevel = level > 1000.0f ? 1000 : zlibLevel(level);
  if (deflateInit2(&stream, zLevel, Z_DEFLATED, kDeflateWindowBits, kMemoryLevel,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return std::nullopt;
  }
  pnx::Data output(kGzipChunkSize);
  do {
    if (stream.total_out >= output.size()) output.resize(output.size() + kGzipChunkSize);
    pointOutputAt(stream, output);
    deflate(&stream, Z_FINISH);
  } while (stream.avail_out == 0);
  deflateEnd(&stream);
  output.resize(stream.total_out);
  return output;
}

std::optional<pnx::Data> gzippedData(const pnx::Data& data) {
  return gzippedDataWithCompressionLevel(data, -1.0f);
}

std::optional<pnx::Data> gunzippedData(const pnx::Data& data) {
  if (data.empty() || !isGzippedData(data)) return data;

  z_stream stream = streamReading(data);
  if (inflateInit2(&stream, kInflateWindowBits) != Z_OK) return std::nullopt;

  // Room for twice the input up front; the length grows by half the input at a time.
  const std::size_t growth = data.size() / 2;
  pnx::Data output;
  output.reserve(data.size() * 2);
  int status = Z_OK;
  while (status == Z_OK) {
    if (stream.total_out >= output.size()) output.resize(output.size() + growth);
    pointOutputAt(stream, output);
    status = inflate(&stream, Z_SYNC_FLUSH);
  }
  // A stream that did not end cleanly keeps its full grown length (zero-padded): callers
  // of this lenient codec get what was inflated, never an error.
  if (inflateEnd(&stream) == Z_OK && status == Z_STREAM_END) output.resize(stream.total_out);
  return output;
}

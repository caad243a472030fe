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

// Points a stream at `data`, read in place, as a new stream would start. The length is
// truncated to zlib's 32-bit count, as the stream record holds no more.
void startReading(z_stream& stream, const pnx::Data& data) {
  stream.next_in = const_cast<Bytef*>(data.data());
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = Z_NULL;
  stream.avail_out = 0;
}

// zlib's stream state is large (about 270 KB for deflate at memory level 8): setting it up
// and tearing it down on every call, with glibc growing and trimming its heap around it,
// costs several times the compression of a small body. So each thread keeps one stream per
// direction and resets it between calls; a reset stream produces exactly the bytes of a new
// one with the same parameters. Freed when the thread ends.
class DeflateStream {
 public:
  DeflateStream() = default;
  DeflateStream(const DeflateStream&) = delete;
  DeflateStream& operator=(const DeflateStream&) = delete;
  ~DeflateStream() { end(); }

  // The stream, ready for a new gzip member at `level`; nullptr when zlib refuses the level.
  z_stream* start(int level) {
    if (ready_ && level_ == level && deflateReset(&stream_) == Z_OK) return &stream_;
    end();
    stream_ = z_stream{};  // zalloc, zfree and opaque null: zlib's default allocator
    if (deflateInit2(&stream_, level, Z_DEFLATED, kDeflateWindowBits, kMemoryLevel,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
      return nullptr;
    }
    ready_ = true;
    level_ = level;
    return &stream_;
  }

 private:
  void end() {
    if (ready_) deflateEnd(&stream_);
    ready_ = false;
  }

  z_stream stream_{};
  bool ready_ = false;
  int level_ = 0;
};

class InflateStream {
 public:
  InflateStream() = default;
  InflateStream(const InflateStream&) = delete;
  InflateStream& operator=(const InflateStream&) = delete;
  ~InflateStream() {
    if (ready_) inflateEnd(&stream_);
  }

  // The stream, ready for a new zlib or gzip stream; nullptr when zlib can't start one.
  z_stream* start() {
    if (ready_ && inflateReset(&stream_) == Z_OK) return &stream_;
    if (ready_) inflateEnd(&stream_);
    ready_ = false;
    stream_ = z_stream{};
    if (inflateInit2(&stream_, kInflateWindowBits) != Z_OK) return nullptr;
    ready_ = true;
    return &stream_;
  }

 private:
  z_stream stream_{};
  bool ready_ = false;
};

thread_local DeflateStream threadDeflater;
thread_local InflateStream threadInflater;

// Compressed output is built here and copied out at its final length, so that a call
// neither zero-fills a fresh chunk nor hands back a mostly empty 16 KB buffer. Kept per
// thread, and let go when a large body made it big.
thread_local pnx::Data threadDeflateOutput;
constexpr std::size_t kKeptOutputBytes = 1 << 20;

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
  // Levels far above 1.0 must not overflow the conversion; zlib refuses them anyway.
  const int zLevel = level > 1000.0f ? 1000 : zlibLevel(level);
  z_stream* stream = threadDeflater.start(zLevel);
  if (!stream) return std::nullopt;
  startReading(*stream, data);

  // The output grows in chunks of kGzipChunkSize while deflate fills it.
  pnx::Data& output = threadDeflateOutput;
  if (output.size() < kGzipChunkSize) output.resize(kGzipChunkSize);
  std::size_t length = kGzipChunkSize;
  do {
    if (stream->total_out >= length) length += kGzipChunkSize;
    if (output.size() < length) output.resize(length);
    stream->next_out = output.data() + stream->total_out;
    stream->avail_out = static_cast<uInt>(length - stream->total_out);
    deflate(stream, Z_FINISH);
  } while (stream->avail_out == 0);
  pnx::Data result(output.begin(), output.begin() + static_cast<std::ptrdiff_t>(stream->total_out));
  if (output.size() > kKeptOutputBytes) pnx::Data().swap(output);
  return result;
}

std::optional<pnx::Data> gzippedData(const pnx::Data& data) {
  return gzippedDataWithCompressionLevel(data, -1.0f);
}

std::optional<pnx::Data> gunzippedData(const pnx::Data& data) {
  if (data.empty() || !isGzippedData(data)) return data;

  z_stream* stream = threadInflater.start();
  if (!stream) return std::nullopt;
  startReading(*stream, data);

  // Room for twice the input up front; the length grows by half the input at a time.
  const std::size_t growth = data.size() / 2;
  pnx::Data output;
  output.reserve(data.size() * 2);
  int status = Z_OK;
  while (status == Z_OK) {
    if (stream->total_out >= output.size()) output.resize(output.size() + growth);
    pointOutputAt(*stream, output);
    status = inflate(stream, Z_SYNC_FLUSH);
  }
  // A stream that did not end cleanly keeps its full grown length (zero-padded): callers
  // of this lenient codec get what was inflated, never an error.
  if (status == Z_STREAM_END) output.resize(stream->total_out);
  return output;
}

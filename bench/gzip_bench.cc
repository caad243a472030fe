// gzippedData and gunzippedData against calling zlib directly with the same parameters
// (window bits 31 / 47, memory level 8, default strategy, finish / sync flush, the same
// output growth), on delivery-report-like JSON of 1 KB, 64 KB and 4 MB. The direct
// versions grow a malloc'd buffer with realloc and never zero it: the floor the codec's
// byte-buffer handling is measured against.
//
// directDeflate and directInflate set a stream up and tear it down on every call, as a
// caller of zlib would who keeps nothing between calls: at 1 KB, zlib's ~270 KB of deflate
// state makes glibc grow and trim its heap each time, and that dominates. The Reused
// variants keep one stream and reset it between calls, as the codec does: zlib's own work,
// the floor for a small body.

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdlib>
#include <string>

#include "codecs/gzip.h"

namespace {

// JSON like the delivery report bodies: records with identifiers that repeat in shape.
pnx::Data payload(std::size_t size) {
  std::string text = "{\"delivery\":[";
  for (std::size_t i = 0; text.size() < size; ++i) {
    if (i) text += ",";
    text += "{\"userId\":\"" + std::to_string(1000003 * i % 99991) +
            "-4b1e-9a6f\",\"channelId\":\"C" + std::to_string(i * 7 % 1013) +
            "\",\"attribution\":\"campaign-" + std::to_string(i % 17) + "\",\"mailingId\":\"" +
            std::to_string(i % 5) + "\"}";
  }
  text.resize(size - 2);
  text += "]}";
  return pnx::Data(text.begin(), text.end());
}

struct RawBuffer {
  Bytef* bytes = nullptr;
  std::size_t length = 0;
  ~RawBuffer() { std::free(bytes); }
  void grow(std::size_t newLength) {
    bytes = static_cast<Bytef*>(std::realloc(bytes, newLength));
    length = newLength;
  }
};

std::size_t directGzip(const pnx::Data& input, RawBuffer& out) {
  z_stream stream{};
  stream.next_in = const_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
  out.grow(16384);
  do {
    if (stream.total_out >= out.length) out.grow(out.length + 16384);
    stream.next_out = out.bytes + stream.total_out;
    stream.avail_out = static_cast<uInt>(out.length - stream.total_out);
    deflate(&stream, Z_FINISH);
  } while (stream.avail_out == 0);
  deflateEnd(&stream);
  return stream.total_out;
}

std::size_t directGunzip(const pnx::Data& input, RawBuffer& out) {
  z_stream stream{};
  stream.next_in = const_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  inflateInit2(&stream, 47);
  out.grow(input.size() * 2);
  std::size_t length = 0;  // the grown length, within the reserved room
  int status = Z_OK;
  while (status == Z_OK) {
    if (stream.total_out >= length) {
      length += input.size() / 2;
      if (length > out.length) out.grow(length);
    }
    stream.next_out = out.bytes + stream.total_out;
    stream.avail_out = static_cast<uInt>(length - stream.total_out);
    status = inflate(&stream, Z_SYNC_FLUSH);
  }
  inflateEnd(&stream);
  return stream.total_out;
}

// The direct calls again, on a stream that is kept and reset instead of made anew.
class ReusedStreams {
 public:
  ReusedStreams() {
    deflateInit2(&deflater_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY);
    inflateInit2(&inflater_, 47);
  }
  ~ReusedStreams() {
    deflateEnd(&deflater_);
    inflateEnd(&inflater_);
  }

  std::size_t gzip(const pnx::Data& input, RawBuffer& out) {
    deflateReset(&deflater_);
    deflater_.next_in = const_cast<Bytef*>(input.data());
    deflater_.avail_in = static_cast<uInt>(input.size());
    if (out.length < 16384) out.grow(16384);
    do {
      if (deflater_.total_out >= out.length) out.grow(out.length + 16384);
      deflater_.next_out = out.bytes + deflater_.total_out;
      deflater_.avail_out = static_cast<uInt>(out.length - deflater_.total_out);
      deflate(&deflater_, Z_FINISH);
    } while (deflater_.avail_out == 0);
    return deflater_.total_out;
  }

  std::size_t gunzip(const pnx::Data& input, RawBuffer& out) {
    inflateReset(&inflater_);
    inflater_.next_in = const_cast<Bytef*>(input.data());
    inflater_.avail_in = static_cast<uInt>(input.size());
    if (out.length < input.size() * 2) out.grow(input.size() * 2);
    std::size_t length = 0;
    int status = Z_OK;
    while (status == Z_OK) {
      if (inflater_.total_out >= length) {
        length += input.size() / 2;
        if (length > out.length) out.grow(length);
      }
      inflater_.next_out = out.bytes + inflater_.total_out;
      inflater_.avail_out = static_cast<uInt>(length - inflater_.total_out);
      status = inflate(&inflater_, Z_SYNC_FLUSH);
    }
    return inflater_.total_out;
  }

 private:
  z_stream deflater_{};
  z_stream inflater_{};
};

void setBytes(benchmark::State& state, std::size_t perIteration) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * perIteration));
}

void BM_gzippedData(benchmark::State& state) {
  const pnx::Data input = payload(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(gzippedData(input));
  setBytes(state, input.size());
}

void BM_directDeflate(benchmark::State& state) {
  const pnx::Data input = payload(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    RawBuffer out;
    benchmark::DoNotOptimize(directGzip(input, out));
  }
  setBytes(state, input.size());
}

void BM_directDeflateReused(benchmark::State& state) {
  const pnx::Data input = payload(static_cast<std::size_t>(state.range(0)));
  ReusedStreams streams;
  RawBuffer out;
  for (auto _ : state) benchmark::DoNotOptimize(streams.gzip(input, out));
  setBytes(state, input.size());
}

void BM_gunzippedData(benchmark::State& state) {
  const pnx::Data original = payload(static_cast<std::size_t>(state.range(0)));
  const pnx::Data input = *gzippedData(original);
  for (auto _ : state) benchmark::DoNotOptimize(gunzippedData(input));
  setBytes(state, original.size());
}

void BM_directInflate(benchmark::State& state) {
  const pnx::Data original = payload(static_cast<std::size_t>(state.range(0)));
  const pnx::Data input = *gzippedData(original);
  for (auto _ : state) {
    RawBuffer out;
    benchmark::DoNotOptimize(directGunzip(input, out));
  }
  setBytes(state, original.size());
}

void BM_directInflateReused(benchmark::State& state) {
  const pnx::Data original = payload(static_cast<std::size_t>(state.range(0)));
  const pnx::Data input = *gzippedData(original);
  ReusedStreams streams;
  RawBuffer out;
  for (auto _ : state) benchmark::DoNotOptimize(streams.gunzip(input, out));
  setBytes(state, original.size());
}

#define PNX_GZIP_SIZES Arg(1 << 10)->Arg(64 << 10)->Arg(4 << 20)
BENCHMARK(BM_gzippedData)->PNX_GZIP_SIZES;
BENCHMARK(BM_directDeflate)->PNX_GZIP_SIZES;
BENCHMARK(BM_directDeflateReused)->PNX_GZIP_SIZES;
BENCHMARK(BM_gunzippedData)->PNX_GZIP_SIZES;
BENCHMARK(BM_directInflate)->PNX_GZIP_SIZES;
BENCHMARK(BM_directInflateReused)->PNX_GZIP_SIZES;

}  // namespace

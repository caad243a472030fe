#include "codecs/gzip.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <string>

namespace {

pnx::Data bytesOf(const std::string& text) {
  return pnx::Data(text.begin(), text.end());
}

// A delivery-report-like body: repetitive JSON, as the codec sees in practice.
pnx::Data jsonPayload(std::size_t records) {
  std::string text = "{\"delivery\":[";
  for (std::size_t i = 0; i < records; ++i) {
    if (i) text += ",";
    text += "{\"userId\":\"U" + std::to_string(i * 7919) + "\",\"channelId\":\"C" +
            std::to_string(i) + "\",\"mailingId\":\"" + std::to_string(i % 13) + "\"}";
  }
  return bytesOf(text + "]}");
}

pnx::Data randomBytes(std::size_t size) {
  std::mt19937 random(42);
  pnx::Data data(size);
  for (auto& byte : data) byte = static_cast<std::uint8_t>(random());
  // Not gzip itself, or compression would pass it through.
  data[0] = 0x00;
  return data;
}

// One-shot gzip straight through zlib at an explicit level, for comparing level mappings.
pnx::Data directGzip(const pnx::Data& input, int level) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, level, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY), Z_OK);
  pnx::Data output(deflateBound(&stream, input.size()) + 64);
  stream.next_in = const_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = output.data();
  stream.avail_out = static_cast<uInt>(output.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  output.resize(stream.total_out);
  deflateEnd(&stream);
  return output;
}

TEST(GzipTest, PassesThroughWhatNeedsNoWork) {
  const pnx::Data empty;
  EXPECT_EQ(gzippedData(empty), empty);
  EXPECT_EQ(gunzippedData(empty), empty);

  const pnx::Data looksCompressed = {0x1F, 0x8B, 'x', 'y'};
  EXPECT_EQ(gzippedData(looksCompressed), looksCompressed);

  // A valid zlib stream is still not gzip: it comes back as it is.
  const pnx::Data plain = bytesOf("hello hello hello");
  const pnx::Data zlibStream = [&] {
    pnx::Data out(compressBound(plain.size()));
    uLongf length = out.size();
    compress(out.data(), &length, plain.data(), plain.size());
    out.resize(length);
    return out;
  }();
  EXPECT_EQ(gunzippedData(zlibStream), zlibStream);
  EXPECT_EQ(gunzippedData(plain), plain);
}

TEST(GzipTest, RecognisesGzipByItsMagicBytesOnly) {
  EXPECT_FALSE(isGzippedData({}));
  EXPECT_FALSE(isGzippedData({0x1F}));
  EXPECT_FALSE(isGzippedData({0x8B, 0x1F}));
  EXPECT_TRUE(isGzippedData({0x1F, 0x8B}));
}

TEST(GzipTest, RoundTripsSmallLargeAndIncompressibleInput) {
  for (const pnx::Data& input :
       {bytesOf("x"), jsonPayload(3), jsonPayload(5000), randomBytes(100000)}) {
    auto compressed = gzippedData(input);
    ASSERT_TRUE(compressed);
    ASSERT_GE(compressed->size(), 3u);
    EXPECT_EQ((*compressed)[0], 0x1F);
    EXPECT_EQ((*compressed)[1], 0x8B);
    EXPECT_EQ((*compressed)[2], 0x08);  // deflate
    EXPECT_EQ(gunzippedData(*compressed), input) << "input of " << input.size() << " bytes";
  }
}

TEST(GzipTest, MapsFractionalLevelsOntoZlibLevels) {
  const pnx::Data input = jsonPayload(400);
  EXPECT_EQ(gzippedDataWithCompressionLevel(input, -1.0f),
            directGzip(input, Z_DEFAULT_COMPRESSION));
  EXPECT_EQ(gzippedDataWithCompressionLevel(input, -0.5f),
            directGzip(input, Z_DEFAULT_COMPRESSION));
  EXPECT_EQ(gzippedDataWithCompressionLevel(input, 0.0f), directGzip(input, 0));
  EXPECT_EQ(gzippedDataWithCompressionLevel(input, 0.5f), directGzip(input, 5));
  EXPECT_EQ(gzippedDataWithCompressionLevel(input, 0.1f), directGzip(input, 1));  // 0.9 -> 1
  EXPECT_EQ(gzippedDataWithCompressionLevel(input, 1.0f), directGzip(input, 9));
  EXPECT_EQ(gzippedData(input), directGzip(input, Z_DEFAULT_COMPRESSION));
  // Stored blocks are larger than the input; the default level is far smaller.
  EXPECT_GT(gzippedDataWithCompressionLevel(input, 0.0f)->size(), input.size());

  EXPECT_EQ(gzippedDataWithCompressionLevel(input, 2.0f), std::nullopt);
  EXPECT_EQ(gzippedDataWithCompressionLevel(input, 1e30f), std::nullopt);
  EXPECT_EQ(gzippedDataWithCompressionLevel(input, std::nanf("")), std::nullopt);
}

TEST(GzipTest, TruncatedOrCorruptStreamsYieldAPaddedBufferNotAnError) {
  const pnx::Data input = jsonPayload(2000);
  pnx::Data truncated = *gzippedData(input);
  truncated.resize(truncated.size() / 2);

  auto result = gunzippedData(truncated);
  ASSERT_TRUE(result);
  // The length stays at the last growth step (a multiple of half the input), and what was
  // inflated is a true prefix of the original followed by zero padding.
  const std::size_t growth = truncated.size() / 2;
  EXPECT_EQ(result->size() % growth, 0u);
  std::size_t produced = result->size();
  while (produced > 0 && (*result)[produced - 1] == 0) --produced;
  ASSERT_GT(produced, 0u);
  ASSERT_LT(produced, input.size());
  EXPECT_TRUE(std::equal(result->begin(), result->begin() + produced, input.begin()));

  const pnx::Data corrupt = {0x1F, 0x8B, 0x08, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  EXPECT_TRUE(gunzippedData(corrupt));
}

}  // namespace

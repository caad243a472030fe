#include "codecs/gzip.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <string>
#include <thread>
#include <vector>

namespace {

// The opening of a delivery report: repetitive JSON, as the codec sees in practice.
pnx::Data jsonPayload(std::size_t records) {
  std::string text = "{\"delivery\":[{}";
  for (std::size_t i = 0; i < records; ++i) {
    text += ",{\"userId\":\"U" + std::to_string(i * 7919) + "\",\"channelId\":\"C" +
            std::to_string(i) + "\"}";
  }
  return pnx::Data(text.begin(), text.end());
}

// One-shot gzip (or, with 15 window bits, zlib) straight through zlib at an explicit level.
pnx::Data directGzip(const pnx::Data& input, int level, int windowBits = 31) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, level, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY), Z_OK);
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

TEST(GzipTest, PassesThroughWhatNeedsNoWorkAndMapsFractionalLevelsOntoZlibLevels) {
  EXPECT_EQ(gzippedData({}), pnx::Data());
  EXPECT_EQ(gunzippedData({}), pnx::Data());
  EXPECT_FALSE(isGzippedData({0x1F}));
  EXPECT_FALSE(isGzippedData({0x8B, 0x1F}));
  const pnx::Data looksCompressed = {0x1F, 0x8B, 'x', 'y'};
  EXPECT_EQ(gzippedData(looksCompressed), looksCompressed);
  // A valid zlib stream is still not gzip: it comes back as it is.
  const pnx::Data zlibStream = directGzip(jsonPayload(3), 6, 15);
  EXPECT_EQ(gunzippedData(zlibStream), zlibStream);

  const pnx::Data input = jsonPayload(400);
  const std::pair<float, int> levels[] = {
      {-0.5f, Z_DEFAULT_COMPRESSION}, {0.0f, 0}, {0.1f, 1}, {0.5f, 5}, {1.0f, 9}};
  for (const auto& [fraction, level] : levels) {
    EXPECT_EQ(gzippedDataWithCompressionLevel(input, fraction), directGzip(input, level))
        << fraction;
  }
  EXPECT_EQ(gzippedData(input), directGzip(input, Z_DEFAULT_COMPRESSION));
  for (float refused : {2.0f, 1e30f, std::nanf("")}) {
    EXPECT_EQ(gzippedDataWithCompressionLevel(input, refused), std::nullopt) << refused;
  }
}

// Streams are kept per thread and reset between calls: whatever a thread did before, a call
// gives the bytes a fresh stream would.
TEST(GzipTest, EachCallStartsAfreshWhateverCameBeforeAndTruncatedStreamsArePadded) {
  const pnx::Data small = jsonPayload(20);
  const pnx::Data large = jsonPayload(3000);
  const pnx::Data expectedSmall = directGzip(small, Z_DEFAULT_COMPRESSION);
  pnx::Data truncated = *gzippedData(large);
  truncated.resize(truncated.size() / 3);

  auto padded = gunzippedData(truncated);
  ASSERT_TRUE(padded);
  // The length stays at the last growth step (a multiple of half the input), and what was
  // inflated is a true prefix of the original followed by zero padding.
  EXPECT_EQ(padded->size() % (truncated.size() / 2), 0u);
  std::size_t produced = padded->size();
  while (produced > 0 && (*padded)[produced - 1] == 0) --produced;
  ASSERT_GT(produced, 0u);
  ASSERT_LT(produced, large.size());
  EXPECT_TRUE(std::equal(padded->begin(), padded->begin() + produced, large.begin()));

  auto mixedCalls = [&] {
    std::vector<pnx::Data> results;
    results.push_back(*gzippedData(small));
    results.push_back(*gzippedDataWithCompressionLevel(large, 1.0f));
    EXPECT_EQ(gzippedDataWithCompressionLevel(small, 2.0f), std::nullopt);
    results.push_back(*gzippedData(small));
    EXPECT_TRUE(gunzippedData(truncated));  // leaves its stream in the middle of a member
    results.push_back(*gunzippedData(*gzippedData(small)));
    return results;
  };
  const std::vector<pnx::Data> expected = {expectedSmall, directGzip(large, 9), expectedSmall,
                                           small};
  EXPECT_EQ(mixedCalls(), expected);
  std::vector<std::thread> threads;
  std::vector<std::vector<pnx::Data>> results(3);
  for (auto& result : results) threads.emplace_back([&] { result = mixedCalls(); });
  for (auto& thread : threads) thread.join();
  for (const auto& result : results) EXPECT_EQ(result, expected);
}

}  // namespace

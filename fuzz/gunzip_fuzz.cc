// Fuzzes gunzippedData on arbitrary bytes (as gzip when they start with the magic bytes,
// and forced to look like gzip otherwise), and the round trip through gzippedData at a
// level taken from the input.

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "codecs/gzip.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const pnx::Data input(data, data + size);
  gunzippedData(input);

  pnx::Data forced = {0x1F, 0x8B};
  forced.insert(forced.end(), input.begin(), input.end());
  if (!gunzippedData(forced)) std::abort();  // only a failed inflate start may give none

  if (!input.empty() && !isGzippedData(input)) {
    const float level = static_cast<float>(data[0] % 11) / 10.0f;
    auto compressed = gzippedDataWithCompressionLevel(input, level);
    if (!compressed || !isGzippedData(*compressed)) std::abort();
    if (gunzippedData(*compressed) != input) std::abort();
  }
  return 0;
}

// Gzip compression and decompression of byte buffers (the NSData(GZIP) category), over
// zlib linked into the library.
//
// Both directions pass input through untouched when there is nothing to do: empty input,
// input that is already gzip (compressing) or input that is not gzip (decompressing) comes
// back as an equal copy. Decompression is deliberately lenient: a truncated or corrupt
// stream yields the bytes inflated so far, padded with zero bytes to the last grown buffer
// length, rather than an error. nullopt only when zlib refuses to start (for example a
// compression level above 1.0).
//
// Thread-safety: all functions may run on any thread at once. Each thread keeps its own
// zlib streams, reset between calls (their state is freed when the thread ends). zlib needs
// no process-wide set-up when linked normally, so there is no once-only guard.
#pragma once

#include <optional>

#include "platform/foundation/export.h"
#include "platform/foundation/value.h"

// Output buffers grow by this many bytes while compressing.
inline constexpr std::size_t kGzipChunkSize = 16384;

// level: 0.0 (stored) to 1.0 (best), mapped to zlib's 0..9 by rounding level * 9 half away
// from zero; any negative level means zlib's default. Above 1.0 zlib refuses: nullopt.
PNX_EXPORT std::optional<pnx::Data> gzippedDataWithCompressionLevel(const pnx::Data& data,
                                                                    float level);

// gzippedDataWithCompressionLevel(data, -1.0f).
PNX_EXPORT std::optional<pnx::Data> gzippedData(const pnx::Data& data);

// Accepts gzip or zlib streams once the input starts with the gzip magic bytes.
PNX_EXPORT std::optional<pnx::Data> gunzippedData(const pnx::Data& data);

// True when the buffer holds at least two bytes and starts with 0x1F 0x8B.
PNX_EXPORT bool isGzippedData(const pnx::Data& data);

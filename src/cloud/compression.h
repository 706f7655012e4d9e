// The kit's byte-buffer compression: raw DEFLATE (no zlib or gzip header, no checksum), as every
// compressed record attribute carries it. A reader inflates with windowBits -15 (zlib) or any raw
// DEFLATE decoder. Plain functions; thread-safe.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace omra {

enum class CompressionOperation { kEncode = 0, kDecode = 1 };

// The output scratch buffer: min(max(input length, 64), 65536) bytes.
inline constexpr size_t kCompressionScratchMin = 64;
inline constexpr size_t kCompressionScratchMax = 65536;

// Runs the whole input through one deflate or inflate stream. Absent on any failure (decoding an
// empty, corrupt or truncated input included); never aborts.
std::optional<std::string> performCompression(CompressionOperation operation,
                                              std::string_view input);

inline std::optional<std::string> compress(std::string_view input) {
  return performCompression(CompressionOperation::kEncode, input);
}
inline std::optional<std::string> decompress(std::string_view input) {
  return performCompression(CompressionOperation::kDecode, input);
}

// compress() for the record builders, which cannot write a record without it: a failure is fatal.
std::string compressOrDie(std::string_view input);

}  // namespace omra

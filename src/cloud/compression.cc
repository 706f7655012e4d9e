#include "src/cloud/compression.h"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <memory>

#include "src/foundation/fatal.h"

namespace omra {
namespace {

// The platform library's COMPRESSION_ZLIB encodes at zlib level 5; keep its speed/size balance.
constexpr int kLevel = 5;
constexpr int kRawWindowBits = -15;

enum class Status { kOk, kEnd, kError };

// One stream, encode or decode; destroyed on every exit path.
class Stream {
 public:
  explicit Stream(CompressionOperation op) : op_(op) {
    const int rc =
        op == CompressionOperation::kEncode
            ? deflateInit2(&z_, kLevel, Z_DEFLATED, kRawWindowBits, 8, Z_DEFAULT_STRATEGY)
            : inflateInit2(&z_, kRawWindowBits);
    ok_ = rc == Z_OK;
  }
  ~Stream() {
    if (!ok_) return;
    if (op_ == CompressionOperation::kEncode) {
      deflateEnd(&z_);
    } else {
      inflateEnd(&z_);
    }
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  bool ok() const { return ok_; }
  z_stream& z() { return z_; }

  // One processing call with the finalize flag.
  Status process() {
    const int rc =
        op_ == CompressionOperation::kEncode ? deflate(&z_, Z_FINISH) : inflate(&z_, Z_FINISH);
    if (rc == Z_STREAM_END) return Status::kEnd;
    if (rc == Z_OK) return Status::kOk;
    // inflate with Z_FINISH says Z_BUF_ERROR when the output is full but the stream goes on: that
    // is the "scratch full, keep going" case, not an error.
    if (rc == Z_BUF_ERROR && z_.avail_out == 0) return Status::kOk;
    return Status::kError;
  }

 private:
  CompressionOperation op_;
  z_stream z_{};
  bool ok_ = false;
};

}  // namespace

std::optional<std::string> performCompression(CompressionOperation operation,
                                              std::string_view input) {
  if (operation == CompressionOperation::kDecode && input.empty()) return std::nullopt;
  // zlib counts in 32-bit units; a larger input is not something the records ever hold.
  if (input.size() > UINT_MAX) return std::nullopt;
  Stream stream(operation);
  if (!stream.ok()) return std::nullopt;

  const size_t scratchSize =
      std::min(std::max(input.size(), kCompressionScratchMin), kCompressionScratchMax);
  auto scratch = std::make_unique<unsigned char[]>(scratchSize);
  std::string output;
  z_stream& z = stream.z();
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
  z.avail_in = static_cast<uInt>(input.size());
  z.next_out = scratch.get();
  z.avail_out = static_cast<uInt>(scratchSize);

  while (true) {
    const uInt inBefore = z.avail_in, outBefore = z.avail_out;
    switch (stream.process()) {
      case Status::kOk:
        if (z.avail_out == 0) {
          output.append(reinterpret_cast<const char*>(scratch.get()), scratchSize);
          z.next_out = scratch.get();
          z.avail_out = static_cast<uInt>(scratchSize);
        } else if (z.avail_in == inBefore && z.avail_out == outBefore) {
          return std::nullopt;  // no progress and no end: a truncated stream
        }
        break;
      case Status::kEnd:
        output.append(reinterpret_cast<const char*>(scratch.get()), scratchSize - z.avail_out);
        return output;
      case Status::kError:
        return std::nullopt;
    }
  }
}

std::string compressOrDie(std::string_view input) {
  auto out = compress(input);
  if (!out) fatalError("compression of a record attribute failed");
  return std::move(*out);
}

}  // namespace omra

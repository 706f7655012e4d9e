// Undoes a request body's Content-Encoding (identity, gzip or deflate) without ever producing more
// than a size limit, however far the body would inflate. Pure function; thread-safe.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace omra::server {

struct DecodedContent {
  enum class Status { ok, overLimit, malformed, unsupported };
  Status status = Status::ok;
  std::string body;   // the decoded body when ok
  std::string error;  // what is wrong otherwise
};

// coding is the Content-Encoding header's value (empty: none). A list may name at most one coding
// besides "identity". Deflate accepts the zlib format and raw deflate; gzip accepts concatenated
// members. Decoding stops as soon as the output passes limit.
DecodedContent decodeContent(std::string_view coding, std::string raw, size_t limit);

}  // namespace omra::server

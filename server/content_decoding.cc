#include "server/content_decoding.h"

#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <optional>
#include <vector>

namespace omra::server {
namespace {

enum class Coding { identity, gzip, deflate };

std::string lowerTrimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// The one coding the header names, or nullopt with *error when it names others or several.
std::optional<Coding> readCoding(std::string_view header, std::string* error) {
  std::optional<Coding> found;
  size_t codings = 0;
  while (true) {
    const size_t comma = header.find(',');
    const std::string name = lowerTrimmed(header.substr(0, comma));
    if (!name.empty() && name != "identity") {
      ++codings;
      if (name == "gzip" || name == "x-gzip") {
        found = Coding::gzip;
      } else if (name == "deflate") {
        found = Coding::deflate;
      } else {
        *error = "Unsupported Content-Encoding " + name;
        return std::nullopt;
      }
    }
    if (comma == std::string_view::npos) break;
    header.remove_prefix(comma + 1);
  }
  if (codings > 1) {
    *error = "Unsupported Content-Encoding: more than one coding";
    return std::nullopt;
  }
  return found.value_or(Coding::identity);
}

// Owns one zlib inflate stream.
class Inflater {
 public:
  explicit Inflater(int windowBits) { ok_ = inflateInit2(&z_, windowBits) == Z_OK; }
  ~Inflater() {
    if (ok_) inflateEnd(&z_);
  }
  Inflater(const Inflater&) = delete;
  Inflater& operator=(const Inflater&) = delete;
  bool ok() const { return ok_; }
  z_stream& z() { return z_; }

 private:
  z_stream z_{};
  bool ok_ = false;
};

DecodedContent inflateBody(std::string_view raw, int windowBits, bool gzip, size_t limit,
                           const char* name) {
  DecodedContent out;
  auto malformed = [&] {
    out.status = DecodedContent::Status::malformed;
    out.error = std::string("Malformed ") + name + " body";
    out.body.clear();
    return out;
  };
  Inflater inflater(windowBits);
  if (!inflater.ok()) return malformed();
  z_stream& z = inflater.z();
  // One spare byte past the limit tells "exactly the limit" from "over it".
  const size_t cap = limit + 1;
  constexpr size_t kStep = 64 * 1024;
  const auto* next = reinterpret_cast<const unsigned char*>(raw.data());
  size_t left = raw.size();
  size_t produced = 0;
  bool ended = false;
  while (true) {
    if (z.avail_in == 0 && left > 0) {
      const size_t n = std::min<size_t>(left, UINT_MAX);
      z.next_in = const_cast<unsigned char*>(next);
      z.avail_in = static_cast<uInt>(n);
      next += n;
      left -= n;
    }
    if (produced == out.body.size()) {
      if (produced >= cap) break;
      out.body.resize(std::min(cap, produced + kStep));
    }
    z.next_out = reinterpret_cast<unsigned char*>(out.body.data() + produced);
    z.avail_out = static_cast<uInt>(out.body.size() - produced);
    const uInt before = z.avail_out;
    const int rc = inflate(&z, Z_NO_FLUSH);
    produced += before - z.avail_out;
    if (rc == Z_STREAM_END) {
      if (z.avail_in == 0 && left == 0) {
        ended = true;
        break;
      }
      // Another gzip member may follow; anything else after the end is garbage.
      if (!gzip || z.avail_in < 2 || z.next_in[0] != 0x1f || z.next_in[1] != 0x8b) {
        return malformed();
      }
      if (inflateReset(&z) != Z_OK) return malformed();
      continue;
    }
    if (rc == Z_BUF_ERROR && z.avail_in == 0 && left == 0) return malformed();  // truncated
    if (rc != Z_OK && rc != Z_BUF_ERROR) return malformed();
  }
  if (!ended || produced > limit) {
    if (produced > limit) {
      out.status = DecodedContent::Status::overLimit;
      out.error = "Request body over " + std::to_string(limit) + " bytes";
      out.body.clear();
      return out;
    }
    return malformed();
  }
  out.body.resize(produced);
  out.body.shrink_to_fit();
  return out;
}

}  // namespace

DecodedContent decodeContent(std::string_view coding, std::string raw, size_t limit) {
  DecodedContent out;
  std::optional<Coding> c = readCoding(coding, &out.error);
  if (!c) {
    out.status = DecodedContent::Status::unsupported;
    return out;
  }
  switch (*c) {
    case Coding::identity:
      if (raw.size() > limit) {
        out.status = DecodedContent::Status::overLimit;
        out.error = "Request body over " + std::to_string(limit) + " bytes";
        return out;
      }
      out.body = std::move(raw);
      return out;
    case Coding::gzip:
      return inflateBody(raw, 15 + 16, true, limit, "gzip");
    case Coding::deflate: {
      // "deflate" is the zlib format; some clients send raw deflate: the zlib header says which.
      const bool zlibHeader =
          raw.size() >= 2 && (static_cast<unsigned char>(raw[0]) & 0x0F) == 8 &&
          ((static_cast<unsigned char>(raw[0]) << 8) | static_cast<unsigned char>(raw[1])) % 31 ==
              0;
      return inflateBody(raw, zlibHeader ? 15 : -15, false, limit, "deflate");
    }
  }
  return out;
}

}  // namespace omra::server

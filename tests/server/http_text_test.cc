// The HTTP front's pure parts: target decoding, log escaping, content decoding under a limit and
// the header checks that keep a request from being read two ways; JSON answers written as text.
#include "server/http_text.h"

#include <gtest/gtest.h>

#include <boost/beast/http/parser.hpp>
#include <cmath>

#include "server/content_decoding.h"
#include "server/http_request_reader.h"
#include "server/json_text.h"
#include "src/foundation/json_reader.h"
#include "tests/server/http_testutil.h"

namespace omra::server {
namespace {

TEST(RequestTarget, DecodesValidTargetsAndRefusesBrokenOnes) {
  struct Case {
    std::string target;
    bool ok;
    std::string path;
    std::map<std::string, std::string> query;
  };
  const Case cases[] = {
      {"/prod/maps/x", true, "/prod/maps/x", {}},
      {"/a%20b/%C3%A9", true, "/a b/\xC3\xA9", {}},
      {"/a+b", true, "/a+b", {}},  // '+' is a plus in a path
      {"/%0A", true, "/\n", {}},
      {"/q?a=1&b=x+y&c=%26%3D&a=2", true, "/q", {{"a", "1"}, {"b", "x y"}, {"c", "&="}}},
      {"/q?&&flag&e=", true, "/q", {{"flag", ""}, {"e", ""}}},
      {"/%FF", false, "", {}},
      {"/%fg", false, "", {}},
      {"/%4", false, "", {}},
      {"/%", false, "", {}},
      {"/%C0%AF", false, "", {}},        // overlong "/"
      {"/%ED%A0%80", false, "", {}},     // a surrogate
      {"/%F4%90%80%80", false, "", {}},  // past U+10FFFF
      {"/%E2%82", false, "", {}},        // cut short
      {"/x?localizer=%FF", false, "", {}},
      {"/x?%ZZ=1", false, "", {}},
      {"*", false, "", {}},
      {"http://host/x", false, "", {}},
      {"", false, "", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.target);
    std::string error;
    std::optional<RequestTarget> t = parseRequestTarget(c.target, &error);
    ASSERT_EQ(t.has_value(), c.ok) << error;
    if (!c.ok) {
      EXPECT_FALSE(error.empty());
      continue;
    }
    EXPECT_EQ(t->path, c.path);
    EXPECT_EQ(t->query, c.query);
  }
}

TEST(LogEscaping, NothingFromTheRequestCanBreakOrForgeALine) {
  const std::pair<std::string, std::string> cases[] = {
      {"/prod/maps/create_map", "/prod/maps/create_map"},
      {"/x\n200 GET /admin", "/x\\x0a200 GET /admin"},
      {"a\r\tb\x7f", "a\\x0d\\x09b\\x7f"},
      {"back\\slash", "back\\x5cslash"},
      {"caf\xC3\xA9", "caf\xC3\xA9"},       // UTF-8 stays readable
      {"\xFF\xFE", "\\xff\\xfe"},           // not UTF-8
      {"\xC2\x85next", "\\xc2\\x85next"},   // C1 "next line"
      {"\xE2\x80\xA8", "\\xe2\\x80\\xa8"},  // line separator
      {std::string("nul\0x", 5), "nul\\x00x"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(escapeForLog(in), out) << in;
  EXPECT_EQ(escapeForLog(std::string(2000, 'a'), 10), "aaaaaaaaaa...");
}

TEST(ContentDecoding, DecodesWithinTheLimitAndStopsPastIt) {
  constexpr size_t kLimit = 1 << 20;
  const std::string text = R"({"app_id":"a","padding":")" + std::string(5000, 'p') + "\"}";
  const std::string exact(kLimit, 'x');
  const std::string over(kLimit + 1, 'x');
  using S = DecodedContent::Status;
  struct Case {
    const char* name;
    std::string coding;
    std::string raw;
    S status;
    std::string decoded;  // checked when ok
  };
  const std::string gz = testing::gzipped(text);
  const Case cases[] = {
      {"identity", "", text, S::ok, text},
      {"identity named", " Identity ", text, S::ok, text},
      {"identity over", "", over, S::overLimit, ""},
      {"gzip", "gzip", gz, S::ok, text},
      {"x-gzip, any case", "X-GZIP", gz, S::ok, text},
      {"identity then gzip", "identity, gzip", gz, S::ok, text},
      {"two gzip members", "gzip", gz + testing::gzipped("tail"), S::ok, text + "tail"},
      {"deflate zlib", "deflate", testing::zlibDeflated(text, false), S::ok, text},
      {"deflate raw", "deflate", testing::zlibDeflated(text, true), S::ok, text},
      {"gzip exactly the limit", "gzip", testing::gzipped(exact), S::ok, exact},
      {"gzip one byte over", "gzip", testing::gzipped(over), S::overLimit, ""},
      {"gzip bomb", "gzip", testing::gzipBomb(), S::overLimit, ""},
      {"deflate bomb", "deflate", testing::zlibDeflated(std::string(16 << 20, 'a'), false),
       S::overLimit, ""},
      {"truncated gzip", "gzip", gz.substr(0, gz.size() / 2), S::malformed, ""},
      {"garbage after gzip", "gzip", gz + "junk", S::malformed, ""},
      {"not gzip at all", "gzip", text, S::malformed, ""},
      {"empty gzip", "gzip", "", S::malformed, ""},
      {"brotli", "br", gz, S::unsupported, ""},
      {"two codings", "gzip, gzip", gz, S::unsupported, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    DecodedContent d = decodeContent(c.coding, c.raw, kLimit);
    EXPECT_EQ(d.status, c.status) << d.error;
    if (c.status == S::ok) {
      EXPECT_EQ(d.body, c.decoded);
    } else {
      EXPECT_FALSE(d.error.empty());
      EXPECT_TRUE(d.body.empty());
    }
    if (c.status == S::overLimit) {
      EXPECT_EQ(d.error, "Request body over 1048576 bytes");
    }
  }
}

// Parses the header of raw as the server does and runs its checks; empty: accepted.
std::string headerVerdict(const std::string& raw) {
  if (hasFoldedHeaderLine(raw)) return "folded";
  boost::beast::http::request_parser<boost::beast::http::string_body> p;
  p.eager(false);
  boost::beast::error_code ec;
  p.put(boost::asio::buffer(raw), ec);
  if (ec) return "parser: " + ec.message();
  if (!p.is_header_done()) return "incomplete";
  auto refusal = checkHeader(p.get().base());
  return refusal ? refusal->message : "";
}

TEST(HeaderChecks, RefuseWhatTwoPartiesCouldFrameDifferently) {
  const std::string start = "POST /x HTTP/1.1\r\nHost: h\r\n";
  const std::pair<std::string, const char*> cases[] = {
      {start + "Content-Length: 3\r\n\r\nabc", ""},
      {start + "Transfer-Encoding: chunked\r\n\r\n", ""},
      {start + "Transfer-Encoding:  Chunked \r\n\r\n", ""},
      {"GET /x HTTP/1.0\r\n\r\n", ""},  // 1.0 needs no Host
      {start + "Content-Length: 3\r\nContent-Length: 4\r\n\r\n", "parser"},
      {start + "Content-Length: 3\r\nContent-Length: 3\r\n\r\n", "Repeated Content-Length"},
      {start + "Content-Length: 3, 3\r\n\r\n", "Malformed Content-Length"},
      {start + "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n", "parser"},
      {start + "Transfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n", "parser"},
      {start + "Transfer-Encoding: gzip\r\nContent-Length: 3\r\n\r\n", "together"},
      {start + "Transfer-Encoding: gzip\r\n\r\n", "Unsupported Transfer-Encoding"},
      {start + "Transfer-Encoding: chunked, gzip\r\n\r\n", "Unsupported Transfer-Encoding"},
      {start + "Transfer-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n", "Repeated"},
      {start + "X-A: 1\r\n  folded\r\n\r\n", "folded"},
      {start + "X-A: 1\r\n\tfolded\r\n\r\n", "folded"},
      {"GET /x HTTP/1.1\r\n Host: h\r\n\r\n", "folded"},
      {"GET /x HTTP/1.1\r\n\r\n", "exactly one Host"},
      {"GET /x HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", "exactly one Host"},
      {"GET /x HTTP/1.2\r\nHost: a\r\n\r\n", "parser"},
      {"GET /x HTTP/2.0\r\nHost: a\r\n\r\n", "parser"},
  };
  for (const auto& [raw, verdict] : cases) {
    SCOPED_TRACE(raw);
    const std::string got = headerVerdict(raw);
    if (*verdict == '\0') {
      EXPECT_EQ(got, "");
    } else {
      EXPECT_NE(got.find(verdict), std::string::npos) << got;
    }
  }
  // A folded line inside the body is the body's business.
  EXPECT_FALSE(hasFoldedHeaderLine(start + "Content-Length: 4\r\n\r\n\n x\n"));
}

// Answer text must read back as what was written, whatever the stored strings hold.
TEST(JsonText, ReadsBackAsWritten) {
  const struct {
    std::string in, expected;
  } strings[] = {
      {"plain", "plain"},
      {"quote \" and \\ back", "quote \" and \\ back"},
      {"line\nfeed\ttab\x01\x1f", "line\nfeed\ttab\x01\x1f"},
      {"caf\xc3\xa9 \xe2\x82\xac", "caf\xc3\xa9 \xe2\x82\xac"},
      {"bad \xff byte", "bad \xef\xbf\xbd byte"},
      {"cut \xc3", "cut \xef\xbf\xbd"},
      {std::string("nul\0in", 6), std::string("nul\0in", 6)},
  };
  for (const auto& c : strings) {
    std::string text;
    appendJsonString(text, c.in);
    const auto doc = readJson(text);
    ASSERT_TRUE(doc) << text;
    EXPECT_EQ(doc->get<std::string>(), c.expected) << text;
  }
  for (double v :
       {0.0, -0.0, 0.1, -2.5, 48.712345678901234, 1e-300, 1.7976931348623157e308, 35.0}) {
    std::string text;
    appendJsonNumber(text, v);
    const auto doc = readJson(text);
    ASSERT_TRUE(doc && doc->is_number()) << text;
    EXPECT_EQ(doc->get<double>(), v) << text;
  }
  for (double v : {NAN, INFINITY, -INFINITY}) {
    std::string text;
    appendJsonNumber(text, v);
    EXPECT_EQ(text, "null");
  }
}

}  // namespace
}  // namespace omra::server

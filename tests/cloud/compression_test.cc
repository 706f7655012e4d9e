#include "src/cloud/compression.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "tests/common/temp_dir_testutil.h"

namespace omra {
namespace {

std::string randomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(rng() & 0xff);
  return s;
}

std::string repetitive(size_t n) {
  const std::string unit = "0.123456,-1.250000,3.500000,";
  std::string s;
  while (s.size() < n) s += unit;
  s.resize(n);
  return s;
}

TEST(CompressionTest, RoundTripsAroundTheScratchBufferBounds) {
  struct Case {
    const char* name;
    std::string data;
  };
  const std::vector<Case> cases = {
      {"empty", ""},
      {"one byte", "x"},
      {"63 random", randomBytes(63, 1)},
      {"64 random", randomBytes(64, 2)},
      {"65 random", randomBytes(65, 3)},
      {"65536 random", randomBytes(65536, 4)},
      {"65537 repetitive", repetitive(65537)},
      {"1 MB random", randomBytes(1 << 20, 5)},
      {"1 MB repetitive", repetitive(1 << 20)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto packed = compress(c.data);
    ASSERT_TRUE(packed.has_value());
    EXPECT_FALSE(packed->empty());  // even empty input gives a (short) stream
    const auto unpacked = decompress(*packed);
    ASSERT_TRUE(unpacked.has_value());
    EXPECT_TRUE(*unpacked == c.data);
  }
  // Random data grows; repetitive data shrinks a lot.
  EXPECT_GT(compress(randomBytes(1 << 20, 6))->size(), size_t{1} << 20);
  EXPECT_LT(compress(repetitive(1 << 20))->size(), size_t{1} << 14);
}

TEST(CompressionTest, BadInputGivesNoResult) {
  const std::string good = *compress(repetitive(100000));
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"empty", ""},
      {"truncated", good.substr(0, good.size() / 2)},
      {"last byte missing", good.substr(0, good.size() - 1)},
      {"invalid block type", std::string("\x07\x00", 2)},
      {"stored block with bad length check", std::string("\x01\x05\x00\x00\x00", 5)},
  };
  for (const auto& [name, input] : cases) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(decompress(input).has_value());
  }
  // Random garbage never crashes; it may rarely decode, but never to something we compressed.
  for (uint32_t seed = 0; seed < 200; ++seed) (void)decompress(randomBytes(1 + seed % 300, seed));
}

// The same bytes through Python's zlib as an independent raw-DEFLATE codec, both directions.
TEST(CompressionTest, InteroperatesWithAnotherRawDeflateCodec) {
  if (!std::filesystem::exists("/usr/bin/python3")) GTEST_SKIP() << "no /usr/bin/python3";
  const testing::ScopedTempDir tmp("omra-deflate");
  const std::filesystem::path& dir = tmp.path();
  auto file = [&](const char* kind, size_t i) { return dir / (kind + std::to_string(i)); };
  const std::vector<std::string> inputs = {"", "1.000000,0.500000", repetitive(300000),
                                           randomBytes(70000, 9)};
  for (size_t i = 0; i < inputs.size(); ++i) {
    std::ofstream(file("plain", i), std::ios::binary) << inputs[i];
    std::ofstream(file("kit", i), std::ios::binary) << *compress(inputs[i]);
  }
  const std::string script =
      "import sys, zlib, pathlib\n"
      "d = pathlib.Path(sys.argv[1])\n"
      "for i in range(int(sys.argv[2])):\n"
      "    plain = (d / f'plain{i}').read_bytes()\n"
      "    assert zlib.decompress((d / f'kit{i}').read_bytes(), -15) == plain, i\n"
      "    c = zlib.compressobj(9, zlib.DEFLATED, -15)\n"
      "    (d / f'py{i}').write_bytes(c.compress(plain) + c.flush())\n";
  std::ofstream(dir / "check.py") << script;
  const std::string command = "/usr/bin/python3 '" + (dir / "check.py").string() + "' '" +
                              dir.string() + "' " + std::to_string(inputs.size());
  ASSERT_EQ(std::system(command.c_str()), 0) << "Python could not inflate the kit's streams";
  for (size_t i = 0; i < inputs.size(); ++i) {
    std::ifstream in(file("py", i), std::ios::binary);
    const std::string py((std::istreambuf_iterator<char>(in)), {});
    const auto unpacked = decompress(py);
    ASSERT_TRUE(unpacked.has_value()) << i;
    EXPECT_TRUE(*unpacked == inputs[i]) << i;
  }
}

}  // namespace
}  // namespace omra

// Raw DEFLATE of the kit's real record texts: our zlib path against libdeflate (same raw-DEFLATE
// output contract, same level), throughput and ratio side by side.
#include <libdeflate.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>

#include "src/cloud/compression.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"

namespace {

double cpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

// Per CPU second of this thread, so that other load on the machine does not skew the comparison.
template <class F>
double mbPerSecond(size_t bytes, F&& f) {
  int rounds = 0;
  const double start = cpuSeconds();
  double elapsed = 0;
  do {
    f();
    ++rounds;
    elapsed = cpuSeconds() - start;
  } while (elapsed < 0.3);
  return static_cast<double>(bytes) * rounds / elapsed / 1e6;
}

}  // namespace

int main() {
  using namespace omra;
  std::mt19937 rng(3);
  // A detector feature vector of 12 800 activations (mostly small, many zeros after ReLU).
  std::vector<double> features(12800);
  std::exponential_distribution<double> act(4);
  for (auto& v : features) v = (rng() % 3 == 0) ? 0 : act(rng);
  const std::string featureText = ImageFeaturesModel::featureText(features);

  // A 180-frame point-cloud block: 300 points a frame, 30 new each frame.
  PointCloudModel::FramesToFeatureIds frames;
  PointCloudModel::IdToFeature points;
  std::uniform_real_distribution<float> coord(-3, 3);
  uint64_t nextId = 5000000;
  for (int64_t f = 0; f < 180; ++f) {
    auto& ids = frames[f];
    for (int i = 0; i < 300; ++i) {
      const uint64_t id = i < 30 ? nextId++ : nextId - 1 - (rng() % 270);
      ids.push_back(id);
      points[id] = {coord(rng), coord(rng), coord(rng)};
    }
  }
  const std::string cloudText =
      PointCloudModel::framesText(frames) + PointCloudModel::featuresText(points);

  libdeflate_compressor* ld = libdeflate_alloc_compressor(5);
  libdeflate_decompressor* ldd = libdeflate_alloc_decompressor();
  int status = 0;
  for (const auto& [name, text] :
       {std::pair<std::string, const std::string&>{"feature_vector", featureText},
        {"point_cloud_block", cloudText}}) {
    const std::string ours = *compress(text);
    std::string theirs(libdeflate_deflate_compress_bound(ld, text.size()), '\0');
    theirs.resize(
        libdeflate_deflate_compress(ld, text.data(), text.size(), theirs.data(), theirs.size()));
    // Each side's output inflates with the other's decoder: one output contract.
    std::string back(text.size(), '\0');
    size_t got = 0;
    if (decompress(theirs) != text ||
        libdeflate_deflate_decompress(ldd, ours.data(), ours.size(), back.data(), back.size(),
                                      &got) != LIBDEFLATE_SUCCESS ||
        back != text) {
      std::fprintf(stderr, "round trip failed for %s\n", name.c_str());
      status = 1;
    }
    const double zlibRate = mbPerSecond(text.size(), [&] { (void)compress(text); });
    std::string out(theirs.size() + 1024, '\0');
    const double ldRate = mbPerSecond(text.size(), [&] {
      libdeflate_deflate_compress(ld, text.data(), text.size(), out.data(), out.size());
    });
    const double zlibInflate = mbPerSecond(text.size(), [&] { (void)decompress(ours); });
    std::printf("figure %s_text_bytes %zu bytes\n", name.c_str(), text.size());
    std::printf("figure %s_zlib_compress %.1f MB/s\n", name.c_str(), zlibRate);
    std::printf("figure %s_libdeflate_compress %.1f MB/s\n", name.c_str(), ldRate);
    std::printf("figure %s_libdeflate_vs_zlib_speed %.2f ratio\n", name.c_str(), ldRate / zlibRate);
    std::printf("figure %s_zlib_ratio %.2f ratio\n", name.c_str(),
                static_cast<double>(text.size()) / ours.size());
    std::printf("figure %s_libdeflate_ratio %.2f ratio\n", name.c_str(),
                static_cast<double>(text.size()) / theirs.size());
    std::printf("figure %s_zlib_decompress %.1f MB/s\n", name.c_str(), zlibInflate);
  }
  libdeflate_free_compressor(ld);
  libdeflate_free_decompressor(ldd);
  return status;
}

#include "sim/view_descriptor.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace omra::sim {
namespace {

// Four decimals: plenty for matching, and a recording stores them exactly.
constexpr double kHeadingWeight = 2.0;

float quantize(double v) { return static_cast<float>(std::round(v * 1e4) / 1e4); }

}  // namespace

ActivationData viewDescriptor(const Room& room, const CameraModel& camera, const CameraPose& pose) {
  ActivationData out;
  out.shape = {1, kDescriptorRaysX * kDescriptorRaysY, kDescriptorFeatures};
  out.values.reserve(
      static_cast<size_t>(kDescriptorRaysX * kDescriptorRaysY * kDescriptorFeatures));
  for (int r = 0; r < kDescriptorRaysY; ++r) {
    for (int c = 0; c < kDescriptorRaysX; ++c) {
      auto [u, v] = camera.modelToImage((c + 0.5) / kDescriptorRaysX, (r + 0.5) / kDescriptorRaysY);
      Vec3 dir = pose.rotation * camera.rayThroughImagePoint(u, v);
      RayHit hit = room.castRay(pose.position, dir);
      const double q[3] = {(hit.point.x + room.width / 2) / room.width, hit.point.y / room.height,
                           (hit.point.z + room.depth / 2) / room.depth};
      for (double axis : q) {
        for (double freq : {1.0, 2.0, 4.0}) {
          out.values.push_back(quantize(std::sin(2 * M_PI * freq * axis)));
          out.values.push_back(quantize(std::cos(2 * M_PI * freq * axis)));
        }
      }
      // Which way the ray looks, so that the same spot seen from elsewhere differs.
      double heading = std::atan2(dir.x, dir.z);
      for (double freq : {1.0, 2.0, 4.0}) {
        out.values.push_back(quantize(kHeadingWeight * std::sin(freq * heading)));
        out.values.push_back(quantize(kHeadingWeight * std::cos(freq * heading)));
      }
    }
  }
  return out;
}

ActivationData imageDescriptor(const PixelBuffer& image) {
  ActivationData out;
  out.shape = {1, kDescriptorRaysX * kDescriptorRaysY, kDescriptorFeatures};
  const int w = image.width, h = image.height;
  out.values.assign(static_cast<size_t>(kDescriptorRaysX * kDescriptorRaysY * kDescriptorFeatures),
                    0.f);
  if (image.empty() || w < 2 * kDescriptorRaysX || h < 2 * kDescriptorRaysY) return out;
  std::vector<double> lum(static_cast<size_t>(w * h)), chromaR(lum.size()), chromaG(lum.size());
  double mean = 0;
  for (int y = 0; y < h; ++y) {
    const uint8_t* row = image.row(y);
    for (int x = 0; x < w; ++x) {
      const double b = row[4 * x], g = row[4 * x + 1], r = row[4 * x + 2];
      const size_t i = static_cast<size_t>(y * w + x);
      lum[i] = 0.114 * b + 0.587 * g + 0.299 * r;
      const double sum = b + g + r + 1;
      chromaR[i] = r / sum - 1.0 / 3;
      chromaG[i] = g / sum - 1.0 / 3;
      mean += lum[i];
    }
  }
  mean = std::max(mean / static_cast<double>(lum.size()), 1.0);
  const int cw = w / kDescriptorRaysX, ch = h / kDescriptorRaysY;
  for (int cy = 0; cy < kDescriptorRaysY; ++cy) {
    for (int cx = 0; cx < kDescriptorRaysX; ++cx) {
      double hist[8] = {}, quarterLum[4] = {}, quarterR[4] = {}, quarterG[4] = {};
      int quarterCount[4] = {};
      double sum = 0, sumSq = 0, edges = 0;
      int count = 0;
      for (int y = cy * ch; y < (cy + 1) * ch; ++y) {
        for (int x = cx * cw; x < (cx + 1) * cw; ++x) {
          const size_t i = static_cast<size_t>(y * w + x);
          const double l = lum[i] / mean;
          const int q = (y - cy * ch) * 2 / ch * 2 + (x - cx * cw) * 2 / cw;
          quarterLum[q] += l;
          quarterR[q] += chromaR[i];
          quarterG[q] += chromaG[i];
          ++quarterCount[q];
          sum += l;
          sumSq += l * l;
          ++count;
          if (x + 1 >= w || y + 1 >= h) continue;
          const double gx = (lum[i + 1] - lum[i]) / mean;
          const double gy = (lum[i + static_cast<size_t>(w)] - lum[i]) / mean;
          const double magnitude = std::hypot(gx, gy);
          if (magnitude < 1e-3) continue;
          const double angle = std::atan2(gy, gx) + M_PI;
          hist[std::min(7, static_cast<int>(angle / (2 * M_PI) * 8))] += magnitude;
          if (magnitude > 0.08) edges += 1;
        }
      }
      double norm = 0;
      for (double v : hist) norm += v * v;
      norm = std::sqrt(norm);
      float* cell = out.values.data() +
                    static_cast<size_t>((cy * kDescriptorRaysX + cx) * kDescriptorFeatures);
      int k = 0;
      for (double v : hist) cell[k++] = quantize(norm > 0 ? v / norm : 0);
      for (int q = 0; q < 4; ++q) {
        const double n = std::max(quarterCount[q], 1);
        cell[k++] = quantize(4 * quarterR[q] / n);
        cell[k++] = quantize(4 * quarterG[q] / n);
        cell[k++] = quantize(quarterLum[q] / n - 1);
      }
      const double cellMean = sum / std::max(count, 1);
      cell[k++] =
          quantize(std::sqrt(std::max(0.0, sumSq / std::max(count, 1) - cellMean * cellMean)));
      cell[k++] = quantize(edges / std::max(count, 1));
      cell[k++] = quantize(cellMean - 1);
      cell[k++] = quantize(hist[0] + hist[4] > hist[2] + hist[6] ? 0.5 : -0.5);
    }
  }
  return out;
}

double cosineSimilarity(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.size() != b.size() || a.empty()) return 0;
  double ab = 0, aa = 0, bb = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    ab += double{a[i]} * b[i];
    aa += double{a[i]} * a[i];
    bb += double{b[i]} * b[i];
  }
  return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : 0;
}

}  // namespace omra::sim

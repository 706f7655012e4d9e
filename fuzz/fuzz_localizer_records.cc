// The record texts the localizers read (feature vectors, camera-path poses, plane transforms and
// outlines, feature points): never a crash, and what they accept is finite where it must be.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>

#include "server/plane_records.h"
#include "server/session_records.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (auto v = omra::server::parseFeatureText(text)) {
    for (float x : *v) {
      if (!std::isfinite(x)) __builtin_trap();
    }
  }
  if (auto m = omra::server::parsePoseText(text)) {
    for (double x : *m) {
      if (!std::isfinite(x)) __builtin_trap();
    }
  }
  if (auto p = omra::server::parsePlaneTransform(text)) {
    const double len = std::sqrt(p->normal[0] * p->normal[0] + p->normal[1] * p->normal[1] +
                                 p->normal[2] * p->normal[2]);
    if (!(std::fabs(len - 1) < 1e-6)) __builtin_trap();
  }
  // An outline: the vertices up to the first line break, the transform after it.
  const size_t cut = text.find('\n');
  if (cut != std::string::npos) {
    if (auto o = omra::server::parsePlaneOutline(text.substr(0, cut), text.substr(cut + 1))) {
      for (double x : o->centre) {
        if (!std::isfinite(x)) __builtin_trap();
      }
      if (!(o->longSide >= o->shortSide && o->shortSide > 0)) __builtin_trap();
    }
  }
  if (auto points = omra::server::parsePointText(text)) {
    if (points->size() > size) __builtin_trap();
  }
  return 0;
}

// Reading the back end's best-transform answers and the transform texts inside them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "omrakit/geometry.h"
#include "omrakit/platform/http_client.h"

namespace omra {

// One usable answer of "/maps/get_best_transform".
struct BestTransformAnswer {
  std::string localizer;
  std::string transform;
  float matchValue = 0;
};

// The back end has no result for this localizer yet: skip silently.
struct NoTransformYet {};

// An answer that names a result but cannot be read; the text says why (it is logged, then the
// answer is dropped: a server reply never aborts the host).
struct MalformedTransformAnswer {
  std::string reason;
};

using TransformAnswerOutcome =
    std::variant<NoTransformYet, BestTransformAnswer, MalformedTransformAnswer>;

// Reads a decoded answer object. A JSON value that is not an object counts as no result.
TransformAnswerOutcome readBestTransformAnswer(const Json& answer);

// The whole text as a 32-bit float (no surrounding junk, finite), or none.
std::optional<float> parseMatchValue(std::string_view text);

// A map-to-session transform: a point p of the map frame lands at translation + R(theta) p, R a
// rotation about the vertical axis.
struct YawTransform {
  Float3 translation;
  float theta = 0;
};

// "tx,ty,tz,theta": pieces split at ",", empty pieces dropped, each read by its leading numeric
// prefix (a piece that does not start with a number reads as 0). None when fewer than four numbers,
// or when one of the four is not finite or lies beyond kMaxAssetCoordinateMetres.
std::optional<YawTransform> parseTransformText(std::string_view text);

// translation + R(theta) p.
Float3 applyYawTransform(const YawTransform& transform, Float3 p);

}  // namespace omra

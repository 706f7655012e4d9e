#include "src/foundation/object_sizes.h"

#include <algorithm>
#include <array>
#include <numbers>
#include <utility>

namespace omra {
namespace {

// Typical household sizes. A table shows its sides only as the edge of its top; the rest of the
// labels are rarely indoors.
constexpr std::array<std::pair<std::string_view, ObjectSize>, 47> kSizes{{
    {"apple", {0.08f, 0.08f, 0.08f, true}},       {"backpack", {0.32f, 0.2f, 0.45f, false}},
    {"banana", {0.2f, 0.04f, 0.04f, false}},      {"bed", {2.0f, 1.6f, 0.5f, false}},
    {"bench", {1.5f, 0.4f, 0.45f, false}},        {"book", {0.25f, 0.18f, 0.03f, false}},
    {"bottle", {0.08f, 0.08f, 0.28f, true}},      {"bowl", {0.18f, 0.18f, 0.08f, true}},
    {"cake", {0.25f, 0.25f, 0.1f, true}},         {"cat", {0.5f, 0.2f, 0.3f, false}},
    {"cell phone", {0.15f, 0.07f, 0.01f, false}}, {"chair", {0.5f, 0.5f, 0.9f, false}},
    {"clock", {0.3f, 0.05f, 0.3f, false}},        {"couch", {1.9f, 0.9f, 0.85f, false}},
    {"cup", {0.09f, 0.09f, 0.1f, true}},          {"dining table", {1.4f, 0.85f, 0.05f, false}},
    {"dog", {0.7f, 0.3f, 0.6f, false}},           {"donut", {0.1f, 0.1f, 0.04f, true}},
    {"fork", {0.2f, 0.03f, 0.01f, false}},        {"hair drier", {0.2f, 0.08f, 0.2f, false}},
    {"handbag", {0.35f, 0.15f, 0.3f, false}},     {"keyboard", {0.45f, 0.15f, 0.03f, false}},
    {"knife", {0.25f, 0.03f, 0.01f, false}},      {"laptop", {0.33f, 0.23f, 0.2f, false}},
    {"microwave", {0.5f, 0.38f, 0.3f, false}},    {"mouse", {0.1f, 0.06f, 0.04f, false}},
    {"orange", {0.08f, 0.08f, 0.08f, true}},      {"oven", {0.6f, 0.6f, 0.85f, false}},
    {"person", {0.5f, 0.3f, 1.7f, false}},        {"pizza", {0.35f, 0.35f, 0.03f, true}},
    {"potted plant", {0.4f, 0.4f, 0.8f, true}},   {"refrigerator", {0.75f, 0.7f, 1.8f, false}},
    {"remote", {0.18f, 0.05f, 0.02f, false}},     {"sandwich", {0.15f, 0.1f, 0.06f, false}},
    {"scissors", {0.15f, 0.07f, 0.01f, false}},   {"sink", {0.6f, 0.45f, 0.2f, false}},
    {"spoon", {0.18f, 0.04f, 0.01f, false}},      {"sports ball", {0.22f, 0.22f, 0.22f, true}},
    {"suitcase", {0.5f, 0.25f, 0.7f, false}},     {"teddy bear", {0.3f, 0.25f, 0.4f, false}},
    {"toaster", {0.3f, 0.2f, 0.2f, false}},       {"toilet", {0.7f, 0.4f, 0.75f, false}},
    {"toothbrush", {0.2f, 0.02f, 0.02f, false}},  {"tv", {1.0f, 0.1f, 0.6f, false}},
    {"umbrella", {0.9f, 0.9f, 0.9f, true}},       {"vase", {0.15f, 0.15f, 0.3f, true}},
    {"wine glass", {0.08f, 0.08f, 0.2f, true}},
}};
// Looked up by binary search.
static_assert(std::is_sorted(kSizes.begin(), kSizes.end(),
                             [](const auto& a, const auto& b) { return a.first < b.first; }));

}  // namespace

float ObjectSize::footprintArea() const {
  return round ? std::numbers::pi_v<float> / 4 * longSide * shortSide : longSide * shortSide;
}

std::optional<ObjectSize> typicalObjectSize(std::string_view label) {
  const auto it =
      std::lower_bound(kSizes.begin(), kSizes.end(), label,
                       [](const auto& entry, std::string_view l) { return entry.first < l; });
  if (it == kSizes.end() || it->first != label) return std::nullopt;
  return it->second;
}

}  // namespace omra

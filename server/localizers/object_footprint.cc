#include "server/localizers/object_footprint.h"

#include <map>

namespace omra::server {

double typicalFootprint(const std::string& label) {
  // Household objects and what stands about in rooms; the rest of the labels are rarely indoors.
  static const std::map<std::string, double, std::less<>> kSizes = {
      {"apple", 0.08},    {"backpack", 0.35},    {"banana", 0.2},       {"bed", 2.0},
      {"bench", 1.5},     {"book", 0.25},        {"bottle", 0.08},      {"bowl", 0.2},
      {"cake", 0.25},     {"cat", 0.5},          {"cell phone", 0.15},  {"chair", 0.5},
      {"clock", 0.3},     {"couch", 1.9},        {"cup", 0.1},          {"dining table", 1.4},
      {"dog", 0.7},       {"donut", 0.1},        {"fork", 0.2},         {"hair drier", 0.2},
      {"handbag", 0.35},  {"keyboard", 0.45},    {"knife", 0.25},       {"laptop", 0.35},
      {"microwave", 0.5}, {"mouse", 0.1},        {"orange", 0.08},      {"oven", 0.6},
      {"person", 0.5},    {"pizza", 0.35},       {"potted plant", 0.4}, {"refrigerator", 0.75},
      {"remote", 0.15},   {"sandwich", 0.15},    {"scissors", 0.15},    {"sink", 0.6},
      {"spoon", 0.18},    {"sports ball", 0.22}, {"suitcase", 0.5},     {"teddy bear", 0.3},
      {"toaster", 0.3},   {"toilet", 0.7},       {"toothbrush", 0.2},   {"tv", 1.0},
      {"umbrella", 0.9},  {"vase", 0.2},         {"wine glass", 0.08}};
  const auto it = kSizes.find(label);
  return it == kSizes.end() ? 0.0 : it->second;
}

}  // namespace omra::server

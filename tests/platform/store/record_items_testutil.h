// Realistic items for the store tests: one record of each kit table with the sizes and number
// texts the kit writes (an image-feature record carries a kilobyte of deflated bytes). Plain
// functions; thread-safe.
#pragma once

#include <string>
#include <vector>

#include "omrakit/platform/record_store.h"

namespace omra::testing {

struct SampleItem {
  std::string table;
  Item item;
};

// One item per kit table, all of session sessionId, record ids from firstRecordId on.
std::vector<SampleItem> sampleRecordItems(const std::string& sessionId, int64_t firstRecordId = 1);

// An image-feature record as the kit writes one: about bytes of deflated (incompressible) data.
Item imageFeatureItem(const std::string& sessionId, int64_t recordId, size_t bytes = 1100);

}  // namespace omra::testing

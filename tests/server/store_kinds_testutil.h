// The three stores omra-server runs over (memory, SQLite in a fresh folder, DynamoDB through the
// shared dynalite server), each with the server's tables, for tests that must hold on all of them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "omrakit/platform/record_store.h"

namespace omra::server::testing {

struct StoreKind {
  const char* name;  // "memory", "sqlite", "dynamodb": a test-name suffix
};

// Every kind, for INSTANTIATE_TEST_SUITE_P.
std::vector<StoreKind> allStoreKinds();

// A store of that kind with every server table created, or null with *why set (no dynalite, say).
// DynamoDB stores share one server: tests keep apart by their own app ids. Thread-safe.
std::shared_ptr<RecordStore> openStoreKind(const StoreKind& kind, std::string* why);

}  // namespace omra::server::testing

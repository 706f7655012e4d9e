#include "src/platform/store/record_store_factory.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "src/cloud/account_http_client.h"
#include "src/platform/store/backend_record_store.h"
#include "src/platform/store/dynamodb_record_store.h"
#include "src/platform/store/item_checks.h"
#include "src/platform/store/memory_record_store.h"
#include "src/platform/store/sqlite_record_store.h"
#include "tests/common/temp_dir_testutil.h"
#include "tests/platform/store/backend_testutil.h"

namespace omra {
namespace {

TEST(RecordStoreFactoryTest, BuildsTheConfiguredStore) {
  const testing::ScopedTempDir dir("omra-factory");
  std::string error;
  AwsSettings aws;
  aws.region = "eu-central-1";
  EXPECT_TRUE(
      std::dynamic_pointer_cast<MemoryRecordStore>(makeRecordStore("memory", aws, nullptr)));
  EXPECT_TRUE(std::dynamic_pointer_cast<SqliteRecordStore>(
      makeRecordStore("sqlite:" + dir.file("records.db"), aws, nullptr, &error)))
      << error;
  auto local = std::dynamic_pointer_cast<DynamoDbRecordStore>(
      makeRecordStore("dynamodb:http://127.0.0.1:4567/", aws, nullptr));
  ASSERT_TRUE(local);
  EXPECT_EQ(local->endpoint(), "http://127.0.0.1:4567");
  auto cloud =
      std::dynamic_pointer_cast<DynamoDbRecordStore>(makeRecordStore("dynamodb", aws, nullptr));
  ASSERT_TRUE(cloud);
  EXPECT_EQ(cloud->endpoint(), "https://dynamodb.eu-central-1.amazonaws.com");
  for (const char* bad : {"", "sqlite:", "postgres:x", "Memory"}) {
    error.clear();
    EXPECT_EQ(makeRecordStore(bad, aws, nullptr, &error), nullptr) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
}

TEST(ItemChecksTest, NumberTextsAsDynamoDbAcceptsThem) {
  for (const char* ok : {"0", "-1", "+2", "3.25", ".5", "5.", "1e-05", "1E+10", "-0.00001",
                         "12345678901234567890123456789012345678"}) {
    EXPECT_TRUE(isValidNumberText(ok)) << ok;
  }
  for (const char* bad : {"", "-", "NaN", "Infinity", "-Infinity", "1e", "1e1234", "0x10", "1,5",
                          " 1", "1 ", "123456789012345678901234567890123456789"}) {
    EXPECT_FALSE(isValidNumberText(bad)) << bad;
  }
}

TEST(ItemChecksTest, SizeCountsNamesAndValuesAsDynamoDbDoes) {
  EXPECT_EQ(itemSizeBytes({{"SessionId", AttributeValue::string("abc")}}), 9u + 3u);
  EXPECT_EQ(itemSizeBytes({{"B", AttributeValue::bytes(std::string(10, '\0'))}}), 1u + 10u);
  // Numbers: one byte per two significant digits, plus one.
  EXPECT_EQ(itemSizeBytes({{"N", AttributeValue::numberText("12345")}}), 1u + 4u);
  EXPECT_EQ(itemSizeBytes({{"N", AttributeValue::numberText("0.000120")}}), 1u + 3u);
  // Maps: 3 bytes, plus per entry its key, value and one byte.
  EXPECT_EQ(itemSizeBytes({{"M", AttributeValue::stringMap({{"20", "abc"}})}}),
            1u + 3u + 1u + 2u + 3u);
}

TEST(RecordStoreFactoryTest, BuildsTheKitsBackendStoreFromItsConfiguration) {
  testing::BackendStoreHarness h;
  KitStoreServices services;
  services.http = h.backend;
  services.dispatcher = h.dispatcher;
  services.recordTables = testing::kitRecordTables();
  services.accountHeader = kAccountHeader;
  struct Case {
    std::string recordStore;
    std::string url;
  };
  const std::vector<Case> cases = {
      {"backend", "https://maps.example.com/prod/records/batch_write"},
      {"backend:http://127.0.0.1:9000/beta", "http://127.0.0.1:9000/beta/records/batch_write"},
  };
  for (const Case& c : cases) {
    Config config;
    config.endpoints.mapsProd = "https://maps.example.com";
    config.recordStore = c.recordStore;
    config.recordOutbox = h.dir + "/nested/outbox.db";
    std::string error;
    auto store = std::dynamic_pointer_cast<BackendRecordStore>(
        makeRecordStore(config, services, nullptr, &error));
    ASSERT_TRUE(store) << error;
    EXPECT_EQ(store->batchWriteUrl(), c.url);
    EXPECT_TRUE(std::filesystem::exists(config.recordOutbox));
  }
  // The server's texts never make the kit's store: it needs the kit's HTTP client.
  std::string error;
  EXPECT_EQ(makeRecordStore("backend", AwsSettings{}, nullptr, &error), nullptr);
  EXPECT_NE(error.find("kit's own"), std::string::npos) << error;
  // Other texts still give the other stores.
  Config memory;
  memory.recordStore = "memory";
  EXPECT_TRUE(std::dynamic_pointer_cast<MemoryRecordStore>(
      makeRecordStore(memory, services, nullptr, &error)));
}

}  // namespace
}  // namespace omra

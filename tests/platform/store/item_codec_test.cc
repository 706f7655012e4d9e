// The SQLite store's compact row form: every item comes back exactly (number texts byte for
// byte), the kit's records take no more room than DynamoDB counts for them, and a damaged row is
// an error, never a crash or a wrong item.
#include "src/platform/store/item_codec.h"

#include <gtest/gtest.h>

#include "src/platform/store/attribute_json.h"
#include "tests/platform/store/record_items_testutil.h"

namespace omra {
namespace {

using testing::sampleRecordItems;

std::optional<Item> roundTrip(const Item& item, std::string* why) {
  return decodeItem(encodeItem(item), why);
}

TEST(ItemCodecTest, EveryKindOfValueComesBackEqual) {
  const std::string zeros("\0\0\x01\xff", 4);
  const struct {
    const char* name;
    Item item;
  } cases[] = {
      {"empty item", {}},
      {"known and unknown names",
       {{"SessionId", AttributeValue::string("S")},
        {"Extra name ü", AttributeValue::string("")},
        {std::string(300, 'n'), AttributeValue::string("long name")}}},
      {"binary with zero bytes and empty binary",
       {{"Features_C", AttributeValue::bytes(zeros)}, {"Empty", AttributeValue::bytes("")}}},
      {"large binary", {{"Big", AttributeValue::bytes(std::string(200000, '\x80'))}}},
      {"maps",
       {{"Transforms", AttributeValue::stringMap({{"20", "1.0,0.0"}, {"", ""}, {"é", "\n"}})},
        {"EmptyMap", AttributeValue::stringMap({})}}},
  };
  for (const auto& c : cases) {
    std::string why;
    EXPECT_EQ(roundTrip(c.item, &why), c.item) << c.name << ": " << why;
  }
  for (const auto& sample : sampleRecordItems("A1B2C3D4-0000-4000-8000-000000000001")) {
    std::string why;
    EXPECT_EQ(roundTrip(sample.item, &why), sample.item) << sample.table << ": " << why;
  }
}

// Numbers are stored in binary only when the text can be written back byte for byte; every other
// text is kept as it is.
TEST(ItemCodecTest, NumberTextsComeBackByteForByte) {
  const char* texts[] = {"0",
                         "-0",
                         "+5",
                         "05",
                         "7",
                         "-17",
                         "300",
                         "9223372036854775807",
                         "-9223372036854775808",
                         "9223372036854775808",
                         "-9223372036854775809",
                         "1.5",
                         "1.50",
                         "0.875",
                         "-2.5",
                         "1e-05",
                         "1E5",
                         "1e5",
                         "0.1",
                         "0.12345679",
                         "1763770000.123456",
                         "1763770000.1234560",
                         "3.4028235e+38",
                         "3.4028236e+38",
                         "1e+300",
                         "5e-324",
                         "2.2250738585072014e-308",
                         "123456789012345678901234567890.12345678",
                         "1.0",
                         ".5",
                         "100000000000000000000"};
  for (const char* text : texts) {
    const Item item{{"Timestamp", AttributeValue::numberText(text)},
                    {"Other", AttributeValue::numberText(text)}};
    std::string why;
    EXPECT_EQ(roundTrip(item, &why), item) << text << ": " << why;
  }
  // What the binary forms save: bytes a value takes after the version, count, tag and name code.
  const struct {
    const char* text;
    size_t bytes;
  } sizes[] = {{"7", 1},     {"-17", 1},        {"300", 2},  {"1763770000.123456", 8},
               {"0.875", 4}, {"0.12345679", 4}, {"1.50", 5}, {"-0", 3}};
  for (const auto& c : sizes) {
    const Item item{{"Timestamp", AttributeValue::numberText(c.text)}};
    EXPECT_EQ(encodeItem(item).size(), 4 + c.bytes) << c.text;
  }
}

// The reason for the form: a record's stored bytes stay within what DynamoDB counts for it
// (JSON with base64 took a third more for the bytes alone, plus quoting).
TEST(ItemCodecTest, KitRecordsTakeNoMoreThanTheirItemSize) {
  for (const auto& sample : sampleRecordItems("A1B2C3D4-0000-4000-8000-000000000001", 1000)) {
    const size_t encoded = encodeItem(sample.item).size();
    EXPECT_LE(encoded, itemSizeBytes(sample.item)) << sample.table;
    EXPECT_LT(encoded, itemToJsonText(sample.item)->size()) << sample.table;
  }
}

TEST(ItemCodecTest, EveryCutOfARowIsAnError) {
  for (const auto& sample : sampleRecordItems("S")) {
    const std::string row = encodeItem(sample.item);
    for (size_t n = 0; n < row.size(); ++n) {
      std::string why;
      ASSERT_FALSE(decodeItem(std::string_view(row).substr(0, n), &why))
          << sample.table << " cut at " << n;
      EXPECT_FALSE(why.empty());
    }
  }
}

TEST(ItemCodecTest, DamagedRowsAreErrors) {
  // Rows built by hand: version 1, attribute count, then tag (0x80: name by code), name, value.
  const auto row = [](std::initializer_list<int> bytes) {
    std::string s;
    for (int b : bytes) s += static_cast<char>(b);
    return s;
  };
  const struct {
    const char* name;
    std::string row;
    const char* why;
  } cases[] = {
      {"empty", "", "known version"},
      {"JSON text", "{\"A\":{\"S\":\"x\"}}", "known version"},
      {"later version", row({2, 0}), "known version"},
      {"trailing byte", row({1, 0, 0}), "after the last attribute"},
      {"count larger than the attributes", row({1, 2, 0x80, 0, 1, 'x'}), "cut short"},
      {"unknown value tag", row({1, 1, 0x87, 0, 0}), "unknown value tag"},
      {"unknown name code", row({1, 1, 0x80, 99, 0, 0}), "name code"},
      {"name twice", row({1, 2, 0x80, 0, 0, 0x80, 0, 0}), "named twice"},
      {"string not UTF-8", row({1, 1, 0x80, 0, 1, 0xff}), "not UTF-8"},
      {"name not UTF-8", row({1, 1, 0x00, 1, 0xc3, 0, 0}), "not UTF-8"},
      {"number text not a number", row({1, 1, 0x81, 1, 3, 'N', 'a', 'N'}), "not a number"},
      {"double NaN", row({1, 1, 0x83, 3, 0, 0, 0, 0, 0, 0, 0xf8, 0x7f}), "not finite"},
      {"float infinity", row({1, 1, 0x84, 3, 0, 0, 0x80, 0x7f}), "not finite"},
      {"length past the end", row({1, 1, 0x85, 4, 0xff, 0xff, 0x03, 1}), "cut short"},
      {"varint of eleven bytes",
       row({1, 1, 0x82, 1, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01}),
       "cut short"},
      {"map keys out of order", row({1, 1, 0x86, 6, 2, 1, 'b', 0, 1, 'a', 0}), "out of order"},
      {"map key not UTF-8", row({1, 1, 0x86, 6, 1, 1, 0xfe, 0}), "not UTF-8"},
  };
  for (const auto& c : cases) {
    std::string why;
    EXPECT_FALSE(decodeItem(c.row, &why)) << c.name;
    EXPECT_NE(why.find(c.why), std::string::npos) << c.name << ": " << why;
  }
}

}  // namespace
}  // namespace omra

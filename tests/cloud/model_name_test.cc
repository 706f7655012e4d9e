#include "src/cloud/model_name.h"

#include <gtest/gtest.h>

#include <string>

namespace omra {
namespace {

TEST(ModelName, TableAndPassThrough) {
  const struct {
    std::string identifier;
    const char* name;
  } cases[] = {
      {"iPod5,1", "iPod Touch 5"},
      {"iPhone7,1", "iPhone 6 Plus"},  // 7,1 is the Plus, 7,2 the plain 6
      {"iPhone7,2", "iPhone 6"},
      {"iPhone9,4", "iPhone 7 Plus"},
      {"iPhone10,6", "iPhone X"},
      {"iPad2,5", "iPad Mini"},
      {"iPad6,1", "iPad6,1"},  // a prefix of iPad6,11 must not match it
      {"iPad7,2", "iPad Pro 12.9 Inch 2. Generation"},
      {"AppleTV6,2", "Apple TV 4K"},
      {"AudioAccessory1,1", "HomePod"},
      {"i386", "Simulator"},
      {"x86_64", "Simulator"},
      {"iPhone11,2", "iPhone11,2"},
      {"", ""},
      {std::string("iPhone10,3\0\0\0", 13), "iPhone X"},  // uname pads with zero bytes
  };
  for (const auto& c : cases) EXPECT_EQ(modelName(c.identifier), c.name) << c.identifier;
}

}  // namespace
}  // namespace omra

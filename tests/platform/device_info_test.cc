#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "src/platform/linux_device_info.h"
#include "src/platform/md5.h"
#include "tests/common/temp_dir_testutil.h"

namespace omra {
namespace {

namespace fs = std::filesystem;

class DeviceInfoTest : public ::testing::Test {
 protected:
  std::optional<std::string> vendorId(const std::string& bundle) {
    return LinuxDeviceInfo(withBundle(bundle), dir_.string()).identifierForVendor();
  }
  Config withBundle(std::string id) {
    Config c;
    c.bundleIdentifier = std::move(id);
    return c;
  }
  testing::ScopedTempDir tmp_{"omra-device"};
  const fs::path& dir_ = tmp_.path();
};

TEST_F(DeviceInfoTest, VendorIdIsCreatedOnceAndKeptPerBundle) {
  LinuxDeviceInfo first(withBundle("com.example.a"), dir_.string());
  auto id = first.identifierForVendor();
  ASSERT_TRUE(id.has_value());
  EXPECT_TRUE(isUuidText(*id));
  EXPECT_EQ(id->find_first_of("abcdef"), std::string::npos) << *id;  // upper case
  EXPECT_EQ((*id)[14], '4');                                         // version 4
  EXPECT_TRUE(fs::exists(dir_ / "omrakit" / "com.example.a" / "vendor-id"));

  // Another process start (another object) reads the same identifier back.
  EXPECT_EQ(vendorId("com.example.a"), id);
  // Another host application gets its own.
  auto other = vendorId("com.example.b");
  ASSERT_TRUE(other.has_value());
  EXPECT_NE(*other, *id);

  // A damaged file is replaced by a new identifier, which is then kept.
  std::ofstream(dir_ / "omrakit" / "com.example.a" / "vendor-id") << "not a uuid";
  auto fresh = vendorId("com.example.a");
  ASSERT_TRUE(fresh.has_value());
  EXPECT_TRUE(isUuidText(*fresh));
  EXPECT_EQ(vendorId("com.example.a"), fresh);
}

TEST_F(DeviceInfoTest, ConcurrentFirstUseAgreesOnOneId) {
  std::vector<std::optional<std::string>> ids(6);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < ids.size(); ++i) {
    threads.emplace_back([&, i] { ids[i] = vendorId("com.example.race"); });
  }
  for (auto& t : threads) t.join();
  for (const auto& id : ids) {
    ASSERT_TRUE(id.has_value());
    EXPECT_EQ(*id, *ids[0]);
  }
}

TEST_F(DeviceInfoTest, NoVendorIdWhenItCannotBeKept) {
  EXPECT_FALSE(LinuxDeviceInfo(Config{}, dir_.string()).identifierForVendor().has_value());
  for (const char* bundle : {"..", "a/b"}) EXPECT_FALSE(vendorId(bundle)) << bundle;
  if (::geteuid() != 0) {  // root writes anywhere
    fs::permissions(dir_, fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_FALSE(vendorId("com.example.ro"));
  }
}

TEST_F(DeviceInfoTest, UsesXdgDataHome) {
  const char* old = std::getenv("XDG_DATA_HOME");
  const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
  ::setenv("XDG_DATA_HOME", dir_.c_str(), 1);
  LinuxDeviceInfo info(withBundle("com.example.xdg"));
  EXPECT_EQ(info.vendorIdPath(), (dir_ / "omrakit" / "com.example.xdg" / "vendor-id").string());
  EXPECT_TRUE(info.identifierForVendor().has_value());
  saved ? ::setenv("XDG_DATA_HOME", saved->c_str(), 1) : ::unsetenv("XDG_DATA_HOME");
}

TEST(OsReleaseTest, VersionId) {
  EXPECT_EQ(osReleaseVersionId("NAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n"), "12");
  EXPECT_EQ(osReleaseVersionId("VERSION_ID=22.04\n"), "22.04");
  EXPECT_EQ(osReleaseVersionId("VERSION_ID='3.19.1'"), "3.19.1");
  EXPECT_EQ(osReleaseVersionId("ID=debian\nVERSION_CODENAME=trixie\n"), "");
  EXPECT_EQ(osReleaseVersionId("MY_VERSION_ID=9\n"), "");
}

TEST(UuidTest, RandomV4Form) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    std::string u = randomUuidV4();
    ASSERT_TRUE(isUuidText(u)) << u;
    EXPECT_EQ(u[14], '4');
    EXPECT_NE(std::string("89AB").find(u[19]), std::string::npos) << u;
    seen.insert(u);
  }
  EXPECT_EQ(seen.size(), 100u);
  EXPECT_FALSE(isUuidText("0000000-0000-4000-8000-0000000000000"));
  EXPECT_FALSE(isUuidText("G0000000-0000-4000-8000-000000000000"));
}

TEST(Md5Test, KnownVectors) {
  // RFC 1321, appendix A.5.
  const std::vector<std::pair<std::string, std::string>> vectors = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {std::string("a\0b", 3), "70350f6027bce3713f6b76473084309b"},
  };
  for (const auto& [text, hex] : vectors) EXPECT_EQ(md5Hex(text), hex) << text;
}

}  // namespace
}  // namespace omra

// The outbox file as found on a device: any bytes (a corrupt, truncated or foreign database, or a
// real outbox with odd rows) through RecordOutbox::open, then every row handed out. Opening must
// either fail cleanly, set the file aside, or give an outbox whose rows all pass readOutboxRow.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "src/platform/store/record_outbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::filesystem::path dir = [] {
    auto d =
        std::filesystem::temp_directory_path() / ("omra-fuzz-outbox-" + std::to_string(::getpid()));
    std::filesystem::create_directories(d);
    return d;
  }();
  const std::filesystem::path file = dir / "outbox.db";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  std::string error;
  omra::RecordOutbox::Options options;
  options.busyTimeoutMs = 0;
  auto box = omra::RecordOutbox::open(file.string(), options, nullptr, &error);
  if (!box) {
    if (error.empty()) __builtin_trap();
    return 0;
  }
  size_t handed = 0;
  std::string why;
  const bool read = box->visitOldest(
      1000,
      [&](omra::OutboxRow&& row) {
        std::string again;
        if (!omra::readOutboxRow(row.id, row.account, row.table, row.itemJson, &again)) {
          __builtin_trap();
        }
        ++handed;
        return true;
      },
      &why);
  if (read && handed > box->rowCount() && box->recount() && handed > box->rowCount()) {
    __builtin_trap();
  }
  // What it opened still takes a new row.
  (void)box->append({{"0123456789abcdef0123456789abcdef", "MapData-CameraPath",
                      R"({"SessionId":{"S":"s"},"RecordId":{"N":"1"}})"}});
  return 0;
}

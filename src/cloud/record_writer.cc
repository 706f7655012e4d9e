#include "src/cloud/record_writer.h"

#include "src/cloud/record_item.h"

namespace omra {

RecordWriter::RecordWriter(std::shared_ptr<RecordStore> store, std::shared_ptr<Logger> logger)
    : store_(std::move(store)), logger_(std::move(logger)) {}

void RecordWriter::saveItem(const std::string& table, Item item, Done done) const {
  auto report = [logger = logger_, done = std::move(done)](std::optional<StoreError> error) {
    if (error && logger) logger->print(std::string(kSaveErrorPrefix) + error->message);
    if (done) done(!error);
  };
  item = withRecordId(std::move(item), lastRecordId_->fetch_add(1) + 1);
  if (!store_) {
    report(StoreError{"no record store is configured"});
    return;
  }
  store_->save(table, std::move(item), std::move(report));
}

}  // namespace omra

// One kind of back-end answer as the kit reads it (OMRA_FUZZ_ANSWER picks the kind), through the
// same objects a session uses, answered by a scripted client that reads bodies as libcurl's does.
// Whatever the bytes, no exception escapes and no asset position the host would see is absurd.
#include <cstddef>
#include <cstdint>
#include <string>

#include "omrakit/map_asset.h"
#include "src/mapping/persistence.h"
#include "src/mapping/transform_answer.h"
#include "tests/mapping/mapping_testutil.h"

namespace {

using omra::Json;
using omra::MappingHarness;
using omra::SessionMode;

enum Kind { kOpening = 1, kNearby = 2, kAssets = 3, kTransform = 4 };

// A localization session that opened, whose stored assets the input may replace.
struct Fixture {
  MappingHarness h{SessionMode::localization};
  std::shared_ptr<omra::Persistence> persistence;
  Fixture() {
    h.findAssetsReply = Json::parse(
        R"({"placements":[{"placement":{"x":1,"y":0.5,"z":-2,"ori":0.25},"asset":{"id":"lamp"}}]})");
    if (h.open(Json::parse(R"({"session_uuid":"LOC-1","map_uuid":"MAP-1"})")) !=
        omra::MapStatus::initialized) {
      __builtin_trap();
    }
    h.setReadyNow();
    persistence =
        omra::Persistence::create(h.state, nullptr, {h.store, h.logger, h.dispatcher.get(), {}});
  }
  // Runs what the answers queued on the main queue.
  void drain() {
    while (h.mainQueue->runPending() > 0) {
    }
  }
};

void checkPlausible(const std::vector<omra::MapAsset>& assets) {
  for (const omra::MapAsset& a : assets) {
    if (!omra::isPlausiblePosition(a.position)) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fixture* f = new Fixture();
  const std::string body(reinterpret_cast<const char*>(data), size);
  f->h.logger->clear();
  f->h.http->setRawHandler(
      [&body](const omra::SeenRequest&) -> std::optional<std::string> { return body; });
  switch (OMRA_FUZZ_ANSWER) {
    case kOpening: {
      // Both opening answers, each on a fresh data manager over the same services.
      for (SessionMode mode : {SessionMode::mapping, SessionMode::localization}) {
        auto manager =
            omra::DataManager::create({f->h.cloudApi, f->h.logger, f->h.dispatcher.get(), nullptr},
                                      mode, {"com.example.host", "user-1", "map-1"});
        if (mode == SessionMode::mapping) {
          manager->setMappingMode([](omra::MapStatus) {});
        } else {
          manager->setLocalizationMode([](omra::MapStatus) {});
        }
        f->drain();
      }
      break;
    }
    case kNearby:
      f->h.cloudApi->listNearby("com.example.host", std::string("user-1"), "k", 2, 1, 0.1, 0.1,
                                [](std::vector<omra::Map>) {});
      f->drain();
      break;
    case kAssets:
      f->h.dataManager->retrieveAssets(nullptr);
      f->drain();
      checkPlausible(f->persistence->convertAssetsToLocalFrame("0.5,0,1,0.3"));
      break;
    case kTransform: {
      // The text alone, then as a best-transform answer whose transform moves the stored assets.
      checkPlausible(f->persistence->convertAssetsToLocalFrame(body));
      std::optional<Json> answer = omra::CloudAPI::replyJson({200, "", body, std::nullopt, {}});
      if (!answer) break;
      const omra::TransformAnswerOutcome outcome = omra::readBestTransformAnswer(*answer);
      if (const auto* best = std::get_if<omra::BestTransformAnswer>(&outcome)) {
        if (omra::parseTransformText(best->transform)) {
          checkPlausible(f->persistence->convertAssetsToLocalFrame(best->transform));
        }
      }
      break;
    }
  }
  f->h.http->setRawHandler(nullptr);
  return 0;
}

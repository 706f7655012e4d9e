// Records of one session as they may reach the store (any order, gaps, re-sends, broken texts),
// read as they arrive by SessionRecordLog between writes: what it holds at the end must be what a
// full read of the session gives.
#include <fuzzer/FuzzedDataProvider.h>

#include <set>
#include <string>

#include "server/server_tables.h"
#include "server/session_record_log.h"
#include "src/cloud/camera_path_model.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"
#include "src/platform/store/memory_record_store.h"

namespace {

using namespace omra;
using namespace omra::server;

// Mostly a number; sometimes whatever the input holds.
std::string numberText(FuzzedDataProvider& in) {
  if (in.ConsumeIntegralInRange(0, 15) == 0) return in.ConsumeRandomLengthString(12);
  return std::to_string(in.ConsumeIntegralInRange(-40, 40) / 8.0);
}

std::pair<const char*, Item> record(FuzzedDataProvider& in) {
  const std::string s = "s";
  const int64_t frame = in.ConsumeIntegralInRange<int64_t>(-3, 60);
  auto coordinate = [&] { return in.ConsumeIntegralInRange(-40, 40) / 8.0f; };
  switch (in.ConsumeIntegralInRange(0, 4)) {
    case 0: {
      const float x = coordinate(), y = coordinate(), z = coordinate();
      const int64_t object = in.ConsumeIntegralInRange<int64_t>(0, 6);
      return {SceneUnderstandingModel::kTableName,
              SceneUnderstandingModel(s, frame, x, y, z, in.ConsumeBool() ? "cup" : "vase", 0.9f,
                                      object, false)
                  .toItem()};
    }
    case 1: {
      std::string transform;
      for (int i = 0; i < 16; ++i) transform += (i ? "," : "") + numberText(in);
      const std::string plane = "p" + std::to_string(in.ConsumeIntegralInRange(0, 3));
      const bool removed = in.ConsumeIntegralInRange(0, 5) == 0;
      return {DetectedPlaneModel::kTableName,
              DetectedPlaneModel(s, frame, plane, in.ConsumeBool() ? "vertical" : "horizontal", "",
                                 false, transform, removed)
                  .toItem()};
    }
    case 2: {
      PointCloudModel::IdToFeature features;
      PointCloudModel::FramesToFeatureIds frames;
      const int n = in.ConsumeIntegralInRange(0, 3);
      for (int i = 0; i < n; ++i) {
        const auto id = in.ConsumeIntegralInRange<uint64_t>(1, 5);
        features[id] = {coordinate(), coordinate(), coordinate()};
        frames[static_cast<uint64_t>(frame < 0 ? 0 : frame)].push_back(id);
      }
      return {PointCloudModel::kTableName, PointCloudModel(s, frame, frames, features).toItem()};
    }
    case 3: {
      std::map<std::string, std::string> poses;
      const int n = in.ConsumeIntegralInRange(0, 3);
      for (int i = 0; i < n; ++i) {
        std::string pose;
        for (int k = 0; k < 16; ++k) pose += numberText(in) + ",";
        poses[std::to_string(frame + i)] = pose;
      }
      return {CameraPathModel::kTableName, CameraPathModel(s, frame, poses).toItem()};
    }
    default: {
      std::vector<double> v(static_cast<size_t>(in.ConsumeIntegralInRange(0, 4)));
      for (double& x : v) x = coordinate();
      return {ImageFeaturesModel::kTableName, ImageFeaturesModel(s, frame, v).toItem()};
    }
  }
}

void same(bool ok) {
  if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  MemoryRecordStore store;
  if (createAllTables(store)) return 0;
  SessionRecordLog log("s");
  std::set<int64_t> used;
  while (in.remaining_bytes() > 0) {
    if (in.ConsumeIntegralInRange(0, 3) == 0) {
      std::optional<StoreError> e;
      log.update(store, &e);
      same(!e);
      continue;
    }
    auto [table, item] = record(in);
    const auto id = in.ConsumeIntegralInRange<int64_t>(1, 40);
    // An identifier is used once in a session, as the kit numbers records (a record re-sent
    // unchanged changes nothing, so it is left out here).
    if (!used.insert(id).second) continue;
    store.put(table, withRecordId(std::move(item), id));
  }
  std::optional<StoreError> e1, e2;
  log.update(store, &e1);
  const SessionScene got = log.scene(true);
  const SessionScene want = readSessionScene(store, "s", true, &e2);
  same(!e1 && !e2);
  same(got.stats.records == want.stats.records && got.stats.text() == want.stats.text());
  same(got.evidence.points == want.evidence.points);
  same(got.evidence.landmarks.size() == want.evidence.landmarks.size());
  for (size_t i = 0; i < got.evidence.landmarks.size(); ++i) {
    same(got.evidence.landmarks[i].objectId == want.evidence.landmarks[i].objectId &&
         got.evidence.landmarks[i].label == want.evidence.landmarks[i].label &&
         got.evidence.landmarks[i].position == want.evidence.landmarks[i].position);
  }
  same(got.evidence.planes.size() == want.evidence.planes.size());
  for (size_t i = 0; i < got.evidence.planes.size(); ++i) {
    same(got.evidence.planes[i].planeId == want.evidence.planes[i].planeId &&
         got.evidence.planes[i].origin == want.evidence.planes[i].origin &&
         got.evidence.planes[i].normal == want.evidence.planes[i].normal);
  }
  same(got.frames.size() == want.frames.size());
  for (size_t i = 0; i < got.frames.size(); ++i) {
    same(got.frames[i].frameId == want.frames[i].frameId &&
         got.frames[i].cameraPose == want.frames[i].cameraPose &&
         got.frames[i].features == want.frames[i].features);
  }
  return 0;
}

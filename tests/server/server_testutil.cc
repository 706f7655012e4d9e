#include "tests/server/server_testutil.h"

#include <cmath>
#include <map>

#include "src/cloud/camera_path_model.h"
#include "src/cloud/camera_path_model_queue.h"
#include "src/cloud/detected_plane_model.h"
#include "src/cloud/image_features_model.h"
#include "src/cloud/point_cloud_model.h"
#include "src/cloud/record_item.h"
#include "src/cloud/scene_understanding_model.h"

namespace omra::server::testing {

std::vector<Landmark> makeRoom(int n, int labelCount, uint64_t seed) {
  static const char* kLabels[] = {"chair", "table", "tv",   "couch", "bottle", "cup",
                                  "book",  "clock", "vase", "plant", "laptop", "bed"};
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> xz(-3, 3), y(0, 2);
  std::vector<Landmark> out;
  for (int i = 0; i < n; ++i) {
    const int label = static_cast<int>(rng() % static_cast<uint64_t>(labelCount));
    std::string name = kLabels[label % 12];
    if (label >= 12) name += std::to_string(label / 12);
    out.push_back({i + 1, name, {xz(rng), y(rng), xz(rng)}});
  }
  return out;
}

std::vector<Landmark> seenFrom(const std::vector<Landmark>& map, const Pose4& pose, double noise,
                               uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> n(0, noise > 0 ? noise : 1);
  std::vector<Landmark> out;
  for (const Landmark& l : map) {
    Vec3 p = pose.apply(l.position);
    if (noise > 0) {
      for (double& c : p) c += n(rng);
    }
    out.push_back({l.objectId + 1000, l.label, p});
  }
  return out;
}

Mat4 cameraPose(const Vec3& p, double yaw, double pitch) {
  const double cy = std::cos(yaw), sy = std::sin(yaw), cp = std::cos(pitch), sp = std::sin(pitch);
  // R = Ry(yaw) * Rx(pitch)
  return {cy, sy * sp, sy * cp, p[0], 0, cp, -sp, p[1], -sy, cy * sp, cy * cp, p[2], 0, 0, 0, 1};
}

Mat4 toMat4(const Pose4& pose) { return cameraPose({pose.tx, pose.ty, pose.tz}, pose.theta, 0); }

std::vector<PosedFeatures> makeFrames(int n, int dim, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> u(-1, 1), xz(-3, 3), yaw(-3.1, 3.1), pitch(-0.4, 0.4);
  std::vector<PosedFeatures> out;
  for (int i = 0; i < n; ++i) {
    PosedFeatures f;
    f.frameId = i * 3;
    f.cameraPose = cameraPose({xz(rng), 1.4 + 0.1 * u(rng), xz(rng)}, yaw(rng), pitch(rng));
    for (int k = 0; k < dim; ++k) f.features.push_back(static_cast<float>(u(rng)));
    out.push_back(std::move(f));
  }
  return out;
}

std::vector<PosedFeatures> reseen(const std::vector<PosedFeatures>& map, const Pose4& pose,
                                  double featureNoise, double wrongShare, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> n(0, featureNoise > 0 ? featureNoise : 1);
  std::uniform_real_distribution<double> u(-1, 1);
  const int every = wrongShare > 0 ? static_cast<int>(std::lround(1 / wrongShare)) : 0;
  const Mat4 t = toMat4(pose);
  std::vector<PosedFeatures> out;
  for (size_t i = 0; i < map.size(); ++i) {
    PosedFeatures f = map[i];
    f.frameId = static_cast<int64_t>(i);
    f.cameraPose = multiply(t, map[i].cameraPose);
    const bool wrong = every > 0 && i % static_cast<size_t>(every) == 0;
    for (float& x : f.features) {
      if (wrong) {
        x = static_cast<float>(u(rng));
      } else if (featureNoise > 0) {
        x += static_cast<float>(n(rng));
      }
    }
    out.push_back(std::move(f));
  }
  return out;
}

std::vector<PlaneObservation> roomShell(double width, double depth, const Pose4& pose) {
  const double w = width / 2, d = depth / 2;
  std::vector<PlaneObservation> out = {{"wall-east", true, {w, 1.2, 0.3}, {-1, 0, 0}},
                                       {"wall-west", true, {-w, 1.2, -0.4}, {1, 0, 0}},
                                       {"wall-north", true, {0.5, 1.2, d}, {0, 0, -1}},
                                       {"wall-south", true, {-0.2, 1.2, -d}, {0, 0, 1}},
                                       {"floor", false, {0.1, 0, 0.2}, {0, 1, 0}}};
  for (PlaneObservation& p : out) {
    p.origin = pose.apply(p.origin);
    p.normal = Pose4{0, 0, 0, pose.theta}.apply(p.normal);
    p.axis = Pose4{0, 0, 0, pose.theta}.apply(p.axis);
  }
  return out;
}

std::vector<Vec3> roomPoints(double width, double depth, const std::vector<Landmark>& landmarks,
                             const Pose4& pose, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> u(0, 1), small(-0.15, 0.15);
  std::vector<Vec3> out;
  const double w = width / 2, d = depth / 2;
  for (int i = 0; i < 300; ++i) {
    const double a = u(rng), b = u(rng), h = 2.5 * u(rng);
    switch (i % 5) {
      case 0:
        out.push_back({-w + width * a, 0, -d + depth * b});
        break;
      case 1:
        out.push_back({w, h, -d + depth * a});
        break;
      case 2:
        out.push_back({-w, h, -d + depth * a});
        break;
      case 3:
        out.push_back({-w + width * a, h, d});
        break;
      default:
        out.push_back({-w + width * a, h, -d});
        break;
    }
  }
  for (const Landmark& l : landmarks) {
    for (int k = 0; k < 6; ++k) {
      out.push_back(
          {l.position[0] + small(rng), l.position[1] + small(rng), l.position[2] + small(rng)});
    }
  }
  for (Vec3& p : out) p = pose.apply(p);
  return out;
}

SceneEvidence carried(const SceneEvidence& scene, const Pose4& pose, double noise, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> n(0, noise > 0 ? noise : 1);
  auto jitter = [&](Vec3 p) {
    if (noise > 0) {
      for (double& c : p) c += n(rng);
    }
    return p;
  };
  SceneEvidence out;
  out.landmarks = seenFrom(scene.landmarks, pose, noise, seed + 1);
  for (PlaneObservation p : scene.planes) {
    p.origin = jitter(pose.apply(p.origin));
    p.normal = Pose4{0, 0, 0, pose.theta}.apply(p.normal);
    p.axis = Pose4{0, 0, 0, pose.theta}.apply(p.axis);
    if (p.outline) p.outline->centre = pose.apply(p.outline->centre);
    out.planes.push_back(p);
  }
  for (const Vec3& p : scene.points) out.points.push_back(jitter(pose.apply(p)));
  return out;
}

std::vector<PlaneObservation> withPlaneErrors(std::vector<PlaneObservation> planes, double slide,
                                              double offsetSigma, double headingSigma,
                                              uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::normal_distribution<double> n(0, 1);
  for (PlaneObservation& p : planes) {
    const double along = (rng() % 2 ? slide : -slide);
    const double offset = offsetSigma * n(rng);
    if (p.vertical) {
      // Along the wall (horizontally), then off it; the normal turned about the anchor.
      p.origin[0] += along * p.normal[2] + offset * p.normal[0];
      p.origin[2] += -along * p.normal[0] + offset * p.normal[2];
      const Pose4 turn{0, 0, 0, headingSigma * n(rng)};
      p.normal = turn.apply(p.normal);
      p.axis = turn.apply(p.axis);
    } else {
      p.origin[0] += along;
      p.origin[1] += offset;
      // A horizontal anchor that tells its edges turns them by an error of its own.
      if (p.axis != Vec3{0, 0, 0}) p.axis = Pose4{0, 0, 0, headingSigma * n(rng)}.apply(p.axis);
    }
  }
  return planes;
}

void writeScene(RecordStore& store, const std::string& sessionId, const SceneRecords& scene,
                int64_t* lastRecordId) {
  int64_t ownRecordId = 0;
  int64_t& recordId = lastRecordId ? *lastRecordId : ownRecordId;
  auto put = [&](const char* table, const Item& item) {
    store.put(table, withRecordId(item, ++recordId));
  };
  int64_t frame = 0;
  for (int k = 0; k < 3; ++k) {
    for (const Landmark& l : scene.evidence.landmarks) {
      put(SceneUnderstandingModel::kTableName,
          SceneUnderstandingModel(sessionId, ++frame, static_cast<float>(l.position[0]),
                                  static_cast<float>(l.position[1]),
                                  static_cast<float>(l.position[2]), l.label, 0.9f, l.objectId,
                                  false)
              .toItem());
    }
  }
  std::map<int64_t, std::map<std::string, std::string>> blocks;
  for (const PosedFeatures& f : scene.frames) {
    Matrix4x4 m;
    const Mat4& p = f.cameraPose;
    for (size_t c = 0; c < 4; ++c) {
      m.columns[c] = {static_cast<float>(p[c]), static_cast<float>(p[4 + c]),
                      static_cast<float>(p[8 + c]), static_cast<float>(p[12 + c])};
    }
    blocks[f.frameId / 20 * 20][std::to_string(f.frameId)] = CameraPathModelQueue::poseText(m);
    std::vector<double> v(f.features.begin(), f.features.end());
    put(ImageFeaturesModel::kTableName, ImageFeaturesModel(sessionId, f.frameId, v).toItem());
  }
  for (auto& [start, poses] : blocks) {
    put(CameraPathModel::kTableName, CameraPathModel(sessionId, start, poses).toItem());
  }
  for (const PlaneObservation& p : scene.evidence.planes) {
    // Column by column: x axis, the normal as y axis, z axis, origin.
    const Vec3& n = p.normal;
    const Vec3 x = p.vertical ? Vec3{0, 1, 0} : Vec3{1, 0, 0};
    const Vec3 z{x[1] * n[2] - x[2] * n[1], x[2] * n[0] - x[0] * n[2], x[0] * n[1] - x[1] * n[0]};
    std::string text;
    for (const Vec3* c : {&x, &n, &z, &p.origin}) {
      for (double v : *c) text += std::to_string(v) + ",";
      text += c == &p.origin ? "1" : "0,";
    }
    put(DetectedPlaneModel::kTableName,
        DetectedPlaneModel(sessionId, ++frame, p.planeId, p.vertical ? "vertical" : "horizontal",
                           "", false, text, false)
            .toItem());
  }
  if (!scene.evidence.points.empty()) {
    PointCloudModel::IdToFeature features;
    PointCloudModel::FramesToFeatureIds frames;
    for (size_t i = 0; i < scene.evidence.points.size(); ++i) {
      const Vec3& p = scene.evidence.points[i];
      features[i + 1] = {static_cast<float>(p[0]), static_cast<float>(p[1]),
                         static_cast<float>(p[2])};
      frames[0].push_back(i + 1);
    }
    put(PointCloudModel::kTableName, PointCloudModel(sessionId, 0, frames, features).toItem());
  }
}

SyntheticRoom makeSyntheticRoom(uint64_t seed, int landmarks, int frames) {
  std::mt19937_64 rng(seed);
  std::uniform_real_distribution<double> size(0, 1);
  SyntheticRoom room;
  room.width = 5 + 2.5 * size(rng);
  room.depth = 4.5 + 2 * size(rng);
  room.evidence.landmarks = makeRoom(landmarks, 12, seed * 7 + 1);
  // Objects inside the walls.
  for (Landmark& l : room.evidence.landmarks) {
    l.position[0] *= (room.width / 2 - 0.3) / 3;
    l.position[2] *= (room.depth / 2 - 0.3) / 3;
  }
  room.evidence.planes = roomShell(room.width, room.depth, {});
  room.evidence.points = roomPoints(room.width, room.depth, room.evidence.landmarks, {}, seed + 3);
  room.frames = makeFrames(frames, 64, seed * 7 + 2);
  return room;
}

}  // namespace omra::server::testing

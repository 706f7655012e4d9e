#include "sim/recording_player.h"

#include <algorithm>
#include <cmath>

#include "sim/frame_image.h"

namespace omra::sim {

FeaturePointHitTester::FeaturePointHitTester(CameraModel camera, const Matrix4x4& worldFromCamera,
                                             std::vector<Float3> points)
    : camera_(camera),
      rotation_(rotationOf(worldFromCamera)),
      position_(Vec3::from(worldFromCamera.translation())),
      points_(std::move(points)) {}

std::vector<HitTestResult> FeaturePointHitTester::hitTest(Float2 imagePoint,
                                                          HitTestType type) const {
  std::vector<HitTestResult> out;
  if (type != HitTestType::kFeaturePoint) return out;
  Vec3 dir = rotation_ * camera_.rayThroughImagePoint(imagePoint.x, imagePoint.y);
  const double cone = std::tan(kConeDegrees * M_PI / 180.0);
  for (const Float3& f : points_) {
    Vec3 v = Vec3::from(f) - position_;
    double along = v.dot(dir);
    if (along <= 0) continue;
    double off = (v - dir * along).norm();
    if (off > std::max(kMinRadius, along * cone)) continue;
    HitTestResult r;
    r.worldTransform.columns[3] = {f.x, f.y, f.z, 1.f};
    r.distance = static_cast<float>(along);
    out.push_back(r);
  }
  std::sort(out.begin(), out.end(),
            [](const HitTestResult& a, const HitTestResult& b) { return a.distance < b.distance; });
  return out;
}

RecordingPlayer::RecordingPlayer(std::shared_ptr<const Recording> recording)
    : recording_(std::move(recording)) {}

CameraModel RecordingPlayer::camera() const {
  CameraModel c;
  c.imageWidth = recording_->header.imageWidth;
  c.imageHeight = recording_->header.imageHeight;
  c.horizontalFovDegrees = recording_->header.horizontalFovDegrees;
  return c;
}

ArFrame RecordingPlayer::arFrame(const RecordedFrame& frame, bool renderImage) const {
  ArFrame out;
  out.timestamp = frame.timestamp;
  out.camera.transform = frame.worldFromCamera;
  out.camera.eulerAngles = frame.eulerAngles;
  ArPointCloud cloud;
  for (uint64_t id : frame.pointIds) {
    auto it = recording_->points.find(id);
    if (it == recording_->points.end()) continue;
    cloud.points.push_back(it->second);
    cloud.identifiers.push_back(id);
  }
  CameraModel cam = camera();
  auto tester =
      std::make_shared<const FeaturePointHitTester>(cam, frame.worldFromCamera, cloud.points);
  out.hitTest = [tester](Float2 p, HitTestType t) { return tester->hitTest(p, t); };
  out.rawFeaturePoints = std::move(cloud);

  const Room* room = nullptr;
  CameraPose pose;
  if (renderImage && recording_->truth) {
    // Back into the room's frame, where the truth's room lives.
    YawTransform roomFromSession = recording_->truth->sessionFromRoom.inverse();
    pose.rotation = Mat3::rotY(roomFromSession.theta) * rotationOf(frame.worldFromCamera);
    pose.position = roomFromSession.apply(Vec3::from(frame.worldFromCamera.translation()));
    room = &recording_->truth->room;
  }
  out.capturedImage = renderFrameImage(room, cam, pose, frame.index);
  return out;
}

}  // namespace omra::sim

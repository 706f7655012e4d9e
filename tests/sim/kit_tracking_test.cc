// The simulator against the kit's own scene understanding: its tensors decoded and suppressed, its
// boxes lifted into 3D through its hit tests, land on the objects that are really there.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "sim/recording_player.h"
#include "sim/sim_detector.h"
#include "src/platform/fixed_device_info.h"
#include "src/scene/object_3d_tracker.h"
#include "src/scene/ssd_post_processor.h"
#include "tests/sim/sim_testutil.h"

namespace omra::sim {
namespace {

TEST(KitTracking, DetectedObjectsLandOnTheRoomsObjects) {
  ScenarioOptions options = testing::shortScenarioOptions(31);
  options.mappingSeconds = 6;
  const Room room = makeScenarioRoom(options);
  auto rec = std::make_shared<const Recording>(
      simulateSession(room, options.seed, mappingSessionOptions(options)));
  RecordingPlayer player(rec);
  SimDetectorModel model(rec);
  SSDPostProcessor post(1917, 90, 0.01);
  // A phone screen in landscape, on a host that declares both landscape orientations: the kit's
  // screen conversions and their inverse must agree.
  FixedDeviceInfo::Values landscape;
  landscape.supportedInterfaceOrientations = {"UIInterfaceOrientationLandscapeLeft",
                                              "UIInterfaceOrientationLandscapeRight"};
  Object3DTracker tracker(390, 844, std::make_shared<FixedDeviceInfo>(landscape));
  const YawTransform roomFromSession = rec->truth->sessionFromRoom.inverse();

  std::map<int, std::vector<double>> errorsByObject;
  std::vector<double> allErrors, verticalErrors;
  size_t reported = 0, wrong = 0;
  for (const RecordingEvent& e : rec->events) {
    const auto* f = std::get_if<RecordedFrame>(&e);
    if (!f || f->index % 3 != 0) continue;
    ArFrame frame = player.arFrame(*f, false);
    DetectorResult r =
        model.run(frame.capturedImage, ImageOrientation::kUp, CropAndScale::kCenterCrop);
    ASSERT_TRUE(r.ok()) << r.error;
    auto predictions =
        post.nonMaximumSupression(post.pruneLowScoring(r.outputs[2].tensor, r.outputs[1].tensor));
    for (const DetectedObject& d :
         tracker.convert2DBBoxTo3D(predictions, *post.classNames, frame)) {
      if (d.confidence() < 0.5f) continue;
      ++reported;
      Vec3 c = roomFromSession.apply(Vec3::from(d.center()));
      // The nearest object of that class in the room.
      double best = 1e9;
      int bestId = 0;
      for (const SimObject& o : room.objects) {
        if (o.className != d.name()) continue;
        double dist = (o.center - c).norm();
        if (dist < best) best = dist, bestId = o.id;
      }
      if (best > 0.5) {
        ++wrong;
        continue;
      }
      errorsByObject[bestId].push_back(best);
      allErrors.push_back(best);
      verticalErrors.push_back(
          std::fabs(c.y - room.objects[static_cast<size_t>(bestId - 1)].center.y));
    }
  }
  ASSERT_GT(reported, 50u);
  EXPECT_LT(static_cast<double>(wrong), 0.05 * static_cast<double>(reported));
  EXPECT_GE(errorsByObject.size(), 3u);
  auto median = [](std::vector<double> v) {
    std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
    return v[v.size() / 2];
  };
  // Hit tests reach only the visible faces and some background inside each box, so centres sit
  // off the true ones by a fraction of the object's size; a misaligned image, crop or orientation
  // would put them metres away and at the wrong height.
  EXPECT_LT(median(allErrors), 0.25);
  EXPECT_LT(median(verticalErrors), 0.08);
  for (const auto& [id, errors] : errorsByObject) {
    EXPECT_LT(median(errors), 0.5) << room.objects[static_cast<size_t>(id - 1)].className;
  }
}

}  // namespace
}  // namespace omra::sim

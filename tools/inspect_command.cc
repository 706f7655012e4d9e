#include <cstdio>
#include <map>
#include <set>

#include "sim/recording_io.h"
#include "tools/commands.h"

namespace omra::tools {

int runInspect(const std::string& path) {
  sim::RecordingReadResult r = sim::readRecordingFile(path);
  if (!r.recording) {
    std::fprintf(stderr, "omra inspect: %s: %s\n", path.c_str(), r.error.c_str());
    return 1;
  }
  const sim::Recording& rec = *r.recording;
  size_t frames = 0, boxes = 0, points = 0;
  std::map<sim::PlaneEventKind, size_t> planes;
  std::set<int> classes;
  double first = 0, last = 0;
  for (const sim::RecordingEvent& e : rec.events) {
    if (const auto* f = std::get_if<sim::RecordedFrame>(&e)) {
      if (frames++ == 0) first = f->timestamp;
      last = f->timestamp;
      boxes += f->detections.size();
      points += f->pointIds.size();
      for (const sim::Detection& d : f->detections) classes.insert(d.classIndex);
    } else {
      ++planes[std::get<sim::PlaneEvent>(e).kind];
    }
  }
  std::printf("%s: %s session, %zu frames over %.1f s at %.0f frames/s, image %dx%d\n",
              path.c_str(), rec.header.role.c_str(), frames, last - first, rec.header.fps,
              rec.header.imageWidth, rec.header.imageHeight);
  std::printf("feature points: %zu distinct, %.0f per frame\n", rec.points.size(),
              frames ? static_cast<double>(points) / static_cast<double>(frames) : 0.0);
  std::printf("plane anchors: %zu added, %zu updated, %zu removed\n",
              planes[sim::PlaneEventKind::kAdded], planes[sim::PlaneEventKind::kUpdated],
              planes[sim::PlaneEventKind::kRemoved]);
  std::printf("detections: %zu boxes of %zu classes\n", boxes, classes.size());
  if (rec.truth) {
    std::printf("truth: scene seed %llu, %zu objects, session_from_room %s\n",
                static_cast<unsigned long long>(rec.header.sceneSeed),
                rec.truth->room.objects.size(), rec.truth->sessionFromRoom.toText().c_str());
  }
  return 0;
}

}  // namespace omra::tools

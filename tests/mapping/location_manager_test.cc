#include "src/mapping/location_manager.h"

#include <gtest/gtest.h>

#include <vector>

#include "src/platform/fixed_location_source.h"

namespace omra {
namespace {

// Records what the manager passes on.
class RecordingDelegate : public LocationManagerDelegate {
 public:
  void locationManagerDidUpdateLocation(LocationManager&, const Location& location) override {
    locations.push_back(location);
  }
  void locationManagerDidUpdateHeading(LocationManager&, double heading, double accuracy) override {
    headings.emplace_back(heading, accuracy);
  }
  std::vector<Location> locations;
  std::vector<std::pair<double, double>> headings;
};

// A source that delivers what the test tells it to (later, as a platform does), and counts its
// starts and stops.
class ScriptedSource : public LocationSource {
 public:
  void start(Listener onLocation, HeadingListener onHeading) override {
    ++starts;
    *stopped = false;
    location = std::move(onLocation);
    heading = std::move(onHeading);
  }
  void stop() override {
    ++stops;
    *stopped = true;
  }
  std::optional<Location> lastLocation() const override { return last; }
  bool authorized() const override { return true; }
  Listener location;
  HeadingListener heading;
  std::shared_ptr<bool> stopped = std::make_shared<bool>(false);
  int starts = 0;
  int stops = 0;
  std::optional<Location> last;
};

Location at(double lon, double lat) { return Location{lon, lat, 12, 5, 3}; }

TEST(LocationManager, LocationsReachTheDelegateWhileItLivesAndTheLastIsKept) {
  auto manager = LocationManager::create(nullptr);
  EXPECT_FALSE(manager->currentLocation());
  EXPECT_FALSE(manager->currentHeading());
  LocationInfo info = manager->locationInfo(7);
  EXPECT_EQ(info.cameraFrameId, 7u);
  EXPECT_FALSE(info.longitude);
  EXPECT_FALSE(info.heading);

  auto delegate = std::make_shared<RecordingDelegate>();
  manager->setDelegate(delegate);
  manager->didUpdateLocations({at(1, 2), at(3, 4), at(5, 6)});
  ASSERT_EQ(delegate->locations.size(), 3u);
  EXPECT_EQ(delegate->locations[1].longitude, 3);
  EXPECT_EQ(manager->currentLocation().value().longitude, 5);
  EXPECT_EQ(manager->currentLocation().value().latitude, 6);

  delegate.reset();  // held weakly: a dropped delegate is not touched
  manager->didUpdateLocations({at(7, 8)});
  EXPECT_EQ(manager->currentLocation().value().longitude, 7);
  EXPECT_TRUE(manager->shouldDisplayHeadingCalibration());
}

TEST(LocationManager, HeadingChoosesTrueOrMagneticByAccuracy) {
  struct Case {
    HeadingReading reading;
    double heading;
    double accuracy;
  };
  const Case cases[] = {
      {{90, 80, 5}, 90, 5},    // valid true heading
      {{90, 80, 0}, 90, 0},    // accuracy 0 is still valid
      {{90, 80, -1}, 80, -1},  // invalid: magnetic, and the negative accuracy is kept
  };
  for (const Case& c : cases) {
    auto manager = LocationManager::create(nullptr);
    auto delegate = std::make_shared<RecordingDelegate>();
    manager->setDelegate(delegate);
    manager->didUpdateHeading(c.reading);
    EXPECT_EQ(*manager->currentHeading(), c.heading);
    EXPECT_EQ(*manager->currentHeadingAccuracy(), c.accuracy);
    ASSERT_EQ(delegate->headings.size(), 1u);
    EXPECT_EQ(delegate->headings[0].first, c.heading);
  }
}

TEST(LocationManager, SourceUpdatesFlowInAndSourceStopsWithTheManager) {
  auto source = std::make_shared<ScriptedSource>();
  std::shared_ptr<bool> stopped = source->stopped;
  auto manager = LocationManager::create(source);
  ASSERT_TRUE(source->location);
  source->location(at(10, 20));
  source->heading(271.5);
  EXPECT_EQ(manager->currentLocation().value().latitude, 20);
  EXPECT_EQ(*manager->currentHeading(), 271.5);
  LocationInfo info = manager->locationInfo(3);
  EXPECT_EQ(*info.altitude, 12);
  EXPECT_EQ(*info.heading, 271.5);
  LocationSource::Listener late = source->location;
  manager.reset();
  EXPECT_TRUE(*stopped);
  late(at(0, 0));  // a late delivery after the manager is gone is harmless
}

TEST(LocationManager, SharedSourceStartsOnceAndStopsWithItsLastUser) {
  auto source = std::make_shared<ScriptedSource>();
  auto first = LocationManager::create(source);
  auto second = LocationManager::create(source);
  EXPECT_EQ(source->starts, 1);
  source->location(at(1, 2));
  EXPECT_EQ(first->currentLocation().value().longitude, 1);
  EXPECT_EQ(second->currentLocation().value().longitude, 1);

  first.reset();  // one session ends; the other still listens
  EXPECT_EQ(source->stops, 0);
  source->location(at(3, 4));
  EXPECT_EQ(second->currentLocation().value().longitude, 3);
  second.reset();
  EXPECT_EQ(source->stops, 1);

  // Used again after that: started again.
  auto third = LocationManager::create(source);
  EXPECT_EQ(source->starts, 2);
  third.reset();
  EXPECT_EQ(source->stops, 2);
}

// A session opens before an asynchronous source has delivered: it reads the best fix known.
TEST(LocationManager, OpeningReadsTheLatestKnownFix) {
  struct Case {
    const char* name;
    std::optional<Location> lastKnown;   // the source's own last-known fix
    std::optional<Location> earlierFix;  // delivered to an earlier session still running
    std::optional<double> expectedLongitude;
  };
  const Case cases[] = {
      {"nothing known", std::nullopt, std::nullopt, std::nullopt},
      {"source's last known fix", at(5, 6), std::nullopt, 5},
      {"another session's newer fix wins", at(5, 6), at(7, 8), 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto source = std::make_shared<ScriptedSource>();
    source->last = c.lastKnown;
    auto earlier = LocationManager::create(source);
    if (c.earlierFix) source->location(*c.earlierFix);
    auto opening = LocationManager::create(source);
    std::optional<Location> now = opening->currentLocation();
    ASSERT_EQ(now.has_value(), c.expectedLongitude.has_value());
    if (now) {
      EXPECT_EQ(now->longitude, *c.expectedLongitude);
    }
    EXPECT_EQ(opening->locationInfo(1).longitude, c.expectedLongitude);
    // Its own delivery, once it comes, wins.
    source->location(at(9, 10));
    EXPECT_EQ(opening->currentLocation().value().longitude, 9);
  }
}

// A source that delivers from inside start() (the fixed one) reaches every user of it.
TEST(LocationManager, SynchronousSourceReachesEveryUser) {
  auto source = std::make_shared<FixedLocationSource>(at(11, 12));
  auto first = LocationManager::create(source);
  auto second = LocationManager::create(source);
  EXPECT_EQ(first->currentLocation().value().latitude, 12);
  EXPECT_EQ(second->currentLocation().value().latitude, 12);
}

}  // namespace
}  // namespace omra

// Device location and heading for the data manager, over the platform's LocationSource.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "omrakit/platform/location_source.h"
#include "src/mapping/location_feed.h"

namespace omra {

class LocationManager;

// Receives every update a LocationManager gets. Called on the location source's thread.
class LocationManagerDelegate {
 public:
  virtual ~LocationManagerDelegate() = default;
  virtual void locationManagerDidUpdateLocation(LocationManager& manager,
                                                const Location& location) = 0;
  virtual void locationManagerDidUpdateHeading(LocationManager& manager, double heading,
                                               double headingAccuracy) = 0;
};

// One heading reading as a compass delivers it; a negative accuracy means the true heading is
// not valid.
struct HeadingReading {
  double trueHeading = 0;
  double magneticHeading = 0;
  double headingAccuracy = -1;
};

// The per-frame location record (serialised by the data collection side).
struct LocationInfo {
  uint32_t cameraFrameId = 0;
  std::optional<double> longitude;
  std::optional<double> latitude;
  std::optional<double> altitude;
  std::optional<double> horizontalAccuracy;
  std::optional<double> verticalAccuracy;
  std::optional<double> heading;
  std::optional<double> headingAccuracy;
};

// Keeps the latest location and heading. Owned by the data manager (through shared_ptr, because
// the source's listeners hold it weakly); every method is thread-safe: the source delivers on its
// own thread while the data manager reads from the reply queue.
class LocationManager : public std::enable_shared_from_this<LocationManager> {
 public:
  // Subscribes to source's feed at once (shared with other managers of the same source); a null
  // source means the device has no location.
  static std::shared_ptr<LocationManager> create(std::shared_ptr<LocationSource> source);
  ~LocationManager();
  LocationManager(const LocationManager&) = delete;
  LocationManager& operator=(const LocationManager&) = delete;

  // The delegate is held weakly, as the platform holds its delegates. Thread-safe.
  void setDelegate(std::weak_ptr<LocationManagerDelegate> delegate);

  // The newest fix this manager received, else the feed's latest (another session's, or the
  // source's last known one). Thread-safe.
  std::optional<Location> currentLocation() const;
  std::optional<double> currentHeading() const;
  std::optional<double> currentHeadingAccuracy() const;

  // Fills a LocationInfo for frame cameraFrameId from the current values. Thread-safe.
  LocationInfo locationInfo(uint32_t cameraFrameId) const;

  // The platform's delivery entries (also called directly by tests). Each location of the list
  // goes to the delegate in order; the current location becomes the latest fix, the last one.
  // Thread-safe.
  void didUpdateLocations(const std::vector<Location>& locations);
  void didUpdateHeading(const HeadingReading& heading);
  // The platform may show its heading calibration prompt.
  bool shouldDisplayHeadingCalibration() const { return true; }

 private:
  explicit LocationManager(std::shared_ptr<LocationSource> source);
  void start();

  std::shared_ptr<LocationFeed> feed_;
  uint64_t token_ = 0;  // written once by start(), before any other thread sees the manager
  mutable std::mutex mutex_;
  std::weak_ptr<LocationManagerDelegate> delegate_;
  std::optional<Location> currentLocation_;
  std::optional<double> currentHeading_;
  std::optional<double> currentHeadingAccuracy_;
};

}  // namespace omra

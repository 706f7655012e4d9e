#include "src/mapping/location_feed.h"

#include <utility>
#include <vector>

namespace omra {
namespace {

std::mutex gRegistryMutex;
std::map<const LocationSource*, std::weak_ptr<LocationFeed>>& registry() {
  static auto* feeds = new std::map<const LocationSource*, std::weak_ptr<LocationFeed>>();
  return *feeds;
}

}  // namespace

std::shared_ptr<LocationFeed> LocationFeed::forSource(
    const std::shared_ptr<LocationSource>& source) {
  if (!source) return nullptr;
  std::lock_guard<std::mutex> lock(gRegistryMutex);
  auto& feeds = registry();
  for (auto it = feeds.begin(); it != feeds.end();) {
    it = it->second.expired() ? feeds.erase(it) : std::next(it);
  }
  // A live feed holds its source, so the address cannot have been reused meanwhile.
  if (auto found = feeds.find(source.get()); found != feeds.end()) {
    if (std::shared_ptr<LocationFeed> feed = found->second.lock()) return feed;
  }
  std::shared_ptr<LocationFeed> feed(new LocationFeed(source));
  feeds[source.get()] = feed;
  return feed;
}

LocationFeed::LocationFeed(std::shared_ptr<LocationSource> source) : source_(std::move(source)) {}

LocationFeed::~LocationFeed() {
  std::lock_guard<std::mutex> lock(startStopMutex_);
  if (running_) source_->stop();
}

uint64_t LocationFeed::subscribe(LocationSource::Listener onLocation,
                                 LocationSource::HeadingListener onHeading) {
  auto subscriber =
      std::make_shared<const Subscriber>(Subscriber{std::move(onLocation), std::move(onHeading)});
  std::lock_guard<std::mutex> order(startStopMutex_);
  uint64_t token = 0;
  std::optional<Location> latest;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    token = nextToken_++;
    subscribers_.emplace(token, subscriber);
    latest = latest_;
  }
  if (!running_) {
    running_ = true;
    // The source may deliver synchronously from start(); no lock of the data is held here.
    std::weak_ptr<LocationFeed> weak = weak_from_this();
    source_->start(
        [weak](const Location& location) {
          if (auto self = weak.lock()) self->deliverLocation(location);
        },
        [weak](double heading) {
          if (auto self = weak.lock()) self->deliverHeading(heading);
        });
  } else if (latest && subscriber->onLocation) {
    subscriber->onLocation(*latest);
  }
  return token;
}

void LocationFeed::unsubscribe(uint64_t token) {
  std::lock_guard<std::mutex> order(startStopMutex_);
  bool last = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    subscribers_.erase(token);
    last = subscribers_.empty();
  }
  if (last && running_) {
    running_ = false;
    source_->stop();
  }
}

std::optional<Location> LocationFeed::latestLocation() const {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (latest_) return latest_;
  }
  return source_->lastLocation();
}

std::optional<double> LocationFeed::latestHeading() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return heading_;
}

void LocationFeed::deliverLocation(const Location& location) {
  std::vector<std::shared_ptr<const Subscriber>> targets;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    latest_ = location;
    for (const auto& [token, s] : subscribers_) targets.push_back(s);
  }
  for (const auto& s : targets) {
    if (s->onLocation) s->onLocation(location);
  }
}

void LocationFeed::deliverHeading(double heading) {
  std::vector<std::shared_ptr<const Subscriber>> targets;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    heading_ = heading;
    for (const auto& [token, s] : subscribers_) targets.push_back(s);
  }
  for (const auto& s : targets) {
    if (s->onHeading) s->onHeading(heading);
  }
}

}  // namespace omra

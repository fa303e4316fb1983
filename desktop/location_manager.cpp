#include "desktop/location_manager.h"

#include <utility>

#include "Marbleway/platform/platform.h"
#include "desktop/served.h"

namespace marbleway::desktop {

void Receiver::report(Event event) const {
  if (isGone()) return;
  platform::current()->mainLoop->post([receiver = manager_, event = std::move(event)] {
    const auto manager = receiver.lock();
    auto* const delegate = manager ? manager->delegate() : nullptr;
    if (delegate != nullptr) event(*manager, *delegate);
  });
}

void Receiver::reportCrossing(const platform::Region& region, bool isInside) const {
  report([region, isInside](auto& manager, auto& delegate) {
    isInside ? delegate.didEnterRegion(manager, region) : delegate.didExitRegion(manager, region);
  });
}

LocationManager::~LocationManager() {
  thread_.post([](Served& served) {
    if (!served.receiver.isGone()) return;
    served.places.stop();
    served.beacons.stop();
  });
}

void LocationManager::setDesiredAccuracyBest() {
  thread_.post([](Served& served) { served.places.setAccuracyBest(); });
}

void LocationManager::setDistanceFilter(double metres) {
  thread_.post([metres](Served& served) { served.places.setDistanceFilter(metres); });
}

void LocationManager::startUpdatingLocation() {
  thread_.post([](Served& served) { served.places.start(); });
}

void LocationManager::startMonitoring(const platform::CircularRegion& region) {
  thread_.post([region](Served& served) { served.places.watch(region); });
}

void LocationManager::startMonitoring(const platform::BeaconRegion& region) {
  thread_.post([region](Served& served) { served.beacons.monitor(region); });
}

/// An adapter may be plugged in at any time; without a bus there will be none.
bool LocationManager::isRangingAvailable() { return !thread_.setting().systemAddress.empty(); }

void LocationManager::startRangingBeacons(const platform::BeaconRegion& region) {
  thread_.post([region](Served& served) { served.beacons.range(region); });
}

std::shared_ptr<platform::LocationManager> LocationService::makeManager() {
  if (thread_.setting().systemAddress.empty()) return nullptr;
  auto manager = std::make_shared<LocationManager>(thread_);
  thread_.post(
      [receiver = std::weak_ptr(manager)](Served& served) { served.receiver.set(receiver); });
  return manager;
}

}  // namespace marbleway::desktop

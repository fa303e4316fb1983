#include "desktop/location_manager.h"

#include <utility>

#include "Marbleway/platform/platform.h"
#include "desktop/bus_services.h"

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
  thread_.post([](BusServices& services) {
    if (!services.receiver.isGone()) return;
    services.places.stop();
    services.beacons.stop();
  });
}

void LocationManager::setDesiredAccuracyBest() {
  thread_.post([](BusServices& services) { services.places.setAccuracyBest(); });
}

void LocationManager::setDistanceFilter(double metres) {
  thread_.post([metres](BusServices& services) { services.places.setDistanceFilter(metres); });
}

void LocationManager::startUpdatingLocation() {
  thread_.post([](BusServices& services) { services.places.start(); });
}

void LocationManager::startMonitoring(const platform::CircularRegion& region) {
  thread_.post([region](BusServices& services) { services.places.watch(region); });
}

void LocationManager::startMonitoring(const platform::BeaconRegion& region) {
  thread_.post([region](BusServices& services) { services.beacons.monitor(region); });
}

/// An adapter may be plugged in at any time; without a bus there will be none.
bool LocationManager::isRangingAvailable() { return !thread_.setting().systemAddress.empty(); }

void LocationManager::startRangingBeacons(const platform::BeaconRegion& region) {
  thread_.post([region](BusServices& services) { services.beacons.range(region); });
}

std::shared_ptr<platform::LocationManager> LocationService::makeManager() {
  if (thread_.setting().systemAddress.empty()) return nullptr;
  auto manager = std::make_shared<LocationManager>(thread_);
  thread_.post([receiver = std::weak_ptr(manager)](BusServices& services) {
    services.receiver.set(receiver);
  });
  return manager;
}

}  // namespace marbleway::desktop

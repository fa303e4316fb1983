#include "desktop/location_manager.h"

#include "desktop/bus_services.h"

namespace marbleway::desktop {

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

}  // namespace marbleway::desktop

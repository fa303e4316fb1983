#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace marbleway::platform {

/// A region that a location manager watches: a circle, or beacons of one family.
struct Region {
  std::string identifier;
};
struct CircularRegion : Region {
  double latitude = 0, longitude = 0;  // degrees
  double radius = 0;                   // metres
};
struct BeaconRegion : Region {
  std::string proximityUUID;
  std::optional<std::uint16_t> major, minor;  // absent: any
};

struct Location {
  double latitude = 0, longitude = 0;  // degrees
};
struct Beacon {
  std::string description;  // holds "major:" and what follows it
  std::uint16_t major = 0, minor = 0;
  int rssi = 0;  // dBm
};

class LocationManager;

/// Hears of what a location manager finds. Called on the main thread, as the manager finds it.
class [[gnu::visibility("default")]] LocationDelegate {
 public:
  virtual ~LocationDelegate() = default;
  virtual void didUpdateLocations(LocationManager & manager,
                                  const std::vector<Location>& locations) = 0;
  virtual void didEnterRegion(LocationManager & manager, const Region& region) = 0;
  virtual void didExitRegion(LocationManager & manager, const Region& region) = 0;
  virtual void didRangeBeacons(LocationManager & manager, const std::vector<Beacon>& beacons,
                               const BeaconRegion& region) = 0;
};

/// One location manager. The host sees to the permission; without it, nothing is delivered.
class [[gnu::visibility("default")]] LocationManager {
 public:
  virtual ~LocationManager() = default;
  virtual void setDelegate(LocationDelegate * delegate) = 0;
  virtual void setDesiredAccuracyBest() = 0;
  virtual void setDistanceFilter(double metres) = 0;
  virtual void setAllowsBackgroundLocationUpdates(bool allowed) = 0;
  virtual void setPausesLocationUpdatesAutomatically(bool pauses) = 0;
  virtual void startUpdatingLocation() = 0;
  virtual void startMonitoringSignificantLocationChanges() = 0;
  virtual void startMonitoring(const CircularRegion& region) = 0;
  virtual void startMonitoring(const BeaconRegion& region) = 0;
  virtual bool isRangingAvailable() = 0;
  virtual void startRangingBeacons(const BeaconRegion& region) = 0;
};

/// Where location managers come from.
class [[gnu::visibility("default")]] LocationService {
 public:
  virtual ~LocationService() = default;
  /// Null when there is none to be had; nothing is monitored then.
  virtual std::shared_ptr<LocationManager> makeManager() = 0;
};

}  // namespace marbleway::platform

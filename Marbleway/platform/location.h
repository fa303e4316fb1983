#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "export.h"

namespace marbleway::platform {

/// A region that a location manager watches: a circle, or beacons of one family.
struct Region {
  std::string identifier;  ///< Its name in alerts.
};
/// A circle on the map.
struct CircularRegion : Region {
  double latitude = 0;   ///< Degrees.
  double longitude = 0;  ///< Degrees.
  double radius = 0;     ///< Metres.
};
/// Beacons of one family.
struct BeaconRegion : Region {
  std::string proximityUUID;           ///< The family's UUID.
  std::optional<std::uint16_t> major;  ///< Absent: any.
  std::optional<std::uint16_t> minor;  ///< Absent: any.
};

/// Where the device is.
struct Location {
  double latitude = 0;   ///< Degrees.
  double longitude = 0;  ///< Degrees.
};

/// A beacon that was ranged.
struct Beacon {
  std::string description;  ///< Holds "major:" and what follows it.
  std::uint16_t major = 0;  ///< The group within its family.
  std::uint16_t minor = 0;  ///< The number within its group.
  int rssi = 0;             ///< Signal strength, dBm.
};

class LocationManager;

/// Hears of what a location manager finds. Called on the main thread, as the manager finds it.
class MARBLEWAY_EXPORT LocationDelegate {
 public:
  virtual ~LocationDelegate() = default;
  /// The device has moved.
  virtual void didUpdateLocations(LocationManager& manager,
                                  const std::vector<Location>& locations) = 0;
  /// The device is in `region` now.
  virtual void didEnterRegion(LocationManager& manager, const Region& region) = 0;
  /// The device is no more in `region`.
  virtual void didExitRegion(LocationManager& manager, const Region& region) = 0;
  /// These beacons of `region` are near.
  virtual void didRangeBeacons(LocationManager& manager, const std::vector<Beacon>& beacons,
                               const BeaconRegion& region) = 0;
};

/// One location manager. The host sees to the permission; without it, nothing is delivered.
class MARBLEWAY_EXPORT LocationManager {
 public:
  virtual ~LocationManager() = default;
  /// Who hears of what is found; it outlives the manager.
  virtual void setDelegate(LocationDelegate* delegate) = 0;
  /// Asks for locations as exact as can be.
  virtual void setDesiredAccuracyBest() = 0;
  /// Shorter moves are not told.
  virtual void setDistanceFilter(double metres) = 0;
  /// Whether locations are told while the application is in the background.
  virtual void setAllowsBackgroundLocationUpdates(bool allowed) = 0;
  /// Whether updates may pause where nothing moves.
  virtual void setPausesLocationUpdatesAutomatically(bool pauses) = 0;
  /// Tells every move from now on.
  virtual void startUpdatingLocation() = 0;
  /// Tells great moves, at less expense.
  virtual void startMonitoringSignificantLocationChanges() = 0;
  /// Watches over a circle.
  virtual void startMonitoring(const CircularRegion& region) = 0;
  /// Watches over a family of beacons.
  virtual void startMonitoring(const BeaconRegion& region) = 0;
  /// Whether this device can tell how near beacons are.
  virtual bool isRangingAvailable() = 0;
  /// Tells the beacons of `region` that are near, about once a second.
  virtual void startRangingBeacons(const BeaconRegion& region) = 0;
};

/// Where location managers come from.
class MARBLEWAY_EXPORT LocationService {
 public:
  virtual ~LocationService() = default;
  /// Null when there is none to be had; nothing is monitored then.
  virtual std::shared_ptr<LocationManager> makeManager() = 0;
};

}  // namespace marbleway::platform

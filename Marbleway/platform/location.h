#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "export.h"

namespace marbleway::platform {

/// A region that a location manager monitors: a circle, or beacons of one family.
struct Region {
  std::string identifier;  ///< The text of its alerts.
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

/// A position of the device.
struct Location {
  double latitude = 0;   ///< Degrees.
  double longitude = 0;  ///< Degrees.
};

/// A beacon that was ranged.
struct Beacon {
  std::string description;  ///< Contains "major:" and more; the text of its alerts.
  std::uint16_t major = 0;  ///< The group within its family.
  std::uint16_t minor = 0;  ///< The number within its group.
  int rssi = 0;             ///< Signal strength, dBm.
};

class LocationManager;

/// Receives the events of a location manager. Called on the thread on which the manager reports.
class MARBLEWAY_EXPORT LocationDelegate {
 public:
  virtual ~LocationDelegate() = default;
  /// The device has moved.
  virtual void didUpdateLocations(LocationManager& manager,
                                  const std::vector<Location>& locations) = 0;
  /// The device has entered `region`.
  virtual void didEnterRegion(LocationManager& manager, const Region& region) = 0;
  /// The device has left `region`.
  virtual void didExitRegion(LocationManager& manager, const Region& region) = 0;
  /// These beacons of `region` are in range.
  virtual void didRangeBeacons(LocationManager& manager, const std::vector<Beacon>& beacons,
                               const BeaconRegion& region) = 0;
};

/// One location manager. The host obtains the permission; without it nothing is reported.
class MARBLEWAY_EXPORT LocationManager {
 public:
  virtual ~LocationManager() = default;
  /// Sets the receiver of events, which outlives the manager.
  virtual void setDelegate(LocationDelegate* delegate) = 0;
  /// Requests the best accuracy.
  virtual void setDesiredAccuracyBest() = 0;
  /// Sets the shortest movement that is reported.
  virtual void setDistanceFilter(double metres) = 0;
  /// Sets whether locations are reported while the application is in the background.
  virtual void setAllowsBackgroundLocationUpdates(bool allowed) = 0;
  /// Sets whether updates may pause while the device does not move.
  virtual void setPausesLocationUpdatesAutomatically(bool pauses) = 0;
  /// Starts reporting every movement.
  virtual void startUpdatingLocation() = 0;
  /// Starts reporting large movements, with less power.
  virtual void startMonitoringSignificantLocationChanges() = 0;
  /// Starts monitoring a circle.
  virtual void startMonitoring(const CircularRegion& region) = 0;
  /// Starts monitoring a family of beacons.
  virtual void startMonitoring(const BeaconRegion& region) = 0;
  /// True if this device can measure the distance of beacons.
  virtual bool isRangingAvailable() = 0;
  /// Starts reporting the beacons of `region` in range, about once a second.
  virtual void startRangingBeacons(const BeaconRegion& region) = 0;
};

/// Makes location managers.
class MARBLEWAY_EXPORT LocationService {
 public:
  virtual ~LocationService() = default;
  /// Null when there is none; then nothing is monitored.
  virtual std::shared_ptr<LocationManager> makeManager() = 0;
};

}  // namespace marbleway::platform

#pragma once

#include <atomic>
#include <memory>

#include "Marbleway/platform/location.h"
#include "desktop/bus_thread.h"

namespace marbleway::desktop {

/// Passes what it is asked on to the bus thread. All managers share what is monitored there: a
/// second one starts everything again without a second event. The last one gone ends it all.
/// Thread: any.
class LocationManager final : public platform::LocationManager {
 public:
  explicit LocationManager(BusThread& thread) : thread_(thread) {}
  LocationManager(const LocationManager&) = delete;
  LocationManager& operator=(const LocationManager&) = delete;
  ~LocationManager() override;

  void setDelegate(platform::LocationDelegate* delegate) override { delegate_ = delegate; }
  platform::LocationDelegate* delegate() const { return delegate_; }
  void setDesiredAccuracyBest() override;
  void setDistanceFilter(double metres) override;
  // A desktop has no background, and the service pauses by itself.
  void setAllowsBackgroundLocationUpdates(bool /*allowed*/) override {}
  void setPausesLocationUpdatesAutomatically(bool /*pauses*/) override {}
  void startUpdatingLocation() override;
  void startMonitoringSignificantLocationChanges() override { startUpdatingLocation(); }
  void startMonitoring(const platform::CircularRegion& region) override;
  void startMonitoring(const platform::BeaconRegion& region) override;
  bool isRangingAvailable() override;
  void startRangingBeacons(const platform::BeaconRegion& region) override;

 private:
  BusThread& thread_;
  std::atomic<platform::LocationDelegate*> delegate_{nullptr};
};

/// Makes location managers.
class LocationService final : public platform::LocationService {
 public:
  explicit LocationService(BusThread& thread) : thread_(thread) {}
  std::shared_ptr<platform::LocationManager> makeManager() override;

 private:
  BusThread& thread_;
};

}  // namespace marbleway::desktop

#pragma once

#include <atomic>
#include <charconv>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "../location.h"

namespace marbleway::platform::testing {

/// Records each call as a line of text, its name and its arguments, such as
/// "setDistanceFilter 100" and "startMonitoring Door, 00000000-0000-0000-0000-000000000001, 7,
/// any". Numbers have their shortest digits, whatever the locale. Thread: any.
class RecordingManager : public LocationManager {
 public:
  /// Whether ranging is available.
  explicit RecordingManager(bool rangingAvailable) : rangingAvailable_(rangingAvailable) {}

  void setDelegate(LocationDelegate* delegate) override {
    delegate_ = delegate;
    record("setDelegate");
  }
  void setDesiredAccuracyBest() override { record("setDesiredAccuracyBest"); }
  void setDistanceFilter(double metres) override { record("setDistanceFilter", metres); }
  void setAllowsBackgroundLocationUpdates(bool allowed) override {
    record("setAllowsBackgroundLocationUpdates", allowed);
  }
  void setPausesLocationUpdatesAutomatically(bool pauses) override {
    record("setPausesLocationUpdatesAutomatically", pauses);
  }
  void startUpdatingLocation() override { record("startUpdatingLocation"); }
  void startMonitoringSignificantLocationChanges() override {
    record("startMonitoringSignificantLocationChanges");
  }
  void startMonitoring(const CircularRegion& region) override {
    record("startMonitoring", region.identifier, region.latitude, region.longitude, region.radius);
  }
  void startMonitoring(const BeaconRegion& region) override {
    record("startMonitoring", region.identifier, region.proximityUUID, region.major, region.minor);
  }
  bool isRangingAvailable() override {
    record("isRangingAvailable");
    return rangingAvailable_;
  }
  void startRangingBeacons(const BeaconRegion& region) override {
    record("startRangingBeacons", region.identifier, region.proximityUUID, region.major,
           region.minor);
  }

  /// The calls so far, oldest first.
  std::vector<std::string> calls() const {
    const std::scoped_lock lock(mutex_);
    return calls_;
  }
  /// The last one set; null before.
  LocationDelegate* delegate() const { return delegate_; }

 private:
  template <class... Given>
  void record(std::string call, const Given&... given) {
    [[maybe_unused]] const char* separator = " ";
    ((call.append(separator).append(text(given)), separator = ", "), ...);
    const std::scoped_lock lock(mutex_);
    calls_.push_back(std::move(call));
  }
  static std::string text(const std::string& given) { return given; }
  static std::string text(bool given) { return given ? "true" : "false"; }
  static std::string text(double given) {
    char digits[32];
    return {digits, std::to_chars(digits, digits + sizeof digits, given).ptr};
  }
  static std::string text(std::optional<std::uint16_t> given) {
    return given ? std::to_string(*given) : "any";
  }

  const bool rangingAvailable_;
  std::atomic<LocationDelegate*> delegate_{nullptr};
  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
};

/// Makes recording managers and stores them. Thread: any.
class RecordingLocation : public LocationService {
 public:
  std::shared_ptr<LocationManager> makeManager() override {
    const std::scoped_lock lock(mutex_);
    managers_.push_back(std::make_shared<RecordingManager>(rangingAvailable_));
    return managers_.back();
  }
  /// Sets whether ranging is available for managers made from now on; at first it is.
  void setRangingAvailable(bool available) { rangingAvailable_ = available; }
  /// The managers, oldest first.
  std::vector<std::shared_ptr<RecordingManager>> managers() const {
    const std::scoped_lock lock(mutex_);
    return managers_;
  }

 private:
  std::atomic<bool> rangingAvailable_{true};
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<RecordingManager>> managers_;
};

}  // namespace marbleway::platform::testing

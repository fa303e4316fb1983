#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/services.h"

namespace marbleway::platform {
namespace {

class SystemClock final : public Clock {
 public:
  std::chrono::system_clock::time_point now() override { return std::chrono::system_clock::now(); }
};

class NoStatusBar final : public StatusBar {
 public:
  std::shared_ptr<const View> view() override { return nullptr; }
};

class HeadlessInterface final : public UserInterface {
 public:
  void setBadgeNumber(int /*number*/) override {}
  void openURL(std::string_view /*url*/) override {}
  void showAlert(std::string_view /*title*/, std::string_view /*message*/,
                 std::string_view /*button*/) override {}
};

/// Takes every request and finds nothing.
class NoLocationManager final : public LocationManager {
 public:
  void setDelegate(LocationDelegate* /*delegate*/) override {}
  void setDesiredAccuracyBest() override {}
  void setDistanceFilter(double /*metres*/) override {}
  void setAllowsBackgroundLocationUpdates(bool /*allowed*/) override {}
  void setPausesLocationUpdatesAutomatically(bool /*pauses*/) override {}
  void startUpdatingLocation() override {}
  void startMonitoringSignificantLocationChanges() override {}
  void startMonitoring(const CircularRegion& /*region*/) override {}
  void startMonitoring(const BeaconRegion& /*region*/) override {}
  bool isRangingAvailable() override { return false; }
  void startRangingBeacons(const BeaconRegion& /*region*/) override {}
};

class NoLocation final : public LocationService {
 public:
  std::shared_ptr<LocationManager> makeManager() override {
    return std::make_shared<NoLocationManager>();
  }
};

class NoCapture final : public NetworkCapture {
 public:
  void defaultConfiguration() override {}
  void load() override {}
  void registerProtocol() override {}
  void unregisterProtocol() override {}
};

}  // namespace

std::string storedVendorIdentifier(Device& device) {
  constexpr std::string_view kKey = "Marbleway_VendorID";
  const auto defaults = current()->userDefaults;
  if (auto stored = defaults->text(kKey)) return *stored;

  const std::string created = device.newIdentifier();
  defaults->setTextIfMissing(kKey, created);
  defaults->synchronize();
  return defaults->text(kKey).value_or(created);
}

std::shared_ptr<Clock> makeSystemClock() { return std::make_shared<SystemClock>(); }

std::shared_ptr<StatusBar> makeNoStatusBar() { return std::make_shared<NoStatusBar>(); }

std::shared_ptr<UserInterface> makeHeadlessInterface() {
  return std::make_shared<HeadlessInterface>();
}

std::shared_ptr<LocationService> makeNoLocation() { return std::make_shared<NoLocation>(); }

std::shared_ptr<NetworkCapture> makeNoCapture() { return std::make_shared<NoCapture>(); }

}  // namespace marbleway::platform

#include "Marbleway/Marbleway.h"
#include "Marbleway/core/configuration.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/platform.h"

using namespace marbleway;

namespace {

using platform::Beacon;
using platform::BeaconRegion;
using platform::LocationManager;
using platform::Region;

// The distance filter, and the fourth region's radius.
constexpr double kHundredMetres = 100;
constexpr int kAlertedRSSI = -28;  // dBm; the test is equality, not a threshold

// A circle around one of the configured sites.
struct Site {
  const char* identifier;
  std::size_t centre;  // index into Configuration::sites
  double radius;       // metres
};

constexpr Site kSites[] = {
    {"Harbor Office", 0, 200},
    {"Orchard Campus", 1, 500},
    {"Granary Plaza", 1, 700},  // around the same centre on purpose
    {"Linden House", 2, kHundredMetres},
};

// A family of beacons that is ranged.
struct BeaconFamily {
  const char* identifier;
  const char* proximityUUID;
};

constexpr BeaconFamily kRanged[] = {
    {"Bench Beacon 1", "69696969-6969-6969-6969-696969696969"},
    {"Vendor Beacon", "B9407F30-F5F8-466E-AFF9-25556B57FE6D"},
};

// Forwards the callbacks to the class, which is the delegate.
class Delegate : public platform::LocationDelegate {
 public:
  void didUpdateLocations(LocationManager& manager,
                          const std::vector<platform::Location>& locations) override {
    Marbleway::didUpdateLocations(manager, locations);
  }
  void didEnterRegion(LocationManager& manager, const Region& region) override {
    Marbleway::didEnterRegion(manager, region);
  }
  void didExitRegion(LocationManager& manager, const Region& region) override {
    Marbleway::didExitRegion(manager, region);
  }
  void didRangeBeacons(LocationManager& manager, const std::vector<Beacon>& beacons,
                       const BeaconRegion& region) override {
    Marbleway::didRangeBeacons(manager, beacons, region);
  }
};

void showAlert(std::string_view title, std::string_view message) {
  platform::current()->userInterface->showAlert(title, message, "OK");
}

void startUpdates(LocationManager& manager) {
  manager.setDesiredAccuracyBest();
  manager.setDistanceFilter(kHundredMetres);
  manager.setAllowsBackgroundLocationUpdates(true);
  manager.setPausesLocationUpdatesAutomatically(false);
  manager.startUpdatingLocation();
  manager.startMonitoringSignificantLocationChanges();
}

void monitorSites(LocationManager& manager) {
  const auto centres = configuration()->sites;
  for (const Site& site : kSites) {
    const Coordinate& centre = centres.at(site.centre);
    manager.startMonitoring(platform::CircularRegion{
        {site.identifier}, centre.latitude, centre.longitude, site.radius});
  }
}

void watchBeacons(LocationManager& manager) {
  if (manager.isRangingAvailable()) {
    for (const BeaconFamily& family : kRanged) {
      manager.startRangingBeacons(
          BeaconRegion{{family.identifier}, family.proximityUUID, std::nullopt, std::nullopt});
    }
  }
  manager.startMonitoring(
      BeaconRegion{{"beacon.testregion"}, "86E4BDEA-C6FF-442C-95CB-E6E557A23CF2", 120, 1025});
}

void showRegionAlert(std::string_view title, const Region& region) {
  showAlert(title, region.identifier);
}

}  // namespace

void Marbleway::setLocationMonitoringEnabled(bool enabled) noexcept {
  if (!enabled) return;  // what was started is never stopped
  operation([] {
    static NoDestructor<Delegate> delegate;
    const auto manager = platform::current()->locationService->makeManager();
    if (!manager) return;
    mrbwLocationManager.store(manager);
    manager->setDelegate(&delegate.value);
    startUpdates(*manager);
    monitorSites(*manager);
    watchBeacons(*manager);
  });
}

void Marbleway::didUpdateLocations(LocationManager& /*manager*/,
                                   const std::vector<platform::Location>& /*locations*/) noexcept {}

void Marbleway::didEnterRegion(LocationManager& /*manager*/, const Region& region) noexcept {
  operation([&] { showRegionAlert("Entered Region", region); });
}

void Marbleway::didExitRegion(LocationManager& /*manager*/, const Region& region) noexcept {
  operation([&] { showRegionAlert("Exited Region", region); });
}

void Marbleway::didRangeBeacons(LocationManager& /*manager*/, const std::vector<Beacon>& beacons,
                                const BeaconRegion& /*region*/) noexcept {
  operation([&] {
    for (const Beacon& beacon : beacons) {
      if (beacon.rssi == kAlertedRSSI) showAlert("Entered Beacon Region", beacon.description);
    }
  });
}

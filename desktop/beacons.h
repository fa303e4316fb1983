#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "desktop/peer.h"
#include "desktop/receiver.h"

namespace marbleway::desktop {

/// Beacons that BlueZ hears: what it advertises of manufacturer data in the iBeacon layout. It
/// searches on every adapter while there is a region. Thread: the bus thread.
class Beacons {
 public:
  Beacons(Bus& system, sd_event* event, Receiver& receiver);

  /// Reports the region's beacons once a second, while there are any.
  void range(const platform::BeaconRegion& region);
  /// Reports the region as entered with its first beacon, and as left 30 s after the last.
  void monitor(const platform::BeaconRegion& region);
  void stop();

 private:
  using Time = std::chrono::steady_clock::time_point;
  /// What an advertisement says.
  struct Advertised {
    std::string proximityUUID;
    std::uint16_t major = 0, minor = 0;
  };
  struct Observation {
    std::string path;  // the device's
    Advertised beacon;
    std::optional<int> rssi;    // the last one, dBm; absent: never heard
    bool isUnreported = false;  // heard since the last report
  };
  struct Monitored {
    platform::BeaconRegion region;
    std::optional<Time> lastSeen;  // absent: outside
  };

  using Byte = std::uint8_t;
  static std::optional<Advertised> readAdvertised(sd_bus_message* message);
  static std::optional<Advertised> decode(const Byte* bytes);
  static bool isOf(const Advertised& beacon, const platform::BeaconRegion& region);
  bool isWanted(const Advertised& beacon) const;

  void search();
  void searchOn(const std::string& adapter);
  void readInterfaces(sd_bus_message* message, const std::string& path);
  void readProperties(std::string_view interface, sd_bus_message* message, const std::string& path);
  void readAdapter(sd_bus_message* message, const std::string& path);
  void readDevice(sd_bus_message* message, const std::string& path);
  void recordSignal(Observation& observation, std::optional<int> rssi);
  void markSeen(const Advertised& beacon);
  void report();
  void reportRanged(const platform::BeaconRegion& region) const;
  void leaveRegions(Time now);

  Receiver& receiver_;
  std::vector<platform::BeaconRegion> ranged_;
  std::vector<Monitored> monitored_;
  std::vector<Observation> observations_;
  std::vector<std::string> adapters_;  // that search
  bool isReportDue_ = false;           // within a second
  Timer timer_;
  Peer service_;
};

}  // namespace marbleway::desktop

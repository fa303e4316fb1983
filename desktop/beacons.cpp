#include "desktop/beacons.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "desktop/reading.h"

namespace marbleway::desktop {
namespace {

using std::chrono::steady_clock;

constexpr const char* kAdapter = "org.bluez.Adapter1";
constexpr const char* kDevice = "org.bluez.Device1";
constexpr std::chrono::milliseconds kRangingPeriod{1'000};
constexpr std::chrono::seconds kExitDelay{30};
// Devices. Anyone may advertise under any number of names.
constexpr std::size_t kMaxObservations = 256;

// The layout: company, then type and length of what follows: UUID, major, minor, power.
constexpr std::uint16_t kCompany = 0x004C;
constexpr std::size_t kLayoutSize = 23;

std::string uuidText(const std::uint8_t* bytes) {
  std::array<char, 37> text{};
  const auto at = [&](std::size_t i) {
    return static_cast<unsigned>(bytes[2 * i] << 8U | bytes[2 * i + 1]);
  };
  std::snprintf(text.data(), text.size(), "%04X%04X-%04X-%04X-%04X-%04X%04X%04X", at(0), at(1),
                at(2), at(3), at(4), at(5), at(6), at(7));
  return text.data();
}

}  // namespace

Beacons::Beacons(Bus& system, sd_event* event, Receiver& receiver)
    : receiver_(receiver),
      timer_(event, [this] { report(); }),
      service_(
          system, event, "org.bluez", Peer::Activation::none, [this] { search(); },
          [this] {
            observations_.clear();
            adapters_.clear();
          }) {}

void Beacons::range(const platform::BeaconRegion& region) {
  const auto known = std::ranges::find(ranged_, region.identifier,
                                       [](const auto& each) { return each.identifier; });
  if (known == ranged_.end()) ranged_.push_back(region);
  service_.start();
}

void Beacons::monitor(const platform::BeaconRegion& region) {
  const auto known = std::ranges::find(monitored_, region.identifier,
                                       [](const auto& each) { return each.region.identifier; });
  if (known == monitored_.end()) monitored_.push_back({region, std::nullopt});
  service_.start();
}

void Beacons::stop() {
  for (const std::string& adapter : adapters_) {
    service_.call(adapter.c_str(), kAdapter, "StopDiscovery", ignore);
  }
  adapters_.clear();
  observations_.clear();
  ranged_.clear();
  monitored_.clear();
  timer_.stop();
  isReportDue_ = false;
  service_.stop();
}

void Beacons::search() {
  service_.subscribe(
      "path='/',interface='org.freedesktop.DBus.ObjectManager',member='InterfacesAdded'",
      [this](sd_bus_message* signal) {
        const char* path = nullptr;
        if (sd_bus_message_read(signal, "o", &path) > 0) readInterfaces(signal, path);
      });
  service_.subscribe(
      "path='/',interface='org.freedesktop.DBus.ObjectManager',member='InterfacesRemoved'",
      [this](sd_bus_message* signal) {
        const char* path = nullptr;
        if (sd_bus_message_read(signal, "o", &path) <= 0) return;
        std::erase_if(observations_, [&](const auto& each) { return each.path == path; });
        std::erase(adapters_, path);
      });
  service_.subscribe(
      "path_namespace='/org/bluez',interface='org.freedesktop.DBus.Properties',"
      "member='PropertiesChanged'",
      [this](sd_bus_message* signal) {
        const std::string path = sd_bus_message_get_path(signal);
        const std::string_view interface = changedInterface(signal);
        readProperties(interface, signal, path);
      });
  service_.call("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects",
                [this](sd_bus_message* reply) {
                  if (!isAnswer(reply)) return;
                  Dictionary objects(reply, "oa{sa{sv}}");
                  while (objects.next()) readInterfaces(reply, std::string(objects.key()));
                });
}

void Beacons::readInterfaces(sd_bus_message* message, const std::string& path) {
  Dictionary interfaces(message, "sa{sv}");
  while (interfaces.next()) readProperties(interfaces.key(), message, path);
}

void Beacons::readProperties(std::string_view interface, sd_bus_message* message,
                             const std::string& path) {
  if (interface == kAdapter) readAdapter(message, path);
  if (interface == kDevice) readDevice(message, path);
}

/// Searches on the adapter, once it is powered.
void Beacons::readAdapter(sd_bus_message* message, const std::string& path) {
  Dictionary properties(message, "sv");
  while (properties.next()) {
    int isPowered = 0;
    if (!properties.read("Powered", "b", &isPowered)) continue;
    std::erase(adapters_, path);
    if (isPowered != 0) searchOn(path);
  }
}

void Beacons::searchOn(const std::string& adapter) {
  service_.call(adapter.c_str(), kAdapter, "SetDiscoveryFilter", ignore, "a{sv}", 2, "Transport",
                "s", "le", "DuplicateData", "b", 1);
  service_.call(adapter.c_str(), kAdapter, "StartDiscovery", ignore);
  adapters_.push_back(adapter);
}

/// A device that was never heard has no signal strength: it is one that is remembered.
void Beacons::readDevice(sd_bus_message* message, const std::string& path) {
  std::optional<Advertised> beacon;
  std::optional<int> rssi;
  Dictionary properties(message, "sv");
  while (properties.next()) {
    std::int16_t strength = 0;
    if (properties.read("RSSI", "n", &strength)) rssi = strength;
    if (properties.key() == "ManufacturerData") beacon = readAdvertised(message);
  }
  auto known = std::ranges::find(observations_, path, &Observation::path);
  if (beacon && isWanted(*beacon)) {
    if (known == observations_.end() && observations_.size() < kMaxObservations) {
      observations_.push_back({path, {}, {}, false});
      known = observations_.end() - 1;
    }
    if (known != observations_.end()) known->beacon = *beacon;
  }
  if (known != observations_.end() && (rssi || beacon)) recordSignal(*known, rssi);
}

void Beacons::recordSignal(Observation& observation, std::optional<int> rssi) {
  if (rssi) observation.rssi = rssi;
  if (!observation.rssi) return;
  observation.isUnreported = true;
  markSeen(observation.beacon);
}

/// Reads a variant with a dictionary of companies and their bytes.
std::optional<Beacons::Advertised> Beacons::readAdvertised(sd_bus_message* message) {
  std::optional<Advertised> beacon;
  if (sd_bus_message_enter_container(message, 'v', "a{qv}") <= 0) return beacon;
  sd_bus_message_enter_container(message, 'a', "{qv}");
  while (sd_bus_message_enter_container(message, 'e', "qv") > 0) {
    std::uint16_t company = 0;
    const void* data = nullptr;
    std::size_t size = 0;
    sd_bus_message_read_basic(message, 'q', &company);
    if (sd_bus_message_enter_container(message, 'v', "ay") > 0) {
      sd_bus_message_read_array(message, 'y', &data, &size);
      sd_bus_message_exit_container(message);
    } else {
      sd_bus_message_skip(message, "v");
    }
    if (company == kCompany && size == kLayoutSize) beacon = decode(static_cast<const Byte*>(data));
    sd_bus_message_exit_container(message);
  }
  sd_bus_message_exit_container(message);
  sd_bus_message_exit_container(message);
  return beacon;
}

std::optional<Beacons::Advertised> Beacons::decode(const Byte* bytes) {
  if (bytes[0] != 0x02 || bytes[1] != 0x15) return std::nullopt;
  const auto number = [&](std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] << 8U | bytes[at + 1]);
  };
  return Advertised{uuidText(bytes + 2), number(18), number(20)};
}

bool Beacons::isOf(const Advertised& beacon, const platform::BeaconRegion& region) {
  return strcasecmp(beacon.proximityUUID.c_str(), region.proximityUUID.c_str()) == 0 &&
         region.major.value_or(beacon.major) == beacon.major &&
         region.minor.value_or(beacon.minor) == beacon.minor;
}

bool Beacons::isWanted(const Advertised& beacon) const {
  return std::ranges::any_of(ranged_, [&](const auto& each) { return isOf(beacon, each); }) ||
         std::ranges::any_of(monitored_,
                             [&](const auto& each) { return isOf(beacon, each.region); });
}

void Beacons::markSeen(const Advertised& beacon) {
  for (Monitored& each : monitored_) {
    if (!isOf(beacon, each.region)) continue;
    if (!std::exchange(each.lastSeen, steady_clock::now())) {
      receiver_.reportCrossing(each.region, true);
    }
  }
  if (!std::exchange(isReportDue_, true)) timer_.start(kRangingPeriod);
}

void Beacons::report() {
  for (const auto& region : ranged_) reportRanged(region);
  for (Observation& observation : observations_) observation.isUnreported = false;
  isReportDue_ = false;
  leaveRegions(steady_clock::now());
}

void Beacons::reportRanged(const platform::BeaconRegion& region) const {
  std::vector<platform::Beacon> beacons;
  for (const Observation& observation : observations_) {
    if (!observation.isUnreported || !isOf(observation.beacon, region)) continue;
    const auto& [uuid, major, minor] = observation.beacon;
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "uuid:%s, major:%d, minor:%d, rssi:%d", uuid.c_str(),
                  major, minor, *observation.rssi);
    beacons.push_back({text.data(), major, minor, *observation.rssi});
  }
  if (beacons.empty()) return;
  receiver_.report([region, beacons](auto& manager, auto& delegate) {
    delegate.didRangeBeacons(manager, beacons, region);
  });
}

/// Leaves the regions whose time is over, and wakes up for the next one.
void Beacons::leaveRegions(Time now) {
  std::optional<Time> next;
  for (Monitored& each : monitored_) {
    if (!each.lastSeen) continue;
    const Time end = *each.lastSeen + kExitDelay;
    if (end > now) {
      next = std::min(next.value_or(end), end);
      continue;
    }
    each.lastSeen.reset();
    receiver_.reportCrossing(each.region, false);
  }
  if (!next) return;
  timer_.start(std::chrono::ceil<std::chrono::milliseconds>(*next - now));
}

}  // namespace marbleway::desktop

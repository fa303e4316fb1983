#include "desktop/beacons.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "desktop/reading.h"

namespace marbleway::desktop {
namespace {

using std::chrono::steady_clock;

constexpr const char* kAdapter = "org.bluez.Adapter1";
constexpr const char* kDevice = "org.bluez.Device1";
constexpr std::chrono::milliseconds kRangingPeriod{1'000};
constexpr std::chrono::seconds kExitDelay{30};
constexpr std::size_t kMaxHeard = 256;  // devices; anyone may advertise under any number of names

// The layout: company, then type and length of what follows: UUID, major, minor, power.
constexpr std::uint16_t kCompany = 0x004C;
constexpr std::size_t kLayoutSize = 23;

std::string uuidText(std::span<const std::uint8_t> bytes) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text;
  for (const std::uint8_t byte : bytes) {
    if (text.size() == 8 || text.size() == 13 || text.size() == 18 || text.size() == 23)
      text += '-';
    text += kDigits[byte / 16U];
    text += kDigits[byte % 16U];
  }
  return text;
}

}  // namespace

Beacons::Beacons(Bus& system, sd_event* event, Receiver& receiver)
    : receiver_(receiver),
      timer_(event, [this] { report(); }),
      service_(
          system, event, "org.bluez", Peer::Activation::none, [this] { search(); },
          [this] {
            heard_.clear();
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
  heard_.clear();
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
        heard_.erase(path);
        std::erase(adapters_, path);
      });
  service_.subscribe(
      "path_namespace='/org/bluez',interface='org.freedesktop.DBus.Properties',"
      "member='PropertiesChanged'",
      [this](sd_bus_message* signal) {
        const std::string path = sd_bus_message_get_path(signal);
        const std::string_view interface = changedInterface(signal);
        if (interface == kAdapter) readAdapter(signal, path);
        if (interface == kDevice) readDevice(signal, path);
      });
  service_.call("/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects",
                [this](sd_bus_message* reply) {
                  if (!isAnswer(reply)) return;
                  readDictionary(reply, "oa{sa{sv}}",
                                 [&](const char* path) { return readInterfaces(reply, path); });
                });
}

bool Beacons::readInterfaces(sd_bus_message* message, const std::string& path) {
  return readDictionary(message, "sa{sv}", [&](std::string_view interface) {
    if (interface == kAdapter) return readAdapter(message, path);
    return interface == kDevice && readDevice(message, path);
  });
}

/// Searches on the adapter, once it is powered.
bool Beacons::readAdapter(sd_bus_message* message, const std::string& path) {
  std::optional<bool> isPowered;
  const bool isRead = readDictionary(message, "sv", [&](std::string_view name) {
    int value = 0;
    if (name != "Powered" || !readVariant(message, "b", value)) return false;
    isPowered = value != 0;
    return true;
  });
  if (isPowered) std::erase(adapters_, path);
  if (isPowered == true) searchOn(path);
  return isRead;
}

void Beacons::searchOn(const std::string& adapter) {
  service_.call(adapter.c_str(), kAdapter, "SetDiscoveryFilter", ignore, "a{sv}", 2, "Transport",
                "s", "le", "DuplicateData", "b", 1);
  service_.call(adapter.c_str(), kAdapter, "StartDiscovery", ignore);
  adapters_.push_back(adapter);
}

/// A device that was never heard has no signal strength: it is one that is remembered.
bool Beacons::readDevice(sd_bus_message* message, const std::string& path) {
  std::optional<Advertised> beacon;
  std::optional<int> rssi;
  const bool isRead = readDictionary(message, "sv", [&](std::string_view name) {
    std::int16_t strength = 0;
    if (name == "ManufacturerData") {
      beacon = readAdvertised(message);
      return true;
    }
    if (name != "RSSI" || !readVariant(message, "n", strength)) return false;
    rssi = strength;
    return true;
  });
  const auto known = heard_.find(path);
  if (beacon && isWanted(*beacon) && (known != heard_.end() || heard_.size() < kMaxHeard)) {
    heard_[path].beacon = *beacon;
  }
  if (rssi || beacon) hear(path, rssi);
  return isRead;
}

void Beacons::hear(const std::string& path, std::optional<int> rssi) {
  const auto known = heard_.find(path);
  if (known == heard_.end()) return;
  Heard& heard = known->second;
  if (rssi) heard.rssi = rssi;
  if (!heard.rssi) return;
  heard.isUnreported = true;
  see(heard.beacon);
}

std::optional<Beacons::Advertised> Beacons::readAdvertised(sd_bus_message* message) {
  std::optional<Advertised> beacon;
  if (sd_bus_message_enter_container(message, 'v', "a{qv}") <= 0) {
    sd_bus_message_skip(message, "v");
    return beacon;
  }
  readDictionary<std::uint16_t>(message, "qv", [&](std::uint16_t company) {
    const void* data = nullptr;
    std::size_t size = 0;
    if (company != kCompany || sd_bus_message_enter_container(message, 'v', "ay") <= 0)
      return false;
    sd_bus_message_read_array(message, 'y', &data, &size);
    sd_bus_message_exit_container(message);
    const std::span bytes(static_cast<const std::uint8_t*>(data), data == nullptr ? 0 : size);
    if (bytes.size() != kLayoutSize || bytes[0] != 0x02 || bytes[1] != 0x15) return true;
    const auto number = [&](std::size_t at) {
      return static_cast<std::uint16_t>(bytes[at] << 8U | bytes[at + 1]);
    };
    beacon = {uuidText(bytes.subspan(2, 16)), number(18), number(20)};
    return true;
  });
  sd_bus_message_exit_container(message);
  return beacon;
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

void Beacons::see(const Advertised& beacon) {
  for (Monitored& each : monitored_) {
    if (!isOf(beacon, each.region)) continue;
    if (!std::exchange(each.lastSeen, steady_clock::now())) {
      receiver_.report([region = each.region](auto& manager, auto& delegate) {
        delegate.didEnterRegion(manager, region);
      });
    }
  }
  if (!std::exchange(isReportDue_, true)) timer_.start(kRangingPeriod);
}

void Beacons::report() {
  for (const auto& region : ranged_) reportRanged(region);
  for (auto& [path, heard] : heard_) heard.isUnreported = false;
  isReportDue_ = false;
  leaveRegions(steady_clock::now());
}

void Beacons::reportRanged(const platform::BeaconRegion& region) const {
  std::vector<platform::Beacon> beacons;
  for (const auto& [path, heard] : heard_) {
    if (!heard.isUnreported || !isOf(heard.beacon, region)) continue;
    const auto& [uuid, major, minor] = heard.beacon;
    const std::string description = "uuid:" + uuid + ", major:" + std::to_string(major) +
                                    ", minor:" + std::to_string(minor) +
                                    ", rssi:" + std::to_string(*heard.rssi);
    beacons.push_back({description, major, minor, *heard.rssi});
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
    receiver_.report([region = each.region](auto& manager, auto& delegate) {
      delegate.didExitRegion(manager, region);
    });
  }
  if (!next) return;
  timer_.start(std::chrono::ceil<std::chrono::milliseconds>(*next - now));
}

}  // namespace marbleway::desktop

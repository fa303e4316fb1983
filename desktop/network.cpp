#include "desktop/network.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "desktop/reading.h"

namespace marbleway::desktop {
namespace {

constexpr const char* kManagerPath = "/org/freedesktop/NetworkManager";
constexpr const char* kManager = "org.freedesktop.NetworkManager";
constexpr const char* kModemsPath = "/org/freedesktop/ModemManager1";
constexpr const char* kModem = "org.freedesktop.ModemManager1.Modem";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr int kWifi = 5;

// Bits of a modem's "AccessTechnologies", and the best number that each stands for. A status bar
// has no name for what came after LTE, and calls HSPA+ "4G".
struct Technology {
  std::uint32_t bits;
  int number;
};
constexpr std::array<Technology, 4> kTechnologies{{
    {0x3C000, 4},  // LTE and its narrow-band kinds, 5G
    {0x00200, 3},  // HSPA+
    {0x039E0, 2},  // UMTS, HSDPA, HSUPA, HSPA, EV-DO
    {0x0041E, 1},  // GSM, GPRS, EDGE, 1xRTT
}};

int numberOf(std::uint32_t technologies) {
  const auto* const best =
      std::find_if(kTechnologies.begin(), kTechnologies.end(),
                   [&](const Technology& each) { return (technologies & each.bits) != 0; });
  return best == kTechnologies.end() ? 0 : best->number;
}

/// Reads the properties of a modem.
std::uint32_t readTechnologies(sd_bus_message* message) {
  std::uint32_t technologies = 0;
  Dictionary properties(message, "sv");
  while (properties.next()) properties.read("AccessTechnologies", "u", &technologies);
  return technologies;
}

}  // namespace

Network::Network(Bus& system, sd_event* event)
    : manager_(
          system, event, kManager, Peer::Activation::none, [this] { watchPrimary(); },
          [this] { setPrimary(""); }),
      modems_(
          system, event, "org.freedesktop.ModemManager1", Peer::Activation::none,
          [this] { watchModems(); }, [] { dataNetworkType = 0; }) {}

void Network::watchPrimary() {
  manager_.subscribe(
      "path='/org/freedesktop/NetworkManager',interface='org.freedesktop.DBus.Properties',"
      "member='PropertiesChanged',arg0='org.freedesktop.NetworkManager'",
      [this](sd_bus_message* signal) {
        changedInterface(signal);
        Dictionary properties(signal, "sv");
        while (properties.next()) {
          const char* type = nullptr;
          if (properties.read("PrimaryConnectionType", "s", &type)) setPrimary(type);
        }
      });
  const auto onReply = [this](sd_bus_message* reply) {
    const char* type = nullptr;
    if (isAnswer(reply) && readVariant(reply, "s", &type)) setPrimary(type);
  };
  manager_.call(kManagerPath, kProperties, "Get", onReply, "ss", kManager, "PrimaryConnectionType");
}

void Network::setPrimary(std::string_view type) {
  const bool isMobile = type == "gsm" || type == "cdma";
  if (isMobile && modems_.isStarted()) return;
  dataNetworkType = type == "802-11-wireless" ? kWifi : 0;
  isMobile ? modems_.start() : modems_.stop();
}

void Network::watchModems() {
  const auto onChange = [this](sd_bus_message* signal) {
    changedInterface(signal);
    bool hasChanged = false;  // the signal's strength changes far more often
    Dictionary properties(signal, "sv");
    while (properties.next()) hasChanged = hasChanged || properties.key() == "AccessTechnologies";
    if (hasChanged) readModems();
  };
  modems_.subscribe(
      "path_namespace='/org/freedesktop/ModemManager1',"
      "interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',"
      "arg0='org.freedesktop.ModemManager1.Modem'",
      onChange);
  modems_.subscribe(
      "path='/org/freedesktop/ModemManager1',interface='org.freedesktop.DBus.ObjectManager'",
      [this](sd_bus_message* /*signal*/) { readModems(); });
  readModems();
}

/// Takes the best technology of all modems.
void Network::readModems() {
  const auto onReply = [this](sd_bus_message* reply) {
    if (!isAnswer(reply) || !modems_.isStarted()) return;
    std::uint32_t all = 0;
    Dictionary objects(reply, "oa{sa{sv}}");
    while (objects.next()) {
      Dictionary interfaces(reply, "sa{sv}");
      while (interfaces.next()) {
        if (interfaces.key() == kModem) all |= readTechnologies(reply);
      }
    }
    dataNetworkType = numberOf(all);
  };
  modems_.call(kModemsPath, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", onReply);
}

}  // namespace marbleway::desktop

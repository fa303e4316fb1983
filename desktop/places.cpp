#include "desktop/places.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

#include "desktop/reading.h"

namespace marbleway::desktop {
namespace {

constexpr const char* kClient = "org.freedesktop.GeoClue2.Client";
constexpr const char* kManager = "org.freedesktop.GeoClue2.Manager";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr std::uint32_t kCityLevel = 4, kExactLevel = 8;

/// Metres along a great circle.
double distance(const Places::Fix& fix, const platform::CircularRegion& region) {
  constexpr double kEarthRadius = 6'371'008.8;
  constexpr double kRadian = std::numbers::pi / 180;
  const double south = fix.latitude * kRadian, north = region.latitude * kRadian;
  const double height = std::sin((north - south) / 2);
  const double width = std::sin((region.longitude - fix.longitude) * kRadian / 2);
  const double chord = height * height + std::cos(south) * std::cos(north) * width * width;
  return 2 * kEarthRadius * std::asin(std::sqrt(std::clamp(chord, 0.0, 1.0)));
}

/// False for what is no place on the earth, is one of unknown accuracy, or was not read.
bool isUsable(const Places::Fix& fix) {
  return std::abs(fix.latitude) <= 90 && std::abs(fix.longitude) <= 180 && fix.accuracy >= 0;
}

}  // namespace

Places::Places(Bus& system, sd_event* event, Receiver& receiver, std::string desktopEntry)
    : receiver_(receiver),
      desktopEntry_(std::move(desktopEntry)),
      accuracyLevel_(kCityLevel),
      service_(
          system, event, "org.freedesktop.GeoClue2", Peer::Activation::byBus,
          [this] { askForClient(); }, [this] { client_.clear(); }) {}

void Places::setAccuracyBest() { accuracyLevel_ = kExactLevel; }

void Places::setDistanceFilter(double metres) {
  distanceFilter_ = static_cast<std::uint32_t>(std::clamp(metres, 0.0, 1e9));
}

void Places::stop() {
  if (!client_.empty()) service_.call(client_.c_str(), kClient, "Stop", ignore);
  client_.clear();
  circles_.clear();
  service_.stop();
}

void Places::watch(const platform::CircularRegion& region) {
  const auto known = std::ranges::find(circles_, region.identifier,
                                       [](const auto& each) { return each.region.identifier; });
  known == circles_.end() ? circles_.push_back({region, false}) : void(known->region = region);
}

void Places::askForClient() {
  const auto onReply = [this](sd_bus_message* reply) {
    const char* path = nullptr;
    if (isAnswer(reply) && sd_bus_message_read(reply, "o", &path) > 0) startClient(path);
  };
  service_.call("/org/freedesktop/GeoClue2/Manager", kManager, "GetClient", onReply);
}

void Places::setProperty(const char* name, const char* type, std::uint32_t value) {
  service_.call(client_.c_str(), kProperties, "Set", ignore, "ssv", kClient, name, type, value);
}

void Places::startClient(const std::string& path) {
  if (!service_.isThere()) return;
  client_ = path;
  service_.subscribe("path='" + path + "',interface='" + kClient + "',member='LocationUpdated'",
                     [this](sd_bus_message* signal) {
                       const char *former = nullptr, *location = nullptr;
                       if (sd_bus_message_read(signal, "oo", &former, &location) > 0) {
                         readFix(location);
                       }
                     });
  service_.call(client_.c_str(), kProperties, "Set", ignore, "ssv", kClient, "DesktopId", "s",
                desktopEntry_.c_str());
  setProperty("DistanceThreshold", "u", distanceFilter_);
  setProperty("RequestedAccuracyLevel", "u", accuracyLevel_);
  service_.call(client_.c_str(), kClient, "Start", [this](sd_bus_message* reply) {
    const bool isRefused =
        reply != nullptr &&
        sd_bus_message_is_method_error(reply, "org.freedesktop.DBus.Error.AccessDenied") > 0;
    if (isRefused) service_.stop();
  });
}

void Places::readFix(const char* path) {
  const auto onReply = [this](sd_bus_message* reply) {
    if (!isAnswer(reply)) return;
    Fix fix;
    Dictionary properties(reply, "sv");
    while (properties.next()) {
      properties.read("Latitude", "d", &fix.latitude);
      properties.read("Longitude", "d", &fix.longitude);
      properties.read("Accuracy", "d", &fix.accuracy);
    }
    update(fix);
  };
  service_.call(path, kProperties, "GetAll", onReply, "s", "org.freedesktop.GeoClue2.Location");
}

void Places::update(const Fix& fix) {
  if (!isUsable(fix)) return;
  receiver_.report([fix](auto& manager, auto& delegate) {
    delegate.didUpdateLocations(manager, {{fix.latitude, fix.longitude}});
  });
  for (Circle& circle : circles_) {
    const double toEdge = circle.region.radius - distance(fix, circle.region);  // inside: positive
    if (std::abs(toEdge) < fix.accuracy || (toEdge >= 0) == circle.isInside) continue;
    circle.isInside = !circle.isInside;
    receiver_.reportCrossing(circle.region, circle.isInside);
  }
}

}  // namespace marbleway::desktop

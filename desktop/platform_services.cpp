// What the library holds by its interfaces and by shared pointers. This file is compiled with type
// information, which a host's sanitizers read from the tables of virtual functions.
#include <utility>

#include "desktop/bus_services.h"
#include "desktop/location_manager.h"
#include "desktop/status_bar.h"
#include "desktop/user_interface.h"

namespace marbleway::desktop {

UserInterface::~UserInterface() = default;

std::shared_ptr<const platform::View> StatusBar::view() {
  const int type = thread_.isInThisProcess() ? dataNetworkType.load() : 0;
  if (type == 0) return nullptr;
  platform::View item{"UIStatusBarDataNetworkItemView", {}, {}, type, nullptr, nullptr};
  auto foreground = std::make_shared<platform::View>();
  foreground->subviews.push_back(std::move(item));
  auto bar = std::make_shared<platform::View>();
  bar->className = "UIStatusBar";
  bar->foregroundView = std::move(foreground);
  return bar;
}

std::shared_ptr<platform::LocationManager> LocationService::makeManager() {
  if (thread_.setting().systemAddress.empty()) return nullptr;
  auto manager = std::make_shared<LocationManager>(thread_);
  thread_.post([receiver = std::weak_ptr(manager)](BusServices& services) {
    services.receiver.set(receiver);
  });
  return manager;
}

LocationManager::~LocationManager() {
  thread_.post([](BusServices& services) {
    if (!services.receiver.isGone()) return;
    services.places.stop();
    services.beacons.stop();
  });
}

}  // namespace marbleway::desktop

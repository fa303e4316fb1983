#include "Marbleway/desktop.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "Marbleway/platform/platform.h"
#include "desktop/bus_services.h"
#include "desktop/location_manager.h"
#include "desktop/status_bar.h"
#include "desktop/user_interface.h"

namespace marbleway::desktop {
namespace {

constexpr std::chrono::milliseconds kShutdownTimeout{2'000}, kExitTimeout{100};

/// The services, which stay installed and are never destroyed: their thread may run at exit. A
/// fork's child has others, since the parent's hold locks.
struct Component {
  explicit Component(Setting setting) : thread(std::move(setting)) {}

  BusThread thread;
  StatusBar statusBar{thread};
  UserInterface userInterface{thread};
  LocationService locationService{thread};
  std::atomic<bool> isOver{false};
  Component* former = nullptr;  // within reach of leak checkers
};
constinit std::atomic<Component*> component{nullptr};

/// `address` if it names Unix sockets only, for others block while they connect; empty if the
/// socket is not there.
std::string usable(const std::string& address) {
  constexpr std::string_view kPath = "unix:path=";
  for (std::size_t start = 0; start < address.size(); start = address.find(';', start)) {
    if (start > 0 && ++start == address.size()) break;
    if (address.compare(start, 5, "unix:") != 0) return {};
  }
  if (address.starts_with(kPath) && address.find(';') == std::string::npos) {
    const auto path = address.substr(kPath.size(), address.find(',') - kPath.size());
    if (access(path.c_str(), F_OK) != 0 && path.find('%') == std::string::npos) return {};
  }
  return address;
}

std::string addressOf(const char* variable, const std::string& socket) {
  const char* const address = secure_getenv(variable);
  return usable(address != nullptr && *address != '\0' ? address : "unix:path=" + socket);
}

Setting readSetting(std::string_view desktopEntry) {
  Setting setting{std::string(desktopEntry), {}, {}};
  if (setting.desktopEntry.empty()) {
    std::array<char, 4096> path{};
    if (readlink("/proc/self/exe", path.data(), path.size() - 1) > 0) {
      setting.desktopEntry = std::strrchr(path.data(), '/') + 1;
    }
  }
  setting.systemAddress = addressOf("DBUS_SYSTEM_BUS_ADDRESS", "/run/dbus/system_bus_socket");
  setting.sessionAddress =
      addressOf("DBUS_SESSION_BUS_ADDRESS", "/run/user/" + std::to_string(getuid()) + "/bus");
  return setting;
}

/// The services of this process, made with the first call and the first after `shutdown`.
Component& currentComponent(std::string_view desktopEntry) {
  static constinit std::atomic<bool> isRegistered{false};
  Component* former = component;
  if (former != nullptr && former->thread.isInThisProcess() && !former->isOver) return *former;
  auto created = std::make_unique<Component>(readSetting(desktopEntry));
  created->former = former;
  if (!component.compare_exchange_strong(former, created.get())) return *former;
  if (!isRegistered.exchange(true)) {
    std::atexit([] { component.load()->thread.end(kExitTimeout); });
  }
  return *created.release();
}

/// A pointer to what is never destroyed.
template <class Service>
std::shared_ptr<Service> unowned(Service& service) {
  return {std::shared_ptr<void>(), &service};
}

}  // namespace

void install(std::string_view desktopEntry) noexcept {
  catchAll([&] {
    Component& services = currentComponent(desktopEntry);
    platform::Platform replacement;
    replacement.statusBar = unowned(services.statusBar);
    replacement.userInterface = unowned(services.userInterface);
    replacement.locationService = unowned(services.locationService);
    platform::install(std::move(replacement));
    if (services.thread.setting().systemAddress.empty()) return;
    services.thread.post([](BusServices& busServices) { busServices.network.start(); });
  });
}

void shutdown() noexcept {
  Component* const services = component;
  if (services == nullptr) return;
  services->isOver = true;
  services->thread.end(kShutdownTimeout);
}

}  // namespace marbleway::desktop

void marbleway_desktop_install() { marbleway::desktop::install(); }

void marbleway_desktop_install_as(const char* desktop_entry) {
  marbleway::desktop::install(desktop_entry == nullptr ? "" : desktop_entry);
}

void marbleway_desktop_shutdown() { marbleway::desktop::shutdown(); }

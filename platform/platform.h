#pragma once

#include <filesystem>
#include <memory>

#include "platform/clock.h"
#include "platform/console.h"
#include "platform/device.h"
#include "platform/hooks.h"
#include "platform/http.h"
#include "platform/location.h"
#include "platform/main_loop.h"
#include "platform/status_bar.h"
#include "platform/user_defaults.h"
#include "platform/user_interface.h"

namespace marbleway::platform {

/// The services that the library asks of its surroundings, one pointer each.
struct Platform {
  std::shared_ptr<Console> console{};
  std::shared_ptr<Clock> clock{};
  std::shared_ptr<MainLoop> mainLoop{};
  std::shared_ptr<HttpClient> httpClient{};
  std::shared_ptr<UserDefaults> userDefaults{};
  std::shared_ptr<Device> device{};
  std::shared_ptr<StatusBar> statusBar{};
  std::shared_ptr<UserInterface> userInterface{};
  std::shared_ptr<LocationService> locationService{};
  std::shared_ptr<NetworkCapture> networkCapture{};
  std::shared_ptr<CrashHook> crashHook{};
};

/// Replaces the services that `replacement` holds and leaves the others. Call before
/// `initMarbleway`. Thread: any; work in flight goes on with the services that it began with.
[[gnu::visibility("default")]] void install(Platform replacement);

/// The services in force: this system's own where the host has installed none. Never torn down.
/// Thread: any.
[[gnu::visibility("default")]] std::shared_ptr<const Platform> current();

/// A new set of this system's own services; the folder for this system supplies it. Nothing is
/// started, opened or read before it is first used.
Platform makePlatform();

/// Makes the documents directory, with mode 0700, where it is missing. A failure is silent.
void makeDocumentsDirectory();

/// The directory of the stores and of the settings, absolute. Thread: any.
std::string documentsDirectory();
void setDocumentsDirectory(const std::filesystem::path& directory);

}  // namespace marbleway::platform

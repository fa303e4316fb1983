#pragma once

#include <filesystem>
#include <memory>

#include "clock.h"
#include "console.h"
#include "crash_hook.h"
#include "device.h"
#include "export.h"
#include "http.h"
#include "location.h"
#include "main_loop.h"
#include "network_capture.h"
#include "status_bar.h"
#include "user_defaults.h"
#include "user_interface.h"

/// The services that the library needs, as interfaces, and their implementations on this system.
namespace marbleway::platform {

/// The services that the library needs, one pointer each.
struct Platform {
  std::shared_ptr<Console> console{};                  ///< The library's lines.
  std::shared_ptr<Clock> clock{};                      ///< The wall clock.
  std::shared_ptr<MainLoop> mainLoop{};                ///< Timers and continuations.
  std::shared_ptr<HttpClient> httpClient{};            ///< The network.
  std::shared_ptr<UserDefaults> userDefaults{};        ///< Settings that last between launches.
  std::shared_ptr<Device> device{};                    ///< Facts of the device.
  std::shared_ptr<StatusBar> statusBar{};              ///< The connection type.
  std::shared_ptr<UserInterface> userInterface{};      ///< Badge, links, alerts.
  std::shared_ptr<LocationService> locationService{};  ///< Location managers.
  std::shared_ptr<NetworkCapture> networkCapture{};    ///< Capture of the host's requests.
  std::shared_ptr<CrashHook> crashHook{};              ///< Uncaught failures.
};

/// Replaces the services that `replacement` holds and leaves the others. Call before
/// `initMarbleway`. Thread: any; work in flight goes on with the services that it began with.
MARBLEWAY_EXPORT void install(Platform replacement);

/// The services that the library uses: this system's own where the host has installed none. Never
/// destroyed. Thread: any.
MARBLEWAY_EXPORT std::shared_ptr<const Platform> current();

/// This system's own console, whatever the host has installed. Thread: any.
std::shared_ptr<Console> systemConsole();

/// A new set of this system's own services; the folder for this system supplies it. Nothing is
/// started, opened or read before it is first used.
Platform makePlatform();

/// Stops and joins the threads of this system's services, `makeCurlClient`'s among them. What they
/// were given is ended or dropped; the next use starts them again. Thread: any but these.
void endThreads() noexcept;

/// Makes the documents directory, the user's alone, where it is missing. A failure is silent.
void makeDocumentsDirectory();

/// The directory of the stores and of the settings, absolute, in UTF-8. Thread: any.
std::string documentsDirectory();
/// Sets it; a relative one counts from the working directory of the call.
void setDocumentsDirectory(const std::filesystem::path& directory);

}  // namespace marbleway::platform

#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "Marbleway/platform/clock.h"
#include "Marbleway/platform/console.h"
#include "Marbleway/platform/crash_hook.h"
#include "Marbleway/platform/device.h"
#include "Marbleway/platform/location.h"
#include "Marbleway/platform/network_capture.h"
#include "Marbleway/platform/status_bar.h"
#include "Marbleway/platform/user_defaults.h"
#include "Marbleway/platform/user_interface.h"

// What `makePlatform` is made from: services that all systems share, and each system's own.
namespace marbleway::platform {

/// Settings in a JSON file, the user's alone, replaced whole. An empty path stands for
/// "user-defaults.json" in the documents directory, resolved when the settings are first used.
///
/// A file that holds no JSON object, or is larger than 1 MiB, is renamed to "<file>.unreadable".
/// One that cannot be read now is left alone: values stay in memory, and are merged with the file's
/// once it can be read.
///
/// Processes may share a file: `synchronize` locks the directory, reads the file, applies this
/// process's changes and replaces it. While another process holds the lock for longer than a call
/// may wait, nothing is written and the changes stay in memory.
std::shared_ptr<UserDefaults> makeFileDefaults(const std::filesystem::path& file = {});

/// The system's own facts; there is no advertising identifier.
std::shared_ptr<Device> makeDevice();
/// The vendor identifier: created by `device`, and stored in the user defaults under
/// "Marbleway_VendorID".
std::string storedVendorIdentifier(Device& device);

/// Each line goes to standard error, as it is when this is called, in one `write`. A line that
/// would have to wait is lost; a line longer than the free space of a pipe may be cut. A closed
/// pipe raises no signal. Once the descriptor refers to something else, lines go nowhere.
std::shared_ptr<Console> makeStandardError();

std::shared_ptr<Clock> makeSystemClock();

/// Services that are present and do nothing: no view, no badge, no place, no captured request.
std::shared_ptr<StatusBar> makeNoStatusBar();
std::shared_ptr<UserInterface> makeHeadlessInterface();
std::shared_ptr<LocationService> makeNoLocation();
std::shared_ptr<NetworkCapture> makeNoCapture();

}  // namespace marbleway::platform

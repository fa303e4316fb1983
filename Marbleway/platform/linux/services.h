#pragma once

#include <filesystem>
#include <memory>

#include "Marbleway/platform/clock.h"
#include "Marbleway/platform/console.h"
#include "Marbleway/platform/crash_hook.h"
#include "Marbleway/platform/device.h"
#include "Marbleway/platform/location.h"
#include "Marbleway/platform/network_capture.h"
#include "Marbleway/platform/status_bar.h"
#include "Marbleway/platform/user_defaults.h"
#include "Marbleway/platform/user_interface.h"

// The small services of a Linux system, and the ones that it does not have.
namespace marbleway::platform {

/// Settings in a JSON file, mode 0600, replaced whole. An empty path stands for
/// "user-defaults.json" in the documents directory, resolved when the settings are first used.
///
/// A file that holds no JSON object is kept aside as "<file>.unreadable". One that cannot be read
/// now is left alone: values live in memory, and join the file's once it can be read.
///
/// Processes share a file: each writes its own changes into what the others have written, one at a
/// time by a lock on the directory. While one is stuck with that lock, the others wait two seconds
/// at each writing, write nothing, and run on with values in memory. A text that was asked for,
/// missing, and then set yields to one that the file turns out to hold: identifiers are made once.
std::shared_ptr<UserDefaults> makeFileDefaults(const std::filesystem::path& file = {});

/// The vendor identifier is kept in the user defaults under "Marbleway_VendorID"; there is no
/// advertising identifier.
std::shared_ptr<Device> makeLinuxDevice();

/// Each line goes to standard error in one `write`; a closed pipe raises no signal.
std::shared_ptr<Console> makeStandardError();

std::shared_ptr<Clock> makeSystemClock();

/// Services that are present and do nothing: no view, no badge, no place, no captured request.
std::shared_ptr<StatusBar> makeNoStatusBar();
std::shared_ptr<UserInterface> makeHeadlessInterface();
std::shared_ptr<LocationService> makeNoLocation();
std::shared_ptr<NetworkCapture> makeNoCapture();

}  // namespace marbleway::platform

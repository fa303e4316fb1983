#pragma once

/// @file
/// The services of a Linux desktop, for C++ and for C: connection type, location, beacons, links,
/// alerts and badge. The library `marbleway_desktop` has them; docs/desktop.md lists what each
/// needs on the machine. A service that lacks it does nothing, silently.

#include "platform/export.h"

#ifdef __cplusplus
#include <string_view>

/// The services of a Linux desktop.
namespace marbleway::desktop {

/// Installs the services of the desktop. Call it before `initMarbleway`; a second call installs the
/// same services again. A service that the host installs afterwards replaces the desktop's.
///
/// `desktopEntry` is the name of the application's desktop entry, without ".desktop"; empty: the
/// executable's file name. Location, alerts and badge name the application by it.
///
/// The call does not wait for a bus: all buses are used on one thread, which starts with the first
/// task and ends when nothing is watched. It blocks every signal but the fatal ones. Events run on
/// the library's main loop. In a fork's child the services do nothing until it calls this again.
/// Thread: any.
MARBLEWAY_EXPORT void install(std::string_view desktopEntry = {}) noexcept;

/// Ends the thread and waits for it, two seconds at most. For plugins that are unloaded and for
/// leak checkers, after `marbleway::shutdown`; not needed at the process's end. `install` starts
/// the services again. Thread: one of the host's.
MARBLEWAY_EXPORT void shutdown() noexcept;

}  // namespace marbleway::desktop

extern "C" {
#endif

/// Installs the services of the desktop under the executable's file name. The C library must have
/// been built with `BUILD_SHARED_LIBS=ON`, as in the Debian packages.
MARBLEWAY_EXPORT void marbleway_desktop_install(void);

/// Installs them under the name of a desktop entry, without ".desktop".
MARBLEWAY_EXPORT void marbleway_desktop_install_as(const char* desktop_entry);

/// Ends their thread and waits for it, two seconds at most. Call it after `marbleway_shutdown`.
MARBLEWAY_EXPORT void marbleway_desktop_shutdown(void);

#ifdef __cplusplus
}
#endif

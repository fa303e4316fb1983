#pragma once

/// @file
/// The services of a Linux desktop, for C++ and for C: connection type, location, beacons, links,
/// alerts and badge. The library `marbleway_desktop` has them; docs/desktop.md says what each needs
/// on the machine. One whose counterpart is not there does nothing, in silence.

#include "platform/export.h"

#ifdef __cplusplus
#include <string_view>

/// The services of a Linux desktop.
namespace marbleway::desktop {

/// Installs the services of the desktop. Call it before `initMarbleway`; a second call puts them in
/// force again. A service that the host installs afterwards replaces this one.
///
/// `desktopEntry` is the name of the application's desktop entry, without ".desktop"; empty: the
/// executable's file name. Location, alerts and badge name the application by it.
///
/// Nothing here waits for a bus: all of it is asked on one thread, which starts when there is a bus
/// to ask and ends when there is nothing to watch. Only fatal signals are delivered to it. Its
/// events run on the library's main loop. In a fork's child the services do nothing until it calls
/// this again. Thread: any.
MARBLEWAY_EXPORT void install(std::string_view desktopEntry = {}) noexcept;

/// Ends and joins the thread, after `marbleway::shutdown`, for plugins that are unloaded and for
/// leak checkers. The process's end needs no call. `install` starts anew. Thread: one of the
/// host's.
MARBLEWAY_EXPORT void shutdown() noexcept;

}  // namespace marbleway::desktop

extern "C" {
#endif

/// Installs the services of the desktop for the executable's file name. The C interface must be
/// built upon the shared library, as in the Debian packages.
MARBLEWAY_EXPORT void marbleway_desktop_install(void);

/// Installs them for another desktop entry, named without ".desktop".
MARBLEWAY_EXPORT void marbleway_desktop_install_as(const char* desktop_entry);

/// Ends and joins their thread, after `marbleway_shutdown`.
MARBLEWAY_EXPORT void marbleway_desktop_shutdown(void);

#ifdef __cplusplus
}
#endif

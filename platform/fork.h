#pragma once

namespace marbleway::platform {

/// Sees to it that the child of a fork starts from a sound state: no lock of the library is held
/// in it, its services are its own, and `inChild` has run before `fork` returns. The first call
/// counts; later ones change nothing. Thread: any.
void watchForks(void (*inChild)());

/// Lets go of this system's own services without touching them, for the child of a fork: the
/// threads that serve them stayed behind. `current` makes new ones. The host's services remain.
void abandonOwnServices() noexcept;

}  // namespace marbleway::platform

#pragma once

namespace marbleway::platform {

/// Sees to it that the child of a fork starts from a sound state: no lock of the library is held
/// in it, its services are its own, and `inChild` has run before `fork` returns. `before` runs in
/// front of the fork, and `inParent` after it, on the thread that forks. The first call counts;
/// later ones change nothing. Thread: any.
void watchForks(
    void (*inChild)(), void (*before)() = [] {}, void (*inParent)() = [] {});

/// Lets go of this system's own services without touching them, for the child of a fork: the
/// threads that serve them stayed behind. `current` makes new ones. The host's services remain.
void abandonOwnServices() noexcept;

}  // namespace marbleway::platform

#pragma once

#include <optional>
#include <string>

namespace marbleway {

/// Replaces the session by a new valid one; start-up's first step.
void beginSession();

/// Stores the session's identifier, in the settings and for the record of a crash.
void persistSession();

/// What `Marbleway::startSession` does. Returns the identifier that its rows carry; absent where
/// it does nothing. Thread: any.
std::optional<std::string> openSession();

/// Sets the session's last activity to the current time.
void updateSessionTimeout();

}  // namespace marbleway

#pragma once

#include <optional>
#include <string>

namespace marbleway {

/// Replaces the session by a new valid one and keeps that in the user defaults; start-up's first
/// step.
void beginSession();

/// What `Marbleway::startSession` does. Returns the identifier that its rows carry; absent where
/// it does nothing. Thread: any.
std::optional<std::string> openSession();

/// Makes now the session's last activity.
void updateSessionTimeout();

}  // namespace marbleway

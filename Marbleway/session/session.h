#pragma once

#include <string>

namespace marbleway {

/// See `Marbleway::startSession` and `Marbleway::stopSession`. Thread: any.
void startSession();
void stopSession();

/// Keeps the session's identifier, and that it is valid, in the user defaults.
void keepSession(const std::string& identifier);

/// Makes now the session's last activity.
void updateSessionTimeout();

}  // namespace marbleway

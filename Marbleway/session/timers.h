#pragma once

namespace marbleway {

/// Starts the timer that uploads every `DispatchTime` seconds and stores it in `TimerTask`. A timer
/// that was stored there before goes on.
void setDispatchFrequency();
/// Starts the timer that checks every `SessionTimeout` seconds whether the session has expired, and
/// stores it in `SessionTask`. A timer that was stored there before goes on.
void setSessionTimeout();
/// Stops the five timers. An exception that one of them throws is dropped.
void invalidateTimers();

}  // namespace marbleway

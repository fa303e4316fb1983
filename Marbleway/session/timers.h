#pragma once

namespace marbleway {

/// Starts the timer that uploads every `DispatchTime` seconds, as `TimerTask`. One that stood there
/// goes on.
void setDispatchFrequency();
/// Starts the timer that looks every `SessionTimeout` seconds whether the session has expired, as
/// `SessionTask`. One that stood there goes on.
void setSessionTimeout();
/// Stops the five timers.
void invalidateTimers();

}  // namespace marbleway

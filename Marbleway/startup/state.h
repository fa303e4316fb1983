#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/guarded.h"
#include "platform/location.h"
#include "platform/main_loop.h"

// The process-wide state, each under its own name. Any thread reads and writes it: the locks end
// data races, not races of meaning. A function that needs a value twice copies it once.
namespace marbleway {

using OptionalText = std::optional<std::string>;
using TimerHandle = Guarded<std::shared_ptr<platform::Timer>>;

/// The session that rows are stamped with, an upper-case UUID; absent between sessions.
extern constinit Guarded<OptionalText> sessionID;
/// When the session began, and when it was last active: texts of `getUTCTimeStamp`.
extern constinit Guarded<OptionalText> SessionStartTime, SessionTime;
/// The project's token as start-up got it; sent with each request.
extern constinit Guarded<OptionalText> internalProjectToken;
/// The base of every server path; ends in "/v2/".
extern constinit Guarded<OptionalText> apiURL;
/// The server's list; captured requests whose whole URL an entry contains are not uploaded.
extern constinit Guarded<std::optional<std::vector<std::string>>> networkBlacklist;

/// True while a session is open.
extern constinit std::atomic<bool> isValidSession;
/// False until start-up has run, and again once the server has refused the project.
extern constinit std::atomic<bool> isSDKValid;
/// Whether the latest handshake reached the server, whatever it answered.
extern constinit std::atomic<bool> isConnectedToInternet;
/// Whether the server allows the advertising identifier.
extern constinit std::atomic<bool> isAdvertisingID;

/// The options; privacy mode, session timeout and network monitoring are later the server's.
extern constinit std::atomic<bool> isLoggingEnabled, isSDKDebuggingEnabled, isTrackingEnabled,
    isUploadingEnabled, isPrivacyMode, isPerformanceMonitoringEnabled, isNetworkMonitoringEnabled;
/// Seconds between two uploads; seconds of idleness that end a session.
extern constinit std::atomic<float> DispatchTime, SessionTimeout;

/// The timers of upload and expiry; the three of performance sampling, which nothing starts.
extern constinit TimerHandle TimerTask, SessionTask, CPUTask, MemoryTask, BatteryTask;

/// The one location manager, replaced by each call that enables monitoring.
extern constinit Guarded<std::shared_ptr<platform::LocationManager>> mrbwLocationManager;

inline constexpr const char* DBFileName = "mrbw-analytics-prod-220.sqlite";
inline constexpr const char* HTTPDBFileName = "mrbw-http-prod-220.sqlite";
inline constexpr const char* SDKVersion = "2.2.0";

}  // namespace marbleway

#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/platform/guarded.h"
#include "Marbleway/platform/location.h"
#include "Marbleway/platform/main_loop.h"
#include "Marbleway/version.h"

// The process-wide state, each variable under its own name. Any thread reads and writes it: the
// locks end data races, not races of meaning. A function that needs a value twice copies it once.
namespace marbleway {

using OptionalText = std::optional<std::string>;
using TimerHandle = Guarded<std::shared_ptr<platform::Timer>>;

/// The session's identifier, an upper-case UUID, which rows carry; absent between sessions.
inline constinit Guarded<OptionalText> sessionID;
/// When the session began, and when it was last active: texts of `getUTCTimeStamp`.
inline constinit Guarded<OptionalText> SessionStartTime, SessionTime;
/// The project's token as given to start-up; sent with each request.
inline constinit Guarded<OptionalText> internalProjectToken;
/// The base of every server path; ends in "/v2/".
inline constinit Guarded<OptionalText> apiURL;
/// The server's list; captured requests whose whole URL an entry contains are not uploaded.
inline constinit Guarded<std::optional<std::vector<std::string>>> networkBlacklist;

/// True while a session is open.
inline constinit std::atomic<bool> isValidSession{false};
/// False until start-up has run, and again once the server has refused the project.
inline constinit std::atomic<bool> isSDKValid{false};
/// Whether the latest handshake reached the server, whatever it answered.
inline constinit std::atomic<bool> isConnectedToInternet{false};
/// Whether the server allows the advertising identifier.
inline constinit std::atomic<bool> isAdvertisingID{false};

/// The options. The server's answer replaces privacy mode, session timeout and network monitoring.
inline constinit std::atomic<bool> isLoggingEnabled{false}, isSDKDebuggingEnabled{false},
    isTrackingEnabled{false}, isUploadingEnabled{false}, isPrivacyMode{false},
    isPerformanceMonitoringEnabled{false}, isNetworkMonitoringEnabled{false};
/// Seconds between two uploads; seconds of idleness that end a session.
inline constinit std::atomic<float> DispatchTime{0}, SessionTimeout{0};

/// The timers of upload and expiry; the three of performance sampling, which nothing starts.
inline constinit TimerHandle TimerTask, SessionTask, CPUTask, MemoryTask, BatteryTask;

/// The one location manager, replaced by each call that enables monitoring.
inline constinit Guarded<std::shared_ptr<platform::LocationManager>> mrbwLocationManager;

/// The handshake and the batch that ended last; absent: none since the start.
inline constinit Guarded<std::optional<Diagnostic>> lastHandshake, lastBatch;

/// Every variable above as it was before the first start-up. The handles are dropped; timers that
/// are to stop are invalidated before.
void resetState();

/// What the session row reports.
inline constexpr const char* SDKVersion = MARBLEWAY_VERSION;

}  // namespace marbleway

#include "Marbleway/startup/state.h"

namespace marbleway {

constinit Guarded<OptionalText> sessionID, SessionStartTime, SessionTime, internalProjectToken,
    apiURL;
constinit Guarded<std::optional<std::vector<std::string>>> networkBlacklist;

constinit std::atomic<bool> isValidSession{false}, isSDKValid{false}, isConnectedToInternet{false},
    isAdvertisingID{false};
constinit std::atomic<bool> isLoggingEnabled{false}, isSDKDebuggingEnabled{false},
    isTrackingEnabled{false}, isUploadingEnabled{false}, isPrivacyMode{false},
    isPerformanceMonitoringEnabled{false}, isNetworkMonitoringEnabled{false};
constinit std::atomic<float> DispatchTime{0}, SessionTimeout{0};

constinit TimerHandle TimerTask, SessionTask, CPUTask, MemoryTask, BatteryTask;
constinit Guarded<std::shared_ptr<platform::LocationManager>> mrbwLocationManager;

}  // namespace marbleway

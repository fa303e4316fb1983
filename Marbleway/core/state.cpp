#include "Marbleway/core/state.h"

namespace marbleway {

void resetState() {
  isSDKValid = false;  // first: from here on other threads' operations are refused
  for (auto* flag :
       {&isValidSession, &isConnectedToInternet, &isAdvertisingID, &isLoggingEnabled,
        &isSDKDebuggingEnabled, &isTrackingEnabled, &isUploadingEnabled, &isPrivacyMode,
        &isPerformanceMonitoringEnabled, &isNetworkMonitoringEnabled}) {
    *flag = false;
  }
  for (auto* number : {&DispatchTime, &SessionTimeout}) *number = 0;
  for (auto* text : {&sessionID, &SessionStartTime, &SessionTime, &internalProjectToken, &apiURL}) {
    text->store(std::nullopt);
  }
  networkBlacklist.store(std::nullopt);
  for (auto* timer : {&TimerTask, &SessionTask, &CPUTask, &MemoryTask, &BatteryTask}) {
    timer->store(nullptr);
  }
  mrbwLocationManager.store(nullptr);
  for (auto* exchange : {&lastHandshake, &lastBatch}) exchange->store(std::nullopt);
}

}  // namespace marbleway

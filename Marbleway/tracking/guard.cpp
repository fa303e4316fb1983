#include "Marbleway/tracking/guard.h"

#include "Marbleway/session/session.h"
#include "Marbleway/startup/console.h"
#include "Marbleway/startup/state.h"

namespace marbleway {
namespace {

bool refuse(std::string_view reason, const Guard& guard) {
  console::refusal(reason, guard.action);
  return false;
}

}  // namespace

bool admits(const Guard& guard) {
  if (!isSDKValid) return refuse("SDK Not Properly Configured", guard);
  if (!isTrackingEnabled) return refuse("Tracking is Not Enabled", guard);
  if (!isValidSession) {
    if (!guard.reopensSession) return refuse("No Valid Session", guard);
    startSession();
  }
  if (guard.honoursPrivacy && isPrivacyMode) return refuse("Privacy Mode Enabled", guard);
  if (guard.asksPerformanceMonitoring && !isPerformanceMonitoringEnabled) {
    // The blank before the comma belongs to the line.
    return refuse("Performance Monitoring Not Enabled ", guard);
  }
  return true;
}

}  // namespace marbleway

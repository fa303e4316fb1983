#include "Marbleway/core/guards.h"

#include "Marbleway/core/console.h"
#include "Marbleway/core/state.h"

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
  if (guard.needsSession && !isValidSession) return refuse("No Valid Session", guard);
  if (guard.honoursPrivacy && isPrivacyMode) return refuse("Privacy Mode Enabled", guard);
  if (guard.needsPerformanceMonitoring && !isPerformanceMonitoringEnabled) {
    // The blank before the comma belongs to the line.
    return refuse("Performance Monitoring Not Enabled ", guard);
  }
  return true;
}

std::optional<std::string> admittedSession(const Guard& guard) {
  if (!admits(guard)) return std::nullopt;
  auto session = sessionID.load();
  // Identifier and flag change together: without an identifier the session ended after the check.
  if (!session && admits(guard)) session = sessionID.load();
  return session;
}

}  // namespace marbleway

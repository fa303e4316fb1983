#include "Marbleway/core/guards.h"

#include "Marbleway/core/console.h"
#include "Marbleway/core/state.h"

namespace marbleway {
namespace {

// The first condition that does not hold; null: all do.
const char* refusal(const Guard& guard) {
  if (!isSDKValid) return "SDK Not Properly Configured";
  if (!isTrackingEnabled) return "Tracking is Not Enabled";
  if (guard.needsSession && !isValidSession) return "No Valid Session";
  if (guard.honoursPrivacy && isPrivacyMode) return "Privacy Mode Enabled";
  // The blank at the end belongs to the line.
  const bool isMonitoring = !guard.needsPerformanceMonitoring || isPerformanceMonitoringEnabled;
  return isMonitoring ? nullptr : "Performance Monitoring Not Enabled ";
}

}  // namespace

bool admits(const Guard& guard) {
  const char* const reason = refusal(guard);
  if (reason != nullptr) console::refusal(reason, guard.action);
  return reason == nullptr;
}

bool isMet(const Guard& guard) { return refusal(guard) == nullptr; }

std::optional<std::string> admittedSession(const Guard& guard) {
  if (!admits(guard)) return std::nullopt;
  auto session = sessionID.load();
  // Identifier and flag change together: without an identifier the session ended after the check.
  if (!session && admits(guard)) session = sessionID.load();
  return session;
}

}  // namespace marbleway

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace marbleway {

/// What must hold before an operation records. All ask for a configured SDK and for tracking.
struct Guard {
  std::string_view action;                  // ends each refusal: "..., Could Not " and these words
  bool needsSession = true;                 // refused without a valid session
  bool honoursPrivacy = false;              // refused in privacy mode
  bool needsPerformanceMonitoring = false;  // refused while that is off
};

/// True when `guard` lets an operation record; a refusal is one warning, for the first condition
/// that fails: SDK, tracking, session, privacy, performance monitoring. Changes nothing.
bool admits(const Guard& guard);

/// The same without a warning. Async-signal-safe.
bool isMet(const Guard& guard);

/// The identifier of the session under which an admitted operation records all its rows, whatever
/// timers do meanwhile on other threads. Absent, after the warning, when `guard` refuses.
std::optional<std::string> admittedSession(const Guard& guard);

namespace guards {

inline constexpr Guard linkUser{.action = "Link User", .honoursPrivacy = true};
inline constexpr Guard setUserAttribute{.action = "Set User Attribute", .honoursPrivacy = true};
// Decrement shares the increment's wording.
inline constexpr Guard changeUserAttribute{.action = "Increment User Attribute",
                                           .honoursPrivacy = true};
// The attributes of companies share the wording of the link.
inline constexpr Guard linkCompany{.action = "Link Company", .honoursPrivacy = true};
// The two that start a session where there is none.
inline constexpr Guard trackEvent{.action = "Track Event", .needsSession = false};
inline constexpr Guard trackScreenView{.action = "Track Screen View", .needsSession = false};
inline constexpr Guard trackAdImpression{.action = "Track Impression"};
inline constexpr Guard trackAdInteraction{.action = "Track Interaction"};
inline constexpr Guard trackAdConversion{.action = "Track Conversion"};
inline constexpr Guard logError{.action = "Track Exception"};
inline constexpr Guard trackCrash{.action = "Track Crash", .needsPerformanceMonitoring = true};

}  // namespace guards
}  // namespace marbleway

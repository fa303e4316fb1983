#pragma once

#include <string_view>

namespace marbleway {

/// What must hold before an operation records. All ask for a configured SDK and for tracking.
struct Guard {
  std::string_view action;                 // ends each refusal: "..., Could Not " and these words
  bool reopensSession = false;             // a missing session is started instead of refused
  bool honoursPrivacy = false;             // refused in privacy mode
  bool asksPerformanceMonitoring = false;  // refused while that is off
};

/// True when `guard` lets an operation record; a refusal is one warning, for the first condition
/// that fails: SDK, tracking, session, privacy, performance monitoring.
bool admits(const Guard& guard);

namespace guards {

inline constexpr Guard linkUser{.action = "Link User", .honoursPrivacy = true};
inline constexpr Guard setUserAttribute{.action = "Set User Attribute", .honoursPrivacy = true};
inline constexpr Guard incrementUserAttribute{.action = "Increment User Attribute",
                                              .honoursPrivacy = true};
// Decrement shares the increment's wording.
inline constexpr Guard decrementUserAttribute = incrementUserAttribute;
inline constexpr Guard linkCompany{.action = "Link Company", .honoursPrivacy = true};
// The attributes of companies share the wording of the link.
inline constexpr Guard companyAttribute = linkCompany;
inline constexpr Guard trackEvent{.action = "Track Event", .reopensSession = true};
inline constexpr Guard trackScreenView{.action = "Track Screen View", .reopensSession = true};
inline constexpr Guard trackAdImpression{.action = "Track Impression"};
inline constexpr Guard trackAdInteraction{.action = "Track Interaction"};
inline constexpr Guard trackAdConversion{.action = "Track Conversion"};
inline constexpr Guard logError{.action = "Track Exception"};
inline constexpr Guard trackCrash{.action = "Track Crash", .asksPerformanceMonitoring = true};

}  // namespace guards
}  // namespace marbleway

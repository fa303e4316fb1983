#include <string>

#include "Marbleway/session/session.h"
#include "Marbleway/startup/console.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/guard.h"
#include "Marbleway/tracking/operations.h"
#include "Marbleway/tracking/validation.h"
#include "platform/json.h"

namespace marbleway {
namespace {

constexpr std::string_view kImpressionRequires = "Impression Tracking requires value for '";
constexpr std::string_view kInteractionRequires = "Interaction Tracking requires value for '";
constexpr std::string_view kConversionRequires = "Conversion Tracking requires value for '";

void reportMissing(std::string_view requires_, std::string_view key) {
  console::error(std::string(requires_).append(key).append("'"));
}

// True when `details` hold all of `keys`; an error names the first that is missing.
bool areComplete(const Dictionary& details, std::string_view requires_,
                 std::initializer_list<std::string_view> keys) {
  const auto missing = missingKey(details, keys);
  if (missing) reportMissing(requires_, *missing);
  return !missing;
}

bool isCompleteAd(const Dictionary& adDetails, std::string_view requires_) {
  return areComplete(adDetails, requires_,
                     {"adID", "adName", "adType", "adCategory", "orgID", "orgName"});
}

// What a row tells beside the ad itself.
struct AdRow {
  Text type;
  Text interactionType = nullptr;
  Text conversionDetails = nullptr;
};

void insertAd(const AdRow& row, const Dictionary& adDetails, const std::string& timeStamp) {
  insertRow(
      "insert into mrbw_v2_ads (id, SessionID, AdType, AdDetails, InteractionType, ConversionDetails, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?, ?)",
      {sessionID.load(), row.type, json::toJSON(adDetails), row.interactionType,
       row.conversionDetails, timeStamp});
}

// Keeps the session alive before anything is checked: a call that is then refused has done so.
std::string keepAlive() {
  updateSessionTimeout();
  return getUTCTimeStamp();
}

}  // namespace

void trackAdImpression(const Dictionary& adDetails) {
  if (!admits(guards::trackAdImpression)) return;
  const std::string timeStamp = keepAlive();
  if (!isCompleteAd(adDetails, kImpressionRequires)) return;

  insertAd({.type = "Impression"}, adDetails, timeStamp);
  console::message("Impression Tracked");
}

void trackAdInteraction(const Dictionary& adDetails, const Text& interactionType) {
  if (!admits(guards::trackAdInteraction)) return;
  const std::string timeStamp = keepAlive();
  // Only an empty type is refused, not an absent one.
  if (!interactionType.isAbsent() && interactionType.isMissing()) {
    return reportMissing(kInteractionRequires, "interactionType");
  }
  // An interaction has no words of its own for the ad's keys.
  if (!isCompleteAd(adDetails, kImpressionRequires)) return;

  insertAd({.type = "Interaction", .interactionType = interactionType}, adDetails, timeStamp);
  console::message("Interaction Tracked");
}

void trackAdConversion(const Dictionary& adDetails, const Dictionary& conversionDetails) {
  if (!admits(guards::trackAdConversion)) return;
  const std::string timeStamp = keepAlive();
  if (!isCompleteAd(adDetails, kConversionRequires)) return;
  if (!areComplete(conversionDetails, kConversionRequires, {"conversionType", "conversionValue"})) {
    return;
  }

  const OptionalText conversion = json::toJSON(conversionDetails);
  insertAd({.type = "Conversion", .conversionDetails = conversion}, adDetails, timeStamp);
  console::message("Impression Tracked");  // a conversion has no words of its own here
}

}  // namespace marbleway

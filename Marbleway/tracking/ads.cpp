#include <string>

#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/guards.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/json.h"
#include "Marbleway/session/session.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/tracking/validation.h"

using namespace marbleway;

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

// The columns of a row beside the ad's description.
struct AdRow {
  Text session;
  Text type;
  Text interactionType = nullptr;
  Text conversionDetails = nullptr;
};

void insertAd(const AdRow& row, const Dictionary& adDetails, const std::string& timeStamp) {
  insertRow(
      "insert into mrbw_v2_ads (id, SessionID, AdType, AdDetails, InteractionType, ConversionDetails, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?, ?)",
      {row.session, row.type, json::toJSON(adDetails), row.interactionType, row.conversionDetails,
       timeStamp});
}

// Extends the session before the arguments are checked: a call that they refuse extends it too.
std::string extendSession() {
  updateSessionTimeout();
  return getUTCTimeStamp();
}

}  // namespace

void Marbleway::trackAdImpression(const Dictionary& adDetails) noexcept {
  operation(guards::trackAdImpression, nullptr, [&] {
    const auto session = admittedSession(guards::trackAdImpression);
    if (!session) return;
    const std::string timeStamp = extendSession();
    if (!isCompleteAd(adDetails, kImpressionRequires)) return;

    insertAd({.session = *session, .type = "Impression"}, adDetails, timeStamp);
    console::message("Impression Tracked");
  });
}

void Marbleway::trackAdInteraction(const Dictionary& adDetails, Text interactionType) noexcept {
  operation(guards::trackAdInteraction, nullptr, [&] {
    const auto session = admittedSession(guards::trackAdInteraction);
    if (!session) return;
    const std::string timeStamp = extendSession();
    // Only an empty type is refused, not an absent one.
    if (!interactionType.isAbsent() && interactionType.isMissing()) {
      return reportMissing(kInteractionRequires, "interactionType");
    }
    // An interaction shares the impression's errors.
    if (!isCompleteAd(adDetails, kImpressionRequires)) return;

    insertAd({.session = *session, .type = "Interaction", .interactionType = interactionType},
             adDetails, timeStamp);
    console::message("Interaction Tracked");
  });
}

void Marbleway::trackAdConversion(const Dictionary& adDetails,
                                  const Dictionary& conversionDetails) noexcept {
  operation(guards::trackAdConversion, nullptr, [&] {
    const auto session = admittedSession(guards::trackAdConversion);
    if (!session) return;
    const std::string timeStamp = extendSession();
    if (!isCompleteAd(adDetails, kConversionRequires) ||
        !areComplete(conversionDetails, kConversionRequires,
                     {"conversionType", "conversionValue"})) {
      return;
    }

    const OptionalText conversion = json::toJSON(conversionDetails);
    insertAd({.session = *session, .type = "Conversion", .conversionDetails = conversion},
             adDetails, timeStamp);
    console::message("Impression Tracked");  // a conversion shares the impression's message
  });
}

#include "Marbleway/Marbleway.h"

#include "Marbleway/location/location.h"
#include "Marbleway/session/session.h"
#include "Marbleway/startup/options.h"
#include "Marbleway/startup/start.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/tracking/operations.h"
#include "platform/quietly.h"

// The way in: every operation is the free function of its name, from which no exception gets out.

using namespace marbleway;

void Marbleway::initMarbleway(Text projectToken) noexcept {
  quietly([&] { marbleway::initMarbleway(projectToken, defaultOptions()); });
}
void Marbleway::initMarbleway(Text projectToken, const Dictionary& options) noexcept {
  quietly([&] { marbleway::initMarbleway(projectToken, options); });
}

void Marbleway::startSession() noexcept {
  quietly([] { marbleway::startSession(); });
}
void Marbleway::stopSession() noexcept {
  quietly([] { marbleway::stopSession(); });
}

void Marbleway::linkUser(Text userIdentifier, Text identifierType) noexcept {
  quietly([&] { marbleway::linkUser(userIdentifier, identifierType); });
}
void Marbleway::unlinkUser() noexcept {
  quietly([] { marbleway::unlinkUser(); });
}
void Marbleway::setUserAttribute(Text attribute, Text value) noexcept {
  quietly([&] { marbleway::setUserAttribute(attribute, value); });
}
void Marbleway::incrementUserAttribute(Text attribute, const Value& value) noexcept {
  quietly([&] { marbleway::incrementUserAttribute(attribute, value); });
}
void Marbleway::decrementUserAttribute(Text attribute, const Value& value) noexcept {
  quietly([&] { marbleway::decrementUserAttribute(attribute, value); });
}

void Marbleway::linkCompany(Text companyName) noexcept {
  quietly([&] { marbleway::linkCompany(companyName); });
}
void Marbleway::unlinkCompany() noexcept {
  quietly([] { marbleway::unlinkCompany(); });
}
void Marbleway::setCompanyAttribute(Text attribute, Text value) noexcept {
  quietly([&] { marbleway::setCompanyAttribute(attribute, value); });
}
void Marbleway::incrementCompanyAttribute(Text attribute, const Value& value) noexcept {
  quietly([&] { marbleway::incrementCompanyAttribute(attribute, value); });
}
void Marbleway::decrementCompanyAttribute(Text attribute, const Value& value) noexcept {
  quietly([&] { marbleway::decrementCompanyAttribute(attribute, value); });
}

void Marbleway::trackEvent(Text eventName) noexcept {
  quietly([&] { marbleway::trackEvent(eventName, nullptr); });
}
void Marbleway::trackEvent(Text eventName, const Dictionary& attributes) noexcept {
  quietly([&] { marbleway::trackEvent(eventName, &attributes); });
}
void Marbleway::trackScreenView(Text screenName) noexcept {
  quietly([&] { marbleway::trackScreenView(screenName, nullptr); });
}
void Marbleway::trackScreenView(Text screenName, const Dictionary& attributes) noexcept {
  quietly([&] { marbleway::trackScreenView(screenName, &attributes); });
}

void Marbleway::trackAdImpression(const Dictionary& adDetails) noexcept {
  quietly([&] { marbleway::trackAdImpression(adDetails); });
}
void Marbleway::trackAdInteraction(const Dictionary& adDetails, Text interactionType) noexcept {
  quietly([&] { marbleway::trackAdInteraction(adDetails, interactionType); });
}
void Marbleway::trackAdConversion(const Dictionary& adDetails,
                                  const Dictionary& conversionDetails) noexcept {
  quietly([&] { marbleway::trackAdConversion(adDetails, conversionDetails); });
}

void Marbleway::trackDeepLink(Text url) noexcept {
  quietly([&] { marbleway::trackDeepLink(url); });
}
void Marbleway::logError(Text errorName, Text errorMessage,
                         const std::optional<ErrorReport>& exception) noexcept {
  quietly([&] { marbleway::logError(errorName, errorMessage, exception); });
}
void Marbleway::logError(Text errorName, Text errorMessage,
                         const std::exception& exception) noexcept {
  const void* caller = __builtin_return_address(0);
  quietly([&] { marbleway::logError(errorName, errorMessage, exception, caller); });
}

bool Marbleway::getTrackingEnabled() noexcept { return isTrackingEnabled; }
void Marbleway::setTrackingEnabled(bool trackingEnabled) noexcept {
  isTrackingEnabled = trackingEnabled;
}
bool Marbleway::getUploadingEnabled() noexcept { return isUploadingEnabled; }
void Marbleway::setUploadingEnabled(bool uploadingEnabled) noexcept {
  isUploadingEnabled = uploadingEnabled;
}

void Marbleway::setDeviceToken(std::optional<std::span<const std::uint8_t>> deviceToken) noexcept {
  quietly([&] { marbleway::setDeviceToken(deviceToken); });
}
void Marbleway::trackPushNotification(const Dictionary& userInfo) noexcept {
  quietly([&] { marbleway::trackPushNotification(userInfo); });
}

void Marbleway::setLocationMonitoringEnabled(bool enabled) noexcept {
  if (!enabled) return;  // what was started is never stopped
  quietly([] { startLocationMonitoring(); });
}
void Marbleway::didUpdateLocations(platform::LocationManager& /*manager*/,
                                   const std::vector<platform::Location>& /*locations*/) noexcept {}
void Marbleway::didEnterRegion(platform::LocationManager& /*manager*/,
                               const platform::Region& region) noexcept {
  quietly([&] { showRegionAlert("Entered Region", region); });
}
void Marbleway::didExitRegion(platform::LocationManager& /*manager*/,
                              const platform::Region& region) noexcept {
  quietly([&] { showRegionAlert("Exited Region", region); });
}
void Marbleway::didRangeBeacons(platform::LocationManager& /*manager*/,
                                const std::vector<platform::Beacon>& beacons,
                                const platform::BeaconRegion& /*region*/) noexcept {
  quietly([&] { showBeaconAlerts(beacons); });
}

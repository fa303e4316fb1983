#include "Marbleway/session/session.h"

#include <utility>

#include "Marbleway/session/crash.h"
#include "Marbleway/session/profile.h"
#include "Marbleway/session/timers.h"
#include "Marbleway/startup/console.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/upload/batch.h"
#include "platform/platform.h"

namespace marbleway {
namespace {

// Makes a new session where there is none; one that start-up made, or a live one, stays.
void ensureSession() {
  const std::string made = platform::current()->device->newIdentifier();
  std::string startTime = getUTCTimeStamp();  // before there is a session that might lack it
  const auto isMissing = [](const OptionalText& id) { return !id || id->empty(); };
  const bool isNew = sessionID.storeIf(isMissing, made);
  if (isNew) {
    SessionStartTime.store(std::move(startTime));
    isSDKValid = true;
  }
  isValidSession = true;
  if (isNew) keepSession(made);
}

void watchSession() {
  if (isPerformanceMonitoringEnabled) {
    platform::current()->crashHook->install(uncaughtExceptionHandler);
  }
  if (isNetworkMonitoringEnabled) {
    const auto capture = platform::current()->networkCapture;
    capture->defaultConfiguration();
    capture->load();
    capture->registerProtocol();
  }
}

void insertUser(const std::string& identifier) {
  insertRow(
      "insert into mrbw_v2_users (id, SessionID, UserID, TypeID, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
      {sessionID.load(), identifier, "id", getUTCTimeStamp()});
}

void identify(Profile& profile) {
  const bool isPrivate = isPrivacyMode;
  if (isPrivate) profile.PlatformDeviceID = genericDeviceIdentifier();
  insertUser(userIdentifier());
  profile.PrivacyMode = isPrivate ? "Yes" : "No";
  if (isAdvertisingID && !isPrivate) {
    profile.AdvertisingID = platform::current()->device->advertisingIdentifier();
  }
}

void insertSession(const Profile& profile, const OptionalText& startTime) {
  insertRow(
      "insert into mrbw_v2_sessions (id, SessionID, AdvertisingID, ProjectToken, BundleID, PlatformDeviceID,  Manufacturer, Model, OS, OSVersion, AppVersion, Carrier, ConnectionType, TimeZone, PrivacyMode, SDKVersion, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
      {sessionID.load(), profile.AdvertisingID, internalProjectToken.load(), profile.BundleID,
       profile.PlatformDeviceID, profile.Manufacturer, profile.Model, profile.OS, profile.OSVersion,
       profile.AppVersion, profile.Carrier, profile.ConnectionType, profile.TimeZone,
       profile.PrivacyMode, SDKVersion, startTime});
}

}  // namespace

void keepSession(const std::string& identifier) {
  const auto defaults = platform::current()->userDefaults;
  defaults->setText("Marbleway_SharedSessionID", identifier);
  defaults->setFlag("Marbleway_isValidSession", true);
  defaults->synchronize();
}

void updateSessionTimeout() { SessionTime.store(getUTCTimeStamp()); }

void startSession() {
  if (!isSDKValid || !isTrackingEnabled) return;
  ensureSession();
  setDispatchFrequency();
  setSessionTimeout();
  Profile profile = gatherProfile();
  updateSessionTimeout();
  const OptionalText startTime = SessionStartTime.load();
  watchSession();
  identify(profile);
  insertSession(profile, startTime);
}

void stopSession() {
  batchData();
  invalidateTimers();
  sessionID.store(std::nullopt);
  isValidSession = false;
  const auto services = platform::current();
  services->userDefaults->remove("Marbleway_SharedSessionID");
  services->userDefaults->remove("Marbleway_isValidSession");
  services->userDefaults->synchronize();
  if (isNetworkMonitoringEnabled) services->networkCapture->unregisterProtocol();
  console::message("Session Stopped");
}

}  // namespace marbleway

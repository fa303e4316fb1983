#include "Marbleway/session/session.h"

#include <utility>

#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/session/crash.h"
#include "Marbleway/session/profile.h"
#include "Marbleway/session/timers.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/upload/batch.h"

using namespace marbleway;

namespace marbleway {
namespace {

void persistSession(const std::string& identifier) {
  setCrashSession(identifier);
  const auto defaults = platform::current()->userDefaults;
  defaults->setText("Marbleway_SharedSessionID", identifier);
  defaults->setFlag("Marbleway_isValidSession", true);
  defaults->synchronize();
}

// Makes the session valid and returns its identifier. An existing identifier stays; without one a
// new session begins.
std::string ensureSession() {
  std::string identifier = platform::current()->device->newIdentifier();
  const std::string startTime = getUTCTimeStamp();
  const bool isNew = sessionID.update([&](OptionalText& present) {
    const bool isMissing = !present || present->empty();
    if (isMissing) {
      present = identifier;
    } else {
      identifier = *present;
    }
    isValidSession = true;
    return isMissing;
  });
  if (!isNew) return identifier;
  SessionStartTime.store(startTime);
  isSDKValid = true;
  persistSession(identifier);
  return identifier;
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

void insertUser(const std::string& session, const std::string& identifier) {
  insertRow(
      "insert into mrbw_v2_users (id, SessionID, UserID, TypeID, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
      {session, identifier, "id", getUTCTimeStamp()});
}

void identify(const std::string& session, Profile& profile) {
  const bool isPrivate = isPrivacyMode;
  if (isPrivate) profile.PlatformDeviceID = genericDeviceIdentifier();
  insertUser(session, userIdentifier());
  profile.PrivacyMode = isPrivate ? "Yes" : "No";
  if (isAdvertisingID && !isPrivate) {
    profile.AdvertisingID = platform::current()->device->advertisingIdentifier();
  }
}

void insertSession(const std::string& session, const Profile& profile,
                   const OptionalText& startTime) {
  insertRow(
      "insert into mrbw_v2_sessions (id, SessionID, AdvertisingID, ProjectToken, BundleID, PlatformDeviceID,  Manufacturer, Model, OS, OSVersion, AppVersion, Carrier, ConnectionType, TimeZone, PrivacyMode, SDKVersion, UTCTimeStamp) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
      {session, profile.AdvertisingID, internalProjectToken.load(), profile.BundleID,
       profile.PlatformDeviceID, profile.Manufacturer, profile.Model, profile.OS, profile.OSVersion,
       profile.AppVersion, profile.Carrier, profile.ConnectionType, profile.TimeZone,
       profile.PrivacyMode, SDKVersion, startTime});
}

}  // namespace

void beginSession() {
  const std::string identifier = platform::current()->device->newIdentifier();
  sessionID.update([&](OptionalText& present) {
    present = identifier;
    isValidSession = true;
  });
  persistSession(identifier);
}

void updateSessionTimeout() { SessionTime.store(getUTCTimeStamp()); }

std::optional<std::string> openSession() {
  if (!isSDKValid || !isTrackingEnabled) return std::nullopt;
  const std::string session = ensureSession();
  updateSessionTimeout();  // the first check must not find it later than its own start
  setDispatchFrequency();
  setSessionTimeout();
  Profile profile = gatherProfile();
  updateSessionTimeout();
  const OptionalText startTime = SessionStartTime.load();
  watchSession();
  identify(session, profile);
  insertSession(session, profile, startTime);
  return session;
}

}  // namespace marbleway

void Marbleway::startSession() noexcept {
  operation([] { openSession(); });
}

void Marbleway::stopSession() noexcept {
  operation([] {
    batchData();
    invalidateTimers();
    sessionID.update([](OptionalText& present) {
      present.reset();
      isValidSession = false;
    });
    const auto services = platform::current();
    services->userDefaults->remove("Marbleway_SharedSessionID");
    services->userDefaults->remove("Marbleway_isValidSession");
    services->userDefaults->synchronize();
    if (isNetworkMonitoringEnabled) services->networkCapture->unregisterProtocol();
    console::message("Session Stopped");
  });
}

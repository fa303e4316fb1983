#include "Marbleway/session/session.h"

#include <utility>

#include "Marbleway/Marbleway.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/catch_all.h"
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
  catchAll(persistSession);
  return identifier;
}

void endSession() {
  sessionID.update([](OptionalText& present) {
    present.reset();
    isValidSession = false;
  });
}

void removePersistedSession() {
  const auto defaults = platform::current()->userDefaults;
  defaults->remove("Marbleway_SharedSessionID");
  defaults->remove("Marbleway_isValidSession");
  defaults->synchronize();
}

void stopCapture() {
  if (isNetworkMonitoringEnabled) platform::current()->networkCapture->unregisterProtocol();
}

void startMonitoring() {
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

void insertUser(const std::string& session) {
  insertRow(
      "insert into mrbw_v2_users (id, SessionID, UserID, TypeID, UTCTimeStamp) VALUES (?, ?, ?, ?, ?)",
      {session, userIdentifier(), "id", getUTCTimeStamp()});
}

// Writes the user's row and completes the profile. False when a part of the profile is missing.
bool recordUser(const std::string& session, Profile& profile) {
  const bool isPrivate = isPrivacyMode;
  const bool hasDevice =
      !isPrivate || catchAll([&] { profile.PlatformDeviceID = genericDeviceIdentifier(); });
  catchAll([&] { insertUser(session); });
  return hasDevice && catchAll([&] {
           const auto device = platform::current()->device;
           profile.PrivacyMode = isPrivate ? "Yes" : "No";
           if (isPrivate) return;
           profile.PlatformDeviceID = device->vendorIdentifier();
           if (isAdvertisingID) profile.AdvertisingID = device->advertisingIdentifier();
         });
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
}

void persistSession() {
  const OptionalText identifier = sessionID.load();
  if (!identifier) return;  // another thread has ended it
  setCrashSession(*identifier);
  const auto defaults = platform::current()->userDefaults;
  defaults->setText("Marbleway_SharedSessionID", *identifier);
  defaults->setFlag("Marbleway_isValidSession", true);
  defaults->synchronize();
}

void updateSessionTimeout() { SessionTime.store(getUTCTimeStamp()); }

// Each step catches its own exceptions, so that a step that fails skips no other. Only the
// session's row needs the whole profile: it is lost with any part.
std::optional<std::string> openSession() {
  if (!isSDKValid || !isTrackingEnabled) return std::nullopt;
  const std::string session = ensureSession();
  catchAll(updateSessionTimeout);  // before the timer that checks it
  catchAll(setDispatchFrequency);
  catchAll(setSessionTimeout);
  Profile profile;
  OptionalText startTime;
  const bool isGathered = catchAll([&] { profile = gatherProfile(); });
  catchAll(updateSessionTimeout);
  catchAll([&] { startTime = SessionStartTime.load(); });
  catchAll(startMonitoring);
  if (recordUser(session, profile) && isGathered) insertSession(session, profile, startTime);
  return session;
}

}  // namespace marbleway

void Marbleway::startSession() noexcept {
  operation([] { openSession(); });
}

void Marbleway::stopSession() noexcept {
  operation([] {
    catchAll(batchData);
    invalidateTimers();
    catchAll(endSession);
    catchAll(removePersistedSession);
    catchAll(stopCapture);
    console::message("Session Stopped");
  });
}

#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <span>
#include <vector>

#include "platform/export.h"
#include "platform/location.h"
#include "platform/value.h"

/// Analytics and attribution: what happens in the application is written row by row to a store on
/// the device, sent to the collection server, and deleted once the server has taken it.
///
/// No operation throws or reports a failure: a console line tells what became of a call, and only
/// while logging is on. A row is on disk, or lost, when the call returns. Thread: any, unless told.
///
/// The operations that record people, companies, ads and errors are refused before start-up, with
/// tracking off and without a session; those of users and companies in privacy mode too. The
/// refusal is a warning that names the reason. docs/data.md shows each row.
class MARBLEWAY_EXPORT Marbleway {
 public:
  Marbleway() = delete;

  /// Starts the library for the project of `projectToken` with the default options.
  ///
  /// Like the other form with logging, tracking, uploading and performance monitoring on, privacy
  /// mode and network monitoring off, an upload every 30 s, sessions of 300 s, production server.
  static void initMarbleway(marbleway::Text projectToken) noexcept;

  /// Starts the library: makes the stores, drops rows of more than thirty days, reads `options`,
  /// and asks the server for the project's configuration, whose answer starts the session.
  ///
  /// Options left out take their own defaults: privacy mode and network monitoring are then ON.
  /// The README lists the ten options. Repeating the call starts anew. Thread: the main one.
  static void initMarbleway(marbleway::Text projectToken,
                            const marbleway::Dictionary& options) noexcept;

  /// Starts a session: a row in `mrbw_v2_sessions` with the device's profile, one in
  /// `mrbw_v2_users`, and the timers of upload and expiry.
  ///
  /// Does nothing before start-up or with tracking off. The library calls it by itself after
  /// start-up, and at an event or screen view that finds no session.
  static void startSession() noexcept;

  /// Ends the session, whatever the state: one more upload is begun, the timers stop.
  static void stopSession() noexcept;

  /// Links the app's user: a row in `mrbw_v2_users`.
  ///
  /// `identifierType` is "id", "generic_id" or "email"; any other is ignored in silence. An "id" or
  /// "generic_id" is remembered until `unlinkUser`. Keeps the session alive. Refused when the
  /// identifier is absent or empty, or is no e-mail address where one is told.
  static void linkUser(marbleway::Text userIdentifier, marbleway::Text identifierType) noexcept;

  /// Forgets the linked user and ends the session, whatever the state. Writes no row, and no line
  /// but that of the session's end.
  static void unlinkUser() noexcept;

  /// Sets an attribute of the user: a row in `mrbw_v2_user_attributes`.
  ///
  /// "EmailAddress", "Website" and "Phone" are checked; "Company" is ignored in silence. Keeps the
  /// session alive. Refused when the name is absent or empty, or the value does not pass its check.
  static void setUserAttribute(marbleway::Text attribute, marbleway::Text value) noexcept;

  /// Adds to an attribute of the user: a row in `mrbw_v2_user_attributes` with the amount.
  ///
  /// Keeps the session alive. Refused when the name is absent or empty; the value is not checked.
  static void incrementUserAttribute(marbleway::Text attribute,
                                     const marbleway::Value& value) noexcept;
  /// Takes from an attribute of the user; otherwise like the increment, warnings included.
  static void decrementUserAttribute(marbleway::Text attribute,
                                     const marbleway::Value& value) noexcept;

  /// Links the app's user to the company named `companyName`: a row in `mrbw_v2_companies`.
  ///
  /// Keeps the session alive. Refused when the name is absent or empty.
  static void linkCompany(marbleway::Text companyName) noexcept;

  /// Unlinks the company: the user attribute "CompanyID" is set to "0", under that operation's
  /// refusals. The line "Company Unlinked" follows in every case.
  static void unlinkCompany() noexcept;

  /// Sets an attribute of the company: a row in `mrbw_v2_company_attributes`.
  ///
  /// "DomainName" and "Phone" are checked. Keeps the session alive. Refused when the name is absent
  /// or empty, or the value does not pass its check.
  static void setCompanyAttribute(marbleway::Text attribute, marbleway::Text value) noexcept;

  /// Adds to an attribute of the company: a row in `mrbw_v2_company_attributes` with the amount.
  ///
  /// Keeps the session alive. Refused when the name is absent or empty; the value is not checked.
  static void incrementCompanyAttribute(marbleway::Text attribute,
                                        const marbleway::Value& value) noexcept;
  /// Takes from an attribute of the company; otherwise like the increment, warnings included.
  static void decrementCompanyAttribute(marbleway::Text attribute,
                                        const marbleway::Value& value) noexcept;

  /// Records an event: a row in `mrbw_v2_events`, in privacy mode too.
  ///
  /// Starts a session when there is none, and keeps it alive. Refused before start-up and with
  /// tracking off. The name is not checked.
  static void trackEvent(marbleway::Text eventName) noexcept;
  /// Records an event with attributes, stored as JSON. A "Value" or "value" that is not a number
  /// draws an error line; the row is written all the same.
  static void trackEvent(marbleway::Text eventName,
                         const marbleway::Dictionary& attributes) noexcept;

  /// Records a screen view: a row in `mrbw_v2_screen_views`; otherwise like an event.
  static void trackScreenView(marbleway::Text screenName) noexcept;
  /// Records a screen view with attributes; otherwise like an event with attributes.
  static void trackScreenView(marbleway::Text screenName,
                              const marbleway::Dictionary& attributes) noexcept;

  /// Records that an ad was shown: a row in `mrbw_v2_ads`.
  ///
  /// `adDetails` must hold "adID", "adName", "adType", "adCategory", "orgID" and "orgName". Keeps
  /// the session alive, even when a missing key then refuses the row.
  static void trackAdImpression(const marbleway::Dictionary& adDetails) noexcept;
  /// Records that the user acted on an ad; otherwise like an impression. An empty `interactionType`
  /// refuses the row, an absent one does not.
  static void trackAdInteraction(const marbleway::Dictionary& adDetails,
                                 marbleway::Text interactionType) noexcept;
  /// Records that an ad did its work; otherwise like an impression. `conversionDetails` must hold
  /// "conversionType" and "conversionValue".
  static void trackAdConversion(const marbleway::Dictionary& adDetails,
                                const marbleway::Dictionary& conversionDetails) noexcept;

  /// Records the link that opened the application: a row in `mrbw_v2_deep_links` with its query's
  /// "mrbw_dlid". Nothing refuses it; without that parameter it does nothing.
  static void trackDeepLink(marbleway::Text url) noexcept;

  /// Records an error that the application caught: a row in `mrbw_v2_errors`.
  ///
  /// Keeps the session alive. Without an exception no row is written, though the line says so.
  static void logError(marbleway::Text errorName, marbleway::Text errorMessage,
                       const std::optional<marbleway::ErrorReport>& exception) noexcept;
  /// Records a caught exception with its type, its `what()` and the call stack of this call.
  static void logError(marbleway::Text errorName, marbleway::Text errorMessage,
                       const std::exception& exception) noexcept;

  /// Whether rows are recorded. The switch lasts until the next start-up.
  static bool getTrackingEnabled() noexcept;
  /// Switches recording on or off, until the next start-up reads the options again.
  static void setTrackingEnabled(bool trackingEnabled) noexcept;

  /// Whether rows are uploaded. The switch lasts until the next start-up.
  static bool getUploadingEnabled() noexcept;
  /// Switches uploading on or off, until the next start-up reads the options again.
  static void setUploadingEnabled(bool uploadingEnabled) noexcept;

  /// Records the device's push token as the user attribute "ApplePushToken", under the refusals of
  /// `setUserAttribute`. An absent token does nothing.
  static void setDeviceToken(std::optional<std::span<const std::uint8_t>> deviceToken) noexcept;

  /// Records a push message of the collection service: a row in `mrbw_v2_messages`; then clears the
  /// badge and opens the link that the message asks for. Nothing refuses it; a message of another
  /// sender does nothing. Thread: the one of the application's user interface.
  static void trackPushNotification(const marbleway::Dictionary& userInfo) noexcept;

  /// Starts location updates, the watch over the configured sites, and beacon ranging.
  ///
  /// False does nothing: what was started runs until the process ends. Works before start-up too.
  static void setLocationMonitoringEnabled(bool enabled) noexcept;

  /// The callbacks of the location manager. Thread: the one of the user interface.
  static void didUpdateLocations(
      marbleway::platform::LocationManager& manager,
      const std::vector<marbleway::platform::Location>& locations) noexcept;
  /// Shows an alert with the region's identifier.
  static void didEnterRegion(marbleway::platform::LocationManager& manager,
                             const marbleway::platform::Region& region) noexcept;
  /// Shows an alert with the region's identifier.
  static void didExitRegion(marbleway::platform::LocationManager& manager,
                            const marbleway::platform::Region& region) noexcept;
  /// Shows an alert for each beacon whose signal strength is exactly -28 dBm.
  static void didRangeBeacons(marbleway::platform::LocationManager& manager,
                              const std::vector<marbleway::platform::Beacon>& beacons,
                              const marbleway::platform::BeaconRegion& region) noexcept;
};

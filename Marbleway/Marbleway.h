#pragma once

#if __cplusplus < 202002L
#error "Marbleway needs C++20: compile with -std=c++20 or later"
#endif

#include <cstdint>
#include <exception>
#include <optional>
#include <span>
#include <vector>

#include "platform/export.h"
#include "platform/location.h"
#include "platform/value.h"

/// Analytics and attribution: each operation writes what happened in the application as a row to a
/// store on the device. The rows are uploaded to the collection server and deleted after its 200.
///
/// No operation throws or reports a failure. While logging is on, a console line reports the
/// outcome of a call. When a call returns, its row is on disk or lost. Thread: any; the services of
/// the host are called on the thread of the operation.
///
/// The operations for users, companies, ads and errors are refused before start-up, after the
/// server has refused the project, with tracking off and without a valid session; those for users
/// and companies in privacy mode too. A refused call writes one warning with the reason and no row.
/// docs/data.md describes each row.
class MARBLEWAY_EXPORT Marbleway {
 public:
  Marbleway() = delete;

  /// Starts the library for the project of `projectToken` with the default options.
  ///
  /// Logging, tracking, uploading and performance monitoring are on, privacy mode and network
  /// monitoring are off. Rows are uploaded every 30 s to the production server. A session ends
  /// after 300 s of inactivity. Otherwise like the second form.
  static void initMarbleway(marbleway::Text projectToken) noexcept;

  /// Starts the library: creates the stores, deletes rows older than thirty days, reads `options`,
  /// and asks the server for the project's configuration. A 200, or no answer at all, starts the
  /// session; any other answer refuses the project.
  ///
  /// A missing option takes its own default: privacy mode and network monitoring are then ON. The
  /// README lists the ten options. A further call starts again; if the earlier start was answered,
  /// it uploads pending rows at once, with the new token and to the new server. Reads and writes
  /// files on the calling thread, and does not wait for the server.
  static void initMarbleway(marbleway::Text projectToken,
                            const marbleway::Dictionary& options) noexcept;

  /// Starts a session: writes a row in `mrbw_v2_sessions` with the device's profile and one in
  /// `mrbw_v2_users`, and starts the timers of upload and expiry.
  ///
  /// In a valid session it writes two more rows and starts two more timers; the earlier timers go
  /// on. Does nothing before start-up, after a refusal by the server, or with tracking off. The
  /// library calls it after the handshake, and for an event or screen view without a session.
  static void startSession() noexcept;

  /// Ends the session: begins an upload, stops the latest two timers, clears the session.
  ///
  /// Nothing refuses it, but the upload has its own conditions: the latest handshake was answered,
  /// the project is not refused, a session is valid, tracking and uploading are on, fewer than four
  /// uploads are in flight, and there is a row. Timers of an earlier `startSession` go on; without
  /// a session they upload nothing.
  static void stopSession() noexcept;

  /// Links the app's user: writes a row in `mrbw_v2_users`.
  ///
  /// `identifierType` is "id", "generic_id" or "email"; with any other the call does nothing. An
  /// "id" or "generic_id" is stored until `unlinkUser`, and each new session writes it in its user
  /// row. Renews the session. Refused when the identifier is absent or empty, or when an "email" is
  /// malformed.
  static void linkUser(marbleway::Text userIdentifier, marbleway::Text identifierType) noexcept;

  /// Removes the stored user, then does what `stopSession` does. Writes no row and no line of its
  /// own. Nothing refuses it.
  static void unlinkUser() noexcept;

  /// Sets an attribute of the user: writes a row in `mrbw_v2_user_attributes`.
  ///
  /// The values of "EmailAddress", "Website" and "Phone" are checked; with "Company" the call does
  /// nothing. Renews the session. Refused when the name is absent or empty, or the value fails its
  /// check.
  static void setUserAttribute(marbleway::Text attribute, marbleway::Text value) noexcept;

  /// Adds to an attribute of the user: writes a row in `mrbw_v2_user_attributes` with the amount.
  ///
  /// Renews the session. Refused when the name is absent or empty; the value is not checked.
  static void incrementUserAttribute(marbleway::Text attribute,
                                     const marbleway::Value& value) noexcept;
  /// Subtracts from an attribute of the user; otherwise like the increment, warnings included.
  static void decrementUserAttribute(marbleway::Text attribute,
                                     const marbleway::Value& value) noexcept;

  /// Links the app's user to the company named `companyName`: writes a row in `mrbw_v2_companies`.
  ///
  /// Renews the session. Refused when the name is absent or empty.
  static void linkCompany(marbleway::Text companyName) noexcept;

  /// Unlinks the company: sets the user attribute "CompanyID" to "0", with the refusals of
  /// `setUserAttribute`. Writes the line "Company Unlinked" in every case, after a refusal too.
  static void unlinkCompany() noexcept;

  /// Sets an attribute of the company: writes a row in `mrbw_v2_company_attributes`.
  ///
  /// The values of "DomainName" and "Phone" are checked. Renews the session. Refused when the name
  /// is absent or empty, or the value fails its check.
  static void setCompanyAttribute(marbleway::Text attribute, marbleway::Text value) noexcept;

  /// Adds to an attribute of the company: writes a row in `mrbw_v2_company_attributes` with the
  /// amount.
  ///
  /// Renews the session. Refused when the name is absent or empty; the value is not checked.
  static void incrementCompanyAttribute(marbleway::Text attribute,
                                        const marbleway::Value& value) noexcept;
  /// Subtracts from an attribute of the company; otherwise like the increment, warnings included.
  static void decrementCompanyAttribute(marbleway::Text attribute,
                                        const marbleway::Value& value) noexcept;

  /// Records an event: writes a row in `mrbw_v2_events`, in privacy mode too.
  ///
  /// Starts a session when none is valid, and renews it. Refused before start-up, after a refusal
  /// by the server, and with tracking off. The name is not checked.
  static void trackEvent(marbleway::Text eventName) noexcept;
  /// Records an event with attributes, stored as JSON. A "Value" or "value" that is neither a
  /// number nor the text of one writes an error line; the row is written all the same.
  static void trackEvent(marbleway::Text eventName,
                         const marbleway::Dictionary& attributes) noexcept;

  /// Records a screen view: writes a row in `mrbw_v2_screen_views`; otherwise like an event.
  static void trackScreenView(marbleway::Text screenName) noexcept;
  /// Records a screen view with attributes; otherwise like an event with attributes.
  static void trackScreenView(marbleway::Text screenName,
                              const marbleway::Dictionary& attributes) noexcept;

  /// Records that an ad was shown: writes a row in `mrbw_v2_ads`.
  ///
  /// `adDetails` must contain "adID", "adName", "adType", "adCategory", "orgID" and "orgName";
  /// otherwise an error line names the first missing key, and there is no row. Renews the session
  /// in both cases.
  static void trackAdImpression(const marbleway::Dictionary& adDetails) noexcept;
  /// Records that the user interacted with an ad; otherwise like an impression. An empty
  /// `interactionType` is refused, an absent one is not.
  static void trackAdInteraction(const marbleway::Dictionary& adDetails,
                                 marbleway::Text interactionType) noexcept;
  /// Records that an ad led to a conversion; otherwise like an impression. `conversionDetails` must
  /// contain "conversionType" and "conversionValue".
  static void trackAdConversion(const marbleway::Dictionary& adDetails,
                                const marbleway::Dictionary& conversionDetails) noexcept;

  /// Records the link that opened the application: writes a row in `mrbw_v2_deep_links` with the
  /// value of "mrbw_dlid" in its query.
  ///
  /// Without that parameter the call does nothing. Nothing refuses it: the row is written with
  /// tracking off and after a refusal by the server too. Before the very first start there is no
  /// store, and the row is lost.
  static void trackDeepLink(marbleway::Text url) noexcept;

  /// Records an error that the application caught: writes a row in `mrbw_v2_errors`.
  ///
  /// Renews the session. Without an exception the line "Error Tracked" is written, but no row.
  static void logError(marbleway::Text errorName, marbleway::Text errorMessage,
                       const std::optional<marbleway::ErrorReport>& exception) noexcept;
  /// Records a caught exception with its type, its `what()` and the call stack of this call.
  static void logError(marbleway::Text errorName, marbleway::Text errorMessage,
                       const std::exception& exception) noexcept;

  /// Whether tracking is on.
  static bool getTrackingEnabled() noexcept;
  /// Turns tracking on or off, until the next start-up reads the options again. Off, every guarded
  /// operation is refused and nothing is uploaded.
  static void setTrackingEnabled(bool trackingEnabled) noexcept;

  /// Whether uploading is on.
  static bool getUploadingEnabled() noexcept;
  /// Turns uploading on or off, until the next start-up reads the options again.
  static void setUploadingEnabled(bool uploadingEnabled) noexcept;

  /// Records the device's push token as the user attribute "ApplePushToken", with the refusals of
  /// `setUserAttribute`. Does nothing for an absent token.
  static void setDeviceToken(std::optional<std::span<const std::uint8_t>> deviceToken) noexcept;

  /// Records a push message of the collection service: writes a row in `mrbw_v2_messages`, clears
  /// the badge and opens the link that the message asks for.
  ///
  /// Does nothing for a message without the mark "mrbw_data". A marked message without an
  /// identifier writes no row; the rest is done, the line included. Nothing refuses the call. Calls
  /// the host's user interface on the calling thread.
  static void trackPushNotification(const marbleway::Dictionary& userInfo) noexcept;

  /// Starts location updates, the monitoring of the configured sites, and beacon ranging.
  ///
  /// Does nothing for false: monitoring ends with the process or with `marbleway::shutdown`. Works
  /// before start-up too. Calls the host's location manager on the calling thread.
  static void setLocationMonitoringEnabled(bool enabled) noexcept;

  /// A callback of the location manager, like the next three. It does nothing; the others call the
  /// host's user interface on the calling thread.
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

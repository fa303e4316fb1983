#pragma once

/// @file
/// The library for programs in C, and for every language that calls C.
///
/// The functions are the operations of `Marbleway` and of Marbleway/Host.h under C names; what each
/// writes, and what refuses it, stands there. This file tells only what differs.
///
/// Texts are UTF-8 and end with a NUL; a null pointer is an absent text. Dictionaries and values
/// are JSON texts; a null pointer, or the JSON text `null`, is an absent one. Everything is read
/// during the call and copied where it is kept: nothing that is handed over has to outlive the
/// call, and nothing that is returned has to be freed.
///
/// Operations return a `marbleway_status`. A JSON text that is none, or that holds no dictionary
/// where one is asked for, makes the operation do nothing. All else is 0, whether a row was written
/// or the call was refused: a console line tells. No exception leaves a function.
///
/// The callbacks of a location manager are left out, and no part of the platform can be replaced:
/// both are interfaces of C++. A process uses this library or the one of C++, not both, unless this
/// one was built upon the shared library. Thread: any, unless told.
///
/// A runtime that lives with fatal signals (null checks by SIGSEGV, as virtual machines make them)
/// starts with the option "PerformanceMonitoringEnabled" off: each would count as a crash.

#include <stddef.h>  // NOLINT(modernize-deprecated-headers): C has no other
#include <stdint.h>  // NOLINT(modernize-deprecated-headers)

#ifdef __cplusplus
extern "C" {
#endif

/// What an operation returns.
enum marbleway_status {
  MARBLEWAY_OK = 0,        ///< The call was made.
  MARBLEWAY_BAD_JSON = 1,  ///< No JSON text, or none of the kind asked for; nothing was done.
  MARBLEWAY_REFUSED = 2    ///< `marbleway_configure` found a wrong member; nothing was done.
};

/// The library's version, such as "2.2.0". Valid as long as the process runs.
const char* marbleway_version(void);

/// Takes the host's configuration: a dictionary with any of "documentsDirectory", "developmentURL",
/// "testURL", "productionURL", "bundleIdentifier" and "appVersion", all texts, and "sites", three
/// dictionaries of "latitude" and "longitude" in degrees. What is left out takes its default.
///
/// Call before `marbleway_init`. MARBLEWAY_REFUSED: another key, a value of another kind, or a URL
/// that is not http or https with a host and a path ending in "/v2/".
int marbleway_configure(const char* configuration_json);

/// Waits until nothing is under way, as long as so many milliseconds. 1 when idle, else 0.
int marbleway_wait_until_idle(int64_t milliseconds);

/// Starts the library with the default options, privacy mode off. Thread: the main one.
int marbleway_init(const char* project_token);

/// Starts the library. Options that are left out take their own defaults, privacy mode ON; absent
/// options are an empty dictionary. Thread: the main one.
int marbleway_init_with_options(const char* project_token, const char* options_json);

/// Starts a session.
int marbleway_start_session(void);

/// Begins an upload and ends the session.
int marbleway_stop_session(void);

/// Links the app's user; the type is "id", "generic_id" or "email".
int marbleway_link_user(const char* user_identifier, const char* identifier_type);

/// Forgets the linked user and ends the session.
int marbleway_unlink_user(void);

/// Sets an attribute of the user.
int marbleway_set_user_attribute(const char* attribute, const char* value);

/// Adds to an attribute of the user; the amount is a JSON value of any kind.
int marbleway_increment_user_attribute(const char* attribute, const char* value_json);

/// Takes from an attribute of the user; the amount is a JSON value of any kind.
int marbleway_decrement_user_attribute(const char* attribute, const char* value_json);

/// Links the app's user to a company.
int marbleway_link_company(const char* company_name);

/// Unlinks the company.
int marbleway_unlink_company(void);

/// Sets an attribute of the company.
int marbleway_set_company_attribute(const char* attribute, const char* value);

/// Adds to an attribute of the company; the amount is a JSON value of any kind.
int marbleway_increment_company_attribute(const char* attribute, const char* value_json);

/// Takes from an attribute of the company; the amount is a JSON value of any kind.
int marbleway_decrement_company_attribute(const char* attribute, const char* value_json);

/// Records an event; absent attributes are NULL in its row.
int marbleway_track_event(const char* event_name, const char* attributes_json);

/// Records a screen view; absent attributes are NULL in its row.
int marbleway_track_screen_view(const char* screen_name, const char* attributes_json);

/// Records that an ad was shown; absent details are an empty dictionary, which is refused.
int marbleway_track_ad_impression(const char* ad_details_json);

/// Records that the user acted on an ad.
int marbleway_track_ad_interaction(const char* ad_details_json, const char* interaction_type);

/// Records that an ad did its work.
int marbleway_track_ad_conversion(const char* ad_details_json, const char* conversion_details_json);

/// Records the link that opened the application.
int marbleway_track_deep_link(const char* url);

/// Records an error that the application has handled, with the call stack of this call.
///
/// `type` says what kind of error it is ("ExceptionName" in the row), `reason` why it came about,
/// `user_info_json` what else is known. Without these three there is no error to tell of: no row.
int marbleway_log_error(const char* error_name, const char* error_message, const char* type,
                        const char* reason, const char* user_info_json);

/// Whether rows are recorded: 1 or 0.
int marbleway_get_tracking_enabled(void);

/// Switches recording on (any number but 0) or off, until the next start-up.
int marbleway_set_tracking_enabled(int enabled);

/// Whether rows are uploaded: 1 or 0.
int marbleway_get_uploading_enabled(void);

/// Switches uploading on (any number but 0) or off, until the next start-up.
int marbleway_set_uploading_enabled(int enabled);

/// Records the device's push token of so many bytes; a null pointer is an absent one.
int marbleway_set_device_token(const uint8_t* bytes, size_t count);

/// Records a push message of the collection service. Thread: the user interface's.
int marbleway_track_push_notification(const char* user_info_json);

/// Starts location monitoring; 0 does nothing.
int marbleway_set_location_monitoring_enabled(int enabled);

#ifdef __cplusplus
}
#endif

#pragma once

/// @file
/// The library for C, and for every language that calls C.
///
/// The functions are the operations of `Marbleway` and of Marbleway/Host.h under C names. Those
/// headers describe what each writes and what refuses it; this one describes the differences.
///
/// A text is UTF-8 and ends with a NUL; a null pointer is an absent text. A dictionary or a value
/// is a JSON text; a null pointer, or the JSON text `null`, is an absent one. Arguments are read
/// during the call only. The caller frees nothing that is returned.
///
/// Operations return a `marbleway_status`. An invalid JSON text, or one without a dictionary where
/// one is expected, makes the operation do nothing. Otherwise the result is MARBLEWAY_OK, whether
/// a row was written or the call was refused; a console line reports that. No exception leaves a
/// function. Thread: any.
///
/// There are no callbacks of a location manager, and no part of the platform can be replaced: both
/// are C++ interfaces. A process uses either this library or the C++ one, unless both were built
/// with `BUILD_SHARED_LIBS=ON`.
///
/// A runtime that recovers from faults (null checks by SIGSEGV, as virtual machines make them)
/// installs its handlers before the library starts: a fault from which they recover is no crash.

#include <stddef.h>  // NOLINT(modernize-deprecated-headers): C has no other
#include <stdint.h>  // NOLINT(modernize-deprecated-headers)

#ifdef __cplusplus
extern "C" {
#endif

/// The result of an operation.
enum marbleway_status {
  MARBLEWAY_OK = 0,        ///< The operation was called.
  MARBLEWAY_BAD_JSON = 1,  ///< The JSON is invalid or of the wrong kind; nothing was done.
  MARBLEWAY_REFUSED = 2    ///< `marbleway_configure` refused a member; nothing was done.
};

/// The library's version, such as "2.2.0". Valid until the process ends.
const char* marbleway_version(void);

/// Sets the host's configuration: a dictionary with any of "documentsDirectory", "developmentURL",
/// "testURL", "productionURL", "bundleIdentifier" and "appVersion", all texts; "sites", three
/// dictionaries of "latitude" and "longitude" in degrees; "uploadOnStart", a boolean. A missing
/// member takes its default.
///
/// Call it before `marbleway_init`. Returns MARBLEWAY_REFUSED for an unknown key, a value of
/// another kind, a URL that is not http or https with a host and a path ending in "/v2/", and a
/// relative directory without a working directory.
int marbleway_configure(const char* configuration_json);

/// Receives a diagnostic, a dictionary with "kind" ("handshake", "batch", "store", "settings",
/// "crash" or "refusal"), "isFailure", "outcome", "error", "httpStatus", "url", "rows", "bytes",
/// "milliseconds", "operation", "key", "time" (seconds since 1970) and "line", the diagnostic as
/// one line. `Diagnostic` in Marbleway/Host.h describes each. The text is valid during the call.
// NOLINTNEXTLINE(modernize-use-using): C has no other
typedef void (*marbleway_diagnostics)(const char* diagnostic_json, void* context);

/// `marbleway_configure` with a function for diagnostics. It is called on the library's main loop,
/// one call at a time, and gets `context` with each. A null pointer: no function.
int marbleway_configure_with_diagnostics(const char* configuration_json,
                                         marbleway_diagnostics function, void* context);

/// Writes the library's state to `json`, which has room for `size` bytes, as a dictionary of the
/// members of `Status` in Marbleway/Host.h; absent ones are null. "pending" is an array of
/// dictionaries of "table", "rows" and "bytes", which is empty unless `count_rows` is another
/// number than 0.
///
/// Returns the length of the text without its NUL, 0 without memory. If that is `size` or more,
/// only an empty text has been written.
size_t marbleway_get_status(int count_rows, char* json, size_t size);

/// Waits until nothing is in flight, at most `milliseconds`. 1 when idle, else 0.
int marbleway_wait_until_idle(int64_t milliseconds);

/// Begins an upload if its conditions hold; the session goes on. Does not wait for the server.
int marbleway_upload_now(void);

/// Gives the calling thread an alternate stack for signals, if it has none, so that an overflow of
/// its stack can be recorded. With performance monitoring on, each thread gets one with its first
/// operation; call this on threads that call none.
void marbleway_watch_thread(void);

/// Stops and joins the library's threads, ends its timers and requests, and gives signal handlers
/// back. `marbleway_init` starts the library again. Call it while no other thread is in a call.
int marbleway_shutdown(void);

/// Starts the library with the default options, privacy mode off.
int marbleway_init(const char* project_token);

/// Starts the library. A missing option takes its own default, for privacy mode ON; absent options
/// are an empty dictionary.
int marbleway_init_with_options(const char* project_token, const char* options_json);

/// Starts a session.
int marbleway_start_session(void);

/// Ends the session; begins an upload if its conditions hold.
int marbleway_stop_session(void);

/// Links the app's user; the type is "id", "generic_id" or "email".
int marbleway_link_user(const char* user_identifier, const char* identifier_type);

/// Removes the stored user and ends the session.
int marbleway_unlink_user(void);

/// Sets an attribute of the user.
int marbleway_set_user_attribute(const char* attribute, const char* value);

/// Adds to an attribute of the user; the amount is a JSON value of any kind.
int marbleway_increment_user_attribute(const char* attribute, const char* value_json);

/// Subtracts from an attribute of the user; the amount is a JSON value of any kind.
int marbleway_decrement_user_attribute(const char* attribute, const char* value_json);

/// Links the app's user to a company.
int marbleway_link_company(const char* company_name);

/// Unlinks the company.
int marbleway_unlink_company(void);

/// Sets an attribute of the company.
int marbleway_set_company_attribute(const char* attribute, const char* value);

/// Adds to an attribute of the company; the amount is a JSON value of any kind.
int marbleway_increment_company_attribute(const char* attribute, const char* value_json);

/// Subtracts from an attribute of the company; the amount is a JSON value of any kind.
int marbleway_decrement_company_attribute(const char* attribute, const char* value_json);

/// Records an event; absent attributes are NULL in its row.
int marbleway_track_event(const char* event_name, const char* attributes_json);

/// Records a screen view; absent attributes are NULL in its row.
int marbleway_track_screen_view(const char* screen_name, const char* attributes_json);

/// Records that an ad was shown; absent details are an empty dictionary, which is refused.
int marbleway_track_ad_impression(const char* ad_details_json);

/// Records that the user interacted with an ad.
int marbleway_track_ad_interaction(const char* ad_details_json, const char* interaction_type);

/// Records that an ad led to a conversion.
int marbleway_track_ad_conversion(const char* ad_details_json, const char* conversion_details_json);

/// Records the link that opened the application.
int marbleway_track_deep_link(const char* url);

/// Records an error that the application has handled, with the call stack of this call.
///
/// `type` is the kind of the error ("ExceptionName" in the row), `reason` its cause, and
/// `user_info_json` a dictionary of further facts. If `type` and `reason` are absent and the
/// dictionary is absent or empty ("{}"), the line is written and no row.
int marbleway_log_error(const char* error_name, const char* error_message, const char* type,
                        const char* reason, const char* user_info_json);

/// Whether tracking is on: 1 or 0.
int marbleway_get_tracking_enabled(void);

/// Turns tracking on (any number but 0) or off, until the next start-up.
int marbleway_set_tracking_enabled(int enabled);

/// Whether uploading is on: 1 or 0.
int marbleway_get_uploading_enabled(void);

/// Turns uploading on (any number but 0) or off, until the next start-up.
int marbleway_set_uploading_enabled(int enabled);

/// Records the device's push token of `count` bytes; a null pointer is an absent one.
int marbleway_set_device_token(const uint8_t* bytes, size_t count);

/// Records a push message of the collection service.
int marbleway_track_push_notification(const char* user_info_json);

/// Starts location monitoring; 0 does nothing.
int marbleway_set_location_monitoring_enabled(int enabled);

#ifdef __cplusplus
}
#endif

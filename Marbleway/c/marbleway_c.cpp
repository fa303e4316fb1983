#include "Marbleway/marbleway_c.h"

#include <chrono>
#include <concepts>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/c/configuration.h"
#include "Marbleway/c/diagnostics.h"
#include "Marbleway/platform/call_stack.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/version.h"

// Each function reads its JSON texts, then calls the operation of its name.

using marbleway::Dictionary;
using marbleway::Value;

namespace {

// The content of a JSON text: null without a text; absent when it is not JSON.
std::optional<Value> valueFrom(const char* json) {
  return json != nullptr ? marbleway::valueFromJSON(json) : Value();
}

// An empty dictionary for null; absent for any other kind than a dictionary.
std::optional<Dictionary> dictionaryIn(const std::optional<Value>& value) {
  if (!value) return std::nullopt;
  if (value->isNull()) return Dictionary();
  const auto* dictionary = value->as<Dictionary>();
  return dictionary != nullptr ? std::optional(*dictionary) : std::nullopt;
}

std::optional<Dictionary> dictionaryFrom(const char* json) { return dictionaryIn(valueFrom(json)); }

// Runs `operation` with the contents of the JSON texts, unless one is absent.
template <class Operation, class... Read>
int with(Operation operation, const std::optional<Read>&... read) {
  if (!(read && ...)) return MARBLEWAY_BAD_JSON;
  operation(*read...);
  return MARBLEWAY_OK;
}

// Without memory a call is lost in silence, like every operation.
template <std::invocable Work>
int statusOf(Work work) noexcept {
  int status = MARBLEWAY_OK;
  marbleway::catchAll([&] { status = work(); });
  return status;
}

template <std::invocable Operation>
int done(Operation operation) noexcept {
  operation();
  return MARBLEWAY_OK;
}

// Without attributes `plain` is called, which differs from empty ones.
template <std::invocable Plain, class Detailed>
int track(const char* attributes_json, Plain plain, Detailed detailed) noexcept {
  return statusOf([&] {
    const auto attributes = valueFrom(attributes_json);
    if (attributes && attributes->isNull()) return done(plain);
    return with(detailed, dictionaryIn(attributes));
  });
}

using Change = void(marbleway::Text attribute, const Value& value) noexcept;

int change(Change& operation, const char* attribute, const char* value_json) noexcept {
  return statusOf([&] {
    return with([&](const Value& value) { operation(attribute, value); }, valueFrom(value_json));
  });
}

marbleway::ErrorReport reportOf(const char* type, const char* reason, const Dictionary& userInfo,
                                const void* caller) {
  marbleway::ErrorReport report;
  report.name = marbleway::Text(type).copy();
  report.reason = marbleway::Text(reason).copy();
  report.callStackReturnAddresses = marbleway::platform::returnAddresses(caller);
  report.callStackSymbols = marbleway::platform::symbolsOf(*report.callStackReturnAddresses);
  if (!userInfo.empty()) report.userInfo = userInfo;
  return report;
}

int configure(const Dictionary& members, marbleway_diagnostics function, void* context) {
  auto configuration = marbleway::c::configurationFrom(members);
  if (!configuration) return MARBLEWAY_REFUSED;
  if (function != nullptr) {
    configuration->diagnostics = [=](const marbleway::Diagnostic& diagnostic) {
      const auto json = marbleway::toJSON(marbleway::c::dictionaryOf(diagnostic));
      if (json) function(json->c_str(), context);
    };
  }
  try {
    marbleway::configure(*std::move(configuration));
  } catch (const std::invalid_argument&) {
    return MARBLEWAY_REFUSED;
  }
  return MARBLEWAY_OK;
}

}  // namespace

const char* marbleway_version() { return MARBLEWAY_VERSION; }

int marbleway_configure(const char* configuration_json) {
  return marbleway_configure_with_diagnostics(configuration_json, nullptr, nullptr);
}
int marbleway_configure_with_diagnostics(const char* configuration_json,
                                         marbleway_diagnostics function, void* context) {
  return statusOf([&]() -> int {
    const auto members = dictionaryFrom(configuration_json);
    return members ? configure(*members, function, context) : MARBLEWAY_BAD_JSON;
  });
}

size_t marbleway_get_status(int count_rows, char* json, size_t size) {
  size_t length = 0;
  if (size > 0) *json = '\0';
  marbleway::catchAll([&] {
    const auto count = count_rows != 0 ? marbleway::Count::rows : marbleway::Count::nothing;
    const auto text = marbleway::toJSON(marbleway::c::dictionaryOf(marbleway::status(count)));
    if (!text) return;
    length = text->size();
    if (length < size) json[text->copy(json, length)] = '\0';
  });
  return length;
}

int marbleway_wait_until_idle(int64_t milliseconds) {
  return marbleway::waitUntilIdle(std::chrono::milliseconds(milliseconds)) ? 1 : 0;
}

int marbleway_upload_now() { return done(marbleway::uploadNow); }
void marbleway_watch_thread() { marbleway::watchThread(); }
int marbleway_shutdown() { return done(marbleway::shutdown); }

int marbleway_init(const char* project_token) {
  return done([&] { Marbleway::initMarbleway(project_token); });
}
int marbleway_init_with_options(const char* project_token, const char* options_json) {
  return statusOf([&] {
    return with([&](const auto& options) { Marbleway::initMarbleway(project_token, options); },
                dictionaryFrom(options_json));
  });
}

int marbleway_start_session() { return done(Marbleway::startSession); }
int marbleway_stop_session() { return done(Marbleway::stopSession); }

int marbleway_link_user(const char* user_identifier, const char* identifier_type) {
  return done([&] { Marbleway::linkUser(user_identifier, identifier_type); });
}
int marbleway_unlink_user() { return done(Marbleway::unlinkUser); }
int marbleway_set_user_attribute(const char* attribute, const char* value) {
  return done([&] { Marbleway::setUserAttribute(attribute, value); });
}
int marbleway_increment_user_attribute(const char* attribute, const char* value_json) {
  return change(Marbleway::incrementUserAttribute, attribute, value_json);
}
int marbleway_decrement_user_attribute(const char* attribute, const char* value_json) {
  return change(Marbleway::decrementUserAttribute, attribute, value_json);
}

int marbleway_link_company(const char* company_name) {
  return done([&] { Marbleway::linkCompany(company_name); });
}
int marbleway_unlink_company() { return done(Marbleway::unlinkCompany); }
int marbleway_set_company_attribute(const char* attribute, const char* value) {
  return done([&] { Marbleway::setCompanyAttribute(attribute, value); });
}
int marbleway_increment_company_attribute(const char* attribute, const char* value_json) {
  return change(Marbleway::incrementCompanyAttribute, attribute, value_json);
}
int marbleway_decrement_company_attribute(const char* attribute, const char* value_json) {
  return change(Marbleway::decrementCompanyAttribute, attribute, value_json);
}

int marbleway_track_event(const char* event_name, const char* attributes_json) {
  return track(
      attributes_json, [&] { Marbleway::trackEvent(event_name); },
      [&](const auto& attributes) { Marbleway::trackEvent(event_name, attributes); });
}
int marbleway_track_screen_view(const char* screen_name, const char* attributes_json) {
  return track(
      attributes_json, [&] { Marbleway::trackScreenView(screen_name); },
      [&](const auto& attributes) { Marbleway::trackScreenView(screen_name, attributes); });
}

int marbleway_track_ad_impression(const char* ad_details_json) {
  return statusOf(
      [&] { return with(Marbleway::trackAdImpression, dictionaryFrom(ad_details_json)); });
}
int marbleway_track_ad_interaction(const char* ad_details_json, const char* interaction_type) {
  return statusOf([&] {
    return with([&](const auto& ad) { Marbleway::trackAdInteraction(ad, interaction_type); },
                dictionaryFrom(ad_details_json));
  });
}
int marbleway_track_ad_conversion(const char* ad_details_json,
                                  const char* conversion_details_json) {
  return statusOf([&] {
    return with(Marbleway::trackAdConversion, dictionaryFrom(ad_details_json),
                dictionaryFrom(conversion_details_json));
  });
}

int marbleway_track_deep_link(const char* url) {
  return done([&] { Marbleway::trackDeepLink(url); });
}

int marbleway_log_error(const char* error_name, const char* error_message, const char* type,
                        const char* reason, const char* user_info_json) {
  const void* caller = __builtin_return_address(0);
  return statusOf([&] {
    const auto log = [&](const Dictionary& userInfo) {
      std::optional<marbleway::ErrorReport> report;
      const bool isError = type != nullptr || reason != nullptr || !userInfo.empty();
      if (isError) report = reportOf(type, reason, userInfo, caller);
      Marbleway::logError(error_name, error_message, report);
    };
    return with(log, dictionaryFrom(user_info_json));
  });
}

int marbleway_get_tracking_enabled() { return Marbleway::getTrackingEnabled() ? 1 : 0; }
int marbleway_set_tracking_enabled(int enabled) {
  return done([&] { Marbleway::setTrackingEnabled(enabled != 0); });
}
int marbleway_get_uploading_enabled() { return Marbleway::getUploadingEnabled() ? 1 : 0; }
int marbleway_set_uploading_enabled(int enabled) {
  return done([&] { Marbleway::setUploadingEnabled(enabled != 0); });
}

int marbleway_set_device_token(const uint8_t* bytes, size_t count) {
  return done([&] {
    if (bytes == nullptr) return Marbleway::setDeviceToken(std::nullopt);
    Marbleway::setDeviceToken(std::span(bytes, count));
  });
}
int marbleway_track_push_notification(const char* user_info_json) {
  return statusOf(
      [&] { return with(Marbleway::trackPushNotification, dictionaryFrom(user_info_json)); });
}
int marbleway_set_location_monitoring_enabled(int enabled) {
  return done([&] { Marbleway::setLocationMonitoringEnabled(enabled != 0); });
}

#include "Marbleway/startup/options.h"

#include <atomic>
#include <string_view>

#include "Marbleway/startup/configuration.h"
#include "Marbleway/startup/console.h"
#include "Marbleway/startup/readings.h"
#include "Marbleway/startup/state.h"

namespace marbleway {
namespace {

// One option: where its reading goes, what it is when left out or refused.
struct Option {
  std::string_view key;
  void (*read)(const Option& option, const Value* value);
  std::atomic<bool>* flag = nullptr;  // of a boolean option
  bool standard = true;
  std::atomic<float>* seconds = nullptr;  // of an option in seconds
  float least = 0;
  float standardSeconds = 0;
  std::string_view warning = {};
};

// Twice on purpose: only a value that reads as neither true nor false is refused.
void readBoolean(const Option& option, const Value* value) {
  if (value == nullptr) {
    *option.flag = option.standard;
  } else if (booleanReading(value)) {
    *option.flag = true;
  } else if (!booleanReading(value)) {
    *option.flag = false;
  } else {
    *option.flag = option.standard;
    console::warning(option.warning);
  }
}

void readSeconds(const Option& option, const Value* value) {
  const float seconds = value == nullptr ? option.standardSeconds : floatReading(value);
  const bool isAccepted = seconds >= option.least;  // no number at all is refused too
  *option.seconds = isAccepted ? seconds : option.standardSeconds;
  if (!isAccepted) console::warning(option.warning);
}

void readEnvironment(const Option& /*option*/, const Value* value) {
  const auto servers = configuration();
  const std::int64_t environment = integerReading(value);
  apiURL.store(environment == 1   ? servers->developmentURL
               : environment == 2 ? servers->testURL
                                  : servers->productionURL);
}

// clang-format off
constexpr Option kOptions[] = {  // logging first: the warnings of the others obey it
    {.key = "LoggingEnabled", .read = readBoolean, .flag = &isLoggingEnabled,
     .warning = "'LoggingEnabled' value must be 'YES' or 'NO'"},
    {.key = "SDKEnvironment", .read = readEnvironment},
    // Off by default, and warns in the words of logging.
    {.key = "SDKDebugging", .read = readBoolean, .flag = &isSDKDebuggingEnabled, .standard = false,
     .warning = "'LoggingEnabled' value must be 'YES' or 'NO'"},
    {.key = "TrackingEnabled", .read = readBoolean, .flag = &isTrackingEnabled,
     .warning = "'TrackingEnabled' value must be 'YES' or 'NO'"},
    {.key = "UploadingEnabled", .read = readBoolean, .flag = &isUploadingEnabled,
     .warning = "'UploadingEnabled' value must be 'YES' or 'NO'"},
    {.key = "PrivacyMode", .read = readBoolean, .flag = &isPrivacyMode,
     .warning = "'PrivacyMode' value must be 'YES' or 'NO'"},
    // Warns of 10 seconds where 30 is the least.
    {.key = "DispatchTime", .read = readSeconds, .seconds = &DispatchTime, .least = 30, .standardSeconds = 30,
     .warning = "'DispatchTime' value must be greater than or equal to 10 seconds"},
    {.key = "SessionTimeout", .read = readSeconds, .seconds = &SessionTimeout, .least = 60, .standardSeconds = 300,
     .warning = "'SessionTimeout' value must be greater than or equal to 60 seconds"},
    {.key = "PerformanceMonitoringEnabled", .read = readBoolean, .flag = &isPerformanceMonitoringEnabled,
     .warning = "'PerformanceMonitoringEnabled' value must be 'YES' or 'NO'"},
    {.key = "NetworkMonitoringEnabled", .read = readBoolean, .flag = &isNetworkMonitoringEnabled,
     .warning = "'NetworkMonitoringEnabled' value must be 'YES' or 'NO'"},
};
// clang-format on

}  // namespace

void readOptions(const Dictionary& options) {
  for (const Option& option : kOptions) option.read(option, options.find(option.key));
}

Dictionary defaultOptions() {
  return {{"LoggingEnabled", true},
          {"PrivacyMode", false},
          {"SDKEnvironment", 3},
          {"SDKDebugging", false},
          {"TrackingEnabled", true},
          {"UploadingEnabled", true},
          {"PerformanceMonitoringEnabled", true},
          {"NetworkMonitoringEnabled", false},
          {"DispatchTime", 30.0},
          {"SessionTimeout", 300.0}};
}

}  // namespace marbleway

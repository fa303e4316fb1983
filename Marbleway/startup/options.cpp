#include "Marbleway/startup/options.h"

#include <atomic>
#include <string_view>

#include "Marbleway/core/configuration.h"
#include "Marbleway/core/console.h"
#include "Marbleway/core/conversions.h"
#include "Marbleway/core/state.h"

namespace marbleway {
namespace {

// One option: the variable that it sets, and the value when it is left out or refused.
struct Option {
  std::string_view key;
  void (*read)(const Option& option, const Value* value);
  std::atomic<bool>* flag = nullptr;  // of a boolean option
  bool defaultFlag = true;
  std::atomic<float>* seconds = nullptr;  // of an option in seconds
  float minimum = 0;
  float defaultSeconds = 0;
  std::string_view warning = {};
};

// Read twice on purpose: only a value that is neither true nor false is refused.
void readBoolean(const Option& option, const Value* value) {
  if (value == nullptr) {
    *option.flag = option.defaultFlag;
  } else if (toBool(value)) {
    *option.flag = true;
  } else if (!toBool(value)) {
    *option.flag = false;
  } else {
    *option.flag = option.defaultFlag;
    console::warning(option.warning);
  }
}

void readSeconds(const Option& option, const Value* value) {
  const float seconds = value == nullptr ? option.defaultSeconds : toFloat(value);
  const bool isAccepted = seconds >= option.minimum;  // false for a value that is not a number
  *option.seconds = isAccepted ? seconds : option.defaultSeconds;
  if (!isAccepted) console::warning(option.warning);
}

void readEnvironment(const Option& /*option*/, const Value* value) {
  const auto servers = configuration();
  const std::int64_t environment = toInteger(value);
  apiURL.store(environment == 1   ? servers->developmentURL
               : environment == 2 ? servers->testURL
                                  : servers->productionURL);
}

// clang-format off
constexpr Option kOptions[] = {  // logging first: it decides whether the others may warn
    {.key = "LoggingEnabled", .read = readBoolean, .flag = &isLoggingEnabled,
     .warning = "'LoggingEnabled' value must be 'YES' or 'NO'"},
    {.key = "SDKEnvironment", .read = readEnvironment},
    // Off by default, and its warning names logging.
    {.key = "SDKDebugging", .read = readBoolean, .flag = &isSDKDebuggingEnabled, .defaultFlag = false,
     .warning = "'LoggingEnabled' value must be 'YES' or 'NO'"},
    {.key = "TrackingEnabled", .read = readBoolean, .flag = &isTrackingEnabled,
     .warning = "'TrackingEnabled' value must be 'YES' or 'NO'"},
    {.key = "UploadingEnabled", .read = readBoolean, .flag = &isUploadingEnabled,
     .warning = "'UploadingEnabled' value must be 'YES' or 'NO'"},
    {.key = "PrivacyMode", .read = readBoolean, .flag = &isPrivacyMode,
     .warning = "'PrivacyMode' value must be 'YES' or 'NO'"},
    // The warning names 10 seconds; the minimum is 30.
    {.key = "DispatchTime", .read = readSeconds, .seconds = &DispatchTime, .minimum = 30, .defaultSeconds = 30,
     .warning = "'DispatchTime' value must be greater than or equal to 10 seconds"},
    {.key = "SessionTimeout", .read = readSeconds, .seconds = &SessionTimeout, .minimum = 60, .defaultSeconds = 300,
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

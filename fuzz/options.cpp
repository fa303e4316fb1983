// Any values under the ten keys of the start-up options.

#include "Marbleway/startup/options.h"

#include <cmath>
#include <cstdlib>
#include <limits>

#include "Marbleway/Host.h"
#include "Marbleway/core/state.h"
#include "fuzz/made_value.h"
#include "fuzz/setting.h"

namespace {

using namespace marbleway;
using fuzz::require;

constexpr const char* kKeys[] = {"LoggingEnabled",
                                 "SDKEnvironment",
                                 "SDKDebugging",
                                 "TrackingEnabled",
                                 "UploadingEnabled",
                                 "PrivacyMode",
                                 "DispatchTime",
                                 "SessionTimeout",
                                 "PerformanceMonitoringEnabled",
                                 "NetworkMonitoringEnabled"};

/// The number at the start of a text as the C library reads it, but for words and hexadecimal; one
/// beyond a double is none.
double numberIn(const std::string& text) {
  const std::size_t first = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
  const std::size_t end = text.find_first_not_of("+-.0123456789eE", first);
  errno = 0;
  const double number = std::strtod(text.substr(0, end).c_str(), nullptr);
  return errno == ERANGE ? 0 : number;
}

double numberOf(const Value& value) {
  if (const auto* flag = value.as<bool>()) return *flag ? 1 : 0;
  if (const auto* integer = value.as<std::int64_t>()) return static_cast<double>(*integer);
  if (const auto* real = value.as<double>()) return *real;
  if (const auto* text = value.as<std::string>()) return numberIn(*text);
  return 0;
}

/// Whether `read` is what an option in seconds becomes, in 32 bits.
bool isReadingOf(const Value* value, double least, double standard, float read) {
  const double given = value != nullptr ? numberOf(*value) : standard;
  if (!(given >= least * 0.99999999)) return static_cast<double>(read) == standard;
  if (given > static_cast<double>(std::numeric_limits<float>::max())) return std::isinf(read);
  return std::abs(static_cast<double>(read) - given) <= given * 1e-7;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& setting = fuzz::setting();
  FuzzedDataProvider bytes(data, size);
  Dictionary options;
  for (const char* key : kKeys) {
    if (bytes.ConsumeBool()) options.set(key, fuzz::madeValue(bytes, 18));
  }
  readOptions(options);

  require(isReadingOf(options.find("DispatchTime"), 30, 30, DispatchTime), "DispatchTime");
  require(isReadingOf(options.find("SessionTimeout"), 60, 300, SessionTimeout), "SessionTimeout");
  const Value* environment = options.find("SDKEnvironment");
  const double number = environment != nullptr ? std::trunc(numberOf(*environment)) : 3;
  const Configuration servers;
  require(apiURL.load() == (number == 1   ? servers.developmentURL
                            : number == 2 ? servers.testURL
                                          : servers.productionURL),
          "SDKEnvironment");
  for (const std::string& line : setting.console->take()) {
    const bool isFixed =
        line ==
            "Marbleway Warning: 'DispatchTime' value must be greater than or equal to 10 seconds" ||
        line ==
            "Marbleway Warning: 'SessionTimeout' value must be greater than or equal to 60 seconds";
    require(isLoggingEnabled && isFixed, "a line is one of the two");
  }
  return 0;
}

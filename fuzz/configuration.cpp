// Any values under the ten keys of the start-up options, and any response to the handshake: first
// its status, then its body.
//
// clang-format off
// seed: +{"Data":{"Config":{"PrivacyMode":true,"AdvertisingID":1,"SessionTimeout":"60"},"NetworkMonitoring":{"NetworkMonitoringEnabled":"YES","Blacklist":["a",1,"b"]}}}
// seed: +{"Data":{"Config":[],"NetworkMonitoring":{"Blacklist":{}}}}
// seed: -{"LoggingEnabled":"yes","SDKEnvironment":2,"DispatchTime":"1e400","SessionTimeout":59.9,"TrackingEnabled":0}
// clang-format on

#include <bit>
#include <cmath>

#include "Marbleway/session/timers.h"
#include "Marbleway/startup/handshake.h"
#include "Marbleway/startup/options.h"
#include "fuzz/setting.h"

using namespace marbleway;
using fuzz::require, fuzz::world;

namespace {

void readAnyOptions(const Value& value, std::int64_t bits) {
  Dictionary options{{"DispatchTime", std::bit_cast<double>(bits)}};
  if (const auto* given = value.as<Dictionary>()) options = *given;
  readOptions(options);
  require(DispatchTime >= 30 && SessionTimeout >= 60, "periods have their minimum");
  const Configuration servers;
  const auto url = apiURL.load();
  require(url == servers.developmentURL || url == servers.testURL || url == servers.productionURL,
          "the server is one of three");
  const auto lines = world().lines();
  require(lines.empty() || (isLoggingEnabled && (DispatchTime == 30 || SessionTimeout == 300)),
          "a line reports a period that took its default");
}

void answerHandshake(bool isAccepted, std::string_view body) {
  isSDKValid = isValidSession = isConnectedToInternet = false;
  world().http = std::make_shared<platform::testing::HeldHttp>();
  platform::install({.httpClient = world().http});
  launchHandshake();
  world().answer(isAccepted ? 200 : 401, std::string(body));
  invalidateTimers();
  world().lines();
  require(isConnectedToInternet, "a response is a connection");
  require(isSDKValid == isAccepted && isValidSession == isAccepted, "200 alone accepts a project");
  if (!isAccepted) return;
  require(!std::isnan(SessionTimeout), "the timeout is a number");
  const bool isSet = isPrivacyMode || isAdvertisingID || isNetworkMonitoringEnabled ||
                     SessionTimeout != 0 || networkBlacklist.load();
  require(fuzz::textsIn(body) || !isSet, "a body that is no JSON sets nothing");
}

}  // namespace

void fuzz::run(std::string_view bytes) {
  isTrackingEnabled = true;
  const std::string_view body = bytes.substr(bytes.empty() ? 0 : 1);
  answerHandshake(bytes.starts_with('+'), body);
  readAnyOptions(valueFromJSON(body).value_or(nullptr), fuzz::integerIn(bytes));
}

// Any answer to the handshake, through reading and applying: first its status, then its body.
//
// seed:
// +{"Data":{"Config":{"PrivacyMode":true,"AdvertisingID":1,"SessionTimeout":"60"},"NetworkMonitoring":{"NetworkMonitoringEnabled":"YES","Blacklist":["a",1,"b"]}}}
// seed: +{"Data":{"Config":[],"NetworkMonitoring":{"Blacklist":{}}}}
// seed: -{}

#include "Marbleway/startup/handshake.h"

#include <algorithm>
#include <cmath>

#include "Marbleway/core/state.h"
#include "Marbleway/session/timers.h"
#include "fuzz/setting.h"
#include "fuzz/strict_json.h"

namespace {

using namespace marbleway;
using fuzz::require;

void checkAccepted(std::string_view body) {
  require(isSDKValid && isValidSession, "an accepted project has a session");
  require(!std::isnan(SessionTimeout), "the timeout is a number");
  const auto texts = networkBlacklist.load();
  const auto strict = fuzz::readStrictly(body);
  if (!strict) {
    require(!isPrivacyMode && !isAdvertisingID && !isNetworkMonitoringEnabled, "no JSON, no flags");
    require(SessionTimeout == 0 && !texts, "no JSON, no values");
    return;
  }
  const auto found = [&](const std::string& text) {
    const auto cutAtNul = [&](const std::string& each) {
      return each.substr(0, each.find('\0')) == text;
    };
    return std::any_of(strict->texts.begin(), strict->texts.end(), cutAtNul);
  };
  require(!texts || std::all_of(texts->begin(), texts->end(), found), "entries are in the body");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& setting = fuzz::setting();
  isSDKValid = isValidSession = isConnectedToInternet = false;
  isTrackingEnabled = true;  // the session starts, with its timers; without a store no row is kept
  const bool isAccepted = size > 0 && data[0] == '+';
  const std::string_view body = fuzz::textOf(data, size).substr(size > 0 ? 1 : 0);

  launchHandshake();
  setting.http->answer({.status = isAccepted ? 200 : 401, .body = std::string(body)});
  setting.time->advance(std::chrono::nanoseconds(0));

  invalidateTimers();
  require(isConnectedToInternet, "an answer is a connection");
  if (isAccepted) {
    checkAccepted(body);
  } else {
    require(!isSDKValid && !isValidSession, "any other status refuses the project");
  }
  return 0;
}

#include "Marbleway/startup/handshake.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/core/configuration.h"
#include "Marbleway/core/conversions.h"
#include "Marbleway/core/pending.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/json.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/upload/dispatch.h"

namespace marbleway {
namespace {

// The member `key` of an answer; null when there is none, or `value` is no object.
const Value* member(const Value* value, std::string_view key) {
  const auto* object = value != nullptr ? value->as<Dictionary>() : nullptr;
  return object != nullptr ? object->find(key) : nullptr;
}

// The texts of a list; absent when `value` is no list.
std::optional<std::vector<std::string>> textsOf(const Value* value) {
  const auto* list = value != nullptr ? value->as<Array>() : nullptr;
  if (list == nullptr) return std::nullopt;
  std::vector<std::string> texts;
  for (const Value& entry : *list) {
    if (const auto* text = entry.as<std::string>()) texts.push_back(*text);
  }
  return texts;
}

void continueOffline() {
  isConnectedToInternet = false;
  isSDKValid = true;
  Marbleway::startSession();
}

// The server's values replace the host's in every case; a missing one is false, 0 or absent.
void continueAccepted(const std::optional<Value>& body) {
  const Value* data = member(body ? &*body : nullptr, "Data");
  const Value* config = member(data, "Config");
  const Value* monitoring = member(data, "NetworkMonitoring");
  isPrivacyMode = toBool(member(config, "PrivacyMode"));
  isAdvertisingID = toBool(member(config, "AdvertisingID"));
  SessionTimeout = toFloat(member(config, "SessionTimeout"));
  isNetworkMonitoringEnabled = toBool(member(monitoring, "NetworkMonitoringEnabled"));
  networkBlacklist.store(textsOf(member(monitoring, "Blacklist")));
  isSDKValid = true;
  Marbleway::startSession();
  if (configuration()->uploadOnStart) uploadNow();
}

void continueRefused() {
  isSDKValid = false;
  isValidSession = false;
}

std::function<void()> continuationAfter(const std::optional<platform::HttpResponse>& answer) {
  if (!answer) return continueOffline;
  isConnectedToInternet = true;
  if (answer->status != 200) return continueRefused;
  return [body = valueFromJSON(answer->body)] { continueAccepted(body); };
}

}  // namespace

void launchHandshake() {
  const Dictionary body{{"OS", "iOS"}, {"BundleID", configuration()->bundleIdentifier}};
  platform::HttpRequest request = requestTo("mobile/init");
  request.body.append(json::toPrettyJSON(body).value_or("{}"));

  post(std::move(request), Diagnostic::Kind::handshake, 0,
       [loop = platform::current()->mainLoop, pending = Pending::begin()](const auto& answer) {
         catchAll([&] {
           if (!pending->isCurrent()) return;
           loop->post([pending, proceed = continuationAfter(answer)] {
             if (pending->isCurrent()) catchAll(proceed);
           });
         });
       });
}

}  // namespace marbleway

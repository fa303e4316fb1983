#include <charconv>
#include <cmath>

#include "Marbleway/marbleway_c.h"
#include "Marbleway/session/crash.h"
#include "Marbleway/session/session.h"
#include "Marbleway/startup/options.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/scenario.h"

// The steps of scenarios: the operations under their names, called through one of two interfaces,
// and what the world around the library does.
namespace marbleway::testing {
namespace {

using platform::testing::RecordingManager;
using Words = const Arguments&;

std::chrono::nanoseconds secondsIn(const Argument& argument) {
  return std::chrono::nanoseconds(std::llround(std::stod(argument.text()) * 1e9));
}

std::vector<std::uint8_t> bytesIn(const Argument& argument) {
  std::vector<std::uint8_t> bytes;
  for (const Value& byte : *argument.value().as<Array>()) {
    bytes.push_back(static_cast<std::uint8_t>(*byte.as<std::int64_t>()));
  }
  return bytes;
}

std::optional<ErrorReport> reportIn(const Argument& argument) {
  const auto* given = argument.value().as<Dictionary>();
  if (given == nullptr) return std::nullopt;
  ErrorReport report;
  for (const auto& [key, value] : *given) {
    if (key == "name") report.name = *value.as<std::string>();
    if (key == "reason") report.reason = *value.as<std::string>();
    if (key == "userInfo") report.userInfo = *value.as<Dictionary>();
    if (key == "addresses") {
      auto& addresses = report.callStackReturnAddresses.emplace();
      for (const Value& each : *value.as<Array>()) {
        addresses.push_back(static_cast<std::uintptr_t>(*each.as<std::int64_t>()));
      }
    }
    if (key == "symbols") {
      auto& symbols = report.callStackSymbols.emplace();
      for (const Value& each : *value.as<Array>()) symbols.push_back(*each.as<std::string>());
    }
  }
  return report;
}

// A function of C reports what it returns unless that is MARBLEWAY_OK.
void report(ObservedWorld& world, int status) {
  if (status != MARBLEWAY_OK) world.add("status " + std::to_string(status));
}

std::string shown(float number) {
  char digits[32];
  return {digits, std::to_chars(digits, digits + sizeof digits, number).ptr};
}

std::string shown(const StateVariable& variable) {
  if (const auto* flag = std::get_if<std::atomic<bool>*>(&variable.variable)) {
    return **flag ? "true" : "false";
  }
  if (const auto* number = std::get_if<std::atomic<float>*>(&variable.variable)) {
    return shown(**number);
  }
  return std::get<Guarded<OptionalText>*>(variable.variable)->load().value_or("absent");
}

const StateVariable& variableNamed(std::string_view name) {
  const auto variables = stateVariables();
  const auto found = std::ranges::find(variables, name, &StateVariable::name);
  if (found == variables.end()) throw std::runtime_error("no variable " + std::string(name));
  return *found;
}

// set NAME=TEXT...
void set(ObservedWorld& /*world*/, Words words) {
  for (const Argument& word : words) {
    const std::size_t equals = word.text().find('=');
    const std::string text = word.text().substr(equals + 1);
    const auto& variable = variableNamed(word.text().substr(0, equals)).variable;
    if (const auto* flag = std::get_if<std::atomic<bool>*>(&variable)) {
      **flag = text == "true";
    } else if (const auto* number = std::get_if<std::atomic<float>*>(&variable)) {
      **number = std::stof(text);
    } else {
      std::get<Guarded<OptionalText>*>(variable)->store(text);
    }
  }
}

void show(ObservedWorld& world, Words words) {
  for (const Argument& word : words) world.add(shown(variableNamed(word.text())));
}

void blacklist(ObservedWorld& world, Words /*words*/) {
  const auto entries = networkBlacklist.load();
  if (!entries) return world.add("absent");
  for (const std::string& entry : *entries) world.add(entry);
}

// The latest request; lines of its body are separated by "\n".
void request(ObservedWorld& world, Words /*words*/) {
  const auto latest = world.http->requests().back();
  world.add(pathOfURL(latest.url));
  for (const auto& [name, value] : latest.headers) world.add(name + ": " + value);
  std::string body;
  for (const char c : latest.body) body += c == '\n' ? "\\n" : std::string(1, c);
  world.add(body);
}

void timers(ObservedWorld& world, Words /*words*/) {
  world.add(world.time->mainLoop()->nextDue() ? "running" : "none");
}

void files(ObservedWorld& world, Words /*words*/) {
  for (const auto& entry : std::filesystem::directory_iterator(world.directory.path())) {
    world.add(entry.path().filename());
  }
}

void managerCalls(ObservedWorld& world, Words /*words*/) {
  for (const std::string& call : world.location->managers().back()->calls()) world.add(call);
}

RecordingManager& manager(ObservedWorld& world) { return *world.location->managers().back(); }

// range DESCRIPTION RSSI...
void range(ObservedWorld& world, Words words) {
  std::vector<platform::Beacon> beacons;
  for (std::size_t i = 0; i < words.size(); i += 2) {
    beacons.push_back({Text(words[i]).copy().value(), 1, 2, std::stoi(words[i + 1].text())});
  }
  manager(world).delegate()->didRangeBeacons(manager(world), beacons, {});
}

// clang-format off
struct NamedStep { std::string_view name; Step cpp, c; };

// The operations. A function of C takes texts as they are and everything else as JSON.
const NamedStep kOperations[] = {
    {"initMarbleway", [](auto&, Words w) { w.size() == 1 ? Marbleway::initMarbleway(w[0]) : Marbleway::initMarbleway(w[0], static_cast<const Dictionary&>(w[1])); },
                      [](auto& world, Words w) { report(world, w.size() == 1 ? marbleway_init(w[0].cText()) : marbleway_init_with_options(w[0].cText(), w[1].cJSON())); }},
    {"startSession", [](auto&, Words) { Marbleway::startSession(); }, [](auto& world, Words) { report(world, marbleway_start_session()); }},
    {"stopSession", [](auto&, Words) { Marbleway::stopSession(); }, [](auto& world, Words) { report(world, marbleway_stop_session()); }},
    {"linkUser", [](auto&, Words w) { Marbleway::linkUser(w[0], w[1]); }, [](auto& world, Words w) { report(world, marbleway_link_user(w[0].cText(), w[1].cText())); }},
    {"unlinkUser", [](auto&, Words) { Marbleway::unlinkUser(); }, [](auto& world, Words) { report(world, marbleway_unlink_user()); }},
    {"setUserAttribute", [](auto&, Words w) { Marbleway::setUserAttribute(w[0], w[1]); }, [](auto& world, Words w) { report(world, marbleway_set_user_attribute(w[0].cText(), w[1].cText())); }},
    {"incrementUserAttribute", [](auto&, Words w) { Marbleway::incrementUserAttribute(w[0], w[1].value()); }, [](auto& world, Words w) { report(world, marbleway_increment_user_attribute(w[0].cText(), w[1].cJSON())); }},
    {"decrementUserAttribute", [](auto&, Words w) { Marbleway::decrementUserAttribute(w[0], w[1].value()); }, [](auto& world, Words w) { report(world, marbleway_decrement_user_attribute(w[0].cText(), w[1].cJSON())); }},
    {"linkCompany", [](auto&, Words w) { Marbleway::linkCompany(w[0]); }, [](auto& world, Words w) { report(world, marbleway_link_company(w[0].cText())); }},
    {"unlinkCompany", [](auto&, Words) { Marbleway::unlinkCompany(); }, [](auto& world, Words) { report(world, marbleway_unlink_company()); }},
    {"setCompanyAttribute", [](auto&, Words w) { Marbleway::setCompanyAttribute(w[0], w[1]); }, [](auto& world, Words w) { report(world, marbleway_set_company_attribute(w[0].cText(), w[1].cText())); }},
    {"incrementCompanyAttribute", [](auto&, Words w) { Marbleway::incrementCompanyAttribute(w[0], w[1].value()); }, [](auto& world, Words w) { report(world, marbleway_increment_company_attribute(w[0].cText(), w[1].cJSON())); }},
    {"decrementCompanyAttribute", [](auto&, Words w) { Marbleway::decrementCompanyAttribute(w[0], w[1].value()); }, [](auto& world, Words w) { report(world, marbleway_decrement_company_attribute(w[0].cText(), w[1].cJSON())); }},
    {"trackEvent", [](auto&, Words w) { w.size() == 1 ? Marbleway::trackEvent(w[0]) : Marbleway::trackEvent(w[0], static_cast<const Dictionary&>(w[1])); },
                   [](auto& world, Words w) { report(world, marbleway_track_event(w[0].cText(), w.size() == 1 ? nullptr : w[1].text().c_str())); }},
    {"trackScreenView", [](auto&, Words w) { w.size() == 1 ? Marbleway::trackScreenView(w[0]) : Marbleway::trackScreenView(w[0], static_cast<const Dictionary&>(w[1])); },
                        [](auto& world, Words w) { report(world, marbleway_track_screen_view(w[0].cText(), w.size() == 1 ? nullptr : w[1].text().c_str())); }},
    {"trackAdImpression", [](auto&, Words w) { Marbleway::trackAdImpression(w[0]); }, [](auto& world, Words w) { report(world, marbleway_track_ad_impression(w[0].cJSON())); }},
    {"trackAdInteraction", [](auto&, Words w) { Marbleway::trackAdInteraction(w[0], w[1]); }, [](auto& world, Words w) { report(world, marbleway_track_ad_interaction(w[0].cJSON(), w[1].cText())); }},
    {"trackAdConversion", [](auto&, Words w) { Marbleway::trackAdConversion(w[0], w[1]); }, [](auto& world, Words w) { report(world, marbleway_track_ad_conversion(w[0].cJSON(), w[1].cJSON())); }},
    {"trackDeepLink", [](auto&, Words w) { Marbleway::trackDeepLink(w[0]); }, [](auto& world, Words w) { report(world, marbleway_track_deep_link(w[0].cText())); }},
    // In C++ the third word is a report, in C type, reason and user information are words of their own.
    {"logError", [](auto&, Words w) { Marbleway::logError(w[0], w[1], reportIn(w[2])); },
                 [](auto& world, Words w) { w.size() == 3 ? report(world, marbleway_log_error(w[0].cText(), w[1].cText(), nullptr, nullptr, w[2].cJSON())) : report(world, marbleway_log_error(w[0].cText(), w[1].cText(), w[2].cText(), w[3].cText(), w[4].cJSON())); }},
    {"getTrackingEnabled", [](auto& world, Words) { world.add(Marbleway::getTrackingEnabled() ? "1" : "0"); }, [](auto& world, Words) { world.add(std::to_string(marbleway_get_tracking_enabled())); }},
    {"setTrackingEnabled", [](auto&, Words w) { Marbleway::setTrackingEnabled(w[0]); }, [](auto& world, Words w) { report(world, marbleway_set_tracking_enabled(w[0] ? -1 : 0)); }},
    {"getUploadingEnabled", [](auto& world, Words) { world.add(Marbleway::getUploadingEnabled() ? "1" : "0"); }, [](auto& world, Words) { world.add(std::to_string(marbleway_get_uploading_enabled())); }},
    {"setUploadingEnabled", [](auto&, Words w) { Marbleway::setUploadingEnabled(w[0]); }, [](auto& world, Words w) { report(world, marbleway_set_uploading_enabled(w[0] ? -1 : 0)); }},
    {"setDeviceToken", [](auto&, Words w) { w[0].value().isNull() ? Marbleway::setDeviceToken(std::nullopt) : Marbleway::setDeviceToken(bytesIn(w[0])); },
                       [](auto& world, Words w) { if (w[0].value().isNull()) return report(world, marbleway_set_device_token(nullptr, 2)); const auto bytes = bytesIn(w[0]); report(world, marbleway_set_device_token(bytes.empty() ? reinterpret_cast<const std::uint8_t*>("") : bytes.data(), bytes.size())); }},
    {"trackPushNotification", [](auto&, Words w) { Marbleway::trackPushNotification(w[0]); }, [](auto& world, Words w) { report(world, marbleway_track_push_notification(w[0].cJSON())); }},
    {"setLocationMonitoringEnabled", [](auto&, Words w) { Marbleway::setLocationMonitoringEnabled(w[0]); }, [](auto& world, Words w) { report(world, marbleway_set_location_monitoring_enabled(w[0] ? 1 : 0)); }},
    {"uploadNow", [](auto&, Words) { uploadNow(); }, [](auto& world, Words) { report(world, marbleway_upload_now()); }},
    {"configure", nullptr, [](auto& world, Words w) { report(world, marbleway_configure(w[0].cJSON())); }},
    {"version", nullptr, [](auto& world, Words) { world.add(marbleway_version()); }},
    {"waitUntilIdle", [](auto& world, Words w) { world.add(waitUntilIdle(std::chrono::milliseconds(std::stoll(w[0].text()))) ? "1" : "0"); },
                      [](auto& world, Words w) { world.add(std::to_string(marbleway_wait_until_idle(std::stoll(w[0].text())))); }},
};

struct WorldStep { std::string_view name; Step step; };
const WorldStep kWorldSteps[] = {
    {"session", [](auto& world, Words) { world.beginSession(); world.takeEffects(); }},
    {"answer", [](auto& world, Words w) { world.answer(std::stol(w[0].text()), w.size() > 1 ? w[1].text() : "{}"); }},
    {"readOptions", [](auto&, Words w) { readOptions(w[0]); }},
    {"answerLater", [](auto& world, Words) { world.http->answer({.status = 200, .body = "{}"}); }},
    {"offline", [](auto& world, Words) { world.failRequest(); }},
    {"advance", [](auto& world, Words w) { world.time->advance(secondsIn(w[0])); }},
    {"moveWallClock", [](auto& world, Words w) { world.time->setWallClock(world.time->now() + secondsIn(w[0])); }},
    {"set", set},
    {"show", show},
    {"blacklist", blacklist},
    {"request", request},
    {"timers", timers},
    {"files", files},
    {"batchData", [](auto&, Words) { batchData(); }},
    {"crash", [](auto&, Words w) { uncaughtExceptionHandler({*w[0].value().template as<std::string>(), *w[1].value().template as<std::string>()}); }},
    {"sql", [](auto& world, Words w) { query(world.storePath(), *w[0].value().template as<std::string>()); }},
    {"breakStore", [](auto& world, Words) { std::filesystem::remove(world.storePath()); std::filesystem::create_directory(world.storePath()); }},
    {"random", [](auto& world, Words w) { auto facts = world.device->facts(); facts.randomNumber = static_cast<std::uint32_t>(std::stoul(w[0].text())); world.device->setFacts(facts); }},
    {"forget", [](auto& world, Words w) { std::static_pointer_cast<platform::testing::MemoryDefaults>(world.defaults)->MemoryDefaults::remove(w[0].text()); }},
    {"rangingAvailable", [](auto& world, Words w) { world.location->setRangingAvailable(w[0]); }},
    {"managerCalls", managerCalls},
    {"updateLocations", [](auto& world, Words) { manager(world).delegate()->didUpdateLocations(manager(world), {{1, 2}}); }},
    {"enterRegion", [](auto& world, Words w) { manager(world).delegate()->didEnterRegion(manager(world), {Text(w[0]).copy().value()}); }},
    {"exitRegion", [](auto& world, Words w) { manager(world).delegate()->didExitRegion(manager(world), {Text(w[0]).copy().value()}); }},
    {"range", range},
};
// clang-format on

}  // namespace

Step findStep(std::string_view name, Interface interface) {
  for (const NamedStep& each : kOperations) {
    if (each.name == name) return interface == Interface::cpp ? each.cpp : each.c;
  }
  for (const WorldStep& each : kWorldSteps) {
    if (each.name == name) return each.step;
  }
  return nullptr;
}

}  // namespace marbleway::testing

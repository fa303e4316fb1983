#include <cmath>
#include <cstring>
#include <map>
#include <sstream>
#include <variant>

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

using World = ObservedWorld;
using Words = const Arguments&;

// What a function of C takes where the operation takes a `Parameter`.
template <class Parameter>
auto inC(const Argument& word) {
  if constexpr (std::is_same_v<Parameter, Text>) {
    return word.string();
  } else if constexpr (std::is_same_v<Parameter, bool>) {
    return word ? -1 : 0;
  } else if constexpr (std::is_same_v<Parameter, std::chrono::milliseconds>) {
    return std::chrono::milliseconds(word).count();
  } else {
    return word.text().c_str();  // JSON
  }
}

class Step {
 public:
  // An operation and its function of C, which take as many arguments. What the operation returns
  // is an effect; a function of C has none when it returns MARBLEWAY_OK in its place.
  template <class Result, class... Parameters, class Function>
  Step(std::string_view name, Result (*cpp)(Parameters...), Function c)
      : name_(name), arguments_(sizeof...(Parameters)) {
    run_ = [=](World& world, [[maybe_unused]] Words words, Interface interface) {
      const auto call = [&]<std::size_t... I>(std::index_sequence<I...> /*indices*/)->int {
        if (interface == Interface::c) return c(inC<Parameters>(words[I])...);
        if constexpr (!std::is_void_v<Result>) return cpp(words[I]...);
        return cpp(words[I]...), MARBLEWAY_OK;
      };
      const int result = call(std::index_sequence_for<Parameters...>());
      if (!std::is_void_v<Result>) return world.add(std::to_string(result));
      if (result != MARBLEWAY_OK) world.add("status " + std::to_string(result));
    };
  }
  // A step with any number of arguments.
  Step(std::string_view name, void (*function)(World& world, Words words))
      : name_(name),
        run_([=](World& world, Words words, Interface /*interface*/) { function(world, words); }) {}

  bool is(std::string_view name, Words words) const {
    return name == name_ && words.size() == arguments_.value_or(words.size());
  }
  void run(World& world, Words words, Interface interface) const { run_(world, words, interface); }

 private:
  std::string_view name_;
  std::optional<std::size_t> arguments_;
  std::function<void(World&, Words, Interface)> run_;
};

using List = std::vector<std::string>;
using Variable = std::variant<std::atomic<bool>*, std::atomic<float>*, Guarded<OptionalText>*,
                              Guarded<std::optional<List>>*>;
// clang-format off
const std::map<std::string_view, Variable> kVariables = {
    {"isSDKValid", &isSDKValid}, {"isValidSession", &isValidSession},
    {"isConnectedToInternet", &isConnectedToInternet}, {"isAdvertisingID", &isAdvertisingID},
    {"isLoggingEnabled", &isLoggingEnabled}, {"isSDKDebuggingEnabled", &isSDKDebuggingEnabled},
    {"isTrackingEnabled", &isTrackingEnabled}, {"isUploadingEnabled", &isUploadingEnabled},
    {"isPerformanceMonitoringEnabled", &isPerformanceMonitoringEnabled},
    {"isNetworkMonitoringEnabled", &isNetworkMonitoringEnabled}, {"isPrivacyMode", &isPrivacyMode},
    {"DispatchTime", &DispatchTime}, {"SessionTimeout", &SessionTimeout},
    {"sessionID", &sessionID}, {"SessionStartTime", &SessionStartTime},
    {"SessionTime", &SessionTime}, {"internalProjectToken", &internalProjectToken},
    {"apiURL", &apiURL}, {"networkBlacklist", &networkBlacklist},
};
// clang-format on

using ::testing::PrintToString;
template <class T>
std::string shown(const T& value) {
  return PrintToString(value);
}
std::string shown(const OptionalText& text) { return text.value_or("absent"); }
std::string shown(const std::optional<List>& list) {
  return list ? PrintToString(*list) : "absent";
}

void show(World& world, Words words) {
  for (const Argument& word : words) {
    std::visit([&](auto* variable) { world.add(shown(variable->load())); },
               kVariables.at(word.text()));
  }
}

void read(const std::string& text, std::atomic<bool>& flag) { flag = text == "true"; }
void read(const std::string& text, std::atomic<float>& number) { number = std::stof(text); }
void read(const std::string& text, Guarded<OptionalText>& variable) { variable.store(text); }
void read(const std::string& text, Guarded<std::optional<List>>& list) { list.store({{text}}); }

void set(World& /*world*/, Words words) {
  for (const Argument& word : words) {
    const std::size_t equals = word.text().find('=');
    std::visit([&](auto* variable) { read(word.text().substr(equals + 1), *variable); },
               kVariables.at(word.text().substr(0, equals)));
  }
}

void request(World& world, Words /*words*/) {
  const auto latest = world.http->requests().back();
  for (const auto& [name, value] : latest.headers) world.add(name + ": " + value);
  world.add(latest.body);
}

void sql(World& world, Words words) {
  const std::string_view text = words[0].string();
  const bool isNetwork = text.find(kTables[0].name) != std::string_view::npos;
  const auto path = world.storePath(isNetwork ? Store::network : Store::event);
  for (const std::string& row : query(path, std::string(text))) world.add(row);
}

void random(World& world, Words words) {
  auto facts = world.device->facts();
  facts.randomNumber = static_cast<std::uint32_t>(std::stoul(words[0].text()));
  world.device->setFacts(facts);
}

std::chrono::nanoseconds secondsIn(const Argument& argument) {
  return std::chrono::nanoseconds(std::llround(std::stod(argument.text()) * 1e9));
}

// What the location manager reports: a place, a region entered, one left, and beacons with their
// signals' strengths.
void reportLocations(World& world, Words words) {
  auto& manager = *world.location->managers().back();
  auto* delegate = manager.delegate();
  std::vector<platform::Beacon> beacons;
  for (std::size_t i = 2; i < words.size(); i += 2) {
    beacons.push_back({words[i].string(), 1, 2, std::stoi(words[i + 1].text())});
  }
  delegate->didUpdateLocations(manager, {{1, 2}});
  delegate->didEnterRegion(manager, {words[0].string()});
  delegate->didExitRegion(manager, {words[1].string()});
  delegate->didRangeBeacons(manager, beacons, {});
}

// A status bar by its class and the views in its foreground, each its class or "CLASS:VALUE". "|"
// begins the next group of a modern bar. Without views there is no foreground.
void statusBar(World& /*world*/, Words words) {
  using platform::View;
  struct Bar : platform::StatusBar, View {
    std::shared_ptr<const View> view() override { return std::make_shared<View>(*this); }
  };
  const auto bar = std::make_shared<Bar>();
  bar->className = words[0].text();
  std::vector<View> groups(1);
  for (std::size_t i = 1; i < words.size(); ++i) {
    if (words[i].text() == "|") {
      groups.emplace_back();
      continue;
    }
    View& view = groups.back().subviews.emplace_back();
    std::getline(std::getline(std::istringstream(words[i].text()), view.className, ':'), view.text);
    view.dataNetworkType = std::atoi(view.text.c_str());
  }
  if (words.size() > 1) {
    View inner, modern;
    modern.subviews = groups;
    const bool isModern = bar->className == "UIStatusBar_Modern";
    inner.foregroundView = std::make_shared<View>(isModern ? modern : groups[0]);
    bar->foregroundView = inner.foregroundView;
    bar->statusBar = std::make_shared<View>(inner);
  }
  platform::install({.statusBar = bar});
}

void setDeviceToken(Text token) {
  if (token.isAbsent()) return Marbleway::setDeviceToken(std::nullopt);
  Marbleway::setDeviceToken(
      std::span(reinterpret_cast<const std::uint8_t*>(token.view().data()), token.view().size()));
}
int setDeviceTokenInC(const char* token) {
  return marbleway_set_device_token(reinterpret_cast<const std::uint8_t*>(token),
                                    token == nullptr ? 2 : std::strlen(token));
}

template <class... Parameters>
using Overload = void (*)(Parameters...);

// In the scope of the operations' class.
struct Steps : Marbleway {
  static const Step kAll[];
};
const Step Steps::kAll[] = {
    {"initMarbleway", Overload<Text>(initMarbleway), marbleway_init},
    {"initMarbleway", Overload<Text, const Dictionary&>(initMarbleway),
     marbleway_init_with_options},
    {"startSession", startSession, marbleway_start_session},
    {"stopSession", stopSession, marbleway_stop_session},
    {"linkUser", linkUser, marbleway_link_user},
    {"unlinkUser", unlinkUser, marbleway_unlink_user},
    {"setUserAttribute", setUserAttribute, marbleway_set_user_attribute},
    {"incrementUserAttribute", incrementUserAttribute, marbleway_increment_user_attribute},
    {"decrementUserAttribute", decrementUserAttribute, marbleway_decrement_user_attribute},
    {"linkCompany", linkCompany, marbleway_link_company},
    {"unlinkCompany", unlinkCompany, marbleway_unlink_company},
    {"setCompanyAttribute", setCompanyAttribute, marbleway_set_company_attribute},
    {"incrementCompanyAttribute", incrementCompanyAttribute, marbleway_increment_company_attribute},
    {"decrementCompanyAttribute", decrementCompanyAttribute, marbleway_decrement_company_attribute},
    {"trackEvent", Overload<Text>(trackEvent),
     [](const char* name) { return marbleway_track_event(name, nullptr); }},
    {"trackEvent", Overload<Text, const Dictionary&>(trackEvent), marbleway_track_event},
    {"trackScreenView", Overload<Text>(trackScreenView),
     [](const char* name) { return marbleway_track_screen_view(name, nullptr); }},
    {"trackScreenView", Overload<Text, const Dictionary&>(trackScreenView),
     marbleway_track_screen_view},
    {"trackAdImpression", trackAdImpression, marbleway_track_ad_impression},
    {"trackAdInteraction", trackAdInteraction, marbleway_track_ad_interaction},
    {"trackAdConversion", trackAdConversion, marbleway_track_ad_conversion},
    {"trackDeepLink", trackDeepLink, marbleway_track_deep_link},
    {"logError", +[](Text name, Text text) { logError(name, text, std::nullopt); },
     [](auto... texts) { return marbleway_log_error(texts..., nullptr, nullptr, nullptr); }},
    {"getTrackingEnabled", getTrackingEnabled, marbleway_get_tracking_enabled},
    {"setTrackingEnabled", setTrackingEnabled, marbleway_set_tracking_enabled},
    {"getUploadingEnabled", getUploadingEnabled, marbleway_get_uploading_enabled},
    {"setUploadingEnabled", setUploadingEnabled, marbleway_set_uploading_enabled},
    {"setDeviceToken", testing::setDeviceToken, setDeviceTokenInC},
    {"trackPushNotification", trackPushNotification, marbleway_track_push_notification},
    {"setLocationMonitoringEnabled", setLocationMonitoringEnabled,
     marbleway_set_location_monitoring_enabled},
    {"waitUntilIdle", waitUntilIdle, marbleway_wait_until_idle},
    {"uploadNow", uploadNow, marbleway_upload_now},
    // In C alone.
    {"configure", Overload<const Value&>(), marbleway_configure},
    {"logErrorWith", Overload<const Value&>(),
     [](const char* info) { return marbleway_log_error("n", "m", nullptr, nullptr, info); }},
    {"version", [](World& world, Words) { world.add(marbleway_version()); }},

    {"advance", [](World& world, Words w) { world.time->advance(secondsIn(w[0])); }},
    {"answer",
     [](World& world, Words w) {
       world.answer(std::stol(w[0].text()), w.size() > 1 ? w[1].text() : "{}");
     }},
    {"answerLater", [](World& world, Words) { world.http->answer({.status = 200, .body = "{}"}); }},
    {"batchData", [](World&, Words) { batchData(); }},
    {"crash",
     [](World&, Words w) {
       uncaughtExceptionHandler({w[0].string(), w[1].string()});
     }},
    {"files",
     [](World& world, Words) {
       const std::filesystem::directory_iterator first(world.directory.path()), last;
       world.add(std::to_string(std::distance(first, last)));
     }},
    {"managerCalls",
     [](World& world, Words) {
       for (const auto& call : world.location->managers().back()->calls()) world.add(call);
     }},
    {"moveWallClock",
     [](World& world, Words w) { world.time->setWallClock(world.time->now() + secondsIn(w[0])); }},
    {"offline", [](World& world, Words) { world.failRequest(); }},
    {"random", random},
    {"rangingAvailable", [](World& world, Words w) { world.location->setRangingAvailable(w[0]); }},
    {"readOptions", [](World&, Words w) { readOptions(w[0]); }},
    {"reportLocations", reportLocations},
    {"request", request},
    {"session",
     [](World& world, Words) {
       world.beginSession();
       world.takeEffects();
     }},
    {"set", set},
    {"show", show},
    {"sql", sql},
    {"statusBar", statusBar},
    {"timers", [](World& world,
                  Words) { world.add(world.time->mainLoop()->nextDue() ? "running" : "none"); }},
};

}  // namespace

Argument::Argument(std::string text) : text_(std::move(text)) {
  if (const auto value = valueFromJSON(text_)) {
    value_ = *value;
  } else if (text_.size() >= 2 && text_.starts_with('"') && text_.ends_with('"')) {
    value_ = text_.substr(1, text_.size() - 2);  // with bytes that JSON does not allow
  }
}

const char* Argument::string() const {
  const auto* string = value_.as<std::string>();
  return string == nullptr ? nullptr : string->c_str();
}

Argument::operator const Dictionary&() const {
  static const Dictionary kEmpty;
  const auto* dictionary = value_.as<Dictionary>();
  return dictionary == nullptr ? kEmpty : *dictionary;
}

void runStep(std::string_view name, ObservedWorld& world, const Arguments& arguments,
             Interface interface) {
  const auto* const step =
      std::ranges::find_if(Steps::kAll, [&](const Step& each) { return each.is(name, arguments); });
  if (step == std::end(Steps::kAll)) throw std::runtime_error("no step " + std::string(name));
  step->run(world, arguments, interface);
}

}  // namespace marbleway::testing

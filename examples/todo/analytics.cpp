#include "examples/todo/analytics.h"

#include <Marbleway/Host.h>
#include <Marbleway/Marbleway.h>
#include <Marbleway/platform/platform.h>

#include <chrono>
#include <memory>
#include <utility>

namespace todo::analytics {
namespace {

using marbleway::Dictionary;

// How long the person at the keyboard is made to wait for a server.
constexpr std::chrono::seconds kPatience(2);

bool isOn = false;

/// A terminal: no icon and no windows, but links open inside the application.
class Screen final : public marbleway::platform::UserInterface {
 public:
  explicit Screen(std::function<void(std::string_view)> openLink)
      : openLink_(std::move(openLink)) {}

  void setBadgeNumber(int /*number*/) override {}
  void openURL(std::string_view url) override { openLink_(url); }
  void showAlert(std::string_view /*title*/, std::string_view /*message*/,
                 std::string_view /*button*/) override {}

 private:
  std::function<void(std::string_view)> openLink_;
};

/// The partner's ad: all six keys are required.
Dictionary tip() {
  return {{"adID", "tip-7"},        {"adName", "Pocket notebooks"}, {"adType", "Text"},
          {"adCategory", "Office"}, {"orgID", "paperworks"},        {"orgName", "Paperworks"}};
}

}  // namespace

void start(const Settings& settings, std::function<void(std::string_view)> openLink) {
  marbleway::platform::Platform services;
  services.userInterface = std::make_shared<Screen>(std::move(openLink));
  marbleway::platform::install(std::move(services));
  if (settings.collector.empty()) return;

  marbleway::Configuration configuration;
  configuration.documentsDirectory = settings.directory;
  configuration.productionURL = settings.collector;
  configuration.bundleIdentifier = "com.example.todo";
  configuration.appVersion = "1.0";
  marbleway::configure(std::move(configuration));

  // All ten: privacy mode and network monitoring would be on if they were left out.
  Marbleway::initMarbleway(settings.token, {{"LoggingEnabled", true},
                                            {"SDKEnvironment", 3},
                                            {"SDKDebugging", false},
                                            {"TrackingEnabled", true},
                                            {"UploadingEnabled", true},
                                            {"PrivacyMode", false},
                                            {"DispatchTime", 30},
                                            {"SessionTimeout", 300},
                                            {"PerformanceMonitoringEnabled", true},
                                            {"NetworkMonitoringEnabled", false}});
  isOn = true;
}

void settle() { marbleway::waitUntilIdle(kPatience); }

void finish() {
  if (!isOn) return;
  const bool isAnswered = marbleway::waitUntilIdle(kPatience);  // nothing is delivered before
  Marbleway::stopSession();
  if (isAnswered) settle();
}

void listShown(std::size_t items, std::size_t open) {
  Marbleway::trackScreenView("List", {{"Items", items}, {"Open", open}});
}

void searched(std::size_t matches) { Marbleway::trackScreenView("Search", {{"Matches", matches}}); }

void helpShown() { Marbleway::trackScreenView("Help"); }

void added(std::size_t words, std::size_t open) {
  Marbleway::trackEvent("To-do Added", {{"Words", words}, {"Open", open}});
  Marbleway::incrementUserAttribute("To-dos", 1);
}

void ticked(std::size_t items, std::size_t open) {
  const double done = static_cast<double>(items - open) / static_cast<double>(items);
  Marbleway::trackEvent("To-do Done", {{"Value", done}, {"Open", open}, {"All", open == 0}});
  Marbleway::incrementUserAttribute("Done", 1);
}

void removed(bool wasDone) {
  Marbleway::trackEvent("To-do Removed", {{"Done", wasDone}});
  Marbleway::decrementUserAttribute("To-dos", 1);
}

void imported(std::size_t items) {
  Marbleway::trackEvent("List Imported", {{"Items", items}});
  Marbleway::incrementUserAttribute("To-dos", items);
}

void importFailed(const std::exception& error) {
  Marbleway::trackEvent("Import Failed");  // begins a session where there is none, as errors do not
  Marbleway::logError("Import", "failed", error);
}

void tipShown() { Marbleway::trackAdImpression(tip()); }

void tipRead() {
  Marbleway::trackScreenView("Tip");
  Marbleway::trackAdInteraction(tip(), "Read");
}

void tipOrdered() {
  Marbleway::trackScreenView("Order");
  Marbleway::trackAdConversion(tip(), {{"conversionType", "Order"}, {"conversionValue", 4.5}});
}

void loggedIn(const std::string& name, const std::string& company) {
  Marbleway::trackScreenView("Login");
  Marbleway::linkUser(name, name.find('@') == std::string::npos ? "id" : "email");
  Marbleway::setUserAttribute("Plan", "Free");
  Marbleway::linkCompany(company);
  Marbleway::setCompanyAttribute("Source", "Terminal");
  Marbleway::incrementCompanyAttribute("Members", 1);
}

void loggedOut() {
  Marbleway::trackEvent("Logged Out");
  Marbleway::decrementCompanyAttribute("Members", 1);
  Marbleway::unlinkCompany();
  if (!isOn) return;
  Marbleway::unlinkUser();  // ends the session, which delivers its rows
  settle();                 // a row recorded meanwhile could be deleted with them
}

void linkOpened(const std::string& link) { Marbleway::trackDeepLink(link); }

bool pushReceived(const std::string& payload) {
  const auto value = marbleway::valueFromJSON(payload);
  const auto* userInfo = value ? value->as<Dictionary>() : nullptr;
  if (userInfo == nullptr) return false;
  Marbleway::trackPushNotification(*userInfo);
  return true;
}

}  // namespace todo::analytics

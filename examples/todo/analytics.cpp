#include "examples/todo/analytics.h"

#include <Marbleway/Host.h>
#include <Marbleway/Marbleway.h>
#ifdef TODO_HAS_DESKTOP
#include <Marbleway/desktop.h>
#endif
#include <Marbleway/platform/platform.h>

#include <chrono>
#include <memory>
#include <utility>

namespace todo::analytics {
namespace {

using marbleway::Dictionary;

constexpr std::chrono::seconds kServerTimeout(2);

bool isStarted = false;

/// Badge and alerts are the desktop's; links open in the application.
class Terminal final : public marbleway::platform::UserInterface {
 public:
  Terminal(std::shared_ptr<UserInterface> desktop, std::function<void(std::string_view)> openLink)
      : desktop_(std::move(desktop)), openLink_(std::move(openLink)) {}

  void setBadgeNumber(int number) override { desktop_->setBadgeNumber(number); }
  void openURL(std::string_view url) override { openLink_(url); }
  void showAlert(std::string_view title, std::string_view message,
                 std::string_view button) override {
    desktop_->showAlert(title, message, button);
  }

 private:
  std::shared_ptr<UserInterface> desktop_;
  std::function<void(std::string_view)> openLink_;
};

/// Location, beacons, alerts, badge and connection type, where the component was built.
void installDesktop() {
#ifdef TODO_HAS_DESKTOP
  marbleway::desktop::install("todo");
#endif
}

/// The partner's ad. All six keys are required.
Dictionary tip() {
  return {{"adID", "tip-7"},        {"adName", "Pocket notebooks"}, {"adType", "Text"},
          {"adCategory", "Office"}, {"orgID", "paperworks"},        {"orgName", "Paperworks"}};
}

}  // namespace

void start(const Settings& settings, std::function<void(std::string_view)> openLink) {
  installDesktop();
  marbleway::platform::Platform services;
  services.userInterface = std::make_shared<Terminal>(marbleway::platform::current()->userInterface,
                                                      std::move(openLink));
  marbleway::platform::install(std::move(services));
  if (settings.collector.empty()) return;

  marbleway::Configuration configuration;
  configuration.documentsDirectory = settings.directory;
  configuration.productionURL = settings.collector;
  configuration.bundleIdentifier = "com.example.todo";
  configuration.appVersion = "1.0";
  configuration.uploadOnStart = true;  // sends the crash of the launch before
  configuration.sites = {{{52.52, 13.405}, {52.53, 13.405}, {52.54, 13.405}}};
  marbleway::configure(std::move(configuration));

  // All ten options: without them privacy mode and network monitoring would be on.
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
  isStarted = true;
  waitForServer();  // the upload's 200 would delete rows recorded before it
}

void waitForServer() { marbleway::waitUntilIdle(kServerTimeout); }

void stop() {
  if (!isStarted) return;
  // An upload needs the server's answer to the start.
  const bool isAnswered = marbleway::waitUntilIdle(kServerTimeout);
  Marbleway::stopSession();
  if (isAnswered) waitForServer();
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
  // An event starts a session when there is none; an error does not.
  Marbleway::trackEvent("Import Failed");
  Marbleway::logError("Import", "failed", error);
}

void walkStarted() { Marbleway::setLocationMonitoringEnabled(true); }

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
  if (!isStarted) return;
  Marbleway::unlinkUser();  // ends the session and begins an upload
  waitForServer();          // the upload's 200 would delete rows recorded before it
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

#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Marbleway/platform/linux/services.h"
#include "Marbleway/session/crash.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;
using Lines = std::set<std::string>;

// In every text that the host, the server or the surroundings hand to the library.
const std::string kSecret = "hush";

// clang-format off
constexpr const char* kLines[] = {
    "Warning: 'DispatchTime' value must be greater than or equal to 10 seconds", "Warning: 'SessionTimeout' value must be greater than or equal to 60 seconds",
    "Warning: No Value Provided, Could Not Set User Attribute", "Warning: No Value Provided, Could Not Increment User Attribute",
    "Warning: No Value Provided, Could Not Set Company Attribute", "Warning: No Value Provided, Could Not Increment Company Attribute",
    "Warning: Email Address Invalid, Could Not Set User Attribute", "Warning: URL Invalid, Could Not Set User Attribute", "Warning: Phone Number Invalid, Could Not Set User Attribute",
    "Error: id is Required", "Error: Email Address is Required", "Error: Not a Valid Email Address", "Error: Company Name is Required", "Error: Not a Valid Number",
    "Error: Interaction Tracking requires value for 'interactionType'", "Error: Conversion Tracking requires value for 'conversionType'", "Error: Conversion Tracking requires value for 'conversionValue'",
    "Message: Starting Marbleway SDK", "Message: Data Upload Complete", "Message: Session Stopped", "Message: Session Expired", "Message: Crash Tracked",
    "Message: User Linked", "Message: User Attribute Set", "Message: Company Linked", "Message: Company Unlinked", "Message: Company Attribute Set",
    "Message: Event Tracked", "Message: Screen View Tracked", "Message: Impression Tracked", "Message: Interaction Tracked",
    "Message: Error Tracked", "Message: Deep Link Tracked", "Message: Push Notification Tracked",
};
constexpr const char* kAdKeys[] = {"adID", "adName", "adType", "adCategory", "orgID", "orgName"};
// What is refused before the start, without tracking, and for one or both of the two reasons.
constexpr struct { const char* name; bool isPrivate, asksSession; } kActions[] = {
    {"Link User", true, true}, {"Set User Attribute", true, true}, {"Increment User Attribute", true, true}, {"Link Company", true, true},
    {"Track Event", false, false}, {"Track Screen View", false, false}, {"Track Impression", false, true}, {"Track Interaction", false, true},
    {"Track Conversion", false, true}, {"Track Exception", false, true}, {"Track Crash", false, true},
};
// clang-format on

Lines fixedLines() {
  Lines lines{"Warning: Performance Monitoring Not Enabled , Could Not Track Crash"};
  lines.insert(std::begin(kLines), std::end(kLines));
  for (const std::string key : kAdKeys) {
    lines.insert("Error: Impression Tracking requires value for '" + key + "'");
    lines.insert("Error: Conversion Tracking requires value for '" + key + "'");
  }
  for (const auto& [name, isPrivate, asksSession] : kActions) {
    const std::string end = std::string(", Could Not ") + name;
    lines.insert("Warning: SDK Not Properly Configured" + end);
    lines.insert("Warning: Tracking is Not Enabled" + end);
    if (asksSession) lines.insert("Warning: No Valid Session" + end);
    if (isPrivate) lines.insert("Warning: Privacy Mode Enabled" + end);
  }
  return lines;
}

/// The lines of `written`, each once, without the name that all begin with.
Lines linesOf(const std::string& written) {
  constexpr std::string_view kName = "Marbleway ";
  Lines lines;
  std::istringstream text(written);
  for (std::string line; std::getline(text, line);) {
    lines.insert(line.starts_with(kName) ? line.substr(kName.size()) : "?? " + line);
  }
  return lines;
}

/// Dictionaries without each of `keys` in turn, the last one complete.
std::vector<Dictionary> detailsOf(std::initializer_list<const char*> keys) {
  std::vector<Dictionary> made;
  for (std::size_t without = 0; without <= keys.size(); ++without) {
    Dictionary& details = made.emplace_back(Dictionary{{kSecret, Array{kSecret}}});
    for (std::size_t i = 0; i < keys.size(); ++i) {
      if (i != without) details.set(keys.begin()[i], kSecret);
    }
  }
  return made;
}

void callUsersAndCompanies(const Text& text) {
  for (const char* type : {"id", "generic_id", "email", kSecret.c_str()}) {
    Marbleway::linkUser(text, type);
  }
  for (const Text& name : {text, Text("EmailAddress"), Text("Website"), Text("Phone"),
                           Text("DomainName"), Text("Company")}) {
    Marbleway::setUserAttribute(name, text);
    Marbleway::setCompanyAttribute(name, text);
  }
  for (const Value& value : {Value(text), Value(Dictionary{{kSecret, text}})}) {
    Marbleway::incrementUserAttribute(text, value);
    Marbleway::decrementUserAttribute(text, value);
    Marbleway::incrementCompanyAttribute(text, value);
    Marbleway::decrementCompanyAttribute(text, value);
  }
  Marbleway::linkCompany(text);
  Marbleway::unlinkCompany();
  Marbleway::setDeviceToken(std::vector<std::uint8_t>(kSecret.begin(), kSecret.end()));
}

void callAds(const Text& text) {
  const auto ads = detailsOf({"adID", "adName", "adType", "adCategory", "orgID", "orgName"});
  const auto conversions = detailsOf({"conversionType", "conversionValue"});
  for (const Dictionary& ad : ads) {
    Marbleway::trackAdImpression(ad);
    Marbleway::trackAdInteraction(ad, text);
    Marbleway::trackAdConversion(ad, conversions.back());
  }
  for (const Dictionary& conversion : conversions) {
    Marbleway::trackAdConversion(ads.back(), conversion);
  }
}

/// Events and screen views come last: they open the session that others may find missing.
void callTracking(const Text& text) {
  callAds(text);
  Marbleway::trackDeepLink("app://" + kSecret + "?mrbw_dlid=" + kSecret);
  Marbleway::logError(text, text, ErrorReport{.name = kSecret, .reason = kSecret});
  Marbleway::logError(text, text, std::runtime_error(kSecret));
  Marbleway::trackPushNotification({{"aps", Dictionary{{"mrbw_data", true},
                                                       {"mrbw_messageID", text},
                                                       {"mrbw_messageAction", "LaunchWebURL"},
                                                       {"mrbw_messageLink", text}}}});
  uncaughtExceptionHandler({kSecret, kSecret});
  Marbleway::setLocationMonitoringEnabled(true);
  platform::LocationManager& manager = *mrbwLocationManager.load();
  Marbleway::didUpdateLocations(manager, {{1.5, 2.5}});
  Marbleway::didEnterRegion(manager, {kSecret});
  Marbleway::didExitRegion(manager, {kSecret});
  Marbleway::didRangeBeacons(manager, {{.description = kSecret, .rssi = -28}}, {});
  Marbleway::trackEvent(text);
  Marbleway::trackEvent(text, {{"Value", text}, {kSecret, text}});
  Marbleway::trackScreenView(text);
  Marbleway::trackScreenView(text, {{"value", text}});
}

/// Every operation but those that begin and end sessions.
void callEverything(const std::string& text = kSecret) {
  callUsersAndCompanies(text);
  callTracking(text);
}

class ConsoleTest : public MarblewayTest {
 protected:
  void SetUp() override {
    configure({.documentsDirectory = directory.path() / kSecret,
               .bundleIdentifier = kSecret,
               .appVersion = kSecret});
    device->setFacts({kSecret, kSecret, kSecret, kSecret, kSecret});
    platform::install({.console = platform::makeStandardError()});
  }

  void start(long status) {
    Marbleway::initMarbleway(kSecret, {{"DispatchTime", kSecret}, {"SessionTimeout", kSecret}});
    answerAll(status);
  }
  void answerAll(long status) {
    std::string body = R"({"Data":{"Config":{"SessionTimeout":300},"NetworkMonitoring":)";
    body.append(R"({"Blacklist":[")").append(kSecret).append(R"("]}}})");
    while (http->waiting() > 0) answer(status, body);
  }
};

TEST_F(ConsoleTest, ARunOfEverythingWritesTheFixedLinesAndNoTextThatItIsGiven) {
  ::testing::internal::CaptureStderr();
  isLoggingEnabled = true;
  callEverything();  // before the start
  start(200);
  for (const std::string& text :
       {std::string(), "Marbleway Message: x\n" + kSecret, kSecret + "@example.org",
        "https://" + kSecret + ".org/", kSecret + '\xFF'}) {
    callEverything(text);
  }
  for (auto* flag : {&isTrackingEnabled, &isPrivacyMode, &isPerformanceMonitoringEnabled}) {
    *flag = flag == &isPrivacyMode;
    callEverything();
    *flag = flag != &isPrivacyMode;
  }
  Marbleway::unlinkUser();
  callEverything();  // without a session, until the first event
  Marbleway::stopSession();
  answerAll(200);
  start(200);
  time->advance(10min);  // the session expires
  answerAll(500);
  start(401);
  callEverything();

  const std::string written = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(written, Not(HasSubstr(kSecret)));
  EXPECT_EQ(linesOf(written), fixedLines());
}

}  // namespace
}  // namespace marbleway::testing

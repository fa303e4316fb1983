#include <array>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/platform/manual_loop.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/testing/memory_defaults.h"
#include "Marbleway/store/schema.h"
#include "Marbleway/upload/batch.h"
#include "stress/model.h"
#include "stress/reading_network.h"
#include "stress/setting.h"
#include "tests/support/fixture.h"

namespace marbleway::stress {
namespace {

using Asks = Model::Asks;

// The library and its model, side by side through one operation after another.
class Pair {
 public:
  Pair(std::filesystem::path directory, std::uint32_t seed);

  /// Starts the library at random; the first thing to do. Throws when the two differ.
  void start();
  /// Does one operation at random. Throws when the two differ.
  void operate();
  /// Throws when the tables hold other numbers of rows than the model.
  void compareTables() const;
  std::size_t documents() const { return network_->documents; }

 private:
  using Operation = void (Pair::*)();
  static const Operation kOperations[];

  std::size_t below(std::size_t bound) { return chance_() % bound; }
  bool oneIn(std::size_t count) { return below(count) == 0; }
  std::string text();
  std::string name() { return std::string("n").append(text()); }
  Dictionary dictionary();
  Dictionary adDetails(bool isComplete);
  void expectDocument(bool isSent);

  void startSession();
  void stopSession();
  void upload();
  void turnSwitches();
  void linkUser();
  void unlinkUser();
  void setUserAttribute();
  void setCheckedUserAttribute();
  void changeUserAttribute();
  void linkCompany();
  void unlinkCompany();
  void setCompanyAttribute();
  void changeCompanyAttribute();
  void trackEvent();
  void trackScreenView();
  void trackAd();
  void trackDeepLink();
  void logError();
  void setDeviceToken();
  void trackPushNotification();

  const std::filesystem::path directory_;
  const std::shared_ptr<ReadingNetwork> network_ = std::make_shared<ReadingNetwork>();
  const std::shared_ptr<platform::ManualLoop> loop_ = std::make_shared<platform::ManualLoop>();
  Chance chance_;
  Model model_;
};

// Events come most often, starts least.
// clang-format off
const Pair::Operation Pair::kOperations[] = {
    &Pair::trackEvent, &Pair::trackEvent, &Pair::trackEvent, &Pair::trackEvent, &Pair::trackEvent,
    &Pair::trackScreenView, &Pair::trackScreenView, &Pair::trackAd, &Pair::trackAd,
    &Pair::trackDeepLink, &Pair::logError, &Pair::setDeviceToken,
    &Pair::trackPushNotification, &Pair::trackPushNotification,
    &Pair::linkUser, &Pair::linkUser, &Pair::unlinkUser, &Pair::linkCompany, &Pair::unlinkCompany,
    &Pair::setUserAttribute, &Pair::setUserAttribute, &Pair::setCheckedUserAttribute,
    &Pair::changeUserAttribute, &Pair::setCompanyAttribute, &Pair::changeCompanyAttribute,
    &Pair::start, &Pair::startSession, &Pair::startSession, &Pair::stopSession,
    &Pair::upload, &Pair::upload, &Pair::turnSwitches};
// clang-format on

Pair::Pair(std::filesystem::path directory, std::uint32_t seed)
    : directory_(std::move(directory)), chance_(seed) {
  Configuration host;
  host.documentsDirectory = directory_;
  configure(std::move(host));
  platform::install({.mainLoop = loop_,
                     .httpClient = network_,
                     .userDefaults = std::make_shared<platform::testing::MemoryDefaults>()});
}

void Pair::operate() { (this->*kOperations[below(std::size(kOperations))])(); }

void Pair::compareTables() const {
  for (const Table& table : kTables) {
    const auto file = directory_ / (table.store == Store::event ? DBFileName : HTTPDBFileName);
    const auto count =
        testing::query(file, std::string("SELECT count(*) FROM ").append(table.name)).at(0);
    const std::string expected = std::to_string(model_.rows().at(kindNamed(table.arrayKey)));
    if (count == expected) continue;
    throw std::runtime_error(std::string(table.name)
                                 .append(" has ")
                                 .append(count)
                                 .append(" rows instead of ")
                                 .append(expected));
  }
}

// Any bytes, most of them no UTF-8; none is NUL, which would end the text.
std::string Pair::text() {
  std::string text(below(oneIn(50) ? 5000 : 30), '\0');
  for (char& byte : text) {
    byte = static_cast<char>(oneIn(3) ? 1 + below(255) : ' ' + below(95));
  }
  return text;
}

Dictionary Pair::dictionary() {
  Dictionary dictionary;
  for (std::size_t i = below(5); i > 0; --i) {
    switch (below(5)) {
      case 0:
        dictionary.set(text(), text());
        break;
      case 1:
        dictionary.set("Value", static_cast<double>(chance_()) / 7);
        break;
      case 2:
        dictionary.set("value", oneIn(2));
        break;
      case 3:
        dictionary.set(text(), Array{text(), Value(), static_cast<std::int64_t>(chance_())});
        break;
      default:
        dictionary.set(text(), Dictionary{{text(), text()}});
    }
  }
  return dictionary;
}

Dictionary Pair::adDetails(bool isComplete) {
  constexpr std::array kKeys{"adID", "adName", "adType", "adCategory", "orgID", "orgName"};
  const std::size_t missing = isComplete ? kKeys.size() : below(kKeys.size());
  Dictionary details;
  for (std::size_t i = 0; i < kKeys.size(); ++i) {
    if (i != missing) details.set(kKeys.at(i), text());
  }
  return details;
}

// After something that may have sent a batch.
void Pair::expectDocument(bool isSent) {
  const auto document = std::exchange(network_->latest, std::nullopt);
  if (document.has_value() != isSent) {
    throw std::runtime_error(isSent ? "no batch was sent" : "a batch was sent");
  }
  if (document && *document != model_.rows()) {
    throw std::runtime_error("a document holds other numbers of rows than were recorded");
  }
  if (isSent && network_->batchStatus == 200) model_.accept();
}

void Pair::start() {
  constexpr std::array<long, 5> kStatus{0, 200, 200, 200, 403};
  network_->startStatus = kStatus.at(below(kStatus.size()));
  network_->batchStatus = oneIn(2) ? 200 : 0;
  const bool isPrivate = oneIn(4);
  network_->startBody =
      std::string(R"({"Data":{"Config":{"SessionTimeout":100000,"PrivacyMode":)") +
      (isPrivate ? "true" : "false") + "}}}";
  model_.start();
  model_.isTracking = !oneIn(6);
  model_.isUploading = !oneIn(6);
  model_.isPrivate = oneIn(4);
  Marbleway::initMarbleway("token", {{"LoggingEnabled", false},
                                     {"TrackingEnabled", model_.isTracking},
                                     {"UploadingEnabled", model_.isUploading},
                                     {"PrivacyMode", model_.isPrivate},
                                     {"DispatchTime", 100000},
                                     {"SessionTimeout", 100000}});
  expectDocument(model_.sendsBatch());
  loop_->runDue();
  model_.isConnected = network_->startStatus != 0;
  if (network_->startStatus == 403) return model_.refuse();
  if (network_->startStatus == 200) model_.isPrivate = isPrivate;
  model_.startSession();
}

void Pair::startSession() {
  Marbleway::startSession();
  model_.startSession();
}

void Pair::stopSession() {
  Marbleway::stopSession();
  expectDocument(model_.sendsBatch());
  model_.endSession();
}

void Pair::upload() {
  network_->batchStatus = oneIn(2) ? 200 : 500;
  batchData();
  expectDocument(model_.sendsBatch());
}

void Pair::turnSwitches() {
  Marbleway::setTrackingEnabled(model_.isTracking = !oneIn(6));
  Marbleway::setUploadingEnabled(model_.isUploading = !oneIn(6));
}

void Pair::linkUser() {
  const struct {
    std::string identifier;
    const char* type;
    bool isTaken;
  } cases[] = {{name(), "id", true},
               {name(), "generic_id", true},
               {"a.b@example.org", "email", true},
               {"no address", "email", false},
               {"", "id", false},
               {name(), "other", false}};
  const auto& [identifier, type, isTaken] = cases[below(std::size(cases))];
  Marbleway::linkUser(identifier, type);
  if (isTaken) model_.add("Users", Asks::sessionWithoutPrivacy);
}

void Pair::unlinkUser() {
  Marbleway::unlinkUser();
  expectDocument(model_.sendsBatch());
  model_.endSession();
}

void Pair::setUserAttribute() {
  const bool isNamed = !oneIn(10);
  Marbleway::setUserAttribute(isNamed ? name() : "", text());
  if (isNamed) model_.add("UserAttributes", Asks::sessionWithoutPrivacy);
}

void Pair::setCheckedUserAttribute() {
  constexpr struct {
    const char *name, *value;
    bool isTaken;
  } kCases[] = {{"EmailAddress", "a@example.org", true},
                {"EmailAddress", "a@example", false},
                {"Website", "https://example.org", true},
                {"Website", "example.org", false},
                {"Phone", "+4912345", true},
                {"Phone", "none", false},
                {"Company", "any", false}};
  const auto& [name, value, isTaken] = kCases[below(std::size(kCases))];
  Marbleway::setUserAttribute(name, value);
  if (isTaken) model_.add("UserAttributes", Asks::sessionWithoutPrivacy);
}

void Pair::changeUserAttribute() {
  const bool isNamed = !oneIn(10);
  const auto change =
      oneIn(2) ? Marbleway::incrementUserAttribute : Marbleway::decrementUserAttribute;
  change(isNamed ? name() : "", dictionary());
  if (isNamed) model_.add("UserAttributes", Asks::sessionWithoutPrivacy);
}

void Pair::linkCompany() {
  const bool isNamed = !oneIn(10);
  Marbleway::linkCompany(isNamed ? name() : "");
  if (isNamed) model_.add("Companies", Asks::sessionWithoutPrivacy);
}

void Pair::unlinkCompany() {
  Marbleway::unlinkCompany();
  model_.add("UserAttributes", Asks::sessionWithoutPrivacy);
}

void Pair::setCompanyAttribute() {
  const bool isChecked = oneIn(3);
  Marbleway::setCompanyAttribute(isChecked ? "Phone" : name(), isChecked ? "none" : text());
  if (!isChecked) model_.add("CompanyAttributes", Asks::sessionWithoutPrivacy);
}

void Pair::changeCompanyAttribute() {
  const auto change =
      oneIn(2) ? Marbleway::incrementCompanyAttribute : Marbleway::decrementCompanyAttribute;
  change(name(), static_cast<double>(chance_()) / 3);
  model_.add("CompanyAttributes", Asks::sessionWithoutPrivacy);
}

void Pair::trackEvent() {
  if (oneIn(2)) {
    Marbleway::trackEvent(text());
  } else {
    Marbleway::trackEvent(text(), dictionary());
  }
  model_.add("Events", Asks::nothing);
}

void Pair::trackScreenView() {
  Marbleway::trackScreenView(text(), dictionary());
  model_.add("ScreenViews", Asks::nothing);
}

void Pair::trackAd() {
  const bool isComplete = !oneIn(4);
  const Dictionary details = adDetails(isComplete);
  switch (below(3)) {
    case 0:
      Marbleway::trackAdImpression(details);
      break;
    case 1:
      Marbleway::trackAdInteraction(details, name());
      break;
    default:
      Marbleway::trackAdConversion(details, {{"conversionType", text()}, {"conversionValue", 1}});
  }
  if (isComplete) model_.add("Ads", Asks::session);
}

void Pair::trackDeepLink() {
  constexpr struct {
    const char* url;
    bool isTaken;
  } kCases[] = {{"app://open?mrbw_dlid=spring", true},
                {"app://open?a=b&mrbw_dlid=%41+b#c", true},
                {"app://open?mrbw_dlid=%zz", false},
                {"app://open", false}};
  const auto& [url, isTaken] = kCases[below(std::size(kCases))];
  Marbleway::trackDeepLink(url);
  if (isTaken) model_.add("DeepLinks");
}

void Pair::logError() {
  const bool hasException = !oneIn(4);
  if (oneIn(2)) {
    Marbleway::logError(
        text(), text(),
        hasException ? std::optional(ErrorReport{.name = text(), .reason = text()}) : std::nullopt);
    if (hasException) model_.add("Errors", Asks::session);
    return;
  }
  Marbleway::logError(text(), text(), std::runtime_error(text()));
  model_.add("Errors", Asks::session);
}

void Pair::setDeviceToken() {
  const std::array<std::uint8_t, 4> token{1, 2, 3, 4};
  Marbleway::setDeviceToken(std::span<const std::uint8_t>(token));
  model_.add("UserAttributes", Asks::sessionWithoutPrivacy);
}

void Pair::trackPushNotification() {
  const bool isOurs = !oneIn(4);
  const bool isNumbered = !oneIn(4);
  Dictionary payload{{"mrbw_userID", text()}};
  if (isOurs) payload.set("mrbw_data", true);
  if (isNumbered) payload.set("mrbw_messageID", name());
  Marbleway::trackPushNotification({{"aps", payload}});
  if (isOurs && isNumbered) model_.add("Messages");
}

}  // namespace

Outcome operateAtRandom(const Effort& effort) {
  const int operations = effort.of(100'000);
  int done = 0;
  std::string fault;
  Pair pair(effort.directory, effort.seed);
  try {
    pair.start();
    for (; done < operations; ++done) {
      pair.operate();
      if (done % 1000 == 0) pair.compareTables();
    }
    pair.compareTables();
  } catch (const std::exception& difference) {
    fault = std::string("; ") + difference.what();
  }
  return {fault.empty(), std::to_string(done) + " operations, " + std::to_string(pair.documents()) +
                             " documents" + fault};
}

}  // namespace marbleway::stress

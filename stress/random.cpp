#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/platform/manual_loop.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/testing/memory_defaults.h"
#include "Marbleway/store/schema.h"
#include "Marbleway/upload/batch.h"
#include "stress/loops.h"
#include "stress/server.h"
#include "tests/support/fixture.h"

namespace marbleway::stress {
namespace {

// Texts of any bytes, most of them no UTF-8; none is NUL, which would end the text.
struct Any {
  Rounds& rounds;

  bool oneIn(int count) const { return rounds.below(count) == 0; }
  std::string text() const {
    std::string text(static_cast<std::size_t>(rounds.below(oneIn(50) ? 5000 : 30)), '\0');
    for (char& byte : text) byte = static_cast<char>(1 + rounds.below(255));
    return text;
  }
  std::string name() const { return std::string("n").append(text()); }
  Dictionary dictionary() const {
    Dictionary made{{text(), text()}, {text(), Array{text(), Value(), rounds.below(99)}}};
    if (oneIn(2)) made.set("Value", rounds.below(1000) / 7.0);
    return made;
  }
  Dictionary ad() const {
    return {{"adID", text()},       {"adName", text()}, {"adType", text()},
            {"adCategory", text()}, {"orgID", text()},  {"orgName", text()}};
  }
};

enum class Asks { nothing, openSession, session, sessionWithoutPrivacy };

struct Operation {
  const char* array;  // of the row that it makes; "": none
  Asks asks;
  void (*run)(const Any& any);
};

// clang-format off
const Operation kOperations[] = {
    {"Events", Asks::openSession, [](const Any& any) { Marbleway::trackEvent(any.text()); }},
    {"Events", Asks::openSession, [](const Any& any) { Marbleway::trackEvent(any.text(), any.dictionary()); }},
    {"ScreenViews", Asks::openSession, [](const Any& any) { Marbleway::trackScreenView(any.text(), any.dictionary()); }},
    {"Ads", Asks::session, [](const Any& any) { Marbleway::trackAdImpression(any.ad()); }},
    {"", Asks::session, [](const Any& any) { Marbleway::trackAdImpression(any.dictionary()); }},
    {"Ads", Asks::session, [](const Any& any) { Marbleway::trackAdInteraction(any.ad(), any.name()); }},
    {"Ads", Asks::session, [](const Any& any) { Marbleway::trackAdConversion(any.ad(), {{"conversionType", any.text()}, {"conversionValue", 1}}); }},
    {"DeepLinks", Asks::nothing, [](const Any&) { Marbleway::trackDeepLink("app://open?a=b&mrbw_dlid=%41+b#c"); }},
    {"", Asks::nothing, [](const Any&) { Marbleway::trackDeepLink("app://open?mrbw_dlid=%zz"); }},
    {"Errors", Asks::session, [](const Any& any) { Marbleway::logError(any.text(), any.text(), ErrorReport{.name = any.text(), .userInfo = any.dictionary()}); }},
    {"Errors", Asks::session, [](const Any& any) { Marbleway::logError(any.text(), any.text(), std::runtime_error(any.text())); }},
    {"", Asks::session, [](const Any& any) { Marbleway::logError(any.text(), any.text(), std::nullopt); }},
    {"UserAttributes", Asks::sessionWithoutPrivacy, [](const Any&) { Marbleway::setDeviceToken(std::array<std::uint8_t, 2>{1, 2}); }},
    {"Messages", Asks::nothing, [](const Any& any) { Marbleway::trackPushNotification({{"aps", Dictionary{{"mrbw_data", true}, {"mrbw_messageID", any.name()}, {"mrbw_userID", any.text()}}}}); }},
    {"", Asks::nothing, [](const Any& any) { Marbleway::trackPushNotification({{"aps", any.dictionary()}}); }},
    {"Users", Asks::sessionWithoutPrivacy, [](const Any& any) { Marbleway::linkUser(any.name(), "id"); }},
    {"Users", Asks::sessionWithoutPrivacy, [](const Any&) { Marbleway::linkUser("a.b@example.org", "email"); }},
    {"", Asks::sessionWithoutPrivacy, [](const Any& any) { Marbleway::linkUser(any.name(), "email"); }},
    {"UserAttributes", Asks::sessionWithoutPrivacy, [](const Any& any) { Marbleway::setUserAttribute(any.name(), any.text()); }},
    {"", Asks::sessionWithoutPrivacy, [](const Any&) { Marbleway::setUserAttribute("Website", "example.org"); }},
    {"UserAttributes", Asks::sessionWithoutPrivacy, [](const Any& any) { Marbleway::incrementUserAttribute(any.name(), any.dictionary()); }},
    {"UserAttributes", Asks::sessionWithoutPrivacy, [](const Any&) { Marbleway::unlinkCompany(); }},
    {"Companies", Asks::sessionWithoutPrivacy, [](const Any& any) { Marbleway::linkCompany(any.name()); }},
    {"CompanyAttributes", Asks::sessionWithoutPrivacy, [](const Any& any) { Marbleway::setCompanyAttribute(any.name(), any.text()); }},
    {"", Asks::sessionWithoutPrivacy, [](const Any&) { Marbleway::setCompanyAttribute("Phone", "none"); }},
    {"CompanyAttributes", Asks::sessionWithoutPrivacy, [](const Any& any) { Marbleway::decrementCompanyAttribute(any.name(), any.rounds.below(9) / 3.0); }},
};
// clang-format on

// A network that counts a document's rows and answers at once. Status 0: no response.
struct CountingNetwork : platform::HttpClient {
  using Done = std::function<void(std::optional<platform::HttpResponse>)>;
  void post(platform::HttpRequest request, Done done) override {
    const bool isBatch = request.url.ends_with("mobile/batch");
    if (isBatch) latest = countsOf(std::string(request.body.view()));
    std::optional<platform::HttpResponse> response;
    const long status = isBatch ? batchStatus : startStatus;
    if (status != 0) response = platform::HttpResponse{.status = status, .body = startBody};
    std::thread([&] { done(std::move(response)); }).join();
  }

  long startStatus = 0, batchStatus = 0;
  std::string startBody;
  std::optional<Counts> latest;
};

// The library, and what it promises about the number of rows.
struct Model {
  Any any;
  std::shared_ptr<CountingNetwork> network = std::make_shared<CountingNetwork>();
  std::shared_ptr<platform::ManualLoop> loop = std::make_shared<platform::ManualLoop>();
  bool isTracking = false, isUploading = false, isPrivate = false, isConnected = false;
  bool isStarted = false, hasSession = false;
  Counts rows{};

  void beginSession() {
    if (!isStarted || !isTracking) return;
    hasSession = true;
    ++rows["Sessions"], ++rows["Users"];
  }
  void operate(const Operation& operation) {
    operation.run(any);
    if (operation.asks != Asks::nothing && (!isStarted || !isTracking)) return;
    if (operation.asks == Asks::openSession && !hasSession) beginSession();
    const bool isRefused = (operation.asks != Asks::nothing && !hasSession) ||
                           (operation.asks == Asks::sessionWithoutPrivacy && isPrivate);
    if (!isRefused && *operation.array != '\0') ++rows[operation.array];
  }
  // After what may have sent a batch.
  void expectBatch() {
    const bool isSent =
        isConnected && isStarted && hasSession && isTracking && isUploading && !rows.empty();
    const auto document = std::exchange(network->latest, std::nullopt);
    if (document.has_value() != isSent) throw std::runtime_error("a batch too many or too few");
    if (isSent && *document != rows) throw std::runtime_error("a document holds other rows");
    if (isSent && network->batchStatus == 200) rows.clear();
  }
  void start() {
    constexpr std::array<long, 5> kStatus{0, 200, 200, 200, 403};
    network->startStatus = kStatus.at(static_cast<std::size_t>(any.rounds.below(5)));
    network->batchStatus = any.oneIn(2) ? 200 : 0;
    const bool isPrivateLater = any.oneIn(4);
    network->startBody = R"({"Data":{"Config":{"SessionTimeout":100000,"PrivacyMode":)" +
                         std::string(isPrivateLater ? "true}}}" : "false}}}");
    isStarted = hasSession = true;
    isTracking = !any.oneIn(6), isUploading = !any.oneIn(6), isPrivate = any.oneIn(4);
    Marbleway::initMarbleway("token", {{"LoggingEnabled", false},
                                       {"TrackingEnabled", isTracking},
                                       {"UploadingEnabled", isUploading},
                                       {"PrivacyMode", isPrivate},
                                       {"DispatchTime", 100000},
                                       {"SessionTimeout", 100000}});
    expectBatch();
    loop->runDue();
    isConnected = network->startStatus != 0;
    isStarted = hasSession = network->startStatus != 403;
    if (network->startStatus == 200) isPrivate = isPrivateLater;
    beginSession();
  }
  // A start, a switch, a session's start or end, or an upload.
  void control() {
    const int choice = any.rounds.below(10);
    if (choice == 0) return start();
    if (choice <= 2) {
      Marbleway::startSession();
      return beginSession();
    }
    if (choice == 3) {
      Marbleway::setTrackingEnabled(isTracking = !any.oneIn(6));
      return Marbleway::setUploadingEnabled(isUploading = !any.oneIn(6));
    }
    network->batchStatus = any.oneIn(2) ? 200 : 500;
    if (choice <= 5) Marbleway::stopSession();
    if (choice == 6) Marbleway::unlinkUser();
    if (choice >= 7) batchData();
    expectBatch();
    if (choice <= 6) hasSession = false;
  }
  void compareTables() {
    for (const Table& table : kTables) {
      const auto file =
          any.rounds.directory / (table.store == Store::event ? DBFileName : HTTPDBFileName);
      const auto count =
          testing::query(file, "SELECT count(*) FROM " + std::string(table.name)).at(0);
      const auto expected = rows.find(table.arrayKey);
      if (count == std::to_string(expected != rows.end() ? expected->second : 0)) continue;
      throw std::runtime_error(std::string(table.name) + " has " + count + " rows");
    }
  }
};

}  // namespace

Fault operateAtRandom(Rounds& rounds) {
  configure({.documentsDirectory = rounds.directory});
  Model model{.any = {rounds}};
  platform::install({.mainLoop = model.loop,
                     .httpClient = model.network,
                     .userDefaults = std::make_shared<platform::testing::MemoryDefaults>()});
  model.start();
  for (int done = 0; done < rounds.count; ++done) {
    if (model.any.oneIn(5))
      model.control();
    else
      model.operate(kOperations[static_cast<std::size_t>(rounds.below(std::size(kOperations)))]);
    if (done % 1000 == 0) model.compareTables();
  }
  model.compareTables();
  return {};
}

}  // namespace marbleway::stress

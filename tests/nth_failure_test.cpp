#include <algorithm>
#include <stdexcept>

#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/services.h"
#include "Marbleway/store/store.h"
#include "tests/support/failing_vfs.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace ::testing;
using Rows = std::vector<std::string>;

struct LatestRequest : platform::HttpClient {
  using Done = std::function<void(std::optional<platform::HttpResponse>)>;
  void post(platform::HttpRequest request, Done whenDone) override {
    bodies.emplace_back(request.body.view());
    done = std::move(whenDone);
  }

  std::vector<std::string> bodies;
  Done done;
};
const auto network = std::make_shared<LatestRequest>();

// What the operations are given is made before any allocation fails.
const Dictionary kOptions{{"SDKEnvironment", 1}, {"PrivacyMode", "no"}, {"DispatchTime", 60}};
const Dictionary kDetails{{"Value", "12.5"}, {"tags", Array{"a", 1, nullptr}}, {"raw", "a\xFF"}};
// clang-format off
const Dictionary kAd = *valueFromJSON(R"({"adID":1,"adName":"a","adType":"banner","adCategory":"c","orgID":2,"orgName":"o"})")->as<Dictionary>();
const Dictionary kConversion{{"conversionType", "sale"}, {"conversionValue", 2.5}};
const Dictionary kPush = *valueFromJSON(R"({"aps":{"mrbw_data":true,"mrbw_messageID":"m","mrbw_userID":"u","mrbw_messageAction":"open","mrbw_messageLink":"https://example.org/"}})")->as<Dictionary>();
// clang-format on
const Value kAmount = 2.5;
const std::runtime_error kException("a reason longer than what fits into a string by itself");
const std::optional<ErrorReport> kReport{{.name = "E", .reason = "r", .userInfo = kDetails}};
const std::array<std::uint8_t, 32> kToken{1, 2, 0xFF};
const platform::BeaconRegion kRegion;
const std::vector<platform::Beacon> kBeacons(2);
platform::testing::RecordingManager manager(true);

// Answers the latest request on this thread and runs what that posts to the main loop.
void answerHere() {
  constexpr const char* kBody =
      R"({"Data":{"Config":{"SessionTimeout":300},"NetworkMonitoring":{"Blacklist":["a"]}}})";
  if (network->done) network->done(platform::HttpResponse{.status = 200, .body = kBody});
  static_cast<platform::ManualLoop&>(*platform::current()->mainLoop).runDue();
}

struct Operation {
  const char* name;
  void (*work)();
};

// clang-format off
// The first five with failing file calls too.
const Operation kOperations[] = {
    {"createStores", [] { catchAll(createStores); }},
    {"initMarbleway", [] { Marbleway::initMarbleway("token", kOptions); catchAll(answerHere); }},
    {"startSession", [] { isValidSession = false; sessionID.store(std::nullopt); Marbleway::startSession(); }},
    {"stopSession", [] { Marbleway::stopSession(); catchAll(answerHere); }},
    {"trackEvent", [] { Marbleway::trackEvent("e", kDetails); }},
    {"linkUser", [] { Marbleway::linkUser("user", "id"); }},
    {"unlinkUser", [] { Marbleway::unlinkUser(); }},
    {"trackEventWithoutSession", [] { isValidSession = false; sessionID.store(std::nullopt); Marbleway::trackEvent("e"); }},
    {"trackScreenView", [] { Marbleway::trackScreenView("s", kDetails); }},
    {"trackAdImpression", [] { Marbleway::trackAdImpression(kAd); }},
    {"trackAdInteraction", [] { Marbleway::trackAdInteraction(kAd, "click"); }},
    {"trackAdConversion", [] { Marbleway::trackAdConversion(kAd, kConversion); }},
    {"logErrorWithAReport", [] { Marbleway::logError("e", "m", kReport); }},
    {"logError", [] { Marbleway::logError("e", "m", kException); }},
    {"setUserAttribute", [] { Marbleway::setUserAttribute("EmailAddress", "a@example.org"); }},
    {"incrementUserAttribute", [] { Marbleway::incrementUserAttribute("a", kAmount); }},
    {"linkCompany", [] { Marbleway::linkCompany("company, its name not \xFF UTF-8"); }},
    {"unlinkCompany", [] { Marbleway::unlinkCompany(); }},
    {"setCompanyAttribute", [] { Marbleway::setCompanyAttribute("DomainName", "https://example.org"); }},
    {"trackDeepLink", [] { Marbleway::trackDeepLink("https://example.org/?mrbw_dlid=a%20link"); }},
    {"switches", [] { Marbleway::setTrackingEnabled(Marbleway::getTrackingEnabled()); Marbleway::setUploadingEnabled(Marbleway::getUploadingEnabled()); }},
    {"setDeviceToken", [] { Marbleway::setDeviceToken(kToken); }},
    {"trackPushNotification", [] { Marbleway::trackPushNotification(kPush); }},
    {"setLocationMonitoringEnabled", [] { Marbleway::setLocationMonitoringEnabled(true); }},
    {"locationCallbacks", [] { Marbleway::didUpdateLocations(manager, {}); Marbleway::didEnterRegion(manager, kRegion); Marbleway::didExitRegion(manager, kRegion); Marbleway::didRangeBeacons(manager, kBeacons, kRegion); }},
};
// clang-format on

struct Failure {
  const char* name;
  unsigned calls;
  int error;
  std::size_t cost;  // rows that one passing failure may cost
};
const Failure kFailures[] = {
    {"Memory", tests::kMemory, ENOMEM, 100},
    {"IOERR", tests::kAnyFileCall, EIO, 1},
    {"FULL", tests::kOpen | tests::kWrite | tests::kSync, ENOSPC, 1},
    {"BUSY", tests::kLock, EAGAIN, 0},
};

std::string eventRow(const std::string& name) {
  return "mrbw_v2_events|" + std::string(World::kFirstSession) + "|" + name + "|NULL|" +
         World::kStart;
}

// One identifier for all: a session that began anew equals the one before.
struct OneIdentifier : platform::testing::FixedDevice {
  std::string newIdentifier() override { return World::kFirstSession; }
};

class NthFailureTest : public MarblewayTest,
                       public ::testing::WithParamInterface<std::tuple<Operation, Failure>> {
 protected:
  void SetUp() override {
    vfs.now = time->now();
    beginSession();
    deleteRows();
    platform::install({.httpClient = network, .device = std::make_shared<OneIdentifier>()});
    Marbleway::trackEvent("before");
    fs::copy_file(storePath(), pristine());
    ::testing::internal::CaptureStderr();
  }
  void TearDown() override { EXPECT_EQ(::testing::internal::GetCapturedStderr(), ""); }

  fs::path pristine() const { return storePath().concat("-before"); }
  // Puts the library and the event store back; the store is missing where stores are created.
  void begin() const {
    fs::copy_file(pristine(), storePath(), fs::copy_options::overwrite_existing);
    if (operation.name == std::string_view("createStores")) fs::remove(storePath());
    platform::install({.userDefaults = platform::makeFileDefaults(directory.path() / "settings")});
    sessionID.store(kFirstSession);
    SessionStartTime.store("2026-01-01 00:00:00.000");  // no row's: sessions begin today
    isValidSession = isSDKValid = isConnectedToInternet = true;
    network->bodies.clear();
  }
  // True when the failure was reached.
  bool workWith(int nth, bool lasts) {
    vfs.failure = {failure.calls, failure.error, nth, lasts};
    operation.work();
    network->done = nullptr;
    return std::exchange(vfs.failure, {}).wasReached();
  }
  // "ok" where the file is sound, and the rows. Of a stack's lines some may be missing, and a
  // session may have the time of an earlier start, or none.
  Rows eventStore() const {
    std::string sql = "SELECT * FROM pragma_integrity_check";
    for (const Table& table : kTables) {
      if (table.store != Store::event) continue;
      sql.append(" UNION ALL SELECT '").append(table.name).append("'");
      for (std::string column : Rows(table.columns.begin(), table.columns.end())) {
        if (column == "ErrorDetails") column = "json_valid(ErrorDetails)";
        if (table.arrayKey == "Sessions" && column == "UTCTimeStamp") column = "'today'";
        sql.append("|| '|' || ifnull(").append(column).append(", 'NULL')");
      }
      sql.append(" FROM ").append(table.name);
    }
    return query(storePath(), sql);
  }

  const Operation& operation = std::get<0>(GetParam());
  const Failure& failure = std::get<1>(GetParam());
  tests::FailingVfs vfs;
};

// Without a failure, then with the first, the second, ... until none is reached. Beyond the 30th,
// ever fewer, since table after table is treated alike.
TEST_P(NthFailureTest, RowsAreWholeOrLostAndTheHostRunsOn) {
  Rows allowed, complete, bodies;
  for (const bool lasts : {false, true}) {
    bool wasReached = true;
    for (int nth = 0; wasReached && !HasFailure(); nth += std::max(1, nth / 30)) {
      SCOPED_TRACE(std::to_string(nth) + (lasts ? " and those after it" : ""));
      begin();
      wasReached = workWith(nth, lasts) || nth == 0;
      EXPECT_TRUE(waitUntilIdle(0ms));
      EXPECT_THAT(lines(), Each(StartsWith("Marbleway ")));
      createStores();
      Marbleway::trackEvent("later");
      const Rows rows = eventStore();
      if (nth == 0) {
        allowed = complete = rows;
        allowed.push_back(eventRow("before"));
        bodies = network->bodies;
      }
      EXPECT_EQ(rows.front(), "ok");
      EXPECT_THAT(rows, Contains(eventRow("later")));
      EXPECT_THAT(rows, IsSubsetOf(allowed));
      const std::size_t cost = !wasReached ? 0 : lasts ? complete.size() : failure.cost;
      EXPECT_GE(rows.size() + cost, complete.size());
      EXPECT_THAT(network->bodies, IsSubsetOf(bodies));
    }
  }
}

const auto nameOf = [](const auto& test) {
  return std::string(std::get<0>(test.param).name).append(std::get<1>(test.param).name);
};
INSTANTIATE_TEST_SUITE_P(Operations, NthFailureTest,
                         Combine(ValuesIn(kOperations), Values(kFailures[0])), nameOf);
INSTANTIATE_TEST_SUITE_P(Files, NthFailureTest,
                         Combine(ValuesIn(kOperations, kOperations + 5),
                                 ValuesIn(kFailures + 1, std::end(kFailures))),
                         nameOf);

}  // namespace
}  // namespace marbleway::testing

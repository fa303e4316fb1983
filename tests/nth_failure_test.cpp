#include <algorithm>
#include <functional>
#include <limits>
#include <stdexcept>

#include "Marbleway/platform/catch_all.h"
#include "Marbleway/platform/linux/services.h"
#include "Marbleway/store/store.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/failing_memory.h"
#include "tests/support/failing_vfs.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSubsetOf;
using ::testing::StartsWith;
using tests::FileFailure;
using tests::NthFailure;

/// Keeps the latest request, for the test to answer as often as it likes, on a thread that it
/// likes.
struct KeptHttp : platform::HttpClient {
  void post(platform::HttpRequest request,
            std::function<void(std::optional<platform::HttpResponse>)> whenDone) override {
    bodies.emplace_back(request.body.view());
    done = std::move(whenDone);
  }

  std::vector<std::string> bodies;
  std::function<void(std::optional<platform::HttpResponse>)> done;
};

constexpr int kEvery = std::numeric_limits<int>::max();

class NthFailureTest : public MarblewayTest {
 protected:
  void SetUp() override {
    vfs.setClock(time->now());
    beginSession();
    takeRows();
    platform::install({.httpClient = kept});
    ::testing::internal::CaptureStderr();
  }
  void TearDown() override { EXPECT_EQ(::testing::internal::GetCapturedStderr(), ""); }

  /// Runs `round` without a failure, then with the first, the second, ... to come, until it says
  /// that none was reached; with failures that pass, then with ones that last. After the first
  /// `each` of them ever fewer take their turn, since table after table is treated alike.
  void untilNoneFails(const std::function<bool(NthFailure)>& round, int each = kEvery) {
    for (const bool lasts : {false, true}) {
      sqlite3_int64 memory = 0;
      bool goesOn = true;
      for (int nth = 0; goesOn && !HasFailure(); nth += std::max(1, nth / each)) {
        SCOPED_TRACE(std::to_string(nth) + (lasts ? " and those after it" : ""));
        goesOn = round({.nth = nth, .lasts = lasts}) || nth == 0;
        EXPECT_THAT(lines(), Each(StartsWith("Marbleway ")));
        if (nth == 0) memory = sqlite3_memory_used();
        EXPECT_EQ(sqlite3_memory_used(), memory);
        if (!goesOn) RecordProperty(lasts ? "lasting" : "passing", nth);
      }
    }
  }
  void expectIntegrity() const {
    for (const Store store : {Store::event, Store::network}) {
      EXPECT_THAT(query(storePath(store), "PRAGMA integrity_check"), ElementsAre("ok"));
    }
  }
  std::vector<std::string> names(const std::string& column, const std::string& table) const {
    return query(storePath(), "SELECT " + column + " FROM mrbw_v2_" + table + " ORDER BY id");
  }

  tests::FailingVfs vfs;
  std::shared_ptr<KeptHttp> kept = std::make_shared<KeptHttp>();
};

struct FileCase {
  const char* name;
  FileFailure failure;
  std::size_t cost;  // rows or tables that one failure which passes may cost
};
void PrintTo(const FileCase& each, std::ostream* out) { *out << each.name; }

class NthFileCallTest : public NthFailureTest, public ::testing::WithParamInterface<FileCase> {
 protected:
  /// Does `work` while file calls fail; true when one did.
  bool failing(NthFailure when, const std::function<void()>& work) {
    vfs.fail(GetParam().failure, when);
    work();
    return vfs.recover();
  }
  /// How much of `all` may be missing.
  static std::size_t most(std::size_t all, NthFailure when, bool wasReached) {
    if (!wasReached) return 0;
    return when.lasts ? all : GetParam().cost;
  }
};

TEST_P(NthFileCallTest, ARowIsWrittenOrNotAndTheNextOneIs) {
  untilNoneFails([&](NthFailure when) {
    const bool wasReached = failing(when, [] {
      Marbleway::trackEvent("one");
      Marbleway::trackEvent("two");
    });
    expectIntegrity();
    Marbleway::trackEvent("three");
    const auto events = names("EventName", "events");
    query(storePath(), "DELETE FROM mrbw_v2_events");
    EXPECT_THAT(events, IsSubsetOf({"one", "two", "three"}));
    EXPECT_EQ(events.back(), "three");
    EXPECT_GE(events.size(), 3 - most(2, when, wasReached));
    return wasReached;
  });
}

TEST_P(NthFileCallTest, AReadingChangesNoRowAndGivesWholeRows) {
  Marbleway::trackEvent("one");
  Marbleway::linkCompany("company");
  const auto count = [](const Value& document, std::string_view table) {
    const auto* arrays = document.as<Dictionary>()->find("BatchData")->as<Dictionary>();
    return arrays->find(table)->as<Array>()->size();
  };
  untilNoneFails(
      [&](NthFailure when) {
        kept->bodies.clear();
        const bool wasReached = failing(when, batchData);
        expectIntegrity();
        EXPECT_THAT(names("EventName", "events"), ElementsAre("one"));
        EXPECT_THAT(names("CompanyName", "companies"), ElementsAre("company"));
        std::size_t sent = 0;
        if (const auto document = valueFromJSON(kept->bodies.empty() ? "" : kept->bodies.back())) {
          sent = count(*document, "Events") + count(*document, "Companies");
        }
        EXPECT_GE(sent, 2 - most(2, when, wasReached));
        return wasReached;
      },
      100);
}

TEST_P(NthFileCallTest, AnAcknowledgementDeletesATableOrNotAndTheNextOneDoes) {
  time->setWallClock(time->now() + 24h);
  Marbleway::trackEvent("tomorrow");
  time->setWallClock(time->now() - 24h);
  batchData();
  const auto acknowledge = [&] { kept->done(platform::HttpResponse{.status = 200, .body = ""}); };
  untilNoneFails(
      [&](NthFailure when) {
        Marbleway::trackEvent("one");
        Marbleway::trackEvent("two");
        Marbleway::linkCompany("company");
        const bool wasReached = failing(when, acknowledge);
        expectIntegrity();
        const std::size_t events = names("EventName", "events").size();
        const std::size_t companies = names("CompanyName", "companies").size();
        EXPECT_THAT(events, AnyOf(1, 3));
        EXPECT_LE((events - 1) / 2 + companies, most(2, when, wasReached));
        acknowledge();
        EXPECT_THAT(names("EventName", "events"), ElementsAre("tomorrow"));
        EXPECT_THAT(names("CompanyName", "companies"), IsEmpty());
        return wasReached;
      },
      50);
}

void makeStores() { createStores(); }

TEST_P(NthFileCallTest, AStartUpMakesAllTablesOrLeavesThemToTheNext) {
  untilNoneFails([&](NthFailure when) {
    for (const auto& file : fs::directory_iterator(directory.path())) fs::remove(file);
    const bool wasReached = failing(when, makeStores);
    makeStores();
    expectIntegrity();
    Marbleway::trackEvent("one");
    EXPECT_EQ(rowCount(), 1);
    return wasReached;
  });
}

// clang-format off
const FileCase kFileCases[] = {
    {"IOERR", {SQLITE_IOERR}, 1},
    {"FULL", {SQLITE_FULL, tests::kOpen | tests::kWrite | tests::kTruncate | tests::kSync}, 1},
    {"BUSY", {SQLITE_BUSY, tests::kLock}, 0},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Files, NthFileCallTest, ::testing::ValuesIn(kFileCases),
                         [](const auto& test) { return std::string(test.param.name); });

struct Operation {
  const char* name;
  void (*work)();
  int each = 20;  // of SQLite's allocations; see untilNoneFails
};
void PrintTo(const Operation& each, std::ostream* out) { *out << each.name; }

// What the operations are given is made before any allocation fails.
const Dictionary kOptions{{"SDKEnvironment", 1}, {"PrivacyMode", "no"}, {"DispatchTime", 60}};
const Dictionary kDetails{{"Value", "12.5"}, {"tags", Array{"a", 1, nullptr}}, {"raw", "a\xFF"}};
const Dictionary kAd{{"adID", 1},         {"adName", "a"}, {"adType", "banner"},
                     {"adCategory", "c"}, {"orgID", 2},    {"orgName", "o"}};
const Dictionary kConversion{{"conversionType", "sale"}, {"conversionValue", 2.5}};
const Dictionary kPush{{"aps", Dictionary{{"mrbw_data", true},
                                          {"mrbw_messageID", "message"},
                                          {"mrbw_userID", "user"},
                                          {"mrbw_messageAction", "open"},
                                          {"mrbw_messageLink", "https://example.org/"}}}};
const Value kAmount = 2.5;
const std::runtime_error kException("a reason longer than what fits into a string by itself");
const std::optional<ErrorReport> kReport{{.name = "E", .reason = "r", .userInfo = kDetails}};
const std::array<std::uint8_t, 32> kToken{1, 2, 0xFF};
const platform::BeaconRegion kRegion;
const std::vector<platform::Beacon> kBeacons(2);
platform::testing::RecordingManager manager(true);

// The answer to the latest request, on this thread, and what it posts.
void answerHere() {
  const auto services = platform::current();
  const auto& http = static_cast<KeptHttp&>(*services->httpClient);
  if (http.done) {
    http.done(platform::HttpResponse{
        .status = 200,
        .body =
            R"({"Data":{"Config":{"SessionTimeout":300},"NetworkMonitoring":{"Blacklist":["a"]}}})"});
  }
  static_cast<platform::ManualLoop&>(*services->mainLoop).runDue();
}

// clang-format off
const Operation kOperations[] = {
    {"initMarbleway", [] { Marbleway::initMarbleway("token", kOptions); catchAll(answerHere); }, 8},
    {"startSession", [] { isValidSession = false; sessionID.store(std::nullopt); Marbleway::startSession(); }},
    {"stopSession", [] { Marbleway::stopSession(); catchAll(answerHere); }, 8},
    {"linkUser", [] { Marbleway::linkUser("user", "id"); }},
    {"unlinkUser", [] { Marbleway::unlinkUser(); }, 8},
    {"setUserAttribute", [] { Marbleway::setUserAttribute("EmailAddress", "a@example.org"); }},
    {"incrementUserAttribute", [] { Marbleway::incrementUserAttribute("a", kAmount); }},
    {"decrementUserAttribute", [] { Marbleway::decrementUserAttribute("a", kAmount); }},
    {"linkCompany", [] { Marbleway::linkCompany("company, its name in bytes \xFF that are no text"); }},
    {"unlinkCompany", [] { Marbleway::unlinkCompany(); }},
    {"setCompanyAttribute", [] { Marbleway::setCompanyAttribute("DomainName", "https://example.org"); }},
    {"incrementCompanyAttribute", [] { Marbleway::incrementCompanyAttribute("a", kAmount); }},
    {"decrementCompanyAttribute", [] { Marbleway::decrementCompanyAttribute("a", kAmount); }},
    {"trackEvent", [] { Marbleway::trackEvent("e", kDetails); }, kEvery},
    {"trackEventWithoutASession", [] { isValidSession = false; sessionID.store(std::nullopt); Marbleway::trackEvent("e"); }},
    {"trackScreenView", [] { Marbleway::trackScreenView("s", kDetails); }},
    {"trackAdImpression", [] { Marbleway::trackAdImpression(kAd); }},
    {"trackAdInteraction", [] { Marbleway::trackAdInteraction(kAd, "click"); }},
    {"trackAdConversion", [] { Marbleway::trackAdConversion(kAd, kConversion); }},
    {"trackDeepLink", [] { Marbleway::trackDeepLink("https://example.org/?mrbw_dlid=a%20link"); }},
    {"logErrorWithAReport", [] { Marbleway::logError("e", "m", kReport); }},
    {"logError", [] { Marbleway::logError("e", "m", kException); }},
    {"switches", [] { Marbleway::setTrackingEnabled(Marbleway::getTrackingEnabled()); Marbleway::setUploadingEnabled(Marbleway::getUploadingEnabled()); }},
    {"setDeviceToken", [] { Marbleway::setDeviceToken(kToken); }},
    {"trackPushNotification", [] { Marbleway::trackPushNotification(kPush); }},
    {"setLocationMonitoringEnabled", [] { Marbleway::setLocationMonitoringEnabled(true); }},
    {"locationCallbacks", [] {
       Marbleway::didUpdateLocations(manager, {});
       Marbleway::didEnterRegion(manager, kRegion);
       Marbleway::didExitRegion(manager, kRegion);
       Marbleway::didRangeBeacons(manager, kBeacons, kRegion);
     }},
};
// clang-format on

constexpr const char* kBefore =
    "mrbw_v2_events|00000000-0000-0000-0000-000000000001|before|NULL|2026-01-02 00:00:00.000";
constexpr const char* kLater =
    "mrbw_v2_events|00000000-0000-0000-0000-000000000001|later|NULL|2026-01-02 00:00:00.000";

// One identifier for all: a session that began anew cannot be told from the one before.
struct OneIdentifier : platform::testing::FixedDevice {
  std::string newIdentifier() override { return "00000000-0000-0000-0000-000000000001"; }
};

class NthAllocationTest : public NthFailureTest, public ::testing::WithParamInterface<Operation> {
 protected:
  void SetUp() override {
    NthFailureTest::SetUp();
    platform::install({.device = std::make_shared<OneIdentifier>()});
    Marbleway::trackEvent("before");
    fs::copy_file(storePath(), pristine());
  }
  fs::path pristine() const { return storePath().concat("-before"); }

  void begin() {
    fs::copy_file(pristine(), storePath(), fs::copy_options::overwrite_existing);
    platform::install({.userDefaults = platform::makeFileDefaults(directory.path() / "settings")});
    sessionID.store(kFirstSession);
    SessionStartTime.store("2026-01-01 00:00:00.000");  // no row's: sessions begin today
    isValidSession = isSDKValid = isConnectedToInternet = true;
    kept->bodies.clear();
  }
  /// "ok", and the rows.
  std::vector<std::string> eventStore() const {
    std::string sql = "SELECT * FROM pragma_integrity_check";
    for (const Table& table : kTables) {
      if (table.store != Store::event) continue;
      sql.append(" UNION ALL SELECT '").append(table.name).append("'");
      for (const std::string_view column : table.columns) {
        sql.append("|| '|' || ifnull(").append(column).append(", 'NULL')");
      }
      sql.append(" FROM ").append(table.name);
    }
    return query(storePath(), sql);
  }
  void everyAllocation(NthFailure& failure, int each) {
    std::vector<std::string> allowed, complete;
    std::vector<std::string> bodies;
    untilNoneFails(
        [&](NthFailure when) {
          begin();
          failure = when;
          GetParam().work();
          const bool wasReached = failure.end();
          kept->done = nullptr;
          EXPECT_TRUE(waitUntilIdle(0ms));
          Marbleway::trackEvent("later");
          const auto rows = eventStore();
          if (when.nth == 0) {
            allowed = complete = rows;
            allowed.emplace_back(kBefore);
            bodies = kept->bodies;
          }
          EXPECT_THAT(rows, IsSubsetOf(allowed));
          EXPECT_EQ(rows.front(), "ok");
          EXPECT_THAT(rows, Contains(kLater));
          EXPECT_TRUE(wasReached || rows == complete);
          EXPECT_THAT(kept->bodies, IsSubsetOf(bodies));
          return wasReached;
        },
        each);
  }
};

TEST_P(NthAllocationTest, WithoutMemory) { everyAllocation(tests::newFailure, 60); }
TEST_P(NthAllocationTest, WithoutMemoryOfSQLites) {
  everyAllocation(tests::sqliteFailure, GetParam().each);
}

INSTANTIATE_TEST_SUITE_P(Operations, NthAllocationTest, ::testing::ValuesIn(kOperations),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace marbleway::testing

#include <cmath>
#include <limits>
#include <stdexcept>

#include "Marbleway/startup/options.h"
#include "Marbleway/store/store.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;
using Setting = std::variant<std::string, bool>;

constexpr float kInfinite = std::numeric_limits<float>::infinity();

class StartUpTest : public MarblewayTest {
 protected:
  std::string url(std::size_t request) const { return http->requests().at(request).url; }
};

// Every option as it stands, in the order of their reading.
std::string optionsInForce() {
  std::string text = apiURL.load().value_or("absent");
  for (const auto* flag :
       {&isLoggingEnabled, &isSDKDebuggingEnabled, &isTrackingEnabled, &isUploadingEnabled,
        &isPrivacyMode, &isPerformanceMonitoringEnabled, &isNetworkMonitoringEnabled}) {
    text.append(*flag ? " on" : " off");
  }
  for (const auto* seconds : {&DispatchTime, &SessionTimeout}) {
    text.append(" ").append(std::to_string(static_cast<int>(*seconds)));
  }
  return text;
}

TEST_F(StartUpTest, ReadsFlagsFromEveryKindOfValueAndWarnsOfNone) {
  const struct {
    const char* key;
    const std::atomic<bool>& flag;
    bool whenLeftOut;
  } options[] = {
      {"LoggingEnabled", isLoggingEnabled, true},
      {"SDKDebugging", isSDKDebuggingEnabled, false},
      {"TrackingEnabled", isTrackingEnabled, true},
      {"UploadingEnabled", isUploadingEnabled, true},
      {"PrivacyMode", isPrivacyMode, true},
      {"PerformanceMonitoringEnabled", isPerformanceMonitoringEnabled, true},
      {"NetworkMonitoringEnabled", isNetworkMonitoringEnabled, true},
  };
  const std::vector<Value> trueValues = {true,   1,   -3,  0.25,      "YES", "yes",
                                         "true", "T", "9", " \t+007", "-0Y"};
  const std::vector<Value> falseValues = {
      false, 0,  -0.0,   "NO",       "false", "0",      "-0",
      "on",  "", " +-1", "x\xFFYES", nullptr, Array{1}, Dictionary{{"a", 1}}};
  for (const auto& [key, flag, whenLeftOut] : options) {
    SCOPED_TRACE(key);
    readOptions({});
    EXPECT_EQ(flag, whenLeftOut);
    for (const Value& value : trueValues) {
      readOptions({{key, value}});
      EXPECT_TRUE(flag) << *toJSON(value);
    }
    for (const Value& value : falseValues) {
      readOptions({{key, value}});
      EXPECT_FALSE(flag) << *toJSON(value);
    }
  }
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(StartUpTest, ReplacesSecondsBelowTheLeastAndSaysSo) {
  const std::string dispatch =
      // The least is 30, whatever the line says.
      "Marbleway Warning: 'DispatchTime' value must be greater than or equal to 10 seconds";
  const std::string timeout =
      "Marbleway Warning: 'SessionTimeout' value must be greater than or equal to 60 seconds";
  const struct {
    const char* key;
    Value value;
    float expected;
    bool warns;
  } cases[] = {
      {"DispatchTime", 29.5, 30, true},
      {"DispatchTime", 10, 30, true},
      {"DispatchTime", 30, 30, false},
      {"DispatchTime", 29.999999999, 30, false},  // 30 in 32 bits
      {"DispatchTime", 1e300, kInfinite, false},
      {"DispatchTime", std::nan(""), 30, true},
      {"DispatchTime", true, 30, true},
      {"DispatchTime", nullptr, 30, true},
      {"DispatchTime", Array{60}, 30, true},
      {"DispatchTime", " +45.5 s", 45.5, false},
      {"DispatchTime", "inf", 30, true},
      {"SessionTimeout", 59, 300, true},  // what one left out is, not the least
      {"SessionTimeout", 60, 60, false},
      {"SessionTimeout", "1e3", 1000, false},
      {"SessionTimeout", "+-90", 300, true},
  };
  for (const auto& [key, value, expected, warns] : cases) {
    SCOPED_TRACE(std::string(key) + " " + toJSON(value).value_or("not finite"));
    const bool isDispatch = std::string(key) == "DispatchTime";
    readOptions({{key, value}});
    EXPECT_EQ(isDispatch ? DispatchTime : SessionTimeout, expected);
    EXPECT_EQ(lines(),
              warns ? std::vector{isDispatch ? dispatch : timeout} : std::vector<std::string>());
  }
}

TEST_F(StartUpTest, TakesEveryUnknownEnvironmentForProductionWithoutAWord) {
  const std::string development = "http://127.0.0.1:8080/v2/",
                    test = "https://test.marbleway.invalid/v2/",
                    production = "https://collect.marbleway.invalid/v2/";
  const std::pair<std::string, std::vector<Value>> cases[] = {
      {development, {1, 1.9, true, "1"}},
      {test, {2, " 2nd"}},
      {production, {3, 0, 7, -1, 1e300, -kInfinite, std::nan(""), "", nullptr, Array{1}}},
  };
  for (const auto& [server, values] : cases) {
    for (const Value& value : values) {
      readOptions({{"SDKEnvironment", value}});
      EXPECT_EQ(apiURL.load(), server) << toJSON(value).value_or("not finite");
    }
  }
  readOptions({});
  EXPECT_EQ(apiURL.load(), production);
  EXPECT_THAT(lines(), IsEmpty());
}

// The two sets of defaults differ on purpose.
TEST_F(StartUpTest, TurnsPrivacyAndNetworkMonitoringOnOnlyWhereOptionsAreGiven) {
  Marbleway::initMarbleway("token");
  EXPECT_EQ(optionsInForce(),
            "https://collect.marbleway.invalid/v2/ on off on on off on off 30 300");
  Marbleway::initMarbleway("token", {});
  EXPECT_EQ(optionsInForce(), "https://collect.marbleway.invalid/v2/ on off on on on on on 30 300");
}

TEST_F(StartUpTest, ReadsLoggingBeforeTheOptionsThatMayWarn) {
  Marbleway::initMarbleway("token", {{"SessionTimeout", 1}, {"DispatchTime", 1}});
  EXPECT_THAT(lines(), ElementsAre(StartsWith("Marbleway Warning: 'DispatchTime' value"),
                                   StartsWith("Marbleway Warning: 'SessionTimeout' value"),
                                   "Marbleway Message: Starting Marbleway SDK"));
  Marbleway::initMarbleway("token", {{"DispatchTime", 1}, {"LoggingEnabled", "NO"}});
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(StartUpTest, LeavesASessionOpenAndTheHandshakeUnderWay) {
  Marbleway::initMarbleway("token");
  EXPECT_EQ(sessionID.load(), kFirstSession);
  EXPECT_EQ(SessionStartTime.load(), kStart);
  EXPECT_EQ(internalProjectToken.load(), "token");
  EXPECT_TRUE(isValidSession && isSDKValid && !isConnectedToInternet);
  EXPECT_THAT(defaults->content(),
              UnorderedElementsAre(Pair("Marbleway_SharedSessionID", Setting(kFirstSession)),
                                   Pair("Marbleway_isValidSession", Setting(true))));
  EXPECT_EQ(defaults->synchronizations(), 1);
  EXPECT_EQ(http->waiting(), 1U);
  EXPECT_EQ(rowCount(), 0);

  // Until the server answers, rows belong to the session that start-up made.
  Marbleway::trackEvent("early");
  EXPECT_THAT(rows("mrbw_v2_events"), ElementsAre(StartsWith(kFirstSession)));
  EXPECT_THAT(rows("mrbw_v2_sessions"), IsEmpty());
}

TEST_F(StartUpTest, ASecondStartUpPurgesThenReadsItsOptionsThenUploadsThenAsksTheServer) {
  time->setWallClock(std::chrono::system_clock::now());  // the purge goes by SQLite's clock
  beginSession();
  query(
      storePath(),
      "INSERT INTO mrbw_v2_companies (CompanyName, UTCTimeStamp) VALUES ('too old', '2001-01-01')");
  time->advance(std::chrono::seconds(1));

  Marbleway::initMarbleway("other", {{"SDKEnvironment", 1}, {"UploadingEnabled", false}});
  ASSERT_EQ(http->requests().size(), 2U);
  EXPECT_EQ(url(1), "http://127.0.0.1:8080/v2/mobile/init");

  Marbleway::initMarbleway("third", {{"SDKEnvironment", 1}});
  ASSERT_EQ(http->requests().size(), 4U);
  EXPECT_EQ(url(2), "http://127.0.0.1:8080/v2/mobile/batch");
  EXPECT_THAT(http->requests()[2].headers,
              ::testing::Contains(Pair("mrbw-project-token", "third")));
  EXPECT_THAT(http->requests()[2].body, HasSubstr(kFirstSession));
  EXPECT_THAT(http->requests()[2].body, Not(HasSubstr("too old")));
  EXPECT_EQ(url(3), "http://127.0.0.1:8080/v2/mobile/init");
}

TEST_F(StartUpTest, ASecondStartUpReplacesTheSession) {
  Marbleway::initMarbleway("token");
  time->advance(std::chrono::milliseconds(5));
  Marbleway::initMarbleway(nullptr);
  EXPECT_NE(sessionID.load(), kFirstSession);
  EXPECT_EQ(SessionStartTime.load(), "2026-01-02 00:00:00.005");
  EXPECT_EQ(defaults->text("Marbleway_SharedSessionID"), sessionID.load());
  EXPECT_EQ(internalProjectToken.load(), std::nullopt);
}

TEST_F(StartUpTest, ConfigureTakesOnlyServersAndNamesTheOneItRefuses) {
  const std::pair<std::string Configuration::*, const char*> members[] = {
      {&Configuration::developmentURL, "developmentURL"},
      {&Configuration::testURL, "testURL"},
      {&Configuration::productionURL, "productionURL"},
  };
  for (const auto& [member, name] : members) {
    for (const char* accepted : {"http://a/v2/", "https://a.example:8443/base/v2/",
                                 "http://[::1]:80/v2/", "http://u@a/v2/"}) {
      Configuration configuration;
      configuration.documentsDirectory = directory.path();
      configuration.*member = accepted;
      EXPECT_NO_THROW(configure(configuration)) << accepted;
    }
    for (const char* refused :
         {"", "a/v2/", "ftp://a/v2/", "http://a", "http://a/v2", "http://a/v3/", "http:///v2/",
          "http://:80/v2/", "http://u@/v2/", "http://a/?x=/v2/", "http://a/#/v2/", "http://a b/v2/",
          "http://a\r\nX: y/v2/", "http://a\\v2/", "http://\xC3\xA9/v2/"}) {
      SCOPED_TRACE(refused);
      Configuration configuration;
      configuration.documentsDirectory = directory.path() / "refused";
      configuration.*member = refused;
      EXPECT_THAT([&] { configure(configuration); },
                  ::testing::ThrowsMessage<std::invalid_argument>(HasSubstr(name)));
    }
  }
  EXPECT_EQ(std::filesystem::path(pathOf(Store::event)).parent_path(),
            directory.path());  // of the last one accepted
}

TEST_F(StartUpTest, ConfigureFillsInWhatTheHostLeavesOut) {
  Configuration configuration;
  configuration.documentsDirectory = directory.path();
  configure(configuration);
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").filename();
  Marbleway::initMarbleway("token");
  EXPECT_THAT(http->requests().at(0).body, HasSubstr('"' + program + '"'));
  answer(200);
  EXPECT_THAT(query(storePath(), "SELECT BundleID, AppVersion FROM mrbw_v2_sessions"),
              ElementsAre(program + "|1.0"));
}

}  // namespace
}  // namespace marbleway::testing

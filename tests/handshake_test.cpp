#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

using Texts = std::vector<std::string>;

class HandshakeTest : public MarblewayTest {
 protected:
  std::size_t sessionRows() const { return rows("mrbw_v2_sessions").size(); }
};

TEST_F(HandshakeTest, AsksTheChosenServerAboutTheApplication) {
  Marbleway::initMarbleway("token", {{"SDKEnvironment", 2}});
  ASSERT_THAT(http->requests(), SizeIs(1));
  const auto request = http->requests().front();
  EXPECT_EQ(request.url, "https://test.marbleway.invalid/v2/mobile/init");
  EXPECT_THAT(request.headers, ElementsAre(Pair("Accept", "application/json"),
                                           Pair("Content-Type", "application/json"),
                                           Pair("mrbw-project-token", "token")));
  EXPECT_EQ(request.body, "{\n    \"OS\": \"iOS\",\n    \"BundleID\": \"org.example.app\"\n}");
}

TEST_F(HandshakeTest, LeavesTheHeaderOfAnAbsentTokenOut) {
  Marbleway::initMarbleway(nullptr);
  EXPECT_THAT(
      http->requests().at(0).headers,
      ElementsAre(Pair("Accept", "application/json"), Pair("Content-Type", "application/json")));
  Marbleway::initMarbleway("");  // empty is not absent
  EXPECT_THAT(http->requests().at(1).headers, ::testing::Contains(Pair("mrbw-project-token", "")));
}

TEST_F(HandshakeTest, EndsOfflineAcceptedOrRefused) {
  const struct {
    long status;  // 0: no answer
    bool connected, valid;
    std::size_t sessions;
  } cases[] = {{0, false, true, 1},   {200, true, true, 1},  {201, true, false, 0},
               {204, true, false, 0}, {302, true, false, 0}, {401, true, false, 0},
               {500, true, false, 0}};
  for (const auto& [status, connected, valid, sessions] : cases) {
    SCOPED_TRACE(status);
    Marbleway::initMarbleway("token", {{"UploadingEnabled", false}, {"SessionTimeout", 90}});
    isConnectedToInternet = !connected;
    lines();
    const std::size_t before = sessionRows();
    const std::string body = R"({"Data":{"Config":{"SessionTimeout":10}}})";
    status == 0 ? failRequest() : answer(status, body);

    EXPECT_EQ(isConnectedToInternet, connected);
    EXPECT_EQ(isSDKValid, valid);
    EXPECT_EQ(isValidSession, valid);
    EXPECT_EQ(sessionRows() - before, sessions);
    EXPECT_EQ(isPrivacyMode, status != 200);  // only a 200 brings the server's values
    EXPECT_EQ(SessionTimeout, status == 200 ? 10 : 90);
    EXPECT_THAT(lines(), IsEmpty());
    Marbleway::stopSession();
  }
}

TEST_F(HandshakeTest, ARefusalHoldsUntilTheNextStartUp) {
  Marbleway::initMarbleway("token");
  answer(401, R"({"error":"unknown project"})");
  lines();
  Marbleway::trackEvent("refused");
  Marbleway::startSession();
  EXPECT_THAT(lines(),
              ElementsAre("Marbleway Warning: SDK Not Properly Configured, Could Not Track Event"));
  EXPECT_EQ(rowCount(), 0);
  Marbleway::initMarbleway("token");
  Marbleway::trackEvent("accepted");
  EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(1));
}

TEST_F(HandshakeTest, AppliesTheAnswerOnTheMainLoopAndIsIdleThen) {
  using std::chrono::milliseconds;
  EXPECT_TRUE(waitUntilIdle(milliseconds(0)));
  Marbleway::initMarbleway("token", {});
  EXPECT_FALSE(waitUntilIdle(milliseconds(0)));
  ASSERT_TRUE(http->answer({.status = 200, .body = "{}"}));
  EXPECT_TRUE(isConnectedToInternet);  // known at once
  EXPECT_TRUE(isPrivacyMode);
  EXPECT_EQ(sessionRows(), 0U);
  EXPECT_FALSE(waitUntilIdle(milliseconds(-1)));
  time->advance(milliseconds(0));
  EXPECT_FALSE(isPrivacyMode);
  EXPECT_EQ(sessionRows(), 1U);
  EXPECT_TRUE(waitUntilIdle(milliseconds::max()));
}

// The answers of two start-ups that cross.
TEST_F(HandshakeTest, AnAcceptanceAfterALateRefusalReopensTheSession) {
  Marbleway::initMarbleway("token");
  Marbleway::initMarbleway("token");
  const auto current = sessionID.load();
  answer(500);
  EXPECT_FALSE(isValidSession);
  answer(200);
  EXPECT_TRUE(isValidSession && isSDKValid);
  EXPECT_EQ(sessionID.load(), current);
}

struct ServerValues {
  bool isPrivate = false, allowsAdvertising = false;
  float timeout = 0;
  bool monitorsNetwork = false;
  std::optional<Texts> blacklist = {};
};

TEST_F(HandshakeTest, TakesTheServersValuesWhateverTheHostAskedFor) {
  const ServerValues none;
  const std::pair<std::string, ServerValues> cases[] = {
      {R"({"Data":{"Config":{"PrivacyMode":true,"AdvertisingID":true,"SessionTimeout":10.5},
           "NetworkMonitoring":{"NetworkMonitoringEnabled":true,"Blacklist":["a","b"]}},"more":1})",
       {true, true, 10.5, true, Texts{"a", "b"}}},
      {R"({"Data":{"Config":{"PrivacyMode":"YES","AdvertisingID":1,"SessionTimeout":"90 s"}}})",
       {.isPrivate = true, .allowsAdvertising = true, .timeout = 90}},
      {R"({"Data":{"Config":{"SessionTimeout":-5}}})", {.timeout = -5}},
      {R"({"Data":{"Config":{"SessionTimeout":1e30}}})", {.timeout = 1e30F}},
      {R"({"Data":{"NetworkMonitoring":{"Blacklist":[]}}})", {.blacklist = Texts{}}},
      {R"({"Data":{"NetworkMonitoring":{"Blacklist":[1,"a",null]}}})", {.blacklist = Texts{"a"}}},
      {R"({"Data":{"NetworkMonitoring":{"Blacklist":null}}})", none},
      {R"({"Data":{"NetworkMonitoring":{"Blacklist":"a"}}})", none},
      {R"({"Data":{"NetworkMonitoring":{"Blacklist":{"a":"b"}}}})", none},
      {R"({"Data":{"NetworkMonitoring":{"NetworkMonitoringEnabled":[1]}}})", none},
      {R"({"Data":{"Config":{"PrivacyMode":{},"AdvertisingID":[true],"SessionTimeout":[60]}}})",
       none},
      {R"({"Data":{"Config":{"PrivacyMode":null,"AdvertisingID":"no","SessionTimeout":null}}})",
       none},
      {R"({"Data":{"Config":[{"PrivacyMode":true}],"NetworkMonitoring":true}})", none},
      {R"({"Data":{"Config":"PrivacyMode","NetworkMonitoring":7}})", none},
      {R"({"Config":{"PrivacyMode":true}})", none},
      {R"({"Data":[{"Config":{"PrivacyMode":true}}]})", none},
      {R"({"Data":null})", none},
      {R"([{"Data":{"Config":{"PrivacyMode":true}}}])", none},
      {R"({"Data":{"Config":{"PrivacyMode":true}})", none},  // cut off
      {"\"Data\"", none},
      {"null", none},
      {"<html>", none},
      {"", none},
      {std::string(100000, '['), none},
  };
  for (const auto& [body, expected] : cases) {
    SCOPED_TRACE(body.substr(0, 100));
    Marbleway::initMarbleway("token", {{"UploadingEnabled", false},
                                       {"NetworkMonitoringEnabled", !expected.monitorsNetwork},
                                       {"PrivacyMode", !expected.isPrivate}});
    isAdvertisingID = !expected.allowsAdvertising;
    networkBlacklist.store(Texts{"former"});
    const std::size_t before = sessionRows();
    answer(200, body);
    EXPECT_EQ(isPrivacyMode, expected.isPrivate);
    EXPECT_EQ(isAdvertisingID, expected.allowsAdvertising);
    EXPECT_EQ(SessionTimeout, expected.timeout);
    EXPECT_EQ(isNetworkMonitoringEnabled, expected.monitorsNetwork);
    EXPECT_EQ(networkBlacklist.load(), expected.blacklist);
    EXPECT_EQ(DispatchTime, 30);
    EXPECT_TRUE(isSDKValid && isValidSession);
    EXPECT_EQ(sessionRows() - before, 1U);
  }
}

}  // namespace
}  // namespace marbleway::testing

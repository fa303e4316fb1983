#include <ostream>

#include "Marbleway/upload/batch.h"
#include "platform/linux/http_client.h"
#include "platform/linux/main_loop.h"
#include "tests/support/fixture.h"
#include "tests/support/loopback_server.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using tests::Answer;
using tests::LoopbackServer;
using tests::Manner;
using tests::Received;

// The library on the real network and the real loop, against a server of its own.
class WireTest : public MarblewayTest {
 protected:
  static constexpr const char* kAccepted = R"({"Data":{"Config":{"SessionTimeout":300}}})";

  void SetUp() override { use(server.url(), 60s); }
  void TearDown() override {
    isUploadingEnabled = false;
    platform::install({.mainLoop = time->mainLoop(), .httpClient = http});
    client.reset();  // ends what is in flight
    EXPECT_TRUE(waitUntilIdle(10s));
    loop.reset();
  }

  void use(const std::string& url, std::chrono::milliseconds silence) {
    configure({.documentsDirectory = directory.path(),
               .developmentURL = url,
               .bundleIdentifier = "org.example.app",
               .appVersion = "3.1"});
    client = platform::makeCurlClient({.silence = silence});
    platform::install({.mainLoop = loop, .httpClient = client});
  }
  static void start(const Text& token, bool uploads = true) {
    Marbleway::initMarbleway(token, {{"SDKEnvironment", 1},
                                     {"PrivacyMode", false},
                                     {"PerformanceMonitoringEnabled", false},
                                     {"UploadingEnabled", uploads}});
    ASSERT_TRUE(waitUntilIdle(20s));
  }

  LoopbackServer server;
  std::shared_ptr<platform::MainLoop> loop = platform::makeAsioLoop();
  std::shared_ptr<platform::HttpClient> client;
};

TEST_F(WireTest, BothRequestsToTheByteAndARowUntilItIsDeleted) {
  const std::string host = server.url().substr(7, server.url().size() - 7 - 4);
  const auto head = [&](const char* path, const char* tokenLine, const std::string& body) {
    return "POST /v2/mobile/" + std::string(path) + " HTTP/1.1\r\nHost: " + host +
           "\r\nAccept: application/json\r\nContent-Type: application/json\r\n" + tokenLine +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
  };
  const struct {
    Text token;
    const char* line;
  } tokens[] = {
      {"a token", "mrbw-project-token: a token\r\n"},
      {nullptr, ""},
      {"token\r\nX-Other: 1\r\n\r\nPOST /", ""},
  };
  for (const auto& [token, line] : tokens) {
    SCOPED_TRACE(line);
    const std::size_t before = server.requests().size();
    server.answer({.body = kAccepted});
    server.answer({.body = "{}"});
    start(token);
    Marbleway::trackEvent("\u00FCber \"alles\"", {{"n", 1}});
    const std::string event = rows("mrbw_v2_events").at(0);
    EXPECT_THAT(event, HasSubstr("|\u00FCber \"alles\"|{\"n\":1}|"));
    Marbleway::stopSession();
    ASSERT_TRUE(waitUntilIdle(20s));
    EXPECT_EQ(rowCount(), 0);

    const auto requests = server.requests();
    ASSERT_THAT(requests, SizeIs(before + 2));
    const Received &init = requests[before], &batch = requests[before + 1];
    EXPECT_EQ(init.head, head("init", line, init.body));
    EXPECT_EQ(valueFromJSON(init.body),
              Value(Dictionary{{"OS", "iOS"}, {"BundleID", "org.example.app"}}));
    EXPECT_EQ(batch.head, head("batch", line, batch.body));
    EXPECT_THAT(batch.body,
                HasSubstr(R"("EventName":"über \"alles\"","EventAttributes":"{\"n\":1}")"));
    isConnectedToInternet = false;
  }
}

enum class Outcome { offline, accepted, refused };

struct Case {
  const char* name;
  Answer answer;
  Outcome outcome;
  std::chrono::milliseconds silence = 60s;
};
void PrintTo(const Case& each, std::ostream* out) { *out << each.name; }

std::string repeated(std::size_t times, const char* text) {
  std::string result;
  while (times-- > 0) result.append(text);
  return result;
}

// clang-format off
const Case kCases[] = {
    {"refused", {}, Outcome::offline},
    {"neverAnswered", {.manner = Manner::never}, Outcome::offline, 200ms},
    {"resetInTheBody", {.manner = Manner::reset, .body = "{\"Data\":{}}"}, Outcome::offline},
    {"cutInTheBody", {.manner = Manner::cut, .body = "{\"Data\":{}}"}, Outcome::offline},
    {"garbage", {.raw = "\x01\x02 no HTTP\r\n\r\n"}, Outcome::offline},
    {"redirected", {}, Outcome::refused},
    {"noContent", {.status = 204}, Outcome::refused},
    {"unauthorized", {.status = 401, .body = R"({"error":"token"})"}, Outcome::refused},
    {"emptyBody", {}, Outcome::accepted},
    {"trickled", {.manner = Manner::trickled, .body = "{}"}, Outcome::accepted},
    {"noJSON", {.body = "<html>"}, Outcome::accepted},
    {"fiveMegabytes", {.body = std::string(5000, 'x'), .times = 1000}, Outcome::accepted},
    {"nestedArrays", {.body = repeated(100000, "[") + repeated(100000, "]")}, Outcome::accepted},
    {"nestedObjects", {.body = repeated(100000, "{\"Data\":") + "1" + repeated(100000, "}")}, Outcome::accepted},
    {"aText", {.body = "\"Data\""}, Outcome::accepted},
    {"anArray", {.body = "[{}]"}, Outcome::accepted},
    {"textData", {.body = R"({"Data":"Config"})"}, Outcome::accepted},
    {"wrongValues", {.body = R"({"Data":{"Config":{"PrivacyMode":[],"AdvertisingID":{},"SessionTimeout":[300]},"NetworkMonitoring":{"NetworkMonitoringEnabled":null,"Blacklist":{"a":1}}}})"}, Outcome::accepted},
};
// clang-format on

class WireOutcomeTest : public WireTest, public ::testing::WithParamInterface<Case> {
 protected:
  // Plays the case for the next request.
  void play() {
    const std::string name = GetParam().name;
    use(name == "refused" ? nowhere.url() : server.url(), GetParam().silence);
    server.answer(name == "redirected" ? tests::redirectTo(other.url()) : GetParam().answer);
  }

  LoopbackServer other;
  tests::RefusingPort nowhere;
};

TEST_P(WireOutcomeTest, OnlyAWhole200DeletesAndABatchChangesNoState) {
  server.answer({.body = kAccepted});
  start("token");
  Marbleway::trackEvent("e");
  play();
  apiURL.store(GetParam().name == std::string("refused") ? nowhere.url() : server.url());
  batchData();
  ASSERT_TRUE(waitUntilIdle(20s));
  EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(GetParam().outcome == Outcome::accepted ? 0 : 1));
  EXPECT_TRUE(isConnectedToInternet && isSDKValid && isValidSession);
  EXPECT_EQ(SessionTimeout, 300);
  EXPECT_THAT(other.requests(), IsEmpty());
}

TEST_P(WireOutcomeTest, AHandshakeEndsInOneOfThreeStates) {
  play();
  start("token", false);
  const Outcome outcome = GetParam().outcome;
  EXPECT_EQ(isConnectedToInternet, outcome != Outcome::offline);
  EXPECT_EQ(isSDKValid, outcome != Outcome::refused);
  EXPECT_EQ(SessionTimeout, outcome == Outcome::accepted ? 0 : 300);
  EXPECT_THAT(rows("mrbw_v2_sessions"), SizeIs(outcome == Outcome::refused ? 0 : 1));
  EXPECT_FALSE(networkBlacklist.load());
  EXPECT_THAT(other.requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Server, WireOutcomeTest, ::testing::ValuesIn(kCases),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace marbleway::testing

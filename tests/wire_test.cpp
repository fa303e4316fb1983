#include <array>
#include <latch>
#include <sstream>
#include <thread>

#include "Marbleway/platform/linux/http_client.h"
#include "Marbleway/platform/linux/main_loop.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"
#include "tests/support/loopback_server.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using tests::Answer;
using tests::LoopbackServer;
using tests::Manner;
using tests::Received;

constexpr const char* kAccepted = R"({"Data":{"Config":{"SessionTimeout":300}}})";

// The library on the real network and the real loop, against a server of its own.
class WireTest : public MarblewayTest {
 protected:
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

TEST_F(WireTest, A200HeldBackOverMidnightTakesTheOldDayAloneFromThreadsThatRecord) {
  constexpr int kThreads = 4, kRows = 40;
  std::latch underWay(kThreads);
  server.answer({.body = kAccepted});
  server.answerWith([&](const Received&) {
    underWay.wait();
    return Answer{};
  });
  start("token");
  Marbleway::trackEvent("in the batch");
  batchData();
  server.waitForRequests(2);
  Marbleway::trackEvent("after its reading, the same day");

  time->setWallClock(time->now() + 24h);
  std::array<std::thread, kThreads> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([&underWay] {
      for (int row = 0; row < kRows; ++row) {
        if (row == kRows / 4) underWay.count_down();
        Marbleway::trackEvent("the next day");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(waitUntilIdle(20s));
  EXPECT_THAT(query(storePath(), "SELECT EventName, count(*) FROM mrbw_v2_events GROUP BY 1"),
              ElementsAre("the next day|160"));
  EXPECT_EQ(rowCount(), kThreads * kRows);  // the old day's session and user are gone too
}

enum class Outcome { offline, accepted, refused };

// Privacy, advertising identifier, seconds to a session's end, network monitoring, blacklist: by
// the options of a start that the server did not change, and by an answer that holds none of them.
constexpr const char* kOptions = "0 0 300 1 -";
constexpr const char* kNone = "0 0 0 0 -";

struct Case {
  const char* name;
  Answer answer;
  Outcome outcome;
  const char* settings = outcome == Outcome::accepted ? kNone : kOptions;  // after a handshake
  std::chrono::milliseconds silence = 60s;
};
void PrintTo(const Case& each, std::ostream* out) { *out << each.name; }

std::string repeated(std::size_t times, const char* text) {
  std::string result;
  while (times-- > 0) result.append(text);
  return result;
}
Answer settings(const std::string& config, const std::string& monitoring) {
  return {.body =
              R"({"Data":{"Config":)" + config + R"(,"NetworkMonitoring":)" + monitoring + "}}"};
}

// clang-format off
const Case kCases[] = {
    {"refused", {}, Outcome::offline},
    {"neverAnswered", {.manner = Manner::never}, Outcome::offline, kOptions, 100ms},
    {"stalled", {.manner = Manner::trickled, .body = "{}", .pause = 10s}, Outcome::offline, kOptions, 100ms},
    {"resetInTheHead", {.manner = Manner::reset}, Outcome::offline},
    {"resetInTheBody", {.manner = Manner::reset, .body = "{\"Data\":{}}"}, Outcome::offline},
    {"cutInTheHead", {.manner = Manner::cut}, Outcome::offline},
    {"cutInTheBody", {.manner = Manner::cut, .body = "{\"Data\":{}}"}, Outcome::offline},
    {"cutInAChunk", {.raw = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n{}"}, Outcome::offline},
    {"cutBeforeTheLastChunk", {.raw = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n"}, Outcome::offline},
    {"noChunk", {.raw = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n{}\r\n0\r\n\r\n"}, Outcome::offline},
    {"garbage", {.raw = "\x01\x02 no HTTP\r\n\r\n"}, Outcome::offline},
    {"endlessHead", {.headers = repeated(20000, "X-Header: and one more of these, and one more\r\n")}, Outcome::offline},
    {"redirected", {}, Outcome::refused},
    {"noContent", {.status = 204}, Outcome::refused},
    {"created", {.status = 201, .body = kAccepted}, Outcome::refused},
    {"unauthorized", {.status = 401, .headers = "WWW-Authenticate: Basic\r\n", .body = kAccepted}, Outcome::refused},
    {"tryLater", {.status = 503, .headers = "Retry-After: 0\r\n", .body = kAccepted}, Outcome::refused},
    {"emptyBody", {}, Outcome::accepted},
    {"trickled", {.manner = Manner::trickled, .body = "{}"}, Outcome::accepted},
    {"earlyHints", {.raw = "HTTP/1.1 103 Early\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}"}, Outcome::accepted},
    {"twentyMegabytes", {.body = std::string(100000, 'x'), .times = 200}, Outcome::accepted},
    {"nestedArrays", {.body = repeated(100000, "[") + repeated(100000, "]")}, Outcome::accepted},
    {"nestedObjects", {.body = repeated(100000, "{\"Data\":") + "1" + repeated(100000, "}")}, Outcome::accepted},
    {"noJSON", {.body = "<html>"}, Outcome::accepted},
    {"aText", {.body = "\"Data\""}, Outcome::accepted},
    {"anArray", {.body = "[{}]"}, Outcome::accepted},
    {"textData", {.body = R"({"Data":"Config"})"}, Outcome::accepted},
    {"otherMembers", settings("[]", "1"), Outcome::accepted},
    {"texts", settings(R"({"PrivacyMode":"YES","AdvertisingID":"no","SessionTimeout":" 600.5 s"})", R"({"NetworkMonitoringEnabled":"1","Blacklist":"a"})"), Outcome::accepted, "1 0 600.5 1 -"},
    {"numbers", settings(R"({"PrivacyMode":0.5,"AdvertisingID":0,"SessionTimeout":1e300})", R"({"NetworkMonitoringEnabled":-1,"Blacklist":1})"), Outcome::accepted, "1 0 inf 1 -"},
    {"flags", settings(R"({"PrivacyMode":false,"AdvertisingID":true,"SessionTimeout":true})", R"({"NetworkMonitoringEnabled":true,"Blacklist":true})"), Outcome::accepted, "0 1 1 1 -"},
    {"nulls", settings(R"({"PrivacyMode":null,"AdvertisingID":null,"SessionTimeout":null})", R"({"NetworkMonitoringEnabled":null,"Blacklist":null})"), Outcome::accepted},
    {"arrays", settings(R"({"PrivacyMode":[1],"AdvertisingID":[1],"SessionTimeout":[300]})", R"({"NetworkMonitoringEnabled":[1],"Blacklist":["a",1,null,["b"],{},"c"]})"), Outcome::accepted, "0 0 0 0 a,c,"},
    {"objects", settings(R"({"PrivacyMode":{"a":1},"AdvertisingID":{},"SessionTimeout":{}})", R"({"NetworkMonitoringEnabled":{},"Blacklist":{"a":1}})"), Outcome::accepted},
};
// clang-format on

// The settings as the table tells them.
std::string settingsNow() {
  std::ostringstream text;
  text << isPrivacyMode << ' ' << isAdvertisingID << ' ' << SessionTimeout << ' '
       << isNetworkMonitoringEnabled << ' ';
  const auto blacklist = networkBlacklist.load();
  if (!blacklist) text << '-';
  for (const std::string& entry : blacklist.value_or(std::vector<std::string>())) {
    text << entry << ',';
  }
  return text.str();
}

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
  EXPECT_EQ(settingsNow(), "0 0 300 0 -");
  EXPECT_THAT(other.requests(), IsEmpty());
}

TEST_P(WireOutcomeTest, AHandshakeEndsInOneOfThreeStates) {
  play();
  start("token", false);
  const Outcome outcome = GetParam().outcome;
  EXPECT_EQ(isConnectedToInternet, outcome != Outcome::offline);
  EXPECT_EQ(isSDKValid, outcome != Outcome::refused);
  EXPECT_EQ(settingsNow(), GetParam().settings);
  EXPECT_THAT(rows("mrbw_v2_sessions"), SizeIs(outcome == Outcome::refused ? 0 : 1));
  EXPECT_THAT(other.requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Server, WireOutcomeTest, ::testing::ValuesIn(kCases),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace marbleway::testing

#include "Marbleway/platform/linux/http_client.h"
#include "Marbleway/platform/linux/main_loop.h"
#include "tests/support/fixture.h"
#include "tests/support/loopback_server.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using tests::LoopbackServer;
using tests::Received;

// The library on the real network and its own loop, against a server of the test's.
class WireTest : public MarblewayTest {
 protected:
  void SetUp() override {
    configure({.documentsDirectory = directory.path(),
               .developmentURL = server.url(),
               .bundleIdentifier = "org.example.app"});
    platform::install({.mainLoop = loop, .httpClient = client});
  }
  void TearDown() override {
    shutdown();
    platform::install({.mainLoop = time->mainLoop(), .httpClient = http});
  }
  static void start(const Text& token) {
    Marbleway::initMarbleway(token, {{"SDKEnvironment", 1}, {"PrivacyMode", false}});
    ASSERT_TRUE(waitUntilIdle(20s));
  }

  LoopbackServer server;
  std::shared_ptr<platform::MainLoop> loop = platform::makeBackgroundLoop();
  std::shared_ptr<platform::HttpClient> client = platform::makeCurlClient();
};

TEST_F(WireTest, SendsBothRequestsToTheByteAndDeletesTheRows) {
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
    server.answer({.body = R"({"Data":{"Config":{"SessionTimeout":300}}})"});
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

// A server that never answers, and threads that end in the midst of it.
TEST_F(WireTest, ShutsDownWithRequestsInFlightAndStartsAnew) {
  server.answerWith([](const Received&) { return tests::Answer{.manner = tests::Manner::never}; });
  for (int round = 0; round < 3; ++round) {
    Marbleway::initMarbleway("token", {{"SDKEnvironment", 1}, {"LoggingEnabled", true}});
    const auto sent = static_cast<std::size_t>(round) + 1;
    EXPECT_THAT(server.waitForRequests(sent), SizeIs(sent));
    EXPECT_FALSE(waitUntilIdle(0ms));
    shutdown();
    EXPECT_TRUE(waitUntilIdle(0ms));
    EXPECT_FALSE(isSDKValid || isValidSession || isConnectedToInternet);
    lines();
    Marbleway::trackEvent("refused");
    EXPECT_EQ(rowCount(), 0);
  }
  server.answerWith([](const Received&) { return tests::Answer{.body = "{}"}; });
  start("token");
  EXPECT_TRUE(isSDKValid && isConnectedToInternet);
  Marbleway::trackEvent("recorded");
  EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(1));
}

}  // namespace
}  // namespace marbleway::testing

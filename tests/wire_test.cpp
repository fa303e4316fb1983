#include "Marbleway/platform/linux/http_client.h"
#include "Marbleway/platform/linux/main_loop.h"
#include "tests/support/fixture.h"
#include "tests/support/loopback_server.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using ::testing::StartsWith;
using tests::Answer;
using tests::Received;

class WireTest : public MarblewayTest {};

// On the real network and a loop of its own; the server never answers at first, and the library's
// threads end in the midst of it.
TEST_F(WireTest, ShutsDownWithRequestsInFlightAndStartsAnew) {
  tests::LoopbackServer server;
  configure({.documentsDirectory = directory.path(), .developmentURL = server.url()});
  platform::install(
      {.mainLoop = platform::makeBackgroundLoop(), .httpClient = platform::makeCurlClient()});
  const auto start = [] {
    Marbleway::initMarbleway("token", {{"SDKEnvironment", 1}, {"PrivacyMode", false}});
  };
  server.answerWith([](const Received&) { return Answer{.manner = tests::Manner::never}; });
  for (std::size_t round = 1; round <= 3; ++round) {
    start();
    EXPECT_THAT(server.waitForRequests(round), SizeIs(round));
    EXPECT_FALSE(waitUntilIdle(0ms));
    shutdown();
    EXPECT_TRUE(waitUntilIdle(0ms));
    EXPECT_FALSE(isSDKValid || isValidSession || isConnectedToInternet);
    Marbleway::trackEvent("refused");
    EXPECT_EQ(rowCount(), 0);
  }
  server.answerWith([](const Received&) {
    return Answer{.body = R"({"Data":{"Config":{"SessionTimeout":300}}})"};
  });
  start();
  ASSERT_TRUE(waitUntilIdle(20s));
  Marbleway::trackEvent("recorded");
  EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(1));
  Marbleway::stopSession();
  ASSERT_TRUE(waitUntilIdle(20s));
  EXPECT_EQ(rowCount(), 0);
  const auto requests = server.requests();
  ASSERT_THAT(requests, SizeIs(5));
  EXPECT_THAT(requests[4].head, StartsWith("POST /v2/mobile/batch HTTP/1.1\r\n"));
  EXPECT_THAT(requests[4].head, HasSubstr("\r\nmrbw-project-token: token\r\n"));
  EXPECT_THAT(requests[4].body, HasSubstr(R"("EventName":"recorded")"));
  shutdown();
  platform::install({.mainLoop = time->mainLoop(), .httpClient = http});
}

}  // namespace
}  // namespace marbleway::testing

#include <httplib.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "Marbleway/platform/manual_loop.h"
#include "Marbleway/platform/platform.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"
#include "tests/support/http_client_fixture.h"
#include "tests/support/shortage.h"

// What the client of this system adds: proxies, own authorities, shortages, forks.
namespace marbleway::tests {
namespace {

using platform::makeCurlClient;
using ::testing::StartsWith;

TEST_F(HttpClientTest, AProxySeesOnlyTheNameOfASecureServer) {
  server.answerWith([](const Received&) { return Answer{.status = 403}; });
  client = makeCurlClient({.proxy = server.url()});
  for (const std::string url : {"http://example.invalid/v2/", "https://example.invalid/v2/"}) {
    HttpRequest request = requestTo(url);
    request.headers = {{"token", "t"}};
    const bool isPlain = responseTo(std::move(request)).has_value();
    const std::string line = isPlain ? "POST " + url : "CONNECT example.invalid:443";
    EXPECT_EQ(isPlain, url.starts_with("http:"));
    EXPECT_THAT(server.requests().back().head, StartsWith(line + " HTTP/1.1\r\n"));
    EXPECT_EQ(server.requests().back().head.find("token: t") != std::string::npos, isPlain);
  }
}

TEST_F(HttpClientTest, OnlyTrustedServersGetTheRequest) {
  const testing::TemporaryDirectory folder;
  const std::string own = folder.path() / "localhost", other = folder.path() / "example.org",
                    expired = folder.path() / "expired";
  const std::string command =
      "{ cd " + folder.path().string() +
      " && for host in localhost example.org; do openssl req -x509 -newkey rsa:2048 -nodes -days 1 "
      "-subj /CN=$host -addext subjectAltName=DNS:$host -keyout $host.key -out $host; done && "
      "openssl x509 -in localhost -signkey localhost.key -days -1 -out expired && "
      "cp localhost.key expired.key; } 2>/dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0);
  const struct {
    std::string certificate, authorities;
    bool isTrusted;
  } cases[] = {
      {own, own, true},          {own, "", false},
      {own, other, false},       {other, other, false},  // another host's
      {expired, expired, false}, {own, folder.path() / "missing", false},
  };
  for (const auto& [certificate, authorities, isTrusted] : cases) {
    SCOPED_TRACE(certificate + " " + authorities);
    httplib::SSLServer https(certificate.c_str(), (certificate + ".key").c_str());
    std::atomic<int> received = 0;
    https.Post("/v2/", [&](const httplib::Request&, httplib::Response&) { ++received; });
    const std::string port = std::to_string(https.bind_to_any_port("127.0.0.1"));
    const std::jthread listening([&] { https.listen_after_bind(); });
    while (!https.is_running()) std::this_thread::yield();  // until then it cannot be stopped
    client = makeCurlClient({.authorities = authorities});
    EXPECT_EQ(responseTo(requestTo("https://localhost:" + port + "/v2/")).has_value(), isTrusted);
    EXPECT_EQ(received, isTrusted ? 1 : 0);
    https.stop();
  }
}

TEST_F(HttpClientTest, GoesOnOnceThereAreDescriptorsAgain) {
  EXPECT_TRUE(responseTo(requestTo(server.url())));
  for (const bool hasBegun : {true, false}) {
    if (!hasBegun) client = makeCurlClient();
    {
      const testing::Shortage descriptors(RLIMIT_NOFILE, 3);
      EXPECT_FALSE(responseTo(requestTo(server.url())));
    }
    EXPECT_TRUE(responseTo(requestTo(server.url())));
  }
}

TEST_F(HttpClientTest, WithoutAThreadARequestEndsOnTheMainLoop) {
  const auto former = platform::current();
  const auto loop = std::make_shared<platform::ManualLoop>();
  platform::install({.mainLoop = loop});
  {
    const testing::NoThreads none;
    post(requestTo(server.url()));
  }
  EXPECT_EQ(calls.front().runs, 0);
  loop->runDue();
  EXPECT_FALSE(calls.front().response.get());
  EXPECT_TRUE(responseTo(requestTo(server.url())));
  platform::install(*former);
}

// Not under AddressSanitizer: a fork copies its allocator's mutex, which another thread may hold.
TEST_F(HttpClientTest, AForkWithARequestInFlight) {
  server.answerWith([](const Received& request) {
    return Answer{.manner = request.body == "child" ? Manner::whole : Manner::never};
  });
  for (const char* scheme : {"http", "https"}) {
    const Call& parents = post(requestTo(server.url(scheme)));
    for (int i = 0; i < 5; ++i) {
      Child child([&] {
        std::exit(responseTo(requestTo(server.url(), "child")) ? EXIT_SUCCESS : EXIT_FAILURE);
      });
      EXPECT_EQ(child.wait(), "");
    }
    EXPECT_EQ(parents.runs, 0) << scheme;
  }
  EXPECT_EQ(std::ranges::count(server.requests(), "child", &Received::body), 10);
}

}  // namespace
}  // namespace marbleway::tests

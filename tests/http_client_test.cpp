#include "Marbleway/platform/linux/http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <future>
#include <list>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Marbleway/platform/manual_loop.h"
#include "Marbleway/platform/platform.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"
#include "tests/support/loopback_server.h"
#include "tests/support/shortage.h"

namespace marbleway::tests {
namespace {

using namespace std::chrono_literals;
using platform::HttpClient;
using platform::HttpRequest;
using platform::kMaxResponseBytes;
using platform::makeCurlClient;
using ::testing::SizeIs;
using ::testing::StartsWith;
using Result = std::optional<platform::HttpResponse>;

/// What became of one request.
struct Call {
  std::atomic<int> runs = 0;
  std::promise<Result> promise;
  std::future<Result> response = promise.get_future();
};

HttpRequest requestTo(std::string url, std::string_view body = "{}") {
  HttpRequest request{.url = std::move(url), .headers = {}, .body = {}};
  request.body.append(body);
  return request;
}

class HttpClientTest : public ::testing::Test {
 protected:
  Call& post(HttpRequest request) {
    Call& call = calls.emplace_back();
    client->post(std::move(request), [&call](Result response) {
      if (++call.runs == 1) call.promise.set_value(std::move(response));
    });
    return call;
  }
  Result responseTo(HttpRequest request) { return post(std::move(request)).response.get(); }

  void TearDown() override {
    client.reset();
    for (const Call& call : calls) EXPECT_EQ(call.runs, 1);
  }

  LoopbackServer server;
  std::shared_ptr<HttpClient> client = makeCurlClient();
  std::list<Call> calls;
};

TEST_F(HttpClientTest, SendsItsHeadersButNoControlCharacters) {
  using namespace std::string_literals;
  for (const std::string& body : {"{}"s, ""s, std::string(3 << 20, '\0')}) {
    HttpRequest request = requestTo(server.url(), body);
    request.headers = {{"Accept", "a/b"}, {"empty", ""},      {"a", "a\r\nX-Smuggled: 1"},
                       {"b", "a\nb"},     {"c", "a\0b"s},     {"d", "\x7F"},
                       {"e\r\nX", "1"},   {"token", "t \xFF"}};
    EXPECT_TRUE(responseTo(std::move(request)));
    const Received received = server.requests().back();
    EXPECT_EQ(received.head, "POST /v2/ HTTP/1.1\r\nHost: " + server.host() +
                                 "\r\nAccept: a/b\r\nempty:\r\ntoken: t \xFF\r\nContent-Length: " +
                                 std::to_string(body.size()) + "\r\n\r\n");
    EXPECT_TRUE(received.body == body);
  }
}

// clang-format off
TEST_F(HttpClientTest, EachServerBehaviourHasItsOutcome) {
  const std::string full(kMaxResponseBytes, 'x'), ok = "HTTP/1.1 200 OK\r\n", chunked = ok + "Transfer-Encoding: chunked\r\n\r\n", part = ok + "Content-Length: 9\r\n\r\n0123";
  const RefusingPort nobody;
  const struct {
    Answer answer;
    long status = 0;  // 0: no response
    std::string body = {};
    std::size_t wanted = SIZE_MAX;  // bytes of the body
    std::chrono::milliseconds silence = 60s, total = 60s;
  } cases[] = {
      {{.body = "{}"}, 200, "{}"},
      {{.status = 204}, 204},
      {{.raw = "HTTP/1.1 401 No\r\nWWW-Authenticate: Basic\r\nContent-Length: 2\r\n\r\nno"}, 401, "no"},
      {{.raw = "HTTP/1.1 307 Moved\r\nLocation: " + nobody.url() + "\r\n\r\n"}, 307},
      {{.raw = "HTTP/1.1 100 Continue\r\n\r\n" + ok + "\r\nto the end"}, 200, "to the end"},
      {{.raw = chunked + "2\r\n{}\r\n0\r\n\r\n"}, 200, "{}"},
      {{.manner = Manner::trickled, .body = std::string(60, 'x')}, 200, std::string(60, 'x'), 60, 500ms},
      {{.body = full}, 200, full},
      {{.body = full}, 200, "xxxxx", 5},
      {{.body = full}, 200, "", 0},
      {{.body = full + 'x'}, 0, "", 0},
      {{.manner = Manner::endless, .raw = ok + "\r\n" + full}, 0, "", 0},
      {{.manner = Manner::trickled, .body = full}, 0, "", 0, 60s, 300ms},
      {{.raw = ok + std::string(1 << 20, 'X')}},
      {{.manner = Manner::never}, 0, "", 0, 100ms},
      {{.raw = "HTTP/1.1 20"}},
      {{.raw = part}},
      {{.raw = chunked + "2\r\n{}\r\n"}},
      {{.raw = "\x01 garbage\r\n\r\n"}},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(std::to_string(&each - cases));
    client = makeCurlClient({.silence = each.silence, .total = each.total});
    server.answerWith([&each](const Received&) { return each.answer; });
    HttpRequest request = requestTo(server.url());
    request.maxResponseBytes = each.wanted;
    const Result response = responseTo(std::move(request));
    EXPECT_EQ(response ? response->status : 0, each.status);
    EXPECT_TRUE((response ? response->body : "") == each.body);
  }
  EXPECT_THAT(server.requests(), SizeIs(std::size(cases))) << "nothing is posted again";
  for (const std::string& url : {nobody.url(), server.url("ftp"), std::string("file:///"), std::string()}) {
    EXPECT_FALSE(responseTo(requestTo(url))) << url;
  }
}
// clang-format on

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

TEST_F(HttpClientTest, RequestsOverlapAndNoneEndsAnother) {
  constexpr std::size_t kRequests = 80;
  server.answerWith([&](const Received& request) {
    server.waitForRequests(kRequests);
    return Answer{.body = request.body};
  });
  for (std::size_t i = 0; i < kRequests; ++i) post(requestTo(server.url(), std::to_string(i)));
  for (int i = 0; Call & call : calls) EXPECT_EQ(call.response.get()->body, std::to_string(i++));
}

TEST_F(HttpClientTest, DoneMayThrowPostAndDestroyTheClient) {
  std::promise<Result> third;
  client->post(requestTo(server.url()), [&, own = client](const Result&) mutable {
    own->post(
        requestTo(server.url()), [&, own = std::exchange(own, {})](const Result& second) mutable {
          EXPECT_TRUE(second);
          own->post(requestTo(server.url()), [&](const Result& given) { third.set_value(given); });
          own.reset();  // the last share
        });
    throw std::runtime_error("from done");
  });
  client.reset();
  EXPECT_FALSE(third.get_future().get());  // the client went before it could be sent
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

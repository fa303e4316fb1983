#include "Marbleway/platform/linux/http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <future>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Marbleway/platform/manual_loop.h"
#include "Marbleway/platform/platform.h"
#include "tests/support/loopback_server.h"

namespace marbleway::tests {
namespace {

using namespace std::chrono_literals;
using platform::HttpClient;
using platform::HttpRequest;
using platform::HttpResponse;
using platform::kMaxResponseBytes;
using platform::makeCurlClient;
using ::testing::ExitedWithCode;
using ::testing::SizeIs;
using ::testing::StartsWith;
using Result = std::optional<HttpResponse>;
using Clock = std::chrono::steady_clock;

/// What became of one request.
struct Call {
  std::atomic<int> runs = 0;
  std::promise<Result> promise;
  std::future<Result> future = promise.get_future();

  Result response() {
    if (future.wait_for(30s) == std::future_status::ready) return future.get();
    ADD_FAILURE() << "done has not run";
    return HttpResponse{.status = -1, .body = {}};
  }
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
  Result responseTo(HttpRequest request) { return post(std::move(request)).response(); }

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
  const struct {
    std::vector<std::pair<std::string, std::string>> headers;
    std::string lines, body;
  } cases[] = {
      {{{"Accept", "a/b"}, {"mrbw", ""}}, "Accept: a/b\r\nmrbw:\r\n", "{}"},
      {{{"token", "a\r\nX-Smuggled: 1"}}, "", ""},
      {{{"token", "a\nX-Smuggled: 1"}}, "", std::string(3 << 20, '\0')},
      {{{"token", "a\0b"s}}, "", ""},
      {{{"token", "\x7F"}}, "", ""},
      {{{"tok\r\nX-Smuggled", "1"}}, "", ""},
  };
  const std::string host = server.url().substr(7, server.url().find('/', 7) - 7);
  for (const auto& [headers, lines, body] : cases) {
    server.answer({});
    HttpRequest request = requestTo(server.url(), body);
    request.headers = headers;
    EXPECT_TRUE(responseTo(std::move(request)));
    const Received received = server.requests().back();
    EXPECT_EQ(received.head, "POST /v2/ HTTP/1.1\r\nHost: " + host + "\r\n" + lines +
                                 "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n");
    EXPECT_TRUE(received.body == body);
  }
}

// clang-format off
TEST_F(HttpClientTest, EachServerBehaviourHasItsOutcome) {
  const std::string full(kMaxResponseBytes, 'x'), chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
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
      {{.status = 401, .headers = "WWW-Authenticate: Basic\r\n", .body = "no"}, 401, "no"},
      {{.status = 503, .headers = "Retry-After: 0\r\n"}, 503},
      {{.status = 307, .headers = "Location: " + nobody.url() + "\r\n"}, 307},
      {{.raw = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n\r\nto the end"}, 200, "to the end"},
      {{.raw = chunked + "2\r\n{}\r\n0\r\n\r\n"}, 200, "{}"},
      {{.manner = Manner::trickled, .body = std::string(60, 'x'), .pause = 10ms}, 200, std::string(60, 'x'), 60, 500ms},
      {{.body = full}, 200, full},
      {{.body = full}, 200, "xxxxx", 5},
      {{.body = full}, 200, "", 0},
      {{.body = full + 'x'}, 0, "", 0},
      {{.manner = Manner::endless, .body = full}, 0, "", 0},
      {{.manner = Manner::trickled, .body = full, .pause = 10ms}, 0, "", 0, 60s, 300ms},
      {{.headers = std::string(1 << 20, 'X')}},
      {{.manner = Manner::never}, 0, "", 0, 100ms},
      {{.manner = Manner::cut}},
      {{.manner = Manner::cut, .body = "0123456789"}},
      {{.manner = Manner::reset}},
      {{.manner = Manner::reset, .body = "0123456789"}},
      {{.raw = chunked + "ff\r\n{}"}},
      {{.raw = chunked + "2\r\n{}\r\n"}},
      {{.raw = chunked + "{}\r\n0\r\n\r\n"}},
      {{.raw = "\x01 garbage\r\n\r\n"}},
  };
  for (const auto& [answer, status, body, wanted, silence, total] : cases) {
    SCOPED_TRACE(::testing::Message() << answer.status << " " << static_cast<int>(answer.manner) << answer.raw);
    client = makeCurlClient({.silence = silence, .total = total});
    server.answer(answer);
    HttpRequest request = requestTo(server.url());
    request.maxResponseBytes = wanted;
    const Result response = responseTo(std::move(request));
    EXPECT_EQ(response ? response->status : 0, status);
    EXPECT_TRUE((response ? response->body : "") == body);
  }
  EXPECT_THAT(server.requests(), SizeIs(std::size(cases))) << "nothing is posted again";
  for (const std::string& url : {nobody.url(), server.url("ftp"), std::string("file:///"), std::string()}) {
    EXPECT_FALSE(responseTo(requestTo(url))) << url;
  }
}
// clang-format on

TEST_F(HttpClientTest, UsesTheProxyForAllButLoopback) {
  const std::string plain = "http://example.invalid/v2/", secret = "https://example.invalid/v2/";
  const std::string post = "POST http://example.invalid/v2/ HTTP/1.1\r\n",
                    connect = "CONNECT example.invalid:443 HTTP/1.1\r\n";
  const RefusingPort nobody;
  const struct {
    std::string option, plainVariable, secureVariable, exceptions, url;
    std::string line;  // begins the request as the server sees it
  } cases[] = {
      {server.url(), "", "", "", plain, post},
      {server.url(), nobody.url(), "", "*", plain, post},
      {"", server.url(), "", "", plain, post},
      {"", server.url(), "", "example.invalid", plain, ""},
      {nobody.url(), server.url(), "", "", plain, ""},
      {server.url(), "", "", "", secret, connect},
      {"", "", server.url(), "", secret, connect},
      {nobody.url(), nobody.url(), nobody.url(), "", server.url(), "POST /v2/ HTTP/1.1\r\n"},
  };
  server.answerWith([](const Received&) { return Answer{.status = 403}; });
  for (std::size_t expected = 0; const auto& [option, http, https, exceptions, url, line] : cases) {
    SCOPED_TRACE(::testing::Message() << url << " " << option << " " << http);
    setenv("http_proxy", http.c_str(), 1);
    setenv("https_proxy", https.c_str(), 1);
    setenv("no_proxy", exceptions.c_str(), 1);
    client = makeCurlClient({.proxy = option});
    HttpRequest request = requestTo(url);
    request.headers = {{"token", "t"}};
    EXPECT_EQ(responseTo(std::move(request)).has_value(), line.starts_with("POST"));
    const std::vector<Received> received = server.requests();
    ASSERT_THAT(received, SizeIs(expected += line.empty() ? 0 : 1));
    if (line.empty()) continue;
    EXPECT_THAT(received.back().head, StartsWith(line));
    EXPECT_EQ(received.back().head.find("token: t") == std::string::npos, line == connect);
  }
  for (const char* variable : {"http_proxy", "https_proxy", "no_proxy"}) unsetenv(variable);
}

TEST_F(HttpClientTest, RequestsOverlapAndNoneEndsAnother) {
  constexpr std::size_t kRequests = 80;
  server.answerWith([&](const Received& request) {
    server.waitForRequests(kRequests);
    return Answer{.body = request.body};
  });
  for (std::size_t i = 0; i < kRequests; ++i) post(requestTo(server.url(), std::to_string(i)));
  for (int i = 0; Call & call : calls) EXPECT_EQ(call.response()->body, std::to_string(i++));
}

TEST_F(HttpClientTest, DoneMayThrowPostAndDestroyTheClient) {
  server.answerWith([](const Received&) { return Answer{}; });
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
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  server.answerWith([](const Received&) { return Answer{}; });
  EXPECT_TRUE(responseTo(requestTo(server.url())));
  // The least of many looks: threads that start or end hold a descriptor for a moment.
  int lowestFree = INT_MAX;
  for (int look = 0; look < 20000; ++look) {
    const int free = dup(STDERR_FILENO);
    close(free);
    lowestFree = std::min(lowestFree, free);
  }
  const rlimit none{.rlim_cur = static_cast<rlim_t>(lowestFree), .rlim_max = before.rlim_max};
  for (const bool hasBegun : {true, false}) {
    if (!hasBegun) client = makeCurlClient();
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(responseTo(requestTo(server.url())));
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(responseTo(requestTo(server.url())));
  }
}

Clock::time_point latestExit;

/// Exits `pause` after a request was posted, so that some exits fall into the initialization.
void exitInFlight(const char* scheme, std::chrono::microseconds pause) {
  alarm(20);
  // Runs after the client's own handler; the process has then been held up as long as it ever is.
  (void)std::atexit([] {
    if (Clock::now() > latestExit) _exit(1);
  });
  static const std::shared_ptr<HttpClient> client = makeCurlClient();
  LoopbackServer server;
  server.answer({.manner = Manner::never});
  client->post(requestTo(server.url(scheme)), [](const Result&) {});
  std::this_thread::sleep_for(pause);
  // With https the client reads the certificates, 20 ms of work without sanitizers.
  latestExit = Clock::now() + (scheme == std::string_view("https") ? 2000ms : 100ms);
  std::exit(0);
}

/// True when a child of a fork has sent a request with the parent's client, and ended well.
bool childGetsItsResponse(HttpClient& client, const std::string& url) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    std::promise<bool> hasResponse;
    client.post(requestTo(url, "child"),
                [&](const Result& response) { hasResponse.set_value(response.has_value()); });
    std::exit(hasResponse.get_future().get() ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status == 0;
}

/// Exits with 0 when the children's requests arrive, each once, and the parent's goes on unharmed.
void forkInFlight(const char* scheme) {
  alarm(20);
  LoopbackServer server;
  server.answerWith([](const Received& request) {
    return Answer{.manner = request.body == "child" ? Manner::whole : Manner::never};
  });
  std::atomic<int> runs = 0;
  static const std::shared_ptr<HttpClient> client = makeCurlClient();
  client->post(requestTo(server.url(scheme)), [&](const Result&) { ++runs; });
  server.waitForConnections(1);
  int children = 0;
  while (children < 5 && childGetsItsResponse(*client, server.url())) ++children;
  const auto sent = std::ranges::count(server.requests(), "child", &Received::body);
  std::exit(children == 5 && sent == 5 && server.requests().size() <= 6 && runs == 0 ? 0 : 1);
}

/// Exits with 0 when a request without a thread ends as no response on the main loop; at once,
/// since leak checkers need threads, too.
void postWithoutAThread() {
  const auto loop = std::make_shared<platform::ManualLoop>();
  platform::install({.mainLoop = loop});
  const rlimit none{0, 0};
  setrlimit(RLIMIT_NPROC, &none);
  if (getuid() == 0) (void)!setuid(65534);  // the limit does not hold for root
  std::vector<Result> results;
  makeCurlClient()->post(requestTo("http://127.0.0.1/v2/"),
                         [&](Result result) { results.push_back(std::move(result)); });
  const bool isEarly = !results.empty();
  loop->runDue();
  _exit(!isEarly && results.size() == 1 && !results.front() ? 0 : 1);
}

/// For the tests below: the checks for leaks and races at an exit need the threads that it ends.
struct HttpClientDeathTest : testing::Test {
  HttpClientDeathTest() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
  }
  ~HttpClientDeathTest() override { unsetenv("ASAN_OPTIONS"); }
};

TEST_F(HttpClientDeathTest, ExitsWithARequestInFlight) {
  for (const char* scheme : {"http", "https"}) {
    for (const auto pause : {0us, 50us, 100us, 200us, 400us, 800us, 2000us, 20000us}) {
      EXPECT_EXIT(exitInFlight(scheme, pause), ExitedWithCode(0), "") << scheme << pause.count();
    }
  }
  EXPECT_EXIT(postWithoutAThread(), ExitedWithCode(0), "");
}

// Not under AddressSanitizer: a fork copies its allocator's mutex, which another thread may hold.
TEST_F(HttpClientDeathTest, AForkWithARequestInFlight) {
  for (const char* scheme : {"http", "https"}) {
    EXPECT_EXIT(forkInFlight(scheme), ExitedWithCode(0), "") << scheme;
  }
}

}  // namespace
}  // namespace marbleway::tests

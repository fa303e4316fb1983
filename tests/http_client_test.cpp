#include "Marbleway/platform/linux/http_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
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

  Result answer() {
    if (future.wait_for(10s) == std::future_status::ready) return future.get();
    ADD_FAILURE() << "done has not run";
    return HttpResponse{.status = -1, .body = "done has not run"};
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
    client->post(std::move(request), [&call](Result answer) {
      if (++call.runs == 1) call.promise.set_value(std::move(answer));
    });
    return call;
  }
  Result answerTo(HttpRequest request) { return post(std::move(request)).answer(); }

  void TearDown() override {
    client.reset();
    for (const Call& call : calls) EXPECT_EQ(call.runs, 1);
  }

  LoopbackServer server;
  std::shared_ptr<HttpClient> client = makeCurlClient();
  std::list<Call> calls;
};

TEST_F(HttpClientTest, SendsWhatItIsGivenAndNoHeaderWithControlCharacters) {
  using namespace std::string_literals;
  const struct {
    std::vector<std::pair<std::string, std::string>> headers;
    std::string lines;
    std::string body;
  } cases[] = {
      {{{"Accept", "application/json"}, {"mrbw", ""}},
       "Accept: application/json\r\nmrbw:\r\n",
       "{}"},
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
    EXPECT_TRUE(answerTo(std::move(request)));
    const Received received = server.requests().back();
    std::string head = "POST /v2/ HTTP/1.1\r\nHost: ";
    head.append(host).append("\r\n").append(lines).append("Content-Length: ");
    head.append(std::to_string(body.size())).append("\r\n\r\n");
    EXPECT_EQ(received.head, head);
    EXPECT_TRUE(received.body == body);
  }
}

TEST_F(HttpClientTest, GivesAnAnswerThatIsCompleteAndAsMuchOfItAsIsWanted) {
  const RefusingPort elsewhere;
  const Answer huge{.body = std::string(1 << 20, 'x'), .times = 50};
  const struct {
    Answer answer;
    long status;
    std::string body;
    std::size_t limit = kMaxResponseBytes;
  } cases[] = {
      {{.body = "{}"}, 200, "{}"},
      {{.status = 204}, 204, ""},
      {{.status = 401, .body = "no"}, 401, "no"},
      {redirectTo(elsewhere.url()), 307, ""},
      {{.raw = "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\n\r\nto the end"},
       200,
       "to the end"},
      {{.raw = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n"},
       200,
       "{}"},
      {huge, 200, std::string(kMaxResponseBytes, 'x'), SIZE_MAX},
      {huge, 200, "xxxxx", 5},
      {huge, 200, "", 0},
  };
  for (const auto& [given, status, body, limit] : cases) {
    server.answer(given);
    HttpRequest request = requestTo(server.url());
    request.maxResponseBytes = limit;
    const Result answer = answerTo(std::move(request));
    ASSERT_TRUE(answer) << given.raw << given.status;
    EXPECT_EQ(answer->status, status);
    EXPECT_TRUE(answer->body == body) << given.raw << given.status;
  }
}

TEST_F(HttpClientTest, TakesNothingForAnAnswerThatIsNotCompleteAndPostsNothingAgain) {
  const Answer broken[] = {
      {.manner = Manner::cut, .body = "0123456789"},
      {.manner = Manner::reset},
      {.raw = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nff\r\n{}"},
      {.raw = "garbage\r\n\r\n"},
  };
  for (const Answer& answer : broken) {
    server.answer(answer);
    EXPECT_FALSE(answerTo(requestTo(server.url()))) << answer.raw;
  }
  EXPECT_THAT(server.requests(), SizeIs(std::size(broken)));
  for (const std::string& url :
       {RefusingPort().url(), server.url("ftp"), std::string("file:///"), std::string()}) {
    EXPECT_FALSE(answerTo(requestTo(url))) << url;
  }
}

TEST_F(HttpClientTest, EndsAnExchangeAfterSilenceButNotOneThatTrickles) {
  client = makeCurlClient({.silence = 500ms});
  const std::string body(60, 'x');  // 600 ms
  server.answer({.manner = Manner::trickled, .body = body, .pause = 10ms});
  const Result answer = answerTo(requestTo(server.url()));
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->body, body);

  server.answer({.manner = Manner::never});
  const auto began = Clock::now();
  Call& unanswered = post(requestTo(server.url()));
  EXPECT_FALSE(answerTo(requestTo(server.url("https"))));
  EXPECT_FALSE(unanswered.answer());
  EXPECT_GE(Clock::now() - began, 500ms);
}

TEST_F(HttpClientTest, AsksTheProxyForEveryHostButLoopback) {
  const std::string plain = "http://example.invalid/v2/", secret = "https://example.invalid/v2/";
  const RefusingPort nobody;
  const struct {
    std::string option, plainVariable, secureVariable, exceptions, url;
    const char* line;  // begins the request as the proxy, or on loopback the server, sees it
  } cases[] = {
      {server.url(), "", "", "", plain, "POST http://example.invalid/v2/ HTTP/1.1\r\n"},
      {server.url(), nobody.url(), "", "*", plain, "POST http://example.invalid/v2/ HTTP/1.1\r\n"},
      {"", server.url(), "", "", plain, "POST http://example.invalid/v2/ HTTP/1.1\r\n"},
      {"", server.url(), "", "example.invalid", plain, nullptr},
      {nobody.url(), server.url(), "", "", plain, nullptr},
      {server.url(), "", "", "", secret, "CONNECT example.invalid:443 HTTP/1.1\r\n"},
      {"", "", server.url(), "", secret, "CONNECT example.invalid:443 HTTP/1.1\r\n"},
      {nobody.url(), nobody.url(), nobody.url(), "", server.url(), "POST /v2/ HTTP/1.1\r\n"},
  };
  server.answerWith([](const Received&) { return Answer{.status = 403}; });
  for (const auto& [option, plainVariable, secureVariable, exceptions, url, line] : cases) {
    SCOPED_TRACE(::testing::Message() << url << " " << option << " " << plainVariable);
    setenv("http_proxy", plainVariable.c_str(), 1);
    setenv("https_proxy", secureVariable.c_str(), 1);
    setenv("no_proxy", exceptions.c_str(), 1);
    const std::size_t before = server.requests().size();
    client = makeCurlClient({.proxy = option});
    HttpRequest request = requestTo(url);
    request.headers = {{"token", "t"}};
    EXPECT_EQ(answerTo(std::move(request)).has_value(), line != nullptr && *line == 'P');
    const std::vector<Received> received = server.requests();
    ASSERT_THAT(received, SizeIs(before + (line != nullptr ? 1 : 0)));
    if (line == nullptr) continue;
    EXPECT_THAT(received.back().head, StartsWith(line));
    EXPECT_EQ(received.back().head.find("token: t") != std::string::npos, *line == 'P');
  }
  for (const char* variable : {"http_proxy", "https_proxy", "no_proxy"}) unsetenv(variable);
}

TEST_F(HttpClientTest, RequestsOverlap) {
  server.answerWith([&](const Received& request) {
    server.waitForRequests(8);
    return Answer{.body = request.body};
  });
  for (int i = 0; i < 8; ++i) post(requestTo(server.url(), std::to_string(i)));
  for (int i = 0; Call & call : calls) EXPECT_EQ(call.answer()->body, std::to_string(i++));
}

TEST_F(HttpClientTest, TheSixtyFifthAtOnceEndsTheOldest) {
  server.answerWith([](const Received&) { return Answer{.manner = Manner::never}; });
  for (int i = 0; i < 65; ++i) post(requestTo(server.url()));
  EXPECT_FALSE(calls.front().answer());
  EXPECT_EQ(std::next(calls.begin())->runs, 0);
}

TEST_F(HttpClientTest, DoneMayThrowAndPostAndLetTheClientGo) {
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

TEST_F(HttpClientTest, BlocksEverySignalInItsThread) {
  server.answer({});
  std::promise<sigset_t> blocked;
  client->post(requestTo(server.url()), [&](const Result&) {
    sigset_t own;
    pthread_sigmask(SIG_BLOCK, nullptr, &own);
    blocked.set_value(own);
  });
  const sigset_t inThread = blocked.get_future().get();
  for (const int each : {SIGTERM, SIGPIPE, SIGPROF}) EXPECT_EQ(sigismember(&inThread, each), 1);
}

TEST_F(HttpClientTest, GoesOnOnceThereAreDescriptorsAgain) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  server.answerWith([](const Received&) { return Answer{}; });
  EXPECT_TRUE(answerTo(requestTo(server.url())));
  // The least of many looks: threads that start or end hold a descriptor for a moment.
  int lowestFree = INT_MAX;
  for (int look = 0; look < 20000; ++look) {
    const int free = dup(STDERR_FILENO);
    close(free);
    lowestFree = std::min(lowestFree, free);
  }
  const rlimit none{.rlim_cur = static_cast<rlim_t>(lowestFree), .rlim_max = before.rlim_max};
  for (const bool hasBegun : {true, false}) {
    SCOPED_TRACE(hasBegun);
    if (!hasBegun) client = makeCurlClient();
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_FALSE(answerTo(requestTo(server.url())));
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_TRUE(answerTo(requestTo(server.url())));
  }
}

Clock::time_point latestExit;

void exitWithARequestInFlight(const char* scheme) {
  alarm(20);
  // Runs after the client's own handler; the process has then been held up as long as it ever is.
  (void)std::atexit([] {
    if (Clock::now() > latestExit) _exit(1);
  });
  static const std::shared_ptr<HttpClient> client = makeCurlClient();
  LoopbackServer server;
  server.answer({.manner = Manner::never});
  client->post(requestTo(server.url(scheme)), [](const Result&) {});
  server.waitForConnections(1);
  // With https the client reads the certificates, 20 ms of work without sanitizers.
  latestExit = Clock::now() + (scheme == std::string_view("https") ? 2000ms : 100ms);
  std::exit(0);
}

/// True when a child of a fork has sent a request of its own, got its answer and ended well.
bool aChildGetsItsAnswer(const std::string& url) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    const std::shared_ptr<HttpClient> client = makeCurlClient();
    std::promise<bool> isAnswered;
    client->post(requestTo(url, "child"),
                 [&](const Result& answer) { isAnswered.set_value(answer.has_value()); });
    std::exit(isAnswered.get_future().get() ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status == 0;
}

/// Exits with 0 when the children's requests arrive, each once, and the parent's goes on unharmed.
void forkWithARequestInFlight(const char* scheme) {
  alarm(20);
  LoopbackServer server;
  server.answerWith([](const Received& request) {
    return Answer{.manner = request.body == "child" ? Manner::whole : Manner::never};
  });
  std::atomic<int> runs = 0;
  const std::shared_ptr<HttpClient> client = makeCurlClient();
  client->post(requestTo(server.url(scheme)), [&](const Result&) { ++runs; });
  server.waitForConnections(1);
  int children = 0;
  while (children < 5 && aChildGetsItsAnswer(server.url())) ++children;
  const std::vector<Received> requests = server.requests();
  const auto sent = std::ranges::count(requests, "child", &Received::body);
  std::exit(children == 5 && sent == 5 && requests.size() <= 6 && runs == 0 ? 0 : 1);
}

/// Ends with 0 when a request without a thread ends as no answer on the main loop; at once, since
/// leak checkers need threads, too.
void postWithoutAThread() {
  const auto loop = std::make_shared<platform::ManualLoop>();
  platform::install({.mainLoop = loop});
  const rlimit none{0, 0};
  setrlimit(RLIMIT_NPROC, &none);
  if (getuid() == 0) (void)!setuid(65534);  // the limit does not hold for root
  std::vector<Result> results;
  const std::shared_ptr<HttpClient> client = makeCurlClient();
  client->post(requestTo("http://127.0.0.1/v2/"),
               [&](Result result) { results.push_back(std::move(result)); });
  const bool isEarly = !results.empty();
  loop->runDue();
  _exit(!isEarly && results.size() == 1 && !results.front() ? 0 : 1);
}

TEST(HttpClientDeathTest, WithoutAThreadARequestEndsOnTheMainLoop) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(postWithoutAThread(), ExitedWithCode(0), "");
}

// With requests in flight, where leak checkers find what is under way, and in a fork's child the
// sanitizers neither know of the threads that held memory nor like new ones.
class HttpClientInFlightDeathTest : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    setenv("TSAN_OPTIONS", "die_after_fork=0:atexit_sleep_ms=0:report_thread_leaks=0", 1);
  }
  void TearDown() override {
    unsetenv("ASAN_OPTIONS");
    unsetenv("TSAN_OPTIONS");
  }
};

TEST_P(HttpClientInFlightDeathTest, TheProcessEndsAtOnce) {
  for (int run = 0; run < 10; ++run) {
    EXPECT_EXIT(exitWithARequestInFlight(GetParam()), ExitedWithCode(0), "");
  }
}

TEST_P(HttpClientInFlightDeathTest, AChildOfAForkGetsItsAnswer) {
  EXPECT_EXIT(forkWithARequestInFlight(GetParam()), ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Schemes, HttpClientInFlightDeathTest, ::testing::Values("http", "https"));

}  // namespace
}  // namespace marbleway::tests

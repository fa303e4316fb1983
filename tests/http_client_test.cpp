#include <span>
#include <stdexcept>

#include "tests/support/http_client_fixture.h"

namespace marbleway::tests {
namespace {

using namespace std::chrono_literals;
using platform::kMaxResponseBytes;
using ::testing::SizeIs;

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
      {{.raw = chunked + "2\r\n{}\r\n0\r\n\r\n"}, 200, "{}"},
      {{.manner = Manner::trickled, .body = std::string(330, 'x')}, 200, std::string(330, 'x'), 330, 3s},
      {{.body = full}, 200, full},
      {{.body = full}, 200, "xxxxx", 5},
      {{.body = full}, 200, "", 0},
      {{.body = full + 'x'}, 0, "", 0},
      {{.manner = Manner::endless, .raw = ok + "\r\n" + full}, 0, "", 0},
      {{.manner = Manner::trickled, .body = full}, 0, "", 0, 60s, 300ms},
      {{.manner = Manner::never}, 0, "", 0, 100ms},
      {{.raw = "HTTP/1.1 20"}},
      {{.raw = part}},
      {{.raw = "\x01 garbage\r\n\r\n"}},
      {{.raw = "HTTP/1.1 100 Continue\r\n\r\n" + ok + "\r\nto the end"}, 200, "to the end"},
      {{.raw = ok + std::string(1 << 20, 'X')}},
      {{.raw = chunked + "2\r\n{}\r\n"}},
  };
  const auto tested = std::span(cases).first(std::size(cases) - kUntestedCases);
  for (const auto& each : tested) {
    SCOPED_TRACE(std::to_string(&each - cases));
    client = makeClient({.silence = each.silence, .total = each.total});
    server.answerWith([&each](const Received&) { return each.answer; });
    HttpRequest request = requestTo(server.url());
    request.maxResponseBytes = each.wanted;
    const Result response = responseTo(std::move(request));
    EXPECT_EQ(response ? response->status : 0, each.status);
    EXPECT_TRUE((response ? response->body : "") == each.body);
  }
  EXPECT_THAT(server.requests(), SizeIs(tested.size())) << "nothing is posted again";
  for (const std::string& url : {nobody.url(), server.url("ftp"), std::string("file:///"), std::string()}) {
    EXPECT_FALSE(responseTo(requestTo(url))) << url;
  }
}
// clang-format on

TEST_F(HttpClientTest, SendsItsHeadersButNoControlCharacters) {
  using namespace std::string_literals;
  const std::string url = "http://a%40b:c@" + server.host() + "/v2/";
  for (const std::string& body : {"{}"s, ""s, std::string(3 << 20, '\0')}) {
    HttpRequest request = requestTo(url, body);
    request.headers = {{"Accept", "a/b"}, {"empty", ""},      {"a", "a\r\nX-Smuggled: 1"},
                       {"b", "a\nb"},     {"c", "a\0b"s},     {"d", "\x7F"},
                       {"e\r\nX", "1"},   {"token", "t \xFF"}};
    EXPECT_TRUE(responseTo(std::move(request)));
    const Received received = server.requests().back();
    EXPECT_EQ(received.head, "POST /v2/ HTTP/1.1\r\n" + headersOf(server.host(), body.size()));
    EXPECT_TRUE(received.body == body);
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

}  // namespace
}  // namespace marbleway::tests

#include <gmock/gmock.h>
#include <httplib.h>

#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/collector_fixture.h"

namespace collector {
namespace {

using testing::HasSubstr;
using testing::Not;

using CollectorGuardTest = CollectorTest;

TEST_F(CollectorGuardTest, AnswersNoOtherSite) {
  settings.pageToken = "secret";
  start();
  const std::string own = "127.0.0.1:" + std::to_string(server->port());
  const std::string cookie = "collector_" + std::to_string(server->port()) + "=";
  const std::string bearer = "Bearer secret";
  const std::vector<std::tuple<std::string, std::string, httplib::Headers, int>> cases{
      {"GET", "/", {}, 401},
      {"GET", "/?token=wrong", {}, 401},
      {"GET", "/?token=secret", {}, 200},
      {"GET", "/api/rows?token=secret", {}, 401},
      {"GET", "/api/rows", {{"Cookie", "a=b; " + cookie + "secret"}}, 200},
      {"GET", "/api/rows", {{"Cookie", cookie + "secre"}}, 401},
      {"GET", "/api/rows", {{"Authorization", bearer}}, 200},
      {"GET", "/api/rows", {{"Authorization", bearer}, {"Host", "localhost:1"}}, 200},
      {"GET", "/api/rows", {{"Authorization", bearer}, {"Host", "[::1]:1"}}, 200},
      {"GET", "/api/rows", {{"Authorization", bearer}, {"Host", "rebound.example"}}, 403},
      {"GET", "/api/rows", {{"Authorization", bearer}, {"Host", "10.0.0.1"}}, 403},
      {"POST", "/api/reset", {{"Authorization", bearer}}, 204},
      {"POST", "/api/reset", {{"Authorization", bearer}, {"Origin", "http://" + own}}, 204},
      {"POST", "/api/reset", {{"Authorization", bearer}, {"Origin", "http://other"}}, 403},
      {"POST", "/api/reset", {{"Authorization", bearer}, {"Origin", "null"}}, 403},
      {"POST", "/api/reset", {}, 401},
  };
  for (const auto& [method, path, headers, status] : cases) {
    httplib::Request request;
    request.method = method;
    request.path = path;
    request.headers = headers;
    const auto answer = client().send(request);
    ASSERT_TRUE(answer) << method << " " << path;
    EXPECT_EQ(answer->status, status) << method << " " << path;
    EXPECT_EQ(answer->get_header_value("Set-Cookie"),
              path == "/?token=secret" ? cookie + "secret; Path=/; SameSite=Strict; HttpOnly" : "");
  }
  EXPECT_EQ(send(kInit, R"({"OS": "", "BundleID": ""})"), "200 \"\" on \"\"");
}

TEST_F(CollectorGuardTest, AsksForATokenBeyondLoopback) {
  settings.host = "0.0.0.0";
  log_.str("");
  server = std::make_unique<Collector>(settings, log_);
  const std::string lines = log_.str();
  const auto at = lines.find("/?token=");
  ASSERT_NE(at, lines.npos) << lines;
  const std::string path = lines.substr(at, lines.find('\n', at) - at);
  EXPECT_EQ(client().Get("/")->status, 401);
  EXPECT_EQ(client().Get(path)->status, 200);
  EXPECT_EQ(client().Get(path, {{"Host", "192.0.2.1"}})->status, 200);
  EXPECT_EQ(client().Get(path, {{"Host", "rebound.example"}})->status, 403);
}

TEST_F(CollectorGuardTest, LetsAPageRunOnlyWhatItCameWith) {
  start();
  const auto first = client().Get("/");
  const auto second = client().Get("/");
  ASSERT_TRUE(first && second);
  const std::string policy = first->get_header_value("Content-Security-Policy");
  const std::string start = "script-src 'nonce-";
  const std::string nonce = policy.substr(policy.find(start) + start.size(), 32);
  EXPECT_THAT(policy, testing::StartsWith("default-src 'none'; "));
  EXPECT_EQ(first->get_header_value_count("Content-Security-Policy"), 1U);
  EXPECT_THAT(first->body, HasSubstr("<script nonce=\"" + nonce + "\">"));
  EXPECT_THAT(second->body, Not(HasSubstr(nonce)));
  EXPECT_LT(first->body.size(), 100'000U);
  const std::vector<std::pair<const std::string, std::string>> all{
      {"X-Content-Type-Options", "nosniff"},
      {"Cache-Control", "no-store"},
      {"X-Frame-Options", "DENY"}};
  for (const httplib::Headers& headers : {first->headers, client().Get("/api/rows")->headers}) {
    EXPECT_THAT(headers, testing::IsSupersetOf(all));
  }
}

}  // namespace
}  // namespace collector

#include <future>

#include "tests/support/collector_fixture.h"

namespace collector {
namespace {

using namespace std::chrono_literals;
using testing::Not;

constexpr auto kReset = "POST /api/reset";
constexpr auto kBehaviour = "POST /api/behaviour";
constexpr auto kBatches = "GET /api/batches";
constexpr auto kLater = "2026-01-02 00:00:00.006";

std::string view(const std::string& id, const std::string& session) {
  return row("ScreenViews", {{"id", id}, {"SessionID", session}, {"ScreenName", "main"}});
}

class CollectorPageTest : public CollectorTest {
 protected:
  /// What a stream sends until it has sent `end`, for twenty seconds at most.
  std::string stream(const std::string& query, const std::string& end,
                     const httplib::Headers& headers = {}) const {
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    client().Get("/api/stream" + query, headers, [&](const char* data, std::size_t size) {
      text.append(data, size);
      return text.find(end) == text.npos && std::chrono::steady_clock::now() < deadline;
    });
    return text;
  }

  void sendFourEvents() const {
    talk({{kBatch, "200 ", batch("Events", event("1", "opened") + "," + event("2", "closed"))},
          {kBatch, "200 ",
           batch("Events", event("3", "opened", kLater) + "," + event("2", "closed"))}});
  }
};

// clang-format off
TEST_F(CollectorPageTest, FindsRowsByWhatTheyHold) {
  start();
  sendFourEvents();
  talk({{kBatch, "200 ", batch("ScreenViews", view("1", "T"))}});
  const std::tuple<std::string, int, int> found[] = {  // a query, its first row and how many match
      {"", 1, 5}, {"limit=2", 4, 5}, {"before=4&limit=2", 2, 5}, {"after=1&limit=2", 2, 5},
      {"table=Events", 1, 4}, {"session=T", 5, 1}, {"token=T-2", 1, 5}, {"state=again", 3, 1},
      {"id=1", 1, 2}, {"id=2&EventName=closed&state=new", 2, 1}};
  for (const auto& [query, first, total] : found) {
    talk({{"GET /api/rows?" + query, R"(200 {"rows":[{"n":)" + std::to_string(first) + ","},
          {"GET /api/rows?" + query, R"(200 "total":)" + std::to_string(total) + "}"}});
  }
  talk({
      {"GET /api/rows?token=T-1", R"(200 {"rows":[],"total":0})"},
      {"GET /api/summary", R"(200 "rows":5,"again":1,"gaps":0,"sessions":2,"batches":3)"},
      {"GET /api/summary", R"(200 "needsToken":false,"tokens":["T-1","T-2"])"},
      {"GET /api/sessions", R"(200 "user":"","begin":"2026-01-02 00:00:00.005","end":"2026-01-02 00:00:00.006","crashes":0)"},
      {"GET /api/rows?table=events", R"(400 "events" is not a table)"},
      {"GET /api/rows?EventNam=x", R"(400 no table has the column "EventNam")"},
      {"GET /api/rows?limit=-1", R"(400 "limit" is not a number from 0 to 10000)"},
      {"GET /api/wait?timeout=61", R"(400 "timeout" is not a number from 0 to 60)"},
      {"GET /api/stream?after=x", R"(400 "after" is not a number)"},
      {"GET /api/wait?EventName=closed&count=2&timeout=0", R"(408 {"rows":[{"n":2,)"},
  });
  auto waiting = std::async([&] { return ask("GET /api/wait?EventName=late&timeout=60"); });
  talk({{kBatch, "200 ", batch("Events", event("9", "late"))}});
  EXPECT_THAT(waiting.get(), StartsWith(R"(200 {"rows":[{"n":6,)"));
}

TEST_F(CollectorPageTest, StreamsWhatIsNew) {
  start();
  sendFourEvents();
  EXPECT_THAT(stream("?after=3", "\n\n"), StartsWith("id: 4\nevent: rows\ndata: [{\"n\":4"));
  EXPECT_THAT(stream("?after=0", "\n\n", {{"Last-Event-ID", "2"}}), HasSubstr("data: [{\"n\":3,"));
  EXPECT_THAT(stream("?after=5", "[{\"n\":1,"), StartsWith("event: reset\n"));
}

TEST_F(CollectorPageTest, AppliesFaultsAndSettingsToAnswers) {
  start();
  const std::string one = batch("Events", event("1"));
  const std::tuple<std::string, std::string, std::string> cases[] = {  // and the row's arrivals
      {"notJSON", "200 <!doctype html>", "1"}, {"noContent", "204 ", "2"},
      {"unauthorized", "401 refused as asked", "2"}, {"error", "500 refused as asked", "2"},
      {"reset", "no answer", "3"}, {"slow", "200 {}", "4"},
      {"never", "no answer", "5"}, {"none", "200 {}", "6"},
  };
  for (const auto& [fault, answer, arrivals] : cases) {
    talk({{kBehaviour, "200 ", R"({"fault": ")" + fault + R"(", "appliesTo": "batch"})"}});
    timeout_ = fault == "never" ? 300ms : 20'000ms;
    const auto start = std::chrono::steady_clock::now();
    talk({{kBatch, answer, one}});
    EXPECT_TRUE(fault != "slow" || std::chrono::steady_clock::now() - start >= 3s);
    EXPECT_THAT(find("SELECT max(TimesReceived) FROM Events"), ElementsAre(arrivals)) << fault;
    talk({{kInit, "200 {\"Data\"", kHandshake}});
  }
  const std::string all = R"({"PrivacyMode":true,"AdvertisingID":true,"SessionTimeout":0,)"
      R"("NetworkMonitoring":true,"Blacklist":["a","b"],"fault":"none","appliesTo":"both"})";
  talk({
      {"GET /api/summary", R"(200 "batches":8,"invalidBatches":0,"handshakes":8)"},
      {kBehaviour, "200 " + all, all},
      {"GET /api/behaviour", "200 " + all},
      {kBehaviour, "400 PrivacyMode: not true or false", R"({"PrivacyMode": 1})"},
      {kBehaviour, "400 SessionTimeout: not a number of seconds", R"({"SessionTimeout": -1})"},
      {kBehaviour, "400 Blacklist: not an array of texts, or null", R"({"Blacklist": [1]})"},
      {kBehaviour, R"(400 fault: "worse" is not known)", R"({"fault": "worse"})"},
      {kBehaviour, R"(400 document: key "Fault" is not known)", R"({"Fault": "none"})"},
      {kInit, R"(200 {"Config":{"PrivacyMode":true,"AdvertisingID":true,"SessionTimeout":0},)"
              R"("NetworkMonitoring":{"NetworkMonitoringEnabled":true,"Blacklist":["a","b"]}}})",
       kHandshake},
  });
}

TEST_F(CollectorPageTest, StoresRequestsWhateverTheyHold) {
  start();
  const std::string broken = batch("Events", event("1", "<b>\x80"));
  talk({{kBatch, "400 byte ", broken}});
  sendFourEvents();
  talk({
      {kInit, "400 byte ", "{\"OS\": \"\xC3"},
      {"GET /api/summary", R"(200 "invalidBatches":1,"handshakes":1,"refusedHandshakes":1)"},
      {"GET /api/batches/1/body", "200 " + broken},
      {kBatches, "200 [{\"n\":3,"},
      {kBatches, R"(200 "fault":"byte )"},
      {kBatches, R"(200 "rows":2,"newRows":1,"counts":{"Events":2}})"},
      {kBatches, R"(200 ["mrbw-project-token","T-2"])"},
      {"GET /api/handshakes", "200 \"request\":\"{\\\"OS\\\": \\\"\xEF\xBF\xBD\""},
  });
  talk({{kReset, "204 "}, {kBatches, "200 []"}, {"GET /api/sessions", "200 []"}});
  std::string many = event("1", "=1+1") + "," + event("2", "a\\\"b") + "," + event("3", "-2.5");
  for (int id = 4; id <= 1200; ++id) many.append(",").append(event(std::to_string(id)));
  talk({{kBatch, "200 ", batch("Events", many)}});
  talk({{"GET /api/rows?limit=1", R"(200 {"rows":[{"n":1204,)"}});  // numbers continue
  const std::string lines = ask("GET /api/rows.ndjson?EventName=opened");
  const std::string csv = ask("GET /api/rows.csv?table=Events");
  EXPECT_EQ(std::ranges::count(lines, '\n'), 1197);
  EXPECT_EQ(std::ranges::count(csv, '\n'), 1201);
  const char* const parts[] = {"times,id,SessionID,", R"("'=1+1")", R"("a""b")", "\"-2.5\""};
  for (const char* part : parts) EXPECT_THAT(csv, HasSubstr(part));
}

TEST_F(CollectorPageTest, AnswersNoOtherSite) {
  settings.pageToken = "secret";
  settings.host = "0.0.0.0";
  settings.allowedHosts = {"collector"};
  start();
  const std::string port = std::to_string(server->port()), cookie = "collector_" + port + "=";
  EXPECT_THAT(log_.str(), HasSubstr("page at http://127.0.0.1:" + port + "/?token=secret\n"));
  EXPECT_THAT(log_.str(), HasSubstr("/v2/ and http://" + machineName() + ":" + port + "/?token=secret\n"));
  const std::pair<const std::string, std::string> bearer{"Authorization", "Bearer secret"};
  const std::string needed = "401 the page's token is needed", rows = "GET /api/rows";
  const std::string foreign = "403 the request comes from another site";
  talk({
      {"GET /", needed, "", {}},
      {"GET /?token=decret", needed, "", {}},
      {"GET /api/rows?token=secret", needed, "", {}},
      {rows, "200 ", "", {{"Cookie", "a=b; " + cookie + "secret"}}},
      {rows, needed, "", {{"Cookie", cookie + "secre"}}},
      {rows, "200 ", "", {bearer, {"Host", "localhost:1"}}},
      {rows, "200 ", "", {bearer, {"Host", "192.0.2.1"}}},
      {rows, "200 ", "", {bearer, {"Host", "collector:80"}}},
      {rows, "200 ", "", {bearer, {"Host", machineName()}}},
      {rows, foreign, "", {bearer, {"Origin", "http://other"}}},
      {rows, "403 the header \"Host\" names another", "", {bearer, {"Host", "rebound.example"}}},
      {kReset, "204 ", "", {bearer, {"Origin", "http://127.0.0.1:" + port}}},
      {kReset, foreign, "", {bearer, {"Origin", "http://other"}}},
      {kReset, needed, "", {}},
      {kInit, "200 ", kHandshake},
  });
  EXPECT_EQ(client().Get("/?token=secret")->get_header_value("Set-Cookie"),
            cookie + "secret; Path=/; SameSite=Strict; HttpOnly");
  const auto first = client().Get("/", {bearer}), second = client().Get("/", {bearer});
  const std::string policy = first->get_header_value("Content-Security-Policy");
  const std::string nonce = policy.substr(policy.find("script-src 'nonce-") + 18, 32);
  EXPECT_THAT(policy, StartsWith("default-src 'none'; "));
  EXPECT_THAT(first->body, HasSubstr("<script nonce=\"" + nonce + "\">"));
  EXPECT_THAT(second->body, Not(HasSubstr(nonce)));
  for (const char* path : {"/", "/api/rows"}) {
    const auto answer = client().Get(path, {bearer});
    EXPECT_EQ(answer->get_header_value("X-Content-Type-Options"), "nosniff") << path;
    EXPECT_EQ(answer->get_header_value("Cache-Control"), "no-store") << path;
  }
}
// clang-format on

}  // namespace
}  // namespace collector

#include <rapidjson/document.h>

#include <chrono>
#include <future>
#include <semaphore>

#include "tests/support/collector_fixture.h"

namespace collector {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr auto kReset = "POST /api/reset";
constexpr auto kBehaviour = "POST /api/behaviour";
constexpr auto kHandshake = R"({"OS": "", "BundleID": "b"})";

std::string session(const std::string& name, const std::string& device,
                    const std::string& privacy = "No") {
  std::string row;
  for (const std::string_view key : kKinds[0].keys()) {
    const bool isID = key == "id", isName = key == "SessionID",
               isDevice = key == "PlatformDeviceID";
    row.append(row.empty() ? "{\"" : ", \"").append(key).append("\": \"");
    row.append(isID                   ? "1"
               : isName               ? name
               : isDevice             ? device
               : key == "PrivacyMode" ? privacy
                                      : "");
    row.append("\"");
  }
  return row.append("}");
}

/// A screen view, one of the rows that name their session.
std::string view(const std::string& id, const std::string& session) {
  return R"({"id": ")" + id + R"(", "SessionID": ")" + session +
         R"(", "ScreenName": "main", "ScreenAttributes": "", "UTCTimeStamp": ""})";
}

class CollectorPageTest : public CollectorTest {
 protected:
  /// One member of each row found, with a blank after each.
  std::string rows(const std::string& query, const char* member) const {
    rapidjson::Document document;
    document.Parse(ask("GET /api/rows?" + query).substr(4).c_str());
    if (document.HasParseError() || !document.HasMember("rows")) return "no rows";
    std::string list;
    for (const auto& row : document.FindMember("rows")->value.GetArray()) {
      const auto& value = row.FindMember(member)->value;
      list += value.IsString() ? value.GetString() : std::to_string(value.GetInt64());
      list += " ";
    }
    return list;
  }

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

  void sendThreeEvents() {
    send(kBatch, batch("Events", event("1", "opened") + "," + event("2", "closed")));
    send(kBatch, batch("Events", event("2", "closed") + "," + event("3", "opened")));
  }
};

// clang-format off
TEST_F(CollectorPageTest, FindsRowsByWhatTheyHold) {
  start();
  sendThreeEvents();
  send(kBatch, batch("ScreenViews", view("1", "T")));
  const std::pair<std::string, std::string> found[] = {
      {"", "1 2 3 4 5 "}, {"limit=2", "4 5 "}, {"before=4&limit=2", "2 3 "}, {"after=1&limit=2", "2 3 "},
      {"table=Events", "1 2 3 4 "}, {"session=T", "5 "}, {"token=T-1", ""}, {"state=again", "3 "},
      {"EventName=opened", "1 4 "}, {"id=1", "1 5 "}, {"id=2&EventName=closed&state=new", "2 "}, {"UTCTimeStamp=&ScreenName=main", "5 "},
  };
  for (const auto& [query, numbers] : found) EXPECT_EQ(rows(query, "n"), numbers) << query;
  EXPECT_EQ(rows("table=Events", "times") + rows("table=Events", "name"), "1 2 2 1 opened closed closed opened ");
  const std::pair<std::string, std::string> answers[] = {
      {"rows?EventName=opened&limit=1", R"("total":2})"},
      {"summary", R"("Events":{"rows":4,"again":1,"gaps":0})"},
      {"summary", R"("rows":5,"again":1,"gaps":0,"sessions":2,"batches":3)"},
      {"summary", R"("needsToken":false,"tokens":["T-1","T-2"])"},
      {"rows?table=events", R"(\"events\" is not a table)"},
      {"rows?EventNam=x", R"(no table has the column \"EventNam\")"},
      {"rows?table=Users&EventName=x", R"(no table has the column \"EventName\")"},
      {"rows?EventName%20OR%201=x", "no table has the column"},
      {"rows?limit=-1", R"(\"limit\" is not a number from 0 to 10000)"},
      {"rows.csv?limit=5", "no table has the column"},
      {"wait?timeout=61", R"(\"timeout\" is not a number from 0 to 60)"},
      {"stream?after=x", R"(\"after\" is not a number)"},
      {"wait?EventName=closed&count=2&timeout=0", R"(408 {"rows":[{"n":2,)"},
  };
  for (const auto& [query, text] : answers) EXPECT_THAT(ask("GET /api/" + query), AllOf(HasSubstr(text), StartsWith(query[0] == 'w' && query[5] == 'E' ? "408" : text[0] == '"' ? "200" : "400"))) << query;
  auto waiting = std::async(std::launch::async, [&] { return ask("GET /api/wait?EventName=late&timeout=60"); });
  send(kBatch, batch("Events", event("9", "late")));
  EXPECT_THAT(waiting.get(), StartsWith(R"(200 {"rows":[{"n":6,)"));
}

TEST_F(CollectorPageTest, MarksAGapWhereIdsShowIt) {
  start();
  send(kBatch, batch("Sessions", session("A", "device") + "," + session("B", "device") + "," + session("C", "other") + "," + session("P", "private", "Yes") + "," + session("N", "")));
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"A", "7", "new"},   // what its device sent before is unknown
      {"A", "8", "new"},   //
      {"B", "10", "gap"},  // a gap reaches from one session into the next
      {"B", "11", "new"},  //
      {"C", "30", "new"},  // each device counts for itself
      {"P", "12", "new"},  // privacy mode gives the device another identifier
      {"A", "13", "new"},  // and 12 may be of the same device
      {"A", "9", "new"},   // late, and no row is missing before it
      {"N", "40", "new"},  // a session without a device
      {"X", "50", "new"},  // a session that is not known
      {"A", "15", "gap"},
  };
  for (const auto& [name, id, state] : cases) {
    send(kBatch, batch("ScreenViews", view(id, name)));
    EXPECT_EQ(rows("limit=1", "state"), state + " ") << name << " " << id;
  }
}

TEST_F(CollectorPageTest, StreamsWhatIsNewAndDelaysNoBatch) {
  start();
  sendThreeEvents();
  EXPECT_THAT(stream("?after=3", "\n\n"), StartsWith("id: 4\nevent: rows\ndata: [{\"n\":4"));
  EXPECT_THAT(stream("?after=0", "\n\n", {{"Last-Event-ID", "2"}}), HasSubstr("data: [{\"n\":3,"));
  EXPECT_THAT(stream("?after=5", "\"n\":4,"), AllOf(StartsWith("event: reset\n"), HasSubstr("data: [{\"n\":1,")));
  const std::tuple<std::string, std::string, std::string> changes[] = {
      {kBehaviour, R"({"PrivacyMode": true})", "event: behaviour\ndata: {\"PrivacyMode\":true,"},
      {std::string("POST ") + kBatch, batch("Events", event("5")), "event: batch\ndata: {\"n\":"},
      {kReset, "", "event: reset\n"}};
  for (const auto& [line, body, expected] : changes) {
    auto text = std::async(std::launch::async, [&, wanted = expected] { return stream("", wanted); });
    while (text.wait_for(20ms) != std::future_status::ready) ask(line, body);
    EXPECT_THAT(text.get(), HasSubstr(expected));
  }
  start();  // with every slot free
  sendThreeEvents();
  std::promise<void> over;
  const std::shared_future<void> isOver = over.get_future();
  std::counting_semaphore<24> open(0);
  std::vector<std::future<void>> pages;
  pages.reserve(24);
  for (int i = 0; i < 24; ++i) {
    pages.push_back(std::async(std::launch::async, [&] {
      client().Get("/api/stream?after=0", [&](const char* /*data*/, std::size_t /*size*/) {
        open.release();
        isOver.wait();  // reads nothing more
        return false;
      });
    }));
  }
  for (int i = 0; i < 24; ++i) EXPECT_TRUE(open.try_acquire_for(15s));
  EXPECT_EQ(send(kBatch, batch("Events", event("9"))), "200 1 rows, 1 new, 0 seen again");
  EXPECT_THAT(ask("GET /api/stream"), StartsWith("503 "));
  over.set_value();
}

TEST_F(CollectorPageTest, AppliesFaultsToAnswers) {
  start();
  const struct { std::string fault, answer; int stored; } cases[] = {  // the answer to a batch, how often its row has arrived then
      {"notJSON", "200 <!doctype html>", 1}, {"noContent", "204 ", 2}, {"unauthorized", "401 {\"Error\":", 2}, {"error", "500 {\"Error\":", 2},
      {"reset", "no answer", 3}, {"slow", "200 {}", 4}, {"never", "no answer", 5}, {"none", "200 {}", 6},
  };
  for (const auto& [fault, answer, stored] : cases) {
    ask(kBehaviour, R"({"fault": ")" + fault + R"(", "appliesTo": "batch"})");
    httplib::Client device = client();
    if (fault == "never") device.set_read_timeout(0, 300'000);
    const auto begin = std::chrono::steady_clock::now();
    const auto given = device.Post(kBatch, kHeaders, batch("Events", event("1")), "application/json");
    EXPECT_THAT(given ? std::to_string(given->status) + " " + given->body : "no answer", StartsWith(answer)) << fault;
    EXPECT_TRUE(fault != "slow" || std::chrono::steady_clock::now() - begin >= 3s);
    EXPECT_THAT(find("SELECT max(TimesReceived) FROM Events"), testing::ElementsAre(std::to_string(stored))) << fault;
    EXPECT_THAT(ask(std::string("POST ") + kInit, kHandshake), StartsWith("200 {\"Data\"")) << fault;
  }
  EXPECT_THAT(ask("GET /api/summary"), HasSubstr("\"batches\":8,\"invalidBatches\":0,\"handshakes\":8"));
}

TEST_F(CollectorPageTest, ChangesTheAnswerToHandshakes) {
  start();
  const std::string all = R"({"PrivacyMode":true,"AdvertisingID":true,"SessionTimeout":0,"NetworkMonitoring":true,"Blacklist":["a","b"],"fault":"none","appliesTo":"both"})";
  EXPECT_EQ(ask(kBehaviour, all), "200 " + all);
  EXPECT_EQ(ask("GET /api/behaviour"), "200 " + all);
  const std::pair<std::string, std::string> refused[] = {
      {R"({"AdvertisingID": false, "PrivacyMode": 1})", "PrivacyMode: not true or false"},
      {R"({"SessionTimeout": -1})", "SessionTimeout: not a number of seconds"},
      {R"({"Blacklist": [1]})", "Blacklist: not an array of texts, or null"},
      {R"({"fault": "worse"})", R"(fault: \"worse\" is not known)"},
      {R"({"Fault": "none"})", R"(document: key \"Fault\" is not known)"},
      {"[]", "document: not an object"},
      {" ", "byte 1"},
  };
  for (const auto& [body, fault] : refused) EXPECT_THAT(ask(kBehaviour, body), AllOf(StartsWith("400 "), HasSubstr(fault)));
  EXPECT_EQ(ask(std::string("POST ") + kInit, kHandshake), R"(200 {"Data":{"Config":{"PrivacyMode":true,"AdvertisingID":true,"SessionTimeout":0},"NetworkMonitoring":{"NetworkMonitoringEnabled":true,"Blacklist":["a","b"]}}})");
}

TEST_F(CollectorPageTest, StoresRequestsWhateverTheyHold) {
  start();
  const std::string broken = batch("Events", event("1", "<b>\x80"));
  EXPECT_THAT(send(kBatch, broken), StartsWith("400 "));
  sendThreeEvents();
  send(kInit, "{\"OS\": \"\xC3");
  EXPECT_EQ(ask("GET /api/batches/1/body"), "200 " + broken);
  EXPECT_THAT(ask("GET /api/batches/9/body"), StartsWith("404 "));
  EXPECT_THAT(ask("GET /api/batches"), AllOf(HasSubstr("[{\"n\":3,"), HasSubstr(R"("fault":"byte )"), HasSubstr(R"("rows":2,"newRows":1,"counts":{"Events":2}})"), HasSubstr(R"(["mrbw-project-token","T-2"])"), Not(HasSubstr("REMOTE"))));
  EXPECT_THAT(ask("GET /api/handshakes"), HasSubstr("\"request\":\"{\\\"OS\\\": \\\"\xEF\xBF\xBD\""));
  EXPECT_EQ(ask(kReset), "204 ");
  EXPECT_EQ(ask("GET /api/batches") + ask("GET /api/sessions") + rows("", "n"), "200 []200 []");
  std::string many = event("1", "=1+1") + "," + event("2", "a\\\"b");
  for (int id = 3; id <= 1200; ++id) many.append(",").append(event(std::to_string(id)));
  send(kBatch, batch("Events", many));
  EXPECT_EQ(rows("limit=1", "n"), "1204 ");  // numbers continue, so that a stream misses none
  const std::string lines = ask("GET /api/rows.ndjson?EventName=opened"), table = ask("GET /api/rows.csv?table=Events");
  EXPECT_EQ(std::ranges::count(lines, '\n'), 1198);
  EXPECT_EQ(std::ranges::count(table, '\n'), 1201);
  EXPECT_THAT(table, AllOf(HasSubstr("times,id,SessionID,EventName,EventAttributes,UTCTimeStamp\r\n"), HasSubstr("\"'=1+1\""), HasSubstr("\"a\"\"b\"")));
}

TEST_F(CollectorPageTest, AnswersNoOtherSite) {
  settings.pageToken = "secret";
  settings.host = "0.0.0.0";
  start();
  const std::string port = std::to_string(server->port()), cookie = "collector_" + port + "=";
  EXPECT_THAT(log_.str(), HasSubstr("page at http://0.0.0.0:" + port + "/?token=secret\n"));
  const std::pair<const std::string, std::string> bearer{"Authorization", "Bearer secret"};
  const struct { std::string line; httplib::Headers headers; int status; } cases[] = {
      {"GET /", {}, 401}, {"GET /?token=wrong", {}, 401}, {"GET /?token=secret", {}, 200}, {"GET /api/rows?token=secret", {}, 401},
      {"GET /api/rows", {{"Cookie", "a=b; " + cookie + "secret"}}, 200},
      {"GET /api/rows", {{"Cookie", cookie + "secre"}}, 401},
      {"GET /api/rows", {bearer}, 200},
      {"GET /api/rows", {bearer, {"Host", "localhost:1"}}, 200},
      {"GET /api/rows", {bearer, {"Host", "[::1]:1"}}, 200},
      {"GET /api/rows", {bearer, {"Host", "192.0.2.1"}}, 200},
      {"GET /api/rows", {bearer, {"Host", "rebound.example"}}, 403},
      {kReset, {bearer}, 204},
      {kReset, {bearer, {"Origin", "http://127.0.0.1:" + port}}, 204},
      {kReset, {bearer, {"Origin", "http://other"}}, 403},
      {kReset, {bearer, {"Origin", "null"}}, 403},
      {kReset, {}, 401},
  };
  for (const auto& [line, headers, status] : cases) EXPECT_THAT(ask(line, "", headers), StartsWith(std::to_string(status))) << line << headers.size();
  EXPECT_EQ(client().Get("/?token=secret")->get_header_value("Set-Cookie"), cookie + "secret; Path=/; SameSite=Strict; HttpOnly");
  EXPECT_THAT(ask(std::string("POST ") + kInit, kHandshake), StartsWith("200 "));
  settings = {.dataFile = settings.dataFile, .configFile = {}, .tokens = {"T-2"}, .pageToken = {}};
  start();
  const auto first = client().Get("/"), second = client().Get("/");
  const std::string policy = first->get_header_value("Content-Security-Policy"), begin = "script-src 'nonce-";
  const std::string nonce = policy.substr(policy.find(begin) + begin.size(), 32);
  EXPECT_THAT(policy, StartsWith("default-src 'none'; "));
  EXPECT_THAT(first->body, HasSubstr("<script nonce=\"" + nonce + "\">"));
  EXPECT_THAT(second->body, Not(HasSubstr(nonce)));
  const std::pair<const std::string, std::string> all[] = {{"X-Content-Type-Options", "nosniff"}, {"Cache-Control", "no-store"}, {"X-Frame-Options", "DENY"}};
  for (const httplib::Headers& headers : {first->headers, client().Get("/api/rows")->headers}) EXPECT_THAT(headers, testing::IsSupersetOf(all));
}
// clang-format on

}  // namespace
}  // namespace collector

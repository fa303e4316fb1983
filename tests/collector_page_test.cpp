#include <gmock/gmock.h>
#include <httplib.h>
#include <rapidjson/document.h>

#include <chrono>
#include <future>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/collector_fixture.h"

namespace collector {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr auto kTime = "2026-01-02 00:00:00.005";

std::string session(const std::string& name, const std::string& device,
                    const std::string& privacy = "No") {
  std::string row = R"({"id": "1", "SessionID": ")" + name + R"(", "PlatformDeviceID": ")" +
                    device + R"(", "PrivacyMode": ")" + privacy + "\"";
  for (const char* key :
       {"AppleAdvertisingID", "ProjectToken", "BundleID", "Manufacturer", "Model", "OS",
        "OSVersion", "AppVersion", "Carrier", "ConnectionType", "TimeZone", "SDKVersion"}) {
    row.append(R"(, ")").append(key).append(R"(": "")");
  }
  return row + R"(, "UTCTimeStamp": ")" + kTime + "\"}";
}

/// A screen view, one of the rows that name their session.
std::string view(const std::string& id, const std::string& session) {
  return R"({"id": ")" + id + R"(", "SessionID": ")" + session +
         R"(", "ScreenName": "main", "ScreenAttributes": "", "UTCTimeStamp": ")" + kTime + "\"}";
}

class CollectorPageTest : public CollectorTest {
 protected:
  /// "status body" of a GET.
  std::string get(const std::string& path) const {
    const auto answer = client().Get("/api/" + path);
    return answer ? std::to_string(answer->status) + " " + answer->body : "no answer";
  }

  std::string post(const std::string& path, const std::string& body) const {
    const auto answer = client().Post("/api/" + path, body, "application/json");
    return answer ? std::to_string(answer->status) + " " + answer->body : "no answer";
  }

  /// One member of each row found, with a blank after each.
  std::string rows(const std::string& query, const char* member) const {
    const auto answer = client().Get("/api/rows?" + query);
    rapidjson::Document document;
    document.Parse(answer ? answer->body.c_str() : "");
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

TEST_F(CollectorPageTest, FindsRowsByWhatTheyHold) {
  start();
  sendThreeEvents();
  send(kBatch, batch("ScreenViews", view("1", "T")));
  const std::vector<std::pair<std::string, std::string>> cases{
      {"", "1 2 3 4 5 "},
      {"limit=2", "4 5 "},
      {"before=4&limit=2", "2 3 "},
      {"after=1&limit=2", "2 3 "},
      {"table=Events", "1 2 3 4 "},
      {"session=T", "5 "},
      {"token=T-1", ""},
      {"state=again", "3 "},
      {"EventName=opened", "1 4 "},
      {"id=1", "1 5 "},
      {"id=2&EventName=closed&state=new", "2 "},
      {"UTCTimeStamp=2026-01-02%2000:00:00.005&ScreenName=main", "5 "},
  };
  for (const auto& [query, found] : cases) EXPECT_EQ(rows(query, "n"), found) << query;
  EXPECT_EQ(rows("table=Events", "times"), "1 2 2 1 ");
  EXPECT_EQ(rows("table=Events", "name"), "opened closed closed opened ");
  EXPECT_THAT(get("rows?EventName=opened&limit=1"), HasSubstr(R"("total":2})"));
  EXPECT_THAT(get("summary"),
              AllOf(HasSubstr(R"("Events":{"rows":4,"again":1,"gaps":0})"),
                    HasSubstr(R"("rows":5,"again":1,"gaps":0,"sessions":2,"batches":3)"),
                    HasSubstr(R"("needsToken":false,"tokens":["T-1","T-2"])")));
}

TEST_F(CollectorPageTest, RefusesAQuestionThatMakesNoSense) {
  start();
  const std::vector<std::pair<std::string, std::string>> cases{
      {"rows?table=events", R"(\"events\" is not a table)"},
      {"rows?EventNam=x", R"(no table has the column \"EventNam\")"},
      {"rows?table=Users&EventName=x", R"(no table has the column \"EventName\")"},
      {"rows?EventName%20OR%201=x", "no table has the column"},
      {"rows?limit=-1", R"(\"limit\" is not a number from 0 to 10000)"},
      {"rows.csv?limit=5", "no table has the column"},
      {"wait?timeout=61", R"(\"timeout\" is not a number from 0 to 60)"},
      {"stream?after=x", R"(\"after\" is not a number)"},
  };
  for (const auto& [query, fault] : cases) {
    EXPECT_THAT(get(query), AllOf(testing::StartsWith("400 {\"error\":"), HasSubstr(fault)));
  }
}

TEST_F(CollectorPageTest, TellsAGapOnlyWhereTheIdsShowIt) {
  start();
  send(kBatch, batch("Sessions", session("A", "device") + "," + session("B", "device") + "," +
                                     session("C", "other") + "," + session("P", "private", "Yes") +
                                     "," + session("N", "")));
  const std::vector<std::tuple<std::string, std::string, std::string>> cases{
      {"A", "7", "new"},   // what its device sent before this collector ran is unknown
      {"A", "8", "new"},   //
      {"B", "10", "gap"},  // a gap reaches from one session into the next
      {"B", "11", "new"},  //
      {"C", "30", "new"},  // each device counts for itself
      {"P", "12", "new"},  // privacy mode renames the device
      {"A", "13", "new"},  // and 12 may have been its own
      {"A", "9", "new"},   // late, as nothing is known before it that is missing
      {"N", "40", "new"},  // a session without a device
      {"X", "50", "new"},  // a session that is not known
      {"A", "15", "gap"},
  };
  for (const auto& [name, id, state] : cases) {
    send(kBatch, batch("ScreenViews", view(id, name)));
    EXPECT_EQ(rows("limit=1", "state"), state + " ") << name << " " << id;
  }
}

TEST_F(CollectorPageTest, WaitsUntilEnoughDifferentRowsAreThere) {
  start();
  const std::string query = "wait?table=Events&EventName=closed&timeout=";
  EXPECT_EQ(get(query + "0"), R"(408 {"rows":[]})");
  auto answer = std::async(std::launch::async, [&] { return get(query + "60&count=2"); });
  send(kBatch, batch("Events", event("1", "closed")));
  send(kBatch, batch("Events", event("1", "closed")));
  EXPECT_THAT(get(query + "0&count=2"),
              AllOf(HasSubstr("408 {\"rows\":[{\"n\":1,"), Not(HasSubstr("\"n\":2,"))));
  send(kBatch, batch("Events", event("2", "closed")));
  ASSERT_EQ(answer.wait_for(15s), std::future_status::ready);
  EXPECT_THAT(answer.get(), AllOf(HasSubstr("200 "), HasSubstr("\"n\":1,"), HasSubstr("\"n\":3,")));
}

TEST_F(CollectorPageTest, StreamsWhatIsNewFromWhereAPageLeftOff) {
  start();
  sendThreeEvents();
  EXPECT_THAT(stream("?after=3", "\n\n"),
              testing::StartsWith("id: 4\nevent: rows\ndata: [{\"n\":4"));
  EXPECT_THAT(stream("?after=0", "\n\n", {{"Last-Event-ID", "2"}}), HasSubstr("data: [{\"n\":3,"));
  EXPECT_THAT(stream("?after=5", "\"n\":4,"),
              AllOf(testing::StartsWith("event: reset\n"), HasSubstr("data: [{\"n\":1,")));

  const std::vector<std::tuple<std::string, std::string, std::string>> changes{
      {"behaviour", R"({"PrivacyMode": true})", "event: behaviour\ndata: {\"PrivacyMode\":true,"},
      {"reset", "", "event: reset\n"}};
  for (const auto& [path, body, expected] : changes) {
    // The first row tells that the stream stands; the change comes after it.
    auto text = std::async(std::launch::async,
                           [&, wanted = expected] { return stream("?after=3", wanted); });
    while (text.wait_for(20ms) != std::future_status::ready) post(path, body);
    EXPECT_THAT(text.get(), HasSubstr(expected));
  }
  auto text = std::async(std::launch::async, [&] { return stream("", "\"n\":7,"); });
  for (int id = 5; text.wait_for(20ms) != std::future_status::ready; ++id) {
    send(kBatch, batch("Events", event(std::to_string(id))));
  }
  EXPECT_THAT(text.get(), AllOf(HasSubstr("event: batch\ndata: {\"n\":"), HasSubstr("\"n\":7,")));
}

TEST_F(CollectorPageTest, PagesThatReadNothingDelayNoBatch) {
  constexpr int kPages = 24;
  start();
  sendThreeEvents();
  std::counting_semaphore<kPages> open(0);
  std::promise<void> over;
  const std::shared_future<void> isOver = over.get_future();
  std::vector<std::thread> pages;
  pages.reserve(kPages);
  for (int i = 0; i < kPages; ++i) {
    pages.emplace_back([&] {
      client().Get("/api/stream?after=0", [&](const char* /*data*/, std::size_t /*size*/) {
        open.release();
        isOver.wait();
        return false;
      });
    });
  }
  for (int i = 0; i < kPages; ++i) EXPECT_TRUE(open.try_acquire_for(15s));
  EXPECT_EQ(send(kBatch, batch("Events", event("9"))), "200 1 rows, 1 new, 0 seen again");
  EXPECT_THAT(get("stream"), testing::StartsWith("503 "));
  over.set_value();
  for (std::thread& page : pages) page.join();
}

TEST_F(CollectorPageTest, AnswersBadlyWhenAsked) {
  constexpr auto kTimes = "SELECT max(TimesReceived) FROM Events";
  start();
  struct Case {
    std::string fault, answer;  // to a batch
    int kept;                   // how often its row has arrived then
  };
  const std::vector<Case> cases{
      {"notJSON", "200 <!doctype html>", 1},
      {"noContent", "204 ", 2},
      {"unauthorized", "401 {\"Error\":", 2},
      {"error", "500 {\"Error\":", 2},
      {"reset", "no answer", 3},
      {"never", "no answer", 4},
      {"none", "200 {}", 5},
  };
  for (const Case& each : cases) {
    post("behaviour", R"({"fault": ")" + each.fault + R"(", "appliesTo": "batch"})");
    httplib::Client device("127.0.0.1", server->port());
    device.set_read_timeout(0, each.fault == "never" ? 300'000 : 15'000'000);
    const auto answer =
        device.Post(kBatch, kHeaders, batch("Events", event("1")), "application/json");
    const std::string text =
        answer ? std::to_string(answer->status) + " " + answer->body : "no answer";
    EXPECT_THAT(text, testing::StartsWith(each.answer)) << each.fault;
    // A client that stops waiting may be ahead of the batch that it has sent.
    const std::string kept = std::to_string(each.kept) + "\n";
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (find(kTimes) != kept && std::chrono::steady_clock::now() < deadline) continue;
    EXPECT_EQ(find(kTimes), kept) << each.fault;
    EXPECT_TRUE(
        client().Post(kInit, kHeaders, R"({"OS": "", "BundleID": ""})", "application/json"));
  }
  EXPECT_THAT(get("summary"), HasSubstr("\"batches\":7,\"invalidBatches\":0,\"handshakes\":7"));
}

TEST_F(CollectorPageTest, AnswersLateWhenAsked) {
  start();
  post("behaviour", R"({"fault": "slow", "appliesTo": "handshake"})");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(send(kInit, R"({"OS": "", "BundleID": "b"})"), R"(200 "b" on ""; answered late)");
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 3s);
}

TEST_F(CollectorPageTest, ChangesWhatHandshakesAreAnswered) {
  start();
  const std::string all =
      R"({"PrivacyMode":true,"AdvertisingID":true,"SessionTimeout":0,"NetworkMonitoring":true,)"
      R"("Blacklist":["a","b"],"fault":"none","appliesTo":"both"})";
  EXPECT_EQ(post("behaviour", all), "200 " + all);
  EXPECT_EQ(get("behaviour"), "200 " + all);
  const std::vector<std::pair<std::string, std::string>> refused{
      {R"({"AdvertisingID": false, "PrivacyMode": 1})", "PrivacyMode: not true or false"},
      {R"({"SessionTimeout": -1})", "SessionTimeout: not a number of seconds"},
      {R"({"Blacklist": [1]})", "Blacklist: not an array of texts, or null"},
      {R"({"fault": "worse"})", R"(fault: \"worse\" is not known)"},
      {R"({"Fault": "none"})", R"(document: key \"Fault\" is not known)"},
      {"[]", "document: not an object"},
      {"", "byte 0"},
  };
  for (const auto& [body, fault] : refused) {
    EXPECT_THAT(post("behaviour", body), AllOf(testing::StartsWith("400 "), HasSubstr(fault)));
  }
  send(kInit, R"({"OS": "", "BundleID": ""})");
  EXPECT_EQ(body_,
            R"({"Data":{"Config":{"PrivacyMode":true,"AdvertisingID":true,"SessionTimeout":0},)"
            R"("NetworkMonitoring":{"NetworkMonitoringEnabled":true,"Blacklist":["a","b"]}}})");
}

TEST_F(CollectorPageTest, KeepsRequestsForThePageWhateverTheyHold) {
  start();
  const std::string broken = batch("Events", event("1", "<b>\x80"));
  EXPECT_THAT(send(kBatch, broken), testing::StartsWith("400 "));
  sendThreeEvents();
  send(kInit, "{\"OS\": \"\xC3");
  EXPECT_EQ(get("batches/1/body"), "200 " + broken);
  EXPECT_EQ(get("batches/9/body"), R"(404 {"error":"this body is not kept"})");
  for (const char* path : {"batches", "handshakes", "sessions"}) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag>(get(path).substr(4).c_str());
    EXPECT_FALSE(document.HasParseError()) << path;
  }
  EXPECT_THAT(get("batches"),
              AllOf(HasSubstr("[{\"n\":3,"), HasSubstr(R"("fault":"byte )"),
                    HasSubstr(R"("rows":2,"newRows":1,"counts":{"Events":2}})"),
                    HasSubstr(R"(["mrbw-project-token","T-2"])"), Not(HasSubstr("REMOTE"))));
  EXPECT_THAT(get("handshakes"), HasSubstr("\"request\":\"{\\\"OS\\\": \\\"\xEF\xBF\xBD\""));
  EXPECT_EQ(post("reset", ""), "204 ");
  EXPECT_EQ(get("batches") + get("sessions") + rows("", "n"), "200 []200 []");
  sendThreeEvents();
  EXPECT_EQ(rows("", "n"), "5 6 7 8 ");  // numbered on, so that a stream misses none
}

TEST_F(CollectorPageTest, ExportsEveryRow) {
  start();
  std::string many = event("1", "=1+1") + "," + event("2", "a\\\"b");
  for (int id = 3; id <= 1200; ++id) many.append(",").append(event(std::to_string(id)));
  send(kBatch, batch("Events", many));
  const std::string lines = get("rows.ndjson?EventName=opened");
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1198);
  const std::string table = get("rows.csv?table=Events");
  EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 1201);
  EXPECT_THAT(table,
              AllOf(HasSubstr("times,id,SessionID,EventName,EventAttributes,UTCTimeStamp\r\n"),
                    HasSubstr("\"'=1+1\""), HasSubstr("\"a\"\"b\"")));
}

}  // namespace
}  // namespace collector

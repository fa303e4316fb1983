#include <gmock/gmock.h>
#include <httplib.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/collector_fixture.h"
#include "tools/collector/arguments.h"

namespace collector {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

TEST_F(CollectorTest, KeepsEachRowOnceAndCountsHowOftenItCame) {
  start();
  EXPECT_EQ(send(kBatch, batch("Events", event("1", "\\u0000\xC3\xA9\\/") + "," + event("-2"))),
            "200 2 rows, 2 new, 0 seen again");
  EXPECT_EQ(find("SELECT length(CAST(EventName AS BLOB)) FROM Events WHERE id = 1"), "4\n");
  start();  // what is kept outlives the server
  const std::string changed = event("-2", "closed") + "," + event("-2", "opened", "");
  EXPECT_EQ(send(kBatch, batch("Events", event("-2") + "," + changed + "," + event("3"))),
            "200 4 rows, 3 new, 1 seen again");
  EXPECT_EQ(find("SELECT * FROM Events WHERE id = -2 ORDER BY TimesReceived, UTCTimeStamp"),
            "-2|S|opened|||1\n-2|S|closed||2026-01-02 00:00:00.005|1\n"
            "-2|S|opened||2026-01-02 00:00:00.005|2\n");
  EXPECT_EQ(find("SELECT Method, Path, Status, Rows, NewRows, Bytes > 100, Fault FROM Requests"),
            "POST|/v2/mobile/batch|200|2|2|1|\nPOST|/v2/mobile/batch|200|4|3|1|\n");
}

TEST_F(CollectorTest, KeepsAKindThatDiffersFromItsTable) {
  start();
  EXPECT_EQ(send(kBatch, batch("Messages", R"({"UTCTimeStamp": "", "UserID": "U", "id": "7",
                "OperatingSystem": "", "MessageID": "M", "PlatformDeviceID": "D"})")),
            "200 1 rows, 1 new, 0 seen again");
  EXPECT_EQ(find("SELECT * FROM Messages"), "7|M|U|D|||1\n");
}

TEST_F(CollectorTest, RefusesABatchAtItsFirstFaultAndKeepsNothingOfIt) {
  start();
  const std::string deep(200'000, '[');
  const std::string end = std::to_string(batch("Events", event("1")).size());
  const std::vector<std::pair<std::string, std::string>> cases{
      {"", "byte 0: The document is empty."},
      {R"({"BatchData": null})", "BatchData: not an object"},
      {R"({"BatchData": {}})", R"(BatchData: key "Sessions" is missing)"},
      {R"({"BatchData": {"Events": [], "Events": []}})",
       R"(BatchData: key "Events" is given twice)"},
      {R"({"BatchData": {"events\n": []}})", R"(BatchData: key "events?" is not known)"},
      {R"({"BatchData": {"Ads": {}}})", "Ads: not an array"},
      {R"({"BatchData": {"Ads": )" + deep, "Ads[0]: not an object"},
      {batch("Events", "").replace(0, 1, R"({"Version": 1, )"),
       R"(document: key "Version" is not known)"},
      {batch("Events", event("1")) + "x",
       "byte " + end + ": The document root must not be followed by other values."},
      {batch("Events", event("1")) + "\0x"s, "byte " + end + ": NUL after the document"},
      {batch("Sessions", R"({"id": "7", "AdvertisingID": ""})"),
       R"(Sessions[0]: key "AdvertisingID" is not known)"},
      {batch("Events", event("1") + ", 5"), "Events[1]: not an object"},
      {batch("Events", event("1") + R"(, {"id": 2)"), "Events[1].id: not text"},
      {batch("Events", R"({"id": "1", "id": "1"})"), R"(Events[0]: key "id" is given twice)"},
      {batch("Events", event("1") + R"(, {"id": "2", "SessionID": "S", "UTCTimeStamp": ""})"),
       R"(Events[1]: key "EventName" is missing)"},
      {batch("Events", event("1", R"(\udc00)")), "Events[0].EventName: half of a surrogate pair"},
  };
  for (const auto& [document, fault] : cases) {
    EXPECT_EQ(send(kBatch, document), "400 " + fault) << document.substr(0, 200);
  }
  for (const char* id : {"", "x", "+1", "01", "-0", "1 ", "1.0", "2147483648"}) {
    EXPECT_EQ(send(kBatch, batch("Events", event("1") + "," + event(id))),
              "400 Events[1].id: \""s + id + "\" is not an id");
  }
  for (const char* time :
       {"2026-01-02", "2026-01-02T00:00:00.005", "2026-01-02 00:00:00.0055",
        "2026-02-29 00:00:00.000", "2026-01-02 24:00:00.000", "2026-01-02 00:00:60.000"}) {
    EXPECT_THAT(send(kBatch, batch("Events", event("1") + "," + event("2", "n", time))),
                HasSubstr("400 Events[1].UTCTimeStamp: \""s + time + "\" is not a time"));
  }
  for (const char* bytes : {"\x80", "\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                            "\xF5\x80\x80\x80", "\xFF", "\xC3", "\xE2\x82"}) {
    EXPECT_THAT(send(kBatch, batch("Events", event("1") + "," + event("2", bytes))),
                HasSubstr("Invalid encoding in string"));
  }
  EXPECT_EQ(find("SELECT count(*) FROM Events"), "0\n");
}

TEST_F(CollectorTest, ChecksTheHandshake) {
  start();
  const std::string good = R"({"OS": "iOS", "BundleID": "com.example.todo"})";
  const std::vector<std::tuple<std::string, httplib::Headers, std::string>> cases{
      {good, kHeaders, R"(200 "com.example.todo" on "iOS")"},
      {good, {{"mrbw-project-token", "T-2"}}, R"(400 header "Accept" is not "application/json")"},
      {good, {}, R"(401 header "mrbw-project-token" is not given exactly once)"},
      {"{",
       {{"mrbw-project-token", "T"}},
       R"(401 header "mrbw-project-token" holds an unknown token)"},
      {"[]", kHeaders, "400 document: not an object"},
      {R"({"OS": 1})", kHeaders, "400 OS: not text"},
      {R"({"OS": "iOS"})", kHeaders, R"(400 document: key "BundleID" is missing)"},
      {R"({"OS": "", "X": ""})", kHeaders, R"(400 document: key "X" is not known)"},
      {std::string(64'001, ' '), kHeaders, "413 the document is too long"},
  };
  for (const auto& [document, headers, line] : cases) {
    EXPECT_EQ(send(kInit, document, headers), line);
    EXPECT_THAT(body_, testing::StartsWith(line[0] == '2' ? "{\"Data\":{" : "{\"Error\":\""));
  }
}

TEST_F(CollectorTest, AnswersWithItsConfigurationAndAlwaysWithASessionTimeout) {
  const std::string noNetwork =
      R"("NetworkMonitoring":{"NetworkMonitoringEnabled":false,"Blacklist":[]})";
  const std::vector<std::pair<std::string, std::string>> cases{
      {"{}",
       R"({"Data":{"Config":{"PrivacyMode":false,"AdvertisingID":false,"SessionTimeout":300},)" +
           noNetwork + "}}"},
      {R"({"Config": {"SessionTimeout": 60.5, "PrivacyMode": true, "More": [1]}})",
       R"({"Data":{"Config":{"SessionTimeout":60.5,"PrivacyMode":true,"More":[1],"AdvertisingID":false},)" +
           noNetwork + "}}"},
      {R"({"Config": {"SessionTimeout": 59}})", "at least 60"},
      {R"({"Config": {"SessionTimeout": "90"}})", "at least 60"},
      {R"({"Config": null})", "\"Config\" is no object"},
      {"[]", "not a JSON object"},
      {"{", "byte 1"},
      {"", "cannot be read"},
  };
  for (const auto& [file, expected] : cases) {
    settings.configFile = write(file);
    try {
      start();
      send(kInit, R"({"BundleID": "b", "OS": "iOS"})");
      EXPECT_EQ(body_, expected);
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(expected));
    }
  }
}

TEST_F(CollectorTest, TurnsAwayOtherPathsAndMethods) {
  start();
  const std::vector<std::tuple<std::string, std::string, int>> cases{
      {"POST", "/", 405}, {"GET", kInit, 405}, {"PUT", kBatch, 405}, {"POST", "/v2/mobile/x", 404}};
  for (const auto& [method, path, status] : cases) {
    httplib::Client client("127.0.0.1", server->port());
    httplib::Request request;
    request.method = method;
    request.path = path;
    const auto answer = client.send(request);
    ASSERT_TRUE(answer) << method << " " << path;
    EXPECT_EQ(answer->status, status) << method << " " << path;
    EXPECT_THAT(lastLine(), testing::StartsWith(request.method.append(" ") + path + " "));
  }
}

TEST_F(CollectorTest, RefusesTheFirstBatchesWhenAskedAndTakesAHundredMegabytes) {
  settings.failBatches = 2;
  start();
  EXPECT_EQ(send(kBatch, batch("Events", event("1"))), "503 refused as asked");
  EXPECT_EQ(send(kBatch, batch("Events", event("1"))), "503 refused as asked");
  std::string rows = event("1");
  for (int i = 2; i <= 105; ++i) {
    rows.append(",").append(event(std::to_string(i), std::string(1'000'000, 'x')));
  }
  EXPECT_EQ(send(kBatch, batch("Events", rows)), "200 105 rows, 105 new, 0 seen again");
}

TEST_F(CollectorTest, OverlappingBatchesLoseAndDoubleNothing) {
  start();
  const auto sendTwenty = [&](const std::string& name) {
    for (int i = 1; i <= 20; ++i) {
      httplib::Client client("127.0.0.1", server->port());
      const std::string id = std::to_string(i);
      const std::string rows = event(id, name).append(",").append(event(id));
      const auto answer = client.Post(kBatch, kHeaders, batch("Events", rows), "application/json");
      EXPECT_TRUE(answer && answer->status == 200);
    }
  };
  std::vector<std::thread> clients;
  for (const char* name : {"a", "b", "c", "d", "e", "f"}) clients.emplace_back(sendTwenty, name);
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(find("SELECT count(*), sum(TimesReceived), sum(TimesReceived = 6) FROM Events"),
            "140|240|20\n");
  EXPECT_EQ(find("SELECT sum(Rows), sum(NewRows) FROM Requests"), "240|140\n");
}

TEST_F(CollectorTest, SaysWhichFileOrPortCannotBeUsed) {
  start();
  settings.port = server->port();
  EXPECT_THAT([&] { Collector(settings, log_); },
              testing::ThrowsMessage<std::runtime_error>(HasSubstr("cannot listen on 127.0.0.1")));
  for (const std::string& file : {directory_.string(), write("no database, though long enough")}) {
    settings.dataFile = file;
    EXPECT_THAT([&] { Collector(settings, log_); },
                testing::ThrowsMessage<std::runtime_error>(HasSubstr("the data file " + file)));
  }
  settings.dataFile = directory_ / "data.sqlite";
}

TEST(CollectorArgumentsTest, AreReadOrRefused) {
  const std::vector<const char*> all{"--token",        "a", "--port",       "8080", "--data", "f",
                                     "--token",        "b", "--config",     "c",    "--host", "h",
                                     "--fail-batches", "2", "--page-token", "p-1"};
  const Settings settings = readArguments(all).value();
  EXPECT_EQ(settings.tokens, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(std::tie(settings.port, settings.failBatches), std::make_tuple(8080, 2));
  EXPECT_EQ(settings.dataFile + settings.configFile + settings.host + settings.pageToken, "fchp-1");
  EXPECT_FALSE(readArguments(std::vector<const char*>{"--help"}));

  const std::vector<std::pair<std::vector<const char*>, std::string>> refused{
      {{}, "--data FILE is required"},
      {{"--data", "f"}, "--token TOKEN is required"},
      {{"--data"}, "--data needs a value"},
      {{"data", "f"}, "unknown argument \"data\""},
      {{"--port", "65536"}, "\"65536\" is not a number from 0 to 65535"},
      {{"--page-token", "a;b"}, "--page-token takes letters, digits and \"-\""},
      {{"--fail-batches", "-1"}, "\"-1\" is not a number from 0 to 1000000"},
  };
  for (const auto& each : refused) {
    EXPECT_THAT([&] { readArguments(each.first); },
                testing::ThrowsMessage<UsageError>(each.second));
  }
}

}  // namespace
}  // namespace collector

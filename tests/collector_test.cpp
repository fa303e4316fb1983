#include <sys/resource.h>
#include <sys/socket.h>

#include <thread>

#include "tests/support/collector_fixture.h"

namespace collector {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(CollectorTest, StoresEachRowOnceAndCountsArrivals) {
  start();
  EXPECT_EQ(send(kBatch, batch("Events", event("1", "\\u0000\xC3\xA9\\/") + "," + event("-2"))),
            "200 2 rows, 2 new, 0 seen again");
  EXPECT_THAT(find("SELECT length(CAST(EventName AS BLOB)) FROM Events WHERE id = 1"),
              ElementsAre("4"));
  start();  // rows outlive the server
  const std::string changed = event("-2", "closed") + "," + event("-2", "opened", "");
  EXPECT_EQ(send(kBatch, batch("Events", event("-2") + "," + changed + "," + event("3"))),
            "200 4 rows, 3 new, 1 seen again");
  EXPECT_THAT(find("SELECT * FROM Events WHERE id = -2 ORDER BY TimesReceived, UTCTimeStamp"),
              ElementsAre("-2|S|opened|||1", "-2|S|closed||2026-01-02 00:00:00.005|1",
                          "-2|S|opened||2026-01-02 00:00:00.005|2"));
  EXPECT_EQ(send(kBatch, batch("Messages", R"({"UTCTimeStamp": "", "UserID": "U", "id": "7",
                "OperatingSystem": "", "MessageID": "M", "PlatformDeviceID": "D"})")),
            "200 1 rows, 1 new, 0 seen again");
  EXPECT_THAT(find("SELECT * FROM Messages"), ElementsAre("7|M|U|D|||1"));
  EXPECT_THAT(find("SELECT Method, Path, Status, Rows, NewRows, Bytes > 100, Fault FROM Requests"),
              testing::Contains("POST|/v2/mobile/batch|200|4|3|1|"));
  const auto mode = std::filesystem::status(settings.dataFile).permissions();
  EXPECT_EQ(static_cast<int>(mode), 0600);
}

// clang-format off
TEST_F(CollectorTest, RefusesABatchAtItsFirstFault) {
  start();
  const std::string end = std::to_string(batch("Events", event("1")).size());
  std::vector<std::pair<std::string, std::string>> cases{
      {"", "byte 0: The document is empty."},
      {R"({"BatchData": null})", "BatchData: not an object"},
      {R"({"BatchData": {}})", R"(BatchData: key "Sessions" is missing)"},
      {R"({"BatchData": {"Events": [], "Events": []}})", R"(BatchData: key "Events" is given twice)"},
      {R"({"BatchData": {"events\n": []}})", R"(BatchData: key "events\n" is not known)"},
      {R"({"BatchData": {"Ads": {}}})", "Ads: not an array"},
      {R"({"BatchData": {"Ads": )" + std::string(200'000, '['), "Ads[0]: not an object"},
      {batch("Events", "").replace(0, 1, R"({"Version": 1, )"), R"(document: key "Version" is not known)"},
      {batch("Events", event("1")) + "x", "byte " + end + ": The document root must not be followed by other values."},
      {batch("Events", event("1")) + "\0x"s, "byte " + end + ": NUL after the document"},
      {batch("Sessions", R"({"id": "7", "AdvertisingID": ""})"), R"(Sessions[0]: key "AdvertisingID" is not known)"},
      {batch("Events", event("1") + ", 5"), "Events[1]: not an object"},
      {batch("Events", event("1") + R"(, {"id": 2)"), "Events[1].id: not text"},
      {batch("Events", R"({"id": "1", "id": "1"})"), R"(Events[0]: key "id" is given twice)"},
      {batch("Events", R"({"id": "2", "SessionID": "S", "UTCTimeStamp": ""})"), R"(Events[0]: key "EventName" is missing)"},
      {batch("Events", event("1", R"(\udc00)")), "Events[0].EventName: half of a surrogate pair"},
  };
  for (const char* id : {"", "x", "+1", "01", "-0", "1 ", "1.0", "2147483648"}) cases.emplace_back(batch("Events", event("1") + "," + event(id)), "Events[1].id: \""s + id + "\" is not an id");
  for (const char* time : {"2026-01-02", "2026-01-02T00:00:00.005", "2026-01-02 00:00:00.0055", "2026-02-29 00:00:00.000", "2026-01-02 24:00:00.000", "2026-01-02 00:00:60.000"}) cases.emplace_back(batch("Events", event("2", "n", time)), "Events[0].UTCTimeStamp: \""s + time + "\" is not a time");
  for (const char* bytes : {"\x80", "\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\xC3", "\xE2\x82"}) cases.emplace_back(batch("Events", event("1") + "," + event("2", bytes)), "byte ");
  for (const auto& [document, fault] : cases) EXPECT_THAT(send(kBatch, document), testing::StartsWith("400 " + fault)) << document.substr(0, 200);
  EXPECT_THAT(find("SELECT count(*) FROM Events"), ElementsAre("0"));
}

TEST_F(CollectorTest, AnswersRequestsByTheirHeadersAndPlaces) {
  settings.failBatches = 1;
  start();
  const httplib::Headers unknown{{"Accept", "application/json"}, {"mrbw-project-token", "T"}};
  const std::string good = R"({"OS": "iOS", "BundleID": "com.example.todo"})";
  std::string tooLong;
  tooLong.resize(65U << 20U, ' ');
  const struct { std::string path, body, line; httplib::Headers headers; } cases[] = {
      {kInit, good, R"(200 "com.example.todo" on "iOS")", kHeaders},
      {kInit, good, R"(400 header "Accept" is not "application/json")", {{"mrbw-project-token", "T-2"}}},
      {kInit, good, R"(401 header "mrbw-project-token" is not given exactly once)", {}},
      {kInit, "{", R"(401 header "mrbw-project-token" holds an unknown token)", unknown},
      {kInit, "[]", "400 document: not an object", kHeaders},
      {kInit, R"({"OS": 1})", "400 OS: not text", kHeaders},
      {kInit, R"({"OS": "iOS"})", R"(400 document: key "BundleID" is missing)", kHeaders},
      {kInit, R"({"OS": "", "X": ""})", R"(400 document: key "X" is not known)", kHeaders},
      {kInit, std::string(64'001, ' '), "413 the document is too long", kHeaders},
      {kBatch, tooLong, "413 the document is too long", kHeaders},
      {kBatch, tooLong, R"(401 header "mrbw-project-token" holds an unknown token)", unknown},
      {kBatch, batch("Events", event("1")), "503 refused as asked", kHeaders},
      {kBatch, batch("Events", event("1", tooLong.substr(0, 60'000'000))), "200 1 rows, 1 new, 0 seen again", kHeaders},
      {"/", "x", "405 takes nothing but GET", kHeaders},
      {"/v2/mobile/x", tooLong, "404 nothing is here", kHeaders},
  };
  for (const auto& [path, body, line, headers] : cases) {
    EXPECT_EQ(send(path, body, headers), line);
    EXPECT_THAT(answer_.substr(4), testing::StartsWith(line[0] != '2' ? "{\"Error\":\"" : path == kInit ? "{\"Data\":{" : "{}"));
  }
  EXPECT_THAT(ask("GET "s + kInit), testing::StartsWith("405 "));
  EXPECT_THAT(ask("PUT "s + kBatch, "x"), testing::StartsWith("405 "));
  httplib::Client compressing = client();
  compressing.set_compress(true);
  EXPECT_EQ(compressing.Post(kBatch, kHeaders, tooLong, "application/json")->status, 413);
  EXPECT_EQ(client().Get("/", {{"X-Long", std::string(70'000, 'x')}})->status, 400);
}

TEST_F(CollectorTest, AnswersWithItsConfiguration) {
  const std::string noNetwork = R"("NetworkMonitoring":{"NetworkMonitoringEnabled":false,"Blacklist":[]}}})";
  const std::pair<std::string, std::string> cases[] = {
      {"{}", R"(200 {"Data":{"Config":{"PrivacyMode":false,"AdvertisingID":false,"SessionTimeout":300},)" + noNetwork},
      {R"({"Config": {"SessionTimeout": 60.5, "PrivacyMode": true, "More": [1]}})", R"(200 {"Data":{"Config":{"SessionTimeout":60.5,"PrivacyMode":true,"More":[1],"AdvertisingID":false},)" + noNetwork},
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
      EXPECT_EQ(ask("POST "s + kInit, R"({"BundleID": "b", "OS": "iOS"})"), expected);
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(expected));
    }
  }
}
// clang-format on

TEST_F(CollectorTest, OverlappingBatchesLoseAndDoubleNothing) {
  start();
  const auto sendTwenty = [&](const std::string& name) {
    for (int i = 1; i <= 20; ++i) {
      const std::string id = std::to_string(i);
      EXPECT_EQ(ask("POST "s + kBatch, batch("Events", event(id, name) + "," + event(id))),
                "200 {}");
    }
  };
  std::vector<std::thread> clients;
  for (const char* name : {"a", "b", "c", "d", "e", "f"}) clients.emplace_back(sendTwenty, name);
  for (std::thread& client : clients) client.join();
  EXPECT_THAT(find("SELECT count(*), sum(TimesReceived), sum(TimesReceived = 6) FROM Events"),
              ElementsAre("140|240|20"));
}

TEST_F(CollectorTest, SaysWhichFileOrPortCannotBeUsed) {
  start();
  settings.port = server->port();
  EXPECT_THAT([&] { Collector(settings, log_); },
              testing::ThrowsMessage<std::runtime_error>(HasSubstr("cannot listen on 127.0.0.1")));
  for (const std::string& file : {directory_.path().string(), write("no database, but long")}) {
    settings.dataFile = file;
    EXPECT_THAT([&] { Collector(settings, log_); },
                testing::ThrowsMessage<std::runtime_error>(HasSubstr(file)));
  }
}

TEST_F(CollectorTest, SurvivesAFailedAcceptAndReportsADeadListener) {
  start();
  const int waiting = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{.sin_family = AF_INET,
                      .sin_port = htons(static_cast<std::uint16_t>(server->port())),
                      .sin_addr = {htonl(INADDR_LOOPBACK)},
                      .sin_zero = {}};
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{.rlim_cur = 0, .rlim_max = limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);  // each accept fails
  EXPECT_EQ(connect(waiting, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  timeval pause{.tv_sec = 0, .tv_usec = 200'000};
  setsockopt(waiting, SOL_SOCKET, SO_RCVTIMEO, &pause, sizeof pause);
  char byte = 0;
  EXPECT_EQ(recv(waiting, &byte, 1, 0), -1);
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_THAT(ask("GET /"), testing::StartsWith("200 "));
  EXPECT_FALSE(server->hasFailed());
  for (int file = 3; file < 1024; ++file) {
    int listens = 0;
    socklen_t size = sizeof listens;
    getsockopt(file, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size);
    if (listens != 0) shutdown(file, SHUT_RDWR);
  }
  while (!server->hasFailed()) std::this_thread::yield();
  ::send(waiting, "POST / HTTP/1.1\r\n", 17, MSG_NOSIGNAL);
  server.reset();  // does not wait for the rest of that request
  close(waiting);
}

TEST(CollectorArgumentsTest, AreReadOrRefused) {
  const auto read = [](std::vector<const char*> words) {
    return settingsFrom(readArguments(words));
  };
  const Settings settings =
      read({"--token", "a", "--port=8080", "--data", "f", "--token", "b", "--config", "c", "--host",
            "h", "--fail-batches", "2", "--page-token", "p-1"});
  EXPECT_THAT(settings.tokens, ElementsAre("a", "b"));
  EXPECT_EQ(std::tie(settings.port, settings.failBatches), std::make_tuple(8080, 2));
  EXPECT_EQ(settings.dataFile + settings.configFile + settings.host + settings.pageToken, "fchp-1");
  const std::pair<std::vector<const char*>, std::string> refused[] = {
      {{}, "--data FILE is required"},
      {{"--data", "f"}, "--token TOKEN is required"},
      {{"--data"}, "--data needs a value"},
      {{"data", "f"}, "unknown argument \"data\""},
      {{"--date=f"}, "unknown option \"--date\""},
      {{"--port", "65536"}, "\"65536\" is not a number from 0 to 65535"},
      {{"--page-token", "a;b"}, "--page-token takes letters, digits and \"-\""},
      {{"--fail-batches", "-1"}, "\"-1\" is not a number from 0 to 1000000"},
  };
  for (const auto& each : refused) {
    EXPECT_THAT([&] { read(each.first); }, testing::ThrowsMessage<tools::UsageError>(each.second));
  }
}

}  // namespace
}  // namespace collector

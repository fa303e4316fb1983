#include <sys/resource.h>
#include <sys/socket.h>

#include <fstream>
#include <thread>

#include "tests/support/collector_fixture.h"

namespace collector {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::ThrowsMessage;

TEST_F(CollectorTest, StoresEachRowOnceAndCountsArrivals) {
  start();
  talk({{kBatch, "200 {}", batch("Events", event("1", "\\u0000\xC3\xA9\\/") + "," + event("-2"))}});
  EXPECT_THAT(log_.str(), HasSubstr("POST /v2/mobile/batch 200 2 rows, 2 new, 0 seen again\n"));
  start();  // rows outlive the server
  const std::string changed = event("-2", "closed") + "," + event("-2", "opened", "");
  const std::string message = R"({"UTCTimeStamp": "", "UserID": "U", "id": "7",
      "OperatingSystem": "", "MessageID": "M", "PlatformDeviceID": "D"})";
  talk({{kBatch, "200 {}", batch("Events", event("-2") + "," + changed + "," + event("3"))},
        {kBatch, "200 {}", batch("Messages", message)}});
  EXPECT_THAT(log_.str(), HasSubstr("POST /v2/mobile/batch 200 4 rows, 3 new, 1 seen again\n"));
  EXPECT_THAT(find("SELECT length(CAST(EventName AS BLOB)) FROM Events WHERE id = 1"),
              ElementsAre("4"));
  EXPECT_THAT(find("SELECT * FROM Events WHERE id = -2 ORDER BY TimesReceived, UTCTimeStamp"),
              ElementsAre("-2|S|opened|||1", "-2|S|closed||2026-01-02 00:00:00.005|1",
                          "-2|S|opened||2026-01-02 00:00:00.005|2"));
  EXPECT_THAT(find("SELECT * FROM Messages"), ElementsAre("7|M|U|D|||1"));
  EXPECT_THAT(find("SELECT Method, Path, Status, Rows, NewRows, Bytes > 100, Fault FROM Requests"),
              testing::Contains("POST|/v2/mobile/batch|200|4|3|1|"));
  const auto mode = std::filesystem::status(settings.dataFile).permissions();
  EXPECT_EQ(static_cast<int>(mode), 0600);
}

// clang-format off
TEST_F(CollectorTest, RefusesABatchAtItsFirstFault) {
  start();
  const std::string whole = batch("Events", event("1")), end = std::to_string(whole.size());
  std::vector<std::pair<std::string, std::string>> faults{
      {"byte 0: The document is empty.", ""},
      {R"(BatchData: key "Sessions" is missing)", R"({"BatchData": {}})"},
      {R"(BatchData: key "Ads" is given twice)", R"({"BatchData": {"Ads": [], "Ads": []}})"},
      {"Ads: not an array", R"({"BatchData": {"Ads": {}}})"},
      {"Ads[0]: not an object", R"({"BatchData": {"Ads": )" + std::string(200'000, '[')},
      {R"(document: key "Version" is not known)", R"({"Version": 1, )"},
      {"byte " + end + ": The document root must not be followed by", whole + "x"},
      {"byte " + end + ": NUL after the document", whole + "\0x"s},
      {"Events[1]: not an object", batch("Events", event("1") + ", 5")},
      {"Events[1].id: not text", batch("Events", event("1") + R"(, {"id": 2)")},
      {R"(Events[0]: key "id" is given twice)", batch("Events", R"({"id": "1", "id": "1"})")},
      {R"(Events[0]: key "SessionID" is missing)", batch("Events", R"({"id": "2"})")},
      {"Events[0].EventName: half of a surrogate pair", batch("Events", event("1", R"(\udc00)"))},
  };
  for (const char* id : {"", "x", "+1", "01", "-0", "1 ", "1.0", "2147483648"}) {
    faults.emplace_back("Events[0].id: \""s + id + "\" is not an id", batch("Events", event(id)));
  }
  for (const char* time : {"2026-01-02", "2026-01-02T00:00:00.005", "2026-02-29 00:00:00.000"}) {
    faults.emplace_back("Events[0].UTCTimeStamp: ", batch("Events", event("2", "", time)));
  }
  for (const char* bytes : {"\x80", "\xC0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82"}) {
    faults.emplace_back("byte ", batch("Events", event("1") + "," + event("2", bytes)));
  }
  for (const auto& [fault, document] : faults) talk({{kBatch, "400 " + fault, document}});
  EXPECT_THAT(find("SELECT count(*) FROM Events"), ElementsAre("0"));
}

TEST_F(CollectorTest, AnswersRequestsByTheirHeadersAndPlaces) {
  settings.failBatches = 1;
  start();
  const httplib::Headers unknown{{"mrbw-project-token", "T"}};
  const std::string tooLong(65U << 20U, ' ');
  talk({
      {kInit, "200 {\"Data\":{", kHandshake},
      {kInit, R"(400 header "Accept" is not "application/json")", "", {*kHeaders.rbegin()}},
      {kInit, R"(401 header "mrbw-project-token" is not given exactly once)", "", {}},
      {kInit, R"(401 header "mrbw-project-token" holds an unknown token)", "{", unknown},
      {kInit, "400 document: not an object", "[]"},
      {kInit, R"(400 document: key "BundleID" is missing)", R"({"OS": "iOS"})"},
      {kInit, R"(400 document: key "X" is not known)", R"({"OS": "", "X": ""})"},
      {kBatch, "413 the document is too long", tooLong},
      {kBatch, R"(401 header "mrbw-project-token" holds an unknown token)", tooLong, unknown},
      {kBatch, "503 refused as asked", batch("Events", event("1"))},
      {kBatch, "200 {}", batch("Events", event("1", tooLong.substr(0, 60'000'000)))},
      {"POST /", "405 takes nothing but GET", "x"},
      {"POST /v2/mobile/x", "404 nothing is here", tooLong},
      {"GET /v2/mobile/init", "405 takes nothing but POST"},
      {"GET /", "400 cannot be answered", "", {{"X-Long", std::string(70'000, 'x')}}},
  });
  EXPECT_THAT(log_.str(), HasSubstr("/init 200 \"b\" on \"iOS\"\nPOST /v2/mobile/init 400 header"));
  httplib::Client compressing = client();
  compressing.set_compress(true);
  const auto answer = compressing.Post("/v2/mobile/batch", kHeaders, tooLong, "application/json");
  EXPECT_EQ(answer->status, 413);
}
// clang-format on

TEST_F(CollectorTest, ReadsItsConfigurationAndReportsUnusableFilesAndPorts) {
  const auto refuses = [&](const std::string& fault) {
    EXPECT_THAT([&] { Collector(settings, log_); },
                ThrowsMessage<std::runtime_error>(HasSubstr(fault)));
  };
  settings.configFile = directory_.path() / "configuration";
  refuses("cannot be read");
  const std::pair<const char*, const char*> faults[] = {
      {R"({"Config": {"SessionTimeout": 59}})", "at least 60"},
      {R"({"Config": null})", "\"Config\" is no object"},
      {"[]", "not a JSON object"}};
  for (const auto& [text, fault] : faults) {
    std::ofstream(settings.configFile) << text;
    refuses(fault);
  }
  std::ofstream(settings.configFile)
      << R"({"Config": {"SessionTimeout": 60.5, "PrivacyMode": true, "More": [1]}})";
  start();
  talk(
      {{kInit, R"(200 "SessionTimeout":60.5,"PrivacyMode":true,"More":[1],"AdvertisingID":false},)",
        kHandshake}});
  settings.port = server->port();
  refuses("cannot listen on 127.");
  settings.dataFile = directory_.path();
  refuses(settings.dataFile);
}

TEST_F(CollectorTest, SurvivesAFailedAcceptAndReportsADeadListener) {
  start();
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const int last = dup(0);
  close(last);
  const rlimit one{.rlim_cur = static_cast<rlim_t>(last) + 1, .rlim_max = limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &one);  // the client takes it, each accept fails
  timeout_ = 200ms;
  talk({{"GET /", "no answer"}});
  setrlimit(RLIMIT_NOFILE, &limit);
  timeout_ = 20s;
  talk({{"GET /", "200 <!doctype html>"}});
  EXPECT_FALSE(server->hasFailed());
  for (int file = 3; file < 1024; ++file) shutdown(file, SHUT_RDWR);  // the listener among them
  while (!server->hasFailed()) std::this_thread::yield();
}

TEST(CollectorArgumentsTest, AreReadOrRefused) {
  const auto read = [](std::vector<const char*> words) {
    return settingsFrom(readArguments(words));
  };
  const Settings given =
      read({"--token", "a", "--port=80", "--data", "f", "--token", "b", "--config", "c", "--host=h",
            "--fail-batches", "2", "--page-token", "p-1", "--allow-host", "n"});
  EXPECT_EQ(given.dataFile + given.configFile + given.host + given.pageToken + given.tokens[0] +
                given.tokens[1] + given.allowedHosts[0] + std::to_string(given.port) +
                std::to_string(given.failBatches),
            "fchp-1abn802");
  const std::pair<std::vector<const char*>, std::string> refused[] = {
      {{}, "--data FILE is required"},
      {{"--data", "f"}, "--token TOKEN is required"},
      {{"--data"}, "--data needs a value"},
      {{"data"}, "unknown argument \"data\""},
      {{"--date=f"}, "unknown option \"--date\""},
      {{"--port", "65536"}, "\"65536\" is not a number from 0 to 65535"},
      {{"--page-token", "a;b"}, "--page-token takes letters, digits and \"-\""},
  };
  for (const auto& each : refused) {
    EXPECT_THAT([&] { read(each.first); }, ThrowsMessage<tools::UsageError>(each.second));
  }
}

}  // namespace
}  // namespace collector

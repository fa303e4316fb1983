#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <stdexcept>

#include "Marbleway/startup/state.h"
#include "Marbleway/upload/batch.h"
#include "Marbleway/upload/document.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

// Each array of the document, its table, and the keys of its rows.
struct Expected {
  std::string array, table, keys;
};
// clang-format off
const Expected kArrays[] = {
    {"NetworkRequests", "mrbw_v2_network_requests", "id,SessionID,RequestTimeStamp,ResponseTimeStamp,RequestURL,RequestCachePolicy,RequestHTTPMethod,RequestHTTPHeaderFields,RequestHTTPBody,ResponseMIMEType,ResponseExpectedContentLength,ResponseTextEncodingName,ResponseSuggestedFilename,ResponseStatusCode,ResponseAllHeaderFields,ResponseBody,UTCTimeStamp"},
    {"Sessions", "mrbw_v2_sessions", "id,SessionID,AppleAdvertisingID,ProjectToken,BundleID,PlatformDeviceID,Manufacturer,Model,OS,OSVersion,AppVersion,Carrier,ConnectionType,TimeZone,PrivacyMode,SDKVersion,UTCTimeStamp"},
    {"Users", "mrbw_v2_users", "id,SessionID,UserID,TypeID,UTCTimeStamp"},
    {"UserAttributes", "mrbw_v2_user_attributes", "id,SessionID,AttributeKey,AttributeValue,AttributeType,UTCTimeStamp"},
    {"Companies", "mrbw_v2_companies", "id,SessionID,CompanyName,UTCTimeStamp"},
    {"CompanyAttributes", "mrbw_v2_company_attributes", "id,SessionID,AttributeKey,AttributeValue,AttributeType,UTCTimeStamp"},
    {"Events", "mrbw_v2_events", "id,SessionID,EventName,EventAttributes,UTCTimeStamp"},
    {"ScreenViews", "mrbw_v2_screen_views", "id,SessionID,ScreenName,ScreenAttributes,UTCTimeStamp"},
    {"Crashes", "mrbw_v2_crashes", "id,SessionID,CrashDetails,StackTrace,UTCTimeStamp"},
    {"Errors", "mrbw_v2_errors", "id,SessionID,ErrorName,ErrorMessage,ErrorDetails,UTCTimeStamp"},
    {"CPUUsage", "mrbw_v2_cpu_usage", "id,SessionID,CPUUsed,CPUUnused,UTCTimeStamp"},
    {"MEMUsage", "mrbw_v2_memory_usage", "id,SessionID,MEMUsed,MEMUnused,UTCTimeStamp"},
    {"BatteryUsage", "mrbw_v2_battery_usage", "id,SessionID,BatteryUsed,BatteryUnused,UTCTimeStamp"},
    {"Ads", "mrbw_v2_ads", "id,SessionID,AdType,AdDetails,InteractionType,ConversionDetails,UTCTimeStamp"},
    {"Messages", "mrbw_v2_messages", "id,MessageID,UserID,PlatformDeviceID,OperatingSystem,UTCTimeStamp"},
    {"DeepLinks", "mrbw_v2_deep_links", "id,SessionID,DeepLinkID,OperatingSystem,UTCTimeStamp"},
};
// clang-format on

class UploadTest : public RecordingTest {
 protected:
  void insert(const std::string& table, const std::string& columns, const std::string& values) {
    const bool isNetwork = table == kArrays[0].table;
    query(storePath(isNetwork ? Store::network : Store::event),
          "INSERT INTO " + table + " (" + columns + ") VALUES (" + values + ")");
  }
  void insertRequest(const std::string& url) {
    insert(kArrays[0].table, "RequestURL, UTCTimeStamp", "'" + url + "', '2026-01-02'");
  }

  // The "BatchData" of the latest request.
  Dictionary sent() const {
    const std::string body = http->requests().back().body;
    const auto document = valueFromJSON(body);
    const auto* members = document ? document->as<Dictionary>() : nullptr;
    if (members == nullptr || members->size() != 1) throw std::runtime_error(body);
    return *members->find("BatchData")->as<Dictionary>();
  }
  // The rows of one of its arrays: each a text of its keys and one of its values, in order.
  std::vector<std::pair<std::string, std::string>> sent(const std::string& array) const {
    std::vector<std::pair<std::string, std::string>> rows;
    const Dictionary arrays = sent();
    for (const Value& row : *arrays.find(array)->as<Array>()) {
      auto& [keys, values] = rows.emplace_back();
      for (const auto& [key, value] : *row.as<Dictionary>()) {
        keys.append(keys.empty() ? "" : ",").append(key);
        values.append(values.empty() ? "" : "|").append(*value.as<std::string>());
      }
    }
    return rows;
  }
  // Sends what is pending and lets the server take it.
  void upload() {
    batchData();
    answer(200);
  }
};

TEST_F(UploadTest, NeedsFiveFlagsAndARow) {
  batchData();
  EXPECT_EQ(http->waiting(), 0U) << "nothing pending";
  Marbleway::trackEvent("e");
  for (auto* flag : {&isConnectedToInternet, &isSDKValid, &isValidSession, &isTrackingEnabled,
                     &isUploadingEnabled}) {
    *flag = false;
    batchData();
    EXPECT_EQ(http->waiting(), 0U);
    *flag = true;
  }
  isPrivacyMode = true;
  isNetworkMonitoringEnabled = false;
  batchData();
  EXPECT_EQ(http->waiting(), 1U);
}

TEST_F(UploadTest, IsPostedWithTheTokenIfThereIsOne) {
  using Headers = std::vector<std::pair<std::string, std::string>>;
  Headers headers{{"Accept", "application/json"}, {"Content-Type", "application/json"}};
  Marbleway::trackEvent("e");
  for (const OptionalText& token : {OptionalText(), OptionalText("token")}) {
    internalProjectToken.store(token);
    if (token) headers.emplace_back("mrbw-project-token", *token);
    batchData();
    EXPECT_EQ(http->requests().back().url, "https://collect.marbleway.invalid/v2/mobile/batch");
    EXPECT_EQ(http->requests().back().headers, headers);
    EXPECT_EQ(http->requests().back().answerLimit, 0U);  // what the server says is never read
  }
}

TEST_F(UploadTest, TheDocumentHasAllArraysWithTheColumnsAsTheyStand) {
  for (const auto& [array, table, keys] : kArrays) {
    SCOPED_TRACE(table);
    std::string insertion = "INSERT INTO " + table + " VALUES (17", expected = "17";
    for (auto i = 1; i <= std::count(keys.begin(), keys.end(), ','); ++i) {
      insertion.append(", 'c").append(std::to_string(i)).append("'");
      expected.append("|c").append(std::to_string(i));
    }
    const Store store = array == "NetworkRequests" ? Store::network : Store::event;
    query(storePath(store), insertion.append(")"));
    batchData();
    for (const Expected& each : kArrays) {
      EXPECT_THAT(sent(each.array), SizeIs(each.array == array ? 1 : 0)) << each.array;
    }
    EXPECT_THAT(sent(), SizeIs(std::size(kArrays)));
    EXPECT_THAT(sent(array), ElementsAre(Pair(keys, expected)));
    query(storePath(store), "DELETE FROM " + table);
  }
}

TEST_F(UploadTest, NULLIsEmptyJSONStaysTextAndAnIdWrapsAt32Bits) {
  Marbleway::trackEvent("plain");
  Marbleway::trackEvent("rich", {{"tags", Array{"a\"b", 2.5}}});
  const std::string table = "mrbw_v2_events", columns = "id, EventName";
  query(storePath(), "UPDATE " + table + " SET id = rowid - (SELECT min(rowid) FROM " + table +
                         ") + 1, SessionID = 'S'");
  for (const std::string id : {"2147483647", "2147483648", "4294967313", "9223372036854775807"}) {
    insert(table, columns, id + ", ''");
  }
  batchData();
  std::vector<std::string> values;
  for (const auto& [keys, row] : sent("Events")) values.push_back(row);
  const std::string end = std::string("|") + kStart;
  EXPECT_THAT(values, ElementsAre("1|S|plain|" + end, R"(2|S|rich|{"tags":["a\"b",2.5]})" + end,
                                  "2147483647||||", "-2147483648||||", "17||||", "-1||||"));
}

TEST(EscapeTest, EveryTextReadsBackAndEachBadByteIsReplacedAlone) {
  constexpr const char* kBad = "\uFFFD";
  const auto bad = [](int times) {
    std::string text;
    while (times-- > 0) text.append(kBad);
    return text;
  };
  std::vector<std::pair<std::string, std::string>> cases = {
      {R"(\"\)", R"(\"\)"},
      {"\x7F", "\x7F"},
      {"\u00E9\u20AC\U0001F600", "\u00E9\u20AC\U0001F600"},
      {"\x80", bad(1)},
      {"\xFF\"", bad(1) + "\""},
      {"\xC3\"", bad(1) + "\""},  // cut; the quote after it is not swallowed
      {"\xE2\x82\\", bad(2) + "\\"},
      {"\xF0\x9F\x98\n", bad(3) + "\n"},
      {"\xC0\xAF", bad(2)},          // overlong
      {"\xED\xA0\x80", bad(3)},      // a surrogate
      {"\xF4\x90\x80\x80", bad(4)},  // beyond U+10FFFF
      {"\xC3\xC3\xA9", bad(1) + "\u00E9"},
  };
  for (char control = 1; control < 0x20; ++control) {
    cases.emplace_back(std::string(2, control), std::string(2, control));
  }
  for (const auto& [text, expected] : cases) {
    for (std::size_t before = 0; before < 10; ++before) {  // across a block of eight
      for (std::size_t after : {0, 1, 4, 7, 8, 9}) {
        const auto framed = [&](const std::string& middle) {
          return std::string(before, 'a').append(middle).append(after, 'z');
        };
        platform::Buffer buffer;
        buffer.append("\"");
        appendEscaped(buffer, framed(text));
        buffer.append("\"");
        SCOPED_TRACE(buffer.view());
        EXPECT_EQ(valueFromJSON(buffer.view()), Value(framed(expected)));
      }
    }
  }
  platform::Buffer buffer;
  appendEscaped(buffer, std::string("a\0b", 3));
  EXPECT_EQ(buffer.view(), R"(a\u0000b)");
}

TEST_F(UploadTest, ABlacklistEntryDropsTheURLsThatItContains) {
  const std::string url = "https://a.example/path";
  const struct {
    std::optional<std::vector<std::string>> blacklist;
    bool isSent;
  } cases[] = {
      {std::nullopt, true},
      {{{}}, true},
      {{{url}}, false},
      {{{"other", "see " + url + "/more"}}, false},
      {{{"https://a.example", "path", "https://a.example/pat"}}, true},  // parts of the URL
      {{{"https://A.example/path"}}, true},
      {{{"https://a.example/.*"}}, true},
  };
  insertRequest(url);
  for (const auto& [blacklist, isSent] : cases) {
    SCOPED_TRACE(::testing::PrintToString(blacklist));
    networkBlacklist.store(blacklist);
    const std::size_t before = http->requests().size();
    batchData();
    EXPECT_EQ(http->requests().size() - before, isSent ? 1U : 0U);
  }
  // What was dropped stays while nothing is sent, and goes with the rest.
  networkBlacklist.store({{url}});
  EXPECT_THAT(rows("mrbw_v2_network_requests"), SizeIs(1));
  insertRequest("https://b.example/");
  batchData();
  EXPECT_THAT(sent("NetworkRequests"), SizeIs(1));
  while (http->waiting() > 1) ASSERT_TRUE(http->fail());
  answer(200);
  EXPECT_THAT(rows("mrbw_v2_network_requests"), IsEmpty());
}

TEST_F(UploadTest, ATableThatCannotBeReadCountsAsEmptyAndTheOthersGo) {
  const auto overwrite = [](const std::filesystem::path& file) {
    std::ofstream(file, std::ios::trunc) << "no database";
  };
  const struct {
    const char* name;
    std::string lost;
    std::function<void()> damage;
  } cases[] = {
      {"a dropped table", "Users", [&] { query(storePath(), "DROP TABLE mrbw_v2_users"); }},
      {"no network store", "NetworkRequests",
       [&] { std::filesystem::remove(storePath(Store::network)); }},
      {"no database", "NetworkRequests", [&] { overwrite(storePath(Store::network)); }},
      {"a directory", "NetworkRequests",
       [&] {
         std::filesystem::remove(storePath(Store::network));
         std::filesystem::create_directory(storePath(Store::network));
       }},
  };
  for (const auto& [name, lost, damage] : cases) {
    SCOPED_TRACE(name);
    Marbleway::trackEvent("e");
    damage();
    batchData();
    EXPECT_THAT(sent(), SizeIs(std::size(kArrays)));
    EXPECT_THAT(sent(lost), IsEmpty());
    EXPECT_THAT(sent("Events"), SizeIs(1));
    answer(200);
    EXPECT_THAT(rows("mrbw_v2_events"), IsEmpty());
  }
  overwrite(storePath());
  Marbleway::trackEvent("lost");
  batchData();
  EXPECT_EQ(http->waiting(), 0U);
}

TEST_F(UploadTest, OnlyA200Deletes) {
  std::size_t recorded = 0;
  for (const long status : {0L, 100L, 199L, 201L, 202L, 204L, 301L, 307L, 400L, 401L, 404L, 500L}) {
    SCOPED_TRACE(status);  // 0: no answer
    Marbleway::trackEvent("e");
    lines();
    batchData();
    EXPECT_THAT(sent("Events"), SizeIs(++recorded));
    status == 0 ? failRequest() : answer(status, "");
    EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(recorded));
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_TRUE(isConnectedToInternet);
  }
  for (const char* body : {"", "no JSON", R"({"error":true})"}) {
    Marbleway::trackEvent("e");
    lines();
    batchData();
    answer(200, body);
    EXPECT_THAT(lines(), ElementsAre("Marbleway Message: Data Upload Complete"));
    EXPECT_EQ(rowCount(), 0);
  }
  EXPECT_EQ(http->waiting(), 0U);  // nothing is tried again by itself
}

TEST_F(UploadTest, AnAcceptedBatchDeletesWholeDaysSentOrNot) {
  for (const auto& [array, table, keys] : kArrays) {
    for (const char* stamp :
         {"'2025-12-31 00:00:00.000'", "'2026-01-02 23:59:59.999'", "'2026-01-02'",
          "'2026-01-03 00:00:00.000'", "'2027-01-01'", "'someday'", "''", "NULL"}) {
      insert(table, "UTCTimeStamp", stamp);
    }
  }
  batchData();
  Marbleway::trackEvent("the same day, after the reading");
  answer(200);
  for (const auto& [array, table, keys] : kArrays) {
    SCOPED_TRACE(table);
    const Store store = array == "NetworkRequests" ? Store::network : Store::event;
    EXPECT_THAT(query(storePath(store), "SELECT UTCTimeStamp FROM " + table + " ORDER BY id"),
                ElementsAre("2026-01-03 00:00:00.000", "2027-01-01", "someday", "", "NULL"));
  }
  batchData();
  for (const Expected& each : kArrays) EXPECT_THAT(sent(each.array), SizeIs(5)) << each.array;
}

// Each table's own cut-off counts, taken when it has been read.
TEST_F(UploadTest, MidnightBetweenTwoReadingsDividesTheTables) {
  struct Hourly : platform::Clock {
    std::chrono::system_clock::time_point now() override {
      return std::chrono::sys_days(std::chrono::year(2026) / 1 / 2) + 16h + 1h * calls++;
    }
    std::atomic<int> calls = 0;
  };
  for (const auto& [array, table, keys] : kArrays) {
    insert(table, "UTCTimeStamp", "'2026-01-03 12:00:00.000'");
  }
  platform::Platform services;
  services.clock = std::make_shared<Hourly>();
  platform::install(services);
  upload();
  for (std::size_t i = 0; i < std::size(kArrays); ++i) {
    EXPECT_THAT(rows(kArrays[i].table), SizeIs(i < 8 ? 1 : 0)) << kArrays[i].table;
  }
}

TEST_F(UploadTest, SaysSoBeforeItDeletesAndOneFailedDeletionStopsNoOther) {
  struct Watching : platform::Console {
    void writeLine(std::string_view /*line*/) override { rowsThen = count(); }
    std::function<int()> count;
    int rowsThen = -1;
  };
  const auto watching = std::make_shared<Watching>();
  watching->count = [this] { return rowCount(); };
  for (const auto& [array, table, keys] : kArrays) {
    insert(table, "UTCTimeStamp", "'2026-01-02 12:00:00.000'");
  }
  query(storePath(),
        "CREATE TRIGGER no BEFORE DELETE ON mrbw_v2_users BEGIN SELECT RAISE(ABORT, 'no'); END");
  platform::Platform services;
  services.console = watching;
  platform::install(services);
  upload();
  EXPECT_EQ(watching->rowsThen, 16);
  EXPECT_THAT(rows("mrbw_v2_users"), SizeIs(1));
  EXPECT_EQ(rowCount(), 1);

  services.console = console;
  platform::install(services);
  query(storePath(), "DROP TRIGGER no");
  isLoggingEnabled = false;
  upload();
  EXPECT_EQ(rowCount(), 0);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(UploadTest, OverlappingBatchesSendTheSameRowsAndEachDeletesItsDays) {
  Marbleway::trackEvent("first");
  batchData();
  time->advance(29s);
  Marbleway::trackEvent("second");
  Marbleway::stopSession();
  EXPECT_EQ(http->waiting(), 2U);
  EXPECT_THAT(sent("Events"), SizeIs(2));
  answer(500);
  EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(2));
  answer(200);
  EXPECT_EQ(rowCount(), 0);
}

TEST_F(UploadTest, HappensWhenTheTimerFiresAtAStopAndAtALaterStartUp) {
  const std::pair<const char*, std::function<void()>> triggers[] = {
      {"timer", [&] { time->advance(30s); }},
      {"start-up", [] { Marbleway::initMarbleway("token"); }},
      {"stop", [] { Marbleway::stopSession(); }},
  };
  time->setWallClock(std::chrono::system_clock::now());  // the purge goes by SQLite's clock
  for (const auto& [name, trigger] : triggers) {
    SCOPED_TRACE(name);
    Marbleway::trackEvent(name);
    const std::size_t before = http->requests().size();
    trigger();
    ASSERT_GT(http->requests().size(), before);
    EXPECT_THAT(http->requests()[before].url, HasSubstr("mobile/batch"));
    EXPECT_THAT(http->requests()[before].body, HasSubstr(name));
    answer(200);
    EXPECT_THAT(rows("mrbw_v2_events"), IsEmpty());
    while (http->waiting() > 0) answer(200, R"({"Data":{"Config":{"SessionTimeout":300}}})");
  }
}

}  // namespace
}  // namespace marbleway::testing

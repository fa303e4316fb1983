#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <stdexcept>

#include "Marbleway/core/state.h"
#include "Marbleway/upload/batch.h"
#include "Marbleway/upload/document.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
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
  std::filesystem::path storeOf(const std::string& table) const {
    return storePath(table == kArrays[0].table ? Store::network : Store::event);
  }
  void insert(const std::string& table, const std::string& columns, const std::string& values) {
    query(storeOf(table), "INSERT INTO " + table + " (" + columns + ") VALUES (" + values + ")");
  }
  void insertEverywhere(const std::string& stamp) {
    for (const Expected& each : kArrays) insert(each.table, "UTCTimeStamp", stamp);
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
  EXPECT_EQ(http->requests().back().maxResponseBytes, 0U);  // what the server says is never read
}

TEST_F(UploadTest, TheDocumentHasAllArraysWithTheColumnsAsTheyStand) {
  for (const auto& [array, table, keys] : kArrays) {
    SCOPED_TRACE(table);
    std::string insertion = "INSERT INTO " + table + " VALUES (17", expected = "17";
    for (auto i = 1; i <= std::count(keys.begin(), keys.end(), ','); ++i) {
      insertion.append(", 'c").append(std::to_string(i)).append("'");
      expected.append("|c").append(std::to_string(i));
    }
    query(storeOf(table), insertion.append(")"));
    batchData();
    for (const Expected& each : kArrays) {
      EXPECT_THAT(sent(each.array), SizeIs(each.array == array ? 1 : 0)) << each.array;
    }
    EXPECT_THAT(sent(), SizeIs(std::size(kArrays)));
    EXPECT_THAT(sent(array), ElementsAre(Pair(keys, expected)));
    query(storeOf(table), "DELETE FROM " + table);
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
  const std::string bad = "\uFFFD";
  std::vector<std::pair<std::string, std::string>> cases = {
      {R"(\"\)", R"(\"\)"},
      {"\x7F\u00E9\u20AC\U0001F600", "\x7F\u00E9\u20AC\U0001F600"},
      {"\x80", bad},
      {"\xC3\"", bad + "\""},  // cut; the quote after it is not swallowed
      {"\xE2\x82\\", bad + bad + "\\"},
      {"\xF0\x9F\x98\n", bad + bad + bad + "\n"},
      {"\xC0\xAF", bad + bad},                      // overlong
      {"\xED\xA0\x80", bad + bad + bad},            // a surrogate
      {"\xF4\x90\x80\x80", bad + bad + bad + bad},  // beyond U+10FFFF
  };
  for (char control = 1; control < 0x20; ++control) {
    cases.emplace_back(std::string(2, control), std::string(2, control));
  }
  for (const auto& [text, expected] : cases) {
    for (std::size_t i = 0; i < 100; ++i) {  // everywhere in and across blocks of eight
      const auto padded = [i](std::string value) {
        return value.insert(0, i / 10, 'a').append(i % 10, 'z');
      };
      platform::Buffer buffer;
      buffer.append("\"");
      appendEscaped(buffer, padded(text));
      buffer.append("\"");
      EXPECT_EQ(valueFromJSON(buffer.view()), Value(padded(expected))) << buffer.view();
    }
  }
  platform::Buffer buffer;
  appendEscaped(buffer, std::string("a\0b", 3));
  EXPECT_EQ(buffer.view(), R"(a\u0000b)");
}

TEST_F(UploadTest, ABlacklistEntryDropsTheURLsThatItContains) {
  const std::string url = "https://a.example/path", table = "mrbw_v2_network_requests";
  const std::pair<std::optional<std::vector<std::string>>, bool> cases[] = {
      {std::nullopt, true},
      {{{}}, true},
      {{{"https://a.example", "path", "https://a.example/pat"}}, true},  // parts of the URL
      {{{"https://A.example/path", "https://a.example/.*"}}, true},
      {{{url}}, false},
      {{{"other", "see " + url + "/more"}}, false},
  };
  insert(table, "RequestURL, UTCTimeStamp", "'" + url + "', '2026-01-02'");
  for (const auto& [blacklist, isSent] : cases) {
    networkBlacklist.store(blacklist);
    const std::size_t before = http->requests().size();
    batchData();
    EXPECT_EQ(http->requests().size() - before, isSent ? 1U : 0U)
        << ::testing::PrintToString(blacklist);
  }
  // What was dropped stays while nothing is sent, and goes with the rest.
  EXPECT_THAT(rows(table), SizeIs(1));
  Marbleway::trackEvent("e");
  batchData();
  EXPECT_THAT(sent("NetworkRequests"), IsEmpty());
  while (http->waiting() > 1) failRequest();
  answer(200);
  EXPECT_THAT(rows(table), IsEmpty());
}

TEST_F(UploadTest, ATableThatCannotBeReadCountsAsEmptyAndTheOthersGo) {
  const std::filesystem::path network = storePath(Store::network);
  const std::pair<std::string, std::function<void()>> damages[] = {
      {"Users", [&] { query(storePath(), "DROP TABLE mrbw_v2_users"); }},
      {"NetworkRequests", [&] { std::filesystem::remove(network); }},
      {"NetworkRequests", [&] { std::ofstream(network) << "no database"; }},
  };
  for (const auto& [lost, damage] : damages) {
    Marbleway::trackEvent("e");
    damage();
    batchData();
    EXPECT_THAT(sent(), SizeIs(std::size(kArrays)));
    EXPECT_THAT(sent(lost), IsEmpty());
    EXPECT_THAT(sent("Events"), SizeIs(1));
    answer(200);
    EXPECT_THAT(rows("mrbw_v2_events"), IsEmpty());
  }
  std::ofstream(storePath()) << "no database";
  Marbleway::trackEvent("lost");
  batchData();
  EXPECT_EQ(http->waiting(), 0U);
}

TEST_F(UploadTest, OnlyA200DeletesAndNothingIsTriedAgainByItself) {
  std::size_t recorded = 0;
  for (const long status : {0L, 100L, 199L, 201L, 202L, 301L, 404L}) {  // 0: no answer
    SCOPED_TRACE(status);
    Marbleway::trackEvent("e");
    lines();
    batchData();
    EXPECT_THAT(sent("Events"), SizeIs(++recorded));
    status == 0 ? failRequest() : answer(status);
    EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(recorded));
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_EQ(http->waiting(), 0U);
  }
  upload();
  EXPECT_THAT(lines(), ElementsAre("Marbleway Message: Data Upload Complete"));
  EXPECT_EQ(rowCount(), 0);
}

TEST_F(UploadTest, AnAcceptedBatchDeletesWholeDaysSentOrNot) {
  for (const char* stamp :
       {"'2025-12-31 00:00:00.000'", "'2026-01-02 23:59:59.999'", "'2026-01-02'",
        "'2026-01-03 00:00:00.000'", "'2027-01-01'", "'someday'", "''", "NULL"}) {
    insertEverywhere(stamp);
  }
  batchData();
  Marbleway::trackEvent("the same day, after the reading");
  answer(200);
  for (const auto& [array, table, keys] : kArrays) {
    SCOPED_TRACE(table);
    EXPECT_THAT(query(storeOf(table), "SELECT UTCTimeStamp FROM " + table + " ORDER BY id"),
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
  insertEverywhere("'2026-01-03 12:00:00.000'");
  platform::install({.clock = std::make_shared<Hourly>()});
  upload();
  for (std::size_t i = 0; i < std::size(kArrays); ++i) {
    EXPECT_THAT(rows(kArrays[i].table), SizeIs(i < 8 ? 1 : 0)) << kArrays[i].table;
  }
}

TEST_F(UploadTest, SaysSoBeforeItDeletesAndOneFailedDeletionStopsNoOther) {
  struct Watching : platform::Console {
    explicit Watching(std::function<int()> counter) : count(std::move(counter)) {}
    void writeLine(std::string_view /*line*/) override { EXPECT_EQ(count(), 16); }
    std::function<int()> count;
  };
  insertEverywhere("'2026-01-02 12:00:00.000'");
  query(storePath(),
        "CREATE TRIGGER no BEFORE DELETE ON mrbw_v2_users BEGIN SELECT RAISE(ABORT, 'no'); END");
  platform::install({.console = std::make_shared<Watching>([this] { return rowCount(); })});
  upload();
  EXPECT_THAT(rows("mrbw_v2_users"), SizeIs(1));
  EXPECT_EQ(rowCount(), 1);

  platform::install({.console = console});
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

}  // namespace
}  // namespace marbleway::testing

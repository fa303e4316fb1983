#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>

#include "Marbleway/core/state.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::_;
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
  // The rows of one of its arrays: the keys and the values of each, in order.
  std::vector<std::pair<std::string, std::string>> sent(const std::string& array) const {
    std::vector<std::pair<std::string, std::string>> rows;
    const Dictionary arrays = sent();
    for (const Value& row : *arrays.find(array)->as<Array>()) {
      auto& [keys, values] = rows.emplace_back();
      for (const auto& [key, value] : *row.as<Dictionary>()) {
        keys.append(key).append(",");
        values.append(*value.as<std::string>()).append("|");
      }
    }
    return rows;
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
  batchData();
  EXPECT_EQ(http->waiting(), 1U);
  EXPECT_EQ(http->requests().back().maxResponseBytes, 0U);  // the response's body is never read
}

TEST_F(UploadTest, TheDocumentHoldsEachTablesColumns) {
  std::map<std::string, std::string> expected;
  for (const auto& [array, table, keys] : kArrays) {
    std::string insertion = "INSERT INTO " + table + " VALUES (17";
    expected[array] = "17|";
    for (auto i = 1; i <= std::count(keys.begin(), keys.end(), ','); ++i) {
      const std::string text = array + std::to_string(i);
      insertion.append(", '" + text + "'");
      expected[array].append(text + "|");
    }
    query(storeOf(table), insertion.append(")"));
  }
  batchData();
  EXPECT_THAT(sent(), SizeIs(std::size(kArrays)));
  for (const auto& [array, table, keys] : kArrays) {
    EXPECT_THAT(sent(array), ElementsAre(Pair(keys + ",", expected[array])));
  }
}

TEST_F(UploadTest, RowsAreTextsOfAnyLengthInOrder) {
  const std::string table = "mrbw_v2_events", columns = "id, EventName, EventAttributes";
  Marbleway::trackEvent(std::string_view());
  Marbleway::trackEvent("rich", {{"tags", Array{"a\"b", 2.5}}});
  query(storePath(), "UPDATE " + table + " SET SessionID = 'S'");
  // Long texts are read in pieces, which end between characters.
  const auto filled = [](int size, const char* end) {
    return "printf('%.*c', " + std::to_string(size) + ", 'n') || '" + end + "'";
  };
  insert(table, columns, "5, " + filled(300000, "\u20AC\"") + ", NULL");
  insert(table, columns,
         "6, 'short', " + filled(65534, "\U0001F600") + " || " + filled(200000, ""));
  insert(table, columns, "2147483648, 'id', NULL");
  insert(table, columns, "9223372036854775807, x'FF', " + filled(262145, ""));
  batchData();
  const std::string end = std::string("|") + kStart + "|", n(300000, 'n');
  // clang-format off
  EXPECT_THAT(sent("Events"), ElementsAre(Pair(_, "1|S||" + end), Pair(_, R"(2|S|rich|{"tags":["a\"b",2.5]})" + end), Pair(_, "5||" + n + "\u20AC\"|||"), Pair(_, "6||short|" + n.substr(0, 65534) + "\U0001F600" + n.substr(0, 200000) + "||"), Pair(_, "-2147483648||id|||"), Pair(_, "-1||\uFFFD|" + n.substr(0, 262145) + "||")));
  // clang-format on
}

TEST_F(UploadTest, ABlacklistEntryDropsTheURLsItContains) {
  const std::string url = "https://a.example/path", table = "mrbw_v2_network_requests";
  const std::pair<std::optional<std::vector<std::string>>, bool> cases[] = {
      {std::nullopt, true},
      {{{"https://a.example", "path", "https://a.example/pat"}}, true},  // parts of the URL
      {{{"https://A.example/path", "https://a.example/.*"}}, true},
      {{{url}}, false},
      {{{"other", "see " + url + "/more"}}, false}};
  for (const char* body : {"''", "zeroblob(300000)"}) {
    insert(table, "RequestURL, ResponseBody, UTCTimeStamp",
           "'" + url + "', " + body + ", '2026-01-02'");
    for (const auto& [blacklist, isSent] : cases) {
      networkBlacklist.store(blacklist);
      batchData();
      EXPECT_EQ(http->waiting(), isSent ? 1U : 0U) << ::testing::PrintToString(blacklist);
      if (isSent) failRequest();
    }
    EXPECT_THAT(rows(table), SizeIs(1)) << "nothing was sent";
    Marbleway::trackEvent("e");
    batchData();
    EXPECT_THAT(sent("NetworkRequests"), IsEmpty());
    answer(200);
    EXPECT_THAT(rows(table), IsEmpty()) << "deleted with the rest";
  }
}

TEST_F(UploadTest, AnUnreadableTableCountsAsEmpty) {
  const std::filesystem::path network = storePath(Store::network);
  const std::function<void()> damages[] = {[&] { query(storePath(), "DROP TABLE mrbw_v2_users"); },
                                           [&] { std::filesystem::remove(network); },
                                           [&] { std::ofstream(network) << "none"; }};
  for (const auto& damage : damages) {
    Marbleway::trackEvent("e");
    damage();
    batchData();
    EXPECT_THAT(sent(), SizeIs(std::size(kArrays)));
    EXPECT_THAT(sent("Events"), SizeIs(1));
    answer(200);
    EXPECT_THAT(rows("mrbw_v2_events"), IsEmpty());
  }
}

TEST_F(UploadTest, OnlyA200Deletes) {
  std::size_t recorded = 0;
  for (const long status : {0L, 100L, 199L, 201L, 301L, 404L, 500L}) {  // 0: no response
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
}

// Each table has its own cut-off, taken when it has been read.
TEST_F(UploadTest, MidnightBetweenTwoReadingsDividesTheTables) {
  struct Hourly : platform::Clock {
    std::chrono::system_clock::time_point now() override {
      return std::chrono::sys_days(std::chrono::year(2026) / 1 / 2) + 16h + 1h * calls++;
    }
    std::atomic<int> calls = 0;
  };
  insertEverywhere("'2026-01-03 12:00:00.000'");
  platform::install({.clock = std::make_shared<Hourly>()});
  batchData();
  answer(200);
  for (std::size_t i = 0; i < std::size(kArrays); ++i) {
    EXPECT_THAT(rows(kArrays[i].table), SizeIs(i < 8 ? 1 : 0)) << kArrays[i].table;
  }
}

TEST_F(UploadTest, AFailedDeletionStopsNoOther) {
  insertEverywhere("'2026-01-02 12:00:00.000'");
  query(storePath(),
        "CREATE TRIGGER no BEFORE DELETE ON mrbw_v2_users BEGIN SELECT RAISE(ABORT, 'no'); END");
  struct Counting : platform::Console {
    void writeLine(std::string_view /*line*/) override { rows = count(); }
    std::function<int()> count;
    int rows = 0;
  };
  const auto counting = std::make_shared<Counting>();
  counting->count = [this] { return rowCount(); };
  platform::install({.console = counting});
  batchData();
  answer(200);
  EXPECT_EQ(counting->rows, 16) << "the line comes first";
  EXPECT_EQ(rowCount(), 1);
}

TEST_F(UploadTest, FourBatchesOverlapAndAFifthIsNotBegun) {
  for (std::size_t batches = 1; batches <= 4; ++batches) {
    Marbleway::trackEvent("e");
    batchData();
    EXPECT_THAT(sent("Events"), SizeIs(batches));
  }
  for (int i = 0; i < 2; ++i) Marbleway::stopSession(), isValidSession = true;
  EXPECT_EQ(http->waiting(), 4U);
  answer(500);
  batchData();
  EXPECT_EQ(http->waiting(), 4U);
  failRequest();
  answer(200);  // each deletes its days
  EXPECT_EQ(rowCount(), 0);
  answer(200);
  Marbleway::trackEvent("e");
  batchData();
  EXPECT_THAT(sent("Events"), SizeIs(1));
}

}  // namespace
}  // namespace marbleway::testing

#include <fstream>
#include <functional>
#include <sstream>

#include "Marbleway/core/state.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"

// What scenarios do not show: the documents, and what happens between two readings or deletions.
namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class UploadTest : public RecordingTest {
 protected:
  void insert(const Table& table, const std::string& columns, const std::string& values) const {
    query(storePath(table.store),
          std::string("INSERT INTO ").append(table.name) + columns + " VALUES (" + values + ")");
  }
  // The latest request's document.
  std::string sent() const { return http->requests().back().body; }
};

TEST_F(UploadTest, DocumentHoldsEachTablesColumns) {
  std::istringstream arrays(
      "NetworkRequests Sessions Users UserAttributes Companies CompanyAttributes Events "
      "ScreenViews Crashes Errors CPUUsage MEMUsage BatteryUsage Ads Messages DeepLinks");
  std::string expected;
  for (const Table& table : kTables) {
    std::string array, values = "17";
    arrays >> array;
    expected.append(",\"").append(array).append(R"(":[{"id":"17")");
    for (const std::string_view column : table.columns) {
      const std::string text = array + std::string(column);
      const auto key = column == "AdvertisingID" ? "AppleAdvertisingID" : column;
      expected.append(",\"").append(key).append(R"(":")").append(text).append("\"");
      values.append(", '").append(text).append("'");
    }
    expected.append("}]");
    insert(table, "", values);
  }
  batchData();
  EXPECT_EQ(http->requests().back().maxResponseBytes, 0U);  // the response's body is never read
  expected[0] = '{';
  EXPECT_EQ(sent(), R"({"BatchData":)" + expected + "}}");
}

TEST_F(UploadTest, RowsAreTextsOfAnyLengthInOrder) {
  // Long texts are read in pieces, which end between characters.
  const auto filled = [](int size, const std::string& end) {
    return "printf('%.*c', " + std::to_string(size) + ", 'n') || '" + end + "'";
  };
  const std::string n(300000, 'n');
  const struct {
    std::string id, name, attributes, sentID, sentName, sentAttributes;
  } cases[] = {
      {"5", filled(300000, "\u20AC\""), "NULL", "5", n + "\u20AC\\\"", ""},
      {"6", "'short'", filled(65534, "\U0001F600") + " || " + filled(200000, ""), "6", "short",
       n.substr(0, 65534) + "\U0001F600" + n.substr(0, 200000)},
      {"2147483648", "'id'", "NULL", "-2147483648", "id", ""},
      {"9223372036854775807", "x'FF'", filled(262145, ""), "-1", "�", n.substr(0, 262145)},
  };
  std::string expected = R"("Events":[)";
  for (const auto& row : cases) {
    insert(kTables[6], "(id, EventName, EventAttributes)",
           row.id + "," + row.name + "," + row.attributes);
    expected.append(R"({"id":")").append(row.sentID).append(R"(","SessionID":"","EventName":")");
    expected.append(row.sentName).append(R"(","EventAttributes":")").append(row.sentAttributes);
    expected.append(R"(","UTCTimeStamp":""},)");
  }
  expected.back() = ']';
  batchData();
  EXPECT_TRUE(sent().find(expected.append(",")) != std::string::npos);
}

TEST_F(UploadTest, UnreadableTableCountsAsEmpty) {
  const std::filesystem::path network = storePath(Store::network);
  const std::function<void()> damages[] = {[&] { query(storePath(), "DROP TABLE mrbw_v2_users"); },
                                           [&] { std::filesystem::remove(network); },
                                           [&] { std::ofstream(network) << "none"; }};
  for (const auto& damage : damages) {
    Marbleway::trackEvent("e");
    damage();
    batchData();
    EXPECT_THAT(sent(), AllOf(HasSubstr(R"("NetworkRequests":[],)"), HasSubstr(R"("Users":[],)"),
                              HasSubstr(R"("EventName":"e")"), EndsWith(R"("DeepLinks":[]}})")));
    answer(200);
    EXPECT_THAT(rows("mrbw_v2_events"), IsEmpty());
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
  for (const Table& table : kTables) insert(table, "(UTCTimeStamp)", "'2026-01-03 12:00:00.000'");
  platform::install({.clock = std::make_shared<Hourly>()});
  batchData();
  answer(200);
  for (std::size_t i = 0; i < std::size(kTables); ++i) {
    EXPECT_THAT(rows(std::string(kTables[i].name)), SizeIs(i < 8 ? 1 : 0)) << kTables[i].name;
  }
}

}  // namespace
}  // namespace marbleway::testing

#include <fstream>
#include <functional>
#include <stdexcept>

#include "Marbleway/core/state.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"

// What scenarios do not show: the documents, and what happens between two readings or deletions.
namespace marbleway::testing {
namespace {

using namespace std::chrono_literals;
using ::testing::_;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

constexpr std::string_view kArrays[] = {"NetworkRequests", "Sessions",    "Users",
                                        "UserAttributes",  "Companies",   "CompanyAttributes",
                                        "Events",          "ScreenViews", "Crashes",
                                        "Errors",          "CPUUsage",    "MEMUsage",
                                        "BatteryUsage",    "Ads",         "Messages",
                                        "DeepLinks"};

class UploadTest : public RecordingTest {
 protected:
  void insert(const Table& table, const std::string& columns, const std::string& values) const {
    query(storePath(table.store),
          std::string("INSERT INTO ").append(table.name) + columns + " VALUES (" + values + ")");
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
  std::vector<std::pair<std::string, std::string>> sent(std::string_view array) const {
    std::vector<std::pair<std::string, std::string>> rows;
    const Dictionary arrays = sent();
    for (const Value& row : *arrays.find(array)->as<Array>()) {
      auto& [keys, values] = rows.emplace_back();
      for (const auto& [key, value] : *row.as<Dictionary>()) {
        keys.append(key).append("|");
        values.append(*value.as<std::string>()).append("|");
      }
    }
    return rows;
  }
};

TEST_F(UploadTest, DocumentHoldsEachTablesColumns) {
  std::vector<std::pair<std::string, std::string>> expected;
  for (const Table& table : kTables) {
    auto& [keys, row] = expected.emplace_back("id|", "17|");
    std::string values = "17";
    for (const std::string_view column : table.columns) {
      const std::string text = std::string(table.arrayKey).append(column);
      keys.append(column == "AdvertisingID" ? "AppleAdvertisingID" : column).append("|");
      row.append(text).append("|");
      values.append(", '").append(text).append("'");
    }
    insert(table, "", values);
  }
  batchData();
  EXPECT_EQ(http->requests().back().maxResponseBytes, 0U);  // the response's body is never read
  EXPECT_THAT(sent(), SizeIs(std::size(kArrays)));
  for (std::size_t i = 0; i < std::size(kArrays); ++i) {
    EXPECT_THAT(sent(kArrays[i]), ElementsAre(expected[i]));
  }
}

TEST_F(UploadTest, RowsAreTextsOfAnyLengthInOrder) {
  // Long texts are read in pieces, which end between characters.
  const auto filled = [](int size, const std::string& end) {
    return "printf('%.*c', " + std::to_string(size) + ", 'n') || '" + end + "'";
  };
  const Table& table = kTables[6];
  const std::string columns = "(id, EventName, EventAttributes)";
  Marbleway::trackEvent("rich", {{"tags", Array{"a\"b", 2.5}}});
  query(storePath(), "UPDATE mrbw_v2_events SET SessionID = 'S'");
  insert(table, columns, "5, " + filled(300000, "\u20AC\"") + ", NULL");
  insert(table, columns,
         "6, 'short', " + filled(65534, "\U0001F600") + " || " + filled(200000, ""));
  insert(table, columns, "2147483648, 'id', NULL");
  insert(table, columns, "9223372036854775807, x'FF', " + filled(262145, ""));
  batchData();
  const std::string n(300000, 'n');
  EXPECT_THAT(
      sent("Events"),
      ElementsAre(
          Pair(_, R"(1|S|rich|{"tags":["a\"b",2.5]}|)" + std::string(kStart) + "|"),
          Pair(_, "5||" + n + "\u20AC\"|||"),
          Pair(_, "6||short|" + n.substr(0, 65534) + "\U0001F600" + n.substr(0, 200000) + "||"),
          Pair(_, "-2147483648||id|||"), Pair(_, "-1||\uFFFD|" + n.substr(0, 262145) + "||")));
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
    EXPECT_THAT(sent(), SizeIs(std::size(kArrays)));
    EXPECT_THAT(sent("Events"), SizeIs(1));
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

TEST_F(UploadTest, FailedDeletionStopsNoOther) {
  for (const Table& table : kTables) insert(table, "(UTCTimeStamp)", "'2026-01-02'");
  query(storePath(),
        "CREATE TRIGGER no BEFORE DELETE ON mrbw_v2_users BEGIN SELECT RAISE(ABORT, 'no'); END");
  batchData();
  answer(200);
  EXPECT_EQ(rowCount(), 1);
}

}  // namespace
}  // namespace marbleway::testing

#include "Marbleway/store/store.h"

#include <sqlite3.h>

#include <fstream>
#include <limits>
#include <optional>
#include <thread>
#include <tuple>

#include "Marbleway/store/timestamp.h"
#include "tests/support/failing_vfs.h"
#include "tests/support/fixture.h"
#include "tools/common/database.h"

namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::sys_days;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr const char* kCompany =
    "INSERT INTO mrbw_v2_companies (UTCTimeStamp) VALUES ('2026-01-02 00:00:00.000')";

class StoreTest : public MarblewayTest {
 protected:
  static void insertCompany(const Text& name) {
    insertRow(
        "insert into mrbw_v2_companies (id, SessionID, CompanyName, UTCTimeStamp) VALUES (?, ?, ?, ?)",
        {"S", name, "2026-01-02 00:00:00.000"});
  }
};

// An empty file is in the way as well; it gets no tables.
TEST_F(StoreTest, LeavesWhatHasAStoresNameAndRecordsOnceItIsGone) {
  const auto linesOf = [this](const char* event) {
    Marbleway::initMarbleway("token");
    Marbleway::trackEvent(event);
    return lines();
  };
  time->setWallClock(std::chrono::system_clock::now());  // the purge goes by SQLite's clock
  for (const std::string content : {"", "SQLite format 3", "no database"}) {
    for (const Store store : {Store::event, Store::network}) {
      const fs::path path = storePath(store);
      SCOPED_TRACE(content + " in the place of " + path.string());
      std::ofstream(path) << content;
      EXPECT_THAT(linesOf("one"), ElementsAre("Marbleway Message: Starting Marbleway SDK",
                                              "Marbleway Message: Event Tracked"));
      EXPECT_EQ(fs::file_size(path), content.size());
      fs::remove(path);
      EXPECT_THAT(linesOf("two"), SizeIs(2));
      const std::size_t expected = store == Store::event ? 1 : 2;  // one store needs no other
      EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(expected));
      for (const Store each : {Store::event, Store::network}) fs::remove(storePath(each));
    }
  }
}

TEST_F(StoreTest, ThreadsMakeStoresWhateverAKilledStartLeft) {
  for (const char* suffix : {"-new", "-new-journal"}) {
    std::ofstream(storePath().concat(suffix)) << "half a store";
  }
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back([] { createStores(), insertCompany("stored"); });
  threads.clear();
  EXPECT_EQ(rowCount(), 8);  // of sixteen tables that are all there
  EXPECT_FALSE(fs::exists(storePath().concat("-new")));
}

TEST_F(StoreTest, ThreadsRecordWithoutSQLitesMutexes) {
  unregisterStores();
  sqlite3_shutdown();
  sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
  beginSession();
  std::array<std::jthread, 8> threads;
  for (std::jthread& thread : threads) {
    thread = std::jthread([] {
      for (int i = 0; i < 20; ++i) Marbleway::trackEvent("e");
    });
  }
  for (std::jthread& thread : threads) thread.join();
  EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(160));
  unregisterStores();
  sqlite3_shutdown();
  sqlite3_config(SQLITE_CONFIG_SERIALIZED);
}

// A host may set the mode, or the default file system, for files of its own.
TEST_F(StoreTest, RecordsWhateverModeTheStoreIsIn) {
  createStores();
  for (const char* mode : {"WAL", "TRUNCATE", "DELETE"}) {
    query(storePath(), std::string("PRAGMA journal_mode=") + mode);
    insertCompany(mode);
  }
  sqlite3_vfs* const usual = sqlite3_vfs_find(nullptr);
  sqlite3_vfs_register(sqlite3_vfs_find("memdb"), 1);
  insertCompany("another file system");
  sqlite3_vfs_register(usual, 1);
  EXPECT_THAT(rows("mrbw_v2_companies"), SizeIs(4));
}

TEST_F(StoreTest, RemovesInSlicesWhileOthersWrite) {
  createStores();
  query(storePath(),
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000) "
        "INSERT INTO mrbw_v2_companies (UTCTimeStamp) "
        "SELECT iif(i % 10000, '2026-01-02 00:00:00.000', '2026-01-03') FROM n");
  tests::FailingVfs vfs;  // calls back between the slices
  int pauses = 0;
  vfs.onSleep = [&] {
    if (pauses++ == 0) query(storePath(), kCompany);
  };
  removeUpTo(kTables[4], "2026-01-02 12:00:00.000");
  EXPECT_GT(pauses, 2);
  EXPECT_THAT(rows("mrbw_v2_companies"), SizeIs(11));  // ten of the next day and the new one
}

TEST_F(StoreTest, ARemovalEndsWithTheLargestId) {
  createStores();
  query(storePath(),
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000) "
        "INSERT INTO mrbw_v2_companies (id, UTCTimeStamp) "
        "SELECT iif(i = 1, 9223372036854775807, i), '2026-01-02' FROM n");
  const tests::FailingVfs vfs;  // its sleeps take no time
  removeUpTo(kTables[4], "2026-01-02 12:00:00.000");
  EXPECT_THAT(rows("mrbw_v2_companies"), SizeIs(0));
}

TEST_F(StoreTest, StartUpRemovesRowsOlderThanThirtyDays) {
  using namespace std::chrono;
  const std::pair<sys_time<milliseconds>, std::string> cases[] = {
      // the first day that stays
      {sys_days(2026y / 3 / 31), "2026-03-01"},
      {sys_days(2026y / 3 / 31) + 24h - 1ms, "2026-03-01"},
      {sys_days(2028y / 3 / 30) + 12h, "2028-02-29"},  // a leap year
  };
  tests::FailingVfs vfs;
  Marbleway::initMarbleway("token");
  for (const auto& [now, firstDay] : cases) {
    SCOPED_TRACE(firstDay);
    vfs.now = now;
    for (const Table& table : kTables) {
      const std::string name(table.name);
      query(storePath(table.store), "DELETE FROM " + name);
      // A date alone is no time stamp; it compares as if before its day's first instant.
      query(storePath(table.store), "INSERT INTO " + name + " (id, UTCTimeStamp) VALUES (1, '" +
                                        firstDay + " 00:00:00.000'), (2, '" + firstDay +
                                        "'), (3, '2001-01-01 00:00:00.000'), (4, NULL)");
    }
    Marbleway::initMarbleway("token");
    for (const Table& table : kTables) {
      const std::string ids = "SELECT id FROM " + std::string(table.name) + " WHERE id < 5";
      EXPECT_THAT(query(storePath(table.store), ids), ElementsAre("1", "4")) << table.name;
    }
  }
}

TEST_F(StoreTest, OneCallWaitsForAStoreTwoSecondsAtMost) {
  constexpr int kEver = std::numeric_limits<int>::max();
  // How the other connection begins, and after how many sleeps of the library it closes.
  const std::tuple<const char*, int, bool> cases[] = {
      {"BEGIN EXCLUSIVE", 20, false},
      {"BEGIN IMMEDIATE", 20, false},
      {"BEGIN EXCLUSIVE", kEver, false},
      {"BEGIN EXCLUSIVE", kEver, true},  // many statements
  };
  beginSession();
  time->setWallClock(std::chrono::system_clock::now());  // the purge goes by SQLite's clock
  for (const auto& [begin, sleeps, isStartUp] : cases) {
    SCOPED_TRACE(begin + std::to_string(sleeps));
    tests::FailingVfs vfs;
    std::optional<tools::Database> other(std::in_place, storePath().string(),
                                         SQLITE_OPEN_READWRITE);
    other->execute(begin);
    vfs.onSleep = [&, left = sleeps]() mutable {
      if (left-- == 0) other.reset();
    };
    isStartUp ? Marbleway::initMarbleway("token") : Marbleway::trackEvent("e");
    EXPECT_EQ(other.has_value(), sleeps == kEver);
    EXPECT_LE(vfs.slept, 2s);
    EXPECT_GE(vfs.slept, other ? 1000ms : 20ms);  // work between the sleeps takes time, too
  }
  EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(2));
  EXPECT_THAT(lines(), Contains("Marbleway Message: Event Tracked").Times(3));
}

TEST_F(StoreTest, TimeStampsAreUTCWithTruncatedMilliseconds) {
  const auto midnight = sys_days(std::chrono::year(2026) / 1 / 2);
  const std::pair<std::chrono::system_clock::time_point, const char*> cases[] = {
      {midnight + 5ms, "2026-01-02 00:00:00.005"},
      {midnight + 23h + 59min + 59s + 999999us, "2026-01-02 23:59:59.999"},
      {midnight - 1us, "2026-01-01 23:59:59.999"},
      {sys_days(std::chrono::year(2028) / 2 / 29) + 7h, "2028-02-29 07:00:00.000"},
  };
  for (const auto& [instant, text] : cases) {
    time->setWallClock(instant);
    EXPECT_EQ(getUTCTimeStamp(), text);
    EXPECT_EQ(timeOf(text), std::chrono::floor<std::chrono::milliseconds>(instant));
  }
  for (const char* text :
       {"", "2026-01-02 00:00:00", "2026-01-02T00:00:00.000", "2026-01-02 00:00:00.0000",
        "2026-02-30 00:00:00.000", "2026-01-02 24:00:00.000", "2026-01-02 00:60:00.000",
        "2026-01-02 00:00:60.000", "2026-01- 2 00:00:00.000"}) {
    EXPECT_EQ(timeOf(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace marbleway::testing

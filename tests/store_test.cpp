#include "Marbleway/store/store.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <array>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include "Marbleway/platform/linux/services.h"
#include "Marbleway/store/timestamp.h"
#include "tests/support/failing_vfs.h"
#include "tests/support/fixture.h"

namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
constexpr const char* kNewRow =
    "INSERT INTO mrbw_v2_companies (UTCTimeStamp) VALUES ('2026-01-02 00:00:00.000')";
using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

class StoreTest : public MarblewayTest {
 protected:
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& file : fs::directory_iterator(directory.path())) {
      names.push_back(file.path().filename());
    }
    return names;
  }
  static void insertCompany(const Text& name) {
    insertRow(
        "insert into mrbw_v2_companies (id, SessionID, CompanyName, UTCTimeStamp) VALUES (?, ?, ?, ?)",
        {"S", name, "2026-01-02 00:00:00.000"});
  }
};

TEST_F(StoreTest, TheFirstStartUpMakesSixteenTables) {
  createStores();
  // clang-format off
  const std::pair<std::string, std::string> tables[] = {
      {"mrbw_v2_sessions", "SessionID,AdvertisingID,ProjectToken,BundleID,PlatformDeviceID,Manufacturer,Model,OS,OSVersion,AppVersion,Carrier,ConnectionType,TimeZone,PrivacyMode,SDKVersion"},
      {"mrbw_v2_users", "SessionID,UserID,TypeID"},
      {"mrbw_v2_user_attributes", "SessionID,AttributeKey,AttributeValue,AttributeType"},
      {"mrbw_v2_companies", "SessionID,CompanyName"},
      {"mrbw_v2_company_attributes", "SessionID,AttributeKey,AttributeValue,AttributeType"},
      {"mrbw_v2_events", "SessionID,EventName,EventAttributes"},
      {"mrbw_v2_screen_views", "SessionID,ScreenName,ScreenAttributes"},
      {"mrbw_v2_crashes", "SessionID,CrashDetails,StackTrace"},
      {"mrbw_v2_errors", "SessionID,ErrorName,ErrorMessage,ErrorDetails"},
      {"mrbw_v2_cpu_usage", "SessionID,CPUUsed,CPUUnused"},
      {"mrbw_v2_memory_usage", "SessionID,MEMUsed,MEMUnused"},
      {"mrbw_v2_battery_usage", "SessionID,BatteryUsed,BatteryUnused"},
      {"mrbw_v2_ads", "SessionID,AdType,AdDetails,InteractionType,ConversionDetails"},
      {"mrbw_v2_messages", "MessageID,UserID,PlatformDeviceID,OperatingSystem"},  // the one without a session
      {"mrbw_v2_deep_links", "SessionID,DeepLinkID,OperatingSystem"},
      {"mrbw_v2_network_requests", "SessionID,RequestTimeStamp,ResponseTimeStamp,RequestURL,RequestCachePolicy,RequestHTTPMethod,RequestHTTPHeaderFields,RequestHTTPBody,ResponseMIMEType,ResponseExpectedContentLength,ResponseTextEncodingName,ResponseSuggestedFilename,ResponseStatusCode,ResponseAllHeaderFields,ResponseBody"},
  };
  // clang-format on
  const std::string made = "SELECT name FROM sqlite_master WHERE name LIKE 'mrbw%' ORDER BY rowid";
  auto names = query(storePath(Store::event), made);
  ASSERT_THAT(names, SizeIs(15));
  names.push_back(query(storePath(Store::network), made).at(0));
  for (std::size_t i = 0; i < names.size(); ++i) {
    const auto& [name, columns] = tables[i];
    EXPECT_EQ(names[i], name);
    const fs::path path = storePath(i < 15 ? Store::event : Store::network);
    const std::string info = " FROM pragma_table_info('" + name + "')";
    EXPECT_THAT(query(path, "SELECT group_concat(name)" + info),
                ElementsAre("id," + columns + ",UTCTimeStamp"));
    EXPECT_THAT(query(path, "SELECT type, pk" + info + " WHERE name <> 'id'"), Each("TEXT|0"));
  }
}

TEST_F(StoreTest, DirectoriesAndFilesBelongToTheirOwnerAloneWhateverTheUmask) {
  for (const mode_t mask : {0U, 022U, 0277U, 0777U}) {
    SCOPED_TRACE(mask);
    const fs::path top = directory.path() / std::to_string(mask), documents = top / "deep";
    configure({.documentsDirectory = documents});
    platform::install({.userDefaults = platform::makeFileDefaults()});
    const mode_t former = umask(mask);
    beginSession();  // leaves a journal
    umask(former);
    std::map<std::string, int> modes;
    for (const auto& entry : fs::recursive_directory_iterator(top)) {
      modes[entry.path().filename()] = static_cast<int>(entry.status().permissions());
    }
    const std::string journal = std::string(DBFileName) + "-journal";
    EXPECT_EQ(static_cast<int>(fs::status(top).permissions()), 0700);
    EXPECT_THAT(modes, UnorderedElementsAre(Pair("deep", 0700), Pair(DBFileName, 0600),
                                            Pair(HTTPDBFileName, 0600), Pair(journal, 0600),
                                            Pair("user-defaults.json", 0600)));
  }
}

// An empty file is in the way as well; it gets no tables.
TEST_F(StoreTest, LeavesWhatHasAStoresNameAndRecordsOnceItIsGone) {
  time->setWallClock(std::chrono::system_clock::now());  // the purge goes by SQLite's clock
  for (const std::string content : {"", "SQLite format 3", "no database"}) {
    for (const Store store : {Store::event, Store::network}) {
      const fs::path path = storePath(store);
      SCOPED_TRACE(content + " in the place of " + path.string());
      std::ofstream(path) << content;
      Marbleway::initMarbleway("token");
      Marbleway::trackEvent("one");
      EXPECT_THAT(lines(), ElementsAre("Marbleway Message: Starting Marbleway SDK",
                                       "Marbleway Message: Event Tracked"));
      std::ifstream file(path);
      EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), content);

      fs::remove(path);
      Marbleway::initMarbleway("token");
      Marbleway::trackEvent("two");
      const std::size_t expected = store == Store::event ? 1 : 2;  // one store needs no other
      EXPECT_THAT(rows("mrbw_v2_events"), SizeIs(expected));
      for (const std::string& name : files()) fs::remove(directory.path() / name);
      lines();
    }
  }
}

TEST_F(StoreTest, WithoutADirectoryStartUpGoesOn) {
  std::ofstream(directory.path() / "file") << "in the way";
  platform::setDocumentsDirectory(directory.path() / "file" / "documents");
  Marbleway::initMarbleway("token");
  EXPECT_THAT(lines(), ElementsAre("Marbleway Message: Starting Marbleway SDK"));
  EXPECT_EQ(http->waiting(), 1U);
}

TEST_F(StoreTest, StartUpAloneMakesStoresWhateverAKilledOneLeft) {
  insertCompany("lost");
  runStatement(Store::event, "DELETE FROM mrbw_v2_companies");
  EXPECT_THAT(files(), IsEmpty());
  for (const char* suffix : {"-new", "-new-journal"}) {
    std::ofstream(storePath().concat(suffix)) << "half a store";
  }
  std::array<std::thread, 8> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([] {
      createStores();
      insertCompany("stored");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(rowCount(), 8);  // of sixteen tables that are all there
  EXPECT_THAT(files(), UnorderedElementsAre(DBFileName, HTTPDBFileName,
                                            std::string(DBFileName) + "-journal"));
}

// A host may set the mode, or the default file system, for files of its own.
TEST_F(StoreTest, RecordsWhateverModeTheStoreIsIn) {
  createStores();
  for (const char* mode : {"WAL", "TRUNCATE", "DELETE"}) {
    query(storePath(), std::string("PRAGMA journal_mode=") + mode);
    insertCompany(mode);
  }
  sqlite3_vfs* const usual = sqlite3_vfs_find(nullptr);
  sqlite3_vfs none = *usual;
  none.zName = "none";
  none.xOpen = [](sqlite3_vfs*, const char*, sqlite3_file* file, int, int*) {
    file->pMethods = nullptr;
    return SQLITE_CANTOPEN;
  };
  sqlite3_vfs_register(&none, 1);
  insertCompany("other file system");
  sqlite3_vfs_unregister(&none);
  sqlite3_vfs_register(usual, 1);
  EXPECT_THAT(rows("mrbw_v2_companies"), SizeIs(4));
}

TEST_F(StoreTest, APipeInTheJournalsPlaceBlocksNothing) {
  createStores();
  const fs::path journal = storePath().concat("-journal");
  ASSERT_EQ(mkfifo(journal.c_str(), S_IRUSR | S_IWUSR), 0);
  insertCompany("lost");
  fs::remove(journal);
  insertCompany("stored");
  EXPECT_THAT(rows("mrbw_v2_companies"), SizeIs(1));
}

TEST_F(StoreTest, RemovesInSlicesWhileOthersWrite) {
  createStores();
  query(storePath(),
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000) "
        "INSERT INTO mrbw_v2_companies (UTCTimeStamp) "
        "SELECT iif(i % 10000, '2026-01-02 00:00:00.000', '2026-01-03') FROM n");
  tests::FailingVfs vfs;  // calls back between the slices
  int pauses = 0;
  vfs.onNap([&] {
    if (pauses++ == 0) query(storePath(), kNewRow);
  });
  removeUpTo(kTables[4], "2026-01-02 12:00:00.000");
  EXPECT_GT(pauses, 2);
  EXPECT_THAT(rows("mrbw_v2_companies"), SizeIs(11));  // ten of the next day and the new one
}

TEST_F(StoreTest, StartUpAloneRemovesRowsOlderThanThirtyDays) {
  using namespace std::chrono;
  const struct {
    sys_time<milliseconds> now;
    std::string firstDay, dayBefore;  // the first that stays, the last that goes
  } cases[] = {
      {sys_days(2026y / 3 / 31), "2026-03-01", "2026-02-28"},
      {sys_days(2026y / 3 / 31) + 24h - 1ms, "2026-03-01", "2026-02-28"},
      {sys_days(2028y / 3 / 30) + 12h, "2028-02-29", "2028-02-28"},  // a leap year
  };
  tests::FailingVfs vfs;
  setenv("TZ", "Pacific/Kiritimati", 1);  // 14 hours ahead; no day but UTC's counts
  tzset();
  Marbleway::initMarbleway("token");
  for (const auto& [now, firstDay, dayBefore] : cases) {
    SCOPED_TRACE(firstDay);
    // A date alone is no time stamp; it compares as if before its day's first instant.
    const std::string values =
        std::string(" (id, UTCTimeStamp) VALUES (4, '2001-01-01 00:00:00.000'), (5, NULL), (1, '")
            .append(firstDay)
            .append(" 00:00:00.000'), (2, '")
            .append(firstDay)
            .append("'), (3, '")
            .append(dayBefore)
            .append(" 23:59:59.999'), (6, '9999')");
    vfs.setClock(now);
    for (const Table& table : kTables) {
      const std::string name(table.name);
      query(storePath(table.store), "DELETE FROM " + name);
      query(storePath(table.store), std::string("INSERT INTO ").append(name).append(values));
    }
    Marbleway::startSession();
    Marbleway::stopSession();
    EXPECT_THAT(rows("mrbw_v2_companies"), SizeIs(6));
    Marbleway::initMarbleway("token");
    for (const Table& table : kTables) {
      const std::string ids = "SELECT id FROM " + std::string(table.name) + " WHERE id <= 6";
      EXPECT_THAT(query(storePath(table.store), ids), ElementsAre("1", "5", "6")) << table.name;
    }
  }
  unsetenv("TZ");
  tzset();
}

TEST_F(StoreTest, RunsStatementsOfEveryKindEachOnItsOwnStore) {
  createStores();
  for (const Text& text : {Text(nullptr), Text(""), Text("a\xFF'")}) insertCompany(text);
  runStatement(Store::event, "SELECT * FROM mrbw_v2_companies");  // read and dropped
  runStatement(Store::event, "no statement at all");
  runStatement(Store::network, "DELETE FROM mrbw_v2_companies");
  runStatement(Store::network, "INSERT INTO mrbw_v2_network_requests (RequestURL) VALUES ('u')");
  EXPECT_THAT(query(storePath(), "SELECT id, CompanyName FROM mrbw_v2_companies"),
              ElementsAre("1|NULL", "2|", "3|a\xEF\xBF\xBD'"));
  EXPECT_THAT(rows("mrbw_v2_network_requests"), SizeIs(1));
  runStatement(Store::event, "DELETE FROM mrbw_v2_companies WHERE id < 3");
  EXPECT_THAT(rows("mrbw_v2_companies"), SizeIs(1));
}

// A second connection that holds the event store until the library has napped so many times.
class Holder {
 public:
  Holder(const fs::path& path, const char* begin, int naps) : naps_(naps) {
    EXPECT_EQ(sqlite3_open(path.c_str(), &database_), SQLITE_OK);
    run(begin);
    vfs_.onNap([this] {
      if (naps_-- == 0) run("ROLLBACK");
    });
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;
  ~Holder() { sqlite3_close(database_); }

  bool hasLetGo() const { return naps_ < 0; }
  std::chrono::microseconds napped() const { return vfs_.napped(); }

 private:
  void run(const char* sql) {
    EXPECT_EQ(sqlite3_exec(database_, sql, nullptr, nullptr, nullptr), SQLITE_OK);
  }

  tests::FailingVfs vfs_;
  sqlite3* database_ = nullptr;
  int naps_;
};

TEST_F(StoreTest, WaitsForAStoreThatAnotherConnectionHolds) {
  static constexpr const char* kRead = "SELECT id FROM mrbw_v2_companies";
  const struct {
    const char* name;
    std::function<void()> use;
    std::size_t rowsLeft;
    bool waitsForAWriter;
  } uses[] = {
      {"insert", [] { insertCompany("after the wait"); }, 2, true},
      {"delete", [] { removeUpTo(kTables[4], "2001-01-01 00:00:00.000"); }, 0, true},
      {"read", [] { EXPECT_TRUE(Statement(pathOf(Store::event), kRead).step()); }, 1, false},
  };
  createStores();
  for (const auto& [name, use, rowsLeft, waitsForAWriter] : uses) {
    for (const bool isExclusive : {true, false}) {
      SCOPED_TRACE(std::string(name) + (isExclusive ? ", held" : ", about to be written"));
      query(storePath(), "DELETE FROM mrbw_v2_companies");
      query(storePath(), "INSERT INTO mrbw_v2_companies (UTCTimeStamp) VALUES ('2001-01-01')");
      const Holder holder(storePath(), isExclusive ? "BEGIN EXCLUSIVE" : "BEGIN IMMEDIATE", 20);
      use();
      EXPECT_EQ(holder.hasLetGo(), isExclusive || waitsForAWriter);
      EXPECT_THAT(query(storePath(), kRead), SizeIs(rowsLeft));
    }
  }
}

TEST_F(StoreTest, OneCallWaitsTwoSecondsAtMost) {
  const std::pair<const char*, std::function<void()>> calls[] = {
      {"an operation", [] { Marbleway::trackEvent("lost"); }},
      {"start-up, many statements", [] { Marbleway::initMarbleway("token"); }},
  };
  beginSession();
  for (const auto& [name, call] : calls) {
    SCOPED_TRACE(name);
    const Holder holder(storePath(), "BEGIN EXCLUSIVE", std::numeric_limits<int>::max());
    call();
    EXPECT_LE(holder.napped(), 2s);
    EXPECT_GE(holder.napped(), 1s);  // what comes between the naps takes time as well
  }
  EXPECT_THAT(lines(), Contains("Marbleway Message: Event Tracked"));
  EXPECT_THAT(rows("mrbw_v2_events"), IsEmpty());
}

TEST_F(StoreTest, TimeStampsAreUTCWithTruncatedMilliseconds) {
  using std::chrono::sys_days;
  const auto midnight = sys_days(std::chrono::year(2026) / 1 / 2);
  const std::pair<std::chrono::system_clock::time_point, const char*> cases[] = {
      {midnight + 5ms, "2026-01-02 00:00:00.005"},
      {midnight + 23h + 59min + 59s + 999999us, "2026-01-02 23:59:59.999"},
      {midnight - 1us, "2026-01-01 23:59:59.999"},
      {sys_days(std::chrono::year(2028) / 2 / 29) + 7h, "2028-02-29 07:00:00.000"},
  };
  setenv("TZ", "Pacific/Kiritimati", 1);
  tzset();
  for (const auto& [instant, text] : cases) {
    time->setWallClock(instant);
    EXPECT_EQ(getUTCTimeStamp(), text);
    EXPECT_EQ(timeOf(text), std::chrono::floor<std::chrono::milliseconds>(instant));
  }
  unsetenv("TZ");
  tzset();
  for (const char* text :
       {"", "2026-01-02 00:00:00", "2026-01-02T00:00:00.000", "2026-01-02 00:00:00.0000",
        "2026-02-30 00:00:00.000", "2026-01-02 24:00:00.000", "2026-01-02 00:60:00.000",
        "2026-01-02 00:00:60.000", "2026-01- 2 00:00:00.000"}) {
    EXPECT_EQ(timeOf(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace marbleway::testing

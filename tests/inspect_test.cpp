#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <thread>
#include <utility>

#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"

// The program, started on stores that the library has written.
namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ::testing::HasSubstr;

std::string contentOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

/// The program with its output at the other end of a pipe.
class Running {
 public:
  Running(const std::string& arguments, const fs::path& scratch)
      : errors_(scratch / "errors"),
        pipe_(popen(("TMPDIR=" + scratch.string() + " " INSPECT_PROGRAM " " + arguments + " 2>" +
                     errors_.string())
                        .c_str(),
                    "r")) {}
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() {
    if (pipe_ != nullptr) pclose(pipe_);
  }

  std::string take(std::size_t most) {
    std::string taken(most, '\0');
    taken.resize(std::fread(taken.data(), 1, most, pipe_));
    return taken;
  }
  std::string takeAll() {
    std::string all;
    for (std::string some = take(65536); !some.empty(); some = take(65536)) all += some;
    return all;
  }
  int status() { return WEXITSTATUS(pclose(std::exchange(pipe_, nullptr))); }
  std::string errors() const { return contentOf(errors_); }

 private:
  fs::path errors_;
  FILE* pipe_;
};

struct Outcome {
  int status;
  std::string output, errors;
};

/// Every file of a directory with the hash of its bytes and times, and the directory's own times.
std::map<std::string, std::string> stateOf(const fs::path& directory) {
  std::map<std::string, std::string> state;
  const auto note = [&](const fs::path& path) {
    struct stat facts {};
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    state[path.string()] =
        std::to_string(facts.st_mtim.tv_sec) + "." + std::to_string(facts.st_mtim.tv_nsec) + " " +
        std::to_string(facts.st_ctim.tv_sec) + "." + std::to_string(facts.st_ctim.tv_nsec) + " " +
        (fs::is_directory(path) ? "" : std::to_string(std::hash<std::string>()(contentOf(path))));
  };
  note(directory);
  for (const auto& entry : fs::directory_iterator(directory)) note(entry.path());
  return state;
}

class InspectTest : public MarblewayTest {
 protected:
  /// Runs the program on `where`, the library's directory by default.
  Outcome inspect(const std::string& arguments, const fs::path& where = {}) {
    Running program((where.empty() ? directory.path() : where).string() + " " + arguments,
                    scratch.path());
    Outcome outcome{0, program.takeAll(), ""};
    outcome.status = program.status();
    outcome.errors = program.errors();
    return outcome;
  }

  /// Two users, one after the other, and something in every kind of column.
  void recordTwoUsers() {
    beginSession();
    Marbleway::linkUser("ann", "id");
    Marbleway::setUserAttribute("Plan", "gold");
    Marbleway::linkCompany("Acme");
    Marbleway::trackEvent("Buy", {{"Value", 5}});
    Marbleway::trackPushNotification(
        {{"aps",
          Dictionary{{"mrbw_data", true}, {"mrbw_messageID", "m"}, {"mrbw_userID", "ann"}}}});
    Marbleway::unlinkUser();
    Marbleway::startSession();
    Marbleway::linkUser("o'bob", "id");
    Marbleway::trackEvent("Sell");
    query(storePath(Store::network),
          "INSERT INTO mrbw_v2_network_requests (SessionID, RequestURL, UTCTimeStamp) VALUES "
          "('"s +
              kFirstSession +
              "', 'https://a', '2026-01-01 00:00:00.000'), "
              "('other', 'https://b', '2026-01-03 00:00:00.000')");
  }

  /// What the library would send of it.
  std::string sentDocument() {
    batchData();
    return http->requests().back().body;
  }

  TemporaryDirectory scratch;
};

// clang-format off
TEST_F(InspectTest, EachCommandShowsItsPartAndChangesNothing) {
  recordTwoUsers();
  const std::string first = kFirstSession, second = "00000000-0000-0000-0000-000000000003", start = kStart;
  const struct {
    std::string arguments, output;  // a part of it; all, where it begins with the columns' names
  } cases[] = {
      {"stats", "\nmrbw_v2_users                      4    274  2026-01-02 00:00:00.000  2026-01-02 00:00:00.000\n"},
      {"stats", "mrbw-http-prod-220.sqlite          2  12288  2026-01-01 00:00:00.000  2026-01-03 00:00:00.000\n"},
      {"stats --format csv", "mrbw_v2_events,2," + std::to_string(2 * (36 + 23) + 3 + 4 + 11) + "," + start + "," + start + "\nmrbw_v2_screen_views,0,0,,"},
      {"stats --format csv --user ann", "mrbw_v2_network_requests,1,68,2026-01-01 00:00:00.000,2026-01-01 00:00:00.000\nmrbw_v2_sessions,1,"},
      {"stats --format ndjson", R"({"Table":"mrbw_v2_ads","Rows":0,"Bytes":0,"Oldest":null,"Newest":null})"},
      {"rows users", "id  SessionID                             UserID       TypeID  UTCTimeStamp\n 1  " + first + "  "},
      {"rows users", "\n(4 rows)\n"},
      {"rows mrbw_v2_events --format=ndjson", R"({"Table":"mrbw_v2_events","id":1,"SessionID":")" + first + R"(","EventName":"Buy","EventAttributes":"{\"Value\":5}","UTCTimeStamp":")" + start + "\"}\n" +
                                              R"({"Table":"mrbw_v2_events","id":2,"SessionID":")" + second + R"(","EventName":"Sell","EventAttributes":null,"UTCTimeStamp":")" + start + "\"}\n"},
      {"rows Events --format csv --user ann", "id,SessionID,EventName,EventAttributes,UTCTimeStamp\n1," + first + R"(,Buy,"{""Value"":5}",)" + start + "\n"},
      {"rows events --format csv --user o\\'bob", "id,SessionID,EventName,EventAttributes,UTCTimeStamp\n2," + second + ",Sell,," + start + "\n"},
      {"rows network_requests --format ndjson --user ann", R"("RequestURL":"https://a")"},
      {"rows messages --user ann --format csv", "id,MessageID,UserID,PlatformDeviceID,OperatingSystem,UTCTimeStamp\n1,m,ann,AAAAAAAA-0000-0000-0000-000000000001,iOS," + start + "\n"},
      {"rows messages --user=o\\'bob --format csv", "id,MessageID,UserID,PlatformDeviceID,OperatingSystem,UTCTimeStamp\n"},
      {"rows --format ndjson --user ann", R"({"Table":"mrbw_v2_messages","id":1,"MessageID":"m")"},
      {"privacy", "identifier  mrbw_v2_users             UserID            -        4       3\n"},
      {"privacy --format csv", "\nattribute,mrbw_v2_user_attributes,AttributeValue,Plan,1,1\nlink,"},
      {"privacy --format csv --user o\\'bob", "\nidentifier,mrbw_v2_users,UserID,,2,2\nidentifier,mrbw_v2_sessions,PlatformDeviceID,,1,1\nlink,"},
      {"batch --user ann", R"({"BatchData":{"NetworkRequests":[{"id":"1",)"},
      {"batch --user ann", R"("Events":[{"id":"1","SessionID":")" + first + R"(","EventName":"Buy","EventAttributes":"{\"Value\":5}","UTCTimeStamp":")" + start + R"("}],"ScreenViews":[])"},
  };
  const auto before = stateOf(directory.path());
  for (const auto& [arguments, output] : cases) {
    const auto [status, shown, errors] = inspect(arguments);
    if (output.starts_with("id,")) {
      EXPECT_EQ(shown, output) << arguments;
    } else {
      EXPECT_THAT(shown, HasSubstr(output)) << arguments;
    }
    EXPECT_EQ(status, 0) << errors;
    EXPECT_EQ(errors, "") << arguments;
  }
  EXPECT_THAT(inspect("rows --user nobody").errors, HasSubstr("no session names this user"));
  EXPECT_EQ(stateOf(directory.path()), before);
}
// clang-format on

TEST_F(InspectTest, TheBatchIsWhatTheLibrarySends) {
  EXPECT_EQ(inspect("batch").status, 1);
  recordTwoUsers();
  Marbleway::trackEvent("\x01\"\\\n\xF0\x9F\x98\x80\xFF");
  const std::string shown = inspect("batch").output;
  EXPECT_EQ(shown, sentDocument());
  takeRows();
  const auto [status, output, errors] = inspect("batch");
  EXPECT_EQ(std::to_string(status) + output, "0") << errors;
  EXPECT_THAT(errors, HasSubstr("nothing would be sent"));
}

TEST_F(InspectTest, ValuesKeepTheirBytesInCSVAndControlNoTerminal) {
  beginSession();
  const std::string turned = std::string("\xE2\x80").append("\xAE");  // right to left from here on
  const struct {
    std::string name, csv, table;
  } cases[] = {
      {"", "\"\"", ""},
      {" a", "\" a\"", " a"},
      {"a,b", "\"a,b\"", "a,b"},
      {R"(a"b)", R"("a""b")", R"(a"b)"},
      {"a\r\nb", "\"a\r\nb\"", "a\\u000d\\nb"},
      {"\x1B[31mred\x07", "\x1B[31mred\x07", "\\u001b[31mred\\u0007"},
      {"\x7F\xC2\x9B", "\x7F\xC2\x9B", "\\u007f\\u009b"},
      {turned, turned, "\\u202e"},
      {"\xC3\xA4\xF0\x9F\x98\x80", "\xC3\xA4\xF0\x9F\x98\x80", "\xC3\xA4\xF0\x9F\x98\x80"},
      {std::string(49, 'x'), std::string(49, 'x'), std::string(45, 'x') + "..."},
  };
  std::string csv = "id,SessionID,ScreenName,ScreenAttributes,UTCTimeStamp\n";
  int id = 0;
  for (const auto& each : cases) {
    Marbleway::trackScreenView(each.name);
    if (rows("mrbw_v2_screen_views").size() == static_cast<std::size_t>(id)) continue;
    csv += std::to_string(++id) + "," + kFirstSession + "," + each.csv + ",," + kStart + "\n";
  }
  EXPECT_GT(id, 8);
  EXPECT_EQ(inspect("rows screen_views --format csv").output, csv);
  const std::string table = inspect("rows screen_views").output;
  for (const auto& each : cases) EXPECT_THAT(table, HasSubstr(each.table + "  "));
  EXPECT_TRUE(std::ranges::all_of(table, [](unsigned char c) {
    return (c >= ' ' && c != 0x7F) || c == '\n';
  })) << table;
}

TEST_F(InspectTest, PagesLeaveNoRowOut) {
  beginSession();
  query(
      storePath(),
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1499) INSERT INTO "
      "mrbw_v2_events SELECT i * 3 - 2000, 'S', CASE WHEN i % 500 = 7 THEN hex(zeroblob(2500000)) "
      "ELSE 'e' || i END, NULL, '' FROM n");
  query(storePath(), "INSERT INTO mrbw_v2_events (id) VALUES (9223372036854775807)");
  const std::string lines = inspect("rows events --format ndjson").output;
  EXPECT_EQ(std::ranges::count(lines, '\n'), 1500);
  EXPECT_THAT(lines, HasSubstr("\"id\":9223372036854775807,"));
  EXPECT_EQ(lines.size() / 1'000'000, 15U);
}

TEST_F(InspectTest, AWriterIsReadBesideAndNeverWaitsForTheOutput) {
  beginSession();
  std::atomic<bool> isOver{false};
  std::atomic<int> recorded{0};
  std::thread writer([&] {
    while (!isOver) {
      Marbleway::trackEvent("e", {{"text", std::string(1000, 'x')}});
      ++recorded;
    }
  });
  while (recorded < 100) std::this_thread::yield();
  for (const char* arguments : {"stats", "rows", "batch", "privacy"}) {
    const auto [status, output, errors] = inspect(arguments);
    EXPECT_EQ(status, 0) << arguments << ": " << errors;
  }
  Running stuck(directory.path().string() + " rows events --format ndjson", scratch.path());
  EXPECT_EQ(stuck.take(1), "{");  // the pipe is full, the program waits
  const int before = recorded;
  while (recorded < before + 20) std::this_thread::yield();
  isOver = true;
  writer.join();
  EXPECT_EQ(stuck.takeAll().back(), '\n');
  EXPECT_EQ(stuck.status(), 0);
  EXPECT_EQ(rows("mrbw_v2_events").size(), static_cast<std::size_t>(recorded));
}

/// Leaves a store as a process does that is killed amid a commit: pages changed, journal hot.
void leaveHalfWritten(const fs::path& store, const fs::path& scratch) {
  sqlite3* opened = nullptr;
  sqlite3_open(store.c_str(), &opened);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> writer(opened, &sqlite3_close);
  const char* const sql =
      "PRAGMA cache_size=1; BEGIN IMMEDIATE; UPDATE mrbw_v2_events SET EventName = 'half'; "
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 500) INSERT INTO "
      "mrbw_v2_events SELECT NULL, hex(zeroblob(500)), 'half', NULL, '' FROM n";
  ASSERT_EQ(sqlite3_exec(opened, sql, nullptr, nullptr, nullptr), SQLITE_OK);
  const fs::path journal = fs::path(store).concat("-journal");
  fs::copy_file(store, scratch / "store");
  fs::copy_file(journal, scratch / "journal");
  sqlite3_exec(opened, "ROLLBACK", nullptr, nullptr, nullptr);
  fs::rename(scratch / "store", store);
  fs::rename(scratch / "journal", journal);
}

TEST_F(InspectTest, AHalfWrittenStoreIsReadAsTheNextStartWillFindIt) {
  recordTwoUsers();
  const std::string document = inspect("batch").output;
  leaveHalfWritten(storePath(), scratch.path());
  ASSERT_THAT(contentOf(storePath()), HasSubstr("half"));
  const auto before = stateOf(directory.path());
  EXPECT_EQ(inspect("batch").output, document);
  EXPECT_THAT(inspect("stats").output, HasSubstr("mrbw_v2_events                     2"));
  EXPECT_THAT(inspect("rows network_requests").output, HasSubstr("https://a"));
  EXPECT_EQ(stateOf(directory.path()), before);
  for (const auto& left : fs::directory_iterator(scratch.path())) {
    EXPECT_EQ(left.path().filename(), "errors");  // no copy
  }
  EXPECT_EQ(sentDocument(), document);
}

TEST_F(InspectTest, WhatCannotBeReadIsToldAndChangesNothing) {
  const fs::path store = storePath(), other = storePath(Store::network);
  const auto exec = [&](const char* sql) { query(store, sql); };
  const struct {
    const char* what;
    std::function<void()> breakIt;
    const char *arguments, *told;
  } cases[] = {
      {"no database", [&] { std::ofstream(store) << std::string(5000, 'x'); }, "stats",
       "file is not a database"},
      {"an empty store", [&] { fs::resize_file(store, 0); }, "stats", "no such table"},
      {"a cut store", [&] { fs::resize_file(store, 20480); }, "batch", "malformed"},
      {"a folder", [&] { fs::remove(store), fs::create_directory(store); }, "stats",
       "disk I/O error"},
      {"write-ahead mode", [&] { exec("PRAGMA journal_mode=WAL"); }, "rows", "unable to open"},
      {"a missing table", [&] { exec("DROP TABLE mrbw_v2_ads"); }, "batch", "no such table"},
      {"broken settings", [&] { std::ofstream(directory.path() / "user-defaults.json") << "{"; },
       "privacy", "not a JSON object"},
      {"no stores", [&] { fs::remove(store), fs::remove(other); }, "stats", "no stores here"},
      {"no directory", [&] { fs::remove_all(directory.path()); }, "stats", "no stores here"},
  };
  for (const auto& [what, breakIt, arguments, told] : cases) {
    SCOPED_TRACE(what);
    fs::remove_all(directory.path());
    recordTwoUsers();
    breakIt();
    const bool isThere = fs::exists(directory.path());
    const auto before = isThere ? stateOf(directory.path()) : std::map<std::string, std::string>();
    const auto [status, output, errors] = inspect(arguments);
    EXPECT_EQ(status, 1) << output;
    EXPECT_THAT(errors, HasSubstr(told));
    ASSERT_EQ(fs::exists(directory.path()), isThere);
    if (isThere) {
      EXPECT_EQ(stateOf(directory.path()), before);
    }
  }
}

TEST_F(InspectTest, OneStoreAloneIsRead) {
  recordTwoUsers();
  fs::remove(storePath(Store::network));
  const auto [status, output, errors] = inspect("batch");
  EXPECT_EQ(status, 0);
  EXPECT_THAT(output, HasSubstr(R"({"BatchData":{"NetworkRequests":[],"Sessions":[{"id":"1")"));
  EXPECT_THAT(errors, HasSubstr("mrbw-http-prod-220.sqlite is missing"));
}

TEST_F(InspectTest, AStoreThatStaysBusyIsGivenUp) {
  beginSession();
  sqlite3* opened = nullptr;
  sqlite3_open(storePath().c_str(), &opened);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> holder(opened, &sqlite3_close);
  sqlite3_exec(opened, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
  const auto [status, output, errors] = inspect("stats");
  EXPECT_EQ(status, 1);
  EXPECT_THAT(errors, HasSubstr("database is locked"));
}

TEST_F(InspectTest, ArgumentsAreReadOrRefused) {
  beginSession();
  const struct {
    const char* arguments;
    int status;
    const char* told;  // on either output
  } cases[] = {
      {"--help", 0, "usage: marbleway-inspect DIRECTORY COMMAND"},
      {"--version", 0, "marbleway-inspect 2.2.0\n"},
      {"", 2, "no command is given"},
      {"peek", 2, "unknown command \"peek\""},
      {"\"$(printf '\\033[1m')\"", 2, R"(unknown command "\u001b[1m")"},
      {"rows events users", 2, "one word too many: \"users\""},
      {"stats events", 2, "one word too many: \"events\""},
      {"rows event", 2, "unknown table \"event\""},
      {"stats --format xml", 2, "unknown format \"xml\""},
      {"stats --user", 2, "--user needs a value"},
      {"stats --users x", 2, "unknown option \"--users\""},
      {"stats -h", 2, "unknown option \"-h\""},
      {"batch --format csv", 2, "batch has one format"},
      {"rows --format csv", 2, "csv takes the rows of one table"},
      {"--directory /nowhere stats", 2, "unknown command"},
  };
  for (const auto& [arguments, status, told] : cases) {
    const Outcome outcome = inspect(arguments);
    EXPECT_EQ(outcome.status, status) << arguments;
    EXPECT_THAT(outcome.output + outcome.errors, HasSubstr(told)) << arguments;
  }
  Running named("--directory=" + directory.path().string() + " stats", scratch.path());
  EXPECT_THAT(named.takeAll(), HasSubstr("mrbw_v2_sessions                   1"));
  Running unwritable(directory.path().string() + " stats >/dev/full", scratch.path());
  EXPECT_EQ(unwritable.status(), 1);
}

}  // namespace
}  // namespace marbleway::testing

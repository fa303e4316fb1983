#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <thread>

#include "Marbleway/upload/batch.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"
#include "tools/common/database.h"

// The program, started on stores that the library has written.
namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ::testing::HasSubstr;

struct Outcome {
  int status;
  std::string output, errors;
};

class InspectTest : public MarblewayTest {
 protected:
  Outcome run(const std::string& command) const {
    const auto contentOf = [](const fs::path& file) {
      std::ifstream stream(file, std::ios::binary);
      return std::string(std::istreambuf_iterator<char>(stream), {});
    };
    const fs::path output = scratch.path() / "output", errors = scratch.path() / "errors";
    const std::string both = " >" + output.string() + " 2>" + errors.string();
    const int status = std::system(("{ " + command + "; }" + both).c_str());
    return {WEXITSTATUS(status), contentOf(output), contentOf(errors)};
  }
  Outcome inspect(const std::string& arguments) const { return run(program + " " + arguments); }

  /// The directory and every file in it: their times and bytes.
  std::string state() const {
    return run("find " + directory.path().string() +
               " -printf '%p %T@ %C@\\n' -type f -exec md5sum {} ';'")
        .output;
  }

  /// Two users, one after the other, and something in every kind of column.
  void recordUsers() {
    beginSession();
    Marbleway::linkUser("ann", "id");
    Marbleway::setUserAttribute("Plan", "gold");
    Marbleway::trackEvent("Buy", {{"Value", 5}});
    receiveMessage("m");
    Marbleway::unlinkUser();
    Marbleway::startSession();
    Marbleway::linkUser("o'bob", "id");
    Marbleway::trackEvent("Sell");
    query(storePath(Store::network),
          "INSERT INTO mrbw_v2_network_requests (SessionID, RequestURL, UTCTimeStamp) VALUES ('"s +
              kFirstSession + "', 'https://a', '2026-01-01 00:00:00.000'), " +
              "('other', 'https://b', '2026-01-03 00:00:00.000')");
  }

  static void receiveMessage(const char* id) {
    const Dictionary message{{"mrbw_data", true}, {"mrbw_messageID", id}, {"mrbw_userID", "ann"}};
    Marbleway::trackPushNotification({{"aps", message}});
  }

  std::string sentDocument() {
    batchData();
    return http->requests().back().body;
  }

  TemporaryDirectory scratch;
  const std::string program =
      "TMPDIR=" + scratch.path().string() + " " INSPECT_PROGRAM " " + directory.path().string();
};

// clang-format off
TEST_F(InspectTest, CommandsShowRowsAndChangeNothing) {
  recordUsers();
  isPrivacyMode = true;
  Marbleway::stopSession();
  time->advance(std::chrono::seconds(1));
  Marbleway::startSession();
  receiveMessage("n");
  const std::string columns = "id,SessionID,EventName,EventAttributes,UTCTimeStamp\n";
  const struct { int status; std::string arguments, part; } cases[] = {
      {0, "stats", "\nmrbw_v2_users                      5    340  2026-01-02 00:00:00.000  2026"},
      {0, "stats", "mrbw-http-prod-220.sqlite          2  12288  2026-01-01 00:00:00.000  2026"},
      {0, "stats --format csv --user ann", R"("mrbw_v2_network_requests",1,68,"2026-01-01 00:00)"},
      {0, "stats --format ndjson", R"({"Table":"mrbw_v2_ads","Rows":0,"Bytes":0,"Oldest":null,)"},
      {0, "rows users", "id  SessionID                             UserID       TypeID  UTCTimeS"},
      {0, "rows users", "\n(5 rows)\n"},
      {0, "rows", "\n(1 row)\n\nmrbw_v2_events\n"},
      {0, "rows mrbw_v2_events --format=ndjson", "\n{\"Table\":\"mrbw_v2_events\",\"id\":2,\"Sess"},
      {0, "rows messages --format csv --user ann", "\n1,\"m\",\"ann\",\"AAAAAAAA-0000-0000-0000"},
      {0, "rows events --format csv --user o\\'bob", columns + "2,"},
      {0, "rows --user nobody", "no session names this user"},
      {0, "privacy", "identifier  mrbw_v2_users             UserID            -        5       3"},
      {0, "privacy --format csv", R"("mrbw_v2_user_attributes","AttributeValue","Plan",1,1,0)"},
      {0, "privacy --format csv", "\"mrbw_v2_messages\",\"PlatformDeviceID\",,2,1,1\n"},
      {0, "privacy --format csv", "\"mrbw_v2_sessions\",\"PlatformDeviceID\",,3,2,1\n"},
      {0, "privacy --format csv --user o\\'bob", R"("mrbw_v2_users","UserID",,3,2,1)"},
      {0, "batch --user ann", R"({"BatchData":{"NetworkRequests":[{"id":"1",)"},
      {0, "--help", "usage: marbleway-inspect DIRECTORY COMMAND"},
      {0, "--version", "marbleway-inspect 2.2.0\n"},
      {1, "stats >/dev/full", ""},
      {2, "", "no command is given"},
      {2, "\"$(printf '\\033[1m')\"", R"(unknown command "\u001b[1m")"},
      {2, "rows events users", "one word too many: \"users\""},
      {2, "rows event", "unknown table \"event\""},
      {2, "batch --format csv", "batch has one format"},
      {2, "rows --format csv", "csv takes the rows of one table"},
      {2, "--directory /nowhere stats", "unknown command"},
  };
  const std::string before = state();
  for (const auto& [status, arguments, part] : cases) {
    const Outcome outcome = inspect(arguments);
    EXPECT_EQ(outcome.status, status) << arguments << outcome.errors;
    EXPECT_THAT(outcome.output + outcome.errors, HasSubstr(part)) << arguments;
  }
  EXPECT_EQ(inspect("rows Events --format csv --user ann").output,
            columns + "1,\"" + kFirstSession + R"(","Buy","{""Value"":5}",")" + kStart + "\"\n");
  EXPECT_EQ(state(), before);
}

TEST_F(InspectTest, ValuesKeepTheirBytesAndControlNothing) {
  beginSession();
  Marbleway::trackScreenView("\r\n\x1B[31m\x7F\xC2\x9B\xE2\x80"s + "\xAE\xC3\xA4");
  Marbleway::trackScreenView(std::string(49, 'x'));
  Marbleway::trackEvent("\x01\"\\\n\xF0\x9F\x98\x80\xFF");
  const std::string table = inspect("rows screen_views").output, shown = inspect("batch").output;
  EXPECT_THAT(table, HasSubstr("\\u000d\\n\\u001b[31m\\u007f\\u009b\\u202e\xC3\xA4"));
  EXPECT_THAT(table, HasSubstr("  " + std::string(45, 'x') + "...  "));
  EXPECT_EQ(shown, sentDocument());
  deleteRows();
  EXPECT_THAT(inspect("batch").errors, HasSubstr("nothing would be sent"));
}
// clang-format on

TEST_F(InspectTest, PagesLeaveNoRowOutBesideAWriter) {
  beginSession();
  const auto countRows = [&] {
    return std::ranges::count(inspect("rows events --format ndjson").output, '\n');
  };
  query(storePath(),
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1499) "
        "INSERT INTO mrbw_v2_events SELECT i * 3 - 2000, 'S', CASE WHEN i % 500 = 7 THEN "
        "hex(zeroblob(2500000)) ELSE 'e' || i END, NULL, '' FROM n");
  EXPECT_EQ(countRows(), 1499);
  EXPECT_THAT(inspect("stats").output, HasSubstr("mrbw_v2_events                  1499"));
  query(storePath(), "UPDATE mrbw_v2_events SET EventName = 'e'");
  std::atomic<int> recorded{0};
  std::jthread writer([&](const std::stop_token& end) {
    for (; !end.stop_requested(); ++recorded) Marbleway::trackEvent(std::string(1000, 'x'));
  });
  while (recorded < 100) std::this_thread::yield();
  for (const char* arguments : {"stats", "rows", "batch", "privacy"}) {
    const std::string errors = inspect(arguments).errors;  // a slow disk may hold the lock for long
    EXPECT_TRUE(errors.empty() || errors.ends_with("database is locked\n")) << arguments << errors;
  }
  FILE* const unread = popen((program + " rows events --format ndjson").c_str(), "r");
  EXPECT_EQ(std::fgetc(unread), '{');  // the pipe fills up, the program waits
  const int before = recorded;
  while (recorded < before + 20) std::this_thread::yield();
  EXPECT_EQ(WEXITSTATUS(pclose(unread)), 1);
  writer.request_stop();
  writer.join();
  query(storePath(), "INSERT INTO mrbw_v2_events (id) VALUES (9223372036854775807)");
  EXPECT_EQ(std::to_string(countRows()),
            query(storePath(), "SELECT count(*) FROM mrbw_v2_events")[0]);
}

TEST_F(InspectTest, UnfinishedStoresAreReadAsAtNextStart) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"PRAGMA journal_mode=DELETE", "", "\"Buy\""},
      {"PRAGMA journal_mode=WAL", "COMMIT", "\"half\""}};
  for (const auto& [mode, end, event] : cases) {
    SCOPED_TRACE(mode);
    fs::remove_all(directory.path());
    recordUsers();
    tests::Child writer([&, mode = mode, end = end] {
      tools::Database store(storePath(), SQLITE_OPEN_READWRITE);
      store.execute(mode);
      store.execute(
          "PRAGMA cache_size=1; BEGIN; UPDATE mrbw_v2_events SET EventName = 'half'; "
          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 500) INSERT "
          "INTO mrbw_v2_users SELECT NULL, hex(zeroblob(500)), '', NULL, '' FROM n");
      store.execute(end);
      raise(SIGKILL);
    });
    const std::string killed = writer.wait();
    const std::string before = state(), document = inspect("batch").output;
    EXPECT_THAT(document, HasSubstr(event)) << killed;
    EXPECT_THAT(inspect("stats").output, HasSubstr("mrbw_v2_events                     2"));
    EXPECT_THAT(inspect("rows network_requests").output, HasSubstr("https://a"));
    EXPECT_EQ(state(), before);
    EXPECT_EQ(std::distance(fs::directory_iterator(scratch.path()), {}), 2);  // no copy
    EXPECT_EQ(sentDocument(), document);
  }
}

TEST_F(InspectTest, UnreadableStoresAreReportedAndUnchanged) {
  const fs::path store = storePath(), settings = directory.path() / "user-defaults.json";
  const auto fifo = [](const fs::path& path) { fs::remove(path), mkfifo(path.c_str(), 0600); };
  const auto drop = [&] { query(store, "DROP TABLE mrbw_v2_ads"); };
  constexpr auto kView = "CREATE VIEW mrbw_v2_ads AS SELECT 1 AS id";
  // clang-format off
  using Damage = std::function<void()>;
  const struct { const char *arguments, *error; Damage damage; int status = 1; } cases[] = {
      {"stats", "file is not a database", [&] { std::ofstream(store) << std::string(5000, 'x'); }},
      {"stats", "no such table", [&] { fs::resize_file(store, 0); }},
      {"batch", "malformed", [&] { fs::resize_file(store, 20480); }},
      {"stats", "not a regular file", [&] { fs::remove(store), fs::create_directory(store); }},
      {"stats", "not a regular file", [&] { fifo(store); }},
      {"stats", "", [&] { fifo(fs::path(store).concat("-journal")); }, 0},
      {"privacy", "not a JSON object", [&] { fifo(settings); }},
      {"privacy", "not a JSON object", [&] { std::ofstream(settings) << "{"; }},
      {"batch", "no such table", drop},
      {"stats", "no such table: mrbw_v2_ads", [&] { drop(), query(store, kView); }},
      {"stats", "mrbw-analytics-prod-220.sqlite is missing", [&] { fs::remove(store); }, 0},
      {"stats", "no stores here", [&] { fs::remove_all(directory.path()); }},
  };
  // clang-format on
  for (const auto& [arguments, error, damage, status] : cases) {
    fs::remove_all(directory.path());
    recordUsers();
    damage();
    const std::string before = state();
    const Outcome outcome = inspect(arguments);
    EXPECT_EQ(outcome.status, status) << error << outcome.output;
    EXPECT_THAT(outcome.errors, HasSubstr(error));
    EXPECT_EQ(state(), before) << error;
  }
  recordUsers();
  tools::Database holder(store, SQLITE_OPEN_READWRITE);
  holder.execute("BEGIN EXCLUSIVE");
  EXPECT_THAT(inspect("stats").errors, HasSubstr("database is locked"));
}

}  // namespace
}  // namespace marbleway::testing

#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <optional>

#include "Marbleway/upload/batch.h"
#include "tests/support/child.h"
#include "tests/support/fixture.h"
#include "tools/common/database.h"

// The program, started on stores that the library has written.
namespace marbleway::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using ::testing::HasSubstr, ::testing::MatchesRegex;

class InspectTest : public MarblewayTest {
 protected:
  /// The exit status of `command` and what it printed.
  static std::string run(const std::string& command) {
    return rest(popen(("{ " + command + "; } 2>&1").c_str(), "r"));
  }
  static std::string rest(FILE* pipe) {
    std::string printed;
    for (int byte = 0; (byte = std::fgetc(pipe)) != EOF;) printed += static_cast<char>(byte);
    return std::to_string(WEXITSTATUS(pclose(pipe))) + " " + printed;
  }
  std::string inspect(const std::string& arguments) const { return run(program + " " + arguments); }
  /// What it prints on a terminal of 60 columns.
  std::string onTerminal(const std::string& arguments) const {
    return run("script -qec 'stty cols 60; " + program + " " + arguments +
               "' /dev/null </dev/null");
  }
  /// Expects the exit status that `expected` begins with, and the text that follows it.
  void expect(const std::string& arguments, const std::string& expected) const {
    const std::string outcome = inspect(arguments);
    EXPECT_EQ(outcome[0], expected[0]) << arguments << outcome;
    EXPECT_THAT(outcome, HasSubstr(expected.substr(2))) << arguments;
  }

  /// The directory and every file in it: their times and bytes.
  std::string state() const {
    return run("find " + directory.path().string() +
               " -printf '%p %T@ %C@\\n' -type f -exec md5sum {} ';'");
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

  /// What `batch` prints of the document that is sent now.
  std::string sentDocument() {
    batchData();
    return "0 " + http->requests().back().body;
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
  const std::pair<std::string, std::string> cases[] = {
      {"stats", "0 \nmrbw_v2_users                      5    340  2026-01-02 00:00:00.000  2026"},
      {"stats", "0 mrbw-http-prod-220.sqlite          2  12288  2026-01-01 00:00:00.000  2026"},
      {"stats --user ann", "0 \ntotal                        "},
      {"stats --format csv --user ann", R"(0 "mrbw_v2_network_requests",1,68,"2026-01-01 00:00)"},
      {"stats --all --format ndjson", R"(0 {"Table":"mrbw_v2_ads","Rows":0,"Bytes":0,"Oldest":null,)"},
      {"rows users", "0 id  SessionID                             UserID       TypeID  UTCTimeS"},
      {"rows", "0 \n(1 row)\n\nmrbw_v2_events\n"},
      {"rows mrbw_v2_events --format=ndjson", "0 \n{\"Table\":\"mrbw_v2_events\",\"id\":2,\"Sess"},
      {"rows messages --format csv --user ann", "0 \n1,\"m\",\"ann\",\"AAAAAAAA-0000-0000-0000"},
      {"rows events --format csv --user o\\'bob", "0 " + columns + "2,"},
      {"rows events --format csv --limit 1", "0 " + columns + "2,"},
      {"rows users --format csv --user ann --limit 2 | tail -n 3 | cut -c1-3", "0 id,\n1,\"\n2,\""},
      {"rows --user nobody", "0 no session names this user"},
      {"privacy", "0 identifier  mrbw_v2_users             UserID            -        5       3"},
      {"privacy --format csv", R"(0 "mrbw_v2_user_attributes","AttributeValue","Plan",1,1,0)"},
      {"privacy --format csv", "0 \"mrbw_v2_messages\",\"PlatformDeviceID\",,2,1,1\n"},
      {"privacy --format csv --user o\\'bob", R"(0 "mrbw_v2_users","UserID",,3,2,1)"},
      {"batch --user ann", R"(0 {"BatchData":{"NetworkRequests":[{"id":"1",)"},
      {"--help", "0 usage: marbleway-inspect [DIRECTORY COMMAND]"},
      {"--version", "0 marbleway-inspect 2.2.0\n"},
      {"stats >/dev/full", "1 the output cannot be written: No space left on device"},
      {"stats --follow", "2 --follow is no option of this command"},
      {"rows --follow=1", "2 --follow takes no value"},
      {"", "2 no command is given"},
      {"\"$(printf '\\033[1m')\"", R"(2 unknown command "\u001b[1m")"},
      {"rows events users", "2 one word too many: \"users\""},
      {"rows event", "2 unknown table \"event\""},
      {"batch --format csv", "2 batch has one format"},
      {"rows --format csv", "2 csv takes the rows of one table"},
  };
  const std::string before = state();
  for (const auto& [arguments, expected] : cases) expect(arguments, expected);
  EXPECT_EQ(inspect("rows Events --format csv --user ann"),
            "0 " + columns + "1,\"" + kFirstSession +
                R"(","Buy","{""Value"":5}",")" + kStart + "\"\n");
  EXPECT_EQ(state(), before);
}

TEST_F(InspectTest, ValuesKeepTheirBytesAndControlNothing) {
  beginSession();
  Marbleway::trackScreenView("\r\n\x1B[31m\x7F\xC2\x9B\xE2\x80"s + "\xAE\xC3\xA4");
  Marbleway::trackScreenView(std::string(49, 'x'));
  Marbleway::trackEvent("\x01\"\\\n\xF0\x9F\x98\x80\xFF");
  const std::string table = inspect("rows screen_views"), shown = inspect("batch");
  EXPECT_THAT(table, HasSubstr("\\u000d\\n\\u001b[31m\\u007f\\u009b\\u202e\xC3\xA4"));
  EXPECT_THAT(table, HasSubstr("  " + std::string(49, 'x') + "  -"));
  EXPECT_THAT(onTerminal("rows screen_views"), HasSubstr("\n 2  00000000-...  xxxxxxxxx...  -  "));
  EXPECT_EQ(shown, sentDocument());
  deleteRows();
  expect("batch", "0 nothing would be sent");
}
// clang-format on

TEST_F(InspectTest, PagesLeaveNoRowOutBesideAWriter) {
  beginSession();
  query(storePath(),
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1499) "
        "INSERT INTO mrbw_v2_events SELECT i * 3 - 2000, 'S', CASE WHEN i % 500 = 7 THEN "
        "hex(zeroblob(2500000)) ELSE 'e' || i END, NULL, '' FROM n");
  FILE* const unread = popen((program + " rows events --format ndjson").c_str(), "r");
  EXPECT_EQ(std::fgetc(unread), '{');  // the pipe fills up, the program waits
  for (int i = 0; i < 20; ++i) Marbleway::trackEvent("late");
  EXPECT_EQ(std::ranges::count(rest(unread), '\n'), 1499);  // what was there at the start
  query(storePath(), "INSERT INTO mrbw_v2_events (id) VALUES (9223372036854775807)");
  EXPECT_EQ(std::ranges::count(inspect("rows events --format ndjson"), '\n'), 1520);
}

TEST_F(InspectTest, FollowShowsNewRowsUntilInterrupted) {
  recordUsers();
  tests::Child follower([&] {
    tests::Child::exec("echo $$; exec env " + program +
                       " rows events --follow --limit 1 --format ndjson");
  });
  const pid_t process = std::stoi(follower.reported(10, '\n'));
  EXPECT_THAT(follower.reported(1000, '\n'), HasSubstr("Sell"));
  for (const char* const name : {"first", "second"}) {
    Marbleway::trackEvent(name);
    EXPECT_THAT(follower.reported(1000, '\n'), HasSubstr(name));
  }
  ::kill(process, SIGINT);
  EXPECT_EQ(follower.wait(), "");
}

TEST_F(InspectTest, ApplicationsHaveTheirBundlesName) {
  recordUsers();
  fs::create_directories(scratch.path() / "marbleway/none");
  fs::create_directory_symlink(directory.path(), scratch.path() / "marbleway/app");
  const std::string here = "cd /; XDG_DATA_HOME=" + scratch.path().string() + " " INSPECT_PROGRAM;
  EXPECT_THAT(run(here + " --format csv"), MatchesRegex("0 Application.*\n\"app\",[^\n]*app\"\n"));
  EXPECT_THAT(run(here + " app rows events --limit 1"), HasSubstr("(1 row)"));
  EXPECT_THAT(run(here + " nobody stats"), HasSubstr("1 marbleway-inspect: \"nobody\" is neither"));
}

TEST_F(InspectTest, UnfinishedStoresAreReadAsAtNextStart) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"PRAGMA journal_mode=DELETE", "", "\"Buy\""},
      {"PRAGMA journal_mode=WAL", "COMMIT", "\"half\""}};
  for (const auto& [mode, end, event] : cases) {
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
    const std::string before = state(), document = inspect("batch");
    EXPECT_THAT(document, HasSubstr(event)) << killed;
    expect("stats", "0 mrbw_v2_events                     2");
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(fs::is_empty(scratch.path()));  // no copy
    EXPECT_EQ(sentDocument(), document);
  }
}

TEST_F(InspectTest, UnreadableStoresAreReportedAndUnchanged) {
  const fs::path store = storePath(), settings = directory.path() / "user-defaults.json";
  const auto fifo = [](const fs::path& path) { fs::remove(path), mkfifo(path.c_str(), 0600); };
  std::optional<tools::Database> holder;
  // clang-format off
  const std::tuple<const char*, const char*, std::function<void()>> cases[] = {
      {"stats", "1 file is not a database", [&] { std::ofstream(store) << std::string(500, 'x'); }},
      {"stats", "1 no such table", [&] { fs::resize_file(store, 0); }},
      {"batch", "1 malformed", [&] { fs::resize_file(store, 20480); }},
      {"stats", "1 not a regular file", [&] { fs::remove(store), fs::create_directory(store); }},
      {"stats", "1 not a regular file", [&] { fifo(store); }},
      {"stats", "0 ", [&] { fifo(fs::path(store).concat("-journal")); }},
      {"privacy", "1 not a JSON object", [&] { fifo(settings); }},
      {"privacy", "1 not a JSON object", [&] { std::ofstream(settings) << "{"; }},
      {"stats", "1 no such table: mrbw_v2_ads", [&] {
        query(store, "DROP TABLE mrbw_v2_ads");
        query(store, "CREATE VIEW mrbw_v2_ads AS SELECT 1 AS id");
      }},
      {"stats", "0 mrbw-analytics-prod-220.sqlite is missing", [&] { fs::remove(store); }},
      {"stats", "1 no stores here", [&] { fs::remove_all(directory.path()); }},
      {"stats", "1 cannot be read: Too many levels", [&] {
        fs::remove_all(directory.path());
        fs::create_directory_symlink(directory.path(), directory.path());
      }},
      {"stats", "1 database is locked", [&] {
        holder.emplace(store, SQLITE_OPEN_READWRITE).execute("BEGIN EXCLUSIVE");
      }},
  };
  // clang-format on
  for (const auto& [arguments, expected, damage] : cases) {
    fs::remove_all(directory.path());
    recordUsers();
    damage();
    const std::string before = state();
    expect(arguments, expected);
    EXPECT_EQ(state(), before) << expected;
  }
}

}  // namespace
}  // namespace marbleway::testing

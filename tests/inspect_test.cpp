#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"
#include "tools/common/database.h"

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

struct Outcome {
  int status;
  std::string output, errors;
};

class InspectTest : public MarblewayTest {
 protected:
  FILE* begin(const std::string& arguments, const std::string& rest = "") const {
    const std::string program = "TMPDIR=" + scratch.path().string() + " " INSPECT_PROGRAM " ";
    return popen((program + directory.path().string() + " " + arguments + " 2>" +
                  (scratch.path() / "errors").string() + rest)
                     .c_str(),
                 "r");
  }
  /// The rest of the output, and how the program ended.
  Outcome end(FILE* pipe) const {
    Outcome outcome{0, "", ""};
    for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) {
      outcome.output += static_cast<char>(byte);
    }
    outcome.status = WEXITSTATUS(pclose(pipe));
    outcome.errors = contentOf(scratch.path() / "errors");
    return outcome;
  }
  Outcome inspect(const std::string& arguments) const { return end(begin(arguments)); }

  /// Every file of the directory with its bytes and times, and the directory's own times.
  std::map<std::string, std::string> state() const {
    std::map<std::string, std::string> state;
    const auto add = [&](const fs::path& path) {
      struct stat facts {};
      EXPECT_EQ(stat(path.c_str(), &facts), 0);
      const auto textOf = [](const timespec& at) {
        return std::to_string(at.tv_sec) + "." + std::to_string(at.tv_nsec) + " ";
      };
      state[path.string()] = textOf(facts.st_mtim) + textOf(facts.st_ctim) +
                             (fs::is_regular_file(path) ? contentOf(path) : "");
    };
    if (!fs::exists(directory.path())) return state;
    add(directory.path());
    for (const auto& entry : fs::directory_iterator(directory.path())) add(entry.path());
    return state;
  }

  /// Two users, one after the other, and something in every kind of column.
  void recordTwoUsers() {
    beginSession();
    Marbleway::linkUser("ann", "id");
    Marbleway::setUserAttribute("Plan", "gold");
    Marbleway::linkCompany("Acme");
    Marbleway::trackEvent("Buy", {{"Value", 5}});
    const Dictionary message{{"mrbw_data", true}, {"mrbw_messageID", "m"}, {"mrbw_userID", "ann"}};
    Marbleway::trackPushNotification({{"aps", message}});
    Marbleway::unlinkUser();
    Marbleway::startSession();
    Marbleway::linkUser("o'bob", "id");
    Marbleway::trackEvent("Sell");
    query(storePath(Store::network),
          "INSERT INTO mrbw_v2_network_requests (SessionID, RequestURL, UTCTimeStamp) VALUES ('"s +
              kFirstSession + "', 'https://a', '2026-01-01 00:00:00.000'), " +
              "('other', 'https://b', '2026-01-03 00:00:00.000')");
  }

  std::string sentDocument() {
    batchData();
    return http->requests().back().body;
  }

  TemporaryDirectory scratch;
};

// clang-format off
TEST_F(InspectTest, CommandsShowRowsAndChangeNothing) {
  recordTwoUsers();
  const std::string first = kFirstSession, second = "00000000-0000-0000-0000-000000000003", start = kStart, quoted = "\"" + start + "\"";
  const struct { std::string arguments, output; int status = 0; } cases[] = {  // a part of either output; all, where it begins with "id,"
      {"stats", "\nmrbw_v2_users                      4    274  2026-01-02 00:00:00.000  2026-01-02 00:00:00.000\n"},
      {"stats", "mrbw-http-prod-220.sqlite          2  12288  2026-01-01 00:00:00.000  2026-01-03 00:00:00.000\n"},
      {"stats --format csv", "\"mrbw_v2_events\",2,136," + quoted + "," + quoted + "\n\"mrbw_v2_screen_views\",0,0,,"},
      {"stats --format csv --user ann", "\"mrbw_v2_network_requests\",1,68,\"2026-01-01 00:00:00.000\",\"2026-01-01 00:00:00.000\"\n\"mrbw_v2_sessions\",1,"},
      {"stats --format ndjson", R"({"Table":"mrbw_v2_ads","Rows":0,"Bytes":0,"Oldest":null,"Newest":null})"},
      {"rows users", "id  SessionID                             UserID       TypeID  UTCTimeStamp\n 1  " + first + "  "},
      {"rows users", "\n(4 rows)\n"},
      {"rows mrbw_v2_events --format=ndjson", R"({"Table":"mrbw_v2_events","id":1,"SessionID":")" + first + R"(","EventName":"Buy","EventAttributes":"{\"Value\":5}","UTCTimeStamp":")" + start + "\"}\n" + R"({"Table":"mrbw_v2_events","id":2,"SessionID":")" + second + R"(","EventName":"Sell","EventAttributes":null,)"},
      {"rows Events --format csv --user ann", "id,SessionID,EventName,EventAttributes,UTCTimeStamp\n1,\"" + first + R"(","Buy","{""Value"":5}",)" + quoted + "\n"},
      {"rows events --format csv --user o\\'bob", "id,SessionID,EventName,EventAttributes,UTCTimeStamp\n2,\"" + second + R"(","Sell",,)" + quoted + "\n"},
      {"rows network_requests --format ndjson --user ann", R"("RequestURL":"https://a")"},
      {"rows messages --user ann --format csv", "id,MessageID,UserID,PlatformDeviceID,OperatingSystem,UTCTimeStamp\n1,\"m\",\"ann\",\"AAAAAAAA-0000-0000-0000-000000000001\",\"iOS\"," + quoted + "\n"},
      {"rows messages --user=o\\'bob --format csv", "id,MessageID,UserID,PlatformDeviceID,OperatingSystem,UTCTimeStamp\n"},
      {"rows --user nobody", "no session names this user"},
      {"privacy", "identifier  mrbw_v2_users             UserID            -        4       3        0\n"},
      {"privacy --format csv", "\n\"attribute\",\"mrbw_v2_user_attributes\",\"AttributeValue\",\"Plan\",1,1,0\n\"link\","},
      {"privacy --format csv --user o\\'bob", "\n\"identifier\",\"mrbw_v2_users\",\"UserID\",,2,2,0\n\"identifier\",\"mrbw_v2_sessions\",\"PlatformDeviceID\",,1,1,0\n\"link\","},
      {"batch --user ann", R"({"BatchData":{"NetworkRequests":[{"id":"1",)"},
      {"--help", "usage: marbleway-inspect DIRECTORY COMMAND"},
      {"--version", "marbleway-inspect 2.2.0\n"},
      {"", "no command is given", 2},
      {"peek", "unknown command \"peek\"", 2},
      {"\"$(printf '\\033[1m')\"", R"(unknown command "\u001b[1m")", 2},
      {"rows events users", "one word too many: \"users\"", 2},
      {"stats events", "one word too many: \"events\"", 2},
      {"rows event", "unknown table \"event\"", 2},
      {"stats --format xml", "unknown format \"xml\"", 2},
      {"stats --user", "--user needs a value", 2},
      {"stats --users x", "unknown option \"--users\"", 2},
      {"batch --format csv", "batch has one format", 2},
      {"rows --format csv", "csv takes the rows of one table", 2},
      {"--directory /nowhere stats", "unknown command", 2},
      {"stats >/dev/full", "", 1},
  };
  const auto before = state();
  for (const auto& [arguments, expected, status] : cases) {
    const Outcome outcome = inspect(arguments);
    EXPECT_EQ(outcome.status, status) << arguments << outcome.errors;
    EXPECT_TRUE(!expected.starts_with("id,") || outcome.output == expected) << outcome.output;
    EXPECT_THAT(outcome.output + outcome.errors, HasSubstr(expected)) << arguments;
  }
  const auto after = state();
  EXPECT_EQ(after.size(), before.size());
  for (const auto& [path, content] : before) EXPECT_TRUE(after.at(path) == content) << path;
}

TEST_F(InspectTest, PrivacyCountsRowsOfPrivacyMode) {
  recordTwoUsers();
  Marbleway::linkUser("cat", "id");
  isPrivacyMode = true;
  Marbleway::stopSession();
  time->advance(std::chrono::seconds(1));
  Marbleway::startSession();
  Marbleway::trackPushNotification({{"aps", Dictionary{{"mrbw_data", true}, {"mrbw_messageID", "n"}}}});
  const std::string output = inspect("privacy --format csv").output;
  for (const char* line : {"\"mrbw_v2_users\",\"UserID\",,6,4,1\n", "\"mrbw_v2_messages\",\"PlatformDeviceID\",,2,1,1\n", "\"mrbw_v2_sessions\",\"PlatformDeviceID\",,3,2,1\n"}) EXPECT_THAT(output, HasSubstr(line));
}

TEST_F(InspectTest, ValuesKeepTheirBytesAndControlNothing) {
  beginSession();
  const std::string turned = std::string("\xE2\x80").append("\xAE");  // right to left from here on
  const struct { std::string name, csv, table; } cases[] = {
      {"a,b", "\"a,b\"", "a,b"},
      {R"(a"b)", R"("a""b")", R"(a"b)"},
      {"a\r\nb", "\"a\r\nb\"", "a\\u000d\\nb"},
      {"\x1B[31mred\x07", "\"\x1B[31mred\x07\"", "\\u001b[31mred\\u0007"},
      {"\x7F\xC2\x9B", "\"\x7F\xC2\x9B\"", "\\u007f\\u009b"},
      {turned, "\"" + turned + "\"", "\\u202e"},
      {"\xC3\xA4\xF0\x9F\x98\x80", "\"\xC3\xA4\xF0\x9F\x98\x80\"", "\xC3\xA4\xF0\x9F\x98\x80"},
      {std::string(49, 'x'), "\"" + std::string(49, 'x') + "\"", std::string(45, 'x') + "..."},
      {"=1+1", "\"'=1+1\"", "=1+1"},
      {"-2.5", "\"-2.5\"", "-2.5"},
  };
  std::string csv = "id,SessionID,ScreenName,ScreenAttributes,UTCTimeStamp\n";
  int id = 0;
  for (const auto& each : cases) {
    Marbleway::trackScreenView(each.name);
    csv += std::to_string(++id) + ",\"" + kFirstSession + "\"," + each.csv + ",,\"" + kStart + "\"\n";
  }
  EXPECT_EQ(inspect("rows screen_views --format csv").output, csv);
  const std::string table = inspect("rows screen_views").output;
  for (const auto& each : cases) EXPECT_THAT(table, HasSubstr(each.table + "  "));
  EXPECT_TRUE(std::ranges::all_of(table, [](unsigned char c) { return (c >= ' ' && c != 0x7F) || c == '\n'; })) << table;
  Marbleway::trackEvent("\x01\"\\\n\xF0\x9F\x98\x80\xFF");
  const std::string shown = inspect("batch").output;
  EXPECT_EQ(shown, sentDocument());
  takeRows();
  EXPECT_THAT(inspect("batch").errors, HasSubstr("nothing would be sent"));
}
// clang-format on

TEST_F(InspectTest, PagesLeaveNoRowOutBesideAWriter) {
  beginSession();
  query(storePath(),
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1499) "
        "INSERT INTO mrbw_v2_events SELECT i * 3 - 2000, 'S', CASE WHEN i % 500 = 7 THEN "
        "hex(zeroblob(2500000)) ELSE 'e' || i END, NULL, '' FROM n");
  EXPECT_EQ(inspect("rows events --format ndjson").output.size() / 1'000'000, 15U);
  EXPECT_THAT(inspect("stats").output, HasSubstr("mrbw_v2_events                  1499"));
  query(storePath(), "UPDATE mrbw_v2_events SET EventName = 'e'");
  std::atomic<bool> isOver{false};
  std::atomic<int> recorded{0};
  std::thread writer([&] {
    for (; !isOver; ++recorded) Marbleway::trackEvent("e", {{"text", std::string(1000, 'x')}});
  });
  while (recorded < 100) std::this_thread::yield();
  for (const char* arguments : {"stats", "rows", "batch", "privacy"}) {
    EXPECT_EQ(inspect(arguments).status, 0) << arguments;
  }
  FILE* const stuck = begin("rows events --format ndjson");
  EXPECT_EQ(std::fgetc(stuck), '{');  // the pipe is full, the program waits
  const int before = recorded;
  while (recorded < before + 20) std::this_thread::yield();
  isOver = true;
  writer.join();
  EXPECT_EQ(end(stuck).output.back(), '\n');
  query(storePath(), "INSERT INTO mrbw_v2_events (id) VALUES (9223372036854775807)");
  const std::string lines = inspect("rows events --format ndjson").output;
  EXPECT_EQ(std::ranges::count(lines, '\n'), 1500 + recorded);
}

/// Leaves a store as a process does that is killed amid a commit: pages changed, its log beside it.
void leaveUnfinished(const fs::path& store, const fs::path& scratch, const std::string& mode) {
  constexpr const char* kSuffixes[] = {"", "-journal", "-wal"};
  const bool isWAL = mode == "WAL";
  tools::Database writer(store, SQLITE_OPEN_READWRITE);
  writer.execute(
      "PRAGMA journal_mode=" + mode + "; PRAGMA cache_size=1; BEGIN IMMEDIATE; " +
      "UPDATE mrbw_v2_events SET EventName = 'half'; " +
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 500) " +
      "INSERT INTO mrbw_v2_users SELECT NULL, hex(zeroblob(500)), '', NULL, '' FROM n; " +
      (isWAL ? "DELETE FROM mrbw_v2_users WHERE UserID = ''; COMMIT" : ""));
  for (const char* suffix : kSuffixes) {
    const fs::path file = fs::path(store).concat(suffix);
    if (fs::exists(file)) fs::copy_file(file, scratch / ("store"s + suffix));
  }
  writer.tryExecute("ROLLBACK");
  writer.execute("PRAGMA journal_mode=DELETE");
  for (const char* suffix : kSuffixes) {
    const fs::path copy = scratch / ("store"s + suffix);
    if (fs::exists(copy)) fs::rename(copy, fs::path(store).concat(suffix));
  }
}

TEST_F(InspectTest, UnfinishedStoresAreReadAsAtNextStart) {
  for (const std::string mode : {"DELETE", "WAL"}) {
    fs::remove_all(directory.path());
    recordTwoUsers();
    leaveUnfinished(storePath(), scratch.path(), mode);
    const auto before = state();
    const std::string document = inspect("batch").output;
    EXPECT_THAT(document, HasSubstr(mode == "WAL" ? "\"half\"" : "\"Buy\"")) << mode;
    EXPECT_THAT(inspect("stats").output, HasSubstr("mrbw_v2_events                     2")) << mode;
    EXPECT_THAT(inspect("rows network_requests").output, HasSubstr("https://a"));
    EXPECT_EQ(state(), before);
    EXPECT_EQ(std::distance(fs::directory_iterator(scratch.path()), {}), 1);  // no copy
    EXPECT_EQ(sentDocument(), document) << mode;
  }
}

// clang-format off
TEST_F(InspectTest, UnreadableStoresAreReportedAndUnchanged) {
  const fs::path store = storePath(), other = storePath(Store::network), settings = directory.path() / "user-defaults.json";
  const auto view = [&](const std::string& sql) { query(store, "DROP TABLE mrbw_v2_ads"), query(store, sql); };
  const auto fifo = [](const fs::path& path) { fs::remove(path), mkfifo(path.c_str(), 0600); };
  const struct { const char* what; std::function<void()> damage; const char *arguments, *error; int status = 1; } cases[] = {
      {"no database", [&] { std::ofstream(store) << std::string(5000, 'x'); }, "stats", "file is not a database"},
      {"an empty store", [&] { fs::resize_file(store, 0); }, "stats", "no such table"},
      {"a cut store", [&] { fs::resize_file(store, 20480); }, "batch", "malformed"},
      {"a folder", [&] { fs::remove(store), fs::create_directory(store); }, "stats", "not a regular file"},
      {"a FIFO", [&] { fifo(store); }, "stats", "not a regular file"},
      {"a FIFO as journal", [&] { fifo(fs::path(store).concat("-journal")); }, "stats", "", 0},
      {"a FIFO as settings", [&] { fifo(settings); }, "privacy", "not a JSON object"},
      {"broken settings", [&] { std::ofstream(settings) << "{"; }, "privacy", "not a JSON object"},
      {"a missing table", [&] { query(store, "DROP TABLE mrbw_v2_ads"); }, "batch", "no such table"},
      {"an endless view", [&] { view("CREATE VIEW mrbw_v2_ads AS WITH RECURSIVE n(id) AS (SELECT 1 UNION ALL SELECT id + 1 FROM n) SELECT id FROM n"); }, "stats", "no such table: mrbw_v2_ads"},
      {"no event store", [&] { fs::remove(store); }, "stats", "mrbw-analytics-prod-220.sqlite is missing", 0},
      {"no stores", [&] { fs::remove(store), fs::remove(other); }, "stats", "no stores here"},
      {"no directory", [&] { fs::remove_all(directory.path()); }, "stats", "no stores here"},
  };
  for (const auto& [what, damage, arguments, error, status] : cases) {
    SCOPED_TRACE(what);
    fs::remove_all(directory.path());
    recordTwoUsers();
    damage();
    const auto before = state();
    const Outcome outcome = inspect(arguments);
    EXPECT_EQ(outcome.status, status) << outcome.output;
    EXPECT_THAT(outcome.errors, HasSubstr(error));
    EXPECT_EQ(state(), before);
  }
  recordTwoUsers();
  tools::Database holder(store, SQLITE_OPEN_READWRITE);
  holder.execute("BEGIN EXCLUSIVE");
  EXPECT_THAT(inspect("stats").errors, HasSubstr("database is locked"));
}
// clang-format on

}  // namespace
}  // namespace marbleway::testing

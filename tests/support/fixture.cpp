#include "tests/support/fixture.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "tools/common/database.h"

namespace marbleway::testing {
namespace {

// Installed where tests must not have a real crash hook.
class NoCrashHook : public platform::CrashHook {
 public:
  void install(void (*)(const platform::Failure&)) override {}
};

// No status bar, as on a machine without a screen.
class NoStatusBar : public platform::StatusBar {
 public:
  std::shared_ptr<const platform::View> view() override { return nullptr; }
};

// clang-format off
const StateVariable kStateVariables[] = {
    {"isSDKValid", &isSDKValid}, {"isValidSession", &isValidSession}, {"isConnectedToInternet", &isConnectedToInternet}, {"isAdvertisingID", &isAdvertisingID},
    {"isLoggingEnabled", &isLoggingEnabled}, {"isSDKDebuggingEnabled", &isSDKDebuggingEnabled}, {"isTrackingEnabled", &isTrackingEnabled}, {"isUploadingEnabled", &isUploadingEnabled},
    {"isPrivacyMode", &isPrivacyMode}, {"isPerformanceMonitoringEnabled", &isPerformanceMonitoringEnabled}, {"isNetworkMonitoringEnabled", &isNetworkMonitoringEnabled},
    {"DispatchTime", &DispatchTime}, {"SessionTimeout", &SessionTimeout},
    {"sessionID", &sessionID}, {"SessionStartTime", &SessionStartTime}, {"SessionTime", &SessionTime}, {"internalProjectToken", &internalProjectToken}, {"apiURL", &apiURL},
};
// clang-format on

// 14 hours ahead: no day but UTC's counts.
[[maybe_unused]] const bool isFarFromUTC = setenv("TZ", "Pacific/Kiritimati", 1) == 0;

// Puts every process-wide variable back to its start value.
void resetState() {
  for (const StateVariable& each : kStateVariables) {
    if (const auto* flag = std::get_if<std::atomic<bool>*>(&each.variable)) **flag = false;
    if (const auto* number = std::get_if<std::atomic<float>*>(&each.variable)) **number = 0;
    if (const auto* text = std::get_if<Guarded<OptionalText>*>(&each.variable)) {
      (*text)->store(std::nullopt);
    }
  }
  networkBlacklist.store(std::nullopt);
  for (auto* timer : {&TimerTask, &SessionTask, &CPUTask, &MemoryTask, &BatteryTask}) {
    timer->store(nullptr);
  }
  mrbwLocationManager.store(nullptr);
}

}  // namespace

TemporaryDirectory::TemporaryDirectory(const std::filesystem::path& parent) {
  std::string name = (parent / "marbleway-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
  path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

std::vector<std::string> query(const std::filesystem::path& path, const std::string& sql) {
  const tools::Database database(path.string(), SQLITE_OPEN_READWRITE);
  tools::Statement statement = database.prepare(sql);
  std::vector<std::string> rows;
  while (statement.step()) {
    std::string row;
    for (int i = 0; i < statement.columns(); ++i) {
      row.append(i > 0 ? "|" : "").append(statement.isNull(i) ? "NULL" : statement.text(i));
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

std::span<const StateVariable> stateVariables() { return kStateVariables; }

World::World(const std::filesystem::path& parent) : directory(parent) {
  resetState();
  configure({.documentsDirectory = directory.path(),
             .bundleIdentifier = "org.example.app",
             .appVersion = "3.1",
             .sites = {{{1.5, 2.5}, {3.5, 4.5}, {5.5, 6.5}}}});
  platform::install({.console = console,
                     .clock = time,
                     .mainLoop = time->mainLoop(),
                     .httpClient = http,
                     .userDefaults = defaults,
                     .device = device,
                     .statusBar = std::make_shared<NoStatusBar>(),
                     .userInterface = interface,
                     .locationService = location,
                     .networkCapture = capture,
                     .crashHook = std::make_shared<NoCrashHook>()});
}

World::~World() { resetState(); }

void World::beginSession() {
  Marbleway::initMarbleway("token");
  answer(200, R"({"Data":{"Config":{"SessionTimeout":300}}})");
  console->take();
}

void World::answer(long status, std::string body) {
  ASSERT_TRUE(http->answer({.status = status, .body = std::move(body)}));
  time->advance(std::chrono::nanoseconds(0));
}

void World::failRequest() {
  ASSERT_TRUE(http->fail());
  time->advance(std::chrono::nanoseconds(0));
}

std::filesystem::path World::storePath(Store store) const {
  return directory.path() / (store == Store::event ? DBFileName : HTTPDBFileName);
}

std::vector<std::string> World::rows(const std::string& table) const {
  for (const Table& known : kTables) {
    if (known.name != table) continue;
    std::string sql;
    for (const std::string_view column : known.columns) {
      sql.append(sql.empty() ? "SELECT " : ", ").append(column);
    }
    return query(storePath(known.store), sql.append(" FROM ").append(table).append(" ORDER BY id"));
  }
  throw std::runtime_error("no table " + table);
}

int World::rowCount() const {
  std::size_t count = 0;
  for (const Table& table : kTables) count += rows(std::string(table.name)).size();
  return static_cast<int>(count);
}

std::vector<std::string> World::takeRows() {
  constexpr std::string_view kPrefix = "mrbw_v2_";
  std::vector<std::string> taken;
  for (const Table& table : kTables) {
    const std::string name(table.name);
    const auto written = rows(name);
    if (!written.empty()) query(storePath(table.store), "DELETE FROM " + name);
    for (const std::string& columns : written) {
      taken.push_back(name.substr(kPrefix.size()).append("|").append(columns));
    }
  }
  return taken;
}

void RecordingTest::SetUp() {
  beginSession();
  takeRows();
}

std::vector<std::string> RecordingTest::outcome() {
  std::vector<std::string> outcome = lines();
  for (std::string& row : takeRows()) outcome.push_back(std::move(row));
  return outcome;
}

std::string RecordingTest::row(std::string_view table, std::string_view columns) {
  std::string row(table);
  for (const std::string_view part :
       {std::string_view(kFirstSession), columns, std::string_view(kStart)}) {
    row.append("|").append(part);
  }
  return row;
}

}  // namespace marbleway::testing

#include "tests/support/fixture.h"

#include <array>
#include <cstdlib>
#include <memory>
#include <random>

#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/services.h"
#include "tools/common/database.h"

namespace marbleway::testing {
namespace {

// Installed where tests must not have a real crash hook.
class NoCrashHook : public platform::CrashHook {
 public:
  void install(void (*)(const platform::Failure&)) override {}
};

// 14 hours ahead: no day but UTC's counts.
std::array<char, 32> zone{"TZ=Pacific/Kiritimati"};  // the environment's from then on
[[maybe_unused]] const bool isFarFromUTC = putenv(zone.data()) == 0;

}  // namespace

TemporaryDirectory::TemporaryDirectory(const std::filesystem::path& parent) {
  std::random_device random;
  do {
    path_ = parent / ("marbleway-test-" + std::to_string(random()));
  } while (!std::filesystem::create_directory(path_));
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

std::vector<std::string> query(const std::filesystem::path& path, const std::string& sql) {
  const tools::Database database(platform::utf8Of(path), SQLITE_OPEN_READWRITE);
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
                     .statusBar = platform::makeNoStatusBar(),
                     .userInterface = platform::makeHeadlessInterface(),
                     .locationService = location,
                     .networkCapture = platform::makeNoCapture(),
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
  const Store store = table == kTables[0].name ? Store::network : Store::event;
  auto rows = query(storePath(store), "SELECT * FROM " + table + " ORDER BY id");
  for (std::string& row : rows) row.erase(0, row.find('|') + 1);
  return rows;
}

int World::rowCount() const {
  std::size_t count = 0;
  for (const Table& table : kTables) count += rows(std::string(table.name)).size();
  return static_cast<int>(count);
}

void World::deleteRows() const {
  for (const Table& table : kTables) {
    query(storePath(table.store), std::string("DELETE FROM ").append(table.name));
  }
}

}  // namespace marbleway::testing

#include "tools/inspect/store_file.h"

#include <chrono>
#include <utility>

#include "Marbleway/platform/paths.h"

namespace inspect {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kBusyTimeout{2};
constexpr std::chrono::seconds kMaxStatement{5};
constexpr int kRetryInterval = 1;  // ms; with ever longer ones a busy writer would always be first
constexpr int kInstructions = 10'000;  // between two looks at the clock

/// Far above what the library's tables and the statements here need.
constexpr std::pair<int, int> kLimits[] = {
    {SQLITE_LIMIT_SQL_LENGTH, 100'000}, {SQLITE_LIMIT_COLUMN, 100},
    {SQLITE_LIMIT_EXPR_DEPTH, 100},     {SQLITE_LIMIT_COMPOUND_SELECT, 5},
    {SQLITE_LIMIT_VDBE_OP, 25'000},     {SQLITE_LIMIT_ATTACHED, 0},
    {SQLITE_LIMIT_TRIGGER_DEPTH, 1},    {SQLITE_LIMIT_LIKE_PATTERN_LENGTH, 100}};

int busyHandler(void* /*unused*/, int calls) {
  static steady_clock::time_point end;
  if (calls == 0) end = steady_clock::now() + kBusyTimeout;
  if (steady_clock::now() >= end) return 0;
  sqlite3_sleep(kRetryInterval);
  return 1;
}

/// The program runs one statement at a time.
steady_clock::time_point statementEnd;

int progressHandler(void* /*unused*/) { return steady_clock::now() >= statementEnd ? 1 : 0; }

}  // namespace

std::unique_ptr<tools::Database> openStore(const std::filesystem::path& store) {
  auto database = std::make_unique<tools::Database>(marbleway::platform::utf8Of(store),
                                                    SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX);
  sqlite3* const handle = database->handle();
  for (const auto& [limit, value] : kLimits) sqlite3_limit(handle, limit, value);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_busy_handler(handle, busyHandler, nullptr);
  sqlite3_progress_handler(handle, kInstructions, progressHandler, nullptr);
  statementEnd = steady_clock::now() + kBusyTimeout + kMaxStatement;
  // Nothing is sorted in a temporary file, and pages of a damaged file are checked.
  database->execute("PRAGMA temp_store=MEMORY; PRAGMA cell_size_check=ON");
  return database;
}

void requireTable(const tools::Database& store, std::string_view table) {
  const std::optional<std::string> name(table);
  Query tables(store,
               "SELECT 1 FROM sqlite_master WHERE type = 'table' AND rootpage > 0 "
               "AND name = ?1 COLLATE NOCASE",
               name);
  if (!tables.next()) throw ReadError("no such table: " + *name);
}

Query::Query(const tools::Database& store, const std::string& sql,
             const std::optional<std::string>& parameter)
    : stops_(SignalBlock::Kind::stops) {
  statementEnd = steady_clock::now() + kBusyTimeout + kMaxStatement;
  statement_ = store.prepare(sql);
  if (parameter && sql.find("?1") != std::string::npos) statement_.bind(1, *parameter);
}

std::optional<std::string_view> Query::text(int index) const {
  return statement_.isNull(index) ? std::nullopt : std::optional(statement_.text(index));
}

}  // namespace inspect

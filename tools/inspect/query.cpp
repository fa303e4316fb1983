#include "tools/inspect/query.h"

#include <sqlite3.h>

#include <chrono>

#include "tools/inspect/read_only.h"

namespace inspect {
namespace {

constexpr std::chrono::seconds kBusyTimeout{2};
constexpr int kRetryInterval = 1;  // ms; with ever longer ones a busy writer would always be first
constexpr const char* kLook = "SELECT count(*) FROM sqlite_master";

using Connection = std::unique_ptr<sqlite3, Query::Close>;

[[noreturn]] void failOn(const std::filesystem::path& store, sqlite3* connection) {
  const bool isHalfWritten = sqlite3_extended_errcode(connection) == SQLITE_READONLY_ROLLBACK;
  const char* const why =
      isHalfWritten ? "its writer was killed meanwhile, try again" : sqlite3_errmsg(connection);
  throw ReadError(store.string().append(": ").append(why));
}

int nap(void* /*unused*/, int naps) {
  using std::chrono::steady_clock;
  static steady_clock::time_point end;
  if (naps == 0) end = steady_clock::now() + kBusyTimeout;
  if (steady_clock::now() >= end) return 0;
  sqlite3_sleep(kRetryInterval);
  return 1;
}

Connection open(const std::filesystem::path& store, int flags, const char* files = nullptr) {
  sqlite3* opened = nullptr;
  const int result = sqlite3_open_v2(store.c_str(), &opened, flags | SQLITE_OPEN_NOMUTEX, files);
  Connection connection(opened);
  if (result != SQLITE_OK) failOn(store, opened);
  sqlite3_busy_handler(opened, nap, nullptr);
  return connection;
}

bool execute(const Connection& connection, const char* sql) {
  return sqlite3_exec(connection.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

}  // namespace

void Query::Close::operator()(sqlite3* connection) const { sqlite3_close(connection); }
void Query::Close::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

Query::Query(const std::filesystem::path& store, const std::string& sql,
             const std::optional<std::string>& parameter)
    : store_(store), connection_(open(store, SQLITE_OPEN_READONLY)) {
  execute(connection_, "PRAGMA temp_store=MEMORY");  // sorts nothing in a temporary file
  sqlite3_stmt* statement = nullptr;
  const int prepared = sqlite3_prepare_v2(connection_.get(), sql.c_str(), -1, &statement, nullptr);
  statement_.reset(statement);
  if (prepared != SQLITE_OK) fail();
  if (!parameter || sqlite3_bind_parameter_count(statement) == 0) return;
  const int bound = sqlite3_bind_text64(statement, 1, parameter->data(), parameter->size(),
                                        SQLITE_TRANSIENT, SQLITE_UTF8);
  if (bound != SQLITE_OK) fail();
}

bool Query::next() {
  const int result = sqlite3_step(statement_.get());
  if (result != SQLITE_ROW && result != SQLITE_DONE) fail();
  return result == SQLITE_ROW;
}

std::optional<std::string_view> Query::text(int index) const {
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), index));
  if (bytes == nullptr) return std::nullopt;
  return std::string_view(bytes,
                          static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), index)));
}

std::int64_t Query::integer(int index) const {
  return sqlite3_column_int64(statement_.get(), index);
}

void Query::fail() const { failOn(store_, connection_.get()); }

bool isHalfWritten(const std::filesystem::path& store) {
  const Connection connection = open(store, SQLITE_OPEN_READONLY);
  if (execute(connection, kLook)) return false;
  if (sqlite3_extended_errcode(connection.get()) == SQLITE_READONLY_ROLLBACK) return true;
  failOn(store, connection.get());
}

void rollBack(const std::filesystem::path& store) {
  const Connection connection = open(store, SQLITE_OPEN_READWRITE, writableFiles());
  if (!execute(connection, kLook)) failOn(store, connection.get());
}

}  // namespace inspect

#include "tools/common/database.h"

namespace tools {

Database::Database(const std::string& path, int flags, const char* vfs) : path_(path) {
  sqlite3* database = nullptr;
  const int result = sqlite3_open_v2(path.c_str(), &database, flags, vfs);
  database_.reset(database);
  if (result != SQLITE_OK) fail();
  sqlite3_busy_timeout(database, 10'000);
}

void Database::execute(const std::string& sql) {
  if (sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) fail();
}

void Database::tryExecute(const char* sql) noexcept {
  sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr);
}

Statement Database::prepare(const std::string& sql) const {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(database_.get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    fail();
  }
  return {*this, statement};
}

void Database::fail() const {
  throw DatabaseError(path_ + ": " + sqlite3_errmsg(database_.get()),
                      sqlite3_extended_errcode(database_.get()));
}

void Statement::bind(int index, std::string_view text) {
  const char* data = text.empty() ? "" : text.data();  // a null pointer would bind NULL
  sqlite3_bind_text64(statement_.get(), index, data, text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void Statement::bind(int index, long long number) {
  sqlite3_bind_int64(statement_.get(), index, number);
}

bool Statement::step() {
  if (sqlite3_step(statement_.get()) == SQLITE_ROW) return true;
  if (sqlite3_reset(statement_.get()) != SQLITE_OK) database_->fail();  // the code of the step
  return false;
}

void Statement::run() {
  while (step()) continue;
}

void Statement::tryRun() noexcept {
  while (sqlite3_step(statement_.get()) == SQLITE_ROW) continue;
  sqlite3_reset(statement_.get());
}

std::string_view Statement::text(int column) const {
  const void* data = sqlite3_column_text(statement_.get(), column);
  const int size = sqlite3_column_bytes(statement_.get(), column);
  return {static_cast<const char*>(data), static_cast<std::size_t>(size)};
}

}  // namespace tools

#pragma once

#include <sqlite3.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace tools {

/// A failure of SQLite; what() names the file and the reason.
struct DatabaseError : std::runtime_error {
  DatabaseError(const std::string& message, int extendedCode)
      : std::runtime_error(message), code(extendedCode) {}
  int code;  // SQLite's extended result code
};

class Statement;

/// One connection to a SQLite file, used by one thread at a time.
///
/// Every failure here and in its statements throws a DatabaseError.
class Database {
 public:
  /// `flags` are those of sqlite3_open_v2, `vfs` is the name of the file system, null for SQLite's
  /// default. A file that another connection has locked is waited for, ten seconds at most.
  Database(const std::string& path, int flags, const char* vfs = nullptr);
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void execute(const std::string& sql);
  /// The same, where a failure makes no difference.
  void tryExecute(const char* sql) noexcept;
  Statement prepare(const std::string& sql) const;

  /// The rowid that was assigned last.
  long long lastRow() const { return sqlite3_last_insert_rowid(database_.get()); }

  /// For settings that only one program needs.
  sqlite3* handle() const { return database_.get(); }
  [[noreturn]] void fail() const;

 private:
  struct Close {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
  };

  const std::string path_;
  std::unique_ptr<sqlite3, Close> database_;
};

/// A prepared statement, which can run any number of times. Its database must outlive it.
class Statement {
 public:
  Statement() = default;
  Statement(const Database& database, sqlite3_stmt* statement)
      : database_(&database), statement_(statement) {}

  /// Binds the parameter `index`, from 1 on. A text must live until the statement is reset.
  void bind(int index, std::string_view text);
  void bind(int index, long long number);

  /// Binds `values` from the first parameter on.
  void bindAll(const auto&... values) {
    int index = 0;
    (bind(++index, values), ...);
  }

  /// Goes on to the next row; false at the end, after which the statement can run again.
  bool step();

  /// Runs from the start to the end and drops its rows.
  void run();
  /// The same, where a failure makes no difference.
  void tryRun() noexcept;

  /// Leaves out the remaining rows. What `text` returned is invalid after this or the next step.
  void reset() { sqlite3_reset(statement_.get()); }

  int columns() const { return sqlite3_column_count(statement_.get()); }
  std::string_view text(int column) const;
  long long number(int column) const { return sqlite3_column_int64(statement_.get(), column); }
  bool isNull(int column) const {
    return sqlite3_column_type(statement_.get(), column) == SQLITE_NULL;
  }

 private:
  struct Close {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };

  const Database* database_ = nullptr;
  std::unique_ptr<sqlite3_stmt, Close> statement_;
};

}  // namespace tools

#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>
#include <string_view>

namespace collector {

class Statement;

/// One connection to a SQLite file; used by one thread at a time.
///
/// Every failure here and in its statements throws a std::runtime_error that names the file.
class Database {
 public:
  /// `flags` are those of sqlite3_open_v2. A file that another connection holds is waited for, ten
  /// seconds at most.
  Database(const std::string& path, int flags);
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void execute(const std::string& sql);
  /// The same, where a failure makes no difference.
  void tryExecute(const char* sql) noexcept;
  Statement prepare(const std::string& sql) const;

  /// How many rows the statement that ran last has changed.
  int changes() const { return sqlite3_changes(database_.get()); }
  /// The rowid that was given last.
  long long lastRow() const { return sqlite3_last_insert_rowid(database_.get()); }

  [[noreturn]] void fail() const;

 private:
  struct Close {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
  };

  const std::string path_;
  std::unique_ptr<sqlite3, Close> database_;
};

/// A prepared statement, which runs as often as it is asked to. Its database must outlive it.
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

  /// Runs from the start to the end, dropping its rows.
  void run();
  /// The same, where a failure makes no difference.
  void tryRun() noexcept;

  /// Leaves the rows that are left. What `text` gave ends here or at the next step.
  void reset() { sqlite3_reset(statement_.get()); }

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

}  // namespace collector

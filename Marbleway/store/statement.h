#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Marbleway/platform/busy_budget.h"
#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/value.h"
#include "Marbleway/platform/write_guard.h"
#include "Marbleway/store/schema.h"

struct sqlite3;
struct sqlite3_stmt;

namespace marbleway {

/// One connection to a store's file, for one statement or one schema. A file that another
/// connection holds is waited for, as long as the call's `BusyBudget` allows. Every failure is
/// silent: the connection then does nothing.
class StoreFile {
 public:
  static constexpr std::chrono::milliseconds kUnlimited = std::chrono::milliseconds::max();

  /// A statement that holds the store longer than `limit` is rolled back.
  explicit StoreFile(const std::string& path, std::chrono::milliseconds limit = kUnlimited);
  StoreFile(const StoreFile&) = delete;
  StoreFile& operator=(const StoreFile&) = delete;
  ~StoreFile();

  /// Runs `sql` to its end; false when any of it failed.
  bool execute(const char* sql);
  /// Whether what has just failed did so because another connection held the store.
  bool isBusy() const;

  /// Sleeps until the connections that wait have had the store, 50 ms at most. `minIntervals`, in
  /// milliseconds, leaves time to those of other processes, which are not counted.
  static void pauseForOthers(int minIntervals = 0);

 private:
  friend class Statement;
  friend class LongRow;
  static int busyHandler(void* file, int calls);
  static int isOverdue(void* file);

  const platform::ForkSection section_;  // SQLite's locks are held in it
  const BusyBudget budget_;
  const platform::WriteGuard guard_{platform::WriteGuard::Into::file};  // outlives the connection
  const std::chrono::milliseconds limit_;
  const bool isCounted_;           // among the open connections
  bool isWaiting_ = false;         // counted as one that has had to wait
  sqlite3* connection_ = nullptr;  // null when it could not be opened
  int openResult_ = 0;
  std::chrono::steady_clock::time_point deadline_{};
};

/// One SQL statement on a connection of its own: opened and prepared by the constructor, finalized
/// and closed by the destructor. Its text must exist until then. A failure is a diagnostic.
class Statement {
 public:
  /// How a commit ends the journal. `deleted` removes the file. `persistent` clears its head: as
  /// safe, and faster. A persistent journal is read each time the file is locked, so that such a
  /// statement locks once: it begins a transaction before it is prepared, and the destructor
  /// commits it if the statement was stepped to its end. For rows, whose journals are small.
  enum class Journal { deleted, persistent };

  Statement(const std::string& path, const char* sql, Journal journal = Journal::deleted);
  /// Rolled back, and `isOverdue`, once it has held the store for longer than `limit`.
  Statement(const std::string& path, const char* sql, std::chrono::milliseconds limit);
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  /// Binds parameter `index` (from 1): valid UTF-8, or NULL when `text` is absent. Without memory
  /// for it the whole statement does nothing.
  void bind(int index, const Text& text);
  /// True while there is a row. False at the end and at any failure.
  bool step();
  bool isDone() const { return isDone_; }
  bool isOverdue() const { return isOverdue_; }
  bool isBusy() const { return !isDone_ && file_.isBusy(); }
  /// How long a statement with a limit has held the store, its commit included, at the end.
  std::chrono::steady_clock::duration held() const { return held_; }
  /// Column `index` of the row (from 0), "" for NULL; valid until the next step.
  std::string_view text(int index) const;
  /// The low 32 bits of column `index`.
  int integer(int index) const;
  std::int64_t integer64(int index) const;
  /// Column 0 of the row.
  std::int64_t id() const;

  /// From now on a row with a text above `bytes` ends the stepping, and `isRowTooLong` is true.
  void limitTexts(int bytes);
  bool isRowTooLong() const { return isRowTooLong_; }

 private:
  void prepare();
  void fail();
  void report() const noexcept;

  StoreFile file_;
  const char* const sql_;
  const Journal journal_ = Journal::deleted;
  std::string failure_;                // gathered for diagnostics
  sqlite3_stmt* statement_ = nullptr;  // null when it could not be prepared
  bool isTransaction_ = false;
  bool isDone_ = false;  // stepped to its end
  bool isOverdue_ = false;
  bool isRowTooLong_ = false;
  std::chrono::steady_clock::duration held_{};
};

/// One row of a table, read in pieces of its texts, so that it needs little memory.
class LongRow {
 public:
  /// The first row of `table` after the one with the id `after`.
  LongRow(const std::string& path, const Table& table, std::int64_t after);
  LongRow(const LongRow&) = delete;
  LongRow& operator=(const LongRow&) = delete;
  ~LongRow() = default;

  bool exists() const { return exists_; }
  bool isBusy() const { return !exists_ && file_.isBusy(); }
  std::int64_t id() const { return id_; }
  /// Calls `use` with each piece of a column's text, which ends between two characters; not at all
  /// for NULL. False when the column cannot be read.
  bool read(std::string_view column, const std::function<void(std::string_view piece)>& use);

 private:
  StoreFile file_;  // in one transaction
  std::string table_;
  std::int64_t id_ = 0;
  bool exists_ = false;
  std::chrono::steady_clock::duration held_{};
};

/// Takes the stores' file system out of SQLite's list, before this code is unmapped, unless a
/// connection is open. The next connection puts it there again.
void unregisterStores() noexcept;

/// The text of an INSERT that names `id` and every other column of one table, in order, with a "?"
/// for each. Any other text does not compile.
class InsertText {
 public:
  consteval InsertText(const char* sql) : sql_(sql) {
    std::string_view rest(sql);
    if (!skip(rest, "insert into ")) throw "an insert begins with 'insert into '";
    const std::string_view name = rest.substr(0, rest.find(' '));
    const auto* table =
        std::find_if(std::begin(kTables), std::end(kTables),
                     [&](const Table& candidate) { return candidate.name == name; });
    if (table == std::end(kTables)) throw "no such table";
    rest.remove_prefix(name.size());
    if (!skip(rest, " (id")) throw "the first column is id";
    for (const std::string_view column : table->columns) {
      if (!skip(rest, ", ")) throw "a column is missing";
      while (skip(rest, " ")) {
      }
      if (!skip(rest, column)) throw "a column is missing or out of its place";
    }
    if (!skip(rest, ") VALUES (?")) throw "one column too many";
    for (std::size_t i = 0; i < table->columns.size(); ++i) {
      if (!skip(rest, ", ?")) throw "a '?' is missing";
    }
    if (rest != ")") throw "one '?' too many";
    size_ = table->columns.size();
  }

  constexpr const char* c_str() const { return sql_; }
  /// The number of values, `id` left out.
  constexpr std::size_t size() const { return size_; }

 private:
  static constexpr bool skip(std::string_view& rest, std::string_view word) {
    if (!rest.starts_with(word)) return false;
    rest.remove_prefix(word.size());
    return true;
  }

  const char* sql_;
  std::size_t size_ = 0;
};

}  // namespace marbleway

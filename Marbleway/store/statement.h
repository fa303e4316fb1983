#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Marbleway/platform/fork.h"
#include "Marbleway/platform/value.h"
#include "Marbleway/platform/write_guard.h"
#include "Marbleway/store/schema.h"

struct sqlite3;
struct sqlite3_stmt;

namespace marbleway {

/// One connection to a store's file, for one statement or one schema. A file that another
/// connection holds is waited for, two seconds at most in the connection's whole life. Every
/// failure is silent: what is then asked of the connection does nothing.
class StoreFile {
 public:
  enum class IfMissing { fail, create };

  explicit StoreFile(const std::string& path, IfMissing ifMissing = IfMissing::fail);
  StoreFile(const StoreFile&) = delete;
  StoreFile& operator=(const StoreFile&) = delete;
  ~StoreFile();

  /// Runs `sql` to its end; false when any of it failed.
  bool execute(const char* sql);

 private:
  friend class Statement;
  friend class LongRow;
  static int busyHandler(void* file, int calls);

  platform::ForkSection section_;                                 // SQLite's locks are held in it
  platform::WriteGuard guard_{platform::WriteGuard::Into::file};  // outlives the connection
  sqlite3* connection_ = nullptr;  // null when it could not be opened
  std::chrono::steady_clock::duration waited_{};
};

/// One SQL statement on a file of its own: opened and prepared by the constructor, finalized and
/// closed by the destructor.
class Statement {
 public:
  /// How a commit ends the journal: by deleting it, or by clearing its head and keeping the file,
  /// which is as safe and faster, and for rows, whose journals are small. A kept journal is looked
  /// at each time the file is locked, so a statement that keeps it locks once: it is a transaction
  /// from its preparation on, which the destructor commits once it has been stepped to its end.
  enum class Journal { deleted, persistent };

  Statement(const std::string& path, const char* sql, Journal journal = Journal::deleted);
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement();

  /// Binds parameter `index` (from 1): valid UTF-8, or NULL when `text` is absent. Without memory
  /// for it the whole statement does nothing.
  void bind(int index, const Text& text);
  /// True while there is a row. False at the end and at any failure, which are not told apart.
  bool step();
  /// Column `index` of the row (from 0), "" for NULL; valid until the next step.
  std::string_view text(int index) const;
  /// The low 32 bits of column `index`.
  int integer(int index) const;
  /// Column 0 of the row.
  std::int64_t id() const;

  /// From now on a row with a text above `bytes` ends the stepping, and `isRowTooLong` is true.
  void limitTexts(int bytes);
  bool isRowTooLong() const { return isRowTooLong_; }

 private:
  StoreFile file_;
  sqlite3_stmt* statement_ = nullptr;  // null when it could not be prepared
  bool isTransaction_ = false;
  bool isDone_ = false;  // stepped to its end
  bool isRowTooLong_ = false;
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
  std::int64_t id() const { return id_; }
  /// Calls `use` with each piece of a column's text, which ends between two characters; not at all
  /// for NULL. False when the column cannot be read.
  bool read(std::string_view column, const std::function<void(std::string_view piece)>& use);

 private:
  StoreFile file_;  // in one transaction
  std::string table_;
  std::int64_t id_ = 0;
  bool exists_ = false;
};

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

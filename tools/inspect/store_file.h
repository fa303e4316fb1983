#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tools/common/database.h"
#include "tools/inspect/system.h"

namespace inspect {

/// What cannot be read; what() names the file and says why.
struct ReadError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A read-only connection to a store, which may have been made by anybody: nothing in its schema is
/// trusted, and a statement that takes longer than five seconds fails. A busy writer is waited for,
/// two seconds at most. Throws a DatabaseError.
std::unique_ptr<tools::Database> openStore(const std::filesystem::path& store);

/// Throws a ReadError unless `table` is a real table: no view and no virtual table.
void requireTable(const tools::Database& store, std::string_view table);

/// One SELECT, which locks its store from the first `next` to its destruction. The library drops a
/// row that has waited for two seconds, so it reads a bounded number of rows and nothing else is
/// waited for meanwhile; a Ctrl-Z takes effect after it.
class Query {
 public:
  /// `parameter` stands for "?1", wherever `sql` has it; it must outlive the query.
  Query(const tools::Database& store, const std::string& sql,
        const std::optional<std::string>& parameter = std::nullopt);

  /// True while there is a row.
  bool next() { return statement_.step(); }
  /// Column `index` of the row (from 0), absent for NULL; valid until the next row.
  std::optional<std::string_view> text(int index) const;
  std::int64_t integer(int index) const { return statement_.number(index); }

 private:
  SignalBlock stops_;  // outlives the statement
  tools::Statement statement_;
};

}  // namespace inspect

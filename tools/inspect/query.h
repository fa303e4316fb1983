#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace inspect {

/// A store that cannot be read; what() names the file and says why.
struct ReadError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// One SELECT on one store, through a read-only connection of its own. A busy writer is waited for,
/// two seconds at most. From the first `next` to the last the store is held still: a library that
/// waits to write loses rows after two seconds, so nothing else is waited for meanwhile.
///
/// Every failure throws a ReadError.
class Query {
 public:
  struct Close {
    void operator()(sqlite3* connection) const;
    void operator()(sqlite3_stmt* statement) const;
  };

  /// `parameter` stands for "?1", wherever `sql` has it.
  Query(const std::filesystem::path& store, const std::string& sql,
        const std::optional<std::string>& parameter = std::nullopt);

  /// True while there is a row.
  bool next();
  /// Column `index` of the row (from 0), absent for NULL; valid until the next row.
  std::optional<std::string_view> text(int index) const;
  std::int64_t integer(int index) const;

 private:
  [[noreturn]] void fail() const;

  std::filesystem::path store_;
  std::unique_ptr<sqlite3, Close> connection_;
  std::unique_ptr<sqlite3_stmt, Close> statement_;
};

/// True for a store whose last writer was killed amid a commit: what it left has to be rolled back
/// before the store can be read. Throws a ReadError for one that cannot be read at all.
bool isHalfWritten(const std::filesystem::path& store);

/// Rolls back what a killed writer left. Writes: for copies only.
void rollBack(const std::filesystem::path& store);

}  // namespace inspect

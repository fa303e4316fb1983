#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <ostream>
#include <string>

#include "Marbleway/store/schema.h"
#include "tools/inspect/arguments.h"
#include "tools/inspect/documents.h"
#include "tools/inspect/store_file.h"

namespace inspect {

/// What one query reads at most, so that neither memory nor the time for which a store is locked
/// depends on its size.
inline constexpr int kMaxRows = 500;

inline constexpr std::int64_t kMinId = std::numeric_limits<std::int64_t>::min();
inline constexpr std::int64_t kMaxId = std::numeric_limits<std::int64_t>::max();

/// Ids of a table, from `first` to `last`, which no more than kMaxRows rows have.
struct IdRange {
  std::int64_t first = kMinId, last = first;

  std::string condition() const;
};

/// What the commands share.
struct Inspection {
  const Request& request;
  const Documents& documents;
  const Selection& selection;
  std::ostream& out;
  std::ostream& notes;

  /// Opens the stores that `request` names and passes them to `use`; says which is missing.
  static void open(const Request& request, std::ostream& out, std::ostream& notes,
                   const std::function<void(const Inspection&)>& use);

  /// False once the output cannot be written, and after an interrupt.
  bool goesOn() const;
  /// The rows of `table` in `range` that are asked for, as a SELECT of `what`.
  std::string select(const marbleway::Table& table, const IdRange& range,
                     const std::string& what) const;
  Query query(const marbleway::Table& table, const std::string& sql) const {
    return {documents[table.store], sql, selection.parameter(table)};
  }
};

/// Calls `use` with one range of ids of `table` after the other, from `first` to the last row there
/// is at the start, as long as the inspection goes on.
void eachRange(const Inspection& inspection, const marbleway::Table& table, std::int64_t first,
               const std::function<void(const IdRange&)>& use);

/// Writes a remark, a line.
void note(std::ostream& notes, const std::string& text);

}  // namespace inspect

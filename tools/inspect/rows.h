#pragma once

#include <map>
#include <memory>
#include <optional>

#include "tools/inspect/inspection.h"
#include "tools/inspect/sheet.h"

namespace inspect {

/// The command `rows`, which can go on with what has been recorded since.
class RowList {
 public:
  RowList(const Request& request, std::ostream& out);

  /// Writes the rows that are asked for and have not been listed yet; at first the newest
  /// `request.limit` of each table. Rows that are recorded meanwhile are left out, and so are empty
  /// tables that are not asked for.
  void list(const Inspection& inspection);
  void end();

 private:
  void listTable(const Inspection& inspection, const marbleway::Table& table);
  /// Begins `table`, unless it was begun last.
  void begin(const marbleway::Table& table);

  const Request& request_;
  const std::unique_ptr<Sheet> sheet_;
  const marbleway::Table* begun_ = nullptr;
  // The id from which a table's rows have not been listed; absent after the largest id.
  std::map<const marbleway::Table*, std::optional<std::int64_t>> next_;
};

/// Lists the rows that are there, then each second those that have been recorded since, until an
/// interrupt. The stores are closed meanwhile; one that is busy is read a second later.
void followRows(const Request& request, std::ostream& out, std::ostream& notes);

}  // namespace inspect

#include "tools/inspect/rows.h"

#include <utility>

#include "tools/common/terminal.h"

namespace inspect {
namespace {

using marbleway::kTables;
using marbleway::Table;

constexpr std::size_t kMaxBytes = 4'000'000;  // of one query
constexpr std::chrono::seconds kInterval{1};

std::optional<std::int64_t> after(std::int64_t id) {
  return id < kMaxId ? std::optional(id + 1) : std::nullopt;
}

/// The id from which the newest `limit` rows that are asked for begin.
std::optional<std::int64_t> firstOfNewest(const Inspection& inspection, const Table& table,
                                          std::int64_t limit) {
  if (!inspection.documents.has(table.store)) return kMinId;
  requireTable(inspection.documents[table.store], table.name);
  const std::string what = "SELECT id, " + inspection.selection.condition(table);
  for (IdRange rest{kMinId, kMaxId};;) {
    Query ids = inspection.query(table, (what + " FROM ").append(table.name) + " WHERE " +
                                            rest.condition() + " ORDER BY id DESC LIMIT " +
                                            std::to_string(kMaxRows));
    int count = 0;
    for (; ids.next(); ++count) {
      const std::int64_t id = ids.integer(0);
      if (ids.integer(1) != 0 && limit-- == 0) return after(id);
      if (id == kMinId) return id;
      rest.last = id - 1;
    }
    if (count < kMaxRows) return kMinId;
  }
}

/// The next rows of `range`. The store is unlocked before they are written: the reader of the
/// output may be slow.
std::vector<Row> readPage(const Inspection& inspection, const Table& table, const IdRange& range) {
  std::string columns = "id";
  for (const std::string_view column : table.columns) columns.append(", ").append(column);
  Query query = inspection.query(table, inspection.select(table, range, columns) + " ORDER BY id");
  std::vector<Row> page;
  std::size_t bytes = 0;
  while (bytes < kMaxBytes && query.next()) {
    Row row{query.integer(0)};
    for (std::size_t i = 1; i <= table.columns.size(); ++i) {
      const auto text = query.text(static_cast<int>(i));
      bytes += text.value_or("").size();
      row.push_back(cellOf(text));
    }
    page.push_back(std::move(row));
  }
  return page;
}

}  // namespace

RowList::RowList(const Request& request, std::ostream& out)
    : request_(request), sheet_(makeSheet(request.format, out)) {}

void RowList::begin(const Table& table) {
  if (begun_ == &table) return;
  end();
  std::vector<std::string_view> columns{"id"};
  columns.insert(columns.end(), table.columns.begin(), table.columns.end());
  sheet_->begin(table.name, std::move(columns));
  begun_ = &table;
}

void RowList::end() {
  if (std::exchange(begun_, nullptr) != nullptr) sheet_->end();
}

void RowList::listTable(const Inspection& inspection, const Table& table) {
  auto next = next_.find(&table);
  if (next == next_.end()) {
    const auto first = request_.limit ? firstOfNewest(inspection, table, *request_.limit) : kMinId;
    next = next_.emplace(&table, first).first;
  }
  if (!next->second) return;
  eachRange(inspection, table, *next->second, [&](IdRange range) {
    for (bool isLast = false; !isLast && inspection.goesOn();) {
      const auto page = readPage(inspection, table, range);
      if (!page.empty()) begin(table);
      for (const Row& row : page) sheet_->add(row);
      const std::int64_t last = page.empty() ? range.last : std::get<std::int64_t>(page.back()[0]);
      next->second = after(last);
      isLast = last == range.last;
      if (!isLast) range.first = last + 1;
    }
  });
}

void RowList::list(const Inspection& inspection) {
  for (const Table& table : kTables) {
    if (request_.table != nullptr && request_.table != &table) continue;
    if (request_.table != nullptr) begin(table);
    listTable(inspection, table);
  }
  sheet_->flush();
  inspection.out.flush();
}

void followRows(const Request& request, std::ostream& out, std::ostream& notes) {
  tools::catchInterrupt();
  RowList rows(request, out);
  const auto list = [&](const Inspection& inspection) { rows.list(inspection); };
  Inspection::open(request, out, notes, list);
  std::ostream noNotes(nullptr);
  while (out && !tools::isInterruptedWithin(kInterval)) {
    try {
      Inspection::open(request, out, noNotes, list);
    } catch (const tools::DatabaseError& error) {
      const bool isBusy = (error.code & 0xFF) == SQLITE_BUSY;
      if (!isBusy && error.code != SQLITE_READONLY_ROLLBACK) throw;
    }
  }
  rows.end();
}

}  // namespace inspect

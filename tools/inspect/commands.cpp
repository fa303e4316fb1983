#include "tools/inspect/commands.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <limits>

#include "Marbleway/platform/value.h"
#include "Marbleway/upload/document.h"
#include "tools/inspect/documents.h"
#include "tools/inspect/personal.h"
#include "tools/inspect/query.h"

namespace inspect {
namespace {

using marbleway::kTables;
using marbleway::Store;
using marbleway::Table;

/// What a page of rows may hold, so that neither memory nor the time for which a store is held
/// still depends on how much it holds.
constexpr int kRowsInPage = 500;
constexpr std::size_t kBytesInPage = 4'000'000;

/// What the commands share.
struct Inspection {
  const Request& request;
  const Documents& documents;
  const Selection& selection;
  std::ostream& out;
  std::ostream& notes;

  /// A SELECT of `what` from the rows of `table` that are asked for, with `more` behind it.
  Query select(const Table& table, const std::string& what, const std::string& more = "") const {
    const std::string sql = std::string("SELECT ").append(what).append(" FROM ").append(table.name);
    return {documents.pathOf(table.store),
            sql + " WHERE (" + selection.condition(table) + ") " + more,
            selection.parameter(table)};
  }
};

void note(std::ostream& notes, const std::string& text) {
  notes << "marbleway-inspect: " << text << '\n';
}

Cell cellOf(std::optional<std::string_view> text) {
  return text ? Cell(std::string(*text)) : Cell();
}

struct Summary {
  std::int64_t rows = 0, bytes = 0;
  std::optional<std::string> oldest, newest;

  void add(const Summary& other) {
    rows += other.rows;
    if (other.oldest) oldest = oldest ? std::min(oldest, other.oldest) : other.oldest;
    newest = std::max(newest, other.newest);
  }
  Row row(std::string_view name) const {
    return {std::string(name), rows, bytes, cellOf(oldest), cellOf(newest)};
  }
};

/// Reads every value of the rows that are asked for; so it finds a store that is broken anywhere.
Summary summaryOf(const Inspection& inspection, const Table& table) {
  if (!inspection.documents.has(table.store)) return {};
  std::string bytes;
  for (const std::string_view column : table.columns) {
    bytes.append(bytes.empty() ? "" : " + ");
    bytes.append("coalesce(length(CAST(").append(column).append(" AS BLOB)), 0)");
  }
  Query query = inspection.select(
      table, "count(*), sum(" + bytes + "), min(UTCTimeStamp), max(UTCTimeStamp)");
  query.next();
  const auto copy = [&](int column) {
    const auto text = query.text(column);
    return text ? std::optional<std::string>(*text) : std::nullopt;
  };
  return {query.integer(0), query.integer(1), copy(2), copy(3)};
}

void stats(const Inspection& inspection) {
  const auto sheet = makeSheet(inspection.request.format, inspection.out);
  sheet->begin("", {"Table", "Rows", "Bytes", "Oldest", "Newest"});
  for (const Store store : {Store::network, Store::event}) {
    if (!inspection.documents.has(store)) continue;
    Summary whole;
    for (const Table& table : kTables) {
      if (table.store != store) continue;
      const Summary summary = summaryOf(inspection, table);
      sheet->add(summary.row(table.name));
      whole.add(summary);
    }
    if (!inspection.selection.isEverything()) continue;
    const auto file = inspection.documents.pathOf(store);
    whole.bytes = static_cast<std::int64_t>(std::filesystem::file_size(file));
    sheet->add(whole.row(file.filename().string()));
  }
  sheet->end();
}

/// The largest id; absent when the table has no row.
std::optional<std::int64_t> lastID(const Inspection& inspection, const Table& table) {
  if (!inspection.documents.has(table.store)) return std::nullopt;
  Query query = inspection.select(table, "max(id)");
  query.next();
  return query.text(0) ? std::optional(query.integer(0)) : std::nullopt;
}

/// The next rows from `first` on, up to `last`. The store is let go of before they are shown: the
/// reader of the output may take its time.
std::vector<Row> readPage(const Inspection& inspection, const Table& table, std::int64_t first,
                          std::int64_t last) {
  std::string columns = "id";
  for (const std::string_view column : table.columns) columns.append(", ").append(column);
  Query query =
      inspection.select(table, columns,
                        "AND id BETWEEN " + std::to_string(first) + " AND " + std::to_string(last) +
                            " ORDER BY id LIMIT " + std::to_string(kRowsInPage));
  std::vector<Row> page;
  std::size_t bytes = 0;
  while (bytes < kBytesInPage && query.next()) {
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

/// Rows that are recorded meanwhile are left out.
void showRows(const Inspection& inspection, const Table& table, Sheet& sheet) {
  const auto last = lastID(inspection, table);
  if (!last && inspection.request.table == nullptr) return;
  std::vector<std::string_view> columns{"id"};
  columns.insert(columns.end(), table.columns.begin(), table.columns.end());
  sheet.begin(table.name, std::move(columns));
  auto first = std::numeric_limits<std::int64_t>::min();
  while (last && inspection.out) {
    const auto page = readPage(inspection, table, first, *last);
    for (const Row& row : page) sheet.add(row);
    if (page.empty() || std::get<std::int64_t>(page.back()[0]) == *last) break;
    first = std::get<std::int64_t>(page.back()[0]) + 1;
  }
  sheet.end();
}

void rows(const Inspection& inspection) {
  const auto sheet = makeSheet(inspection.request.format, inspection.out);
  for (const Table& table : kTables) {
    const Table* const wanted = inspection.request.table;
    if (wanted == nullptr || wanted == &table) showRows(inspection, table, *sheet);
  }
}

/// Reads as the library does when it sends. Its reader takes a table that it cannot read for an
/// empty one, so each is read once before, with every failure told.
void batch(const Inspection& inspection) {
  for (const Table& table : kTables) summaryOf(inspection, table);
  marbleway::Document document;
  for (const Table& table : kTables) {
    document.beginArray(table);
    const std::string sql = std::string("SELECT * FROM ").append(table.name).append(" WHERE ") +
                            inspection.selection.condition(table);
    marbleway::Statement row(inspection.documents.pathOf(table.store), sql.c_str());
    if (const auto parameter = inspection.selection.parameter(table)) row.bind(1, *parameter);
    while (row.step()) document.addRow(row);
    document.endArray();
  }
  if (!document.hasRows()) {
    return note(inspection.notes, "there are no rows: nothing would be sent");
  }
  inspection.out << document.take().view();
}

void showPersonal(const Inspection& inspection, const Personal& personal, Sheet& sheet) {
  if (!inspection.documents.has(personal.table.store)) return;
  const std::string column(personal.column);
  const std::string key(personal.keyColumn.empty() ? "NULL" : personal.keyColumn);
  Query query = inspection.select(
      personal.table, key + ", count(*), count(DISTINCT " + column + ")",
      "AND coalesce(" + column + ", '') <> '' GROUP BY " + key + " ORDER BY " + key);
  while (query.next()) {
    sheet.add({std::string(personal.kind), std::string(personal.table.name), column,
               cellOf(query.text(0)), query.integer(1), query.integer(2)});
  }
}

void showPersonalSettings(const Inspection& inspection, Sheet& sheet) {
  const auto file = inspection.documents.settings();
  if (!std::filesystem::exists(file)) return;
  std::ifstream stream(file, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(stream), {}};
  const auto settings = marbleway::valueFromJSON(text);
  const auto* const members = settings ? settings->as<marbleway::Dictionary>() : nullptr;
  if (members == nullptr) throw ReadError(file.string() + ": not a JSON object");
  for (const auto& [kind, key] : kPersonalSettings) {
    if (members->find(key) == nullptr) continue;
    sheet.add({std::string(kind), file.filename().string(), std::string(key), Cell(), 1, 1});
  }
}

void privacy(const Inspection& inspection) {
  const auto sheet = makeSheet(inspection.request.format, inspection.out);
  sheet->begin("", {"Kind", "Table", "Column", "Key", "Rows", "Values"});
  if (inspection.selection.isEverything()) showPersonalSettings(inspection, *sheet);
  for (const Personal& personal : kPersonal) showPersonal(inspection, personal, *sheet);
  sheet->end();
}

}  // namespace

void carryOut(const Request& request, std::ostream& out, std::ostream& notes) {
  const Documents documents(request.directory);
  const Selection selection(documents, request.user);
  const Inspection inspection{request, documents, selection, out, notes};
  for (const Store store : {Store::event, Store::network}) {
    if (documents.has(store)) continue;
    note(notes, documents.pathOf(store).filename().string() + " is missing");
  }
  if (selection.isUnknownUser()) note(notes, "no session names this user");
  switch (request.command) {
    case Command::stats:
      return stats(inspection);
    case Command::rows:
      return rows(inspection);
    case Command::batch:
      return batch(inspection);
    case Command::privacy:
      return privacy(inspection);
    case Command::help:
    case Command::version:
      return;
  }
}

}  // namespace inspect

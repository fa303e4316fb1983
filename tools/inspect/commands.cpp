#include "tools/inspect/commands.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <map>
#include <unordered_set>

#include "Marbleway/platform/value.h"
#include "Marbleway/upload/document.h"
#include "tools/inspect/documents.h"
#include "tools/inspect/personal.h"
#include "tools/inspect/private_mode.h"

namespace inspect {
namespace {

using marbleway::kTables;
using marbleway::Store;
using marbleway::Table;

/// What one query reads at most, so that neither memory nor the time for which a store is locked
/// depends on its size.
constexpr int kMaxRows = 500;
constexpr std::size_t kMaxBytes = 4'000'000;

/// Ids of a table, from `first` to `last`, which no more than kMaxRows rows have.
struct IdRange {
  std::int64_t first = std::numeric_limits<std::int64_t>::min(), last = first;

  std::string condition() const {
    return "id BETWEEN " + std::to_string(first) + " AND " + std::to_string(last);
  }
};

/// What the commands share.
struct Inspection {
  const Request& request;
  const Documents& documents;
  const Selection& selection;
  std::ostream& out;
  std::ostream& notes;

  /// The rows of `table` in `range` that are asked for, as a SELECT of `what`.
  std::string select(const Table& table, const IdRange& range, const std::string& what) const {
    return std::string("SELECT ").append(what).append(" FROM ").append(table.name) + " WHERE " +
           range.condition() + " AND (" + selection.condition(table) + ")";
  }
  Query query(const Table& table, const std::string& sql) const {
    return {documents[table.store], sql, selection.parameter(table)};
  }
};

/// Calls `use` with one range of ids of `table` after the other, up to the last row there is at the
/// start, as long as the output can be written.
void eachRange(const Inspection& inspection, const Table& table, const auto& use) {
  if (!inspection.documents.has(table.store)) return;
  const tools::Database& store = inspection.documents[table.store];
  requireTable(store, table.name);
  const auto lastOf = [&](const std::string& sql) -> std::optional<std::int64_t> {
    Query query(store, sql);
    return query.next() && query.text(0) ? std::optional(query.integer(0)) : std::nullopt;
  };
  const std::string from = std::string(" FROM ").append(table.name);
  const auto end = lastOf("SELECT max(id)" + from);
  IdRange range;
  while (end && inspection.out) {
    range.last = *end;
    const auto last =
        lastOf("SELECT max(id) FROM (SELECT id" + from + " WHERE " + range.condition() +
               " ORDER BY id LIMIT " + std::to_string(kMaxRows) + ")");
    if (!last) return;
    if (*last < range.first) throw ReadError("the ids are no numbers" + from);
    range.last = *last;
    use(range);
    if (range.last == *end) return;
    range.first = range.last + 1;
  }
}

void note(std::ostream& notes, const std::string& text) {
  notes << "marbleway-inspect: " << text << '\n';
}

Cell cellOf(std::optional<std::string_view> text) {
  return text ? Cell(std::string(*text)) : Cell();
}

std::optional<std::string> copyOf(std::optional<std::string_view> text) {
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

struct Summary {
  std::int64_t rows = 0, bytes = 0;
  std::optional<std::string> oldest, newest;

  void add(const Summary& other) {
    rows += other.rows;
    bytes += other.bytes;
    if (other.oldest) oldest = oldest ? std::min(oldest, other.oldest) : other.oldest;
    newest = std::max(newest, other.newest);
  }
  Row row(std::string_view name) const {
    return {std::string(name), rows, bytes, cellOf(oldest), cellOf(newest)};
  }
};

/// Reads every value of the rows that are asked for, so that a store that is damaged anywhere is
/// reported.
Summary summaryOf(const Inspection& inspection, const Table& table) {
  std::string bytes;
  for (const std::string_view column : table.columns) {
    bytes.append(bytes.empty() ? "" : " + ");
    bytes.append("coalesce(length(CAST(").append(column).append(" AS BLOB)), 0)");
  }
  const std::string what = "count(*), sum(" + bytes + "), min(UTCTimeStamp), max(UTCTimeStamp)";
  Summary whole;
  eachRange(inspection, table, [&](const IdRange& range) {
    Query query = inspection.query(table, inspection.select(table, range, what));
    query.next();
    whole.add({query.integer(0), query.integer(1), copyOf(query.text(2)), copyOf(query.text(3))});
  });
  return whole;
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

/// Rows that are recorded meanwhile are left out, and so are empty tables that are not asked for.
void showRows(const Inspection& inspection, const Table& table, Sheet& sheet) {
  bool isBegun = false;
  const auto begin = [&] {
    std::vector<std::string_view> columns{"id"};
    columns.insert(columns.end(), table.columns.begin(), table.columns.end());
    if (!std::exchange(isBegun, true)) sheet.begin(table.name, std::move(columns));
  };
  if (inspection.request.table == &table) begin();
  eachRange(inspection, table, [&](IdRange range) {
    for (bool isLast = false; !isLast && inspection.out;) {
      const auto page = readPage(inspection, table, range);
      if (!page.empty()) begin();
      for (const Row& row : page) sheet.add(row);
      const std::int64_t last = page.empty() ? range.last : std::get<std::int64_t>(page.back()[0]);
      isLast = last == range.last;
      if (!isLast) range.first = last + 1;
    }
  });
  if (isBegun) sheet.end();
}

void rows(const Inspection& inspection) {
  const auto sheet = makeSheet(inspection.request.format, inspection.out);
  for (const Table& table : kTables) {
    const Table* const wanted = inspection.request.table;
    if (wanted == nullptr || wanted == &table) showRows(inspection, table, *sheet);
  }
}

/// Reads as the library does when it sends. Its reader treats a table that it cannot read as an
/// empty one, so each is read once before, which reports every failure.
void batch(const Inspection& inspection) {
  for (const Table& table : kTables) summaryOf(inspection, table);
  marbleway::Document document;
  for (const Table& table : kTables) {
    document.beginArray(table);
    eachRange(inspection, table, [&](const IdRange& range) {
      const SignalBlock stops{SIGTSTP, SIGTTIN, SIGTTOU};
      marbleway::Statement row(inspection.documents.pathOf(table.store).string(),
                               inspection.select(table, range, "*").c_str());
      const auto& parameter = inspection.selection.parameter(table);
      if (parameter) row.bind(1, *parameter);
      while (row.step()) document.addRow(row);
    });
    document.endArray();
  }
  if (document.rows() == 0) {
    return note(inspection.notes, "there are no rows: nothing would be sent");
  }
  inspection.out << document.take().view();
}

/// Counts different values by their hashes: among a million values it misses one in ten million
/// times.
struct Values {
  std::int64_t rows = 0, privateRows = 0;
  std::unordered_set<std::size_t> hashes;
};

void showPersonal(const Inspection& inspection, const Personal& personal,
                  const PrivateMode& privateMode, Sheet& sheet) {
  const std::string column(personal.column);
  const std::string key(personal.keyColumn.empty() ? "NULL" : personal.keyColumn);
  const std::string what = key + ", " + column + ", UTCTimeStamp";
  std::map<std::optional<std::string>, Values> found;
  eachRange(inspection, personal.table, [&](const IdRange& range) {
    Query query = inspection.query(personal.table, inspection.select(personal.table, range, what) +
                                                       " AND " + column + " <> ''");
    while (query.next()) {
      Values& values = found[copyOf(query.text(0))];
      ++values.rows;
      values.hashes.insert(std::hash<std::string_view>()(query.text(1).value_or("")));
      if (privateMode.covers(query.text(2).value_or(""))) ++values.privateRows;
    }
  });
  for (const auto& [name, values] : found) {
    sheet.add({std::string(personal.kind), std::string(personal.table.name), column, cellOf(name),
               values.rows, static_cast<std::int64_t>(values.hashes.size()), values.privateRows});
  }
}

void showPersonalSettings(const Inspection& inspection, Sheet& sheet) {
  const auto file = inspection.documents.settings();
  if (!std::filesystem::exists(file)) return;
  const auto settings = marbleway::valueFromJSON(bytesOf(file));
  const auto* const members = settings ? settings->as<marbleway::Dictionary>() : nullptr;
  if (members == nullptr) throw ReadError(file.string() + ": not a JSON object");
  for (const auto& [kind, key] : kPersonalSettings) {
    if (members->find(key) == nullptr) continue;
    sheet.add(
        {std::string(kind), file.filename().string(), std::string(key), Cell(), 1, 1, Cell()});
  }
}

/// Reads all sessions, whoever is asked for.
PrivateMode readPrivateMode(const Inspection& inspection) {
  const auto* const sessions =
      std::ranges::find(kTables, std::string_view("mrbw_v2_sessions"), &Table::name);
  PrivateMode mode;
  eachRange(inspection, *sessions, [&](const IdRange& range) {
    Query query(inspection.documents[Store::event],
                "SELECT UTCTimeStamp, PrivacyMode = 'Yes' FROM mrbw_v2_sessions WHERE " +
                    range.condition() + " ORDER BY id");
    while (query.next()) mode.addSession(query.text(0).value_or(""), query.integer(1) != 0);
  });
  return mode;
}

void privacy(const Inspection& inspection) {
  const auto sheet = makeSheet(inspection.request.format, inspection.out);
  const PrivateMode privateMode = readPrivateMode(inspection);
  sheet->begin("", {"Kind", "Table", "Column", "Key", "Rows", "Values", "Private"});
  if (inspection.selection.isEverything()) showPersonalSettings(inspection, *sheet);
  for (const Personal& personal : kPersonal) {
    showPersonal(inspection, personal, privateMode, *sheet);
  }
  sheet->end();
}

}  // namespace

void runCommand(const Request& request, std::ostream& out, std::ostream& notes) {
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
  }
}

}  // namespace inspect

#include "tools/inspect/commands.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <unordered_set>

#include "Marbleway/platform/value.h"
#include "Marbleway/upload/document.h"
#include "tools/inspect/applications.h"
#include "tools/inspect/inspection.h"
#include "tools/inspect/personal.h"
#include "tools/inspect/private_mode.h"
#include "tools/inspect/rows.h"

namespace inspect {
namespace {

using marbleway::kTables;
using marbleway::Store;
using marbleway::Table;

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
  eachRange(inspection, table, kMinId, [&](const IdRange& range) {
    Query query = inspection.query(table, inspection.select(table, range, what));
    query.next();
    whole.add({query.integer(0), query.integer(1), copyOf(query.text(2)), copyOf(query.text(3))});
  });
  return whole;
}

/// A line a table, one for all, and one a file with its size.
void stats(const Inspection& inspection) {
  const auto sheet = makeSheet(inspection.request.format, inspection.out);
  sheet->begin("", {"Table", "Rows", "Bytes", "Oldest", "Newest"});
  Summary whole;
  std::map<Store, Summary> stores;
  for (const Table& table : kTables) {
    if (!inspection.documents.has(table.store)) continue;
    const Summary summary = summaryOf(inspection, table);
    if (summary.rows > 0 || inspection.request.all) sheet->add(summary.row(table.name));
    whole.add(summary);
    stores[table.store].add(summary);
  }
  sheet->add(whole.row("total"));
  if (!inspection.selection.isEverything()) stores.clear();
  for (auto& [store, summary] : stores) {
    const auto file = inspection.documents.pathOf(store);
    summary.bytes = static_cast<std::int64_t>(std::filesystem::file_size(file));
    sheet->add(summary.row(file.filename().string()));
  }
  sheet->end();
}

void rows(const Inspection& inspection) {
  RowList list(inspection.request, inspection.out);
  list.list(inspection);
  list.end();
}

/// Reads as the library does when it sends. Its reader treats a table that it cannot read as an
/// empty one, so each is read once before, which reports every failure.
void batch(const Inspection& inspection) {
  for (const Table& table : kTables) summaryOf(inspection, table);
  marbleway::Document document;
  for (const Table& table : kTables) {
    document.beginArray(table);
    eachRange(inspection, table, kMinId, [&](const IdRange& range) {
      const SignalBlock stops(SignalBlock::Kind::stops);
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
  eachRange(inspection, personal.table, kMinId, [&](const IdRange& range) {
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
  eachRange(inspection, *sessions, kMinId, [&](const IdRange& range) {
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
  if (request.command == Command::applications) return listApplications(request, out, notes);
  if (request.follow) return followRows(request, out, notes);
  Inspection::open(request, out, notes, [](const Inspection& inspection) {
    switch (inspection.request.command) {
      case Command::stats:
        return stats(inspection);
      case Command::rows:
        return rows(inspection);
      case Command::batch:
        return batch(inspection);
      case Command::privacy:
        return privacy(inspection);
      case Command::applications:
        break;  // needs no stores
    }
  });
}

}  // namespace inspect

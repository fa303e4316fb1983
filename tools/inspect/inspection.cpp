#include "tools/inspect/inspection.h"

#include <optional>

#include "tools/common/terminal.h"
#include "tools/inspect/applications.h"

namespace inspect {

std::string IdRange::condition() const {
  return "id BETWEEN " + std::to_string(first) + " AND " + std::to_string(last);
}

void Inspection::open(const Request& request, std::ostream& out, std::ostream& notes,
                      const std::function<void(const Inspection&)>& use) {
  using marbleway::Store;
  const Documents documents(directoryOf(request.directory));
  const Selection selection(documents, request.user);
  for (const Store store : {Store::event, Store::network}) {
    if (documents.has(store)) continue;
    note(notes, documents.pathOf(store).filename().string() + " is missing");
  }
  if (selection.isUnknownUser()) note(notes, "no session names this user");
  use({request, documents, selection, out, notes});
}

bool Inspection::goesOn() const { return out && !tools::isInterruptedWithin({}); }

std::string Inspection::select(const marbleway::Table& table, const IdRange& range,
                               const std::string& what) const {
  return std::string("SELECT ").append(what).append(" FROM ").append(table.name) + " WHERE " +
         range.condition() + " AND (" + selection.condition(table) + ")";
}

void eachRange(const Inspection& inspection, const marbleway::Table& table, std::int64_t first,
               const std::function<void(const IdRange&)>& use) {
  if (!inspection.documents.has(table.store)) return;
  const tools::Database& store = inspection.documents[table.store];
  requireTable(store, table.name);
  const auto lastOf = [&](const std::string& sql) -> std::optional<std::int64_t> {
    Query query(store, sql);
    return query.next() && query.text(0) ? std::optional(query.integer(0)) : std::nullopt;
  };
  const std::string from = std::string(" FROM ").append(table.name);
  const auto end = lastOf("SELECT max(id)" + from);
  IdRange range{first};
  while (end && *end >= range.first && inspection.goesOn()) {
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

}  // namespace inspect

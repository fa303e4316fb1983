#include "Marbleway/store/store.h"

#include <cassert>
#include <string>

#include "platform/platform.h"

namespace marbleway {
namespace {

namespace fs = std::filesystem;

constexpr auto kOwnerOnly = fs::perms::owner_read | fs::perms::owner_write;

// Makes all tables of a store, or none. True when all are there.
bool makeTables(StoreFile& file, Store store) {
  if (!file.execute("BEGIN EXCLUSIVE")) return false;
  for (const Table& table : kTables) {
    if (table.store != store) continue;
    const std::string look = std::string("SELECT id FROM ").append(table.name).append(" LIMIT 1");
    // Another process may have made them meanwhile, under the same name.
    if (!file.execute(look.c_str()) && !file.execute(table.create)) return false;
  }
  return file.execute("COMMIT");
}

// Makes a store under another name and gives it its own once it is whole: a process that is killed
// meanwhile leaves none that later start-ups would take for made.
void makeStore(Store store) {
  const fs::path path = pathOf(store);
  std::error_code error;
  if (fs::exists(path, error) || error) return;
  platform::makeDocumentsDirectory();

  const fs::path unfinished = fs::path(path).concat("-new");
  bool isWhole = false;
  {
    StoreFile file(unfinished, StoreFile::Missing::isMade);
    // Asked again: whoever renamed the unfinished store before it was opened here has made this
    // one.
    isWhole = !fs::exists(path, error) && makeTables(file, store);
  }
  if (isWhole) {
    fs::permissions(unfinished, kOwnerOnly, error);
    fs::rename(unfinished, path, error);
  } else {
    fs::remove(unfinished, error);
  }
}

void runToEnd(Store store, const char* sql) {
  Statement statement(store, sql);
  while (statement.step()) {
  }
}

void remove(const Table& table, std::string_view condition) {
  const std::string sql =
      std::string("DELETE FROM ").append(table.name).append(" WHERE ").append(condition);
  if (table.store == Store::event) {
    removeMarblewayDBData(sql.c_str());
  } else {
    removeMarblewayHTTPDBData(sql.c_str());
  }
}

}  // namespace

void initMarblewayDB() { makeStore(Store::event); }
void initMarblewayHTTPDB() { makeStore(Store::network); }

void removeMarblewayDBData(const char* sql) { runToEnd(Store::event, sql); }
void removeMarblewayHTTPDBData(const char* sql) { runToEnd(Store::network, sql); }

void purgeOldRows() {
  for (const Table& table : kTables) remove(table, "UTCTimeStamp <= date('now','-30 day')");
}

void removeUpTo(const Table& table, const std::string& cutOff) {
  remove(table, std::string("date(UTCTimeStamp) <= date('").append(cutOff).append("')"));
}

void insertRow(InsertText sql, std::initializer_list<Text> values) {
  assert(values.size() == sql.size());
  Statement statement(Store::event, sql.c_str(), Statement::Journal::kept);
  int index = 1;
  statement.bind(index, std::nullopt);  // id: the store numbers the row
  for (const Text& value : values) statement.bind(++index, value);
  statement.step();
}

}  // namespace marbleway

#include "Marbleway/store/store.h"

#include <cassert>
#include <string>

#include "Marbleway/platform/platform.h"

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
void createIfMissing(Store store) {
  const fs::path path = pathOf(store);
  std::error_code error;
  if (fs::exists(path, error) || error) return;
  platform::makeDocumentsDirectory();

  const fs::path unfinished = fs::path(path).concat("-new");
  bool isWhole = false;
  {
    StoreFile file(unfinished, StoreFile::IfMissing::create);
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

void remove(const Table& table, std::string_view condition) {
  const std::string sql =
      std::string("DELETE FROM ").append(table.name).append(" WHERE ").append(condition);
  runStatement(table.store, sql.c_str());
}

}  // namespace

std::string pathOf(Store store) {
  std::string path = platform::documentsDirectory();
  return path.append("/").append(store == Store::event ? DBFileName : HTTPDBFileName);
}

void createStores() {
  for (const Store store : {Store::event, Store::network}) createIfMissing(store);
}

void runStatement(Store store, const char* sql) {
  Statement statement(pathOf(store), sql);
  while (statement.step()) {
  }
}

void purgeOldRows() {
  for (const Table& table : kTables) remove(table, "UTCTimeStamp <= date('now','-30 day')");
}

void removeUpTo(const Table& table, const std::string& cutOff) {
  remove(table, std::string("date(UTCTimeStamp) <= date('").append(cutOff).append("')"));
}

void insertRow(InsertText sql, std::initializer_list<Text> values) {
  assert(values.size() == sql.size());
  Statement statement(pathOf(Store::event), sql.c_str(), Statement::Journal::persistent);
  int index = 1;
  statement.bind(index, std::nullopt);  // id: the store numbers the row
  for (const Text& value : values) statement.bind(++index, value);
  statement.step();
}

}  // namespace marbleway

#include "Marbleway/store/store.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

#include "Marbleway/platform/paths.h"
#include "Marbleway/platform/platform.h"

namespace marbleway {
namespace {

/// How long a removal may hold a store at a time.
constexpr std::chrono::milliseconds kSlice{20};
constexpr int kPauseIntervals = 5;

// Makes all tables of a store, or none. True when all are there.
bool makeTables(StoreFile& file, Store store) {
  if (!file.execute("BEGIN EXCLUSIVE")) return false;
  for (const Table& table : kTables) {
    if (table.store == store && !file.execute(table.create)) return false;
  }
  return file.execute("COMMIT");
}

void createIfMissing(Store store) {
  const std::string path = pathOf(store);
  if (platform::kindOf(path.c_str()) != platform::FileKind::missing) return;
  platform::makeDocumentsDirectory();
  platform::createFile(path, [&](const std::string& unfinished) {
    StoreFile file(unfinished);
    return makeTables(file, store);
  });
}

enum class Removal { quick, done, overdue, failed };

Removal runRemoval(Store store, const std::string& sql, std::chrono::milliseconds limit) {
  Statement statement(pathOf(store), sql.c_str(), limit);
  while (statement.step()) {
  }
  if (statement.isOverdue()) return Removal::overdue;
  if (!statement.isDone()) return Removal::failed;
  return statement.held() < kSlice / 2 ? Removal::quick : Removal::done;
}

struct Range {
  std::int64_t first = 1, last = 0;
};

Range idsOf(const Table& table) {
  const std::string sql = std::string("SELECT min(id), max(id) FROM ").append(table.name);
  Statement statement(pathOf(table.store), sql.c_str());
  if (!statement.step()) return {};
  return {statement.integer64(0), statement.integer64(1)};
}

// Deletes range after range, as wide as one slice allows. Rows recorded meanwhile have greater
// numbers and stay, as they would after one statement.
void removeInSlices(const Table& table, const std::string& sql) {
  constexpr std::int64_t kMaxWidth = std::int64_t{1} << 61;
  auto [first, last] = idsOf(table);
  for (std::int64_t width = 4096; first <= last;) {
    const auto others = static_cast<std::uint64_t>(last) - static_cast<std::uint64_t>(first);
    const std::int64_t end = others < static_cast<std::uint64_t>(width) ? last : first + width - 1;
    const std::string slice =
        sql + " AND id BETWEEN " + std::to_string(first) + " AND " + std::to_string(end);
    const auto limit = width > 1 ? kSlice : StoreFile::kUnlimited;
    const Removal removal = runRemoval(table.store, slice, limit);
    if (removal == Removal::failed) return;
    if (removal == Removal::overdue) {
      width /= 2;
    } else if (end == last) {
      return;
    } else {
      first = end + 1;
    }
    if (removal == Removal::quick) width = std::min(width, kMaxWidth) * 2;
    StoreFile::pauseForOthers(kPauseIntervals);
  }
}

void remove(const Table& table, std::string_view condition) {
  const std::string sql =
      std::string("DELETE FROM ").append(table.name).append(" WHERE ").append(condition);
  if (runRemoval(table.store, sql, kSlice) == Removal::overdue) removeInSlices(table, sql);
}

}  // namespace

std::string pathOf(Store store) {
  std::string path = platform::documentsDirectory();
  path.push_back(static_cast<char>(std::filesystem::path::preferred_separator));
  return path.append(store == Store::event ? DBFileName : HTTPDBFileName);
}

void createStores() {
  for (const Store store : {Store::event, Store::network}) createIfMissing(store);
}

void purgeOldRows() {
  for (const Table& table : kTables) remove(table, "UTCTimeStamp <= date('now','-30 day')");
}

void removeUpTo(const Table& table, const std::string& cutOff) {
  remove(table, std::string("date(UTCTimeStamp) <= date('").append(cutOff).append("')"));
}

PendingRows countRows(const Table& table) {
  constexpr std::chrono::milliseconds kReadingSlice{50};
  std::string sql = "SELECT id, 0";
  for (const std::string_view column : table.columns) {
    sql.append(" + ifnull(length(CAST(").append(column).append(" AS BLOB)), 0)");
  }
  sql.append(" FROM ").append(table.name).append(" WHERE id > ? ORDER BY id");
  PendingRows counted{.table = std::string(table.name)};
  std::string latest = "-1";
  for (bool isInTime = false; !isInTime;) {
    const auto end = std::chrono::steady_clock::now() + kReadingSlice;
    Statement row(pathOf(table.store), sql.c_str());
    row.bind(1, latest);
    isInTime = true;
    while (isInTime && row.step()) {
      latest = std::to_string(row.id());
      ++counted.rows;
      counted.bytes += static_cast<std::size_t>(row.integer64(1));
      isInTime = std::chrono::steady_clock::now() < end;
    }
  }
  return counted;
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

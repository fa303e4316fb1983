#include "Marbleway/upload/batch.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/core/diagnostics.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/busy_budget.h"
#include "Marbleway/store/store.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/upload/dispatch.h"
#include "Marbleway/upload/document.h"

namespace marbleway {
namespace {

// The network table's `RequestURL`.
constexpr int kRequestURLColumn = 4;

// Rows with a longer text are read in pieces: SQLite would make a copy of the whole text.
constexpr int kMaxTextBytes = 256 * 1024;

// How long one reading may hold a store.
constexpr std::chrono::milliseconds kSlice{50};

// True when an entry of the server's list contains the row's whole URL. The direction is intended:
// an entry that is only a part of the URL drops nothing.
bool isBlacklisted(std::string_view url, const std::vector<std::string>& blacklist) {
  return std::any_of(blacklist.begin(), blacklist.end(), [&](const std::string& entry) {
    return entry.find(url) != std::string::npos;
  });
}

// Writes the rows of one table to the document.
class TableReader {
 public:
  TableReader(const Table& table, Document& document)
      : table_(table), document_(document), path_(pathOf(table.store)) {
    if (table.store == Store::network) {
      blacklist_ = networkBlacklist.load().value_or(std::vector<std::string>());
    }
  }

  // False when another connection held the store amid the table, so that rows are missing.
  bool readAll() {
    document_.beginArray(table_);
    while (readRows() && readLongRow()) {
    }
    document_.endArray();
    return !isCutShort_;
  }

 private:
  // Reads on after the latest row. True when the next one is long. The store is released after
  // each slice: a writer waits for all readers, and new readers wait for the writer.
  bool readRows() {
    for (;;) {
      if (latest_ != kNone) StoreFile::pauseForOthers();
      const auto end = std::chrono::steady_clock::now() + kSlice;
      std::string sql = std::string("SELECT * FROM ").append(table_.name);
      if (latest_ != kNone) sql.append(" WHERE id > ").append(std::to_string(latest_));
      Statement row(path_, sql.c_str());
      row.limitTexts(kMaxTextBytes);
      bool isInTime = true;
      while (isInTime && row.step()) {
        latest_ = row.id();
        if (blacklist_.empty() || !isBlacklisted(row.text(kRequestURLColumn), blacklist_)) {
          document_.addRow(row);
        }
        isInTime = std::chrono::steady_clock::now() < end;
      }
      isCutShort_ = latest_ != kNone && row.isBusy();
      if (isInTime) return row.isRowTooLong();
    }
  }

  // False when the row cannot be read.
  bool readLongRow() {
    LongRow row(path_, table_, latest_);
    isCutShort_ = row.isBusy();
    if (!row.exists()) return false;
    latest_ = row.id();
    return isDropped(row) || document_.addRow(table_, row);
  }

  bool isDropped(LongRow& row) const {
    if (blacklist_.empty()) return false;
    std::string url;
    const auto append = [&](std::string_view piece) { url.append(piece); };
    return row.read(table_.columns[kRequestURLColumn - 1], append) &&
           isBlacklisted(url, blacklist_);
  }

  static constexpr auto kNone = std::numeric_limits<std::int64_t>::min();

  const Table& table_;
  Document& document_;
  const std::string path_;
  std::vector<std::string> blacklist_;  // for network requests
  std::int64_t latest_ = kNone;         // the id of the row read last
  bool isCutShort_ = false;
};

// What keeps a batch from being begun; null: nothing.
const char* obstacle() {
  if (!isConnectedToInternet) return "no handshake has been answered";
  if (!isSDKValid) return "the project is refused";
  if (!isValidSession) return "there is no valid session";
  if (!isTrackingEnabled) return "tracking is off";
  return isUploadingEnabled ? nullptr : "uploading is off";
}

void reportNotBegun(const char* reason) {
  if (!diagnostics::areOn()) return;
  diagnostics::report({.kind = Diagnostic::Kind::batch, .outcome = "not begun", .error = reason});
}

}  // namespace

void batchData() {
  if (const char* const reason = obstacle()) return reportNotBegun(reason);
  const BusyBudget budget;
  auto slot = std::make_shared<const BatchSlot>();
  if (!slot->isTaken()) return reportNotBegun("four batches are in flight");
  Document document;
  CutOffs cutOffs;
  for (std::size_t i = 0; i < std::size(kTables); ++i) {
    if (!TableReader(kTables[i], document).readAll()) return reportNotBegun("the store is busy");
    cutOffs.at(i) = getUTCTimeStamp();
  }
  const std::size_t rows = document.rows();
  if (rows == 0) return reportNotBegun("no row is pending");
  dispatchBatch(document.take(), rows, std::move(cutOffs), std::move(slot));
}

void uploadNow() noexcept { operation(batchData); }

}  // namespace marbleway

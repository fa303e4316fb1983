#include "Marbleway/upload/batch.h"

#include <algorithm>
#include <string>

#include "Marbleway/startup/state.h"
#include "Marbleway/store/timestamp.h"
#include "Marbleway/upload/dispatch.h"
#include "Marbleway/upload/document.h"

namespace marbleway {
namespace {

// The network table's RequestURL.
constexpr int kRequestURLColumn = 4;

// True when an entry of the server's list contains the row's whole URL. The test runs in this
// direction on purpose: an entry that is a part of the URL drops nothing.
bool isBlacklisted(const Statement& row, const std::vector<std::string>& blacklist) {
  const std::string_view url = row.text(kRequestURLColumn);
  return std::any_of(blacklist.begin(), blacklist.end(), [&](const std::string& entry) {
    return entry.find(url) != std::string::npos;
  });
}

void readRows(const Table& table, Document& document, const std::vector<std::string>& blacklist) {
  const std::string sql = std::string("SELECT * FROM ").append(table.name);
  Statement row(table.store, sql.c_str());
  while (row.step()) {
    if (table.store != Store::network || !isBlacklisted(row, blacklist)) {
      document.addRow(table, row);
    }
  }
}

}  // namespace

void batchData() {
  if (!isConnectedToInternet || !isSDKValid || !isValidSession || !isTrackingEnabled ||
      !isUploadingEnabled) {
    return;
  }
  const auto blacklist = networkBlacklist.load().value_or(std::vector<std::string>());
  Document document;
  BatchTimes times;
  for (const Table& table : kTables) {
    document.beginArray(table);
    readRows(table, document, blacklist);
    document.endArray();
    times.*table.cutOff = getUTCTimeStamp();
  }
  if (document.hasRows()) dispatchBatch(document.take(), std::move(times));
}

}  // namespace marbleway

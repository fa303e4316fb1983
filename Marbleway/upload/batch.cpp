#include "Marbleway/upload/batch.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/state.h"
#include "Marbleway/store/store.h"
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

void readRows(const Table& table, Document& document) {
  const auto blacklist = table.store == Store::network
                             ? networkBlacklist.load().value_or(std::vector<std::string>())
                             : std::vector<std::string>();
  const std::string sql = std::string("SELECT * FROM ").append(table.name);
  document.beginArray(table);
  Statement row(pathOf(table.store), sql.c_str());
  while (row.step()) {
    if (blacklist.empty() || !isBlacklisted(row, blacklist)) document.addRow(table, row);
  }
  document.endArray();
}

}  // namespace

void batchData() {
  if (!isConnectedToInternet || !isSDKValid || !isValidSession || !isTrackingEnabled ||
      !isUploadingEnabled) {
    return;
  }
  Document document;
  CutOffs cutOffs;
  for (std::size_t i = 0; i < std::size(kTables); ++i) {
    readRows(kTables[i], document);
    cutOffs.at(i) = getUTCTimeStamp();
  }
  if (document.hasRows()) dispatchBatch(document.take(), std::move(cutOffs));
}

void uploadNow() noexcept { operation(batchData); }

}  // namespace marbleway

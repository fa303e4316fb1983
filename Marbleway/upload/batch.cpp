#include "Marbleway/upload/batch.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

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

// The table under `arrayKey` of the document; a key that no table has does not compile.
consteval const Table& tableOf(std::string_view arrayKey) {
  for (const Table& table : kTables) {
    if (table.arrayKey == arrayKey) return table;
  }
  throw "no such table";
}

void readRows(const Table& table, Document& document) {
  const auto blacklist = table.store == Store::network
                             ? networkBlacklist.load().value_or(std::vector<std::string>())
                             : std::vector<std::string>();
  const std::string sql = std::string("SELECT * FROM ").append(table.name);
  document.beginArray(table);
  Statement row(table.store, sql.c_str());
  while (row.step()) {
    if (blacklist.empty() || !isBlacklisted(row, blacklist)) document.addRow(table, row);
  }
  document.endArray();
}

// clang-format off
void getNetworkRequestsDBData(Document& document) { readRows(tableOf("NetworkRequests"), document); }
void getSessionDBData(Document& document) { readRows(tableOf("Sessions"), document); }
void getUserDBData(Document& document) { readRows(tableOf("Users"), document); }
void getUserAttributesDBData(Document& document) { readRows(tableOf("UserAttributes"), document); }
void getCompanyDBData(Document& document) { readRows(tableOf("Companies"), document); }
void getCompanyAttributesDBData(Document& document) { readRows(tableOf("CompanyAttributes"), document); }
void getEventsDBData(Document& document) { readRows(tableOf("Events"), document); }
void getScreenViewsDBData(Document& document) { readRows(tableOf("ScreenViews"), document); }
void getCrashesDBData(Document& document) { readRows(tableOf("Crashes"), document); }
void getErrorsDBData(Document& document) { readRows(tableOf("Errors"), document); }
void getCPUUsageDBData(Document& document) { readRows(tableOf("CPUUsage"), document); }
void getMEMUsageDBData(Document& document) { readRows(tableOf("MEMUsage"), document); }
void getBatteryUsageDBData(Document& document) { readRows(tableOf("BatteryUsage"), document); }
void getAdsDBData(Document& document) { readRows(tableOf("Ads"), document); }
void getMessagesDBData(Document& document) { readRows(tableOf("Messages"), document); }
void getDeepLinkDBData(Document& document) { readRows(tableOf("DeepLinks"), document); }

// clang-format on

// In the order of the tables.
constexpr void (*kReaders[])(Document&) = {
    getNetworkRequestsDBData, getSessionDBData,     getUserDBData,
    getUserAttributesDBData,  getCompanyDBData,     getCompanyAttributesDBData,
    getEventsDBData,          getScreenViewsDBData, getCrashesDBData,
    getErrorsDBData,          getCPUUsageDBData,    getMEMUsageDBData,
    getBatteryUsageDBData,    getAdsDBData,         getMessagesDBData,
    getDeepLinkDBData};
static_assert(std::size(kReaders) == std::size(kTables));

}  // namespace

void batchData() {
  if (!isConnectedToInternet || !isSDKValid || !isValidSession || !isTrackingEnabled ||
      !isUploadingEnabled) {
    return;
  }
  Document document;
  BatchTimes times;
  for (std::size_t i = 0; i < std::size(kReaders); ++i) {
    kReaders[i](document);
    times.*kTables[i].cutOff = getUTCTimeStamp();
  }
  if (document.hasRows()) dispatchBatch(document.take(), std::move(times));
}

}  // namespace marbleway

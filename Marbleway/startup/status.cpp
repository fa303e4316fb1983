#include <iterator>
#include <utility>

#include "Marbleway/Host.h"
#include "Marbleway/core/operation.h"
#include "Marbleway/core/state.h"
#include "Marbleway/store/store.h"

namespace marbleway {
namespace {

std::vector<PendingRows> pendingRows() {
  std::vector<PendingRows> pending;
  for (const Table& table : kTables) {
    PendingRows rows = countRows(table);
    if (rows.rows > 0) pending.push_back(std::move(rows));
  }
  return pending;
}

Status statusOf(Count count) {
  Status status;
  status.isStarted = apiURL.load().has_value();  // the start sets it
  status.isRefused = status.isStarted && !isSDKValid;
  status.isConnected = isConnectedToInternet;
  status.isPrivate = isPrivacyMode;
  status.isTracking = isTrackingEnabled;
  status.isUploading = isUploadingEnabled;
  if (isValidSession) status.session = sessionID.load();
  status.handshake = lastHandshake.load();
  status.batch = lastBatch.load();
  if (count == Count::rows && status.isStarted) status.pending = pendingRows();
  return status;
}

}  // namespace

Status status(Count count) noexcept {
  Status status;
  operation([&] { status = statusOf(count); });
  return status;
}

}  // namespace marbleway

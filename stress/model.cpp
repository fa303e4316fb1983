#include "stress/model.h"

#include <algorithm>

namespace marbleway::stress {

void Model::startSession() {
  if (!isStarted_ || !isTracking) return;
  hasSession_ = true;
  add("Sessions");
  add("Users");
}

bool Model::admits(Asks asked) {
  if (!isStarted_ || !isTracking) return false;
  if (asked == Asks::nothing && !hasSession_) startSession();
  return hasSession_ && (asked != Asks::sessionWithoutPrivacy || !isPrivate);
}

void Model::add(std::string_view kind, Asks asked) {
  if (admits(asked)) add(kind);
}

bool Model::sendsBatch() const {
  return isConnected && isStarted_ && hasSession_ && isTracking && isUploading &&
         std::ranges::any_of(rows_, [](std::size_t count) { return count > 0; });
}

}  // namespace marbleway::stress

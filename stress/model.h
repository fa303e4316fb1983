#pragma once

#include <string_view>

#include "stress/server.h"

namespace marbleway::stress {

/// What the library promises about the number of rows, and nothing else of it.
class Model {
 public:
  /// What an operation asks for beside a started library and tracking.
  enum class Asks { nothing, session, sessionWithoutPrivacy };

  bool isTracking = false, isUploading = false, isPrivate = false, isConnected = false;

  /// A start, up to its handshake.
  void start() { isStarted_ = hasSession_ = true; }
  /// The server refuses the project.
  void refuse() { isStarted_ = hasSession_ = false; }
  /// A session is started; without one, this is also what an event or a screen view begins with.
  void startSession();
  void endSession() { hasSession_ = false; }

  bool admits(Asks asked);
  /// A row of that kind, if the library records under these conditions.
  void add(std::string_view kind, Asks asked);
  /// A row whatever the state.
  void add(std::string_view kind) { ++rows_.at(kindNamed(kind)); }

  /// Whether a batch would be sent now, and what its acceptance leaves.
  bool sendsBatch() const;
  void accept() { rows_ = {}; }

  const Counts& rows() const { return rows_; }

 private:
  bool isStarted_ = false, hasSession_ = false;
  Counts rows_{};
};

}  // namespace marbleway::stress

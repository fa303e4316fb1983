#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "../network_capture.h"

namespace marbleway::platform::testing {

/// Records the names of the calls, oldest first. Thread: any.
class RecordingCapture : public NetworkCapture {
 public:
  void defaultConfiguration() override { record("defaultConfiguration"); }
  void load() override { record("load"); }
  void registerProtocol() override { record("registerProtocol"); }
  void unregisterProtocol() override { record("unregisterProtocol"); }

  /// The names so far.
  std::vector<std::string> calls() const {
    const std::scoped_lock lock(mutex_);
    return calls_;
  }

 private:
  void record(std::string call) {
    const std::scoped_lock lock(mutex_);
    calls_.push_back(std::move(call));
  }

  mutable std::mutex mutex_;
  std::vector<std::string> calls_;
};

}  // namespace marbleway::platform::testing

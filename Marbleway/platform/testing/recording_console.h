#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "../console.h"

namespace marbleway::platform::testing {

/// Stores the lines instead of writing them. Thread: any.
class RecordingConsole : public Console {
 public:
  void writeLine(std::string_view line) override {
    const std::scoped_lock lock(mutex_);
    lines_.emplace_back(line);
  }

  /// The lines so far, oldest first.
  std::vector<std::string> lines() const {
    const std::scoped_lock lock(mutex_);
    return lines_;
  }
  /// Returns the lines so far and removes them.
  std::vector<std::string> take() {
    const std::scoped_lock lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace marbleway::platform::testing

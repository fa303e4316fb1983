#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "../user_interface.h"

namespace marbleway::platform::testing {

/// An alert as it was shown.
struct ShownAlert {
  std::string title;    ///< Its first line.
  std::string message;  ///< Its text.
  std::string button;   ///< The text of its button.
  /// Equal texts.
  bool operator==(const ShownAlert&) const = default;
};

/// Records the calls to the user interface, oldest first. Thread: any.
class RecordingInterface : public UserInterface {
 public:
  void setBadgeNumber(int number) override { record(badges_, number); }
  void openURL(std::string_view url) override { record(urls_, std::string(url)); }
  void showAlert(std::string_view title, std::string_view message,
                 std::string_view button) override {
    record(alerts_, ShownAlert{std::string(title), std::string(message), std::string(button)});
  }

  ///@{
  /// What was shown or opened so far.
  std::vector<int> badgeNumbers() const { return copy(badges_); }
  std::vector<std::string> openedURLs() const { return copy(urls_); }
  std::vector<ShownAlert> alerts() const { return copy(alerts_); }
  ///@}

 private:
  template <class T>
  void record(std::vector<T>& list, T entry) {
    const std::scoped_lock lock(mutex_);
    list.push_back(std::move(entry));
  }
  template <class T>
  std::vector<T> copy(const std::vector<T>& list) const {
    const std::scoped_lock lock(mutex_);
    return list;
  }

  mutable std::mutex mutex_;
  std::vector<int> badges_;
  std::vector<std::string> urls_;
  std::vector<ShownAlert> alerts_;
};

}  // namespace marbleway::platform::testing

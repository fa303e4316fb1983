#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "../user_defaults.h"

namespace marbleway::platform::testing {

/// Settings in memory; a test starts "the next launch" with the same object. Thread: any.
class MemoryDefaults : public UserDefaults {
 public:
  /// Texts and flags under their keys.
  using Content = std::map<std::string, std::variant<std::string, bool>, std::less<>>;

  std::optional<std::string> text(std::string_view key) override {
    const std::scoped_lock lock(mutex_);
    const auto found = content_.find(key);
    if (found == content_.end()) return std::nullopt;
    const auto* text = std::get_if<std::string>(&found->second);
    return text == nullptr ? std::nullopt : std::optional(*text);
  }
  void setText(std::string_view key, std::string_view text) override {
    const std::scoped_lock lock(mutex_);
    content_.insert_or_assign(std::string(key), std::string(text));
  }
  void setFlag(std::string_view key, bool flag) override {
    const std::scoped_lock lock(mutex_);
    content_.insert_or_assign(std::string(key), flag);
  }
  void remove(std::string_view key) override {
    const std::scoped_lock lock(mutex_);
    if (const auto found = content_.find(key); found != content_.end()) content_.erase(found);
  }
  void synchronize() override {
    const std::scoped_lock lock(mutex_);
    ++synchronizations_;
  }

  /// Everything under its key: a text or a flag.
  Content content() const {
    const std::scoped_lock lock(mutex_);
    return content_;
  }
  /// The number of calls of `synchronize`.
  int synchronizations() const {
    const std::scoped_lock lock(mutex_);
    return synchronizations_;
  }

 private:
  mutable std::mutex mutex_;
  Content content_;
  int synchronizations_ = 0;
};

}  // namespace marbleway::platform::testing

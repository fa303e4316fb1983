#pragma once

#include <iterator>
#include <map>
#include <string>
#include <string_view>

namespace inspect {

/// When privacy mode was on, as far as the stored sessions show it: a session row says it for the
/// time from its start to that of the next.
class PrivateMode {
 public:
  /// In the order of the rows' ids. `start` is a text of "yyyy-MM-dd HH:mm:ss.SSS".
  void addSession(std::string_view start, bool isPrivate) {
    starts_.insert_or_assign(std::string(start), isPrivate);
  }

  /// Whether a row of `time` was recorded in privacy mode.
  bool covers(std::string_view time) const {
    const auto next = starts_.upper_bound(time);
    return next != starts_.begin() && std::prev(next)->second;
  }

 private:
  std::map<std::string, bool, std::less<>> starts_;
};

}  // namespace inspect

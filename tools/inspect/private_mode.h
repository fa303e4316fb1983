#pragma once

#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace inspect {

/// When privacy mode was on, as far as the stored sessions show it.
class PrivateMode {
 public:
  /// In the order of the sessions' ids. `start` is a text of "yyyy-MM-dd HH:mm:ss.SSS".
  void addSession(std::string_view session, std::string_view start, bool isPrivate) {
    starts_.insert_or_assign(std::string(start), isPrivate);
    if (isPrivate) sessions_.emplace(session);
  }

  /// Whether a row was recorded in privacy mode: in such a session or, for a row that belongs to no
  /// session, after the start of one and before that of the next.
  bool covers(std::optional<std::string_view> session, std::string_view time) const {
    if (session) return sessions_.contains(*session);
    const auto next = starts_.upper_bound(time);
    return next != starts_.begin() && std::prev(next)->second;
  }

 private:
  std::map<std::string, bool, std::less<>> starts_;
  std::set<std::string, std::less<>> sessions_;
};

}  // namespace inspect

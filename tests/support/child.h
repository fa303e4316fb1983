#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace marbleway::tests {

/// A child of this process that does `work`; an alarm ends it after `limit`.
class Child {
 public:
  explicit Child(const std::function<void()>& work,
                 std::chrono::seconds limit = std::chrono::seconds(60));
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  /// Called in a child: its parent reads `bytes`.
  static void report(std::string_view bytes);
  /// Called in a child: the shell's `command` takes its place and reports its output.
  static void exec(const std::string& command);
  /// Waits for `count` reported bytes, for one that is `last` or for the child's end; the bytes.
  std::string reported(std::size_t count, char last = '\0');
  void kill() const;
  /// Waits for its end: empty when its work is done and no expectation failed in it.
  std::string wait();

 private:
  pid_t process_ = -1;
  int reports_ = -1;
};

}  // namespace marbleway::tests

#include "tests/support/child.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "tests/support/fixture.h"

namespace marbleway::tests {
namespace {

int reportsToParent = -1;  // a child's

}  // namespace

Child::Child(const std::function<void()>& work, std::chrono::seconds limit) {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  (void)std::fflush(nullptr);  // or a child that exits writes it again
  process_ = fork();
  if (process_ == 0) {
    reportsToParent = ends[1];
    alarm(static_cast<unsigned>(limit.count()));
    [&]() noexcept { work(); }();  // an exception must not reach the tests' runner
    (void)std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
  }
  close(ends[1]);
  reports_ = ends[0];
}

Child::~Child() {
  kill();
  wait();
  close(reports_);
}

void Child::report(std::string_view bytes) {
  if (write(reportsToParent, bytes.data(), bytes.size()) < 0) _exit(EXIT_FAILURE);
}

void Child::exec(const std::string& command) {
  dup2(reportsToParent, STDOUT_FILENO);
  execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
}

std::string Child::reported(std::size_t count, char last) {
  std::string bytes;
  for (char next = 0; bytes.size() < count && read(reports_, &next, 1) == 1;) {
    bytes += next;
    if (next == last) break;
  }
  return bytes;
}

void Child::kill() const {
  if (process_ > 0) ::kill(process_, SIGKILL);
}

std::string Child::wait() {
  int status = 0;
  if (process_ > 0) waitpid(std::exchange(process_, -1), &status, 0);
  if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
  return status == 0 ? "" : "ended with " + std::to_string(WEXITSTATUS(status));
}

}  // namespace marbleway::tests

// Asked by the leak sanitizer: a child ends with work under way, whose memory is no leak.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __lsan_is_turned_off() { return marbleway::tests::reportsToParent >= 0 ? 1 : 0; }

#include "tests/support/process_ends.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"

namespace marbleway::tests {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using marbleway::testing::query;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxRows = 5000;
constexpr std::size_t kMaxBytes = 65536;

void tell(int descriptor, std::string_view bytes) {
  if (write(descriptor, bytes.data(), bytes.size()) < 0) _exit(EXIT_FAILURE);
}

std::string bytesOf(Clock::duration duration) {
  return {reinterpret_cast<const char*>(&duration), sizeof duration};
}

Clock::duration durationIn(std::string_view bytes) {
  Clock::duration duration{};
  std::memcpy(&duration, bytes.data(), std::min(bytes.size(), sizeof duration));
  return duration;
}

Fault faultOfStatus(int status) {
  if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
  return status == 0 ? "" : "ended with " + std::to_string(WEXITSTATUS(status));
}

std::vector<std::string> eventsIn(const fs::path& directory) {
  return query(directory / DBFileName, "SELECT EventName FROM mrbw_v2_events ORDER BY id");
}

// Both stores are whole, with all their tables, and nothing half-made lies beside them.
Fault faultOfStores(const fs::path& directory) {
  for (const Table& table : kTables) {
    query(directory / (table.store == Store::event ? DBFileName : HTTPDBFileName),
          std::string("SELECT count(*) FROM ").append(table.name));
  }
  for (const char* store : {DBFileName, HTTPDBFileName}) {
    const auto words = query(directory / store, "PRAGMA integrity_check");
    if (words != std::vector<std::string>{"ok"}) return words.at(0);
  }
  for (const auto& file : fs::directory_iterator(directory)) {
    const std::string name = file.path().filename();
    if (name.ends_with("-new")) return "left behind: " + name;
  }
  return {};
}

// A start and some rows, told one by one as each call returns.
void recordAndTell(const Start& start, int told) {
  start();
  for (std::size_t row = 0; row < kMaxRows; ++row) {
    Marbleway::trackEvent(std::to_string(row));
    tell(told, ".");
  }
}

// How many calls had returned when the child was killed.
std::size_t returnedBefore(const Start& start, std::size_t rows, std::chrono::nanoseconds instant) {
  Child child([&](int told) { recordAndTell(start, told); });
  std::size_t returned = child.told(rows).size();
  returned += child.told(kMaxRows, instant).size();
  child.kill();
  child.wait();
  return returned + child.told(kMaxRows).size();
}

// Tells the time and exits.
[[noreturn]] void exitNow(int told) {
  tell(told, bytesOf(Clock::now().time_since_epoch()));
  std::exit(EXIT_SUCCESS);
}

Exit exitOf(Child& child) {
  const auto called = durationIn(child.told(sizeof(Clock::duration)));
  const int status = child.wait();
  return {faultOfStatus(status), Clock::now().time_since_epoch() - called};
}

// An event, and what else takes locks: the patterns, the locale, the settings.
void recordEverything(const std::string& event) {
  Marbleway::trackEvent(event, {{"value", "12.5"}});
  Marbleway::linkUser("someone@example.org", "email");
  Marbleway::setUserAttribute("Phone", "+49123456");
  Marbleway::startSession();
}

// In the child of a fork: it sends nothing, and its row is its own.
void recordInFork(const std::string& event) {
  if (!waitUntilIdle(0ms)) _exit(2);
  recordEverything(event);
  batchData();
  Marbleway::stopSession();
  if (!waitUntilIdle(0ms)) _exit(3);
}

std::string nameOfChild(int number) { return "child " + std::to_string(number); }

Exit forkOften(int forks) {
  Exit longest;
  for (int i = 0; i < forks && longest.fault.empty(); ++i) {
    Child child([&](int told) {
      recordInFork(nameOfChild(i));
      exitNow(told);
    });
    const Exit exit = exitOf(child);
    longest = {exit.fault, std::max(longest.took, exit.took)};
  }
  return longest;
}

// The rows of three threads, recorded until this object goes.
class Recorders {
 public:
  Recorders() {
    for (std::thread& thread : threads_) {
      thread = std::thread([this] {
        while (!isOver_) {
          recordEverything("parent");
          ++rows_;
        }
      });
    }
  }
  Recorders(const Recorders&) = delete;
  Recorders& operator=(const Recorders&) = delete;
  ~Recorders() { end(); }

  /// How many rows there are to be.
  std::size_t end() {
    isOver_ = true;
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
    return rows_;
  }

 private:
  std::atomic<bool> isOver_{false};
  std::atomic<std::size_t> rows_{0};
  std::array<std::thread, 3> threads_;
};

Fault faultOfRows(const fs::path& directory, std::size_t parents, int forks) {
  const auto names = eventsIn(directory);
  const auto found = static_cast<std::size_t>(std::ranges::count(names, "parent"));
  if (found != parents) {
    return std::to_string(parents - found) + " of the parent's rows are lost";
  }
  const std::set<std::string> different(names.begin(), names.end());
  for (int i = 0; i < forks; ++i) {
    if (!different.contains(nameOfChild(i))) return "lost: the row of " + nameOfChild(i);
  }
  return {};
}

}  // namespace

Child::Child(const std::function<void(int told)>& work, std::chrono::seconds atMost) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  (void)std::fflush(nullptr);  // or a child that exits writes it again
  process_ = fork();
  if (process_ == 0) {
    alarm(static_cast<unsigned>(atMost.count()));
    try {
      work(ends[1]);
      _exit(EXIT_SUCCESS);
    } catch (const std::exception& failure) {
      tell(STDERR_FILENO, std::string(failure.what()) + "\n");
      _exit(EXIT_FAILURE);
    }
  }
  close(ends[1]);
  told_ = ends[0];
  if (process_ < 0) throw std::runtime_error("no process");
}

Child::~Child() {
  kill();
  wait();
  close(told_);
}

std::string Child::told(std::size_t most, std::chrono::nanoseconds atMost) {
  const auto deadline = Clock::now() + atMost;
  std::string bytes(std::min(most, kMaxBytes), '\0');
  std::size_t count = 0;
  while (count < bytes.size()) {
    const std::chrono::nanoseconds left = std::max(0ns, deadline - Clock::now());
    const timespec patience{.tv_sec = left / 1s, .tv_nsec = (left % 1s).count()};
    pollfd wait{.fd = told_, .events = POLLIN, .revents = 0};
    if (ppoll(&wait, 1, &patience, nullptr) <= 0) break;
    const ssize_t got = read(told_, bytes.data() + count, bytes.size() - count);
    if (got <= 0) break;
    count += static_cast<std::size_t>(got);
  }
  bytes.resize(count);
  return bytes;
}

void Child::kill() const {
  if (process_ > 0) ::kill(process_, SIGKILL);
}

int Child::wait() {
  int status = -1;
  if (process_ > 0) waitpid(std::exchange(process_, -1), &status, 0);
  return status;
}

Fault faultOfChild(const std::function<Fault()>& work, std::chrono::seconds atMost) {
  Child child([&](int told) { tell(told, work()); }, atMost);
  Fault fault = child.told(kMaxBytes, atMost);
  const Fault end = faultOfStatus(child.wait());
  return fault.empty() ? end : fault;
}

Fault killWhileRecording(const Start& start, const fs::path& directory, std::size_t rows,
                         std::chrono::nanoseconds instant) {
  const std::size_t returned = returnedBefore(start, rows, instant);
  if (returned < rows) return "only " + std::to_string(returned) + " calls returned";

  const Fault after = faultOfChild([&] {
    start();
    Marbleway::trackEvent("after");
    return Fault();
  });
  if (!after.empty()) return "the next start " + after;
  if (Fault fault = faultOfStores(directory); !fault.empty()) return fault;
  auto names = eventsIn(directory);
  if (names.empty() || names.back() != "after") return "the next start records nothing";
  names.pop_back();
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (names[i] != std::to_string(i)) return "row " + std::to_string(i) + " is " + names[i];
  }
  if (names.size() == returned || names.size() == returned + 1) return {};
  return std::to_string(returned) + " calls had returned, rows: " + std::to_string(names.size());
}

Exit exitInFlight(const std::function<void()>& begin, std::chrono::nanoseconds pause) {
  Child child([&](int told) {
    begin();
    std::this_thread::sleep_for(pause);
    exitNow(told);
  });
  return exitOf(child);
}

Exit forkWhileRecording(const Start& start, const fs::path& directory, int forks) {
  Exit longest;
  Child parent([&](int told) {
    start();
    Recorders recorders;
    Exit exits = forkOften(forks);
    const std::size_t rows = recorders.end();
    if (exits.fault.empty()) exits.fault = faultOfRows(directory, rows, forks);
    batchData();        // the parent goes on
    waitUntilIdle(1s);  // where the server answers
    tell(told, bytesOf(exits.took) + exits.fault);
  });
  const std::string told = parent.told(kMaxBytes);
  longest.took = durationIn(told);
  longest.fault = told.size() < sizeof longest.took ? "the parent told nothing"
                                                    : told.substr(sizeof longest.took);
  if (const Fault end = faultOfStatus(parent.wait()); longest.fault.empty()) longest.fault = end;
  return longest;
}

Failed fail(const std::string& program, const std::string& way, const fs::path& directory) {
  const std::string command =
      "S=handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:handle_sigfpe=0; "
      "exec env ASAN_OPTIONS=$ASAN_OPTIONS:$S UBSAN_OPTIONS=$UBSAN_OPTIONS:$S "
      "TSAN_OPTIONS=$TSAN_OPTIONS:$S:atexit_sleep_ms=0 '" +
      program + "' '" + way + "' " + directory.string() + " 2>/dev/null";
  Failed outcome;
  const auto start = Clock::now();
  FILE* const child = popen(command.c_str(), "re");
  if (child == nullptr) return outcome;
  for (int next = 0; (next = std::fgetc(child)) != EOF;) {
    outcome.output.push_back(static_cast<char>(next));
  }
  const int status = pclose(child);
  outcome.time = Clock::now() - start;
  outcome.end = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return outcome;
}

Fault crash(const std::string& program, const Failing& failing, const fs::path& directory) {
  const int end = fail(program, failing.way, directory).end;
  if (end != 128 + failing.signal) return "ended with " + std::to_string(end);
  const auto rows = query(directory / DBFileName, "SELECT CrashDetails FROM mrbw_v2_crashes");
  if (rows.size() != 1) return std::to_string(rows.size()) + " rows tell of it";
  // A description ends with its line.
  const bool isTold = (rows.at(0) + "\n").starts_with(failing.description);
  return isTold ? faultOfStores(directory) : "it is told as " + rows.at(0);
}

}  // namespace marbleway::tests

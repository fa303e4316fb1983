#include "tests/support/process_ends.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/upload/batch.h"
#include "tests/support/fixture.h"
#include "tests/support/loopback_server.h"

namespace marbleway::tests {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using marbleway::testing::query;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxRows = 5000, kMaxBytes = 65536;
bool isChild = false;  // ends with work under way, whose memory is no leak

void report(int descriptor, std::string_view bytes) {
  if (write(descriptor, bytes.data(), bytes.size()) < 0) _exit(EXIT_FAILURE);
}

Fault killed(const fs::path& directory, std::size_t rows, std::chrono::nanoseconds instant) {
  const RefusingPort nobody;
  Child child([&](int reports) {
    startLibrary(directory, nobody.url());
    for (std::size_t row = 0; row < kMaxRows; ++row) {
      Marbleway::trackEvent(std::to_string(row));
      report(reports, ".");
    }
  });
  std::size_t returned = child.reported(rows).size();
  returned += child.reported(kMaxRows, instant).size();
  child.kill();
  child.wait();
  returned += child.reported(kMaxRows).size();
  if (returned < rows) return "only " + std::to_string(returned) + " calls returned";

  const Fault after = faultOfChild([&] {
    startLibrary(directory, nobody.url());
    Marbleway::trackEvent("after");
    return faultOfStores(directory);
  });
  if (!after.empty()) return "the next start: " + after;
  const auto names = eventsIn(directory);
  const std::size_t count = names.size() - 1;
  if (names.empty() || names.back() != "after") return "the next start records nothing";
  for (std::size_t i = 0; i < count; ++i) {
    if (names[i] != std::to_string(i)) return "row " + std::to_string(i) + " is " + names[i];
  }
  if (count == returned || count == returned + 1) return {};
  return std::to_string(returned) + " calls had returned, rows: " + std::to_string(count);
}

// Waits for the end of a child that reports a byte and exits.
Fault faultOfExit(Child& child, std::chrono::milliseconds most) {
  child.reported(1);
  const auto start = Clock::now();
  if (Fault fault = child.wait(); !fault.empty()) return fault;
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  return took <= most ? "" : "the exit took " + std::to_string(took.count()) + " ms";
}

[[noreturn]] void exitNow(int reports) {
  report(reports, ".");
  std::exit(EXIT_SUCCESS);
}

// An event, and what else takes locks: the patterns, the locale, the settings.
void recordEverything(const std::string& event) {
  Marbleway::trackEvent(event, {{"value", "12.5"}});
  Marbleway::linkUser("someone@example.org", "email");
  Marbleway::setUserAttribute("Phone", "+49123456");
  Marbleway::startSession();
}

Fault forkOften(const fs::path& directory, const std::string& url, std::chrono::milliseconds most) {
  constexpr int kForks = 10;
  std::atomic<bool> isOver = false;
  std::atomic<std::ptrdiff_t> rows = 0;
  std::vector<std::jthread> recorders(3);
  for (std::jthread& thread : recorders) {
    thread = std::jthread([&] {
      for (; !isOver; ++rows) recordEverything("parent");
    });
  }
  Fault fault;
  for (int i = 0; i < kForks && fault.empty(); ++i) {
    Child child([&](int reports) {
      if (!waitUntilIdle(0ms)) _exit(2);
      recordEverything("before its start");
      startLibrary(directory, url);
      recordEverything("child");
      exitNow(reports);
    });
    fault = faultOfExit(child, most);
  }
  isOver = true;
  recorders.clear();
  const auto names = eventsIn(directory);
  const auto lost = rows - std::ranges::count(names, "parent");
  if (lost != 0 && fault.empty()) fault = std::to_string(lost) + " of the parent's rows are lost";
  if (std::ranges::count(names, "child") != kForks && fault.empty())
    fault = "a child's row is lost";
  if (std::ranges::count(names, "before its start") != 0) fault = "a row before a child's start";
  return fault;
}

}  // namespace

Child::Child(const std::function<void(int reports)>& work, std::chrono::seconds atMost) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  (void)std::fflush(nullptr);  // or a child that exits writes it again
  process_ = fork();
  if (process_ == 0) {
    isChild = true;
    alarm(static_cast<unsigned>(atMost.count()));
    try {
      work(ends[1]);
      _exit(EXIT_SUCCESS);
    } catch (const std::exception& failure) {
      report(STDERR_FILENO, std::string(failure.what()) + "\n");
      _exit(EXIT_FAILURE);
    }
  }
  close(ends[1]);
  reports_ = ends[0];
  if (process_ < 0) throw std::runtime_error("no process");
}

Child::~Child() {
  kill();
  wait();
  close(reports_);
}

std::string Child::reported(std::size_t most, std::chrono::nanoseconds atMost) {
  const auto deadline = Clock::now() + atMost;
  std::string bytes(std::min(most, kMaxBytes), '\0');
  std::size_t count = 0;
  while (count < bytes.size()) {
    const std::chrono::nanoseconds left = std::max(0ns, deadline - Clock::now());
    const timespec timeout{.tv_sec = left / 1s, .tv_nsec = (left % 1s).count()};
    pollfd readable{.fd = reports_, .events = POLLIN, .revents = 0};
    if (ppoll(&readable, 1, &timeout, nullptr) <= 0) break;
    const ssize_t got = read(reports_, bytes.data() + count, bytes.size() - count);
    if (got <= 0) break;
    count += static_cast<std::size_t>(got);
  }
  bytes.resize(count);
  return bytes;
}

void Child::kill() const {
  if (process_ > 0) ::kill(process_, SIGKILL);
}

Fault Child::wait() {
  int status = 0;
  if (process_ > 0) waitpid(std::exchange(process_, -1), &status, 0);
  if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
  return status == 0 ? "" : "ended with " + std::to_string(WEXITSTATUS(status));
}

Fault faultOfChild(const std::function<Fault()>& work, std::chrono::seconds atMost) {
  Child child([&](int reports) { report(reports, work()); }, atMost);
  Fault fault = child.reported(kMaxBytes, atMost);
  const Fault end = child.wait();
  return fault.empty() ? end : fault;
}

Fault Rounds::run(const std::function<Fault(const fs::path& directory)>& round) {
  for (int i = 0; i < count; ++i) {
    const fs::path own = directory / std::to_string(i);
    fs::create_directories(own);
    const Fault fault = round(own);
    if (!fault.empty()) return "round " + std::to_string(i) + ": " + fault;
    fs::remove_all(own);
  }
  return {};
}

std::chrono::nanoseconds Rounds::instant(std::chrono::milliseconds longest) {
  return std::chrono::microseconds(below(static_cast<int>(longest / 1us)));
}

void startLibrary(const fs::path& directory, const std::string& url) {
  Configuration host;
  host.documentsDirectory = directory;
  host.developmentURL = url;
  configure(std::move(host));
  Marbleway::initMarbleway(
      "token", {{"LoggingEnabled", false}, {"SDKEnvironment", 1}, {"PrivacyMode", false}});
}

std::vector<std::string> eventsIn(const fs::path& directory) {
  return query(directory / DBFileName, "SELECT EventName FROM mrbw_v2_events ORDER BY id");
}

Fault faultOfStores(const fs::path& directory) {
  for (const Table& table : kTables) {
    const fs::path store = directory / (table.store == Store::event ? DBFileName : HTTPDBFileName);
    query(store, std::string("SELECT count(*) FROM ").append(table.name));
    const auto words = query(store, "PRAGMA integrity_check");
    if (words != std::vector<std::string>{"ok"}) return words.at(0);
  }
  for (const auto& file : fs::directory_iterator(directory)) {
    const std::string name = file.path().filename();
    if (name.ends_with("-new")) return "left behind: " + name;
  }
  return {};
}

Fault killFirstStart(Rounds& rounds) {
  return rounds.run([&](const fs::path& own) { return killed(own, 0, rounds.instant(20ms)); });
}

Fault killRecording(Rounds& rounds) {
  return rounds.run([&](const fs::path& own) {
    return killed(own, static_cast<std::size_t>(1 + rounds.below(50)), rounds.instant(20ms));
  });
}

Fault exitInFlight(Rounds& rounds, const std::function<void(const fs::path&)>& begin,
                   std::chrono::milliseconds most) {
  return rounds.run([&](const fs::path& own) {
    const auto pause = rounds.instant(60ms);
    Child child([&](int reports) {
      begin(own);
      isConnectedToInternet = true;
      Marbleway::trackEvent("e");
      batchData();
      std::this_thread::sleep_for(pause);
      exitNow(reports);
    });
    return faultOfExit(child, most);
  });
}

Fault forkRecording(Rounds& rounds, std::chrono::milliseconds most) {
  return rounds.run([&](const fs::path& own) {
    LoopbackServer silent;
    silent.answerWith([](const Received&) { return Answer{.manner = Manner::never}; });
    return faultOfChild([&] {
      startLibrary(own, silent.url());
      return forkOften(own, silent.url(), most);
    });
  });
}

Failed fail(const std::string& program, const std::string& way, const fs::path& directory,
            int place) {
  const std::string command =
      "S=handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:handle_sigfpe=0; "
      "exec env ASAN_OPTIONS=$ASAN_OPTIONS:$S UBSAN_OPTIONS=$UBSAN_OPTIONS:$S "
      "TSAN_OPTIONS=$TSAN_OPTIONS:$S:atexit_sleep_ms=0 '" +
      program + "' '" + way + "' " + directory.string() + " " + std::to_string(place) +
      " 2>/dev/null";
  Failed outcome;
  FILE* const child = popen(command.c_str(), "re");
  if (child == nullptr) return outcome;
  for (int next = 0; (next = std::fgetc(child)) != EOF;) {
    outcome.output.push_back(static_cast<char>(next));
  }
  const int status = pclose(child);
  outcome.end = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  return outcome;
}

Fault crash(const std::string& program, const Failing& failing, const fs::path& directory,
            int place) {
  fs::permissions(directory, fs::perms::all);  // a child may have given up its rights
  const int end = fail(program, failing.way, directory, place).end;
  if (end != failing.end) return "ended with " + std::to_string(end);
  if (fail(program, "start", directory).end != 0) return "does not start again";
  const auto rows = query(directory / DBFileName,
                          "SELECT CrashDetails || char(10) || StackTrace FROM mrbw_v2_crashes");
  const bool hasRow = failing.description != nullptr;
  if (rows.size() != (hasRow ? 1 : 0)) return std::to_string(rows.size()) + " rows";
  // A row that another start makes knows the modules only, or nothing if the process ended soon.
  const auto names = [&](const char* text) { return rows[0].find(text) != std::string::npos; };
  const bool isAsExpected =
      !hasRow || (rows[0].starts_with(failing.description) &&
                  (names(failing.function) || names("crashing_child + 0x") || names("0 ? 0x")));
  return isAsExpected ? faultOfStores(directory) : "recorded as " + rows[0];
}

}  // namespace marbleway::tests

// Asked by the leak sanitizer. NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __lsan_is_turned_off() { return marbleway::tests::isChild ? 1 : 0; }

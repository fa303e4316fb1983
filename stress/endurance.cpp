#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <thread>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/upload/batch.h"
#include "stress/loops.h"
#include "stress/server.h"

namespace marbleway::stress {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A file system of this process's own. A user who is not root becomes it in a namespace.
bool mountSmall(const fs::path& directory) {
  const std::string user = std::to_string(getuid()), group = std::to_string(getgid());
  if (unshare(CLONE_NEWNS) != 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " + user + " 1";
    std::ofstream("/proc/self/gid_map") << "0 " + group + " 1";
  }
  return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=256k,mode=0700") == 0;
}

// Every operation that writes, while a file takes every byte that is left.
void useWithoutSpace(const fs::path& directory) {
  {
    std::ofstream ballast(directory / "ballast");
    const std::string block(4096, 'x');
    while (ballast << block << std::flush) continue;
  }
  for (int i = 0; i < 200; ++i) Marbleway::trackEvent("x", {{"text", std::string(300, 'x')}});
  Marbleway::linkUser("someone@example.org", "email");
  batchData();
  Marbleway::stopSession();
  Marbleway::startSession();
  waitUntilIdle(10s);
}

Fault fillAndRecover(const fs::path& directory, bool isFirstStart) {
  Server server;
  server.status = 500;
  const auto start = [&] { tests::startLibrary(directory, server.url()); };
  const std::ptrdiff_t old = isFirstStart ? 0 : 50;
  if (!isFirstStart) start();
  waitUntilIdle(10s);
  for (std::ptrdiff_t i = 0; i < old; ++i) Marbleway::trackEvent("old");
  if (isFirstStart) {
    std::ofstream ballast(directory / "ballast");
    ballast << std::string(1 << 20, 'x') << std::flush;
    start();
  }
  useWithoutSpace(directory);
  fs::remove(directory / "ballast");
  if (isFirstStart) start();
  waitUntilIdle(10s);
  Marbleway::trackEvent("after");
  const auto names = tests::eventsIn(directory);
  if (std::ranges::count(names, "old") != old) return "old rows are lost";
  if (names.empty() || names.back() != "after") return "recording does not resume";
  if (Fault fault = tests::faultOfStores(directory); !fault.empty()) return fault;
  const std::size_t before = server.documents;
  server.status = 200;
  batchData();
  if (!waitUntilIdle(10s) || server.documents != before + 1) return "uploading does not resume";
  return tests::eventsIn(directory).empty() ? server.fault() : "what was uploaded is not deleted";
}

struct Sample {
  double kilobytes = 0;  // resident, of its own
  std::ptrdiff_t descriptors = 0, threads = 0;
};

Sample takeSample() {
  const auto entriesIn = [](const char* directory) {
    return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
  };
  Sample sample{.descriptors = entriesIn("/proc/self/fd"), .threads = entriesIn("/proc/self/task")};
  std::ifstream lines("/proc/self/status");
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("RssAnon:")) sample.kilobytes = std::strtod(&line[8], nullptr) * 1.024;
  }
  return sample;
}

// A session with rows of all sorts, uploaded at its end.
void useOnce(int number) {
  Marbleway::startSession();
  Marbleway::linkUser("someone@example.org", "email");
  for (int i = 0; i < 10; ++i) {
    Marbleway::trackEvent("event", {{"number", number}, {"text", std::string(100, 'x')}});
    Marbleway::trackScreenView("screen");
    Marbleway::setUserAttribute("attribute", "value");
  }
  Marbleway::logError("error", "message", std::runtime_error("reason"));
  Marbleway::stopSession();
  waitUntilIdle(10s);
}

// Kilobytes a minute between the first and the last tenth of the samples, a second apart.
double growthOf(const std::vector<Sample>& samples) {
  const auto tenth = std::max<std::ptrdiff_t>(1, std::ssize(samples) / 10);
  double growth = 0;
  for (std::ptrdiff_t i = 0; i < tenth; ++i) {
    growth += (samples.end() - 1 - i)->kilobytes - (samples.begin() + i)->kilobytes;
  }
  return growth / static_cast<double>(tenth) * 60 / static_cast<double>(std::ssize(samples));
}

}  // namespace

Fault recordUnderLoad(Rounds& rounds) {
  constexpr int kThreads = 8;
  Server server;
  server.status = 500;
  tests::startLibrary(rounds.directory, server.url());
  waitUntilIdle(10s);
  std::atomic<int> recording = kThreads;
  std::array<Clock::duration, kThreads> longest{};
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int row = 0; row < rounds.count; ++row) {
        const auto start = Clock::now();
        Marbleway::trackEvent(std::to_string(thread) + " " + std::to_string(row));
        auto& mine = longest.at(static_cast<std::size_t>(thread));
        mine = std::max(mine, Clock::now() - start);
      }
      --recording;
    });
  }
  Fault fault;
  for (std::size_t seen = 0; recording > 0;) {
    batchData();
    waitUntilIdle(60s);
    Counts counts = server.latest();
    if (counts["Events"] < seen || counts["Sessions"] == 0) fault = "a table was read as empty";
    seen = counts["Events"];
  }
  threads.clear();
  const auto names = tests::eventsIn(rounds.directory);
  const std::size_t found = std::set<std::string>(names.begin(), names.end()).size();
  const auto all = static_cast<std::size_t>(kThreads * rounds.count);
  const auto slowest =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::ranges::max(longest));
  rounds.figures = ", " + std::to_string(server.documents) + " documents, the longest call " +
                   std::to_string(slowest.count()) + " ms";
  if (found != all || names.size() != found) fault = std::to_string(all - found) + " rows lost";
  return fault.empty() ? server.fault() : fault;
}

Fault fillDisk(Rounds& rounds) {
  if (!mountSmall(rounds.directory)) return "not run: no small file system";
  return rounds.run([&](const fs::path& own) {
    const bool isFirstStart = rounds.below(2) == 0;
    return tests::faultOfChild([&] { return fillAndRecover(own, isFirstStart); });
  });
}

// The first minute does not count. The server is a process of its own, so that its memory is apart;
// the status of batches alternates.
Fault soak(Rounds& rounds) {
  const auto end = Clock::now() + std::chrono::seconds(rounds.count);
  tests::Child serving(
      [](int reports) {
        Server server;
        const std::string url = server.url() + "\n";
        if (write(reports, url.data(), url.size()) < 0) return;
        for (int i = 0;; ++i, std::this_thread::sleep_for(50ms))
          server.status = i % 4 == 0 ? 500 : 200;
      },
      std::chrono::seconds(rounds.count + 600));
  std::string url = serving.reported(64, 2s);
  url.erase(url.find('\n'));
  tests::startLibrary(rounds.directory, url);

  std::vector<Sample> samples;
  int sessions = 0;
  for (auto next = Clock::now() + 60s; Clock::now() < end; useOnce(++sessions)) {
    if (Clock::now() < next) continue;
    samples.push_back(takeSample());
    next += 1s;
  }
  if (samples.size() < 2) return "too short: the first minute does not count";
  const double growth = growthOf(samples);
  const auto isFlat = [&](auto member) {
    const auto [least, most] = std::ranges::minmax(samples, {}, member);
    return least.*member == most.*member;
  };
  rounds.figures = ", " + std::to_string(static_cast<long>(growth)) + " kB a minute, " +
                   std::to_string(sessions) + " sessions";
  if (!isFlat(&Sample::descriptors) || !isFlat(&Sample::threads))
    return "descriptors or threads vary";
  return growth < 100 ? "" : "memory grows";
}

}  // namespace marbleway::stress

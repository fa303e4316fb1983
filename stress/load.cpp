#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <thread>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/upload/batch.h"
#include "stress/server.h"
#include "stress/setting.h"

namespace marbleway::stress {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kThreads = 8;

// The time that each call takes.
std::vector<Clock::duration> record(std::size_t thread, int rows) {
  std::vector<Clock::duration> times(static_cast<std::size_t>(rows));
  for (int row = 0; row < rows; ++row) {
    const std::string name = std::to_string(thread) + " " + std::to_string(row);
    const auto start = Clock::now();
    Marbleway::trackEvent(name);
    times[static_cast<std::size_t>(row)] = Clock::now() - start;
  }
  return times;
}

// Uploads while `recording` is not 0; how often a batch held less than the one before.
int uploadMeanwhile(const std::atomic<std::size_t>& recording, const BatchServer& server) {
  int tooFew = 0;
  std::size_t seen = 0;
  while (recording > 0) {
    batchData();
    waitUntilIdle(60s);
    const Counts counts = server.latest();
    const std::size_t events = counts[kindNamed("Events")];
    if (events < seen || counts[kindNamed("Sessions")] == 0) ++tooFew;
    seen = events;
  }
  return tooFew;
}

}  // namespace

Outcome recordUnderLoad(const Effort& effort) {
  BatchServer server;
  server.answerBatchesBy(500);
  startLibrary(effort.directory, server.url());
  waitUntilIdle(10s);

  const int rows = effort.of(12500);
  std::vector<std::vector<Clock::duration>> times(kThreads);
  std::atomic<std::size_t> recording = kThreads;
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      times[thread] = record(thread, rows);
      --recording;
    });
  }
  const int tooFew = uploadMeanwhile(recording, server);
  for (std::thread& thread : threads) thread.join();

  std::vector<Clock::duration> all;
  for (const auto& some : times) all.insert(all.end(), some.begin(), some.end());
  std::ranges::sort(all);
  const auto names = eventNames(effort.directory);
  const std::size_t found = std::set<std::string>(names.begin(), names.end()).size();
  const std::string fault = server.fault();
  return {found == all.size() && names.size() == found && tooFew == 0 && fault.empty(),
          lossOf(found, all.size()) + ", " + std::to_string(tooFew) + " read as empty of " +
              std::to_string(server.documents()) + "; p99 " +
              milliseconds(all[all.size() * 99 / 100]) + ", longest " + milliseconds(all.back()) +
              (fault.empty() ? "" : "; " + fault)};
}

}  // namespace marbleway::stress

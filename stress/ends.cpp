#include <algorithm>
#include <chrono>
#include <iterator>
#include <random>
#include <thread>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/startup/state.h"
#include "Marbleway/upload/batch.h"
#include "stress/server.h"
#include "stress/setting.h"
#include "tests/support/loopback_server.h"

namespace marbleway::stress {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using tests::Exit;
using tests::Fault;

constexpr auto kLongestExit = 100ms;

Fault killed(const fs::path& directory, std::size_t rows, std::chrono::nanoseconds instant) {
  const tests::RefusingPort nobody;
  return tests::killWhileRecording([&] { startLibrary(directory, nobody.url()); }, directory, rows,
                                   instant);
}

// Keeps the longest exit, and finds fault with one that takes too long.
Fault faultOf(const Exit& exit, std::chrono::nanoseconds& longest) {
  longest = std::max(longest, exit.took);
  if (exit.fault.empty() && exit.took > kLongestExit) return "took " + milliseconds(exit.took);
  return exit.fault;
}

Outcome withLongest(Outcome outcome, std::chrono::nanoseconds longest) {
  outcome.result += "; longest exit " + milliseconds(longest);
  return outcome;
}

// The handshake and a batch, under way to `url`.
void beginTransfers(const fs::path& directory, const std::string& url) {
  startLibrary(directory, url);
  isConnectedToInternet = true;
  Marbleway::trackEvent("e");
  batchData();
}

}  // namespace

Outcome killRecording(const Effort& effort) {
  return repeat(effort, effort.of(300), [](const fs::path& directory, Chance& chance) {
    const std::size_t rows = std::uniform_int_distribution<std::size_t>(1, 50)(chance);
    return killed(directory, rows, instantBefore(20ms, chance));
  });
}

Outcome killFirstStart(const Effort& effort) {
  return repeat(effort, effort.of(100), [](const fs::path& directory, Chance& chance) {
    return killed(directory, 0, instantBefore(20ms, chance));
  });
}

Outcome exitInTLS(const Effort& effort) {
  tests::LoopbackServer silent;  // answers no greeting
  TLSServer speaking;
  std::chrono::nanoseconds longest{};
  const auto outcome =
      repeat(effort, effort.of(150), [&](const fs::path& directory, Chance& chance) {
        const std::string url = chance() % 2 == 0 ? silent.url("https") : speaking.url();
        const auto pause = instantBefore(80ms, chance);
        return faultOf(tests::exitInFlight([&] { beginTransfers(directory, url); }, pause),
                       longest);
      });
  return withLongest(outcome, longest);
}

Outcome forkRecording(const Effort& effort) {
  constexpr int kForks = 20;
  std::chrono::nanoseconds longest{};
  const auto outcome =
      repeat(effort, effort.of(200 / kForks), [&](const fs::path& directory, Chance& /*chance*/) {
        tests::LoopbackServer silent;
        const auto start = [&] { beginTransfers(directory, silent.url("https")); };
        return faultOf(tests::forkWhileRecording(start, directory, kForks), longest);
      });
  return withLongest(outcome, longest);
}

Outcome crashInEveryWay(const Effort& effort) {
  std::size_t next = 0;
  const auto ways = static_cast<int>(std::size(tests::kFailing));
  return repeat(effort, ways * effort.of(20), [&](const fs::path& directory, Chance& /*chance*/) {
    const tests::Failing& failing = tests::kFailing[next++ % std::size(tests::kFailing)];
    const Fault fault = tests::crash(CRASHING_CHILD, failing, directory);
    return fault.empty() ? fault : failing.way + (": " + fault);
  });
}

}  // namespace marbleway::stress

#include <algorithm>
#include <chrono>
#include <iterator>
#include <random>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "Marbleway/core/state.h"
#include "Marbleway/platform/linux/http_client.h"
#include "Marbleway/platform/platform.h"
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

constexpr auto kMaxExitTime = 100ms;

Fault killed(const fs::path& directory, std::size_t rows, std::chrono::nanoseconds instant) {
  const tests::RefusingPort nobody;
  return tests::killWhileRecording([&] { startLibrary(directory, nobody.url()); }, directory, rows,
                                   instant);
}

// The exits of a loop. One that takes too long is no fault of its round, and misses the goal.
class Exits {
 public:
  Fault add(const Exit& exit) {
    times_.push_back(exit.took);
    return exit.fault;
  }

  /// `what` names the times.
  Outcome judge(Outcome outcome, const char* what) {
    std::ranges::sort(times_);
    const auto slow = std::ranges::count_if(times_, [](auto time) { return time > kMaxExitTime; });
    outcome.isMet = outcome.isMet && slow == 0;
    outcome.result += std::string("; ") + what + ": median " +
                      milliseconds(times_[times_.size() / 2]) + ", longest " +
                      milliseconds(times_.back()) + ", " + std::to_string(slow) + " over 100 ms";
    return outcome;
  }

 private:
  std::vector<std::chrono::nanoseconds> times_;
};

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

// At a server that is silent, one that is not trusted, and one that is trusted and answers late.
Outcome exitInTLS(const Effort& effort) {
  tests::LoopbackServer silent;
  TLSServer speaking(effort.directory);
  Exits exits;
  auto outcome = repeat(effort, effort.of(150), [&](const fs::path& directory, Chance& chance) {
    const std::string url = chance() % 3 == 0 ? silent.url("https") : speaking.url();
    const bool isTrusted = chance() % 3 != 0;
    const auto pause = instantBefore(100ms, chance);
    const auto begin = [&] {
      const fs::path authorities = isTrusted ? speaking.authorities() : fs::path();
      platform::install({.httpClient = platform::makeCurlClient({.authorities = authorities})});
      beginTransfers(directory, url);
    };
    return exits.add(tests::exitInFlight(begin, pause));
  });
  outcome.result += "; " + std::to_string(speaking.requests()) + " requests got through";
  return exits.judge(outcome, "exits");
}

Outcome forkRecording(const Effort& effort) {
  constexpr int kForks = 20;
  Exits exits;
  const auto outcome =
      repeat(effort, effort.of(200 / kForks), [&](const fs::path& directory, Chance& /*chance*/) {
        tests::LoopbackServer silent;
        const auto start = [&] { beginTransfers(directory, silent.url("https")); };
        return exits.add(tests::forkWhileRecording(start, directory, kForks));
      });
  return exits.judge(outcome, "longest of 20 exits");
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

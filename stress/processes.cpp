#include <algorithm>
#include <chrono>
#include <thread>

#include "Marbleway/Marbleway.h"
#include "stress/setting.h"
#include "tests/support/loopback_server.h"

namespace marbleway::stress {
namespace {

using namespace std::chrono_literals;
using tests::Child;

// Two processes start at once in one directory and record so many rows each, `pause` apart. The
// outcome is met when no more than `mostLost` of all are lost.
Outcome recordInTwo(const Effort& effort, int rows, std::chrono::milliseconds pause,
                    std::size_t mostLost) {
  const tests::RefusingPort nobody;
  const auto record = [&](int /*told*/) {
    startLibrary(effort.directory, nobody.url());
    for (int row = 0; row < rows; ++row) {
      Marbleway::trackEvent("row");
      if (pause > 0ms) std::this_thread::sleep_for(pause);
    }
  };
  Child one(record, 600s);
  Child other(record, 600s);
  const bool areDone = one.wait() == 0 && other.wait() == 0;
  const auto names = eventNames(effort.directory);
  const auto found = static_cast<std::size_t>(std::ranges::count(names, "row"));
  const std::size_t recorded = 2 * static_cast<std::size_t>(rows);
  return {areDone && found <= recorded && recorded - found <= mostLost,
          lossOf(found, recorded) + (areDone ? "" : "; a process came to another end")};
}

}  // namespace

Outcome recordInTwoProcesses(const Effort& effort) {
  return recordInTwo(effort, effort.of(200), 20ms, 0);
}

Outcome saturateInTwoProcesses(const Effort& effort) {
  const int rows = effort.of(20000);
  return recordInTwo(effort, rows, 0ms, 2 * static_cast<std::size_t>(rows) / 100);
}

}  // namespace marbleway::stress

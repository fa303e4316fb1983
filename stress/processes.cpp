#include <fstream>
#include <iterator>

#include "Marbleway/Marbleway.h"
#include "Marbleway/platform/linux/http_client.h"
#include "Marbleway/platform/linux/services.h"
#include "Marbleway/platform/platform.h"
#include "Marbleway/platform/value.h"
#include "stress/loops.h"
#include "stress/server.h"
#include "tests/support/loopback_server.h"

namespace marbleway::stress {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using tests::Child;

constexpr auto kExitTime = 100ms;

// Settings with the keys `prefix` and 0, 1, ..., each reported once it has been written.
void writeAndReport(const fs::path& file, const std::string& prefix, int count, int reports) {
  const auto settings = platform::makeFileDefaults(file);
  for (int i = 0; i < count; ++i) {
    settings->setText(prefix + std::to_string(i), prefix);
    settings->synchronize();
    if (write(reports, ".", 1) != 1) return;
  }
}

std::size_t keysIn(const Dictionary& settings, const std::string& prefix) {
  std::size_t keys = 0;
  while (settings.find(prefix + std::to_string(keys)) != nullptr) ++keys;
  return keys;
}

}  // namespace

// At a server that is silent, one that is not trusted, and one that is trusted and answers late.
Fault exitInTransfer(Rounds& rounds) {
  const tests::LoopbackServer silent;
  const Server speaking(rounds.directory);
  return tests::exitInFlight(
      rounds,
      [&](const fs::path& own) {
        const int turn = std::stoi(own.filename()) % 3;
        const bool isTrusted = turn == 2;
        const fs::path authorities = isTrusted ? rounds.directory / "authorities.pem" : fs::path();
        platform::install({.httpClient = platform::makeCurlClient({.authorities = authorities})});
        tests::startLibrary(own, turn == 0 ? silent.url("https") : speaking.url());
      },
      kExitTime);
}

Fault forkRecording(Rounds& rounds) { return tests::forkRecording(rounds, kExitTime); }

Fault crashInEveryWay(Rounds& rounds) {
  std::size_t turn = 0;
  return rounds.run([&](const fs::path& own) {
    const tests::Failing& failing = tests::kFailing[turn++ % std::size(tests::kFailing)];
    const Fault fault = tests::crash(CRASHING_CHILD, failing, own, rounds.below(48));
    return fault.empty() ? fault : failing.way + (": " + fault);
  });
}

Fault recordInTwoProcesses(Rounds& rounds) {
  const tests::RefusingPort nobody;
  const auto record = [&](int /*reports*/) {
    tests::startLibrary(rounds.directory, nobody.url());
    for (int row = 0; row < rounds.count; ++row) Marbleway::trackEvent("row");
  };
  Child one(record, 600s), other(record, 600s);
  Fault fault = one.wait() + other.wait();
  const auto recorded = 2 * static_cast<std::size_t>(rounds.count);
  const std::size_t found = tests::eventsIn(rounds.directory).size();
  rounds.figures =
      ", " + std::to_string(recorded - found) + " of " + std::to_string(recorded) + " lost";
  if (fault.empty() && recorded - found > recorded / 100) fault = "too many rows are lost";
  return fault;
}

Fault writeSettings(Rounds& rounds) {
  return rounds.run([&](const fs::path& own) -> Fault {
    const fs::path file = own / "user-defaults.json";
    Child killed([&](int reports) { writeAndReport(file, "killed", 1000, reports); });
    Child other([&](int reports) { writeAndReport(file, "other", 20, reports); });
    std::size_t written = killed.reported(static_cast<std::size_t>(1 + rounds.below(20))).size();
    written += killed.reported(1000, rounds.instant(10ms)).size();
    killed.kill();
    killed.wait();
    written += killed.reported(1000).size();
    if (Fault fault = other.wait(); !fault.empty()) return fault;

    std::ifstream stream(file);
    const auto settings = valueFromJSON(std::string(std::istreambuf_iterator<char>(stream), {}));
    if (!settings || fs::exists(file.string() + ".unreadable")) return "the file is torn";
    const auto& members = *settings->as<Dictionary>();
    const bool areThere = keysIn(members, "killed") >= written && keysIn(members, "other") == 20;
    return areThere ? "" : "keys are lost";
  });
}

}  // namespace marbleway::stress

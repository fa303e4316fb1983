#include "stress/setting.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "tests/support/fixture.h"

namespace marbleway::stress {

int Effort::of(int full) const { return std::max(1, static_cast<int>(full * share)); }

void startLibrary(const std::filesystem::path& directory, const std::string& url) {
  Configuration host;
  host.documentsDirectory = directory;
  host.developmentURL = url;
  configure(std::move(host));
  Marbleway::initMarbleway(
      "stress", {{"LoggingEnabled", false}, {"SDKEnvironment", 1}, {"PrivacyMode", false}});
}

Outcome repeat(const Effort& effort, int rounds, const Round& round) {
  Chance chance(effort.seed);
  int faults = 0;
  tests::Fault first;
  for (int i = 0; i < rounds; ++i) {
    const std::filesystem::path directory = effort.directory / std::to_string(i);
    std::filesystem::create_directory(directory);
    const tests::Fault fault = round(directory, chance);
    std::filesystem::remove_all(directory);
    if (!fault.empty() && faults++ == 0) first = "; round " + std::to_string(i) + ": " + fault;
  }
  return {faults == 0,
          std::to_string(faults) + " faults in " + std::to_string(rounds) + " rounds" + first};
}

std::chrono::nanoseconds instantBefore(std::chrono::nanoseconds longest, Chance& chance) {
  return std::chrono::nanoseconds(
      std::uniform_int_distribution<std::chrono::nanoseconds::rep>(0, longest.count())(chance));
}

std::string milliseconds(std::chrono::nanoseconds time) {
  std::array<char, 32> text{};
  const double value = std::chrono::duration<double, std::milli>(time).count();
  (void)std::snprintf(text.data(), text.size(), "%.3g ms", value);
  return text.data();
}

std::vector<std::string> eventNames(const std::filesystem::path& directory) {
  return testing::query(directory / DBFileName, "SELECT EventName FROM mrbw_v2_events ORDER BY id");
}

std::string lossOf(std::size_t found, std::size_t recorded) {
  return std::to_string(recorded - found) + " of " + std::to_string(recorded) + " lost";
}

}  // namespace marbleway::stress

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Marbleway/Host.h"
#include "Marbleway/Marbleway.h"
#include "stress/server.h"
#include "stress/setting.h"

namespace marbleway::stress {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kWarmUp = 60s;

struct Sample {
  double kilobytes = 0;  // resident, of its own
  std::ptrdiff_t descriptors = 0, threads = 0;
};

std::ptrdiff_t entriesIn(const char* directory) {
  return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
}

Sample takeSample() {
  Sample sample{.descriptors = entriesIn("/proc/self/fd"), .threads = entriesIn("/proc/self/task")};
  constexpr std::string_view kKey = "RssAnon:";
  std::ifstream lines("/proc/self/status");
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(kKey)) sample.kilobytes = std::strtod(&line[kKey.size()], nullptr) * 1.024;
  }
  return sample;
}

// What an application does in a while: a session with rows of all sorts, uploaded at its end.
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
  std::this_thread::sleep_for(5ms);
}

// A server in a process of its own, which keeps its memory apart; the batches' status alternates.
void serve(int told) {
  BatchServer server;
  const std::string line = server.url() + "\n";
  if (write(told, line.data(), line.size()) < 0) return;
  for (int i = 0;; ++i) {
    server.answerBatchesBy(i % 4 == 0 ? 500 : 200);
    std::this_thread::sleep_for(50ms);
  }
}

double meanKilobytes(std::vector<Sample>::const_iterator from, std::ptrdiff_t count) {
  double sum = 0;
  for (std::ptrdiff_t i = 0; i < count; ++i) sum += from[i].kilobytes;
  return sum / static_cast<double>(count);
}

// Growth between the first and the last tenth of the samples, which are a second apart.
double growthAMinute(const std::vector<Sample>& samples) {
  const auto size = static_cast<std::ptrdiff_t>(samples.size());
  const std::ptrdiff_t tenth = std::max<std::ptrdiff_t>(1, size / 10);
  const double minutes = static_cast<double>(std::max<std::ptrdiff_t>(1, size - tenth)) / 60;
  const double growth =
      meanKilobytes(samples.end() - tenth, tenth) - meanKilobytes(samples.begin(), tenth);
  return growth / minutes;
}

template <class Member>
std::string rangeOf(const std::vector<Sample>& samples, Member member, bool& isFlat) {
  const auto [least, most] = std::ranges::minmax(samples, {}, member);
  isFlat = isFlat && least.*member == most.*member;
  return std::to_string(least.*member) + " to " + std::to_string(most.*member);
}

}  // namespace

Outcome soak(const Effort& effort) {
  tests::Child server(serve, effort.soak + 600s);
  std::string url = server.told(64, 2s);
  url.erase(url.find('\n'));
  startLibrary(effort.directory, url);
  waitUntilIdle(10s);

  std::vector<Sample> samples;
  int sessions = 0;
  const auto start = Clock::now();
  for (auto next = start + kWarmUp; Clock::now() < start + effort.soak; useOnce(++sessions)) {
    if (Clock::now() < next) continue;
    samples.push_back(takeSample());
    next += 1s;
  }
  if (samples.size() < 2) return {false, "too short: the first minute does not count"};

  bool isFlat = true;
  const double growth = growthAMinute(samples);
  const std::string rest = ", descriptors " + rangeOf(samples, &Sample::descriptors, isFlat) +
                           ", threads " + rangeOf(samples, &Sample::threads, isFlat) + ", " +
                           std::to_string(sessions) + " sessions";
  return {isFlat && growth < 100,
          std::to_string(static_cast<long>(growth)) + " kB a minute" + rest};
}

}  // namespace marbleway::stress

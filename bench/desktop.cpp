#include "Marbleway/desktop.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Marbleway/platform/platform.h"
#include "Marbleway/session/connection_type.h"
#include "bench/measure.h"

// What the services of a desktop cost. Both buses are one private bus with a network manager on it,
// named in the environment.
namespace marbleway::bench {
namespace {

using namespace std::chrono_literals;

constexpr int kRounds = 50;

std::string connection() {
  return std::string(connectionType(platform::current()->statusBar->view().get()));
}

// The first call of a process, in as many processes as there are rounds.
void measureInstall(const std::string& name) {
  std::vector<double> times(kRounds);
  for (double& time : times) {
    time = inChild([] { return std::vector{timed({.run = [] { desktop::install(); }})}; }).at(0);
  }
  const Spread time = spreadOf(std::move(times));
  print({.name = name,
         .goal = "1 ms",
         .ours = duration(time.median),
         .met = metIf(time.most <= 1000),
         .note = duration(time.least).append(" to ").append(duration(time.most))});
}

// Threads, context switches while nothing happens, and the time of what a session start asks.
std::vector<double> withNetwork() {
  constexpr int kReadings = 20;
  constexpr int kReadingsOfBlock = 10'000;
  constexpr auto kIdle = 5s;
  const auto read = [] {
    for (int i = 0; i < kReadingsOfBlock; ++i) connection();
  };
  const double without = measure(1, kReadings, {.run = read}).median;
  const double threadsBefore = threads().count;
  desktop::install();
  const auto end = std::chrono::steady_clock::now() + 10s;
  while (connection() != "Wifi") {
    if (std::chrono::steady_clock::now() > end) throw std::runtime_error("no network manager");
    std::this_thread::sleep_for(10ms);
  }
  const double with = measure(1, kReadings, {.run = read}).median;
  const Threads before = threads();
  std::this_thread::sleep_for(kIdle);
  constexpr double kNanoseconds = 1000.0 / kReadingsOfBlock;
  return {before.count - threadsBefore, threads().switches - before.switches, with * kNanoseconds,
          without * kNanoseconds};
}

void measureDesktop() {
  measureInstall("desktop: install, network manager there");
  const std::vector<double> figures = inChild(withNetwork);
  print({.name = "desktop: threads more",
         .goal = "1",
         .ours = number(figures.at(0)),
         .met = metIf(figures.at(0) <= 1)});
  print({.name = "desktop: wake-ups in 5 s, quiet bus",
         .goal = "0",
         .ours = number(figures.at(1)),
         .met = metIf(figures.at(1) <= 0)});
  print({.name = "desktop: connection type, read",
         .ours = number(figures.at(2), " ns"),
         .bare = number(figures.at(3), " ns"),
         .note = "bare: without the component, always \"None\""});
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  measureInstall("desktop: install, no bus");
}

}  // namespace
}  // namespace marbleway::bench

int main() {
  try {
    marbleway::bench::measureDesktop();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "marbleway_bench_desktop: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}

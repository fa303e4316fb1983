#include "bench/measure.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <stdexcept>

namespace marbleway::bench {
namespace {

double medianOfBlock(int operations, const Operation& operation) {
  for (int i = 0; i < std::max(1, operations / 10); ++i) timed(operation);
  std::vector<double> times(static_cast<std::size_t>(operations));
  for (double& time : times) time = timed(operation);
  return spreadOf(std::move(times)).median;
}

// The number after `key` in a file of /proc; 0 when there is none.
double numberIn(const std::filesystem::path& file, std::string_view key) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(key)) return std::strtod(line.c_str() + key.size(), nullptr);
  }
  return 0;
}

constexpr double kKilobyte = 1024;

}  // namespace

Spread spreadOf(std::vector<double> numbers) {
  std::ranges::sort(numbers);
  return {numbers.at(numbers.size() / 2), numbers.front(), numbers.back()};
}

double timed(const Operation& operation) {
  using Clock = std::chrono::steady_clock;
  operation.prepare();
  const auto start = Clock::now();
  operation.run();
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

Comparison compare(int blocks, int operations, const Operation& ours, const Operation& bare) {
  std::vector<double> oursOfBlocks(static_cast<std::size_t>(blocks)), bareOfBlocks(oursOfBlocks);
  for (std::size_t i = 0; i < oursOfBlocks.size(); ++i) {
    oursOfBlocks[i] = medianOfBlock(operations, ours);
    bareOfBlocks[i] = medianOfBlock(operations, bare);
  }
  return {spreadOf(std::move(oursOfBlocks)), spreadOf(std::move(bareOfBlocks))};
}

Spread measure(int blocks, int operations, const Operation& operation) {
  std::vector<double> ofBlocks(static_cast<std::size_t>(blocks));
  for (double& median : ofBlocks) median = medianOfBlock(operations, operation);
  return spreadOf(std::move(ofBlocks));
}

void printHead() {
  print({.name = "figure",
         .goal = "goal",
         .ours = "ours",
         .bare = "bare",
         .ratio = "ratio",
         .note = "spread, or its parts"});
}

void print(const Figure& figure) {
  const char* met = figure.met == Figure::Met::none  ? ""
                    : figure.met == Figure::Met::yes ? "met"
                                                     : "MISSED";
  std::printf("%-44s %-20s %10s %10s %6s  %-6s  %s\n", figure.name.c_str(), figure.goal.c_str(),
              figure.ours.c_str(), figure.bare.c_str(), figure.ratio.c_str(), met,
              figure.note.c_str());
  std::fflush(stdout);
}

void print(const std::string& name, double mostRatio, const Comparison& comparison) {
  const auto& [ours, bare] = comparison;
  const double ratio = ours.median / bare.median;
  const auto range = [](const Spread& spread) {
    return duration(spread.least).append(" to ").append(duration(spread.most));
  };
  print({.name = name,
         .goal = number(mostRatio).append(" x bare"),
         .ours = duration(ours.median),
         .bare = duration(bare.median),
         .ratio = number(ratio),
         .met = metIf(ratio <= mostRatio),
         .note = range(ours).append("; bare ").append(range(bare))});
}

Figure::Met metIf(bool isMet) { return isMet ? Figure::Met::yes : Figure::Met::no; }

std::string number(double value, std::string_view unit) {
  const int decimals = value < 10 ? 2 : value < 100 ? 1 : 0;
  std::array<char, 64> text{};
  const int length = std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
  return std::string(text.data(), static_cast<std::size_t>(length)).append(unit);
}

std::string duration(double microseconds) {
  return microseconds < 1000 ? number(microseconds, " us") : number(microseconds / 1000, " ms");
}

std::vector<double> inChild(const std::function<std::vector<double>()>& work) {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("no process");
  if (child == 0) {
    int status = EXIT_FAILURE;
    try {
      const std::vector<double> numbers = work();
      const std::size_t bytes = numbers.size() * sizeof(double);
      if (write(ends[1], numbers.data(), bytes) == static_cast<ssize_t>(bytes)) status = 0;
    } catch (const std::exception& failure) {
      std::fprintf(stderr, "marbleway_bench: %s\n", failure.what());
    }
    _exit(status);
  }
  close(ends[1]);
  std::vector<double> numbers;
  for (double next = 0; read(ends[0], &next, sizeof next) == sizeof next;) numbers.push_back(next);
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (status != 0) throw std::runtime_error("a measurement failed");
  return numbers;
}

void inOwnProcess(const std::function<void()>& work) {
  inChild([&] {
    work();
    return std::vector<double>();
  });
}

double residentBytes() { return numberIn("/proc/self/smaps_rollup", "Rss:") * kKilobyte; }
double mostResidentBytes() { return numberIn("/proc/self/status", "VmHWM:") * kKilobyte; }

Threads threads() {
  Threads all;
  const std::string own = std::to_string(gettid());
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    ++all.count;
    if (task.path().filename() == own) continue;
    all.switches += numberIn(task.path() / "status", "voluntary_ctxt_switches:");
  }
  return all;
}

WorkDirectory::WorkDirectory(const std::filesystem::path& under) {
  std::string name = (under / "marbleway-bench-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr)
    throw std::runtime_error("no directory in " + under.string());
  path_ = name;
}

WorkDirectory::~WorkDirectory() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

}  // namespace marbleway::bench
